// Helpers for the change notification tests: reading collected record
// buffers by their byte layout, printing them, and arming handles.
#ifndef TV_TESTS_NOTIFY_TEST_UTIL_H
#define TV_TESTS_NOTIFY_TEST_UTIL_H

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "test_support.h"
#include "tvcommonutil/notify.h"

namespace notifytest {

struct Record {
    uint64_t next;
    uint64_t action;
    int32_t nameLength;
    uint64_t attributes;
    uint64_t time;
    uint64_t timeRest;
    uint64_t size;
    std::string name;
};

inline uint64_t GetLE(const unsigned char* p, int bytes) {
    uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

// Walks the records by their next-offsets; empty unless they tile `total`.
inline std::vector<Record> Parse(const void* buffer, unsigned long total) {
    std::vector<Record> out;
    const unsigned char* base = static_cast<const unsigned char*>(buffer);
    for (unsigned long off = 0; off < total;) {
        const unsigned char* p = base + off;
        Record r{GetLE(p, 8),
                 GetLE(p + 8, 8),
                 static_cast<int32_t>(GetLE(p + 16, 4)),
                 GetLE(p + 24, 8),
                 GetLE(p + 64, 8),
                 GetLE(p + 72, 8),
                 GetLE(p + 80, 8),
                 std::string(reinterpret_cast<const char*>(p + 88),
                             static_cast<size_t>(GetLE(p + 16, 4)))};
        out.push_back(r);
        if (r.next == 0) {
            if (off + NotifyRecordLength(r.nameLength) == total) return out;
            break;
        }
        off += r.next;
    }
    out.clear();
    return out;
}

// Sets a file's (or link's) modification time, in seconds.
inline void SetMTime(const std::string& path, time_t t) {
    struct timespec ts[2] = {{t, 0}, {t, 0}};
    utimensat(AT_FDCWD, path.c_str(), ts, AT_SYMLINK_NOFOLLOW);
}

// Writes a file and gives it a fixed modification time.
inline void Put(const std::string& path, const std::string& text, time_t t) {
    tvtest::WriteFile(path, text);
    SetMTime(path, t);
}

// One line per record: action, name, name length, attributes (hex), time
// in seconds since 1970 (-1 when not a whole second since 1601, "+" after
// it when the second half is not zero), size. With `root`, the size of an
// added directory that matches lstat of root + name reads "=", as
// directory sizes depend on the file system.
inline std::string Text(const std::vector<Record>& rs, const std::string& root = "") {
    std::string out;
    for (const Record& r : rs) {
        const long long t = r.time == 0 ? 0
                            : r.time % 10000000 != 0
                                ? -1
                                : static_cast<long long>(r.time / 10000000) - 11644473600LL;
        std::string size = std::to_string(r.size);
        struct stat st;
        if (!root.empty() && r.attributes == 0x100 && r.action == 1 &&
            lstat((root + r.name).c_str(), &st) == 0 &&
            static_cast<uint64_t>(st.st_size) == r.size) {
            size = "=";
        }
        char line[512];
        snprintf(line, sizeof line, "%llu %s %d %llx %lld%s %s\n",
                 static_cast<unsigned long long>(r.action), r.name.c_str(), r.nameLength,
                 static_cast<unsigned long long>(r.attributes), t, r.timeRest ? "+" : "",
                 size.c_str());
        out += line;
    }
    return out;
}

// An armed handle with its caller-side buffer variable (new[]-allocated, as
// the library requires).
struct Armed {
    ChangeNotificationHandle* h = nullptr;
    void* buffer = nullptr;

    ~Armed() { delete[] static_cast<char*>(buffer); }

    int Arm(unsigned long filter, unsigned long length = 64) {
        if (buffer == nullptr && length > 0) buffer = new char[length];
        return ReadDirectoryChanges(h, &buffer, length, 1, filter, nullptr, nullptr, nullptr);
    }
    // Collects through GetOverlappedResult and re-arms with the same filter.
    std::vector<Record> Collect(unsigned long rearmFilter = 0x1f) {
        unsigned long bytes = 12345;
        std::vector<Record> r;
        if (GetOverlappedResult(h, nullptr, &bytes, 0) != 1) return r;
        r = Parse(buffer, bytes);
        Arm(rearmFilter);
        return r;
    }
    void Scan() { UnixDirScan(h->GetWatchDir(), h, nullptr); }
};

}  // namespace notifytest

#endif  // TV_TESTS_NOTIFY_TEST_UTIL_H
