// The in-memory key tree: keys, values, the handle tables, key numbering and
// the path walk FindKey.
//
// Numbers. Every key that can be handed out as an HKEY owns a number in
// 1..0x3fffffff, entered in AllKeysSet (0 is HKEY_LOCAL_MACHINE and is never
// drawn). GetUniqueKey reserves the number it returns, so two threads never
// draw the same one; numbers read from the file are claimed with ClaimIndex
// and replaced by a fresh one when out of range or already taken by another
// key. Intermediate keys (made only as the path to a deeper key) own no
// number until the API opens them; they then get their own.
//
// Lifetime. A key leaves the tree when it is deleted and holds no open
// handle (a deleted key that is still open stays, marked deleted and skipped
// by the writer, until its last close). Unlinking under the shared cache
// lock buries the key instead of freeing it: another thread may still hold
// the pointer it looked up under the same shared lock. The graveyard is
// emptied under the exclusive cache lock, when no such pointer can exist.
//
// Pending state. The marks that protect this process's unwritten changes
// from a refresh (pending keys and values, deletion records of values and
// subkeys) are kept here and interpreted by Purge and FindKey; the rule
// itself is described with the coherence protocol in registry_sharing.cpp.
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <ostream>
#include <tuple>
#include <utility>

#include "registry/key_tree.h"
#include "registry/testing.h"
#include "tvcommonutil/services.h"

namespace tv {
namespace detail {

namespace {

unsigned long g_generation = 1;
unsigned long g_writeEpoch = 1;

// Keys unlinked under the shared cache lock, waiting for the exclusive one.
CriticalSection g_graveyard_lock;  // leaf
std::vector<RegKey*>* g_graveyard TV_GUARDED_BY(g_graveyard_lock) = nullptr;

// Built in one piece: a path of usual length costs a single allocation.
CKWString ChildPath(const RegKey* parent, const char* name) {
    if (parent->GetParent() == nullptr) return CKWString(name);
    const std::string& base = parent->GetKey().str();
    const size_t n = strlen(name);
    char local[512];
    if (base.size() + 1 + n >= sizeof local) return parent->GetKey() + "\\" + name;
    memcpy(local, base.data(), base.size());
    local[base.size()] = '\\';
    memcpy(local + base.size() + 1, name, n + 1);
    return CKWString(local);
}

// The components of a path, split at backslashes in a copy of the text.
// Empty components (doubled or edge backslashes) are skipped, so "A\\B"
// and "A\B\" name the same key. Paths of usual length need no allocation.
class PathParts {
public:
    explicit PathParts(const char* path) {
        if (path == nullptr) return;
        const size_t n = strlen(path);
        char* buf = local_;
        if (n < sizeof local_) {
            memcpy(local_, path, n + 1);
        } else {
            heap_.assign(path, n);
            buf = &heap_[0];
        }
        char* p = buf;
        char* const end = buf + n;
        while (p < end) {
            char* stop = static_cast<char*>(memchr(p, '\\', static_cast<size_t>(end - p)));
            if (stop == nullptr) stop = end;
            if (stop > p) Push(p);
            *stop = '\0';
            p = stop + 1;
        }
    }
    PathParts(const PathParts&) = delete;
    PathParts& operator=(const PathParts&) = delete;

    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    const char* operator[](size_t i) const { return i < kInline ? inline_[i] : more_[i - kInline]; }
    const char* back() const { return (*this)[count_ - 1]; }

private:
    static constexpr size_t kInline = 16;
    void Push(const char* part) {
        if (count_ < kInline) {
            inline_[count_] = part;
        } else {
            more_.push_back(part);
        }
        ++count_;
    }

    char local_[512];
    std::string heap_;
    const char* inline_[kInline];
    std::vector<const char*> more_;
    size_t count_ = 0;
};

}  // namespace

// ---------------------------------------------------------------------------
// Process-wide tables
// ---------------------------------------------------------------------------

unsigned long CurrentWriteEpoch() {
    return __atomic_load_n(&g_writeEpoch, __ATOMIC_ACQUIRE);
}

void NewWriteEpoch() {
    __atomic_add_fetch(&g_writeEpoch, 1, __ATOMIC_ACQ_REL);
}

RegKey* RegistryKeys() {
    static RegKey* root = new RegKey();
    return root;
}

CriticalSection& TableLock() {
    static CriticalSection lock;
    return lock;
}

CriticalSection& AllKeysLock() {
    static CriticalSection lock;
    return lock;
}

std::set<long>& RegKey::AllKeysSet() {
    static auto* set = new std::set<long>();
    return *set;
}

unsigned long RegKey::Generation() {
    return __atomic_load_n(&g_generation, __ATOMIC_ACQUIRE);
}

void RegKey::NewGeneration() {
    __atomic_add_fetch(&g_generation, 1, __ATOMIC_ACQ_REL);
}

long RegKey::GetUniqueKey() {
    CriticalSectionHolder hold(AllKeysLock());
    for (;;) {
        long n = static_cast<long>(KwRandom(0x3fffffff));
        if (n == 0) continue;  // HKEY_LOCAL_MACHINE
        if (AllKeysSet().insert(n).second) return n;
    }
}

bool RegKey::ClaimIndex(long index) {
    if (index <= 0 || index > KEY_INDEX_MASK) return false;
    CriticalSectionHolder hold(AllKeysLock());
    return AllKeysSet().insert(index).second;
}

bool RegKey::Advertise(RegKey* child) {
    if (child->parent_ == nullptr) {
        child->inTable_ = 1;
        return true;
    }
    if (child->advertised_) return true;
    bool ok;
    {
        CriticalSectionHolder hold(AllKeysLock());
        ok = AllKeysSet().insert(child->index_).second;
    }
    if (ok) {
        child->inTable_ = 1;
        child->advertised_ = true;
    }
    return ok;
}

void RegKey::Unadvertise(RegKey* child, bool wake) {
    if (child->advertised_) {
        CriticalSectionHolder hold(AllKeysLock());
        AllKeysSet().erase(child->index_);
        child->advertised_ = false;
    }
    if (wake && child->parent_ != nullptr && child->parent_->NeedsWakeup()) {
        RegKeyWakeup(child->parent_);
    }
}

// ---------------------------------------------------------------------------
// The open-handle table
// ---------------------------------------------------------------------------
//
// Every API call with a handle looks its key up here, so lookups take no
// lock: the table is an open-addressing array of key pointers, probed
// linearly from a hash of the number, and a key's number never changes once
// it has one. TableLock serialises the writers. A key is entered at its
// first open and stays entered after its last close (its hasHandles_ flag
// says whether the handle is valid), so opens and closes of a known key
// write nothing shared; it is taken out (a tombstone) when the key is freed,
// or replaced when its number passes to a new key while it waits in the
// graveyard. A table that fills up is copied into a fresh one; the old copy
// stays readable for the lookups still inside it and is freed under the
// exclusive cache lock, like the keys themselves.

namespace {

RegKey* const kTombstone = reinterpret_cast<RegKey*>(alignof(RegKey));

struct HandleArray {
    explicit HandleArray(size_t n) : mask(n - 1), slots(new std::atomic<RegKey*>[n]) {
        for (size_t i = 0; i < n; ++i) slots[i].store(nullptr, std::memory_order_relaxed);
    }
    ~HandleArray() { delete[] slots; }
    HandleArray(const HandleArray&) = delete;
    HandleArray& operator=(const HandleArray&) = delete;
    size_t mask;
    std::atomic<RegKey*>* slots;
};

std::atomic<HandleArray*> g_handles{nullptr};
size_t g_handlesUsed TV_GUARDED_BY(TableLock()) = 0;  // entries and tombstones
size_t g_handlesLive TV_GUARDED_BY(TableLock()) = 0;
std::vector<HandleArray*>* g_retiredHandles TV_GUARDED_BY(TableLock()) = nullptr;

size_t HandleHash(long index) {
    return static_cast<size_t>((static_cast<uint64_t>(index) * 0x9E3779B97F4A7C15ull) >> 24);
}

RegKey* FindListed(const HandleArray* a, long index) {
    for (size_t i = HandleHash(index) & a->mask, n = 0; n <= a->mask; i = (i + 1) & a->mask, ++n) {
        RegKey* k = a->slots[i].load(std::memory_order_acquire);
        if (k == nullptr) return nullptr;
        if (k != kTombstone && k->GetIndex() == index) return k;
    }
    return nullptr;
}

void PlaceFresh(HandleArray* a, RegKey* key) {
    size_t i = HandleHash(key->GetIndex()) & a->mask;
    while (a->slots[i].load(std::memory_order_relaxed) != nullptr) i = (i + 1) & a->mask;
    a->slots[i].store(key, std::memory_order_relaxed);
}

// Copies the live entries into a table with room for four times as many.
HandleArray* RebuildHandles(HandleArray* old) TV_REQUIRES(TableLock()) {
    size_t n = 16;
    while (n < 4 * (g_handlesLive + 1)) n *= 2;
    auto* fresh = new HandleArray(n);
    if (old != nullptr) {
        for (size_t i = 0; i <= old->mask; ++i) {
            RegKey* k = old->slots[i].load(std::memory_order_relaxed);
            if (k != nullptr && k != kTombstone) PlaceFresh(fresh, k);
        }
        if (g_retiredHandles == nullptr) g_retiredHandles = new std::vector<HandleArray*>();
        g_retiredHandles->push_back(old);
    }
    g_handlesUsed = g_handlesLive;
    g_handles.store(fresh, std::memory_order_release);
    return fresh;
}

}  // namespace

void ListKeyLocked(RegKey* key) {
    HandleArray* a = g_handles.load(std::memory_order_relaxed);
    if (a == nullptr || (g_handlesUsed + 1) * 2 > a->mask + 1) a = RebuildHandles(a);
    const long index = key->GetIndex();
    size_t i = HandleHash(index) & a->mask;
    size_t freeSlot = a->mask + 1;
    for (;; i = (i + 1) & a->mask) {
        RegKey* k = a->slots[i].load(std::memory_order_relaxed);
        if (k == nullptr) break;
        if (k == kTombstone) {
            if (freeSlot > a->mask) freeSlot = i;
            continue;
        }
        if (k->GetIndex() == index) {
            // The number's previous key is in the graveyard: the new one
            // takes its entry.
            k->listed_.store(false, std::memory_order_relaxed);
            a->slots[i].store(key, std::memory_order_release);
            key->listed_.store(true, std::memory_order_release);
            return;
        }
    }
    if (freeSlot > a->mask) {
        freeSlot = i;
        ++g_handlesUsed;
    }
    a->slots[freeSlot].store(key, std::memory_order_release);
    ++g_handlesLive;
    key->listed_.store(true, std::memory_order_release);
}

void UnlistKeyLocked(RegKey* key) {
    if (!key->listed_.load(std::memory_order_relaxed)) return;
    key->listed_.store(false, std::memory_order_relaxed);
    HandleArray* a = g_handles.load(std::memory_order_relaxed);
    if (a == nullptr) return;
    for (size_t i = HandleHash(key->GetIndex()) & a->mask;; i = (i + 1) & a->mask) {
        RegKey* k = a->slots[i].load(std::memory_order_relaxed);
        if (k == nullptr) return;
        if (k == key) {
            a->slots[i].store(kTombstone, std::memory_order_release);
            --g_handlesLive;
            return;
        }
    }
}

bool RegKey::OpenHandle(int) {
    if (!listed_.load(std::memory_order_acquire)) {
        CriticalSectionHolder hold(TableLock());
        if (!listed_.load(std::memory_order_relaxed)) ListKeyLocked(this);
    }
    hasHandles_.store(true, std::memory_order_release);
    return true;
}

RegKey* LookupHandle(HKEY hKey) {
    const HandleArray* a = g_handles.load(std::memory_order_acquire);
    if (a == nullptr) return nullptr;
    RegKey* k = FindListed(a, hKey & KEY_INDEX_MASK);
    return k != nullptr && k->HasHandles() ? k : nullptr;
}

void BuryKey(RegKey* key) {
    key->Detach();
    CriticalSectionHolder hold(g_graveyard_lock);
    if (g_graveyard == nullptr) g_graveyard = new std::vector<RegKey*>();
    g_graveyard->push_back(key);
}

void DrainGraveyard() {
    std::vector<RegKey*> dead;
    {
        CriticalSectionHolder hold(g_graveyard_lock);
        if (g_graveyard != nullptr) dead.swap(*g_graveyard);
    }
    for (RegKey* k : dead) delete k;
    std::vector<HandleArray*> tables;
    {
        CriticalSectionHolder hold(TableLock());
        if (g_retiredHandles != nullptr) tables.swap(*g_retiredHandles);
    }
    for (HandleArray* a : tables) delete a;
}

CKWString RegFormatKey(const char* subKey, HKEY hKey) {
    CKWString path;
    if (hKey == HKEY_LOCAL_MACHINE) {
        path = "HKEY_LOCAL_MACHINE\\";
        path += subKey;
    } else {
        RegKey* key = LookupHandle(hKey);
        if (key == nullptr) return CKWString();
        // The path of a key never changes after construction.
        path = key->GetKey();
        path += "\\";
        path += subKey;
    }
    while (!path.empty() && path[path.length() - 1] == '\\') path.erase(path.length() - 1, 1);
    return path;
}

// ---------------------------------------------------------------------------
// RegKey
// ---------------------------------------------------------------------------

RegKey::RegKey() : RegKey(0, CKWString(), nullptr, 0, 0) {
    inTable_ = 1;
}

RegKey::RegKey(long index, CKWString path, RegKey* parent, int intermediate, unsigned long opens)
    : opens_(opens),
      sequence_(0),
      lineSequence_(0),
      revision_(0),
      index_(index),
      key_(std::move(path)),
      dirty_(0),
      waiters_(0),
      inTable_(0),
      advertised_(false),
      intermediate_(intermediate),
      created_(0),
      deleted_(0),
      deletedByMe_(0),
      pendingEpoch_(0),
      parent_(parent),
      subCursorIndex_(-1),
      subCursorPos_(0) {}

RegKey::~RegKey() {
    for (auto& kv : subkeys_) delete kv.second;
    if (listed_.load(std::memory_order_acquire)) {
        CriticalSectionHolder hold(TableLock());
        UnlistKeyLocked(this);
    }
    Unadvertise(this, true);
}

CKWString RegKey::GetName() const {
    unsigned int pos = key_.rfind('\\');
    if (pos == CKWString::npos) return key_;
    return key_.substr(static_cast<int>(pos) + 1);
}

size_t RegKey::ValueNamePos(const char* name, bool& found) const {
    size_t lo = 0;
    size_t hi = byName_.size();
    while (lo < hi) {
        const size_t mid = lo + (hi - lo) / 2;
        const int c = CompareNames(values_[byName_[mid]].GetName().c_str(), name);
        if (c == 0) {
            found = true;
            return mid;
        }
        if (c < 0) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    found = false;
    return lo;
}

template <typename... Args>
RegValue& RegKey::InsertValue(size_t namePos, Args&&... args) {
    // Room first, so that a failed allocation leaves both vectors as they
    // were; four spares the first regrowths of a key read from the file.
    if (byName_.size() == byName_.capacity()) {
        byName_.reserve(std::max<size_t>(4, byName_.size() * 2));
    }
    if (values_.size() == values_.capacity()) {
        values_.reserve(std::max<size_t>(4, values_.size() * 2));
    }
    // The value first: building it may allocate; the insert cannot throw.
    values_.emplace_back(std::forward<Args>(args)...);
    byName_.insert(byName_.begin() + static_cast<ptrdiff_t>(namePos),
                   static_cast<uint32_t>(values_.size() - 1));
    return values_.back();
}

void RegKey::EraseValue(size_t namePos) {
    const uint32_t at = byName_[namePos];
    byName_.erase(byName_.begin() + static_cast<ptrdiff_t>(namePos));
    values_.erase(values_.begin() + at);
    for (uint32_t& i : byName_) i -= i > at ? 1 : 0;
}

bool RegKey::SetValue(const RegValue& v, int& changed, bool local) {
    bool found = false;
    const size_t pos = ValueNamePos(v.GetName().c_str(), found);
    RegValue* slot;
    if (found) {
        slot = &values_[byName_[pos]];
        if (*slot == v) {
            slot->UpdateSequence(Generation());
            changed = 0;
            return true;
        }
        *slot = v;  // keeps its place in both orders
    } else {
        slot = &InsertValue(pos, v);
    }
    slot->UpdateSequence(Generation());
    slot->SetPending(local);
    if (local) {
        deletedValues_.erase(v.GetName().c_str());
        Promote();
    }
    changed = 1;
    return true;
}

void RegKey::SetValueFromFile(unsigned long type, const char* name, size_t nameLen,
                              const char* data, size_t dataLen, int& changed) {
    // The writer lays a key's values out in name order, so a read of the
    // file mostly appends: the last name is tried before a search.
    bool found = false;
    size_t pos = byName_.size();
    if (!byName_.empty() && CompareNames(values_[byName_.back()].GetName().c_str(), name) >= 0) {
        pos = ValueNamePos(name, found);
    }
    if (found) {
        RegValue& old = values_[byName_[pos]];
        const ValueText oldName = old.GetName();
        const ValueText oldData = old.GetData();
        if (old.GetType() == type && oldName.size == nameLen &&
            memcmp(oldName.text, name, nameLen) == 0 && oldData.size == dataLen &&
            memcmp(oldData.text, data, dataLen) == 0) {
            old.UpdateSequence(Generation());
            changed = 0;
            return;
        }
        old.Assign(type, name, nameLen, data, dataLen);  // keeps its place in both orders
        old.UpdateSequence(Generation());
    } else {
        InsertValue(pos, type, name, nameLen, data, dataLen).UpdateSequence(Generation());
    }
    changed = 1;
}

// A key that was only the path to a deeper one becomes a key of its own
// once the program creates it or stores a value in it: the writer skips
// intermediate keys, so anything set on one would never reach the file.
void RegKey::Promote() {
    if (!intermediate_ || parent_ == nullptr) return;
    intermediate_ = 0;
    if (index_ == 0) {
        SetIndex(GetUniqueKey());
        MarkAdvertised();
    }
    SetPending(true);
    SetDirty(1);
}

bool RegKey::DeleteValue(const CKWString& name, bool local) {
    bool found = false;
    const size_t pos = ValueNamePos(name.c_str(), found);
    if (!found) return false;
    EraseValue(pos);
    if (local) deletedValues_[CKWStringPc(name)] = CurrentWriteEpoch();
    return true;
}

const RegValue* RegKey::FindValue(const char* name) const {
    bool found = false;
    const size_t pos = ValueNamePos(name, found);
    return found ? &values_[byName_[pos]] : nullptr;
}

const RegValue* RegKey::ValueAt(long index) const {
    if (index < 0 || static_cast<size_t>(index) >= values_.size()) return nullptr;
    return &values_[static_cast<size_t>(index)];
}

RegKey* RegKey::GetSubKey(const char* name) const {
    auto it = subkeys_.find(name);
    return it == subkeys_.end() ? nullptr : it->second;
}

RegKey* RegKey::GetSubKey(const char* name, SubKeyMap::iterator& at) {
    at = subkeys_.lower_bound(name);
    return at != subkeys_.end() && !NameLess()(name, at->first) ? at->second : nullptr;
}

// Children marked deleted but still open keep their place in the order list
// and are skipped here; the cursor makes a walk by ascending index linear.
RegKey* RegKey::SubKeyAt(long index) {
    if (index < 0) return nullptr;
    size_t pos = 0;
    long live = 0;
    if (subCursorIndex_ >= 0 && subCursorIndex_ <= index && subCursorPos_ < subkeyOrder_.size()) {
        pos = subCursorPos_;
        live = subCursorIndex_;
    }
    for (; pos < subkeyOrder_.size(); ++pos) {
        RegKey* k = subkeyOrder_[pos];
        if (k->IsDeleted()) continue;
        if (live == index) {
            subCursorIndex_ = live;
            subCursorPos_ = pos;
            return k;
        }
        ++live;
    }
    return nullptr;
}

size_t RegKey::LiveSubKeyCount() const {
    size_t n = 0;
    for (auto& kv : subkeys_) {
        if (!kv.second->IsDeleted()) ++n;
    }
    return n;
}

void RegKey::GetInfo(unsigned long& subKeys, unsigned long& maxSubKeyLen, unsigned long& values,
                     unsigned long& maxValueNameLen, unsigned long& maxValueLen) const {
    subKeys = maxSubKeyLen = values = maxValueNameLen = maxValueLen = 0;
    for (auto& kv : subkeys_) {
        if (kv.second->IsDeleted()) continue;
        ++subKeys;
        maxSubKeyLen = std::max(maxSubKeyLen, static_cast<unsigned long>(kv.first.length()));
    }
    for (const RegValue& v : values_) {
        ++values;
        maxValueNameLen =
            std::max(maxValueNameLen, static_cast<unsigned long>(v.GetName().length()));
        maxValueLen = std::max(maxValueLen, QuerySize(v));
    }
}

bool RegKey::InsertSubKeyAt(SubKeyMap::iterator at, const char* name, RegKey* child) {
    const size_t before = subkeys_.size();
    subkeys_.emplace_hint(at, std::piecewise_construct, std::forward_as_tuple(name),
                          std::forward_as_tuple(child));
    if (subkeys_.size() == before) return false;
    subkeyOrder_.push_back(child);
    return true;
}

void RegKey::UnlinkChild(RegKey* child) {
    subkeys_.erase(CKWStringPc(child->GetName()));
    auto it = std::find(subkeyOrder_.begin(), subkeyOrder_.end(), child);
    if (it != subkeyOrder_.end()) subkeyOrder_.erase(it);
    ResetSubKeyCursor();
}

void RegKey::MarkDeleted(bool deleted, bool byMe) {
    if (deleted) {
        if (byMe) {
            deletedByMe_ = 1;
        } else {
            deleted_ = 1;
        }
        return;
    }
    deleted_ = 0;
    deletedByMe_ = 0;
}

void RegKey::Revive(bool local) {
    MarkDeleted(false, false);
    if (!local) return;
    // Whatever the file holds about this key, the live copy is now this
    // process's version of it.
    SetPending(true);
    for (RegValue& v : values_) v.SetPending(true);
    SetDirty(1);
}

// This key is locked by the caller. Marks every descendant deleted, unlinks
// each one that is open nowhere and has no remaining children (bottom up),
// and reports whether this key itself could go.
bool RegKey::MarkSubtreeDeleted(bool byMe, std::vector<RegKey*>& dead) {
    for (auto it = subkeys_.begin(); it != subkeys_.end();) {
        RegKey* c = it->second;
        c->Lock();
        bool gone = c->MarkSubtreeDeleted(byMe, dead);
        c->Unlock();
        ++it;
        if (gone) {
            UnlinkChild(c);
            dead.push_back(c);
        }
    }
    MarkDeleted(true, byMe);
    return opens_ == 0 && subkeys_.empty();
}

long RegKey::DeleteSubKey(const CKWString& name, bool byMe) {
    RegKey* child = GetSubKey(name);
    if (child == nullptr) return -1;
    std::vector<RegKey*> dead;
    child->Lock();
    bool gone = child->MarkSubtreeDeleted(byMe, dead);
    child->Unlock();
    if (gone) {
        UnlinkChild(child);
        dead.push_back(child);
    }
    if (byMe) deletedSubkeys_[CKWStringPc(name)] = CurrentWriteEpoch();
    ResetSubKeyCursor();
    for (RegKey* k : dead) {
        Unadvertise(k, false);
        BuryKey(k);
    }
    return 0;
}

void RegKey::PruneUpward(RegKey* key) {
    while (key != nullptr && key->parent_ != nullptr) {
        RegKey* p = key->parent_;
        p->Lock();
        key->Lock();
        auto it = p->subkeys_.find(CKWStringPc(key->GetName()));
        bool unlink = it != p->subkeys_.end() && it->second == key && key->IsDeleted() &&
                      key->opens_ == 0 && key->subkeys_.empty();
        if (unlink) p->UnlinkChild(key);
        key->Unlock();
        bool parentDeleted = p->IsDeleted();
        p->Unlock();
        if (!unlink) return;
        Unadvertise(key, true);
        BuryKey(key);
        if (!parentDeleted) return;
        key = p;
    }
}

std::vector<RegKey*> RegKey::Children() {
    std::vector<RegKey*> kids;
    Lock();
    kids.reserve(subkeys_.size());
    for (auto& kv : subkeys_) kids.push_back(kv.second);
    Unlock();
    return kids;
}

// The exclusive cache lock is held, so the set of children cannot change
// under the walk; each key is locked only while its own fields are used,
// never together with its descendants, however deep the tree.
bool RegKey::Purge(int flag, std::vector<RegKey*>& woken) {
    const unsigned long gen = Generation();
    bool childAlive = false;
    for (RegKey* c : Children()) {
        if (!c->Purge(flag, woken)) {
            Lock();
            UnlinkChild(c);
            Unlock();
            delete c;  // nobody else can hold it: the exclusive lock is ours
            continue;
        }
        c->Lock();
        if (!c->IsDeleted()) childAlive = true;
        c->Unlock();
    }
    Lock();
    bool pendingValue = false;
    for (const RegValue& v : values_) pendingValue = pendingValue || v.IsPending();
    bool stays = true;
    if (parent_ != nullptr && !IsDeleted()) {
        const bool lineSeen = lineSequence_ == gen;
        const bool pathSeen = sequence_ == gen;
        const bool local = IsPending() || pendingValue;
        if (intermediate_) {
            stays = pathSeen || childAlive || local;
        } else if (!lineSeen && !local) {
            // Another process removed this key's own line. Deeper keys it
            // still holds keep it as a bare path; otherwise it is gone.
            if (pathSeen || childAlive) {
                intermediate_ = 1;
            } else {
                stays = false;
            }
        }
    } else if (parent_ != nullptr && !deletedByMe_) {
        // Deleted by another process earlier and still open here: the file
        // would have brought it back to life had it held it again.
        stays = false;
    }
    if (!stays && (opens_ > 0 || !subkeys_.empty())) {
        // Still open here: kept, marked deleted, with the values it had, so
        // its handles read what they read before; gone at the last close.
        if (!IsDeleted() && NeedsWakeup()) woken.push_back(this);
        MarkDeleted(true, false);
        Unlock();
        return true;
    }
    bool valuesChanged = false;
    if (stays && !IsDeleted()) {
        // Compacts both orders in one pass each: renumber[i] is where value
        // i moves, or UINT32_MAX when it goes.
        std::vector<uint32_t> renumber(values_.size(), UINT32_MAX);
        size_t kept = 0;
        for (size_t i = 0; i < values_.size(); ++i) {
            if (!values_[i].IsPending() && !values_[i].Validate(gen)) continue;
            if (kept != i) values_[kept] = std::move(values_[i]);
            renumber[i] = static_cast<uint32_t>(kept++);
        }
        if (kept != values_.size()) {
            valuesChanged = true;
            values_.erase(values_.begin() + static_cast<ptrdiff_t>(kept), values_.end());
            size_t n = 0;
            for (uint32_t i : byName_) {
                if (renumber[i] != UINT32_MAX) byName_[n++] = renumber[i];
            }
            byName_.resize(n);
        }
    }
    if (valuesChanged) BumpRevision();
    if ((!stays || valuesChanged) && NeedsWakeup()) woken.push_back(this);
    Unlock();
    return stays;
}

void RegKey::DropValues() {
    values_.clear();
    byName_.clear();
}

void RegKey::DropChildren() {
    for (auto& kv : subkeys_) delete kv.second;
    subkeys_.clear();
    subkeyOrder_.clear();
    deletedSubkeys_.clear();
    values_.clear();
    byName_.clear();
    deletedValues_.clear();
    ResetSubKeyCursor();
}

namespace {
// The last step of a walk (below FindKey).
RegKey* FindLastStep(RegKey* parent, const char* name, const FindKeyOptions& options, int& created,
                     long& index);
}  // namespace

// ---------------------------------------------------------------------------
// FindKey
// ---------------------------------------------------------------------------

//
// Hand over hand from `start` (always the root): the parent stays locked
// until the child is. In the file modes (kLoad, kRefresh) the walk records
// what the file holds (sequence for every key on the path, line sequence for
// the key of the line) and never touches open counts. A refresh stops at a
// name this process deleted and has not yet written: the file's copy of
// that subtree is stale by definition and must not come back.
RegKey* FindKey(RegKey* start, const char* path, const FindKeyOptions& options, int& created,
                long& index) {
    const bool create = options.create;
    const FindMode mode = options.mode;
    created = 0;
    const PathParts parts(path);
    if (parts.empty()) {
        index = 0;
        return nullptr;
    }
    const bool fromFile = mode != FindMode::kApi;
    RegKey* cur = start;
    cur->Lock();
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
        const char* name = parts[i];
        if (fromFile) cur->UpdateSequence();
        if (mode == FindMode::kRefresh && cur->IsSubKeyDeletedHere(name)) {
            cur->Unlock();
            index = 0;
            return nullptr;
        }
        RegKey::SubKeyMap::iterator at;
        RegKey* child = cur->GetSubKey(name, at);
        if (child == nullptr) {
            if (!create) {
                cur->Unlock();
                index = 0;
                return nullptr;
            }
            child = new RegKey(0, ChildPath(cur, name), cur, 1, 0);
            child->SetIntable(1);
            if (!cur->InsertSubKeyAt(at, name, child)) {
                delete child;
                cur->Unlock();
                index = 0;
                return nullptr;
            }
            child->UpdateSequence();
            // Made by a walk of this process: it must survive refreshes
            // until the key below it is written.
            if (!fromFile) child->SetPending(true);
            child->Lock();
        } else {
            child->Lock();
            if (child->IsDeleted()) {
                if (!fromFile && !create) {
                    // A deleted key's subtree is gone for a plain open.
                    child->Unlock();
                    cur->Unlock();
                    index = 0;
                    return nullptr;
                }
                if (!fromFile && !child->IsDeletedByMe()) child->DropValues();
                child->Revive(!fromFile);
            }
        }
        cur->Unlock();
        cur = child;
    }

    return FindLastStep(cur, parts.back(), options, created, index);
}

RegKey* FindChildKey(RegKey* parent, const char* name, const FindKeyOptions& options, int& created,
                     long& index) {
    created = 0;
    parent->Lock();
    return FindLastStep(parent, name, options, created, index);
}

namespace {

// The last step of a walk: parent is locked and is unlocked on return.
RegKey* FindLastStep(RegKey* parent, const char* name, const FindKeyOptions& options, int& created,
                     long& index) {
    const bool create = options.create;
    const bool keepLocked = options.keepLocked;
    const FindMode mode = options.mode;
    const bool fromFile = mode != FindMode::kApi;
    if (fromFile) parent->UpdateSequence();
    RegKey::SubKeyMap::iterator at;
    RegKey* key = parent->GetSubKey(name, at);
    if (key != nullptr) {
        if (mode == FindMode::kRefresh && parent->IsSubKeyDeletedHere(name)) {
            parent->Unlock();
            index = 0;
            return nullptr;
        }
        key->Lock();
        if (fromFile) {
            if (key->IsDeleted()) key->Revive(false);  // the file has it again
            if (key->IsIntermediate()) {
                // A key line for what was only a path: a real key now.
                key->SetIntermediate(0);
                if (key->GetIndex() == 0) {
                    long n = RegKey::ClaimIndex(index) ? index : RegKey::GetUniqueKey();
                    key->SetIndex(n);
                    key->MarkAdvertised();
                }
            }
            key->MarkLineSeen();
        } else {
            if (key->IsDeleted() && !key->IsDeletedByMe()) {
                // Deleted by another process and only still here because it
                // is open: gone for an open, a new empty key for a create.
                if (!create) {
                    key->Unlock();
                    parent->Unlock();
                    index = 0;
                    return nullptr;
                }
                key->DropValues();
                created = 1;
            }
            if (key->IsDeleted()) key->Revive(true);
            if (create) key->Promote();
            if (key->GetIndex() == 0) {
                // An intermediate key opened through the API gets a number of
                // its own, so no two keys ever share a handle value.
                key->SetIndex(RegKey::GetUniqueKey());
                key->MarkAdvertised();
            }
            key->IncOpens();
        }
        key->UpdateSequence();
        index = key->GetIndex();
        parent->Unlock();
        if (!keepLocked) key->Unlock();
        return key;
    }

    if (!create || (mode == FindMode::kRefresh && parent->IsSubKeyDeletedHere(name))) {
        parent->Unlock();
        index = 0;
        return nullptr;
    }
    long n;
    bool allocated = false;
    if (index != -1 && RegKey::ClaimIndex(index)) {
        n = index;
    } else {
        n = RegKey::GetUniqueKey();
        allocated = !fromFile;
    }
    unsigned long opens = (!fromFile && !keepLocked) ? 1 : 0;
    key = new RegKey(n, ChildPath(parent, name), parent, 0, opens);
    if (!parent->InsertSubKeyAt(at, name, key)) {
        delete key;  // releases the number
        parent->Unlock();
        index = 0;
        return nullptr;
    }
    key->MarkAdvertised();
    key->UpdateSequence();
    if (fromFile) {
        key->MarkLineSeen();
    } else {
        key->SetPending(true);
        if (allocated) key->SetCreated();
        created = 1;
    }
    if (keepLocked) key->Lock();
    index = n;
    parent->Unlock();
    return key;
}

}  // namespace

void ClearRegistryTree() {
    DrainGraveyard();
    RegKey* root = RegistryKeys();
    root->Lock();
    root->DropChildren();
    root->Unlock();
    {
        CriticalSectionHolder hold(TableLock());
        HandleArray* a = g_handles.exchange(nullptr, std::memory_order_acq_rel);
        g_handlesUsed = g_handlesLive = 0;
        if (a != nullptr) {
            if (g_retiredHandles == nullptr) g_retiredHandles = new std::vector<HandleArray*>();
            g_retiredHandles->push_back(a);
        }
    }
    DrainGraveyard();
    CriticalSectionHolder hold(AllKeysLock());
    RegKey::AllKeysSet().clear();
}

}  // namespace detail
}  // namespace tv
