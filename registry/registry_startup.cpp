// Registry start-up, paths, backups and the lazy writer.
//
// Start-up runs once per process, on the first registry call (or an
// explicit InitRegistry): the first thread to set lRegReady does it while
// later ones wait for the initialised flag. The first read happens under the
// exclusive cache lock and the registry semaphore, so no other process
// writes the file while it is copied from its template, backed up and read.
//
// Paths and flags are process-wide. The paths are guarded by g_pathLock (a
// leaf); the flags are atomics.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "foundation/clock_internal.h"
#include "foundation/diagnostics_internal.h"
#include "registry/registry_format.h"
#include "registry/registry_shared.h"
#include "registry/testing.h"
#include "tvcommonutil/files.h"

namespace tv {
namespace detail {

namespace {

CriticalSection g_pathLock;  // leaf; guards the strings below and the owner
CKWString* g_installPath TV_GUARDED_BY(g_pathLock) = nullptr;   // sRealInstallPath, read once
CKWString* g_registryPath TV_GUARDED_BY(g_pathLock) = nullptr;  // sStaticRegistryPath
bool g_ownerKnown TV_GUARDED_BY(g_pathLock) = false;
uid_t g_kwUserId TV_GUARDED_BY(g_pathLock) = 0;     // KwUserId
gid_t g_kwGroupId TV_GUARDED_BY(g_pathLock) = 0;    // KwGroupId
mode_t g_kwFileMode TV_GUARDED_BY(g_pathLock) = 0;  // KwFileMode

long g_regReady = 0;    // lRegReady
int g_initialised = 0;  // set when the first read is done
pthread_t g_initThread = NULL_PTHREAD;
// The three flags above are read and written atomically; g_initMutex only
// pairs with g_initCond for the wait for a start-up run by another thread.
pthread_mutex_t g_initMutex = PTHREAD_MUTEX_INITIALIZER;  // leaf; with g_initCond
pthread_cond_t g_initCond = PTHREAD_COND_INITIALIZER;

int g_lazyFlush = 0;         // bLazyFlush
int g_flushNeeded = 0;       // bRegistryFlushNeeded
int g_lazyInterval = 60000;  // the lazy writer's interval, for a forked child's own writer
int g_lazyRestart = 0;       // a forked child: the lazy writer stayed in the parent

CKWString InstallPath() {
    CriticalSectionHolder hold(g_pathLock);
    if (g_installPath == nullptr) {
        const char* env = getenv("TV_REGISTRY");
        g_installPath = new CKWString(env != nullptr ? env : "/usr/lib/tavren/../");
        if (g_installPath->empty() || (*g_installPath)[g_installPath->length() - 1] != '/') {
            *g_installPath += "/";
        }
    }
    return *g_installPath;
}

// A fresh install directory has no registry directory yet: it is made
// (0755 whatever the umask, as the tool makes it). Only a directory that
// exists and cannot be written, or cannot be made, is an error.
bool MakeRegistryDir(const CKWString& dir) {
    std::string path = dir.str();
    while (path.size() > 1 && path[path.size() - 1] == '/') path.erase(path.size() - 1);
    if (mkdir(path.c_str(), 0755) == 0) {
        const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd >= 0) {
            if (fchmod(fd, 0755) != 0) {
            }
            close(fd);
        }
    } else if (errno != EEXIST) {
        return false;
    }
    return access(path.c_str(), W_OK) == 0;
}

void MarkInitialised() {
    pthread_mutex_lock(&g_initMutex);
    __atomic_store_n(&g_initialised, 1, __ATOMIC_RELEASE);
    pthread_cond_broadcast(&g_initCond);
    pthread_mutex_unlock(&g_initMutex);
}

// Waits for the starting thread, looking again at least once a second.
void WaitInitialised() {
    pthread_mutex_lock(&g_initMutex);
    while (!__atomic_load_n(&g_initialised, __ATOMIC_ACQUIRE)) {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 1;
        pthread_cond_timedwait(&g_initCond, &g_initMutex, &deadline);
    }
    pthread_mutex_unlock(&g_initMutex);
}

void UnlockMutex(void* m) {
    pthread_mutex_unlock(static_cast<pthread_mutex_t*>(m));
}

// The lazy writer's sleep: a timed wait that nobody signals. A condition
// wait is a cancellation point that leaves its mutex held for the clean-up
// handlers, which release it; cancellation therefore lands here cleanly.
void CancellableSleep(int ms) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += (ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    pthread_mutex_lock(&m);
    pthread_cleanup_push(UnlockMutex, &m);
    while (pthread_cond_timedwait(&c, &m, &deadline) != ETIMEDOUT) {
    }
    pthread_cleanup_pop(1);
    pthread_cond_destroy(&c);
    pthread_mutex_destroy(&m);
}

void* LazyWriterAgain(void*) {
    RegLazyWriteThread(&g_lazyInterval);
    return nullptr;
}

void LazyWriterCleanup(void*) {
    // From here on closes write at once again.
    __atomic_store_n(&g_lazyFlush, 0, __ATOMIC_RELEASE);
    RegCleanup(nullptr);
}

}  // namespace

bool RegistryReady() {
    return __atomic_load_n(&g_regReady, __ATOMIC_ACQUIRE) != 0;
}

void EnsureRegistry() {
    if (__atomic_load_n(&g_initialised, __ATOMIC_ACQUIRE)) return;
    if (RegistryReady() &&
        pthread_equal(__atomic_load_n(&g_initThread, __ATOMIC_ACQUIRE), pthread_self())) {
        return;  // start-up itself
    }
    InitRegistry(0, 1);
}

bool LazyFlushOn() {
    if (!__atomic_load_n(&g_lazyFlush, __ATOMIC_ACQUIRE)) return false;
    if (__atomic_load_n(&g_lazyRestart, __ATOMIC_ACQUIRE) &&
        __atomic_exchange_n(&g_lazyRestart, 0, __ATOMIC_ACQ_REL)) {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        pthread_t t;
        const bool started = pthread_create(&t, &attr, LazyWriterAgain, nullptr) == 0;
        pthread_attr_destroy(&attr);
        if (!started) {
            __atomic_store_n(&g_lazyFlush, 0, __ATOMIC_RELEASE);  // write at once instead
            return false;
        }
    }
    return true;
}

CKWString RegistryInstallDir() {
    return InstallPath();
}

// NO_THREAD_SAFETY_ANALYSIS: the fork handlers take the locks in one
// handler and release them in another.
void StartupForkPrepare() TV_NO_THREAD_SAFETY_ANALYSIS {
    g_pathLock.Lock();
    pthread_mutex_lock(&g_initMutex);
}

void StartupForkParent() TV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&g_initMutex);
    g_pathLock.Unlock();
}

// A start-up begun by another thread never finishes in the child: it starts
// again there. The lazy writer thread stays in the parent; the child starts
// its own at its first change, and the parent's unwritten changes are the
// parent's to write.
void StartupForkChild() TV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_init(&g_initMutex, nullptr);
    pthread_cond_init(&g_initCond, nullptr);
    g_pathLock.Unlock();
    if (!__atomic_load_n(&g_initialised, __ATOMIC_ACQUIRE) &&
        !pthread_equal(__atomic_load_n(&g_initThread, __ATOMIC_ACQUIRE), pthread_self())) {
        __atomic_store_n(&g_initThread, NULL_PTHREAD, __ATOMIC_RELEASE);
        __atomic_store_n(&g_regReady, 0, __ATOMIC_RELEASE);
    }
    __atomic_store_n(&g_flushNeeded, 0, __ATOMIC_RELEASE);
    if (__atomic_load_n(&g_lazyFlush, __ATOMIC_ACQUIRE)) {
        __atomic_store_n(&g_lazyRestart, 1, __ATOMIC_RELEASE);
    }
}

void SetFlushNeeded() {
    __atomic_store_n(&g_flushNeeded, 1, __ATOMIC_RELEASE);
}

bool RegistryFileOwner(uid_t& uid, gid_t& gid, mode_t& mode) {
    CriticalSectionHolder hold(g_pathLock);
    if (!g_ownerKnown) return false;
    uid = g_kwUserId;
    gid = g_kwGroupId;
    mode = g_kwFileMode;
    return true;
}

void RegistryResetForTests() {
    ResetSharingForTests();
    ClearRegistryTree();
    {
        CriticalSectionHolder hold(g_pathLock);
        delete g_installPath;
        g_installPath = nullptr;
        delete g_registryPath;
        g_registryPath = nullptr;
        g_ownerKnown = false;
    }
    __atomic_store_n(&g_lazyFlush, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&g_flushNeeded, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&g_lazyRestart, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&g_initThread, NULL_PTHREAD, __ATOMIC_RELEASE);
    __atomic_store_n(&g_initialised, 0, __ATOMIC_RELEASE);
    __atomic_store_n(&g_regReady, 0, __ATOMIC_RELEASE);
}

}  // namespace detail
}  // namespace tv

using namespace tv::detail;

BOOL SetRegistryPath(const char* dir) {
    CKWString path(dir);
    path += "registry/tv.registry";
    {
        CriticalSectionHolder hold(g_pathLock);
        if (g_registryPath == nullptr) g_registryPath = new CKWString();
        *g_registryPath = path;
    }
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? TRUE : FALSE;
}

CKWString GetRegistryPath() {
    {
        CriticalSectionHolder hold(g_pathLock);
        if (g_registryPath != nullptr && !g_registryPath->empty()) return *g_registryPath;
    }
    InitRegistry(0, 1);
    CriticalSectionHolder hold(g_pathLock);
    return g_registryPath != nullptr ? *g_registryPath : CKWString();
}

void SetDynamicRegistryValues(const char*, int) {}

void InitRegistry(int flags, int create) {
    if (InterlockedExchange(&g_regReady, 1) != 0) {
        if (!pthread_equal(__atomic_load_n(&g_initThread, __ATOMIC_ACQUIRE), pthread_self())) {
            WaitInitialised();
        }
        return;
    }
    __atomic_store_n(&g_initThread, pthread_self(), __ATOMIC_RELEASE);

    const CKWString install = InstallPath();
    SetRegistryPath(install.c_str());
    const CKWString registry = GetRegistryPath();
    const CKWString templ = registry + ".template";
    const CKWString backup = registry + ".bak";
    const CKWString dir = install + "registry/";

    struct stat st;
    const bool regExists = stat(registry.c_str(), &st) == 0;
    if (!MakeRegistryDir(dir) || (regExists && access(registry.c_str(), W_OK) != 0)) {
        int err = errno;
        fprintf(stderr, "InitRegistry:  problem accessing %s or %s, errno: %d/%s\n", dir.c_str(),
                registry.c_str(), err, strerror(err));
        fflush(stderr);
        _exit(1);
    }

    if (stat(templ.c_str(), &st) != 0) {
        // Deliberately not fatal, whatever the message says.
        unix_err("\n\nInitRegistry: stat(%s) failed, errno - %s\n Exiting...",
                 PercentSafe(templ.c_str()).c_str(), PercentSafe(strerror(errno)).c_str());
    } else {
        CriticalSectionHolder hold(g_pathLock);
        g_kwUserId = st.st_uid;
        g_kwGroupId = st.st_gid;
        g_kwFileMode = st.st_mode;
        g_ownerKnown = true;
    }

    const CKWString lockFile = dir + ".registry-lockfile";
    int fd = open(lockFile.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0444);
    if (fd < 0) {
        int err = errno;
        fprintf(stderr, "Unable to create registry lock file '%s':%s\n", lockFile.c_str(),
                err == ELOOP ? "it is a symbolic link" : strerror(err));
        fflush(stderr);
        _exit(1);
    }
    close(fd);

    SetLockFilePath(lockFile.c_str());
    RegInitSharedState(create);
    if (!create) {
        MarkInitialised();
        return;
    }

    RegLockCache(RegLockExclusive);
    RemoveStaleTempFiles(dir);
    bool fromTemplate = false;
    if (lstat(registry.c_str(), &st) == 0) {
        if (st.st_size == 0) {
            // Deliberately goes on: the empty file reads as an empty tree.
            unix_err(
                "\n\nInitRegistry: Registry is zero length.\nPlease restore %s from backup file "
                "%s.\nExiting...\n",
                PercentSafe(registry.c_str()).c_str(), PercentSafe(backup.c_str()).c_str());
        }
    } else {
        std::string why;
        if (!CopyRegistryFile(templ.c_str(), registry.c_str(), false, true, why)) {
            unix_err("InitRegistry: Template copy failed!!\n");
        }
        fromTemplate = true;
    }
    std::string why;
    const int read = ReadRegistryAtStartUp(registry.c_str(), why);
    if (read < 0) {
        // Writing now would replace a file that may still hold everything.
        fprintf(stderr, "InitRegistry: cannot use registry file %s: %s\n", registry.c_str(),
                why.c_str());
        fflush(stderr);
        _exit(1);
    }
    // Only a registry that read correctly and holds something may replace
    // the backup.
    if ((flags & 1) && read > 0) {
        std::string whyNot;
        if (!CopyRegistryFile(registry.c_str(), backup.c_str(), true, false, whyNot)) {
            unix_err("InitRegistry: Backup failed: %s\n", PercentSafe(whyNot.c_str()).c_str());
        }
    }
    MarkInitialised();
    RegUnlockCache(RegLockExclusive);
    SetDynamicRegistryValues(install.c_str(), fromTemplate ? 1 : 0);
}

BOOL RegBackupRegistry() {
    EnsureRegistry();
    const CKWString registry = GetRegistryPath();
    const CKWString backup = registry + ".bak";
    RegLockCache(RegLockExclusive);
    std::string why;
    const BOOL ok =
        CopyRegistryFile(registry.c_str(), backup.c_str(), true, false, why) ? TRUE : FALSE;
    if (!ok) unix_err("RegBackupRegistry: %s\n", PercentSafe(why.c_str()).c_str());
    RegUnlockCache(RegLockExclusive);
    return ok;
}

void RegCleanup(void*) {
    WriteRegistry();
}

// Deferred cancellation: the thread holds no registry lock while
// cancellation is enabled, and the sleep (or, with interval 0, an explicit
// test) is where a cancel lands. The write runs with cancellation disabled.
DWORD RegLazyWriteThread(LPVOID interval) {
    const int ms = interval != nullptr ? *static_cast<int*>(interval) : 60000;
    __atomic_store_n(&g_lazyInterval, ms, __ATOMIC_RELAXED);
    EnsureRegistry();
    __atomic_store_n(&g_lazyFlush, 1, __ATOMIC_RELEASE);
    int old;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &old);
    pthread_cleanup_push(LazyWriterCleanup, nullptr);
    for (;;) {
        if (ms > 0) {
            CancellableSleep(ms);
        } else {
            pthread_testcancel();
        }
        if (!__atomic_load_n(&g_flushNeeded, __ATOMIC_ACQUIRE)) continue;
        int state;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        RegLockCache(RegLockExclusive);
        RegUpdateCache();
        __atomic_store_n(&g_flushNeeded, 0, __ATOMIC_RELEASE);
        // A failed write keeps its changes pending: try again next round.
        if (!WriteRegistry()) SetFlushNeeded();
        RegUnlockCache(RegLockExclusive);
        pthread_setcancelstate(state, &state);
    }
    pthread_cleanup_pop(0);
    return 0;
}
