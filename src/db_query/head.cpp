// The head list's view of history entries: which sorts show one, and how an entry gives its record. The
// entries themselves, their side lists and their values belong to the run history and the recent changes;
// until those lend them, there is no side list and every head list stays empty.
#include "db_query/exec_internal.h"

static const mem_array_t *_no_side_list(db_t *, int) {
    return nullptr;
}

db_query_history_t db_query_history = {_no_side_list, {0, 0}, {4, 4}};

void db_query_history_reset() {
    db_query_history = {_no_side_list, {0, 0}, {4, 4}};
}

int db_head_kind_of_sort(int sort) {
    switch (sort & ~1) {
    case DB_SORT_RUN_COUNT:
    case DB_SORT_DATE_RUN:
        return DB_HEAD_RUN_HISTORY;
    case DB_SORT_DATE_RECENTLY_CHANGED:
        return DB_HEAD_RECENT_CHANGES;
    default:
        return DB_HEAD_NONE;
    }
}

db_ref_t db_head_record(const db_query_t *q, mem_ref_t entry, bool *is_folder) {
    return db_head_entry_record(q->head_list_kind, entry, is_folder);
}

db_ref_t db_head_entry_record(int kind, mem_ref_t entry, bool *is_folder) {
    int k = kind == DB_HEAD_RECENT_CHANGES ? 1 : 0;
    const uint8_t *p = db_ptr(entry);
    *is_folder = p[db_query_history.folder_offset[k]] != 0;
    return *(const db_ref_t *) (p + db_query_history.record_offset[k]);
}
