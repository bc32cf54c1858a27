// The registry shared by real processes: many writers lose nothing and see
// each other's changes, a writer killed at any moment leaves a complete file
// and no lock behind, a FileLock holder keeps other processes out, the
// registry lock admits one holder whatever the callers do,
// the System V objects go with the last user, start-up never gives up
// because of others, and a forked child can use the registry at once.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

#include "registry/registry_shared.h"
#include "registry/testing.h"
#include "registry_support.h"
#include "thread_probe.h"

namespace {

using namespace regtest;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kUnderAsan = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kUnderAsan = true;
#else
constexpr bool kUnderAsan = false;
#endif
#else
constexpr bool kUnderAsan = false;
#endif

void Touch(const std::string& path) {
    tvtest::WriteFile(path, "x");
}

int SemCtl(const std::string& lockFile, int cmd) {
    int id = semget(ftok(lockFile.c_str(), 1), 1, 0);
    return id < 0 ? -1 : semctl(id, 0, cmd);
}

// Waits until some process is blocked on the registry semaphore.
bool WaitForSleepers(const std::string& lockFile) {
    for (int i = 0; i < 30000; ++i) {
        if (SemCtl(lockFile, GETNCNT) > 0) return true;
        usleep(1000);
    }
    return false;
}

long AttachCount() {
    tv::detail::SharedRegistryRecord* shm = tv::detail::SharedRecord();
    return shm == nullptr ? -1 : __atomic_load_n(&shm->attachCount, __ATOMIC_ACQUIRE);
}

// Holds the registry lock while another process asks for it: that process
// must queue on the semaphore (and not get in) until the lock is released.
void ExpectLockExcludes(const RegistryEnv& env, const std::string& tag) {
    const std::string marker = env.file("locked." + tag);
    RegLockRegistryFile();
    pid_t other = tvtest::SpawnChild("reg_lock_and_log", {env.lockFile(), marker, tag, "go"});
    for (int i = 0; i < 30000 && SemCtl(env.lockFile(), GETNCNT) < 1; ++i) {
        if (tvtest::FileExists(marker)) break;
        usleep(1000);
    }
    EXPECT_FALSE(tvtest::FileExists(marker)) << tag << ": a second process got the lock";
    RegUnlockRegistryFile();
    EXPECT_EQ(0, WaitChildFor(other, 60)) << tag;
    EXPECT_TRUE(tvtest::FileExists(marker)) << tag;
}

// A forked child's exit code, or -2 when it did not end within `seconds`.
int ForkChild(int seconds, const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return WaitChildFor(pid, seconds);
}

// Whether a registry file text is whole: it ends as a written file ends and
// every line is a key line or a value line of the writer's form. The value
// names of the block of `keyLine` go to names.
bool Parses(const std::string& text, const std::string& keyLine, std::set<std::string>* names) {
    static const std::regex key("HKEY_LOCAL_MACHINE(\\\\[^=]+)?=[0-9]+");
    static const std::regex value("[^=]+=[^;]*;\tREG_SZ");
    bool ok = text.size() >= 2 && text.compare(text.size() - 2, 2, "\n\n") == 0;
    bool inBlock = false;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.empty()) continue;
        if (line.compare(0, 18, "HKEY_LOCAL_MACHINE") == 0) {
            ok = ok && std::regex_match(line, key);
            inBlock = line.compare(0, keyLine.size(), keyLine) == 0;
        } else {
            ok = ok && std::regex_match(line, value);
            if (inBlock) names->insert(line.substr(0, line.find('=')));
        }
    }
    return ok;
}

bool AppendLocked(FileLock& f, const char* text) {
    if (lseek(f.GetFileDescriptor(), 0, SEEK_END) < 0) return false;
    int len = static_cast<int>(strlen(text));
    return f.WriteBlk(text, len) == len;
}

}  // namespace

// args: set|leave|expect, key, name, value. "leave" sets and exits without
// cleaning up.
TV_TEST_CHILD(reg_do) {
    int rc = 0;
    if (args.at(0) == "leave") return SetAndClose(args.at(1), args.at(2), args.at(3)) == 0 ? 0 : 1;
    if (args.at(0) == "set") {
        rc = SetAndClose(args.at(1), args.at(2), args.at(3)) == 0 ? 0 : 1;
    } else {
        const std::string got = Query(args.at(1), args.at(2));
        if (got != args.at(3)) fprintf(stderr, "reg_do: got %s\n", got.c_str());
        rc = got == args.at(3) ? 0 : 1;
    }
    CleanSystemResources();
    return rc;
}

// args: id, count, go file. Sets `count` values p<id>_<i> on Load, each in
// its own open/set/close, while making subkeys of Load by their full path
// (its own keep<id>\leaf first, perhaps before Load itself exists), deleting
// every tenth-step subkey again and re-reading its own earlier values.
TV_TEST_CHILD(reg_many) {
    InitRegistry(0, 1);
    if (!WaitForFile(args.at(2))) return 2;
    const std::string id = args.at(0);
    int failures = SetAndClose("Load\\keep" + id + "\\leaf", "x", "1") == 0 ? 0 : 1;
    for (int i = 0; i < std::stoi(args.at(1)); ++i) {
        const std::string sub = "Load\\s" + id + "_" + std::to_string(i / 10);
        if (SetAndClose("Load", "p" + id + "_" + std::to_string(i), std::to_string(i)) != 0 ||
            (i % 10 == 0 && SetAndClose(sub + "\\leaf", "x", "1") != 0) ||
            (i % 10 == 5 && RegDeleteKey(0, sub.c_str()) != 0) ||
            (i % 25 == 24 &&
             Query("Load", "p" + id + "_" + std::to_string(i - 12)) != std::to_string(i - 12))) {
            ++failures;
        }
    }
    CleanSystemResources();
    return failures == 0 ? 0 : 1;
}

// args: marker. Writes v<n>, v<n+1>, ... for ever (each close rewrites the
// file), continuing after the values already there.
TV_TEST_CHILD(reg_churn) {
    HKEY h = 0;
    if (RegCreateKeyEx(0, "Churn", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr) != 0) {
        return 1;
    }
    const DWORD n = ValueCount(h);
    RegCloseKey(h);
    for (unsigned long i = n;; ++i) {
        if (SetAndClose("Churn", "v" + std::to_string(i), "x") != 0) return 1;
        if (i == n) Touch(args.at(0));
    }
}

// args: marker. Takes the registry semaphore and never lets it go.
TV_TEST_CHILD(reg_hold_semaphore) {
    InitRegistry(0, 1);
    RegLockRegistryFile();
    Touch(args.at(0));
    for (;;) pause();
}

// args: marker, go file. Attaches, reports, and cleans up when told.
TV_TEST_CHILD(reg_attach) {
    InitRegistry(0, 1);
    Touch(args.at(0));
    if (args.size() == 1) {
        for (;;) pause();
    }
    if (!WaitForFile(args.at(1))) return 2;
    CleanSystemResources();
    return 0;
}

// args: key, name, cycles. Leaves and attaches again `cycles` times, then
// writes and leaves: start-up and leaving at a high rate.
TV_TEST_CHILD(share_churn) {
    InitRegistry(0, 1);
    for (int i = std::stoi(args.at(2)); i > 0; --i) {
        CleanSystemResources();
        RegInitSharedState(1);
    }
    LONG r = SetAndClose(args.at(0), args.at(1), "1");
    CleanSystemResources();
    return r == 0 ? 0 : 1;
}

// args: stderr file. Starts without permission to create the shared objects.
TV_TEST_CHILD(reg_no_create) {
    if (freopen(args.at(0).c_str(), "w", stderr) == nullptr) return 3;
    InitRegistry(0, 0);
    return 0;
}

// A write the disk refuses is reported with its real error, leaves the
// file as it was, and lands with the next write once space is back.
TEST(RegistryMultiProcess, FailedWriteIsReportedAndKept) {
    RegistryEnv env;
    ASSERT_EQ(0, SetAndClose("Disk", "A", "1"));
    const std::string before = env.ReadRegistryFile();

    tv::detail::InjectWriteErrorForTests(ENOSPC);
    testing::internal::CaptureStderr();
    errno = 0;
    EXPECT_EQ(-1, SetAndClose("Disk", "B", "2"));
    EXPECT_EQ(ENOSPC, errno);
    HKEY h = Open("Disk", KEY_ALL_ACCESS);
    EXPECT_EQ(-1, RegFlushKey(h));
    const std::string log = testing::internal::GetCapturedStderr();
    tv::detail::InjectWriteErrorForTests(0);
    EXPECT_TRUE(Has(log, strerror(ENOSPC)));
    EXPECT_FALSE(Has(log, "zero length"));
    EXPECT_EQ(before, env.ReadRegistryFile());

    EXPECT_EQ(0, RegFlushKey(h));
    EXPECT_EQ(0, RegCloseKey(h));
    EXPECT_EQ(0, WaitChildFor(tvtest::SpawnChild("reg_do", {"expect", "Disk", "B", "2"}), 60));
}

// 8 processes x 200 writes on one key whose subkeys the others make by their
// full path and delete again, re-reading as they go: every snapshot of the
// file taken meanwhile is whole and never holds fewer values than the one
// before; at the end no value is missing and no deleted key is back.
TEST(RegistryMultiProcess, EightWritersLoseNothing) {
    const int kProcs = 8, kCount = 200;
    RegistryEnv env;
    InitRegistry(0, 1);
    const std::string go = env.file("go");
    std::vector<pid_t> pids;
    for (int p = 0; p < kProcs; ++p) {
        pids.push_back(
            tvtest::SpawnChild("reg_many", {std::to_string(p), std::to_string(kCount), go}));
    }
    Touch(go);
    size_t snapshots = 0, last = 0;
    for (size_t done = 0; done < pids.size();) {
        std::set<std::string> names;
        const std::string text = env.ReadRegistryFile();
        ASSERT_TRUE(Parses(text, "HKEY_LOCAL_MACHINE\\Load=", &names)) << text;
        EXPECT_GE(names.size(), last);
        last = names.size();
        ++snapshots;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));  // leave the workers a core
        int st = 0;
        while (done < pids.size() && waitpid(pids[done], &st, WNOHANG) == pids[done]) {
            EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "worker " << done;
            ++done;
        }
    }
    std::set<std::string> names;
    const std::string text = env.ReadRegistryFile();
    ASSERT_TRUE(Parses(text, "HKEY_LOCAL_MACHINE\\Load=", &names));
    EXPECT_EQ(static_cast<size_t>(kProcs * kCount), names.size()) << snapshots << " snapshots";
    EXPECT_FALSE(Has(text, "\\Load\\s"));
    // This process, attached all along, is brought up to date; so is a
    // fresh reader.
    for (bool fresh : {false, true}) {
        if (fresh) tv::detail::RegistryResetForTests();
        HKEY h = Open("Load");
        EXPECT_EQ(static_cast<DWORD>(kProcs * kCount), ValueCount(h)) << fresh;
        DWORD subKeys = 0;
        ASSERT_EQ(0, RegQueryInfoKey(h, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr,
                                     nullptr, nullptr, nullptr, nullptr, nullptr));
        EXPECT_EQ(static_cast<DWORD>(kProcs), subKeys) << fresh;  // keep0 .. keep7
        RegCloseKey(h);
    }
}

// Killed with SIGKILL at arbitrary points of a stream of writes, or while
// holding the lock: the file is always a complete earlier state, nothing
// stays locked, and the next process to start removes the temporary files
// the killed ones left.
TEST(RegistryMultiProcess, WriterKilledMidWrite) {
    RegistryEnv env;
    InitRegistry(0, 1);
    size_t last = 0;
    for (int round = 0; round < 6; ++round) {
        const std::string marker = env.file("churn" + std::to_string(round));
        pid_t pid = tvtest::SpawnChild("reg_churn", {marker});
        ASSERT_TRUE(WaitForFile(marker));
        std::this_thread::sleep_for(std::chrono::milliseconds(3 + 7 * round));  // a kill point
        kill(pid, SIGKILL);
        EXPECT_EQ(128 + SIGKILL, tvtest::WaitChild(pid));

        std::set<std::string> names;
        EXPECT_TRUE(Parses(env.ReadRegistryFile(), "HKEY_LOCAL_MACHINE\\Churn=", &names))
            << "round " << round;
        // Exactly v0 .. v(k-1): each write held every earlier value.
        for (size_t i = 0; i < names.size(); ++i) {
            EXPECT_EQ(1u, names.count("v" + std::to_string(i))) << i;
        }
        EXPECT_GT(names.size(), last) << "round " << round;
        last = names.size();
    }
    // SEM_UNDO: a process killed while it holds the semaphore releases it;
    // the shared lock owner keeps its id until the next lock.
    const std::string marker = env.file("held");
    pid_t holder = tvtest::SpawnChild("reg_hold_semaphore", {marker});
    ASSERT_TRUE(WaitForFile(marker));
    tv::detail::SharedRegistryRecord* shm = tv::detail::SharedRecord();
    ASSERT_NE(nullptr, shm);
    EXPECT_EQ(holder, __atomic_load_n(&shm->lockOwner, __ATOMIC_ACQUIRE));
    kill(holder, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, tvtest::WaitChild(holder));
    EXPECT_EQ(holder, __atomic_load_n(&shm->lockOwner, __ATOMIC_ACQUIRE));
    // Nobody is blocked: a fresh process writes at once.
    EXPECT_EQ(0, WaitChildFor(tvtest::SpawnChild("reg_do", {"set", "After", "V", "ok"}), 30));
    EXPECT_EQ(0, __atomic_load_n(&shm->lockOwner, __ATOMIC_ACQUIRE));
    EXPECT_EQ("ok", Query("After", "V"));
    DIR* d = opendir((env.install() + "registry").c_str());
    ASSERT_NE(nullptr, d);
    while (const dirent* e = readdir(d)) {
        EXPECT_NE(0, strncmp(e->d_name, ".tv.registry.tmp.", 17)) << e->d_name;
    }
    closedir(d);
}

// Processes starting together are all counted, forked children that clean
// up (as a server's shutdown path does) and processes that exit without
// cleaning up change nothing for the parent; the lock stays exclusive
// through unbalanced unlocks and removal from outside; the last process to
// clean up removes the objects, even when another was killed without
// cleaning up; the next start makes them afresh with a zero stamp.
TEST(RegistryMultiProcess, AttachCountLockAndCleanup) {
    const int kProcs = 6;
    RegistryEnv env;
    const std::string go = env.file("go");
    std::vector<pid_t> pids;
    for (int p = 0; p < kProcs; ++p) {
        pids.push_back(tvtest::SpawnChild("reg_attach", {env.file("m" + std::to_string(p)), go}));
    }
    pid_t killed = tvtest::SpawnChild("reg_attach", {env.file("killed")});
    for (int p = 0; p < kProcs; ++p) ASSERT_TRUE(WaitForFile(env.file("m" + std::to_string(p))));
    ASSERT_TRUE(WaitForFile(env.file("killed")));
    ASSERT_EQ(0, SetAndClose("Stamp", "V", "1"));
    EXPECT_EQ(kProcs + 2, AttachCount());
    kill(killed, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, tvtest::WaitChild(killed));
    Touch(go);
    for (pid_t pid : pids) EXPECT_EQ(0, WaitChildFor(pid, 60));
    EXPECT_EQ(2, AttachCount());  // us and the killed one
    CleanSystemResources();
    EXPECT_FALSE(SysVExists(env.lockFile()));

    // A new start creates them again, stamp 0.
    tv::detail::RegistryResetForTests();
    InitRegistry(0, 1);
    ASSERT_NE(nullptr, tv::detail::SharedRecord());
    EXPECT_EQ(0u, __atomic_load_n(&tv::detail::SharedRecord()->versionStamp, __ATOMIC_ACQUIRE));
    EXPECT_EQ(1, AttachCount());
    EXPECT_EQ("1", Query("Stamp", "V"));

    EXPECT_EQ(0, ForkChild(60, [] { return CleanSystemResources(), 0; }));
    EXPECT_EQ(0, ForkChild(60, [] {
                  int r = SetAndClose("Fork", "V", "y") == 0 ? 0 : 1;
                  CleanSystemResources();
                  return r;
              }));
    EXPECT_EQ(0, WaitChildFor(tvtest::SpawnChild("reg_do", {"leave", "Exit", "V", "z"}), 60));
    EXPECT_TRUE(SysVExists(env.lockFile()));
    EXPECT_EQ(1, AttachCount());
    ExpectLockExcludes(env, "after forked clean-ups");

    RegLockRegistryFile();
    RegUnlockRegistryFile();
    RegUnlockRegistryFile();  // one too many
    std::thread([] { RegUnlockRegistryFile(); }).join();
    EXPECT_EQ(1, SemCtl(env.lockFile(), GETVAL));
    ExpectLockExcludes(env, "after unbalanced unlocks");

    // Removed from outside: the next lock attaches again instead of going
    // on without one.
    RemoveSysV(env.lockFile());
    ExpectLockExcludes(env, "after removal");
    EXPECT_EQ(1, AttachCount());
    EXPECT_TRUE(KeyExists("Fork") && KeyExists("Exit"));
    CleanSystemResources();
    EXPECT_FALSE(SysVExists(env.lockFile()));
}

TEST(RegistryMultiProcess, StartWithoutCreateNeedsTheSemaphore) {
    RegistryEnv env;
    const std::string err = env.file("stderr");
    pid_t pid = tvtest::SpawnChild("reg_no_create", {err});
    EXPECT_EQ(1, WaitChildFor(pid, 60));
    EXPECT_EQ("Registry semaphore doesn't exist. Exiting.\n", tvtest::ReadFile(err));
}

// args: lock file, ready marker, log file. Holds the registry lock while the
// next process attaches, then leaves as if it were the last one.
TV_TEST_CHILD(reg_clean_while_attaching) {
    InitRegistry(0, 1);
    RegLockRegistryFile();
    Touch(args.at(1));
    if (!WaitForSleepers(args.at(0))) return 2;  // the next process waits to attach
    CleanSystemResources();
    return 0;
}

// args: lock file, log file, tag, hold ("hold" waits for a third process).
TV_TEST_CHILD(reg_lock_and_log) {
    InitRegistry(0, 1);
    RegLockRegistryFile();
    FILE* log = fopen(args.at(1).c_str(), "a");
    if (log == nullptr) return 3;
    fprintf(log, "%s+", args.at(2).c_str());
    fflush(log);
    if (args.at(3) == "hold" && !WaitForSleepers(args.at(0))) return 2;
    fprintf(log, "%s-", args.at(2).c_str());
    fclose(log);
    RegUnlockRegistryFile();
    CleanSystemResources();
    return 0;
}

// The last process leaves (and removes the shared objects) while another one
// waits to attach: the waiter must start over on fresh objects, so that the
// registry lock still excludes a third process.
TEST(RegistryMultiProcess, AttachingWhileTheLastProcessCleansUp) {
    RegistryEnv env;
    const std::string log = env.file("order.log");
    pid_t a =
        tvtest::SpawnChild("reg_clean_while_attaching", {env.lockFile(), env.file("a.ready"), log});
    ASSERT_TRUE(WaitForFile(env.file("a.ready")));
    pid_t b = tvtest::SpawnChild("reg_lock_and_log", {env.lockFile(), log, "B", "hold"});
    ASSERT_EQ(0, WaitChildFor(a, 60));
    // B now holds the lock (its "B+" is logged) and waits for a sleeper.
    for (int i = 0; i < 30000 && tvtest::ReadFile(log).empty(); ++i) usleep(1000);
    pid_t c = tvtest::SpawnChild("reg_lock_and_log", {env.lockFile(), log, "C", "go"});
    EXPECT_EQ(0, WaitChildFor(b, 60));
    EXPECT_EQ(0, WaitChildFor(c, 60));
    EXPECT_EQ("B+B-C+C-", tvtest::ReadFile(log));
}

// Many processes start, write once and leave at the same moment, over and
// over, so that each meets objects being made and removed by the others:
// none gives up and every value lands.
TEST(RegistryMultiProcess, ConcurrentStartersNeverGiveUp) {
    const int kRounds = 8, kProcs = 16;
    RegistryEnv env;
    std::vector<pid_t> pids;
    for (int round = 0; round < kRounds; ++round) {
        for (int p = 0; p < kProcs; ++p) {
            const std::string name = "r" + std::to_string(round) + "p" + std::to_string(p);
            pids.push_back(tvtest::SpawnChild("share_churn", {"Conc", name, "40"}));
        }
        // Half of each round overlaps the next.
        for (size_t i = 0; i + kProcs / 2 < pids.size(); ++i) {
            EXPECT_EQ(0, WaitChildFor(pids[i], 120)) << "process " << i;
        }
        pids.erase(pids.begin(), pids.end() - kProcs / 2);
    }
    for (pid_t pid : pids) EXPECT_EQ(0, WaitChildFor(pid, 120));
    EXPECT_FALSE(SysVExists(env.lockFile()));  // the last one removed them

    HKEY h = Open("Conc");
    EXPECT_EQ(static_cast<DWORD>(kRounds * kProcs), ValueCount(h));
    RegCloseKey(h);
}

// Forks while other threads write the registry (one changing values, reading
// a profile and arming a timer, the lazy writer writing) and a directory
// watcher scans: each child writes the registry, reads the profile, watches
// the directory, has a thread signal an event, waits for a timer of its own
// and for a /bin/true it starts, all at once after the fork, and ends in
// time; nothing written by either side is lost.
TEST(RegistryMultiProcess, ForkWhileThreadsWrite) {
    if (kUnderAsan) {
        GTEST_SKIP() << "this toolchain's AddressSanitizer runtime does not hold its allocator "
                        "across fork: a child forked while another thread allocates can hang in it";
    }
    const int kRounds = 200;
    RegistryEnv env;
    const std::string ini = env.file("fork.ini");
    tvtest::WriteFile(ini, "[S]\nK=v\n");
    InitRegistry(0, 1);
    int interval = 5;
    pthread_t lazy;
    ASSERT_EQ(0, pthread_create(
                     &lazy, nullptr,
                     [](void* ms) -> void* { return RegLazyWriteThread(ms), nullptr; }, &interval));
    // A directory watcher passing over the test's directory all the time.
    struct Restless : WatchDirsThreadObject {
        unsigned long TimedWait(unsigned long, int, WatchDirsThreadObject*) override {
            usleep(1000);
            return WAIT_TIMEOUT;
        }
    } loop;
    Handle* watched = FindFirstChangeNotification(env.file("").c_str(), 1, 0x1f);
    std::thread watcher([&] { WatchDirsThread(&loop); });
    Handle* busyTimer = CreateWaitableTimer(nullptr, FALSE, nullptr);
    std::atomic<bool> stop(false);
    std::thread busy([&] {
        char buf[8];
        for (unsigned long i = 0; !stop.load(); ++i) {
            SetAndClose("Busy", "V", std::to_string(i));
            GetPrivateProfileString("S", "K", "", buf, sizeof buf, ini.c_str());
            timespec due;
            clock_gettime(CLOCK_REALTIME, &due);
            SetWaitableTimer(busyTimer, &due, 0, nullptr, nullptr, FALSE);
        }
    });
    // Two threads ping-ponging on a pair of auto-reset events (their locks
    // busy, one of them asleep on one at most moments), and a stream of APCs
    // queued to this thread, the one that forks, and identifiers made.
    Handle* ping = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* pong = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    Handle* forker = GetCurrentThread();
    std::atomic<int> queued(0);
    auto player = [&](Handle* mine, Handle* other) {
        for (_GUID id; !stop.load(); UuidCreate(&id)) {
            SetEvent(other);
            WaitForSingleObjectEx(mine, 5, FALSE);
            if (queued.load() < 100 && ++queued) {
                QueueUserAPC([](ULONG_PTR q) { --*reinterpret_cast<std::atomic<int>*>(q); }, forker,
                             reinterpret_cast<ULONG_PTR>(&queued));
            }
        }
    };
    std::thread pinger(player, ping, pong), ponger(player, pong, ping);
    // Forks start once both threads are at work (their first write is in
    // the file), not while they are still being made.
    for (int i = 0; i < 30000 && env.ReadRegistryFile().find("\\Busy=") == std::string::npos; ++i) {
        usleep(1000);
    }
    // The child's steps; the exit code names the one that failed.
    auto child = [&](const std::string& name) {
        if (SetAndClose("Fork", name, "1") != 0) return 1;
        char buf[8] = "";
        GetPrivateProfileString("S", "K", "", buf, sizeof buf, ini.c_str());
        if (strcmp(buf, "v") != 0) return 3;
        FindCloseChangeNotification(FindFirstChangeNotification(env.file("").c_str(), 1, 0x1f));
        // The sleepers the parent's players left on the events are gone here.
        _GUID id;
        SetEvent(ping);
        if (UuidCreate(&id) != 0 || WaitForSingleObjectEx(ping, 0, FALSE) != WAIT_OBJECT_0) return 7;
        Handle* ev = CreateEvent(nullptr, TRUE, FALSE, nullptr);
        std::thread signaller([ev] { SetEvent(ev); });
        const DWORD signalled = WaitForSingleObjectEx(ev, 10000, FALSE);
        signaller.join();
        if (signalled != WAIT_OBJECT_0) return 4;
        // Runs this one and those the players had queued before the fork.
        QueueUserAPC([](ULONG_PTR) {}, forker, 0);
        if (SleepEx(10000, TRUE) != WAIT_IO_COMPLETION) return 8;
        Handle* timer = CreateWaitableTimer(nullptr, FALSE, nullptr);
        bool fired = false;
        timespec due;
        clock_gettime(CLOCK_REALTIME, &due);
        SetWaitableTimer(
            timer, &due, 0, [](void* f, void*, void*) { *static_cast<bool*>(f) = true; }, &fired,
            FALSE);
        if (SleepEx(10000, TRUE) != WAIT_IO_COMPLETION || !fired) return 5;

        char line[] = "/bin/true";
        PROCESS_INFORMATION pi;
        memset(&pi, 0, sizeof pi);
        if (!CreateProcess(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, nullptr,
                           &pi) ||
            WaitForSingleObjectEx(pi.hProcess, 10000, FALSE) != WAIT_OBJECT_0) {
            return 6;
        }
        // Lands once the child's own lazy writer has written it.
        for (int i = 0; i < 10000; ++i) {
            if (tvtest::ReadFile(env.registryFile()).find("\n" + name + "=") != std::string::npos) {
                CleanSystemResources();
                return 0;
            }
            usleep(1000);
        }
        return 2;
    };
    bool failed = false;
    for (int round = 0; round < kRounds && !failed; ++round) {
        const int rc = ForkChild(20, [&] { return child("c" + std::to_string(round)); });
        EXPECT_EQ(0, rc) << "round " << round;  // -2: hung
        failed = rc != 0;
        SleepEx(0, TRUE);  // runs the players' APCs
    }
    stop = true;
    busy.join();
    pinger.join();
    ponger.join();
    CloseHandle(ping);
    CloseHandle(pong);
    CloseHandle(busyTimer);
    loop.RequestStop();
    watcher.join();
    bFileShutdownRequested = false;
    FindCloseChangeNotification(watched);
    pthread_cancel(lazy);  // writes once more
    pthread_join(lazy, nullptr);

    HKEY h = Open("Fork");
    EXPECT_EQ(static_cast<DWORD>(kRounds), ValueCount(h));
    RegCloseKey(h);
    EXPECT_TRUE(Has(env.ReadRegistryFile(), "HKEY_LOCAL_MACHINE\\Busy="));
}

// A request waits until a change is in the file, whoever made it: a thread
// of this process, or another process, for the key itself or below it, for
// an event and for the synchronous form.
TEST(RegistryMultiProcess, NotifyWakesOnChangesFromThreadsAndProcesses) {
    RegistryEnv env;
    ASSERT_EQ(0, SetAndClose("Watch", "V", "0"));
    ASSERT_EQ(0, SetAndClose("Watch\\Sub", "V", "0"));
    HKEY r = Open("Watch");
    HANDLE e = CreateEvent(nullptr, FALSE, FALSE, nullptr);

    ASSERT_EQ(0, RegNotifyChangeKeyValue(r, FALSE, 0, e, TRUE));
    std::thread([] { SetAndClose("Watch", "V", "1"); }).join();
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(e, 30000, FALSE));

    ASSERT_EQ(0, RegNotifyChangeKeyValue(r, TRUE, 0, e, TRUE));
    pid_t other = tvtest::SpawnChild("reg_do", {"leave", "Watch\\Sub", "V", "2"});
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(e, 30000, FALSE));
    EXPECT_EQ(0, WaitChildFor(other, 60));

    // The synchronous form (with the thread's own event) blocks until then.
    std::atomic<int> woken(0);
    std::atomic<pid_t> tid(0);
    std::thread sync([&] {
        tid = tvtest::CurrentTid();
        woken = RegNotifyChangeKeyValue(r, FALSE, 0, nullptr, FALSE) == 0 ? 1 : 2;
    });
    while (tid == 0) std::this_thread::yield();
    EXPECT_TRUE(tvtest::WaitUntilSleeping(tid));
    EXPECT_EQ(0, woken.load());
    other = tvtest::SpawnChild("reg_do", {"leave", "Watch", "V", "3"});
    EXPECT_EQ(0, WaitChildFor(other, 60));
    for (int i = 0; i < 30000 && woken == 0; ++i) usleep(1000);
    EXPECT_EQ(1, woken.load());
    if (woken != 0) {
        sync.join();
    } else {
        sync.detach();  // stuck for good: the test has failed anyway
    }
    RegUnnotifyChangeKeyValue(r, e);
    static_cast<Event*>(e)->SetEventData(-1);  // gives back the watch's reference
    CloseHandle(e);
    RegCloseKey(r);
}

// args: file, ready marker, go marker. Holds the lock until told to go on,
// then appends "A" and closes.
TV_TEST_CHILD(file_lock_holder) {
    FileLock f;
    if (!f.OpenAndLockFile(args.at(0).c_str(), O_CREAT, nullptr, false)) return 3;
    tvtest::WriteFile(args.at(1), "ready");
    if (!WaitForFile(args.at(2))) return 4;
    if (!AppendLocked(f, "A")) return 5;
    return f.CloseAndUnLockFile() ? 0 : 6;
}

TEST(FileLockProcesses, SecondOpenerWaitsForTheHolderToClose) {
    tvtest::TempDir dir;
    const std::string file = dir.file("shared"), ready = dir.file("ready"), go = dir.file("go");
    pid_t child = tvtest::SpawnChild("file_lock_holder", {file, ready, go});
    ASSERT_TRUE(WaitForFile(ready));
    // Flags outside the locking table neither lock nor wait: they open at
    // once, report false, and see the holder's lock (and later none).
    auto probe = [&] {
        FileLock f;
        EXPECT_FALSE(f.OpenAndLockFile(file.c_str(), O_WRONLY | O_CREAT, nullptr, false));
        return lockf(f.GetFileDescriptor(), F_TEST, 0) != 0;
    };
    EXPECT_TRUE(probe());
    std::atomic<bool> acquired{false}, appended{false};
    std::atomic<pid_t> tid{0};
    std::thread opener([&] {
        tid = tvtest::CurrentTid();
        FileLock f;
        if (!f.OpenAndLockFile(file.c_str(), O_CREAT, nullptr, false)) return;
        acquired = true;
        appended = AppendLocked(f, "B");
        f.CloseAndUnLockFile();
    });
    // The child goes on once the opener sleeps on the lock; either way "B"
    // can only follow "A".
    while (tid == 0) std::this_thread::yield();
    EXPECT_TRUE(tvtest::WaitUntilSleeping(tid));
    EXPECT_FALSE(acquired.load());
    tvtest::WriteFile(go, "go");
    EXPECT_EQ(0, tvtest::WaitChild(child));
    opener.join();
    EXPECT_TRUE(acquired.load());
    EXPECT_TRUE(appended.load());
    EXPECT_EQ("AB", tvtest::ReadFile(file));
    EXPECT_FALSE(probe());
}

namespace {

// Two complete states of the values s0..s3 of Flip: equal lengths, and
// lengths that differ a lot either way.
const char* const kFlip[2][4] = {{"AAAA", "A-side", "A", "alpha-alpha-alpha-alpha-alpha-alpha"},
                                 {"BBBB", "B-side", "BBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBB", "b"}};

}  // namespace

// args: go marker, rounds. Flips Flip between the two states, each flip one
// open, four sets and a close (one write of the file).
TV_TEST_CHILD(reg_flip) {
    InitRegistry(0, 1);
    if (!WaitForFile(args.at(0))) return 2;
    int failures = 0;
    for (int i = 0; i < std::stoi(args.at(1)); ++i) {
        HKEY h = Create("Flip");
        for (int v = 0; v < 4; ++v) failures += SetSz(h, "s" + std::to_string(v), kFlip[i % 2][v]);
        failures += RegCloseKey(h) != 0;
    }
    CleanSystemResources();
    return failures == 0 ? 0 : 1;
}

// Threads of this process read values that another process keeps rewriting:
// through fresh opens (each may re-read the file) and through a handle held
// all along. Every read is one whole value of one state, never missing or
// mixed; afterwards the last state is what this process sees.
TEST(RegistryMultiProcess, ReadersSeeWholeValuesWhileAnotherProcessWrites) {
    RegistryEnv env;
    HKEY init = Create("Flip");
    for (int v = 0; v < 4; ++v) SetSz(init, "s" + std::to_string(v), kFlip[0][v]);
    ASSERT_EQ(0, RegCloseKey(init));
    const std::string go = env.file("go");
    const pid_t writer = tvtest::SpawnChild("reg_flip", {go, "300"});
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0}, wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&, t] {
            const HKEY held = t == 0 ? Open("Flip") : 0;
            while (!stop) {
                const HKEY h = held != 0 ? held : Open("Flip");
                for (int v = 0; v < 4; ++v) {
                    const std::string got = GetSz(h, "s" + std::to_string(v));
                    if (got != kFlip[0][v] && got != kFlip[1][v] && wrong++ == 0) {
                        ADD_FAILURE() << "s" << v << " read as " << got;
                    }
                    ++reads;
                }
                if (h != held) RegCloseKey(h);
            }
            if (held != 0) RegCloseKey(held);
        });
    }
    Touch(go);
    const int status = WaitChildFor(writer, 120);
    stop = true;
    for (auto& t : readers) t.join();
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, wrong.load()) << reads.load() << " reads";
    for (int v = 0; v < 4; ++v) EXPECT_EQ(kFlip[1][v], Query("Flip", "s" + std::to_string(v)));
}
