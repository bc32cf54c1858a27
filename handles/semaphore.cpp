// Counting semaphores. The waiting is the wait core's
// (handles/wait_core.cpp): a release hands units straight to sleeping
// waits, one unit to each, so a release of n lets exactly n waits succeed
// whoever else arrives meanwhile. lock_ guards the count and is taken by
// nothing but this semaphore's own operations and waits.
#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"

Semaphore::Semaphore(long initial, long maximum, const char* name)
    : Handle(1), count_(initial), maximum_(maximum), name_(name ? name : "") {}

Semaphore::~Semaphore() {}

int Semaphore::What() {
    return kHandleSemaphore;
}

bool Semaphore::TakeLocked(pthread_t) {
    if (count_ <= 0) return false;
    --count_;
    return true;
}

void Semaphore::GiveBackLocked(pthread_t) {
    ++count_;
}

bool Semaphore::AvailableLocked(pthread_t) {
    return count_ > 0;
}

int Semaphore::Release(long n, long* previous) {
    tv::ScopedLock<tv::PosixMutex> hold(&lock_);
    if (n > maximum_ - count_) return 0;
    if (previous) *previous = count_;
    if (n != 0) {
        count_ += n;
        tv::detail::WakeSleepersLocked(this);
    }
    return 1;
}

unsigned long Semaphore::WaitForHandle(unsigned long ms, int alertable) {
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
    return new Semaphore(initial, maximum, name);
}

BOOL ReleaseSemaphore(Handle* h, long n, long* previous) {
    if (h == nullptr || n < 1) return FALSE;
    return static_cast<Semaphore*>(h)->Release(n, previous);
}
