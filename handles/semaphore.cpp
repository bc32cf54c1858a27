// Counting semaphores. The waiting is the wait core's
// (handles/wait_core.cpp): a release hands units straight to sleeping
// waits, one unit to each, so a release of n lets exactly n waits succeed
// whoever else arrives meanwhile.
//
// units_ holds the count (in the bits above kSleepers) and kSleepers (some
// wait has a node on this semaphore): the protocol of an event's signal
// word (handles/event.cpp). A release that finds no sleepers adds its units
// with one CAS, and a zero-time wait takes one with one CAS; neither takes
// a lock. kSleepers is set under the semaphore's lock before a sleeping
// wait makes its last TakeLocked, so a lock-free release either runs before
// that try, which then finds the unit, or fails its CAS and takes the lock
// to hand its units to the sleepers. The maximum is checked in the same CAS
// that adds, so a refused release changes nothing.
#include "handles/own_cache_lines.h"
#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"

namespace {

constexpr unsigned long kSleepers = 1;
constexpr unsigned long kUnit = 2;

}  // namespace

Semaphore::Semaphore(long initial, long maximum, const char* name)
    : Handle(1),
      maximum_(maximum),
      name_(name ? name : ""),
      units_(static_cast<unsigned long>(initial > 0 ? initial : 0) * kUnit) {}

Semaphore::~Semaphore() {}

int Semaphore::What() {
    return kHandleSemaphore;
}

inline bool Semaphore::TryTake() {
    unsigned long v = __atomic_load_n(&units_, __ATOMIC_RELAXED);
    do {
        if (v < kUnit) return false;
    } while (!__atomic_compare_exchange_n(&units_, &v, v - kUnit, true, __ATOMIC_ACQUIRE,
                                          __ATOMIC_RELAXED));
    return true;
}

bool Semaphore::TakeLocked(pthread_t) {
    return TryTake();
}

void Semaphore::GiveBackLocked(pthread_t) {
    __atomic_fetch_add(&units_, kUnit, __ATOMIC_RELEASE);
}

bool Semaphore::AvailableLocked(pthread_t) {
    return __atomic_load_n(&units_, __ATOMIC_ACQUIRE) >= kUnit;
}

void Semaphore::SleepersChangedLocked(bool any) {
    if (any)
        __atomic_fetch_or(&units_, kSleepers, __ATOMIC_ACQ_REL);
    else
        __atomic_fetch_and(&units_, ~kSleepers, __ATOMIC_ACQ_REL);
}

int Semaphore::Release(long n, long* previous) {
    if (n < 0) return 0;
    // n <= maximum - count keeps (count + n) * kUnit within the word.
    unsigned long v = __atomic_load_n(&units_, __ATOMIC_RELAXED);
    long count;
    bool sleepers;
    do {
        count = static_cast<long>(v / kUnit);
        if (n > maximum_ - count) return 0;
        sleepers = (v & kSleepers) != 0;
        // With sleepers the units are added under the lock instead.
        if (sleepers) break;
    } while (!__atomic_compare_exchange_n(&units_, &v, v + static_cast<unsigned long>(n) * kUnit,
                                          true, __ATOMIC_RELEASE, __ATOMIC_RELAXED));
    if (!sleepers) {
        if (previous) *previous = count;
        return 1;
    }
    tv::ScopedLock<tv::PosixMutex> hold(&lock_);
    // Lock-free takers may still race with the add.
    v = __atomic_load_n(&units_, __ATOMIC_RELAXED);
    do {
        count = static_cast<long>(v / kUnit);
        if (n > maximum_ - count) return 0;
    } while (!__atomic_compare_exchange_n(&units_, &v, v + static_cast<unsigned long>(n) * kUnit,
                                          true, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED));
    if (previous) *previous = count;
    if (n != 0) tv::detail::WakeSleepersLocked(this);
    return 1;
}

unsigned long Semaphore::WaitForHandle(unsigned long ms, int alertable) {
    if (TryTake()) return WAIT_OBJECT_0;
    if (ms == 0) return WAIT_TIMEOUT;
    tv::detail::Waitable* self = this;
    Handle* h = this;
    return tv::detail::WaitCore(1, &self, &h, false, ms, alertable);
}

unsigned long Semaphore::WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                                unsigned long ms, int alertable) {
    return WaitForMultipleObjectsEx(count, handles, waitAll, ms, alertable);
}

Handle* CreateSemaphore(SECURITY_ATTRIBUTES*, long initial, long maximum, const char* name) {
    if (maximum < 0 || initial < 0 || initial > maximum) return nullptr;
    return new tv::detail::OnOwnCacheLines<Semaphore>(initial, maximum, name);
}

BOOL ReleaseSemaphore(Handle* h, long n, long* previous) {
    if (h == nullptr || n < 1) return FALSE;
    return static_cast<Semaphore*>(h)->Release(n, previous);
}
