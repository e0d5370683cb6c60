// Locale values on Windows, from the user's regional settings. A value the system can't give falls back
// to the same fixed set that Linux uses.
#include "os/os_internal.h"
#include "os/win32/wide.h"

void os_real_locale_get(os_locale_id_t id, str_t *out) {
    static const LCTYPE types[OS_LOCALE_COUNT] = {
        LOCALE_SDATE,    LOCALE_STIME,     LOCALE_SSHORTDATE,      LOCALE_STIMEFORMAT,
        LOCALE_SDECIMAL, LOCALE_STHOUSAND, LOCALE_IFIRSTDAYOFWEEK, LOCALE_IDATE,
    };
    static const char *const fallback[OS_LOCALE_COUNT] = {"/", ":", "dd/MM/yyyy", "HH:mm:ss",
                                                          ".", ",", "0",          "1"};
    if ((int) id < 0 || id >= OS_LOCALE_COUNT) {
        str_set(out, "");
        return;
    }
    wchar_t buf[128];
    int n = GetLocaleInfoW(LOCALE_USER_DEFAULT, types[id], buf, 128);
    if (n <= 1) {
        str_set(out, fallback[id]);
        return;
    }
    // n counts the terminator.
    os_utf8_from_wide(out, buf, n - 1);
}
