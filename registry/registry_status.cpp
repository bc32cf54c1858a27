// Registry status for tools: read-only views of the shared page, the file
// form of a subtree and a key's "kept in the file" flag.
//
// Nothing here changes the tree or the file; the status takes no lock. The export prints with the
// writer's own code under the same locks the writer holds (the exclusive
// cache lock, hence the registry semaphore), after the same refresh, so its
// text is byte for byte what a write made at that moment would contain for
// the subtree.
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include "registry/key_tree.h"
#include "registry/registry_format.h"
#include "registry/registry_shared.h"

using namespace tv::detail;

namespace {

// The kernel's count of processes attached to the page; -1 when the page
// cannot be examined.
long KernelAttachCount(int shmId) {
    shmid_ds ds;
    memset(&ds, 0, sizeof ds);
    if (shmId < 0 || shmctl(shmId, IPC_STAT, &ds) != 0) return -1;
    return static_cast<long>(ds.shm_nattch);
}

void Fill(const SharedRegistryRecord* shm, RegStatusInfo* status) {
    status->versionStamp = __atomic_load_n(&shm->versionStamp, __ATOMIC_ACQUIRE);
    status->lastWriter = __atomic_load_n(&shm->lastWriter, __ATOMIC_ACQUIRE);
    status->lockOwner = __atomic_load_n(&shm->lockOwner, __ATOMIC_ACQUIRE);
    status->attachCount = __atomic_load_n(&shm->attachCount, __ATOMIC_ACQUIRE);
}

}  // namespace

// Never waits: the page is read as it is, without the semaphore and
// without starting the registry, so that the status names a holder that is
// stuck (stopped, or spinning) instead of queueing behind it. A process that
// is not attached maps the page read-only for the moment of the look.
LONG RegQueryStatus(RegStatusInfo* status) {
    if (status == nullptr) return -1;
    CKWString lockFile = LockFilePath();
    if (lockFile.empty()) lockFile = RegistryInstallDir() + "registry/.registry-lockfile";
    const key_t key = ftok(lockFile.c_str(), 1);
    const int shmId = key == static_cast<key_t>(-1) ? -1 : shmget(key, 0, 0);
    status->myVersionStamp = GetMyVersionStamp();
    if (const SharedRegistryRecord* shm = SharedRecord()) {
        Fill(shm, status);
    } else {
        if (shmId < 0) return -1;
        void* at = shmat(shmId, nullptr, SHM_RDONLY);
        if (at == reinterpret_cast<void*>(-1)) return -1;
        Fill(static_cast<const SharedRegistryRecord*>(at), status);
        shmdt(at);
    }
    status->processesAttached = KernelAttachCount(shmId);
    return ERROR_SUCCESS;
}

LONG RegExportKey(HKEY hKey, CKWString* text) {
    if (text == nullptr) return -1;
    EnsureRegistry();
    ExclusiveCache hold;
    RegUpdateCache();  // nests inside the exclusive lock, as in WriteRegistry
    RegKey* key = hKey == HKEY_LOCAL_MACHINE ? RegistryKeys() : LookupHandle(hKey);
    if (key == nullptr) return -1;
    PrintSink sink;  // no descriptor: the text stays in memory
    key->Print(sink, 1, 0);
    *text = sink.text;
    return ERROR_SUCCESS;
}

LONG RegQueryKeyWritten(HKEY hKey, BOOL* written) {
    if (written == nullptr) return -1;
    EnsureRegistry();
    SharedCache hold;
    RegKey* key;
    if (hKey == HKEY_LOCAL_MACHINE) {
        RegKey* root = RegistryKeys();
        root->Lock();
        key = root->GetSubKey("HKEY_LOCAL_MACHINE");
        root->Unlock();
        if (key == nullptr) return ERROR_INVALID_DATA;
    } else {
        key = LookupHandle(hKey);
        if (key == nullptr) return -1;
    }
    key->Lock();
    *written = key->IsIntermediate() || key->IsDeleted() ? FALSE : TRUE;
    key->Unlock();
    return ERROR_SUCCESS;
}
