// KWSuperGlob: pattern semantics (against glibc fnmatch where the two must
// agree), brace expansion, quoting, inversion, the walk and its mode bits,
// and result iteration.
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"
#include "tvcommonutil/files.h"

namespace {

bool Matches(const char* pattern, const char* name, unsigned long flags = 0) {
    KWSuperGlob g;
    g.AddPattern(pattern, flags);
    return g.Match(name);
}

std::vector<std::string> Results(KWSuperGlob& g) {
    std::vector<std::string> out;
    for (bool ok = g.begin(); ok; ok = g++) out.push_back((*g).path.c_str());
    return out;
}

void Touch(const std::string& path) {
    tvtest::WriteFile(path, "x");
}

// Hand-picked corners (a '*' crossing '/', a leading '.', unclosed and odd
// sets, reversed ranges, case, bytes above 0x7f), judged by fnmatch.
TEST(GlobMatch, WildcardsSetsAndLiterals) {
    // Pattern, name; pattern, name; ...
    const char* const cases[] = {
        "*.log",   "a.log", "*.log",  ".log", "*",     "a/b",       "*.log",       "a.logx",
        "?",       "x",     "?",      "",     "?",     "xy",        "[!a-c]x",     "dx",
        "[!a-c]x", "bx",    "[a-c]x", "cx",   "[",     "[",         "[!",          "[!",
        "[]]",     "]",     "[]",     "[]",   "[a-]",  "-",         "[z-a]",       "m",
        "Abc",     "Abc",   "Abc",    "abc",  "\xe9*", "\xe9t\xe9", "[\xe0-\xef]", "\xe9",
        "",        "",      "",       "a"};
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; i += 2) {
        EXPECT_EQ(fnmatch(cases[i], cases[i + 1], FNM_NOESCAPE) == 0,
                  Matches(cases[i], cases[i + 1]))
            << "\"" << cases[i] << "\" on \"" << cases[i + 1] << "\"";
    }
    KWSuperGlob none;
    EXPECT_FALSE(none.Match("anything"));  // no pattern, nothing matches
}

// Pattern lists: no list means "*", inversion, any one pattern matching.
TEST(GlobMatch, PatternListsAndInversion) {
    const struct {
        std::vector<const char*> patterns;  // empty: a null list
        unsigned long flags;
        std::vector<const char*> yes, no;
    } cases[] = {
        {{}, 0, {"anything", ""}, {}},
        {{"*.tmp"}, KWGLOB_INVERT, {"x.txt"}, {"x.tmp"}},
        {{}, KWGLOB_INVERT, {}, {"x"}},
        {{"*.c", "*.h"}, 0, {"a.c", "a.h"}, {"a.o"}},
    };
    for (const auto& c : cases) {
        std::vector<const char*> list = c.patterns;
        list.push_back(nullptr);
        KWSuperGlob g;
        ASSERT_TRUE(g.SetPatterns(c.patterns.empty() ? nullptr : list.data(), c.flags));
        for (const char* n : c.yes) EXPECT_TRUE(g.Match(n)) << n;
        for (const char* n : c.no) EXPECT_FALSE(g.Match(n)) << n;
        if (c.patterns.empty()) {
            EXPECT_TRUE(g.GetMode() & KWGLOB_MATCH_ALL);
            EXPECT_EQ(1u, g.PatternCount());
        }
    }
}

// Brace expansion (the text itself stays a pattern too), unbalanced braces
// kept literally, and quoting. count 0: not checked.
TEST(GlobMatch, BracesAndQuoting) {
    const struct {
        const char* pattern;
        unsigned long flags;
        size_t count;
        std::vector<const char*> yes, no;
    } cases[] = {
        {"a{b,c}d", 0, 3, {"abd", "acd", "a{b,c}d"}, {"ad"}},
        {"{}", 0, 1, {"{}"}, {""}},
        // Nested braces, empty alternatives, sets holding commas and braces.
        {"x{a,{b,c}d,}y", 0, 0, {"xay", "xbdy", "xcdy", "xy"}, {"xby"}},
        {"{[,}],q}z", 0, 0, {",z", "}z", "qz"}, {}},
        {"{a,b}{c,d}", 0, 5, {"ac", "ad", "bc", "bd"}, {}},
        {"*.{log,tmp}", 0, 0, {"a.log", "b.tmp"}, {"c.txt"}},
        {"a{b", 0, 1, {"a{b"}, {"ab"}},
        {"a}b", 0, 1, {"a}b"}, {}},
        // The first group expands; each alternative keeps its unbalanced rest.
        {"{x,y}{z", 0, 3, {"x{z", "y{z", "{x,y}{z"}, {}},
        {"\\*", KWGLOB_QUOTE, 1, {"*"}, {"x"}},
        {"a\\?", KWGLOB_QUOTE, 1, {"a?"}, {"ab"}},
        {"\\[a]", KWGLOB_QUOTE, 1, {"[a]"}, {}},
        {"[\\]]", KWGLOB_QUOTE, 1, {"]"}, {}},       // quoted ']' is a member
        {"[a\\-c]", KWGLOB_QUOTE, 1, {"-"}, {"b"}},  // quoted '-' is no range
        {"x\\", KWGLOB_QUOTE, 1, {"x\\"}, {}},       // trailing backslash
        {"\\\\", KWGLOB_QUOTE, 1, {"\\"}, {}},
        {"\\*", 0, 1, {"\\abc"}, {}},                  // unquoted: an ordinary character
        {"{a,b}", KWGLOB_QUOTE, 1, {"{a,b}"}, {"a"}},  // no expansion when quoted
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.pattern);
        KWSuperGlob g;
        ASSERT_TRUE(g.AddPattern(c.pattern, c.flags));
        EXPECT_TRUE(c.count == 0 || c.count == g.PatternCount()) << g.PatternCount();
        for (const char* n : c.yes) EXPECT_TRUE(g.Match(n)) << n;
        for (const char* n : c.no) EXPECT_FALSE(g.Match(n)) << n;
    }
    KWSuperGlob braced;
    braced.AddPattern("a{b,c}d", 0);
    EXPECT_TRUE(braced.GetMode() & KWGLOB_HAS_BRACE);

    KWSuperGlob deep;
    deep.AddPattern(std::string(3000, '{').c_str(), 0);
    EXPECT_EQ(1u, deep.PatternCount());
    // A nest thousands deep expands level by level without recursion.
    std::string nest = std::string(2000, '{') + "a" + std::string(2000, '}');
    KWSuperGlob n2;
    EXPECT_TRUE(n2.AddPattern(nest.c_str(), 0));
    EXPECT_TRUE(n2.Match("a"));
}

TEST(GlobMatch, ExpansionIsBounded) {
    std::string p;
    for (int i = 0; i < 40; ++i) p += "{a,b}";  // 2^40 alternatives
    KWSuperGlob g;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(g.AddPattern(p.c_str(), 0));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(20));
    EXPECT_LE(g.PatternCount(), static_cast<size_t>(KWGLOB_MAX_EXPANSIONS) + 1);
    EXPECT_TRUE(g.Match(std::string(40, 'a').c_str()));  // the first ones are in

    // The limit is per call: the engine keeps accepting patterns.
    EXPECT_TRUE(g.AddPattern("{x,y}", 0));
    EXPECT_TRUE(g.Match("y"));

    // SetPatterns stops at the pattern that failed.
    KWSuperGlob s;
    const char* list[] = {"one", p.c_str(), "three", nullptr};
    EXPECT_FALSE(s.SetPatterns(list, 0));
    EXPECT_TRUE(s.Match("one"));
    EXPECT_FALSE(s.Match("three"));
}

TEST(GlobMatch, LongPatternsAreCutAndMatchingIsBounded) {
    std::string longName(5000, 'a');
    std::string pat(5000, 'a');
    KWSuperGlob g;
    g.AddPattern(pat.c_str(), 0);
    // The pattern keeps 4095 characters.
    EXPECT_TRUE(g.Match(std::string(KWGLOB_MAX_PATTERN - 1, 'a').c_str()));
    EXPECT_FALSE(g.Match(longName.c_str()));

    // "*?*?..." against a long name that fails only at the end would take
    // exponential time with naive recursion.
    std::string evil;
    for (int i = 0; i < 1000; ++i) evil += "*?";
    evil += "b";
    KWSuperGlob e;
    e.AddPattern(evil.c_str(), 0);
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(e.Match(std::string(4000, 'a').c_str()));
    EXPECT_TRUE(e.Match((std::string(3999, 'a') + "b").c_str()));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(20));
}

// Where both are defined the same way (no backslashes, no '^', no POSIX
// "[." collating elements, no FNM_PATHNAME or FNM_PERIOD), the engine and
// fnmatch must agree.
TEST(GlobMatch, AgreesWithFnmatch) {
    std::mt19937 rng(12345);
    const std::string patAlphabet = "ab.-*?[]!";
    const std::string nameAlphabet = "ab.-[]!*?";
    auto gen = [&](const std::string& alphabet, int maxLen) {
        std::string s;
        int len = static_cast<int>(rng() % static_cast<unsigned>(maxLen + 1));
        for (int i = 0; i < len; ++i) s += alphabet[rng() % alphabet.size()];
        return s;
    };
    int disagreements = 0;
    int matched = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string p = gen(patAlphabet, 8);
        if (p.find("[.") != std::string::npos) continue;
        KWSuperGlob g;
        g.AddPattern(p.c_str(), 0);
        for (int j = 0; j < 10; ++j) {
            std::string n = gen(nameAlphabet, 6);
            if (j == 0) {
                // A name built from the pattern, so that matches are common.
                n.clear();
                for (char c : p) n += (c == '*' || c == '?' || c == '[' || c == ']') ? 'a' : c;
            }
            bool ours = g.Match(n.c_str());
            bool theirs = fnmatch(p.c_str(), n.c_str(), FNM_NOESCAPE) == 0;
            matched += ours;
            if (ours != theirs && ++disagreements < 10) {
                ADD_FAILURE() << "pattern \"" << p << "\" name \"" << n << "\": ours " << ours
                              << " fnmatch " << theirs;
            }
        }
    }
    EXPECT_EQ(0, disagreements);
    EXPECT_GT(matched, 5000);
}

// --- the walk --------------------------------------------------------------

class GlobWalk : public ::testing::Test {
protected:
    void SetUp() override {
        Touch(dir_.file("a.log"));
        Touch(dir_.file("b.tmp"));
        Touch(dir_.file("c.txt"));
        ASSERT_EQ(0, mkdir(dir_.file("sub").c_str(), 0755));
        Touch(dir_.file("sub/d.log"));
        Touch(dir_.file("sub/e.tmp"));
        ASSERT_EQ(0, mkdir(dir_.file("sub/deep").c_str(), 0755));
        Touch(dir_.file("sub/deep/f.log"));
    }
    std::set<std::string> Set(KWSuperGlob& g) {
        auto v = Results(g);
        return std::set<std::string>(v.begin(), v.end());
    }
    tvtest::TempDir dir_;
};

TEST_F(GlobWalk, ModeBitsChooseWhatIsReported) {
    const struct {
        const char* pattern;  // null: the default
        unsigned long flags;
        std::set<std::string> expected;
    } cases[] = {
        {"*.log", 0, {"a.log", "sub"}},  // directories are reported unless excluded
        {"*.log", KWGLOB_NO_DIRS, {"a.log"}},
        {"*.tmp",
         KWGLOB_INVERT | KWGLOB_NO_DIRS | KWGLOB_RECURSE,
         {"a.log", "c.txt", "sub/d.log", "sub/deep/f.log"}},
        {nullptr, KWGLOB_ONLY_DIRS | KWGLOB_RECURSE, {"sub", "sub/deep"}},
        {nullptr, 0, {"a.log", "b.tmp", "c.txt", "sub"}},
    };
    for (const auto& c : cases) {
        const char* list[] = {c.pattern, nullptr};
        KWSuperGlob g;
        ASSERT_TRUE(g.Glob(dir_.path(), c.pattern != nullptr ? list : nullptr, c.flags));
        EXPECT_EQ(c.expected, Set(g)) << c.flags;
    }
    // A directory that cannot be opened gives nothing, not a failure.
    KWSuperGlob missing;
    EXPECT_TRUE(missing.Glob(dir_.file("nope"), nullptr, 0));
    EXPECT_EQ(0u, missing.size());
}

TEST_F(GlobWalk, RecursionOrderMarksAndFullPaths) {
    KWSuperGlob g;
    const char* logs[] = {"*.log", nullptr};
    g.Glob(dir_.path(), logs, KWGLOB_RECURSE | KWGLOB_MARK);
    // Files of a directory, then each subdirectory followed by its own results.
    EXPECT_EQ(
        (std::vector<std::string>{"a.log", "sub/", "sub/d.log", "sub/deep/", "sub/deep/f.log"}),
        Results(g));

    KWSuperGlob full;
    full.Glob(dir_.path() + "/sub/..", logs, KWGLOB_RECURSE | KWGLOB_NO_DIRS | KWGLOB_FULL_PATH);
    char real[4096];
    ASSERT_NE(nullptr, realpath(dir_.path().c_str(), real));
    std::string base = real;
    EXPECT_EQ(
        (std::vector<std::string>{base + "/a.log", base + "/sub/d.log", base + "/sub/deep/f.log"}),
        Results(full));
    // The reported stat data is the entry's own.
    ASSERT_TRUE(full.begin());
    struct stat st;
    ASSERT_EQ(0, stat(dir_.file("a.log").c_str(), &st));
    EXPECT_EQ(st.st_ino, (*full).statData.st_ino);
}

TEST_F(GlobWalk, AppendGlobMoreAndIteration) {
    KWSuperGlob g;
    const char* logs[] = {"*.log", nullptr};
    g.Glob(dir_.path(), logs, KWGLOB_NO_DIRS);
    EXPECT_EQ(1u, g.size());
    g.Glob(dir_.path(), logs, KWGLOB_NO_DIRS);  // earlier results dropped
    EXPECT_EQ(1u, g.size());
    g.SetMode(g.GetMode() | KWGLOB_APPEND);
    g.Glob(dir_.file("sub"), logs, KWGLOB_NO_DIRS);
    EXPECT_EQ((std::vector<std::string>{"a.log", "d.log"}), Results(g));

    // GlobMore keeps the patterns and adds to the results.
    g.GlobMore(dir_.file("sub/deep"));
    EXPECT_EQ((std::vector<std::string>{"a.log", "d.log", "f.log"}), Results(g));

    // Without patterns GlobMore takes "*".
    KWSuperGlob more;
    more.GlobMore(dir_.file("sub/deep"));
    EXPECT_TRUE(more.GetMode() & KWGLOB_MATCH_ALL);
    EXPECT_EQ((std::vector<std::string>{"f.log"}), Results(more));

    // Cursor: backwards, erase, end.
    ASSERT_TRUE(g.rbegin());
    EXPECT_STREQ("f.log", (*g).path.c_str());
    EXPECT_TRUE(g--);
    EXPECT_STREQ("d.log", (*g).path.c_str());
    EXPECT_TRUE(g.erase());  // cursor moves to the next result
    EXPECT_STREQ("f.log", (*g).path.c_str());
    EXPECT_FALSE(g++);
    EXPECT_TRUE(g.end());
    EXPECT_FALSE(g++);  // already at the end: stays
    EXPECT_FALSE(g.erase());
    EXPECT_STREQ("", (*g).path.c_str());
    EXPECT_EQ((std::vector<std::string>{"a.log", "f.log"}), Results(g));
    ASSERT_TRUE(g.begin());
    EXPECT_FALSE(g--);  // before the first: the end
    EXPECT_TRUE(g.end());
    g.FoundFree();
    EXPECT_FALSE(g.begin());
    EXPECT_FALSE(g.rbegin());
}

TEST_F(GlobWalk, LinkCyclesAreReportedButNotReentered) {
    ASSERT_EQ(0, symlink("..", dir_.file("sub/up").c_str()));
    ASSERT_EQ(0, symlink("..", dir_.file("sub/up2").c_str()));
    ASSERT_EQ(0, symlink("missing", dir_.file("dangling").c_str()));
    KWSuperGlob g;
    g.Glob(dir_.path(), nullptr, KWGLOB_RECURSE);
    auto s = Set(g);
    EXPECT_TRUE(s.count("sub/up"));
    EXPECT_TRUE(s.count("sub/up2"));
    EXPECT_TRUE(s.count("dangling"));
    EXPECT_FALSE(s.count("sub/up/a.log"));
    EXPECT_EQ(11u, g.size());
}

// A walk of a larger tree reports every entry once, with its own stat data,
// each after its directory.
TEST(GlobTree, WalkReportsEveryEntryOnceAfterItsDirectory) {
    tvtest::TempDir dir;
    std::string root = dir.file("tree");
    ASSERT_EQ(0, mkdir(root.c_str(), 0755));
    std::map<std::string, ino_t> expected;
    size_t headers = 0;
    auto add = [&](const std::string& rel, bool isDir) {
        std::string p = root + "/" + rel;
        ASSERT_EQ(0, isDir ? mkdir(p.c_str(), 0755) : (Touch(p), 0));
        struct stat st;
        ASSERT_EQ(0, stat(p.c_str(), &st));
        expected[rel] = st.st_ino;
        headers += rel.size() > 2 && rel.compare(rel.size() - 2, 2, ".h") == 0;
    };
    for (int a = 0; a < 4; ++a) {
        std::string d = "d" + std::to_string(a);
        add(d, true);
        add(d + "/e", true);
        for (int f = 0; f < 12; ++f) {
            add("f" + std::to_string(a) + "_" + std::to_string(f) + (f % 3 ? ".h" : ".c"), false);
            add(d + "/g" + std::to_string(f) + (f % 2 ? ".h" : ".txt"), false);
            add(d + "/e/h" + std::to_string(f) + ".h", false);
        }
    }
    KWSuperGlob g;
    g.Glob(root, nullptr, KWGLOB_RECURSE);
    std::map<std::string, ino_t> got;
    std::map<std::string, size_t> position;
    size_t i = 0;
    for (bool ok = g.begin(); ok; ok = g++, ++i) {
        std::string p = (*g).path.c_str();
        EXPECT_TRUE(got.emplace(p, (*g).statData.st_ino).second) << "reported twice: " << p;
        position[p] = i;
    }
    EXPECT_EQ(expected, got);
    for (const auto& e : position) {
        auto slash = e.first.rfind('/');
        EXPECT_TRUE(slash == std::string::npos || position[e.first.substr(0, slash)] < e.second)
            << e.first;
    }
    // The header files alone, matched by pattern.
    KWSuperGlob h;
    const char* hdr[] = {"*.h", nullptr};
    h.Glob(root, hdr, KWGLOB_RECURSE | KWGLOB_NO_DIRS);
    EXPECT_EQ(headers, h.size());
}

}  // namespace
