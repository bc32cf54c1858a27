// Slow paths of the read-path locks (see registry_locks.h).
#include "registry/registry_locks.h"

#include <limits.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tv {
namespace detail {

namespace {

constexpr int kSpins = 100;

int g_nextSlot = 0;  // atomic access

}  // namespace

__thread int g_readerSlot __attribute__((tls_model("initial-exec"))) = 0;

// Threads take the slots in turn, so the first threads of a process (the
// ones that matter for contention) never share one.
int DrawReaderSlot() {
    const int s = __atomic_fetch_add(&g_nextSlot, 1, __ATOMIC_RELAXED) % 64;
    g_readerSlot = s + 1;
    return s;
}

void FutexWait(std::atomic<uint32_t>* word, uint32_t expected) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT | FUTEX_PRIVATE_FLAG, expected,
            nullptr, nullptr, 0);
}

void FutexWakeAll(std::atomic<uint32_t>* word) {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, INT_MAX,
            nullptr, nullptr, 0);
}

// --- KeyLock -------------------------------------------------------------------

// Spins, then sleeps, until the state lets the caller in. A writer may come
// in when nothing but the sleeper flag is set (the flag stays, so that its
// unlock wakes the others) and sets the writer bit; a reader may come in
// while there is neither a writer nor a sleeper and adds itself.
void KeyLock::Acquire(uint32_t busy, bool writer) {
    for (int spins = 0;;) {
        uint32_t s = state_.load(std::memory_order_relaxed);
        if ((s & busy) == 0) {
            if (state_.compare_exchange_weak(s, writer ? s | kWriter : s + 1,
                                             std::memory_order_acquire,
                                             std::memory_order_relaxed)) {
                return;
            }
            continue;
        }
        if (spins < kSpins) {
            ++spins;
            CpuRelax();
            continue;
        }
        if ((s & kWaiting) == 0 &&
            !state_.compare_exchange_weak(s, s | kWaiting, std::memory_order_relaxed)) {
            continue;
        }
        FutexWait(&state_, s | kWaiting);
    }
}

void KeyLock::LockSlow() {
    Acquire(~kWaiting, true);
}

void KeyLock::LockSharedSlow() {
    Acquire(kWriter | kWaiting, false);
}

// --- ReadMostlyLock --------------------------------------------------------------

ReadMostlyLock::ReadMostlyLock() {
    pthread_mutex_init(&writers_, nullptr);
}

ReadMostlyLock::~ReadMostlyLock() {
    pthread_mutex_destroy(&writers_);
}

bool ReadMostlyLock::Drained() const {
    for (const Slot& s : slots_) {
        if (s.readers.load(std::memory_order_seq_cst) != 0) return false;
    }
    return true;
}

void ReadMostlyLock::WakeWriter() {
    drained_.fetch_add(1, std::memory_order_seq_cst);
    FutexWakeAll(&drained_);
}

// A writer is active: back out, let it drain, and come in after it.
void ReadMostlyLock::LockSharedSlow(std::atomic<long>& mine) {
    for (;;) {
        mine.fetch_sub(1, std::memory_order_seq_cst);
        WakeWriter();
        for (int spins = 0;;) {
            uint32_t w = writer_.load(std::memory_order_seq_cst);
            if (w == 0) break;
            if (spins < kSpins) {
                ++spins;
                CpuRelax();
                continue;
            }
            if (w == 1 && !writer_.compare_exchange_weak(w, 2, std::memory_order_seq_cst)) {
                continue;
            }
            FutexWait(&writer_, 2);
        }
        mine.fetch_add(1, std::memory_order_seq_cst);
        if (writer_.load(std::memory_order_seq_cst) == 0) return;
    }
}

void ReadMostlyLock::Lock() TV_NO_THREAD_SAFETY_ANALYSIS {
    const pthread_t self = pthread_self();
    if (owner_.load(std::memory_order_relaxed) == self) {
        ++depth_;
        return;
    }
    pthread_mutex_lock(&writers_);
    writer_.store(1, std::memory_order_seq_cst);
    for (int spins = 0;;) {
        const uint32_t d = drained_.load(std::memory_order_seq_cst);
        if (Drained()) break;
        if (spins < kSpins) {
            ++spins;
            CpuRelax();
            continue;
        }
        FutexWait(&drained_, d);
    }
    owner_.store(self, std::memory_order_release);
    depth_ = 1;
}

void ReadMostlyLock::Unlock() TV_NO_THREAD_SAFETY_ANALYSIS {
    if (--depth_ > 0) return;
    owner_.store(0, std::memory_order_release);
    if (writer_.exchange(0, std::memory_order_seq_cst) == 2) FutexWakeAll(&writer_);
    pthread_mutex_unlock(&writers_);
}

}  // namespace detail
}  // namespace tv
