// Per-thread context, the last-error convention, assertions and diagnostics,
// the exception class, time values and clocks.
#ifndef TVCOMMONUTIL_FOUNDATION_H
#define TVCOMMONUTIL_FOUNDATION_H

#include <pthread.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>

#include "export.h"
#include "types.h"

class TvPlatformThread;
class MultiEvent;
class Event;

// ---------------------------------------------------------------------------
// Thread context
// ---------------------------------------------------------------------------
// One record per thread that calls into the library, made on first use and
// destroyed when the thread ends. Only its own thread touches it, so it has
// no lock. Each setter releases what the field held and takes over the
// caller's reference to the new value (no extra reference is taken).
class TV_API ThreadContext {
public:
    ThreadContext();
    ~ThreadContext();
    ThreadContext(const ThreadContext&) = delete;
    ThreadContext& operator=(const ThreadContext&) = delete;

    TvPlatformThread* GetCurrentThread() const { return currentThread_; }
    void SetCurrentThread(TvPlatformThread* t);
    MultiEvent* GetMultiEvent() const { return multiEvent_; }
    void SetMultiEvent(MultiEvent* m);
    Event* GetRegEvent() const { return regEvent_; }
    void SetRegEvent(Event* e);
    unsigned int* GetRandBase() const { return randBase_; }
    void SetRandBase(unsigned int* seed);

private:
    TvPlatformThread* currentThread_;
    MultiEvent* multiEvent_;
    Event* regEvent_;
    unsigned int* randBase_;
};

// The calling thread's context; made on first call, never null.
TV_API ThreadContext* GetThreadContext();
TV_API void ThreadContextKeyDestructor(void* context);
// The key under which each thread's context is stored.
TV_API extern pthread_key_t ThreadContextKey;
// The thread identifier that means "no thread".
constexpr pthread_t NULL_PTHREAD = 0;

// Set by an embedding server at start-up, before it starts any library
// thread. Changes behaviour that only a server wants: the process code
// leaves the signal mask alone, the directory scanner skips busy directories
// and never reports ".KW" names, CopyFile keeps the copy's own owner and mode.
TV_API extern bool bRunningInServer;

// ---------------------------------------------------------------------------
// Last error: errno is the one and only last-error store.
// ---------------------------------------------------------------------------
TV_API DWORD GetLastError();
TV_API void SetLastError(DWORD code);
TV_API int WSAGetLastError();
TV_API int WSASetLastError(int code);

TV_API void initializeThreadId(unsigned long* id);
TV_API void initializeThreadKey(unsigned int* key);
TV_API unsigned long getThreadId(unsigned long id);

// ---------------------------------------------------------------------------
// Assertions and diagnostics
// ---------------------------------------------------------------------------
// Prints the failed expression and ends the process through kw_abort.
TV_API void kw_assert(const char* expr, const char* file, int line) __attribute__((noreturn));
// SIGABRT on the calling thread with every other signal blocked; exit(1) if
// even that returns.
TV_API void kw_abort() __attribute__((noreturn));
TV_API int Beep(int frequency, int duration);
// Interactive assertion: asks on `out` whether to continue, reads from `in`.
TV_API void AssertPrompt(bool ok, const char* expr, const char* file, int line, FILE* in,
                         FILE* out);
// Formats into a 2048-byte buffer and writes the result to stderr, using it
// as the output format (a '%' that survives formatting is interpreted again,
// so callers never let one through).
TV_API void unix_err(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

class TV_API CKWIException {
public:
    CKWIException(const char* message, const char* where);
    // Writes "CKWIException: " [where ": "] message and a line end to stderr.
    void response() const;
    const char* prefix() const { return prefix_; }
    const char* where() const { return where_; }
    const char* message() const { return message_; }

private:
    const char* prefix_;
    char where_[80];
    char message_[80];
};

// ---------------------------------------------------------------------------
// Time values and clocks (all readings from the wall clock)
// ---------------------------------------------------------------------------
// Seconds and microseconds, normalised after every Set so that the
// microseconds lie in -999999..999999 and share the sign of non-zero seconds.
class TV_API CTimeValue {
public:
    CTimeValue() : sec_(0), usec_(0) {}
    explicit CTimeValue(const timeval& tv) { Set(tv); }
    CTimeValue(long sec, long usec) { Set(sec, usec); }

    void Set(const timeval& tv) { Set(tv.tv_sec, tv.tv_usec); }
    void Set(long sec, long usec) {
        sec_ = sec;
        usec_ = usec;
        Normalize();
    }
    void Normalize();
    long sec() const { return sec_; }
    long usec() const { return usec_; }

    static CTimeValue GetCurrentTime();
    // "Never": the largest second count and 999999 microseconds.
    static const CTimeValue maxTime;

private:
    long sec_;
    long usec_;
};

// Milliseconds since the Unix epoch (not wrapped to 32 bits).
TV_API unsigned long long GetTickCount();
// Seconds and milliseconds of the same reading; returns the seconds.
TV_API int GetPreciseTime(int& sec, int& msec);
// Interval counter: a 32-bit millisecond tick extended by counting each
// change of its bit 31 as a half wrap. Only differences are meaningful.
TV_API unsigned long long GetMilliTime();
TV_API unsigned long long GetElapsedTime(unsigned long long start);
// Deadline = now + ms on CLOCK_REALTIME. Time-outs under one second give
// "now" (they expire at once); callers that need shorter waits poll.
TV_API void FixTimeout(timespec& deadline, long ms);

#endif  // TVCOMMONUTIL_FOUNDATION_H
