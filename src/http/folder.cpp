// Folders of the index as pages: finding a record by its path, listing a folder's children (or the roots)
// in the order asked for, in HTML and in JSON.
#include <cstring>

#include "http/serve.h"

bool http_find_record(http_server_t *server, const char *path, size_t len, bool folder, db_ref_t *record) {
    if (!server->db->is_loaded || len == 0) {
        return false;
    }
    // The name arrays hold every record once; only those whose name ends the path need their full path
    // built and compared.
    const mem_array_t *array = folder ? &server->db->folders : &server->db->files;
    str_t full;
    str_init(&full);
    bool found = false;
    int chunk = 0, pos = -1;
    for (db_ref_t r; !found && (r = mem_array_next(array, &chunk, &pos)) != 0;) {
        uint32_t name_len;
        const char *name = db_record_name(r, &name_len);
        if (name_len > len || memcmp(name, path + len - name_len, name_len) != 0) {
            continue;
        }
        db_get_full_path(&full, r);
        if ((size_t) full.len == len && memcmp(full.ptr, path, len) == 0) {
            *record = r;
            found = true;
        }
    }
    str_kill(&full);
    return found;
}

struct _children_t {
    uint32_t *items;
    uint32_t count;
    uint32_t folders; // the first this many items are folders
};

// The children of folder (0: the roots), folders first, each kind in name order as the index keeps it.
static void _children(http_server_t *server, db_ref_t folder, _children_t *out) {
    out->items = nullptr;
    out->count = out->folders = 0;
    uint32_t cap = 0;
    for (int kind = 0; kind < 2; kind++) {
        const mem_array_t *array = kind == 0 ? &server->db->folders : &server->db->files;
        int chunk = 0, pos = -1;
        for (db_ref_t r; (r = mem_array_next(array, &chunk, &pos)) != 0;) {
            if (db_record_parent(r) != folder) {
                continue;
            }
            if (out->count == cap) {
                cap = cap ? cap * 2 : 256;
                out->items = (uint32_t *) mem_realloc(out->items, cap * sizeof(uint32_t));
            }
            out->items[out->count++] = r;
        }
        if (kind == 0) {
            out->folders = out->count;
        }
    }
}

struct _sort_context_t {
    const db_t *db;
    db_order_t order;
    bool folder;
    bool descending;
};

static int _compare_children(void *context, uint32_t a, uint32_t b) {
    const _sort_context_t *s = (const _sort_context_t *) context;
    return s->descending ? db_compare_desc(s->db, s->order, s->folder, a, b)
                         : db_compare(s->db, s->order, s->folder, a, b);
}

// Orders each kind as the session asks; name ascending is the order they came in.
static void _sort_children(http_server_t *server, const http_session_t *s, _children_t *ch) {
    if (s->sort_column == HTTP_COLUMN_NAME && s->sort_ascending) {
        return;
    }
    db_order_t order = s->sort_column == HTTP_COLUMN_SIZE            ? DB_ORDER_SIZE
                       : s->sort_column == HTTP_COLUMN_DATE_MODIFIED ? DB_ORDER_DATE_MODIFIED
                                                                     : DB_ORDER_NAME;
    _sort_context_t folders = {server->db, order, true, !s->sort_ascending};
    _sort_context_t files = {server->db, order, false, !s->sort_ascending};
    os_merge_sort_ex(ch->items, ch->folders, &folders, _compare_children);
    os_merge_sort_ex(ch->items + ch->folders, ch->count - ch->folders, &files, _compare_children);
}

// A row of the listing; full and shown hold its texts. A root is shown by its whole path, which is also
// its name, after the volume's label when the settings ask for labels and the volume has one.
static void _child_row(http_server_t *server, db_ref_t r, bool folder, str_t *full, str_t *shown,
                       http_row_t *row) {
    db_get_full_path(full, r);
    row->folder = folder;
    row->name = db_record_name(r, &row->name_len);
    row->full_path = full->ptr;
    row->full_path_len = (uint32_t) full->len;
    row->path = "";
    row->path_len = 0;
    uint64_t (*get)(const db_t *, db_ref_t, db_field_t) = folder ? db_folder_get : db_file_get;
    row->size = get(server->db, r, DB_FIELD_SIZE);
    row->date_modified = get(server->db, r, DB_FIELD_DATE_MODIFIED);
    if (db_record_parent(r)) {
        return;
    }
    row->name = row->full_path;
    row->name_len = row->full_path_len;
    const http_settings_t *s = &server->settings;
    if (s->show_drive_labels && s->volume_label && s->volume_label(full->ptr, shown)) {
        str_cat_printf(shown, " (%s)", full->ptr);
        row->name = shown->ptr;
        row->name_len = (uint32_t) shown->len;
    }
}

void http_folder_row(http_connection_t *c, http_page_t *p, str_t *full, str_t *shown) {
    http_row_t row;
    _child_row(c->server, c->children[c->row], c->row < c->child_folders, full, shown, &row);
    if (c->session.json) {
        // A listing always shows size and date, and no path.
        http_json_row(p, &row, false, true, true, c->row + 1 == c->row_end);
    } else {
        http_page_row(p, &row, c->row, false);
    }
}

void http_folder_trailer(http_connection_t *c, http_page_t *p) {
    if (c->session.json) {
        str_cat_z(&p->out, "\t]\r\n}\r\n");
    } else {
        http_page_cat(p, c->server->fragments[HTTP_F_TE_END]);
        http_page_cat(p, c->server->fragments[HTTP_F_BODY_END]);
    }
}

static void _folder_html_top(http_connection_t *c, http_page_t *p, const str_t *path) {
    http_server_t *server = c->server;
    char **f = server->fragments;
    http_page_head(p, path->len ? path->ptr : "/");
    http_page_top(p, "");
    http_page_cat(p, f[HTTP_F_PATH_INDEX_OF]);
    http_page_html_z(p, "Index of ");
    http_page_html_z(p, path->len ? path->ptr : "/");
    http_page_cat(p, f[HTTP_F_PATH_INDEX_OF2]);
    if (path->len) {
        // The parent: the path less its last component, or the list of roots when that isn't indexed.
        int cut = path->len;
        while (cut > 0 && path->ptr[cut - 1] != OS_SEP) {
            cut--;
        }
        int parent_len = cut > 1 ? cut - 1 : cut;
        db_ref_t parent;
        if (!http_find_record(server, path->ptr, (size_t) parent_len, true, &parent)) {
            parent_len = 0;
        }
        http_page_cat(p, f[HTTP_F_PATH_UPDIR]);
        str_t link;
        str_init(&link);
        http_cat_url_path(&link, path->ptr, (size_t) parent_len);
        http_page_html(p, link.ptr, (size_t) link.len);
        str_kill(&link);
        http_page_cat(p, f[HTTP_F_PATH_UPDIR2]);
        http_page_html_z(p, "Up one directory...");
        http_page_cat(p, f[HTTP_F_PATH_UPDIR3]);
    }
    http_page_table_head(p, path->ptr);
}

bool http_folder_answer(http_connection_t *c, const str_t *path) {
    http_server_t *server = c->server;
    db_ref_t folder = 0;
    if (path->len > 0 && !http_find_record(server, path->ptr, (size_t) path->len, true, &folder)) {
        return false;
    }
    http_log(c, "send path %s\n", path->ptr);
    _children_t ch = {nullptr, 0, 0};
    if (server->db->is_loaded) {
        _children(server, folder, &ch);
    }
    _sort_children(server, &c->session, &ch);
    http_send_page_head(c);
    http_page_t p;
    http_page_begin(&p, c);
    if (c->session.json) {
        str_cat_z(&p.out, "{\r\n\t\"results\":[\r\n");
    } else {
        _folder_html_top(c, &p, path);
    }
    http_page_end(&p, c);
    c->children = ch.items;
    c->child_folders = ch.folders;
    c->row = c->first = 0;
    c->row_end = c->total = ch.count;
    c->streaming = HTTP_STREAM_FOLDER;
    http_stream_more(c);
    return true;
}
