// Waitable timers, armed a few hundred milliseconds ahead; their routines
// run in this thread's alertable sleeps.
#include <gtest/gtest.h>
#include <stdint.h>
#include <time.h>

#include <chrono>
#include <vector>

#include <tvcommonutil.h>

#include "thread_probe.h"

namespace {

struct Shot {
    int id;
    pid_t tid;
    timespec due;  // as passed to the routine
    double lateMs;
};
std::vector<Shot> shots;  // appended by routines, which run on the arming thread

long long Ns(const timespec& t) {
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

timespec RealtimeIn(long ms) {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    const long long ns = Ns(t) + ms * 1000000LL;
    return timespec{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
}

void Record(void* id, void* sec, void* nsec) {
    const timespec due = {static_cast<time_t>(reinterpret_cast<intptr_t>(sec)),
                          static_cast<long>(reinterpret_cast<intptr_t>(nsec))};
    shots.push_back(Shot{static_cast<int>(reinterpret_cast<intptr_t>(id)), tvtest::CurrentTid(),
                         due, (Ns(RealtimeIn(0)) - Ns(due)) / 1e6});
}

void* Id(int id) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(id));
}

// Runs routines until `n` have run, for at most 10 s.
void Collect(size_t n) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (shots.size() < n && std::chrono::steady_clock::now() < end) SleepEx(1000, TRUE);
}

}  // namespace

TEST(Timer, FiresInDueTimeOrderOnTimeAndOnTheArmingThread) {
    shots.clear();
    Handle* idle = CreateWaitableTimer(nullptr, FALSE, "idle");
    ASSERT_NE(nullptr, idle);
    EXPECT_EQ(kHandleTimer, idle->What());
    EXPECT_EQ(FALSE, CancelWaitableTimer(idle));  // never set
    EXPECT_EQ(FALSE, CancelWaitableTimer(nullptr));
    // Expiry is no signalled state: a single or mixed wait finds a timer
    // signalled at once, like any handle without wait logic.
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(idle, INFINITE, FALSE));
    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* mixed[2] = {ev, idle};
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, mixed, FALSE, 5000, FALSE));
    CloseHandle(ev);
    CloseHandle(idle);

    // Armed in this order, all within one second; 5 is cancelled, 6 closed,
    // 7 re-armed. Timers due at the same instant keep their arming order.
    const long dueMs[] = {900, 300, 500, 300, 400, 350, 1000};
    timespec due[7];
    Handle* t[7];
    const timespec base = RealtimeIn(0);
    for (int i = 0; i < 7; ++i) {
        const long long ns = Ns(base) + dueMs[i] * 1000000LL;
        due[i] = {static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
        t[i] = CreateWaitableTimer(nullptr, i == 0, nullptr);
        EXPECT_EQ(TRUE, SetWaitableTimer(t[i], &due[i], 0, Record, Id(i + 1), FALSE));
    }
    due[6] = due[2];
    EXPECT_EQ(TRUE, SetWaitableTimer(t[6], &due[6], 0, Record, Id(7), FALSE));
    EXPECT_EQ(TRUE, CancelWaitableTimer(t[4]));
    CloseHandle(t[5]);  // the last handle of an armed timer cancels it
    t[5] = nullptr;

    const pid_t self = tvtest::CurrentTid();
    Collect(5);
    ASSERT_EQ(5u, shots.size());
    const int order[] = {2, 4, 3, 7, 1};
    for (int i = 0; i < 5; ++i) {
        const Shot& s = shots[i];
        EXPECT_EQ(order[i], s.id) << i;
        EXPECT_EQ(self, s.tid);
        EXPECT_EQ(Ns(due[order[i] - 1]), Ns(s.due)) << s.id;
        EXPECT_GE(s.lateMs, 0.0) << s.id;
        EXPECT_LT(s.lateMs, 500.0) << s.id;  // not a whole second late
    }
    // One-shot timers are no longer queued; a manual-reset one shows fired.
    EXPECT_EQ(Timer::kFired, static_cast<Timer*>(t[0])->GetState());
    EXPECT_EQ(Timer::kIdle, static_cast<Timer*>(t[1])->GetState());
    EXPECT_EQ(FALSE, CancelWaitableTimer(t[1]));
    // The cancelled and the closed timer were due before the last ones, so
    // their routines would have run by now.
    EXPECT_EQ(0u, SleepEx(10, TRUE));
    EXPECT_EQ(5u, shots.size());
    for (Handle* h : t) CloseHandle(h);
}
