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

#include "registry/registry_internal.h"

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
