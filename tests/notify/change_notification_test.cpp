// Change notification handles: the collected byte layout, the caller's
// buffer, arming, waiting and signalling.
#include <errno.h>
#include <string.h>

#include <condition_variable>
#include <mutex>

#include "notify_test_util.h"

using namespace notifytest;

namespace {

_NOTIFY_INFO Info(unsigned long action, const char* name, unsigned long attributes,
                  unsigned long long time, unsigned long size) {
    return _NOTIFY_INFO{action, name, attributes, {time, 0}, size};
}

// Bytes from hex digit pairs; blanks are skipped.
std::vector<unsigned char> Hex(const char* text) {
    std::vector<unsigned char> out;
    unsigned v = 0;
    for (int n = 0; sscanf(text, " %2x%n", &v, &n) == 1; text += n) {
        out.push_back(static_cast<unsigned char>(v));
    }
    return out;
}

// A handle on a directory that does not exist: arming it scans nothing.
struct Loose : Armed {
    tvtest::TempDir tmp;
    Loose() { h = new ChangeNotificationHandle((tmp.path() + "/none/").c_str(), 0, 0); }
};

// The watcher loop, parked before each pass: Pass() runs one whole pass.
class Stepped : public WatchDirsThreadObject {
public:
    ~Stepped() {
        Pass(true);
        thread_.join();
        bFileShutdownRequested = false;
    }
    int StopRequested(int) override {
        std::unique_lock<std::mutex> l(m_);
        ++parked_;
        cv_.notify_all();
        cv_.wait(l, [&] { return go_ >= parked_; });
        return stop_;
    }
    unsigned long TimedWait(unsigned long, int, WatchDirsThreadObject*) override { return 0; }
    void Pass(bool last = false) {
        std::unique_lock<std::mutex> l(m_);
        cv_.wait(l, [&] { return parked_ > go_; });
        stop_ = last;
        ++go_;
        cv_.notify_all();
        if (!last) cv_.wait(l, [&] { return parked_ > go_; });
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    long parked_ = 0, go_ = 0;
    bool stop_ = false;
    std::thread thread_{[this] { WatchDirsThread(this); }};
};

}  // namespace

TEST(ChangeNotification, TwoRecordsInPlaceByteForByte) {
    Loose l;
    // Exactly the total: written in place; the gaps keep the caller's bytes.
    unsigned char* mine = new unsigned char[216];
    memset(mine, 0xEE, 216);
    void* buffer = mine;
    ASSERT_EQ(1, ReadDirectoryChanges(l.h, &buffer, 216, 0, 0x1f, nullptr, nullptr, nullptr));
    l.h->QueueNotify(Info(1, "a", 0x80, 0x0102030405060708ULL, 0x1234));
    l.h->QueueNotify(Info(2, "dir/x.txt", 0x100, 0, 0));
    unsigned long bytes = 0;
    ASSERT_EQ(1, GetOverlappedResult(l.h, nullptr, &bytes, 1));
    EXPECT_EQ(216u, bytes);
    ASSERT_EQ(static_cast<void*>(mine), buffer);
    const std::vector<unsigned char> want = Hex(
        // record 1: next 104, action 1, name length 1, attributes 0x80
        "6800000000000000 0100000000000000 01000000 EEEEEEEE 8000000000000000"
        "EEEEEEEEEEEEEEEE EEEEEEEEEEEEEEEE EEEEEEEEEEEEEEEE EEEEEEEEEEEEEEEE"
        // time, its zero second half, size 0x1234, "a" and 15 bytes of slack
        "0807060504030201 0000000000000000 3412000000000000"
        "61 EEEEEEEEEEEEEEEEEEEEEEEEEEEEEE"
        // record 2: last, action 2, name length 9, attributes 0x100
        "0000000000000000 0200000000000000 09000000 EEEEEEEE 0001000000000000"
        "EEEEEEEEEEEEEEEE EEEEEEEEEEEEEEEE EEEEEEEEEEEEEEEE EEEEEEEEEEEEEEEE"
        "0000000000000000 0000000000000000 0000000000000000"
        "6469722f782e747874 EEEEEEEEEEEEEEEEEEEEEEEEEEEEEE");
    ASSERT_EQ(216u, want.size());
    EXPECT_EQ(want, std::vector<unsigned char>(mine, mine + 216));
    delete[] static_cast<unsigned char*>(buffer);
}

TEST(ChangeNotification, ShortBufferIsReplacedThroughTheCallersPointer) {
    Loose l;
    void* buffer = new char[16];
    void* original = buffer;
    ASSERT_EQ(1, ReadDirectoryChanges(l.h, &buffer, 16, 0, 0x1f, nullptr, nullptr, nullptr));
    l.h->QueueNotify(Info(1, "a", 0x80, 1, 1));
    l.h->QueueNotify(Info(3, "bb", 0x80, 2, 2));
    unsigned long bytes = 0, key = 99;
    l.h->SetKey(5);
    ASSERT_EQ(1, l.h->GetChangeData(&bytes, &key));
    EXPECT_EQ(5u, key);
    EXPECT_EQ(208u, bytes);
    EXPECT_NE(original, buffer);  // the old block went through delete[] (ASan would tell)
    EXPECT_EQ("1 a 1 80 -1 1\n3 bb 2 80 -1 2\n", Text(buffer, bytes));

    // The usable size counts as 0 after a collection: without re-arming, even
    // a small record gets a new block of exactly its length.
    void* second = buffer;
    l.h->QueueNotify(Info(2, "c", 0x80, 0, 0));
    ASSERT_EQ(1, l.h->GetChangeData(&bytes, nullptr));
    EXPECT_EQ(104u, bytes);
    EXPECT_NE(second, buffer);
    EXPECT_EQ("2 c 1 80 0 0\n", Text(buffer, bytes));

    // Nothing queued: total 0, the buffer is not touched.
    void* third = buffer;
    bytes = 7;
    ASSERT_EQ(1, l.h->GetChangeData(&bytes, nullptr));
    EXPECT_EQ(0u, bytes);
    EXPECT_EQ(third, buffer);
    delete[] static_cast<char*>(buffer);
}

TEST(ChangeNotification, CollectingWithoutABuffer) {
    Loose l;
    unsigned long bytes = 1;
    // Never armed: no queue, nothing to collect.
    EXPECT_EQ(0, GetOverlappedResult(l.h, nullptr, &bytes, 0));
    // Armed without a buffer variable: an empty collection is fine...
    ASSERT_EQ(1, ReadDirectoryChanges(l.h, nullptr, 0, 0, 0x1f, nullptr, nullptr, nullptr));
    EXPECT_EQ(1, GetOverlappedResult(l.h, nullptr, &bytes, 0));
    EXPECT_EQ(0u, bytes);
    EXPECT_EQ(0, l.h->GetChangeData(nullptr, nullptr));
    // ...but records have nowhere to go and stay queued.
    l.h->QueueNotify(Info(1, "a", 0x80, 0, 0));
    EXPECT_EQ(0, GetOverlappedResult(l.h, nullptr, &bytes, 0));
    EXPECT_EQ(1u, l.h->GetNotifyData()->size());
    // A null buffer pointer held in the variable is replaced; leftovers reach it.
    void* buffer = nullptr;
    ASSERT_EQ(1, ReadDirectoryChanges(l.h, &buffer, 0, 0, 0x1f, nullptr, nullptr, nullptr));
    l.h->QueueNotify(Info(1, "b", 0x80, 0, 0));
    ASSERT_EQ(1, GetOverlappedResult(l.h, nullptr, &bytes, 0));
    EXPECT_EQ("1 a 1 80 0 0\n1 b 1 80 0 0\n", Text(buffer, bytes));
    ASSERT_NE(nullptr, buffer);
    delete[] static_cast<char*>(buffer);
}

TEST(ChangeNotification, ArmingChecksTheKindAndRegisters) {
    Handle* e = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    void* buffer = nullptr;
    EXPECT_EQ(0, ReadDirectoryChanges(e, &buffer, 0, 0, 0x1f, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, ReadDirectoryChanges(nullptr, &buffer, 0, 0, 0x1f, nullptr, nullptr, nullptr));
    CloseHandle(e);

    tvtest::TempDir tmp;
    const std::string dir = tmp.path() + "/w/";
    mkdir(dir.c_str(), 0755);
    Put(dir + "old", "", 1000);
    Handle* h = FindFirstChangeNotification(dir.c_str(), 1, 0x1f);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    EXPECT_EQ(11, h->What());
    auto* c = static_cast<ChangeNotificationHandle*>(h);
    EXPECT_EQ(nullptr, c->GetNotifyData());
    ASSERT_EQ(1, ReadDirectoryChanges(h, &buffer, 0, 1, 0x3, nullptr, nullptr, nullptr));
    EXPECT_EQ(0x3u, c->GetFilter());
    // FindFirstChangeNotification made the (empty) entry, so arming did not
    // take a baseline: the first scan reports what is already there.
    UnixDirScan(dir, c, nullptr);
    unsigned long bytes = 0;
    ASSERT_EQ(1, GetOverlappedResult(h, nullptr, &bytes, 0));
    EXPECT_EQ("1 old 3 80 1000 0\n", Text(buffer, bytes));
    // Re-arming keeps what was queued after a collection, empties the rest.
    c->QueueNotify(Info(1, "late", 0x80, 0, 0));
    ASSERT_EQ(1, ReadDirectoryChanges(h, &buffer, 0, 1, 0x3, nullptr, nullptr, nullptr));
    EXPECT_EQ(1u, c->GetNotifyData()->size());
    ASSERT_EQ(1, ReadDirectoryChanges(h, &buffer, 0, 1, 0x3, nullptr, nullptr, nullptr));
    EXPECT_TRUE(c->GetNotifyData()->empty());
    FindCloseChangeNotification(h, 0);
    delete[] static_cast<char*>(buffer);
}

// A file made between a collection and the re-arming is reported after it, also to a
// handle from FindFirstChangeNotification, which stays watched through a collection.
TEST(ChangeNotification, ChangeBeforeReArmingIsReportedAfterIt) {
    for (const bool findFirst : {true, false}) {
        SCOPED_TRACE(findFirst ? "FindFirstChangeNotification" : "constructed");
        tvtest::TempDir tmp;
        const std::string dir = tmp.path() + "/";
        Stepped loop;
        Armed a;
        a.h = static_cast<ChangeNotificationHandle*>(
            findFirst ? FindFirstChangeNotification(dir.c_str(), 1, 0x1f)
                      : new ChangeNotificationHandle(dir.c_str(), 1, 0));
        a.Arm(0x1f, 0);
        Handle* port = CreateIoCompletionPort(a.h, nullptr, 1, 0);
        unsigned long bytes = 1;
        EXPECT_EQ(1, GetOverlappedResult(a.h, nullptr, &bytes, 0));
        Put(dir + "f", "x", 1000);
        loop.Pass();
        a.Arm(0x1f, 0);
        loop.Pass();
        ASSERT_EQ(1, GetQueuedCompletionStatus(port, &bytes, nullptr, nullptr, 0));
        EXPECT_EQ("1 f 1 80 1000 1\n", Text(a.buffer, bytes));
        CloseHandle(port);
    }
}

TEST(ChangeNotification, WaitAndSignalThroughTheOverlappedEvent) {
    Loose l;
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(l.h, 0));
    // Without an overlapped event the handle's own event carries the signal.
    EXPECT_EQ(1, l.h->Signal());
    EXPECT_EQ(1, l.h->State());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(l.h, 1000));
    l.h->Clear();
    EXPECT_EQ(0, l.h->State());
    // In a mixed set with an event the handle completes the wait as well.
    Handle* other = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* set[2] = {other, l.h};
    EXPECT_EQ(WAIT_OBJECT_0 + 1,
              notifytest::WokenBy<unsigned long>(
                  [&] { return WaitForMultipleObjectsEx(2, set, FALSE, 20000, FALSE); },
                  [&] { l.h->Signal(); }));
    CloseHandle(other);
    l.h->Clear();

    OVERLAPPED ov{};
    ov.hEvent = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    void* buffer = nullptr;
    ASSERT_EQ(1, ReadDirectoryChanges(l.h, &buffer, 0, 0, 0x1f, nullptr, &ov, nullptr));
    CloseHandle(ov.hEvent);  // the handle holds its own reference

    // A waiter on the handle is released by Signal (which sets the event).
    EXPECT_EQ(WAIT_OBJECT_0,
              notifytest::WokenBy<unsigned long>([&] { return WaitForSingleObject(l.h, 20000); },
                                                 [&] { l.h->Signal(); }));
    // The successful wait reset the manual-reset event.
    EXPECT_EQ(WAIT_TIMEOUT, WaitForSingleObject(l.h, 200));
    // A handle the scanner marked changed answers at once.
    l.h->SetChanged(1);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(l.h, 0));
    unsigned long bytes = 0;
    EXPECT_EQ(1, GetOverlappedResult(l.h, nullptr, &bytes, 0));
    EXPECT_EQ(0, l.h->GetChanged());

    // An event lent to a wait outlives a re-arming that replaces it.
    int signalled = 0;
    Handle* lent = l.h->GetSynch(signalled);
    lent->IncRefCount();
    ov.hEvent = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    ASSERT_EQ(1, ReadDirectoryChanges(l.h, &buffer, 0, 0, 0x1f, nullptr, &ov, nullptr));
    CloseHandle(ov.hEvent);
    EXPECT_EQ(2, lent->GetRefCount());
    l.h->FreeSynch();
    EXPECT_EQ(1, lent->GetRefCount());
    CloseHandle(lent);
    delete[] static_cast<char*>(buffer);
}
