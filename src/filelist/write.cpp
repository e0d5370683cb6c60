// Writing lists: a 64 KiB buffer in front of the file, numbers formatted by hand because a list of a
// whole volume has millions of rows, and a failed write that is remembered rather than stopping the rest.
#include "filelist/filelist.h"

#include <cstdarg>
#include <cstring>

#include "mem/mem.h"

bool filelist_writer_open(filelist_writer_t *w, const char *path) {
    w->file = os_file_open(path, OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    w->buffer = nullptr;
    w->pos = 0;
    w->failed = false;
    if (w->file == OS_FILE_INVALID) {
        return false;
    }
    w->buffer = (char *) mem_alloc(FILELIST_WRITER_BUFFER);
    return true;
}

static void _writer_flush(filelist_writer_t *w) {
    if (w->pos && os_file_write(w->file, w->buffer, w->pos) != (int64_t) w->pos) {
        w->failed = true;
    }
    w->pos = 0;
}

void filelist_writer_write(filelist_writer_t *w, const char *bytes, size_t n) {
    while (n) {
        size_t room = FILELIST_WRITER_BUFFER - w->pos;
        size_t k = n < room ? n : room;
        memcpy(w->buffer + w->pos, bytes, k);
        w->pos += (uint32_t) k;
        bytes += k;
        n -= k;
        if (w->pos == FILELIST_WRITER_BUFFER) {
            _writer_flush(w);
        }
    }
}

void filelist_writer_printf(filelist_writer_t *w, const char *format, ...) {
    str_t s;
    str_init(&s);
    va_list args;
    va_start(args, format);
    str_vprintf(&s, format, args);
    va_end(args);
    filelist_writer_write(w, s.ptr, (size_t) s.len);
    str_kill(&s);
}

void filelist_writer_quoted(filelist_writer_t *w, const char *text, size_t n) {
    filelist_writer_write(w, "\"", 1);
    const char *run = text;
    const char *end = text + n;
    for (const char *p = text; p < end; p++) {
        if (*p == '"') {
            // The quote goes out with its run and then once more.
            filelist_writer_write(w, run, (size_t) (p - run) + 1);
            run = p;
        }
    }
    filelist_writer_write(w, run, (size_t) (end - run));
    filelist_writer_write(w, "\"", 1);
}

bool filelist_writer_close(filelist_writer_t *w) {
    if (w->file == OS_FILE_INVALID) {
        return false;
    }
    _writer_flush(w);
    os_file_close(w->file);
    w->file = OS_FILE_INVALID;
    mem_free(w->buffer);
    w->buffer = nullptr;
    return !w->failed;
}

void filelist_write_header(filelist_writer_t *w) {
    filelist_writer_write(w, FILELIST_HEADER, sizeof(FILELIST_HEADER) - 1);
}

// ",<value>" with the value left out when skip says so.
static void _write_number(filelist_writer_t *w, uint64_t v, bool skip) {
    char buf[24];
    int i = (int) sizeof(buf);
    if (!skip) {
        do {
            buf[--i] = (char) ('0' + v % 10);
            v /= 10;
        } while (v);
    }
    buf[--i] = ',';
    filelist_writer_write(w, buf + i, sizeof(buf) - (size_t) i);
}

void filelist_write_row(filelist_writer_t *w, filelist_row_t form, const char *path, size_t len,
                        const os_file_info_t *fd) {
    filelist_writer_quoted(w, path, len);
    _write_number(w, fd->size, fd->size == UINT64_MAX);
    // The list of a tree and the editor take a zero date for "none", as the find data gives it; the
    // export takes the index's unknown value instead and keeps a real zero.
    uint64_t none = form == FILELIST_ROW_EXPORT ? UINT64_MAX : 0;
    _write_number(w, fd->date_modified, fd->date_modified == none);
    _write_number(w, fd->date_created, fd->date_created == none);
    _write_number(w, fd->attributes, false);
    filelist_writer_write(w, "\r\n", 2);
}

size_t filelist_relative_prefix(const char *list_path, const char *const *paths, size_t count, char sep) {
    size_t n = strlen(list_path);
    while (n > 0 && list_path[n - 1] != '/' && !(sep == '\\' && list_path[n - 1] == '\\')) {
        n--;
    }
    if (n == 0 || count == 0) {
        return 0;
    }
    for (size_t i = 0; i < count; i++) {
        if (strncmp(paths[i], list_path, n) != 0) {
            return 0;
        }
    }
    return n;
}
