// Threads of one process using the registry while the file is re-read and
// rewritten underneath them: no crash, no lost value, no deadlock.
#include <gtest/gtest.h>

#include <pthread.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

#include "registry/testing.h"
#include "registry_support.h"

namespace {

using namespace regtest;

// Walks every subkey of h (the walk is what races with a refresh).
void Enumerate(HKEY h) {
    char name[64];
    for (DWORD i = 0; RegEnumKey(h, i, name, sizeof name) == 0; ++i) {
    }
}

// Each worker owns a key and keeps creating, filling, enumerating and
// deleting subkeys of it; a refresher forces re-reads of the file (as
// another process's write would) and reads a value worker 0 keeps setting,
// and the lazy writer writes meanwhile.
TEST(RegistryConcurrency, WorkersRefreshesAndWrites) {
    RegistryEnv env;
    InitRegistry(0, 1);
    const int kWorkers = 4, kRounds = 300;
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::thread refresher([&] {
        for (HKEY h = 0; !stop; std::this_thread::yield()) {
            RegBumpVersion();
            if (RegOpenKeyEx(0, "W0", 0, 0, &h) != 0) continue;
            Enumerate(h);
            RegCloseKey(h);
            // Read while worker 0 sets it: a number, or not there yet.
            if (RegOpenKeyEx(0, "W0\\Last", 0, 0, &h) != 0) continue;
            const std::string n = GetSz(h, "N");
            if (n[0] != '<' && n.find_first_not_of("0123456789") != std::string::npos) ++failures;
            RegCloseKey(h);
        }
    });
    int interval = 1;
    pthread_t lazy;
    ASSERT_EQ(0, pthread_create(
                     &lazy, nullptr,
                     [](void* ms) -> void* { return RegLazyWriteThread(ms), nullptr; }, &interval));
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w) {
        workers.emplace_back([&, w] {
            const std::string base = "W" + std::to_string(w);
            for (int i = 0; i < kRounds; ++i) {
                const std::string v = std::to_string(i);
                HKEY k = 0, parent = 0;
                if (RegCreateKeyEx(0, (base + "\\K" + std::to_string(i % 5)).c_str(), 0, nullptr, 0,
                                   KEY_ALL_ACCESS, nullptr, &k, nullptr) != 0 ||
                    SetSz(k, "V", v) != 0 || GetSz(k, "V") != v) {
                    ++failures;
                }
                RegCloseKey(k);
                if (RegOpenKeyEx(0, base.c_str(), 0, KEY_ALL_ACCESS, &parent) == 0) {
                    Enumerate(parent);
                    if (i % 7 == 6)
                        RegDeleteKey(parent, ("K" + std::to_string((i + 1) % 5)).c_str());
                    RegCloseKey(parent);
                }
                // The last value of each worker is kept.
                if (SetAndClose(base + "\\Last", "N", v) != 0) ++failures;
            }
        });
    }
    for (auto& t : workers) t.join();
    stop = true;
    refresher.join();
    pthread_cancel(lazy);  // writes what is left
    pthread_join(lazy, nullptr);
    EXPECT_EQ(0, failures.load());
    // A fresh read of the file holds every worker's last value.
    tv::detail::RegistryResetForTests();
    for (int w = 0; w < kWorkers; ++w) {
        EXPECT_EQ(std::to_string(kRounds - 1), Query("W" + std::to_string(w) + "\\Last", "N"));
    }
}

// Many threads making the first registry call at once: one starts it, the
// others wait for it and then find what it read.
TEST(RegistryConcurrency, FirstCallsRace) {
    const std::string text =
        "\nHKEY_LOCAL_MACHINE=536870913\n\nHKEY_LOCAL_MACHINE\\Ready=5\nR=1;REG_SZ\n\n";
    RegistryEnv env(regtest::kBaseRegistry, &text);
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            HKEY h = 0;
            if (RegOpenKeyEx(0, "Ready", 0, 0, &h) == 0 && GetSz(h, "R") == "1") ++ok;
            RegCloseKey(h);
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(8, ok.load());
}

}  // namespace
