// Random values: the signed-remainder range and the string filler.
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include "kelo/rand.h"

namespace {

TEST(Rand, RangeUsesTheSignedRemainder) {
  struct Case {
    int lo, hi, min, max;
  } cases[] = {
      {5, 6, 5, 5},
      {0, 10, -9, 9},
      {10000, 100000000, 10000 - 99989999, 10000 + 99989999},
      {-5, 5, -14, 4},
      {10, 0, 1, 19},  // n = -10: still lo +- 9
  };
  for (const auto &c : cases) {
    bool below = false, above = false;
    for (int i = 0; i < 4000; ++i) {
      int v = rand_range(c.lo, c.hi);
      ASSERT_GE(v, c.min) << c.lo << ".." << c.hi;
      ASSERT_LE(v, c.max) << c.lo << ".." << c.hi;
      below |= v < c.lo;
      above |= v > c.lo;
    }
    if (c.max > c.min) {
      EXPECT_TRUE(below) << "values below lo are part of the contract";
      EXPECT_TRUE(above);
    }
  }
}

TEST(Rand, EqualBoundsAddTheRawValue) {
  // lo + r: with lo = 7 the results spread over the whole 32-bit range.
  bool big = false, negative = false;
  for (int i = 0; i < 200; ++i) {
    int v = rand_range(7, 7);
    big |= v > 1000000;
    negative |= v < -1000000;
  }
  EXPECT_TRUE(big);
  EXPECT_TRUE(negative);
  // n = -1 (or INT32_MIN % -1) never traps and always gives lo.
  for (int i = 0; i < 100; ++i) EXPECT_EQ(rand_range(3, 2), 3);
}

TEST(Rand, IdsIncludeZeroAndNegatives) {
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
  const char alphabet[] = "abc";
  char out[12];
  memset(out, '#', sizeof out);
  rand_str(alphabet, 3, out, 0);
  EXPECT_EQ(out[0], '#');  // len 0 writes nothing, not even a terminator

  rand_str(alphabet, 3, out, 1);
  EXPECT_EQ(out[0], '#');
  EXPECT_EQ(out[1], '\0');
  EXPECT_EQ(out[2], '#');

  for (int round = 0; round < 50; ++round) {
    memset(out, '#', sizeof out);
    out[0] = 'X';
    rand_str(alphabet, 3, out, 10);
    EXPECT_EQ(out[0], 'X');
    EXPECT_EQ(out[10], '\0');
    EXPECT_EQ(out[11], '#');
    for (int i = 1; i < 10; ++i) ASSERT_NE(strchr("abc", out[i]), nullptr) << out;
  }
}

TEST(Rand, StrWithoutAlphabetWritesOnlyTheTerminator) {
  char out[6];
  memset(out, '#', sizeof out);
  rand_str("", 0, out, 4);
  EXPECT_EQ(memcmp(out, "####\0#", 6), 0);
  memset(out, '#', sizeof out);
  rand_str("abc", -3, out, 4);
  EXPECT_EQ(memcmp(out, "####\0#", 6), 0);
}

}  // namespace
