// Bounded readers of /proc; see proc_fs.h.
#include "threads/proc_fs.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace tv {
namespace detail {

ssize_t ReadProcFile(const char* path, char* buf, size_t max) {
    buf[0] = '\0';
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    size_t got = 0;
    // /proc files are produced on read: loop until the limit or the end.
    while (got < max) {
        ssize_t n = read(fd, buf + got, max - got);
        if (n < 0) {
            if (errno == EINTR) continue;
            close(fd);
            buf[got] = '\0';
            return -1;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    close(fd);
    buf[got] = '\0';
    return static_cast<ssize_t>(got);
}

void ProcPath(char* out, size_t outSize, const char* pid, const char* leaf) {
    snprintf(out, outSize, "/proc/%s/%s", pid, leaf);
}

void ProcPath(char* out, size_t outSize, long pid, const char* leaf) {
    snprintf(out, outSize, "/proc/%ld/%s", pid, leaf);
}

const char* AfterBlanks(const char* text, int blanks) {
    const char* p = text;
    while (blanks > 0) {
        p = strchr(p, ' ');
        if (p == nullptr) return nullptr;
        ++p;
        --blanks;
    }
    return p;
}

const char* AfterName(const char* stat) {
    const char* close = strrchr(stat, ')');
    return close ? close + 1 : nullptr;
}

bool ParseStatHead(const char* stat, int* pid, char* name, size_t nameSize, char* state,
                   int* ppid) {
    // The name may hold blanks and parentheses of its own; only the last ')'
    // of the line closes it.
    char* end = nullptr;
    long v = strtol(stat, &end, 10);
    if (end == stat || *end != ' ') return false;
    *pid = static_cast<int>(v);
    const char* nameStart = strchr(end, '(');
    const char* p = AfterName(stat);
    if (nameStart == nullptr || p == nullptr || p <= nameStart || nameSize == 0) return false;
    size_t n = static_cast<size_t>(p - nameStart);
    if (n > nameSize - 1) n = nameSize - 1;
    memcpy(name, nameStart, n);
    name[n] = '\0';
    while (*p == ' ') ++p;
    if (*p == '\0') return false;
    *state = *p++;
    while (*p == ' ') ++p;
    v = strtol(p, &end, 10);
    if (end == p) return false;
    *ppid = static_cast<int>(v);
    return true;
}

ProcDir::ProcDir() : dir_(opendir("/proc")) {}

ProcDir::~ProcDir() {
    if (dir_) closedir(dir_);
}

int ProcDir::Next(const char** name) {
    errno = 0;
    dirent* e = readdir(dir_);
    if (e == nullptr) return errno != 0 ? -1 : 0;
    *name = e->d_name;
    return 1;
}

}  // namespace detail
}  // namespace tv
