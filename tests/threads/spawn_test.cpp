// The command-line splitter and the argument checks made before any fork.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include <tvcommonutil.h>

namespace {

std::vector<std::string> Split(const std::string& line) {
    std::vector<char> work(line.size() + 1, '#');
    char* argv[17];
    for (auto& a : argv) a = reinterpret_cast<char*>(0x1);
    int n = SplitCommandLine(line.c_str(), work.data(), argv, 15);
    std::vector<std::string> out;
    for (int i = 0; i < n; ++i) out.push_back(argv[i]);
    EXPECT_EQ(argv[n], nullptr);
    EXPECT_EQ(argv[16], reinterpret_cast<char*>(0x1)) << "wrote past the argument array";
    return out;
}

using V = std::vector<std::string>;

TEST(SplitCommandLine, QuotingRules) {
    EXPECT_EQ(Split("prog \"a b\" word"), (V{"prog", "a b", "word"}));
    EXPECT_EQ(Split("  \t prog\t\targ  "), (V{"prog", "arg"}));
    // The other quote character is plain inside a quoted run.
    EXPECT_EQ(Split("p 'say \"hi\"' x"), (V{"p", "say \"hi\"", "x"}));
    EXPECT_EQ(Split("p \"it's\""), (V{"p", "it's"}));
    // Closing a run ends the argument: letters right after start another.
    EXPECT_EQ(Split("p \"ab\"cd"), (V{"p", "ab", "cd"}));
    // A quote opens a run only at its own character; text before it stays.
    EXPECT_EQ(Split("p ab\"c d\""), (V{"p", "abc d"}));
    // An escaped quote replaces its backslash, inside and outside runs.
    EXPECT_EQ(Split("p a\\\"b \"x\\\"y\""), (V{"p", "a\"b", "x\"y"}));
    EXPECT_EQ(Split("p \"\""), (V{"p", ""}));
    EXPECT_EQ(Split("p \"unterminated run"), (V{"p", "unterminated run"}));
    EXPECT_EQ(Split("   "), V{});
    EXPECT_EQ(Split(""), V{});
}

TEST(SplitCommandLine, CutsAtFifteenArguments) {
    std::string line;
    for (int i = 0; i < 40; ++i) line += "a" + std::to_string(i) + " ";
    V got = Split(line);
    ASSERT_EQ(got.size(), 15u);
    EXPECT_EQ(got.front(), "a0");
    EXPECT_EQ(got.back(), "a14");
    // Quoted arguments past the limit are dropped as well.
    got = Split(line + "\"x y\" 'z'");
    EXPECT_EQ(got.size(), 15u);
}

TEST(Spawn, RefusesBadRequestsWithoutForking) {
    EXPECT_EQ(Spawn(0, nullptr, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(Spawn(0, nullptr, "", nullptr, nullptr), -1);
    EXPECT_EQ(Spawn(0, INVALID_HANDLE_VALUE, "/bin/true", nullptr, nullptr), -1);
    Handle* notToken = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    EXPECT_EQ(Spawn(0, notToken, "/bin/true", nullptr, nullptr), -1);
    CloseHandle(notToken);

    PROCESS_INFORMATION pi;
    memset(&pi, 0, sizeof pi);
    EXPECT_FALSE(CreateProcess(nullptr, nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               nullptr, &pi));
    // The 512-byte command buffer is a limit, not an overflow.
    std::string longLine = "/bin/true " + std::string(600, 'x');
    errno = 0;
    EXPECT_FALSE(CreateProcess(nullptr, &longLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               nullptr, &pi));
    EXPECT_EQ(errno, ERROR_FILENAME_EXCED_RANGE);
    EXPECT_EQ(pi.hProcess, nullptr);

    EXPECT_EQ(System(nullptr), -1);
    EXPECT_EQ(GetExitCodeProcess(nullptr, nullptr), FALSE);
    Handle* event = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    EXPECT_EQ(TerminateProcess(event, 0), FALSE);
    DWORD code = 12345;
    EXPECT_EQ(GetExitCodeProcess(event, &code), FALSE);
    EXPECT_EQ(code, 12345u);
    CloseHandle(event);
}

}  // namespace
