// Writing profile files: placement, deletions, caching and the flush.
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "profile_test_util.h"

using profiletest::Get;
using profiletest::Keys;
using profiletest::ProfileDir;

namespace {

int Flush(const std::string& f) {
    return WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
}

tv::detail::yufiletable* Cached(const std::string& f) {
    tv::detail::ProfileMutexHolder hold(tv::detail::yuProfileMutex);
    return tv::detail::FindProfileTable(f.c_str());
}

TEST(ProfileWrite, SetKeepsLayoutAndPlacesNewKeysBeforeTrailingComments) {
    ProfileDir dir;
    std::string f = dir.file("w.ini");
    tvtest::WriteFile(f,
                      "; top comment\n"
                      "\n"
                      "[A]\n"
                      "  KEY = 1 ; old comment\n"
                      "flag\n"
                      "; about B\n"
                      "# also about B\n"
                      "\n"
                      "[B] ; b note\n"
                      "y=2\n");
    EXPECT_EQ(WritePrivateProfileString("A", "new", "v", f.c_str()), 1);
    EXPECT_EQ(WritePrivateProfileString(" a ", " Key ", "  fresh ", f.c_str()), 1);
    EXPECT_EQ(WritePrivateProfileString("A", "flag", "value", f.c_str()), 1);
    EXPECT_EQ(WritePrivateProfileString("C", "c1", "x", f.c_str()), 1);
    EXPECT_EQ(WritePrivateProfileString("c", "c2", "y", f.c_str()), 1);
    // Cached: nothing on disk yet, but reads see the change.
    EXPECT_EQ(Get("A", "key", f), "fresh");
    EXPECT_EQ(tvtest::ReadFile(f).find("fresh"), std::string::npos);

    EXPECT_EQ(Flush(f), 0);  // a flush request always answers 0
    EXPECT_EQ(tvtest::ReadFile(f),
              "; top comment\n"
              "\n"
              "[A]\n"
              "KEY=fresh\n"
              "flag=value\n"
              "new=v\n"
              "; about B\n"
              "# also about B\n"
              "\n"
              "[B] ; b note\n"
              "y=2\n"
              "\n"
              "[C]\n"
              "c1=x\n"
              "c2=y\n"
              "\n");
}

TEST(ProfileWrite, DeletionsMatchKeysCaseSensitivelyAndLeaveHoles) {
    ProfileDir dir;
    std::string f = dir.file("d.ini");
    tvtest::WriteFile(f, "[S]\nKEY=1\nother=2\n[s]\nKey=3\n[T]\nt=1\n\n[V]\n; c\nx=1\n");
    // Looked up often enough to be indexed: every later lookup must still
    // follow the edits.
    for (int i = 0; i < 5; ++i) EXPECT_EQ(Get("t", "T", f), "1");
    EXPECT_EQ(WritePrivateProfileString("S", "Key", nullptr, f.c_str()), 1);  // found in [s]
    EXPECT_EQ(WritePrivateProfileString("S", "Key", nullptr, f.c_str()), 0);  // gone now
    EXPECT_EQ(WritePrivateProfileString("S", "key", nullptr, f.c_str()), 0);
    EXPECT_EQ(WritePrivateProfileString("S", "KEY", nullptr, f.c_str()), 1);
    EXPECT_EQ(WritePrivateProfileString(" t ", nullptr, "ignored", f.c_str()), 1);
    EXPECT_EQ(WritePrivateProfileString("T", nullptr, nullptr, f.c_str()), 0);
    EXPECT_EQ(WritePrivateProfileString("nope", nullptr, nullptr, f.c_str()), 0);
    EXPECT_EQ(Get("T", "t", f), "<default>");
    for (int i = 0; i < 5; ++i) EXPECT_EQ(Get("S", "other", f), "2");
    EXPECT_EQ(WritePrivateProfileString("S", "n", "1", f.c_str()), 1);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(Get("S", "N", f), "1");
    EXPECT_EQ(WritePrivateProfileString("S", "other", nullptr, f.c_str()), 1);
    EXPECT_EQ(Get("S", "other", f), "<default>");

    // A new key's walk back over trailing comments stops at a deleted line.
    EXPECT_EQ(WritePrivateProfileString("V", "x", nullptr, f.c_str()), 1);
    EXPECT_EQ(WritePrivateProfileString("V", "y", "1", f.c_str()), 1);
    Flush(f);
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\nn=1\n\n[s]\n\n[V]\n; c\ny=1\n\n");
}

TEST(ProfileWrite, FlushReportsZeroWhenItReleasedItsLockAndClearsDirty) {
    ProfileDir dir;
    std::string f = dir.file("flush.ini");
    tvtest::WriteFile(f, "[S]\nk=1\n");
    chmod(f.c_str(), 0640);
    ASSERT_EQ(WritePrivateProfileString("S", "k", "2", f.c_str()), 1);
    EXPECT_EQ(Flush(f), 0);
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\nk=2\n\n");
    EXPECT_FALSE(tvtest::FileExists(profiletest::LockPathFor(f)));
    struct stat st, again;
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);  // the rename kept the mode
    EXPECT_EQ(Flush(f), 0);                // clean now: the file is not replaced again
    ASSERT_EQ(stat(f.c_str(), &again), 0);
    EXPECT_EQ(again.st_ino, st.st_ino);

    // With caching off every change is flushed and answers with the flush's 0.
    yuSetProfileWriteCaching(false);
    EXPECT_EQ(WritePrivateProfileString("S", "k", "3", f.c_str()), 0);
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\nk=3\n\n");
    EXPECT_EQ(WritePrivateProfileString("S", "k", nullptr, f.c_str()), 0);
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\n\n");
    // A file deleted by someone else after a flush does not come back.
    unlink(f.c_str());
    yuSetProfileWriteCaching(true);
    EXPECT_EQ(WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str()), 0);
    EXPECT_EQ(tvtest::ReadFile(f), "");
}

TEST(ProfileWrite, CachingSwitchAndWriteAndFreeAllFlushDirtyTables) {
    ProfileDir dir;
    std::string a = dir.file("a.ini"), b = dir.file("b.ini");
    tvtest::WriteFile(a, "[S]\nk=1\n");
    tvtest::WriteFile(b, "[S]\nk=1\n");
    ASSERT_EQ(WritePrivateProfileString("S", "k", "2", a.c_str()), 1);
    EXPECT_EQ(Get("S", "k", b), "1");  // cached, clean
    yuSetProfileWriteCaching(false);
    EXPECT_EQ(tvtest::ReadFile(a), "[S]\nk=2\n\n");
    EXPECT_EQ(tvtest::ReadFile(b), "[S]\nk=1\n");  // clean tables are not rewritten
    yuSetProfileWriteCaching(true);
    ASSERT_EQ(WritePrivateProfileString("S", "k", "3", b.c_str()), 1);
    yuWriteAndFreeAllProfiles();
    EXPECT_EQ(tvtest::ReadFile(b), "[S]\nk=3\n\n");
    EXPECT_EQ(Cached(a), nullptr);
    EXPECT_EQ(Cached(b), nullptr);
}

TEST(ProfileWrite, MissingFilesAreCreatedReadOnlyFilesAndBadPathsRefused) {
    ProfileDir dir;
    std::string f = dir.file("new.ini");
    EXPECT_EQ(WritePrivateProfileString("New", "k", "v", f.c_str()), 1);
    EXPECT_TRUE(tvtest::FileExists(f));  // created empty at once
    EXPECT_EQ(tvtest::ReadFile(f), "");
    Flush(f);
    EXPECT_EQ(tvtest::ReadFile(f), "[New]\nk=v\n\n");

    EXPECT_EQ(WritePrivateProfileString("S", "k", "v", dir.file("no/dir.ini").c_str()), 0);

    // Null section with a key or value: refused.
    for (const char* key : {"k", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(WritePrivateProfileString(nullptr, key, "v", f.c_str()), 0);
    }
    EXPECT_EQ(WritePrivateProfileString(nullptr, "k", nullptr, f.c_str()), 0);
    EXPECT_EQ(WritePrivateProfileString("S", "k", "v", nullptr), 0);

    // A 256-character path is refused whole: neither it nor its 255-character
    // prefix is created.
    std::string base = dir.path() + "/";
    std::string name256 = base + std::string(256 - base.size(), 'p');
    EXPECT_EQ(WritePrivateProfileString("S", "k", "v", name256.c_str()), 0);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_FALSE(tvtest::FileExists(name256));
    EXPECT_FALSE(tvtest::FileExists(name256.substr(0, 255)));

    // Only the owner-write bit decides.
    std::string ro = dir.file("ro.ini");
    tvtest::WriteFile(ro, "[S]\nk=1\n");
    ASSERT_EQ(chmod(ro.c_str(), 0444), 0);
    EXPECT_EQ(WritePrivateProfileString("S", "k", "2", ro.c_str()), 0);
    EXPECT_EQ(Get("S", "k", ro), "1");
    // Group and other write bits do not help, even for the superuser.
    ASSERT_EQ(chmod(ro.c_str(), 0577), 0);
    EXPECT_EQ(WritePrivateProfileString("S", "k", "2", ro.c_str()), 0);
    EXPECT_EQ(WritePrivateProfileString("S", "k", nullptr, ro.c_str()), 0);
    EXPECT_EQ(Flush(ro), 0);
    EXPECT_EQ(tvtest::ReadFile(ro), "[S]\nk=1\n");
    ASSERT_EQ(chmod(ro.c_str(), 0644), 0);
    EXPECT_EQ(WritePrivateProfileString("S", "k", "2", ro.c_str()), 1);
}

TEST(ProfileWrite, LiveLockMakesAFlushFailAndKeepDirty) {
    ProfileDir dir;
    std::string f = dir.file("stale.ini");
    tvtest::WriteFile(f, "[S]\nk=1\n");
    ASSERT_EQ(WritePrivateProfileString("S", "k", "2", f.c_str()), 1);
    std::string lock = profiletest::LockPathFor(f);
    tvtest::WriteFile(lock, "");  // young and without a holder: taken as live

    EXPECT_EQ(Flush(f), 0);  // the lock is not ours to release: 0, and nothing written
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\nk=1\n");
    EXPECT_TRUE(tvtest::FileExists(lock));  // a live lock is never removed

    unlink(lock.c_str());
    Flush(f);
    EXPECT_EQ(tvtest::ReadFile(f), "[S]\nk=2\n\n");
}

// Another process's rewrite between this process's changes and its flush:
// each case starts from base, applies `mine` here, then `theirs` on disk.
TEST(ProfileWrite, FlushMergesOwnChangesOverAnotherProcesssRewrite) {
    struct Case {
        const char* name;
        const char* base;
        void (*mine)(const char* f);
        const char* theirs;
        const char* expected;
    };
    const Case cases[] = {
        {"set beside their change", "[S]\na=1\n",
         [](const char* f) { WritePrivateProfileString("S", "b", "2", f); },
         "; kept\n[S]\na=changed\n", "; kept\n[S]\na=changed\nb=2\n\n"},
        {"same key: the later flush wins", "[S]\na=1\n",
         [](const char* f) { WritePrivateProfileString("S", "a", "mine", f); }, "[S]\na=theirs\n",
         "[S]\na=mine\n\n"},
        {"my delete over their set", "[S]\na=1\nb=1\n",
         [](const char* f) { WritePrivateProfileString("S", "a", nullptr, f); },
         "[S]\na=1\nb=theirs\n", "[S]\nb=theirs\n\n"},
        {"their delete beside my set", "[S]\na=1\nb=1\n",
         [](const char* f) { WritePrivateProfileString("S", "a", "2", f); }, "[S]\na=1\n",
         "[S]\na=2\n\n"},
        {"they deleted the section I set in", "[S]\na=1\n[T]\nt=1\n",
         [](const char* f) { WritePrivateProfileString("S", "b", "2", f); }, "[T]\nt=1\n",
         "[T]\nt=1\n\n[S]\nb=2\n\n"},
        {"my section delete, then a set in it", "[S]\na=1\n",
         [](const char* f) {
             WritePrivateProfileString("S", nullptr, nullptr, f);
             WritePrivateProfileString("S", "n", "1", f);
         },
         "[S]\na=1\nz=9\n", "[S]\nn=1\n\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ProfileDir dir;
        std::string f = dir.file("m.ini");
        tvtest::WriteFile(f, c.base);
        Get("S", "a", f);  // loaded before either change
        c.mine(f.c_str());
        tvtest::WriteFile(f, c.theirs);
        Flush(f);
        EXPECT_EQ(tvtest::ReadFile(f), c.expected);
    }
}

}  // namespace
