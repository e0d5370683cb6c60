// Clocks and the local time zone on Windows, through the system's own zone rules.
#include "os/os_internal.h"

#include <windows.h>

static void _os_from_systemtime(const SYSTEMTIME *st, os_systemtime_t *out) {
    out->year = st->wYear;
    out->month = st->wMonth;
    out->day_of_week = st->wDayOfWeek;
    out->day = st->wDay;
    out->hour = st->wHour;
    out->minute = st->wMinute;
    out->second = st->wSecond;
    out->milliseconds = st->wMilliseconds;
}

static void _os_to_systemtime(const os_systemtime_t *in, SYSTEMTIME *st) {
    st->wYear = (WORD) in->year;
    st->wMonth = (WORD) in->month;
    st->wDayOfWeek = (WORD) in->day_of_week;
    st->wDay = (WORD) in->day;
    st->wHour = (WORD) in->hour;
    st->wMinute = (WORD) in->minute;
    st->wSecond = (WORD) in->second;
    st->wMilliseconds = (WORD) in->milliseconds;
}

uint64_t os_real_filetime_now() {
    FILETIME ft;
    GetSystemTimePreciseAsFileTime(&ft);
    return ((uint64_t) ft.dwHighDateTime << 32) | ft.dwLowDateTime;
}

bool os_real_filetime_to_local(uint64_t ft, os_systemtime_t *out) {
    os_systemtime_t utc;
    if (!os_filetime_to_system(ft, &utc)) {
        return false;
    }
    SYSTEMTIME st, local;
    _os_to_systemtime(&utc, &st);
    if (!SystemTimeToTzSpecificLocalTime(nullptr, &st, &local)) {
        return false;
    }
    _os_from_systemtime(&local, out);
    return true;
}

bool os_real_local_to_filetime(const os_systemtime_t *local, uint64_t *ft) {
    // The field rules are checked first: the zone call would otherwise normalise some impossible dates.
    if (!os_systemtime_valid(local)) {
        return false;
    }
    SYSTEMTIME st, utc;
    _os_to_systemtime(local, &st);
    if (!TzSpecificLocalTimeToSystemTime(nullptr, &st, &utc)) {
        return false;
    }
    os_systemtime_t u;
    _os_from_systemtime(&utc, &u);
    return os_system_to_filetime(&u, ft);
}

uint64_t os_counter() {
    LARGE_INTEGER li;
    QueryPerformanceCounter(&li);
    return (uint64_t) li.QuadPart;
}

uint64_t os_counter_frequency() {
    LARGE_INTEGER li;
    if (!QueryPerformanceFrequency(&li) || li.QuadPart <= 0) {
        return 1;
    }
    return (uint64_t) li.QuadPart;
}

uint32_t os_tick_ms() {
    return GetTickCount();
}
