// The registry file: its reader, its writer and the value-line format.
//
// The file is plain text, one record a line: comments ("#...") and empty
// lines, key lines (any line containing HKEY_LOCAL_MACHINE: "path=number"),
// and value lines ("name=data;TYPE") that belong to the key line above
// them. There is no escaping. The writer therefore refuses, at the API,
// anything that would not read back as one line of its own (see
// ValueLineFits): a caller's text can never turn into extra lines or a
// stray key line and shift other keys' values.
//
// A write never modifies the registry file in place. The whole tree goes to
// a fresh file beside it, which is flushed to disk and renamed over the
// registry, all under the registry semaphore: a reader (in this or another
// process) opens either the old file or the new one, each complete, and a
// writer killed at any point leaves at worst a stray temporary file. An
// empty or short temporary file is never renamed.
#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <ostream>

#include "foundation/clock_internal.h"
#include "foundation/diagnostics_internal.h"
#include "registry/key_tree.h"
#include "registry/registry_format.h"
#include "registry/registry_shared.h"
#include "registry/testing.h"
#include "tvcommonutil/files.h"
#include "tvcommonutil/services.h"

namespace tv {
namespace detail {

namespace {

const char kKeyMarker[] = "HKEY_LOCAL_MACHINE";

// Blank, tab, and the line and page controls \n \v \f \r (9 to 13).
bool IsBlank(char c) {
    return c == ' ' || static_cast<unsigned char>(c - '\t') <= '\r' - '\t';
}
const char kBlanks[] = " \t\n\v\f\r";

// strstr(line, kKeyMarker) != nullptr, cheaper on the many lines without
// an 'H' at all.
bool HasKeyMarker(const char* line) {
    for (const char* h = strchr(line, 'H'); h != nullptr; h = strchr(h + 1, 'H')) {
        if (strncmp(h, kKeyMarker, sizeof kKeyMarker - 1) == 0) return true;
    }
    return false;
}

// Reads lines as FileLock::readline does (up to size - 1 bytes; a line feed
// ends the line and is consumed; a longer line continues as the next one),
// but from a block buffer instead of one read call per byte.
class LineReader {
public:
    explicit LineReader(int fd) : fd_(fd), pos_(0), len_(0), error_(0), done_(false) {}
    int error() const { return error_; }  // errno of a failed read, or 0

    // The next line, NUL-terminated and writable: in place in the block
    // buffer when it lies there whole, else copied to spare (kRegLineMax + 1
    // bytes). Null at end of file or on a read error.
    char* Next(char* spare) {
        if (pos_ == len_ && !Fill()) return nullptr;
        char* from = buf_ + pos_;
        const size_t take = std::min(len_ - pos_, static_cast<size_t>(kRegLineMax));
        char* nl = static_cast<char*>(memchr(from, '\n', take));
        if (nl == nullptr) return Copy(spare, kRegLineMax + 1) > 0 ? spare : nullptr;
        size_t k = static_cast<size_t>(nl - from);
        pos_ += k + 1;
        if (k > 0 && from[k - 1] == '\r') --k;  // a CR LF line end reads as LF
        from[k] = '\0';
        return from;
    }

    // How many lines lie buffered before the next empty one (the end of a
    // key's block), at most `most`: a key's values are reserved in one go
    // instead of regrowing as they are read. Only a hint.
    size_t LinesBeforeBlank(size_t most) const {
        size_t n = 0;
        const char* p = buf_ + pos_;
        const char* end = buf_ + len_;
        while (n < most && p < end && *p != '\n') {
            const char* nl =
                static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
            if (nl == nullptr) break;
            ++n;
            p = nl + 1;
        }
        return n;
    }

private:
    // Bytes stored plus one, or -1 at end of file before any byte or on a
    // read error.
    int Copy(char* out, int size) {
        size_t n = 0;
        const size_t room = static_cast<size_t>(size - 1);
        while (n < room) {
            if (pos_ == len_ && !Fill()) {
                if (n == 0) {
                    out[0] = '\0';
                    return -1;
                }
                break;
            }
            const size_t take = std::min(len_ - pos_, room - n);
            const char* from = buf_ + pos_;
            const char* nl = static_cast<const char*>(memchr(from, '\n', take));
            const size_t k = nl != nullptr ? static_cast<size_t>(nl - from) : take;
            memcpy(out + n, from, k);
            n += k;
            pos_ += k;
            if (nl != nullptr) {
                ++pos_;
                if (n > 0 && out[n - 1] == '\r') --n;  // a CR LF line end reads as LF
                break;
            }
        }
        out[n] = '\0';
        return static_cast<int>(n) + 1;
    }

    bool Fill() {
        if (done_) return false;
        for (;;) {
            ssize_t r = read(fd_, buf_, sizeof buf_);
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) error_ = errno;
            if (r <= 0) {
                done_ = true;
                return false;
            }
            pos_ = 0;
            len_ = static_cast<size_t>(r);
            return true;
        }
    }

    int fd_;
    size_t pos_;
    size_t len_;
    int error_;
    bool done_;
    char buf_[64 * 1024];
};

// "%-22s\t%22s\t%s" of name + "=", data + ";" and the type word. A value
// read from a hand-written line may be too long for that layout (the
// padding and the tabs could push it past what the reader takes in one
// line); it is then written without them, "name=data;TYPE", which is never
// longer than the line it was read from.
void AppendValueLine(std::string& out, const RegValue& v) {
    const size_t width = 22;
    const char* word = RegTypeWord(v.GetType());
    const size_t wordLen = strlen(word);
    const ValueText name = v.GetName();
    const ValueText data = v.GetData();
    const size_t nameField = name.size + 1;
    const size_t dataField = data.size + 1;
    const size_t padded = std::max(width, nameField) + 1 + std::max(width, dataField) + 1 + wordLen;
    out.append(name.text, name.size);
    out += '=';
    if (padded > static_cast<size_t>(kRegLineMax)) {
        out.append(data.text, data.size);
        out += ';';
    } else {
        if (nameField < width) out.append(width - nameField, ' ');
        out += '\t';
        if (dataField < width) out.append(width - dataField, ' ');
        out.append(data.text, data.size);
        out += ';';
        out += '\t';
    }
    out.append(word, wordLen);
    out += '\n';
}

// A key number in decimal, as _ltoa writes the numbers a key can have
// (1..KEY_INDEX_MASK); anything else goes through _ltoa itself.
void AppendIndex(std::string& out, long index) {
    if (index <= 0 || index > KEY_INDEX_MASK) {
        char num[40];
        out += _ltoa(index, num, 10);
        return;
    }
    char digits[16];
    int n = 0;
    for (unsigned long v = static_cast<unsigned long>(index); v != 0; v /= 10) {
        digits[n++] = static_cast<char>('0' + v % 10);
    }
    while (n > 0) out += digits[--n];
}

const char kTempPrefix[] = ".tv.registry.tmp.";

}  // namespace

CKWString RegistryTempName(const CKWString& dir) {
    static unsigned long counter = 0;
    std::string base = dir.str();
    while (base.size() > 1 && base[base.size() - 1] == '/') base.erase(base.size() - 1);
    CKWString name;
    name.Format("%s/%s%ld.%lx.%lx", base.c_str(), kTempPrefix, static_cast<long>(getpid()),
                static_cast<unsigned long>(GetTickCount()),
                __atomic_add_fetch(&counter, 1, __ATOMIC_RELAXED));
    return name;
}

// The pid in the name decides: a process that no longer exists writes
// nothing more. A pid that is alive, or that this process may not signal,
// keeps its file (at worst a reused pid leaves one stray file for longer).
void RemoveStaleTempFiles(const CKWString& dir) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    const size_t n = sizeof kTempPrefix - 1;
    while (const dirent* e = readdir(d)) {
        if (strncmp(e->d_name, kTempPrefix, n) != 0) continue;
        char* end = nullptr;
        const long pid = strtol(e->d_name + n, &end, 10);
        if (pid <= 0 || end == nullptr || *end != '.') continue;
        if (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
        if (unlinkat(dirfd(d), e->d_name, 0) != 0) {
            // Another starting process removed it first.
        }
    }
    closedir(d);
}

namespace {

// The owner and mode a copy of `source` gets: the registry's owner when
// the template told it, and a mode never more open than the source's (a
// backup never shows more than the registry it copies). Only a privileged
// process can give a file away; a failed chown leaves the writer's own.
void ApplyOwner(int fd, const struct stat& source) {
    uid_t uid = source.st_uid;
    gid_t gid = source.st_gid;
    mode_t mode = source.st_mode;
    if (RegistryFileOwner(uid, gid, mode)) mode &= source.st_mode;
    if (fchown(fd, uid, gid) != 0) {
    }
    if (fchmod(fd, mode & 07777) != 0) {
    }
}

bool CopyBytes(int in, int out) {
    char buf[64 * 1024];
    for (;;) {
        ssize_t n = read(in, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n == 0;
        for (ssize_t done = 0; done < n;) {
            ssize_t w = write(out, buf + done, static_cast<size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w < 0) return false;
            done += w;
        }
    }
}

std::string Reason(const char* path, int err) {
    return std::string(path) + ": " + (err == ELOOP ? "it is a symbolic link" : strerror(err));
}

}  // namespace

bool CopyRegistryFile(const char* from, const char* to, bool replace, bool fromLink,
                      std::string& why) {
    const int in = open(from, O_RDONLY | O_CLOEXEC | (fromLink ? 0 : O_NOFOLLOW));
    if (in < 0) {
        why = Reason(from, errno);
        return false;
    }
    struct stat st;
    if (fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
        why = std::string(from) + ": not a regular file";
        close(in);
        return false;
    }
    std::string dir = to;
    dir = dir.rfind('/') == std::string::npos ? "." : dir.substr(0, dir.rfind('/'));
    CKWString temp;
    int out = -1;
    for (int attempt = 0; attempt < 20 && out < 0; ++attempt) {
        temp = RegistryTempName(dir);
        out = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (out < 0 && errno != EEXIST) break;
    }
    if (out < 0) {
        why = Reason(temp.c_str(), errno);
        close(in);
        return false;
    }
    bool ok = CopyBytes(in, out);
    if (ok) ApplyOwner(out, st);
    ok = ok && fsync(out) == 0;
    if (!ok) why = Reason(temp.c_str(), errno);
    ok = close(out) == 0 && ok;
    close(in);
    struct stat target;
    if (ok && replace) {
        // rename() would replace a link rather than follow it, but a link
        // where the registry keeps a file is somebody's doing: say so.
        if (lstat(to, &target) == 0 && S_ISLNK(target.st_mode)) {
            why = Reason(to, ELOOP) + "; left as it is";
            ok = false;
        } else if (rename(temp.c_str(), to) != 0) {
            why = Reason(to, errno);
            ok = false;
        }
    } else if (ok && link(temp.c_str(), to) != 0 && errno != EEXIST) {
        // No hard links on this file system: a rename, unless `to` appeared.
        if (lstat(to, &target) == 0 || errno != ENOENT || rename(temp.c_str(), to) != 0) {
            why = Reason(to, errno);
            ok = false;
        }
    }
    unlink(temp.c_str());  // after a rename, a name nobody else uses: gone already
    return ok;
}

const char* RegTypeWord(unsigned long type) {
    switch (type) {
        case REG_SZ:
            return "REG_SZ";
        case REG_DWORD:
            return "REG_DWORD";
        case REG_MULTI_SZ:
            return "REG_MULTI_SZ";
        default:
            return nullptr;
    }
}

const char* ValueLineProblem(const char* name, const char* data, unsigned long type) {
    const char* word = RegTypeWord(type);
    if (word == nullptr) return "the type is not REG_SZ, REG_DWORD or REG_MULTI_SZ";
    if (name == nullptr) name = "";
    if (data == nullptr) data = "";
    const size_t nameLen = strlen(name);
    const size_t dataLen = strlen(data);
    if (strpbrk(name, "\r\n") != nullptr) return "a value name cannot contain a line end";
    if (name[0] == '#') {
        return "a value name cannot start with '#' (the line would read as a comment)";
    }
    if (strchr(name, '=') != nullptr) {
        return "a value name cannot contain '=' (the file ends the name at the first '=')";
    }
    // The reader splits at the first '=' and the last ';' and trims what it
    // takes for blanks around the data: such text would come back renamed
    // or cut. (A multi-string's trailing blank is its own separator,
    // trimmed on purpose.)
    if (nameLen > 0 && (IsBlank(name[0]) || IsBlank(name[nameLen - 1]))) {
        return "a value name cannot start or end with white space";
    }
    if (strpbrk(data, "\r\n") != nullptr) return "data cannot contain a line end";
    if (strchr(data, ';') != nullptr) {
        return "data cannot contain ';' (the file ends the data at the first ';')";
    }
    if (type != REG_MULTI_SZ && dataLen > 0 && (IsBlank(data[0]) || IsBlank(data[dataLen - 1]))) {
        return "data cannot start or end with white space (the file trims it)";
    }
    if (strstr(name, kKeyMarker) != nullptr || strstr(data, kKeyMarker) != nullptr) {
        return "neither name nor data may contain the text HKEY_LOCAL_MACHINE (it marks key lines)";
    }
    const size_t nameField = std::max<size_t>(22, nameLen + 1);
    const size_t dataField = std::max<size_t>(22, dataLen + 1);
    if (nameField + 1 + dataField + 1 + strlen(word) > static_cast<size_t>(kRegLineMax)) {
        return "the value is too long for one line of the registry file (4095 characters)";
    }
    return nullptr;
}

bool ValueLineFits(const CKWString& name, const CKWString& data, unsigned long type) {
    return ValueLineProblem(name.c_str(), data.c_str(), type) == nullptr;
}

static bool StartsAtRoot(const char* path) {
    const size_t n = sizeof kKeyMarker - 1;
    return strncmp(path, kKeyMarker, n) == 0 && (path[n] == '\0' || path[n] == '\\');
}

const char* KeyPathProblem(const char* path) {
    if (strchr(path, '\n') != nullptr) return "a key name cannot contain a line end";
    if (strchr(path, '=') != nullptr) return "a key name cannot contain '='";
    // "=" and up to ten digits of the number.
    if (strlen(path) + 11 > static_cast<size_t>(kRegLineMax)) {
        return "the key path is too long for one line of the registry file";
    }
    return nullptr;
}

bool KeyPathFits(const CKWString& path) {
    return KeyPathProblem(path.c_str()) == nullptr;
}

// ---------------------------------------------------------------------------
// Value lines
// ---------------------------------------------------------------------------

namespace {

// The parts of a value line, pointing into the line.
struct ValueLine {
    const char* name;
    size_t nameLen;
    const char* data;
    size_t dataLen;
    unsigned long type;
};

bool ParseValueLine(const char* line, ValueLine& out) {
    if (line == nullptr) return false;
    const char* eq = strchr(line, '=');
    if (eq == nullptr) return false;
    const char* semi = strchr(eq + 1, ';');
    if (semi == nullptr) return false;
    // The writer pads the data on the left: the blanks are skipped with
    // strspn, which stops at the ';' at the latest.
    const char* b = eq + 1 + strspn(eq + 1, kBlanks);
    const char* e = semi;
    while (e > b && IsBlank(e[-1])) --e;
    // Mostly a single tab before the type word: a plain loop beats strspn.
    const char* w = semi + 1;
    while (IsBlank(*w)) ++w;
    if (*w == '\0') return false;
    if (strcmp(w, "REG_SZ") == 0) {
        out.type = REG_SZ;
    } else if (strcmp(w, "REG_DWORD") == 0) {
        out.type = REG_DWORD;
    } else if (strcmp(w, "REG_MULTI_SZ") == 0) {
        out.type = REG_MULTI_SZ;
    } else {
        return false;
    }
    out.name = line;
    out.nameLen = static_cast<size_t>(eq - line);
    out.data = b;
    out.dataLen = static_cast<size_t>(e - b);
    return true;
}

}  // namespace

bool RegValue::FormatValue(const char* line) {
    ValueLine v;
    if (!ParseValueLine(line, v)) return false;
    Assign(v.type, v.name, v.nameLen, v.data, v.dataLen);
    return true;
}

std::ostream& operator<<(std::ostream& out, const RegValue& v) {
    const char* word = RegTypeWord(v.GetType());
    out << std::left << std::setw(22) << (v.GetName().str() + "=") << '\t' << std::setw(22)
        << (v.GetData().str() + ";") << '\t' << (word != nullptr ? word : "") << '\n';
    return out;
}

std::ostream& operator<<(std::ostream& out, RegKey& k) {
    k.Print(out, 0, 0);
    return out;
}

// ---------------------------------------------------------------------------
// Printing
// ---------------------------------------------------------------------------

namespace {
int g_injectedWriteError = 0;
}  // namespace

void InjectWriteErrorForTests(int err) {
    __atomic_store_n(&g_injectedWriteError, err, __ATOMIC_RELEASE);
}

void PrintSink::Flush() {
    if (fd < 0 || failed) {
        if (fd >= 0) text.clear();
        return;
    }
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        const int injected = __atomic_load_n(&g_injectedWriteError, __ATOMIC_ACQUIRE);
        ssize_t n = injected != 0 ? (errno = injected, -1) : write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            failed = true;
            error = errno;
            break;
        }
        p += n;
        left -= static_cast<size_t>(n);
        written += static_cast<size_t>(n);
    }
    text.clear();
}

// Depth first: the key's block (key line, values in name order, an empty
// line), then each child in name order. The unnamed root writes only the
// empty line; intermediate keys write no block; deleted keys are skipped
// with their subtree.
void RegKey::Print(PrintSink& out, int recurse, int clearDirty) {
    Lock();
    if (IsDeleted()) {
        Unlock();
        return;
    }
    if (parent_ == nullptr) {
        out.text += '\n';
    } else if (!intermediate_) {
        out.text += key_.str();
        out.text += '=';
        AppendIndex(out.text, index_);
        out.text += '\n';
        for (uint32_t i : byName_) {
            if (RegTypeWord(values_[i].GetType()) != nullptr) AppendValueLine(out.text, values_[i]);
        }
        out.text += '\n';
    }
    if (clearDirty) dirty_ = 0;
    Unlock();
    // The caller holds the exclusive cache lock: the children cannot change.
    if (recurse) {
        for (RegKey* c : Children()) c->Print(out, recurse, clearDirty);
    }
}

bool RegKey::Print(int fd, int recurse, int clearDirty) {
    PrintSink sink(fd);
    Print(sink, recurse, clearDirty);
    sink.Flush();
    return !sink.failed;
}

void RegKey::Print(std::ostream& out, int recurse, int clearDirty) {
    Lock();
    if (parent_ == nullptr) {
        out << '\n';
    } else if (!intermediate_) {
        out << key_.str() << '=' << index_ << (IsDeleted() ? "  (deleted)" : "") << '\n';
        for (uint32_t i : byName_) out << values_[i];
        out << '\n';
    }
    if (clearDirty) dirty_ = 0;
    Unlock();
    if (recurse) {
        for (RegKey* c : Children()) c->Print(out, recurse, clearDirty);
    }
}

// ---------------------------------------------------------------------------
// Reading
// ---------------------------------------------------------------------------

bool ReadRegistryFd(int fd, int refresh) {
    constexpr size_t kReserveMost = 256;
    RegKey::NewGeneration();
    const FindMode mode = refresh ? FindMode::kRefresh : FindMode::kLoad;
    RegKey* root = RegistryKeys();
    RegKey* cur = nullptr;  // locked while current
    LineReader reader(fd);
    char spare[kRegLineMax + 1];
    int keyLines = 0;
    int otherLines = 0;
    RegKey* lastKey = nullptr;     // the key of the last key line taken
    std::string lastPath;          // its path as the line spelled it
    RegKey* lastParent = nullptr;  // its parent, when the path ends in a name
    std::string lastPrefix;        // the line's text before that name
    while (char* line = reader.Next(spare)) {
        if (line[0] == '#' || line[0] == '\0') continue;
        const bool keyLine = HasKeyMarker(line);
        if (!keyLine) ++otherLines;
        if (keyLine) {
            if (cur != nullptr) cur->Unlock();
            cur = nullptr;
            char* eq = strchr(line, '=');
            if (eq == nullptr) continue;
            *eq = '\0';
            // Only a key the writer can give back as a key line of its own
            // is taken (the marker might lie after the "=", or the number
            // written back might not fit): its values would otherwise end
            // up under another key after the next write and read.
            //
            // The path must also begin with the root itself, spelled exactly:
            // keys are found without regard to case, so a first component
            // such as "hKEY_LOCAL_MACHINE" would otherwise name the root key
            // and give every key below it a path without the marker, which
            // the next read would take for value lines.
            if (!StartsAtRoot(line) || !KeyPathFits(line)) continue;
            long index = static_cast<long>(strtoul(eq + 1, nullptr, 0));
            // A number the tree cannot use as a handle is replaced.
            if (index <= 0 || index > KEY_INDEX_MASK) index = -1;
            FindKeyOptions walk;
            walk.create = true;
            walk.keepLocked = true;
            walk.mode = mode;
            int created = 0;
            // A key line mostly names a sibling or a child of the key line
            // before it: the parent found then is reused, without a walk from
            // the root. Nothing but this read changes the tree meanwhile (the
            // cache lock is held exclusively), and an equal path text walks to
            // the same key.
            const char* slash = strrchr(line, '\\');
            const size_t prefixLen = slash != nullptr ? static_cast<size_t>(slash - line) : 0;
            RegKey* parent = nullptr;
            if (slash != nullptr && slash[1] != '\0') {
                if (lastKey != nullptr &&
                    lastPath.compare(0, std::string::npos, line, prefixLen) == 0) {
                    parent = lastKey;
                } else if (lastParent != nullptr &&
                           lastPrefix.compare(0, std::string::npos, line, prefixLen) == 0) {
                    parent = lastParent;
                }
            }
            cur = parent != nullptr ? FindChildKey(parent, slash + 1, walk, created, index)
                                    : FindKey(root, line, walk, created, index);
            if (cur == nullptr) continue;
            cur->ReserveValues(reader.LinesBeforeBlank(kReserveMost));
            ++keyLines;
            lastKey = cur;
            lastPath.assign(line);
            if (slash != nullptr && slash[1] != '\0') {
                lastParent = cur->GetParent();
                lastPrefix.assign(line, prefixLen);
            } else {
                lastParent = nullptr;
            }
            continue;
        }
        if (cur == nullptr || cur->IsDeleted()) continue;
        ValueLine v;
        if (!ParseValueLine(line, v)) continue;
        // Name and data become strings in place: the '=' after the name and
        // the first character after the data are not needed any more.
        line[v.nameLen] = '\0';
        line[v.data - line + static_cast<ptrdiff_t>(v.dataLen)] = '\0';
        const char* name = line;
        if (refresh) {
            // This process's unwritten deletions and settings win over the
            // file until they are written.
            if (cur->IsValueDeletedHere(name)) continue;
            const RegValue* mine = cur->FindValue(name);
            if (mine != nullptr && mine->IsPending()) continue;
        }
        int changed = 0;
        cur->SetValueFromFile(v.type, name, v.nameLen, v.data, v.dataLen, changed);
        if (changed && refresh) cur->BumpRevision();
    }
    if (cur != nullptr) cur->Unlock();
    // A file that could not be read, or has lines but not one key line, is
    // not a registry: nothing may be dropped (or later written) against it.
    if (reader.error() != 0) {
        errno = reader.error();
        return false;
    }
    if (keyLines == 0 && otherLines > 0) {
        errno = EINVAL;
        return false;
    }
    if (refresh) {
        std::vector<RegKey*> woken;
        root->Purge(1, woken);
        RegKeyWakeup(woken);
    }
    return true;
}

int ReadRegistryAtStartUp(const char* path, std::string& why) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 && errno == ENOENT) return 0;  // the first write makes it
    if (fd < 0) {
        why = errno == ELOOP ? "it is a symbolic link" : strerror(errno);
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        why = S_ISREG(st.st_mode) ? strerror(errno) : "it is not a regular file";
        close(fd);
        return -1;
    }
    RecordFileId(fd);
    const bool ok = ReadRegistryFd(fd, 0);
    const int err = errno;
    close(fd);
    if (!ok) {
        why = err == EINVAL ? "it holds no key line" : strerror(err);
        return -1;
    }
    TakeSharedStamp();
    return st.st_size > 0 ? 1 : 0;
}

}  // namespace detail
}  // namespace tv

using tv::detail::PercentSafe;

BOOL ReadRegistry(int refresh) {
    const CKWString path = GetRegistryPath();
    FileLock file;
    if (!file.OpenFileUnLocked(path.c_str(), O_RDONLY | O_NOFOLLOW)) return FALSE;
    struct stat st;
    if (refresh && file.FileStat(&st) == 0 && st.st_size == 0) {
        // The writer never makes an empty file: this is an edit in progress
        // (or a damaged file). Purging against it would drop every key.
        file.CloseFileUnLocked();
        return FALSE;
    }
    tv::detail::RecordFileId(file.GetFileDescriptor());
    tv::detail::ReadRegistryFd(file.GetFileDescriptor(), refresh);
    file.CloseFileUnLocked();
    tv::detail::TakeSharedStamp();
    return TRUE;
}

BOOL WriteRegistry() {
    using tv::detail::RegistryKeys;
    const CKWString path = GetRegistryPath();
    unsigned int slash = path.rfind('/');
    const CKWString dir =
        slash == CKWString::npos ? CKWString(".") : path.substr(0, static_cast<int>(slash));

    // A fresh name for every try: a name that exists belongs to another
    // writer, which will rename or remove it.
    FileLock temp;
    CKWString name;
    int status = 0;
    bool opened = false;
    for (int attempt = 0;; ++attempt) {
        name = tv::detail::RegistryTempName(dir);
        status = 0;
        if (temp.OpenAndLockFile(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_TRUNC, &status,
                                 false)) {
            opened = true;
            break;
        }
        if (status != 1 || attempt >= 11) break;
        tv::detail::SleepMs(50);
    }
    if (!opened) {
        unix_err("WriteRegistry: Failed to open and lock temp file: %i - %s", status,
                 PercentSafe(name.c_str()).c_str());
        // Never remove a file of that name that another writer made.
        if (status != 1) unlink(name.c_str());
        return FALSE;
    }

    tv::detail::ExclusiveCache cache;
    tv::detail::DrainGraveyard();
    tv::detail::UpdateCache(true);

    // The whole text in one buffer, sized by the last write, and one write.
    static size_t lastSize = 0;  // under the exclusive cache lock
    const int fd = temp.GetFileDescriptor();
    tv::detail::PrintSink sink(fd);
    sink.text.reserve(lastSize + lastSize / 8);
    RegistryKeys()->Print(sink, 1, 1);
    lastSize = sink.text.size();
    sink.Flush();

    // A short file (disk full, I/O error) is as bad as an empty one; the
    // message names the error the write met.
    if (sink.failed || fdatasync(fd) != 0) {
        const int err = sink.failed ? sink.error : errno;
        unix_err("WriteRegistry: Unable to write temp file - %s.  errno = %s\n",
                 PercentSafe(name.c_str()).c_str(), PercentSafe(strerror(err)).c_str());
        temp.CloseAndUnLockFile();
        unlink(name.c_str());
        errno = err;
        return FALSE;
    }
    struct stat st;
    if (temp.FileStat(&st) != 0) {
        int err = errno;
        unix_err("WriteRegistry: Unable to stat temp file - %s.  errno = %s\n",
                 PercentSafe(name.c_str()).c_str(), PercentSafe(strerror(err)).c_str());
        temp.CloseAndUnLockFile();
        unlink(name.c_str());
        errno = err;
        return FALSE;
    }
    if (st.st_size == 0) {
        unix_err("WriteRegistry: Temp file -  %s is zero length.\n",
                 PercentSafe(name.c_str()).c_str());
        temp.CloseAndUnLockFile();
        unlink(name.c_str());
        errno = EIO;
        return FALSE;
    }
    if (static_cast<size_t>(st.st_size) != sink.written) {
        const int err = EIO;
        unix_err("WriteRegistry: Unable to write temp file - %s.  errno = %s\n",
                 PercentSafe(name.c_str()).c_str(), PercentSafe(strerror(err)).c_str());
        temp.CloseAndUnLockFile();
        unlink(name.c_str());
        errno = err;
        return FALSE;
    }
    uid_t uid;
    gid_t gid;
    mode_t mode;
    if (tv::detail::RegistryFileOwner(uid, gid, mode)) {
        // Only a privileged process can give a file away; a failure leaves
        // the writer's own ownership, which is still a good registry.
        if (fchown(fd, uid, gid) != 0) {
        }
        if (fchmod(fd, mode & 07777) != 0) {
        }
    }
    // A link planted at the registry's path is not replaced (nor followed).
    struct stat old;
    if (lstat(path.c_str(), &old) == 0 && S_ISLNK(old.st_mode)) {
        unix_err("WriteRegistry: %s is a symbolic link; not replaced\n",
                 PercentSafe(path.c_str()).c_str());
        temp.CloseAndUnLockFile();
        unlink(name.c_str());
        errno = ELOOP;
        return FALSE;
    }
    if (rename(name.c_str(), path.c_str()) != 0) {
        int err = errno;
        temp.CloseAndUnLockFile();
        unix_err("WriteRegistry: Unable to rename file - %s to - %s  errno %i = %s",
                 PercentSafe(name.c_str()).c_str(), PercentSafe(path.c_str()).c_str(), err,
                 PercentSafe(strerror(err)).c_str());
        unlink(name.c_str());
        errno = err;
        return FALSE;
    }
    tv::detail::PublishWrite();
    RegistryKeys()->CommitWritten();
    temp.CloseAndUnLockFile();
    return TRUE;
}

const char* RegValueTextProblem(const char* name, const char* data, DWORD type) {
    return tv::detail::ValueLineProblem(name, data, type);
}

const char* RegKeyPathProblem(const char* path) {
    return path == nullptr ? "no key path" : tv::detail::KeyPathProblem(path);
}

BOOL RegParseValueLine(const char* line, CKWString* name, CKWString* data, DWORD* type) {
    tv::detail::RegValue v;
    if (!v.FormatValue(line)) return FALSE;
    if (name != nullptr) *name = v.GetName().str();
    if (data != nullptr) *data = v.GetData().str();
    if (type != nullptr) *type = v.GetType();
    return TRUE;
}
