// The wrapping millisecond clock and the local time.
#include <stdint.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include <tuple>

#include "kelo/time.h"
#include "util/time_internal.h"

namespace {

TEST(Time, RealtimeMsWrapsAndTheZoneIsReadAtEachCall) {
  // The seconds product wraps in 32 bits: 2147483.647 s is the last value
  // before the wrap, 1700000000 is present day.
  const std::tuple<int64_t, long, int64_t> cases[] = {{2147483, 647000000, 2147483647},
                                                      {2147484, 0, -2147483296},
                                                      {-1, -500000000, -1500},
                                                      {1700000000, 123456789, -807049093}};
  for (auto [sec, nsec, want] : cases) EXPECT_EQ(kelo::timeutil::realtime_ms_from(sec, nsec), want) << sec;
  time_t t = 0;
  struct tm out;
  for (auto [tz, hour] : {std::pair{"UTC0", 0}, {"XYZ-3", 3}}) {
    setenv("TZ", tz, 1);
    ASSERT_EQ(time_utc2local(&t, &out), &out);
    EXPECT_EQ(out.tm_hour, hour);
  }
}

}  // namespace
