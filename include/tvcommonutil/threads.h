// Threads and asynchronous procedure calls, SleepEx, the thread pool.
#ifndef TVCOMMONUTIL_THREADS_H
#define TVCOMMONUTIL_THREADS_H

#include "export.h"
#include "foundation.h"
#include "handles.h"
#include "types.h"

#include <pthread.h>

#include <deque>

// ---------------------------------------------------------------------------
// Threads and asynchronous procedure calls
// ---------------------------------------------------------------------------
// An APC: a function of three untyped arguments, run on its target thread at
// an alertable point.
struct _threadapc {
    void (*fn)(void*, void*, void*);
    void* a1;
    void* a2;
    void* a3;
};

namespace tv {
namespace detail {
class Waiter;
}  // namespace detail
}  // namespace tv

enum ThreadState_t { kThreadRunning = 0, kThreadExited = 1 };

// A POSIX thread as a Windows thread handle. Thread-safe. Its mutex guards
// the APC queue, the wake flag, the state and the alertable wait the thread
// is in; it comes after every object lock (QueueAPC alerts the registered
// wait under it) and APCs run without it held. Suspension is a signal whose
// handler waits for the resume signal, so a suspended thread stops wherever
// it is, with whatever locks it holds: suspend only threads known to be idle.
class TV_API TvPlatformThread : public Handle {
public:
    explicit TvPlatformThread(pthread_t tid, int initialCount = 1);
    ~TvPlatformThread() override;

    int What() override;
    // WAIT_OBJECT_0 once the thread has ended (and from then on, for every
    // waiter), WAIT_TIMEOUT or WAIT_IO_COMPLETION.
    unsigned long WaitForHandle(unsigned long ms, int alertable) override;
    // The general multi-object wait.
    unsigned long WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                         unsigned long ms, int alertable) override;
    // Reports an ended thread as signalled, so a mixed wait on a thread that
    // is already gone completes.
    Event* GetSynch(int& signalled) override;

    // Drops the call silently once the thread has ended.
    void QueueAPC(void (*fn)(void*, void*, void*), void* a1, void* a2, void* a3);
    // Runs every queued APC (on the calling thread, which must be this
    // thread); non-zero when at least one ran.
    int CheckAPC();
    // True when APCs are queued; used by alertable waits.
    bool HasPendingAPC();
    // The suspend count before the call, or 0xFFFFFFFF (errno ESRCH) once the
    // thread has ended. Resume of a thread that is not suspended returns 0.
    unsigned long Suspend();
    unsigned long Resume();
    pthread_t GetTid() const;
    void SetTid(pthread_t tid);
    void SetState(ThreadState_t state);
    ThreadState_t GetState();
    long GetSuspendCount() const { return __atomic_load_n(&suspendCount_, __ATOMIC_ACQUIRE); }

    // Internal: makes a thread that has not started yet wait at its start
    // until resumed (suspend count 1), and the wait itself (on the thread).
    void HoldStart();
    void WaitForStart();
    // Internal: an alertable timed wait registers its waiter so that QueueAPC
    // can alert it; true when APCs were already queued.
    bool EnterAlertableWait(tv::detail::Waiter* waiter);
    void LeaveAlertableWait();

private:
    pthread_t tid_;
    ThreadState_t state_;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    tv::detail::ForkTrackedLock mutexFork_{&mutex_, tv::detail::ForkTrackedLock::kThreadLock};
    std::deque<_threadapc> apcs_;
    int wakeFlag_;
    tv::detail::Waiter* alertableWait_;
    // Orders the suspend and resume signals with the count and with the end
    // of the thread; held only with the suspend signal blocked, so that no
    // holder is ever stopped with it held. Never taken with mutex_ held, nor
    // mutex_ under it: a thread may be stopped while it holds mutex_.
    pthread_mutex_t signalLock_ = PTHREAD_MUTEX_INITIALIZER;
    tv::detail::ForkTrackedLock signalFork_{&signalLock_,
                                            tv::detail::ForkTrackedLock::kThreadLock};
    bool ended_;         // guarded by signalLock_: no signal may be sent
    int startHeld_;      // created suspended and not resumed yet; futex word
    long suspendCount_;  // changed under signalLock_ by compare-and-swap
};

// The start record handed to a new thread.
struct ThreadArgs {
    DWORD (*start)(void*);
    void* param;
    CriticalSection* gate;
    TvPlatformThread* thread;
};

// Starts a thread, or with CREATE_SUSPENDED holds it before its start routine
// (suspend count 1) until ResumeThread. Other flags, the security attributes
// and the stack size are ignored. The identifier is written through threadId
// when it is not null. Null on failure.
TV_API Handle* CreateThread(SECURITY_ATTRIBUTES* sa, DWORD stackSize, DWORD (*start)(void*),
                            void* param, DWORD flags, DWORD* threadId);
TV_API void* KwThreadBase(void* args);
// The calling thread's object; owned by its context: do not close it.
TV_API Handle* GetCurrentThread();
TV_API void ExitThread(DWORD code) __attribute__((noreturn));
// Threads cannot be killed from outside: does nothing, returns TRUE.
TV_API BOOL TerminateThread(Handle* thread, DWORD code);
TV_API DWORD SuspendThread(Handle* thread);
TV_API DWORD ResumeThread(Handle* thread);
// Does nothing and returns FALSE.
TV_API BOOL SetThreadPriority(Handle* thread, int priority);
TV_API int GetThreadPriority(Handle* thread);
// Returns 0 on success and 0xFFFFFFFF for a null thread: inverted with
// respect to the usual convention, and callers test it that way.
TV_API DWORD QueueUserAPC(void (*fn)(ULONG_PTR), Handle* thread, ULONG_PTR data);

TV_API void UserAPCInit();
TV_API int UserAPCCheck();
TV_API void UserAPCHandler(int sig);
TV_API void SuspendHandler(int sig);
TV_API void ResumeHandler(int sig);

// 0, or WAIT_IO_COMPLETION when an alertable sleep ran APCs (it ends early
// only then). A non-alertable sleep lasts its whole time whatever signals
// arrive. SleepEx(0, ...) only yields; INFINITE sleeps for ever.
TV_API DWORD SleepEx(DWORD ms, BOOL alertable);
TV_API void Sleep(DWORD ms);
// There is no message queue: blocks until any signal is handled, returns 0.
TV_API BOOL GetMessage(void* msg, void* window, UINT filterMin, UINT filterMax);

TV_API int unixthread_attr_init(pthread_attr_t* attr);
TV_API int unixthread_create(pthread_t* tid, pthread_attr_t* attr, void* (*start)(void*),
                             void* arg);
TV_API int unixthread_create_detached(void* (*start)(void*), void* arg);

// ---------------------------------------------------------------------------
// Thread pool
// ---------------------------------------------------------------------------
// One pthread key holding a per-thread pointer. An invalid key (creation
// failed, or after destruction) is 0xFFFFFFFF: GetData then returns null and
// SetData false.
class TV_API ThreadData {
public:
    ThreadData();
    ~ThreadData();
    ThreadData(const ThreadData&) = delete;
    ThreadData& operator=(const ThreadData&) = delete;

    void* GetData() const;
    bool SetData(void* value);

private:
    pthread_key_t key_;
};

class TvThreadPool;
// The body of every pool thread.
TV_API DWORD ThreadPoolConsume(TvThreadPool* pool);

// A producer/consumer pool: Produce queues opaque work items, which pool
// threads take first in, first out and pass to the consume callback.
// Produce starts a thread (by the creator, up to the maximum) whenever the
// queued items outnumber the idle threads not already woken; an idle thread
// above the minimum ends after the idle time-out. A consume callback
// may take its thread out of the pool (ExitPool) to go on with long work.
//
// Thread-safe. One mutex guards every counter, the queue and the shutting
// down flag; callbacks run without it. One condition serves both idle
// workers and a caller inside Shutdown, so every waiter re-checks its
// condition after each wake-up. Shutdown (and so the destructor) must not be
// called from a pool thread.
class TV_API TvThreadPool {
public:
    typedef DWORD (*Routine)(void*);
    typedef bool (*Creator)(Routine routine, void* arg);

    // No thread is started here, not even the minimum. A null creator means
    // DefaultCreator; a null exit function means pthread_exit. An idle
    // time-out of INFINITE keeps idle threads forever; time-outs under one
    // second expire at once, so idle threads above the minimum then end as
    // soon as they find nothing to do.
    TvThreadPool(unsigned long minThreads, unsigned long maxThreads, void (*consume)(void*),
                 Creator creator = nullptr, void (*exitFn)(unsigned int) = nullptr,
                 void (*dispose)(void*) = nullptr, unsigned long idleMs = INFINITE);
    // Shutdown, then every item still queued goes to dispose in order (or is
    // dropped when there is no dispose callback).
    ~TvThreadPool();
    TvThreadPool(const TvThreadPool&) = delete;
    TvThreadPool& operator=(const TvThreadPool&) = delete;

    void Produce(void* item);
    // Returns once no thread is counted in the pool any more (each thread
    // finishes the item it runs, and takes at most one more) and no pool
    // thread will touch the pool again. The exit function of the last
    // threads may still be running.
    void Shutdown();
    // From inside a consume callback: the calling thread stops counting as a
    // pool thread (the pool may start another) and ends when the callback
    // returns. 1, or 0 when it had already left.
    int ExitPool();
    bool Exited();
    void (*GetExit())(unsigned int) { return exitFn_; }

    // Starts the routine with CreateThread and closes the handle at once.
    static bool DefaultCreator(Routine routine, void* arg);

private:
    friend DWORD ThreadPoolConsume(TvThreadPool* pool);

    bool shuttingDown_;
    unsigned long maxThreads_;
    unsigned long minThreads_;
    unsigned long threads_;
    unsigned long exitedThreads_;
    unsigned long idleThreads_;
    unsigned long wokenThreads_;  // idle threads signalled, still in the wait
    unsigned long idleMs_;
    pthread_mutex_t mutex_;
    pthread_cond_t cond_;
    std::deque<void*> work_;
    Creator creator_;
    void (*consume_)(void*);
    void (*exitFn_)(unsigned int);
    void (*dispose_)(void*);
    ThreadData exitedMark_;
};

#endif  // TVCOMMONUTIL_THREADS_H
