#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <tvcommonutil.h>

namespace {

// A handle that records its destruction.
class Tracked : public Handle {
public:
    explicit Tracked(bool* gone) : Handle(1), gone_(gone) {}
    ~Tracked() override { *gone_ = true; }

private:
    bool* gone_;
};

}  // namespace

TEST(Handle, NullHandlesAreRefusedWithoutTouchingErrno) {
    errno = 1234;
    EXPECT_EQ(FALSE, CloseHandle(nullptr));
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObjectEx(nullptr, 0, FALSE));
    EXPECT_EQ(FALSE, DuplicateHandle(nullptr, nullptr, nullptr, nullptr, 0, 0, 0));
    EXPECT_EQ(FALSE, SetEvent(nullptr) || ResetEvent(nullptr) || PulseEvent(nullptr));
    EXPECT_EQ(1234, errno);
    EXPECT_EQ(1234u, GetLastError());
}

// The duplicate is the same object, alive until the last close; an object
// without wait logic counts as signalled.
TEST(Handle, DuplicateSharesTheObjectUntilTheLastClose) {
    bool gone = false;
    Handle* h = new Tracked(&gone);
    Handle* dup = nullptr;
    EXPECT_EQ(TRUE, DuplicateHandle(nullptr, h, nullptr, &dup, 0, 0, 0));
    EXPECT_EQ(h, dup);
    EXPECT_EQ(TRUE, CloseHandle(h));
    EXPECT_FALSE(gone);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(dup, INFINITE, TRUE));
    EXPECT_EQ(TRUE, CloseHandle(dup));
    EXPECT_TRUE(gone);
}

TEST(Handle, FileClosesItsDescriptorAndIgnoresEventCalls) {
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    Handle* f = new File(fds[0]);
    EXPECT_EQ(kHandleFile, f->What());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(f, 0, FALSE));
    EXPECT_EQ(FALSE, SetEvent(f));
    EXPECT_EQ(FALSE, ResetEvent(f));  // no synchronisation event to reset
    CloseHandle(f);
    EXPECT_EQ(-1, fcntl(fds[0], F_GETFD));
    close(fds[1]);
}

// The synchronisation event through which threads and processes are waited
// on: made on first use, set by Signal, consumed by a poll, reset by Reset.
TEST(Handle, SynchronisationEventPollConsumesTheSignal) {
    Handle* h = new Handle(1);
    int signalled = -1;
    Event* e = h->GetSynch(signalled);
    ASSERT_NE(nullptr, e);
    EXPECT_EQ(0, signalled);
    EXPECT_EQ(1, h->Signal());
    EXPECT_EQ(e, h->GetSynch(signalled));
    EXPECT_EQ(1, signalled);
    h->GetSynch(signalled);
    EXPECT_EQ(0, signalled);
    h->Signal();
    EXPECT_EQ(TRUE, ResetEvent(h));
    h->GetSynch(signalled);
    EXPECT_EQ(0, signalled);
    CloseHandle(h);
}
