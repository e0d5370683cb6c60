// The SABLEWATCH verb: search settings kept per session, the search run on the session's own query, and
// the result stream on the control connection.
#include <cstring>

#include "db/db.h"
#include "db_query/db_query.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "net/net.h"
#include "stp/stp_internal.h"
#include "text/text.h"

static void _stp_text(stp_session_t *s, const char *text) {
    _stp_send(s, text, (uint32_t) strlen(text));
}

static bool _stp_keyword_eq(const char *a, uint32_t n, const char *b) {
    if (strlen(b) != n) {
        return false;
    }
    for (uint32_t i = 0; i < n; i++) {
        char x = a[i] >= 'A' && a[i] <= 'Z' ? (char) (a[i] + 32) : a[i];
        if (x != b[i]) {
            return false;
        }
    }
    return true;
}

// Decimal, or hexadecimal after "0x"; stops at the first other character.
static uint32_t _stp_number(const char *p) {
    uint32_t v = 0;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        for (p += 2;; p++) {
            int d = text_hex_digit(*p);
            if (d < 0) {
                return v;
            }
            v = v * 16 + (uint32_t) d;
        }
    }
    for (; *p >= '0' && *p <= '9'; p++) {
        v = v * 10 + (uint32_t) (*p - '0');
    }
    return v;
}

struct stp_sort_name_t {
    const char *name;
    int sort;
};

static const stp_sort_name_t stp_sorts[] = {
    {"name_ascending", 0},
    {"name_descending", 1},
    {"path_ascending", 2},
    {"path_descending", 3},
    {"size_ascending", 4},
    {"size_descending", 5},
    {"inverse_size_ascending", 4},
    {"inverse_size_descending", 5},
    {"extension_ascending", 6},
    {"extension_descending", 7},
    {"date_created_ascending", 10},
    {"date_created_descending", 11},
    {"date_modified_ascending", 12},
    {"date_modified_descending", 13},
    {"attributes_ascending", 14},
    {"attributes_descending", 15},
    {"file_list_filename_ascending", 16},
    {"file_list_filename_descending", 17},
    {"date_recently_changed_ascending", 20},
    {"date_recently_changed_descending", 21},
};

// ---- the stream ----------------------------------------------------------------------------------------

static void _stp_stream_begin(stp_session_t *s) {
    db_query_t *q = s->query;
    uint32_t total = (uint32_t) db_get_result_count(q);
    s->stream_next = s->offset < total ? s->offset : total;
    uint64_t end = (uint64_t) s->stream_next + s->count;
    s->stream_end = end < total ? (uint32_t) end : total;
    _stp_text(s, "200-Query results\r\n");
    _stp_sendf(s, " RESULT_COUNT %u\r\n", total);
    s->streaming = true;
    // Lines that arrive meanwhile wait until the stream is whole, so that no reply cuts into it.
    net_conn_pause_reading(s->conn, true);
    stp_query_stream(s);
}

static void _stp_stream_result(stp_session_t *s, uint32_t i, str_t *line, str_t *text) {
    db_query_t *q = s->query;
    db_ref_t record;
    bool is_folder;
    str_clear(line);
    if (!_db_result_at(q, (int) i, &record, &is_folder)) {
        return;
    }
    if (s->now.path_column) {
        db_get_result_path(q, (int) i, text);
        str_cat_printf(line, " PATH %s\r\n", text->ptr);
    }
    if (s->now.attributes_column) {
        str_cat_printf(line, " ATTRIBUTES %u\r\n", db_get_result_file_attributes(q, (int) i));
    }
    if (s->now.size_column) {
        str_cat_printf(line, " SIZE %I64u\r\n",
                       is_folder ? db_folder_get(q->db, record, DB_FIELD_SIZE)
                                 : db_file_get(q->db, record, DB_FIELD_SIZE));
    }
    if (s->now.date_modified_column) {
        str_cat_printf(line, " DATE_MODIFIED %I64u\r\n",
                       is_folder ? db_folder_get(q->db, record, DB_FIELD_DATE_MODIFIED)
                                 : db_file_get(q->db, record, DB_FIELD_DATE_MODIFIED));
    }
    if (s->now.date_created_column) {
        str_cat_printf(line, " DATE_CREATED %I64u\r\n",
                       is_folder ? db_folder_get(q->db, record, DB_FIELD_DATE_CREATED)
                                 : db_file_get(q->db, record, DB_FIELD_DATE_CREATED));
    }
    if (s->now.file_list_filename_column) {
        db_get_result_file_list_filename(q, (int) i, text);
        str_cat_printf(line, " FILE_LIST_FILENAME %s\r\n", text->ptr);
    }
    if (s->now.date_recently_changed_column) {
        str_cat_printf(line, " DATE_RECENTLY_CHANGED %I64u\r\n",
                       db_get_result_date_recently_changed(q, (int) i));
    }
    db_get_result_name(q, (int) i, text);
    str_cat_printf(line, " %s %s\r\n", is_folder ? "FOLDER" : "FILE", text->ptr);
}

void stp_query_stream(stp_session_t *s) {
    str_t line, text;
    str_init(&line);
    str_init(&text);
    // Results go out while the control connection has room; the rest follows from its writable call,
    // so a client that stops reading holds only its own queue's cap.
    // Lines are gathered into blocks of about 64 KiB, so that a page of results is one write.
    str_t block;
    str_init(&block);
    while (s->streaming && s->stream_next < s->stream_end && net_send_room(s->conn) && !s->conn->ending) {
        _stp_stream_result(s, s->stream_next++, &line, &text);
        str_cat(&block, line.ptr, line.len);
        if (block.len >= 65536) {
            net_send(s->conn, block.ptr, (uint32_t) block.len);
            str_clear(&block);
        }
    }
    if (s->streaming && s->stream_next >= s->stream_end) {
        s->streaming = false;
        // The final line goes out in the same write, and to the log as every final reply does.
        str_cat_z(&block, "200 End.\r\n");
        _stp_log(s, "200 End.\r\n");
        net_send(s->conn, block.ptr, (uint32_t) block.len);
        net_conn_pause_reading(s->conn, false);
    } else if (block.len > 0) {
        net_send(s->conn, block.ptr, (uint32_t) block.len);
    }
    str_kill(&block);
    str_kill(&text);
    str_kill(&line);
}

// ---- the query -----------------------------------------------------------------------------------------

static void _stp_query_proc(void *user, int code, db_query_t *q) {
    stp_session_t *s = (stp_session_t *) user;
    if (code == DB_QUERY_RESEARCH) {
        s->last_valid = false;
        return;
    }
    if (code != DB_QUERY_READY || q->pending.active || q->pending_sort.active ||
        (q->db && q->db->job_thread)) {
        return;
    }
    if (s->query_pending) {
        s->query_pending = false;
        _stp_stream_begin(s);
    }
}

static bool _stp_same_search(const stp_session_t *s) {
    const stp_search_t *a = &s->now, *b = &s->last;
    return s->last_valid && a->match_case == b->match_case && a->match_whole_word == b->match_whole_word &&
           a->match_path == b->match_path && a->match_diacritics == b->match_diacritics &&
           a->match_regex == b->match_regex && a->hide_empty_search_results == b->hide_empty_search_results &&
           a->size_column == b->size_column && a->attributes_column == b->attributes_column &&
           a->date_modified_column == b->date_modified_column &&
           a->date_created_column == b->date_created_column && a->path_column == b->path_column &&
           a->file_list_filename_column == b->file_list_filename_column &&
           a->date_recently_changed_column == b->date_recently_changed_column &&
           a->filter_flags == b->filter_flags && strcmp(s->search.ptr, s->last_search.ptr) == 0 &&
           strcmp(s->filter_search.ptr, s->last_filter_search.ptr) == 0;
}

static void _stp_run_query(stp_session_t *s) {
    if (!db) {
        _stp_text(s, "451 Index not available.\r\n");
        return;
    }
    if (!s->query) {
        s->query = db_query_create(db, false, _stp_query_proc, s);
    }
    if (_stp_same_search(s) && s->now.sort == s->last.sort) {
        _stp_stream_begin(s);
        return;
    }
    if (_stp_same_search(s)) {
        s->last.sort = s->now.sort;
        s->query_pending = true;
        db_sort(s->query, s->now.sort, 0, 0);
        return;
    }
    s->last = s->now;
    str_set(&s->last_search, s->search.ptr);
    str_set(&s->last_filter_search, s->filter_search.ptr);
    s->last_valid = true;
    s->query_pending = true;
    const stp_search_t *n = &s->now;
    db_query_search(s->query, n->match_case, n->match_whole_word, n->match_path, n->match_diacritics,
                    n->match_regex, n->hide_empty_search_results, true, s->search.ptr, n->filter_flags,
                    s->filter_search.ptr, n->sort, 0, 0, false);
}

struct stp_flag_t {
    const char *keyword;
    const char *reply;
    size_t field; // offset of the bool in stp_search_t, or of the bit's word
    uint32_t bit; // 0: a bool; else a filter flag bit
};

#define STP_FLAG(f) offsetof(stp_search_t, f)
static const stp_flag_t stp_flags[] = {
    {"case", "200 Case set to (%d).\r\n", STP_FLAG(match_case), 0},
    {"whole_word", "200 Whole word set to (%d).\r\n", STP_FLAG(match_whole_word), 0},
    {"path", "200 Path set to (%d).\r\n", STP_FLAG(match_path), 0},
    {"diacritics", "200 Diacritics set to (%d).\r\n", STP_FLAG(match_diacritics), 0},
    {"regex", "200 Regex set to (%d).\r\n", STP_FLAG(match_regex), 0},
    {"hide_empty_search_results", "200 Hide empty search results set to (%d).\r\n",
     STP_FLAG(hide_empty_search_results), 0},
};
static const stp_flag_t stp_filter_flags[] = {
    {"filter_case", "200 Filter case set to (%d).\r\n", 0, 1},
    {"filter_diacritics", "200 Filter diactritics set to (%d).\r\n", 0, 8},
    {"filter_path", "200 Filter path set to (%d).\r\n", 0, 4},
    {"filter_regex", "200 Filter regex set to (%d).\r\n", 0, 16},
    {"filter_whole_word", "200 Filter whole word set to (%d).\r\n", 0, 2},
};
static const stp_flag_t stp_columns[] = {
    {"size_column", "200 Size column set to (%u).\r\n", STP_FLAG(size_column), 0},
    {"attributes_column", "200 Attributes column set to (%u).\r\n", STP_FLAG(attributes_column), 0},
    {"date_modified_column", "200 Date modified column set to (%u).\r\n", STP_FLAG(date_modified_column), 0},
    {"date_created_column", "200 Date created column set to (%u).\r\n", STP_FLAG(date_created_column), 0},
    {"path_column", "200 Path column set to (%u).\r\n", STP_FLAG(path_column), 0},
    {"file_list_filename_column", "200 File list filename column set to (%u).\r\n",
     STP_FLAG(file_list_filename_column), 0},
    {"date_recently_changed_column", "200 Date recently changed column set to (%u).\r\n",
     STP_FLAG(date_recently_changed_column), 0},
};

void stp_query_verb(stp_session_t *s, const char *arg) {
    const char *kw = arg;
    uint32_t kw_len = 0;
    while (kw[kw_len] && kw[kw_len] != ' ' && kw[kw_len] != '\t' && kw[kw_len] != '\r' &&
           kw[kw_len] != '\n') {
        kw_len++;
    }
    const char *value = kw + kw_len;
    while (*value == ' ' || *value == '\t' || *value == '\r' || *value == '\n') {
        value++;
    }
    uint32_t number = _stp_number(value);
    for (const stp_flag_t &f : stp_flags) {
        if (_stp_keyword_eq(kw, kw_len, f.keyword)) {
            bool *b = (bool *) ((char *) &s->now + f.field);
            *b = number != 0;
            _stp_sendf(s, f.reply, (int) *b);
            return;
        }
    }
    if (_stp_keyword_eq(kw, kw_len, "search")) {
        str_set(&s->search, value);
        _stp_sendf(s, "200 Search set to (%s).\r\n", s->search.ptr);
        return;
    }
    if (_stp_keyword_eq(kw, kw_len, "filter_search")) {
        str_set(&s->filter_search, value);
        _stp_sendf(s, "200 Filter search set to (%s).\r\n", s->filter_search.ptr);
        return;
    }
    for (const stp_flag_t &f : stp_filter_flags) {
        if (_stp_keyword_eq(kw, kw_len, f.keyword)) {
            if (number) {
                s->now.filter_flags |= f.bit;
            } else {
                s->now.filter_flags &= ~f.bit;
            }
            _stp_sendf(s, f.reply, (int) ((s->now.filter_flags & f.bit) != 0));
            return;
        }
    }
    if (_stp_keyword_eq(kw, kw_len, "sort")) {
        for (const stp_sort_name_t &n : stp_sorts) {
            if (_stp_keyword_eq(value, (uint32_t) strlen(value), n.name)) {
                s->now.sort = n.sort;
                _stp_sendf(s, "200 Sort set to (%s).\r\n", n.name);
                return;
            }
        }
        _stp_text(s, "500 Unknown sort type.\r\n");
        return;
    }
    if (_stp_keyword_eq(kw, kw_len, "offset")) {
        s->offset = number;
        _stp_sendf(s, "200 Offset set to (%u).\r\n", number);
        return;
    }
    if (_stp_keyword_eq(kw, kw_len, "count")) {
        s->count = number;
        _stp_sendf(s, "200 Count set to (%u).\r\n", number);
        return;
    }
    for (const stp_flag_t &f : stp_columns) {
        if (_stp_keyword_eq(kw, kw_len, f.keyword)) {
            bool *b = (bool *) ((char *) &s->now + f.field);
            *b = number != 0;
            _stp_sendf(s, f.reply, (unsigned) *b);
            return;
        }
    }
    if (_stp_keyword_eq(kw, kw_len, "query")) {
        _stp_run_query(s);
        return;
    }
    _stp_text(s, "500 Unknown Sablewatch command.\r\n");
}
