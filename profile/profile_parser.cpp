// Reading a profile file into a table.
//
// Lines are kept verbatim apart from trimming; the only interpretation at load
// time is spotting section headers. A line counts only once its line feed has
// been read: a last line without one is dropped, deliberately, so a file caught
// half-written never contributes a half line.
//
// Snapshot check. Flushes of this library replace the file by rename, so an
// open file is always complete. Another program may still rewrite a profile
// in place; ReadIniFile therefore notes the file's status-change time with
// nanoseconds, its identity and size before reading, and reads again when
// any of them changed meanwhile or fewer bytes were read than the file holds.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "profile/profile_cache.h"
#include "tvcommonutil/types.h"

namespace tv {
namespace detail {
namespace {

constexpr size_t kLineChunk = 512;      // initial line capacity and its growth step
constexpr int kMaxReadAttempts = 1000;  // only a file rewritten in place keeps a load retrying

// Splits a stream into lines terminated by a line feed. The line buffer grows
// in steps of kLineChunk, so there is no limit on line length.
class LineReader {
public:
    explicit LineReader(FILE* f) : f_(f) {}
    ~LineReader() { free(line_); }
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    // The next complete line, line feed removed and NUL-terminated, or null at
    // the end (an unterminated tail is consumed and dropped). A NUL byte inside
    // a line ends its text there, as for any C string.
    char* Next() {
        size_t len = 0;
        for (;;) {
            if (pos_ == end_ && !Fill()) return nullptr;
            const char* start = chunk_ + pos_;
            size_t avail = end_ - pos_;
            const char* lf = static_cast<const char*>(memchr(start, '\n', avail));
            size_t take = lf != nullptr ? static_cast<size_t>(lf - start) : avail;
            Reserve(len + take + 1);
            memcpy(line_ + len, start, take);
            len += take;
            pos_ += take;
            if (lf != nullptr) {
                ++pos_;
                line_[len] = '\0';
                return line_;
            }
        }
    }

    long long consumed() const { return consumed_; }

private:
    bool Fill() {
        size_t n = fread(chunk_, 1, sizeof chunk_, f_);
        pos_ = 0;
        end_ = n;
        consumed_ += static_cast<long long>(n);
        return n != 0;
    }

    void Reserve(size_t need) {
        if (need <= cap_) return;
        size_t cap = cap_ == 0 ? kLineChunk : cap_;
        while (cap < need) cap += kLineChunk;
        char* grown = static_cast<char*>(realloc(line_, cap + 1));
        if (grown == nullptr) abort();
        line_ = grown;
        cap_ = cap;
    }

    FILE* f_;
    char chunk_[16384];
    size_t pos_ = 0;
    size_t end_ = 0;
    char* line_ = nullptr;
    size_t cap_ = 0;
    long long consumed_ = 0;
};

char* Dup(const char* s, size_t len) {
    char* d = static_cast<char*>(malloc(len + 1));
    if (d == nullptr) abort();
    memcpy(d, s, len);
    d[len] = '\0';
    return d;
}

// A header is a line whose comment-free, trimmed text begins with '[' and
// holds a ']'. The comment cut comes first, so "[Se;c]" is no header.
// `trimmed` has no leading blanks, so its first character is that of the
// comment-free text; the name runs from '[' to the first ']', untrimmed.
const char* HeaderNameEnd(const char* trimmed) {
    if (trimmed[0] != '[') return nullptr;
    for (const char* p = trimmed + 1; *p != '\0' && *p != ';'; ++p) {
        if (*p == ']') return p;
    }
    return nullptr;
}

}  // namespace

ProfileFileState StatProfileFile(const char* path) {
    ProfileFileState s;
    struct stat st;
    if (stat(path, &st) != 0) return s;
    s.ok = true;
    s.regular = S_ISREG(st.st_mode);
    s.dev = st.st_dev;
    s.ino = st.st_ino;
    s.size = st.st_size;
    s.ctim = st.st_ctim;
    return s;
}

bool SameProfileFileState(const ProfileFileState& a, const ProfileFileState& b) {
    return a.ok && b.ok && a.dev == b.dev && a.ino == b.ino && a.size == b.size &&
           a.ctim.tv_sec == b.ctim.tv_sec && a.ctim.tv_nsec == b.ctim.tv_nsec;
}

ParseResult ParseIniStream(FILE* f, yufiletable* t, long long* bytesRead) {
    LineReader reader(f);
    ParseResult result = ParseResult::kOk;
    while (char* line = reader.Next()) {
        // Same result as strip_spaces, without moving the text to the front.
        char* trimmed = line;
        while (_yuIsSpace(*trimmed)) ++trimmed;
        size_t len = strlen(trimmed);
        while (len > 1 && _yuIsSpace(trimmed[len - 1])) trimmed[--len] = '\0';
        bool appended;
        if (const char* close = HeaderNameEnd(trimmed)) {
            char* name = strndup(trimmed + 1, static_cast<size_t>(close - trimmed - 1));
            if (name == nullptr) abort();
            yusection* s = NewProfileSection(name, Dup(trimmed, len));
            appended = AppendProfileSlot(&t->sections, &t->sectionCount, s);
            if (!appended) FreeProfileSection(s);
        } else {
            char* copy = Dup(trimmed, len);
            if (t->sectionCount == 0) {
                appended = AppendProfileSlot(&t->headerLines, &t->headerCount, copy);
            } else {
                yusection* last = t->sections[t->sectionCount - 1];
                appended = AppendProfileSlot(&last->lines, &last->lineCount, copy);
            }
            if (!appended) free(copy);
        }
        if (!appended) {
            // More than the 16-bit counts can hold: a partial table must never
            // be cached, since a flush would write it back.
            result = ParseResult::kTooLarge;
            break;
        }
    }
    if (bytesRead != nullptr) *bytesRead = reader.consumed();
    return result;
}

int ReadIniFile(const char* path, yufiletable** list) {
    if (!ProfileNameUsable(path)) return 0;
    for (int attempt = 1;; ++attempt) {
        ProfileFileState before = StatProfileFile(path);
        FILE* f = TvFopen(path, "r", 0);
        if (f == nullptr) return 0;

        yufiletable* t = NewProfileTable(path);
        t->cached = before;
        t->dirty = 1;
        long long consumed = 0;
        ParseResult parsed = ParseIniStream(f, t, &consumed);
        fclose(f);
        if (parsed != ParseResult::kOk) {
            FreeProfileTable(t);
            errno = ERROR_INVALID_DATA;
            return 0;
        }

        ProfileFileState after = StatProfileFile(path);
        bool consistent;
        if (!before.ok && !after.ok) {
            consistent = true;  // nothing to compare against (not a stat-able file)
        } else {
            consistent = SameProfileFileState(before, after) &&
                         (!after.regular || consumed == static_cast<long long>(after.size));
        }
        if (consistent || attempt >= kMaxReadAttempts) {
            t->dirty = 0;
            t->next = *list;
            *list = t;
            return 1;
        }
        FreeProfileTable(t);
    }
}

}  // namespace detail
}  // namespace tv
