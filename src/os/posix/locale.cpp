// Locale values on Linux. The C library's locale has no equivalent of most of these pictures, so the
// program uses one fixed, self-consistent set (day-month-year, 24-hour clock, week from Monday); tests and
// a later settings page replace them through os_hooks.
#include "mem/mem.h"
#include "os/os_internal.h"

void os_real_locale_get(os_locale_id_t id, str_t *out) {
    static const char *const values[OS_LOCALE_COUNT] = {
        "/",          // date separator
        ":",          // time separator
        "dd/MM/yyyy", // short date
        "HH:mm:ss",   // time format
        ".",          // decimal
        ",",          // thousand
        "0",          // first day of week: Monday
        "1",          // date order: day, month, year
    };
    str_set(out, (int) id >= 0 && id < OS_LOCALE_COUNT ? values[id] : "");
}
