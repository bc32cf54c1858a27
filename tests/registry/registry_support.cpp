#include "registry_support.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "registry/testing.h"

namespace regtest {

const char kBaseRegistry[] = "\nHKEY_LOCAL_MACHINE=536870913\n\n";

RegistryEnv::RegistryEnv(const std::string& templateText, const std::string* registryText) {
    install_ = dir_.path() + "/";
    mkdir((install_ + "registry").c_str(), 0755);
    tvtest::WriteFile(templateFile(), templateText);
    if (registryText != nullptr) tvtest::WriteFile(registryFile(), *registryText);
    tv::detail::RegistryResetForTests();
    setenv("TV_REGISTRY", install_.c_str(), 1);
}

RegistryEnv::~RegistryEnv() {
    tv::detail::RegistryResetForTests();
    RemoveSysV(lockFile());
}

HKEY Create(const std::string& path, HKEY parent, REGSAM sam) {
    HKEY h = 0;
    EXPECT_EQ(0, RegCreateKeyEx(parent, path.c_str(), 0, nullptr, 0, sam, nullptr, &h, nullptr))
        << path;
    return h;
}

HKEY Open(const std::string& path, REGSAM sam, HKEY parent) {
    HKEY h = 0;
    EXPECT_EQ(0, RegOpenKeyEx(parent, path.c_str(), 0, sam, &h)) << path;
    return h;
}

LONG SetSz(HKEY h, const std::string& name, const std::string& value) {
    return RegSetValueEx(h, name.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                         static_cast<DWORD>(value.size() + 1));
}

std::string GetSz(HKEY h, const std::string& name) {
    std::vector<char> buf(8192);
    DWORD size = static_cast<DWORD>(buf.size());
    LONG r = RegQueryValueEx(h, name.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(buf.data()),
                             &size);
    return r == 0 ? std::string(buf.data()) : "<" + std::to_string(r) + ">";
}

unsigned long GetDword(HKEY h, const std::string& name) {
    unsigned long v = 0;
    DWORD size = sizeof v;
    EXPECT_EQ(
        0, RegQueryValueEx(h, name.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(&v), &size));
    return v;
}

DWORD ValueCount(HKEY h) {
    DWORD values = 0;
    EXPECT_EQ(0, RegQueryInfoKey(h, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values,
                                 nullptr, nullptr, nullptr, nullptr));
    return values;
}

LONG SetAndClose(const std::string& path, const std::string& name, const std::string& value) {
    HKEY h = 0;
    LONG r = RegCreateKeyEx(0, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr);
    if (r != 0) return r;
    r = SetSz(h, name, value);
    const LONG c = RegCloseKey(h);
    return r != 0 ? r : c;
}

std::string Query(const std::string& path, const std::string& name) {
    HKEY h = 0;
    if (RegOpenKeyEx(0, path.c_str(), 0, 0, &h) != 0) return "<no key>";
    const std::string v = GetSz(h, name);
    RegCloseKey(h);
    return v;
}

bool KeyExists(const std::string& path) {
    HKEY h = 0;
    if (RegOpenKeyEx(0, path.c_str(), 0, 0, &h) != 0) return false;
    RegCloseKey(h);
    return true;
}

::testing::AssertionResult Has(const std::string& text, const std::string& needle) {
    const bool found = text.find(needle) != std::string::npos;
    return (found ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
           << "'" << needle << "' " << (found ? "is" : "is not") << " in:\n"
           << text;
}

void RemoveSysV(const std::string& lockFile) {
    key_t key = ftok(lockFile.c_str(), 1);
    if (key == static_cast<key_t>(-1)) return;
    int sem = semget(key, 1, 0);
    if (sem >= 0) semctl(sem, 0, IPC_RMID);
    int shm = shmget(key, 0, 0);
    if (shm >= 0) shmctl(shm, IPC_RMID, nullptr);
}

bool SysVExists(const std::string& lockFile) {
    key_t key = ftok(lockFile.c_str(), 1);
    if (key == static_cast<key_t>(-1)) return false;
    return semget(key, 1, 0) >= 0 || shmget(key, 0, 0) >= 0;
}

bool WaitForFile(const std::string& path) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!tvtest::FileExists(path)) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

int WaitChildFor(pid_t pid, int seconds) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            if (WIFEXITED(status)) return WEXITSTATUS(status);
            if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
            return -1;
        }
        if (r < 0 && errno != EINTR) return -1;
        if (std::chrono::steady_clock::now() > end) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -2;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace regtest
