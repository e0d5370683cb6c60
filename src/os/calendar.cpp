// FILETIME <-> broken-down UTC time in plain integer arithmetic, with the range and field rules of
// FileTimeToSystemTime and SystemTimeToFileTime. Both platforms use this code, so that a date written on
// one reads back identically on the other.
#include "os/os_internal.h"

// Largest FILETIME the conversions accept: the sign bit must be clear.
#define OS_FILETIME_MAX 0x7FFFFFFFFFFFFFFFull

static bool _os_is_leap(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int os_days_in_month(int year, int month) {
    static const int days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month == 2 && _os_is_leap(year)) {
        return 29;
    }
    return days[month - 1];
}

bool os_systemtime_valid(const os_systemtime_t *st) {
    if (st->year < 1601 || st->year > 30827 || st->month < 1 || st->month > 12) {
        return false;
    }
    if (st->day < 1 || st->day > os_days_in_month(st->year, st->month)) {
        return false;
    }
    return st->hour >= 0 && st->hour < 24 && st->minute >= 0 && st->minute < 60 && st->second >= 0 &&
           st->second < 60 && st->milliseconds >= 0 && st->milliseconds < 1000;
}

// The era-based day count (400-year cycles of 146,097 days, years starting in March so that the leap day
// is last), shifted so that 1601-01-01 is day 0. 1601 starts a 400-year cycle, which keeps every value
// non-negative for the years FILETIME can hold.
int64_t os_days_from_civil(int year, int month, int day) {
    int64_t y = year - (month <= 2 ? 1 : 0) - 1600;
    int64_t era = y / 400;
    int64_t yoe = y - era * 400;
    int64_t mp = (month + 9) % 12;
    int64_t doy = (153 * mp + 2) / 5 + day - 1;
    int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    // Day 0 of this count is 1600-03-01; 1601-01-01 is 306 days later.
    return era * 146097 + doe - 306;
}

void os_civil_from_days(int64_t days, int *year, int *month, int *day) {
    int64_t z = days + 306;
    int64_t era = z / 146097;
    int64_t doe = z - era * 146097;
    int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    int64_t mp = (5 * doy + 2) / 153;
    int64_t d = doy - (153 * mp + 2) / 5 + 1;
    int64_t m = mp < 10 ? mp + 3 : mp - 9;
    *year = (int) (yoe + era * 400 + 1600 + (m <= 2 ? 1 : 0));
    *month = (int) m;
    *day = (int) d;
}

bool os_filetime_to_system(uint64_t ft, os_systemtime_t *out) {
    if (ft > OS_FILETIME_MAX) {
        return false;
    }
    uint64_t ms_total = ft / 10000;
    uint64_t days = ms_total / 86400000ull;
    uint64_t ms_of_day = ms_total % 86400000ull;
    os_civil_from_days((int64_t) days, &out->year, &out->month, &out->day);
    // 1601-01-01 was a Monday; SYSTEMTIME counts Sunday as 0.
    out->day_of_week = (int) ((days + 1) % 7);
    out->hour = (int) (ms_of_day / 3600000);
    out->minute = (int) (ms_of_day / 60000 % 60);
    out->second = (int) (ms_of_day / 1000 % 60);
    out->milliseconds = (int) (ms_of_day % 1000);
    return true;
}

bool os_system_to_filetime(const os_systemtime_t *st, uint64_t *ft) {
    if (!os_systemtime_valid(st)) {
        return false;
    }
    uint64_t days = (uint64_t) os_days_from_civil(st->year, st->month, st->day);
    uint64_t ms =
        ((days * 24 + st->hour) * 60 + st->minute) * 60000ull + st->second * 1000ull + st->milliseconds;
    *ft = ms * 10000;
    return true;
}
