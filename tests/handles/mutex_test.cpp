#include <gtest/gtest.h>

#include <thread>

#include <tvcommonutil.h>

namespace {

// Runs f on another thread and returns its result.
template <typename F>
DWORD OnOtherThread(F f) {
    DWORD r = 0xDEAD;
    std::thread t([&] { r = f(); });
    t.join();
    return r;
}

}  // namespace

TEST(Mutex, RecursionNeedsAsManyReleasesAndInnerReleasesReportFalse) {
    Handle* m = CreateMutex(nullptr, FALSE, "m");
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(kHandleMutex, m->What());
    EXPECT_EQ(FALSE, ReleaseMutex(nullptr));
    // Not owned by anyone: a release is refused.
    EXPECT_EQ(FALSE, ReleaseMutex(m));

    for (int i = 0; i < 3; ++i) EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(m, INFINITE, FALSE));
    // A non-owner's release changes nothing.
    EXPECT_EQ(FALSE, OnOtherThread([&] { return static_cast<DWORD>(ReleaseMutex(m)); }));
    EXPECT_EQ(WAIT_TIMEOUT, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));

    EXPECT_EQ(FALSE, ReleaseMutex(m));  // inner release: succeeded, reports FALSE
    EXPECT_EQ(FALSE, ReleaseMutex(m));
    EXPECT_EQ(WAIT_TIMEOUT, OnOtherThread([&] { return WaitForSingleObjectEx(m, 50, FALSE); }));
    EXPECT_EQ(TRUE, ReleaseMutex(m));
    EXPECT_EQ(FALSE, ReleaseMutex(m));

    // Free now: another thread takes it (and keeps it, its thread ends).
    EXPECT_EQ(WAIT_OBJECT_0, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(m, 0, FALSE));
    EXPECT_EQ(FALSE, ReleaseMutex(m));
    CloseHandle(m);
}

TEST(Mutex, CreatedOwnedExcludesOthersUntilReleased) {
    Handle* m = CreateMutex(nullptr, TRUE, nullptr);
    EXPECT_EQ(WAIT_TIMEOUT, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(m, 0, FALSE));
    EXPECT_EQ(FALSE, ReleaseMutex(m));  // inner level
    EXPECT_EQ(WAIT_TIMEOUT, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));
    EXPECT_EQ(TRUE, ReleaseMutex(m));
    EXPECT_EQ(WAIT_OBJECT_0, OnOtherThread([&] { return WaitForSingleObjectEx(m, 0, FALSE); }));
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObjectEx(m, 0, FALSE));
    CloseHandle(m);
}
