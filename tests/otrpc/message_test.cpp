// Message shapes, the id rule, replies, statistics messages, queue ids and
// cancelling, and otrpc_dispatch: no loop and no agent needed.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <string>

#include "kelo/otrpc.h"
#include "otrpc/message.h"
#include "otrpc/otsocket.h"
#include "support/sandbox.h"

namespace {

using kelo::otrpc::otrpc_message_counter;

std::string text(json_object *o) { return json_object_to_json_string_ext(o, 0); }

int id_of(json_object *o) {
  json_object *v = nullptr;
  EXPECT_TRUE(json_object_object_get_ex(o, "id", &v));
  return json_object_get_int(v);
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
  EXPECT_EQ(text(a), R"({"id":-7,"params":{}})");
  EXPECT_EQ(otrpc_reply_error(a, 3), 0);
  EXPECT_EQ(text(a), R"({"id":-7,"params":{},"error":{"code":3}})");
  EXPECT_EQ(otrpc_reply_ok(b), 0);
  EXPECT_EQ(text(b), R"({"method":"cam.snap","id":43,"params":{},"result":["OK"]})");
  EXPECT_EQ(otrpc_reply_ok(nullptr), -1);
  EXPECT_EQ(otrpc_reply_error(nullptr, 1), -1);
  // The two replies were queued, nothing for the NULL ones.
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 2);
  json_object_put(a);
  json_object_put(b);
  json_object_put(k);
}

TEST(Message, IdCounterClimbsThenRestartsAtRandom) {
  struct Case {
    uint32_t before;
    bool random;
  } cases[] = {{0, true}, {1, false}, {999999998, false}, {999999999, false}, {1000000000, true},
               {4000000000u, true}};
  for (const Case &c : cases) {
    for (int round = 0; round < 20; ++round) {
      otrpc_message_counter.store(c.before);
      json_object *m = otrpc_create_message("x");
      int id = id_of(m);
      if (!c.random) {
        EXPECT_EQ(id, static_cast<int>(c.before + 1));
      } else {
        // rand_range(0, 1000000000): a signed draw modulo the width.
        EXPECT_GT(id, -1000000000);
        EXPECT_LT(id, 1000000000);
      }
      EXPECT_EQ(otrpc_message_counter.load(), static_cast<uint32_t>(id));
      json_object_put(m);
    }
  }
  // A random restart below 1 is used once and then replaced again.
  otrpc_message_counter.store(static_cast<uint32_t>(-5));
  json_object *m = otrpc_create_message("x");
  EXPECT_NE(id_of(m), -4);
  json_object_put(m);
}

TEST(Message, StatisticsShareTheCachedDeviceStrings) {
  kelo::test::Sandbox sb;
  json_object *params = nullptr;
  json_object *a = _otrpc_create_stat_msg(&params);
  ASSERT_NE(a, nullptr);
  json_object_object_add(params, "k", json_object_new_int(1));
  EXPECT_EQ(text(a).substr(0, 26), R"({"method":"_async.stat","i)");
  json_object *pa = nullptr;
  ASSERT_TRUE(json_object_object_get_ex(a, "params", &pa));
  EXPECT_EQ(pa, params);
  EXPECT_EQ(text(pa), R"({"model":"tarsa.camera.v4","fw_ver":"1.2.3_0045","k":1})");
  json_object *b = otrpc_create_stat_msg();
  json_object *pb = nullptr, *ma = nullptr, *mb = nullptr, *fa = nullptr, *fb = nullptr;
  ASSERT_TRUE(json_object_object_get_ex(b, "params", &pb));
  json_object_object_get_ex(pa, "model", &ma);
  json_object_object_get_ex(pb, "model", &mb);
  json_object_object_get_ex(pa, "fw_ver", &fa);
  json_object_object_get_ex(pb, "fw_ver", &fb);
  EXPECT_EQ(ma, mb);
  EXPECT_EQ(fa, fb);
  json_object_put(a);
  json_object_put(b);
  json_object *c = otrpc_create_stat_msg();
  EXPECT_EQ(text(c).find(R"("params":{"model":"tarsa.camera.v4","fw_ver":"1.2.3_0045"}})") != std::string::npos,
            true)
      << text(c);
  json_object_put(c);
}

TEST(Message, StatisticsStubsFailAndSendNothing) {
  json_object *v = json_object_new_int(5);
  EXPECT_EQ(otrpc_send_stat_json(nullptr, v), -1);
  EXPECT_EQ(json_object_get_int(v), 5);  // still the caller's
  json_object_put(v);
  EXPECT_EQ(otrpc_send_stat_int(&v, 5), -1);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 0);
}

int g_sent_calls = 0;
void count_sent(void *) { ++g_sent_calls; }

TEST(SendQueue, IdsClimbAndWrapToOne) {
  json_object *m = otrpc_create_message("q");
  EXPECT_EQ(otrpc_send(m), 1);
  EXPECT_EQ(otrpc_send(m), 2);
  EXPECT_EQ(otrpc_send_cb(m, count_sent, nullptr), 3);
  kelo::otrpc::otsocket_set_queue_counter_for_testing(2147483646);
  EXPECT_EQ(otrpc_send(m), 2147483647);
  EXPECT_EQ(otrpc_send(m), 1);
  EXPECT_EQ(otrpc_send(m), 2);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 6);
  json_object_put(m);
}

TEST(SendQueue, CancelRemovesQueuedTextsOnly) {
  json_object *m = otrpc_create_message("q");
  int a = otrpc_send_cb(m, count_sent, nullptr);
  int b = otrpc_send_cb(m, count_sent, nullptr);
  EXPECT_EQ(otrpc_send_cancel(b), 1);
  EXPECT_EQ(otrpc_send_cancel(b), 0);
  EXPECT_EQ(otrpc_send_cancel(12345), 0);
  EXPECT_EQ(otrpc_send_cancel(a), 1);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 0);
  EXPECT_EQ(g_sent_calls, 0);
  // Without a socket an immediate send fails and keeps nothing.
  EXPECT_EQ(otrpc_send_immediate(m), -1);
  EXPECT_EQ(otrpc_send_immediate(nullptr), -1);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 0);
  // json-c prints NULL as null; that text is queued like any other.
  EXPECT_GT(otrpc_send(nullptr), 0);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 1);
  json_object_put(m);
}

int take_a(void *ctx, json_object *) { return *static_cast<int *>(ctx); }
int take_b(void *, json_object *v) { return 100 + json_object_get_int(v); }

TEST(Dispatch, ByName) {
  int ctx_a = 11;
  const otrpc_dispatch_entry table[] = {
      {"a", take_a, &ctx_a}, {"7", take_b, nullptr}, {"gap", nullptr, nullptr}, {"late", take_a, &ctx_a},
      {nullptr, nullptr, nullptr}};
  struct Case {
    const char *json;
    int want;
  } cases[] = {
      {R"("a")", 11},   {"7", 107},        {R"("7")", 107}, {R"("b")", -2},
      {R"("late")", -2}, {"null", -12},     {R"("")", -2},
  };
  for (const Case &c : cases) {
    json_object *v = json_tokener_parse(c.json);
    EXPECT_EQ(otrpc_dispatch(v, table), c.want) << c.json;
    json_object_put(v);
  }
  const otrpc_dispatch_entry empty[] = {{nullptr, nullptr, nullptr}};
  json_object *s = json_object_new_string("a");
  EXPECT_EQ(otrpc_dispatch(s, empty), -2);
  json_object_put(s);
}

}  // namespace
