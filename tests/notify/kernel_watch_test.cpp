// Kernel-woken passes through the real watcher loop and a completion port:
// the records of a polling scan, the watch limit, a queue overflow.

#include <fstream>

#include "notify/testing.h"
#include "notify/watch_table.h"
#include "notify_test_util.h"

using namespace notifytest;

namespace {

// Polls once an hour: only the kernel wakes it in time.
class KernelWoken : public WatchDirsThreadObject {
public:
    unsigned long TimedWait(unsigned long, int flags, WatchDirsThreadObject* self) override {
        return WatchDirsThreadObject::TimedWait(3600000, flags, self);
    }
};

// A handle armed on "<root>/" in a port, and the watcher loop running.
struct Watching {
    std::string root;
    ChangeNotificationHandle* h;
    void* buffer = nullptr;
    Handle* port;
    WatchDirsThreadObject& loop;
    std::thread thread;

    OVERLAPPED* ov;

    Watching(const std::string& dir, WatchDirsThreadObject& l, OVERLAPPED* o = nullptr)
        : root(dir + "/"), h(new ChangeNotificationHandle(root.c_str(), 1, 0)), loop(l), ov(o) {
        thread = std::thread([this] { WatchDirsThread(&loop); });
        Arm();
        port = CreateIoCompletionPort(h, nullptr, 1, 0);
    }
    ~Watching() {
        loop.RequestStop();
        thread.join();
        bFileShutdownRequested = false;
        CloseHandle(h);
        CloseHandle(port);
        delete[] static_cast<char*>(buffer);
    }
    void Arm() { ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, ov, nullptr); }
    // Collects through the port (as Text) until `done` holds, or a minute.
    std::string Collect(const std::function<bool(const std::string&)>& done) {
        std::string text;
        unsigned long bytes = 0, key = 0;
        while (!done(text) && GetQueuedCompletionStatus(port, &bytes, &key, nullptr, 60000) == 1) {
            text += Text(buffer, bytes);
            Arm();
        }
        return text;
    }
};

// One call each, fixed times: 'p' puts a file (text `b`, time `t`) at `a`;
// 't' sets the time of `a`; 'r' renames `a` to `b`; 'u' unlinks `a`; 'l' puts
// a link to `b` at `a`; 'd' a directory holding a file `b`; 'o' moves `a` out.
struct Step {
    char op;
    const char* a;
    const char* b;
    time_t t;
};
constexpr Step kSteps[] = {
    {'p', "a", "hello", 1000}, {'p', "sub/deep/b", "b", 2000}, {'p', "a", "hello world", 3000},
    {'t', "sub/s1", "", 4000}, {'r', "keep", "kept", 0},       {'r', "sub/s1", "sub/s2", 0},
    {'r', "a", "sub/a", 0},    {'l', "sub/a", "s2", 4500},  // a file becomes a link
    {'d', "sub/d", "f", 5001}, {'u', "sub/deep/b", "", 0},     {'u', "kept", "", 0},
    {'o', "sub/d", "", 0},     {'p', "z", "last", 7000},
};

void Apply(const Step& s, const std::string& root, const std::string& stage) {
    const std::string a = root + s.a, b = root + s.b, x = stage + "x";
    int rc = 0;
    if (s.op == 't') SetMTime(a, s.t);
    if (s.op == 'u') rc = unlink(a.c_str());
    if (s.op == 'r') rc = rename(a.c_str(), b.c_str());
    if (s.op == 'o') rc = rename(a.c_str(), (stage + "gone").c_str());
    if (s.op == 'p') tvtest::WriteFile(x, s.b);
    if (s.op == 'l') rc = symlink(s.b, x.c_str());
    if (s.op == 'd' && (rc = mkdir(x.c_str(), 0755)) == 0) Put(x + "/" + s.b, "in it", s.t - 1);
    if (s.op == 'p' || s.op == 'l' || s.op == 'd') {
        SetMTime(x, s.t);
        rc |= rename(x.c_str(), a.c_str());
    }
    EXPECT_EQ(0, rc) << s.op << ' ' << s.a;
}

// "<dir>/tree" with a file, a subtree two deep, and "<dir>/stage/" beside it.
std::string MakeTree(const std::string& dir) {
    const std::string root = dir + "/tree/";
    for (const char* d : {"", "/stage", "/tree", "/tree/sub", "/tree/sub/deep"}) {
        mkdir((dir + d).c_str(), 0755);
    }
    Put(root + "keep", "k", 100);
    Put(root + "flood", "", 100);
    Put(root + "sub/s1", "s1", 100);
    return root;
}

}  // namespace

TEST(KernelWatch, RecordsEqualThoseOfAPollingScan) {
    tvtest::TempDir tmp;
    // Polling: one scan after each step, no loop running.
    std::vector<std::string> polled;
    {
        const std::string root = MakeTree(tmp.path() + "/p");
        Armed a;
        a.h = new ChangeNotificationHandle(root.c_str(), 1, 0);
        a.Arm(0x1f, 0);
        for (const Step& step : kSteps) {
            Apply(step, root, tmp.path() + "/p/stage/");
            // As many passes as it takes to report the step.
            std::string text;
            for (std::string pass = "-"; !pass.empty(); text += pass) {
                a.Scan();
                pass = a.Collect();
            }
            EXPECT_NE("", text) << "step " << polled.size();
            polled.push_back(text);
        }
    }
    // The same steps under the loop, which only the kernel wakes in time.
    const std::string root = MakeTree(tmp.path() + "/k");
    KernelWoken loop;
    Watching w(tmp.path() + "/k/tree", loop);
    for (size_t i = 0; i < polled.size(); ++i) {
        Apply(kSteps[i], root, tmp.path() + "/k/stage/");
        EXPECT_EQ(polled[i], w.Collect([&](const std::string& t) {
            return t.size() >= polled[i].size();
        })) << "step "
            << i;
    }
    EXPECT_GT(tv::notifytesting::KernelWatchCount(), 0);
}

// Past the watch limit (capped here at two: the root and "sub"), "sub/deep"
// is polled; a flood of reports overflows the queue, yet every change comes.
TEST(KernelWatch, PastTheLimitPolledAndNothingLostToOverflow) {
    long queue = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queue;
    if (queue <= 0 || queue > 1000000) GTEST_SKIP() << "queue length " << queue;
    tvtest::TempDir tmp;
    const std::string root = MakeTree(tmp.path() + "/t"), stage = tmp.path() + "/t/stage/";
    tv::notifytesting::SetKernelWatchLimit(2);
    WatchDirsThreadObject loop;  // polls every 4000 ms
    Watching w(tmp.path() + "/t/tree", loop);
    // Found by a pass no kernel report asked for (the period at the latest).
    Apply({'p', "sub/deep/x", "x", 1000}, root, stage);
    EXPECT_EQ("1 sub/deep/x 10 80 1000 1\n",
              w.Collect([](const std::string& t) { return !t.empty(); }));
    EXPECT_EQ(2, tv::notifytesting::KernelWatchCount());

    // With the loop held (it drains under the scan lock), more reports than
    // the queue keeps, then changes whose reports are lost. Watched
    // directories are not polled: only the overflow brings these.
    tv::detail::DirScan_lock().Lock();
    for (long i = 0; i <= queue; ++i) SetMTime(root + (i % 2 ? "keep" : "flood"), 2000 + i);
    Apply({'p', "sub/late", "", 1000}, root, stage);
    unlink((root + "sub/deep/x").c_str());
    tv::detail::DirScan_lock().Unlock();
    const char* want[] = {"3 keep 4 80 ", "3 flood 5 80 ", "1 sub/late 8 80 1000 0\n",
                          "2 sub/deep/x 10 80 0 0\n"};
    const std::string got = w.Collect([&](const std::string& t) {
        for (const char* line : want) {
            if (t.find(line) == std::string::npos) return false;
        }
        return true;
    });
    for (const char* line : want) EXPECT_NE(std::string::npos, got.find(line)) << line << got;
    tv::notifytesting::SetKernelWatchLimit(-1);
}

// Armed with an overlapped event, the watcher sets that event: a mixed wait
// and a port wait sleep on it, so a change ends both.
TEST(KernelWatch, OverlappedEventEndsMixedAndPortWaits) {
    tvtest::TempDir tmp;
    const std::string root = MakeTree(tmp.path() + "/o"), stage = tmp.path() + "/o/stage/";
    KernelWoken loop;
    OVERLAPPED ov{};
    ov.hEvent = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    Watching w(tmp.path() + "/o/tree", loop, &ov);
    CloseHandle(ov.hEvent);
    Handle* idle = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* set[2] = {idle, w.h};
    Apply({'p', "m", "m", 1000}, root, stage);
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjectsEx(2, set, FALSE, 60000, FALSE));
    EXPECT_EQ("1 m 1 80 1000 1\n", w.Collect([](const std::string& t) { return !t.empty(); }));
    Apply({'p', "n", "n", 2000}, root, stage);
    EXPECT_EQ("1 n 1 80 2000 1\n", w.Collect([](const std::string& t) { return !t.empty(); }));
    CloseHandle(idle);
}
