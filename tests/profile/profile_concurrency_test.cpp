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

TEST(ProfileConcurrency, CachedWritesAreSeenByTheirWriterUnderContention) {
    profiletest::ProfileDir dir;
    std::string f1 = dir.file("one.ini"), f2 = dir.file("two.ini");
    tvtest::WriteFile(f1, "[S0]\n; keep\n[S1]\n");
    tvtest::WriteFile(f2, "[X]\nx=1\n");
    constexpr int kThreads = 4, kRounds = 400;
    StartLine start(kThreads + 1);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) {
        threads.emplace_back([&, id] {
            start.Arrive();
            std::string section = "S" + std::to_string(id % 2);
            std::string key = "t" + std::to_string(id);
            for (int i = 0; i < kRounds; ++i) {
                std::string v = std::to_string(i);
                if (WritePrivateProfileString(section.c_str(), key.c_str(), v.c_str(),
                                              f1.c_str()) != 1 ||
                    Get(section.c_str(), key.c_str(), f1) != v || Get("X", "x", f2) != "1") {
                    failures.fetch_add(1);
                }
            }
        });
    }
    // One more thread lists keys and sections while the others write.
    threads.emplace_back([&] {
        start.Arrive();
        for (int i = 0; i < kRounds; ++i) {
            if (Sections(f1) != Strings{"S0", "S1"}) failures.fetch_add(1);
            for (const std::string& k : Keys("S0", f1)) {
                if (k != "t0" && k != "t2") failures.fetch_add(1);
            }
        }
    });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);

    WritePrivateProfileString(nullptr, nullptr, nullptr, f1.c_str());
    std::string text = tvtest::ReadFile(f1);
    for (int id = 0; id < kThreads; ++id) {
        EXPECT_NE(text.find("t" + std::to_string(id) + "=" + std::to_string(kRounds - 1) + "\n"),
                  std::string::npos)
            << text;
    }
    // New keys go before the section's trailing comment, in whatever order
    // the threads first wrote them.
    size_t keep = text.find("; keep\n");
    EXPECT_LT(text.find("t0="), keep) << text;
    EXPECT_LT(text.find("t2="), keep) << text;
}

TEST(ProfileConcurrency, FlushesReloadsAndSwitchesStayConsistent) {
    profiletest::ProfileDir dir;
    std::string f = dir.file("mixed.ini");
    tvtest::WriteFile(f, "[A]\na=0\n[B]\nb=0\n");
    constexpr int kThreads = 4, kRounds = 300;
    StartLine start(kThreads);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) {
        threads.emplace_back([&, id] {
            start.Arrive();
            const char* section = id % 2 == 0 ? "A" : "B";
            std::string key = "k" + std::to_string(id);
            for (int i = 0; i < kRounds; ++i) {
                std::string v = std::to_string(i);
                WritePrivateProfileString(section, key.c_str(), v.c_str(), f.c_str());
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
                        WritePrivateProfileString(section, key.c_str(), nullptr, f.c_str());
                        break;
                }
                // A reload may bring back an older flushed value, but never a
                // torn one, and both sections always exist.
                std::string got = Get(section, key.c_str(), f);
                if (got != "<default>" && got.find_first_not_of("0123456789") != std::string::npos)
                    failures.fetch_add(1);
                if (Sections(f) != Strings{"A", "B"}) failures.fetch_add(1);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    yuSetProfileWriteCaching(true);
    yuWriteAndFreeAllProfiles();
    EXPECT_EQ(Sections(f), (Strings{"A", "B"}));
    EXPECT_EQ(Get("A", "a", f), "0");
    EXPECT_EQ(Get("B", "b", f), "0");
}

}  // namespace
