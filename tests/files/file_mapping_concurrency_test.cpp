// Views made and dropped by several threads at once: the per-process view
// table must hand every thread back exactly its own views.
#include <fcntl.h>
#include <sys/mman.h>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "files_test_util.h"

namespace {

TEST(FileMappingConcurrency, ThreadsMapAndUnmapTheirOwnViews) {
    filestest::MappingName m;
    Handle* h = CreateFileMapping(filestest::NoFile(), nullptr, O_RDWR, 0, 4096, m.name());
    ASSERT_NE(nullptr, h);
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                char* a = static_cast<char*>(MapViewOfFile(h, PROT_READ | PROT_WRITE, 0, 0, 64));
                char* b = static_cast<char*>(MapViewOfFile(h, PROT_READ, 0, 0, 0));
                if (a == nullptr || b == nullptr) {
                    ++failures;
                    continue;
                }
                __atomic_store_n(&a[t], static_cast<char>(i), __ATOMIC_RELAXED);
                if (__atomic_load_n(&b[t], __ATOMIC_RELAXED) != static_cast<char>(i)) ++failures;
                if (UnmapViewOfFile(b) != 1 || UnmapViewOfFile(a) != 1) ++failures;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, failures.load());
    CloseHandle(h);
}

}  // namespace
