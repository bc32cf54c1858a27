// The directory scanner and the watcher loop.
//
// Change notification is polling. Each pass of WatchDirsThread walks the
// registered handles (CNH_list) and scans every distinct watched directory
// once, on behalf of the first handle watching it: UnixDirScan compares what
// readdir/lstat find with the snapshot in Dir_Data, updates the snapshot,
// queues records on that handle and marks it changed/signal-pending. After
// the scans the loop signals every signal-pending handle and every idle
// handle on the same directory, then sleeps for twice the pass time (clamped
// to 4000..30000 ms, longer only when a single pass took longer).
//
// Locks, in the order they are taken:
//   1. "ChangeNotificationHandle_lock" (CNH_lock, an RWLock, writers
//      preferred): guards CNH_list. The watcher holds it for reading for a
//      whole pass, so a handle cannot be unregistered or destroyed (both
//      take it for writing) while the scanner uses it.
//   2. DirScan_lock (a recursive CriticalSection): one scan tree at a time.
//      Scans run on the watcher and, for the silent baseline scan of
//      ReadDirectoryChanges, on application threads. Invalidation of a
//      directory clears the seen bits of the entries below it under the
//      parent's lock only, so two scans may never overlap.
//   3. "Dir_Data_lock" (an RWLock, readers preferred): guards the shape of
//      Dir_Data. Held for writing around insertions (WatchDir, a first scan)
//      and erasures (Purge_Dir_Entry, only from scans); held for reading
//      around each lookup, which is never held across anything else. It is
//      taken while a scan holds a directory entry's lock (to add or purge a
//      subdirectory); that cannot deadlock because only the single scan in
//      progress ever takes entry locks.
//   4. A DIR_ENTRY's own RWLock: held for writing while its directory is
//      scanned or purged; guards the entry's fields and file records. In a
//      server the scan only tries it and skips a busy directory for a pass.
//   5. A ChangeNotificationHandle's CriticalSection: guards its record queue,
//      buffer and last-changed directory; held only around one record or one
//      collection. A leaf.
// A handle's flags (changed, signal-pending, signalled) are atomics, set by
// the scanner and cleared by the collecting thread. DIR_ENTRY pointers stay
// valid between lookups because only scans erase, and scans are serialised.
#include <dirent.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <string>

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
}  // namespace detail
}  // namespace tv

using namespace tv::detail;

void UnixDirScan(CKWString path, ChangeNotificationHandle* handle, DirDeviceCheck deviceCheck) {
    CriticalSectionHolder serial(DirScan_lock());
    const time_t now = time(nullptr);
    std::list<_NOTIFY_INFO>* notify = handle ? handle->GetNotifyData() : nullptr;
    CKWString key = path;
    if (key.empty() || key[key.length() - 1] != '/') key += '/';

    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) return;
    DirCloser closer(dir);
    struct stat dst;
    if (lstat(path.c_str(), &dst) != 0) return;

    if (notify != nullptr && deviceCheck != nullptr && deviceCheck(dst.st_dev) == 0) {
        // Report the loss once; the tree is not walked while it lasts.
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
        return;
    }

    InScan counted;
    auto it = FindDirEntry(key.str());
    if (it == Dir_Data().end()) {
        bool inserted = false;
        it = AddDirEntry(key, dst.st_mtime, 0, inserted);
    }
    DIR_ENTRY& entry = it->second;

    // In a server a busy directory is deliberately skipped for this pass
    // rather than holding up every other directory behind it.
    if (InServer()) {
        if (entry.lock.TryWriteLock() != 0) return;
    } else {
        entry.lock.WriteLock();
    }
    WriteHolder entryLock(entry.lock, WriteHolder::Adopt());

    if (entry.deviceMessage != 0 && notify != nullptr) {
        // The device is back: report it; the tree is walked on the next pass.
        entryLock.Release();
        QueueDeviceRecord(handle, key);
        entry.deviceMessage = 0;
        return;
    }

    Invalidate_Dir_Entry(it);
    entry.valid = 1;
    if (entry.dirModTime != dst.st_mtime) {
        entry.dirModTime = dst.st_mtime;
        if (handle != nullptr && notify == nullptr) handle->SetChanged(1);
        cnf_update(handle, key);
    }

    const bool inServer = InServer();
    std::string full(key.str());
    const size_t base = full.size();
    while (!ShutdownRequested()) {
        struct dirent* de = readdir(dir);
        if (de == nullptr) break;
        const char* name = de->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        full.resize(base);
        full.append(name);
        struct stat st;
        if (lstat(full.c_str(), &st) != 0) continue;

        if (inServer && strncmp(name, ".KW", 3) == 0) {
            // The server's private files are never tracked; a recent one
            // still wakes the handle, without a record.
            if (st.st_mtime >= now - kPrivateFileWindow && handle != nullptr) {
                handle->SetSignalPending(1);
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
            if (stat(full.c_str(), &followed) != 0) continue;
            rec.flags |= kFileIsLink;
            rec.mode &= ~0xA000UL;
        }
        if (S_ISDIR(followed.st_mode)) {
            if (rec.flags & kFileIsLink) rec.mode |= 0x4000;
            rec.flags |= kFileIsDir;
            // Every subdirectory is walked, whatever the handle's subtree
            // setting, and without the device check.
            UnixDirScan(CKWString(full), handle, nullptr);
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
                Queue(handle, FILE_ACTION_ADDED, RelativeName(full, handle), AttributesOf(rec.mode),
                      rec.modTime, true, static_cast<unsigned long>(rec.size));
            }
            continue;
        }

        FILE_ENTRY& old = known->second;
        // A name that changed between file, directory and link is left
        // unseen: reported removed at the end of this pass, added next pass.
        if ((old.flags ^ rec.flags) & (kFileIsDir | kFileIsLink)) continue;
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
            Queue(handle, FILE_ACTION_MODIFIED, RelativeName(full, handle), AttributesOf(rec.mode),
                  rec.modTime, true, static_cast<unsigned long>(rec.size));
        }
        cnf_update(handle, key);
    }
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

    entryLock.Release();
    if (handle != nullptr && handle->GetChanged()) handle->SetSignalPending(1);
}

// ---------------------------------------------------------------------------
// The watcher loop
// ---------------------------------------------------------------------------
WatchDirsThreadObject::WatchDirsThreadObject(DirDeviceCheck deviceCheck)
    : wake_(new Event(-1, FALSE, FALSE, nullptr)), stop_(0), deviceCheck_(deviceCheck) {}

WatchDirsThreadObject::~WatchDirsThreadObject() {
    wake_->DecRefCount();
}

int WatchDirsThreadObject::StopRequested(int) {
    return __atomic_load_n(&stop_, __ATOMIC_ACQUIRE);
}

void WatchDirsThreadObject::Exit() {}

unsigned long WatchDirsThreadObject::TimedWait(unsigned long ms, int, WatchDirsThreadObject*) {
    return wake_->WaitForHandle(ms, FALSE);
}

DirDeviceCheck WatchDirsThreadObject::GetDeviceCheck() {
    return deviceCheck_;
}

void WatchDirsThreadObject::RequestStop() {
    __atomic_store_n(&stop_, 1, __ATOMIC_RELEASE);
    wake_->Set();
}

void WatchDirsThreadObject::Wake() {
    wake_->Set();
}

DWORD WatchDirsThread(void* threadObject) {
    auto* thread = static_cast<WatchDirsThreadObject*>(threadObject);
    if (thread == nullptr) return 0;
    for (;;) {
        if (thread->StopRequested(0)) {
            __atomic_store_n(&bFileShutdownRequested, true, __ATOMIC_RELEASE);
            thread->Exit();
            return 0;
        }
        const DirDeviceCheck deviceCheck = thread->GetDeviceCheck();
        unsigned long long elapsed;
        {
            ReadHolder registered(CNH_lock());
            const unsigned long long start = GetMilliTime();
            // Handles on one directory are neighbours in the list, so each
            // directory is scanned once, for the first of its handles.
            CKWString last;
            for (ChangeNotificationHandle* h : CNH_list()) {
                if (h->GetWatchDir() != last) {
                    last = h->GetWatchDir();
                    UnixDirScan(last, h, deviceCheck);
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
        }
        thread->TimedWait(WatchPeriod(elapsed), 0, thread);
    }
}
