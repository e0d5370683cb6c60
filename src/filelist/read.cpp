// Reading a list: the header names the columns, each further row becomes one item with its path
// resolved and its numbers parsed. No row is ever an error: bad digits stop a number, a row without a
// name is passed over.
#include "filelist/filelist.h"

#include <cstring>

#include "debug/debug.h"
#include "filelist/date.h"
#include "mem/mem.h"
#include "text/text.h"

enum { _COL_FILENAME, _COL_SIZE, _COL_CREATED, _COL_MODIFIED, _COL_ACCESSED, _COL_ATTRIBUTES, _COL_COUNT };

static const char *const _column_names[_COL_COUNT] = {"Filename",      "Size",          "Date Created",
                                                      "Date Modified", "Date Accessed", "Attributes"};

void filelist_init(filelist_t *list, char sep) {
    mem_stack_init(&list->pool);
    list->first = nullptr;
    list->last = nullptr;
    list->count = 0;
    list->sep = sep;
}

void filelist_kill(filelist_t *list) {
    mem_stack_kill(&list->pool);
    list->first = nullptr;
    list->last = nullptr;
    list->count = 0;
}

// ---- paths ---------------------------------------------------------------------------------------------

// Windows takes either slash as a separator when it walks a path; Linux only its own.
static bool _is_sep(char c, char sep) {
    return c == '/' || (sep == '\\' && c == '\\');
}

void filelist_base_dir(str_t *out, const char *list_path, char sep) {
    size_t n = strlen(list_path);
    while (n > 0 && !_is_sep(list_path[n - 1], sep)) {
        n--;
    }
    str_set_n(out, list_path, n ? (int) n - 1 : 0);
}

// A drive path ("X:...") or a server path ("\\\\server..."). On Linux the drive must be a letter followed
// by a backslash or nothing, since "a:b" is an ordinary Linux name.
static bool _is_windows_absolute(const char *p, size_t len, char sep) {
    if (len >= 2 && p[0] == '\\' && p[1] == '\\') {
        return true;
    }
    if (len < 2 || p[1] != ':') {
        return false;
    }
    if (sep == '\\') {
        return true;
    }
    bool letter = (p[0] >= 'A' && p[0] <= 'Z') || (p[0] >= 'a' && p[0] <= 'z');
    return letter && (len == 2 || p[2] == '\\');
}

bool filelist_path_is_absolute(const char *p, size_t len, char sep) {
    if (len >= 1 && p[0] == '/') {
        return true;
    }
    if (_is_windows_absolute(p, len, sep)) {
        return true;
    }
    if (sep != '\\') {
        return false;
    }
    // A name with a scheme or a stream ("http:...", "x:y") before any folder stands on its own too.
    for (size_t i = 0; i < len; i++) {
        if (p[i] == '/' || p[i] == '\\') {
            return false;
        }
        if (p[i] == ':') {
            return true;
        }
    }
    return false;
}

// Length of the part of a canonical path that ".." may not climb above: "X:", "\\server\share", or the
// leading separator of a Linux path.
static size_t _root_length(const char *p, size_t len, char sep) {
    if (sep == '\\') {
        if (len >= 2 && p[1] == ':') {
            return 2;
        }
        if (len >= 2 && _is_sep(p[0], sep) && _is_sep(p[1], sep)) {
            size_t i = 2;
            int parts = 0;
            while (i < len) {
                if (_is_sep(p[i], sep) && ++parts == 2) {
                    break;
                }
                i++;
            }
            return i;
        }
        return 0;
    }
    return len >= 1 && p[0] == '/' ? 1 : 0;
}

// Rewrites the path in s in canonical form, through a second buffer: a drive-relative text like "D:x"
// would otherwise have its first byte overwritten by the separator written in front of it.
static void _canonicalise(str_t *s, char sep) {
    const char *p = s->ptr;
    size_t len = (size_t) s->len;
    size_t root = _root_length(p, len, sep);
    str_t out;
    str_init(&out);
    str_reserve(&out, (int) len + 2);
    char *o = out.ptr;
    for (size_t i = 0; i < root; i++) {
        o[i] = _is_sep(p[i], sep) ? sep : p[i];
    }
    bool trailing = len > root && _is_sep(p[len - 1], sep);
    size_t w = root; // end of the written text
    size_t r = root;
    while (r < len) {
        while (r < len && _is_sep(p[r], sep)) {
            r++;
        }
        size_t start = r;
        while (r < len && !_is_sep(p[r], sep)) {
            r++;
        }
        size_t n = r - start;
        if (n == 0 || (n == 1 && p[start] == '.')) {
            continue;
        }
        if (n == 2 && p[start] == '.' && p[start + 1] == '.') {
            // Back to the separator in front of the last written component, or to the root.
            size_t k = w;
            while (k > root && o[k - 1] != sep) {
                k--;
            }
            w = k > root ? k - 1 : root;
            continue;
        }
        if (w > 0 && o[w - 1] != sep) {
            o[w++] = sep;
        }
        memcpy(o + w, p + start, n);
        w += n;
    }
    if (trailing && (w == 0 || o[w - 1] != sep)) {
        o[w++] = sep;
    }
    str_set_n(s, o, (int) w);
    str_kill(&out);
}

// Turns the other platform's separator into this one's in an absolute path of the other platform.
static void _turn_separators(str_t *s, char from, char to) {
    for (int i = 0; i < s->len; i++) {
        if (s->ptr[i] == from) {
            s->ptr[i] = to;
        }
    }
}

void filelist_resolve_path(str_t *out, const char *base_dir, const char *path, size_t len, char sep) {
    if (filelist_path_is_absolute(path, len, sep)) {
        str_set_n(out, path, (int) len);
        if (sep == '/' && path[0] != '/') {
            _turn_separators(out, '\\', '/');
        } else if (sep == '\\' && path[0] == '/') {
            _turn_separators(out, '/', '\\');
        }
        return;
    }
    size_t base_len = strlen(base_dir);
    if (len >= 1 && _is_sep(path[0], sep)) {
        str_set_n(out, base_dir, (int) _root_length(base_dir, base_len, sep));
    } else {
        str_set_n(out, base_dir, (int) base_len);
        if (base_len) {
            str_cat_char(out, sep);
        }
    }
    str_cat(out, path, (int) len);
    _canonicalise(out, sep);
}

// ---- rows ----------------------------------------------------------------------------------------------

// Leading decimal digits, wrapping; no digits give 0.
static uint64_t _parse_number(const char *s) {
    uint64_t v = 0;
    while (*s >= '0' && *s <= '9') {
        v = v * 10 + (uint64_t) (*s - '0');
        s++;
    }
    return v;
}

// Reads the header row: for each known column its position (the last one of a name wins), and the count
// of all columns. False when there is no header or no "Filename".
static bool _read_header(csv_t *csv, int *positions, int *column_count) {
    for (int c = 0; c < _COL_COUNT; c++) {
        positions[c] = -1;
    }
    int count = 0;
    const char *field;
    while ((field = csv_read_field(csv))) {
        for (int c = 0; c < _COL_COUNT; c++) {
            if (utf8_strcmp_lower(field, _column_names[c]) == 0) {
                positions[c] = count;
            }
        }
        count++;
    }
    *column_count = count;
    csv_next_row(csv);
    return positions[_COL_FILENAME] >= 0;
}

static void _add_item(filelist_t *list, const char *path, size_t len, const os_file_info_t *fd,
                      uint8_t flags) {
    size_t size = offsetof(filelist_item_t, path) + len + 1;
    filelist_item_t *item = (filelist_item_t *) mem_stack_alloc(&list->pool, size);
    item->next = nullptr;
    item->fd = *fd;
    item->path_len = (uint32_t) len;
    item->flags = flags;
    memcpy(item->path, path, len);
    item->path[len] = 0;
    if (list->last) {
        list->last->next = item;
    } else {
        list->first = item;
    }
    list->last = item;
    list->count++;
}

// Where accepted rows go: items of a list, or a tree built as they come.
struct _rows_t {
    filelist_t *list;
    filelist_stream_t *stream;
    char sep;
    uint32_t count;
};

static void _accept(_rows_t *rows, const char *path, size_t len, const os_file_info_t *fd, uint8_t flags) {
    if (rows->stream) {
        filelist_stream_row(rows->stream, path, len, fd, flags);
    } else {
        _add_item(rows->list, path, len, fd, flags);
    }
    rows->count++;
}

// One row: the fields of known columns by position; what lies beyond the header's count is left for
// csv_next_row to read past.
static void _read_row(_rows_t *rows, csv_t *csv, const int *positions, int column_count, const char *base_dir,
                      const filelist_options_t *options, str_t *path) {
    const char *values[_COL_COUNT] = {};
    int filename_len = 0;
    for (int i = 0; i < column_count; i++) {
        int len;
        const char *field = csv_read_field(csv, &len);
        if (!field) {
            break;
        }
        for (int c = 0; c < _COL_COUNT; c++) {
            if (positions[c] == i) {
                values[c] = field;
                if (c == _COL_FILENAME) {
                    filename_len = len;
                }
            }
        }
    }
    if (!values[_COL_FILENAME] || filename_len == 0) {
        return;
    }
    uint32_t attributes = (uint32_t) (values[_COL_ATTRIBUTES] ? _parse_number(values[_COL_ATTRIBUTES]) : 0);
    if ((options->exclude_hidden && (attributes & OS_ATTR_HIDDEN)) ||
        (options->exclude_system && (attributes & OS_ATTR_SYSTEM))) {
        return;
    }
    bool folder = (attributes & OS_ATTR_DIRECTORY) != 0;
    os_file_info_t fd;
    if (folder) {
        fd.size = 0;
    } else {
        fd.size = values[_COL_SIZE] && values[_COL_SIZE][0] ? _parse_number(values[_COL_SIZE]) : UINT64_MAX;
    }
    fd.date_created = filelist_parse_date(values[_COL_CREATED]);
    fd.date_modified = filelist_parse_date(values[_COL_MODIFIED]);
    fd.date_accessed = filelist_parse_date(values[_COL_ACCESSED]);
    fd.attributes = attributes;
    const char *name = values[_COL_FILENAME];
    uint8_t flags = folder ? FILELIST_ITEM_FOLDER : 0;
    // The common row names an absolute path in this platform's own form: resolving would copy it as it
    // stands, so it goes from the field into the item at once.
    bool turned = rows->sep == '/' ? name[0] != '/' : name[0] == '/';
    if (!turned && filelist_path_is_absolute(name, (size_t) filename_len, rows->sep)) {
        _accept(rows, name, (size_t) filename_len, &fd, flags);
        return;
    }
    filelist_resolve_path(path, base_dir, name, (size_t) filename_len, rows->sep);
    _accept(rows, path->ptr, (size_t) path->len, &fd, flags);
}

// Every row after the header, into rows. Logs "items %d".
static void _read_rows(_rows_t *rows, csv_t *csv, const int *positions, int column_count,
                       const char *base_dir, const filelist_options_t *options) {
    str_t path;
    str_init(&path);
    do {
        _read_row(rows, csv, positions, column_count, base_dir, options, &path);
    } while (csv_next_row(csv));
    str_kill(&path);
    debug_printf("items %d\n", (int) rows->count);
}

int filelist_read_csv(filelist_t *list, csv_t *csv, const char *base_dir, const filelist_options_t *options) {
    int positions[_COL_COUNT];
    int column_count;
    if (!_read_header(csv, positions, &column_count)) {
        return FILELIST_NO_FILENAME;
    }
    _rows_t rows = {list, nullptr, list->sep, 0};
    _read_rows(&rows, csv, positions, column_count, base_dir, options);
    return FILELIST_OK;
}

int filelist_read_tree_csv(csv_t *csv, const char *base_dir, const filelist_options_t *options,
                           const filelist_sink_t *sink, char sep) {
    int positions[_COL_COUNT];
    int column_count;
    if (!_read_header(csv, positions, &column_count)) {
        return FILELIST_NO_FILENAME;
    }
    _rows_t rows = {nullptr, filelist_stream_create(sink, sep), sep, 0};
    _read_rows(&rows, csv, positions, column_count, base_dir, options);
    filelist_stream_finish(rows.stream);
    return FILELIST_OK;
}

// Opens the list and takes its folder as the base of relative rows.
static csv_t *_open(const char *path, char sep, str_t *base) {
    csv_t *csv = csv_open(path);
    if (csv) {
        filelist_base_dir(base, path, sep);
    }
    return csv;
}

int filelist_read(filelist_t *list, const char *path, const filelist_options_t *options) {
    str_t base;
    str_init(&base);
    csv_t *csv = _open(path, list->sep, &base);
    int status = csv ? filelist_read_csv(list, csv, base.ptr, options) : FILELIST_OPEN_FAILED;
    if (csv) {
        csv_close(csv);
    }
    str_kill(&base);
    return status;
}

int filelist_read_tree(const char *path, const filelist_options_t *options, const filelist_sink_t *sink,
                       char sep) {
    str_t base;
    str_init(&base);
    csv_t *csv = _open(path, sep, &base);
    int status = csv ? filelist_read_tree_csv(csv, base.ptr, options, sink, sep) : FILELIST_OPEN_FAILED;
    if (csv) {
        csv_close(csv);
    }
    str_kill(&base);
    return status;
}
