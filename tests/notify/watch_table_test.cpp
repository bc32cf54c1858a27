// The watch table: registration order, entry keys, purging, the dump.
#include <string.h>
#include <time.h>

#include <algorithm>

#include "notify/watch_table.h"
#include "notify_test_util.h"

using namespace notifytest;
using namespace tv::detail;

namespace {

std::string Padded(const std::string& s, size_t width) {
    return s.size() >= width ? s : s + std::string(width - s.size(), ' ');
}

std::string CTimeTrimmed(time_t t) {
    char buf[64];
    ctime_r(&t, buf);
    std::string s(buf);
    s.pop_back();
    return s;
}

}  // namespace

TEST(WatchTable, HandlesOnOneDirectoryAreNeighbours) {
    tvtest::TempDir tmp;
    const std::string d = tmp.path() + "/d", e = tmp.path() + "/e";
    std::vector<ChangeNotificationHandle*> h;
    for (const std::string& dir : {d, d, e, d}) {
        h.push_back(new ChangeNotificationHandle(dir.c_str(), 0, 0));
        WatchDir(dir, h.back());
    }
    auto ours = [&] {
        std::vector<ChangeNotificationHandle*> order;
        for (auto* x : CNH_list()) {
            if (std::find(h.begin(), h.end(), x) != h.end()) order.push_back(x);
        }
        return order;
    };
    EXPECT_EQ((std::vector<ChangeNotificationHandle*>{h[2], h[0], h[3], h[1]}), ours());
    // Unregistering takes the handle off the list; its table entry stays.
    for (auto* x : h) EXPECT_EQ(0, FindCloseChangeNotification(x, 0));
    EXPECT_TRUE(ours().empty());
    EXPECT_NE(FindDirEntry(d), Dir_Data().end());
    // Closing a handle that is not registered is not an error.
    auto* loose = new ChangeNotificationHandle(d.c_str(), 0, 0);
    EXPECT_EQ(0, FindCloseChangeNotification(loose, 1));
    EXPECT_EQ(0, FindCloseChangeNotification(nullptr, 0));
    CloseHandle(loose);
}

TEST(WatchTable, PurgeFollowsOnlyOwnerReadableNames) {
    tvtest::TempDir tmp;
    const std::string d = tmp.path() + "/d";
    mkdir(d.c_str(), 0755);
    mkdir((d + "/open").c_str(), 0700);
    tvtest::WriteFile(d + "/open/f", "");
    mkdir((d + "/shut").c_str(), 0300);
    // The unreadable directory's entry exists whether or not the scan can
    // open it (it cannot unless we are root).
    WatchDir(d + "/shut/", nullptr);
    UnixDirScan(d, nullptr, nullptr);
    ASSERT_NE(FindDirEntry(d + "/open/"), Dir_Data().end());
    {
        CriticalSectionHolder serial(DirScan_lock());
        Purge_Dir_Entry(FindDirEntry(d + "/"));
        Purge_Dir_Entry(Dir_Data().end());  // nothing to do
    }
    EXPECT_EQ(FindDirEntry(d + "/"), Dir_Data().end());
    EXPECT_EQ(FindDirEntry(d + "/open/"), Dir_Data().end());
    EXPECT_NE(FindDirEntry(d + "/shut/"), Dir_Data().end());
    chmod((d + "/shut").c_str(), 0700);
}

TEST(WatchTable, DumpFormats) {
    tvtest::TempDir tmp;
    const std::string d = tmp.path() + "/d";
    mkdir(d.c_str(), 0755);
    mkdir((d + "/sub").c_str(), 0755);
    Put(d + "/sub/f", "", 900);
    Put(d + "/file", "", 1000);
    SetMTime(d + "/sub", 1100);
    SetMTime(d, 1200);
    auto* h = new ChangeNotificationHandle((d + "/").c_str(), 0, 0);
    WatchDir(h->GetWatchDir(), h);
    UnixDirScan(d + "/", nullptr, nullptr);
    CKWString changed = "/changed/";
    cnf_update(h, changed);
    cnf_update(nullptr, changed);

    testing::internal::CaptureStderr();
    DumpDirData();
    const std::string out = testing::internal::GetCapturedStderr();

    EXPECT_EQ(0u, out.find("\nDir_Data:\n"));
    const std::string entry = " " + Padded(d + "/", 40) + "  mod: " + CTimeTrimmed(1200) +
                              ", DskMsg: 0, OOS: 0, Repl to/frm: 0/0, Flgs: 0\n";
    const size_t at = out.find(entry);
    ASSERT_NE(std::string::npos, at) << out;
    const std::string fileLine =
        "   " + Padded("file", 40) + "   mod: " + CTimeTrimmed(1000) + " attr: Normal\n";
    const std::string subLine =
        "   " + Padded("sub", 40) + "/  mod: " + CTimeTrimmed(1100) + " attr: Directory\n";
    // Records follow their entry in name order. The attribute text is only
    // ever one of two: every bit outside the type is ignored.
    EXPECT_EQ(at + entry.size(), out.find(fileLine, at)) << out;
    EXPECT_EQ(at + entry.size() + fileLine.size(), out.find(subLine, at)) << out;
    EXPECT_STREQ("Directory", FileAttribs2String(0x41ED).c_str());
    EXPECT_STREQ("Normal", FileAttribs2String(0x81A4).c_str());
    EXPECT_STREQ("Normal", FileAttribs2String(0).c_str());
    EXPECT_STREQ("Normal", FileAttribs2String(0xA1FF).c_str());
    EXPECT_STREQ("Directory", FileAttribs2String(0x4000 | 0x1 | 0x10 | 0x100).c_str());
    const size_t cnh = out.find("--CNH:\n");
    ASSERT_NE(std::string::npos, cnh);
    EXPECT_NE(std::string::npos, out.find("st: 0 watch: " + d + "/ change: /changed/\n", cnh));

    // An invalidated entry and unseen records are starred.
    {
        CriticalSectionHolder serial(DirScan_lock());
        Invalidate_Dir_Entry(FindDirEntry(d + "/"));
    }
    testing::internal::CaptureStderr();
    DumpDirData();
    const std::string again = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, again.find("*" + Padded(d + "/", 40) + "  mod: "));
    EXPECT_NE(std::string::npos, again.find("*  " + Padded("file", 40) + "   mod: "));
    // Invalidation goes down the tree.
    auto sub = FindDirEntry(d + "/sub/");
    ASSERT_NE(sub, Dir_Data().end());
    EXPECT_EQ(0u, sub->second.valid);
    EXPECT_EQ(0, sub->second.files.begin()->second.flags & kFileSeen);
    FindCloseChangeNotification(h, 0);
}
