// Per-thread context: one record per thread that calls into the library,
// stored under ThreadContextKey and destroyed by the key's destructor when
// the thread ends.
#include <pthread.h>

#include "tvcommonutil/foundation.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/threads.h"

pthread_key_t ThreadContextKey;

bool bRunningInServer = false;

namespace {

pthread_once_t key_once = PTHREAD_ONCE_INIT;

void MakeKey() {
    pthread_key_create(&ThreadContextKey, ThreadContextKeyDestructor);
}

void KwThreadInit() {
    pthread_once(&key_once, MakeKey);
}

// The key exists before any user thread can call in.
struct ThreadContextInit {
    ThreadContextInit() { KwThreadInit(); }
} thread_context_init;

}  // namespace

ThreadContext::ThreadContext()
    : currentThread_(nullptr), multiEvent_(nullptr), regEvent_(nullptr), randBase_(nullptr) {}

ThreadContext::~ThreadContext() {
    if (TvPlatformThread* self = currentThread_) {
        currentThread_ = nullptr;
        self->SetState(kThreadExited);
        // Someone else still holds the thread's handle: wake its waiters.
        if (self->GetRefCount() > 1) self->Signal();
        self->SetTid(NULL_PTHREAD);
        HandleClose(self);
    }
    if (multiEvent_) HandleClose(multiEvent_);
    if (regEvent_) HandleClose(regEvent_);
    multiEvent_ = nullptr;
    regEvent_ = nullptr;
    delete randBase_;
    randBase_ = nullptr;
}

void ThreadContext::SetCurrentThread(TvPlatformThread* t) {
    if (currentThread_) HandleClose(currentThread_);
    currentThread_ = t;
}

void ThreadContext::SetMultiEvent(MultiEvent* m) {
    if (multiEvent_) HandleClose(multiEvent_);
    multiEvent_ = m;
}

void ThreadContext::SetRegEvent(Event* e) {
    if (regEvent_) HandleClose(regEvent_);
    regEvent_ = e;
}

void ThreadContext::SetRandBase(unsigned int* seed) {
    delete randBase_;
    randBase_ = seed;
}

ThreadContext* GetThreadContext() {
    KwThreadInit();
    void* p = pthread_getspecific(ThreadContextKey);
    if (p) return static_cast<ThreadContext*>(p);
    ThreadContext* ctx = new ThreadContext();
    pthread_setspecific(ThreadContextKey, ctx);
    return ctx;
}

void ThreadContextKeyDestructor(void* context) {
    if (context) delete static_cast<ThreadContext*>(context);
}
