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
    EXPECT_EQ(15, CTvAsciiEncode::hexBinaryValues[static_cast<unsigned char>('f')]);
    EXPECT_EQ(15, CTvAsciiEncode::hexBinaryValues[static_cast<unsigned char>('F')]);
    EXPECT_STREQ("0123456789ABCDEF", CTvAsciiEncode::hexTable);
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

TEST(IntegerText, LtoaDigitsSignsAndRadixes) {
    EXPECT_EQ("ffffff01", Ltoa(-255, 16));
    EXPECT_EQ("11111111", Ltoa(-255, 2));  // the sign is dropped outside radix 10
    EXPECT_EQ("-255", Ltoa(-255, 10));
    EXPECT_EQ("377", Ltoa(255, 8));
    EXPECT_EQ("37777777777", Ltoa(-1, 8));
    EXPECT_EQ("z", Ltoa(35, 36));
    EXPECT_EQ("10", Ltoa(36, 36));
    EXPECT_EQ("zzz", Ltoa(46655, 36));
    EXPECT_EQ("zzz", Ltoa(-46655, 36));
    EXPECT_EQ("zik0zj", Ltoa(INT_MAX, 36));
    EXPECT_EQ("2147483647", Ltoa(INT_MAX, 10));
    EXPECT_EQ("-2147483648", Ltoa(INT_MIN, 10));
    EXPECT_EQ(std::string(31, '1'), Ltoa(INT_MAX, 2));
    EXPECT_EQ("0", Ltoa(0, 2));
    EXPECT_EQ("0", Ltoa(0, 36));
    EXPECT_EQ("", Ltoa(0, 1));
    EXPECT_EQ("", Ltoa(12, 37));
    EXPECT_EQ("", Ltoa(12, -10));
    EXPECT_EQ(nullptr, _ltoa(1, nullptr, 10));
    EXPECT_EQ(nullptr, fallback_ltoa(1, nullptr, 2));
}

TEST(IntegerText, LtoaBeyondThirtyTwoBitsKeepsItsOldDigits) {
    // Hex and octal show the low 32 bits only.
    EXPECT_EQ("34567890", Ltoa(0x1234567890L, 16));
    EXPECT_EQ("0", Ltoa(0x100000000L, 8));
    EXPECT_EQ("ffffffff", Ltoa(-1, 16));
    // The other radixes run on 32-bit powers and stop after 32 digits.
    EXPECT_EQ("00000000000000000000001854775807", Ltoa(LONG_MAX, 10));
    EXPECT_EQ("00000000000000000000001294967296", Ltoa(0x100000000L, 10));
    EXPECT_EQ(std::string(32, '0'), Ltoa(0x80000000L, 2));
    EXPECT_EQ("00000000000000000000000000ywu1og", Ltoa(1L << 40, 36));
    EXPECT_EQ("00000000000001011201102102111001", Ltoa(1000000000000L, 3));
    // LONG_MIN cannot be negated: only the decimal sign is left.
    EXPECT_EQ("-", Ltoa(LONG_MIN, 10));
    EXPECT_EQ("", Ltoa(LONG_MIN, 2));
    EXPECT_EQ("0", Ltoa(LONG_MIN, 16));
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
