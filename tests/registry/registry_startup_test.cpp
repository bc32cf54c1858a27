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

#include "registry/registry_shared.h"
#include "registry_support.h"

namespace {

using namespace regtest;

const char kTemplate[] =
    "\nHKEY_LOCAL_MACHINE=536870913\n\nHKEY_LOCAL_MACHINE\\FromTemplate=7\nT=1;REG_SZ\n\n";

bool WaitForText(const std::string& path, const std::string& text) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (tvtest::ReadFile(path).find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

TEST(RegistryStartup, PathsFromTheEnvironment) {
    RegistryEnv env(kTemplate);
    chmod(env.templateFile().c_str(), 0640);  // the registry made from it gets its mode
    std::string noSlash = env.install().substr(0, env.install().size() - 1);
    setenv("TV_REGISTRY", noSlash.c_str(), 1);
    EXPECT_EQ(noSlash + "/registry/tv.registry", std::string(GetRegistryPath().c_str()));
    // Made from the template before the first read.
    EXPECT_EQ(std::string(kTemplate), env.ReadRegistryFile());
    struct stat st;
    ASSERT_EQ(0, stat(env.registryFile().c_str(), &st));
    EXPECT_EQ(0640u, st.st_mode & 07777);
    HKEY h = Open("FromTemplate");
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
    EXPECT_TRUE(Has(err, "\n\nInitRegistry: stat(" + env.templateFile() + ") failed, errno - "));
    EXPECT_TRUE(Has(err, "InitRegistry: Template copy failed!!\n"));
    EXPECT_FALSE(tvtest::FileExists(env.registryFile()));
    EXPECT_FALSE(KeyExists("Anything"));
    // The first write makes the file.
    ASSERT_EQ(0, SetAndClose("Made", "V", "x"));
    EXPECT_TRUE(Has(env.ReadRegistryFile(), "HKEY_LOCAL_MACHINE\\Made="));
}

// An empty registry with the backup flag: the message is logged, the tree
// starts empty, and the backup is kept (only a registry that read
// correctly and holds something replaces it).
TEST(RegistryStartup, EmptyRegistryAndBackup) {
    const std::string empty;
    RegistryEnv env(kTemplate, &empty);
    const std::string bak = env.registryFile() + ".bak";
    tvtest::WriteFile(bak, "old backup");
    testing::internal::CaptureStderr();
    InitRegistry(1, 1);
    EXPECT_EQ("\n\nInitRegistry: Registry is zero length.\nPlease restore " + env.registryFile() +
                  " from backup file " + bak + ".\nExiting...\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ("old backup", tvtest::ReadFile(bak));
    EXPECT_FALSE(KeyExists("FromTemplate"));
    ASSERT_EQ(0, SetAndClose("After", "V", "x"));
    chmod(env.registryFile().c_str(), 0604);
    EXPECT_TRUE(RegBackupRegistry());
    EXPECT_EQ(env.ReadRegistryFile(), tvtest::ReadFile(bak));
    struct stat st;
    ASSERT_EQ(0, stat(bak.c_str(), &st));
    EXPECT_EQ(0604u, st.st_mode & 07777);  // never more open than the registry
}

// args: stderr file. Starts the registry with the backup flag.
TV_TEST_CHILD(reg_start) {
    if (freopen(args.at(0).c_str(), "w", stderr) == nullptr) return 3;
    InitRegistry(1, 1);
    CleanSystemResources();
    return 0;
}

// A registry file that cannot be read or is not a registry, and a symbolic
// link planted at one of the registry's paths: start-up refuses it with a
// message naming the path and the reason, and writes nothing through it.
// The registry, the backup and a link's target keep their bytes and mode; a
// dangling link's target is never made.
TEST(RegistryStartup, UnusableFilesAndPlantedLinksAreRefused) {
    static const char kGarbage[] =
        "\x7f"
        "ELF\x02\x01\x01\0\0\xff\n<junk>\nmore=junk\n";
    struct Case {
        std::string registry;
        mode_t mode;
        const char* linkAt;  // in registry/, or none
        bool dangling;
        int exit;  // the backup is not needed to go on
        const char* says;
    };
    const Case cases[] = {
        {std::string(kGarbage, sizeof kGarbage - 1), 0600, nullptr, false, 1,
         "it holds no key line"},
        {kTemplate, 0200, nullptr, false, 1, "Permission denied"},
        {kTemplate, 0600, "tv.registry", false, 1, "symbolic link"},
        {kTemplate, 0600, "tv.registry", true, 1, "symbolic link"},
        {kTemplate, 0600, "tv.registry.bak", false, 0, "symbolic link"},
        {kTemplate, 0600, "tv.registry.bak", true, 0, "symbolic link"},
        {kTemplate, 0600, ".registry-lockfile", false, 1, "symbolic link"},
        {kTemplate, 0600, ".registry-lockfile", true, 1, "symbolic link"},
    };
    for (const Case& c : cases) {
        if (c.mode == 0200 && geteuid() == 0) continue;  // root reads any file
        RegistryEnv env(kTemplate, &c.registry);
        const std::string bak = env.registryFile() + ".bak", target = env.file("secret");
        tvtest::WriteFile(bak, "old backup");
        chmod(env.registryFile().c_str(), c.mode);
        const std::string named =
            c.linkAt != nullptr ? env.install() + "registry/" + c.linkAt : env.registryFile();
        if (c.linkAt != nullptr) {
            if (!c.dangling) tvtest::WriteFile(target, "secret\n");
            chmod(target.c_str(), 0600);
            unlink(named.c_str());
            ASSERT_EQ(0, symlink(target.c_str(), named.c_str()));
        }
        pid_t pid = tvtest::SpawnChild("reg_start", {env.file("stderr")});
        EXPECT_EQ(c.exit, WaitChildFor(pid, 60)) << named;
        const std::string err = tvtest::ReadFile(env.file("stderr"));
        EXPECT_TRUE(Has(err, named));
        EXPECT_TRUE(Has(err, c.says));
        if (c.linkAt == nullptr) {
            chmod(env.registryFile().c_str(), 0600);
            EXPECT_EQ(c.registry, env.ReadRegistryFile());
            EXPECT_EQ("old backup", tvtest::ReadFile(bak));
            continue;
        }
        struct stat st;
        ASSERT_EQ(0, lstat(named.c_str(), &st));
        EXPECT_TRUE(S_ISLNK(st.st_mode)) << named;
        EXPECT_EQ(!c.dangling, tvtest::FileExists(target)) << named;
        if (c.dangling) continue;
        EXPECT_EQ("secret\n", tvtest::ReadFile(target)) << named;
        ASSERT_EQ(0, stat(target.c_str(), &st));
        EXPECT_EQ(0600u, st.st_mode & 07777) << named;
    }
    // Planted while the registry runs: the write fails instead of replacing
    // the link, and no refresh reads through it.
    RegistryEnv env(kTemplate);
    HKEY h = Create("K");
    tvtest::WriteFile(env.file("secret"), "HKEY_LOCAL_MACHINE\\Secret=9\n");
    ASSERT_EQ(0, unlink(env.registryFile().c_str()));
    ASSERT_EQ(0, symlink(env.file("secret").c_str(), env.registryFile().c_str()));
    RegBumpVersion();
    ASSERT_EQ(0, SetSz(h, "V", "x"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, RegFlushKey(h));
    EXPECT_TRUE(Has(testing::internal::GetCapturedStderr(), "symbolic link"));
    EXPECT_FALSE(KeyExists("Secret"));
    EXPECT_EQ("HKEY_LOCAL_MACHINE\\Secret=9\n", tvtest::ReadFile(env.file("secret")));
    RegCloseKey(h);
}

// A fresh install directory without registry/ gets one, 0755 whatever the
// umask; one that exists but cannot be written still ends start-up. Later
// start-ups remove the temporary files of writers that are gone, and leave
// a live writer's file and files of other names.
TEST(RegistryStartup, MakesItsDirectoryAndClearsStaleTempFiles) {
    RegistryEnv env;
    const std::string dir = env.install() + "registry/";
    ASSERT_EQ(0, unlink(env.templateFile().c_str()));
    ASSERT_EQ(0, rmdir(dir.c_str()));
    const mode_t old = umask(077);
    pid_t pid = tvtest::SpawnChild("reg_start", {env.file("stderr")});
    umask(old);
    EXPECT_EQ(0, WaitChildFor(pid, 60)) << tvtest::ReadFile(env.file("stderr"));
    struct stat st;
    ASSERT_EQ(0, stat(dir.c_str(), &st));
    EXPECT_EQ(0755u, st.st_mode & 07777);
    EXPECT_TRUE(tvtest::FileExists(env.lockFile()));

    const pid_t gone = tvtest::SpawnChild("reg_start", {"/nonexistent/stderr"});
    ASSERT_EQ(3, WaitChildFor(gone, 60));
    const std::string stale = dir + ".tv.registry.tmp." + std::to_string(gone) + ".1f.1";
    const std::string live = dir + ".tv.registry.tmp." + std::to_string(getpid()) + ".1f.1";
    const std::string other = dir + "tv.registry.tmp.notes";
    for (const std::string& f : {stale, live, other}) tvtest::WriteFile(f, "partial");
    pid = tvtest::SpawnChild("reg_start", {env.file("stderr")});
    EXPECT_EQ(0, WaitChildFor(pid, 60));
    EXPECT_FALSE(tvtest::FileExists(stale));
    EXPECT_TRUE(tvtest::FileExists(live));
    EXPECT_TRUE(tvtest::FileExists(other));
    if (geteuid() == 0) return;  // root writes into any directory
    chmod(dir.c_str(), 0555);
    pid = tvtest::SpawnChild("reg_start", {env.file("stderr")});
    EXPECT_EQ(1, WaitChildFor(pid, 60));
    chmod(dir.c_str(), 0755);
    EXPECT_TRUE(Has(tvtest::ReadFile(env.file("stderr")), "problem accessing"));
}

TEST(RegistryStartup, LazyWriter) {
    for (int interval : {20, 0}) {
        RegistryEnv env(kTemplate);
        ASSERT_EQ(0, SetAndClose("Before", "V", "x"));  // written at once
        EXPECT_TRUE(Has(env.ReadRegistryFile(), "Before"));

        pthread_t t;
        ASSERT_EQ(
            0, pthread_create(
                   &t, nullptr, [](void* ms) -> void* { return RegLazyWriteThread(ms), nullptr; },
                   &interval));
        // Once the writer runs, a close only marks the registry.
        while (!tv::detail::LazyFlushOn()) std::this_thread::yield();
        ASSERT_EQ(0, SetAndClose("Lazy", "V", "1"));
        EXPECT_TRUE(WaitForText(env.registryFile(), "HKEY_LOCAL_MACHINE\\Lazy=")) << interval;

        // Cancelling writes what is left, and closes write at once again.
        HKEY h = Create("Lazy");
        ASSERT_EQ(0, SetSz(h, "Last", "last"));
        ASSERT_EQ(0, RegFlushKey(h));  // only marks
        ASSERT_EQ(0, pthread_cancel(t));
        ASSERT_EQ(0, pthread_join(t, nullptr));
        EXPECT_TRUE(Has(env.ReadRegistryFile(), "last;"));
        EXPECT_FALSE(tv::detail::LazyFlushOn());
        ASSERT_EQ(0, RegCloseKey(h));
        ASSERT_EQ(0, SetAndClose("AfterLazy", "V", "x"));
        EXPECT_TRUE(Has(env.ReadRegistryFile(), "AfterLazy"));
    }
}

// The diagnostic dumps: the shared stamp and last writer, and the tree.
TEST(RegistryStartup, DumpVersionAndCache) {
    RegistryEnv env(kTemplate);
    ASSERT_EQ(0, SetAndClose("Dump", "Name", "value"));
    testing::internal::CaptureStdout();
    RegDumpVersion();
    DumpRegistryCache();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(
        Has(out, "Lock owner PID: 0\nRegistry version stamp: 1\nLast PID to write Registry: " +
                     std::to_string(getpid()) + "\n"));
    EXPECT_TRUE(Has(out, "Name=                 \tvalue;                \tREG_SZ\n"));
    EXPECT_TRUE(Has(out, "HKEY_LOCAL_MACHINE\\FromTemplate=7\n"));
}

}  // namespace
