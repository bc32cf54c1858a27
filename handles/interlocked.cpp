// Interlocked operations and the start-up probe for native atomics.
//
// The operations use the compiler's atomic builtins once the probe has set
// lArchHasAtomicOps; reference counting therefore never serialises on a
// process-wide mutex. Should the probe fail (no native instruction), every
// operation falls back to hInterlockMutex.
#include <pthread.h>
#include <signal.h>

#include "tvcommonutil/handles.h"

long lArchHasAtomicOps = 0;

namespace {

pthread_mutex_t hInterlockMutex = PTHREAD_MUTEX_INITIALIZER;

struct SigIll {};

void ThrowSigIll(int) {
    throw SigIll();
}

bool NativeAtomics() {
    return __atomic_load_n(&lArchHasAtomicOps, __ATOMIC_RELAXED) != 0;
}

// Runs at load; each subsystem has its own initialiser object and none of
// them depends on another (the functions above also work before the probe).
struct InterlockedInit {
    InterlockedInit() { __init_InterLockedSwitch(); }
} interlocked_init;

}  // namespace

long AtomicAdd32(long* p, long delta, int returnOld) {
    long old = __atomic_fetch_add(p, delta, __ATOMIC_SEQ_CST);
    return returnOld ? old : old + delta;
}

long AtomicExchange32(long* p, long v) {
    return __atomic_exchange_n(p, v, __ATOMIC_SEQ_CST);
}

long InterlockedIncrement(long* p) {
    if (NativeAtomics()) return AtomicAdd32(p, 1, 0);
    CSimpleLock lock(&hInterlockMutex);
    lock.GetLock();
    return ++*p;
}

long InterlockedDecrement(long* p) {
    if (NativeAtomics()) return AtomicAdd32(p, -1, 0);
    CSimpleLock lock(&hInterlockMutex);
    lock.GetLock();
    return --*p;
}

long InterlockedExchange(long* p, long v) {
    if (NativeAtomics()) return AtomicExchange32(p, v);
    CSimpleLock lock(&hInterlockMutex);
    lock.GetLock();
    long old = *p;
    *p = v;
    return old;
}

long InterlockedExchangeAdd(long* p, long delta) {
    if (NativeAtomics()) return AtomicAdd32(p, delta, 1);
    CSimpleLock lock(&hInterlockMutex);
    lock.GetLock();
    long old = *p;
    *p += delta;
    return old;
}

void __init_InterLockedSwitch() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, [] {
        struct sigaction probe = {}, previous = {};
        probe.sa_handler = ThrowSigIll;
        sigemptyset(&probe.sa_mask);
        sigaction(SIGILL, &probe, &previous);
        try {
            AtomicAdd32(&lArchHasAtomicOps, 1, 0);
        } catch (const SigIll&) {
            // No native instruction: the mutex fallback stays selected.
        }
        sigaction(SIGILL, &previous, nullptr);
    });
}
