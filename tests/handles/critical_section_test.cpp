#include <gtest/gtest.h>

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
            if ((r = TryEnterCriticalSection(&cs)) != 0) LeaveCriticalSection(&cs);
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

TEST(Interlocked, ResultsOnTheFull64BitValue) {
    long v = 5;
    EXPECT_EQ(6, InterlockedIncrement(&v));
    EXPECT_EQ(5, InterlockedDecrement(&v));
    EXPECT_EQ(5, InterlockedExchange(&v, 10));
    EXPECT_EQ(10, InterlockedExchangeAdd(&v, 7));
    EXPECT_EQ(17, v);
    EXPECT_EQ(20, AtomicAdd32(&v, 3, 0));
    EXPECT_EQ(20, AtomicAdd32(&v, 1, 1));
    EXPECT_EQ(21, AtomicExchange32(&v, 1L << 40));
    EXPECT_EQ(1L << 40, v);
    EXPECT_NE(0, lArchHasAtomicOps) << "the load-time probe found native atomics";
}

// Four threads update a plain counter inside a critical section (entered
// recursively) and a shared one with interlocked operations only.
TEST(CriticalSection, ExcludesUnderContentionAsInterlockedOpsAreAtomic) {
    CriticalSection cs;
    long counter = 0, shared = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                {
                    CriticalSectionHolder hold(cs);
                    EnterCriticalSection(&cs);
                    ++counter;
                    LeaveCriticalSection(&cs);
                }
                InterlockedIncrement(&shared);
                InterlockedExchangeAdd(&shared, 2);
                InterlockedDecrement(&shared);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(80000, counter);
    EXPECT_EQ(4 * 20000 * 2, shared);
}
