// CKWString: a thin layer over std::string with int positions, 32-bit npos
// results, null-tolerant zero-terminated arguments, and Format.
//
// Format sizes its output by a cheap pre-scan of the format rather than by a
// measuring pass; callers are written against that estimate (padding and
// numbers have 100 spare bytes, strings are counted), so the estimate is
// kept exactly and the output is cut at it. The pre-scan is deliberately
// naive: it only recognises %[digits]conv and %.*s and, on anything else
// (a flag, a precision, a length modifier), takes no argument and falls one
// argument behind. Reproducing that walk literally would mean calling strlen
// through whatever integer happens to sit where it expects a string, so the
// arguments are first read once with their real types (a full parse of the
// format), and the naive walk then picks its values from that record: it
// gets the same numbers wherever it is in step, and never reads through a
// value that is not really a string.
#include <ctype.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <string>
#include <utility>
#include <vector>

#include "tvcommonutil/strings.h"

const unsigned int CKWString::npos;

namespace {

const char* OrEmpty(const char* s) {
    return s != nullptr ? s : "";
}

// std::string positions from the interface's ints: -1 (npos) and any other
// negative value become huge, which is what the standard string expects for
// "to the end" / "from the end" and "past the end".
size_t Pos(int p) {
    return static_cast<size_t>(static_cast<long>(p));
}

// Search results in the interface's 32-bit form; std::string::npos becomes
// CKWString::npos.
unsigned int Result(size_t r) {
    return r == std::string::npos ? CKWString::npos : static_cast<unsigned int>(r);
}

// One integer-class argument slot as the pre-scan sees it: the low 32 bits
// (what reading it as an int yields) and, if the argument really is a
// string, the length strlen would report for it.
struct IntSlot {
    int asInt;
    size_t strLen;
};

// Reads every argument of fmt with its real type and records the
// integer-class ones (integers, pointers, strings) in order. Floating-point
// arguments travel separately from them in the calling convention and the
// pre-scan adds nothing for them, so they are only stepped over. Stops at a
// conversion it cannot type (positional arguments, unknown letters): later
// slots are then unknown and count as 0.
void RecordIntArgs(const char* fmt, va_list ap, std::vector<IntSlot>* out) {
    for (const char* f = fmt; *f != '\0'; ++f) {
        if (*f != '%') continue;
        ++f;
        if (*f == '%') continue;
        while (*f != '\0' && strchr("-+ #0'I", *f) != nullptr) ++f;
        if (*f == '*') {
            out->push_back({va_arg(ap, int), 0});
            ++f;
        } else {
            while (isdigit(static_cast<unsigned char>(*f))) ++f;
        }
        if (*f == '$') return;
        if (*f == '.') {
            ++f;
            if (*f == '*') {
                out->push_back({va_arg(ap, int), 0});
                ++f;
            } else {
                while (isdigit(static_cast<unsigned char>(*f))) ++f;
            }
        }
        if (*f == '$') return;
        // Length modifier: 0 none, 1 h/hh, 2 l, 3 ll/q/j/z/Z/t, 4 L.
        int len = 0;
        switch (*f) {
            case 'h':
                len = 1;
                ++f;
                if (*f == 'h') ++f;
                break;
            case 'l':
                len = 2;
                ++f;
                if (*f == 'l') {
                    len = 3;
                    ++f;
                }
                break;
            case 'q':
            case 'j':
            case 'z':
            case 'Z':
            case 't':
                len = 3;
                ++f;
                break;
            case 'L':
                len = 4;
                ++f;
                break;
            default:
                break;
        }
        switch (*f) {
            case 'd':
            case 'i':
            case 'o':
            case 'u':
            case 'x':
            case 'X':
                if (len >= 2 && len <= 4) {
                    long long v = va_arg(ap, long long);
                    out->push_back({static_cast<int>(static_cast<uint32_t>(v)), 0});
                } else {
                    out->push_back({va_arg(ap, int), 0});
                }
                break;
            case 'c':
            case 'C':
                out->push_back({va_arg(ap, int), 0});
                break;
            case 'e':
            case 'E':
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                if (len == 4) {
                    (void)va_arg(ap, long double);
                } else {
                    (void)va_arg(ap, double);
                }
                break;
            case 's':
            case 'S': {
                // A wide string (%ls, %S) is measured as bytes, which stops
                // inside its own terminator.
                const char* s = va_arg(ap, const char*);
                IntSlot slot = {static_cast<int>(reinterpret_cast<uintptr_t>(s)), 0};
                if (s != nullptr) slot.strLen = strlen(s);
                out->push_back(slot);
                break;
            }
            case 'p':
            case 'n': {
                void* p = va_arg(ap, void*);
                out->push_back({static_cast<int>(reinterpret_cast<uintptr_t>(p)), 0});
                break;
            }
            case 'm':
                break;
            default:
                return;
        }
    }
}

// strlen(fmt) + 100, plus the lengths of the strings the naive walk meets.
long long EstimateFormat(const char* fmt, va_list ap) {
    std::vector<IntSlot> slots;
    va_list copy;
    va_copy(copy, ap);
    RecordIntArgs(fmt, copy, &slots);
    va_end(copy);

    size_t next = 0;
    auto take = [&]() -> IntSlot {
        IntSlot s = next < slots.size() ? slots[next] : IntSlot{0, 0};
        ++next;
        return s;
    };
    long long estimate = static_cast<long long>(strlen(fmt)) + 100;
    for (const char* f = fmt; *f != '\0'; ++f) {
        if (*f != '%') continue;
        ++f;
        while (isdigit(static_cast<unsigned char>(*f))) ++f;
        switch (*f) {
            case '\0':
                return estimate;
            case '.':
                if (f[1] == '*') {
                    estimate += take().asInt;
                    estimate += static_cast<long long>(take().strLen);
                    ++f;
                }
                break;
            case 's':
            case 'S':
                estimate += static_cast<long long>(take().strLen);
                break;
            case 'c':
            case 'C':
            case 'd':
            case 'i':
            case 'o':
            case 'u':
            case 'x':
            case 'X':
            case 'n':
            case 'p':
                take();
                break;
            default:
                // Doubles (e E f g G) come from the floating-point sequence
                // and add nothing; any other byte takes no argument.
                break;
        }
    }
    return estimate;
}

}  // namespace

CKWString::CKWString() {}
CKWString::CKWString(const char* s) : s_(OrEmpty(s)) {}
CKWString::CKWString(const CKWString& other) : s_(other.s_) {}
CKWString::CKWString(CKWString&& other) noexcept : s_(std::move(other.s_)) {}
CKWString::CKWString(const std::string& s) : s_(s) {}
CKWString::~CKWString() {}

CKWString& CKWString::operator=(const char* s) {
    if (s == nullptr) {
        s_.erase(0, std::string::npos);
    } else {
        s_ = s;
    }
    return *this;
}

CKWString& CKWString::operator=(const CKWString& other) {
    s_ = other.s_;
    return *this;
}

CKWString& CKWString::operator=(CKWString&& other) noexcept {
    s_ = std::move(other.s_);
    return *this;
}

CKWString& CKWString::operator+=(const CKWString& s) {
    s_ += s.s_;
    return *this;
}

CKWString& CKWString::operator+=(const char* s) {
    s_ += OrEmpty(s);
    return *this;
}

CKWString& CKWString::operator+=(char c) {
    s_ += c;
    return *this;
}

CKWString& CKWString::append(const char* s) {
    s_.append(OrEmpty(s));
    return *this;
}

CKWString& CKWString::assign(const char* s, int pos, int n) {
    std::string tmp(OrEmpty(s));
    s_.assign(tmp, Pos(pos), Pos(n));
    return *this;
}

CKWString& CKWString::erase(int pos, int n) {
    s_.erase(Pos(pos), Pos(n));
    return *this;
}

CKWString CKWString::substr(int pos, int n) const {
    return CKWString(s_.substr(Pos(pos), Pos(n)));
}

CKWString CKWString::Right(int n) const {
    return substr(length() - n, -1);
}

CKWString& CKWString::MakeLower() {
    for (char& c : s_) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return *this;
}

CKWString& CKWString::TrimLeft() {
    size_t i = 0;
    while (i < s_.size() && isspace(static_cast<unsigned char>(s_[i]))) ++i;
    s_.erase(0, i);
    return *this;
}

CKWString& CKWString::TrimRight() {
    size_t n = 0;
    while (n < s_.size() && isspace(static_cast<unsigned char>(s_[s_.size() - 1 - n]))) ++n;
    s_.erase(s_.size() - n, n);
    return *this;
}

CKWString& CKWString::replace(char from, char to) {
    for (char& c : s_) {
        if (c == from) c = to;
    }
    return *this;
}

CKWString& CKWString::replace(const CKWString& from, const CKWString& to) {
    if (from.s_.empty()) return *this;
    size_t p = s_.find(from.s_);
    if (p == std::string::npos) return *this;
    std::string result;
    size_t c = 0;
    while (p != std::string::npos) {
        result.append(s_, c, p - c);
        result += to.s_;
        c = p + from.s_.size();
        p = s_.find(from.s_, c);
    }
    if (c < s_.size()) result.append(s_, c, std::string::npos);
    s_.swap(result);
    return *this;
}

CKWString& CKWString::replace(char from, const CKWString& to) {
    return replace(CKWString(std::string(1, from)), to);
}

CKWString& CKWString::replace(const CKWString& from, char to) {
    return replace(from, CKWString(std::string(1, to)));
}

CKWString CKWString::MakeForwardSlash() {
    replace('\\', '/');
    return *this;
}

void CKWString::Format(const char* fmt, ...) {
    if (fmt == nullptr) {
        s_.clear();
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    long long estimate = EstimateFormat(fmt, ap);
    if (estimate < 0) estimate = 0;

    // Small estimates format straight into a stack buffer. A large one (a
    // long string or a big %.* precision) is only as large as the text
    // really needs: the cut happens at the estimate either way.
    char local[1024];
    std::vector<char> heap;
    char* buf = local;
    size_t room = static_cast<size_t>(estimate) + 1;
    if (room > sizeof(local)) {
        va_list measure;
        va_copy(measure, ap);
        int needed = vsnprintf(nullptr, 0, fmt, measure);
        va_end(measure);
        if (needed < 0) needed = 0;
        if (static_cast<size_t>(needed) + 1 < room) room = static_cast<size_t>(needed) + 1;
        if (room > sizeof(local)) {
            heap.resize(room);
            buf = heap.data();
        }
    }
    int n = vsnprintf(buf, room, fmt, ap);
    va_end(ap);
    if (n < 0) buf[0] = '\0';
    s_.assign(buf);
}

unsigned int CKWString::find(char c, int pos) const {
    return Result(s_.find(c, Pos(pos)));
}

unsigned int CKWString::find(const char* s, int pos) const {
    return Result(s_.find(OrEmpty(s), Pos(pos)));
}

unsigned int CKWString::find(const CKWString& s, int pos) const {
    return Result(s_.find(s.s_, Pos(pos)));
}

unsigned int CKWString::rfind(char c, int pos) const {
    return Result(s_.rfind(c, Pos(pos)));
}

unsigned int CKWString::find_last_of(char c, int pos) const {
    return Result(s_.find_last_of(c, Pos(pos)));
}

unsigned int CKWString::find_last_of(const char* set, int pos) const {
    return Result(s_.find_last_of(OrEmpty(set), Pos(pos)));
}

unsigned int CKWString::find_first_of(const char* set) const {
    return Result(s_.find_first_of(OrEmpty(set), 0));
}

int CKWString::compare(const CKWString& other) const {
    return s_.compare(other.s_);
}

bool operator<(const CKWStringPc& a, const CKWStringPc& b) {
    return strcasecmp(a.c_str(), b.c_str()) < 0;
}

CKWString operator+(const CKWString& a, const CKWString& b) {
    CKWString r(a);
    r += b;
    return r;
}

CKWString operator+(const CKWString& a, const char* b) {
    CKWString r(a);
    r += b;
    return r;
}

CKWString operator+(const char* a, const CKWString& b) {
    CKWString r(a);
    r += b;
    return r;
}

CKWString operator+(const CKWString& a, char b) {
    CKWString r(a);
    r += b;
    return r;
}

CKWString operator+(char a, const CKWString& b) {
    CKWString r(std::string(1, a));
    r += b;
    return r;
}

// The const char* forms compare against the zero-terminated text exactly as
// a temporary CKWString of it would (std::string::compare with a C string),
// without building one.
namespace {
int Cmp(const CKWString& a, const char* b) {
    return a.str().compare(OrEmpty(b));
}
}  // namespace

bool operator==(const CKWString& a, const CKWString& b) {
    return a.compare(b) == 0;
}
bool operator!=(const CKWString& a, const CKWString& b) {
    return a.compare(b) != 0;
}
bool operator<(const CKWString& a, const CKWString& b) {
    return a.compare(b) < 0;
}
bool operator>(const CKWString& a, const CKWString& b) {
    return a.compare(b) > 0;
}
bool operator<=(const CKWString& a, const CKWString& b) {
    return a.compare(b) <= 0;
}
bool operator>=(const CKWString& a, const CKWString& b) {
    return a.compare(b) >= 0;
}
bool operator==(const CKWString& a, const char* b) {
    return Cmp(a, b) == 0;
}
bool operator!=(const CKWString& a, const char* b) {
    return Cmp(a, b) != 0;
}
bool operator<(const CKWString& a, const char* b) {
    return Cmp(a, b) < 0;
}
bool operator>(const CKWString& a, const char* b) {
    return Cmp(a, b) > 0;
}
bool operator<=(const CKWString& a, const char* b) {
    return Cmp(a, b) <= 0;
}
bool operator>=(const CKWString& a, const char* b) {
    return Cmp(a, b) >= 0;
}
bool operator==(const char* a, const CKWString& b) {
    return Cmp(b, a) == 0;
}
bool operator!=(const char* a, const CKWString& b) {
    return Cmp(b, a) != 0;
}
bool operator<(const char* a, const CKWString& b) {
    return Cmp(b, a) > 0;
}
bool operator>(const char* a, const CKWString& b) {
    return Cmp(b, a) < 0;
}
bool operator<=(const char* a, const CKWString& b) {
    return Cmp(b, a) >= 0;
}
bool operator>=(const char* a, const CKWString& b) {
    return Cmp(b, a) <= 0;
}
