// The thread pool and the thread-specific-data wrapper it uses.
//
// Locking model
// -------------
// One mutex per pool guards the queue, every counter and the shutting-down
// flag; consume callbacks and the exit function run without it. It is a leaf
// lock except for one step: Produce calls the creator with it held, so that
// the new thread is counted before it can look at the counters (the new
// thread's first act is to take this mutex).
//
// Counters: `threads_` counts pool threads alive and in the pool (started by
// Produce, including idle ones); `exitedThreads_` counts threads that left
// with ExitPool and are still running their item; `idleThreads_` counts
// threads inside the idle wait. A thread leaves the counts under the mutex
// and touches nothing of the pool after releasing it for the last time, so
// once Shutdown has seen both counts at 0 the pool may be destroyed.
//
// Wake-ups: one condition serves idle workers and a Shutdown caller. Produce
// signals it (after unlocking) when a worker is idle and not already woken
// (`wokenThreads_` counts the signals whose worker has not left the wait
// yet, so a burst does not take one idle thread for many); and whenever the
// queued items outnumber such workers it also starts a thread, up to the
// maximum. Without that count a burst meeting one idle thread would all be
// handed to it, the idle count staying stale until it runs. Shutdown
// broadcasts it to drive idle workers out; the last thread to leave during a
// shutdown broadcasts it to release Shutdown. Every waiter re-checks its own
// condition, so a wake-up meant for the other kind is harmless: during a
// shutdown no worker goes back to the idle wait, and outside one nobody but
// idle workers waits.
//
// Idle time-out: an idle thread above the minimum ends when the idle
// time-out, counted on CLOCK_MONOTONIC from the moment it found the queue
// empty, passes with the queue still empty; wake-ups meant for others do not
// start it again. A time-out under a second expires at once, as FixTimeout's
// do. Threads at or below the minimum wait without a time-out: they could
// not end anyway, so a time-out already expired does not make them spin.
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <time.h>

#include "foundation/clock_internal.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

namespace {

const pthread_key_t kInvalidKey = static_cast<pthread_key_t>(0xFFFFFFFFu);

void* const kLeftPool = reinterpret_cast<void*>(1);

void ExitThroughPthreadExit(unsigned int code) {
    pthread_exit(reinterpret_cast<void*>(static_cast<uintptr_t>(code)));
}

DWORD PoolThreadMain(void* pool) {
    return ThreadPoolConsume(static_cast<TvThreadPool*>(pool));
}

}  // namespace

// ---------------------------------------------------------------------------

ThreadData::ThreadData() : key_(kInvalidKey) {
    if (pthread_key_create(&key_, nullptr) != 0) key_ = kInvalidKey;
}

ThreadData::~ThreadData() {
    if (key_ != kInvalidKey) pthread_key_delete(key_);
    key_ = kInvalidKey;
}

void* ThreadData::GetData() const {
    if (key_ == kInvalidKey) return nullptr;
    return pthread_getspecific(key_);
}

bool ThreadData::SetData(void* value) {
    if (key_ == kInvalidKey) return false;
    return pthread_setspecific(key_, value) == 0;
}

// ---------------------------------------------------------------------------

TvThreadPool::TvThreadPool(unsigned long minThreads, unsigned long maxThreads,
                           void (*consume)(void*), Creator creator, void (*exitFn)(unsigned int),
                           void (*dispose)(void*), unsigned long idleMs)
    : shuttingDown_(false),
      maxThreads_(maxThreads),
      minThreads_(minThreads),
      threads_(0),
      exitedThreads_(0),
      idleThreads_(0),
      wokenThreads_(0),
      idleMs_(idleMs),
      creator_(creator ? creator : DefaultCreator),
      consume_(consume),
      exitFn_(exitFn ? exitFn : ExitThroughPthreadExit),
      dispose_(dispose) {
    pthread_mutex_init(&mutex_, nullptr);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond_, &attr);
    pthread_condattr_destroy(&attr);
    exitedMark_.SetData(nullptr);
}

TvThreadPool::~TvThreadPool() {
    Shutdown();
    pthread_mutex_lock(&mutex_);
    while (!work_.empty()) {
        void* item = work_.front();
        work_.pop_front();
        if (dispose_) dispose_(item);
    }
    pthread_mutex_unlock(&mutex_);
    pthread_cond_destroy(&cond_);
    pthread_mutex_destroy(&mutex_);
}

void TvThreadPool::Produce(void* item) {
    pthread_mutex_lock(&mutex_);
    work_.push_back(item);
    const unsigned long ready = idleThreads_ - wokenThreads_;
    if (ready > 0) ++wokenThreads_;
    if (work_.size() > ready && threads_ < maxThreads_ && creator_(PoolThreadMain, this)) {
        ++threads_;
    }
    pthread_mutex_unlock(&mutex_);
    if (ready > 0) pthread_cond_signal(&cond_);
}

void TvThreadPool::Shutdown() {
    pthread_mutex_lock(&mutex_);
    if (threads_ == 0 && exitedThreads_ == 0) {
        pthread_mutex_unlock(&mutex_);
        return;
    }
    shuttingDown_ = true;
    if (idleThreads_ > 0) pthread_cond_broadcast(&cond_);
    while (threads_ != 0 || exitedThreads_ != 0) pthread_cond_wait(&cond_, &mutex_);
    pthread_mutex_unlock(&mutex_);
}

int TvThreadPool::ExitPool() {
    if (Exited()) return 0;
    pthread_mutex_lock(&mutex_);
    --threads_;
    ++exitedThreads_;
    pthread_mutex_unlock(&mutex_);
    exitedMark_.SetData(kLeftPool);
    return 1;
}

bool TvThreadPool::Exited() {
    return exitedMark_.GetData() == kLeftPool;
}

bool TvThreadPool::DefaultCreator(Routine routine, void* arg) {
    DWORD id = 0;
    Handle* h = CreateThread(nullptr, 0, routine, arg, 0, &id);
    if (h == nullptr) return false;
    CloseHandle(h);
    return true;
}

DWORD ThreadPoolConsume(TvThreadPool* pool) {
    // A thread that ran a pool body before (a creator that reuses threads)
    // starts as a member again.
    pool->exitedMark_.SetData(nullptr);
    pthread_mutex_lock(&pool->mutex_);
    bool left = false;
    for (;;) {
        bool idleExit = false;
        timespec idleUntil = {0, 0};
        if (pool->idleMs_ != INFINITE && pool->work_.empty()) {
            const unsigned long ms = pool->idleMs_ < 1000 ? 0 : pool->idleMs_;
            idleUntil = tv::detail::Deadline::AfterMs(ms).AsTimespec();
        }
        while (pool->work_.empty() && !pool->shuttingDown_) {
            ++pool->idleThreads_;
            int rc;
            if (pool->idleMs_ == INFINITE || pool->threads_ <= pool->minThreads_) {
                rc = pthread_cond_wait(&pool->cond_, &pool->mutex_);
            } else {
                rc = pthread_cond_timedwait(&pool->cond_, &pool->mutex_, &idleUntil);
            }
            --pool->idleThreads_;
            if (pool->wokenThreads_ > 0) --pool->wokenThreads_;
            if (rc == ETIMEDOUT && pool->threads_ > pool->minThreads_ && pool->work_.empty()) {
                idleExit = true;
                break;
            }
        }
        if (!pool->work_.empty()) {
            void* item = pool->work_.front();
            pool->work_.pop_front();
            pthread_mutex_unlock(&pool->mutex_);
            pool->consume_(item);
            pthread_mutex_lock(&pool->mutex_);
            left = pool->Exited();
            if (left) break;
        }
        if ((idleExit && pool->work_.empty()) || pool->shuttingDown_) {
            --pool->threads_;
            break;
        }
    }
    if (left) --pool->exitedThreads_;
    if (pool->shuttingDown_ && pool->threads_ == 0 && pool->exitedThreads_ == 0) {
        pthread_cond_broadcast(&pool->cond_);
    }
    // The pool may be gone as soon as the mutex is released.
    void (*exitFn)(unsigned int) = pool->exitFn_;
    pthread_mutex_unlock(&pool->mutex_);
    exitFn(0);
    // An exit function that returns lets the thread end by returning from
    // its start routine instead.
    return 0;
}
