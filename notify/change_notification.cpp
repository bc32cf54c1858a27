// Change notification handles: creation, registration, arming, the wait,
// the signal, and the collection of queued records into the caller's packed
// little-endian buffer. Locking is described at the top of dir_scan.cpp.
#include <errno.h>
#include <string.h>

#include <list>
#include <new>

#include "notify/watch_table.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/notify.h"

using tv::detail::CNH_list;
using tv::detail::CNH_lock;
using tv::detail::WriteHolder;

namespace {

void PutLE(unsigned char* p, unsigned long long v, int bytes) {
    for (int i = 0; i < bytes; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// A handle's record queue, which also tells whether it was collected since
// the handle was last armed (guarded by the handle's lock, like the records).
// Arming again without a collection empties it: the caller gave up what was
// queued. After a collection it is kept: a handle registered twice (by
// FindFirstChangeNotification, then by arming) stays watched through a
// collection, and what the watcher queued on it since then are changes the
// caller has not seen and, the snapshot being updated, would never hear of.
struct NotifyQueue : std::list<_NOTIFY_INFO> {
    bool collected = false;
};

NotifyQueue* QueueOf(std::list<_NOTIFY_INFO>* list) {
    return static_cast<NotifyQueue*>(list);
}

}  // namespace

ChangeNotificationHandle::ChangeNotificationHandle(const char* dir, int watchSubtree,
                                                   unsigned long filter)
    : Handle(1),
      watchDir_(dir != nullptr ? dir : ""),
      reserved_(0),
      changed_(0),
      signalPending_(0),
      signalled_(0),
      watchSubtree_(watchSubtree),
      filter_(filter),
      auxEvent_(nullptr),
      lends_(0),
      notifyList_(nullptr),
      buffer_(nullptr),
      bufferSize_(0),
      key_(0) {
    (void)reserved_;
    // Made now rather than by the first wait, so that a Signal given before
    // a completion port first looks at this handle is not lost.
    int ignored = 0;
    Handle::GetSynch(ignored);
}

ChangeNotificationHandle::~ChangeNotificationHandle() {
    {
        // Recursive for a writer, so this is safe under
        // FindCloseChangeNotification, which already holds it.
        WriteHolder hold(CNH_lock());
        CNH_list().remove(this);
    }
    if (auxEvent_ != nullptr) auxEvent_->DecRefCount();
    for (Handle* e : retired_) e->DecRefCount();
    delete QueueOf(notifyList_);
}

int ChangeNotificationHandle::What() {
    return kHandleChangeNotification;
}

unsigned long ChangeNotificationHandle::WaitForHandle(unsigned long ms, int alertable) {
    if (GetChanged()) return WAIT_OBJECT_0;
    if (ms == 0) return WAIT_TIMEOUT;
    int signalled = 0;
    Event* e = GetSynch(signalled);
    const unsigned long r = signalled ? WAIT_OBJECT_0 : e->WaitForHandle(ms, alertable);
    // A single wait that ends through the (usually manual-reset) overlapped
    // event resets it, so the next one sleeps until the next change.
    if (r == WAIT_OBJECT_0 && e != __atomic_load_n(&synch_, __ATOMIC_ACQUIRE)) e->Reset();
    FreeSynch();
    return r;
}

Event* ChangeNotificationHandle::GetSynch(int& signalled) {
    Handle* aux;
    {
        CriticalSectionHolder hold(lock_);
        ++lends_;
        aux = __atomic_load_n(&auxEvent_, __ATOMIC_ACQUIRE);
    }
    // Without an event there is nothing the watcher would set.
    if (aux == nullptr || aux->What() != kHandleEvent) return Handle::GetSynch(signalled);
    int held = 0;
    Handle::GetSynch(held);
    Event* e = static_cast<Event*>(aux);
    signalled = held || e->EventIsSignaled();
    return e;
}

void ChangeNotificationHandle::FreeSynch() {
    std::list<Handle*> drop;
    {
        CriticalSectionHolder hold(lock_);
        if (lends_ == 0) return;
        if (--lends_ == 0) drop.swap(retired_);
    }
    for (Handle* e : drop) e->DecRefCount();
}

int ChangeNotificationHandle::Signal() {
    __atomic_store_n(&signalled_, 1, __ATOMIC_RELEASE);
    if (Handle* aux = __atomic_load_n(&auxEvent_, __ATOMIC_ACQUIRE)) {
        aux->Set();
    } else {
        Handle::Signal();
    }
    return State();
}

void ChangeNotificationHandle::Clear() {
    __atomic_store_n(&signalled_, 0, __ATOMIC_RELEASE);
    SetSignalPending(0);
    SetChanged(0);
}

CKWString ChangeNotificationHandle::GetLastChangedDir() const {
    CriticalSectionHolder hold(lock_);
    return lastChangedDir_;
}

void ChangeNotificationHandle::SetLastChangedDir(const CKWString& dir) {
    CriticalSectionHolder hold(lock_);
    lastChangedDir_ = dir;
}

void ChangeNotificationHandle::QueueNotify(const _NOTIFY_INFO& info) {
    std::list<_NOTIFY_INFO>* list = GetNotifyData();
    if (list == nullptr) return;
    CriticalSectionHolder hold(lock_);
    list->push_back(info);
}

int ChangeNotificationHandle::GetChangeData(unsigned long* bytes, unsigned long* key) {
    std::list<_NOTIFY_INFO>* list = GetNotifyData();
    if (list == nullptr || bytes == nullptr) return 0;
    // Off the watch list until the caller arms the handle again (its first
    // registration only: see NotifyQueue).
    FindCloseChangeNotification(this, 1);

    CriticalSectionHolder hold(lock_);
    QueueOf(list)->collected = true;
    SetSignalPending(0);
    SetChanged(0);
    if (Handle* aux = __atomic_load_n(&auxEvent_, __ATOMIC_ACQUIRE)) aux->Reset();

    unsigned long total = 0;
    for (const _NOTIFY_INFO& n : *list) total += NotifyRecordLength(n.name.length());
    if (key != nullptr) *key = GetKey();

    if (total > 0 && (total > bufferSize_ || buffer_ == nullptr || *buffer_ == nullptr)) {
        if (buffer_ == nullptr) return 0;  // nowhere to hand a block back
        // The new block is had before the old one goes, so a failed
        // allocation leaves the caller's block and the records in place.
        // Zero-filled: the gaps of the layout are never written.
        char* fresh = new (std::nothrow) char[total]();
        if (fresh == nullptr) return 0;
        delete[] static_cast<char*>(*buffer_);
        *buffer_ = fresh;
        bufferSize_ = total;
    }
    *bytes = total;
    // Every later collection reallocates unless ReadDirectoryChanges states
    // the size again: callers re-arm before each collection.
    bufferSize_ = 0;

    if (total == 0) return 1;
    unsigned char* p = static_cast<unsigned char*>(*buffer_);
    while (!list->empty()) {
        const _NOTIFY_INFO& n = list->front();
        const int len = n.name.length();
        const unsigned long recLen = NotifyRecordLength(len);
        const bool last = list->size() == 1;
        PutLE(p + 0, last ? 0 : recLen, 8);
        PutLE(p + 8, n.action, 8);
        PutLE(p + 16, static_cast<unsigned int>(len), 4);
        PutLE(p + 24, n.attributes, 8);
        PutLE(p + 64, n.time[0], 8);
        PutLE(p + 72, n.time[1], 8);
        PutLE(p + 80, n.size, 8);
        if (len > 0) memcpy(p + 88, n.name.c_str(), static_cast<size_t>(len));
        p += recLen;
        list->pop_front();
    }
    return 1;
}

Handle* FindFirstChangeNotification(const char* path, int watchSubtree, unsigned long filter) {
    ChangeNotificationHandle* h =
        new (std::nothrow) ChangeNotificationHandle(path, watchSubtree, filter);
    if (h == nullptr) return INVALID_HANDLE_VALUE;
    WatchDir(h->GetWatchDir(), h);
    return h;
}

int FindCloseChangeNotification(Handle* h, int keepHandle) {
    if (h == nullptr || h == INVALID_HANDLE_VALUE) return 0;
    WriteHolder hold(CNH_lock());
    tv::detail::CNHList& list = CNH_list();
    auto it = list.begin();
    while (it != list.end() && *it != h) ++it;
    if (it == list.end()) return 0;
    ChangeNotificationHandle* c = *it;
    list.erase(it);
    if (keepHandle) {
        c->Clear();
    } else {
        // Drops the caller's reference rather than deleting outright: a
        // completion port holding the handle keeps it alive until it lets go.
        c->DecRefCount();
    }
    return 0;
}

int ReadDirectoryChanges(Handle* h, void** buffer, unsigned long bufferLength, int watchSubtree,
                         unsigned long filter, unsigned long*, _OVERLAPPED* overlapped,
                         LPOVERLAPPED_COMPLETION_ROUTINE) {
    if (h == nullptr || h == INVALID_HANDLE_VALUE || h->What() != kHandleChangeNotification) {
        return 0;
    }
    auto* c = static_cast<ChangeNotificationHandle*>(h);
    Handle* newAux = overlapped != nullptr ? overlapped->hEvent : nullptr;
    Handle* oldAux = nullptr;
    {
        // The watcher signals through auxEvent_ during a pass, under CNH_lock
        // held for reading; replacing it for writing keeps the old event
        // alive until no pass can still be using it.
        WriteHolder registered(CNH_lock());
        CriticalSectionHolder hold(c->lock_);
        c->buffer_ = buffer;
        c->bufferSize_ = bufferLength;
        __atomic_store_n(&c->filter_, filter, __ATOMIC_RELAXED);
        __atomic_store_n(&c->watchSubtree_, watchSubtree, __ATOMIC_RELAXED);
        if (newAux != nullptr) {
            newAux->IncRefCount();
            oldAux = __atomic_exchange_n(&c->auxEvent_, newAux, __ATOMIC_ACQ_REL);
            if (oldAux != nullptr && c->lends_ > 0) {
                // A wait may still sleep on it.
                c->retired_.push_back(oldAux);
                oldAux = nullptr;
            }
        }
        if (c->notifyList_ == nullptr) {
            std::list<_NOTIFY_INFO>* fresh = new NotifyQueue;
            __atomic_store_n(&c->notifyList_, fresh, __ATOMIC_RELEASE);
        } else {
            NotifyQueue* queue = QueueOf(c->notifyList_);
            if (!queue->collected) queue->clear();
            queue->collected = false;
        }
    }
    if (oldAux != nullptr) oldAux->DecRefCount();
    // A directory never seen before gets a silent scan first, so the caller
    // hears only about changes made after this call.
    if (tv::detail::FindDirEntry(c->GetWatchDir().str()) == tv::detail::Dir_Data().end()) {
        UnixDirScan(c->GetWatchDir(), nullptr, nullptr);
    }
    WatchDir(c->GetWatchDir(), c);
    return 1;
}

int GetOverlappedResult(Handle* h, _OVERLAPPED*, unsigned long* bytes, int) {
    if (h == nullptr || h == INVALID_HANDLE_VALUE || h->What() != kHandleChangeNotification) {
        errno = ERROR_INVALID_HANDLE;
        return 0;
    }
    return static_cast<ChangeNotificationHandle*>(h)->GetChangeData(bytes, nullptr);
}
