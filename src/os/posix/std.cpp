// Standard streams and the process's own figures on Linux.
#include "os/os_internal.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

bool os_std_write(int stream, const void *data, size_t n) {
    int fd = stream == OS_STDERR ? STDERR_FILENO : STDOUT_FILENO;
    const char *p = (const char *) data;
    while (n > 0) {
        ssize_t r = write(fd, p, n);
        if (r < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        p += r;
        n -= (size_t) r;
    }
    return true;
}

bool os_std_is_terminal(int stream) {
    return isatty(stream == OS_STDERR ? STDERR_FILENO : STDOUT_FILENO) == 1;
}

uint64_t os_peak_memory() {
    // The kernel keeps the high-water mark of the resident set itself; nothing cheaper says the same.
    FILE *f = fopen("/proc/self/status", "r");
    if (!f)
        return 0;
    char line[256];
    uint64_t kib = 0;
    while (fgets(line, sizeof line, f)) {
        if (strncmp(line, "VmHWM:", 6) == 0) {
            kib = strtoull(line + 6, nullptr, 10);
            break;
        }
    }
    fclose(f);
    return kib * 1024;
}

uint32_t os_fixed_drives() {
    return 0;
}
