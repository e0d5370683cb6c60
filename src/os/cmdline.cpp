// Command-line quoting, shared by both platforms: Linux rebuilds its command line in the Windows form so
// that one parser reads both, and child processes are started with arguments quoted the same way.
#include "mem/mem.h"
#include "os/os_internal.h"

#include <cstring>

// Appends one argument so that the Windows command-line rules read it back unchanged: quoted when it is
// empty or holds a blank or a quote; inside quotes, backslashes before a quote (or the closing quote) are
// doubled and the quote itself is escaped.
void os_quote_arg(str_t *out, const char *arg) {
    if (arg[0] && !strpbrk(arg, " \t\"")) {
        str_cat_z(out, arg);
        return;
    }
    str_cat_char(out, '"');
    int slashes = 0;
    for (const char *p = arg; *p; p++) {
        if (*p == '\\') {
            slashes++;
            continue;
        }
        int repeat = *p == '"' ? slashes * 2 + 1 : slashes;
        for (int i = 0; i < repeat; i++) {
            str_cat_char(out, '\\');
        }
        slashes = 0;
        str_cat_char(out, *p);
    }
    for (int i = 0; i < slashes * 2; i++) {
        str_cat_char(out, '\\');
    }
    str_cat_char(out, '"');
}
