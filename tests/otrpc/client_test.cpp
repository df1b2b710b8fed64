// ctest-labels: threads
// The client end to end against an agent on loopback: connection states,
// reconnecting and retrying, the queue across connections, the stream reader,
// the duplicate filter, expiry of calls, and several threads at once.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "common/dlist.h"
#include "kelo/log.h"
#include "kelo/otrpc.h"
#include "otrpc/otconn.h"
#include "otrpc/otmethod.h"
#include "otrpc/otsocket.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

namespace {

using namespace kelo::otrpc;
using namespace kelo::test;

// Sends a message {"method", "id", "params", "t", "n"[, "pad"]} with fn; its result.
int send_msg(int (*fn)(json_object *), const char *method, int n, int t = 0, size_t pad = 0) {
  json_object *m = otrpc_create_message(method);
  json_object_object_add(m, "t", json_object_new_int(t));
  json_object_object_add(m, "n", json_object_new_int(n));
  if (pad != 0) json_object_object_add(m, "pad", json_object_new_string(std::string(pad, 'p').c_str()));
  int r = fn(m);
  return json_object_put(m), r;
}
int queue(int n) { return send_msg(otrpc_send, "queued", n); }
int immediate(int n) { return send_msg(otrpc_send_immediate, "imm", n); }
int answer(void *, json_object *, json_object *) { return 0; }

// A state hook that records every change and the thread it came on.
struct Change {
  int to, from;
  double t;
};
std::vector<Change> g_seen;
pthread_t g_loop_thread;
std::atomic<int> g_off_loop{0};
int record(void *, int to, int from) {
  g_off_loop += !pthread_equal(pthread_self(), g_loop_thread);
  return g_seen.push_back({to, from, now_s()}), 0;
}
otrpc_state_hook g_hook = {nullptr, record, nullptr, nullptr};

class Client : public ::testing::Test {
 protected:
  void SetUp() override {
    alarm(60);  // a deadlock fails the test instead of hanging it
    g_loop_thread = pthread_self();
    g_seen.clear();
    ASSERT_EQ(otrpc_init(), 0);
    kelo::dlist::append(&otrpc_on_state_changed, &g_hook);
  }
  void TearDown() override {
    stop_ = true;
    for (auto &t : threads_) t.join();
    otrpc_fini();
    EXPECT_EQ(g_off_loop.load(), 0);
    alarm(0);
  }
  bool announced(size_t n) {
    return pump_until([&] { return agent_.with_method("register").size() >= n; }, 5);
  }
  bool arrived_in_order(size_t n) {
    if (!pump_until([&] { return agent_.with_method("queued").size() == n; }, 5)) return false;
    for (size_t i = 0; i < n; ++i) EXPECT_EQ(jint(agent_.with_method("queued")[i].obj, "n"), int(i));
    return true;
  }

  Sandbox sb_;
  FakeAgent agent_{sb_.agent_port()};
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

TEST_F(Client, ReconnectsAtOnceAndAnnouncesEveryMethodOncePerConnection) {
  ASSERT_EQ(otrpc_register("a", answer, nullptr, 0), 0);
  ASSERT_EQ(otrpc_register("b", answer, nullptr, 0), 0);
  otrpc_start();
  std::vector<double> dropped;
  for (size_t conn = 1; conn <= 3; ++conn) {
    ASSERT_TRUE(announced(2 * conn));
    pump_for(0.1);  // a queued announcement would follow now
    if (conn == 3) break;
    dropped.push_back(now_s());
    agent_.close_connection();
  }
  otrpc_stop();
  auto regs = agent_.with_method("register");
  ASSERT_EQ(regs.size(), 6u);
  for (size_t i = 0; i < regs.size(); ++i) {
    EXPECT_EQ(jstr(regs[i].obj, "key"), i % 2 ? "b" : "a");
    EXPECT_EQ(regs[i].conn, int(i / 2 + 1));
    EXPECT_TRUE(i < 2 || jint(regs[i].obj, "id") != jint(regs[i - 2].obj, "id"));
  }
  // Each change follows on from the one before; a lost connection passes
  // IDLE and is made again at once, without the retry delay.
  std::vector<int> to;
  for (size_t i = 0; i < g_seen.size(); ++i) {
    EXPECT_EQ(g_seen[i].from, i > 0 ? g_seen[i - 1].to : OTCONN_IDLE);
    if (g_seen[i].to != OTCONN_CONNECTING) to.push_back(g_seen[i].to);
    EXPECT_TRUE(to.size() < 3 || to.back() != OTCONN_CONNECTED ||
                g_seen[i].t - dropped.at(to.size() / 2 - 1) < 0.9);
  }
  EXPECT_EQ(to, (std::vector<int>{OTCONN_CONNECTED, OTCONN_IDLE, OTCONN_CONNECTED, OTCONN_IDLE,
                                  OTCONN_CONNECTED, OTCONN_IDLE}));
}

TEST_F(Client, QueuesWithoutAgentRetriesOnceASecondAndStopsInEachState) {
  agent_.stop_listening();
  otrpc_start();
  for (int i = 0; i < 50; ++i) EXPECT_GT(queue(i), 0);
  pump_for(3.5);
  // Each failed attempt passes IDLE on its way to the wait, a second apart.
  std::vector<double> waits;
  for (size_t i = 1; i < g_seen.size(); ++i) {
    if (g_seen[i].to != OTCONN_RETRY_WAIT) continue;
    EXPECT_EQ(g_seen[i].from, OTCONN_IDLE);
    waits.push_back(g_seen[i].t);
  }
  ASSERT_TRUE(waits.size() >= 2 && waits.size() <= 5) << waits.size();
  // A loaded machine may only make them later.
  for (size_t i = 1; i < waits.size(); ++i)
    EXPECT_TRUE(waits[i] - waits[i - 1] >= 0.95 && waits[i] - waits[i - 1] <= 2);
  agent_.start_listening();
  ASSERT_TRUE(arrived_in_order(50));
  // Stopped while waiting to retry: no connect happens afterwards.
  agent_.stop_listening();
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_RETRY_WAIT; }, 3));
  otrpc_stop();
  agent_.start_listening();
  pump_for(1.3);
  EXPECT_EQ(agent_.connections(), 1);
  // Stopped while connected: closed, not reconnected, the queue kept.
  EXPECT_EQ(otrpc_start(), 0);
  ASSERT_TRUE(pump_until([&] { return otconn_get_state() == OTCONN_CONNECTED; }, 3));
  otrpc_stop();
  EXPECT_GT(queue(50), 0);
  pump_for(1.3);
  EXPECT_EQ(agent_.connections(), 2);
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  otrpc_start();
  ASSERT_TRUE(arrived_in_order(51));
}

TEST_F(Client, APartlyWrittenTextContinuesOnTheNextConnection) {
  ASSERT_EQ(otrpc_register("m", answer, nullptr, 0), 0);
  otrpc_start();
  ASSERT_TRUE(announced(1));
  // White space between tokens, so that the agent parses what follows its tail.
  const std::string big = R"({"method":"big",)" + std::string(8 << 20, ' ') + "}",
                    after = R"({"method":"after"})";
  agent_.set_reading(false);
  for (const std::string *t : {&big, &after})
    ASSERT_GT(otsocket_enqueue(t->data(), t->size(), nullptr, nullptr), 0);
  otconn_wakeup();
  pump_for(0.2);
  ASSERT_EQ(otsocket_queue_length_for_testing(), 2);  // big is on its way
  agent_.close_connection();
  ASSERT_TRUE(pump_until([&] { return !agent_.with_method("after").empty(); }, 20));
  // On the new connection: the announcement ahead of the queue, then the
  // rest of big from where it stopped, then what was queued behind it.
  const std::string &raw = agent_.raw(2);
  size_t tail = raw.find(R"("key":"m"})") + 10, len = raw.size() - after.size() - tail;
  EXPECT_EQ(raw.substr(tail + len), after);
  EXPECT_TRUE(len > 0 && len < big.size()) << len;
  EXPECT_EQ(raw.compare(tail, len, big, big.size() - len, len), 0);
}

TEST_F(Client, RepeatedRequestIdsGoUnansweredUntilThreeOthersPassed) {
  ASSERT_EQ(otrpc_register("m", answer, nullptr, 0), 0);
  ASSERT_EQ(otrpc_register("dup", answer, nullptr, OTRPC_METHOD_ALLOW_DUP), 0);
  otrpc_start();
  ASSERT_TRUE(announced(2));
  // The three remembered ids start as 2147483647; "dup" neither consults nor
  // feeds them; ids that are not integers are neither filtered nor remembered.
  const char *const sent[][2] = {
      {"m", "2147483647"}, {"dup", "2147483647"}, {"m", "1"}, {"m", "2"}, {"m", "3"},     {"m", "1"},
      {"dup", "1"},        {"dup", "1"},          {"m", "4"}, {"m", "1"}, {"m", "\"s\""}, {"m", "\"s\""}};
  for (const auto &s : sent)
    agent_.send_raw(std::string(R"({"method":")") + s[0] + R"(","id":)" + s[1] + "}");
  const std::vector<std::string> want = {"2147483647", "1", "2", "3", "1", "1", "4", "1", "\"s\"", "\"s\""};
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("").size() == want.size(); }, 5));
  std::vector<std::string> got;
  for (const auto &r : agent_.with_method(""))  // the replies
    got.push_back(json_object_to_json_string(json_object_object_get(r.obj, "id")));
  EXPECT_EQ(got, want);
}

// Counts expiries, and (by hundreds) replies.
int on_return(void *arg, json_object *msg) { return *static_cast<int *>(arg) += msg ? 100 : 1, 0; }

TEST_F(Client, UnansweredCallsExpireAtALaterCallOnceOlderThanFiveSeconds) {
  int a = 0, b = 0, c = 0;
  json_object *m = otrpc_create_message("agent.fn");
  otrpc_call(m, on_return, &a);
  otmethod_age_returns_for_testing(5);
  otrpc_call(m, on_return, &b);
  EXPECT_EQ(a, 0);  // five seconds old: kept
  otmethod_age_returns_for_testing(1);
  otrpc_call(m, on_return, &c);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(b + c, 0);
  EXPECT_EQ(otmethod_pending_returns_for_testing(), 2);
  json_object_put(m);
}

// Send completions run on the loop thread and call into the registry.
void call_when_written(void *) {
  send_msg([](json_object *m) { return otrpc_call(m, nullptr, nullptr); }, "agent.after", 0);
}
std::atomic<int> g_replies{0};
int count_reply(void *, json_object *) { return ++g_replies, 0; }

TEST_F(Client, SendersCallersAndRegistrationsOnOtherThreadsWhileTheLoopRuns) {
  otrpc_start();
  constexpr int kThreads = 4, kEach = 500, kCalls = 200;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t)
    threads_.emplace_back([t, &failures] {
      for (int n = 0; n < kEach; ++n)  // some bulk, so that writes would block now and then
        failures += send_msg(otrpc_send, "load", n, t, 200 + n % 300) <= 0;
    });
  threads_.emplace_back([&] {
    for (int i = 0; i < kCalls; ++i)
      failures +=
          send_msg([](json_object *m) { return otrpc_call(m, count_reply, nullptr); }, "agent.ping", i) <= 0;
  });
  // Registry lock, then queue lock (a queued announcement is cancelled) ...
  threads_.emplace_back([&] {
    for (int i = 0; !stop_; ++i) {
      otrpc_register(std::to_string(i % 8).c_str(), answer, nullptr, 0);
      otrpc_unregister(std::to_string(i % 8).c_str());
    }
  });
  // ... while the loop flushes, calling from the completions.
  for (int i = 0; i < 2000; ++i) {
    send_msg([](json_object *m) { return otrpc_send_cb(m, call_when_written, nullptr); }, "sent", i);
    if (i % 10 == 0) pump_for(0.001);
  }
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("agent.ping").size() == kCalls; }, 30));
  for (const auto &r : agent_.with_method("agent.ping"))
    agent_.send_raw(R"({"id":)" + std::to_string(jint(r.obj, "id")) + "}");
  EXPECT_TRUE(pump_until([&] { return g_replies == kCalls; }, 5)) << g_replies.load();
  EXPECT_TRUE(pump_until([&] { return agent_.with_method("agent.after").size() == 2000; }, 30));
  EXPECT_TRUE(pump_until([&] { return agent_.with_method("load").size() == kThreads * kEach; }, 30));
  EXPECT_EQ(failures.load(), 0);
  // All arrive whole and once, each thread's in order.
  std::vector<long long> next(kThreads, 0);
  for (const auto &r : agent_.with_method("load"))
    EXPECT_EQ(jint(r.obj, "n"), next.at(size_t(jint(r.obj, "t")))++);
  EXPECT_EQ(next, std::vector<long long>(kThreads, kEach));
}

TEST_F(Client, ImmediateSendsFromAnotherThreadLeaveTheCloseToTheLoop) {
  otrpc_start();
  auto connected = [&](int n) {
    return pump_until([&] { return agent_.connections() == n && otconn_get_state() == OTCONN_CONNECTED; }, 5);
  };
  ASSERT_TRUE(connected(1));
  // The peer is gone and the loop does not turn: the worker's send fails.
  agent_.close_connection();
  int r = 0, queued = otsocket_queue_length_for_testing();
  std::thread([&] {
    for (int i = 0; i < 200 && (r = immediate(i)) == 0; ++i) usleep(1000);
  }).join();
  EXPECT_EQ(r, -1);
  EXPECT_EQ(otsocket_queue_length_for_testing(), queued);  // nothing kept
  ASSERT_TRUE(connected(2));
  // Sending on while the loop turns and the agent drops the connection.
  threads_.emplace_back([&] {
    for (int i = 1000; !stop_; ++i) immediate(i);
  });
  for (int conn = 3; conn <= 4; ++conn) {
    pump_for(0.02);
    agent_.close_connection();
    ASSERT_TRUE(connected(conn));
  }
  std::thread([&] { r = send_msg(otrpc_send_immediate, "last", 0); }).join();
  EXPECT_EQ(r, 0);
  EXPECT_TRUE(pump_until([&] { return agent_.with_method("last").size() == 1; }, 5));
}

// A service's debug-level log handler that calls the agent, while a worker
// sends immediately and the loop flushes: the library logs no line while it
// holds a lock of its own, so the handler's call cannot invert the order of
// the registry and queue locks.
TEST(ClientLocks, DebugHandlerCallsWhileAWorkerSendsImmediately) {
  Sandbox sb;
  auto r = run_child(
      [&] {
        FakeAgent agent(sb.agent_port());
        static pthread_t loop = pthread_self();
        static log_handler h = {[](log_handler *, int, const char *, const char *, va_list) {
                                  if (pthread_equal(pthread_self(), loop)) return;
                                  usleep(200);  // the loop may flush meanwhile
                                  send_msg([](json_object *m) { return otrpc_call(m, nullptr, nullptr); },
                                           "from.handler", 0);
                                },
                                nullptr, nullptr, nullptr};
        if (otrpc_init() != 0 || otrpc_start() != 0) _exit(3);
        if (!pump_until([] { return otconn_get_state() == OTCONN_CONNECTED; }, 5)) _exit(4);
        setenv("KELO_LOG_LEVEL", "0", 1);
        log_info("started");  // before the handler goes in: the start would replace it
        log_set_handler(0x80, &h);
        std::atomic<bool> done{false};
        std::thread worker([&] {
          for (int i = 0; i < 500; ++i) immediate(i);
          done = true;
        });
        int n = 0;
        while (!done) queue(n++), pump_for(0.001);
        worker.join();
        if (!pump_until([&] { return agent.with_method("queued").size() == size_t(n); }, 5)) _exit(5);
        printf("%d", !agent.with_method("from.handler").empty());
        otrpc_fini();
      },
      10);
  EXPECT_EQ(r.out, "1") << "signal " << r.signal << ", status " << r.exit_code;
}

// The receive path: a random stream of objects, separators and values that
// are not objects, cut into random chunks, yields the same objects in order.
std::string random_text(std::mt19937 &rng, int depth, bool object = false) {
  auto pick = [&](int n) { return int(rng() % unsigned(n)); };
  auto str = [&](int len) {
    static const char *const kPieces[] = {"a", "z", "0", " ", "/", "{", "]", ":", ",", "\\n", "\\\"", "\\\\"};
    std::string s = "\"";
    while (len-- > 0) s += kPieces[pick(12)];
    return s + "\"";
  };
  int kind = object ? 0 : depth > 0 ? pick(5) : 1 + pick(2);
  if (kind == 1) return std::to_string(int64_t(rng()) * 1000003 - 99);
  if (kind == 2)
    return str(pick(20) ? pick(40) : 5000 + pick(9000));  // at times longer than the receive buffer
  std::string s;                                          // 0, 3: an object; 4: an array
  for (int i = pick(4); i > 0; --i)
    s += (s.empty() ? "" : ",") + (kind == 4 ? "" : str(1 + pick(5)) + ":") + random_text(rng, depth - 1);
  return kind == 4 ? "[" + s + "]" : "{" + s + "}";
}

TEST(Receive, AnyCuttingOfTheStreamYieldsTheSameObjects) {
  Sandbox sb;  // the receive path logs, and logging maps its shared region
  ASSERT_EQ(otsocket_init(), 0);
  const std::string seps[] = {"",       " ",   "\r\n\t", std::string(3, '\0'), "[1,{\"a\":2}] ",
                              "\"s\" ", "12 ", "null "};
  for (unsigned seed = 1; seed <= 40; ++seed) {
    std::mt19937 rng(seed);
    std::string stream;
    std::vector<std::string> want, got;
    for (int n = 0; n < 60; ++n) {
      std::string text = random_text(rng, 5, true);
      json_object *o = json_tokener_parse(text.c_str());
      want.push_back(json_object_to_json_string(o));
      json_object_put(o);
      stream += seps[rng() % 8] + text;
    }
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    auto drain = [&] {
      for (json_object *o = nullptr; otsocket_receive(sv[1], &o) == 1; json_object_put(o))
        got.push_back(json_object_to_json_string(o));
    };
    for (size_t at = 0, len; at < stream.size(); at += len, drain()) {
      len = std::min<size_t>(stream.size() - at, 1 + rng() % (rng() % 2 ? 8 : 3000));
      ASSERT_EQ(write(sv[0], stream.data() + at, len), ssize_t(len));
    }
    close(sv[0]);
    drain();
    EXPECT_EQ(got, want) << "seed " << seed;
    close(sv[1]);
  }
  otsocket_fini();
}

}  // namespace
