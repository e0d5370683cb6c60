// A fixed clock and a fixed Central European zone for the query tests: UTC+1, and UTC+2 from the last
// Sunday of March 01:00 UTC to the last Sunday of October 01:00 UTC. Installed through os_hooks, so the
// same rules hold on Linux and under Wine whatever the machine's own zone is.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "mem/mem.h"
#include "os/os.h"

namespace test_clock {

inline uint64_t now_value;
inline const char *first_day = "0";
inline const char *date_order = "1";
inline const char *two_digit_year_max = "2049";

inline uint64_t utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    os_systemtime_t st = {y, mo, 0, d, h, mi, s, 0};
    uint64_t ft = 0;
    os_system_to_filetime(&st, &ft);
    return ft;
}

inline uint64_t last_sunday_1am(int year, int month) {
    for (int day = 31; day > 20; day--) {
        os_systemtime_t st = {year, month, 0, day, 1, 0, 0, 0};
        uint64_t ft;
        if (!os_system_to_filetime(&st, &ft)) {
            continue;
        }
        os_filetime_to_system(ft, &st);
        if (st.day_of_week == 0) {
            return ft;
        }
    }
    return 0;
}

inline bool is_summer(uint64_t ft) {
    os_systemtime_t st;
    if (!os_filetime_to_system(ft, &st)) {
        return false;
    }
    return ft >= last_sunday_1am(st.year, 3) && ft < last_sunday_1am(st.year, 10);
}

inline uint64_t offset(uint64_t utc_ft) {
    return (is_summer(utc_ft) ? 2 : 1) * 36000000000ull;
}

inline bool to_local(uint64_t ft, os_systemtime_t *out) {
    return os_filetime_to_system(ft + offset(ft), out);
}

// A local time in the spring gap is read as winter time; in the autumn overlap the summer time wins.
inline bool from_local(const os_systemtime_t *local, uint64_t *ft) {
    uint64_t wall;
    if (!os_system_to_filetime(local, &wall)) {
        return false;
    }
    uint64_t summer = wall - 2 * 36000000000ull;
    *ft = is_summer(summer) ? summer : wall - 36000000000ull;
    return true;
}

inline uint64_t fixed_now() {
    return now_value;
}

inline void locale(os_locale_id_t id, str_t *out) {
    if (id == OS_LOCALE_FIRST_DAY_OF_WEEK) {
        str_set(out, first_day);
    } else if (id == OS_LOCALE_DATE_ORDER) {
        str_set(out, date_order);
    } else if (id == OS_LOCALE_TWO_DIGIT_YEAR_MAX) {
        str_set(out, two_digit_year_max);
    } else {
        str_set(out, "");
    }
}

inline void install(uint64_t now) {
    now_value = now;
    first_day = "0";
    date_order = "1";
    two_digit_year_max = "2049";
    os_hooks.filetime_now = fixed_now;
    os_hooks.filetime_to_local = to_local;
    os_hooks.local_to_filetime = from_local;
    os_hooks.locale_get = locale;
}

} // namespace test_clock
