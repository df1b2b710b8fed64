// The connection state machine: retry pace, stopping in each state, state
// hooks, and what survives a lost connection.
#include <ev.h>
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <memory>
#include <string>
#include <vector>

#include <csignal>

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

struct Recorder {
  otrpc_state_hook node = {};
  std::vector<Change> seen;
  int result = 0;
  explicit Recorder(int r = 0) : result(r) {
    node.arg = this;
    node.fn = [](void *arg, int to, int from) {
      auto *self = static_cast<Recorder *>(arg);
      self->seen.push_back({to, from, now_s()});
      return self->result;
    };
  }
  void link() {
    // The exported list: head's prev is the tail.
    node.next = nullptr;
    if (otrpc_on_state_changed == nullptr) {
      node.prev = &node;
      otrpc_on_state_changed = &node;
    } else {
      node.prev = otrpc_on_state_changed->prev;
      otrpc_on_state_changed->prev->next = &node;
      otrpc_on_state_changed->prev = &node;
    }
  }
  ~Recorder() {
    if (node.prev == nullptr) return;
    if (otrpc_on_state_changed == &node) {
      otrpc_on_state_changed = node.next;
      if (node.next) node.next->prev = node.prev;
    } else {
      node.prev->next = node.next;
      if (node.next)
        node.next->prev = node.prev;
      else
        otrpc_on_state_changed->prev = node.prev;
    }
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
};

TEST_F(Lifecycle, RetriesOnceASecondWithoutAgent) {
  Recorder rec;
  rec.link();
  double t0 = now_s();
  otrpc_start();
  pump_for(3.5);
  std::vector<double> waits;
  for (const auto &c : rec.seen)
    if (c.to == OTCONN_RETRY_WAIT) waits.push_back(c.t - t0);
  ASSERT_GE(waits.size(), 3u);
  ASSERT_LE(waits.size(), 5u);
  for (size_t i = 1; i < waits.size(); ++i) {
    EXPECT_GT(waits[i] - waits[i - 1], 0.9);
    EXPECT_LT(waits[i] - waits[i - 1], 1.3);
  }
  // Every attempt passes through IDLE on its way.
  for (size_t i = 1; i < rec.seen.size(); ++i) EXPECT_EQ(rec.seen[i].from, rec.seen[i - 1].to);
  for (const auto &c : rec.seen) {
    if (c.to == OTCONN_RETRY_WAIT) {
      EXPECT_EQ(c.from, OTCONN_IDLE);
    }
  }
}

TEST_F(Lifecycle, StopInRetryWaitCancelsTheTimer) {
  otrpc_start();
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_RETRY_WAIT; }, 3));
  otrpc_stop();
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  FakeAgent agent(sb_.agent_port());
  pump_for(1.5);
  EXPECT_EQ(agent.connections(), 0);
  EXPECT_EQ(otrpc_start(), 0);
  EXPECT_TRUE(pump_until([&] { return agent.connections() == 1; }, 3));
}

TEST_F(Lifecycle, StopWhileConnectedClosesWithoutReconnectAndKeepsTheQueue) {
  FakeAgent agent(sb_.agent_port());
  otrpc_start();
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_CONNECTED; }, 3));
  ASSERT_TRUE(pump_until([&] { return agent.connections() == 1; }, 3));
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

TEST_F(Lifecycle, StopWhileConnecting) {
  // A non-blocking connect on loopback reports even a refusal later: the
  // client is CONNECTING right after the start.
  FakeAgent agent(sb_.agent_port(), false);
  otrpc_start();
  if (otconn_get_state() != OTCONN_CONNECTING) GTEST_SKIP() << "connect did not stay pending";
  otrpc_stop();
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
  EXPECT_EQ(kelo::otrpc::otsocket_fd(), -1);
  pump_for(1.3);
  EXPECT_EQ(otconn_get_state(), OTCONN_IDLE);
}

TEST_F(Lifecycle, HooksRunInOrderAndANonZeroResultEndsTheWalk) {
  Recorder a, b(1), c;
  a.link();
  b.link();
  c.link();
  FakeAgent agent(sb_.agent_port());
  otrpc_start();
  ASSERT_TRUE(pump_until([] { return otconn_get_state() == OTCONN_CONNECTED; }, 3));
  agent.close_connection();
  ASSERT_TRUE(pump_until([&] { return a.count_to(OTCONN_CONNECTED) == 2; }, 3));
  otrpc_stop();
  EXPECT_TRUE(c.seen.empty());
  ASSERT_EQ(a.seen.size(), b.seen.size());
  // From idle: connecting (or at once connected), connected; lost: idle,
  // again; stop: idle.
  std::vector<int> path;
  for (const auto &ch : a.seen) path.push_back(ch.to);
  ASSERT_GE(path.size(), 4u);
  EXPECT_EQ(path.back(), OTCONN_IDLE);
  EXPECT_EQ(a.count_to(OTCONN_CONNECTED), 2);
  EXPECT_EQ(a.count_to(OTCONN_RETRY_WAIT), 0);
  for (size_t i = 0; i < a.seen.size(); ++i) {
    EXPECT_NE(a.seen[i].to, a.seen[i].from);
    EXPECT_EQ(a.seen[i].to, b.seen[i].to);
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

TEST_F(Lifecycle, BrokenInvariantsAbortWithTheirLogLines) {
  // Only reachable through a broken invariant: an io event while no socket is
  // watched, or a first event of a connect that is neither writable nor error.
  auto with_stderr_log = [] {
    setenv("KELO_LOG_FILE", "-", 1);
    kelo::log::init();
  };
  struct Case {
    int state, revents;
    const char *line;
  } cases[] = {
      {OTCONN_IDLE, EV_READ, "kelo_util: otrpc: Unexpected EV_WRITE event.\n"},
      {OTCONN_RETRY_WAIT, EV_WRITE, "kelo_util: otrpc: Unexpected EV_WRITE event.\n"},
      {OTCONN_CONNECTING, EV_READ, "kelo_util: otconn: the first socket event must be EV_WRITE or EV_ERROR."},
  };
  for (const Case &c : cases) {
    auto r = kelo::test::run_child([&] {
      with_stderr_log();
      kelo::otrpc::otconn_invoke_io_for_testing(c.state, 0, c.revents);
    });
    EXPECT_TRUE(r.signal == SIGABRT) << c.line;
    EXPECT_NE(r.err.find(c.line), std::string::npos) << r.err;
  }
}

}  // namespace
