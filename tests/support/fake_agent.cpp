#include "support/fake_agent.h"

#include <arpa/inet.h>
#include <ev.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <future>

namespace kelo::test {

double now_s() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

FakeAgent::FakeAgent(int port, bool listen_now) : port_(port) {
  if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) abort();
  tok_ = json_tokener_new_ex(64);
  thread_ = std::thread([this] { run(); });
  if (listen_now) start_listening();
}

FakeAgent::~FakeAgent() {
  exec([this] {
    quit_ = true;
    if (conn_fd_ >= 0) close(conn_fd_);
    if (listen_fd_ >= 0) close(listen_fd_);
    conn_fd_ = listen_fd_ = -1;
  });
  thread_.join();
  close(wake_[0]);
  close(wake_[1]);
  json_tokener_free(tok_);
  for (auto &r : got_) json_object_put(r.obj);
}

void FakeAgent::exec(const std::function<void()> &fn) {
  std::promise<void> done;
  auto fut = done.get_future();
  {
    std::lock_guard<std::mutex> lock(mu_);
    jobs_.push_back([&] {
      fn();
      done.set_value();
    });
  }
  char c = 1;
  (void)!write(wake_[1], &c, 1);
  fut.wait();
}

void FakeAgent::start_listening() {
  exec([this] {
    if (listen_fd_ >= 0) return;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port_));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 8) != 0) {
      fprintf(stderr, "fake agent: cannot listen on %d: %s\n", port_, strerror(errno));
      abort();
    }
    listen_fd_ = fd;
  });
}

void FakeAgent::stop_listening() {
  exec([this] {
    if (listen_fd_ >= 0) close(listen_fd_);
    if (conn_fd_ >= 0) close(conn_fd_);
    listen_fd_ = conn_fd_ = -1;
  });
}

void FakeAgent::close_connection() {
  exec([this] {
    if (conn_fd_ >= 0) close(conn_fd_);
    conn_fd_ = -1;
  });
}

bool FakeAgent::send_raw(const std::string &bytes) {
  bool ok = false;
  exec([&] {
    if (conn_fd_ < 0) return;
    size_t off = 0;
    while (off < bytes.size()) {
      ssize_t n = send(conn_fd_, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return;
      off += static_cast<size_t>(n);
    }
    ok = true;
  });
  return ok;
}

bool FakeAgent::send_bytes_singly(const std::string &bytes, int pause_us) {
  for (char c : bytes) {
    if (!send_raw(std::string(1, c))) return false;
    if (pause_us > 0) usleep(static_cast<useconds_t>(pause_us));
  }
  return true;
}

void FakeAgent::on_bytes(const char *p, size_t n) {
  size_t off = 0;
  while (off < n) {
    // Skip separators between objects.
    if (json_tokener_get_error(tok_) != json_tokener_continue || tok_->char_offset == 0) {
      while (off < n && (p[off] == ' ' || p[off] == '\n' || p[off] == '\r' || p[off] == '\t' || p[off] == '\0'))
        ++off;
      if (off == n) break;
    }
    json_object *o = json_tokener_parse_ex(tok_, p + off, static_cast<int>(n - off));
    json_tokener_error err = json_tokener_get_error(tok_);
    if (o != nullptr) {
      off += static_cast<size_t>(tok_->char_offset);
      std::lock_guard<std::mutex> lock(mu_);
      got_.push_back({o, json_object_to_json_string_ext(o, 0), now_s(), conns_});
      cv_.notify_all();
      json_tokener_reset(tok_);
      continue;
    }
    if (err == json_tokener_continue) break;
    {
      std::lock_guard<std::mutex> lock(mu_);
      ++parse_errors_;
    }
    json_tokener_reset(tok_);
    ++off;
  }
}

void FakeAgent::run() {
  char buf[65536];
  for (;;) {
    std::vector<std::function<void()>> jobs;
    {
      std::lock_guard<std::mutex> lock(mu_);
      jobs.swap(jobs_);
    }
    for (auto &j : jobs) j();
    if (quit_) return;
    pollfd fds[3] = {{wake_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}, {conn_fd_, POLLIN, 0}};
    if (poll(fds, 3, 100) < 0) continue;
    if (fds[0].revents & POLLIN)
      while (read(wake_[0], buf, sizeof buf) > 0) {
      }
    if (listen_fd_ >= 0 && (fds[1].revents & POLLIN)) {
      int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) {
        if (conn_fd_ >= 0) close(conn_fd_);
        conn_fd_ = fd;
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        json_tokener_reset(tok_);
        std::lock_guard<std::mutex> lock(mu_);
        ++conns_;
        cv_.notify_all();
      }
    }
    if (conn_fd_ >= 0 && fds[2].fd == conn_fd_ && (fds[2].revents & (POLLIN | POLLHUP | POLLERR))) {
      ssize_t n = recv(conn_fd_, buf, sizeof buf, MSG_DONTWAIT);
      if (n > 0) {
        on_bytes(buf, static_cast<size_t>(n));
      } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
        close(conn_fd_);
        conn_fd_ = -1;
        std::lock_guard<std::mutex> lock(mu_);
        cv_.notify_all();
      }
    }
  }
}

std::vector<Received> FakeAgent::received() const {
  std::lock_guard<std::mutex> lock(mu_);
  return got_;
}

size_t FakeAgent::count() const {
  std::lock_guard<std::mutex> lock(mu_);
  return got_.size();
}

std::vector<Received> FakeAgent::with_method(const std::string &method) const {
  std::vector<Received> out;
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto &r : got_)
    if (jstr(r.obj, "method") == method && jhas(r.obj, "method")) out.push_back(r);
  return out;
}

json_object *FakeAgent::reply_for(long long id) const {
  std::lock_guard<std::mutex> lock(mu_);
  for (const auto &r : got_)
    if (!jhas(r.obj, "method") && jint(r.obj, "id") == id) return r.obj;
  return nullptr;
}

int FakeAgent::connections() const {
  std::lock_guard<std::mutex> lock(mu_);
  return conns_;
}

bool FakeAgent::connected() const {
  bool c = false;
  const_cast<FakeAgent *>(this)->exec([&] { c = conn_fd_ >= 0; });
  return c;
}

int FakeAgent::parse_errors() const {
  std::lock_guard<std::mutex> lock(mu_);
  return parse_errors_;
}

void FakeAgent::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  for (auto &r : got_) json_object_put(r.obj);
  got_.clear();
}

bool FakeAgent::wait_for(const std::function<bool()> &pred, double timeout_s) const {
  double end = now_s() + timeout_s;
  while (!pred()) {
    if (now_s() > end) return false;
    usleep(2000);
  }
  return true;
}

namespace {
void wake_cb(struct ev_loop *, ev_timer *, int) {}
}  // namespace

bool pump_until(const std::function<bool()> &pred, double timeout_s) {
  struct ev_loop *loop = ev_default_loop(0);
  ev_timer tick;
  ev_timer_init(&tick, wake_cb, 0.005, 0.005);
  ev_timer_start(loop, &tick);
  double end = now_s() + timeout_s;
  bool ok = pred();
  while (!ok && now_s() < end) {
    ev_run(loop, EVRUN_ONCE);
    ok = pred();
  }
  ev_timer_stop(loop, &tick);
  return ok;
}

void pump_for(double seconds) {
  pump_until([] { return false; }, seconds);
}

std::string jstr(json_object *o, const char *key) {
  json_object *v = nullptr;
  if (!json_object_object_get_ex(o, key, &v) || !json_object_is_type(v, json_type_string)) return "";
  return json_object_get_string(v);
}

long long jint(json_object *o, const char *key) {
  json_object *v = nullptr;
  if (!json_object_object_get_ex(o, key, &v) || !json_object_is_type(v, json_type_int)) return LLONG_MIN;
  return json_object_get_int64(v);
}

bool jhas(json_object *o, const char *key) { return json_object_object_get_ex(o, key, nullptr); }

}  // namespace kelo::test
