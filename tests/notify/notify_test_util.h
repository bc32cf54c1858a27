// Helpers for the change notification tests: reading collected record
// buffers by their byte layout, printing them, and arming handles.
#ifndef TV_TESTS_NOTIFY_TEST_UTIL_H
#define TV_TESTS_NOTIFY_TEST_UTIL_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"
#include "thread_probe.h"
#include "tvcommonutil/notify.h"

namespace notifytest {

// A collected buffer read as callers read it (NOTIFY_RECORD), one line per
// record: action, name, name length, attributes (hex), time in seconds since
// 1970 (-1 if not whole; "+" if the second half is set), size ("=" for an
// added directory whose size is lstat's of root + name: sizes depend on the
// file system). "bad layout" unless the records tile `total`.
inline std::string Text(const void* buffer, unsigned long total, const std::string& root = "") {
    std::string out;
    for (unsigned long off = 0; off < total;) {
        const auto* r =
            reinterpret_cast<const NOTIFY_RECORD*>(static_cast<const char*>(buffer) + off);
        const std::string name(r->FileName(), static_cast<size_t>(r->FileNameLength));
        const unsigned long long ft = r->LastWriteTime[0];
        const long long t = ft == 0 ? 0 : ft % 10000000 ? -1 : ft / 10000000 - 11644473600LL;
        std::string size = std::to_string(r->Size);
        struct stat st;
        if (!root.empty() && r->Attributes == 0x100 && r->Action == 1 &&
            lstat((root + name).c_str(), &st) == 0 &&
            static_cast<unsigned long>(st.st_size) == r->Size) {
            size = "=";
        }
        char line[512];
        snprintf(line, sizeof line, "%lu %s %d %lx %lld%s %s\n", r->Action, name.c_str(),
                 r->FileNameLength, r->Attributes, t, r->LastWriteTime[1] ? "+" : "", size.c_str());
        out += line;
        if (r->NextEntryOffset == 0) {
            return off + NotifyRecordLength(r->FileNameLength) == total ? out : "bad layout";
        }
        off += r->NextEntryOffset;
    }
    return total == 0 ? out : "bad layout";
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

// An armed handle, closed at the end, with its caller-side buffer variable
// (new[]-allocated, as the library requires).
struct Armed {
    ChangeNotificationHandle* h = nullptr;
    void* buffer = nullptr;

    ~Armed() {
        if (h) CloseHandle(h);
        delete[] static_cast<char*>(buffer);
    }

    int Arm(unsigned long filter, unsigned long length = 64) {
        if (buffer == nullptr && length > 0) buffer = new char[length];
        return ReadDirectoryChanges(h, &buffer, length, 1, filter, nullptr, nullptr, nullptr);
    }
    // Collects through GetOverlappedResult (as Text) and re-arms.
    std::string Collect(const std::string& root = "") {
        unsigned long bytes = 12345;
        if (GetOverlappedResult(h, nullptr, &bytes, 0) != 1) return "not collected";
        const std::string text = Text(buffer, bytes, root);
        Arm(0x1f);
        return text;
    }
    void Scan() { UnixDirScan(h->GetWatchDir(), h, nullptr); }
};

// Runs `wait` on a thread and `wake` once that thread sleeps; returns what
// `wait` returned.
template <class T>
T WokenBy(const std::function<T()>& wait, const std::function<void()>& wake) {
    std::atomic<pid_t> tid{0};
    T result{};
    std::thread waiter([&] {
        tid = tvtest::CurrentTid();
        result = wait();
    });
    while (tid == 0) std::this_thread::yield();
    EXPECT_TRUE(tvtest::WaitUntilSleeping(tid));
    wake();
    waiter.join();
    return result;
}

}  // namespace notifytest

#endif  // TV_TESTS_NOTIFY_TEST_UTIL_H
