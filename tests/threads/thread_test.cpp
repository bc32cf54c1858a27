// Threads, APCs, sleeps and the thread pool.
#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
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

struct Gate {
    Handle* go = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    Handle* ready = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    ~Gate() { CloseHandle(go), CloseHandle(ready); }
};

DWORD WaitForGo(void* p) {
    Gate* g = static_cast<Gate*>(p);
    SetEvent(g->ready);
    WaitForSingleObjectEx(g->go, INFINITE, FALSE);
    return 0;
}

thread_local int tls_marker = 0;
std::atomic<int> apc_value{0}, apc_marker{0};

void RecordApc(ULONG_PTR v) {
    apc_value = static_cast<int>(v);
    apc_marker = tls_marker;
}

}  // namespace

TEST(Thread, CreateSuspendedRunsOnResumeAndStaysSignalledOnceEnded) {
    Gate g;
    DWORD id = 0;
    Handle* t = CreateThread(nullptr, 0, WaitForGo, &g, CREATE_SUSPENDED, &id);
    ASSERT_NE(nullptr, t);
    EXPECT_NE(0u, id);
    EXPECT_EQ(kHandleThread, t->What());
    // Held before its start routine until the suspend count is back at 0.
    EXPECT_EQ(1, static_cast<TvPlatformThread*>(t)->GetSuspendCount());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(g.ready, 200, FALSE));
    EXPECT_EQ(1u, SuspendThread(t));
    EXPECT_EQ(2u, ResumeThread(t));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(g.ready, 50, FALSE));
    EXPECT_EQ(1u, ResumeThread(t));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(g.ready, 10000, FALSE));

    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* set[2] = {ev, t};
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(t, 0, FALSE));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForMultipleObjectsEx(2, set, FALSE, 0, FALSE));
    SetEvent(g.go);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(t, INFINITE, FALSE));
    // Ended: reported at once from then on, to single, mixed and wait-all waits.
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(t, 0, FALSE));
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, set, FALSE, 0, FALSE));
    Handle* threads[2] = {t, t};
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjectsEx(2, threads, TRUE, 0, FALSE));
    CloseHandle(ev);
    CloseHandle(t);
}

// Every waiter sees the end of a thread, whatever the shape of its wait.
TEST(Thread, EndSeenByEverySingleAndMixedWaiter) {
    for (int run = 0; run < 10; ++run) {
        Gate g;
        Handle* t = CreateThread(nullptr, 0, WaitForGo, &g, 0, nullptr);
        Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
        Handle* set[2] = {ev, t};
        std::atomic<int> seen{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 4; ++i) {
            std::atomic<pid_t> wtid{0};
            waiters.emplace_back([&, i] {
                wtid = tvtest::CurrentTid();
                DWORD r = i < 2 ? WaitForSingleObjectEx(t, i ? INFINITE : 20000, FALSE)
                                : WaitForMultipleObjectsEx(2, set, FALSE, 20000, FALSE);
                if (r == (i < 2 ? WAIT_OBJECT_0 : WAIT_OBJECT_0 + 1)) ++seen;
            });
            while (wtid.load() == 0) std::this_thread::yield();
            ASSERT_TRUE(tvtest::WaitUntilSleeping(wtid.load()));
        }
        SetEvent(g.go);
        for (auto& w : waiters) w.join();
        EXPECT_EQ(4, seen.load()) << "run " << run;
        CloseHandle(ev);
        CloseHandle(t);
    }
}

// The usual "an APC tells the worker to quit": the worker ends right after
// the APC ran, while the queuing thread may still be inside QueueUserAPC.
TEST(Apc, WorkerThatQuitsFromItsApc) {
    struct Worker {
        Handle* ready = CreateEvent(nullptr, TRUE, FALSE, nullptr);
        Handle* idle[2] = {CreateEvent(nullptr, FALSE, FALSE, nullptr),
                           CreateEvent(nullptr, FALSE, FALSE, nullptr)};
        std::atomic<bool> quit{false};
    };
    for (int run = 0; run < 20; ++run) {
        Worker w;
        Handle* t = CreateThread(
            nullptr, 0,
            [](void* p) -> DWORD {
                Worker* self = static_cast<Worker*>(p);
                SetEvent(self->ready);
                while (!self->quit) WaitForMultipleObjectsEx(2, self->idle, FALSE, 20000, TRUE);
                return 0;
            },
            &w, 0, nullptr);
        WaitForSingleObjectEx(w.ready, INFINITE, FALSE);
        static std::atomic<bool>* quit;
        quit = &w.quit;
        QueueUserAPC([](ULONG_PTR) { *quit = true; }, t, 0);
        EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(t, 20000, FALSE));
        CloseHandle(t);
        for (Handle* h : {w.ready, w.idle[0], w.idle[1]}) CloseHandle(h);
    }
}

TEST(Thread, CurrentThreadSimpleCallsAndApcsAtAlertablePoints) {
    Handle* mine = GetCurrentThread();
    EXPECT_EQ(mine, GetCurrentThread());
    EXPECT_EQ(kHandleThread, mine->What());
    Handle* other = nullptr;
    std::thread([&] { other = GetCurrentThread(); }).join();
    EXPECT_NE(mine, other);
    EXPECT_EQ(TRUE, TerminateThread(mine, 1));
    EXPECT_EQ(FALSE, SetThreadPriority(mine, THREAD_PRIORITY_HIGHEST));
    EXPECT_EQ(0, GetThreadPriority(mine)) << "SCHED_OTHER priority";
    EXPECT_EQ(0xFFFFFFFFu, QueueUserAPC(RecordApc, nullptr, 1));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(mine, 0, FALSE));

    // APCs run only at alertable points: not in a zero-time SleepEx (it only
    // yields) nor a non-alertable one, but at the next alertable sleep, which
    // they end at once.
    apc_value = 0;
    EXPECT_EQ(0u, QueueUserAPC(RecordApc, mine, 7));
    EXPECT_EQ(0u, SleepEx(0, TRUE));
    EXPECT_EQ(0u, SleepEx(20, FALSE));
    EXPECT_EQ(0, apc_value.load());
    const auto t0 = Clock::now();
    EXPECT_EQ(WAIT_IO_COMPLETION, SleepEx(20000, TRUE));
    EXPECT_LT(MsSince(t0), 10000);
    EXPECT_EQ(7, apc_value.load());
}

// What ends a sleeping target's SleepEx: an APC ends an alertable sleep with
// 192 (also one queued while the target already sleeps); neither a stray
// signal nor an APC shortens a non-alertable sleep (also after an alertable
// one, which leaves the thread open to APC wake-ups); an alertable sleep ends
// early only when an APC really ran.
TEST(Apc, WhatEndsASleepingTargetsSleep) {
    struct sigaction sa = {};
    sa.sa_handler = [](int) {};
    sigaction(SIGUSR2, &sa, nullptr);  // no SA_RESTART
    struct Case {
        DWORD ms;
        BOOL alertable;
        bool alertableBefore;
        bool apc;  // else a plain signal
        DWORD result;
    } cases[] = {{30000, TRUE, false, true, WAIT_IO_COMPLETION},
                 {300, FALSE, false, false, 0},
                 {300, TRUE, false, false, 0},
                 {300, FALSE, true, true, 0}};
    for (const Case& c : cases) {
        const int n = static_cast<int>(&c - cases);
        std::atomic<Handle*> self{nullptr};
        std::atomic<pid_t> tid{0};
        DWORD result = 99;
        long slept = 0;
        std::thread target([&] {
            tls_marker = 100 + n;
            if (c.alertableBefore) SleepEx(1, TRUE);
            self = GetCurrentThread();
            tid = tvtest::CurrentTid();
            const auto t0 = Clock::now();
            result = SleepEx(c.ms, c.alertable);
            slept = MsSince(t0);
        });
        while (tid.load() == 0) std::this_thread::yield();
        ASSERT_TRUE(tvtest::WaitUntilSleeping(tid.load()));
        apc_value = 0;
        if (c.apc)
            QueueUserAPC(RecordApc, self.load(), 5 + n);
        else
            pthread_kill(target.native_handle(), SIGUSR2);
        target.join();
        EXPECT_EQ(c.result, result) << n;
        if (c.result == WAIT_IO_COMPLETION) {
            EXPECT_LT(slept, 10000) << n;
            EXPECT_EQ(5 + n, apc_value.load()) << n;
            EXPECT_EQ(100 + n, apc_marker.load()) << n;
        } else {
            EXPECT_EQ(0, apc_value.load()) << n;
            EXPECT_GE(slept, 295) << n;
        }
    }
}

namespace {
std::atomic<long> spins{0};
std::atomic<bool> stop_spinning{false};
DWORD Spin(void*) {
    while (!stop_spinning) {
        ++spins;
        sched_yield();
    }
    return 0;
}
}  // namespace

TEST(Thread, SuspendAndResumeCounts) {
    Handle* t = CreateThread(nullptr, 0, Spin, nullptr, 0, nullptr);
    while (spins.load() == 0) std::this_thread::yield();
    EXPECT_EQ(0u, ResumeThread(t)) << "not suspended";
    EXPECT_EQ(0u, SuspendThread(t));
    EXPECT_EQ(1u, SuspendThread(t));
    // Once the signal has been handled the counter stops moving.
    long a = spins.load(), b = -1;
    for (int i = 0; i < 1000 && a != b; ++i) {
        b = a;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        a = spins.load();
    }
    ASSERT_EQ(a, b) << "suspended thread kept running";
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(a, spins.load());
    EXPECT_EQ(2u, ResumeThread(t));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(a, spins.load()) << "runs again only after the last resume";
    EXPECT_EQ(1u, ResumeThread(t));
    while (spins.load() == a) std::this_thread::yield();

    // Two threads resume a thread suspended once: exactly one of them
    // resumes it, and the count never goes below 0.
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(0u, SuspendThread(t)) << i;
        std::atomic<int> ready{0};
        DWORD r[2] = {9, 9};
        auto resume = [&](int k) {
            ++ready;
            while (ready.load() < 2) {
            }
            r[k] = ResumeThread(t);
        };
        std::thread r0(resume, 0), r1(resume, 1);
        r0.join();
        r1.join();
        ASSERT_EQ(1u, r[0] + r[1]) << i << ": " << r[0] << " " << r[1];
        ASSERT_EQ(0, static_cast<TvPlatformThread*>(t)->GetSuspendCount()) << i;
    }
    stop_spinning = true;
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(t, 20000, FALSE));
    // An ended thread cannot be signalled: an error, not a crash.
    errno = 0;
    EXPECT_EQ(0xFFFFFFFFu, SuspendThread(t));
    EXPECT_EQ(ESRCH, errno);
    EXPECT_EQ(0xFFFFFFFFu, ResumeThread(t));
    CloseHandle(t);
}

// --- Thread pool -----------------------------------------------------------

namespace {

template <typename F>
bool Eventually(F done) {
    for (int i = 0; i < 10000 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
}

// What the pool's callbacks (plain functions) report; reset by each test.
struct Probe {
    std::atomic<int> created{0}, exits{0}, inFlight{0}, maxInFlight{0}, done{0};
    std::mutex m;
    std::set<pid_t> workers, exited;  // guarded by m
    std::vector<int> disposed;
};
Probe* probe = nullptr;

bool CountingCreator(TvThreadPool::Routine routine, void* arg) {
    const bool ok = TvThreadPool::DefaultCreator(routine, arg);
    if (ok) ++probe->created;
    return ok;
}

// Returns, so the thread ends by returning from its start routine.
void CountingExit(unsigned int code) {
    EXPECT_EQ(0u, code);
    {
        std::lock_guard<std::mutex> hold(probe->m);
        probe->exited.insert(tvtest::CurrentTid());
    }
    ++probe->exits;
}

struct Task {
    int id = 0;
    Handle* gate = nullptr;             // the item blocks until it is set
    TvThreadPool* leaveFrom = nullptr;  // ExitPool from this pool first
    int exitPoolFirst = -1, exitPoolSecond = -1;
    bool exitedSeen = false;
};

void RunTask(void* p) {
    Task* t = static_cast<Task*>(p);
    {
        std::lock_guard<std::mutex> hold(probe->m);
        probe->workers.insert(tvtest::CurrentTid());
    }
    if (t->leaveFrom) {
        t->exitPoolFirst = t->leaveFrom->ExitPool();
        t->exitPoolSecond = t->leaveFrom->ExitPool();
        t->exitedSeen = t->leaveFrom->Exited();
    }
    int now = ++probe->inFlight;
    int seen = probe->maxInFlight;
    while (now > seen && !probe->maxInFlight.compare_exchange_weak(seen, now)) {
    }
    if (t->gate) WaitForSingleObjectEx(t->gate, INFINITE, FALSE);
    --probe->inFlight;
    ++probe->done;
}

void DisposeTask(void* p) {
    probe->disposed.push_back(static_cast<Task*>(p)->id);
}

// Shuts the pool down from another thread, checks that Shutdown waits for
// the items held at `gate`, then opens it and waits for Shutdown to return.
void ShutdownWaitsUntilOpened(TvThreadPool& pool, Handle* gate) {
    std::atomic<bool> returned{false};
    std::atomic<pid_t> tid{0};
    std::thread shutter([&] {
        tid = tvtest::CurrentTid();
        pool.Shutdown();
        returned = true;
    });
    while (tid.load() == 0) std::this_thread::yield();
    EXPECT_TRUE(tvtest::WaitUntilSleeping(tid));
    EXPECT_FALSE(returned.load());
    SetEvent(gate);
    shutter.join();
}

class ThreadPoolTest : public ::testing::Test {
protected:
    void SetUp() override { probe = &state_; }
    void TearDown() override {
        // Let every pool thread finish its exit function before the probe goes.
        Eventually([&] { return probe->exits.load() == probe->created.load(); });
        probe = nullptr;
    }
    Probe state_;
};

}  // namespace

TEST_F(ThreadPoolTest, GrowsToMaximumUnderBurstAndShrinksToMinimumWhenIdle) {
    Handle* gate = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    Task blocked;
    blocked.gate = gate;
    TvThreadPool pool(1, 4, RunTask, CountingCreator, CountingExit, nullptr, 1000);
    for (int i = 0; i < 8; ++i) pool.Produce(&blocked);
    // Every busy thread holds an item, so the burst starts exactly four.
    EXPECT_EQ(4, probe->created.load());
    ASSERT_TRUE(Eventually([] { return probe->inFlight.load() == 4; }));

    SetEvent(gate);
    ASSERT_TRUE(Eventually([] { return probe->done.load() == 8; }));
    const auto idleFrom = Clock::now();
    EXPECT_EQ(4, probe->maxInFlight.load());
    EXPECT_EQ(4, probe->created.load());

    // Three end after the idle time-out; one stays.
    ASSERT_TRUE(Eventually([] { return probe->exits.load() == 3; }));
    EXPECT_GE(MsSince(idleFrom), 900);
    pid_t stayer = 0;
    {
        std::lock_guard<std::mutex> hold(probe->m);
        ASSERT_EQ(4u, probe->workers.size());
        for (pid_t t : probe->workers)
            if (!probe->exited.count(t)) stayer = t;
    }
    ASSERT_NE(0, stayer);
    ASSERT_TRUE(tvtest::WaitUntilSleeping(stayer));
    // A burst meeting the idle thread wakes it for the first item and starts
    // a thread for each further one: the woken thread no longer counts idle.
    ResetEvent(gate);
    pool.Produce(&blocked);
    EXPECT_EQ(4, probe->created.load());
    for (int i = 0; i < 4; ++i) pool.Produce(&blocked);
    EXPECT_EQ(7, probe->created.load());
    EXPECT_TRUE(Eventually([] { return probe->inFlight.load() == 4; }));
    SetEvent(gate);
    ASSERT_TRUE(Eventually([] { return probe->done.load() == 13; }));
    pool.Shutdown();
    CloseHandle(gate);
}

TEST_F(ThreadPoolTest, ShutdownWaitsForRunningItemsAndDisposeTakesTheRestInOrder) {
    Handle* gate = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    Task tasks[4];
    for (int i = 0; i < 4; ++i) {
        tasks[i].id = i;
        tasks[i].gate = gate;
    }
    std::unique_ptr<TvThreadPool> pool(
        new TvThreadPool(0, 2, RunTask, CountingCreator, CountingExit, DisposeTask, INFINITE));
    for (Task& t : tasks) pool->Produce(&t);
    ASSERT_TRUE(Eventually([] { return probe->inFlight.load() == 2; }));
    EXPECT_EQ(2, probe->created.load());

    ShutdownWaitsUntilOpened(*pool, gate);
    // Both running items finished before Shutdown returned, and the threads
    // took nothing more once it had begun.
    EXPECT_EQ(2, probe->done.load());
    EXPECT_EQ(0, probe->inFlight.load());
    pool.reset();
    EXPECT_EQ((std::vector<int>{2, 3}), probe->disposed);
    CloseHandle(gate);

    // A pool that never started a thread shuts down at once; its items go to
    // dispose in order, or are dropped without a dispose callback.
    pool.reset(new TvThreadPool(0, 0, RunTask, CountingCreator, CountingExit, DisposeTask, 0));
    for (Task& t : tasks) pool->Produce(&t);
    pool->Shutdown();
    pool.reset(new TvThreadPool(0, 0, RunTask, nullptr, nullptr, nullptr, INFINITE));
    pool->Produce(&tasks[0]);
    pool.reset();
    EXPECT_EQ((std::vector<int>{2, 3, 0, 1, 2, 3}), probe->disposed);
    EXPECT_EQ(2, probe->created.load());
    EXPECT_EQ(2, probe->done.load());
}

TEST_F(ThreadPoolTest, ExitPoolFreesTheSlotAndShutdownWaitsForTheLeaver) {
    Handle* gate = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    TvThreadPool pool(0, 1, RunTask, CountingCreator, CountingExit, nullptr, INFINITE);
    Task leaver;
    leaver.gate = gate;
    leaver.leaveFrom = &pool;
    pool.Produce(&leaver);
    ASSERT_TRUE(Eventually([] { return probe->inFlight.load() == 1; }));
    // The leaver no longer counts: the next item gets a new thread although
    // the maximum is one.
    Task quick;
    pool.Produce(&quick);
    ASSERT_TRUE(Eventually([] { return probe->done.load() == 1; }));
    EXPECT_EQ(2, probe->created.load());
    EXPECT_EQ(1, leaver.exitPoolFirst);
    EXPECT_EQ(0, leaver.exitPoolSecond);
    EXPECT_TRUE(leaver.exitedSeen);
    EXPECT_FALSE(pool.Exited());

    ShutdownWaitsUntilOpened(pool, gate);
    EXPECT_EQ(2, probe->done.load());
    CloseHandle(gate);
}

TEST_F(ThreadPoolTest, SubSecondIdleTimeOutEndsSpareThreadsAtOnce) {
    TvThreadPool pool(0, 2, RunTask, CountingCreator, CountingExit, nullptr, 500);
    Task quick;
    pool.Produce(&quick);
    ASSERT_TRUE(Eventually([] { return probe->exits.load() == 1; }));
    EXPECT_EQ(1, probe->done.load());
    // The next item needs a new thread.
    pool.Produce(&quick);
    ASSERT_TRUE(Eventually([] { return probe->exits.load() == 2; }));
    EXPECT_EQ(2, probe->created.load());
}
