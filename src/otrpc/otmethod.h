// The method registry, outgoing calls and the handling of received messages.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include <uthash.h>

#include "kelo/otrpc.h"

struct json_object;

namespace kelo::otrpc {

struct otmethod_entry {
  int32_t reg_id;  // -1 not announced, > 0 queued "register", 0 announced
  char *name;      // private copy, also the hash key
  otrpc_method_cb callback;
  void *arg;
  uint32_t flags;
  uint32_t refs;
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

// The registry lock (recursive). Lock order: this one before the send queue's;
// the flush takes it first so that send completions may call into the registry.
pthread_mutex_t *otmethod_lock();

int otmethod_init();
void otmethod_fini();
int otmethod_on_state_changed(void *ctx, int new_state, int old_state);
void otmethod_entry_put(otmethod_entry *e);
void otmethod_register_return(int id, otrpc_return_cb callback, void *arg);
void invoke_return_ctx(int id, json_object *message);
void otmethod_handle_message(json_object *message);

// For tests: shifts the creation time of every pending call back by seconds,
// and counts the pending calls.
void otmethod_age_returns_for_testing(int seconds);
int otmethod_pending_returns_for_testing();

}  // namespace kelo::otrpc
