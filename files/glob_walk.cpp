// KWSuperGlob's directory walk.
//
// Order of results, which directory search and its callers see: the files of
// a directory in reading order, then each subdirectory (reported, then, with
// KWGLOB_RECURSE, walked) in reading order. Directories are reported without
// being matched against the patterns.
//
// Links are classified by stat, so they are followed: a link to a
// directory is walked like a directory. To keep a link back up the tree from
// making the walk endless (or, with two such links per level, exponential),
// a directory whose device and inode are already on the current branch is
// still reported but not entered again. Trees without such cycles are
// walked exactly as they are.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <vector>

#include "tvcommonutil/files.h"

struct KWSuperGlob::WalkFrame {
    dev_t dev;
    ino_t ino;
    const WalkFrame* parent;
};

namespace {

struct SetAside {
    CKWString name;
    struct stat st;
};

}  // namespace

bool KWSuperGlob::Glob(const CKWString& directory, const char** patterns, unsigned long flags) {
    FreeGlobs();
    if ((mode_ & KWGLOB_APPEND) == 0) FoundFree();
    SetPatterns(patterns, flags);
    mode_ |= flags;
    baseDirectory_ = directory;
    if (mode_ & KWGLOB_FULL_PATH) MakeBaseAbsolute();
    Walk(CKWString(), nullptr);
    return true;
}

bool KWSuperGlob::GlobMore(const CKWString& directory) {
    baseDirectory_ = directory;
    if (patterns_.empty()) {
        mode_ |= KWGLOB_MATCH_ALL;
        AddPattern("*", KWGLOB_MATCH_ALL);
    }
    if (mode_ & KWGLOB_FULL_PATH) MakeBaseAbsolute();
    Walk(CKWString(), nullptr);
    return true;
}

// realpath gives what changing into the directory and reading the current
// directory back would, without changing the process's working directory
// under the feet of other threads. A directory that cannot be resolved is
// left as given (the walk then fails to open it and finds nothing).
void KWSuperGlob::MakeBaseAbsolute() {
    char resolved[PATH_MAX];
    if (realpath(baseDirectory_.c_str(), resolved) != nullptr) baseDirectory_ = resolved;
}

void KWSuperGlob::Report(const CKWString& relative, const struct stat& st) {
    if (mode_ & KWGLOB_FULL_PATH) {
        FoundItem(baseDirectory_ + "/" + relative, &st);
    } else {
        FoundItem(relative, &st);
    }
}

void KWSuperGlob::Walk(const CKWString& prefix, const WalkFrame* parent) {
    CKWString dirPath = baseDirectory_;
    if (!prefix.empty()) dirPath = dirPath + "/" + prefix;
    DIR* dir = opendir(dirPath.c_str());
    if (dir == nullptr) return;

    struct stat self;
    WalkFrame frame{0, 0, parent};
    if (fstat(dirfd(dir), &self) == 0) {
        frame.dev = self.st_dev;
        frame.ino = self.st_ino;
    }

    // Entries are classified by the type readdir reports where the file
    // system gives one, so only what is reported or walked is stat-ed: a
    // file that does not match, or a directory neither reported nor
    // entered, costs no system call. Links and unknown types are stat-ed to
    // be classified, as before.
    const bool wantDirs = (mode_ & (KWGLOB_NO_DIRS | KWGLOB_RECURSE)) != KWGLOB_NO_DIRS;
    const int fd = dirfd(dir);
    std::vector<SetAside> directories;
    // readdir is safe here: the stream is this call's own (readdir_r is
    // deprecated and no safer).
    while (struct dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0))) continue;
        const unsigned char type = entry->d_type;
        bool matched = false;
        if (type == DT_DIR) {
            if (!wantDirs) continue;
        } else if (type != DT_LNK && type != DT_UNKNOWN) {
            if ((mode_ & KWGLOB_ONLY_DIRS) || !(matched = Match(name))) continue;
        }
        struct stat st;
        // A dangling link is taken as itself; an entry gone since it was read
        // is skipped.
        if (fstatat(fd, name, &st, 0) != 0 && fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (!S_ISDIR(st.st_mode)) {
            if (mode_ & KWGLOB_ONLY_DIRS) continue;
            if (matched || Match(name))
                Report(prefix.empty() ? CKWString(name) : prefix + "/" + name, st);
        } else {
            directories.push_back({CKWString(name), st});
        }
    }
    closedir(dir);

    for (const SetAside& d : directories) {
        CKWString relative = prefix.empty() ? d.name : prefix + "/" + d.name;
        if ((mode_ & KWGLOB_NO_DIRS) == 0) {
            Report((mode_ & KWGLOB_MARK) ? relative + "/" : relative, d.st);
        }
        if ((mode_ & KWGLOB_RECURSE) == 0) continue;
        bool onBranch = false;
        for (const WalkFrame* f = &frame; f != nullptr && !onBranch; f = f->parent) {
            onBranch = f->dev == d.st.st_dev && f->ino == d.st.st_ino;
        }
        if (!onBranch) Walk(relative, &frame);
    }
}
