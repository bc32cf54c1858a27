// The timer queue works in whole seconds, so this file keeps to one test
// that arms several timers at once and checks them together (about 2 s).
#include <gtest/gtest.h>
#include <stdint.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include <tvcommonutil.h>

#include "thread_probe.h"

namespace {

struct Shot {
    int id;
    pid_t tid;
    timespec due;    // as passed to the routine
    timespec ranAt;  // CLOCK_REALTIME when it ran
};

struct Log {
    std::vector<Shot> shots;  // touched only by the arming thread
};

struct Arg {
    Log* log;
    int id;
};

void Record(void* p, void* sec, void* nsec) {
    Arg* a = static_cast<Arg*>(p);
    Shot s;
    s.id = a->id;
    s.tid = tvtest::CurrentTid();
    s.due.tv_sec = static_cast<time_t>(reinterpret_cast<intptr_t>(sec));
    s.due.tv_nsec = static_cast<long>(reinterpret_cast<intptr_t>(nsec));
    clock_gettime(CLOCK_REALTIME, &s.ranAt);
    a->log->shots.push_back(s);
}

double Seconds(const timespec& t) {
    return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9;
}

}  // namespace

TEST(Timer, RoutinesRunOnArmingThreadInQueueOrderAndNeverWhenCancelled) {
    Log log;
    Handle* idle = CreateWaitableTimer(nullptr, FALSE, "idle");
    ASSERT_NE(nullptr, idle);
    EXPECT_EQ(kHandleTimer, idle->What());
    EXPECT_EQ(FALSE, CancelWaitableTimer(idle));  // never set
    EXPECT_EQ(FALSE, CancelWaitableTimer(nullptr));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(idle, INFINITE, FALSE));
    CloseHandle(idle);

    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    // Second S starts at least half a second from now, so everything below
    // is armed (and cancelled) well before anything is due.
    const time_t S = now.tv_sec + (now.tv_nsec < 500000000 ? 1 : 2);
    const timespec at0 = {S, 0}, at100 = {S, 100000000}, at500 = {S, 500000000},
                   at900 = {S, 900000000}, at950 = {S, 950000000}, far = {S + 100, 0};

    Arg cancelled{&log, 1}, closed{&log, 2}, late{&log, 3}, early{&log, 4}, rearmed{&log, 5};
    Handle* tCancelled = CreateWaitableTimer(nullptr, FALSE, nullptr);
    Handle* tClosed = CreateWaitableTimer(nullptr, FALSE, nullptr);
    Handle* tLate = CreateWaitableTimer(nullptr, TRUE, nullptr);
    Handle* tEarly = CreateWaitableTimer(nullptr, FALSE, nullptr);
    Handle* tRearmed = CreateWaitableTimer(nullptr, FALSE, nullptr);

    // All due within second S. Queued in this order; were they ordered by
    // nanoseconds, "early" would run first.
    EXPECT_EQ(TRUE, SetWaitableTimer(tCancelled, &at0, 0, Record, &cancelled, FALSE));
    EXPECT_EQ(TRUE, SetWaitableTimer(tClosed, &at500, 0, Record, &closed, FALSE));
    EXPECT_EQ(TRUE, SetWaitableTimer(tRearmed, &far, 0, Record, &rearmed, FALSE));
    EXPECT_EQ(TRUE, SetWaitableTimer(tLate, &at900, 0, Record, &late, FALSE));
    EXPECT_EQ(TRUE, SetWaitableTimer(tEarly, &at100, 0, Record, &early, FALSE));
    // Re-arming a queued timer replaces its expiry (it fires once, at S).
    EXPECT_EQ(TRUE, SetWaitableTimer(tRearmed, &at950, 0, Record, &rearmed, FALSE));
    EXPECT_EQ(TRUE, CancelWaitableTimer(tCancelled));
    // Closing the last handle of an armed timer cancels it.
    CloseHandle(tClosed);

    const pid_t self = tvtest::CurrentTid();
    auto start = std::chrono::steady_clock::now();
    DWORD first = SleepEx(5000, TRUE);
    EXPECT_EQ(WAIT_IO_COMPLETION, first);
    while (log.shots.size() < 3 &&
           std::chrono::steady_clock::now() - start < std::chrono::seconds(10))
        SleepEx(5000, TRUE);

    ASSERT_EQ(3u, log.shots.size());
    const int expected[] = {3, 4, 5};
    const timespec dues[] = {at900, at100, at950};
    for (int i = 0; i < 3; ++i) {
        const Shot& s = log.shots[i];
        EXPECT_EQ(expected[i], s.id);
        EXPECT_EQ(self, s.tid);  // on the arming thread, not the timer thread
        EXPECT_EQ(dues[i].tv_sec, s.due.tv_sec);
        EXPECT_EQ(dues[i].tv_nsec, s.due.tv_nsec);
        // Not before the due time (or, behind the head, the head's due
        // time), and not long after.
        EXPECT_GE(Seconds(s.ranAt), std::max(Seconds(at900), Seconds(dues[i])) - 0.002);
        EXPECT_LT(Seconds(s.ranAt), Seconds(dues[i]) + 3.0);
    }
    // One-shot timers are no longer queued; a manual-reset one shows fired.
    EXPECT_EQ(Timer::kFired, static_cast<Timer*>(tLate)->GetState());
    EXPECT_EQ(Timer::kIdle, static_cast<Timer*>(tEarly)->GetState());
    EXPECT_EQ(FALSE, CancelWaitableTimer(tEarly));
    EXPECT_EQ(FALSE, CancelWaitableTimer(tRearmed));

    // Nothing else arrives: the cancelled and the closed timer were due
    // before the others, so their routines would already have run.
    EXPECT_EQ(0u, SleepEx(10, TRUE));
    EXPECT_EQ(3u, log.shots.size());

    CloseHandle(tCancelled);
    CloseHandle(tLate);
    CloseHandle(tEarly);
    CloseHandle(tRearmed);
}
