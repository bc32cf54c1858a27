// The tvreg program as administrators run it: the built binary, started as
// a separate process against an install directory of the test's own.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"

extern char** environ;

namespace {

// The program sits in the build tree's tools/ folder, beside tests/.
std::string TvregPath() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "";
    std::string exe(buf, static_cast<size_t>(n));
    std::string dir = exe.substr(0, exe.rfind('/'));
    return dir.substr(0, dir.rfind('/')) + "/tools/tvreg";
}

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

// ---------------------------------------------------------------------------
// A small JSON reader: enough to prove the output is valid and to look at it.
// ---------------------------------------------------------------------------
struct Json {
    enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
    std::string text;  // string contents, or the number as written
    std::vector<Json> items;
    std::map<std::string, Json> fields;
    const Json& operator[](const std::string& k) const {
        static const Json none;
        auto it = fields.find(k);
        return it == fields.end() ? none : it->second;
    }
};

class JsonParser {
public:
    explicit JsonParser(const std::string& s) : s_(s), p_(0) {}
    bool Parse(Json& out) {
        if (!Value(out)) return false;
        Space();
        return p_ == s_.size();
    }

private:
    void Space() {
        while (p_ < s_.size() && strchr(" \t\r\n", s_[p_]) != nullptr) ++p_;
    }
    bool Literal(const char* w) {
        size_t n = strlen(w);
        if (s_.compare(p_, n, w) != 0) return false;
        p_ += n;
        return true;
    }
    bool String(std::string& out) {
        if (p_ >= s_.size() || s_[p_] != '"') return false;
        for (++p_; p_ < s_.size(); ++p_) {
            unsigned char c = static_cast<unsigned char>(s_[p_]);
            if (c == '"') {
                ++p_;
                return true;
            }
            if (c < 0x20) return false;  // control characters must be escaped
            if (c != '\\') {
                out += static_cast<char>(c);
                continue;
            }
            if (++p_ >= s_.size()) return false;
            switch (s_[p_]) {
                case '"':
                    out += '"';
                    break;
                case '\\':
                    out += '\\';
                    break;
                case '/':
                    out += '/';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u': {
                    if (p_ + 4 >= s_.size()) return false;
                    unsigned v = 0;
                    for (int i = 1; i <= 4; ++i) {
                        char h = s_[p_ + i];
                        if (!isxdigit(static_cast<unsigned char>(h))) return false;
                        v = v * 16 +
                            static_cast<unsigned>(isdigit(h) ? h - '0' : (tolower(h) - 'a' + 10));
                    }
                    if (v > 0x7f) return false;  // the tool escapes control bytes only
                    out += static_cast<char>(v);
                    p_ += 4;
                    break;
                }
                default:
                    return false;
            }
        }
        return false;
    }
    bool Value(Json& v) {
        Space();
        if (p_ >= s_.size()) return false;
        char c = s_[p_];
        if (c == '{') {
            v.kind = Json::kObject;
            ++p_;
            Space();
            if (p_ < s_.size() && s_[p_] == '}') return ++p_, true;
            for (;;) {
                Space();
                std::string k;
                if (!String(k)) return false;
                Space();
                if (p_ >= s_.size() || s_[p_++] != ':') return false;
                if (!Value(v.fields[k])) return false;
                Space();
                if (p_ < s_.size() && s_[p_] == ',') {
                    ++p_;
                    continue;
                }
                return p_ < s_.size() && s_[p_++] == '}';
            }
        }
        if (c == '[') {
            v.kind = Json::kArray;
            ++p_;
            Space();
            if (p_ < s_.size() && s_[p_] == ']') return ++p_, true;
            for (;;) {
                v.items.emplace_back();
                if (!Value(v.items.back())) return false;
                Space();
                if (p_ < s_.size() && s_[p_] == ',') {
                    ++p_;
                    continue;
                }
                return p_ < s_.size() && s_[p_++] == ']';
            }
        }
        if (c == '"') {
            v.kind = Json::kString;
            return String(v.text);
        }
        if (Literal("true") || Literal("false")) return v.kind = Json::kBool, true;
        if (Literal("null")) return true;
        size_t start = p_;
        if (s_[p_] == '-') ++p_;
        size_t digits = p_;
        while (p_ < s_.size() && isdigit(static_cast<unsigned char>(s_[p_]))) ++p_;
        if (p_ == digits) return false;
        v.kind = Json::kNumber;
        v.text = s_.substr(start, p_ - start);
        return true;
    }

    const std::string& s_;
    size_t p_;
};

Json ParseJson(const std::string& text) {
    Json j;
    JsonParser parser(text);
    EXPECT_TRUE(parser.Parse(j)) << "not valid JSON:\n" << text;
    return j;
}

// ---------------------------------------------------------------------------
// The fixture: an install directory that does not exist yet, and removal of
// the System V objects the tool's runs leave for later clients.
// ---------------------------------------------------------------------------
class Tvreg : public ::testing::Test {
protected:
    void SetUp() override {
        tool_ = TvregPath();
        ASSERT_EQ(access(tool_.c_str(), X_OK), 0) << tool_ << " is missing: build the tvreg target";
        install_ = dir_.path() + "/install";
    }
    void TearDown() override {
        key_t key = ftok((install_ + "/registry/.registry-lockfile").c_str(), 1);
        if (key == static_cast<key_t>(-1)) return;
        int sem = semget(key, 1, 0);
        if (sem >= 0) semctl(sem, 0, IPC_RMID);
        int shm = shmget(key, 0, 0);
        if (shm >= 0) shmctl(shm, IPC_RMID, nullptr);
    }

    // Starts tvreg --root <install> args..., standard output and error going
    // to files of the test (or standard output to outFd when given).
    pid_t Start(const std::vector<std::string>& args, const std::string& tag, int outFd = -1,
                const std::string& input = "/dev/null") {
        std::vector<std::string> argv = {tool_, "--root", install_};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargv;
        for (std::string& a : argv) cargv.push_back(&a[0]);
        cargv.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, input.c_str(), O_RDONLY, 0);
        if (outFd >= 0) {
            posix_spawn_file_actions_adddup2(&fa, outFd, 1);
        } else {
            posix_spawn_file_actions_addopen(&fa, 1, dir_.file(tag + ".out").c_str(),
                                             O_WRONLY | O_CREAT | O_TRUNC, 0644);
        }
        posix_spawn_file_actions_addopen(&fa, 2, dir_.file(tag + ".err").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        // The test program blocks signals for its own library; the tool
        // starts as from a shell.
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &all);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        pid_t pid = -1;
        int rc = posix_spawn(&pid, tool_.c_str(), &fa, &attr, cargv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        posix_spawnattr_destroy(&attr);
        EXPECT_EQ(rc, 0);
        return rc == 0 ? pid : -1;
    }

    Result Finish(pid_t pid, const std::string& tag) {
        Result r;
        int st = 0;
        while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
        }
        r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
        r.out = tvtest::ReadFile(dir_.file(tag + ".out"));
        r.err = tvtest::ReadFile(dir_.file(tag + ".err"));
        return r;
    }

    Result Run(const std::vector<std::string>& args, const std::string& input = "/dev/null") {
        const std::string tag = "run" + std::to_string(++runs_);
        return Finish(Start(args, tag, -1, input), tag);
    }

    std::string RegistryFile() const { return install_ + "/registry/tv.registry"; }

    tvtest::TempDir dir_;
    std::string tool_;
    std::string install_;
    int runs_ = 0;
};

// An error is one line on standard error, from the tool, naming `what`.
::testing::AssertionResult OneErrorLine(const Result& r, const std::string& what) {
    if (r.err.empty() || r.err.back() != '\n' || r.err.find('\n') != r.err.size() - 1 ||
        r.err.compare(0, 7, "tvreg: ") != 0 || r.err.find(what) == std::string::npos) {
        return ::testing::AssertionFailure() << "stderr: [" << r.err << "] wanted: " << what;
    }
    return ::testing::AssertionSuccess();
}

TEST_F(Tvreg, HelpUsageErrorsAndAnEmptyInstallDirectory) {
    Result help = Run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* c : {"query", "list", "set", "delete", "export", "import", "watch", "status",
                          "--root", "--json", "TV_REGISTRY", "Exit status"}) {
        EXPECT_NE(help.out.find(c), std::string::npos) << c;
    }
    Result setHelp = Run({"set", "--help"});
    EXPECT_EQ(setHelp.status, 0);
    EXPECT_NE(setHelp.out.find("multi_sz"), std::string::npos);
    EXPECT_EQ(setHelp.out.find("tvreg watch"), std::string::npos);

    struct Case {
        std::vector<std::string> args;
        const char* what;
    } usage[] = {
        {{}, "no command"},
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"query"}, "query takes"},
        {{"query", "Software\\App"}, "'Software\\App'"},
        {{"set", "HKLM\\A", "n", "binary", "x"}, "unknown type 'binary'"},
        {{"set", "HKLM\\A", "n", "dword", "12abc"}, "'12abc' is not a number"},
        {{"set", "HKLM\\A", "n", "dword", "-1"}, "'-1' is not a number"},
        {{"set", "HKLM\\A", "n", "sz", "a;b"}, "';'"},
        {{"set", "HKLM\\A", "a=b", "sz", "x"}, "'='"},
        {{"set", "HKLM\\A", "n", "sz", " padded"}, "white space"},
        {{"set", "HKLM\\A", "n", "multi_sz", "two words"}, "'two words'"},
        {{"set", "HKLM\\A", "n", "sz", "a", "b"}, "exactly one DATA"},
        {{"set", "HKLM\\A", "n", "sz", std::string(5000, 'x')}, "too long"},
        {{"delete", "HKLM"}, "cannot be deleted"},
        {{"export", "--json"}, "--json is not taken by export"},
        {{"watch", "--interval", "5", "HKLM"}, "10 to 60000"},
        {{"status", "--bogus"}, "unknown option '--bogus'"},
    };
    for (const Case& c : usage) {
        Result r = Run(c.args);
        EXPECT_EQ(r.status, 2) << c.what;
        EXPECT_TRUE(OneErrorLine(r, c.what));
        EXPECT_TRUE(r.out.empty()) << c.what;
    }
    // Nothing is made for commands that only read.
    for (auto args : std::vector<std::vector<std::string>>{
             {"query", "HKLM\\A"}, {"status"}, {"export"}, {"watch", "HKLM"}}) {
        Result r = Run(args);
        EXPECT_EQ(r.status, 1) << args[0];
        EXPECT_TRUE(OneErrorLine(r, "no registry in " + install_));
    }
    EXPECT_FALSE(tvtest::FileExists(install_));

    // A write makes the directory, an empty template and the registry.
    Result set = Run({"set", "HKLM/Software/App", "Root", "sz", "/srv/app"});
    EXPECT_EQ(set.status, 0) << set.err;
    EXPECT_TRUE(set.err.empty()) << set.err;
    EXPECT_EQ(tvtest::ReadFile(install_ + "/registry/tv.registry.template"), "\n");
    const std::string file = tvtest::ReadFile(RegistryFile());
    EXPECT_TRUE(std::regex_match(file, std::regex("\nHKEY_LOCAL_MACHINE\\\\Software\\\\App=[0-9]+\n"
                                                  "Root=                 \t             "
                                                  "/srv/app;\tREG_SZ\n\n")))
        << file;
}

TEST_F(Tvreg, SetQueryListAndDelete) {
    ASSERT_EQ(Run({"set", "HKLM\\Software\\App", "Root", "sz", "/srv/app"}).status, 0);
    ASSERT_EQ(Run({"set", "hklm/software/app", "MaxClients", "dword", "0x40"}).status, 0);
    ASSERT_EQ(Run({"set", "HKEY_LOCAL_MACHINE/Software/App/", "Hosts", "multi_sz", "alpha", "beta"})
                  .status,
              0);
    ASSERT_EQ(
        Run({"set", "HKLM\\Software\\App\\Sub", "Quote", "sz", "say \"hi\"\\now\ttab"}).status, 0);

    Result one = Run({"query", "HKLM/SOFTWARE/APP", "maxclients"});
    EXPECT_EQ(one.status, 0);
    EXPECT_NE(one.out.find("MaxClients"), std::string::npos) << one.out;
    EXPECT_NE(one.out.find("REG_DWORD"), std::string::npos);
    EXPECT_NE(one.out.find("64 (0x40)"), std::string::npos);

    Json q = ParseJson(Run({"--json", "query", "HKLM\\Software\\App\\Sub", "Quote"}).out);
    EXPECT_EQ(q["key"].text, "HKEY_LOCAL_MACHINE\\Software\\App\\Sub");
    EXPECT_EQ(q["type"].text, "REG_SZ");
    EXPECT_EQ(q["data"].text, "say \"hi\"\\now\ttab");

    Json all = ParseJson(Run({"query", "HKLM\\Software\\App", "--json"}).out);
    ASSERT_EQ(all["values"].items.size(), 3u);
    EXPECT_EQ(all["values"].items[2]["name"].text, "Root");  // name order, as in the file
    EXPECT_EQ(all["values"].items[1]["data"].kind, Json::kNumber);
    EXPECT_EQ(all["values"].items[1]["data"].text, "64");
    const Json& hosts = all["values"].items[0]["data"];
    ASSERT_EQ(hosts.kind, Json::kArray);
    ASSERT_EQ(hosts.items.size(), 2u);
    EXPECT_EQ(hosts.items[1].text, "beta");

    Json list = ParseJson(Run({"list", "--json", "HKLM\\Software\\App"}).out);
    ASSERT_EQ(list["subkeys"].items.size(), 1u);
    EXPECT_EQ(list["subkeys"].items[0].text, "Sub");
    EXPECT_EQ(list["values"].items.size(), 3u);
    Result text = Run({"list", "HKLM\\Software"});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("subkeys (1):\n  App\n"), std::string::npos) << text.out;

    // Not found: status 1 and a line naming what is missing.
    Result r = Run({"query", "HKLM\\Software\\App", "Nope"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(OneErrorLine(r, "value not found: 'Nope' in HKEY_LOCAL_MACHINE\\Software\\App"));
    r = Run({"list", "HKLM\\Software\\Gone"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(OneErrorLine(r, "key not found: HKEY_LOCAL_MACHINE\\Software\\Gone"));
    r = Run({"delete", "HKLM\\Software\\Gone"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(OneErrorLine(r, "key not found: HKEY_LOCAL_MACHINE\\Software\\Gone"));

    EXPECT_EQ(Run({"delete", "HKLM\\Software\\App", "Root"}).status, 0);
    r = Run({"delete", "HKLM\\Software\\App", "Root"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(OneErrorLine(r, "value not found: 'Root'"));
    EXPECT_EQ(Run({"query", "HKLM\\Software\\App", "Root"}).status, 1);
    EXPECT_EQ(Run({"query", "HKLM\\Software\\App", "Hosts"}).status, 0);

    // A key right below the root, with its subtree.
    EXPECT_EQ(Run({"delete", "HKLM\\Software"}).status, 0);
    EXPECT_EQ(Run({"query", "HKLM\\Software\\App\\Sub"}).status, 1);
    EXPECT_EQ(tvtest::ReadFile(RegistryFile()), "\n");
    // The empty registry's root lists as an empty key.
    Result empty = Run({"list", "HKLM"});
    EXPECT_EQ(empty.status, 0) << empty.err;
    EXPECT_EQ(empty.out, "HKEY_LOCAL_MACHINE\nsubkeys (0):\nvalues (0):\n");
}

TEST_F(Tvreg, ExportIsTheFileAndImportRoundTrips) {
    ASSERT_EQ(Run({"set", "HKLM\\Software\\App", "Root", "sz", "/srv/app"}).status, 0);
    ASSERT_EQ(Run({"set", "HKLM\\Software\\App", "MaxClients", "dword", "64"}).status, 0);
    ASSERT_EQ(Run({"set", "HKLM\\Software\\App", "Hosts", "multi_sz", "alpha", "beta"}).status, 0);
    ASSERT_EQ(Run({"set", "HKLM\\Software\\App\\Db", "port", "dword", "5432"}).status, 0);
    ASSERT_EQ(Run({"set", "HKLM\\Software\\Other", "a", "sz", "b"}).status, 0);

    Result whole = Run({"export"});
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.out, tvtest::ReadFile(RegistryFile()));
    EXPECT_EQ(Run({"export", "HKLM"}).out, whole.out);

    Result app = Run({"export", "HKLM/Software/App"});
    ASSERT_EQ(app.status, 0);
    EXPECT_EQ(app.out.compare(0, 32, "HKEY_LOCAL_MACHINE\\Software\\App="), 0) << app.out;
    EXPECT_NE(whole.out.find(app.out), std::string::npos);  // one contiguous slice
    EXPECT_EQ(app.out.find("Other"), std::string::npos);
    EXPECT_NE(app.out.find("MaxClients=           \t                 0x40;\tREG_DWORD\n"),
              std::string::npos)
        << app.out;

    const std::string saved = dir_.file("app.txt");
    tvtest::WriteFile(saved, app.out);
    ASSERT_EQ(Run({"delete", "HKLM\\Software\\App"}).status, 0);
    EXPECT_EQ(Run({"export", "HKLM\\Software\\App"}).status, 1);
    Result imp = Run({"import", saved});
    EXPECT_EQ(imp.status, 0) << imp.err;
    EXPECT_TRUE(imp.err.empty()) << imp.err;
    // The same text but for the key numbers, which are drawn afresh.
    const std::regex number("=[0-9]+\n");
    Result again = Run({"export", "HKLM\\Software\\App"});
    EXPECT_EQ(std::regex_replace(again.out, number, "=N\n"),
              std::regex_replace(app.out, number, "=N\n"));
    EXPECT_EQ(Run({"export"}).out, tvtest::ReadFile(RegistryFile()));

    // A hand-written text from standard input: comments, a decimal dword,
    // a value before any key line, a line the reader ignores, CRLF.
    tvtest::WriteFile(dir_.file("hand.txt"),
                      "# settings\n"
                      "stray=1;REG_SZ\n"
                      "HKEY_LOCAL_MACHINE\\Hand=7\n"
                      "Count=31;REG_DWORD\n"
                      "Name=   padded  ;  REG_SZ\n"
                      "junk line\n"
                      "Crlf=x;REG_SZ\r\n"
                      "HKEY_LOCAL_MACHINE\\Hand\\Kid=8\n");
    imp = Run({"import", "-"}, dir_.file("hand.txt"));
    EXPECT_EQ(imp.status, 0);
    EXPECT_NE(imp.err.find("-:6: line ignored"), std::string::npos) << imp.err;
    EXPECT_NE(imp.err.find("-:7: line ignored"), std::string::npos) << imp.err;
    Json hand = ParseJson(Run({"query", "--json", "HKLM\\Hand"}).out);
    ASSERT_EQ(hand["values"].items.size(), 2u);
    EXPECT_EQ(hand["values"].items[0]["data"].text, "31");
    EXPECT_EQ(hand["values"].items[1]["data"].text, "padded");
    EXPECT_EQ(Run({"list", "HKLM\\Hand\\Kid"}).status, 0);
    EXPECT_EQ(Run({"query", "HKLM", "stray"}).status, 1);

    Result missing = Run({"import", dir_.file("nope.txt")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(OneErrorLine(missing, "cannot open " + dir_.file("nope.txt")));
}

// Reads from fd until `needle` has been seen, up to a generous limit.
bool ReadUntil(int fd, std::string& seen, const std::string& needle) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (seen.find(needle) == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        char buf[512];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) return false;
        seen.append(buf, static_cast<size_t>(n));
    }
    return true;
}

TEST_F(Tvreg, StatusNamesTheLastWriter) {
    // The shared objects live as long as some process is attached (the last
    // one to leave removes them), so a watcher keeps them for this test.
    ASSERT_EQ(Run({"set", "HKLM\\Held", "v", "sz", "1"}).status, 0);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const pid_t holder = Start({"watch", "--interval", "20", "HKLM\\Held"}, "holder", fds[1]);
    close(fds[1]);
    std::string seen;
    ASSERT_TRUE(ReadUntil(fds[0], seen, "\n")) << seen;

    const pid_t writer = Start({"set", "HKLM\\S", "v", "sz", "1"}, "writer");
    ASSERT_EQ(Finish(writer, "writer").status, 0);
    Result st = Run({"status", "--json"});
    ASSERT_EQ(st.status, 0);
    Json j = ParseJson(st.out);
    EXPECT_EQ(j["registry_file"].text, RegistryFile());
    EXPECT_EQ(j["last_writer_pid"].text, std::to_string(writer));
    EXPECT_EQ(j["lock_owner_pid"].text, "0");
    EXPECT_GE(std::stoul(j["version_stamp"].text), 1u);
    EXPECT_GE(std::stol(j["processes_attached"].text), 1);
    Result text = Run({"status"});
    EXPECT_NE(text.out.find("last writer:         pid " + std::to_string(writer)),
              std::string::npos)
        << text.out;
    kill(holder, SIGTERM);
    EXPECT_EQ(Finish(holder, "holder").status, 0);
    close(fds[0]);
}

TEST_F(Tvreg, ConcurrentSetsAllLand) {
    ASSERT_EQ(Run({"set", "HKLM\\Shared", "seed", "sz", "x"}).status, 0);
    constexpr int kRounds = 6;
    constexpr int kWriters = 3;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<std::pair<pid_t, std::string>> running;
        for (int w = 0; w < kWriters; ++w) {
            const std::string name = "r" + std::to_string(round) + "w" + std::to_string(w);
            // Two writers share a key, one has a key of its own.
            const std::string key = w == 2 ? "HKLM\\Own\\" + name : "HKLM\\Shared";
            running.push_back(
                {Start({"set", key, name, "dword", std::to_string(round * 10 + w)}, name), name});
        }
        for (auto& p : running) {
            Result r = Finish(p.first, p.second);
            EXPECT_EQ(r.status, 0) << p.second << ": " << r.err;
        }
    }
    Json shared = ParseJson(Run({"query", "--json", "HKLM\\Shared"}).out);
    EXPECT_EQ(shared["values"].items.size(), 1u + 2 * kRounds);
    Json own = ParseJson(Run({"list", "--json", "HKLM\\Own"}).out);
    EXPECT_EQ(own["subkeys"].items.size(), static_cast<size_t>(kRounds));
    for (int round = 0; round < kRounds; ++round) {
        for (int w = 0; w < 2; ++w) {
            const std::string name = "r" + std::to_string(round) + "w" + std::to_string(w);
            Result r = Run({"query", "HKLM\\Shared", name});
            EXPECT_EQ(r.status, 0) << name;
        }
    }
}

TEST_F(Tvreg, WatchSeesAnotherProcessChangeAndEndsOnSigterm) {
    ASSERT_EQ(Run({"set", "HKLM\\Watched", "Level", "dword", "1"}).status, 0);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const pid_t watch = Start({"watch", "--interval", "20", "HKLM\\Watched"}, "watch", fds[1]);
    close(fds[1]);
    std::string seen;
    ASSERT_TRUE(ReadUntil(fds[0], seen, "\n")) << seen;
    EXPECT_NE(seen.find("watching HKEY_LOCAL_MACHINE\\Watched: 1 values, 0 subkeys\n"),
              std::string::npos)
        << seen;

    ASSERT_EQ(Run({"set", "HKLM\\Watched", "Level", "dword", "2"}).status, 0);
    EXPECT_TRUE(ReadUntil(fds[0], seen, "value 'Level' changed: REG_DWORD 2 (0x2)")) << seen;
    ASSERT_EQ(Run({"set", "HKLM\\Watched\\Child", "x", "sz", "y"}).status, 0);
    EXPECT_TRUE(ReadUntil(fds[0], seen, "subkey 'Child' added")) << seen;
    ASSERT_EQ(Run({"delete", "HKLM\\Watched"}).status, 0);
    EXPECT_TRUE(ReadUntil(fds[0], seen, "deleted HKEY_LOCAL_MACHINE\\Watched\n")) << seen;

    kill(watch, SIGTERM);
    Result r = Finish(watch, "watch");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.err.empty()) << r.err;
    close(fds[0]);

    Result missing = Run({"watch", "HKLM\\Watched"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(OneErrorLine(missing, "key not found: HKEY_LOCAL_MACHINE\\Watched"));
}

}  // namespace
