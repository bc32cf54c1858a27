// Internal view of the directory watch table: the snapshot records, the
// process-wide containers and their locks, and scoped holders for RWLock.
// The locking model is described at the top of dir_scan.cpp.
#ifndef TVCOMMONUTIL_NOTIFY_WATCH_TABLE_H
#define TVCOMMONUTIL_NOTIFY_WATCH_TABLE_H

#include <stdint.h>
#include <time.h>

#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tvcommonutil/handles.h"
#include "tvcommonutil/notify.h"
#include "tvcommonutil/strings.h"

namespace tv {
namespace detail {

// Byte-wise order of CKWString (the order of CKWString's operator<), usable
// with string views so that lookups need not build a CKWString.
struct PathLess {
    using is_transparent = void;
    static std::string_view View(const CKWString& s) { return std::string_view(s.str()); }
    static std::string_view View(const std::string& s) { return std::string_view(s); }
    static std::string_view View(std::string_view s) { return s; }
    template <class A, class B>
    bool operator()(const A& a, const B& b) const {
        return View(a) < View(b);
    }
};

// File record flags.
constexpr unsigned char kFileIsDir = 0x1;   // a directory, after following a link
constexpr unsigned char kFileIsLink = 0x2;  // a symbolic link
constexpr unsigned char kFileSeen = 0x4;    // found by the scan in progress

// One name in a scanned directory.
struct FILE_ENTRY {
    unsigned char flags;
    time_t modTime;
    time_t accessTime;   // stored on insertion, never updated
    unsigned long mode;  // link: type bits removed, 0x4000 added for a directory target
    uint32_t owner;
    uint32_t group;
    int64_t size;
};

typedef std::multimap<CKWString, FILE_ENTRY, PathLess> FileMap;

// One scanned directory. `lock` is held for writing while the directory is
// scanned or purged; it guards every other field. The lock is named after the
// table key when the entry is stored.
struct DIR_ENTRY {
    DIR_ENTRY();
    DIR_ENTRY(const DIR_ENTRY& other);
    DIR_ENTRY& operator=(const DIR_ENTRY&) = delete;

    RWLock lock;
    unsigned valid : 1;  // cleared by Invalidate_Dir_Entry, set by a scan
    time_t dirModTime;
    FileMap files;
    unsigned long deviceMessage;  // 1 while the device is reported unavailable
    unsigned long outOfService;
    unsigned long replTo;
    unsigned long replFrom;
    unsigned long flags;
    CKWString note;
    // The names the last read of this directory walked into, in the order
    // it did: a pass that need not read the directory walks the same way.
    std::vector<std::string> walk;
};

typedef std::map<CKWString, DIR_ENTRY, PathLess> DirDataMap;
typedef std::list<ChangeNotificationHandle*> CNHList;

// The process-wide containers, built once (at load or by the first use,
// whichever comes first) and never destroyed: a watcher thread may still be
// scanning while the process exits.
RWLock& Dir_Data_lock();  // "Dir_Data_lock", readers preferred
DirDataMap& Dir_Data();
RWLock& CNH_lock();  // "ChangeNotificationHandle_lock", writers preferred
CNHList& CNH_list();

// Serialises scans (the watcher's and the silent baseline scans run by
// ReadDirectoryChanges on application threads); recursive, so a scan's
// recursion into subdirectories re-enters it.
CriticalSection& DirScan_lock();

// Clears the valid bit of the entry and the seen bit of its records, and
// recurses into the entries of owner-readable names. Caller holds the
// entry's lock and DirScan_lock, not Dir_Data_lock.
void Invalidate_Dir_Entry(DirDataMap::iterator it);
// Drops the entry and, recursively, those of its owner-readable names.
// Caller holds DirScan_lock; takes Dir_Data_lock and the entry's lock.
void Purge_Dir_Entry(DirDataMap::iterator it);

// Entry lookup under Dir_Data_lock held for reading (end() when absent).
DirDataMap::iterator FindDirEntry(std::string_view key);
// Inserts a fresh entry under Dir_Data_lock held for writing unless one
// exists; `inserted` tells which. The new entry has valid set, the given
// modification time and device-message flag, zero numbers, and its lock
// named after the key.
DirDataMap::iterator AddDirEntry(const CKWString& key, time_t modTime, unsigned long deviceMessage,
                                 bool& inserted);

// Number of scans in progress (interlocked).
extern long amInUnixDirScan;

// The wait between watcher passes for a pass that took `elapsed` ms.
unsigned long WatchPeriod(unsigned long long elapsed);

// Scoped RWLock holders. RWLock is not an annotated capability, so these do
// not feed the thread-safety analysis; they only pair lock and unlock.
class ReadHolder {
public:
    explicit ReadHolder(RWLock& l) : l_(l) { l_.ReadLock(); }
    ~ReadHolder() { l_.ReadUnlock(); }
    ReadHolder(const ReadHolder&) = delete;
    ReadHolder& operator=(const ReadHolder&) = delete;

private:
    RWLock& l_;
};

class WriteHolder {
public:
    explicit WriteHolder(RWLock& l) : l_(&l) { l_->WriteLock(); }
    // Adopts a write lock the caller already took.
    struct Adopt {};
    WriteHolder(RWLock& l, Adopt) : l_(&l) {}
    ~WriteHolder() { Release(); }
    WriteHolder(const WriteHolder&) = delete;
    WriteHolder& operator=(const WriteHolder&) = delete;
    void Release() {
        if (l_) l_->WriteUnlock();
        l_ = nullptr;
    }

private:
    RWLock* l_;
};

}  // namespace detail
}  // namespace tv

#endif  // TVCOMMONUTIL_NOTIFY_WATCH_TABLE_H
