// FindFirstFile's pattern split, and whole searches below a small fixed
// tree, on arbitrary bytes.
//
// The split must either keep the text whole (with "*" as the name pattern)
// or cut it after a '/' so that directory + name pattern gives the text back.
// Searches run in a directory of their own (removed at exit); texts with
// ".." are not searched, so the fuzzer never lists the rest of the host.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <tvcommonutil.h>

#include "files/find_split.h"

namespace {

constexpr size_t kMaxText = 4096;

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

std::string g_root;

void RemoveRoot() {
    for (const char* n : {"a.h", "b.log", ".hidden", "sub/x.h"}) unlink((g_root + "/" + n).c_str());
    rmdir((g_root + "/sub").c_str());
    rmdir(g_root.c_str());
}

void MakeRoot() {
    char templ[] = "/tmp/tvfuzz-find-XXXXXX";
    if (mkdtemp(templ) == nullptr) abort();
    g_root = templ;
    mkdir((g_root + "/sub").c_str(), 0755);
    for (const char* n : {"a.h", "b.log", ".hidden", "sub/x.h"}) {
        FILE* f = fopen((g_root + "/" + n).c_str(), "w");
        if (f) fclose(f);
    }
    atexit(RemoveRoot);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_root.empty()) MakeRoot();
    std::string text(reinterpret_cast<const char*>(data),
                     strnlen(reinterpret_cast<const char*>(data), size));
    if (text.size() > kMaxText) text.resize(kMaxText);

    CKWString dir, pattern;
    tv::detail::SplitFindPattern(text.c_str(), &dir, &pattern);
    if (pattern == "*" && dir == text.c_str()) {
        // Kept whole.
    } else {
        Check(text == std::string(dir.c_str()) + pattern.c_str());
        Check(dir.length() > 0 && dir[dir.length() - 1] == '/');
        Check(pattern.length() > 0 && strchr(pattern.c_str(), '/') == nullptr);
    }

    if (text.find("..") == std::string::npos) {
        const std::string full = g_root + "/" + text;
        WIN32_FIND_DATA fd;
        Handle* h = FindFirstFile(full.c_str(), &fd);
        if (h != INVALID_HANDLE_VALUE) {
            int n = 0;
            do {
                Check(fd.cFileName[0] != '\0');
                Check(strlen(fd.cFileName) < sizeof fd.cFileName);
                Check(fd.dwFileAttributes == 0x80 || fd.dwFileAttributes == 0x100);
            } while (FindNextFile(h, &fd) && ++n < 100);
            Check(FindClose(h) == 2);
        }
    }
    return 0;
}
