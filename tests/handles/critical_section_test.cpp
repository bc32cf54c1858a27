#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

TEST(CriticalSection, RecursiveOwnerMustLeaveAsOftenAsItEntered) {
    CriticalSection cs;
    EXPECT_EQ(0, EnterCriticalSection(&cs));
    EXPECT_EQ(0, EnterCriticalSection(&cs));
    EXPECT_EQ(1, TryEnterCriticalSection(&cs));
    EXPECT_EQ(3, cs.count);
    auto otherCanEnter = [&] {
        int r = -1;
        std::thread([&] {
            r = TryEnterCriticalSection(&cs);
            if (r) LeaveCriticalSection(&cs);
        }).join();
        return r == 1;
    };
    LeaveCriticalSection(&cs);
    LeaveCriticalSection(&cs);
    EXPECT_FALSE(otherCanEnter());
    LeaveCriticalSection(&cs);
    EXPECT_TRUE(otherCanEnter());
    EXPECT_EQ(NULL_PTHREAD, cs.owner);

    // Null sections are accepted and ignored.
    EXPECT_EQ(0, EnterCriticalSection(nullptr));
    EXPECT_EQ(0, TryEnterCriticalSection(nullptr));
    LeaveCriticalSection(nullptr);
}

TEST(CriticalSection, MutualExclusionUnderContention) {
    CriticalSection cs;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                CriticalSectionHolder hold(cs);
                EnterCriticalSection(&cs);  // recursive entry by the owner
                ++counter;
                LeaveCriticalSection(&cs);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(80000, counter);
}

TEST(Interlocked, ResultsAndAtomicity) {
    long v = 5;
    EXPECT_EQ(6, InterlockedIncrement(&v));
    EXPECT_EQ(5, InterlockedDecrement(&v));
    EXPECT_EQ(5, InterlockedExchange(&v, 10));
    EXPECT_EQ(10, InterlockedExchangeAdd(&v, 7));
    EXPECT_EQ(17, v);
    EXPECT_EQ(20, AtomicAdd32(&v, 3, 0));
    EXPECT_EQ(20, AtomicAdd32(&v, 1, 1));
    EXPECT_EQ(21, AtomicExchange32(&v, 1L << 40));
    EXPECT_EQ(1L << 40, v) << "the full 64-bit value";
    EXPECT_NE(0, lArchHasAtomicOps) << "the load-time probe found native atomics";

    long shared = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50000; ++i) {
                InterlockedIncrement(&shared);
                InterlockedExchangeAdd(&shared, 2);
                InterlockedDecrement(&shared);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(4 * 50000 * 2, shared);
}
