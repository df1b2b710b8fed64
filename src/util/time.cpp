// Clock readers and timerfd timers.
#include "kelo/time.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysinfo.h>
#include <sys/timerfd.h>

#include "log/log_internal.h"
#include "util/time_internal.h"

namespace kelo::timeutil {

// Seconds and nanoseconds of a millisecond count; signed, truncating.
struct timespec ms_to_interval(int ms) {
  struct timespec ts;
  ts.tv_sec = ms / 1000;
  ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  return ts;
}

// (int32)(sec * 1000) sign-extended, plus nsec / 1e6: the 32-bit product
// older services were built with. Done in uint32 so the wrap is defined.
int64_t realtime_ms_from(int64_t sec, long nsec) {
  uint32_t product = static_cast<uint32_t>(sec) * 1000u;
  return static_cast<int64_t>(static_cast<int32_t>(product)) + nsec / 1000000L;
}

}  // namespace kelo::timeutil

extern "C" {

KELO_EXPORT struct tm *time_utc2local(const time_t *t, struct tm *out) {
  tzset();
  return localtime_r(t, out);
}

KELO_EXPORT int32_t time_monotonic(void) {
  struct timespec ts = {0, 0};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<int32_t>(ts.tv_sec);
}

KELO_EXPORT int64_t time_realtime_ms(void) {
  struct timespec ts = {0, 0};
  clock_gettime(CLOCK_REALTIME, &ts);
  return kelo::timeutil::realtime_ms_from(ts.tv_sec, ts.tv_nsec);
}

KELO_EXPORT int32_t timestamp(void) {
  fprintf(stderr, "%s is deprecated.\n", "timestamp");
  return time_monotonic();
}

KELO_EXPORT int32_t time_uptime(void) {
  struct sysinfo si;
  if (sysinfo(&si) != 0) {
    log_emerg("%s: Fail to get sysinfo.", "time_uptime");
    abort();
  }
  return static_cast<int32_t>(si.uptime);
}

KELO_EXPORT int timer_setup(void) {
  fprintf(stderr, "%s is deprecated.\n", "timer_setup");
  return timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
}

KELO_EXPORT int timer_start(int fd, int first_ms, int interval_ms) {
  struct itimerspec its;
  its.it_value = kelo::timeutil::ms_to_interval(first_ms);
  its.it_interval = kelo::timeutil::ms_to_interval(interval_ms);
  if (timerfd_settime(fd, 0, &its, nullptr) != 0) {
    kelo::log::lib_log(LOG_ERR, "%s: timerfd_settime: %s", "timer_start", strerror(errno));
    return -1;
  }
  return 0;
}

}  // extern "C"
