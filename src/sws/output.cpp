// sws's output forms. Each is written so that a standard reader of that form gets back exactly the
// records: names are escaped or quoted by the form's own rule, unknown values are empty (null in JSON).
#include <cstring>
#include <initializer_list>

#include "db/db.h"
#include "filelist/filelist.h"
#include "os/os.h"
#include "sws/sws.h"

#define SWS_OUT_FLUSH_AT 65536

static const struct {
    uint32_t bit;
    const char *title; // CSV and TSV header
    const char *key;   // JSON member
} sws_columns[SWS_COL_COUNT] = {
    {SWS_COL_NAME, "Name", "name"},
    {SWS_COL_PATH, "Path", "path"},
    {SWS_COL_SIZE, "Size", "size"},
    {SWS_COL_DATE_MODIFIED, "Date Modified", "date_modified"},
    {SWS_COL_DATE_CREATED, "Date Created", "date_created"},
    {SWS_COL_DATE_ACCESSED, "Date Accessed", "date_accessed"},
    {SWS_COL_ATTRIBUTES, "Attributes", "attributes"},
    {SWS_COL_EXTENSION, "Extension", "extension"},
};

void sws_out_init(sws_out_t *w, bool to_stdout) {
    str_init(&w->buffer);
    w->to_stdout = to_stdout;
    w->failed = false;
    w->skipped = 0;
}

bool sws_out_flush(sws_out_t *w) {
    if (w->to_stdout && w->buffer.len) {
        if (!w->failed && !os_std_write(OS_STDOUT, w->buffer.ptr, (size_t) w->buffer.len))
            w->failed = true;
        str_clear(&w->buffer);
    }
    return !w->failed;
}

void sws_out_kill(sws_out_t *w) {
    str_kill(&w->buffer);
}

static void _sws_out_maybe_flush(sws_out_t *w) {
    if (w->buffer.len >= SWS_OUT_FLUSH_AT)
        sws_out_flush(w);
}

// ---- escapes -------------------------------------------------------------------------------------------

void sws_escape_plain(str_t *out, const char *text, uint32_t len) {
    // The escape byte is one that a name of this platform's own file systems rarely or never holds and
    // that is never the separator: '\\' on Linux, '|' on Windows, where '\\' separates every path.
    const char escape = OS_SEP == '\\' ? '|' : '\\';
    for (uint32_t i = 0; i < len; i++) {
        char c = text[i];
        char letter = c == '\t' ? 't' : c == '\n' ? 'n' : c == '\r' ? 'r' : c == escape ? escape : 0;
        if (letter) {
            str_cat_char(out, escape);
            str_cat_char(out, letter);
        } else {
            str_cat_char(out, c);
        }
    }
}

void sws_escape_csv(str_t *out, const char *text, uint32_t len) {
    bool quote = false;
    for (uint32_t i = 0; i < len && !quote; i++)
        quote = text[i] == ',' || text[i] == '"' || text[i] == '\r' || text[i] == '\n';
    if (!quote) {
        str_cat(out, text, (int) len);
        return;
    }
    str_cat_char(out, '"');
    for (uint32_t i = 0; i < len; i++) {
        if (text[i] == '"')
            str_cat_char(out, '"');
        str_cat_char(out, text[i]);
    }
    str_cat_char(out, '"');
}

// The byte count of the UTF-8 sequence at p (at most n bytes), or 0 when it is not one: overlong forms,
// surrogates and values above U+10FFFF are not UTF-8 either.
static uint32_t _sws_utf8_length(const unsigned char *p, uint32_t n) {
    unsigned char c = p[0];
    uint32_t need;
    uint32_t cp;
    if (c < 0x80)
        return 1;
    if (c >= 0xC2 && c <= 0xDF)
        need = 2, cp = c & 0x1F;
    else if (c >= 0xE0 && c <= 0xEF)
        need = 3, cp = c & 0x0F;
    else if (c >= 0xF0 && c <= 0xF4)
        need = 4, cp = c & 0x07;
    else
        return 0;
    if (n < need)
        return 0;
    for (uint32_t i = 1; i < need; i++) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if ((need == 3 && cp < 0x800) || (need == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
        (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return need;
}

void sws_escape_json(str_t *out, const char *text, uint32_t len) {
    const unsigned char *p = (const unsigned char *) text;
    str_cat_char(out, '"');
    for (uint32_t i = 0; i < len;) {
        unsigned char c = p[i];
        if (c == '"' || c == '\\') {
            str_cat_char(out, '\\');
            str_cat_char(out, (char) c);
            i++;
        } else if (c < 0x20) {
            static const char short_forms[] = "btnvfr";
            if (c >= 8 && c <= 13 && c != 11)
                str_cat_printf(out, "\\%c", short_forms[c - 8]);
            else
                str_cat_printf(out, "\\u%04x", (unsigned) c);
            i++;
        } else {
            uint32_t n = _sws_utf8_length(p + i, len - i);
            if (n == 0) {
                str_cat(out, "\xEF\xBF\xBD", 3);
                i++;
            } else {
                str_cat(out, text + i, (int) n);
                i += n;
            }
        }
    }
    str_cat_char(out, '"');
}

bool sws_iso_date(str_t *out, uint64_t filetime) {
    os_systemtime_t st;
    if (filetime == DB_UNKNOWN || !os_filetime_to_system(filetime, &st))
        return false;
    str_cat_printf(out, "%04d-%02d-%02dT%02d:%02d:%02d", st.year, st.month, st.day, st.hour, st.minute,
                   st.second);
    uint32_t fraction = (uint32_t) (filetime % 10000000u);
    if (fraction)
        str_cat_printf(out, ".%07u", fraction);
    str_cat_char(out, 'Z');
    return true;
}

// ---- one value as each table form writes it ---------------------------------------------------------------

enum sws_value_kind_t { SWS_VALUE_TEXT, SWS_VALUE_NUMBER, SWS_VALUE_DATE, SWS_VALUE_NONE };

struct sws_value_t {
    sws_value_kind_t kind;
    const char *text;
    uint32_t len;
    uint64_t number;
};

static sws_value_t _sws_column_value(const sws_row_t *row, uint32_t bit) {
    sws_value_t v = {SWS_VALUE_TEXT, nullptr, 0, 0};
    switch (bit) {
    case SWS_COL_NAME:
        v.text = row->name, v.len = row->name_len;
        break;
    case SWS_COL_PATH:
        v.text = row->path, v.len = row->path_len;
        break;
    case SWS_COL_EXTENSION:
        // A folder has no type of its own to tell, whatever its name holds after a dot.
        if (row->folder)
            v.text = "", v.len = 0;
        else
            v.text = db_name_extension(row->name, row->name_len, &v.len);
        break;
    case SWS_COL_SIZE:
        v.kind = row->size == DB_UNKNOWN ? SWS_VALUE_NONE : SWS_VALUE_NUMBER, v.number = row->size;
        break;
    case SWS_COL_ATTRIBUTES:
        v.kind = SWS_VALUE_NUMBER, v.number = row->attributes;
        break;
    default: {
        uint64_t d = bit == SWS_COL_DATE_MODIFIED  ? row->date_modified
                     : bit == SWS_COL_DATE_CREATED ? row->date_created
                                                   : row->date_accessed;
        v.kind = d == DB_UNKNOWN ? SWS_VALUE_NONE : SWS_VALUE_DATE, v.number = d;
    }
    }
    return v;
}

// A value in the CSV or TSV form: text escaped, numbers and dates as they read, unknown as nothing.
static void _sws_table_value(str_t *out, sws_format_t format, const sws_value_t *v) {
    if (v->kind == SWS_VALUE_TEXT) {
        if (format == SWS_FORMAT_CSV)
            sws_escape_csv(out, v->text, v->len);
        else
            sws_escape_plain(out, v->text, v->len);
    } else if (v->kind == SWS_VALUE_NUMBER) {
        str_cat_printf(out, "%I64u", v->number);
    } else if (v->kind == SWS_VALUE_DATE) {
        sws_iso_date(out, v->number);
    }
}

static void _sws_json_value(str_t *out, const sws_value_t *v) {
    if (v->kind == SWS_VALUE_TEXT) {
        sws_escape_json(out, v->text, v->len);
    } else if (v->kind == SWS_VALUE_NUMBER) {
        str_cat_printf(out, "%I64u", v->number);
    } else if (v->kind == SWS_VALUE_DATE) {
        str_cat_char(out, '"');
        sws_iso_date(out, v->number);
        str_cat_char(out, '"');
    } else {
        str_cat_z(out, "null");
    }
}

// ---- the forms -----------------------------------------------------------------------------------------

void sws_write_begin(sws_out_t *w, sws_format_t format, uint32_t columns) {
    str_t *out = &w->buffer;
    if (format == SWS_FORMAT_CSV || format == SWS_FORMAT_TSV) {
        char sep = format == SWS_FORMAT_CSV ? ',' : '\t';
        str_cat_z(out, "Filename");
        for (const auto &c : sws_columns) {
            if (columns & c.bit) {
                str_cat_char(out, sep);
                str_cat_z(out, c.title);
            }
        }
        str_cat_char(out, '\n');
    } else if (format == SWS_FORMAT_JSON) {
        str_cat_z(out, "{\"results\":[");
    } else if (format == SWS_FORMAT_SWL) {
        str_cat_z(out, FILELIST_HEADER);
    }
}

// A file-list row in the export form: unknown size and dates left out, a zero date written as 0. A folder
// row carries the folder bit, which is what makes a reader take it for a folder.
static void _sws_write_swl_row(sws_out_t *w, const sws_row_t *row) {
    if (memchr(row->full_path, '\n', row->full_path_len) ||
        memchr(row->full_path, '\r', row->full_path_len)) {
        w->skipped++;
        return;
    }
    str_t *out = &w->buffer;
    str_cat_char(out, '"');
    for (uint32_t i = 0; i < row->full_path_len; i++) {
        if (row->full_path[i] == '"')
            str_cat_char(out, '"');
        str_cat_char(out, row->full_path[i]);
    }
    str_cat_char(out, '"');
    for (uint64_t v : {row->size, row->date_modified, row->date_created}) {
        str_cat_char(out, ',');
        if (v != DB_UNKNOWN)
            str_cat_printf(out, "%I64u", v);
    }
    str_cat_printf(out, ",%u\r\n", row->attributes | (row->folder ? (uint32_t) OS_ATTR_DIRECTORY : 0u));
}

void sws_write_row(sws_out_t *w, sws_format_t format, uint32_t columns, const sws_row_t *row, bool first) {
    str_t *out = &w->buffer;
    switch (format) {
    case SWS_FORMAT_PLAIN:
        sws_escape_plain(out, row->full_path, row->full_path_len);
        str_cat_char(out, '\n');
        break;
    case SWS_FORMAT_CSV:
    case SWS_FORMAT_TSV: {
        char sep = format == SWS_FORMAT_CSV ? ',' : '\t';
        sws_value_t path = {SWS_VALUE_TEXT, row->full_path, row->full_path_len, 0};
        _sws_table_value(out, format, &path);
        for (const auto &c : sws_columns) {
            if (columns & c.bit) {
                str_cat_char(out, sep);
                sws_value_t v = _sws_column_value(row, c.bit);
                _sws_table_value(out, format, &v);
            }
        }
        str_cat_char(out, '\n');
        break;
    }
    case SWS_FORMAT_JSON:
        str_cat_z(out, first ? "\n{\"filename\":" : ",\n{\"filename\":");
        sws_escape_json(out, row->full_path, row->full_path_len);
        str_cat_z(out, row->folder ? ",\"folder\":true" : ",\"folder\":false");
        for (const auto &c : sws_columns) {
            if (columns & c.bit) {
                str_cat_printf(out, ",\"%s\":", c.key);
                sws_value_t v = _sws_column_value(row, c.bit);
                _sws_json_value(out, &v);
            }
        }
        str_cat_char(out, '}');
        break;
    case SWS_FORMAT_SWL:
        _sws_write_swl_row(w, row);
        break;
    }
    _sws_out_maybe_flush(w);
}

void sws_write_end(sws_out_t *w, sws_format_t format) {
    if (format == SWS_FORMAT_JSON)
        str_cat_z(&w->buffer, "\n]}\n");
}
