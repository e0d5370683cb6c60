// The sorted arrays and the open queries, as every operation of the live update moves a record through
// them: out while its key is the old one, back in under the new one. An array that refuses either step
// contradicts itself, and that is fatal with the array's own message.
#include <cstring>

#include "config/config.h"
#include "db_create/db_create.h"
#include "db_query/db_query.h"
#include "db_update/update_internal.h"
#include "mem/mem.h"

// The orders beyond name order in the sequence in which the index fills them.
static const db_order_t _file_orders[] = {
    DB_ORDER_PATH,          DB_ORDER_EXTENSION,     DB_ORDER_SIZE,      DB_ORDER_DATE_CREATED,
    DB_ORDER_DATE_MODIFIED, DB_ORDER_DATE_ACCESSED, DB_ORDER_ATTRIBUTES};
static const db_order_t _folder_orders[] = {DB_ORDER_PATH,          DB_ORDER_SIZE,
                                            DB_ORDER_DATE_CREATED,  DB_ORDER_DATE_MODIFIED,
                                            DB_ORDER_DATE_ACCESSED, DB_ORDER_ATTRIBUTES};

// Messages by order: an add or a removal of a file, an update of a file's value, and any change of a
// folder.
static const char *_message(db_order_t order, bool folder, bool values) {
    static const char *const files_sorted[DB_ORDER_COUNT] = {
        "corrupt file name array",
        "corrupt file path sorted array",
        "corrupt file size sorted array",
        "corrupt file date created sorted array",
        "corrupt file date modified sorted array",
        "corrupt file date accessed sorted array",
        "corrupt file attributes sorted array",
        "corrupt file extension sorted array",
        "folder FRN array corrupt",
    };
    static const char *const files_values[DB_ORDER_COUNT] = {
        "corrupt file name array",          "corrupt file path sorted array",
        "corrupt file size array",          "corrupt file date created array",
        "corrupt file date modified array", "corrupt file date accessed array",
        "corrupt file attributes array",    "corrupt file extension sorted array",
        "folder FRN array corrupt",
    };
    static const char *const folders[DB_ORDER_COUNT] = {
        "corrupt folder name array",          "corrupt folder path array",
        "corrupt folder size array",          "corrupt folder date created array",
        "corrupt folder date modified array", "corrupt folder date accessed array",
        "corrupt folder attributes array",    "corrupt folder name array",
        "folder FRN array corrupt",
    };
    return folder ? folders[order] : values ? files_values[order] : files_sorted[order];
}

static void _insert(db_t *db, db_order_t order, bool folder, db_ref_t r, const char *message) {
    mem_array_t *a = db_array(db, order, folder);
    if (!a)
        return;
    db_key_t key = {db, r, (uint8_t) order, folder, false};
    if (!mem_array_insert_sorted(a, db_key_compare, &key, r))
        db_corrupt(db, message);
}

static void _remove(db_t *db, db_order_t order, bool folder, db_ref_t r, const char *message) {
    mem_array_t *a = db_array(db, order, folder);
    if (!a)
        return;
    db_key_t key = {db, r, (uint8_t) order, folder, false};
    if (mem_array_find_remove(a, db_key_compare, &key) != r)
        db_corrupt(db, message);
}

void db_update_arrays_insert(db_t *db, db_ref_t r, bool folder, uint32_t orders, bool values) {
    const db_order_t *list = folder ? _folder_orders : _file_orders;
    size_t n =
        folder ? sizeof _folder_orders / sizeof *_folder_orders : sizeof _file_orders / sizeof *_file_orders;
    for (size_t i = 0; i < n; i++)
        if (orders & DB_UPDATE_BIT(list[i]))
            _insert(db, list[i], folder, r, _message(list[i], folder, values));
}

void db_update_arrays_remove(db_t *db, db_ref_t r, bool folder, uint32_t orders, bool values) {
    const db_order_t *list = folder ? _folder_orders : _file_orders;
    size_t n =
        folder ? sizeof _folder_orders / sizeof *_folder_orders : sizeof _file_orders / sizeof *_file_orders;
    for (size_t i = 0; i < n; i++)
        if (orders & DB_UPDATE_BIT(list[i]))
            _remove(db, list[i], folder, r, _message(list[i], folder, values));
}

void db_update_name_remove(db_t *db, db_ref_t r, bool folder) {
    _remove(db, DB_ORDER_NAME, folder, r, folder ? "folder name array corrupt" : "corrupt file name array");
}

void db_update_name_insert(db_t *db, db_ref_t r, bool folder) {
    _insert(db, DB_ORDER_NAME, folder, r, _message(DB_ORDER_NAME, folder, false));
}

bool db_update_has_frn(const db_t *db, db_ref_t folder) {
    return db_record_frn(db, folder) != nullptr;
}

static mem_array_t *_frn_array(db_t *db, db_ref_t folder) {
    const db_fs_t *fs = db_record_fs(db, folder);
    if (!fs || (fs->type != DB_FS_NTFS && fs->type != DB_FS_REFS))
        return nullptr;
    return db_frn_array(db, fs->type);
}

void db_update_frn_remove(db_t *db, db_ref_t folder) {
    mem_array_t *a = _frn_array(db, folder);
    if (!a)
        return;
    db_key_t key = {db, folder, (uint8_t) DB_ORDER_FRN, true, false};
    if (mem_array_find_remove(a, db_key_compare, &key) != folder)
        db_corrupt(db, "folder FRN array corrupt");
}

void db_update_frn_insert(db_t *db, db_ref_t folder) {
    mem_array_t *a = _frn_array(db, folder);
    if (!a)
        return;
    db_key_t key = {db, folder, (uint8_t) DB_ORDER_FRN, true, false};
    if (!mem_array_insert_sorted(a, db_key_compare, &key, folder))
        db_corrupt(db, "folder FRN array corrupt");
}

uint32_t db_update_orders_of_field(db_field_t field) {
    switch (field) {
    case DB_FIELD_SIZE:
        return DB_UPDATE_BIT(DB_ORDER_SIZE);
    case DB_FIELD_DATE_CREATED:
        return DB_UPDATE_BIT(DB_ORDER_DATE_CREATED);
    case DB_FIELD_DATE_MODIFIED:
        return DB_UPDATE_BIT(DB_ORDER_DATE_MODIFIED);
    case DB_FIELD_DATE_ACCESSED:
        return DB_UPDATE_BIT(DB_ORDER_DATE_ACCESSED);
    case DB_FIELD_ATTRIBUTES:
        return DB_UPDATE_BIT(DB_ORDER_ATTRIBUTES);
    default:
        return 0;
    }
}

// ---- the queries -----------------------------------------------------------------------------------------

uint32_t db_update_query_count(const db_t *db) {
    uint32_t n = 0;
    for (const db_query_t *q = db->queries_first; q; q = q->next)
        n++;
    return n;
}

// Queries see the index only once it is loaded: before that they hold no results to keep.
void db_update_queries_detach(db_t *db, db_ref_t r, bool folder, uint8_t *flags) {
    if (!db->is_loaded)
        return;
    uint32_t i = 0;
    for (db_query_t *q = db->queries_first; q; q = q->next, i++) {
        uint32_t f = db_query_record_detach(q, r, folder);
        if (flags)
            flags[i] = (uint8_t) f;
    }
}

void db_update_queries_attach(db_t *db, db_ref_t r, bool folder, const uint8_t *flags, db_eval_scratch_t *s) {
    if (!db->is_loaded)
        return;
    uint32_t i = 0;
    for (db_query_t *q = db->queries_first; q; q = q->next, i++)
        db_query_record_attach(q, r, folder, flags ? flags[i] : 0, s);
}

void db_update_queries_added(db_t *db, db_ref_t r, bool folder) {
    if (db->is_loaded && db->queries_first)
        db_queries_record_added(db, r, folder);
}

// ---- records -------------------------------------------------------------------------------------------

static const db_field_t _fields[] = {DB_FIELD_SIZE, DB_FIELD_DATE_CREATED, DB_FIELD_DATE_MODIFIED,
                                     DB_FIELD_DATE_ACCESSED, DB_FIELD_ATTRIBUTES};

static uint64_t _fd_field(const db_fd_t *fd, db_field_t f) {
    switch (f) {
    case DB_FIELD_SIZE:
        return fd->size;
    case DB_FIELD_DATE_CREATED:
        return fd->date_created;
    case DB_FIELD_DATE_MODIFIED:
        return fd->date_modified;
    case DB_FIELD_DATE_ACCESSED:
        return fd->date_accessed;
    default:
        return fd->attributes;
    }
}

void db_update_write_fd(db_t *db, db_ref_t r, bool folder, const db_fd_t *fd) {
    if (!fd)
        return;
    for (db_field_t f : _fields) {
        uint64_t v = _fd_field(fd, f);
        bool unknown = f == DB_FIELD_ATTRIBUTES ? v == 0 : v == DB_UNKNOWN;
        if (unknown || (folder && f == DB_FIELD_SIZE))
            continue;
        (folder ? db_folder_set : db_file_set)(db, r, f, v);
    }
}

void db_update_overlay_fd(db_fd_t *fd, const db_fd_t *news) {
    if (!news)
        return;
    if (news->size != DB_UNKNOWN)
        fd->size = news->size;
    if (news->date_created != DB_UNKNOWN)
        fd->date_created = news->date_created;
    if (news->date_modified != DB_UNKNOWN)
        fd->date_modified = news->date_modified;
    if (news->date_accessed != DB_UNKNOWN)
        fd->date_accessed = news->date_accessed;
    if (news->attributes)
        fd->attributes = news->attributes;
}

void db_update_read_fd(const db_t *db, db_ref_t r, bool folder, db_fd_t *out) {
    auto get = folder ? db_folder_get : db_file_get;
    out->size = get(db, r, DB_FIELD_SIZE);
    out->date_created = get(db, r, DB_FIELD_DATE_CREATED);
    out->date_modified = get(db, r, DB_FIELD_DATE_MODIFIED);
    out->date_accessed = get(db, r, DB_FIELD_DATE_ACCESSED);
    out->attributes = (uint32_t) get(db, r, DB_FIELD_ATTRIBUTES);
}

// One regular expression match block for each thread that tests excludes, made on first use.
struct _match_data_t {
    void *data = nullptr;
    ~_match_data_t() {
        if (data)
            db_exclude_match_data_destroy(data);
    }
};
static thread_local _match_data_t _match_data;

bool db_update_excluded(db_t *db, db_ref_t parent, bool folder, const char *name, uint32_t len) {
    const db_exclude_t *e = &db->exclude;
    if (folder ? !e->folders : !e->files && !e->include_only_files)
        return false;
    if (!_match_data.data)
        _match_data.data = db_exclude_match_data_create();
    str_t path;
    str_init(&path);
    const char *p = nullptr;
    uint32_t plen = 0;
    if (folder ? e->folder_needs_path : e->file_needs_path) {
        if (parent) {
            db_get_full_path(&path, parent);
            // Below the Linux root (named "", shown as "/") the separator is already there.
            if (!(path.len == 1 && path.ptr[0] == OS_SEP))
                str_cat_char(&path, OS_SEP);
        }
        str_cat(&path, name, (int) len);
        p = path.ptr;
        plen = (uint32_t) path.len;
    }
    bool excluded = folder ? db_exclude_folder(e, _match_data.data, name, len, p, plen)
                           : db_exclude_file(e, _match_data.data, name, len, p, plen);
    str_kill(&path);
    return excluded;
}

void db_update_forget(db_t *db, db_ref_t r, bool folder) {
    db_changed_records_remove(db, r);
    if (db_update_history.removed)
        db_update_history.removed(db, r, folder);
}

void db_update_parent_fd(db_t *db, db_ref_t parent, const db_fd_t *fd, uint64_t timestamp) {
    if (parent && fd)
        db_folder_update_record(db, parent, fd, timestamp);
}

// ---- paths -----------------------------------------------------------------------------------------------

void db_update_split_path(const char *path, uint32_t *parent_len, const char **name, uint32_t *name_len) {
    uint32_t len = (uint32_t) strlen(path);
    uint32_t cut = len;
    while (cut > 0 && path[cut - 1] != OS_SEP)
        cut--;
    *name = path + cut;
    *name_len = len - cut;
    *parent_len = cut ? cut - 1 : 0;
    // "/usr" lies in the Linux root, whose path is "/" though its name is "".
    if (cut == 1 && path[0] == OS_SEP)
        *parent_len = 1;
}

db_ref_t db_update_folder_at(db_t *db, const char *path, uint32_t len) {
    str_t s;
    str_init(&s);
    str_set_n(&s, path, (int) len);
    db_ref_t r = db_folder_find_by_path(db, s.ptr);
    str_kill(&s);
    return r;
}

void db_update_announce_replaced(db_t *db, db_ref_t old, db_ref_t r, bool folder, const uint8_t *flags,
                                 uint64_t timestamp) {
    if (!r) {
        if (db_update_history.removed)
            db_update_history.removed(db, old, folder);
        return;
    }
    if (db_update_history.replaced)
        db_update_history.replaced(db, old, r, folder, timestamp);
    if (db->is_loaded && db_update_query_count(db)) {
        db_eval_scratch_t s;
        db_eval_scratch_init(&s);
        db_update_queries_attach(db, r, folder, flags, &s);
        db_eval_scratch_kill(&s);
        db_queries_record_replaced(db, old, r);
    }
}

void db_update_rewrite(db_t *db, db_ref_t r, bool folder, uint32_t orders, const db_fd_t *fd) {
    uint32_t nq = db_update_query_count(db);
    uint8_t flags_local[16];
    uint8_t *flags = nq <= sizeof flags_local ? flags_local : (uint8_t *) mem_alloc(nq);
    db_update_queries_detach(db, r, folder, flags);
    db_update_arrays_remove(db, r, folder, orders, true);
    db_update_write_fd(db, r, folder, fd);
    db_update_arrays_insert(db, r, folder, orders, true);
    if (db->is_loaded && nq) {
        db_eval_scratch_t s;
        db_eval_scratch_init(&s);
        db_update_queries_attach(db, r, folder, flags, &s);
        db_eval_scratch_kill(&s);
    }
    if (flags != flags_local)
        mem_free(flags);
    db_changed_records_add(db, r);
}
