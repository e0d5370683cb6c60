// The escapes of every text that reaches a page, a JSON answer or a link, and the percent-decoding of
// what comes back. Names on Linux may hold any byte but NUL and "/", so each escape also repairs bytes
// that aren't UTF-8: a page or a JSON answer must stay valid whatever the index holds.
#include <cstring>

#include "http/http_internal.h"
#include "text/text.h"

static const char _replacement[] = "\xEF\xBF\xBD"; // U+FFFD

// Length of the well-formed UTF-8 sequence at p (1 to 4), or 0 when the bytes there don't form one.
static int _utf8_sequence(const uint8_t *p, size_t left) {
    uint8_t c = p[0];
    if (c < 0x80) {
        return 1;
    }
    int len;
    uint8_t lo = 0x80, hi = 0xBF; // the allowed range of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        if (c == 0xE0) {
            lo = 0xA0; // overlong below
        } else if (c == 0xED) {
            hi = 0x9F; // surrogates above
        }
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        if (c == 0xF0) {
            lo = 0x90;
        } else if (c == 0xF4) {
            hi = 0x8F; // nothing above U+10FFFF
        }
    } else {
        return 0;
    }
    if (left < (size_t) len || p[1] < lo || p[1] > hi) {
        return 0;
    }
    for (int i = 2; i < len; i++) {
        if ((p[i] & 0xC0) != 0x80) {
            return 0;
        }
    }
    return len;
}

bool http_utf8_valid(const char *text, size_t n) {
    const uint8_t *p = (const uint8_t *) text;
    size_t i = 0;
    while (i < n) {
        int len = _utf8_sequence(p + i, n - i);
        if (len == 0) {
            return false;
        }
        i += (size_t) len;
    }
    return true;
}

// The escapes share one walk: plain runs are copied whole, each byte that needs a replacement gets it
// from the callback, and a malformed byte becomes U+FFFD (which none of the escapes changes).
template <typename Escape>
static void _cat_escaped(str_t *out, const char *text, size_t n, Escape escape) {
    const uint8_t *p = (const uint8_t *) text;
    size_t run = 0, i = 0;
    char buf[8];
    while (i < n) {
        int len = _utf8_sequence(p + i, n - i);
        int blen = len == 1 ? escape(p[i], buf) : 0;
        if (len > 1 || (len == 1 && blen == 0)) {
            i += (size_t) len;
            continue;
        }
        str_cat(out, text + run, (int) (i - run));
        if (len == 0) {
            str_cat(out, _replacement, 3);
        } else {
            str_cat(out, buf, blen);
        }
        i++;
        run = i;
    }
    str_cat(out, text + run, (int) (i - run));
}

void http_cat_html(str_t *out, const char *text, size_t n) {
    _cat_escaped(out, text, n, [](uint8_t c, char *buf) -> int {
        const char *entity = c == '&'   ? "&amp;"
                             : c == '<' ? "&lt;"
                             : c == '>' ? "&gt;"
                             : c == '"' ? "&quot;"
                                        : 0;
        if (!entity) {
            return 0;
        }
        int len = (int) strlen(entity);
        memcpy(buf, entity, (size_t) len);
        return len;
    });
}

static const char _hex[] = "0123456789ABCDEF";

void http_cat_json(str_t *out, const char *text, size_t n) {
    _cat_escaped(out, text, n, [](uint8_t c, char *buf) -> int {
        if (c == '\\' || c == '"') {
            buf[0] = '\\';
            buf[1] = (char) c;
            return 2;
        }
        if (c < 0x20) {
            memcpy(buf, "\\u00", 4);
            buf[4] = _hex[c >> 4];
            buf[5] = _hex[c & 15];
            return 6;
        }
        return 0;
    });
}

static bool _url_plain(uint8_t c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c >= 0x80 ||
           strchr("-._~!'()*", c) != nullptr;
}

void http_cat_url(str_t *out, const char *text, size_t n, bool encode_slash, bool plus_blank) {
    // The replacement character of a malformed byte stands as it is, as every byte from 0x80 does.
    auto escape = [encode_slash, plus_blank](uint8_t c, char *buf) -> int {
        if (c != 0 && (_url_plain(c) || (c == '/' && !encode_slash))) {
            return 0;
        }
        if (c == ' ' && plus_blank) {
            buf[0] = '+';
            return 1;
        }
        buf[0] = '%';
        buf[1] = _hex[c >> 4];
        buf[2] = _hex[c & 15];
        return 3;
    };
    _cat_escaped(out, text, n, escape);
}

// Percent-decoding reads a byte that is no hexadecimal digit as 0.
static int _hex_value(char c) {
    int d = text_hex_digit(c);
    return d < 0 ? 0 : d;
}

size_t http_percent_decode(char *text, bool plus_blank) {
    char *w = text;
    const char *r = text;
    while (*r) {
        if (*r == '%' && r[1] && r[2]) {
            *w++ = (char) (_hex_value(r[1]) * 16 + _hex_value(r[2]));
            r += 3;
        } else if (*r == '+' && plus_blank) {
            *w++ = ' ';
            r++;
        } else {
            *w++ = *r++;
        }
    }
    *w = 0;
    return (size_t) (w - text);
}
