// The tvreg program as administrators run it: the built binary, started as
// a separate process against an install directory of the test's own.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <tvcommonutil.h>
#include <nlohmann/json.hpp>

#include "test_support.h"

namespace {

using nlohmann::json;

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

// Parsing fails on anything that is not valid JSON, invalid UTF-8 included.
json ParseJson(const std::string& text) {
    try {
        return json::parse(text);
    } catch (const std::exception& e) {
        ADD_FAILURE() << "not valid JSON (" << e.what() << "):\n" << text;
        return json();
    }
}

key_t SysVKey(const std::string& install) {
    return ftok((install + "/registry/.registry-lockfile").c_str(), 1);
}

// An install directory that does not exist yet; the System V objects the
// tool's runs leave for later clients are removed at the end.
class Tvreg : public ::testing::Test {
protected:
    void SetUp() override {
        char buf[4096];
        ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
        ASSERT_GT(n, 0);
        // The program sits in the build tree's tools/ folder, beside tests/.
        tool_.assign(buf, static_cast<size_t>(n));
        tool_ = tool_.substr(0, tool_.rfind('/'));
        tool_ = tool_.substr(0, tool_.rfind('/')) + "/tools/tvreg";
        ASSERT_EQ(access(tool_.c_str(), X_OK), 0) << tool_ << " is missing: build the tvreg target";
        install_ = dir_.path() + "/install";
    }
    void TearDown() override {
        const key_t key = SysVKey(install_);
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
        const std::string out = dir_.file(tag + ".out"), err = dir_.file(tag + ".err");
        const pid_t pid = fork();
        if (pid == 0) {  // async-signal-safe calls only, up to the exec
            // The test program blocks signals for its own library; the tool
            // starts as from a shell.
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
            dup2(open(input.c_str(), O_RDONLY), 0);
            dup2(outFd >= 0 ? outFd : open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            execv(tool_.c_str(), cargv.data());
            _exit(127);
        }
        EXPECT_GT(pid, 0);
        return pid;
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
    int Status(const std::vector<std::string>& args) { return Run(args).status; }

    std::string RegistryFile() const { return install_ + "/registry/tv.registry"; }

    tvtest::TempDir dir_;
    std::string tool_;
    std::string install_;
    int runs_ = 0;
};

// Whether text contains needle; either way the message shows the text.
::testing::AssertionResult Has(const std::string& text, const std::string& needle) {
    const bool found = text.find(needle) != std::string::npos;
    return (found ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
           << "'" << needle << "' " << (found ? "is" : "is not") << " in:\n"
           << text;
}

// An error is one line on standard error, from the tool, naming `what`.
::testing::AssertionResult OneErrorLine(const Result& r, const std::string& what) {
    if (r.err.empty() || r.err.back() != '\n' || r.err.find('\n') != r.err.size() - 1 ||
        r.err.compare(0, 7, "tvreg: ") != 0 || r.err.find(what) == std::string::npos) {
        return ::testing::AssertionFailure() << "stderr: [" << r.err << "] wanted: " << what;
    }
    return ::testing::AssertionSuccess();
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

TEST_F(Tvreg, HelpUsageErrorsAndAnEmptyInstallDirectory) {
    Result help = Run({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* c : {"query", "list", "set", "delete", "export", "import", "watch", "status",
                          "--root", "--json", "\\u00XX", "TV_REGISTRY", "Exit status"}) {
        EXPECT_TRUE(Has(help.out, c)) << c;
    }
    Result setHelp = Run({"set", "--help"});
    EXPECT_EQ(setHelp.status, 0);
    EXPECT_TRUE(Has(setHelp.out, "multi_sz"));
    EXPECT_FALSE(Has(setHelp.out, "tvreg watch"));

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
        {{"set", "HKLM\\A", "n", "sz", " padded"}, "white space"},
        {{"set", "HKLM\\A", "n", "multi_sz", "two words"}, "'two words'"},
        {{"set", "HKLM\\A", "n", "sz", "a", "b"}, "exactly one DATA"},
        {{"set", "HKLM\\A=B", "n", "sz", "x"}, "'='"},
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
    // As the help says: the last process attached removes the shared objects.
    EXPECT_LT(semget(SysVKey(install_), 1, 0), 0);
    EXPECT_LT(shmget(SysVKey(install_), 0, 0), 0);
}

TEST_F(Tvreg, SetQueryListExportImportAndDelete) {
    // Bytes that are not UTF-8 (a stray byte, a surrogate's encoding) next
    // to a real two-byte character; keys with '/' in their names.
    for (const std::vector<std::string>& set : std::vector<std::vector<std::string>>{
             {"set", "HKLM\\Software\\App", "Root", "sz", "/srv/app"},
             {"set", "hklm/software/app", "MaxClients", "dword", "0x40"},
             {"set", "HKEY_LOCAL_MACHINE/Software/App/", "Hosts", "multi_sz", "alpha", "beta"},
             {"set", "HKLM\\Software\\App\\Sub", "Quote", "sz", "say \"hi\"\\now\ttab"},
             {"set", "HKLM\\Software\\a/b", "n\xff", "sz", "a\xc3\xa9\xed\xa0\x80z"},
             {"set", "HKLM\\Software\\App\\x/y", "s", "sz", "slash"},
             {"set", "HKLM\\Software\\Other", "a", "sz", "b"}}) {
        ASSERT_EQ(Status(set), 0) << set[1];
    }

    EXPECT_EQ(Run({"query", "HKLM/SOFTWARE/APP", "maxclients"}).out,
              "MaxClients             REG_DWORD    64 (0x40)\n");

    json q = ParseJson(Run({"--json", "query", "HKLM\\Software\\App\\Sub", "Quote"}).out);
    EXPECT_EQ(q["key"], "HKEY_LOCAL_MACHINE\\Software\\App\\Sub");
    EXPECT_EQ(q["type"], "REG_SZ");
    EXPECT_EQ(q["data"], "say \"hi\"\\now\ttab");
    json bytes = ParseJson(Run({"--json", "query", "HKLM\\Software\\a/b"}).out);
    EXPECT_EQ(bytes["key"], "HKEY_LOCAL_MACHINE\\Software\\a/b");
    EXPECT_EQ(bytes["values"][0]["name"], "n\u00ff");
    EXPECT_EQ(bytes["values"][0]["data"], "a\u00e9\u00ed\u00a0\u0080z");

    json all = ParseJson(Run({"query", "HKLM\\Software\\App", "--json"}).out);
    ASSERT_EQ(all["values"].size(), 3u);
    EXPECT_EQ(all["values"][2]["name"], "Root");  // name order, as in the file
    EXPECT_EQ(all["values"][1]["data"], 64);
    EXPECT_EQ(all["values"][0]["data"], json({"alpha", "beta"}));

    json list = ParseJson(Run({"list", "--json", "HKLM\\Software\\App"}).out);
    EXPECT_EQ(list["subkeys"], json({"Sub", "x/y"}));
    EXPECT_EQ(list["values"].size(), 3u);
    Result text = Run({"list", "HKLM\\Software"});
    EXPECT_EQ(text.status, 0);
    EXPECT_TRUE(Has(text.out, "subkeys (3):\n  a/b\n  App\n  Other\n"));

    Result whole = Run({"export"});
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.out, tvtest::ReadFile(RegistryFile()));
    EXPECT_EQ(Run({"export", "HKLM"}).out, whole.out);

    Result app = Run({"export", "HKLM/Software/App"});
    ASSERT_EQ(app.status, 0);
    EXPECT_EQ(app.out.compare(0, 32, "HKEY_LOCAL_MACHINE\\Software\\App="), 0) << app.out;
    EXPECT_TRUE(Has(whole.out, app.out));  // one contiguous slice
    EXPECT_FALSE(Has(app.out, "Other"));
    EXPECT_TRUE(Has(app.out, "MaxClients=           \t                 0x40;\tREG_DWORD\n"));

    const std::string saved = dir_.file("app.txt");
    tvtest::WriteFile(saved, app.out);
    ASSERT_EQ(Status({"delete", "HKLM\\Software\\App"}), 0);
    EXPECT_EQ(Status({"export", "HKLM\\Software\\App"}), 1);
    Result imp = Run({"import", saved});
    EXPECT_EQ(imp.status, 0) << imp.err;
    EXPECT_TRUE(imp.err.empty()) << imp.err;
    // The same text but for the key numbers, which are drawn afresh.
    const std::regex number("=[0-9]+\n");
    Result again = Run({"export", "HKLM\\Software\\App"});
    EXPECT_EQ(std::regex_replace(again.out, number, "=N\n"),
              std::regex_replace(app.out, number, "=N\n"));
    EXPECT_TRUE(Has(again.out, "\\App\\x/y="));
    EXPECT_EQ(Run({"export"}).out, tvtest::ReadFile(RegistryFile()));

    // A hand-written text from standard input: comments, a decimal dword,
    // CRLF, and every line the reader would ignore reported by number.
    tvtest::WriteFile(dir_.file("hand.txt"),
                      "# settings\nstray=1;REG_SZ\nHKEY_LOCAL_MACHINE\\Hand=7\nCount=31;REG_DWORD\n"
                      "Name=   padded  ;  REG_SZ\njunk line\nCrlf=x;REG_SZ\r\n"
                      "HKEY_LOCAL_MACHINE\\Hand\\Kid=8\nOdd=HKEY_LOCAL_MACHINE\nlost=1;REG_SZ\n");
    imp = Run({"import", "-"}, dir_.file("hand.txt"));
    EXPECT_EQ(imp.status, 1);
    int reported = 0;
    for (const char* line :
         {"-:2: line ignored", "-:6: line ignored", "-:9: line ignored", "-:10: line ignored"}) {
        EXPECT_TRUE(Has(imp.err, line));
    }
    for (size_t at = 0; (at = imp.err.find("tvreg: ", at)) != std::string::npos; ++at) ++reported;
    EXPECT_EQ(reported, 4) << imp.err;
    json hand = ParseJson(Run({"query", "--json", "HKLM\\Hand"}).out);
    ASSERT_EQ(hand["values"].size(), 3u);
    EXPECT_EQ(hand["values"][0]["data"], 31);
    EXPECT_EQ(hand["values"][1]["data"], "x");
    EXPECT_EQ(hand["values"][2]["data"], "padded");
    EXPECT_EQ(Status({"list", "HKLM\\Hand\\Kid"}), 0);

    // A binary file is refused whole; a missing one is named.
    const std::string before = tvtest::ReadFile(RegistryFile());
    const char kBinary[] = "HKEY_LOCAL_MACHINE\\Bin=1\n\0\x7f";
    tvtest::WriteFile(dir_.file("bin"), std::string(kBinary, sizeof kBinary - 1));
    Result bin = Run({"import", dir_.file("bin")});
    EXPECT_EQ(bin.status, 1);
    EXPECT_TRUE(OneErrorLine(bin, "NUL byte"));
    EXPECT_EQ(tvtest::ReadFile(RegistryFile()), before);
    Result missing = Run({"import", dir_.file("nope.txt")});
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(OneErrorLine(missing, "cannot open " + dir_.file("nope.txt")));

    // Not found: status 1 and a line naming what is missing.
    Result r = Run({"query", "HKLM\\Software\\App", "Nope"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(OneErrorLine(r, "value not found: 'Nope' in HKEY_LOCAL_MACHINE\\Software\\App"));
    for (const char* cmd : {"list", "delete"}) {
        r = Run({cmd, "HKLM\\Software\\Gone"});
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(OneErrorLine(r, "key not found: HKEY_LOCAL_MACHINE\\Software\\Gone"));
    }
    EXPECT_EQ(Status({"delete", "HKLM\\Software\\App", "Root"}), 0);
    r = Run({"delete", "HKLM\\Software\\App", "Root"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(OneErrorLine(r, "value not found: 'Root'"));
    EXPECT_EQ(Status({"query", "HKLM\\Software\\App", "Root"}), 1);
    EXPECT_EQ(Status({"query", "HKLM\\Software\\App", "Hosts"}), 0);

    // A key right below the root, with its subtree.
    EXPECT_EQ(Status({"delete", "HKLM\\Software"}), 0);
    EXPECT_EQ(Status({"delete", "HKLM\\Hand"}), 0);
    EXPECT_EQ(Status({"query", "HKLM\\Software\\App\\Sub"}), 1);
    EXPECT_EQ(tvtest::ReadFile(RegistryFile()), "\n");
    // The empty registry's root lists as an empty key.
    Result empty = Run({"list", "HKLM"});
    EXPECT_EQ(empty.status, 0) << empty.err;
    EXPECT_EQ(empty.out, "HKEY_LOCAL_MACHINE\nsubkeys (0):\nvalues (0):\n");
}

// Many administrators' sets on a registry nobody has started yet: every
// one starts (none gives up because others are starting or leaving) and
// every value lands.
TEST_F(Tvreg, ConcurrentSetsOnAFreshRootAllLand) {
    const int kRounds = 20, kProcs = 64;
    for (int round = 0; round < kRounds; ++round) {
        install_ = dir_.path() + "/install" + std::to_string(round);
        std::vector<pid_t> pids;
        for (int p = 0; p < kProcs; ++p) {
            const std::string n = std::to_string(p);
            pids.push_back(Start({"set", "HKLM\\Conc", "v" + n, "sz", n}, "set" + n));
        }
        for (int p = 0; p < kProcs; ++p) {
            const Result r = Finish(pids[p], "set" + std::to_string(p));
            EXPECT_EQ(r.status, 0) << "round " << round << ": " << r.err;
        }
        json all = ParseJson(Run({"--json", "query", "HKLM\\Conc"}).out);
        std::set<std::string> seen;
        for (const json& v : all["values"]) {
            if (v["name"] == "v" + v["data"].get<std::string>()) seen.insert(v["name"]);
        }
        ASSERT_EQ(seen.size(), static_cast<size_t>(kProcs)) << "round " << round;
        TearDown();
    }
}

// args: install directory, marker. Takes the registry lock and stops itself.
TV_TEST_CHILD(hold_and_stop) {
    setenv("TV_REGISTRY", args.at(0).c_str(), 1);
    InitRegistry(0, 1);
    RegLockRegistryFile();
    tvtest::WriteFile(args.at(1), "x");
    raise(SIGSTOP);
    return 0;
}

TEST_F(Tvreg, StatusNamesTheLastWriterAndAStoppedHolder) {
    // The shared objects live as long as some process is attached (the last
    // one to leave removes them), so a watcher keeps them for this test.
    ASSERT_EQ(Status({"set", "HKLM\\Held", "v", "sz", "1"}), 0);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const pid_t watcher = Start({"watch", "--interval", "20", "HKLM\\Held"}, "holder", fds[1]);
    close(fds[1]);
    std::string seen;
    ASSERT_TRUE(ReadUntil(fds[0], seen, "\n")) << seen;

    const pid_t writer = Start({"set", "HKLM\\S", "v", "sz", "1"}, "writer");
    ASSERT_EQ(Finish(writer, "writer").status, 0);
    Result st = Run({"status", "--json"});
    ASSERT_EQ(st.status, 0);
    json j = ParseJson(st.out);
    EXPECT_EQ(j["registry_file"], RegistryFile());
    EXPECT_EQ(j["last_writer_pid"], writer);
    EXPECT_EQ(j["lock_owner_pid"], 0);
    EXPECT_GE(j["version_stamp"].get<long>(), 1);
    EXPECT_GE(j["processes_attached"].get<long>(), 1);
    Result text = Run({"status"});
    EXPECT_TRUE(Has(text.out, "last writer:         pid " + std::to_string(writer)));

    // A holder stopped with the lock: status answers at once and names it.
    pid_t holder = tvtest::SpawnChild("hold_and_stop", {install_, dir_.file("held")});
    int ws = 0;
    ASSERT_EQ(holder, waitpid(holder, &ws, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(ws));
    const auto t0 = std::chrono::steady_clock::now();
    st = Run({"status", "--json"});
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(20));
    EXPECT_EQ(ParseJson(st.out)["lock_owner_pid"], holder) << st.out;
    kill(holder, SIGKILL);
    kill(holder, SIGCONT);
    EXPECT_EQ(128 + SIGKILL, tvtest::WaitChild(holder));

    kill(watcher, SIGTERM);
    EXPECT_EQ(Finish(watcher, "holder").status, 0);
    close(fds[0]);
}

TEST_F(Tvreg, WatchSeesAnotherProcessChangeAndEndsOnSigterm) {
    ASSERT_EQ(Status({"set", "HKLM\\Watched", "Level", "dword", "1"}), 0);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const pid_t watch = Start({"watch", "--interval", "20", "HKLM\\Watched"}, "watch", fds[1]);
    close(fds[1]);
    std::string seen;
    ASSERT_TRUE(ReadUntil(fds[0], seen, "\n")) << seen;
    EXPECT_TRUE(Has(seen, "watching HKEY_LOCAL_MACHINE\\Watched: 1 values, 0 subkeys\n"));

    ASSERT_EQ(Status({"set", "HKLM\\Watched", "Level", "dword", "2"}), 0);
    EXPECT_TRUE(ReadUntil(fds[0], seen, "value 'Level' changed: REG_DWORD 2 (0x2)")) << seen;
    ASSERT_EQ(Status({"set", "HKLM\\Watched\\Child", "x", "sz", "y"}), 0);
    EXPECT_TRUE(ReadUntil(fds[0], seen, "subkey 'Child' added")) << seen;
    ASSERT_EQ(Status({"delete", "HKLM\\Watched"}), 0);
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
