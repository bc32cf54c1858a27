// The Win32 file functions over POSIX descriptors: CreateFile and the
// read/write/seek/size/time/move/attribute functions.
//
// Small numeric arguments are the product's own numbering, mapped by fixed
// tables rather than by the Win32 bit values; unsupported values are
// reported on stderr and otherwise ignored, so that a caller passing a Win32
// GENERIC_* value still gets a (read-only) descriptor. The failure results
// follow each function's own convention; errno carries the cause.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <unistd.h>

#include "files/backup_directory.h"
#include "tvcommonutil/files.h"
#include "tvcommonutil/services.h"

namespace {

int FdOf(Handle* h) {
    if (h == nullptr || h == INVALID_HANDLE_VALUE || h->What() != kHandleFile) return -1;
    return static_cast<File*>(h)->GetFd();
}

// The number these messages print is the handle value cut to an int, not the
// descriptor; log readers have always seen it that way.
int HandleNumber(Handle* h) {
    return static_cast<int>(reinterpret_cast<long>(h));
}

// Prints without disturbing errno, which the caller is about to report.
void Report(const char* fmt, long value) {
    const int saved = errno;
    fprintf(stderr, fmt, static_cast<int>(value));
    errno = saved;
}

int AccessFlags(unsigned long desiredAccess, int flags) {
    switch (desiredAccess) {
        case TV_ACCESS_DEFAULT:
            return flags;
        case TV_ACCESS_READ:
            return flags | O_RDONLY;
        case TV_ACCESS_WRITE:
            return flags | O_WRONLY;
        case TV_ACCESS_READ_WRITE:
            return flags | O_RDWR;
        case TV_ACCESS_APPEND:
            return flags | O_APPEND;
        case TV_ACCESS_WRITE_APPEND:
            return flags | O_WRONLY | O_APPEND;
        case TV_ACCESS_READ_WRITE_APPEND:
            return flags | O_RDWR | O_APPEND;
        default:
            Report("CreateFile: dwDesiredAccess mode of %d not suppported\n",
                   static_cast<long>(desiredAccess));
            return flags;
    }
}

int DispositionFlags(unsigned long disposition, int flags) {
    switch (disposition) {
        case CREATE_NEW:
            return flags | O_CREAT | O_EXCL;
        case CREATE_ALWAYS:
            return flags | O_CREAT | O_TRUNC;
        case OPEN_EXISTING:
            return flags;
        case OPEN_ALWAYS:
            return flags | O_CREAT;
        case TRUNCATE_EXISTING:
            // Deliberately the same as CREATE_ALWAYS: a missing file is made.
            return flags | O_CREAT | O_TRUNC;
        default:
            Report("CreateFile: dwCreationDistribution of %d not suppported\n",
                   static_cast<long>(disposition));
            return flags;
    }
}

// A null name is the caller's error, reported before any system call sees it.
BOOL NullName() {
    errno = EINVAL;
    return FALSE;
}

}  // namespace

Handle* CreateFile(const char* name, unsigned long desiredAccess, unsigned long /*shareMode*/,
                   _SECURITY_ATTRIBUTES* /*security*/, unsigned long creationDisposition,
                   unsigned long flagsAndAttributes, Handle* /*templateFile*/) {
    int flags = AccessFlags(desiredAccess, 0);
    flags = DispositionFlags(creationDisposition, flags);
    const unsigned long flagPart = flagsAndAttributes & 0x1FE00UL & ~0x1800UL;
    if (flagsAndAttributes & TV_FILE_FLAG_WRITE_THROUGH) flags |= O_DSYNC;

    if (flagPart & TV_FILE_FLAG_BACKUP_SEMANTICS) {
        struct stat st;
        if (name == nullptr || stat(name, &st) != 0 || !S_ISDIR(st.st_mode)) {
            return INVALID_HANDLE_VALUE;
        }
        if ((desiredAccess & 0x1) == 0) return nullptr;
        return tv::detail::OpenDirectoryForNotification(name);
    }

    if (name == nullptr) {
        NullName();
        return INVALID_HANDLE_VALUE;
    }
    const int fd = open(name, flags | O_CLOEXEC, 0644);
    if (fd < 0) return INVALID_HANDLE_VALUE;
    return new File(fd);
}

BOOL ReadFile(Handle* h, void* buffer, unsigned long length, unsigned long* done,
              _OVERLAPPED* /*overlapped*/) {
    const ssize_t n = read(FdOf(h), buffer, length);
    if (done != nullptr) *done = static_cast<unsigned long>(n);
    return n == -1 ? FALSE : TRUE;
}

BOOL WriteFile(Handle* h, const void* buffer, unsigned long length, unsigned long* done,
               _OVERLAPPED* /*overlapped*/) {
    const ssize_t n = write(FdOf(h), buffer, length);
    if (done != nullptr) *done = static_cast<unsigned long>(n);
    return n >= 0 && static_cast<unsigned long>(n) == length ? TRUE : FALSE;
}

BOOL DeleteFile(const char* name) {
    if (name == nullptr) return NullName();
    return unlink(name) == 0 ? TRUE : FALSE;
}

BOOL SetCurrentDirectory(const char* path) {
    if (path == nullptr) return NullName();
    return chdir(path) == 0 ? TRUE : FALSE;
}

BOOL CreateDirectory(const char* path, _SECURITY_ATTRIBUTES* security) {
    return CreateDirectoryEx(nullptr, path, security);
}

BOOL CreateDirectoryEx(const char* templateDir, const char* path,
                       _SECURITY_ATTRIBUTES* /*security*/) {
    if (path == nullptr) return NullName();
    if (mkdir(path, 0755) != 0 && errno != EEXIST) return FALSE;
    if (templateDir == nullptr) return TRUE;
    struct stat st;
    if (stat(templateDir, &st) != 0) {
        const int saved = errno;
        rmdir(path);
        errno = saved;
        return FALSE;
    }
    // Owner and group can only be given away by a privileged caller; the
    // directory exists either way, which is what callers test.
    chmod(path, st.st_mode & 07777);
    const int rc = chown(path, st.st_uid, st.st_gid);
    (void)rc;
    return TRUE;
}

DWORD GetFileSize(Handle* h, unsigned long* high) {
    if (high != nullptr) *high = 0;
    struct stat st;
    if (fstat(FdOf(h), &st) != 0) {
        const int saved = errno;
        fprintf(stderr, "GetFileSize: for fd %d errno: %s\n", HandleNumber(h), strerror(saved));
        errno = saved;
        return static_cast<DWORD>(-1);
    }
    return static_cast<DWORD>(st.st_size);
}

BOOL GetFileTime(Handle* h, _FILETIME* creation, _FILETIME* access, _FILETIME* write) {
    struct stat st;
    if (fstat(FdOf(h), &st) != 0) {
        const int saved = errno;
        fprintf(stderr, "GetFileTime: for fd %d errno: %s\n", HandleNumber(h), strerror(saved));
        errno = saved;
        memset(&st, 0, sizeof st);
    }
    // Unix keeps no creation time; the modification time stands in.
    if (creation != nullptr) time_tToFileTime(st.st_mtime, creation, 0);
    if (access != nullptr) time_tToFileTime(st.st_atime, access, 0);
    if (write != nullptr) time_tToFileTime(st.st_mtime, write, 0);
    return TRUE;
}

DWORD SetFilePointer(Handle* h, long offset, long* /*high*/, unsigned long method) {
    if (h == INVALID_HANDLE_VALUE) return 0xFFFFFFFFUL;
    return static_cast<DWORD>(lseek(FdOf(h), offset, static_cast<int>(method)));
}

long tell(int fd) {
    return lseek(fd, 0, SEEK_CUR);
}

BOOL SetEndOfFile(Handle* h) {
    if (h == nullptr || h == INVALID_HANDLE_VALUE) return FALSE;
    const int fd = FdOf(h);
    const long position = tell(fd);
    if (position == -1) return FALSE;
    return ftruncate(fd, position) == 0 ? TRUE : FALSE;
}

BOOL MoveFileEx(const char* from, const char* to, unsigned long flags) {
    if (flags & TV_MOVEFILE_UNSUPPORTED)
        fprintf(stderr, "MoveFileEx: called with unsupported dwflags\n");
    if (flags & TV_MOVEFILE_COPY_ALLOWED) {
        fprintf(stderr,
                "MoveFileEx: MOVEFILE_COPY_ALLOWED not yet implemented, guess we need it!!!\n");
    }
    if (from == nullptr || to == nullptr) return NullName();
    if (flags & TV_MOVEFILE_RENAME) return rename(from, to) == 0 ? TRUE : FALSE;
    // Without the rename bit the move must not replace an existing file.
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return TRUE;
    if (errno != EINVAL && errno != ENOSYS) return FALSE;
    // A file system without the no-replace rename: link, then unlink.
    if (link(from, to) != 0) return FALSE;
    if (unlink(from) != 0) {
        const int saved = errno;
        unlink(to);
        errno = saved;
        return FALSE;
    }
    return TRUE;
}

DWORD GetFileAttributes(const char* path) {
    if (path == nullptr) {
        NullName();
        return INVALID_FILE_ATTRIBUTES;
    }
    struct stat st;
    if (stat(path, &st) != 0) return INVALID_FILE_ATTRIBUTES;
    DWORD attributes = 0;
    if (S_ISDIR(st.st_mode)) {
        attributes = TV_FILE_ATTRIBUTE_DIRECTORY;
    } else if (S_ISREG(st.st_mode)) {
        attributes = TV_FILE_ATTRIBUTE_NORMAL;
    }
    if (st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) attributes |= TV_FILE_ATTRIBUTE_EXECUTABLE;
    return attributes;
}

BOOL SetFileAttributes(const char* path, unsigned long attributes) {
    if (path == nullptr) return NullName();
    struct stat st;
    if (stat(path, &st) != 0) return FALSE;
    mode_t mode = st.st_mode & 07777;
    if (attributes & TV_FILE_ATTRIBUTE_READONLY) {
        mode &= ~static_cast<mode_t>(0222);
    } else {
        mode |= 0222;
    }
    if (attributes & TV_FILE_ATTRIBUTE_EXECUTABLE) {
        mode |= 0111;
    } else {
        mode &= ~static_cast<mode_t>(0111);
    }
    return chmod(path, mode) == 0 ? TRUE : FALSE;
}

BOOL GetDiskFreeSpaceEx(const char* dir, _ULARGE_INTEGER* freeBytesAvailable,
                        _ULARGE_INTEGER* totalBytes, _ULARGE_INTEGER* totalFreeBytes) {
    struct statvfs vfs;
    if (statvfs(dir != nullptr ? dir : ".", &vfs) != 0) return FALSE;
    const unsigned long long unit = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
    if (freeBytesAvailable != nullptr) freeBytesAvailable->QuadPart = vfs.f_bavail * unit;
    if (totalBytes != nullptr) totalBytes->QuadPart = vfs.f_blocks * unit;
    if (totalFreeBytes != nullptr) totalFreeBytes->QuadPart = vfs.f_bfree * unit;
    return TRUE;
}

int _stat(const char* path, struct stat* buf) {
    return stat(path, buf);
}

int _lstat(const char* path, struct stat* buf) {
    return lstat(path, buf);
}

int _fstat(int fd, struct stat* buf) {
    return fstat(fd, buf);
}
