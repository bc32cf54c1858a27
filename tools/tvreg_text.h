// tvreg's text handling: its help, KEY arguments, value texts the registry
// file can hold, the registry file's value lines and JSON output. Plain
// functions of text, kept apart from the program's registry calls.
#ifndef TVCOMMONUTIL_TOOLS_TVREG_TEXT_H
#define TVCOMMONUTIL_TOOLS_TVREG_TEXT_H

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <string>
#include <vector>

#include <tvcommonutil.h>

namespace tvreg {

const char kRoot[] = "HKEY_LOCAL_MACHINE";
// The reader takes at most this many characters of a line.
constexpr size_t kLineMax = 4095;

// ---------------------------------------------------------------------------
// Help
// ---------------------------------------------------------------------------

const char kIntro[] =
    "usage: tvreg [--root DIR] COMMAND [ARGS...]\n"
    "\n"
    "Reads and changes the shared registry through the library, taking part in\n"
    "its cross-process locking and version stamp like any server.\n"
    "\n"
    "Options (before or after the command):\n"
    "  --root DIR   install directory; overrides TV_REGISTRY (default\n"
    "               /usr/lib/tavren/../). The registry is DIR/registry/tv.registry.\n"
    "  --json       query, list and status: print one JSON document instead\n"
    "               (always valid UTF-8: a byte of a name or data that is not\n"
    "               part of well-formed UTF-8 is written as \\u00XX, XX its value)\n"
    "  --help, -h   this text; 'tvreg COMMAND --help' describes one command\n"
    "  --           end of options (for names or data starting with '-')\n"
    "\n"
    "KEY is HKEY_LOCAL_MACHINE or HKLM, alone or followed by '\\' and a path,\n"
    "e.g. 'HKLM\\Software\\App' or HKLM/Software/App (letter case is ignored\n"
    "when keys are matched). Forward slashes separate names only in a KEY\n"
    "without any '\\'; with one, '/' is part of a name ('HKLM\\Software\\a/b').\n"
    "\n"
    "Commands:\n";

struct CommandHelp {
    const char* name;
    const char* synopsis;
    const char* text;
};

const CommandHelp kCommands[] = {
    {"query", "query [--json] KEY [NAME]",
     "  Prints value NAME of KEY, or every value of KEY in name order, one a line:\n"
     "  name, type and data. REG_DWORD data shows as decimal and hexadecimal;\n"
     "  a REG_MULTI_SZ shows its strings separated by blanks. With --json: {\"key\", \"name\",\n"
     "  \"type\", \"data\"} for one value or {\"key\", \"values\": [...]} for all;\n"
     "  REG_DWORD data is a number, REG_MULTI_SZ data an array of strings.\n"},
    {"list", "list [--json] KEY",
     "  Lists the subkeys and the values of KEY, each in name order (letter case\n"
     "  ignored, as in the file). With --json: {\"key\", \"subkeys\":\n"
     "  [names], \"values\": [{\"name\", \"type\", \"data\"}]}.\n"},
    {"set", "set KEY NAME (sz|dword|multi_sz) DATA...",
     "  Sets value NAME of KEY, creating the key (and the keys above it) when\n"
     "  missing, and writes the registry file. sz takes one DATA; dword one\n"
     "  number (decimal, 0x hexadecimal or 0 octal, up to 64 bits), stored as\n"
     "  0x hexadecimal; multi_sz takes zero or more strings.\n"
     "  The file has no escapes, so what it could not give back is refused as a\n"
     "  usage error, by the same rules the library applies: a NAME containing\n"
     "  '=' or a line end, starting with '#' or starting or ending with white\n"
     "  space; DATA containing ';' or a line end, or sz data with leading or\n"
     "  trailing white space; multi_sz strings that are empty or contain white\n"
     "  space; the text HKEY_LOCAL_MACHINE anywhere; lines over 4095 characters.\n"
     "  A key that so far existed only as the path to deeper keys becomes a key\n"
     "  of its own with its first value.\n"},
    {"delete", "delete KEY [NAME]",
     "  Deletes value NAME of KEY, or, without NAME, KEY with its whole subtree,\n"
     "  and writes the registry file. HKEY_LOCAL_MACHINE itself cannot be\n"
     "  deleted.\n"},
    {"export", "export [KEY]",
     "  Writes the subtree of KEY (default: the whole registry) to standard\n"
     "  output in the registry file's own text form, exactly as the library\n"
     "  writes the file: a 'path=number' line per key, a value line per value\n"
     "  ('%-22s\\t%22s\\t%s' of 'name=', 'data;' and the type word) and an empty\n"
     "  line after each key's block. The whole registry (no KEY, or\n"
     "  HKEY_LOCAL_MACHINE) is byte for byte the file as it would be written now.\n"},
    {"import", "import FILE",
     "  Applies a text in the registry file's form (as export writes it; '-' reads\n"
     "  standard input): every key line creates its key, every value line sets\n"
     "  its value, through the registry API, and the file is written once at the\n"
     "  end. Lines the registry reader would ignore are ignored, and each one\n"
     "  that is neither a comment nor empty is reported with its line number\n"
     "  (value lines outside any usable key line included); the rest is applied\n"
     "  and the status is then 1. A CR before a line end is part of the line\n"
     "  end. A file holding a NUL byte is not a text and is refused whole.\n"
     "  Key numbers in the text are not kept: keys made by the import are\n"
     "  numbered afresh. REG_DWORD values are stored as 0x hexadecimal whatever\n"
     "  their notation in the text. Values that cannot be set are reported; the\n"
     "  status is then 1.\n"},
    {"watch", "watch [--interval MS] KEY",
     "  Prints a line when watching starts and then one line each time KEY\n"
     "  changes (values set, changed or deleted, subkeys added or removed, the\n"
     "  key deleted or made again), whoever changed it, until interrupted\n"
     "  (SIGINT or SIGTERM end it with status 0). It looks as soon as any\n"
     "  process has written a change of KEY or below it to the registry file,\n"
     "  and at least every MS milliseconds (default 200, 10 to 60000), re-\n"
     "  opening the key. KEY must exist when it starts.\n"
     "  Lines: 'TIME watching KEY: N values, M subkeys', 'TIME changed KEY:\n"
     "  value 'NAME' added: TYPE DATA; value 'NAME' changed: TYPE DATA (was TYPE\n"
     "  DATA); value 'NAME' deleted; subkey 'NAME' added; subkey 'NAME' removed'\n"
     "  (the parts that apply), 'TIME deleted KEY' and 'TIME created KEY: ...';\n"
     "  TIME is local time as YYYY-MM-DDTHH:MM:SS.\n"},
    {"status", "status [--json]",
     "  Prints the registry file's path, the shared version stamp (incremented by\n"
     "  every write), the process id of the last writer, the process holding the\n"
     "  registry semaphore (0: free), the attach count recorded in the shared\n"
     "  page and the number of processes attached now (tvreg included). The\n"
     "  stamp starts at 0 whenever the shared page is made afresh. With --json:\n"
     "  {\"registry_file\", \"version_stamp\", \"last_writer_pid\",\n"
     "  \"lock_owner_pid\", \"attach_count\", \"processes_attached\"} (-1: unknown).\n"},
};

const char kOutro[] =
    "\n"
    "The registry: the registry directory (DIR/registry/) must be writable,\n"
    "for reading too, since every client uses a lock file there. When neither\n"
    "DIR/registry/tv.registry nor its template tv.registry.template exists,\n"
    "set and import make the directory and an empty template (from which the\n"
    "library makes the registry), and every other command fails with status 1.\n"
    "When only the template is missing, the library reports that on standard\n"
    "error at start-up and carries on. tvreg attaches to the registry's\n"
    "semaphore and shared page like a server, and at exit detaches as every\n"
    "process of the registry does: when it is the last process attached, it\n"
    "removes them (the next process makes them afresh, version stamp 0);\n"
    "otherwise they stay for the processes still attached (see 'ipcs').\n"
    "\n"
    "Exit status: 0 success; 1 a key, value, file or registry was not found or\n"
    "an operation failed; 2 usage error.\n";

inline void PrintAllHelp() {
    fputs(kIntro, stdout);
    for (const CommandHelp& c : kCommands) printf("  tvreg %s\n", c.synopsis);
    fputs("\n", stdout);
    for (const CommandHelp& c : kCommands) printf("tvreg %s\n%s\n", c.synopsis, c.text);
    fputs(kOutro + 1, stdout);
}

inline const CommandHelp* FindCommand(const std::string& name) {
    for (const CommandHelp& c : kCommands) {
        if (name == c.name) return &c;
    }
    return nullptr;
}

inline void PrintCommandHelp(const CommandHelp& c) {
    printf("usage: tvreg [--root DIR] %s\n\n%s%s", c.synopsis, c.text, kOutro);
}

// A KEY argument: the path below HKEY_LOCAL_MACHINE ("" for the root key).
struct KeyArg {
    std::string sub;
    std::string Display() const { return sub.empty() ? kRoot : std::string(kRoot) + "\\" + sub; }
};

// '\\' separates the names of a KEY. So does '/', for convenience, but only
// in a KEY without any '\\' (and never in the file's own key lines, which
// import reads with fileForm): a name may contain '/' and stay reachable.
inline bool ParseKey(const std::string& text, KeyArg& key, std::string& error,
                     bool fileForm = false) {
    const bool slashes = !fileForm && text.find('\\') == std::string::npos;
    std::vector<std::string> parts;
    std::string cur;
    for (char c : text) {
        if (c == '\\' || (slashes && c == '/')) {
            if (!cur.empty()) parts.push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) parts.push_back(cur);
    if (parts.empty() ||
        (strcasecmp(parts[0].c_str(), kRoot) != 0 && strcasecmp(parts[0].c_str(), "HKLM") != 0)) {
        error = "KEY must start with HKEY_LOCAL_MACHINE or HKLM: '" + text + "'";
        return false;
    }
    key.sub.clear();
    for (size_t i = 1; i < parts.size(); ++i) {
        if (!key.sub.empty()) key.sub += '\\';
        key.sub += parts[i];
    }
    if (const char* problem = RegKeyPathProblem(key.Display().c_str())) {
        error = std::string(problem) + ": '" + text + "'";
        return false;
    }
    return true;
}

struct Value {
    std::string name;
    DWORD type = 0;
    std::string sz;                    // REG_SZ
    unsigned long number = 0;          // REG_DWORD
    std::vector<std::string> strings;  // REG_MULTI_SZ
};

inline const char* TypeName(DWORD type) {
    switch (type) {
        case REG_SZ:
            return "REG_SZ";
        case REG_DWORD:
            return "REG_DWORD";
        case REG_MULTI_SZ:
            return "REG_MULTI_SZ";
        default:
            return "REG_NONE";
    }
}

inline void Decode(DWORD type, const std::vector<BYTE>& data, DWORD size, Value& v) {
    v.type = type;
    if (type == REG_DWORD) {
        memcpy(&v.number, data.data(), std::min<size_t>(sizeof v.number, data.size()));
        return;
    }
    const char* p = reinterpret_cast<const char*>(data.data());
    const size_t n = size > 0 ? std::min<size_t>(size - 1, data.size()) : 0;
    if (type == REG_MULTI_SZ) {
        std::string cur;
        for (size_t i = 0; i < n; ++i) {
            if (p[i] == '\0') {
                if (!cur.empty()) v.strings.push_back(cur);
                cur.clear();
            } else {
                cur += p[i];
            }
        }
        if (!cur.empty()) v.strings.push_back(cur);
    } else {
        v.sz.assign(p, strnlen(p, n));
    }
}

inline std::string DataText(const Value& v) {
    char buf[64];
    switch (v.type) {
        case REG_DWORD:
            snprintf(buf, sizeof buf, "%lu (%#lx)", v.number, v.number);
            return buf;
        case REG_MULTI_SZ: {
            std::string s;
            for (const std::string& part : v.strings) {
                if (!s.empty()) s += ' ';
                s += part;
            }
            return s;
        }
        default:
            return v.sz;
    }
}

// ---------------------------------------------------------------------------
// JSON
// ---------------------------------------------------------------------------

// The length of the well-formed UTF-8 sequence at s[i] (no overlong forms,
// no surrogates, nothing past U+10FFFF), or 0 when the byte starts none.
inline size_t Utf8Length(const std::string& s, size_t i) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t n;
    unsigned long cp;
    if (c < 0x80) return 1;
    if (c >= 0xc2 && c <= 0xdf) {
        n = 2;
        cp = c & 0x1f;
    } else if (c >= 0xe0 && c <= 0xef) {
        n = 3;
        cp = c & 0x0f;
    } else if (c >= 0xf0 && c <= 0xf4) {
        n = 4;
        cp = c & 0x07;
    } else {
        return 0;
    }
    if (i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k) {
        const unsigned char cc = static_cast<unsigned char>(s[i + k]);
        if ((cc & 0xc0) != 0x80) return 0;
        cp = (cp << 6) | (cc & 0x3f);
    }
    if ((n == 3 && (cp < 0x800 || (cp >= 0xd800 && cp <= 0xdfff))) ||
        (n == 4 && (cp < 0x10000 || cp > 0x10ffff))) {
        return 0;
    }
    return n;
}

// A JSON string of s. The registry holds bytes, not necessarily UTF-8: a
// byte that is not part of a well-formed UTF-8 sequence is written as
// \u00XX, the code point of the same number, so the output is always valid
// UTF-8 JSON and no byte is silently lost.
inline std::string JsonString(const std::string& s) {
    std::string out = "\"";
    for (size_t i = 0; i < s.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c >= 0x80) {
            const size_t n = Utf8Length(s, i);
            if (n == 0) {
                char buf[8];
                snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out.append(s, i, n);
                i += n - 1;
            }
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char buf[8];
                    snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

inline std::string JsonData(const Value& v) {
    if (v.type == REG_DWORD) return std::to_string(v.number);
    if (v.type == REG_MULTI_SZ) {
        std::string out = "[";
        for (size_t i = 0; i < v.strings.size(); ++i) {
            if (i) out += ", ";
            out += JsonString(v.strings[i]);
        }
        return out + "]";
    }
    return JsonString(v.sz);
}

inline std::string JsonValue(const Value& v) {
    return "{\"name\": " + JsonString(v.name) + ", \"type\": " + JsonString(TypeName(v.type)) +
           ", \"data\": " + JsonData(v) + "}";
}

inline std::string JsonValues(const std::vector<Value>& values) {
    std::string out = "[";
    for (size_t i = 0; i < values.size(); ++i) {
        out += i ? ",\n    " : "\n    ";
        out += JsonValue(values[i]);
    }
    return out + (values.empty() ? "]" : "\n  ]");
}

inline bool HasSpace(const std::string& s) {
    for (unsigned char c : s) {
        if (isspace(c)) return true;
    }
    return false;
}

// The text the registry would hold for a set's DATA arguments.
inline std::string StoredText(const std::string& type, const std::vector<std::string>& data,
                              unsigned long number) {
    if (type == "dword") {
        char buf[32];
        snprintf(buf, sizeof buf, "%#lx", number);
        return buf;
    }
    std::string joined;
    for (const std::string& d : data) joined += (joined.empty() ? "" : " ") + d;
    return joined;
}

// Refuses what a write and a read of the file would not give back as set:
// the registry's own rules, and this tool's for multi_sz (each argument is
// one string, and the file joins the strings with blanks).
inline bool CheckValueText(const std::string& name, const std::string& type,
                           const std::vector<std::string>& data, unsigned long number,
                           std::string& error) {
    if (type == "multi_sz") {
        for (const std::string& d : data) {
            if (d.empty() || HasSpace(d)) {
                error =
                    "multi_sz strings must be non-empty and hold no white space (the file joins "
                    "them with blanks): '" +
                    d + "'";
                return false;
            }
        }
    }
    const DWORD t = type == "dword" ? REG_DWORD : type == "sz" ? REG_SZ : REG_MULTI_SZ;
    const std::string text = StoredText(type, data, number);
    if (const char* problem = RegValueTextProblem(name.c_str(), text.c_str(), t)) {
        error = problem;
        return false;
    }
    return true;
}

inline bool ParseNumber(const std::string& s, unsigned long& n) {
    if (s.empty() || !isdigit(static_cast<unsigned char>(s[0]))) return false;
    errno = 0;
    char* end = nullptr;
    n = strtoul(s.c_str(), &end, 0);
    return errno == 0 && end != nullptr && *end == '\0';
}

struct ImportValue {
    int line;
    std::string name;
    DWORD type;
    std::string data;
};

struct ImportKey {
    int line;
    KeyArg key;
    std::vector<ImportValue> values;
};

// A value line as the registry reader takes it (the library's own parser).
inline bool ParseValueLine(const std::string& line, ImportValue& v) {
    CKWString name;
    CKWString data;
    if (!RegParseValueLine(line.c_str(), &name, &data, &v.type)) return false;
    v.name = name.c_str();
    v.data = data.c_str();
    return true;
}

}  // namespace tvreg

#endif  // TVCOMMONUTIL_TOOLS_TVREG_TEXT_H
