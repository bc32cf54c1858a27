// Directory search and glob matching next to their libc floors, in one run:
//  1. listing a 20,000-file directory with FindFirstFile/FindNextFile vs
//     opendir/readdir + stat of every entry (the floor: the search also
//     takes every entry's stat data) and vs glibc glob (which stats nothing
//     and sorts); searching it for "*.log" vs readdir + fnmatch + stat of
//     the matches;
//  2. Match of a compiled pattern vs fnmatch over the same names, for a
//     simple suffix pattern and for one with several wildcards and a set.
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <glob.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include "bench/bench_support.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <tvcommonutil.h>

namespace {

constexpr int kFiles = 20000;

// The directory is made once for the whole run and removed at exit.
class BigDirectory {
public:
    BigDirectory() {
        char templ[] = "/tmp/tvbench-files-XXXXXX";
        if (mkdtemp(templ) == nullptr) abort();
        path_ = templ;
        for (int i = 0; i < kFiles; ++i) {
            const std::string f = path_ + "/" + Name(i);
            int fd = open(f.c_str(), O_CREAT | O_WRONLY, 0644);
            if (fd < 0) abort();
            close(fd);
        }
    }
    ~BigDirectory() {
        for (int i = 0; i < kFiles; ++i) unlink((path_ + "/" + Name(i)).c_str());
        rmdir(path_.c_str());
    }
    static std::string Name(int i) {
        static const char* const kExt[] = {".log", ".dat", ".tmp", ".h"};
        return "entry_" + std::to_string(i) + "_a" + std::to_string(i % 7) + "b" + kExt[i % 4];
    }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

BigDirectory& Dir() {
    static BigDirectory* d = new BigDirectory;  // removed by main, after the run
    return *d;
}

void BM_FindFirstNextFile(benchmark::State& state) {
    const std::string dir = Dir().path();
    WIN32_FIND_DATA data;
    for (auto _ : state) {
        int n = 0;
        Handle* h = FindFirstFile(dir.c_str(), &data);
        if (h != INVALID_HANDLE_VALUE) {
            do {
                ++n;
            } while (FindNextFile(h, &data));
            FindClose(h);
        }
        if (n != kFiles) state.SkipWithError("wrong count");
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_FindFirstNextFile)->Unit(benchmark::kMillisecond);

void BM_ReaddirStat(benchmark::State& state) {
    const std::string dir = Dir().path();
    std::string path;
    for (auto _ : state) {
        int n = 0;
        DIR* d = opendir(dir.c_str());
        while (struct dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            path = dir + "/" + e->d_name;
            struct stat st;
            if (stat(path.c_str(), &st) == 0) ++n;
            benchmark::DoNotOptimize(st);
        }
        closedir(d);
        if (n != kFiles) state.SkipWithError("wrong count");
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_ReaddirStat)->Unit(benchmark::kMillisecond);

constexpr int kLogFiles = kFiles / 4;  // every fourth name ends in ".log"

void BM_FindPattern(benchmark::State& state) {
    const std::string pattern = Dir().path() + "/*.log";
    WIN32_FIND_DATA data;
    for (auto _ : state) {
        int n = 0;
        Handle* h = FindFirstFile(pattern.c_str(), &data);
        if (h != INVALID_HANDLE_VALUE) {
            do {
                ++n;
            } while (FindNextFile(h, &data));
            FindClose(h);
        }
        if (n != kLogFiles) state.SkipWithError("wrong count");
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_FindPattern)->Unit(benchmark::kMillisecond);

// The floor of a pattern search: every name read and matched, only the
// matches stat-ed.
void BM_ReaddirFnmatchStat(benchmark::State& state) {
    const std::string dir = Dir().path();
    std::string path;
    for (auto _ : state) {
        int n = 0;
        DIR* d = opendir(dir.c_str());
        while (struct dirent* e = readdir(d)) {
            if (e->d_name[0] == '.' || fnmatch("*.log", e->d_name, 0) != 0) continue;
            path = dir + "/" + e->d_name;
            struct stat st;
            if (stat(path.c_str(), &st) == 0) ++n;
            benchmark::DoNotOptimize(st);
        }
        closedir(d);
        if (n != kLogFiles) state.SkipWithError("wrong count");
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_ReaddirFnmatchStat)->Unit(benchmark::kMillisecond);

void BM_GlibcGlob(benchmark::State& state) {
    const std::string pattern = Dir().path() + "/*";
    for (auto _ : state) {
        glob_t g;
        glob(pattern.c_str(), 0, nullptr, &g);
        if (g.gl_pathc != static_cast<size_t>(kFiles)) state.SkipWithError("wrong count");
        globfree(&g);
    }
    state.SetItemsProcessed(state.iterations() * kFiles);
}
BENCHMARK(BM_GlibcGlob)->Unit(benchmark::kMillisecond);

// --- matching -------------------------------------------------------------

const std::vector<std::string>& Names() {
    static std::vector<std::string>* names = [] {
        auto* v = new std::vector<std::string>;
        for (int i = 0; i < 1000; ++i) v->push_back(BigDirectory::Name(i * 17));
        return v;
    }();
    return *names;
}

const char* PatternFor(int which) {
    return which == 0 ? "*.log" : "entry_*_a[0-3]b*.?og";
}

void BM_GlobMatch(benchmark::State& state) {
    KWSuperGlob g;
    g.AddPattern(PatternFor(static_cast<int>(state.range(0))), 0);
    const auto& names = Names();
    for (auto _ : state) {
        int hits = 0;
        for (const auto& n : names) hits += g.Match(n.c_str());
        benchmark::DoNotOptimize(hits);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<long>(names.size()));
}
BENCHMARK(BM_GlobMatch)->Arg(0)->Arg(1);

void BM_Fnmatch(benchmark::State& state) {
    const char* pattern = PatternFor(static_cast<int>(state.range(0)));
    const auto& names = Names();
    for (auto _ : state) {
        int hits = 0;
        for (const auto& n : names) hits += fnmatch(pattern, n.c_str(), 0) == 0;
        benchmark::DoNotOptimize(hits);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<long>(names.size()));
}
BENCHMARK(BM_Fnmatch)->Arg(0)->Arg(1);

// Collects per-benchmark times so the ratios can be printed after the run.

}  // namespace

int main(int argc, char** argv) {
    Dir();
    int rc = tvbench::Main(
        argc, argv,
        {{"FindFirstFile/FindNextFile, 20k files / readdir+stat", "BM_FindFirstNextFile",
          "BM_ReaddirStat"},
         {"FindFirstFile/FindNextFile, 20k files / glibc glob", "BM_FindFirstNextFile",
          "BM_GlibcGlob"},
         {"FindFirstFile \"*.log\", 20k files (5k match) / readdir+fnmatch+stat of matches",
          "BM_FindPattern", "BM_ReaddirFnmatchStat"},
         {"Match x1000 \"*.log\" / fnmatch", "BM_GlobMatch/0", "BM_Fnmatch/0"},
         {"Match x1000 \"entry_*_a[0-3]b*.?og\" / fnmatch", "BM_GlobMatch/1", "BM_Fnmatch/1"}});
    delete &Dir();
    return rc;
}
