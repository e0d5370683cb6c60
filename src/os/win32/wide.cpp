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
