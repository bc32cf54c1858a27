// RWLock: results seen from one thread, then with real threads admission
// policies, time-outs, upgrade and downgrade, wake-ups, and exclusion under load. A thread shown by
// the waiting counters is blocked in the lock: it is counted under the lock's mutex in the critical
// section in which it starts waiting.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <random>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A function on its own thread; waits with a limit make lost wake-ups fail.
using Runner = std::future<void>;
Runner Spawn(std::function<void()> fn) {
    return std::async(std::launch::async, std::move(fn));
}
bool Finished(Runner& r, std::chrono::milliseconds limit = 10000ms) {
    return r.wait_for(limit) == std::future_status::ready;
}

bool Eventually(const std::function<bool()>& cond) {
    for (auto end = Clock::now() + 10s; !cond(); std::this_thread::sleep_for(1ms)) {
        if (Clock::now() > end) return false;
    }
    return true;
}

long ElapsedMs(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

}  // namespace

TEST(RWLock, RecursiveWriteAndDowngradeLimits) {
    RWLock lock;
    EXPECT_EQ(0u, lock.WriteLock());
    EXPECT_EQ(0u, lock.WriteLock(INFINITE));
    EXPECT_EQ(0u, lock.TryWriteLock());  // the owner nests even in try mode
    EXPECT_EQ(pthread_self(), lock.GetWriter());
    std::thread([&] {  // only the writer can unlock it
        EXPECT_EQ(0, lock.WriteUnlock());
        EXPECT_EQ(128u, lock.TryWriteLock());
    })
        .join();
    // Nested write locks cannot be downgraded.
    EXPECT_EQ(0, lock.DowngradeLock());
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_EQ(pthread_self(), lock.GetWriter());
    // At depth one the writer becomes a reader.
    EXPECT_EQ(1, lock.DowngradeLock());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
    EXPECT_EQ(1, lock.GetReaderCount());
    EXPECT_EQ(0, lock.WriteUnlock());    // no longer the writer
    EXPECT_EQ(0, lock.DowngradeLock());  // not the writer
    EXPECT_EQ(128u, lock.TryWriteLock());
    EXPECT_EQ(1, lock.ReadUnlock());
    EXPECT_EQ(0, lock.GetReaderCount());
    EXPECT_EQ(0u, lock.TryWriteLock());
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
}

TEST(RWLock, TryModesAndUncontendedUpgrade) {
    RWLock lock;
    EXPECT_EQ(0u, lock.ReadLockPrim(true, INFINITE, nullptr));
    EXPECT_EQ(0u, lock.ReadLock(0));  // admissible: no wait, so no time-out
    EXPECT_EQ(2, lock.GetReaderCount());
    EXPECT_EQ(128u, lock.TryWriteLock());
    EXPECT_EQ(128u, lock.WriteLockPrim(true, 5000, nullptr));
    lock.ReadUnlock();
    // The only reader upgrades at once.
    EXPECT_EQ(0u, lock.UpgradeLock(0));
    EXPECT_EQ(pthread_self(), lock.GetWriter());
    EXPECT_EQ(0, lock.GetReaderCount());
    // A writer refuses try-mode readers and, being preferred, any reader.
    EXPECT_EQ(128u, lock.ReadLockPrim(true, INFINITE, nullptr));
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_EQ(0u, lock.ReadLockPrim(true, INFINITE, nullptr));
    lock.ReadUnlock();
}

TEST(RWLock, NamesCountsAndCopies) {
    RWLock original(true, "orig", false);
    ASSERT_EQ(0u, original.ReadLock());
    RWLock copy(original);
    EXPECT_STREQ("orig", copy.GetLockName());
    copy.SetLockName(nullptr);
    EXPECT_STREQ("UNNAMED LOCK", copy.GetLockName());
    EXPECT_EQ(1, copy.GetRefCount());  // a copy starts its own count
    EXPECT_EQ(1, copy.GetReaderCount());
    EXPECT_EQ(0, copy.GetWaitingReaders());
    EXPECT_EQ(0, copy.GetWaitingWriters());
    EXPECT_EQ(128u, copy.TryWriteLock());
    copy.ReadUnlock();
    EXPECT_EQ(0u, copy.TryWriteLock());
    // The two locks are independent from here on.
    EXPECT_EQ(1, original.GetReaderCount());
    EXPECT_EQ(1, copy.WriteUnlock());
    original.ReadUnlock();

    RWLock held;
    ASSERT_EQ(0u, held.WriteLock());
    RWLock heldCopy(held);
    EXPECT_EQ(pthread_self(), heldCopy.GetWriter());
    EXPECT_EQ(1, heldCopy.WriteUnlock());
    EXPECT_EQ(NULL_PTHREAD, heldCopy.GetWriter());
    EXPECT_EQ(pthread_self(), held.GetWriter());
    EXPECT_EQ(1, held.WriteUnlock());

    RWLock* heap = new RWLock;
    EXPECT_EQ(2, heap->AddRef());
    EXPECT_EQ(1, heap->Release());
    EXPECT_EQ(0, heap->Release());  // deleted here; ASan would flag a leak otherwise
}

TEST(RWLockThreads, WriterPreferenceHoldsNewReadersAndUpgradesBack) {
    RWLock lock;
    ASSERT_EQ(0u, lock.ReadLock());
    std::atomic<bool> writerDone{false}, readerSawWriterDone{false};
    std::atomic<long> writerSawReaders{-1}, writerSawWaitingReaders{-1};
    Runner writer = Spawn([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        writerSawReaders = lock.GetReaderCount();
        writerSawWaitingReaders = lock.GetWaitingReaders();
        writerDone = true;
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    Runner reader = Spawn([&] {
        EXPECT_EQ(0u, lock.ReadLock());
        readerSawWriterDone = writerDone.load();
        lock.ReadUnlock();
    });
    // Only a reader holds the lock, yet the new reader waits for the writer.
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingReaders() == 1; }));
    // An upgrade is refused while a writer waits, and the read lock is kept.
    EXPECT_EQ(128u, lock.UpgradeLock());
    EXPECT_EQ(1, lock.GetReaderCount());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
    EXPECT_FALSE(Finished(writer, 0ms));
    EXPECT_EQ(1, lock.ReadUnlock());
    ASSERT_TRUE(Finished(writer));
    ASSERT_TRUE(Finished(reader));
    EXPECT_EQ(0, writerSawReaders.load());
    EXPECT_EQ(1, writerSawWaitingReaders.load());  // still held back while it wrote
    EXPECT_TRUE(readerSawWriterDone.load());
    EXPECT_EQ(0, lock.GetReaderCount());
    EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
}

TEST(RWLockThreads, ReaderPreferenceAdmitsReadersPastWaitingWriter) {
    RWLock lock(true, "readers first");
    ASSERT_EQ(0u, lock.ReadLock());
    Runner writer = Spawn([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        EXPECT_EQ(0, lock.GetReaderCount());
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    Runner reader = Spawn([&] { EXPECT_EQ(0u, lock.ReadLock()); });
    ASSERT_TRUE(Finished(reader));
    EXPECT_EQ(0u, lock.ReadLockPrim(true, INFINITE, nullptr));
    EXPECT_EQ(3, lock.GetReaderCount());
    EXPECT_FALSE(Finished(writer, 0ms));
    for (int i = 0; i < 3; ++i) lock.ReadUnlock();
    ASSERT_TRUE(Finished(writer));

    // A writer waiting behind a writer, with no reader waiting, is woken by
    // the write unlock.
    ASSERT_EQ(0u, lock.WriteLock());
    Runner second = Spawn([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
    EXPECT_EQ(1, lock.WriteUnlock());
    EXPECT_TRUE(Finished(second));
}

// A time-out counts from the call: a writer that a downgrade wakes (and does
// not admit) halfway through its wait still gives up at the original time,
// before the last reader leaves. Time-outs under a second expire at once.
TEST(RWLockThreads, TimeOutIsATotalAcrossWakeUps) {
    RWLock lock(true);
    ASSERT_EQ(0u, lock.WriteLock());
    Spawn([&] {
        for (int write = 0; write < 2; ++write) {
            const auto start = Clock::now();
            EXPECT_EQ(258u, write ? lock.WriteLock(999) : lock.ReadLock(500));
            EXPECT_LT(ElapsedMs(start), 450);
        }
    }).get();
    unsigned long rc = 99;
    long ms = -1;
    Runner writer = Spawn([&] {
        const auto start = Clock::now();
        rc = lock.WriteLock(2000);
        ms = ElapsedMs(start);
        if (rc == 0) lock.WriteUnlock();
    });
    Runner reader = Spawn([&] {
        EXPECT_EQ(0u, lock.ReadLock());
        lock.ReadUnlock();
    });
    ASSERT_TRUE(
        Eventually([&] { return lock.GetWaitingWriters() == 1 && lock.GetWaitingReaders() == 1; }));
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(1, lock.DowngradeLock());  // wakes the reader and the writer
    ASSERT_TRUE(Finished(reader));
    std::this_thread::sleep_for(1500ms);
    lock.ReadUnlock();
    ASSERT_TRUE(Finished(writer));
    EXPECT_EQ(258u, rc);
    EXPECT_GE(ms, 1900);
}

// An upgrader, then a writer, that times out waiting for the reader held by
// this thread gives up (the upgrader its read lock too) and lets in a reader
// its waiting held back.
TEST(RWLockThreads, TimedOutUpgraderOrWriterReleasesHeldBackReaders) {
    RWLock lock;
    for (int upgrade = 1; upgrade >= 0; --upgrade) {
        ASSERT_EQ(0u, lock.ReadLock());
        unsigned long rc = 0;
        long ms = -1;
        Runner waiter = Spawn([&] {
            if (upgrade) {
                ASSERT_EQ(0u, lock.ReadLock());
            }
            const auto start = Clock::now();
            rc = upgrade ? lock.UpgradeLock(1000) : lock.WriteLock(1000);
            ms = ElapsedMs(start);
        });
        ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));
        Runner heldBack = Spawn([&] { EXPECT_EQ(0u, lock.ReadLock()); });
        ASSERT_TRUE(Finished(waiter, 30000ms));
        EXPECT_EQ(258u, rc) << upgrade;
        EXPECT_GE(ms, 900) << upgrade;
        ASSERT_TRUE(Finished(heldBack)) << upgrade;
        EXPECT_EQ(2, lock.GetReaderCount()) << upgrade;
        EXPECT_EQ(NULL_PTHREAD, lock.GetWriter());
        lock.ReadUnlock();
        lock.ReadUnlock();
    }
    EXPECT_EQ(0u, lock.TryWriteLock());
    EXPECT_EQ(1, lock.WriteUnlock());
}

TEST(RWLockThreads, DowngradeHandsOffToWaitingReadersPastAWaitingWriter) {
    RWLock lock;
    ASSERT_EQ(0u, lock.WriteLock());
    Runner r1 = Spawn([&] { EXPECT_EQ(0u, lock.ReadLock()); });
    Runner r2 = Spawn([&] { EXPECT_EQ(0u, lock.ReadLock()); });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingReaders() == 2; }));
    std::atomic<long> writerSawReaders{-1};
    Runner writer = Spawn([&] {
        EXPECT_EQ(0u, lock.WriteLock());
        writerSawReaders = lock.GetReaderCount();
        EXPECT_EQ(1, lock.WriteUnlock());
    });
    ASSERT_TRUE(Eventually([&] { return lock.GetWaitingWriters() == 1; }));

    EXPECT_EQ(1, lock.DowngradeLock());
    ASSERT_TRUE(Finished(r1));
    ASSERT_TRUE(Finished(r2));
    EXPECT_EQ(3, lock.GetReaderCount());
    EXPECT_EQ(1, lock.GetWaitingWriters());
    // The hand-off is used up: a new reader waits for the writer again.
    EXPECT_EQ(128u, lock.ReadLockPrim(true, INFINITE, nullptr));
    EXPECT_FALSE(Finished(writer, 0ms));
    // Read locks are counted, not owned: this thread releases all three.
    for (int i = 0; i < 3; ++i) lock.ReadUnlock();
    ASSERT_TRUE(Finished(writer));
    EXPECT_EQ(0, writerSawReaders.load());

    // Under reader preference a downgrade wakes the waiting readers too.
    RWLock readersFirst(true);
    ASSERT_EQ(0u, readersFirst.WriteLock());
    Runner reader = Spawn([&] { EXPECT_EQ(0u, readersFirst.ReadLock()); });
    ASSERT_TRUE(Eventually([&] { return readersFirst.GetWaitingReaders() == 1; }));
    EXPECT_EQ(1, readersFirst.DowngradeLock());
    ASSERT_TRUE(Finished(reader));
    EXPECT_EQ(2, readersFirst.GetReaderCount());
    readersFirst.ReadUnlock();
    readersFirst.ReadUnlock();
}

// Threads mix reads, nested writes, downgrades, upgrades and try-writes;
// every holder checks that what it sees inside is consistent with exclusion.
TEST(RWLockThreads, StressKeepsReadersAndWritersApart) {
    for (bool readersPreferred : {false, true}) {
        RWLock lock(readersPreferred, "stress");
        std::atomic<int> readers{0}, writers{0}, violations{0};
        long shared = 0;  // written only under the write lock; TSan checks the rest
        auto write = [&] {
            if (writers.fetch_add(1) != 0 || readers.load() != 0) ++violations;
            ++shared;
            writers.fetch_sub(1);
        };
        auto read = [&] {
            readers.fetch_add(1);
            if (writers.load() != 0) ++violations;
            volatile long seen = shared;
            (void)seen;
            readers.fetch_sub(1);
        };
        auto check = [&](bool ok) {
            if (!ok) ++violations;
            return ok;
        };
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                std::mt19937 rng(static_cast<unsigned>(t) * 7919u + 1u);
                for (int i = 0; i < 3000; ++i) {
                    switch (rng() % 5) {
                        case 0:  // read
                            if (!check(lock.ReadLock() == 0)) break;
                            read();
                            lock.ReadUnlock();
                            break;
                        case 1:  // nested write
                            if (!check(lock.WriteLock() == 0)) break;
                            write();
                            check(lock.WriteLock() == 0);
                            write();
                            lock.WriteUnlock();
                            lock.WriteUnlock();
                            break;
                        case 2:  // write, then downgrade
                            if (!check(lock.WriteLock() == 0)) break;
                            write();
                            check(lock.DowngradeLock() == 1);
                            read();
                            lock.ReadUnlock();
                            break;
                        case 3: {  // read, then try to upgrade
                            if (!check(lock.ReadLock() == 0)) break;
                            read();
                            const unsigned long rc = lock.UpgradeLock();
                            if (rc == 0) {
                                write();
                                lock.WriteUnlock();
                            } else if (check(rc == 128)) {
                                read();  // still a reader
                                lock.ReadUnlock();
                            }
                            break;
                        }
                        default:  // try-write
                            if (lock.TryWriteLock() != 0) break;
                            write();
                            lock.WriteUnlock();
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
}
