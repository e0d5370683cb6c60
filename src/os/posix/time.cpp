// Clocks and the local time zone on Linux. The zone comes from the C library (TZ and /etc/localtime), so a
// test can move the process to any zone with setenv("TZ") and tzset, or replace the calls through
// os_hooks.
#include "os/os_internal.h"

#include <errno.h>
#include <time.h>

uint64_t os_real_filetime_now() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return (uint64_t) (ts.tv_sec + OS_UNIX_EPOCH_SECONDS) * OS_FILETIME_SECOND + (uint64_t) ts.tv_nsec / 100;
}

bool os_real_filetime_to_local(uint64_t ft, os_systemtime_t *out) {
    if (ft > 0x7FFFFFFFFFFFFFFFull) {
        return false;
    }
    // FILETIME is unsigned from 1601, so every value maps to a whole second at or after -11644473600.
    time_t t = (time_t) (ft / OS_FILETIME_SECOND) - (time_t) OS_UNIX_EPOCH_SECONDS;
    struct tm tm;
    if (!localtime_r(&t, &tm)) {
        return false;
    }
    out->year = tm.tm_year + 1900;
    out->month = tm.tm_mon + 1;
    out->day_of_week = tm.tm_wday;
    out->day = tm.tm_mday;
    out->hour = tm.tm_hour;
    out->minute = tm.tm_min;
    out->second = tm.tm_sec;
    out->milliseconds = (int) (ft % OS_FILETIME_SECOND / 10000);
    // A zone east of UTC can push the first hours of 1601 into 1600, which SYSTEMTIME can't hold.
    return os_systemtime_valid(out);
}

bool os_real_local_to_filetime(const os_systemtime_t *local, uint64_t *ft) {
    if (!os_systemtime_valid(local)) {
        return false;
    }
    struct tm tm = {};
    tm.tm_year = local->year - 1900;
    tm.tm_mon = local->month - 1;
    tm.tm_mday = local->day;
    tm.tm_hour = local->hour;
    tm.tm_min = local->minute;
    tm.tm_sec = local->second;
    // The C library decides whether daylight saving applies at that wall-clock time.
    tm.tm_isdst = -1;
    errno = 0;
    time_t t = mktime(&tm);
    if (t == (time_t) -1 && errno != 0) {
        // -1 is also the honest answer for 1969-12-31 23:59:59 UTC; errno tells the two apart.
        return false;
    }
    if ((int64_t) t < -OS_UNIX_EPOCH_SECONDS) {
        return false;
    }
    *ft = (uint64_t) ((int64_t) t + OS_UNIX_EPOCH_SECONDS) * OS_FILETIME_SECOND +
          (uint64_t) local->milliseconds * 10000;
    return *ft <= 0x7FFFFFFFFFFFFFFFull;
}

uint64_t os_counter() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t) ts.tv_sec * 1000000000ull + (uint64_t) ts.tv_nsec;
}

uint64_t os_counter_frequency() {
    return 1000000000ull;
}

uint32_t os_tick_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint32_t) ((uint64_t) ts.tv_sec * 1000u + (uint64_t) ts.tv_nsec / 1000000u);
}
