// Pieces of the clock helpers that tests check without the real clock.
#pragma once

#include <stdint.h>
#include <time.h>

namespace kelo::timeutil {

// Milliseconds to seconds and nanoseconds with signed, truncating division.
struct timespec ms_to_interval(int ms);
// The wall-clock millisecond value for a clock reading (32-bit wrap kept).
int64_t realtime_ms_from(int64_t sec, long nsec);

}  // namespace kelo::timeutil
