// Gathering: the list of sources of the new index, and for each one either a read or a copy of the
// records that the old index still holds correctly, all into temporary records.
#include <cstring>

#include "db_create/db_create.h"
#include "debug/debug.h"
#include "filelist/filelist.h"
#include "mem/mem.h"

// ---- temporary records ---------------------------------------------------------------------------------

static uint32_t _frn_size(uint32_t type) {
    return type == DB_FS_NTFS ? 8 : type == DB_FS_REFS ? 16 : 0;
}

static uint32_t _parent_frn_size(uint32_t type) {
    return type == DB_FS_NTFS ? 4 : type == DB_FS_REFS ? 16 : 0;
}

uint8_t *db_build_frn(const db_job_t *job, uint32_t type, db_ref_t folder) {
    (void) type;
    return db_record_data(folder) + job->structure.folder_data_size;
}

uint8_t *db_build_parent_frn(const db_job_t *job, uint32_t type, bool folder, db_ref_t r) {
    const db_structure_t *s = &job->structure;
    return db_record_data(r) + (folder ? s->folder_data_size + _frn_size(type) : s->file_data_size);
}

// Room for a record with its name; the data block and the FRN fields are left to the caller. parent is
// stored as given (a record, a marker, or the low word of a parent FRN).
static db_ref_t _alloc(db_build_ctx_t *ctx, bool folder, bool top, uint32_t parent, const char *name,
                       uint32_t len) {
    const db_structure_t *s = &ctx->job->structure;
    uint32_t type = ctx->source->type;
    uint32_t tail = folder ? s->folder_data_size + _frn_size(type) : s->file_data_size;
    uint32_t prefix = (top ? 4 : 0) + (len >= DB_LONG_NAME ? 4 : 0);
    uint32_t total = prefix + 5 + len + tail + _parent_frn_size(type);
    uint8_t *p = db_ptr(db_pool_alloc(ctx->stack, total));
    if (top) {
        memcpy(p, &ctx->source->index, 4);
        p += 4;
    }
    if (len >= DB_LONG_NAME) {
        memcpy(p, &len, 4);
        p += 4;
    }
    memcpy(p, &parent, 4);
    p[4] = (uint8_t) (len >= DB_LONG_NAME ? DB_LONG_NAME : len);
    memcpy(p + 5, name, len);
    db_ref_t r = db_ref(p);
    if (folder) {
        mem_list_add(ctx->folder_list, r);
        ctx->folder_count++;
    } else {
        mem_list_add(ctx->file_list, r);
        ctx->file_count++;
    }
    return r;
}

static void _put(uint8_t *data, const int8_t *offsets, db_field_t field, uint64_t v) {
    if (offsets[field] < 0)
        return;
    if (field == DB_FIELD_ATTRIBUTES) {
        uint32_t a = (uint32_t) v;
        memcpy(data + offsets[field], &a, 4);
    } else {
        memcpy(data + offsets[field], &v, 8);
    }
}

static void _fill(const db_job_t *job, bool folder, db_ref_t r, const os_file_info_t *fd) {
    const int8_t *o = folder ? job->structure.folder_offset : job->structure.file_offset;
    uint8_t *d = db_record_data(r);
    // A folder's size is the sum of what it holds, added up at the end of the build.
    _put(d, o, DB_FIELD_SIZE, folder ? 0 : fd->size);
    _put(d, o, DB_FIELD_DATE_CREATED, fd->date_created);
    _put(d, o, DB_FIELD_DATE_MODIFIED, fd->date_modified);
    _put(d, o, DB_FIELD_DATE_ACCESSED, fd->date_accessed);
    _put(d, o, DB_FIELD_ATTRIBUTES, fd->attributes);
}

// A name no record can hold comes only from damaged input (a list row); it is left out, not fatal.
static bool _name_too_long(uint32_t len) {
    if (len <= DB_NAME_MAX)
        return false;
    debug_printf("name of %u bytes is too long, skipped\n", len);
    return true;
}

db_ref_t db_build_folder_new(db_build_ctx_t *ctx, db_ref_t parent, const char *name, uint32_t len,
                             const os_file_info_t *fd) {
    // What the folder holds still needs a parent: an unnamed orphan, which the merge drops with it all.
    if (_name_too_long(len))
        return _alloc(ctx, true, false, 0, "", 0);
    db_ref_t r = _alloc(ctx, true, parent == DB_BUILD_TOP, parent, name, len);
    _fill(ctx->job, true, r, fd);
    return r;
}

db_ref_t db_build_file_new(db_build_ctx_t *ctx, db_ref_t parent, const char *name, uint32_t len,
                           const os_file_info_t *fd) {
    if (_name_too_long(len))
        return 0;
    db_ref_t r = _alloc(ctx, false, parent == DB_BUILD_TOP, parent, name, len);
    _fill(ctx->job, false, r, fd);
    return r;
}

// ---- volume entries ------------------------------------------------------------------------------------

void db_build_volume_entry(db_build_ctx_t *ctx, const db_volume_entry_t *e) {
    db_job_t *job = ctx->job;
    db_build_source_t *src = ctx->source;
    bool folder = (e->fd.attributes & OS_ATTR_DIRECTORY) != 0;
    bool root = folder && src->type == DB_FS_NTFS && e->frn_low == DB_NTFS_ROOT_FRN && e->frn_high == 0;
    if (!root && e->parent_frn_low == 0 && e->parent_frn_high == 0)
        return;
    if (!root && db_exclude_attributes(&job->exclude, e->fd.attributes))
        return;
    // What a too long folder held finds no parent by its FRN and is orphaned.
    if (!root && _name_too_long(e->name_len))
        return;
    const char *name = e->name;
    uint32_t len = e->name_len;
    if (root) {
        name = src->path ? src->path : "";
        len = (uint32_t) strlen(name);
    }
    uint32_t parent_low = root ? 0 : (uint32_t) e->parent_frn_low;
    db_ref_t r = _alloc(ctx, folder, root, parent_low, name, len);
    _fill(job, folder, r, &e->fd);
    if (folder) {
        uint8_t *frn = db_build_frn(job, src->type, r);
        memcpy(frn, &e->frn_low, 8);
        if (src->type == DB_FS_REFS)
            memcpy(frn + 8, &e->frn_high, 8);
    }
    uint8_t *pf = db_build_parent_frn(job, src->type, folder, r);
    if (src->type == DB_FS_NTFS) {
        uint32_t high = root ? 0 : (uint32_t) (e->parent_frn_low >> 32);
        memcpy(pf, &high, 4);
    } else {
        uint64_t lo = root ? 0 : e->parent_frn_low, hi = root ? 0 : e->parent_frn_high;
        memcpy(pf, &lo, 8);
        memcpy(pf + 8, &hi, 8);
    }
}

// ---- re-use of an old source ---------------------------------------------------------------------------

// The old records of one source, as two flat arrays of references.
struct _old_t {
    db_ref_t *folders;
    uint32_t folder_count;
    db_ref_t *files;
    uint32_t file_count;
};

static void _old_collect(db_t *db, uint32_t index, _old_t *out) {
    out->folders = (db_ref_t *) mem_alloc((db->folders.count + 1) * sizeof(db_ref_t));
    out->files = (db_ref_t *) mem_alloc((db->files.count + 1) * sizeof(db_ref_t));
    out->folder_count = out->file_count = 0;
    int c = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(&db->folders, &c, &pos));)
        if (db_record_fs_index(r) == index)
            out->folders[out->folder_count++] = r;
    c = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(&db->files, &c, &pos));)
        if (db_record_fs_index(r) == index)
            out->files[out->file_count++] = r;
}

// Copies the old fields that the wanted structure keeps; the others are unknown.
static void _copy_fields(const db_t *db, const db_job_t *job, bool folder, db_ref_t old, db_ref_t r) {
    os_file_info_t fd;
    uint64_t (*get)(const db_t *, db_ref_t, db_field_t) = folder ? db_folder_get : db_file_get;
    fd.size = get(db, old, DB_FIELD_SIZE);
    fd.date_created = get(db, old, DB_FIELD_DATE_CREATED);
    fd.date_modified = get(db, old, DB_FIELD_DATE_MODIFIED);
    fd.date_accessed = get(db, old, DB_FIELD_DATE_ACCESSED);
    fd.attributes = (uint32_t) get(db, old, DB_FIELD_ATTRIBUTES);
    _fill(job, folder, r, &fd);
}

// A scanned folder or a file list: parents are real records, mapped from old to new through the old
// folders sorted by address.
static void _reuse_tree(db_build_ctx_t *ctx, _old_t *old) {
    db_t *db = ctx->job->db;
    os_qsort(old->folders, old->folder_count, mem_ref_compare);
    db_ref_t *made = (db_ref_t *) mem_alloc((old->folder_count + 1) * sizeof(db_ref_t));
    uint32_t len;
    for (uint32_t i = 0; i < old->folder_count; i++) {
        db_ref_t o = old->folders[i];
        const char *name = db_record_name(o, &len);
        bool top = db_record_parent(o) == 0;
        made[i] = _alloc(ctx, true, top, top ? DB_BUILD_TOP : db_record_parent(o), name, len);
        _copy_fields(db, ctx->job, true, o, made[i]);
    }
    for (uint32_t i = 0; i < old->folder_count; i++) {
        db_ref_t p = db_record_parent(made[i]);
        if (p != DB_BUILD_TOP) {
            uint32_t k = mem_refs_find(old->folders, old->folder_count, p);
            *(uint32_t *) db_ptr(made[i]) = k == UINT32_MAX ? 0 : made[k];
        }
    }
    for (uint32_t i = 0; i < old->file_count; i++) {
        db_ref_t o = old->files[i], p = db_record_parent(o);
        const char *name = db_record_name(o, &len);
        uint32_t k = p ? mem_refs_find(old->folders, old->folder_count, p) : UINT32_MAX;
        db_ref_t parent = !p ? DB_BUILD_TOP : k == UINT32_MAX ? 0 : made[k];
        db_ref_t r = _alloc(ctx, false, !p, parent, name, len);
        _copy_fields(db, ctx->job, false, o, r);
    }
    mem_free(made);
}

// A volume: the FRN fields come from the old folders, and each record's parent is named by its FRN as
// a fresh read would, so that the conversion treats both alike.
static void _reuse_volume(db_build_ctx_t *ctx, _old_t *old) {
    db_t *db = ctx->job->db;
    uint32_t type = ctx->source->type, fsz = _frn_size(type);
    uint32_t len;
    for (int pass = 0; pass < 2; pass++) {
        bool folder = pass == 0;
        uint32_t n = folder ? old->folder_count : old->file_count;
        for (uint32_t i = 0; i < n; i++) {
            db_ref_t o = folder ? old->folders[i] : old->files[i], p = db_record_parent(o);
            uint8_t pfrn[16] = {};
            if (p)
                memcpy(pfrn, db_record_frn(db, p), fsz);
            const char *name = db_record_name(o, &len);
            uint32_t low;
            memcpy(&low, pfrn, 4);
            db_ref_t r = _alloc(ctx, folder, !p, low, name, len);
            _copy_fields(db, ctx->job, folder, o, r);
            if (folder)
                memcpy(db_build_frn(ctx->job, type, r), db_record_frn(db, o), fsz);
            uint8_t *pf = db_build_parent_frn(ctx->job, type, folder, r);
            if (type == DB_FS_NTFS)
                memcpy(pf, pfrn + 4, 4);
            else
                memcpy(pf, pfrn, 16);
        }
    }
}

static void _reuse(db_build_ctx_t *ctx, const char *what) {
    db_build_source_t *src = ctx->source;
    const db_fs_t *ex = src->existing;
    debug_printf(what, ex->type == DB_FS_FILE_LIST ? (ex->filename ? ex->filename : "")
                                                   : (ex->path ? ex->path : ""));
    db_set_status(ctx->job->db, "Indexing %s...", ex->path ? ex->path : ex->filename ? ex->filename : "");
    _old_t old;
    _old_collect(ctx->job->db, ex->index, &old);
    if (src->type == DB_FS_NTFS || src->type == DB_FS_REFS)
        _reuse_volume(ctx, &old);
    else
        _reuse_tree(ctx, &old);
    // A re-used source keeps what the old one knew about its journal and its list file.
    src->journal_id = ex->journal_id;
    src->next_usn = ex->next_usn;
    if (src->type == DB_FS_FILE_LIST && !src->last_write_time)
        src->last_write_time = ex->last_write_time;
    mem_free(old.folders);
    mem_free(old.files);
}

// ---- reading -------------------------------------------------------------------------------------------

static void _read_volume(db_build_ctx_t *ctx) {
    db_build_source_t *src = ctx->source;
    bool ntfs = src->type == DB_FS_NTFS;
    if (ntfs)
        debug_printf("Indexing %s, %s, %s\n", src->guid ? src->guid : "", src->path ? src->path : "",
                     src->root ? src->root : "");
    else
        debug_printf("Indexing %s, %s\n", src->guid ? src->guid : "", src->path ? src->path : "");
    const char *reuse_line = ntfs ? "using existing NTFS index %s\n" : "using existing REFS index %s\n";
    if (src->existing && !src->existing->out_of_date) {
        _reuse(ctx, reuse_line);
    } else {
        const db_volume_reader_t *reader = ntfs ? db_ntfs_reader : db_refs_reader;
        void *vol = reader ? reader->open(src) : nullptr;
        if (!vol) {
            debug_printf("failed to open volume %s %d\n", src->path ? src->path : "", 0);
            if (src->existing) {
                _reuse(ctx, reuse_line);
                src->out_of_date = true;
            }
        } else {
            db_set_status(ctx->job->db, "Indexing %s...", src->path ? src->path : "");
            // The journal position is taken before the read, so that changes made while reading are
            // replayed later rather than lost.
            if (src->monitor && !reader->query_journal(vol, &src->journal_id, &src->next_usn))
                src->out_of_date = true;
            if (!reader->read(vol, ctx))
                src->out_of_date = true;
            reader->close(vol);
            debug_printf(ntfs ? "ntfs index: %d folders, %d files\n" : "refs index: %d folders, %d files\n",
                         (int) ctx->folder_count, (int) ctx->file_count);
        }
    }
    src->folder_count = ctx->folder_count;
    src->file_count = ctx->file_count;
    if (src->folder_count || src->file_count)
        db_build_convert_volume(ctx->job, src);
}

// A list is read straight into temporary records. A folder path that several rows name has a record for
// each, and what lies below it belongs to the last: the pairs the tree reports are applied to this
// source's records once the list is read.
struct _list_ctx_t {
    db_build_ctx_t *ctx;
    db_ref_t *moves; // pairs: from, to
    uint32_t move_count, move_cap;
};

static uintptr_t _filelist_proc(void *c, uintptr_t parent, filelist_kind_t kind, const char *name,
                                uint32_t len, const os_file_info_t *fd) {
    db_build_ctx_t *ctx = ((_list_ctx_t *) c)->ctx;
    db_ref_t p = parent ? (db_ref_t) parent : DB_BUILD_TOP;
    if (kind == FILELIST_FILE)
        return db_build_file_new(ctx, p, name, len, fd);
    return db_build_folder_new(ctx, p, name, len, fd);
}

static void _filelist_name(void *c, uintptr_t folder, const os_file_info_t *fd) {
    _fill(((_list_ctx_t *) c)->ctx->job, true, (db_ref_t) folder, fd);
}

static void _filelist_move(void *c, uintptr_t from, uintptr_t to) {
    _list_ctx_t *l = (_list_ctx_t *) c;
    if (l->move_count == l->move_cap) {
        l->move_cap = l->move_cap ? l->move_cap * 2 : 16;
        l->moves = (db_ref_t *) mem_realloc(l->moves, (size_t) l->move_cap * 2 * sizeof(db_ref_t));
    }
    l->moves[2 * l->move_count] = (db_ref_t) from;
    l->moves[2 * l->move_count + 1] = (db_ref_t) to;
    l->move_count++;
}

static void _move_list(const mem_list_t *list, uint32_t first, const db_build_map_t *to) {
    uint32_t n = mem_list_count(list);
    for (uint32_t i = first; i < n; i++) {
        db_ref_t r = mem_list_get(list, i);
        uint32_t m = db_build_map_get(to, db_record_parent(r));
        if (m != UINT32_MAX)
            memcpy(db_ptr(r), &m, 4);
    }
}

static void _apply_moves(db_build_ctx_t *ctx, const _list_ctx_t *l) {
    if (!l->move_count)
        return;
    db_build_map_t to;
    db_build_map_init(&to, l->move_count);
    for (uint32_t i = 0; i < l->move_count; i++)
        db_build_map_put(&to, l->moves[2 * i], l->moves[2 * i + 1]);
    _move_list(ctx->folder_list, ctx->source->folder_first, &to);
    _move_list(ctx->file_list, ctx->source->file_first, &to);
    db_build_map_kill(&to);
}

static void _read_filelist(db_build_ctx_t *ctx) {
    db_build_source_t *src = ctx->source;
    const char *name = src->filename ? src->filename : "";
    if (src->existing && !src->existing->out_of_date) {
        // The records and the date they were read at go together: a list edited since then still differs
        // from the saved date, and the next check finds it.
        _reuse(ctx, "using existing filelist index %s\n");
        return;
    }
    // Taken before the read, so that an edit made while reading shows as a change afterwards. A list
    // reached through a link is dated by the list, not by the link.
    os_file_info_t info;
    uint64_t date = os_get_target_info(name, &info) ? info.date_modified : UINT64_MAX;
    filelist_options_t options = {ctx->job->exclude.exclude_hidden, ctx->job->exclude.exclude_system};
    db_set_status(ctx->job->db, "Indexing %s...", name);
    _list_ctx_t l = {ctx, nullptr, 0, 0};
    filelist_sink_t sink = {_filelist_proc, _filelist_name, _filelist_move, &l};
    int rc = filelist_read_tree(name, &options, &sink);
    // A private index over this one list tells its windows why it is empty once the build is done.
    if (ctx->job->db->remote_name)
        ctx->job->db->filelist_status = rc;
    if (rc == FILELIST_OPEN_FAILED) {
        // A list that can't be opened keeps what it had, and stays out of date until it opens again:
        // marked, it is passed over by the change check, so an unreadable list can't ask for rebuilds
        // that would fail the same way.
        if (src->existing)
            _reuse(ctx, "using existing filelist index %s\n");
        src->out_of_date = true;
    } else {
        src->last_write_time = date;
    }
    _apply_moves(ctx, &l);
    mem_free(l.moves);
}

static uintptr_t _scan_proc(void *c, uintptr_t parent, bool folder, const char *name, uint32_t len,
                            const os_file_info_t *fd) {
    db_build_ctx_t *ctx = (db_build_ctx_t *) c;
    db_ref_t p = (db_ref_t) parent;
    if (folder)
        return db_build_folder_new(ctx, p, name, len, fd);
    return db_build_file_new(ctx, p, name, len, fd);
}

// The top folder record is made from the folder's own details once the scan has listed the folder, so
// that a folder that can't be listed leaves no record behind; the scan delivers what lies below it with 0
// for the top folder, which the wrapper below turns into the record.
struct _scan_ctx_t {
    db_build_ctx_t *ctx;
    const char *path;
    const os_file_info_t *info;
    db_ref_t top;
};

static db_ref_t _scan_top(_scan_ctx_t *s) {
    if (!s->top)
        s->top = db_build_folder_new(s->ctx, DB_BUILD_TOP, s->path, (uint32_t) strlen(s->path), s->info);
    return s->top;
}

static uintptr_t _scan_top_proc(void *c, uintptr_t parent, bool folder, const char *name, uint32_t len,
                                const os_file_info_t *fd) {
    _scan_ctx_t *s = (_scan_ctx_t *) c;
    return _scan_proc(s->ctx, parent ? parent : _scan_top(s), folder, name, len, fd);
}

// A folder that can't be read keeps the records it had, if any, and stays out of date until it can.
static void _folder_unreadable(db_build_ctx_t *ctx) {
    db_build_source_t *src = ctx->source;
    if (src->existing)
        _reuse(ctx, "using existing folder index %s\n");
    src->out_of_date = true;
}

static void _read_folder(db_build_ctx_t *ctx) {
    db_build_source_t *src = ctx->source;
    const char *path = src->path ? src->path : "";
    if (src->existing && !src->existing->out_of_date) {
        _reuse(ctx, "using existing folder index %s\n");
        return;
    }
    debug_printf("scan %s\n", path);
    db_set_status(ctx->job->db, "Indexing %s...", path);
    // The top of the Linux tree is named "" but scanned as "/".
    const char *scan_path = *path ? path : OS_SEP_STR;
    // A source named by a link to a folder indexes the folder.
    os_file_info_t info;
    if (!os_get_target_info(scan_path, &info) || !(info.attributes & OS_ATTR_DIRECTORY)) {
        debug_printf("failed to open directory %d\n", (int) os_last_error());
        _folder_unreadable(ctx);
        return;
    }
    _scan_ctx_t s = {ctx, path, &info, 0};
    // A scan that fails has delivered nothing.
    if (!db_folder_scan(scan_path, &ctx->job->exclude, _scan_top_proc, &s)) {
        _folder_unreadable(ctx);
        return;
    }
    _scan_top(&s);
}

void db_build_gather(db_job_t *job) {
    debug_printf("build indexes\n");
    for (db_build_source_t *src = job->sources; src; src = src->next) {
        db_build_ctx_t ctx = {job, &job->stack, &job->folder_list, &job->file_list, src, 0, 0};
        src->folder_first = mem_list_count(&job->folder_list);
        src->file_first = mem_list_count(&job->file_list);
        switch (src->type) {
        case DB_FS_NTFS:
        case DB_FS_REFS:
            _read_volume(&ctx);
            break;
        case DB_FS_FILE_LIST:
            _read_filelist(&ctx);
            break;
        case DB_FS_FOLDER:
            _read_folder(&ctx);
            break;
        default:
            break;
        }
        src->folder_count = mem_list_count(&job->folder_list) - src->folder_first;
        src->file_count = mem_list_count(&job->file_list) - src->file_first;
    }
}
