#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

#include "thread_probe.h"

namespace {

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

// A thread blocked in a wait on `h`; its result lands in `result`.
struct Waiter {
    std::atomic<pid_t> tid{0};
    std::atomic<DWORD> result{0xDEAD};
    std::thread thread;

    Waiter(Handle* h, DWORD ms, BOOL alertable) {
        thread = std::thread([this, h, ms, alertable] {
            tid = tvtest::CurrentTid();
            result = WaitForSingleObjectEx(h, ms, alertable);
        });
        while (tid.load() == 0) std::this_thread::yield();
    }
    bool Done() const { return result.load() != 0xDEAD; }
};

// Polls `done` for up to 10 s.
template <typename F>
bool Eventually(F done) {
    for (int i = 0; i < 10000 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
}

std::atomic<int> apc_runs{0};
std::atomic<pid_t> apc_tid{0};
void CountApc(ULONG_PTR) {
    ++apc_runs;
    apc_tid = tvtest::CurrentTid();
}

}  // namespace

TEST(Semaphore, CountsLimitsAndOverRelease) {
    EXPECT_EQ(nullptr, CreateSemaphore(nullptr, 2, 1, "s"));
    EXPECT_EQ(nullptr, CreateSemaphore(nullptr, -1, 1, "s"));
    EXPECT_EQ(nullptr, CreateSemaphore(nullptr, 0, -1, "s"));
    Handle* zero = CreateSemaphore(nullptr, 0, 0, nullptr);
    ASSERT_NE(nullptr, zero);
    EXPECT_EQ(FALSE, ReleaseSemaphore(zero, 1, nullptr));
    CloseHandle(zero);

    Handle* s = CreateSemaphore(nullptr, 0, 2, "name");
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(kHandleSemaphore, s->What());
    long prev = 77;
    EXPECT_EQ(FALSE, ReleaseSemaphore(nullptr, 1, &prev));
    EXPECT_EQ(FALSE, ReleaseSemaphore(s, 0, &prev));
    EXPECT_EQ(FALSE, ReleaseSemaphore(s, -1, &prev));
    // No partial release: the whole request is refused and prev untouched.
    EXPECT_EQ(FALSE, ReleaseSemaphore(s, 3, &prev));
    EXPECT_EQ(77, prev);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(s, 0, FALSE));
    EXPECT_EQ(TRUE, ReleaseSemaphore(s, 2, &prev));
    EXPECT_EQ(0, prev);
    EXPECT_EQ(FALSE, ReleaseSemaphore(s, 1, &prev));
    EXPECT_EQ(0, prev);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(s, 0, FALSE));
    EXPECT_EQ(TRUE, ReleaseSemaphore(s, 1, &prev));
    EXPECT_EQ(1, prev);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(s, 0, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(s, INFINITE, FALSE));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(s, 0, FALSE));

    // Sub-second time-outs are honoured (not collapsed to "now").
    auto start = Clock::now();
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(s, 150, FALSE));
    EXPECT_GE(MsSince(start), 140);
    EXPECT_LT(MsSince(start), 5000);

    // A set of semaphores waits and takes one unit.
    Handle* t = CreateSemaphore(nullptr, 0, 1, nullptr);
    Handle* set[2] = {s, t};
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(2, set, FALSE, 20, FALSE));
    ReleaseSemaphore(t, 1, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, set, FALSE, INFINITE, FALSE));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(t, 0, FALSE));
    CloseHandle(t);
    EXPECT_EQ(TRUE, CloseHandle(s));
}

// A release of n wakes exactly n of the sleepers, whatever kind of wait they
// are in: first one of three, then the remaining two.
TEST(Semaphore, ReleaseOfNWakesExactlyNWaiters) {
    Handle* s = CreateSemaphore(nullptr, 0, 10, nullptr);
    Waiter a(s, INFINITE, FALSE);
    Waiter b(s, 20000, TRUE);
    Waiter c(s, 20000, FALSE);
    Waiter* all[] = {&a, &b, &c};
    for (Waiter* w : all) ASSERT_TRUE(tvtest::WaitUntilSleeping(w->tid));
    auto done = [&] {
        int n = 0;
        for (Waiter* w : all) n += w->Done() ? 1 : 0;
        return n;
    };

    long prev = -1;
    EXPECT_EQ(TRUE, ReleaseSemaphore(s, 1, &prev));
    EXPECT_EQ(0, prev);
    ASSERT_TRUE(Eventually([&] { return done() == 1; }));
    // The other two are back asleep without a unit.
    for (Waiter* w : all) {
        if (!w->Done()) {
            ASSERT_TRUE(tvtest::WaitUntilSleeping(w->tid));
        }
    }
    EXPECT_EQ(1, done());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(s, 0, FALSE));

    EXPECT_EQ(TRUE, ReleaseSemaphore(s, 2, &prev));
    EXPECT_EQ(0, prev);
    for (Waiter* w : all) {
        w->thread.join();
        EXPECT_EQ(WAIT_OBJECT_0, w->result.load());
    }
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(s, 0, FALSE));
    CloseHandle(s);
}

TEST(Semaphore, AlertableTimedWaitEndsForApcButInfiniteWaitDoesNot) {
    Handle* s = CreateSemaphore(nullptr, 0, 10, nullptr);
    Handle* target = nullptr;
    std::atomic<DWORD> result{0xDEAD};
    std::atomic<pid_t> tid{0};
    std::atomic<long> waited_ms{0};
    std::thread t([&] {
        target = GetCurrentThread();
        tid = tvtest::CurrentTid();
        auto start = Clock::now();
        result = WaitForSingleObjectEx(s, 20000, TRUE);
        waited_ms = MsSince(start);
    });
    while (tid.load() == 0) std::this_thread::yield();
    ASSERT_TRUE(tvtest::WaitUntilSleeping(tid));
    apc_runs = 0;
    EXPECT_EQ(0u, QueueUserAPC(CountApc, target, 5));
    t.join();
    EXPECT_EQ(WAIT_IO_COMPLETION, result.load());
    EXPECT_EQ(1, apc_runs.load());
    EXPECT_EQ(tid.load(), apc_tid.load());
    EXPECT_LT(waited_ms.load(), 10000);

    // An INFINITE alertable wait is not ended by an APC; the unit ends it and
    // the APC stays queued.
    result = 0xDEAD;
    tid = 0;
    std::thread u([&] {
        target = GetCurrentThread();
        tid = tvtest::CurrentTid();
        result = WaitForSingleObjectEx(s, INFINITE, TRUE);
        SleepEx(1, TRUE);  // the APC runs here
    });
    while (tid.load() == 0) std::this_thread::yield();
    ASSERT_TRUE(tvtest::WaitUntilSleeping(tid));
    apc_runs = 0;
    EXPECT_EQ(0u, QueueUserAPC(CountApc, target, 6));
    ASSERT_TRUE(tvtest::WaitUntilSleeping(tid));
    EXPECT_EQ(0xDEADu, result.load());
    EXPECT_EQ(TRUE, ReleaseSemaphore(s, 1, nullptr));
    u.join();
    EXPECT_EQ(WAIT_OBJECT_0, result.load());
    EXPECT_EQ(1, apc_runs.load());
    CloseHandle(s);
}
