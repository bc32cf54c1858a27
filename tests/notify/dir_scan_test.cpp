// End-to-end scans of real directory trees: each change yields exactly the
// records the scanner promises, read back from the collected byte layout.

#include "notify/watch_table.h"
#include "notify_test_util.h"

using namespace notifytest;
using namespace tv::detail;

namespace {

// "<tmp>/w" and a handle on "<tmp>/w/" (or "<tmp>/w") armed after a silent
// baseline scan.
struct Watched {
    tvtest::TempDir tmp;
    std::string dir = tmp.path() + "/w";
    Armed a;

    Watched() { mkdir(dir.c_str(), 0755); }
    void Open(const std::string& watch) {
        a.h = new ChangeNotificationHandle(watch.c_str(), 0, 0);
        a.Arm(0x1f);
    }
    std::string P(const std::string& name) const { return dir + "/" + name; }
};

// One scan: the change made before it, the filter armed for it, the records
// it must give, and anything else to check before they are collected.
struct Pass {
    std::function<void(Watched&)> change;
    unsigned long filter;
    const char* want;
    std::function<void(Watched&)> check = nullptr;
};
struct Case {
    const char* what;
    std::function<void(Watched&)> before;
    bool slash;  // the handle watches "w/" rather than "w"
    std::vector<Pass> passes;
};

std::atomic<int> deviceUsable{1};
std::atomic<unsigned long> deviceSeen{0};
unsigned char CheckDevice(unsigned long dev) {
    deviceSeen = dev;
    return static_cast<unsigned char>(deviceUsable.load());
}

bool HasEntry(const std::string& key) {
    return FindDirEntry(key) != Dir_Data().end();
}

const Case kCases[] = {
    {"file lifecycle and filters",
     [](Watched& w) { Put(w.P("old"), "x", 500); },
     true,
     {{nullptr, 0x1f, ""},  // the baseline at arming was silent
      {[](Watched& w) { Put(w.P("a"), "hello", 1000); }, 0x1f, "1 a 1 80 1000 5\n"},
      {[](Watched& w) { Put(w.P("a"), "hello world", 1100); }, 0x1f, "3 a 1 80 1100 11\n"},
      // Size changed, time kept: nothing for a last-write-only filter, and
      // the snapshot keeps the old size, so a size filter still sees it.
      {[](Watched& w) { Put(w.P("a"), "short", 1100); }, FILE_NOTIFY_CHANGE_LAST_WRITE, ""},
      {nullptr, FILE_NOTIFY_CHANGE_SIZE, "3 a 1 80 1100 5\n"},
      {[](Watched& w) { unlink(w.P("a").c_str()); }, 0x1f, "2 a 1 80 0 0\n"},
      // Without bit 0x1 a new file is taken into the snapshot silently.
      {[](Watched& w) { Put(w.P("b"), "b", 1000); }, FILE_NOTIFY_CHANGE_DIR_NAME, ""},
      {nullptr, 0x1f, ""}}},
    {"a subtree is walked before its name, removed by its top alone, purged",
     nullptr,
     true,
     {{[](Watched& w) {
           mkdir(w.P("sub").c_str(), 0755);
           mkdir(w.P("sub/deep").c_str(), 0755);
           Put(w.P("sub/deep/g"), "abc", 1000);
           SetMTime(w.P("sub/deep"), 1100);
           SetMTime(w.P("sub"), 1200);
       },
       0x1f, "1 sub/deep/g 10 80 1000 3\n1 sub/deep 8 100 1100 =\n1 sub 3 100 1200 =\n",
       [](Watched& w) { EXPECT_TRUE(HasEntry(w.P("sub/deep/"))); }},
      {[](Watched& w) { ASSERT_EQ(0, system(("rm -rf " + w.P("sub")).c_str())); }, 0x1f,
       "2 sub 3 100 0 0\n", [](Watched& w) { EXPECT_FALSE(HasEntry(w.P("sub/deep/"))); }},
      // Nothing of the old snapshot is left to hide the new contents.
      {[](Watched& w) {
           mkdir(w.P("sub").c_str(), 0755);
           Put(w.P("sub/deep"), "now a file", 1300);
           SetMTime(w.P("sub"), 1400);
       },
       0x1f, "1 sub/deep 8 80 1300 10\n1 sub 3 100 1400 =\n"}}},
    {"a changed type is removed in one pass and added in the next",
     [](Watched& w) {
         Put(w.P("x"), "file", 1000);
         mkdir(w.P("y").c_str(), 0755);
     },
     true,
     {{[](Watched& w) {
           unlink(w.P("x").c_str());
           mkdir(w.P("x").c_str(), 0755);
           SetMTime(w.P("x"), 1500);
       },
       0x1f, "2 x 1 80 0 0\n"},
      {nullptr, 0x1f, "1 x 1 100 1500 =\n"},
      {[](Watched& w) {
           rmdir(w.P("y").c_str());
           Put(w.P("y"), "now a file", 1600);
       },
       0x1f, "2 y 1 100 0 0\n"},
      {nullptr, 0x1f, "1 y 1 80 1600 10\n"},
      {nullptr, 0x1f, ""}}},
    {"a link to a directory is walked as a directory",
     [](Watched& w) {
         mkdir((w.tmp.path() + "/other").c_str(), 0755);
         Put(w.tmp.path() + "/other/t", "target", 1000);
     },
     true,
     {{[](Watched& w) {
           ASSERT_EQ(0, symlink((w.tmp.path() + "/other").c_str(), w.P("link").c_str()));
           SetMTime(w.P("link"), 1100);
       },
       0x1f, "1 link/t 6 80 1000 6\n1 link 4 100 1100 =\n",
       [](Watched& w) {
           auto e = FindDirEntry(w.dir + "/");
           ASSERT_NE(e, Dir_Data().end());
           const FILE_ENTRY& rec = e->second.files.find(std::string_view("link"))->second;
           EXPECT_EQ(kFileIsDir | kFileIsLink | kFileSeen, rec.flags);
           EXPECT_EQ(0x4000u, rec.mode & 0xF000);
           EXPECT_TRUE(HasEntry(w.P("link/")));
       }},
      {[](Watched& w) { unlink(w.P("link").c_str()); }, 0x1f, "2 link 4 100 0 0\n",
       [](Watched& w) { EXPECT_FALSE(HasEntry(w.P("link/"))); }}}},
    {"names are cut by the watched string as given",
     nullptr,
     false,
     {{[](Watched& w) { Put(w.P("a"), "", 1000); }, 0x1f, "1 /a 2 80 1000 0\n",
       [](Watched& w) {
           // The watched path and the scanned one: two entries, one empty.
           auto bare = FindDirEntry(w.dir), slashed = FindDirEntry(w.dir + "/");
           ASSERT_NE(bare, Dir_Data().end());
           ASSERT_NE(slashed, Dir_Data().end());
           EXPECT_TRUE(bare->second.files.empty());
           EXPECT_EQ(1u, slashed->second.files.size());
           EXPECT_STREQ(w.dir.c_str(), bare->second.lock.GetLockName());
           EXPECT_STREQ((w.dir + "/").c_str(), slashed->second.lock.GetLockName());
       }}}},
    {"attribute changes: files give records, directories only the flags",
     [](Watched& w) {
         mkdir(w.P("s").c_str(), 0700);
         Put(w.P("f"), "f", 1000);
         chmod(w.P("f").c_str(), 0600);
     },
     true,
     {{[](Watched& w) { chmod(w.P("s").c_str(), 0750); }, FILE_NOTIFY_CHANGE_ATTRIBUTES, "",
       [](Watched& w) {
           EXPECT_EQ(1, w.a.h->GetChanged());
           EXPECT_EQ(1, w.a.h->GetSignalPending());
       }},
      {[](Watched& w) { chmod(w.P("f").c_str(), 0644); }, FILE_NOTIFY_CHANGE_ATTRIBUTES,
       "3 f 1 80 1000 1\n"}}},
    {"a device lost and back is reported once each, with no walk",
     nullptr,
     true,
     {{[](Watched& w) {
           Put(w.P("n"), "new", 1000);
           deviceUsable = 0;
       },
       0x1f, "5  0 100 0 0\n",
       [](Watched& w) {
           EXPECT_EQ(1, w.a.h->GetSignalPending());
           EXPECT_EQ(w.dir + "/", std::string(w.a.h->GetLastChangedDir().c_str()));
           struct stat st;
           ASSERT_EQ(0, lstat(w.dir.c_str(), &st));
           EXPECT_EQ(static_cast<unsigned long>(st.st_dev), deviceSeen.load());
       }},
      {nullptr, 0x1f, ""},
      {[](Watched&) { deviceUsable = 1; }, 0x1f, "5  0 100 0 0\n"},
      {nullptr, 0x1f, "1 n 1 80 1000 3\n"}}},
};

}  // namespace

TEST(DirScan, RecordsOfEachChange) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(c.what);
        Watched w;
        if (c.before) c.before(w);
        w.Open(c.slash ? w.dir + "/" : w.dir);
        for (size_t i = 0; i < c.passes.size(); ++i) {
            SCOPED_TRACE("pass " + std::to_string(i));
            const Pass& p = c.passes[i];
            w.a.Arm(p.filter);
            if (p.change) p.change(w);
            UnixDirScan(w.a.h->GetWatchDir(), w.a.h, CheckDevice);
            if (p.check) p.check(w);
            EXPECT_EQ(p.want, w.a.Collect(w.dir + (c.slash ? "/" : "")));
        }
    }
}

TEST(DirScan, ServerSkipsPrivateFilesAndBusyDirectories) {
    Watched w;
    w.Open(w.dir + "/");
    struct ServerMode {
        ServerMode() { bRunningInServer = true; }
        ~ServerMode() { bRunningInServer = false; }
    } server;

    // A recent private file wakes the handle but is never reported.
    tvtest::WriteFile(w.P(".KWlock"), "");
    w.a.Scan();
    EXPECT_EQ(1, w.a.h->GetSignalPending());
    EXPECT_EQ(0, w.a.h->GetChanged());
    EXPECT_EQ("", w.a.Collect());
    unlink(w.P(".KWlock").c_str());
    Put(w.P(".KWold"), "", time(nullptr) - 20000);
    w.a.Scan();
    EXPECT_EQ(0, w.a.h->GetSignalPending());
    EXPECT_EQ("", w.a.Collect());

    // A directory whose entry lock is held elsewhere is skipped this pass.
    auto e = FindDirEntry(w.dir + "/");
    ASSERT_NE(e, Dir_Data().end());
    Put(w.P("b"), "", 1000);
    e->second.lock.WriteLock();
    std::thread([&] { w.a.Scan(); }).join();
    e->second.lock.WriteUnlock();
    EXPECT_EQ("", w.a.Collect());
    w.a.Scan();
    EXPECT_EQ("1 b 1 80 1000 0\n", w.a.Collect());
}

TEST(DirScan, PeriodIsTwiceThePassClampedTo4000And30000) {
    const unsigned long long cases[][2] = {{0, 4000},      {1500, 4000},   {2001, 4002},
                                           {9000, 18000},  {15000, 30000}, {20000, 30000},
                                           {30000, 30000}, {45000, 45000}};
    for (const auto& c : cases) EXPECT_EQ(c[1], WatchPeriod(c[0])) << c[0];
}
