/* The RPC client: one JSON-RPC connection from a service to the local agent
 * (127.0.0.1:54320), kept alive for the life of the process on the libev
 * default loop. Messages are json-c objects; a function that returns one
 * hands the caller one reference (release with json_object_put). Sending
 * copies the printed text and takes no reference. */
#ifndef KELO_OTRPC_H
#define KELO_OTRPC_H

#include <stddef.h>
#include <stdint.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

struct json_object;

#define OTRPC_AGENT_PORT 54320

/* Connection states, as state hooks receive them. */
enum { OTCONN_IDLE = 0, OTCONN_CONNECTING = 1, OTCONN_CONNECTED = 2, OTCONN_RETRY_WAIT = 3 };

/* Handler results with a meaning of their own; 0 replies "result": ["OK"],
 * any other value replies "error": {"code": value}. */
#define OTRPC_RET_SEND_REPLY 0x7fffffff /* send the reply object as filled */
#define OTRPC_RET_NO_REPLY                           \
  0x7ffffffe /* send nothing now (the handler took a \
                reference and replies later) */

/* Method flags. */
#define OTRPC_METHOD_NO_NOTIFY 0x1u /* ignore requests without "id" */
#define OTRPC_METHOD_ALLOW_DUP 0x2u /* skip the repeated-id filter */

/* Locks held when the library calls service code:
 * - Method handlers and reply callbacks (expiry callbacks too, which run on
 *   the thread that makes the next otrpc_call) run with the registry lock
 *   held (recursive): from the same thread they may register, unregister,
 *   call and send; they must not wait for another thread that needs the
 *   registry lock.
 * - Send completions (the callback of otrpc_send_cb) run on the loop thread
 *   while the queue is flushed, with the send-queue lock held (recursive),
 *   and the registry lock, which the flush takes first; they may queue or
 *   cancel and (because the flush keeps the one order registry-then-queue)
 *   call otrpc_call and register; they must not wait for another thread.
 * - State hooks (otrpc_on_state_changed) run on the loop thread.
 * - Log handlers run with no lock of the library held (kelo/log.h).
 * The registry lock is always taken before the send-queue lock, never after. */

/* A method handler: params is the request's "params" (or the whole request
 * when it has none); reply is an object holding only the request's "id", or
 * NULL for a notification. Runs on the loop thread with the registry lock held. */
typedef int (*otrpc_method_cb)(void *arg, struct json_object *params, struct json_object *reply);

/* A reply callback: message is the whole reply object, or NULL when the call
 * expired (no reply within 5 s, noticed at a later call). The result is ignored. */
typedef int (*otrpc_return_cb)(void *arg, struct json_object *message);

/* Called once a queued text has been written whole, on the loop thread. */
typedef void (*otsocket_send_callback)(void *arg);

/* One entry of a service's method table (app_desc.methods); the table ends at
 * the first entry whose name or callback is NULL. */
typedef struct otrpc_method {
  const char *name;
  otrpc_method_cb callback;
  void *arg;
  uint32_t flags;
} otrpc_method;

/* A state hook: called on every change of connection state, in list order;
 * a non-zero result ends the walk. Nodes belong to whoever links them. */
typedef struct otrpc_state_hook {
  void *arg;
  int (*fn)(void *arg, int new_state, int old_state);
  struct otrpc_state_hook *prev;
  struct otrpc_state_hook *next;
} otrpc_state_hook;

/* Head of the state-hook list (the head's prev points at the tail). */
KELO_EXPORT extern otrpc_state_hook *otrpc_on_state_changed;

/* NOLINTBEGIN(modernize-use-nullptr): these lines are C as well as C++ */

/* Links node at the tail of otrpc_on_state_changed, so that it sees every
 * change after the hooks already there. Call it on the loop thread, or before
 * app_init to see the connection made during start-up. A node counts as
 * linked while its prev is non-NULL; adding a linked node changes nothing. */
static inline void otrpc_state_hook_add(otrpc_state_hook *node) {
  otrpc_state_hook *head = otrpc_on_state_changed;
  if (node == NULL || node->prev != NULL) return;
  node->next = NULL;
  if (head == NULL) {
    node->prev = node;
    otrpc_on_state_changed = node;
  } else {
    node->prev = head->prev;
    head->prev->next = node;
    head->prev = node;
  }
}

/* Unlinks node (loop thread; a hook may remove itself while it runs) and
 * leaves its prev and next NULL. Removing a node that is not linked changes
 * nothing: otrpc_fini unlinks every node when the client stops (app_fini,
 * at exit), so a service's own clean-up may find its node unlinked already. */
static inline void otrpc_state_hook_remove(otrpc_state_hook *node) {
  otrpc_state_hook *head = otrpc_on_state_changed;
  if (node == NULL || node->prev == NULL || head == NULL) return;
  if (node->prev == node) {
    otrpc_on_state_changed = NULL; /* it was the only node */
  } else if (node == head) {
    node->next->prev = node->prev;
    otrpc_on_state_changed = node->next;
  } else {
    node->prev->next = node->next;
    if (node->next != NULL)
      node->next->prev = node->prev;
    else
      head->prev = node->prev;
  }
  node->prev = NULL;
  node->next = NULL;
}

/* NOLINTEND(modernize-use-nullptr) */

/* One entry of an otrpc_dispatch table, ended by a NULL name or handler. */
typedef struct otrpc_dispatch_entry {
  const char *name;
  int (*handler)(void *ctx, struct json_object *value);
  void *ctx;
} otrpc_dispatch_entry;

/* ---- messages ------------------------------------------------------------ */

/* {"method": method, "id": n, "params": {}}; "method" left out for NULL. */
KELO_EXPORT struct json_object *otrpc_create_message(const char *method);
/* Sets "id"; returns msg, or NULL (msg unchanged) when out of memory. */
KELO_EXPORT struct json_object *otrpc_message_set_id(struct json_object *msg, int id);
/* Add "result": ["OK"] (or "error": {"code": code}) and queue msg. The caller
 * still owns msg. 0, or -1 for NULL msg or no memory. */
KELO_EXPORT int otrpc_reply_ok(struct json_object *msg);
KELO_EXPORT int otrpc_reply_error(struct json_object *msg, int code);
/* A new "_async.stat" message whose params hold "model" and "fw_ver"; when
 * params_out is not NULL it receives the (borrowed) params object to add to. */
KELO_EXPORT struct json_object *_otrpc_create_stat_msg(struct json_object **params_out);
KELO_EXPORT struct json_object *otrpc_create_stat_msg(void);
/* Not implemented: always -1, nothing sent. Build a statistics message with
 * _otrpc_create_stat_msg and send it with otrpc_send instead. */
KELO_EXPORT int otrpc_send_stat_json(void *key, struct json_object *value);
KELO_EXPORT int otrpc_send_stat_int(void *key, int64_t value);

/* ---- sending ---------------------------------------------------------------- */

/* Queue the printed text of msg; any thread. A queue id (> 0) or -1. */
KELO_EXPORT int otrpc_send(struct json_object *msg);
KELO_EXPORT int otrpc_send_cb(struct json_object *msg, otsocket_send_callback cb, void *arg);
/* Write msg now, ahead of the queue, from the calling thread: 0 when written
 * whole, else -1 (nothing kept). */
KELO_EXPORT int otrpc_send_immediate(struct json_object *msg);
/* Remove a still-queued text: 1, or 0 when none with that id is queued. */
KELO_EXPORT int otrpc_send_cancel(int id);

/* ---- methods and calls ---------------------------------------------------- */

/* Offer a method to the agent (announced now and at every reconnection). */
KELO_EXPORT int otrpc_register(const char *name, otrpc_method_cb callback, void *arg, unsigned int flags);
KELO_EXPORT void otrpc_unregister(const char *name);
/* Send msg as a call with a fresh "id"; cb receives the reply or NULL on
 * expiry. Returns otrpc_send's result. The caller keeps its reference. */
KELO_EXPORT int otrpc_call(struct json_object *msg, otrpc_return_cb cb, void *arg);
/* Calls the handler of the entry named by value's string: its result, -12
 * when value gives no string, -2 when no entry matches. */
KELO_EXPORT int otrpc_dispatch(struct json_object *value, const otrpc_dispatch_entry *table);

/* ---- lifecycle (loop thread) ------------------------------------------------ */

KELO_EXPORT int otrpc_init(void);
KELO_EXPORT int otrpc_start(void);
KELO_EXPORT void otrpc_stop(void);
KELO_EXPORT void otrpc_fini(void);

KELO_END_DECLS

#endif
