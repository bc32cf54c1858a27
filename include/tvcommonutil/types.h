// Windows-style type names, constants and the records that cross the
// library boundary.
//
// The library targets 64-bit Linux and keeps the product's own data model:
// DWORD is `unsigned long` and therefore 64 bits wide. Every record below
// keeps the Windows field order with that DWORD, so _FILETIME is two 64-bit
// fields and _WIN32_FIND_DATA is 4200 bytes. Callers exchange these records
// with other processes of the product only through the library, never as raw
// bytes with Windows hosts.
#ifndef TVCOMMONUTIL_TYPES_H
#define TVCOMMONUTIL_TYPES_H

#include <stddef.h>

#include "export.h"

class Handle;
class Event;

// ---------------------------------------------------------------------------
// Scalar types
// ---------------------------------------------------------------------------
typedef unsigned long DWORD;
typedef int BOOL;
typedef long LONG;
typedef unsigned long ULONG;
typedef unsigned short WORD;
typedef unsigned char BYTE;
typedef unsigned int UINT;
typedef int INT;
typedef char CHAR;
typedef char TCHAR;
typedef unsigned char UCHAR;
typedef short SHORT;
typedef unsigned short USHORT;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef long long __int64;
typedef unsigned long ULONG_PTR;
typedef long LONG_PTR;
typedef unsigned long DWORD_PTR;
typedef unsigned long long DWORD64;
typedef unsigned int DWORD32;
typedef size_t SIZE_T;
typedef void VOID;
typedef void* PVOID;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef char* LPTSTR;
typedef const char* LPCTSTR;
typedef BYTE* LPBYTE;
typedef DWORD* LPDWORD;
typedef DWORD* PDWORD;
typedef LONG* PLONG;
typedef LONG* LPLONG;
typedef BOOL* LPBOOL;
typedef WORD* LPWORD;

// A kernel object handle is a pointer to the library's object.
typedef Handle* HANDLE;
typedef HANDLE* PHANDLE;
typedef HANDLE* LPHANDLE;
typedef HANDLE HMODULE;
typedef HANDLE HINSTANCE;

// Registry keys are numbers: 0 is HKEY_LOCAL_MACHINE, other values are key
// indexes handed out by the registry (bit 0x40000000 marks write access).
typedef long HKEY;
typedef HKEY* PHKEY;
typedef DWORD REGSAM;
typedef LONG LSTATUS;
typedef long HRESULT;
typedef long RPC_STATUS;

typedef DWORD (*LPTHREAD_START_ROUTINE)(LPVOID);
typedef DWORD (*PTHREAD_START_ROUTINE)(LPVOID);
typedef void (*PAPCFUNC)(ULONG_PTR);
typedef int (*FARPROC)();

// ---------------------------------------------------------------------------
// Truth values and handle sentinels
// ---------------------------------------------------------------------------
// TRUE and FALSE stay macros: old server code tests them in #if and other
// headers define them the same way.
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// All bits set, as returned by the handle-returning search functions.
static Handle* const INVALID_HANDLE_VALUE = reinterpret_cast<Handle*>(-1L);

constexpr DWORD INFINITE = 0xFFFFFFFFUL;
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;

// ---------------------------------------------------------------------------
// Wait results
// ---------------------------------------------------------------------------
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_ABANDONED = 128;  // RWLock: request refused without waiting
constexpr DWORD WAIT_ABANDONED_0 = 128;
constexpr DWORD WAIT_IO_COMPLETION = 192;
constexpr DWORD WAIT_TIMEOUT = 258;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFFUL;
constexpr DWORD STATUS_PENDING = 259;
constexpr DWORD STILL_ACTIVE = 259;

// ---------------------------------------------------------------------------
// Error codes (stored in errno; GetLastError() returns errno)
// ---------------------------------------------------------------------------
constexpr long ERROR_SUCCESS = 0;
constexpr long NO_ERROR = 0;
constexpr long ERROR_INVALID_FUNCTION = 1;
constexpr long ERROR_FILE_NOT_FOUND = 2;
constexpr long ERROR_PATH_NOT_FOUND = 3;
constexpr long ERROR_TOO_MANY_OPEN_FILES = 4;
constexpr long ERROR_ACCESS_DENIED = 5;
constexpr long ERROR_INVALID_HANDLE = 6;
constexpr long ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr long ERROR_BAD_FORMAT = 11;
constexpr long ERROR_INVALID_ACCESS = 12;
constexpr long ERROR_INVALID_DATA = 13;  // the registry's "key or value not found"
constexpr long ERROR_OUTOFMEMORY = 14;
constexpr long ERROR_NO_MORE_FILES = 18;
constexpr long ERROR_GEN_FAILURE = 31;
constexpr long ERROR_SHARING_VIOLATION = 32;
constexpr long ERROR_LOCK_VIOLATION = 33;
constexpr long ERROR_HANDLE_EOF = 38;
constexpr long ERROR_NOT_SUPPORTED = 50;
constexpr long ERROR_FILE_EXISTS = 80;
constexpr long ERROR_INVALID_PARAMETER = 87;
constexpr long ERROR_BROKEN_PIPE = 109;
constexpr long ERROR_CALL_NOT_IMPLEMENTED = 120;
constexpr long ERROR_SEM_TIMEOUT = 121;
constexpr long ERROR_INSUFFICIENT_BUFFER = 122;
constexpr long ERROR_INVALID_NAME = 123;
constexpr long ERROR_MOD_NOT_FOUND = 126;
constexpr long ERROR_PROC_NOT_FOUND = 127;
constexpr long ERROR_DIR_NOT_EMPTY = 145;
constexpr long ERROR_BAD_PATHNAME = 161;
constexpr long ERROR_ALREADY_EXISTS = 183;
constexpr long ERROR_ENVVAR_NOT_FOUND = 203;
constexpr long ERROR_FILENAME_EXCED_RANGE = 206;
constexpr long ERROR_MORE_DATA = 234;
constexpr long ERROR_NO_MORE_ITEMS = 259;
constexpr long ERROR_DIRECTORY = 267;
constexpr long ERROR_NOT_OWNER = 288;
constexpr long ERROR_TOO_MANY_POSTS = 298;
constexpr long ERROR_OPERATION_ABORTED = 995;
constexpr long ERROR_IO_INCOMPLETE = 996;
constexpr long ERROR_IO_PENDING = 997;
constexpr long ERROR_NOACCESS = 998;
constexpr long ERROR_BADDB = 1009;
constexpr long ERROR_BADKEY = 1010;
constexpr long ERROR_CANTOPEN = 1011;
constexpr long ERROR_CANTREAD = 1012;
constexpr long ERROR_CANTWRITE = 1013;
constexpr long ERROR_REGISTRY_CORRUPT = 1015;
constexpr long ERROR_KEY_DELETED = 1018;
constexpr long ERROR_NOTIFY_ENUM_DIR = 1022;
constexpr long ERROR_INVALID_FLAGS = 1004;
constexpr long ERROR_TIMEOUT = 1460;

// ---------------------------------------------------------------------------
// Registry
// ---------------------------------------------------------------------------
// The only root key. Other HKEY values are key indexes below 2^30, with
// KEY_WRITE_HANDLE_BIT added for a handle opened with write access.
constexpr HKEY HKEY_LOCAL_MACHINE = 0;
constexpr HKEY KEY_INDEX_MASK = 0x3fffffff;
constexpr HKEY KEY_WRITE_HANDLE_BIT = 0x40000000;

constexpr DWORD REG_NONE = 0;
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_EXPAND_SZ = 2;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;
constexpr DWORD REG_DWORD_LITTLE_ENDIAN = 4;
constexpr DWORD REG_DWORD_BIG_ENDIAN = 5;
constexpr DWORD REG_LINK = 6;
constexpr DWORD REG_MULTI_SZ = 7;

constexpr DWORD REG_OPTION_NON_VOLATILE = 0;
constexpr DWORD REG_OPTION_VOLATILE = 1;
constexpr DWORD REG_CREATED_NEW_KEY = 1;
constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

constexpr DWORD REG_NOTIFY_CHANGE_NAME = 0x1;
constexpr DWORD REG_NOTIFY_CHANGE_ATTRIBUTES = 0x2;
constexpr DWORD REG_NOTIFY_CHANGE_LAST_SET = 0x4;
constexpr DWORD REG_NOTIFY_CHANGE_SECURITY = 0x8;

constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_SET_VALUE = 0x0002;
constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
constexpr REGSAM KEY_NOTIFY = 0x0010;
constexpr REGSAM KEY_CREATE_LINK = 0x0020;
constexpr REGSAM KEY_READ = 0x20019;
constexpr REGSAM KEY_WRITE = 0x20006;
constexpr REGSAM KEY_EXECUTE = 0x20019;
constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;

// ---------------------------------------------------------------------------
// Directory change notification
// ---------------------------------------------------------------------------
constexpr DWORD FILE_NOTIFY_CHANGE_FILE_NAME = 0x001;
constexpr DWORD FILE_NOTIFY_CHANGE_DIR_NAME = 0x002;
constexpr DWORD FILE_NOTIFY_CHANGE_ATTRIBUTES = 0x004;
constexpr DWORD FILE_NOTIFY_CHANGE_SIZE = 0x008;
constexpr DWORD FILE_NOTIFY_CHANGE_LAST_WRITE = 0x010;
constexpr DWORD FILE_NOTIFY_CHANGE_LAST_ACCESS = 0x020;
constexpr DWORD FILE_NOTIFY_CHANGE_CREATION = 0x040;
constexpr DWORD FILE_NOTIFY_CHANGE_SECURITY = 0x100;

constexpr DWORD FILE_ACTION_ADDED = 1;
constexpr DWORD FILE_ACTION_REMOVED = 2;
constexpr DWORD FILE_ACTION_MODIFIED = 3;
constexpr DWORD FILE_ACTION_RENAMED_OLD_NAME = 4;
constexpr DWORD FILE_ACTION_RENAMED_NEW_NAME = 5;

// The library's own attribute values: 0x100 for a directory, 0x80 for any
// other entry (deliberately not the Windows directory bit 0x10).
constexpr DWORD TV_FILE_ATTRIBUTE_DIRECTORY = 0x100;
constexpr DWORD TV_FILE_ATTRIBUTE_NORMAL = 0x80;

// ---------------------------------------------------------------------------
// FormatMessage
// ---------------------------------------------------------------------------
constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100;
constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200;
constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x00000400;
constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x00000800;
constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000;
constexpr DWORD FORMAT_MESSAGE_ARGUMENT_ARRAY = 0x00002000;
constexpr DWORD FORMAT_MESSAGE_MAX_WIDTH_MASK = 0x000000FF;

// ---------------------------------------------------------------------------
// Threads and processes
// ---------------------------------------------------------------------------
constexpr DWORD CREATE_SUSPENDED = 0x00000004;
constexpr DWORD DETACHED_PROCESS = 0x00000008;
constexpr DWORD CREATE_NEW_CONSOLE = 0x00000010;
constexpr DWORD CREATE_NEW_PROCESS_GROUP = 0x00000200;
constexpr DWORD NORMAL_PRIORITY_CLASS = 0x00000020;
constexpr DWORD STARTF_USESHOWWINDOW = 0x00000001;
constexpr DWORD STARTF_USESTDHANDLES = 0x00000100;
constexpr DWORD DUPLICATE_CLOSE_SOURCE = 0x00000001;
constexpr DWORD DUPLICATE_SAME_ACCESS = 0x00000002;

constexpr int THREAD_PRIORITY_LOWEST = -2;
constexpr int THREAD_PRIORITY_BELOW_NORMAL = -1;
constexpr int THREAD_PRIORITY_NORMAL = 0;
constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;
constexpr int THREAD_PRIORITY_HIGHEST = 2;
constexpr int THREAD_PRIORITY_IDLE = -15;
constexpr int THREAD_PRIORITY_TIME_CRITICAL = 15;

constexpr size_t MAX_PATH = 260;

// ---------------------------------------------------------------------------
// Records
// ---------------------------------------------------------------------------
typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *PSECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    // The file position shares the third word, so that hEvent is the fourth.
    unsigned int Offset;
    unsigned int OffsetHigh;
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

typedef void (*LPOVERLAPPED_COMPLETION_ROUTINE)(DWORD errorCode, DWORD bytesTransferred,
                                                LPOVERLAPPED overlapped);

typedef struct _FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
} FILETIME, *PFILETIME, *LPFILETIME;

typedef struct _SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME, *PSYSTEMTIME, *LPSYSTEMTIME;

typedef struct _WIN32_FIND_DATA {
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0;
    DWORD dwReserved1;
    CHAR cFileName[4096];
    CHAR cAlternateFileName[14];
} WIN32_FIND_DATA, *PWIN32_FIND_DATA, *LPWIN32_FIND_DATA;

typedef struct _STARTUPINFO {
    DWORD cb;
    LPSTR lpReserved;
    LPSTR lpDesktop;
    LPSTR lpTitle;
    DWORD dwX;
    DWORD dwY;
    DWORD dwXSize;
    DWORD dwYSize;
    DWORD dwXCountChars;
    DWORD dwYCountChars;
    DWORD dwFillAttribute;
    DWORD dwFlags;
    WORD wShowWindow;
    WORD cbReserved2;
    LPBYTE lpReserved2;
    HANDLE hStdInput;
    HANDLE hStdOutput;
    HANDLE hStdError;
} STARTUPINFO, *LPSTARTUPINFO;

typedef struct _PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;
    DWORD dwProcessId;
    DWORD dwThreadId;
} PROCESS_INFORMATION, *PPROCESS_INFORMATION, *LPPROCESS_INFORMATION;

typedef struct _GUID {
    unsigned long Data1;
    unsigned short Data2;
    unsigned short Data3;
    unsigned char Data4[8];
} GUID, UUID, IID, CLSID, *LPGUID;

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

static_assert(sizeof(DWORD) == 8, "DWORD is 64 bits wide on the target");
static_assert(sizeof(FILETIME) == 16, "_FILETIME is two 64-bit fields");
static_assert(sizeof(SYSTEMTIME) == 16, "_SYSTEMTIME is eight 16-bit fields");
static_assert(sizeof(WIN32_FIND_DATA) == 4200, "_WIN32_FIND_DATA is 4200 bytes");
static_assert(offsetof(WIN32_FIND_DATA, cFileName) == 88, "_WIN32_FIND_DATA layout");
static_assert(sizeof(OVERLAPPED) == 32 && offsetof(OVERLAPPED, hEvent) == 24,
              "_OVERLAPPED's fourth word is hEvent");
static_assert(sizeof(GUID) == 24, "_GUID with a 64-bit Data1");
static_assert(sizeof(PROCESS_INFORMATION) == 32, "_PROCESS_INFORMATION layout");

#endif  // TVCOMMONUTIL_TYPES_H
