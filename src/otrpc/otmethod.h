// The method registry, outgoing calls and the handling of received messages.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <uthash.h>

#include "common/mutex_lock.h"

#include "kelo/otrpc.h"

struct json_object;

namespace kelo::otrpc {

// The registry lock (recursive): the method table, the pending calls and the
// duplicate filter. Taken before the send queue's lock, never after it.
// Method handlers and reply callbacks run under it and may take it again from
// the same thread (otrpc_register, otrpc_call, ...): recursion through a
// service's function pointer, which the analysis neither sees nor can express.
extern Mutex registry_lock;

struct otmethod_entry {
  int32_t reg_id;  // -1 not announced, > 0 queued "register", 0 announced
  char *name;      // private copy, also the hash key
  otrpc_method_cb callback;
  void *arg;
  uint32_t flags;
  uint32_t refs GUARDED_BY(registry_lock);
  UT_hash_handle hh;
};

struct otmethod_return_ctx {
  otmethod_return_ctx *prev;
  otmethod_return_ctx *next;
  int32_t id;
  otrpc_return_cb callback;
  void *arg;
  time_t created;
};

int otmethod_init();
void otmethod_fini();
int otmethod_on_state_changed(void *ctx, int new_state, int old_state);
void otmethod_entry_put(otmethod_entry *e) REQUIRES(registry_lock);
void otmethod_register_return(int id, otrpc_return_cb callback, void *arg);
void invoke_return_ctx(int id, json_object *message) REQUIRES(registry_lock);
void otmethod_handle_message(json_object *message);

// For tests: shifts the creation time of every pending call back by seconds,
// and counts the pending calls.
void otmethod_age_returns_for_testing(int seconds);
int otmethod_pending_returns_for_testing();

}  // namespace kelo::otrpc
