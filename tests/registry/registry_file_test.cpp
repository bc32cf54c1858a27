// The registry file: what the writer produces, byte for byte, and how the
// reader takes hand-written files (every line kind, CR-LF, long lines,
// intermediate keys).
#include <gtest/gtest.h>

#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <tvcommonutil.h>

#include "registry/registry_internal.h"
#include "registry_support.h"

namespace {

using namespace regtest;

const char kSoftware[] =
    "\n"
    "HKEY_LOCAL_MACHINE=536870913\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\Software=10223\n"
    "\n";

HKEY OpenWrite(const char* path) {
    return Open(path, KEY_ALL_ACCESS);
}

// The literal layout: the root's empty line first, each key's block (key
// line, values in case-insensitive name order, "%-22s\t%22s\t%s", an empty
// line), subkeys depth first in name order, no blocks for intermediate keys,
// nothing of deleted keys, and the numbers of keys made here.
TEST(RegistryFile, WriterProducesTheExactText) {
    RegistryEnv env(kSoftware);
    HKEY sw = OpenWrite("Software");
    EXPECT_EQ(10223 | KEY_WRITE_HANDLE_BIT, sw);

    const char root[] = "/srv/app";
    ASSERT_EQ(
        0, RegSetValueEx(sw, "Root", 0, REG_SZ, reinterpret_cast<const BYTE*>(root), sizeof root));
    unsigned long clients = 64;
    ASSERT_EQ(0, RegSetValueEx(sw, "MaxClients", 0, REG_DWORD,
                               reinterpret_cast<const BYTE*>(&clients), sizeof clients));
    const char hosts[] = "alpha\0beta\0";  // plus the literal's zero: a double zero
    ASSERT_EQ(0, RegSetValueEx(sw, "hosts", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(hosts),
                               sizeof hosts));
    const char longName[] = "AVeryLongValueNameThatOverflows";
    ASSERT_EQ(0, RegSetValueEx(sw, longName, 0, REG_SZ, reinterpret_cast<const BYTE*>(""), 1));

    // b\c below Software: "b" is only a path (no block); "Zed" comes after
    // "b" and "a" in case-insensitive order.
    HKEY c = 0, zed = 0, gone = 0;
    DWORD disp = 0;
    ASSERT_EQ(0, RegCreateKeyEx(sw, "b\\c", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &c, &disp));
    EXPECT_EQ(REG_CREATED_NEW_KEY, disp);
    ASSERT_EQ(0, RegCreateKeyEx(sw, "Zed", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &zed, &disp));
    ASSERT_EQ(0, RegCreateKeyEx(sw, "a", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &gone, &disp));
    ASSERT_EQ(0, RegCloseKey(gone));
    ASSERT_EQ(0, RegDeleteKey(sw, "A"));
    // A value set on the intermediate key makes it a key of its own.
    HKEY b = OpenWrite("Software\\B");
    const char lost[] = "x";
    ASSERT_EQ(0, RegSetValueEx(b, "Lost", 0, REG_SZ, reinterpret_cast<const BYTE*>(lost), 2));
    ASSERT_EQ(0, RegCloseKey(b));
    ASSERT_EQ(0, RegCloseKey(c));
    ASSERT_EQ(0, RegCloseKey(zed));
    ASSERT_EQ(0, RegCloseKey(sw));

    const std::string bLine =
        "HKEY_LOCAL_MACHINE\\Software\\b=" + std::to_string(b & KEY_INDEX_MASK) + "\n";
    const std::string cLine =
        "HKEY_LOCAL_MACHINE\\Software\\b\\c=" + std::to_string(c & KEY_INDEX_MASK) + "\n";
    const std::string zedLine =
        "HKEY_LOCAL_MACHINE\\Software\\Zed=" + std::to_string(zed & KEY_INDEX_MASK) + "\n";
    const std::string expected =
        "\n"
        "HKEY_LOCAL_MACHINE=536870913\n"
        "\n"
        "HKEY_LOCAL_MACHINE\\Software=10223\n"
        "AVeryLongValueNameThatOverflows=\t                     ;\tREG_SZ\n"
        "hosts=                \t          alpha beta ;\tREG_MULTI_SZ\n"
        "MaxClients=           \t                 0x40;\tREG_DWORD\n"
        "Root=                 \t             /srv/app;\tREG_SZ\n"
        "\n" +
        bLine + "Lost=                 \t                    x;\tREG_SZ\n\n" + cLine + "\n" +
        zedLine + "\n";
    EXPECT_EQ(expected, env.ReadRegistryFile());

    // What was written reads back the same in a fresh start, and the
    // padded multi-string loses its trailing blank to the trim.
    tv::detail::RegistryResetForTests();
    HKEY again = Open("SOFTWARE");
    EXPECT_EQ("/srv/app", GetSz(again, "root"));
    EXPECT_EQ(64u, GetDword(again, "MaxClients"));
    char multi[64];
    DWORD size = sizeof multi;
    DWORD type = 0;
    ASSERT_EQ(
        0, RegQueryValueEx(again, "Hosts", nullptr, &type, reinterpret_cast<BYTE*>(multi), &size));
    EXPECT_EQ(REG_MULTI_SZ, type);
    EXPECT_EQ(std::string("alpha\0beta\0", 11), std::string(multi, size));
    EXPECT_EQ(0, RegCloseKey(again));
    HKEY inter = Open("Software\\b");
    EXPECT_EQ("x", GetSz(inter, "Lost"));
    RegCloseKey(inter);
}

// Every kind of line of a hand-written file, including the odd ones.
TEST(RegistryFile, ReaderTakesEveryLineKind) {
    const std::string text =
        "Orphan=before any key;REG_SZ\n"
        "# a comment with HKEY_LOCAL_MACHINE in it\n"
        "\n"
        "HKEY_LOCAL_MACHINE=536870913\n"
        "HKEY_LOCAL_MACHINE\\NoNumber\n"
        "HKEY_LOCAL_MACHINE\\Hex=0x10\n"
        "Padded=      \t    spaced out   ;\t  REG_SZ\n"
        "Empty=;REG_SZ\n"
        "two words=x;REG_SZ\n"
        "Num=0x1f;REG_DWORD\n"
        "Dec=31;REG_DWORD\n"
        "Multi=a b c ;REG_MULTI_SZ\n"
        "Crlf=value;REG_SZ\r\n"
        "NoSemicolon=abc REG_SZ\n"
        "NoEquals;REG_SZ\n"
        "NoType=abc;\n"
        "BadType=abc;REG_BINARY\n"
        "TrailingBlank=abc;REG_SZ \n"
        "Semi=a;b;REG_SZ\n"
        "\n"
        "HKEY_LOCAL_MACHINE\\Octal=010\n"
        "HKEY_LOCAL_MACHINE\\Deep\\Er\\Key=77\n"
        "V=1;REG_SZ\n"
        // The marker after the "=": a key line, but not one the writer could
        // give back; it is ignored with its values.
        "Odd=HKEY_LOCAL_MACHINE\n"
        "W=1;REG_SZ\n"
        // The root misspelt (the marker comes later): keys are found without
        // regard to case, so taking it would name the root "hKEY..." and no
        // key line written afterwards would carry the marker. Ignored too.
        "hKEY_LOCAL_MACHINE\\Case\\HKEY_LOCAL_MACHINE=5\n"
        "C=1;REG_SZ\n";
    RegistryEnv env(regtest::kBaseRegistry, &text);

    HKEY hex = Open("Hex");
    EXPECT_EQ(16, hex);
    EXPECT_EQ("spaced out", GetSz(hex, "Padded"));
    EXPECT_EQ("", GetSz(hex, "Empty"));
    EXPECT_EQ("x", GetSz(hex, "two words"));
    EXPECT_EQ(31u, GetDword(hex, "Num"));
    EXPECT_EQ(31u, GetDword(hex, "Dec"));
    EXPECT_EQ("value", GetSz(hex, "Crlf"));  // a CR before the line feed ends the line
    for (const char* ignored :
         {"NoSemicolon", "NoEquals", "NoType", "BadType", "TrailingBlank", "Semi", "Orphan"}) {
        EXPECT_EQ("<13>", GetSz(hex, ignored)) << ignored;
    }
    DWORD subKeys = 99, values = 99;
    ASSERT_EQ(0, RegQueryInfoKey(hex, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr,
                                 &values, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0u, subKeys);
    EXPECT_EQ(7u, values);

    HKEY octal = Open("octal");
    EXPECT_EQ(8, octal);
    HKEY missing = 0;
    EXPECT_EQ(13, RegOpenKeyEx(HKEY_LOCAL_MACHINE, "NoNumber", 0, 0, &missing));

    // Deep and Deep\Er are intermediate: reachable, numbered only when
    // opened, and never sharing a number with Key.
    HKEY key = Open("Deep\\Er\\Key");
    EXPECT_EQ(77, key);
    EXPECT_EQ("1", GetSz(key, "V"));
    EXPECT_EQ("<13>", GetSz(key, "W"));
    HKEY deep = Open("Deep");
    HKEY er = Open("Deep\\Er");
    EXPECT_NE(0, deep);
    EXPECT_NE(deep, er);
    EXPECT_NE(77, deep & KEY_INDEX_MASK);
    EXPECT_NE(77, er & KEY_INDEX_MASK);
    char name[16];
    ASSERT_EQ(0, RegEnumKey(deep, 0, name, sizeof name));
    EXPECT_STREQ("Er", name);

    // Written back: intermediate keys have no block, ignored lines are gone.
    HKEY w = OpenWrite("Hex");
    ASSERT_EQ(0, RegFlushKey(w));
    const std::string out = env.ReadRegistryFile();
    EXPECT_EQ(std::string::npos, out.find("HKEY_LOCAL_MACHINE\\Deep="));
    EXPECT_EQ(std::string::npos, out.find("HKEY_LOCAL_MACHINE\\Deep\\Er="));
    EXPECT_NE(std::string::npos, out.find("HKEY_LOCAL_MACHINE\\Deep\\Er\\Key=77\n"));
    EXPECT_EQ(std::string::npos, out.find("Orphan"));
    EXPECT_EQ(std::string::npos, out.find("BadType"));
    EXPECT_EQ(std::string::npos, out.find("Odd"));
    EXPECT_EQ(std::string::npos, out.find("Case"));
    EXPECT_EQ(0u, out.find("\nHKEY_LOCAL_MACHINE=536870913\n")) << out;
    for (HKEY h : {hex, octal, key, deep, er, w}) EXPECT_EQ(0, RegCloseKey(h));
}

// A line is read up to 4095 characters; the rest is the next line.
TEST(RegistryFile, LongLinesAreSplitAt4095) {
    std::string first = "Cut=" + std::string(4095 - 4, 'x');  // exactly 4095 characters
    std::string text = "HKEY_LOCAL_MACHINE\\Long=5\n" + first + "Tail=end;REG_SZ\n" +
                       "Whole=" + std::string(4095 - 6 - 8, 'y') + ";REG_SZ\n" +
                       "After=ok;REG_SZ\n";
    RegistryEnv env(regtest::kBaseRegistry, &text);
    HKEY h = Open("Long");
    EXPECT_EQ("<13>", GetSz(h, "Cut"));  // its first 4095 characters hold no ";"
    EXPECT_EQ("end", GetSz(h, "Tail"));
    EXPECT_EQ(std::string(4095 - 6 - 8, 'y'), GetSz(h, "Whole"));
    EXPECT_EQ("ok", GetSz(h, "After"));
    RegCloseKey(h);

    // Padded, "Whole" would no longer fit one line: it is written compact
    // and survives the round trip.
    h = OpenWrite("Long");
    ASSERT_EQ(0, RegFlushKey(h));
    RegCloseKey(h);
    EXPECT_NE(std::string::npos, env.ReadRegistryFile().find(
                                     "\nWhole=" + std::string(4095 - 6 - 8, 'y') + ";REG_SZ\n"));
    tv::detail::RegistryResetForTests();
    h = Open("Long");
    EXPECT_EQ(std::string(4095 - 6 - 8, 'y'), GetSz(h, "Whole"));
    RegCloseKey(h);
}

// The value-line parser on its own.
TEST(RegistryFile, FormatValue) {
    tv::detail::RegValue v;
    ASSERT_TRUE(v.FormatValue("Name=  data with  blanks \t;  \tREG_MULTI_SZ"));
    EXPECT_EQ(REG_MULTI_SZ, v.GetType());
    EXPECT_STREQ("Name", v.GetName().c_str());
    EXPECT_STREQ("data with  blanks", v.GetData().c_str());
    ASSERT_TRUE(v.FormatValue(" name =a=b;REG_DWORD"));
    EXPECT_STREQ(" name ", v.GetName().c_str());
    EXPECT_STREQ("a=b", v.GetData().c_str());
    for (const char* bad : {"x=1;REG_SZ\r", "x=1;   ", "x=1;REG_SZX", "x=1", "no equals;REG_SZ"}) {
        EXPECT_FALSE(v.FormatValue(bad)) << bad;
    }
}

// The reader straight from a descriptor: a deep path, NUL bytes, junk.
TEST(RegistryFile, ReaderSurvivesOddBytes) {
    RegistryEnv env;
    std::string text = "HKEY_LOCAL_MACHINE";
    for (int i = 0; i < 1500; ++i) text += "\\k";
    text += "=1\nv=1;REG_SZ\n";
    text += std::string("HKEY_LOCAL_MACHINE\\Nul=9\nA=b\0c;REG_SZ\n", 38);
    text += "HKEY_LOCAL_MACHINE\\Big=99999999999999999999\nZ=z;REG_SZ\n";
    text += "HKEY_LOCAL_MACHINE\\Neg=-5\n";
    int fd = memfd_create("reg", 0);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
    lseek(fd, 0, SEEK_SET);
    EXPECT_TRUE(tv::detail::ReadRegistryFd(fd, 0));
    close(fd);
    long index = -1;
    int created = 0;
    tv::detail::RegKey* big =
        tv::detail::FindKey(tv::detail::RegistryKeys(), "HKEY_LOCAL_MACHINE\\Big", 0, created,
                            tv::detail::FindMode::kLoad, index, 0);
    ASSERT_NE(nullptr, big);
    EXPECT_GT(big->GetIndex(), 0);  // an unusable number is replaced
    EXPECT_LE(big->GetIndex(), KEY_INDEX_MASK);
    tv::detail::PrintSink sink;
    tv::detail::RegistryKeys()->Print(sink, 1, 0);
    EXPECT_NE(std::string::npos, sink.text.find("HKEY_LOCAL_MACHINE\\Neg="));
    EXPECT_EQ(std::string::npos, sink.text.find("A="));  // cut at the NUL: no ";"
    tv::detail::ClearRegistryTree();
}

}  // namespace
