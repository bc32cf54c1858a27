// Waitable timers; their routines run in this thread's alertable sleeps.
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
    long long due;  // as passed to the routine, ns of CLOCK_REALTIME
    double lateMs;
};
std::vector<Shot> shots;  // appended by routines, which run on the arming thread

long long NowNs() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

timespec At(long long ns) {
    return timespec{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
}

void Record(void* id, void* sec, void* nsec) {
    const long long due =
        reinterpret_cast<intptr_t>(sec) * 1000000000LL + reinterpret_cast<intptr_t>(nsec);
    shots.push_back(Shot{static_cast<int>(reinterpret_cast<intptr_t>(id)), tvtest::CurrentTid(),
                         due, (NowNs() - due) / 1e6});
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
    long long due[7];
    Handle* t[7];
    const long long base = NowNs();
    for (int i = 0; i < 7; ++i) {
        due[i] = base + dueMs[i] * 1000000LL;
        t[i] = CreateWaitableTimer(nullptr, i == 0, nullptr);
        const timespec at = At(due[i]);
        EXPECT_EQ(TRUE, SetWaitableTimer(t[i], &at, 0, Record, Id(i + 1), FALSE));
    }
    due[6] = due[2];
    const timespec at = At(due[6]);
    EXPECT_EQ(TRUE, SetWaitableTimer(t[6], &at, 0, Record, Id(7), FALSE));
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
        EXPECT_EQ(due[order[i] - 1], s.due) << s.id;
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

// A periodic timer re-arms at its previous due time plus the period: a due
// time a second in the past gives one expiry at once and then the period,
// not a burst of the missed ones; a short period does not flood its owner,
// whose non-alertable sleep lasts its whole time meanwhile.
TEST(Timer, PeriodicTimerKeepsItsPeriodWithoutBurstsOrFloods) {
    shots.clear();
    Handle* t = CreateWaitableTimer(nullptr, FALSE, "periodic");
    const long periodMs = 20;
    const long long first = NowNs() - 1000000000LL;
    const timespec firstAt = At(first);
    SleepEx(1, TRUE);  // the thread has looked for APCs before
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(TRUE, SetWaitableTimer(t, &firstAt, periodMs, Record, Id(1), FALSE));
    Sleep(200);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(195));
    Collect(8);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count();
    EXPECT_EQ(TRUE, CancelWaitableTimer(t));
    SleepEx(1, TRUE);  // an expiry queued before the cancel
    const size_t n = shots.size();
    ASSERT_GE(n, 8u);
    EXPECT_LE(static_cast<long>(n), ms / periodMs + 2);
    for (size_t i = 0; i < n; ++i) {
        const long long sinceFirst = shots[i].due - first;
        EXPECT_EQ(0, sinceFirst % (periodMs * 1000000LL)) << i;
        if (i == 0) continue;
        EXPECT_GT(shots[i].due, shots[i - 1].due);
        EXPECT_LE(shots[i].lateMs, 500.0) << i;
    }
    // Nothing arrives once cancelled.
    EXPECT_EQ(0u, SleepEx(5 * periodMs, TRUE));
    EXPECT_EQ(n, shots.size());
    CloseHandle(t);
}
