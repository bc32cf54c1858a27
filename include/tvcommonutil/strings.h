// CKWString: the library's byte string, and CKWStringPc, the same text
// ordered without regard to letter case.
//
// CKWString is a thin layer over std::string: it adds no length cache and no
// storage policy of its own. Positions and lengths are int; every search
// that finds nothing returns npos (all bits set). Zero-terminated arguments
// may be null and then count as the empty string.
//
// Instances are not thread-safe; share them between threads as you would a
// std::string.
#ifndef TVCOMMONUTIL_STRINGS_H
#define TVCOMMONUTIL_STRINGS_H

#include <string>

#include "export.h"

class TV_API CKWString {
public:
    // All bits set: what every search returns on a miss, and the "to the end"
    // length. As an int argument it reads as -1.
    static const unsigned int npos = 0xFFFFFFFFu;

    CKWString();
    CKWString(const char* s);  // NOLINT(google-explicit-constructor): callers rely on it
    CKWString(const CKWString& other);
    CKWString(CKWString&& other) noexcept;
    CKWString(const std::string& s);  // NOLINT(google-explicit-constructor)
    ~CKWString();

    // A null pointer empties the string.
    CKWString& operator=(const char* s);
    CKWString& operator=(const CKWString& other);
    CKWString& operator=(CKWString&& other) noexcept;

    const char* c_str() const { return s_.c_str(); }
    operator const char*() const { return s_.c_str(); }  // NOLINT
    // Writable view of the contents; callers must not write past length().
    operator char*() { return &s_[0]; }  // NOLINT
    const std::string& str() const { return s_; }

    int length() const { return static_cast<int>(s_.length()); }
    int size() const { return static_cast<int>(s_.size()); }
    bool empty() const { return s_.empty(); }
    // The byte as a signed char widened to int; no range check.
    int operator[](int i) const { return static_cast<signed char>(s_[static_cast<size_t>(i)]); }

    CKWString& operator+=(const CKWString& s);
    CKWString& operator+=(const char* s);
    CKWString& operator+=(char c);
    CKWString& append(const char* s);
    // At most n bytes of s from pos (n may be npos); a pos past the end of s
    // throws std::out_of_range, as for std::string::assign.
    CKWString& assign(const char* s, int pos, int n);
    CKWString& erase(int pos = 0, int n = -1);
    CKWString substr(int pos = 0, int n = -1) const;
    // The last n bytes; n is not clamped to the length (std::out_of_range
    // is thrown when n exceeds it, as for substr).
    CKWString Right(int n) const;

    // tolower / isspace of the current locale, byte by byte.
    CKWString& MakeLower();
    CKWString& TrimLeft();
    CKWString& TrimRight();
    CKWString& replace(char from, char to);
    // Replaces every non-overlapping occurrence of from, left to right.
    // Callers never pass an empty from; if one arrives the string is left
    // unchanged rather than matching at every position.
    CKWString& replace(const CKWString& from, const CKWString& to);
    CKWString& replace(char from, const CKWString& to);
    CKWString& replace(const CKWString& from, char to);
    // Backslashes become forward slashes in place; returns a copy.
    CKWString MakeForwardSlash();

    // sprintf into the string. The room is a pre-scan estimate: strlen(fmt)
    // + 100, plus the length of every %s / %<width>s argument and the
    // precision and string of every %.*s. A conversion written with a flag,
    // a precision or a length modifier (%-20s, %.3s, %ld) is not counted, so
    // padding and long numbers must fit in the spare 100 bytes: anything
    // beyond the estimate is cut off, never written past it. The result
    // stops at the first NUL produced (a %c of 0 ends it).
    void Format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // Searches return the position, or npos when nothing is found. A null
    // set or pattern counts as the empty string.
    unsigned int find(char c, int pos = 0) const;
    unsigned int find(const char* s, int pos = 0) const;
    unsigned int find(const CKWString& s, int pos = 0) const;
    unsigned int rfind(char c, int pos = -1) const;
    unsigned int find_last_of(char c, int pos = -1) const;
    unsigned int find_last_of(const char* set, int pos = -1) const;
    // Always searches from position 0.
    unsigned int find_first_of(const char* set) const;

    int compare(const CKWString& other) const;

private:
    std::string s_;
};

// Same text as CKWString; ordered case-insensitively (strcasecmp) for use as
// the key of maps and sets, while == stays case-sensitive.
class TV_API CKWStringPc : public CKWString {
public:
    CKWStringPc() {}
    CKWStringPc(const char* s) : CKWString(s) {}       // NOLINT
    CKWStringPc(const CKWString& s) : CKWString(s) {}  // NOLINT
};

// strcasecmp order (POSIX locale, stops at the first NUL): the only
// ordering of CKWStringPc maps and sets, so "Run" and "RUN" are one key.
TV_API bool operator<(const CKWStringPc& a, const CKWStringPc& b);

TV_API CKWString operator+(const CKWString& a, const CKWString& b);
TV_API CKWString operator+(const CKWString& a, const char* b);
TV_API CKWString operator+(const char* a, const CKWString& b);
TV_API CKWString operator+(const CKWString& a, char b);
TV_API CKWString operator+(char a, const CKWString& b);

// Byte-wise, case-sensitive comparisons; a null const char* compares as the
// empty string.
TV_API bool operator==(const CKWString& a, const CKWString& b);
TV_API bool operator!=(const CKWString& a, const CKWString& b);
TV_API bool operator<(const CKWString& a, const CKWString& b);
TV_API bool operator>(const CKWString& a, const CKWString& b);
TV_API bool operator<=(const CKWString& a, const CKWString& b);
TV_API bool operator>=(const CKWString& a, const CKWString& b);
TV_API bool operator==(const CKWString& a, const char* b);
TV_API bool operator!=(const CKWString& a, const char* b);
TV_API bool operator<(const CKWString& a, const char* b);
TV_API bool operator>(const CKWString& a, const char* b);
TV_API bool operator<=(const CKWString& a, const char* b);
TV_API bool operator>=(const CKWString& a, const char* b);
TV_API bool operator==(const char* a, const CKWString& b);
TV_API bool operator!=(const char* a, const CKWString& b);
TV_API bool operator<(const char* a, const CKWString& b);
TV_API bool operator>(const char* a, const CKWString& b);
TV_API bool operator<=(const char* a, const CKWString& b);
TV_API bool operator>=(const char* a, const CKWString& b);

#endif  // TVCOMMONUTIL_STRINGS_H
