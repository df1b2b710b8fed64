// The receive path on its own: a socketpair end stands for the agent.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "otrpc/otsocket.h"

using kelo::otrpc::otsocket_receive;

namespace {

class Receive : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(kelo::otrpc::otsocket_init(), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv_), 0);
  }
  void TearDown() override {
    close(sv_[0]);
    close(sv_[1]);
    kelo::otrpc::otsocket_fini();
  }
  void put(const std::string &bytes) {
    ASSERT_EQ(write(sv_[0], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // One call: "" for -1, else the object's text.
  std::string take() {
    json_object *o = nullptr;
    int r = otsocket_receive(sv_[1], &o);
    if (r != 1) {
      EXPECT_EQ(r, -1);
      return "";
    }
    std::string t = json_object_to_json_string_ext(o, 0);
    json_object_put(o);
    return t;
  }
  int sv_[2];
};

TEST_F(Receive, OneObjectPerCall) {
  put(R"({"a":1}{"b":2} {"c")");
  EXPECT_EQ(take(), R"({"a":1})");
  EXPECT_EQ(take(), R"({"b":2})");
  EXPECT_EQ(take(), "");  // the third is incomplete
  put(R"(:3})");
  EXPECT_EQ(take(), R"({"c":3})");
  EXPECT_EQ(take(), "");
}

TEST_F(Receive, RequestBehindGarbageAfterALargeDroppedValueIsReturnedAtOnce) {
  // The dropped array needs more than one read; the garbage after it must
  // not leave the object behind it waiting for the next readable event.
  put("[\"" + std::string(6000, 'z') + "\"]XX" + R"({"id":70})");
  EXPECT_EQ(take(), R"({"id":70})");
}

TEST_F(Receive, EndOfStream) {
  put(R"({"a":1})");
  close(sv_[0]);
  sv_[0] = open("/dev/null", O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(take(), R"({"a":1})");
  EXPECT_EQ(take(), "");
  EXPECT_EQ(take(), "");
}

}  // namespace
