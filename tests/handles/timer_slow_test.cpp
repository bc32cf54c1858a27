// A periodic timer needs several whole seconds to show its period.
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <thread>

#include <tvcommonutil.h>

#include "thread_probe.h"

namespace {

struct Ticks {
    int count = 0;  // touched only by the arming thread
    pid_t tid = 0;
    bool elsewhere = false;
};

void Tick(void* p, void*, void*) {
    Ticks* t = static_cast<Ticks*>(p);
    ++t->count;
    if (tvtest::CurrentTid() != t->tid) t->elsewhere = true;
}

double Now() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<double>(t.tv_sec) + t.tv_nsec / 1e9;
}

}  // namespace

// The arming thread waits alertably on a semaphore: every expiry ends the
// wait with WAIT_IO_COMPLETION and runs the routine there.
TEST(TimerSlow, PeriodicTimerFiresEverySecondUntilCancelled) {
    Handle* sem = CreateSemaphore(nullptr, 0, 1, nullptr);
    Handle* timer = CreateWaitableTimer(nullptr, FALSE, "periodic");
    std::atomic<int> ticks{0};
    std::atomic<int> waits{0};
    std::atomic<bool> elsewhere{false};
    std::atomic<DWORD> afterCancel{0xDEAD};
    std::atomic<BOOL> cancelled{-1};
    double armedAt = 0, thirdAt = 0;
    std::thread owner([&] {
        Ticks t;
        t.tid = tvtest::CurrentTid();
        timespec due;
        clock_gettime(CLOCK_REALTIME, &due);
        due.tv_sec += 1;
        armedAt = Now();
        SetWaitableTimer(timer, &due, 1000, Tick, &t, FALSE);
        while (t.count < 3 && waits < 20) {
            ++waits;
            if (WaitForSingleObjectEx(sem, 5000, TRUE) != WAIT_IO_COMPLETION) break;
        }
        thirdAt = Now();
        cancelled = CancelWaitableTimer(timer);
        int seen = t.count;
        // Longer than two periods: nothing more may arrive.
        afterCancel = WaitForSingleObjectEx(sem, 2500, TRUE);
        ticks = seen == t.count ? t.count : -1;
        elsewhere = t.elsewhere;
    });
    owner.join();
    EXPECT_EQ(3, ticks.load());
    EXPECT_FALSE(elsewhere.load());
    EXPECT_EQ(TRUE, cancelled.load());
    EXPECT_EQ(WAIT_TIMEOUT, afterCancel.load());
    // Three expiries about a second apart, the first one second after arming.
    EXPECT_GE(thirdAt - armedAt, 2.9);
    EXPECT_LT(thirdAt - armedAt, 12.0);
    CloseHandle(timer);
    CloseHandle(sem);
}
