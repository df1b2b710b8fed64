// The connection to the agent: socket, send queue and stream tokenising.
#include "otrpc/otsocket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

#include "common/dlist.h"
#include "common/mutex_lock.h"
#include "common/sys_paths.h"
#include "log/log_internal.h"
#include "otrpc/otconn.h"
#include "otrpc/otmethod.h"

namespace kelo::otrpc {

constinit otsocket_close_hook *otsocket_close_hooks = nullptr;

namespace {

constexpr int kIoFlags = MSG_DONTWAIT | MSG_NOSIGNAL;

// The send-queue lock. Recursive from load time, so that a send before
// otrpc_init (or from a thread racing it) never meets an uninitialised mutex.
// Taken after the registry lock, never before it. Send completions run under
// it (and under the registry lock, which the flush takes first) and may queue
// or cancel, taking it again from the same thread: recursion through a
// service's function pointer, which the analysis cannot express.
constinit Mutex g_queue_lock ACQUIRED_AFTER(registry_lock){Mutex::Recursive{}};

// The receive buffer, defined first so that the compiler puts it after the
// small variables below: they are written at start, the buffer only when the
// agent sends, and kept together they share pages already dirty instead of
// spilling into one more page of every process.
alignas(8) constinit char g_buf[OTSOCKET_RECV_BUFFER_SIZE] = {};

// The descriptor is opened and closed on the loop thread and read by senders
// on any thread, all under the queue lock; so is the connection's generation,
// which tells a socket from a later one that reuses its number.
constinit int g_fd GUARDED_BY(g_queue_lock) = -1;
constinit uint32_t g_fd_gen GUARDED_BY(g_queue_lock) = 0;
constinit pthread_t g_fd_owner GUARDED_BY(g_queue_lock) = {};  // the thread that opened it: the loop's
// Generation of a socket that a send on another thread found broken, for the
// loop thread to close (0: none).
constinit std::atomic<uint32_t> g_close_gen{0};
constinit otsocket_record *g_queue GUARDED_BY(g_queue_lock) = nullptr;
constinit int32_t g_queue_counter GUARDED_BY(g_queue_lock) = 0;

// Received bytes not yet given to the tokener lie in [g_rd, g_wr).
constinit size_t g_rd = 0;
constinit size_t g_wr = 0;
constinit json_tokener *g_tok = nullptr;

otsocket_record *record_new(const char *text, size_t len, otsocket_send_callback cb, void *arg) {
  auto *rec = static_cast<otsocket_record *>(malloc(sizeof(otsocket_record) + len));
  if (rec == nullptr) return nullptr;
  rec->id = 0;
  rec->data = reinterpret_cast<char *>(rec + 1);
  if (len != 0) memcpy(rec->data, text, len);
  rec->cursor = rec->data;
  rec->end = rec->data + len;
  rec->callback = cb;
  rec->arg = arg;
  rec->prev = nullptr;
  rec->next = nullptr;
  return rec;
}

}  // namespace

int otsocket_init() {
  if (g_tok == nullptr) {
    g_tok = json_tokener_new_ex(OTSOCKET_TOKENER_DEPTH);
    if (g_tok == nullptr) return -1;
  }
  g_rd = g_wr = 0;
  return 0;
}

void otsocket_fini() {
  if (g_tok != nullptr) {
    json_tokener_reset(g_tok);
    json_tokener_free(g_tok);
    g_tok = nullptr;
  }
  otsocket_close();
  kelo::dlist::clear(&otsocket_close_hooks);
}

int otsocket_fd() {
  MutexLock lock(&g_queue_lock);
  return g_fd;
}

int otsocket_connect() {
  if (otsocket_fd() >= 0) return 2;
  const sys::Paths &p = sys::paths();
  sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(p.agent_port);
  addr.sin_addr.s_addr = inet_addr(p.agent_addr);
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  int r = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
  if (r != 0 && errno != EINPROGRESS) {
    ErrnoSaver keep;
    close(fd);
    return -1;
  }
  MutexLock lock(&g_queue_lock);
  g_fd = fd;
  if (++g_fd_gen == 0) g_fd_gen = 1;
  g_fd_owner = pthread_self();
  return r == 0 ? 0 : 1;
}

void otsocket_close() {
  {
    MutexLock lock(&g_queue_lock);
    if (g_fd < 0) return;
    close(g_fd);
    g_fd = -1;
  }
  // A hook may unlink itself and append itself again (otconn reconnects from
  // its hook); walking no further than the tail seen at the start keeps such
  // a hook from being called twice for one closing.
  otsocket_close_hook *h = otsocket_close_hooks;
  otsocket_close_hook *last = h != nullptr ? h->prev : nullptr;
  while (h != nullptr) {
    otsocket_close_hook *next = h->next;
    bool was_last = h == last;
    if (h->fn(h->arg) != 0 || was_last) break;
    h = next;
  }
}

int otsocket_enqueue(const char *text, size_t len, otsocket_send_callback cb, void *arg) {
  otsocket_record *rec = record_new(text, len, cb, arg);
  if (rec == nullptr) return -1;
  MutexLock lock(&g_queue_lock);
  // Wraps from 2147483647 to 1 (computed unsigned: no signed overflow).
  g_queue_counter = static_cast<int32_t>(static_cast<uint32_t>(g_queue_counter) + 1u);
  if (g_queue_counter < 0) g_queue_counter = 1;
  rec->id = g_queue_counter;
  dlist::append(&g_queue, rec);
  return rec->id;
}

namespace {

// Writes what is left of rec; a hard error sets *broken, and the caller
// closes the socket once it released the lock (the close hooks reconnect and
// take the registry lock, which is never taken while holding the queue lock).
// The line waits for the lock's release (lib_log), so that a log handler that
// calls into the library does not run under the queue lock.
int write_record(otsocket_record *rec, bool *broken) REQUIRES(g_queue_lock) {
  log::lib_log(LOG_DEBUG, "otrpc: sending %.*s", static_cast<int>(rec->end - rec->cursor), rec->cursor);
  while (rec->cursor != rec->end) {
    ssize_t n = send(g_fd, rec->cursor, static_cast<size_t>(rec->end - rec->cursor), kIoFlags);
    if (n >= 0) {
      rec->cursor += n;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return -1;
    *broken = true;
    return -1;
  }
  return 0;
}

}  // namespace

int otsocket_write_record(otsocket_record *rec) {
  bool broken = false;
  uint32_t gen;
  int r;
  {
    MutexLock lock(&g_queue_lock);
    if (g_fd < 0) return -1;
    gen = g_fd_gen;
    r = write_record(rec, &broken);
    if (!broken) return r;
    if (!pthread_equal(pthread_self(), g_fd_owner)) {
      // The close hooks drive the loop's watchers: on any other thread the
      // loop closes the socket, woken through the connection's async watcher.
      g_close_gen.store(gen, std::memory_order_relaxed);
      otconn_wakeup();
      return r;
    }
  }
  ErrnoSaver keep;  // the send's errno, whatever closing and the close hooks do
  otsocket_close();
  return r;
}

void otsocket_close_if_broken() {
  uint32_t gen = g_close_gen.exchange(0, std::memory_order_relaxed);
  if (gen == 0) return;
  {
    MutexLock lock(&g_queue_lock);
    if (gen != g_fd_gen) return;  // that socket is gone already
  }
  otsocket_close();
}

int otsocket_flush_immediate() {
  bool broken = false;
  int pending;
  {
    // Send completions run inside and may call into the registry
    // (otrpc_call, otrpc_register): its lock comes first here as everywhere.
    MutexLock registry(&registry_lock);
    MutexLock lock(&g_queue_lock);
    if (g_fd < 0) return g_queue != nullptr ? 1 : 0;
    // The callback may have cancelled or queued records: each round starts
    // again from the head.
    for (otsocket_record *rec = g_queue; rec != nullptr; rec = g_queue) {
      if (write_record(rec, &broken) != 0) break;
      KELO_DLIST_UNLINK(&g_queue, rec, "(q)->prev != NULL");
      if (rec->callback != nullptr) rec->callback(rec->arg);
      free(rec);
    }
    pending = g_queue != nullptr ? 1 : 0;
  }
  if (broken) {
    ErrnoSaver keep;
    otsocket_close();
  }
  return pending;
}

int otsocket_send_immediate(const char *text, size_t len) {
  otsocket_record *rec = record_new(text, len, nullptr, nullptr);
  if (rec == nullptr) return -1;
  int r = otsocket_write_record(rec);
  free(rec);
  return r;
}

int otsocket_cancel(int id) {
  MutexLock lock(&g_queue_lock);
  otsocket_record *rec = g_queue;
  while (rec != nullptr && rec->id != id) rec = rec->next;
  if (rec == nullptr) return 0;
  KELO_DLIST_UNLINK(&g_queue, rec, "(q)->prev != NULL");
  free(rec);
  return 1;
}

void otsocket_forget_callback_arg(void *arg) {
  MutexLock lock(&g_queue_lock);
  for (otsocket_record *r = g_queue; r != nullptr; r = r->next)
    if (r->arg == arg) r->callback = nullptr;
}

int otsocket_receive(int fd, json_object **out) {
  errno = 0;
  bool stopped = false;  // no more reading in this call
  bool dry = false;      // every received byte went to the tokener
  int result = 0;
  for (;;) {
    if (stopped && dry) return result;
    if (!stopped) {
      if (OTSOCKET_RECV_BUFFER_SIZE - g_wr < OTSOCKET_COMPACT_THRESHOLD) {
        size_t unread = g_wr - g_rd;
        if (unread != 0) memmove(g_buf, g_buf + g_rd, unread);
        g_rd = 0;
        g_wr = unread;
      }
      size_t space = OTSOCKET_RECV_BUFFER_SIZE - g_wr;
      // Each pass below consumes at least one byte, so space is never 0
      // here; a recv of 0 bytes would read as end of stream, so never ask.
      if (space != 0) {
        ssize_t n;
        do {
          n = recv(fd, g_buf + g_wr, space, kIoFlags);
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
          log::lib_log(LOG_DEBUG, "otrpc: received: %.*s", static_cast<int>(n), g_buf + g_wr);
          g_wr += static_cast<size_t>(n);
        } else {
          if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) otsocket_close();
          result = -1;
          stopped = true;
        }
      }
    }
    if (g_rd == g_wr) {
      dry = true;
      continue;
    }
    json_object *obj = json_tokener_parse_ex(g_tok, g_buf + g_rd, static_cast<int>(g_wr - g_rd));
    size_t used = json_tokener_get_parse_end(g_tok);
    g_rd += used > 0 ? used : 1;
    if (g_rd > g_wr) g_rd = g_wr;
    if (obj != nullptr) {
      if (json_object_is_type(obj, json_type_object)) {
        *out = obj;
        return 1;
      }
      json_object_put(obj);
    }
    json_tokener_error err = json_tokener_get_error(g_tok);
    if (err == json_tokener_continue) continue;
    if (err == json_tokener_error_parse_eof)
      while (g_rd < g_wr && g_buf[g_rd] == '\0') ++g_rd;
    json_tokener_reset(g_tok);
  }
}

void otsocket_set_queue_counter_for_testing(int32_t v) {
  MutexLock lock(&g_queue_lock);
  g_queue_counter = v;
}

int otsocket_queue_length_for_testing() {
  MutexLock lock(&g_queue_lock);
  int n = 0;
  for (otsocket_record *r = g_queue; r != nullptr; r = r->next) ++n;
  return n;
}

void otsocket_discard_queue_for_testing() {
  MutexLock lock(&g_queue_lock);
  while (g_queue != nullptr) {
    otsocket_record *r = g_queue;
    KELO_DLIST_UNLINK(&g_queue, r, "(q)->prev != NULL");
    free(r);
  }
}

}  // namespace kelo::otrpc

using namespace kelo::otrpc;

extern "C" {

KELO_EXPORT int otrpc_send_cb(json_object *msg, otsocket_send_callback cb, void *arg) {
  const char *text = json_object_to_json_string_ext(msg, 0);
  if (text == nullptr) return -1;
  int id = otsocket_enqueue(text, strlen(text), cb, arg);
  if (id < 0) return -1;
  otconn_wakeup();
  return id;
}

KELO_EXPORT int otrpc_send(json_object *msg) { return otrpc_send_cb(msg, nullptr, nullptr); }

KELO_EXPORT int otrpc_send_immediate(json_object *msg) {
  if (msg == nullptr) return -1;
  const char *text = json_object_to_json_string_ext(msg, 0);
  if (text == nullptr) return -1;
  return otsocket_send_immediate(text, strlen(text));
}

KELO_EXPORT int otrpc_send_cancel(int id) { return otsocket_cancel(id); }

}  // extern "C"
