// Internal helpers of the diagnostics code.
#ifndef TV_FOUNDATION_DIAGNOSTICS_INTERNAL_H
#define TV_FOUNDATION_DIAGNOSTICS_INTERNAL_H

#include <stddef.h>

#include <string>

namespace tv {
namespace detail {

// Text to pass as an argument of unix_err, which uses its formatted text as
// a format again: every '%' is doubled, and the result is cut to at most
// `limit` bytes without splitting a doubled pair (half a pair would be a
// stray conversion), so the whole line stays inside unix_err's buffer.
std::string PercentSafe(const char* s, size_t limit = 1024);

}  // namespace detail
}  // namespace tv

#endif  // TV_FOUNDATION_DIAGNOSTICS_INTERNAL_H
