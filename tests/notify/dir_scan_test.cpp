// End-to-end scans of real directory trees: each change yields exactly the
// records the scanner promises, read back from the collected byte layout.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "notify/watch_table.h"
#include "notify_test_util.h"
#include "test_support.h"
#include "tvcommonutil/notify.h"

using notifytest::Armed;
using notifytest::FileTimeOf;
using notifytest::MTime;
using notifytest::Record;
using tvtest::WriteFile;

namespace {

// A watched directory "<tmp>/w" with a handle on "<tmp>/w/", armed with all
// five filter bits after a silent baseline scan.
struct Watched {
    tvtest::TempDir tmp;
    std::string dir;
    Armed a;

    explicit Watched(const char* sub = "w") {
        dir = tmp.path() + "/" + sub;
        mkdir(dir.c_str(), 0755);
    }
    void Open(const std::string& watch) {
        a.h = new ChangeNotificationHandle(watch.c_str(), 0, 0);
        a.Arm(0x1f);
    }
    ~Watched() {
        if (a.h) CloseHandle(a.h);
    }
    std::string P(const std::string& name) const { return dir + "/" + name; }
};

void ExpectRecord(const Record& r, uint64_t action, const std::string& name, uint64_t attributes,
                  uint64_t size, uint64_t time) {
    EXPECT_EQ(action, r.action) << name;
    EXPECT_EQ(name, r.name);
    EXPECT_EQ(static_cast<int32_t>(name.size()), r.nameLength) << name;
    EXPECT_EQ(attributes, r.attributes) << name;
    EXPECT_EQ(size, r.size) << name;
    EXPECT_EQ(time, r.time) << name;
    EXPECT_EQ(0u, r.timeRest) << name;
}

int IndexOf(const std::vector<Record>& rs, const std::string& name) {
    for (size_t i = 0; i < rs.size(); ++i) {
        if (rs[i].name == name) return static_cast<int>(i);
    }
    return -1;
}

struct ServerMode {
    ServerMode() { bRunningInServer = true; }
    ~ServerMode() { bRunningInServer = false; }
};

}  // namespace

TEST(DirScan, CreateModifyDeleteByFilter) {
    Watched w;
    WriteFile(w.P("old"), "x");
    w.Open(w.dir + "/");
    // The baseline scan at arming was silent and nothing changed since.
    w.a.Scan();
    EXPECT_TRUE(w.a.Collect().empty());

    WriteFile(w.P("a"), "hello");
    w.a.Scan();
    std::vector<Record> rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_ADDED, "a", 0x80, 5, FileTimeOf(MTime(w.P("a"))));
    EXPECT_EQ(0u, rs[0].next);

    WriteFile(w.P("a"), "hello world");
    notifytest::SetMTime(w.P("a"), MTime(w.P("a")) + 100);
    w.a.Scan();
    rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_MODIFIED, "a", 0x80, 11, FileTimeOf(MTime(w.P("a"))));

    // Size changed, time kept: nothing for a last-write-only filter...
    const time_t t0 = MTime(w.P("a"));
    WriteFile(w.P("a"), "short");
    notifytest::SetMTime(w.P("a"), t0);
    w.a.Arm(FILE_NOTIFY_CHANGE_LAST_WRITE);
    w.a.Scan();
    EXPECT_TRUE(w.a.Collect().empty());
    // ...but the snapshot kept the old size, so a size filter still sees it.
    w.a.Arm(FILE_NOTIFY_CHANGE_SIZE);
    w.a.Scan();
    rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_MODIFIED, "a", 0x80, 5, FileTimeOf(t0));

    // Removals carry no time and no size.
    unlink(w.P("a").c_str());
    w.a.Scan();
    rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_REMOVED, "a", 0x80, 0, 0);

    // Without bit 0x1 a new file is taken into the snapshot silently.
    w.a.Arm(FILE_NOTIFY_CHANGE_DIR_NAME);
    WriteFile(w.P("b"), "b");
    w.a.Scan();
    EXPECT_TRUE(w.a.Collect().empty());
    w.a.Scan();
    EXPECT_TRUE(w.a.Collect().empty());
}

TEST(DirScan, SubtreeCreatedFilledAndRemoved) {
    Watched w;
    w.Open(w.dir + "/");
    mkdir(w.P("sub").c_str(), 0755);
    WriteFile(w.P("sub/f"), "abc");
    mkdir(w.P("sub/deep").c_str(), 0755);
    WriteFile(w.P("sub/deep/g"), "");
    w.a.Scan();
    std::vector<Record> rs = w.a.Collect();
    ASSERT_EQ(4u, rs.size());
    // A subdirectory is walked before its own name is recorded.
    const int f = IndexOf(rs, "sub/f"), g = IndexOf(rs, "sub/deep/g"),
              deep = IndexOf(rs, "sub/deep");
    ASSERT_GE(f, 0);
    ASSERT_GE(g, 0);
    ASSERT_GE(deep, 0);
    EXPECT_LT(g, deep);
    EXPECT_EQ(3, IndexOf(rs, "sub"));
    ExpectRecord(rs[f], FILE_ACTION_ADDED, "sub/f", 0x80, 3, FileTimeOf(MTime(w.P("sub/f"))));
    ExpectRecord(rs[g], FILE_ACTION_ADDED, "sub/deep/g", 0x80, 0,
                 FileTimeOf(MTime(w.P("sub/deep/g"))));
    EXPECT_EQ(0x100u, rs[deep].attributes);
    EXPECT_EQ(0x100u, rs[3].attributes);
    EXPECT_EQ(FileTimeOf(MTime(w.P("sub"))), rs[3].time);
    EXPECT_NE(tv::detail::FindDirEntry(w.P("sub/deep/")), tv::detail::Dir_Data().end());

    // Removing the whole subtree reports only its top, and drops the
    // snapshot of everything below.
    ASSERT_EQ(0, system(("rm -rf '" + w.P("sub") + "'").c_str()));
    w.a.Scan();
    rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_REMOVED, "sub", 0x100, 0, 0);
    EXPECT_EQ(tv::detail::FindDirEntry(w.P("sub/")), tv::detail::Dir_Data().end());
    EXPECT_EQ(tv::detail::FindDirEntry(w.P("sub/deep/")), tv::detail::Dir_Data().end());
}

TEST(DirScan, TypeChangeIsRemovedThenAddedOnTheNextPass) {
    Watched w;
    WriteFile(w.P("x"), "file");
    mkdir(w.P("y").c_str(), 0755);
    w.Open(w.dir + "/");

    unlink(w.P("x").c_str());
    mkdir(w.P("x").c_str(), 0755);
    rmdir(w.P("y").c_str());
    WriteFile(w.P("y"), "now a file");
    w.a.Scan();
    std::vector<Record> rs = w.a.Collect();
    ASSERT_EQ(2u, rs.size());
    const int x = IndexOf(rs, "x"), y = IndexOf(rs, "y");
    ASSERT_GE(x, 0);
    ASSERT_GE(y, 0);
    ExpectRecord(rs[x], FILE_ACTION_REMOVED, "x", 0x80, 0, 0);
    ExpectRecord(rs[y], FILE_ACTION_REMOVED, "y", 0x100, 0, 0);

    w.a.Scan();
    rs = w.a.Collect();
    ASSERT_EQ(2u, rs.size());
    struct stat xs;
    ASSERT_EQ(0, lstat(w.P("x").c_str(), &xs));
    ExpectRecord(rs[IndexOf(rs, "x")], FILE_ACTION_ADDED, "x", 0x100,
                 static_cast<uint64_t>(xs.st_size), FileTimeOf(xs.st_mtime));
    ExpectRecord(rs[IndexOf(rs, "y")], FILE_ACTION_ADDED, "y", 0x80, 10,
                 FileTimeOf(MTime(w.P("y"))));
    w.a.Scan();
    EXPECT_TRUE(w.a.Collect().empty());
}

TEST(DirScan, SymbolicLinkToDirectoryIsWalkedAsADirectory) {
    Watched w;
    const std::string other = w.tmp.path() + "/other";
    mkdir(other.c_str(), 0755);
    WriteFile(other + "/t", "target");
    w.Open(w.dir + "/");
    ASSERT_EQ(0, symlink(other.c_str(), w.P("link").c_str()));
    w.a.Scan();
    std::vector<Record> rs = w.a.Collect();
    ASSERT_EQ(2u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_ADDED, "link/t", 0x80, 6, FileTimeOf(MTime(other + "/t")));
    EXPECT_EQ("link", rs[1].name);
    EXPECT_EQ(0x100u, rs[1].attributes);

    auto e = tv::detail::FindDirEntry(w.dir + "/");
    ASSERT_NE(e, tv::detail::Dir_Data().end());
    auto rec = e->second.files.find(std::string_view("link"));
    ASSERT_NE(rec, e->second.files.end());
    EXPECT_EQ(tv::detail::kFileIsDir | tv::detail::kFileIsLink | tv::detail::kFileSeen,
              rec->second.flags);
    EXPECT_EQ(0x4000u, rec->second.mode & 0xF000);
    EXPECT_NE(tv::detail::FindDirEntry(w.P("link/")), tv::detail::Dir_Data().end());

    unlink(w.P("link").c_str());
    w.a.Scan();
    rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_REMOVED, "link", 0x100, 0, 0);
    EXPECT_EQ(tv::detail::FindDirEntry(w.P("link/")), tv::detail::Dir_Data().end());
}

TEST(DirScan, NamesAreCutByTheWatchedStringAsGiven) {
    Watched w;
    w.Open(w.dir);  // no trailing slash: names keep their leading one
    WriteFile(w.P("a"), "");
    w.a.Scan();
    std::vector<Record> rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    EXPECT_EQ("/a", rs[0].name);
    // The handle's own key without a slash and the scanned key with one are
    // two table entries.
    EXPECT_NE(tv::detail::FindDirEntry(w.dir), tv::detail::Dir_Data().end());
    EXPECT_NE(tv::detail::FindDirEntry(w.dir + "/"), tv::detail::Dir_Data().end());
}

TEST(DirScan, AttributeChangesOfFilesAndDirectories) {
    Watched w;
    mkdir(w.P("s").c_str(), 0700);
    WriteFile(w.P("f"), "f");
    chmod(w.P("f").c_str(), 0600);
    w.Open(w.dir + "/");
    w.a.Arm(FILE_NOTIFY_CHANGE_ATTRIBUTES);

    chmod(w.P("s").c_str(), 0750);
    w.a.Scan();
    // A directory never produces a modified record: only the flag is set.
    EXPECT_EQ(1, w.a.h->GetChanged());
    EXPECT_EQ(1, w.a.h->GetSignalPending());
    EXPECT_TRUE(w.a.Collect(FILE_NOTIFY_CHANGE_ATTRIBUTES).empty());
    EXPECT_EQ(0, w.a.h->GetChanged());

    chmod(w.P("f").c_str(), 0644);
    w.a.Scan();
    std::vector<Record> rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_MODIFIED, "f", 0x80, 1, FileTimeOf(MTime(w.P("f"))));
}

TEST(DirScan, ServerSkipsPrivateFilesAndBusyDirectories) {
    Watched w;
    w.Open(w.dir + "/");
    ServerMode server;

    // A recent private file wakes the handle but is never reported.
    WriteFile(w.P(".KWlock"), "");
    w.a.Scan();
    EXPECT_EQ(1, w.a.h->GetSignalPending());
    EXPECT_EQ(0, w.a.h->GetChanged());
    EXPECT_TRUE(w.a.Collect().empty());
    unlink(w.P(".KWlock").c_str());
    WriteFile(w.P(".KWold"), "");
    notifytest::SetMTime(w.P(".KWold"), time(nullptr) - 20000);
    w.a.Scan();
    EXPECT_EQ(0, w.a.h->GetSignalPending());
    EXPECT_TRUE(w.a.Collect().empty());

    // A directory whose entry lock is held elsewhere is skipped this pass.
    auto e = tv::detail::FindDirEntry(w.dir + "/");
    ASSERT_NE(e, tv::detail::Dir_Data().end());
    std::mutex m;
    std::condition_variable cv;
    int phase = 0;
    std::thread holder([&] {
        e->second.lock.WriteLock();
        std::unique_lock<std::mutex> l(m);
        phase = 1;
        cv.notify_all();
        cv.wait(l, [&] { return phase == 2; });
        e->second.lock.WriteUnlock();
    });
    {
        std::unique_lock<std::mutex> l(m);
        cv.wait(l, [&] { return phase == 1; });
    }
    WriteFile(w.P("b"), "");
    w.a.Scan();
    EXPECT_TRUE(w.a.Collect().empty());
    {
        std::lock_guard<std::mutex> l(m);
        phase = 2;
        cv.notify_all();
    }
    holder.join();
    w.a.Scan();
    std::vector<Record> rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    EXPECT_EQ("b", rs[0].name);
}

namespace {
std::atomic<int> deviceUsable{1};
std::atomic<unsigned long> deviceSeen{0};
unsigned char CheckDevice(unsigned long dev) {
    deviceSeen = dev;
    return static_cast<unsigned char>(deviceUsable.load());
}
}  // namespace

TEST(DirScan, DeviceLossAndReturnAreReportedOnce) {
    Watched w;
    w.Open(w.dir + "/");
    WriteFile(w.P("n"), "new");
    auto scan = [&] { UnixDirScan(w.a.h->GetWatchDir(), w.a.h, CheckDevice); };

    deviceUsable = 0;
    scan();
    EXPECT_EQ(1, w.a.h->GetSignalPending());
    EXPECT_EQ(w.dir + "/", std::string(w.a.h->GetLastChangedDir().c_str()));
    std::vector<Record> rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], 5, "", 0x100, 0, 0);
    struct stat st;
    ASSERT_EQ(0, lstat(w.dir.c_str(), &st));
    EXPECT_EQ(static_cast<unsigned long>(st.st_dev), deviceSeen.load());
    scan();
    EXPECT_TRUE(w.a.Collect().empty());

    deviceUsable = 1;
    scan();
    rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());  // back again, and the tree is not walked yet
    ExpectRecord(rs[0], 5, "", 0x100, 0, 0);
    scan();
    rs = w.a.Collect();
    ASSERT_EQ(1u, rs.size());
    EXPECT_EQ("n", rs[0].name);
    EXPECT_EQ(static_cast<uint64_t>(FILE_ACTION_ADDED), rs[0].action);
}

// The loop itself: passes driven by the test through the thread object's
// sleep, records read back through a completion port.
TEST(DirScan, WatcherThreadPassesThroughACompletionPort) {
    tvtest::TempDir tmp;
    const std::string dir = tmp.path() + "/w";
    mkdir(dir.c_str(), 0755);
    Handle* h = FindFirstChangeNotification((dir + "/").c_str(), 1, 0x1f);
    ASSERT_NE(INVALID_HANDLE_VALUE, h);
    void* buffer = nullptr;
    auto arm = [&] {
        return ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr);
    };
    ASSERT_EQ(1, arm());
    Handle* port = CreateIoCompletionPort(h, nullptr, 77, 0);
    ASSERT_NE(nullptr, port);

    notifytest::SteppedWatcher watcher;
    std::thread th([&] { WatchDirsThread(&watcher); });
    watcher.WaitPasses(1);

    auto collect = [&] {
        unsigned long bytes = 0, key = 0;
        std::vector<Record> rs;
        if (GetQueuedCompletionStatus(port, &bytes, &key, nullptr, 10000) != 1) {
            ADD_FAILURE() << "no completion, errno " << errno;
            return rs;
        }
        EXPECT_EQ(77u, key);
        rs = notifytest::Parse(buffer, bytes);
        arm();
        return rs;
    };

    WriteFile(dir + "/new.txt", "12345");
    watcher.Step();
    std::vector<Record> rs = collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_ADDED, "new.txt", 0x80, 5, FileTimeOf(MTime(dir + "/new.txt")));

    WriteFile(dir + "/new.txt", "1234567");
    notifytest::SetMTime(dir + "/new.txt", MTime(dir + "/new.txt") + 5);
    watcher.Step();
    rs = collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_MODIFIED, "new.txt", 0x80, 7,
                 FileTimeOf(MTime(dir + "/new.txt")));

    unlink((dir + "/new.txt").c_str());
    watcher.Step();
    rs = collect();
    ASSERT_EQ(1u, rs.size());
    ExpectRecord(rs[0], FILE_ACTION_REMOVED, "new.txt", 0x80, 0, 0);

    // A quiet pass signals nothing: the port times out.
    watcher.Step();
    unsigned long bytes = 0;
    EXPECT_EQ(0, GetQueuedCompletionStatus(port, &bytes, nullptr, nullptr, 0));
    EXPECT_EQ(258, errno);

    watcher.Stop();
    th.join();
    EXPECT_TRUE(watcher.Exited());
    EXPECT_TRUE(bFileShutdownRequested);
    bFileShutdownRequested = false;
    // Fast passes sleep for the 4000 ms floor.
    for (unsigned long p : watcher.Periods()) EXPECT_EQ(4000u, p);

    FindCloseChangeNotification(h, 0);
    CloseHandle(port);
    delete[] static_cast<char*>(buffer);
}

TEST(DirScan, DefaultThreadObjectEndsItsSleepOnStop) {
    WatchDirsThreadObject obj;
    std::atomic<bool> done{false};
    std::thread th([&] {
        WatchDirsThread(&obj);
        done = true;
    });
    // Let it reach its 4000 ms sleep (or not: a stop before the first pass
    // ends it too).
    const auto start = std::chrono::steady_clock::now();
    obj.RequestStop();
    th.join();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now() - start)
                        .count();
    EXPECT_TRUE(done);
    EXPECT_LT(ms, 3500);
    bFileShutdownRequested = false;
}

TEST(DirScan, PeriodIsTwiceThePassClampedTo4000And30000) {
    EXPECT_EQ(4000u, tv::detail::WatchPeriod(0));
    EXPECT_EQ(4000u, tv::detail::WatchPeriod(1500));
    EXPECT_EQ(4002u, tv::detail::WatchPeriod(2001));
    EXPECT_EQ(18000u, tv::detail::WatchPeriod(9000));
    EXPECT_EQ(30000u, tv::detail::WatchPeriod(15000));
    EXPECT_EQ(30000u, tv::detail::WatchPeriod(20000));
    EXPECT_EQ(30000u, tv::detail::WatchPeriod(30000));
    EXPECT_EQ(45000u, tv::detail::WatchPeriod(45000));
}
