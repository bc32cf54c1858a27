// Timer punctuality and pool growth, next to what the kernel alone gives:
//  1. lateness of 1,000 one-shot timers due at random instants over 2 s
//     (median and worst), each routine run as an APC in the arming thread's
//     alertable sleep, vs one thread sleeping with clock_nanosleep to each
//     of the same due times;
//  2. the rate of a 10 ms periodic timer over 2 s (100/s is exact);
//  3. a burst of 64 items of 20 ms on a pool of at most 8 threads that
//     has one idle thread, vs the ideal 64 / 8 x 20 ms = 160 ms.
// Not a Google Benchmark program: each figure is one timed run of a few
// seconds, printed with its target.
#include <stdint.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

namespace {

long long RealNs() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

timespec At(long long ns) {
    return timespec{static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
}

struct Lateness {
    double medianMs;
    double worstMs;
};

Lateness Summarise(std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    return Lateness{ms[ms.size() / 2], ms.back()};
}

std::vector<long long> RandomDues(int n, long long spanNs) {
    std::mt19937_64 rng(42);
    std::uniform_int_distribution<long long> spread(0, spanNs);
    const long long base = RealNs() + 50000000LL;
    std::vector<long long> dues(n);
    for (long long& d : dues) d = base + spread(rng);
    return dues;
}

// --- 1. one-shot lateness --------------------------------------------------
std::vector<double>* g_late = nullptr;

void RecordLateness(void*, void* sec, void* nsec) {
    const long long due = static_cast<long long>(reinterpret_cast<intptr_t>(sec)) * 1000000000LL +
                          reinterpret_cast<intptr_t>(nsec);
    g_late->push_back((RealNs() - due) / 1e6);
}

Lateness OneShotTimers(const std::vector<long long>& dues) {
    std::vector<double> late;
    late.reserve(dues.size());
    g_late = &late;
    std::vector<Handle*> timers;
    for (long long d : dues) {
        Handle* t = CreateWaitableTimer(nullptr, FALSE, nullptr);
        const timespec due = At(d);
        SetWaitableTimer(t, &due, 0, RecordLateness, nullptr, FALSE);
        timers.push_back(t);
    }
    while (late.size() < dues.size()) SleepEx(1000, TRUE);
    for (Handle* t : timers) CloseHandle(t);
    g_late = nullptr;
    return Summarise(late);
}

Lateness KernelSleeps(std::vector<long long> dues) {
    std::sort(dues.begin(), dues.end());
    std::vector<double> late;
    for (long long d : dues) {
        const timespec due = At(d);
        while (clock_nanosleep(CLOCK_REALTIME, TIMER_ABSTIME, &due, nullptr) != 0) {
        }
        late.push_back((RealNs() - d) / 1e6);
    }
    return Summarise(late);
}

// --- 2. periodic rate ------------------------------------------------------
void CountTick(void* n, void*, void*) {
    ++*static_cast<int*>(n);
}

double PeriodicRate(long periodMs, long runMs) {
    int ticks = 0;
    Handle* t = CreateWaitableTimer(nullptr, FALSE, nullptr);
    const timespec first = At(RealNs() + periodMs * 1000000LL);
    const auto start = std::chrono::steady_clock::now();
    SetWaitableTimer(t, &first, periodMs, CountTick, &ticks, FALSE);
    const auto end = start + std::chrono::milliseconds(runMs);
    while (std::chrono::steady_clock::now() < end) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        SleepEx(static_cast<DWORD>(std::max<long long>(1, left.count())), TRUE);
    }
    CancelWaitableTimer(t);
    CloseHandle(t);
    return ticks * 1000.0 / runMs;
}

// --- 3. pool burst ---------------------------------------------------------
Handle* g_burstDone = nullptr;
std::atomic<int>* g_burstLeft = nullptr;

void Work20ms(void* sleep) {
    if (sleep) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (--*g_burstLeft == 0) SetEvent(g_burstDone);
}

double PoolBurstMs(int items, unsigned long maxThreads) {
    std::atomic<int> left{1};
    g_burstLeft = &left;
    g_burstDone = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    TvThreadPool pool(1, maxThreads, Work20ms, nullptr, nullptr, nullptr, INFINITE);
    // One quick item first, so that the burst meets one idle thread.
    pool.Produce(nullptr);
    WaitForSingleObjectEx(g_burstDone, INFINITE, FALSE);
    ResetEvent(g_burstDone);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    left = items;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < items; ++i) pool.Produce(reinterpret_cast<void*>(1));
    WaitForSingleObjectEx(g_burstDone, INFINITE, FALSE);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    pool.Shutdown();
    CloseHandle(g_burstDone);
    return ms;
}

}  // namespace

int main() {
    const std::vector<long long> dues = RandomDues(1000, 2000000000LL);
    const Lateness lib = OneShotTimers(dues);
    const std::vector<long long> floorDues = RandomDues(1000, 2000000000LL);
    const Lateness floor = KernelSleeps(floorDues);
    std::printf(
        "one-shot lateness, 1000 timers over 2 s   median %7.3f ms  worst %7.3f ms"
        "   (clock_nanosleep floor: median %.3f ms, worst %.3f ms)"
        "   target median <= 2 ms, worst <= 20 ms\n",
        lib.medianMs, lib.worstMs, floor.medianMs, floor.worstMs);
    const double rate = PeriodicRate(10, 2000);
    std::printf(
        "periodic 10 ms timer over 2 s            %7.1f /s   (%+.2f%% of 100/s)"
        "   target within 2%%\n",
        rate, rate - 100.0);
    const double burst = PoolBurstMs(64, 8);
    std::printf(
        "pool burst 64 x 20 ms, max 8 threads    %7.1f ms   (%.2fx the ideal 160 ms)"
        "   target within 2x\n",
        burst, burst / 160.0);
    return 0;
}
