// The client's lifecycle: the connection state machine on the default loop,
// retry after a second, state hooks, and the read and write paths.
#include "otrpc/otconn.h"

#include <ev.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <atomic>

#include "common/dlist.h"
#include "kelo/log.h"
#include "otrpc/otmethod.h"
#include "otrpc/otsocket.h"

extern "C" {
KELO_EXPORT otrpc_state_hook *otrpc_on_state_changed = nullptr;
}

namespace kelo::otrpc {
namespace {

int otconn_on_socket_closed(void *arg);
void otconn_stop();
int otconn_start();

constinit int g_state = OTCONN_IDLE;
constinit ev_async g_async = {};
constinit ev_io g_io = {};
constinit ev_timer g_timer = {};
constinit otsocket_close_hook g_close_hook = {nullptr, otconn_on_socket_closed, nullptr, nullptr};
// Whether the async watcher may be woken: other threads read it, so it is
// kept apart from the watcher's own fields.
constinit std::atomic<bool> g_async_on{false};
constinit std::atomic<struct ev_loop *> g_loop{nullptr};

void otconn_set_state(int new_state) {
  if (new_state == g_state) return;
  int old_state = g_state;
  g_state = new_state;
  for (otrpc_state_hook *h = otrpc_on_state_changed, *next; h != nullptr; h = next) {
    next = h->next;
    if (h->fn(h->arg, new_state, old_state) != 0) break;
  }
}

void otconn_schedule_retry() {
  if (g_state == OTCONN_RETRY_WAIT) return;
  if (g_state == OTCONN_CONNECTING || g_state == OTCONN_CONNECTED) otconn_stop();
  otconn_set_state(OTCONN_RETRY_WAIT);
  if (!ev_is_active(&g_timer)) {
    ev_timer_set(&g_timer, OTCONN_RETRY_DELAY, 0.0);
    ev_timer_start(EV_DEFAULT, &g_timer);
  }
}

void otconn_stop() {
  if (g_close_hook.prev != nullptr)
    KELO_DLIST_UNLINK(&otsocket_close_hooks, &g_close_hook, "(q)->prev != NULL");
  switch (g_state) {
    case OTCONN_IDLE: return;
    case OTCONN_CONNECTING:
    case OTCONN_CONNECTED:
      ev_io_stop(EV_DEFAULT, &g_io);
      otsocket_close();
      break;
    case OTCONN_RETRY_WAIT:
      ev_timer_stop(EV_DEFAULT, &g_timer);
      otconn_set_state(OTCONN_IDLE);
      break;
    default: break;
  }
  otconn_set_state(OTCONN_IDLE);
}

void otconn_on_io(struct ev_loop *, ev_io *w, int revents) {
  switch (g_state) {
    case OTCONN_IDLE:
    case OTCONN_RETRY_WAIT: log_err("kelo_util: otrpc: Unexpected EV_WRITE event.\n"); abort();
    case OTCONN_CONNECTING: {
      if (!(revents & (EV_WRITE | EV_ERROR))) {
        log_err("kelo_util: otconn: the first socket event must be EV_WRITE or EV_ERROR.");
        abort();
      }
      if (revents & EV_ERROR) {
        otconn_schedule_retry();
        return;
      }
      int err = 0;
      socklen_t len = sizeof err;
      if (getsockopt(w->fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
        otconn_schedule_retry();
        return;
      }
      otconn_set_state(OTCONN_CONNECTED);
      // A state hook may have lost the connection again already.
      if (g_state != OTCONN_CONNECTED) return;
    }
      [[fallthrough]];
    case OTCONN_CONNECTED:
      if (revents & EV_READ) {
        json_object *msg = nullptr;
        int r;
        while ((r = otsocket_receive(w->fd, &msg)) >= 0) {
          if (r == 1) {
            otmethod_handle_message(msg);
            json_object_put(msg);
            msg = nullptr;
          }
        }
      }
      otconn_wakeup();
      return;
    default: return;
  }
}

void otconn_on_async(struct ev_loop *, ev_async *, int) {
  otsocket_close_if_broken();
  if (g_state != OTCONN_CONNECTED) return;
  int want = otsocket_flush_immediate() ? EV_READ | EV_WRITE : EV_READ;
  // A write error in the flush closes the socket and its hook may already
  // have moved on (reconnecting, or waiting to retry): only a connection
  // still up gets its watcher adjusted.
  int fd = otsocket_fd();
  if (g_state != OTCONN_CONNECTED || fd < 0) return;
  if ((g_io.events & (EV_READ | EV_WRITE)) != want || g_io.fd != fd) {
    ev_io_stop(EV_DEFAULT, &g_io);
    ev_io_set(&g_io, fd, want);
    ev_io_start(EV_DEFAULT, &g_io);
  }
}

void otconn_on_retry_timer(struct ev_loop *, ev_timer *, int) {
  otconn_stop();
  otconn_start();
}

int otconn_start() {
  bool want_write;
  switch (otsocket_connect()) {
    case 0:
      otconn_set_state(OTCONN_CONNECTED);
      want_write = otsocket_flush_immediate() != 0;
      break;
    case 1:
      otconn_set_state(OTCONN_CONNECTING);
      want_write = true;
      break;
    default: otconn_schedule_retry(); return -1;
  }
  int fd = otsocket_fd();
  if (fd < 0) {
    // Lost again at once, inside a state hook or the flush, before the close
    // hook was linked: nothing else will notice, so wait and retry.
    otconn_schedule_retry();
    return -1;
  }
  ev_io_stop(EV_DEFAULT, &g_io);
  ev_io_init(&g_io, otconn_on_io, fd, want_write ? EV_READ | EV_WRITE : EV_READ);
  ev_io_start(EV_DEFAULT, &g_io);
  if (g_close_hook.prev == nullptr) dlist::append(&otsocket_close_hooks, &g_close_hook);
  if (want_write) otconn_wakeup();
  return 0;
}

int otconn_on_socket_closed(void *) {
  ev_io_stop(EV_DEFAULT, &g_io);
  otconn_set_state(OTCONN_IDLE);
  otconn_stop();
  return otconn_start();
}

int otconn_init() {
  struct ev_loop *loop = ev_default_loop(0);
  g_loop.store(loop, std::memory_order_relaxed);
  if (!ev_is_active(&g_async)) {
    ev_timer_init(&g_timer, otconn_on_retry_timer, 0.0, 0.0);
    ev_async_init(&g_async, otconn_on_async);
    ev_async_start(loop, &g_async);
  }
  g_async_on.store(true, std::memory_order_release);
  return otsocket_init();
}

void otconn_fini() {
  g_async_on.store(false, std::memory_order_release);
  ev_async_stop(EV_DEFAULT, &g_async);
  otconn_stop();
  otsocket_fini();
  kelo::dlist::clear(&otrpc_on_state_changed);
}

}  // namespace

void otconn_wakeup() {
  if (g_async_on.load(std::memory_order_acquire))
    ev_async_send(g_loop.load(std::memory_order_relaxed), &g_async);
}

int otconn_get_state() { return g_state; }

void otconn_invoke_io_for_testing(int state, int fd, int revents) {
  g_state = state;
  ev_io w;
  ev_io_init(&w, otconn_on_io, fd, EV_READ);
  otconn_on_io(EV_DEFAULT, &w, revents);
}

}  // namespace kelo::otrpc

using namespace kelo::otrpc;

extern "C" {

KELO_EXPORT int otrpc_init(void) {
  if (otconn_init() != 0) return -1;
  if (otmethod_init() != 0) {
    otconn_fini();
    return -1;
  }
  return 0;
}

KELO_EXPORT int otrpc_start(void) { return otconn_start(); }

KELO_EXPORT void otrpc_stop(void) { otconn_stop(); }

KELO_EXPORT void otrpc_fini(void) {
  otmethod_fini();
  otconn_fini();
}

}  // extern "C"
