#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <tvcommonutil.h>

namespace {

unsigned long Arg(const char* s) {
    return reinterpret_cast<unsigned long>(s);
}

// FormatMessage from a string with an argument array into a buffer of
// `size` bytes; returns the result and the text.
std::pair<int, std::string> Format(const char* text, std::vector<unsigned long> args,
                                   unsigned long size = 256,
                                   unsigned long extraFlags = FORMAT_MESSAGE_ARGUMENT_ARRAY) {
    std::vector<char> buf(size + 16, '#');
    int n = FormatMessage(FORMAT_MESSAGE_FROM_STRING | extraFlags, text, 0, 0, buf.data(), size,
                          reinterpret_cast<va_list*>(args.data()));
    // Nothing is written past the size handed in.
    for (size_t i = size; i < buf.size(); ++i) EXPECT_EQ('#', buf[i]) << "overrun at " << i;
    return {n, std::string(buf.data())};
}

}  // namespace

TEST(FormatMessage, InsertsAndEscapes) {
    EXPECT_EQ(std::make_pair(11, std::string("Disk C full")), Format("Disk %1 full%0", {Arg("C")}));
    EXPECT_EQ(std::make_pair(12, std::string("Disk C full\n")), Format("Disk %1 full", {Arg("C")}));

    // The closing '!' of an explicit conversion is copied after the insert.
    EXPECT_EQ(std::make_pair(3, std::string("7!\n")), Format("%1!d!", {7}));
    EXPECT_EQ("[  -5!|ff!|0X2A!|x!]\n",
              Format("[%1!4d!|%2!x!|%3!#X!|%4!c!]", {static_cast<unsigned long>(-5L), 255, 42, 'x'})
                  .second);
    EXPECT_EQ("-1! 4294967295! 18446744073709551615!\n",
              Format("%1!ld! %1!u! %1!I64u!", {~0UL}).second);
    EXPECT_EQ("ab   !|\n", Format("%1!-5s!|", {Arg("ab")}).second);

    // Two-digit numbers, repeats and out-of-order inserts.
    std::vector<unsigned long> many;
    std::vector<std::string> names;
    for (int i = 1; i <= 12; ++i) names.push_back("a" + std::to_string(i));
    for (auto& s : names) many.push_back(Arg(s.c_str()));
    EXPECT_EQ("a12 a1 a10 a1 a10\n", Format("%12 %1 %10 %1 %10", many).second);
    // %100 is insert 10 followed by a literal 0.
    EXPECT_EQ("a100\n", Format("%100", many).second);

    // Escapes, a literal percent and any other escaped character.
    EXPECT_EQ("a\nb\rc\td e%f!g\n", Format("a%nb%rc%td%be%%f%!g", {}).second);
    // A '%' that ends the text stands for nothing.
    EXPECT_EQ("abc\n", Format("abc%", {}).second);
    // %0 stops at once, even in the middle of the text.
    EXPECT_EQ(std::make_pair(2, std::string("ab")), Format("ab%0cd%1", {}));
    // An unclosed '!' leaves the default "%s" and copies the '!'.
    EXPECT_EQ("x!d\n", Format("%1!d", {Arg("x")}).second);
}

TEST(FormatMessage, UnsafeConversionsInsertNothing) {
    // Conversions that would read another argument or write through one are
    // refused, as are floating point and overlong widths.
    for (const char* text :
         {"<%1!n!>", "<%1!*d!>", "<%1!d%s!>", "<%1!f!>", "<%1!99999d!>", "<%1!ls!>", "<%1!!>"}) {
        int dummy = 0;
        EXPECT_EQ("<!>\n", Format(text, {reinterpret_cast<unsigned long>(&dummy)}).second) << text;
        EXPECT_EQ(0, dummy);
    }
    // A null argument array inserts nothing but keeps the rest.
    char out[32];
    EXPECT_EQ(3,
              FormatMessage(FORMAT_MESSAGE_FROM_STRING, "a%1b", 0, 0, out, sizeof(out), nullptr));
    EXPECT_STREQ("ab\n", out);
}

TEST(FormatMessage, SizeRule) {
    // The output is cut at the size and the last slot gives way to the NUL.
    EXPECT_EQ(std::make_pair(3, std::string("abc")), Format("abcdef", {}, 4));
    // Exactly filled by the text: the line feed has no room, a character is
    // dropped for the NUL.
    EXPECT_EQ(std::make_pair(2, std::string("ab")), Format("abc", {}, 3));
    // Room for the line feed, which is then dropped for the NUL.
    EXPECT_EQ(std::make_pair(3, std::string("abc")), Format("abc", {}, 4));
    EXPECT_EQ(std::make_pair(4, std::string("abc\n")), Format("abc", {}, 5));
    // Inserts, plain and formatted, are cut the same way.
    for (unsigned long size = 1; size < 12; ++size) {
        std::string full = "x" + std::string("hello") + "y" + std::string("   42") + "!\n";
        auto r = Format("x%1y%2!5d!", {Arg("hello"), 42}, size);
        std::string want = full.substr(0, std::min<size_t>(full.size(), size - 1));
        EXPECT_EQ(want, r.second) << size;
        EXPECT_EQ(static_cast<int>(want.size()), r.first) << size;
    }
    // Size 0 writes nothing at all.
    char one = '#';
    EXPECT_EQ(0, DoFormatMsg("abc", &one, 0, nullptr));
    EXPECT_EQ('#', one);
}

TEST(FormatMessage, FlagsSourceAndAllocation) {
    char out[64];
    auto fm = [&](unsigned long flags, const char* text, unsigned long id, char* buf,
                  unsigned long size) {
        return FormatMessage(flags, text, id, 0, buf, size, nullptr);
    };
    const unsigned long kIgnore = FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_IGNORE_INSERTS;
    // Inserts ignored: copied whole, the NUL counted in the result...
    EXPECT_EQ(4, fm(kIgnore, "abc", 0, out, sizeof(out)));
    EXPECT_STREQ("abc", out);
    EXPECT_EQ(7, fm(kIgnore, "a%1%nb", 0, out, sizeof(out)));
    EXPECT_STREQ("a%1%nb", out);
    // ...but the copy never passes the buffer.
    char small[4] = {'#', '#', '#', '#'};
    EXPECT_EQ(7, fm(kIgnore, "abcdef", 0, small, 3));
    EXPECT_EQ(std::string("ab\0#", 4), std::string(small, 4));

    // Without a string source the system flag gives the C library's text of
    // the code; anything else gives "Unknown Error". Inserts are ignored.
    for (unsigned long id : {static_cast<unsigned long>(ENOENT), 5UL, 0UL}) {
        char want[256];
        const std::string text = strerror_r(static_cast<int>(id), want, sizeof want);
        EXPECT_EQ(static_cast<int>(text.size() + 1),
                  fm(FORMAT_MESSAGE_FROM_SYSTEM, "ignored %1", id, out, sizeof(out)));
        EXPECT_EQ(text, out);
    }
    EXPECT_EQ(14, fm(FORMAT_MESSAGE_FROM_HMODULE, nullptr, ENOENT, out, sizeof(out)));
    EXPECT_STREQ("Unknown Error", out);
    EXPECT_EQ(14, fm(FORMAT_MESSAGE_FROM_STRING, nullptr, 0, out, sizeof(out)));
    EXPECT_STREQ("Unknown Error", out);
    EXPECT_EQ(0, fm(FORMAT_MESSAGE_FROM_STRING, "abc", 0, nullptr, 10));

    // Allocation: buffer receives a malloc'd copy; size is not consulted.
    // The internal area bounds an allocated message at 8191 characters.
    unsigned long args[] = {Arg("world")};
    std::string big(10000, 'z');
    const struct {
        const char* text;
        int result;
        std::string expected;
    } allocs[] = {{"hello %1", 12, "hello world\n"}, {big.c_str(), 8191, std::string(8191, 'z')}};
    for (const auto& c : allocs) {
        char* allocated = nullptr;
        EXPECT_EQ(c.result,
                  FormatMessage(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING |
                                    FORMAT_MESSAGE_ARGUMENT_ARRAY,
                                c.text, 0, 0, reinterpret_cast<char*>(&allocated), 0,
                                reinterpret_cast<va_list*>(args)));
        ASSERT_NE(nullptr, allocated);
        EXPECT_EQ(c.expected, allocated);
        free(allocated);
    }
}
