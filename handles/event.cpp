// Events: the one real waiting primitive of the library.
//
// Locking model
// -------------
// Each event has a mutex guarding its signalled flag and waiter count, and a
// condition its single-object waiters sleep on. The process-wide recursive
// Event::EventLock guards every listener set (the MultiEvents of threads
// inside a multi-object wait). Lock order: EventLock, then an event's mutex,
// then (through MultiEvent::PostEvent) the embedded event of a listener.
//
// Set() stores the signalled flag while it still holds EventLock, so a
// multi-object wait that scans the flags under EventLock either sees the
// event signalled or is already registered as a listener and gets the
// posting: no wake-up can fall between the two.
//
// Auto-reset consumption is a test-and-clear under the event's mutex
// (TryConsume), whoever the consumer is: a single-object waiter, a
// multi-object wait or a synchronisation-event poll. One Set therefore
// releases exactly one consumer even when several threads watch the event.
//
// APCs: an alertable finite wait records its event on its thread object.
// QueueAPC broadcasts that event's condition after queueing, and the waiter
// checks for queued APCs under the event's mutex before every sleep, so an
// APC queued while the thread is already asleep ends the wait with
// WAIT_IO_COMPLETION. The APCs themselves run after the event's mutex has
// been released. INFINITE waits ignore APCs by design.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

CriticalSection Event::EventLock;

namespace tv {
namespace detail {

void (*g_unnotify_hook)(long data, Event* e) = nullptr;

void SplitTimeout(unsigned long ms, long& secs, long& msecs) {
    secs = 0;
    msecs = 0;
    if (ms != 0 && ms != INFINITE) {
        secs = ms > 999 ? static_cast<long>(ms / 1000) : 0;
        msecs = static_cast<long>(ms % 1000);
    }
}

}  // namespace detail
}  // namespace tv

namespace {

void InitCond(pthread_cond_t* c) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_REALTIME);
    pthread_cond_init(c, &attr);
    pthread_condattr_destroy(&attr);
}

// Scoped pthread mutex holder for the event's own mutex.
class MutexHolder {
public:
    explicit MutexHolder(pthread_mutex_t* m) : m_(m) { pthread_mutex_lock(m_); }
    ~MutexHolder() { pthread_mutex_unlock(m_); }
    MutexHolder(const MutexHolder&) = delete;
    MutexHolder& operator=(const MutexHolder&) = delete;

private:
    pthread_mutex_t* m_;
};

}  // namespace

Event::Event(long data, int manualReset, int initialState, const char* name)
    : Handle(1),
      data_(data),
      lastData_(data),
      dataOwner_(0),
      lastRev_(0),
      signalled_(initialState ? 1 : 0),
      manualReset_(manualReset ? 1 : 0),
      waiters_(0),
      name_(name ? strdup(name) : nullptr),
      resetPending_(0),
      listeners_(nullptr),
      listenerCount_(0),
      listenerCapacity_(0) {
    pthread_mutex_init(&mutex_, nullptr);
    InitCond(&cond_);
    InitCond(&drainCond_);
}

Event::~Event() {
    if (data_ != -1 && tv::detail::g_unnotify_hook) tv::detail::g_unnotify_hook(data_, this);
    pthread_cond_destroy(&drainCond_);
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&mutex_);
    free(name_);
    delete[] listeners_;
}

int Event::What() {
    return kHandleEvent;
}

bool Event::PeekSignalled() const {
    return __atomic_load_n(&signalled_, __ATOMIC_ACQUIRE) != 0;
}

int Event::EventIsSignaled() const {
    return PeekSignalled() ? 1 : 0;
}

bool Event::TryConsume() {
    if (!PeekSignalled()) return false;
    MutexHolder hold(&mutex_);
    if (!signalled_) return false;
    if (!manualReset_) __atomic_store_n(&signalled_, 0, __ATOMIC_RELEASE);
    return true;
}

unsigned long Event::WaitForHandle(unsigned long ms, int alertable) {
    long secs, msecs;
    tv::detail::SplitTimeout(ms, secs, msecs);

    // Only a finite alertable wait can be ended by an APC; record it so the
    // queueing side can wake us (see the top of this file).
    tv::detail::AlertableWaitScope apcScope(
        alertable, ms, this, [](Handle* h) { static_cast<Event*>(h)->WakeForApc(); });
    TvPlatformThread* const self = apcScope.thread();

    pthread_mutex_lock(&mutex_);
    if (ms == 0 && !signalled_) {
        pthread_mutex_unlock(&mutex_);
        return WAIT_TIMEOUT;
    }
    for (;;) {
        if (signalled_) {
            if (!manualReset_) __atomic_store_n(&signalled_, 0, __ATOMIC_RELEASE);
            pthread_mutex_unlock(&mutex_);
            return WAIT_OBJECT_0;
        }
        ++waiters_;
        if (ms != INFINITE) {
            timespec deadline;
            tv::detail::DeadlineAfter(secs, msecs, deadline);
            while (!signalled_) {
                if (self && self->HasPendingAPC()) {
                    --waiters_;
                    pthread_mutex_unlock(&mutex_);
                    UserAPCCheck();
                    return WAIT_IO_COMPLETION;
                }
                int rc = pthread_cond_timedwait(&cond_, &mutex_, &deadline);
                if (rc == ETIMEDOUT && !signalled_) {
                    --waiters_;
                    pthread_mutex_unlock(&mutex_);
                    return WAIT_TIMEOUT;
                }
                if (rc != 0 && rc != EINTR) break;
            }
        } else {
            pthread_cond_wait(&cond_, &mutex_);
        }
        --waiters_;
        if (signalled_ && waiters_ == 0 && resetPending_ && manualReset_) {
            pthread_cond_broadcast(&drainCond_);
        }
    }
}

void Event::WakeForApc() {
    MutexHolder hold(&mutex_);
    pthread_cond_broadcast(&cond_);
}

int Event::Set() {
    if (PeekSignalled()) return 1;
    Lock();
    pthread_mutex_lock(&mutex_);
    if (signalled_) {
        pthread_mutex_unlock(&mutex_);
        Unlock();
        return 1;
    }
    for (int i = 0; i < listenerCount_; ++i) listeners_[i]->PostEvent(this);
    __atomic_store_n(&signalled_, 1, __ATOMIC_RELEASE);
    Unlock();
    if (waiters_ > 0) {
        if (manualReset_)
            pthread_cond_broadcast(&cond_);
        else
            pthread_cond_signal(&cond_);
    }
    pthread_mutex_unlock(&mutex_);
    return 1;
}

int Event::Reset() {
    MutexHolder hold(&mutex_);
    if (!signalled_) return 1;
    if (manualReset_) {
        // Let every waiter released by the preceding Set leave first. The
        // last one to leave broadcasts the drain condition; both sides hold
        // this mutex, so that broadcast cannot be missed.
        while (waiters_ > 0) {
            resetPending_ = 1;
            pthread_cond_wait(&drainCond_, &mutex_);
        }
        resetPending_ = 0;
    }
    __atomic_store_n(&signalled_, 0, __ATOMIC_RELEASE);
    return 1;
}

int Event::Pulse() {
    if (Set() == 0) return 0;
    Reset();
    return 1;
}

Event* Event::GetSynch(int& signalled) {
    signalled = PeekSignalled() ? 1 : 0;
    return this;
}

long Event::GetEventData() const {
    return __atomic_load_n(&data_, __ATOMIC_ACQUIRE);
}

int Event::SetEventData(long d) {
    pthread_t self = pthread_self();
    if (d != -1) {
        IncRefCount();
        __atomic_store_n(&dataOwner_, self, __ATOMIC_RELEASE);
        __atomic_store_n(&data_, d, __ATOMIC_RELEASE);
        return 0;
    }
    if (__atomic_load_n(&dataOwner_, __ATOMIC_ACQUIRE) != self) return 0;
    __atomic_store_n(&dataOwner_, static_cast<pthread_t>(-1), __ATOMIC_RELEASE);
    __atomic_store_n(&data_, -1L, __ATOMIC_RELEASE);
    DecRefCount();
    return 0;
}

void Event::RevStamp(unsigned long rev, int saveData) {
    if (saveData) __atomic_store_n(&lastData_, GetEventData(), __ATOMIC_RELEASE);
    __atomic_store_n(&lastRev_, rev, __ATOMIC_RELEASE);
}

unsigned long Event::GetLastRev() const {
    return __atomic_load_n(&lastRev_, __ATOMIC_ACQUIRE);
}

long Event::GetLastData() const {
    return __atomic_load_n(&lastData_, __ATOMIC_ACQUIRE);
}

void Event::AddListener(MultiEvent* m) {
    int pos = 0;
    while (pos < listenerCount_ && listeners_[pos] < m) ++pos;
    if (pos < listenerCount_ && listeners_[pos] == m) return;
    if (listenerCount_ == listenerCapacity_) {
        int cap = listenerCapacity_ ? listenerCapacity_ * 2 : 4;
        MultiEvent** grown = new MultiEvent*[cap];
        for (int i = 0; i < listenerCount_; ++i) grown[i] = listeners_[i];
        delete[] listeners_;
        listeners_ = grown;
        listenerCapacity_ = cap;
    }
    for (int i = listenerCount_; i > pos; --i) listeners_[i] = listeners_[i - 1];
    listeners_[pos] = m;
    ++listenerCount_;
}

void Event::RemoveListener(MultiEvent* m) {
    for (int i = 0; i < listenerCount_; ++i) {
        if (listeners_[i] == m) {
            for (int j = i; j + 1 < listenerCount_; ++j) listeners_[j] = listeners_[j + 1];
            --listenerCount_;
            return;
        }
    }
}

Handle* EventCreate(SECURITY_ATTRIBUTES*, BOOL manualReset, BOOL initialState, const char* name) {
    return new Event(-1, manualReset, initialState, name);
}

Handle* CreateEvent(SECURITY_ATTRIBUTES* sa, BOOL manualReset, BOOL initialState,
                    const char* name) {
    return EventCreate(sa, manualReset, initialState, name);
}

BOOL EventSet(Handle* h) {
    return h ? h->Set() : FALSE;
}
BOOL SetEvent(Handle* h) {
    return EventSet(h);
}
BOOL EventReset(Handle* h) {
    return h ? h->Reset() : FALSE;
}
BOOL ResetEvent(Handle* h) {
    return EventReset(h);
}
BOOL EventPulse(Handle* h) {
    return h ? h->Pulse() : FALSE;
}
BOOL PulseEvent(Handle* h) {
    return EventPulse(h);
}
