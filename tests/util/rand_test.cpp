// Random values: the signed-remainder range and the string filler.
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "kelo/rand.h"

namespace {

// lo, hi and the extremes seen: values below lo are part of the contract;
// n = -1 never traps; hi == lo adds the raw value, over the whole range.
TEST(Rand, RangeUsesTheSignedRemainder) {
  const int cases[][4] = {
      {5, 6, 5, 5}, {0, 10, -9, 9}, {10, 0, 1, 19}, {3, 2, 3, 3}, {7, 7, -1000000, 1000000}};
  for (auto [lo, hi, min, max] : cases) {
    int low = INT32_MAX, high = INT32_MIN;
    for (int i = 0; i < 4000; ++i)
      low = std::min(low, rand_range(lo, hi)), high = std::max(high, rand_range(lo, hi));
    EXPECT_TRUE(lo == hi ? low < min && high > max : low == min && high == max) << lo << ".." << hi;
  }
}

// The alphabet lies inside a larger array: a negative index takes the byte
// that far before it. The first byte is the caller's; len 0 writes nothing.
TEST(Rand, StrTakesBytesBeforeTheAlphabetAndKeepsTheFirst) {
  const char pool[] = "#ABCDabcde#";
  char out[202];
  memset(out, '#', sizeof out);
  rand_str(pool + 5, 5, out, 0);  // out[0] stays as it is (checked below)
  std::string seen;
  for (int round = 0; round < 20; ++round) {
    rand_str(pool + 5, 5, out, 200);
    EXPECT_TRUE(out[0] == '#' && out[200] == '\0');
    seen.append(out + 1, 199);
  }
  std::sort(seen.begin(), seen.end());
  seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
  EXPECT_EQ(seen, "ABCDabcde");
}

}  // namespace
