// Locale values on Linux, from the C library's locale data. The user's locale is opened once with
// newlocale(LC_ALL_MASK, "") — the environment rules of setlocale(LC_ALL, "") — and read with
// nl_langinfo_l, so the process's own C locale (which number parsing and printing rely on) never changes.
// strftime pictures are translated into the Windows pictures that the rest of the program reads.
#include "mem/mem.h"
#include "os/os_internal.h"

#include <errno.h>
#include <iconv.h>
#include <langinfo.h>
#include <locale.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

// What a value falls back to when the locale has none (the C locale has no thousands separator). A date
// order that can't be read stays empty: the date parser has its own rule for a locale without one, and
// an invented order would hide the failure from it.
static const char *_fallback(os_locale_id_t id) {
    switch (id) {
    case OS_LOCALE_DATE_SEPARATOR:
        return "/";
    case OS_LOCALE_TIME_SEPARATOR:
        return ":";
    case OS_LOCALE_SHORT_DATE:
        return "MM/dd/yy";
    case OS_LOCALE_TIME_FORMAT:
        return "HH:mm:ss";
    case OS_LOCALE_DECIMAL:
        return ".";
    case OS_LOCALE_THOUSAND:
        return ",";
    case OS_LOCALE_FIRST_DAY_OF_WEEK:
        return "6";
    case OS_LOCALE_TWO_DIGIT_YEAR_MAX:
        return "2049";
    default:
        return "";
    }
}

// ---- strftime pictures ---------------------------------------------------------------------------------

// One conversion of a strftime picture: what Windows writes for it, and which date field it is
// ('d', 'm', 'y', or 0 for a time field or none).
struct _conv_t {
    char c;
    const char *picture;
    char field;
};

static const _conv_t _convs[] = {
    {'d', "dd", 'd'},   {'e', "d", 'd'},    {'m', "MM", 'm'}, {'b', "MMM", 'm'},  {'h', "MMM", 'm'},
    {'B', "MMMM", 'm'}, {'Y', "yyyy", 'y'}, {'y', "yy", 'y'}, {'G', "yyyy", 'y'}, {'g', "yy", 'y'},
    {'a', "ddd", 0},    {'A', "dddd", 0},   {'H', "HH", 0},   {'k', "H", 0},      {'I', "hh", 0},
    {'l', "h", 0},      {'M', "mm", 0},     {'S', "ss", 0},   {'p', "tt", 0},     {'P', "tt", 0},
};

// Composite conversions, spelled out in their own strftime form. %r takes the locale's 12-hour picture.
static const char *_composite(char c, locale_t loc) {
    switch (c) {
    case 'D':
        return "%m/%d/%y";
    case 'F':
        return "%Y-%m-%d";
    case 'T':
        return "%H:%M:%S";
    case 'R':
        return "%H:%M";
    case 'r': {
        const char *r = nl_langinfo_l(T_FMT_AMPM, loc);
        return r && r[0] ? r : "%I:%M:%S %p";
    }
    case 'x':
        return nl_langinfo_l(D_FMT, loc);
    case 'X':
        return nl_langinfo_l(T_FMT, loc);
    default:
        return nullptr;
    }
}

// What a picture walk collects: the Windows picture, the date fields in order, and the first literal run
// between two fields (the separator).
struct _picture_t {
    str_t out;
    char fields[4];
    int field_count;
    str_t separator;
    bool separator_done;
    bool after_field;
    bool quoted;   // inside a quoted run of letters in out
    str_t pending; // literal text since the last field
};

// Letters of the text would read as picture codes: Windows quotes them, one quote around each run.
static void _close_quote(_picture_t *p) {
    if (p->quoted) {
        str_cat_char(&p->out, '\'');
        p->quoted = false;
    }
}

static void _literal(_picture_t *p, char c) {
    bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (letter && !p->quoted) {
        str_cat_char(&p->out, '\'');
        p->quoted = true;
    } else if (!letter) {
        _close_quote(p);
    }
    if (c == '\'') {
        str_cat_z(&p->out, "''");
    } else {
        str_cat_char(&p->out, c);
    }
    if (p->after_field && !p->separator_done && c != ' ') {
        str_cat_char(&p->pending, c);
    }
}

// no_pad: the "-" flag, which drops a leading zero: "dd" becomes "d", "HH" "H".
static void _field(_picture_t *p, const _conv_t *conv, bool no_pad) {
    _close_quote(p);
    const char *pic = conv->picture;
    bool pair = pic[0] && pic[1] == pic[0] && !pic[2];
    str_cat(&p->out, pic, no_pad && pair ? 1 : (int) strlen(pic));
    if (p->after_field && !p->separator_done && p->pending.len) {
        str_set_n(&p->separator, p->pending.ptr, p->pending.len);
        p->separator_done = true;
    }
    str_clear(&p->pending);
    p->after_field = true;
    if (conv->field && p->field_count < 3 && !memchr(p->fields, conv->field, (size_t) p->field_count)) {
        p->fields[p->field_count++] = conv->field;
    }
}

static void _walk(_picture_t *p, const char *fmt, locale_t loc, int depth) {
    for (const char *s = fmt; s && *s; s++) {
        if (*s != '%') {
            _literal(p, *s);
            continue;
        }
        s++;
        // Flags, widths and the E and O modifiers change digits or eras, not which field stands here;
        // only "-" (no padding) has a picture of its own.
        bool no_pad = false;
        while (*s == '_' || *s == '-' || *s == '0' || *s == '^' || *s == '#' || (*s >= '1' && *s <= '9') ||
               *s == 'E' || *s == 'O') {
            no_pad |= *s == '-';
            s++;
        }
        if (!*s) {
            return;
        }
        if (*s == '%') {
            _literal(p, '%');
        } else if (*s == 'n' || *s == 't') {
            _literal(p, ' ');
        } else if (const char *inner = _composite(*s, loc)) {
            if (depth < 4) {
                _walk(p, inner, loc, depth + 1);
            }
        } else {
            for (const _conv_t &c : _convs) {
                if (c.c == *s) {
                    _field(p, &c, no_pad);
                    break;
                }
            }
        }
    }
}

static void _picture(const char *fmt, locale_t loc, _picture_t *p) {
    str_init(&p->out);
    str_init(&p->separator);
    str_init(&p->pending);
    p->field_count = 0;
    p->separator_done = p->after_field = p->quoted = false;
    _walk(p, fmt, loc, 0);
    _close_quote(p);
    // A dropped conversion at the end (the zone of "%H.%M %z") leaves a blank behind.
    while (p->out.len && p->out.ptr[p->out.len - 1] == ' ') {
        p->out.ptr[--p->out.len] = 0;
    }
}

static void _picture_kill(_picture_t *p) {
    str_kill(&p->out);
    str_kill(&p->separator);
    str_kill(&p->pending);
}

// ---- values --------------------------------------------------------------------------------------------

// The week's first day: glibc names it as a day (first_weekday, 1-based) counted from the weekday of a
// reference date (week-1stday, as YYYYMMDD). Windows counts Monday 0 .. Sunday 6.
static void _first_day(locale_t loc, str_t *out) {
#ifdef __GLIBC__
    const char *fw = nl_langinfo_l(_NL_TIME_FIRST_WEEKDAY, loc);
    union {
        const char *string;
        unsigned int word;
    } first;
    first.string = nl_langinfo_l(_NL_TIME_WEEK_1STDAY, loc);
    unsigned int ymd = first.word;
    int year = (int) (ymd / 10000), month = (int) (ymd / 100 % 100), day = (int) (ymd % 100);
    os_systemtime_t st = {year, month, 0, day, 0, 0, 0, 0};
    if (fw && *fw >= 1 && *fw <= 7 && os_systemtime_valid(&st)) {
        // 1601-01-01 was a Monday.
        int monday_based = (int) (os_days_from_civil(year, month, day) % 7);
        char c = (char) ('0' + (monday_based + *fw - 1) % 7);
        str_set_n(out, &c, 1);
        return;
    }
#else
    (void) loc;
#endif
    str_set(out, _fallback(OS_LOCALE_FIRST_DAY_OF_WEEK));
}

static void _date_order(locale_t loc, str_t *out) {
    _picture_t p;
    _picture(nl_langinfo_l(D_FMT, loc), loc, &p);
    const char *order = nullptr;
    const char *f = p.fields;
    if (p.field_count >= 1 && f[0] == 'y') {
        order = "2";
    } else if (p.field_count >= 2) {
        order = f[0] == 'm' || (f[0] == 'y' && f[1] == 'm') ? "0" : "1";
    }
    str_set(out, order ? order : _fallback(OS_LOCALE_DATE_ORDER));
    _picture_kill(&p);
}

static void _separator(locale_t loc, nl_item item, str_t *out) {
    _picture_t p;
    _picture(nl_langinfo_l(item, loc), loc, &p);
    str_set_n(out, p.separator.ptr, p.separator.len);
    _picture_kill(&p);
}

static void _convert(locale_t loc, nl_item item, str_t *out) {
    _picture_t p;
    _picture(nl_langinfo_l(item, loc), loc, &p);
    str_set_n(out, p.out.ptr, p.out.len);
    _picture_kill(&p);
}

static void _value(locale_t loc, os_locale_id_t id, str_t *out) {
    str_set(out, "");
    int i = (int) id;
    if (i >= OS_LOCALE_MONTH_NAME && i < OS_LOCALE_MONTH_ABBREV) {
        str_set(out, nl_langinfo_l((nl_item) (MON_1 + (i - OS_LOCALE_MONTH_NAME)), loc));
    } else if (i >= OS_LOCALE_MONTH_ABBREV && i < OS_LOCALE_DAY_NAME) {
        str_set(out, nl_langinfo_l((nl_item) (ABMON_1 + (i - OS_LOCALE_MONTH_ABBREV)), loc));
    } else if (i >= OS_LOCALE_DAY_NAME && i < OS_LOCALE_COUNT) {
        // The C library starts the week's names on Sunday, Windows on Monday.
        bool full = i < OS_LOCALE_DAY_ABBREV;
        int monday_based = i - (full ? OS_LOCALE_DAY_NAME : OS_LOCALE_DAY_ABBREV);
        nl_item base = full ? DAY_1 : ABDAY_1;
        str_set(out, nl_langinfo_l((nl_item) (base + (monday_based + 1) % 7), loc));
    }
    switch (id) {
    case OS_LOCALE_DATE_SEPARATOR:
        _separator(loc, D_FMT, out);
        break;
    case OS_LOCALE_TIME_SEPARATOR:
        _separator(loc, T_FMT, out);
        break;
    case OS_LOCALE_SHORT_DATE:
        _convert(loc, D_FMT, out);
        break;
    case OS_LOCALE_TIME_FORMAT:
        _convert(loc, T_FMT, out);
        break;
    case OS_LOCALE_DECIMAL:
        str_set(out, nl_langinfo_l(RADIXCHAR, loc));
        break;
    case OS_LOCALE_THOUSAND:
        str_set(out, nl_langinfo_l(THOUSEP, loc));
        break;
    case OS_LOCALE_FIRST_DAY_OF_WEEK:
        _first_day(loc, out);
        break;
    case OS_LOCALE_DATE_ORDER:
        _date_order(loc, out);
        break;
    case OS_LOCALE_AM:
        // A 24-hour locale has none: empty is its true answer, as on Windows.
        str_set(out, nl_langinfo_l(AM_STR, loc));
        return;
    case OS_LOCALE_PM:
        str_set(out, nl_langinfo_l(PM_STR, loc));
        return;
    default:
        break;
    }
    if (!out->len) {
        str_set(out, _fallback(id));
    }
}

// ---- the user's locale ---------------------------------------------------------------------------------

static pthread_once_t _user_once = PTHREAD_ONCE_INIT;
static locale_t _user_locale;

// As setlocale(LC_ALL, "") does, a locale the environment names but the system lacks leaves the C locale.
static void _open_user_locale() {
    _user_locale = newlocale(LC_ALL_MASK, "", (locale_t) 0);
    if (!_user_locale) {
        _user_locale = newlocale(LC_ALL_MASK, "C", (locale_t) 0);
    }
}

void os_real_locale_get(os_locale_id_t id, str_t *out) {
    pthread_once(&_user_once, _open_user_locale);
    if ((int) id < 0 || id >= OS_LOCALE_COUNT || !_user_locale) {
        str_set(out, (int) id >= 0 && id < OS_LOCALE_COUNT ? _fallback(id) : "");
        return;
    }
    _value(_user_locale, id, out);
}

bool os_locale_get_named(const char *name, os_locale_id_t id, str_t *out) {
    str_set(out, "");
    locale_t loc = newlocale(LC_ALL_MASK, name ? name : "", (locale_t) 0);
    if (!loc) {
        return false;
    }
    if ((int) id >= 0 && id < OS_LOCALE_COUNT) {
        _value(loc, id, out);
    }
    freelocale(loc);
    return true;
}

// ---- code pages ----------------------------------------------------------------------------------------

// The bytes the converter refused, to be skipped as one '?': from UTF-8 a lead byte and the continuation
// bytes after it, so that one bad character gives one '?'; from a code page one byte.
static size_t _refused_length(const char *p, size_t left, bool from_utf8) {
    size_t n = 1;
    while (from_utf8 && n < left && ((unsigned char) p[n] & 0xC0) == 0x80 && n < 4) {
        n++;
    }
    return n;
}

// Converts with iconv, a '?' for each character the target lacks and each byte the source doesn't define.
static bool _convert_code_set(str_t *out, const char *text, size_t len, const char *to_set,
                              const char *from_set) {
    str_set(out, "");
    iconv_t cd = iconv_open(to_set, from_set);
    if (cd == (iconv_t) -1) {
        return false;
    }
    char *in = (char *) text;
    size_t in_left = len, used = 0;
    // Room for a single-byte code page; a code set with shift sequences may ask for more.
    str_reserve(out, (int) len + 16);
    for (;;) {
        // With the input gone, one more call writes any shift back to the initial state.
        bool closing = in_left == 0;
        out->len = (int32_t) used;
        char *to = out->ptr + used;
        size_t to_left = (size_t) out->cap - 1 - used;
        size_t r =
            closing ? iconv(cd, nullptr, nullptr, &to, &to_left) : iconv(cd, &in, &in_left, &to, &to_left);
        int error = r == (size_t) -1 ? errno : 0;
        used = (size_t) (to - out->ptr);
        out->len = (int32_t) used;
        if (error == E2BIG) {
            str_reserve(out, out->cap * 2);
        } else if (!closing && (error == EILSEQ || error == EINVAL)) {
            size_t bad = _refused_length(in, in_left, strcmp(from_set, "UTF-8") == 0);
            in += bad;
            in_left -= bad;
            str_cat_char(out, '?');
            used++;
        } else if (error || closing) {
            break;
        }
    }
    iconv_close(cd);
    out->len = (int32_t) used;
    out->ptr[out->len] = 0;
    return true;
}

// The code set of the user's locale; null when it is UTF-8, whose text needs no conversion.
static const char *_ansi_code_set() {
    pthread_once(&_user_once, _open_user_locale);
    const char *code_set = _user_locale ? nl_langinfo_l(CODESET, _user_locale) : "ANSI_X3.4-1968";
    return strcmp(code_set, "UTF-8") == 0 ? nullptr : code_set;
}

// Names on Linux are bytes already in the locale's code set: where it can't be converted, they stay.
void os_text_to_ansi(str_t *out, const char *utf8, size_t len) {
    const char *code_set = _ansi_code_set();
    if (!code_set || !_convert_code_set(out, utf8, len, code_set, "UTF-8")) {
        str_set_n(out, utf8, (int) len);
    }
}

void os_text_from_ansi(str_t *out, const char *ansi, size_t len) {
    const char *code_set = _ansi_code_set();
    if (!code_set || !_convert_code_set(out, ansi, len, "UTF-8", code_set)) {
        str_set_n(out, ansi, (int) len);
    }
}

bool os_text_to_code_page(str_t *out, const char *utf8, size_t len, uint32_t code_page) {
    char name[24];
    snprintf(name, sizeof name, "CP%u", code_page);
    return _convert_code_set(out, utf8, len, name, "UTF-8");
}

bool os_text_from_code_page(str_t *out, const char *text, size_t len, uint32_t code_page) {
    char name[24];
    snprintf(name, sizeof name, "CP%u", code_page);
    return _convert_code_set(out, text, len, "UTF-8", name);
}
