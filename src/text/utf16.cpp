// UTF-16 to UTF-8 and back, for the platform's edge only: everything inside the program is UTF-8. A
// surrogate pair becomes one 4-byte sequence; a surrogate without its partner is kept as its own 3-byte
// form so that a broken Windows name survives the round trip instead of being lost.
#include "text/text.h"

namespace {

inline bool _is_high(uint16_t u) {
    return u >= 0xD800 && u <= 0xDBFF;
}

inline bool _is_low(uint16_t u) {
    return u >= 0xDC00 && u <= 0xDFFF;
}

// The code point at w[i] (with n units available) and how many units it takes.
inline uint32_t _wide_at(const uint16_t *w, size_t i, size_t n, int *units) {
    uint16_t u = w[i];
    if (_is_high(u) && i + 1 < n && _is_low(w[i + 1])) {
        *units = 2;
        return 0x10000 + (((uint32_t) u - 0xD800) << 10) + ((uint32_t) w[i + 1] - 0xDC00);
    }
    *units = 1;
    return u;
}

// Bytes of units n (SIZE_MAX: up to the terminator), and how many units were read in *read.
size_t _wide_measure(const uint16_t *w, size_t n, size_t *read) {
    size_t bytes = 0, i = 0;
    while (i < n && (n != SIZE_MAX || w[i])) {
        int k;
        // In a zero-terminated text w[i + 1] is at worst the terminator, so the pair test may read it.
        uint32_t cp = _wide_at(w, i, n, &k);
        bytes += (size_t) text_encoded_length(cp);
        i += (size_t) k;
    }
    *read = i;
    return bytes;
}

char *_wide_write(char *dest, const uint16_t *w, size_t n, size_t *read) {
    size_t i = 0;
    while (i < n && (n != SIZE_MAX || w[i])) {
        int k;
        uint32_t cp = _wide_at(w, i, n, &k);
        dest += text_encode(cp, dest);
        i += (size_t) k;
    }
    *dest = 0;
    *read = i;
    return dest;
}

template <bool drop_tabs>
size_t _utf8_to_wide_counted(uint16_t *dest, const char *text, size_t bytes) {
    const uint8_t *p = (const uint8_t *) text;
    size_t i = 0, out = 0;
    while (i < bytes) {
        if (drop_tabs && p[i] == '\t') {
            i++;
            continue;
        }
        int n;
        uint32_t cp = text_decode(p + i, bytes - i, &n);
        i += (size_t) n;
        // Four bytes of input always leave room for the two units of a pair.
        if (cp >= 0x10000) {
            cp -= 0x10000;
            dest[out++] = (uint16_t) (0xD800 + ((cp >> 10) & 0x3FF));
            dest[out++] = (uint16_t) (0xDC00 + (cp & 0x3FF));
        } else {
            dest[out++] = (uint16_t) cp;
        }
    }
    return out;
}

} // namespace

char *utf16_to_utf8(char *dest, const uint16_t *wide) {
    size_t read;
    return _wide_write(dest, wide, SIZE_MAX, &read);
}

char *utf16_to_utf8_counted(char *dest, const uint16_t *wide, size_t units) {
    size_t read;
    return _wide_write(dest, wide, units, &read);
}

char *utf16_to_utf8_double_terminated(char *dest, const uint16_t *wide) {
    for (;;) {
        size_t read;
        char *end = _wide_write(dest, wide, SIZE_MAX, &read);
        if (read == 0) {
            return end;
        }
        dest = end + 1;
        wide += read + 1;
    }
}

size_t utf16_utf8_length(const uint16_t *wide) {
    size_t read;
    return _wide_measure(wide, SIZE_MAX, &read);
}

size_t utf16_utf8_length_counted(const uint16_t *wide, size_t units) {
    size_t read;
    return _wide_measure(wide, units, &read);
}

size_t utf16_utf8_length_double_terminated(const uint16_t *wide) {
    size_t total = 0;
    for (;;) {
        size_t read;
        total += _wide_measure(wide, SIZE_MAX, &read) + 1;
        if (read == 0) {
            return total;
        }
        wide += read + 1;
    }
}

uint16_t *utf8_to_utf16(uint16_t *dest, size_t capacity, const char *text) {
    const uint8_t *p = (const uint8_t *) text;
    uint16_t *end = dest + capacity - 1;
    while (*p && dest < end) {
        int n;
        uint32_t cp = text_decode_z(p, &n);
        p += n;
        if (cp >= 0x10000 && end - dest >= 2) {
            cp -= 0x10000;
            *dest++ = (uint16_t) (0xD800 + ((cp >> 10) & 0x3FF));
            *dest++ = (uint16_t) (0xDC00 + (cp & 0x3FF));
        } else {
            *dest++ = (uint16_t) cp;
        }
    }
    *dest = 0;
    return dest;
}

size_t utf8_to_utf16_counted(uint16_t *dest, const char *text, size_t bytes) {
    return _utf8_to_wide_counted<false>(dest, text, bytes);
}

size_t utf8_to_utf16_counted_no_tabs(uint16_t *dest, const char *text, size_t bytes) {
    return _utf8_to_wide_counted<true>(dest, text, bytes);
}

size_t utf8_utf16_length(const char *text) {
    const uint8_t *p = (const uint8_t *) text;
    size_t units = 0;
    while (*p) {
        int n;
        uint32_t cp = text_decode_z(p, &n);
        p += n;
        units += cp >= 0x10000 ? 2 : 1;
    }
    return units;
}

size_t utf8_utf16_length_counted(const char *text, size_t bytes) {
    const uint8_t *p = (const uint8_t *) text;
    size_t i = 0, units = 0;
    while (i < bytes) {
        int n;
        uint32_t cp = text_decode(p + i, bytes - i, &n);
        i += (size_t) n;
        units += cp >= 0x10000 ? 2 : 1;
    }
    return units;
}
