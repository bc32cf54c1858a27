#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include <tvcommonutil.h>

TEST(ProcessWait, AnAddressSanitizerChildKeepsItsExitCode) {
#ifndef TV_ASAN_EXIT_CHILD
    GTEST_SKIP() << "this build cannot make an AddressSanitizer child";
#else
    std::string line = TV_ASAN_EXIT_CHILD;
    PROCESS_INFORMATION pi;
    memset(&pi, 0, sizeof pi);
    ASSERT_TRUE(CreateProcess(nullptr, &line[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                              nullptr, &pi));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(pi.hProcess, 60000, FALSE));
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(pi.hProcess, &code));
    EXPECT_EQ(7u, code);
    CloseHandle(pi.hProcess);
#endif
}
