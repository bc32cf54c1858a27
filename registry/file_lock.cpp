// FileLock: a file held open under a lockf lock, with line and block I/O.
//
// The lock is a POSIX record lock over the whole file (from offset 0 after
// opening), so it excludes other processes only. Record locks belong to the
// process, not the descriptor: closing any descriptor of the file drops every
// lock this process holds on it. That is why the file is opened exactly once
// per OpenAndLockFile and why a descriptor is never closed twice (a second
// close could hit a descriptor number reused for another file, or drop
// another object's lock).
//
// Across fork: record locks are not inherited, so a child's copy of an
// object holds its descriptor but not the lock, and closing it in the child
// drops nothing of the parent's. The objects keep no process-wide state (the
// nested-holder count is per object), so no fork handler is needed here.
//
// The open is always read/write and creating, whatever the access bits of
// the caller's flags: the flags decide whether the file is locked and how
// failures are reported, and callers (the registry writer, CopyFile) depend
// on being able to lock a file they asked to open write-only or read-only.
// O_EXCL is honoured at the open; O_TRUNC is applied with ftruncate once the
// lock is held, so a truncating opener never empties a file another process
// is still writing under its lock.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "foundation/clock_internal.h"
#include "foundation/diagnostics_internal.h"
#include "tvcommonutil/registry.h"

namespace {

static_assert(O_CREAT == 0x40 && O_EXCL == 0x80 && O_TRUNC == 0x200 && O_WRONLY == 1 && O_RDWR == 2,
              "the lock table below is written in Linux flag values");

// The open flags under which OpenAndLockFile takes the lock.
bool TakesLock(int oflag) {
    switch (oflag) {
        case 0:
        case O_CREAT:
        case O_TRUNC | O_WRONLY:
        case O_TRUNC | O_RDWR:
        case O_CREAT | O_TRUNC | O_WRONLY:
        case O_CREAT | O_TRUNC | O_RDWR:
        case O_CREAT | O_EXCL | O_TRUNC | O_WRONLY:
            return true;
        default:
            return false;
    }
}

// A signal (the library's own suspend and APC signals included) must not
// turn a wait for the lock into a failure.
int LockWhole(int fd, int cmd) {
    int rc;
    do {
        rc = lockf(fd, cmd, 0);
    } while (rc == -1 && errno == EINTR);
    return rc;
}

bool WriteAll(int fd, const char* buf, int len) {
    if (len < 0 || (buf == nullptr && len > 0)) return false;
    while (len > 0) {
        ssize_t n = write(fd, buf, static_cast<size_t>(len));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        buf += n;
        len -= static_cast<int>(n);
    }
    return true;
}

}  // namespace

FileLock::FileLock(const char* path, int oflag) : fd_(-1), lockCount_(0), fdClosed_(false) {
    if (path != nullptr) OpenAndLockFile(path, oflag, nullptr, false);
}

FileLock::~FileLock() {
    Clear();
}

void FileLock::Clear() {
    if (fd_ >= 0 && !fdClosed_) close(fd_);
    fd_ = -1;
    fdClosed_ = false;
    path_.clear();
    __atomic_store_n(&lockCount_, 0, __ATOMIC_SEQ_CST);
}

bool FileLock::OpenAndLockFile(const char* path, int oflag, int* status, bool hold) {
    // Another holder on this object: count it, unless the last holder is
    // closing the file right now (the count already reached 0).
    long count = __atomic_load_n(&lockCount_, __ATOMIC_SEQ_CST);
    while (count > 0) {
        if (__atomic_compare_exchange_n(&lockCount_, &count, count + 1, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST)) {
            if (status != nullptr) *status = 1;
            return true;
        }
    }
    if (status != nullptr) *status = 0;
    for (;;) {
        // One object holds one file: a descriptor left from an earlier open
        // would otherwise leak.
        if (fd_ >= 0 && !fdClosed_) close(fd_);
        fd_ = -1;
        fdClosed_ = false;
        path_ = path != nullptr ? path : "";
        errno = 0;
        int fd = open(path_.c_str(), O_RDWR | O_CREAT | (oflag & O_EXCL), 0644);
        if (fd < 0) {
            int err = errno;
            if (err == EMFILE) {
                tv::detail::SleepMs(10);
                continue;
            }
            if (err == EEXIST && oflag != 0) {
                if (status != nullptr) *status = 1;
                errno = err;
                return false;
            }
            unix_err(
                "[FileLock::OpenAndLockFile] - Cannot open file %s, oflag:%#x, errno: %d,  %s\n",
                tv::detail::PercentSafe(path_.c_str(), 1600).c_str(), static_cast<unsigned>(oflag),
                err, tv::detail::PercentSafe(strerror(err), 200).c_str());
            errno = err;
            return false;
        }
        fd_ = fd;
        bool locked = false;
        if (TakesLock(oflag)) {
            if (LockWhole(fd_, F_LOCK) == 0) {
                locked = true;
            } else {
                int err = errno;
                fprintf(stderr, "lock failed, %s\n", strerror(err));
                close(fd_);
                fd_ = -1;
                errno = err;
            }
        }
        if (errno == EMFILE) {
            if (fd_ >= 0) close(fd_);
            fd_ = -1;
            tv::detail::SleepMs(10);
            continue;
        }
        if ((oflag & O_TRUNC) != 0 && fd_ >= 0) {
            if (ftruncate(fd_, 0) != 0) {
                // Not a regular file: like O_TRUNC, nothing to truncate.
            }
        }
        // Only a file really held counts holders; a failed open must not
        // leave the object claiming one.
        if (hold && locked) __atomic_store_n(&lockCount_, 1, __ATOMIC_SEQ_CST);
        return locked;
    }
}

bool FileLock::CloseAndUnLockFile() {
    if (__atomic_load_n(&lockCount_, __ATOMIC_SEQ_CST) > 0 &&
        InterlockedDecrement(&lockCount_) > 0) {
        return true;
    }
    // Closing releases the lock anyway, so the object is cleared even when
    // the explicit unlock fails.
    bool unlocked = UnLockFile();
    Clear();
    return unlocked;
}

bool FileLock::OpenFileUnLocked(const char* path, int oflag) {
    Clear();
    path_ = path != nullptr ? path : "";
    fd_ = open(path_.c_str(), oflag, 0666);
    if (fd_ < 0) fd_ = -1;
    return fd_ >= 0;
}

bool FileLock::CloseFileUnLocked() {
    Clear();
    return true;
}

bool FileLock::LockFile() {
    if (fd_ < 0 || fdClosed_) {
        errno = EBADF;
        return false;
    }
    return LockWhole(fd_, F_LOCK) == 0;
}

bool FileLock::UnLockFile() {
    if (fd_ < 0 || fdClosed_) {
        errno = EBADF;
        return false;
    }
    return LockWhole(fd_, F_ULOCK) == 0;
}

void FileLock::CloseFile() {
    if (fd_ >= 0 && !fdClosed_) {
        close(fd_);
        fdClosed_ = true;
    }
}

int FileLock::FileStat(struct stat* buf) {
    if (fd_ < 0 || fdClosed_) {
        errno = EBADF;
        return -1;
    }
    return fstat(fd_, buf) == 0 ? 0 : -1;
}

bool FileLock::ReadLine(char* buf, int size) {
    if (fd_ < 0 || fdClosed_) return false;
    return readline(fd_, buf, size) > 0;
}

bool FileLock::WriteLine(const char* buf, int len) {
    if (fd_ < 0 || fdClosed_) {
        errno = EBADF;
        return false;
    }
    return WriteAll(fd_, buf, len);
}

int FileLock::ReadBlk(char* buf, int len) {
    if (buf == nullptr || len < 0) return 0;
    if (fd_ < 0 || fdClosed_) {
        errno = EBADF;
        buf[0] = '\0';
        return 0;
    }
    ssize_t n;
    do {
        n = read(fd_, buf, static_cast<size_t>(len));
    } while (n < 0 && errno == EINTR);
    if (n < 0) n = 0;
    buf[n] = '\0';  // the caller's spare byte
    return static_cast<int>(n);
}

int FileLock::WriteBlk(const char* buf, int len) {
    if (fd_ < 0 || fdClosed_) {
        errno = EBADF;
        return 0;
    }
    return WriteAll(fd_, buf, len) ? len : 0;
}

int FileLock::readline(int fd, char* buf, int size) {
    if (buf == nullptr || size < 1) return -1;
    int n = 0;
    while (n < size - 1) {
        char c;
        ssize_t r = read(fd, &c, 1);
        if (r < 0) {
            if (errno == EINTR) continue;
            buf[n] = '\0';
            return -1;
        }
        if (r == 0) {
            if (n == 0) {
                buf[0] = '\0';
                return -1;
            }
            break;
        }
        if (c == '\n') break;
        buf[n++] = c;
    }
    buf[n] = '\0';
    return n + 1;
}
