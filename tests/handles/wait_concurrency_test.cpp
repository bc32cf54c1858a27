// Producer/consumer stress on auto-reset events. Each item passes through a
// slot guarded by a "full" and an "empty" event: a lost wake-up shows up as
// a wait that times out, a double wake-up as an item consumed twice or
// overwritten before it was consumed.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

namespace {

constexpr int kProducers = 4, kConsumers = 4;
constexpr long kItems = 200000;
constexpr DWORD kStuck = 60000;  // a wait this long means a lost wake-up

// Slot i is guarded by full[i] and empty[i]; value[i] is handed over
// through them.
struct Slots {
    explicit Slots(int n) : value(n, -1) {
        for (int i = 0; i < n; ++i) {
            full.push_back(CreateEvent(nullptr, FALSE, FALSE, nullptr));
            empty.push_back(CreateEvent(nullptr, FALSE, TRUE, nullptr));
        }
    }
    ~Slots() {
        for (size_t i = 0; i < value.size(); ++i) CloseHandle(full[i]), CloseHandle(empty[i]);
    }
    std::vector<Handle*> full, empty;
    std::vector<long> value;
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
    std::atomic<long> next{0}, consumed{0};
    std::atomic<bool> failed{false}, done{false};

    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&] {
            for (;;) {
                long item = next.fetch_add(1);
                if (item >= kItems) break;
                long i = WaitSlot(s.empty);
                if (i < 0) return void(failed = true);
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
                if (i < 0) return void(failed = true);
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
    // No item twice (seen) and kItems consumed: every item exactly once.
    ASSERT_FALSE(failed.load());
    EXPECT_EQ(kItems, consumed.load());
}

}  // namespace

// One slot (single waits), then sixteen (wait-any).
TEST(EventStress, EveryWakeUpAccountedFor) {
    for (int slots : {1, 16}) RunStress(slots);
}

// Mutexes exclude whatever shape of wait takes them: a recursive single
// wait, a wait-any over a mutex and an idle event, a wait-all over both
// mutexes. A plain counter per mutex loses updates on any overlap.
TEST(WaitStress, MutexesExcludeThroughEveryShapeOfWait) {
    constexpr int kRounds = 20000;
    Handle* m[2] = {CreateMutex(nullptr, FALSE, nullptr), CreateMutex(nullptr, FALSE, nullptr)};
    Handle* idle = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* anyOf[2] = {idle, m[0]};
    long counter[2] = {0, 0};
    std::atomic<int> bad{0};
    auto run = [&](int shape) {
        for (int i = 0; i < kRounds; ++i) {
            int which = shape == 3 ? 1 : 0;
            if (shape == 0 || shape == 3) {
                bad += WaitForSingleObjectEx(m[which], INFINITE, FALSE) != WAIT_OBJECT_0;
                bad += WaitForSingleObjectEx(m[which], kStuck, FALSE) != WAIT_OBJECT_0;
                bad += ReleaseMutex(m[which]) != FALSE;  // inner level
            } else if (shape == 1) {
                bad +=
                    WaitForMultipleObjectsEx(2, anyOf, FALSE, kStuck, FALSE) != WAIT_OBJECT_0 + 1;
            } else {
                bad += WaitForMultipleObjectsEx(2, m, TRUE, kStuck, FALSE) != WAIT_OBJECT_0;
                ++counter[1];
                bad += ReleaseMutex(m[1]) != TRUE;
            }
            ++counter[which];
            bad += ReleaseMutex(m[which]) != TRUE;
        }
    };
    std::vector<std::thread> threads;
    for (int shape = 0; shape < 4; ++shape) threads.emplace_back(run, shape);
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, bad.load());
    EXPECT_EQ(3L * kRounds, counter[0]);
    EXPECT_EQ(2L * kRounds, counter[1]);
    for (Handle* h : {m[0], m[1], idle}) CloseHandle(h);
}

// Wait-all over a semaphore and an event races single-object waiters on
// both: every unit and every set is consumed exactly once, and never half
// of the pair.
TEST(WaitStress, WaitAllTakesAllOrNothing) {
    constexpr long kRounds = 5000;
    Handle* sem = CreateSemaphore(nullptr, 0, kRounds, nullptr);
    Handle* ev = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::atomic<long> units{0}, sets{0};
    std::atomic<bool> stop{false};
    Handle* pair[2] = {sem, ev};
    std::thread all([&] {
        while (!stop) {
            if (WaitForMultipleObjectsEx(2, pair, TRUE, 1, FALSE) == WAIT_OBJECT_0) ++units, ++sets;
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
    CloseHandle(sem);
    CloseHandle(ev);
}

// Producers release in chunks of 1 to 3 against a small maximum (so
// over-releases are refused and retried) while consumers take units with
// every kind of wait. No unit may be lost or created, and the untimed
// consumer would hang on a lost wake-up.
TEST(WaitStress, SemaphoreUnitsAreConservedUnderContention) {
    constexpr long kPerProducer = 30000;
    constexpr long kTotal = 2 * kPerProducer;
    Handle* s = CreateSemaphore(nullptr, 0, 8, nullptr);
    std::atomic<long> claimed{0}, taken{0};
    std::vector<std::thread> threads;
    for (unsigned p = 0; p < 2; ++p) {
        threads.emplace_back([&, p] {
            for (long left = kPerProducer, n = p; left > 0;) {
                const long chunk = std::min(left, 1 + n++ % 3);
                if (ReleaseSemaphore(s, chunk, nullptr))
                    left -= chunk;
                else
                    std::this_thread::yield();
            }
        });
    }
    const DWORD kinds[][2] = {{INFINITE, FALSE}, {10000, FALSE}, {10000, TRUE}, {0, FALSE}};
    for (const auto& kind : kinds) {
        threads.emplace_back([&, kind] {
            // Claim a unit to take before waiting, so exactly kTotal waits
            // succeed overall and no consumer is left waiting at the end.
            while (claimed.fetch_add(1) < kTotal) {
                DWORD r;
                while ((r = WaitForSingleObjectEx(s, kind[0], kind[1])) == WAIT_TIMEOUT) {
                    if (kind[0] == 0) std::this_thread::yield();
                }
                EXPECT_EQ(WAIT_OBJECT_0, r);
                ++taken;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(kTotal, taken.load());
    long prev = -1;
    EXPECT_EQ(TRUE, ReleaseSemaphore(s, 8, &prev));
    EXPECT_EQ(0, prev);
    CloseHandle(s);
}
