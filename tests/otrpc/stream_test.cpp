// What the agent writes is cut into objects however it arrives; nothing it
// writes closes the connection, and a request after it is still answered.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <memory>
#include <string>

#include "kelo/otrpc.h"
#include "otrpc/otconn.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

using kelo::test::FakeAgent;
using kelo::test::pump_until;

namespace {

int g_calls = 0;
size_t g_last_params_len = 0;

int echo(void *, json_object *params, json_object *) {
  ++g_calls;
  g_last_params_len = strlen(json_object_to_json_string_ext(params, 0));
  return 0;
}

class Stream : public ::testing::Test {
 protected:
  void SetUp() override {
    agent_ = std::make_unique<FakeAgent>(sb_.agent_port());
    ASSERT_EQ(otrpc_init(), 0);
    ASSERT_EQ(otrpc_register("echo", echo, nullptr, OTRPC_METHOD_ALLOW_DUP), 0);
    otrpc_start();
    ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() == 1; }, 5));
  }
  void TearDown() override { otrpc_fini(); }

  // After whatever came before, a request is answered on the first connection.
  void expect_still_answering(long long id) {
    std::string req = R"({"method":"echo","id":)" + std::to_string(id) + "}";
    ASSERT_TRUE(agent_->send_raw(req));
    EXPECT_TRUE(pump_until([&] { return agent_->reply_for(id) != nullptr; }, 5)) << id;
    EXPECT_EQ(agent_->connections(), 1);
  }

  kelo::test::Sandbox sb_;
  std::unique_ptr<FakeAgent> agent_;
};

TEST_F(Stream, MalformedAndOddInputIsSkipped) {
  struct Case {
    const char *name;
    std::string bytes;
    int handler_runs;  // requests among the bytes that must reach the handler
  } cases[] = {
      {"two back to back", R"({"method":"echo","id":1}{"method":"echo","id":2})", 2},
      {"white space between", "{\"method\":\"echo\",\"id\":1}\n \t{\"method\":\"echo\",\"id\":2}\r\n", 2},
      {"NUL runs between", std::string("{\"method\":\"echo\",\"id\":1}\0\0\0{\"method\":\"echo\",\"id\":2}\0", 53), 2},
      {"top-level values", R"([1,2,{"method":"echo"}] "str" 12 true null {"method":"echo","id":3})", 1},
      {"garbage", "@@@ not json ### ]]] ::: ,,, \n", 0},
      {"garbage then request", "xx}{\"method\":\"echo\",\"id\":4}", 0},
      {"nesting beyond 16", std::string(17, '[') + std::string(17, ']') + R"({"a":)" + std::string(16, '[') +
                                std::string(16, ']') + "}",
       0},
      {"objects nested 15 deep are fine",
       R"({"method":"echo","id":5,"params":)" + std::string(14, '[') + std::string(14, ']') + "}", 1},
      {"NUL inside an object", std::string("{\"method\":\"echo\",\0{\"method\":\"echo\",\"id\":6}", 42), 1},
      {"bad escapes and numbers", R"({"a":\x} {"b":01} {"c":-} {"d":1e} {"method":"echo","id":7})", 1},
      // A stray quote opens a string that swallows what follows up to the
      // next quote; the stream comes back in step after it.
      {"stray quote", R"(" {"method":"echo","id":8} ")", 0},
  };
  long long probe = 1000;
  for (const Case &c : cases) {
    g_calls = 0;
    ASSERT_TRUE(agent_->send_raw(c.bytes)) << c.name;
    expect_still_answering(++probe);
    EXPECT_GE(g_calls, c.handler_runs + 1) << c.name;
  }
}

TEST_F(Stream, ObjectSplitIntoSingleBytes) {
  g_calls = 0;
  ASSERT_TRUE(agent_->send_bytes_singly(R"({"method":"echo","id":31,"params":{"a":[1,2,"x"]}})", 200));
  ASSERT_TRUE(pump_until([&] { return agent_->reply_for(31) != nullptr; }, 5));
  EXPECT_EQ(g_calls, 1);
  expect_still_answering(32);
}

TEST_F(Stream, ManySmallObjectsInOneWrite) {
  // Far more than the receive buffer holds: the buffer is compacted while
  // objects are handed out one at a time.
  std::string burst;
  for (int i = 0; i < 3000; ++i) burst += R"({"id":1}{"method":"echo"})";
  g_calls = 0;
  ASSERT_TRUE(agent_->send_raw(burst));
  expect_still_answering(40);
  EXPECT_EQ(g_calls, 3001);
}

TEST_F(Stream, HundredKilobyteObjects) {
  std::string big(100 * 1024, 'z');
  g_calls = 0;
  ASSERT_TRUE(agent_->send_raw(R"({"method":"echo","id":50,"params":{"blob":")" + big + R"("}})"));
  ASSERT_TRUE(pump_until([&] { return agent_->reply_for(50) != nullptr; }, 5));
  EXPECT_EQ(g_last_params_len, big.size() + 11);
  ASSERT_TRUE(agent_->send_raw(R"({"unrelated":")" + big + R"("})"));
  expect_still_answering(51);
  EXPECT_EQ(g_calls, 2);
}

TEST_F(Stream, ObjectCutByADisconnectContinuesOnTheNextConnection) {
  // The tokener keeps its state across connections: the head of a request
  // cut off by a disconnect is completed by the next connection's bytes.
  ASSERT_TRUE(agent_->send_raw(R"({"method":"echo",)"));
  kelo::test::pump_for(0.1);
  agent_->close_connection();
  ASSERT_TRUE(pump_until([&] { return agent_->with_method("register").size() == 2; }, 5));
  ASSERT_TRUE(agent_->send_raw(R"("id":60})"));
  EXPECT_TRUE(pump_until([&] { return agent_->reply_for(60) != nullptr; }, 5));
}

}  // namespace
