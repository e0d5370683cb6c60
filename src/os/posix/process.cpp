// The process on Linux: start-up, identity, the command line and ending.
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/os_main.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <unistd.h>

void os_init() {}

void os_kill() {
    os_thread_pool_kill();
}

int os_real_processor_count() {
    long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? (int) n : 1;
}

bool os_is_admin() {
    return geteuid() == 0;
}

void os_platform_name(str_t *out) {
    struct utsname u;
    if (uname(&u) != 0) {
        str_set(out, "Linux");
        return;
    }
    // The release up to its first '-' ("6.1.0-18-amd64" gives "6.1.0").
    const char *dash = strchr(u.release, '-');
    int n = dash ? (int) (dash - u.release) : (int) strlen(u.release);
    str_printf(out, "%s %t", u.sysname, u.release, n);
}

// Reads a small file whose size stat can't tell (files under /proc report 0) into out.
static bool _os_read_small_file(const char *path, str_t *out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    str_clear(out);
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) {
            break;
        }
        str_cat(out, buf, (int) n);
    }
    close(fd);
    return true;
}

void os_processor_name(str_t *out) {
    str_t info;
    str_init(&info);
    str_set(out, "unknown");
    if (_os_read_small_file("/proc/cpuinfo", &info)) {
        const char *line = strstr(info.ptr, "model name");
        const char *colon = line ? strchr(line, ':') : nullptr;
        if (colon) {
            const char *start = colon + 1;
            while (*start == ' ' || *start == '\t') {
                start++;
            }
            const char *end = strchr(start, '\n');
            int n = end ? (int) (end - start) : (int) strlen(start);
            while (n > 0 && (start[n - 1] == ' ' || start[n - 1] == '\t')) {
                n--;
            }
            if (n > 0) {
                str_set_n(out, start, n);
            }
        }
    }
    str_kill(&info);
}

void os_command_line(str_t *out) {
    str_t raw;
    str_init(&raw);
    str_clear(out);
    if (_os_read_small_file("/proc/self/cmdline", &raw)) {
        // The arguments are zero-terminated one after another. They are quoted by the rule the program's
        // tokeniser reads, so that the line handed to a running instance parses as this one does.
        for (int i = 0; i < raw.len;) {
            const char *arg = raw.ptr + i;
            if (out->len) {
                str_cat_char(out, ' ');
            }
            os_main_quote_arg(out, arg);
            i += (int) strlen(arg) + 1;
        }
    }
    str_kill(&raw);
}

void os_exit(int code) {
    // Like ExitProcess, end at once: static destructors must not run while other threads still use what
    // they destroy. Buffered standard streams are the only state that would be lost, so flush them first.
    fflush(nullptr);
    _exit(code);
}

void os_show_fatal(const char *text) {
    size_t n = strlen(text);
    // Nothing can be done about a failed write on the way out.
    if (write(STDERR_FILENO, text, n) < 0 || write(STDERR_FILENO, "\n", 1) < 0) {
        return;
    }
}
