// Internal helpers shared by the wait code.
#ifndef TV_HANDLES_WAIT_INTERNAL_H
#define TV_HANDLES_WAIT_INTERNAL_H

#include <time.h>

class Event;

namespace tv {
namespace detail {

// Splits a millisecond time-out into whole seconds and milliseconds; 0 and
// INFINITE give 0/0. Sub-second time-outs are kept (unlike FixTimeout).
void SplitTimeout(unsigned long ms, long& secs, long& msecs);
// CLOCK_REALTIME now plus the split time-out, with the nanoseconds rounded
// up to whole milliseconds when a millisecond part is added.
void DeadlineAfter(long secs, long msecs, timespec& deadline);

// Installed by the registry: detaches an event whose data still names a key
// when the event is destroyed. Null until the registry is linked in.
extern void (*g_unnotify_hook)(long data, Event* e);

}  // namespace detail
}  // namespace tv

#endif  // TV_HANDLES_WAIT_INTERNAL_H
