// Reading profile files: parsing, lookups, lists and their buffer limits.
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profile_test_util.h"

using profiletest::Get;
using profiletest::Keys;
using profiletest::ProfileDir;
using profiletest::Sections;
using Strings = std::vector<std::string>;

namespace {

TEST(ProfileRead, ValuesKeepCommentsAndLoseOnePairOfQuotesHeadersFollowTheCommentCut) {
    ProfileDir dir;
    std::string f = dir.file("v.ini"), h = dir.file("h.ini");
    tvtest::WriteFile(f,
                      "[Main]\n"
                      "  k = v ; note  \n"
                      "quoted = \"  spaced out  \"\n"
                      "ticked = `  inner '  \n"
                      "lone = \"\n"
                      "pair = \"\"\n"
                      "tick2 = `it's here' tail\n"
                      "apos = 'kept'\n"
                      "Mixed Case Key=mk\n"
                      "eq = a=b=c\n"
                      "flag\n"
                      "empty =\n"
                      "dup = first\n"
                      "dup = second\n"
                      "; commented = no\n");
    EXPECT_EQ(Get("Main", "k", f), "v ; note");
    EXPECT_EQ(Get(" main ", "  K ", f), "v ; note");  // arguments trimmed, case ignored
    EXPECT_EQ(Get("Main", "quoted", f), "spaced out");
    EXPECT_EQ(Get("Main", "ticked", f), "inner");
    EXPECT_EQ(Get("Main", "lone", f), "");  // one '"' both opens and closes
    EXPECT_EQ(Get("Main", "pair", f), "");
    EXPECT_EQ(Get("Main", "tick2", f), "it's here");  // closed by the last apostrophe
    EXPECT_EQ(Get("Main", "apos", f), "'kept'");
    EXPECT_EQ(Get("Main", "mixed case key", f), "mk");
    EXPECT_EQ(Get("Main", "eq", f), "a=b=c");
    EXPECT_EQ(Get("Main", "flag", f), "<default>");  // a bare line has no value
    EXPECT_EQ(Get("Main", "empty", f), "");
    EXPECT_EQ(Get("Main", "dup", f), "first");
    EXPECT_EQ(Get("Main", "commented", f), "<default>");
    EXPECT_EQ(Get("Main", "missing", f), "<default>");
    EXPECT_EQ(Get("Other", "k", f), "<default>");
    EXPECT_EQ(Get("Main", "missing", f, nullptr), "");
    // The default is used as given, untrimmed.
    EXPECT_EQ(Get("Main", "missing", f, "  padded "), "  padded ");

    // The key list holds bare lines and keys of commented values, not comments.
    EXPECT_EQ(Keys("Main", f), (Strings{"k", "quoted", "ticked", "lone", "pair", "tick2", "apos",
                                        "Mixed Case Key", "eq", "flag", "empty", "dup", "dup"}));

    // Headers follow the comment cut and keep their blanks.
    tvtest::WriteFile(
        h,
        "; file comment\n\ntop=level\n[Sec] ; note\na=1\n[Se;c]\nb=2\n[ Spaced ]\nc=3\n"
        "[sec]\na=shadowed\n[]\nd=4\n[Last]\nno-newline=1");
    // "[Se;c]" is no header: it and b=2 belong to Sec.
    EXPECT_EQ(Sections(h), (Strings{"Sec", " Spaced ", "sec", "Last"}));
    EXPECT_EQ(Get("Sec", "b", h), "2");
    EXPECT_EQ(Get("Sec", "a", h), "1");  // the first of two same-named sections
    EXPECT_EQ(Keys("Sec", h), (Strings{"a", "[Se", "b"}));
    EXPECT_EQ(Get("Spaced", "c", h), "<default>");
    EXPECT_EQ(Get(" Spaced ", "c", h), "<default>");  // the argument is trimmed
    EXPECT_EQ(Get("", "d", h), "4");                  // empty section name
    // Lines before the first header belong to no section.
    EXPECT_EQ(Get("", "top", h), "<default>");
    // The last line had no line feed and is not part of the file.
    EXPECT_EQ(Keys("Last", h), Strings{});
    EXPECT_EQ(Keys("Missing", h), Strings{});
}

TEST(ProfileRead, LongLinesAndOddBytes) {
    ProfileDir dir;
    std::string f = dir.file("long.ini");
    std::string big(2000, 'x');
    std::string huge(100000, 'y');
    tvtest::WriteFile(f, "[S]\nbig=" + big + "\r\nhuge=" + huge + "\nvt=\va\v\n" +
                             std::string("nul=ab\0cd\n", 10) + "after=ok\n");
    EXPECT_EQ(Get("S", "big", f), big);  // CR of a CRLF line is whitespace
    char buf[200000];
    unsigned long n = GetPrivateProfileString("S", "huge", "", buf, sizeof buf, f.c_str());
    EXPECT_EQ(n, huge.size());
    EXPECT_EQ(std::string(buf, n), huge);
    EXPECT_EQ(Get("S", "vt", f), "\va\v");
    EXPECT_EQ(Get("S", "nul", f), "ab");  // text ends at a NUL byte; the line still ends at LF
    EXPECT_EQ(Get("S", "after", f), "ok");
}

TEST(ProfileRead, ValueAndDefaultAreCutToTheBuffer) {
    ProfileDir dir;
    std::string f = dir.file("cut.ini");
    tvtest::WriteFile(f, "[S]\nk=abcdef\n");
    const struct {
        const char* key;
        unsigned long size, result;
        const char* bytes;  // the buffer's first size + 1 bytes afterwards
    } cases[] = {{"k", 4, 3, "abc\0#"},
                 {"k", 7, 6, "abcdef\0#"},
                 {"none", 5, 4, "defa\0#"},
                 {"k", 0, 0, "#"},  // nothing written
                 {"k", 1, 0, "\0#"}};
    for (const auto& c : cases) {
        char buf[16];
        memset(buf, '#', sizeof buf);
        EXPECT_EQ(GetPrivateProfileString("S", c.key, "defaults", buf, c.size, f.c_str()),
                  c.result);
        EXPECT_EQ(std::string(buf, c.size + 1), std::string(c.bytes, c.size + 1)) << c.size;
    }
    EXPECT_EQ(GetPrivateProfileString("S", "k", "", nullptr, 10, f.c_str()), 0u);
}

TEST(ProfileRead, ListsFillTheBufferByTheSpareByteContract) {
    ProfileDir dir;
    std::string f = dir.file("list.ini");
    tvtest::WriteFile(f, "[S]\naa=1\nbb=2\ncc=3\n[L]\naa=1\nlongkey=2\n");
    char buf[32];
    auto list = [&](const char* section, char* at, unsigned long size) {
        memset(buf, '#', sizeof buf);
        return GetPrivateProfileString(section, nullptr, nullptr, at, size, f.c_str());
    };
    // "aa\0bb\0cc\0" is 9 bytes: a size of 9 fits it exactly and the closing
    // NUL lands on buf[9], the caller's spare byte.
    EXPECT_EQ(list("S", buf, 9), 9u);
    EXPECT_EQ(std::string(buf, 11), std::string("aa\0bb\0cc\0\0#", 11));
    // One byte short: the last key is cut so that two NULs end the buffer.
    EXPECT_EQ(list("S", buf, 8), 6u);
    EXPECT_EQ(std::string(buf, 9), std::string("aa\0bb\0\0\0#", 9));
    // Room for part of a key: it is cut to remaining - 2 characters.
    EXPECT_EQ(list("L", buf, 8), 6u);
    EXPECT_EQ(std::string(buf, 8), std::string("aa\0lon\0\0", 8));
    // Tiny buffers never see a write before buf[0] or past the spare byte.
    EXPECT_EQ(list("L", buf + 4, 2), 0u);
    EXPECT_EQ(std::string(buf + 3, 4), std::string("#\0\0#", 4));
    EXPECT_EQ(list("L", buf + 4, 1), 0u);
    EXPECT_EQ(std::string(buf + 3, 3), std::string("#\0#", 3));
    // Section names list the same way; a missing section gives an empty list.
    EXPECT_EQ(GetPrivateProfileString(nullptr, "ignored", nullptr, buf, 4, f.c_str()), 4u);
    EXPECT_EQ(std::string(buf, 5), std::string("S\0L\0\0", 5));
    EXPECT_EQ(list("None", buf, 8), 0u);
    EXPECT_EQ(buf[0], '\0');
}

TEST(ProfileRead, UnreadableAndRefusedFilesGiveTheDefault) {
    ProfileDir dir;
    EXPECT_EQ(Get("S", "k", dir.file("missing.ini")), "<default>");
    EXPECT_EQ(Keys("S", dir.file("missing.ini")), Strings{});
    EXPECT_EQ(Get("S", "k", dir.path()), "<default>");  // a directory cannot be parsed

    // 255 characters is the longest path the cache holds; 256 is refused and
    // never read as its 255-character prefix.
    std::string base = dir.path() + "/";
    std::string name255 = base + std::string(255 - base.size(), 'n');
    ASSERT_EQ(name255.size(), 255u);
    std::string name256 = name255 + "x";
    tvtest::WriteFile(name255, "[S]\nk=short\n");
    tvtest::WriteFile(name256, "[S]\nk=long\n");
    EXPECT_EQ(Get("S", "k", name255), "short");
    errno = 0;
    EXPECT_EQ(Get("S", "k", name256), "<default>");
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(Get("S", "k", std::string(5000, 'z')), "<default>");
}

TEST(ProfileRead, NoticesAnyRewriteAndKeepsItsOwnPendingChangesOnTop) {
    ProfileDir dir;
    std::string f = dir.file("r.ini");
    tvtest::WriteFile(f, "[S]\nk=old\n");
    EXPECT_EQ(Get("S", "k", f), "old");
    // Same size, same second: still noticed.
    tvtest::WriteFile(f, "[S]\nk=new\n");
    EXPECT_EQ(Get("S", "k", f), "new");

    ASSERT_EQ(WritePrivateProfileString("S", "k", "mine", f.c_str()), 1);
    tvtest::WriteFile(f, "[S]\nk=theirs\nx=1\n");
    EXPECT_EQ(Get("S", "k", f), "mine");
    EXPECT_EQ(Get("S", "x", f), "1");

    unlink(f.c_str());
    EXPECT_EQ(Get("S", "k", f), "<default>");
}

TEST(ProfileRead, FilesBeyondTheSixteenBitCountsAreRefused) {
    ProfileDir dir;
    std::string f = dir.file("big.ini");
    std::string text = "[S]\n";
    for (int i = 0; i < 32766; ++i) text += "k\n";
    text += "last=1\n";  // line 32767 of the section: the most it can hold
    tvtest::WriteFile(f, text);
    EXPECT_EQ(Get("S", "last", f), "1");
    yuWriteAndFreeAllProfiles();
    tvtest::WriteFile(f, text + "one-too-many\n");
    EXPECT_EQ(Get("S", "last", f), "<default>");  // never a partial table
    EXPECT_EQ(WritePrivateProfileString("S", "k", "v", f.c_str()), 0);
}

TEST(ProfileRead, IntSectionAndSectionNamesReaders) {
    ProfileDir dir;
    std::string f = dir.file("n.ini");
    tvtest::WriteFile(f, "[N]\ndec = 42 ; note\nhex=0x1F\nneg=-5\ntext=abc\n; c\n\nbare\n[M]\n");
    const struct {
        const char* key;
        unsigned int expected;
    } ints[] = {{"dec", 42}, {"hex", 31}, {"neg", 0}, {"text", 0}, {"missing", 7}};
    for (const auto& c : ints) {
        EXPECT_EQ(GetPrivateProfileInt("N", c.key, 7, f.c_str()), c.expected) << c.key;
    }
    EXPECT_EQ(GetPrivateProfileInt("X", "dec", 9, f.c_str()), 9u);

    char buf[64];
    unsigned long n = GetPrivateProfileSection("n", buf, sizeof buf, f.c_str());
    EXPECT_EQ(profiletest::SplitList(buf, n),
              (Strings{"dec = 42 ; note", "hex=0x1F", "neg=-5", "text=abc", "bare"}));
    // Too small: cut, two closing NULs inside the buffer, result size - 2.
    memset(buf, 'X', sizeof buf);
    EXPECT_EQ(GetPrivateProfileSection("N", buf, 10, f.c_str()), 8u);
    EXPECT_EQ(std::string(buf, 11), std::string("dec = 42\0\0X", 11));
    EXPECT_EQ(GetPrivateProfileSection("none", buf, sizeof buf, f.c_str()), 0u);
    EXPECT_EQ(buf[0], '\0');

    n = GetPrivateProfileSectionNames(buf, sizeof buf, f.c_str());
    EXPECT_EQ(profiletest::SplitList(buf, n), (Strings{"N", "M"}));
    // An exact fit of the names alone has no room for the closing NUL.
    buf[4] = 'X';
    EXPECT_EQ(GetPrivateProfileSectionNames(buf, 4, f.c_str()), 2u);
    EXPECT_EQ(buf[4], 'X');
    EXPECT_EQ(GetPrivateProfileSectionNames(buf, sizeof buf, (f + ".none").c_str()), 0u);
}

}  // namespace
