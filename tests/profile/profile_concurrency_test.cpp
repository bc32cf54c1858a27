// Many threads on one profile cache.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "profile_test_util.h"

using profiletest::Get;
using profiletest::Keys;
using profiletest::Sections;
using Strings = std::vector<std::string>;

namespace {

// Releases all threads at once so they really overlap.
class StartLine {
public:
    explicit StartLine(int n) : waiting_(n) {}
    void Arrive() {
        waiting_.fetch_sub(1);
        while (waiting_.load() > 0) std::this_thread::yield();
    }

private:
    std::atomic<int> waiting_;
};

// Writers set and delete their own keys while they also flush, switch write
// caching and empty the cache under each other, and one more thread lists the
// file: a writer always reads its own last write, lists never show a torn
// table, and the file ends with every writer's last value in place.
TEST(ProfileConcurrency, WritersReadTheirOwnWritesWhileOthersFlushSwitchAndFree) {
    profiletest::ProfileDir dir;
    std::string f = dir.file("one.ini"), other = dir.file("two.ini");
    tvtest::WriteFile(f, "[S0]\n; keep\n[S1]\n");
    tvtest::WriteFile(other, "[X]\nx=1\n");
    constexpr int kThreads = 4, kRounds = 300;
    StartLine start(kThreads + 1);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) {
        threads.emplace_back([&, id] {
            start.Arrive();
            std::string section = "S" + std::to_string(id % 2), key = "t" + std::to_string(id);
            for (int i = 0; i < kRounds; ++i) {
                switch (i % 5) {
                    case 0:
                        WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
                        break;
                    case 1:
                        if (id == 0) yuSetProfileWriteCaching(false);
                        break;
                    case 2:
                        if (id == 0) yuSetProfileWriteCaching(true);
                        break;
                    case 3:
                        if (id == 1) yuWriteAndFreeAllProfiles();
                        break;
                    default:
                        WritePrivateProfileString(section.c_str(), key.c_str(), nullptr, f.c_str());
                        if (Get(section.c_str(), key.c_str(), f) != "<default>") failures++;
                        break;
                }
                std::string v = std::to_string(i);
                WritePrivateProfileString(section.c_str(), key.c_str(), v.c_str(), f.c_str());
                if (Get(section.c_str(), key.c_str(), f) != v || Get("X", "x", other) != "1")
                    failures++;
            }
        });
    }
    threads.emplace_back([&] {
        start.Arrive();
        for (int i = 0; i < kRounds; ++i) {
            if (Sections(f) != Strings{"S0", "S1"}) failures++;
            for (const std::string& k : Keys("S0", f)) {
                if (k != "t0" && k != "t2") failures++;
            }
        }
    });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);

    yuSetProfileWriteCaching(true);
    WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
    std::string text = tvtest::ReadFile(f);
    for (int id = 0; id < kThreads; ++id) {
        EXPECT_NE(text.find("t" + std::to_string(id) + "=" + std::to_string(kRounds - 1) + "\n"),
                  std::string::npos)
            << text;
    }
    // New keys go before the section's trailing comment.
    size_t keep = text.find("; keep\n");
    EXPECT_LT(text.find("t0="), keep) << text;
    EXPECT_LT(text.find("t2="), keep) << text;
}

}  // namespace
