// The small-string buffers. str_t and wstr_t share one implementation, templated on the unit type: the
// inline buffer covers the classic path limit, so almost every path stays on the stack. Assignment grows
// to whole 64-KiB units without copying (the old text is about to be replaced), appending doubles (the
// old text must survive, and repeated appends must stay linear).
#include <cstring>

#include "debug/debug.h"
#include "mem/mem.h"
#include "mem/utf.h"
#include "os/os.h"

// Storage of at least need units for a buffer that must grow. The old text is copied when keep is set.
// Returns the old heap block, which the caller frees once it has copied its source: the source may lie in
// that very block.
template <typename S, typename U>
static U *_grow(S *s, int64_t need, bool keep, bool power_of_two) {
    U *old = s->cap > STR_INLINE ? s->ptr : nullptr;
    int64_t cap = STR_INLINE;
    if (need > STR_INLINE) {
        if (power_of_two) {
            cap = 1;
            while (cap < need) {
                cap <<= 1;
            }
        } else {
            cap = (need - 1 + 0x10000) & ~(int64_t) 0xffff;
        }
    }
    if (cap > INT32_MAX) {
        debug_fatal("mem.c", 734, "mem_alloc", "out of memory %p", (size_t) cap * sizeof(U));
    }
    U *p = cap > STR_INLINE ? (U *) mem_alloc((size_t) cap * sizeof(U)) : s->inline_buf;
    if (keep && s->cap > 0 && p != s->ptr) {
        memcpy(p, s->ptr, (size_t) s->len * sizeof(U));
    }
    s->ptr = p;
    s->cap = (int32_t) cap;
    return old;
}

template <typename S, typename U>
static void _init(S *s) {
    s->len = 0;
    s->cap = STR_INLINE;
    s->ptr = s->inline_buf;
    s->inline_buf[0] = 0;
}

template <typename S>
static void _kill(S *s) {
    if (s->cap > STR_INLINE) {
        mem_free(s->ptr);
    }
    s->len = 0;
    s->cap = 0;
    s->ptr = nullptr;
}

template <typename S, typename U>
static void _set_n(S *s, const U *text, int n) {
    U *old = nullptr;
    if (n + 1 > s->cap) {
        old = _grow<S, U>(s, (int64_t) n + 1, false, false);
    }
    if (n) {
        memmove(s->ptr, text, (size_t) n * sizeof(U));
    }
    s->len = n;
    s->ptr[n] = 0;
    mem_free(old);
}

template <typename S, typename U>
static void _cat(S *s, const U *units, int n) {
    if (n <= 0) {
        return;
    }
    U *old = nullptr;
    int64_t need = (int64_t) s->len + n + 1;
    if (need > s->cap) {
        old = _grow<S, U>(s, need, true, true);
    }
    // The source may be this buffer's own text (or the old block, still alive until below).
    memmove(s->ptr + s->len, units, (size_t) n * sizeof(U));
    s->len += n;
    s->ptr[s->len] = 0;
    mem_free(old);
}

template <typename S, typename U>
static void _clear(S *s) {
    if (s->cap < 1) {
        s->ptr = s->inline_buf;
        s->cap = STR_INLINE;
    }
    s->len = 0;
    s->ptr[0] = 0;
}

void str_init(str_t *s) {
    _init<str_t, char>(s);
}

void str_kill(str_t *s) {
    _kill(s);
}

void str_set(str_t *s, const char *text) {
    _set_n<str_t, char>(s, text, (int) strlen(text));
}

void str_set_n(str_t *s, const char *text, int n) {
    _set_n<str_t, char>(s, text, n < 0 ? 0 : n);
}

void str_set_wide_n(str_t *s, const uint16_t *wide, int n) {
    int len = mem_utf16_to_utf8(nullptr, wide, n);
    char *old = nullptr;
    if (len + 1 > s->cap) {
        old = _grow<str_t, char>(s, (int64_t) len + 1, false, false);
    }
    mem_utf16_to_utf8(s->ptr, wide, n);
    s->len = len;
    s->ptr[len] = 0;
    mem_free(old);
}

void str_set_wide(str_t *s, const uint16_t *wide) {
    str_set_wide_n(s, wide, -1);
}

void str_cat(str_t *s, const char *bytes, int n) {
    _cat<str_t, char>(s, bytes, n);
}

void str_cat_z(str_t *s, const char *text) {
    _cat<str_t, char>(s, text, (int) strlen(text));
}

void str_cat_char(str_t *s, char c) {
    _cat<str_t, char>(s, &c, 1);
}

void str_reserve(str_t *s, int cap) {
    if (cap > s->cap) {
        bool had = s->cap > 0;
        mem_free(_grow<str_t, char>(s, cap, true, true));
        if (!had) {
            s->len = 0;
        }
        s->ptr[s->len] = 0;
    }
}

void str_clear(str_t *s) {
    _clear<str_t, char>(s);
}

void str_vprintf(str_t *s, const char *format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int len = text_format(nullptr, format, measure);
    va_end(measure);
    char *old = nullptr;
    if (len + 1 > s->cap) {
        old = _grow<str_t, char>(s, (int64_t) len + 1, false, false);
    }
    s->len = text_format(s->ptr, format, args);
    mem_free(old);
}

void str_printf(str_t *s, const char *format, ...) {
    va_list args;
    va_start(args, format);
    str_vprintf(s, format, args);
    va_end(args);
}

void str_cat_vprintf(str_t *s, const char *format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int len = text_format(nullptr, format, measure);
    va_end(measure);
    if (len == 0) {
        return;
    }
    char *old = nullptr;
    int64_t need = (int64_t) s->len + len + 1;
    if (need > s->cap) {
        old = _grow<str_t, char>(s, need, true, true);
    }
    s->len += text_format(s->ptr + s->len, format, args);
    mem_free(old);
}

void str_cat_printf(str_t *s, const char *format, ...) {
    va_list args;
    va_start(args, format);
    str_cat_vprintf(s, format, args);
    va_end(args);
}

void str_path_cat(str_t *s, const char *a, int n, const char *b, int m) {
    bool sep = n > 0 && a[n - 1] != '\\' && a[n - 1] != '/';
    int len = n + (sep ? 1 : 0) + m;
    char *old = nullptr;
    if (len + 1 > s->cap) {
        old = _grow<str_t, char>(s, (int64_t) len + 1, false, false);
    }
    // a is often this buffer's own text: the usual way to add a component to a path.
    if (n) {
        memmove(s->ptr, a, (size_t) n);
    }
    if (sep) {
        s->ptr[n] = OS_SEP;
    }
    if (m) {
        memcpy(s->ptr + n + (sep ? 1 : 0), b, (size_t) m);
    }
    s->len = len;
    s->ptr[len] = 0;
    mem_free(old);
}

void wstr_init(wstr_t *s) {
    _init<wstr_t, uint16_t>(s);
}

void wstr_kill(wstr_t *s) {
    _kill(s);
}

static int _wide_len(const uint16_t *w) {
    int n = 0;
    while (w[n]) {
        n++;
    }
    return n;
}

void wstr_set(wstr_t *s, const uint16_t *text) {
    _set_n<wstr_t, uint16_t>(s, text, _wide_len(text));
}

void wstr_set_n(wstr_t *s, const uint16_t *text, int n) {
    _set_n<wstr_t, uint16_t>(s, text, n < 0 ? 0 : n);
}

void wstr_set_utf8(wstr_t *s, const char *text, int n) {
    int len = mem_utf8_to_utf16(nullptr, text, n);
    uint16_t *old = nullptr;
    if (len + 1 > s->cap) {
        old = _grow<wstr_t, uint16_t>(s, (int64_t) len + 1, false, false);
    }
    mem_utf8_to_utf16(s->ptr, text, n);
    s->len = len;
    s->ptr[len] = 0;
    mem_free(old);
}

void wstr_cat(wstr_t *s, const uint16_t *units, int n) {
    _cat<wstr_t, uint16_t>(s, units, n);
}

void wstr_clear(wstr_t *s) {
    _clear<wstr_t, uint16_t>(s);
}
