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
//    process-local mutex that the threads of one process take first. Only
//    the owning thread releases it, so it never counts above one.
//  - The shared page (same key): the version stamp, incremented by every
//    successful write under the semaphore; the last writer's and the lock
//    owner's process ids; the attach count. Only the process that creates
//    the segment could initialise it, and it needs nothing: the kernel hands
//    out a zero-filled segment, and zeroing it after the fact could wipe the
//    attach of a process that started at the same moment.
//  - In each process, the cache lock (a read-mostly lock whose shared side
//    touches only a per-thread slot, and a count of nested reads by the
//    writer): API calls hold it shared while they use the tree; file reads
//    and writes hold it exclusively and then take the semaphore. The
//    exclusive holder may take the lock again, either side.
//
// Lock order: cache lock, then the registry semaphore, then key locks
// (parent before child), with TableLock, AllKeysLock and the graveyard lock
// as leaves (nothing is taken while one of them is held). The cache lock
// does not upgrade, so no thread asks for the exclusive side while it holds the
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
// Attachment. A process attaches by counting itself into the shared page
// under the semaphore, and only a process that attached may detach:
// CleanSystemResources, or the exit handler installed at the first attach,
// takes its count back, and the process that takes the count to zero
// removes the page and then the semaphore. Page first: a process starting
// meanwhile may then meet a dying semaphore (its wait fails and it starts
// over) but never pairs a fresh semaphore with a page on its way out. A
// forked child inherits the mapping but not the attachment: the fork
// handler unmaps it and the child attaches itself at its first use.
// Unmapping replaces the page with a private zero page at the same address,
// so a thread that read the pointer just before still reads memory.
//
// Starting over. Start-up meets objects that other processes are making or
// removing: a set not ready yet, a set or page removed between two calls, a
// wait that fails because the set went away. Each case starts over on
// fresh objects, for up to kAttachLimitMs, and only then ends the process
// with a message; a set that stays half-made (its creator died before the
// first operation) is removed after kHalfMadeMs. Later, a lock that finds
// its semaphore gone says so and attaches again before it goes on: the
// file is never written without the semaphore.
//
// Fork. The fork handlers are installed at the first attach, after every
// handler the library installs at load; prepare handlers run in reverse
// order of installation, so the registry's locks, which come before the
// event and handle locks in the lock order, are taken first. Prepare waits
// for a start-up in progress, then takes, in lock order: the cache lock
// exclusively (no other thread is then inside the tree, as key locks,
// TableLock, AllKeysLock and the graveyard lock are only taken under it),
// the watch mutex of change notification, the semaphore's process mutex (unless the forking thread
// holds the semaphore), the attach mutex, the file identity lock and the start-up leaf locks. The
// parent releases them. The child gets fresh locks, holds no semaphore and no attachment, forgets
// its stamp (its first use re-reads the file) and leaves the changes the parent has not written yet
// to the parent (a new write epoch: they are no longer pending here). The lazy writer thread stays
// behind in the parent; the child starts its own at its first change. A thread that forks while
// holding registry locks holds none in the child.
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <iostream>
#include <vector>

#include "foundation/clock_internal.h"
#include "registry/key_tree.h"
#include "registry/registry_locks.h"
#include "registry/registry_shared.h"
#include "registry/testing.h"

namespace tv {
namespace detail {

namespace {

static_assert(offsetof(SharedRegistryRecord, lastWriter) == 0 &&
                  offsetof(SharedRegistryRecord, lockOwner) == 4 &&
                  offsetof(SharedRegistryRecord, versionStamp) == 8 &&
                  offsetof(SharedRegistryRecord, attachCount) == 16,
              "layout of the shared registry record");

// How long start-up keeps starting over, and how long a set may stay
// half-made before a waiter removes it.
constexpr long kAttachLimitMs = 30000;
constexpr long kHalfMadeMs = 3000;

// A stamp no page ever holds: the next look at the page re-reads the file.
constexpr unsigned long kStampUnknown = ~0UL;

// Attachment state. Written under g_attachMutex, read anywhere atomically
// (not annotated: reads without the lock are by design, and g_attachMutex is
// a raw pthread mutex the analysis does not know as a lock).
// g_attachMutex comes after the semaphore's process mutex in the lock order
// and before the kernel semaphore itself.
pthread_mutex_t g_attachMutex = PTHREAD_MUTEX_INITIALIZER;
SharedRegistryRecord* g_shm = nullptr;  // ShmStruct; null: not attached here
int g_shmId = -1;                       // ShmId
int g_semId = -1;                       // RegSemId
int g_started = 0;                      // RegInitSharedState ran: attach on demand
int g_create = 1;                       // its create flag, for attaching again
bool g_handlersInstalled = false;       // exit and fork handlers (once per address space)

unsigned long g_myStamp = 0;           // MyVersionStamp (atomic access)
pthread_t g_lockOwner = NULL_PTHREAD;  // RegLockOwner (atomic access)
long g_lockDepth = 0;                  // RegLockDepth (owner only, atomic exchanges)
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
CriticalSection g_fileIdLock;  // leaf
FileId g_fileId TV_GUARDED_BY(g_fileIdLock);

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

long NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000L + now.tv_nsec / 1000000L;
}

bool Removed(int err) {
    return err == EIDRM || err == EINVAL;
}

// SemLock / SemUnlock on a given set: semaphore 0, -1 / +1, with SEM_UNDO.
// A signal (the library's own APC and suspend signals included) only
// restarts the wait. False with errno set on failure.
bool SemOpOn(int semId, short op) {
    if (semId < 0) {
        errno = EINVAL;
        return false;
    }
    sembuf b;
    b.sem_num = 0;
    b.sem_op = op;
    b.sem_flg = SEM_UNDO;
    while (semop(semId, &b, 1) != 0) {
        if (errno != EINTR) return false;
    }
    return true;
}

bool SemOp(short op) {
    return SemOpOn(__atomic_load_n(&g_semId, __ATOMIC_ACQUIRE), op);
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
// the lock order. Its shared side writes only to a slot of the calling
// thread's own (see registry_locks.h), so readers of different keys do not
// queue behind each other. nested counts read locks taken by the exclusive
// holder itself and is touched only by that thread. A forked child replaces
// it (a thread of the parent may have held its writer mutex at the fork).
// nested is not annotated: the lock is taken and released in separate calls
// (RegLockCache and RegUnlockCache).
struct CacheLock {
    CacheLock() : nested(0) { rw.SetName("RegCacheLock"); }
    unsigned long nested;
    ReadMostlyLock rw;
};

CacheLock* g_cacheLock = nullptr;  // atomic access; made once, replaced only in a forked child
std::vector<CacheLock*>* g_retiredCacheLocks = nullptr;  // the replaced ones (child only)

CacheLock& RegCacheLock() {
    CacheLock* lock = __atomic_load_n(&g_cacheLock, __ATOMIC_ACQUIRE);
    if (lock != nullptr) return *lock;
    CacheLock* fresh = new CacheLock();
    if (__atomic_compare_exchange_n(&g_cacheLock, &lock, fresh, false, __ATOMIC_ACQ_REL,
                                    __ATOMIC_ACQUIRE)) {
        return *fresh;
    }
    delete fresh;
    return *lock;
}

CKWString& LockFileSlot() {
    static CKWString* path = new CKWString();
    return *path;
}

// Replaces the mapping at p by a private zero page (see Attachment), which
// detaches the segment; shmdt when that fails.
void Unmap(SharedRegistryRecord* p) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* r = mmap(p, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (r == MAP_FAILED) shmdt(p);
}

// Forgets this process's attachment without giving its count back (the
// objects are gone, or this is a forked child that never attached).
void DropAttachmentLocked() {
    SharedRegistryRecord* shm =
        __atomic_exchange_n(&g_shm, static_cast<SharedRegistryRecord*>(nullptr), __ATOMIC_ACQ_REL);
    if (shm != nullptr) Unmap(shm);
    __atomic_store_n(&g_shmId, -1, __ATOMIC_RELEASE);
    __atomic_store_n(&g_semId, -1, __ATOMIC_RELEASE);
}

[[noreturn]] void GiveUp(const char* what, int err) {
    fprintf(stderr,
            "Error: the Morvane Registry shared objects of %s were not usable within %ld s (%s: "
            "%s). Exiting.\n",
            LockFileSlot().c_str(), kAttachLimitMs / 1000, what, strerror(err));
    exit(1);
}

void GiveOwnershipOfSet(int semId) {
    uid_t uid;
    gid_t gid;
    mode_t mode;
    if (!RegistryFileOwner(uid, gid, mode)) return;
    semid_ds ds;
    memset(&ds, 0, sizeof ds);
    if (semctl(semId, 0, IPC_STAT, &ds) == 0) {
        ds.sem_perm.uid = uid;
        ds.sem_perm.gid = gid;
        ds.sem_perm.mode = 0660;
        semctl(semId, 0, IPC_SET, &ds);
    }
}

void GiveOwnershipOfPage(int shmId) {
    uid_t uid;
    gid_t gid;
    mode_t mode;
    if (!RegistryFileOwner(uid, gid, mode)) return;
    shmid_ds ds;
    memset(&ds, 0, sizeof ds);
    if (shmctl(shmId, IPC_STAT, &ds) == 0) {
        ds.shm_perm.uid = uid;
        ds.shm_perm.gid = gid;
        ds.shm_perm.mode = 0666;
        shmctl(shmId, IPC_SET, &ds);
    }
}

// One attempt to reach a ready semaphore set: its id, -1 to start over.
// Ends the process on the failures that no retry can mend.
int SemaphoreSet(key_t key, int create, long deadline) {
    if (!create) {
        int semId = semget(key, 1, 0660);
        if (semId < 0) {
            fprintf(stderr, "Registry semaphore doesn't exist. Exiting.\n");
            exit(1);
        }
        return semId;
    }
    int semId = semget(key, 1, IPC_CREAT | IPC_EXCL | 0660);
    if (semId >= 0) {
        // A set removed under its creator (see below) just means: again.
        if (semctl(semId, 0, SETVAL, 1) != 0) return -1;
        GiveOwnershipOfSet(semId);
        // The first operation makes sem_otime non-zero: "ready".
        if (!SemOpOn(semId, -1)) return -1;
        SemOpOn(semId, 1);
        return semId;
    }
    if (errno != EEXIST) {
        registry_semaphore_error(errno);
        kw_abort();
    }
    semId = semget(key, 1, 0660);
    if (semId < 0) {
        if (errno == ENOENT) return -1;  // removed just now
        registry_semaphore_error(errno);
        _exit(1);
    }
    // Wait for the creator's first operation, in short steps.
    const long halfMade = NowMs() + kHalfMadeMs;
    for (long step = 1;; step = step < 32 ? step * 2 : step) {
        semid_ds ds;
        memset(&ds, 0, sizeof ds);
        if (semctl(semId, 0, IPC_STAT, &ds) != 0) return -1;  // removed meanwhile
        if (ds.sem_otime != 0) return semId;
        const long now = NowMs();
        if (now >= deadline) GiveUp("semaphore never ready", ETIMEDOUT);
        if (now >= halfMade) {
            // Its creator is gone (or stopped): make a fresh one. A creator
            // that was only slow starts over as its next call fails.
            semctl(semId, 0, IPC_RMID);
            return -1;
        }
        SleepMs(step);
    }
}

void InstallHandlers();

// Attaches this process: reaches a ready set and the page of the lock
// file, maps the page and counts this process in, starting over as long as
// others make or remove the objects meanwhile.
void AttachLocked(int create) {
    const key_t key = ftok(LockFileSlot().c_str(), 1);
    if (key == static_cast<key_t>(-1)) {
        int err = errno;
        registry_semaphore_error(err);
        kw_abort();
    }
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const long deadline = NowMs() + kAttachLimitMs;
    for (int round = 0;; ++round) {
        if (round > 0) {
            if (NowMs() >= deadline) GiveUp("objects removed while attaching", EIDRM);
            SleepMs(round < 8 ? round : 8);
        }
        const int semId = SemaphoreSet(key, create, deadline);
        if (semId < 0) continue;

        bool created = true;
        int shmId = shmget(key, page, IPC_CREAT | IPC_EXCL | 0666);
        if (shmId < 0) {
            if (errno != EEXIST) {
                registry_shared_memory_error(errno);
                kw_abort();
            }
            created = false;
            shmId = shmget(key, page, 0666);
            if (shmId < 0 && errno == ENOENT) continue;  // removed just now
            if (shmId < 0) {
                registry_shared_memory_error(errno);
                kw_abort();
            }
        }
        if (created) GiveOwnershipOfPage(shmId);
        void* at = shmat(shmId, nullptr, 0);
        if (at == reinterpret_cast<void*>(-1)) {
            if (Removed(errno)) continue;
            fprintf(stderr, "Error: shmat(): Unable to access the Morvane Registry\n");
            fprintf(stderr, "  shared memory region\n");
            kw_abort();
        }
        auto* shm = static_cast<SharedRegistryRecord*>(at);
        // Counted in under the semaphore; a set removed meanwhile means the
        // page goes too: start over.
        if (!SemOpOn(semId, -1)) {
            shmdt(at);
            continue;
        }
        __atomic_add_fetch(&shm->attachCount, 1, __ATOMIC_ACQ_REL);
        SemOpOn(semId, 1);
        __atomic_store_n(&g_semId, semId, __ATOMIC_RELEASE);
        __atomic_store_n(&g_shmId, shmId, __ATOMIC_RELEASE);
        __atomic_store_n(&g_shm, shm, __ATOMIC_RELEASE);
        InstallHandlers();
        return;
    }
}

// Attaches this process when the registry was started here but this
// process is not (or no longer) attached. False when it was never started.
bool EnsureAttached() {
    if (__atomic_load_n(&g_shm, __ATOMIC_ACQUIRE) != nullptr) return true;
    if (!__atomic_load_n(&g_started, __ATOMIC_ACQUIRE)) return false;
    pthread_mutex_lock(&g_attachMutex);
    if (__atomic_load_n(&g_shm, __ATOMIC_ACQUIRE) == nullptr) {
        AttachLocked(g_create);
        // Another generation of the objects: its stamps say nothing about
        // what this process last read.
        SetMyVersionStamp(kStampUnknown);
    }
    pthread_mutex_unlock(&g_attachMutex);
    return true;
}

// --- exit and fork handlers ---------------------------------------------------

void DetachAtExit() {
    if (SharedRecord() != nullptr) CleanSystemResources();
}

bool g_forkHeldFileMutex = false;  // prepare took g_fileMutex (forking thread only)

// NO_THREAD_SAFETY_ANALYSIS on the three handlers: the locks are taken in
// one handler and released in another (or re-made in the child).

void ForkPrepare() TV_NO_THREAD_SAFETY_ANALYSIS {
    if (RegistryReady()) EnsureRegistry();  // a start-up in progress finishes first
    RegCacheLock().rw.Lock();
    NotifyForkPrepare();
    g_forkHeldFileMutex = __atomic_load_n(&g_lockOwner, __ATOMIC_ACQUIRE) != pthread_self();
    if (g_forkHeldFileMutex) pthread_mutex_lock(&g_fileMutex);
    pthread_mutex_lock(&g_attachMutex);
    g_fileIdLock.Lock();
    StartupForkPrepare();
}

void ForkParent() TV_NO_THREAD_SAFETY_ANALYSIS {
    StartupForkParent();
    g_fileIdLock.Unlock();
    pthread_mutex_unlock(&g_attachMutex);
    if (g_forkHeldFileMutex) pthread_mutex_unlock(&g_fileMutex);
    NotifyForkParent();
    RegCacheLock().rw.Unlock();
}

void ForkChild() TV_NO_THREAD_SAFETY_ANALYSIS {
    StartupForkChild();
    NotifyForkChild();
    g_fileIdLock.Unlock();
    pthread_mutex_init(&g_attachMutex, nullptr);
    pthread_mutex_init(&g_fileMutex, nullptr);
    __atomic_store_n(&g_lockOwner, NULL_PTHREAD, __ATOMIC_RELEASE);
    __atomic_store_n(&g_lockDepth, 0, __ATOMIC_RELEASE);
    DropAttachmentLocked();
    SetMyVersionStamp(kStampUnknown);
    NewWriteEpoch();
    // The old lock stays reachable: it may still be named by a pointer.
    CacheLock* old = __atomic_load_n(&g_cacheLock, __ATOMIC_ACQUIRE);
    if (g_retiredCacheLocks == nullptr) g_retiredCacheLocks = new std::vector<CacheLock*>();
    g_retiredCacheLocks->push_back(old);
    CacheLock* fresh = new CacheLock();
    fresh->rw.SetName(old->rw.GetName());
    __atomic_store_n(&g_cacheLock, fresh, __ATOMIC_RELEASE);
}

// Caller holds g_attachMutex.
void InstallHandlers() {
    if (g_handlersInstalled) return;
    g_handlersInstalled = true;
    atexit(DetachAtExit);
    pthread_atfork(ForkPrepare, ForkParent, ForkChild);
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
    EnsureAttached();
    SharedRegistryRecord* shm = SharedRecord();
    if (shm == nullptr) return false;
    if (__atomic_load_n(&shm->versionStamp, __ATOMIC_ACQUIRE) == GetMyVersionStamp() &&
        !((alwaysCheckFile || FileCheckDue()) && FileChangedOutside())) {
        return false;
    }
    RegLockCache(RegLockExclusive);
    DrainGraveyard();
    bool reread = false;
    // Under the semaphore the attachment is current (the lock re-attaches).
    shm = SharedRecord();
    if (shm == nullptr ||
        __atomic_load_n(&shm->versionStamp, __ATOMIC_ACQUIRE) != GetMyVersionStamp() ||
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
        WakeNotifyWaiters(shm);
    }
    RecordFileIdOfPath(GetRegistryPath().c_str());
}

const CKWString& LockFilePath() {
    return LockFileSlot();
}

void ResetSharingForTests() {
    NotifyResetForTests();
    CleanSystemResources();
    __atomic_store_n(&g_started, 0, __ATOMIC_RELEASE);
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

void RegInitSharedState(int create) {
    using namespace tv::detail;
    pthread_mutex_lock(&g_attachMutex);
    g_create = create;
    if (SharedRecord() == nullptr) AttachLocked(create);
    __atomic_store_n(&g_started, 1, __ATOMIC_RELEASE);
    pthread_mutex_unlock(&g_attachMutex);
}

void RegLockRegistryFile() {
    using namespace tv::detail;
    const pthread_t self = pthread_self();
    if (__atomic_load_n(&g_lockOwner, __ATOMIC_ACQUIRE) == self) {
        __atomic_add_fetch(&g_lockDepth, 1, __ATOMIC_RELAXED);
        return;
    }
    pthread_mutex_lock(&g_fileMutex);
    // Not started here: the process mutex alone (nothing shared to lock).
    while (EnsureAttached()) {
        const int semId = __atomic_load_n(&g_semId, __ATOMIC_ACQUIRE);
        if (SemOpOn(semId, -1)) break;
        const int err = errno;
        // The set went away under this process (or the wait failed): never
        // go on without it. Attach again, to fresh objects if need be.
        fprintf(stderr,
                "Registry: lock on the Morvane Registry semaphore failed (%s); attaching again\n",
                strerror(err));
        pthread_mutex_lock(&g_attachMutex);
        if (__atomic_load_n(&g_semId, __ATOMIC_ACQUIRE) == semId) DropAttachmentLocked();
        pthread_mutex_unlock(&g_attachMutex);
        if (!Removed(err)) SleepMs(10);
    }
    __atomic_store_n(&g_lockOwner, self, __ATOMIC_RELEASE);
    if (SharedRegistryRecord* shm = SharedRecord()) {
        __atomic_store_n(&shm->lockOwner, static_cast<int32_t>(getpid()), __ATOMIC_RELEASE);
    }
    __atomic_exchange_n(&g_lockDepth, 1, __ATOMIC_ACQ_REL);
}

// Only the owning thread releases: an unbalanced unlock, or one from a
// thread or process that does not hold the semaphore, changes nothing, so
// the semaphore never counts above one.
void RegUnlockRegistryFile() {
    using namespace tv::detail;
    if (__atomic_load_n(&g_lockOwner, __ATOMIC_ACQUIRE) != pthread_self()) return;
    if (__atomic_sub_fetch(&g_lockDepth, 1, __ATOMIC_RELAXED) > 0) return;
    if (SharedRegistryRecord* shm = SharedRecord()) {
        __atomic_store_n(&shm->lockOwner, 0, __ATOMIC_RELEASE);
    }
    __atomic_exchange_n(&g_lockOwner, NULL_PTHREAD, __ATOMIC_ACQ_REL);
    __atomic_exchange_n(&g_lockDepth, 0, __ATOMIC_ACQ_REL);
    if (SharedRecord() != nullptr && !SemOp(1)) {
        // Nothing to give back: the set is gone. The next lock attaches again.
        fprintf(stderr, "Registry: release of the Morvane Registry semaphore failed (%s)\n",
                strerror(errno));
    }
    pthread_mutex_unlock(&g_fileMutex);
}

// NO_THREAD_SAFETY_ANALYSIS: the lock is taken here and released in
// RegUnlockCache, by design of the exported pair.
bool RegLockCache(int op) TV_NO_THREAD_SAFETY_ANALYSIS {
    using namespace tv::detail;
    CacheLock& c = RegCacheLock();
    if (op == RegLockShared) {
        if (c.rw.GetWriter() == pthread_self()) {
            ++c.nested;
            return true;
        }
        c.rw.LockShared();
        return true;
    }
    if (op == RegLockExclusive) {
        c.rw.Lock();
        RegLockRegistryFile();
        return true;
    }
    return false;
}

bool RegUnlockCache(int op) TV_NO_THREAD_SAFETY_ANALYSIS {
    using namespace tv::detail;
    CacheLock& c = RegCacheLock();
    if (op == RegLockShared) {
        if (c.nested > 0 && c.rw.GetWriter() == pthread_self()) {
            --c.nested;
            return true;
        }
        c.rw.UnlockShared();
        return true;
    }
    if (op == RegLockExclusive) {
        RegUnlockRegistryFile();
        c.rw.Unlock();
        return true;
    }
    return false;
}

void RegSetCacheLockName(const char* name) {
    tv::detail::RegCacheLock().rw.SetName(name);
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

// Ends any hold of the calling thread on the semaphore as well: after the
// detach there is nothing left to release.
void CleanSystemResources() {
    using namespace tv::detail;
    if (SharedRecord() == nullptr) return;  // not attached by this process
    RegLockRegistryFile();
    pthread_mutex_lock(&g_attachMutex);
    if (SharedRegistryRecord* shm = SharedRecord()) {
        const int shmId = __atomic_load_n(&g_shmId, __ATOMIC_ACQUIRE);
        bool last = __atomic_sub_fetch(&shm->attachCount, 1, __ATOMIC_ACQ_REL) <= 0;
        if (!last) {
            // A process killed without cleaning up never gives back its
            // count; the kernel's own attach count shows when only this one
            // is left.
            shmid_ds ds;
            memset(&ds, 0, sizeof ds);
            if (shmctl(shmId, IPC_STAT, &ds) == 0 && ds.shm_nattch <= 1) last = true;
        }
        __atomic_store_n(&shm->lockOwner, 0, __ATOMIC_RELEASE);
        if (last) {
            shmctl(shmId, IPC_RMID, nullptr);  // page first (see Attachment)
            semctl(__atomic_load_n(&g_semId, __ATOMIC_ACQUIRE), 0, IPC_RMID);
        } else {
            SemOp(1);
        }
        DropAttachmentLocked();
    }
    __atomic_exchange_n(&g_lockOwner, NULL_PTHREAD, __ATOMIC_ACQ_REL);
    __atomic_exchange_n(&g_lockDepth, 0, __ATOMIC_ACQ_REL);
    pthread_mutex_unlock(&g_attachMutex);
    pthread_mutex_unlock(&g_fileMutex);
}
