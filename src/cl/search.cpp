// The search that a command line asks for: the text of its search parts, the -url form, and -sort.
#include "cl/cl.h"
#include "cl/cl_internal.h"

#include "mem/mem.h"
#include "os/os.h"
#include "text/text.h"

#include <cstring>

// ---- -url ----------------------------------------------------------------------------------------------

void cl_url_decode(str_t *out, const char *url) {
    str_clear(out);
    const char *p = url;
    int n = (int) strlen(url);
    int slash = -1; // the one '/' that a browser puts before the end, '#' or '?' of "sw://text"
    if (n >= 3 && cl_ascii_equal_nocase(p, "sw:", 3)) {
        p += 3;
        n -= 3;
        if (n >= 2 && p[0] == '/' && p[1] == '/') {
            p += 2;
            n -= 2;
        }
        for (int i = 0; i < n; i++) {
            if (p[i] == '/' && (i + 1 == n || p[i + 1] == '#' || p[i + 1] == '?')) {
                slash = i;
                break;
            }
        }
    }
    for (int i = 0; i < n; i++) {
        if (i == slash) {
            continue;
        }
        if (p[i] == '%' && i + 2 < n && text_hex_digit(p[i + 1]) >= 0 && text_hex_digit(p[i + 2]) >= 0) {
            str_cat_char(out, (char) (text_hex_digit(p[i + 1]) * 16 + text_hex_digit(p[i + 2])));
            i += 2;
            continue;
        }
        str_cat_char(out, p[i]);
    }
}

// ---- -sort ---------------------------------------------------------------------------------------------

// The result list's columns, by index.
static const char *const _cl_columns[] = {
    "Name",
    "Path",
    "Size",
    "Extension",
    "Type",
    "Date Modified",
    "Date Created",
    "Date Accessed",
    "Attributes",
    "Date Recently Changed",
    "Run Count",
    "Date Run",
    "File List Filename",
};

static bool _cl_column_filler(char c) {
    return c == ' ' || c == '-' || c == '_';
}

// Compares text with a column name, case-blind, skipping blanks, hyphens and underscores on both sides, so
// that "date-modified", "DateModified" and "Date Modified" are one name.
static bool _cl_column_matches(const char *name, const char *text, int len) {
    int i = 0;
    for (;;) {
        while (*name && _cl_column_filler(*name)) {
            name++;
        }
        while (i < len && _cl_column_filler(text[i])) {
            i++;
        }
        if (!*name || i == len) {
            return !*name && i == len;
        }
        if (cl_ascii_lower(*name) != cl_ascii_lower(text[i])) {
            return false;
        }
        name++;
        i++;
    }
}

int cl_sort_column(const char *text, int len) {
    for (int c = 0; c < (int) (sizeof(_cl_columns) / sizeof(_cl_columns[0])); c++) {
        if (_cl_column_matches(_cl_columns[c], text, len)) {
            return c;
        }
    }
    return 0;
}

// ---- the search text -----------------------------------------------------------------------------------

void cl_regex_escape(str_t *out, const char *text) {
    for (const char *p = text; *p; p++) {
        if (strchr("$()*+.?[\\^{|", *p)) {
            str_cat_char(out, '\\');
        }
        str_cat_char(out, *p);
    }
}

static void _cl_search_part(str_t *out, const cl_search_part_t *part) {
    if (out->len > 0 && out->ptr[out->len - 1] != ' ') {
        str_cat_char(out, ' ');
    }
    switch (part->kind) {
    case CL_SEARCH_TEXT:
        str_cat_z(out, part->text);
        return;
    case CL_SEARCH_PATH:
        str_cat_printf(out, "\"%s\" ", part->text);
        return;
    case CL_SEARCH_PARENT:
        str_cat_printf(out, "parent:\"%s\" ", part->text);
        return;
    case CL_SEARCH_NAME_PART:
        str_cat_printf(out, "nopath:wfn:\"%s\" ", part->text);
        return;
    case CL_SEARCH_FILE_LIST:
        str_cat_printf(out, "filelist:\"%s\" ", part->text);
        return;
    }
}

// A separator in a pattern: the platform's, escaped where it is a backslash.
static void _cl_regex_sep(str_t *out) {
    if (OS_SEP == '\\') {
        str_cat_z(out, "\\\\");
    } else {
        str_cat_char(out, OS_SEP);
    }
}

static void _cl_regex_part(str_t *out, const cl_search_part_t *part) {
    switch (part->kind) {
    case CL_SEARCH_TEXT:
        str_cat_z(out, part->text);
        return;
    case CL_SEARCH_PATH:
        str_cat_char(out, '^');
        cl_regex_escape(out, part->text);
        return;
    case CL_SEARCH_PARENT:
        // Whatever stands in the folder itself, and nothing below it.
        str_cat_char(out, '^');
        cl_regex_escape(out, part->text);
        _cl_regex_sep(out);
        str_cat_z(out, "[^");
        _cl_regex_sep(out);
        str_cat_z(out, "]*$");
        return;
    case CL_SEARCH_NAME_PART:
        str_cat_z(out, "^.*");
        _cl_regex_sep(out);
        cl_regex_escape(out, part->text);
        str_cat_char(out, '$');
        return;
    }
}

void cl_build_search(str_t *out, bool regex_mode, const cl_t *cl) {
    str_clear(out);
    if (!regex_mode) {
        for (const cl_search_part_t *p = cl->search_parts; p; p = p->next) {
            _cl_search_part(out, p);
        }
        return;
    }
    // A file list has no regular expression form, so it neither writes nor counts as a part.
    int count = 0;
    for (const cl_search_part_t *p = cl->search_parts; p; p = p->next) {
        count += p->kind != CL_SEARCH_FILE_LIST;
    }
    for (const cl_search_part_t *p = cl->search_parts; p; p = p->next) {
        if (p->kind == CL_SEARCH_FILE_LIST) {
            continue;
        }
        // Several parts must all hold for one name, in any order: each becomes a look-ahead.
        if (count > 1) {
            str_cat_z(out, "(?=.*");
        }
        _cl_regex_part(out, p);
        if (count > 1) {
            str_cat_char(out, ')');
        }
    }
}
