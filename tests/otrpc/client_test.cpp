// The client end to end against a real agent on loopback: announcement,
// requests and replies, notifications, calls, reconnection.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "kelo/app.h"
#include "kelo/otrpc.h"
#include "otrpc/otconn.h"
#include "otrpc/otmethod.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

using kelo::test::FakeAgent;
using kelo::test::jint;
using kelo::test::jstr;
using kelo::test::pump_until;

namespace {

struct Calls {
  int n = 0;
  std::string last_params;
  bool last_had_reply = false;
};

int handler_code(void *arg, json_object *params, json_object *reply) {
  auto *c = static_cast<Calls *>(arg);
  c->n++;
  c->last_params = json_object_to_json_string_ext(params, 0);
  c->last_had_reply = reply != nullptr;
  json_object *code = nullptr;
  if (json_object_object_get_ex(params, "code", &code)) {
    int v = json_object_get_int(code);
    if (v == OTRPC_RET_SEND_REPLY && reply != nullptr)
      json_object_object_add(reply, "result", json_object_new_string("filled"));
    return v;
  }
  return 0;
}

class Client : public ::testing::Test {
 protected:
  void SetUp() override {
    agent_ = std::make_unique<FakeAgent>(sb_.agent_port());
    ASSERT_EQ(otrpc_init(), 0);
  }
  void TearDown() override { otrpc_fini(); }

  // Registers "echo" and "other", starts, waits for both announcements.
  void start_with_methods(unsigned flags = 0) {
    ASSERT_EQ(otrpc_register("echo", handler_code, &calls_, flags), 0);
    ASSERT_EQ(otrpc_register("other", handler_code, &other_, 0), 0);
    otrpc_start();
    ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() >= 2; }, 5));
  }

  // Sends text and waits for the reply with that id.
  json_object *request(const std::string &text, long long id, double timeout = 3) {
    EXPECT_TRUE(agent_->send_raw(text));
    json_object *r = nullptr;
    pump_until([&] { return (r = agent_->reply_for(id)) != nullptr; }, timeout);
    return r;
  }

  kelo::test::Sandbox sb_;
  std::unique_ptr<FakeAgent> agent_;
  Calls calls_, other_;
};

TEST_F(Client, AnnouncesEachMethodOnConnectAndAgainAfterTheAgentCloses) {
  start_with_methods();
  auto first = agent_->with_method("register");
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(jstr(first[0].obj, "key"), "echo");
  EXPECT_EQ(jstr(first[1].obj, "key"), "other");
  // The queued announcements were cancelled in favour of the immediate ones:
  // each method exactly once.
  kelo::test::pump_for(0.2);
  EXPECT_EQ(agent_->with_method("register").size(), 2u);
  EXPECT_EQ(kelo::otrpc::otconn_get_state(), OTCONN_CONNECTED);

  agent_->close_connection();
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() >= 4; }, 3));
  kelo::test::pump_for(0.2);
  auto all = agent_->with_method("register");
  ASSERT_EQ(all.size(), 4u);
  EXPECT_EQ(all[2].conn, 2);
  EXPECT_EQ(all[3].conn, 2);
  EXPECT_EQ(jstr(all[2].obj, "key"), "echo");
  EXPECT_EQ(jstr(all[3].obj, "key"), "other");
  EXPECT_NE(jint(all[2].obj, "id"), jint(all[0].obj, "id"));
  EXPECT_NE(jint(all[3].obj, "id"), jint(all[1].obj, "id"));
  // Reconnection after a lost connection is immediate, not after the retry delay.
  EXPECT_LT(all[2].t - all[1].t, 0.9);
}

TEST_F(Client, AnswersByHandlerCode) {
  start_with_methods();
  struct Case {
    const char *params;
    const char *reply_tail;
  } cases[] = {
      {"{}", R"("result": [ "OK" ])"},
      {R"({"code": 0})", R"("result": [ "OK" ])"},
      {R"({"code": 2147483647})", R"("result": "filled")"},
      {R"({"code": -5})", R"("error": { "code": -5 })"},
      {R"({"code": 7})", R"("error": { "code": 7 })"},
  };
  long long id = 100;
  for (const Case &c : cases) {
    ++id;
    std::string text = R"({"method":"echo","id":)" + std::to_string(id) + R"(,"params":)" + c.params + "}";
    json_object *r = request(text, id);
    ASSERT_NE(r, nullptr) << c.params;
    std::string want = "{ \"id\": " + std::to_string(id) + ", " + c.reply_tail + " }";
    EXPECT_EQ(json_object_to_json_string_ext(r, JSON_C_TO_STRING_SPACED), want) << c.params;
  }
  EXPECT_EQ(calls_.n, 5);
  EXPECT_TRUE(calls_.last_had_reply);
  // The wire text is json-c's plain form, keys in order.
  std::string text = R"({"method":"echo","id":300,"params":{"code":9}})";
  ASSERT_NE(request(text, 300), nullptr);
  bool found = false;
  for (const auto &r : agent_->received()) found |= r.text == R"({"id":300,"error":{"code":9}})";
  EXPECT_TRUE(found);
}

TEST_F(Client, NoReplyCodeSendsNothingUntilTheHandlerDoes) {
  static json_object *kept = nullptr;
  ASSERT_EQ(otrpc_register(
                "later",
                [](void *, json_object *, json_object *reply) {
                  kept = json_object_get(reply);
                  return OTRPC_RET_NO_REPLY;
                },
                nullptr, 0),
            0);
  otrpc_start();
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() == 1; }, 5));
  ASSERT_TRUE(agent_->send_raw(R"({"method":"later","id":41})"));
  ASSERT_TRUE(pump_until([&] { return kept != nullptr; }, 3));
  kelo::test::pump_for(0.1);
  EXPECT_EQ(agent_->reply_for(41), nullptr);
  otrpc_reply_ok(kept);
  json_object_put(kept);
  ASSERT_TRUE(pump_until([&] { return agent_->reply_for(41) != nullptr; }, 3));
}

TEST_F(Client, UnknownMethodsAndRepeatedIdsGoUnanswered) {
  start_with_methods();
  // The filter starts full of 2147483647.
  agent_->send_raw(R"({"method":"echo","id":2147483647})");
  agent_->send_raw(R"({"method":"nosuch","id":5})");
  ASSERT_NE(request(R"({"method":"echo","id":1})", 1), nullptr);
  EXPECT_EQ(agent_->reply_for(2147483647), nullptr);
  EXPECT_EQ(agent_->reply_for(5), nullptr);
  EXPECT_EQ(calls_.n, 1);
  // 1 is among the last three: dropped; after three others it passes again.
  agent_->send_raw(R"({"method":"echo","id":1,"params":{"code":3}})");
  ASSERT_NE(request(R"({"method":"echo","id":2})", 2), nullptr);
  EXPECT_EQ(calls_.n, 2);
  ASSERT_NE(request(R"({"method":"echo","id":3})", 3), nullptr);
  ASSERT_NE(request(R"({"method":"echo","id":4})", 4), nullptr);
  size_t before = agent_->count();
  ASSERT_TRUE(agent_->send_raw(R"({"method":"echo","id":1,"params":{"code":3}})"));
  ASSERT_TRUE(pump_until([&] { return agent_->count() > before; }, 3));
  EXPECT_EQ(agent_->received().back().text, R"({"id":1,"error":{"code":3}})");
  // A string id is neither filtered nor remembered.
  for (int i = 0; i < 2; ++i) {
    size_t n = agent_->count();
    ASSERT_TRUE(agent_->send_raw(R"({"method":"echo","id":"s"})"));
    ASSERT_TRUE(pump_until([&] { return agent_->count() > n; }, 3));
    EXPECT_EQ(agent_->received().back().text, R"({"id":"s","result":["OK"]})");
  }
}

TEST_F(Client, AllowDupAnswersRepeatsAndTheStartValue) {
  start_with_methods(OTRPC_METHOD_ALLOW_DUP);
  ASSERT_NE(request(R"({"method":"echo","id":2147483647})", 2147483647), nullptr);
  for (int i = 0; i < 3; ++i) {
    size_t n = agent_->count();
    agent_->send_raw(R"({"method":"echo","id":9})");
    ASSERT_TRUE(pump_until([&] { return agent_->count() > n; }, 3));
  }
  EXPECT_EQ(calls_.n, 4);
}

TEST_F(Client, NotificationsAndTheNoNotifyFlag) {
  ASSERT_EQ(otrpc_register("quiet", handler_code, &other_, OTRPC_METHOD_NO_NOTIFY), 0);
  start_with_methods();
  // A notification runs the handler without a reply object; nothing is sent.
  agent_->send_raw(R"({"method":"echo","params":{"code":5}})");
  agent_->send_raw(R"({"method":"quiet"})");
  ASSERT_NE(request(R"({"method":"echo","id":77,"params":{"a":1}})", 77), nullptr);
  EXPECT_EQ(calls_.n, 2);
  EXPECT_EQ(other_.n, 0);
  EXPECT_EQ(calls_.last_params, R"({"a":1})");
  // Without "params" the handler gets the whole request.
  ASSERT_NE(request(R"({"method":"echo","id":78})", 78), nullptr);
  EXPECT_EQ(calls_.last_params, R"({"method":"echo","id":78})");
  // Only replies count as output besides the announcements.
  for (const auto &r : agent_->received())
    if (jstr(r.obj, "method").empty()) {
      EXPECT_NE(jint(r.obj, "id"), LLONG_MIN) << r.text;
    }
}

TEST_F(Client, UnregisterWithdrawsAnnouncedMethodsOnly) {
  start_with_methods();
  otrpc_unregister("echo");
  otrpc_unregister("nosuch");
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("unregister").size() == 1; }, 3));
  EXPECT_EQ(jstr(agent_->with_method("unregister")[0].obj, "key"), "echo");
  agent_->send_raw(R"({"method":"echo","id":50})");
  ASSERT_NE(request(R"({"method":"other","id":51})", 51), nullptr);
  EXPECT_EQ(agent_->reply_for(50), nullptr);
  // Registered and unregistered while the "register" still waits in the
  // queue (no agent connection yet in this loop turn): neither goes out.
  ASSERT_EQ(otrpc_register("brief", handler_code, &calls_, 0), 0);
  otrpc_unregister("brief");
  kelo::test::pump_for(0.2);
  for (const auto &r : agent_->received()) EXPECT_NE(jstr(r.obj, "key"), "brief") << r.text;
}

TEST_F(Client, SameNameTwiceNewerAnswersFirstAndUnregistersFirst) {
  ASSERT_EQ(otrpc_register("dup", handler_code, &calls_, OTRPC_METHOD_ALLOW_DUP), 0);
  ASSERT_EQ(otrpc_register("dup", handler_code, &other_, OTRPC_METHOD_ALLOW_DUP), 0);
  otrpc_start();
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() == 2; }, 5));
  ASSERT_NE(request(R"({"method":"dup","id":1})", 1), nullptr);
  EXPECT_EQ(other_.n, 1);
  otrpc_unregister("dup");
  ASSERT_NE(request(R"({"method":"dup","id":2})", 2), nullptr);
  EXPECT_EQ(calls_.n, 1);
  otrpc_unregister("dup");
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("unregister").size() == 2; }, 3));
  agent_->send_raw(R"({"method":"dup","id":3})");
  kelo::test::pump_for(0.2);
  EXPECT_EQ(agent_->reply_for(3), nullptr);
  EXPECT_EQ(calls_.n + other_.n, 2);
}

TEST(ClientInit, RegistersTheApplicationTableUpToItsEnd) {
  kelo::test::Sandbox sb;
  FakeAgent agent(sb.agent_port());
  Calls calls;
  const otrpc_method table[] = {{"a", handler_code, &calls, 0},
                                {"b", handler_code, &calls, 0},
                                {"c", nullptr, &calls, 0},
                                {"d", handler_code, &calls, 0},
                                {nullptr, nullptr, nullptr, 0}};
  static app_desc desc = {};
  desc.methods = table;
  app_current = &desc;
  ASSERT_EQ(otrpc_init(), 0);
  otrpc_start();
  ASSERT_TRUE(pump_until([&] { return agent.with_method("register").size() == 2; }, 5));
  kelo::test::pump_for(0.2);
  auto regs = agent.with_method("register");
  ASSERT_EQ(regs.size(), 2u);
  EXPECT_EQ(jstr(regs[0].obj, "key"), "a");
  EXPECT_EQ(jstr(regs[1].obj, "key"), "b");
  otrpc_fini();
  // A table whose first entry has no handler registers nothing.
  const otrpc_method empty[] = {{"x", nullptr, nullptr, 0}, {"y", handler_code, &calls, 0}, {}};
  desc.methods = empty;
  ASSERT_EQ(otrpc_init(), 0);
  otrpc_fini();
  app_current = nullptr;
}

struct CallLog {
  std::vector<std::string> got;  // text of each reply, "null" for expiry
};

int on_return(void *arg, json_object *msg) {
  static_cast<CallLog *>(arg)->got.push_back(msg ? json_object_to_json_string_ext(msg, 0) : "null");
  return 0;
}

TEST_F(Client, CallsReceiveTheirReplies) {
  start_with_methods();
  CallLog a, b;
  json_object *m1 = otrpc_create_message("agent.fn");
  json_object *m2 = otrpc_create_message("agent.fn");
  EXPECT_GT(otrpc_call(m1, on_return, &a), 0);
  EXPECT_GT(otrpc_call(m2, on_return, &b), 0);
  long long id1 = jint(m1, "id"), id2 = jint(m2, "id");
  json_object_put(m1);
  json_object_put(m2);
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("agent.fn").size() == 2; }, 3));
  // The wire carries the call's own id (replacing the message's).
  EXPECT_EQ(jint(agent_->with_method("agent.fn")[0].obj, "id"), id1);
  std::string r2 = R"({"id":)" + std::to_string(id2) + R"(,"error":{"code":-1}})";
  std::string r1 = R"({"id":)" + std::to_string(id1) + R"(,"result":[1]})";
  agent_->send_raw(r2 + r1 + r1 + R"({"id":12345678901})");
  ASSERT_TRUE(pump_until([&] { return a.got.size() == 1 && b.got.size() == 1; }, 3));
  kelo::test::pump_for(0.1);
  EXPECT_EQ(a.got, std::vector<std::string>{r1});  // the second copy found nothing
  EXPECT_EQ(b.got, std::vector<std::string>{r2});
  EXPECT_EQ(kelo::otrpc::otmethod_pending_returns_for_testing(), 0);
}

TEST_F(Client, PendingCallsSharingAnIdAllGetTheReply) {
  start_with_methods();
  CallLog a, b;
  kelo::otrpc::otmethod_register_return(4242, on_return, &a);
  kelo::otrpc::otmethod_register_return(4242, on_return, &b);
  agent_->send_raw(R"({"id":4242,"result":["OK"]})");
  ASSERT_TRUE(pump_until([&] { return a.got.size() == 1 && b.got.size() == 1; }, 3));
}

TEST_F(Client, CallsExpireAtTheNextCallAfterMoreThanFiveSeconds) {
  CallLog a, b, c;
  json_object *m = otrpc_create_message("x");
  otrpc_call(m, on_return, &a);
  otrpc_call(m, on_return, &b);
  kelo::otrpc::otmethod_age_returns_for_testing(5);  // exactly 5 s: kept
  otrpc_call(m, on_return, &c);
  EXPECT_TRUE(a.got.empty());
  EXPECT_EQ(kelo::otrpc::otmethod_pending_returns_for_testing(), 3);
  kelo::otrpc::otmethod_age_returns_for_testing(1);  // a, b: 6 s; c: 1 s
  otrpc_call(m, on_return, &c);
  EXPECT_EQ(a.got, std::vector<std::string>{"null"});
  EXPECT_EQ(b.got, std::vector<std::string>{"null"});
  EXPECT_TRUE(c.got.empty());
  EXPECT_EQ(kelo::otrpc::otmethod_pending_returns_for_testing(), 2);
  json_object_put(m);
}

TEST_F(Client, MessagesQueuedWithoutAgentGoOutInOrderOnceItListens) {
  agent_->stop_listening();
  otrpc_start();
  std::vector<int> ids;
  for (int i = 0; i < 50; ++i) {
    json_object *m = otrpc_create_message("queued");
    json_object_object_add(m, "n", json_object_new_int(i));
    ids.push_back(otrpc_send(m));
    json_object_put(m);
  }
  for (size_t i = 1; i < ids.size(); ++i) EXPECT_EQ(ids[i], ids[i - 1] + 1);
  kelo::test::pump_for(1.2);
  EXPECT_EQ(agent_->count(), 0u);
  agent_->start_listening();
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("queued").size() == 50; }, 5));
  auto got = agent_->with_method("queued");
  for (int i = 0; i < 50; ++i) EXPECT_EQ(jint(got[i].obj, "n"), i);
}

}  // namespace
