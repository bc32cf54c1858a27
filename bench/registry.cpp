// The registry next to the floor of the same job, in one run:
//  1. RegQueryValueEx of a REG_SZ on an open handle vs a lookup in a
//     case-insensitive std::map (copying the text out, as the query does);
//  2. open + query + close of a three-level path vs three nested
//     case-insensitive map lookups and the value lookup;
//  3. reading a generated registry file of 10,000 keys and 100,000 values
//     into an empty tree (MB/s) vs reading the same file with getline and
//     splitting every line at "=" and ";";
//  4. writing that tree back (temporary file, flush to disk, rename) vs
//     writing the same bytes to a file, flushing and renaming it;
//  5. two threads querying two different keys vs one thread: throughput
//     by real time, and by CPU time (the machine may be shared, so the
//     real-time figure on two cores is noisy; the CPU figure says what the
//     queries cost each other through shared cache lines and locks).
// The registry lives in a temporary install directory made for the run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include <tvcommonutil.h>

#include "bench/bench_support.h"
#include "registry/registry_format.h"
#include "registry/testing.h"

namespace {

struct CaseLess {
    bool operator()(const std::string& a, const std::string& b) const {
        return strcasecmp(a.c_str(), b.c_str()) < 0;
    }
};
using CiMap = std::map<std::string, std::string, CaseLess>;

std::string g_install;    // the run's install directory, with '/'
std::string g_generated;  // the generated 10,000-key file
size_t g_generatedSize = 0;
std::string g_written;  // the same tree as the library writes it
size_t g_writtenSize = 0;

const char kValue[] = "/srv/application/data";

// --- 1. query on an open handle --------------------------------------------
void BM_RegQueryValueEx(benchmark::State& state) {
    HKEY h = 0;
    RegCreateKeyEx(0, "Bench\\Level2\\Level3", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr);
    for (int i = 0; i < 20; ++i) {
        std::string name = "Other" + std::to_string(i);
        RegSetValueEx(h, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(kValue),
                      sizeof kValue);
    }
    RegSetValueEx(h, "Root", 0, REG_SZ, reinterpret_cast<const BYTE*>(kValue), sizeof kValue);
    char buf[64];
    for (auto _ : state) {
        DWORD size = sizeof buf, type = 0;
        benchmark::DoNotOptimize(
            RegQueryValueEx(h, "root", nullptr, &type, reinterpret_cast<BYTE*>(buf), &size));
    }
    RegCloseKey(h);
}
BENCHMARK(BM_RegQueryValueEx);

void BM_MapLookup(benchmark::State& state) {
    CiMap values;
    for (int i = 0; i < 20; ++i) values["Other" + std::to_string(i)] = kValue;
    values["Root"] = kValue;
    char buf[64];
    for (auto _ : state) {
        auto it = values.find("root");
        memcpy(buf, it->second.c_str(), it->second.size() + 1);
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_MapLookup);

// --- 5. two threads on two keys -----------------------------------------------
HKEY g_scaleKeys[2];

void BM_RegQueryScaling(benchmark::State& state) {
    tvbench::PinnedTo pin(state.thread_index());
    const HKEY h = g_scaleKeys[state.thread_index() % 2];
    char buf[64];
    for (auto _ : state) {
        DWORD size = sizeof buf, type = 0;
        benchmark::DoNotOptimize(
            RegQueryValueEx(h, "root", nullptr, &type, reinterpret_cast<BYTE*>(buf), &size));
    }
}
BENCHMARK(BM_RegQueryScaling)->Threads(1)->Threads(2)->UseRealTime();

// --- 2. open + query + close of a three-level path ---------------------------
void BM_RegOpenQueryClose(benchmark::State& state) {
    char buf[64];
    for (auto _ : state) {
        HKEY h = 0;
        RegOpenKeyEx(0, "bench\\LEVEL2\\level3", 0, 0, &h);
        DWORD size = sizeof buf;
        RegQueryValueEx(h, "Root", nullptr, nullptr, reinterpret_cast<BYTE*>(buf), &size);
        RegCloseKey(h);
    }
}
BENCHMARK(BM_RegOpenQueryClose);

void BM_NestedMapLookup(benchmark::State& state) {
    struct Node {
        std::map<std::string, Node, CaseLess> children;
        CiMap values;
    };
    Node root;
    Node& leaf = root.children["Bench"].children["Level2"].children["Level3"];
    for (int i = 0; i < 20; ++i) leaf.values["Other" + std::to_string(i)] = kValue;
    leaf.values["Root"] = kValue;
    char buf[64];
    for (auto _ : state) {
        const Node& n = root.children.find("bench")
                            ->second.children.find("LEVEL2")
                            ->second.children.find("level3")
                            ->second;
        auto it = n.values.find("Root");
        memcpy(buf, it->second.c_str(), it->second.size() + 1);
        benchmark::DoNotOptimize(buf);
    }
}
BENCHMARK(BM_NestedMapLookup);

// --- 3. reading a large file -------------------------------------------------
// Reads the file at path into an empty tree, once an iteration.
void ReadFileInto(benchmark::State& state, const std::string& path, size_t size) {
    int fd = open(path.c_str(), O_RDONLY);
    for (auto _ : state) {
        lseek(fd, 0, SEEK_SET);
        RegLockCache(RegLockExclusive);
        tv::detail::ReadRegistryFd(fd, 0);
        state.PauseTiming();
        tv::detail::ClearRegistryTree();
        RegUnlockCache(RegLockExclusive);
        state.ResumeTiming();
    }
    close(fd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void BM_ReadRegistryFile(benchmark::State& state) {
    ReadFileInto(state, g_generated, g_generatedSize);
}
BENCHMARK(BM_ReadRegistryFile)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same tree as this library writes it: each key's values by name.
void BM_ReadWrittenFile(benchmark::State& state) {
    ReadFileInto(state, g_written, g_writtenSize);
}
BENCHMARK(BM_ReadWrittenFile)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_GetlineSplit(benchmark::State& state) {
    for (auto _ : state) {
        std::ifstream in(g_generated);
        std::string line;
        size_t fields = 0;
        while (std::getline(in, line)) {
            size_t eq = line.find('=');
            if (eq == std::string::npos) continue;
            std::string name = line.substr(0, eq);
            size_t semi = line.find(';', eq + 1);
            std::string data =
                line.substr(eq + 1, semi == std::string::npos ? std::string::npos : semi - eq - 1);
            fields += name.size() + data.size();
        }
        benchmark::DoNotOptimize(fields);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_generatedSize));
}
BENCHMARK(BM_GetlineSplit)->Unit(benchmark::kMillisecond)->UseRealTime();

// --- 4. writing it back --------------------------------------------------------
void BM_WriteRegistry(benchmark::State& state) {
    int fd = open(g_generated.c_str(), O_RDONLY);
    RegLockCache(RegLockExclusive);
    tv::detail::ClearRegistryTree();
    tv::detail::ReadRegistryFd(fd, 0);
    RegUnlockCache(RegLockExclusive);
    close(fd);
    for (auto _ : state) {
        if (!WriteRegistry()) state.SkipWithError("write failed");
    }
    RegLockCache(RegLockExclusive);
    tv::detail::ClearRegistryTree();
    RegUnlockCache(RegLockExclusive);
}
BENCHMARK(BM_WriteRegistry)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WriteFsyncRename(benchmark::State& state) {
    std::string text;
    {
        std::ifstream in(g_generated);
        text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    const std::string temp = g_install + "registry/floor.tmp";
    const std::string dest = g_install + "registry/floor";
    for (auto _ : state) {
        int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            state.SkipWithError("write failed");
        }
        fdatasync(fd);
        close(fd);
        rename(temp.c_str(), dest.c_str());
    }
}
BENCHMARK(BM_WriteFsyncRename)->Unit(benchmark::kMillisecond)->UseRealTime();

std::string Generate() {
    std::string text = "\nHKEY_LOCAL_MACHINE=536870913\n\n";
    char line[256];
    for (int k = 0; k < 10000; ++k) {
        snprintf(line, sizeof line, "HKEY_LOCAL_MACHINE\\Bench\\Group%d\\Key%d=%d\n", k / 100, k,
                 1000 + k);
        text += line;
        for (int v = 0; v < 10; ++v) {
            if (v % 3 == 0) {
                snprintf(line, sizeof line, "%-22s\t%22s\t%s\n",
                         ("Count" + std::to_string(v) + "=").c_str(),
                         ("0x" + std::to_string(k * 10 + v) + ";").c_str(), "REG_DWORD");
            } else {
                snprintf(line, sizeof line, "%-22s\t%22s\t%s\n",
                         ("Value" + std::to_string(v) + "=").c_str(),
                         ("/srv/data/" + std::to_string(k) + "/" + std::to_string(v) + ";").c_str(),
                         "REG_SZ");
            }
            text += line;
        }
        text += "\n";
    }
    return text;
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

}  // namespace

int main(int argc, char** argv) {
    char dir[] = "/tmp/tvbench.XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    g_install = std::string(dir) + "/";
    mkdir((g_install + "registry").c_str(), 0755);
    {
        std::ofstream t(g_install + "registry/tv.registry.template");
        t << "\nHKEY_LOCAL_MACHINE=536870913\n\n";
    }
    g_generated = g_install + "generated.registry";
    {
        std::string text = Generate();
        g_generatedSize = text.size();
        std::ofstream g(g_generated);
        g << text;
    }
    setenv("TV_REGISTRY", g_install.c_str(), 1);
    InitRegistry(0, 1);
    {
        // The generated tree as the library writes it, for BM_ReadWrittenFile.
        int fd = open(g_generated.c_str(), O_RDONLY);
        RegLockCache(RegLockExclusive);
        tv::detail::ReadRegistryFd(fd, 0);
        RegUnlockCache(RegLockExclusive);
        close(fd);
        WriteRegistry();
        RegLockCache(RegLockExclusive);
        tv::detail::ClearRegistryTree();
        RegUnlockCache(RegLockExclusive);
        g_written = g_install + "written.registry";
        std::ifstream in(g_install + "registry/tv.registry");
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        g_writtenSize = text.size();
        std::ofstream(g_written) << text;
    }
    for (int i = 0; i < 2; ++i) {
        const std::string path = "Bench\\Scaling\\Key" + std::to_string(i);
        RegCreateKeyEx(0, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &g_scaleKeys[i],
                       nullptr);
        for (int v = 0; v < 20; ++v) {
            std::string name = "Other" + std::to_string(v);
            RegSetValueEx(g_scaleKeys[i], name.c_str(), 0, REG_SZ,
                          reinterpret_cast<const BYTE*>(kValue), sizeof kValue);
        }
        RegSetValueEx(g_scaleKeys[i], "Root", 0, REG_SZ, reinterpret_cast<const BYTE*>(kValue),
                      sizeof kValue);
    }

    int rc = tvbench::Main(
        argc, argv,
        {{"RegQueryValueEx REG_SZ / case-insensitive map", "BM_RegQueryValueEx", "BM_MapLookup"},
         {"open+query+close, 3 levels / nested maps", "BM_RegOpenQueryClose", "BM_NestedMapLookup"},
         {"read 10k keys, 100k values / getline+split", "BM_ReadRegistryFile/real_time",
          "BM_GetlineSplit/real_time"},
         {"write it back / write+fdatasync+rename", "BM_WriteRegistry/real_time",
          "BM_WriteFsyncRename/real_time"}},
        [](const tvbench::RatioReporter& r) {
            // Those two run in milliseconds per iteration.
            const double lib = r.ns("BM_ReadRegistryFile/real_time");
            const double floor = r.ns("BM_GetlineSplit/real_time");
            if (lib > 0 && floor > 0) {
                std::printf("read %.1f MB file: %.1f MB/s (library) vs %.1f MB/s (getline floor)\n",
                            g_generatedSize / 1e6, g_generatedSize / 1e3 / lib,
                            g_generatedSize / 1e3 / floor);
                const double written = r.ns("BM_ReadWrittenFile/real_time");
                if (written > 0) {
                    std::printf("read the same tree as written here (%.1f MB): %.1f MB/s\n",
                                g_writtenSize / 1e6, g_writtenSize / 1e3 / written);
                }
                std::printf("write it back: %.2f ms (library) vs %.2f ms (floor)\n",
                            r.ns("BM_WriteRegistry/real_time"),
                            r.ns("BM_WriteFsyncRename/real_time"));
            }
            // Times per query over both threads' queries: real time is wall
            // time, CPU time the sum of the threads' own.
            const char* one = "BM_RegQueryScaling/real_time/threads:1";
            const char* two = "BM_RegQueryScaling/real_time/threads:2";
            if (r.ns(one) > 0 && r.ns(two) > 0 && r.cpu(two) > 0) {
                std::printf(
                    "RegQueryValueEx, 2 threads on 2 keys / 1 thread: %.2fx throughput (real "
                    "time), %.2fx by CPU time\n",
                    r.ns(one) / r.ns(two), 2 * r.cpu(one) / r.cpu(two));
            }
        });

    CleanSystemResources();
    nftw(dir, RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    return rc;
}
