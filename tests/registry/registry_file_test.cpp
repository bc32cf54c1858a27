// The registry file: what the writer produces, byte for byte; how the
// reader takes hand-written files (every line kind, CR-LF, long lines, odd
// bytes, intermediate keys); and the refresh rule: when another writer (or
// an administrator's editor) has changed the file, this process takes their
// changes without dropping its own unwritten ones or bringing back what it
// deleted.
#include <gtest/gtest.h>

#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <tvcommonutil.h>

#include "registry/testing.h"
#include "registry_support.h"

namespace {

using namespace regtest;

const char kSoftware[] = "\nHKEY_LOCAL_MACHINE=536870913\n\nHKEY_LOCAL_MACHINE\\Software=10223\n\n";

// A key that is only the path to a deeper one gets its own key line once it
// is opened for writing; opening it for reading changes nothing.
TEST(RegistryFile, OpeningAnIntermediateKeyForWritingPromotesIt) {
    RegistryEnv env;
    ASSERT_EQ(0, RegCloseKey(Create("P\\Q\\R")));
    ASSERT_EQ(0, RegCloseKey(Open("P", KEY_READ & ~0x60000)));
    HKEY q = Open("P\\Q", KEY_ALL_ACCESS);
    ASSERT_EQ(0, RegCloseKey(q));
    const std::string file = env.ReadRegistryFile();
    EXPECT_NE(std::string::npos,
              file.find("HKEY_LOCAL_MACHINE\\P\\Q=" + std::to_string(q & KEY_INDEX_MASK) + "\n"));
    EXPECT_EQ(std::string::npos, file.find("HKEY_LOCAL_MACHINE\\P="));
    // A value set through a handle opened for reading promotes the key too.
    ASSERT_EQ(0, RegCloseKey(Create("S\\T\\U")));
    HKEY t = Open("S\\T", KEY_READ & ~0x60000);
    ASSERT_EQ(0, SetSz(t, "V", "x"));
    ASSERT_EQ(0, RegCloseKey(t));
    EXPECT_NE(std::string::npos,
              env.ReadRegistryFile().find(
                  "HKEY_LOCAL_MACHINE\\S\\T=" + std::to_string(t & KEY_INDEX_MASK) + "\nV="));
}

// The literal layout: the root's empty line first, each key's block (key
// line, values in case-insensitive name order, "%-22s\t%22s\t%s", an empty
// line), subkeys depth first in name order, no blocks for intermediate keys,
// nothing of deleted keys, and the numbers of keys made here.
TEST(RegistryFile, WriterProducesTheExactText) {
    RegistryEnv env(kSoftware);
    HKEY sw = Open("Software", KEY_ALL_ACCESS);
    EXPECT_EQ(10223 | KEY_WRITE_HANDLE_BIT, sw);

    ASSERT_EQ(0, SetSz(sw, "Root", "/srv/app"));
    unsigned long clients = 64;
    ASSERT_EQ(0, RegSetValueEx(sw, "MaxClients", 0, REG_DWORD,
                               reinterpret_cast<const BYTE*>(&clients), sizeof clients));
    const char hosts[] = "alpha\0beta\0";  // plus the literal's zero: a double zero
    ASSERT_EQ(0, RegSetValueEx(sw, "hosts", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(hosts),
                               sizeof hosts));
    ASSERT_EQ(0, SetSz(sw, "AVeryLongValueNameThatOverflows", ""));

    // b\c below Software: "b" is only a path (no block); "Zed" comes after
    // "b" and "a" in case-insensitive order.
    HKEY c = Create("b\\c", sw), zed = Create("Zed", sw);
    ASSERT_EQ(0, RegCloseKey(Create("a", sw)));
    ASSERT_EQ(0, RegDeleteKey(sw, "A"));
    // A value set on the intermediate key makes it a key of its own.
    HKEY b = Open("Software\\B", KEY_ALL_ACCESS);
    ASSERT_EQ(0, SetSz(b, "Lost", "x"));
    for (HKEY h : {b, c, zed, sw}) ASSERT_EQ(0, RegCloseKey(h));

    const std::string bLine =
        "HKEY_LOCAL_MACHINE\\Software\\b=" + std::to_string(b & KEY_INDEX_MASK) + "\n";
    const std::string cLine =
        "HKEY_LOCAL_MACHINE\\Software\\b\\c=" + std::to_string(c & KEY_INDEX_MASK) + "\n";
    const std::string zedLine =
        "HKEY_LOCAL_MACHINE\\Software\\Zed=" + std::to_string(zed & KEY_INDEX_MASK) + "\n";
    const std::string expected =
        "\nHKEY_LOCAL_MACHINE=536870913\n\nHKEY_LOCAL_MACHINE\\Software=10223\n"
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
    EXPECT_EQ("x", Query("Software\\b", "Lost"));
}

// Every kind of line of a hand-written file, including the odd ones.
TEST(RegistryFile, ReaderTakesEveryLineKind) {
    std::string text =
        "Orphan=before any key;REG_SZ\n# a comment with HKEY_LOCAL_MACHINE in it\n\n"
        "HKEY_LOCAL_MACHINE=536870913\nHKEY_LOCAL_MACHINE\\NoNumber\nHKEY_LOCAL_MACHINE\\Hex=0x10\n"
        "Padded=      \t    spaced  out   ;\t  REG_SZ\n Spaced =a=b;REG_SZ\nEmpty=;REG_SZ\n"
        "two words=x;REG_SZ\nNum=0x1f;REG_DWORD\nDec=31;REG_DWORD\nMulti=a b c ;REG_MULTI_SZ\n"
        "Crlf=value;REG_SZ\r\n"
        // Value lines the reader ignores.
        "NoSemicolon=abc REG_SZ\nNoEquals;REG_SZ\nNoType=abc;\nBadType=abc;REG_BINARY\n"
        "Suffix=1;REG_SZX\nTrailingBlank=abc;REG_SZ \nSemi=a;b;REG_SZ\n\n"
        "HKEY_LOCAL_MACHINE\\Octal=010\nHKEY_LOCAL_MACHINE\\Deep\\Er\\Key=77\nV=1;REG_SZ\n"
        // The marker after the "=": a key line, but not one the writer could
        // give back; it is ignored with its values.
        "Odd=HKEY_LOCAL_MACHINE\nW=1;REG_SZ\n"
        // The root misspelt (the marker comes later): keys are found without
        // regard to case, so taking it would name the root "hKEY..." and no
        // key line written afterwards would carry the marker. Ignored too.
        "hKEY_LOCAL_MACHINE\\Case\\HKEY_LOCAL_MACHINE=5\nC=1;REG_SZ\n"
        // Numbers the tree cannot use as handles are replaced.
        "HKEY_LOCAL_MACHINE\\Big=99999999999999999999\nZ=z;REG_SZ\nHKEY_LOCAL_MACHINE\\Neg=-5\n";
    text += std::string("Nul=b\0c;REG_SZ\n", 15);  // cut at the NUL: no ";"
    std::string deep = "HKEY_LOCAL_MACHINE";
    for (int i = 0; i < 1500; ++i) deep += "\\k";
    text += deep + "=1\n";
    RegistryEnv env(regtest::kBaseRegistry, &text);

    HKEY hex = Open("Hex");
    EXPECT_EQ(16, hex);
    EXPECT_EQ("spaced  out", GetSz(hex, "Padded"));
    EXPECT_EQ("a=b", GetSz(hex, " Spaced "));  // the name is taken as it stands
    EXPECT_EQ("", GetSz(hex, "Empty"));
    EXPECT_EQ("x", GetSz(hex, "two words"));
    EXPECT_EQ(31u, GetDword(hex, "Num"));
    EXPECT_EQ(31u, GetDword(hex, "Dec"));
    EXPECT_EQ("value", GetSz(hex, "Crlf"));  // a CR before the line feed ends the line
    for (const char* ignored : {"NoSemicolon", "NoEquals", "NoType", "BadType", "Suffix",
                                "TrailingBlank", "Semi", "Orphan"}) {
        EXPECT_EQ("<13>", GetSz(hex, ignored)) << ignored;
    }
    DWORD subKeys = 99, values = 99;
    ASSERT_EQ(0, RegQueryInfoKey(hex, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr,
                                 &values, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0u, subKeys);
    EXPECT_EQ(8u, values);

    HKEY octal = Open("octal");
    EXPECT_EQ(8, octal);
    EXPECT_FALSE(KeyExists("NoNumber"));
    HKEY big = Open("Big");
    EXPECT_GT(big, 0);
    EXPECT_LE(big, KEY_INDEX_MASK);
    EXPECT_EQ("z", GetSz(big, "Z"));
    EXPECT_EQ("<13>", GetSz(big, "Nul"));
    EXPECT_TRUE(KeyExists("Neg"));

    // Deep and Deep\Er are intermediate: reachable, numbered only when
    // opened, and never sharing a number with Key.
    HKEY key = Open("Deep\\Er\\Key");
    EXPECT_EQ(77, key);
    EXPECT_EQ("1", GetSz(key, "V"));
    EXPECT_EQ("<13>", GetSz(key, "W"));
    HKEY deepKey = Open("Deep");
    HKEY er = Open("Deep\\Er");
    EXPECT_NE(0, deepKey);
    EXPECT_NE(deepKey, er);
    EXPECT_NE(77, deepKey & KEY_INDEX_MASK);
    EXPECT_NE(77, er & KEY_INDEX_MASK);
    char name[16];
    ASSERT_EQ(0, RegEnumKey(deepKey, 0, name, sizeof name));
    EXPECT_STREQ("Er", name);

    // Written back: intermediate keys have no block, ignored lines are gone.
    HKEY w = Open("Hex", KEY_ALL_ACCESS);
    ASSERT_EQ(0, RegFlushKey(w));
    const std::string out = env.ReadRegistryFile();
    EXPECT_FALSE(Has(out, "HKEY_LOCAL_MACHINE\\Deep="));
    EXPECT_FALSE(Has(out, "HKEY_LOCAL_MACHINE\\Deep\\Er="));
    EXPECT_TRUE(Has(out, "HKEY_LOCAL_MACHINE\\Deep\\Er\\Key=77\n"));
    EXPECT_FALSE(Has(out, "Orphan"));
    EXPECT_FALSE(Has(out, "BadType"));
    EXPECT_FALSE(Has(out, "Odd"));
    EXPECT_FALSE(Has(out, "Case"));
    EXPECT_EQ(0u, out.find("\nHKEY_LOCAL_MACHINE=536870913\n")) << out;
    EXPECT_TRUE(Has(out, deep + "=1\n"));
    for (HKEY h : {hex, octal, key, deepKey, er, w, big}) EXPECT_EQ(0, RegCloseKey(h));
}

// Key lines mostly follow each other as siblings or as parent and child;
// each must land at its own path, whatever the line before it spelled.
TEST(RegistryFile, KeyLinesLandAtTheirOwnPathsWhateverPrecedesThem) {
    const struct {
        const char* line;  // after "HKEY_LOCAL_MACHINE\\"
        const char* path;
        const char* number;
    } keys[] = {
        {"A\\B", "A\\B", "11"},         {"A\\C", "A\\C", "12"},          // siblings
        {"A\\C\\D", "A\\C\\D", "13"},   {"A\\E", "A\\E", "14"},          // child, then back up
        {"a\\c\\F", "A\\C\\F", "15"},   {"A\\\\C\\G", "A\\C\\G", "16"},  // other spellings
        {"X\\C\\H", "X\\C\\H", "17"},   {"X\\C\\", "X\\C", "18"},        // same names, other branch
        {"X\\C\\\\I", "X\\C\\I", "19"}, {"A\\B\\J", "A\\B\\J", "20"},
    };
    std::string text = kBaseRegistry;
    for (const auto& k : keys) {
        text += std::string("HKEY_LOCAL_MACHINE\\") + k.line + "=" + k.number + "\nV=" + k.number +
                ";REG_SZ\n\n";
    }
    RegistryEnv env(regtest::kBaseRegistry, &text);
    for (const auto& k : keys) EXPECT_EQ(k.number, Query(k.path, "V")) << k.line;
    for (const char* stray : {"A\\C\\H", "X\\C\\G", "A\\C\\I", "A\\E\\F", "X\\C\\J"}) {
        EXPECT_FALSE(KeyExists(stray)) << stray;
    }
    HKEY w = Open("A\\B", KEY_ALL_ACCESS);
    ASSERT_EQ(0, RegFlushKey(w));
    const std::string out = env.ReadRegistryFile();
    for (const auto& k : keys) {
        EXPECT_TRUE(Has(out, std::string("HKEY_LOCAL_MACHINE\\") + k.path + "=" + k.number + "\n"));
    }
    EXPECT_EQ(0, RegCloseKey(w));
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
    h = Open("Long", KEY_ALL_ACCESS);
    ASSERT_EQ(0, RegFlushKey(h));
    RegCloseKey(h);
    EXPECT_TRUE(
        Has(env.ReadRegistryFile(), "\nWhole=" + std::string(4095 - 6 - 8, 'y') + ";REG_SZ\n"));
    tv::detail::RegistryResetForTests();
    h = Open("Long");
    EXPECT_EQ(std::string(4095 - 6 - 8, 'y'), GetSz(h, "Whole"));
    RegCloseKey(h);
}

const char kBefore[] =
    "\nHKEY_LOCAL_MACHINE=536870913\n\n"
    "HKEY_LOCAL_MACHINE\\App=100\nA=1;REG_SZ\nB=2;REG_SZ\nAP=p;REG_SZ\nC=3;REG_SZ\n\n"
    "HKEY_LOCAL_MACHINE\\App\\Gone=102\nG=1;REG_SZ\n\n"
    "HKEY_LOCAL_MACHINE\\App\\Old=101\n\nHKEY_LOCAL_MACHINE\\App\\Shared=103\n\n";

// What another process wrote meanwhile.
const char kTheirs[] =
    "\nHKEY_LOCAL_MACHINE=536870913\n\n"
    "HKEY_LOCAL_MACHINE\\App=100\nA=theirs;REG_SZ\nB=theirs-b;REG_SZ\nC=3c;REG_SZ\nD=new;REG_SZ\n\n"
    "HKEY_LOCAL_MACHINE\\App\\Old=101\nO=back;REG_SZ\n\n"
    "HKEY_LOCAL_MACHINE\\App\\Old\\Below=107\n\nHKEY_LOCAL_MACHINE\\App\\Shared=103\nX=1;REG_SZ\n\n"
    "HKEY_LOCAL_MACHINE\\App\\Theirs=104\n\n";

TEST(RegistryMerge, RefreshKeepsUnwrittenChangesAndTakesTheRest) {
    const std::string before = kBefore;
    RegistryEnv env(regtest::kBaseRegistry, &before);

    HKEY app = Open("App", KEY_ALL_ACCESS), gone = Open("App\\Gone");
    // Unwritten changes of this process: nothing is closed yet.
    ASSERT_EQ(0, SetSz(app, "A", "mine"));
    ASSERT_EQ(0, RegDeleteValue(app, "B"));
    HKEY fresh = Create("New\\Deeper", app);
    ASSERT_EQ(0, SetSz(fresh, "N", "1"));
    ASSERT_EQ(0, RegDeleteKey(app, "Old"));

    tvtest::WriteFile(env.registryFile(), kTheirs);
    RegBumpVersion();

    // The next open refreshes.
    EXPECT_TRUE(KeyExists("App\\Theirs"));
    EXPECT_EQ("mine", GetSz(app, "A"));  // own pending value wins until written
    EXPECT_EQ("<13>", GetSz(app, "B"));  // own deletion is not undone
    EXPECT_EQ("3c", GetSz(app, "C"));    // their change to a value left alone here
    EXPECT_EQ("new", GetSz(app, "D"));
    EXPECT_EQ("<13>", GetSz(app, "AP"));  // gone from their file, never changed here
    char name[32];
    std::string order;
    for (DWORD i = 0, cb = sizeof name;
         RegEnumValue(app, i, name, &cb, nullptr, nullptr, nullptr, nullptr) == 0;
         ++i, cb = sizeof name)
        order += name;
    EXPECT_EQ("ACD", order);
    EXPECT_FALSE(KeyExists("App\\Old"));  // deleted here: not back, nor anything below
    EXPECT_FALSE(KeyExists("App\\Old\\Below"));
    EXPECT_TRUE(KeyExists("App\\New\\Deeper"));  // made here, not in their file
    EXPECT_EQ("1", GetSz(fresh, "N"));
    HKEY shared = Open("App\\Shared");
    EXPECT_EQ("1", GetSz(shared, "X"));
    // Gone was deleted by them while open here: still readable through the
    // handle, no longer reachable by path or enumeration.
    EXPECT_EQ("1", GetSz(gone, "G"));
    EXPECT_FALSE(KeyExists("App\\Gone"));
    for (DWORD i = 0; RegEnumKey(app, i, name, sizeof name) == 0; ++i) {
        EXPECT_STRNE("Gone", name);
        EXPECT_STRNE("Old", name);
    }

    // Writing publishes the merge.
    ASSERT_EQ(0, RegCloseKey(fresh));
    ASSERT_EQ(0, RegCloseKey(app));
    const std::string file = env.ReadRegistryFile();
    for (const char* in :
         {"mine;", "3c;", "new;", "App\\New\\Deeper=", "App\\Theirs=104", "App\\Shared=103\nX="}) {
        EXPECT_TRUE(Has(file, in)) << in << "\n";
    }
    // App\New is only a path; the rest were deleted here or overridden.
    for (const char* out : {"theirs", "App\\New=", "Old", "Gone"}) {
        EXPECT_FALSE(Has(file, out)) << "\n";
    }

    // After the write nothing is pending: their next change to A is taken.
    std::string next = file;
    next.replace(next.find("mine"), 4, "later");
    tvtest::WriteFile(env.registryFile(), next);
    RegBumpVersion();
    app = Open("App");
    EXPECT_EQ("later", GetSz(app, "A"));
    for (HKEY h : {app, gone, shared}) EXPECT_EQ(0, RegCloseKey(h));
}

// An edit made to the file from outside moves no stamp; it is still taken
// at the next open and kept by the next write, not overwritten.
TEST(RegistryMerge, OutsideEditIsMergedNotOverwritten) {
    RegistryEnv env;
    ASSERT_EQ(0, SetAndClose("Mine", "V", "1"));

    std::string edited =
        env.ReadRegistryFile() + "HKEY_LOCAL_MACHINE\\Admin=555\nSet=by hand;REG_SZ\n\n";
    tvtest::WriteFile(env.registryFile(), edited);
    ASSERT_EQ(0, SetAndClose("Mine", "V", "2"));
    const std::string file = env.ReadRegistryFile();
    EXPECT_TRUE(Has(file, "HKEY_LOCAL_MACHINE\\Admin=555\n"));
    EXPECT_TRUE(Has(file, "by hand;"));

    // An editor that has emptied the file for a moment is not taken as
    // "everything was deleted".
    tvtest::WriteFile(env.registryFile(), "");
    EXPECT_TRUE(KeyExists("Admin"));
}

}  // namespace
