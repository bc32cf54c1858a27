// Profile reads against their floors.
//
// - A cached GetPrivateProfileString of one key in a 2,000-line file against a
//   bare stat() of the same file: every cached read must stat the file to see
//   whether another process changed it, so stat is the least a correct cached
//   read can cost. An unordered_map lookup is shown too, for the share of the
//   cost that is lookup rather than the system call.
// - A flush of that file while its table holds no change, against the same
//   stat(): the flush must notice there is nothing to write for one stat.
// - The first read of that file (open, parse, snapshot check, lookup) in MB/s
//   against reading the same file line by line with getline().
// Ratios are printed after the runs.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <unordered_map>

#include <benchmark/benchmark.h>

#include "bench/bench_support.h"

#include "profile/profile_cache.h"
#include "tvcommonutil/profile.h"

namespace {

constexpr int kSections = 20;
constexpr int kLinesPerSection = 99;  // + header = 2,000 lines

struct Fixture {
    std::string dir;
    std::string file;
    long long bytes = 0;
    std::unordered_map<std::string, std::string> map;

    Fixture() {
        char tmpl[] = "/tmp/bench_profile.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) abort();
        dir = tmpl;
        file = dir + "/bench.ini";
        std::string text;
        for (int s = 0; s < kSections; ++s) {
            text += "[Section" + std::to_string(s) + "]\n";
            for (int k = 0; k < kLinesPerSection; ++k) {
                if (k % 10 == 9) {
                    text += "; comment line for the keys above, as real files have\n";
                    continue;
                }
                std::string key = "key" + std::to_string(k);
                std::string value = "value of " + key + " in section " + std::to_string(s);
                text += "  " + key + " = " + value + "\n";
                map["Section" + std::to_string(s) + "/" + key] = value;
            }
        }
        FILE* f = fopen(file.c_str(), "w");
        if (f == nullptr) abort();
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
        bytes = static_cast<long long>(text.size());
    }
    ~Fixture() {
        yuWriteAndFreeAllProfiles();
        unlink(file.c_str());
        rmdir(dir.c_str());
    }
};

Fixture& F() {
    static Fixture f;
    return f;
}

// Middle section, middle key: the lookup walks half the sections and half
// the section's lines.
const char kSection[] = "Section10";
const char kKey[] = "key48";

void BM_GetCached(benchmark::State& state) {
    char buf[256];
    GetPrivateProfileString(kSection, kKey, "", buf, sizeof buf, F().file.c_str());  // load
    for (auto _ : state) {
        unsigned long n =
            GetPrivateProfileString(kSection, kKey, "", buf, sizeof buf, F().file.c_str());
        benchmark::DoNotOptimize(n);
    }
}
BENCHMARK(BM_GetCached);

void BM_FloorStat(benchmark::State& state) {
    struct stat st;
    for (auto _ : state) {
        int r = stat(F().file.c_str(), &st);
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(BM_FloorStat);

void BM_FlushUnchanged(benchmark::State& state) {
    char buf[256];
    GetPrivateProfileString(kSection, kKey, "", buf, sizeof buf, F().file.c_str());  // load
    for (auto _ : state) {
        int r = WritePrivateProfileString(nullptr, nullptr, nullptr, F().file.c_str());
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(BM_FlushUnchanged);

void BM_FloorUnorderedMap(benchmark::State& state) {
    std::string key = std::string(kSection) + "/" + kKey;
    for (auto _ : state) {
        auto it = F().map.find(key);
        benchmark::DoNotOptimize(it);
    }
}
BENCHMARK(BM_FloorUnorderedMap);

void BM_FirstRead(benchmark::State& state) {
    char buf[256];
    for (auto _ : state) {
        {
            tv::detail::ProfileMutexHolder hold(tv::detail::yuProfileMutex);
            tv::detail::yuFreeProfileStructures(F().file.c_str());
        }
        unsigned long n =
            GetPrivateProfileString(kSection, kKey, "", buf, sizeof buf, F().file.c_str());
        benchmark::DoNotOptimize(n);
    }
    state.SetBytesProcessed(state.iterations() * F().bytes);
}
BENCHMARK(BM_FirstRead);

void BM_FloorGetline(benchmark::State& state) {
    char* line = nullptr;
    size_t cap = 0;
    for (auto _ : state) {
        FILE* f = fopen(F().file.c_str(), "r");
        ssize_t n;
        long long total = 0;
        while ((n = getline(&line, &cap, f)) > 0) total += n;
        fclose(f);
        benchmark::DoNotOptimize(total);
    }
    free(line);
    state.SetBytesProcessed(state.iterations() * F().bytes);
}
BENCHMARK(BM_FloorGetline);

}  // namespace

int main(int argc, char** argv) {
    return tvbench::Main(
        argc, argv,
        {{"cached GetPrivateProfileString / stat() of the file", "BM_GetCached", "BM_FloorStat"},
         {"flush of an unchanged table / stat() of the file", "BM_FlushUnchanged", "BM_FloorStat"},
         {"first read (parse) of the file / getline over it", "BM_FirstRead", "BM_FloorGetline"}},
        [](const tvbench::RatioReporter& r) {
            double mb = static_cast<double>(F().bytes) / 1e6;
            double first = r.ns("BM_FirstRead"), gl = r.ns("BM_FloorGetline");
            if (first > 0 && gl > 0) {
                std::printf(
                    "first read %.1f MB/s vs getline %.1f MB/s (file %.0f KB); "
                    "unordered_map lookup %.1f ns\n",
                    mb / (first * 1e-9), mb / (gl * 1e-9), mb * 1000, r.ns("BM_FloorUnorderedMap"));
            }
        });
}
