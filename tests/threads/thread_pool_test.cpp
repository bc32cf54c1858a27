#include <gtest/gtest.h>

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

template <typename F>
bool Eventually(F done) {
    for (int i = 0; i < 10000 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
}

// What the pool's callbacks report. The callbacks are plain functions, so
// the state is global and reset by each test.
struct Probe {
    std::atomic<int> created{0};
    std::atomic<int> exits{0};
    std::atomic<int> inFlight{0};
    std::atomic<int> maxInFlight{0};
    std::atomic<int> done{0};
    std::mutex m;
    std::set<pid_t> workers;  // guarded by m
    std::set<pid_t> exited;   // guarded by m
    std::vector<int> disposed;
};
Probe* probe = nullptr;

bool CountingCreator(TvThreadPool::Routine routine, void* arg) {
    if (!TvThreadPool::DefaultCreator(routine, arg)) return false;
    ++probe->created;
    return true;
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

TEST(ThreadData, PerThreadValues) {
    ThreadData d;
    int a = 0, b = 0;
    EXPECT_EQ(nullptr, d.GetData());
    EXPECT_TRUE(d.SetData(&a));
    EXPECT_EQ(&a, d.GetData());
    std::thread([&] {
        EXPECT_EQ(nullptr, d.GetData());
        EXPECT_TRUE(d.SetData(&b));
        EXPECT_EQ(&b, d.GetData());
    }).join();
    EXPECT_EQ(&a, d.GetData());
}

TEST_F(ThreadPoolTest, GrowsToMaximumUnderBurstAndShrinksToMinimumWhenIdle) {
    Handle* gate = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    Task blocked;
    blocked.gate = gate;
    TvThreadPool pool(1, 4, RunTask, CountingCreator, CountingExit, nullptr, 1000);
    EXPECT_EQ(CountingExit, pool.GetExit());
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
    EXPECT_GE(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - idleFrom).count(),
        900);
    pid_t stayer = 0;
    {
        std::lock_guard<std::mutex> hold(probe->m);
        ASSERT_EQ(4u, probe->workers.size());
        for (pid_t t : probe->workers)
            if (!probe->exited.count(t)) stayer = t;
    }
    ASSERT_NE(0, stayer);
    ASSERT_TRUE(tvtest::WaitUntilSleeping(stayer));
    // A burst that meets the idle thread wakes it for the first item, with
    // no new thread, and starts a thread for each further one: the woken
    // thread, not yet out of its wait, does not count as idle any more.
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

TEST_F(ThreadPoolTest, ShutdownWaitsForRunningItemsAndDestructorDisposesTheRest) {
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

TEST_F(ThreadPoolTest, PoolWithoutThreadsShutsDownAtOnceAndDisposesInOrder) {
    Task tasks[3];
    for (int i = 0; i < 3; ++i) tasks[i].id = 10 + i;
    {
        TvThreadPool pool(0, 0, RunTask, CountingCreator, CountingExit, DisposeTask, INFINITE);
        for (Task& t : tasks) pool.Produce(&t);
        pool.Shutdown();
        EXPECT_EQ(0, probe->created.load());
    }
    EXPECT_EQ((std::vector<int>{10, 11, 12}), probe->disposed);
    // Without a dispose callback the items are simply dropped.
    {
        TvThreadPool pool(0, 0, RunTask, nullptr, nullptr, nullptr, INFINITE);
        pool.Produce(&tasks[0]);
    }
    EXPECT_EQ(0, probe->done.load());
}
