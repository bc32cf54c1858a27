#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>

#include <thread>
#include <vector>

#include <tvcommonutil.h>

namespace {
// What a thread's first draws must be: rand_r from the low 32 bits of its id.
std::vector<unsigned> Expected(int count, int range) {
    unsigned seed = static_cast<unsigned>(pthread_self());
    std::vector<unsigned> v;
    for (int i = 0; i < count; ++i) v.push_back(static_cast<unsigned>(rand_r(&seed) % range));
    return v;
}
}  // namespace

TEST(KwRandom, EachThreadDrawsItsOwnSequenceFromItsId) {
    constexpr int kThreads = 4;
    constexpr int kDraws = 2000;
    std::vector<std::vector<unsigned>> got(kThreads), want(kThreads);
    std::vector<char> seeded(kThreads, 0);  // not vector<bool>: one byte per thread
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            want[t] = Expected(kDraws, 1000);
            for (int i = 0; i < kDraws; ++i) got[t].push_back(KwRandom(1000));
            seeded[t] = GetThreadContext()->GetRandBase() != nullptr;
        });
    }
    // The main thread draws at the same time; it must not disturb the others.
    for (int i = 0; i < kDraws; ++i) EXPECT_LT(KwRandom(7), 7u);
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_TRUE(seeded[t] != 0);
        EXPECT_EQ(want[t], got[t]) << "thread " << t;
    }
}

TEST(KwRandom, RangesAreRespected) {
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(0u, KwRandom(1));
        EXPECT_LT(KwRandom(0x3fffffff), 0x3fffffffu);
    }
    EXPECT_EQ(0u, KwRandom(0));  // guarded instead of dividing by zero
    // A negative range still gives a value below its magnitude.
    EXPECT_LT(KwRandom(-10), 10u);
}
