// Text helpers of the profile code, the file-open routine and the
// cross-process lock file taken around a flush. None of these lock anything.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
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

namespace {

// Start time of a process in clock ticks since boot (field 22 of
// /proc/<pid>/stat), 0 when the process does not exist or is a zombie: a pid
// alone could have been reused by the time a waiter looks at it.
unsigned long long ProcessStartTime(pid_t pid) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    char buf[1024];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) return 0;
    buf[n] = '\0';
    const char* p = strrchr(buf, ')');  // the command name may hold anything
    if (p == nullptr || p[1] == '\0') return 0;
    char state = p[2];
    if (state == 'Z' || state == 'X' || state == 'x') return 0;
    p += 2;
    for (int field = 3; field < 22 && p != nullptr; ++field) {
        p = strchr(p, ' ');
        if (p != nullptr) ++p;
    }
    return p != nullptr ? strtoull(p, nullptr, 10) : 0;
}

long long NowNs(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Removes the lock file when its holder is gone or it is older than the stale
// bound. A lock file without a holder line (another program's, or one whose
// holder has not written it yet) goes by age alone. True when the caller
// should try to create the lock again at once.
bool BreakIfStale(const char* lockPath) {
    int fd = open(lockPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT;
    struct stat st;
    char buf[64] = {};
    bool statted = fstat(fd, &st) == 0;
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (!statted) return false;
    long long ageNs =
        NowNs(CLOCK_REALTIME) -
        (static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec);
    bool stale = ageNs > kProfileStaleLockSec * 1000000000LL;
    long pid = 0;
    unsigned long long start = 0;
    if (!stale && n > 0 && sscanf(buf, "%ld %llu", &pid, &start) == 2 && pid > 0) {
        stale = ProcessStartTime(static_cast<pid_t>(pid)) != start;
    }
    if (!stale) return false;
    // Only the lock judged stale is removed, not one a quicker waiter has
    // created since.
    struct stat now;
    if (stat(lockPath, &now) != 0) return true;
    if (now.st_ino != st.st_ino || now.st_dev != st.st_dev) return true;
    return unlink(lockPath) == 0 || errno == ENOENT;
}

}  // namespace

int yuLock(const char* lockPath) {
    long long deadline = NowNs(CLOCK_MONOTONIC) + kProfileLockWaitMs * 1000000LL;
    long pauseUs = 500;
    for (;;) {
        int fd = open(lockPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            char holder[64];
            pid_t self = getpid();
            int len = snprintf(holder, sizeof holder, "%d %llu\n", static_cast<int>(self),
                               ProcessStartTime(self));
            bool ok = write(fd, holder, static_cast<size_t>(len)) == len;
            if (close(fd) != 0) ok = false;
            if (!ok) unlink(lockPath);
            return ok ? 1 : 0;
        }
        if (errno != EEXIST) return 0;
        if (BreakIfStale(lockPath)) continue;
        long long left = deadline - NowNs(CLOCK_MONOTONIC);
        if (left <= 0) return 0;
        // Spread the waiters (pid-based jitter) so they do not retry in step.
        long us = pauseUs + (getpid() % 7) * pauseUs / 8;
        if (us * 1000LL > left) us = static_cast<long>(left / 1000) + 1;
        timespec ts{us / 1000000, (us % 1000000) * 1000};
        nanosleep(&ts, nullptr);
        if (pauseUs < 32000) pauseUs *= 2;
    }
}

int yuUnlock(const char* lockPath) {
    return unlink(lockPath) == 0 ? 1 : 0;
}

}  // namespace detail
}  // namespace tv
