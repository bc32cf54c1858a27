#include "test_support.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

namespace tvtest {
namespace {

std::map<std::string, ChildMain>& Children() {
    static std::map<std::string, ChildMain> children;
    return children;
}

void RemoveTree(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        chmod(path.c_str(), 0700);
        if (DIR* d = opendir(path.c_str())) {
            while (dirent* e = readdir(d)) {
                if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
                RemoveTree(path + "/" + e->d_name);
            }
            closedir(d);
        }
        rmdir(path.c_str());
    } else {
        unlink(path.c_str());
    }
}

}  // namespace

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/tvtest.XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
    path_ = buf.data();
}

TempDir::~TempDir() {
    RemoveTree(path_);
}

bool RegisterChild(const std::string& name, ChildMain fn) {
    Children()[name] = std::move(fn);
    return true;
}

pid_t SpawnChild(const std::string& name, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"/proc/self/exe", "--tv-child", name};
    argv.insert(argv.end(), args.begin(), args.end());
    // Resolve our own path before forking: /proc/self/exe is fine for execv.
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return -1;
    self[n] = '\0';
    std::vector<char*> cargv;
    for (auto& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        execv(self, cargv.data());
        _exit(127);
    }
    return pid;
}

int WaitChild(pid_t pid) {
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, 0);
        if (r == pid) break;
        if (r < 0 && errno != EINTR) return -1;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

void WriteFile(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool FileExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

}  // namespace tvtest

int main(int argc, char** argv) {
    if (argc >= 3 && strcmp(argv[1], "--tv-child") == 0) {
        auto it = tvtest::Children().find(argv[2]);
        if (it == tvtest::Children().end()) {
            fprintf(stderr, "unknown test child %s\n", argv[2]);
            return 126;
        }
        std::vector<std::string> args(argv + 3, argv + argc);
        return it->second(args);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
