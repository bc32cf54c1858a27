// The shared registry: Reg* functions, CRegistry, FileLock, start-up and lazy writer.
#ifndef TVCOMMONUTIL_REGISTRY_H
#define TVCOMMONUTIL_REGISTRY_H

#include <stddef.h>
#include <sys/stat.h>

#include <list>
#include <string>

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

// ---------------------------------------------------------------------------
// Registry API
// ---------------------------------------------------------------------------
// The registry is one tree of keys with named values, kept in a text file
// shared by every process of the host (see "Registry start-up" below). The
// functions keep the Windows names and arguments; results are 0 on success,
// -1 for most failures (unknown handle, missing key or argument), 13 for a
// key or value not found on open or query, 234 when a buffer is too small
// (the needed size is stored) and 259 past the end of an enumeration.
//
// HKEY 0 is HKEY_LOCAL_MACHINE. Other handles are key numbers; every opener
// of one key gets the same number, with 0x40000000 added when the requested
// access has a bit of 0x60000. Changes reach the file when a changed key is
// closed or flushed (at once, or through the lazy writer when it runs).
//
// Values are held as text: REG_SZ, REG_DWORD (an unsigned long of 8 bytes)
// and REG_MULTI_SZ (strings joined by blanks in the file, so strings with
// blanks come back split). A value the file could not hold faithfully (a
// line end, the text HKEY_LOCAL_MACHINE, a name starting with '#', a line
// over 4095 characters) is refused with -1 rather than written damaged.
// Every function is thread-safe.

// One entry of a batch of values (see RegSetValueNode).
struct RegValueList {
    CKWString name;
    unsigned long type;
    CKWString data;
};

TV_API LONG RegCreateKeyEx(HKEY hKey, const char* subKey, DWORD reserved, char* lpClass,
                           DWORD options, REGSAM samDesired, SECURITY_ATTRIBUTES* security,
                           HKEY* phkResult, DWORD* disposition);
// 13 when phkResult is null, the handle is unknown or the key is missing.
TV_API LONG RegOpenKeyEx(HKEY hKey, const char* subKey, DWORD options, REGSAM samDesired,
                         HKEY* phkResult);
// Needed sizes: text length + 1 for REG_SZ and REG_MULTI_SZ, 8 for
// REG_DWORD. A REG_MULTI_SZ comes back with every blank turned into a zero
// byte and one final zero. Without a data buffer only the size is stored.
TV_API LONG RegQueryValueEx(HKEY hKey, const char* name, DWORD* reserved, DWORD* type, BYTE* data,
                            DWORD* cbData);
// REG_DWORD reads an unsigned long (8 bytes, or cbData bytes when fewer) and
// stores it as "%#x"; REG_MULTI_SZ takes the first cbData - 1 bytes with
// every zero byte turned into a blank. Other types: -1 (ERROR_NOT_SUPPORTED).
TV_API LONG RegSetValueEx(HKEY hKey, const char* name, DWORD reserved, DWORD type, const BYTE* data,
                          DWORD cbData);
// Appends one entry to a batch: REG_SZ as given (data is a const char*),
// REG_DWORD (data points to an unsigned long) in "%i" decimal, REG_MULTI_SZ
// (a list ending in an empty string) joined by blanks. -1 for other types.
TV_API LONG RegSetValueNode(const char* name, DWORD type, const void* data,
                            std::list<RegValueList>& list);
// Sets every entry on one key under one key lock.
TV_API LONG RegBatchSetValueEx(HKEY hKey, std::list<RegValueList>& list);
// The value at position index (order of first setting). On success *cbName
// is the name's length without its zero; 234 stores the length + 1.
TV_API LONG RegEnumValue(HKEY hKey, DWORD index, char* name, DWORD* cbName, DWORD* reserved,
                         DWORD* type, BYTE* data, DWORD* cbData);
// The subkey at position index (order of creation). -1 (never 234) when the
// name and its zero do not fit cbName, the buffer is null or the handle is
// unknown.
TV_API LONG RegEnumKey(HKEY hKey, DWORD index, char* name, DWORD cbName);
TV_API LONG RegDeleteValue(HKEY hKey, const char* name);
// With hKey 0, subKey is a path whose last component is deleted from its
// parent; otherwise subKey is one child name of hKey, which must be a write
// handle. The whole subtree goes; keys still open elsewhere in this process
// stay reachable through their handles until closed.
TV_API LONG RegDeleteKey(HKEY hKey, const char* subKey);
TV_API LONG RegCloseKey(HKEY hKey);
TV_API LONG RegFlushKey(HKEY hKey);
// Fills the subkey and value counts and the longest subkey name, value name
// (characters, without the zero) and value data (bytes as a query needs
// them); the other outputs are left alone.
TV_API LONG RegQueryInfoKey(HKEY hKey, char* lpClass, DWORD* cClass, DWORD* reserved,
                            DWORD* cSubKeys, DWORD* cbMaxSubKeyLen, DWORD* cbMaxClassLen,
                            DWORD* cValues, DWORD* cbMaxValueNameLen, DWORD* cbMaxValueLen,
                            DWORD* cbSecurity, FILETIME* lastWrite);
// The path behind a handle; empty for an unknown one.
TV_API CKWString RegHKEYtoString(HKEY hKey);

// Change notification. When the event last reported this very handle value
// (write bit included) and the key's revision has grown since, the event is
// set at once. Otherwise the request waits: the event is set (once) when a
// change of the key, or with watchSubtree of a key below it, made by this
// or any other process, has been written to the registry file, or when the
// key goes away; unless asynchronous, the call waits for it without limit
// (the thread's own registry event when event is null). A waiting request
// holds a reference on the event until it is answered or
// RegUnnotifyChangeKeyValue drops it. notifyFilter is accepted and ignored.
// -1 for an unknown handle.
TV_API LONG RegNotifyChangeKeyValue(HKEY hKey, BOOL watchSubtree, DWORD notifyFilter, HANDLE event,
                                    BOOL asynchronous);
TV_API LONG RegUnnotifyChangeKeyValue(HKEY hKey, HANDLE event);
// Placeholders of the notification design: they accept their arguments and
// do nothing.
typedef long (*RegWatchCallback)(void* context);
TV_API long RegCallbackStub(void* context);
TV_API long RegWatchFile(DWORD interval, RegWatchCallback callback, void* context);

// ---------------------------------------------------------------------------
// CRegistry
// ---------------------------------------------------------------------------
#ifndef TV_HAVE_SHARED_BASIC_STRING
#define TV_HAVE_SHARED_BASIC_STRING
// The embedding server's string class; CRegistry only calls its virtual
// assign. A server with its own definition defines TV_HAVE_SHARED_BASIC_STRING
// before including this header (its assign must keep this slot).
template <class T>
class SharedBasicString {
public:
    virtual ~SharedBasicString() {}
    virtual SharedBasicString& assign(const T* s, size_t n) {
        s_.assign(s, n);
        return *this;
    }
    const std::basic_string<T>& str() const { return s_; }

private:
    std::basic_string<T> s_;
};
#endif

// One open registry key with typed reads and writes. Each operation is one
// registry call; it returns true exactly when that call returned 0 and keeps
// the call's result (GetLastResult). Not thread-safe: one owner at a time.
class TV_API CRegistry {
public:
    // RegOpenKeyEx with access 0x190000 (read only) or 0x3f0000 (a handle
    // that may change the key). A null subKey makes no call.
    CRegistry(HKEY hKey, const char* subKey, int readOnly = 0);
    // RegCreateKeyEx with access 0x3f0000; disposition may be null.
    CRegistry(HKEY hKey, const char* subKey, DWORD* disposition, int unused);
    ~CRegistry();
    CRegistry(const CRegistry&) = delete;
    CRegistry& operator=(const CRegistry&) = delete;

    bool SetValue(const char* name, const unsigned long& value);
    // Stores 1 for any non-zero value and 0 otherwise.
    bool SetValue(const char* name, int const& value);
    bool SetValue(const char* name, const char* data, unsigned long& size);     // REG_MULTI_SZ
    bool SetValue(const char* name, unsigned char* data, unsigned long& size);  // REG_BINARY
    bool SetValue(const char* name, const char* value);                         // REG_SZ
    // The value is stored only on success.
    bool GetValue(const char* name, unsigned long& value);
    bool GetValue(const char* name, unsigned long* value);
    bool GetValue(const char* name, int& value);  // 1 for non-zero, else 0
    bool GetValue(const char* name, unsigned char* data, unsigned long* size);
    bool GetValue(const char* name, unsigned char* data, unsigned long& size);
    // A string of 1024 characters or more fails with ERROR_MORE_DATA.
    bool GetValue(const char* name, SharedBasicString<char>& value);
    // Deletes the child of this key that bears the constructor's subKey as
    // its name (deliberately not the key itself).
    bool Delete();
    bool DeleteSubKey(const char* name);
    bool DeleteValue(const char* name);

    HKEY GetHandle() const { return handle_; }
    long GetLastResult() const { return lastResult_; }

private:
    bool Result(long r) {
        lastResult_ = r;
        return r == 0;
    }

    HKEY handle_;
    long lastResult_;
    std::string keyName_;
};

// ---------------------------------------------------------------------------
// Registry start-up and lazy writer
// ---------------------------------------------------------------------------
// Files, under the install directory (TV_REGISTRY, else "/usr/lib/tavren/../"):
// "registry/tv.registry", its ".template" and ".bak", and the lock file
// "registry/.registry-lockfile", whose ftok key names one System V semaphore
// (serialising writers of the file across processes) and one shared page
// (last writer, lock owner, version stamp, attach count).
//
// Every registry call starts the registry when needed. A missing registry
// directory is made (0755); temporary files left by writers that are gone
// are removed. Start-up failures that leave the registry unusable (a
// registry file that cannot be read or holds no key line, a symbolic link
// at the registry's or the lock file's path) print their message and end
// the process; a link at the backup's path is reported and left alone.

// flags bit 0: copy the registry to its backup first. create: make the
// shared objects when missing (false: they must exist, else exit code 1).
TV_API void InitRegistry(int flags, int create);
// Sets the registry file to dir + "registry/tv.registry"; true when it exists.
TV_API BOOL SetRegistryPath(const char* dir);
// The registry file's path, starting the registry when it is still unset.
TV_API CKWString GetRegistryPath();
// Called at the end of start-up; has no effect.
TV_API void SetDynamicRegistryValues(const char* installDir, int fromTemplate);
// Copies the registry file over its backup; FALSE on failure.
TV_API BOOL RegBackupRegistry();
// Thread body (for CreateThread or a pthread): writes changed keys at most
// once per *(int*)interval milliseconds (null: 60000; 0: polls without
// sleeping). From its start, closing or flushing a changed key only marks
// the registry for this thread. Cancelling it writes once more and returns
// to writing at once.
TV_API DWORD RegLazyWriteThread(LPVOID interval);
// Writes the registry; the lazy writer's cancellation clean-up.
TV_API void RegCleanup(void* unused = 0);
// Stops a lazy writer started through CreateThread: it writes pending
// changes once more and ends. Returns once the thread has ended (the caller
// still closes its handle); FALSE, errno ERROR_INVALID_HANDLE, when `thread`
// is not a thread handle.
TV_API BOOL RegStopLazyWriter(HANDLE thread);

// Reads the registry file into the tree: refresh 0 for the first load of an
// empty tree, 1 to bring a live tree up to date. Callers hold the cache lock
// exclusively. TRUE when the file was read.
TV_API BOOL ReadRegistry(int refresh);
// Writes the whole tree to a temporary file beside the registry and renames
// it over the registry file. TRUE on success; on failure the old file stays.
TV_API BOOL WriteRegistry();

// Cross-process state.
enum RegLockOp_t { RegLockShared = 0, RegLockExclusive = 1 };
// Creates or attaches the semaphore and the shared page of the lock file.
TV_API void RegInitSharedState(int create);
TV_API void SetLockFilePath(const char* path);
// The registry semaphore, recursive per thread.
TV_API void RegLockRegistryFile();
TV_API void RegUnlockRegistryFile();
// The process's cache lock: shared for reading the tree; exclusive (which
// also takes the registry semaphore) for reading or writing the file. The
// exclusive holder may take either side again. Other ops return false.
TV_API bool RegLockCache(int op);
TV_API bool RegUnlockCache(int op);
TV_API void RegSetCacheLockName(const char* name);
// Re-reads the file when another process wrote it since this process last
// read or wrote it; true when it did.
TV_API bool RegUpdateCache();
// Increments the shared stamp (others re-read) without writing the file.
TV_API void RegBumpVersion();
// Prints the lock owner, version stamp and last writer to standard output.
TV_API void RegDumpVersion();
// Prints the whole tree to standard output (diagnostic form).
TV_API void DumpRegistryCache();
// Ends this process's use of the shared objects; the last user (or the last
// one attached, when others were killed without cleaning up) removes them.
TV_API void CleanSystemResources();

// ---------------------------------------------------------------------------
// Locked files
// ---------------------------------------------------------------------------
// A file held open under a whole-file POSIX lockf lock, with line and block
// I/O on the raw descriptor. The lock is between processes (and between
// descriptors of one process only as far as POSIX record locks go: closing
// any descriptor of a file drops all of this process's locks on it).
//
// Not thread-safe, except for the nested-holder count of an object opened
// with the hold flag: holders on different threads may open and close it
// concurrently (the count changes atomically).
class TV_API FileLock {
public:
    // With a path: OpenAndLockFile(path, oflag, null, false). Null: closed.
    explicit FileLock(const char* path = nullptr, int oflag = 0);
    // Closes the descriptor (closing releases the lock).
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    // Opens path read/write, created with mode 0644 when missing, whatever
    // the access bits of oflag say; O_EXCL in oflag is honoured (failure
    // with *status = 1 when the file exists) and O_TRUNC empties the file
    // once the lock is held. The file is locked (waiting as long as another
    // process holds it) when oflag is 0, O_CREAT, O_TRUNC|O_WRONLY,
    // O_TRUNC|O_RDWR, O_CREAT|O_TRUNC|O_WRONLY, O_CREAT|O_TRUNC|O_RDWR or
    // O_CREAT|O_EXCL|O_TRUNC|O_WRONLY; any other oflag leaves it open and
    // unlocked and returns false. Running out of descriptors (EMFILE) is
    // waited out, 10 ms at a time. With hold, later calls on this object
    // only count nested holders (and store 1 in *status) until as many
    // CloseAndUnLockFile calls have been made. True when open and locked.
    bool OpenAndLockFile(const char* path, int oflag, int* status = nullptr, bool hold = false);
    // Drops one nested holder and returns true while holders remain;
    // otherwise unlocks (false if that fails), closes and returns true.
    bool CloseAndUnLockFile();
    // open(path, oflag, 0666) without a lock; true when open.
    bool OpenFileUnLocked(const char* path, int oflag);
    bool CloseFileUnLocked();
    // lockf(F_LOCK / F_ULOCK) from the current offset to the end and beyond.
    bool LockFile();
    bool UnLockFile();
    // Closes the descriptor; GetFileDescriptor() still reports the old value
    // afterwards, but the object never closes it a second time.
    void CloseFile();
    int GetFileDescriptor() const { return fd_; }
    // fstat of the descriptor; 0 on success, -1 on failure.
    int FileStat(struct stat* buf);
    // One line into buf (see readline); false when nothing is open or at
    // end of file.
    bool ReadLine(char* buf, int size);
    // Writes all len bytes as given (no line end added); false on failure.
    bool WriteLine(const char* buf, int len);
    // Reads up to len bytes and puts a zero byte after them: buf must have
    // room for len + 1 bytes. Returns the count read, 0 at end of file or on
    // error.
    int ReadBlk(char* buf, int len);
    // Writes all len bytes; returns len, or 0 on error.
    int WriteBlk(const char* buf, int len);
    // Reads one line from fd a byte at a time (so the offset ends just past
    // it): stops at a line feed (consumed, not stored), at end of file, or
    // once size - 1 bytes are stored (the rest of the line stays unread);
    // the text is zero-terminated. Returns the bytes stored plus one, or -1
    // at end of file before any byte, on a read error or for size < 1.
    static int readline(int fd, char* buf, int size);

private:
    void Clear();

    int fd_;
    std::string path_;
    long lockCount_;  // nested holders; only with the hold flag, else 0
    bool fdClosed_;   // CloseFile() closed fd_ but left its value in place
};

// ---------------------------------------------------------------------------
// Registry status for tools
// ---------------------------------------------------------------------------
// What an administrator's tool needs beyond the Windows-style calls: the
// shared page, the file form of a subtree, and whether a key is kept in the
// file at all.

// A snapshot of the shared page. It is read without taking the registry
// semaphore, so lockOwner names another process that holds it (never the
// caller) and the fields may move while they are read.
struct RegStatusInfo {
    unsigned long versionStamp;    // incremented by every write of the file
    unsigned long myVersionStamp;  // the stamp this process last read or wrote
    long lastWriter;               // process id of the last writer; 0: none yet
    long lockOwner;                // process id holding the semaphore; 0: free
    long attachCount;              // attaches recorded in the page (processes
                                   // that ended without cleaning up stay counted)
    long processesAttached;        // processes attached now, as the kernel counts
                                   // them (the caller included); -1 if unknown
};
// Fills *status without waiting: neither the registry semaphore is taken
// nor the registry started (a process that has not started it looks at the
// page of TV_REGISTRY's install directory). 0 on success; -1 for a null
// pointer or when no shared page exists.
TV_API LONG RegQueryStatus(RegStatusInfo* status);

// The subtree at hKey (0: the whole registry) in the registry file's own
// text form, exactly as a write of the file would put it now: the tree is
// first brought up to date with the file. Intermediate keys (see below)
// contribute no block of their own. 0 on success; -1 for a null text or an
// unknown handle.
TV_API LONG RegExportKey(HKEY hKey, CKWString* text);

// The rules RegSetValueEx and RegCreateKeyEx apply before anything is
// stored, for tools that check their input first: why the value would not
// read back from the file as written, or null when it would. data is the
// text the file holds (a REG_DWORD as "0x...", a REG_MULTI_SZ's strings
// joined by blanks). The reasons are short English sentences.
TV_API const char* RegValueTextProblem(const char* name, const char* data, DWORD type);
// The same for a key path from HKEY_LOCAL_MACHINE on.
TV_API const char* RegKeyPathProblem(const char* path);
// Parses one value line as the registry reader does ("name=data;TYPE": the
// name up to the first '=', the data up to the next ';' with the blanks
// around it trimmed, then the type word alone). FALSE, nothing stored, for
// a line the reader ignores.
TV_API BOOL RegParseValueLine(const char* line, CKWString* name, CKWString* data, DWORD* type);

// Whether the key behind hKey is written to the file with a block of its
// own. A key that exists only as the path to a deeper key (made when that
// key was created) is not: values set on it are held in memory but never
// written. hKey 0 asks about HKEY_LOCAL_MACHINE itself. 0 and *written set
// on success; 13 when hKey is 0 and the registry holds no key at all; -1
// for a null pointer or an unknown handle.
TV_API LONG RegQueryKeyWritten(HKEY hKey, BOOL* written);

#endif  // TVCOMMONUTIL_REGISTRY_H
