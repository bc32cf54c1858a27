// Shared main for the benchmark programs: runs the benchmarks with the
// console output as usual, then prints one line per library/floor pair with
// the ratio of their real times (the median when --benchmark_repetitions is
// given). While the benchmarks run, a second thread stays parked, so that
// the pthread floor takes its multi-threaded paths as it does in a server
// (glibc locks a mutex without atomic instructions in a single-threaded
// process, a floor no server ever sees).
//
// Also here: the placement of two-thread benchmarks (both threads pinned to
// one CPU, or to two), a generic ping-pong, and a raw futex event, the floor
// under any wake-up a library can offer.
#ifndef TV_BENCH_SUPPORT_H
#define TV_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace tvbench {

struct Pair {
    const char* label;
    const char* library;  // benchmark names as printed, e.g. "BM_Ping/real_time"
    const char* floor;
    bool cpuToo = false;  // also print the ratio of the CPU times
};

// The n-th CPU this process may run on (wrapping round), so that "two CPUs"
// means two distinct ones whatever the affinity mask is.
inline int AllowedCpu(int n) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) != 0) return 0;
    const int count = CPU_COUNT(&set);
    if (count == 0) return 0;
    n %= count;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set) && n-- == 0) return cpu;
    }
    return 0;
}

// Pins the calling thread to AllowedCpu(slot) for the scope.
class PinnedTo {
public:
    explicit PinnedTo(int slot) {
        pthread_getaffinity_np(pthread_self(), sizeof old_, &old_);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(AllowedCpu(slot), &one);
        pthread_setaffinity_np(pthread_self(), sizeof one, &one);
    }
    ~PinnedTo() { pthread_setaffinity_np(pthread_self(), sizeof old_, &old_); }
    PinnedTo(const PinnedTo&) = delete;
    PinnedTo& operator=(const PinnedTo&) = delete;

private:
    cpu_set_t old_;
};

// Two-thread benchmarks take range(0): 0 puts the peer on another CPU than
// the benchmark thread, 1 both on the same CPU. Cross-core, the wake-up of
// the other CPU (tens of microseconds on an idle virtual machine) hides the
// cost of the path itself; on one core every instruction of it shows.
inline int PeerSlot(const benchmark::State& state) {
    return state.range(0) != 0 ? 0 : 1;
}

// An auto-reset event on one futex word: 0 clear, 1 set, 2 clear with a
// sleeper. One waiter at a time.
class FutexEvent {
public:
    void Set() {
        if (word_.exchange(1, std::memory_order_acq_rel) == 2) Futex(FUTEX_WAKE, 1);
    }
    void Wait() {
        uint32_t v = word_.load(std::memory_order_acquire);
        for (;;) {
            if (v == 1) {
                if (word_.compare_exchange_weak(v, 0, std::memory_order_acq_rel)) return;
                continue;
            }
            if (v == 0 && !word_.compare_exchange_weak(v, 2, std::memory_order_acq_rel)) continue;
            Futex(FUTEX_WAIT, 2);
            v = word_.load(std::memory_order_acquire);
        }
    }
    bool TryWait() {
        uint32_t v = 1;
        return word_.compare_exchange_strong(v, 0, std::memory_order_acq_rel);
    }

private:
    void Futex(int op, uint32_t val) {
        syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word_), op | FUTEX_PRIVATE_FLAG, val,
                nullptr, nullptr, 0);
    }
    std::atomic<uint32_t> word_{0};
};

// The same auto-reset event on a pthread mutex + condition variable.
struct CondEvent {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    bool signalled = false;
    void Set() {
        pthread_mutex_lock(&m);
        signalled = true;
        pthread_cond_signal(&c);
        pthread_mutex_unlock(&m);
    }
    void Wait() {
        pthread_mutex_lock(&m);
        while (!signalled) pthread_cond_wait(&c, &m);
        signalled = false;
        pthread_mutex_unlock(&m);
    }
    bool TryWait() {
        pthread_mutex_lock(&m);
        const bool was = signalled;
        signalled = false;
        pthread_mutex_unlock(&m);
        return was;
    }
};

// Round trips between the benchmark thread and a peer over two objects with
// Set()/Wait(), placed as range(0) says.
template <class Ev>
void PingPong(benchmark::State& state, Ev& ping, Ev& pong) {
    std::atomic<bool> stop{false};
    const int peerSlot = PeerSlot(state);
    std::thread peer([&] {
        PinnedTo pin(peerSlot);
        for (;;) {
            ping.Wait();
            if (stop.load(std::memory_order_acquire)) break;
            pong.Set();
        }
    });
    {
        PinnedTo pin(0);
        for (auto _ : state) {
            ping.Set();
            pong.Wait();
        }
    }
    stop.store(true, std::memory_order_release);
    ping.Set();
    peer.join();
}

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            const std::string name = r.run_name.str();
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
                ns_[name] = r.GetAdjustedRealTime();
                cpu_[name] = r.GetAdjustedCPUTime();
                median_[name] = true;
            } else if (r.run_type == Run::RT_Iteration && !median_[name] && !r.error_occurred) {
                ns_[name] = r.GetAdjustedRealTime();
                cpu_[name] = r.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // Nanoseconds per iteration (in the benchmark's time unit), 0 if absent.
    double ns(const std::string& name) const {
        auto it = ns_.find(name);
        return it == ns_.end() ? 0.0 : it->second;
    }
    // The same for the benchmark thread's CPU time.
    double cpu(const std::string& name) const {
        auto it = cpu_.find(name);
        return it == cpu_.end() ? 0.0 : it->second;
    }

private:
    std::map<std::string, double> ns_;
    std::map<std::string, double> cpu_;
    std::map<std::string, bool> median_;
};

// Runs every benchmark and prints the ratios; `extra` may print more.
inline int Main(int argc, char** argv, const std::vector<Pair>& pairs,
                const std::function<void(const RatioReporter&)>& extra = nullptr) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    std::mutex m;
    std::condition_variable cv;
    bool finished = false;
    std::thread parked([&] {
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, [&] { return finished; });
    });
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    {
        std::lock_guard<std::mutex> lock(m);
        finished = true;
    }
    cv.notify_all();
    parked.join();
    std::printf("\nlibrary vs floor (real time per operation; \"cpu\": the benchmark thread's)\n");
    for (const Pair& p : pairs) {
        double lib = reporter.ns(p.library), floor = reporter.ns(p.floor);
        if (lib <= 0 || floor <= 0) continue;
        std::printf("ratio  %-60s %12.1f vs %12.1f  %6.2fx\n", p.label, lib, floor, lib / floor);
        if (!p.cpuToo) continue;
        lib = reporter.cpu(p.library);
        floor = reporter.cpu(p.floor);
        if (lib <= 0 || floor <= 0) continue;
        const std::string label = std::string(p.label) + " (cpu)";
        std::printf("ratio  %-60s %12.1f vs %12.1f  %6.2fx\n", label.c_str(), lib, floor,
                    lib / floor);
    }
    if (extra) extra(reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace tvbench

#endif  // TV_BENCH_SUPPORT_H
