// KWTempNam and CopyFile.
#include <gtest/gtest.h>

#include <errno.h>
#include <regex.h>
#include <sys/stat.h>

#include <set>
#include <string>

#include <tvcommonutil.h>

#include "test_support.h"

namespace {

TEST(TempCopy, TempNamesLookLikeTempnamAndDiffer) {
    std::set<std::string> seen;
    regex_t re;
    ASSERT_EQ(0, regcomp(&re, "^/some/dir/file[A-Za-z0-9]{6}\\.-?[0-9]+$", REG_EXTENDED));
    for (int i = 0; i < 200; ++i) {
        std::string name = KWTempNam("/some/dir").c_str();
        EXPECT_EQ(0, regexec(&re, name.c_str(), 0, nullptr, 0)) << name;
        seen.insert(name);
    }
    regfree(&re);
    EXPECT_GT(seen.size(), 190u);
}

TEST(TempCopy, CopyFile) {
    tvtest::TempDir dir;
    const std::string src = dir.file("src"), dst = dir.file("dst"), missing = dir.file("missing");
    std::string big;
    for (int i = 0; i < 300000; ++i) big += static_cast<char>('a' + i % 26);
    tvtest::WriteFile(src, big);
    chmod(src.c_str(), 0640);

    // A missing source fails and is never created.
    EXPECT_EQ(0, CopyFile(missing.c_str(), dst.c_str(), 0));
    EXPECT_FALSE(tvtest::FileExists(missing));
    EXPECT_FALSE(tvtest::FileExists(dst));

    ASSERT_EQ(1, CopyFile(src.c_str(), dst.c_str(), 1));
    EXPECT_EQ(big, tvtest::ReadFile(dst));
    struct stat st;
    ASSERT_EQ(0, stat(dst.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);

    // Fail-if-exists leaves an existing file alone.
    tvtest::WriteFile(dst, "keep me");
    EXPECT_EQ(0, CopyFile(src.c_str(), dst.c_str(), 1));
    EXPECT_EQ("keep me", tvtest::ReadFile(dst));

    // An overwrite truncates a longer destination.
    tvtest::WriteFile(src, "short");
    tvtest::WriteFile(dst, big);
    ASSERT_EQ(1, CopyFile(src.c_str(), dst.c_str(), 0));
    EXPECT_EQ("short", tvtest::ReadFile(dst));

    tvtest::WriteFile(src, "");
    ASSERT_EQ(1, CopyFile(src.c_str(), dst.c_str(), 0));
    EXPECT_EQ("", tvtest::ReadFile(dst));
    EXPECT_EQ(0, CopyFile(nullptr, dst.c_str(), 0));
}

}  // namespace
