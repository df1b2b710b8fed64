// The receive path: a random stream of objects, separators and values that
// are not objects, written in random chunks, must come out as the same
// objects, in order, however it was cut.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "otrpc/otsocket.h"

namespace {

using Rng = std::mt19937;

int pick(Rng &rng, int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng); }

std::string random_string(Rng &rng, size_t len) {
  static const char kChars[] = "az09 _-/\\\"\n\t{}[]:,";
  std::string s;
  for (size_t i = 0; i < len; ++i) s += kChars[pick(rng, sizeof kChars - 1)];
  return s;
}

// A value nested at most depth levels; objects at depth 0.
json_object *random_value(Rng &rng, int depth, bool object = false) {
  switch (object ? 0 : pick(rng, depth > 0 ? 6 : 4)) {
    case 0:
    case 4: {
      json_object *o = json_object_new_object();
      for (int i = pick(rng, 4); i > 0; --i)
        json_object_object_add(o, random_string(rng, 1 + pick(rng, 6)).c_str(), random_value(rng, depth - 1));
      return o;
    }
    case 5: {
      json_object *a = json_object_new_array();
      for (int i = pick(rng, 4); i > 0; --i) json_object_array_add(a, random_value(rng, depth - 1));
      return a;
    }
    case 1:
      return json_object_new_int64(std::uniform_int_distribution<int64_t>(INT64_MIN, INT64_MAX)(rng));
    case 2:
      return pick(rng, 2) ? json_object_new_boolean(pick(rng, 2)) : nullptr;
    default:  // now and then longer than the receive buffer
      return json_object_new_string(
          random_string(rng, pick(rng, 20) ? pick(rng, 40) : 5000 + pick(rng, 9000)).c_str());
  }
}

std::string text(json_object *o) { return json_object_to_json_string_ext(o, 0); }

TEST(Receive, AnyCuttingOfTheStreamYieldsTheSameObjects) {
  ASSERT_EQ(kelo::otrpc::otsocket_init(), 0);
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(seed);
    Rng rng(seed);
    std::string stream;
    std::vector<std::string> want, got;
    for (int n = 0; n < 60; ++n) {
      static const std::string kSeparators[] = {
          "", " ", "\r\n\t", std::string(3, '\0'), "[1,{\"a\":2}] ", "\"s\" ", "12 ", "null ", "true "};
      stream += kSeparators[pick(rng, 9)];
      json_object *o = random_value(rng, 5, true);
      want.push_back(text(o));
      stream += want.back();
      json_object_put(o);
    }
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    auto drain = [&] {
      json_object *o = nullptr;
      while (kelo::otrpc::otsocket_receive(sv[1], &o) == 1) {
        got.push_back(text(o));
        json_object_put(o);
      }
    };
    for (size_t at = 0, len; at < stream.size(); at += len) {
      len = std::min<size_t>(stream.size() - at, 1 + pick(rng, pick(rng, 2) ? 8 : 3000));
      ASSERT_EQ(write(sv[0], stream.data() + at, len), ssize_t(len));
      drain();
    }
    close(sv[0]);
    drain();
    EXPECT_EQ(got, want);
    close(sv[1]);
  }
  kelo::otrpc::otsocket_fini();
}

}  // namespace
