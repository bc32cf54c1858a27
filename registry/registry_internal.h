// Internals of the registry shared by its source files: the key tree, the
// handle tables, the file reader and writer, the cross-process state and the
// start-up flags. Nothing here is exported.
//
// Lock order (see registry_sharing.cpp for the whole protocol):
//   registry cache lock -> registry semaphore -> key locks (parent before
//   child) -> TableLock / AllKeysLock / GraveyardLock (leaves).
#ifndef TV_REGISTRY_REGISTRY_INTERNAL_H
#define TV_REGISTRY_REGISTRY_INTERNAL_H

#include <stdint.h>
#include <sys/types.h>

#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "foundation/diagnostics_internal.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/registry.h"
#include "tvcommonutil/strings.h"

namespace tv {
namespace detail {

// The longest line the reader takes in one piece; the rest of a longer line
// is read as the next line. The writer refuses to produce longer lines, so
// everything it writes reads back as written.
constexpr int kRegLineMax = 4095;

// Access bits of a requested mask that make a handle a write handle.
constexpr unsigned long kRegWriteAccess = 0x60000;

class RegKey;

// Write epochs. Every successful write of the file starts a new epoch; a
// change of this process is pending (not yet in the file) exactly while it
// carries the current epoch. So a write commits every pending mark at once,
// without a walk over the tree.
unsigned long CurrentWriteEpoch();
void NewWriteEpoch();

// Output of the tree writer: text collected in memory and, when a
// descriptor is given, written out in large blocks. A failed write is
// remembered and stops all further output.
struct PrintSink {
    explicit PrintSink(int descriptor = -1) : fd(descriptor), failed(false), error(0), written(0) {}
    void Flush();
    void MaybeFlush() {
        if (fd >= 0 && text.size() >= 256 * 1024) Flush();
    }
    std::string text;
    int fd;
    bool failed;
    int error;       // errno of the write that failed
    size_t written;  // bytes handed to the descriptor so far
};

// One named value. Data is always text (see the file format).
//
// A pending value was set by this process and is not yet in the file (its
// epoch is the current write epoch); a refresh from the file never
// overwrites or drops it. Guarded by the owning key's lock.
class RegValue {
public:
    RegValue() : sequence_(0), type_(0), pendingEpoch_(0) {}
    RegValue(unsigned long type, const CKWString& name, const CKWString& data)
        : sequence_(0), type_(type), name_(name), data_(data), pendingEpoch_(0) {}
    RegValue(const RegValue&) = default;
    RegValue& operator=(const RegValue&) = default;

    void SetValues(unsigned long type, const CKWString& name, const CKWString& data) {
        type_ = type;
        name_ = name;
        data_ = data;
    }
    // Type, name and data equal (sequence and pending are bookkeeping).
    bool operator==(const RegValue& o) const {
        return type_ == o.type_ && name_ == o.name_ && data_ == o.data_;
    }
    void UpdateSequence(unsigned long generation) { sequence_ = generation; }
    bool Validate(unsigned long generation) const { return sequence_ == generation; }
    // Parses one value line ("name=data;TYPE"); false for a line to ignore.
    bool FormatValue(const char* line);

    unsigned long GetSequence() const { return sequence_; }
    unsigned long GetType() const { return type_; }
    const CKWString& GetName() const { return name_; }
    const CKWString& GetData() const { return data_; }
    bool IsPending() const { return pendingEpoch_ != 0 && pendingEpoch_ == CurrentWriteEpoch(); }
    void SetPending(bool p) { pendingEpoch_ = p ? CurrentWriteEpoch() : 0; }

private:
    unsigned long sequence_;
    unsigned long type_;
    CKWString name_;
    CKWString data_;
    unsigned long pendingEpoch_;
};

// An entry of the open-handle table.
class OpenKey {
public:
    OpenKey(RegKey* key, int access) : key_(key), access_(access) {}
    RegKey* GetKey() const { return key_; }
    int GetAccess() const { return access_; }

private:
    RegKey* key_;
    int access_;
};

// How FindKey is used: by the API (counts opens, allocates numbers), by the
// first load of an empty tree, or by a refresh of a live tree.
enum class FindMode { kApi, kLoad, kRefresh };

// A node of the in-memory registry.
//
// Locking: lock_ guards every mutable field below (values, children, flags,
// counters). The path, the parent pointer and the index never change after
// construction, except that an intermediate key is numbered once under its
// own lock and its parent's. Walks lock parent before child, hand over hand,
// never two siblings. The whole tree is additionally guarded by the registry
// cache lock: API calls hold it shared, file reads and writes exclusively.
// A key unlinked from the tree while the cache lock is only shared goes to
// the graveyard and is freed under the exclusive lock, so a pointer taken
// under the shared lock stays valid memory until that lock is released.
class RegKey {
public:
    RegKey();  // the unnamed root
    RegKey(long index, const CKWString& path, RegKey* parent, int intermediate,
           unsigned long opens);
    ~RegKey();
    RegKey(const RegKey&) = delete;
    RegKey& operator=(const RegKey&) = delete;

    void Lock() TV_NO_THREAD_SAFETY_ANALYSIS { lock_.Lock(); }
    void Unlock() TV_NO_THREAD_SAFETY_ANALYSIS { lock_.Unlock(); }

    // --- process-wide tables -------------------------------------------
    static std::map<long, OpenKey>& OpenKeyMap();  // guarded by TableLock()
    static std::set<long>& AllKeysSet();           // guarded by AllKeysLock()
    static unsigned long Generation();
    static void NewGeneration();
    // A number in 1..0x3fffffff not used by any key (0 is HKEY_LOCAL_MACHINE).
    static long GetUniqueKey();
    // Enters the key's number in AllKeysSet. False when the number is taken.
    static bool Advertise(RegKey* child);
    static void Unadvertise(RegKey* child, bool wake);
    // Reserves a number read from the file: false when it is out of range or
    // already used by another key.
    static bool ClaimIndex(long index);

    // Enters the key in OpenKeyMap (if missing). Takes TableLock.
    bool OpenHandle(int access);

    // --- values (caller holds the key's lock) ---------------------------
    // Stores v; changed says whether type or data differed. `local` marks
    // the value as this process's unwritten change and drops any deletion
    // mark of the name.
    bool SetValue(const RegValue& v, int& changed, bool local);
    // Removes a value; `local` records the deletion so a refresh does not
    // bring the value back from the file before it is written.
    bool DeleteValue(const CKWString& name, bool local);
    const RegValue* FindValue(const CKWString& name) const;
    const RegValue* ValueAt(long index) const;
    size_t ValueCount() const { return valueNames_.size(); }
    bool IsValueDeletedHere(const CKWString& name) const {
        auto it = deletedValues_.find(CKWStringPc(name));
        return it != deletedValues_.end() && it->second == CurrentWriteEpoch();
    }

    // --- children (caller holds the key's lock) -------------------------
    RegKey* GetSubKey(const CKWString& name) const;
    // The index-th child that is not marked deleted; uses the cursor.
    RegKey* SubKeyAt(long index);
    size_t LiveSubKeyCount() const;
    // Counts and longest lengths for RegQueryInfoKey: subkey and value
    // names in characters, value data in bytes as a query needs them.
    void GetInfo(unsigned long& subKeys, unsigned long& maxSubKeyLen, unsigned long& values,
                 unsigned long& maxValueNameLen, unsigned long& maxValueLen) const;
    bool InsertSubKey(const CKWString& name, RegKey* child);
    // Marks the child and its subtree deleted, removes what holds no open
    // handle, and (when byMe) records the deletion against the next refresh.
    // 0 on success, -1 when there is no such child.
    long DeleteSubKey(const CKWString& name, bool byMe);
    bool IsSubKeyDeletedHere(const CKWString& name) const {
        auto it = deletedSubkeys_.find(CKWStringPc(name));
        return it != deletedSubkeys_.end() && it->second == CurrentWriteEpoch();
    }
    // Sets or clears the deleted marks.
    void MarkDeleted(bool deleted, bool byMe);
    // Clears the deleted marks. A local revival (the API opened the key
    // again) makes the key and its values this process's unwritten change.
    void Revive(bool local);
    // After the last close of a deleted key: unlinks it, and then each
    // deleted ancestor that is left open nowhere and childless. Takes the
    // parent's and the key's locks itself (none held by the caller).
    static void PruneUpward(RegKey* key);
    // Removes every key and value that neither the last file read saw nor
    // this process changed (exclusive cache lock held). Keys that must be
    // woken are appended to woken. Returns true when this key is to stay.
    bool Purge(int flag, std::vector<RegKey*>& woken);
    // After a successful write: nothing is pending any more (a new epoch).
    static void CommitWritten() { NewWriteEpoch(); }
    void DropValues();
    // The children as they are now (taken under this key's lock).
    std::vector<RegKey*> Children();
    // Deletes every child (exclusive cache lock held, or single-threaded).
    void DropChildren();

    // --- printing (file writer in registry_file.cpp) --------------------
    // The file form of this key's block (and, with recurse, its subtree).
    void Print(PrintSink& out, int recurse, int clearDirty);
    // Writes to a descriptor; false when a write failed.
    bool Print(int fd, int recurse, int clearDirty);
    // The diagnostic stream form (see DumpRegistryCache).
    void Print(std::ostream& out, int recurse, int clearDirty);

    // --- plain fields ----------------------------------------------------
    void IncOpens() { ++opens_; }
    void DecOpens() {
        if (opens_ > 0) --opens_;
    }
    unsigned long GetOpenCount() const { return opens_; }
    void UpdateSequence() { sequence_ = Generation(); }
    bool Validate() const { return sequence_ == Generation(); }
    unsigned long GetRevNumber() const { return __atomic_load_n(&revision_, __ATOMIC_ACQUIRE); }
    void BumpRevision() { __atomic_add_fetch(&revision_, 1, __ATOMIC_ACQ_REL); }
    long GetIndex() const { return index_; }
    void SetIndex(long i) { index_ = i; }
    // The number was reserved by GetUniqueKey or ClaimIndex for this key.
    void MarkAdvertised() {
        inTable_ = 1;
        advertised_ = true;
    }
    // A key line for this key was read in the current generation.
    void MarkLineSeen() { lineSequence_ = Generation(); }
    // Cut off from the tree (buried): no parent to wake any more.
    void Detach() { parent_ = nullptr; }
    const CKWString& GetKey() const { return key_; }
    // The last component of the path.
    CKWString GetName() const;
    void SetDirty(int d) {
        if (d) BumpRevision();
        dirty_ = d;
    }
    int IsDirty() const { return dirty_; }
    bool NeedsWakeup() const { return waiters_ > 0; }
    void DecWakeup() {
        if (waiters_ > 0) --waiters_;
    }
    unsigned long GetWaiters() const { return waiters_; }
    int IsIntable() const { return inTable_; }
    void SetIntable(int v) { inTable_ = v; }
    int IsIntermediate() const { return intermediate_; }
    void SetIntermediate(int v) { intermediate_ = v; }
    void Promote();  // caller holds the key's lock
    void SetCreated() { created_ = 1; }
    void ClearCreated() { created_ = 0; }
    int GetCreated() const { return created_; }
    bool IsDeleted() const { return deleted_ || deletedByMe_; }
    bool IsDeletedByMe() const { return deletedByMe_ != 0; }
    bool IsPending() const { return pendingEpoch_ != 0 && pendingEpoch_ == CurrentWriteEpoch(); }
    void SetPending(bool p) { pendingEpoch_ = p ? CurrentWriteEpoch() : 0; }
    RegKey* GetParent() const { return parent_; }
    void Flush() { deletedSubkeys_.clear(); }
    // Change notification hooks: deliberately empty.
    void AddEvent(Event*) {}
    Event* GetEvent(Event* e) { return e; }

private:
    void ResetSubKeyCursor() {
        subCursorIndex_ = -1;
        subCursorPos_ = 0;
    }
    void UnlinkChild(RegKey* child);
    bool MarkSubtreeDeleted(bool byMe, std::vector<RegKey*>& dead);
    void AppendValueName(const CKWString& name);
    void RemoveValueName(const CKWString& name);

    unsigned long opens_;
    unsigned long sequence_;      // generation that last saw the key on a path
    unsigned long lineSequence_;  // generation that last read its own key line
    unsigned long revision_;
    long index_;
    CKWString key_;
    int dirty_;
    unsigned long waiters_;
    int inTable_;
    bool advertised_;  // its number is entered in AllKeysSet
    int intermediate_;
    int created_;
    int deleted_;
    int deletedByMe_;
    unsigned long pendingEpoch_;  // made or revived here, in this epoch
    RegKey* parent_;
    std::map<CKWStringPc, RegKey*> subkeys_;
    std::vector<CKWString> subkeyNames_;  // creation order; enumeration follows it
    // Names deleted here, with the epoch of the deletion; a record of an
    // earlier epoch is already in the file and counts for nothing.
    std::map<CKWStringPc, unsigned long> deletedSubkeys_;
    std::map<CKWStringPc, RegValue> values_;
    std::vector<CKWString> valueNames_;  // order of first setting
    std::map<CKWStringPc, unsigned long> deletedValues_;
    long subCursorIndex_;  // live index of the child at subCursorPos_; -1: none
    size_t subCursorPos_;
    CriticalSection lock_;
};

std::ostream& operator<<(std::ostream& out, const RegValue& v);
std::ostream& operator<<(std::ostream& out, RegKey& k);

// The root of the tree; its one child is normally HKEY_LOCAL_MACHINE.
RegKey* RegistryKeys();
CriticalSection& TableLock();
CriticalSection& AllKeysLock();

// Walks path from start (see registry_tree.cpp). Returns the key or null;
// index is in/out (the number for a new key, -1 to allocate; the key's
// number on return, 0 on failure).
RegKey* FindKey(RegKey* start, const char* path, int create, int& created, FindMode mode,
                long& index, int keepLocked);

// Looks a handle up in OpenKeyMap (masked); null when unknown. The caller
// holds the cache lock shared at least; the key is returned unlocked.
RegKey* LookupHandle(HKEY hKey);

// Keys unlinked while the cache lock was only shared; freed by
// DrainGraveyard() under the exclusive cache lock.
void BuryKey(RegKey* key);
void DrainGraveyard();

// The full path for subKey under hKey; empty for an unknown handle.
CKWString RegFormatKey(const char* subKey, HKEY hKey);

// Wake-up hooks of change notification (empty by design).
int RegKeyWakeup(RegKey* key);
int RegKeyWakeup(const std::vector<RegKey*>& keys);

// --- file --------------------------------------------------------------
// Reads a registry file from an open descriptor into the tree (the cache
// lock held exclusively by the caller, or single-threaded use).
bool ReadRegistryFd(int fd, int refresh);
// The first read of a process: 1 when the file read correctly, 0 when it is
// empty, -1 when it must not be used or written over (why says why).
int ReadRegistryAtStartUp(const char* path, std::string& why);
// Checks that a value or key line stays readable: no line end, no text the
// reader would take for a key line, and not longer than kRegLineMax.
// The one place of these rules (the API, the tool through the public
// wrappers, and the reader's round trip all depend on them): the reason a
// value or key line would not read back as written, or null.
const char* ValueLineProblem(const char* name, const char* data, unsigned long type);
const char* KeyPathProblem(const char* path);
bool ValueLineFits(const CKWString& name, const CKWString& data, unsigned long type);
bool KeyPathFits(const CKWString& path);
const char* RegTypeWord(unsigned long type);
// A fresh temporary name in dir for a file of this process
// ("<dir>/.tv.registry.tmp.<pid>.<tick>.<n>"): every file the registry
// writes is made under such a name and then moved into place.
CKWString RegistryTempName(const CKWString& dir);
// Removes the temporary files of that pattern whose writer is gone (a
// writer killed mid-write leaves one behind). A live writer's file stays.
void RemoveStaleTempFiles(const CKWString& dir);
// Copies `from` to `to` without following a symbolic link at `to` (nor at
// `from`, unless fromLink: the template may be a packaged link). The copy is written under a
// temporary name, given its owner and mode through the descriptor, flushed, and then moved into
// place (renamed over `to` with replace; otherwise linked, leaving an existing `to` alone). A link
// at `to` is refused and left as it is. False with the reason in why.
bool CopyRegistryFile(const char* from, const char* to, bool replace, bool fromLink,
                      std::string& why);
// The buffer size a query of v needs.
unsigned long QuerySize(const RegValue& v);

// --- cross-process state -------------------------------------------------
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
// Detaches from the shared objects and forgets the stamps (test support).
void ResetSharingForTests();
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
void NotifyResetForTests();

// --- start-up state --------------------------------------------------------
bool RegistryReady();
void EnsureRegistry();
bool LazyFlushOn();
void SetFlushNeeded();
// Owner, group and mode given to every file the registry writes; false when
// the template could not be examined (files then keep their defaults).
bool RegistryFileOwner(uid_t& uid, gid_t& gid, mode_t& mode);

// Test support: detaches from the shared objects, drops the whole tree and
// forgets every path and flag, so that the next call starts the registry
// afresh (and re-reads TV_REGISTRY).
void RegistryResetForTests();
// Drops the tree and its tables only (no shared objects touched).
void ClearRegistryTree();

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

#endif  // TV_REGISTRY_REGISTRY_INTERNAL_H
