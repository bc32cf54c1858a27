// Child processes next to the POSIX floor, in one run: start /bin/true,
// wait for its end and read its exit code.
//  - library: CreateProcess + WaitForSingleObjectEx + GetExitCodeProcess +
//    CloseHandle, under each wait method (tracing, process descriptors);
//  - library: CreateProcess + GetExitCodeProcess alone (no tracing);
//  - floor: posix_spawn + waitpid.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <string>

#include <tvcommonutil.h>

#include "threads/process_watch.h"

extern char** environ;

namespace {

void SpawnWaitExitCode(benchmark::State& state, bool wait) {
    char line[] = "/bin/true";
    for (auto _ : state) {
        PROCESS_INFORMATION pi;
        memset(&pi, 0, sizeof pi);
        if (!CreateProcess(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr,
                           &pi)) {
            state.SkipWithError("CreateProcess failed");
            break;
        }
        if (wait) WaitForSingleObjectEx(pi.hProcess, INFINITE, FALSE);
        DWORD code = 1;
        if (!GetExitCodeProcess(pi.hProcess, &code) || code != 0) {
            state.SkipWithError("bad exit code");
        }
        CloseHandle(pi.hProcess);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_LibWaitTracing(benchmark::State& state) {
    tv::detail::SetProcessWaitMethod(tv::detail::kWaitAuto);
    SpawnWaitExitCode(state, true);
}
BENCHMARK(BM_LibWaitTracing)->UseRealTime();

void BM_LibWaitPidFd(benchmark::State& state) {
    tv::detail::SetProcessWaitMethod(tv::detail::kWaitPidFd);
    SpawnWaitExitCode(state, true);
    tv::detail::SetProcessWaitMethod(tv::detail::kWaitAuto);
}
BENCHMARK(BM_LibWaitPidFd)->UseRealTime();

void BM_LibExitCodeOnly(benchmark::State& state) {
    SpawnWaitExitCode(state, false);
}
BENCHMARK(BM_LibExitCodeOnly)->UseRealTime();

void BM_RawPosixSpawnWaitpid(benchmark::State& state) {
    char arg0[] = "/bin/true";
    char* argv[] = {arg0, nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawn(&pid, "/bin/true", nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("bad status");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawPosixSpawnWaitpid)->UseRealTime();

// Collects per-benchmark times so the ratios can be printed after the run.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& r : runs) times_[r.benchmark_name()] = r.GetAdjustedRealTime();
        ConsoleReporter::ReportRuns(runs);
    }
    void Ratio(const char* label, const std::string& lib, const std::string& floor) {
        auto a = times_.find(lib), b = times_.find(floor);
        if (a == times_.end() || b == times_.end() || b->second <= 0) return;
        std::printf("%-48s %9.1f us vs %9.1f us  ratio %.2fx  (%.0f vs %.0f per second)\n", label,
                    a->second / 1000.0, b->second / 1000.0, a->second / b->second, 1e9 / a->second,
                    1e9 / b->second);
    }

private:
    std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\nlibrary vs POSIX floor (spawn + wait + exit code of /bin/true)\n");
    const std::string floor = "BM_RawPosixSpawnWaitpid/real_time";
    reporter.Ratio("CreateProcess+Wait (tracing) / posix_spawn", "BM_LibWaitTracing/real_time",
                   floor);
    reporter.Ratio("CreateProcess+Wait (pidfd) / posix_spawn", "BM_LibWaitPidFd/real_time", floor);
    reporter.Ratio("CreateProcess+GetExitCode / posix_spawn", "BM_LibExitCodeOnly/real_time",
                   floor);
    benchmark::Shutdown();
    return 0;
}
