// The client end to end against an agent on loopback: the connection states,
// reconnecting and retrying, the queue across connections, the duplicate
// filter and the expiry of calls.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <string>
#include <vector>

#include "common/dlist.h"
#include "kelo/otrpc.h"
#include "otrpc/otconn.h"
#include "otrpc/otmethod.h"
#include "otrpc/otsocket.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

namespace {

using kelo::otrpc::otconn_get_state;
using namespace kelo::test;

int count_call(void *arg, json_object *, json_object *) { return ++*static_cast<int *>(arg), 0; }

// A state hook that records the changes it sees and returns result.
struct Recorder {
  struct Change {
    int to, from;
    double t;
  };
  static int record(void *arg, int to, int from) {
    auto *self = static_cast<Recorder *>(arg);
    self->seen.push_back({to, from, now_s()});
    return self->result;
  }
  otrpc_state_hook node = {this, record, nullptr, nullptr};
  std::vector<Change> seen;
  int result = 0;
};

class Client : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(otrpc_init(), 0); }
  void TearDown() override { otrpc_fini(); }
  bool announced(size_t n) {
    return pump_until([&] { return agent_.with_method("register").size() >= n; }, 5);
  }
  int queue(int n) {
    json_object *m = otrpc_create_message("queued");
    json_object_object_add(m, "n", json_object_new_int(n));
    int id = otrpc_send(m);
    json_object_put(m);
    return id;
  }
  bool arrived_in_order(size_t n) {
    if (!pump_until([&] { return agent_.with_method("queued").size() == n; }, 5)) return false;
    for (size_t i = 0; i < n; ++i) EXPECT_EQ(jint(agent_.with_method("queued")[i].obj, "n"), int(i));
    return true;
  }

  Sandbox sb_;
  FakeAgent agent_{sb_.agent_port()};
  int calls_ = 0;
  Recorder rec_[3];  // outlive otrpc_fini, which walks the hook list
};

TEST_F(Client, ReconnectsAtOnceAndAnnouncesEveryMethodOncePerConnection) {
  rec_[1].result = 1;  // ends the walk: the third hook sees nothing
  for (Recorder &r : rec_) kelo::dlist::append(&otrpc_on_state_changed, &r.node);
  ASSERT_EQ(otrpc_register("a", count_call, &calls_, 0), 0);
  ASSERT_EQ(otrpc_register("b", count_call, &calls_, 0), 0);
  otrpc_start();
  std::vector<double> dropped;
  for (size_t conn = 1; conn <= 3; ++conn) {
    ASSERT_TRUE(announced(2 * conn));
    pump_for(0.1);  // a queued announcement would follow now
    if (conn == 3) break;
    dropped.push_back(now_s());
    agent_.close_connection();
  }
  otrpc_stop();
  auto regs = agent_.with_method("register");
  ASSERT_EQ(regs.size(), 6u);
  for (size_t i = 0; i < regs.size(); ++i) {
    EXPECT_EQ(jstr(regs[i].obj, "key"), i % 2 ? "b" : "a");
    EXPECT_EQ(regs[i].conn, int(i / 2 + 1));
    if (i >= 2) {
      EXPECT_NE(jint(regs[i].obj, "id"), jint(regs[i - 2].obj, "id"));
    }
  }
  // Each change follows on from the one before; a lost connection passes
  // IDLE and is made again at once, without the retry delay.
  const auto &seen = rec_[0].seen;
  std::vector<int> to;
  for (size_t i = 0; i < seen.size(); ++i) {
    EXPECT_EQ(seen[i].from, i > 0 ? seen[i - 1].to : OTCONN_IDLE);
    EXPECT_EQ(rec_[1].seen.at(i).to, seen[i].to);
    if (seen[i].to != OTCONN_CONNECTING) to.push_back(seen[i].to);
    if (seen[i].to == OTCONN_CONNECTED && to.size() > 1) {
      EXPECT_LT(seen[i].t - dropped.at(to.size() / 2 - 1), 0.9);
    }
  }
  EXPECT_EQ(to, (std::vector<int>{OTCONN_CONNECTED, OTCONN_IDLE, OTCONN_CONNECTED, OTCONN_IDLE,
                                  OTCONN_CONNECTED, OTCONN_IDLE}));
  EXPECT_TRUE(rec_[2].seen.empty());
}

TEST_F(Client, QueuesWithoutAgentRetriesOnceASecondAndStopsInEachState) {
  agent_.stop_listening();
  kelo::dlist::append(&otrpc_on_state_changed, &rec_[0].node);
  otrpc_start();
  int first = queue(0);
  for (int i = 1; i < 50; ++i) EXPECT_EQ(queue(i), first + i);
  pump_for(3.5);
  // Each failed attempt passes IDLE on its way to the wait, a second apart.
  const auto &seen = rec_[0].seen;
  std::vector<double> waits;
  for (size_t i = 1; i < seen.size(); ++i) {
    EXPECT_EQ(seen[i].from, seen[i - 1].to);
    if (seen[i].to != OTCONN_RETRY_WAIT) continue;
    EXPECT_EQ(seen[i].from, OTCONN_IDLE);
    waits.push_back(seen[i].t);
  }
  ASSERT_TRUE(waits.size() >= 2 && waits.size() <= 5) << waits.size();
  for (size_t i = 1; i < waits.size(); ++i) {
    EXPECT_GE(waits[i] - waits[i - 1], 0.95);
    EXPECT_LE(waits[i] - waits[i - 1], 2.0);  // a loaded machine may only make them later
  }
  agent_.start_listening();
  ASSERT_TRUE(arrived_in_order(50));
  // Stopped while waiting to retry: no connect happens afterwards.
  agent_.stop_listening();
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_RETRY_WAIT; }, 3));
  otrpc_stop();
  agent_.start_listening();
  pump_for(1.3);
  EXPECT_EQ(agent_.connections(), 1);
  // Stopped while connected: closed, not reconnected, the queue kept.
  EXPECT_EQ(otrpc_start(), 0);
  ASSERT_TRUE(pump_until([&] { return otconn_get_state() == OTCONN_CONNECTED; }, 3));
  otrpc_stop();
  EXPECT_GT(queue(50), 0);
  pump_for(1.3);
  EXPECT_EQ(agent_.connections(), 2);
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  otrpc_start();
  ASSERT_TRUE(arrived_in_order(51));
}

TEST_F(Client, APartlyWrittenTextContinuesOnTheNextConnection) {
  ASSERT_EQ(otrpc_register("m", count_call, &calls_, 0), 0);
  otrpc_start();
  ASSERT_TRUE(announced(1));
  // White space between tokens, so that the agent parses what follows its tail.
  const std::string big = R"({"method":"big",)" + std::string(16 << 20, ' ') + "}",
                    after = R"({"method":"after"})";
  agent_.set_reading(false);
  ASSERT_GT(kelo::otrpc::otsocket_enqueue(big.data(), big.size(), nullptr, nullptr), 0);
  ASSERT_GT(kelo::otrpc::otsocket_enqueue(after.data(), after.size(), nullptr, nullptr), 0);
  kelo::otrpc::otconn_wakeup();
  pump_for(0.2);
  ASSERT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 2);  // big is on its way
  agent_.close_connection();
  ASSERT_TRUE(pump_until([&] { return !agent_.with_method("after").empty(); }, 10));
  // On the new connection: the announcement ahead of the queue, then the
  // rest of big from where it stopped, then what was queued behind it.
  const std::string &raw = agent_.raw(2);
  size_t tail = raw.find(R"("key":"m"})") + 10, len = raw.size() - after.size() - tail;
  EXPECT_EQ(raw.substr(tail + len), after);
  EXPECT_TRUE(len > 0 && len < big.size()) << len;
  EXPECT_EQ(raw.compare(tail, len, big, big.size() - len, len), 0);
}

std::string req(const char *method, const char *id) {
  return std::string(R"({"method":")") + method + R"(","id":)" + id + "}";
}

TEST_F(Client, RepeatedRequestIdsGoUnansweredUntilThreeOthersPassed) {
  ASSERT_EQ(otrpc_register("m", count_call, &calls_, 0), 0);
  ASSERT_EQ(otrpc_register("dup", count_call, &calls_, OTRPC_METHOD_ALLOW_DUP), 0);
  otrpc_start();
  ASSERT_TRUE(announced(2));
  // The three remembered ids start as 2147483647; "dup" neither consults nor
  // feeds them; ids that are not integers are neither filtered nor remembered.
  const char *const sent[][2] = {
      {"m", "2147483647"}, {"dup", "2147483647"}, {"m", "1"}, {"m", "2"}, {"m", "3"},     {"m", "1"},
      {"dup", "1"},        {"dup", "1"},          {"m", "4"}, {"m", "1"}, {"m", "\"s\""}, {"m", "\"s\""}};
  for (const auto &s : sent) agent_.send_raw(req(s[0], s[1]));
  const std::vector<std::string> want = {"2147483647", "1", "2", "3", "1", "1", "4", "1", "\"s\"", "\"s\""};
  std::vector<std::string> got;
  ASSERT_TRUE(pump_until([&] { return agent_.received().size() == 2 + want.size(); }, 5));
  pump_for(0.1);
  for (const auto &r : agent_.received())
    if (jstr(r.obj, "method").empty())
      got.push_back(json_object_to_json_string_ext(json_object_object_get(r.obj, "id"), 0));
  EXPECT_EQ(got, want);
}

using CallLog = std::vector<std::string>;  // each reply's text, "null" for expiry

int on_return(void *arg, json_object *msg) {
  static_cast<CallLog *>(arg)->push_back(msg ? json_object_to_json_string_ext(msg, 0) : "null");
  return 0;
}

TEST_F(Client, CallsGetEveryReplyWithTheirIdOnceOrExpireAfterFiveSeconds) {
  otrpc_start();
  CallLog a, b, c;
  json_object *m = otrpc_create_message("agent.fn");
  EXPECT_GT(otrpc_call(m, on_return, &a), 0);
  kelo::otrpc::otmethod_register_return(jint(m, "id"), on_return, &b);
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("agent.fn").size() == 1; }, 3));
  std::string reply = R"({"id":)" + std::to_string(jint(agent_.with_method("agent.fn")[0].obj, "id")) + "}";
  ASSERT_TRUE(agent_.send_raw(reply + reply));
  ASSERT_TRUE(pump_until([&] { return b.size() == 1; }, 3));
  pump_for(0.05);
  EXPECT_EQ(a, CallLog{reply});
  EXPECT_EQ(b, CallLog{reply});
  // Unanswered calls expire at a later call once older than five seconds.
  otrpc_call(m, on_return, &a);
  kelo::otrpc::otmethod_age_returns_for_testing(5);
  otrpc_call(m, on_return, &b);
  EXPECT_EQ(a.size(), 1u);
  kelo::otrpc::otmethod_age_returns_for_testing(1);
  otrpc_call(m, on_return, &c);
  EXPECT_EQ(a, (CallLog{reply, "null"}));
  EXPECT_EQ(b.size(), 1u);
  EXPECT_EQ(kelo::otrpc::otmethod_pending_returns_for_testing(), 2);
  json_object_put(m);
}

TEST(ClientDeathTest, UnlinkingANodeThatIsNotLinkedAbortsNamingTheCaller) {
  otrpc_state_hook *head = nullptr, q = {};
  EXPECT_DEATH(KELO_DLIST_UNLINK(&head, &q, "(q)->prev != NULL"),
               "TestBody: Assertion `\\(q\\)->prev != NULL' failed");
}

}  // namespace
