// The registry file format: the reader (a file into the key tree), the
// writer's output sink, the line rules, and the one validation routine that
// says whether a value or key line reads back as written (the API, the tool
// and the reader's round trip all rely on it). Also the file plumbing every
// write goes through: temporary names, stale temporaries, link-safe copies.
//
// May call: the key tree (to fill and print it) and the shared state: a
// whole write takes the cache lock exclusively (and with it the semaphore),
// merges the file first and publishes the new stamp after the rename; a read
// records the file's identity and takes the stamp. The reader of a
// descriptor (ReadRegistryFd) takes no lock: its callers hold them.
#ifndef TV_REGISTRY_REGISTRY_FORMAT_H
#define TV_REGISTRY_REGISTRY_FORMAT_H

#include <stddef.h>

#include <string>

#include "tvcommonutil/strings.h"

namespace tv {
namespace detail {

// The longest line the reader takes in one piece; the rest of a longer line
// is read as the next line. The writer refuses to produce longer lines, so
// everything it writes reads back as written.
constexpr int kRegLineMax = 4095;

// Output of the tree writer: text collected in memory and, when a
// descriptor is given, written out by Flush. A failed write is remembered
// and stops all further output.
struct PrintSink {
    explicit PrintSink(int descriptor = -1) : fd(descriptor), failed(false), error(0), written(0) {}
    void Flush();
    std::string text;
    int fd;
    bool failed;
    int error;       // errno of the write that failed
    size_t written;  // bytes handed to the descriptor so far
};

// Reads a registry file from an open descriptor into the tree (the cache
// lock held exclusively by the caller, or single-threaded use).
bool ReadRegistryFd(int fd, int refresh);
// The first read of a process: 1 when the file read correctly, 0 when it is
// empty, -1 when it must not be used or written over (why says why).
int ReadRegistryAtStartUp(const char* path, std::string& why);
// Checks that a value or key line stays readable: no line end, no text the
// reader would take for a key line, and not longer than kRegLineMax.
// The one place of these rules (the API, the tool through the public
// wrappers, and the reader's round trip all depend on them): the reason a
// value or key line would not read back as written, or null.
const char* ValueLineProblem(const char* name, const char* data, unsigned long type);
const char* KeyPathProblem(const char* path);
bool ValueLineFits(const CKWString& name, const CKWString& data, unsigned long type);
bool KeyPathFits(const CKWString& path);
const char* RegTypeWord(unsigned long type);
// A fresh temporary name in dir for a file of this process
// ("<dir>/.tv.registry.tmp.<pid>.<tick>.<n>"): every file the registry
// writes is made under such a name and then moved into place.
CKWString RegistryTempName(const CKWString& dir);
// Removes the temporary files of that pattern whose writer is gone (a
// writer killed mid-write leaves one behind). A live writer's file stays.
void RemoveStaleTempFiles(const CKWString& dir);
// Copies `from` to `to` without following a symbolic link at `to` (nor at
// `from`, unless fromLink: the template may be a packaged link). The copy is written under a
// temporary name, given its owner and mode through the descriptor, flushed, and then moved into
// place (renamed over `to` with replace; otherwise linked, leaving an existing `to` alone). A link
// at `to` is refused and left as it is. False with the reason in why.
bool CopyRegistryFile(const char* from, const char* to, bool replace, bool fromLink,
                      std::string& why);

}  // namespace detail
}  // namespace tv

#endif  // TV_REGISTRY_REGISTRY_FORMAT_H
