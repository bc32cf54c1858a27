// Helpers shared by the profile tests.
#ifndef TV_TESTS_PROFILE_TEST_UTIL_H
#define TV_TESTS_PROFILE_TEST_UTIL_H

#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "profile/profile_cache.h"
#include "test_support.h"
#include "tvcommonutil/profile.h"

namespace profiletest {

inline std::string LockPathFor(const std::string& path) {
    char lock[tv::detail::kProfileLockNameSize];
    if (!tv::detail::BuildProfileLockName(path.c_str(), lock, sizeof lock)) return std::string();
    return lock;
}

// A test's own directory for profile files. On the way out it flushes and
// empties the process's profile cache (while the directory still exists),
// restores write caching and removes the lock files in /tmp that belong to
// the files it handed out, so parallel and repeated runs never meet leftovers.
class ProfileDir {
public:
    ProfileDir() = default;
    ~ProfileDir() {
        yuSetProfileWriteCaching(true);
        yuWriteAndFreeAllProfiles();
        for (const auto& p : used_) unlink(LockPathFor(p).c_str());
    }
    ProfileDir(const ProfileDir&) = delete;
    ProfileDir& operator=(const ProfileDir&) = delete;

    std::string file(const std::string& name) {
        std::string p = dir_.file(name);
        used_.insert(p);
        return p;
    }
    const std::string& path() const { return dir_.path(); }

private:
    tvtest::TempDir dir_;
    std::set<std::string> used_;
};

// Reads one value through the public API with a roomy buffer.
inline std::string Get(const char* section, const char* key, const std::string& file,
                       const char* def = "<default>") {
    char buf[4096];
    unsigned long n = GetPrivateProfileString(section, key, def, buf, sizeof buf - 1, file.c_str());
    return std::string(buf, n);
}

// Splits a NUL-separated list of n bytes.
inline std::vector<std::string> SplitList(const char* buf, unsigned long n) {
    std::vector<std::string> out;
    for (unsigned long i = 0; i < n;) {
        std::string item(buf + i);
        out.push_back(item);
        i += item.size() + 1;
    }
    return out;
}

inline std::vector<std::string> Keys(const char* section, const std::string& file) {
    char buf[8192];
    unsigned long n =
        GetPrivateProfileString(section, nullptr, nullptr, buf, sizeof buf - 1, file.c_str());
    return SplitList(buf, n);
}

inline std::vector<std::string> Sections(const std::string& file) {
    return Keys(nullptr, file);
}

}  // namespace profiletest

#endif  // TV_TESTS_PROFILE_TEST_UTIL_H
