// Time-based identifiers and their text form.
//
// Uniqueness within a process rests on one rule: no two identifiers are
// made from the same clock reading. The last reading used and the clock
// sequence live together under TimeLock; a caller whose reading equals the
// last one sleeps 1 ms while holding the lock (so no other caller can take
// the new tick first) and reads once more, failing if the clock still shows
// the same value. Readings are compared for equality only: a clock that
// steps back is used as it is and the clock sequence never changes after it
// is set on first use.
//
// The node is found once from the host identifier and cached under
// AddressLock. The two locks are never held together.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "services/uuid_internal.h"
#include "tvcommonutil/handles.h"
#include "tvcommonutil/services.h"

namespace tv {
namespace detail {
namespace {

// Guards LastTime, ClockSeq and ClockSeqSet. Leaf lock.
CriticalSection TimeLock;
tv::detail::ForkTrackedLock TimeLockFork(&TimeLock, tv::detail::ForkTrackedLock::kHandleLock);
uuid_time_t LastTime TV_GUARDED_BY(TimeLock) = {0, 0};
unsigned short ClockSeq TV_GUARDED_BY(TimeLock) = 0;
bool ClockSeqSet TV_GUARDED_BY(TimeLock) = false;

// Guards KnownAddress, HaveAddress and HostId. Leaf lock.
CriticalSection AddressLock;
tv::detail::ForkTrackedLock AddressLockFork(&AddressLock, tv::detail::ForkTrackedLock::kHandleLock);
uuid_address_t KnownAddress TV_GUARDED_BY(AddressLock) = {{0, 0, 0, 0, 0, 0}};
bool HaveAddress TV_GUARDED_BY(AddressLock) = false;
HostIdSource HostId TV_GUARDED_BY(AddressLock) = gethostid;

}  // namespace

int uuid_get_address(uuid_address_t* address, unsigned long* error) {
    CriticalSectionHolder hold(AddressLock);
    if (!HaveAddress) {
        long id = HostId();
        if (id == 0) {
            if (error) *error = 1;
            return 1;
        }
        // The host identifier's bytes as they lie in memory: on this
        // little-endian 64-bit platform, its six low bytes, lowest first.
        static_assert(sizeof(id) >= sizeof(KnownAddress.nodeID), "node fits the host id");
        memcpy(KnownAddress.nodeID, &id, sizeof(KnownAddress.nodeID));
        HaveAddress = true;
    }
    *address = KnownAddress;
    if (error) *error = 0;
    return 0;
}

void uuid_get_os_time(uuid_time_t* time) {
    timeval tv;
    gettimeofday(&tv, nullptr);
    time->usec = static_cast<unsigned long long>(tv.tv_usec);
    time->sec = static_cast<unsigned long long>(tv.tv_sec);
}

int uuid_time_cmp(const uuid_time_t* a, const uuid_time_t* b) {
    if (a->sec != b->sec) return a->sec < b->sec ? 0 : 2;
    if (a->usec != b->usec) return a->usec < b->usec ? 0 : 2;
    return 1;
}

unsigned short uuid_read_clock() {
    return static_cast<unsigned short>(static_cast<unsigned long>(time(nullptr)) & 0xFFFF);
}

HostIdSource SetHostIdSource(HostIdSource source) {
    CriticalSectionHolder hold(AddressLock);
    HostIdSource previous = HostId;
    HostId = source ? source : gethostid;
    HaveAddress = false;
    return previous;
}

namespace {

// Takes a reading that differs from the last one used and records it.
bool TakeDistinctTime(uuid_time_t* now, unsigned short* clockSeq) {
    CriticalSectionHolder hold(TimeLock);
    if (!ClockSeqSet) {
        ClockSeq = uuid_read_clock();
        ClockSeqSet = true;
    }
    *clockSeq = ClockSeq;
    for (int attempt = 0; attempt < 2; ++attempt) {
        uuid_get_os_time(now);
        if (uuid_time_cmp(now, &LastTime) != 1) {
            LastTime = *now;
            return true;
        }
        if (attempt == 0) {
            timespec oneMs = {0, 1000000};
            nanosleep(&oneMs, nullptr);
        }
    }
    return false;
}

}  // namespace
}  // namespace detail
}  // namespace tv

long UuidCreate(_GUID* uuid) {
    using namespace tv::detail;
    if (uuid == nullptr) return 1;
    uuid_address_t node;
    unsigned long error = 0;
    if (uuid_get_address(&node, &error) != 0) return 1;
    uuid_time_t now;
    unsigned short clockSeq = 0;
    if (!TakeDistinctTime(&now, &clockSeq)) return 1;

    _GUID g;
    g.Data1 = static_cast<unsigned long>(now.usec);
    g.Data2 = static_cast<unsigned short>(now.sec & 0xFFFF);
    g.Data3 = static_cast<unsigned short>(((now.sec >> 16) & 0x0FFF) | 0x1000);
    g.Data4[0] = static_cast<unsigned char>(((clockSeq >> 8) & 0x3F) | 0x80);
    g.Data4[1] = static_cast<unsigned char>(clockSeq & 0xFF);
    memcpy(&g.Data4[2], node.nodeID, sizeof(node.nodeID));
    *uuid = g;
    return 0;
}

long CoCreateGuid(_GUID* uuid) {
    return UuidCreate(uuid) == 0 ? 0 : 1;
}

long UuidToString(_GUID* uuid, unsigned char** string) {
    if (string == nullptr || uuid == nullptr) return 1;
    constexpr size_t kTextArea = 128;
    char* text = static_cast<char*>(malloc(kTextArea));
    if (text == nullptr) {
        *string = nullptr;
        return 2;
    }
    // The text of "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x" over
    // Data1's low 32 bits, Data2, Data3 and Data4[0..7], written directly.
    static const char kHex[] = "0123456789abcdef";
    char* p = text;
    auto put = [&p](unsigned long value, int digits) {
        for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
            *p++ = kHex[(value >> shift) & 0xF];
    };
    put(uuid->Data1 & 0xFFFFFFFFUL, 8);
    *p++ = '-';
    put(uuid->Data2, 4);
    *p++ = '-';
    put(uuid->Data3, 4);
    *p++ = '-';
    put(uuid->Data4[0], 2);
    put(uuid->Data4[1], 2);
    *p++ = '-';
    for (int i = 2; i < 8; ++i) put(uuid->Data4[i], 2);
    *p = '\0';
    *string = reinterpret_cast<unsigned char*>(text);
    return 0;
}

long UuidFromString(unsigned char* string, _GUID* uuid) {
    if (uuid == nullptr) return 1;
    _GUID g;
    memset(&g, 0, sizeof(g));
    *uuid = g;
    if (string == nullptr || string[0] == '\0') return 1;
    const char* text = reinterpret_cast<const char*>(string);
    // A text shorter than nine characters has no hyphen at index 8; it
    // takes the same nil-identifier path without reading past its end.
    if (strnlen(text, 9) < 9 || text[8] != '-') return 0;

    unsigned long d1 = 0;
    unsigned d2 = 0, d3 = 0;
    unsigned d4[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    int n = sscanf(text, "%8lx-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &d1, &d2, &d3, &d4[0], &d4[1],
                   &d4[2], &d4[3], &d4[4], &d4[5], &d4[6], &d4[7]);
    if (n != 11) return 1;
    g.Data1 = d1;
    g.Data2 = static_cast<unsigned short>(d2);
    g.Data3 = static_cast<unsigned short>(d3);
    for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<unsigned char>(d4[i]);
    *uuid = g;
    return 0;
}

long RpcStringFree(unsigned char** string) {
    if (string == nullptr || *string == nullptr || (*string)[0] == '\0') return 1;
    free(*string);
    return 0;
}

int UuidCompare(_GUID* a, _GUID* b, long* status) {
    if (status) *status = 0;
    if (a->Data1 != b->Data1) return a->Data1 < b->Data1 ? -1 : 1;
    if (a->Data2 != b->Data2) return a->Data2 < b->Data2 ? -1 : 1;
    if (a->Data3 != b->Data3) return a->Data3 < b->Data3 ? -1 : 1;
    for (int i = 0; i < 8; ++i) {
        if (a->Data4[i] != b->Data4[i]) return a->Data4[i] < b->Data4[i] ? -1 : 1;
    }
    return 0;
}
