// UUIDs, host names, dynamic libraries and FormatMessage, system information and calendar time, the server load region, CTvAsciiEncode, integer/text conversions, KwRandom.
#ifndef TVCOMMONUTIL_SERVICES_H
#define TVCOMMONUTIL_SERVICES_H

#include "export.h"
#include "strings.h"
#include "types.h"

// ---------------------------------------------------------------------------
// UUIDs
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Host names (CTvOS)
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// Dynamic libraries, message catalogs and FormatMessage
// ---------------------------------------------------------------------------

// ---------------------------------------------------------------------------
// System information and calendar time
// ---------------------------------------------------------------------------

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
