// FileLock between real processes: a second opener blocks until the holder
// closes, and flag combinations outside the locking table neither lock nor
// wait.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include <tvcommonutil.h>

#include "registry_support.h"

namespace {

using namespace std::chrono_literals;

bool AppendLocked(FileLock& f, const char* text) {
    if (lseek(f.GetFileDescriptor(), 0, SEEK_END) < 0) return false;
    int len = static_cast<int>(strlen(text));
    return f.WriteBlk(text, len) == len;
}

// Whether /proc/locks shows a lock request of process `pid` blocked on the
// file with inode `ino`. -1 when /proc/locks cannot be read.
int BlockedOnFile(pid_t pid, ino_t ino) {
    std::ifstream in("/proc/locks");
    if (!in) return -1;
    std::string line;
    std::string pidField = " " + std::to_string(pid) + " ";
    std::string inoField = ":" + std::to_string(ino) + " ";
    while (std::getline(in, line)) {
        if (line.find("->") != std::string::npos && line.find(pidField) != std::string::npos &&
            line.find(inoField) != std::string::npos) {
            return 1;
        }
    }
    return 0;
}

}  // namespace

// args: file, ready marker, go marker. Holds the lock until told to go on,
// then appends "A" and closes.
TV_TEST_CHILD(file_lock_holder) {
    FileLock f;
    if (!f.OpenAndLockFile(args.at(0).c_str(), O_CREAT, nullptr, false)) return 3;
    tvtest::WriteFile(args.at(1), "ready");
    if (!regtest::WaitForFile(args.at(2))) return 4;
    if (!AppendLocked(f, "A")) return 5;
    return f.CloseAndUnLockFile() ? 0 : 6;
}

// args: file, "locked" or "free". Checks what another process sees.
TV_TEST_CHILD(file_lock_probe) {
    bool expectLocked = args.at(1) == "locked";
    // Not in the locking table: opens without waiting, reports false.
    FileLock f;
    if (f.OpenAndLockFile(args.at(0).c_str(), O_WRONLY | O_CREAT, nullptr, false)) return 3;
    if (f.GetFileDescriptor() < 0) return 4;
    bool locked = lockf(f.GetFileDescriptor(), F_TEST, 0) != 0;
    return locked == expectLocked ? 0 : 5;
}

TEST(FileLockProcesses, SecondOpenerWaitsForTheHolderToClose) {
    tvtest::TempDir dir;
    const std::string file = dir.file("shared"), ready = dir.file("ready"), go = dir.file("go");
    pid_t child = tvtest::SpawnChild("file_lock_holder", {file, ready, go});
    ASSERT_TRUE(regtest::WaitForFile(ready));
    struct stat st;
    ASSERT_EQ(0, stat(file.c_str(), &st));

    std::atomic<bool> acquired{false};
    std::atomic<bool> appended{false};
    std::thread opener([&] {
        FileLock f;
        if (!f.OpenAndLockFile(file.c_str(), O_CREAT, nullptr, false)) return;
        acquired = true;
        appended = AppendLocked(f, "B");
        f.CloseAndUnLockFile();
    });
    // Let the child go on only once this process is seen blocked on the lock
    // (where the kernel shows it); either way "B" can only follow "A".
    auto end = std::chrono::steady_clock::now() + 10s;
    int blocked;
    while ((blocked = BlockedOnFile(getpid(), st.st_ino)) == 0 &&
           std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_NE(0, blocked) << "the opener never showed up as blocked";
    EXPECT_FALSE(acquired.load());
    tvtest::WriteFile(go, "go");
    EXPECT_EQ(0, tvtest::WaitChild(child));
    opener.join();
    EXPECT_TRUE(acquired.load());
    EXPECT_TRUE(appended.load());
    EXPECT_EQ("AB", tvtest::ReadFile(file));
}

TEST(FileLockProcesses, UnlistedFlagsNeitherLockNorWait) {
    tvtest::TempDir dir;
    std::string file = dir.file("probe");
    FileLock held;
    ASSERT_TRUE(held.OpenAndLockFile(file.c_str(), O_CREAT | O_TRUNC | O_RDWR, nullptr, false));
    EXPECT_EQ(0, tvtest::WaitChild(tvtest::SpawnChild("file_lock_probe", {file, "locked"})));
    ASSERT_TRUE(held.CloseAndUnLockFile());
    EXPECT_EQ(0, tvtest::WaitChild(tvtest::SpawnChild("file_lock_probe", {file, "free"})));
}
