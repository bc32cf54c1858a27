// Threads and asynchronous procedure calls, SleepEx, the thread pool.
#ifndef TVCOMMONUTIL_THREADS_H
#define TVCOMMONUTIL_THREADS_H

#include "export.h"
#include "foundation.h"
#include "handles.h"
#include "types.h"

#endif  // TVCOMMONUTIL_THREADS_H
