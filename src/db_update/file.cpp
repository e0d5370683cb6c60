// Files: add, remove, rename or move, and new values, in each of their forms.
#include "config/config.h"
#include "db_query/db_query.h"
#include "db_update/update_internal.h"
#include "debug/debug.h"
#include "mem/mem.h"

// ---- add -------------------------------------------------------------------------------------------------

db_ref_t db_update_file_make(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                             const db_fd_t *fd, bool *made) {
    *made = false;
    if (db_update_excluded(db, parent, false, name, len))
        return 0;
    db_file_find_key_t key;
    db_update_key(&key, fs, parent, name, len);
    int chunk, pos;
    db_ref_t existing = mem_array_find_near(&db->files, &chunk, &pos, db_file_find_key_compare, &key);
    if (existing)
        return existing;
    db_ref_t r = db_file_new(db, fs, parent, name, len);
    db_update_write_fd(db, r, false, fd);
    mem_array_insert_at(&db->files, chunk, pos, r);
    db_update_arrays_insert(db, r, false, DB_UPDATE_ALL, false);
    *made = true;
    return r;
}

db_ref_t db_file_add_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                        const db_change_t *change) {
    bool made;
    db_ref_t r = db_update_file_make(db, fs, parent, name, len, db_change_fd(change), &made);
    if (made) {
        if (db_update_history.added)
            db_update_history.added(db, r, false, db_change_timestamp(change));
        db_update_queries_added(db, r, false);
        db_folder_size_adjust(db, parent, 0, db_file_get(db, r, DB_FIELD_SIZE));
        db_children_inc(db, parent);
    }
    // A folder's dates move when its content changes: the parent takes the values that came along.
    db_update_parent_fd(db, parent, db_change_parent_fd(change), db_change_timestamp(change));
    return r;
}

static db_ref_t _add_by_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high, const char *name,
                            uint32_t len, const db_change_t *change) {
    int chunk, pos;
    db_ref_t parent = db_update_find_frn(db, fs, low, high, &chunk, &pos);
    if (!parent) {
        // The change is lost until the next rebuild; the journal goes on.
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to add ntfs file: %t: parent %016I64x not found\n",
                           name, (int) len, low);
        return 0;
    }
    return db_file_add_in(db, fs, parent, name, len, change);
}

db_ref_t db_file_add(db_t *db, const db_fs_t *fs, uint64_t parent_frn, const char *name, uint32_t len,
                     const db_change_t *change) {
    return _add_by_frn(db, fs, parent_frn, 0, name, len, change);
}

db_ref_t db_file_add_refs(db_t *db, const db_fs_t *fs, db_frn128_t parent_frn, const char *name, uint32_t len,
                          const db_change_t *change) {
    return _add_by_frn(db, fs, parent_frn.low, parent_frn.high, name, len, change);
}

db_ref_t db_file_add_path(db_t *db, const db_fs_t *fs, const char *path, const db_change_t *change) {
    uint32_t parent_len, len;
    const char *name;
    db_update_split_path(path, &parent_len, &name, &len);
    db_ref_t parent = db_update_folder_at(db, path, parent_len);
    if (!parent) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to add file: %s: parent not found\n", path);
        return 0;
    }
    return db_file_add_in(db, fs, parent, name, len, change);
}

// ---- remove ----------------------------------------------------------------------------------------------

void db_file_remove_record(db_t *db, db_ref_t file, bool adjust_size) {
    db_update_name_remove(db, file, false);
    db_update_arrays_remove(db, file, false, DB_UPDATE_ALL, false);
    db_update_forget(db, file, false);
    db_update_queries_detach(db, file, false, nullptr);
    db_ref_t parent = db_record_parent(file);
    if (adjust_size)
        db_folder_size_adjust(db, parent, db_file_get(db, file, DB_FIELD_SIZE), 0);
    db_children_dec(db, parent);
    db_file_delete(db, file);
}

bool db_file_remove_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                       const db_change_t *change) {
    db_ref_t r = parent || fs ? db_file_find(db, fs, parent, name, len) : 0;
    if (!r) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to remove file: %t: file not found\n", name,
                           (int) len);
        return false;
    }
    db_file_remove_record(db, r, true);
    db_update_parent_fd(db, parent, db_change_parent_fd(change), db_change_timestamp(change));
    return true;
}

bool db_file_remove(db_t *db, const db_fs_t *fs, uint64_t parent_frn, const char *name, uint32_t len,
                    const db_change_t *change) {
    return db_file_remove_in(db, fs, db_find_folder_by_frn(db, fs, parent_frn), name, len, change);
}

bool db_file_remove_refs(db_t *db, const db_fs_t *fs, db_frn128_t parent_frn, const char *name, uint32_t len,
                         const db_change_t *change) {
    return db_file_remove_in(db, fs, db_find_folder_by_frn_refs(db, fs, parent_frn), name, len, change);
}

bool db_file_remove_path(db_t *db, const char *path, const db_change_t *change) {
    db_ref_t r = db_file_find_by_path(db, path);
    if (!r) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to remove file: %s: file not found\n", path);
        return false;
    }
    db_ref_t parent = db_record_parent(r);
    db_file_remove_record(db, r, true);
    db_update_parent_fd(db, parent, db_change_parent_fd(change), db_change_timestamp(change));
    return true;
}

// ---- rename or move --------------------------------------------------------------------------------------

// The old record leaves every array; a new one takes its values (with what change->fd knows on top) and
// its place in the queries, which keep it selected; then the old one is freed.
static db_ref_t _rename(db_t *db, const db_fs_t *fs, db_ref_t old_parent, const char *old_name,
                        uint32_t old_len, db_ref_t new_parent, const char *new_name, uint32_t new_len,
                        const db_change_t *change) {
    db_ref_t old = old_parent || fs ? db_file_find(db, fs, old_parent, old_name, old_len) : 0;
    if (!old)
        return new_parent ? db_file_add_in(db, fs, new_parent, new_name, new_len, change) : 0;
    uint64_t timestamp = db_change_timestamp(change);
    db_update_name_remove(db, old, false);
    db_update_arrays_remove(db, old, false, DB_UPDATE_ALL, false);
    db_changed_records_remove(db, old);
    uint32_t nq = db_update_query_count(db);
    uint8_t flags_local[16];
    uint8_t *flags = nq <= sizeof flags_local ? flags_local : (uint8_t *) mem_alloc(nq);
    db_update_queries_detach(db, old, false, flags);

    db_fd_t fd;
    db_update_read_fd(db, old, false, &fd);
    // The new values are in the record before it goes into any array: its keys must not change there.
    db_update_overlay_fd(&fd, db_change_fd(change));
    db_ref_t r = 0;
    bool made = false;
    if (new_parent) {
        r = db_update_file_make(db, fs, new_parent, new_name, new_len, &fd, &made);
    }
    db_update_announce_replaced(db, old, made ? r : 0, false, flags, timestamp);
    if (flags != flags_local)
        mem_free(flags);

    uint64_t size = db_file_get(db, old, DB_FIELD_SIZE);
    db_folder_size_adjust(db, old_parent, size, 0);
    if (made) {
        db_folder_size_adjust(db, new_parent, 0, db_file_get(db, r, DB_FIELD_SIZE));
        db_children_inc(db, new_parent);
    }
    db_update_parent_fd(db, new_parent, db_change_parent_fd(change), timestamp);
    db_update_parent_fd(db, old_parent, change ? change->old_parent_fd : nullptr, timestamp);
    db_children_dec(db, old_parent);
    db_file_delete(db, old);
    return r;
}

db_ref_t db_file_rename_in(db_t *db, const db_fs_t *fs, db_ref_t old_parent, const char *old_name,
                           uint32_t old_len, db_ref_t new_parent, const char *new_name, uint32_t new_len,
                           const db_change_t *change) {
    return _rename(db, fs, old_parent, old_name, old_len, new_parent, new_name, new_len, change);
}

static db_ref_t _rename_by_frn(db_t *db, const db_fs_t *fs, uint64_t old_low, uint64_t old_high,
                               const char *old_name, uint32_t old_len, uint64_t new_low, uint64_t new_high,
                               const char *new_name, uint32_t new_len, const db_change_t *change) {
    int chunk, pos;
    db_ref_t old_parent = db_update_find_frn(db, fs, old_low, old_high, &chunk, &pos);
    // Without the old parent the old record can't be found: the whole becomes an add, which logs a
    // missing new parent itself.
    if (!old_parent)
        return _add_by_frn(db, fs, new_low, new_high, new_name, new_len, change);
    db_ref_t new_parent = db_update_find_frn(db, fs, new_low, new_high, &chunk, &pos);
    if (!new_parent)
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to add ntfs file: %t: parent %016I64x not found\n",
                           new_name, (int) new_len, new_low);
    return _rename(db, fs, old_parent, old_name, old_len, new_parent, new_name, new_len, change);
}

db_ref_t db_file_rename(db_t *db, const db_fs_t *fs, uint64_t old_parent_frn, const char *old_name,
                        uint32_t old_len, uint64_t new_parent_frn, const char *new_name, uint32_t new_len,
                        const db_change_t *change) {
    return _rename_by_frn(db, fs, old_parent_frn, 0, old_name, old_len, new_parent_frn, 0, new_name, new_len,
                          change);
}

db_ref_t db_file_rename_refs(db_t *db, const db_fs_t *fs, db_frn128_t old_parent_frn, const char *old_name,
                             uint32_t old_len, db_frn128_t new_parent_frn, const char *new_name,
                             uint32_t new_len, const db_change_t *change) {
    return _rename_by_frn(db, fs, old_parent_frn.low, old_parent_frn.high, old_name, old_len,
                          new_parent_frn.low, new_parent_frn.high, new_name, new_len, change);
}

db_ref_t db_file_rename_path(db_t *db, const db_fs_t *fs, const char *old_path, const char *new_path,
                             const db_change_t *change) {
    uint32_t old_parent_len, old_len, new_parent_len, new_len;
    const char *old_name, *new_name;
    db_update_split_path(old_path, &old_parent_len, &old_name, &old_len);
    db_update_split_path(new_path, &new_parent_len, &new_name, &new_len);
    db_ref_t old_parent = db_update_folder_at(db, old_path, old_parent_len);
    db_ref_t new_parent = db_update_folder_at(db, new_path, new_parent_len);
    if (!new_parent)
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to add file: %s: parent not found\n", new_path);
    if (!old_parent)
        return new_parent ? db_file_add_in(db, fs, new_parent, new_name, new_len, change) : 0;
    return _rename(db, fs, old_parent, old_name, old_len, new_parent, new_name, new_len, change);
}

// ---- new values ------------------------------------------------------------------------------------------

static const db_field_t _fields[] = {DB_FIELD_SIZE, DB_FIELD_DATE_CREATED, DB_FIELD_DATE_MODIFIED,
                                     DB_FIELD_DATE_ACCESSED, DB_FIELD_ATTRIBUTES};

// The orders whose keys the new values change: known values that differ from the stored ones.
uint32_t db_update_changed_orders(const db_t *db, db_ref_t r, bool folder, const db_fd_t *fd) {
    if (!fd)
        return 0;
    const uint64_t values[] = {fd->size, fd->date_created, fd->date_modified, fd->date_accessed,
                               fd->attributes};
    uint32_t orders = 0;
    for (int i = 0; i < 5; i++) {
        db_field_t f = _fields[i];
        // A folder's size is the sum of what it holds, never a value from outside.
        if (folder && f == DB_FIELD_SIZE)
            continue;
        bool unknown = f == DB_FIELD_ATTRIBUTES ? values[i] == 0 : values[i] == DB_UNKNOWN;
        if (unknown)
            continue;
        // A field the structure doesn't store reads as unknown and takes nothing.
        if ((folder ? db->structure.folder_offset : db->structure.file_offset)[f] < 0)
            continue;
        uint64_t old = (folder ? db_folder_get : db_file_get)(db, r, f);
        if (old != values[i])
            orders |= db_update_orders_of_field(f);
    }
    return orders;
}

void db_file_update_record(db_t *db, db_ref_t file, const db_fd_t *fd, uint64_t timestamp) {
    uint32_t start = debug_now_us();
    uint32_t orders = db_update_changed_orders(db, file, false, fd);
    if (!orders)
        return;
    uint64_t old_size = db_file_get(db, file, DB_FIELD_SIZE);
    db_update_rewrite(db, file, false, orders, fd);
    if (orders & DB_UPDATE_BIT(DB_ORDER_SIZE))
        db_folder_size_adjust(db, db_record_parent(file), old_size, db_file_get(db, file, DB_FIELD_SIZE));
    if (db_update_history.updated && db->recent_change_enabled)
        db_update_history.updated(db, file, false, timestamp);
    if (debug_verbose) {
        uint32_t len;
        const char *name = db_record_name(file, &len);
        debug_printf("updated fd for %t in %f seconds\n", name, (int) len, (int) (debug_now_us() - start));
    }
}

bool db_file_update_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                       const db_change_t *change) {
    db_ref_t r = parent || fs ? db_file_find(db, fs, parent, name, len) : 0;
    if (!r) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to update file: %t: file not found\n", name,
                           (int) len);
        return false;
    }
    db_file_update_record(db, r, db_change_fd(change), db_change_timestamp(change));
    db_update_parent_fd(db, parent, db_change_parent_fd(change), db_change_timestamp(change));
    return true;
}

bool db_file_update(db_t *db, const db_fs_t *fs, uint64_t parent_frn, const char *name, uint32_t len,
                    const db_change_t *change) {
    return db_file_update_in(db, fs, db_find_folder_by_frn(db, fs, parent_frn), name, len, change);
}

bool db_file_update_refs(db_t *db, const db_fs_t *fs, db_frn128_t parent_frn, const char *name, uint32_t len,
                         const db_change_t *change) {
    return db_file_update_in(db, fs, db_find_folder_by_frn_refs(db, fs, parent_frn), name, len, change);
}

bool db_file_update_path(db_t *db, const char *path, const db_change_t *change) {
    db_ref_t r = db_file_find_by_path(db, path);
    if (!r) {
        debug_color_printf(DB_UPDATE_ERROR_COLOUR, "unable to update file: %s: file not found\n", path);
        return false;
    }
    db_file_update_record(db, r, db_change_fd(change), db_change_timestamp(change));
    db_update_parent_fd(db, db_record_parent(r), db_change_parent_fd(change), db_change_timestamp(change));
    return true;
}
