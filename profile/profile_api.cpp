// GetPrivateProfileString, WritePrivateProfileString and the write worker.
//
// Both entry points hold yuProfileMutex for their whole run. Values are split
// out of the cached lines at lookup time; see profile_cache.h for the model.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "profile/profile_cache.h"
#include "tvcommonutil/profile.h"
#include "tvcommonutil/types.h"

namespace tv {
namespace detail {
namespace {

// An owned, mutable copy of a caller's string (null stays null).
class TextCopy {
public:
    explicit TextCopy(const char* s) : p_(s != nullptr ? strdup(s) : nullptr) {
        if (s != nullptr && p_ == nullptr) abort();
    }
    ~TextCopy() { free(p_); }
    TextCopy(const TextCopy&) = delete;
    TextCopy& operator=(const TextCopy&) = delete;
    char* get() const { return p_; }
    char* release() {
        char* p = p_;
        p_ = nullptr;
        return p;
    }

private:
    char* p_;
};

// A caller's string with strip_spaces applied, held on the stack unless long:
// the read path runs for every cached lookup and should not allocate.
class StrippedText {
public:
    explicit StrippedText(const char* s) {
        if (s == nullptr) return;
        size_t len = strlen(s);
        p_ = len < sizeof small_ ? small_ : static_cast<char*>(malloc(len + 1));
        if (p_ == nullptr) abort();
        memcpy(p_, s, len + 1);
        strip_spaces(p_);
    }
    ~StrippedText() {
        if (p_ != small_) free(p_);
    }
    StrippedText(const StrippedText&) = delete;
    StrippedText& operator=(const StrippedText&) = delete;
    const char* get() const { return p_; }

private:
    char small_[128];
    char* p_ = nullptr;
};

// The value of a key line as strip_spaces then strip_quotes would leave it,
// found in place: [*b, *e) of the text after eq.
void ValueText(const char* eq, const char** b, const char** e) {
    auto trim = [](const char*& vb, const char*& ve) {
        while (vb < ve && _yuIsSpace(*vb)) ++vb;
        while (ve > vb + 1 && _yuIsSpace(ve[-1])) --ve;
    };
    const char* vb = eq + 1;
    const char* ve = vb + strlen(vb);
    trim(vb, ve);
    size_t len = static_cast<size_t>(ve - vb);
    if (len != 0 && vb[0] == '"' && ve[-1] == '"') {
        --ve;
        if (len > 1) ++vb;
        trim(vb, ve);
    } else if (len != 0 && vb[0] == '`') {
        // Closed by the last apostrophe of the value, if it has one.
        const char* close = ve;
        while (close > vb && close[-1] != '\'') --close;
        if (close > vb) {
            ve = close - 1;
            ++vb;
            trim(vb, ve);
        }
    }
    *b = vb;
    *e = ve;
}

char* Format2(const char* a, const char* b) {
    char* out = nullptr;
    if (asprintf(&out, "%s=%s", a, b) < 0) abort();
    return out;
}

// The key text of a line: what precedes its first '=' (the whole line when it
// has none), trimmed. Returned in an owned copy.
char* LineKey(const char* line) {
    const char* eq = strchr(line, '=');
    char* k = eq != nullptr ? strndup(line, static_cast<size_t>(eq - line)) : strdup(line);
    if (k == nullptr) abort();
    return strip_spaces(k);
}

// Copies src cut to size - 1 characters; returns the length copied.
unsigned long CopyCut(const char* src, char* buffer, unsigned long size) {
    if (size == 0) return 0;
    size_t len = strlen(src);
    if (len > size - 1) len = size - 1;
    memcpy(buffer, src, len);
    buffer[len] = '\0';
    return len;
}

unsigned long DefaultAnswer(const char* defaultValue, char* buffer, unsigned long size) {
    if (defaultValue == nullptr) {
        if (size != 0) buffer[0] = '\0';
        return 0;
    }
    return CopyCut(defaultValue, buffer, size);
}

// Builds a NUL-separated list closed by one more NUL, with the spare-byte
// contract documented in profile.h: an exactly full list puts its closing NUL
// at buffer[size].
class ListWriter {
public:
    // A strict list keeps its closing NUL inside the given size (the readers
    // added later); otherwise the spare-byte contract above holds.
    ListWriter(char* buffer, unsigned long size, bool strict = false)
        : buf_(buffer),
          size_(size),
          strict_(strict),
          room_(strict && size != 0 ? size - 1 : size) {}

    void Add(const char* item) {
        if (full_) return;
        size_t len = strlen(item);
        if (pos_ + len + 1 <= room_) {
            memcpy(buf_ + pos_, item, len + 1);
            pos_ += len + 1;
            return;
        }
        full_ = true;
        unsigned long remaining = size_ - pos_;
        if (remaining > 2) yuStrncpy(buf_ + pos_, item, remaining - 2);
        if (size_ >= 2) {
            buf_[size_ - 2] = '\0';
            buf_[size_ - 1] = '\0';
            result_ = size_ - 2;
        } else {
            if (size_ == 1) buf_[0] = '\0';
            result_ = 0;
        }
    }

    unsigned long Finish() {
        if (full_) return result_;
        if (strict_ && size_ == 0) return 0;
        buf_[pos_] = '\0';  // non-strict: may be buf_[size_], the caller's spare byte
        return pos_;
    }

private:
    char* buf_;
    unsigned long size_;
    bool strict_;
    unsigned long room_;
    unsigned long pos_ = 0;
    bool full_ = false;
    unsigned long result_ = 0;
};

// The table for a read: cached, reloaded when the file on disk is no longer
// the one loaded (this process's pending changes stay on top), or loaded.
// Null when the file cannot be read. A cached read costs one stat.
yufiletable* TableForRead(const char* fileName) TV_REQUIRES(yuProfileMutex) {
    if (!ProfileNameUsable(fileName)) return nullptr;
    yufiletable* t = FindProfileTable(fileName);
    if (t != nullptr) {
        ProfileFileState now = StatProfileFile(fileName);
        if (!now.ok) return nullptr;
        if (SameProfileFileState(now, t->cached)) return t;
        return ReloadKeepingPending(t) ? t : nullptr;
    }
    if (!ReadIniFile(fileName, &pYUFileTable)) return nullptr;
    return pYUFileTable;
}

unsigned long ReadValue(yusection* s, const char* key, const char* defaultValue, char* buffer,
                        unsigned long size) {
    const char* line = FindProfileKeyLine(s, key, strlen(key));
    if (line == nullptr) return DefaultAnswer(defaultValue, buffer, size);
    const char *b, *e;
    ValueText(strchr(line, '='), &b, &e);
    if (size == 0) return 0;
    size_t len = static_cast<size_t>(e - b);
    if (len > size - 1) len = size - 1;
    memcpy(buffer, b, len);
    buffer[len] = '\0';
    return len;
}

unsigned long ListKeys(const yusection* s, char* buffer, unsigned long size) {
    ListWriter list(buffer, size);
    for (int i = 0; i < s->lineCount; ++i) {
        if (s->lines[i] == nullptr) continue;
        TextCopy k(s->lines[i]);
        strip_comments(k.get());
        if (char* eq = strchr(k.get(), '=')) *eq = '\0';
        strip_spaces(k.get());
        strip_quotes(k.get());
        if (k.get()[0] != '\0') list.Add(k.get());
    }
    return list.Finish();
}

unsigned long ListSections(const yufiletable* t, char* buffer, unsigned long size,
                           bool strict = false) {
    ListWriter list(buffer, size, strict);
    for (int i = 0; i < t->sectionCount; ++i) {
        // An empty name would read as the end of the list.
        if (t->sections[i] != nullptr && t->sections[i]->name[0] != '\0') {
            list.Add(t->sections[i]->name);
        }
    }
    return list.Finish();
}

}  // namespace

struct PendingChanges {
    enum class Kind { kSet, kDeleteKey, kDeleteSection };
    struct Change {
        Kind kind;
        std::string section, key, value;
    };
    std::vector<Change> changes;
};

void FreePendingChanges(PendingChanges* p) {
    delete p;
}

bool ApplySet(yufiletable* t, const char* section, const char* key, const char* value) {
    yusection* s = FindProfileSection(t, section);
    if (s == nullptr) {
        char* header = nullptr;
        if (asprintf(&header, "[%s]", section) < 0) abort();
        TextCopy name(section);
        s = NewProfileSection(name.release(), header);
        if (!AppendProfileSlot(&t->sections, &t->sectionCount, s)) {
            FreeProfileSection(s);
            return false;
        }
        DropSectionIndex(t);
    }
    DropKeyIndex(s);
    for (int i = 0; i < s->lineCount; ++i) {
        const char* line = s->lines[i];
        if (line == nullptr ||
            !LineKeyEquals(line, strchr(line, '='), key, strlen(key), strncasecmp))
            continue;
        // The existing spelling of the key stays; a trailing comment goes.
        char* lineKey = LineKey(line);
        char* replacement = Format2(lineKey, value);
        free(lineKey);
        free(s->lines[i]);
        s->lines[i] = replacement;
        return true;
    }
    char* added = Format2(key, value);
    if (!AppendProfileSlot(&s->lines, &s->lineCount, added)) {
        free(added);
        return false;
    }
    // Move the new line in front of the section's trailing run of blank and
    // comment lines, so it lands with the keys and not after a comment that
    // introduces the next section. A deleted (null) slot ends the run.
    int last = s->lineCount - 1;
    int first = last;
    while (first > 0) {
        const char* prev = s->lines[first - 1];
        if (prev == nullptr || !(prev[0] == '\0' || prev[0] == ';' || prev[0] == '#')) break;
        --first;
    }
    if (first != last) {
        memmove(&s->lines[first + 1], &s->lines[first],
                sizeof(char*) * static_cast<size_t>(last - first));
        s->lines[first] = added;
    }
    return true;
}

bool ApplyDeleteKey(yufiletable* t, const char* section, const char* key) {
    for (int si = 0; si < t->sectionCount; ++si) {
        yusection* s = t->sections[si];
        if (s == nullptr || strcasecmp(s->name, section) != 0) continue;
        for (int i = 0; i < s->lineCount; ++i) {
            char* line = s->lines[i];
            if (line == nullptr) continue;
            // Case-sensitive, unlike every other comparison of the profile
            // code: deleting "Key" leaves "KEY" alone.
            if (!LineKeyEquals(line, strchr(line, '='), key, strlen(key), strncmp)) continue;
            DropKeyIndex(s);
            free(line);
            s->lines[i] = nullptr;
            return true;
        }
    }
    return false;
}

bool ApplyDeleteSection(yufiletable* t, const char* section) {
    for (int si = 0; si < t->sectionCount; ++si) {
        yusection* s = t->sections[si];
        if (s == nullptr || strcasecmp(s->name, section) != 0) continue;
        FreeProfileSection(s);
        t->sections[si] = nullptr;
        DropSectionIndex(t);
        return true;
    }
    return false;
}

void ReplayPending(yufiletable* t, const PendingChanges* p) {
    if (p == nullptr) return;
    for (const PendingChanges::Change& c : p->changes) {
        switch (c.kind) {
            case PendingChanges::Kind::kSet:
                ApplySet(t, c.section.c_str(), c.key.c_str(), c.value.c_str());
                break;
            case PendingChanges::Kind::kDeleteKey:
                ApplyDeleteKey(t, c.section.c_str(), c.key.c_str());
                break;
            case PendingChanges::Kind::kDeleteSection:
                ApplyDeleteSection(t, c.section.c_str());
                break;
        }
    }
}

namespace {

// Ends a change that was applied to the table: it is remembered for a merge
// and, without write caching, written at once (the flush's result is the
// caller's).
int CommitChange(yufiletable* t, PendingChanges::Kind kind, const char* section, const char* key,
                 const char* value) TV_REQUIRES(yuProfileMutex) {
    if (t->pending == nullptr) t->pending = new PendingChanges;
    t->pending->changes.push_back(
        {kind, section, key != nullptr ? key : "", value != nullptr ? value : ""});
    t->dirty = 1;
    if (yuProfileWriteCaching) return 1;
    return yuFlushProfileToDisk(t);
}

}  // namespace

int yuWritePrivateProfileString(const char* section, const char* key, const char* value,
                                const char* fileName, bool /*flag*/) {
    if (!ProfileNameUsable(fileName)) return 0;
    struct stat st;
    if (stat(fileName, &st) == 0) {
        // Only the owner-write bit counts, whoever the caller is: a file made
        // read-only is left alone even by the superuser.
        if ((st.st_mode & S_IWUSR) == 0) return 0;
    } else if (errno == ENOENT) {
        FILE* f = TvFopen(fileName, "w", 0);
        if (f == nullptr) return 0;
        fclose(f);
    }
    yufiletable* t = FindProfileTable(fileName);
    if (t == nullptr) {
        if (!ReadIniFile(fileName, &pYUFileTable)) return 0;
        t = pYUFileTable;
    }
    TextCopy sec(section), k(key), v(value);
    if (section == nullptr && key == nullptr && value == nullptr) {
        if (t->dirty) yuFlushProfileToDisk(t);
        return 0;
    }
    if (section == nullptr) {
        errno = ERROR_INVALID_PARAMETER;
        return 0;
    }
    strip_spaces(sec.get());
    if (key != nullptr && value != nullptr) {
        strip_spaces(k.get());
        strip_spaces(v.get());
        if (!ApplySet(t, sec.get(), k.get(), v.get())) {
            errno = ERROR_INVALID_DATA;
            return 0;
        }
        return CommitChange(t, PendingChanges::Kind::kSet, sec.get(), k.get(), v.get());
    }
    if (key != nullptr) {
        strip_spaces(k.get());
        if (!ApplyDeleteKey(t, sec.get(), k.get())) return 0;
        return CommitChange(t, PendingChanges::Kind::kDeleteKey, sec.get(), k.get(), nullptr);
    }
    if (!ApplyDeleteSection(t, sec.get())) return 0;
    return CommitChange(t, PendingChanges::Kind::kDeleteSection, sec.get(), nullptr, nullptr);
}

}  // namespace detail
}  // namespace tv

using tv::detail::ProfileMutexHolder;

unsigned long GetPrivateProfileString(const char* section, const char* key,
                                      const char* defaultValue, char* buffer, unsigned long size,
                                      const char* fileName) {
    if (buffer == nullptr) return 0;
    tv::detail::StrippedText sec(section), k(key);

    ProfileMutexHolder hold(tv::detail::yuProfileMutex);
    tv::detail::yufiletable* t = tv::detail::TableForRead(fileName);
    if (t == nullptr) return tv::detail::DefaultAnswer(defaultValue, buffer, size);
    if (sec.get() == nullptr) return tv::detail::ListSections(t, buffer, size);
    tv::detail::yusection* s = tv::detail::FindProfileSection(t, sec.get());
    if (k.get() != nullptr) {
        if (s == nullptr) return tv::detail::DefaultAnswer(defaultValue, buffer, size);
        return tv::detail::ReadValue(s, k.get(), defaultValue, buffer, size);
    }
    if (s == nullptr) {
        if (size != 0) buffer[0] = '\0';
        return 0;
    }
    return tv::detail::ListKeys(s, buffer, size);
}

int WritePrivateProfileString(const char* section, const char* key, const char* value,
                              const char* fileName) {
    ProfileMutexHolder hold(tv::detail::yuProfileMutex);
    return tv::detail::yuWritePrivateProfileString(section, key, value, fileName, true);
}

unsigned int GetPrivateProfileInt(const char* section, const char* key, int defaultValue,
                                  const char* fileName) {
    if (section == nullptr || key == nullptr) return static_cast<unsigned int>(defaultValue);
    char buf[128];
    // A distinct default tells "missing" from a value that reads as zero.
    unsigned long n = GetPrivateProfileString(section, key, "\x01", buf, sizeof buf, fileName);
    if (n == 1 && buf[0] == '\x01') return static_cast<unsigned int>(defaultValue);
    const char* p = buf;
    bool negative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    }
    unsigned long long v = 0;
    for (; *p != '\0'; ++p) {
        int d;
        if (*p >= '0' && *p <= '9') {
            d = *p - '0';
        } else if (base == 16 && *p >= 'a' && *p <= 'f') {
            d = *p - 'a' + 10;
        } else if (base == 16 && *p >= 'A' && *p <= 'F') {
            d = *p - 'A' + 10;
        } else {
            break;
        }
        v = v * static_cast<unsigned>(base) + static_cast<unsigned>(d);
        if (v > 0xffffffffULL) v = 0xffffffffULL;
    }
    return negative ? 0 : static_cast<unsigned int>(v);
}

unsigned long GetPrivateProfileSection(const char* section, char* buffer, unsigned long size,
                                       const char* fileName) {
    if (buffer == nullptr || section == nullptr) return 0;
    tv::detail::TextCopy sec(section);
    tv::detail::strip_spaces(sec.get());
    ProfileMutexHolder hold(tv::detail::yuProfileMutex);
    tv::detail::ListWriter list(buffer, size, true);
    tv::detail::yufiletable* t = tv::detail::TableForRead(fileName);
    tv::detail::yusection* s =
        t != nullptr ? tv::detail::FindProfileSection(t, sec.get()) : nullptr;
    for (int i = 0; s != nullptr && i < s->lineCount; ++i) {
        const char* line = s->lines[i];
        if (line == nullptr || line[0] == '\0' || line[0] == ';' || line[0] == '#') continue;
        list.Add(line);
    }
    return list.Finish();
}

unsigned long GetPrivateProfileSectionNames(char* buffer, unsigned long size,
                                            const char* fileName) {
    if (buffer == nullptr) return 0;
    ProfileMutexHolder hold(tv::detail::yuProfileMutex);
    tv::detail::yufiletable* t = tv::detail::TableForRead(fileName);
    if (t == nullptr) {
        tv::detail::ListWriter empty(buffer, size, true);
        return empty.Finish();
    }
    return tv::detail::ListSections(t, buffer, size, true);
}
