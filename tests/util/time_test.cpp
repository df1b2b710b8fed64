// Clocks and timerfd timers.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "kelo/time.h"
#include "support/sandbox.h"
#include "util/time_internal.h"

namespace {

TEST(Time, RealtimeMsWrapsTheSecondsProductIn32Bits) {
  struct Case {
    int64_t sec;
    long nsec;
  } cases[] = {
      {0, 0}, {1, 999999999}, {2147483, 647000000},  // last value before the wrap
      {2147484, 0}, {1700000000, 123456789}, {4294967, 296000000}, {-1, -500000000},
  };
  for (const auto &c : cases) {
    // Expected value worked out independently: the true product modulo 2^32,
    // read as signed.
    int64_t product = c.sec * 1000;
    int64_t wrapped = ((product % 4294967296LL) + 4294967296LL) % 4294967296LL;
    if (wrapped >= 2147483648LL) wrapped -= 4294967296LL;
    EXPECT_EQ(kelo::timeutil::realtime_ms_from(c.sec, c.nsec), wrapped + c.nsec / 1000000) << c.sec;
  }
  // The documented present-day example.
  EXPECT_EQ(kelo::timeutil::realtime_ms_from(1700000000, 0), 1700000000000LL % 4294967296LL - 4294967296LL);
}

TEST(Time, RealtimeMsFollowsTheClock) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  int64_t want = kelo::timeutil::realtime_ms_from(ts.tv_sec, ts.tv_nsec);
  int64_t got = time_realtime_ms();
  EXPECT_GE(got, want);
  EXPECT_LT(got - want, 2000);  // unless a wrap falls in between, which takes 49 days
}

TEST(Time, MonotonicAndUptime) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  int32_t m = time_monotonic();
  EXPECT_GE(m, static_cast<int32_t>(ts.tv_sec));
  EXPECT_LE(m, static_cast<int32_t>(ts.tv_sec) + 1);
  EXPECT_GE(time_uptime(), 0);
}

TEST(Time, Utc2localFollowsTz) {
  time_t t = 0;
  struct tm out;
  setenv("TZ", "UTC0", 1);
  ASSERT_EQ(time_utc2local(&t, &out), &out);
  EXPECT_EQ(out.tm_hour, 0);
  setenv("TZ", "XYZ-3", 1);  // picked up at the next call
  ASSERT_EQ(time_utc2local(&t, &out), &out);
  EXPECT_EQ(out.tm_hour, 3);
  EXPECT_EQ(out.tm_year, 70);
}

TEST(Time, DeprecatedCallsNoteEveryCall) {
  kelo::test::Sandbox sb;
  auto r = kelo::test::run_child([] {
    int32_t a = timestamp();
    int32_t b = timestamp();
    int fd1 = timer_setup();
    int fd2 = timer_setup();
    printf("%d %d %d\n", b - a <= 1, fd1 >= 0 && fd2 >= 0, fcntl(fd1, F_GETFD) & FD_CLOEXEC);
  });
  EXPECT_EQ(r.out, "1 1 1\n");
  EXPECT_EQ(r.err,
            "timestamp is deprecated.\ntimestamp is deprecated.\n"
            "timer_setup is deprecated.\ntimer_setup is deprecated.\n");
}

int new_timer() { return timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC); }

TEST(Time, TimerStartArmsAsAsked) {
  struct Case {
    int first_ms, interval_ms;
    int64_t v_sec, v_nsec, i_sec, i_nsec;  // as read back (remaining time is <= the set one)
    bool armed;
  } cases[] = {
      {1500, 0, 1, 500000000, 0, 0, true},
      {250, 2750, 0, 250000000, 2, 750000000, true},
      {0, 500, 0, 0, 0, 0, false},  // the period alone does not arm it
      {3000, 1000, 3, 0, 1, 0, true},
  };
  for (const auto &c : cases) {
    int fd = new_timer();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(timer_start(fd, c.first_ms, c.interval_ms), 0);
    struct itimerspec cur;
    ASSERT_EQ(timerfd_gettime(fd, &cur), 0);
    if (c.armed) {
      int64_t set_ns = c.v_sec * 1000000000LL + c.v_nsec;
      int64_t left_ns = cur.it_value.tv_sec * 1000000000LL + cur.it_value.tv_nsec;
      EXPECT_LE(left_ns, set_ns) << c.first_ms;
      EXPECT_GT(left_ns, set_ns - 200000000LL) << c.first_ms;
      EXPECT_EQ(cur.it_interval.tv_sec, c.i_sec);
      EXPECT_EQ(cur.it_interval.tv_nsec, c.i_nsec);
    } else {
      EXPECT_EQ(cur.it_value.tv_sec, 0);
      EXPECT_EQ(cur.it_value.tv_nsec, 0);
    }
    close(fd);
  }
}

TEST(Time, TimerFires) {
  int fd = new_timer();
  ASSERT_EQ(timer_start(fd, 20, 0), 0);
  struct pollfd p = {fd, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 5000), 1);
  uint64_t n = 0;
  ASSERT_EQ(read(fd, &n, sizeof n), 8);
  EXPECT_EQ(n, 1u);
  close(fd);
}

TEST(Time, MsConversionTruncatesTowardsZero) {
  struct timespec ts = kelo::timeutil::ms_to_interval(-1500);
  EXPECT_EQ(ts.tv_sec, -1);
  EXPECT_EQ(ts.tv_nsec, -500000000);
  ts = kelo::timeutil::ms_to_interval(1999);
  EXPECT_EQ(ts.tv_sec, 1);
  EXPECT_EQ(ts.tv_nsec, 999000000);
}

TEST(Time, TimerStartFailuresAreLogged) {
  kelo::test::Sandbox sb;
  auto r = kelo::test::run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    errno = 0;
    int a = timer_start(fd, -1500, 0);  // the kernel refuses negative times
    int ea = errno;
    int b = timer_start(-1, 100, 0);
    int eb = errno;
    printf("%d %d %d %d\n", a, ea == EINVAL, b, eb == EBADF);
  });
  EXPECT_EQ(r.out, "-1 1 -1 1\n");
  EXPECT_NE(r.err.find("timer_start: timerfd_settime: Invalid argument"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("timer_start: timerfd_settime: Bad file descriptor"), std::string::npos) << r.err;
}

}  // namespace
