// Date literals. Every form ends in a start and an end FILETIME; the calendar work is done on local
// broken-down fields and converted once, so that the daylight saving rule of the date itself applies.
#include "db_query/literal.h"

#include "mem/mem.h"
#include "text/text.h"

static bool _is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Up to max decimal digits, saturating far above any calendar value so that fields stay in int range.
static int64_t _digits(const char **cursor, int max) {
    const char *p = *cursor;
    int64_t v = 0;
    for (int i = 0; i < max && _is_digit(*p); i++, p++) {
        if (v < 1000000000) {
            v = v * 10 + (*p - '0');
        }
    }
    *cursor = p;
    return v;
}

static int _clamp_field(int64_t v) {
    return v > 1000000000 ? 1000000000 : (int) v;
}

void date_now_fields(os_systemtime_t *out) {
    if (!os_filetime_to_local(os_filetime_now(), out)) {
        *out = os_systemtime_t{1601, 1, 1, 1, 0, 0, 0, 0};
    }
}

uint64_t systemtime_to_filetime(const os_systemtime_t *st) {
    // The platform's own conversion normalises some impossible fields (Linux mktime carries 30 February
    // into March); the system refuses them, so they are refused here before it is asked.
    uint64_t utc;
    os_systemtime_t check = *st;
    check.day_of_week = 0;
    if (!os_system_to_filetime(&check, &utc)) {
        return 0;
    }
    uint64_t ft;
    if (!os_local_to_filetime(st, &ft)) {
        return 0;
    }
    return ft;
}

uint64_t date_to_filetime(int year, int month, int day) {
    if (year >= 30828) {
        return 0;
    }
    os_systemtime_t st = {year, month, 0, day, 0, 0, 0, 0};
    return systemtime_to_filetime(&st);
}

void date_add_months(os_systemtime_t *fields, int64_t month) {
    int64_t m = month - 1;
    int64_t years = m >= 0 ? m / 12 : -((11 - m) / 12);
    int64_t y = fields->year + years;
    fields->month = (int) (m - years * 12 + 1);
    fields->year = y < -1000000000 ? -1000000000 : y > 1000000000 ? 1000000000 : (int) y;
    // A month from the 31st (or from 29 February a year on) lands on the last day of the shorter month,
    // as the calendar reads "a month ago", instead of a day that doesn't exist.
    int last = os_days_in_month(fields->year, fields->month);
    if (fields->day > last) {
        fields->day = last;
    }
}

int date_two_digit_year_max() {
    str_t s;
    str_init(&s);
    os_locale_get(OS_LOCALE_TWO_DIGIT_YEAR_MAX, &s);
    const char *p = s.ptr;
    int64_t year = _digits(&p, 6);
    bool whole = p != s.ptr && *p == 0;
    str_kill(&s);
    // A limit below 99 would push every two-digit year below year 0; such an answer, or none, is taken as
    // the platform default.
    return whole && year >= 99 ? (int) year : DATE_TWO_DIGIT_YEAR_DEFAULT;
}

void date_fix_two_digit_year(os_systemtime_t *fields) {
    if (fields->year >= 100) {
        return;
    }
    os_systemtime_t now;
    date_now_fields(&now);
    fields->year += now.year - now.year % 100;
    if (fields->year > date_two_digit_year_max()) {
        fields->year -= 100;
    }
}

// Calendar day arithmetic on year, month and day, through the zone-free conversion. False when the result
// leaves the calendar.
static bool _add_days(os_systemtime_t *f, int64_t days) {
    os_systemtime_t st = {f->year, f->month, 0, f->day, 0, 0, 0, 0};
    uint64_t ft;
    if (!os_system_to_filetime(&st, &ft)) {
        return false;
    }
    int64_t delta = days * (int64_t) DATE_DAY;
    if ((delta < 0 && (uint64_t) -delta > ft) || (delta > 0 && ft + (uint64_t) delta < ft)) {
        return false;
    }
    if (!os_filetime_to_system(ft + (uint64_t) delta, &st)) {
        return false;
    }
    f->year = st.year, f->month = st.month, f->day = st.day, f->day_of_week = st.day_of_week;
    return true;
}

// A range from start to the instant before next. An impossible start selects nothing; an impossible end
// (past the calendar's last year) leaves the top open.
static void _span(db_range64_t *r, uint64_t start, uint64_t next) {
    if (!start) {
        r->low = r->high = 0;
        return;
    }
    r->low = start;
    r->high = next > start ? next - 1 : DB_OPEN_HIGH;
}

// A whole local day, to the instant before the next local midnight, so that the 23- and 25-hour days of
// daylight saving changes count whole too.
static void _whole_day(db_range64_t *r, os_systemtime_t f, bool ok) {
    uint64_t start = ok ? date_to_filetime(f.year, f.month, f.day) : 0;
    ok = ok && _add_days(&f, 1);
    _span(r, start, ok ? date_to_filetime(f.year, f.month, f.day) : 0);
}

static void _whole_month(db_range64_t *r, int year, int64_t month) {
    os_systemtime_t f = {year, 1, 0, 1, 0, 0, 0, 0};
    date_add_months(&f, month);
    uint64_t start = date_to_filetime(f.year, f.month, 1);
    date_add_months(&f, f.month + 1);
    _span(r, start, date_to_filetime(f.year, f.month, 1));
}

// A month as written in a literal. Only the words move months across a year's end; a written month
// outside 1..12 names no month at all and selects nothing.
static void _written_month(db_range64_t *r, int year, int month) {
    if (month < 1 || month > 12) {
        r->low = r->high = 0;
        return;
    }
    _whole_month(r, year, month);
}

static void _whole_year(db_range64_t *r, int year) {
    _span(r, date_to_filetime(year, 1, 1), date_to_filetime(year + 1, 1, 1));
}

static void _today_offset(db_range64_t *r, int days) {
    os_systemtime_t f;
    date_now_fields(&f);
    bool ok = _add_days(&f, days);
    _whole_day(r, f, ok);
}

// The first day of the week from the locale: '0'..'6' mean Monday..Sunday, anything else Sunday.
static int _first_day_of_week() {
    str_t s;
    str_init(&s);
    os_locale_get(OS_LOCALE_FIRST_DAY_OF_WEEK, &s);
    int first = 0;
    if (s.len >= 1 && s.ptr[0] >= '0' && s.ptr[0] <= '6') {
        first = (s.ptr[0] - '0' + 1) % 7;
    }
    str_kill(&s);
    return first;
}

// The locale's date order: 0 month-day-year, 1 day-month-year, 2 year-month-day; -1 when unknown.
static int _date_order() {
    str_t s;
    str_init(&s);
    os_locale_get(OS_LOCALE_DATE_ORDER, &s);
    int order = s.len >= 1 && s.ptr[0] >= '0' && s.ptr[0] <= '2' ? s.ptr[0] - '0' : -1;
    str_kill(&s);
    return order;
}

// "N units" behind a direction word. Seconds to weeks move by ticks from now, months and years by the
// calendar. Past directions open the range to the future; the coming direction ends it n units ahead.
static bool _direction_count(const char **cursor, int d, db_range64_t *r) {
    const char *p = *cursor;
    int64_t n = _digits(&p, 19);
    p = text_skip_space(p);
    static const struct {
        const char *word;
        uint64_t ticks;
        int months;
    } units[] = {{"seconds", DATE_SECOND, 0},
                 {"secs", DATE_SECOND, 0},
                 {"minutes", DATE_MINUTE, 0},
                 {"mins", DATE_MINUTE, 0},
                 {"hours", DATE_HOUR, 0},
                 {"weeks", DATE_WEEK, 0},
                 {"months", 0, 1},
                 {"years", 0, 12},
                 {"days", DATE_DAY, 0}};
    for (const auto &u : units) {
        if (!text_skip_prefix_nocase(&p, u.word)) {
            continue;
        }
        uint64_t now = os_filetime_now();
        uint64_t then;
        if (u.months) {
            // The fields of this same now, and the ticks below their milliseconds added back, so that
            // the time of day is kept exactly ("next 0 months" is now).
            os_systemtime_t f;
            then = 0;
            if (os_filetime_to_local(now, &f)) {
                date_add_months(&f, f.month + (d > 0 ? n : -n) * u.months);
                then = systemtime_to_filetime(&f);
                then = then ? then + now % DATE_MILLI : 0;
            }
            // Past the calendar's last year a coming range is open to the top, as one counted in ticks
            // is; before its first year a past range starts at 0, as it does in ticks.
            if (!then && d > 0) {
                then = DB_OPEN_HIGH;
            }
        } else if (d > 0) {
            uint64_t span = (uint64_t) n * u.ticks;
            then = (uint64_t) n > DB_OPEN_HIGH / u.ticks || span > DB_OPEN_HIGH - now ? DB_OPEN_HIGH
                                                                                      : now + span;
        } else {
            uint64_t span = (uint64_t) n * u.ticks;
            then = (uint64_t) n > now / u.ticks || span > now ? 0 : now - span;
        }
        if (d > 0) {
            r->low = now, r->high = then;
        } else {
            r->low = then, r->high = DB_OPEN_HIGH;
        }
        *cursor = p;
        return true;
    }
    // An unknown unit: the caller goes on to the names with the direction kept.
    *cursor = p;
    return false;
}

// "week", "month" or "year" behind a direction word.
static bool _direction_period(const char **cursor, int d, db_range64_t *r) {
    os_systemtime_t now;
    date_now_fields(&now);
    if (text_skip_prefix_nocase(cursor, "week")) {
        int offset = now.day_of_week - _first_day_of_week();
        if (offset < 0) {
            offset += 7;
        }
        os_systemtime_t f = now;
        uint64_t start = _add_days(&f, 7 * d - offset) ? date_to_filetime(f.year, f.month, f.day) : 0;
        uint64_t next = start && _add_days(&f, 7) ? date_to_filetime(f.year, f.month, f.day) : 0;
        _span(r, start, next);
        return true;
    }
    if (text_skip_prefix_nocase(cursor, "month")) {
        _whole_month(r, now.year, now.month + d);
        return true;
    }
    if (text_skip_prefix_nocase(cursor, "year")) {
        _whole_year(r, now.year + d);
        return true;
    }
    return false;
}

static const char *const month_names[] = {
    "january",   "february", "march",    "april",    "may", "june", "july", "august",
    "september", "october",  "november", "december", "jan", "feb",  "mar",  "apr",
    "may",       "jun",      "jul",      "aug",      "sep", "oct",  "nov",  "dec"};
static const char *const day_names[] = {"sunday", "monday",   "tuesday", "wednesday", "thursday",
                                        "friday", "saturday", "sun",     "mon",       "tue",
                                        "wed",    "thu",      "fri",     "sat"};

// Month and weekday names. Weeks here always start on Sunday, whatever the locale says.
static bool _names(const char **cursor, int d, db_range64_t *r) {
    os_systemtime_t now;
    date_now_fields(&now);
    for (int i = 0; i < 24; i++) {
        if (text_skip_prefix_nocase(cursor, month_names[i])) {
            _whole_month(r, now.year + d, i % 12 + 1);
            return true;
        }
    }
    for (int i = 0; i < 14; i++) {
        if (text_skip_prefix_nocase(cursor, day_names[i])) {
            os_systemtime_t f = now;
            bool ok = _add_days(&f, i % 7 - now.day_of_week + 7 * d);
            _whole_day(r, f, ok);
            return true;
        }
    }
    return false;
}

// The words: today and its neighbours, unknown, then a direction with what follows it, then names.
static bool _words(const char **cursor, db_range64_t *r) {
    if (text_skip_prefix_nocase(cursor, "today")) {
        _today_offset(r, 0);
        return true;
    }
    if (text_skip_prefix_nocase(cursor, "yesterday")) {
        _today_offset(r, -1);
        return true;
    }
    if (text_skip_prefix_nocase(cursor, "tomorrow")) {
        _today_offset(r, 1);
        return true;
    }
    if (text_skip_prefix_nocase(cursor, "unknown")) {
        r->low = r->high = DB_UNKNOWN_64;
        return true;
    }
    static const struct {
        const char *word;
        int d;
    } directions[] = {{"prev", -1},  {"last", -1}, {"past", -1},  {"next", 1},
                      {"coming", 1}, {"this", 0},  {"current", 0}};
    int d = 0;
    bool direction = false;
    for (const auto &w : directions) {
        if (text_skip_prefix_nocase(cursor, w.word)) {
            d = w.d, direction = true;
            break;
        }
    }
    if (direction) {
        *cursor = text_skip_space(*cursor);
        if (_is_digit(**cursor)) {
            if (_direction_count(cursor, d, r)) {
                return true;
            }
        } else if (_direction_period(cursor, d, r)) {
            return true;
        }
    }
    if (_names(cursor, d, r)) {
        return true;
    }
    if (direction) {
        r->low = r->high = 0;
        return true;
    }
    return false;
}

// A time of day behind 't' or 'T': hour, then minute and second each behind an optional ':', then a
// millisecond count behind '.' (but not ".."), each part at most two (three) digits. Returns the step of
// the finest part written, or 0 when no time stands there. require_t: the 't' must be written.
static uint64_t _time(const char **cursor, os_systemtime_t *f, bool require_t) {
    const char *p = *cursor;
    if (*p == 't' || *p == 'T') {
        p++;
    } else if (require_t) {
        return 0;
    }
    if (!_is_digit(*p)) {
        return 0;
    }
    f->hour = _clamp_field(_digits(&p, 2));
    uint64_t step = DATE_HOUR;
    const char *q = p + (*p == ':');
    if (_is_digit(*q)) {
        p = q, f->minute = _clamp_field(_digits(&p, 2)), step = DATE_MINUTE;
        q = p + (*p == ':');
        if (_is_digit(*q)) {
            p = q, f->second = _clamp_field(_digits(&p, 2)), step = DATE_SECOND;
            if (p[0] == '.' && _is_digit(p[1])) {
                p++;
                f->milliseconds = _clamp_field(_digits(&p, 3)), step = DATE_MILLI;
            }
        }
    }
    *cursor = p;
    return step;
}

// From the instant the fields give to the instant before the next step. A whole day ends at the next
// local midnight, as the words do.
static void _instant(db_range64_t *r, const os_systemtime_t *f, uint64_t step) {
    if (step == DATE_DAY) {
        os_systemtime_t day = *f;
        bool ok = day.year < 30828;
        _whole_day(r, day, ok);
        return;
    }
    uint64_t start = systemtime_to_filetime(f);
    _span(r, start, start ? start + step : 0);
}

// The ISO form with dashes: a first number of at least 100, '-', and a month below 13.
static bool _iso_ahead(const char *p) {
    if (!_is_digit(*p) || _digits(&p, 19) < 100 || *p != '-' || !_is_digit(p[1])) {
        return false;
    }
    p++;
    return _digits(&p, 19) < 13;
}

static void _iso(const char **cursor, db_range64_t *r) {
    const char *p = *cursor;
    os_systemtime_t f = {_clamp_field(_digits(&p, 19)), 1, 0, 1, 0, 0, 0, 0};
    if (*p == '-') {
        p++;
    }
    if (!_is_digit(*p)) {
        _whole_year(r, f.year);
    } else {
        f.month = _clamp_field(_digits(&p, 19));
        if (p[0] != '-' || !_is_digit(p[1])) {
            _written_month(r, f.year, f.month);
        } else {
            p++;
            f.day = _clamp_field(_digits(&p, 19));
            uint64_t step = _time(&p, &f, true);
            _instant(r, &f, step ? step : DATE_DAY);
        }
    }
    *cursor = p;
}

// Six or more digits in a row: YYYYMM[DD[[T]hh[[:]mm[[:]ss[.mmm]]]]].
static bool _compact(const char **cursor, db_range64_t *r) {
    const char *p = *cursor;
    int run = 0;
    while (_is_digit(p[run])) {
        run++;
    }
    if (run < 6) {
        return false;
    }
    os_systemtime_t f = {(int) _digits(&p, 4), (int) _digits(&p, 2), 0, 1, 0, 0, 0, 0};
    if (_is_digit(p[0]) && _is_digit(p[1])) {
        f.day = (int) _digits(&p, 2);
        uint64_t step = _time(&p, &f, false);
        _instant(r, &f, step ? step : DATE_DAY);
    } else {
        _written_month(r, f.year, f.month);
    }
    *cursor = p;
    return true;
}

// The locale's numeric form: up to three numbers separated by '/', '.' (not "..") or, with date dashes,
// '-'. The locale's date order decides which number is which.
static void _locale_numbers(const char **cursor, db_range64_t *r, bool date_dashes) {
    const char *p = *cursor;
    int64_t n[3];
    int count = 0;
    while (count < 3 && _is_digit(*p)) {
        n[count++] = _digits(&p, 19);
        bool sep = *p == '/' || (*p == '.' && p[1] != '.') || (date_dashes && *p == '-');
        if (count == 3 || !sep || !_is_digit(p[1])) {
            break;
        }
        p++;
    }
    int order = _date_order();
    os_systemtime_t f = {0, 1, 0, 1, 0, 0, 0, 0};
    if (count == 0) {
        r->low = r->high = 0;
    } else if (count == 1) {
        f.year = _clamp_field(n[0]);
        date_fix_two_digit_year(&f);
        _whole_year(r, f.year);
    } else if (count == 2) {
        f.year = _clamp_field(order == 2 ? n[0] : n[1]);
        f.month = _clamp_field(order == 2 ? n[1] : n[0]);
        date_fix_two_digit_year(&f);
        _written_month(r, f.year, f.month);
    } else {
        // Positions of year, month and day: month-day-year, day-month-year, year-month-day. A locale that
        // gives no order reads day first.
        static const int positions[3][3] = {{2, 0, 1}, {2, 1, 0}, {0, 1, 2}};
        const int *at = positions[order < 0 ? 1 : order];
        f.year = _clamp_field(n[at[0]]), f.month = _clamp_field(n[at[1]]), f.day = _clamp_field(n[at[2]]);
        date_fix_two_digit_year(&f);
        uint64_t step = _time(&p, &f, true);
        _instant(r, &f, step ? step : DATE_DAY);
    }
    *cursor = p;
}

// One literal without its range part. Sets *iso when the literal had an ISO form.
static void _date_single(const char **cursor, db_range64_t *r, bool allow_range, bool *iso) {
    *iso = false;
    if (!**cursor) {
        r->low = 0, r->high = DB_OPEN_HIGH;
        return;
    }
    if (_words(cursor, r)) {
        return;
    }
    if (_iso_ahead(*cursor)) {
        _iso(cursor, r);
        *iso = true;
        return;
    }
    if (_compact(cursor, r)) {
        *iso = true;
        return;
    }
    // With a range allowed, one '-' separates two dates and two of them separate the fields of one.
    bool date_dashes = true;
    if (allow_range) {
        int dashes = 0;
        for (const char *p = *cursor; *p; p++) {
            dashes += *p == '-';
        }
        date_dashes = dashes >= 2;
    }
    _locale_numbers(cursor, r, date_dashes);
}

void date_literal_parse(const char **cursor, db_range64_t *range, bool allow_range) {
    bool iso;
    _date_single(cursor, range, allow_range, &iso);
    if (!allow_range) {
        return;
    }
    if (text_skip_prefix(cursor, "..") || text_skip_prefix(cursor, "-") ||
        (iso && text_skip_prefix(cursor, "/"))) {
        db_range64_t second;
        _date_single(cursor, &second, false, &iso);
        range->high = second.high;
    }
}
