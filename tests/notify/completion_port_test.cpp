// Completion ports: member limits, time-outs, postings, and which member a
// wait answers with.
#include <errno.h>

#include "notify_test_util.h"

namespace {

// n armed handles (on directories that do not exist) in one port, each
// with its index as completion key.
struct Port {
    tvtest::TempDir tmp;
    std::vector<ChangeNotificationHandle*> members;
    Handle* port = nullptr;

    explicit Port(int n) {
        for (int i = 0; i < n; ++i) Add(i);
    }
    // Armed without a buffer variable: nothing is ever queued here.
    void Add(int i) {
        auto* h =
            new ChangeNotificationHandle((tmp.path() + "/m" + std::to_string(i)).c_str(), 0, 0);
        ReadDirectoryChanges(h, nullptr, 0, 0, 0x1f, nullptr, nullptr, nullptr);
        Handle* p = CreateIoCompletionPort(h, port, static_cast<unsigned long>(i), 0);
        if (port == nullptr) port = p;
        members.push_back(h);
    }
    ~Port() {
        // The port's references keep the members alive until it goes.
        for (auto* h : members) CloseHandle(h);
        CloseHandle(port);
    }
};

}  // namespace

TEST(CompletionPort, SixtyFourMembersWaitSixtyFiveFail) {
    Port p(64);
    auto* port = static_cast<IoCompletionPort*>(p.port);
    ASSERT_EQ(12, port->What());
    ASSERT_EQ(64, port->GetCount());
    EXPECT_EQ(p.members[10], port->GetHandle(10));
    EXPECT_EQ(nullptr, port->GetHandle(64));

    // A member signalled before the wait answers at once, by its position.
    p.members[37]->Signal();
    unsigned long bytes = 1, key = 0;
    ASSERT_EQ(1, GetQueuedCompletionStatus(p.port, &bytes, &key, nullptr, 0));
    EXPECT_EQ(37u, key);
    EXPECT_EQ(0u, bytes);

    // A blocked wait is woken by the last member.
    EXPECT_EQ(63u,
              notifytest::WokenBy<unsigned long>([&] { return port->WaitForHandle(20000, FALSE); },
                                                 [&] { p.members[63]->Signal(); }));

    p.Add(64);
    EXPECT_EQ(WAIT_FAILED, port->WaitForHandle(0, FALSE));
    p.members[64]->Signal();
    errno = 0;
    EXPECT_EQ(0, GetQueuedCompletionStatus(p.port, &bytes, &key, nullptr, 1000));
    EXPECT_EQ(ERROR_INVALID_HANDLE, errno);
}

TEST(CompletionPort, TimeOutsAndPostings) {
    Port p(2);
    unsigned long bytes = 0, key = 0;
    errno = 0;
    EXPECT_EQ(0, GetQueuedCompletionStatus(p.port, &bytes, &key, nullptr, 300));
    EXPECT_EQ(258, errno);

    // A posting wakes the port itself; no member answers to it, so the
    // caller gets a failure rather than some member's records.
    EXPECT_NE(0, PostQueuedCompletionStatus(p.port, 0, 0, nullptr));
    errno = 0;
    EXPECT_EQ(0, GetQueuedCompletionStatus(p.port, &bytes, &key, nullptr, 1000));
    EXPECT_EQ(ERROR_INVALID_HANDLE, errno);
    // The posting was consumed.
    EXPECT_EQ(0, GetQueuedCompletionStatus(p.port, &bytes, &key, nullptr, 0));
    EXPECT_EQ(258, errno);

    // A posting while a waiter sleeps ends that wait with the failure too.
    auto wait = [&] {
        return GetQueuedCompletionStatus(p.port, &bytes, nullptr, nullptr, 20000) ? 0 : errno;
    };
    EXPECT_EQ(ERROR_INVALID_HANDLE, notifytest::WokenBy<int>(wait, [&] {
                  PostQueuedCompletionStatus(p.port, 0, 0, nullptr);
              }));

    // Erase drops a member (first match only, nothing if absent).
    auto* port = static_cast<IoCompletionPort*>(p.port);
    port->Erase(p.members[0]);
    port->Erase(p.members[0]);
    EXPECT_EQ(1, port->GetCount());
    port->Insert(p.members[0]);
    EXPECT_EQ(p.members[0], port->GetHandle(1));
}

TEST(CompletionPort, CreationRules) {
    EXPECT_EQ(nullptr, CreateIoCompletionPort(nullptr, nullptr, 0, 0));
    // An empty port: its waits fail instead of indexing anything.
    Handle* empty = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    ASSERT_NE(nullptr, empty);
    EXPECT_EQ(WAIT_FAILED, empty->WaitForHandle(0, FALSE));
    unsigned long bytes = 0;
    EXPECT_EQ(0, GetQueuedCompletionStatus(empty, &bytes, nullptr, nullptr, 0));
    EXPECT_EQ(0, GetQueuedCompletionStatus(empty, nullptr, nullptr, nullptr, 0));
    EXPECT_EQ(0, GetQueuedCompletionStatus(nullptr, &bytes, nullptr, nullptr, 0));
    EXPECT_EQ(empty, CreateIoCompletionPort(INVALID_HANDLE_VALUE, empty, 0, 0));

    // Only change notification handles complete through a port.
    File* f = new File(-1);
    errno = 0;
    EXPECT_EQ(nullptr, CreateIoCompletionPort(f, empty, 0, 0));
    EXPECT_EQ(ERROR_CALL_NOT_IMPLEMENTED, errno);
    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    auto* h = new ChangeNotificationHandle("/nonexistent/", 0, 0);
    errno = 0;
    EXPECT_EQ(nullptr, CreateIoCompletionPort(h, ev, 0, 0));
    EXPECT_EQ(ERROR_INVALID_HANDLE, errno);

    // The port holds a reference: closing the caller's leaves it usable.
    EXPECT_EQ(empty, CreateIoCompletionPort(h, empty, 9, 0));
    EXPECT_EQ(2, h->GetRefCount());
    CloseHandle(h);
    h->Signal();
    unsigned long key = 0;
    // Never armed: the member answers but has nothing to hand over.
    EXPECT_EQ(0, GetQueuedCompletionStatus(empty, &bytes, &key, nullptr, 0));
    EXPECT_EQ(9u, h->GetKey());
    CloseHandle(f);
    CloseHandle(ev);
    CloseHandle(empty);
}
