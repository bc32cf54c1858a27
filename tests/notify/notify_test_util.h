// Helpers for the change notification tests: reading collected record
// buffers by their byte layout, arming handles, and a watcher thread object
// whose sleep the test controls.
#ifndef TV_TESTS_NOTIFY_TEST_UTIL_H
#define TV_TESTS_NOTIFY_TEST_UTIL_H

#include <fcntl.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

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

// Walks the records by their next-offsets; checks that they tile `total`.
inline std::vector<Record> Parse(const void* buffer, unsigned long total) {
    std::vector<Record> out;
    if (total == 0) return out;
    const unsigned char* base = static_cast<const unsigned char*>(buffer);
    unsigned long off = 0;
    for (;;) {
        const unsigned char* p = base + off;
        Record r;
        r.next = GetLE(p, 8);
        r.action = GetLE(p + 8, 8);
        r.nameLength = static_cast<int32_t>(GetLE(p + 16, 4));
        r.attributes = GetLE(p + 24, 8);
        r.time = GetLE(p + 64, 8);
        r.timeRest = GetLE(p + 72, 8);
        r.size = GetLE(p + 80, 8);
        r.name.assign(reinterpret_cast<const char*>(p + 88), static_cast<size_t>(r.nameLength));
        out.push_back(r);
        if (r.next == 0) {
            if (off + NotifyRecordLength(r.nameLength) != total) out.clear();
            return out;
        }
        off += r.next;
        if (off >= total) {
            out.clear();
            return out;
        }
    }
}

inline uint64_t FileTimeOf(time_t t) {
    return (static_cast<uint64_t>(t) + 11644473600ULL) * 10000000ULL;
}

inline time_t MTime(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mtime : 0;
}

// Sets a file's modification time (seconds).
inline void SetMTime(const std::string& path, time_t t) {
    struct timespec ts[2];
    ts[0].tv_sec = t;
    ts[0].tv_nsec = 0;
    ts[1].tv_sec = t;
    ts[1].tv_nsec = 0;
    utimensat(AT_FDCWD, path.c_str(), ts, AT_SYMLINK_NOFOLLOW);
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

// A watcher thread object that runs one pass per Step() and records the
// period it was asked to sleep for.
class SteppedWatcher : public WatchDirsThreadObject {
public:
    unsigned long TimedWait(unsigned long ms, int, WatchDirsThreadObject*) override {
        std::unique_lock<std::mutex> l(m_);
        periods_.push_back(ms);
        ++passes_;
        cv_.notify_all();
        cv_.wait(l, [&] { return go_ > 0 || stop_; });
        if (go_ > 0) --go_;
        return WAIT_OBJECT_0;
    }
    int StopRequested(int) override {
        std::lock_guard<std::mutex> l(m_);
        return stop_ ? 1 : 0;
    }
    void Exit() override {
        std::lock_guard<std::mutex> l(m_);
        exited_ = true;
    }
    // Waits until `n` passes have completed.
    void WaitPasses(int n) {
        std::unique_lock<std::mutex> l(m_);
        cv_.wait(l, [&] { return passes_ >= n; });
    }
    // Runs one more pass and waits for it to complete.
    void Step() {
        std::unique_lock<std::mutex> l(m_);
        const int target = passes_ + 1;
        ++go_;
        cv_.notify_all();
        cv_.wait(l, [&] { return passes_ >= target; });
    }
    void Stop() {
        std::lock_guard<std::mutex> l(m_);
        stop_ = true;
        cv_.notify_all();
    }
    std::vector<unsigned long> Periods() {
        std::lock_guard<std::mutex> l(m_);
        return periods_;
    }
    bool Exited() {
        std::lock_guard<std::mutex> l(m_);
        return exited_;
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    std::vector<unsigned long> periods_;
    int passes_ = 0;
    int go_ = 0;
    bool stop_ = false;
    bool exited_ = false;
};

}  // namespace notifytest

#endif  // TV_TESTS_NOTIFY_TEST_UTIL_H
