// File mappings on real backing files under /tmp.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "files_test_util.h"

namespace {

using filestest::MappingName;
Handle* const kNoFile = filestest::NoFile();

off_t SizeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

uint64_t Header(void* view) {
    uint64_t v;
    memcpy(&v, static_cast<char*>(view) - 8, sizeof v);
    return v;
}

TEST(FileMapping, CreateOpenExistingAndSizes) {
    MappingName m;
    errno = 1234;
    Handle* h = CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 100, m.name());
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(0, errno);
    EXPECT_EQ(2, h->What());
    EXPECT_EQ(108, SizeOf(m.path()));
    struct stat st;
    ASSERT_EQ(0, stat(m.path().c_str(), &st));
    EXPECT_EQ(0u, st.st_mode & 0113);  // 0664 at most; never executable or world-writable
    EXPECT_TRUE(fcntl(static_cast<File*>(h)->GetFd(), F_GETFD) & FD_CLOEXEC);

    // The same name again: a handle on the same file, errno 17, no truncation.
    Handle* again = CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 10, m.name());
    ASSERT_NE(nullptr, again);
    EXPECT_EQ(17, errno);
    EXPECT_EQ(108, SizeOf(m.path()));

    // A view with access 2 records its length; one of the whole file (bytes
    // 0) covers the header too and leaves it as it is.
    char* w = static_cast<char*>(MapViewOfFile(h, PROT_WRITE, 0, 0, 100));
    ASSERT_NE(nullptr, w);
    EXPECT_EQ(108u, Header(w));
    memcpy(w, "hello", 6);
    char* r = static_cast<char*>(MapViewOfFile(again, PROT_READ | PROT_WRITE, 0, 0, 0));
    ASSERT_NE(nullptr, r);
    EXPECT_STREQ("hello", r);
    EXPECT_EQ(108u, Header(r));
    r[99] = 'z';  // the last usable byte: file size - 8
    EXPECT_EQ('z', w[99]);

    EXPECT_EQ(1, UnmapViewOfFile(r));
    EXPECT_EQ(1, UnmapViewOfFile(w));
    EXPECT_EQ(0, UnmapViewOfFile(w));  // no longer a view
    EXPECT_EQ(0, UnmapViewOfFile(nullptr));
    CloseHandle(again);
    CloseHandle(h);
}

TEST(FileMapping, ViewsWhoseHeaderWasNeverWritten) {
    MappingName m;
    Handle* h = CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 5000, m.name());
    ASSERT_NE(nullptr, h);
    // Access 3 leaves the header 0; the view is still unmapped whole.
    char* v = static_cast<char*>(MapViewOfFile(h, PROT_READ | PROT_WRITE, 0, 0, 5000));
    ASSERT_NE(nullptr, v);
    EXPECT_EQ(0u, Header(v));
    v[4999] = 1;
    EXPECT_EQ(1, UnmapViewOfFile(v));
    // A header made larger by another process does not widen the unmap.
    char* big = static_cast<char*>(MapViewOfFile(h, PROT_WRITE, 0, 0, 0));
    ASSERT_NE(nullptr, big);
    uint64_t huge = 1ULL << 40;
    memcpy(big - 8, &huge, sizeof huge);
    char* small = static_cast<char*>(MapViewOfFile(h, PROT_READ, 0, 0, 10));
    ASSERT_NE(nullptr, small);
    EXPECT_EQ(huge, Header(small));
    EXPECT_EQ(1, UnmapViewOfFile(small));
    EXPECT_EQ(1, big[4999]);  // still mapped
    EXPECT_EQ(1, UnmapViewOfFile(big));
    CloseHandle(h);
}

TEST(FileMapping, BadArguments) {
    MappingName m;
    tvtest::TempDir dir;
    tvtest::WriteFile(dir.file("real"), "data");
    Handle* real = CreateFile(dir.file("real").c_str(), 3, 0, nullptr, 3, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, real);
    errno = 0;
    EXPECT_EQ(nullptr, CreateFileMapping(real, nullptr, O_RDWR, 0, 10, m.name()));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(nullptr, CreateFileMapping(INVALID_HANDLE_VALUE, nullptr, O_RDWR, 0, 10, m.name()));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(nullptr, CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 10, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_FALSE(tvtest::FileExists(m.path()));
    errno = 0;
    EXPECT_EQ(nullptr, MapViewOfFile(nullptr, PROT_READ, 0, 0, 10));
    EXPECT_EQ(EINVAL, errno);
    // An offset that is not page-aligned fails cleanly.
    Handle* h = CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 10, m.name());
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(nullptr, MapViewOfFile(h, PROT_READ, 0, 3, 10));
    // A write view of a mapping opened read-only fails instead of faulting.
    Handle* ro = CreateFileMapping(kNoFile, nullptr, O_RDONLY, 0, 10, m.name());
    ASSERT_NE(nullptr, ro);
    EXPECT_EQ(17, errno);
    EXPECT_EQ(nullptr, MapViewOfFile(ro, PROT_WRITE, 0, 0, 10));
    CloseHandle(ro);
    CloseHandle(h);
    CloseHandle(real);
}

TEST(FileMapping, ExistingNameIsNeverFollowedThroughALink) {
    MappingName m;
    tvtest::TempDir dir;
    const std::string victim = dir.file("victim");
    tvtest::WriteFile(victim, "keep");
    ASSERT_EQ(0, symlink(victim.c_str(), m.path().c_str()));
    errno = 0;
    EXPECT_EQ(nullptr, CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 100, m.name()));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ("keep", tvtest::ReadFile(victim));
    // A dangling link does not create its target either.
    unlink(m.path().c_str());
    ASSERT_EQ(0, symlink(dir.file("made").c_str(), m.path().c_str()));
    EXPECT_EQ(nullptr, CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 100, m.name()));
    EXPECT_FALSE(tvtest::FileExists(dir.file("made")));
    // Nor is a FIFO under the name opened (or waited on).
    unlink(m.path().c_str());
    ASSERT_EQ(0, mkfifo(m.path().c_str(), 0600));
    EXPECT_EQ(nullptr, CreateFileMapping(kNoFile, nullptr, O_RDONLY, 0, 100, m.name()));
}

}  // namespace
