// Process-wide set-up shared by the process files.
#ifndef TV_THREADS_PROCESS_INTERNAL_H
#define TV_THREADS_PROCESS_INTERNAL_H

namespace tv {
namespace detail {

// Runs ProcInit and SpawnInit once per process (at load, and again lazily
// from the entry points in case they are reached from another unit's static
// initialiser first).
void EnsureProcessInit();
// Child side of a fork: the watcher thread does not exist there.
void ResetProcessWatcherAfterFork();

}  // namespace detail
}  // namespace tv

#endif  // TV_THREADS_PROCESS_INTERNAL_H
