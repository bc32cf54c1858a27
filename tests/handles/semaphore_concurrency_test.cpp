#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

// Producers release in chunks of 1 to 3 against a small maximum (so
// over-releases are refused and retried) while consumers take units with
// every kind of wait. No unit may be lost or created, and the untimed
// consumer would hang on a lost wake-up.
TEST(SemaphoreConcurrency, UnitsAreConservedUnderContention) {
    constexpr long kPerProducer = 30000;
    constexpr long kTotal = 2 * kPerProducer;
    Handle* s = CreateSemaphore(nullptr, 0, 8, nullptr);
    std::atomic<long> claimed{0};
    std::atomic<long> taken{0};
    std::atomic<long> refused{0};

    std::vector<std::thread> threads;
    for (int p = 0; p < 2; ++p) {
        threads.emplace_back([&, p] {
            long left = kPerProducer;
            unsigned n = static_cast<unsigned>(p);
            while (left > 0) {
                long chunk = 1 + static_cast<long>(n++ % 3);
                if (chunk > left) chunk = left;
                if (ReleaseSemaphore(s, chunk, nullptr)) {
                    left -= chunk;
                } else {
                    ++refused;
                    std::this_thread::yield();
                }
            }
        });
    }
    const DWORD kinds[][2] = {{INFINITE, FALSE}, {10000, FALSE}, {10000, TRUE}, {0, FALSE}};
    for (const auto& kind : kinds) {
        const DWORD ms = kind[0];
        const BOOL alertable = static_cast<BOOL>(kind[1]);
        threads.emplace_back([&, ms, alertable] {
            // Claim a unit to take before waiting, so exactly kTotal waits
            // succeed overall and no consumer is left waiting at the end.
            while (claimed.fetch_add(1) < kTotal) {
                DWORD r;
                while ((r = WaitForSingleObjectEx(s, ms, alertable)) == WAIT_TIMEOUT) {
                    if (ms == 0) std::this_thread::yield();
                }
                EXPECT_EQ(WAIT_OBJECT_0, r);
                ++taken;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(kTotal, taken.load());
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(s, 0, FALSE));
    long prev = -1;
    EXPECT_EQ(TRUE, ReleaseSemaphore(s, 8, &prev));
    EXPECT_EQ(0, prev);
    CloseHandle(s);
}

// Four threads take a mutex twice (recursively) around a plain counter.
TEST(SemaphoreConcurrency, MutexExcludesAndNests) {
    constexpr int kRounds = 20000;
    Handle* m = CreateMutex(nullptr, FALSE, nullptr);
    long counter = 0;
    std::atomic<int> badReleases{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                WaitForSingleObjectEx(m, INFINITE, FALSE);
                WaitForSingleObjectEx(m, 10000, FALSE);
                ++counter;
                if (ReleaseMutex(m) != FALSE) ++badReleases;
                if (ReleaseMutex(m) != TRUE) ++badReleases;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(4L * kRounds, counter);
    EXPECT_EQ(0, badReleases.load());
    CloseHandle(m);
}
