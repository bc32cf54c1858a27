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
    static const unsigned int npos;

    CKWString();
    CKWString(const char* s);  // NOLINT(google-explicit-constructor): callers rely on it
    CKWString(const CKWString& other);
    CKWString(const std::string& s);  // NOLINT(google-explicit-constructor)
    ~CKWString();

    CKWString& operator=(const char* s);
    CKWString& operator=(const CKWString& other);

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
    CKWString& assign(const char* s, int pos, int n);
    CKWString& erase(int pos = 0, int n = static_cast<int>(npos));
    CKWString substr(int pos = 0, int n = static_cast<int>(npos)) const;
    // The last n bytes; n is not clamped to the length (std::out_of_range
    // is thrown when n exceeds it, as for substr).
    CKWString Right(int n) const;

    CKWString& MakeLower();
    CKWString& TrimLeft();
    CKWString& TrimRight();
    CKWString& replace(char from, char to);
    // Replaces every non-overlapping occurrence of from, left to right.
    // from must not be empty.
    CKWString& replace(const CKWString& from, const CKWString& to);
    CKWString& replace(char from, const CKWString& to);
    CKWString& replace(const CKWString& from, char to);
    // Backslashes become forward slashes in place; returns a copy.
    CKWString MakeForwardSlash();

    // sprintf into the string. The buffer is sized by a pre-scan estimate of
    // strlen(fmt) + 100 plus the length of every plain %s / %.*s argument;
    // output beyond the estimate is cut there, never written past it.
    void Format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    unsigned int find(char c, int pos = 0) const;
    unsigned int find(const char* s, int pos = 0) const;
    unsigned int find(const CKWString& s, int pos = 0) const;
    unsigned int rfind(char c, int pos = static_cast<int>(npos)) const;
    unsigned int find_last_of(char c, int pos = static_cast<int>(npos)) const;
    unsigned int find_last_of(const char* set, int pos = static_cast<int>(npos)) const;
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
    CKWStringPc(const char* s) : CKWString(s) {}          // NOLINT
    CKWStringPc(const CKWString& s) : CKWString(s) {}     // NOLINT
};

TV_API bool operator<(const CKWStringPc& a, const CKWStringPc& b);

TV_API CKWString operator+(const CKWString& a, const CKWString& b);
TV_API CKWString operator+(const CKWString& a, const char* b);
TV_API CKWString operator+(const char* a, const CKWString& b);
TV_API CKWString operator+(const CKWString& a, char b);
TV_API CKWString operator+(char a, const CKWString& b);

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
