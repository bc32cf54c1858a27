// The reaper: children started by CreateProcess whose handle went away
// before their end was seen. Without it each would stay a zombie until this
// process exits.
//
// Only pids handed over by AdoptChild are ever reaped (never waitpid(-1)):
// children the program starts with its own fork or posix_spawn stay the
// program's to wait for. An adopted pid cannot be reused while we hold it,
// since its zombie keeps the pid until the waitpid here.
//
// One thread, started on the first adoption, sleeps in poll on a process
// descriptor per adopted child plus an eventfd that announces new ones;
// without process descriptors it looks every kPollMs instead. The thread
// does not survive fork: the child forgets the parent's adoptions (they are
// not its children) and starts its own reaper when it first needs one.
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

#include "threads/process_internal.h"
#include "tvcommonutil/thread_annotations.h"

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace tv {
namespace detail {
namespace {

constexpr int kPollMs = 100;

struct Orphan {
    pid_t pid;
    int pidfd;  // -1 without process descriptors
};

pthread_mutex_t g_reapLock = PTHREAD_MUTEX_INITIALIZER;
// Guarded by g_reapLock; made on first use and never destroyed, since an
// adoption may come from a static destructor.
std::vector<Orphan>* g_orphans = nullptr;
bool g_reaperRunning = false;  // guarded by g_reapLock
int g_wakeFd = -1;             // guarded by g_reapLock

// True when the child has been reaped or is not ours to reap any more.
bool TryReap(pid_t pid) {
    int status;
    pid_t r;
    do {
        r = waitpid(pid, &status, WNOHANG);
    } while (r < 0 && errno == EINTR);
    return r == pid || (r < 0 && errno == ECHILD);
}

void* ReaperMain(void*) {
    std::vector<pollfd> fds;
    for (;;) {
        bool fdless = false;
        fds.clear();
        pthread_mutex_lock(&g_reapLock);
        fds.push_back(pollfd{g_wakeFd, POLLIN, 0});
        for (const Orphan& o : *g_orphans) {
            if (o.pidfd >= 0)
                fds.push_back(pollfd{o.pidfd, POLLIN, 0});
            else
                fdless = true;
        }
        pthread_mutex_unlock(&g_reapLock);
        int n = poll(fds.data(), fds.size(), fdless ? kPollMs : -1);
        if (n > 0 && (fds[0].revents & POLLIN)) {
            eventfd_t v;
            eventfd_read(fds[0].fd, &v);
        }
        pthread_mutex_lock(&g_reapLock);
        std::vector<Orphan>& list = *g_orphans;
        for (size_t i = 0; i < list.size();) {
            if (TryReap(list[i].pid)) {
                if (list[i].pidfd >= 0) close(list[i].pidfd);
                list[i] = list.back();
                list.pop_back();
            } else {
                ++i;
            }
        }
        pthread_mutex_unlock(&g_reapLock);
    }
    return nullptr;
}

// Caller holds g_reapLock.
bool StartReaper() {
    if (g_reaperRunning) return true;
    if (g_wakeFd < 0) g_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (g_wakeFd < 0) return false;
    // The reaper takes no signal: SIGCHLD is for the waits, and a signal
    // handler of the program must not run on it.
    sigset_t all, saved;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, 64 * 1024);
    pthread_t tid;
    g_reaperRunning = pthread_create(&tid, &attr, ReaperMain, nullptr) == 0;
    pthread_attr_destroy(&attr);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    return g_reaperRunning;
}

}  // namespace

void AdoptChild(pid_t pid) {
    if (TryReap(pid)) return;
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    pthread_mutex_lock(&g_reapLock);
    if (g_orphans == nullptr) g_orphans = new std::vector<Orphan>();
    g_orphans->push_back(Orphan{pid, pidfd >= 0 ? pidfd : -1});
    if (StartReaper()) eventfd_write(g_wakeFd, 1);
    pthread_mutex_unlock(&g_reapLock);
}

void ReaperForkPrepare() {
    pthread_mutex_lock(&g_reapLock);
}

void ReaperForkParent() {
    pthread_mutex_unlock(&g_reapLock);
}

void ReaperForkChild() {
    pthread_mutex_init(&g_reapLock, nullptr);
    if (g_orphans) {
        for (const Orphan& o : *g_orphans) {
            if (o.pidfd >= 0) close(o.pidfd);
        }
        g_orphans->clear();
    }
    // The eventfd is shared with the parent's reaper: never touch it here.
    if (g_wakeFd >= 0) close(g_wakeFd);
    g_wakeFd = -1;
    g_reaperRunning = false;
}

}  // namespace detail
}  // namespace tv
