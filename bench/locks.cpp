// Uncontended lock and counter operations of the library next to the POSIX
// or standard-library operation that sets the floor for the same job:
//   EnterCriticalSection + LeaveCriticalSection  vs  pthread_mutex_lock + unlock
//   RWLock::ReadLock + ReadUnlock                vs  pthread_rwlock_rdlock + unlock
//   RWLock::WriteLock + WriteUnlock              vs  pthread_rwlock_wrlock + unlock
//   InterlockedIncrement                         vs  std::atomic<long>::fetch_add
// After the runs a summary prints each library/floor ratio.
//
// A parked second thread runs for the whole program: glibc takes an
// atomic-free path through pthread_mutex_lock while a process has a single
// thread, which would make the floor one no threaded server ever sees (and
// the library's locks exist for threaded servers).
#include <benchmark/benchmark.h>

#include <pthread.h>
#include "bench/bench_support.h"

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

namespace {

void BM_CriticalSection(benchmark::State& state) {
    static CriticalSection cs;
    for (auto _ : state) {
        EnterCriticalSection(&cs);
        LeaveCriticalSection(&cs);
    }
}
BENCHMARK(BM_CriticalSection);

void BM_PthreadMutex(benchmark::State& state) {
    static pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
    }
}
BENCHMARK(BM_PthreadMutex);

void BM_RWLockRead(benchmark::State& state) {
    RWLock lock;
    for (auto _ : state) {
        lock.ReadLock();
        lock.ReadUnlock();
    }
}
BENCHMARK(BM_RWLockRead);

void BM_PthreadRwlockRead(benchmark::State& state) {
    pthread_rwlock_t rw = PTHREAD_RWLOCK_INITIALIZER;
    for (auto _ : state) {
        pthread_rwlock_rdlock(&rw);
        pthread_rwlock_unlock(&rw);
    }
    pthread_rwlock_destroy(&rw);
}
BENCHMARK(BM_PthreadRwlockRead);

void BM_RWLockWrite(benchmark::State& state) {
    RWLock lock;
    for (auto _ : state) {
        lock.WriteLock();
        lock.WriteUnlock();
    }
}
BENCHMARK(BM_RWLockWrite);

void BM_PthreadRwlockWrite(benchmark::State& state) {
    pthread_rwlock_t rw = PTHREAD_RWLOCK_INITIALIZER;
    for (auto _ : state) {
        pthread_rwlock_wrlock(&rw);
        pthread_rwlock_unlock(&rw);
    }
    pthread_rwlock_destroy(&rw);
}
BENCHMARK(BM_PthreadRwlockWrite);

void BM_InterlockedIncrement(benchmark::State& state) {
    static long counter = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(InterlockedIncrement(&counter));
    }
}
BENCHMARK(BM_InterlockedIncrement);

void BM_AtomicFetchAdd(benchmark::State& state) {
    static std::atomic<long> counter{0};
    for (auto _ : state) {
        benchmark::DoNotOptimize(counter.fetch_add(1) + 1);
    }
}
BENCHMARK(BM_AtomicFetchAdd);

}  // namespace

int main(int argc, char** argv) {
    return tvbench::Main(argc, argv,
                         {{"EnterCriticalSection+Leave / pthread_mutex lock+unlock",
                           "BM_CriticalSection", "BM_PthreadMutex"},
                          {"RWLock read lock+unlock / pthread_rwlock rdlock+unlock",
                           "BM_RWLockRead", "BM_PthreadRwlockRead"},
                          {"RWLock write lock+unlock / pthread_rwlock wrlock+unlock",
                           "BM_RWLockWrite", "BM_PthreadRwlockWrite"},
                          {"InterlockedIncrement / std::atomic<long>::fetch_add",
                           "BM_InterlockedIncrement", "BM_AtomicFetchAdd"}});
}
