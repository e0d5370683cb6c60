// The server's protocol core: connections from accept to close, the end of a request and where it leads,
// the one query with its waiting queue, and the search answer in HTML and JSON.
#include <cstring>

#include "config/config.h"
#include "config/config_vars.h"
#include "http/http.h"
#include "http/page.h"
#include "http/serve.h"

static void _run_next(http_server_t *server);

void http_log(http_connection_t *c, const char *format, ...) {
    if (!c->sink.log) {
        return;
    }
    str_t text;
    str_init(&text);
    va_list args;
    va_start(args, format);
    str_vprintf(&text, format, args);
    va_end(args);
    c->sink.log(c->sink.context, text.ptr);
    str_kill(&text);
}

static void _server_log(http_server_t *server, const char *text) {
    if (server->log) {
        server->log(server->log_context, text);
    }
}

// ---- the page buffer -------------------------------------------------------------------------------------

enum { HTTP_BODY_BLOCK = 65536 };

void http_page_begin(http_page_t *p, http_connection_t *c) {
    p->server = c->server;
    p->session = &c->session;
    str_init(&p->out);
}

void http_page_flush(http_page_t *p, http_connection_t *c, bool all) {
    if (p->out.len > 0 && (all || p->out.len >= HTTP_BODY_BLOCK)) {
        c->sink.send(c->sink.context, p->out.ptr, (size_t) p->out.len);
        str_clear(&p->out);
    }
}

void http_page_end(http_page_t *p, http_connection_t *c) {
    http_page_flush(p, c, true);
    str_kill(&p->out);
}

void http_finish(http_connection_t *c) {
    if (!c->end_of_response) {
        c->end_of_response = true;
        c->sink.end(c->sink.context);
    }
}

// ---- connections -----------------------------------------------------------------------------------------

http_connection_t *http_connection_open(http_server_t *server, const http_sink_t *sink, uint32_t now) {
    http_connection_t *c = (http_connection_t *) mem_alloc(sizeof *c);
    memset(c, 0, sizeof *c);
    c->server = server;
    c->sink = *sink;
    http_session_init(&c->session, server->settings.username, server->settings.password,
                      server->settings.items_per_page, now);
    c->prev = server->last;
    if (server->last) {
        server->last->next = c;
    } else {
        server->first = c;
    }
    server->last = c;
    return c;
}

static void _unqueue(http_server_t *server, http_connection_t *c) {
    if (!c->queued) {
        return;
    }
    (c->queue_prev ? c->queue_prev->queue_next : server->waiting_head) = c->queue_next;
    (c->queue_next ? c->queue_next->queue_prev : server->waiting_tail) = c->queue_prev;
    c->queue_next = c->queue_prev = nullptr;
    c->queued = false;
}

void http_connection_close(http_connection_t *c) {
    http_server_t *server = c->server;
    _unqueue(server, c);
    if (server->running == c) {
        // A search or sort cut short leaves the query no longer matching what it was asked: the next
        // search starts over. A finished one that was still being written stays good.
        if (c->streaming != HTTP_STREAM_SEARCH) {
            db_cancel_query(server->query);
            server->last_valid = false;
        }
        server->running = nullptr;
    }
    mem_free(c->children);
    (c->prev ? c->prev->next : server->first) = c->next;
    (c->next ? c->next->prev : server->last) = c->prev;
    http_session_kill(&c->session);
    mem_free(c);
    if (!server->running) {
        _run_next(server);
    }
}

void http_connection_tick(http_connection_t *c, uint32_t now) {
    if (!c->request_done && http_session_timed_out(&c->session, now)) {
        c->request_done = true;
        c->session.done = true;
        http_log(c, "request timed out after %u ms\r\n", (uint32_t) HTTP_REQUEST_TIMEOUT_MS);
        http_send_error(c, 408);
        return;
    }
    if (c->streaming != HTTP_STREAM_SEARCH) {
        return;
    }
    if (c->row != c->stall_row || c->stall_since == 0) {
        c->stall_row = c->row;
        c->stall_since = now ? now : 1;
        return;
    }
    http_server_t *server = c->server;
    if (now - c->stall_since < (uint32_t) HTTP_REQUEST_TIMEOUT_MS || !server->waiting_head) {
        return;
    }
    // A peer that stopped reading may block only itself: the rest of its answer is dropped and the
    // query goes to the searches waiting for it.
    http_log(c, "answer stalled for %u ms, cut short\r\n", (uint32_t) HTTP_REQUEST_TIMEOUT_MS);
    c->streaming = HTTP_STREAM_NONE;
    c->row_end = c->row;
    http_finish(c);
    if (server->running == c) {
        server->running = nullptr;
        _run_next(server);
    }
}

static void _end_of_request(http_connection_t *c);

void http_connection_receive(http_connection_t *c, const char *bytes, size_t n) {
    if (c->request_done) {
        return;
    }
    http_feed_t r = http_session_feed(&c->session, bytes, n);
    if (r == HTTP_FEED_TOO_LONG) {
        c->request_done = true;
        http_log(c, "request refused: %s\r\n",
                 c->session.status == 414 ? "request line too long" : "request head too large");
        http_send_error(c, c->session.status);
    } else if (r == HTTP_FEED_REQUEST) {
        c->request_done = true;
        _end_of_request(c);
    }
}

static void _end_of_request(http_connection_t *c) {
    http_session_t *s = &c->session;
    if (s->target) {
        http_log(c, "GET %s\r\n", s->target);
    }
    str_t path;
    str_init(&path);
    switch (http_route(s, &path)) {
    case HTTP_ROUTE_BAD_REQUEST:
        http_send_error(c, 400);
        break;
    case HTTP_ROUTE_UNAUTHORIZED:
        http_send_error(c, 401);
        break;
    case HTTP_ROUTE_NOT_FOUND:
        http_send_error(c, 404);
        break;
    case HTTP_ROUTE_SEARCH:
        http_search_answer(c);
        break;
    case HTTP_ROUTE_PATH:
        http_path_answer(c, &path);
        break;
    }
    str_kill(&path);
}

// ---- the search answer -------------------------------------------------------------------------------

void http_search_answer(http_connection_t *c) {
    http_server_t *server = c->server;
    http_session_t *s = &c->session;
    http_send_page_head(c);
    if (!s->json) {
        http_page_t p;
        http_page_begin(&p, c);
        http_page_head(&p, s->search);
        http_page_end(&p, c);
    }
    http_log(c, "sort type %d\n", s->sort);
    c->queued = true;
    c->queue_prev = server->waiting_tail;
    (server->waiting_tail ? server->waiting_tail->queue_next : server->waiting_head) = c;
    server->waiting_tail = c;
    if (!server->running) {
        _run_next(server);
    }
}

// The row of result index i, with its texts in the two buffers (the paths only when paths is on). False when
// the index no longer holds it (the results changed under a long answer).
static bool _result_row(http_server_t *server, int i, http_row_t *row, str_t *full, str_t *path, bool paths) {
    db_ref_t record = 0;
    bool folder = true;
    if (!_db_result_at(server->query, i, &record, &folder)) {
        return false;
    }
    // Paths cost a walk up the tree for each row: only the pages that show them build them.
    str_clear(full);
    str_clear(path);
    if (paths) {
        db_get_full_path(full, record);
        db_get_result_path(server->query, i, path);
    }
    row->folder = folder;
    row->name = db_record_name(record, &row->name_len);
    row->full_path = full->ptr;
    row->full_path_len = (uint32_t) full->len;
    row->path = path->ptr;
    row->path_len = (uint32_t) path->len;
    uint64_t (*get)(const db_t *, db_ref_t, db_field_t) = folder ? db_folder_get : db_file_get;
    row->size = get(server->db, record, DB_FIELD_SIZE);
    row->date_modified = get(server->db, record, DB_FIELD_DATE_MODIFIED);
    return true;
}

void http_json_value(str_t *out, uint64_t value) {
    if (value != DB_UNKNOWN) {
        str_cat_printf(out, "%I64u", value);
    }
}

void http_json_row(http_page_t *p, const http_row_t *row, bool path, bool size, bool date, bool last) {
    str_cat_printf(&p->out, "\t\t{\r\n\t\t\t\"type\":\"%s\",\r\n\t\t\t\"name\":\"",
                   row->folder ? "folder" : "file");
    http_cat_json(&p->out, row->name, row->name_len);
    if (path) {
        str_cat_z(&p->out, "\",\r\n\t\t\t\"path\":\"");
        http_cat_json(&p->out, row->path, row->path_len);
    }
    if (size) {
        str_cat_z(&p->out, "\",\r\n\t\t\t\"size\":\"");
        http_json_value(&p->out, row->size);
    }
    if (date) {
        str_cat_z(&p->out, "\",\r\n\t\t\t\"date_modified\":\"");
        http_json_value(&p->out, row->date_modified);
    }
    str_cat_printf(&p->out, "\"\r\n\t\t}%s\r\n", last ? "" : ",");
}

static bool _search_row(http_connection_t *c, http_page_t *p, str_t *a, str_t *b) {
    const http_session_t *s = &c->session;
    http_row_t row;
    if (!_result_row(c->server, (int) c->row, &row, a, b, !s->json || s->path_column)) {
        return false;
    }
    if (s->json) {
        http_json_row(p, &row, s->path_column, s->size_column, s->date_modified_column,
                      c->row + 1 == c->row_end);
    } else {
        http_page_row(p, &row, c->row - c->first, true);
    }
    return true;
}

static void _search_trailer(http_connection_t *c, http_page_t *p) {
    const http_session_t *s = &c->session;
    if (s->json) {
        str_cat_z(&p->out, "\t]\r\n}\r\n");
        return;
    }
    http_page_cat(p, c->server->fragments[HTTP_F_TE_END]);
    if (s->count != 0 && (s->offset != 0 || c->total > s->count)) {
        http_page_bar(p, c->total);
    }
    http_page_cat(p, c->server->fragments[HTTP_F_BODY_END]);
}

void http_stream_more(http_connection_t *c) {
    http_page_t p;
    http_page_begin(&p, c);
    str_t a, b;
    str_init(&a);
    str_init(&b);
    while (c->row < c->row_end) {
        if (c->streaming == HTTP_STREAM_SEARCH) {
            if (!_search_row(c, &p, &a, &b)) {
                c->row_end = c->row;
                break;
            }
        } else {
            http_folder_row(c, &p, &a, &b);
        }
        c->row++;
        if (p.out.len >= HTTP_BODY_BLOCK) {
            http_page_flush(&p, c, true);
            if (c->sink.room && !c->sink.room(c->sink.context)) {
                break;
            }
        }
    }
    str_kill(&a);
    str_kill(&b);
    if (c->row < c->row_end) {
        http_page_end(&p, c);
        return;
    }
    int kind = c->streaming;
    if (kind == HTTP_STREAM_SEARCH) {
        _search_trailer(c, &p);
    } else {
        http_folder_trailer(c, &p);
    }
    http_page_end(&p, c);
    c->streaming = HTTP_STREAM_NONE;
    mem_free(c->children);
    c->children = nullptr;
    http_finish(c);
    http_server_t *server = c->server;
    if (kind == HTTP_STREAM_SEARCH && server->running == c) {
        server->running = nullptr;
        _run_next(server);
    }
}

void http_connection_writable(http_connection_t *c) {
    if (c->streaming != HTTP_STREAM_NONE) {
        http_stream_more(c);
    }
}

// Starts the answer from what the query holds now: the part above the rows, then the rows as the peer
// takes them. The connection is running until its last row is out.
static void _write_results(http_connection_t *c) {
    http_server_t *server = c->server;
    const http_session_t *s = &c->session;
    uint32_t total = (uint32_t) db_get_result_count(server->query);
    uint32_t first = s->offset < total ? s->offset : total;
    uint32_t items = total - first < s->count ? total - first : s->count;
    http_page_t p;
    http_page_begin(&p, c);
    if (s->json) {
        str_cat_printf(&p.out, "{\r\n\t\"totalResults\":%u,\r\n\t\"results\":[\r\n", total);
    } else {
        http_page_top(&p, s->search);
        http_page_cat(&p, server->fragments[HTTP_F_QUERY_NUMRESULTS]);
        str_t a, b, t;
        str_init(&a);
        str_init(&b);
        str_init(&t);
        http_format_grouped(&t, total);
        if (total == 1) {
            str_cat_printf(&p.out, "%s result", t.ptr);
        } else if (items == total || items == 0) {
            str_cat_printf(&p.out, "%s results", t.ptr);
        } else {
            http_format_grouped(&a, (uint64_t) first + 1);
            http_format_grouped(&b, (uint64_t) first + items);
            str_cat_printf(&p.out, "%s to %s of %s results", a.ptr, b.ptr, t.ptr);
        }
        str_kill(&a);
        str_kill(&b);
        str_kill(&t);
        http_page_cat(&p, server->fragments[HTTP_F_QUERY_NUMRESULTS2]);
        http_page_table_head(&p, nullptr);
    }
    http_page_end(&p, c);
    c->streaming = HTTP_STREAM_SEARCH;
    c->first = c->row = first;
    c->row_end = first + items;
    c->total = total;
    server->running = c;
    http_stream_more(c);
}

static bool _same_search(const http_server_t *server, const http_session_t *s) {
    return server->last_valid && strcmp(server->last_search, s->search) == 0 &&
           server->last_match_case == s->match_case && server->last_match_whole_word == s->match_whole_word &&
           server->last_match_path == s->match_path && server->last_match_diacritics == s->match_diacritics &&
           server->last_match_regex == s->match_regex;
}

static void _run_next(http_server_t *server) {
    while (!server->running && server->waiting_head) {
        http_connection_t *c = server->waiting_head;
        _unqueue(server, c);
        const http_session_t *s = &c->session;
        if (_same_search(server, s)) {
            if (server->last_sort == s->sort) {
                http_log(c, "same query\n");
                _write_results(c);
                continue;
            }
            http_log(c, "same query, different sort\n");
            server->last_sort = s->sort;
            server->running = c;
            db_sort(server->query, (int) s->sort, 0, 0);
            return;
        }
        mem_free(server->last_search);
        server->last_search = mem_dup(s->search, strlen(s->search));
        server->last_match_case = s->match_case;
        server->last_match_whole_word = s->match_whole_word;
        server->last_match_path = s->match_path;
        server->last_match_diacritics = s->match_diacritics;
        server->last_match_regex = s->match_regex;
        server->last_sort = s->sort;
        server->last_valid = true;
        server->running = c;
        db_query_search(server->query, s->match_case, s->match_whole_word, s->match_path, s->match_diacritics,
                        s->match_regex, false, true, s->search, 0, "", (int) s->sort, 0, 0, false);
        return;
    }
}

static void _http_query_proc(void *user, int code, db_query_t *query) {
    http_server_t *server = (http_server_t *) user;
    if (code != DB_QUERY_RESULTS || !server->running) {
        return;
    }
    http_connection_t *c = server->running;
    if (c->streaming != HTTP_STREAM_NONE) {
        return; // a change of the index while a long answer goes out; it ends with what it has
    }
    _server_log(server, "results changed\n");
    _write_results(c);
}

// ---- the server ------------------------------------------------------------------------------------------

http_server_t *http_server_create(db_t *db, http_settings_t *settings, const char *fragments_file) {
    http_server_t *server = (http_server_t *) mem_alloc(sizeof *server);
    memset(server, 0, sizeof *server);
    server->db = db;
    server->settings = *settings;
    memset(settings, 0, sizeof *settings);
    http_fragments_load(server->fragments, fragments_file);
    server->query = db_query_create(db, false, _http_query_proc, server);
    str_t exe;
    str_init(&exe);
    os_exe_path(&exe);
    os_file_info_t info;
    server->program_time = os_get_file_info(exe.ptr, &info) ? info.date_modified : os_filetime_now();
    str_kill(&exe);
    return server;
}

void http_server_destroy(http_server_t *server) {
    while (server->first) {
        http_connection_close(server->first);
    }
    db_destroy_query(server->query);
    http_fragments_free(server->fragments);
    http_settings_kill(&server->settings);
    mem_free(server->last_search);
    mem_free(server);
}

static char *_dup(const char *text) {
    return mem_dup(text ? text : "", text ? strlen(text) : 0);
}

void http_settings_from_config(http_settings_t *s) {
    memset(s, 0, sizeof *s);
    s->username = _dup(http_server_username);
    s->password = _dup(http_server_password);
    str_t home;
    str_init(&home);
    if (*http_server_home) {
        config_resolve_path(http_server_home, &home);
    } else {
        config_settings_folder(&home);
        str_path_cat(&home, home.ptr, home.len, "HTTP Server", 11);
    }
    s->home = _dup(home.ptr);
    str_kill(&home);
    s->default_page = _dup(http_server_default_page);
    // The extra header's line ends become CR LF, with one after its last line.
    str_t header;
    str_init(&header);
    for (const char *p = http_server_header; *p; p++) {
        if (*p == '\r') {
            continue;
        }
        if (*p == '\n') {
            str_cat_z(&header, "\r\n");
        } else {
            str_cat_char(&header, *p);
        }
    }
    if (header.len > 0 && header.ptr[header.len - 1] != '\n') {
        str_cat_z(&header, "\r\n");
    }
    s->header = _dup(header.ptr);
    str_kill(&header);
    s->title_format = _dup(http_title_format);
    s->allow_download = http_server_allow_file_download != 0;
    s->show_drive_labels = http_server_show_drive_labels != 0;
    s->volume_label = os_volume_label;
    s->items_per_page = http_server_items_per_page > 0 ? (uint32_t) http_server_items_per_page : 32;
}

void http_settings_kill(http_settings_t *s) {
    char **texts[] = {&s->username, &s->password, &s->home, &s->default_page, &s->header, &s->title_format};
    for (char **t : texts) {
        mem_free(*t);
        *t = nullptr;
    }
}
