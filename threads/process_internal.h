// Process-wide set-up shared by the process files.
#ifndef TV_THREADS_PROCESS_INTERNAL_H
#define TV_THREADS_PROCESS_INTERNAL_H

#include <sys/types.h>

namespace tv {
namespace detail {

// Runs ProcInit and SpawnInit once per process (at load, and again lazily
// from the entry points in case they are reached from another unit's static
// initialiser first).
void EnsureProcessInit();

// Hands a child of CreateProcess that nobody will wait for to the reaper
// (process_reaper.cpp), which reaps it when it ends.
void AdoptChild(pid_t pid);

// Fork handlers of the process code. SpawnInit registers one set that calls
// them in a fixed order: Prepare takes the watcher's request lock, the
// reaper's lock and the process waiters' lock, in that order (the order the
// code nests them, each later one being a leaf); Parent releases them in
// reverse; Child re-initialises each (and the spawn lock, which a program
// may hold across its own fork) and forgets the parent's threads (watcher,
// reaper, waiters), which the child restarts on first need.
void WatcherForkPrepare();
void WatcherForkParent();
void WatcherForkChild();
void ReaperForkPrepare();
void ReaperForkParent();
void ReaperForkChild();
void WaitersForkPrepare();
void WaitersForkParent();
void WaitersForkChild();

}  // namespace detail
}  // namespace tv

#endif  // TV_THREADS_PROCESS_INTERNAL_H
