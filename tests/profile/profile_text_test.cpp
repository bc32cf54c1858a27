// The text helpers and the lock file of the profile code.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

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

TEST(ProfileText, WhitespaceIsExactlyFourCharactersAndQuotesHaveTwoForms) {
    for (char c : {' ', '\t', '\n', '\r'}) EXPECT_EQ(_yuIsSpace(c), 1) << int(c);
    // Vertical tab, form feed and the no-break space byte are data.
    for (char c : {'\v', '\f', '\0', static_cast<char>(0xA0)})
        EXPECT_EQ(_yuIsSpace(c), 0) << int(c);
    EXPECT_EQ(Strip("  \t a b \r\n"), "a b");
    EXPECT_EQ(Strip(" \t\r\n "), "");
    EXPECT_EQ(strip_spaces(nullptr), nullptr);
    std::string c = "value ; note ; more";
    EXPECT_STREQ(strip_comments(&c[0]), "value");

    const struct {
        const char* in;
        const char* out;
        int result;
    } quotes[] = {
        {"\"  inner text  \"", "inner text", 1},
        {"`  ticked  '", "ticked", 1},
        {"`it's here' tail", "it's here", 1},  // closed by the last apostrophe anywhere
        {"'apostrophes'", "'apostrophes'", 0},
        {"`unclosed", "`unclosed", 0},
        {"\"open only", "\"open only", 0},
        {"\"", "", 1},  // one character that both opens and closes
        {"\"\"", "", 1},
    };
    for (const auto& q : quotes) {
        int r = -1;
        EXPECT_EQ(Unquote(q.in, &r), q.out) << q.in;
        EXPECT_EQ(r, q.result) << q.in;
    }
    EXPECT_EQ(strip_quotes(nullptr), 0);
}

TEST(ProfileText, LockNameFlattensThePathAndTheLockBreaksWhenItsHolderIsGone) {
    char out[kProfileLockNameSize];
    ASSERT_TRUE(BuildProfileLockName("/etc/app.ini", out, sizeof out));
    EXPECT_STREQ(out, "/tmp/-etc-app.ini-lock");
    EXPECT_TRUE(BuildProfileLockName(std::string(255, 'a').c_str(), out, sizeof out));
    EXPECT_FALSE(BuildProfileLockName(std::string(256, 'a').c_str(), out, sizeof out));
    EXPECT_FALSE(BuildProfileLockName(nullptr, out, sizeof out));

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

TEST(ProfileText, TvFopenTakesNoConversionFlags) {
    profiletest::ProfileDir dir;
    std::string p = dir.file("f.txt");
    errno = 0;
    EXPECT_EQ(TvFopen(p.c_str(), "w", 1), nullptr);
    EXPECT_EQ(errno, ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(tvtest::FileExists(p));
}

}  // namespace
