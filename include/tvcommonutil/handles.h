// Kernel objects behind HANDLE values, the wait functions, events, critical
// sections, interlocked operations and the reader/writer lock.
#ifndef TVCOMMONUTIL_HANDLES_H
#define TVCOMMONUTIL_HANDLES_H

#include <pthread.h>

#include <set>
#include <string>

#include "export.h"
#include "foundation.h"
#include "thread_annotations.h"
#include "types.h"

// ---------------------------------------------------------------------------
// Critical sections
// ---------------------------------------------------------------------------
// A recursive lock: the owner may enter again and must leave as often as it
// entered. A leave by a thread that does not own the section is not refused
// (it clears the owner and unlocks), as existing callers expect.
struct _critsection {
    pthread_t owner;  // NULL_PTHREAD when free; read by other threads atomically
    int count;        // recursion depth, touched only by the owner
    pthread_mutex_t mutex;
};
typedef _critsection CRITICAL_SECTION;
typedef _critsection* LPCRITICAL_SECTION;

// 0 on success (or for a null section); EINTR if the lock call was interrupted.
TV_API int EnterCriticalSection(_critsection* cs);
// 1 when entered, 0 when another thread owns the section or cs is null.
TV_API int TryEnterCriticalSection(_critsection* cs);
TV_API void LeaveCriticalSection(_critsection* cs);

// A critical section as an object. Constant-initialised, so global instances
// are usable from any static initialiser regardless of order. Thread-safe.
class TV_CAPABILITY("mutex") TV_API CriticalSection : public _critsection {
public:
    constexpr CriticalSection() : _critsection{NULL_PTHREAD, 0, PTHREAD_MUTEX_INITIALIZER} {}
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    int Lock() TV_ACQUIRE() { return EnterCriticalSection(this); }
    int Unlock() TV_RELEASE() {
        LeaveCriticalSection(this);
        return 0;
    }
    bool TryLock() TV_TRY_ACQUIRE(true) { return TryEnterCriticalSection(this) != 0; }
};

// RAII holder of a CriticalSection.
class TV_SCOPED_CAPABILITY TV_API CriticalSectionHolder {
public:
    explicit CriticalSectionHolder(CriticalSection& cs) TV_ACQUIRE(cs) : cs_(cs) { cs_.Lock(); }
    ~CriticalSectionHolder() TV_RELEASE() { cs_.Unlock(); }
    CriticalSectionHolder(const CriticalSectionHolder&) = delete;
    CriticalSectionHolder& operator=(const CriticalSectionHolder&) = delete;

private:
    CriticalSection& cs_;
};

// Scoped pthread mutex holder: the constructor only stores the mutex,
// GetLock() locks it, and the destructor unlocks it if it was locked.
class TV_API CSimpleLock {
public:
    explicit CSimpleLock(pthread_mutex_t* m) : mutex_(m), held_(false) {}
    ~CSimpleLock() {
        if (held_) pthread_mutex_unlock(mutex_);
    }
    CSimpleLock(const CSimpleLock&) = delete;
    CSimpleLock& operator=(const CSimpleLock&) = delete;
    void GetLock() {
        pthread_mutex_lock(mutex_);
        held_ = true;
    }

private:
    pthread_mutex_t* mutex_;
    bool held_;
};

// ---------------------------------------------------------------------------
// Interlocked operations (on the full 64-bit long)
// ---------------------------------------------------------------------------
TV_API long InterlockedIncrement(long* p);                // new value
TV_API long InterlockedDecrement(long* p);                // new value
TV_API long InterlockedExchange(long* p, long v);         // old value
TV_API long InterlockedExchangeAdd(long* p, long delta);  // old value
// New value, or the old one when returnOld is non-zero.
TV_API long AtomicAdd32(long* p, long delta, int returnOld);
TV_API long AtomicExchange32(long* p, long v);  // old value
// Start-up probe for native atomic instructions; run once at load.
TV_API void __init_InterLockedSwitch();
// Non-zero once the probe found native atomics; 0 selects the mutex fallback.
TV_API extern long lArchHasAtomicOps;

// ---------------------------------------------------------------------------
// Reader/writer lock
// ---------------------------------------------------------------------------
// A plain reference count, starting at 1 (a copy starts again at 1). The
// count is changed and read atomically; thread-safe.
class TV_API RCObject {
public:
    RCObject() : refs_(1) {}
    RCObject(const RCObject&) : refs_(1) {}
    virtual ~RCObject() {}
    long AddRef() { return InterlockedIncrement(&refs_); }
    // Deletes the object when the count reaches 0; returns the new count.
    long Release();
    long GetRefCount() const { return __atomic_load_n(&refs_, __ATOMIC_RELAXED); }

private:
    long refs_;
};

// Reader/writer lock with writer preference by default (a new reader waits
// while a writer waits, except readers let in by a downgrade), or reader
// preference (readers enter whenever no writer holds the lock). Write locks
// are recursive for their owner; read locks are counted, not owned.
// Results of the lock calls: 0 acquired, 128 (WAIT_ABANDONED) refused without
// waiting, 258 (WAIT_TIMEOUT) timed out. A time-out counts from the call,
// however often the caller is woken meanwhile; time-outs below one second
// expire at once, deliberately (callers that need short waits poll).
//
// Thread-safe. mutex_ guards the counters and the hand-off state; it is a
// leaf lock (nothing else is taken while it is held). The lock itself sits in
// each caller's lock order wherever the caller puts it.
class TV_API RWLock : public RCObject {
public:
    // name null gives "UNNAMED LOCK". option is stored and never consulted.
    explicit RWLock(bool readersPreferred = false, const char* name = nullptr, bool option = false);
    // Copies the counters, the holder, the flags and the name; the copy gets
    // a fresh mutex and conditions, and no waiters (nobody waits on them).
    RWLock(const RWLock& other);
    ~RWLock() override;
    RWLock& operator=(const RWLock&) = delete;

    unsigned long ReadLock(unsigned long ms = INFINITE);
    unsigned long WriteLock(unsigned long ms = INFINITE);
    // 128 while anyone holds the lock; never waits.
    unsigned long TryWriteLock();
    // 1; a read unlock does not check that the caller held a read lock.
    int ReadUnlock();
    // 0 when the caller is not the writer, else 1.
    int WriteUnlock();
    // Caller holds a read lock. 128 (read lock kept) when a writer holds or
    // waits; on time-out (258) the read lock has already been given up, so
    // the caller holds nothing and must re-acquire.
    unsigned long UpgradeLock(unsigned long ms = INFINITE);
    // Writer without nested write locks: becomes a reader and lets the
    // readers waiting at that moment in, even past waiting writers. 1 when
    // done; 0 for a caller that is not the writer or holds nested locks.
    int DowngradeLock();
    // The thread holding the write lock, 0 if none.
    pthread_t GetWriter() const;
    // Set the name before the lock is shared: GetLockName is not synchronised.
    void SetLockName(const char* name);
    const char* GetLockName() const { return name_.c_str(); }

    // The pointer argument is passed through and unused.
    unsigned long ReadLockPrim(bool tryOnly, unsigned long ms, void* unused);
    unsigned long WriteLockPrim(bool tryOnly, unsigned long ms, void* unused);

    // Diagnostics: snapshots taken under the lock's mutex.
    long GetReaderCount() const;
    long GetWaitingReaders() const;
    long GetWaitingWriters() const;

private:
    // The pthread mutex as a named capability for the thread-safety analysis.
    struct TV_CAPABILITY("mutex") Mutex {
        pthread_mutex_t raw;
    };
    class Holder;  // scoped holder of mutex_ (rwlock.cpp)

    bool ReaderAdmissible() const TV_REQUIRES(mutex_);
    // Sleep until woken or until the absolute CLOCK_MONOTONIC time `until`
    // (null: no time-out); false on time-out.
    bool WaitReader(const timespec* until) TV_REQUIRES(mutex_);
    bool WaitWriter(const timespec* until) TV_REQUIRES(mutex_);
    void UnwaitReader(bool handOff) TV_REQUIRES(mutex_);
    void UnwaitWriter() TV_REQUIRES(mutex_);
    void PassOnAfterWriterTimeout() TV_REQUIRES(mutex_);

    long readers_ TV_GUARDED_BY(mutex_);
    // Touched only by the writer thread (atomically: the recursive path does
    // not take mutex_).
    long writeRecursion_;
    long waitingReaders_ TV_GUARDED_BY(mutex_);
    long waitingWriters_ TV_GUARDED_BY(mutex_);
    // Stored under mutex_, loaded without it (atomically) by the recursion
    // test and GetWriter: a thread only ever sees its own id there while it
    // really is the writer.
    pthread_t writer_;
    bool readersPreferred_;  // fixed at construction
    bool option_;
    bool handOff_ TV_GUARDED_BY(mutex_);
    long handOffCount_ TV_GUARDED_BY(mutex_);
    mutable Mutex mutex_;
    pthread_cond_t readerCond_;
    pthread_cond_t writerCond_;
    std::string name_;
};

// ---------------------------------------------------------------------------
// Handle object model
// ---------------------------------------------------------------------------
// Base of every kernel object; HANDLE is a pointer to it. Created with the
// reference count its creator hands out; the last DecRefCount deletes it on
// whichever thread drops it. Reference counting is thread-safe; everything
// else is the business of each subclass.
//
// The order of the virtual functions is part of the design; subclasses
// override in place.
class TV_API Handle {
public:
    explicit Handle(int initialCount = 1);
    virtual ~Handle();
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    // Type code: 0 Handle, 1 Process, 2 File, 3 TvPlatformThread,
    // 4 SecurityToken, 5 Semaphore, 6 Event, 7 MultiEvent, 8 Mutex, 9 Timer,
    // 10 FindFileHandle, 11 ChangeNotificationHandle, 12 IoCompletionPort.
    virtual int What();
    // An object without wait logic counts as always signalled.
    virtual unsigned long WaitForHandle(unsigned long ms, int alertable);
    virtual unsigned long WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                                 unsigned long ms, int alertable);
    virtual int Set();
    virtual int Reset();
    virtual int Pulse();
    // The object's synchronisation event, made on first use. A poll that
    // finds it signalled consumes the signal.
    virtual Event* GetSynch(int& signalled);
    virtual void FreeSynch();
    // Sets the synchronisation event, if one was made.
    virtual int Signal();

    long IncRefCount();
    long DecRefCount();
    long GetRefCount() const;

protected:
    Event* synch_;
    long refCount_;
};

enum HandleType {
    kHandleBase = 0,
    kHandleProcess = 1,
    kHandleFile = 2,
    kHandleThread = 3,
    kHandleSecurityToken = 4,
    kHandleSemaphore = 5,
    kHandleEvent = 6,
    kHandleMultiEvent = 7,
    kHandleMutex = 8,
    kHandleTimer = 9,
    kHandleFindFile = 10,
    kHandleChangeNotification = 11,
    kHandleIoCompletionPort = 12,
};

// An open file descriptor as a handle; closes it on destruction unless -1.
class TV_API File : public Handle {
public:
    explicit File(int fd);
    ~File() override;
    int What() override;
    int GetFd() const { return fd_; }

private:
    int fd_;
};

// FALSE for a null handle; otherwise drops one reference and returns TRUE.
TV_API BOOL CloseHandle(Handle* h);
TV_API BOOL HandleClose(Handle* h);
// The duplicate is the same object with one more reference.
TV_API BOOL DuplicateHandle(Handle* sourceProcess, Handle* source, Handle* targetProcess,
                            Handle** target, DWORD access, BOOL inherit, DWORD options);
// WAIT_FAILED for a null handle, else the object's own wait.
TV_API DWORD WaitForSingleObjectEx(Handle* h, DWORD ms, BOOL alertable);
TV_API DWORD WaitForSingleObject(Handle* h, DWORD ms);

// ---------------------------------------------------------------------------
// Events and multi-object waits
// ---------------------------------------------------------------------------
namespace tv {

// A plain pthread mutex as a named capability for the thread-safety
// analysis; held through tv::ScopedLock.
class TV_CAPABILITY("mutex") PosixMutex {
public:
    PosixMutex() { pthread_mutex_init(&raw_, nullptr); }
    ~PosixMutex() { pthread_mutex_destroy(&raw_); }
    PosixMutex(const PosixMutex&) = delete;
    PosixMutex& operator=(const PosixMutex&) = delete;
    void Lock() TV_ACQUIRE() { pthread_mutex_lock(&raw_); }
    void Unlock() TV_RELEASE() { pthread_mutex_unlock(&raw_); }
    pthread_mutex_t* native() { return &raw_; }

private:
    pthread_mutex_t raw_;
};

namespace detail {

// Puts one lock of one object (or one global lock) on the process's list of
// locks a forked child must find free. Before a fork the forking thread takes
// every listed lock, in rank order and by address within a rank, so no other
// thread is inside one of them at the moment of the fork; both processes then
// let go of them. A lock that stays busy for the whole of the bounded wait (its
// holder was suspended, say) is not waited for: the child re-initialises it
// instead, so a fork is delayed but never hung. `afterFork` runs in the child
// with the lock held, to drop what belonged to the parent's other threads.
// Declare the member after the lock it names, so it unlinks first.
class TV_API ForkTrackedLock {
public:
    enum Rank { kHandleLock = 0, kObjectLock = 1, kThreadLock = 2 };
    ForkTrackedLock(pthread_mutex_t* mutex, Rank rank, void (*afterFork)(void*) = nullptr,
                    void* owner = nullptr);
    // A critical section: skipped when the forking thread is its owner.
    ForkTrackedLock(_critsection* cs, Rank rank);
    ~ForkTrackedLock();
    ForkTrackedLock(const ForkTrackedLock&) = delete;
    ForkTrackedLock& operator=(const ForkTrackedLock&) = delete;

private:
    friend struct ForkLockList;
    void Link();

    pthread_mutex_t* mutex_;
    _critsection* cs_;
    void (*afterFork_)(void*);
    void* owner_;
    int rank_;
    bool taken_;  // by the current fork's prepare step
    ForkTrackedLock* prev_;
    ForkTrackedLock* next_;
};

struct WaitNode;

// What the wait core (handles/wait_core.cpp) needs of a waitable object: its
// own lock, the list of waits sleeping on it, and three operations run with
// that lock held. Only the object's own lock is ever taken by a signaller.
class Waitable {
public:
    Waitable()
        : head_(nullptr),
          tail_(nullptr),
          forkLink_(lock_.native(), ForkTrackedLock::kObjectLock, &Waitable::ForgetSleepers, this) {}
    virtual ~Waitable() {}
    Waitable(const Waitable&) = delete;
    Waitable& operator=(const Waitable&) = delete;

    // Consumes one unit for thread `tid` (an auto-reset signal, a semaphore
    // unit, ownership of a mutex); false when there is none.
    virtual bool TakeLocked(pthread_t tid) TV_REQUIRES(lock_) = 0;
    // Undoes a TakeLocked whose waiter turned out to be finished already.
    virtual void GiveBackLocked(pthread_t tid) TV_REQUIRES(lock_) = 0;
    // True when TakeLocked would succeed; consumes nothing.
    virtual bool AvailableLocked(pthread_t tid) TV_REQUIRES(lock_) = 0;
    // Called when the list turns empty or non-empty.
    virtual void SleepersChangedLocked(bool any) TV_REQUIRES(lock_) { (void)any; }

    PosixMutex lock_;
    WaitNode* head_ TV_GUARDED_BY(lock_);
    WaitNode* tail_ TV_GUARDED_BY(lock_);

private:
    // In a forked child: the sleepers were the parent's other threads.
    static void ForgetSleepers(void* self);
    ForkTrackedLock forkLink_;
};

}  // namespace detail
}  // namespace tv

class MultiEvent;

// A manual- or auto-reset event. Thread-safe. The signalled state and a
// "someone sleeps here" bit share one atomic word, so Set on an event nobody
// waits for and a zero-time wait are a single compare-and-swap; everything
// else runs under the event's own lock (see handles/wait_core.cpp).
class TV_API Event : public Handle, public tv::detail::Waitable {
public:
    Event(long data, int manualReset, int initialState, const char* name);
    ~Event() override;

    int What() override;
    // WAIT_OBJECT_0, WAIT_TIMEOUT or WAIT_IO_COMPLETION. Sub-second time-outs
    // are honoured. An alertable finite wait ends with WAIT_IO_COMPLETION when
    // an APC is queued to the waiting thread; an INFINITE wait ignores APCs.
    unsigned long WaitForHandle(unsigned long ms, int alertable) override;
    // The general multi-object wait over any waitable handles.
    unsigned long WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                         unsigned long ms, int alertable) override;
    int Set() override;
    int Reset() override;
    // Releases every waiter already asleep (manual-reset) or exactly one
    // (auto-reset), and leaves the event non-signalled.
    int Pulse() override;
    Event* GetSynch(int& signalled) override;

    int EventIsSignaled() const;
    bool IsManualReset() const { return manualReset_ != 0; }
    long GetEventData() const;
    // d != -1 attaches d and takes a reference on the event; -1 detaches
    // (only by the attaching thread) and drops that reference. Returns 0.
    int SetEventData(long d);
    void RevStamp(unsigned long rev, int saveData);
    unsigned long GetLastRev() const;
    long GetLastData() const;
    const char* GetName() const { return name_; }

    // Internal: consuming test-and-clear (an auto-reset signal is taken,
    // a manual-reset one only looked at).
    bool TryConsume();

    bool TakeLocked(pthread_t tid) override TV_REQUIRES(lock_);
    void GiveBackLocked(pthread_t tid) override TV_REQUIRES(lock_);
    bool AvailableLocked(pthread_t tid) override TV_REQUIRES(lock_);
    void SleepersChangedLocked(bool any) override TV_REQUIRES(lock_);

private:
    // Defined (inline, for the lock-free paths) in handles/event.cpp.
    inline bool Consume();
    inline int Raise(bool pulse);

    long data_;
    long lastData_;
    pthread_t dataOwner_;
    unsigned long lastRev_;
    unsigned state_;  // kSignalled | kSleepers; atomic
    int manualReset_;
    char* name_;
};

// Kept for the thread context's slot; multi-object waits no longer need a
// per-thread object.
class TV_API MultiEvent : public Handle {
public:
    explicit MultiEvent(int capacity);
    int What() override;
};

TV_API Handle* EventCreate(SECURITY_ATTRIBUTES* sa, BOOL manualReset, BOOL initialState,
                           const char* name);
TV_API Handle* CreateEvent(SECURITY_ATTRIBUTES* sa, BOOL manualReset, BOOL initialState,
                           const char* name);
TV_API BOOL SetEvent(Handle* h);
TV_API BOOL EventSet(Handle* h);
TV_API BOOL ResetEvent(Handle* h);
TV_API BOOL EventReset(Handle* h);
TV_API BOOL PulseEvent(Handle* h);
TV_API BOOL EventPulse(Handle* h);

// Waits for any one (waitAll FALSE) or all of up to MAXIMUM_WAIT_OBJECTS
// handles of any kinds: events, mutexes (acquired), semaphores (one unit
// taken), threads and processes (ended), change-notification handles and
// completion ports; a handle without wait logic counts as signalled. Wait-any
// returns WAIT_OBJECT_0 + the index of the object it consumed; wait-all
// consumes every object in one step or none. More handles: WAIT_FAILED.
TV_API DWORD WaitForMultipleObjectsEx(DWORD count, Handle** handles, BOOL waitAll, DWORD ms,
                                      BOOL alertable);
TV_API DWORD WaitForMultipleObjects(DWORD count, Handle** handles, BOOL waitAll, DWORD ms);

// ---------------------------------------------------------------------------
// Mutexes and semaphores
// ---------------------------------------------------------------------------
// A counting semaphore. Thread-safe. The count and a "someone sleeps here"
// bit share one atomic word, so a release nobody waits for and a zero-time
// wait are a single compare-and-swap each; a release that finds sleepers
// hands units straight to them under the object's lock (see
// handles/semaphore.cpp). Takes part in multi-object waits like any waitable
// object (one unit taken).
class TV_API Semaphore : public Handle, public tv::detail::Waitable {
public:
    Semaphore(long initial, long maximum, const char* name);
    ~Semaphore() override;

    int What() override;
    // WAIT_OBJECT_0, WAIT_TIMEOUT or WAIT_IO_COMPLETION. Sub-second time-outs
    // are honoured. An alertable finite wait ends with WAIT_IO_COMPLETION when
    // an APC is queued to the waiting thread; an INFINITE wait ignores APCs.
    unsigned long WaitForHandle(unsigned long ms, int alertable) override;
    unsigned long WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                         unsigned long ms, int alertable) override;
    // Adds n to the count. 0 (and nothing changed, *previous not written)
    // when the count would pass the maximum or n is negative; otherwise 1,
    // with the count before the release in *previous when previous is given.
    int Release(long n, long* previous);
    const char* GetName() const { return name_.c_str(); }

    bool TakeLocked(pthread_t tid) override TV_REQUIRES(lock_);
    void GiveBackLocked(pthread_t tid) override TV_REQUIRES(lock_);
    bool AvailableLocked(pthread_t tid) override TV_REQUIRES(lock_);
    void SleepersChangedLocked(bool any) override TV_REQUIRES(lock_);

protected:
    long maximum_;
    std::string name_;

private:
    // Defined (inline, for the lock-free paths) in handles/semaphore.cpp.
    inline bool TryTake();

    unsigned long units_;  // count * 2 | sleepers bit; atomic
};

// A recursive mutex: a waitable object with an owner and a recursion count.
// Thread-safe. Uncontended, a wait and a release are one compare-and-swap
// each; a contended release hands the mutex to a sleeping wait under the
// object's lock (see handles/mutex.cpp). The owner is also loaded without
// the lock (atomically) by the "is it me?" test of a recursive wait, which
// can only see the caller's own id while the caller really owns it.
class TV_API Mutex : public Semaphore {
public:
    // With initialOwner the creator owns the mutex (recursion 1) until it
    // releases it.
    Mutex(int initialOwner, const char* name);

    int What() override;
    unsigned long WaitForHandle(unsigned long ms, int alertable) override;
    // 1 when the last level was released. 0 for a caller that is not the
    // owner, and also for an inner release of a recursively held mutex
    // (which did succeed): callers rely on that FALSE.
    int Release();
    using Semaphore::Release;

    bool TakeLocked(pthread_t tid) override TV_REQUIRES(lock_);
    void GiveBackLocked(pthread_t tid) override TV_REQUIRES(lock_);
    bool AvailableLocked(pthread_t tid) override TV_REQUIRES(lock_);
    void SleepersChangedLocked(bool any) override TV_REQUIRES(lock_);

private:
    // Defined (inline, for the uncontended path) in handles/mutex.cpp.
    inline bool Owned(pthread_t tid) const;
    inline bool TryAcquire(pthread_t tid);
    inline bool Leave();

    unsigned state_;   // kHeld | kSleepers; atomic
    pthread_t owner_;  // NULL_PTHREAD when free; atomic
    long recursion_;   // touched by the owner, or by the thread making an owner
};

// Null (setting no error) unless 0 <= initial <= maximum.
TV_API Handle* CreateSemaphore(SECURITY_ATTRIBUTES* sa, long initial, long maximum,
                               const char* name);
// FALSE for a null handle or n < 1; otherwise Semaphore::Release.
TV_API BOOL ReleaseSemaphore(Handle* h, long n, long* previous);
TV_API Handle* CreateMutex(SECURITY_ATTRIBUTES* sa, BOOL initialOwner, const char* name);
// FALSE for a null handle; otherwise Mutex::Release (no type check).
TV_API BOOL ReleaseMutex(Handle* h);

// ---------------------------------------------------------------------------
// Waitable timers
// ---------------------------------------------------------------------------
// Completion routine: called as an APC on the thread that armed the timer
// with (argument, due seconds, due nanoseconds).
typedef void (*PTIMERAPCROUTINE)(void* arg, void* dueSeconds, void* dueNanoseconds);

// A timer whose expiry is delivered only as an APC to the thread that armed
// it, at that thread's next alertable wait; waiting on the handle itself
// returns WAIT_OBJECT_0 at once. All timers share one process-wide queue and
// one timer thread (started by the first timer, never stopped); one lock, the
// queue's request lock, guards the queue and every field of every timer.
// Thread-safe.
class TV_API Timer : public Handle {
public:
    // state_ values.
    enum { kIdle = 0, kFired = 1, kQueued = 2, kCancelledInWait = 3 };

    Timer(int manualReset, const char* name);
    ~Timer() override;

    int What() override;
    // Arms (or re-arms) the timer for the absolute CLOCK_REALTIME time `due`,
    // then, when periodMs is not 0, every periodMs milliseconds counted from
    // `due` (expiries missed while behind are skipped). Returns 1.
    int SetTimer(const timespec* due, long periodMs, PTIMERAPCROUTINE routine, void* arg);
    // 1 when the timer was queued (its routine will not be called for that
    // expiry), 0 otherwise or for a null timer.
    static int Cancel(Timer* t);

    // Internal; the caller holds the request lock.
    // Queues t by due time; 1 when t became the head of the queue.
    static int Queue(Timer* t);
    // True when `due` is strictly earlier than this timer's due time, so
    // timers due at the same instant fire in the order they were armed.
    bool InsertHere(const timespec& due) const;
    // Starts the timer thread if it has not been started yet.
    static void StartThread();
    static DWORD TimerThreadBootstrap(void* unused);
    int GetState() const;

private:
    static int CancelLocked(Timer* t);
    static void Unlink(Timer* t);

    int state_;
    int manualReset_;
    timespec due_;
    long period_;
    TvPlatformThread* owner_;  // holds a reference while set
    std::string name_;
    PTIMERAPCROUTINE routine_;
    void* arg_;
    int inWait_;
    Timer* next_;  // link in the queue while queued
};

TV_API Handle* CreateWaitableTimer(SECURITY_ATTRIBUTES* sa, BOOL manualReset, const char* name);
// `due` is an absolute CLOCK_REALTIME time (not a relative or 100 ns count);
// `resume` is ignored. TRUE, or FALSE for a null timer or due time (or, with
// EINVAL, a negative period).
TV_API BOOL SetWaitableTimer(Handle* timer, const timespec* due, long periodMs,
                             PTIMERAPCROUTINE routine, void* arg, BOOL resume);
TV_API BOOL CancelWaitableTimer(Handle* timer);

#endif  // TVCOMMONUTIL_HANDLES_H
