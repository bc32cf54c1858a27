// The locks a forked child must find free: every object's own lock (events,
// mutexes, semaphores, timers, thread, process, notification and port
// handles) and the library's leaf locks. Module-wide locks (registry cache,
// watcher and timer state, profile cache) have fork handlers of their own.
//
// Order. The library may take an object's lock while it holds a module lock,
// never the reverse. pthread_atfork runs prepare handlers in the reverse
// order of installation, so ours are installed by a constructor that runs
// before any static initialiser of the library: its prepare step runs after
// every module's, and takes the object locks innermost. Within the list the
// ranks follow the order of nesting (handle locks, then object locks by
// address as a wait-all takes them, then thread locks).
//
// Bound. The prepare step waits for a busy lock only until a shared deadline;
// a lock still held then (its holder may be suspended, or stopped in a
// debugger) is left alone in the parent and re-initialised in the child. A
// fork can thus be delayed but never hung by a lock the library cannot free.
#include <sched.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <vector>

#include "tvcommonutil/handles.h"

namespace tv {
namespace detail {

namespace {

constexpr long kPrepareBudgetMs = 250;

// The list in shards by address, so that threads making and dropping objects
// at once seldom meet on one lock.
constexpr unsigned kShards = 16;  // the hash's top 4 bits
struct alignas(64) Shard {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    ForkTrackedLock* head = nullptr;  // guarded by lock
};
Shard g_shards[kShards];

// A multiplicative hash of the whole address: threads allocating alike from
// their own arenas get objects at the same offsets within aligned heaps.
Shard& ShardOf(const void* p) {
    const uint64_t h =
        static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)) * 0x9E3779B97F4A7C15ull;
    return g_shards[h >> 60];
}

// The current fork's locks in the order taken. Never freed: a fork may come
// from an exit handler after static destructors ran.
std::vector<ForkTrackedLock*>& Order() {
    static std::vector<ForkTrackedLock*>* order = new std::vector<ForkTrackedLock*>();
    return *order;
}

long long MonotonicMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

}  // namespace

struct ForkLockList {
    static void Prepare() {
        std::vector<ForkTrackedLock*>& order = Order();
        order.clear();
        for (Shard& s : g_shards) {
            pthread_mutex_lock(&s.lock);
            for (ForkTrackedLock* l = s.head; l != nullptr; l = l->next_) order.push_back(l);
        }
        std::sort(order.begin(), order.end(),
                  [](const ForkTrackedLock* a, const ForkTrackedLock* b) {
                      if (a->rank_ != b->rank_) return a->rank_ < b->rank_;
                      return a->mutex_ < b->mutex_;
                  });
        const long long deadline = MonotonicMs() + kPrepareBudgetMs;
        const pthread_t self = pthread_self();
        for (ForkTrackedLock* l : order) {
            l->taken_ = false;
            if (l->cs_ && pthread_equal(__atomic_load_n(&l->cs_->owner, __ATOMIC_ACQUIRE), self)) {
                continue;  // this thread's own section: the child keeps it as it is
            }
            for (;;) {
                if (pthread_mutex_trylock(l->mutex_) == 0) {
                    l->taken_ = true;
                    break;
                }
                if (MonotonicMs() >= deadline) break;
                sched_yield();
            }
        }
    }

    static void Parent() {
        for (ForkTrackedLock* l : Order()) {
            if (l->taken_) pthread_mutex_unlock(l->mutex_);
        }
        for (Shard& s : g_shards) pthread_mutex_unlock(&s.lock);
    }

    static void Child() {
        const pthread_t self = pthread_self();
        for (ForkTrackedLock* l : Order()) {
            const bool own = l->cs_ && pthread_equal(l->cs_->owner, self);
            if (!l->taken_ && !own) {
                // Held by a thread that does not exist here.
                pthread_mutex_init(l->mutex_, nullptr);
                if (l->cs_) {
                    l->cs_->owner = NULL_PTHREAD;
                    l->cs_->count = 0;
                }
                pthread_mutex_lock(l->mutex_);
                l->taken_ = true;
            }
            if (l->afterFork_) l->afterFork_(l->owner_);
            if (l->taken_) pthread_mutex_unlock(l->mutex_);
        }
        for (Shard& s : g_shards) pthread_mutex_unlock(&s.lock);
    }
};

namespace {

// Priority 101: before the library's C++ static initialisers (default
// priority), which install the module handlers.
__attribute__((constructor(101))) void InstallForkHandlers() {
    pthread_atfork(&ForkLockList::Prepare, &ForkLockList::Parent, &ForkLockList::Child);
}

}  // namespace

ForkTrackedLock::ForkTrackedLock(pthread_mutex_t* mutex, Rank rank, void (*afterFork)(void*),
                                 void* owner)
    : mutex_(mutex),
      cs_(nullptr),
      afterFork_(afterFork),
      owner_(owner),
      rank_(rank),
      taken_(false) {
    Link();
}

ForkTrackedLock::ForkTrackedLock(_critsection* cs, Rank rank)
    : mutex_(&cs->mutex),
      cs_(cs),
      afterFork_(nullptr),
      owner_(nullptr),
      rank_(rank),
      taken_(false) {
    Link();
}

void ForkTrackedLock::Link() {
    Shard& s = ShardOf(this);
    pthread_mutex_lock(&s.lock);
    prev_ = nullptr;
    next_ = s.head;
    if (s.head) s.head->prev_ = this;
    s.head = this;
    pthread_mutex_unlock(&s.lock);
}

ForkTrackedLock::~ForkTrackedLock() {
    Shard& s = ShardOf(this);
    pthread_mutex_lock(&s.lock);
    if (prev_)
        prev_->next_ = next_;
    else
        s.head = next_;
    if (next_) next_->prev_ = prev_;
    pthread_mutex_unlock(&s.lock);
}

// NO_THREAD_SAFETY_ANALYSIS: runs in the child with the lock held by the
// fork handler, which the analysis cannot see.
void Waitable::ForgetSleepers(void* self) TV_NO_THREAD_SAFETY_ANALYSIS {
    Waitable* w = static_cast<Waitable*>(self);
    if (w->head_ == nullptr) return;
    w->head_ = nullptr;
    w->tail_ = nullptr;
    w->SleepersChangedLocked(false);
}

}  // namespace detail
}  // namespace tv
