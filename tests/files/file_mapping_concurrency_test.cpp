// Views made and dropped by several threads at once: the per-process view
// table must hand every thread back exactly its own views.
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tvcommonutil/files.h"

namespace {

TEST(FileMappingConcurrency, ThreadsMapAndUnmapTheirOwnViews) {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    std::string name = "tvtest-mapc-" + std::to_string(getpid()) + "-" + std::to_string(ts.tv_nsec);
    Handle* h = CreateFileMapping(reinterpret_cast<Handle*>(0xFFFFFFFFUL), nullptr, O_RDWR, 0, 4096,
                                  &name[0]);
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
    unlink(("/tmp/." + name).c_str());
}

}  // namespace
