// The receive path on its own: a socketpair end stands for the agent.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "otrpc/otsocket.h"

namespace {

TEST(Receive, OneObjectPerCallThroughGarbageToTheEndOfTheStream) {
  ASSERT_EQ(kelo::otrpc::otsocket_init(), 0);
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
  auto put = [&](const std::string &b) { ASSERT_EQ(write(sv[0], b.data(), b.size()), ssize_t(b.size())); };
  // One call: "" for -1, else the object's text.
  auto take = [&] {
    json_object *o = nullptr;
    int r = kelo::otrpc::otsocket_receive(sv[1], &o);
    std::string t = r == 1 ? json_object_to_json_string_ext(o, 0) : "";
    EXPECT_EQ(r, t.empty() ? -1 : 1);
    json_object_put(o);
    return t;
  };
  put(R"({"a":1}{"b":2} {"c")");
  EXPECT_EQ(take(), R"({"a":1})");
  EXPECT_EQ(take(), R"({"b":2})");
  EXPECT_EQ(take(), "");  // the third is incomplete
  put(R"(:3})");
  EXPECT_EQ(take(), R"({"c":3})");
  EXPECT_EQ(take(), "");
  // The dropped array needs more than one read; the garbage after it must
  // not leave the object behind it waiting for the next readable event.
  put("[\"" + std::string(6000, 'z') + "\"]XX" + R"({"id":70})");
  EXPECT_EQ(take(), R"({"id":70})");
  put(R"({"a":1})");
  close(sv[0]);
  EXPECT_EQ(take(), R"({"a":1})");
  EXPECT_EQ(take(), "");
  EXPECT_EQ(take(), "");
  close(sv[1]);
  kelo::otrpc::otsocket_fini();
}

}  // namespace
