// Hex encoding round trips and integer-to-text on arbitrary input.
//
// Every destination is a heap block of exactly the length the call is told,
// so any write past it is caught by AddressSanitizer; inconsistent results
// trap.
#include <ctype.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include <tvcommonutil.h>

namespace {

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

std::unique_ptr<unsigned char[]> Block(size_t n) {
    return std::unique_ptr<unsigned char[]>(new unsigned char[n == 0 ? 1 : n]);
}

// Treats the input as hex text, decoded into a destination of dstLen bytes.
void HexToBinary(const uint8_t* data, int len, int dstLen) {
    auto src = Block(static_cast<size_t>(len));
    memcpy(src.get(), data, static_cast<size_t>(len));
    auto dst = Block(static_cast<size_t>(dstLen));
    const int r = CTvAsciiEncode::Hex2Binary(src.get(), len, dst.get(), dstLen);
    if (2LL * dstLen < len) {
        Check(r == -2);
        return;
    }
    if (len % 2 != 0) {
        Check(r == -3);
        return;
    }
    Check(r == len / 2);
    if (!CTvAsciiEncode::IsValidHex(src.get(), len)) return;
    // Valid hex encodes back to its upper-case spelling.
    auto hex = Block(static_cast<size_t>(len));
    Check(CTvAsciiEncode::Binary2Hex(dst.get(), r, hex.get(), len) == len);
    for (int i = 0; i < len; ++i) Check(hex[i] == toupper(src[i]));
}

// Treats the input as binary data: encode, validate, decode.
void BinaryRoundTrip(const uint8_t* data, int len) {
    auto src = Block(static_cast<size_t>(len));
    memcpy(src.get(), data, static_cast<size_t>(len));
    if (len > 0) {
        // One byte short: refused, nothing written.
        auto small = Block(static_cast<size_t>(2 * len - 1));
        memset(small.get(), 'Z', static_cast<size_t>(2 * len - 1));
        Check(CTvAsciiEncode::Binary2Hex(src.get(), len, small.get(), 2 * len - 1) == -2);
        for (int i = 0; i < 2 * len - 1; ++i) Check(small[i] == 'Z');
    }
    auto hex = Block(static_cast<size_t>(2 * len));
    Check(CTvAsciiEncode::Binary2Hex(src.get(), len, hex.get(), 2 * len) == 2 * len);
    Check(CTvAsciiEncode::IsValidHex(hex.get(), 2 * len) == 1);
    for (int i = 0; i < 2 * len; ++i) Check(isdigit(hex[i]) || (hex[i] >= 'A' && hex[i] <= 'F'));
    auto back = Block(static_cast<size_t>(len));
    Check(CTvAsciiEncode::Hex2Binary(hex.get(), 2 * len, back.get(), len) == len);
    Check(memcmp(src.get(), back.get(), static_cast<size_t>(len)) == 0);
}

int DigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    return 99;
}

void IntegerText(long value, int radix) {
    char buf[66];
    memset(buf, 'Q', sizeof(buf));
    const char* r = fallback_ltoa(value, buf, radix);
    Check(r == buf);
    const void* nul = memchr(buf, '\0', sizeof(buf));
    Check(nul != nullptr);
    const size_t len = static_cast<size_t>(static_cast<const char*>(nul) - buf);
    Check(len <= 33);
    for (size_t i = len + 1; i < sizeof(buf); ++i) Check(buf[i] == 'Q');
    Check(strcmp(_ltoa(value, buf, radix), buf) == 0);

    char want[66];
    if (radix < 2 || radix > 36) {
        Check(len == 0);
    } else if (value == 0) {
        Check(strcmp(buf, "0") == 0);
    } else if (radix == 16 || radix == 8) {
        snprintf(want, sizeof(want), radix == 16 ? "%x" : "%o",
                 static_cast<unsigned int>(static_cast<unsigned long>(value)));
        Check(strcmp(buf, want) == 0);
    } else {
        const char* digits = buf;
        if (value < 0 && radix == 10) {
            Check(*digits == '-');
            ++digits;
        }
        Check(strlen(digits) <= 32);
        for (const char* d = digits; *d != '\0'; ++d) Check(DigitValue(*d) < radix);
        // Magnitudes within 31 bits are exact.
        if (value >= -INT_MAX && value <= INT_MAX) {
            const long magnitude = value < 0 ? -value : value;
            Check(strtol(digits, nullptr, radix) == magnitude);
            Check(digits[0] != '0');
        }
    }

    const int v32 = static_cast<int>(static_cast<unsigned long>(value));
    char* t = itoa(v32, want, radix);
    char ref[66];
    if (radix == 10) {
        snprintf(ref, sizeof(ref), "%d", v32);
        Check(t == want && strcmp(want, ref) == 0);
        Check(i64toa(value, want, radix) == want);
        snprintf(ref, sizeof(ref), "%lld", static_cast<long long>(value));
        Check(strcmp(want, ref) == 0);
    } else if (radix == 16) {
        snprintf(ref, sizeof(ref), "%x", static_cast<unsigned int>(v32));
        Check(t == want && strcmp(want, ref) == 0);
        Check(i64toa(value, want, radix) == want);
        snprintf(ref, sizeof(ref), "%llx", static_cast<unsigned long long>(value));
        Check(strcmp(want, ref) == 0);
    } else {
        Check(t == nullptr);
        Check(i64toa(value, want, radix) == nullptr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) return 0;
    if (size >= 2) {
        // The first two bytes pick a destination length near the natural one
        // (from well short of it to past it, negative included).
        const int len = static_cast<int>(size - 2);
        const int skew = static_cast<int8_t>(data[0]) * (1 + data[1] % 4);
        int dstLen = len / 2 + skew;
        if (dstLen < -4) dstLen = -4;
        HexToBinary(data + 2, len, dstLen < 0 ? 0 : dstLen);
        if (dstLen < 0) {
            auto dst = Block(1);
            auto src = Block(static_cast<size_t>(len));
            memcpy(src.get(), data + 2, static_cast<size_t>(len));
            Check(CTvAsciiEncode::Hex2Binary(src.get(), len, dst.get(), dstLen) == -2);
        }
    }
    BinaryRoundTrip(data, static_cast<int>(size));
    // Integer text: each 9-byte record is a radix byte and a value.
    for (size_t off = 0; off + 9 <= size && off < 9 * 64; off += 9) {
        uint64_t bits;
        memcpy(&bits, data + off + 1, sizeof(bits));
        const int radix = static_cast<int8_t>(data[off]);
        IntegerText(static_cast<long>(bits), radix);
        IntegerText(static_cast<long>(static_cast<int32_t>(bits)), radix);
        IntegerText(static_cast<long>(bits % 100000), radix);
    }
    return 0;
}
