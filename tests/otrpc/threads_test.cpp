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

int answer(void *, json_object *, json_object *) { return 0; }

int on_reply(void *arg, json_object *) {
  ++*static_cast<std::atomic<int> *>(arg);
  return 0;
}

TEST(Threads, SendersCallersAndRegistrationsWhileTheLoopRuns) {
  setenv("KELO_LOG_LEVEL", "info", 1);
  Sandbox sb;
  FakeAgent agent(sb.agent_port());
  ASSERT_EQ(otrpc_init(), 0);
  ASSERT_EQ(otrpc_register("stay", answer, nullptr, OTRPC_METHOD_ALLOW_DUP), 0);
  otrpc_start();
  constexpr int kThreads = 4, kEach = 500, kCalls = 200;
  std::atomic<int> failures{0}, replies{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &failures] {
      for (int n = 0; n < kEach; ++n) {
        json_object *m = otrpc_create_message("load");
        json_object_object_add(m, "t", json_object_new_int(t));
        json_object_object_add(m, "n", json_object_new_int(n));
        // Some bulk, so that writes would block now and then.
        json_object_object_add(m, "pad", json_object_new_string(std::string(200 + n % 300, 'p').c_str()));
        failures += otrpc_send(m) <= 0;
        json_object_put(m);
      }
    });
  threads.emplace_back([&] {
    for (int i = 0; i < kCalls; ++i) {
      json_object *m = otrpc_create_message("agent.ping");
      failures += otrpc_call(m, on_reply, &replies) <= 0;
      json_object_put(m);
    }
  });
  threads.emplace_back([&] {
    for (int i = 0; !stop; ++i) {
      std::string name = "m" + std::to_string(i % 8);
      otrpc_register(name.c_str(), answer, nullptr, 0);
      otrpc_unregister(name.c_str());
    }
  });
  for (int i = 0; i < 50; ++i) {
    agent.send_raw(R"({"method":"stay","id":)" + std::to_string(i) + "}");
    pump_for(0.005);
  }
  ASSERT_TRUE(pump_until([&] { return agent.with_method("agent.ping").size() == kCalls; }, 30));
  for (const auto &r : agent.with_method("agent.ping"))
    agent.send_raw(R"({"id":)" + std::to_string(jint(r.obj, "id")) + R"(,"result":["OK"]})");
  EXPECT_TRUE(pump_until([&] { return replies == kCalls; }, 5)) << replies.load();
  EXPECT_TRUE(pump_until([&] { return agent.with_method("load").size() == kThreads * kEach; }, 30));
  stop = true;
  for (auto &t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(agent.parse_errors(), 0);
  // All arrive whole and once, each thread's in order.
  std::vector<long long> next(kThreads, 0);
  for (const auto &r : agent.with_method("load")) {
    long long t = jint(r.obj, "t");
    ASSERT_TRUE(t >= 0 && t < kThreads) << r.text;
    EXPECT_EQ(jint(r.obj, "n"), next[t]++);
  }
  EXPECT_EQ(next, std::vector<long long>(kThreads, kEach));
  otrpc_fini();
}

// State hooks must run on the loop thread whatever thread saw the failure.
pthread_t g_loop_thread;
std::atomic<int> g_foreign_hooks{0};
int note_thread(void *, int, int) {
  g_foreign_hooks += !pthread_equal(pthread_self(), g_loop_thread);
  return 0;
}

int immediate(int n) {
  json_object *m = otrpc_create_message("imm");
  json_object_object_add(m, "n", json_object_new_int(n));
  int r = otrpc_send_immediate(m);
  json_object_put(m);
  return r;
}

TEST(Threads, ImmediateSendsFromAWorkerLeaveTheCloseToTheLoop) {
  Sandbox sb;
  FakeAgent agent(sb.agent_port());
  g_loop_thread = pthread_self();
  static otrpc_state_hook hook = {nullptr, note_thread, nullptr, nullptr};
  ASSERT_EQ(otrpc_init(), 0);
  kelo::dlist::append(&otrpc_on_state_changed, &hook);
  otrpc_start();
  auto connected = [&](int n) {
    return pump_until(
        [&] { return agent.connections() == n && kelo::otrpc::otconn_get_state() == OTCONN_CONNECTED; }, 5);
  };
  ASSERT_TRUE(connected(1));
  // The peer is gone and the loop does not turn: the worker's send fails.
  agent.close_connection();
  int r = 0;
  std::thread([&] {
    for (int i = 0; i < 200 && (r = immediate(i)) == 0; ++i) usleep(1000);
  }).join();
  EXPECT_EQ(r, -1);
  EXPECT_EQ(kelo::otrpc::otsocket_queue_length_for_testing(), 0);  // nothing kept
  ASSERT_TRUE(connected(2));
  // Sending on while the loop turns and the agent drops the connection.
  std::atomic<bool> stop{false};
  std::thread worker([&] {
    for (int i = 1000; !stop; ++i) immediate(i);
  });
  for (int conn = 3; conn <= 4; ++conn) {
    pump_for(0.02);
    agent.close_connection();
    ASSERT_TRUE(connected(conn));
  }
  stop = true;
  worker.join();
  std::thread([&] { r = immediate(-1); }).join();
  EXPECT_EQ(r, 0);
  EXPECT_TRUE(pump_until(
      [&] { return !agent.received().empty() && jint(agent.received().back().obj, "n") == -1; }, 5));
  EXPECT_EQ(g_foreign_hooks.load(), 0);
  otrpc_fini();
}

// A send completion calling into the registry on the loop thread, while
// another thread registers and unregisters (registry lock, then queue lock).
void call_when_written(void *) {
  json_object *m = otrpc_create_message("agent.after");
  otrpc_call(m, nullptr, nullptr);
  json_object_put(m);
}

TEST(Threads, CompletionCallbacksCallWhileAnotherThreadRegisters) {
  alarm(30);  // a deadlock fails the test instead of hanging it
  Sandbox sb;
  FakeAgent agent(sb.agent_port());
  ASSERT_EQ(otrpc_init(), 0);
  otrpc_start();
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    while (!stop) {
      otrpc_register("x", answer, nullptr, 0);
      otrpc_unregister("x");
    }
  });
  constexpr size_t kSends = 2000;
  for (size_t i = 0; i < kSends; ++i) {
    json_object *m = otrpc_create_message("sent");
    otrpc_send_cb(m, call_when_written, nullptr);
    json_object_put(m);
    if (i % 10 == 0) pump_for(0.001);
  }
  EXPECT_TRUE(pump_until([&] { return agent.with_method("agent.after").size() == kSends; }, 20));
  stop = true;
  churn.join();
  alarm(0);
  otrpc_fini();
}

}  // namespace
