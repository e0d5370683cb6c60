// UTF-16 <-> UTF-8 for the string buffers and the formatter. The decoding of UTF-8 follows the one rule
// of the whole program: a lead byte starts a sequence only when enough bytes follow, continuation bytes
// are not checked, and anything else is code point 0 consuming one byte.
#include "mem/utf.h"

static int _put_code_point(char *d, uint32_t c) {
    if (c < 0x80) {
        if (d) {
            d[0] = (char) c;
        }
        return 1;
    }
    if (c < 0x800) {
        if (d) {
            d[0] = (char) (0xC0 | (c >> 6));
            d[1] = (char) (0x80 | (c & 0x3F));
        }
        return 2;
    }
    if (c < 0x10000) {
        if (d) {
            d[0] = (char) (0xE0 | (c >> 12));
            d[1] = (char) (0x80 | ((c >> 6) & 0x3F));
            d[2] = (char) (0x80 | (c & 0x3F));
        }
        return 3;
    }
    if (d) {
        d[0] = (char) (0xF0 | (c >> 18));
        d[1] = (char) (0x80 | ((c >> 12) & 0x3F));
        d[2] = (char) (0x80 | ((c >> 6) & 0x3F));
        d[3] = (char) (0x80 | (c & 0x3F));
    }
    return 4;
}

int mem_utf16_to_utf8(char *dest, const uint16_t *w, int n) {
    int out = 0;
    for (int i = 0; n < 0 ? w[i] != 0 : i < n; i++) {
        uint32_t c = w[i];
        bool has_next = n < 0 ? w[i + 1] != 0 : i + 1 < n;
        if (c >= 0xD800 && c <= 0xDBFF && has_next && w[i + 1] >= 0xDC00 && w[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (w[i + 1] - 0xDC00);
            i++;
        }
        out += _put_code_point(dest ? dest + out : nullptr, c);
    }
    return out;
}

// True when k continuation bytes follow position i: by count for counted text, by the absence of a zero
// byte for zero-terminated text.
static bool _has_following(const unsigned char *s, int n, int i, int k) {
    if (n >= 0) {
        return n - i > k;
    }
    for (int j = 1; j <= k; j++) {
        if (s[i + j] == 0) {
            return false;
        }
    }
    return true;
}

int mem_utf8_to_utf16(uint16_t *dest, const char *text, int n) {
    const unsigned char *s = (const unsigned char *) text;
    int out = 0;
    int i = 0;
    while (n < 0 ? s[i] != 0 : i < n) {
        uint32_t b = s[i];
        uint32_t c = 0;
        int len = 1;
        if (b < 0x80) {
            c = b;
        } else if ((b & 0xE0) == 0xC0 && _has_following(s, n, i, 1)) {
            c = ((b & 0x1F) << 6) | (s[i + 1] & 0x3F);
            len = 2;
        } else if ((b & 0xF0) == 0xE0 && _has_following(s, n, i, 2)) {
            c = ((b & 0x0F) << 12) | ((s[i + 1] & 0x3F) << 6) | (s[i + 2] & 0x3F);
            len = 3;
        } else if ((b & 0xF8) == 0xF0 && _has_following(s, n, i, 3)) {
            c = ((b & 0x07) << 18) | ((s[i + 1] & 0x3F) << 12) | ((s[i + 2] & 0x3F) << 6) | (s[i + 3] & 0x3F);
            len = 4;
        }
        i += len;
        if (c >= 0x10000) {
            // Four bytes can carry up to 21 bits; what lies above U+10FFFF keeps its low 20 bits so that
            // the pair stays a valid pair.
            uint32_t v = (c - 0x10000) & 0xFFFFF;
            if (dest) {
                dest[out] = (uint16_t) (0xD800 + (v >> 10));
                dest[out + 1] = (uint16_t) (0xDC00 + (v & 0x3FF));
            }
            out += 2;
        } else {
            if (dest) {
                dest[out] = (uint16_t) c;
            }
            out++;
        }
    }
    return out;
}
