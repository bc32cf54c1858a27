#include <gtest/gtest.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <thread>

#include <tvcommonutil.h>

namespace {

constexpr int kItems = 100000;

struct PoolRun {
    std::unique_ptr<std::atomic<int>[]> hits { new std::atomic<int>[ kItems ]() };
    std::atomic<int> total{0}, inFlight{0}, maxInFlight{0}, created{0};
    Handle* done = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    ~PoolRun() { CloseHandle(done); }
} * run;

void Consume(void* item) {
    int now = ++run->inFlight;
    for (int seen = run->maxInFlight; now > seen;) {
        if (run->maxInFlight.compare_exchange_weak(seen, now)) break;
    }
    ++run->hits[reinterpret_cast<uintptr_t>(item)];
    --run->inFlight;
    if (++run->total == kItems) SetEvent(run->done);
}

bool Creator(TvThreadPool::Routine routine, void* arg) {
    const bool ok = TvThreadPool::DefaultCreator(routine, arg);
    if (ok) ++run->created;
    return ok;
}

}  // namespace

// Two producers, four threads with the default exit (pthread_exit): every
// item runs exactly once and never more than four at a time.
TEST(ThreadPoolConcurrency, EveryItemRunsExactlyOnce) {
    PoolRun r;
    run = &r;
    {
        TvThreadPool pool(2, 4, Consume, Creator, nullptr, nullptr, INFINITE);
        std::thread producers[2];
        for (int p = 0; p < 2; ++p) {
            producers[p] = std::thread([&pool, p] {
                for (int i = p; i < kItems; i += 2)
                    pool.Produce(reinterpret_cast<void*>(static_cast<uintptr_t>(i)));
            });
        }
        for (auto& t : producers) t.join();
        ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(r.done, 300000, FALSE));
        pool.Shutdown();
    }
    int wrong = 0;
    for (int i = 0; i < kItems; ++i) wrong += r.hits[i].load() != 1;
    EXPECT_EQ(0, wrong);
    EXPECT_LE(r.maxInFlight.load(), 4);
    EXPECT_GE(r.created.load(), 1);
    EXPECT_LE(r.created.load(), 4);
    run = nullptr;
}
