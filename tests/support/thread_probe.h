// Observes another thread of this process from /proc, so a test can wait
// until that thread is really blocked in the kernel instead of sleeping and
// hoping it got there.
#ifndef TV_TEST_THREAD_PROBE_H
#define TV_TEST_THREAD_PROBE_H

#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>

namespace tvtest {

inline pid_t CurrentTid() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// The scheduler state letter of thread `tid` ('R', 'S', 'D', 'T', ...).
inline char ThreadState(pid_t tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(in, line);
    size_t close = line.rfind(')');
    if (close == std::string::npos || close + 2 >= line.size()) return '?';
    return line[close + 2];
}

// Polls until thread `tid` sleeps in the kernel; false after `ms`.
inline bool WaitUntilSleeping(pid_t tid, int ms = 10000) {
    for (int i = 0; i < ms * 10; ++i) {
        char s = ThreadState(tid);
        if (s == 'S' || s == 'D' || s == 't' || s == 'T') return true;
        timespec t = {0, 100000};
        nanosleep(&t, nullptr);
    }
    return false;
}

}  // namespace tvtest

#endif  // TV_TEST_THREAD_PROBE_H
