// Answers that are not searches: response heads and errors, files from the home folder, the built-in
// resources and indexed files (with Range), and folder listings in HTML and JSON.
#include <cstring>

#include "http/serve.h"
#include "os/os_shell.h"
#include "text/text.h"

// ---- heads
// -------------------------------------------------------------------------------------------------

void http_date(str_t *out, uint64_t filetime) {
    static const char *const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char *const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    os_systemtime_t t;
    if (!os_filetime_to_system(filetime, &t) || t.day_of_week < 0 || t.day_of_week > 6 || t.month < 1 ||
        t.month > 12) {
        return;
    }
    str_cat_printf(out, "%s, %02d %s %d %02d:%02d:%02d GMT", days[t.day_of_week], t.day, months[t.month - 1],
                   t.year, t.hour, t.minute, t.second);
}

static void _send_text(http_connection_t *c, const str_t *text) {
    c->sink.send(c->sink.context, text->ptr, (size_t) text->len);
}

static const char _no_cache[] =
    "Cache-Control: no-cache, no-store, must-revalidate\r\nPragma: no-cache\r\nExpires: 0\r\n";

void http_send_page_head(http_connection_t *c) {
    str_t h;
    str_init(&h);
    str_cat_printf(&h, "HTTP/1.0 200 OK\r\nServer: Sablewatch HTTP Server\r\nContent-Type: %s\r\nDate: ",
                   c->session.json ? "application/json" : "text/html; charset=UTF-8");
    http_date(&h, os_filetime_now());
    str_cat_printf(&h, "\r\n%sConnection: Close\r\n%s\r\n", _no_cache, c->server->settings.header);
    _send_text(c, &h);
    str_kill(&h);
    http_log(c, "200 OK\r\n");
}

static const char *_status_text(int status) {
    switch (status) {
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 408:
        return "Request Timeout";
    case 414:
        return "Request-URI Too Long";
    case 431:
        return "Request Header Fields Too Large";
    default:
        return "Not Found";
    }
}

// The user's "<status>.html" from the home folder into out; false when there is none.
static bool _read_error_page(http_server_t *server, int status, str_t *out) {
    char file[16];
    int file_len = text_format_args(file, "%d.html", status);
    str_t name;
    str_init(&name);
    str_path_cat(&name, server->settings.home, (int) strlen(server->settings.home), file, file_len);
    bool ok = false;
    os_file_info_t info;
    if (os_get_file_info(name.ptr, &info) && !(info.attributes & OS_ATTR_DIRECTORY) &&
        info.size < (1u << 20)) {
        os_file_t f = os_file_open(name.ptr, OS_OPEN_READ | OS_OPEN_SHARE_READ);
        if (f != OS_FILE_INVALID) {
            str_reserve(out, (int) info.size + 1);
            int64_t got = os_file_read(f, out->ptr, (size_t) info.size);
            ok = got >= 0;
            out->len = ok ? (int) got : 0;
            out->ptr[out->len] = 0;
            os_file_close(f);
        }
    }
    str_kill(&name);
    return ok;
}

void http_send_error(http_connection_t *c, int status) {
    http_server_t *server = c->server;
    const char *text = _status_text(status);
    str_t h;
    str_init(&h);
    str_printf(&h, "HTTP/1.0 %d %s\r\n", status, text);
    if (status == 401) {
        str_cat_z(&h, "WWW-Authenticate: Basic realm=\"Sablewatch\"\r\n");
    }
    str_cat_printf(&h, "Content-Type: text/html; charset=UTF-8\r\n%s\r\n", server->settings.header);
    str_t body;
    str_init(&body);
    if (!_read_error_page(server, status, &body)) {
        char **f = server->fragments;
        str_printf(&body, "%s%d %s%s%d %s%s", f[HTTP_F_ERROR1], status, text, f[HTTP_F_ERROR2], status, text,
                   f[HTTP_F_ERROR3]);
    }
    str_cat(&h, body.ptr, body.len);
    _send_text(c, &h);
    str_kill(&body);
    str_kill(&h);
    http_log(c, "%d %s\r\n", status, text);
    http_finish(c);
}

// ---- files
// -------------------------------------------------------------------------------------------------

static const struct {
    const char *ext, *type;
} _types[] = {
    {"htm", "text/html"},         {"html", "text/html"},        {"css", "text/css"},
    {"js", "text/javascript"},    {"json", "application/json"}, {"txt", "text/plain"},
    {"csv", "text/csv"},          {"xml", "text/xml"},          {"gif", "image/gif"},
    {"png", "image/png"},         {"jpg", "image/jpeg"},        {"jpeg", "image/jpeg"},
    {"svg", "image/svg+xml"},     {"ico", "image/x-icon"},      {"webp", "image/webp"},
    {"bmp", "image/bmp"},         {"pdf", "application/pdf"},   {"zip", "application/zip"},
    {"gz", "application/gzip"},   {"mp3", "audio/mpeg"},        {"wav", "audio/wav"},
    {"ogg", "audio/ogg"},         {"mp4", "video/mp4"},         {"webm", "video/webm"},
    {"wasm", "application/wasm"}, {"woff2", "font/woff2"},      {"md", "text/markdown"},
};

void http_content_type(const char *name, str_t *out) {
    const char *ext = text_get_extension(name);
    if (ext && *ext == '.') {
        ext++;
    }
    if (ext && os_shell_content_type(ext, out)) {
        return;
    }
    for (const auto &t : _types) {
        if (ext && ascii_stricmp(ext, t.ext) == 0) {
            str_set(out, t.type);
            return;
        }
    }
    str_set(out, "application/octet-stream");
}

// The head of a file answer, in its fixed order.
static void _file_head(http_connection_t *c, const char *type, uint64_t size, uint64_t start, uint64_t length,
                       bool ranged, bool from_disk, bool cacheable, uint64_t modified) {
    str_t h;
    str_init(&h);
    str_printf(
        &h, "HTTP/1.0 %s\r\nServer: Sablewatch HTTP Server\r\nContent-Type: %s\r\nContent-Length: %I64u\r\n",
        ranged ? "206 OK" : "200 OK", type, length);
    if (from_disk) {
        str_cat_z(&h, "Accept-Ranges: bytes\r\n");
    }
    if (ranged) {
        str_cat_printf(&h, "Content-Range: bytes %I64u-%I64u/%I64u\r\n", start, start + length - 1, size);
    }
    str_cat_z(&h, "Date: ");
    http_date(&h, os_filetime_now());
    str_cat_z(&h, "\r\nLast-Modified: ");
    http_date(&h, modified);
    str_cat_z(&h, "\r\n");
    str_cat_z(&h, cacheable ? "Cache-Control: private, max-age=3600\r\n" : _no_cache);
    str_cat_printf(&h, "Connection: Close\r\n%s\r\n", c->server->settings.header);
    _send_text(c, &h);
    str_kill(&h);
    http_log(c, ranged ? "206 OK\r\n" : "200 OK\r\n");
}

// The window of a file of size bytes that the request's Range asks for. A range that starts at or past
// the end, or is empty, is no range: the whole file goes out with 200.
static bool _window(const http_session_t *s, uint64_t size, uint64_t *start, uint64_t *length) {
    *start = 0;
    *length = size;
    if (!s->range || s->range_start >= size) {
        return false;
    }
    *start = s->range_start;
    uint64_t rest = size - s->range_start;
    *length = s->range_size && s->range_size < rest ? s->range_size : rest;
    return true;
}

// Sends a file from disk when path names a regular file that opens. Takes no further look at the path:
// callers decide which paths may be sent.
static bool _send_disk_file(http_connection_t *c, const char *path, bool cacheable) {
    os_file_info_t info;
    if (!os_get_file_info(path, &info) || (info.attributes & OS_ATTR_DIRECTORY)) {
        return false;
    }
    os_file_t f = os_file_open(path, OS_OPEN_READ | OS_OPEN_SHARE_ALL | OS_OPEN_SEQUENTIAL);
    if (f == OS_FILE_INVALID) {
        return false;
    }
    uint64_t size = os_file_size(f);
    uint64_t start, length;
    bool ranged = _window(&c->session, size, &start, &length);
    str_t type;
    str_init(&type);
    http_content_type(path, &type);
    _file_head(c, type.ptr, size, start, length, ranged, true, cacheable, info.date_modified);
    str_kill(&type);
    http_log(c, "send file %s\n", path);
    c->end_of_response = true;
    c->sink.send_file(c->sink.context, f, start, length);
    return true;
}

static bool _send_resource(http_connection_t *c, const char *name) {
    const http_resource_t *r = http_resource_find(name);
    if (!r) {
        return false;
    }
    uint64_t start, length;
    bool ranged = _window(&c->session, r->size, &start, &length);
    _file_head(c, r->type, r->size, start, length, ranged, false, true, c->server->program_time);
    c->sink.send(c->sink.context, (const char *) r->bytes + start, (size_t) length);
    http_finish(c);
    return true;
}

// home joined with a canonical path. The long-path prefix is left out: the platform layer's file
// information refuses a path with "?", and what the prefix would guard against (Windows dropping
// trailing dots and blanks) the canonical form has already dealt with.
static void _home_path(http_server_t *server, const str_t *path, str_t *out) {
    const char *home = server->settings.home;
    str_set(out, home);
    str_path_cat(out, out->ptr, out->len, path->ptr, path->len);
}

static bool _file_answer(http_connection_t *c, const str_t *path) {
    http_server_t *server = c->server;
    if (path->len > 0) {
        str_t full;
        str_init(&full);
        _home_path(server, path, &full);
        bool sent = _send_disk_file(c, full.ptr, true);
        str_kill(&full);
        if (sent) {
            return true;
        }
        if (_send_resource(c, path->ptr)) {
            return true;
        }
    }
    db_ref_t record;
    if (server->settings.allow_download && path->len > 0 &&
        http_find_record(server, path->ptr, (size_t) path->len, false, &record)) {
        return _send_disk_file(c, path->ptr, false);
    }
    return false;
}

void http_path_answer(http_connection_t *c, str_t *path) {
    http_server_t *server = c->server;
    if (path->len == 0 && *server->settings.default_page) {
        // A default page named without a folder is one of the home folder's pages.
        str_t page;
        str_init(&page);
        const char *name = server->settings.default_page;
        if (os_path_is_absolute(name)) {
            str_set(&page, name);
        } else {
            str_set(&page, server->settings.home);
            str_path_cat(&page, page.ptr, page.len, name, (int) strlen(name));
        }
        bool sent = _send_disk_file(c, page.ptr, true);
        str_kill(&page);
        if (!sent) {
            http_send_error(c, 404);
        }
        return;
    }
    if (_file_answer(c, path)) {
        return;
    }
    if (path->len > 0 && path->ptr[path->len - 1] == OS_SEP) {
        path->ptr[--path->len] = 0;
    }
    if (!http_folder_answer(c, path)) {
        http_send_error(c, 404);
    }
}
