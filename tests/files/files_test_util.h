// Helpers shared by the file tests.
#ifndef TV_TESTS_FILES_TEST_UTIL_H
#define TV_TESTS_FILES_TEST_UTIL_H

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "test_support.h"
#include "tvcommonutil/files.h"

namespace filestest {

// The "no file" handle that asks CreateFileMapping for a named mapping.
inline Handle* NoFile() {
    return reinterpret_cast<Handle*>(0xFFFFFFFFUL);
}

// A mapping name no other test (or run) uses; the backing file is removed
// when the object goes away.
class MappingName {
public:
    MappingName() {
        static std::atomic<int> counter{0};
        timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        name_ = "tvtest-map-" + std::to_string(getpid()) + "-" + std::to_string(ts.tv_nsec) + "-" +
                std::to_string(counter++);
        path_ = "/tmp/." + name_;
    }
    ~MappingName() { unlink(path_.c_str()); }
    MappingName(const MappingName&) = delete;
    MappingName& operator=(const MappingName&) = delete;
    char* name() { return &name_[0]; }
    const std::string& path() const { return path_; }

private:
    std::string name_;
    std::string path_;
};

inline mode_t ModeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : static_cast<mode_t>(-1);
}

// A time in seconds as a FILETIME count: 100 ns units since 1601.
inline unsigned long long FileTimeOf(time_t t) {
    return (static_cast<unsigned long long>(t) + 11644473600ULL) * 10000000ULL;
}

}  // namespace filestest

#endif  // TV_TESTS_FILES_TEST_UTIL_H
