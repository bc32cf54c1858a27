// Registry coherence between the threads of a process and between processes.
//
// Every process keeps its own tree (the cache) of the one registry file.
// Three objects keep those trees and the file coherent:
//
//  - The registry semaphore: one System V semaphore keyed by ftok of the
//    lock file. A process holds it to read the file into its tree and for a
//    whole write (merge, print, rename, stamp). Its operations carry
//    SEM_UNDO, so a process killed while holding it releases it. It is
//    recursive per thread (RegLockOwner / RegLockDepth), and paired with a
//    process-local mutex that the threads of one process take first.
//  - The shared page (same key): the version stamp, incremented by every
//    successful write under the semaphore; the last writer's and the lock
//    owner's process ids; the attach count. Only the process that creates
//    the segment could initialise it, and it needs nothing: the kernel hands
//    out a zero-filled segment, and zeroing it after the fact could wipe the
//    attach of a process that started at the same moment.
//  - In each process, the cache lock (an RWLock and a count of nested reads
//    by the writer): API calls hold it shared while they use the tree; file
//    reads and writes hold it exclusively and then take the semaphore. The
//    exclusive holder may take the lock again, either side.
//
// Lock order: cache lock, then the registry semaphore, then key locks
// (parent before child), with TableLock, AllKeysLock and the graveyard lock
// as leaves (nothing is taken while one of them is held). The RWLock does
// not upgrade, so no thread asks for the exclusive side while it holds the
// shared one: API calls let go of the tree before they write the file.
//
// Version-stamp protocol. MyVersionStamp is the stamp of the file content
// this process's tree last absorbed:
//  - read: under the semaphore, open and read the file, then take the
//    stamp. Nobody can write in between, so the stamp matches what was read.
//  - write: under the semaphore, first refresh when the stamp differs, then
//    print, flush to disk, rename over the file, increment the stamp and
//    take it. No other write can slip in between the refresh and the rename,
//    so the new file holds everything the old one held, merged.
//  - open or create of a key: refresh when the stamp differs. The stamp is
//    first compared without any lock; a stale "equal" only means the open
//    sees the registry as it was just before a concurrent write, as it could
//    have anyway.
//  - edits made to the file from outside (an administrator's editor) do not
//    move the stamp. The identity of the file last read or written (device,
//    inode, size, modification and change times) is therefore compared too,
//    and a difference re-reads the file: always before a write, so the edit
//    is merged, not overwritten, and at most every 50 ms on opens. A refresh
//    never takes an empty file (the writer never makes one; it is an edit in
//    progress).
//
// Refresh and merge rule (ReadRegistry(1) and RegKey::Purge). This
// process's changes that are not yet in the file are marked: keys made or
// revived here and values set here are pending; values and subkeys deleted
// here are recorded on their key. The marks are cleared only after a rename
// succeeded (CommitWritten); a failed write keeps them for the next one.
// A refresh takes the file as it is, except that:
//  a. a pending value keeps its local data (this process writes it later:
//     the last writer wins, per value);
//  b. a value deleted here is not taken from the file;
//  c. a subtree deleted here is not taken from the file, not even below a
//     key of the same name made again here;
//  d. what the file no longer holds is removed unless this process still
//     needs it: a key stays when its line was read, when it is pending, has
//     pending values or a child that stays (as a bare path when only its
//     own line went); a value stays when it was read or is pending;
//  e. a key that has to go but is open here stays, marked deleted and
//     skipped by the writer, until its last close.
// So a refresh caused by another process's write never drops this
// process's unwritten keys, values or deletions and never brings back what
// it deleted, while everything others changed and this process did not
// touch is taken. Nothing written by anyone is lost except a value (or a
// subtree) that a later writer changed (or deleted) on purpose.
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <iostream>

#include "foundation/clock_internal.h"
#include "registry/registry_internal.h"

namespace tv {
namespace detail {

namespace {

static_assert(offsetof(SharedRegistryRecord, lastWriter) == 0 &&
                  offsetof(SharedRegistryRecord, lockOwner) == 4 &&
                  offsetof(SharedRegistryRecord, versionStamp) == 8 &&
                  offsetof(SharedRegistryRecord, attachCount) == 16,
              "layout of the shared registry record");

SharedRegistryRecord* g_shm = nullptr;  // ShmStruct
int g_shmId = -1;                       // ShmId
int g_semId = -1;                       // RegSemId
unsigned long g_myStamp = 0;            // MyVersionStamp (atomic access)
pthread_t g_lockOwner = NULL_PTHREAD;   // RegLockOwner (atomic access)
long g_lockDepth = 0;                   // RegLockDepth (owner only, atomic exchanges)
// Threads of this process queue here before the semaphore: a cheap wait
// within the process, and the in-process half of the same critical section
// (the semaphore orders processes, this mutex threads). Taken and released
// together with the semaphore, by its owner.
pthread_mutex_t g_fileMutex = PTHREAD_MUTEX_INITIALIZER;

// The identity of the registry file as last read or written here.
struct FileId {
    bool known = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    timespec mtime = {0, 0};
    timespec ctime = {0, 0};
    bool operator==(const FileId& o) const {
        return known == o.known && dev == o.dev && ino == o.ino && size == o.size &&
               mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec &&
               ctime.tv_sec == o.ctime.tv_sec && ctime.tv_nsec == o.ctime.tv_nsec;
    }
};
CriticalSection g_fileIdLock;  // leaf; guards g_fileId
FileId g_fileId;

FileId IdOf(const struct stat& st) {
    FileId id;
    id.known = true;
    id.dev = st.st_dev;
    id.ino = st.st_ino;
    id.size = st.st_size;
    id.mtime = st.st_mtim;
    id.ctime = st.st_ctim;
    return id;
}

// SemLock / SemUnlock: semaphore 0, -1 / +1, with SEM_UNDO. A signal (the
// library's own APC and suspend signals included) only restarts the wait.
bool SemOp(short op) {
    if (g_semId < 0) return false;
    sembuf b;
    b.sem_num = 0;
    b.sem_op = op;
    b.sem_flg = SEM_UNDO;
    while (semop(g_semId, &b, 1) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

void registry_semaphore_error(int err) {
    fprintf(stderr, "Error: performing semget() on Morvane Registry semaphore:%s\n", strerror(err));
}

void registry_shared_memory_error(int err) {
    fprintf(stderr, "Error: performing shmget() on Morvane Registry shared memory:%s\n",
            strerror(err));
}

// The process's cache lock: guards the whole tree against file reads and
// writes (shared for users of the tree, exclusive for the file). First in
// the lock order. nested counts read locks taken by the exclusive holder
// itself and is touched only by that thread.
struct CacheLock {
    CacheLock() : nested(0), rw(false, "RegCacheLock") {}
    unsigned long nested;
    RWLock rw;
};

CacheLock& RegCacheLock() {
    static CacheLock* lock = new CacheLock();
    return *lock;
}

CKWString& LockFileSlot() {
    static CKWString* path = new CKWString();
    return *path;
}

bool FileChangedOutside() {
    const CKWString path = GetRegistryPath();
    struct stat st;
    FileId now;
    if (stat(path.c_str(), &st) == 0) now = IdOf(st);
    CriticalSectionHolder hold(g_fileIdLock);
    return !(now == g_fileId);
}

// Opens look for outside edits at most this often: a stat per open would
// double its cost, and an edit made by hand need not be seen within the
// millisecond. Writes always look (see WriteRegistry).
constexpr long kFileCheckIntervalMs = 50;
long g_lastFileCheck = 0;  // CLOCK_MONOTONIC_COARSE milliseconds, atomic access

bool FileCheckDue() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    const long ms = now.tv_sec * 1000L + now.tv_nsec / 1000000L;
    long last = __atomic_load_n(&g_lastFileCheck, __ATOMIC_RELAXED);
    if (last != 0 && ms - last < kFileCheckIntervalMs) return false;
    __atomic_store_n(&g_lastFileCheck, ms, __ATOMIC_RELAXED);
    return true;
}

}  // namespace

bool UpdateCache(bool alwaysCheckFile) {
    SharedRegistryRecord* shm = SharedRecord();
    if (shm == nullptr) return false;
    if (__atomic_load_n(&shm->versionStamp, __ATOMIC_ACQUIRE) == GetMyVersionStamp() &&
        !((alwaysCheckFile || FileCheckDue()) && FileChangedOutside())) {
        return false;
    }
    RegLockCache(RegLockExclusive);
    DrainGraveyard();
    bool reread = false;
    if (__atomic_load_n(&shm->versionStamp, __ATOMIC_ACQUIRE) != GetMyVersionStamp() ||
        FileChangedOutside()) {
        reread = ReadRegistry(1) != 0;
    }
    RegUnlockCache(RegLockExclusive);
    return reread;
}

SharedRegistryRecord* SharedRecord() {
    return __atomic_load_n(&g_shm, __ATOMIC_ACQUIRE);
}

unsigned long GetMyVersionStamp() {
    return __atomic_load_n(&g_myStamp, __ATOMIC_ACQUIRE);
}

void SetMyVersionStamp(unsigned long v) {
    __atomic_store_n(&g_myStamp, v, __ATOMIC_RELEASE);
}

void TakeSharedStamp() {
    if (SharedRegistryRecord* shm = SharedRecord()) {
        SetMyVersionStamp(__atomic_load_n(&shm->versionStamp, __ATOMIC_ACQUIRE));
    }
}

void RecordFileId(int fd) {
    struct stat st;
    FileId id;
    if (fstat(fd, &st) == 0) id = IdOf(st);
    CriticalSectionHolder hold(g_fileIdLock);
    g_fileId = id;
}

void RecordFileIdOfPath(const char* path) {
    struct stat st;
    FileId id;
    if (stat(path, &st) == 0) id = IdOf(st);
    CriticalSectionHolder hold(g_fileIdLock);
    g_fileId = id;
}

void PublishWrite() {
    if (SharedRegistryRecord* shm = SharedRecord()) {
        __atomic_store_n(&shm->lastWriter, static_cast<int32_t>(getpid()), __ATOMIC_RELEASE);
        uint64_t v = __atomic_add_fetch(&shm->versionStamp, 1, __ATOMIC_ACQ_REL);
        SetMyVersionStamp(v);
    }
    RecordFileIdOfPath(GetRegistryPath().c_str());
}

const CKWString& LockFilePath() {
    return LockFileSlot();
}

void ResetSharingForTests() {
    CleanSystemResources();
    SetMyVersionStamp(0);
    __atomic_store_n(&g_lockOwner, NULL_PTHREAD, __ATOMIC_RELEASE);
    __atomic_store_n(&g_lockDepth, 0, __ATOMIC_RELEASE);
    LockFileSlot() = "";
    __atomic_store_n(&g_lastFileCheck, 0, __ATOMIC_RELAXED);
    CriticalSectionHolder hold(g_fileIdLock);
    g_fileId = FileId();
}

}  // namespace detail
}  // namespace tv

using tv::detail::SharedRecord;
using tv::detail::SharedRegistryRecord;

void SetLockFilePath(const char* path) {
    tv::detail::LockFileSlot() = path;
}

namespace {

// Adds this process to the attach count under the semaphore. False when the
// semaphore set was removed meanwhile.
bool CountThisProcessIn() {
    using namespace tv::detail;
    sembuf b;
    b.sem_num = 0;
    b.sem_op = -1;
    b.sem_flg = SEM_UNDO;
    int rc;
    while ((rc = semop(g_semId, &b, 1)) != 0 && errno == EINTR) {
    }
    if (rc != 0) return !(errno == EIDRM || errno == EINVAL);
    __atomic_add_fetch(&g_shm->attachCount, 1, __ATOMIC_ACQ_REL);
    b.sem_op = 1;
    while (semop(g_semId, &b, 1) != 0 && errno == EINTR) {
    }
    return true;
}

}  // namespace

void RegInitSharedState(int create) {
    using namespace tv::detail;
    const key_t key = ftok(LockFilePath().c_str(), 1);
    if (key == static_cast<key_t>(-1)) {
        int err = errno;
        registry_semaphore_error(err);
        kw_abort();
    }
    // The last process to leave removes the set and the segment
    // (CleanSystemResources) while holding the semaphore, possibly while this
    // process waits for it; the wait then fails with EIDRM (or EINVAL) and
    // this process starts over, creating fresh objects, instead of going on
    // with a dead semaphore.
    for (;;) {
        int semId;
        if (!create) {
            semId = semget(key, 1, 0660);
            if (semId < 0) {
                fprintf(stderr, "Registry semaphore doesn't exist. Exiting.\n");
                exit(1);
            }
            g_semId = semId;
        } else {
            semId = semget(key, 1, IPC_CREAT | IPC_EXCL | 0660);
            if (semId >= 0) {
                g_semId = semId;
                semctl(semId, 0, SETVAL, 1);
                uid_t uid;
                gid_t gid;
                mode_t mode;
                if (RegistryFileOwner(uid, gid, mode)) {
                    semid_ds ds;
                    memset(&ds, 0, sizeof ds);
                    if (semctl(semId, 0, IPC_STAT, &ds) == 0) {
                        ds.sem_perm.uid = uid;
                        ds.sem_perm.gid = gid;
                        ds.sem_perm.mode = 0660;
                        semctl(semId, 0, IPC_SET, &ds);
                    }
                }
                // The first operation makes sem_otime non-zero: "ready".
                SemOp(-1);
                SemOp(1);
            } else {
                if (errno != EEXIST) {
                    registry_semaphore_error(errno);
                    kw_abort();
                }
                semId = semget(key, 1, 0660);
                if (semId < 0 && errno == ENOENT) continue;  // removed just now: start over
                if (semId < 0) {
                    registry_semaphore_error(errno);
                    _exit(1);
                }
                g_semId = semId;
                bool ready = false;
                for (int round = 0; round < 10 && !ready; ++round) {
                    semid_ds ds;
                    memset(&ds, 0, sizeof ds);
                    if (semctl(semId, 0, IPC_STAT, &ds) == 0 && ds.sem_otime != 0) {
                        ready = true;
                    } else {
                        SleepMs(250);
                    }
                }
                if (!ready) {
                    registry_semaphore_error(ETIMEDOUT);
                    kw_abort();
                }
            }
        }

        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        bool created = true;
        int shmId = shmget(key, page, IPC_CREAT | IPC_EXCL | 0666);
        if (shmId < 0) {
            if (errno != EEXIST) {
                registry_shared_memory_error(errno);
                kw_abort();
            }
            created = false;
            shmId = shmget(key, page, 0666);
            if (shmId < 0 && errno == ENOENT) continue;  // removed just now: start over
            if (shmId < 0) {
                registry_shared_memory_error(errno);
                kw_abort();
            }
        }
        if (created) {
            uid_t uid;
            gid_t gid;
            mode_t mode;
            if (RegistryFileOwner(uid, gid, mode)) {
                shmid_ds ds;
                memset(&ds, 0, sizeof ds);
                if (shmctl(shmId, IPC_STAT, &ds) == 0) {
                    ds.shm_perm.uid = uid;
                    ds.shm_perm.gid = gid;
                    ds.shm_perm.mode = 0666;
                    shmctl(shmId, IPC_SET, &ds);
                }
            }
        }
        void* at = shmat(shmId, nullptr, 0);
        if (at == reinterpret_cast<void*>(-1)) {
            fprintf(stderr, "Error: shmat(): Unable to access the Morvane Registry\n");
            fprintf(stderr, "  shared memory region\n");
            kw_abort();
        }
        g_shmId = shmId;
        __atomic_store_n(&g_shm, static_cast<SharedRegistryRecord*>(at), __ATOMIC_RELEASE);

        if (CountThisProcessIn()) return;
        shmdt(at);
        __atomic_store_n(&g_shm, static_cast<SharedRegistryRecord*>(nullptr), __ATOMIC_RELEASE);
        g_shmId = -1;
        g_semId = -1;
    }
}

void RegLockRegistryFile() {
    using namespace tv::detail;
    const pthread_t self = pthread_self();
    if (__atomic_load_n(&g_lockOwner, __ATOMIC_ACQUIRE) == self) {
        __atomic_add_fetch(&g_lockDepth, 1, __ATOMIC_RELAXED);
        return;
    }
    pthread_mutex_lock(&g_fileMutex);
    SemOp(-1);
    __atomic_store_n(&g_lockOwner, self, __ATOMIC_RELEASE);
    if (SharedRegistryRecord* shm = SharedRecord()) {
        __atomic_store_n(&shm->lockOwner, static_cast<int32_t>(getpid()), __ATOMIC_RELEASE);
    }
    __atomic_exchange_n(&g_lockDepth, 1, __ATOMIC_ACQ_REL);
}

// A thread that does not own the semaphore also reaches the release, as
// callers of old have relied on (it cannot release the owner's in-process
// mutex, only the semaphore); the library itself always pairs them.
void RegUnlockRegistryFile() {
    using namespace tv::detail;
    const bool owner = __atomic_load_n(&g_lockOwner, __ATOMIC_ACQUIRE) == pthread_self();
    if (owner && __atomic_sub_fetch(&g_lockDepth, 1, __ATOMIC_RELAXED) > 0) return;
    if (SharedRegistryRecord* shm = SharedRecord()) {
        __atomic_store_n(&shm->lockOwner, 0, __ATOMIC_RELEASE);
    }
    if (owner) {
        __atomic_exchange_n(&g_lockOwner, NULL_PTHREAD, __ATOMIC_ACQ_REL);
        __atomic_exchange_n(&g_lockDepth, 0, __ATOMIC_ACQ_REL);
    }
    SemOp(1);
    if (owner) pthread_mutex_unlock(&g_fileMutex);
}

bool RegLockCache(int op) {
    using namespace tv::detail;
    CacheLock& c = RegCacheLock();
    if (op == RegLockShared) {
        if (c.rw.GetWriter() == pthread_self()) {
            ++c.nested;
            return true;
        }
        c.rw.ReadLock(INFINITE);
        return true;
    }
    if (op == RegLockExclusive) {
        c.rw.WriteLock(INFINITE);
        RegLockRegistryFile();
        return true;
    }
    return false;
}

bool RegUnlockCache(int op) {
    using namespace tv::detail;
    CacheLock& c = RegCacheLock();
    if (op == RegLockShared) {
        if (c.nested > 0 && c.rw.GetWriter() == pthread_self()) {
            --c.nested;
            return true;
        }
        c.rw.ReadUnlock();
        return true;
    }
    if (op == RegLockExclusive) {
        RegUnlockRegistryFile();
        c.rw.WriteUnlock();
        return true;
    }
    return false;
}

void RegSetCacheLockName(const char* name) {
    tv::detail::RegCacheLock().rw.SetLockName(name);
}

bool RegUpdateCache() {
    return tv::detail::UpdateCache(false);
}

void RegBumpVersion() {
    RegLockRegistryFile();
    if (SharedRegistryRecord* shm = SharedRecord()) {
        __atomic_store_n(&shm->lastWriter, static_cast<int32_t>(getpid()), __ATOMIC_RELEASE);
        __atomic_add_fetch(&shm->versionStamp, 1, __ATOMIC_ACQ_REL);
    }
    RegUnlockRegistryFile();
}

void RegDumpVersion() {
    SharedRegistryRecord* shm = SharedRecord();
    int owner = shm ? __atomic_load_n(&shm->lockOwner, __ATOMIC_ACQUIRE) : 0;
    unsigned long stamp = shm ? __atomic_load_n(&shm->versionStamp, __ATOMIC_ACQUIRE) : 0;
    int writer = shm ? __atomic_load_n(&shm->lastWriter, __ATOMIC_ACQUIRE) : 0;
    printf("Lock owner PID: %d\n", owner);
    printf("Registry version stamp: %lu\n", stamp);
    printf("Last PID to write Registry: %d\n", writer);
    fflush(stdout);
}

void DumpRegistryCache() {
    tv::detail::EnsureRegistry();
    RegLockCache(RegLockShared);
    tv::detail::RegistryKeys()->Print(std::cout, 1, 0);
    std::cout.flush();
    RegUnlockCache(RegLockShared);
}

void CleanSystemResources() {
    using namespace tv::detail;
    SharedRegistryRecord* shm = SharedRecord();
    if (shm == nullptr) return;
    RegLockRegistryFile();
    bool last = __atomic_sub_fetch(&shm->attachCount, 1, __ATOMIC_ACQ_REL) <= 0;
    if (!last) {
        // A process killed without cleaning up never gives back its count;
        // the kernel's own attach count shows when only this one is left.
        shmid_ds ds;
        memset(&ds, 0, sizeof ds);
        if (shmctl(g_shmId, IPC_STAT, &ds) == 0 && ds.shm_nattch <= 1) last = true;
    }
    if (last) {
        semctl(g_semId, 0, IPC_RMID);
        shmctl(g_shmId, IPC_RMID, nullptr);
    }
    RegUnlockRegistryFile();  // on a removed set the semaphore part fails harmlessly
    __atomic_store_n(&g_shm, static_cast<SharedRegistryRecord*>(nullptr), __ATOMIC_RELEASE);
    shmdt(shm);
    g_shmId = -1;
    g_semId = -1;
}
