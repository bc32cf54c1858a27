// Process handles: waiting, the process watcher thread, exit codes,
// termination and System.
//
// The watcher
// -----------
// A generic multi-object wait over a mix of handle types cannot sleep in a
// process wait, so it registers with GetSynch and sleeps on each handle's
// synchronisation event. One watcher thread per process (created on the
// first registration, never ended) waits on every registered process with
// the ordinary process wait and sets the synchronisation event of the one
// that ends. The queue holds each registered process once; `queued_` counts
// the registrations so that one waiter leaving does not stop the watch for
// another. The watcher is told about queue changes by the condition when it
// is idle and by an APC (which ends its alertable wait) while it waits, so
// it always restarts with a fresh copy of the queue.
//
// Lock order: g_requestLock, then a Process's own lock, then the event locks
// (through Handle::GetSynch). g_requestLock is never held while waiting, nor
// while an event is set; a Process's lock only around a non-blocking waitpid.
//
// A process handle stays signalled once the process has ended. Because the
// synchronisation event is auto-reset, FreeSynch sets it again for an ended
// process so that every thread waiting on the same handle wakes.
#include <errno.h>
#include <grp.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <set>
#include <vector>

#include "threads/process_internal.h"
#include "threads/process_watch.h"
#include "tvcommonutil/processes.h"
#include "tvcommonutil/threads.h"

// ---------------------------------------------------------------------------
// Watcher state.
namespace {

pthread_mutex_t g_requestLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_requestWait = PTHREAD_COND_INITIALIZER;
Handle* g_watcher = nullptr;  // guarded by g_requestLock
bool g_polling = false;       // guarded by g_requestLock

// Made on first use, so that no static constructor order matters; never
// destroyed, since a registration may outlive static destruction.
std::set<Process*>& RequestQueue() {
    static std::set<Process*>* queue = new std::set<Process*>();
    return *queue;
}

void ProcApcFunc(void*, void*, void*) {}

// Caller holds g_requestLock.
void WakeWatcher() {
    if (g_polling && g_watcher) {
        static_cast<TvPlatformThread*>(g_watcher)->QueueAPC(ProcApcFunc, nullptr, nullptr, nullptr);
    } else {
        pthread_cond_signal(&g_requestWait);
    }
}

DWORD WatcherMain(void*) {
    std::vector<Handle*> batch;
    pthread_mutex_lock(&g_requestLock);
    for (;;) {
        while (RequestQueue().empty()) {
            g_polling = false;
            pthread_cond_wait(&g_requestWait, &g_requestLock);
        }
        g_polling = true;
        batch.assign(RequestQueue().begin(), RequestQueue().end());
        for (Handle* h : batch) h->IncRefCount();
        pthread_mutex_unlock(&g_requestLock);

        unsigned long r =
            batch[0]->WaitForMultipleHandles(batch.size(), batch.data(), FALSE, INFINITE, TRUE);
        if (r < batch.size()) {
            Process* p = static_cast<Process*>(batch[r]);
            pthread_mutex_lock(&g_requestLock);
            RequestQueue().erase(p);
            pthread_mutex_unlock(&g_requestLock);
            p->WakeEndWaiters();
        } else if (r == WAIT_FAILED) {
            // Do not spin on a persistent failure; queue changes still wake us.
            timespec until;
            clock_gettime(CLOCK_REALTIME, &until);
            until.tv_nsec += 100 * 1000000L;
            if (until.tv_nsec >= 1000000000L) {
                until.tv_sec += 1;
                until.tv_nsec -= 1000000000L;
            }
            pthread_mutex_lock(&g_requestLock);
            g_polling = false;
            pthread_cond_timedwait(&g_requestWait, &g_requestLock, &until);
            pthread_mutex_unlock(&g_requestLock);
        }
        for (Handle* h : batch) h->DecRefCount();
        pthread_mutex_lock(&g_requestLock);
    }
    return 0;
}

void EnsureWatcher() {
    if (__atomic_load_n(&g_watcher, __ATOMIC_ACQUIRE) != nullptr) return;
    bool made = false;
    pthread_mutex_lock(&g_requestLock);
    if (g_watcher == nullptr) {
        DWORD tid = 0;
        Handle* t = CreateThread(nullptr, 0, WatcherMain, nullptr, 0, &tid);
        __atomic_store_n(&g_watcher, t, __ATOMIC_RELEASE);
        made = t != nullptr;
    }
    pthread_mutex_unlock(&g_requestLock);
    if (made) sched_yield();
}

int ExitCodeFromStatus(int raw) {
    return WIFSIGNALED(raw) ? -1 : WEXITSTATUS(raw);
}

}  // namespace

namespace tv {
namespace detail {

void WatcherForkPrepare() {
    pthread_mutex_lock(&g_requestLock);
}

void WatcherForkParent() {
    pthread_mutex_unlock(&g_requestLock);
}

void WatcherForkChild() {
    // The child has no watcher thread and nobody waiting; it starts afresh
    // and makes a new watcher on its first mixed wait. The old thread's
    // handle and the queued processes' references are left behind.
    pthread_mutex_init(&g_requestLock, nullptr);
    pthread_cond_init(&g_requestWait, nullptr);
    g_watcher = nullptr;
    g_polling = false;
    RequestQueue().clear();
}

}  // namespace detail
}  // namespace tv

// ---------------------------------------------------------------------------
// Process

Process::Process(int pid)
    : Handle(1),
      pid_(pid),
      exitStatus_(0),
      state_(kProcRunning),
      queued_(0),
      statusKnown_(false),
      ownChild_(false) {}

Process::~Process() {
    // The last reference: nobody else can look at the state any more.
    bool running;
    {
        CriticalSectionHolder hold(lock_);
        running = state_ == kProcRunning;
    }
    if (ownChild_ && running) tv::detail::AdoptChild(pid_);
}

int Process::What() {
    return kHandleProcess;
}

unsigned long Process::WaitForHandle(unsigned long ms, int alertable) {
    Handle* self = this;
    return WaitForMultipleHandles(1, &self, FALSE, ms, alertable);
}

unsigned long Process::WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                              unsigned long ms, int alertable) {
    tv::detail::EnsureProcessInit();
    return tv::detail::WaitForProcesses(count, handles, waitAll, ms, alertable);
}

Event* Process::GetSynch(int& signalled) {
    EnsureWatcher();
    IncRefCount();
    Event* e = Handle::GetSynch(signalled);
    const bool ended = HasEnded();
    pthread_mutex_lock(&g_requestLock);
    ++queued_;
    if (!ended && RequestQueue().insert(this).second) WakeWatcher();
    pthread_mutex_unlock(&g_requestLock);
    if (ended) signalled = 1;
    return e;
}

void Process::FreeSynch() {
    pthread_mutex_lock(&g_requestLock);
    if (queued_ == 0) {
        pthread_mutex_unlock(&g_requestLock);
        return;
    }
    if (--queued_ == 0 && RequestQueue().erase(this) != 0) WakeWatcher();
    pthread_mutex_unlock(&g_requestLock);
    if (HasEnded()) WakeEndWaiters();
    Handle::FreeSynch();
    DecRefCount();
}

void Process::SetExitStatus(int status) {
    CriticalSectionHolder hold(lock_);
    exitStatus_ = status;
    statusKnown_ = true;
}

void Process::SetState(ProcState_t state) {
    CriticalSectionHolder hold(lock_);
    state_ = state;
}

ProcState_t Process::GetState() {
    CriticalSectionHolder hold(lock_);
    return state_;
}

int Process::GetExitStatus() {
    CriticalSectionHolder hold(lock_);
    return exitStatus_;
}

bool Process::HasEnded() {
    return GetState() != kProcRunning;
}

int Process::CollectStatus(int options, int* raw) {
    int status = 0;
    pid_t r;
    bool ended = false;
    {
        CriticalSectionHolder hold(lock_);
        if (state_ != kProcRunning) {
            errno = ECHILD;
            return -1;
        }
        do {
            r = waitpid(pid_, &status, options);
        } while (r < 0 && errno == EINTR);
        if (r == pid_ && (WIFEXITED(status) || WIFSIGNALED(status))) {
            exitStatus_ = ExitCodeFromStatus(status);
            statusKnown_ = true;
            state_ = kProcEnded;
            ended = true;
        }
    }
    int err = errno;
    if (raw) *raw = status;
    if (ended) WakeEndWaiters();
    errno = err;
    return static_cast<int>(r);
}

void Process::MarkEnded() {
    bool changed = false;
    {
        CriticalSectionHolder hold(lock_);
        if (state_ == kProcRunning) {
            state_ = kProcEnded;
            changed = true;
        }
    }
    if (changed) WakeEndWaiters();
}

void Process::WakeEndWaiters() {
    Signal();
}

int Process::TakeExitCode(unsigned long* code) {
    CriticalSectionHolder hold(lock_);
    if (state_ == kProcRunning) return -1;
    if (state_ == kProcCollected || !statusKnown_) return 0;
    if (code) {
        // A death by signal reads as all 32 low bits set, not as -1.
        *code = static_cast<unsigned long>(static_cast<unsigned int>(exitStatus_));
        state_ = kProcCollected;
    }
    return 1;
}

// ---------------------------------------------------------------------------
// SecurityToken

SecurityToken::SecurityToken(uid_t uid, gid_t gid) : Handle(1), uid_(uid), gid_(gid) {}

int SecurityToken::What() {
    return kHandleSecurityToken;
}

int SecurityToken::SwitchIdentity() const {
    if (setgroups(1, &gid_) != 0 && errno != EPERM) return -1;
    if (setgid(gid_) != 0) return -1;
    if (setuid(uid_) != 0) return -1;
    return 0;
}

// ---------------------------------------------------------------------------
// Exit codes and termination

BOOL GetExitCodeProcess(Handle* h, DWORD* exitCode) {
    if (h == nullptr) return FALSE;
    if (h->What() != kHandleProcess) {
        errno = ERROR_INVALID_HANDLE;
        return FALSE;
    }
    Process* p = static_cast<Process*>(h);
    for (;;) {
        int taken = p->TakeExitCode(exitCode);
        if (taken == 1) return TRUE;
        if (taken == 0) {
            // Collected already, or ended without a status we could know.
            errno = ECHILD;
            return FALSE;
        }
        // Wait for the end without consuming anything: a stop of a process
        // that another thread traces must stay for that thread to see.
        siginfo_t si;
        si.si_pid = 0;
        if (waitid(P_PID, static_cast<id_t>(p->GetPid()), &si, WEXITED | WNOWAIT) != 0) {
            if (errno == EINTR) continue;
            if (p->HasEnded()) continue;  // reaped and recorded by a wait meanwhile
            return FALSE;                 // not a child of ours, or reaped elsewhere
        }
        if (si.si_code == CLD_EXITED || si.si_code == CLD_KILLED || si.si_code == CLD_DUMPED) {
            int raw = 0;
            p->CollectStatus(WNOHANG, &raw);
            if (!p->HasEnded()) return FALSE;
            continue;
        }
        // Stopped under another thread's tracing: it resumes it shortly.
        timespec pause = {0, 1000000L};
        nanosleep(&pause, nullptr);
    }
}

BOOL TerminateProcess(Handle* h, int exitCode) {
    if (h == nullptr) exit(exitCode);
    if (h->What() != kHandleProcess) return FALSE;
    Process* p = static_cast<Process*>(h);
    // Once the end is recorded the pid may belong to somebody else.
    if (p->HasEnded()) {
        errno = ERROR_ACCESS_DENIED;
        return FALSE;
    }
    return kill(p->GetPid(), SIGTERM) == 0 ? TRUE : FALSE;
}

void ExitProcess(DWORD code) {
    _exit(static_cast<int>(code));
}

int System(char* command) {
    if (command == nullptr) return -1;
    tv::detail::EnsureProcessInit();
    // SIG_DFL rather than SIG_IGN: an ignored SIGCHLD makes the kernel reap
    // the shell itself and waitpid could never return its status.
    struct sigaction saved, dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(SIGCHLD, &dfl, &saved);
    pid_t pid = fork();
    if (pid < 0) {
        sigaction(SIGCHLD, &saved, nullptr);
        return 127;
    }
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    pid_t r;
    do {
        r = waitpid(pid, &status, 0);
    } while (r < 0 && errno == EINTR);
    sigaction(SIGCHLD, &saved, nullptr);
    return (status >> 8) & 0xff;
}

// ---------------------------------------------------------------------------
// Creating and opening

BOOL CreateProcessAsUser(Handle* token, const char* applicationName, char* commandLine,
                         SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL, DWORD creationFlags,
                         void*, const char* currentDirectory, STARTUPINFO* startup,
                         PROCESS_INFORMATION* info) {
    char buffer[512];
    memset(buffer, 0, sizeof buffer);
    if (applicationName == nullptr && commandLine == nullptr) return FALSE;
    for (const char* part : {applicationName, static_cast<const char*>(commandLine)}) {
        if (part == nullptr) continue;
        size_t n = strlen(part);
        if (n >= sizeof buffer) {
            errno = ERROR_FILENAME_EXCED_RANGE;
            return FALSE;
        }
        memcpy(buffer, part, n + 1);
    }
    int pid = Spawn(creationFlags, token, buffer, currentDirectory, startup);
    if (pid <= 0) return FALSE;
    if (info) {
        Process* p = new Process(pid);
        if (!(creationFlags & kSpawnDetached)) p->SetOwnChild();
        info->hProcess = p;
        info->hThread = nullptr;
        info->dwProcessId = static_cast<DWORD>(pid);
        info->dwThreadId = 0;
    } else if (!(creationFlags & kSpawnDetached)) {
        tv::detail::AdoptChild(pid);  // nobody can ever wait for it
    }
    return TRUE;
}

BOOL CreateProcess(const char* applicationName, char* commandLine,
                   SECURITY_ATTRIBUTES* processAttributes, SECURITY_ATTRIBUTES* threadAttributes,
                   BOOL inheritHandles, DWORD creationFlags, void* environment,
                   const char* currentDirectory, STARTUPINFO* startup, PROCESS_INFORMATION* info) {
    return CreateProcessAsUser(nullptr, applicationName, commandLine, processAttributes,
                               threadAttributes, inheritHandles, creationFlags, environment,
                               currentDirectory, startup, info);
}

Handle* OpenProcess(DWORD, BOOL, DWORD pid) {
    if (pid == 0 || pid > 0x7fffffffUL || !DoesProcessExist(pid)) {
        errno = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    return new Process(static_cast<int>(pid));
}

BOOL DoesProcessExist(DWORD pid) {
    if (pid > 0x7fffffffUL) return FALSE;
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM ? TRUE : FALSE;
}
