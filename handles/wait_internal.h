// Internal helpers shared by the wait code.
#ifndef TV_HANDLES_WAIT_INTERNAL_H
#define TV_HANDLES_WAIT_INTERNAL_H

#include <time.h>

#include "foundation/clock_internal.h"

class Event;
class Handle;
class TvPlatformThread;

namespace tv {
namespace detail {

// Splits a millisecond time-out into whole seconds and milliseconds; 0 and
// INFINITE give 0/0. Sub-second time-outs are kept (unlike FixTimeout).
void SplitTimeout(unsigned long ms, long& secs, long& msecs);

// Records a finite alertable wait on `object` with the calling thread, so
// that QueueAPC can end it through `wake` (which must take the object's lock
// and wake its sleepers); the record is removed when the scope ends. For a
// wait that cannot be ended by an APC (not alertable, 0 or INFINITE) it does
// nothing and thread() is null. The waiter checks thread()->HasPendingAPC()
// under the object's lock before every sleep.
class AlertableWaitScope {
public:
    AlertableWaitScope(int alertable, unsigned long ms, Handle* object, void (*wake)(Handle*));
    ~AlertableWaitScope();
    AlertableWaitScope(const AlertableWaitScope&) = delete;
    AlertableWaitScope& operator=(const AlertableWaitScope&) = delete;
    TvPlatformThread* thread() const { return thread_; }

private:
    TvPlatformThread* thread_;
};

// Installed by the registry: detaches an event whose data still names a key
// when the event is destroyed. Null until the registry is linked in.
extern void (*g_unnotify_hook)(long data, Event* e);

}  // namespace detail
}  // namespace tv

#endif  // TV_HANDLES_WAIT_INTERNAL_H
