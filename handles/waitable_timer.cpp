// Waitable timers.
//
// Design
// ------
// All timers of the process sit in one queue, a singly linked list through
// Timer::next_ ordered by the full due time (timers due at the same instant
// stay in the order they were armed). One timer thread, started by
// the first timer ever created and never stopped, sleeps on the request
// condition until the due time of the head. Expiry is not a signalled state:
// the timer thread queues the completion routine as an APC to the thread that
// armed the timer, which runs it at its next alertable wait; the routine
// never runs on the timer thread.
//
// Locking
// -------
// One plain (non-recursive) request lock guards the queue, the thread handle
// and every field of every timer; the timer thread holds it except while it
// sleeps. Arming a timer that is still queued must cancel it under the lock
// that Cancel takes itself; rather than a recursive lock, the cancellation
// body is CancelLocked, which expects the lock held, and both Cancel (after
// taking the lock) and SetTimer (already holding it) call it.
//
// Lock order: request lock, then a thread object's mutex (QueueAPC from the
// timer thread), then the mutex of the object that thread sleeps on in an
// alertable wait (the wake routine QueueAPC calls). The request lock is never
// taken while one of those is held.
//
// Lifetime
// --------
// The queue does not own its timers: closing the last handle of an armed
// timer cancels it, since the destructor unlinks it. The timer thread holds
// no reference either, so a closed timer can never fire; instead the thread
// records the timer it sleeps on (g_sleepingOn), and a destructor that finds
// its timer recorded there wakes the thread and waits (on g_sleepAck, with
// the request lock released) until the thread has woken and cleared the
// record. After that the thread finds the timer gone from the queue and never
// touches it again. A timer holds a reference on the thread that armed it, so
// the APC target stays valid until the timer is re-armed or destroyed; an APC
// for a thread that has ended is dropped by QueueAPC. References are dropped
// outside the request lock.
//
// Fork
// ----
// The timer thread does not survive a fork. The prepare handler takes the
// request lock (so the queue is consistent: the thread only holds it while
// it works on the queue), the parent releases it, and the child re-makes
// the lock and conditions, forgets the thread and clears the sleep record.
// Inherited armed timers stay queued; the next timer created or armed in
// the child starts a fresh thread, which fires them.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdint.h>
#include <time.h>

#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

namespace {

// The request lock and condition, the queue head and the timer thread's
// handle. Constant-initialised, so a timer made from any static initialiser
// finds them ready.
pthread_mutex_t g_requestLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_requestQueue = PTHREAD_COND_INITIALIZER;  // CLOCK_REALTIME
pthread_cond_t g_sleepAck = PTHREAD_COND_INITIALIZER;
Timer* g_callout = nullptr;       // guarded by g_requestLock
Timer* g_sleepingOn = nullptr;    // guarded by g_requestLock
Handle* g_timerThread = nullptr;  // written under g_requestLock; atomic loads

class RequestHolder {
public:
    RequestHolder() { pthread_mutex_lock(&g_requestLock); }
    ~RequestHolder() { pthread_mutex_unlock(&g_requestLock); }
    RequestHolder(const RequestHolder&) = delete;
    RequestHolder& operator=(const RequestHolder&) = delete;
};

long long Ns(const timespec& t) {
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

// The next expiry of a periodic timer: the previous due time plus the
// period, and plus as many further periods as have already gone by, so a
// timer that fell behind (a busy machine, a due time in the past) skips the
// missed expiries instead of firing them back to back. Counting from the due
// time rather than from "now" keeps the period from drifting.
void NextPeriod(timespec& due, long periodMs) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const long long period = static_cast<long long>(periodMs) * 1000000LL;
    long long next = Ns(due) + period;
    if (next <= Ns(now)) next += ((Ns(now) - next) / period + 1) * period;
    due.tv_sec = static_cast<time_t>(next / 1000000000LL);
    due.tv_nsec = static_cast<long>(next % 1000000000LL);
}

void ForkPrepare() {
    pthread_mutex_lock(&g_requestLock);
}

void ForkParent() {
    pthread_mutex_unlock(&g_requestLock);
}

void ForkChild() {
    pthread_mutex_init(&g_requestLock, nullptr);
    pthread_cond_init(&g_requestQueue, nullptr);
    pthread_cond_init(&g_sleepAck, nullptr);
    // The parent's thread object is left alone: only its thread is gone.
    __atomic_store_n(&g_timerThread, nullptr, __ATOMIC_RELEASE);
    g_sleepingOn = nullptr;
}

struct ForkHandlers {
    ForkHandlers() { pthread_atfork(ForkPrepare, ForkParent, ForkChild); }
} forkHandlers;

bool Reached(const timespec& due) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec > due.tv_sec || (now.tv_sec == due.tv_sec && now.tv_nsec >= due.tv_nsec);
}

}  // namespace

Timer::Timer(int manualReset, const char* name)
    : Handle(1),
      state_(kIdle),
      manualReset_(manualReset ? 1 : 0),
      due_{0, 0},
      period_(0),
      owner_(nullptr),
      name_(name ? name : ""),
      routine_(nullptr),
      arg_(nullptr),
      inWait_(0),
      next_(nullptr) {
    if (__atomic_load_n(&g_timerThread, __ATOMIC_ACQUIRE) == nullptr) StartThread();
}

Timer::~Timer() {
    {
        RequestHolder hold;
        CancelLocked(this);
        if (g_sleepingOn == this) {
            pthread_cond_signal(&g_requestQueue);
            while (g_sleepingOn == this) pthread_cond_wait(&g_sleepAck, &g_requestLock);
        }
    }
    // Out of the queue and out of the timer thread's hands.
    if (owner_) owner_->DecRefCount();
}

int Timer::What() {
    return kHandleTimer;
}

int Timer::GetState() const {
    RequestHolder hold;
    return state_;
}

bool Timer::InsertHere(const timespec& due) const {
    return due.tv_sec < due_.tv_sec || (due.tv_sec == due_.tv_sec && due.tv_nsec < due_.tv_nsec);
}

int Timer::Queue(Timer* t) {
    t->state_ = kQueued;
    Timer** link = &g_callout;
    while (*link && !(*link)->InsertHere(t->due_)) link = &(*link)->next_;
    t->next_ = *link;
    *link = t;
    return link == &g_callout ? 1 : 0;
}

void Timer::Unlink(Timer* t) {
    for (Timer** link = &g_callout; *link; link = &(*link)->next_) {
        if (*link == t) {
            *link = t->next_;
            t->next_ = nullptr;
            return;
        }
    }
}

int Timer::CancelLocked(Timer* t) {
    if (t->state_ != kQueued) return 0;
    Timer* e = g_callout;
    while (e && e != t) e = e->next_;
    // Removed earlier by a cancel that left the state at "queued".
    if (e == nullptr) return 1;
    // inWait_ is only ever set on the timer recorded in g_sleepingOn; a
    // forked child clears the record but cannot reach the flag.
    if (t->inWait_ && g_sleepingOn == t) {
        // The timer thread sleeps until this timer's due time: make it look
        // at the queue again, and tell it this expiry is void.
        t->state_ = kCancelledInWait;
        pthread_cond_signal(&g_requestQueue);
    }
    // Otherwise the state stays "queued" although the timer is out of the
    // queue; a later SetTimer then simply finds nothing to remove.
    Unlink(t);
    return 1;
}

int Timer::Cancel(Timer* t) {
    if (t == nullptr) return 0;
    RequestHolder hold;
    return CancelLocked(t);
}

int Timer::SetTimer(const timespec* due, long periodMs, PTIMERAPCROUTINE routine, void* arg) {
    // Only a forked child arms a timer with no thread running.
    if (__atomic_load_n(&g_timerThread, __ATOMIC_ACQUIRE) == nullptr) StartThread();
    TvPlatformThread* self = static_cast<TvPlatformThread*>(GetCurrentThread());
    self->IncRefCount();
    TvPlatformThread* previousOwner;
    int head;
    {
        RequestHolder hold;
        if (state_ == kQueued) CancelLocked(this);
        due_ = *due;
        period_ = periodMs;
        routine_ = routine;
        arg_ = arg;
        inWait_ = 0;
        previousOwner = owner_;
        owner_ = self;
        head = Queue(this);
    }
    // A new head: the timer thread re-computes its sleep.
    if (head) pthread_cond_signal(&g_requestQueue);
    if (previousOwner) previousOwner->DecRefCount();
    return 1;
}

void Timer::StartThread() {
    {
        RequestHolder hold;
        if (g_timerThread != nullptr) return;
        DWORD id = 0;
        Handle* h = CreateThread(nullptr, 0, TimerThreadBootstrap, nullptr, 0, &id);
        __atomic_store_n(&g_timerThread, h, __ATOMIC_RELEASE);
    }
    sched_yield();
}

DWORD Timer::TimerThreadBootstrap(void*) {
    pthread_mutex_lock(&g_requestLock);
    for (;;) {
        Timer* t = g_callout;
        if (t == nullptr) {
            pthread_cond_wait(&g_requestQueue, &g_requestLock);
            continue;
        }
        g_sleepingOn = t;
        t->inWait_ = 1;
        const timespec due = t->due_;
        pthread_cond_timedwait(&g_requestQueue, &g_requestLock, &due);
        t->inWait_ = 0;
        g_sleepingOn = nullptr;
        // A destructor may be waiting for this; t stays valid until the lock
        // is released, and after that it is not touched again.
        pthread_cond_broadcast(&g_sleepAck);
        // Fire only when the timer is still armed, still first, and its due
        // time (which a re-arm during the sleep may have moved) has come. A
        // cancellation or a new head simply leads to a fresh look.
        if (t->state_ == kQueued && g_callout == t && Reached(t->due_)) {
            g_callout = t->next_;
            t->next_ = nullptr;
            t->state_ = t->manualReset_ ? kFired : kIdle;
            if (t->routine_ && t->owner_) {
                t->owner_->QueueAPC(
                    t->routine_, t->arg_,
                    reinterpret_cast<void*>(static_cast<intptr_t>(t->due_.tv_sec)),
                    reinterpret_cast<void*>(static_cast<intptr_t>(t->due_.tv_nsec)));
            }
            if (t->period_ > 0) {
                NextPeriod(t->due_, t->period_);
                Queue(t);
            }
        }
    }
}

Handle* CreateWaitableTimer(SECURITY_ATTRIBUTES*, BOOL manualReset, const char* name) {
    return new Timer(manualReset, name);
}

BOOL SetWaitableTimer(Handle* timer, const timespec* due, long periodMs, PTIMERAPCROUTINE routine,
                      void* arg, BOOL) {
    if (timer == nullptr || due == nullptr) return FALSE;
    if (periodMs < 0) {
        errno = EINVAL;
        return FALSE;
    }
    return static_cast<Timer*>(timer)->SetTimer(due, periodMs, routine, arg);
}

BOOL CancelWaitableTimer(Handle* timer) {
    return Timer::Cancel(static_cast<Timer*>(timer));
}
