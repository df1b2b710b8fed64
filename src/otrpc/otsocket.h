// The one TCP connection to the local agent: the socket, the queue of
// outgoing texts and the cutting of the received stream into JSON objects.
// States and reconnecting belong to otconn, which hangs a hook on closing.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "kelo/otrpc.h"

struct json_object;

namespace kelo::otrpc {

constexpr size_t OTSOCKET_RECV_BUFFER_SIZE = 4096;
constexpr size_t OTSOCKET_COMPACT_THRESHOLD = 128;
constexpr int OTSOCKET_TOKENER_DEPTH = 16;

// One queued text. The text lives in the same heap block, right after the
// record, sized exactly; it carries no terminating NUL.
struct otsocket_record {
  int32_t id;  // queue id, 1..2147483647; unused for an immediate send
  char *data;
  char *cursor;  // first byte not yet written
  char *end;     // one past the last byte
  otsocket_send_callback callback;
  void *arg;
  otsocket_record *prev;
  otsocket_record *next;
};

struct otsocket_close_hook {
  void *arg;
  int (*fn)(void *arg);  // non-zero ends the walk
  otsocket_close_hook *prev;
  otsocket_close_hook *next;
};

extern otsocket_close_hook *otsocket_close_hooks;

int otsocket_init();
void otsocket_fini();
// 0 connected, 1 in progress, 2 a socket is already open, -1 failure.
int otsocket_connect();
void otsocket_close();
// The open descriptor, or -1.
int otsocket_fd();
int otsocket_enqueue(const char *text, size_t len, otsocket_send_callback cb, void *arg);
// 0 when the record was written whole, -1 otherwise; any thread. On a write
// error the socket is closed at once on the loop thread; another thread
// leaves that to the loop (see otsocket_close_if_broken) and wakes it.
int otsocket_write_record(otsocket_record *rec);
// Loop thread: closes the socket if a send on another thread found it broken.
void otsocket_close_if_broken();
// 1 when the queue is still non-empty afterwards, else 0.
int otsocket_flush_immediate();
int otsocket_send_immediate(const char *text, size_t len);
int otsocket_cancel(int id);
// Clears the callback of every queued record whose argument is arg (the
// record stays queued).
void otsocket_forget_callback_arg(void *arg);
// 1 and a new object in *out, or -1 when no complete object is available now.
int otsocket_receive(int fd, json_object **out);

// For tests: the queue id counter, and whether anything is queued.
void otsocket_set_queue_counter_for_testing(int32_t v);
int otsocket_queue_length_for_testing();
void otsocket_discard_queue_for_testing();

}  // namespace kelo::otrpc
