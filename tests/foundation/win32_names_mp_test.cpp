// The optional Win32 names, and the porting differences the README lists
// that no other test pins down.
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include <gtest/gtest.h>

#include <tvcommonutil.h>
#include <tvcommonutil/win32_names.h>

namespace {

DWORD g_seenId = 0;

DWORD WINAPI RecordId(LPVOID) {
    g_seenId = GetCurrentThreadId();
    return 0;
}

TEST(Win32Names, MeanWhatTheLibraryDoes) {
    // GetCurrentThreadId is the id CreateThread reported for the thread.
    DWORD id = 0;
    HANDLE t = CreateThread(nullptr, 0, RecordId, nullptr, 0, &id);
    ASSERT_NE(nullptr, t);
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(t, 10000, FALSE));
    CloseHandle(t);
    EXPECT_EQ(id, g_seenId);

    long v = 5;
    EXPECT_EQ(5, InterlockedCompareExchange(&v, 9, 4));  // no match: unchanged
    EXPECT_EQ(5, v);
    EXPECT_EQ(5, InterlockedCompareExchange(&v, 9, 5));
    EXPECT_EQ(9, v);

    CRITICAL_SECTION cs;
    InitializeCriticalSection(&cs);
    EXPECT_EQ(0, EnterCriticalSection(&cs));
    EXPECT_EQ(0, EnterCriticalSection(&cs));  // recursive, as in Win32
    LeaveCriticalSection(&cs);
    LeaveCriticalSection(&cs);
    DeleteCriticalSection(&cs);

    // LocalFree releases what FormatMessage allocated.
    char* text = nullptr;
    ASSERT_GT(FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM, nullptr,
                             EACCES, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                             reinterpret_cast<char*>(&text), 0, nullptr),
              0);
    EXPECT_STREQ(strerror(EACCES), text);
    EXPECT_EQ(nullptr, LocalFree(text));
}

// Differences a porter would otherwise learn the hard way.
TEST(Win32Names, PortingDifferences) {
    // Object names are ignored: two events of one name are two objects.
    HANDLE a = CreateEvent(nullptr, TRUE, FALSE, "shared");
    HANDLE b = CreateEvent(nullptr, TRUE, FALSE, "shared");
    SetEvent(a);
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(b, 0, FALSE));
    CloseHandle(a);
    CloseHandle(b);

    // CreateProcess does not search PATH: a bare program name fails.
    STARTUPINFOA si;
    ZeroMemory(&si, sizeof si);
    PROCESS_INFORMATION pi;
    ZeroMemory(&pi, sizeof pi);
    char bare[] = "true";
    EXPECT_FALSE(
        CreateProcessA(nullptr, bare, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi));
    char full[] = "/bin/true";
    ASSERT_TRUE(
        CreateProcessA(nullptr, full, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi));
    DWORD code = 1;
    EXPECT_TRUE(GetExitCodeProcess(pi.hProcess, &code));  // waits for the end
    EXPECT_EQ(0u, code);
    CloseHandle(pi.hProcess);
    // The environment block is ignored: the child gets the parent's.
    char environment[] = "TV_PORT_PROBE=1\0";
    char probe[] = "/bin/sh -c 'test -z $TV_PORT_PROBE'";
    ASSERT_TRUE(
        CreateProcessA(nullptr, probe, nullptr, nullptr, FALSE, 0, environment, nullptr, &si, &pi));
    EXPECT_TRUE(GetExitCodeProcess(pi.hProcess, &code));
    EXPECT_EQ(0u, code);
    CloseHandle(pi.hProcess);

    // A mixed wait set holds at most MAXIMUM_WAIT_OBJECTS handles.
    std::vector<HANDLE> set(MAXIMUM_WAIT_OBJECTS + 1);
    for (HANDLE& h : set) h = CreateEvent(nullptr, TRUE, TRUE, nullptr);
    CloseHandle(set.front());
    set.front() = CreateSemaphore(nullptr, 1, 1, nullptr);
    EXPECT_EQ(WAIT_FAILED, WaitForMultipleObjectsEx(static_cast<DWORD>(set.size()), set.data(),
                                                    FALSE, 0, FALSE));
    CloseHandle(set.back());
    set.pop_back();  // one fewer: the set is waited on
    EXPECT_LT(WaitForMultipleObjectsEx(static_cast<DWORD>(set.size()), set.data(), FALSE, 0, FALSE),
              set.size());
    for (HANDLE h : set) CloseHandle(h);

    // DWORD is 64 bits wide, and so are the records built from it.
    EXPECT_EQ(8u, sizeof(DWORD));
    EXPECT_EQ(16u, sizeof(FILETIME));
    EXPECT_EQ(4200u, sizeof(WIN32_FIND_DATAA));
}

}  // namespace
