// Thread objects: POSIX threads presented as Windows thread handles.
//
// A thread made by CreateThread starts in KwThreadBase, which first waits on
// the start gate (a CriticalSection its creator holds until the handle is
// complete), so user code never runs before CreateThread has returned a
// usable handle; one created suspended then waits there for its first
// resume. The thread's context owns one reference to its thread
// object; when the thread ends the context marks the object exited and, if
// anyone else holds the handle, signals its synchronisation event. That event
// is manual-reset and never reset: an ended thread stays signalled for every
// waiter, single or multi-object, however many there are.
#include <errno.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include "handles/wait_internal.h"
#include "threads/thread_signals.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

TvPlatformThread::TvPlatformThread(pthread_t tid, int initialCount)
    : Handle(initialCount),
      tid_(tid),
      state_(kThreadRunning),
      wakeFlag_(0),
      alertableWait_(nullptr),
      ended_(false),
      startHeld_(0),
      suspendCount_(0) {
    // Made now so that the end of the thread always has an event to set.
    synch_ = new Event(-1, TRUE, FALSE, nullptr);
}

// The mutexes are not destroyed: their fork records outlive this body.
TvPlatformThread::~TvPlatformThread() {}

namespace {

// Holds a thread's signal lock with the suspend signal blocked for the
// holder: a thread suspending itself stops only after it has let go.
class SignalLockHolder {
public:
    explicit SignalLockHolder(pthread_mutex_t* m) : m_(m) {
        sigset_t suspend;
        sigemptyset(&suspend);
        sigaddset(&suspend, tv::detail::SuspendSignal());
        pthread_sigmask(SIG_BLOCK, &suspend, &saved_);
        pthread_mutex_lock(m_);
    }
    ~SignalLockHolder() {
        pthread_mutex_unlock(m_);
        pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    }
    SignalLockHolder(const SignalLockHolder&) = delete;
    SignalLockHolder& operator=(const SignalLockHolder&) = delete;

private:
    pthread_mutex_t* m_;
    sigset_t saved_;
};

}  // namespace

int TvPlatformThread::What() {
    return kHandleThread;
}

pthread_t TvPlatformThread::GetTid() const {
    return __atomic_load_n(&tid_, __ATOMIC_ACQUIRE);
}

void TvPlatformThread::SetTid(pthread_t tid) {
    __atomic_store_n(&tid_, tid, __ATOMIC_RELEASE);
}

void TvPlatformThread::SetState(ThreadState_t state) {
    if (state == kThreadExited) {
        // From here on the thread may be gone at any moment: no more signals.
        SignalLockHolder hold(&signalLock_);
        ended_ = true;
        if (__atomic_exchange_n(&suspendCount_, 0, __ATOMIC_ACQ_REL) > 0) {
            // Suspended while ending: the suspend signal is still pending
            // (blocked here), and no resume could follow it. The end wins.
            sigset_t suspend;
            sigemptyset(&suspend);
            sigaddset(&suspend, tv::detail::SuspendSignal());
            const timespec now = {0, 0};
            sigtimedwait(&suspend, nullptr, &now);
        }
    }
    pthread_mutex_lock(&mutex_);
    state_ = state;
    pthread_mutex_unlock(&mutex_);
}

ThreadState_t TvPlatformThread::GetState() {
    pthread_mutex_lock(&mutex_);
    ThreadState_t s = state_;
    pthread_mutex_unlock(&mutex_);
    return s;
}

unsigned long TvPlatformThread::WaitForHandle(unsigned long ms, int alertable) {
    if (GetState() == kThreadExited) return WAIT_OBJECT_0;
    return synch_->WaitForHandle(ms, alertable);
}

unsigned long TvPlatformThread::WaitForMultipleHandles(unsigned long count, Handle** handles,
                                                       int waitAll, unsigned long ms,
                                                       int alertable) {
    return tv::detail::WaitForAnyObjects(count, handles, waitAll, ms, alertable);
}

Event* TvPlatformThread::GetSynch(int& signalled) {
    Event* e = Handle::GetSynch(signalled);
    if (!signalled && GetState() == kThreadExited) signalled = 1;
    return e;
}

void TvPlatformThread::QueueAPC(void (*fn)(void*, void*, void*), void* a1, void* a2, void* a3) {
    pthread_mutex_lock(&mutex_);
    if (state_ == kThreadExited) {
        pthread_mutex_unlock(&mutex_);
        return;
    }
    apcs_.push_back(_threadapc{fn, a1, a2, a3});
    if (wakeFlag_) {
        // One signal per CheckAPC is enough: the sleeper looks at the queue
        // before it sleeps again. Leaving the flag set would send a signal
        // with every APC long after the thread stopped waiting for one.
        wakeFlag_ = 0;
        pthread_kill(GetTid(), tv::detail::ApcSignal());
    }
    // The waiter stays registered, and so alive, until it has taken this
    // mutex to leave.
    if (alertableWait_) alertableWait_->Alert();
    pthread_mutex_unlock(&mutex_);
}

bool TvPlatformThread::HasPendingAPC() {
    pthread_mutex_lock(&mutex_);
    bool pending = !apcs_.empty();
    pthread_mutex_unlock(&mutex_);
    return pending;
}

int TvPlatformThread::CheckAPC() {
    pthread_mutex_lock(&mutex_);
    wakeFlag_ = 0;
    if (apcs_.empty()) {
        // The thread may be about to sleep: a new APC must send the signal.
        wakeFlag_ = 1;
        pthread_mutex_unlock(&mutex_);
        return 0;
    }
    // Each APC runs without the mutex held, so that an APC may wait
    // alertably or queue further APCs; those queued meanwhile run in this
    // same pass.
    while (!apcs_.empty()) {
        _threadapc apc = apcs_.front();
        apcs_.pop_front();
        pthread_mutex_unlock(&mutex_);
        apc.fn(apc.a1, apc.a2, apc.a3);
        pthread_mutex_lock(&mutex_);
    }
    pthread_mutex_unlock(&mutex_);
    return 1;
}

bool TvPlatformThread::EnterAlertableWait(tv::detail::Waiter* waiter) {
    pthread_mutex_lock(&mutex_);
    alertableWait_ = waiter;
    const bool pending = !apcs_.empty();
    pthread_mutex_unlock(&mutex_);
    return pending;
}

void TvPlatformThread::LeaveAlertableWait() {
    pthread_mutex_lock(&mutex_);
    alertableWait_ = nullptr;
    pthread_mutex_unlock(&mutex_);
}

// The count changes by compare-and-swap under the signal lock: the lock keeps
// the signals in the order of the transitions they stand for (0 -> 1 sends
// the suspend signal, 1 -> 0 the resume signal) and away from an ended
// thread, whose identifier may already be gone.
unsigned long TvPlatformThread::Suspend() {
    SignalLockHolder hold(&signalLock_);
    if (ended_) {
        errno = ESRCH;
        return 0xFFFFFFFFUL;
    }
    long count = __atomic_load_n(&suspendCount_, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&suspendCount_, &count, count + 1, false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_RELAXED)) {
    }
    if (count == 0) {
        const int rc = pthread_kill(GetTid(), tv::detail::SuspendSignal());
        if (rc != 0) {
            __atomic_fetch_sub(&suspendCount_, 1, __ATOMIC_ACQ_REL);
            errno = rc;
            return 0xFFFFFFFFUL;
        }
    }
    return static_cast<unsigned long>(count);
}

unsigned long TvPlatformThread::Resume() {
    SignalLockHolder hold(&signalLock_);
    if (ended_) {
        errno = ESRCH;
        return 0xFFFFFFFFUL;
    }
    long count = __atomic_load_n(&suspendCount_, __ATOMIC_RELAXED);
    do {
        if (count <= 0) return 0;
    } while (!__atomic_compare_exchange_n(&suspendCount_, &count, count - 1, false,
                                          __ATOMIC_ACQ_REL, __ATOMIC_RELAXED));
    if (count == 1 && startHeld_) {
        __atomic_store_n(&startHeld_, 0, __ATOMIC_RELEASE);
        syscall(SYS_futex, &startHeld_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    } else if (count == 1) {
        const int rc = pthread_kill(GetTid(), tv::detail::ResumeSignal());
        if (rc != 0) {
            __atomic_fetch_add(&suspendCount_, 1, __ATOMIC_ACQ_REL);
            errno = rc;
            return 0xFFFFFFFFUL;
        }
    }
    return static_cast<unsigned long>(count);
}

// A thread created suspended has not run any code of its caller yet, so it
// waits on a futex rather than in the suspend signal's handler, and its
// first resume wakes it there.
void TvPlatformThread::HoldStart() {
    SignalLockHolder hold(&signalLock_);
    startHeld_ = 1;
    __atomic_store_n(&suspendCount_, 1, __ATOMIC_RELEASE);
}

void TvPlatformThread::WaitForStart() {
    while (__atomic_load_n(&startHeld_, __ATOMIC_ACQUIRE)) {
        syscall(SYS_futex, &startHeld_, FUTEX_WAIT_PRIVATE, 1, nullptr, nullptr, 0);
    }
}

namespace tv {
namespace detail {

AlertableWaitScope::AlertableWaitScope(int alertable, unsigned long ms, Waiter* waiter)
    : thread_(nullptr), active_(false), pending_(false) {
    if (!alertable || ms == 0 || ms == INFINITE) return;
    thread_ = GetCurrentThread();
    active_ = true;
    pending_ = static_cast<TvPlatformThread*>(thread_)->EnterAlertableWait(waiter);
}

AlertableWaitScope::~AlertableWaitScope() {
    if (active_) static_cast<TvPlatformThread*>(thread_)->LeaveAlertableWait();
}

int RunQueuedApcs() {
    return UserAPCCheck();
}

}  // namespace detail
}  // namespace tv

// ---------------------------------------------------------------------------

namespace {

void TerminateThroughAbort() {
    kw_abort();
}

}  // namespace

void* KwThreadBase(void* p) {
    ThreadArgs* args = static_cast<ThreadArgs*>(p);
    ThreadContext* ctx = GetThreadContext();
    std::set_terminate(TerminateThroughAbort);
    // Wait until the creator has finished making the handle.
    args->gate->Lock();
    args->gate->Unlock();
    delete args->gate;
    TvPlatformThread* self = args->thread;
    DWORD (*start)(void*) = args->start;
    void* param = args->param;
    delete args;
    ctx->SetCurrentThread(self);
    self->WaitForStart();
    DWORD result = start(param);
    return reinterpret_cast<void*>(result);
}

Handle* CreateThread(SECURITY_ATTRIBUTES*, DWORD, DWORD (*start)(void*), void* param, DWORD flags,
                     DWORD* threadId) {
    tv::detail::EnsureThreadSignals();
    CriticalSection* gate = new CriticalSection();
    ThreadArgs* args = new ThreadArgs{start, param, gate, nullptr};
    gate->Lock();
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setscope(&attr, PTHREAD_SCOPE_SYSTEM);
    pthread_t tid;
    int rc = unixthread_create(&tid, &attr, KwThreadBase, args);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        gate->Unlock();
        delete gate;
        delete args;
        return nullptr;
    }
    // One reference for the caller, one for the new thread's context.
    TvPlatformThread* t = new TvPlatformThread(tid, 1);
    t->IncRefCount();
    if (flags & CREATE_SUSPENDED) t->HoldStart();
    args->thread = t;
    if (threadId) *threadId = static_cast<DWORD>(tid);
    gate->Unlock();
    return t;
}

Handle* GetCurrentThread() {
    ThreadContext* ctx = GetThreadContext();
    TvPlatformThread* t = ctx->GetCurrentThread();
    if (t == nullptr) {
        t = new TvPlatformThread(pthread_self(), 1);
        ctx->SetCurrentThread(t);
    }
    return t;
}

void ExitThread(DWORD) {
    pthread_exit(nullptr);
}

BOOL TerminateThread(Handle*, DWORD) {
    return TRUE;
}

DWORD SuspendThread(Handle* h) {
    return static_cast<TvPlatformThread*>(h)->Suspend();
}

DWORD ResumeThread(Handle* h) {
    return static_cast<TvPlatformThread*>(h)->Resume();
}

BOOL SetThreadPriority(Handle*, int) {
    return FALSE;
}

int GetThreadPriority(Handle* h) {
    int policy = 0;
    sched_param param;
    memset(&param, 0, sizeof param);
    int rc = pthread_getschedparam(static_cast<TvPlatformThread*>(h)->GetTid(), &policy, &param);
    return rc != 0 ? rc : param.sched_priority;
}

int unixthread_attr_init(pthread_attr_t* attr) {
    return pthread_attr_init(attr);
}

int unixthread_create(pthread_t* tid, pthread_attr_t* attr, void* (*start)(void*), void* arg) {
    return pthread_create(tid, attr, start, arg);
}

int unixthread_create_detached(void* (*start)(void*), void* arg) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    int rc = pthread_create(&tid, &attr, start, arg);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        fprintf(stderr, "unixthread_create_detached: pthread_create failed, err=%s\n",
                strerror(rc));
        return rc;
    }
    return 0;
}
