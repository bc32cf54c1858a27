// Helpers shared by the registry tests: an install directory of the test's
// own, pointed to by TV_REGISTRY, and removal of its System V objects.
#ifndef TV_TESTS_REGISTRY_SUPPORT_H
#define TV_TESTS_REGISTRY_SUPPORT_H

#include <string>

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
