// Key change notification.
//
// A key's revision number grows each time the key is marked dirty (and when
// a refresh brings in another process's change to it). An event given to
// RegNotifyChangeKeyValue remembers the handle it watches (its event data)
// and the revision it last reported (RevStamp). The comparison made at call
// time signals a change the event has not reported yet; otherwise the
// request waits in the watch table until a change reaches the file.
//
// Attaching an event stamps it with the key's current revision at once, so
// that the next call with the same event and handle signals as soon as the
// key changed in between. The comparison is made on the handle exactly as
// passed while the stored data is masked, so only a handle without the
// write bit can signal that way; callers have always seen it so.
//
// Wake-up. Every write of the file increments the version stamp in the
// shared page and wakes the futex on the stamp's low word (a futex on a
// shared mapping, so every process that maps the page is woken). A process
// with waiting requests runs one watcher thread, which sleeps on that futex,
// brings its tree up to date and compares each watched key's signature (its
// revision and live subkey count; for a subtree request the whole subtree's)
// with the one taken when the request was made: a difference sets the
// event and ends the request. Changes made here wake the same way, once
// they are in the file. The sleep also ends once a second, which only
// matters when the page itself was replaced (the objects were made again).
//
// Locks: the cache lock shared, then the key's lock, from the lookup until
// the event is handled; the wait itself holds no registry lock. The watch
// mutex comes after the cache lock and before key locks.
#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#include "handles/wait_internal.h"
#include "registry/key_tree.h"
#include "registry/registry_shared.h"
#include "registry/testing.h"

namespace tv {
namespace detail {

int RegKeyWakeup(RegKey*) {
    return 0;
}

int RegKeyWakeup(const std::vector<RegKey*>&) {
    return 0;
}

namespace {

// A request waiting for a change. The table holds a reference on the event.
struct Watch {
    Event* event;
    long index;  // masked handle
    bool subtree;
    unsigned long signature;
};

// Not annotated: a condition variable waits on g_watchMutex, so it stays a
// raw pthread mutex, which the analysis does not know as a lock.
pthread_mutex_t g_watchMutex = PTHREAD_MUTEX_INITIALIZER;
std::vector<Watch>* g_watches = nullptr;  // guarded by g_watchMutex
bool g_watcherRunning = false;            // guarded by g_watchMutex; it ends when idle
pthread_cond_t g_watcherEnded = PTHREAD_COND_INITIALIZER;  // with g_watchMutex

// The cache lock is held, shared at least. Keys unlinked meanwhile stay
// valid memory until the exclusive lock (the graveyard).
unsigned long Signature(RegKey* key, bool subtree) {
    key->Lock();
    unsigned long sig = key->GetRevNumber() * 1000003UL + key->LiveSubKeyCount();
    if (key->IsDeleted()) sig = ~sig;
    key->Unlock();
    if (!subtree) return sig;
    for (RegKey* child : key->Children()) sig = sig * 31 + Signature(child, true);
    return sig;
}

uint32_t* FutexWord(SharedRegistryRecord* shm) {
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the futex is the stamp's low word");
    return reinterpret_cast<uint32_t*>(&shm->versionStamp);
}

// Sets the events of the requests whose key changed (or went away) and
// drops those requests.
void CheckWatches() {
    pthread_mutex_lock(&g_watchMutex);
    const bool none = g_watches->empty();
    pthread_mutex_unlock(&g_watchMutex);
    if (none) return;
    RegUpdateCache();
    std::vector<Event*> done;
    {
        SharedCache hold;
        pthread_mutex_lock(&g_watchMutex);
        std::vector<Watch>& all = *g_watches;
        for (size_t i = 0; i < all.size();) {
            RegKey* key = LookupHandle(all[i].index);
            const unsigned long sig = key != nullptr ? Signature(key, all[i].subtree) : 0;
            if (key != nullptr && sig == all[i].signature) {
                ++i;
                continue;
            }
            Event* e = all[i].event;
            if (key != nullptr) e->RevStamp(key->GetRevNumber(), 0);
            e->Set();
            done.push_back(e);
            all.erase(all.begin() + static_cast<long>(i));
        }
        pthread_mutex_unlock(&g_watchMutex);
    }
    for (Event* e : done) e->DecRefCount();
}

// Runs while requests wait; the last one answered ends it.
void* WatcherMain(void*) {
    for (;;) {
        SharedRegistryRecord* shm = SharedRecord();
        // The word is read before the look, so that a write in between
        // makes the futex wait return at once.
        const uint32_t seen =
            shm != nullptr ? __atomic_load_n(FutexWord(shm), __ATOMIC_ACQUIRE) : 0;
        CheckWatches();
        pthread_mutex_lock(&g_watchMutex);
        const bool idle = g_watches->empty();
        if (idle) {
            g_watcherRunning = false;
            pthread_cond_broadcast(&g_watcherEnded);
        }
        pthread_mutex_unlock(&g_watchMutex);
        if (idle) return nullptr;
        for (;;) {
            const timespec second = {1, 0};
            if (shm != nullptr) {
                syscall(SYS_futex, FutexWord(shm), FUTEX_WAIT, seen, &second, nullptr, 0);
            } else {
                nanosleep(&second, nullptr);
            }
            // A timed-out wait looks again only when the page was replaced
            // or a request was dropped meanwhile.
            if (SharedRecord() != shm ||
                (shm != nullptr && __atomic_load_n(FutexWord(shm), __ATOMIC_ACQUIRE) != seen)) {
                break;
            }
            pthread_mutex_lock(&g_watchMutex);
            const bool empty = g_watches->empty();
            pthread_mutex_unlock(&g_watchMutex);
            if (empty) break;
        }
    }
}

// Enters a request (replacing an earlier one of the same event) and starts
// the watcher when this process has none.
void AddWatch(Event* e, long index, bool subtree, unsigned long signature) {
    pthread_mutex_lock(&g_watchMutex);
    if (g_watches == nullptr) g_watches = new std::vector<Watch>();
    bool found = false;
    for (Watch& w : *g_watches) {
        if (w.event != e) continue;
        w.index = index;
        w.subtree = subtree;
        w.signature = signature;
        found = true;
    }
    if (!found) {
        e->IncRefCount();
        g_watches->push_back(Watch{e, index, subtree, signature});
    }
    if (!g_watcherRunning) {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        pthread_t t;
        g_watcherRunning = pthread_create(&t, &attr, WatcherMain, nullptr) == 0;
        pthread_attr_destroy(&attr);
        if (!g_watcherRunning) unix_err("RegNotifyChangeKeyValue: cannot start the watcher\n");
    }
    pthread_mutex_unlock(&g_watchMutex);
}

void RemoveWatches(Event* e) {
    std::vector<Event*> gone;
    pthread_mutex_lock(&g_watchMutex);
    if (g_watches != nullptr) {
        for (size_t i = 0; i < g_watches->size();) {
            if ((*g_watches)[i].event == e) {
                gone.push_back(e);
                g_watches->erase(g_watches->begin() + static_cast<long>(i));
            } else {
                ++i;
            }
        }
    }
    pthread_mutex_unlock(&g_watchMutex);
    for (Event* g : gone) g->DecRefCount();
}

// An event whose data still names a key is being destroyed: detach it.
void UnnotifyHook(long data, Event* e) {
    // Never start the registry just to detach an event from it.
    if (!RegistryReady()) return;
    RegUnnotifyChangeKeyValue(data, e);
}

// Installed at load; idempotent, and the hook is a plain pointer store.
struct UnnotifyHookInstaller {
    UnnotifyHookInstaller() { g_unnotify_hook = &UnnotifyHook; }
} g_unnotify_installer;

Event* AsEvent(Handle* h) {
    return (h != nullptr && h->What() == kHandleEvent) ? static_cast<Event*>(h) : nullptr;
}

// Step 2 of a notification request, with the key locked. Returns 1 when the
// event was set at once, 0 when it was attached, -1 on failure.
int CheckOrAttach(RegKey* key, HKEY hKey, Event* e) {
    const unsigned long rev = key->GetRevNumber();
    if (e->GetLastData() == hKey && rev != 0 && e->GetLastRev() < rev) {
        e->RevStamp(rev, 0);
        e->Set();
        return 1;
    }
    const long masked = hKey & KEY_INDEX_MASK;
    // Attaching takes a reference on the event; an event already watching
    // this key keeps the one it has, and one watching another key gives
    // its reference back first.
    const long current = e->GetEventData();
    if (current != masked) {
        if (current != -1) e->SetEventData(-1);
        if (e->SetEventData(masked) != 0) return -1;
    }
    e->RevStamp(rev, 1);
    key->AddEvent(e);
    return 0;
}

}  // namespace

void NotifyResetForTests() {
    std::vector<Event*> gone;
    pthread_mutex_lock(&g_watchMutex);
    if (g_watches != nullptr) {
        for (Watch& w : *g_watches) gone.push_back(w.event);
        g_watches->clear();
    }
    if (SharedRegistryRecord* shm = SharedRecord()) {
        syscall(SYS_futex, FutexWord(shm), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    }
    while (g_watcherRunning) pthread_cond_wait(&g_watcherEnded, &g_watchMutex);
    pthread_mutex_unlock(&g_watchMutex);
    for (Event* e : gone) e->DecRefCount();
}

void NotifyForkPrepare() TV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&g_watchMutex);
}

void NotifyForkParent() TV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&g_watchMutex);
}

// The watcher stays in the parent; the child starts its own with its first
// request (the requests it inherited wait for it).
void NotifyForkChild() TV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_init(&g_watchMutex, nullptr);
    pthread_cond_init(&g_watcherEnded, nullptr);
    g_watcherRunning = false;
}

void WakeNotifyWaiters(SharedRegistryRecord* shm) {
    syscall(SYS_futex, FutexWord(shm), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace detail
}  // namespace tv

using namespace tv::detail;

LONG RegNotifyChangeKeyValue(HKEY hKey, BOOL watchSubtree, DWORD, HANDLE event, BOOL asynchronous) {
    EnsureRegistry();
    Event* e = nullptr;
    if (event != nullptr) {
        e = AsEvent(event);
        if (e == nullptr) {
            errno = ERROR_INVALID_HANDLE;
            return -1;
        }
    }
    RegLockCache(RegLockShared);
    RegKey* key = LookupHandle(hKey);
    if (key == nullptr) {
        RegUnlockCache(RegLockShared);
        return -1;
    }
    key->Lock();
    if (e != nullptr) {
        int r = CheckOrAttach(key, hKey, e);
        const unsigned long sig = r == 0 ? Signature(key, watchSubtree != FALSE) : 0;
        key->Unlock();
        if (r == 0) {
            AddWatch(e, hKey & KEY_INDEX_MASK, watchSubtree != FALSE, sig);
        } else if (r > 0) {
            RemoveWatches(e);  // reported: the request is answered
        }
        if (r != 0 || asynchronous) {
            RegUnlockCache(RegLockShared);
            return r < 0 ? -1 : ERROR_SUCCESS;
        }
        key->Lock();
    } else {
        if (asynchronous) {
            key->Unlock();
            RegUnlockCache(RegLockShared);
            return ERROR_SUCCESS;
        }
        ThreadContext* ctx = GetThreadContext();
        e = ctx->GetRegEvent();
        if (e == nullptr) {
            e = static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr));
            ctx->SetRegEvent(e);
        }
        int r = CheckOrAttach(key, hKey, e);
        if (r != 0) {
            key->Unlock();
            RegUnlockCache(RegLockShared);
            return r < 0 ? -1 : ERROR_SUCCESS;
        }
        const unsigned long sig = Signature(key, watchSubtree != FALSE);
        key->Unlock();
        AddWatch(e, hKey & KEY_INDEX_MASK, watchSubtree != FALSE, sig);
        key->Lock();
    }
    key->Unlock();
    RegUnlockCache(RegLockShared);
    Handle* handles[1] = {e};
    DWORD w = WaitForMultipleObjectsEx(1, handles, FALSE, INFINITE, FALSE);
    return w == WAIT_OBJECT_0 ? ERROR_SUCCESS : static_cast<LONG>(w);
}

LONG RegUnnotifyChangeKeyValue(HKEY hKey, HANDLE event) {
    if (!RegistryReady()) return ERROR_SUCCESS;
    RegLockCache(RegLockShared);
    if (RegKey* key = LookupHandle(hKey)) {
        key->Lock();
        key->GetEvent(AsEvent(event));
        key->Unlock();
    }
    RegUnlockCache(RegLockShared);
    if (Event* e = AsEvent(event)) RemoveWatches(e);
    return ERROR_SUCCESS;
}

long RegCallbackStub(void*) {
    return 0;
}

long RegWatchFile(DWORD, RegWatchCallback, void*) {
    return 0;
}
