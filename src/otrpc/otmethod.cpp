// The method registry, outgoing calls with reply callbacks, and the handling
// of every message that arrives from the agent.
#include "otrpc/otmethod.h"

#include <errno.h>
#include <json-c/json.h>
#include <pthread.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "common/dlist.h"
#include "common/mutex_lock.h"
#include "kelo/app.h"
#include "kelo/rand.h"
#include "log/log_internal.h"
#include "otrpc/message.h"
#include "otrpc/otsocket.h"

#if defined(__arm__)
// Services fill these tables; their layout is the device's ABI.
static_assert(sizeof(otrpc_method) == 16 && offsetof(otrpc_method, flags) == 12, "method table entry");
static_assert(sizeof(otrpc_dispatch_entry) == 12, "dispatch table entry");
static_assert(sizeof(otrpc_state_hook) == 16 && offsetof(otrpc_state_hook, next) == 12, "state hook node");
#endif

namespace kelo::otrpc {

constinit Mutex registry_lock{Mutex::Recursive{}};

namespace {

constexpr int32_t kNoId = 0x7fffffff;
constexpr time_t kReturnMaxAge = 5;

constinit otmethod_entry *g_table GUARDED_BY(registry_lock) = nullptr;
constinit otmethod_return_ctx *g_returns GUARDED_BY(registry_lock) = nullptr;
// Integer ids of the last three requests let through, oldest first.
constinit int32_t g_recent_ids[3] GUARDED_BY(registry_lock) = {kNoId, kNoId, kNoId};
constinit otrpc_state_hook g_state_hook = {nullptr, otmethod_on_state_changed, nullptr, nullptr};

// reg_id is written by the send completion on the loop thread without the
// registry lock, and read under it elsewhere: one aligned word, accessed
// atomically.
int32_t load_reg_id(otmethod_entry *e) {
  return std::atomic_ref<int32_t>(e->reg_id).load(std::memory_order_relaxed);
}
void store_reg_id(otmethod_entry *e, int32_t v) {
  std::atomic_ref<int32_t>(e->reg_id).store(v, std::memory_order_relaxed);
}

void on_register_written(void *reg_id) {
  std::atomic_ref<int32_t>(*static_cast<int32_t *>(reg_id)).store(0, std::memory_order_relaxed);
}

void warn_not_built(const char *name) {
  log::lib_log(LOG_WARNING, "kelo_util: otrpc: Fail to register method \"%s\"\n", name);
}

// Hands message (NULL: expiry) to every pending call that match selects, in
// list order, and frees it. A callback may call again (appending, expiring):
// each context leaves the list before its callback runs, and the walk starts
// again from the head. func names the caller in a failed assertion. The
// callbacks run under the registry lock and may take it again (see
// registry_lock).
template <typename Match>
void finish_returns(Match match, json_object *message, const char *func) REQUIRES(registry_lock) {
  for (otmethod_return_ctx *ctx = g_returns; ctx != nullptr;) {
    if (!match(ctx)) {
      ctx = ctx->next;
      continue;
    }
    dlist::unlink(&g_returns, ctx, "(ctx)->prev != NULL", __FILE__, __LINE__, func);
    if (ctx->callback != nullptr) ctx->callback(ctx->arg, message);
    free(ctx);
    ctx = g_returns;
  }
}

// Whether a request with this integer id was among the last three let
// through; if not, it becomes the newest of them.
bool seen_recently(int32_t id) REQUIRES(registry_lock) {
  for (int32_t seen : g_recent_ids)
    if (seen == id) return true;
  g_recent_ids[0] = g_recent_ids[1];
  g_recent_ids[1] = g_recent_ids[2];
  g_recent_ids[2] = id;
  return false;
}

// The request path runs wholly under the one registry lock level that
// otmethod_handle_message took: a second level would change nothing.
void handle_request(json_object *message, const char *name) REQUIRES(registry_lock) {
  json_object *id = nullptr;
  json_object_object_get_ex(message, "id", &id);
  otmethod_entry *e = nullptr;
  HASH_FIND_STR(g_table, name, e);
  if (e == nullptr || e->callback == nullptr) return;  // unknown methods get no answer
  json_object *reply = nullptr;
  if (id == nullptr) {
    if (e->flags & OTRPC_METHOD_NO_NOTIFY) return;
  } else {
    if (json_object_is_type(id, json_type_int) && !(e->flags & OTRPC_METHOD_ALLOW_DUP) &&
        seen_recently(json_object_get_int(id)))
      return;
    reply = json_object_new_object();
    if (reply == nullptr) return;
    // A copy rather than a second reference: a handler may keep the reply
    // and send it from another thread, and json-c's reference counts are
    // not atomic, so the reply shares nothing with the request.
    json_object *id_copy = nullptr;
    if (json_object_deep_copy(id, &id_copy, nullptr) != 0) {
      json_object_put(reply);
      return;
    }
    json_object_object_add(reply, "id", id_copy);
  }
  json_object *params = nullptr;
  if (!json_object_object_get_ex(message, "params", &params)) params = message;
  e->refs += 1;
  // The handler may register, unregister and call: the registry lock again,
  // from this thread (see registry_lock).
  int code = e->callback(e->arg, params, reply);
  if (reply != nullptr) {
    if (code == OTRPC_RET_SEND_REPLY)
      otrpc_send(reply);
    else if (code == 0)
      otrpc_reply_ok(reply);
    else if (code != OTRPC_RET_NO_REPLY)
      otrpc_reply_error(reply, code);
  }
  otmethod_entry_put(e);
  json_object_put(reply);
}

}  // namespace

void otmethod_entry_put(otmethod_entry *e) {
  if (--e->refs != 0) return;
  free(e->name);
  free(e);
}

int otmethod_on_state_changed(void *, int new_state, int) {
  if (new_state != OTCONN_CONNECTED) return 0;
  MutexLock lock(&registry_lock);
  otmethod_entry *e, *tmp;
  HASH_ITER(hh, g_table, e, tmp) {
    int32_t queued = load_reg_id(e);
    if (queued > 0) otsocket_cancel(queued);
    json_object *msg = otmethod_create_message("register", e->name);
    if (msg == nullptr) {
      warn_not_built(e->name);
      continue;
    }
    store_reg_id(e, otrpc_send_immediate(msg) == 0 ? 0 : -1);
    json_object_put(msg);
  }
  return 0;
}

int otmethod_init() {
  if (g_state_hook.prev == nullptr) dlist::append(&otrpc_on_state_changed, &g_state_hook);
  if (app_current == nullptr || app_current->methods == nullptr) return 0;
  for (const otrpc_method *m = app_current->methods; m->callback != nullptr && m->name != nullptr; ++m)
    if (otrpc_register(m->name, m->callback, m->arg, m->flags) < 0) return -1;
  return 0;
}

void otmethod_fini() {
  if (g_state_hook.prev != nullptr)
    KELO_DLIST_UNLINK(&otrpc_on_state_changed, &g_state_hook, "(hook)->prev != NULL");
  MutexLock lock(&registry_lock);
  otmethod_entry *e, *tmp;
  HASH_ITER(hh, g_table, e, tmp) {
    HASH_DELETE(hh, g_table, e);  // NOLINT(clang-analyzer-unix.Malloc): tmp holds the successor
    // A "register" still queued stays queued, but must not report back into
    // a record that is about to be freed.
    if (load_reg_id(e) > 0) otsocket_forget_callback_arg(&e->reg_id);
    otmethod_entry_put(e);
  }
  HASH_CLEAR(hh, g_table);  // NOLINT(clang-analyzer-unix.Malloc): the analyzer loses uthash's bookkeeping
}

void otmethod_register_return(int id, otrpc_return_cb callback, void *arg) {
  time_t now = time(nullptr);
  MutexLock lock(&registry_lock);
  // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): finish_returns restarts from the head after a free
  finish_returns([now](const otmethod_return_ctx *c) { return now - c->created > kReturnMaxAge; }, nullptr,
                 __func__);
  auto *ctx = static_cast<otmethod_return_ctx *>(malloc(sizeof(otmethod_return_ctx)));
  if (ctx == nullptr) abort();
  ctx->id = id;
  ctx->callback = callback;
  ctx->arg = arg;
  ctx->created = now;
  dlist::append(&g_returns, ctx);
}

void invoke_return_ctx(int id, json_object *message) {
  // Every pending call with this id gets the reply, not only the first.
  finish_returns([id](const otmethod_return_ctx *c) { return c->id == id; }, message, __func__);
}

void otmethod_handle_message(json_object *message) {
  MutexLock lock(&registry_lock);
  json_object *v = nullptr;
  if (json_object_object_get_ex(message, "method", &v)) {
    const char *name = json_object_get_string(v);
    if (name != nullptr) handle_request(message, name);
  } else if (json_object_object_get_ex(message, "id", &v)) {
    invoke_return_ctx(json_object_get_int(v), message);
  }
}

void otmethod_age_returns_for_testing(int seconds) {
  MutexLock lock(&registry_lock);
  otmethod_return_ctx *ctx;
  DL_FOREACH(g_returns, ctx) ctx->created -= seconds;
}

int otmethod_pending_returns_for_testing() {
  MutexLock lock(&registry_lock);
  int n = 0;
  otmethod_return_ctx *ctx;
  DL_COUNT(g_returns, ctx, n);
  return n;
}

}  // namespace kelo::otrpc

using namespace kelo::otrpc;
using kelo::MutexLock;

extern "C" {

KELO_EXPORT int otrpc_register(const char *name, otrpc_method_cb callback, void *arg, unsigned int flags) {
  if (name == nullptr) {
    errno = EINVAL;
    return -1;
  }
  auto *e = static_cast<otmethod_entry *>(calloc(1, sizeof(otmethod_entry)));
  if (e == nullptr) return -1;
  e->name = strdup(name);
  if (e->name == nullptr) {
    free(e);
    return -1;
  }
  e->reg_id = -1;
  e->callback = callback;
  e->arg = arg;
  e->flags = flags;
  json_object *msg = otmethod_create_message("register", name);
  if (msg != nullptr) {
    int handle = otrpc_send_cb(msg, on_register_written, &e->reg_id);
    if (handle > 0) {
      // Only if the completion has not already reported the text written.
      int32_t expected = -1;
      std::atomic_ref<int32_t>(e->reg_id).compare_exchange_strong(expected, handle,
                                                                  std::memory_order_relaxed);
    }
    json_object_put(msg);
  } else {
    warn_not_built(name);
  }
  MutexLock lock(&registry_lock);
  e->refs = 1;  // the table's
  HASH_ADD_KEYPTR(hh, g_table, e->name, strlen(e->name), e);
  return 0;
}

KELO_EXPORT void otrpc_unregister(const char *name) {
  if (name == nullptr) return;
  MutexLock lock(&registry_lock);
  otmethod_entry *e = nullptr;
  HASH_FIND_STR(g_table, name, e);
  if (e == nullptr) return;
  HASH_DELETE(hh, g_table, e);
  int32_t reg_id = load_reg_id(e);
  // A "register" that left the queue between the read above and the cancel
  // has reached the agent: withdraw it like any announced method.
  if (reg_id > 0 && otsocket_cancel(reg_id) == 0) reg_id = 0;
  if (reg_id == 0) {
    json_object *msg = otmethod_create_message("unregister", name);
    if (msg != nullptr) {
      otrpc_send(msg);
      json_object_put(msg);
    } else {
      warn_not_built(name);
    }
  }
  otmethod_entry_put(e);
}

KELO_EXPORT int otrpc_call(json_object *msg, otrpc_return_cb cb, void *arg) {
  int id = rand_range(10000, 100000000);
  otmethod_register_return(id, cb, arg);
  // Without a message the context stays and expires like any unanswered call.
  if (msg == nullptr) return -1;
  otrpc_message_set_id(msg, id);
  return otrpc_send(msg);
}

KELO_EXPORT int otrpc_dispatch(json_object *value, const otrpc_dispatch_entry *table) {
  const char *s = json_object_get_string(value);
  if (s == nullptr) return -ENOMEM;
  for (const otrpc_dispatch_entry *d = table; d->name != nullptr && d->handler != nullptr; ++d)
    if (strcmp(d->name, s) == 0) return d->handler(d->ctx, value);
  return -ENOENT;
}

}  // extern "C"
