#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <tvcommonutil.h>

namespace {

// Sets TZ for the scope of a test and puts the previous value back.
class ScopedTz {
public:
    explicit ScopedTz(const char* tz)
        : had_(getenv("TZ") != nullptr), old_(had_ ? getenv("TZ") : "") {
        setenv("TZ", tz, 1);
        tzset();
    }
    ~ScopedTz() {
        had_ ? setenv("TZ", old_.c_str(), 1) : unsetenv("TZ");
        tzset();
    }

private:
    bool had_;
    std::string old_;
};

_FILETIME Ft(unsigned long low, unsigned long high) {
    _FILETIME ft;
    ft.dwLowDateTime = low;
    ft.dwHighDateTime = high;
    return ft;
}

}  // namespace

TEST(CalendarTime, FileTimeArithmeticIsExact) {
    _FILETIME ft;
    time_tToFileTime(0, &ft, 0);
    EXPECT_EQ(116444736000000000UL, ft.dwLowDateTime);  // not masked to 32 bits
    EXPECT_EQ(27111902UL, ft.dwHighDateTime);
    // Reading it back combines both fields, so t does not come back.
    long t = 0;
    unsigned long us = 0;
    FileTime2time_t(ft, &t, &us);
    EXPECT_EQ(11644473242L, t);
    EXPECT_EQ(235699UL, us);
    FileTime2time_t(ft, &t, nullptr);
    EXPECT_EQ(11644473242L, t);

    EXPECT_EQ(0, FileTime2longlong(Ft(116444736000000000UL, 0)));
    FileTime2time_t(Ft(116444736000000000UL + 12345678, 0), &t, &us);
    EXPECT_EQ(1, t);
    EXPECT_EQ(234567UL, us);

    time_tToFileTime(1, &ft, 5);
    EXPECT_EQ(116444736010000050UL, ft.dwLowDateTime);
    // Before 1601 the count is negative and the high field is sign-filled.
    time_tToFileTime(-11644473601L, &ft, 0);
    EXPECT_EQ(static_cast<unsigned long>(-10000000L), ft.dwLowDateTime);
    EXPECT_EQ(~0UL, ft.dwHighDateTime);

    // The high field decides before the low one; both unsigned.
    _FILETIME a = Ft(0, 2), b = Ft(~0UL, 1);
    EXPECT_EQ(1, CompareFileTime(&a, &b));
    EXPECT_EQ(-1, CompareFileTime(&b, &a));
    b = Ft(~0UL, 2);
    EXPECT_EQ(-1, CompareFileTime(&a, &b));
    EXPECT_EQ(0, CompareFileTime(&b, &b));
}

TEST(CalendarTime, SystemTimeIsTakenAsUtcInAnyZone) {
    for (const char* zone : {"UTC0", "EST5EDT,M3.2.0,M11.1.0", "<+0530>-5:30"}) {
        ScopedTz tz(zone);
        _FILETIME ft, want;
        _SYSTEMTIME winter = {2024, 1, 6, 2, 3, 4, 5, 678};  // the day of week is ignored
        ASSERT_EQ(1, SystemTimeToFileTime(&winter, &ft)) << zone;
        time_tToFileTime(1704164645L, &want, 678000);
        EXPECT_EQ(want.dwLowDateTime, ft.dwLowDateTime) << zone;
        EXPECT_EQ(want.dwHighDateTime, ft.dwHighDateTime) << zone;

        _SYSTEMTIME summer = {2024, 7, 6, 4, 12, 0, 0, 0};
        ASSERT_EQ(1, SystemTimeToFileTime(&summer, &ft)) << zone;
        time_tToFileTime(1720094400L, &want, 0);
        EXPECT_EQ(want.dwLowDateTime, ft.dwLowDateTime) << zone;

        unsigned long long value = 0;
        EXPECT_EQ(1, SystemTimeToLongLong(&summer, &value));
        EXPECT_EQ((static_cast<unsigned long long>(want.dwHighDateTime) << 32) + want.dwLowDateTime,
                  value);
    }
}

TEST(CalendarTime, CurrentTimeBrokenDown) {
    ScopedTz tz("<+0530>-5:30");
    time_t before = time(nullptr);
    _SYSTEMTIME utc, local;
    GetSystemTime(&utc);
    GetLocalTime(&local);
    // Whole minutes of day, allowing the calls to straddle one.
    auto minutes = [](const _SYSTEMTIME& s) { return s.wHour * 60 + s.wMinute; };
    tm b;
    gmtime_r(&before, &b);
    EXPECT_LE((minutes(utc) - (b.tm_hour * 60 + b.tm_min) + 1440) % 1440, 1);
    EXPECT_LT(utc.wDayOfWeek, 7);
    EXPECT_LT(utc.wMilliseconds, 1000);
    int shift = (minutes(local) - minutes(utc) + 1440) % 1440;
    EXPECT_TRUE(shift == 330 || shift == 329 || shift == 331) << shift;
}

TEST(SystemInfo, TimeZoneReportsFixedTransitions) {
    struct Case {
        const char* zone;
        long bias;
        const char* standard;
    };
    for (const Case& c : {Case{"UTC0", 0, "UTC"}, Case{"EST5EDT,M3.2.0,M11.1.0", 300, "EST"},
                          Case{"<+0530>-5:30", -330, "+0530"}}) {
        ScopedTz tz(c.zone);
        _TIME_ZONE_INFORMATION info;
        memset(&info, 0xAB, sizeof(info));
        DWORD r = GetTimeZoneInformation(&info);
        EXPECT_EQ(c.bias, info.Bias) << c.zone;
        EXPECT_STREQ(c.standard, info.StandardName) << c.zone;
        // Bias, month, day, hour, year (and minute) of both transitions.
        EXPECT_EQ(
            (std::vector<long>{0, 10, 5, 2, 0, -60, 4, 1, 2, 0}),
            (std::vector<long>{info.StandardBias, info.StandardDate.wMonth, info.StandardDate.wDay,
                               info.StandardDate.wHour, info.StandardDate.wYear, info.DaylightBias,
                               info.DaylightDate.wMonth, info.DaylightDate.wDay,
                               info.DaylightDate.wHour, info.DaylightDate.wMinute}));

        time_t now = time(nullptr);
        tm local;
        localtime_r(&now, &local);
        EXPECT_EQ(local.tm_isdst > 0 ? 2UL : 1UL, r) << c.zone;  // 1 always for UTC
        EXPECT_TRUE(c.zone[0] != 'E' || strcmp(info.DaylightName, "EDT") == 0) << c.zone;
    }
}

TEST(SystemInfo, VersionAndProcessors) {
    EXPECT_EQ(0, GetVersionEx(nullptr));
    _OSVERSIONINFO v;
    ASSERT_EQ(1, GetVersionEx(&v));
    EXPECT_EQ(4264UL, v.dwOSVersionInfoSize);
    utsname u;
    ASSERT_EQ(0, uname(&u));
    EXPECT_EQ(strtoul(u.release, nullptr, 10), v.dwMajorVersion);
    EXPECT_EQ(strtoul(strchr(u.release, '.') + 1, nullptr, 10), v.dwMinorVersion);
    EXPECT_EQ(std::string(u.machine) + " " + u.version, v.szCSDVersion);
    _SYSTEM_INFO si;
    memset(&si, 0xAB, sizeof(si));
    GetSystemInfo(&si);
    EXPECT_EQ(static_cast<DWORD>(sysconf(_SC_PAGESIZE)), si.dwPageSize);
    EXPECT_EQ(static_cast<DWORD>(sysconf(_SC_NPROCESSORS_CONF)), si.dwNumberOfProcessors);
    EXPECT_EQ(nullptr, si.lpMaximumApplicationAddress);  // the rest is cleared
}
