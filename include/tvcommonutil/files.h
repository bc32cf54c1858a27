// File handles and file-system functions, KWSuperGlob, directory search, file mappings.
#ifndef TVCOMMONUTIL_FILES_H
#define TVCOMMONUTIL_FILES_H

#include <sys/stat.h>

#include <map>

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

// ---------------------------------------------------------------------------
// File handles and file-system functions
// ---------------------------------------------------------------------------
// The product's own small numbers, deliberately not the Win32 bit values.
// desiredAccess of CreateFile:
constexpr DWORD TV_ACCESS_DEFAULT = 0;            // read only
constexpr DWORD TV_ACCESS_READ = 1;               // O_RDONLY
constexpr DWORD TV_ACCESS_WRITE = 2;              // O_WRONLY
constexpr DWORD TV_ACCESS_READ_WRITE = 3;         // O_RDWR
constexpr DWORD TV_ACCESS_APPEND = 4;             // O_APPEND on a read-only open
constexpr DWORD TV_ACCESS_WRITE_APPEND = 6;       // O_WRONLY | O_APPEND
constexpr DWORD TV_ACCESS_READ_WRITE_APPEND = 7;  // O_RDWR | O_APPEND
// creationDisposition of CreateFile:
constexpr DWORD CREATE_NEW = 1;         // O_CREAT | O_EXCL
constexpr DWORD CREATE_ALWAYS = 2;      // O_CREAT | O_TRUNC
constexpr DWORD OPEN_EXISTING = 3;      // no flags added
constexpr DWORD OPEN_ALWAYS = 4;        // O_CREAT
constexpr DWORD TRUNCATE_EXISTING = 5;  // O_CREAT | O_TRUNC: it also creates, as 2 does
// flagsAndAttributes of CreateFile (only these bits have an effect):
constexpr DWORD TV_FILE_FLAG_WRITE_THROUGH = 0x1000;     // passed on as O_DSYNC (the same bit)
constexpr DWORD TV_FILE_FLAG_BACKUP_SEMANTICS = 0x4000;  // a directory: notification handle
// MoveFileEx flags, the product's own numbering:
constexpr DWORD TV_MOVEFILE_COPY_ALLOWED = 0x1;  // reported as not implemented
constexpr DWORD TV_MOVEFILE_UNSUPPORTED = 0xA;   // reported as unsupported
constexpr DWORD TV_MOVEFILE_RENAME = 0x4;        // rename, replacing an existing target
// Attribute values of Get/SetFileAttributes (the library's own numbering).
constexpr DWORD TV_FILE_ATTRIBUTE_READONLY = 0x10;  // SetFileAttributes only
constexpr DWORD TV_FILE_ATTRIBUTE_EXECUTABLE = 0x20;
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFFUL;

// Opens `name` with flags built from the two small-number tables above;
// unsupported values print "CreateFile: dwDesiredAccess mode of %d not
// suppported" / "CreateFile: dwCreationDistribution of %d not suppported" on
// stderr and add nothing. The descriptor is close-on-exec; mode 0644.
// With TV_FILE_FLAG_BACKUP_SEMANTICS nothing is opened: a directory gives a
// ChangeNotificationHandle (null when desiredAccess has bit 0x1 clear),
// anything else INVALID_HANDLE_VALUE. Failure: INVALID_HANDLE_VALUE, errno
// from open. shareMode, security and template are ignored.
TV_API Handle* CreateFile(const char* name, unsigned long desiredAccess, unsigned long shareMode,
                          _SECURITY_ATTRIBUTES* security, unsigned long creationDisposition,
                          unsigned long flagsAndAttributes, Handle* templateFile);
// *done = read(); TRUE unless the read gave -1 (then *done is (DWORD)-1).
TV_API BOOL ReadFile(Handle* h, void* buffer, unsigned long length, unsigned long* done,
                     _OVERLAPPED* overlapped);
// *done = write(); TRUE only when all `length` bytes went out: a short write
// is a failure here, unlike a short read.
TV_API BOOL WriteFile(Handle* h, const void* buffer, unsigned long length, unsigned long* done,
                      _OVERLAPPED* overlapped);
TV_API BOOL DeleteFile(const char* name);
TV_API BOOL SetCurrentDirectory(const char* path);
TV_API BOOL CreateDirectory(const char* path, _SECURITY_ATTRIBUTES* security);
// mkdir(path, 0755); an existing directory is not a failure. With a
// template, the new directory takes its mode, owner and group; a template
// that cannot be stat'ed removes `path` again and fails.
TV_API BOOL CreateDirectoryEx(const char* templateDir, const char* path,
                              _SECURITY_ATTRIBUTES* security);
// The whole 64-bit size; *high is set to 0. Failure prints a line and
// returns (DWORD)-1.
TV_API DWORD GetFileSize(Handle* h, unsigned long* high);
// creation and write both get st_mtime (Unix keeps no creation time),
// access st_atime. Always TRUE; a failed fstat prints a line and fills the
// times from a zeroed record.
TV_API BOOL GetFileTime(Handle* h, _FILETIME* creation, _FILETIME* access, _FILETIME* write);
// lseek with methods 0/1/2 as SEEK_SET/CUR/END; returns the full new position
// ((DWORD)-1 on failure). h == INVALID_HANDLE_VALUE gives 0xFFFFFFFF. `high`
// is ignored.
TV_API DWORD SetFilePointer(Handle* h, long offset, long* high, unsigned long method);
TV_API long tell(int fd);
// Truncates (or extends) the file at the current position.
TV_API BOOL SetEndOfFile(Handle* h);
// With bit 0x4, rename(2), replacing an existing target. Without it the file
// is moved only when the target does not exist (else FALSE, errno EEXIST).
// Bits 0xA and 0x1 print a line each. Null names: FALSE, errno EINVAL.
TV_API BOOL MoveFileEx(const char* from, const char* to, unsigned long flags);
// INVALID_FILE_ATTRIBUTES when stat fails; else 0x100 directory, 0x80
// regular file, 0 anything else, OR 0x20 when any execute bit is set. The
// read-only bit 0x10 is never reported (SetFileAttributes takes it).
TV_API DWORD GetFileAttributes(const char* path);
// 0x10 clears all write bits (0222) else sets them all; 0x20 sets all
// execute bits (0111) else clears them.
TV_API BOOL SetFileAttributes(const char* path, unsigned long attributes);
// Sum of st_size (links followed) of every non-directory in the tree; 0 when
// dir is not a directory. A directory already being summed further up the
// same branch (reached again through a link) is not entered twice.
TV_API long long GetDirectoryTreeSize(CKWString dir);
// Last path component into out (at most size - 1 characters and a NUL).
// Null out or size <= 0: null. Empty or null path: "." copied with strncpy of
// `size` (so a size of 1 leaves it unterminated, as callers have always had
// it). Slashes only: "/".
TV_API char* basename_r(const char* path, char* out, int size);
// rmdir; a non-empty directory (EEXIST or ENOTEMPTY) first loses its
// entries whose names begin with ".KW", unlinked as path + name with no
// separator added (callers pass a path ending in '/'). A symbolic link to a
// directory removes the target directory and then the link.
TV_API BOOL RemoveDirectory(const char* path);
// statvfs of dir (null: the current directory), in bytes.
TV_API BOOL GetDiskFreeSpaceEx(const char* dir, _ULARGE_INTEGER* freeBytesAvailable,
                               _ULARGE_INTEGER* totalBytes, _ULARGE_INTEGER* totalFreeBytes);
// The POSIX calls of the same names: 0 or -1 with errno.
TV_API int _stat(const char* path, struct stat* buf);
TV_API int _lstat(const char* path, struct stat* buf);
TV_API int _fstat(int fd, struct stat* buf);

// ---------------------------------------------------------------------------
// Temporary names and copies
// ---------------------------------------------------------------------------
// A name for a temporary file in dir: "dir/<name>.<tick>", where <name> is
// the last component of a fresh temporary-file name (shaped like tempnam's,
// "file" and six random characters) and <tick> the millisecond clock cut to
// an int. The name is very likely unused but not reserved: create it with
// O_EXCL.
TV_API CKWString KWTempNam(CKWString dir);
// Copies from to to, both held under FileLock locks for the copy. A missing
// source gives 0 and is never created. With failIfExists an existing
// destination gives 0; otherwise the destination is truncated first. Unless
// the process runs as a server (bRunningInServer), the copy gets the
// source's owner, group and mode. 1 on success, 0 when an open, the stat,
// the allocation, a read or a write fails. The copy keeps the source's
// access and modification times. A copy onto the source itself (however
// named) is refused untouched: 0, errno ERROR_SHARING_VIOLATION.
TV_API BOOL CopyFile(const char* from, const char* to, unsigned char failIfExists);

// ---------------------------------------------------------------------------
// Glob engine
// ---------------------------------------------------------------------------
// KWSuperGlob matches file names against a set of wildcard patterns ('*',
// '?', bracket sets with '!' and ranges, '{a,b}' alternatives) and walks one
// directory, optionally its whole subtree, collecting every matching entry
// with its stat data. Matching is byte for byte and case-sensitive; '*'
// matches any string, '/' and a leading '.' included. Directories found in
// a walk are reported whether or not they match (set KWGLOB_NO_DIRS to leave
// them out).
//
// Pattern flags and the mode share one bit space:
constexpr unsigned long KWGLOB_APPEND = 0x1;        // Glob keeps earlier results
constexpr unsigned long KWGLOB_MARK = 0x8;          // reported directories end in '/'
constexpr unsigned long KWGLOB_MATCH_ALL = 0x20;    // the default "*": every name matches
constexpr unsigned long KWGLOB_RECURSE = 0x40;      // walk subdirectories, depth first
constexpr unsigned long KWGLOB_INVERT = 0x80;       // report names matching no pattern
constexpr unsigned long KWGLOB_HAS_BRACE = 0x100;   // internal: the pattern has a '{'
constexpr unsigned long KWGLOB_HAS_MAGIC = 0x200;   // internal: compiled with a wildcard
constexpr unsigned long KWGLOB_QUOTE = 0x800;       // backslash quotes (no brace expansion)
constexpr unsigned long KWGLOB_FULL_PATH = 0x2000;  // results carry absolute paths
constexpr unsigned long KWGLOB_ONLY_DIRS = 0x4000;  // entries that are not directories skipped
constexpr unsigned long KWGLOB_NO_DIRS = 0x8000;    // directories walked but not reported

// Pattern characters per record, the terminating zero included: longer
// patterns are cut.
constexpr int KWGLOB_MAX_PATTERN = 4096;
// Brace expansion of one AddPattern call adds at most this many patterns;
// past it the call gives up and returns false (the patterns added so far
// stay). "{a,b}" groups multiply, so an unbounded expansion could exhaust
// memory on an administrator's typo.
constexpr int KWGLOB_MAX_EXPANSIONS = 1024;

// One walk result: the path as reported and the entry's stat data (links
// followed).
struct GlobResult_t {
    CKWString path;
    struct stat statData;
};

// One compiled pattern. Ordinary characters are byte values; wildcards are
// markers with bit 0x8000 set.
struct GlobPattern_t {
    CKWString text;          // as given to AddPattern
    unsigned long counter1;  // kept at 0; nothing reads them
    unsigned long counter2;
    unsigned int flags;
    unsigned short chars[KWGLOB_MAX_PATTERN];  // compiled, zero-terminated
};

// Not thread-safe: one engine belongs to one thread at a time (a directory
// search owns its own).
class TV_API KWSuperGlob {
public:
    KWSuperGlob();
    ~KWSuperGlob();
    KWSuperGlob(const KWSuperGlob&) = delete;
    KWSuperGlob& operator=(const KWSuperGlob&) = delete;

    // Compiles one pattern (and each of its brace alternatives as a pattern
    // of its own) and ORs its flags into the mode. Unbalanced braces keep the
    // pattern literally. False when a record cannot be allocated or the
    // expansion limit is reached.
    bool AddPattern(const char* pattern, unsigned long flags);
    // A null list adds "*" with flags | KWGLOB_MATCH_ALL; otherwise each
    // pattern of the null-terminated list, stopping with false at a failure.
    bool SetPatterns(const char** patterns, unsigned long flags);
    void SetMode(unsigned long mode) { mode_ = mode; }
    unsigned long GetMode() const { return mode_; }
    void ClearPatterns() { FreeGlobs(); }
    void FreeGlobs();
    size_t PatternCount() const { return patterns_.size(); }

    // Replaces the patterns, drops earlier results unless the mode has
    // KWGLOB_APPEND, ORs flags into the mode and walks directory. True.
    bool Glob(const CKWString& directory, const char** patterns, unsigned long flags);
    // Walks directory with the current patterns ("*" when there are none),
    // adding to the results. True.
    bool GlobMore(const CKWString& directory);
    // Whether a walk would report a file of this name. The work is bounded by
    // pattern length times name length per pattern.
    bool Match(const char* name) const;

    // Results in discovery order, with one cursor.
    bool begin();
    bool rbegin();
    bool operator++(int);
    bool operator--(int);
    // The current result; an empty one when the cursor is at the end.
    GlobResult_t& operator*();
    bool end() const;
    // Removes the current result; the cursor moves to the next one.
    bool erase();
    size_t size() const { return results_.size(); }

    void FoundItem(const CKWString& path, const struct stat* st);
    void FoundFree();
    // strcmp order of the two names (results themselves stay in discovery
    // order).
    static int compare(const CKWString& a, const CKWString& b);

private:
    struct WalkFrame;
    bool AddOne(const char* pattern, unsigned long flags, bool expand);
    bool ExpandBraces(GlobPattern_t* record, unsigned long flags);
    void MakeBaseAbsolute();
    void Walk(const CKWString& prefix, const WalkFrame* parent);
    void Report(const CKWString& relative, const struct stat& st);

    std::map<unsigned long, GlobPattern_t*> patterns_;
    unsigned long patternCounter_;
    CKWString baseDirectory_;
    unsigned long mode_;
    unsigned long resultCounter_;
    std::map<unsigned long, GlobResult_t> results_;
    std::map<unsigned long, GlobResult_t>::iterator cursor_;
    GlobResult_t empty_;
    int expansionBudget_;
};

// ---------------------------------------------------------------------------
// Directory search
// ---------------------------------------------------------------------------
// A directory search: one glob engine loaded with one name pattern and the
// listing of one directory (not its subdirectories). Names come back bare.
class TV_API FindFileHandle : public Handle {
public:
    // Directory entries are listed only when namePattern is exactly "*".
    FindFileHandle(const CKWString& directory, const CKWString& namePattern);
    ~FindFileHandle() override;
    int What() override;
    // Fills data with the next result and returns this handle, or returns
    // INVALID_HANDLE_VALUE when there is none. `next` is unused.
    Handle* CopyOutFile(_WIN32_FIND_DATA* data, unsigned char next);

private:
    KWSuperGlob glob_;
};

// Splits pattern at its last '/' into a directory (keeping the slash) and a
// name pattern, except when the slash is at position 1 ("./x*", "~/x"), is
// the last character, or the pattern is not wild and names a directory: then
// the whole text is the directory and "*" the name pattern. Unlike Win32, a
// directory name lists the directory's contents. INVALID_HANDLE_VALUE when
// data is given and nothing matches (no handle is left behind), errno
// ERROR_FILE_NOT_FOUND.
TV_API Handle* FindFirstFile(const char* pattern, _WIN32_FIND_DATA* data);
// TRUE when data was filled with the next entry; at the end FALSE with errno
// ERROR_NO_MORE_FILES.
TV_API int FindNextFile(Handle* h, _WIN32_FIND_DATA* data);
// Releases the search; returns 2 in every case, which callers test for.
TV_API int FindClose(Handle* h);

// ---------------------------------------------------------------------------
// File mappings
// ---------------------------------------------------------------------------
// Named shared memory over a file "/tmp/." + name, shared through mmap by
// every process opening the same name. Each view begins with an 8-byte length
// header; callers get the address just past it.
//
// file must be exactly (Handle*)0xFFFFFFFF (a 64-bit -1 is refused too) and
// name non-null, else EINVAL and null. protect is used as the open flags. A
// new file is sized maximumSizeLow + 8 and errno is 0; an existing one is
// opened as it is (never through a symbolic link) and errno is 17 (EEXIST),
// which is how callers tell the two apart. Failure: null, errno from open.
TV_API Handle* CreateFileMapping(Handle* file, _SECURITY_ATTRIBUTES* security,
                                 unsigned long protect, unsigned long maximumSizeHigh,
                                 unsigned long maximumSizeLow, char* name);
// Maps bytes + 8 (bytes 0: the whole file) with access as the protection
// bits, shared, at offsetLow; access 2 writes the length into the header.
// Null with errno on failure.
TV_API void* MapViewOfFile(Handle* mapping, unsigned long access, unsigned long offsetHigh,
                           unsigned long offsetLow, unsigned long bytes);
// TRUE when the view at address was unmapped; 0 for null or an address that
// is not a view of this process.
TV_API int UnmapViewOfFile(void* address);

#endif  // TVCOMMONUTIL_FILES_H
