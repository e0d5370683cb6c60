// The converters of wide.h over the system's own code page functions.
#include "os/win32/wide.h"

#include <cstring>
#include <cwchar>

void os_wide_init(os_wide_t *w, const char *utf8, int n) {
    w->ptr = w->inline_buf;
    w->len = 0;
    w->inline_buf[0] = 0;
    if (!utf8) {
        return;
    }
    if (n < 0) {
        n = (int) strlen(utf8);
    }
    if (n == 0) {
        return;
    }
    int need = MultiByteToWideChar(CP_UTF8, 0, utf8, n, nullptr, 0);
    if (need <= 0) {
        return;
    }
    if (need >= 260) {
        w->ptr = (wchar_t *) mem_alloc(((size_t) need + 1) * sizeof(wchar_t));
    }
    w->len = MultiByteToWideChar(CP_UTF8, 0, utf8, n, w->ptr, need);
    w->ptr[w->len] = 0;
}

void os_wide_kill(os_wide_t *w) {
    if (w->ptr && w->ptr != w->inline_buf) {
        mem_free(w->ptr);
    }
    w->ptr = w->inline_buf;
    w->len = 0;
    w->inline_buf[0] = 0;
}

void os_utf8_from_wide(str_t *out, const wchar_t *wide, int n) {
    if (!wide) {
        str_set(out, "");
        return;
    }
    if (n < 0) {
        n = (int) wcslen(wide);
    }
    // wchar_t is 16 bits on Windows, which is the unit str_set_wide_n reads.
    str_set_wide_n(out, (const uint16_t *) wide, n);
}

// Through UTF-16: the system converts only from there. An invalid byte of the UTF-8 becomes U+FFFD, which
// no ANSI code page holds, so it comes out as the default character like any other missing one.
static bool _to_code_page(str_t *out, const char *utf8, size_t len, UINT code_page) {
    str_set(out, "");
    if (!IsValidCodePage(code_page)) {
        return false;
    }
    if (len == 0) {
        return true;
    }
    os_wide_t w;
    os_wide_init(&w, utf8, (int) len);
    if (code_page == CP_UTF8) {
        // The code page of a system set to UTF-8 takes no default character.
        os_wide_kill(&w);
        str_set_n(out, utf8, (int) len);
        return true;
    }
    // No ANSI code page holds a character beyond the first plane, and the system would give one default
    // character for each half of its pair: the pair becomes one unit that comes out as one '?'.
    int n = 0;
    for (int i = 0; i < w.len; i++) {
        bool pair = w.ptr[i] >= 0xD800 && w.ptr[i] < 0xDC00 && i + 1 < w.len && w.ptr[i + 1] >= 0xDC00 &&
                    w.ptr[i + 1] < 0xE000;
        w.ptr[n++] = pair ? (wchar_t) 0xFFFD : w.ptr[i];
        i += pair;
    }
    w.len = n;
    int need = WideCharToMultiByte(code_page, 0, w.ptr, w.len, nullptr, 0, "?", nullptr);
    if (need > 0) {
        str_reserve(out, need + 1);
        out->len = WideCharToMultiByte(code_page, 0, w.ptr, w.len, out->ptr, need, "?", nullptr);
        out->ptr[out->len] = 0;
    }
    os_wide_kill(&w);
    return true;
}

void os_text_to_ansi(str_t *out, const char *utf8, size_t len) {
    _to_code_page(out, utf8, len, GetACP());
}

bool os_text_to_code_page(str_t *out, const char *utf8, size_t len, uint32_t code_page) {
    return _to_code_page(out, utf8, len, code_page);
}

// Through UTF-16 as well; a byte the code page doesn't define comes through as the page's default
// character or U+FFFD, and the latter becomes '?'.
static bool _from_code_page(str_t *out, const char *text, size_t len, UINT code_page) {
    str_set(out, "");
    if (!IsValidCodePage(code_page)) {
        return false;
    }
    if (len == 0) {
        return true;
    }
    if (code_page == CP_UTF8) {
        str_set_n(out, text, (int) len);
        return true;
    }
    int need = MultiByteToWideChar(code_page, 0, text, (int) len, nullptr, 0);
    if (need <= 0) {
        return true;
    }
    uint16_t *units = (uint16_t *) mem_alloc(((size_t) need + 1) * sizeof(uint16_t));
    int n = MultiByteToWideChar(code_page, 0, text, (int) len, (wchar_t *) units, need);
    for (int i = 0; i < n; i++) {
        units[i] = units[i] == 0xFFFD ? (uint16_t) '?' : units[i];
    }
    str_set_wide_n(out, units, n);
    mem_free(units);
    return true;
}

void os_text_from_ansi(str_t *out, const char *ansi, size_t len) {
    _from_code_page(out, ansi, len, GetACP());
}

bool os_text_from_code_page(str_t *out, const char *text, size_t len, uint32_t code_page) {
    return _from_code_page(out, text, len, code_page);
}
