// Small system queries under their Windows names: version, processor and
// page size, time zone.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include "tvcommonutil/services.h"

namespace {

void CopyName(char* dst, size_t dstSize, const char* src) {
    snprintf(dst, dstSize, "%s", src ? src : "");
}

}  // namespace

int GetVersionEx(_OSVERSIONINFO* info) {
    if (info == nullptr) return 0;
    utsname u;
    if (uname(&u) != 0) return 0;
    const char* dot = strchr(u.release, '.');
    if (dot == nullptr) return 0;
    info->dwOSVersionInfoSize = sizeof(_OSVERSIONINFO);
    info->dwMajorVersion = strtoul(u.release, nullptr, 10);
    info->dwMinorVersion = strtoul(dot + 1, nullptr, 10);
    CopyName(info->szSystemName, sizeof(info->szSystemName), u.sysname);
    snprintf(info->szCSDVersion, sizeof(info->szCSDVersion), "%s %s", u.machine, u.version);
    return 1;
}

void GetSystemInfo(_SYSTEM_INFO* info) {
    memset(info, 0, sizeof(*info));
    long page = sysconf(_SC_PAGESIZE);
    long cpus = sysconf(_SC_NPROCESSORS_CONF);
    info->dwPageSize = page > 0 ? static_cast<DWORD>(page) : 0;
    info->dwNumberOfProcessors = cpus > 0 ? static_cast<DWORD>(cpus) : 0;
}

DWORD GetTimeZoneInformation(_TIME_ZONE_INFORMATION* tz) {
    memset(tz, 0, sizeof(*tz));
    tzset();
    tz->Bias = static_cast<LONG>(timezone / 60);
    CopyName(tz->StandardName, sizeof(tz->StandardName), tzname[0]);
    CopyName(tz->DaylightName, sizeof(tz->DaylightName), tzname[1]);
    tz->StandardBias = 0;
    tz->DaylightBias = -60;
    // Fixed transition rules whatever the real zone: callers display them
    // and compute with the biases only.
    tz->StandardDate.wMonth = 10;
    tz->StandardDate.wDay = 5;
    tz->StandardDate.wHour = 2;
    tz->DaylightDate.wMonth = 4;
    tz->DaylightDate.wDay = 1;
    tz->DaylightDate.wHour = 2;
    time_t now = time(nullptr);
    tm local;
    localtime_r(&now, &local);
    return local.tm_isdst > 0 ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
}
