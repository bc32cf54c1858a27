// Completion ports: a group of change notification handles waited on as one.
//
// A port wait polls the port's own synchronisation event (slot 0) and each
// member's (slots 1..n): a member that is already signalled answers at once,
// consuming its signal. Otherwise it waits on all n + 1 events (at most 64
// members, the wait-object limit, plus the port) through the multi-object
// wait of the first one. The watcher signals a member through
// ChangeNotificationHandle::Signal, which sets the event that member's
// GetSynch lends (its overlapped event when it was armed with one, else its
// own); every member lent one gets FreeSynch before the wait returns.
// PostQueuedCompletionStatus sets slot 0, which no member answers to: the
// wait reports failure.
//
// members_ is guarded by lock_, a leaf lock. A wait works on a snapshot of
// the members, each with a reference held for the wait, so a concurrent
// Erase or FindCloseChangeNotification cannot free an event being waited on.
#include <errno.h>

#include <new>
#include <vector>

#include "tvcommonutil/handles.h"
#include "tvcommonutil/notify.h"

namespace {

constexpr unsigned long kMaxPortMembers = MAXIMUM_WAIT_OBJECTS;

}  // namespace

IoCompletionPort::IoCompletionPort() : Handle(1) {
    // Made now so that a posting before the first wait is kept.
    int ignored = 0;
    Handle::GetSynch(ignored);
}

IoCompletionPort::~IoCompletionPort() {
    std::list<ChangeNotificationHandle*> members;
    {
        CriticalSectionHolder hold(lock_);
        members.swap(members_);
    }
    for (ChangeNotificationHandle* h : members) h->DecRefCount();
}

int IoCompletionPort::What() {
    return kHandleIoCompletionPort;
}

void IoCompletionPort::Insert(ChangeNotificationHandle* h) {
    if (h == nullptr) return;
    h->IncRefCount();
    CriticalSectionHolder hold(lock_);
    members_.push_back(h);
}

void IoCompletionPort::Erase(ChangeNotificationHandle* h) {
    {
        CriticalSectionHolder hold(lock_);
        auto it = members_.begin();
        while (it != members_.end() && *it != h) ++it;
        if (it == members_.end()) return;
        members_.erase(it);
    }
    h->DecRefCount();
}

ChangeNotificationHandle* IoCompletionPort::GetHandle(int index) {
    if (index < 0) return nullptr;
    CriticalSectionHolder hold(lock_);
    for (ChangeNotificationHandle* h : members_) {
        if (index-- == 0) return h;
    }
    return nullptr;
}

ChangeNotificationHandle* IoCompletionPort::TakeHandle(unsigned long index) {
    CriticalSectionHolder hold(lock_);
    for (ChangeNotificationHandle* h : members_) {
        if (index-- == 0) {
            h->IncRefCount();
            return h;
        }
    }
    return nullptr;
}

int IoCompletionPort::GetCount() const {
    CriticalSectionHolder hold(lock_);
    return static_cast<int>(members_.size());
}

unsigned long IoCompletionPort::WaitForHandle(unsigned long ms, int alertable) {
    std::vector<ChangeNotificationHandle*> members;
    {
        CriticalSectionHolder hold(lock_);
        members.assign(members_.begin(), members_.end());
        for (ChangeNotificationHandle* h : members) h->IncRefCount();
    }
    struct Release {
        std::vector<ChangeNotificationHandle*>& m;
        ~Release() {
            for (ChangeNotificationHandle* h : m) h->DecRefCount();
        }
    } release{members};
    // Before the references above go.
    unsigned long lent = 0;
    struct GiveBack {
        std::vector<ChangeNotificationHandle*>& m;
        const unsigned long& n;
        ~GiveBack() {
            for (unsigned long i = 0; i < n; ++i) m[i]->FreeSynch();
        }
    } giveBack{members, lent};

    const unsigned long n = members.size();
    if (n == 0 || n > kMaxPortMembers) return WAIT_FAILED;

    Handle* slots[kMaxPortMembers + 1];
    int signalled = 0;
    slots[0] = GetSynch(signalled);
    if (signalled) return WAIT_FAILED;
    Event* first = static_cast<Event*>(slots[0]);
    for (unsigned long i = 0; i < n; ++i) {
        signalled = 0;
        Event* e = members[i]->GetSynch(signalled);
        ++lent;
        slots[i + 1] = e;
        if (signalled) return i;
        if (first == nullptr) first = e;
    }
    if (ms == 0) return WAIT_TIMEOUT;
    if (first == nullptr) return WAIT_FAILED;

    const unsigned long r = first->WaitForMultipleHandles(n + 1, slots, FALSE, ms, alertable);
    if (r == WAIT_TIMEOUT || r == WAIT_IO_COMPLETION) return r;
    if (r > n) return WAIT_FAILED;
    if (slots[r] != nullptr) slots[r]->Reset();
    // Slot 0 is the port itself: no member answers, the caller is told of
    // failure.
    return r == 0 ? WAIT_FAILED : r - 1;
}

Handle* CreateIoCompletionPort(Handle* file, Handle* existingPort, unsigned long key,
                               unsigned long) {
    if (file == nullptr) return nullptr;
    if (existingPort != nullptr &&
        (existingPort == INVALID_HANDLE_VALUE || existingPort->What() != kHandleIoCompletionPort)) {
        errno = ERROR_INVALID_HANDLE;
        return nullptr;
    }
    if (file == INVALID_HANDLE_VALUE) {
        // The usual way to make a port before adding anything to it.
        if (existingPort != nullptr) return existingPort;
        Handle* port = new (std::nothrow) IoCompletionPort;
        if (port == nullptr) errno = ERROR_NOT_ENOUGH_MEMORY;
        return port;
    }
    if (file->What() != kHandleChangeNotification) {
        // Only change notification handles complete through a port here.
        errno = ERROR_CALL_NOT_IMPLEMENTED;
        return nullptr;
    }
    IoCompletionPort* port = static_cast<IoCompletionPort*>(existingPort);
    if (port == nullptr) {
        port = new (std::nothrow) IoCompletionPort;
        if (port == nullptr) {
            errno = ERROR_NOT_ENOUGH_MEMORY;
            return nullptr;
        }
    }
    auto* h = static_cast<ChangeNotificationHandle*>(file);
    h->SetKey(key);
    port->Insert(h);
    return port;
}

int GetQueuedCompletionStatus(Handle* port, unsigned long* bytes, unsigned long* key, _OVERLAPPED**,
                              unsigned long timeout) {
    if (port == nullptr || bytes == nullptr) return 0;
    if (port == INVALID_HANDLE_VALUE || port->What() != kHandleIoCompletionPort) {
        errno = ERROR_INVALID_HANDLE;
        return 0;
    }
    auto* p = static_cast<IoCompletionPort*>(port);
    const unsigned long r = p->WaitForHandle(timeout, FALSE);
    if (r == WAIT_TIMEOUT) {
        errno = WAIT_TIMEOUT;
        return 0;
    }
    // WAIT_FAILED (the port itself, no members, too many) and anything else
    // that is not a member's position: never index past the members.
    ChangeNotificationHandle* h = r == WAIT_FAILED ? nullptr : p->TakeHandle(r);
    if (h == nullptr) {
        errno = ERROR_INVALID_HANDLE;
        return 0;
    }
    const int ok = h->GetChangeData(bytes, key);
    h->DecRefCount();
    return ok;
}

int PostQueuedCompletionStatus(Handle* port, unsigned long, unsigned long, _OVERLAPPED*) {
    if (port == nullptr || port == INVALID_HANDLE_VALUE) return 0;
    return port->Signal();
}
