// Directory watch table, WatchDirsThread, change notification handles, completion ports.
//
// A watcher thread (WatchDirsThread, started by the embedding server) scans
// the watched trees, compares them with a process-wide snapshot, queues
// records on the handle that asked and signals it. The kernel (inotify)
// wakes it as soon as a watched directory changes, and it then reads only the
// directories that changed; it also polls periodically, which is all it does
// where the kernel cannot report (no inotify, watch limit reached, network
// file systems). Either way the records are those a full scan would give.
// Callers arm a handle with ReadDirectoryChanges and collect the records with
// GetQueuedCompletionStatus or GetOverlappedResult.
#ifndef TVCOMMONUTIL_NOTIFY_H
#define TVCOMMONUTIL_NOTIFY_H

#include <list>

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "thread_annotations.h"
#include "types.h"

// ---------------------------------------------------------------------------
// Scanner switches
// ---------------------------------------------------------------------------
// bRunningInServer (foundation.h), set by the embedding server before it
// starts WatchDirsThread: a busy directory is then skipped for a pass instead
// of waited for, and names beginning with ".KW" are never reported.
// Set by WatchDirsThread when it is asked to stop; ends every directory read
// in progress (and every later one: a process that restarts the watcher
// clears it first).
TV_API extern bool bFileShutdownRequested;

// Receives a directory's st_dev; zero means the device is unusable.
typedef unsigned char (*DirDeviceCheck)(unsigned long device);

// ---------------------------------------------------------------------------
// Notify records
// ---------------------------------------------------------------------------
// One queued change. action: 1 added, 2 removed, 3 modified, 5 the device
// holding the watched directory became unavailable or available again.
struct _NOTIFY_INFO {
    unsigned long action;
    CKWString name;            // relative to the handle's watched directory
    unsigned long attributes;  // 0x100 directory, 0x80 anything else
    // 100-ns count since 1601 in time[0] (zero for removals); time[1] is 0.
    unsigned long long time[2];
    unsigned long size;
};
typedef _NOTIFY_INFO NOTIFY_INFO;

// Length of one record in a collected buffer: 96 + name length, rounded up to
// a multiple of 8.
inline unsigned long NotifyRecordLength(int nameLength) {
    return (96UL + static_cast<unsigned long>(nameLength) + 7UL) & ~7UL;
}

// ---------------------------------------------------------------------------
// Change notification handles
// ---------------------------------------------------------------------------
class ChangeNotificationHandle;
class IoCompletionPort;

// Arms h (type 11, else 0): empties its record queue (made on first use),
// unless the queue was collected since h was last armed: what the watcher
// queued after a collection is kept and reported, never dropped. Keeps the
// caller's pointer variable `buffer` and its usable length, the
// filter (FILE_NOTIFY_CHANGE_* bits 0x1-0x10) and overlapped->hEvent (one
// reference is held). A directory that has never been scanned first gets a
// silent scan, so that only later changes are reported. Registers h for
// watching and returns 1. bytesReturned and completion are not used.
//
// Collected buffer (little-endian, records packed, each 8-byte aligned):
//   0  8  offset to the next record, 0 in the last
//   8  8  action
//  16  4  name length (signed)          20  4  not written
//  24  8  attributes                    32 32  not written
//  64  8  FILETIME count                72  8  zero
//  80  8  size                          88  n  name, no NUL
// When the total exceeds the usable length, the library delete[]s the
// caller's block and stores a new[] block of exactly the total through
// `buffer`: the caller's block must come from new[] (or be null), and the
// caller delete[]s whatever its variable holds at the end. After each
// collection the usable length counts as 0 until the next ReadDirectoryChanges.
TV_API int ReadDirectoryChanges(Handle* h, void** buffer, unsigned long bufferLength,
                                int watchSubtree, unsigned long filter,
                                unsigned long* bytesReturned, _OVERLAPPED* overlapped,
                                LPOVERLAPPED_COMPLETION_ROUTINE completion);

// A watched directory as a handle (type code 11). Instances are shared by the
// application and the watcher thread and are thread-safe for that use: the
// flags are atomic, lock_ guards the queued records, the caller's buffer and
// the last-changed directory. lock_ is the last lock of the notification lock
// order ("ChangeNotificationHandle_lock", "Dir_Data_lock", a directory
// entry's lock, then this). Two application threads arming and collecting
// the same handle at once are not supported.
class TV_API ChangeNotificationHandle : public Handle {
public:
    // Not registered for watching; FindFirstChangeNotification and
    // ReadDirectoryChanges register it.
    ChangeNotificationHandle(const char* dir, int watchSubtree, unsigned long filter);
    // Leaves the watch list, wherever it was registered.
    ~ChangeNotificationHandle() override;

    int What() override;
    // 0 at once when the scanner has seen a change; 258 for a zero time-out;
    // otherwise the wait on the overlapped event (or, without one, on this
    // handle's own synchronisation event).
    unsigned long WaitForHandle(unsigned long ms, int alertable) override;
    // Marks the handle signalled and sets the overlapped event if there is
    // one, else the synchronisation event (made at construction, so a signal
    // given before anyone waits is kept). Returns 1.
    int Signal() override;
    // What a multi-object wait or a completion port sleeps on: the overlapped
    // event while one is armed (a signal still held by the handle's own
    // event counts as signalled), else the synchronisation event. The event
    // stays alive until the matching FreeSynch, even if ReadDirectoryChanges
    // replaces it meanwhile. Such a wait leaves the overlapped event set;
    // collecting the records resets it.
    Event* GetSynch(int& signalled) override;
    void FreeSynch() override;

    // Moves the queued records into the caller's buffer (see
    // ReadDirectoryChanges) and unregisters the handle until it is armed
    // again. 1 on success, also with nothing queued (total 0, buffer not
    // touched); 0 when the handle was never armed, bytes is null, or a
    // larger buffer could not be had (the records stay queued).
    int GetChangeData(unsigned long* bytes, unsigned long* key);

    int State() const { return __atomic_load_n(&signalled_, __ATOMIC_ACQUIRE); }
    // Clears signalled, signal-pending and changed.
    void Clear();
    // Trace hook; does nothing.
    void Show(CKWString) {}

    int Lock() TV_ACQUIRE(lock_) { return lock_.Lock(); }
    int Unlock() TV_RELEASE(lock_) { return lock_.Unlock(); }

    const CKWString& GetWatchDir() const { return watchDir_; }
    CKWString GetLastChangedDir() const;
    void SetLastChangedDir(const CKWString& dir);
    unsigned long GetFilter() const { return __atomic_load_n(&filter_, __ATOMIC_RELAXED); }
    int GetWatchSubtree() const { return __atomic_load_n(&watchSubtree_, __ATOMIC_RELAXED); }
    // The record queue, null until the first ReadDirectoryChanges. Its
    // contents are guarded by Lock().
    std::list<_NOTIFY_INFO>* GetNotifyData() const {
        return __atomic_load_n(&notifyList_, __ATOMIC_ACQUIRE);
    }
    // Appends one record under Lock(); nothing without a queue.
    void QueueNotify(const _NOTIFY_INFO& info);

    int GetChanged() const { return __atomic_load_n(&changed_, __ATOMIC_ACQUIRE); }
    void SetChanged(int v) { __atomic_store_n(&changed_, v, __ATOMIC_RELEASE); }
    int GetSignalPending() const { return __atomic_load_n(&signalPending_, __ATOMIC_ACQUIRE); }
    void SetSignalPending(int v) { __atomic_store_n(&signalPending_, v, __ATOMIC_RELEASE); }
    unsigned long GetKey() const { return __atomic_load_n(&key_, __ATOMIC_RELAXED); }
    void SetKey(unsigned long key) { __atomic_store_n(&key_, key, __ATOMIC_RELAXED); }

private:
    friend int ReadDirectoryChanges(Handle*, void**, unsigned long, int, unsigned long,
                                    unsigned long*, _OVERLAPPED*, LPOVERLAPPED_COMPLETION_ROUTINE);

    const CKWString watchDir_;
    CKWString lastChangedDir_ TV_GUARDED_BY(lock_);
    int reserved_;
    int changed_;
    int signalPending_;
    int signalled_;
    int watchSubtree_;
    unsigned long filter_;
    // Holds one reference; replaced only under "ChangeNotificationHandle_lock"
    // held for writing, so the watcher can signal through it during a pass,
    // and under lock_, so GetSynch can lend it.
    Handle* auxEvent_;
    // Outstanding GetSynch calls, and the overlapped events replaced while
    // any was outstanding: their references go with the last FreeSynch.
    long lends_ TV_GUARDED_BY(lock_);
    std::list<Handle*> retired_ TV_GUARDED_BY(lock_);
    std::list<_NOTIFY_INFO>* notifyList_;  // set once, then kept until destruction
    void** buffer_ TV_GUARDED_BY(lock_);
    unsigned long bufferSize_ TV_GUARDED_BY(lock_);
    unsigned long key_;
    mutable CriticalSection lock_;
    tv::detail::ForkTrackedLock lockFork_{&lock_, tv::detail::ForkTrackedLock::kHandleLock};
};

// A handle on `path` (kept exactly as given), registered for watching with
// no record queue yet; INVALID_HANDLE_VALUE when it cannot be allocated.
TV_API Handle* FindFirstChangeNotification(const char* path, int watchSubtree,
                                           unsigned long filter);
// Takes the first registration of h off the watch list; keepHandle non-zero
// only clears its flags, zero also drops the caller's reference (the handle
// goes when no completion port holds it any more). Returns 0 in every case,
// also for a handle that was not registered: callers do not test it. A handle
// found nowhere is left alone, so a handle collected and not armed again is
// released with CloseHandle (which also unregisters a registered one).
TV_API int FindCloseChangeNotification(Handle* h, int keepHandle = 0);

// ---------------------------------------------------------------------------
// Completion ports
// ---------------------------------------------------------------------------
// A group of change notification handles (type code 12), each held by one
// reference. Thread-safe; lock_ guards the member list and is a leaf lock.
class TV_API IoCompletionPort : public Handle {
public:
    IoCompletionPort();
    ~IoCompletionPort() override;

    int What() override;
    // The list position of a ready member; 258 on time-out (at once for a
    // zero time-out); WAIT_FAILED (-1) with no members, with 65 or more, or
    // when the port itself was signalled (PostQueuedCompletionStatus);
    // WAIT_IO_COMPLETION when an alertable wait ran APCs.
    unsigned long WaitForHandle(unsigned long ms, int alertable) override;

    void Insert(ChangeNotificationHandle* h);
    // First match only; nothing if absent.
    void Erase(ChangeNotificationHandle* h);
    // The member at `index`, null past the end. No reference is added.
    ChangeNotificationHandle* GetHandle(int index);
    int GetCount() const;
    // GetHandle with one reference taken for the caller (who drops it with
    // DecRefCount), so a concurrent Erase cannot free it underneath.
    ChangeNotificationHandle* TakeHandle(unsigned long index);

private:
    std::list<ChangeNotificationHandle*> members_ TV_GUARDED_BY(lock_);
    mutable CriticalSection lock_;
    tv::detail::ForkTrackedLock lockFork_{&lock_, tv::detail::ForkTrackedLock::kHandleLock};
};

// Adds `file` (a change notification handle) to existingPort or to a new
// port, stores `key` in it and returns the port. 0 for a null file; 0 with
// ERROR_CALL_NOT_IMPLEMENTED for any other kind of handle, ERROR_INVALID_HANDLE
// when existingPort is not a port. INVALID_HANDLE_VALUE as file gives
// existingPort, or a new empty port. `threads` is ignored.
TV_API Handle* CreateIoCompletionPort(Handle* file, Handle* existingPort, unsigned long key,
                                      unsigned long threads);
// Waits on the port and collects the ready member's records (GetChangeData).
// 0 with errno 258 on time-out; 0 with ERROR_INVALID_HANDLE when no member
// answers (no members, more than 64, the port itself was posted to, or port
// is not a port); 0 for a null port or bytes. overlapped is not written.
TV_API int GetQueuedCompletionStatus(Handle* port, unsigned long* bytes, unsigned long* key,
                                     _OVERLAPPED** overlapped, unsigned long timeout);
// GetChangeData(bytes, null) of h; the overlapped record and `wait` are ignored.
TV_API int GetOverlappedResult(Handle* h, _OVERLAPPED* overlapped, unsigned long* bytes, int wait);
// Signals the port itself; a waiter then gets a failure (no records go with
// a posting). 0 for a null port.
TV_API int PostQueuedCompletionStatus(Handle* port, unsigned long bytes, unsigned long key,
                                      _OVERLAPPED* overlapped);

// ---------------------------------------------------------------------------
// Watch table and scanner
// ---------------------------------------------------------------------------
// Makes a table entry for `path` (exactly as given) if there is none and,
// when handle is not null, registers it next to the handles already watching
// the same directory (at the front when there are none).
TV_API void WatchDir(CKWString path, ChangeNotificationHandle* handle);
// True while any scan is running.
TV_API bool InUnixDirScan();
// Records `dir` as the handle's last-changed directory (nothing for null).
TV_API void cnf_update(ChangeNotificationHandle* handle, CKWString& dir);
// "Directory" for a mode of type directory, "Normal" for anything else.
TV_API CKWString FileAttribs2String(unsigned long mode);
// Debugging aid: the table and the handle list on stderr, without locking.
TV_API void DumpDirData();

// Scans `path` and everything below it against the table, queues records on
// `handle` (none when null or not armed) and updates the snapshot.
// deviceCheck, when given and the handle is armed, is asked first about the
// directory's device.
TV_API void UnixDirScan(CKWString path, ChangeNotificationHandle* handle,
                        DirDeviceCheck deviceCheck);

// What WatchDirsThread needs from the thread that runs it. The defaults give
// a stop flag, a sleep that kernel change reports, Wake and RequestStop
// interrupt, and no device check; a server overrides what it needs (a
// TimedWait override that does not call this one is woken only by its own
// means). Thread-safe.
class TV_API WatchDirsThreadObject {
public:
    explicit WatchDirsThreadObject(DirDeviceCheck deviceCheck = 0);
    virtual ~WatchDirsThreadObject();
    WatchDirsThreadObject(const WatchDirsThreadObject&) = delete;
    WatchDirsThreadObject& operator=(const WatchDirsThreadObject&) = delete;

    // Non-zero once the loop should end (called with 0).
    virtual int StopRequested(int arg);
    // Called once, when the loop ends.
    virtual void Exit();
    // The sleep between passes: (period in ms, 0, this object). WAIT_TIMEOUT
    // when the period ran out, else WAIT_OBJECT_0.
    virtual unsigned long TimedWait(unsigned long ms, int flags, WatchDirsThreadObject* self);
    // Handed to every top-level scan.
    virtual DirDeviceCheck GetDeviceCheck();

    // Asks the loop to end and interrupts its sleep.
    void RequestStop();
    // Interrupts the current sleep, so the next pass starts now.
    void Wake();

private:
    int wakeFd_;  // an eventfd
    int stop_;
    DirDeviceCheck deviceCheck_;
};

// The watcher loop; `threadObject` is a WatchDirsThreadObject* (so the
// routine can be handed to CreateThread). Each pass scans every watched
// directory once (reading only what the kernel reported changed, what it does
// not watch, and what is new), signals the handles that saw changes, then
// sleeps for twice the pass time, at least 4000 ms and at most 30000 ms
// (longer only when one pass took longer than that), or until the kernel
// reports a change. Returns 0 once the stop test answers.
TV_API DWORD WatchDirsThread(void* threadObject);

// ---------------------------------------------------------------------------
// Reading a collected buffer by field
// ---------------------------------------------------------------------------
// One record of a buffer collected after ReadDirectoryChanges, laid over the
// bytes in place (records are 8-byte aligned in a new[] block). The name is
// not NUL-terminated: it is FileNameLength bytes from FileName().
struct NOTIFY_RECORD {
    unsigned long NextEntryOffset;  // 0 in the last record
    unsigned long Action;           // FILE_ACTION_*
    int FileNameLength;
    unsigned int reserved0;
    unsigned long Attributes;  // 0x100 directory, 0x80 anything else
    unsigned char reserved1[32];
    unsigned long long LastWriteTime[2];  // 100-ns count since 1601, then 0
    unsigned long Size;

    const char* FileName() const { return reinterpret_cast<const char*>(this + 1); }
    // The record after this one, or null after the last.
    const NOTIFY_RECORD* Next() const {
        return NextEntryOffset == 0 ? nullptr
                                    : reinterpret_cast<const NOTIFY_RECORD*>(
                                          reinterpret_cast<const char*>(this) + NextEntryOffset);
    }
};
static_assert(sizeof(NOTIFY_RECORD) == 88, "the name follows the fixed part at byte 88");

#endif  // TVCOMMONUTIL_NOTIFY_H
