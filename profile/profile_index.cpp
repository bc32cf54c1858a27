// Lookups of sections and keys, with the hash indexes that keep a cached read
// near the cost of its one stat.
//
// Walking a section's lines, splitting each at its '=' and comparing the key
// ignoring case, costs more than the stat every cached read makes. A table
// whose sections, or a section whose keys, are looked up a few times without
// change therefore gets an open-addressed table of hashes of the case-folded
// names. The hash only narrows the search: a candidate is confirmed with the
// same comparison the walk uses, and of equal names the first is indexed, so
// every answer is the walk's answer. Edits drop the index of what they changed;
// it is rebuilt only after a few more lookups, so a program that reads between
// its writes does not pay for a rebuild each time.
//
// Case folding is the current locale's, as strcasecmp's is: the index records
// the folding table it was hashed with and is rebuilt when a lookup runs
// under another one.
#include <ctype.h>
#include <stdint.h>
#include <string.h>
#include <strings.h>

#include <vector>

#include "profile/profile_cache.h"

namespace tv {
namespace detail {

struct ProfileLookupIndex {
    const int32_t* fold;  // the case-folding table the hashes were made with
    uint32_t mask;        // slots.size() - 1, a power of two less one
    // (hash << 32) | (position + 1); 0 marks an empty slot.
    std::vector<uint64_t> slots;
};

namespace {

// Lookups of an unchanged table or section before it is indexed.
constexpr uint16_t kLookupsBeforeIndex = 3;

const int32_t* CurrentFold() {
    return *__ctype_tolower_loc();
}

uint32_t FoldedHash(const char* p, size_t n, const int32_t* fold) {
    uint32_t h = 2166136261u;
    for (size_t i = 0; i < n; ++i) {
        h ^= static_cast<uint32_t>(fold[static_cast<unsigned char>(p[i])]);
        h *= 16777619u;
    }
    return h;
}

// The trimmed key text of line, [*b, *e), when it holds a '='.
bool KeyText(const char* line, const char** b, const char** e) {
    const char* eq = line != nullptr ? strchr(line, '=') : nullptr;
    if (eq == nullptr) return false;
    const char* kb = line;
    const char* ke = eq;
    while (kb < ke && _yuIsSpace(*kb)) ++kb;
    while (ke > kb + 1 && _yuIsSpace(ke[-1])) --ke;
    *b = kb;
    *e = ke;
    return true;
}

// Builds an index of count positions; name(i, &p, &n) gives position i's name
// (false to leave it out) and same(i, j) whether two positions' names match.
template <typename NameOf, typename Same>
ProfileLookupIndex* BuildIndex(int count, NameOf name, Same same) {
    auto* index = new ProfileLookupIndex;
    index->fold = CurrentFold();
    size_t cap = 8;
    while (cap < static_cast<size_t>(count) * 2) cap *= 2;
    index->mask = static_cast<uint32_t>(cap - 1);
    index->slots.assign(cap, 0);
    for (int i = 0; i < count; ++i) {
        const char* p;
        size_t n;
        if (!name(i, &p, &n)) continue;
        uint32_t h = FoldedHash(p, n, index->fold);
        for (uint32_t at = h & index->mask;; at = (at + 1) & index->mask) {
            uint64_t slot = index->slots[at];
            if (slot == 0) {
                index->slots[at] = (static_cast<uint64_t>(h) << 32) | static_cast<uint32_t>(i + 1);
                break;
            }
            if ((slot >> 32) == h && same(static_cast<int>(slot & 0xffffffffu) - 1, i)) break;
        }
    }
    return index;
}

// Calls match(position) for each indexed position whose hash is that of
// (p, n) until it returns true; that position, or -1.
template <typename Match>
int Probe(const ProfileLookupIndex* index, const char* p, size_t n, Match match) {
    uint32_t h = FoldedHash(p, n, index->fold);
    for (uint32_t at = h & index->mask;; at = (at + 1) & index->mask) {
        uint64_t slot = index->slots[at];
        if (slot == 0) return -1;
        int pos = static_cast<int>(slot & 0xffffffffu) - 1;
        if ((slot >> 32) == h && match(pos)) return pos;
    }
}

// Whether an index is (or should now be) used: false while the owner has been
// looked up too few times since its last change.
bool WantIndex(ProfileLookupIndex** index, uint16_t* lookups) {
    if (*index != nullptr) {
        if ((*index)->fold == CurrentFold()) return true;
        FreeProfileLookupIndex(*index);
        *index = nullptr;
    }
    if (*lookups < kLookupsBeforeIndex) {
        ++*lookups;
        return false;
    }
    return true;
}

}  // namespace

void FreeProfileLookupIndex(ProfileLookupIndex* index) {
    delete index;
}

void DropSectionIndex(yufiletable* t) {
    FreeProfileLookupIndex(t->sectionIndex);
    t->sectionIndex = nullptr;
    t->lookups = 0;
}

void DropKeyIndex(yusection* s) {
    FreeProfileLookupIndex(s->keyIndex);
    s->keyIndex = nullptr;
    s->lookups = 0;
}

bool LineKeyEquals(const char* line, const char* eq, const char* key, size_t keyLen,
                   int (*cmp)(const char*, const char*, size_t)) {
    const char* b = line;
    const char* e = eq != nullptr ? eq : line + strlen(line);
    while (b < e && _yuIsSpace(*b)) ++b;
    while (e > b + 1 && _yuIsSpace(e[-1])) --e;
    size_t len = static_cast<size_t>(e - b);
    return keyLen == len && cmp(b, key, len) == 0;
}

yusection* FindProfileSection(yufiletable* t, const char* name) {
    if (!WantIndex(&t->sectionIndex, &t->lookups)) {
        for (int i = 0; i < t->sectionCount; ++i) {
            yusection* s = t->sections[i];
            if (s != nullptr && strcasecmp(s->name, name) == 0) return s;
        }
        return nullptr;
    }
    if (t->sectionIndex == nullptr) {
        t->sectionIndex = BuildIndex(
            t->sectionCount,
            [t](int i, const char** p, size_t* n) {
                if (t->sections[i] == nullptr) return false;
                *p = t->sections[i]->name;
                *n = strlen(*p);
                return true;
            },
            [t](int a, int b) {
                return strcasecmp(t->sections[a]->name, t->sections[b]->name) == 0;
            });
    }
    int pos = Probe(t->sectionIndex, name, strlen(name),
                    [t, name](int i) { return strcasecmp(t->sections[i]->name, name) == 0; });
    return pos >= 0 ? t->sections[pos] : nullptr;
}

const char* FindProfileKeyLine(yusection* s, const char* key, size_t keyLen) {
    if (!WantIndex(&s->keyIndex, &s->lookups)) {
        for (int i = 0; i < s->lineCount; ++i) {
            const char* line = s->lines[i];
            if (line == nullptr) continue;
            const char* eq = strchr(line, '=');
            if (eq != nullptr && LineKeyEquals(line, eq, key, keyLen, strncasecmp)) return line;
        }
        return nullptr;
    }
    if (s->keyIndex == nullptr) {
        s->keyIndex = BuildIndex(
            s->lineCount,
            [s](int i, const char** p, size_t* n) {
                const char* e;
                if (!KeyText(s->lines[i], p, &e)) return false;
                *n = static_cast<size_t>(e - *p);
                return true;
            },
            [s](int a, int b) {
                const char *ab = nullptr, *ae = nullptr, *bb = nullptr, *be = nullptr;
                KeyText(s->lines[a], &ab, &ae);
                KeyText(s->lines[b], &bb, &be);
                size_t n = static_cast<size_t>(ae - ab);
                return n == static_cast<size_t>(be - bb) && strncasecmp(ab, bb, n) == 0;
            });
    }
    int pos = Probe(s->keyIndex, key, keyLen, [s, key, keyLen](int i) {
        const char* line = s->lines[i];
        return LineKeyEquals(line, strchr(line, '='), key, keyLen, strncasecmp);
    });
    return pos >= 0 ? s->lines[pos] : nullptr;
}

}  // namespace detail
}  // namespace tv
