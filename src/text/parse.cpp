// The cursor parsers the query language, the settings and the file lists are made of, the date form of
// file lists, and the extension and file-name helpers. Both '\\' and '/' end a path component here, on
// every platform, so that a list written on one system reads the same on the other.
#include "os/os.h"
#include "text/text.h"

namespace {

inline bool _is_digit(char c) {
    return c >= '0' && c <= '9';
}

inline bool _is_sep(char c) {
    return c == '\\' || c == '/';
}

// Days since 1601-01-01 of a proleptic Gregorian date (month 1..12).
int64_t _days_since_1601(int64_t y, int64_t m, int64_t d) {
    y -= m <= 2;
    int64_t era = (y >= 0 ? y : y - 399) / 400;
    int64_t yoe = y - era * 400;
    int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    // Days since 1970-01-01, then shifted to 1601.
    return era * 146097 + doe - 719468 + 134774;
}

int _days_in_month(int y, int m) {
    static const int days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return m == 2 && leap ? 29 : days[m - 1];
}

bool _parse_exact(const char **p, int digits, int *out) {
    const char *s = *p;
    int v = 0;
    for (int i = 0; i < digits; i++) {
        if (!_is_digit(s[i])) {
            return false;
        }
        v = v * 10 + (s[i] - '0');
    }
    *p = s + digits;
    *out = v;
    return true;
}

const uint64_t TICKS_PER_SECOND = 10000000;

// The zone after the time: 'Z', an offset, or nothing (local time). Returns false on a malformed zone.
bool _parse_zone(const char **p, bool *local, int64_t *offset_seconds) {
    const char *s = *p;
    *local = true;
    *offset_seconds = 0;
    if (*s == 'Z' || *s == 'z') {
        *local = false;
        *p = s + 1;
        return true;
    }
    if (*s != '+' && *s != '-') {
        return true;
    }
    int sign = *s == '-' ? -1 : 1, hh, mm = 0;
    s++;
    if (!_parse_exact(&s, 2, &hh)) {
        return false;
    }
    if (*s == ':') {
        s++;
    }
    if (_is_digit(*s) && !_parse_exact(&s, 2, &mm)) {
        return false;
    }
    if (hh > 23 || mm > 59) {
        return false;
    }
    *local = false;
    *offset_seconds = sign * (hh * 3600 + mm * 60);
    *p = s;
    return true;
}

uint64_t _parse_date_form(const char *s) {
    int y, mo, d, h = 0, mi = 0, sec = 0;
    if (!_parse_exact(&s, 4, &y)) {
        return UINT64_MAX;
    }
    if (*s == '-') {
        s++;
    }
    if (!_parse_exact(&s, 2, &mo)) {
        return UINT64_MAX;
    }
    if (*s == '-') {
        s++;
    }
    if (!_parse_exact(&s, 2, &d)) {
        return UINT64_MAX;
    }
    if (y < 1601 || mo < 1 || mo > 12 || d < 1 || d > _days_in_month(y, mo)) {
        return UINT64_MAX;
    }
    uint64_t fraction = 0;
    if (*s == 'T' || *s == 't') {
        s++;
        if (!_parse_exact(&s, 2, &h)) {
            return UINT64_MAX;
        }
        if (*s == ':') {
            s++;
        }
        if (_is_digit(*s) && !_parse_exact(&s, 2, &mi)) {
            return UINT64_MAX;
        }
        if (*s == ':') {
            s++;
        }
        if (_is_digit(*s) && !_parse_exact(&s, 2, &sec)) {
            return UINT64_MAX;
        }
        if (*s == '.' || *s == ',') {
            s++;
            uint64_t weight = 1000000;
            for (; _is_digit(*s); s++) {
                fraction += (uint64_t) (*s - '0') * weight;
                weight /= 10;
            }
        }
        if (h > 23 || mi > 59 || sec > 59) {
            return UINT64_MAX;
        }
    }
    bool local;
    int64_t offset;
    if (!_parse_zone(&s, &local, &offset)) {
        return UINT64_MAX;
    }
    uint64_t ft;
    if (local) {
        os_systemtime_t st = {y, mo, 0, d, h, mi, sec, 0};
        if (!os_local_to_filetime(&st, &ft)) {
            return UINT64_MAX;
        }
        return ft + fraction;
    }
    int64_t seconds = _days_since_1601(y, mo, d) * 86400 + h * 3600 + mi * 60 + sec - offset;
    if (seconds < 0) {
        return UINT64_MAX;
    }
    return (uint64_t) seconds * TICKS_PER_SECOND + fraction;
}

} // namespace

bool text_skip_prefix(const char **cursor, const char *literal) {
    const char *s = *cursor;
    for (; *literal; s++, literal++) {
        if (*s != *literal) {
            return false;
        }
    }
    *cursor = s;
    return true;
}

bool text_skip_prefix_nocase(const char **cursor, const char *literal) {
    const char *s = *cursor;
    for (; *literal; s++, literal++) {
        if (ascii_lower[(uint8_t) *s] != (uint8_t) *literal) {
            return false;
        }
    }
    *cursor = s;
    return true;
}

const char *text_skip_space(const char *text) {
    while (*text == ' ' || *text == '\t' || *text == '\r' || *text == '\n') {
        text++;
    }
    return text;
}

uint64_t text_parse_u64_commas(const char **cursor) {
    const char *s = *cursor;
    if (!_is_digit(*s)) {
        return 0;
    }
    uint64_t v = 0;
    for (;;) {
        if (_is_digit(*s)) {
            v = v * 10 + (uint64_t) (*s - '0');
            s++;
        } else if (*s == ',' && _is_digit(s[1])) {
            s++;
        } else {
            break;
        }
    }
    *cursor = s;
    return v;
}

uint64_t text_parse_digits(const char **cursor, int max) {
    const char *s = *cursor;
    uint64_t v = 0;
    int n = 0;
    while (n < max && _is_digit(s[n])) {
        v = v * 10 + (uint64_t) (s[n] - '0');
        n++;
    }
    *cursor = s + n;
    return v;
}

int text_parse_int(const char *text) {
    bool negative = false;
    if (*text == '-') {
        negative = true;
        text++;
    }
    uint32_t v = 0;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        for (text += 2;; text++) {
            char c = *text;
            uint32_t d;
            if (_is_digit(c)) {
                d = (uint32_t) (c - '0');
            } else if (c >= 'a' && c <= 'f') {
                d = (uint32_t) (c - 'a' + 10);
            } else if (c >= 'A' && c <= 'F') {
                d = (uint32_t) (c - 'A' + 10);
            } else {
                break;
            }
            v = v * 16 + d;
        }
    } else {
        for (; _is_digit(*text); text++) {
            v = v * 10 + (uint32_t) (*text - '0');
        }
    }
    return (int) (negative ? 0u - v : v);
}

uint64_t text_parse_filetime(const char *text) {
    const char *s = text;
    while (_is_digit(*s)) {
        s++;
    }
    if (s == text) {
        return UINT64_MAX;
    }
    if (*s == '-' || *s == 't' || *s == 'T') {
        return _parse_date_form(text);
    }
    const char *p = text;
    return text_parse_digits(&p, 20);
}

const char *text_get_extension(const char *name) {
    const char *dot = nullptr, *s = name;
    for (; *s; s++) {
        if (*s == '.') {
            dot = s;
        } else if (_is_sep(*s)) {
            dot = nullptr;
        }
    }
    return dot ? dot + 1 : s;
}

const char *text_get_extension_counted(const char *name, size_t len, size_t *ext_len) {
    for (size_t i = len; i > 0; i--) {
        char c = name[i - 1];
        if (c == '.') {
            *ext_len = len - i;
            return name + i;
        }
        if (_is_sep(c)) {
            break;
        }
    }
    *ext_len = 0;
    return nullptr;
}

size_t text_filename_offset(const char *path, size_t len) {
    for (size_t i = len; i > 0; i--) {
        if (_is_sep(path[i - 1])) {
            return i;
        }
    }
    return 0;
}

const char *text_filename(const char *path) {
    const char *name = path;
    for (const char *s = path; *s; s++) {
        if (_is_sep(*s)) {
            name = s + 1;
        }
    }
    return name;
}
