// FindFirstFile / FindNextFile / FindClose on real directories.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "files/find_split.h"
#include "files_test_util.h"

namespace {

std::pair<std::string, std::string> Split(const std::string& p) {
    CKWString dir, pat;
    tv::detail::SplitFindPattern(p.c_str(), &dir, &pat);
    return {dir.c_str(), pat.c_str()};
}

// Every name a search hands out, first included.
std::set<std::string> Names(const std::string& pattern) {
    std::set<std::string> out;
    WIN32_FIND_DATA data;
    Handle* h = FindFirstFile(pattern.c_str(), &data);
    if (h == INVALID_HANDLE_VALUE) {
        EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
        return out;
    }
    do {
        out.insert(data.cFileName);
    } while (FindNextFile(h, &data));
    // The usual loop's end test: the end is reported, not a stale code.
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_FILES), GetLastError());
    EXPECT_EQ(2, FindClose(h));
    return out;
}

class FindFile : public ::testing::Test {
protected:
    void SetUp() override {
        tvtest::WriteFile(dir_.file("a.h"), "12345");
        tvtest::WriteFile(dir_.file("b.h"), "");
        tvtest::WriteFile(dir_.file("c.cpp"), "");
        ASSERT_EQ(0, mkdir(dir_.file("inc.h").c_str(), 0755));  // a directory named like a header
        tvtest::WriteFile(dir_.file("inc.h/inner.h"), "");
    }
    tvtest::TempDir dir_;
};

TEST_F(FindFile, PatternSplit) {
    const std::string d = dir_.path();
    ASSERT_EQ(0, mkdir(dir_.file("x*").c_str(), 0755));
    // Input, directory, pattern. A wild pattern is split even when a
    // directory has that very name ("x*").
    const std::string cases[] = {
        d,          d,       "*",   d + "/",     d + "/", "*",    d + "/*.h", d + "/", "*.h",
        d + "/a.h", d + "/", "a.h", d + "/none", d + "/", "none", d + "/x*",  d + "/", "x*",
        "./x*",     "./x*",  "*",   "~/x",       "~/x",   "*",    "*.h",      "*.h",   "*",
        "/",        "/",     "*",   "/tmp*",     "/",     "tmp*", "",         "",      "*"};
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; i += 3) {
        EXPECT_EQ(std::make_pair(cases[i + 1], cases[i + 2]), Split(cases[i])) << cases[i];
    }
}

TEST_F(FindFile, DirectoryNamesListTheirContents) {
    const std::set<std::string> all = {"a.h", "b.h", "c.cpp", "inc.h"};
    EXPECT_EQ(all, Names(dir_.path()));
    EXPECT_EQ(all, Names(dir_.path() + "/"));
    // A name pattern leaves directories out, even one whose name matches.
    EXPECT_EQ((std::set<std::string>{"a.h", "b.h"}), Names(dir_.path() + "/*.h"));
    EXPECT_EQ((std::set<std::string>{"c.cpp"}), Names(dir_.path() + "/c.cpp"));
    // Not wild and a directory: its contents, not the entry itself.
    EXPECT_EQ((std::set<std::string>{"inner.h"}), Names(dir_.file("inc.h")));
}

TEST_F(FindFile, RecordContents) {
    WIN32_FIND_DATA data;
    memset(&data, 0xAB, sizeof data);
    Handle* h = FindFirstFile((dir_.path() + "/a.h").c_str(), &data);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    EXPECT_EQ(10, h->What());
    EXPECT_STREQ("a.h", data.cFileName);
    EXPECT_EQ(0x80u, data.dwFileAttributes);
    EXPECT_EQ(5u, data.nFileSizeLow);
    EXPECT_EQ(0u, data.nFileSizeHigh);
    EXPECT_EQ(0u, data.dwReserved0);
    EXPECT_EQ(0, data.cAlternateFileName[0]);
    EXPECT_EQ(0, data.cFileName[sizeof data.cFileName - 1]);  // zeroed, not left over
    struct stat st;
    ASSERT_EQ(0, stat(dir_.file("a.h").c_str(), &st));
    const unsigned long long expect = filestest::FileTimeOf(st.st_mtime);
    EXPECT_EQ(expect, data.ftLastWriteTime.dwLowDateTime);  // the whole count, unmasked
    EXPECT_EQ(expect >> 32, data.ftLastWriteTime.dwHighDateTime);
    EXPECT_EQ(data.ftLastWriteTime.dwLowDateTime, data.ftCreationTime.dwLowDateTime);
    EXPECT_FALSE(FindNextFile(h, &data));
    EXPECT_FALSE(FindNextFile(h, &data));
    EXPECT_EQ(2, FindClose(h));

    h = FindFirstFile(dir_.path().c_str(), &data);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    bool sawDir = false;
    do {
        if (strcmp(data.cFileName, "inc.h") == 0) {
            sawDir = true;
            EXPECT_EQ(0x100u, data.dwFileAttributes);
        }
    } while (FindNextFile(h, &data));
    EXPECT_TRUE(sawDir);
    FindClose(h);
}

TEST_F(FindFile, NoMatchAndOddArguments) {
    WIN32_FIND_DATA data;
    // No match: -1 and nothing left behind (the sanitizer build checks leaks).
    EXPECT_EQ(INVALID_HANDLE_VALUE, FindFirstFile((dir_.path() + "/*.none").c_str(), &data));
    EXPECT_EQ(INVALID_HANDLE_VALUE, FindFirstFile(dir_.file("missing").c_str(), &data));
    EXPECT_EQ(INVALID_HANDLE_VALUE, FindFirstFile("no-such-relative-directory", &data));
    EXPECT_EQ(INVALID_HANDLE_VALUE, FindFirstFile("./x*", &data));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
    // Without a record the handle comes back even when it is empty.
    Handle* h = FindFirstFile((dir_.path() + "/*.none").c_str(), nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    EXPECT_FALSE(FindNextFile(h, &data));
    EXPECT_EQ(2, FindClose(h));
    // FindClose gives 2 whatever it is handed.
    EXPECT_EQ(2, FindClose(nullptr));
    EXPECT_EQ(2, FindClose(INVALID_HANDLE_VALUE));
    EXPECT_FALSE(FindNextFile(nullptr, &data));
    Handle* e = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    EXPECT_FALSE(FindNextFile(e, &data));
    CloseHandle(e);
    // A search started with a null record hands out the first result next.
    h = FindFirstFile((dir_.path() + "/c*").c_str(), nullptr);
    ASSERT_TRUE(FindNextFile(h, &data));
    EXPECT_STREQ("c.cpp", data.cFileName);
    FindClose(h);
}

}  // namespace
