// Counting semaphores.
//
// Locking model
// -------------
// Each semaphore has one mutex guarding the count, the waiter count, the
// release flag and the wake tokens, and one condition its waiters sleep on.
// The mutex is a leaf lock: nothing else is taken while it is held (APCs and
// the wake-up of another thread's alertable wait happen after releasing it).
//
// Wake-up protocol
// ----------------
// A waiter takes a unit at once when the count is positive. Otherwise it
// counts itself in `waiters_` and sleeps. A release of n that finds waiters
// sets the wake tokens to min(waiters, new count) and signals the condition
// that many times, one wake-up per signal, so a release of n wakes n
// sleepers and never the whole crowd. A woken waiter takes a token and a
// unit; one that finds the count back at 0 (a thread arriving from outside
// took the unit first) sleeps again. Whoever ends up with the units, the
// count guarantees that a release of n lets exactly n waits succeed.
//
// A waiter that was chosen by a signal but leaves without a unit (time-out
// or APC at the same moment) passes the wake-up on when units and sleepers
// remain, so no unit is stranded while another thread sleeps.
//
// APCs: an alertable finite wait records the semaphore on its thread object.
// QueueAPC then calls WakeForApc, which broadcasts the condition under the
// mutex; the waiter checks for queued APCs under the mutex before every
// sleep, so the APC cannot slip in between the check and the sleep. The
// broadcast wakes the other sleepers too; they re-check the count and sleep
// again. INFINITE waits ignore APCs by design.
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

namespace {

// Scoped holder for the semaphore's own mutex that can be let go early.
class Locker {
public:
    explicit Locker(pthread_mutex_t* m) : m_(m), held_(true) { pthread_mutex_lock(m_); }
    ~Locker() {
        if (held_) pthread_mutex_unlock(m_);
    }
    Locker(const Locker&) = delete;
    Locker& operator=(const Locker&) = delete;
    void Unlock() {
        pthread_mutex_unlock(m_);
        held_ = false;
    }

private:
    pthread_mutex_t* m_;
    bool held_;
};

}  // namespace

Semaphore::Semaphore(long initial, long maximum, const char* name)
    : Handle(1),
      count_(initial),
      maximum_(maximum),
      waiters_(0),
      released_(0),
      wakeTokens_(0),
      name_(name ? name : "") {
    pthread_mutex_init(&mutex_, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_REALTIME);
    pthread_cond_init(&cond_, &attr);
    pthread_condattr_destroy(&attr);
}

Semaphore::~Semaphore() {
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&mutex_);
}

int Semaphore::What() {
    return kHandleSemaphore;
}

int Semaphore::Release(long n, long* previous) {
    Locker hold(&mutex_);
    if (n > maximum_ - count_) return 0;
    if (previous) *previous = count_;
    if (n != 0) {
        count_ += n;
        if (waiters_ > 0) {
            released_ = 1;
            wakeTokens_ = waiters_ < count_ ? waiters_ : count_;
            for (long i = 0; i < wakeTokens_; ++i) pthread_cond_signal(&cond_);
        }
    }
    return 1;
}

void Semaphore::WakeForApc() {
    Locker hold(&mutex_);
    pthread_cond_broadcast(&cond_);
}

unsigned long Semaphore::WaitForHandle(unsigned long ms, int alertable) {
    long secs, msecs;
    tv::detail::SplitTimeout(ms, secs, msecs);

    tv::detail::AlertableWaitScope apcScope(
        alertable, ms, this, [](Handle* h) { static_cast<Semaphore*>(h)->WakeForApc(); });
    TvPlatformThread* const self = apcScope.thread();

    Locker hold(&mutex_);
    if (count_ > 0) {
        --count_;
        return WAIT_OBJECT_0;
    }
    if (ms == 0) return WAIT_TIMEOUT;

    // Leaving without a unit after a release may have picked this thread:
    // hand the wake-up to another sleeper if a unit is there for it.
    auto passOn = [this] {
        if (count_ > 0 && waiters_ > 0) pthread_cond_signal(&cond_);
    };

    // One deadline for the whole wait: being overtaken by another thread
    // does not restart the time-out.
    timespec deadline = {0, 0};
    if (ms != INFINITE) tv::detail::DeadlineAfter(secs, msecs, deadline);

    // Entered with the count at 0; left holding a unit.
    for (;;) {
        if (ms != INFINITE) {
            while (count_ == 0) {
                if (self && self->HasPendingAPC()) {
                    passOn();
                    hold.Unlock();
                    UserAPCCheck();
                    return WAIT_IO_COMPLETION;
                }
                ++waiters_;
                int rc = pthread_cond_timedwait(&cond_, &mutex_, &deadline);
                --waiters_;
                if (rc == ETIMEDOUT) {
                    // Even if a unit arrived at the same moment: the time-out
                    // wins, as callers of timed waits expect.
                    passOn();
                    return WAIT_TIMEOUT;
                }
                if (rc == EINTR) {
                    if (alertable) {
                        passOn();
                        hold.Unlock();
                        UserAPCCheck();
                        return WAIT_IO_COMPLETION;
                    }
                    continue;
                }
                if (rc != 0) break;
            }
        } else {
            ++waiters_;
            pthread_cond_wait(&cond_, &mutex_);
            --waiters_;
        }
        if (count_ == 0) continue;  // overtaken: sleep again
        if (wakeTokens_ > 0) {
            --wakeTokens_;
            if (wakeTokens_ == 0) released_ = 0;
        }
        break;
    }
    --count_;
    return WAIT_OBJECT_0;
}

Handle* CreateSemaphore(SECURITY_ATTRIBUTES*, long initial, long maximum, const char* name) {
    if (maximum < 0 || initial < 0 || initial > maximum) return nullptr;
    return new Semaphore(initial, maximum, name);
}

BOOL ReleaseSemaphore(Handle* h, long n, long* previous) {
    if (h == nullptr || n < 1) return FALSE;
    return static_cast<Semaphore*>(h)->Release(n, previous);
}
