// UUIDs, host names, dynamic libraries and FormatMessage, system information and calendar time, the
// server load region, CTvAsciiEncode, integer/text conversions, KwRandom.
#ifndef TVCOMMONUTIL_SERVICES_H
#define TVCOMMONUTIL_SERVICES_H

#include "export.h"
#include "strings.h"
#include "types.h"

// ---------------------------------------------------------------------------
// UUIDs
// ---------------------------------------------------------------------------
// Identifiers are time-based and shaped like version-1 UUIDs, but their time
// fields come straight from the Unix clock and their node from gethostid():
//   Data1     microseconds of the creating reading (0-999999)
//   Data2     low 16 bits of the Unix seconds
//   Data3     bits 16-27 of the Unix seconds | 0x1000 (version 1)
//   Data4[0]  ((clockSeq >> 8) & 0x3F) | 0x80 (variant 10), Data4[1] clockSeq & 0xFF
//   Data4[2-7] the node: the host identifier's six low bytes as they lie in memory
// The clock sequence is the Unix seconds & 0xFFFF at the first call of the
// process and never changes. Within one process identifiers are unique
// because no two creations use the same clock reading: a reading equal to
// the previous one waits 1 ms and reads again, and a second equal reading
// fails. A clock that steps back is accepted as it is.
// Results: 0 is success (RPC convention).

// 0, or 1 when the host identifier is 0 or the clock did not move on.
TV_API long UuidCreate(_GUID* uuid);
// 0 when UuidCreate gave 0, else 1.
TV_API long CoCreateGuid(_GUID* uuid);
// Allocates 128 bytes holding the 36-character lower-case text form (release
// it with RpcStringFree). 1 when string (or uuid) is null; 2 when memory is
// exhausted, with *string set to null.
TV_API long UuidToString(_GUID* uuid, unsigned char** string);
// Zeroes *uuid, then parses "%8lx-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x" (either
// case; text after the last field is ignored). 1 for a null or empty string
// or a text that does not scan. A text whose ninth character is not '-'
// deliberately succeeds (0) with the nil identifier: callers pass such
// placeholders and expect the nil value back.
TV_API long UuidFromString(unsigned char* string, _GUID* uuid);
// 0 when freed; 1 for a null or empty string, which is not freed. The
// caller's pointer is not reset.
TV_API long RpcStringFree(unsigned char** string);
// Orders by Data1, Data2, Data3, then Data4[0..7], all unsigned: -1, 0 or 1.
// *status (when given) is set to 0. Both records must be non-null.
TV_API int UuidCompare(_GUID* a, _GUID* b, long* status);

// ---------------------------------------------------------------------------
// Host names (CTvOS)
// ---------------------------------------------------------------------------
#include <netdb.h>

#include <string>

// Work area for cagethostbyaddr: the resolver's scratch storage, owned by
// the caller so the look-up is re-entrant.
struct hostent_data {
    char buffer[1688];
};

// Re-entrant reverse look-up into caller storage. Returns entry on success;
// otherwise null with *error (when given) set from the resolver's h_errno:
// 7 for a name not found, 13 for a temporary failure or missing data, 9 for
// anything else (an unrecoverable failure).
TV_API hostent* cagethostbyaddr(const char* address, int length, int family, hostent* entry,
                                hostent_data* data, int* error);

// Forward look-up with gethostbyname_r into the caller's entry and buffer;
// entry on success, else null. Same as CTvOS::tv_gethostbyname.
extern "C" TV_API hostent* tv_gethostbyname(const char* name, hostent* entry, char* buffer,
                                            int bufferLength);

// Name and address look-ups for the servers. Static operations only; every
// one is re-entrant (storage is the caller's or on the stack).
class TV_API CTvOS {
public:
    // Always false on this platform.
    static bool isWin2K3();
    // The look-up that the isWin2K3 branch would use; never taken here, so it
    // is always false and touches nothing.
    static bool tv_DnsQuery(std::string address, std::string& name, int& error);
    // Reverse look-up of a dotted IPv4 text; sets name to the official name.
    static bool tv_gethostbyaddr(std::string ipText, std::string& name);
    // The same look-up, also setting addressText to the entry's first address.
    // Deliberately returns false even after a successful look-up: callers of
    // this form judge success by the strings it filled.
    static bool tv_gethostbyaddr(std::string ipText, std::string& name, std::string& addressText);
    static hostent* tv_gethostbyname(std::string name, hostent* entry, char* buffer,
                                     int bufferLength);
    // Resolves host (at most 1025 characters) for a datagram socket on port
    // and writes the first usable address in numeric form to numericHost,
    // which must hold 32 bytes. skipIPv6 passes over IPv6 results.
    static bool tv_resolveIP(const char* host, int port, char* numericHost, bool skipIPv6);
};

// ---------------------------------------------------------------------------
// Dynamic libraries, message catalogs and FormatMessage
// ---------------------------------------------------------------------------
#include <stdarg.h>

// Module handles are the loader's own handles (or, for a message catalog,
// the catalog descriptor) passed through as opaque pointers. They are not
// kernel objects: release them with FreeLibrary, never CloseHandle.
constexpr DWORD LOAD_MESSAGE_CATALOG = 1;

// LoadLibraryEx(name, null, 0).
TV_API HMODULE LoadLibrary(const char* name);
// flags == 1 opens the message catalog name (catopen); on failure prints
// "LoadLibraryEx: Failed to open msg catlog <name>, errno: <text>" to stderr.
// Any other flags value loads a shared library (RTLD_LAZY); when that fails
// and the name ends in exactly ".DLL" or ".dll", one more attempt is made
// with ".SO" or ".so" instead (other spellings are not retried). The file
// argument is ignored. Null on failure.
TV_API HMODULE LoadLibraryEx(const char* name, Handle* file, unsigned long flags);
// 1 for a null module or a successful close, else 0.
TV_API int FreeLibrary(void* module);
// The loader's symbol look-up; null when absent or for a catalog handle.
TV_API void* GetProcAddress(void* module, const char* symbol);

// Formats a message with numbered inserts.
// Flags: FORMAT_MESSAGE_ALLOCATE_BUFFER (buffer is a char** that receives a
// malloc'd copy, release it with free()), FORMAT_MESSAGE_IGNORE_INSERTS,
// FORMAT_MESSAGE_FROM_STRING (source is the text). Without a string source,
// FORMAT_MESSAGE_FROM_SYSTEM gives strerror_r's text of messageId (an errno
// value, as GetLastError() returns), anything else "Unknown Error"; inserts
// are ignored for both. languageId is unused.
// arguments always points to an array of 64-bit values, one per insert
// number (as with FORMAT_MESSAGE_ARGUMENT_ARRAY); the text must not name an
// insert beyond the caller's array.
// Result: with inserts ignored, the text length plus one (the NUL counted;
// the copy is cut to fit the buffer). Otherwise DoFormatMsg's result. 0 when
// buffer is null.
TV_API int FormatMessage(unsigned long flags, const void* source, unsigned long messageId,
                         unsigned long languageId, char* buffer, unsigned long size,
                         va_list* arguments);
// Copies text into out (size bytes) expanding inserts, and returns the
// number of characters before the terminating NUL:
//   %0          ends the message at once and suppresses the final line feed
//   %1 .. %99   argument n as "%s", or as "%<fmt>" with %n!<fmt>!; the
//               closing '!' is not consumed and so is copied after the insert
//   %n %r %t %b line feed, carriage return, tab, blank; %x -> x otherwise
// A line feed is appended unless %0 was met. When the output fills all of
// size, its last character gives way to the NUL. <fmt> is one printf
// conversion (flags, width and precision of up to four digits, a length
// modifier or I64, one of d i o u x X c s p); any other <fmt>, or a null
// argument array, inserts nothing.
TV_API int DoFormatMsg(const char* text, char* out, int size, unsigned long* arguments);

// ---------------------------------------------------------------------------
// System information and calendar time
// ---------------------------------------------------------------------------
// A file time counts 100 ns units since 1601-01-01; the Unix epoch lies
// 11644473600 s later.
//
// V = (t + 11644473600) * 10000000 + microseconds * 10 is stored whole in
// dwLowDateTime (deliberately not masked to 32 bits) and V >> 32 in
// dwHighDateTime. Callers that store and compare file times rely on this
// exact pair, so FileTime2time_t of it does not give t back.
TV_API void time_tToFileTime(long t, _FILETIME* ft, unsigned long microseconds);
// W = (dwHighDateTime << 32) + dwLowDateTime; *t = W / 10^7 - 11644473600 and
// *microseconds (when given) = (W mod 10^7) / 10.
TV_API void FileTime2time_t(_FILETIME ft, long* t, unsigned long* microseconds);
// W / 10^7 - 11644473600 with W as above.
TV_API long long FileTime2longlong(_FILETIME ft);
// High fields first, then low fields, unsigned: -1, 0 or 1.
TV_API long CompareFileTime(const _FILETIME* a, const _FILETIME* b);
// The current time broken down in UTC (GetLocalTime: local time).
// wMilliseconds comes from the millisecond interval clock, read separately
// from the seconds.
TV_API void GetSystemTime(_SYSTEMTIME* st);
TV_API void GetLocalTime(_SYSTEMTIME* st);
// Takes *st as UTC (weekday ignored). 1, or 0 with both fields zero when the
// date cannot be converted.
TV_API int SystemTimeToFileTime(const _SYSTEMTIME* st, _FILETIME* ft);
// SystemTimeToFileTime, then (dwHighDateTime << 32) + dwLowDateTime. Always 1.
TV_API int SystemTimeToLongLong(const _SYSTEMTIME* st, unsigned long long* value);

typedef struct _OSVERSIONINFO {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    CHAR szCSDVersion[4096];  // "<machine> <kernel version text>"
    CHAR szSystemName[128];   // the operating system's name
} OSVERSIONINFO, *POSVERSIONINFO, *LPOSVERSIONINFO;
static_assert(sizeof(OSVERSIONINFO) == 4264, "GetVersionEx reports 4264 as the record size");

// 0 for a null record, a failing uname or a release text without '.'.
// Otherwise sets the size (4264), the major and minor version from the
// release text, the system name and the service-pack text, and returns 1;
// the other fields are left as the caller set them.
TV_API int GetVersionEx(_OSVERSIONINFO* info);

typedef struct _SYSTEM_INFO {
    DWORD dwOemId;
    DWORD dwPageSize;
    LPVOID lpMinimumApplicationAddress;
    LPVOID lpMaximumApplicationAddress;
    DWORD_PTR dwActiveProcessorMask;
    DWORD dwNumberOfProcessors;
    DWORD dwProcessorType;
    DWORD dwAllocationGranularity;
    WORD wProcessorLevel;
    WORD wProcessorRevision;
} SYSTEM_INFO, *LPSYSTEM_INFO;

// Zeroes the record, then sets the page size and the number of configured
// processors.
TV_API void GetSystemInfo(_SYSTEM_INFO* info);

typedef struct _TIME_ZONE_INFORMATION {
    LONG Bias;  // minutes, positive west of Greenwich
    CHAR StandardName[32];
    SYSTEMTIME StandardDate;
    LONG StandardBias;
    CHAR DaylightName[32];
    SYSTEMTIME DaylightDate;
    LONG DaylightBias;
} TIME_ZONE_INFORMATION, *PTIME_ZONE_INFORMATION, *LPTIME_ZONE_INFORMATION;

constexpr DWORD TIME_ZONE_ID_STANDARD = 1;
constexpr DWORD TIME_ZONE_ID_DAYLIGHT = 2;

// Bias and names from the C library's zone (timezone, tzname); StandardBias
// 0 and DaylightBias -60. The transition dates are fixed, whatever the zone:
// standard time from month 10 day 5 at 2:00, daylight time from month 4 day 1
// at 2:00 (callers only display them). 2 when local time is now in daylight
// saving time, else 1.
TV_API DWORD GetTimeZoneInformation(_TIME_ZONE_INFORMATION* tz);

// ---------------------------------------------------------------------------
// Server load region
// ---------------------------------------------------------------------------
// A 272-byte shared record, "KWLoadValue" + an optional suffix, through
// which a server publishes its load (0-100) for other processes of the host.
// It is a named file mapping (see files.h); a reader attaches by mapping the
// same name. The load word is read and written atomically.
struct KwLoadRegion {
    long load;  // -1: nothing published (also written on detach)
    unsigned char reserved[240];
    long reserved248;  // set to 0
    long reserved256;  // set to -1
    long reserved264;  // set to 0
};
static_assert(sizeof(KwLoadRegion) == 272, "the load region is 272 bytes");

// Creates or opens the region and (re)initialises it: deliberately also an
// existing one, so a newly started publisher resets what an earlier one
// left. The mapping handle goes to *mapping when given, else it is closed
// (the view stays valid). 1 on success, 0 on failure.
TV_API int InitLoadBalancingRegion(HANDLE* mapping, KwLoadRegion** view, const char* suffix);
// Writes -1 into the load word and unmaps the view. Always 1.
TV_API int DetachLoadBalancingRegion(KwLoadRegion* view);
// The load word as it stands; -1 for a null view.
TV_API long KwGetServerLoad(KwLoadRegion* view);
// 0 when target is null or load is above 100 (unsigned, so no negative
// loads); otherwise stores load and returns 1.
TV_API int KwSetServerLoad(unsigned long load, long* target);
// Always 1; they change nothing.
TV_API int KwSetServerRestricted();
TV_API int KwSetServerUnrestricted();

// ---------------------------------------------------------------------------
// Small conversions: CTvAsciiEncode, integer/text, case, KwRandom
// ---------------------------------------------------------------------------

// Hexadecimal encoding of binary data. Encoding is always upper case;
// decoding accepts both cases. Results are byte counts, or a negative code:
// -1 negative source length, -2 destination too small, -3 odd hex length.
class TV_API CTvAsciiEncode {
public:
    // Two characters per byte, high nibble first; no NUL is written.
    static int Binary2Hex(unsigned char* src, int srcLen, unsigned char* dst, int dstLen);
    // Pairs of characters to bytes. The characters are not validated: any
    // byte that is not a hex digit counts as 0, so callers check with
    // IsValidHex first. Never writes more than dstLen bytes.
    static int Hex2Binary(unsigned char* src, int srcLen, unsigned char* dst, int dstLen);
    // 1 when each of the first len bytes is a hex digit (so 1 for len <= 0).
    static int IsValidHex(unsigned char* src, int len);

    // "0123456789ABCDEF" (16 digits and the literal's NUL).
    static const char hexTable[17];
    // Indexed by byte: the digit's value, 0 for a non-digit.
    static const int hexBinaryValues[256];
    // Indexed by byte: 1 for the 22 hex digit characters, else 0.
    static const int hexValidValues[256];
};

// Integer to text; the caller's buffer must be large enough (34 bytes covers
// every result). A null buffer gives null.
// Radix 10 is "%d", radix 16 "%x" (two's complement of a negative value);
// any other radix writes nothing and returns null.
TV_API char* itoa(int value, char* buffer, int radix);
// As itoa, with "%lld" and "%llx".
TV_API char* i64toa(long long value, char* buffer, int radix);
// Forwards to fallback_ltoa.
TV_API const char* _ltoa(long value, char* buffer, int radix);
// Radix outside 2..36: empty text. Radix 16 and 8 print only the low 32 bits
// ("%x", "%o"). Other radixes print at most 32 digits, lower-case letters
// above 9, computed with 32-bit powers of the radix (so values needing more
// than 32 bits come out with the odd digits callers have always seen), and
// a '-' only in radix 10: other radixes print the magnitude without a sign.
TV_API char* fallback_ltoa(long value, char* buffer, int radix);
// In-place toupper / tolower (current locale) up to the NUL; return s.
TV_API char* _strupr(char* s);
TV_API char* _strlwr(char* s);

// Next rand_r value of the calling thread's own seed, modulo range. The seed
// starts from the low 32 bits of the thread's pthread_self(), so a thread
// reusing an ended thread's id repeats its sequence. Takes no lock.
// Callers pass a positive range; a range of 0 yields 0.
TV_API unsigned int KwRandom(int range);

#endif  // TVCOMMONUTIL_SERVICES_H
