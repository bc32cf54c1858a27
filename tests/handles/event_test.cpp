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

bool IsSignalled(Handle* h) {
    return static_cast<Event*>(h)->EventIsSignaled() != 0;
}

// Starts `fn` on a thread and returns once that thread is asleep in the
// kernel (inside the wait under test).
template <typename Fn>
std::thread StartBlocked(Fn fn) {
    std::atomic<pid_t> tid{0};
    std::thread t([&tid, fn]() {
        tid = tvtest::CurrentTid();
        fn();
    });
    while (tid.load() == 0) std::this_thread::yield();
    EXPECT_TRUE(tvtest::WaitUntilSleeping(tid.load()));
    return t;
}

}  // namespace

TEST(Event, ZeroTimeoutPollsAndAutoResetConsumes) {
    Handle* autoEv = CreateEvent(nullptr, FALSE, FALSE, "same-name");
    Handle* other = CreateEvent(nullptr, FALSE, FALSE, "same-name");
    EXPECT_NE(autoEv, other) << "names are never looked up";
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(autoEv, 0, FALSE));
    EXPECT_EQ(TRUE, SetEvent(autoEv));
    EXPECT_FALSE(IsSignalled(other));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(autoEv, 0, FALSE));
    EXPECT_FALSE(IsSignalled(autoEv));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(autoEv, 0, FALSE));

    Handle* manual = CreateEvent(nullptr, TRUE, TRUE, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(manual, 0, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(manual, 0, FALSE));
    EXPECT_TRUE(IsSignalled(manual));
    EXPECT_EQ(TRUE, ResetEvent(manual));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(manual, 0, FALSE));
    EXPECT_EQ(kHandleEvent, manual->What());
    CloseHandle(autoEv);
    CloseHandle(other);
    CloseHandle(manual);
}

TEST(Event, TimedWaitHonoursSubSecondTimeouts) {
    Handle* e = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    auto t0 = Clock::now();
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(e, 300, FALSE));
    long spent = MsSince(t0);
    EXPECT_GE(spent, 290);
    EXPECT_LT(spent, 3000);

    std::thread setter;
    std::atomic<bool> go{false};
    setter = std::thread([&] {
        while (!go) std::this_thread::yield();
        SetEvent(e);
    });
    t0 = Clock::now();
    go = true;
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(e, 5000, FALSE));
    EXPECT_LT(MsSince(t0), 4000);
    setter.join();
    CloseHandle(e);
}

TEST(Event, PulseReleasesAllManualWaitersAndAtMostOneAutoWaiter) {
    Handle* manual = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(StartBlocked([&] {
            if (WaitForSingleObjectEx(manual, INFINITE, FALSE) == WAIT_OBJECT_0) ++released;
        }));
    }
    EXPECT_EQ(TRUE, PulseEvent(manual));
    for (auto& t : waiters) t.join();
    EXPECT_EQ(3, released.load());
    EXPECT_FALSE(IsSignalled(manual));

    // Nobody waiting: a pulse leaves an auto-reset event non-signalled.
    Handle* autoEv = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    EXPECT_EQ(TRUE, PulseEvent(autoEv));
    EXPECT_FALSE(IsSignalled(autoEv));
    released = 0;
    waiters.clear();
    for (int i = 0; i < 2; ++i) {
        waiters.push_back(StartBlocked([&] {
            if (WaitForSingleObjectEx(autoEv, 1500, FALSE) == WAIT_OBJECT_0) ++released;
        }));
    }
    PulseEvent(autoEv);
    for (auto& t : waiters) t.join();
    EXPECT_LE(released.load(), 1);
    CloseHandle(manual);
    CloseHandle(autoEv);
}

TEST(Event, ManualResetWaitsForReleasedWaitersToLeave) {
    Handle* e = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.push_back(StartBlocked([&] {
            if (WaitForSingleObjectEx(e, 20000, FALSE) == WAIT_OBJECT_0) ++released;
        }));
    }
    SetEvent(e);
    ResetEvent(e);  // returns only after every released waiter has left
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(e, 0, FALSE));
    for (auto& t : waiters) t.join();
    // Without the drain, waiters woken by the Set would find the event reset
    // and sleep on until their time-out.
    EXPECT_EQ(4, released.load());
    CloseHandle(e);
}

TEST(MultiWait, WaitAnyPicksLowestSignalledIndexAndConsumesOnlyIt) {
    Handle* ev[3] = {CreateEvent(nullptr, FALSE, FALSE, nullptr),
                     CreateEvent(nullptr, FALSE, FALSE, nullptr),
                     CreateEvent(nullptr, TRUE, FALSE, nullptr)};
    SetEvent(ev[1]);
    SetEvent(ev[2]);
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(3, ev, FALSE, 0, FALSE));
    EXPECT_FALSE(IsSignalled(ev[1]));
    EXPECT_TRUE(IsSignalled(ev[2]));
    // Manual-reset index 2 stays signalled and is returned again.
    EXPECT_EQ(WAIT_OBJECT_0 + 2, WaitForMultipleObjectsEx(3, ev, FALSE, 0, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0 + 2, WaitForMultipleObjectsEx(3, ev, FALSE, INFINITE, FALSE));
    ResetEvent(ev[2]);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(3, ev, FALSE, 0, FALSE));

    // Index 2 set later by another thread.
    std::thread setter;
    auto waiter = StartBlocked([&] {
        EXPECT_EQ(WAIT_OBJECT_0 + 2, WaitForMultipleObjectsEx(3, ev, FALSE, INFINITE, FALSE));
    });
    SetEvent(ev[2]);
    waiter.join();
    for (Handle* h : ev) CloseHandle(h);
}

TEST(MultiWait, WaitAllQuirks) {
    Handle* ev[2] = {CreateEvent(nullptr, FALSE, FALSE, nullptr),
                     CreateEvent(nullptr, FALSE, FALSE, nullptr)};
    // Both set: returns 0 at once and resets neither.
    SetEvent(ev[0]);
    SetEvent(ev[1]);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjectsEx(2, ev, TRUE, 0, FALSE));
    EXPECT_TRUE(IsSignalled(ev[0]));
    EXPECT_TRUE(IsSignalled(ev[1]));
    ResetEvent(ev[0]);
    ResetEvent(ev[1]);
    // Only one set later: the wait ends at that first posting with its index.
    auto waiter = StartBlocked([&] {
        EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, ev, TRUE, INFINITE, FALSE));
    });
    SetEvent(ev[1]);
    waiter.join();
    EXPECT_FALSE(IsSignalled(ev[1]));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(2, ev, TRUE, 200, FALSE));
    // A null entry never completes the immediate path.
    Handle* withNull[2] = {ev[0], nullptr};
    SetEvent(ev[0]);
    EXPECT_EQ(WAIT_TIMEOUT, ev[0]->WaitForMultipleHandles(2, withNull, TRUE, 0, FALSE));
    for (Handle* h : ev) CloseHandle(h);
}

TEST(MultiWait, DispatchByFirstHandleType) {
    EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjectsEx(0, nullptr, FALSE, 0, FALSE));
    // A homogeneous set of a class without its own multi-object wait returns
    // 0 at once, whatever its state.
    Handle* plain[2] = {new File(-1), new File(-1)};
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjectsEx(2, plain, TRUE, INFINITE, FALSE));
    // Mixed: an event and a plain handle go through synchronisation events;
    // the plain handle's event is not signalled, the event is.
    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* mixed[2] = {plain[0], ev};
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(2, mixed, FALSE, 0, FALSE));
    SetEvent(ev);
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, mixed, FALSE, 0, FALSE));
    // The mixed path polls an event without consuming it.
    EXPECT_TRUE(IsSignalled(ev));
    ResetEvent(ev);
    // Signal() on the plain handle wakes a mixed wait at its index.
    auto waiter = StartBlocked([&] {
        EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjectsEx(2, mixed, FALSE, INFINITE, FALSE));
    });
    plain[0]->Signal();
    waiter.join();
    CloseHandle(ev);
    CloseHandle(plain[0]);
    CloseHandle(plain[1]);
}

TEST(MultiWait, OneSetWakesOneOfSeveralWaitAnyThreads) {
    Handle* ev[2] = {CreateEvent(nullptr, FALSE, FALSE, nullptr),
                     CreateEvent(nullptr, FALSE, FALSE, nullptr)};
    std::atomic<int> woken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.push_back(StartBlocked([&] {
            if (WaitForMultipleObjectsEx(2, ev, FALSE, 1500, FALSE) == WAIT_OBJECT_0 + 1) ++woken;
        }));
    }
    SetEvent(ev[1]);
    for (auto& t : threads) t.join();
    EXPECT_EQ(1, woken.load());
    for (Handle* h : ev) CloseHandle(h);
}

TEST(Event, EventDataAndRevisionStamp) {
    Event* e = static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr));
    EXPECT_EQ(-1, e->GetEventData());
    EXPECT_EQ(-1, e->GetLastData());
    EXPECT_EQ(0u, e->GetLastRev());
    EXPECT_EQ(0, e->SetEventData(42));
    EXPECT_EQ(2, e->GetRefCount()) << "attached data holds a reference";
    e->RevStamp(7, TRUE);
    EXPECT_EQ(42, e->GetLastData());
    EXPECT_EQ(7u, e->GetLastRev());
    // Only the attaching thread detaches.
    std::thread([&] { e->SetEventData(-1); }).join();
    EXPECT_EQ(42, e->GetEventData());
    e->SetEventData(-1);
    EXPECT_EQ(-1, e->GetEventData());
    EXPECT_EQ(1, e->GetRefCount());
    CloseHandle(e);
}
