// The connection state machine on the libev default loop.
#pragma once

#include "kelo/otrpc.h"

namespace kelo::otrpc {

constexpr double OTCONN_RETRY_DELAY = 1.0;

// Wakes the loop thread to flush the send queue; any thread. Does nothing
// before otrpc_init or after otrpc_fini.
void otconn_wakeup();
// The current state (loop thread).
int otconn_get_state();

// For tests: forces the state (no hooks run) and delivers one io event with
// revents to the io callback, on a watcher of fd.
void otconn_invoke_io_for_testing(int state, int fd, int revents);

}  // namespace kelo::otrpc
