// FileLock within one process (line reading limits, the open flags, nested
// holders, block I/O, the open-failure report), KWTempNam and CopyFile.
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

TEST(FileLock, ReadLineStopsAtLineEndsAndSizeLimits) {
    tvtest::TempDir dir;
    std::string path = dir.file("lines");
    tvtest::WriteFile(path, "abc\n12345\n\nabcdefghij\ntail");
    FileLock f;
    ASSERT_TRUE(f.OpenFileUnLocked(path.c_str(), O_RDONLY));
    // Exactly size - 1 bytes come back whole, the line feed is left for the
    // next call (an empty line); a longer line comes in pieces; the last
    // line needs no line feed.
    const struct {
        int size;
        const char* line;
    } steps[] = {{6, "abc"}, {6, "12345"}, {6, ""},     {6, ""},
                 {4, "abc"}, {4, "def"},   {6, "ghij"}, {6, "tail"}};
    char buf[6];
    for (const auto& step : steps) {
        ASSERT_TRUE(f.ReadLine(buf, step.size)) << step.line;
        EXPECT_STREQ(step.line, buf);
    }
    EXPECT_FALSE(f.ReadLine(buf, sizeof buf));
    EXPECT_TRUE(f.CloseFileUnLocked());
    EXPECT_FALSE(f.ReadLine(buf, sizeof buf));  // nothing open

    // The reader itself: bytes stored plus one, -1 at end of file.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    ASSERT_EQ(5, write(fds[1], "xy\nz\n", 5));
    close(fds[1]);
    EXPECT_EQ(3, FileLock::readline(fds[0], buf, sizeof buf));
    EXPECT_STREQ("xy", buf);
    EXPECT_EQ(1, FileLock::readline(fds[0], buf, 1));  // room for the zero only
    EXPECT_EQ(-1, FileLock::readline(fds[0], buf, 0));
    EXPECT_EQ(2, FileLock::readline(fds[0], buf, sizeof buf));
    EXPECT_EQ(-1, FileLock::readline(fds[0], buf, sizeof buf));
    close(fds[0]);
    EXPECT_EQ(-1, FileLock::readline(-1, buf, sizeof buf));
}

TEST(FileLock, OpenFlagsDecideCreationExclusionTruncationAndLocking) {
    tvtest::TempDir dir;
    const std::string path = dir.file("created");
    int status = -1;
    {  // O_RDONLY (0) still creates, locks and opens for writing.
        FileLock f;
        EXPECT_TRUE(f.OpenAndLockFile(path.c_str(), O_RDONLY, &status, false));
        EXPECT_EQ(0, status);
        EXPECT_TRUE(f.WriteLine("rw", 2));
    }
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0, st.st_mode & 0133);  // 0644 less the umask
    EXPECT_EQ("rw", tvtest::ReadFile(path));

    // O_EXCL on an existing file: false with status 1, contents untouched.
    const int kExclusive = O_WRONLY | O_CREAT | O_EXCL | O_TRUNC;
    {
        FileLock f;
        EXPECT_FALSE(f.OpenAndLockFile(path.c_str(), kExclusive, &status, false));
        EXPECT_EQ(1, status);
        EXPECT_EQ(-1, f.GetFileDescriptor());
        EXPECT_EQ("rw", tvtest::ReadFile(path));
        EXPECT_TRUE(f.OpenAndLockFile(dir.file("fresh").c_str(), kExclusive, &status, false));
        EXPECT_EQ(0, status);
    }
    // O_TRUNC empties the file; without it the contents stay; a flag
    // combination outside the locking table opens unlocked and says false.
    tvtest::WriteFile(path, "old contents");
    { FileLock f(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC); }
    EXPECT_EQ(0, SizeOf(path));
    tvtest::WriteFile(path, "kept");
    { FileLock f(path.c_str(), O_CREAT); }
    EXPECT_EQ(4, SizeOf(path));
    FileLock f;
    EXPECT_FALSE(f.OpenAndLockFile(path.c_str(), O_WRONLY | O_CREAT, &status, false));
    EXPECT_GE(f.GetFileDescriptor(), 0);
    EXPECT_EQ(4, SizeOf(path));
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
    const std::string longBad = dir.path() + "/" + std::string(3000, '%') + "/x";
    testing::internal::CaptureStderr();
    EXPECT_FALSE(f.OpenAndLockFile(longBad.c_str(), 0, nullptr, false));
    EXPECT_LT(testing::internal::GetCapturedStderr().size(), 2048u);  // cut, never overflowing
}

TEST(FileLock, NestedHoldersShareOneOpen) {
    tvtest::TempDir dir;
    std::string path = dir.file("held");
    FileLock f;
    int status = -1;
    ASSERT_TRUE(f.OpenAndLockFile(path.c_str(), O_CREAT, &status, true));
    EXPECT_EQ(0, status);
    int fd = f.GetFileDescriptor();
    for (bool hold : {true, false}) {
        ASSERT_TRUE(f.OpenAndLockFile(path.c_str(), O_CREAT, &status, hold));
        EXPECT_EQ(1, status);
    }
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
    struct stat st;
    ASSERT_EQ(0, f.FileStat(&st));
    EXPECT_EQ(14, st.st_size);

    ASSERT_EQ(0, lseek(f.GetFileDescriptor(), 0, SEEK_SET));
    char buf[32];
    EXPECT_EQ(5, f.ReadBlk(buf, 5));  // five bytes plus the zero byte
    EXPECT_STREQ("line ", buf);
    ASSERT_TRUE(f.ReadLine(buf, sizeof buf));  // line and block reads share the offset
    EXPECT_STREQ("one", buf);
    EXPECT_EQ(5, f.ReadBlk(buf, 31));
    EXPECT_STREQ("block", buf);
    EXPECT_EQ(0, f.ReadBlk(buf, 31));
    EXPECT_STREQ("", buf);

    // CloseFile keeps the number but the object never uses it again.
    int fd = f.GetFileDescriptor();
    f.CloseFile();
    EXPECT_EQ(fd, f.GetFileDescriptor());
    EXPECT_FALSE(f.ReadLine(buf, sizeof buf));
    EXPECT_EQ(0, f.WriteBlk("x", 1));
    EXPECT_EQ(-1, f.FileStat(&st));
    EXPECT_TRUE(f.CloseFileUnLocked());
    EXPECT_EQ(-1, f.GetFileDescriptor());
    EXPECT_FALSE(f.OpenFileUnLocked(dir.file("absent").c_str(), O_RDONLY));
}

}  // namespace
