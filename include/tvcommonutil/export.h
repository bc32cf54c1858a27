// Export control for libtvcommonutil.
//
// The library is built with -fvisibility=hidden; every name that callers may
// use carries TV_API. This is the one macro of the public surface: attributes
// cannot be expressed as a constexpr.
#ifndef TVCOMMONUTIL_EXPORT_H
#define TVCOMMONUTIL_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define TV_API __attribute__((visibility("default")))
#else
#define TV_API
#endif

#endif  // TVCOMMONUTIL_EXPORT_H
