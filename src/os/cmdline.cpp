// Command-line quoting. Two rules live here: the Windows one, which the C runtime and CommandLineToArgvW
// read, and the program's own, which its command-line tokeniser reads. The program builds every command
// line that it reads back itself (its own line on Linux, a child's line, a hand-over) by its own rule, so
// that a line parses the same wherever it is read.
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/os_main.h"

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

static bool _os_is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

void os_main_quote_arg(str_t *out, const char *arg) {
    bool plain = *arg != 0;
    for (const char *p = arg; *p && plain; p++) {
        plain = *p != '"' && !_os_is_blank(*p);
    }
    if (plain) {
        str_cat_z(out, arg);
        return;
    }
    // Inside quotes only a quote is special, and three of them stand for one. A run of quotes in the
    // result holds at most the two quotes that open and close besides the triples, and the tokeniser
    // reads such a run the same way whichever it takes first.
    str_cat_char(out, '"');
    for (const char *p = arg; *p; p++) {
        if (*p == '"') {
            str_cat_z(out, "\"\"\"");
        } else {
            str_cat_char(out, *p);
        }
    }
    str_cat_char(out, '"');
}
