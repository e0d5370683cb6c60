// Folders: add, remove, rename or move, and new values, in each of their forms.
#include <cstring>

#include "config/config.h"
#include "db_query/db_query.h"
#include "db_update/update_internal.h"
#include "debug/debug.h"
#include "mem/mem.h"

static bool _fs_has_frn(const db_fs_t *fs) {
    return fs && (fs->type == DB_FS_NTFS || fs->type == DB_FS_REFS);
}

static void _write_frn(db_t *db, db_ref_t folder, uint64_t low, uint64_t high) {
    uint8_t *p = db_record_frn(db, folder);
    if (!p)
        return;
    memcpy(p, &low, 8);
    if (db_record_fs(db, folder)->type == DB_FS_REFS)
        memcpy(p + 8, &high, 8);
}

static void _read_frn(const db_t *db, db_ref_t folder, uint64_t *low, uint64_t *high) {
    const uint8_t *p = db_record_frn(db, folder);
    *low = *high = 0;
    if (!p)
        return;
    memcpy(low, p, 8);
    if (db_record_fs(db, folder)->type == DB_FS_REFS)
        memcpy(high, p + 8, 8);
}

// ---- add -------------------------------------------------------------------------------------------------

db_ref_t db_update_folder_make(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                               const db_fd_t *fd, bool has_frn, uint64_t frn_low, uint64_t frn_high,
                               bool *made) {
    *made = false;
    if (!fs)
        fs = db_record_fs(db, parent);
    int frn_chunk = 0, frn_pos = -1;
    if (has_frn) {
        db_ref_t same = db_update_find_frn(db, fs, frn_low, frn_high, &frn_chunk, &frn_pos);
        if (same)
            return same;
    }
    db_file_find_key_t key;
    db_update_key(&key, fs, parent, name, len);
    int chunk, pos;
    db_ref_t existing = mem_array_find_near(&db->folders, &chunk, &pos, db_file_find_key_compare, &key);
    if (existing) {
        if (has_frn) {
            // The file system gave the name a new reference: the record stays and takes it.
            debug_color_printf(DB_UPDATE_ERROR_COLOUR,
                               "folder name %t found, yet FRN 0x%016I64x does not exists\n", name, (int) len,
                               frn_low);
            db_update_frn_remove(db, existing);
            _write_frn(db, existing, frn_low, frn_high);
            db_update_frn_insert(db, existing);
        }
        return existing;
    }
    if (db_update_excluded(db, parent, true, name, len))
        return 0;
    db_ref_t r = db_folder_new(db, fs, parent, name, len);
    db_update_write_fd(db, r, true, fd);
    // A new folder holds nothing yet; its size grows with what comes into it.
    db_folder_set(db, r, DB_FIELD_SIZE, 0);
    if (has_frn) {
        _write_frn(db, r, frn_low, frn_high);
        mem_array_insert_at(db_frn_array(db, fs->type), frn_chunk, frn_pos, r);
    }
    mem_array_insert_at(&db->folders, chunk, pos, r);
    db_update_arrays_insert(db, r, true, DB_UPDATE_ALL, false);
    *made = true;
    return r;
}

static db_ref_t _add(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                     const db_change_t *change, bool has_frn, uint64_t low, uint64_t high) {
    bool made;
    db_ref_t r =
        db_update_folder_make(db, fs, parent, name, len, db_change_fd(change), has_frn, low, high, &made);
    if (made) {
        if (db_update_history.added)
            db_update_history.added(db, r, true, db_change_timestamp(change));
        db_update_queries_added(db, r, true);
        db_children_inc(db, parent);
    }
    db_update_parent_fd(db, parent, db_change_parent_fd(change), db_change_timestamp(change));
    return r;
}

static db_ref_t _add_by_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high, uint64_t parent_low,
                            uint64_t parent_high, const char *name, uint32_t len, const db_change_t *change) {
    int chunk, pos;
    db_ref_t parent = db_update_find_frn(db, fs, parent_low, parent_high, &chunk, &pos);
    if (!parent) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR,
                           "unable to add ntfs folder: %t: parent %016I64x not found\n", name, (int) len,
                           parent_low);
        return 0;
    }
    return _add(db, fs, parent, name, len, change, true, low, high);
}

db_ref_t db_folder_add(db_t *db, const db_fs_t *fs, uint64_t frn, uint64_t parent_frn, const char *name,
                       uint32_t len, const db_change_t *change) {
    return _add_by_frn(db, fs, frn, 0, parent_frn, 0, name, len, change);
}

db_ref_t db_folder_add_refs(db_t *db, const db_fs_t *fs, db_frn128_t frn, db_frn128_t parent_frn,
                            const char *name, uint32_t len, const db_change_t *change) {
    return _add_by_frn(db, fs, frn.low, frn.high, parent_frn.low, parent_frn.high, name, len, change);
}

// The folder forms serve sources whose folders have no FRN: a folder of a volume source must carry one,
// or its FRN array would lose its order.
static bool _refuse_frn_source(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len) {
    if (!fs && parent)
        fs = db_record_fs(db, parent);
    if (!_fs_has_frn(fs))
        return false;
    debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to add folder: %t: its source names folders by FRN\n",
                       name, (int) len);
    return true;
}

db_ref_t db_folder_add_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                          const db_change_t *change) {
    if (_refuse_frn_source(db, fs, parent, name, len))
        return 0;
    return _add(db, fs, parent, name, len, change, false, 0, 0);
}

db_ref_t db_folder_add_path(db_t *db, const db_fs_t *fs, const char *path, const db_change_t *change) {
    uint32_t parent_len, len;
    const char *name;
    db_update_split_path(path, &parent_len, &name, &len);
    db_ref_t parent = db_update_folder_at(db, path, parent_len);
    if (!parent) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to add folder: %s: parent not found\n", path);
        return 0;
    }
    return db_folder_add_in(db, fs, parent, name, len, change);
}

// ---- remove ----------------------------------------------------------------------------------------------

void db_folder_remove_record(db_t *db, db_ref_t folder) {
    db_update_frn_remove(db, folder);
    db_update_name_remove(db, folder, true);
    db_ref_t parent = db_record_parent(folder);
    db_folder_size_adjust(db, parent, db_folder_get(db, folder, DB_FIELD_SIZE), 0);
    // Folders of volume sources count what they hold, so an empty one costs no scan. Other folders
    // can't tell, and are scanned for.
    bool counted = db_update_has_frn(db, folder);
    if (!counted || db_folder_child_count(db, folder)) {
        if (counted) {
            uint32_t len;
            const char *name = db_record_name(folder, &len);
            debug_printf("remove ntfs folder %t with children\n", name, (int) len);
        }
        db_folder_children_remove(db, db_record_fs(db, folder), folder);
    }
    db_update_arrays_remove(db, folder, true, DB_UPDATE_ALL, false);
    db_update_forget(db, folder, true);
    db_update_queries_detach(db, folder, true, nullptr);
    db_children_dec(db, parent);
    db_folder_delete(db, folder);
}

static bool _remove_by_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high,
                           const db_change_t *change) {
    int chunk, pos;
    db_ref_t folder = db_update_find_frn(db, fs, low, high, &chunk, &pos);
    if (!folder) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to remove ntfs folder: %016I64x: file not found\n",
                           low);
        return false;
    }
    db_ref_t parent = db_record_parent(folder);
    db_folder_remove_record(db, folder);
    db_update_parent_fd(db, parent, db_change_parent_fd(change), db_change_timestamp(change));
    return true;
}

bool db_folder_remove(db_t *db, const db_fs_t *fs, uint64_t frn, const db_change_t *change) {
    return _remove_by_frn(db, fs, frn, 0, change);
}

bool db_folder_remove_refs(db_t *db, const db_fs_t *fs, db_frn128_t frn, const db_change_t *change) {
    return _remove_by_frn(db, fs, frn.low, frn.high, change);
}

static bool _remove_found(db_t *db, db_ref_t folder, const char *what, const db_change_t *change) {
    if (!folder) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to remove folder: %s: folder not found\n", what);
        return false;
    }
    db_ref_t parent = db_record_parent(folder);
    db_folder_remove_record(db, folder);
    db_update_parent_fd(db, parent, db_change_parent_fd(change), db_change_timestamp(change));
    return true;
}

bool db_folder_remove_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                         const db_change_t *change) {
    db_ref_t folder = parent || fs ? db_folder_find(db, fs, parent, name, len) : 0;
    if (!folder) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to remove folder: %t: folder not found\n", name,
                           (int) len);
        return false;
    }
    return _remove_found(db, folder, "", change);
}

bool db_folder_remove_path(db_t *db, const char *path, const db_change_t *change) {
    return _remove_found(db, db_folder_find_by_path(db, path), path, change);
}

// ---- rename or move --------------------------------------------------------------------------------------

static bool _is_below(db_ref_t r, db_ref_t folder) {
    for (; r; r = db_record_parent(r))
        if (r == folder)
            return true;
    return false;
}

// The folder found and its new parent known: a new record under the new name takes the old one's values,
// FRN, place in the queries and descendants.
static db_ref_t _rename(db_t *db, db_ref_t old, db_ref_t new_parent, const char *new_name, uint32_t new_len,
                        const db_change_t *change) {
    uint64_t timestamp = db_change_timestamp(change);
    db_ref_t old_parent = db_record_parent(old);
    uint32_t old_len;
    const char *old_name = db_record_name(old, &old_len);
    if (old_parent == new_parent && old_len == new_len && memcmp(old_name, new_name, new_len) == 0) {
        db_folder_update_record(db, old, db_change_fd(change), timestamp);
        db_update_parent_fd(db, new_parent, db_change_parent_fd(change), timestamp);
        return old;
    }
    if (debug_is_active()) {
        str_t from, to;
        str_init(&from);
        str_init(&to);
        db_get_full_path(&from, old);
        db_get_full_path(&to, new_parent);
        str_cat_char(&to, OS_SEP);
        str_cat(&to, new_name, (int) new_len);
        debug_printf("rename %t to %t\n", from.ptr, from.len, to.ptr, to.len);
        str_kill(&from);
        str_kill(&to);
    }
    const db_fs_t *fs = db_record_fs(db, old);
    bool counted = db_update_has_frn(db, old);
    uint64_t low, high;
    _read_frn(db, old, &low, &high);
    db_update_frn_remove(db, old);
    db_update_name_remove(db, old, true);
    db_folder_size_adjust(db, old_parent, db_folder_get(db, old, DB_FIELD_SIZE), 0);

    uint32_t nq = db_update_query_count(db);
    uint8_t flags_local[16];
    uint8_t *flags = nq <= sizeof flags_local ? flags_local : (uint8_t *) mem_alloc(nq);
    db_update_queries_detach(db, old, true, flags);
    db_fd_t fd;
    db_update_read_fd(db, old, true, &fd);
    // The new values are in the record before it goes into any array: its keys must not change there.
    db_update_overlay_fd(&fd, db_change_fd(change));
    bool made;
    db_ref_t r = db_update_folder_make(db, fs, new_parent, new_name, new_len, &fd, counted, low, high, &made);
    db_update_announce_replaced(db, old, made ? r : 0, true, flags, timestamp);
    if (flags != flags_local)
        mem_free(flags);
    db_changed_records_remove(db, old);

    if (!counted || db_folder_child_count(db, old)) {
        db_folder_set_child_count(db, old, 0);
        // Onto a folder that was there already (the file system gave its name a new reference) two
        // subtrees can't merge without names meeting twice in one folder: the old subtree goes, and the
        // next rebuild brings back whatever is really there.
        db_folder_children_rename(db, fs, old, made ? r : 0);
    }
    db_update_arrays_remove(db, old, true, DB_UPDATE_ALL, false);
    db_update_parent_fd(db, new_parent, db_change_parent_fd(change), timestamp);
    if (made)
        db_children_inc(db, new_parent);
    db_update_parent_fd(db, old_parent, change ? change->old_parent_fd : nullptr, timestamp);
    db_children_dec(db, old_parent);
    db_folder_delete(db, old);
    return r;
}

static db_ref_t _rename_by_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high, uint64_t parent_low,
                               uint64_t parent_high, const char *new_name, uint32_t new_len,
                               const db_change_t *change) {
    int chunk, pos;
    db_ref_t new_parent = db_update_find_frn(db, fs, parent_low, parent_high, &chunk, &pos);
    if (!new_parent) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR,
                           "unable to rename ntfs folder: %016I64x: new parent not found\n", low);
        _remove_by_frn(db, fs, low, high, nullptr);
        return 0;
    }
    db_ref_t folder = db_update_find_frn(db, fs, low, high, &chunk, &pos);
    if (!folder) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to rename ntfs folder: %016I64x: not found\n",
                           low);
        return _add(db, fs, new_parent, new_name, new_len, change, true, low, high);
    }
    // The index can't hold a cycle: the folder goes, and the next rebuild brings it back.
    if (_is_below(new_parent, folder)) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR,
                           "unable to rename ntfs folder: %016I64x: move into child\n", low);
        db_folder_remove_record(db, folder);
        return 0;
    }
    return _rename(db, folder, new_parent, new_name, new_len, change);
}

db_ref_t db_folder_rename(db_t *db, const db_fs_t *fs, uint64_t frn, uint64_t new_parent_frn,
                          const char *new_name, uint32_t new_len, const db_change_t *change) {
    return _rename_by_frn(db, fs, frn, 0, new_parent_frn, 0, new_name, new_len, change);
}

db_ref_t db_folder_rename_refs(db_t *db, const db_fs_t *fs, db_frn128_t frn, db_frn128_t new_parent_frn,
                               const char *new_name, uint32_t new_len, const db_change_t *change) {
    return _rename_by_frn(db, fs, frn.low, frn.high, new_parent_frn.low, new_parent_frn.high, new_name,
                          new_len, change);
}

// The folder forms: the same checks, with the folder and new parent found by record or path.
static db_ref_t _rename_found(db_t *db, const db_fs_t *fs, db_ref_t folder, db_ref_t new_parent,
                              const char *new_name, uint32_t new_len, const char *what,
                              const db_change_t *change) {
    if (!new_parent) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to rename folder: %s: new parent not found\n",
                           what);
        if (folder)
            db_folder_remove_record(db, folder);
        return 0;
    }
    if (!folder) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to rename folder: %s: not found\n", what);
        return db_folder_add_in(db, fs, new_parent, new_name, new_len, change);
    }
    if (_is_below(new_parent, folder)) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to rename folder: %s: move into child\n", what);
        db_folder_remove_record(db, folder);
        return 0;
    }
    return _rename(db, folder, new_parent, new_name, new_len, change);
}

db_ref_t db_folder_rename_in(db_t *db, const db_fs_t *fs, db_ref_t old_parent, const char *old_name,
                             uint32_t old_len, db_ref_t new_parent, const char *new_name, uint32_t new_len,
                             const db_change_t *change) {
    db_ref_t folder = old_parent || fs ? db_folder_find(db, fs, old_parent, old_name, old_len) : 0;
    str_t what;
    str_init(&what);
    str_set_n(&what, old_name, (int) old_len);
    db_ref_t r = _rename_found(db, fs, folder, new_parent, new_name, new_len, what.ptr, change);
    str_kill(&what);
    return r;
}

db_ref_t db_folder_rename_path(db_t *db, const db_fs_t *fs, const char *old_path, const char *new_path,
                               const db_change_t *change) {
    uint32_t parent_len, len;
    const char *name;
    db_update_split_path(new_path, &parent_len, &name, &len);
    db_ref_t new_parent = db_update_folder_at(db, new_path, parent_len);
    return _rename_found(db, fs, db_folder_find_by_path(db, old_path), new_parent, name, len, old_path,
                         change);
}

// ---- new values ------------------------------------------------------------------------------------------

void db_folder_update_record(db_t *db, db_ref_t folder, const db_fd_t *fd, uint64_t timestamp) {
    uint32_t orders = db_update_changed_orders(db, folder, true, fd);
    if (!orders)
        return;
    db_update_rewrite(db, folder, true, orders, fd);
    if (db_update_history.updated && db->recent_change_enabled && timestamp)
        db_update_history.updated(db, folder, true, timestamp);
}

static bool _update_found(db_t *db, db_ref_t folder, const char *name, uint32_t len,
                          const db_change_t *change) {
    if (!folder) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to update ntfs folder: %t: folder not found\n",
                           name, (int) len);
        return false;
    }
    db_folder_update_record(db, folder, db_change_fd(change), db_change_timestamp(change));
    db_update_parent_fd(db, db_record_parent(folder), db_change_parent_fd(change),
                        db_change_timestamp(change));
    return true;
}

bool db_folder_update_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                         const db_change_t *change) {
    db_ref_t folder = parent || fs ? db_folder_find(db, fs, parent, name, len) : 0;
    return _update_found(db, folder, name, len, change);
}

bool db_folder_update(db_t *db, const db_fs_t *fs, uint64_t parent_frn, const char *name, uint32_t len,
                      const db_change_t *change) {
    return db_folder_update_in(db, fs, db_find_folder_by_frn(db, fs, parent_frn), name, len, change);
}

bool db_folder_update_refs(db_t *db, const db_fs_t *fs, db_frn128_t parent_frn, const char *name,
                           uint32_t len, const db_change_t *change) {
    return db_folder_update_in(db, fs, db_find_folder_by_frn_refs(db, fs, parent_frn), name, len, change);
}

bool db_folder_update_path(db_t *db, const char *path, const db_change_t *change) {
    return _update_found(db, db_folder_find_by_path(db, path), path, (uint32_t) strlen(path), change);
}
