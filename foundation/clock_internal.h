// Internal helpers of the clock code, shared by the waits and the file code.
#ifndef TV_FOUNDATION_CLOCK_INTERNAL_H
#define TV_FOUNDATION_CLOCK_INTERNAL_H

#include <time.h>

namespace tv {
namespace detail {

// CLOCK_REALTIME now plus secs and msecs, with the nanoseconds rounded up to
// whole milliseconds when a millisecond part is added.
void DeadlineAfter(long secs, long msecs, timespec& deadline);
// Sleeps the whole `ms`, resuming after signals (unlike SleepEx, whose
// interrupted non-alertable sleep ends early by design).
void SleepMs(long ms);

}  // namespace detail
}  // namespace tv

#endif  // TV_FOUNDATION_CLOCK_INTERNAL_H
