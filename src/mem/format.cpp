// text_format: the program's own formatter, behind str_printf and the log. It exists rather than the C
// library's printf because the log must print counted names (%t), UTF-16 (%S, %T) and microsecond times
// (%f) identically on every platform, and because the measuring pass must agree byte for byte with the
// writing pass.
#include <cstring>

#include "mem/mem.h"
#include "mem/utf.h"

// Output cursor: with dest null every write only counts.
struct format_out_t {
    char *dest;
    int len;
};

static void _put(format_out_t *o, char c) {
    if (o->dest) {
        o->dest[o->len] = c;
    }
    o->len++;
}

static void _put_bytes(format_out_t *o, const char *p, int n) {
    if (n <= 0) {
        return;
    }
    if (o->dest) {
        memcpy(o->dest + o->len, p, (size_t) n);
    }
    o->len += n;
}

// Writes a magnitude with an optional sign under the width rule: zero fill puts the sign before the zeros,
// blank fill puts the blanks before the sign.
static void _put_number(format_out_t *o, uint64_t magnitude, bool negative, unsigned radix, bool upper,
                        int width, bool zero_fill) {
    const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char buf[24];
    int n = 0;
    do {
        buf[n++] = digits[magnitude % radix];
        magnitude /= radix;
    } while (magnitude);
    int pad = width - n - (negative ? 1 : 0);
    if (!zero_fill) {
        for (; pad > 0; pad--) {
            _put(o, ' ');
        }
    }
    if (negative) {
        _put(o, '-');
    }
    for (; pad > 0; pad--) {
        _put(o, '0');
    }
    while (n) {
        _put(o, buf[--n]);
    }
}

static void _put_signed(format_out_t *o, int64_t v, int width, bool zero_fill) {
    // The magnitude in unsigned arithmetic, so that the most negative value needs no special case.
    uint64_t m = v < 0 ? 0 - (uint64_t) v : (uint64_t) v;
    _put_number(o, m, v < 0, 10, false, width, zero_fill);
}

// The count is unsigned: intervals are differences of a 32-bit microsecond clock, and read as signed
// anything above 35 minutes would print as a negative time.
static void _put_micro_seconds(format_out_t *o, uint32_t v, int width, bool zero_fill) {
    _put_number(o, v / 1000000, false, 10, false, width, zero_fill);
    _put(o, '.');
    _put_number(o, v % 1000000, false, 10, false, 6, true);
}

static void _put_utf16(format_out_t *o, const uint16_t *w, int n) {
    if (!w) {
        return;
    }
    o->len += mem_utf16_to_utf8(o->dest ? o->dest + o->len : nullptr, w, n);
}

// One integer directive; letter is one of d u x X, wide says the argument is 64-bit.
static void _put_integer(format_out_t *o, char letter, bool wide, va_list *args, int width, bool zero_fill) {
    if (letter == 'd') {
        int64_t v = wide ? va_arg(*args, int64_t) : (int64_t) va_arg(*args, int);
        _put_signed(o, v, width, zero_fill);
        return;
    }
    uint64_t v = wide ? va_arg(*args, uint64_t) : (uint64_t) va_arg(*args, unsigned);
    unsigned radix = letter == 'u' ? 10 : 16;
    _put_number(o, v, false, radix, letter == 'X', width, zero_fill);
}

// Reads "I64" at p; returns the letter after it or 0 when p does not start with it.
static char _wide_letter(const char *p) {
    return p[0] == 'I' && p[1] == '6' && p[2] == '4' ? p[3] : 0;
}

// One directive whose letter is at *pp (width already read); moves *pp past what it consumed.
static void _directive(format_out_t *o, const char **pp, va_list *args, int width, bool zero_fill) {
    const char *p = *pp;
    char c = *p++;
    switch (c) {
    case 'd':
    case 'u':
    case 'x':
    case 'X':
        _put_integer(o, c, false, args, width, zero_fill);
        break;
    case 'I': {
        char w = _wide_letter(p - 1);
        if (w == 'd' || w == 'u' || w == 'x' || w == 'X') {
            _put_integer(o, w, true, args, width, zero_fill);
            p += 3;
        } else {
            _put(o, 'I');
        }
        break;
    }
    case 'p':
    case 'P':
        // Exactly eight digits, the low 32 bits: log lines keep one width whatever the pointer's size.
        _put_number(o, (uint32_t) va_arg(*args, uintptr_t), false, 16, c == 'P', 8, true);
        break;
    case 'f':
        _put_micro_seconds(o, va_arg(*args, uint32_t), width, zero_fill);
        break;
    case 's': {
        const char *s = va_arg(*args, const char *);
        s = s ? s : "(null)";
        _put_bytes(o, s, (int) strlen(s));
        break;
    }
    case 'S':
        _put_utf16(o, va_arg(*args, const uint16_t *), -1);
        break;
    case 't': {
        const char *s = va_arg(*args, const char *);
        int n = va_arg(*args, int);
        _put_bytes(o, s, s ? n : 0);
        break;
    }
    case 'T': {
        const uint16_t *w = va_arg(*args, const uint16_t *);
        int n = va_arg(*args, int);
        if (n > 0) {
            _put_utf16(o, w, n);
        }
        break;
    }
    case 'c':
        _put(o, (char) (unsigned char) va_arg(*args, int));
        break;
    default:
        _put(o, c);
        break;
    }
    *pp = p;
}

int text_format(char *dest, const char *format, va_list args) {
    format_out_t o = {dest, 0};
    // The helpers take the list by address: on Windows x64 a va_list is a plain pointer passed by value,
    // so a callee's va_arg would not advance the caller's copy.
    va_list ap;
    va_copy(ap, args);
    const char *p = format;
    while (*p) {
        if (*p != '%') {
            const char *q = p;
            while (*q && *q != '%') {
                q++;
            }
            _put_bytes(&o, p, (int) (q - p));
            p = q;
            continue;
        }
        p++;
        bool zero_fill = false;
        if (*p == '0') {
            zero_fill = true;
            p++;
        }
        int width = 0;
        while (*p >= '0' && *p <= '9') {
            // A width beyond any line is a mistake in the format; capping it keeps the count finite.
            if (width < 100000) {
                width = width * 10 + (*p - '0');
            }
            p++;
        }
        if (!*p) {
            break;
        }
        _directive(&o, &p, &ap, width, zero_fill);
    }
    va_end(ap);
    if (dest) {
        dest[o.len] = 0;
    }
    return o.len;
}

int text_format_args(char *dest, const char *format, ...) {
    va_list args;
    va_start(args, format);
    int n = text_format(dest, format, args);
    va_end(args);
    return n;
}
