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

    HKEY app = 0;
    ASSERT_EQ(0, RegOpenKeyEx(0, "App", 0, KEY_ALL_ACCESS, &app));
    HKEY gone = 0;
    ASSERT_EQ(0, RegOpenKeyEx(0, "App\\Gone", 0, 0, &gone));
    // Unwritten changes of this process: nothing is closed yet.
    ASSERT_EQ(0, SetSz(app, "A", "mine"));
    ASSERT_EQ(0, RegDeleteValue(app, "B"));
    HKEY fresh = 0;
    ASSERT_EQ(0, RegCreateKeyEx(app, "New\\Deeper", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &fresh,
                                nullptr));
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
    HKEY shared = 0;
    ASSERT_EQ(0, RegOpenKeyEx(0, "App\\Shared", 0, 0, &shared));
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
    EXPECT_NE(std::string::npos, file.find("mine;")) << file;
    EXPECT_EQ(std::string::npos, file.find("theirs")) << file;
    EXPECT_NE(std::string::npos, file.find("3c;")) << file;
    EXPECT_NE(std::string::npos, file.find("new;")) << file;
    EXPECT_NE(std::string::npos, file.find("App\\New\\Deeper=")) << file;
    EXPECT_EQ(std::string::npos, file.find("App\\New=")) << file;  // only a path
    EXPECT_NE(std::string::npos, file.find("App\\Theirs=104")) << file;
    EXPECT_NE(std::string::npos, file.find("App\\Shared=103\nX=")) << file;
    EXPECT_EQ(std::string::npos, file.find("Old")) << file;
    EXPECT_EQ(std::string::npos, file.find("Gone")) << file;

    // After the write nothing is pending: their next change to A is taken.
    std::string next = file;
    next.replace(next.find("mine"), 4, "later");
    tvtest::WriteFile(env.registryFile(), next);
    RegBumpVersion();
    ASSERT_EQ(0, RegOpenKeyEx(0, "App", 0, 0, &app));
    EXPECT_EQ("later", GetSz(app, "A"));
    EXPECT_EQ(0, RegCloseKey(app));
    EXPECT_EQ(0, RegCloseKey(gone));
    EXPECT_EQ(0, RegCloseKey(shared));
}

// An edit made to the file from outside moves no stamp; it is still taken
// at the next open and kept by the next write, not overwritten.
TEST(RegistryMerge, OutsideEditIsMergedNotOverwritten) {
    RegistryEnv env;
    HKEY h = 0;
    ASSERT_EQ(0, RegCreateKeyEx(0, "Mine", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr));
    ASSERT_EQ(0, SetSz(h, "V", "1"));
    ASSERT_EQ(0, RegCloseKey(h));

    std::string edited =
        env.ReadRegistryFile() + "HKEY_LOCAL_MACHINE\\Admin=555\nSet=by hand;REG_SZ\n\n";
    tvtest::WriteFile(env.registryFile(), edited);
    ASSERT_EQ(0, RegCreateKeyEx(0, "Mine", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr));
    ASSERT_EQ(0, SetSz(h, "V", "2"));
    ASSERT_EQ(0, RegCloseKey(h));
    const std::string file = env.ReadRegistryFile();
    EXPECT_NE(std::string::npos, file.find("HKEY_LOCAL_MACHINE\\Admin=555\n")) << file;
    EXPECT_NE(std::string::npos, file.find("by hand;")) << file;

    // An editor that has emptied the file for a moment is not taken as
    // "everything was deleted".
    tvtest::WriteFile(env.registryFile(), "");
    HKEY admin = 0;
    EXPECT_EQ(0, RegOpenKeyEx(0, "Admin", 0, 0, &admin));
    RegCloseKey(admin);
}

}  // namespace
