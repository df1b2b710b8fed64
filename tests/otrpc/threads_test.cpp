// ctest-labels: threads
// Sending, registering and calling from several threads while the loop runs
// on the test's thread.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "common/dlist.h"
#include "kelo/otrpc.h"
#include "otrpc/otconn.h"
#include "otrpc/otsocket.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

namespace {

using namespace kelo::test;

json_object *message(const char *method, int t, int n) {
  json_object *m = otrpc_create_message(method);
  json_object_object_add(m, "t", json_object_new_int(t));
  json_object_object_add(m, "n", json_object_new_int(n));
  return m;
}

int answer(void *, json_object *, json_object *) { return 0; }

// Send completions run on the loop thread and call into the registry.
void call_when_written(void *) {
  json_object *m = message("agent.after", 0, 0);
  otrpc_call(m, nullptr, nullptr);
  json_object_put(m);
}

class Threads : public ::testing::Test {
 protected:
  void SetUp() override {
    alarm(60);  // a deadlock fails the test instead of hanging it
    ASSERT_EQ(otrpc_init(), 0);
    otrpc_start();
  }
  void TearDown() override {
    stop_ = true;
    for (auto &t : threads_) t.join();
    otrpc_fini();
    alarm(0);
  }
  Sandbox sb_;
  FakeAgent agent_{sb_.agent_port()};
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

TEST_F(Threads, SendersCallersAndRegistrationsWhileTheLoopRuns) {
  constexpr int kThreads = 4, kEach = 500, kCalls = 200;
  std::atomic<int> failures{0}, replies{0};
  for (int t = 0; t < kThreads; ++t)
    threads_.emplace_back([t, &failures] {
      for (int n = 0; n < kEach; ++n) {
        json_object *m = message("load", t, n);
        // Some bulk, so that writes would block now and then.
        json_object_object_add(m, "pad", json_object_new_string(std::string(200 + n % 300, 'p').c_str()));
        failures += otrpc_send(m) <= 0;
        json_object_put(m);
      }
    });
  threads_.emplace_back([&] {
    for (int i = 0; i < kCalls; ++i) {
      json_object *m = message("agent.ping", 0, i);
      failures += otrpc_call(
                      m, [](void *arg, json_object *) { return ++*static_cast<std::atomic<int> *>(arg), 0; },
                      &replies) <= 0;
      json_object_put(m);
    }
  });
  // Registry lock, then queue lock (a queued announcement is cancelled) ...
  threads_.emplace_back([&] {
    for (int i = 0; !stop_; ++i) {
      std::string name = "m" + std::to_string(i % 8);
      otrpc_register(name.c_str(), answer, nullptr, 0);
      otrpc_unregister(name.c_str());
    }
  });
  // ... while the loop flushes, calling from the completions.
  for (int i = 0; i < 2000; ++i) {
    json_object *m = message("sent", 0, i);
    otrpc_send_cb(m, call_when_written, nullptr);
    json_object_put(m);
    if (i % 10 == 0) pump_for(0.001);
  }
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("agent.ping").size() == kCalls; }, 30));
  for (const auto &r : agent_.with_method("agent.ping"))
    agent_.send_raw(R"({"id":)" + std::to_string(jint(r.obj, "id")) + "}");
  EXPECT_TRUE(pump_until([&] { return replies == kCalls; }, 5)) << replies.load();
  EXPECT_TRUE(pump_until([&] { return agent_.with_method("agent.after").size() == 2000; }, 30));
  EXPECT_TRUE(pump_until([&] { return agent_.with_method("load").size() == kThreads * kEach; }, 30));
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(agent_.parse_errors(), 0);
  // All arrive whole and once, each thread's in order.
  std::vector<long long> next(kThreads, 0);
  for (const auto &r : agent_.with_method("load")) {
    long long t = jint(r.obj, "t");
    ASSERT_TRUE(t >= 0 && t < kThreads) << r.text;
    EXPECT_EQ(jint(r.obj, "n"), next[t]++);
  }
  EXPECT_EQ(next, std::vector<long long>(kThreads, kEach));
}

// State hooks must run on the loop thread whatever thread saw the failure.
pthread_t g_loop_thread;
std::atomic<int> g_foreign_hooks{0};
int note_thread(void *, int, int) {
  return g_foreign_hooks += !pthread_equal(pthread_self(), g_loop_thread), 0;
}

int immediate(int n) {
  json_object *m = message("imm", 0, n);
  int r = otrpc_send_immediate(m);
  json_object_put(m);
  return r;
}

TEST_F(Threads, ImmediateSendsFromAWorkerLeaveTheCloseToTheLoop) {
  g_loop_thread = pthread_self();
  static otrpc_state_hook hook = {nullptr, note_thread, nullptr, nullptr};
  kelo::dlist::append(&otrpc_on_state_changed, &hook);
  auto connected = [&](int n) {
    return pump_until(
        [&] { return agent_.connections() == n && kelo::otrpc::otconn_get_state() == OTCONN_CONNECTED; }, 5);
  };
  ASSERT_TRUE(connected(1));
  // The peer is gone and the loop does not turn: the worker's send fails.
  agent_.close_connection();
  int r = 0, queued = kelo::otrpc::otsocket_queue_length_for_testing();
  std::thread([&] {
    for (int i = 0; i < 200 && (r = immediate(i)) == 0; ++i) usleep(1000);
  }).join();
  EXPECT_EQ(r, -1);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), queued);  // nothing kept
  ASSERT_TRUE(connected(2));
  // Sending on while the loop turns and the agent drops the connection.
  threads_.emplace_back([&] {
    for (int i = 1000; !stop_; ++i) immediate(i);
  });
  for (int conn = 3; conn <= 4; ++conn) {
    pump_for(0.02);
    agent_.close_connection();
    ASSERT_TRUE(connected(conn));
  }
  stop_ = true;
  threads_[0].join();
  threads_.clear();
  std::thread([&] { r = immediate(-1); }).join();
  EXPECT_EQ(r, 0);
  EXPECT_TRUE(pump_until([&] { return jint(agent_.received().back().obj, "n") == -1; }, 5));
  EXPECT_EQ(g_foreign_hooks.load(), 0);
}

}  // namespace
