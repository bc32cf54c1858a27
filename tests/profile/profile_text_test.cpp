// The text helpers and the lock file of the profile code.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "profile_test_util.h"

using namespace tv::detail;

namespace {

std::string Strip(const char* in) {
    std::string s(in);
    return strip_spaces(&s[0]);  // strip_spaces works in place; c_str stops at the new NUL
}

std::string Unquote(const char* in, int* result) {
    std::string s(in);
    *result = strip_quotes(&s[0]);
    return std::string(s.c_str());
}

TEST(ProfileText, WhitespaceIsExactlyFourCharacters) {
    EXPECT_EQ(_yuIsSpace(' '), 1);
    EXPECT_EQ(_yuIsSpace('\t'), 1);
    EXPECT_EQ(_yuIsSpace('\n'), 1);
    EXPECT_EQ(_yuIsSpace('\r'), 1);
    EXPECT_EQ(_yuIsSpace('\v'), 0);
    EXPECT_EQ(_yuIsSpace('\f'), 0);
    EXPECT_EQ(_yuIsSpace('\0'), 0);
    EXPECT_EQ(_yuIsSpace(static_cast<char>(0xA0)), 0);  // no-break space byte

    EXPECT_EQ(Strip("  \t a b \r\n"), "a b");
    EXPECT_EQ(Strip(" \t\r\n "), "");
    EXPECT_EQ(Strip(""), "");
    EXPECT_EQ(Strip("x"), "x");
    EXPECT_EQ(Strip("\va\f"), "\va\f");  // vertical tab and form feed are data
    EXPECT_EQ(strip_spaces(nullptr), nullptr);

    std::string c = "value ; note ; more";
    EXPECT_STREQ(strip_comments(&c[0]), "value");
    std::string all = "; just a comment";
    EXPECT_STREQ(strip_comments(&all[0]), "");
}

TEST(ProfileText, QuotesHaveExactlyTwoForms) {
    int r = -1;
    EXPECT_EQ(Unquote("\"  inner text  \"", &r), "inner text");
    EXPECT_EQ(r, 1);
    EXPECT_EQ(Unquote("`  ticked  '", &r), "ticked");
    EXPECT_EQ(r, 1);
    // Closed by the last apostrophe anywhere, not necessarily at the end.
    EXPECT_EQ(Unquote("`it's here' tail", &r), "it's here");
    EXPECT_EQ(r, 1);
    EXPECT_EQ(Unquote("'apostrophes'", &r), "'apostrophes'");
    EXPECT_EQ(r, 0);
    EXPECT_EQ(Unquote("`unclosed", &r), "`unclosed");
    EXPECT_EQ(r, 0);
    EXPECT_EQ(Unquote("\"open only", &r), "\"open only");
    EXPECT_EQ(r, 0);
    EXPECT_EQ(Unquote("\"", &r), "");  // one character that both opens and closes
    EXPECT_EQ(r, 1);
    EXPECT_EQ(Unquote("\"\"", &r), "");
    EXPECT_EQ(r, 1);
    EXPECT_EQ(strip_quotes(nullptr), 0);
}

TEST(ProfileText, StrncpyAlwaysTerminates) {
    char buf[8];
    memset(buf, 'x', sizeof buf);
    yuStrncpy(buf, "abcdefghij", 5);
    EXPECT_STREQ(buf, "abcde");
    EXPECT_EQ(buf[6], 'x');  // n + 1 bytes at most
    yuStrncpy(buf, "ab", 5);
    EXPECT_STREQ(buf, "ab");
    yuStrncpy(buf, "abc", 0);
    EXPECT_STREQ(buf, "");
}

TEST(ProfileText, LockNameFlattensThePath) {
    char out[kProfileLockNameSize];
    ASSERT_TRUE(BuildProfileLockName("/etc/app.ini", out, sizeof out));
    EXPECT_STREQ(out, "/tmp/-etc-app.ini-lock");
    ASSERT_TRUE(BuildProfileLockName("rel/x.ini", out, sizeof out));
    EXPECT_STREQ(out, "/tmp/rel-x.ini-lock");
    std::string longest(255, 'a');
    EXPECT_TRUE(BuildProfileLockName(longest.c_str(), out, sizeof out));
    std::string tooLong(256, 'a');
    EXPECT_FALSE(BuildProfileLockName(tooLong.c_str(), out, sizeof out));
    EXPECT_FALSE(BuildProfileLockName(nullptr, out, sizeof out));
}

TEST(ProfileText, LockIsExclusiveAndBreaksWhenItsHolderIsGone) {
    profiletest::ProfileDir dir;
    std::string lock = profiletest::LockPathFor(dir.file("p.ini"));
    ASSERT_EQ(yuLock(lock.c_str()), 1);
    EXPECT_EQ(yuLock(lock.c_str()), 0);  // a live holder: waited for, then given up
    EXPECT_EQ(yuUnlock(lock.c_str()), 1);
    EXPECT_EQ(yuUnlock(lock.c_str()), 0);  // already gone

    // A holder that no longer exists, and a holderless file past the age
    // bound, are broken at once.
    pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    tvtest::WriteFile(lock, std::to_string(child) + " 12345\n");
    EXPECT_EQ(yuLock(lock.c_str()), 1);
    tvtest::WriteFile(lock, "");
    struct timespec old[2] = {{time(nullptr) - 60, 0}, {time(nullptr) - 60, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, lock.c_str(), old, 0), 0);
    EXPECT_EQ(yuLock(lock.c_str()), 1);
    EXPECT_EQ(yuUnlock(lock.c_str()), 1);

    // Failure other than "exists" is immediate.
    EXPECT_EQ(yuLock((dir.path() + "/no/such/dir/lock").c_str()), 0);
}

TEST(ProfileText, TvFopenBehavesAsFopen) {
    profiletest::ProfileDir dir;
    std::string p = dir.file("f.txt");
    EXPECT_EQ(TvFopen(p.c_str(), "r", 0), nullptr);
    EXPECT_EQ(errno, ENOENT);
    FILE* w = TvFopen(p.c_str(), "w", 0);
    ASSERT_NE(w, nullptr);
    fputs("data\n", w);
    fclose(w);
    EXPECT_EQ(tvtest::ReadFile(p), "data\n");
    w = TvFopen(p.c_str(), "w", 0);  // truncates like fopen
    ASSERT_NE(w, nullptr);
    fclose(w);
    EXPECT_EQ(tvtest::ReadFile(p), "");
}

}  // namespace
