// Helpers shared by the registry tests: an install directory of the test's
// own, pointed to by TV_REGISTRY, and removal of its System V objects.
#ifndef TV_TESTS_REGISTRY_SUPPORT_H
#define TV_TESTS_REGISTRY_SUPPORT_H

#include <string>

#include <gtest/gtest.h>
#include <tvcommonutil.h>

#include "test_support.h"

namespace regtest {

// The registry file text that most tests start from: the HKEY_LOCAL_MACHINE
// key alone, as the writer lays it out.
extern const char kBaseRegistry[];

// A fresh install directory with a "registry/" folder holding the template
// (and, when given, the registry file itself). TV_REGISTRY points at it and
// this process's registry state is forgotten, so the next registry call
// starts afresh there. The destructor detaches and removes the System V
// objects keyed by the directory's lock file, whoever made them.
class RegistryEnv {
public:
    explicit RegistryEnv(const std::string& templateText = kBaseRegistry,
                         const std::string* registryText = nullptr);
    ~RegistryEnv();
    RegistryEnv(const RegistryEnv&) = delete;
    RegistryEnv& operator=(const RegistryEnv&) = delete;

    const std::string& install() const { return install_; }  // ends with '/'
    std::string registryFile() const { return install_ + "registry/tv.registry"; }
    std::string templateFile() const { return registryFile() + ".template"; }
    std::string lockFile() const { return install_ + "registry/.registry-lockfile"; }
    std::string file(const std::string& name) const { return dir_.file(name); }
    std::string ReadRegistryFile() const { return tvtest::ReadFile(registryFile()); }

private:
    tvtest::TempDir dir_;
    std::string install_;
};

// Short forms of the calls every test makes. Keys are paths from
// HKEY_LOCAL_MACHINE unless a parent is given; a failed open or create is
// reported as a test failure and returns 0.
HKEY Create(const std::string& path, HKEY parent = 0, REGSAM sam = KEY_ALL_ACCESS);
HKEY Open(const std::string& path, REGSAM sam = 0, HKEY parent = 0);
LONG SetSz(HKEY h, const std::string& name, const std::string& value);
// The REG_SZ value, or "<result>" when the query fails.
std::string GetSz(HKEY h, const std::string& name);
unsigned long GetDword(HKEY h, const std::string& name);
DWORD ValueCount(HKEY h);
// Create, set, close: the first result that is not 0, else 0.
LONG SetAndClose(const std::string& path, const std::string& name, const std::string& value);
// Open, query, close: the value, "<no key>" or "<result>".
std::string Query(const std::string& path, const std::string& name);
bool KeyExists(const std::string& path);

// Whether text contains needle; either way the message shows the text.
::testing::AssertionResult Has(const std::string& text, const std::string& needle);

// Removes the semaphore set and the segment keyed by ftok(lockFile, 1).
void RemoveSysV(const std::string& lockFile);
// Whether the semaphore set or the segment of that key exists.
bool SysVExists(const std::string& lockFile);

// Polls (1 ms steps, up to 30 s) until the file exists; false on time-out.
bool WaitForFile(const std::string& path);
// Polls until the child has ended, up to `seconds`; its status, or -2 on
// time-out (the child is then killed and reaped).
int WaitChildFor(pid_t pid, int seconds);

}  // namespace regtest

#endif  // TV_TESTS_REGISTRY_SUPPORT_H
