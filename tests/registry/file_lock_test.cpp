// FileLock within one process: line reading limits, the open flags, nested
// holders, block I/O and the open-failure report.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <tvcommonutil.h>

#include "test_support.h"

namespace {

off_t SizeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

}  // namespace

TEST(FileLock, ReadLineStopsAtLineEndsAndSizeLimits) {
    tvtest::TempDir dir;
    std::string path = dir.file("lines");
    tvtest::WriteFile(path, "abc\n12345\n\nabcdefghij\ntail");
    FileLock f;
    ASSERT_TRUE(f.OpenFileUnLocked(path.c_str(), O_RDONLY));
    char buf[6];
    ASSERT_TRUE(f.ReadLine(buf, sizeof buf));
    EXPECT_STREQ("abc", buf);
    // Exactly size - 1 bytes: returned whole, the line feed is left for the
    // next call, which gives an empty line.
    ASSERT_TRUE(f.ReadLine(buf, sizeof buf));
    EXPECT_STREQ("12345", buf);
    ASSERT_TRUE(f.ReadLine(buf, sizeof buf));
    EXPECT_STREQ("", buf);
    ASSERT_TRUE(f.ReadLine(buf, sizeof buf));  // the real empty line
    EXPECT_STREQ("", buf);
    // A longer line comes in pieces of size - 1.
    ASSERT_TRUE(f.ReadLine(buf, 4));
    EXPECT_STREQ("abc", buf);
    ASSERT_TRUE(f.ReadLine(buf, 4));
    EXPECT_STREQ("def", buf);
    ASSERT_TRUE(f.ReadLine(buf, sizeof buf));
    EXPECT_STREQ("ghij", buf);
    // The last line has no line feed; after it, end of file.
    ASSERT_TRUE(f.ReadLine(buf, sizeof buf));
    EXPECT_STREQ("tail", buf);
    EXPECT_FALSE(f.ReadLine(buf, sizeof buf));
    EXPECT_FALSE(f.ReadLine(buf, sizeof buf));
    EXPECT_TRUE(f.CloseFileUnLocked());
    EXPECT_FALSE(f.ReadLine(buf, sizeof buf));  // nothing open

    // The reader itself: bytes stored plus one, -1 at end of file.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    ASSERT_EQ(7, write(fds[1], "xy\nz\nw\n", 7));
    close(fds[1]);
    char small[8];
    EXPECT_EQ(3, FileLock::readline(fds[0], small, sizeof small));
    EXPECT_STREQ("xy", small);
    EXPECT_EQ(1, FileLock::readline(fds[0], small, 1));  // room for the zero only
    EXPECT_STREQ("", small);
    EXPECT_EQ(-1, FileLock::readline(fds[0], small, 0));
    EXPECT_EQ(2, FileLock::readline(fds[0], small, sizeof small));
    EXPECT_STREQ("z", small);
    EXPECT_EQ(2, FileLock::readline(fds[0], small, sizeof small));
    EXPECT_STREQ("w", small);
    EXPECT_EQ(-1, FileLock::readline(fds[0], small, sizeof small));
    close(fds[0]);
    EXPECT_EQ(-1, FileLock::readline(-1, small, sizeof small));
}

TEST(FileLock, OpenFlagsDecideCreationExclusionTruncationAndLocking) {
    tvtest::TempDir dir;
    int status = -1;

    // O_RDONLY (0) still creates and locks the file.
    std::string missing = dir.file("created");
    {
        FileLock f;
        EXPECT_TRUE(f.OpenAndLockFile(missing.c_str(), O_RDONLY, &status, false));
        EXPECT_EQ(0, status);
        EXPECT_GE(f.GetFileDescriptor(), 0);
        EXPECT_TRUE(f.WriteLine("rw", 2));  // opened for writing regardless
    }
    ASSERT_TRUE(tvtest::FileExists(missing));
    struct stat st;
    ASSERT_EQ(0, stat(missing.c_str(), &st));
    EXPECT_EQ(0, st.st_mode & 0133);  // 0644 less the umask
    EXPECT_EQ("rw", tvtest::ReadFile(missing));

    // O_EXCL on an existing file: false with status 1, contents untouched.
    const int kExclusive = O_WRONLY | O_CREAT | O_EXCL | O_TRUNC;
    {
        FileLock f;
        status = -1;
        EXPECT_FALSE(f.OpenAndLockFile(missing.c_str(), kExclusive, &status, false));
        EXPECT_EQ(1, status);
        EXPECT_EQ(-1, f.GetFileDescriptor());
        EXPECT_EQ("rw", tvtest::ReadFile(missing));
        std::string fresh = dir.file("fresh");
        EXPECT_TRUE(f.OpenAndLockFile(fresh.c_str(), kExclusive, &status, false));
        EXPECT_EQ(0, status);
    }

    // O_TRUNC empties the file.
    tvtest::WriteFile(missing, "old contents");
    {
        FileLock f(missing.c_str(), O_WRONLY | O_CREAT | O_TRUNC);
        EXPECT_GE(f.GetFileDescriptor(), 0);
        EXPECT_EQ(0, SizeOf(missing));
    }
    // Without O_TRUNC the contents stay.
    tvtest::WriteFile(missing, "kept");
    {
        FileLock f(missing.c_str(), O_CREAT);
        EXPECT_EQ(4, SizeOf(missing));
    }

    // A flag combination outside the locking table: open, unlocked, false.
    {
        FileLock f;
        EXPECT_FALSE(f.OpenAndLockFile(missing.c_str(), O_WRONLY | O_CREAT, &status, false));
        EXPECT_GE(f.GetFileDescriptor(), 0);
        EXPECT_EQ(4, SizeOf(missing));
    }
}

TEST(FileLock, OpenFailureIsReportedWithPercentSignsIntact) {
    tvtest::TempDir dir;
    std::string bad = dir.file("no%s%n%x%%dir/file");
    FileLock f;
    int status = -1;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(f.OpenAndLockFile(bad.c_str(), O_CREAT, &status, false));
    int err = errno;
    std::string out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(ENOENT, err);
    EXPECT_EQ(0, status);
    EXPECT_EQ("[FileLock::OpenAndLockFile] - Cannot open file " + bad +
                  ", oflag:0x40, errno: 2,  No such file or directory\n",
              out);
    // EEXIST without any flag asking for exclusion cannot happen; a very
    // long path is reported cut, never overflowing.
    std::string longBad = dir.path() + "/" + std::string(3000, '%') + "/x";
    testing::internal::CaptureStderr();
    EXPECT_FALSE(f.OpenAndLockFile(longBad.c_str(), 0, nullptr, false));
    out = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, out.find("[FileLock::OpenAndLockFile] - Cannot open file "));
    EXPECT_LT(out.size(), 2048u);
}

TEST(FileLock, NestedHoldersShareOneOpen) {
    tvtest::TempDir dir;
    std::string path = dir.file("held");
    FileLock f;
    int status = -1;
    ASSERT_TRUE(f.OpenAndLockFile(path.c_str(), O_CREAT, &status, true));
    EXPECT_EQ(0, status);
    int fd = f.GetFileDescriptor();
    ASSERT_TRUE(f.OpenAndLockFile(path.c_str(), O_CREAT, &status, true));
    EXPECT_EQ(1, status);
    ASSERT_TRUE(f.OpenAndLockFile(path.c_str(), O_CREAT, &status, false));
    EXPECT_EQ(1, status);
    EXPECT_EQ(fd, f.GetFileDescriptor());
    EXPECT_TRUE(f.CloseAndUnLockFile());
    EXPECT_TRUE(f.CloseAndUnLockFile());
    EXPECT_EQ(fd, f.GetFileDescriptor());  // one holder left
    EXPECT_TRUE(f.CloseAndUnLockFile());
    EXPECT_EQ(-1, f.GetFileDescriptor());
    EXPECT_FALSE(f.CloseAndUnLockFile());  // nothing left to unlock

    // Without the hold flag every open is a fresh one and one close ends it.
    ASSERT_TRUE(f.OpenAndLockFile(path.c_str(), O_CREAT, &status, false));
    ASSERT_TRUE(f.OpenAndLockFile(path.c_str(), O_CREAT, &status, false));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(f.CloseAndUnLockFile());
    EXPECT_EQ(-1, f.GetFileDescriptor());
}

TEST(FileLock, BlockAndLineWritesAndTheSpareByte) {
    tvtest::TempDir dir;
    std::string path = dir.file("blocks");
    FileLock f(path.c_str(), O_CREAT | O_TRUNC | O_RDWR);
    ASSERT_GE(f.GetFileDescriptor(), 0);
    EXPECT_TRUE(f.WriteLine("line one", 8));  // no line end added
    EXPECT_EQ(6, f.WriteBlk("\nblock", 6));
    EXPECT_EQ(0, f.WriteBlk("x", -1));
    EXPECT_TRUE(f.WriteLine("", 0));
    struct stat st;
    ASSERT_EQ(0, f.FileStat(&st));
    EXPECT_EQ(14, st.st_size);
    EXPECT_EQ("line one\nblock", tvtest::ReadFile(path));

    ASSERT_EQ(0, lseek(f.GetFileDescriptor(), 0, SEEK_SET));
    char buf[6];  // five bytes read plus the zero byte
    EXPECT_EQ(5, f.ReadBlk(buf, 5));
    EXPECT_STREQ("line ", buf);
    char line[32];
    ASSERT_TRUE(f.ReadLine(line, sizeof line));  // line and block reads share the offset
    EXPECT_STREQ("one", line);
    char rest[32];
    EXPECT_EQ(5, f.ReadBlk(rest, 31));
    EXPECT_STREQ("block", rest);
    EXPECT_EQ(0, f.ReadBlk(rest, 31));
    EXPECT_STREQ("", rest);

    // CloseFile keeps the number but the object never uses it again.
    int fd = f.GetFileDescriptor();
    f.CloseFile();
    EXPECT_EQ(fd, f.GetFileDescriptor());
    EXPECT_FALSE(f.ReadLine(line, sizeof line));
    EXPECT_EQ(0, f.WriteBlk("x", 1));
    EXPECT_EQ(-1, f.FileStat(&st));
    EXPECT_TRUE(f.CloseFileUnLocked());
    EXPECT_EQ(-1, f.GetFileDescriptor());
    EXPECT_FALSE(f.OpenFileUnLocked(dir.file("absent").c_str(), O_RDONLY));
    EXPECT_EQ(-1, f.GetFileDescriptor());
}
