// Locale values on Windows, from the user's regional settings (or a named locale's). A value the system
// can't give falls back to Windows' own defaults for English (United States); AM and PM stay empty when
// the locale has none, since that is what a 24-hour clock means. The date order stays empty too: the
// date parser has its own rule for a locale that gives none.
#include "os/os_internal.h"
#include "os/win32/wide.h"

static const char *_fallback(os_locale_id_t id) {
    static const char *const values[] = {"/", ":", "M/d/yyyy", "h:mm:ss tt", ".",   ",",
                                         "6", "",  "",         "",           "2049"};
    return (int) id < (int) (sizeof values / sizeof values[0]) ? values[id] : "";
}

// The LCTYPE of an id, or 0 for the two-digit-year limit, which is a calendar value.
static LCTYPE _lctype(os_locale_id_t id) {
    static const LCTYPE types[] = {
        LOCALE_SDATE,
        LOCALE_STIME,
        LOCALE_SSHORTDATE,
        LOCALE_STIMEFORMAT,
        LOCALE_SDECIMAL,
        LOCALE_STHOUSAND,
        LOCALE_IFIRSTDAYOFWEEK,
        LOCALE_IDATE,
        LOCALE_S1159,
        LOCALE_S2359,
        0,
    };
    int i = (int) id;
    if (i < OS_LOCALE_MONTH_NAME) {
        return types[i];
    }
    // The names are numbered from January and from Monday in each of these runs.
    if (i < OS_LOCALE_MONTH_ABBREV) {
        return LOCALE_SMONTHNAME1 + (LCTYPE) (i - OS_LOCALE_MONTH_NAME);
    }
    if (i < OS_LOCALE_DAY_NAME) {
        return LOCALE_SABBREVMONTHNAME1 + (LCTYPE) (i - OS_LOCALE_MONTH_ABBREV);
    }
    if (i < OS_LOCALE_DAY_ABBREV) {
        return LOCALE_SDAYNAME1 + (LCTYPE) (i - OS_LOCALE_DAY_NAME);
    }
    return LOCALE_SABBREVDAYNAME1 + (LCTYPE) (i - OS_LOCALE_DAY_ABBREV);
}

// One locale query, either for the user default (name null) or for a named locale.
static int _info(const wchar_t *name, LCTYPE type, wchar_t *buf, int cap) {
    return name ? GetLocaleInfoEx(name, type, buf, cap) : GetLocaleInfoW(LOCALE_USER_DEFAULT, type, buf, cap);
}

// The calendar's two-digit-year limit: the locale's own calendar type first, then Gregorian.
static bool _two_digit_year_max(const wchar_t *name, str_t *out) {
    DWORD calendar = CAL_GREGORIAN;
    wchar_t buf[16];
    if (_info(name, LOCALE_ICALENDARTYPE, buf, 16) > 1) {
        calendar = (DWORD) _wtoi(buf);
    }
    DWORD year = 0;
    CALTYPE type = CAL_ITWODIGITYEARMAX | CAL_RETURN_NUMBER;
    int ok = name ? GetCalendarInfoEx(name, calendar, nullptr, type, nullptr, 0, &year)
                  : GetCalendarInfoW(LOCALE_USER_DEFAULT, calendar, type, nullptr, 0, &year);
    if (!ok && calendar != CAL_GREGORIAN) {
        ok = name ? GetCalendarInfoEx(name, CAL_GREGORIAN, nullptr, type, nullptr, 0, &year)
                  : GetCalendarInfoW(LOCALE_USER_DEFAULT, CAL_GREGORIAN, type, nullptr, 0, &year);
    }
    // A limit outside the years that two digits can sensibly mean is taken as no answer.
    if (!ok || year < 99 || year > 9999) {
        return false;
    }
    str_printf(out, "%u", (unsigned) year);
    return true;
}

static void _value(const wchar_t *name, os_locale_id_t id, str_t *out) {
    if ((int) id < 0 || id >= OS_LOCALE_COUNT) {
        str_set(out, "");
        return;
    }
    if (id == OS_LOCALE_TWO_DIGIT_YEAR_MAX) {
        if (!_two_digit_year_max(name, out)) {
            str_set(out, _fallback(id));
        }
        return;
    }
    wchar_t buf[128];
    int n = _info(name, _lctype(id), buf, 128);
    if (n <= 1 && id != OS_LOCALE_AM && id != OS_LOCALE_PM) {
        str_set(out, _fallback(id));
        return;
    }
    // n counts the terminator.
    os_utf8_from_wide(out, buf, n > 0 ? n - 1 : 0);
}

void os_real_locale_get(os_locale_id_t id, str_t *out) {
    _value(nullptr, id, out);
}

bool os_locale_get_named(const char *name, os_locale_id_t id, str_t *out) {
    str_set(out, "");
    os_wide_t w;
    os_wide_init(&w, name ? name : "");
    // A locale the system doesn't know gives no answer even for its name.
    wchar_t probe[LOCALE_NAME_MAX_LENGTH];
    bool known = w.len > 0 && GetLocaleInfoEx(w.ptr, LOCALE_SNAME, probe, LOCALE_NAME_MAX_LENGTH) > 1;
    if (known) {
        _value(w.ptr, id, out);
    }
    os_wide_kill(&w);
    return known;
}
