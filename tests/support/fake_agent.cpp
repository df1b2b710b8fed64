// Test support: the agent end of the RPC client's connection, on the default loop.
#include "support/fake_agent.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace kelo::test {

double now_s() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

FakeAgent::FakeAgent(int port) : port_(port) {
  ev_io_init(&listen_w_, on_accept, -1, EV_READ);
  ev_io_init(&conn_w_, on_read, -1, EV_READ);
  listen_w_.data = conn_w_.data = this;
  start_listening();
}

FakeAgent::~FakeAgent() {
  stop_listening();
  json_tokener_free(tok_);
  for (auto &r : got_) json_object_put(r.obj);
}

void FakeAgent::start_listening() {
  if (listen_w_.fd >= 0) return;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a = {AF_INET, htons(static_cast<uint16_t>(port_)), {htonl(INADDR_LOOPBACK)}, {}};
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 8) != 0) abort();
  ev_io_set(&listen_w_, fd, EV_READ);
  ev_io_start(EV_DEFAULT, &listen_w_);
}

void FakeAgent::stop_listening() {
  close_connection();
  ev_io_stop(EV_DEFAULT, &listen_w_);
  if (listen_w_.fd >= 0) close(listen_w_.fd);
  listen_w_.fd = -1;
}

void FakeAgent::close_connection() {
  ev_io_stop(EV_DEFAULT, &conn_w_);
  if (conn_w_.fd >= 0) close(conn_w_.fd);
  conn_w_.fd = -1;
}

bool FakeAgent::send_raw(const std::string &bytes) {
  return conn_w_.fd >= 0 &&
         send(conn_w_.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
}

void FakeAgent::set_reading(bool on) {
  if (on && conn_w_.fd >= 0)
    ev_io_start(EV_DEFAULT, &conn_w_);
  else
    ev_io_stop(EV_DEFAULT, &conn_w_);
}

void FakeAgent::on_accept(struct ev_loop *, ev_io *w, int) {
  auto *self = static_cast<FakeAgent *>(w->data);
  int fd = accept4(w->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) return;
  self->close_connection();
  json_tokener_reset(self->tok_);
  self->raw_.emplace_back();
  ev_io_set(&self->conn_w_, fd, EV_READ);
  self->set_reading(true);
}

void FakeAgent::on_read(struct ev_loop *, ev_io *w, int) {
  auto *self = static_cast<FakeAgent *>(w->data);
  char buf[65536];
  ssize_t n = recv(w->fd, buf, sizeof buf, 0);
  if (n <= 0) {
    if (n == 0 || (errno != EAGAIN && errno != EINTR)) self->close_connection();
    return;
  }
  self->raw_.back().append(buf, size_t(n));
  // Values back to back or apart by white space; after an error a byte is skipped.
  for (const char *p = buf; n > 0;) {
    json_object *o = json_tokener_parse_ex(self->tok_, p, int(n));
    if (o == nullptr && json_tokener_get_error(self->tok_) == json_tokener_continue) return;
    ssize_t used = o != nullptr ? ssize_t(json_tokener_get_parse_end(self->tok_)) : 1;
    if (o != nullptr)
      self->got_.push_back({o, json_object_to_json_string_ext(o, 0), self->connections()});
    else
      ++self->parse_errors_;
    json_tokener_reset(self->tok_);
    p += used;
    n -= used;
  }
}

std::vector<Received> FakeAgent::with_method(const std::string &method) const {
  std::vector<Received> out;
  for (const auto &r : got_)
    if (jstr(r.obj, "method") == method) out.push_back(r);
  return out;
}

bool pump_until(const std::function<bool()> &pred, double timeout_s) {
  ev_timer tick;
  ev_timer_init(
      &tick, [](struct ev_loop *, ev_timer *, int) {}, 0.005, 0.005);
  ev_timer_start(EV_DEFAULT, &tick);
  double end = now_s() + timeout_s;
  bool ok = pred();
  while (!ok && now_s() < end) {
    ev_run(EV_DEFAULT, EVRUN_ONCE);
    ok = pred();
  }
  ev_timer_stop(EV_DEFAULT, &tick);
  return ok;
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

}  // namespace kelo::test
