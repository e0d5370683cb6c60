// The pieces every HTML page is built of: its head and title, the top block with the search box, the
// table head with its sort links, a row, the page bar, and the value formats of the cells.
#include <cstring>

#include "http/http.h"
#include "http/page.h"

#define F(id) (p->server->fragments[HTTP_F_##id])

static const char *const _product = "Sablewatch";

void http_page_cat(http_page_t *p, const char *text) {
    str_cat_z(&p->out, text);
}

void http_page_html(http_page_t *p, const char *text, size_t n) {
    http_cat_html(&p->out, text, n);
}

void http_page_html_z(http_page_t *p, const char *text) {
    http_cat_html(&p->out, text, strlen(text));
}

static void _title_expand(str_t *out, const char *f, const char *end, const char *subject) {
    while (f < end) {
        if (f[0] == '$' && f + 1 < end && (f[1] == 's' || f[1] == 't' || f[1] == '$')) {
            const char *value = f[1] == 's' ? subject : f[1] == 't' ? _product : "$";
            bool variable = f[1] != '$';
            f += 2;
            // "$s?{...}" is a test, not text: the inside is kept only when the value isn't empty.
            if (variable && f + 1 < end && f[0] == '?' && f[1] == '{') {
                const char *close = (const char *) memchr(f, '}', (size_t) (end - f));
                close = close ? close : end;
                if (*value) {
                    _title_expand(out, f + 2, close, subject);
                }
                f = close < end ? close + 1 : end;
                continue;
            }
            str_cat_z(out, value);
        } else {
            str_cat_char(out, *f++);
        }
    }
}

void http_page_title(str_t *out, const char *format, const char *subject) {
    // "$s" is the search or the path, "$t" the product, "$$" a dollar sign.
    if (!format || !*format) {
        format = "$s?{$s - }$t";
    }
    _title_expand(out, format, format + strlen(format), subject);
}

void http_page_head(http_page_t *p, const char *subject) {
    str_t title;
    str_init(&title);
    http_page_title(&title, p->server->settings.title_format, subject);
    http_page_cat(p, F(HEAD_BEGIN));
    http_page_html(p, title.ptr, (size_t) title.len);
    http_page_cat(p, F(HEAD_END));
    str_kill(&title);
}

// Whether the index keeps the order of sort for both kinds, so that the sort costs nothing.
static bool _fast_sort(http_page_t *p, uint32_t sort) {
    static const db_order_t orders[] = {DB_ORDER_NAME, DB_ORDER_PATH, DB_ORDER_SIZE, DB_ORDER_DATE_MODIFIED};
    uint32_t column = sort >= 12 ? 3 : sort / 2;
    if (column > 3) {
        return false;
    }
    db_t *db = p->server->db;
    return db_array(db, orders[column], true) && db_array(db, orders[column], false);
}

void http_page_top(http_page_t *p, const char *search) {
    const http_session_t *s = p->session;
    http_page_cat(p, F(TB_CENTER));
    http_page_cat(p, F(TB_LOGO));
    http_page_cat(p, F(TB_LOGO2));
    http_page_cat(p, _product);
    http_page_cat(p, F(TB_LOGO3));
    http_page_cat(p, F(TB_FORM));
    http_page_cat(p, F(TB_FORM2));
    http_page_cat(p, "Search Sablewatch");
    http_page_cat(p, F(TB_FORM3));
    http_page_html_z(p, search);
    http_page_cat(p, F(TB_FORM4));
    if (s->sort != 0 && _fast_sort(p, s->sort)) {
        http_page_cat(p, F(TB_FORM5));
        http_page_cat(p, http_sort_name(s->sort_column));
        http_page_cat(p, F(TB_FORM6));
        str_cat_printf(&p->out, "%d", s->sort_ascending ? 1 : 0);
        http_page_cat(p, F(TB_FORM7));
    }
    http_page_cat(p, F(TB_FORM8));
    http_page_cat(p, F(TB_TABLE));
}

void http_page_link(http_page_t *p, uint32_t column, bool ascending, uint32_t offset) {
    const http_session_t *s = p->session;
    str_t link;
    str_init(&link);
    str_cat_z(&link, "?search=");
    const char *search = s->search ? s->search : "";
    http_cat_url(&link, search, strlen(search), true, true);
    if (column != HTTP_COLUMN_NAME || !ascending) {
        str_cat_printf(&link, "&sort=%s&ascending=%d", http_sort_name(column), ascending ? 1 : 0);
    }
    if (offset) {
        str_cat_printf(&link, "&offset=%u", offset);
    }
    if (s->count != p->server->settings.items_per_page) {
        str_cat_printf(&link, "&count=%u", s->count);
    }
    const struct {
        bool on;
        const char *text;
    } flags[] = {{s->match_case, "&case=1"},
                 {s->match_whole_word, "&wholeword=1"},
                 {s->match_path, "&path=1"},
                 {s->match_regex, "&regex=1"},
                 {s->match_diacritics, "&diacritics=1"}};
    for (const auto &f : flags) {
        if (f.on) {
            str_cat_z(&link, f.text);
        }
    }
    http_page_html(p, link.ptr, (size_t) link.len);
    str_kill(&link);
}

void http_page_path_link(http_page_t *p, const char *path, size_t n) {
    // A file list may hold URLs; they are links as they are.
    const char *colon = (const char *) memchr(path, ':', n);
    if (colon && (size_t) (colon - path) + 2 < n && colon[1] == '/' && colon[2] == '/') {
        http_page_html(p, path, n);
        return;
    }
    str_t link;
    str_init(&link);
    str_cat_char(&link, '/');
    http_cat_url_path(&link, path, n);
    http_page_html(p, link.ptr, (size_t) link.len);
    str_kill(&link);
}

void http_cat_url_path(str_t *out, const char *path, size_t n) {
    // Windows paths are linked with "/" between components, as a browser expects them.
    str_t slashed;
    str_init(&slashed);
    str_set_n(&slashed, path, (int) n);
    for (int i = 0; OS_SEP == '\\' && i < slashed.len; i++) {
        if (slashed.ptr[i] == '\\') {
            slashed.ptr[i] = '/';
        }
    }
    http_cat_url(out, slashed.ptr, (size_t) slashed.len, false, false);
    str_kill(&slashed);
}

void http_page_table_head(http_page_t *p, const char *folder) {
    bool search = folder == nullptr;
    const http_session_t *s = p->session;
    static const struct {
        uint32_t column;
        const char *cls, *title;
    } columns[] = {{HTTP_COLUMN_NAME, "nameheader", "Name"},
                   {HTTP_COLUMN_PATH, "pathheader", "Path"},
                   {HTTP_COLUMN_SIZE, "sizeheader", "Size"},
                   {HTTP_COLUMN_DATE_MODIFIED, "modifiedheader", "Date Modified"}};
    http_page_cat(p, F(THS_TR));
    for (const auto &c : columns) {
        if (c.column == HTTP_COLUMN_PATH && !search) {
            continue;
        }
        bool current = s->sort_column == c.column;
        // The current column flips; a new one starts where a reader expects: names A to Z, the largest
        // and the newest first.
        bool ascending = current ? !s->sort_ascending : c.column <= HTTP_COLUMN_PATH;
        http_page_cat(p, F(TH_TD));
        http_page_cat(p, c.cls);
        http_page_cat(p, F(TH_TD2));
        http_page_cat(p, F(TH_TD3));
        if (search) {
            http_page_link(p, c.column, ascending, 0);
        } else {
            // A folder's own address, sorted another way.
            str_t link;
            str_init(&link);
            http_cat_url_path(&link, folder, strlen(folder));
            str_cat_printf(&link, "?sort=%s&ascending=%d", http_sort_name(c.column), ascending ? 1 : 0);
            http_page_html(p, link.ptr, (size_t) link.len);
            str_kill(&link);
        }
        http_page_cat(p, F(TH_TD4));
        http_page_cat(p, F(TH_NOBR));
        http_page_cat(p, c.title);
        if (current) {
            http_page_cat(p, F(TH_UPDOWN));
            http_page_cat(p, s->sort_ascending ? "up.gif" : "down.gif");
            http_page_cat(p, F(TH_UPDOWN2));
        }
        http_page_cat(p, F(TH_NOBR_END));
        http_page_cat(p, F(TH_A_END));
        http_page_cat(p, F(TH_TD_END));
    }
    http_page_cat(p, F(THS_TR_END));
    http_page_cat(p, F(THS_LINE));
    http_page_cat(p, search ? "4" : "3");
    http_page_cat(p, F(THS_LINE2));
}

void http_format_grouped(str_t *out, uint64_t value) {
    char digits[24];
    int n = text_format_args(digits, "%I64u", value);
    for (int i = 0; i < n; i++) {
        if (i > 0 && (n - i) % 3 == 0) {
            str_cat_char(out, ',');
        }
        str_cat_char(out, digits[i]);
    }
}

void http_format_size(str_t *out, uint64_t size) {
    if (size == DB_UNKNOWN) {
        return;
    }
    // Kilobytes rounded up, as a file manager shows them: a one-byte file is "1 KB", not "0 KB".
    http_format_grouped(out, size / 1024 + (size % 1024 != 0));
    str_cat_z(out, " KB");
}

void http_format_date(str_t *out, uint64_t filetime) {
    os_systemtime_t t;
    if (filetime == DB_UNKNOWN || !os_filetime_to_local(filetime, &t)) {
        return;
    }
    str_cat_printf(out, "%04d-%02d-%02d %02d:%02d", t.year, t.month, t.day, t.hour, t.minute);
}

void http_page_row(http_page_t *p, const http_row_t *row, uint32_t index, bool search) {
    bool link = row->folder || p->server->settings.allow_download;
    http_page_cat(p, F(RESULT_TR));
    http_page_cat(p, index % 2 == 0 ? "trdata1" : "trdata2");
    http_page_cat(p, F(RESULT_TR2));
    http_page_cat(p, F(RESULT_TD));
    http_page_cat(p, row->folder ? "folder" : "file");
    http_page_cat(p, F(RESULT_TD2));
    http_page_cat(p, F(RESULT_NOBR));
    if (link) {
        http_page_cat(p, F(RESULT_A));
        http_page_path_link(p, row->full_path, row->full_path_len);
        http_page_cat(p, F(RESULT_A2));
    }
    http_page_cat(p, F(RESULT_ICON));
    http_page_cat(p, row->folder ? "folder.gif" : "file.gif");
    http_page_cat(p, F(RESULT_ICON2));
    http_page_html(p, row->name, row->name_len);
    http_page_cat(p, F(RESULT_A_END));
    http_page_cat(p, F(RESULT_NOBR_END));
    http_page_cat(p, F(RESULT_TD_END));
    if (search) {
        http_page_cat(p, F(RESULT_TD));
        http_page_cat(p, "pathdata");
        http_page_cat(p, F(RESULT_TD2));
        http_page_cat(p, F(RESULT_NOBR));
        http_page_cat(p, F(RESULT_A));
        http_page_path_link(p, row->path, row->path_len);
        http_page_cat(p, F(RESULT_A2));
        http_page_html(p, row->path, row->path_len);
        http_page_cat(p, F(RESULT_A_END));
        http_page_cat(p, F(RESULT_NOBR_END));
        http_page_cat(p, F(RESULT_TD_END));
    }
    const struct {
        const char *cls;
        bool size;
        uint64_t value;
    } cells[] = {{"sizedata", true, row->size}, {"modifieddata", false, row->date_modified}};
    for (const auto &cell : cells) {
        http_page_cat(p, F(RESULT_TD));
        http_page_cat(p, cell.cls);
        http_page_cat(p, F(RESULT_TD2));
        if (cell.size) {
            http_format_size(&p->out, cell.value);
        } else {
            http_format_date(&p->out, cell.value);
        }
        http_page_cat(p, F(RESULT_TD_END));
    }
    http_page_cat(p, F(RESULT_TR_END));
}

uint32_t http_page_bar_pages(uint32_t total, uint32_t count, uint32_t offset, uint32_t *pages) {
    uint32_t page_count = (uint32_t) (((uint64_t) total + count - 1) / count);
    uint32_t current = (uint32_t) (((uint64_t) offset + count - 1) / count);
    uint32_t n = 0;
    if (page_count <= 10) {
        for (uint32_t i = 0; i < page_count; i++) {
            pages[n++] = i;
        }
        return n;
    }
    int64_t wanted[] = {0, (int64_t) current - 1, current, (int64_t) current + 1, (int64_t) page_count - 1};
    for (int64_t w : wanted) {
        if (w >= 0 && w < page_count && (n == 0 || (int64_t) pages[n - 1] < w)) {
            pages[n++] = (uint32_t) w;
        }
    }
    return n;
}

void http_page_bar(http_page_t *p, uint32_t total) {
    const http_session_t *s = p->session;
    uint32_t pages[10];
    uint32_t n = http_page_bar_pages(total, s->count, s->offset, pages);
    http_page_cat(p, F(QUERY_PAGE));
    if (s->offset != 0) {
        http_page_cat(p, F(QUERY_PREV));
        http_page_link(p, s->sort_column, s->sort_ascending, s->offset > s->count ? s->offset - s->count : 0);
        http_page_cat(p, F(QUERY_PREV2));
        http_page_html_z(p, "< Previous");
        http_page_cat(p, F(QUERY_PREV3));
    }
    for (uint32_t i = 0; i < n; i++) {
        if (i > 0 && pages[i] != pages[i - 1] + 1) {
            http_page_cat(p, F(QUERY_NAV));
        }
        uint64_t page_offset = (uint64_t) s->count * pages[i];
        if (page_offset == s->offset) {
            http_page_cat(p, F(QUERY_CUR));
            str_cat_printf(&p->out, "%u", pages[i] + 1);
            http_page_cat(p, F(QUERY_CUR2));
        } else {
            http_page_cat(p, F(QUERY_NUM));
            http_page_link(p, s->sort_column, s->sort_ascending, (uint32_t) page_offset);
            http_page_cat(p, F(QUERY_NUM2));
            str_cat_printf(&p->out, "%u", pages[i] + 1);
            http_page_cat(p, F(QUERY_NUM3));
        }
    }
    if ((uint64_t) s->offset + s->count < total) {
        http_page_cat(p, F(QUERY_NEXT));
        http_page_link(p, s->sort_column, s->sort_ascending, s->offset + s->count);
        http_page_cat(p, F(QUERY_NEXT2));
        http_page_html_z(p, "Next >");
        http_page_cat(p, F(QUERY_NEXT3));
    }
    http_page_cat(p, F(QUERY_PAGE_END));
}
