// The handle base class: reference-counted lifetime, the default wait
// behaviour and the lazily made synchronisation event.
#include <unistd.h>

#include "tvcommonutil/handles.h"

Handle::Handle(int initialCount) : synch_(nullptr), refCount_(initialCount) {}

Handle::~Handle() {
    if (synch_) synch_->DecRefCount();
}

int Handle::What() {
    return kHandleBase;
}

unsigned long Handle::WaitForHandle(unsigned long, int) {
    return WAIT_OBJECT_0;
}

unsigned long Handle::WaitForMultipleHandles(unsigned long, Handle**, int, unsigned long, int) {
    return WAIT_OBJECT_0;
}

int Handle::Set() {
    return 0;
}

int Handle::Reset() {
    if (Event* e = __atomic_load_n(&synch_, __ATOMIC_ACQUIRE)) {
        e->Reset();
        return 1;
    }
    return 0;
}

int Handle::Pulse() {
    return 0;
}

Event* Handle::GetSynch(int& signalled) {
    Event* e = __atomic_load_n(&synch_, __ATOMIC_ACQUIRE);
    if (e) {
        // A successful poll consumes the signal, as with an auto-reset event.
        signalled = e->TryConsume() ? 1 : 0;
        return e;
    }
    Event* made = new Event(-1, FALSE, FALSE, nullptr);
    Event* expected = nullptr;
    // Two threads may race to make it; the loser's event is dropped.
    if (!__atomic_compare_exchange_n(&synch_, &expected, made, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE)) {
        made->DecRefCount();
        signalled = expected->TryConsume() ? 1 : 0;
        return expected;
    }
    signalled = 0;
    return made;
}

void Handle::FreeSynch() {}

int Handle::Signal() {
    if (Event* e = __atomic_load_n(&synch_, __ATOMIC_ACQUIRE)) return static_cast<int>(e->Set());
    return 0;
}

long Handle::IncRefCount() {
    return InterlockedIncrement(&refCount_);
}

long Handle::DecRefCount() {
    long n = InterlockedDecrement(&refCount_);
    if (n == 0) delete this;
    return n;
}

long Handle::GetRefCount() const {
    return __atomic_load_n(&refCount_, __ATOMIC_RELAXED);
}

File::File(int fd) : Handle(1), fd_(fd) {}

File::~File() {
    if (fd_ != -1) close(fd_);
}

int File::What() {
    return kHandleFile;
}

BOOL HandleClose(Handle* h) {
    if (h == nullptr) return FALSE;
    h->DecRefCount();
    return TRUE;
}

BOOL CloseHandle(Handle* h) {
    return HandleClose(h);
}

BOOL DuplicateHandle(Handle*, Handle* source, Handle*, Handle** target, DWORD, BOOL, DWORD) {
    if (source == nullptr) return FALSE;
    source->IncRefCount();
    if (target) *target = source;
    return TRUE;
}

DWORD WaitForSingleObjectEx(Handle* h, DWORD ms, BOOL alertable) {
    if (h == nullptr) return WAIT_FAILED;
    return h->WaitForHandle(ms, alertable);
}

DWORD WaitForSingleObject(Handle* h, DWORD ms) {
    return WaitForSingleObjectEx(h, ms, FALSE);
}
