// A folder source scanned again and the scan applied to the index as differences: the records that match
// a scanned item by parent and name stay (their values updated where they differ), those left unmatched go,
// and what the scan found beyond them is added. A rescan never rebuilds: the rest of the index, the
// queries' results and the records that didn't change stay as they are.
#include <cstring>

#include "config/config_vars.h"
#include "db_create/db_create.h"
#include "db_monitor/db_monitor.h"
#include "db_monitor/db_monitor_internal.h"
#include "db_update/db_update.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

// The Windows background mode as the thread layer takes it (THREAD_MODE_BACKGROUND_BEGIN).
#define RESCAN_THREAD_BACKGROUND 0x10000

// ---- the scan ------------------------------------------------------------------------------------------

struct _exclude_ctx_t {
    const db_exclude_t *exclude;
    void *match_data;
};

// The index's own rules, as the rebuild applies them: folder excludes during the walk, file excludes and
// include-only on each file, so that a rescan keeps exactly what a rebuild would.
static bool _exclude(void *c, const char *path, size_t path_len, const char *name, size_t name_len,
                     const os_file_info_t *, bool folder) {
    _exclude_ctx_t *x = (_exclude_ctx_t *) c;
    if (folder) {
        return db_exclude_folder(x->exclude, x->match_data, name, (uint32_t) name_len, path,
                                 (uint32_t) path_len);
    }
    return db_exclude_file(x->exclude, x->match_data, name, (uint32_t) name_len, path, (uint32_t) path_len);
}

bool db_folder_rescan_scan_path(const db_t *db, const char *path, scan_result_t *r) {
    _exclude_ctx_t x = {&db->exclude, db_exclude_match_data_create()};
    scan_options_t options = {db->exclude.exclude_hidden, db->exclude.exclude_system, _exclude, &x, 0};
    bool ok = folder_scan(path, &options, r);
    db_exclude_match_data_destroy(x.match_data);
    return ok;
}

bool db_folder_rescan_scan(const db_t *db, const db_fs_t *fs, scan_result_t *r) {
    const char *path = fs->path && *fs->path ? fs->path : OS_SEP_STR;
    debug_printf("scan %s\n", path);
    return db_folder_rescan_scan_path(db, path, r);
}

static void _scan_thread_proc(void *arg) {
    db_folder_state_t *st = (db_folder_state_t *) arg;
    db_folder_rescan_scan(st->db, st->scan_fs, st->scan_result);
    event_post(_db_folder_update_complete_proc, st->db);
}

bool db_folder_rescan_running(const db_t *db) {
    const db_folder_state_t *st = db_folder_state_peek(db);
    return st && (st->scan_thread || st->scan_result);
}

bool db_folder_rescan_start(db_t *db, db_fs_t *fs) {
    db_folder_state_t *st = db_folder_state(db);
    if (st->scan_thread || st->scan_result) {
        return false;
    }
    st->scan_fs = fs;
    st->scan_result = (scan_result_t *) mem_alloc(sizeof(scan_result_t));
    scan_result_init(st->scan_result);
    st->scan_thread = os_thread_create(_scan_thread_proc, st);
    if (folder_update_thread_mode_background) {
        os_thread_set_priority(st->scan_thread, RESCAN_THREAD_BACKGROUND);
    }
    return true;
}

void _db_folder_update_complete_proc(void *ctx) {
    db_t *db = (db_t *) ctx;
    db_folder_state_t *st = db_folder_state_peek(db);
    if (!st || !st->scan_result) {
        return;
    }
    if (st->scan_thread) {
        // The thread posted this as its last act: the join returns at once.
        os_thread_destroy(st->scan_thread);
        st->scan_thread = nullptr;
    }
    if (!db_folder_index_idle(db)) {
        // The end of the job that holds the index comes back here through db_folder_sources_idle.
        st->apply_pending = true;
        return;
    }
    st->apply_pending = false;
    scan_result_t *r = st->scan_result;
    db_folder_rescan_apply(db, st->scan_fs, r);
    scan_result_kill(r);
    mem_free(r);
    st->scan_result = nullptr;
    st->scan_fs = nullptr;
    db_set_status(db, nullptr);
    debug_printf("leave folder update\n");
    // What the listener heard about the source meanwhile was held; it is older than anything now ready.
    {
        os_lock_guard guard(&db->monitor_lock);
        rdc_queue_prepend(&st->ready, &st->held);
    }
    db_monitor_folder_read_directory_changes_update(db);
    db_folders_check_for_updates(db);
}

void db_folders_update_finish(db_t *db) {
    for (db_folder_state_t *st; (st = db_folder_state_peek(db)) && st->scan_result;) {
        if (st->scan_thread) {
            os_thread_destroy(st->scan_thread);
            st->scan_thread = nullptr;
        }
        // The thread's own post of the end is run here instead.
        event_remove(_db_folder_update_complete_proc, db);
        if (!db_folder_index_idle(db)) {
            return;
        }
        _db_folder_update_complete_proc(db);
    }
}

// ---- applying the differences --------------------------------------------------------------------------

// Whether a scanned item's values differ from the record's in a field the index keeps. An unknown
// scanned value keeps the old one, so it is no difference; a folder's size is the index's own sum.
static bool _differs(const db_t *db, db_ref_t rec, bool folder, const os_file_info_t *fd) {
    const uint64_t scanned[DB_FIELD_COUNT] = {fd->size, fd->date_created, fd->date_modified,
                                              fd->date_accessed, fd->attributes};
    const int8_t *offset = folder ? db->structure.folder_offset : db->structure.file_offset;
    for (int f = folder ? DB_FIELD_DATE_CREATED : DB_FIELD_SIZE; f < DB_FIELD_COUNT; f++) {
        if (offset[f] < 0 || (f != DB_FIELD_ATTRIBUTES && scanned[f] == DB_UNKNOWN)) {
            continue;
        }
        uint64_t have =
            folder ? db_folder_get(db, rec, (db_field_t) f) : db_file_get(db, rec, (db_field_t) f);
        if (have != scanned[f]) {
            return true;
        }
    }
    return false;
}

static void _log(const char *format, db_ref_t rec) {
    str_t path;
    str_init(&path);
    db_get_full_path(&path, rec);
    debug_printf(format, path.ptr, path.len);
    str_kill(&path);
}

static void _log_item(const char *format, const scan_item_t *item) {
    str_t path;
    str_init(&path);
    scan_item_path(item, &path);
    debug_printf(format, path.ptr, path.len);
    str_kill(&path);
}

// Matches one scanned item with its record under the parent's record, notes the record as seen and updates
// its values where they differ. The item's tag becomes the record, or stays 0 for an item to add.
static void _match(db_t *db, db_fs_t *fs, scan_item_t *item, bool folder, mem_list_t *seen) {
    db_ref_t parent = item->parent ? (db_ref_t) item->parent->tag : 0;
    if (!parent) {
        return;
    }
    db_ref_t rec = folder ? db_folder_find(db, fs, parent, item->name, item->name_len)
                          : db_file_find(db, fs, parent, item->name, item->name_len);
    if (!rec) {
        return;
    }
    item->tag = rec;
    mem_list_add(seen, rec);
    if (!_differs(db, rec, folder, &item->fd)) {
        return;
    }
    if (folder) {
        _log("RESCAN MODIFY FOLDER %t\n", rec);
        db_folder_update_record(db, rec, &item->fd, 0);
    } else {
        _log("RESCAN MODIFY %t\n", rec);
        db_file_update_record(db, rec, &item->fd, 0);
    }
}

// The records of one source in an array's order, without those seen.
static void _unseen(const mem_array_t *a, uint32_t fs_index, const db_ref_t *seen, uint32_t seen_count,
                    mem_list_t *out) {
    int c = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(a, &c, &pos));) {
        if (db_record_fs_index(r) == fs_index && mem_refs_find(seen, seen_count, r) == UINT32_MAX) {
            mem_list_add(out, r);
        }
    }
}

// Removes what the scan no longer found: files first, then the topmost unseen folders, each with what is
// still below it. The lists are taken before anything is removed, since removal frees records.
static void _remove_unseen(db_t *db, db_fs_t *fs, mem_list_t *seen_list) {
    uint32_t seen_count = mem_list_count(seen_list);
    db_ref_t *seen = (db_ref_t *) mem_alloc(((size_t) seen_count + 1) * sizeof(db_ref_t));
    mem_list_copy_out(seen_list, seen);
    os_qsort(seen, seen_count, mem_ref_compare);
    mem_list_t files, folders;
    mem_list_init(&files);
    mem_list_init(&folders);
    _unseen(&db->files, fs->index, seen, seen_count, &files);
    _unseen(&db->folders, fs->index, seen, seen_count, &folders);
    for (uint32_t i = 0; i < mem_list_count(&files); i++) {
        db_ref_t f = mem_list_get(&files, i);
        _log("RESCAN DELETE %t\n", f);
        db_file_remove_record(db, f, true);
    }
    // A folder whose parent is unseen too goes with that parent; a root (no parent) is never unseen here.
    for (uint32_t i = 0; i < mem_list_count(&folders); i++) {
        db_ref_t f = mem_list_get(&folders, i);
        db_ref_t p = db_record_parent(f);
        if (p && mem_refs_find(seen, seen_count, p) != UINT32_MAX) {
            _log("RESCAN DELETE %t\n", f);
            db_folder_remove_record(db, f);
        }
    }
    mem_list_kill(&files);
    mem_list_kill(&folders);
    mem_free(seen);
}

// Adds what the scan found and the index lacks: folders in scan order, so that each finds its parent,
// then files.
static void _add_new(db_t *db, db_fs_t *fs, scan_result_t *r) {
    for (int pass = 0; pass < 2; pass++) {
        bool folder = pass == 0;
        for (scan_item_t *item = folder ? r->folders_first : r->files_first; item; item = item->next) {
            db_ref_t parent = item->parent ? (db_ref_t) item->parent->tag : 0;
            if (item->tag || !parent) {
                continue;
            }
            _log_item("RESCAN CREATE %t\n", item);
            db_change_t change = {&item->fd, nullptr, nullptr, 0};
            item->tag = folder ? db_folder_add_in(db, fs, parent, item->name, item->name_len, &change)
                               : db_file_add_in(db, fs, parent, item->name, item->name_len, &change);
        }
    }
}

void db_folder_rescan_merge(db_t *db, db_fs_t *fs, scan_result_t *r, db_ref_t top) {
    if (!r->root || !top) {
        return;
    }
    mem_list_t seen;
    mem_list_init(&seen);
    r->root->tag = top;
    for (scan_item_t *item = r->folders_first; item; item = item->next) {
        _match(db, fs, item, true, &seen);
    }
    for (scan_item_t *item = r->files_first; item; item = item->next) {
        _match(db, fs, item, false, &seen);
    }
    mem_list_kill(&seen);
    _add_new(db, fs, r);
}

void db_folder_rescan_apply(db_t *db, db_fs_t *fs, scan_result_t *r) {
    db_wait(db, "db_folder_rescan_apply");
    debug_printf("rescan update db\n");
    if (!r->root) {
        // As at a rebuild: a folder that can't be read keeps what it had, until it can be read again.
        debug_printf("rescan: %s can't be read, records kept\n", fs->path ? fs->path : "");
        return;
    }
    uint32_t start = debug_now_us();
    const char *name = fs->path ? fs->path : "";
    uint32_t len = (uint32_t) strlen(name);
    db_ref_t root = db_folder_find(db, fs, 0, name, len);
    db_change_t change = {&r->root->fd, nullptr, nullptr, 0};
    if (!root) {
        root = db_folder_add_in(db, fs, 0, name, len, &change);
    } else if (_differs(db, root, true, &r->root->fd)) {
        _log("RESCAN MODIFY FOLDER %t\n", root);
        db_folder_update_record(db, root, &r->root->fd, 0);
    }
    if (!root) {
        return;
    }
    r->root->tag = root;
    mem_list_t seen;
    mem_list_init(&seen);
    mem_list_add(&seen, root);
    for (scan_item_t *item = r->folders_first; item; item = item->next) {
        _match(db, fs, item, true, &seen);
    }
    for (scan_item_t *item = r->files_first; item; item = item->next) {
        _match(db, fs, item, false, &seen);
    }
    _remove_unseen(db, fs, &seen);
    mem_list_kill(&seen);
    _add_new(db, fs, r);
    // The values of records in open results changed: the queries hear of them now rather than at the next
    // job's end.
    db_changed_records_dispatch(db);
    debug_printf("rescan applied in %f seconds\n", (int) (debug_now_us() - start));
}
