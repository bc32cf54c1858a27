// RWLock with real threads: admission policies, time-outs, upgrade and
// downgrade, wake-ups, and mutual exclusion under load.
//
// To know that a thread is blocked inside the lock, the tests poll the lock's
// waiting counters (bounded to 10 s): a waiter is counted under the lock's
// mutex in the same critical section in which it starts waiting, so once the
// count shows it, it is waiting for a wake-up.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Runs a function on its own thread and lets the test wait for its end with
// a limit, so a lost wake-up fails the test instead of hanging it.
class Runner {
public:
    explicit Runner(std::function<void()> fn)
        : thread_([this, fn] {
              fn();
              std::lock_guard<std::mutex> g(m_);
              done_ = true;
              cv_.notify_all();
          }) {}
    ~Runner() { thread_.join(); }
    bool WaitDone(std::chrono::milliseconds limit = 10000ms) {
        std::unique_lock<std::mutex> l(m_);
        return cv_.wait_for(l, limit, [this] { return done_; });
    }
    bool Done() {
        std::lock_guard<std::mutex> g(m_);
        return done_;
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;  // last: starts once the members above exist
};

bool Eventually(const std::function<bool()>& cond) {
    auto end = Clock::now() + 10s;
    while (!cond()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

long ElapsedMs(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

}  // namespace

TEST(RWLockThreads, WriterPreferenceHoldsNewReadersBack) {
    RWLock lock;
    ASSERT_EQ(0u, lock.ReadLock());
    std::atomic<bool> writerDone{false};
    std::atomic<bool> readerSawWriterDone{false};
    std::atomic<long> writerSawReaders{-1};
    std::atomic<long> writerSawWaitingReaders{-1};
    Runner writer([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        writerSawReaders = lock.GetReaderCount();
        writerSawWaitingReaders = lock.GetWaitingReaders();
        writerDone = true;
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    Runner reader([&] {
        EXPECT_EQ(0u, lock.ReadLock());
        readerSawWriterDone = writerDone.load();
        lock.ReadUnlock();
    });
    // Only a reader holds the lock, yet the new reader waits for the writer.
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingReaders() == 1; }));
    EXPECT_FALSE(writer.Done());
    EXPECT_EQ(1, lock.ReadUnlock());
    ASSERT_TRUE(writer.WaitDone());
    ASSERT_TRUE(reader.WaitDone());
    EXPECT_EQ(0, writerSawReaders.load());
    EXPECT_EQ(1, writerSawWaitingReaders.load());  // still held back while it wrote
    EXPECT_TRUE(readerSawWriterDone.load());
    EXPECT_EQ(0, lock.GetReaderCount());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
}

TEST(RWLockThreads, ReaderPreferenceAdmitsReadersPastWaitingWriter) {
    RWLock lock(true, "readers first");
    ASSERT_EQ(0u, lock.ReadLock());
    Runner writer([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        EXPECT_EQ(0, lock.GetReaderCount());
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    {
        Runner reader([&] { EXPECT_EQ(0u, lock.ReadLock()); });
        ASSERT_TRUE(reader.WaitDone());
    }
    EXPECT_EQ(0u, lock.ReadLockPrim(true, INFINITE, nullptr));
    EXPECT_EQ(3, lock.GetReaderCount());
    EXPECT_FALSE(writer.Done());
    lock.ReadUnlock();
    lock.ReadUnlock();
    lock.ReadUnlock();
    ASSERT_TRUE(writer.WaitDone());

    // A writer waiting behind a writer, with no reader waiting, is woken by
    // the write unlock.
    ASSERT_EQ(0u, lock.WriteLock());
    Runner second([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_TRUE(second.WaitDone());
}

TEST(RWLockThreads, SubSecondTimeOutsUnderAWriterExpireAtOnce) {
    RWLock lock;
    ASSERT_EQ(0u, lock.WriteLock());
    long shortRead = -1, shortWrite = -1;
    unsigned long shortReadRc = 0, shortWriteRc = 0;
    {
        Runner other([&] {
            auto start = Clock::now();
            shortReadRc = lock.ReadLock(500);
            shortRead = ElapsedMs(start);
            start = Clock::now();
            shortWriteRc = lock.WriteLock(999);
            shortWrite = ElapsedMs(start);
        });
        ASSERT_TRUE(other.WaitDone(30000ms));
    }
    EXPECT_EQ(258u, shortReadRc);
    EXPECT_LT(shortRead, 450);
    EXPECT_EQ(258u, shortWriteRc);
    EXPECT_LT(shortWrite, 450);
    EXPECT_EQ(0, lock.GetWaitingReaders());
    EXPECT_EQ(0, lock.GetWaitingWriters());
    EXPECT_EQ(1, lock.WriteUnlock());
}

// A time-out counts from the call: a writer that a downgrade wakes (and does
// not admit) halfway through its wait still gives up at the original time,
// before the last reader leaves.
TEST(RWLockThreads, TimeOutIsATotalAcrossWakeUps) {
    RWLock lock(true);
    ASSERT_EQ(0u, lock.WriteLock());
    unsigned long rc = 99;
    long ms = -1;
    Runner writer([&] {
        const auto start = Clock::now();
        rc = lock.WriteLock(2000);
        ms = ElapsedMs(start);
        if (rc == 0) lock.WriteUnlock();
    });
    Runner reader([&] {
        EXPECT_EQ(0u, lock.ReadLock());
        lock.ReadUnlock();
    });
    ASSERT_TRUE(
        Eventually([&] { return lock.GetWaitingWriters() == 1 && lock.GetWaitingReaders() == 1; }));
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(1, lock.DowngradeLock());  // wakes the reader and the writer
    ASSERT_TRUE(reader.WaitDone());
    std::this_thread::sleep_for(1500ms);
    EXPECT_FALSE(writer.Done() && rc == 0);
    lock.ReadUnlock();
    ASSERT_TRUE(writer.WaitDone());
    EXPECT_EQ(258u, rc);
    EXPECT_GE(ms, 1900);
}

TEST(RWLockThreads, UpgradeRefusedWhileAWriterWaitsKeepsTheReadLock) {
    RWLock lock;
    ASSERT_EQ(0u, lock.ReadLock());
    Runner writer([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    EXPECT_EQ(128u, lock.UpgradeLock());
    EXPECT_EQ(1, lock.GetReaderCount());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
    EXPECT_FALSE(writer.Done());
    EXPECT_EQ(1, lock.ReadUnlock());
    EXPECT_TRUE(writer.WaitDone());
}

TEST(RWLockThreads, UpgradeTimeOutGivesUpTheReadLockAndReleasesHeldBackReaders) {
    RWLock lock;
    ASSERT_EQ(0u, lock.ReadLock());  // the reader the upgrade waits for
    unsigned long upgradeRc = 0;
    long upgradeMs = -1;
    Runner upgrader([&] {
        ASSERT_EQ(0u, lock.ReadLock());
        auto start = Clock::now();
        upgradeRc = lock.UpgradeLock(2000);
        upgradeMs = ElapsedMs(start);
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    // A reader arriving now is held back by the waiting upgrader...
    Runner lateReader([&] { EXPECT_EQ(0u, lock.ReadLock()); });
    ASSERT_TRUE(upgrader.WaitDone(30000ms));
    EXPECT_EQ(258u, upgradeRc);
    EXPECT_GE(upgradeMs, 1500);
    // ...and is let in when the upgrader gives up, while this thread still
    // reads; the upgrader holds nothing any more.
    ASSERT_TRUE(lateReader.WaitDone());
    EXPECT_EQ(2, lock.GetReaderCount());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
    lock.ReadUnlock();
    lock.ReadUnlock();
    EXPECT_EQ(0u, lock.TryWriteLock());
    EXPECT_EQ(1, lock.WriteUnlock());

    // A writer that times out waiting for a reader also passes the wake-up on.
    ASSERT_EQ(0u, lock.ReadLock());
    unsigned long writeRc = 0;
    Runner timedWriter([&] { writeRc = lock.WriteLock(1000); });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    Runner heldBack([&] { EXPECT_EQ(0u, lock.ReadLock()); });
    ASSERT_TRUE(timedWriter.WaitDone(30000ms));
    EXPECT_EQ(258u, writeRc);
    ASSERT_TRUE(heldBack.WaitDone());
    EXPECT_EQ(2, lock.GetReaderCount());
    lock.ReadUnlock();
    lock.ReadUnlock();
}

TEST(RWLockThreads, DowngradeHandsOffToWaitingReadersPastAWaitingWriter) {
    RWLock lock;
    ASSERT_EQ(0u, lock.WriteLock());
    Runner r1([&] { EXPECT_EQ(0u, lock.ReadLock()); });
    Runner r2([&] { EXPECT_EQ(0u, lock.ReadLock()); });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingReaders() == 2; }));
    std::atomic<long> writerSawReaders{-1};
    Runner writer([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        writerSawReaders = lock.GetReaderCount();
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));

    EXPECT_EQ(1, lock.DowngradeLock());
    ASSERT_TRUE(r1.WaitDone());
    ASSERT_TRUE(r2.WaitDone());
    EXPECT_EQ(3, lock.GetReaderCount());
    EXPECT_EQ(1, lock.GetWaitingWriters());
    // The hand-off is used up: a new reader waits for the writer again.
    EXPECT_EQ(128u, lock.ReadLockPrim(true, INFINITE, nullptr));
    EXPECT_FALSE(writer.Done());
    // Read locks are counted, not owned: this thread releases all three.
    lock.ReadUnlock();
    lock.ReadUnlock();
    lock.ReadUnlock();
    ASSERT_TRUE(writer.WaitDone());
    EXPECT_EQ(0, writerSawReaders.load());
}

TEST(RWLockThreads, DowngradeUnderReaderPreferenceWakesWaitingReaders) {
    RWLock lock(true);
    ASSERT_EQ(0u, lock.WriteLock());
    Runner reader([&] { EXPECT_EQ(0u, lock.ReadLock()); });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingReaders() == 1; }));
    EXPECT_EQ(1, lock.DowngradeLock());
    ASSERT_TRUE(reader.WaitDone());
    EXPECT_EQ(2, lock.GetReaderCount());
    lock.ReadUnlock();
    lock.ReadUnlock();
}

namespace {

// Threads mix reads, nested writes, downgrades and upgrades; every holder
// checks that what it sees inside is consistent with exclusion.
void Stress(bool readersPreferred) {
    RWLock lock(readersPreferred, "stress");
    std::atomic<int> activeReaders{0};
    std::atomic<int> activeWriters{0};
    std::atomic<int> violations{0};
    long shared = 0;  // written only under the write lock; TSan checks the rest
    const int kThreads = 4;
    const int kIterations = 3000;
    auto enterWriter = [&] {
        if (activeWriters.fetch_add(1) != 0 || activeReaders.load() != 0) ++violations;
    };
    auto enterReader = [&] {
        activeReaders.fetch_add(1);
        if (activeWriters.load() != 0) ++violations;
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(static_cast<unsigned>(t) * 7919u + 1u);
            for (int i = 0; i < kIterations; ++i) {
                switch (rng() % 5) {
                    case 0: {  // read
                        if (lock.ReadLock() != 0) {
                            ++violations;
                            break;
                        }
                        enterReader();
                        volatile long seen = shared;
                        (void)seen;
                        activeReaders.fetch_sub(1);
                        lock.ReadUnlock();
                        break;
                    }
                    case 1: {  // nested write
                        if (lock.WriteLock() != 0) {
                            ++violations;
                            break;
                        }
                        enterWriter();
                        ++shared;
                        if (lock.WriteLock() != 0) ++violations;
                        ++shared;
                        lock.WriteUnlock();
                        activeWriters.fetch_sub(1);
                        lock.WriteUnlock();
                        break;
                    }
                    case 2: {  // write, then downgrade
                        if (lock.WriteLock() != 0) {
                            ++violations;
                            break;
                        }
                        enterWriter();
                        ++shared;
                        activeWriters.fetch_sub(1);
                        activeReaders.fetch_add(1);
                        if (lock.DowngradeLock() != 1) ++violations;
                        volatile long seen = shared;
                        (void)seen;
                        activeReaders.fetch_sub(1);
                        lock.ReadUnlock();
                        break;
                    }
                    case 3: {  // read, then try to upgrade
                        if (lock.ReadLock() != 0) {
                            ++violations;
                            break;
                        }
                        enterReader();
                        activeReaders.fetch_sub(1);
                        unsigned long rc = lock.UpgradeLock();
                        if (rc == 0) {
                            enterWriter();
                            ++shared;
                            activeWriters.fetch_sub(1);
                            lock.WriteUnlock();
                        } else if (rc == 128) {
                            enterReader();  // still a reader
                            activeReaders.fetch_sub(1);
                            lock.ReadUnlock();
                        } else {
                            ++violations;
                        }
                        break;
                    }
                    default: {  // try-write
                        if (lock.TryWriteLock() == 0) {
                            enterWriter();
                            ++shared;
                            activeWriters.fetch_sub(1);
                            lock.WriteUnlock();
                        }
                        break;
                    }
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, violations.load());
    EXPECT_EQ(0, lock.GetReaderCount());
    EXPECT_EQ(0, lock.GetWaitingReaders());
    EXPECT_EQ(0, lock.GetWaitingWriters());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
    EXPECT_EQ(0u, lock.TryWriteLock());
    lock.WriteUnlock();
}

}  // namespace

TEST(RWLockThreads, StressKeepsReadersAndWritersApart) {
    Stress(false);
    Stress(true);
}
