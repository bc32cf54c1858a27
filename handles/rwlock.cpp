// The reader/writer lock and the reference count it derives from.
//
// Locking model. One pthread mutex (mutex_) guards the counters: readers_,
// waitingReaders_, waitingWriters_ and the hand-off state. Readers wait on
// readerCond_, writers and upgraders on writerCond_, always with mutex_ held
// around the predicate test. writer_ is stored only under mutex_ but loaded
// without it (atomically) for the writer's recursion test; writeRecursion_ is
// touched only by the thread that is the writer, so it needs no lock either.
// mutex_ is a leaf: nothing else is locked while it is held.
//
// Admission. A reader enters when there is no writer and either no writer
// waits or readers are preferred. A writer enters when there is no writer and
// no reader. A downgrade that finds readers waiting opens a hand-off: that
// many woken readers enter although writers wait, so a writer that turns
// itself into a reader cannot be overtaken by the writers it would otherwise
// let in first.
//
// Wake-up protocol (who wakes whom):
//  - the last write unlock: with writer preference, one waiting writer if
//    any, else all waiting readers; with reader preference, all waiting
//    readers and one waiting writer (which re-checks and waits again if the
//    readers got in first);
//  - the last read unlock: with writer preference, one waiting writer if any,
//    else all waiting readers; with reader preference, one waiting writer;
//  - a downgrade: all waiting readers (plus, with reader preference, one
//    waiting writer);
//  - a writer or upgrader that gives up on time-out passes the wake-up on:
//    it may have consumed the one signal meant for the writers, and the
//    readers it held back by waiting may now be admissible.
// Every waiter re-tests its predicate after waking, so an extra wake-up costs
// a context switch and a lost one would cost a thread, hence the extra
// wake-ups in the reader-preference and time-out cases.
//
// Time-outs: a lock call computes its deadline once, on entry, on
// CLOCK_MONOTONIC (the clock of both conditions), and every wait of that
// call sleeps to it, so wake-ups that do not admit the caller never extend
// the time-out. Time-outs under one second give an already expired
// deadline, deliberately (as FixTimeout does for the wall-clock waits).
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include "foundation/clock_internal.h"
#include "tvcommonutil/handles.h"

namespace {

const char kUnnamedLock[] = "UNNAMED LOCK";

void InitConditions(pthread_cond_t* a, pthread_cond_t* b) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(a, &attr);
    pthread_cond_init(b, &attr);
    pthread_condattr_destroy(&attr);
}

// The end of a lock call's waits, fixed on entry; null for INFINITE.
class EntryDeadline {
public:
    explicit EntryDeadline(unsigned long ms) : infinite_(ms == INFINITE) {
        if (!infinite_) until_ = tv::detail::Deadline::AfterMs(ms < 1000 ? 0 : ms).AsTimespec();
    }
    const timespec* get() const { return infinite_ ? nullptr : &until_; }

private:
    bool infinite_;
    timespec until_;
};

}  // namespace

long RCObject::Release() {
    long n = InterlockedDecrement(&refs_);
    if (n == 0) delete this;
    return n;
}

// Scoped holder of an RWLock's mutex.
class TV_SCOPED_CAPABILITY RWLock::Holder {
public:
    explicit Holder(const RWLock* lock) TV_ACQUIRE(lock->mutex_) : m_(&lock->mutex_.raw) {
        pthread_mutex_lock(m_);
    }
    ~Holder() TV_RELEASE() { pthread_mutex_unlock(m_); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

private:
    pthread_mutex_t* m_;
};

RWLock::RWLock(bool readersPreferred, const char* name, bool option)
    : readers_(0),
      writeRecursion_(0),
      waitingReaders_(0),
      waitingWriters_(0),
      writer_(NULL_PTHREAD),
      readersPreferred_(readersPreferred),
      option_(option),
      handOff_(false),
      handOffCount_(0),
      name_(name != nullptr ? name : kUnnamedLock) {
    pthread_mutex_init(&mutex_.raw, nullptr);
    InitConditions(&readerCond_, &writerCond_);
}

// A pthread mutex or condition must not be copied bit for bit (a copy of a
// live one is undefined), so the copy gets fresh ones. The waiting counts
// and the hand-off describe threads blocked on the original's conditions,
// which nobody can wake through the copy: the copy starts without waiters.
// Everything else, holder state included, is copied as it stands.
RWLock::RWLock(const RWLock& other)
    : RCObject(other),
      readers_(0),
      writeRecursion_(0),
      waitingReaders_(0),
      waitingWriters_(0),
      writer_(NULL_PTHREAD),
      readersPreferred_(other.readersPreferred_),
      option_(other.option_),
      handOff_(false),
      handOffCount_(0),
      name_(other.name_) {
    pthread_mutex_init(&mutex_.raw, nullptr);
    InitConditions(&readerCond_, &writerCond_);
    long readers, recursion;
    pthread_t writer;
    {
        Holder h(&other);
        readers = other.readers_;
        recursion = __atomic_load_n(&other.writeRecursion_, __ATOMIC_RELAXED);
        writer = other.GetWriter();
    }
    Holder h(this);
    readers_ = readers;
    __atomic_store_n(&writeRecursion_, recursion, __ATOMIC_RELAXED);
    __atomic_store_n(&writer_, writer, __ATOMIC_RELAXED);
}

RWLock::~RWLock() {
    pthread_cond_destroy(&writerCond_);
    pthread_cond_destroy(&readerCond_);
    pthread_mutex_destroy(&mutex_.raw);
}

unsigned long RWLock::ReadLock(unsigned long ms) {
    return ReadLockPrim(false, ms, nullptr);
}

unsigned long RWLock::WriteLock(unsigned long ms) {
    return WriteLockPrim(false, ms, nullptr);
}

unsigned long RWLock::TryWriteLock() {
    return WriteLockPrim(true, INFINITE, nullptr);
}

pthread_t RWLock::GetWriter() const {
    return __atomic_load_n(&writer_, __ATOMIC_RELAXED);
}

void RWLock::SetLockName(const char* name) {
    name_ = name != nullptr ? name : kUnnamedLock;
}

long RWLock::GetReaderCount() const {
    Holder h(this);
    return readers_;
}

long RWLock::GetWaitingReaders() const {
    Holder h(this);
    return waitingReaders_;
}

long RWLock::GetWaitingWriters() const {
    Holder h(this);
    return waitingWriters_;
}

unsigned long RWLock::ReadLockPrim(bool tryOnly, unsigned long ms, void* unused) {
    (void)unused;
    const EntryDeadline deadline(ms);
    Holder h(this);
    if (tryOnly) {
        if (!ReaderAdmissible()) return WAIT_ABANDONED;
    } else {
        while (!ReaderAdmissible()) {
            if (!WaitReader(deadline.get())) return WAIT_TIMEOUT;
            // Readers let in by a downgrade enter past waiting writers while
            // the downgrader (or another admitted reader) still reads.
            if (handOff_ && GetWriter() == NULL_PTHREAD && readers_ > 0) {
                if (--handOffCount_ <= 0) {
                    handOff_ = false;
                    handOffCount_ = 0;
                }
                break;
            }
        }
    }
    ++readers_;
    return WAIT_OBJECT_0;
}

unsigned long RWLock::WriteLockPrim(bool tryOnly, unsigned long ms, void* unused) {
    (void)unused;
    pthread_t self = pthread_self();
    if (GetWriter() == self) {
        // Nested write lock: only the writer itself ever gets here.
        __atomic_add_fetch(&writeRecursion_, 1, __ATOMIC_RELAXED);
        return WAIT_OBJECT_0;
    }
    const EntryDeadline deadline(ms);
    Holder h(this);
    if (tryOnly) {
        if (GetWriter() != NULL_PTHREAD || readers_ > 0) return WAIT_ABANDONED;
    } else {
        while (GetWriter() != NULL_PTHREAD || readers_ > 0) {
            if (!WaitWriter(deadline.get())) {
                PassOnAfterWriterTimeout();
                return WAIT_TIMEOUT;
            }
        }
    }
    __atomic_store_n(&writeRecursion_, 1, __ATOMIC_RELAXED);
    __atomic_store_n(&writer_, self, __ATOMIC_RELAXED);
    return WAIT_OBJECT_0;
}

bool RWLock::ReaderAdmissible() const {
    return GetWriter() == NULL_PTHREAD && (waitingWriters_ == 0 || readersPreferred_);
}

bool RWLock::WaitReader(const timespec* until) {
    ++waitingReaders_;
    const int rc = until ? pthread_cond_timedwait(&readerCond_, &mutex_.raw, until)
                         : pthread_cond_wait(&readerCond_, &mutex_.raw);
    --waitingReaders_;
    return rc != ETIMEDOUT;
}

bool RWLock::WaitWriter(const timespec* until) {
    ++waitingWriters_;
    const int rc = until ? pthread_cond_timedwait(&writerCond_, &mutex_.raw, until)
                         : pthread_cond_wait(&writerCond_, &mutex_.raw);
    --waitingWriters_;
    return rc != ETIMEDOUT;
}

void RWLock::UnwaitReader(bool handOff) {
    if (!readersPreferred_) {
        if (!handOff && waitingWriters_ > 0) {
            pthread_cond_signal(&writerCond_);
        } else if (waitingReaders_ > 0) {
            pthread_cond_broadcast(&readerCond_);
        }
        return;
    }
    if (waitingWriters_ > 0) pthread_cond_signal(&writerCond_);
    // Under reader preference readers only wait for a writer; after a
    // downgrade nobody else would tell them it has gone.
    if (waitingReaders_ > 0) pthread_cond_broadcast(&readerCond_);
}

void RWLock::UnwaitWriter() {
    __atomic_store_n(&writer_, NULL_PTHREAD, __ATOMIC_RELAXED);
    if (!readersPreferred_ && waitingWriters_ > 0) {
        pthread_cond_signal(&writerCond_);
        return;
    }
    if (waitingReaders_ > 0) pthread_cond_broadcast(&readerCond_);
    // Reader preference: with no reader waiting, nothing else would ever
    // wake this writer.
    if (readersPreferred_ && waitingWriters_ > 0) pthread_cond_signal(&writerCond_);
}

void RWLock::PassOnAfterWriterTimeout() {
    if (GetWriter() != NULL_PTHREAD) return;  // its unlock will wake the others
    if (readers_ <= 0 && waitingWriters_ > 0) pthread_cond_signal(&writerCond_);
    if (waitingReaders_ > 0 && (readersPreferred_ || waitingWriters_ == 0)) {
        pthread_cond_broadcast(&readerCond_);
    }
}

int RWLock::WriteUnlock() {
    if (GetWriter() != pthread_self()) return 0;
    Holder h(this);
    if (__atomic_sub_fetch(&writeRecursion_, 1, __ATOMIC_RELAXED) <= 0) {
        __atomic_store_n(&writeRecursion_, 0, __ATOMIC_RELAXED);
        UnwaitWriter();
    }
    return 1;
}

int RWLock::ReadUnlock() {
    Holder h(this);
    if (--readers_ == 0) UnwaitReader(false);
    return 1;
}

unsigned long RWLock::UpgradeLock(unsigned long ms) {
    const EntryDeadline deadline(ms);
    Holder h(this);
    if (GetWriter() != NULL_PTHREAD || waitingWriters_ > 0) return WAIT_ABANDONED;
    --readers_;
    // A writer that arrived while this thread waited may have been woken
    // instead of it, hence the writer test as well.
    while (GetWriter() != NULL_PTHREAD || readers_ > 0) {
        if (!WaitWriter(deadline.get())) {
            PassOnAfterWriterTimeout();
            return WAIT_TIMEOUT;
        }
    }
    __atomic_store_n(&writeRecursion_, 1, __ATOMIC_RELAXED);
    __atomic_store_n(&writer_, pthread_self(), __ATOMIC_RELAXED);
    return WAIT_OBJECT_0;
}

int RWLock::DowngradeLock() {
    if (GetWriter() != pthread_self()) return 0;
    Holder h(this);
    if (__atomic_load_n(&writeRecursion_, __ATOMIC_RELAXED) >= 2) return 0;
    __atomic_store_n(&writer_, NULL_PTHREAD, __ATOMIC_RELAXED);
    __atomic_store_n(&writeRecursion_, 0, __ATOMIC_RELAXED);
    ++readers_;
    if (waitingReaders_ > 0) {
        handOff_ = true;
        handOffCount_ = waitingReaders_;
        UnwaitReader(true);
    }
    return 1;
}
