// Helpers shared by the process tests: zombie and descriptor counts from
// /proc, the test program's own path, and children held until released.
#ifndef TV_TESTS_PROCESS_TEST_UTIL_H
#define TV_TESTS_PROCESS_TEST_UTIL_H

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <tvcommonutil.h>

namespace proctest {

// The parent pid and state letter of a process, from its stat line.
inline bool StatOf(long pid, long* ppid, char* state) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(in, line);
    size_t close = line.rfind(')');
    if (close == std::string::npos || close + 4 >= line.size()) return false;
    *state = line[close + 2];
    *ppid = strtol(line.c_str() + close + 4, nullptr, 10);
    return true;
}

// Children of this process that are zombies.
inline int ZombieChildren() {
    int zombies = 0;
    DIR* d = opendir("/proc");
    if (!d) return -1;
    while (dirent* e = readdir(d)) {
        long ppid = 0;
        char state = 0;
        if (e->d_name[0] >= '0' && e->d_name[0] <= '9' &&
            StatOf(strtol(e->d_name, nullptr, 10), &ppid, &state) && state == 'Z' &&
            ppid == getpid()) {
            ++zombies;
        }
    }
    closedir(d);
    return zombies;
}

inline int OpenFdCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/fd");
    if (!d) return -1;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(d);
    return n - 1;  // the directory's own descriptor
}

inline std::string SelfExe() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return std::string();
    buf[n] = '\0';
    return buf;
}

// A child started with CreateProcess whose standard input is a pipe held
// here: it runs until Release() closes the pipe (its reads then see end of
// file). The handle is closed on destruction.
class HeldChild {
public:
    explicit HeldChild(const std::string& commandLine, DWORD flags = 0) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return;
        writeEnd_ = fds[1];
        Handle* in = new File(fds[0]);
        STARTUPINFO si;
        memset(&si, 0, sizeof si);
        si.dwFlags = kStartupUseStdHandles;
        si.hStdInput = in;
        si.hStdOutput = INVALID_HANDLE_VALUE;
        si.hStdError = INVALID_HANDLE_VALUE;
        std::string line = commandLine;
        PROCESS_INFORMATION pi;
        memset(&pi, 0, sizeof pi);
        if (CreateProcess(nullptr, &line[0], nullptr, nullptr, FALSE, flags, nullptr, nullptr, &si,
                          &pi)) {
            process_ = pi.hProcess;
            pid_ = static_cast<long>(pi.dwProcessId);
        }
        CloseHandle(in);
    }
    ~HeldChild() {
        Release();
        if (process_) {
            WaitForSingleObjectEx(process_, 10000, FALSE);  // reaps it: no zombie left
            CloseHandle(process_);
        }
    }
    HeldChild(const HeldChild&) = delete;
    HeldChild& operator=(const HeldChild&) = delete;

    void Release() {
        if (writeEnd_ >= 0) close(writeEnd_);
        writeEnd_ = -1;
    }
    Handle* handle() const { return process_; }
    long pid() const { return pid_; }

private:
    int writeEnd_ = -1;
    Handle* process_ = nullptr;
    long pid_ = 0;
};

}  // namespace proctest

#endif  // TV_TESTS_PROCESS_TEST_UTIL_H
