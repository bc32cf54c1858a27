// System services next to their floors: identifier creation and text forms
// against libuuid, message formatting against snprintf.
//
// UuidCreate never uses one clock reading twice: a call that sees the same
// microsecond as the previous one waits 1 ms for the clock, so back-to-back
// creation is bounded by that wait by design. libuuid's time-based
// generator instead advances a counter within the tick.
#include <benchmark/benchmark.h>

#include <stdio.h>
#include <string.h>
#include <uuid/uuid.h>
#include "bench/bench_support.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

#include <tvcommonutil.h>

namespace {

void BM_UuidCreateToString(benchmark::State& state) {
    for (auto _ : state) {
        _GUID g;
        long r = UuidCreate(&g);
        unsigned char* s = nullptr;
        UuidToString(&g, &s);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(s);
        RpcStringFree(&s);
    }
}
BENCHMARK(BM_UuidCreateToString);

void BM_LibuuidGenerateTimeUnparse(benchmark::State& state) {
    for (auto _ : state) {
        uuid_t u;
        uuid_generate_time(u);
        char text[37];
        uuid_unparse(u, text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_LibuuidGenerateTimeUnparse);

void BM_UuidToString(benchmark::State& state) {
    _GUID g;
    UuidCreate(&g);
    for (auto _ : state) {
        unsigned char* s = nullptr;
        UuidToString(&g, &s);
        benchmark::DoNotOptimize(s);
        RpcStringFree(&s);
    }
}
BENCHMARK(BM_UuidToString);

void BM_LibuuidUnparse(benchmark::State& state) {
    uuid_t u;
    uuid_generate_time(u);
    for (auto _ : state) {
        char text[37];
        uuid_unparse(u, text);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_LibuuidUnparse);

void BM_UuidFromString(benchmark::State& state) {
    unsigned char text[] = "0123abcd-4567-89ef-a0b1-c2d3e4f5a6b7";
    for (auto _ : state) {
        _GUID g;
        benchmark::DoNotOptimize(UuidFromString(text, &g));
        benchmark::DoNotOptimize(g);
    }
}
BENCHMARK(BM_UuidFromString);

void BM_LibuuidParse(benchmark::State& state) {
    const char text[] = "0123abcd-4567-89ef-a0b1-c2d3e4f5a6b7";
    for (auto _ : state) {
        uuid_t u;
        benchmark::DoNotOptimize(uuid_parse(text, u));
        benchmark::DoNotOptimize(u);
    }
}
BENCHMARK(BM_LibuuidParse);

void BM_FormatMessage3Inserts(benchmark::State& state) {
    unsigned long args[] = {reinterpret_cast<unsigned long>("server01"), 42,
                            reinterpret_cast<unsigned long>("disk quota exceeded")};
    char out[256];
    for (auto _ : state) {
        int n = FormatMessage(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY,
                              "Host %1 rejected request %2!d!: %3%0", 0, 0, out, sizeof(out),
                              reinterpret_cast<va_list*>(args));
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_FormatMessage3Inserts);

void BM_Snprintf3Inserts(benchmark::State& state) {
    const char* host = "server01";
    const char* reason = "disk quota exceeded";
    char out[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(host);
        int n = snprintf(out, sizeof(out), "Host %s rejected request %d: %s", host, 42, reason);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_Snprintf3Inserts);

}  // namespace

int main(int argc, char** argv) {
    return tvbench::Main(argc, argv,
                         {{"UuidCreate+UuidToString / uuid_generate_time+unparse",
                           "BM_UuidCreateToString", "BM_LibuuidGenerateTimeUnparse"},
                          {"UuidToString / uuid_unparse", "BM_UuidToString", "BM_LibuuidUnparse"},
                          {"UuidFromString / uuid_parse", "BM_UuidFromString", "BM_LibuuidParse"},
                          {"FormatMessage, 3 inserts / snprintf", "BM_FormatMessage3Inserts",
                           "BM_Snprintf3Inserts"}});
}
