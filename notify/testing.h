// Test hooks of the change notification subsystem, for tests and benchmarks
// only: a cap on the kernel watches, standing in for the system's limit.
#ifndef TVCOMMONUTIL_NOTIFY_TESTING_H
#define TVCOMMONUTIL_NOTIFY_TESTING_H

namespace tv {
namespace notifytesting {

// At most `limit` directories are watched by the kernel from now on; the
// rest are polled, as when the system's limit is reached. -1 lifts the cap;
// 0 leaves everything to polling.
void SetKernelWatchLimit(long limit);
// Directories the kernel watches for this process now.
long KernelWatchCount();

}  // namespace notifytesting
}  // namespace tv

#endif  // TVCOMMONUTIL_NOTIFY_TESTING_H
