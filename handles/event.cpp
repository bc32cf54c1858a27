// Events. The waiting itself is the wait core's (handles/wait_core.cpp);
// this file keeps the event's state word.
//
// state_ holds kSignalled and kSleepers (some wait has a node on this
// event). Set on an event nobody sleeps on is one CAS from 0 to kSignalled,
// and a zero-time wait one CAS clearing kSignalled; a Set that finds
// kSleepers takes the event's lock and hands the signal to the sleepers
// (WakeSleepersLocked). kSleepers is set under the lock before a wait makes
// its last check, so a lock-free Set can never slip between that check and
// the sleep. Reset is a plain clear: it never waits for anybody.
#include <stdlib.h>
#include <string.h>

#include "handles/own_cache_lines.h"
#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

namespace {

constexpr unsigned kSignalled = 1;
constexpr unsigned kSleepers = 2;

}  // namespace

Event::Event(long data, int manualReset, int initialState, const char* name)
    : Handle(1),
      data_(data),
      lastData_(data),
      dataOwner_(0),
      lastRev_(0),
      state_(initialState ? kSignalled : 0),
      manualReset_(manualReset ? 1 : 0),
      name_(name ? strdup(name) : nullptr) {}

Event::~Event() {
    if (data_ != -1 && tv::detail::g_unnotify_hook) tv::detail::g_unnotify_hook(data_, this);
    free(name_);
}

int Event::What() {
    return kHandleEvent;
}

int Event::EventIsSignaled() const {
    return (__atomic_load_n(&state_, __ATOMIC_ACQUIRE) & kSignalled) ? 1 : 0;
}

inline bool Event::Consume() {
    unsigned v = __atomic_load_n(&state_, __ATOMIC_ACQUIRE);
    if (manualReset_) return (v & kSignalled) != 0;
    do {
        if (!(v & kSignalled)) return false;
    } while (!__atomic_compare_exchange_n(&state_, &v, v & ~kSignalled, true, __ATOMIC_ACQ_REL,
                                          __ATOMIC_ACQUIRE));
    return true;
}

bool Event::TryConsume() {
    return Consume();
}

bool Event::TakeLocked(pthread_t) {
    return Consume();
}

void Event::GiveBackLocked(pthread_t) {
    if (!manualReset_) __atomic_fetch_or(&state_, kSignalled, __ATOMIC_RELEASE);
}

bool Event::AvailableLocked(pthread_t) {
    return EventIsSignaled() != 0;
}

void Event::SleepersChangedLocked(bool any) {
    if (any)
        __atomic_fetch_or(&state_, kSleepers, __ATOMIC_ACQ_REL);
    else
        __atomic_fetch_and(&state_, ~kSleepers, __ATOMIC_ACQ_REL);
}

unsigned long Event::WaitForHandle(unsigned long ms, int alertable) {
    if (Consume()) return WAIT_OBJECT_0;
    if (ms == 0) return WAIT_TIMEOUT;
    tv::detail::Waitable* self = this;
    Handle* h = this;
    return tv::detail::WaitCore(1, &self, &h, false, ms, alertable);
}

inline int Event::Raise(bool pulse) {
    unsigned v = __atomic_load_n(&state_, __ATOMIC_ACQUIRE);
    while (!(v & kSleepers)) {
        // Nobody sleeps here: no lock needed. A pulse then releases nobody.
        const unsigned want = pulse ? (v & ~kSignalled) : (v | kSignalled);
        if (want == v) return 1;
        if (__atomic_compare_exchange_n(&state_, &v, want, true, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE)) {
            return 1;
        }
    }
    tv::ScopedLock<tv::PosixMutex> hold(&lock_);
    __atomic_fetch_or(&state_, kSignalled, __ATOMIC_ACQ_REL);
    tv::detail::WakeSleepersLocked(this);
    if (pulse) __atomic_fetch_and(&state_, ~kSignalled, __ATOMIC_ACQ_REL);
    return 1;
}

int Event::Set() {
    return Raise(false);
}

int Event::Reset() {
    __atomic_fetch_and(&state_, ~kSignalled, __ATOMIC_ACQ_REL);
    return 1;
}

int Event::Pulse() {
    return Raise(true);
}

Event* Event::GetSynch(int& signalled) {
    signalled = EventIsSignaled();
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

Handle* EventCreate(SECURITY_ATTRIBUTES*, BOOL manualReset, BOOL initialState, const char* name) {
    return new tv::detail::OnOwnCacheLines<Event>(-1, manualReset, initialState, name);
}

Handle* CreateEvent(SECURITY_ATTRIBUTES* sa, BOOL manualReset, BOOL initialState,
                    const char* name) {
    return EventCreate(sa, manualReset, initialState, name);
}

BOOL EventSet(Handle* h) {
    return h ? h->Set() : FALSE;
}
BOOL SetEvent(Handle* h) {
    return h ? h->Set() : FALSE;
}
BOOL EventReset(Handle* h) {
    return h ? h->Reset() : FALSE;
}
BOOL ResetEvent(Handle* h) {
    return h ? h->Reset() : FALSE;
}
BOOL EventPulse(Handle* h) {
    return h ? h->Pulse() : FALSE;
}
BOOL PulseEvent(Handle* h) {
    return h ? h->Pulse() : FALSE;
}
