// The line reader and the table reader. Lines are gathered into a str_t that keeps its storage from line
// to line, so a long file costs one buffer of the longest line and nothing per row.
#include "filelist/csv.h"

#include <cstring>

#include "os/os.h"
#include "os/os_dir.h"

void line_reader_init(line_reader_t *r, void *handle, line_reader_read_t read, line_reader_close_t close,
                      size_t buffer_size) {
    r->handle = handle;
    r->read = read;
    r->close = close;
    r->size = buffer_size ? buffer_size : LINE_READER_BUFFER;
    r->buffer = (char *) mem_alloc(r->size);
    r->pos = 0;
    r->avail = 0;
    r->eof = false;
}

void line_reader_kill(line_reader_t *r) {
    if (r->close) {
        r->close(r->handle);
        r->close = nullptr;
    }
    mem_free(r->buffer);
    r->buffer = nullptr;
}

// Refills the buffer; false when the source has nothing more.
static bool _line_reader_fill(line_reader_t *r) {
    if (r->eof) {
        return false;
    }
    int64_t n = r->read(r->handle, r->buffer, r->size);
    if (n <= 0) {
        r->eof = true;
        return false;
    }
    r->pos = 0;
    r->avail = (size_t) n;
    return true;
}

int line_reader_next(line_reader_t *r, str_t *line) {
    str_clear(line);
    bool gathered = false;
    for (;;) {
        if (r->pos >= r->avail && !_line_reader_fill(r)) {
            return gathered ? 1 : 0;
        }
        gathered = true;
        const char *start = r->buffer + r->pos;
        size_t left = r->avail - r->pos;
        const char *lf = (const char *) memchr(start, '\n', left);
        if (!lf) {
            str_cat(line, start, (int) left);
            r->pos = r->avail;
            continue;
        }
        str_cat(line, start, (int) (lf - start));
        r->pos += (size_t) (lf - start) + 1;
        // The CR of a CR LF may have come in the previous buffer, so it is looked for in the gathered
        // text rather than in front of the LF.
        if (line->len > 0 && line->ptr[line->len - 1] == '\r') {
            line->ptr[--line->len] = 0;
        }
        return 1;
    }
}

// ---- sources -------------------------------------------------------------------------------------------

static int64_t _file_read(void *handle, void *buf, size_t n) {
    return os_file_read((os_file_t) (intptr_t) handle, buf, n);
}

static void _file_close(void *handle) {
    os_file_close((os_file_t) (intptr_t) handle);
}

struct _memory_source_t {
    const char *next;
    size_t left;
};

static int64_t _memory_read(void *handle, void *buf, size_t n) {
    _memory_source_t *m = (_memory_source_t *) handle;
    size_t k = n < m->left ? n : m->left;
    memcpy(buf, m->next, k);
    m->next += k;
    m->left -= k;
    return (int64_t) k;
}

static void _memory_close(void *handle) {
    mem_free(handle);
}

csv_t *csv_open_reader(void *handle, line_reader_read_t read, line_reader_close_t close) {
    csv_t *csv = (csv_t *) mem_alloc(sizeof(csv_t));
    memset(csv, 0, sizeof(*csv));
    line_reader_init(&csv->reader, handle, read, close, LINE_READER_BUFFER);
    str_init(&csv->line);
    csv->first_line = true;
    return csv;
}

csv_t *csv_open(const char *path) {
    os_file_t f = os_file_open_sequential(path);
    if (f == OS_FILE_INVALID) {
        return nullptr;
    }
    return csv_open_reader((void *) (intptr_t) f, _file_read, _file_close);
}

csv_t *csv_open_memory(const void *data, size_t len) {
    // The bytes are copied in front of the source record so that the caller's buffer may go away.
    _memory_source_t *m = (_memory_source_t *) mem_alloc(sizeof(_memory_source_t) + len);
    char *copy = (char *) (m + 1);
    if (len) {
        memcpy(copy, data, len);
    }
    m->next = copy;
    m->left = len;
    return csv_open_reader(m, _memory_read, _memory_close);
}

void csv_close(csv_t *csv) {
    if (!csv) {
        return;
    }
    line_reader_kill(&csv->reader);
    str_kill(&csv->line);
    mem_free(csv);
}

// ---- fields --------------------------------------------------------------------------------------------

// A line that lies whole in the reader's buffer is parsed where it lies: fields are cut and unquoted in
// place, which the buffer allows as well as the line copy does, and the buffer is not refilled before
// the next line is asked for. Only a line that runs past the buffer's end is gathered into the copy.
static bool _csv_next_line(csv_t *csv, char **start, char **end) {
    line_reader_t *r = &csv->reader;
    if (r->pos < r->avail) {
        char *p = r->buffer + r->pos;
        char *lf = (char *) memchr(p, '\n', r->avail - r->pos);
        if (lf) {
            r->pos += (size_t) (lf - p) + 1;
            *start = p;
            *end = lf > p && lf[-1] == '\r' ? lf - 1 : lf;
            return true;
        }
    }
    if (!line_reader_next(r, &csv->line)) {
        return false;
    }
    *start = csv->line.ptr;
    *end = csv->line.ptr + csv->line.len;
    return true;
}

static bool _csv_load_line(csv_t *csv) {
    char *p;
    if (!_csv_next_line(csv, &p, &csv->end)) {
        csv->eof = true;
        return false;
    }
    if (csv->first_line) {
        csv->first_line = false;
        if (csv->end - p >= 3 && (uint8_t) p[0] == 0xEF && (uint8_t) p[1] == 0xBB && (uint8_t) p[2] == 0xBF) {
            p += 3;
        }
    }
    csv->cursor = p;
    csv->loaded = true;
    // A line with no bytes is a row without fields.
    csv->row_done = p == csv->end;
    return true;
}

// Unquotes a quoted field in place. The write position trails the read position by at least the opening
// quote, so nothing unread is overwritten. Returns where the field's text ends; *next gets the first byte
// after the field (a comma or the line's end).
static char *_csv_quoted(char *start, char *end, char **next) {
    char *dst = start;
    char *src = start + 1;
    while (src < end) {
        if (*src == '"') {
            if (src + 1 < end && src[1] == '"') {
                *dst++ = '"';
                src += 2;
                continue;
            }
            src++;
            break;
        }
        *dst++ = *src++;
    }
    while (src < end && *src != ',') {
        *dst++ = *src++;
    }
    *next = src;
    return dst;
}

const char *csv_read_field(csv_t *csv, int *len) {
    if (len) {
        *len = 0;
    }
    if (!csv->loaded && !_csv_load_line(csv)) {
        return nullptr;
    }
    if (csv->row_done) {
        return nullptr;
    }
    char *start = csv->cursor;
    char *next;
    char *text_end;
    if (*start == '"') {
        text_end = _csv_quoted(start, csv->end, &next);
    } else {
        next = (char *) memchr(start, ',', (size_t) (csv->end - start));
        if (!next) {
            next = csv->end;
        }
        text_end = next;
    }
    bool comma = next < csv->end;
    *text_end = 0;
    // A comma that is the line's last byte opens no further field.
    csv->cursor = comma ? next + 1 : next;
    csv->row_done = csv->cursor >= csv->end;
    csv->field_len = (int) (text_end - start);
    if (len) {
        *len = csv->field_len;
    }
    return start;
}

int csv_next_row(csv_t *csv) {
    while (csv_read_field(csv)) {
    }
    if (csv->eof) {
        return 0;
    }
    csv->loaded = false;
    return 1;
}
