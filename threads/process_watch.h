// How a thread waits for processes to end: the Linux side of the process
// handles.
//
// Contract
// --------
// WaitForProcesses(count, handles, waitAll, ms, alertable) waits until one
// (wait-any) or all (wait-all) of the Process handles have ended, the
// time-out expires (WAIT_TIMEOUT), or, when alertable, an APC has run
// (WAIT_IO_COMPLETION). Every end it sees is recorded in the Process (state
// 1, exit status when the process is a child or traced), and the Process's
// synchronisation event is set. It never modifies the caller's array. It
// needs SIGCHLD blocked in the calling thread only for its own duration (it
// blocks it itself); the library keeps SIGCHLD blocked everywhere anyway so
// that no thread discards it.
//
// Two backends, chosen per process waited on:
//  - process descriptors: pidfd_open + ppoll, the exit status then taken with
//    waitpid. This changes nothing in the process waited on (it can be
//    debugged, traced by strace, run a leak checker), so it is what our own
//    children get whenever the kernel has pidfd_open (5.3 and later; decided
//    once per process, on the first wait). It is also used for every process
//    when tracing is refused with EPERM (a hardened kernel, a process traced
//    by somebody else, a zombie), for zero time-outs (a poll must not stop
//    anybody), and when forced by SetProcessWaitMethod. It sees the end of
//    any process; the status is known only for our own children. Where
//    pidfd_open is missing, processes are polled every 20 ms instead.
//  - tracing, the fallback: for a process that is not our child (a detached
//    spawn's grandchild, an opened pid), or for our children on a kernel
//    without process descriptors. The thread attaches with PTRACE_SEIZE (no
//    stop is injected, unlike PTRACE_ATTACH), sleeps in sigtimedwait on
//    SIGCHLD, polls each process with waitpid(WNOHANG | __WALL), passes every
//    signal-delivery stop on to the tracee, and detaches from the processes
//    still running when it returns. It gives the exit status of processes
//    that are not our children. While traced, the process cannot be traced
//    by anybody else, and each signal it receives passes through the tracer.
//
// SIGCHLD is a single, non-queued, process-wide signal, so one waiting
// thread can take the SIGCHLD meant for another. Waiting threads are
// registered, and a thread that takes a SIGCHLD forwards it (pthread_kill)
// to the other registered waiters. A SIGCHLD discarded by a thread that left
// it unblocked (one that existed before the library was loaded) is covered
// by re-polling at least every kRepollMs.
#ifndef TV_THREADS_PROCESS_WATCH_H
#define TV_THREADS_PROCESS_WATCH_H

#include <sys/types.h>

class Handle;
class Process;

namespace tv {
namespace detail {

constexpr unsigned long kRepollMs = 1000;

enum ProcessWaitMethod {
    kWaitAuto = 0,   // descriptors for own children, else tracing where allowed
    kWaitPidFd = 1,  // descriptors only, as where tracing is always refused
    kWaitPoll = 2,   // neither: waitpid/kill polling, as without pidfd_open
};
// Process-wide switch, for tests and for hosts where tracing is unwanted.
void SetProcessWaitMethod(ProcessWaitMethod m);
ProcessWaitMethod GetProcessWaitMethod();

unsigned long WaitForProcesses(unsigned long count, Handle** handles, int waitAll, unsigned long ms,
                               int alertable);

}  // namespace detail
}  // namespace tv

#endif  // TV_THREADS_PROCESS_WATCH_H
