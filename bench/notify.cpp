// One scanner pass over a generated tree of 50,000 files in 500 directories,
// next to the floor for the same job in one run:
//  1. a pass over the unchanged tree (as every quiet watcher pass is) vs a
//     plain recursive opendir/readdir/lstat walk of the same tree;
//  2. a pass after 1% of the files (500) changed, records queued on an
//     armed handle, vs the same floor.
// The tree is made under /tmp at start and removed at the end.
#include <benchmark/benchmark.h>

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
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

constexpr int kTopDirs = 20;
constexpr int kSubDirsPerTop = 24;  // 20 + 20 * 24 = 500 directories
constexpr int kFilesPerDir = 100;   // 500 * 100 = 50,000 files

std::string root;
std::vector<std::string> allFiles;

void MakeTree() {
    char tmpl[] = "/tmp/tvbench_notify.XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    root = tmpl;
    root += "/";
    auto fill = [](const std::string& dir) {
        mkdir(dir.c_str(), 0755);
        for (int f = 0; f < kFilesPerDir; ++f) {
            std::string path = dir + "/file" + std::to_string(f) + ".dat";
            int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
            if (fd >= 0) close(fd);
            allFiles.push_back(path);
        }
    };
    for (int t = 0; t < kTopDirs; ++t) {
        const std::string top = root + "top" + std::to_string(t);
        fill(top);
        for (int s = 0; s < kSubDirsPerTop; ++s) fill(top + "/sub" + std::to_string(s));
    }
}

int RemoveOne(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

void RemoveTree() {
    nftw(root.c_str(), RemoveOne, 32, FTW_DEPTH | FTW_PHYS);
}

// The floor: what any poller has to do at least.
long FloorWalk(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return 0;
    long n = 0;
    std::string full;
    while (struct dirent* de = readdir(d)) {
        const char* name = de->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
        full = dir + "/" + name;
        struct stat st;
        if (lstat(full.c_str(), &st) != 0) continue;
        ++n;
        if (S_ISDIR(st.st_mode)) n += FloorWalk(full);
    }
    closedir(d);
    return n;
}

// A handle armed on the tree, as the watcher scans it.
struct ArmedRoot {
    Handle* h = nullptr;
    void* buffer = nullptr;
    ArmedRoot() {
        h = new ChangeNotificationHandle(root.c_str(), 1, 0);
        // Arming takes the silent baseline pass.
        ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr);
    }
    ~ArmedRoot() {
        CloseHandle(h);
        delete[] static_cast<char*>(buffer);
    }
    ChangeNotificationHandle* cnh() { return static_cast<ChangeNotificationHandle*>(h); }
    // Collects and re-arms; returns the number of records collected.
    unsigned long Drain() {
        unsigned long bytes = 0, records = 0;
        GetOverlappedResult(h, nullptr, &bytes, 0);
        const unsigned char* p = static_cast<const unsigned char*>(buffer);
        for (unsigned long off = 0; off < bytes; ++records) {
            unsigned long long next = 0;
            for (int i = 7; i >= 0; --i) next = (next << 8) | p[off + static_cast<unsigned>(i)];
            if (next == 0) {
                ++records;
                break;
            }
            off += next;
        }
        ReadDirectoryChanges(h, &buffer, 0, 1, 0x1f, nullptr, nullptr, nullptr);
        return records;
    }
};

void BM_ScanUnchanged(benchmark::State& state) {
    ArmedRoot armed;
    for (auto _ : state) UnixDirScan(root, armed.cnh(), nullptr);
    if (armed.Drain() != 0) state.SkipWithError("records from an unchanged tree");
}
BENCHMARK(BM_ScanUnchanged)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FloorReaddirLstat(benchmark::State& state) {
    long n = 0;
    for (auto _ : state) n = FloorWalk(root.substr(0, root.size() - 1));
    state.counters["entries"] = static_cast<double>(n);  // 50,000 files + 499 directories
}
BENCHMARK(BM_FloorReaddirLstat)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScanOnePercentChanged(benchmark::State& state) {
    ArmedRoot armed;
    const size_t step = 100;  // every 100th file: 1%
    long stamp = 1000000;
    unsigned long records = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ++stamp;
        for (size_t i = 0; i < allFiles.size(); i += step) {
            struct timespec ts[2] = {{stamp, 0}, {stamp, 0}};
            utimensat(AT_FDCWD, allFiles[i].c_str(), ts, 0);
        }
        state.ResumeTiming();
        UnixDirScan(root, armed.cnh(), nullptr);
        state.PauseTiming();
        records = armed.Drain();
        state.ResumeTiming();
    }
    state.counters["records"] = static_cast<double>(records);
}
BENCHMARK(BM_ScanOnePercentChanged)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    MakeTree();
    int rc =
        tvbench::Main(argc, argv,
                      {{"scan pass, unchanged tree / readdir+lstat walk",
                        "BM_ScanUnchanged/real_time", "BM_FloorReaddirLstat/real_time"},
                       {"scan pass after 1% changed / readdir+lstat walk",
                        "BM_ScanOnePercentChanged/real_time", "BM_FloorReaddirLstat/real_time"}});
    RemoveTree();
    return rc;
}
