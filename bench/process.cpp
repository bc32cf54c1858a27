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
#include "bench/bench_support.h"

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

void BM_LibWaitAuto(benchmark::State& state) {
    tv::detail::SetProcessWaitMethod(tv::detail::kWaitAuto);
    SpawnWaitExitCode(state, true);
}
BENCHMARK(BM_LibWaitAuto)->UseRealTime();

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

}  // namespace

int main(int argc, char** argv) {
    const char* floor = "BM_RawPosixSpawnWaitpid/real_time";
    return tvbench::Main(
        argc, argv,
        {{"spawn+wait+exit code of /bin/true (auto: pidfd for own children) / posix_spawn+waitpid",
          "BM_LibWaitAuto/real_time", floor},
         {"spawn+wait+exit code (pidfd) / posix_spawn+waitpid", "BM_LibWaitPidFd/real_time", floor},
         {"spawn+GetExitCodeProcess / posix_spawn+waitpid", "BM_LibExitCodeOnly/real_time",
          floor}});
}
