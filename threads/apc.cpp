// Signals of the thread code, APC queueing and SleepEx.
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include "handles/wait_internal.h"
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
    const tv::detail::Deadline deadline = tv::detail::Deadline::AfterMs(ms);
    if (!alertable) {
        // A signal (an APC wake-up meant for another kind of wait, a
        // profiler, a timer of the caller's own) must not shorten the sleep.
        if (deadline.IsNever()) {
            for (;;) pause();
        }
        const timespec until = deadline.AsTimespec();
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
        }
        return 0;
    }
    // Sleeps on a waiter that QueueAPC alerts, like the alertable waits of
    // the wait core: no signal is involved, and the sleep ends early only
    // when an APC has really run.
    TvPlatformThread* self = static_cast<TvPlatformThread*>(GetCurrentThread());
    for (;;) {
        tv::detail::Waiter waiter(false);
        if (!self->EnterAlertableWait(&waiter)) {
            for (uint32_t v = waiter.Load(); !(v & tv::detail::Waiter::kAlerted);
                 v = waiter.Load()) {
                if (!waiter.Sleep(v, deadline)) break;
            }
        }
        self->LeaveAlertableWait();
        if (self->HasPendingAPC() && self->CheckAPC()) return WAIT_IO_COMPLETION;
        if (deadline.Expired()) return 0;
    }
}

void Sleep(DWORD ms) {
    SleepEx(ms, FALSE);
}

BOOL GetMessage(void*, void*, UINT, UINT) {
    pause();
    return 0;
}
