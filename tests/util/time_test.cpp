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

TEST(Time, TimerStartArmsAsAsked) {
  kelo::test::Sandbox sb;  // failures are logged
  setenv("KELO_LOG_FILE", "-", 1);
  // first, interval (ms), the remaining time read back (at most the set one;
  // 0: the period alone does not arm it), errno for a negative time.
  const std::tuple<int, int, int64_t, int> cases[] = {
      {1500, 0, 1500000000, 0}, {250, 2750, 250000000, 0}, {0, 500, 0, 0}, {-1500, 0, 0, EINVAL}};
  for (auto [first, interval, value_ns, err] : cases) {
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    errno = 0;
    ASSERT_EQ(timer_start(fd, first, interval), err ? -1 : 0);
    EXPECT_EQ(errno, err);
    struct itimerspec cur;
    ASSERT_EQ(timerfd_gettime(fd, &cur), 0);
    int64_t left_ns = cur.it_value.tv_sec * 1000000000LL + cur.it_value.tv_nsec;
    EXPECT_TRUE(left_ns <= value_ns && left_ns > (value_ns ? value_ns - 200000000LL : -1)) << first;
    EXPECT_EQ(cur.it_interval.tv_sec * 1000 + cur.it_interval.tv_nsec / 1000000, err ? 0 : interval);
    close(fd);
  }
  errno = 0;
  EXPECT_EQ(timer_start(-1, 100, 0), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
