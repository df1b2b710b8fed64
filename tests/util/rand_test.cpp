// Random values: the signed-remainder range and the string filler.
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include "kelo/rand.h"

namespace {

TEST(Rand, RangeUsesTheSignedRemainder) {
  // lo, hi, min, max: values below lo are part of the contract; n = -1 (or
  // INT32_MIN % -1) never traps; hi == lo adds the raw value.
  const int cases[][4] = {
      {5, 6, 5, 5},   {0, 10, -9, 9}, {10000, 100000000, 10000 - 99989999, 10000 + 99989999},
      {10, 0, 1, 19}, {3, 2, 3, 3},   {7, 7, INT32_MIN, INT32_MAX}};
  for (auto [lo, hi, min, max] : cases) {
    bool below = false, above = false;
    int far = lo == hi ? 1000000 : 0;
    for (int i = 0; i < 4000; ++i) {
      int v = rand_range(lo, hi);
      ASSERT_TRUE(v >= min && v <= max) << lo << ".." << hi << ": " << v;
      below |= v < lo - far;
      above |= v > lo + far;
    }
    EXPECT_EQ(below && above, max > min) << lo << ".." << hi;
  }
}

// The alphabet lies inside a larger array: a negative index takes a byte
// that far before it. The first byte is the caller's; len 0 writes nothing.
TEST(Rand, StrTakesBytesBeforeTheAlphabetAndKeepsTheFirst) {
  const char pool[] = "#ABCDabcde#";
  const char *alphabet = pool + 5;  // "abcde", with "ABCD" within reach before it
  char out[202];
  memset(out, '#', sizeof out);
  rand_str(alphabet, 5, out, 0);
  EXPECT_EQ(out[0], '#');
  bool before = false;
  for (int round = 0; round < 20; ++round) {
    rand_str(alphabet, 5, out, 200);
    EXPECT_EQ(out[0], '#');
    EXPECT_EQ(out[200], '\0');
    for (int i = 1; i < 200; ++i) {
      ASSERT_TRUE(out[i] >= 'a' ? out[i] <= 'e' : out[i] >= 'A' && out[i] <= 'D') << out[i];
      before |= out[i] < 'a';
    }
  }
  EXPECT_TRUE(before);
}

}  // namespace
