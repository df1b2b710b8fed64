// Test support: an agent on 127.0.0.1 for the RPC client to talk to. Its
// sockets are watched by the default loop, like the client's, so everything
// stays on the test's thread and the agent acts only while the loop turns
// (pump_until). It accepts one connection at a time (a new one replaces the
// old), records every JSON object it receives, and sends scripted bytes.
#pragma once

#include <ev.h>
#include <json-c/json.h>

#include <functional>
#include <string>
#include <vector>

namespace kelo::test {

struct Received {
  json_object *obj;  // owned by the agent until it is destroyed
  std::string text;  // as printed by json-c (flags 0)
  double t;          // seconds on CLOCK_MONOTONIC
  int conn;          // 1 for the first accepted connection, 2 for the next ...
};

class FakeAgent {
 public:
  explicit FakeAgent(int port);
  ~FakeAgent();

  void start_listening();
  // Closes the listening socket and the current connection.
  void stop_listening();
  // Closes the current connection (the listener stays).
  void close_connection();
  // Queues bytes for the current connection, written as the loop turns (one
  // byte a write when singly); false when there is no connection.
  bool send_raw(const std::string &bytes, bool singly = false);

  const std::vector<Received> &received() const { return got_; }
  // Objects whose "method" equals method.
  std::vector<Received> with_method(const std::string &method) const;
  // The first object whose "id" equals id and that has no "method"; NULL when none.
  json_object *reply_for(long long id) const;
  int connections() const { return conns_; }
  // Bytes received that the agent's own parser rejected.
  int parse_errors() const { return parse_errors_; }

 private:
  static void on_accept(struct ev_loop *loop, ev_io *w, int revents);
  static void on_conn(struct ev_loop *loop, ev_io *w, int revents);
  void watch(ev_io &w, int fd, int events);  // -1: stopped
  void on_bytes(const char *p, size_t n);

  struct ev_loop *loop_ = ev_default_loop(0);
  int port_;
  ev_io listen_w_, conn_w_;  // fd -1 while closed
  json_tokener *tok_;
  std::string out_;
  size_t singly_end_ = 0;  // the bytes of out_ before it go one a write
  std::vector<Received> got_;
  int conns_ = 0, parse_errors_ = 0;
};

// Monotonic seconds.
double now_s();

// Turns the default loop (one iteration at a time, waking at least every
// 5 ms) until pred holds or timeout_s has passed; returns pred's last value.
bool pump_until(const std::function<bool()> &pred, double timeout_s);
// Turns the default loop for seconds.
void pump_for(double seconds);

// Members of received objects: a string ("" when absent or not a string), an
// integer (LLONG_MIN when absent).
std::string jstr(json_object *o, const char *key);
long long jint(json_object *o, const char *key);

}  // namespace kelo::test
