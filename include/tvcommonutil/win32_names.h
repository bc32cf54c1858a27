// Optional names for code moved over from Win32, to be included after
// <tvcommonutil.h> by programs that want them. Nothing here adds behaviour:
// each name is another spelling of something the library already does, and
// a name is given only where its meaning is exact. Names with no exact
// meaning here (GetExitCodeThread, FILE_ATTRIBUTE_DIRECTORY, the W functions)
// are deliberately absent; README.md says what to use instead.
//
// Strings are char throughout, so an A-suffixed function is the un-suffixed
// one; every difference the README lists for the one holds for the other.
#ifndef TVCOMMONUTIL_WIN32_NAMES_H
#define TVCOMMONUTIL_WIN32_NAMES_H

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "files.h"
#include "handles.h"
#include "processes.h"
#include "profile.h"
#include "registry.h"
#include "services.h"
#include "threads.h"
#include "types.h"

// Calling conventions mean nothing on this ABI.
#define WINAPI
#define CALLBACK
#define APIENTRY

// Text literals are narrow.
#define _T(x) x
#define _TEXT(x) x
#define TEXT(x) x

typedef long INT_PTR;
typedef unsigned long UINT_PTR;
typedef void* HLOCAL;
typedef WIN32_FIND_DATA WIN32_FIND_DATAA;
typedef STARTUPINFO STARTUPINFOA;

constexpr auto& RegOpenKeyExA = RegOpenKeyEx;
constexpr auto& RegCreateKeyExA = RegCreateKeyEx;
constexpr auto& RegQueryValueExA = RegQueryValueEx;
constexpr auto& RegSetValueExA = RegSetValueEx;
constexpr auto& RegEnumValueA = RegEnumValue;
constexpr auto& RegEnumKeyA = RegEnumKey;
constexpr auto& RegDeleteValueA = RegDeleteValue;
constexpr auto& RegDeleteKeyA = RegDeleteKey;
constexpr auto& RegQueryInfoKeyA = RegQueryInfoKey;
constexpr auto& FormatMessageA = FormatMessage;
constexpr auto& LoadLibraryA = LoadLibrary;
constexpr auto& LoadLibraryExA = LoadLibraryEx;
constexpr auto& CreateEventA = CreateEvent;
constexpr auto& CreateMutexA = CreateMutex;
constexpr auto& CreateSemaphoreA = CreateSemaphore;
constexpr auto& CreateProcessA = CreateProcess;
constexpr auto& CreateFileA = CreateFile;
constexpr auto& DeleteFileA = DeleteFile;
constexpr auto& CopyFileA = CopyFile;
constexpr auto& MoveFileExA = MoveFileEx;
constexpr auto& CreateDirectoryA = CreateDirectory;
constexpr auto& RemoveDirectoryA = RemoveDirectory;
constexpr auto& GetFileAttributesA = GetFileAttributes;
constexpr auto& SetFileAttributesA = SetFileAttributes;
constexpr auto& SetCurrentDirectoryA = SetCurrentDirectory;
constexpr auto& FindFirstFileA = FindFirstFile;
constexpr auto& FindNextFileA = FindNextFile;
constexpr auto& GetPrivateProfileStringA = GetPrivateProfileString;
constexpr auto& WritePrivateProfileStringA = WritePrivateProfileString;

// FormatMessage takes a language id and ignores it; these keep calls as
// they were written.
enum : WORD { LANG_NEUTRAL = 0x00, SUBLANG_NEUTRAL = 0x00, SUBLANG_DEFAULT = 0x01 };
constexpr WORD MAKELANGID(WORD primary, WORD sub) {
    return static_cast<WORD>((sub << 10) | primary);
}

inline void ZeroMemory(void* p, size_t n) {
    memset(p, 0, n);
}
inline void CopyMemory(void* to, const void* from, size_t n) {
    memcpy(to, from, n);
}

// FormatMessage's FORMAT_MESSAGE_ALLOCATE_BUFFER result comes from malloc.
// Null, as on success in Win32.
inline HLOCAL LocalFree(HLOCAL p) {
    free(p);
    return nullptr;
}

inline DWORD GetCurrentProcessId() {
    return static_cast<DWORD>(getpid());
}
// The identifier CreateThread reports for a thread.
inline DWORD GetCurrentThreadId() {
    return static_cast<DWORD>(pthread_self());
}

// The section must not be in use; a CriticalSection object needs neither.
inline void InitializeCriticalSection(CRITICAL_SECTION* cs) {
    cs->owner = NULL_PTHREAD;
    cs->count = 0;
    pthread_mutex_init(&cs->mutex, nullptr);
}
inline void DeleteCriticalSection(CRITICAL_SECTION* cs) {
    pthread_mutex_destroy(&cs->mutex);
}

// Like the other Interlocked functions here, on the full 64-bit long; the
// value found at *destination is returned.
inline long InterlockedCompareExchange(long volatile* destination, long exchange, long comparand) {
    return __sync_val_compare_and_swap(destination, comparand, exchange);
}

#endif  // TVCOMMONUTIL_WIN32_NAMES_H
