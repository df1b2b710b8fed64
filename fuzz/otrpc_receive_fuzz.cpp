// Arbitrary bytes from the agent, through the receive path and the message
// handler with registered methods and pending calls. Nothing may crash, leak,
// or touch memory outside the receive buffer; and when the stream is plain
// JSON values apart by white space or NUL bytes, the reader hands out its
// objects exactly as json-c reads them from the whole stream, however cut.
// (Malformed input, and a top-level number, which json-c ends only at the
// byte after it, are skipped by rules whose result may depend on the cuts.)
//
// Input: byte 0 chooses the write chunk size (1..256), the rest is the stream.
#include <fcntl.h>
#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kelo/log.h"
#include "kelo/otrpc.h"
#include "otrpc/otmethod.h"
#include "otrpc/otsocket.h"

namespace {

json_object *g_kept = nullptr;

// Replies by what params say: {"code": n} returns n; {"keep": 1} keeps the
// reply for later; "unregister" withdraws the method while it runs.
int handler(void *, json_object *params, json_object *reply) {
  json_object *v = nullptr;
  if (json_object_object_get_ex(params, "unregister", &v)) otrpc_unregister("m");
  if (json_object_object_get_ex(params, "keep", &v) && reply != nullptr && g_kept == nullptr) {
    g_kept = json_object_get(reply);
    return OTRPC_RET_NO_REPLY;
  }
  if (json_object_object_get_ex(params, "fill", &v) && reply != nullptr)
    json_object_object_add(reply, "result", json_object_get(v));
  if (json_object_object_get_ex(params, "code", &v)) return json_object_get_int(v);
  return 0;
}

int on_return(void *, json_object *msg) {
  if (msg != nullptr) (void)json_object_to_json_string_ext(msg, 0);
  return 0;
}

// json-c over the whole stream, value after value: the texts of its objects,
// or false when it meets an error or a top-level number.
bool reference(const uint8_t *p, size_t n, std::vector<std::string> *objects) {
  json_tokener *tok = json_tokener_new_ex(kelo::otrpc::OTSOCKET_TOKENER_DEPTH);
  bool ok = true;
  for (size_t at = 0; ok && at < n;) {
    if (p[at] == '\0' || p[at] == ' ' || p[at] == '\t' || p[at] == '\n' || p[at] == '\r') {
      ++at;
      continue;
    }
    json_object *o =
        json_tokener_parse_ex(tok, reinterpret_cast<const char *>(p) + at, static_cast<int>(n - at));
    if (o == nullptr || json_object_is_type(o, json_type_int) || json_object_is_type(o, json_type_double)) {
      ok = o == nullptr && json_tokener_get_error(tok) == json_tokener_continue;  // cut off at the end
      json_object_put(o);
      break;
    }
    if (json_object_is_type(o, json_type_object)) objects->push_back(json_object_to_json_string_ext(o, 0));
    json_object_put(o);
    at += json_tokener_get_parse_end(tok);
    json_tokener_reset(tok);
  }
  json_tokener_free(tok);
  return ok;
}

// Texts of the objects handed out, in order.
void drain(int fd, std::vector<std::string> *seen, bool handle) {
  json_object *msg = nullptr;
  int r;
  while ((r = kelo::otrpc::otsocket_receive(fd, &msg)) >= 0) {
    if (r == 1) {
      seen->push_back(json_object_to_json_string_ext(msg, 0));
      if (handle) kelo::otrpc::otmethod_handle_message(msg);
      json_object_put(msg);
      msg = nullptr;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  setenv("KELO_LOG_LEVEL", "err", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  size_t chunk = static_cast<size_t>(data[0]) + 1;
  ++data;
  --size;
  std::vector<std::string> want, cut;
  bool plain = reference(data, size, &want);
  if (kelo::otrpc::otsocket_init() != 0) abort();
  otrpc_register("m", handler, nullptr, 0);
  otrpc_register("n", handler, nullptr, OTRPC_METHOD_NO_NOTIFY | OTRPC_METHOD_ALLOW_DUP);
  otrpc_register("", handler, nullptr, 0);
  kelo::otrpc::otmethod_register_return(1, on_return, nullptr);
  kelo::otrpc::otmethod_register_return(7, on_return, nullptr);

  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) abort();
  fcntl(sv[0], F_SETFL, O_NONBLOCK);
  for (size_t off = 0; off < size; off += chunk) {
    size_t n = size - off < chunk ? size - off : chunk;
    if (write(sv[0], data + off, n) != static_cast<ssize_t>(n)) abort();
    drain(sv[1], &cut, true);
  }
  close(sv[0]);
  drain(sv[1], &cut, true);  // end of stream
  close(sv[1]);

  if (g_kept != nullptr) {
    otrpc_reply_ok(g_kept);
    json_object_put(g_kept);
    g_kept = nullptr;
  }
  otrpc_unregister("m");
  otrpc_unregister("m");
  otrpc_unregister("n");
  otrpc_unregister("");
  // Expire what is left of the calls (the new one is dropped the same way next time).
  kelo::otrpc::otmethod_age_returns_for_testing(100);
  kelo::otrpc::otmethod_register_return(0, nullptr, nullptr);
  kelo::otrpc::otsocket_discard_queue_for_testing();
  kelo::otrpc::otsocket_fini();
  if (plain && cut != want) abort();
  return 0;
}
