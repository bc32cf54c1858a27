// Events and waits next to the raw pthread and futex floors, in one run:
//  1. two-thread ping-pong on two auto-reset events vs the same ping-pong on
//     a mutex + condition variable and on raw futex words, with the threads
//     on two CPUs (/0) and on one (/1);
//  2. wait-any over 64 events, the last one set by the peer (round trip), vs
//     the condition-variable and futex ping-pongs, placed the same ways;
//  3. the fast paths: SetEvent on a signalled event vs an uncontended mutex
//     lock/unlock, and SetEvent + zero-time wait on an auto-reset event vs
//     the same on a condition variable and on a futex word;
//  4. SetEvent + zero-time wait by two threads, each on its own event, vs one
//     thread: nothing is shared on that path, so throughput should double.
#include <benchmark/benchmark.h>

#include <pthread.h>
#include "bench/bench_support.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>

#include <tvcommonutil.h>

namespace {

// A library event with the Set()/Wait() shape of the floors.
struct LibEvent {
    Handle* h = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    ~LibEvent() { CloseHandle(h); }
    void Set() { SetEvent(h); }
    void Wait() { WaitForSingleObjectEx(h, INFINITE, FALSE); }
};

// --- 1. ping-pong -----------------------------------------------------------
void BM_EventPingPong(benchmark::State& state) {
    LibEvent ping, pong;
    tvbench::PingPong(state, ping, pong);
}
BENCHMARK(BM_EventPingPong)->Arg(0)->Arg(1)->UseRealTime();

void BM_RawCondPingPong(benchmark::State& state) {
    tvbench::CondEvent ping, pong;
    tvbench::PingPong(state, ping, pong);
}
BENCHMARK(BM_RawCondPingPong)->Arg(0)->Arg(1)->UseRealTime();

void BM_RawFutexPingPong(benchmark::State& state) {
    tvbench::FutexEvent ping, pong;
    tvbench::PingPong(state, ping, pong);
}
BENCHMARK(BM_RawFutexPingPong)->Arg(0)->Arg(1)->UseRealTime();

// --- 2. wait-any over 64 events, the last one set by a peer -----------------
void BM_WaitAny64RoundTrip(benchmark::State& state) {
    Handle* events[64];
    for (auto& e : events) e = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    LibEvent request;
    std::atomic<bool> stop{false};
    const int peerSlot = tvbench::PeerSlot(state);
    std::thread peer([&] {
        tvbench::PinnedTo pin(peerSlot);
        for (;;) {
            request.Wait();
            if (stop) break;
            SetEvent(events[63]);
        }
    });
    {
        tvbench::PinnedTo pin(0);
        for (auto _ : state) {
            request.Set();
            DWORD r = WaitForMultipleObjectsEx(64, events, FALSE, INFINITE, FALSE);
            if (r != 63) state.SkipWithError("wrong index");
        }
    }
    stop = true;
    request.Set();
    peer.join();
    for (auto& e : events) CloseHandle(e);
}
BENCHMARK(BM_WaitAny64RoundTrip)->Arg(0)->Arg(1)->UseRealTime();

// --- 3. fast paths ----------------------------------------------------------
void BM_SetSignalledEvent(benchmark::State& state) {
    Handle* e = CreateEvent(nullptr, TRUE, TRUE, nullptr);
    for (auto _ : state) benchmark::DoNotOptimize(SetEvent(e));
    CloseHandle(e);
}
BENCHMARK(BM_SetSignalledEvent);

void BM_RawMutexLockUnlock(benchmark::State& state) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        benchmark::DoNotOptimize(m);
        pthread_mutex_unlock(&m);
    }
}
BENCHMARK(BM_RawMutexLockUnlock);

// Set + zero-time wait on an auto-reset event: one consume per iteration.
void SetThenPoll(Handle* e, long n) {
    for (long i = 0; i < n; ++i) {
        SetEvent(e);
        benchmark::DoNotOptimize(WaitForSingleObjectEx(e, 0, FALSE));
    }
}

void BM_SetThenPollAutoEvent(benchmark::State& state) {
    Handle* e = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    for (auto _ : state) SetThenPoll(e, 1);
    CloseHandle(e);
}
BENCHMARK(BM_SetThenPollAutoEvent);

template <class Ev>
void SetThenPollRaw(benchmark::State& state) {
    Ev e;
    for (auto _ : state) {
        e.Set();
        benchmark::DoNotOptimize(e.TryWait());
    }
}
void BM_RawCondSetThenPoll(benchmark::State& state) {
    SetThenPollRaw<tvbench::CondEvent>(state);
}
BENCHMARK(BM_RawCondSetThenPoll);
void BM_RawFutexSetThenPoll(benchmark::State& state) {
    SetThenPollRaw<tvbench::FutexEvent>(state);
}
BENCHMARK(BM_RawFutexSetThenPoll);

// --- 4. scaling: range(0) threads, each on its own CPU and its own event ---
constexpr long kPollsPerThread = 1L << 20;

void BM_SetThenPollThreads(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    Handle* events[2];
    for (auto& e : events) e = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    {
        tvbench::PinnedTo pin(0);
        for (auto _ : state) {
            std::thread other;
            if (threads == 2) {
                other = std::thread([&] {
                    tvbench::PinnedTo pinOther(1);
                    SetThenPoll(events[1], kPollsPerThread);
                });
            }
            SetThenPoll(events[0], kPollsPerThread);
            if (other.joinable()) other.join();
        }
    }
    state.SetItemsProcessed(state.iterations() * threads * kPollsPerThread);
    for (auto& e : events) CloseHandle(e);
}
BENCHMARK(BM_SetThenPollThreads)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    return tvbench::Main(
        argc, argv,
        {{"ping-pong, 2 cores / condvar", "BM_EventPingPong/0/real_time",
          "BM_RawCondPingPong/0/real_time"},
         {"ping-pong, 2 cores / futex", "BM_EventPingPong/0/real_time",
          "BM_RawFutexPingPong/0/real_time"},
         {"ping-pong, 1 core / condvar", "BM_EventPingPong/1/real_time",
          "BM_RawCondPingPong/1/real_time", true},
         {"ping-pong, 1 core / futex", "BM_EventPingPong/1/real_time",
          "BM_RawFutexPingPong/1/real_time", true},
         {"wait-any(64) round trip, 2 cores / condvar ping-pong",
          "BM_WaitAny64RoundTrip/0/real_time", "BM_RawCondPingPong/0/real_time"},
         {"wait-any(64) round trip, 1 core / condvar ping-pong",
          "BM_WaitAny64RoundTrip/1/real_time", "BM_RawCondPingPong/1/real_time", true},
         {"wait-any(64) round trip, 1 core / futex ping-pong", "BM_WaitAny64RoundTrip/1/real_time",
          "BM_RawFutexPingPong/1/real_time", true},
         {"SetEvent on signalled / mutex lock+unlock", "BM_SetSignalledEvent",
          "BM_RawMutexLockUnlock"},
         {"set + zero-time wait (auto) / condvar set + poll", "BM_SetThenPollAutoEvent",
          "BM_RawCondSetThenPoll", true},
         {"set + zero-time wait (auto) / futex set + poll", "BM_SetThenPollAutoEvent",
          "BM_RawFutexSetThenPoll", true}},
        [](const tvbench::RatioReporter& r) {
            // Per batch, two threads do twice the work of one. The CPU-time
            // figure is the scaling two otherwise idle CPUs would give: it
            // grows with what the threads share, not with the machine's load.
            const char* kOne = "BM_SetThenPollThreads/1/real_time";
            const char* kTwo = "BM_SetThenPollThreads/2/real_time";
            if (r.ns(kOne) > 0 && r.ns(kTwo) > 0) {
                std::printf(
                    "scaling  set + zero-time wait, 2 threads / 1, throughput  %6.2fx"
                    " (cpu %.2fx)\n",
                    2 * r.ns(kOne) / r.ns(kTwo), 2 * r.cpu(kOne) / r.cpu(kTwo));
            }
        });
}
