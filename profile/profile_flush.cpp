// Writing a cached table back to its file.
//
// Under the cross-process lock file the table is merged with whatever another
// process wrote since this one loaded, then written to a temporary file that
// replaces the profile by rename. Readers take no lock.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

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

namespace {

// Moves the contents (lines, sections, disk state) of from into to.
void TakeContents(yufiletable* to, yufiletable* from) {
    std::swap(to->headerCount, from->headerCount);
    std::swap(to->headerLines, from->headerLines);
    std::swap(to->sectionCount, from->sectionCount);
    std::swap(to->sections, from->sections);
    DropSectionIndex(to);
    DropSectionIndex(from);
    to->cached = from->cached;
}

// The permission bits a newly created file gets (0666 less the umask), read
// without changing the umask, which other threads may rely on.
mode_t NewFileMode() {
    mode_t mask = 022;
    if (FILE* f = fopen("/proc/self/status", "re")) {
        char line[128];
        while (fgets(line, sizeof line, f) != nullptr) {
            unsigned m;
            if (sscanf(line, "Umask: %o", &m) == 1) {
                mask = static_cast<mode_t>(m);
                break;
            }
        }
        fclose(f);
    }
    return 0666 & ~mask;
}

// Writes t to a temporary file beside its profile, syncs it and renames it
// over the profile, keeping the profile's owner and mode. A reader opens
// either the old file or the new one, never a part of either.
bool WriteByRename(const yufiletable* t) {
    char tmp[kProfileNameSize + 16];
    if (snprintf(tmp, sizeof tmp, "%s.XXXXXX", t->name) >= static_cast<int>(sizeof tmp)) {
        return false;
    }
    int fd = mkostemp(tmp, O_CLOEXEC);
    if (fd < 0) return false;
    struct stat old;
    if (stat(t->name, &old) == 0) {
        if (fchown(fd, old.st_uid, old.st_gid) != 0) {
            // Not the owner: the file keeps this process's ownership.
        }
        fchmod(fd, old.st_mode & 07777);
    } else {
        fchmod(fd, NewFileMode());
    }
    FILE* f = fdopen(fd, "w");
    if (f == nullptr) {
        close(fd);
        unlink(tmp);
        return false;
    }
    bool ok = WriteIniStream(f, t);
    if (fflush(f) != 0 || fsync(fileno(f)) != 0) ok = false;
    if (fclose(f) != 0) ok = false;
    if (ok && rename(tmp, t->name) != 0) ok = false;
    if (!ok) unlink(tmp);
    return ok;
}

}  // namespace

bool ReloadKeepingPending(yufiletable* t) {
    yufiletable* fresh = nullptr;
    if (!ReadIniFile(t->name, &fresh)) {
        if (errno != ENOENT) return false;
        // Deleted meanwhile: what this process still has to write goes into
        // an empty file, nothing from the old contents comes back.
        fresh = NewProfileTable(t->name);
    }
    ReplayPending(fresh, t->pending);
    TakeContents(t, fresh);
    FreeProfileTable(fresh);
    return true;
}

int yuFlushProfileToDisk(yufiletable* t) {
    char lockName[kProfileLockNameSize];
    if (!BuildProfileLockName(t->name, lockName, sizeof lockName)) return 0;
    if (!yuLock(lockName)) return 0;
    // Another process may have written since this one loaded: its changes
    // are kept and this process's own are applied over them.
    bool ok = true;
    if (!SameProfileFileState(StatProfileFile(t->name), t->cached)) ok = ReloadKeepingPending(t);
    if (ok) ok = WriteByRename(t);
    if (ok) {
        t->cached = StatProfileFile(t->name);
        FreePendingChanges(t->pending);
        t->pending = nullptr;
        t->dirty = 0;
    }
    // Deliberately inverted: a flush whose lock file was removed normally
    // reports 0, whether or not it wrote. Existing callers are written
    // against this result.
    if (yuUnlock(lockName)) return 0;
    return ok ? 1 : 0;
}

}  // namespace detail
}  // namespace tv
