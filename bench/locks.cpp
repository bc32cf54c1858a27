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

// Keeps the CPU time per iteration of every benchmark for the summary: the
// median when repetitions are asked for, else the single run.
class RecordingReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            const std::string& name = r.run_name.function_name;
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
                ns_[name] = r.GetAdjustedCPUTime();
                fromMedian_[name] = true;
            } else if (r.run_type == Run::RT_Iteration && !fromMedian_[name]) {
                ns_[name] = r.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // In the default time unit, nanoseconds.
    const std::map<std::string, double>& ns() const { return ns_; }

private:
    std::map<std::string, double> ns_;
    std::map<std::string, bool> fromMedian_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    std::mutex parkMutex;
    std::condition_variable parkCv;
    bool finished = false;
    std::thread parked([&] {
        std::unique_lock<std::mutex> l(parkMutex);
        parkCv.wait(l, [&] { return finished; });
    });
    RecordingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    {
        std::lock_guard<std::mutex> g(parkMutex);
        finished = true;
    }
    parkCv.notify_all();
    parked.join();

    const struct {
        const char* what;
        const char* library;
        const char* floor;
    } pairs[] = {
        {"critical section enter+leave", "BM_CriticalSection", "BM_PthreadMutex"},
        {"RWLock read lock+unlock", "BM_RWLockRead", "BM_PthreadRwlockRead"},
        {"RWLock write lock+unlock", "BM_RWLockWrite", "BM_PthreadRwlockWrite"},
        {"InterlockedIncrement", "BM_InterlockedIncrement", "BM_AtomicFetchAdd"},
    };
    const auto& ns = reporter.ns();
    std::printf("\n%-30s %12s %12s %8s\n", "operation", "library ns", "floor ns", "ratio");
    for (const auto& p : pairs) {
        auto lib = ns.find(p.library);
        auto flo = ns.find(p.floor);
        if (lib == ns.end() || flo == ns.end() || flo->second <= 0) continue;
        std::printf("%-30s %12.2f %12.2f %7.2fx\n", p.what, lib->second, flo->second,
                    lib->second / flo->second);
    }
    return 0;
}
