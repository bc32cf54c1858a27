// Events, semaphores, mutexes and the multi-object waits over them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <thread>

#include <tvcommonutil.h>

#include "thread_probe.h"

namespace {

using Clock = std::chrono::steady_clock;

inline long MsSince(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

inline bool IsSignalled(Handle* h) {
    return static_cast<Event*>(h)->EventIsSignaled() != 0;
}

// A thread running `fn` that, once the constructor returns, is asleep in
// the kernel (inside the wait under test). Joined on destruction.
class Blocked {
public:
    template <typename Fn>
    explicit Blocked(Fn fn)
        : thread_([this, fn] {
              tid_ = tvtest::CurrentTid();
              fn();
          }) {
        while (tid_.load() == 0) std::this_thread::yield();
        EXPECT_TRUE(tvtest::WaitUntilSleeping(tid_.load()));
    }
    ~Blocked() { Join(); }
    void Join() {
        if (thread_.joinable()) thread_.join();
    }
    bool Asleep() const { return tvtest::WaitUntilSleeping(tid_.load()); }

private:
    std::atomic<pid_t> tid_{0};
    std::thread thread_;
};

// Runs f on another thread and returns its result.
template <typename F>
DWORD OnOtherThread(F f) {
    DWORD r = 0xDEAD;
    std::thread([&] { r = f(); }).join();
    return r;
}

std::atomic<int> apc_runs{0};
void CountApc(ULONG_PTR) {
    ++apc_runs;
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
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(autoEv, 0, FALSE));

    Handle* manual = CreateEvent(nullptr, TRUE, TRUE, nullptr);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(manual, 0, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(manual, INFINITE, FALSE));
    EXPECT_EQ(TRUE, ResetEvent(manual));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(manual, 0, FALSE));
    EXPECT_EQ(kHandleEvent, manual->What());
    for (Handle* h : {autoEv, other, manual}) CloseHandle(h);
}

// Every kind of wait times out on the monotonic clock, sub-second requests
// included, and a wait that times out consumes nothing.
TEST(MultiWait, EveryKindOfWaitTimesOutWithoutConsuming) {
    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* sem = CreateSemaphore(nullptr, 0, 1, nullptr);
    Handle* mtx = CreateMutex(nullptr, TRUE, nullptr);  // owned by this thread
    Handle* set[3] = {ev, sem, mtx};
    constexpr DWORD kMs = 120;
    const std::function<DWORD()> waits[] = {
        [&] { return WaitForSingleObjectEx(sem, kMs, FALSE); },
        [&] { return WaitForSingleObjectEx(mtx, kMs, TRUE); },
        [&] { return WaitForMultipleObjectsEx(2, set + 1, FALSE, kMs, FALSE); },
        [&] { return WaitForMultipleObjectsEx(3, set, TRUE, kMs, FALSE); },
        [&] { return WaitForMultipleObjectsEx(2, set, TRUE, kMs, TRUE); }};
    SetEvent(ev);
    std::thread([&] {
        for (const auto& wait : waits) {
            const auto t0 = Clock::now();
            EXPECT_EQ(WAIT_TIMEOUT, wait());
            EXPECT_GE(MsSince(t0), static_cast<long>(kMs) - 1);
            EXPECT_LT(MsSince(t0), 3000);
        }
    }).join();
    EXPECT_TRUE(IsSignalled(ev));
    for (Handle* h : set) CloseHandle(h);
}

TEST(MultiWait, WaitAnyPicksLowestSignalledIndexAndConsumesOnlyIt) {
    Handle* ev[3];
    for (int i = 0; i < 3; ++i) ev[i] = CreateEvent(nullptr, i == 2, FALSE, nullptr);
    for (int i : {1, 2}) SetEvent(ev[i]);
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(3, ev, FALSE, 0, FALSE));
    EXPECT_FALSE(IsSignalled(ev[1]));
    // Manual-reset index 2 stays signalled and is returned again.
    EXPECT_EQ(WAIT_OBJECT_0 + 2, WaitForMultipleObjectsEx(3, ev, FALSE, 0, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0 + 2, WaitForMultipleObjectsEx(3, ev, FALSE, INFINITE, FALSE));
    ResetEvent(ev[2]);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(3, ev, FALSE, 0, FALSE));
    for (Handle* h : ev) CloseHandle(h);
}

TEST(MultiWait, WaitAllWaitsForEveryObjectAndConsumesThemTogether) {
    Handle* ev[2] = {CreateEvent(nullptr, FALSE, TRUE, nullptr),
                     CreateEvent(nullptr, FALSE, TRUE, nullptr)};
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjectsEx(2, ev, TRUE, 0, FALSE));
    EXPECT_FALSE(IsSignalled(ev[0]) || IsSignalled(ev[1]));
    // One of two set: nothing is consumed, the wait goes on.
    std::atomic<DWORD> result{0xDEAD};
    Blocked waiter([&] { result = WaitForMultipleObjectsEx(2, ev, TRUE, INFINITE, FALSE); });
    SetEvent(ev[1]);
    ASSERT_TRUE(waiter.Asleep());
    EXPECT_EQ(0xDEADu, result.load());
    EXPECT_TRUE(IsSignalled(ev[1]));
    SetEvent(ev[0]);
    waiter.Join();
    EXPECT_EQ(WAIT_OBJECT_0, result.load());
    EXPECT_FALSE(IsSignalled(ev[0]) || IsSignalled(ev[1]));
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
        EXPECT_EQ(TRUE, ReleaseSemaphore(sem, 2, nullptr));
        for (DWORD want : {WAIT_OBJECT_0 + 2, WAIT_OBJECT_0 + 2, DWORD{WAIT_TIMEOUT}})
            EXPECT_EQ(want, WaitForMultipleObjectsEx(3, set, FALSE, 0, FALSE));
    }).join();

    // A sleeping mixed wait completes through a mutex released elsewhere,
    // and then owns it.
    std::atomic<DWORD> got{0xDEAD};
    {
        Blocked waiter([&] {
            got = WaitForMultipleObjectsEx(3, set, FALSE, INFINITE, FALSE);
            EXPECT_TRUE(got != WAIT_OBJECT_0 + 1 || ReleaseMutex(mtx) == TRUE);
        });
        EXPECT_EQ(FALSE, ReleaseMutex(mtx));
        EXPECT_EQ(TRUE, ReleaseMutex(mtx));
    }
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

// Pulse, Set+Reset and a plain Set hand the signal to the waits already
// asleep: all of them for a manual-reset event, exactly one for an
// auto-reset event.
TEST(Event, PulseAndSetResetReleaseSleepersAndNeverBlock) {
    for (int manual = 0; manual < 2; ++manual) {
        for (int how = 0; how < 3; ++how) {
            Handle* e = CreateEvent(nullptr, manual, FALSE, nullptr);
            Handle* idle = CreateEvent(nullptr, FALSE, FALSE, nullptr);
            Handle* pair[2] = {idle, e};
            std::atomic<int> released{0};
            {
                std::deque<Blocked> waiters;
                for (int i = 0; i < 6; ++i) {
                    waiters.emplace_back([&, i] {
                        DWORD r = i % 2 ? WaitForSingleObjectEx(e, 3000, FALSE)
                                        : WaitForMultipleObjectsEx(2, pair, FALSE, 3000, FALSE);
                        if (r == (i % 2 ? WAIT_OBJECT_0 : WAIT_OBJECT_0 + 1)) ++released;
                    });
                }
                if (how == 0) PulseEvent(e);
                if (how > 0) SetEvent(e);
                if (how == 1) ResetEvent(e);
            }
            EXPECT_EQ(manual ? 6 : 1, released.load()) << manual << how;
            EXPECT_EQ(manual && how == 2, IsSignalled(e));
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
    {
        Blocked waiter([&] {
            EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, pair, FALSE, INFINITE, FALSE));
        });
        EXPECT_EQ(TRUE, CloseHandle(doomed));
        SetEvent(wake);
    }
    CloseHandle(wake);
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

TEST(Semaphore, CountsLimitsAndOverRelease) {
    const long bad[][2] = {{2, 1}, {-1, 1}, {0, -1}};
    for (const auto& b : bad) EXPECT_EQ(nullptr, CreateSemaphore(nullptr, b[0], b[1], "s"));
    Handle* zero = CreateSemaphore(nullptr, 0, 0, nullptr);
    EXPECT_EQ(FALSE, ReleaseSemaphore(zero, 1, nullptr));
    CloseHandle(zero);

    Handle* s = CreateSemaphore(nullptr, 0, 2, "name");
    ASSERT_NE(nullptr, s);
    EXPECT_EQ(kHandleSemaphore, s->What());
    long prev = 77;
    EXPECT_EQ(FALSE, ReleaseSemaphore(nullptr, 1, &prev));
    // {n, result, prev after}: refused requests (nothing, or too much: no
    // partial release) leave prev untouched; granted ones report the count.
    const long steps[][3] = {{0, FALSE, 77}, {-1, FALSE, 77}, {3, FALSE, 77}, {2, TRUE, 0}};
    for (const auto& st : steps) {
        EXPECT_EQ(st[1], ReleaseSemaphore(s, st[0], &prev)) << st[0];
        EXPECT_EQ(st[2], prev) << st[0];
    }
    EXPECT_EQ(FALSE, ReleaseSemaphore(s, 1, &prev));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(s, 0, FALSE));
    EXPECT_EQ(TRUE, ReleaseSemaphore(s, 1, &prev));
    EXPECT_EQ(1, prev);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(s, 0, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(s, INFINITE, FALSE));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(s, 0, FALSE));

    EXPECT_EQ(TRUE, CloseHandle(s));
}

// A release of n wakes exactly n of the sleepers, whatever kind of wait they
// are in (untimed, alertable, wait-any over semaphores): first one of three,
// then the remaining two.
TEST(Semaphore, ReleaseOfNWakesExactlyNWaiters) {
    Handle* s = CreateSemaphore(nullptr, 0, 10, nullptr);
    Handle* set[2] = {CreateSemaphore(nullptr, 0, 1, nullptr), s};
    std::atomic<int> woken{0};
    {
        std::deque<Blocked> waiters;
        for (int i = 0; i < 3; ++i) {
            waiters.emplace_back([&, i] {
                EXPECT_EQ(i == 2 ? WAIT_OBJECT_0 + 1 : WAIT_OBJECT_0,
                          i == 2 ? WaitForMultipleObjectsEx(2, set, FALSE, 20000, FALSE)
                                 : WaitForSingleObjectEx(s, i ? 20000 : INFINITE, i == 1));
                ++woken;
            });
        }
        long prev = -1;
        EXPECT_EQ(TRUE, ReleaseSemaphore(s, 1, &prev));
        EXPECT_EQ(0, prev);
        for (int i = 0; i < 10000 && woken.load() == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        // The other two went on sleeping: no unit was left for them.
        EXPECT_EQ(1, woken.load());
        EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(s, 0, FALSE));
        EXPECT_EQ(TRUE, ReleaseSemaphore(s, 2, &prev));
        EXPECT_EQ(0, prev);
    }
    EXPECT_EQ(3, woken.load());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(2, set, FALSE, 0, FALSE));
    for (Handle* h : set) CloseHandle(h);
}

// An APC queued to a thread asleep in a finite alertable wait ends it with
// WAIT_IO_COMPLETION (192) after running there; an INFINITE wait is ended
// only by its object, and the APC stays queued.
TEST(Semaphore, AlertableTimedWaitEndsForApcButInfiniteWaitDoesNot) {
    Handle* s = CreateSemaphore(nullptr, 0, 10, nullptr);
    for (DWORD ms : {DWORD{20000}, DWORD{INFINITE}}) {
        std::atomic<Handle*> target{nullptr};
        std::atomic<DWORD> result{0xDEAD};
        std::atomic<int> runsInWait{-1};
        apc_runs = 0;
        Blocked waiter([&] {
            target = GetCurrentThread();
            result = WaitForSingleObjectEx(s, ms, TRUE);
            runsInWait = apc_runs.load();
            SleepEx(1, TRUE);  // a still queued APC runs here
        });
        EXPECT_EQ(0u, QueueUserAPC(CountApc, target.load(), 5));
        if (ms == INFINITE) {
            ASSERT_TRUE(waiter.Asleep());
            EXPECT_EQ(0xDEADu, result.load());
            EXPECT_EQ(TRUE, ReleaseSemaphore(s, 1, nullptr));
        }
        waiter.Join();
        EXPECT_EQ(ms == INFINITE ? WAIT_OBJECT_0 : WAIT_IO_COMPLETION, result.load());
        EXPECT_EQ(ms == INFINITE ? 0 : 1, runsInWait.load());
        EXPECT_EQ(1, apc_runs.load());
    }
    CloseHandle(s);
}

TEST(Mutex, RecursionNeedsAsManyReleasesAndInnerReleasesReportFalse) {
    Handle* m = CreateMutex(nullptr, FALSE, "m");
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(kHandleMutex, m->What());
    EXPECT_EQ(FALSE, ReleaseMutex(nullptr));
    // Not owned by anyone: a release is refused.
    EXPECT_EQ(FALSE, ReleaseMutex(m));

    for (int i = 0; i < 3; ++i) EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(m, INFINITE, FALSE));
    // A non-owner's release changes nothing.
    EXPECT_EQ(FALSE, OnOtherThread([&] { return static_cast<DWORD>(ReleaseMutex(m)); }));
    EXPECT_EQ(WAIT_TIMEOUT, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));

    EXPECT_EQ(FALSE, ReleaseMutex(m));  // inner release: succeeded, reports FALSE
    EXPECT_EQ(FALSE, ReleaseMutex(m));
    EXPECT_EQ(WAIT_TIMEOUT, OnOtherThread([&] { return WaitForSingleObjectEx(m, 50, FALSE); }));
    EXPECT_EQ(TRUE, ReleaseMutex(m));
    EXPECT_EQ(FALSE, ReleaseMutex(m));

    // Free now: another thread takes it (and keeps it, its thread ends).
    EXPECT_EQ(WAIT_OBJECT_0, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(m, 0, FALSE));
    EXPECT_EQ(FALSE, ReleaseMutex(m));
    CloseHandle(m);
}

TEST(Mutex, CreatedOwnedExcludesOthersUntilReleased) {
    Handle* m = CreateMutex(nullptr, TRUE, nullptr);
    EXPECT_EQ(WAIT_TIMEOUT, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(m, 0, FALSE));
    EXPECT_EQ(FALSE, ReleaseMutex(m));  // inner level
    EXPECT_EQ(WAIT_TIMEOUT, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));
    EXPECT_EQ(TRUE, ReleaseMutex(m));
    EXPECT_EQ(WAIT_OBJECT_0, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(m, 0, FALSE));
    CloseHandle(m);
}
