// Creating a whole folder path, on top of the platform's single-folder calls.
#include "mem/mem.h"
#include "os/os_internal.h"

static bool _os_is_sep(char c) {
#ifdef _WIN32
    return c == '\\' || c == '/';
#else
    return c == '/';
#endif
}

// Each prefix that ends before a separator is tried in turn, from the root down. A prefix that can't be
// made (a drive root, a UNC server name, a folder that exists already) is simply passed: whether the whole
// path exists at the end is the only answer that matters.
bool os_folder_create_path(const char *path) {
    if (!path || !path[0]) {
        return false;
    }
    if (os_folder_exists(path)) {
        return true;
    }
    str_t buf;
    str_init(&buf);
    str_set(&buf, path);
    int n = buf.len;
    while (n > 1 && _os_is_sep(buf.ptr[n - 1])) {
        buf.ptr[--n] = 0;
    }
    for (int i = 1; i < n; i++) {
        if (_os_is_sep(buf.ptr[i]) && !_os_is_sep(buf.ptr[i - 1])) {
            buf.ptr[i] = 0;
            if (!os_folder_exists(buf.ptr)) {
                os_folder_create(buf.ptr);
            }
            buf.ptr[i] = path[i];
        }
    }
    os_folder_create(buf.ptr);
    bool ok = os_folder_exists(buf.ptr);
    str_kill(&buf);
    return ok;
}
