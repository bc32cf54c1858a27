// The two locks on the registry's read path, built so that readers of
// different keys never write to a shared cache line:
//
//  - ReadMostlyLock, the process's cache lock. Each thread counts its read
//    holds in a slot of its own (one cache line per slot), and a writer
//    announces itself in one word that readers only load. A reader
//    increments its slot and then checks the word; a writer sets the word
//    and then waits until every slot reads zero. Both sides use sequentially
//    consistent operations, so either the writer sees the reader's count or
//    the reader sees the writer (and backs out). Writers are rare (a file
//    read or write); they pay for a scan of every slot.
//  - KeyLock, each key's own lock: one word holding a reader count and a
//    writer bit, exclusive side recursive for its owner (hand-over-hand
//    walks and the key functions lock the same key again).
//
// Both sleep on futexes once a short spin has failed. Neither is fair; both
// let a waiting writer in before new readers, so a stream of readers never
// starves a writer.
#ifndef TV_REGISTRY_REGISTRY_LOCKS_H
#define TV_REGISTRY_REGISTRY_LOCKS_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <string>

#include "tvcommonutil/thread_annotations.h"

namespace tv {
namespace detail {

// Futex wait while *word == expected (private to the process), and wake of
// every sleeper on word.
void FutexWait(std::atomic<uint32_t>* word, uint32_t expected);
void FutexWakeAll(std::atomic<uint32_t>* word);
// This thread's reader slot of ReadMostlyLock, plus one (0: not yet drawn).
// Initial-exec, so that the read path reads it without a call: four bytes
// of static TLS, which a loader also finds for a library opened by dlopen.
extern __thread int g_readerSlot __attribute__((tls_model("initial-exec")));
int DrawReaderSlot();

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// Exclusive (recursive for its owner) or shared. Thread-safe. The lock
// functions are the capability's own implementation, outside the analysis.
class TV_CAPABILITY("mutex") KeyLock {
public:
    KeyLock() = default;
    KeyLock(const KeyLock&) = delete;
    KeyLock& operator=(const KeyLock&) = delete;

    void Lock() TV_ACQUIRE() TV_NO_THREAD_SAFETY_ANALYSIS {
        const pthread_t self = pthread_self();
        if (owner_.load(std::memory_order_relaxed) == self) {
            ++depth_;
            return;
        }
        uint32_t s = 0;
        if (!state_.compare_exchange_strong(s, kWriter, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            LockSlow();
        }
        owner_.store(self, std::memory_order_relaxed);
        depth_ = 1;
    }
    void Unlock() TV_RELEASE() TV_NO_THREAD_SAFETY_ANALYSIS {
        if (--depth_ > 0) return;
        owner_.store(0, std::memory_order_relaxed);
        if (state_.exchange(0, std::memory_order_release) & kWaiting) FutexWakeAll(&state_);
    }
    void LockShared()
        TV_THREAD_ANNOTATION(acquire_shared_capability()) TV_NO_THREAD_SAFETY_ANALYSIS {
        uint32_t s = state_.load(std::memory_order_relaxed);
        if ((s & (kWriter | kWaiting)) == 0 &&
            state_.compare_exchange_weak(s, s + 1, std::memory_order_acquire,
                                         std::memory_order_relaxed)) {
            return;
        }
        LockSharedSlow();
    }
    void UnlockShared()
        TV_THREAD_ANNOTATION(release_shared_capability()) TV_NO_THREAD_SAFETY_ANALYSIS {
        const uint32_t s = state_.fetch_sub(1, std::memory_order_release);
        if ((s & kWaiting) != 0 && (s & kReaders) == 1) {
            state_.fetch_and(~kWaiting, std::memory_order_relaxed);
            FutexWakeAll(&state_);
        }
    }

private:
    static constexpr uint32_t kWriter = 1u << 31;
    static constexpr uint32_t kWaiting = 1u << 30;  // someone sleeps (or is about to)
    static constexpr uint32_t kReaders = kWaiting - 1;

    void Acquire(uint32_t busy, bool writer);
    void LockSlow();
    void LockSharedSlow();

    std::atomic<uint32_t> state_{0};
    std::atomic<pthread_t> owner_{0};
    unsigned depth_ = 0;  // touched by the owner only
};

// The cache lock: shared for users of the tree, exclusive (recursive for
// its owner) for file reads and writes. Thread-safe.
class TV_CAPABILITY("mutex") ReadMostlyLock {
public:
    ReadMostlyLock();
    ~ReadMostlyLock();
    ReadMostlyLock(const ReadMostlyLock&) = delete;
    ReadMostlyLock& operator=(const ReadMostlyLock&) = delete;

    void LockShared()
        TV_THREAD_ANNOTATION(acquire_shared_capability()) TV_NO_THREAD_SAFETY_ANALYSIS {
        std::atomic<long>& mine = slots_[MySlot()].readers;
        mine.fetch_add(1, std::memory_order_seq_cst);
        if (writer_.load(std::memory_order_seq_cst) == 0) return;
        LockSharedSlow(mine);
    }
    void UnlockShared()
        TV_THREAD_ANNOTATION(release_shared_capability()) TV_NO_THREAD_SAFETY_ANALYSIS {
        slots_[MySlot()].readers.fetch_sub(1, std::memory_order_seq_cst);
        if (writer_.load(std::memory_order_seq_cst) != 0) WakeWriter();
    }
    void Lock() TV_ACQUIRE();
    void Unlock() TV_RELEASE();
    // The thread holding the exclusive side, 0 if none.
    pthread_t GetWriter() const { return owner_.load(std::memory_order_acquire); }
    // Diagnostics only; set before the lock is shared.
    void SetName(const char* name) { name_ = name != nullptr ? name : ""; }
    const char* GetName() const { return name_.c_str(); }

private:
    static constexpr int kSlots = 64;
    struct alignas(128) Slot {
        std::atomic<long> readers{0};
    };
    static int MySlot() {
        const int s = g_readerSlot;
        return s != 0 ? s - 1 : DrawReaderSlot();
    }
    void LockSharedSlow(std::atomic<long>& mine);
    void WakeWriter();
    bool Drained() const;

    Slot slots_[kSlots];
    // 0 no writer, 1 a writer holds or drains, 2 the same with readers asleep.
    alignas(128) std::atomic<uint32_t> writer_{0};
    std::atomic<uint32_t> drained_{0};  // bumped by readers leaving a draining writer
    pthread_mutex_t writers_;           // queues writers; leaf below the slot drain
    std::atomic<pthread_t> owner_{0};
    long depth_ = 0;  // owner only
    std::string name_;
};

}  // namespace detail
}  // namespace tv

#endif  // TV_REGISTRY_REGISTRY_LOCKS_H
