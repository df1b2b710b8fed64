// Random values: the signed-remainder range and the string filler.
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <tuple>

#include "kelo/rand.h"

namespace {

TEST(Rand, RangeUsesTheSignedRemainder) {
  // lo, hi, min, max: values below lo are part of the contract; n = -10 is
  // still lo +- 9; n = -1 (or INT32_MIN % -1) never traps; hi == lo adds the
  // raw value, spread over the whole 32-bit range.
  const int cases[][4] = {{5, 6, 5, 5},
                          {0, 10, -9, 9},
                          {10000, 100000000, 10000 - 99989999, 10000 + 99989999},
                          {-5, 5, -14, 4},
                          {10, 0, 1, 19},
                          {3, 2, 3, 3},
                          {7, 7, INT32_MIN, INT32_MAX}};
  for (auto [lo, hi, min, max] : cases) {
    bool below = false, above = false;
    int far = lo == hi ? 1000000 : 0;
    for (int i = 0; i < 4000; ++i) {
      int v = rand_range(lo, hi);
      ASSERT_GE(v, min) << lo << ".." << hi;
      ASSERT_LE(v, max) << lo << ".." << hi;
      below |= v < lo - far;
      above |= v > lo + far;
    }
    EXPECT_EQ(below, max > min) << lo << ".." << hi;
    EXPECT_EQ(above, max > min) << lo << ".." << hi;
  }
  bool negative = false;
  for (int i = 0; i < 200; ++i) {
    int v = generate_random_id();
    ASSERT_GE(v, -9999997);
    ASSERT_LE(v, 9999999);
    negative |= v < 0;
  }
  EXPECT_TRUE(negative);
}

TEST(Rand, StrKeepsTheFirstByteAndTerminates) {
  // The first byte is never written; len 0 writes nothing, not even a
  // terminator; without an alphabet only the terminator. '?': any of "abc".
  const std::tuple<const char *, int, int, const char *> cases[] = {{"abc", 3, 0, "X#####"},
                                                                    {"abc", 3, 1, "X\0####"},
                                                                    {"abc", 3, 10, "X?????????\0#"},
                                                                    {"", 0, 4, "X###\0#"},
                                                                    {"abc", -3, 4, "X###\0#"}};
  for (auto [alphabet, alen, len, want] : cases) {
    size_t n = static_cast<size_t>(len > 4 ? len + 2 : 6);
    for (int round = 0; round < 20; ++round) {
      char out[12];
      memset(out, '#', sizeof out);
      out[0] = 'X';
      rand_str(alphabet, alen, out, len);
      for (size_t i = 0; i < n; ++i)
        ASSERT_TRUE(want[i] == '?' ? strchr("abc", out[i]) && out[i] : out[i] == want[i]) << len << "@" << i;
    }
  }
}

}  // namespace
