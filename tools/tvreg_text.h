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
    "  --help, -h   this text; 'tvreg COMMAND --help' describes one command\n"
    "  --           end of options (for names or data starting with '-')\n"
    "\n"
    "KEY is HKEY_LOCAL_MACHINE or HKLM, alone or followed by '\\' and a path,\n"
    "e.g. 'HKLM\\Software\\App' or HKLM/Software/App (forward slashes work too;\n"
    "letter case is ignored when keys are matched).\n"
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
     "  usage error: a NAME containing '=' or a line end or starting with '#';\n"
     "  DATA containing ';' or a line end, or sz data with leading or trailing\n"
     "  white space; multi_sz strings that are empty or contain white space;\n"
     "  the text HKEY_LOCAL_MACHINE anywhere; lines over 4095 characters.\n"
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
     "  end. Lines the registry reader would ignore are ignored (those that are\n"
     "  neither comments nor empty are reported). Key numbers in the text are not\n"
     "  kept: keys made by the import are numbered afresh. REG_DWORD values are\n"
     "  stored as 0x hexadecimal whatever their notation in the text.\n"
     "  Values that cannot be set are reported; the status is then 1.\n"},
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
    "semaphore and shared page like a server and leaves them in place when it\n"
    "exits (they belong to whichever process is attached; see 'ipcs').\n"
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

inline bool ParseKey(const std::string& text, KeyArg& key, std::string& error) {
    std::vector<std::string> parts;
    std::string cur;
    for (char c : text) {
        if (c == '\\' || c == '/') {
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
        if (parts[i].find('=') != std::string::npos || parts[i].find('\n') != std::string::npos) {
            error = "a key name cannot contain '=' or a line end: '" + parts[i] + "'";
            return false;
        }
        if (!key.sub.empty()) key.sub += '\\';
        key.sub += parts[i];
    }
    if (key.Display().size() + 11 > kLineMax) {
        error = "KEY is too long for one line of the registry file";
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

inline std::string JsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
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

// Refuses what a write and a read of the file would not give back as set.
inline bool CheckValueText(const std::string& name, const std::string& type,
                           const std::vector<std::string>& data, std::string& error) {
    if (name.find('=') != std::string::npos) {
        error = "a value name cannot contain '=' (the file ends the name at the first '=')";
    } else if (name.find('\n') != std::string::npos || name.find('\r') != std::string::npos) {
        error = "a value name cannot contain a line end";
    } else if (!name.empty() && name[0] == '#') {
        error = "a value name cannot start with '#' (the line would read as a comment)";
    } else if (name.find(kRoot) != std::string::npos) {
        error = "a value name cannot contain the text HKEY_LOCAL_MACHINE";
    }
    if (!error.empty()) return false;
    std::string joined;
    for (const std::string& d : data) {
        if (d.find(';') != std::string::npos) {
            error = "data cannot contain ';' (the file ends the data at the first ';')";
        } else if (d.find('\n') != std::string::npos || d.find('\r') != std::string::npos) {
            error = "data cannot contain a line end";
        } else if (d.find(kRoot) != std::string::npos) {
            error = "data cannot contain the text HKEY_LOCAL_MACHINE";
        } else if (type == "multi_sz" && (d.empty() || HasSpace(d))) {
            error =
                "multi_sz strings must be non-empty and hold no white space (the file joins "
                "them with blanks): '" +
                d + "'";
        }
        if (!error.empty()) return false;
        if (!joined.empty()) joined += ' ';
        joined += d;
    }
    if (type == "sz" && !joined.empty() &&
        (isspace(static_cast<unsigned char>(joined[0])) ||
         isspace(static_cast<unsigned char>(joined[joined.size() - 1])))) {
        error = "sz data cannot start or end with white space (the file trims it)";
        return false;
    }
    const size_t nameField = std::max<size_t>(22, name.size() + 1);
    const size_t dataField = std::max<size_t>(22, joined.size() + 2);
    if (nameField + dataField + 2 + strlen("REG_MULTI_SZ") > kLineMax) {
        error = "the value is too long for one line of the registry file (4095 characters)";
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

inline bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// A value line as the registry reader takes it: "name=data;TYPE", the data
// trimmed, the type word exact after leading white space.
inline bool ParseValueLine(const std::string& line, ImportValue& v) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos) return false;
    const size_t semi = line.find(';', eq + 1);
    if (semi == std::string::npos) return false;
    size_t b = eq + 1;
    size_t e = semi;
    while (b < e && IsBlank(line[b])) ++b;
    while (e > b && IsBlank(line[e - 1])) --e;
    size_t w = semi + 1;
    while (w < line.size() && IsBlank(line[w])) ++w;
    const std::string word = line.substr(w);
    if (word == "REG_SZ") {
        v.type = REG_SZ;
    } else if (word == "REG_DWORD") {
        v.type = REG_DWORD;
    } else if (word == "REG_MULTI_SZ") {
        v.type = REG_MULTI_SZ;
    } else {
        return false;
    }
    v.name = line.substr(0, eq);
    v.data = line.substr(b, e - b);
    return true;
}

}  // namespace tvreg

#endif  // TVCOMMONUTIL_TOOLS_TVREG_TEXT_H
