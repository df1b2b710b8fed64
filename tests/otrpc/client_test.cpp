// The client end to end against an agent on loopback: announcement, requests
// and replies, notifications, calls, the stream reader, reconnection and the
// connection states.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <string>
#include <vector>

#include "common/dlist.h"
#include "kelo/app.h"
#include "kelo/otrpc.h"
#include "log/log_internal.h"
#include "otrpc/otconn.h"
#include "otrpc/otmethod.h"
#include "otrpc/otsocket.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

namespace {

using kelo::otrpc::otconn_get_state;
using namespace kelo::test;

struct Calls {
  int n = 0, with_reply = 0;
  std::string last_params;
  size_t longest = 0;           // of the params texts
  json_object *kept = nullptr;  // the reply object of a request answered later
};

// Returns the "code" member of params (0 without one).
int handler_code(void *arg, json_object *params, json_object *reply) {
  auto *c = static_cast<Calls *>(arg);
  c->n++;
  c->with_reply += reply != nullptr;
  c->last_params = json_object_to_json_string_ext(params, 0);
  c->longest = std::max(c->longest, c->last_params.size());
  long long v = jint(params, "code");
  if (v == LLONG_MIN) return 0;
  if (v == OTRPC_RET_SEND_REPLY) json_object_object_add(reply, "result", json_object_new_string("filled"));
  if (v == OTRPC_RET_NO_REPLY) c->kept = json_object_get(reply);
  return static_cast<int>(v);
}

// A state hook that records what it sees.
struct Recorder {
  struct Change {
    int to, from;
    double t;
  };
  static int record(void *arg, int to, int from) {
    static_cast<Recorder *>(arg)->seen.push_back({to, from, now_s()});
    return static_cast<Recorder *>(arg)->result;
  }
  otrpc_state_hook node = {this, record, nullptr, nullptr};
  std::vector<Change> seen;
  int result = 0;
  int count_to(int state) const {
    return int(std::count_if(seen.begin(), seen.end(), [&](const Change &c) { return c.to == state; }));
  }
};

class Client : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(otrpc_init(), 0); }
  void TearDown() override { otrpc_fini(); }

  // Registers "echo" and "other" (which lets repeated ids through), starts,
  // waits for all announcements.
  void start_with_methods(size_t announced = 2) {
    ASSERT_EQ(otrpc_register("echo", handler_code, &calls_, 0), 0);
    ASSERT_EQ(otrpc_register("other", handler_code, &other_, OTRPC_METHOD_ALLOW_DUP), 0);
    otrpc_start();
    ASSERT_TRUE(pump_until([&] { return agent_.with_method("register").size() >= announced; }, 5));
  }

  // Sends text; returns the next reply (object without "method") the agent
  // receives, "" when none comes.
  std::string exchange(const std::string &text) {
    size_t n = agent_.received().size();
    EXPECT_TRUE(agent_.send_raw(text));
    std::string got;
    pump_until(
        [&] {
          for (size_t i = n; i < agent_.received().size() && got.empty(); ++i)
            if (jstr(agent_.received()[i].obj, "method").empty()) got = agent_.received()[i].text;
          return !got.empty();
        },
        5);
    return got;
  }

  Sandbox sb_;
  FakeAgent agent_{sb_.agent_port()};
  Calls calls_, other_;
  Recorder rec_[3];  // outlive otrpc_fini, which walks the hook list
};

std::string req(const char *method, long long id, const std::string &rest = "") {
  return std::string(R"({"method":")") + method + R"(","id":)" + std::to_string(id) + rest + "}";
}
std::string ok(long long id) { return R"({"id":)" + std::to_string(id) + R"(,"result":["OK"]})"; }

TEST_F(Client, ReconnectsAtOnceAfterTheAgentClosesAndAnnouncesAgain) {
  rec_[1].result = 1;  // ends the walk: the third hook sees nothing
  for (Recorder &r : rec_) kelo::dlist::append(&otrpc_on_state_changed, &r.node);
  start_with_methods();
  // The queued announcements were cancelled in favour of the immediate ones:
  // each method exactly once per connection, with new ids on the next one.
  pump_for(0.2);
  EXPECT_EQ(otconn_get_state(), OTCONN_CONNECTED);
  agent_.close_connection();
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("register").size() >= 4; }, 3));
  pump_for(0.2);
  otrpc_stop();
  auto all = agent_.with_method("register");
  ASSERT_EQ(all.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(jstr(all[i].obj, "key"), i % 2 ? "other" : "echo");
    EXPECT_EQ(all[i].conn, i < 2 ? 1 : 2);
  }
  EXPECT_NE(jint(all[2].obj, "id"), jint(all[0].obj, "id"));
  EXPECT_NE(jint(all[3].obj, "id"), jint(all[1].obj, "id"));
  EXPECT_LT(all[2].t - all[1].t, 0.9);  // not after the retry delay
  // The hooks saw, in order: from idle, connecting (or at once connected),
  // connected; lost: idle, again; stopped: idle.
  const auto &a = rec_[0].seen;
  ASSERT_EQ(rec_[0].count_to(OTCONN_CONNECTED), 2);
  EXPECT_EQ(rec_[0].count_to(OTCONN_RETRY_WAIT), 0);
  EXPECT_EQ(a.back().to, OTCONN_IDLE);
  ASSERT_EQ(a.size(), rec_[1].seen.size());
  EXPECT_TRUE(rec_[2].seen.empty());
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_EQ(a[i].from, i > 0 ? a[i - 1].to : OTCONN_IDLE);
    EXPECT_EQ(a[i].to, rec_[1].seen[i].to);
  }
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
    EXPECT_EQ(exchange(req("echo", id, R"(,"params":)" + std::string(c.params))),
              R"({"id":)" + sid + "," + c.reply + "}");
  }
  EXPECT_EQ(calls_.with_reply, 5);
  // OTRPC_RET_NO_REPLY: nothing goes out until the handler replies itself.
  ASSERT_TRUE(agent_.send_raw(req("echo", 41, R"(,"params":{"code":2147483646})")));
  ASSERT_TRUE(pump_until([&] { return calls_.kept != nullptr; }, 3));
  pump_for(0.1);
  EXPECT_EQ(agent_.reply_for(41), nullptr);
  otrpc_reply_ok(calls_.kept);
  json_object_put(calls_.kept);
  EXPECT_TRUE(pump_until([&] { return agent_.reply_for(41) != nullptr; }, 3));
}

TEST_F(Client, UnknownMethodsAndRepeatedIdsGoUnanswered) {
  start_with_methods();
  // The filter of the last three ids starts full of 2147483647; a method
  // flagged to allow repeats neither consults nor feeds it. A request that
  // goes unanswered shows as the next reply being another's.
  EXPECT_EQ(exchange(req("other", 2147483647)), ok(2147483647));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(exchange(req("other", 9)), ok(9));
  agent_.send_raw(req("echo", 2147483647));
  agent_.send_raw(req("nosuch", 5));
  EXPECT_EQ(exchange(req("echo", 1)), ok(1));
  // 1 is among the last three: dropped; after three others it passes again.
  agent_.send_raw(req("echo", 1, R"(,"params":{"code":3})"));
  EXPECT_EQ(exchange(req("echo", 2)), ok(2));
  EXPECT_EQ(calls_.n, 2);
  EXPECT_EQ(exchange(req("echo", 3)), ok(3));
  EXPECT_EQ(exchange(req("echo", 9)), ok(9));
  EXPECT_EQ(exchange(req("echo", 1, R"(,"params":{"code":3})")), R"({"id":1,"error":{"code":3}})");
  // A string id is neither filtered nor remembered.
  EXPECT_EQ(exchange(R"({"method":"echo","id":"s"})"), R"({"id":"s","result":["OK"]})");
  EXPECT_EQ(exchange(R"({"method":"echo","id":"s"})"), R"({"id":"s","result":["OK"]})");
}

TEST_F(Client, NotificationsAndTheNoNotifyFlag) {
  Calls quiet;
  ASSERT_EQ(otrpc_register("quiet", handler_code, &quiet, OTRPC_METHOD_NO_NOTIFY), 0);
  start_with_methods(3);
  // A notification runs the handler without a reply object; nothing is sent
  // (the next reply is the request's).
  agent_.send_raw(R"({"method":"echo","params":{"code":5}})");
  agent_.send_raw(R"({"method":"quiet"})");
  EXPECT_EQ(exchange(req("echo", 77, R"(,"params":{"a":1})")), ok(77));
  EXPECT_EQ(calls_.n, 2);
  EXPECT_EQ(calls_.with_reply, 1);
  EXPECT_EQ(quiet.n, 0);
  EXPECT_EQ(calls_.last_params, R"({"a":1})");
  // Without "params" the handler gets the whole request.
  EXPECT_EQ(exchange(req("echo", 78)), ok(78));
  EXPECT_EQ(calls_.last_params, req("echo", 78));
}

TEST_F(Client, UnregisterWithdrawsTheNewestOfTheNameIfAnnounced) {
  Calls older;
  ASSERT_EQ(otrpc_register("other", handler_code, &older, 0), 0);
  start_with_methods(3);
  EXPECT_EQ(exchange(req("other", 1)), ok(1));
  EXPECT_EQ(other_.n, 1);  // the newer answers
  otrpc_unregister("other");
  otrpc_unregister("nosuch");
  EXPECT_EQ(exchange(req("other", 2)), ok(2));
  otrpc_unregister("other");
  otrpc_unregister("echo");
  // Registered and unregistered while its "register" still waits in the
  // queue: neither goes out.
  ASSERT_EQ(otrpc_register("brief", handler_code, &calls_, 0), 0);
  otrpc_unregister("brief");
  agent_.send_raw(req("other", 3));
  pump_for(0.2);
  std::vector<std::string> gone;
  for (const auto &r : agent_.with_method("unregister")) gone.push_back(jstr(r.obj, "key"));
  EXPECT_EQ(gone, (std::vector<std::string>{"other", "other", "echo"}));
  EXPECT_EQ(agent_.with_method("register").size(), 3u);
  EXPECT_EQ(agent_.reply_for(3), nullptr);
  EXPECT_EQ(older.n, 1);
}

TEST_F(Client, RegistersTheApplicationTableUpToItsFirstEntryWithoutHandler) {
  otrpc_fini();
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
  pump_for(0.3);
  auto regs = agent_.with_method("register");
  ASSERT_EQ(regs.size(), 2u);
  EXPECT_EQ(jstr(regs[0].obj, "key"), "a");
  EXPECT_EQ(jstr(regs[1].obj, "key"), "b");
  app_current = nullptr;
}

using CallLog = std::vector<std::string>;  // text of each reply, "null" for expiry

int on_return(void *arg, json_object *msg) {
  static_cast<CallLog *>(arg)->push_back(msg ? json_object_to_json_string_ext(msg, 0) : "null");
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
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("agent.fn").size() == 2; }, 3));
  // The wire carries the call's own id (replacing the message's).
  EXPECT_EQ(std::to_string(jint(agent_.with_method("agent.fn")[0].obj, "id")), id1);
  std::string r1 = R"({"id":)" + id1 + R"(,"result":[1]})",
              r2 = R"({"id":)" + id2 + R"(,"error":{"code":-1}})";
  agent_.send_raw(r2 + r1 + r1 + R"({"id":12345678901})" + ok(4242));
  ASSERT_TRUE(pump_until([&] { return d.size() == 1; }, 3));
  pump_for(0.1);
  EXPECT_EQ(a, CallLog{r1});  // the second copy found nothing
  EXPECT_EQ(b, CallLog{r2});
  EXPECT_EQ(c, CallLog{ok(4242)});
  EXPECT_EQ(kelo::otrpc::otmethod_pending_returns_for_testing(), 0);
}

TEST_F(Client, CallsExpireAtTheNextCallAfterMoreThanFiveSeconds) {
  CallLog a, b, c;
  json_object *m = otrpc_create_message("x");
  otrpc_call(m, on_return, &a);
  otrpc_call(m, on_return, &b);
  kelo::otrpc::otmethod_age_returns_for_testing(5);  // exactly 5 s: kept
  otrpc_call(m, on_return, &c);
  EXPECT_TRUE(a.empty());
  kelo::otrpc::otmethod_age_returns_for_testing(1);  // a, b: 6 s; c: 1 s
  otrpc_call(m, on_return, &c);
  EXPECT_EQ(a, CallLog{"null"});
  EXPECT_EQ(b, CallLog{"null"});
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(kelo::otrpc::otmethod_pending_returns_for_testing(), 2);
  json_object_put(m);
}

TEST_F(Client, OddInputIsSkippedAndTheNextRequestAnswered) {
  start_with_methods();
  std::string burst, big(100 * 1024, 'z');
  for (int i = 0; i < 3000; ++i) burst += R"({"id":1}{"method":"echo"})";
  struct Case {
    const char *name;
    std::string bytes;
    int handler_runs;  // requests among the bytes that must reach the handler
    bool singly = false;
  } cases[] = {
      {"back to back", req("echo", 1) + req("echo", 2), 2},
      {"white space between", req("echo", 3) + "\n \t" + req("echo", 4) + "\r\n", 2},
      {"NUL runs between", req("echo", 5) + std::string(3, '\0') + req("echo", 6) + std::string(1, '\0'), 2},
      {"split into single bytes", req("echo", 7, R"(,"params":{"a":[1,2,"x"]})"), 1, true},
      {"top-level values", R"([1,2,{"method":"echo"}] "str" 12 true null )" + req("echo", 8), 1},
      {"garbage", "@@@ not json ### ]]] ::: ,,, \n", 0},
      {"garbage then request", "xx}" + req("echo", 9), 1},
      {"nesting beyond 16",
       std::string(17, '[') + std::string(17, ']') + R"({"a":)" + std::string(16, '[') +
           std::string(16, ']') + "}",
       0},
      {"nested 15 deep", req("echo", 10, R"(,"params":)" + std::string(14, '[') + std::string(14, ']')), 1},
      {"NUL inside an object", std::string("{\"method\":\"echo\",\0", 18) + req("echo", 11), 1},
      {"bad escapes and numbers", R"({"a":\x} {"b":01} {"c":-} {"d":1e} )" + req("echo", 12), 1},
      // A stray quote opens a string that swallows what follows up to the
      // next quote; the stream comes back in step after it.
      {"stray quote", "\" " + req("echo", 13) + " \"", 0},
      // More than the receive buffer holds: compacted while objects are handed out.
      {"many small objects in one write", burst, 3000},
      {"100 KB objects",
       req("echo", 14, R"(,"params":{"blob":")" + big + R"("})") + R"({"x":")" + big + R"("})", 1},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    int probe = 1000 + int(&c - cases);
    calls_.n = 0;
    ASSERT_TRUE(agent_.send_raw(c.bytes, c.singly));
    ASSERT_TRUE(agent_.send_raw(req("echo", probe)));
    EXPECT_TRUE(pump_until([&] { return agent_.reply_for(probe) != nullptr; }, 5));
    EXPECT_EQ(agent_.connections(), 1);
    EXPECT_EQ(calls_.n, c.handler_runs + 1);
  }
  EXPECT_EQ(calls_.longest, big.size() + 11);
  // The tokener keeps its state across connections: the head of a request cut
  // off by a disconnect is completed by the next connection's bytes.
  ASSERT_TRUE(agent_.send_raw(R"({"method":"echo",)"));
  pump_for(0.1);
  agent_.close_connection();
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("register").size() == 4; }, 5));
  EXPECT_EQ(exchange(R"("id":60})"), ok(60));
}

TEST_F(Client, QueuesWithoutAgentRetriesOnceASecondAndStopsInEachState) {
  agent_.stop_listening();
  kelo::dlist::append(&otrpc_on_state_changed, &rec_[0].node);
  // A non-blocking connect on loopback reports even a refusal later: the
  // client is usually CONNECTING right after the start.
  otrpc_start();
  if (otconn_get_state() == OTCONN_CONNECTING) {
    otrpc_stop();
    EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
    EXPECT_EQ(kelo::otrpc::otsocket_fd(), -1);
    otrpc_start();
  }
  auto queue = [](int n) {
    json_object *m = otrpc_create_message("queued");
    json_object_object_add(m, "n", json_object_new_int(n));
    int id = otrpc_send(m);
    json_object_put(m);
    return id;
  };
  int first = queue(0);
  for (int i = 1; i < 50; ++i) EXPECT_EQ(queue(i), first + i);
  pump_for(3.5);
  // Every attempt passes through IDLE on its way to the wait, a second apart.
  const auto &seen = rec_[0].seen;
  std::vector<double> waits;
  for (size_t i = 1; i < seen.size(); ++i) {
    EXPECT_EQ(seen[i].from, seen[i - 1].to);
    EXPECT_TRUE(seen[i].to != OTCONN_RETRY_WAIT || seen[i].from == OTCONN_IDLE);
    if (seen[i].to == OTCONN_RETRY_WAIT) waits.push_back(seen[i].t);
  }
  // A second apart, never sooner; a loaded machine may only make them later.
  ASSERT_TRUE(waits.size() >= 2 && waits.size() <= 5) << waits.size();
  for (size_t i = 1; i < waits.size(); ++i) {
    EXPECT_GE(waits[i] - waits[i - 1], 0.95);
    EXPECT_LE(waits[i] - waits[i - 1], 2.0);
  }
  // Once the agent listens, what was queued goes out in order.
  agent_.start_listening();
  auto in_order = [&](size_t n) {
    if (!pump_until([&] { return agent_.with_method("queued").size() == n; }, 5)) return false;
    for (size_t i = 0; i < n; ++i) EXPECT_EQ(jint(agent_.with_method("queued")[i].obj, "n"), int(i));
    return true;
  };
  ASSERT_TRUE(in_order(50));
  // Stopped in the retry wait, the timer is cancelled: nothing connects later.
  agent_.stop_listening();
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_RETRY_WAIT; }, 3));
  otrpc_stop();
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  agent_.start_listening();
  pump_for(1.3);
  EXPECT_EQ(agent_.connections(), 1);
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  // Stopped when connected, it closes without reconnecting and keeps the queue.
  EXPECT_EQ(otrpc_start(), 0);
  ASSERT_TRUE(
      pump_until([&] { return otconn_get_state() == OTCONN_CONNECTED && agent_.connections() == 2; }, 3));
  otrpc_stop();
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  EXPECT_GT(queue(50), 0);
  pump_for(1.3);
  EXPECT_EQ(agent_.connections(), 2);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 1);
  otrpc_stop();  // stopping when idle does nothing
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  otrpc_start();
  ASSERT_TRUE(in_order(51));
  EXPECT_EQ(agent_.connections(), 3);
  // A second start while connected drops the connection and retries after the delay.
  double t0 = now_s();
  EXPECT_EQ(otrpc_start(), -1);
  EXPECT_EQ(otconn_get_state(), OTCONN_RETRY_WAIT);
  ASSERT_TRUE(pump_until([&] { return agent_.connections() == 4; }, 3));
  EXPECT_GT(now_s() - t0, 0.9);
}

TEST(ClientAbort, BrokenInvariantsAbortWithTheirTexts) {
  // Only reachable through a broken invariant: an io event while no socket is
  // watched, a first event of a connect that is neither writable nor error,
  // unlinking a list node that is not linked.
  struct Case {
    int state, revents;
    const char *text;
  } cases[] = {
      {OTCONN_IDLE, EV_READ, "kelo_util: otrpc: Unexpected EV_WRITE event.\n"},
      {OTCONN_RETRY_WAIT, EV_WRITE, "kelo_util: otrpc: Unexpected EV_WRITE event.\n"},
      {OTCONN_CONNECTING, EV_READ, "kelo_util: otconn: the first socket event must be EV_WRITE or EV_ERROR."},
      {-1, 0, "Assertion `(q)->prev != NULL' failed."},
  };
  Sandbox sb;
  for (const Case &c : cases) {
    auto r = run_child([&] {
      setenv("KELO_LOG_FILE", "-", 1);
      kelo::log::init();
      if (c.state >= 0) kelo::otrpc::otconn_invoke_io_for_testing(c.state, 0, c.revents);
      otrpc_state_hook *head = nullptr, q = {};
      KELO_DLIST_UNLINK(&head, &q, "(q)->prev != NULL");
    });
    EXPECT_EQ(r.signal, SIGABRT) << c.text;
    EXPECT_NE(r.err.find(c.text), std::string::npos) << r.err;
  }
}

}  // namespace
