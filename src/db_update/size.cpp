// Folder sizes: each folder holds the sum of the known sizes of all files below it, kept as files come,
// go and change, through every ancestor up to the root.
#include "config/config.h"
#include "db_query/db_query.h"
#include "db_update/update_internal.h"
#include "mem/mem.h"

void db_folder_size_adjust(db_t *db, db_ref_t parent_folder, uint64_t old_size, uint64_t new_size) {
    if (!parent_folder || db->structure.folder_offset[DB_FIELD_SIZE] < 0)
        return;
    if (old_size == DB_UNKNOWN)
        old_size = 0;
    if (new_size == DB_UNKNOWN)
        new_size = 0;
    if (old_size == new_size)
        return;
    uint64_t now = 0;
    if (always_update_folder_recent_change && db_update_history.updated)
        now = os_filetime_now();
    uint32_t nq = db->is_loaded ? db_update_query_count(db) : 0;
    uint8_t flags_local[16];
    uint8_t *flags = nq <= sizeof flags_local ? flags_local : (uint8_t *) mem_alloc(nq);
    db_eval_scratch_t s;
    if (nq)
        db_eval_scratch_init(&s);
    for (db_ref_t r = parent_folder; r; r = db_record_parent(r)) {
        if (nq)
            db_update_queries_detach(db, r, true, flags);
        db_update_arrays_remove(db, r, true, DB_UPDATE_BIT(DB_ORDER_SIZE), true);
        uint64_t size = db_folder_get(db, r, DB_FIELD_SIZE);
        if (size == DB_UNKNOWN)
            size = 0;
        // Unsigned arithmetic: the difference wraps and comes back, so a shrink needs no sign.
        db_folder_set(db, r, DB_FIELD_SIZE, size - old_size + new_size);
        db_update_arrays_insert(db, r, true, DB_UPDATE_BIT(DB_ORDER_SIZE), true);
        if (nq)
            db_update_queries_attach(db, r, true, flags, &s);
        db_changed_records_add(db, r);
        if (now)
            db_update_history.updated(db, r, true, now);
    }
    if (nq)
        db_eval_scratch_kill(&s);
    if (flags != flags_local)
        mem_free(flags);
}
