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

enum ThreadState_t { kThreadRunning = 0, kThreadExited = 1 };

// A POSIX thread as a Windows thread handle. Thread-safe. Its mutex guards
// the APC queue, the wake flag, the state and the record of the alertable
// wait the thread is in. It is a leaf lock: APCs run without it held.
class TV_API TvPlatformThread : public Handle {
public:
    explicit TvPlatformThread(pthread_t tid, int initialCount = 1);
    ~TvPlatformThread() override;

    int What() override;
    // WAIT_OBJECT_0 once the thread has ended, WAIT_TIMEOUT, or the result
    // of the wait on the thread's synchronisation event.
    unsigned long WaitForHandle(unsigned long ms, int alertable) override;
    // A multi-object wait on threads alone is not supported: WAIT_FAILED.
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
    // Previous suspend count, or 0xFFFFFFFF when the signal could not be sent.
    unsigned long Suspend();
    unsigned long Resume();
    pthread_t GetTid() const;
    void SetTid(pthread_t tid);
    void SetState(ThreadState_t state);
    ThreadState_t GetState();
    long GetSuspendCount() const { return suspendCount_; }

    // Internal: an alertable timed wait records the object it sleeps on and
    // how to wake it, so that QueueAPC can end the wait. `wake` must make the
    // waiter re-check HasPendingAPC() under the lock it checks it under.
    void EnterAlertableWait(Handle* object, void (*wake)(Handle*));
    void LeaveAlertableWait();

private:
    pthread_t tid_;
    ThreadState_t state_;
    pthread_mutex_t mutex_;
    std::deque<_threadapc> apcs_;
    int wakeFlag_;
    long suspendCount_;
    Handle* alertableWait_;
    void (*alertableWake_)(Handle*);
};

// The start record handed to a new thread.
struct ThreadArgs {
    DWORD (*start)(void*);
    void* param;
    CriticalSection* gate;
    TvPlatformThread* thread;
};

// Starts a thread at once (CREATE_SUSPENDED is ignored); the identifier is
// written through threadId, which must not be null. Null on failure.
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

// 0, or WAIT_IO_COMPLETION when an alertable sleep ran APCs. SleepEx(0, ...)
// only yields. INFINITE is an ordinary (very long) time-out here.
TV_API DWORD SleepEx(DWORD ms, BOOL alertable);
TV_API void Sleep(DWORD ms);
// There is no message queue: blocks until any signal is handled, returns 0.
TV_API BOOL GetMessage(void* msg, void* window, UINT filterMin, UINT filterMax);

TV_API int unixthread_attr_init(pthread_attr_t* attr);
TV_API int unixthread_create(pthread_t* tid, pthread_attr_t* attr, void* (*start)(void*),
                             void* arg);
TV_API int unixthread_create_detached(void* (*start)(void*), void* arg);

#endif  // TVCOMMONUTIL_THREADS_H
