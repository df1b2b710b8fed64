// RPC messages: the shapes the library builds, the id rule, the two replies
// and the "_async.stat" statistics message.
#include "otrpc/message.h"

#include <json-c/json.h>

#include "kelo/otrpc.h"
#include "kelo/rand.h"
#include "util/devinfo.h"

namespace kelo::otrpc {

constinit std::atomic<uint32_t> otrpc_message_counter{0};

namespace {

constexpr uint32_t kIdRestart = 1000000000u;

// Cached device strings, filled on first use and kept for the life of the
// process; every statistics message holds its own reference to each.
constinit std::atomic<json_object *> g_model{nullptr};
constinit std::atomic<json_object *> g_fw_ver{nullptr};

int next_message_id() {
  uint32_t n = otrpc_message_counter.load(std::memory_order_relaxed);
  if (n >= 1 && n < kIdRestart)
    n += 1;
  else
    n = static_cast<uint32_t>(rand_range(0, static_cast<int>(kIdRestart)));
  otrpc_message_counter.store(n, std::memory_order_relaxed);
  return static_cast<int>(n);
}

}  // namespace

json_object *otmethod_create_message(const char *method, const char *key) {
  json_object *msg = otrpc_create_message(method);
  if (msg == nullptr) return nullptr;
  json_object *k = json_object_new_string(key);
  if (k != nullptr) json_object_object_add(msg, "key", k);
  return msg;
}

}  // namespace kelo::otrpc

using kelo::otrpc::g_fw_ver;
using kelo::otrpc::g_model;

extern "C" {

KELO_EXPORT json_object *otrpc_create_message(const char *method) {
  json_object *msg = json_object_new_object();
  if (msg == nullptr) return nullptr;
  if (method != nullptr) {
    json_object *m = json_object_new_string(method);
    if (m == nullptr) {
      json_object_put(msg);
      return nullptr;
    }
    json_object_object_add(msg, "method", m);
  }
  // Neither result is checked: without memory the message goes out without
  // "id", or with "params": null. Older agents cope with both.
  otrpc_message_set_id(msg, kelo::otrpc::next_message_id());
  json_object_object_add(msg, "params", json_object_new_object());
  return msg;
}

KELO_EXPORT json_object *otrpc_message_set_id(json_object *msg, int id) {
  json_object *v = json_object_new_int(id);
  if (v == nullptr) return nullptr;
  json_object_object_add(msg, "id", v);
  return msg;
}

KELO_EXPORT int otrpc_reply_ok(json_object *msg) {
  if (msg == nullptr) return -1;
  json_object *result = json_object_new_array();
  if (result == nullptr) return -1;
  json_object *ok = json_object_new_string("OK");
  if (ok == nullptr) {
    json_object_put(result);
    return -1;
  }
  json_object_array_add(result, ok);
  json_object_object_add(msg, "result", result);
  otrpc_send(msg);
  return 0;
}

KELO_EXPORT int otrpc_reply_error(json_object *msg, int code) {
  if (msg == nullptr) return -1;
  json_object *err = json_object_new_object();
  if (err == nullptr) return -1;
  json_object *c = json_object_new_int(code);
  if (c == nullptr) {
    json_object_put(err);
    return -1;
  }
  json_object_object_add(err, "code", c);
  json_object_object_add(msg, "error", err);
  otrpc_send(msg);
  return 0;
}

KELO_EXPORT json_object *_otrpc_create_stat_msg(json_object **params_out) {
  json_object *msg = otrpc_create_message("_async.stat");
  if (msg == nullptr) return nullptr;
  json_object *params = json_object_new_object();
  if (params == nullptr) {
    json_object_put(msg);
    return nullptr;
  }
  const kelo::devinfo::Record *info = nullptr;
  json_object *model = g_model.load(std::memory_order_acquire);
  if (model == nullptr) {
    info = kelo::devinfo::get();
    std::string_view text = info != nullptr ? kelo::devinfo::field(info, info->model) : "";
    model = json_object_new_string_len(text.data(), static_cast<int>(text.size()));
    if (model == nullptr) {
      json_object_put(params);
      json_object_put(msg);
      return nullptr;
    }
    g_model.store(model, std::memory_order_release);
  }
  json_object *fw = g_fw_ver.load(std::memory_order_acquire);
  if (fw == nullptr) {
    if (info == nullptr) info = kelo::devinfo::get();
    std::string_view text = info != nullptr ? kelo::devinfo::field(info, info->fw_version) : "";
    fw = json_object_new_string_len(text.data(), static_cast<int>(text.size()));
    if (fw == nullptr) {
      // Only reached without memory. The model slot keeps its string and its
      // reference: dropping the reference while the slot still points at it
      // would leave the next statistics message a freed object.
      g_fw_ver.store(nullptr, std::memory_order_release);
      json_object_put(params);
      json_object_put(msg);
      return nullptr;
    }
    g_fw_ver.store(fw, std::memory_order_release);
  }
  json_object_object_add(params, "model", json_object_get(model));
  json_object_object_add(params, "fw_ver", json_object_get(fw));
  json_object_object_add(msg, "params", params);  // replaces (and frees) the empty one
  if (params_out != nullptr) *params_out = params;
  return msg;
}

KELO_EXPORT json_object *otrpc_create_stat_msg(void) { return _otrpc_create_stat_msg(nullptr); }

KELO_EXPORT int otrpc_send_stat_json(void *key, json_object *value) {
  (void)key;
  (void)value;
  return -1;
}

KELO_EXPORT int otrpc_send_stat_int(void *key, int64_t value) {
  json_object *v = json_object_new_int64(value);
  int r = otrpc_send_stat_json(key, v);
  if (r < 0) json_object_put(v);
  return r;
}

}  // extern "C"
