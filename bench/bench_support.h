// Shared main for the benchmark programs: runs the benchmarks with the
// console output as usual, then prints one line per library/floor pair with
// the ratio of their real times (the median when --benchmark_repetitions is
// given). While the benchmarks run, a second thread stays parked, so that
// the pthread floor takes its multi-threaded paths as it does in a server
// (glibc locks a mutex without atomic instructions in a single-threaded
// process, a floor no server ever sees).
#ifndef TV_BENCH_SUPPORT_H
#define TV_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

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
};

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            const std::string name = r.run_name.str();
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
                ns_[name] = r.GetAdjustedRealTime();
                median_[name] = true;
            } else if (r.run_type == Run::RT_Iteration && !median_[name] && !r.error_occurred) {
                ns_[name] = r.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // Nanoseconds per iteration (in the benchmark's time unit), 0 if absent.
    double ns(const std::string& name) const {
        auto it = ns_.find(name);
        return it == ns_.end() ? 0.0 : it->second;
    }

private:
    std::map<std::string, double> ns_;
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
    std::printf("\nlibrary vs floor (real time per operation)\n");
    for (const Pair& p : pairs) {
        double lib = reporter.ns(p.library), floor = reporter.ns(p.floor);
        if (lib <= 0 || floor <= 0) continue;
        std::printf("ratio  %-52s %12.1f vs %12.1f  %6.2fx\n", p.label, lib, floor, lib / floor);
    }
    if (extra) extra(reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace tvbench

#endif  // TV_BENCH_SUPPORT_H
