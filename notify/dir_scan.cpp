// The directory scanner and the watcher loop.
//
// A scan reads a directory (readdir, then fstatat of each name relative to
// the open directory), compares what it finds with the snapshot in
// Dir_Data, updates the snapshot, queues records on the handle it scans for
// and marks the handle changed/signal-pending; it walks into every
// subdirectory it meets. UnixDirScan reads the whole tree: that is the
// polling scan, and every record the library produces is one it would
// produce.
//
// Each pass of WatchDirsThread walks the registered handles (CNH_list) and
// scans every distinct watched directory once, on behalf of the first handle
// watching it, then signals every signal-pending handle and every idle
// handle on the same directory, then sleeps.
//
// Kernel-woken passes. While a watcher loop runs, every directory a scan
// reads is also watched through inotify (kernel_watch.cpp), the watch added
// on the open directory before its first readdir, so any change the read
// may miss is reported after it. A pass first drains the queued reports
// into marks on the directories they name (an entry change also marks the
// parent, whose snapshot holds the directory's times); an overflowed queue
// marks all. The pass then walks each watched tree as a read would, but
// reads only the directories that need it: marked ones, ones without a
// watch (limit reached, a network file system), ones whose results depend
// on more than their own reports (symbolic links, recent private files),
// and ones a read of their parent finds to be another directory than the
// one watched. An unmarked directory is walked through without I/O, into
// its subdirectories in the order its last read met them, so the records
// come out in the order one polling scan of the same change gives. A
// directory that leaves a name for the next pass (a changed type) stays
// marked and the next pass follows at once. A pass drops the watches of the
// directories it did not reach (no handle watches them any more), so the
// watches follow the handles. Without inotify nothing is
// ever watched, every directory is read, and each pass is the polling scan.
//
// Wake protocol. The loop sleeps in its thread object's TimedWait: by
// default a poll of the object's eventfd (Wake, RequestStop, and the kick
// WatchDir gives every running loop when a handle is registered) and of
// the inotify descriptor. A kernel report ends the sleep after a short
// settling time, so a burst (a rename's two halves, a copy's writes) is
// read in one pass. The sleep lasts twice the last pass time, clamped to
// 4000..30000 ms (longer only when a single pass took longer): that period
// is the polling safety net for the directories the kernel does not watch.
// A TimedWait override that does not call the base gives up the early
// wake-ups, not the kernel marks: its passes still read only what changed.
//
// Locks, in the order they are taken:
//   1. "ChangeNotificationHandle_lock" (CNH_lock, an RWLock, writers
//      preferred): guards CNH_list. The watcher holds it for reading for a
//      whole pass, so a handle cannot be unregistered or destroyed (both
//      take it for writing) while the scanner uses it.
//   2. DirScan_lock (a recursive CriticalSection): one scan tree at a time.
//      Scans run on the watcher and, for the silent baseline scan of
//      ReadDirectoryChanges, on application threads. It also guards the
//      kernel watch state: reports are drained under it, so a mark is never
//      cleared by a read that began before the change it reports.
//   3. "Dir_Data_lock" (an RWLock, readers preferred): guards the shape of
//      Dir_Data. Held for writing around insertions (WatchDir, a first scan)
//      and erasures (Purge_Dir_Entry, only from scans); held for reading
//      around each lookup, which is never held across anything else. It is
//      taken while a scan holds a directory entry's lock (to add or purge a
//      subdirectory); that cannot deadlock because only the single scan in
//      progress ever takes entry locks.
//   4. A DIR_ENTRY's own RWLock: held for writing while its directory is
//      scanned, walked through or purged; guards the entry's fields and file
//      records. In a server the scan only tries it and skips a busy
//      directory for a pass (a marked one stays marked).
//   5. A ChangeNotificationHandle's CriticalSection: guards its record queue,
//      buffer and last-changed directory; held only around one record or one
//      collection. A leaf. So is the kernel watch module's list of running
//      loops (taken by WatchDir after it released the others).
// A handle's flags (changed, signal-pending, signalled) are atomics, set by
// the scanner and cleared by the collecting thread. DIR_ENTRY pointers stay
// valid between lookups because only scans erase, and scans are serialised.
// A forked child keeps no watches (the parent's queue is not its own); a
// loop it starts watches afresh. Fork handlers (at the end) keep locks 1-3
// usable in the child.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <new>
#include <string>
#include <vector>

#include "notify/kernel_watch.h"
#include "notify/watch_table.h"
#include "tvcommonutil/foundation.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/notify.h"
#include "tvcommonutil/services.h"

namespace tv {
namespace detail {
namespace {

// FILETIME count of a time_t: the whole value lies in the low field of the
// library's 64-bit FILETIME.
unsigned long long FileTimeCount(time_t t) {
    _FILETIME ft;
    time_tToFileTime(static_cast<long>(t), &ft, 0);
    return ft.dwLowDateTime;
}

unsigned long AttributesOf(unsigned long mode) {
    return (mode & S_IFMT) == S_IFDIR ? TV_FILE_ATTRIBUTE_DIRECTORY : TV_FILE_ATTRIBUTE_NORMAL;
}

// The name of `full` relative to the handle's watched directory: as many
// leading characters cut off as the watched directory string has, so a
// watched "/a/b" (no slash) yields "/x" for "/a/b/x".
CKWString RelativeName(const std::string& full, ChangeNotificationHandle* handle) {
    size_t cut = static_cast<size_t>(handle->GetWatchDir().length());
    return CKWString(cut < full.size() ? full.substr(cut) : std::string());
}

void Queue(ChangeNotificationHandle* handle, unsigned long action, CKWString name,
           unsigned long attributes, time_t modTime, bool withTime, unsigned long size) {
    _NOTIFY_INFO info;
    info.action = action;
    info.name = name;
    info.attributes = attributes;
    info.time[0] = withTime ? FileTimeCount(modTime) : 0;
    info.time[1] = 0;
    info.size = size;
    handle->QueueNotify(info);
}

void QueueDeviceRecord(ChangeNotificationHandle* handle, CKWString& key) {
    handle->SetSignalPending(1);
    handle->SetChanged(1);
    cnf_update(handle, key);
    Queue(handle, 5, CKWString(), TV_FILE_ATTRIBUTE_DIRECTORY, 0, false, 0);
}

class DirCloser {
public:
    explicit DirCloser(DIR* d) : d_(d) {}
    ~DirCloser() { Close(); }
    DirCloser(const DirCloser&) = delete;
    DirCloser& operator=(const DirCloser&) = delete;
    void Close() {
        if (d_) closedir(d_);
        d_ = nullptr;
    }

private:
    DIR* d_;
};

// Counts the scan in amInUnixDirScan for as long as it lives.
class InScan {
public:
    InScan() { InterlockedIncrement(&amInUnixDirScan); }
    ~InScan() { InterlockedDecrement(&amInUnixDirScan); }
    InScan(const InScan&) = delete;
    InScan& operator=(const InScan&) = delete;
};

bool ShutdownRequested() {
    return __atomic_load_n(&bFileShutdownRequested, __ATOMIC_ACQUIRE);
}
bool InServer() {
    return __atomic_load_n(&bRunningInServer, __ATOMIC_ACQUIRE);
}

constexpr time_t kPrivateFileWindow = 10800;  // three hours

}  // namespace

namespace {

// Reports a device that became unusable, once; the tree is not walked while
// it lasts. True when the device is unusable.
bool DeviceLost(CKWString& key, const struct stat& dst, ChangeNotificationHandle* handle,
                DirDeviceCheck deviceCheck) {
    if (deviceCheck(dst.st_dev) != 0) return false;
    bool report = false;
    {
        WriteHolder hold(Dir_Data_lock());
        auto it = Dir_Data().find(key.str());
        if (it == Dir_Data().end()) {
            auto r = Dir_Data().try_emplace(key);
            DIR_ENTRY& e = r.first->second;
            e.valid = 1;
            e.dirModTime = dst.st_mtime;
            e.deviceMessage = 1;
            e.lock.SetLockName(key.c_str());
            report = true;
        } else if (it->second.deviceMessage == 0) {
            it->second.deviceMessage = 1;
            report = true;
        }
    }
    if (report) QueueDeviceRecord(handle, key);
    return true;
}

// Takes the entry's lock for writing; in a server only tries it (a busy
// directory is deliberately skipped for this pass rather than holding up
// every other directory behind it).
bool LockEntry(DIR_ENTRY& entry) {
    if (InServer()) return entry.lock.TryWriteLock() == 0;
    entry.lock.WriteLock();
    return true;
}

void ScanDir(const CKWString& path, ChangeNotificationHandle* handle, DirDeviceCheck deviceCheck,
             bool kernelWoken, const struct stat* identity);

// A kernel-woken pass at a directory nothing was reported for: the checks a
// read makes before reading, then the walk into its subdirectories. False
// when it must be read after all.
bool WalkThrough(const CKWString& path, CKWString& key, ChangeNotificationHandle* handle,
                 std::list<_NOTIFY_INFO>* notify, DirDeviceCheck deviceCheck) {
    if (notify != nullptr && deviceCheck != nullptr) {
        struct stat dst;
        if (lstat(path.c_str(), &dst) != 0) return true;
        if (DeviceLost(key, dst, handle, deviceCheck)) return true;
    }
    auto it = FindDirEntry(key.str());
    if (it == Dir_Data().end()) return false;
    DIR_ENTRY& entry = it->second;
    InScan counted;
    if (!LockEntry(entry)) return true;
    WriteHolder entryLock(entry.lock, WriteHolder::Adopt());
    if (entry.deviceMessage != 0 && notify != nullptr) {
        entryLock.Release();
        QueueDeviceRecord(handle, key);
        entry.deviceMessage = 0;
        return true;
    }
    std::string sub;
    for (const std::string& name : entry.walk) {
        sub.assign(key.str()).append(name);
        ScanDir(CKWString(sub), handle, nullptr, true, nullptr);
    }
    entryLock.Release();
    if (handle != nullptr && handle->GetChanged()) handle->SetSignalPending(1);
    return true;
}

// `kernelWoken`: read only what the kernel watch state says needs it.
// `identity`: the directory as a read of its parent just found it, or null.
void ScanDir(const CKWString& path, ChangeNotificationHandle* handle, DirDeviceCheck deviceCheck,
             bool kernelWoken, const struct stat* identity) {
    CriticalSectionHolder serial(DirScan_lock());
    std::list<_NOTIFY_INFO>* notify = handle ? handle->GetNotifyData() : nullptr;
    CKWString key = path;
    if (key.empty() || key[key.length() - 1] != '/') key += '/';
    if (kernelWoken && !KernelWatchNeedsRead(key.str(), identity) &&
        WalkThrough(path, key, handle, notify, deviceCheck)) {
        return;
    }
    const time_t now = time(nullptr);

    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return;
    DirCloser closer(dir);
    const int dfd = dirfd(dir);
    struct stat dst;
    if (lstat(path.c_str(), &dst) != 0) return;
    KernelWatchBeforeRead(key.str(), dfd);

    if (notify != nullptr && deviceCheck != nullptr && DeviceLost(key, dst, handle, deviceCheck)) {
        return;
    }

    InScan counted;
    auto it = FindDirEntry(key.str());
    if (it == Dir_Data().end()) {
        bool inserted = false;
        it = AddDirEntry(key, dst.st_mtime, 0, inserted);
    }
    DIR_ENTRY& entry = it->second;
    if (!LockEntry(entry)) return;
    WriteHolder entryLock(entry.lock, WriteHolder::Adopt());

    if (entry.deviceMessage != 0 && notify != nullptr) {
        // The device is back: report it; the tree is walked on the next pass.
        entryLock.Release();
        QueueDeviceRecord(handle, key);
        entry.deviceMessage = 0;
        return;
    }

    // Only this directory's marks: each directory below clears its own when
    // it is read (clearing the whole subtree at every level made a pass cost
    // depth times the number of names).
    entry.valid = 0;
    for (auto& f : entry.files) f.second.flags &= static_cast<unsigned char>(~kFileSeen);
    entry.valid = 1;
    if (entry.dirModTime != dst.st_mtime) {
        entry.dirModTime = dst.st_mtime;
        if (handle != nullptr && notify == nullptr) handle->SetChanged(1);
        cnf_update(handle, key);
    }

    const bool inServer = InServer();
    std::string full(key.str());
    const size_t base = full.size();
    std::vector<std::string> walk;
    bool settled = true;  // no name left for the next pass
    bool polled = false;  // the outcome depends on more than this directory
    while (!ShutdownRequested()) {
        struct dirent* de = readdir(dir);
        if (de == nullptr) break;
        const char* name = de->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        struct stat st;
        if (fstatat(dfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;

        if (inServer && strncmp(name, ".KW", 3) == 0) {
            // The server's private files are never tracked; a recent one
            // still wakes the handle, without a record, on every pass.
            if (st.st_mtime >= now - kPrivateFileWindow) {
                polled = true;
                if (handle != nullptr) handle->SetSignalPending(1);
            }
            continue;
        }

        FILE_ENTRY rec;
        rec.flags = kFileSeen;
        rec.modTime = st.st_mtime;
        rec.accessTime = st.st_atime;
        rec.mode = st.st_mode;
        rec.owner = st.st_uid;
        rec.group = st.st_gid;
        rec.size = st.st_size;

        struct stat followed = st;
        if ((st.st_mode & 0xF000) == 0xA000) {
            // What the link names may change without a report here.
            polled = true;
            if (fstatat(dfd, name, &followed, 0) != 0) continue;
            rec.flags |= kFileIsLink;
            rec.mode &= ~0xA000UL;
        }
        // The full name is made only for what needs it: a walk down or a record.
        auto fullName = [&]() -> const std::string& {
            full.resize(base);
            full.append(name);
            return full;
        };
        if (S_ISDIR(followed.st_mode)) {
            if (rec.flags & kFileIsLink) rec.mode |= 0x4000;
            rec.flags |= kFileIsDir;
            // Every subdirectory is walked, whatever the handle's subtree
            // setting, and without the device check.
            walk.emplace_back(name);
            ScanDir(CKWString(fullName()), handle, nullptr, kernelWoken, &followed);
        } else if (!S_ISREG(followed.st_mode)) {
            continue;  // devices, sockets and pipes are not tracked
        }
        const bool isDir = (rec.flags & kFileIsDir) != 0;

        std::string_view nameView(name);
        auto known = entry.files.find(nameView);
        if (known == entry.files.end()) {
            unsigned long filter = 0;
            if (handle != nullptr) {
                handle->SetChanged(1);
                filter = handle->GetFilter();
                cnf_update(handle, key);
            }
            entry.files.emplace(CKWString(name), rec);
            if (notify != nullptr && ((!isDir && (filter & FILE_NOTIFY_CHANGE_FILE_NAME)) ||
                                      (isDir && (filter & FILE_NOTIFY_CHANGE_DIR_NAME)))) {
                Queue(handle, FILE_ACTION_ADDED, RelativeName(fullName(), handle),
                      AttributesOf(rec.mode), rec.modTime, true,
                      static_cast<unsigned long>(rec.size));
            }
            continue;
        }

        FILE_ENTRY& old = known->second;
        // A name that changed between file, directory and link is left
        // unseen: reported removed at the end of this pass, added next pass.
        if ((old.flags ^ rec.flags) & (kFileIsDir | kFileIsLink)) {
            settled = false;
            continue;
        }
        old.flags |= kFileSeen;
        const unsigned long filter = handle ? handle->GetFilter() : 0;
        bool modified;
        if ((filter & FILE_NOTIFY_CHANGE_LAST_WRITE) && old.modTime != rec.modTime) {
            modified = true;
        } else if ((filter & FILE_NOTIFY_CHANGE_SIZE) && old.size != rec.size) {
            modified = true;
        } else if ((filter & FILE_NOTIFY_CHANGE_ATTRIBUTES) &&
                   (old.mode != rec.mode || old.owner != rec.owner || old.group != rec.group)) {
            modified = true;
        } else {
            modified = false;
        }
        if (!modified) continue;
        handle->SetChanged(1);  // a non-zero filter implies a handle
        old.modTime = rec.modTime;
        old.size = rec.size;
        old.mode = rec.mode;
        old.owner = rec.owner;
        old.group = rec.group;
        if (isDir) continue;
        if (notify != nullptr) {
            Queue(handle, FILE_ACTION_MODIFIED, RelativeName(fullName(), handle),
                  AttributesOf(rec.mode), rec.modTime, true, static_cast<unsigned long>(rec.size));
        }
        cnf_update(handle, key);
    }
    const bool complete = !ShutdownRequested();
    closer.Close();

    for (auto f = entry.files.begin(); f != entry.files.end();) {
        auto cur = f++;
        const FILE_ENTRY& gone = cur->second;
        if (gone.flags & kFileSeen) continue;
        full.resize(base);
        full.append(cur->first.str());
        if (gone.flags & kFileIsDir) Purge_Dir_Entry(FindDirEntry(full + "/"));
        if (handle != nullptr) {
            handle->SetChanged(1);
            // Filter bit 0x1 alone governs removals, of directories too.
            if (notify != nullptr && (handle->GetFilter() & FILE_NOTIFY_CHANGE_FILE_NAME)) {
                Queue(handle, FILE_ACTION_REMOVED, RelativeName(full, handle),
                      AttributesOf(gone.mode), 0, false, 0);
            }
        }
        cnf_update(handle, key);
        entry.files.erase(cur);
    }
    entry.walk.swap(walk);
    if (complete) KernelWatchAfterRead(key.str(), settled, polled);

    entryLock.Release();
    if (handle != nullptr && handle->GetChanged()) handle->SetSignalPending(1);
}

}  // namespace

// ---------------------------------------------------------------------------
// The watcher loop
// ---------------------------------------------------------------------------
namespace {

// How long a kernel report waits for the rest of its burst.
constexpr int kSettleMs = 10;

void ClearEventFd(int fd) {
    uint64_t count;
    while (read(fd, &count, sizeof count) > 0) {
    }
}

}  // namespace

DWORD RunWatcher(WatchDirsThreadObject* thread) {
    if (thread == nullptr) return 0;
    KernelWatchLoopStarted(thread);
    for (;;) {
        if (thread->StopRequested(0)) {
            KernelWatchLoopEnded(thread);
            __atomic_store_n(&bFileShutdownRequested, true, __ATOMIC_RELEASE);
            thread->Exit();
            return 0;
        }
        const DirDeviceCheck deviceCheck = thread->GetDeviceCheck();
        unsigned long long elapsed;
        bool again;
        {
            ReadHolder registered(CNH_lock());
            const unsigned long long start = GetMilliTime();
            {
                CriticalSectionHolder serial(DirScan_lock());
                KernelWatchDrain();
            }
            // Handles on one directory are neighbours in the list, so each
            // directory is scanned once, for the first of its handles.
            CKWString last;
            for (ChangeNotificationHandle* h : CNH_list()) {
                if (h->GetWatchDir() != last) {
                    last = h->GetWatchDir();
                    ScanDir(last, h, deviceCheck, true, nullptr);
                }
            }
            elapsed = GetMilliTime() - start;

            for (ChangeNotificationHandle* h : CNH_list()) {
                if (!h->GetSignalPending()) continue;
                h->Show("Abt2Signal:");
                h->Signal();
                const CKWString changedDir = h->GetLastChangedDir();
                for (ChangeNotificationHandle* other : CNH_list()) {
                    if (other->State() == 0 && other->GetWatchDir() == h->GetWatchDir()) {
                        other->SetLastChangedDir(changedDir);
                        other->Signal();
                    }
                }
            }
            CriticalSectionHolder serial(DirScan_lock());
            KernelWatchPrune();
            again = KernelWatchTakeRescan();
        }
        if (!again) thread->TimedWait(WatchPeriod(elapsed), 0, thread);
    }
}

// ---------------------------------------------------------------------------
// Fork
// ---------------------------------------------------------------------------
// A fork taken mid-pass would leave the child with locks held by a watcher
// that does not exist there. The prepare handler takes the locks in their
// order, so no pass or scan is in progress at the fork; the parent releases
// them. The child releases the scan lock (a plain mutex it owns) and gets
// fresh reader/writer locks: another thread may have been inside one's
// internal mutex, or counted as waiting on it, at the fork. The child
// starts its own watcher loop if it wants one.
namespace {

void ForkPrepare() TV_NO_THREAD_SAFETY_ANALYSIS {
    CNH_lock().WriteLock(INFINITE);
    DirScan_lock().Lock();
    Dir_Data_lock().WriteLock(INFINITE);
}

void ForkParent() TV_NO_THREAD_SAFETY_ANALYSIS {
    Dir_Data_lock().WriteUnlock();
    DirScan_lock().Unlock();
    CNH_lock().WriteUnlock();
}

// Built over the old lock, which is not destroyed (its mutex may be held);
// the preference is the one watch_table.cpp gives the lock.
void Renew(RWLock& lock, bool readersPreferred) {
    const std::string name = lock.GetLockName();
    new (&lock) RWLock(readersPreferred, name.c_str());
}

void ForkChild() TV_NO_THREAD_SAFETY_ANALYSIS {
    Renew(Dir_Data_lock(), true);
    DirScan_lock().Unlock();
    Renew(CNH_lock(), false);
}

struct ForkHandlers {
    ForkHandlers() { pthread_atfork(ForkPrepare, ForkParent, ForkChild); }
} forkHandlers;

}  // namespace

}  // namespace detail
}  // namespace tv

WatchDirsThreadObject::WatchDirsThreadObject(DirDeviceCheck deviceCheck)
    : wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), stop_(0), deviceCheck_(deviceCheck) {}

WatchDirsThreadObject::~WatchDirsThreadObject() {
    if (wakeFd_ >= 0) close(wakeFd_);
}

int WatchDirsThreadObject::StopRequested(int) {
    return __atomic_load_n(&stop_, __ATOMIC_ACQUIRE);
}

void WatchDirsThreadObject::Exit() {}

unsigned long WatchDirsThreadObject::TimedWait(unsigned long ms, int, WatchDirsThreadObject*) {
    const unsigned long long deadline = GetMilliTime() + ms;
    for (;;) {
        struct pollfd p[2] = {{wakeFd_, POLLIN, 0}, {tv::detail::KernelWatchFd(), POLLIN, 0}};
        const unsigned long long now = GetMilliTime();
        const unsigned long long left = deadline > now ? deadline - now : 0;
        const int r =
            poll(p, p[1].fd >= 0 ? 2 : 1, static_cast<int>(left > 86400000 ? 86400000 : left));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (left == 0 || r < 0) return WAIT_TIMEOUT;
            continue;
        }
        if (p[0].revents == 0) {
            // A kernel report: let the rest of its burst arrive first.
            p[1].fd = -1;
            poll(p, 1, tv::detail::kSettleMs);
        }
        tv::detail::ClearEventFd(wakeFd_);
        return WAIT_OBJECT_0;
    }
}

DirDeviceCheck WatchDirsThreadObject::GetDeviceCheck() {
    return deviceCheck_;
}

void WatchDirsThreadObject::RequestStop() {
    __atomic_store_n(&stop_, 1, __ATOMIC_RELEASE);
    Wake();
}

void WatchDirsThreadObject::Wake() {
    const uint64_t one = 1;
    if (wakeFd_ >= 0 && write(wakeFd_, &one, sizeof one) < 0) {
        // The counter is full: a wake-up is pending anyway.
    }
}

void UnixDirScan(CKWString path, ChangeNotificationHandle* handle, DirDeviceCheck deviceCheck) {
    tv::detail::ScanDir(path, handle, deviceCheck, false, nullptr);
}

DWORD WatchDirsThread(void* threadObject) {
    return tv::detail::RunWatcher(static_cast<WatchDirsThreadObject*>(threadObject));
}
