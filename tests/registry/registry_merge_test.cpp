// The refresh rule: when another writer (or an administrator's editor) has
// changed the file, this process takes their changes without dropping its
// own unwritten ones or bringing back what it deleted.
#include <gtest/gtest.h>

#include <string>

#include <tvcommonutil.h>

#include "registry/registry_internal.h"
#include "registry_support.h"

namespace {

using namespace regtest;

const char kBefore[] =
    "\n"
    "HKEY_LOCAL_MACHINE=536870913\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App=100\n"
    "A=1;REG_SZ\n"
    "B=2;REG_SZ\n"
    "C=3;REG_SZ\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App\\Gone=102\n"
    "G=1;REG_SZ\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App\\Old=101\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App\\Shared=103\n"
    "\n";

// What another process wrote meanwhile.
const char kTheirs[] =
    "\n"
    "HKEY_LOCAL_MACHINE=536870913\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App=100\n"
    "A=theirs;REG_SZ\n"
    "B=theirs-b;REG_SZ\n"
    "C=3c;REG_SZ\n"
    "D=new;REG_SZ\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App\\Old=101\n"
    "O=back;REG_SZ\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App\\Old\\Below=107\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App\\Shared=103\n"
    "X=1;REG_SZ\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\App\\Theirs=104\n"
    "\n";

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
    char name[32];
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
        EXPECT_NE(std::string::npos, file.find(in)) << in << "\n" << file;
    }
    // App\New is only a path; the rest were deleted here or overridden.
    for (const char* out : {"theirs", "App\\New=", "Old", "Gone"}) {
        EXPECT_EQ(std::string::npos, file.find(out)) << out << "\n" << file;
    }

    // After the write nothing is pending: their next change to A is taken.
    std::string next = file;
    next.replace(next.find("mine"), 4, "later");
    tvtest::WriteFile(env.registryFile(), next);
    RegBumpVersion();
    app = Open("App");
    EXPECT_EQ("later", GetSz(app, "A"));
    EXPECT_EQ(0, RegCloseKey(app));
    EXPECT_EQ(0, RegCloseKey(gone));
    EXPECT_EQ(0, RegCloseKey(shared));
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
    EXPECT_NE(std::string::npos, file.find("HKEY_LOCAL_MACHINE\\Admin=555\n")) << file;
    EXPECT_NE(std::string::npos, file.find("by hand;")) << file;

    // An editor that has emptied the file for a moment is not taken as
    // "everything was deleted".
    tvtest::WriteFile(env.registryFile(), "");
    EXPECT_TRUE(KeyExists("Admin"));
}

}  // namespace
