// The date columns of a list. Lists come from other programs as often as from this one, so the reader
// takes what it can and never refuses a row: a date that stops early is read as far as it goes.
#include "filelist/date.h"

#include "os/os.h"

static bool _is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Exactly n digits into *out, moving *p past them; false, with nothing moved or stored, when fewer are
// there.
static bool _digits(const char **p, int n, int *out) {
    const char *s = *p;
    int v = 0;
    for (int i = 0; i < n; i++) {
        if (!_is_digit(s[i])) {
            return false;
        }
        v = v * 10 + (s[i] - '0');
    }
    *p = s + n;
    *out = v;
    return true;
}

static void _skip(const char **p, char c) {
    if (**p == c) {
        (*p)++;
    }
}

// The fields as local time, plus the fraction; 0 when the zone rules can't place them.
static uint64_t _local(const os_systemtime_t *st, uint64_t fraction) {
    uint64_t ft;
    return os_local_to_filetime(st, &ft) ? ft + fraction : 0;
}

// hh[:]mm[:]ss; false at the first component that isn't there.
static bool _time_of_day(const char **p, os_systemtime_t *st) {
    if (!_digits(p, 2, &st->hour)) {
        return false;
    }
    _skip(p, ':');
    if (!_digits(p, 2, &st->minute)) {
        return false;
    }
    _skip(p, ':');
    return _digits(p, 2, &st->second);
}

// Digits after the point, the first worth 1,000,000 ticks; each further one is worth a tenth of the one
// before, so from the eighth on they add nothing.
static uint64_t _fraction(const char **p) {
    uint64_t fraction = 0, weight = 1000000;
    for (; _is_digit(**p); (*p)++) {
        fraction += (uint64_t) (**p - '0') * weight;
        weight /= 10;
    }
    return fraction;
}

// The zone after the time: 'Z', or a sign with hh, hhmm or hh:mm; minutes east of UTC into *east. False
// when there is no zone mark.
static bool _zone(const char **p, int64_t *east) {
    char c = **p;
    *east = 0;
    if (c == 'Z' || c == 'z') {
        return true;
    }
    if (c != '+' && c != '-') {
        return false;
    }
    (*p)++;
    int hours = 0, minutes = 0;
    if (_digits(p, 2, &hours)) {
        _skip(p, ':');
        _digits(p, 2, &minutes);
    }
    *east = (c == '+' ? 1 : -1) * (int64_t) (hours * 60 + minutes);
    return true;
}

static uint64_t _iso(const char *s) {
    os_systemtime_t st = {};
    if (!_digits(&s, 4, &st.year)) {
        return _local(&st, 0);
    }
    _skip(&s, '-');
    if (!_digits(&s, 2, &st.month)) {
        return _local(&st, 0);
    }
    _skip(&s, '-');
    if (!_digits(&s, 2, &st.day) || (*s != 'T' && *s != 't')) {
        return _local(&st, 0);
    }
    s++;
    if (!_time_of_day(&s, &st)) {
        return _local(&st, 0);
    }
    uint64_t fraction = 0;
    if (*s == '.') {
        s++;
        fraction = _fraction(&s);
    }
    int64_t east;
    if (!_zone(&s, &east)) {
        return _local(&st, fraction);
    }
    uint64_t ft;
    if (!os_system_to_filetime(&st, &ft)) {
        return 0;
    }
    // A time ahead of UTC happened that much earlier. The arithmetic is unsigned, as for any FILETIME: a
    // zone that pushes the first hours of 1601 below zero wraps.
    return ft + fraction - (uint64_t) east * 600000000u;
}

uint64_t filelist_parse_date(const char *field) {
    if (!field || !field[0]) {
        return UINT64_MAX;
    }
    const char *s = field;
    uint64_t v = 0;
    for (; _is_digit(*s); s++) {
        v = v * 10 + (uint64_t) (*s - '0');
    }
    if (*s != '-' && *s != 't' && *s != 'T') {
        return v;
    }
    return _iso(field);
}
