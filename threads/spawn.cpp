// Spawn: fork and exec with exec failure reported back synchronously.
//
// The status pipe is close-on-exec: a successful exec closes the child's
// write end, so the parent reads end of file; a failure writes -1 (4 bytes)
// before the child exits. A detached spawn forks twice: the intermediate
// process learns the grandchild's outcome through a second pipe of the same
// kind and reports the grandchild's pid (or -1) into the status pipe, then
// exits, so the grandchild is nobody's child here.
//
// Between fork and exec the child runs only async-signal-safe code: every
// buffer it needs (the split command line, the standard descriptors) is
// prepared before the fork.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "threads/process_internal.h"
#include "tvcommonutil/processes.h"

pthread_mutex_t SpawnMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// SpawnMutex is not taken before a fork: the program may fork while holding
// it itself. The child re-initialises it instead.
void ProcessForkPrepare() {
    tv::detail::WatcherForkPrepare();
    tv::detail::ReaperForkPrepare();
    tv::detail::WaitersForkPrepare();
}

void ProcessForkParent() {
    tv::detail::WaitersForkParent();
    tv::detail::ReaperForkParent();
    tv::detail::WatcherForkParent();
}

}  // namespace

void SpawnChildFork() {
    // Re-initialised rather than unlocked: a spawn's own fork reaches here
    // with the mutex held by the spawning thread.
    pthread_mutex_init(&SpawnMutex, nullptr);
    tv::detail::WatcherForkChild();
    tv::detail::ReaperForkChild();
    tv::detail::WaitersForkChild();
}

void SpawnInit() {
    // One set for all of the process code, so that the order is fixed (see
    // process_internal.h).
    pthread_atfork(ProcessForkPrepare, ProcessForkParent, SpawnChildFork);
}

namespace {

constexpr int kMaxArgs = 15;  // the argument array has 16 slots, the last for the null
constexpr int kStatusTimeoutMs = 30000;

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

// Writes the 4-byte report; the child is about to exit, so a short write is
// not retried beyond EINTR.
void WriteInt(int fd, int value) {
    while (write(fd, &value, sizeof value) < 0 && errno == EINTR) {
    }
}

// Reads up to 4 bytes: the number read (4, or fewer at end of file), or -1.
ssize_t ReadInt(int fd, int* value) {
    char* p = reinterpret_cast<char*>(value);
    size_t got = 0;
    while (got < sizeof *value) {
        ssize_t n = read(fd, p + got, sizeof *value - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

int WaitPid(pid_t pid) {
    int status = 0;
    pid_t r;
    do {
        r = waitpid(pid, &status, 0);
    } while (r < 0 && errno == EINTR);
    return r == pid ? 0 : -1;
}

// poll for input, resumed after interruptions: >0 ready, 0 timed out.
int PollInput(int fd, int ms) {
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        long spent = (now.tv_sec - start.tv_sec) * 1000L + (now.tv_nsec - start.tv_nsec) / 1000000L;
        if (spent >= ms) return 0;
        pollfd p{fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(ms - spent));
        if (r >= 0) return r;
        if (errno != EINTR) return 1;  // let the read report the error
    }
}

// Closes every descriptor from 3 up, except `keep`.
void CloseDescriptorsFrom3(int keep) {
#ifdef SYS_close_range
    bool done = true;
    if (keep > 3 && syscall(SYS_close_range, 3U, static_cast<unsigned>(keep - 1), 0U) != 0) {
        done = false;
    }
    if (done && syscall(SYS_close_range, static_cast<unsigned>(keep + 1), ~0U, 0U) != 0) {
        done = false;
    }
    if (done) return;
#endif
    rlimit rl;
    long limit = getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY
                     ? static_cast<long>(rl.rlim_cur)
                     : sysconf(_SC_OPEN_MAX);
    for (long fd = 3; fd < limit; ++fd) {
        if (fd != keep) close(static_cast<int>(fd));
    }
}

struct ChildPlan {
    const char* commandLine;
    char* work;  // strlen(commandLine) + 1 bytes
    const char* directory;
    unsigned long flags;
    const SecurityToken* token;
    bool useStdHandles;
    int stdFds[3];  // -1: keep what the parent had
};

[[noreturn]] void Fail(int reportFd) {
    WriteInt(reportFd, -1);
    _exit(1);
}

// The child side, in order: standard descriptors, other descriptors,
// session, signals, directory, identity, exec.
[[noreturn]] void RunChild(const ChildPlan& plan, int reportFd) {
    if (reportFd < 3) {
        int moved = fcntl(reportFd, F_DUPFD_CLOEXEC, 3);
        if (moved >= 0) reportFd = moved;
    }
    if (plan.useStdHandles) {
        // Copy the sources above 2 first: a source may itself be 0, 1 or 2.
        int moved[3];
        for (int i = 0; i < 3; ++i) {
            moved[i] = plan.stdFds[i] >= 0 ? fcntl(plan.stdFds[i], F_DUPFD, 3) : -1;
        }
        for (int i = 0; i < 3; ++i) {
            if (moved[i] >= 0) dup2(moved[i], i);
        }
        // The copies (and the handles' own descriptors) go with the rest.
    } else {
        int null = open("/dev/null", O_RDWR);
        if (null >= 0) {
            for (int i = 0; i < 3; ++i) dup2(null, i);
            if (null > 2) close(null);
        }
    }
    CloseDescriptorsFrom3(reportFd);
    if (plan.flags & kSpawnNewSession) setsid();

    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sigemptyset(&sa.sa_mask);
    for (int sig = 1; sig < 64; ++sig) {
        if (sigismember(&pending, sig) == 1) {
            sa.sa_handler = SIG_IGN;
            sigaction(sig, &sa, nullptr);
        }
    }
    sa.sa_handler = SIG_DFL;
    for (int sig = 1; sig < 64; ++sig) sigaction(sig, &sa, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);

    if (plan.directory && *plan.directory && chdir(plan.directory) != 0) Fail(reportFd);
    if (chroot("/") != 0) {
        // Only root may chroot; the result does not matter.
    }
    if (plan.token) {
        if (plan.useStdHandles) {
            for (int i = 0; i < 3; ++i) {
                if (fchown(i, plan.token->GetUid(), plan.token->GetGid()) != 0) {
                    // A descriptor that cannot change owner keeps its owner.
                }
            }
        }
        if (plan.token->SwitchIdentity() != 0) Fail(reportFd);
    }
    char* argv[kMaxArgs + 1];
    SplitCommandLine(plan.commandLine, plan.work, argv, kMaxArgs);
    if (argv[0] != nullptr) execv(argv[0], argv);
    Fail(reportFd);
}

}  // namespace

int SplitCommandLine(const char* line, char* work, char** argv, int maxArgs) {
    int argc = 0;
    auto add = [&](char* arg) {
        // Arguments past the limit are dropped, never stored.
        if (argc < maxArgs) argv[argc++] = arg;
    };
    const char* s = line;
    char* w = work;
    while (IsBlank(*s)) ++s;
    char* current = *s ? w : nullptr;
    char quote = 0;
    while (*s) {
        const char c = *s;
        if (!quote && IsBlank(c)) {
            *w++ = '\0';
            add(current);
            while (IsBlank(*s)) ++s;
            current = *s ? w : nullptr;
            continue;
        }
        if ((c == '"' || c == '\'') && s > line && s[-1] == '\\' && w > work) {
            // An escaped quote: it takes the place of the copied backslash.
            w[-1] = c;
            ++s;
            continue;
        }
        if (c == '"' || c == '\'') {
            if (!quote) {
                quote = c;
                ++s;
                continue;
            }
            if (c == quote) {
                // Closing ends the argument at once.
                quote = 0;
                *w++ = '\0';
                add(current);
                ++s;
                while (IsBlank(*s)) ++s;
                current = *s ? w : nullptr;
                continue;
            }
        }
        *w++ = c;
        ++s;
    }
    if (current) {
        *w = '\0';
        add(current);
    }
    argv[argc] = nullptr;
    return argc;
}

int Spawn(unsigned long flags, Handle* token, const char* commandLine, const char* directory,
          STARTUPINFO* startup) {
    tv::detail::EnsureProcessInit();
    if (commandLine == nullptr || *commandLine == '\0') return -1;
    if (token == INVALID_HANDLE_VALUE) return -1;
    if (flags & CREATE_SUSPENDED) {
        // The caller would get no thread handle to resume the child with,
        // so a child held before its program would stay held for good.
        errno = ERROR_CALL_NOT_IMPLEMENTED;
        return -1;
    }
    if (token && token->What() != kHandleSecurityToken) {
        errno = ERROR_INVALID_HANDLE;
        return -1;
    }
    std::vector<char> work(strlen(commandLine) + 1);
    ChildPlan plan{
        commandLine, work.data(), directory, flags, static_cast<const SecurityToken*>(token),
        false,       {-1, -1, -1}};
    if (startup && (startup->dwFlags & kStartupUseStdHandles)) {
        plan.useStdHandles = true;
        Handle* given[3] = {startup->hStdInput, startup->hStdOutput, startup->hStdError};
        for (int i = 0; i < 3; ++i) {
            Handle* h = given[i];
            if (h && h != INVALID_HANDLE_VALUE && h->What() == kHandleFile) {
                plan.stdFds[i] = static_cast<File*>(h)->GetFd();
            }
        }
    }
    const bool detached = (flags & kSpawnDetached) != 0;

    for (;;) {
        int status[2];
        if (pipe2(status, O_CLOEXEC) != 0) return -1;
        int second[2] = {-1, -1};
        if (detached && pipe2(second, O_CLOEXEC) != 0) {
            close(status[0]);
            close(status[1]);
            return -1;
        }
        pthread_mutex_lock(&SpawnMutex);
        pid_t pid = fork();
        if (pid < 0) {
            // A failed fork is usually transient (EAGAIN); keep the mutex
            // and the descriptors from leaking so later spawns still work.
            int err = errno;
            pthread_mutex_unlock(&SpawnMutex);
            for (int fd : {status[0], status[1], second[0], second[1]}) {
                if (fd >= 0) close(fd);
            }
            errno = err;
            return -1;
        }
        if (pid == 0) {
            if (!detached) RunChild(plan, status[1]);
            close(status[0]);
            pid_t grandchild = fork();
            if (grandchild == 0) {
                close(status[1]);
                close(second[0]);
                RunChild(plan, second[1]);
            }
            close(second[1]);
            int report = -1;
            if (grandchild > 0) {
                int value = 0;
                if (ReadInt(second[0], &value) == 0) {
                    report = grandchild;
                } else {
                    WaitPid(grandchild);
                }
            }
            WriteInt(status[1], report);
            close(second[0]);
            close(status[1]);
            _exit(0);
        }
        close(status[1]);
        if (detached) {
            close(second[0]);
            close(second[1]);
        }
        pthread_mutex_unlock(&SpawnMutex);

        if (PollInput(status[0], kStatusTimeoutMs) > 0) {
            int value = 0;
            ssize_t n = ReadInt(status[0], &value);
            close(status[0]);
            if (detached) {
                if (WaitPid(pid) != 0 || n < 0) return -1;
                return n == 4 ? value : pid;
            }
            if (n < 0) return -1;
            if (n == 4 && value == -1) {
                WaitPid(pid);  // it exits right after the report
                return -1;
            }
            return pid;
        }
        // Neither exec nor failure within the time-out: start again,
        // deliberately without a limit on the attempts.
        kill(pid, SIGKILL);
        WaitPid(pid);
        close(status[0]);
    }
}
