// Waiting for processes to end: tracing with SIGCHLD, or process descriptors.
// See process_watch.h for the contract and the choice between the methods.
//
// Reaping discipline
// ------------------
// Every waitpid on a Process's pid goes through Process::CollectStatus,
// which holds the handle's lock around the waitpid and the recording of the
// end, so exactly one caller reaps and everybody else then finds state 1.
// Only the tracing thread asks for stops (__WALL and ptrace stops): a stop
// consumed by a thread that is not the tracer could never be resumed. Other
// callers look first with waitid(WNOWAIT) and reap only an ended process.
//
// Tracee stops handled by the tracer: a signal-delivery stop is resumed with
// the signal passed on; the exec event (PTRACE_O_TRACEEXEC, so that an exec
// racing with the attach does not turn into a stray SIGTRAP) and interrupt
// stops are resumed without a signal; a group stop (SIGSTOP and friends) is
// left stopped with PTRACE_LISTEN, as it would be without a tracer.
#include "threads/process_watch.h"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "threads/thread_signals.h"
#include "tvcommonutil/processes.h"
#include "tvcommonutil/threads.h"

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace tv {
namespace detail {
namespace {

int g_method = kWaitAuto;

unsigned long long NowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(ts.tv_nsec) / 1000000ULL;
}

timespec MsToTimespec(unsigned long ms) {
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ms / 1000);
    ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    return ts;
}

// ---------------------------------------------------------------------------
// Threads sleeping in sigtimedwait on SIGCHLD. An intrusive list of nodes
// that live on the waiters' stacks; g_waitersLock guards the list and is a
// leaf lock.
struct WaiterNode {
    pthread_t tid;
    WaiterNode* next;
    WaiterNode* prev;
};
pthread_mutex_t g_waitersLock = PTHREAD_MUTEX_INITIALIZER;
WaiterNode* g_waiters = nullptr;

void ForwardChildSignal() {
    pthread_t self = pthread_self();
    pthread_mutex_lock(&g_waitersLock);
    for (WaiterNode* n = g_waiters; n; n = n->next) {
        if (!pthread_equal(n->tid, self)) pthread_kill(n->tid, SIGCHLD);
    }
    pthread_mutex_unlock(&g_waitersLock);
}

// The signal side of one wait: SIGCHLD (and the APC wake signal when
// alertable) blocked for the scope, registration for forwarded SIGCHLDs,
// and the two ways to sleep.
class ChildSignalWait {
public:
    explicit ChildSignalWait(bool alertable) : alertable_(alertable), registered_(false) {
        if (alertable_) EnsureThreadSignals();
        sigset_t block;
        sigemptyset(&block);
        sigaddset(&block, SIGCHLD);
        if (alertable_) sigaddset(&block, ApcSignal());
        pthread_sigmask(SIG_BLOCK, &block, &saved_);
        node_ = WaiterNode{pthread_self(), nullptr, nullptr};
    }
    ~ChildSignalWait() {
        Unregister();
        pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    }
    ChildSignalWait(const ChildSignalWait&) = delete;
    ChildSignalWait& operator=(const ChildSignalWait&) = delete;

    // Must precede the first poll of the processes, so that a SIGCHLD taken
    // by another waiter after that poll is forwarded here.
    void Register() {
        pthread_mutex_lock(&g_waitersLock);
        node_.next = g_waiters;
        if (g_waiters) g_waiters->prev = &node_;
        g_waiters = &node_;
        registered_ = true;
        pthread_mutex_unlock(&g_waitersLock);
    }
    void Unregister() {
        if (!registered_) return;
        pthread_mutex_lock(&g_waitersLock);
        if (node_.prev)
            node_.prev->next = node_.next;
        else
            g_waiters = node_.next;
        if (node_.next) node_.next->prev = node_.prev;
        registered_ = false;
        pthread_mutex_unlock(&g_waitersLock);
    }

    // Sleeps until SIGCHLD, the APC wake signal or `ms` (at most kRepollMs).
    void SleepForSignal(unsigned long ms) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGCHLD);
        if (alertable_) sigaddset(&set, ApcSignal());
        timespec ts = MsToTimespec(ms < kRepollMs ? ms : kRepollMs);
        siginfo_t info;
        int sig = sigtimedwait(&set, &info, &ts);
        if (sig == SIGCHLD && !(info.si_code == SI_TKILL && info.si_pid == getpid())) {
            ForwardChildSignal();
        }
    }

    // Sleeps until a descriptor is readable, the APC wake signal or `ms`.
    void SleepForFds(pollfd* fds, unsigned long n, unsigned long ms) {
        sigset_t during;
        pthread_sigmask(SIG_SETMASK, nullptr, &during);
        if (alertable_) sigdelset(&during, ApcSignal());
        timespec ts = MsToTimespec(ms < kRepollMs ? ms : kRepollMs);
        ppoll(fds, n, &ts, &during);
    }

private:
    bool alertable_;
    bool registered_;
    sigset_t saved_;
    WaiterNode node_;
};

// ---------------------------------------------------------------------------
// Tracing.

int TraceAttach(pid_t pid) {
    if (ptrace(PTRACE_SEIZE, pid, nullptr, reinterpret_cast<void*>(PTRACE_O_TRACEEXEC)) == 0) {
        return 0;
    }
    return errno;
}

bool IsGroupStopSignal(int sig) {
    return sig == SIGSTOP || sig == SIGTSTP || sig == SIGTTIN || sig == SIGTTOU;
}

// Resumes a tracee after a stop reported by waitpid.
void TraceResume(pid_t pid, int raw) {
    const int sig = WSTOPSIG(raw);
    const int event = (static_cast<unsigned>(raw) >> 16) & 0xff;
    if (event == PTRACE_EVENT_STOP) {
        if (IsGroupStopSignal(sig)) {
            ptrace(PTRACE_LISTEN, pid, nullptr, nullptr);
        } else {
            ptrace(PTRACE_CONT, pid, nullptr, nullptr);
        }
    } else if (event != 0) {
        ptrace(PTRACE_CONT, pid, nullptr, nullptr);
    } else {
        ptrace(PTRACE_CONT, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(sig)));
    }
}

// Detaches from a tracee that may be running: it must be stopped first, so
// it is interrupted and its stop awaited. It may end meanwhile; that end is
// recorded like any other.
void TraceDetach(Process* p) {
    const pid_t pid = p->GetPid();
    if (ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) != 0) {
        // ESRCH: already gone (the end will be collected by the next wait)
        // or not stopped-able; either way nothing is left to detach.
        return;
    }
    for (;;) {
        siginfo_t si;
        si.si_pid = 0;
        if (waitid(P_PID, static_cast<id_t>(pid), &si, WEXITED | WSTOPPED | WNOWAIT | __WALL) !=
            0) {
            if (errno == EINTR) continue;
            return;
        }
        int raw = 0;
        int r = p->CollectStatus(WNOHANG | __WALL, &raw);
        if (r < 0) return;  // reaped by somebody else: detached with it
        if (r == 0) continue;
        if (WIFEXITED(raw) || WIFSIGNALED(raw)) return;
        if (WIFSTOPPED(raw)) {
            const int event = (static_cast<unsigned>(raw) >> 16) & 0xff;
            // A signal-delivery stop hands its signal back on the way out.
            long sig = event == 0 ? WSTOPSIG(raw) : 0;
            ptrace(PTRACE_DETACH, pid, nullptr, reinterpret_cast<void*>(sig));
            return;
        }
    }
}

// ---------------------------------------------------------------------------

int OpenPidFd(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

// Decided once per process, on the first wait: whether this kernel (and any
// seccomp filter) gives process descriptors. Where it does, our own children
// are never traced.
bool DescriptorsAvailable() {
    static const bool available = [] {
        int fd = OpenPidFd(getpid());
        if (fd < 0) return false;
        close(fd);
        return true;
    }();
    return available;
}

// A child of this process that nobody has reaped yet (running or a zombie).
bool IsOwnChild(pid_t pid) {
    siginfo_t si;
    si.si_pid = 0;
    return waitid(P_PID, static_cast<id_t>(pid), &si, WEXITED | WNOHANG | WNOWAIT) == 0;
}

enum Method { kTrace, kDescriptors };

struct Entry {
    Process* p;
    int pidfd;
    bool traced;
    bool ended;
};

// Looks at a process that this thread does not trace (descriptor method or
// polling): true when it has ended, which is then recorded.
bool CheckUntraced(Entry& e) {
    if (e.pidfd >= 0) {
        pollfd one{e.pidfd, POLLIN, 0};
        if (poll(&one, 1, 0) <= 0) return false;
    } else {
        // No descriptor: look without consuming anything.
        siginfo_t si;
        si.si_pid = 0;
        int rc = waitid(P_PID, static_cast<id_t>(e.p->GetPid()), &si, WEXITED | WNOHANG | WNOWAIT);
        if (rc == 0 && si.si_pid == 0) return false;
        if (rc != 0) {
            // Not our child: alive as long as it can be signalled.
            if (kill(e.p->GetPid(), 0) == 0 || errno != ESRCH) return false;
            e.p->MarkEnded();
            return true;
        }
        if (si.si_code != CLD_EXITED && si.si_code != CLD_KILLED && si.si_code != CLD_DUMPED) {
            return false;  // a stop of a process some other thread traces
        }
    }
    int raw = 0;
    int r = e.p->CollectStatus(WNOHANG, &raw);
    if (r <= 0 || !(WIFEXITED(raw) || WIFSIGNALED(raw))) {
        // It has ended, but there is nothing to reap here: not our child, or
        // reaped elsewhere.
        e.p->MarkEnded();
    }
    return true;
}

// Polls a traced process, resuming it from any stops; true when it ended.
bool CheckTraced(Entry& e) {
    for (;;) {
        int raw = 0;
        int r = e.p->CollectStatus(WNOHANG | __WALL, &raw);
        if (r == 0) return false;
        if (r < 0) {
            if (errno == EINTR) continue;
            e.p->MarkEnded();
            return true;
        }
        if (WIFEXITED(raw) || WIFSIGNALED(raw)) return true;
        if (WIFSTOPPED(raw)) TraceResume(e.p->GetPid(), raw);
    }
}

}  // namespace

void WaitersForkPrepare() {
    pthread_mutex_lock(&g_waitersLock);
}

void WaitersForkParent() {
    pthread_mutex_unlock(&g_waitersLock);
}

void WaitersForkChild() {
    // The registered nodes live on the stacks of the parent's threads.
    pthread_mutex_init(&g_waitersLock, nullptr);
    g_waiters = nullptr;
}

void SetProcessWaitMethod(ProcessWaitMethod m) {
    __atomic_store_n(&g_method, static_cast<int>(m), __ATOMIC_RELAXED);
}

ProcessWaitMethod GetProcessWaitMethod() {
    return static_cast<ProcessWaitMethod>(__atomic_load_n(&g_method, __ATOMIC_RELAXED));
}

unsigned long WaitForProcesses(unsigned long count, Handle** handles, int waitAll, unsigned long ms,
                               int alertable) {
    if (count == 0 || handles == nullptr || count > MAXIMUM_WAIT_OBJECTS) return WAIT_FAILED;
    const unsigned long long start = NowMs();
    std::vector<Entry> entries(count, Entry{nullptr, -1, false, false});
    unsigned long present = 0, ended = 0;
    unsigned long result = WAIT_FAILED;
    for (unsigned long i = 0; i < count; ++i) {
        Handle* h = handles[i];
        if (h == nullptr) continue;
        if (h->What() != kHandleProcess) return WAIT_FAILED;
        Entry& e = entries[i];
        e.p = static_cast<Process*>(h);
        ++present;
        if (e.p->HasEnded()) {
            e.ended = true;
            ++ended;
            // Wait-any: the lowest ended index; wait-all: the last one.
            if (waitAll || result == WAIT_FAILED) result = WAIT_OBJECT_0 + i;
        }
    }
    if (present == 0) return WAIT_FAILED;
    const unsigned long needed = waitAll ? present : 1;
    if (ended >= needed) return result;

    ChildSignalWait signals(alertable != 0);
    const ProcessWaitMethod configured = GetProcessWaitMethod();
    Method method = (ms == 0 || configured != kWaitAuto) ? kDescriptors : kTrace;
    TvPlatformThread* self =
        alertable ? static_cast<TvPlatformThread*>(GetCurrentThread()) : nullptr;

    if (method == kTrace) {
        signals.Register();
        for (unsigned long i = 0; i < count && method == kTrace; ++i) {
            Entry& e = entries[i];
            if (e.p == nullptr || e.ended) continue;
            if (DescriptorsAvailable() && IsOwnChild(e.p->GetPid())) {
                e.pidfd = OpenPidFd(e.p->GetPid());
                if (e.pidfd >= 0) continue;
            }
            int err = TraceAttach(e.p->GetPid());
            if (err == 0) {
                e.traced = true;
            } else if (err == ESRCH) {
                // No such process any more: reaped outside these handles.
                e.p->MarkEnded();
                e.ended = true;
                ++ended;
                result = WAIT_OBJECT_0 + i;
                if (!waitAll) break;
            } else if (err == EPERM) {
                method = kDescriptors;
            } else {
                for (auto& t : entries) {
                    if (t.traced) TraceDetach(t.p);
                }
                return WAIT_FAILED;
            }
        }
        bool anyTraced = false;
        for (const auto& t : entries) anyTraced = anyTraced || t.traced;
        if (method == kDescriptors || !anyTraced) {
            for (auto& t : entries) {
                if (t.traced) TraceDetach(t.p);
                t.traced = false;
            }
            signals.Unregister();
            method = kDescriptors;
        }
    }
    bool anyFdless = false;
    if (method == kDescriptors) {
        for (unsigned long i = 0; i < count; ++i) {
            Entry& e = entries[i];
            if (e.p == nullptr || e.ended || e.pidfd >= 0) continue;
            if (configured != kWaitPoll) e.pidfd = OpenPidFd(e.p->GetPid());
            if (e.pidfd < 0) {
                if (errno == ESRCH && configured != kWaitPoll) {
                    e.p->MarkEnded();
                    e.ended = true;
                    ++ended;
                    result = WAIT_OBJECT_0 + i;
                } else {
                    anyFdless = true;
                }
            }
        }
    }

    std::vector<pollfd> fds;
    while (ended < needed) {
        // Look at every process still awaited; this also catches ends that
        // happened before the attach or the descriptor was made.
        for (unsigned long i = 0; i < count && ended < needed; ++i) {
            Entry& e = entries[i];
            if (e.p == nullptr || e.ended) continue;
            if (e.traced ? CheckTraced(e) : CheckUntraced(e)) {
                e.ended = true;
                e.traced = false;  // the kernel detaches an ended tracee
                ++ended;
                result = WAIT_OBJECT_0 + i;
            }
        }
        if (ended >= needed) break;
        if (self && self->CheckAPC()) {
            result = WAIT_IO_COMPLETION;
            break;
        }
        unsigned long left = INFINITE;
        if (ms != INFINITE) {
            unsigned long long spent = NowMs() - start;
            if (spent >= ms) {
                result = WAIT_TIMEOUT;
                break;
            }
            left = static_cast<unsigned long>(ms - spent);
        }
        if (method == kTrace) {
            signals.SleepForSignal(left);
        } else {
            fds.clear();
            for (const Entry& e : entries) {
                if (e.p != nullptr && !e.ended && e.pidfd >= 0) {
                    fds.push_back(pollfd{e.pidfd, POLLIN, 0});
                }
            }
            // Processes without a descriptor are looked at every 20 ms.
            if (anyFdless && left > 20) left = 20;
            signals.SleepForFds(fds.data(), fds.size(), left);
        }
    }

    for (auto& e : entries) {
        if (e.traced && !e.ended) TraceDetach(e.p);
        if (e.pidfd >= 0) close(e.pidfd);
    }
    return result;
}

}  // namespace detail
}  // namespace tv
