// Windows-style critical sections: recursive, owner-tracked pthread mutexes.
//
// The owner field is read by threads that do not hold the mutex (to decide
// whether this is a recursive entry), so it is only ever accessed with
// atomic loads and stores. A thread can only ever see its own id there while
// it really owns the section, which is all the recursion test needs.
#include <errno.h>
#include <pthread.h>

#include "tvcommonutil/handles.h"

namespace {

pthread_t Owner(const _critsection* cs) {
    return __atomic_load_n(&cs->owner, __ATOMIC_RELAXED);
}

// A plain atomic store: ordering comes from the mutex itself, so the
// owner word needs no locked instruction of its own.
void SetOwner(_critsection* cs, pthread_t t) {
    __atomic_store_n(&cs->owner, t, __ATOMIC_RELAXED);
}

}  // namespace

int EnterCriticalSection(_critsection* cs) {
    if (cs == nullptr) return 0;
    pthread_t self = pthread_self();
    if (Owner(cs) == self) {
        ++cs->count;
        return 0;
    }
    int rc = pthread_mutex_lock(&cs->mutex);
    if (rc == EINTR) return rc;
    SetOwner(cs, self);
    cs->count = 1;
    return 0;
}

int TryEnterCriticalSection(_critsection* cs) {
    if (cs == nullptr) return 0;
    pthread_t self = pthread_self();
    if (Owner(cs) == self) {
        ++cs->count;
        return 1;
    }
    if (pthread_mutex_trylock(&cs->mutex) != 0) return 0;
    SetOwner(cs, self);
    cs->count = 1;
    return 1;
}

void LeaveCriticalSection(_critsection* cs) {
    if (cs == nullptr) return;
    if (Owner(cs) == pthread_self()) {
        if (--cs->count != 0) return;
    }
    // Last leave, or a leave by a thread that does not own the section: the
    // latter is not refused, as callers have always been able to do it.
    SetOwner(cs, NULL_PTHREAD);
    pthread_mutex_unlock(&cs->mutex);
}
