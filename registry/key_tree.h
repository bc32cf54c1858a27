// The key tree: the in-memory registry of this process. Owns the keys and
// their values, the open-handle table, the key numbers (allocation, claims
// from the file, the set of numbers in use), the write epochs that mark this
// process's unwritten changes, and the deleted-key bookkeeping (deletion
// marks, the graveyard of keys unlinked under the shared cache lock).
//
// May call: the foundation and the public handle and string types only. It
// knows nothing of other processes; the file format module fills it and
// prints it (RegKey::Print is defined there), and the shared-state module
// decides when.
//
// Lock order (see registry_sharing.cpp for the whole protocol):
//   registry cache lock -> registry semaphore -> key locks (parent before
//   child) -> TableLock / AllKeysLock / GraveyardLock (leaves).
#ifndef TV_REGISTRY_KEY_TREE_H
#define TV_REGISTRY_KEY_TREE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <strings.h>

#include <atomic>
#include <iosfwd>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "registry/registry_locks.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/registry.h"
#include "tvcommonutil/strings.h"
#include "tvcommonutil/thread_annotations.h"

namespace tv {
namespace detail {

// Access bits of a requested mask that make a handle a write handle.
constexpr unsigned long kRegWriteAccess = 0x60000;

class RegKey;

// Leaf locks of the process-wide tables: the open-handle table (its writers;
// see LookupHandle) and RegKey::AllKeysSet.
CriticalSection& TableLock();
CriticalSection& AllKeysLock();
// Writers of the open-handle table (registry_tree.cpp).
void ListKeyLocked(RegKey* key) TV_REQUIRES(TableLock());
void UnlistKeyLocked(RegKey* key) TV_REQUIRES(TableLock());

// Write epochs. Every successful write of the file starts a new epoch; a
// change of this process is pending (not yet in the file) exactly while it
// carries the current epoch. So a write commits every pending mark at once,
// without a walk over the tree.
unsigned long CurrentWriteEpoch();
void NewWriteEpoch();

struct PrintSink;  // registry_format.h

// One named value. Data is always text (see the file format).
//
// A pending value was set by this process and is not yet in the file (its
// epoch is the current write epoch); a refresh from the file never
// overwrites or drops it. Guarded by the owning key's lock (not annotated:
// a value does not know its key, and the analysis cannot name another
// object's lock).
// A value's name or data: the text inside the value, zero-terminated, for
// as long as the value is neither changed nor moved.
struct ValueText {
    const char* text;
    size_t size;
    const char* c_str() const { return text; }
    size_t length() const { return size; }
    std::string str() const { return std::string(text, size); }
    bool operator==(const char* s) const { return strncmp(text, s, size) == 0 && s[size] == 0; }
};

class RegValue {
public:
    RegValue() { inline_[0] = inline_[1] = '\0'; }
    RegValue(unsigned long type, const CKWString& name, const CKWString& data) : RegValue() {
        type_ = type;
        Store(name.c_str(), static_cast<size_t>(name.length()), data.c_str(),
              static_cast<size_t>(data.length()));
    }
    RegValue(unsigned long type, const char* name, size_t nameLen, const char* data, size_t dataLen)
        : RegValue() {
        type_ = type;
        Store(name, nameLen, data, dataLen);
    }
    RegValue(const RegValue& o) : RegValue() { *this = o; }
    RegValue& operator=(const RegValue& o) {
        if (this == &o) return *this;
        sequence_ = o.sequence_;
        type_ = o.type_;
        pendingEpoch_ = o.pendingEpoch_;
        Store(o.Text(), o.nameLen_, o.Text() + o.nameLen_ + 1, o.dataLen_);
        return *this;
    }
    // A key keeps its values in a vector: growing it moves them.
    RegValue(RegValue&& o) noexcept : RegValue() { *this = std::move(o); }
    RegValue& operator=(RegValue&& o) noexcept {
        if (this == &o) return *this;
        Free();
        sequence_ = o.sequence_;
        type_ = o.type_;
        pendingEpoch_ = o.pendingEpoch_;
        nameLen_ = o.nameLen_;
        dataLen_ = o.dataLen_;
        if (o.OnHeap()) {
            heap_ = o.heap_;
            o.nameLen_ = o.dataLen_ = 0;
            o.inline_[0] = o.inline_[1] = '\0';
        } else {
            memcpy(inline_, o.inline_, nameLen_ + dataLen_ + 2);
        }
        return *this;
    }
    ~RegValue() { Free(); }

    // Type, name and data equal (sequence and pending are bookkeeping).
    bool operator==(const RegValue& o) const {
        return type_ == o.type_ && nameLen_ == o.nameLen_ && dataLen_ == o.dataLen_ &&
               memcmp(Text(), o.Text(), nameLen_ + dataLen_ + 2) == 0;
    }
    void UpdateSequence(unsigned long generation) { sequence_ = generation; }
    bool Validate(unsigned long generation) const { return sequence_ == generation; }
    // Parses one value line ("name=data;TYPE"); false for a line to ignore.
    bool FormatValue(const char* line);
    // As a fresh RegValue(type, name, data) would be.
    void Assign(unsigned long type, const char* name, size_t nameLen, const char* data,
                size_t dataLen) {
        sequence_ = 0;
        type_ = type;
        pendingEpoch_ = 0;
        Store(name, nameLen, data, dataLen);
    }

    unsigned long GetSequence() const { return sequence_; }
    unsigned long GetType() const { return type_; }
    ValueText GetName() const { return {Text(), nameLen_}; }
    ValueText GetData() const { return {Text() + nameLen_ + 1, dataLen_}; }
    bool IsPending() const { return pendingEpoch_ != 0 && pendingEpoch_ == CurrentWriteEpoch(); }
    void SetPending(bool p) { pendingEpoch_ = p ? CurrentWriteEpoch() : 0; }

private:
    // Name and data share one buffer, "name\0data\0": inside the value when
    // they fit (most names and data are short, and a key's values then sit
    // in one block of memory without an allocation each), else on the heap.
    static constexpr size_t kInline = 48;
    bool OnHeap() const { return nameLen_ + dataLen_ + 2 > kInline; }
    const char* Text() const { return OnHeap() ? heap_ : inline_; }
    void Free() {
        if (OnHeap()) delete[] heap_;
    }
    // The sources never lie in this value's own buffer.
    void Store(const char* name, size_t nameLen, const char* data, size_t dataLen) {
        const size_t need = nameLen + dataLen + 2;
        char* to = need <= kInline ? nullptr : new char[need];
        Free();
        if (to == nullptr) to = inline_;
        nameLen_ = static_cast<uint32_t>(nameLen);
        dataLen_ = static_cast<uint32_t>(dataLen);
        if (to != inline_) heap_ = to;
        memcpy(to, name, nameLen);
        to[nameLen] = '\0';
        memcpy(to + nameLen + 1, data, dataLen);
        to[nameLen + 1 + dataLen] = '\0';
    }

    unsigned long sequence_ = 0;
    unsigned long type_ = 0;
    unsigned long pendingEpoch_ = 0;
    uint32_t nameLen_ = 0;
    uint32_t dataLen_ = 0;
    union {
        char inline_[kInline];
        char* heap_;
    };
};

// strcasecmp in the POSIX locale, inline: names are short and mostly differ
// early, where a call and the locale lookup of strcasecmp cost more than
// the compare. It also keeps the order of a key's names fixed should the
// program change its locale while the tree is alive.
inline int CompareNames(const char* a, const char* b) {
    for (;; ++a, ++b) {
        unsigned ca = static_cast<unsigned char>(*a);
        unsigned cb = static_cast<unsigned char>(*b);
        if (ca == cb) {
            if (ca == 0) return 0;
            continue;
        }
        ca += ca - 'A' < 26u ? 32u : 0u;
        cb += cb - 'A' < 26u ? 32u : 0u;
        if (ca != cb) return static_cast<int>(ca) - static_cast<int>(cb);
    }
}

// The order of names in a key (strcasecmp, as CKWStringPc orders), also
// against plain text, so that a lookup by a caller's name copies nothing.
struct NameLess {
    using is_transparent = void;
    bool operator()(const CKWStringPc& a, const CKWStringPc& b) const {
        return CompareNames(a.c_str(), b.c_str()) < 0;
    }
    bool operator()(const CKWStringPc& a, const char* b) const {
        return CompareNames(a.c_str(), b) < 0;
    }
    bool operator()(const char* a, const CKWStringPc& b) const {
        return CompareNames(a, b.c_str()) < 0;
    }
};

// How FindKey is used: by the API (counts opens, allocates numbers), by the
// first load of an empty tree, or by a refresh of a live tree.
enum class FindMode { kApi, kLoad, kRefresh };

// How FindKey walks: whether it makes the missing keys, whether the key
// comes back still locked (the file reader fills it before anyone sees it),
// and for whom (see FindMode).
struct FindKeyOptions {
    bool create = false;
    bool keepLocked = false;
    FindMode mode = FindMode::kApi;
};

// A node of the in-memory registry.
//
// Locking: lock_ guards every mutable field below (values, children, flags,
// counters). Callers that only read values take it shared (LockShared);
// everything else takes it exclusively (Lock). The path, the parent pointer and the index never
// change after construction, except that an intermediate key is numbered once under its own lock
// and its parent's. Walks lock parent before child, hand over hand, never two siblings. The whole
// tree is additionally guarded by the registry cache lock: API calls hold it shared, file reads and
// writes exclusively. A key unlinked from the tree while the cache lock is only shared goes to the
// graveyard and is freed under the exclusive lock, so a pointer taken under the shared lock stays
// valid memory until that lock is released.
class RegKey {
public:
    RegKey();  // the unnamed root
    RegKey(long index, CKWString path, RegKey* parent, int intermediate, unsigned long opens);
    ~RegKey();
    RegKey(const RegKey&) = delete;
    RegKey& operator=(const RegKey&) = delete;

    void Lock() TV_NO_THREAD_SAFETY_ANALYSIS { lock_.Lock(); }
    void Unlock() TV_NO_THREAD_SAFETY_ANALYSIS { lock_.Unlock(); }
    void LockShared() TV_NO_THREAD_SAFETY_ANALYSIS { lock_.LockShared(); }
    void UnlockShared() TV_NO_THREAD_SAFETY_ANALYSIS { lock_.UnlockShared(); }

    // --- process-wide tables -------------------------------------------
    static std::set<long>& AllKeysSet() TV_REQUIRES(AllKeysLock());
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

    // Makes the key's handle valid (entering it in the open-handle table at
    // its first open). May take TableLock.
    bool OpenHandle(int access);
    // After the last close: the handle is unknown from now on.
    void CloseHandle() { hasHandles_.store(false, std::memory_order_release); }
    bool HasHandles() const { return hasHandles_.load(std::memory_order_acquire); }

    // --- values (caller holds the key's lock) ---------------------------
    // Stores v; changed says whether type or data differed. `local` marks
    // the value as this process's unwritten change and drops any deletion
    // mark of the name.
    bool SetValue(const RegValue& v, int& changed, bool local);
    // SetValue(RegValue(type, name, data), changed, false) for a value line
    // of the file, without building the value first.
    void SetValueFromFile(unsigned long type, const char* name, size_t nameLen, const char* data,
                          size_t dataLen, int& changed);
    // Removes a value; `local` records the deletion so a refresh does not
    // bring the value back from the file before it is written.
    bool DeleteValue(const CKWString& name, bool local);
    const RegValue* FindValue(const char* name) const;
    const RegValue* ValueAt(long index) const;
    size_t ValueCount() const { return values_.size(); }
    // Room for n values in all, so that reading a key's block from the file
    // does not regrow (and move) them value by value.
    void ReserveValues(size_t n) {
        if (n <= values_.capacity()) return;
        values_.reserve(n);
        byName_.reserve(n);
    }
    bool IsValueDeletedHere(const char* name) const {
        auto it = deletedValues_.find(name);
        return it != deletedValues_.end() && it->second == CurrentWriteEpoch();
    }

    // --- children (caller holds the key's lock) -------------------------
    using SubKeyMap = std::map<CKWStringPc, RegKey*, NameLess>;
    RegKey* GetSubKey(const char* name) const;
    // As GetSubKey; `at` receives where a child of that name would go, for
    // InsertSubKeyAt while the children stay as they are.
    RegKey* GetSubKey(const char* name, SubKeyMap::iterator& at);
    // The index-th child that is not marked deleted; uses the cursor.
    RegKey* SubKeyAt(long index);
    size_t LiveSubKeyCount() const;
    // Counts and longest lengths for RegQueryInfoKey: subkey and value
    // names in characters, value data in bytes as a query needs them.
    void GetInfo(unsigned long& subKeys, unsigned long& maxSubKeyLen, unsigned long& values,
                 unsigned long& maxValueNameLen, unsigned long& maxValueLen) const;
    // Enters a new child at the place GetSubKey gave; false when the name is
    // taken.
    bool InsertSubKeyAt(SubKeyMap::iterator at, const char* name, RegKey* child);
    // Marks the child and its subtree deleted, removes what holds no open
    // handle, and (when byMe) records the deletion against the next refresh.
    // 0 on success, -1 when there is no such child.
    long DeleteSubKey(const CKWString& name, bool byMe);
    bool IsSubKeyDeletedHere(const char* name) const {
        auto it = deletedSubkeys_.find(name);
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
    // Where name is in byName_ (found), or where it would go.
    size_t ValueNamePos(const char* name, bool& found) const;
    // Appends RegValue(args...) and enters it at namePos of byName_.
    template <typename... Args>
    RegValue& InsertValue(size_t namePos, Args&&... args);
    void EraseValue(size_t namePos);

    // Every field from opens_ to subCursorPos_ is guarded by lock_, yet not
    // annotated (TV_NO_THREAD_SAFETY_ANALYSIS on Lock and Unlock):
    // hand-over-hand locking, and a key locked by one function and used by
    // its callees, are beyond what the analysis can follow.
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
    SubKeyMap subkeys_;
    std::vector<RegKey*> subkeyOrder_;  // the children in creation order; enumeration follows it
    // Names deleted here, with the epoch of the deletion; a record of an
    // earlier epoch is already in the file and counts for nothing.
    std::map<CKWStringPc, unsigned long, NameLess> deletedSubkeys_;
    // The values in order of first setting (enumeration follows it), and
    // their positions in values_ sorted by name (lookups and the file
    // follow that). A key holds a handful of values: two vectors cost fewer
    // allocations and cache lines than a tree, and a removal renumbers in
    // one pass.
    std::vector<RegValue> values_;
    std::vector<uint32_t> byName_;
    std::map<CKWStringPc, unsigned long, NameLess> deletedValues_;
    long subCursorIndex_;  // live index of the child at subCursorPos_; -1: none
    size_t subCursorPos_;
    KeyLock lock_;
    // Set while the key has open handles (from its first OpenHandle to the
    // last close): LookupHandle knows the handle by it.
    std::atomic<bool> hasHandles_{false};
    // Entered in the open-handle table (written under TableLock).
    std::atomic<bool> listed_{false};
    friend void ListKeyLocked(RegKey* key);
    friend void UnlistKeyLocked(RegKey* key);
};

std::ostream& operator<<(std::ostream& out, const RegValue& v);
std::ostream& operator<<(std::ostream& out, RegKey& k);

// The root of the tree; its one child is normally HKEY_LOCAL_MACHINE.
RegKey* RegistryKeys();

// Walks path from start (see registry_tree.cpp). Returns the key or null;
// index is in/out (the number for a new key, -1 to allocate; the key's
// number on return, 0 on failure).
RegKey* FindKey(RegKey* start, const char* path, const FindKeyOptions& options, int& created,
                long& index);

// The last step of FindKey alone: the child `name` of parent, which the
// caller found by an earlier walk under the same exclusive cache lock (the
// file reader, whose key lines mostly name a sibling or a child of the key
// before). name holds no backslash and is not empty.
RegKey* FindChildKey(RegKey* parent, const char* name, const FindKeyOptions& options, int& created,
                     long& index);

// Looks a handle up (masked); null when unknown. Takes no lock: the caller
// holds the cache lock shared at least (which keeps the key's memory and
// the table's alive); the key is returned unlocked.
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

// The buffer size a query of v needs.
unsigned long QuerySize(const RegValue& v);

}  // namespace detail
}  // namespace tv

#endif  // TV_REGISTRY_KEY_TREE_H
