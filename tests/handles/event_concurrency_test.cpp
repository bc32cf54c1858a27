// Producer/consumer stress on auto-reset events. Each item passes through a
// slot guarded by a "full" and an "empty" event: a lost wake-up shows up as
// a wait that times out, a double wake-up as an item consumed twice or
// overwritten before it was consumed.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

namespace {

constexpr int kProducers = 4;
constexpr int kConsumers = 4;
constexpr long kItems = 200000;
constexpr DWORD kStuck = 60000;  // a wait this long means a lost wake-up

struct Slots {
    explicit Slots(int n) : count(n), value(n, -1) {
        for (int i = 0; i < n; ++i) {
            full.push_back(CreateEvent(nullptr, FALSE, FALSE, nullptr));
            empty.push_back(CreateEvent(nullptr, FALSE, TRUE, nullptr));
        }
    }
    ~Slots() {
        for (Handle* h : full) CloseHandle(h);
        for (Handle* h : empty) CloseHandle(h);
    }
    int count;
    std::vector<Handle*> full, empty;
    std::vector<long> value;  // handed over through the events
};

// Waits for one of the slot events; with a single slot a plain wait.
long WaitSlot(std::vector<Handle*>& events) {
    DWORD r = events.size() == 1 ? WaitForSingleObjectEx(events[0], kStuck, FALSE)
                                 : WaitForMultipleObjectsEx(static_cast<DWORD>(events.size()),
                                                            events.data(), FALSE, kStuck, FALSE);
    return r < events.size() ? static_cast<long>(r) : -1;
}

void RunStress(int slotCount) {
    Slots s(slotCount);
    std::vector<std::atomic<int>> seen(kItems);
    std::atomic<long> next{0};
    std::atomic<long> consumed{0};
    std::atomic<bool> failed{false};
    std::atomic<bool> done{false};

    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&] {
            for (;;) {
                long item = next.fetch_add(1);
                if (item >= kItems) break;
                long i = WaitSlot(s.empty);
                if (i < 0) {
                    failed = true;
                    return;
                }
                if (s.value[i] != -1) failed = true;  // slot still full: double wake-up
                s.value[i] = item;
                SetEvent(s.full[i]);
            }
        });
    }
    for (int c = 0; c < kConsumers; ++c) {
        threads.emplace_back([&] {
            while (!failed) {
                long i = WaitSlot(s.full);
                if (i < 0) {
                    failed = true;
                    return;
                }
                if (done) {
                    SetEvent(s.full[i]);  // pass the release on
                    return;
                }
                long item = s.value[i];
                s.value[i] = -1;
                SetEvent(s.empty[i]);
                if (item < 0 || item >= kItems || seen[item].fetch_add(1) != 0) failed = true;
                if (consumed.fetch_add(1) + 1 == kItems) {
                    // Release the other consumers.
                    done = true;
                    SetEvent(s.full[0]);
                    return;
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    ASSERT_FALSE(failed.load());
    EXPECT_EQ(kItems, consumed.load());
    long missing = 0;
    for (auto& v : seen) missing += v.load() == 1 ? 0 : 1;
    EXPECT_EQ(0, missing);
}

}  // namespace

TEST(EventStress, SingleSlotEveryWakeUpAccountedFor) {
    RunStress(1);
}

TEST(EventStress, WaitAnyOverSixteenEvents) {
    RunStress(16);
}

// A homogeneous set of mutexes excludes: two threads each take "either"
// mutex of a pair and then both, and nobody is ever inside with another.
TEST(WaitStress, MutexSetsExcludeAndWaitAllTakesAllOrNothing) {
    Handle* m[2] = {CreateMutex(nullptr, FALSE, nullptr), CreateMutex(nullptr, FALSE, nullptr)};
    Handle* sem = CreateSemaphore(nullptr, 0, kItems, nullptr);
    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> inside{0};
    std::atomic<bool> overlap{false};
    auto worker = [&] {
        for (int i = 0; i < 20000; ++i) {
            if (WaitForMultipleObjectsEx(2, m, TRUE, kStuck, FALSE) != WAIT_OBJECT_0) {
                overlap = true;
                return;
            }
            if (inside.fetch_add(1) != 0) overlap = true;
            inside.fetch_sub(1);
            ReleaseMutex(m[0]);
            ReleaseMutex(m[1]);
        }
    };
    std::thread a(worker), b(worker);
    a.join();
    b.join();
    EXPECT_FALSE(overlap.load());

    // Wait-all over a semaphore and an event races single-object waiters on
    // both: every unit and every set is consumed exactly once.
    constexpr long kRounds = 5000;
    std::atomic<long> units{0}, sets{0};
    std::atomic<bool> stop{false};
    Handle* pair[2] = {sem, ev};
    std::thread all([&] {
        while (!stop) {
            if (WaitForMultipleObjectsEx(2, pair, TRUE, 1, FALSE) == WAIT_OBJECT_0) {
                ++units;
                ++sets;
            }
        }
    });
    std::thread singles([&] {
        while (!stop) {
            if (WaitForSingleObjectEx(sem, 0, FALSE) == WAIT_OBJECT_0) ++units;
            if (WaitForSingleObjectEx(ev, 0, FALSE) == WAIT_OBJECT_0) ++sets;
        }
    });
    for (long i = 0; i < kRounds; ++i) {
        ReleaseSemaphore(sem, 1, nullptr);
        if (i % 2 == 0) SetEvent(ev);
        if (i % 256 == 0) std::this_thread::yield();
    }
    while (WaitForSingleObjectEx(sem, 0, FALSE) == WAIT_OBJECT_0) ++units;
    stop = true;
    all.join();
    singles.join();
    if (WaitForSingleObjectEx(sem, 0, FALSE) == WAIT_OBJECT_0) ++units;
    if (WaitForSingleObjectEx(ev, 0, FALSE) == WAIT_OBJECT_0) ++sets;
    EXPECT_EQ(kRounds, units.load());
    EXPECT_LE(sets.load(), kRounds / 2);
    for (Handle* h : {m[0], m[1], sem, ev}) CloseHandle(h);
}
