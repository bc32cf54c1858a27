// Small conversions: hexadecimal encoding, integer to text, in-place case
// conversion and the per-thread random number.
#include <ctype.h>
#include <limits.h>
#include <math.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tvcommonutil/foundation.h"
#include "tvcommonutil/services.h"

// ---------------------------------------------------------------------------
// CTvAsciiEncode
// ---------------------------------------------------------------------------

const char CTvAsciiEncode::hexTable[17] = "0123456789ABCDEF";

// clang-format off
const int CTvAsciiEncode::hexBinaryValues[256] = {
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x00
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x10
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x20
     0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  0,  0,  0,  0,  0,  0,  // 0x30
     0, 10, 11, 12, 13, 14, 15,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x40
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x50
     0, 10, 11, 12, 13, 14, 15,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x60
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x70
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x80
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x90
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xA0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xB0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xC0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xD0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xE0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xF0
};

const int CTvAsciiEncode::hexValidValues[256] = {
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x00
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x10
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x20
     1,  1,  1,  1,  1,  1,  1,  1,  1,  1,  0,  0,  0,  0,  0,  0,  // 0x30
     0,  1,  1,  1,  1,  1,  1,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x40
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x50
     0,  1,  1,  1,  1,  1,  1,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x60
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x70
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x80
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0x90
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xA0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xB0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xC0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xD0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xE0
     0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  // 0xF0
};
// clang-format on

int CTvAsciiEncode::Binary2Hex(unsigned char* src, int srcLen, unsigned char* dst, int dstLen) {
    if (srcLen < 0) return -1;
    if (2LL * srcLen > dstLen) return -2;
    for (int i = 0; i < srcLen; ++i) {
        dst[2 * i] = static_cast<unsigned char>(hexTable[src[i] >> 4]);
        dst[2 * i + 1] = static_cast<unsigned char>(hexTable[src[i] & 0x0F]);
    }
    return 2 * srcLen;
}

int CTvAsciiEncode::Hex2Binary(unsigned char* src, int srcLen, unsigned char* dst, int dstLen) {
    if (srcLen < 0) return -1;
    // Also rejects a negative dstLen for any srcLen, including 0.
    if (2LL * dstLen < srcLen) return -2;
    if (srcLen % 2 != 0) return -3;
    const int n = srcLen / 2;  // <= dstLen by the check above
    for (int i = 0; i < n; ++i) {
        dst[i] = static_cast<unsigned char>(16 * hexBinaryValues[src[2 * i]] +
                                            hexBinaryValues[src[2 * i + 1]]);
    }
    return n;
}

int CTvAsciiEncode::IsValidHex(unsigned char* src, int len) {
    for (int i = 0; i < len; ++i) {
        if (hexValidValues[src[i]] == 0) return 0;
    }
    return 1;
}

// ---------------------------------------------------------------------------
// Integer to text
// ---------------------------------------------------------------------------

char* itoa(int value, char* buffer, int radix) {
    if (buffer == nullptr) return nullptr;
    if (radix == 10) {
        sprintf(buffer, "%d", value);
    } else if (radix == 16) {
        sprintf(buffer, "%x", static_cast<unsigned int>(value));
    } else {
        return nullptr;
    }
    return buffer;
}

char* i64toa(long long value, char* buffer, int radix) {
    if (buffer == nullptr) return nullptr;
    if (radix == 10) {
        sprintf(buffer, "%lld", value);
    } else if (radix == 16) {
        sprintf(buffer, "%llx", static_cast<unsigned long long>(value));
    } else {
        return nullptr;
    }
    return buffer;
}

const char* _ltoa(long value, char* buffer, int radix) {
    return fallback_ltoa(value, buffer, radix);
}

namespace {

const char kDigits[] =
    "0123456789abcdef"
    "ghijklmnopqrstuv"
    "wxyz";

// radix^k taken through a double into a 32-bit int. A power above INT_MAX
// becomes INT_MIN, the value the conversion instruction has always produced
// for it on this platform; the digit arithmetic below depends on it (and C++
// leaves the out-of-range conversion undefined, so it is spelled out).
int32_t Power32(int radix, int k) {
    double p = pow(static_cast<double>(radix), static_cast<double>(k));
    if (p > static_cast<double>(INT32_MAX)) return INT32_MIN;
    return static_cast<int32_t>(p);
}

}  // namespace

// The digit loop works with 32-bit powers of the radix whatever the width of
// long, so values above 2^31 come out with odd digits (at most 32 of them);
// callers have long depended on exactly these strings. Every digit is below
// the radix: while q is an exact power, m < 2^31 <= radix * q; once q is
// INT_MIN, m / q is 0.
char* fallback_ltoa(long value, char* buffer, int radix) {
    if (buffer == nullptr) return nullptr;
    if (radix < 2 || radix > 36) {
        buffer[0] = '\0';
        return buffer;
    }
    if (value == 0) {
        buffer[0] = '0';
        buffer[1] = '\0';
        return buffer;
    }
    // Radix 16 and 8 print the low 32 bits only.
    if (radix == 16) {
        sprintf(buffer, "%x", static_cast<unsigned int>(static_cast<unsigned long>(value)));
        return buffer;
    }
    if (radix == 8) {
        sprintf(buffer, "%o", static_cast<unsigned int>(static_cast<unsigned long>(value)));
        return buffer;
    }
    const bool negative = value < 0;
    // Negation wraps: LONG_MIN stays negative and so produces no digits.
    long remaining = negative ? static_cast<long>(0UL - static_cast<unsigned long>(value)) : value;

    char digits[32];
    int n = 0;
    int32_t q = 1;
    for (int k = 1; remaining > 0 && k < 33; ++k) {
        const int32_t p = Power32(radix, k);
        const int32_t m = static_cast<int32_t>(remaining % p);  // |m| < 2^31
        digits[n++] = kDigits[m / q];
        remaining -= m;
        q = p;
    }

    char* out = buffer;
    // Only decimal text carries a sign; other radixes print the magnitude.
    if (negative && radix == 10) *out++ = '-';
    while (n > 0) *out++ = digits[--n];
    *out = '\0';
    return buffer;
}

char* _strupr(char* s) {
    if (s == nullptr) return s;
    for (char* p = s; *p != '\0'; ++p)
        *p = static_cast<char>(toupper(static_cast<unsigned char>(*p)));
    return s;
}

char* _strlwr(char* s) {
    if (s == nullptr) return s;
    for (char* p = s; *p != '\0'; ++p)
        *p = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
    return s;
}

// ---------------------------------------------------------------------------
// KwRandom
// ---------------------------------------------------------------------------

// The seed cell belongs to the thread's context, which frees it when the
// thread ends; no other thread ever sees it, so there is no lock.
unsigned int KwRandom(int range) {
    ThreadContext* ctx = GetThreadContext();
    unsigned int* seed = ctx->GetRandBase();
    if (seed == nullptr) {
        seed = new unsigned int(static_cast<unsigned int>(pthread_self()));
        ctx->SetRandBase(seed);
    }
    // A zero range would divide by zero; callers never pass one.
    if (range == 0) return 0;
    return static_cast<unsigned int>(rand_r(seed) % range);
}
