// Child processes: spawning, waiting, exit codes, termination, enumeration.
#ifndef TVCOMMONUTIL_PROCESSES_H
#define TVCOMMONUTIL_PROCESSES_H

#include <pthread.h>
#include <signal.h>
#include <sys/types.h>

#include "export.h"
#include "handles.h"
#include "strings.h"
#include "types.h"

// ---------------------------------------------------------------------------
// Process handles
// ---------------------------------------------------------------------------
enum ProcState_t {
    kProcRunning = 0,    // as created
    kProcEnded = 1,      // the end was seen (and, for a child, reaped) by a wait
    kProcCollected = 2,  // the exit code was handed out by GetExitCodeProcess
};

// A process as a waitable handle. A process handle is signalled for good
// once the process has ended; waits that see the end reap the child and keep
// its exit status here, so that GetExitCodeProcess still has it afterwards.
// Thread-safe: the state fields are guarded by the handle's own lock, a leaf
// lock held only around a non-blocking waitpid and the bookkeeping after it.
class TV_API Process : public Handle {
public:
    explicit Process(int pid);
    ~Process() override;

    int What() override;
    // WAIT_OBJECT_0 once the process has ended, WAIT_TIMEOUT, WAIT_FAILED,
    // or WAIT_IO_COMPLETION (alertable) when an APC ran.
    unsigned long WaitForHandle(unsigned long ms, int alertable) override;
    // Wait-any returns the lowest index among processes already ended, else
    // the index of the first one seen to end; a wait-all returns the index
    // of the last one. Time-outs are honoured; 0 polls once.
    unsigned long WaitForMultipleHandles(unsigned long count, Handle** handles, int waitAll,
                                         unsigned long ms, int alertable) override;
    // Registration by the generic multi-object wait: while at least one
    // registration is outstanding, the process watcher thread watches this
    // process and sets the synchronisation event when it ends.
    Event* GetSynch(int& signalled) override;
    void FreeSynch() override;

    int GetPid() const { return pid_; }
    void SetExitStatus(int status);
    void SetState(ProcState_t state);
    ProcState_t GetState();
    // The stored exit code: 0-255, or -1 for a death by signal.
    int GetExitStatus();
    bool HasEnded();

    // Internal. Under the handle's lock, waitpid(pid, options); when that
    // reports the end of the process, records it (state 1, exit status) and
    // signals the synchronisation event. Returns waitpid's result, with the
    // raw status in *raw. Once the end is recorded it no longer touches the
    // pid (which may have been reused) and fails with ECHILD.
    int CollectStatus(int options, int* raw);
    // Internal: the process is known to be gone but its status was not
    // collected here (not a child of this process, or reaped elsewhere).
    void MarkEnded();
    // Internal: the one place where waiters on an ended process are woken
    // (the synchronisation event is set); every recorded end goes through it.
    void WakeEndWaiters();
    // Internal: the process was started by CreateProcess as a direct child.
    // If the handle goes before the end was seen, the child is handed to the
    // library's reaper, so that it does not stay a zombie.
    void SetOwnChild() { ownChild_ = true; }
    // Internal: 1 with *code (the stored exit code) when the end is recorded
    // with a known status, and moves the state to 2; 0 when the end is
    // recorded without a status; -1 while running.
    int TakeExitCode(unsigned long* code);

private:
    int pid_;
    int exitStatus_ TV_GUARDED_BY(lock_);
    ProcState_t state_ TV_GUARDED_BY(lock_);
    // Outstanding GetSynch registrations; the handle is in the watcher's
    // request queue while this is non-zero. Guarded by the watcher's lock.
    int queued_;
    bool statusKnown_ TV_GUARDED_BY(lock_);
    bool ownChild_;  // set once, before the handle is shared
    CriticalSection lock_;
    tv::detail::ForkTrackedLock lockFork_{&lock_, tv::detail::ForkTrackedLock::kHandleLock};
};

// A user identity for CreateProcessAsUser: the child switches to these ids
// before it runs the program.
class TV_API SecurityToken : public Handle {
public:
    SecurityToken(uid_t uid, gid_t gid);
    int What() override;
    uid_t GetUid() const { return uid_; }
    gid_t GetGid() const { return gid_; }
    // Takes the identity in the calling process: supplementary groups, group
    // and user id. 0 on success, -1 with errno.
    int SwitchIdentity() const;

private:
    uid_t uid_;
    gid_t gid_;
};

// ---------------------------------------------------------------------------
// Spawning
// ---------------------------------------------------------------------------
// Process-wide spawn state. SpawnMutex is held across fork by Spawn so that
// no two spawns fork at once. SigChildMask holds SIGCHLD alone.
TV_API extern pthread_mutex_t SpawnMutex;
TV_API extern sigset_t SigChildMask;
// bRunningInServer (foundation.h): when set, ProcInit leaves the signal mask
// alone (the server must keep SIGCHLD blocked in its threads).

// Blocks SIGCHLD in the calling thread (unless bRunningInServer is set), so
// that threads created afterwards inherit the block and SIGCHLD is taken
// only synchronously by the process waits. Runs at load.
TV_API void ProcInit();
// Registers the fork handlers of the process code (SpawnChildFork on the
// child side). Runs at load.
TV_API void SpawnInit();
// Leaves SpawnMutex free and the process watcher, reaper and waiter state
// empty and usable in the child of any fork.
TV_API void SpawnChildFork();

// Spawn flags.
constexpr unsigned long kSpawnDetached = 1;    // double fork: the child is not ours
constexpr unsigned long kSpawnNewSession = 2;  // the child calls setsid()
// STARTUPINFO.dwFlags bit: use hStdInput/hStdOutput/hStdError (File handles).
constexpr unsigned long kStartupUseStdHandles = 2;

// Starts commandLine (split into at most 15 arguments, run with execv, no
// PATH search). Returns the new process's pid (the grandchild's in detached
// mode) once it has exec'ed, or -1; exec failure is reported synchronously.
// CREATE_SUSPENDED is refused (-1, ERROR_CALL_NOT_IMPLEMENTED): a child
// process cannot be held before its program and resumed later.
TV_API int Spawn(unsigned long flags, Handle* token, const char* commandLine, const char* directory,
                 STARTUPINFO* startup);

// Splits a command line the way a spawned child does: blanks separate
// arguments; "..." or '...' quote (the other quote is plain inside); a quote
// right after a backslash replaces the backslash. At most `maxArgs`
// arguments are stored in argv (then a null); `work` must hold
// strlen(line) + 1 bytes. Returns the argument count.
TV_API int SplitCommandLine(const char* line, char* work, char** argv, int maxArgs);

// The command line is copied into a 512-byte buffer: applicationName, then
// commandLine over it, so a given command line wins; either longer than 511
// characters is refused (ERROR_FILENAME_EXCED_RANGE). The security
// attributes, inheritance flag and environment are ignored. The process
// information's hThread is always null, so nothing could resume a suspended
// child: CREATE_SUSPENDED fails (FALSE, ERROR_CALL_NOT_IMPLEMENTED) rather
// than start a child that runs at once or never.
TV_API BOOL CreateProcessAsUser(Handle* token, const char* applicationName, char* commandLine,
                                SECURITY_ATTRIBUTES* processAttributes,
                                SECURITY_ATTRIBUTES* threadAttributes, BOOL inheritHandles,
                                DWORD creationFlags, void* environment,
                                const char* currentDirectory, STARTUPINFO* startup,
                                PROCESS_INFORMATION* info);
TV_API BOOL CreateProcess(const char* applicationName, char* commandLine,
                          SECURITY_ATTRIBUTES* processAttributes,
                          SECURITY_ATTRIBUTES* threadAttributes, BOOL inheritHandles,
                          DWORD creationFlags, void* environment, const char* currentDirectory,
                          STARTUPINFO* startup, PROCESS_INFORMATION* info);

// Waits for the end of the process (there is no "still running" answer) and
// stores its exit code: 0-255, or 4294967295 for a death by signal. 1 on
// success; 0 for a null handle, a process that is not a child of the
// caller, or one whose code was already collected.
TV_API BOOL GetExitCodeProcess(Handle* process, DWORD* exitCode);
// A null handle ends the calling process with exitCode (exit handlers run).
// Otherwise sends SIGTERM (exitCode is not used) and returns 1 when sent;
// 0 for a handle that is not a process or a process already seen to end.
TV_API BOOL TerminateProcess(Handle* process, int exitCode);
// Ends the calling process at once: no exit handlers, no stream flushing.
TV_API void ExitProcess(DWORD code) __attribute__((noreturn));
// Runs "/bin/sh -c command" and returns its exit status (bits 8-15 of the
// wait status); -1 for a null command, 127 when fork or the shell fails.
TV_API int System(char* command);

// A handle to an existing process (any process the caller may signal); null
// with ERROR_INVALID_PARAMETER when there is no such process.
TV_API Handle* OpenProcess(DWORD access, BOOL inherit, DWORD pid);
// TRUE when a process with that id exists.
TV_API BOOL DoesProcessExist(DWORD pid);

// ---------------------------------------------------------------------------
// Process enumeration
// ---------------------------------------------------------------------------
// Set once /proc is found to show threads in a form the precise listing
// cannot read; every later listing then uses DumbEnumProcesses.
TV_API extern int bDumbProcfs;

// Lists process ids (not thread ids) into ids[bytes / 8]. Every /proc entry
// read counts against that capacity, not only processes: a deliberate
// bound. *bytesReturned = number of ids * 8. 1 on success, 0 when /proc
// cannot be read.
TV_API BOOL EnumProcesses(DWORD* ids, DWORD bytes, DWORD* bytesReturned);
// The fall-back listing: an entry whose parent has the same name is taken
// for a thread of it; entries whose parent id is 0 are never listed.
TV_API BOOL DumbEnumProcesses(DWORD* ids, DWORD bytes, DWORD* bytesReturned);
// The executable's full path (preferExecutable non-zero, when readable),
// else the short command name; empty when the process cannot be read.
TV_API CKWString GetProcessName(DWORD pid, int preferExecutable);
// The "https-..." instance name of a process (0 = the caller), or empty.
TV_API CKWString GetProcessInstanceName(DWORD pid);
// The file name of a loaded module (a dlopen handle), or of the executable
// for a null module, copied into buffer (at most size - 1 characters and a
// terminating NUL). Returns the number of characters copied; 0 on failure.
TV_API DWORD GetModuleFileName(void* module, char* buffer, DWORD size);
// The full path of the executable of `process` (null = the caller), or of
// `module` when given; same bounds and result as GetModuleFileName.
TV_API DWORD GetModuleFileNameEx(Handle* process, void* module, char* buffer, DWORD size);

#endif  // TVCOMMONUTIL_PROCESSES_H
