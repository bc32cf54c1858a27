// The wait core: one way of waiting for events, mutexes, semaphores, and
// (through their synchronisation events) threads, processes, notification
// handles and completion ports.
//
// Objects and waiters
// -------------------
// Every waitable object (tv::detail::Waitable) has its own lock and a list
// of the waits sleeping on it. There is no process-wide lock: a signaller
// takes only its object's lock, and a wait takes one object lock at a time,
// except a wait-all deciding whether it can complete, which takes all of its
// objects' locks in address order. Lock order: object locks by address, then
// a thread's APC-queue lock (QueueAPC alerts a registered waiter under it).
//
// A wait is a Waiter record on the waiting thread's stack, with one futex
// word, plus one WaitNode per object linked into that object's list. The
// waiter sleeps on its own word (FUTEX_WAIT_BITSET on an absolute
// CLOCK_MONOTONIC deadline) and nobody else ever sleeps there.
//
// Wake protocol
// -------------
// Wait-any: under the object's lock the wait first links its node, then
// tries to take a unit (TakeLocked). Linking first means a signaller that
// makes a unit available after the try finds the node. A signaller, holding
// its object's lock, walks the list: for each wait-any node it takes a unit
// on the waiter's behalf, then tries to claim the waiter (CAS kClaimed|index
// into the word). A claim that fails (the waiter was decided by another
// object, its time-out or an APC) gives the unit back and goes on. A claim
// that succeeds unlinks the node and, as its last touch of the record, sets
// kDone and wakes the futex. The waiter therefore returns with the unit
// already consumed for it: one SetEvent of an auto-reset event, one unit of
// a semaphore, one release of a mutex satisfies exactly one wait, whichever
// kinds of waits watch the object. A waiter that decides itself (time-out,
// APC) claims its own word; signallers then fail their claims.
//
// Wait-all: signallers do not consume for it; they poke (count up the
// word's middle bits and wake). The wait reads its word, takes every lock
// in address order, and either takes a unit of every object or, if one is
// missing, none (units already taken are given back before the locks are
// released); then it sleeps until the word changes. So a wait-all never
// consumes part of its set and never returns before all are signalled.
//
// Lifetime: a record is touched by others only under a lock the waiter must
// take before it leaves (an object lock with its node linked, or the APC
// lock while it is registered there) or, for the claimer, before kDone,
// which the waiter waits for. A wait holds a reference on every handle it
// waits on, so closing the caller's last reference never frees an object
// under a sleeper.
//
// APCs: a finite alertable wait registers its record with its thread; QueueAPC
// sets kAlerted and wakes it, and the wait then claims itself for the APC.
//
// Lock-free paths: an event and a mutex keep their state in one atomic word
// with a "sleepers" bit, which Link/Unlink keep in step with the list under
// the object's lock (SleepersChangedLocked). A set, zero-time wait, mutex
// wait or release that finds no sleepers is one CAS of that word and takes
// no lock; a signaller that finds the bit takes the lock and runs
// WakeSleepersLocked. A wait sets the bit (by linking) before its last
// TakeLocked, so a lock-free signaller either runs before that try, which
// then sees its signal, or sees the bit. Consumers racing on the word are
// why TakeLocked may fail even after AvailableLocked said yes.
#include <errno.h>
#include <limits.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "handles/wait_internal.h"

namespace tv {
namespace detail {

void (*g_unnotify_hook)(long data, Event* e) = nullptr;

namespace {

constexpr unsigned long kMaxObjects = 2 * MAXIMUM_WAIT_OBJECTS;

long Futex(std::atomic<uint32_t>* word, int op, uint32_t val, const timespec* ts) {
    return syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op | FUTEX_PRIVATE_FLAG, val, ts,
                   nullptr, FUTEX_BITSET_MATCH_ANY);
}

// NO_THREAD_SAFETY_ANALYSIS in Link and Unlink: a node's neighbours are in
// the same object's list, under the same lock, which the analysis cannot
// know (their `object` is another expression).
void Link(WaitNode* n) TV_REQUIRES(n->object->lock_) TV_NO_THREAD_SAFETY_ANALYSIS {
    const bool wasEmpty = n->object->head_ == nullptr;
    n->prev = n->object->tail_;
    n->next = nullptr;
    if (n->prev)
        n->prev->next = n;
    else
        n->object->head_ = n;
    n->object->tail_ = n;
    n->linked = true;
    if (wasEmpty) n->object->SleepersChangedLocked(true);
}

void Unlink(WaitNode* n) TV_REQUIRES(n->object->lock_) TV_NO_THREAD_SAFETY_ANALYSIS {
    if (n->prev)
        n->prev->next = n->next;
    else
        n->object->head_ = n->next;
    if (n->next)
        n->next->prev = n->prev;
    else
        n->object->tail_ = n->prev;
    n->linked = false;
    if (n->object->head_ == nullptr) n->object->SleepersChangedLocked(false);
}

// Whether a decided wait-any's node is still linked, read without the lock.
// NO_THREAD_SAFETY_ANALYSIS: once a wait-any is decided, `linked` changes
// only by the waiter itself or by its claimer before kDone, which the waiter
// has waited for; signallers finding the node fail their claim.
bool StillLinkedAfterClaim(const WaitNode& n) TV_NO_THREAD_SAFETY_ANALYSIS {
    return n.linked;
}

// Always available: the handles that have no wait logic of their own.
class AlwaysSignalled : public Waitable {
public:
    bool TakeLocked(pthread_t) override { return true; }
    void GiveBackLocked(pthread_t) override {}
    bool AvailableLocked(pthread_t) override { return true; }
};

// The distinct objects of a wait-all in address order: one lock made of all
// their locks, taken in that order (so without deadlock) through ScopedLock.
// NO_THREAD_SAFETY_ANALYSIS in Lock/Unlock: a run-time set of locks, which
// the analysis cannot name one by one.
class TV_CAPABILITY("mutex") LockSet {
public:
    void Lock() TV_ACQUIRE() TV_NO_THREAD_SAFETY_ANALYSIS {
        for (unsigned long i = 0; i < n; ++i) objs[i]->lock_.Lock();
    }
    void Unlock() TV_RELEASE() TV_NO_THREAD_SAFETY_ANALYSIS {
        for (unsigned long i = n; i-- > 0;) objs[i]->lock_.Unlock();
    }

    Waitable* objs[kMaxObjects];
    unsigned long n = 0;
};

// Takes a unit of every object of `set` or of none. NO_THREAD_SAFETY_ANALYSIS:
// holding the set holds each object's lock, which the analysis cannot see.
bool TakeAllLocked(LockSet& set, pthread_t tid) TV_REQUIRES(set) TV_NO_THREAD_SAFETY_ANALYSIS {
    for (unsigned long i = 0; i < set.n; ++i) {
        if (!set.objs[i]->AvailableLocked(tid)) return false;
    }
    for (unsigned long i = 0; i < set.n; ++i) {
        if (set.objs[i]->TakeLocked(tid)) continue;
        // A lock-free consumer (a zero-time wait on an event) got there
        // first: put back what was taken.
        for (unsigned long j = i; j-- > 0;) {
            set.objs[j]->GiveBackLocked(tid);
            WakeSleepersLocked(set.objs[j]);
        }
        return false;
    }
    return true;
}

bool TakeAll(LockSet& set, pthread_t tid) {
    ScopedLock<LockSet> hold(&set);
    return TakeAllLocked(set, tid);
}

}  // namespace

Waitable* AlwaysSignalledObject() {
    static AlwaysSignalled always;
    return &always;
}

bool Waiter::TryClaim(uint32_t code) {
    uint32_t v = word_.load(std::memory_order_relaxed);
    do {
        if (v & kClaimed) return false;
    } while (!word_.compare_exchange_weak(v, (v & ~kIndexMask) | kClaimed | code,
                                          std::memory_order_acq_rel, std::memory_order_relaxed));
    return true;
}

void Waiter::Wake() {
    Futex(&word_, FUTEX_WAKE, 1, nullptr);
}

void Waiter::FinishClaim() {
    word_.fetch_or(kDone, std::memory_order_release);
    Wake();
}

void Waiter::Poke() {
    uint32_t v = word_.load(std::memory_order_relaxed);
    while (!word_.compare_exchange_weak(v, (v & ~kPokeMask) | ((v + kPokeUnit) & kPokeMask),
                                        std::memory_order_release, std::memory_order_relaxed)) {
    }
    Wake();
}

void Waiter::Alert() {
    word_.fetch_or(kAlerted, std::memory_order_release);
    Wake();
}

bool Waiter::Sleep(uint32_t seen, const Deadline& deadline) {
    if (deadline.IsNever()) {
        Futex(&word_, FUTEX_WAIT_BITSET, seen, nullptr);
        return true;
    }
    const timespec until = deadline.AsTimespec();
    if (Futex(&word_, FUTEX_WAIT_BITSET, seen, &until) == -1 && errno == ETIMEDOUT) return false;
    return !deadline.Expired();
}

// NO_THREAD_SAFETY_ANALYSIS: every node in o's list has object == o, so
// o's lock guards it; the analysis cannot know that.
void WakeSleepersLocked(Waitable* o) TV_NO_THREAD_SAFETY_ANALYSIS {
    for (WaitNode* n = o->head_; n != nullptr;) {
        WaitNode* const next = n->next;
        Waiter* const w = n->waiter;
        if (w->waitAll()) {
            if (o->AvailableLocked(w->tid())) w->Poke();
        } else if (o->TakeLocked(w->tid())) {
            if (w->TryClaim(n->index)) {
                Unlink(n);
                w->FinishClaim();
            } else {
                o->GiveBackLocked(w->tid());
            }
        }
        n = next;
    }
}

unsigned long WaitCore(unsigned long count, Waitable* const* objects, Handle* const* handles,
                       bool waitAll, unsigned long ms, int alertable) {
    if (count == 0 || count > kMaxObjects) return WAIT_FAILED;
    Waiter self(waitAll);
    const pthread_t tid = self.tid();

    LockSet set;
    bool hasNull = false;
    if (waitAll) {
        for (unsigned long i = 0; i < count; ++i) {
            if (objects[i] == nullptr) {
                // A null entry never completes a wait-all.
                hasNull = true;
                continue;
            }
            set.objs[set.n++] = objects[i];
        }
        std::sort(set.objs, set.objs + set.n);
        set.n = static_cast<unsigned long>(std::unique(set.objs, set.objs + set.n) - set.objs);
        if (!hasNull && TakeAll(set, tid)) return WAIT_OBJECT_0;
    } else {
        for (unsigned long i = 0; i < count; ++i) {
            Waitable* o = objects[i];
            if (o == nullptr) continue;
            ScopedLock<PosixMutex> hold(&o->lock_);
            if (o->TakeLocked(tid)) return WAIT_OBJECT_0 + i;
        }
    }
    if (ms == 0) return WAIT_TIMEOUT;

    const Deadline deadline = Deadline::AfterMs(ms);
    for (unsigned long i = 0; i < count; ++i) {
        if (handles[i]) handles[i]->IncRefCount();
    }
    WaitNode nodes[kMaxObjects];
    unsigned long registered = 0;
    uint32_t code = Waiter::kByTimeout;
    bool selfDecided = false;  // a wait-any that took its object while registering
    {
        AlertableWaitScope apc(alertable, ms, &self);
        if (apc.pending()) {
            self.TryClaim(Waiter::kByApc);
        } else if (!waitAll) {
            for (; registered < count; ++registered) {
                if (self.Load() & Waiter::kClaimed) break;
                WaitNode& n = nodes[registered];
                n = WaitNode{
                    &self,  objects[registered], static_cast<uint32_t>(registered), false, nullptr,
                    nullptr};
                if (n.object == nullptr) continue;
                ScopedLock<PosixMutex> hold(&n.object->lock_);
                Link(&n);
                if (!n.object->TakeLocked(tid)) continue;
                Unlink(&n);
                if (self.TryClaim(n.index)) {
                    selfDecided = true;
                } else {
                    n.object->GiveBackLocked(tid);
                    WakeSleepersLocked(n.object);
                }
                ++registered;
                break;
            }
            for (;;) {
                const uint32_t v = self.Load();
                if (v & Waiter::kClaimed) break;
                if ((v & Waiter::kAlerted) && self.TryClaim(Waiter::kByApc)) break;
                if (!self.Sleep(v, deadline) && self.TryClaim(Waiter::kByTimeout)) break;
            }
        } else {
            for (; registered < count; ++registered) {
                WaitNode& n = nodes[registered];
                n = WaitNode{
                    &self,  objects[registered], static_cast<uint32_t>(registered), false, nullptr,
                    nullptr};
                if (n.object == nullptr) continue;
                ScopedLock<PosixMutex> hold(&n.object->lock_);
                Link(&n);
            }
            for (;;) {
                const uint32_t v = self.Load();
                if (!hasNull && TakeAll(set, tid)) {
                    self.TryClaim(0);
                    break;
                }
                if (v & Waiter::kAlerted) {
                    self.TryClaim(Waiter::kByApc);
                    break;
                }
                if (!self.Sleep(v, deadline)) {
                    self.TryClaim(Waiter::kByTimeout);
                    break;
                }
            }
        }
        code = self.Load() & Waiter::kIndexMask;
        if (!waitAll && code < count && !selfDecided) {
            // A signaller claimed this wait: let it finish with the record.
            for (uint32_t w = self.Load(); !(w & Waiter::kDone); w = self.Load()) {
                self.Sleep(w, Deadline::Never());
            }
        }
        for (unsigned long i = 0; i < registered; ++i) {
            WaitNode& n = nodes[i];
            if (n.object == nullptr || (!waitAll && !StillLinkedAfterClaim(n))) continue;
            ScopedLock<PosixMutex> hold(&n.object->lock_);
            if (n.linked) Unlink(&n);
        }
    }
    for (unsigned long i = 0; i < count; ++i) {
        if (handles[i]) handles[i]->DecRefCount();
    }
    if (code == Waiter::kByTimeout) return WAIT_TIMEOUT;
    if (code == Waiter::kByApc) {
        RunQueuedApcs();
        return WAIT_IO_COMPLETION;
    }
    return WAIT_OBJECT_0 + code;
}

}  // namespace detail
}  // namespace tv
