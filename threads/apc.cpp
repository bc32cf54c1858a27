// Signals of the thread code, APC queueing and the alertable sleep.
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include "threads/thread_signals.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

namespace tv {
namespace detail {

int ApcSignal() {
    return SIGRTMIN;
}
int SuspendSignal() {
    return SIGRTMIN + 1;
}
int ResumeSignal() {
    return SIGRTMIN + 2;
}

void EnsureThreadSignals() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, UserAPCInit);
}

}  // namespace detail
}  // namespace tv

namespace {

struct KwAPCInit {
    KwAPCInit() { tv::detail::EnsureThreadSignals(); }
} apc_init;

void ForwardApc(void* fn, void* data, void*) {
    reinterpret_cast<void (*)(ULONG_PTR)>(fn)(reinterpret_cast<ULONG_PTR>(data));
}

}  // namespace

void UserAPCHandler(int) {}

void ResumeHandler(int) {}

void SuspendHandler(int) {
    int saved = errno;
    sigset_t resume;
    sigemptyset(&resume);
    sigaddset(&resume, tv::detail::ResumeSignal());
    int sig = 0;
    while (sigwait(&resume, &sig) != 0) {
    }
    errno = saved;
}

void UserAPCInit() {
    struct sigaction sa = {};
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sa.sa_handler = UserAPCHandler;
    sigaction(tv::detail::ApcSignal(), &sa, nullptr);

    sa.sa_handler = SuspendHandler;
    sigaction(tv::detail::SuspendSignal(), &sa, nullptr);

    sa.sa_handler = ResumeHandler;
    sigaddset(&sa.sa_mask, tv::detail::SuspendSignal());
    sigaction(tv::detail::ResumeSignal(), &sa, nullptr);

    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, tv::detail::ResumeSignal());
    pthread_sigmask(SIG_BLOCK, &block, nullptr);
}

int UserAPCCheck() {
    return static_cast<TvPlatformThread*>(GetCurrentThread())->CheckAPC();
}

DWORD QueueUserAPC(void (*fn)(ULONG_PTR), Handle* thread, ULONG_PTR data) {
    if (thread == nullptr) return 0xFFFFFFFFUL;
    static_cast<TvPlatformThread*>(thread)->QueueAPC(ForwardApc, reinterpret_cast<void*>(fn),
                                                     reinterpret_cast<void*>(data), nullptr);
    return 0;
}

DWORD SleepEx(DWORD ms, BOOL alertable) {
    if (ms == 0) {
        sched_yield();
        return 0;
    }
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ms / 1000);
    ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    if (!alertable) {
        // An interrupted sleep is not resumed: it ends early with 0.
        nanosleep(&ts, nullptr);
        return 0;
    }
    // Block the wake-up signal while looking at the queue, then sleep with it
    // unblocked atomically (ppoll), so an APC queued between the look and
    // the sleep still interrupts the sleep.
    tv::detail::EnsureThreadSignals();
    sigset_t apc, previous;
    sigemptyset(&apc);
    sigaddset(&apc, tv::detail::ApcSignal());
    pthread_sigmask(SIG_BLOCK, &apc, &previous);
    if (UserAPCCheck()) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        return WAIT_IO_COMPLETION;
    }
    sigset_t during = previous;
    sigdelset(&during, tv::detail::ApcSignal());
    int rc = ppoll(nullptr, 0, &ts, &during);
    int err = errno;
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (rc < 0 && err == EINTR) {
        UserAPCCheck();
        return WAIT_IO_COMPLETION;
    }
    return 0;
}

void Sleep(DWORD ms) {
    SleepEx(ms, FALSE);
}

BOOL GetMessage(void*, void*, UINT, UINT) {
    pause();
    return 0;
}
