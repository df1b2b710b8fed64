#include "support/fake_agent.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kelo::test {

double now_s() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

FakeAgent::FakeAgent(int port) : port_(port), tok_(json_tokener_new_ex(64)) {
  ev_io_init(&listen_w_, on_accept, -1, EV_READ);
  ev_io_init(&conn_w_, on_conn, -1, EV_READ);
  listen_w_.data = conn_w_.data = this;
  start_listening();
}

FakeAgent::~FakeAgent() {
  stop_listening();
  json_tokener_free(tok_);
  for (auto &r : got_) json_object_put(r.obj);
}

void FakeAgent::watch(ev_io &w, int fd, int events) {
  ev_io_stop(loop_, &w);
  ev_io_set(&w, fd, events);
  if (fd >= 0) ev_io_start(loop_, &w);
}

void FakeAgent::start_listening() {
  if (listen_w_.fd >= 0) return;
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in a = {AF_INET, htons(static_cast<uint16_t>(port_)), {htonl(INADDR_LOOPBACK)}, {}};
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd, 8) != 0) {
    fprintf(stderr, "fake agent: cannot listen on %d: %s\n", port_, strerror(errno));
    abort();
  }
  watch(listen_w_, fd, EV_READ);
}

void FakeAgent::stop_listening() {
  close_connection();
  if (listen_w_.fd >= 0) close(listen_w_.fd);
  watch(listen_w_, -1, EV_READ);
}

void FakeAgent::close_connection() {
  out_.clear();
  singly_end_ = 0;
  if (conn_w_.fd >= 0) close(conn_w_.fd);
  watch(conn_w_, -1, EV_READ);
}

bool FakeAgent::send_raw(const std::string &bytes, bool singly) {
  if (conn_w_.fd < 0) return false;
  out_ += bytes;
  if (singly) singly_end_ = out_.size();
  watch(conn_w_, conn_w_.fd, EV_READ | EV_WRITE);
  return true;
}

void FakeAgent::on_accept(struct ev_loop *, ev_io *w, int) {
  auto *self = static_cast<FakeAgent *>(w->data);
  int fd = accept4(w->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK), one = 1;
  if (fd < 0) return;
  self->close_connection();
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  json_tokener_reset(self->tok_);
  ++self->conns_;
  self->watch(self->conn_w_, fd, EV_READ);
}

void FakeAgent::on_conn(struct ev_loop *, ev_io *w, int revents) {
  auto *self = static_cast<FakeAgent *>(w->data);
  if (revents & EV_WRITE) {
    ssize_t n = send(w->fd, self->out_.data(), self->singly_end_ > 0 ? 1 : self->out_.size(), MSG_NOSIGNAL);
    size_t sent = n > 0 ? static_cast<size_t>(n) : 0;
    self->out_.erase(0, sent);
    self->singly_end_ -= std::min(sent, self->singly_end_);
    if (self->out_.empty()) self->watch(self->conn_w_, w->fd, EV_READ);
  }
  if (!(revents & EV_READ)) return;
  char buf[65536];
  ssize_t n = recv(w->fd, buf, sizeof buf, 0);
  if (n > 0)
    self->on_bytes(buf, static_cast<size_t>(n));
  else if (n == 0 || (errno != EAGAIN && errno != EINTR))
    self->close_connection();
}

// The client separates objects by nothing or white space, which json-c skips.
void FakeAgent::on_bytes(const char *p, size_t n) {
  while (n > 0) {
    json_object *o = json_tokener_parse_ex(tok_, p, static_cast<int>(n));
    if (o == nullptr && json_tokener_get_error(tok_) == json_tokener_continue) return;
    size_t used = o != nullptr ? static_cast<size_t>(tok_->char_offset) : 1;  // skip a byte after an error
    if (o != nullptr)
      got_.push_back({o, json_object_to_json_string_ext(o, 0), now_s(), conns_});
    else
      ++parse_errors_;
    json_tokener_reset(tok_);
    p += used;
    n -= used;
  }
}

std::vector<Received> FakeAgent::with_method(const std::string &method) const {
  std::vector<Received> out;
  for (const auto &r : got_)
    if (json_object_object_get_ex(r.obj, "method", nullptr) && jstr(r.obj, "method") == method)
      out.push_back(r);
  return out;
}

json_object *FakeAgent::reply_for(long long id) const {
  for (const auto &r : got_)
    if (!json_object_object_get_ex(r.obj, "method", nullptr) && jint(r.obj, "id") == id) return r.obj;
  return nullptr;
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

}  // namespace kelo::test
