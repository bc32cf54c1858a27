// Recursive mutexes. state_ holds kHeld and kSleepers (some wait has a node
// on this mutex); the owner and the recursion count sit beside it.
//
// Uncontended, a wait is one CAS of state_ from 0 to kHeld and a release one
// CAS back, with no lock taken: the same protocol as an event's signal word
// (handles/event.cpp). kSleepers is set under the mutex's lock before a
// sleeping wait makes its last TakeLocked, so a lock-free release either
// runs before that try (which then finds the mutex free) or fails its CAS
// and takes the lock to hand the mutex to a sleeper (WakeSleepersLocked).
// Ownership is therefore given by the thread taking the mutex, lock-free or
// under the lock, or by a release handing it to a sleeping wait, so a mutex
// can be taken inside any multi-object wait.
//
// The owner is loaded without the lock by the "is it me?" test: a thread
// only ever finds its own id there while it owns the mutex. The recursion
// count is touched by the owner, or by the thread making a new owner, which
// the previous owner's release (its CAS of state_) happens-before.
#include <pthread.h>

#include "handles/own_cache_lines.h"
#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"

namespace {

constexpr unsigned kHeld = 1;
constexpr unsigned kSleepers = 2;

}  // namespace

Mutex::Mutex(int initialOwner, const char* name)
    : Semaphore(0, 1, name),
      state_(initialOwner ? kHeld : 0),
      owner_(initialOwner ? pthread_self() : NULL_PTHREAD),
      recursion_(initialOwner ? 1 : 0) {}

int Mutex::What() {
    return kHandleMutex;
}

inline bool Mutex::Owned(pthread_t tid) const {
    return pthread_equal(__atomic_load_n(&owner_, __ATOMIC_RELAXED), tid) != 0;
}

inline bool Mutex::TryAcquire(pthread_t tid) {
    if (Owned(tid)) {
        __atomic_store_n(&recursion_, __atomic_load_n(&recursion_, __ATOMIC_RELAXED) + 1,
                         __ATOMIC_RELAXED);
        return true;
    }
    unsigned v = __atomic_load_n(&state_, __ATOMIC_RELAXED);
    do {
        if (v & kHeld) return false;
    } while (!__atomic_compare_exchange_n(&state_, &v, v | kHeld, true, __ATOMIC_ACQUIRE,
                                          __ATOMIC_RELAXED));
    __atomic_store_n(&recursion_, 1, __ATOMIC_RELAXED);
    __atomic_store_n(&owner_, tid, __ATOMIC_RELAXED);
    return true;
}

// Gives up one level; true when that was the last and the mutex is free.
inline bool Mutex::Leave() {
    const long r = __atomic_load_n(&recursion_, __ATOMIC_RELAXED) - 1;
    __atomic_store_n(&recursion_, r, __ATOMIC_RELAXED);
    if (r > 0) return false;
    __atomic_store_n(&owner_, NULL_PTHREAD, __ATOMIC_RELAXED);
    return true;
}

bool Mutex::TakeLocked(pthread_t tid) {
    return TryAcquire(tid);
}

void Mutex::GiveBackLocked(pthread_t) {
    if (Leave()) __atomic_fetch_and(&state_, ~kHeld, __ATOMIC_RELEASE);
}

bool Mutex::AvailableLocked(pthread_t tid) {
    return !(__atomic_load_n(&state_, __ATOMIC_ACQUIRE) & kHeld) || Owned(tid);
}

void Mutex::SleepersChangedLocked(bool any) {
    if (any)
        __atomic_fetch_or(&state_, kSleepers, __ATOMIC_ACQ_REL);
    else
        __atomic_fetch_and(&state_, ~kSleepers, __ATOMIC_ACQ_REL);
}

unsigned long Mutex::WaitForHandle(unsigned long ms, int alertable) {
    if (TryAcquire(pthread_self())) return WAIT_OBJECT_0;
    if (ms == 0) return WAIT_TIMEOUT;
    tv::detail::Waitable* self = this;
    Handle* h = this;
    return tv::detail::WaitCore(1, &self, &h, false, ms, alertable);
}

int Mutex::Release() {
    if (!Owned(pthread_self())) return 0;
    if (!Leave()) return 0;
    unsigned v = kHeld;
    if (__atomic_compare_exchange_n(&state_, &v, 0, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED)) {
        return 1;
    }
    // Somebody sleeps here: hand the mutex over under the lock.
    tv::ScopedLock<tv::PosixMutex> hold(&lock_);
    __atomic_fetch_and(&state_, ~kHeld, __ATOMIC_RELEASE);
    tv::detail::WakeSleepersLocked(this);
    return 1;
}

Handle* CreateMutex(SECURITY_ATTRIBUTES*, BOOL initialOwner, const char* name) {
    return new tv::detail::OnOwnCacheLines<Mutex>(initialOwner, name);
}

BOOL ReleaseMutex(Handle* h) {
    if (h == nullptr) return FALSE;
    return static_cast<Mutex*>(h)->Release();
}
