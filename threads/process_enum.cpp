// Process listing and naming over /proc.
//
// The listing must give processes, not the threads that older thread
// libraries showed in /proc as processes of their own. The precise strategy
// reads field 38 of each stat line (the signal sent to the parent at exit):
// 17 (SIGCHLD) for a process, something else for such a thread. Where stat
// lines cannot be read that way, bDumbProcfs is set for good and the
// fall-back strategy takes a child named like its parent for a thread.
//
// Both strategies count every /proc entry read against the caller's
// capacity, "." and ".." included, not only the ids stored: a deliberate
// bound on the work done, which callers size generously.
#include <ctype.h>
#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <string>

#include "threads/proc_fs.h"
#include "tvcommonutil/processes.h"

int bDumbProcfs = 0;

namespace {

using tv::detail::ProcDir;
using tv::detail::ProcPath;
using tv::detail::ReadProcFile;

constexpr size_t kStatReadMax = 512;
constexpr int kExitSignalBlanks = 36;  // field 38, counted from the end of the name
constexpr int kSigChld = 17;

struct EnumProcState {
    int ppid;  // 0 once the entry is judged a thread of its parent
    CKWString name;
    bool parentUnseen;
};

bool DumbSet() {
    return __atomic_load_n(&bDumbProcfs, __ATOMIC_RELAXED) != 0;
}
void SetDumb() {
    __atomic_store_n(&bDumbProcfs, 1, __ATOMIC_RELAXED);
}

// Copies at most size - 1 characters and a NUL; returns the count copied,
// with ERROR_INSUFFICIENT_BUFFER in errno when the name was cut.
DWORD CopyBounded(const char* name, size_t len, char* buffer, DWORD size) {
    if (buffer == nullptr || size == 0) {
        errno = ERROR_INSUFFICIENT_BUFFER;
        return 0;
    }
    size_t n = len < size - 1 ? len : static_cast<size_t>(size - 1);
    memcpy(buffer, name, n);
    buffer[n] = '\0';
    if (n < len) errno = ERROR_INSUFFICIENT_BUFFER;
    return static_cast<DWORD>(n);
}

// Text from `from` up to (not including) the first NUL, tab, blank or '/'
// after its first character.
CKWString NameRun(const char* from) {
    const char* end = from + 1;
    while (*end && *end != '\t' && *end != ' ' && *end != '/') ++end;
    return CKWString(std::string(from, static_cast<size_t>(end - from)));
}

}  // namespace

BOOL EnumProcesses(DWORD* ids, DWORD bytes, DWORD* bytesReturned) {
    const unsigned long capacity = ids ? bytes / sizeof(DWORD) : 0;
    ProcDir dir;
    if (!dir.IsOpen()) return FALSE;
    unsigned long entries = 0, stored = 0;
    const char* name = nullptr;
    while (entries < capacity) {
        int r = dir.Next(&name);
        if (r < 0) return FALSE;
        if (r == 0) break;
        ++entries;
        if (!isdigit(static_cast<unsigned char>(name[0]))) continue;
        if (DumbSet()) return DumbEnumProcesses(ids, bytes, bytesReturned);
        char path[64];
        ProcPath(path, sizeof path, name, "stat");
        char stat[kStatReadMax + 1];
        if (ReadProcFile(path, stat, kStatReadMax) < 0) continue;
        const char* afterName = tv::detail::AfterName(stat);
        const char* field =
            afterName ? tv::detail::AfterBlanks(afterName, kExitSignalBlanks) : nullptr;
        if (field == nullptr) {
            SetDumb();
            return DumbEnumProcesses(ids, bytes, bytesReturned);
        }
        int exitSignal = 0;
        if (sscanf(field, "%d", &exitSignal) == 1 && exitSignal == kSigChld) {
            ids[stored++] = strtoul(name, nullptr, 10);
        }
    }
    if (bytesReturned) *bytesReturned = stored * sizeof(DWORD);
    return TRUE;
}

BOOL DumbEnumProcesses(DWORD* ids, DWORD bytes, DWORD* bytesReturned) {
    const unsigned long capacity = ids ? bytes / sizeof(DWORD) : 0;
    ProcDir dir;
    if (!dir.IsOpen()) return FALSE;
    std::map<int, EnumProcState> seen;
    unsigned long entries = 0;
    const char* name = nullptr;
    while (entries < capacity) {
        int r = dir.Next(&name);
        if (r < 0) return FALSE;
        if (r == 0) break;
        ++entries;
        if (!isdigit(static_cast<unsigned char>(name[0]))) continue;
        char path[64];
        ProcPath(path, sizeof path, name, "stat");
        char stat[kStatReadMax + 1];
        if (ReadProcFile(path, stat, kStatReadMax) < 0) continue;
        int pid = 0, ppid = 0;
        char comm[kStatReadMax + 1];
        char state = 0;
        if (!tv::detail::ParseStatHead(stat, &pid, comm, sizeof comm, &state, &ppid)) continue;
        EnumProcState rec{ppid, CKWString(comm), false};
        auto parent = seen.find(ppid);
        if (parent != seen.end()) {
            if (parent->second.name == rec.name) rec.ppid = 0;
        } else {
            rec.parentUnseen = true;
        }
        seen[pid] = rec;
    }
    unsigned long stored = 0;
    for (const auto& entry : seen) {
        const EnumProcState& rec = entry.second;
        if (rec.parentUnseen) {
            auto parent = seen.find(rec.ppid);
            if (parent != seen.end() && parent->second.name == rec.name) continue;
        }
        // Entries whose parent id is 0 (the first process) are never listed.
        if (rec.ppid != 0 && stored < capacity) ids[stored++] = static_cast<DWORD>(entry.first);
    }
    if (bytesReturned) *bytesReturned = stored * sizeof(DWORD);
    return TRUE;
}

CKWString GetProcessName(DWORD pid, int preferExecutable) {
    if (!DumbSet() && preferExecutable) {
        char path[64];
        ProcPath(path, sizeof path, static_cast<long>(pid), "exe");
        char link[257];
        ssize_t n = readlink(path, link, 256);
        if (n > 0) {
            link[n] = '\0';
            if (strchr(link, ':') == nullptr) return CKWString(link);
            SetDumb();
        }
    }
    char path[64];
    ProcPath(path, sizeof path, static_cast<long>(pid), "stat");
    char stat[257];
    if (ReadProcFile(path, stat, 256) < 0) return CKWString();
    int statPid = 0, ppid = 0;
    char comm[257];
    char state = 0;
    // Only "%d %s" is needed; a short line still has its name.
    if (!tv::detail::ParseStatHead(stat, &statPid, comm, sizeof comm, &state, &ppid)) {
        if (sscanf(stat, "%d %256s", &statPid, comm) != 2) return CKWString();
    }
    const char* open = strchr(comm, '(');
    if (open == nullptr) return CKWString();
    const char* close = strrchr(open + 1, ')');
    if (close == nullptr) return CKWString();
    return CKWString(std::string(open + 1, static_cast<size_t>(close - open - 1)));
}

CKWString GetProcessInstanceName(DWORD pid) {
    if (pid == 0) {
        char cwd[4097];
        if (getcwd(cwd, 4096) != nullptr) {
            if (const char* m = strstr(cwd, "https-")) return NameRun(m);
        }
        pid = static_cast<DWORD>(getpid());
    }
    char path[64];
    ProcPath(path, sizeof path, static_cast<long>(pid), "cmdline");
    char cmd[257];
    ssize_t n = ReadProcFile(path, cmd, 256);
    if (n <= 0) return CKWString();
    for (ssize_t i = 0; i < n; ++i) {
        if (cmd[i] == '\0') cmd[i] = ' ';
    }
    const char* m = strstr(cmd, "/https-");
    if (m == nullptr) return CKWString();
    // The name is given without the slash, as when found in the directory.
    return NameRun(m + 1);
}

DWORD GetModuleFileName(void* module, char* buffer, DWORD size) {
    if (module == nullptr) return GetModuleFileNameEx(nullptr, nullptr, buffer, size);
    const char* file = nullptr;
    Dl_info info;
    if (void* got = dlsym(module, "_GLOBAL_OFFSET_TABLE_")) {
        if (dladdr(got, &info) != 0) file = info.dli_fname;
    }
    if (file == nullptr || *file == '\0') {
        // The table symbol is seldom exported; the loader's own record of
        // the module names its file as well.
        link_map* map = nullptr;
        if (dlinfo(module, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr) file = map->l_name;
    }
    if (file == nullptr) return 0;
    // The main program's record has an empty name.
    if (*file == '\0') return GetModuleFileNameEx(nullptr, nullptr, buffer, size);
    return CopyBounded(file, strlen(file), buffer, size);
}

DWORD GetModuleFileNameEx(Handle* process, void* module, char* buffer, DWORD size) {
    if (module != nullptr) return GetModuleFileName(module, buffer, size);
    long pid = static_cast<long>(getpid());
    if (process != nullptr) {
        if (process->What() != kHandleProcess) {
            errno = ERROR_INVALID_HANDLE;
            return 0;
        }
        pid = static_cast<Process*>(process)->GetPid();
    }
    char path[64];
    ProcPath(path, sizeof path, pid, "exe");
    char link[4097];
    ssize_t n = readlink(path, link, 4096);
    if (n <= 0) return 0;
    return CopyBounded(link, static_cast<size_t>(n), buffer, size);
}
