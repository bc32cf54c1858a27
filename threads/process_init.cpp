// Load-time set-up of the process code: SIGCHLD blocked in the loading
// thread (so that every thread created after it inherits the block and no
// thread discards a SIGCHLD that a process wait is about to take), and the
// child-side fork handler that keeps SpawnMutex usable in children.
//
// Blocking SIGCHLD does not get in the way of plain fork + waitpid users
// (waitpid does not need the signal); it only means a SIGCHLD handler
// installed by the program never runs in threads that inherit the block.
#include <pthread.h>
#include <signal.h>

#include "threads/process_internal.h"
#include "tvcommonutil/processes.h"

sigset_t SigChildMask;

void ProcInit() {
    sigemptyset(&SigChildMask);
    sigaddset(&SigChildMask, SIGCHLD);
    if (!bRunningInServer) pthread_sigmask(SIG_BLOCK, &SigChildMask, nullptr);
}

namespace tv {
namespace detail {
namespace {

void InitOnce() {
    ProcInit();
    SpawnInit();
}

struct ProcessLoadInit {
    ProcessLoadInit() { EnsureProcessInit(); }
} process_load_init;

}  // namespace

void EnsureProcessInit() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, InitOnce);
}

}  // namespace detail
}  // namespace tv
