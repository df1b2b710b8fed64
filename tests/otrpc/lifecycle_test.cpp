// The connection state machine: retry pace, stopping in each state, state
// hooks, and the aborts on broken invariants.
#include <ev.h>
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <csignal>
#include <string>
#include <vector>

#include "common/dlist.h"
#include "kelo/otrpc.h"
#include "log/log_internal.h"
#include "otrpc/otconn.h"
#include "otrpc/otsocket.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

using kelo::otrpc::otconn_get_state;
using kelo::test::FakeAgent;
using kelo::test::now_s;
using kelo::test::pump_for;
using kelo::test::pump_until;

namespace {

struct Change {
  int to, from;
  double t;
};

// A state hook appended to the exported list that records what it sees.
struct Recorder {
  otrpc_state_hook node = {};
  std::vector<Change> seen;
  int result = 0;
  void link(int r = 0) {
    result = r;
    node.arg = this;
    node.fn = [](void *arg, int to, int from) {
      auto *self = static_cast<Recorder *>(arg);
      self->seen.push_back({to, from, now_s()});
      return self->result;
    };
    kelo::dlist::append(&otrpc_on_state_changed, &node);
  }
  int count_to(int state) const {
    int n = 0;
    for (const auto &c : seen) n += c.to == state;
    return n;
  }
};

class Lifecycle : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(otrpc_init(), 0); }
  void TearDown() override { otrpc_fini(); }
  kelo::test::Sandbox sb_;
  Recorder rec_[3];  // outlive otrpc_fini, which walks the list
};

TEST_F(Lifecycle, RetriesOnceASecondWithoutAgent) {
  rec_[0].link();
  otrpc_start();
  pump_for(3.5);
  std::vector<double> waits;
  for (const auto &c : rec_[0].seen)
    if (c.to == OTCONN_RETRY_WAIT) waits.push_back(c.t);
  ASSERT_GE(waits.size(), 3u);
  ASSERT_LE(waits.size(), 5u);
  for (size_t i = 1; i < waits.size(); ++i) {
    EXPECT_GT(waits[i] - waits[i - 1], 0.9);
    EXPECT_LT(waits[i] - waits[i - 1], 1.3);
  }
  // Every attempt passes through IDLE on its way to the wait.
  for (size_t i = 1; i < rec_[0].seen.size(); ++i) EXPECT_EQ(rec_[0].seen[i].from, rec_[0].seen[i - 1].to);
  for (const auto &c : rec_[0].seen) EXPECT_TRUE(c.to != OTCONN_RETRY_WAIT || c.from == OTCONN_IDLE);
}

TEST_F(Lifecycle, StopInEachState) {
  // A non-blocking connect on loopback reports even a refusal later: the
  // client is usually CONNECTING right after the start.
  otrpc_start();
  if (otconn_get_state() == OTCONN_CONNECTING) {
    otrpc_stop();
    EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
    EXPECT_EQ(kelo::otrpc::otsocket_fd(), -1);
    otrpc_start();
  }
  // In the retry wait the timer is cancelled: nothing connects later.
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_RETRY_WAIT; }, 3));
  otrpc_stop();
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  FakeAgent agent(sb_.agent_port());
  pump_for(1.3);
  EXPECT_EQ(agent.connections(), 0);
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  // Connected: closes without reconnecting, and the queue is kept.
  EXPECT_EQ(otrpc_start(), 0);
  ASSERT_TRUE(
      pump_until([&] { return otconn_get_state() == OTCONN_CONNECTED && agent.connections() == 1; }, 3));
  otrpc_stop();
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  json_object *m = otrpc_create_message("kept");
  EXPECT_GT(otrpc_send(m), 0);
  json_object_put(m);
  pump_for(1.3);
  EXPECT_EQ(agent.connections(), 1);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 1);
  otrpc_stop();  // stopping when idle does nothing
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  otrpc_start();
  ASSERT_TRUE(pump_until([&] { return agent.with_method("kept").size() == 1; }, 3));
  EXPECT_EQ(agent.connections(), 2);
}

TEST_F(Lifecycle, HooksRunInOrderAndANonZeroResultEndsTheWalk) {
  rec_[0].link();
  rec_[1].link(1);
  rec_[2].link();
  FakeAgent agent(sb_.agent_port());
  otrpc_start();
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_CONNECTED; }, 3));
  agent.close_connection();
  ASSERT_TRUE(pump_until([&] { return rec_[0].count_to(OTCONN_CONNECTED) == 2; }, 3));
  otrpc_stop();
  // From idle: connecting (or at once connected), connected; lost: idle,
  // again (at once, no retry wait); stop: idle.
  const auto &a = rec_[0].seen;
  EXPECT_TRUE(rec_[2].seen.empty());
  ASSERT_EQ(a.size(), rec_[1].seen.size());
  ASSERT_GE(a.size(), 4u);
  EXPECT_EQ(a.back().to, OTCONN_IDLE);
  EXPECT_EQ(rec_[0].count_to(OTCONN_RETRY_WAIT), 0);
  for (size_t i = 0; i < a.size(); ++i) {
    EXPECT_NE(a[i].to, a[i].from);
    EXPECT_EQ(a[i].to, rec_[1].seen[i].to);
  }
}

TEST_F(Lifecycle, SecondStartWhileOpenDropsAndRetriesAfterTheDelay) {
  FakeAgent agent(sb_.agent_port());
  otrpc_start();
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_CONNECTED; }, 3));
  EXPECT_EQ(otrpc_start(), -1);
  EXPECT_EQ(otconn_get_state(), OTCONN_RETRY_WAIT);
  double t0 = now_s();
  ASSERT_TRUE(pump_until([&] { return agent.connections() == 2; }, 3));
  EXPECT_GT(now_s() - t0, 0.9);
}

TEST_F(Lifecycle, BrokenInvariantsAbortWithTheirTexts) {
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
  for (const Case &c : cases) {
    auto r = kelo::test::run_child([&] {
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
