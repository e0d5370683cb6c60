// The apply step: the events that the details thread made ready, applied to the index on the main thread
// through the live update, in the order the changes happened.
#include <cstring>

#include "db_create/db_create.h"
#include "db_monitor/db_monitor.h"
#include "db_monitor/db_monitor_internal.h"
#include "db_update/db_update.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

void _db_folder_rdc_update_proc(void *ctx) {
    db_monitor_folder_read_directory_changes_update((db_t *) ctx);
}

// The record of the folder at path within the source: the source's root by its own name, anything
// below it by its full path.
static db_ref_t _folder_at(db_t *db, db_fs_t *fs, const char *path, uint32_t len) {
    const char *root = fs->path ? fs->path : "";
    size_t root_len = strlen(root);
    bool is_root =
        (len == root_len && memcmp(path, root, len) == 0) || (root_len == 0 && len == 1 && *path == OS_SEP);
    if (is_root) {
        return db_folder_find(db, fs, 0, root, (uint32_t) root_len);
    }
    str_t p;
    str_init(&p);
    str_cat(&p, path, (int) len);
    db_ref_t r = db_folder_find_by_path(db, p.ptr);
    str_kill(&p);
    return r;
}

// Splits a full path at its last separator: the parent's record and the name.
static db_ref_t _parent_of(db_t *db, db_fs_t *fs, const char *path, const char **name, uint32_t *name_len) {
    const char *sep = strrchr(path, OS_SEP);
    if (!sep) {
        return 0;
    }
    *name = sep + 1;
    *name_len = (uint32_t) strlen(sep + 1);
    uint32_t plen = (uint32_t) (sep - path);
    return _folder_at(db, fs, path, plen ? plen : 1);
}

static bool _known(const os_file_info_t *fd) {
    return fd->date_modified != DB_UNKNOWN || fd->attributes != 0;
}

// The parent's new values: how a folder's date modified stays true as its contents change.
static void _parent_details(db_t *db, db_ref_t parent, const os_file_info_t *fd) {
    if (parent && _known(fd)) {
        db_folder_update_record(db, parent, fd, 0);
    }
}

static bool _remove_path(db_t *db, const char *path) {
    db_ref_t r = db_file_find_by_path(db, path);
    if (r) {
        db_file_remove_record(db, r, true);
        return true;
    }
    r = db_folder_find_by_path(db, path);
    if (r && db_record_parent(r)) {
        db_folder_remove_record(db, r);
        return true;
    }
    debug_printf("rdc: not in the index %s\n", path);
    return false;
}

// An add, or a change of what is there; a path the index doesn't know is added.
static void _add_or_update(db_t *db, rdc_event_t *e, const char *path, scan_result_t *subtree) {
    if (db_exclude_attributes(&db->exclude, e->item.attributes)) {
        // Hidden or system now, while the index leaves those out: it goes, if it was there.
        _remove_path(db, path);
        return;
    }
    if (!e->kind_known) {
        // Gone before its details were read, and nothing says whether it was a folder: a record of the
        // wrong kind would lose what a later event puts below it. Whatever replaced it has events of its own.
        debug_printf("rdc: gone before its details %s\n", path);
        return;
    }
    const char *name;
    uint32_t len;
    db_ref_t parent = _parent_of(db, e->fs, path, &name, &len);
    if (!parent) {
        debug_printf("rdc: parent not found %s\n", path);
        return;
    }
    db_change_t change = {&e->item, nullptr, nullptr, 0};
    if (e->is_folder) {
        db_ref_t r = db_folder_find(db, e->fs, parent, name, len);
        if (r) {
            db_folder_update_record(db, r, &e->item, 0);
        } else if ((r = db_folder_add_in(db, e->fs, parent, name, len, &change)) && subtree) {
            db_folder_rescan_merge(db, e->fs, subtree, r);
        }
    } else {
        db_ref_t r = db_file_find(db, e->fs, parent, name, len);
        if (r) {
            db_file_update_record(db, r, &e->item, 0);
        } else {
            db_file_add_in(db, e->fs, parent, name, len, &change);
        }
    }
    _parent_details(db, parent, &e->parent);
}

static void _rename(db_t *db, rdc_event_t *e) {
    debug_printf("rdc rename %s to %s\n", e->old_path, e->path);
    if (db_exclude_attributes(&db->exclude, e->item.attributes)) {
        _remove_path(db, e->old_path);
        return;
    }
    db_change_t change = {&e->item, &e->parent, &e->old_parent, 0};
    if (db_file_find_by_path(db, e->old_path)) {
        db_file_rename_path(db, e->fs, e->old_path, e->path, &change);
        return;
    }
    db_ref_t old = db_folder_find_by_path(db, e->old_path);
    if (old && db_record_parent(old)) {
        db_folder_rename_path(db, e->fs, e->old_path, e->path, &change);
        return;
    }
    // The old name isn't in the index (it was excluded, or came before the index knew it): the new one
    // is an add, with whatever a folder holds.
    scan_result_t r;
    scan_result_init(&r);
    if (e->is_folder) {
        db_folder_rescan_scan_path(db, e->path, &r);
    }
    _add_or_update(db, e, e->path, e->is_folder ? &r : nullptr);
    scan_result_kill(&r);
}

void rdc_event_apply(db_t *db, rdc_event_t *e) {
    switch (e->type) {
    case RDC_RESCAN:
        if (e->scan) {
            db_folder_rescan_apply(db, e->fs, e->scan);
        }
        break;
    case RDC_ADDED:
    case RDC_MODIFIED:
        _add_or_update(db, e, e->path, e->scan);
        break;
    case RDC_REMOVED: {
        _remove_path(db, e->path);
        const char *name;
        uint32_t len;
        _parent_details(db, _parent_of(db, e->fs, e->path, &name, &len), &e->parent);
        break;
    }
    case RDC_RENAMED_NEW:
        _rename(db, e);
        break;
    default:
        break;
    }
}

void db_monitor_folder_read_directory_changes_update(db_t *db) {
    db_folder_state_t *st = db_folder_state_peek(db);
    if (!st || st->applying || !db_folder_index_idle(db)) {
        return;
    }
    db_wait(db, "db_monitor_folder_read_directory_changes_update");
    st->applying = true;
    rdc_queue_t q;
    {
        os_lock_guard guard(&db->monitor_lock);
        q = st->ready;
        st->ready.first = st->ready.last = nullptr;
    }
    // Modified events of one path that the details thread fetched apart, before the next came, are one.
    rdc_queue_merge_modified(&q);
    rdc_queue_t held = {nullptr, nullptr};
    while (rdc_event_t *e = q.first) {
        q.first = e->next;
        debug_printf("READ DIRECTORY CHANGE UPDATE %d %s\n", (int) e->type, e->path);
        // Its source's scan is under way or waits to be applied: applied on top of it, afterwards.
        if (st->scan_result && e->fs == st->scan_fs) {
            rdc_queue_push(&held, e);
            continue;
        }
        rdc_event_apply(db, e);
        rdc_event_free(e);
    }
    if (held.first) {
        os_lock_guard guard(&db->monitor_lock);
        rdc_queue_append(&st->held, &held);
    }
    st->applying = false;
    db_changed_records_dispatch(db);
}
