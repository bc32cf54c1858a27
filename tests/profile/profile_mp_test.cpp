// Profile files shared by real processes: concurrent writers of one file,
// readers while they flush, exit-time flushes, dead lock holders and fork.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profile_test_util.h"

using profiletest::Get;
using profiletest::Sections;
using Strings = std::vector<std::string>;

namespace {

const char kSeed[] =
    "; shared settings\n[Common]\nname = shared ; comment kept\n\n"
    "[A]\na=0\n; end of A\n\n[B]\nb=0\n\n[Tail]\nt=1\n\n";

constexpr int kKeysPerWriter = 10;

// args: file writer-index rounds caching(on|off). Sets its own keys w<i>_<k>
// in the shared section [Common] and its own section [W<i>], round r setting
// key r % kKeysPerWriter to r. With caching on it flushes every 25 rounds and
// leaves the rest to the flush at exit.
TV_TEST_CHILD(profile_writer) {
    const std::string& file = args.at(0);
    const std::string& w = args.at(1);
    int rounds = std::stoi(args.at(2));
    bool caching = args.at(3) == "on";
    yuSetProfileWriteCaching(caching);
    std::string own = "W" + w;
    for (int r = 1; r <= rounds; ++r) {
        std::string key = "w" + w + "_" + std::to_string(r % kKeysPerWriter);
        std::string value = std::to_string(r);
        const char* section = r % 2 == 0 ? "Common" : own.c_str();
        WritePrivateProfileString(section, key.c_str(), value.c_str(), file.c_str());
        if (caching && r % 25 == 0)
            WritePrivateProfileString(nullptr, nullptr, nullptr, file.c_str());
    }
    return 0;
}

// args: file section key value. One cached write, never flushed by hand.
TV_TEST_CHILD(profile_setter) {
    return WritePrivateProfileString(args.at(1).c_str(), args.at(2).c_str(), args.at(3).c_str(),
                                     args.at(0).c_str()) == 1
               ? 0
               : 2;
}

// args: lock path. Takes the lock and dies holding it.
TV_TEST_CHILD(profile_lock_holder) {
    if (tv::detail::yuLock(args.at(0).c_str()) != 1) return 2;
    raise(SIGKILL);
    return 3;
}

TEST(ProfileMultiProcess, FourWritersKeepEveryKeyAndReadersSeeWholeFiles) {
    constexpr int kWriters = 4, kRounds = 500;
    for (const char* caching : {"off", "on"}) {
        SCOPED_TRACE(caching);
        profiletest::ProfileDir dir;
        std::string f = dir.file("shared.ini");
        tvtest::WriteFile(f, kSeed);
        std::vector<pid_t> pids;
        for (int w = 0; w < kWriters; ++w) {
            pids.push_back(tvtest::SpawnChild(
                "profile_writer", {f, std::to_string(w), std::to_string(kRounds), caching}));
            ASSERT_GT(pids.back(), 0);
        }
        // Meanwhile this process re-reads the file: every load is a whole file.
        int running = kWriters;
        bool whole = true;
        std::vector<int> status(kWriters, -1);
        while (running > 0) {
            if (whole) {
                yuWriteAndFreeAllProfiles();  // nothing dirty here: just forget the copy
                Strings seen = Sections(f);
                whole = seen.size() >= 4 &&
                        Strings(seen.begin(), seen.begin() + 4) ==
                            Strings{"Common", "A", "B", "Tail"} &&
                        Get("Common", "name", f) == "shared ; comment kept";
                EXPECT_TRUE(whole) << tvtest::ReadFile(f);
            }
            for (int i = 0; i < kWriters; ++i) {
                int st;
                if (status[i] == -1 && waitpid(pids[i], &st, whole ? WNOHANG : 0) == pids[i]) {
                    status[i] = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
                    --running;
                }
            }
        }
        for (int i = 0; i < kWriters; ++i) EXPECT_EQ(status[i], 0);
        yuWriteAndFreeAllProfiles();
        int wrong = 0;
        for (int w = 0; w < kWriters; ++w) {
            for (int k = 0; k < kKeysPerWriter; ++k) {
                int last = kRounds - ((kRounds - k) % kKeysPerWriter);
                std::string section = last % 2 == 0 ? "Common" : "W" + std::to_string(w);
                std::string key = "w" + std::to_string(w) + "_" + std::to_string(k);
                if (Get(section.c_str(), key.c_str(), f) != std::to_string(last)) ++wrong;
            }
        }
        EXPECT_EQ(wrong, 0) << tvtest::ReadFile(f);
        std::string text = tvtest::ReadFile(f);
        EXPECT_EQ(text.find("; shared settings\n[Common]\nname = shared ; comment kept\n"), 0u);
        EXPECT_NE(text.find("\n; end of A\n"), std::string::npos);
        EXPECT_EQ(Get("Tail", "t", f), "1");
    }
}

TEST(ProfileMultiProcess, ExitFlushesAndADeadLockHolderDoesNotBlock) {
    profiletest::ProfileDir dir;
    std::string f = dir.file("exit.ini");
    tvtest::WriteFile(f, "[S]\nk=old\n");
    ASSERT_EQ(Get("S", "k", f), "old");  // cached here before the other process writes
    pid_t pid = tvtest::SpawnChild("profile_lock_holder", {profiletest::LockPathFor(f)});
    ASSERT_GT(pid, 0);
    EXPECT_EQ(tvtest::WaitChild(pid), 128 + SIGKILL);
    pid = tvtest::SpawnChild("profile_setter", {f, "S", "k", "new"});
    ASSERT_GT(pid, 0);
    ASSERT_EQ(tvtest::WaitChild(pid), 0);
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\nk=new\n\n");
    EXPECT_FALSE(tvtest::FileExists(profiletest::LockPathFor(f)));
    EXPECT_EQ(Get("S", "k", f), "new");  // noticed although written within the same second
}

TEST(ProfileMultiProcess, AForkedChildReadsAndWritesProfiles) {
    profiletest::ProfileDir dir;
    std::string f = dir.file("fork.ini");
    ASSERT_EQ(WritePrivateProfileString("S", "k", "parent", f.c_str()), 1);
    pid_t pid = fork();
    if (pid == 0) {
        bool ok = Get("S", "k", f) == "parent" &&
                  WritePrivateProfileString("S", "c", "child", f.c_str()) == 1;
        WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
        _exit(ok ? 0 : 1);
    }
    ASSERT_GT(pid, 0);
    ASSERT_EQ(tvtest::WaitChild(pid), 0);
    EXPECT_EQ(Get("S", "c", f), "child");
    EXPECT_EQ(Get("S", "k", f), "parent");
}

}  // namespace
