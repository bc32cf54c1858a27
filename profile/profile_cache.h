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
// "/tmp/<path with every '/' turned into '-'>-lock", which names its holder
// (pid and start time) so a waiter can break a lock left by a dead process.
// Under that lock the flush compares the file with the state it had when this
// process loaded it; if another process changed it, the file is read again and
// this process's own pending changes are replayed over it in the order they
// were made, so processes that change different keys never undo each other.
// The result goes to a temporary file that is synced and renamed over the
// profile, so a reader always opens a complete file and needs no lock.
#ifndef TV_PROFILE_PROFILE_CACHE_H
#define TV_PROFILE_PROFILE_CACHE_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <time.h>

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

// What identifies one version of a file on disk. Any rewrite of a profile
// changes at least one of these: a rename brings a new inode, an in-place
// rewrite a new status-change time.
struct ProfileFileState {
    bool ok = false;  // stat succeeded
    bool regular = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    timespec ctim{};
};
ProfileFileState StatProfileFile(const char* path);
bool SameProfileFileState(const ProfileFileState& a, const ProfileFileState& b);

// Changes this process made to a table and has not written yet, in order.
struct PendingChanges;
void FreePendingChanges(PendingChanges* p);

// A hash index of a table's section names or of a section's keys, built once
// they are looked up repeatedly without change (see profile_index.cpp).
struct ProfileLookupIndex;

// One section of a cached file.
struct yusection {
    char* name;                    // text between '[' and the first ']', not trimmed
    char* headerLine;              // the header line as it stood, trimmed, comment kept
    int16_t lineCount;             // slots used in `lines`; deleted lines leave a null slot
    char** lines;                  // every line up to the next header, trimmed; may hold nulls
    ProfileLookupIndex* keyIndex;  // null until the keys have been looked up a few times
    uint16_t lookups;              // key lookups since the lines last changed
};

// One cached file. Fields are guarded by yuProfileMutex.
struct yufiletable {
    char name[kProfileNameSize];  // the path exactly as the caller gave it
    ProfileFileState cached;      // the file as loaded or last written by this process
    PendingChanges* pending;      // null while there are none
    uint16_t dirty;               // 1 while changes are not on disk (and while loading)
    int16_t headerCount;          // lines before the first section header
    char** headerLines;
    int16_t sectionCount;  // slots used in `sections`; deleted sections leave a null slot
    yusection** sections;
    ProfileLookupIndex* sectionIndex;  // null until sections have been looked up a few times
    uint16_t lookups;                  // section lookups since the sections last changed
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

// The file-open routine used for profile files: fopen with the same mode. The
// third argument selects no conversion; only 0 is used and accepted.
FILE* TvFopen(const char* path, const char* mode, int flags);

// ---- the cross-process lock file -------------------------------------------
// Builds "/tmp/%s-lock" of name with every '/' replaced by '-'. False (and
// nothing written) for a null name or one of kProfileNameSize characters or
// more.
bool BuildProfileLockName(const char* name, char* out, size_t outSize);
// Takes the lock file, waiting for a live holder with a growing pause for at
// most kProfileLockWaitMs, and breaking a lock whose holder is gone or that is
// older than kProfileStaleLockSec. 1 once taken, 0 otherwise.
constexpr long kProfileLockWaitMs = 2000;
constexpr long kProfileStaleLockSec = 30;
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
// First line of s holding a '=' whose trimmed key text equals key (keyLen
// characters) ignoring case, or null.
const char* FindProfileKeyLine(yusection* s, const char* key, size_t keyLen);
// Whether the key text of line (up to eq, its first '=' or its end), trimmed,
// equals key under cmp.
bool LineKeyEquals(const char* line, const char* eq, const char* key, size_t keyLen,
                   int (*cmp)(const char*, const char*, size_t));
// Every edit calls these for what it changed: an index must never outlive the
// lines or sections it was built from.
void DropSectionIndex(yufiletable* t);
void DropKeyIndex(yusection* s);
void FreeProfileLookupIndex(ProfileLookupIndex* index);

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
// Writes t's file under its lock file, merging with what another process
// wrote meanwhile. A write that succeeded clears dirty and the pending
// changes. Deliberately returns 0 when the lock file was removed normally; 1
// only when the lock file could not be removed and no write failed.
int yuFlushProfileToDisk(yufiletable* t) TV_REQUIRES(yuProfileMutex);
// The edits themselves, on a table only (no flush, nothing recorded). Set is
// false when a count limit is reached; the deletes are false when nothing
// matched.
bool ApplySet(yufiletable* t, const char* section, const char* key, const char* value);
bool ApplyDeleteKey(yufiletable* t, const char* section, const char* key);
bool ApplyDeleteSection(yufiletable* t, const char* section);
// Re-applies p to t in order.
void ReplayPending(yufiletable* t, const PendingChanges* p);
// Replaces t's lines with the file's current contents and this process's
// pending changes on top. False (t unchanged) when the file cannot be read;
// a missing file counts as empty.
bool ReloadKeepingPending(yufiletable* t) TV_REQUIRES(yuProfileMutex);

// The write worker behind WritePrivateProfileString; `flag` is ignored.
int yuWritePrivateProfileString(const char* section, const char* key, const char* value,
                                const char* fileName, bool flag) TV_REQUIRES(yuProfileMutex);

}  // namespace detail
}  // namespace tv

#endif  // TV_PROFILE_PROFILE_CACHE_H
