#include <gtest/gtest.h>
#include <limits.h>

#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include <tvcommonutil.h>

namespace {
const char* kNull = nullptr;
}

TEST(KWString, NullPointersCountAsEmpty) {
    CKWString a(kNull);
    EXPECT_TRUE(a.empty());
    EXPECT_STREQ("", a.c_str());
    CKWString b("text");
    b = kNull;
    EXPECT_EQ(0, b.length());
    EXPECT_TRUE(b == kNull);
    EXPECT_TRUE(kNull == b);
    EXPECT_FALSE(CKWString("x") == kNull);
    EXPECT_TRUE(CKWString("x") > kNull);
    EXPECT_TRUE(kNull < CKWString("x"));
    b += kNull;
    b.append(kNull);
    EXPECT_TRUE(b.empty());
    EXPECT_EQ(CKWString("ab"), kNull + CKWString("ab"));
    EXPECT_EQ(CKWString::npos, CKWString("abc").find_first_of(kNull));
    EXPECT_EQ(CKWString::npos, CKWString("abc").find_last_of(kNull));
    EXPECT_EQ(1u, CKWString("abc").find(kNull, 1));
    b.assign(kNull, 0, -1);
    EXPECT_TRUE(b.empty());
}

TEST(KWString, SearchesReturnPositionsOrAllBitsSet) {
    EXPECT_EQ(0xFFFFFFFFu, CKWString::npos);
    const CKWString s("a/b\\c/d");
    EXPECT_EQ(CKWString::npos, s.find('z'));
    EXPECT_EQ(static_cast<unsigned>(-1), s.find("zz"));
    EXPECT_EQ(1u, s.find('/'));
    EXPECT_EQ(5u, s.find('/', 2));
    EXPECT_EQ(CKWString::npos, s.find('/', 100));
    EXPECT_EQ(CKWString::npos, s.find('/', -1));  // -1 reads as "past the end"
    EXPECT_EQ(2u, s.find(CKWString("b\\")));
    EXPECT_EQ(5u, s.rfind('/'));
    EXPECT_EQ(1u, s.rfind('/', 4));
    EXPECT_EQ(CKWString::npos, s.rfind('/', 0));
    EXPECT_EQ(5u, s.find_last_of("/\\"));
    EXPECT_EQ(3u, s.find_last_of("/\\", 4));
    EXPECT_EQ(3u, s.find_last_of('\\'));
    EXPECT_EQ(1u, s.find_first_of("\\/"));
    EXPECT_EQ(CKWString::npos, CKWString().find_first_of("/"));
}

TEST(KWString, ReplaceIsLeftToRightAndNonOverlapping) {
    CKWString s("aaaa");
    s.replace(CKWString("aa"), CKWString("a"));
    EXPECT_EQ(CKWString("aa"), s);

    // No occurrence: the bytes are untouched, embedded NULs included.
    CKWString odd(std::string("x\0yb", 4));
    odd.replace(CKWString("ab"), CKWString("x"));
    EXPECT_EQ(std::string("x\0yb", 4), odd.str());

    // The replacement is not rescanned, so growing text terminates.
    CKWString grow("a.b.c");
    grow.replace(CKWString("."), CKWString("..."));
    EXPECT_EQ(CKWString("a...b...c"), grow);
    grow.replace(CKWString("..."), CKWString(""));
    EXPECT_EQ(CKWString("abc"), grow);

    // An empty pattern changes nothing (and must not loop).
    CKWString e("abc");
    e.replace(CKWString(""), CKWString("x"));
    EXPECT_EQ(CKWString("abc"), e);

    CKWString c("a-b-c-");
    c.replace('-', CKWString("::"));
    EXPECT_EQ(CKWString("a::b::c::"), c);
    c.replace(CKWString("::"), '+');
    EXPECT_EQ(CKWString("a+b+c+"), c);
    c.replace('+', '_');
    EXPECT_EQ(CKWString("a_b_c_"), c);

    CKWString path("C:\\dir\\file");
    CKWString copy = path.MakeForwardSlash();
    EXPECT_EQ(CKWString("C:/dir/file"), path);
    EXPECT_EQ(path, copy);
}

TEST(KWString, TrimAndCase) {
    CKWString spaces("   \t\r\n\v\f ");
    EXPECT_TRUE(CKWString(spaces).TrimRight().empty());
    EXPECT_TRUE(CKWString(spaces).TrimLeft().empty());
    CKWString t(" \tkey = value \r\n");
    t.TrimLeft().TrimRight();
    EXPECT_EQ(CKWString("key = value"), t);
    // Bytes above 127 are neither spaces nor letters in the POSIX locale.
    CKWString high("\xA0Mixed\xC9\xA0");
    high.TrimLeft().TrimRight();
    EXPECT_EQ(CKWString("\xA0Mixed\xC9\xA0"), high);
    high.MakeLower();
    EXPECT_EQ(CKWString("\xA0mixed\xC9\xA0"), high);
    EXPECT_EQ(-96, high[0]);  // signed byte value
    EXPECT_EQ('m', high[1]);

    CKWString inplace("KEY");
    char* p = inplace;
    p[0] = 'k';
    EXPECT_EQ(CKWString("kEY"), inplace);
}

TEST(KWString, CaseInsensitiveKeysButCaseSensitiveEquality) {
    std::map<CKWStringPc, int> values;
    values[CKWStringPc("Run")] = 1;
    values[CKWStringPc("RUN")] = 2;
    values[CKWStringPc("run")] += 10;
    ASSERT_EQ(1u, values.size());
    EXPECT_EQ(12, values.begin()->second);
    EXPECT_EQ(CKWString("Run"), values.begin()->first);  // the first spelling is kept
    EXPECT_FALSE(CKWString("Run") == CKWString("RUN"));
    EXPECT_FALSE(CKWStringPc("Run") == CKWStringPc("RUN"));
    EXPECT_TRUE(CKWStringPc("Run") != CKWStringPc("RUN"));

    std::set<CKWStringPc> keys = {"Software", "SOFTWARE", "alpha", "Beta"};
    ASSERT_EQ(3u, keys.size());
    auto it = keys.begin();
    EXPECT_EQ(CKWString("alpha"), *it++);
    EXPECT_EQ(CKWString("Beta"), *it++);
    EXPECT_EQ(CKWString("Software"), *it++);

    // Plain CKWString ordering is byte-wise: upper case sorts first.
    EXPECT_TRUE(CKWString("B") < CKWString("a"));
    EXPECT_TRUE(CKWString("a") > "B");
    EXPECT_TRUE("B" <= CKWString("B"));
    EXPECT_TRUE(CKWString("ab") >= "aa");
    EXPECT_LT(CKWString("abc").compare(CKWString("abd")), 0);
}

TEST(KWString, BuildingAndSubstrings) {
    CKWString s = CKWString("ab") + "cd" + 'e';
    s = 'x' + s;
    s = "<" + s + CKWString(">");
    EXPECT_EQ(CKWString("<xabcde>"), s);
    EXPECT_EQ(8, s.size());
    EXPECT_EQ(CKWString("de>"), s.Right(3));
    EXPECT_EQ(CKWString("<xabcde>"), s.Right(8));
    EXPECT_THROW(s.Right(9), std::out_of_range);
    EXPECT_EQ(CKWString("abc"), s.substr(2, 3));
    EXPECT_EQ(CKWString("cde>"), s.substr(4));
    s.erase(1, 1);
    EXPECT_EQ(CKWString("<abcde>"), s);
    s.erase(4);
    EXPECT_EQ(CKWString("<abc"), s);
    s.assign("0123456789", 3, 4);
    EXPECT_EQ(CKWString("3456"), s);
    s.assign("0123456789", 7, static_cast<int>(CKWString::npos));
    EXPECT_EQ(CKWString("789"), s);
    EXPECT_THROW(s.assign("01", 3, 1), std::out_of_range);

    CKWString moved(std::move(s));
    EXPECT_EQ(CKWString("789"), moved);
}

TEST(KWStringFormat, StringsAreCountedInTheEstimate) {
    std::string name(500, 'n');
    CKWString s;
    s.Format("%s=%d", name.c_str(), 42);
    EXPECT_EQ(name + "=42", s.str());

    // Beyond the on-stack buffer too.
    std::string big(5000, 'b');
    s.Format("[%s|%8s]", big.c_str(), "tail");
    EXPECT_EQ("[" + big + "|    tail]", s.str());

    // %.*s counts its precision and its string.
    s.Format("%.*s/%s", 3, "abcdef", "ok");
    EXPECT_EQ(CKWString("abc/ok"), s);

    // A huge precision is only counted, not allocated.
    s.Format("%.*s", INT_MAX, "abc");
    EXPECT_EQ(CKWString("abc"), s);

    s.Format("%s", "");
    EXPECT_TRUE(s.empty());
    s.Format("100%% %c%c", 'o', 'k');
    EXPECT_EQ(CKWString("100% ok"), s);
}

TEST(KWStringFormat, OutputBeyondTheEstimateIsCut) {
    // The '-' flag stops the count: the estimate is strlen("%-300s") + 100.
    CKWString s;
    s.Format("%-300s", "");
    EXPECT_EQ(106, s.length());
    EXPECT_EQ(std::string(106, ' '), s.str());

    // Numbers only have the fixed 100 bytes: 20 x 11 characters is cut at
    // strlen(fmt) + 100 = 140.
    s.Format("%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", -2000000000, -2000000000, -2000000000,
             -2000000000, -2000000000, -2000000000, -2000000000, -2000000000, -2000000000,
             -2000000000, -2000000000, -2000000000, -2000000000, -2000000000, -2000000000,
             -2000000000, -2000000000, -2000000000, -2000000000, -2000000000);
    ASSERT_EQ(140, s.length());
    std::string full;
    for (int i = 0; i < 20; ++i) full += "-2000000000";
    EXPECT_EQ(full.substr(0, 140), s.str());

    // A %s behind a precision is not counted either.
    std::string long_text(300, 'z');
    s.Format("%.250s", long_text.c_str());
    EXPECT_EQ(106, s.length());

    // The first NUL ends the text.
    s.Format("ab%cde", 0);
    EXPECT_EQ(CKWString("ab"), s);
}

TEST(KWStringFormat, OutOfStepFormatsStaySafe) {
    // Formats the pre-scan does not understand leave it behind the real
    // arguments; it must neither read through a number nor lose text that
    // fits in the spare bytes.
    CKWString s;
    s.Format("%ld: %s", 123456789L, "name");
    EXPECT_EQ(CKWString("123456789: name"), s);
    s.Format("%-5d|%s|%5.2f|%s", 7, "x", 1.5, "y");
    EXPECT_EQ(CKWString("7    |x| 1.50|y"), s);
    int written = 0;
    s.Format("%p%n|%s", static_cast<void*>(&written), &written, "p");
    EXPECT_GT(written, 0);
    EXPECT_EQ(CKWString("|p"), s.substr(written));
    s.Format("%*d|%s", 4, 9, "w");
    EXPECT_EQ(CKWString("   9|w"), s);
    s.Format("%lld %hd %zu %s", -1LL, static_cast<short>(3), static_cast<size_t>(5), "end");
    EXPECT_EQ(CKWString("-1 3 5 end"), s);
    // Through a member pointer so the compiler's format check lets a null
    // format reach the function.
    void (CKWString::*format)(const char*, ...) = &CKWString::Format;
    (s.*format)(kNull);
    EXPECT_TRUE(s.empty());
}
