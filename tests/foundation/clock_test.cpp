#include <gtest/gtest.h>
#include <time.h>

#include <tvcommonutil.h>

TEST(TimeValue, NormalisesSignsAndCarries) {
    CTimeValue a(5, -1);
    EXPECT_EQ(4, a.sec());
    EXPECT_EQ(999999, a.usec());
    CTimeValue b(-5, 1);
    EXPECT_EQ(-4, b.sec());
    EXPECT_EQ(-999999, b.usec());
    CTimeValue c(0, -7);
    EXPECT_EQ(0, c.sec());
    EXPECT_EQ(-7, c.usec());
    CTimeValue d(1, 2500000);
    EXPECT_EQ(3, d.sec());
    EXPECT_EQ(500000, d.usec());
    CTimeValue e(0, -2500000);
    EXPECT_EQ(-2, e.sec());
    EXPECT_EQ(-500000, e.usec());
    EXPECT_EQ(999999, CTimeValue::maxTime.usec());
    EXPECT_EQ(0x7FFFFFFFFFFFFFFFL, CTimeValue::maxTime.sec());
}

namespace {
long long Nanos(const timespec& t) {
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}
long long NowNanos() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return Nanos(t);
}
}  // namespace

TEST(FixTimeout, SubSecondTimeoutsExpireAtOnce) {
    for (long ms : {0L, 1L, 500L, 999L, -5L}) {
        long long before = NowNanos();
        timespec d;
        FixTimeout(d, ms);
        long long after = NowNanos();
        EXPECT_GE(Nanos(d), before) << ms;
        EXPECT_LE(Nanos(d), after) << ms;
    }
}

TEST(FixTimeout, WholeSecondsKeepNanosecondsAndFractionsRoundUp) {
    long long before = NowNanos();
    timespec d;
    FixTimeout(d, 1000);
    long long after = NowNanos();
    EXPECT_GE(Nanos(d), before + 1000000000LL);
    EXPECT_LE(Nanos(d), after + 1000000000LL);

    before = NowNanos();
    FixTimeout(d, 1500);
    after = NowNanos();
    EXPECT_EQ(0, d.tv_nsec % 1000000) << "nanoseconds are whole milliseconds";
    EXPECT_GE(Nanos(d), before + 1500000000LL);
    EXPECT_LE(Nanos(d), after + 1501000000LL);
    EXPECT_LT(d.tv_nsec, 1000000000L);
}

TEST(Clocks, TickCountAndPreciseTimeAgree) {
    unsigned long long t0 = GetTickCount();
    int sec = 0, msec = 0;
    int r = GetPreciseTime(sec, msec);
    unsigned long long t1 = GetTickCount();
    EXPECT_EQ(r, sec);
    EXPECT_GE(msec, 0);
    EXPECT_LT(msec, 1000);
    // GetPreciseTime truncates the seconds to int; compare modulo 2^32 s.
    EXPECT_LE((t0 / 1000) & 0xFFFFFFFFULL, static_cast<unsigned>(sec) + 0ULL + 1);
    EXPECT_LE(t0, t1);
    EXPECT_GT(t0, 1600000000000ULL) << "milliseconds since the epoch, not wrapped";
}

TEST(Clocks, MilliTimeMeasuresIntervals) {
    const unsigned long long start = GetMilliTime();
    EXPECT_LT(GetElapsedTime(start), 5000u);
    EXPECT_GE(GetElapsedTime(start - 30), 30u);
}
