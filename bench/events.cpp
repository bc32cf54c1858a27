// Events and waits next to the raw pthread floor, in one run:
//  1. two-thread ping-pong on two auto-reset events vs the same ping-pong on
//     a pthread mutex + condition variable;
//  2. wait-any over 64 events, the last one set from another thread (round
//     trip), vs a condition variable round trip;
//  3. the fast paths: SetEvent on a signalled event and a zero-time wait on a
//     signalled auto-reset event, vs an uncontended mutex lock/unlock.
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

// --- ping-pong on library events -----------------------------------------
void BM_EventPingPong(benchmark::State& state) {
    Handle* ping = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* pong = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::atomic<bool> stop{false};
    std::thread peer([&] {
        for (;;) {
            WaitForSingleObjectEx(ping, INFINITE, FALSE);
            if (stop) break;
            SetEvent(pong);
        }
    });
    for (auto _ : state) {
        SetEvent(ping);
        WaitForSingleObjectEx(pong, INFINITE, FALSE);
    }
    stop = true;
    SetEvent(ping);
    peer.join();
    CloseHandle(ping);
    CloseHandle(pong);
}
BENCHMARK(BM_EventPingPong)->UseRealTime();

// --- the same ping-pong on a raw mutex + condition variable ----------------
struct RawEvent {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t c = PTHREAD_COND_INITIALIZER;
    bool signalled = false;
    void Set() {
        pthread_mutex_lock(&m);
        signalled = true;
        pthread_cond_signal(&c);
        pthread_mutex_unlock(&m);
    }
    void Wait() {
        pthread_mutex_lock(&m);
        while (!signalled) pthread_cond_wait(&c, &m);
        signalled = false;
        pthread_mutex_unlock(&m);
    }
};

void BM_RawCondPingPong(benchmark::State& state) {
    RawEvent ping, pong;
    std::atomic<bool> stop{false};
    std::thread peer([&] {
        for (;;) {
            ping.Wait();
            if (stop) break;
            pong.Set();
        }
    });
    for (auto _ : state) {
        ping.Set();
        pong.Wait();
    }
    stop = true;
    ping.Set();
    peer.join();
}
BENCHMARK(BM_RawCondPingPong)->UseRealTime();

// --- wait-any over 64 events, the last one set by a peer ------------------
void BM_WaitAny64RoundTrip(benchmark::State& state) {
    Handle* events[64];
    for (auto& e : events) e = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* request = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::atomic<bool> stop{false};
    std::thread peer([&] {
        for (;;) {
            WaitForSingleObjectEx(request, INFINITE, FALSE);
            if (stop) break;
            SetEvent(events[63]);
        }
    });
    for (auto _ : state) {
        SetEvent(request);
        DWORD r = WaitForMultipleObjectsEx(64, events, FALSE, INFINITE, FALSE);
        if (r != 63) state.SkipWithError("wrong index");
    }
    stop = true;
    SetEvent(request);
    peer.join();
    for (auto& e : events) CloseHandle(e);
    CloseHandle(request);
}
BENCHMARK(BM_WaitAny64RoundTrip)->UseRealTime();

// --- fast paths ------------------------------------------------------------
void BM_SetSignalledEvent(benchmark::State& state) {
    Handle* e = CreateEvent(nullptr, TRUE, TRUE, nullptr);
    for (auto _ : state) benchmark::DoNotOptimize(SetEvent(e));
    CloseHandle(e);
}
BENCHMARK(BM_SetSignalledEvent);

// Set + zero-time wait on an auto-reset event: one consume per iteration.
void BM_SetThenPollAutoEvent(benchmark::State& state) {
    Handle* e = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    for (auto _ : state) {
        SetEvent(e);
        benchmark::DoNotOptimize(WaitForSingleObjectEx(e, 0, FALSE));
    }
    CloseHandle(e);
}
BENCHMARK(BM_SetThenPollAutoEvent);

void BM_RawMutexLockUnlock(benchmark::State& state) {
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : state) {
        pthread_mutex_lock(&m);
        benchmark::DoNotOptimize(m);
        pthread_mutex_unlock(&m);
    }
}
BENCHMARK(BM_RawMutexLockUnlock);

void BM_RawSetThenWait(benchmark::State& state) {
    RawEvent e;
    for (auto _ : state) {
        e.Set();
        e.Wait();
    }
}
BENCHMARK(BM_RawSetThenWait);

}  // namespace

int main(int argc, char** argv) {
    return tvbench::Main(argc, argv,
                         {{"event ping-pong / condvar ping-pong", "BM_EventPingPong/real_time",
                           "BM_RawCondPingPong/real_time"},
                          {"wait-any(64) round trip / condvar ping-pong",
                           "BM_WaitAny64RoundTrip/real_time", "BM_RawCondPingPong/real_time"},
                          {"SetEvent on signalled / mutex lock+unlock", "BM_SetSignalledEvent",
                           "BM_RawMutexLockUnlock"},
                          {"set + zero-time wait (auto) / raw set + wait",
                           "BM_SetThenPollAutoEvent", "BM_RawSetThenWait"}});
}
