// Temporary file names and whole-file copies.
//
// KWTempNam builds the name tempnam(NULL, NULL) would give without calling
// it: glibc's tempnam draws from a weak source and makes the linker warn on
// every program that links the library. The shape is kept ("file" and six
// characters, as under P_tmpdir), so the names look as they always have.
//
// CopyFile holds the source and the destination under FileLock locks while
// copying, so a copy never interleaves with another process's copy of the
// same files. The source is stat-ed first: FileLock opens read/write and
// creates, and a copy from a missing file must not make one.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "tvcommonutil/files.h"
#include "tvcommonutil/registry.h"

namespace {

const char kNameChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

// Six characters from the kernel's generator, falling back to a mix of the
// clock and the process id should it be unavailable.
void RandomSuffix(char out[7]) {
    unsigned char bytes[6];
    if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof bytes)) {
        timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        unsigned long x = static_cast<unsigned long>(ts.tv_nsec) ^
                          (static_cast<unsigned long>(getpid()) << 20) ^
                          static_cast<unsigned long>(ts.tv_sec);
        for (unsigned char& b : bytes) {
            x = x * 6364136223846793005UL + 1442695040888963407UL;
            b = static_cast<unsigned char>(x >> 56);
        }
    }
    for (int i = 0; i < 6; ++i) out[i] = kNameChars[bytes[i] % (sizeof kNameChars - 1)];
    out[6] = '\0';
}

}  // namespace

CKWString KWTempNam(CKWString dir) {
    const int tick = static_cast<int>(GetTickCount());
    char suffix[7];
    RandomSuffix(suffix);
    std::string temp = std::string(P_tmpdir) + "/file" + suffix;
    CKWString result;
    size_t slash = temp.rfind('/');
    if (slash != std::string::npos) {
        result.Format("%s/%s.%i", dir.c_str(), temp.c_str() + slash + 1, tick);
    } else {
        result.Format("%s/%d", dir.c_str(), tick);
    }
    return result;
}

BOOL CopyFile(const char* from, const char* to, unsigned char failIfExists) {
    if (from == nullptr || to == nullptr) {
        errno = EINVAL;
        return 0;
    }
    struct stat st;
    if (stat(from, &st) != 0) return 0;
    // Opening the destination truncates it, so a copy onto the source itself
    // (under any of its names) must be refused before anything is opened.
    struct stat target;
    if (stat(to, &target) == 0 && target.st_dev == st.st_dev && target.st_ino == st.st_ino) {
        errno = ERROR_SHARING_VIOLATION;
        return 0;
    }
    FileLock source;
    if (!source.OpenAndLockFile(from, O_RDONLY)) return 0;
    FileLock dest;
    const int oflag =
        failIfExists ? (O_WRONLY | O_CREAT | O_EXCL | O_TRUNC) : (O_WRONLY | O_CREAT | O_TRUNC);
    if (!dest.OpenAndLockFile(to, oflag)) {
        int err = errno;
        source.CloseAndUnLockFile();
        errno = err;
        return 0;
    }
    if (source.FileStat(&st) != 0) {
        int err = errno;
        dest.CloseAndUnLockFile();
        source.CloseAndUnLockFile();
        errno = err;
        return 0;
    }
    // One buffer sized from the source, within sensible bounds.
    size_t size = st.st_blksize > 0 ? static_cast<size_t>(st.st_blksize) : 4096;
    if (size < 64 * 1024) size = 64 * 1024;
    std::unique_ptr<char[]> buf(new (std::nothrow) char[size + 1]);
    if (!buf) {
        dest.CloseAndUnLockFile();
        source.CloseAndUnLockFile();
        errno = ENOMEM;
        return 0;
    }
    BOOL ok = 1;
    for (;;) {
        errno = 0;
        int n = source.ReadBlk(buf.get(), static_cast<int>(size));
        if (n < 1) {
            if (errno != 0) ok = 0;  // a read error, not the end of the file
            break;
        }
        if (dest.WriteBlk(buf.get(), n) != n) {
            ok = 0;
            break;
        }
    }
    int err = errno;
    // Inside the product's server, copies keep the server's own ownership.
    if (ok && !bRunningInServer) {
        int fd = dest.GetFileDescriptor();
        // Ownership may only be given away by a privileged process; the
        // copy is good either way.
        if (fchown(fd, st.st_uid, st.st_gid) != 0) {
        }
        if (fchmod(fd, st.st_mode & 07777) != 0) {
        }
    }
    // A copy carries the source's times, as callers comparing last-write
    // times to find changed files expect.
    if (ok) {
        const timespec times[2] = {st.st_atim, st.st_mtim};
        if (futimens(dest.GetFileDescriptor(), times) != 0) {
        }
    }
    dest.CloseAndUnLockFile();
    source.CloseAndUnLockFile();
    errno = err;
    return ok;
}
