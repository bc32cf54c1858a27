// Shared helpers for the tests: temporary directories, child processes made
// by re-executing the test program, and small synchronisation aids.
#ifndef TV_TEST_SUPPORT_H
#define TV_TEST_SUPPORT_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace tvtest {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents when
// the object goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Child entry points. A test program started as
//   <exe> --tv-child NAME ARGS...
// runs the child registered under NAME and exits with its result.
using ChildMain = std::function<int(const std::vector<std::string>& args)>;
bool RegisterChild(const std::string& name, ChildMain fn);

// Starts the current test program as child NAME; returns its pid.
pid_t SpawnChild(const std::string& name, const std::vector<std::string>& args = {});
// Waits for a child and returns its exit status (128 + signal for a death
// by signal, -1 on error).
int WaitChild(pid_t pid);

void WriteFile(const std::string& path, const std::string& contents);
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

}  // namespace tvtest

#define TV_TEST_CONCAT2(a, b) a##b
#define TV_TEST_CONCAT(a, b) TV_TEST_CONCAT2(a, b)
// Registers a child entry point: TV_TEST_CHILD(name) { ... return 0; }
#define TV_TEST_CHILD(name)                                           \
    static int tv_child_##name(const std::vector<std::string>& args); \
    static const bool TV_TEST_CONCAT(tv_child_reg_, name) =           \
        ::tvtest::RegisterChild(#name, tv_child_##name);              \
    static int tv_child_##name(const std::vector<std::string>& args)

#endif  // TV_TEST_SUPPORT_H
