// What the agent writes is cut into objects however it arrives; nothing it
// writes closes the connection, and a request after it is still answered.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "kelo/otrpc.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

using kelo::test::pump_until;

namespace {

int g_calls = 0;
size_t g_longest = 0;  // params text

int echo(void *, json_object *params, json_object *) {
  ++g_calls;
  g_longest = std::max(g_longest, strlen(json_object_to_json_string_ext(params, 0)));
  return 0;
}

std::string req(int id, const std::string &rest = "") {
  return R"({"method":"echo","id":)" + std::to_string(id) + rest + "}";
}

TEST(Stream, OddInputIsSkippedAndTheNextRequestAnswered) {
  kelo::test::Sandbox sb;
  kelo::test::FakeAgent agent(sb.agent_port());
  ASSERT_EQ(otrpc_init(), 0);
  ASSERT_EQ(otrpc_register("echo", echo, nullptr, OTRPC_METHOD_ALLOW_DUP), 0);
  otrpc_start();
  ASSERT_TRUE(pump_until([&] { return agent.with_method("register").size() == 1; }, 5));
  std::string burst, big(100 * 1024, 'z');
  for (int i = 0; i < 3000; ++i) burst += R"({"id":1}{"method":"echo"})";
  struct Case {
    const char *name;
    std::string bytes;
    int handler_runs;  // requests among the bytes that must reach the handler
    bool singly = false;
    size_t longest = 0;  // of the params handed over, when checked
  } cases[] = {
      {"back to back", req(1) + req(2), 2},
      {"white space between", req(1) + "\n \t" + req(2) + "\r\n", 2},
      {"NUL runs between", req(1) + std::string(3, '\0') + req(2) + std::string(1, '\0'), 2},
      {"split into single bytes", req(3, R"(,"params":{"a":[1,2,"x"]})"), 1, true},
      {"top-level values", R"([1,2,{"method":"echo"}] "str" 12 true null )" + req(3), 1},
      {"garbage", "@@@ not json ### ]]] ::: ,,, \n", 0},
      {"garbage then request", "xx}" + req(4), 1},
      {"nesting beyond 16",
       std::string(17, '[') + std::string(17, ']') + R"({"a":)" + std::string(16, '[') +
           std::string(16, ']') + "}",
       0},
      {"nested 15 deep", req(5, R"(,"params":)" + std::string(14, '[') + std::string(14, ']')), 1},
      {"NUL inside an object", std::string("{\"method\":\"echo\",\0", 18) + req(6), 1},
      {"bad escapes and numbers", R"({"a":\x} {"b":01} {"c":-} {"d":1e} )" + req(7), 1},
      // A stray quote opens a string that swallows what follows up to the
      // next quote; the stream comes back in step after it.
      {"stray quote", "\" " + req(8) + " \"", 0},
      // More than the receive buffer holds: compacted while objects are handed out.
      {"many small objects in one write", burst, 3000},
      {"100 KB objects", req(9, R"(,"params":{"blob":")" + big + R"("})") + R"({"other":")" + big + R"("})",
       1, false, big.size() + 11},
  };
  int probe = 1000;
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    g_calls = 0;
    g_longest = 0;
    ASSERT_TRUE(agent.send_raw(c.bytes, c.singly));
    ASSERT_TRUE(agent.send_raw(req(++probe)));
    EXPECT_TRUE(pump_until([&] { return agent.reply_for(probe) != nullptr; }, 5));
    EXPECT_EQ(agent.connections(), 1);
    EXPECT_EQ(g_calls, c.handler_runs + 1);
    EXPECT_EQ(c.longest ? g_longest : 0, c.longest);
  }
  // The tokener keeps its state across connections: the head of a request cut
  // off by a disconnect is completed by the next connection's bytes.
  ASSERT_TRUE(agent.send_raw(R"({"method":"echo",)"));
  kelo::test::pump_for(0.1);
  agent.close_connection();
  ASSERT_TRUE(pump_until([&] { return agent.with_method("register").size() == 2; }, 5));
  ASSERT_TRUE(agent.send_raw(R"("id":60})"));
  EXPECT_TRUE(pump_until([&] { return agent.reply_for(60) != nullptr; }, 5));
  otrpc_fini();
}

}  // namespace
