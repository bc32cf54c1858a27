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

TEST(MultiWait, WaitAllWaitsForEveryObjectAndConsumesThemTogether) {
    Handle* ev[2] = {CreateEvent(nullptr, FALSE, FALSE, nullptr),
                     CreateEvent(nullptr, FALSE, FALSE, nullptr)};
    SetEvent(ev[0]);
    SetEvent(ev[1]);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjectsEx(2, ev, TRUE, 0, FALSE));
    EXPECT_FALSE(IsSignalled(ev[0]));
    EXPECT_FALSE(IsSignalled(ev[1]));
    // One of two set: nothing is consumed, the wait goes on.
    std::atomic<DWORD> result{0xDEAD};
    std::atomic<pid_t> tid{0};
    std::thread waiter([&] {
        tid = tvtest::CurrentTid();
        result = WaitForMultipleObjectsEx(2, ev, TRUE, INFINITE, FALSE);
    });
    while (tid.load() == 0) std::this_thread::yield();
    ASSERT_TRUE(tvtest::WaitUntilSleeping(tid.load()));
    SetEvent(ev[1]);
    ASSERT_TRUE(tvtest::WaitUntilSleeping(tid.load()));
    EXPECT_EQ(0xDEADu, result.load());
    EXPECT_TRUE(IsSignalled(ev[1]));
    SetEvent(ev[0]);
    waiter.join();
    EXPECT_EQ(WAIT_OBJECT_0, result.load());
    EXPECT_FALSE(IsSignalled(ev[0]));
    EXPECT_FALSE(IsSignalled(ev[1]));
    // A null entry never completes a wait-all.
    Handle* withNull[2] = {ev[0], nullptr};
    SetEvent(ev[0]);
    EXPECT_EQ(WAIT_TIMEOUT, ev[0]->WaitForMultipleHandles(2, withNull, TRUE, 0, FALSE));
    EXPECT_TRUE(IsSignalled(ev[0]));
    for (Handle* h : ev) CloseHandle(h);
}

// Every kind of object in a mixed set completes the wait the way it would
// complete a single wait, and the index returned is the object consumed.
TEST(MultiWait, MixedSetsOfEveryKind) {
    EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjectsEx(0, nullptr, FALSE, 0, FALSE));
    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* mtx = CreateMutex(nullptr, FALSE, nullptr);
    Handle* sem = CreateSemaphore(nullptr, 0, 5, nullptr);
    Handle* file = new File(-1);

    // A handle without wait logic counts as signalled, alone or mixed.
    Handle* plain[2] = {ev, file};
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, plain, FALSE, 0, FALSE));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(2, plain, TRUE, 0, FALSE));

    // Mutexes are acquired (with ownership), semaphores give one unit.
    Handle* set[3] = {ev, mtx, sem};
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(3, set, FALSE, 0, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(3, set, FALSE, 0, FALSE));
    std::thread([&] {
        EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(3, set, FALSE, 0, FALSE));
        long previous = -1;
        EXPECT_EQ(TRUE, ReleaseSemaphore(sem, 2, &previous));
        EXPECT_EQ(0, previous);
        EXPECT_EQ(WAIT_OBJECT_0 + 2, WaitForMultipleObjectsEx(3, set, FALSE, 0, FALSE));
        EXPECT_EQ(WAIT_OBJECT_0 + 2, WaitForMultipleObjectsEx(3, set, FALSE, 0, FALSE));
        EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(3, set, FALSE, 0, FALSE));
    }).join();

    // A sleeping mixed wait completes through a mutex released elsewhere,
    // and then owns it.
    std::atomic<DWORD> got{0xDEAD};
    auto waiter = StartBlocked([&] {
        got = WaitForMultipleObjectsEx(3, set, FALSE, INFINITE, FALSE);
        if (got == WAIT_OBJECT_0 + 1) EXPECT_EQ(TRUE, ReleaseMutex(mtx));
    });
    EXPECT_EQ(FALSE, ReleaseMutex(mtx));
    EXPECT_EQ(TRUE, ReleaseMutex(mtx));
    waiter.join();
    EXPECT_EQ(WAIT_OBJECT_0 + 1, got.load());

    // Wait-all over a mutex, a semaphore and an event takes all three.
    ReleaseSemaphore(sem, 1, nullptr);
    SetEvent(ev);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjectsEx(3, set, TRUE, 0, FALSE));
    EXPECT_FALSE(IsSignalled(ev));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(sem, 0, FALSE));
    EXPECT_EQ(TRUE, ReleaseMutex(mtx));
    for (Handle* h : {ev, mtx, sem, file}) CloseHandle(h);
}

// An auto-reset event set before the waits start satisfies exactly one
// wait, whether single, wait-any over events or over a mixed set.
TEST(MultiWait, OneSetSatisfiesOneWaitOfAnyShape) {
    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* sem = CreateSemaphore(nullptr, 0, 1, nullptr);
    Handle* other = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* mixed[2] = {sem, ev};
    Handle* events[2] = {other, ev};
    SetEvent(ev);
    int satisfied = 0;
    for (int i = 0; i < 5; ++i) {
        satisfied += WaitForMultipleObjectsEx(2, mixed, FALSE, 0, FALSE) == WAIT_OBJECT_0 + 1;
        satisfied += WaitForMultipleObjectsEx(2, events, FALSE, 0, FALSE) == WAIT_OBJECT_0 + 1;
        satisfied += WaitForSingleObjectEx(ev, 0, FALSE) == WAIT_OBJECT_0;
    }
    EXPECT_EQ(1, satisfied);
    for (Handle* h : {ev, sem, other}) CloseHandle(h);
}

// Pulse and Set+Reset hand the signal to the waits already asleep: all of
// them for a manual-reset event, exactly one for an auto-reset event.
TEST(Event, PulseAndSetResetReleaseSleepersAndNeverBlock) {
    for (int manual = 0; manual < 2; ++manual) {
        for (int setReset = 0; setReset < 2; ++setReset) {
            Handle* e = CreateEvent(nullptr, manual, FALSE, nullptr);
            Handle* idle = CreateEvent(nullptr, FALSE, FALSE, nullptr);
            Handle* pair[2] = {idle, e};
            std::atomic<int> released{0};
            std::vector<std::thread> waiters;
            for (int i = 0; i < 6; ++i) {
                waiters.push_back(StartBlocked([&, i] {
                    DWORD r = i % 2 ? WaitForSingleObjectEx(e, 3000, FALSE)
                                    : WaitForMultipleObjectsEx(2, pair, FALSE, 3000, FALSE);
                    if (r == (i % 2 ? WAIT_OBJECT_0 : WAIT_OBJECT_0 + 1)) ++released;
                }));
            }
            if (setReset) {
                SetEvent(e);
                ResetEvent(e);
            } else {
                PulseEvent(e);
            }
            for (auto& t : waiters) t.join();
            EXPECT_EQ(manual ? 6 : 1, released.load()) << manual << setReset;
            EXPECT_FALSE(IsSignalled(e));
            // Every waiter has left by time-out or release: nothing to drain.
            SetEvent(e);
            EXPECT_EQ(TRUE, ResetEvent(e));
            EXPECT_EQ(TRUE, PulseEvent(e));
            CloseHandle(e);
            CloseHandle(idle);
        }
    }
}

// Closing the last reference while another thread waits returns at once;
// the wait holds its own reference until it leaves.
TEST(MultiWait, CloseWhileWaitedNeitherBlocksNorFrees) {
    Handle* doomed = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    Handle* wake = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* pair[2] = {doomed, wake};
    auto waiter = StartBlocked([&] {
        EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, pair, FALSE, INFINITE, FALSE));
    });
    EXPECT_EQ(TRUE, CloseHandle(doomed));
    SetEvent(wake);
    waiter.join();
    CloseHandle(wake);
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
