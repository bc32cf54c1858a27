// The three real-time signals of the thread code and their set-up.
//
// Contract: SIGRTMIN wakes a thread for APCs (its handler does nothing; its
// only effect is to interrupt a sleep); SIGRTMIN+1 suspends a thread inside
// its handler until SIGRTMIN+2 arrives; SIGRTMIN+2 is blocked in the thread
// that loaded the library and so in every thread created from it, so that it
// stays pending for the suspend handler's sigwait. The handlers are
// installed once per process, at load, without SA_RESTART.
#ifndef TV_THREADS_THREAD_SIGNALS_H
#define TV_THREADS_THREAD_SIGNALS_H

namespace tv {
namespace detail {

int ApcSignal();
int SuspendSignal();
int ResumeSignal();
// Installs the handlers if that has not happened yet.
void EnsureThreadSignals();

}  // namespace detail
}  // namespace tv

#endif  // TV_THREADS_THREAD_SIGNALS_H
