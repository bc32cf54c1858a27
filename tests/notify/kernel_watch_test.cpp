// Kernel-woken passes through the real watcher loop and a completion port:
// the same records as a polling scan, directories past the watch limit
// still polled, nothing lost to a queue overflow.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "notify/testing.h"
#include "notify_test_util.h"
#include "test_support.h"
#include "tvcommonutil/notify.h"

using notifytest::Record;
using notifytest::SetMTime;

namespace {

// Sleeps an hour between polls (so only the kernel can wake it in time),
// and parks before a sleep while the test holds it.
class KernelWoken : public WatchDirsThreadObject {
public:
    explicit KernelWoken(unsigned long period = 3600000) : period_(period) {}
    unsigned long TimedWait(unsigned long ms, int flags, WatchDirsThreadObject* self) override {
        {
            std::unique_lock<std::mutex> l(m_);
            parked_ = true;
            cv_.notify_all();
            cv_.wait(l, [&] { return !hold_; });
            parked_ = false;
        }
        return WatchDirsThreadObject::TimedWait(period_ ? period_ : ms, flags, self);
    }
    // Holds the loop before its next sleep and waits until it got there.
    void Hold() {
        std::unique_lock<std::mutex> l(m_);
        hold_ = true;
        Wake();
        cv_.wait(l, [&] { return parked_; });
    }
    void Release() {
        std::lock_guard<std::mutex> l(m_);
        hold_ = false;
        cv_.notify_all();
    }

private:
    const unsigned long period_;
    std::mutex m_;
    std::condition_variable cv_;
    bool hold_ = false;
    bool parked_ = false;
};

// A handle armed on "<root>/" in a port, and the watcher loop running.
struct Watching {
    std::string root;
    ChangeNotificationHandle* h;
    void* buffer = nullptr;
    Handle* port;
    KernelWoken& loop;
    std::thread thread;

    Watching(const std::string& dir, KernelWoken& l)
        : root(dir + "/"), h(new ChangeNotificationHandle(root.c_str(), 1, 0)), loop(l) {
        thread = std::thread([this] { WatchDirsThread(&loop); });
        Arm();
        port = CreateIoCompletionPort(h, nullptr, 1, 0);
        // Two held sleeps: the second follows a whole pass made after arming.
        for (int i = 0; i < 2; ++i) {
            loop.Hold();
            loop.Release();
        }
    }
    ~Watching() {
        loop.Release();
        loop.RequestStop();
        thread.join();
        bFileShutdownRequested = false;
        CloseHandle(h);
        CloseHandle(port);
        delete[] static_cast<char*>(buffer);
    }
    void Arm() { ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr); }
    // Collects through the port until `until` holds of what came (generous
    // time-out: a polled directory waits for the period).
    std::vector<Record> Collect(const std::function<bool(const std::vector<Record>&)>& until) {
        std::vector<Record> all;
        while (!until(all)) {
            unsigned long bytes = 0, key = 0;
            if (GetQueuedCompletionStatus(port, &bytes, &key, nullptr, 60000) != 1) break;
            for (const Record& r : notifytest::Parse(buffer, bytes)) all.push_back(r);
            Arm();
        }
        return all;
    }
};

bool Has(const std::vector<Record>& rs, uint64_t action, const std::string& name) {
    for (const Record& r : rs) {
        if (r.action == action && r.name == name) return true;
    }
    return false;
}

// A file made outside the tree with a fixed time, so that both trees of a
// comparison carry the same bytes, then moved in with one call.
void Drop(const std::string& stage, const std::string& to, const std::string& text, time_t t) {
    tvtest::WriteFile(stage, text);
    SetMTime(stage, t);
    ASSERT_EQ(0, rename(stage.c_str(), to.c_str())) << to;
}

// Each step is one system call as far as the tree can tell.
using Step = std::function<void(const std::string& root, const std::string& stage)>;
const std::vector<Step>& Steps() {
    static const std::vector<Step> steps = {
        [](const std::string& r, const std::string& s) { Drop(s + "a", r + "a", "hello", 1000); },
        [](const std::string& r, const std::string& s) {
            Drop(s + "b", r + "sub/deep/b", "b", 2000);
        },
        [](const std::string& r, const std::string& s) {
            Drop(s + "a", r + "a", "hello world", 3000);  // rewritten in place
        },
        [](const std::string& r, const std::string&) { SetMTime(r + "sub/s1", 4000); },
        [](const std::string& r, const std::string&) {
            rename((r + "keep").c_str(), (r + "kept").c_str());
        },
        [](const std::string& r, const std::string&) {
            rename((r + "sub/s1").c_str(), (r + "sub/s2").c_str());
        },
        [](const std::string& r, const std::string&) {
            rename((r + "a").c_str(), (r + "sub/a").c_str());
        },
        [](const std::string& r, const std::string& s) {
            // A file becomes a link: removed in one pass, added in the next.
            ASSERT_EQ(0, symlink("s2", (s + "l").c_str()));
            SetMTime(s + "l", 4500);
            rename((s + "l").c_str(), (r + "sub/a").c_str());
        },
        [](const std::string& r, const std::string& s) {
            mkdir((s + "d").c_str(), 0755);
            Drop(s + "f", s + "d/f", "in a new directory", 5000);
            SetMTime(s + "d", 6000);
            rename((s + "d").c_str(), (r + "sub/d").c_str());
        },
        [](const std::string& r, const std::string&) { unlink((r + "sub/deep/b").c_str()); },
        [](const std::string& r, const std::string&) { unlink((r + "kept").c_str()); },
        [](const std::string& r, const std::string& s) {
            rename((r + "sub/d").c_str(), (s + "gone").c_str());  // a subtree leaves
        },
        [](const std::string& r, const std::string& s) { Drop(s + "z", r + "z", "last", 7000); },
    };
    return steps;
}

// "<dir>/tree" with a file, a subtree two deep, and "<dir>/stage/" beside it.
std::string MakeTree(const std::string& dir) {
    const std::string root = dir + "/tree/";
    mkdir(dir.c_str(), 0755);
    mkdir((dir + "/stage").c_str(), 0755);
    mkdir(root.c_str(), 0755);
    mkdir((root + "sub").c_str(), 0755);
    mkdir((root + "sub/deep").c_str(), 0755);
    tvtest::WriteFile(root + "keep", "k");
    tvtest::WriteFile(root + "sub/s1", "s1");
    return root;
}

std::string Text(const std::vector<Record>& rs) {
    std::string out;
    for (const Record& r : rs) {
        char line[256];
        snprintf(
            line, sizeof line, "%llu %s len %d attr %#llx time %llu/%llu size %llu\n",
            static_cast<unsigned long long>(r.action), r.name.c_str(), r.nameLength,
            static_cast<unsigned long long>(r.attributes), static_cast<unsigned long long>(r.time),
            static_cast<unsigned long long>(r.timeRest), static_cast<unsigned long long>(r.size));
        out += line;
    }
    return out;
}

}  // namespace

TEST(KernelWatch, RecordsEqualThoseOfAPollingScan) {
    tvtest::TempDir tmp;
    // Polling: one scan after each step, no loop running.
    std::vector<std::string> polled;
    {
        const std::string root = MakeTree(tmp.path() + "/p");
        notifytest::Armed a;
        a.h = new ChangeNotificationHandle(root.c_str(), 1, 0);
        a.Arm(0x1f, 0);
        for (const Step& step : Steps()) {
            step(root, tmp.path() + "/p/stage/");
            // As many passes as it takes to report the step.
            std::string text;
            for (std::string pass = "-"; !pass.empty(); text += pass) {
                a.Scan();
                pass = Text(a.Collect());
            }
            EXPECT_NE("", text) << "step " << polled.size();
            polled.push_back(text);
        }
        CloseHandle(a.h);
    }
    // The same steps under the loop, which only the kernel wakes in time.
    const std::string root = MakeTree(tmp.path() + "/k");
    KernelWoken loop;
    Watching w(tmp.path() + "/k/tree", loop);
    for (size_t i = 0; i < Steps().size(); ++i) {
        Steps()[i](root, tmp.path() + "/k/stage/");
        const std::vector<Record> got = w.Collect(
            [&](const std::vector<Record>& rs) { return Text(rs).size() >= polled[i].size(); });
        EXPECT_EQ(polled[i], Text(got)) << "step " << i;
    }
    EXPECT_GT(tv::notifytesting::KernelWatchCount(), 0);
}

TEST(KernelWatch, DirectoryBeyondTheWatchLimitIsPolled) {
    tvtest::TempDir tmp;
    const std::string root = MakeTree(tmp.path() + "/t");
    tv::notifytesting::SetKernelWatchLimit(1);
    KernelWoken loop(0);  // the loop's own period, 4000 ms
    {
        Watching w(tmp.path() + "/t/tree", loop);
        // Only the root is watched: a change below waits for the period...
        Drop(tmp.path() + "/t/stage/x", root + "sub/deep/x", "x", 1000);
        std::vector<Record> rs =
            w.Collect([](const std::vector<Record>& got) { return !got.empty(); });
        EXPECT_EQ("1 sub/deep/x len 10 attr 0x80 time 116444746000000000/0 size 1\n", Text(rs));
        // ...and one in the root is reported at once (the test cannot tell).
        Drop(tmp.path() + "/t/stage/y", root + "y", "y", 1000);
        rs = w.Collect([](const std::vector<Record>& got) { return !got.empty(); });
        EXPECT_TRUE(Has(rs, FILE_ACTION_ADDED, "y")) << Text(rs);
        EXPECT_EQ(1, tv::notifytesting::KernelWatchCount());
    }
    tv::notifytesting::SetKernelWatchLimit(-1);
}

TEST(KernelWatch, OverflowStillReportsEveryChange) {
    long queue = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> queue;
    if (queue <= 0 || queue > 1000000) GTEST_SKIP() << "queue length " << queue;
    tvtest::TempDir tmp;
    const std::string root = MakeTree(tmp.path() + "/t");
    const std::string stage = tmp.path() + "/t/stage/";
    KernelWoken loop;
    Watching w(tmp.path() + "/t/tree", loop);
    // Watches are in place once a change is reported.
    Drop(stage + "first", root + "first", "", 1000);
    w.Collect([](const std::vector<Record>& rs) { return Has(rs, FILE_ACTION_ADDED, "first"); });

    // With the loop held, more reports than the queue keeps, then changes
    // whose reports are lost.
    loop.Hold();
    for (long i = 0; i <= queue; ++i) SetMTime(root + (i % 2 ? "keep" : "sub/s1"), 2000 + i);
    Drop(stage + "late", root + "sub/deep/late", "", 1000);
    unlink((root + "first").c_str());
    loop.Release();
    const std::vector<Record> rs = w.Collect([](const std::vector<Record>& got) {
        return Has(got, FILE_ACTION_ADDED, "sub/deep/late") &&
               Has(got, FILE_ACTION_REMOVED, "first");
    });
    EXPECT_TRUE(Has(rs, FILE_ACTION_MODIFIED, "keep")) << Text(rs);
    EXPECT_TRUE(Has(rs, FILE_ACTION_MODIFIED, "sub/s1")) << Text(rs);
    EXPECT_TRUE(Has(rs, FILE_ACTION_ADDED, "sub/deep/late")) << Text(rs);
    EXPECT_TRUE(Has(rs, FILE_ACTION_REMOVED, "first")) << Text(rs);
}
