// Multi-object waits: maps each handle to what the wait core waits on.
// Events, mutexes and semaphores are waitable themselves. Threads,
// processes, notification handles and completion ports are waited on
// through their synchronisation events (GetSynch; a poll that found one
// signalled is put back, so that the core alone decides what is consumed),
// and FreeSynch is called on them afterwards; the wait holds a reference on
// such a handle from its GetSynch to its FreeSynch, since the core's own
// reference is dropped before. Handles without wait logic of their own
// count as signalled, as they do in a single wait.
#include "handles/wait_internal.h"
#include "tvcommonutil/handles.h"

namespace tv {
namespace detail {
Waitable* AlwaysSignalledObject();
}  // namespace detail
}  // namespace tv

MultiEvent::MultiEvent(int) : Handle(1) {}

int MultiEvent::What() {
    return kHandleMultiEvent;
}

namespace {

unsigned long WaitForObjects(unsigned long count, Handle** handles, int waitAll, unsigned long ms,
                             int alertable) {
    if (count == 0 || handles == nullptr || count > MAXIMUM_WAIT_OBJECTS + 1) return WAIT_FAILED;
    tv::detail::Waitable* objects[MAXIMUM_WAIT_OBJECTS + 1] = {};
    bool viaSynch[MAXIMUM_WAIT_OBJECTS + 1];
    for (unsigned long i = 0; i < count; ++i) {
        Handle* h = handles[i];
        viaSynch[i] = false;
        objects[i] = nullptr;
        if (h == nullptr) continue;
        switch (h->What()) {
            case kHandleEvent:
                objects[i] = static_cast<Event*>(h);
                break;
            case kHandleSemaphore:
            case kHandleMutex:
                objects[i] = static_cast<Semaphore*>(h);
                break;
            case kHandleThread:
            case kHandleProcess:
            case kHandleChangeNotification:
            case kHandleIoCompletionPort:
            case kHandleMultiEvent: {
                int signalled = 0;
                h->IncRefCount();
                Event* e = h->GetSynch(signalled);
                if (e != nullptr && signalled) e->Set();
                objects[i] = e;
                viaSynch[i] = true;
                break;
            }
            default:
                objects[i] = tv::detail::AlwaysSignalledObject();
                break;
        }
    }
    const unsigned long r =
        tv::detail::WaitCore(count, objects, handles, waitAll != 0, ms, alertable);
    for (unsigned long i = 0; i < count; ++i) {
        if (!viaSynch[i]) continue;
        handles[i]->FreeSynch();
        handles[i]->DecRefCount();
    }
    // A registry notification attached to the event that ended the wait is
    // used up by it.
    if (!waitAll && r < count && handles[r]->What() == kHandleEvent) {
        Event* e = static_cast<Event*>(handles[r]);
        if (e->GetEventData() != -1) e->SetEventData(-1);
    }
    return r;
}

}  // namespace

unsigned long Event::WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                            unsigned long ms, int alertable) {
    return WaitForObjects(count, handles, waitAll, ms, alertable);
}

DWORD WaitForMultipleObjectsEx(DWORD count, Handle** handles, BOOL waitAll, DWORD ms,
                               BOOL alertable) {
    if (count == 0 || handles == nullptr || handles[0] == nullptr) return WAIT_FAILED;
    if (count > MAXIMUM_WAIT_OBJECTS) return WAIT_FAILED;
    // A set of processes alone has its own wait (it sleeps in the kernel's
    // child wait rather than on synchronisation events).
    bool processes = true;
    for (DWORD i = 0; i < count && processes; ++i) {
        processes = handles[i] && handles[i]->What() == kHandleProcess;
    }
    if (processes)
        return handles[0]->WaitForMultipleHandles(count, handles, waitAll, ms, alertable);
    return WaitForObjects(count, handles, waitAll, ms, alertable);
}

DWORD WaitForMultipleObjects(DWORD count, Handle** handles, BOOL waitAll, DWORD ms) {
    return WaitForMultipleObjectsEx(count, handles, waitAll, ms, FALSE);
}

namespace tv {
namespace detail {
unsigned long WaitForAnyObjects(unsigned long count, Handle** handles, int waitAll,
                                unsigned long ms, int alertable) {
    return WaitForObjects(count, handles, waitAll, ms, alertable);
}
}  // namespace detail
}  // namespace tv
