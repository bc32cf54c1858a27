// Process enumeration and naming against real processes and threads.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <tvcommonutil.h>

#include "process_test_util.h"
#include "test_support.h"
#include "thread_probe.h"

// Reads its standard input to the end, then exits.
TV_TEST_CHILD(held_stdin) {
    (void)args;
    char buf[64];
    while (read(0, buf, sizeof buf) > 0) {
    }
    return 0;
}

namespace {

using proctest::HeldChild;

std::vector<DWORD> List(BOOL (*lister)(DWORD*, DWORD, DWORD*), size_t capacity = 1 << 16) {
    std::vector<DWORD> ids(capacity + 1, 0xabcdef);
    DWORD bytes = 12345;
    EXPECT_TRUE(lister(ids.data(), static_cast<DWORD>(capacity * sizeof(DWORD)), &bytes));
    EXPECT_EQ(bytes % sizeof(DWORD), 0u);
    EXPECT_EQ(ids[capacity], 0xabcdefu) << "wrote past the capacity";
    ids.resize(bytes / sizeof(DWORD));
    return ids;
}

bool Has(const std::vector<DWORD>& ids, long pid) {
    return std::find(ids.begin(), ids.end(), static_cast<DWORD>(pid)) != ids.end();
}

// A thread that stays alive until the object goes away.
struct ParkedThread {
    std::promise<void> stop;
    std::atomic<pid_t> id{0};
    std::thread thread{[this] {
        id = tvtest::CurrentTid();
        stop.get_future().wait();
    }};
    ParkedThread() {
        while (id.load() == 0) sched_yield();
    }
    ~ParkedThread() {
        stop.set_value();
        thread.join();
    }
    pid_t tid() const { return id.load(); }
};

TEST(EnumProcesses, ListsProcessesAndNoThreads) {
    ParkedThread thread;
    HeldChild shell("/bin/sh -c \"read x\"");
    HeldChild twin(proctest::SelfExe() + " --tv-child held_stdin");
    ASSERT_NE(shell.handle(), nullptr);
    ASSERT_NE(twin.handle(), nullptr);

    std::vector<DWORD> precise = List(EnumProcesses);
    EXPECT_TRUE(Has(precise, getpid()));
    EXPECT_TRUE(Has(precise, shell.pid()));
    EXPECT_TRUE(Has(precise, twin.pid()));
    EXPECT_FALSE(Has(precise, thread.tid()));
    EXPECT_EQ(bDumbProcfs, 0);

    // A name with blanks and parentheses shifts nothing.
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    pid_t named = fork();
    if (named == 0) {
        char c;
        prctl(PR_SET_NAME, "my worker (x)");
        close(gate[1]);
        _exit(static_cast<int>(read(gate[0], &c, 1)));
    }
    close(gate[0]);
    while (GetProcessName(named, FALSE) != CKWString("my worker (x)")) sched_yield();
    EXPECT_TRUE(Has(List(EnumProcesses), named));
    close(gate[1]);
    EXPECT_EQ(tvtest::WaitChild(named), 0);

    // The fall-back takes a child named like its parent for a thread.
    std::vector<DWORD> dumb = List(DumbEnumProcesses);
    EXPECT_TRUE(Has(dumb, getpid()));
    EXPECT_TRUE(Has(dumb, shell.pid()));
    EXPECT_FALSE(Has(dumb, twin.pid()));
    EXPECT_FALSE(Has(dumb, thread.tid()));
    EXPECT_FALSE(Has(dumb, 1)) << "the first process has parent 0 and is never listed";
    EXPECT_TRUE(std::is_sorted(dumb.begin(), dumb.end()));
}

TEST(EnumProcesses, EveryEntryReadCountsAgainstTheCapacity) {
    // "." and ".." and the named entries of /proc come before the processes,
    // so a small capacity yields no ids however few processes exist.
    for (BOOL (*lister)(DWORD*, DWORD, DWORD*) : {EnumProcesses, DumbEnumProcesses}) {
        EXPECT_TRUE(List(lister, 0).empty());
        EXPECT_TRUE(List(lister, 2).empty());
    }
    // A byte count that is not a multiple of 8 is rounded down.
    DWORD ids[2] = {0, 0xabcdef};
    DWORD bytes = 1;
    EXPECT_TRUE(EnumProcesses(ids, 15, &bytes));
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(ids[1], 0xabcdefu);
}

TEST(ProcessNames, ExecutableAndCommandName) {
    EXPECT_EQ(std::string(GetProcessName(getpid(), 1).c_str()), proctest::SelfExe());
    std::ifstream commFile("/proc/self/comm");
    std::string comm;
    std::getline(commFile, comm);
    EXPECT_EQ(std::string(GetProcessName(getpid(), 0).c_str()), comm);
    EXPECT_TRUE(GetProcessName(0x7ffffff0, 1).empty());
    EXPECT_TRUE(GetProcessName(0x7ffffff0, 0).empty());

    HeldChild shell("/bin/sh -c \"read x\"");
    ASSERT_NE(shell.handle(), nullptr);
    char real[4096];
    ASSERT_NE(realpath("/bin/sh", real), nullptr);
    EXPECT_EQ(std::string(GetProcessName(shell.pid(), 1).c_str()), real);
    char buf[4096];
    EXPECT_EQ(GetModuleFileNameEx(shell.handle(), nullptr, buf, sizeof buf), strlen(real));
    EXPECT_STREQ(buf, real);
}

TEST(ProcessNames, InstanceNameFromDirectoryOrCommandLine) {
    HeldChild server(proctest::SelfExe() + " --tv-child held_stdin /srv/https-inst1/config");
    ASSERT_NE(server.handle(), nullptr);
    EXPECT_EQ(std::string(GetProcessInstanceName(server.pid()).c_str()), "https-inst1");
    HeldChild plain(proctest::SelfExe() + " --tv-child held_stdin /srv/other/config");
    EXPECT_TRUE(GetProcessInstanceName(plain.pid()).empty());

    tvtest::TempDir dir;
    const std::string inside = dir.path() + "/https-web7";
    ASSERT_EQ(mkdir(inside.c_str(), 0700), 0);
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof saved), nullptr);
    ASSERT_EQ(chdir(inside.c_str()), 0);
    std::string own = GetProcessInstanceName(0).c_str();
    ASSERT_EQ(chdir(saved), 0);
    EXPECT_EQ(own, "https-web7");
}

TEST(ModuleFileName, BoundedByTheCallersSize) {
    const std::string self = proctest::SelfExe();
    char buf[4096];
    EXPECT_EQ(GetModuleFileName(nullptr, buf, sizeof buf), self.size());
    EXPECT_EQ(self, buf);

    char small[8];
    memset(small, 'Z', sizeof small);
    DWORD n = GetModuleFileName(nullptr, small, 5);
    EXPECT_EQ(n, 4u);
    EXPECT_EQ(std::string(small), self.substr(0, 4));
    EXPECT_EQ(small[5], 'Z');
    EXPECT_EQ(GetModuleFileName(nullptr, small, 0), 0u);
    EXPECT_EQ(small[5], 'Z');

    void* libc = dlopen("libc.so.6", RTLD_LAZY | RTLD_NOLOAD);
    ASSERT_NE(libc, nullptr);
    n = GetModuleFileName(libc, buf, sizeof buf);
    EXPECT_GT(n, 0u);
    EXPECT_NE(std::string(buf).find("libc"), std::string::npos) << buf;
    n = GetModuleFileName(libc, small, 3);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(small[5], 'Z');
    dlclose(libc);
}

}  // namespace
