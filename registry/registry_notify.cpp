// Key change notification.
//
// A key's revision number grows each time the key is marked dirty (and when
// a refresh brings in another process's change to it). An event given to
// RegNotifyChangeKeyValue remembers the handle it watches (its event data)
// and the revision it last reported (RevStamp). Only the comparison made at
// call time signals: the wake-up hooks that would record waiters on a key
// and set their events on a change are kept as named, empty operations.
//
// Attaching an event stamps it with the key's current revision at once, so
// that the next call with the same event and handle signals as soon as the
// key changed in between. The comparison is made on the handle exactly as
// passed while the stored data is masked, so only a handle without the
// write bit can signal that way; callers have always seen it so.
//
// Locks: the cache lock shared, then the key's lock, from the lookup until
// the event is handled; the wait itself holds no registry lock.
#include <errno.h>

#include "handles/wait_internal.h"
#include "registry/registry_internal.h"

namespace tv {
namespace detail {

int RegKeyWakeup(RegKey*) {
    return 0;
}

int RegKeyWakeup(const std::vector<RegKey*>&) {
    return 0;
}

namespace {

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

}  // namespace detail
}  // namespace tv

using namespace tv::detail;

LONG RegNotifyChangeKeyValue(HKEY hKey, BOOL, DWORD, HANDLE event, BOOL asynchronous) {
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
        if (r != 0 || asynchronous) {
            key->Unlock();
            RegUnlockCache(RegLockShared);
            return r < 0 ? -1 : ERROR_SUCCESS;
        }
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
    return ERROR_SUCCESS;
}

long RegCallbackStub(void*) {
    return 0;
}

long RegWatchFile(DWORD, RegWatchCallback, void*) {
    return 0;
}
