// Recursive mutexes: a one-unit semaphore with an owner and a recursion
// count. The semaphore part does all the waiting (and so the APC handling of
// alertable timed waits). The owner is read by any thread that asks "is it
// me?" and written only by the thread that holds the unit, so it is kept
// with atomic loads and stores. The recursion count is touched only by the
// owner, except that a creator owning the mutex in name only and the thread
// that really takes it both believe they own it; its accesses are atomic so
// that even that case stays free of data races.
#include <pthread.h>

#include "tvcommonutil/handles.h"

Mutex::Mutex(int initialOwner, const char* name)
    : Semaphore(1, 1, name), owner_(NULL_PTHREAD), recursion_(0) {
    if (initialOwner) {
        // Ownership in name only: the unit stays available (see handles.h).
        owner_ = pthread_self();
        recursion_ = 1;
    }
}

int Mutex::What() {
    return kHandleMutex;
}

unsigned long Mutex::WaitForHandle(unsigned long ms, int alertable) {
    const pthread_t self = pthread_self();
    if (pthread_equal(__atomic_load_n(&owner_, __ATOMIC_ACQUIRE), self)) {
        __atomic_add_fetch(&recursion_, 1, __ATOMIC_RELAXED);
        return WAIT_OBJECT_0;
    }
    unsigned long r = Semaphore::WaitForHandle(ms, alertable);
    if (r == WAIT_OBJECT_0) {
        __atomic_store_n(&owner_, self, __ATOMIC_RELEASE);
        __atomic_store_n(&recursion_, 1, __ATOMIC_RELAXED);
    }
    return r;
}

int Mutex::Release() {
    if (!pthread_equal(__atomic_load_n(&owner_, __ATOMIC_ACQUIRE), pthread_self())) return 0;
    if (__atomic_sub_fetch(&recursion_, 1, __ATOMIC_RELAXED) > 0) return 0;
    __atomic_store_n(&owner_, NULL_PTHREAD, __ATOMIC_RELEASE);
    return Semaphore::Release(1, nullptr);
}

Handle* CreateMutex(SECURITY_ATTRIBUTES*, BOOL initialOwner, const char* name) {
    return new Mutex(initialOwner, name);
}

BOOL ReleaseMutex(Handle* h) {
    if (h == nullptr) return FALSE;
    return static_cast<Mutex*>(h)->Release();
}
