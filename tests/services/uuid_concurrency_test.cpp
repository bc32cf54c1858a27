#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

// Many threads creating identifiers at once: no duplicates among the
// successful calls, and the markers always present. A call may fail by
// design when the clock shows the same reading twice; that must stay rare.
TEST(UuidConcurrency, NoDuplicatesAcrossThreads) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 5000;
    std::vector<std::vector<_GUID>> made(kThreads);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            made[t].reserve(kPerThread);
            for (int i = 0; i < kPerThread; ++i) {
                _GUID g;
                if (UuidCreate(&g) == 0) {
                    made[t].push_back(g);
                } else {
                    failures.fetch_add(1);
                }
            }
        });
    }
    for (auto& th : threads) th.join();

    EXPECT_LE(failures.load(), kThreads * kPerThread / 20);
    std::set<std::string> seen;
    size_t total = 0;
    for (auto& list : made) {
        for (_GUID& g : list) {
            unsigned char* s = nullptr;
            ASSERT_EQ(0, UuidToString(&g, &s));
            std::string text(reinterpret_cast<char*>(s));
            RpcStringFree(&s);
            ASSERT_EQ('1', text[14]) << text;
            EXPECT_TRUE(seen.insert(text).second) << "duplicate " << text;
            ++total;
        }
    }
    EXPECT_EQ(total + failures.load(), static_cast<size_t>(kThreads * kPerThread));
}
