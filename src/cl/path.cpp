// Absolute paths for the command line. Both path styles live here side by side, chosen by the separator,
// so that either can be checked on any build: '\\' reads drive letters, UNC names and '/' as a separator;
// '/' is POSIX, where '\\' is an ordinary character of a name.
#include "cl/cl.h"
#include "cl/cl_internal.h"

#include "mem/mem.h"

#include <cstring>

static bool _cl_is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Length of the root at the start of a full path in sep's style: "C:\" 3, "C:" 2, "\\server\share\" up
// to and with the separator after the share, "\" or "/" 1, none 0.
static int _cl_root_length(const char *p, char sep) {
    if (sep == '\\') {
        if (_cl_is_letter(p[0]) && p[1] == ':') {
            return p[2] == '\\' ? 3 : 2;
        }
        if (p[0] == '\\' && p[1] == '\\') {
            int i = 2;
            for (int part = 0; part < 2; part++) {
                while (p[i] && p[i] != '\\') {
                    i++;
                }
                if (p[i] == '\\') {
                    i++;
                }
            }
            return i;
        }
    }
    return p[0] == sep ? 1 : 0;
}

// Joins the path with its base by the style's rules; the result may still hold "." and "..".
static void _cl_join(str_t *full, const char *p, const char *base, char sep) {
    str_clear(full);
    if (sep == '\\') {
        bool drive = _cl_is_letter(p[0]) && p[1] == ':';
        if ((drive && p[2] == '\\') || (p[0] == '\\' && p[1] == '\\')) {
            str_cat_z(full, p);
            return;
        }
        if (drive) {
            // "D:x" is relative to the current folder of drive D, which the process only knows for the
            // base's own drive; elsewhere it is taken from that drive's root.
            bool same =
                _cl_is_letter(base[0]) && base[1] == ':' && cl_ascii_lower(base[0]) == cl_ascii_lower(p[0]);
            if (same) {
                str_cat_z(full, base);
            } else {
                str_cat(full, p, 2);
            }
            str_cat_char(full, '\\');
            str_cat_z(full, p + 2);
            return;
        }
        if (p[0] == '\\') {
            int root = _cl_root_length(base, sep);
            // The base's drive or share, without the separator that the path brings itself.
            while (root > 0 && base[root - 1] == '\\') {
                root--;
            }
            str_cat(full, base, root);
            str_cat_z(full, p);
            return;
        }
    } else if (p[0] == '/') {
        str_cat_z(full, p);
        return;
    }
    str_cat_z(full, base);
    if (full->len > 0 && full->ptr[full->len - 1] != sep) {
        str_cat_char(full, sep);
    }
    str_cat_z(full, p);
}

// True when out, beyond its root, ends in the component ".." and its separator: a further ".." can't
// cancel that one, since a path without a root has nothing above it to climb to.
static bool _cl_ends_in_dotdot(const str_t *out, int root, char sep) {
    int body = out->len - root;
    const char *e = out->ptr + out->len;
    return body >= 3 && e[-2] == '.' && e[-3] == '.' && (body == 3 || e[-4] == sep);
}

static void _cl_normalize(str_t *out, const str_t *full, char sep) {
    const char *p = full->ptr;
    int root = _cl_root_length(p, sep);
    str_set_n(out, p, root);
    bool trailing = full->len > root && full->ptr[full->len - 1] == sep;
    int i = root;
    while (i < full->len) {
        int start = i;
        while (i < full->len && p[i] != sep) {
            i++;
        }
        int n = i - start;
        if (i < full->len) {
            i++;
        }
        if (n == 0 || (n == 1 && p[start] == '.')) {
            continue;
        }
        if (n == 2 && p[start] == '.' && p[start + 1] == '.') {
            // out holds components each followed by one separator; drop the last, never the root. Without
            // a root there is nothing to climb to, so the ".." stays.
            if (out->len > root && !_cl_ends_in_dotdot(out, root, sep)) {
                int cut = out->len - 1;
                while (cut > root && out->ptr[cut - 1] != sep) {
                    cut--;
                }
                out->len = cut;
                out->ptr[cut] = 0;
                continue;
            }
            if (root > 0) {
                continue;
            }
        }
        str_cat(out, p + start, n);
        str_cat_char(out, sep);
    }
    if (!trailing && out->len > root) {
        out->len--;
        out->ptr[out->len] = 0;
    }
}

void cl_path_absolute(str_t *out, const char *path, const char *base, char sep) {
    str_clear(out);
    if (!path || !*path) {
        return;
    }
    if (!base) {
        base = "";
    }
    str_t p, b, full;
    str_init(&p);
    str_init(&b);
    str_init(&full);
    str_set(&p, path);
    str_set(&b, base);
    if (sep == '\\') {
        for (int i = 0; i < p.len; i++) {
            if (p.ptr[i] == '/') {
                p.ptr[i] = '\\';
            }
        }
        for (int i = 0; i < b.len; i++) {
            if (b.ptr[i] == '/') {
                b.ptr[i] = '\\';
            }
        }
    }
    _cl_join(&full, p.ptr, b.ptr, sep);
    _cl_normalize(out, &full, sep);
    str_kill(&full);
    str_kill(&b);
    str_kill(&p);
}
