// Start-up: paths, the template copy, backups, the exact messages, the lazy
// writer and the version dump.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include <tvcommonutil.h>

#include "registry/registry_internal.h"
#include "registry_support.h"

namespace {

using regtest::RegistryEnv;

const char kTemplate[] =
    "\n"
    "HKEY_LOCAL_MACHINE=536870913\n"
    "\n"
    "HKEY_LOCAL_MACHINE\\FromTemplate=7\n"
    "T=1;REG_SZ\n"
    "\n";

bool WaitForText(const std::string& path, const std::string& text) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (tvtest::ReadFile(path).find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

LONG SetAndClose(const char* key, const char* name, const char* value) {
    HKEY h = 0;
    LONG r = RegCreateKeyEx(0, key, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr);
    if (r != 0) return r;
    r = RegSetValueEx(h, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value), strlen(value) + 1);
    RegCloseKey(h);
    return r;
}

TEST(RegistryStartup, PathsFromTheEnvironment) {
    RegistryEnv env(kTemplate);
    std::string noSlash = env.install().substr(0, env.install().size() - 1);
    setenv("TV_REGISTRY", noSlash.c_str(), 1);
    EXPECT_EQ(noSlash + "/registry/tv.registry", std::string(GetRegistryPath().c_str()));
    // Made from the template before the first read.
    EXPECT_EQ(std::string(kTemplate), env.ReadRegistryFile());
    HKEY h = 0;
    EXPECT_EQ(0, RegOpenKeyEx(0, "FromTemplate", 0, 0, &h));
    EXPECT_EQ(7, h);
    EXPECT_TRUE(tvtest::FileExists(env.lockFile()));
    EXPECT_TRUE(regtest::SysVExists(env.lockFile()));

    EXPECT_FALSE(SetRegistryPath("/nonexistent/"));
    EXPECT_STREQ("/nonexistent/registry/tv.registry", GetRegistryPath().c_str());
    EXPECT_TRUE(SetRegistryPath(env.install().c_str()));
    RegCloseKey(h);
}

TEST(RegistryStartup, NoTemplateAndNoRegistry) {
    RegistryEnv env;
    unlink(env.templateFile().c_str());
    testing::internal::CaptureStderr();
    InitRegistry(0, 1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos,
              err.find("\n\nInitRegistry: stat(" + env.templateFile() + ") failed, errno - "))
        << err;
    EXPECT_NE(std::string::npos, err.find("InitRegistry: Template copy failed!!\n")) << err;
    EXPECT_FALSE(tvtest::FileExists(env.registryFile()));
    HKEY h = 0;
    EXPECT_EQ(13, RegOpenKeyEx(0, "Anything", 0, 0, &h));
    // The first write makes the file.
    ASSERT_EQ(0, SetAndClose("Made", "V", "x"));
    EXPECT_NE(std::string::npos, env.ReadRegistryFile().find("HKEY_LOCAL_MACHINE\\Made="));
}

// An empty registry with the backup flag: the message is logged, the tree
// starts empty, and the backup is kept.
TEST(RegistryStartup, EmptyRegistryAndBackup) {
    const std::string empty;
    RegistryEnv env(kTemplate, &empty);
    tvtest::WriteFile(env.registryFile() + ".bak", "old backup");
    testing::internal::CaptureStderr();
    InitRegistry(1, 1);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ("\n\nInitRegistry: Registry is zero length.\nPlease restore " + env.registryFile() +
                  " from backup file " + env.registryFile() + ".bak.\nExiting...\n",
              err);
    EXPECT_EQ("old backup", tvtest::ReadFile(env.registryFile() + ".bak"));
    HKEY h = 0;
    EXPECT_EQ(13, RegOpenKeyEx(0, "FromTemplate", 0, 0, &h));

    ASSERT_EQ(0, SetAndClose("After", "V", "x"));
    EXPECT_TRUE(RegBackupRegistry());
    EXPECT_EQ(env.ReadRegistryFile(), tvtest::ReadFile(env.registryFile() + ".bak"));
}

// args: stderr file. Starts the registry with the backup flag.
TV_TEST_CHILD(reg_start) {
    if (freopen(args.at(0).c_str(), "w", stderr) == nullptr) return 3;
    InitRegistry(1, 1);
    CleanSystemResources();
    return 0;
}

// A registry file that cannot be read, or is not a registry, ends start-up
// with the reason, and it and the backup are left byte for byte.
TEST(RegistryStartup, UnusableFileIsNeverWrittenOver) {
    struct Case {
        std::string text;
        mode_t mode;
        const char* reason;
    };
    static const char kGarbage[] =
        "\x7f"
        "ELF\x02\x01\x01\0\0\xff\n<junk>\nmore=junk\n";
    const Case cases[] = {
        {std::string(kGarbage, sizeof kGarbage - 1), 0600, "it holds no key line"},
        {"HKEY_LOCAL_MACHINE\\Secret=5\nV=1;REG_SZ\n", 0200, "Permission denied"},
    };
    for (const Case& c : cases) {
        if (c.mode == 0200 && geteuid() == 0) {
            fprintf(stderr, "skipped the unreadable file: root reads any file\n");
            continue;
        }
        RegistryEnv env(kTemplate, &c.text);
        tvtest::WriteFile(env.registryFile() + ".bak", "old backup");
        chmod(env.registryFile().c_str(), c.mode);
        const std::string log = env.file("stderr");
        pid_t pid = tvtest::SpawnChild("reg_start", {log});
        EXPECT_EQ(1, regtest::WaitChildFor(pid, 60)) << c.reason;
        chmod(env.registryFile().c_str(), 0600);
        EXPECT_EQ(c.text, env.ReadRegistryFile()) << c.reason;
        EXPECT_EQ("old backup", tvtest::ReadFile(env.registryFile() + ".bak"));
        const std::string err = tvtest::ReadFile(log);
        EXPECT_NE(std::string::npos, err.find(env.registryFile())) << err;
        EXPECT_NE(std::string::npos, err.find(c.reason)) << err;
    }
}

// A fresh install directory without registry/ gets one, 0755 whatever the
// umask; one that exists but cannot be written still ends start-up.
TEST(RegistryStartup, MissingRegistryDirectoryIsMade) {
    RegistryEnv env;
    const std::string dir = env.install() + "registry";
    ASSERT_EQ(0, unlink(env.templateFile().c_str()));
    ASSERT_EQ(0, rmdir(dir.c_str()));
    const mode_t old = umask(077);
    pid_t pid = tvtest::SpawnChild("reg_start", {env.file("stderr")});
    umask(old);
    EXPECT_EQ(0, regtest::WaitChildFor(pid, 60)) << tvtest::ReadFile(env.file("stderr"));
    struct stat st;
    ASSERT_EQ(0, stat(dir.c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 07777);
    EXPECT_TRUE(tvtest::FileExists(env.lockFile()));
    if (geteuid() == 0) return;  // root writes into any directory
    chmod(dir.c_str(), 0555);
    pid = tvtest::SpawnChild("reg_start", {env.file("stderr")});
    EXPECT_EQ(1, regtest::WaitChildFor(pid, 60));
    chmod(dir.c_str(), 0755);
    EXPECT_NE(std::string::npos, tvtest::ReadFile(env.file("stderr")).find("problem accessing"));
}

// Temporary files of writers that are gone are removed at start-up; a live
// writer's file and files of other names stay.
TEST(RegistryStartup, StaleTempFilesAreRemoved) {
    RegistryEnv env;
    const pid_t gone = tvtest::SpawnChild("reg_start", {"/nonexistent/stderr"});
    ASSERT_EQ(3, regtest::WaitChildFor(gone, 60));
    const std::string dir = env.install() + "registry/";
    const std::string stale = dir + ".tv.registry.tmp." + std::to_string(gone) + ".1f.1";
    const std::string live = dir + ".tv.registry.tmp." + std::to_string(getpid()) + ".1f.1";
    const std::string other = dir + "tv.registry.tmp.notes";
    for (const std::string& f : {stale, live, other}) tvtest::WriteFile(f, "partial");
    pid_t pid = tvtest::SpawnChild("reg_start", {env.file("stderr")});
    EXPECT_EQ(0, regtest::WaitChildFor(pid, 60));
    EXPECT_FALSE(tvtest::FileExists(stale));
    EXPECT_TRUE(tvtest::FileExists(live));
    EXPECT_TRUE(tvtest::FileExists(other));
}

// A symbolic link planted at one of the registry's own paths is refused,
// with a message naming it; the target keeps its bytes and its mode, and a
// dangling link's target is never made.
TEST(RegistryStartup, PlantedLinksAreRefused) {
    struct Case {
        const char* at;
        bool dangling;
        int exit;  // the backup is not needed to go on
    };
    const Case cases[] = {
        {"registry/tv.registry", false, 1},       {"registry/tv.registry", true, 1},
        {"registry/tv.registry.bak", false, 0},   {"registry/tv.registry.bak", true, 0},
        {"registry/.registry-lockfile", true, 1}, {"registry/.registry-lockfile", false, 1},
    };
    for (const Case& c : cases) {
        const std::string good = kTemplate;
        RegistryEnv env(kTemplate, &good);
        const std::string target = env.file("secret"), link = env.install() + c.at;
        if (!c.dangling) {
            tvtest::WriteFile(target, "secret\n");
            chmod(target.c_str(), 0600);
        }
        unlink(link.c_str());
        ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
        pid_t pid = tvtest::SpawnChild("reg_start", {env.file("stderr")});
        EXPECT_EQ(c.exit, regtest::WaitChildFor(pid, 60)) << c.at;
        const std::string err = tvtest::ReadFile(env.file("stderr"));
        EXPECT_NE(std::string::npos, err.find(link)) << c.at << err;
        EXPECT_NE(std::string::npos, err.find("symbolic link")) << err;
        struct stat st;
        ASSERT_EQ(0, lstat(link.c_str(), &st));
        EXPECT_TRUE(S_ISLNK(st.st_mode)) << c.at;
        if (c.dangling) {
            EXPECT_FALSE(tvtest::FileExists(target)) << c.at;
            continue;
        }
        EXPECT_EQ("secret\n", tvtest::ReadFile(target)) << c.at;
        ASSERT_EQ(0, stat(target.c_str(), &st));
        EXPECT_EQ(0600u, st.st_mode & 07777) << c.at;
    }
    // Planted while the registry runs: the write fails instead of replacing
    // it, and no refresh reads through it.
    RegistryEnv env(kTemplate);
    HKEY h = 0;
    ASSERT_EQ(0, RegCreateKeyEx(0, "K", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr));
    tvtest::WriteFile(env.file("secret"), "HKEY_LOCAL_MACHINE\\Secret=9\n");
    ASSERT_EQ(0, unlink(env.registryFile().c_str()));
    ASSERT_EQ(0, symlink(env.file("secret").c_str(), env.registryFile().c_str()));
    RegBumpVersion();
    ASSERT_EQ(0, RegSetValueEx(h, "V", 0, REG_SZ, reinterpret_cast<const BYTE*>("x"), 2));
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, RegFlushKey(h));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("symbolic link"));
    HKEY secret = 0;
    EXPECT_EQ(13, RegOpenKeyEx(0, "Secret", 0, 0, &secret));
    EXPECT_EQ("HKEY_LOCAL_MACHINE\\Secret=9\n", tvtest::ReadFile(env.file("secret")));
    RegCloseKey(h);
}

struct LazyArgs {
    int interval;
};

void* LazyBody(void* arg) {
    RegLazyWriteThread(&static_cast<LazyArgs*>(arg)->interval);
    return nullptr;
}

TEST(RegistryStartup, LazyWriter) {
    for (int interval : {20, 0}) {
        RegistryEnv env(kTemplate);
        ASSERT_EQ(0, SetAndClose("Before", "V", "x"));  // written at once
        EXPECT_NE(std::string::npos, env.ReadRegistryFile().find("Before"));

        LazyArgs args{interval};
        pthread_t t;
        ASSERT_EQ(0, pthread_create(&t, nullptr, LazyBody, &args));
        // Once the writer runs, a close only marks the registry.
        while (!tv::detail::LazyFlushOn()) std::this_thread::yield();
        ASSERT_EQ(0, SetAndClose("Lazy", "V", "1"));
        EXPECT_TRUE(WaitForText(env.registryFile(), "HKEY_LOCAL_MACHINE\\Lazy=")) << interval;

        // Cancelling writes what is left, and closes write at once again.
        HKEY h = 0;
        ASSERT_EQ(0,
                  RegCreateKeyEx(0, "Lazy", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr));
        const char last[] = "last";
        ASSERT_EQ(0, RegSetValueEx(h, "Last", 0, REG_SZ, reinterpret_cast<const BYTE*>(last), 5));
        ASSERT_EQ(0, RegFlushKey(h));  // only marks
        ASSERT_EQ(0, pthread_cancel(t));
        ASSERT_EQ(0, pthread_join(t, nullptr));
        EXPECT_NE(std::string::npos, env.ReadRegistryFile().find("last;"));
        EXPECT_FALSE(tv::detail::LazyFlushOn());
        ASSERT_EQ(0, RegCloseKey(h));
        ASSERT_EQ(0, SetAndClose("AfterLazy", "V", "x"));
        EXPECT_NE(std::string::npos, env.ReadRegistryFile().find("AfterLazy"));
    }
}

TEST(RegistryStartup, DumpVersionAndCache) {
    RegistryEnv env(kTemplate);
    ASSERT_EQ(0, SetAndClose("Dump", "Name", "value"));
    testing::internal::CaptureStdout();
    RegDumpVersion();
    DumpRegistryCache();
    const std::string out = testing::internal::GetCapturedStdout();
    const std::string expected =
        "Lock owner PID: 0\nRegistry version stamp: 1\n"
        "Last PID to write Registry: " +
        std::to_string(getpid()) + "\n";
    EXPECT_EQ(expected, out.substr(0, expected.size()));
    EXPECT_NE(std::string::npos,
              out.find("Name=                 \tvalue;                \tREG_SZ\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find("HKEY_LOCAL_MACHINE\\FromTemplate=7\n")) << out;
}

}  // namespace
