// The RPC client over loopback: request-reply round trips against a minimal
// blocking pair written directly on sockets and json-c (the ceiling for this
// design), messages per second from four sending threads, and the memory
// each queued message costs.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <ev.h>
#include <json-c/json.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "common/sys_paths.h"
#include "kelo/otrpc.h"

namespace {

int listen_any(int *port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 4) != 0) abort();
  getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
  *port = ntohs(a.sin_port);
  return fd;
}

int connect_to(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) abort();
  return fd;
}

void nodelay(int fd) {
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

void send_all(int fd, const char *p, size_t n) {
  while (n > 0) {
    ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
    if (w <= 0) abort();
    p += w;
    n -= static_cast<size_t>(w);
  }
}

// The agent's side of a blocking connection: reads objects with json-c.
struct AgentReader {
  int fd;
  json_tokener *tok = json_tokener_new();
  char buf[65536];
  size_t rd = 0, wr = 0;
  explicit AgentReader(int f) : fd(f) {}
  ~AgentReader() { json_tokener_free(tok); }
  // The next object; blocks.
  json_object *next() {
    for (;;) {
      if (rd == wr) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) abort();
        rd = 0;
        wr = static_cast<size_t>(n);
      }
      json_object *o = json_tokener_parse_ex(tok, buf + rd, static_cast<int>(wr - rd));
      rd += json_tokener_get_parse_end(tok);
      if (o != nullptr) {
        json_tokener_reset(tok);
        return o;
      }
      if (json_tokener_get_error(tok) != json_tokener_continue) abort();
    }
  }
};

// One request, then objects until the reply with its id.
void round_trip(int fd, AgentReader &in, int id) {
  char req[96];
  int n = snprintf(req, sizeof req, R"({"method":"echo","id":%d,"params":{}})", id);
  send_all(fd, req, static_cast<size_t>(n));
  for (;;) {
    json_object *o = in.next();
    json_object *v = nullptr;
    bool done = !json_object_object_get_ex(o, "method", nullptr) && json_object_object_get_ex(o, "id", &v) &&
                json_object_get_int(v) == id;
    json_object_put(o);
    if (done) return;
  }
}

// ---- the library as the service: its loop on a thread of its own ----------

int echo(void *, json_object *, json_object *) { return 0; }

struct LibraryService {
  int agent_fd = -1;
  AgentReader *reader = nullptr;
  LibraryService() {
    setenv("KELO_LOG_LEVEL", "info", 1);
    int port;
    int lfd = listen_any(&port);
    kelo::sys::Paths p = kelo::sys::paths();
    p.agent_port = static_cast<uint16_t>(port);
    kelo::sys::set_paths_for_testing(p);
    std::atomic<bool> up{false};
    std::thread([&up] {
      otrpc_init();
      otrpc_register("echo", echo, nullptr, 0);
      otrpc_start();
      up = true;
      ev_run(ev_default_loop(0), 0);
    }).detach();
    while (!up) usleep(1000);
    agent_fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
    close(lfd);
    nodelay(agent_fd);
    reader = new AgentReader(agent_fd);
    json_object_put(reader->next());  // the announcement
  }
};

LibraryService &library() {
  static LibraryService s;
  return s;
}

// ---- the ceiling: the same work on blocking sockets, no loop, no queue -----

struct CeilingService {
  int agent_fd = -1;
  AgentReader *reader = nullptr;
  CeilingService() {
    int port;
    int lfd = listen_any(&port);
    std::thread([port] {
      int fd = connect_to(port);
      nodelay(fd);
      AgentReader in(fd);
      for (;;) {
        json_object *req = in.next();
        json_object *m = nullptr, *id = nullptr;
        if (json_object_object_get_ex(req, "method", &m) && json_object_get_string(m) != nullptr) {
          json_object_object_get_ex(req, "id", &id);
          json_object *reply = json_object_new_object();
          json_object_object_add(reply, "id", json_object_get(id));
          json_object *ok = json_object_new_array();
          json_object_array_add(ok, json_object_new_string("OK"));
          json_object_object_add(reply, "result", ok);
          const char *text = json_object_to_json_string_ext(reply, 0);
          send_all(fd, text, strlen(text));
          json_object_put(reply);
        }
        json_object_put(req);
      }
    }).detach();
    agent_fd = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
    close(lfd);
    nodelay(agent_fd);
    reader = new AgentReader(agent_fd);
  }
};

CeilingService &ceiling() {
  static CeilingService s;
  return s;
}

// Runs first, before any connection exists: texts only queue.
void BM_QueuedMessageMemory(benchmark::State &state) {
  constexpr int kN = 10000;
  json_object *m = otrpc_create_message("cam.event");
  json_object *p = nullptr;
  json_object_object_get_ex(m, "params", &p);
  json_object_object_add(p, "value", json_object_new_int(1));
  size_t text_len = strlen(json_object_to_json_string_ext(m, 0));
  std::vector<int> ids(kN);
  double per = 0;
  for (auto _ : state) {
    size_t before = mallinfo2().uordblks;
    for (int i = 0; i < kN; ++i) ids[i] = otrpc_send(m);
    size_t after = mallinfo2().uordblks;
    per = static_cast<double>(after - before) / kN;
    for (int id : ids) otrpc_send_cancel(id);
  }
  json_object_put(m);
  state.counters["bytes_per_msg"] = per;
  state.counters["text_bytes"] = static_cast<double>(text_len);
}
BENCHMARK(BM_QueuedMessageMemory)->Iterations(3);

void BM_RoundTripLibrary(benchmark::State &state) {
  LibraryService &s = library();
  // Ids never repeat across runs: the service drops a repeated request id.
  static int id = 1;
  for (auto _ : state) round_trip(s.agent_fd, *s.reader, id++);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RoundTripLibrary)->MinTime(2.0)->UseRealTime();

void BM_RoundTripCeiling(benchmark::State &state) {
  CeilingService &s = ceiling();
  static int id = 1;
  for (auto _ : state) round_trip(s.agent_fd, *s.reader, id++);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RoundTripCeiling)->MinTime(2.0)->UseRealTime();

// Four threads each send kEach messages; an iteration ends when the agent
// has read all of them.
void BM_FourSenders(benchmark::State &state) {
  constexpr int kThreads = 4, kEach = 20000;
  LibraryService &s = library();
  const char kMark[] = "\"load\"";
  for (auto _ : state) {
    std::atomic<long> seen{0};
    std::thread drain([&] {
      char buf[65536 + 8];
      size_t keep = 0;
      long n = 0;
      while (n < kThreads * kEach) {
        ssize_t r = recv(s.agent_fd, buf + keep, 65536, 0);
        if (r <= 0) abort();
        size_t len = keep + static_cast<size_t>(r);
        for (const char *q = buf; (q = static_cast<const char *>(memmem(q, len - (q - buf), kMark, 6)));
             q += 6)
          ++n;
        keep = len < 5 ? len : 5;
        memmove(buf, buf + len - keep, keep);
      }
      seen = n;
    });
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
      senders.emplace_back([] {
        for (int i = 0; i < kEach; ++i) {
          json_object *m = otrpc_create_message("load");
          json_object *p = nullptr;
          json_object_object_get_ex(m, "params", &p);
          json_object_object_add(p, "n", json_object_new_int(i));
          otrpc_send(m);
          json_object_put(m);
        }
      });
    for (auto &t : senders) t.join();
    drain.join();
  }
  state.SetItemsProcessed(state.iterations() * kThreads * kEach);
}
BENCHMARK(BM_FourSenders)->Iterations(5)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
