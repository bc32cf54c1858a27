// Internal helpers of the clock code, shared by the waits and the file code.
#ifndef TV_FOUNDATION_CLOCK_INTERNAL_H
#define TV_FOUNDATION_CLOCK_INTERNAL_H

#include <time.h>

namespace tv {
namespace detail {

// The end of a wait. Every wait of the library measures its time-out on
// CLOCK_MONOTONIC, chosen once here: setting the wall clock must neither
// stretch nor cut a wait.
class Deadline {
public:
    // `ms` from now; INFINITE (0xFFFFFFFF) never expires.
    static Deadline AfterMs(unsigned long ms);
    static Deadline Never() { return Deadline(-1); }
    bool IsNever() const { return ns_ < 0; }
    bool Expired() const;
    // The absolute CLOCK_MONOTONIC time; only for a deadline that is not Never.
    timespec AsTimespec() const;
    // Milliseconds left, rounded up; INFINITE for Never.
    unsigned long RemainingMs() const;

private:
    explicit Deadline(long long ns) : ns_(ns) {}
    long long ns_;  // CLOCK_MONOTONIC nanoseconds; -1 for never
};

long long MonotonicNs();

// CLOCK_REALTIME now plus secs and msecs, with the nanoseconds rounded up to
// whole milliseconds when a millisecond part is added.
void DeadlineAfter(long secs, long msecs, timespec& deadline);
// Sleeps the whole `ms`, resuming after signals (unlike SleepEx, whose
// interrupted non-alertable sleep ends early by design).
void SleepMs(long ms);

}  // namespace detail
}  // namespace tv

#endif  // TV_FOUNDATION_CLOCK_INTERNAL_H
