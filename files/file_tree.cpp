// Path and tree functions: RemoveDirectory with its ".KW" clean-up and its
// symbolic-link branch, GetDirectoryTreeSize and basename_r.
#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tvcommonutil/files.h"

namespace {

// Directories on the branch being summed, by device and inode, so that a
// link back up the tree is not followed round and round.
struct Branch {
    dev_t dev;
    ino_t ino;
    const Branch* parent;
};

long long TreeSize(const std::string& dir, const Branch* parent) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return 0;
    Branch self{0, 0, parent};
    struct stat own;
    if (fstat(dirfd(d), &own) == 0) {
        self.dev = own.st_dev;
        self.ino = own.st_ino;
    }
    long long total = 0;
    std::vector<std::string> subdirs;
    while (struct dirent* e = readdir(d)) {
        const char* n = e->d_name;
        if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
        std::string path = dir + "/" + n;
        struct stat st;
        if (stat(path.c_str(), &st) != 0) continue;
        if (!S_ISDIR(st.st_mode)) {
            total += st.st_size;
            continue;
        }
        bool onBranch = false;
        for (const Branch* b = &self; b != nullptr && !onBranch; b = b->parent) {
            onBranch = b->dev == st.st_dev && b->ino == st.st_ino;
        }
        if (!onBranch) subdirs.push_back(path);
    }
    closedir(d);
    for (const std::string& s : subdirs) total += TreeSize(s, &self);
    return total;
}

// Unlinks the ".KW" entries of path, joined without a separator (callers
// pass a directory path ending in '/'). False when the directory cannot be
// read.
bool RemoveKwEntries(const char* path) {
    DIR* d = opendir(path);
    if (d == nullptr) return false;
    std::vector<std::string> doomed;
    while (struct dirent* e = readdir(d)) {
        if (strncmp(e->d_name, ".KW", 3) == 0) doomed.push_back(std::string(path) + e->d_name);
    }
    closedir(d);
    for (const std::string& f : doomed) unlink(f.c_str());
    return true;
}

}  // namespace

long long GetDirectoryTreeSize(CKWString dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return 0;
    return TreeSize(dir.c_str(), nullptr);
}

char* basename_r(const char* path, char* out, int size) {
    if (out == nullptr || size <= 0) return nullptr;
    if (path == nullptr || *path == '\0') {
        strncpy(out, ".", static_cast<size_t>(size));
        return out;
    }
    size_t end = strlen(path);
    while (end > 0 && path[end - 1] == '/') --end;
    if (end == 0) {
        // Only slashes: the root.
        const size_t n = size > 1 ? 1 : 0;
        memcpy(out, "/", n);
        out[n] = '\0';
        return out;
    }
    size_t start = end;
    while (start > 0 && path[start - 1] != '/') --start;
    size_t n = end - start;
    if (n > static_cast<size_t>(size) - 1) n = static_cast<size_t>(size) - 1;
    memcpy(out, path + start, n);
    out[n] = '\0';
    return out;
}

BOOL RemoveDirectory(const char* path) {
    if (path == nullptr) {
        errno = EINVAL;
        return FALSE;
    }
    if (rmdir(path) == 0) return TRUE;
    // Linux reports a non-empty directory as ENOTEMPTY; EEXIST is the other
    // spelling of the same refusal. Both get the ".KW" clean-up.
    if (errno == EEXIST || errno == ENOTEMPTY) {
        if (!RemoveKwEntries(path)) return FALSE;
        if (rmdir(path) == 0) return TRUE;
    }
    if (errno != ENOTDIR) return FALSE;

    // A symbolic link to a directory: remove the directory it names, then
    // the link.
    struct stat st;
    if (lstat(path, &st) != 0 || !S_ISLNK(st.st_mode)) return FALSE;
    char target[4097];
    const ssize_t n = readlink(path, target, sizeof target - 1);
    if (n < 0) return FALSE;
    target[n] = '\0';
    std::string resolved;
    if (target[0] == '/') {
        resolved = target;
    } else {
        // Relative to the link's own directory: the path up to and including
        // its last '/', looked for from the second-to-last character so that
        // a trailing slash does not count.
        const std::string p = path;
        const size_t slash = p.size() >= 2 ? p.rfind('/', p.size() - 2) : std::string::npos;
        resolved = (slash == std::string::npos ? std::string() : p.substr(0, slash + 1)) + target;
    }
    rmdir(resolved.c_str());
    return unlink(path) == 0 ? TRUE : FALSE;
}
