// The state this process shares with the other users of the registry file:
// the registry semaphore, the shared page (version stamp, last writer, lock
// owner, attach count), this process's copy of the stamp and the identity of
// the file it last read, attach and detach, the cache lock, and the start-up
// state (paths, flags, the lazy writer, the owner given to written files).
//
// May call: the key tree and the file format (to refresh and write), change
// notification (to wake watchers), and the foundation.
//
// Ending the process: the registry ends it only when it cannot go on at all
// (the shared objects cannot be made or reached within the attach limit, or
// the registry file must not be used). It then prints one line naming the
// object and the reason on stderr and exits with status 1 (_exit where the
// at-exit detach must not run); an error the IPC calls are never expected
// to return aborts through kw_abort. Nothing else in the registry exits.
#ifndef TV_REGISTRY_REGISTRY_SHARED_H
#define TV_REGISTRY_REGISTRY_SHARED_H

#include <stdint.h>
#include <sys/types.h>

#include "tvcommonutil/registry.h"
#include "tvcommonutil/strings.h"

namespace tv {
namespace detail {

struct SharedRegistryRecord {
    int32_t lastWriter;
    int32_t lockOwner;
    uint64_t versionStamp;
    int32_t attachCount;
};

SharedRegistryRecord* SharedRecord();  // null until attached
unsigned long GetMyVersionStamp();
void SetMyVersionStamp(unsigned long v);
// Copies the shared stamp into this process's copy (no-op when detached).
void TakeSharedStamp();
// After a successful rename: record this process as last writer, increment
// the stamp and take it. Caller holds the registry semaphore.
void PublishWrite();
const CKWString& LockFilePath();
// RegUpdateCache; alwaysCheckFile looks for an outside edit even when the
// last look was moments ago (writers must never overwrite one).
bool UpdateCache(bool alwaysCheckFile);
// Remembers the identity of the registry file just read (by descriptor), so
// that an edit made from outside is noticed even though the stamp is equal.
void RecordFileId(int fd);

// Defined with the start-up code, for the sharing code: the install
// directory as start-up finds it (without starting anything), and the fork
// handlers' part for the start-up state (leaf locks, a start-up begun by
// another thread, the lazy writer; see registry_sharing.cpp).
CKWString RegistryInstallDir();
void StartupForkPrepare();
void StartupForkParent();
void StartupForkChild();
// Defined with change notification: a write wakes the watchers of every
// process (a futex on the page's stamp), and the watch table's fork and
// test hooks.
void WakeNotifyWaiters(SharedRegistryRecord* shm);
void NotifyForkPrepare();
void NotifyForkParent();
void NotifyForkChild();

// Start-up state.
bool RegistryReady();
void EnsureRegistry();
bool LazyFlushOn();
void SetFlushNeeded();
// Owner, group and mode given to every file the registry writes; false when
// the template could not be examined (files then keep their defaults).
bool RegistryFileOwner(uid_t& uid, gid_t& gid, mode_t& mode);

// The registry cache lock for a scope: shared for readers of the tree,
// exclusive (which also takes the registry semaphore) for writers.
class SharedCache {
public:
    SharedCache() { RegLockCache(RegLockShared); }
    ~SharedCache() { RegUnlockCache(RegLockShared); }
    SharedCache(const SharedCache&) = delete;
    SharedCache& operator=(const SharedCache&) = delete;
};

class ExclusiveCache {
public:
    ExclusiveCache() { RegLockCache(RegLockExclusive); }
    ~ExclusiveCache() { RegUnlockCache(RegLockExclusive); }
    ExclusiveCache(const ExclusiveCache&) = delete;
    ExclusiveCache& operator=(const ExclusiveCache&) = delete;
};

}  // namespace detail
}  // namespace tv

#endif  // TV_REGISTRY_REGISTRY_SHARED_H
