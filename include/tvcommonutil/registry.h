// The shared registry: Reg* functions, CRegistry, FileLock, start-up and lazy writer.
#ifndef TVCOMMONUTIL_REGISTRY_H
#define TVCOMMONUTIL_REGISTRY_H

#include <sys/stat.h>

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

// ---------------------------------------------------------------------------
// Registry API
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// CRegistry
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Registry start-up and lazy writer
// ---------------------------------------------------------------------------

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

#endif  // TVCOMMONUTIL_REGISTRY_H
