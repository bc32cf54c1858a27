// Profile files shared by real processes: flushes from two writers, a reader
// that loads while others rewrite the file in place, and a reader that picks
// up another process's flush once the status-change time has moved.
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
    "; shared settings\n"
    "[Common]\n"
    "name = shared ; comment kept\n"
    "\n"
    "[A]\n"
    "a=0\n"
    "; end of A\n"
    "\n"
    "[B]\n"
    "b=0\n"
    "\n"
    "[Tail]\n"
    "t=1\n"
    "\n";

// args: file section key iterations. Each round loads the file afresh, sets
// the key and flushes, so every load can meet the other writer's flush.
TV_TEST_CHILD(profile_writer) {
    const std::string& file = args.at(0);
    const char* section = args.at(1).c_str();
    const char* key = args.at(2).c_str();
    int rounds = std::stoi(args.at(3));
    for (int i = 1; i <= rounds; ++i) {
        std::string value = std::to_string(i);
        if (WritePrivateProfileString(section, key, value.c_str(), file.c_str()) != 1) return 2;
        yuWriteAndFreeAllProfiles();  // flush (lock contention may make it fail) and forget
    }
    return 0;
}

// args: file section key value. One write, flushed at once.
TV_TEST_CHILD(profile_setter) {
    const std::string& file = args.at(0);
    if (WritePrivateProfileString(args.at(1).c_str(), args.at(2).c_str(), args.at(3).c_str(),
                                  file.c_str()) != 1) {
        return 2;
    }
    WritePrivateProfileString(nullptr, nullptr, nullptr, file.c_str());
    return 0;
}

TEST(ProfileMultiProcess, TwoWritersNeverLeaveAFileMissingASection) {
    profiletest::ProfileDir dir;
    std::string f = dir.file("shared.ini");
    tvtest::WriteFile(f, kSeed);
    const Strings all = {"Common", "A", "B", "Tail"};

    std::vector<pid_t> pids = {tvtest::SpawnChild("profile_writer", {f, "A", "a", "400"}),
                               tvtest::SpawnChild("profile_writer", {f, "B", "b", "400"})};
    ASSERT_GT(pids[0], 0);
    ASSERT_GT(pids[1], 0);

    // Meanwhile this process loads the file over and over: every load must
    // see a whole file, however the writers' in-place rewrites interleave.
    // The children are always waited for, so none outlives this directory.
    int loads = 0, running = 2;
    bool whole = true;
    std::vector<int> status(2, -1);
    while (running > 0) {
        if (whole) {
            yuWriteAndFreeAllProfiles();  // nothing dirty here: just forget the copy
            Strings seen = Sections(f);
            std::string name = Get("Common", "name", f);
            EXPECT_EQ(seen, all) << "after " << loads << " loads";
            EXPECT_EQ(name, "shared ; comment kept");
            whole = seen == all && name == "shared ; comment kept";
            ++loads;
        }
        for (size_t i = 0; i < pids.size(); ++i) {
            int st;
            if (status[i] == -1 && waitpid(pids[i], &st, whole ? WNOHANG : 0) == pids[i]) {
                status[i] = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
                --running;
            }
        }
    }
    ASSERT_TRUE(whole);
    EXPECT_EQ(status[0], 0);
    EXPECT_EQ(status[1], 0);
    EXPECT_GT(loads, 0);

    yuWriteAndFreeAllProfiles();
    EXPECT_EQ(Sections(f), all);
    EXPECT_NE(Get("A", "a", f), "<default>");
    EXPECT_NE(Get("B", "b", f), "<default>");
    EXPECT_EQ(Get("Tail", "t", f), "1");
    EXPECT_FALSE(tvtest::FileExists(profiletest::LockPathFor(f)));
    // The file is still in the flushed layout: comments and order intact.
    std::string text = tvtest::ReadFile(f);
    EXPECT_EQ(text.find("; shared settings\n[Common]\nname = shared ; comment kept\n\n[A]\na="), 0u)
        << text;
    EXPECT_NE(text.find("\n; end of A\n\n[B]\nb="), std::string::npos) << text;
}

TEST(ProfileMultiProcess, ReaderSeesAnotherProcessFlushOnceTheTimeMoves) {
    profiletest::ProfileDir dir;
    std::string f = dir.file("seen.ini");
    tvtest::WriteFile(f, "[S]\nk=old\n");
    ASSERT_EQ(Get("S", "k", f), "old");

    profiletest::WaitPastSecond(profiletest::CtimeOf(f));
    pid_t pid = tvtest::SpawnChild("profile_setter", {f, "S", "k", "new"});
    ASSERT_GT(pid, 0);
    ASSERT_EQ(tvtest::WaitChild(pid), 0);
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\nk=new\n\n");
    EXPECT_EQ(Get("S", "k", f), "new");

    // The other way round: this process flushes, a child loads and extends it.
    ASSERT_EQ(WritePrivateProfileString("S", "k", "mine", f.c_str()), 1);
    WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
    pid = tvtest::SpawnChild("profile_setter", {f, "S", "other", "x"});
    ASSERT_GT(pid, 0);
    ASSERT_EQ(tvtest::WaitChild(pid), 0);
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\nk=mine\nother=x\n\n");
}

}  // namespace
