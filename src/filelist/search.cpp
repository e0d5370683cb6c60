// A list file as the text of a search: the names it holds joined with '|', the OR of the search syntax,
// so that "filelist:" and the advanced search can find exactly the files a list names.
#include <cstring>

#include "filelist/create.h"
#include "filelist/filelist.h"
#include "mem/mem.h"
#include "os/os_dir.h"
#include "text/text.h"

// One more name. A '|' inside it would split the alternatives, so it goes in as a quoted character
// reference.
static void _append_name(str_t *out, const char *name, size_t len) {
    if (len == 0) {
        return;
    }
    if (out->len) {
        str_cat_char(out, '|');
    }
    const char *run = name;
    const char *end = name + len;
    for (const char *p = name; p < end; p++) {
        if (*p == '|') {
            str_cat(out, run, (int) (p - run));
            str_cat_z(out, "\"#124:\"");
            run = p + 1;
        }
    }
    str_cat(out, run, (int) (end - run));
}

static bool _table(str_t *out, const char *path) {
    csv_t *csv = csv_open(path);
    if (!csv) {
        return false;
    }
    int column = -1;
    int count = 0;
    const char *field;
    while ((field = csv_read_field(csv))) {
        if (utf8_strcmp_lower(field, "filename") == 0) {
            column = count;
        }
        count++;
    }
    if (column >= 0 && csv_next_row(csv)) {
        str_t base, resolved;
        str_init(&base);
        str_init(&resolved);
        filelist_base_dir(&base, path);
        do {
            int len = 0;
            for (int i = 0; i <= column && (field = csv_read_field(csv, &len)); i++) {
            }
            if (field && len) {
                filelist_resolve_path(&resolved, base.ptr, field, (size_t) len);
                _append_name(out, resolved.ptr, (size_t) resolved.len);
            }
        } while (csv_next_row(csv));
        str_kill(&resolved);
        str_kill(&base);
    }
    csv_close(csv);
    return true;
}

// Lines end at CR LF, LF or a lone CR; a CR LF split between two reads is still one end.
static bool _lines(str_t *out, const char *path) {
    os_file_t f = os_file_open_sequential(path);
    if (f == OS_FILE_INVALID) {
        return false;
    }
    char *buf = (char *) mem_alloc(LINE_READER_BUFFER);
    str_t line;
    str_init(&line);
    bool after_cr = false;
    bool first = true;
    int64_t n;
    while ((n = os_file_read(f, buf, LINE_READER_BUFFER)) > 0) {
        const char *p = buf;
        const char *end = buf + n;
        if (first && n >= 3 && memcmp(p, "\xEF\xBB\xBF", 3) == 0) {
            p += 3;
        }
        first = false;
        for (; p < end; p++) {
            if (*p == '\n' && after_cr) {
                after_cr = false;
                continue;
            }
            after_cr = *p == '\r';
            if (*p == '\r' || *p == '\n') {
                _append_name(out, line.ptr, (size_t) line.len);
                str_clear(&line);
            } else {
                str_cat_char(&line, *p);
            }
        }
    }
    _append_name(out, line.ptr, (size_t) line.len);
    str_kill(&line);
    mem_free(buf);
    os_file_close(f);
    return true;
}

bool filelist_to_search(str_t *out, const char *path) {
    str_clear(out);
    size_t ext_len;
    const char *ext = text_get_extension_counted(path, strlen(path), &ext_len);
    bool table = ext && ext_len == 3 && (ascii_stricmp(ext, "swl") == 0 || ascii_stricmp(ext, "csv") == 0);
    bool ok = table ? _table(out, path) : _lines(out, path);
    if (!ok) {
        str_clear(out);
    }
    return ok;
}
