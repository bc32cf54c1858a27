// Real child processes: argv as received, exit codes, waits under each wait
// method, mixed waits with events, detached spawns, standard handles,
// System, termination, no leaked descriptors or zombies; and process
// enumeration and naming against real processes and threads.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

#include "test_support.h"
#include "thread_probe.h"
#include "threads/process_watch.h"

// Helpers shared by the process and enumeration tests: zombie and
// descriptor counts from /proc, the test program's own path, and children
// held until released.
namespace proctest {

// The parent pid and state letter of a process, from its stat line.
inline bool StatOf(long pid, long* ppid, char* state) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line);
    size_t close = line.rfind(')');
    if (close == std::string::npos || close + 4 >= line.size()) return false;
    *state = line[close + 2];
    *ppid = strtol(line.c_str() + close + 4, nullptr, 10);
    return true;
}

// Children of this process that are zombies.
inline int ZombieChildren() {
    int zombies = 0;
    DIR* d = opendir("/proc");
    if (!d) return -1;
    while (dirent* e = readdir(d)) {
        long ppid = 0;
        char state = 0;
        if (e->d_name[0] >= '0' && e->d_name[0] <= '9' &&
            StatOf(strtol(e->d_name, nullptr, 10), &ppid, &state) && state == 'Z' &&
            ppid == getpid()) {
            ++zombies;
        }
    }
    closedir(d);
    return zombies;
}

inline int OpenFdCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (!d) return -1;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

inline std::string SelfExe() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return std::string();
    buf[n] = '\0';
    return buf;
}

// A start-up record that gives the child these standard handles.
inline STARTUPINFO StdHandles(Handle* in, Handle* out, Handle* err) {
    STARTUPINFO si;
    memset(&si, 0, sizeof si);
    si.dwFlags = kStartupUseStdHandles;
    si.hStdInput = in;
    si.hStdOutput = out;
    si.hStdError = err;
    return si;
}

// A child started with CreateProcess whose standard input is a pipe held
// here: it runs until Release() closes the pipe (its reads then see end of
// file). The handle is closed on destruction.
class HeldChild {
public:
    explicit HeldChild(const std::string& commandLine, DWORD flags = 0) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        writeEnd_ = fds[1];
        Handle* in = new File(fds[0]);
        STARTUPINFO si = StdHandles(in, INVALID_HANDLE_VALUE, INVALID_HANDLE_VALUE);
        std::string line = commandLine;
        PROCESS_INFORMATION pi;
        memset(&pi, 0, sizeof pi);
        if (CreateProcess(nullptr, &line[0], nullptr, nullptr, FALSE, flags, nullptr, nullptr, &si,
                          &pi)) {
            process_ = pi.hProcess;
            pid_ = static_cast<long>(pi.dwProcessId);
        }
        CloseHandle(in);
    }
    ~HeldChild() {
        Release();
        if (process_) {
            WaitForSingleObjectEx(process_, 10000, FALSE);  // reaps it: no zombie left
            CloseHandle(process_);
        }
    }
    HeldChild(const HeldChild&) = delete;
    HeldChild& operator=(const HeldChild&) = delete;

    void Release() {
        if (writeEnd_ >= 0) close(writeEnd_);
        writeEnd_ = -1;
    }
    Handle* handle() const { return process_; }
    long pid() const { return pid_; }

private:
    int writeEnd_ = -1;
    Handle* process_ = nullptr;
    long pid_ = 0;
};

}  // namespace proctest

using proctest::HeldChild;
using tv::detail::ProcessWaitMethod;

// Writes its arguments, its standard descriptors and its directory to the
// file named by its first argument.
TV_TEST_CHILD(argv_dump) {
    if (args.empty()) return 2;
    std::ofstream out(args[0]);
    for (size_t i = 1; i < args.size(); ++i) out << "ARG:" << args[i] << "\n";
    for (int fd = 0; fd < 3; ++fd) {
        char path[64], link[256];
        snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
        ssize_t n = readlink(path, link, sizeof link - 1);
        link[n > 0 ? n : 0] = '\0';
        out << "FD" << fd << ":" << link << "\n";
    }
    char cwd[4096];
    out << "CWD:" << (getcwd(cwd, sizeof cwd) ? cwd : "?") << "\n";
    out.close();
    // The parent traces this process while it waits for it, and a traced
    // process cannot run the leak checker at exit (that needs ptrace too).
    _exit(0);
}

TV_TEST_CHILD(terminate_self) {
    (void)args;
    TerminateProcess(nullptr, 42);
    return 0;
}

TV_TEST_CHILD(exit_unflushed) {
    FILE* f = fopen(args.at(0).c_str(), "w");
    fputs("buffered", f);
    ExitProcess(9);
}

namespace {

using Clock = std::chrono::steady_clock;

long MsSince(Clock::time_point t) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

std::vector<std::string> Lines(const std::string& text, const std::string& prefix) {
    std::vector<std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, prefix.size(), prefix) == 0) out.push_back(line.substr(prefix.size()));
    }
    return out;
}

// What GetExitCodeProcess reports, or 0xdeadbeef when it fails.
DWORD ExitCode(Handle* p) {
    DWORD code = 0xdeadbeef;
    return GetExitCodeProcess(p, &code) ? code : 0xdeadbeef;
}

// Starts a command line and returns its handle (null on failure).
Handle* Start(const std::string& commandLine, DWORD flags = 0, const char* dir = nullptr,
              STARTUPINFO* si = nullptr) {
    std::string line = commandLine;
    PROCESS_INFORMATION pi;
    memset(&pi, 0, sizeof pi);
    if (!CreateProcess(nullptr, &line[0], nullptr, nullptr, FALSE, flags, nullptr, dir, si, &pi)) {
        return nullptr;
    }
    EXPECT_EQ(pi.hThread, nullptr);
    EXPECT_EQ(pi.dwThreadId, 0u);
    EXPECT_GT(pi.dwProcessId, 0u);
    return pi.hProcess;
}

DWORD RunForExitCode(const std::string& commandLine) {
    Handle* p = Start(commandLine);
    if (p == nullptr) return 0xdeadbeef;
    EXPECT_EQ(WaitForSingleObjectEx(p, INFINITE, FALSE), WAIT_OBJECT_0);
    const DWORD code = ExitCode(p);
    CloseHandle(p);
    return code;
}

long TracerOf(long pid) {
    const std::string status = tvtest::ReadFile("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("TracerPid:");
    return at == std::string::npos ? -1 : strtol(status.c_str() + at + 10, nullptr, 10);
}

// Runs `fn` on another thread once the calling thread sleeps in the kernel.
struct WhenAsleep {
    template <typename Fn>
    explicit WhenAsleep(Fn fn)
        : thread([fn, waiter = tvtest::CurrentTid()] {
              tvtest::WaitUntilSleeping(waiter);
              fn();
          }) {}
    ~WhenAsleep() { thread.join(); }
    std::thread thread;
};

class ProcessWait : public ::testing::TestWithParam<ProcessWaitMethod> {
protected:
    void SetUp() override { tv::detail::SetProcessWaitMethod(GetParam()); }
    void TearDown() override {
        tv::detail::SetProcessWaitMethod(tv::detail::kWaitAuto);
        EXPECT_EQ(proctest::ZombieChildren(), 0);
    }
};

std::string MethodName(const ::testing::TestParamInfo<ProcessWaitMethod>& info) {
    return info.param == tv::detail::kWaitAuto    ? "Tracing"
           : info.param == tv::detail::kWaitPidFd ? "PidFd"
                                                  : "Polling";
}

INSTANTIATE_TEST_SUITE_P(Methods, ProcessWait,
                         ::testing::Values(tv::detail::kWaitAuto, tv::detail::kWaitPidFd,
                                           tv::detail::kWaitPoll),
                         MethodName);

TEST(ProcessSpawn, ChildReceivesArgumentsAsSplitAndAtMostFifteen) {
    tvtest::TempDir dir;
    const std::string out = dir.file("argv");
    // Twenty arguments: the program, --tv-child, the child's name, the output
    // file, seven more as split below and arg12..arg20, of which only the
    // first fifteen arrive.
    std::string line = proctest::SelfExe() + " --tv-child argv_dump " + out +
                       " \"a b\"  'say \"hi\"' \"ab\"cd x\\\"y '' plain";
    for (int i = 12; i <= 20; ++i) line += " arg" + std::to_string(i);
    Handle* p = Start(line, 0, dir.path().c_str());
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(WaitForSingleObjectEx(p, 10000, FALSE), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(p), 0u);
    CloseHandle(p);
    const std::string text = tvtest::ReadFile(out);
    EXPECT_EQ(Lines(text, "ARG:"),
              (std::vector<std::string>{"a b", "say \"hi\"", "ab", "cd", "x\"y", "", "plain",
                                        "arg12", "arg13", "arg14", "arg15"}));
    // Without a start-up record the standard streams are /dev/null.
    for (const char* fd : {"FD0:", "FD1:", "FD2:"})
        EXPECT_EQ(Lines(text, fd), std::vector<std::string>{"/dev/null"}) << fd;
    char real[4096];
    ASSERT_NE(realpath(dir.path().c_str(), real), nullptr);
    EXPECT_EQ(Lines(text, "CWD:"), std::vector<std::string>{real});
    EXPECT_EQ(proctest::ZombieChildren(), 0);
}

TEST(ProcessSpawn, ProgramThatCannotRunGivesNoHandle) {
    PROCESS_INFORMATION pi;
    memset(&pi, 0, sizeof pi);
    char missing[] = "/nonexistent/program arg";
    EXPECT_FALSE(CreateProcess(nullptr, missing, nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               nullptr, &pi));
    EXPECT_EQ(pi.hProcess, nullptr);
    // A suspended child could never be resumed (no thread handle): refused.
    char runnable[] = "/bin/true";
    errno = 0;
    EXPECT_FALSE(CreateProcess(nullptr, runnable, nullptr, nullptr, FALSE, CREATE_SUSPENDED,
                               nullptr, nullptr, nullptr, &pi));
    EXPECT_EQ(static_cast<long>(errno), ERROR_CALL_NOT_IMPLEMENTED);
    EXPECT_EQ(pi.hProcess, nullptr);
    EXPECT_EQ(Spawn(0, nullptr, "/etc/passwd", nullptr, nullptr), -1);  // not executable
    EXPECT_EQ(Spawn(kSpawnDetached, nullptr, "/nonexistent", nullptr, nullptr), -1);
    tvtest::TempDir dir;
    // A directory that cannot be entered fails the spawn too.
    EXPECT_EQ(Spawn(0, nullptr, "/bin/true", dir.file("absent").c_str(), nullptr), -1);
    EXPECT_EQ(proctest::ZombieChildren(), 0);
}

TEST_P(ProcessWait, ExitCodes) {
    EXPECT_EQ(RunForExitCode("/bin/sh -c \"exit 0\""), 0u);
    EXPECT_EQ(RunForExitCode("/bin/sh -c \"exit 7\""), 7u);
    EXPECT_EQ(RunForExitCode("/bin/sh -c \"exit 255\""), 255u);
    // A death by signal reads as all 32 low bits set.
    EXPECT_EQ(RunForExitCode("/bin/sh -c \"kill -9 $$\""), 4294967295u);

    // Without a prior wait GetExitCodeProcess waits itself; the code is
    // handed out once.
    Handle* p = Start("/bin/sh -c \"exit 9\"");
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(ExitCode(p), 9u);
    EXPECT_EQ(ExitCode(p), 0xdeadbeefu);
    // An ended process stays signalled.
    EXPECT_EQ(WaitForSingleObjectEx(p, 0, FALSE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObjectEx(p, INFINITE, FALSE), WAIT_OBJECT_0);
    CloseHandle(p);
}

TEST_P(ProcessWait, TimeoutsOnARunningChild) {
    HeldChild child("/bin/sh -c \"read x; exit 5\"");
    ASSERT_NE(child.handle(), nullptr);
    EXPECT_EQ(WaitForSingleObjectEx(child.handle(), 0, FALSE), WAIT_TIMEOUT);
    Clock::time_point t0 = Clock::now();
    EXPECT_EQ(WaitForSingleObjectEx(child.handle(), 150, FALSE), WAIT_TIMEOUT);
    EXPECT_GE(MsSince(t0), 140);
    EXPECT_LT(MsSince(t0), 5000);
    std::atomic<long> tracer{-1};
    {
        WhenAsleep release([&] {
            tracer = TracerOf(child.pid());
            child.Release();
        });
        EXPECT_EQ(WaitForSingleObjectEx(child.handle(), INFINITE, FALSE), WAIT_OBJECT_0);
    }
    // Our own children are never traced while waited on, whatever the method.
    EXPECT_EQ(tracer, 0);
    EXPECT_EQ(ExitCode(child.handle()), 5u);
}

std::atomic<int> g_apcRuns{0};
void CountApc(ULONG_PTR) {
    ++g_apcRuns;
}

TEST_P(ProcessWait, AlertableWaitEndsForAnApc) {
    HeldChild child("/bin/sh -c \"read x\"");
    ASSERT_NE(child.handle(), nullptr);
    g_apcRuns = 0;
    std::atomic<Handle*> self{nullptr};
    std::atomic<pid_t> tid{0};
    unsigned long result = 0;
    std::thread waiter([&] {
        self = GetCurrentThread();
        tid = tvtest::CurrentTid();
        result = WaitForSingleObjectEx(child.handle(), INFINITE, TRUE);
    });
    while (tid == 0) sched_yield();
    EXPECT_TRUE(tvtest::WaitUntilSleeping(tid));
    EXPECT_EQ(QueueUserAPC(CountApc, self.load(), 0), 0u);
    waiter.join();
    EXPECT_EQ(result, WAIT_IO_COMPLETION);
    EXPECT_EQ(g_apcRuns, 1);
    child.Release();
    EXPECT_EQ(WaitForSingleObjectEx(child.handle(), 10000, FALSE), WAIT_OBJECT_0);
}

TEST_P(ProcessWait, MixedWaitWithAnEventWakesForWhicheverEndsFirst) {
    HeldChild child("/bin/sh -c \"read x; exit 4\"");
    ASSERT_NE(child.handle(), nullptr);
    Handle* event = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* set[2] = {event, child.handle()};
    {
        WhenAsleep wake([&] { SetEvent(event); });
        EXPECT_EQ(WaitForMultipleObjectsEx(2, set, FALSE, 10000, FALSE), WAIT_OBJECT_0);
    }
    EXPECT_EQ(WaitForMultipleObjectsEx(2, set, FALSE, 50, FALSE), WAIT_TIMEOUT);
    {
        WhenAsleep end([&] { child.Release(); });
        EXPECT_EQ(WaitForMultipleObjectsEx(2, set, FALSE, 10000, FALSE), WAIT_OBJECT_0 + 1);
    }
    // Ended processes stay signalled in mixed sets too, in either position.
    EXPECT_EQ(WaitForMultipleObjectsEx(2, set, FALSE, 0, FALSE), WAIT_OBJECT_0 + 1);
    Handle* reversed[2] = {child.handle(), event};
    EXPECT_EQ(WaitForMultipleObjectsEx(2, reversed, FALSE, INFINITE, FALSE), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(child.handle()), 4u);
    CloseHandle(event);
}

TEST_P(ProcessWait, SeveralThreadsWaitingOnOneAndOnSeparateChildren) {
    HeldChild shared("/bin/sh -c \"read x; exit 1\"");
    HeldChild other("/bin/sh -c \"read x; exit 2\"");
    ASSERT_NE(shared.handle(), nullptr);
    ASSERT_NE(other.handle(), nullptr);
    Handle* event = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    std::atomic<pid_t> tids[4] = {{0}, {0}, {0}, {0}};
    std::atomic<unsigned long> results[4] = {{9}, {9}, {9}, {9}};
    std::vector<std::thread> threads;
    // Two direct waits on the shared child (only one can trace it), one on
    // the other child, and one mixed wait through the watcher.
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            tids[i] = tvtest::CurrentTid();
            Handle* set[2] = {event, shared.handle()};
            results[i] = i == 3   ? WaitForMultipleObjectsEx(2, set, FALSE, 20000, FALSE)
                         : i == 2 ? WaitForSingleObjectEx(other.handle(), 20000, FALSE)
                                  : WaitForSingleObjectEx(shared.handle(), 20000, FALSE);
        });
    }
    for (auto& tid : tids) {
        while (tid == 0) sched_yield();
        ASSERT_TRUE(tvtest::WaitUntilSleeping(tid));
    }
    other.Release();
    threads[2].join();
    EXPECT_EQ(results[2], WAIT_OBJECT_0);
    EXPECT_EQ(results[0], 9u) << "a wait on a running child returned";
    shared.Release();
    threads[0].join();
    threads[1].join();
    threads[3].join();
    EXPECT_EQ(results[0], WAIT_OBJECT_0);
    EXPECT_EQ(results[1], WAIT_OBJECT_0);
    EXPECT_EQ(results[3], WAIT_OBJECT_0 + 1);
    EXPECT_EQ(ExitCode(shared.handle()), 1u);
    EXPECT_EQ(ExitCode(other.handle()), 2u);
    CloseHandle(event);
}

TEST_P(ProcessWait, WaitAnyAndWaitAllOverProcesses) {
    HeldChild a("/bin/sh -c \"read x\"");
    HeldChild b("/bin/sh -c \"read x\"");
    Handle* set[2] = {a.handle(), b.handle()};
    EXPECT_EQ(WaitForMultipleObjectsEx(2, set, FALSE, 0, FALSE), WAIT_TIMEOUT);
    {
        WhenAsleep end([&] { b.Release(); });
        EXPECT_EQ(WaitForMultipleObjectsEx(2, set, FALSE, 10000, FALSE), WAIT_OBJECT_0 + 1);
    }
    EXPECT_EQ(WaitForMultipleObjectsEx(2, set, TRUE, 50, FALSE), WAIT_TIMEOUT);
    {
        WhenAsleep end([&] { a.Release(); });
        DWORD r = WaitForMultipleObjectsEx(2, set, TRUE, 10000, FALSE);
        EXPECT_LT(r, 2u);
    }
    EXPECT_EQ(WaitForMultipleObjectsEx(2, set, FALSE, 0, FALSE), WAIT_OBJECT_0);
}

TEST(ProcessSpawn, DetachedSpawnReturnsTheGrandchild) {
    for (ProcessWaitMethod m : {tv::detail::kWaitAuto, tv::detail::kWaitPidFd}) {
        tv::detail::SetProcessWaitMethod(m);
        HeldChild child("/bin/sh -c \"read x\"", kSpawnDetached);
        ASSERT_NE(child.handle(), nullptr);
        long ppid = 0;
        char state = 0;
        ASSERT_TRUE(proctest::StatOf(child.pid(), &ppid, &state));
        EXPECT_NE(ppid, static_cast<long>(getpid()));
        EXPECT_EQ(WaitForSingleObjectEx(child.handle(), 0, FALSE), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObjectEx(child.handle(), 100, FALSE), WAIT_TIMEOUT);
        WhenAsleep end([&] { child.Release(); });
        EXPECT_EQ(WaitForSingleObjectEx(child.handle(), 20000, FALSE), WAIT_OBJECT_0);
    }
    tv::detail::SetProcessWaitMethod(tv::detail::kWaitAuto);
    EXPECT_EQ(proctest::ZombieChildren(), 0);
}

TEST(ProcessSpawn, RedirectedStandardHandlesAreUsed) {
    tvtest::TempDir dir;
    int out[2];
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
    int errFd = open(dir.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(errFd, 0);
    Handle* outHandle = new File(out[1]);
    Handle* errHandle = new File(errFd);
    STARTUPINFO si = proctest::StdHandles(INVALID_HANDLE_VALUE, outHandle, errHandle);
    Handle* p = Start("/bin/sh -c \"echo to-out; echo to-err >&2\"", 0, nullptr, &si);
    ASSERT_NE(p, nullptr);
    CloseHandle(outHandle);  // the child holds the only write end now
    CloseHandle(errHandle);
    std::string got;
    char buf[256];
    ssize_t n;
    while ((n = read(out[0], buf, sizeof buf)) > 0) got.append(buf, static_cast<size_t>(n));
    close(out[0]);
    EXPECT_EQ(got, "to-out\n");
    EXPECT_EQ(WaitForSingleObjectEx(p, 10000, FALSE), WAIT_OBJECT_0);
    EXPECT_EQ(tvtest::ReadFile(dir.file("err")), "to-err\n");
    CloseHandle(p);
}

// The exit code of a child built with AddressSanitizer arrives intact: its
// leak check would end it with 1 in a traced process.
TEST(ProcessWait, AnAddressSanitizerChildKeepsItsExitCode) {
#ifndef TV_ASAN_EXIT_CHILD
    GTEST_SKIP() << "this build cannot make an AddressSanitizer child";
#else
    std::string line = TV_ASAN_EXIT_CHILD;
    PROCESS_INFORMATION pi;
    memset(&pi, 0, sizeof pi);
    ASSERT_TRUE(CreateProcess(nullptr, &line[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                              nullptr, &pi));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(pi.hProcess, 60000, FALSE));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(pi.hProcess, &code));
    EXPECT_EQ(7u, code);
    CloseHandle(pi.hProcess);
#endif
}

// GetExitCodeProcess on a running child blocks until it ends; a signal
// that interrupts the wait (a handler without SA_RESTART) does not end it.
TEST(ProcessWait, ExitCodeWaitsThroughSignals) {
    struct sigaction quiet, before;
    memset(&quiet, 0, sizeof quiet);
    quiet.sa_handler = [](int) {};
    sigemptyset(&quiet.sa_mask);
    ASSERT_EQ(0, sigaction(SIGURG, &quiet, &before));
    int in[2];
    ASSERT_EQ(0, pipe2(in, O_CLOEXEC));
    Handle* childIn = new File(in[0]);
    STARTUPINFO si;
    memset(&si, 0, sizeof si);
    si.dwFlags = kStartupUseStdHandles;
    si.hStdInput = childIn;
    si.hStdOutput = INVALID_HANDLE_VALUE;
    si.hStdError = INVALID_HANDLE_VALUE;
    Handle* p = Start("/bin/sh -c \"read x; exit 5\"", 0, nullptr, &si);
    CloseHandle(childIn);
    ASSERT_NE(p, nullptr);
    std::atomic<pid_t> tid(0);
    BOOL ok = FALSE;
    DWORD code = 0;
    std::thread waiter([&] {
        tid = tvtest::CurrentTid();
        ok = GetExitCodeProcess(p, &code);
    });
    while (tid == 0) sched_yield();
    ASSERT_TRUE(tvtest::WaitUntilSleeping(tid));
    for (int i = 0; i < 5; ++i) {
        pthread_kill(waiter.native_handle(), SIGURG);
        ASSERT_TRUE(tvtest::WaitUntilSleeping(tid));
    }
    close(in[1]);  // the child reads the end of its input and exits
    waiter.join();
    EXPECT_TRUE(ok);
    EXPECT_EQ(5u, code);
    CloseHandle(p);
    sigaction(SIGURG, &before, nullptr);
}

TEST(ProcessSystem, ReturnsTheShellsExitStatusAndRestoresSigchld) {
    struct sigaction mine, before, after;
    memset(&mine, 0, sizeof mine);
    mine.sa_handler = [](int) {};
    sigemptyset(&mine.sa_mask);
    sigaction(SIGCHLD, &mine, &before);
    char exit3[] = "exit 3";
    EXPECT_EQ(System(exit3), 3);
    char ok[] = "true";
    EXPECT_EQ(System(ok), 0);
    char missing[] = "/nonexistent/cmd 2>/dev/null";
    EXPECT_EQ(System(missing), 127);
    sigaction(SIGCHLD, &before, &after);
    EXPECT_EQ(after.sa_handler, mine.sa_handler);
    EXPECT_EQ(proctest::ZombieChildren(), 0);
}

TEST(ProcessTerminate, TerminateAndExit) {
    HeldChild child("/bin/sh -c \"read x\"");
    ASSERT_NE(child.handle(), nullptr);
    EXPECT_TRUE(TerminateProcess(child.handle(), 3));
    EXPECT_EQ(WaitForSingleObjectEx(child.handle(), 10000, FALSE), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCode(child.handle()), 4294967295u);
    // Once its end is recorded the pid is not signalled again.
    EXPECT_FALSE(TerminateProcess(child.handle(), 3));

    // A null handle ends the caller with the code, running exit handlers.
    pid_t pid = tvtest::SpawnChild("terminate_self");
    EXPECT_EQ(tvtest::WaitChild(pid), 42);
    // ExitProcess ends at once: buffered output is lost.
    tvtest::TempDir dir;
    pid = tvtest::SpawnChild("exit_unflushed", {dir.file("out")});
    EXPECT_EQ(tvtest::WaitChild(pid), 9);
    EXPECT_EQ(tvtest::ReadFile(dir.file("out")), "");
}

TEST(ProcessSpawn, ForkedChildFindsSpawnMutexFree) {
    // Whether or not a spawn holds the mutex at the time of a fork, the
    // child can use it.
    for (bool held : {true, false}) {
        if (held) pthread_mutex_lock(&SpawnMutex);
        pid_t pid = fork();
        if (pid == 0) {
            int ok = pthread_mutex_trylock(&SpawnMutex) == 0 &&
                     pthread_mutex_unlock(&SpawnMutex) == 0 &&
                     Spawn(0, nullptr, "/bin/true", nullptr, nullptr) > 0;
            _exit(ok ? 0 : 1);
        }
        if (held) pthread_mutex_unlock(&SpawnMutex);
        EXPECT_EQ(tvtest::WaitChild(pid), 0) << "held=" << held;
    }
}

TEST(ProcessSpawn, TokenSwitchesTheChildsIdentity) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to switch identity";
    Handle* token = new SecurityToken(65534, 65534);
    std::string line = "/bin/sh -c \"test $(id -u) = 65534 && test $(id -g) = 65534\"";
    PROCESS_INFORMATION pi;
    memset(&pi, 0, sizeof pi);
    ASSERT_TRUE(CreateProcessAsUser(token, nullptr, &line[0], nullptr, nullptr, FALSE, 0, nullptr,
                                    "/", nullptr, &pi));
    EXPECT_EQ(ExitCode(pi.hProcess), 0u);
    CloseHandle(pi.hProcess);
    CloseHandle(token);
}

TEST(ProcessSpawn, TwoHundredCyclesLeakNoDescriptorAndNoZombie) {
    // Warm up once so that lazily made objects (the thread's context, its
    // objects) are not counted as a leak.
    EXPECT_EQ(RunForExitCode("/bin/true"), 0u);
    const int fdsBefore = proctest::OpenFdCount();
    for (int i = 0; i < 200; ++i) ASSERT_EQ(RunForExitCode("/bin/true"), 0u) << "cycle " << i;
    EXPECT_EQ(proctest::OpenFdCount(), fdsBefore);
    EXPECT_EQ(proctest::ZombieChildren(), 0);

    // Handles closed before any wait: the children are reaped all the same.
    for (int i = 0; i < 200; ++i) {
        Handle* p = Start("/bin/true");
        ASSERT_NE(p, nullptr);
        CloseHandle(p);
    }
    siginfo_t si;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (waitid(P_ALL, 0, &si, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(waitid(P_ALL, 0, &si, WEXITED | WNOHANG | WNOWAIT), -1) << "children left";
}

}  // namespace

// --- Process enumeration and names -----------------------------------------

// Reads its standard input to the end, then exits.
TV_TEST_CHILD(held_stdin) {
    (void)args;
    char buf[64];
    while (read(0, buf, sizeof buf) > 0) {
    }
    return 0;
}

namespace {

std::vector<DWORD> List(BOOL (*lister)(DWORD*, DWORD, DWORD*), size_t capacity = 1 << 16) {
    std::vector<DWORD> ids(capacity + 1, 0xabcdef);
    DWORD bytes = 12345;
    EXPECT_TRUE(lister(ids.data(), static_cast<DWORD>(capacity * sizeof(DWORD)), &bytes));
    EXPECT_EQ(bytes % sizeof(DWORD), 0u);
    EXPECT_EQ(ids[capacity], 0xabcdefu) << "wrote past the capacity";
    ids.resize(bytes / sizeof(DWORD));
    return ids;
}

bool Has(const std::vector<DWORD>& ids, long pid) {
    return std::find(ids.begin(), ids.end(), static_cast<DWORD>(pid)) != ids.end();
}

// A thread that stays alive until the object goes away.
struct ParkedThread {
    std::promise<void> stop;
    std::atomic<pid_t> id{0};
    std::thread thread{[this] {
        id = tvtest::CurrentTid();
        stop.get_future().wait();
    }};
    ParkedThread() {
        while (id.load() == 0) sched_yield();
    }
    ~ParkedThread() {
        stop.set_value();
        thread.join();
    }
};

TEST(EnumProcesses, ListsProcessesAndNoThreads) {
    ParkedThread thread;
    HeldChild shell("/bin/sh -c \"read x\"");
    HeldChild twin(proctest::SelfExe() + " --tv-child held_stdin");
    ASSERT_NE(shell.handle(), nullptr);
    ASSERT_NE(twin.handle(), nullptr);

    std::vector<DWORD> precise = List(EnumProcesses);
    EXPECT_TRUE(Has(precise, getpid()));
    EXPECT_TRUE(Has(precise, shell.pid()));
    EXPECT_TRUE(Has(precise, twin.pid()));
    EXPECT_FALSE(Has(precise, thread.id.load()));
    EXPECT_EQ(bDumbProcfs, 0);

    // A name with blanks and parentheses shifts nothing.
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    pid_t named = fork();
    if (named == 0) {
        char c;
        prctl(PR_SET_NAME, "my worker (x)");
        close(gate[1]);
        _exit(static_cast<int>(read(gate[0], &c, 1)));
    }
    close(gate[0]);
    while (GetProcessName(named, FALSE) != CKWString("my worker (x)")) sched_yield();
    EXPECT_TRUE(Has(List(EnumProcesses), named));
    close(gate[1]);
    EXPECT_EQ(tvtest::WaitChild(named), 0);

    // The fall-back takes a child named like its parent for a thread.
    std::vector<DWORD> dumb = List(DumbEnumProcesses);
    EXPECT_TRUE(Has(dumb, getpid()));
    EXPECT_TRUE(Has(dumb, shell.pid()));
    EXPECT_FALSE(Has(dumb, twin.pid()));
    EXPECT_FALSE(Has(dumb, thread.id.load()));
    EXPECT_FALSE(Has(dumb, 1)) << "the first process has parent 0 and is never listed";
    EXPECT_TRUE(std::is_sorted(dumb.begin(), dumb.end()));
}

TEST(EnumProcesses, EveryEntryReadCountsAgainstTheCapacity) {
    // "." and ".." and the named entries of /proc come before the processes,
    // so a small capacity yields no ids however few processes exist.
    for (BOOL (*lister)(DWORD*, DWORD, DWORD*) : {EnumProcesses, DumbEnumProcesses}) {
        EXPECT_TRUE(List(lister, 0).empty());
        EXPECT_TRUE(List(lister, 2).empty());
    }
    // A byte count that is not a multiple of 8 is rounded down.
    DWORD ids[2] = {0, 0xabcdef};
    DWORD bytes = 1;
    EXPECT_TRUE(EnumProcesses(ids, 15, &bytes));
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(ids[1], 0xabcdefu);
}

TEST(ProcessNames, InstanceNameFromDirectoryOrCommandLine) {
    HeldChild server(proctest::SelfExe() + " --tv-child held_stdin /srv/https-inst1/config");
    ASSERT_NE(server.handle(), nullptr);
    EXPECT_EQ(std::string(GetProcessInstanceName(server.pid()).c_str()), "https-inst1");
    HeldChild plain(proctest::SelfExe() + " --tv-child held_stdin /srv/other/config");
    EXPECT_TRUE(GetProcessInstanceName(plain.pid()).empty());

    tvtest::TempDir dir;
    const std::string inside = dir.path() + "/https-web7";
    ASSERT_EQ(mkdir(inside.c_str(), 0700), 0);
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
    ASSERT_EQ(chdir(inside.c_str()), 0);
    std::string own = GetProcessInstanceName(0).c_str();
    ASSERT_EQ(chdir(saved), 0);
    EXPECT_EQ(own, "https-web7");
}

TEST(ProcessNames, ExecutableCommandAndModuleFileNames) {
    EXPECT_EQ(std::string(GetProcessName(getpid(), 1).c_str()), proctest::SelfExe());
    std::string comm = tvtest::ReadFile("/proc/self/comm");
    comm.pop_back();  // the newline
    EXPECT_EQ(std::string(GetProcessName(getpid(), 0).c_str()), comm);
    EXPECT_TRUE(GetProcessName(0x7ffffff0, 1).empty());
    EXPECT_TRUE(GetProcessName(0x7ffffff0, 0).empty());

    HeldChild shell("/bin/sh -c \"read x\"");
    ASSERT_NE(shell.handle(), nullptr);
    char real[4096];
    ASSERT_NE(realpath("/bin/sh", real), nullptr);
    EXPECT_EQ(std::string(GetProcessName(shell.pid(), 1).c_str()), real);
    char buf[4096];
    EXPECT_EQ(GetModuleFileNameEx(shell.handle(), nullptr, buf, sizeof buf), strlen(real));
    EXPECT_STREQ(buf, real);

    const std::string self = proctest::SelfExe();
    EXPECT_EQ(GetModuleFileName(nullptr, buf, sizeof buf), self.size());
    EXPECT_EQ(self, buf);

    char small[8];
    memset(small, 'Z', sizeof small);
    DWORD n = GetModuleFileName(nullptr, small, 5);
    EXPECT_EQ(n, 4u);
    EXPECT_EQ(std::string(small), self.substr(0, 4));
    EXPECT_EQ(small[5], 'Z');
    EXPECT_EQ(GetModuleFileName(nullptr, small, 0), 0u);
    EXPECT_EQ(small[5], 'Z');

    void* libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(libc, nullptr);
    n = GetModuleFileName(libc, buf, sizeof buf);
    EXPECT_GT(n, 0u);
    EXPECT_NE(std::string(buf).find("libc"), std::string::npos) << buf;
    n = GetModuleFileName(libc, small, 3);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(small[5], 'Z');
    dlclose(libc);
}

}  // namespace
