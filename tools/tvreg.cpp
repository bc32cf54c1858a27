// tvreg: the administrator's view of the shared registry.
//
// It is an ordinary client of the library: every read and change goes
// through the registry API, so it takes the registry semaphore, follows the
// version stamp and merges with other processes' writes exactly as a server
// does. It uses the installed public headers only.
//
// Exit status: 0 success, 1 something named was not found or an operation
// failed, 2 the command line was wrong. Every error is one line on standard
// error that starts with "tvreg: ".
//
// Two choices worth knowing:
//  - At exit it detaches from the registry's semaphore and shared page like
//    any process of the registry (CleanSystemResources): the last process
//    attached removes them, so after a run with no server attached the
//    version stamp starts again at 0. A server starting meanwhile is safe:
//    start-up attaches again when the objects go away under it.
//  - Imports hand the file write to the library's lazy writer (a thread it
//    starts for the import and cancels at the end, which writes once), so an
//    import of many keys rewrites the file once instead of once per key.
#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include <tvcommonutil.h>

#include "tvreg_text.h"

namespace {

using namespace tvreg;

constexpr int kExitOk = 0;
constexpr int kExitNotFound = 1;  // also: an operation that failed
constexpr int kExitUsage = 2;

// Access masks: only a mask with a bit of 0x60000 yields a handle that may
// change the key (the same masks CRegistry uses).
constexpr REGSAM kReadAccess = 0x190000;
constexpr REGSAM kWriteAccess = 0x3f0000;

const char kDefaultInstall[] = "/usr/lib/tavren/../";

// ---------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------

int Fail(int status, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int Fail(int status, const char* fmt, ...) {
    fflush(stdout);
    va_list ap;
    va_start(ap, fmt);
    std::string line = "tvreg: ";
    char buf[8192];
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    line += buf;
    // One line, whatever the caller's texts held.
    std::replace(line.begin(), line.end(), '\n', ' ');
    fprintf(stderr, "%s\n", line.c_str());
    return status;
}

int Usage(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
int Usage(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char buf[8192];
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return Fail(kExitUsage, "%s (see 'tvreg --help')", buf);
}

// ---------------------------------------------------------------------------
// Keys
// ---------------------------------------------------------------------------

// An open key handle, closed on scope exit (the close writes the file when
// the key was changed).
class OpenKey {
public:
    OpenKey() : h_(0), open_(false) {}
    ~OpenKey() { Close(); }
    OpenKey(const OpenKey&) = delete;
    OpenKey& operator=(const OpenKey&) = delete;

    LONG Open(const KeyArg& key, REGSAM access) {
        Close();
        LONG r = RegOpenKeyEx(HKEY_LOCAL_MACHINE, key.sub.c_str(), 0, access, &h_);
        open_ = r == ERROR_SUCCESS;
        return r;
    }
    LONG Create(const KeyArg& key) {
        Close();
        DWORD disposition = 0;
        LONG r = RegCreateKeyEx(HKEY_LOCAL_MACHINE, key.sub.c_str(), 0, nullptr, 0, kWriteAccess,
                                nullptr, &h_, &disposition);
        open_ = r == ERROR_SUCCESS;
        return r;
    }
    void Close() {
        if (open_) RegCloseKey(h_);
        open_ = false;
    }
    HKEY get() const { return h_; }
    bool IsOpen() const { return open_; }
    // The key's path as the registry spells it.
    std::string Path() const { return RegHKEYtoString(h_).c_str(); }

private:
    HKEY h_;
    bool open_;
};

// ---------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------

// Value `name` of an open key; the registry's result (13 when missing).
LONG ReadValue(HKEY h, const std::string& name, Value& v) {
    DWORD type = 0;
    DWORD size = 0;
    LONG r = RegQueryValueEx(h, name.c_str(), nullptr, &type, nullptr, &size);
    if (r != ERROR_SUCCESS) return r;
    std::vector<BYTE> data(size + 1, 0);
    for (int attempt = 0; attempt < 8; ++attempt) {
        size = static_cast<DWORD>(data.size());
        r = RegQueryValueEx(h, name.c_str(), nullptr, &type, data.data(), &size);
        if (r != ERROR_MORE_DATA) break;  // changed meanwhile: grow and retry
        data.assign(size + 1, 0);
    }
    if (r != ERROR_SUCCESS) return r;
    v.name = name;
    Decode(type, data, size, v);
    return ERROR_SUCCESS;
}

bool NameLess(const std::string& x, const std::string& y) {
    return strcasecmp(x.c_str(), y.c_str()) < 0;
}

// Every value of an open key, in name order (letter case ignored), the
// order of the file.
LONG ReadValues(HKEY h, std::vector<Value>& out) {
    std::vector<char> name(256);
    std::vector<BYTE> data(1024);
    for (DWORD i = 0;; ++i) {
        LONG r = ERROR_MORE_DATA;
        DWORD type = 0;
        DWORD cbName = 0;
        DWORD cbData = 0;
        for (int attempt = 0; attempt < 8 && r == ERROR_MORE_DATA; ++attempt) {
            cbName = static_cast<DWORD>(name.size());
            cbData = static_cast<DWORD>(data.size());
            r = RegEnumValue(h, i, name.data(), &cbName, nullptr, &type, data.data(), &cbData);
            if (r == ERROR_MORE_DATA) {  // both needs are stored
                name.resize(std::max<size_t>(name.size(), cbName + 1));
                data.resize(std::max<size_t>(data.size(), cbData + 1));
            }
        }
        if (r == ERROR_NO_MORE_ITEMS) {
            std::sort(out.begin(), out.end(),
                      [](const Value& x, const Value& y) { return NameLess(x.name, y.name); });
            return ERROR_SUCCESS;
        }
        if (r != ERROR_SUCCESS) return r;
        Value v;
        v.name.assign(name.data(), strnlen(name.data(), name.size()));
        Decode(type, data, cbData, v);
        out.push_back(v);
    }
}

// The subkey names of an open key, in name order (letter case ignored).
LONG ReadSubkeys(HKEY h, std::vector<std::string>& out) {
    char name[kLineMax + 2];
    for (DWORD i = 0;; ++i) {
        LONG r = RegEnumKey(h, i, name, sizeof name);
        if (r == ERROR_NO_MORE_ITEMS) {
            std::sort(out.begin(), out.end(), NameLess);
            return ERROR_SUCCESS;
        }
        if (r != ERROR_SUCCESS) return r;
        out.push_back(name);
    }
}

void PrintValueLine(const Value& v, const char* indent) {
    printf("%s%-22s %-12s %s\n", indent, v.name.c_str(), TypeName(v.type), DataText(v).c_str());
}

// ---------------------------------------------------------------------------
// The install directory and start-up
// ---------------------------------------------------------------------------

struct Install {
    std::string dir;  // ends with '/'
    std::string RegistryDir() const { return dir + "registry/"; }
    std::string RegistryFile() const { return RegistryDir() + "tv.registry"; }
    std::string TemplateFile() const { return RegistryFile() + ".template"; }
};

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

bool MakeDirs(const std::string& path) {
    std::string cur;
    for (size_t i = 0; i < path.size(); ++i) {
        cur += path[i];
        if ((path[i] == '/' || i + 1 == path.size()) && cur != "/") {
            if (mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST) return false;
        }
    }
    return true;
}

// An empty template: the empty tree as the writer lays it out (the root's
// one empty line). Written beside and renamed into place, so that a process
// starting meanwhile never copies a half-written template.
bool MakeEmptyTemplate(const Install& in) {
    std::string temp = in.RegistryDir() + ".tvreg-template-XXXXXX";
    std::vector<char> name(temp.begin(), temp.end());
    name.push_back('\0');
    int fd = mkstemp(name.data());
    if (fd < 0) return false;
    bool ok = write(fd, "\n", 1) == 1 && fchmod(fd, 0644) == 0;
    ok = close(fd) == 0 && ok;
    if (ok && link(name.data(), in.TemplateFile().c_str()) != 0 && errno != EEXIST) ok = false;
    unlink(name.data());
    return ok;
}

// Checks what the library's start-up would otherwise end the process for,
// with a message that says what to do, and starts the registry (or, without
// start, only points the library at it). Returns -1 to go on, or the exit
// status.
int StartRegistry(const Install& in, bool mayCreate, bool start = true) {
    const bool haveRegistry = Exists(in.RegistryFile());
    if (!haveRegistry && !Exists(in.TemplateFile())) {
        if (!mayCreate) {
            return Fail(kExitNotFound,
                        "no registry in %s: neither %s nor its template %s exists (tvreg set or "
                        "tvreg import makes an empty one)",
                        in.dir.c_str(), in.RegistryFile().c_str(), in.TemplateFile().c_str());
        }
        if (!MakeDirs(in.RegistryDir())) {
            int err = errno;
            return Fail(kExitNotFound, "cannot make the registry directory %s: %s",
                        in.RegistryDir().c_str(), strerror(err));
        }
        if (!MakeEmptyTemplate(in)) {
            int err = errno;
            return Fail(kExitNotFound, "cannot make the empty template %s: %s",
                        in.TemplateFile().c_str(), strerror(err));
        }
    }
    if (access(in.RegistryDir().c_str(), W_OK) != 0) {
        int err = errno;
        return Fail(kExitNotFound, "the registry directory %s is not writable: %s",
                    in.RegistryDir().c_str(), strerror(err));
    }
    if (haveRegistry && access(in.RegistryFile().c_str(), W_OK) != 0) {
        int err = errno;
        return Fail(kExitNotFound, "the registry file %s is not writable: %s",
                    in.RegistryFile().c_str(), strerror(err));
    }
    if (start) {
        InitRegistry(0, 1);
    } else {
        SetRegistryPath(in.dir.c_str());
    }
    return -1;
}

// ---------------------------------------------------------------------------
// Command line
// ---------------------------------------------------------------------------

struct Args {
    Install install;
    bool mayCreate = false;  // the command may make an empty registry
    std::string command;
    std::vector<std::string> positional;
    bool json = false;
    bool help = false;
    long interval = 200;
    bool intervalGiven = false;
};

// ---------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------

// Every command checks its arguments first and then starts the registry, so
// that a usage error never touches the install directory. -1 to go on.
int Ready(const Args& a) {
    return StartRegistry(a.install, a.mayCreate);
}

int OpenForReading(const Args& a, const std::string& keyText, OpenKey& key, KeyArg& arg) {
    std::string error;
    if (!ParseKey(keyText, arg, error)) return Usage("%s", error.c_str());
    int r = Ready(a);
    if (r >= 0) return r;
    // An empty registry has no HKEY_LOCAL_MACHINE key yet: it reads as an
    // empty key (the caller finds `key` not open).
    if (key.Open(arg, kReadAccess) != ERROR_SUCCESS && !arg.sub.empty()) {
        return Fail(kExitNotFound, "key not found: %s", arg.Display().c_str());
    }
    return -1;
}

int CmdQuery(const Args& a) {
    if (a.positional.empty() || a.positional.size() > 2) {
        return Usage("query takes KEY and an optional NAME");
    }
    OpenKey key;
    KeyArg arg;
    int r = OpenForReading(a, a.positional[0], key, arg);
    if (r >= 0) return r;
    const std::string path = key.IsOpen() ? key.Path() : std::string(kRoot);
    if (a.positional.size() == 2) {
        Value v;
        if (!key.IsOpen() || ReadValue(key.get(), a.positional[1], v) != ERROR_SUCCESS) {
            return Fail(kExitNotFound, "value not found: '%s' in %s", a.positional[1].c_str(),
                        path.c_str());
        }
        // Shown with the spelling the registry keeps.
        std::vector<Value> all;
        ReadValues(key.get(), all);
        for (const Value& each : all) {
            if (strcasecmp(each.name.c_str(), v.name.c_str()) == 0) v.name = each.name;
        }
        if (a.json) {
            printf("{\"key\": %s, \"name\": %s, \"type\": %s, \"data\": %s}\n",
                   JsonString(path).c_str(), JsonString(v.name).c_str(),
                   JsonString(TypeName(v.type)).c_str(), JsonData(v).c_str());
        } else {
            PrintValueLine(v, "");
        }
        return kExitOk;
    }
    std::vector<Value> values;
    if (key.IsOpen() && ReadValues(key.get(), values) != ERROR_SUCCESS) {
        return Fail(kExitNotFound, "cannot read the values of %s", path.c_str());
    }
    if (a.json) {
        printf("{\"key\": %s,\n  \"values\": %s}\n", JsonString(path).c_str(),
               JsonValues(values).c_str());
    } else {
        for (const Value& v : values) PrintValueLine(v, "");
    }
    return kExitOk;
}

int CmdList(const Args& a) {
    if (a.positional.size() != 1) return Usage("list takes exactly one KEY");
    OpenKey key;
    KeyArg arg;
    int r = OpenForReading(a, a.positional[0], key, arg);
    if (r >= 0) return r;
    const std::string path = key.IsOpen() ? key.Path() : std::string(kRoot);
    std::vector<std::string> subkeys;
    std::vector<Value> values;
    if (key.IsOpen() && (ReadSubkeys(key.get(), subkeys) != ERROR_SUCCESS ||
                         ReadValues(key.get(), values) != ERROR_SUCCESS)) {
        return Fail(kExitNotFound, "cannot enumerate %s", path.c_str());
    }
    if (a.json) {
        std::string s = "[";
        for (size_t i = 0; i < subkeys.size(); ++i) s += (i ? ", " : "") + JsonString(subkeys[i]);
        s += "]";
        printf("{\"key\": %s,\n  \"subkeys\": %s,\n  \"values\": %s}\n", JsonString(path).c_str(),
               s.c_str(), JsonValues(values).c_str());
        return kExitOk;
    }
    printf("%s\n", path.c_str());
    printf("subkeys (%zu):\n", subkeys.size());
    for (const std::string& s : subkeys) printf("  %s\n", s.c_str());
    printf("values (%zu):\n", values.size());
    for (const Value& v : values) PrintValueLine(v, "  ");
    return kExitOk;
}

int CmdSet(const Args& a) {
    if (a.positional.size() < 3) return Usage("set takes KEY NAME (sz|dword|multi_sz) DATA...");
    KeyArg arg;
    std::string error;
    if (!ParseKey(a.positional[0], arg, error)) return Usage("%s", error.c_str());
    const std::string& name = a.positional[1];
    std::string type = a.positional[2];
    std::transform(type.begin(), type.end(), type.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    if (type.compare(0, 4, "reg_") == 0) type = type.substr(4);
    std::vector<std::string> data(a.positional.begin() + 3, a.positional.end());
    unsigned long number = 0;
    if (type == "sz" || type == "dword") {
        if (data.size() != 1) return Usage("%s takes exactly one DATA", type.c_str());
    } else if (type != "multi_sz") {
        return Usage("unknown type '%s': use sz, dword or multi_sz", a.positional[2].c_str());
    }
    if (type == "dword" && !ParseNumber(data[0], number)) {
        return Usage("'%s' is not a number from 0 to %lu", data[0].c_str(), ULONG_MAX);
    }
    if (!CheckValueText(name, type, data, number, error)) return Usage("%s", error.c_str());
    int ready = Ready(a);
    if (ready >= 0) return ready;

    OpenKey key;
    if (key.Create(arg) != ERROR_SUCCESS) {
        return Fail(kExitNotFound, "cannot create key %s", arg.Display().c_str());
    }
    const std::string path = key.Path();
    LONG set;
    if (type == "dword") {
        set = RegSetValueEx(key.get(), name.c_str(), 0, REG_DWORD,
                            reinterpret_cast<const BYTE*>(&number), sizeof number);
    } else if (type == "sz") {
        set = RegSetValueEx(key.get(), name.c_str(), 0, REG_SZ,
                            reinterpret_cast<const BYTE*>(data[0].c_str()),
                            static_cast<DWORD>(data[0].size() + 1));
    } else {
        // Handed over as the text the registry holds (strings joined by
        // blanks, one zero at the end). The usual list form, with a zero
        // after every string and another at the end, would be held with a
        // trailing blank that the next read of the file trims away, so the
        // file would not read back as written.
        const std::string text = StoredText(type, data, number);
        set = RegSetValueEx(key.get(), name.c_str(), 0, REG_MULTI_SZ,
                            reinterpret_cast<const BYTE*>(text.c_str()),
                            static_cast<DWORD>(text.size() + 1));
    }
    if (set != ERROR_SUCCESS) {
        return Fail(kExitNotFound, "the registry refused value '%s' of %s", name.c_str(),
                    path.c_str());
    }
    key.Close();  // writes the file
    return kExitOk;
}

int CmdDelete(const Args& a) {
    if (a.positional.empty() || a.positional.size() > 2) {
        return Usage("delete takes KEY and an optional NAME");
    }
    KeyArg arg;
    std::string error;
    if (!ParseKey(a.positional[0], arg, error)) return Usage("%s", error.c_str());
    if (a.positional.size() == 1 && arg.sub.empty()) {
        return Usage("HKEY_LOCAL_MACHINE itself cannot be deleted");
    }
    int ready = Ready(a);
    if (ready >= 0) return ready;
    if (a.positional.size() == 2) {
        OpenKey key;
        if (key.Open(arg, kWriteAccess) != ERROR_SUCCESS) {
            return Fail(kExitNotFound, "key not found: %s", arg.Display().c_str());
        }
        const std::string path = key.Path();
        const std::string& name = a.positional[1];
        Value v;
        if (ReadValue(key.get(), name, v) != ERROR_SUCCESS) {
            return Fail(kExitNotFound, "value not found: '%s' in %s", name.c_str(), path.c_str());
        }
        if (RegDeleteValue(key.get(), name.c_str()) != ERROR_SUCCESS) {
            return Fail(kExitNotFound, "cannot delete value '%s' of %s", name.c_str(),
                        path.c_str());
        }
        return kExitOk;  // the close writes the file
    }
    // Deleted as a child of its parent (the parent of a top-level key is
    // the HKEY_LOCAL_MACHINE key itself), through a write handle.
    KeyArg parent;
    std::string child = arg.sub;
    const size_t cut = arg.sub.rfind('\\');
    if (cut != std::string::npos) {
        parent.sub = arg.sub.substr(0, cut);
        child = arg.sub.substr(cut + 1);
    }
    OpenKey key;
    if (key.Open(parent, kWriteAccess) != ERROR_SUCCESS ||
        RegDeleteKey(key.get(), child.c_str()) != ERROR_SUCCESS) {
        return Fail(kExitNotFound, "key not found: %s", arg.Display().c_str());
    }
    return kExitOk;
}

int WriteAll(const std::string& text) {
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
        int err = errno;
        return Fail(kExitNotFound, "cannot write to standard output: %s", strerror(err));
    }
    return kExitOk;
}

int CmdExport(const Args& a) {
    if (a.positional.size() > 1) return Usage("export takes at most one KEY");
    KeyArg arg;  // no KEY: the root, the whole registry
    std::string error;
    if (!a.positional.empty() && !ParseKey(a.positional[0], arg, error)) {
        return Usage("%s", error.c_str());
    }
    int ready = Ready(a);
    if (ready >= 0) return ready;
    CKWString text;
    OpenKey key;
    if (!arg.sub.empty() && key.Open(arg, kReadAccess) != ERROR_SUCCESS) {
        return Fail(kExitNotFound, "key not found: %s", arg.Display().c_str());
    }
    // The HKEY_LOCAL_MACHINE key itself is exported as the whole registry:
    // the file's first line (the unnamed root's) belongs to it.
    const HKEY h = arg.sub.empty() ? HKEY_LOCAL_MACHINE : key.get();
    if (RegExportKey(h, &text) != ERROR_SUCCESS) {
        return Fail(kExitNotFound, "cannot export %s", arg.Display().c_str());
    }
    return WriteAll(text.c_str());
}

// --- import ------------------------------------------------------------------

// The text's lines; binary is set (and reading stops) at a NUL byte, which
// no text of the registry's form holds.
bool ReadLines(FILE* f, std::vector<std::string>& lines, bool& binary) {
    std::string cur;
    int c;
    binary = false;
    while ((c = getc(f)) != EOF) {
        if (c == '\0') {
            binary = true;
            return true;
        }
        if (c == '\n') {
            lines.push_back(cur);
            cur.clear();
        } else {
            cur += static_cast<char>(c);
            // A longer line continues as the next one, as the reader has it.
            if (cur.size() == kLineMax) {
                lines.push_back(cur);
                cur.clear();
            }
        }
    }
    if (!cur.empty()) lines.push_back(cur);
    return !ferror(f);
}

DWORD LazyWriter(void* interval) {
    return RegLazyWriteThread(interval);
}

void* LazyWriterThread(void* interval) {
    LazyWriter(interval);
    return nullptr;
}

int CmdImport(const Args& a) {
    if (a.positional.size() != 1) return Usage("import takes exactly one FILE");
    const std::string& file = a.positional[0];
    FILE* f = file == "-" ? stdin : fopen(file.c_str(), "r");
    if (f == nullptr) {
        int err = errno;
        return Fail(kExitNotFound, "cannot open %s: %s", file.c_str(), strerror(err));
    }
    std::vector<std::string> lines;
    bool binary = false;
    const bool readOk = ReadLines(f, lines, binary);
    if (f != stdin) fclose(f);
    if (!readOk) return Fail(kExitNotFound, "cannot read %s", file.c_str());
    if (binary) {
        return Fail(kExitNotFound, "%s is not a text in the registry's form (it holds a NUL byte)",
                    file.c_str());
    }

    std::vector<ImportKey> keys;
    int ignored = 0;
    auto ignore = [&](int no, const char* why) {
        fprintf(stderr, "tvreg: %s:%d: line ignored: %s\n", file.c_str(), no, why);
        ++ignored;
    };
    bool inKey = false;  // value lines belong to the last usable key line
    for (size_t i = 0; i < lines.size(); ++i) {
        std::string line = lines[i];
        const int no = static_cast<int>(i + 1);
        // The reader takes a CR before the line feed for part of the line end.
        if (!line.empty() && line[line.size() - 1] == '\r') line.erase(line.size() - 1);
        if (line.empty() || line[0] == '#') continue;
        if (line.find(kRoot) != std::string::npos) {
            inKey = false;
            const size_t eq = line.find('=');
            if (eq == std::string::npos) {
                ignore(no, "key line without '='");
                continue;
            }
            const std::string path = line.substr(0, eq);
            ImportKey k;
            k.line = no;
            std::string error;
            if (path.compare(0, strlen(kRoot), kRoot) != 0 ||
                (path.size() > strlen(kRoot) && path[strlen(kRoot)] != '\\') ||
                !ParseKey(path, k.key, error, true)) {
                ignore(no, "key line not below HKEY_LOCAL_MACHINE");
                continue;
            }
            keys.push_back(k);
            inKey = true;
            continue;
        }
        if (!inKey) {
            ignore(no, "value line outside any key");
            continue;
        }
        ImportValue v;
        if (!ParseValueLine(line, v)) {
            ignore(no, "not 'name=data;TYPE'");
            continue;
        }
        v.line = no;
        keys.back().values.push_back(v);
    }

    int ready = Ready(a);
    if (ready >= 0) return ready;

    // Closing a changed key would write the file; with the lazy writer
    // running it only marks it, and cancelling the writer writes once.
    static int interval = 3600 * 1000;
    pthread_t writer;
    const bool lazy = pthread_create(&writer, nullptr, LazyWriterThread, &interval) == 0;
    int status = ignored > 0 ? kExitNotFound : kExitOk;
    for (const ImportKey& k : keys) {
        OpenKey key;
        if (key.Create(k.key) != ERROR_SUCCESS) {
            status = Fail(kExitNotFound, "%s:%d: cannot create key %s", file.c_str(), k.line,
                          k.key.Display().c_str());
            continue;
        }
        if (k.values.empty()) continue;
        for (const ImportValue& v : k.values) {
            LONG r;
            if (v.type == REG_DWORD) {
                const unsigned long n = strtoul(v.data.c_str(), nullptr, 0);
                r = RegSetValueEx(key.get(), v.name.c_str(), 0, REG_DWORD,
                                  reinterpret_cast<const BYTE*>(&n), sizeof n);
            } else {
                // A REG_MULTI_SZ passes its blanks through as they are: the
                // registry holds it as this very text.
                r = RegSetValueEx(key.get(), v.name.c_str(), 0, v.type,
                                  reinterpret_cast<const BYTE*>(v.data.c_str()),
                                  static_cast<DWORD>(v.data.size() + 1));
            }
            if (r != ERROR_SUCCESS) {
                status = Fail(kExitNotFound, "%s:%d: the registry refused value '%s' of %s",
                              file.c_str(), v.line, v.name.c_str(), key.Path().c_str());
            }
        }
    }
    if (lazy) {
        pthread_cancel(writer);
        pthread_join(writer, nullptr);  // the cancelled writer writes once
    }
    return status;
}

// --- watch -------------------------------------------------------------------

struct Snapshot {
    bool exists = false;
    std::string path;
    std::map<std::string, Value> values;
    std::vector<std::string> subkeys;
};

Snapshot Take(const KeyArg& arg) {
    Snapshot s;
    OpenKey key;
    if (key.Open(arg, kReadAccess) != ERROR_SUCCESS) return s;
    std::vector<Value> values;
    if (ReadValues(key.get(), values) != ERROR_SUCCESS ||
        ReadSubkeys(key.get(), s.subkeys) != ERROR_SUCCESS) {
        return s;
    }
    s.exists = true;
    s.path = key.Path();
    for (const Value& v : values) s.values[v.name] = v;
    return s;
}

bool SameValue(const Value& x, const Value& y) {
    return x.type == y.type && x.sz == y.sz && x.number == y.number && x.strings == y.strings;
}

std::string Describe(const Value& v) {
    return std::string(TypeName(v.type)) + " " + DataText(v);
}

// What changed from old to now, as "; "-separated parts; empty when nothing.
std::string Difference(const Snapshot& old, const Snapshot& now) {
    std::vector<std::string> parts;
    for (const auto& kv : now.values) {
        auto it = old.values.find(kv.first);
        if (it == old.values.end()) {
            parts.push_back("value '" + kv.first + "' added: " + Describe(kv.second));
        } else if (!SameValue(it->second, kv.second)) {
            parts.push_back("value '" + kv.first + "' changed: " + Describe(kv.second) + " (was " +
                            Describe(it->second) + ")");
        }
    }
    for (const auto& kv : old.values) {
        if (now.values.count(kv.first) == 0) parts.push_back("value '" + kv.first + "' deleted");
    }
    for (const std::string& k : now.subkeys) {
        if (std::find(old.subkeys.begin(), old.subkeys.end(), k) == old.subkeys.end()) {
            parts.push_back("subkey '" + k + "' added");
        }
    }
    for (const std::string& k : old.subkeys) {
        if (std::find(now.subkeys.begin(), now.subkeys.end(), k) == now.subkeys.end()) {
            parts.push_back("subkey '" + k + "' removed");
        }
    }
    std::string out;
    for (const std::string& p : parts) out += (out.empty() ? "" : "; ") + p;
    return out;
}

void Emit(const char* event, const std::string& rest) {
    char stamp[32];
    time_t t = time(nullptr);
    struct tm tmv;
    localtime_r(&t, &tmv);
    strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &tmv);
    printf("%s %s %s\n", stamp, event, rest.c_str());
    fflush(stdout);
}

std::string Counts(const Snapshot& s) {
    return std::to_string(s.values.size()) + " values, " + std::to_string(s.subkeys.size()) +
           " subkeys";
}

int CmdWatch(const Args& a) {
    if (a.positional.size() != 1) return Usage("watch takes exactly one KEY");
    KeyArg arg;
    std::string error;
    if (!ParseKey(a.positional[0], arg, error)) return Usage("%s", error.c_str());
    int ready = Ready(a);
    if (ready >= 0) return ready;

    // The signals that end the watch are taken synchronously between two
    // looks: no handler, and no signal lost.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    Snapshot last = Take(arg);
    if (!last.exists) return Fail(kExitNotFound, "key not found: %s", arg.Display().c_str());
    const std::string shown = last.path;
    Emit("watching", shown + ": " + Counts(last));
    // A change written by any process wakes the wait at once (the library's
    // key notification), and so does a signal (taken by a thread of its
    // own); the interval is only the longest time between two looks.
    static HANDLE changed = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    static sigset_t ending = stop;
    static int stopped = 0;
    pthread_t taker;
    pthread_create(
        &taker, nullptr,
        [](void*) -> void* {
            int sig = 0;
            sigwait(&ending, &sig);
            __atomic_store_n(&stopped, 1, __ATOMIC_RELEASE);
            SetEvent(changed);
            return nullptr;
        },
        nullptr);
    OpenKey watched;
    watched.Open(arg, kReadAccess);
    for (;;) {
        if (watched.IsOpen()) RegNotifyChangeKeyValue(watched.get(), TRUE, 0, changed, TRUE);
        WaitForSingleObjectEx(changed, static_cast<DWORD>(a.interval), FALSE);
        if (__atomic_load_n(&stopped, __ATOMIC_ACQUIRE)) break;
        Snapshot now = Take(arg);
        if (now.exists != last.exists) {
            if (now.exists) {
                watched.Open(arg, kReadAccess);
            } else {
                watched.Close();
            }
        }
        if (now.exists != last.exists) {
            if (now.exists) {
                Emit("created", shown + ": " + Counts(now));
            } else {
                Emit("deleted", shown);
            }
        } else if (now.exists) {
            const std::string diff = Difference(last, now);
            if (!diff.empty()) Emit("changed", shown + ": " + diff);
        }
        last = now;
    }
    pthread_join(taker, nullptr);
    return kExitOk;
}

// --- status ------------------------------------------------------------------

int CmdStatus(const Args& a) {
    if (!a.positional.empty()) return Usage("status takes no arguments");
    // Not started: the status must answer while another process holds the
    // registry lock, however long.
    int ready = StartRegistry(a.install, false, false);
    if (ready >= 0) return ready;
    RegStatusInfo s;
    if (RegQueryStatus(&s) != ERROR_SUCCESS) {
        return Fail(kExitNotFound, "the registry's shared state is not available");
    }
    const std::string file = GetRegistryPath().c_str();
    if (a.json) {
        printf(
            "{\"registry_file\": %s, \"version_stamp\": %lu, \"last_writer_pid\": %ld, "
            "\"lock_owner_pid\": %ld, \"attach_count\": %ld, \"processes_attached\": %ld}\n",
            JsonString(file).c_str(), s.versionStamp, s.lastWriter, s.lockOwner, s.attachCount,
            s.processesAttached);
        return kExitOk;
    }
    printf("registry file:       %s\n", file.c_str());
    printf("version stamp:       %lu\n", s.versionStamp);
    if (s.lastWriter != 0) {
        printf("last writer:         pid %ld\n", s.lastWriter);
    } else {
        printf("last writer:         none since the shared page was made\n");
    }
    if (s.lockOwner != 0) {
        printf("lock owner:          pid %ld\n", s.lockOwner);
    } else {
        printf("lock owner:          none (free)\n");
    }
    printf("attach count:        %ld\n", s.attachCount);
    printf("processes attached:  %ld\n", s.processesAttached);
    return kExitOk;
}

// ---------------------------------------------------------------------------
// main
// ---------------------------------------------------------------------------

struct Command {
    const char* name;
    int (*run)(const Args&);
    bool mayCreate;  // may make an empty registry in an empty install dir
    bool json;       // takes --json
};

const Command kRun[] = {
    {"query", CmdQuery, false, true},    {"list", CmdList, false, true},
    {"set", CmdSet, true, false},        {"delete", CmdDelete, false, false},
    {"export", CmdExport, false, false}, {"import", CmdImport, true, false},
    {"watch", CmdWatch, false, false},   {"status", CmdStatus, false, true},
};

}  // namespace

int main(int argc, char** argv) {
    Args a;
    std::string root;
    bool rootGiven = false;
    bool optionsDone = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        // Options are long ones (and -h); other words starting with '-' are
        // arguments, so that "-1" reaches the dword check.
        if (!optionsDone && (arg == "-h" || arg.compare(0, 2, "--") == 0)) {
            if (arg == "--") {
                optionsDone = true;
            } else if (arg == "--help" || arg == "-h") {
                a.help = true;
            } else if (arg == "--json") {
                a.json = true;
            } else if (arg == "--root" || arg.compare(0, 7, "--root=") == 0) {
                if (arg == "--root") {
                    if (++i >= argc) return Usage("--root needs a directory");
                    root = argv[i];
                } else {
                    root = arg.substr(7);
                }
                if (root.empty()) return Usage("--root needs a directory");
                rootGiven = true;
            } else if (arg == "--interval" || arg.compare(0, 11, "--interval=") == 0) {
                std::string v;
                if (arg == "--interval") {
                    if (++i >= argc) return Usage("--interval needs a number of milliseconds");
                    v = argv[i];
                } else {
                    v = arg.substr(11);
                }
                unsigned long ms = 0;
                if (!ParseNumber(v, ms) || ms < 10 || ms > 60000) {
                    return Usage("--interval takes 10 to 60000 milliseconds, not '%s'", v.c_str());
                }
                a.interval = static_cast<long>(ms);
                a.intervalGiven = true;
            } else {
                return Usage("unknown option '%s'", arg.c_str());
            }
            continue;
        }
        if (a.command.empty()) {
            a.command = arg;
        } else {
            a.positional.push_back(arg);
        }
    }

    if (a.command == "help") {
        if (a.positional.empty()) {
            PrintAllHelp();
            return kExitOk;
        }
        a.command = a.positional[0];
        a.positional.clear();
        a.help = true;
    }
    if (a.command.empty()) {
        if (a.help) {
            PrintAllHelp();
            return kExitOk;
        }
        return Usage("no command given");
    }
    const Command* cmd = nullptr;
    for (const Command& c : kRun) {
        if (a.command == c.name) cmd = &c;
    }
    if (cmd == nullptr) return Usage("unknown command '%s'", a.command.c_str());
    if (a.help) {
        PrintCommandHelp(*FindCommand(cmd->name));
        return kExitOk;
    }
    if (a.json && !cmd->json) return Usage("--json is not taken by %s", cmd->name);
    if (a.intervalGiven && a.command != "watch") return Usage("--interval is taken by watch only");

    Install& in = a.install;
    if (rootGiven) {
        setenv("TV_REGISTRY", root.c_str(), 1);  // read by the library at start-up
        in.dir = root;
    } else {
        const char* env = getenv("TV_REGISTRY");
        in.dir = env != nullptr ? env : kDefaultInstall;
    }
    if (in.dir.empty() || in.dir[in.dir.size() - 1] != '/') in.dir += '/';
    a.mayCreate = cmd->mayCreate;
    const int rc = cmd->run(a);
    // Leave the shared objects as every process of the registry does: the
    // last one to leave removes them (nothing happens if none were attached).
    CleanSystemResources();
    return rc;
}
