// Child processes next to the POSIX floor, in one run: start /bin/true,
// wait for its end and read its exit code.
//  - library: CreateProcess + WaitForSingleObjectEx + GetExitCodeProcess +
//    CloseHandle, under each wait method (tracing, process descriptors);
//  - library: CreateProcess + GetExitCodeProcess alone (no tracing);
//  - floor: posix_spawn + waitpid.
// After the table, the exit wake-up latency: from the moment the parent lets
// a waiting child end (it closes the child's standard input) to the return
// of WaitForSingleObjectEx, next to the same moment to the return of a
// direct waitpid; median of 200 rounds each, taken alternately.
#include <benchmark/benchmark.h>

#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include "bench/bench_support.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

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

long long NowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

// The child says it is ready on its standard output, then waits for the end
// of its standard input and exits: what is timed is only its wake-up, its
// exit and the parent's way of learning of it.
const char kWaitingChild[] = "/bin/sh -c \"echo r; read x\"";

bool ReadReady(int fd) {
    char c[2];
    return read(fd, c, sizeof c) > 0;
}

// One library round: nanoseconds from closing the child's input to the
// return of WaitForSingleObjectEx, or -1.
long long LibraryExitLatency() {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return -1;
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]);
        close(in[1]);
        return -1;
    }
    Handle* childIn = new File(in[0]);
    Handle* childOut = new File(out[1]);
    STARTUPINFO si;
    memset(&si, 0, sizeof si);
    si.dwFlags = kStartupUseStdHandles;
    si.hStdInput = childIn;
    si.hStdOutput = childOut;
    si.hStdError = INVALID_HANDLE_VALUE;
    PROCESS_INFORMATION pi;
    memset(&pi, 0, sizeof pi);
    char line[sizeof kWaitingChild];
    memcpy(line, kWaitingChild, sizeof line);
    BOOL started =
        CreateProcess(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
    CloseHandle(childIn);
    CloseHandle(childOut);
    long long ns = -1;
    if (started && ReadReady(out[0])) {
        long long t0 = NowNs();
        close(in[1]);
        in[1] = -1;
        if (WaitForSingleObjectEx(pi.hProcess, INFINITE, FALSE) == WAIT_OBJECT_0) ns = NowNs() - t0;
    }
    if (in[1] >= 0) close(in[1]);
    close(out[0]);
    if (started) {
        WaitForSingleObjectEx(pi.hProcess, INFINITE, FALSE);
        CloseHandle(pi.hProcess);
    }
    return ns;
}

// The same round with posix_spawn and a direct waitpid.
long long RawExitLatency() {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return -1;
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]);
        close(in[1]);
        return -1;
    }
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, in[0], 0);
    posix_spawn_file_actions_adddup2(&fa, out[1], 1);
    char a0[] = "/bin/sh", a1[] = "-c", a2[] = "echo r; read x";
    char* argv[] = {a0, a1, a2, nullptr};
    pid_t pid = 0;
    int rc = posix_spawn(&pid, "/bin/sh", &fa, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    close(in[0]);
    close(out[1]);
    long long ns = -1;
    if (rc == 0 && ReadReady(out[0])) {
        long long t0 = NowNs();
        close(in[1]);
        in[1] = -1;
        int status = 0;
        if (waitpid(pid, &status, 0) == pid) ns = NowNs() - t0;
    }
    if (in[1] >= 0) close(in[1]);
    close(out[0]);
    if (rc == 0 && ns < 0) waitpid(pid, nullptr, 0);
    return ns;
}

double Median(std::vector<long long> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return static_cast<double>(v[v.size() / 2]);
}

void PrintExitLatency(const tvbench::RatioReporter&) {
    const int kRounds = 200;
    std::vector<long long> lib, raw;
    for (int i = 0; i < kRounds; ++i) {
        long long a = LibraryExitLatency();
        long long b = RawExitLatency();
        if (a >= 0) lib.push_back(a);
        if (b >= 0) raw.push_back(b);
    }
    const double l = Median(lib) / 1000.0, r = Median(raw) / 1000.0;
    std::printf(
        "\nexit wake-up latency, median of %d (us): WaitForSingleObjectEx %.1f, waitpid %.1f\n",
        kRounds, l, r);
    if (r > 0) {
        std::printf("ratio  %-52s %12.1f vs %12.1f  %6.2fx\n",
                    "child exit -> WaitForSingleObjectEx / waitpid (us)", l, r, l / r);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const char* floor = "BM_RawPosixSpawnWaitpid/real_time";
    return tvbench::Main(
        argc, argv,
        {{"spawn+wait+exit code of /bin/true (auto: pidfd for own children) / posix_spawn+waitpid",
          "BM_LibWaitAuto/real_time", floor},
         {"spawn+wait+exit code (pidfd) / posix_spawn+waitpid", "BM_LibWaitPidFd/real_time", floor},
         {"spawn+GetExitCodeProcess / posix_spawn+waitpid", "BM_LibExitCodeOnly/real_time", floor}},
        PrintExitLatency);
}
