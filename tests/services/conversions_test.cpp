#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include <string>

#include <tvcommonutil.h>

namespace {
unsigned char* U(const char* s) {
    return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}

std::string Ltoa(long value, int radix) {
    char buf[66];
    memset(buf, 'Q', sizeof(buf));
    const char* r = _ltoa(value, buf, radix);
    EXPECT_EQ(buf, r);
    return r;
}
}  // namespace

TEST(AsciiEncode, BinaryToHexIsUpperCaseWithoutTerminator) {
    unsigned char src[] = {0x00, 0xAB};
    unsigned char dst[8];
    memset(dst, 'Z', sizeof(dst));
    EXPECT_EQ(4, CTvAsciiEncode::Binary2Hex(src, 2, dst, 4));
    EXPECT_EQ(0, memcmp(dst, "00ABZZZZ", 8));

    memset(dst, 'Z', sizeof(dst));
    EXPECT_EQ(-2, CTvAsciiEncode::Binary2Hex(src, 2, dst, 3));
    EXPECT_EQ(-1, CTvAsciiEncode::Binary2Hex(src, -1, dst, 8));
    EXPECT_EQ(-2, CTvAsciiEncode::Binary2Hex(src, 1, dst, -5));
    EXPECT_EQ(0, CTvAsciiEncode::Binary2Hex(src, 0, dst, 0));
    EXPECT_EQ(0, memcmp(dst, "ZZZZZZZZ", 8));  // failures write nothing
}

TEST(AsciiEncode, HexToBinaryChecksLengthsButNotDigits) {
    unsigned char dst[4];
    memset(dst, 0xEE, sizeof(dst));
    EXPECT_EQ(1, CTvAsciiEncode::Hex2Binary(U("0g"), 2, dst, 1));
    EXPECT_EQ(0x00, dst[0]);
    EXPECT_EQ(0xEE, dst[1]);
    EXPECT_EQ(1, CTvAsciiEncode::Hex2Binary(U("g1"), 2, dst, 1));
    EXPECT_EQ(0x01, dst[0]);
    EXPECT_EQ(-3, CTvAsciiEncode::Hex2Binary(U("abc"), 3, dst, 4));
    EXPECT_EQ(-3, CTvAsciiEncode::Hex2Binary(U("a"), 1, dst, 4));  // one digit is odd too
    EXPECT_EQ(0x01, dst[0]);
    EXPECT_EQ(-1, CTvAsciiEncode::Hex2Binary(U("ab"), -2, dst, 4));
    // 2 * dstLen < srcLen: refused before anything is written.
    memset(dst, 0xEE, sizeof(dst));
    EXPECT_EQ(-2, CTvAsciiEncode::Hex2Binary(U("a1b2c3"), 6, dst, 2));
    EXPECT_EQ(-2, CTvAsciiEncode::Hex2Binary(U(""), 0, dst, -1));
    EXPECT_EQ(-2, CTvAsciiEncode::Hex2Binary(U("a1b2"), 4, dst, INT_MIN));
    EXPECT_EQ(0xEE, dst[0]);
    // The length checks come in order: -2 wins over -3.
    EXPECT_EQ(-2, CTvAsciiEncode::Hex2Binary(U("abc"), 3, dst, 1));
    EXPECT_EQ(2, CTvAsciiEncode::Hex2Binary(U("fFa0"), 4, dst, 2));
    EXPECT_EQ(0xFF, dst[0]);
    EXPECT_EQ(0xA0, dst[1]);
    EXPECT_EQ(0xEE, dst[2]);
}

TEST(AsciiEncode, ValidityAndTables) {
    EXPECT_EQ(1, CTvAsciiEncode::IsValidHex(U(""), 0));
    EXPECT_EQ(1, CTvAsciiEncode::IsValidHex(U("zz"), -4));
    EXPECT_EQ(1, CTvAsciiEncode::IsValidHex(U("09afAF"), 6));
    EXPECT_EQ(0, CTvAsciiEncode::IsValidHex(U("12G"), 3));
    EXPECT_EQ(1, CTvAsciiEncode::IsValidHex(U("12G"), 2));  // only the first len bytes count
    EXPECT_EQ(0, CTvAsciiEncode::IsValidHex(U("\xff"), 1));
    int valid = 0;
    for (int c = 0; c < 256; ++c) {
        valid += CTvAsciiEncode::hexValidValues[c];
        if (!CTvAsciiEncode::hexValidValues[c]) {
            EXPECT_EQ(0, CTvAsciiEncode::hexBinaryValues[c]) << c;
        }
    }
    EXPECT_EQ(22, valid);
}

TEST(AsciiEncode, EveryByteRoundTrips) {
    unsigned char bytes[256];
    for (int i = 0; i < 256; ++i) bytes[i] = static_cast<unsigned char>(255 - i);
    unsigned char hex[512];
    ASSERT_EQ(512, CTvAsciiEncode::Binary2Hex(bytes, 256, hex, 512));
    ASSERT_EQ(1, CTvAsciiEncode::IsValidHex(hex, 512));
    unsigned char back[256];
    ASSERT_EQ(256, CTvAsciiEncode::Hex2Binary(hex, 512, back, 256));
    EXPECT_EQ(0, memcmp(bytes, back, 256));
    // Lower-case input decodes to the same bytes.
    for (unsigned char& c : hex) c = static_cast<unsigned char>(tolower(c));
    memset(back, 0, sizeof(back));
    ASSERT_EQ(256, CTvAsciiEncode::Hex2Binary(hex, 512, back, 256));
    EXPECT_EQ(0, memcmp(bytes, back, 256));
}

TEST(IntegerText, ItoaAndI64toaKnowOnlyDecimalAndHex) {
    char buf[32];
    EXPECT_STREQ("-255", itoa(-255, buf, 10));
    EXPECT_STREQ("ffffff01", itoa(-255, buf, 16));
    EXPECT_STREQ("-2147483648", itoa(INT_MIN, buf, 10));
    EXPECT_STREQ("7fffffff", itoa(INT_MAX, buf, 16));
    EXPECT_EQ(nullptr, itoa(8, buf, 8));
    EXPECT_EQ(nullptr, itoa(8, buf, 2));
    EXPECT_EQ(nullptr, itoa(8, nullptr, 10));
    EXPECT_STREQ("-9223372036854775808", i64toa(LLONG_MIN, buf, 10));
    EXPECT_STREQ("ffffffffffffff01", i64toa(-255, buf, 16));
    EXPECT_EQ(buf, i64toa(1, buf, 10));
    EXPECT_EQ(nullptr, i64toa(1, buf, 36));
}

// Value, radix, text; ... Hex and octal show the low 32 bits only and drop
// the sign; the other radixes run on 32-bit powers and stop after 32 digits;
// LONG_MIN cannot be negated, leaving only the decimal sign.
TEST(IntegerText, LtoaDigitsSignsAndRadixes) {
    const std::string ones31(31, '1'), zeros32(32, '0');
    const struct {
        long value;
        int radix;
        const char* text;
    } cases[] = {// clang-format off
        {-255, 16, "ffffff01"}, {-255, 2, "11111111"}, {-255, 10, "-255"}, {255, 8, "377"},
        {-1, 8, "37777777777"}, {35, 36, "z"}, {36, 36, "10"}, {46655, 36, "zzz"},
        {-46655, 36, "zzz"}, {INT_MAX, 36, "zik0zj"}, {INT_MAX, 10, "2147483647"},
        {INT_MIN, 10, "-2147483648"}, {INT_MAX, 2, ones31.c_str()}, {0, 2, "0"}, {0, 36, "0"},
        {0, 1, ""}, {12, 37, ""}, {12, -10, ""}, {0x1234567890L, 16, "34567890"},
        {0x100000000L, 8, "0"}, {-1, 16, "ffffffff"},
        {LONG_MAX, 10, "00000000000000000000001854775807"},
        {0x100000000L, 10, "00000000000000000000001294967296"},
        {0x80000000L, 2, zeros32.c_str()}, {1L << 40, 36, "00000000000000000000000000ywu1og"},
        {1000000000000L, 3, "00000000000001011201102102111001"}, {LONG_MIN, 10, "-"},
        {LONG_MIN, 2, ""}, {LONG_MIN, 16, "0"}};
    // clang-format on
    for (const auto& c : cases)
        EXPECT_EQ(c.text, Ltoa(c.value, c.radix)) << c.value << " " << c.radix;
    EXPECT_EQ(nullptr, _ltoa(1, nullptr, 10));
    EXPECT_EQ(nullptr, fallback_ltoa(1, nullptr, 2));
}

TEST(CaseConversion, InPlaceUpToTheTerminator) {
    char s[] = "MiXed 1\xe9z\0tail";
    EXPECT_EQ(s, _strupr(s));
    EXPECT_STREQ("MIXED 1\xe9Z", s);
    EXPECT_STREQ("tail", s + 10);  // nothing after the NUL is touched
    EXPECT_EQ(s, _strlwr(s));
    EXPECT_STREQ("mixed 1\xe9z", s);
    EXPECT_EQ(nullptr, _strupr(nullptr));
    EXPECT_EQ(nullptr, _strlwr(nullptr));
}
