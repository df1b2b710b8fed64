/* Clocks, uptime, local-time conversion and timerfd timers. */
#ifndef KELO_TIME_H
#define KELO_TIME_H

#include <stdint.h>
#include <time.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* tzset() (so a changed TZ or zone file counts), then localtime_r(t, out):
 * out, or NULL on failure. */
KELO_EXPORT struct tm *time_utc2local(const time_t *t, struct tm *out);
/* Whole seconds of CLOCK_MONOTONIC_COARSE. */
KELO_EXPORT int32_t time_monotonic(void);
/* Wall-clock milliseconds as older services compute them: the seconds times
 * 1000 wrap in signed 32 bits, are widened with their sign, and the
 * milliseconds are added. Present-day results are therefore NOT epoch
 * milliseconds; use them only for differences over short spans. */
KELO_EXPORT int64_t time_realtime_ms(void);
/* Deprecated: prints "timestamp is deprecated." to stderr on every call and
 * returns time_monotonic(). */
KELO_EXPORT int32_t timestamp(void);
/* Seconds since boot (sysinfo); logs and aborts if sysinfo fails. */
KELO_EXPORT int32_t time_uptime(void);
/* Deprecated: prints "timer_setup is deprecated." to stderr on every call and
 * returns timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC) (or -1).
 * The caller reads the 8-byte expiry count and closes the descriptor. */
KELO_EXPORT int timer_setup(void);
/* Arms fd relative to now: first expiry after first_ms, then every
 * interval_ms (0: one shot). first_ms 0 disarms. 0, or -1 (logged, errno kept). */
KELO_EXPORT int timer_start(int fd, int first_ms, int interval_ms);

KELO_END_DECLS

#endif
