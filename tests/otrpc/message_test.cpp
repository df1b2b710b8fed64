// Message shapes, the id rule, replies, statistics messages, queue ids and
// cancelling, otrpc_dispatch, and the receive path on a socketpair: no loop
// and no agent needed.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "kelo/otrpc.h"
#include "otrpc/message.h"
#include "otrpc/otsocket.h"
#include "support/sandbox.h"

namespace {

using kelo::otrpc::otrpc_message_counter;
using kelo::otrpc::otsocket_queue_length_for_testing;

std::string text(json_object *o) { return json_object_to_json_string_ext(o, 0); }

json_object *get(json_object *o, const char *key) {
  json_object *v = nullptr;
  json_object_object_get_ex(o, key, &v);
  return v;
}

TEST(Message, ShapesAndKeyOrder) {
  otrpc_message_counter.store(41);
  json_object *a = otrpc_create_message(nullptr);
  EXPECT_EQ(text(a), R"({"id":42,"params":{}})");
  json_object *b = otrpc_create_message("cam.snap");
  EXPECT_EQ(text(b), R"({"method":"cam.snap","id":43,"params":{}})");
  json_object *k = kelo::otrpc::otmethod_create_message("register", "cam.snap");
  EXPECT_EQ(text(k), R"({"method":"register","id":44,"params":{},"key":"cam.snap"})");
  EXPECT_EQ(otrpc_message_set_id(a, -7), a);
  EXPECT_EQ(otrpc_reply_error(a, 3), 0);
  EXPECT_EQ(text(a), R"({"id":-7,"params":{},"error":{"code":3}})");
  EXPECT_EQ(otrpc_reply_ok(b), 0);
  EXPECT_EQ(text(b), R"({"method":"cam.snap","id":43,"params":{},"result":["OK"]})");
  EXPECT_EQ(otrpc_reply_ok(nullptr), -1);
  EXPECT_EQ(otrpc_reply_error(nullptr, 1), -1);
  // The two replies were queued, nothing for the NULL ones.
  EXPECT_EQ(otsocket_queue_length_for_testing(), 2);
  for (json_object *o : {a, b, k}) json_object_put(o);
}

TEST(Message, IdCounterClimbsThenRestartsAtRandom) {
  struct Case {
    uint32_t before;
    bool random;
  } cases[] = {{0, true},          {1, false},         {999999998, false},
               {999999999, false}, {1000000000, true}, {4000000000u, true}};
  for (const Case &c : cases) {
    for (int round = 0; round < 20; ++round) {
      otrpc_message_counter.store(c.before);
      json_object *m = otrpc_create_message("x");
      int id = json_object_get_int(get(m, "id"));
      // A random restart is rand_range(0, 1000000000): a signed draw modulo the width.
      EXPECT_TRUE(c.random ? id > -1000000000 && id < 1000000000 : id == int(c.before + 1)) << c.before;
      EXPECT_EQ(otrpc_message_counter.load(), uint32_t(id));
      json_object_put(m);
    }
  }
  // A random restart below 1 is used once and then replaced again.
  otrpc_message_counter.store(uint32_t(-5));
  json_object *m = otrpc_create_message("x");
  EXPECT_NE(json_object_get_int(get(m, "id")), -4);
  json_object_put(m);
}

TEST(Message, StatisticsShareTheCachedDeviceStrings) {
  kelo::test::Sandbox sb;
  json_object *params = nullptr;
  json_object *a = _otrpc_create_stat_msg(&params);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(get(a, "params"), params);
  json_object *b = otrpc_create_stat_msg();
  json_object_object_add(params, "k", json_object_new_int(1));
  EXPECT_EQ(text(params), R"({"model":"tarsa.camera.v4","fw_ver":"1.2.3_0045","k":1})");
  EXPECT_EQ(text(b), R"({"method":"_async.stat","id":)" + std::to_string(json_object_get_int(get(b, "id"))) +
                         R"(,"params":{"model":"tarsa.camera.v4","fw_ver":"1.2.3_0045"}})");
  for (const char *key : {"model", "fw_ver"}) EXPECT_EQ(get(params, key), get(get(b, "params"), key)) << key;
  json_object_put(a);
  json_object_put(b);
  // The sending stubs fail, send nothing and leave the value to the caller.
  json_object *v = json_object_new_int(5);
  EXPECT_EQ(otrpc_send_stat_json(nullptr, v), -1);
  EXPECT_EQ(json_object_get_int(v), 5);
  json_object_put(v);
  EXPECT_EQ(otrpc_send_stat_int(&v, 5), -1);
  EXPECT_EQ(otsocket_queue_length_for_testing(), 0);
}

int g_sent_calls = 0;
void count_sent(void *) { ++g_sent_calls; }

TEST(SendQueue, IdsClimbAndWrapToOneAndCancelRemovesQueuedTextsOnly) {
  json_object *m = otrpc_create_message("q");
  EXPECT_EQ(otrpc_send(m), 1);
  EXPECT_EQ(otrpc_send_cb(m, count_sent, nullptr), 2);
  kelo::otrpc::otsocket_set_queue_counter_for_testing(2147483646);
  EXPECT_EQ(otrpc_send(m), 2147483647);
  EXPECT_EQ(otrpc_send_cb(m, count_sent, nullptr), 1);
  EXPECT_EQ(otsocket_queue_length_for_testing(), 4);
  EXPECT_EQ(otrpc_send_cancel(2), 1);
  EXPECT_EQ(otrpc_send_cancel(2), 0);
  EXPECT_EQ(otrpc_send_cancel(12345), 0);
  EXPECT_EQ(otrpc_send_cancel(2147483647), 1);
  EXPECT_EQ(otsocket_queue_length_for_testing(), 2);
  EXPECT_EQ(g_sent_calls, 0);
  // Without a socket an immediate send fails and keeps nothing.
  EXPECT_EQ(otrpc_send_immediate(m), -1);
  EXPECT_EQ(otrpc_send_immediate(nullptr), -1);
  // json-c prints NULL as null; that text is queued like any other.
  EXPECT_EQ(otrpc_send(nullptr), 2);
  EXPECT_EQ(otsocket_queue_length_for_testing(), 3);
  json_object_put(m);
}

int take_a(void *ctx, json_object *) { return *static_cast<int *>(ctx); }
int take_b(void *, json_object *v) { return 100 + json_object_get_int(v); }

TEST(Dispatch, ByName) {
  int ctx_a = 11;
  const otrpc_dispatch_entry table[] = {{"a", take_a, &ctx_a},
                                        {"7", take_b, nullptr},
                                        {"gap", nullptr, nullptr},
                                        {"late", take_a, &ctx_a},
                                        {nullptr, nullptr, nullptr}};
  const otrpc_dispatch_entry empty[] = {{nullptr, nullptr, nullptr}};
  struct Case {
    const char *json;
    int want;
    const otrpc_dispatch_entry *table;
  } cases[] = {{R"("a")", 11, table},    {"7", 107, table},    {R"("7")", 107, table}, {R"("b")", -2, table},
               {R"("late")", -2, table}, {"null", -12, table}, {R"("")", -2, table},   {R"("a")", -2, empty}};
  for (const Case &c : cases) {
    json_object *v = json_tokener_parse(c.json);
    EXPECT_EQ(otrpc_dispatch(v, c.table), c.want) << c.json;
    json_object_put(v);
  }
}

TEST(Receive, OneObjectPerCallThroughGarbageToTheEndOfTheStream) {
  ASSERT_EQ(kelo::otrpc::otsocket_init(), 0);
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  auto put = [&](const std::string &b) { ASSERT_EQ(write(sv[0], b.data(), b.size()), ssize_t(b.size())); };
  // One call: "" for -1, else the object's text.
  auto take = [&] {
    json_object *o = nullptr;
    int r = kelo::otrpc::otsocket_receive(sv[1], &o);
    std::string t = r == 1 ? json_object_to_json_string_ext(o, 0) : "";
    EXPECT_EQ(r, t.empty() ? -1 : 1);
    json_object_put(o);
    return t;
  };
  put(R"({"a":1}{"b":2} {"c")");
  EXPECT_EQ(take(), R"({"a":1})");
  EXPECT_EQ(take(), R"({"b":2})");
  EXPECT_EQ(take(), "");  // the third is incomplete
  put(R"(:3})");
  EXPECT_EQ(take(), R"({"c":3})");
  EXPECT_EQ(take(), "");
  // The dropped array needs more than one read; the garbage after it must
  // not leave the object behind it waiting for the next readable event.
  put("[\"" + std::string(6000, 'z') + "\"]XX" + R"({"id":70})");
  EXPECT_EQ(take(), R"({"id":70})");
  put(R"({"a":1})");
  close(sv[0]);
  EXPECT_EQ(take(), R"({"a":1})");
  EXPECT_EQ(take(), "");
  EXPECT_EQ(take(), "");
  close(sv[1]);
  kelo::otrpc::otsocket_fini();
}

}  // namespace
