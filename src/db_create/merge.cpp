// Merging: whole-array passes over the temporary records of all sources that drop what is excluded,
// orphaned or duplicated, sort what is left, and copy it into final records allocated in name order.
#include <cstring>

#include "db_create/db_create.h"
#include "debug/debug.h"
#include "mem/mem.h"

// Deeper than any real path; a chain this long is a cycle.
#define BUILD_MAX_DEPTH 16384

static bool _is_link(db_ref_t p) {
    return p && p != DB_BUILD_TOP && p != DB_BUILD_DUPE;
}

bool db_build_path(str_t *out, db_ref_t r) {
    db_ref_t chain[64];
    db_ref_t *c = chain;
    uint32_t cap = 64, n = 0;
    bool ok = true;
    for (db_ref_t p = r; _is_link(p); p = db_record_parent(p)) {
        if (n == BUILD_MAX_DEPTH) {
            ok = false;
            break;
        }
        if (n == cap) {
            db_ref_t *bigger = (db_ref_t *) mem_alloc(cap * 2 * sizeof(db_ref_t));
            memcpy(bigger, c, cap * sizeof(db_ref_t));
            if (c != chain)
                mem_free(c);
            c = bigger;
            cap *= 2;
        }
        c[n++] = p;
    }
    str_clear(out);
    for (uint32_t i = n; ok && i-- > 0;) {
        uint32_t len;
        const char *name = db_record_name(c[i], &len);
        if (i != n - 1)
            str_cat_char(out, OS_SEP);
        str_cat(out, name, (int) len);
    }
    if (c != chain)
        mem_free(c);
    return ok;
}

static void _set_parent(db_ref_t r, db_ref_t p) {
    memcpy(db_ptr(r), &p, 4);
}

// ---- excludes ------------------------------------------------------------------------------------------

static void _exclude_pass(db_job_t *job, bool folders) {
    const db_exclude_t *e = &job->exclude;
    mem_list_t *list = folders ? &job->folder_list : &job->file_list;
    bool need_path = folders ? e->folder_needs_path : e->file_needs_path;
    void *md = db_exclude_match_data_create();
    str_t path;
    str_init(&path);
    uint32_t n = mem_list_count(list);
    for (uint32_t i = 0; i < n; i++) {
        db_ref_t r = mem_list_get(list, i);
        if (!db_record_parent(r))
            continue;
        uint32_t len;
        const char *name = db_record_name(r, &len);
        bool have_path = need_path && db_build_path(&path, r);
        const char *p = have_path ? path.ptr : nullptr;
        uint32_t plen = have_path ? (uint32_t) path.len : 0;
        bool out = folders ? db_exclude_folder(e, md, name, len, p, plen)
                           : db_exclude_file(e, md, name, len, p, plen);
        if (out)
            _set_parent(r, 0);
    }
    str_kill(&path);
    db_exclude_match_data_destroy(md);
}

// ---- orphans -------------------------------------------------------------------------------------------

static void _remove_orphans(db_job_t *job) {
    uint32_t n = mem_list_count(&job->folder_list);
    for (uint32_t i = 0; i < n; i++) {
        db_ref_t f = mem_list_get(&job->folder_list, i);
        db_ref_t p = db_record_parent(f);
        uint32_t steps = 0;
        while (_is_link(p) && p != f && steps < n + 1) {
            p = db_record_parent(p);
            steps++;
        }
        if (p == DB_BUILD_TOP)
            continue;
        // Cut the whole chain, so that later walks through it end at once; a cycle ends where it closes.
        for (db_ref_t q = f; _is_link(q);) {
            db_ref_t next = db_record_parent(q);
            _set_parent(q, 0);
            q = next;
        }
    }
}

static void _verbose_drop(const db_job_t *job, const char *format, db_ref_t r) {
    if (!job->verbose)
        return;
    uint32_t len;
    const char *name = db_record_name(r, &len);
    debug_color_printf((int32_t) 0xFFFF0000, format, name, (int) len);
}

// ---- sorting -------------------------------------------------------------------------------------------

struct _frn_sort_t {
    const db_job_t *job;
    uint32_t type;
};

static int _frn_cmp(void *c, uint32_t a, uint32_t b) {
    _frn_sort_t *s = (_frn_sort_t *) c;
    const uint8_t *fa = db_build_frn(s->job, s->type, a), *fb = db_build_frn(s->job, s->type, b);
    uint64_t la, lb, ha = 0, hb = 0;
    memcpy(&la, fa, 8);
    memcpy(&lb, fb, 8);
    if (s->type == DB_FS_REFS) {
        memcpy(&ha, fa + 8, 8);
        memcpy(&hb, fb + 8, 8);
    }
    if (ha != hb)
        return ha < hb ? -1 : 1;
    if (la != lb)
        return la < lb ? -1 : 1;
    uint32_t sa = db_record_fs_index(a), sb = db_record_fs_index(b);
    return sa < sb ? -1 : sa > sb;
}

// ---- the flat arrays -----------------------------------------------------------------------------------

struct _flat_t {
    db_ref_t *items;
    uint32_t count;
};

struct _merge_t {
    db_job_t *job;
    _flat_t folders, files, ntfs, refs;
    uint32_t *source_type; // by source index
};

static void _flat_alloc(_flat_t *f, uint32_t n) {
    f->items = (db_ref_t *) mem_alloc(((size_t) n + 1) * sizeof(db_ref_t));
    f->count = 0;
}

static void _collect_folders(_merge_t *m) {
    uint32_t start = debug_now_us();
    mem_list_t *list = &m->job->folder_list;
    uint32_t n = mem_list_count(list), dropped = 0;
    _flat_alloc(&m->folders, n);
    _flat_alloc(&m->ntfs, n);
    _flat_alloc(&m->refs, n);
    for (uint32_t i = 0; i < n; i++) {
        db_ref_t f = mem_list_get(list, i);
        if (!db_record_parent(f)) {
            _verbose_drop(m->job, "excluded folder: %t\n", f);
            dropped++;
            continue;
        }
        m->folders.items[m->folders.count++] = f;
    }
    debug_printf("removed %d orphaned folders in %f seconds\n", (int) dropped,
                 (int) (debug_now_us() - start));
}

// Runs before the tops lose their marker: a parent whose own parent is 0 is then an orphan.
static void _collect_files(_merge_t *m) {
    uint32_t start = debug_now_us();
    mem_list_t *list = &m->job->file_list;
    uint32_t n = mem_list_count(list), dropped = 0;
    _flat_alloc(&m->files, n);
    for (uint32_t i = 0; i < n; i++) {
        db_ref_t f = mem_list_get(list, i);
        db_ref_t p = db_record_parent(f);
        if (!p) {
            _verbose_drop(m->job, "excluded file: %t\n", f);
            dropped++;
        } else if (p != DB_BUILD_TOP && !db_record_parent(p)) {
            _verbose_drop(m->job, "null parent file: %t\n", f);
            dropped++;
        } else {
            m->files.items[m->files.count++] = f;
        }
    }
    debug_printf("removed %d orphaned files in %f seconds\n", (int) dropped, (int) (debug_now_us() - start));
}

// The tops lose their marker: from here every order and every walk goes up to 0.
static void _clear_tops(_merge_t *m) {
    for (uint32_t i = 0; i < m->folders.count; i++)
        if (db_record_parent(m->folders.items[i]) == DB_BUILD_TOP)
            _set_parent(m->folders.items[i], 0);
    for (uint32_t i = 0; i < m->files.count; i++)
        if (db_record_parent(m->files.items[i]) == DB_BUILD_TOP)
            _set_parent(m->files.items[i], 0);
    for (uint32_t i = 0; i < m->folders.count; i++) {
        db_ref_t f = m->folders.items[i];
        uint32_t type = m->source_type[db_record_fs_index(f)];
        if (type == DB_FS_NTFS)
            m->ntfs.items[m->ntfs.count++] = f;
        else if (type == DB_FS_REFS)
            m->refs.items[m->refs.count++] = f;
    }
}

// ---- duplicates ----------------------------------------------------------------------------------------

static bool _same_name(db_ref_t a, db_ref_t b) {
    uint32_t la, lb;
    const char *na = db_record_name(a, &la), *nb = db_record_name(b, &lb);
    return la == lb && memcmp(na, nb, la) == 0;
}

static bool _same_place(db_ref_t a, db_ref_t b) {
    db_ref_t pa = db_record_parent(a), pb = db_record_parent(b);
    if (pa != pb)
        return false;
    return pa || db_record_fs_index(a) == db_record_fs_index(b);
}

static bool _reaches_dupe(db_ref_t r) {
    for (db_ref_t p = r; p; p = db_record_parent(p))
        if (p == DB_BUILD_DUPE)
            return true;
    return false;
}

static void _compact(_flat_t *f) {
    uint32_t k = 0;
    for (uint32_t i = 0; i < f->count; i++)
        if (!_reaches_dupe(f->items[i]))
            f->items[k++] = f->items[i];
    f->count = k;
}

static void _frn_dupes(_merge_t *m, _flat_t *f, uint32_t type, _flat_t *noted) {
    for (uint32_t i = 1; i < f->count; i++) {
        db_ref_t a = f->items[i - 1], b = f->items[i];
        uint32_t size = type == DB_FS_NTFS ? 8 : 16;
        const uint8_t *fa = db_build_frn(m->job, type, a), *fb = db_build_frn(m->job, type, b);
        if (memcmp(fa, fb, size) || db_record_fs_index(a) != db_record_fs_index(b))
            continue;
        uint64_t lo, hi = 0;
        memcpy(&lo, fb, 8);
        if (type == DB_FS_NTFS) {
            debug_color_printf((int32_t) 0xFFFF0000, "found folder NTFS FRN dupe %d:%016I64x\n",
                               (int) db_record_fs_index(b), lo);
        } else {
            memcpy(&hi, fb + 8, 8);
            debug_color_printf((int32_t) 0xFFFF0000, "found folder REFS FRN dupe %d:%016I64x%016I64x\n",
                               (int) db_record_fs_index(b), hi, lo);
        }
        noted->items[noted->count++] = b;
    }
}

static void _dupes(_merge_t *m) {
    uint32_t start = debug_now_us();
    _flat_t noted;
    _flat_alloc(&noted, m->folders.count + m->ntfs.count + m->refs.count + m->files.count);
    _frn_dupes(m, &m->ntfs, DB_FS_NTFS, &noted);
    _frn_dupes(m, &m->refs, DB_FS_REFS, &noted);
    for (uint32_t i = 1; i < m->folders.count; i++) {
        db_ref_t a = m->folders.items[i - 1], b = m->folders.items[i];
        if (!_same_place(a, b) || !_same_name(a, b))
            continue;
        uint32_t len;
        const char *name = db_record_name(b, &len);
        debug_color_printf((int32_t) 0xFFFF0000,
                           db_record_parent(b) ? "found folder name dupe %t\n" : "found root name dupe %t\n",
                           name, (int) len);
        noted.items[noted.count++] = b;
    }
    for (uint32_t i = 1; i < m->files.count; i++) {
        db_ref_t a = m->files.items[i - 1], b = m->files.items[i];
        if (!_same_place(a, b) || !_same_name(a, b))
            continue;
        uint32_t len;
        const char *name = db_record_name(b, &len);
        debug_color_printf((int32_t) 0xFFFF0000, "found file name dupe %t\n", name, (int) len);
        // Marked after the walk: the comparison with the next one needs the real parent.
        noted.items[noted.count++] = b;
    }
    for (uint32_t i = 0; i < noted.count; i++)
        _set_parent(noted.items[i], DB_BUILD_DUPE);
    uint32_t count = noted.count;
    if (count) {
        _compact(&m->folders);
        _compact(&m->files);
        _compact(&m->ntfs);
        _compact(&m->refs);
    }
    debug_printf("removed %u dupes in %f seconds\n", count, (int) (debug_now_us() - start));
    mem_free(noted.items);
}

// ---- the final records ---------------------------------------------------------------------------------

static uint32_t _tail(uint32_t type) {
    return type == DB_FS_NTFS ? 12 : type == DB_FS_REFS ? 20 : 0;
}

// Allocates and fills the final copy of each temporary record in the flat order; the final parent
// holds the temporary parent for now. A record's source index lies at the end of its parent chain: a
// walk for each folder, whose result the map keeps by temporary folder, so that a file asks its parent
// instead of walking. index_out (one per record, or null) gets the source index of each.
static void _finals(_merge_t *m, _flat_t *f, bool folders, db_ref_t *out, db_build_map_t *source_of,
                    uint32_t *index_out) {
    db_t *db = m->job->db;
    const db_structure_t *s = &db->structure;
    // With one source every record is its own.
    const db_build_source_t *single = m->job->sources && !m->job->sources->next ? m->job->sources : nullptr;
    for (uint32_t i = 0; i < f->count; i++) {
        db_ref_t t = f->items[i];
        uint32_t len;
        db_record_name(t, &len);
        db_ref_t parent = db_record_parent(t);
        uint32_t index;
        if (single) {
            index = single->index;
        } else {
            index = folders || !parent ? db_record_fs_index(t) : db_build_map_get(source_of, parent);
            // Not reached while every parent is a kept folder; the final copy of the parent still knows.
            if (index == UINT32_MAX)
                index = db_record_fs_index(db_record_parent(parent));
            if (folders)
                db_build_map_put(source_of, t, index);
        }
        if (index_out)
            index_out[i] = index;
        uint32_t type = m->source_type[index];
        uint32_t size =
            folders ? db_folder_record_size(s, type, !parent, len) : db_file_record_size(s, !parent, len);
        uint8_t *p = db_ptr(db_record_alloc(db, size));
        if (!parent) {
            memcpy(p, &index, 4);
            p += 4;
        }
        if (len >= DB_LONG_NAME) {
            memcpy(p, &len, 4);
            p += 4;
        }
        // parent, name length, name, data block, and for folders the FRN; the child count starts at 0.
        uint32_t data = folders ? s->folder_data_size : s->file_data_size;
        uint32_t frn = folders ? (type == DB_FS_NTFS ? 8 : type == DB_FS_REFS ? 16 : 0) : 0;
        memcpy(p, db_ptr(t), 5 + len + data + frn);
        if (folders && _tail(type))
            memset(p + 5 + len + data + frn, 0, 4);
        out[i] = db_ref(p);
    }
}

static void _fill_array(mem_array_t *a, const db_ref_t *items, uint32_t n) {
    mem_array_alloc_bulk(a, n);
    for (uint32_t i = 0; i < n; i++)
        *mem_array_bulk_slot(a, i) = items[i];
}

static void _add_child(db_t *db, db_ref_t parent) {
    if (parent)
        db_folder_set_child_count(db, parent, db_folder_child_count(db, parent) + 1);
}

static void _setup_folders(_merge_t *m, db_ref_t *final_folders, db_build_map_t *source_of) {
    db_t *db = m->job->db;
    uint32_t n = m->folders.count;
    _finals(m, &m->folders, true, final_folders, source_of, nullptr);
    // The temporary record now points forward at its final copy...
    for (uint32_t i = 0; i < n; i++)
        _set_parent(m->folders.items[i], final_folders[i]);
    // ...so each final parent goes through the forwarding pointer of its temporary parent.
    for (uint32_t i = 0; i < n; i++) {
        db_ref_t p = db_record_parent(final_folders[i]);
        if (p)
            _set_parent(final_folders[i], db_record_parent(p));
    }
    _fill_array(&db->folders, final_folders, n);
    for (int k = 0; k < 2; k++) {
        _flat_t *f = k ? &m->refs : &m->ntfs;
        mem_array_t *a = k ? &db->refs_folders : &db->ntfs_folders;
        if (!f->count)
            continue;
        for (uint32_t i = 0; i < f->count; i++)
            f->items[i] = db_record_parent(f->items[i]);
        _fill_array(a, f->items, f->count);
        for (uint32_t i = 0; i < f->count; i++)
            _add_child(db, db_record_parent(f->items[i]));
    }
}

static void _setup_files(_merge_t *m, db_ref_t *final_files, db_build_map_t *source_of) {
    db_t *db = m->job->db;
    uint32_t n = m->files.count;
    uint32_t *index = (uint32_t *) mem_alloc(((size_t) n + 1) * sizeof(uint32_t));
    _finals(m, &m->files, false, final_files, source_of, index);
    for (uint32_t i = 0; i < n; i++) {
        db_ref_t p = db_record_parent(final_files[i]);
        if (!p)
            continue;
        db_ref_t fp = db_record_parent(p);
        _set_parent(final_files[i], fp);
        uint32_t type = m->source_type[index[i]];
        if (type == DB_FS_NTFS || type == DB_FS_REFS)
            _add_child(db, fp);
    }
    _fill_array(&db->files, final_files, n);
    mem_free(index);
}

static void _folder_sizes(db_t *db, const db_ref_t *folders, uint32_t nf, const db_ref_t *files, uint32_t n) {
    uint32_t start = debug_now_us();
    for (uint32_t i = 0; i < n; i++) {
        db_ref_t p = db_record_parent(files[i]);
        uint64_t size = db_file_get(db, files[i], DB_FIELD_SIZE);
        if (p && size != DB_UNKNOWN)
            db_folder_set(db, p, DB_FIELD_SIZE, db_folder_get(db, p, DB_FIELD_SIZE) + size);
    }
    // Each folder's own files are added first; the copy keeps those sums from being counted twice when
    // they move up the chain.
    uint64_t *own = (uint64_t *) mem_alloc(((size_t) nf + 1) * sizeof(uint64_t));
    for (uint32_t i = 0; i < nf; i++)
        own[i] = db_folder_get(db, folders[i], DB_FIELD_SIZE);
    for (uint32_t i = 0; i < nf; i++)
        for (db_ref_t p = db_record_parent(folders[i]); p; p = db_record_parent(p))
            db_folder_set(db, p, DB_FIELD_SIZE, db_folder_get(db, p, DB_FIELD_SIZE) + own[i]);
    mem_free(own);
    debug_printf("calculate folder sizes: %f seconds\n", (int) (debug_now_us() - start));
}

// ---- the other sorted arrays ---------------------------------------------------------------------------

// Every further array derives from the name order of the records, which by_name holds; the path order
// also from the ranks of the folders' paths.
static void _other_sorts(db_t *db, bool folder, const db_ref_t *by_name, uint32_t n,
                         const db_build_ranks_t *ranks) {
    uint32_t start = debug_now_us();
    static const db_order_t orders[] = {DB_ORDER_PATH,          DB_ORDER_SIZE,          DB_ORDER_DATE_CREATED,
                                        DB_ORDER_DATE_MODIFIED, DB_ORDER_DATE_ACCESSED, DB_ORDER_ATTRIBUTES,
                                        DB_ORDER_EXTENSION};
    db_ref_t *items = (db_ref_t *) mem_alloc(((size_t) n + 1) * sizeof(db_ref_t));
    for (db_order_t order : orders) {
        mem_array_t *a = db_array(db, order, folder);
        if (!a)
            continue;
        if (order == DB_ORDER_PATH)
            db_build_path_order(by_name, n, ranks, items);
        else
            db_build_value_order(db, order, folder, by_name, n, items);
        _fill_array(a, items, n);
    }
    mem_free(items);
    debug_printf(folder ? "other folder sorts: %f seconds\n" : "Other file sorts: %f seconds\n",
                 (int) (debug_now_us() - start));
}

// ---- the sources of the new index ----------------------------------------------------------------------

static void _index_add(db_t *db, db_build_source_t *src) {
    if (src->type >= DB_FS_TYPE_COUNT)
        debug_fatal("db_create", __LINE__, "_db_rebuild_thread_proc", "invalid index type %d",
                    (int) src->type);
    db_fs_t *fs = db_fs_add(db, src->type);
    debug_printf("_db_index_add %d: %d, %p\n", (int) fs->index, (int) fs->type, (void *) fs);
    fs->out_of_date = src->out_of_date;
    db_fs_set_text(&fs->guid, src->guid);
    db_fs_set_text(&fs->path, src->path);
    db_fs_set_text(&fs->root, src->root);
    db_fs_set_text(&fs->include_only, src->include_only);
    db_fs_set_text(&fs->filename, src->filename);
    fs->monitor = src->monitor;
    fs->journal_id = src->journal_id;
    fs->next_usn = src->next_usn;
    fs->load_recent_changes = src->load_recent_changes;
    fs->last_write_time = src->last_write_time;
    fs->buffer_size = src->buffer_size;
    fs->rescan_if_full = src->rescan_if_full;
    fs->update_type = src->update_type;
    fs->update_value = src->update_value;
    fs->next_update = src->next_update;
    src->fs = fs;
}

// ---- the whole merge -----------------------------------------------------------------------------------

void db_build_merge(db_job_t *job) {
    db_t *db = job->db;
    uint32_t total = debug_now_us();
    _merge_t m = {};
    m.job = job;
    m.source_type = (uint32_t *) mem_alloc(((size_t) job->source_count + 1) * sizeof(uint32_t));
    for (db_build_source_t *s = job->sources; s; s = s->next) {
        m.source_type[s->index] = s->type;
        // The old source goes with the old index.
        s->existing = nullptr;
    }
    debug_printf("clear old db\n");
    db_arrays_kill(db);
    db_pool_kill(&db->pool);
    db_fs_kill_all(db);
    db_exclude_kill(&db->exclude);
    debug_printf("copy config copy\n");
    db->structure = job->structure;
    db->exclude = job->exclude;
    memset(&job->exclude, 0, sizeof(job->exclude));
    debug_printf("exclude folders\n");
    if (db->exclude.folders) {
        db_set_status(db, "Excluding folders...");
        job->exclude = db->exclude;
        _exclude_pass(job, true);
    }
    debug_printf("exclude files\n");
    if (db->exclude.files || db->exclude.include_only_files) {
        job->exclude = db->exclude;
        _exclude_pass(job, false);
    }
    memset(&job->exclude, 0, sizeof(job->exclude));
    debug_printf("remove orphaned folder children\n");
    _remove_orphans(job);
    debug_printf("create folder indexes, excluded orphaned folders.\n");
    _collect_folders(&m);
    debug_printf("allocate file indexes, removing orphaned files.\n");
    _collect_files(&m);
    // The flat arrays hold every record from here: the lists go, so that their memory serves the rest.
    mem_list_kill(&job->folder_list);
    mem_list_kill(&job->file_list);
    _clear_tops(&m);
    debug_printf("sort folder indexes.\n");
    uint32_t start = debug_now_us();
    // The folded path of every folder, ranked once: the name sorts and the path orders compare parents
    // through it.
    db_build_ranks_t temp_ranks;
    db_build_ranks_init(&temp_ranks, m.folders.items, m.folders.count, nullptr, nullptr, 0);
    debug_printf("rank folder paths: %f seconds\n", (int) (debug_now_us() - start));
    start = debug_now_us();
    db_build_sort_names(m.folders.items, m.folders.count, &temp_ranks);
    _frn_sort_t fs_ntfs = {job, DB_FS_NTFS}, fs_refs = {job, DB_FS_REFS};
    os_qsort_ex(m.ntfs.items, m.ntfs.count, &fs_ntfs, _frn_cmp);
    os_qsort_ex(m.refs.items, m.refs.count, &fs_refs, _frn_cmp);
    debug_printf("folder name os_qsort: %f seconds\n", (int) (debug_now_us() - start));
    debug_printf("sort file indexes.\n");
    start = debug_now_us();
    db_build_sort_names(m.files.items, m.files.count, &temp_ranks);
    debug_printf("os_qsort file names indexes: %f seconds\n", (int) (debug_now_us() - start));
    _dupes(&m);
    debug_printf("setup indexes.\n");
    start = debug_now_us();
    for (db_build_source_t *s = job->sources; s; s = s->next)
        _index_add(db, s);
    debug_printf("setup file systems: %f seconds\n", (int) (debug_now_us() - start));
    debug_printf("setup folders.\n");
    uint32_t folders_start = debug_now_us();
    db_ref_t *final_folders = (db_ref_t *) mem_alloc(((size_t) m.folders.count + 1) * sizeof(db_ref_t));
    db_build_map_t source_of;
    db_build_map_init(&source_of, m.folders.count);
    _setup_folders(&m, final_folders, &source_of);
    // The final folders take the ranks of their temporary copies, which they match one for one.
    uint32_t *given = (uint32_t *) mem_alloc(((size_t) m.folders.count + 1) * sizeof(uint32_t));
    for (uint32_t i = 0; i < m.folders.count; i++)
        given[i] = db_build_rank(&temp_ranks, m.folders.items[i]);
    db_build_ranks_t ranks;
    db_build_ranks_init(&ranks, final_folders, m.folders.count, given, temp_ranks.class_size,
                        temp_ranks.rank_count);
    mem_free(given);
    db_build_ranks_kill(&temp_ranks);
    debug_printf("setup files.\n");
    uint32_t files_start = debug_now_us();
    db_ref_t *final_files = (db_ref_t *) mem_alloc(((size_t) m.files.count + 1) * sizeof(db_ref_t));
    _setup_files(&m, final_files, &source_of);
    db_build_map_kill(&source_of);
    // Every record has its final copy and nothing below reads a temporary one: they go now rather than
    // with the job, so that the arrays still to come take their blocks instead of new memory.
    db_pool_kill(&job->stack);
    mem_free(m.folders.items);
    mem_free(m.files.items);
    mem_free(m.ntfs.items);
    mem_free(m.refs.items);
    m.folders.items = m.files.items = m.ntfs.items = m.refs.items = nullptr;
    if ((db->structure.word & DB_STRUCTURE_FOLDER_SIZE) && (db->structure.word & DB_STRUCTURE_SIZE))
        _folder_sizes(db, final_folders, m.folders.count, final_files, m.files.count);
    // The extension array is one of the derived orders too, wanted on its own or beside the others.
    if (db->structure.word & (0x3F00 | DB_STRUCTURE_FAST_EXTENSION)) {
        _other_sorts(db, true, final_folders, m.folders.count, &ranks);
        _other_sorts(db, false, final_files, m.files.count, &ranks);
    }
    debug_printf("setup files: %f seconds\n", (int) (debug_now_us() - files_start));
    debug_printf("setup folders: %f seconds\n", (int) (debug_now_us() - folders_start));
    debug_printf("create db time taken: %f seconds\n", (int) (debug_now_us() - total));
    db_build_ranks_kill(&ranks);
    mem_free(final_folders);
    mem_free(final_files);
    mem_free(m.source_type);
}
