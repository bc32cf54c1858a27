// Clang thread-safety annotations for the library's lock wrappers and the
// members they guard. They expand to nothing on other compilers; a clang
// build with -Wthread-safety checks them.
#ifndef TVCOMMONUTIL_THREAD_ANNOTATIONS_H
#define TVCOMMONUTIL_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define TV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TV_THREAD_ANNOTATION(x)
#endif

#define TV_CAPABILITY(x) TV_THREAD_ANNOTATION(capability(x))
#define TV_SCOPED_CAPABILITY TV_THREAD_ANNOTATION(scoped_lockable)
#define TV_GUARDED_BY(x) TV_THREAD_ANNOTATION(guarded_by(x))
#define TV_PT_GUARDED_BY(x) TV_THREAD_ANNOTATION(pt_guarded_by(x))
#define TV_ACQUIRED_BEFORE(...) TV_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define TV_ACQUIRED_AFTER(...) TV_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define TV_REQUIRES(...) TV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TV_ACQUIRE(...) TV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TV_RELEASE(...) TV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TV_TRY_ACQUIRE(...) TV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TV_EXCLUDES(...) TV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TV_NO_THREAD_SAFETY_ANALYSIS TV_THREAD_ANNOTATION(no_thread_safety_analysis)

#ifdef __cplusplus
namespace tv {

// The library's one scoped lock: holds any lock with Lock()/Unlock() for the
// enclosing scope, so that every guarded field is checked by the analysis.
template <class Lockable>
class TV_SCOPED_CAPABILITY ScopedLock {
public:
    explicit ScopedLock(Lockable* mu) TV_ACQUIRE(mu) : mu_(mu) { mu_->Lock(); }
    ~ScopedLock() TV_RELEASE() { mu_->Unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    Lockable* const mu_;
};

}  // namespace tv
#endif

#endif  // TVCOMMONUTIL_THREAD_ANNOTATIONS_H
