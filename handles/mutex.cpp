// Recursive mutexes: a one-unit semaphore with an owner and a recursion
// count. Ownership is given under the semaphore's lock, by the waiting
// thread itself or by a release handing the mutex to a sleeping wait (the
// wait core's protocol), so a mutex can be taken inside any multi-object
// wait. The owner is also loaded without the lock by the "is it me?" test:
// a thread only ever finds its own id there while it owns the mutex. The
// recursion count is touched by the owner, or under the lock by the thread
// making a new owner, which the previous owner's release happens-before.
#include <pthread.h>

#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"

Mutex::Mutex(int initialOwner, const char* name)
    : Semaphore(1, 1, name), owner_(NULL_PTHREAD), recursion_(0) {
    if (initialOwner) {
        tv::ScopedLock<tv::PosixMutex> hold(&lock_);
        TakeLocked(pthread_self());
    }
}

int Mutex::What() {
    return kHandleMutex;
}

bool Mutex::TakeLocked(pthread_t tid) {
    if (pthread_equal(__atomic_load_n(&owner_, __ATOMIC_RELAXED), tid)) {
        __atomic_add_fetch(&recursion_, 1, __ATOMIC_RELAXED);
        return true;
    }
    if (count_ <= 0) return false;
    count_ = 0;
    __atomic_store_n(&recursion_, 1, __ATOMIC_RELAXED);
    __atomic_store_n(&owner_, tid, __ATOMIC_RELEASE);
    return true;
}

void Mutex::GiveBackLocked(pthread_t) {
    if (__atomic_sub_fetch(&recursion_, 1, __ATOMIC_RELAXED) > 0) return;
    __atomic_store_n(&owner_, NULL_PTHREAD, __ATOMIC_RELEASE);
    count_ = 1;
}

bool Mutex::AvailableLocked(pthread_t tid) {
    return count_ > 0 || pthread_equal(__atomic_load_n(&owner_, __ATOMIC_RELAXED), tid);
}

unsigned long Mutex::WaitForHandle(unsigned long ms, int alertable) {
    if (pthread_equal(__atomic_load_n(&owner_, __ATOMIC_ACQUIRE), pthread_self())) {
        __atomic_add_fetch(&recursion_, 1, __ATOMIC_RELAXED);
        return WAIT_OBJECT_0;
    }
    return Semaphore::WaitForHandle(ms, alertable);
}

int Mutex::Release() {
    if (!pthread_equal(__atomic_load_n(&owner_, __ATOMIC_ACQUIRE), pthread_self())) return 0;
    if (__atomic_sub_fetch(&recursion_, 1, __ATOMIC_RELAXED) > 0) return 0;
    tv::ScopedLock<tv::PosixMutex> hold(&lock_);
    __atomic_store_n(&owner_, NULL_PTHREAD, __ATOMIC_RELEASE);
    count_ = 1;
    tv::detail::WakeSleepersLocked(this);
    return 1;
}

Handle* CreateMutex(SECURITY_ATTRIBUTES*, BOOL initialOwner, const char* name) {
    return new Mutex(initialOwner, name);
}

BOOL ReleaseMutex(Handle* h) {
    if (h == nullptr) return FALSE;
    return static_cast<Mutex*>(h)->Release();
}
