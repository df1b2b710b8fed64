// Test support: an agent on 127.0.0.1 for the RPC client to talk to. Its
// sockets are watched by the default loop, like the client's, so the agent
// acts only while the loop turns (pump_until). It accepts one connection at a
// time (a new one replaces the old) and keeps every byte and every JSON value
// that it receives.
#pragma once

#include <ev.h>
#include <json-c/json.h>

#include <functional>
#include <string>
#include <vector>

namespace kelo::test {

struct Received {
  json_object *obj;  // owned by the agent
  std::string text;  // as printed by json-c (flags 0)
  int conn;          // 1 for the first accepted connection, 2 for the next ...
};

class FakeAgent {
 public:
  explicit FakeAgent(int port);
  ~FakeAgent();
  void start_listening();
  void stop_listening();    // also closes the connection
  void close_connection();  // the listener stays
  // Writes bytes to the current connection; false when they did not all go.
  bool send_raw(const std::string &bytes);
  // Stops (or resumes) reading the current connection; a new one is read.
  void set_reading(bool on);

  const std::vector<Received> &received() const { return got_; }
  std::vector<Received> with_method(const std::string &method) const;
  int connections() const { return int(raw_.size()); }
  const std::string &raw(int conn) const { return raw_.at(size_t(conn) - 1); }  // conn from 1
  int parse_errors() const { return parse_errors_; }

 private:
  static void on_accept(struct ev_loop *loop, ev_io *w, int revents);
  static void on_read(struct ev_loop *loop, ev_io *w, int revents);

  int port_;
  ev_io listen_w_, conn_w_;  // fd -1 while closed
  json_tokener *tok_ = json_tokener_new_ex(64);
  std::vector<Received> got_;
  std::vector<std::string> raw_;
  int parse_errors_ = 0;
};

double now_s();  // CLOCK_MONOTONIC seconds
// Turns the default loop (waking at least every 5 ms) until pred holds or
// timeout_s has passed; returns pred's last value.
bool pump_until(const std::function<bool()> &pred, double timeout_s);
inline void pump_for(double seconds) {
  pump_until([] { return false; }, seconds);
}

// Members: a string ("" when absent or not a string), an integer (LLONG_MIN
// when absent or not an integer).
std::string jstr(json_object *o, const char *key);
long long jint(json_object *o, const char *key);

}  // namespace kelo::test
