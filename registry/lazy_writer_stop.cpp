// Stopping the registry lazy writer from the thread that started it.
//
// The writer's loop sleeps at a cancellation point and keeps cancellation
// off while it writes, so a cancel never cuts a write short; its clean-up
// handler writes whatever is still pending before the thread ends.
#include <errno.h>
#include <pthread.h>

#include "tvcommonutil/handles.h"
#include "tvcommonutil/registry.h"
#include "tvcommonutil/threads.h"

BOOL RegStopLazyWriter(HANDLE thread) {
    if (thread == nullptr || thread == INVALID_HANDLE_VALUE || thread->What() != kHandleThread) {
        errno = ERROR_INVALID_HANDLE;
        return FALSE;
    }
    pthread_cancel(static_cast<TvPlatformThread*>(thread)->GetTid());
    return WaitForSingleObjectEx(thread, INFINITE, FALSE) == WAIT_OBJECT_0 ? TRUE : FALSE;
}
