// Unix time to _FILETIME for the file functions and directory search.
//
// The arithmetic is the library's calendar-time conversion (time_tToFileTime
// with no microseconds), kept here as a private copy so that the file code
// does not depend on the system-services unit being linked in: the whole
// 64-bit count goes into dwLowDateTime, deliberately unmasked, and the count
// shifted right by 32 into dwHighDateTime.
#ifndef TV_FILES_FILE_TIME_H
#define TV_FILES_FILE_TIME_H

#include <time.h>

#include "tvcommonutil/types.h"

namespace tv {
namespace detail {

inline void UnixToFileTime(time_t t, _FILETIME* ft) {
    const unsigned long long v =
        (static_cast<unsigned long long>(t) + 11644473600ULL) * 10000000ULL;
    ft->dwLowDateTime = v;
    ft->dwHighDateTime = static_cast<unsigned long>(static_cast<long long>(v) >> 32);
}

}  // namespace detail
}  // namespace tv

#endif  // TV_FILES_FILE_TIME_H
