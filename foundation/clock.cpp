// Time values and the millisecond clocks. Everything reads the wall clock;
// callers only ever compare or subtract readings.
#include <errno.h>
#include <limits.h>
#include <sys/time.h>
#include <time.h>

#include "foundation/clock_internal.h"
#include "tvcommonutil/foundation.h"
#include "tvcommonutil/handles.h"

const CTimeValue CTimeValue::maxTime(LONG_MAX, 999999);

void CTimeValue::Normalize() {
    if (usec_ > 999999) {
        while (usec_ > 999999) {
            sec_ += 1;
            usec_ -= 1000000;
        }
    } else {
        while (usec_ < -999999) {
            sec_ -= 1;
            usec_ += 1000000;
        }
    }
    if (sec_ > 0 && usec_ < 0) {
        sec_ -= 1;
        usec_ += 1000000;
    } else if (sec_ < 0 && usec_ > 0) {
        sec_ += 1;
        usec_ -= 1000000;
    }
}

CTimeValue CTimeValue::GetCurrentTime() {
    timeval tv;
    gettimeofday(&tv, nullptr);
    return CTimeValue(tv);
}

unsigned long long GetTickCount() {
    timeval tv;
    if (gettimeofday(&tv, nullptr) != 0) return 0;
    return static_cast<unsigned long long>(tv.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(tv.tv_usec) / 1000ULL;
}

int GetPreciseTime(int& sec, int& msec) {
    unsigned long long count = GetTickCount();
    unsigned long long ms = count % 1000ULL;
    msec = static_cast<int>(ms);
    sec = static_cast<int>((count - ms) / 1000ULL);
    return sec;
}

namespace {
// The spin flag serialises the update of the two words below.
long TimeLock = 0;
unsigned long long crossing = 0;
unsigned long long hightime = 0;
}  // namespace

unsigned long long GetMilliTime() {
    while (InterlockedExchange(&TimeLock, 1) == 1) {
        timespec two_ms = {0, 2000000};
        nanosleep(&two_ms, nullptr);
    }
    unsigned long long tick = GetTickCount();
    unsigned long long bit = tick & 0x80000000ULL;
    if (bit != crossing) {
        crossing = bit;
        hightime += 0x80000000ULL;
    }
    unsigned long long result = (tick & 0x7FFFFFFFULL) + hightime;
    InterlockedExchange(&TimeLock, 0);
    return result;
}

unsigned long long GetElapsedTime(unsigned long long start) {
    return GetMilliTime() - start;
}

void FixTimeout(timespec& deadline, long ms) {
    long secPart = 0;
    long msPart = 0;
    // Sub-second time-outs collapse to "now", deliberately.
    if (ms != 0 && ms > 999) {
        secPart = ms / 1000;
        msPart = ms % 1000;
    }
    tv::detail::DeadlineAfter(secPart, msPart, deadline);
}

namespace tv {
namespace detail {

void DeadlineAfter(long secs, long msecs, timespec& deadline) {
    clock_gettime(CLOCK_REALTIME, &deadline);
    if (msecs != 0) {
        long sum = (deadline.tv_nsec + 999999) / 1000000 + msecs;
        if (sum > 999) {
            deadline.tv_sec += sum / 1000;
            sum %= 1000;
        }
        deadline.tv_nsec = sum * 1000000;
    }
    deadline.tv_sec += secs;
}

long long MonotonicNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

Deadline Deadline::AfterMs(unsigned long ms) {
    if (ms == 0xFFFFFFFFUL) return Never();
    return Deadline(MonotonicNs() + static_cast<long long>(ms) * 1000000LL);
}

bool Deadline::Expired() const {
    return ns_ >= 0 && MonotonicNs() >= ns_;
}

timespec Deadline::AsTimespec() const {
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ns_ / 1000000000LL);
    ts.tv_nsec = static_cast<long>(ns_ % 1000000000LL);
    return ts;
}

unsigned long Deadline::RemainingMs() const {
    if (ns_ < 0) return 0xFFFFFFFFUL;
    long long left = ns_ - MonotonicNs();
    return left <= 0 ? 0 : static_cast<unsigned long>((left + 999999) / 1000000);
}

void SleepMs(long ms) {
    timespec left = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

}  // namespace detail
}  // namespace tv
