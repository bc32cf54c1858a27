// The directory watch table: the snapshot of every scanned directory, the
// list of registered change notification handles, their locks, registration,
// invalidation and purging of subtrees, and the debugging dump. The locking
// model shared with the scanner is described at the top of dir_scan.cpp.
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <iterator>
#include <new>
#include <string>

#include "notify/kernel_watch.h"
#include "notify/watch_table.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/notify.h"

bool bFileShutdownRequested = false;

namespace tv {
namespace detail {

long amInUnixDirScan = 0;

namespace {

// Built in this order: Dir_Data_lock, Dir_Data, CNH_lock, CNH_list. Never
// destroyed (see watch_table.h).
struct WatchTable {
    RWLock dirDataLock{true, "Dir_Data_lock"};
    DirDataMap dirData;
    RWLock cnhLock{false, "ChangeNotificationHandle_lock"};
    CNHList cnhList;
};

pthread_once_t tableOnce = PTHREAD_ONCE_INIT;
WatchTable* table = nullptr;

void BuildTable() {
    table = new WatchTable;
}

WatchTable& Table() {
    pthread_once(&tableOnce, BuildTable);
    return *table;
}

// Builds the table at load so that no first use races with another.
struct WatchTableInit {
    WatchTableInit() { Table(); }
} watchTableInit;

CriticalSection dirScanLock;

// FileAttribs2String's rows. The names are paired with the bits in
// alphabetical order, deliberately not the Win32 pairing: the dump has always
// printed them this way and only ever with 0x80 or 0x100.
struct AttribRow {
    unsigned long bit;
    const char* name;
};
constexpr AttribRow kAttribRows[9] = {
    {0x1, "Archive"},    {0x2, "Compressed"}, {0x4, "Hidden"},
    {0x8, "Offline"},    {0x10, "ReadOnly"},  {0x20, "System"},
    {0x40, "Temporary"}, {0x80, "Normal"},    {0x100, "Directory"},
};

// ctime_r text without its trailing newline.
std::string CTimeText(time_t t) {
    char buf[64];
    if (ctime_r(&t, buf) == nullptr) return std::string();
    std::string s(buf);
    if (!s.empty()) s.pop_back();
    return s;
}

// The owner-read permission bit. Invalidation and purging look a name up as
// a possible subdirectory whenever its mode has this bit: every owner-readable
// name is tried, names that are not directories simply find no entry, and an
// unreadable subdirectory keeps its entry. Kept as it always was.
constexpr unsigned long kOwnerReadBit = 0x100;

}  // namespace

RWLock& Dir_Data_lock() {
    return Table().dirDataLock;
}
DirDataMap& Dir_Data() {
    return Table().dirData;
}
RWLock& CNH_lock() {
    return Table().cnhLock;
}
CNHList& CNH_list() {
    return Table().cnhList;
}
CriticalSection& DirScan_lock() {
    return dirScanLock;
}

DIR_ENTRY::DIR_ENTRY()
    : lock(false, nullptr),
      valid(0),
      dirModTime(0),
      deviceMessage(0),
      outOfService(0),
      replTo(0),
      replFrom(0),
      flags(0) {}

DIR_ENTRY::DIR_ENTRY(const DIR_ENTRY& other)
    : lock(other.lock),
      valid(other.valid),
      dirModTime(other.dirModTime),
      files(other.files),
      deviceMessage(other.deviceMessage),
      outOfService(other.outOfService),
      replTo(other.replTo),
      replFrom(other.replFrom),
      flags(other.flags),
      note(other.note),
      walk(other.walk) {}

DirDataMap::iterator FindDirEntry(std::string_view key) {
    ReadHolder hold(Dir_Data_lock());
    return Dir_Data().find(key);
}

DirDataMap::iterator AddDirEntry(const CKWString& key, time_t modTime, unsigned long deviceMessage,
                                 bool& inserted) {
    WriteHolder hold(Dir_Data_lock());
    auto r = Dir_Data().try_emplace(key);
    inserted = r.second;
    if (inserted) {
        DIR_ENTRY& e = r.first->second;
        e.valid = 1;
        e.dirModTime = modTime;
        e.deviceMessage = deviceMessage;
        // Named before Dir_Data_lock is released: nobody else can see the
        // entry yet, so the name is set before the lock is shared.
        e.lock.SetLockName(key.c_str());
    }
    return r.first;
}

void Invalidate_Dir_Entry(DirDataMap::iterator it) {
    if (it == Dir_Data().end()) return;
    DIR_ENTRY& e = it->second;
    e.valid = 0;
    std::string sub;
    for (auto& f : e.files) {
        f.second.flags &= static_cast<unsigned char>(~kFileSeen);
        if (f.second.mode & kOwnerReadBit) {
            sub.assign(it->first.str()).append(f.first.str()).push_back('/');
            Invalidate_Dir_Entry(FindDirEntry(sub));
        }
    }
}

void Purge_Dir_Entry(DirDataMap::iterator it) {
    if (it == Dir_Data().end()) return;
    // Write locks are recursive for their owner, so the recursion below takes
    // Dir_Data_lock again without harm. Lookups here must not take it for
    // reading: a read lock is refused to the thread holding the write lock.
    WriteHolder tableLock(Dir_Data_lock());
    DIR_ENTRY& e = it->second;
    WriteHolder entry(e.lock);
    std::string sub;
    for (auto f = e.files.begin(); f != e.files.end();) {
        auto cur = f++;
        if (cur->second.mode & kOwnerReadBit) {
            sub.assign(it->first.str()).append(cur->first.str()).push_back('/');
            Purge_Dir_Entry(Dir_Data().find(std::string_view(sub)));
        }
        e.files.erase(cur);
    }
    entry.Release();
    KernelWatchForget(it->first.str());
    Dir_Data().erase(it);
}

unsigned long WatchPeriod(unsigned long long elapsed) {
    unsigned long long p = (elapsed > 2000 ? elapsed : 2000) * 2;
    if (p > 30000) p = elapsed > 30000 ? elapsed : 30000;
    return static_cast<unsigned long>(p);
}

}  // namespace detail
}  // namespace tv

using tv::detail::CNH_list;
using tv::detail::CNH_lock;
using tv::detail::Dir_Data;

void WatchDir(CKWString path, ChangeNotificationHandle* handle) {
    // The two locks are taken one after the other, never together.
    if (tv::detail::FindDirEntry(path.str()) == Dir_Data().end()) {
        bool inserted = false;
        tv::detail::AddDirEntry(path, 0, 0, inserted);
    }
    if (handle == nullptr) return;
    {
        tv::detail::WriteHolder hold(CNH_lock());
        tv::detail::CNHList& list = CNH_list();
        auto it = list.begin();
        while (it != list.end() && (*it)->GetWatchDir() != handle->GetWatchDir()) ++it;
        if (it == list.end()) {
            list.push_front(handle);
        } else {
            list.insert(std::next(it), handle);
        }
    }
    // A running watcher takes the new directory into its watches at once
    // rather than at its next polling period.
    tv::detail::KernelWatchKick();
}

bool InUnixDirScan() {
    return __atomic_load_n(&tv::detail::amInUnixDirScan, __ATOMIC_ACQUIRE) != 0;
}

void cnf_update(ChangeNotificationHandle* handle, CKWString& dir) {
    if (handle != nullptr) handle->SetLastChangedDir(dir);
}

CKWString FileAttribs2String(unsigned long mode) {
    // Only the file type decides; every other bit of the mode is ignored.
    unsigned long value = (mode & 0xF000) == 0x4000 ? 0x100 : 0x80;
    CKWString text;
    for (const auto& row : tv::detail::kAttribRows) {
        if (value & row.bit) {
            if (!text.empty()) text += ",";
            text += row.name;
            value &= ~row.bit;
        }
    }
    if (value != 0) {
        char excess[32];
        snprintf(excess, sizeof excess, "%#lx", value);
        text += ", Excess bits: ";
        text += excess;
    }
    return text;
}

void DumpDirData() {
    fprintf(stderr, "\nDir_Data:\n");
    for (const auto& d : Dir_Data()) {
        const tv::detail::DIR_ENTRY& e = d.second;
        fprintf(stderr,
                "%c%-40s  mod: %s, DskMsg: %#lx, OOS: %#lx, Repl to/frm: %#lx/%#lx, Flgs: %#lx\n",
                e.valid ? ' ' : '*', d.first.c_str(), tv::detail::CTimeText(e.dirModTime).c_str(),
                e.deviceMessage, e.outOfService, e.replTo, e.replFrom, e.flags);
        for (const auto& f : e.files) {
            const tv::detail::FILE_ENTRY& r = f.second;
            fprintf(stderr, "%c  %-40s%c%c mod: %s attr: %s\n",
                    (r.flags & tv::detail::kFileSeen) ? ' ' : '*', f.first.c_str(),
                    (r.flags & tv::detail::kFileIsDir) ? '/' : ' ',
                    (r.flags & tv::detail::kFileIsLink) ? '@' : ' ',
                    tv::detail::CTimeText(r.modTime).c_str(), FileAttribs2String(r.mode).c_str());
        }
    }
    fprintf(stderr, "--CNH:\n");
    for (ChangeNotificationHandle* h : CNH_list()) {
        fprintf(stderr, "st: %d watch: %s change: %s\n", h->State(), h->GetWatchDir().c_str(),
                h->GetLastChangedDir().c_str());
    }
}
