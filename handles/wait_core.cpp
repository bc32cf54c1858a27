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

void Link(Waitable* o, WaitNode* n) TV_REQUIRES(o->lock_) {
    const bool wasEmpty = o->head_ == nullptr;
    n->prev = o->tail_;
    n->next = nullptr;
    if (o->tail_)
        o->tail_->next = n;
    else
        o->head_ = n;
    o->tail_ = n;
    n->linked = true;
    if (wasEmpty) o->SleepersChangedLocked(true);
}

void Unlink(Waitable* o, WaitNode* n) TV_REQUIRES(o->lock_) {
    if (n->prev)
        n->prev->next = n->next;
    else
        o->head_ = n->next;
    if (n->next)
        n->next->prev = n->prev;
    else
        o->tail_ = n->prev;
    n->linked = false;
    if (o->head_ == nullptr) o->SleepersChangedLocked(false);
}

// Always available: the handles that have no wait logic of their own.
class AlwaysSignalled : public Waitable {
public:
    bool TakeLocked(pthread_t) override { return true; }
    void GiveBackLocked(pthread_t) override {}
    bool AvailableLocked(pthread_t) override { return true; }
};

// The distinct objects of a wait-all in address order, for taking all their
// locks without deadlock.
struct LockSet {
    Waitable* objs[kMaxObjects];
    unsigned long n = 0;
    void LockAll() TV_NO_THREAD_SAFETY_ANALYSIS {  // a run-time set of locks
        for (unsigned long i = 0; i < n; ++i) objs[i]->lock_.Lock();
    }
    void UnlockAll() TV_NO_THREAD_SAFETY_ANALYSIS {
        for (unsigned long i = n; i-- > 0;) objs[i]->lock_.Unlock();
    }
};

// Takes a unit of every object or of none. NO_THREAD_SAFETY_ANALYSIS: the
// locks are the run-time set held by LockAll.
bool TakeAll(LockSet& set, pthread_t tid) TV_NO_THREAD_SAFETY_ANALYSIS {
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

void WakeSleepersLocked(Waitable* o) {
    for (WaitNode* n = o->head_; n != nullptr;) {
        WaitNode* const next = n->next;
        Waiter* const w = n->waiter;
        if (w->waitAll()) {
            if (o->AvailableLocked(w->tid())) w->Poke();
        } else if (o->TakeLocked(w->tid())) {
            if (w->TryClaim(n->index)) {
                Unlink(o, n);
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
        if (!hasNull) {
            set.LockAll();
            const bool done = TakeAll(set, tid);
            set.UnlockAll();
            if (done) return WAIT_OBJECT_0;
        }
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
                Waitable* o = n.object;
                if (o == nullptr) continue;
                ScopedLock<PosixMutex> hold(&o->lock_);
                Link(o, &n);
                if (!o->TakeLocked(tid)) continue;
                Unlink(o, &n);
                if (self.TryClaim(n.index)) {
                    selfDecided = true;
                } else {
                    o->GiveBackLocked(tid);
                    WakeSleepersLocked(o);
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
                Link(n.object, &n);
            }
            for (;;) {
                const uint32_t v = self.Load();
                if (!hasNull) {
                    set.LockAll();
                    const bool done = TakeAll(set, tid);
                    set.UnlockAll();
                    if (done) {
                        self.TryClaim(0);
                        break;
                    }
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
            if (n.object == nullptr || (!waitAll && !n.linked)) continue;
            ScopedLock<PosixMutex> hold(&n.object->lock_);
            if (n.linked) Unlink(n.object, &n);
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
