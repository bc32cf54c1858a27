// Kernel change reports for the scanner: which scanned directories the
// kernel watches for us, which of them it has reported changed since their
// last read, and the running watcher loops to wake. How the scanner uses
// this is described at the top of dir_scan.cpp.
#ifndef TVCOMMONUTIL_NOTIFY_KERNEL_WATCH_H
#define TVCOMMONUTIL_NOTIFY_KERNEL_WATCH_H

#include <sys/stat.h>

#include <string_view>

class WatchDirsThreadObject;

namespace tv {
namespace detail {

// Everything below but the loop registration, KernelWatchFd and
// KernelWatchKick requires DirScan_lock, which guards the watch state.

// Whether a scan in a kernel-woken pass must read the directory under `key`
// (slash-terminated table key): true unless the kernel watches it, has
// reported nothing there since its last complete read, and what it watches
// is still the directory `identity` describes (when given: as a read of
// the parent just found it). Always true while no watcher loop runs.
bool KernelWatchNeedsRead(std::string_view key, const struct stat* identity);
// Called with the directory open and before its first readdir, so that any
// change the read may miss is reported afterwards. Marks it due for a read
// until KernelWatchAfterRead says the read completed.
void KernelWatchBeforeRead(std::string_view key, int dirFd);
// The read completed. `settled` false keeps it due (a name was left for the
// next pass, which then follows at once); `polled` true when its outcome
// depends on more than its own kernel reports (symbolic links, the server's
// recent private files), so every pass reads it.
void KernelWatchAfterRead(std::string_view key, bool settled, bool polled);
// The table entry is gone: its watch goes too.
void KernelWatchForget(std::string_view key);
// Reads every queued kernel report and marks the directories it names.
// An overflowed queue marks every watched directory.
void KernelWatchDrain();
// At the end of a loop pass: drops the watches of the directories it did
// not reach (no handle watches them any more); they are read afresh if a
// later pass reaches them again.
void KernelWatchPrune();
// True once after a pass in which a directory asked for another pass.
bool KernelWatchTakeRescan();

// The descriptor a sleeping loop polls for kernel reports; -1 without one.
// Thread-safe.
int KernelWatchFd();
// A watcher loop begins or ends. Kernel watching is on while at least one
// loop runs (the loops are what read the reports); when the last one ends
// every watch goes and the directories are read again by the next loop.
void KernelWatchLoopStarted(WatchDirsThreadObject* loop);
void KernelWatchLoopEnded(WatchDirsThreadObject* loop);
// Wakes every running loop (a handle was registered). Thread-safe.
void KernelWatchKick();

}  // namespace detail
}  // namespace tv

#endif  // TVCOMMONUTIL_NOTIFY_KERNEL_WATCH_H
