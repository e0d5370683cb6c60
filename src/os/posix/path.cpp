// Well-known folders and path tests on Linux.
#include "mem/mem.h"
#include "os/os_internal.h"

#include <limits.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

// Drops trailing separators but keeps a lone "/".
static void _os_strip_trailing_sep(str_t *s) {
    while (s->len > 1 && s->ptr[s->len - 1] == '/') {
        s->ptr[--s->len] = 0;
    }
}

void os_temp_folder(str_t *out) {
    const char *dir = getenv("TMPDIR");
    str_set(out, dir && dir[0] == '/' ? dir : "/tmp");
    _os_strip_trailing_sep(out);
}

void os_exe_path(str_t *out) {
    char buf[PATH_MAX + 1];
    ssize_t n = readlink("/proc/self/exe", buf, PATH_MAX);
    if (n <= 0) {
        str_set(out, "");
        return;
    }
    str_set_n(out, buf, (int) n);
}

void os_exe_folder(str_t *out) {
    os_exe_path(out);
    char *slash = strrchr(out->ptr, '/');
    if (!slash) {
        return;
    }
    // The folder of "/sablewatch" is the root, written "/".
    int n = slash == out->ptr ? 1 : (int) (slash - out->ptr);
    out->len = n;
    out->ptr[n] = 0;
}

static void _os_home_folder(str_t *out) {
    const char *home = getenv("HOME");
    if (home && home[0]) {
        str_set(out, home);
        return;
    }
    struct passwd pw;
    struct passwd *found = nullptr;
    char buf[4096];
    if (getpwuid_r(geteuid(), &pw, buf, sizeof(buf), &found) == 0 && found && found->pw_dir) {
        str_set(out, found->pw_dir);
        return;
    }
    str_set(out, "/tmp");
}

void os_app_data_folder(str_t *out) {
    // The XDG rules ignore a relative $XDG_CONFIG_HOME.
    const char *config = getenv("XDG_CONFIG_HOME");
    if (config && config[0] == '/') {
        str_set(out, config);
        _os_strip_trailing_sep(out);
    } else {
        _os_home_folder(out);
        _os_strip_trailing_sep(out);
        str_cat_z(out, out->len == 1 ? ".config" : "/.config");
    }
    str_cat_z(out, out->len == 1 ? "Sablewatch" : "/Sablewatch");
}

void os_current_folder(str_t *out) {
    char buf[PATH_MAX + 1];
    if (!getcwd(buf, sizeof(buf))) {
        str_set(out, "");
        return;
    }
    str_set(out, buf);
}

bool os_path_is_absolute(const char *path) {
    return path && path[0] == '/';
}

bool os_getenv(const char *name, str_t *out) {
    const char *value = getenv(name);
    if (!value) {
        return false;
    }
    str_set(out, value);
    return true;
}
