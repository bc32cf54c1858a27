// Internal interface of the profile (INI) cache: the cached tables, the
// process-wide lock that guards them, the parser, the flush and the small
// text helpers. Only the profile code and its tests include this header.
//
// Design
// ------
// Every profile file the process touches is kept as a `yufiletable`: the
// file's lines, trimmed but otherwise verbatim, grouped under the section
// header that precedes them. Nothing is interpreted at load time; `key=value`
// is split at lookup time. That is what lets a write put the file back with
// its comments, blank lines and key order intact.
//
// Locking model. One process-wide mutex, `yuProfileMutex`, guards the list of
// tables, every table in it and the write-caching switch. Each public entry
// point holds it for its whole run; the internal functions declared here that
// touch the list or a table require it. It is a leaf lock: no other lock of the
// library is taken while it is held.
//
// Between processes a flush is ordered by an exclusively created lock file,
// "/tmp/<path with every '/' turned into '-'>-lock". A flush rewrites the file
// in place (same inode, no temporary file), so readers, which take no
// cross-process lock, guard their snapshot instead: a load notes the file's
// status-change time (to the nanosecond), its size and whether a live lock file
// exists before reading, checks all three again afterwards and reads again if a
// flush overlapped (see ReadIniFile).
#ifndef TV_PROFILE_PROFILE_CACHE_H
#define TV_PROFILE_PROFILE_CACHE_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "tvcommonutil/thread_annotations.h"

namespace tv {
namespace detail {

// Longest path a table can hold: the name field is 256 bytes with its NUL.
// Longer paths are refused, never truncated into some other file's name.
constexpr size_t kProfileNameSize = 256;
// Room for "/tmp/" + a full-length name + "-lock" + NUL.
constexpr size_t kProfileLockNameSize = kProfileNameSize + 16;
// Section, line and header counts are 16-bit signed.
constexpr int kProfileMaxCount = 32767;

// One section of a cached file.
struct yusection {
    char* name;         // text between '[' and the first ']', not trimmed
    char* headerLine;   // the header line as it stood, trimmed, comment kept
    int16_t lineCount;  // slots used in `lines`; deleted lines leave a null slot
    char** lines;       // every line up to the next header, trimmed; may hold nulls
};

// One cached file. Fields are guarded by yuProfileMutex.
struct yufiletable {
    char name[kProfileNameSize];  // the path exactly as the caller gave it
    int64_t cachedTime;           // st_ctime (seconds) at load or last counted flush
    uint16_t dirty;               // 1 while changes are not on disk (and while loading)
    int16_t headerCount;          // lines before the first section header
    char** headerLines;
    int16_t sectionCount;  // slots used in `sections`; deleted sections leave a null slot
    yusection** sections;
    yufiletable* next;
};

// The process-wide profile lock. Guards pYUFileTable, every table reachable
// from it and yuProfileWriteCaching; it is a leaf in the library's lock order.
// The pthread mutex is initialised lazily (default attributes) by the first
// Lock(), once, whichever thread gets there first. The object has no
// constructor, so the global instance lives in zero-initialised storage and is
// usable from any static initialiser.
class TV_CAPABILITY("mutex") ProfileMutex {
public:
    void Lock() TV_ACQUIRE();
    void Unlock() TV_RELEASE();

    pthread_mutex_t mutex_;
};

class TV_SCOPED_CAPABILITY ProfileMutexHolder {
public:
    explicit ProfileMutexHolder(ProfileMutex& m) TV_ACQUIRE(m) : m_(m) { m_.Lock(); }
    ~ProfileMutexHolder() TV_RELEASE() { m_.Unlock(); }
    ProfileMutexHolder(const ProfileMutexHolder&) = delete;
    ProfileMutexHolder& operator=(const ProfileMutexHolder&) = delete;

private:
    ProfileMutex& m_;
};

extern ProfileMutex yuProfileMutex;
// True until the first entry point has initialised yuProfileMutex.
bool ProfileMutexNeedsInit();
// Head of the list of cached files, newest first.
extern yufiletable* pYUFileTable TV_GUARDED_BY(yuProfileMutex);
// On by default: writes only mark a table dirty.
extern bool yuProfileWriteCaching TV_GUARDED_BY(yuProfileMutex);

// ---- text helpers (no locking) ---------------------------------------------
int _yuIsSpace(char c);
char* strip_spaces(char* s);
int strip_quotes(char* s);
char* strip_comments(char* s);
void yuStrncpy(char* dst, const char* src, size_t n);
void _yu_Sleep2(unsigned long milliseconds);

// The file-open routine used for profile files: fopen with the same mode. The
// third argument selects no conversion; only 0 is used and accepted.
FILE* TvFopen(const char* path, const char* mode, int flags);

// ---- the cross-process lock file -------------------------------------------
// Builds "/tmp/%s-lock" of name with every '/' replaced by '-'. False (and
// nothing written) for a null name or one of kProfileNameSize characters or
// more.
bool BuildProfileLockName(const char* name, char* out, size_t outSize);
int yuLock(const char* lockPath);
int yuUnlock(const char* lockPath);

// ---- tables ----------------------------------------------------------------
// True for a path the cache can hold (non-null, fewer than 256 characters);
// otherwise sets errno (ERROR_INVALID_PARAMETER / ENAMETOOLONG) and is false.
bool ProfileNameUsable(const char* path);

// Appends item to arr, growing it by 8 null slots whenever count is a multiple
// of 8. False, with nothing changed, when count has reached kProfileMaxCount.
bool AppendProfileSlot(char*** arr, int16_t* count, char* item);
bool AppendProfileSlot(yusection*** arr, int16_t* count, yusection* item);

yufiletable* NewProfileTable(const char* path);
yusection* NewProfileSection(char* name, char* headerLine);
void FreeProfileSection(yusection* s);
// Frees a table and everything it owns; it must not be on the list.
void FreeProfileTable(yufiletable* t);

// First table whose name equals path ignoring case, or null.
yufiletable* FindProfileTable(const char* path) TV_REQUIRES(yuProfileMutex);
// First non-null section whose name equals name ignoring case, or null.
yusection* FindProfileSection(yufiletable* t, const char* name);

// Frees the first cached table named path (ignoring case) and unlinks it.
int yuFreeProfileStructures(const char* path) TV_REQUIRES(yuProfileMutex);

// ---- parser ----------------------------------------------------------------
enum class ParseResult { kOk, kTooLarge };
// Parses the whole stream into t (which must be empty). *bytesRead receives
// the number of bytes consumed, the final line without a line feed included.
ParseResult ParseIniStream(FILE* f, yufiletable* t, long long* bytesRead);

// Loads path into a new table pushed at the head of *list. 1 on success; 0 if
// the file cannot be opened, the path is refused, or the file exceeds the
// 16-bit counts (errno ERROR_INVALID_DATA), in which case nothing is added.
int ReadIniFile(const char* path, yufiletable** list) TV_REQUIRES(yuProfileMutex);

// ---- writing ---------------------------------------------------------------
// Writes the table in file form; false if any write failed (writing goes on).
bool WriteIniStream(FILE* f, const yufiletable* t);
// Rewrites t's file under its lock file. Deliberately returns 0 when the lock
// file was removed normally (the table stays dirty, cachedTime unchanged); 1
// only when the lock file could not be removed and no write failed.
int yuFlushProfileToDisk(yufiletable* t) TV_REQUIRES(yuProfileMutex);
// The write worker behind WritePrivateProfileString; `flag` is ignored.
int yuWritePrivateProfileString(const char* section, const char* key, const char* value,
                                const char* fileName, bool flag) TV_REQUIRES(yuProfileMutex);

}  // namespace detail
}  // namespace tv

#endif  // TV_PROFILE_PROFILE_CACHE_H
