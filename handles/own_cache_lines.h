// Objects with cache lines of their own.
//
// An event, a mutex or a semaphore keeps its state in one word that callers write
// without a lock. Allocated back to back, two such objects share a cache
// line: the state word near the end of one sits in the line that holds the
// start of the next (its vtable pointer, read by every call). Two threads,
// each setting and polling only its own object, then take that line from
// each other on every call, which costs four to five times the uncontended
// call. An object made as OnOwnCacheLines<T> starts on a line boundary and
// fills its last line, so nothing else lives in its lines; it is deleted
// through its virtual destructor like any handle.
#ifndef TV_HANDLES_OWN_CACHE_LINES_H
#define TV_HANDLES_OWN_CACHE_LINES_H

#include <stddef.h>

namespace tv {
namespace detail {

constexpr size_t kCacheLineSize = 64;

template <class T>
class alignas(kCacheLineSize) OnOwnCacheLines final : public T {
public:
    using T::T;
};

}  // namespace detail
}  // namespace tv

#endif  // TV_HANDLES_OWN_CACHE_LINES_H
