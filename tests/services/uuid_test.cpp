#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>

#include <tvcommonutil.h>

#include "services/uuid_internal.h"

namespace {

std::string Text(_GUID g) {
    unsigned char* s = nullptr;
    EXPECT_EQ(0, UuidToString(&g, &s));
    std::string out(reinterpret_cast<char*>(s));
    EXPECT_EQ(0, RpcStringFree(&s));
    return out;
}

long Parse(const char* text, _GUID* g) {
    return UuidFromString(reinterpret_cast<unsigned char*>(const_cast<char*>(text)), g);
}

bool IsNil(const _GUID& g) {
    _GUID nil;
    memset(&nil, 0, sizeof(nil));
    return memcmp(&g, &nil, sizeof(g)) == 0;
}

long ZeroHostId() {
    return 0;
}

}  // namespace

TEST(Uuid, CreatedIdentifiersCarryClockNodeAndMarkers) {
    time_t before = time(nullptr);
    _GUID a, b;
    ASSERT_EQ(0, UuidCreate(&a));
    ASSERT_EQ(0, CoCreateGuid(&b));
    time_t after = time(nullptr);

    // Back to back in one process: never equal.
    long status = -1;
    EXPECT_NE(0, UuidCompare(&a, &b, &status));
    EXPECT_EQ(0, status);

    for (const _GUID& g : {a, b}) {
        EXPECT_LT(g.Data1, 1000000UL);
        bool secondsMatch = false;
        for (time_t s = before; s <= after; ++s) {
            unsigned long us = static_cast<unsigned long>(s);
            secondsMatch |= g.Data2 == (us & 0xFFFF) && g.Data3 == (((us >> 16) & 0x0FFF) | 0x1000);
        }
        EXPECT_TRUE(secondsMatch);
        long id = gethostid();
        EXPECT_EQ(0, memcmp(&g.Data4[2], &id, 6));
        // Version 1, the variant's top bits 10, lower-case hex.
        const std::regex form(
            "[0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
        EXPECT_TRUE(std::regex_match(Text(g), form)) << Text(g);
    }
    // The clock sequence is set once per process.
    EXPECT_EQ(a.Data4[0], b.Data4[0]);
    EXPECT_EQ(a.Data4[1], b.Data4[1]);
}

TEST(Uuid, HostWithoutIdentifierCannotCreate) {
    tv::detail::HostIdSource previous = tv::detail::SetHostIdSource(ZeroHostId);
    _GUID g;
    EXPECT_EQ(1, UuidCreate(&g));
    EXPECT_EQ(1, CoCreateGuid(&g));
    tv::detail::SetHostIdSource(previous);
    EXPECT_EQ(0, UuidCreate(&g));
}

TEST(Uuid, TextRoundTripsAndParseQuirks) {
    _GUID g;
    ASSERT_EQ(0, UuidCreate(&g));
    _GUID back;
    std::string t = Text(g);
    ASSERT_EQ(0, Parse(t.c_str(), &back));
    EXPECT_EQ(0, UuidCompare(&g, &back, nullptr));

    // Fields land where the text form puts them; upper case and trailing
    // text are accepted; only the low 32 bits of Data1 are printed.
    ASSERT_EQ(0, Parse("0123ABCD-4567-89ef-A0b1-c2d3e4f5a6b7}trailing", &back));
    EXPECT_EQ(0x0123ABCDUL, back.Data1);
    EXPECT_EQ(0x4567, back.Data2);
    EXPECT_EQ(0x89ef, back.Data3);
    const unsigned char d4[8] = {0xa0, 0xb1, 0xc2, 0xd3, 0xe4, 0xf5, 0xa6, 0xb7};
    EXPECT_EQ(0, memcmp(d4, back.Data4, 8));
    EXPECT_EQ("0123abcd-4567-89ef-a0b1-c2d3e4f5a6b7", Text(back));
    back.Data1 = 0x1234567890ABCDEFUL;
    EXPECT_EQ("90abcdef", Text(back).substr(0, 8));

    // A ninth character other than '-' is the nil identifier, with success;
    // so is a text too short to have one. Empty and malformed texts fail.
    // The record is cleared either way.
    const struct {
        const char* text;
        long result;
    } nils[] = {{"{0123ABCD-4567-89ef-A0b1-c2d3e4f5a6b7}", 0},
                {"abc", 0},
                {"", 1},
                {"0123abcd-4567-89ef-a0b1-c2d3e4f5a6", 1}};
    for (const auto& c : nils) {
        memset(&back, 0xAB, sizeof(back));
        EXPECT_EQ(c.result, Parse(c.text, &back)) << c.text;
        EXPECT_TRUE(IsNil(back)) << c.text;
    }
    EXPECT_EQ(1, UuidFromString(nullptr, &back));
    EXPECT_EQ(1, Parse("0123abcd-xyz7-89ef-a0b1-c2d3e4f5a6b7", &back));

    unsigned char* none = nullptr;
    EXPECT_EQ(1, UuidToString(&g, nullptr));
    EXPECT_EQ(1, UuidToString(nullptr, &none));
}

// Data1 decides before any later field; the Data4 bytes compare as unsigned,
// first byte first.
TEST(Uuid, CompareOrdersFieldsUnsignedAndInPriority) {
    const struct {
        const char *a, *b;
        int expected;
    } cases[] = {
        {"00000000-0000-0000-0000-000000000000", "00000000-0000-0000-0000-000000000000", 0},
        {"00000002-0000-0000-0000-000000000000", "00000001-ffff-0000-0000-000000000000", 1},
        {"00000001-ffff-0000-0000-000000000000", "00000002-0000-0000-0000-000000000000", -1},
        {"00000002-0000-0000-0000-000000000000", "00000002-ffff-0000-0000-000000000000", -1},
        {"00000002-0000-0001-0000-000000000000", "00000002-0000-0000-0000-000000000000", 1},
        {"00000002-0000-0001-8000-000000000000", "00000002-0000-0001-7f00-0000000000ff", 1},
        {"00000002-0000-0001-8000-000000000000", "00000002-0000-0001-8000-0000000000ff", -1}};
    for (const auto& c : cases) {
        _GUID a, b;
        ASSERT_EQ(0, Parse(c.a, &a));
        ASSERT_EQ(0, Parse(c.b, &b));
        long status = 42;
        EXPECT_EQ(c.expected, UuidCompare(&a, &b, &status)) << c.a << " " << c.b;
        EXPECT_EQ(0, status);
    }
}

TEST(Uuid, RpcStringFreeRefusesEmptyStrings) {
    unsigned char empty[1] = {0};
    unsigned char* p = empty;
    EXPECT_EQ(1, RpcStringFree(&p));
    EXPECT_EQ(empty, p);  // not freed, not reset
    unsigned char* null = nullptr;
    EXPECT_EQ(1, RpcStringFree(&null));
    _GUID g = {};
    ASSERT_EQ(0, UuidToString(&g, &p));
    unsigned char* kept = p;
    EXPECT_EQ(0, RpcStringFree(&p));
    EXPECT_EQ(kept, p);  // freed but not reset
}

TEST(Uuid, ClockReadingsOrderSecondsFirst) {
    using tv::detail::uuid_time_cmp;
    tv::detail::uuid_time_t a = {999999, 10}, b = {0, 11}, c = {999999, 10};
    EXPECT_EQ(0, uuid_time_cmp(&a, &b));
    EXPECT_EQ(2, uuid_time_cmp(&b, &a));
    EXPECT_EQ(1, uuid_time_cmp(&a, &c));
    c.usec = 5;
    EXPECT_EQ(2, uuid_time_cmp(&a, &c));
}
