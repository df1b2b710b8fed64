// ctest-labels: threads
// Sending, registering and calling from several threads while the loop runs
// on the test's thread.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kelo/otrpc.h"
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
  ASSERT_TRUE(pump_until([&] { return agent.with_method("register").size() == 1; }, 5));
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
  std::thread churn([&] {
    for (int i = 0; !stop; ++i) {
      std::string name = "m" + std::to_string(i % 8);
      otrpc_register(name.c_str(), answer, nullptr, 0);
      otrpc_unregister(name.c_str());
    }
  });
  // Meanwhile the agent keeps asking.
  for (int i = 0; i < 50; ++i) {
    agent.send_raw(R"({"method":"stay","id":)" + std::to_string(i) + "}");
    pump_for(0.005);
  }
  bool all = pump_until(
      [&] {
        return agent.with_method("load").size() >= kThreads * kEach &&
               agent.with_method("agent.ping").size() >= kCalls;
      },
      30);
  for (auto &t : threads) t.join();
  ASSERT_TRUE(all) << agent.with_method("load").size();
  // Answer every call the agent saw; then drop the connection while
  // registrations go on.
  std::string text;
  for (const auto &r : agent.with_method("agent.ping"))
    text += R"({"id":)" + std::to_string(jint(r.obj, "id")) + R"(,"result":["OK"]})";
  ASSERT_TRUE(agent.send_raw(text));
  EXPECT_TRUE(pump_until([&] { return replies.load() >= kCalls; }, 5)) << replies.load();
  agent.close_connection();
  auto stays = [&] {
    int n = 0;
    for (const auto &r : agent.with_method("register")) n += jstr(r.obj, "key") == "stay";
    return n;
  };
  EXPECT_TRUE(pump_until([&] { return stays() == 2; }, 5));
  stop = true;
  churn.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(agent.parse_errors(), 0);
  // All arrive whole and once, each thread's in order.
  std::set<std::pair<long long, long long>> seen;
  std::vector<long long> last(kThreads, -1);
  for (const auto &r : agent.with_method("load")) {
    long long t = jint(r.obj, "t"), n = jint(r.obj, "n");
    ASSERT_TRUE(t >= 0 && t < kThreads) << r.text;
    EXPECT_TRUE(seen.insert({t, n}).second) << r.text;
    EXPECT_GT(n, last[t]);
    last[t] = n;
  }
  EXPECT_EQ(seen.size(), size_t(kThreads * kEach));
  otrpc_fini();
}

}  // namespace
