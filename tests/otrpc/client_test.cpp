// The client end to end against an agent on loopback: announcement, requests
// and replies, notifications, calls, reconnection.
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
using kelo::test::pump_for;
using kelo::test::pump_until;

namespace {

struct Calls {
  int n = 0, with_reply = 0;
  std::string last_params;
  json_object *kept = nullptr;  // the reply object of a request answered later
};

// Returns the "code" member of params (0 without one).
int handler_code(void *arg, json_object *params, json_object *reply) {
  auto *c = static_cast<Calls *>(arg);
  c->n++;
  c->with_reply += reply != nullptr;
  c->last_params = json_object_to_json_string_ext(params, 0);
  long long v = jint(params, "code");
  if (v == LLONG_MIN) return 0;
  if (v == OTRPC_RET_SEND_REPLY) json_object_object_add(reply, "result", json_object_new_string("filled"));
  if (v == OTRPC_RET_NO_REPLY) c->kept = json_object_get(reply);
  return static_cast<int>(v);
}

class Client : public ::testing::Test {
 protected:
  void SetUp() override {
    agent_ = std::make_unique<FakeAgent>(sb_.agent_port());
    ASSERT_EQ(otrpc_init(), 0);
  }
  void TearDown() override { otrpc_fini(); }

  // Registers "echo" and "other", starts, waits for all announcements.
  void start_with_methods(unsigned flags = 0, size_t announced = 2) {
    ASSERT_EQ(otrpc_register("echo", handler_code, &calls_, flags), 0);
    ASSERT_EQ(otrpc_register("other", handler_code, &other_, 0), 0);
    otrpc_start();
    ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() >= announced; }, 5));
  }

  // Sends text; returns the next reply (object without "method") the agent
  // receives, "" when none comes.
  std::string exchange(const std::string &text) {
    size_t n = agent_->received().size();
    EXPECT_TRUE(agent_->send_raw(text));
    std::string got;
    pump_until(
        [&] {
          for (size_t i = n; i < agent_->received().size() && got.empty(); ++i)
            if (jstr(agent_->received()[i].obj, "method").empty()) got = agent_->received()[i].text;
          return !got.empty();
        },
        3);
    return got;
  }

  kelo::test::Sandbox sb_;
  std::unique_ptr<FakeAgent> agent_;
  Calls calls_, other_;
};

TEST_F(Client, AnnouncesEachMethodOnConnectAndAgainAfterTheAgentCloses) {
  start_with_methods();
  // The queued announcements were cancelled in favour of the immediate ones:
  // each method exactly once per connection, with new ids on the next one.
  pump_for(0.2);
  EXPECT_EQ(kelo::otrpc::otconn_get_state(), OTCONN_CONNECTED);
  agent_->close_connection();
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() >= 4; }, 3));
  pump_for(0.2);
  auto all = agent_->with_method("register");
  ASSERT_EQ(all.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(jstr(all[i].obj, "key"), i % 2 ? "other" : "echo");
    EXPECT_EQ(all[i].conn, i < 2 ? 1 : 2);
  }
  EXPECT_NE(jint(all[2].obj, "id"), jint(all[0].obj, "id"));
  EXPECT_NE(jint(all[3].obj, "id"), jint(all[1].obj, "id"));
  // Reconnection after a lost connection is immediate, not after the retry delay.
  EXPECT_LT(all[2].t - all[1].t, 0.9);
}

TEST_F(Client, AnswersByHandlerCode) {
  start_with_methods();
  struct Case {
    const char *params, *reply;
  } cases[] = {
      {"{}", R"("result":["OK"])"},
      {R"({"code":0})", R"("result":["OK"])"},
      {R"({"code":2147483647})", R"("result":"filled")"},
      {R"({"code":-5})", R"("error":{"code":-5})"},
      {R"({"code":7})", R"("error":{"code":7})"},
  };
  int id = 100;
  for (const Case &c : cases) {
    std::string sid = std::to_string(++id);
    EXPECT_EQ(exchange(R"({"method":"echo","id":)" + sid + R"(,"params":)" + c.params + "}"),
              R"({"id":)" + sid + "," + c.reply + "}");
  }
  EXPECT_EQ(calls_.with_reply, 5);
  // OTRPC_RET_NO_REPLY: nothing goes out until the handler replies itself.
  ASSERT_TRUE(agent_->send_raw(R"({"method":"echo","id":41,"params":{"code":2147483646}})"));
  ASSERT_TRUE(pump_until([&] { return calls_.kept != nullptr; }, 3));
  pump_for(0.1);
  EXPECT_EQ(agent_->reply_for(41), nullptr);
  otrpc_reply_ok(calls_.kept);
  json_object_put(calls_.kept);
  EXPECT_TRUE(pump_until([&] { return agent_->reply_for(41) != nullptr; }, 3));
}

TEST_F(Client, UnknownMethodsAndRepeatedIdsGoUnanswered) {
  start_with_methods();
  // The filter of the last three ids starts full of 2147483647.
  agent_->send_raw(R"({"method":"echo","id":2147483647})");
  agent_->send_raw(R"({"method":"nosuch","id":5})");
  EXPECT_EQ(exchange(R"({"method":"echo","id":1})"), R"({"id":1,"result":["OK"]})");
  // 1 is among the last three: dropped; after three others it passes again.
  agent_->send_raw(R"({"method":"echo","id":1,"params":{"code":3}})");
  EXPECT_EQ(exchange(R"({"method":"echo","id":2})"), R"({"id":2,"result":["OK"]})");
  EXPECT_EQ(calls_.n, 2);
  EXPECT_NE(exchange(R"({"method":"echo","id":3})"), "");
  EXPECT_NE(exchange(R"({"method":"echo","id":4})"), "");
  EXPECT_EQ(exchange(R"({"method":"echo","id":1,"params":{"code":3}})"), R"({"id":1,"error":{"code":3}})");
  // A string id is neither filtered nor remembered.
  EXPECT_EQ(exchange(R"({"method":"echo","id":"s"})"), R"({"id":"s","result":["OK"]})");
  EXPECT_EQ(exchange(R"({"method":"echo","id":"s"})"), R"({"id":"s","result":["OK"]})");
  EXPECT_EQ(agent_->reply_for(2147483647), nullptr);
  EXPECT_EQ(agent_->reply_for(5), nullptr);
}

TEST_F(Client, AllowDupAnswersRepeatsAndTheStartValue) {
  start_with_methods(OTRPC_METHOD_ALLOW_DUP);
  EXPECT_NE(exchange(R"({"method":"echo","id":2147483647})"), "");
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(exchange(R"({"method":"echo","id":9})"), R"({"id":9,"result":["OK"]})");
  EXPECT_EQ(calls_.n, 4);
}

TEST_F(Client, NotificationsAndTheNoNotifyFlag) {
  ASSERT_EQ(otrpc_register("quiet", handler_code, &other_, OTRPC_METHOD_NO_NOTIFY), 0);
  start_with_methods(0, 3);
  // A notification runs the handler without a reply object; nothing is sent
  // (the next reply is the request's).
  agent_->send_raw(R"({"method":"echo","params":{"code":5}})");
  agent_->send_raw(R"({"method":"quiet"})");
  EXPECT_EQ(exchange(R"({"method":"echo","id":77,"params":{"a":1}})"), R"({"id":77,"result":["OK"]})");
  EXPECT_EQ(calls_.n, 2);
  EXPECT_EQ(calls_.with_reply, 1);
  EXPECT_EQ(other_.n, 0);
  EXPECT_EQ(calls_.last_params, R"({"a":1})");
  // Without "params" the handler gets the whole request.
  EXPECT_EQ(exchange(R"({"method":"echo","id":78})"), R"({"id":78,"result":["OK"]})");
  EXPECT_EQ(calls_.last_params, R"({"method":"echo","id":78})");
}

TEST_F(Client, UnregisterWithdrawsAnnouncedMethodsOnly) {
  start_with_methods();
  otrpc_unregister("echo");
  otrpc_unregister("nosuch");
  agent_->send_raw(R"({"method":"echo","id":50})");
  EXPECT_EQ(exchange(R"({"method":"other","id":51})"), R"({"id":51,"result":["OK"]})");
  // Registered and unregistered while its "register" still waits in the
  // queue: neither goes out.
  ASSERT_EQ(otrpc_register("brief", handler_code, &calls_, 0), 0);
  otrpc_unregister("brief");
  pump_for(0.2);
  auto gone = agent_->with_method("unregister");
  ASSERT_EQ(gone.size(), 1u);
  EXPECT_EQ(jstr(gone[0].obj, "key"), "echo");
  EXPECT_EQ(agent_->with_method("register").size(), 2u);
  EXPECT_EQ(agent_->reply_for(50), nullptr);
}

TEST_F(Client, SameNameTwiceNewerAnswersFirstAndUnregistersFirst) {
  ASSERT_EQ(otrpc_register("dup", handler_code, &calls_, OTRPC_METHOD_ALLOW_DUP), 0);
  ASSERT_EQ(otrpc_register("dup", handler_code, &other_, OTRPC_METHOD_ALLOW_DUP), 0);
  otrpc_start();
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() == 2; }, 5));
  EXPECT_NE(exchange(R"({"method":"dup","id":1})"), "");
  EXPECT_EQ(other_.n, 1);
  otrpc_unregister("dup");
  EXPECT_NE(exchange(R"({"method":"dup","id":2})"), "");
  EXPECT_EQ(calls_.n, 1);
  otrpc_unregister("dup");
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("unregister").size() == 2; }, 3));
  agent_->send_raw(R"({"method":"dup","id":3})");
  pump_for(0.2);
  EXPECT_EQ(agent_->reply_for(3), nullptr);
  EXPECT_EQ(calls_.n + other_.n, 2);
}

TEST(ClientInit, RegistersTheApplicationTableUpToItsEnd) {
  kelo::test::Sandbox sb;
  FakeAgent agent(sb.agent_port());
  Calls calls;
  // The first entry without a handler ends the table.
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
  pump_until([&] { return agent.with_method("register").size() == 2; }, 5);
  pump_for(0.2);
  auto regs = agent.with_method("register");
  ASSERT_EQ(regs.size(), 2u);
  EXPECT_EQ(jstr(regs[0].obj, "key"), "a");
  EXPECT_EQ(jstr(regs[1].obj, "key"), "b");
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

TEST_F(Client, CallsReceiveTheirRepliesOnceAndSharedIdsAll) {
  start_with_methods();
  CallLog a, b, c, d;
  json_object *m1 = otrpc_create_message("agent.fn");
  json_object *m2 = otrpc_create_message("agent.fn");
  EXPECT_GT(otrpc_call(m1, on_return, &a), 0);
  EXPECT_GT(otrpc_call(m2, on_return, &b), 0);
  kelo::otrpc::otmethod_register_return(4242, on_return, &c);
  kelo::otrpc::otmethod_register_return(4242, on_return, &d);
  std::string id1 = std::to_string(jint(m1, "id")), id2 = std::to_string(jint(m2, "id"));
  json_object_put(m1);
  json_object_put(m2);
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("agent.fn").size() == 2; }, 3));
  // The wire carries the call's own id (replacing the message's).
  EXPECT_EQ(std::to_string(jint(agent_->with_method("agent.fn")[0].obj, "id")), id1);
  std::string r2 = R"({"id":)" + id2 + R"(,"error":{"code":-1}})";
  std::string r1 = R"({"id":)" + id1 + R"(,"result":[1]})";
  std::string r3 = R"({"id":4242,"result":["OK"]})";
  agent_->send_raw(r2 + r1 + r1 + R"({"id":12345678901})" + r3);
  ASSERT_TRUE(pump_until([&] { return d.got.size() == 1; }, 3));
  pump_for(0.1);
  EXPECT_EQ(a.got, std::vector<std::string>{r1});  // the second copy found nothing
  EXPECT_EQ(b.got, std::vector<std::string>{r2});
  EXPECT_EQ(c.got, std::vector<std::string>{r3});
  EXPECT_EQ(kelo::otrpc::otmethod_pending_returns_for_testing(), 0);
}

TEST_F(Client, CallsExpireAtTheNextCallAfterMoreThanFiveSeconds) {
  CallLog a, b, c;
  json_object *m = otrpc_create_message("x");
  otrpc_call(m, on_return, &a);
  otrpc_call(m, on_return, &b);
  kelo::otrpc::otmethod_age_returns_for_testing(5);  // exactly 5 s: kept
  otrpc_call(m, on_return, &c);
  EXPECT_TRUE(a.got.empty());
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
  int first = 0;
  for (int i = 0; i < 50; ++i) {
    json_object *m = otrpc_create_message("queued");
    json_object_object_add(m, "n", json_object_new_int(i));
    int id = otrpc_send(m);
    if (i == 0) first = id;
    EXPECT_EQ(id, first + i);
    json_object_put(m);
  }
  pump_for(1.2);
  EXPECT_EQ(agent_->received().size(), 0u);
  agent_->start_listening();
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("queued").size() == 50; }, 5));
  auto got = agent_->with_method("queued");
  for (int i = 0; i < 50; ++i) EXPECT_EQ(jint(got[i].obj, "n"), i);
}

}  // namespace
