// Well-known folders and path tests on Windows.
#include "os/os_internal.h"
#include "os/win32/wide.h"

#include <shlobj.h>

static void _os_strip_trailing_sep(str_t *s) {
    // "C:\" keeps its separator: without it "C:" means the current folder of drive C.
    while (s->len > 1 && (s->ptr[s->len - 1] == '\\' || s->ptr[s->len - 1] == '/') &&
           !(s->len == 3 && s->ptr[1] == ':')) {
        s->ptr[--s->len] = 0;
    }
}

void os_temp_folder(str_t *out) {
    wchar_t buf[MAX_PATH + 2];
    DWORD n = GetTempPathW(MAX_PATH + 1, buf);
    if (n == 0 || n > MAX_PATH + 1) {
        str_set(out, "C:\\Windows\\Temp");
        return;
    }
    os_utf8_from_wide(out, buf, (int) n);
    _os_strip_trailing_sep(out);
}

void os_exe_path(str_t *out) {
    // GetModuleFileNameW cuts silently at the buffer's size: grow until the answer fits.
    DWORD cap = MAX_PATH;
    for (;;) {
        wchar_t *buf = (wchar_t *) mem_alloc(cap * sizeof(wchar_t));
        DWORD n = GetModuleFileNameW(nullptr, buf, cap);
        if (n == 0) {
            mem_free(buf);
            str_set(out, "");
            return;
        }
        if (n < cap) {
            os_utf8_from_wide(out, buf, (int) n);
            mem_free(buf);
            return;
        }
        mem_free(buf);
        cap *= 2;
    }
}

void os_exe_folder(str_t *out) {
    os_exe_path(out);
    int n = out->len;
    while (n > 0 && out->ptr[n - 1] != '\\' && out->ptr[n - 1] != '/') {
        n--;
    }
    if (n == 0) {
        return;
    }
    n--;
    // The folder of "C:\x.exe" is "C:\", not the drive-relative "C:".
    if (n == 2 && out->ptr[1] == ':') {
        n = 3;
    }
    out->len = n;
    out->ptr[n] = 0;
}

void os_app_data_folder(str_t *out) {
    wchar_t buf[MAX_PATH];
    if (SHGetFolderPathW(nullptr, CSIDL_APPDATA, nullptr, 0, buf) == S_OK) {
        os_utf8_from_wide(out, buf);
    } else if (!os_getenv("APPDATA", out)) {
        str_set(out, "C:");
    }
    _os_strip_trailing_sep(out);
    str_cat_z(out, out->len && out->ptr[out->len - 1] == '\\' ? "Sablewatch" : "\\Sablewatch");
}

void os_current_folder(str_t *out) {
    DWORD n = GetCurrentDirectoryW(0, nullptr);
    if (n == 0) {
        str_set(out, "");
        return;
    }
    wchar_t *buf = (wchar_t *) mem_alloc((size_t) n * sizeof(wchar_t));
    DWORD got = GetCurrentDirectoryW(n, buf);
    os_utf8_from_wide(out, buf, got < n ? (int) got : 0);
    mem_free(buf);
}

bool os_path_is_absolute(const char *path) {
    if (!path) {
        return false;
    }
    bool sep0 = path[0] == '\\' || path[0] == '/';
    if (sep0 && (path[1] == '\\' || path[1] == '/')) {
        return true; // UNC or device path
    }
    char c = path[0];
    bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    return letter && path[1] == ':' && (path[2] == '\\' || path[2] == '/');
}

bool os_getenv(const char *name, str_t *out) {
    os_wide_t w;
    os_wide_init(&w, name);
    DWORD n = GetEnvironmentVariableW(w.ptr, nullptr, 0);
    if (n == 0) {
        os_wide_kill(&w);
        return false;
    }
    wchar_t *buf = (wchar_t *) mem_alloc((size_t) n * sizeof(wchar_t));
    DWORD got = GetEnvironmentVariableW(w.ptr, buf, n);
    os_wide_kill(&w);
    if (got >= n) {
        mem_free(buf);
        return false;
    }
    os_utf8_from_wide(out, buf, (int) got);
    mem_free(buf);
    return true;
}
