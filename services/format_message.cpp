// FormatMessage and its worker DoFormatMsg.
//
// Bounds: the worker never writes at or past out[size] and reads the text
// only up to its NUL. Inserts read arguments[n - 1] for the numbers the text
// names (1..99); how many values the array holds is known only to the
// caller, exactly as with the Windows argument array, so a text naming more
// inserts than the caller supplied is the caller's fault. What the worker
// can check, it does: a per-insert printf conversion is accepted only when
// it is a single conversion that consumes exactly one argument (no '*', no
// %n, no second conversion), with a width and precision short enough that
// formatting stays cheap. Anything else inserts nothing.
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tvcommonutil/services.h"

namespace {

// The text used when the caller names no string source.
constexpr char kUnknownError[] = "Unknown Error";
// Size of the internal area used with FORMAT_MESSAGE_ALLOCATE_BUFFER.
constexpr int kAllocateArea = 8192;
// Longest width or precision accepted in an insert's conversion.
constexpr int kMaxConversionDigits = 4;
// Room for "%", flags, width, ".precision", a length modifier, the
// conversion character and the NUL.
constexpr size_t kMaxConversion = 40;

enum class ArgKind { kInt, kLong, kUnsigned, kUnsignedLong, kChar, kString, kPointer };

// Turns the text between the '!'s into a printf conversion in pattern and says
// how the 64-bit argument must be passed. False when the text is not one
// conversion that consumes exactly one argument.
bool ParseConversion(const char* begin, const char* end, char* pattern, ArgKind* kind) {
    constexpr size_t kMaxFlags = 8;
    size_t n = 0;
    pattern[n++] = '%';
    const char* p = begin;
    while (p < end && strchr("-+ #0", *p) != nullptr) {
        if (n > kMaxFlags) return false;
        pattern[n++] = *p++;
    }
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1) {
            if (p == end || *p != '.') break;
            pattern[n++] = *p++;
        }
        int digits = 0;
        while (p < end && isdigit(static_cast<unsigned char>(*p))) {
            if (++digits > kMaxConversionDigits) return false;
            pattern[n++] = *p++;
        }
    }
    // Length modifiers. Every wide one (l, ll, I64, z, j, t) becomes "l",
    // matching the long the argument is passed as; h and hh keep their
    // narrowing; I32 is the default size.
    const char* narrow = "";
    bool wide = false;
    if (end - p >= 3 && (memcmp(p, "I64", 3) == 0 || memcmp(p, "I32", 3) == 0)) {
        wide = p[1] == '6';
        p += 3;
    } else if (end - p >= 2 && memcmp(p, "ll", 2) == 0) {
        wide = true;
        p += 2;
    } else if (end - p >= 2 && memcmp(p, "hh", 2) == 0) {
        narrow = "hh";
        p += 2;
    } else if (p < end && strchr("lhzjt", *p) != nullptr) {
        if (*p == 'h') {
            narrow = "h";
        } else {
            wide = true;
        }
        p += 1;
    }
    if (p + 1 != end) return false;  // exactly one conversion character left
    char conv = *p;
    switch (conv) {
        case 'd':
        case 'i':
            *kind = wide ? ArgKind::kLong : ArgKind::kInt;
            break;
        case 'o':
        case 'u':
        case 'x':
        case 'X':
            *kind = wide ? ArgKind::kUnsignedLong : ArgKind::kUnsigned;
            break;
        case 'c':
        case 's':
        case 'p':
            // Narrow text only: a wide modifier would make printf read a
            // wchar_t string or character the caller never supplied.
            if (wide) return false;
            narrow = "";
            *kind = conv == 'c'   ? ArgKind::kChar
                    : conv == 's' ? ArgKind::kString
                                  : ArgKind::kPointer;
            break;
        default:
            return false;
    }
    if (wide) pattern[n++] = 'l';
    for (const char* m = narrow; *m != '\0'; ++m) pattern[n++] = *m;
    pattern[n++] = conv;
    pattern[n] = '\0';
    return true;
}

// Formats one argument with pattern into out, which holds `cap` bytes, and
// returns min(formatted length, cap): the count the insert occupies when
// copied while room remains. When the insert is cut, snprintf has put a NUL
// in the last of those bytes instead of a character; the caller's buffer is
// then full, and that last slot is the one given up for the terminator.
int FormatOne(char* out, int cap, const char* pattern, ArgKind kind, unsigned long value) {
    int n = -1;
    size_t bytes = static_cast<size_t>(cap);
    switch (kind) {
        case ArgKind::kInt:
            n = snprintf(out, bytes, pattern, static_cast<int>(value));
            break;
        case ArgKind::kLong:
            n = snprintf(out, bytes, pattern, static_cast<long>(value));
            break;
        case ArgKind::kUnsigned:
            n = snprintf(out, bytes, pattern, static_cast<unsigned>(value));
            break;
        case ArgKind::kUnsignedLong:
            n = snprintf(out, bytes, pattern, value);
            break;
        case ArgKind::kChar:
            n = snprintf(out, bytes, pattern, static_cast<int>(value));
            break;
        case ArgKind::kString:
            n = snprintf(out, bytes, pattern, reinterpret_cast<const char*>(value));
            break;
        case ArgKind::kPointer:
            n = snprintf(out, bytes, pattern, reinterpret_cast<void*>(value));
            break;
    }
    if (n < 0) return 0;
    return n < cap ? n : cap;
}

}  // namespace

int DoFormatMsg(const char* text, char* out, int size, unsigned long* arguments) {
    if (out == nullptr || size <= 0) return 0;
    if (text == nullptr) text = "";
    int written = 0;
    bool endedByZero = false;
    const char* p = text;
    while (*p != '\0' && written < size) {
        if (*p != '%') {
            out[written++] = *p++;
            continue;
        }
        char c = p[1];
        if (c == '\0') {
            // A '%' that ends the text has nothing to stand for.
            ++p;
            break;
        }
        if (!isdigit(static_cast<unsigned char>(c))) {
            switch (c) {
                case 'n':
                    out[written++] = '\n';
                    break;
                case 'r':
                    out[written++] = '\r';
                    break;
                case 't':
                    out[written++] = '\t';
                    break;
                case 'b':
                    out[written++] = ' ';
                    break;
                default:
                    out[written++] = c;
                    break;
            }
            p += 2;
            continue;
        }
        if (c == '0') {
            endedByZero = true;
            break;
        }
        int number = c - '0';
        p += 2;
        if (isdigit(static_cast<unsigned char>(*p))) number = number * 10 + (*p++ - '0');

        // An explicit conversion: %n!fmt!. The closing '!' stays unread, so
        // it is copied as text right after the insert; callers' messages
        // were written against that behaviour.
        const char* fmtBegin = nullptr;
        const char* fmtEnd = nullptr;
        if (*p == '!') {
            const char* close = strchr(p + 1, '!');
            if (close != nullptr) {
                fmtBegin = p + 1;
                fmtEnd = close;
                p = close;
            }
        }
        if (arguments == nullptr) continue;
        unsigned long value = arguments[number - 1];
        if (fmtBegin == nullptr) {
            const char* s = reinterpret_cast<const char*>(value);
            if (s == nullptr) s = "(null)";
            while (*s != '\0' && written < size) out[written++] = *s++;
        } else {
            char pattern[kMaxConversion];
            ArgKind kind;
            if (ParseConversion(fmtBegin, fmtEnd, pattern, &kind)) {
                written += FormatOne(out + written, size - written, pattern, kind, value);
            }
        }
    }
    if (!endedByZero && written < size) out[written++] = '\n';
    if (written == size) --written;
    out[written] = '\0';
    return written;
}

int FormatMessage(unsigned long flags, const void* source, unsigned long messageId,
                  unsigned long /*languageId*/, char* buffer, unsigned long size,
                  va_list* arguments) {
    if (buffer == nullptr) return 0;
    // FROM_HMODULE and the line-width byte are accepted without effect: there
    // is no message table to read and lines are never wrapped. The system's
    // messages are the C library's texts of the errno values, which is what
    // GetLastError() holds here.
    const bool allocate = (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0;
    const char* text = kUnknownError;
    bool ignoreInserts = true;
    char systemText[256];
    if ((flags & FORMAT_MESSAGE_FROM_STRING) != 0 && source != nullptr) {
        text = static_cast<const char*>(source);
        ignoreInserts = (flags & FORMAT_MESSAGE_IGNORE_INSERTS) != 0;
    } else if ((flags & FORMAT_MESSAGE_FROM_SYSTEM) != 0) {
        text = strerror_r(static_cast<int>(messageId), systemText, sizeof systemText);
    }

    char area[kAllocateArea];
    char* target = allocate ? area : buffer;
    unsigned long targetSize = allocate ? sizeof(area) : size;

    int result;
    if (ignoreInserts) {
        // The result counts the terminating NUL; callers size their copies
        // from it. The copy itself is cut to the buffer.
        size_t len = strlen(text);
        result = static_cast<int>(len + 1);
        if (targetSize > 0) {
            size_t keep = len < targetSize ? len : targetSize - 1;
            memcpy(target, text, keep);
            target[keep] = '\0';
        }
    } else {
        int bounded = targetSize > 0x7FFFFFFFUL ? 0x7FFFFFFF : static_cast<int>(targetSize);
        result = DoFormatMsg(text, target, bounded, reinterpret_cast<unsigned long*>(arguments));
    }

    if (allocate) {
        char** out = reinterpret_cast<char**>(buffer);
        size_t len = strlen(area);
        char* copy = static_cast<char*>(malloc(len + 1));
        if (copy == nullptr) {
            *out = nullptr;
            errno = ERROR_NOT_ENOUGH_MEMORY;
            return 0;
        }
        memcpy(copy, area, len + 1);
        *out = copy;
    }
    return result;
}
