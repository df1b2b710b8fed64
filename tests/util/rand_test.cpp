// Random values: the signed-remainder range and the string filler.
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <algorithm>

#include "kelo/rand.h"

namespace {

// lo, hi, min, max: values below lo are part of the contract; n = -1 (or
// INT32_MIN % -1) never traps; hi == lo adds the raw value.
TEST(Rand, RangeUsesTheSignedRemainder) {
  const int cases[][4] = {
      {5, 6, 5, 5}, {0, 10, -9, 9}, {10, 0, 1, 19}, {3, 2, 3, 3}, {7, 7, INT32_MIN, INT32_MAX}};
  for (auto [lo, hi, min, max] : cases) {
    int low = INT32_MAX, high = INT32_MIN;
    for (int i = 0; i < 4000; ++i) {
      int v = rand_range(lo, hi);
      low = v < low ? v : low;
      high = v > high ? v : high;
    }
    EXPECT_TRUE(low >= min && high <= max) << lo << ".." << hi;
    EXPECT_TRUE(lo == hi ? low < -1000000 && high > 1000000 : low == min && high == max) << lo << ".." << hi;
  }
}

// The alphabet lies inside a larger array: a negative index takes a byte
// that far before it. The first byte is the caller's; len 0 writes nothing.
TEST(Rand, StrTakesBytesBeforeTheAlphabetAndKeepsTheFirst) {
  const char pool[] = "#ABCDabcde#";
  char out[202];
  memset(out, '#', sizeof out);
  rand_str(pool + 5, 5, out, 0);
  EXPECT_EQ(out[0], '#');
  std::string seen;
  for (int round = 0; round < 20; ++round) {
    rand_str(pool + 5, 5, out, 200);
    EXPECT_TRUE(out[0] == '#' && out[200] == '\0');
    for (int i = 1; i < 200; ++i) seen += strchr(seen.c_str(), out[i]) ? "" : std::string(1, out[i]);
  }
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(seen, "ABCDabcde");
}

}  // namespace
