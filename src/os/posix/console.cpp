// The log's console on Linux is standard error. Colours are ANSI escapes, written only to a terminal so
// that a redirected log stays plain text.
#include "os/os_internal.h"

#include <errno.h>
#include <unistd.h>

bool os_console_open() {
    return true;
}

static void _os_write_stderr(const char *p, size_t n) {
    while (n > 0) {
        ssize_t r = write(STDERR_FILENO, p, n);
        if (r < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        p += r;
        n -= (size_t) r;
    }
}

void os_console_write(const char *utf8, int len, uint32_t attribute) {
    if (len <= 0) {
        return;
    }
    uint32_t fg = attribute & 0x0F;
    if (fg == 0 || fg == 7 || !isatty(STDERR_FILENO)) {
        _os_write_stderr(utf8, (size_t) len);
        return;
    }
    // Windows orders the colour bits blue, green, red; ANSI red, green, blue. Intensity picks the bright
    // range (90-97) instead of 30-37.
    int ansi = ((fg & 4) ? 1 : 0) | ((fg & 2) ? 2 : 0) | ((fg & 1) ? 4 : 0);
    char esc[8] = {'\x1b', '[', (fg & 8) ? '9' : '3', (char) ('0' + ansi), 'm'};
    // The reset goes before a final line end, so the colour never bleeds into the next line.
    int body = len;
    while (body > 0 && (utf8[body - 1] == '\n' || utf8[body - 1] == '\r')) {
        body--;
    }
    _os_write_stderr(esc, 5);
    _os_write_stderr(utf8, (size_t) body);
    _os_write_stderr("\x1b[0m", 4);
    _os_write_stderr(utf8 + body, (size_t) (len - body));
}
