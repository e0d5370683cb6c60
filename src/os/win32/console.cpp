// The log's console on Windows: a console window of the process's own, written in UTF-16 with colour
// attributes, or the bytes themselves when standard output was redirected to a file or a pipe.
#include "os/os_internal.h"
#include "os/win32/wide.h"

bool os_console_open() {
    HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD type = out && out != INVALID_HANDLE_VALUE ? GetFileType(out) : FILE_TYPE_UNKNOWN;
    FreeConsole();
    if (!AllocConsole()) {
        return false;
    }
    // A redirected standard output stays where the user sent it.
    if (type == FILE_TYPE_DISK || type == FILE_TYPE_PIPE) {
        SetStdHandle(STD_OUTPUT_HANDLE, out);
    }
    HANDLE con = CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                             nullptr, OPEN_EXISTING, 0, nullptr);
    if (con != INVALID_HANDLE_VALUE) {
        COORD size = {80, 4096};
        SetConsoleScreenBufferSize(con, size);
        CloseHandle(con);
    }
    return true;
}

// Units or bytes with every lone LF made CR LF; a CR LF stays as it is.
template <typename T>
static int _os_crlf(const T *in, int n, T *out) {
    int k = 0;
    for (int i = 0; i < n; i++) {
        if (in[i] == '\n' && (i == 0 || in[i - 1] != '\r')) {
            if (out) {
                out[k] = '\r';
            }
            k++;
        }
        if (out) {
            out[k] = in[i];
        }
        k++;
    }
    return k;
}

static void _os_write_file(HANDLE h, const char *utf8, int len) {
    int n = _os_crlf(utf8, len, (char *) nullptr);
    char *buf = (char *) mem_alloc((size_t) n);
    _os_crlf(utf8, len, buf);
    DWORD put = 0;
    WriteFile(h, buf, (DWORD) n, &put, nullptr);
    mem_free(buf);
}

void os_console_write(const char *utf8, int len, uint32_t attribute) {
    if (len <= 0) {
        return;
    }
    HANDLE h = GetStdHandle(STD_OUTPUT_HANDLE);
    if (!h || h == INVALID_HANDLE_VALUE) {
        return;
    }
    if (GetFileType(h) != FILE_TYPE_CHAR) {
        _os_write_file(h, utf8, len);
        return;
    }
    os_wide_t w;
    os_wide_init(&w, utf8, len);
    int n = _os_crlf(w.ptr, w.len, (wchar_t *) nullptr);
    wchar_t *buf = (wchar_t *) mem_alloc((size_t) n * sizeof(wchar_t));
    _os_crlf(w.ptr, w.len, buf);
    os_wide_kill(&w);
    bool colour = attribute != 0 && attribute != 7;
    WORD old = 7;
    if (colour) {
        CONSOLE_SCREEN_BUFFER_INFO info;
        if (GetConsoleScreenBufferInfo(h, &info)) {
            old = info.wAttributes;
        }
        SetConsoleTextAttribute(h, (WORD) attribute);
    }
    DWORD put = 0;
    if (!WriteConsoleW(h, buf, (DWORD) n, &put, nullptr)) {
        // A character device that is not a console (a serial line, Wine's Unix terminal): plain bytes.
        _os_write_file(h, utf8, len);
    }
    if (colour) {
        SetConsoleTextAttribute(h, old);
    }
    mem_free(buf);
}
