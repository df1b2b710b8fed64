// RPC messages: internals shared by the client's modules and its tests.
#pragma once

#include <atomic>
#include <cstdint>

struct json_object;

namespace kelo::otrpc {

// The message-id counter: 0 until the first message, then climbing by one up
// to 1000000000 and restarting at a random point. Relaxed atomic loads and
// stores only: concurrent creators may still draw equal ids (that is
// accepted), but no access is a data race.
extern std::atomic<uint32_t> otrpc_message_counter;

// otrpc_create_message(method) plus a top-level "key" = key; NULL when the
// message cannot be made. A "key" that cannot be made is left out.
json_object *otmethod_create_message(const char *method, const char *key);

}  // namespace kelo::otrpc
