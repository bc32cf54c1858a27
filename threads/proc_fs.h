// Reading the Linux process file system (/proc) for process enumeration.
//
// Contract: every function reads a bounded amount into memory the caller
// owns, never writes past the sizes given, and reports failure by its
// result alone (no message). Text read from /proc is always NUL-terminated.
#ifndef TV_THREADS_PROC_FS_H
#define TV_THREADS_PROC_FS_H

#include <dirent.h>
#include <stddef.h>
#include <sys/types.h>

namespace tv {
namespace detail {

// Reads at most `max` bytes of a file into buf (which must hold max + 1
// bytes) and NUL-terminates it. Bytes read, or -1 when it cannot be opened
// or read.
ssize_t ReadProcFile(const char* path, char* buf, size_t max);

// "/proc/<pid>/<leaf>", cut to outSize - 1 characters.
void ProcPath(char* out, size_t outSize, const char* pid, const char* leaf);
void ProcPath(char* out, size_t outSize, long pid, const char* leaf);

// The text after the first `blanks` blanks of `text`, or null when it has
// fewer.
const char* AfterBlanks(const char* text, int blanks);

// The text of a stat line after the command name, that is after its last
// ')' (a name may hold blanks and parentheses), or null without one.
const char* AfterName(const char* stat);

// pid, name (with its parentheses, cut to nameSize - 1), state letter and
// parent pid of a stat line. False when any is missing.
bool ParseStatHead(const char* stat, int* pid, char* name, size_t nameSize, char* state, int* ppid);

// The entries of /proc in directory order, "." and ".." included.
class ProcDir {
public:
    ProcDir();
    ~ProcDir();
    ProcDir(const ProcDir&) = delete;
    ProcDir& operator=(const ProcDir&) = delete;
    bool IsOpen() const { return dir_ != nullptr; }
    // 1 with *name set, 0 at the end, -1 on a read error.
    int Next(const char** name);

private:
    DIR* dir_;
};

}  // namespace detail
}  // namespace tv

#endif  // TV_THREADS_PROC_FS_H
