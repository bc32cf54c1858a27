// KWTempNam and CopyFile.
#include <gtest/gtest.h>

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
        const std::string name = KWTempNam("/some/dir").c_str();
        EXPECT_EQ(0, regexec(&re, name.c_str(), 0, nullptr, 0)) << name;
        seen.insert(name);
    }
    regfree(&re);
    EXPECT_GT(seen.size(), 190u);
}

// Content and mode copied; a missing source fails without making either
// file; fail-if-exists keeps the destination; an overwrite truncates.
TEST(TempCopy, CopyFile) {
    tvtest::TempDir dir;
    const std::string src = dir.file("src"), dst = dir.file("dst"), missing = dir.file("missing");
    const std::string big(300000, 'q');
    tvtest::WriteFile(src, big);
    chmod(src.c_str(), 0640);
    EXPECT_EQ(0, CopyFile(missing.c_str(), dst.c_str(), 0));
    EXPECT_FALSE(tvtest::FileExists(missing) || tvtest::FileExists(dst));
    ASSERT_EQ(1, CopyFile(src.c_str(), dst.c_str(), 1));
    EXPECT_EQ(big, tvtest::ReadFile(dst));
    struct stat st;
    ASSERT_EQ(0, stat(dst.c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);
    tvtest::WriteFile(src, "short");
    EXPECT_EQ(0, CopyFile(src.c_str(), dst.c_str(), 1));
    EXPECT_EQ(big, tvtest::ReadFile(dst));
    ASSERT_EQ(1, CopyFile(src.c_str(), dst.c_str(), 0));
    EXPECT_EQ("short", tvtest::ReadFile(dst));
    EXPECT_EQ(0, CopyFile(nullptr, dst.c_str(), 0));
}

}  // namespace
