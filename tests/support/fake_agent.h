// Test support: a real agent on 127.0.0.1 for the RPC client to talk to. It
// runs on its own thread, accepts one connection at a time (a new one replaces
// the old), records every JSON object it receives with a time stamp, and sends
// scripted bytes. The library's loop runs on the test's thread: pump_until
// turns it while waiting.
#pragma once

#include <json-c/json.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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
  explicit FakeAgent(int port, bool listen_now = true);
  ~FakeAgent();
  FakeAgent(const FakeAgent &) = delete;
  FakeAgent &operator=(const FakeAgent &) = delete;

  void start_listening();
  // Closes the listening socket and the current connection.
  void stop_listening();
  // Closes the current connection (the listener stays).
  void close_connection();
  // Writes bytes whole to the current connection; false when there is none.
  bool send_raw(const std::string &bytes);
  // Writes bytes one write() at a time, pause_us between them.
  bool send_bytes_singly(const std::string &bytes, int pause_us = 0);

  std::vector<Received> received() const;
  size_t count() const;
  // Objects whose "method" equals method.
  std::vector<Received> with_method(const std::string &method) const;
  // The first object whose "id" equals id and that has no "method"; NULL when none.
  json_object *reply_for(long long id) const;
  int connections() const;
  bool connected() const;
  // Bytes received that the agent's own parser rejected.
  int parse_errors() const;
  void clear();

  // Waits (without running the client's loop) until pred holds.
  bool wait_for(const std::function<bool()> &pred, double timeout_s) const;

 private:
  void run();
  void exec(const std::function<void()> &fn);
  void on_bytes(const char *p, size_t n);

  int port_;
  int wake_[2] = {-1, -1};
  int listen_fd_ = -1;
  int conn_fd_ = -1;
  bool quit_ = false;
  json_tokener *tok_ = nullptr;
  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  std::vector<Received> got_;
  std::vector<std::function<void()>> jobs_;
  int conns_ = 0;
  int parse_errors_ = 0;
  std::thread thread_;
};

// Monotonic seconds.
double now_s();

// Turns the default loop (one iteration at a time, waking at least every
// 5 ms) until pred holds or timeout_s has passed; returns pred's last value.
bool pump_until(const std::function<bool()> &pred, double timeout_s);
// Turns the default loop for seconds.
void pump_for(double seconds);

// Helpers for reading received objects: string member ("" when absent or not
// a string), integer member (LLONG_MIN when absent).
std::string jstr(json_object *o, const char *key);
long long jint(json_object *o, const char *key);
bool jhas(json_object *o, const char *key);

}  // namespace kelo::test
