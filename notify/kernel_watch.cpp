// Kernel change reports (inotify) for the scanner. See kernel_watch.h for
// the contract and dir_scan.cpp for how passes use it.
//
// State: one record per table key that a scan read while kernel watching
// was on: the watch descriptor (-1 when the kernel does not report the
// directory: watch limit reached, a network or pseudo file system, a cap
// set by a test), the identity of the directory it watches, and two marks:
// `dirty` (reported changed, or never completely read) and `polled` (read on
// every pass). Several keys may share one descriptor (a directory reached
// through a symbolic link as well), so descriptors map to key lists.
// Guarded by DirScan_lock, like the table entries the keys name; the
// descriptor number is also kept in an atomic for sleeping loops to poll.
// The running loops are listed under loopsLock, a leaf lock.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "notify/kernel_watch.h"
#include "notify/testing.h"
#include "notify/watch_table.h"
#include "tvcommonutil/notify.h"

namespace tv {
namespace detail {
namespace {

// What makes a directory's snapshot stale: entries made, removed, renamed,
// written or given new attributes; the directory itself going away.
constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR |
                                IN_EXCL_UNLINK;
// Reports that change the directory's own modification time, which its
// parent's snapshot holds.
constexpr uint32_t kEntryChange = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// A rename's two halves are queued back to back; a pass that read only the
// first would report the two names in a different order than one scan of
// the result. Draining waits this long for a missing second half.
constexpr int kRenamePairWaitMs = 50;

struct DirWatch {
    int wd = -1;
    dev_t dev = 0;
    ino_t ino = 0;
    bool dirty = true;
    bool polled = false;
    unsigned long lastPass = 0;  // the loop pass that last reached it
};

struct State {
    int fd = -1;
    int loops = 0;  // running loops
    long watches = 0;
    bool rescan = false;
    unsigned long pass = 0;
    std::map<std::string, DirWatch, std::less<>> dirs;
    std::unordered_map<int, std::vector<std::string>> byWd;
};

// Never destroyed (a loop may still run at exit); replaced in a forked child.
State* state = new State;
int polledFd = -1;  // state->fd, for KernelWatchFd
long watchLimit = -1;

std::mutex* loopsLock = new std::mutex;
std::vector<WatchDirsThreadObject*>* loopList = new std::vector<WatchDirsThreadObject*>;

bool ReportsChanges(int dirFd) {
    struct statfs fs;
    if (fstatfs(dirFd, &fs) != 0) return false;
    switch (static_cast<unsigned long>(fs.f_type)) {
        // Changes made by other machines, or not made through files at all,
        // are never reported on these.
        case 0x6969:      // NFS
        case 0x517B:      // SMB
        case 0xFF534D42:  // CIFS
        case 0xFE534D42:  // SMB2
        case 0x65735546:  // FUSE
        case 0x00c36400:  // Ceph
        case 0x5346414F:  // AFS
        case 0x6B414653:  // AFS (kernel client)
        case 0x73757245:  // Coda
        case 0x564c:      // NCP
        case 0x01021997:  // 9P
        case 0x9fa0:      // proc
        case 0x62656572:  // sysfs
            return false;
        default:
            return true;
    }
}

void DropKeyFromWd(State& s, const std::string& key, int wd, bool kernelDropped) {
    auto it = s.byWd.find(wd);
    if (it == s.byWd.end()) return;
    auto& keys = it->second;
    keys.erase(std::remove(keys.begin(), keys.end(), key), keys.end());
    if (!keys.empty()) return;
    s.byWd.erase(it);
    --s.watches;
    if (!kernelDropped) inotify_rm_watch(s.fd, wd);
}

void Unwatch(State& s, const std::string& key, DirWatch& w, bool kernelDropped) {
    if (w.wd >= 0) DropKeyFromWd(s, key, w.wd, kernelDropped);
    w.wd = -1;
    w.dirty = true;
}

std::string_view ParentKey(std::string_view key) {
    if (key.size() < 2) return std::string_view();
    const size_t slash = key.rfind('/', key.size() - 2);
    return slash == std::string_view::npos ? std::string_view() : key.substr(0, slash + 1);
}

void MarkDirty(State& s, std::string_view key) {
    auto it = s.dirs.find(key);
    if (it != s.dirs.end()) it->second.dirty = true;
}

void CloseAll(State& s) {
    if (s.fd >= 0) close(s.fd);
    s.fd = -1;
    __atomic_store_n(&polledFd, -1, __ATOMIC_RELEASE);
    s.dirs.clear();
    s.byWd.clear();
    s.watches = 0;
    s.rescan = false;
}

// Applies one report. `openRenames` collects the cookies of renames whose
// second half has not been read yet.
void Apply(State& s, const struct inotify_event* ev, std::vector<uint32_t>& openRenames) {
    if (ev->mask & IN_Q_OVERFLOW) {
        // Reports were lost: nothing is known, everything is read.
        for (auto& d : s.dirs) d.second.dirty = true;
        return;
    }
    if (ev->mask & IN_MOVED_FROM) openRenames.push_back(ev->cookie);
    if (ev->mask & IN_MOVED_TO) {
        openRenames.erase(std::remove(openRenames.begin(), openRenames.end(), ev->cookie),
                          openRenames.end());
    }
    auto it = s.byWd.find(ev->wd);
    if (it == s.byWd.end()) return;
    const std::vector<std::string> keys = it->second;
    if (ev->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
        // The watched directory is no longer at its path: the key, and every
        // key below it (whose watches moved along), is read afresh when next
        // reached, and so is the parent that lists it.
        const bool kernelDropped = (ev->mask & IN_IGNORED) != 0;
        for (const std::string& key : keys) {
            for (auto d = s.dirs.lower_bound(key);
                 d != s.dirs.end() && d->first.compare(0, key.size(), key) == 0; ++d) {
                Unwatch(s, d->first, d->second, kernelDropped && d->first == key);
            }
            MarkDirty(s, ParentKey(key));
        }
        return;
    }
    for (const std::string& key : keys) {
        MarkDirty(s, key);
        if (ev->mask & kEntryChange) MarkDirty(s, ParentKey(key));
    }
}

// Reads what is queued now; false when nothing was.
bool ReadReports(State& s, std::vector<uint32_t>& openRenames) {
    alignas(struct inotify_event) char buf[16384];
    bool any = false;
    for (;;) {
        const ssize_t n = read(s.fd, buf, sizeof buf);
        if (n <= 0) return any;
        any = true;
        for (ssize_t off = 0; off < n;) {
            const auto* ev = reinterpret_cast<const struct inotify_event*>(buf + off);
            Apply(s, ev, openRenames);
            off += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
        }
    }
}

void ForkChild() {
    // The inherited descriptor shares its queue with the parent: let go of
    // it. Whatever the parent's threads were doing to the old state stays
    // there; a loop started in the child begins afresh.
    if (state->fd >= 0) close(state->fd);
    state = new State;
    __atomic_store_n(&polledFd, -1, __ATOMIC_RELEASE);
    loopsLock = new std::mutex;
    loopList = new std::vector<WatchDirsThreadObject*>;
}

struct ForkHandlers {
    ForkHandlers() { pthread_atfork(nullptr, nullptr, ForkChild); }
} forkHandlers;

}  // namespace

bool KernelWatchNeedsRead(std::string_view key, const struct stat* identity) {
    State& s = *state;
    if (s.fd < 0) return true;
    auto it = s.dirs.find(key);
    if (it == s.dirs.end()) return true;
    DirWatch& w = it->second;
    w.lastPass = s.pass;
    if (w.wd < 0 || w.dirty || w.polled) return true;
    if (identity != nullptr && (identity->st_dev != w.dev || identity->st_ino != w.ino)) {
        // Another directory now answers to this name (a link retargeted, a
        // directory renamed over it).
        Unwatch(s, it->first, w, false);
        return true;
    }
    return false;
}

void KernelWatchBeforeRead(std::string_view key, int dirFd) {
    State& s = *state;
    if (s.fd < 0) return;
    auto it = s.dirs.find(key);
    if (it == s.dirs.end()) it = s.dirs.emplace(std::string(key), DirWatch()).first;
    DirWatch& w = it->second;
    w.dirty = true;
    w.lastPass = s.pass;
    struct stat ds;
    if (fstat(dirFd, &ds) != 0) return;
    if (w.wd >= 0 && w.dev == ds.st_dev && w.ino == ds.st_ino) return;
    Unwatch(s, it->first, w, false);
    const long limit = __atomic_load_n(&watchLimit, __ATOMIC_RELAXED);
    if (limit >= 0 && s.watches >= limit) return;
    if (!ReportsChanges(dirFd)) return;
    // The open directory itself, not whatever its path names by now.
    char self[64];
    snprintf(self, sizeof self, "/proc/self/fd/%d", dirFd);
    int wd = inotify_add_watch(s.fd, self, kWatchMask);
    if (wd < 0 && errno == ENOENT) wd = inotify_add_watch(s.fd, it->first.c_str(), kWatchMask);
    if (wd < 0) return;  // the limit, most likely: polled from now on
    w.wd = wd;
    w.dev = ds.st_dev;
    w.ino = ds.st_ino;
    std::vector<std::string>& keys = s.byWd[wd];
    if (keys.empty()) ++s.watches;
    keys.push_back(it->first);
}

void KernelWatchAfterRead(std::string_view key, bool settled, bool polled) {
    State& s = *state;
    auto it = s.dirs.find(key);
    if (it == s.dirs.end()) return;
    it->second.dirty = !settled;
    it->second.polled = polled;
    if (!settled) s.rescan = true;
}

void KernelWatchForget(std::string_view key) {
    State& s = *state;
    auto it = s.dirs.find(key);
    if (it == s.dirs.end()) return;
    Unwatch(s, it->first, it->second, false);
    s.dirs.erase(it);
}

void KernelWatchDrain() {
    State& s = *state;
    if (s.fd < 0) return;
    ++s.pass;
    std::vector<uint32_t> openRenames;
    ReadReports(s, openRenames);
    if (!openRenames.empty()) {
        struct pollfd p = {s.fd, POLLIN, 0};
        if (poll(&p, 1, kRenamePairWaitMs) > 0) ReadReports(s, openRenames);
    }
}

void KernelWatchPrune() {
    State& s = *state;
    for (auto it = s.dirs.begin(); it != s.dirs.end();) {
        if (it->second.lastPass == s.pass) {
            ++it;
            continue;
        }
        Unwatch(s, it->first, it->second, false);
        it = s.dirs.erase(it);
    }
}

bool KernelWatchTakeRescan() {
    State& s = *state;
    const bool r = s.rescan;
    s.rescan = false;
    return r;
}

int KernelWatchFd() {
    return __atomic_load_n(&polledFd, __ATOMIC_ACQUIRE);
}

void KernelWatchLoopStarted(WatchDirsThreadObject* loop) {
    {
        CriticalSectionHolder serial(DirScan_lock());
        State& s = *state;
        if (s.loops++ == 0) {
            s.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
            __atomic_store_n(&polledFd, s.fd, __ATOMIC_RELEASE);
            // Everything read so far was read without a watch.
            s.dirs.clear();
        }
    }
    std::lock_guard<std::mutex> hold(*loopsLock);
    loopList->push_back(loop);
}

void KernelWatchLoopEnded(WatchDirsThreadObject* loop) {
    {
        std::lock_guard<std::mutex> hold(*loopsLock);
        loopList->erase(std::remove(loopList->begin(), loopList->end(), loop), loopList->end());
    }
    CriticalSectionHolder serial(DirScan_lock());
    State& s = *state;
    if (--s.loops == 0) CloseAll(s);
}

void KernelWatchKick() {
    std::lock_guard<std::mutex> hold(*loopsLock);
    for (WatchDirsThreadObject* loop : *loopList) loop->Wake();
}

}  // namespace detail

namespace notifytesting {

void SetKernelWatchLimit(long limit) {
    __atomic_store_n(&tv::detail::watchLimit, limit, __ATOMIC_RELAXED);
}

long KernelWatchCount() {
    CriticalSectionHolder serial(tv::detail::DirScan_lock());
    return tv::detail::state->watches;
}

}  // namespace notifytesting
}  // namespace tv
