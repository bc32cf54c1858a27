// Text helpers of the profile code, the file-open routine and the
// cross-process lock file taken around a flush. None of these lock anything.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "profile/profile_cache.h"
#include "tvcommonutil/types.h"

namespace tv {
namespace detail {

// Exactly four characters count as whitespace. Vertical tab and form feed are
// deliberately left alone: existing files carry them as data.
int _yuIsSpace(char c) {
    return (c == ' ' || c == '\t' || c == '\n' || c == '\r') ? 1 : 0;
}

char* strip_spaces(char* s) {
    if (s == nullptr) return nullptr;
    size_t lead = 0;
    while (s[lead] != '\0' && _yuIsSpace(s[lead])) ++lead;
    size_t len = strlen(s + lead);
    if (lead != 0) memmove(s, s + lead, len + 1);
    // The trailing pass never removes the first character; the leading pass has
    // already emptied an all-blank string.
    for (size_t i = len; i >= 2 && _yuIsSpace(s[i - 1]); --i) s[i - 1] = '\0';
    return s;
}

int strip_quotes(char* s) {
    if (s == nullptr) return 0;
    size_t len = strlen(s);
    if (len != 0 && s[0] == '"' && s[len - 1] == '"') {
        s[len - 1] = '\0';
        if (len > 1) memmove(s, s + 1, len - 1);  // moves the new NUL too
        strip_spaces(s);
        return 1;
    }
    if (s[0] == '`') {
        // `text' — closed by the last apostrophe anywhere in the string.
        char* close = strrchr(s, '\'');
        if (close == nullptr) return 0;
        *close = '\0';
        memmove(s, s + 1, static_cast<size_t>(close - s));
        strip_spaces(s);
        return 1;
    }
    return 0;
}

char* strip_comments(char* s) {
    if (s == nullptr) return nullptr;
    if (char* semi = strchr(s, ';')) *semi = '\0';
    return strip_spaces(s);
}

void yuStrncpy(char* dst, const char* src, size_t n) {
    dst[0] = '\0';
    strncat(dst, src, n);
}

// Whole seconds only: the 100 ms that yuLock passes sleeps not at all, so the
// three lock attempts follow each other at once. Callers rely on a flush
// failing fast rather than waiting out a stale lock file.
void _yu_Sleep2(unsigned long milliseconds) {
    unsigned long seconds = milliseconds / 1000;
    if (seconds != 0) sleep(static_cast<unsigned>(seconds));
}

FILE* TvFopen(const char* path, const char* mode, int flags) {
    if (flags != 0) {
        errno = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    return fopen(path, mode);
}

bool BuildProfileLockName(const char* name, char* out, size_t outSize) {
    if (name == nullptr) return false;
    size_t len = strnlen(name, kProfileNameSize);
    if (len >= kProfileNameSize) return false;
    char flat[kProfileNameSize];
    for (size_t i = 0; i <= len; ++i) flat[i] = name[i] == '/' ? '-' : name[i];
    int n = snprintf(out, outSize, "/tmp/%s-lock", flat);
    return n > 0 && static_cast<size_t>(n) < outSize;
}

int yuLock(const char* lockPath) {
    int failures = 0;
    for (;;) {
        int fd = open(lockPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) return close(fd) == 0 ? 1 : 0;
        if (errno != EEXIST) return 0;
        if (++failures >= 3) return 0;
        _yu_Sleep2(100);
    }
}

int yuUnlock(const char* lockPath) {
    return unlink(lockPath) == 0 ? 1 : 0;
}

}  // namespace detail
}  // namespace tv
