// Clocks and timerfd timers.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <tuple>

#include "kelo/time.h"
#include "support/sandbox.h"
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

// The milliseconds become a timespec (2750 ms: 2 s and 750000000 ns); a
// first expiry of 0 does not arm it. Negative times and bad descriptors fail.
TEST(Time, TimerStartArmsAsAsked) {
  kelo::test::Sandbox sb;  // failures are logged
  setenv("KELO_LOG_FILE", "-", 1);
  int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  struct itimerspec cur;
  for (auto [first, interval, value_ms] : {std::tuple{250, 2750, 250}, {0, 500, 0}}) {
    ASSERT_EQ(timer_start(fd, first, interval), 0);
    ASSERT_EQ(timerfd_gettime(fd, &cur), 0);
    int64_t left_ms = (cur.it_value.tv_sec * 1000000000LL + cur.it_value.tv_nsec + 999999) / 1000000;
    EXPECT_TRUE(left_ms <= value_ms && left_ms > value_ms - 200) << first;
    EXPECT_EQ(cur.it_interval.tv_sec * 1000000000LL + cur.it_interval.tv_nsec, interval * 1000000LL);
  }
  EXPECT_EQ(timer_start(fd, -1500, 0), -1);
  EXPECT_EQ(errno, EINVAL);
  close(fd);
  EXPECT_EQ(timer_start(-1, 100, 0), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
