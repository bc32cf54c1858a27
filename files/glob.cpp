// KWSuperGlob: pattern conversion, brace expansion, compilation, matching
// and the result set. The directory walk is in glob_walk.cpp.
//
// Patterns go through three stages, in the classic glob(3) manner:
//  1. conversion of the bytes into 16-bit characters, where a backslash
//     (under KWGLOB_QUOTE) marks the next character with kQuoted so that
//     compilation takes it literally;
//  2. brace expansion: each alternative of "{a,b}" becomes a pattern of its
//     own in the set, and the original text is kept too (it matches only a
//     name spelled with the braces);
//  3. compilation into byte values and wildcard markers (bit 0x8000).
//
// Matching is linear backtracking: every element other than '*' consumes
// exactly one character, so on a mismatch it is enough to return to the
// most recent '*' and let it swallow one more character. That gives the
// same answers as trying the rest of the pattern at every position after
// each '*', in O(pattern * name) steps instead of exponentially many for
// patterns like "*?*?*?...x" against long names.
#include <stdlib.h>
#include <string.h>

#include <iterator>
#include <new>
#include <string>
#include <vector>

#include "tvcommonutil/files.h"

namespace {

constexpr unsigned short kQuoted = 0x4000;
constexpr unsigned short kMeta = 0x8000;
constexpr unsigned short kAll = kMeta | '*';
constexpr unsigned short kOne = kMeta | '?';
constexpr unsigned short kSet = kMeta | '[';
constexpr unsigned short kEnd = kMeta | ']';
constexpr unsigned short kNot = kMeta | '!';
constexpr unsigned short kRange = kMeta | '-';

// Work done by one expansion, counted in candidates examined, so that nested
// braces cannot make a single AddPattern call run away either.
constexpr int kMaxCandidates = 8 * KWGLOB_MAX_EXPANSIONS;

using U16 = std::vector<unsigned short>;

size_t Length(const unsigned short* s) {
    size_t n = 0;
    while (s[n] != 0) ++n;
    return n;
}

// Compiles src (zero-terminated) into dst, which has room for at least as
// many characters: no construct compiles longer than its source.
unsigned int Compile(const unsigned short* src, unsigned short* dst) {
    unsigned int flags = 0;
    const unsigned short* p = src;
    unsigned short* out = dst;
    unsigned short c;
    while ((c = *p++) != 0) {
        switch (c) {
            case '*':
                if (out == dst || out[-1] != kAll) *out++ = kAll;
                flags |= KWGLOB_HAS_MAGIC;
                break;
            case '?':
                *out++ = kOne;
                flags |= KWGLOB_HAS_MAGIC;
                break;
            case '[': {
                c = *p;
                if (c == '!') ++p;
                // The first member is taken whatever it is, so the closing
                // bracket is looked for after it: "[]]" is a set of ']'.
                const unsigned short* close = nullptr;
                if (*p != 0) {
                    for (const unsigned short* q = p + 1; *q != 0; ++q) {
                        if (*q == ']') {
                            close = q;
                            break;
                        }
                    }
                }
                if (close == nullptr) {
                    *out++ = '[';
                    if (c == '!') --p;  // the '!' stays an ordinary character
                    break;
                }
                *out++ = kSet;
                if (c == '!') *out++ = kNot;
                c = *p++;
                do {
                    *out++ = static_cast<unsigned short>(c & 0xFF);
                    if (*p == '-' && p[1] != ']') {
                        *out++ = kRange;
                        *out++ = static_cast<unsigned short>(p[1] & 0xFF);
                        p += 2;
                    }
                } while ((c = *p++) != ']');
                *out++ = kEnd;
                flags |= KWGLOB_HAS_MAGIC;
                break;
            }
            default:
                *out++ = static_cast<unsigned short>(c & 0xFF);
                break;
        }
    }
    *out = 0;
    return flags;
}

// One set at p (pointing at kSet) against character k. *next gets the
// element after the set.
bool MatchSet(const unsigned short* p, unsigned short k, const unsigned short** next) {
    ++p;
    bool negate = *p == kNot;
    if (negate) ++p;
    bool ok = false;
    unsigned short c;
    while ((c = *p++) != kEnd) {
        if (*p == kRange) {
            if (c <= k && k <= p[1]) ok = true;
            p += 2;
        } else if (c == k) {
            ok = true;
        }
    }
    *next = p;
    return ok != negate;
}

bool MatchCompiled(const unsigned short* pat, const unsigned char* name) {
    const unsigned short* p = pat;
    const unsigned char* n = name;
    const unsigned short* starPattern = nullptr;  // element after the last '*'
    const unsigned char* starName = nullptr;      // where that '*' stopped swallowing
    for (;;) {
        if (*p == kAll) {
            while (*p == kAll) ++p;
            if (*p == 0) return true;
            starPattern = p;
            starName = n;
            continue;
        }
        bool ok;
        const unsigned short* next = p + 1;
        if (*p == 0) {
            if (*n == 0) return true;
            ok = false;
        } else if (*n == 0) {
            // Every element left needs a character; a '*' swallowing more
            // would only leave fewer.
            return false;
        } else if (*p == kOne) {
            ok = true;
        } else if (*p == kSet) {
            ok = MatchSet(p, *n, &next);
        } else {
            ok = *p == *n;
        }
        if (ok) {
            p = next;
            ++n;
            continue;
        }
        if (starPattern == nullptr || *starName == 0) return false;
        n = ++starName;
        p = starPattern;
    }
}

bool IsEmptyBraces(const unsigned short* s) {
    return s[0] == '{' && s[1] == '}' && s[2] == 0;
}

// Skips a "[...]" starting at s[i] == '['; returns the index of the ']' or
// i itself when there is none (the '[' is then an ordinary character).
size_t SkipBracket(const U16& s, size_t i) {
    for (size_t j = i + 1; j < s.size() && s[j] != 0; ++j) {
        if (s[j] == ']') return j;
    }
    return i;
}

}  // namespace

KWSuperGlob::KWSuperGlob()
    : patternCounter_(0), mode_(0), resultCounter_(0), empty_(), expansionBudget_(0) {
    memset(&empty_.statData, 0, sizeof empty_.statData);
    cursor_ = results_.end();
}

KWSuperGlob::~KWSuperGlob() {
    FreeGlobs();
    FoundFree();
}

void KWSuperGlob::FreeGlobs() {
    for (auto& p : patterns_) delete p.second;
    patterns_.clear();
}

bool KWSuperGlob::AddPattern(const char* pattern, unsigned long flags) {
    expansionBudget_ = kMaxCandidates;
    return AddOne(pattern, flags, true);
}

// expand is false for the alternatives an expansion produces: they are
// stored as they are, which is what ends the recursion for an alternative
// that still holds an unbalanced brace.
bool KWSuperGlob::AddOne(const char* pattern, unsigned long flags, bool expand) {
    GlobPattern_t* record = new (std::nothrow) GlobPattern_t;
    if (record == nullptr) return false;
    record->text = pattern;
    record->counter1 = 0;
    record->counter2 = 0;
    record->flags = static_cast<unsigned int>(flags & ~(KWGLOB_HAS_BRACE | KWGLOB_HAS_MAGIC));

    const unsigned char* s = reinterpret_cast<const unsigned char*>(pattern ? pattern : "");
    unsigned short* out = record->chars;
    unsigned short* const limit = record->chars + KWGLOB_MAX_PATTERN - 1;
    unsigned int c;
    if (flags & KWGLOB_QUOTE) {
        while (out < limit && (c = *s++) != 0) {
            if (c == '\\') {
                if (*s == 0) {
                    c = '\\';  // a trailing backslash stands for itself
                } else {
                    c = *s++;
                }
                *out++ = static_cast<unsigned short>(c | kQuoted);
            } else {
                *out++ = static_cast<unsigned short>(c);
            }
        }
    } else {
        while (out < limit && (c = *s++) != 0) {
            if (c == '{') record->flags |= KWGLOB_HAS_BRACE;
            *out++ = static_cast<unsigned short>(c);
        }
    }
    *out = 0;

    bool ok = true;
    if (expand && (record->flags & KWGLOB_HAS_BRACE)) ok = ExpandBraces(record, flags);

    record->flags |= Compile(record->chars, record->chars);
    patterns_[patternCounter_++] = record;
    mode_ |= record->flags;
    return ok;
}

// Expands the braces of record's (converted) text, depth first in the order
// of the alternatives, adding every candidate that has no brace left. The
// first '{' of a candidate is expanded; its alternatives, which may hold
// further braces, are candidates in turn. A candidate whose braces do not
// balance is kept literally; for the record itself that means nothing is
// added, since the record is stored anyway.
bool KWSuperGlob::ExpandBraces(GlobPattern_t* record, unsigned long flags) {
    struct Candidate {
        U16 text;  // zero-terminated
        bool top;
    };
    std::vector<Candidate> stack;
    {
        size_t n = Length(record->chars);
        stack.push_back({U16(record->chars, record->chars + n + 1), true});
    }
    int added = 0;
    std::string bytes;
    auto addLeaf = [&](const U16& t) -> bool {
        if (added >= KWGLOB_MAX_EXPANSIONS) return false;
        bytes.clear();
        for (size_t i = 0; t[i] != 0; ++i) bytes += static_cast<char>(t[i] & 0xFF);
        ++added;
        return AddOne(bytes.c_str(), flags, false);
    };

    while (!stack.empty()) {
        if (--expansionBudget_ < 0) return false;
        Candidate cand = std::move(stack.back());
        stack.pop_back();
        const U16& t = cand.text;
        if (IsEmptyBraces(t.data())) {
            if (!cand.top && !addLeaf(t)) return false;
            continue;
        }
        size_t open = 0;
        while (t[open] != 0 && t[open] != '{') ++open;
        if (t[open] == 0) {
            if (!addLeaf(t)) return false;
            continue;
        }
        // The matching '}', counting nested braces and stepping over sets.
        size_t close = open + 1;
        int depth = 0;
        for (; t[close] != 0; ++close) {
            if (t[close] == '[') {
                close = SkipBracket(t, close);
            } else if (t[close] == '{') {
                ++depth;
            } else if (t[close] == '}') {
                if (depth == 0) break;
                --depth;
            }
        }
        if (depth != 0 || t[close] == 0) {
            if (!cand.top && !addLeaf(t)) return false;
            continue;
        }
        // Alternatives at depth 0 between open and close; built in order and
        // pushed in reverse so that the first alternative is expanded first.
        std::vector<U16> alternatives;
        size_t start = open + 1;
        depth = 0;
        for (size_t i = open + 1; i <= close; ++i) {
            unsigned short ch = t[i];
            if (ch == '[') {
                i = SkipBracket(t, i);
                continue;
            }
            if (ch == '{') {
                ++depth;
                continue;
            }
            if (ch == '}' && depth > 0) {
                --depth;
                continue;
            }
            if (ch == '}' || (ch == ',' && depth == 0)) {
                U16 next(t.begin(), t.begin() + static_cast<long>(open));
                next.insert(next.end(), t.begin() + static_cast<long>(start),
                            t.begin() + static_cast<long>(i));
                next.insert(next.end(), t.begin() + static_cast<long>(close) + 1, t.end());
                alternatives.push_back(std::move(next));
                start = i + 1;
            }
        }
        for (auto it = alternatives.rbegin(); it != alternatives.rend(); ++it) {
            stack.push_back({std::move(*it), false});
        }
    }
    return true;
}

bool KWSuperGlob::SetPatterns(const char** patterns, unsigned long flags) {
    if (patterns == nullptr) return AddPattern("*", flags | KWGLOB_MATCH_ALL);
    for (const char** p = patterns; *p != nullptr; ++p) {
        if (!AddPattern(*p, flags)) return false;
    }
    return true;
}

bool KWSuperGlob::Match(const char* name) const {
    if (mode_ & KWGLOB_MATCH_ALL) return (mode_ & KWGLOB_INVERT) == 0;
    const unsigned char* n = reinterpret_cast<const unsigned char*>(name ? name : "");
    bool matched = false;
    for (const auto& p : patterns_) {
        if (MatchCompiled(p.second->chars, n)) {
            matched = true;
            break;
        }
    }
    return (mode_ & KWGLOB_INVERT) ? !matched : matched;
}

// --- results ---------------------------------------------------------------

void KWSuperGlob::FoundItem(const CKWString& path, const struct stat* st) {
    // Keys only grow, so the end is the right place: no search per result.
    GlobResult_t& r =
        results_.emplace_hint(results_.end(), resultCounter_++, GlobResult_t())->second;
    r.path = path;
    if (st != nullptr) {
        r.statData = *st;
    } else {
        memset(&r.statData, 0, sizeof r.statData);
    }
}

void KWSuperGlob::FoundFree() {
    results_.clear();
    cursor_ = results_.end();
}

bool KWSuperGlob::begin() {
    cursor_ = results_.begin();
    return cursor_ != results_.end();
}

bool KWSuperGlob::rbegin() {
    if (results_.empty()) {
        cursor_ = results_.end();
        return false;
    }
    cursor_ = std::prev(results_.end());
    return true;
}

bool KWSuperGlob::operator++(int) {
    if (cursor_ == results_.end()) return false;
    ++cursor_;
    return cursor_ != results_.end();
}

// Stepping back from the first result leaves the cursor at the end.
bool KWSuperGlob::operator--(int) {
    if (cursor_ == results_.end()) return false;
    if (cursor_ == results_.begin()) {
        cursor_ = results_.end();
        return false;
    }
    --cursor_;
    return true;
}

GlobResult_t& KWSuperGlob::operator*() {
    if (cursor_ == results_.end()) return empty_;
    return cursor_->second;
}

bool KWSuperGlob::end() const {
    return cursor_ == results_.end();
}

bool KWSuperGlob::erase() {
    if (cursor_ == results_.end()) return false;
    cursor_ = results_.erase(cursor_);
    return true;
}

int KWSuperGlob::compare(const CKWString& a, const CKWString& b) {
    return strcmp(a.c_str(), b.c_str());
}
