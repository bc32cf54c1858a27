// Handles added, collected and closed from several threads while the watcher
// scans back to back: no lost records for a handle's own directory, no use
// of a closed handle (run under ThreadSanitizer and ASan).
#include <sched.h>

#include "notify/watch_table.h"
#include "notify_test_util.h"

namespace {

// Scans continuously: every sleep is a yield.
class BusyWatcher : public WatchDirsThreadObject {
public:
    unsigned long TimedWait(unsigned long, int, WatchDirsThreadObject*) override {
        passes.fetch_add(1);
        sched_yield();
        return WAIT_OBJECT_0;
    }
    std::atomic<long> passes{0};
};

}  // namespace

TEST(NotifyConcurrency, HandlesComeAndGoWhileScansRun) {
    tvtest::TempDir tmp;
    BusyWatcher watcher;
    std::thread scanner([&] { WatchDirsThread(&watcher); });

    constexpr int kWorkers = 3;
    constexpr int kRounds = 60;
    std::atomic<int> failures{0};
    std::atomic<bool> churnStop{false};

    // Each worker watches its own directory, through a port or directly, and
    // must see every file it creates.
    std::vector<std::thread> workers;
    for (int w = 0; w < kWorkers; ++w) {
        workers.emplace_back([&, w] {
            const std::string dir = tmp.path() + "/w" + std::to_string(w) + "/";
            mkdir(dir.c_str(), 0755);
            void* buffer = nullptr;
            for (int round = 0; round < kRounds; ++round) {
                // Every other one as CreateFile makes it: not registered yet.
                Handle* h = round % 2 ? new ChangeNotificationHandle(dir.c_str(), 0, 0)
                                      : FindFirstChangeNotification(dir.c_str(), 1, 0x1f);
                ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr);
                const bool viaPort = round % 3 != 0;
                Handle* port = viaPort ? CreateIoCompletionPort(h, nullptr, 7, 0) : nullptr;
                const std::string name = "f" + std::to_string(round);
                tvtest::WriteFile(dir + name, "x");
                bool seen = false;
                for (int tries = 0; tries < 50 && !seen; ++tries) {
                    unsigned long bytes = 0;
                    const bool ok =
                        viaPort ? GetQueuedCompletionStatus(port, &bytes, nullptr, nullptr, 5000)
                                : WaitForSingleObject(h, 5000) == WAIT_OBJECT_0 &&
                                      GetOverlappedResult(h, nullptr, &bytes, 0);
                    if (ok) {
                        seen = notifytest::Text(buffer, bytes).find("1 " + name + " ") !=
                               std::string::npos;
                        ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr);
                    }
                }
                if (!seen) failures.fetch_add(1);
                unlink((dir + name).c_str());
                FindCloseChangeNotification(h, 0);
                if (port) CloseHandle(port);
            }
            delete[] static_cast<char*>(buffer);
        });
    }

    // Churn: a tree that grows and shrinks under its own handle, and handles
    // on it that are registered and dropped in every way there is.
    std::thread churn([&] {
        const std::string dir = tmp.path() + "/churn/";
        mkdir(dir.c_str(), 0755);
        Handle* h = FindFirstChangeNotification(dir.c_str(), 1, 0x1f);
        void* buffer = nullptr;
        ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr);
        for (int i = 0; !churnStop.load(); ++i) {
            const std::string sub = dir + "d" + std::to_string(i % 4);
            mkdir(sub.c_str(), 0755);
            tvtest::WriteFile(sub + "/f", std::string(static_cast<size_t>(i % 7), 'y'));
            if (i % 3 == 0) system(("rm -rf '" + sub + "'").c_str());
            Handle* extra = FindFirstChangeNotification(dir.c_str(), 1, 0x1f);
            if (i % 2) ReadDirectoryChanges(extra, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr);
            // Unregistered keeping the handle, then closed; or both at once.
            FindCloseChangeNotification(extra, i % 5 == 0);
            if (i % 5 == 0) CloseHandle(extra);
            unsigned long bytes = 0;
            if (GetOverlappedResult(h, nullptr, &bytes, 0)) {
                if (bytes != 0 && notifytest::Text(buffer, bytes) == "bad layout")
                    failures.fetch_add(1);
                ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr);
            }
            // A scan from this thread as well (as a baseline scan is): it
            // must queue behind the watcher's, never interleave with it.
            if (i % 4 == 1) UnixDirScan(dir, nullptr, nullptr);
            (void)InUnixDirScan();
        }
        FindCloseChangeNotification(h, 0);
        delete[] static_cast<char*>(buffer);
    });

    for (auto& t : workers) t.join();
    churnStop = true;
    churn.join();
    watcher.RequestStop();
    scanner.join();
    bFileShutdownRequested = false;

    EXPECT_EQ(0, failures.load());
    EXPECT_GT(watcher.passes.load(), 0);
    EXPECT_FALSE(InUnixDirScan());
    // Every handle made here is gone from the watch list.
    for (ChangeNotificationHandle* h : tv::detail::CNH_list()) {
        EXPECT_EQ(std::string::npos, std::string(h->GetWatchDir().c_str()).find(tmp.path()));
    }
}

// Re-arming replaces the overlapped event while other threads sleep on the
// old one in multi-object, port and single waits: the old event lives until
// the last of them is done (run under ThreadSanitizer and ASan).
TEST(NotifyConcurrency, ReArmingWhileWaitsSleepOnTheOverlappedEvent) {
    tvtest::TempDir tmp;
    auto* h = new ChangeNotificationHandle((tmp.path() + "/none/").c_str(), 0, 0);
    Handle* port = CreateIoCompletionPort(h, nullptr, 1, 0);
    Handle* idle = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::atomic<bool> stop{false};
    std::vector<std::thread> waiters;
    for (int kind = 0; kind < 3; ++kind) {
        waiters.emplace_back([&, kind] {
            Handle* set[2] = {idle, h};
            while (!stop) {
                if (kind == 0) WaitForMultipleObjectsEx(2, set, FALSE, 1, FALSE);
                if (kind == 1) port->WaitForHandle(1, FALSE);
                if (kind == 2) WaitForSingleObject(h, 1);
            }
        });
    }
    for (int round = 0; round < 2000; ++round) {
        OVERLAPPED ov{};
        ov.hEvent = CreateEvent(nullptr, TRUE, FALSE, nullptr);
        ReadDirectoryChanges(h, nullptr, 0, 0, 0x1f, nullptr, &ov, nullptr);
        CloseHandle(ov.hEvent);
        if (round % 2) h->Signal();
    }
    stop = true;
    for (auto& t : waiters) t.join();
    CloseHandle(idle);
    CloseHandle(h);
    CloseHandle(port);
}
