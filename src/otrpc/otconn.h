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

}  // namespace kelo::otrpc
