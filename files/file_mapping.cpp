// Named shared memory: CreateFileMapping / MapViewOfFile / UnmapViewOfFile
// over a file "/tmp/." + name that every process using the name maps shared.
//
// File format (also the layout of every view):
//   offset 0, 8 bytes: length of the view including this header, written by
//                      views mapped with access 2;
//   offset 8:          the caller's data; MapViewOfFile returns this address.
// A file created here is sized to the requested size + 8.
//
// /tmp is shared with every user of the host, so the open of an existing
// backing file refuses to follow a symbolic link (a link planted under a
// mapping's name would otherwise let its owner point our writes at any file
// we may write) and accepts only a regular file. Creation itself uses
// O_EXCL, which never follows a link.
//
// Views are recorded per process (address -> mapped length) so that
// UnmapViewOfFile unmaps exactly what MapViewOfFile mapped. The length header
// in the file is shared with other processes and is only written by access-2
// views; trusting it could unmap nothing (a header still 0) or, worse,
// unrelated memory of this process next to the view (a header another
// process made larger). For a view whose header is right the two agree.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>

#include "tvcommonutil/files.h"

namespace {

constexpr size_t kHeader = 8;
constexpr int kExistingMapping = EEXIST;  // 17: what callers test errno for

// Guards the view table; a leaf lock (nothing else is taken under it).
CriticalSection g_viewsLock;
tv::detail::ForkTrackedLock g_viewsLockFork(&g_viewsLock, tv::detail::ForkTrackedLock::kHandleLock);

std::map<uintptr_t, size_t>& Views() TV_REQUIRES(g_viewsLock) {
    static std::map<uintptr_t, size_t>* views = new std::map<uintptr_t, size_t>;
    return *views;
}

int FdOf(Handle* h) {
    if (h == nullptr || h == INVALID_HANDLE_VALUE || h->What() != kHandleFile) return -1;
    return static_cast<File*>(h)->GetFd();
}

// Opens an existing backing file: never through a link, never anything but
// a regular file (a FIFO planted under the name must not block us either).
int OpenExisting(const std::string& path, int flags) {
    int fd = open(path.c_str(), flags | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0664);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    if ((flags & O_NONBLOCK) == 0) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

}  // namespace

Handle* CreateFileMapping(Handle* file, _SECURITY_ATTRIBUTES* /*security*/, unsigned long protect,
                          unsigned long /*maximumSizeHigh*/, unsigned long maximumSizeLow,
                          char* name) {
    // Only the 32-bit -1 names "no file"; callers that pass a 64-bit -1 have
    // always been refused.
    if (file != reinterpret_cast<Handle*>(0xFFFFFFFFUL) || name == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    const std::string path = std::string("/tmp/.") + name;
    const int flags = static_cast<int>(protect);
    int result = 0;
    int fd = open(path.c_str(), flags | O_CREAT | O_EXCL | O_CLOEXEC, 0664);
    if (fd < 0) {
        if (errno != EEXIST) return nullptr;
        fd = OpenExisting(path, flags);
        if (fd < 0) return nullptr;
        result = kExistingMapping;
    }
    File* h = new File(fd);
    // A size that cannot be set (a read-only open) leaves an empty file, and
    // views of the whole file then fail; the handle is still the mapping.
    if (result == 0) {
        const int rc = ftruncate(fd, static_cast<off_t>(maximumSizeLow + kHeader));
        (void)rc;
    }
    errno = result;
    return h;
}

void* MapViewOfFile(Handle* mapping, unsigned long access, unsigned long /*offsetHigh*/,
                    unsigned long offsetLow, unsigned long bytes) {
    const int fd = FdOf(mapping);
    if (fd < 0) {
        errno = EINVAL;
        return nullptr;
    }
    size_t length = 0;
    if (bytes != 0) {
        length = bytes + kHeader;
    } else {
        struct stat st;
        if (fstat(fd, &st) == 0) length = static_cast<size_t>(st.st_size);
    }
    void* p = mmap(nullptr, length, static_cast<int>(access), MAP_SHARED, fd,
                   static_cast<off_t>(offsetLow));
    // Returning the failure offset by 8 would hand the caller a wild pointer
    // (and the header write below would fault); a failed view is null.
    if (p == MAP_FAILED) return nullptr;
    if (access == PROT_WRITE) {
        const uint64_t stored = length;
        memcpy(p, &stored, sizeof stored);
    }
    {
        CriticalSectionHolder hold(g_viewsLock);
        Views()[reinterpret_cast<uintptr_t>(p) + kHeader] = length;
    }
    return static_cast<char*>(p) + kHeader;
}

int UnmapViewOfFile(void* address) {
    if (address == nullptr) return 0;
    size_t length;
    {
        CriticalSectionHolder hold(g_viewsLock);
        auto it = Views().find(reinterpret_cast<uintptr_t>(address));
        if (it == Views().end()) {
            errno = EINVAL;
            return 0;
        }
        length = it->second;
        Views().erase(it);
    }
    return munmap(static_cast<char*>(address) - kHeader, length) == 0 ? 1 : 0;
}
