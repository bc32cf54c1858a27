// The wait core: the waiter record, the sleeper list of a waitable object
// and the waits built on them. The protocol is described at the top of
// handles/wait_core.cpp.
#ifndef TV_HANDLES_WAIT_INTERNAL_H
#define TV_HANDLES_WAIT_INTERNAL_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "foundation/clock_internal.h"
#include "tvcommonutil/handles.h"

namespace tv {
namespace detail {

// One thread inside one wait. Lives on the waiting thread's stack; every
// other thread touches it only while holding a lock that the waiter must
// take before it returns (an object lock with one of its nodes linked, or
// the lock of its thread's APC queue while it is registered there).
//
// word_ is the futex word. Bits: kClaimed (a wait-any is decided; the low
// byte says by what), kDone (the claiming signaller has finished with the
// record), kAlerted (an APC was queued); the middle bits count the pokes a
// wait-all gets when one of its objects changes.
class Waiter {
public:
    static constexpr uint32_t kClaimed = 1u << 31;
    static constexpr uint32_t kDone = 1u << 30;
    static constexpr uint32_t kAlerted = 1u << 29;
    static constexpr uint32_t kIndexMask = 0xFF;
    static constexpr uint32_t kByTimeout = 0xFF;
    static constexpr uint32_t kByApc = 0xFE;
    static constexpr uint32_t kPokeUnit = 1u << 8;
    static constexpr uint32_t kPokeMask = 0xFFFFFu << 8;

    explicit Waiter(bool waitAll) : word_(0), tid_(pthread_self()), waitAll_(waitAll) {}
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    pthread_t tid() const { return tid_; }
    bool waitAll() const { return waitAll_; }
    uint32_t Load() const { return word_.load(std::memory_order_acquire); }

    // Decides a wait-any for `code` (an index, kByTimeout or kByApc); false
    // when it was decided already.
    bool TryClaim(uint32_t code);
    // The claiming signaller's last touch of the record.
    void FinishClaim();
    void Poke();
    void Alert();
    // Sleeps while the word still reads `seen`; false once `deadline` passed.
    bool Sleep(uint32_t seen, const Deadline& deadline);

private:
    void Wake();

    std::atomic<uint32_t> word_;
    const pthread_t tid_;
    const bool waitAll_;
};

// A wait's entry in one object's sleeper list (on the waiter's stack).
struct WaitNode {
    Waiter* waiter;
    Waitable* object;
    uint32_t index;
    bool linked TV_GUARDED_BY(object->lock_);
    WaitNode* prev TV_GUARDED_BY(object->lock_);
    WaitNode* next TV_GUARDED_BY(object->lock_);
};

// Registers the waiter of a finite alertable wait with the calling thread,
// so that QueueAPC can alert it, for the scope's lifetime. pending() is true
// when APCs were queued before the wait began. Defined with the thread code;
// the core knows threads only through this.
class AlertableWaitScope {
public:
    AlertableWaitScope(int alertable, unsigned long ms, Waiter* waiter);
    ~AlertableWaitScope();
    AlertableWaitScope(const AlertableWaitScope&) = delete;
    AlertableWaitScope& operator=(const AlertableWaitScope&) = delete;
    bool active() const { return active_; }
    bool pending() const { return pending_; }

private:
    Handle* thread_;
    bool active_;
    bool pending_;
};
// Runs the calling thread's queued APCs (defined with the thread code).
int RunQueuedApcs();

// Wakes the sleepers of `o` while it has units to give (call with o's lock
// held, after making units available).
void WakeSleepersLocked(Waitable* o) TV_REQUIRES(o->lock_);

// Waits for any one or all of `count` objects (some may be null: such an
// entry never completes). `handles` are the objects as the caller named them,
// for the reference the wait holds on each. Returns WAIT_OBJECT_0 + index,
// WAIT_TIMEOUT or WAIT_IO_COMPLETION.
unsigned long WaitCore(unsigned long count, Waitable* const* objects, Handle* const* handles,
                       bool waitAll, unsigned long ms, int alertable);

// The general multi-object wait over handles of any kinds (no dispatch to a
// class's own multi-object wait).
unsigned long WaitForAnyObjects(unsigned long count, Handle** handles, int waitAll,
                                unsigned long ms, int alertable);

// Installed by the registry: detaches an event whose data still names a key
// when the event is destroyed. Null until the registry is linked in.
extern void (*g_unnotify_hook)(long data, Event* e);

}  // namespace detail
}  // namespace tv

#endif  // TV_HANDLES_WAIT_INTERNAL_H
