// Multi-object waits.
//
// Wake-up protocol
// ----------------
// Every thread owns one MultiEvent (kept in its ThreadContext and reused by
// all its multi-object waits). A wait scans the events' signalled flags
// under Event::EventLock; when none completes the wait, it registers its
// MultiEvent as a listener on each event, still under EventLock, and sleeps
// on the MultiEvent's embedded auto-reset event. Event::Set posts to every
// listener under EventLock before it releases the lock; the first posting
// records its index in the MultiEvent and sets the embedded event. After the
// sleep the wait unregisters under EventLock and reads the recorded index.
//
// Because Set stores the flag under EventLock, the scan-then-register step is
// atomic with respect to Set: the wait either sees the flag or gets the post.
//
// Consumption of auto-reset events is a test-and-clear (Event::TryConsume),
// so when several threads watch one auto-reset event, one Set releases one
// of them; a thread that was posted to but lost the event to another
// consumer goes back to waiting for the rest of its time-out.
//
// Deliberate results: a wait-all that does not complete at once ends at the
// first posting, returns that index and resets every auto-reset event of the
// set; the immediate wait-all path resets nothing; a homogeneous set of a
// class without its own multi-object wait (mutexes, semaphores) returns 0.
#include <time.h>

#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

MultiEvent::MultiEvent(int capacity)
    : Handle(1),
      event_(-1, FALSE, FALSE, nullptr),
      capacity_(capacity),
      needed_(0),
      signalledIndex_(-1),
      array_(capacity > 0 ? new Handle*[capacity]() : nullptr) {}

MultiEvent::~MultiEvent() {
    delete[] array_;
}

int MultiEvent::What() {
    return kHandleMultiEvent;
}

int MultiEvent::PostEvent(Event* e) {
    if (capacity_ == 0 || array_ == nullptr) return 0;
    int i = 0;
    while (i < capacity_ && array_[i] != e) ++i;
    if (i == capacity_) return 1;
    if (signalledIndex_ == -1) signalledIndex_ = i;
    event_.Set();
    return 1;
}

namespace {

Event* AsEvent(Handle* h) {
    return static_cast<Event*>(h);
}

// Milliseconds left until `deadline` (GetMilliTime based), 0 when past.
unsigned long Remaining(unsigned long ms, unsigned long long start) {
    if (ms == INFINITE) return INFINITE;
    unsigned long long spent = GetElapsedTime(start);
    return spent >= ms ? 0 : static_cast<unsigned long>(ms - spent);
}

MultiEvent* ThreadMultiEvent(unsigned long count) {
    ThreadContext* ctx = GetThreadContext();
    MultiEvent* m = ctx->GetMultiEvent();
    if (m == nullptr) {
        m = new MultiEvent(static_cast<int>(count));
        ctx->SetMultiEvent(m);
    }
    return m;
}

}  // namespace

unsigned long Event::WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                            unsigned long ms, int alertable) {
    if (count == 0 || handles == nullptr) return WAIT_FAILED;
    MultiEvent* multi = ThreadMultiEvent(count);
    const unsigned long long start = ms == INFINITE ? 0 : GetMilliTime();

    for (;;) {
        multi->signalledIndex_ = -1;
        // A posting left over from an earlier wait that ended by time-out.
        multi->event_.TryConsume();

        Lock();
        if (!waitAll) {
            for (unsigned long i = 0; i < count; ++i) {
                Event* e = AsEvent(handles[i]);
                if (e == nullptr || !e->PeekSignalled()) continue;
                if (e->manualReset_ || e->TryConsume()) {
                    Unlock();
                    return WAIT_OBJECT_0 + i;
                }
            }
        } else {
            unsigned long n = 0;
            for (unsigned long i = 0; i < count; ++i) {
                Event* e = AsEvent(handles[i]);
                if (e != nullptr && e->PeekSignalled()) ++n;
            }
            if (n == count) {
                Unlock();
                return WAIT_OBJECT_0;
            }
        }
        unsigned long left = Remaining(ms, start);
        if (left == 0) {
            Unlock();
            return WAIT_TIMEOUT;
        }
        for (unsigned long i = 0; i < count; ++i) {
            if (Event* e = AsEvent(handles[i])) {
                e->IncRefCount();
                e->AddListener(multi);
            }
        }
        if (multi->capacity_ < static_cast<int>(count)) {
            delete[] multi->array_;
            multi->array_ = new Handle*[count];
            multi->capacity_ = static_cast<int>(count);
        }
        for (unsigned long i = 0; i < count; ++i) multi->array_[i] = handles[i];
        for (int i = static_cast<int>(count); i < multi->capacity_; ++i) multi->array_[i] = nullptr;
        multi->needed_ = waitAll ? static_cast<int>(count) : 1;
        Unlock();

        unsigned long r = WaitForSingleObjectEx(&multi->event_, left, alertable);

        Lock();
        const int k = multi->signalledIndex_;
        bool claimed = true;
        for (unsigned long i = 0; i < count; ++i) {
            Event* e = AsEvent(handles[i]);
            if (e == nullptr) continue;
            const bool posted = static_cast<int>(i) == k;
            if (r == WAIT_OBJECT_0 && !e->manualReset_ && (waitAll || posted)) {
                // For the posted event of a wait-any this is the claim; a
                // thread that loses it to another consumer waits on.
                bool got = e->TryConsume();
                if (posted && !waitAll) claimed = got;
            }
            if (posted && e->GetEventData() != -1) e->SetEventData(-1);
            e->RemoveListener(multi);
            multi->array_[i] = nullptr;
        }
        Unlock();
        for (unsigned long i = 0; i < count; ++i) {
            if (Event* e = AsEvent(handles[i])) e->DecRefCount();
        }

        if (r == WAIT_TIMEOUT || r == WAIT_IO_COMPLETION) return r;
        if (k < 0) return WAIT_FAILED;
        if (claimed) return WAIT_OBJECT_0 + static_cast<unsigned long>(k);
    }
}

DWORD WaitForMultipleObjectsEx(DWORD count, Handle** handles, BOOL waitAll, DWORD ms,
                               BOOL alertable) {
    if (count == 0 || handles == nullptr || handles[0] == nullptr) return WAIT_FAILED;
    const int type = handles[0]->What();
    bool same = true;
    for (DWORD i = 1; i < count && same; ++i) same = handles[i] && handles[i]->What() == type;
    if (same) return handles[0]->WaitForMultipleHandles(count, handles, waitAll, ms, alertable);

    // Mixed types: wait on each object's synchronisation event.
    Handle* synchs[MAXIMUM_WAIT_OBJECTS];
    if (count > MAXIMUM_WAIT_OBJECTS) return WAIT_FAILED;
    Event* dispatcher = nullptr;
    for (DWORD i = 0; i < count; ++i) {
        int signalled = 0;
        Event* e = handles[i] ? handles[i]->GetSynch(signalled) : nullptr;
        synchs[i] = e;
        if (signalled) {
            for (DWORD j = i + 1; j-- > 0;) {
                if (handles[j]) handles[j]->FreeSynch();
            }
            return WAIT_OBJECT_0 + i;
        }
        if (dispatcher == nullptr) dispatcher = e;
    }
    if (dispatcher == nullptr) return WAIT_FAILED;
    DWORD r = dispatcher->WaitForMultipleHandles(count, synchs, waitAll, ms, alertable);
    for (DWORD i = 0; i < count; ++i) {
        if (handles[i]) handles[i]->FreeSynch();
    }
    return r;
}

DWORD WaitForMultipleObjects(DWORD count, Handle** handles, BOOL waitAll, DWORD ms) {
    return WaitForMultipleObjectsEx(count, handles, waitAll, ms, FALSE);
}
