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

using kelo::test::jint;
using kelo::test::pump_until;

namespace {

class Threads : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELO_LOG_LEVEL", "info", 1);
    ASSERT_EQ(otrpc_init(), 0);
  }
  void TearDown() override { otrpc_fini(); }
  kelo::test::Sandbox sb_;
  kelo::test::FakeAgent agent_{sb_.agent_port()};
};

TEST_F(Threads, FourSendersAllArriveWholeAndOnce) {
  otrpc_start();
  constexpr int kThreads = 4, kEach = 500;
  std::atomic<int> failures{0};
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t)
    senders.emplace_back([t, &failures] {
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
  bool all = pump_until([&] { return agent_.with_method("load").size() >= kThreads * kEach; }, 30);
  for (auto &s : senders) s.join();
  ASSERT_TRUE(all) << agent_.with_method("load").size();
  kelo::test::pump_for(0.1);
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(agent_.parse_errors(), 0);
  auto got = agent_.with_method("load");
  ASSERT_EQ(got.size(), size_t(kThreads * kEach));
  std::set<std::pair<long long, long long>> seen;
  std::vector<long long> last(kThreads, -1);
  for (const auto &r : got) {
    long long t = jint(r.obj, "t"), n = jint(r.obj, "n");
    ASSERT_TRUE(t >= 0 && t < kThreads) << r.text;
    EXPECT_TRUE(seen.insert({t, n}).second) << r.text;
    EXPECT_GT(n, last[t]);  // each thread's messages keep their order
    last[t] = n;
  }
}

int answer(void *, json_object *, json_object *) { return 0; }
int on_reply(void *arg, json_object *) {
  ++*static_cast<std::atomic<int> *>(arg);
  return 0;
}

TEST_F(Threads, RegisterUnregisterAndCallFromOtherThreads) {
  ASSERT_EQ(otrpc_register("stay", answer, nullptr, OTRPC_METHOD_ALLOW_DUP), 0);
  otrpc_start();
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("register").size() == 1; }, 5));
  std::atomic<bool> stop{false};
  std::atomic<int> replies{0};
  std::thread churn([&] {
    for (int i = 0; !stop; ++i) {
      std::string name = "m" + std::to_string(i % 8);
      otrpc_register(name.c_str(), answer, nullptr, 0);
      otrpc_unregister(name.c_str());
    }
  });
  std::thread caller([&] {
    for (int i = 0; i < 200; ++i) {
      json_object *m = otrpc_create_message("agent.ping");
      otrpc_call(m, on_reply, &replies);
      json_object_put(m);
    }
  });
  // Meanwhile the agent keeps asking, and drops its connection once.
  for (int i = 0; i < 50; ++i) {
    agent_.send_raw(R"({"method":"stay","id":)" + std::to_string(i) + "}");
    kelo::test::pump_for(0.005);
    if (i == 25) agent_.close_connection();
  }
  ASSERT_TRUE(pump_until([&] { return agent_.with_method("agent.ping").size() >= 200; }, 10));
  caller.join();
  stop = true;
  churn.join();
  // Answer every call the agent saw.
  std::string text;
  for (const auto &r : agent_.with_method("agent.ping"))
    text += R"({"id":)" + std::to_string(jint(r.obj, "id")) + R"(,"result":["OK"]})";
  ASSERT_TRUE(agent_.send_raw(text));
  EXPECT_TRUE(pump_until([&] { return replies.load() >= 200; }, 5)) << replies.load();
  EXPECT_EQ(agent_.parse_errors(), 0);
}

}  // namespace
