// Mutexes, semaphores and the thread pool next to the raw pthread floor:
//  1. uncontended WaitForSingleObjectEx + ReleaseMutex vs pthread_mutex
//     lock/unlock;
//  2. semaphore ping-pong between two threads (release on one, wait on the
//     other, and back) vs the same ping-pong on a mutex + condition variable
//     counter and on raw futex words, with the threads on two CPUs (/0) and
//     on one (/1);
//  3. thread-pool throughput of empty work items vs a minimal mutex +
//     condition variable work queue with the same number of threads;
//  4. ReleaseSemaphore + zero-time wait on an uncontended semaphore vs
//     sem_post + sem_trywait.
#include <benchmark/benchmark.h>

#include <pthread.h>
#include <semaphore.h>
#include "bench/bench_support.h"

#include <atomic>
#include <cstdio>
#include <deque>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

namespace {

// --- 1. uncontended mutex --------------------------------------------------
void BM_MutexWaitRelease(benchmark::State& state) {
    Handle* m = CreateMutex(nullptr, FALSE, nullptr);
    for (auto _ : state) {
        WaitForSingleObjectEx(m, INFINITE, FALSE);
        benchmark::DoNotOptimize(ReleaseMutex(m));
    }
    CloseHandle(m);
}
BENCHMARK(BM_MutexWaitRelease);

void BM_RawMutexLockUnlock(benchmark::State& state) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        benchmark::DoNotOptimize(m);
        pthread_mutex_unlock(&m);
    }
}
BENCHMARK(BM_RawMutexLockUnlock);

// --- 2. semaphore ping-pong ------------------------------------------------
// A library semaphore with the Set()/Wait() shape of the floors.
struct LibSemaphore {
    Handle* h = CreateSemaphore(nullptr, 0, 1, nullptr);
    ~LibSemaphore() { CloseHandle(h); }
    void Set() { ReleaseSemaphore(h, 1, nullptr); }
    void Wait() { WaitForSingleObjectEx(h, INFINITE, FALSE); }
};

void BM_SemaphorePingPong(benchmark::State& state) {
    LibSemaphore ping, pong;
    tvbench::PingPong(state, ping, pong);
}
BENCHMARK(BM_SemaphorePingPong)->Arg(0)->Arg(1)->UseRealTime();

// A counting semaphore in its plainest form.
struct RawCounter {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    long count = 0;
    void Release() {
        pthread_mutex_lock(&m);
        ++count;
        pthread_cond_signal(&c);
        pthread_mutex_unlock(&m);
    }
    void Set() { Release(); }
    void Wait() {
        pthread_mutex_lock(&m);
        while (count == 0) pthread_cond_wait(&c, &m);
        --count;
        pthread_mutex_unlock(&m);
    }
};

void BM_RawCounterPingPong(benchmark::State& state) {
    RawCounter ping, pong;
    tvbench::PingPong(state, ping, pong);
}
BENCHMARK(BM_RawCounterPingPong)->Arg(0)->Arg(1)->UseRealTime();

// A one-unit semaphore is the futex event.
void BM_RawFutexPingPong(benchmark::State& state) {
    tvbench::FutexEvent ping, pong;
    tvbench::PingPong(state, ping, pong);
}
BENCHMARK(BM_RawFutexPingPong)->Arg(0)->Arg(1)->UseRealTime();

// --- 3. thread-pool throughput -------------------------------------------
constexpr int kBatch = 20000;

// Counts consumed items and wakes the producer when a batch is through;
// shared by the pool and the floor so both pay the same bookkeeping.
struct Batch {
    std::atomic<long> consumed{0};
    std::atomic<long> target{0};
    RawCounter finished;
    void Consume() {
        if (consumed.fetch_add(1, std::memory_order_acq_rel) + 1 == target) finished.Release();
    }
};
Batch* batch = nullptr;

void EmptyItem(void*) {
    batch->Consume();
}

void BM_ThreadPoolEmptyItems(benchmark::State& state) {
    Batch b;
    batch = &b;
    const unsigned long threads = static_cast<unsigned long>(state.range(0));
    {
        TvThreadPool pool(threads, threads, EmptyItem, nullptr, nullptr, nullptr, INFINITE);
        for (auto _ : state) {
            b.target = b.consumed.load() + kBatch;
            for (int i = 0; i < kBatch; ++i) pool.Produce(nullptr);
            b.finished.Wait();
        }
        pool.Shutdown();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    batch = nullptr;
}
BENCHMARK(BM_ThreadPoolEmptyItems)->Arg(2)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond);

// The floor: a deque behind one mutex, workers on one condition variable.
class RawQueue {
public:
    explicit RawQueue(int threads) {
        for (int i = 0; i < threads; ++i) workers_.emplace_back([this] { Work(); });
    }
    ~RawQueue() {
        pthread_mutex_lock(&m_);
        stop_ = true;
        pthread_cond_broadcast(&c_);
        pthread_mutex_unlock(&m_);
        for (auto& w : workers_) w.join();
    }
    void Produce(void* item) {
        pthread_mutex_lock(&m_);
        q_.push_back(item);
        pthread_mutex_unlock(&m_);
        pthread_cond_signal(&c_);
    }

private:
    void Work() {
        pthread_mutex_lock(&m_);
        for (;;) {
            while (q_.empty() && !stop_) pthread_cond_wait(&c_, &m_);
            if (q_.empty()) break;
            void* item = q_.front();
            q_.pop_front();
            pthread_mutex_unlock(&m_);
            EmptyItem(item);
            pthread_mutex_lock(&m_);
        }
        pthread_mutex_unlock(&m_);
    }

    pthread_mutex_t m_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c_ = PTHREAD_COND_INITIALIZER;
    std::deque<void*> q_;
    bool stop_ = false;
    std::vector<std::thread> workers_;
};

void BM_RawQueueEmptyItems(benchmark::State& state) {
    Batch b;
    batch = &b;
    {
        RawQueue q(static_cast<int>(state.range(0)));
        for (auto _ : state) {
            b.target = b.consumed.load() + kBatch;
            for (int i = 0; i < kBatch; ++i) q.Produce(nullptr);
            b.finished.Wait();
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    batch = nullptr;
}
BENCHMARK(BM_RawQueueEmptyItems)->Arg(2)->Arg(4)->UseRealTime()->Unit(benchmark::kMillisecond);

// --- 4. uncontended semaphore ------------------------------------------------
void BM_SemaphoreReleaseThenPoll(benchmark::State& state) {
    Handle* s = CreateSemaphore(nullptr, 0, 1, nullptr);
    for (auto _ : state) {
        ReleaseSemaphore(s, 1, nullptr);
        benchmark::DoNotOptimize(WaitForSingleObjectEx(s, 0, FALSE));
    }
    CloseHandle(s);
}
BENCHMARK(BM_SemaphoreReleaseThenPoll);

void BM_RawSemPostThenTryWait(benchmark::State& state) {
    sem_t s;
    sem_init(&s, 0, 0);
    for (auto _ : state) {
        sem_post(&s);
        benchmark::DoNotOptimize(sem_trywait(&s));
    }
    sem_destroy(&s);
}
BENCHMARK(BM_RawSemPostThenTryWait);

}  // namespace

int main(int argc, char** argv) {
    // The pool rows compare time per batch of the same size, i.e. per item.
    return tvbench::Main(
        argc, argv,
        {{"mutex wait+release / pthread lock+unlock", "BM_MutexWaitRelease",
          "BM_RawMutexLockUnlock", true},
         {"semaphore ping-pong, 2 cores / condvar counter", "BM_SemaphorePingPong/0/real_time",
          "BM_RawCounterPingPong/0/real_time"},
         {"semaphore ping-pong, 1 core / condvar counter", "BM_SemaphorePingPong/1/real_time",
          "BM_RawCounterPingPong/1/real_time", true},
         {"semaphore ping-pong, 1 core / futex", "BM_SemaphorePingPong/1/real_time",
          "BM_RawFutexPingPong/1/real_time", true},
         {"ReleaseSemaphore+zero-time wait / sem_post+sem_trywait", "BM_SemaphoreReleaseThenPoll",
          "BM_RawSemPostThenTryWait", true},
         {"pool, 2 threads, per item / condvar queue", "BM_ThreadPoolEmptyItems/2/real_time",
          "BM_RawQueueEmptyItems/2/real_time"},
         {"pool, 4 threads, per item / condvar queue", "BM_ThreadPoolEmptyItems/4/real_time",
          "BM_RawQueueEmptyItems/4/real_time"}});
}
