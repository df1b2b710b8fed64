// Test support: an agent on 127.0.0.1 for the RPC client to talk to. Its
// sockets are watched by the default loop, like the client's, so the agent
// acts only while the loop turns (pump_until). It accepts one connection at a
// time (a new one replaces the old) and keeps every byte and every JSON value
// that it receives.
#pragma once

#include <arpa/inet.h>
#include <ev.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace kelo::test {

// Members: a string ("" when absent or not a string), an integer (LLONG_MIN
// when absent or not an integer).
inline std::string jstr(json_object *o, const char *key) {
  json_object *v = nullptr;
  return json_object_object_get_ex(o, key, &v) && json_object_is_type(v, json_type_string)
             ? json_object_get_string(v)
             : "";
}
inline long long jint(json_object *o, const char *key) {
  json_object *v = nullptr;
  return json_object_object_get_ex(o, key, &v) && json_object_is_type(v, json_type_int)
             ? json_object_get_int64(v)
             : LLONG_MIN;
}

struct Received {
  json_object *obj;  // owned by the agent
  int conn;          // 1 for the first accepted connection, 2 for the next ...
};

class FakeAgent {
 public:
  explicit FakeAgent(int port) : port_(port) {
    ev_io_init(&listen_w_, on_accept, -1, EV_READ);
    ev_io_init(&conn_w_, on_read, -1, EV_READ);
    listen_w_.data = conn_w_.data = this;
    start_listening();
  }
  ~FakeAgent() {
    stop_listening();
    json_tokener_free(tok_);
    for (auto &r : got_) json_object_put(r.obj);
  }
  void start_listening() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = {AF_INET, htons(static_cast<uint16_t>(port_)), {htonl(INADDR_LOOPBACK)}, {}};
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 8) != 0) abort();
    ev_io_set(&listen_w_, fd, EV_READ);
    ev_io_start(EV_DEFAULT, &listen_w_);
  }
  void stop_listening() {  // also closes the connection
    close_connection();
    ev_io_stop(EV_DEFAULT, &listen_w_);
    if (listen_w_.fd >= 0) close(listen_w_.fd);
    listen_w_.fd = -1;
  }
  void close_connection() {  // the listener stays
    ev_io_stop(EV_DEFAULT, &conn_w_);
    if (conn_w_.fd >= 0) close(conn_w_.fd);
    conn_w_.fd = -1;
  }
  // Writes bytes to the current connection; false when they did not all go.
  bool send_raw(const std::string &b) {
    return conn_w_.fd >= 0 && send(conn_w_.fd, b.data(), b.size(), MSG_NOSIGNAL) == ssize_t(b.size());
  }
  // Stops (or resumes) reading the current connection; a new one is read.
  void set_reading(bool on) { on ? ev_io_start(EV_DEFAULT, &conn_w_) : ev_io_stop(EV_DEFAULT, &conn_w_); }

  // The values whose "method" is method ("": the replies).
  std::vector<Received> with_method(const std::string &method) const {
    std::vector<Received> out;
    for (const auto &r : got_)
      if (jstr(r.obj, "method") == method) out.push_back(r);
    return out;
  }
  int connections() const { return int(raw_.size()); }
  const std::string &raw(int conn) const { return raw_.at(size_t(conn) - 1); }  // conn from 1

 private:
  static void on_accept(struct ev_loop *, ev_io *w, int) {
    auto *self = static_cast<FakeAgent *>(w->data);
    int fd = accept4(w->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    self->close_connection();
    json_tokener_reset(self->tok_);
    self->raw_.emplace_back();
    ev_io_set(&self->conn_w_, fd, EV_READ);
    ev_io_start(EV_DEFAULT, &self->conn_w_);
  }
  static void on_read(struct ev_loop *, ev_io *w, int) {
    auto *self = static_cast<FakeAgent *>(w->data);
    char buf[65536];
    ssize_t n = recv(w->fd, buf, sizeof buf, 0);
    if (n <= 0 && (n == 0 || (errno != EAGAIN && errno != EINTR))) self->close_connection();
    if (n <= 0) return;
    self->raw_.back().append(buf, size_t(n));
    // Values back to back or apart by white space; after an error a byte is skipped.
    for (const char *p = buf; n > 0;) {
      json_object *o = json_tokener_parse_ex(self->tok_, p, int(n));
      if (o == nullptr && json_tokener_get_error(self->tok_) == json_tokener_continue) return;
      ssize_t used = o != nullptr ? ssize_t(json_tokener_get_parse_end(self->tok_)) : 1;
      if (o != nullptr) self->got_.push_back({o, self->connections()});
      json_tokener_reset(self->tok_);
      p += used;
      n -= used;
    }
  }

  int port_;
  ev_io listen_w_, conn_w_;  // fd -1 while closed
  json_tokener *tok_ = json_tokener_new_ex(64);
  std::vector<Received> got_;
  std::vector<std::string> raw_;
};

inline double now_s() {  // CLOCK_MONOTONIC seconds
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Turns the default loop (waking at least every 5 ms) until pred holds or
// timeout_s has passed; returns pred's last value.
inline bool pump_until(const std::function<bool()> &pred, double timeout_s) {
  ev_timer tick;
  ev_timer_init(
      &tick, [](struct ev_loop *, ev_timer *, int) {}, 0.005, 0.005);
  ev_timer_start(EV_DEFAULT, &tick);
  double end = now_s() + timeout_s;
  bool ok = pred();
  while (!ok && now_s() < end) ok = (ev_run(EV_DEFAULT, EVRUN_ONCE), pred());
  ev_timer_stop(EV_DEFAULT, &tick);
  return ok;
}
inline void pump_for(double seconds) {
  pump_until([] { return false; }, seconds);
}

}  // namespace kelo::test
