// Whole subtrees: every descendant of a folder removed, or moved to its new place in the path-dependent
// orders when the folder is renamed or moved. Records point up only, so a subtree is found by scanning
// all folders and all files; the scans run in parallel over chunk ranges, and the file scan needs no walk:
// while it runs, each found folder's parent field holds a marker, so that a file is in the subtree
// exactly when its parent's parent is the marker.
#include <cstring>

#include "config/config.h"
#include "db_create/db_create.h"
#include "db_query/db_query.h"
#include "db_update/update_internal.h"
#include "debug/debug.h"
#include "mem/list.h"
#include "mem/mem.h"

static void *_zalloc(size_t size) {
    void *p = mem_alloc(size);
    memset(p, 0, size);
    return p;
}

// No record lies at the arena's last reference, so no real parent field holds it.
#define SUBTREE_MARKER 0xFFFFFFFFu

// ---- the parallel scans ----------------------------------------------------------------------------------

struct _scan_t {
    const mem_array_t *array;
    uint32_t chunk_first, chunk_end;
    db_ref_t folder; // the subtree's top (folder scan)
    bool files;      // the marker test instead of the walk
    mem_list_t found;
};

static void _scan_proc(void *arg) {
    _scan_t *s = (_scan_t *) arg;
    for (uint32_t c = s->chunk_first; c < s->chunk_end; c++) {
        const mem_array_chunk_t *chunk = s->array->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            db_ref_t r = items[i];
            db_ref_t p = db_record_parent(r);
            if (s->files) {
                if (p && db_record_parent(p) == SUBTREE_MARKER)
                    mem_list_add(&s->found, r);
                continue;
            }
            for (; p; p = db_record_parent(p)) {
                if (p == s->folder) {
                    mem_list_add(&s->found, r);
                    break;
                }
            }
        }
    }
}

// Runs the scan over the array's chunks on the thread count of the rule, the calling thread taking the
// last range itself, and joins the workers' lists in worker order (that is, array order).
static mem_ref_t *_scan(const mem_array_t *a, db_ref_t folder, bool files, uint32_t *count) {
    uint32_t chunks = a->chunk_count;
    uint32_t n = db_update_thread_count(chunks, max_threads, find_subfolders_and_files_max_threads,
                                        os_processor_count());
    _scan_t *scans = (_scan_t *) mem_alloc(n * sizeof(_scan_t));
    os_thread_t **threads = (os_thread_t **) mem_alloc(n * sizeof(os_thread_t *));
    for (uint32_t i = 0; i < n; i++) {
        scans[i].array = a;
        scans[i].chunk_first = (uint32_t) ((uint64_t) i * chunks / n);
        scans[i].chunk_end = (uint32_t) ((uint64_t) (i + 1) * chunks / n);
        scans[i].folder = folder;
        scans[i].files = files;
        mem_list_init(&scans[i].found);
        threads[i] = i + 1 < n ? os_thread_create(_scan_proc, &scans[i]) : nullptr;
    }
    _scan_proc(&scans[n - 1]);
    uint32_t total = 0;
    for (uint32_t i = 0; i < n; i++) {
        if (threads[i])
            os_thread_destroy(threads[i]);
        total += mem_list_count(&scans[i].found);
    }
    mem_ref_t *out = (mem_ref_t *) mem_alloc((total ? total : 1) * sizeof(mem_ref_t));
    uint32_t at = 0;
    for (uint32_t i = 0; i < n; i++) {
        mem_list_copy_out(&scans[i].found, out + at);
        at += mem_list_count(&scans[i].found);
        mem_list_kill(&scans[i].found);
    }
    mem_free(threads);
    mem_free(scans);
    *count = total;
    return out;
}

void db_update_subtree_find(db_t *db, db_ref_t folder, db_subtree_t *out) {
    out->folders = _scan(&db->folders, folder, false, &out->folder_count);
    // The markers go in only between the two scans, on this thread, while no worker reads.
    uint32_t n = out->folder_count;
    db_ref_t *backup = (db_ref_t *) mem_alloc((n + 1) * sizeof(db_ref_t));
    for (uint32_t i = 0; i < n; i++) {
        uint32_t *parent = (uint32_t *) db_ptr(out->folders[i]);
        backup[i] = *parent;
        *parent = SUBTREE_MARKER;
    }
    uint32_t *top = (uint32_t *) db_ptr(folder);
    backup[n] = *top;
    *top = SUBTREE_MARKER;
    debug_printf("parent backup count %d\n", (int) n + 1);
    out->files = _scan(&db->files, folder, true, &out->file_count);
    for (uint32_t i = 0; i < n; i++)
        *(uint32_t *) db_ptr(out->folders[i]) = backup[i];
    *top = backup[n];
    mem_free(backup);
}

void db_update_subtree_kill(db_subtree_t *s) {
    mem_free(s->folders);
    mem_free(s->files);
    s->folders = s->files = nullptr;
    s->folder_count = s->file_count = 0;
}

static void _log_path(const char *format, db_ref_t r) {
    if (!debug_is_active())
        return;
    str_t path;
    str_init(&path);
    db_get_full_path(&path, r);
    debug_printf(format, path.ptr, path.len);
    str_kill(&path);
}

static void _log_done(const char *format, const db_subtree_t *s, db_ref_t r, uint32_t start) {
    if (!debug_is_active())
        return;
    str_t path;
    str_init(&path);
    db_get_full_path(&path, r);
    debug_printf(format, (int) s->folder_count, (int) s->file_count, path.ptr, path.len,
                 (int) (debug_now_us() - start));
    str_kill(&path);
}

// ---- remove ----------------------------------------------------------------------------------------------

void db_folder_children_remove(db_t *db, const db_fs_t *fs, db_ref_t folder) {
    (void) fs;
    uint32_t start = debug_now_us();
    _log_path("remove subfolders and files from %t\n", folder);
    db_subtree_t s;
    db_update_subtree_find(db, folder, &s);
    // Files first, while every folder of their chains still stands; the folders' sizes go with them.
    bool bulk_files = db_update_bulk_pays(&db->files, s.file_count);
    bool bulk_folders = db_update_bulk_pays(&db->folders, s.folder_count);
    if (bulk_files) {
        db_build_map_t members;
        db_build_map_init(&members, s.file_count);
        for (uint32_t i = 0; i < s.file_count; i++) {
            db_ref_t g = s.files[i];
            db_build_map_put(&members, g, i);
            db_update_queries_detach(db, g, false, nullptr);
            db_update_forget(db, g, false);
        }
        db_update_bulk_arrays(db, false, &members, nullptr, 0);
        db_build_map_kill(&members);
        for (uint32_t i = 0; i < s.file_count; i++)
            db_file_delete(db, s.files[i]);
    } else {
        for (uint32_t i = 0; i < s.file_count; i++)
            db_file_remove_record(db, s.files[i], false);
    }
    for (uint32_t i = 0; i < s.folder_count; i++) {
        db_ref_t f = s.folders[i];
        db_update_frn_remove(db, f);
        if (!bulk_folders) {
            db_update_name_remove(db, f, true);
            db_update_arrays_remove(db, f, true, DB_UPDATE_ALL, false);
        }
        db_update_queries_detach(db, f, true, nullptr);
        db_update_forget(db, f, true);
    }
    if (bulk_folders) {
        db_build_map_t members;
        db_build_map_init(&members, s.folder_count);
        for (uint32_t i = 0; i < s.folder_count; i++)
            db_build_map_put(&members, s.folders[i], i);
        db_update_bulk_arrays(db, true, &members, nullptr, 0);
        db_build_map_kill(&members);
    }
    // Freed only once none of them is compared any more: a removal walks the chain of the removed.
    for (uint32_t i = 0; i < s.folder_count; i++)
        db_folder_delete(db, s.folders[i]);
    db_folder_set_child_count(db, folder, 0);
    _log_done("removed %d subfolders and %d files from %t in %f seconds\n", &s, folder, start);
    db_update_subtree_kill(&s);
}

// ---- rename ----------------------------------------------------------------------------------------------

enum { _UNKNOWN = 0, _KEPT = 1, _MARKED = 2 };

struct _rename_t {
    db_t *db;
    db_ref_t top; // the new folder
    db_subtree_t s;
    db_build_map_t index; // found folder -> its position in s.folders
    uint8_t *state;       // per found folder
    uint32_t *depth;      // per found folder, levels below top
};

// The position of a found folder, or UINT32_MAX for top and anything outside the subtree.
static uint32_t _at(const _rename_t *x, db_ref_t folder) {
    return folder == x->top ? UINT32_MAX : db_build_map_get(&x->index, folder);
}

// Decides the folders from the top down: one below a marked folder is marked; the others are marked when
// the folder excludes refuse them under their new path.
static void _decide(_rename_t *x, uint32_t i) {
    if (x->state[i] != _UNKNOWN)
        return;
    db_ref_t f = x->s.folders[i];
    uint32_t above = _at(x, db_record_parent(f));
    if (above != UINT32_MAX) {
        _decide(x, above);
        x->depth[i] = x->depth[above] + 1;
        if (x->state[above] == _MARKED) {
            x->state[i] = _MARKED;
            return;
        }
    }
    uint32_t len;
    const char *name = db_record_name(f, &len);
    if (db_update_excluded(x->db, db_record_parent(f), true, name, len)) {
        debug_printf("exclude %t\n", name, (int) len);
        x->state[i] = _MARKED;
        return;
    }
    x->state[i] = _KEPT;
}

static int _deeper_first(void *context, uint32_t a, uint32_t b) {
    const uint32_t *depth = (const uint32_t *) context;
    return (depth[a] < depth[b]) - (depth[a] > depth[b]);
}

// Folder sizes from scratch: each kept file's size into its folder, then each folder's sum into its
// parent's from the deepest up. Returns what reaches top.
static uint64_t _sum_sizes(_rename_t *x, const bool *file_kept) {
    uint32_t n = x->s.folder_count;
    uint64_t *sum = (uint64_t *) _zalloc((size_t) (n ? n : 1) * sizeof(uint64_t));
    uint64_t total = 0;
    for (uint32_t i = 0; i < x->s.file_count; i++) {
        if (!file_kept[i])
            continue;
        db_ref_t file = x->s.files[i];
        uint64_t size = db_file_get(x->db, file, DB_FIELD_SIZE);
        uint32_t at = _at(x, db_record_parent(file));
        uint64_t *to = at == UINT32_MAX ? &total : &sum[at];
        *to += size == DB_UNKNOWN ? 0 : size;
    }
    uint32_t *order = (uint32_t *) mem_alloc((n ? n : 1) * sizeof(uint32_t));
    for (uint32_t i = 0; i < n; i++)
        order[i] = i;
    os_merge_sort_ex(order, n, x->depth, _deeper_first);
    for (uint32_t k = 0; k < n; k++) {
        uint32_t i = order[k];
        if (x->state[i] != _KEPT)
            continue;
        db_folder_set(x->db, x->s.folders[i], DB_FIELD_SIZE, sum[i]);
        uint32_t at = _at(x, db_record_parent(x->s.folders[i]));
        (at == UINT32_MAX ? total : sum[at]) += sum[i];
    }
    mem_free(order);
    mem_free(sum);
    return total;
}

// A child left the index for good: a kept parent (or top) counts one less.
static void _child_gone(_rename_t *x, db_ref_t parent) {
    uint32_t at = _at(x, parent);
    if (at == UINT32_MAX || x->state[at] == _KEPT)
        db_children_dec(x->db, parent);
}

void db_folder_children_rename(db_t *db, const db_fs_t *fs, db_ref_t old_folder, db_ref_t new_folder) {
    if (!new_folder) {
        db_folder_children_remove(db, fs, old_folder);
        return;
    }
    uint32_t start = debug_now_us();
    _rename_t x = {};
    x.db = db;
    x.top = new_folder;
    db_update_subtree_find(db, old_folder, &x.s);
    uint32_t nf = x.s.folder_count, ng = x.s.file_count;
    uint32_t nq = db->is_loaded ? db_update_query_count(db) : 0;
    uint8_t *flags = nq ? (uint8_t *) mem_alloc((size_t) (nf + ng) * nq) : nullptr;

    // Out of every array while the old paths stand: each order ends in the path as its tie-break.
    // A large subtree leaves and re-enters each array in one pass over it, after the parents change.
    bool bulk_folders = db_update_bulk_pays(&db->folders, nf);
    bool bulk_files = db_update_bulk_pays(&db->files, ng);
    for (uint32_t i = 0; i < nf; i++) {
        db_ref_t f = x.s.folders[i];
        db_update_queries_detach(db, f, true, flags ? flags + (size_t) i * nq : nullptr);
        if (!bulk_folders) {
            db_update_name_remove(db, f, true);
            db_update_arrays_remove(db, f, true, DB_UPDATE_ALL, false);
        }
    }
    for (uint32_t i = 0; i < ng; i++) {
        db_ref_t g = x.s.files[i];
        db_update_queries_detach(db, g, false, flags ? flags + (size_t) (nf + i) * nq : nullptr);
        if (!bulk_files) {
            db_update_name_remove(db, g, false);
            db_update_arrays_remove(db, g, false, DB_UPDATE_ALL, false);
        }
    }
    uint32_t direct = 0;
    for (uint32_t i = 0; i < nf + ng; i++) {
        uint32_t *parent = (uint32_t *) db_ptr(i < nf ? x.s.folders[i] : x.s.files[i - nf]);
        if (*parent == old_folder) {
            *parent = new_folder;
            direct++;
        }
    }
    db_folder_set_child_count(db, new_folder, db_folder_child_count(db, new_folder) + direct);

    debug_printf("find excluded\n");
    db_build_map_init(&x.index, nf);
    for (uint32_t i = 0; i < nf; i++)
        db_build_map_put(&x.index, x.s.folders[i], i);
    x.state = (uint8_t *) _zalloc((size_t) (nf ? nf : 1) * 1);
    x.depth = (uint32_t *) _zalloc((size_t) (nf ? nf : 1) * sizeof(uint32_t));
    for (uint32_t i = 0; i < nf; i++)
        _decide(&x, i);

    bool *file_kept = (bool *) _zalloc((size_t) (ng ? ng : 1) * sizeof(bool));
    for (uint32_t i = 0; i < ng; i++) {
        db_ref_t g = x.s.files[i];
        uint32_t at = _at(&x, db_record_parent(g));
        if (at != UINT32_MAX && x.state[at] == _MARKED)
            continue;
        uint32_t len;
        const char *name = db_record_name(g, &len);
        file_kept[i] = !db_update_excluded(db, db_record_parent(g), false, name, len);
    }

    debug_printf("readd folders\n");
    uint64_t total = db->structure.folder_offset[DB_FIELD_SIZE] >= 0 ? _sum_sizes(&x, file_kept) : 0;
    if (bulk_folders) {
        db_ref_t *kept = (db_ref_t *) mem_alloc(((size_t) nf + 1) * sizeof(db_ref_t));
        uint32_t k = 0;
        for (uint32_t i = 0; i < nf; i++)
            if (x.state[i] == _KEPT)
                kept[k++] = x.s.folders[i];
        db_update_bulk_arrays(db, true, &x.index, kept, k);
        mem_free(kept);
    } else {
        for (uint32_t i = 0; i < nf; i++) {
            if (x.state[i] != _KEPT)
                continue;
            db_update_name_insert(db, x.s.folders[i], true);
            db_update_arrays_insert(db, x.s.folders[i], true, DB_UPDATE_ALL, false);
        }
    }
    debug_printf("readd files\n");
    if (bulk_files) {
        db_build_map_t members;
        db_build_map_init(&members, ng);
        db_ref_t *kept = (db_ref_t *) mem_alloc(((size_t) ng + 1) * sizeof(db_ref_t));
        uint32_t k = 0;
        for (uint32_t i = 0; i < ng; i++) {
            db_build_map_put(&members, x.s.files[i], i);
            if (file_kept[i])
                kept[k++] = x.s.files[i];
        }
        db_update_bulk_arrays(db, false, &members, kept, k);
        mem_free(kept);
        db_build_map_kill(&members);
    } else {
        for (uint32_t i = 0; i < ng; i++) {
            if (!file_kept[i])
                continue;
            db_update_name_insert(db, x.s.files[i], false);
            db_update_arrays_insert(db, x.s.files[i], false, DB_UPDATE_ALL, false);
        }
    }
    // What the excludes refuse now goes for good; no array holds it any more.
    for (uint32_t i = 0; i < ng; i++) {
        db_ref_t g = x.s.files[i];
        if (file_kept[i])
            continue;
        db_update_forget(db, g, false);
        _child_gone(&x, db_record_parent(g));
        db_file_delete(db, g);
    }
    db_folder_size_adjust(db, new_folder, 0, total);
    if (nq) {
        db_eval_scratch_t s;
        db_eval_scratch_init(&s);
        for (uint32_t i = 0; i < nf; i++)
            if (x.state[i] == _KEPT)
                db_update_queries_attach(db, x.s.folders[i], true, flags + (size_t) i * nq, &s);
        for (uint32_t i = 0; i < ng; i++)
            if (file_kept[i])
                db_update_queries_attach(db, x.s.files[i], false, flags + (size_t) (nf + i) * nq, &s);
        db_eval_scratch_kill(&s);
    }
    // Marked folders go for good, freed last: until then they stand in the chains of what was freed
    // before them.
    for (uint32_t i = 0; i < nf; i++) {
        if (x.state[i] != _MARKED)
            continue;
        db_ref_t f = x.s.folders[i];
        db_update_frn_remove(db, f);
        db_update_forget(db, f, true);
        _child_gone(&x, db_record_parent(f));
    }
    for (uint32_t i = 0; i < nf; i++)
        if (x.state[i] == _MARKED)
            db_folder_delete(db, x.s.folders[i]);

    _log_done("renamed %d subfolders and %d files from %t in %f seconds\n", &x.s, new_folder, start);
    mem_free(file_kept);
    mem_free(x.state);
    mem_free(x.depth);
    mem_free(flags);
    db_build_map_kill(&x.index);
    db_update_subtree_kill(&x.s);
}
