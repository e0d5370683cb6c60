// Live results: the index's update code tells each query about a record it added or is about to take
// away, on the update thread while it holds the index. A new record that the query's chain takes goes
// into its result array at its place in the current order; a record that goes leaves the results, the
// selection, the ghosts, and its remembered items look their row up again. Either way the owner hears
// of new results once.
#include <cstring>

#include "db_query/exec_internal.h"
#include "debug/debug.h"

struct live_key_t {
    db_query_t *q;
    bool folder;
    db_ref_t record;
};

static int _live_compare(mem_ref_t element, const void *key) {
    const live_key_t *k = (const live_key_t *) key;
    return db_query_result_compare(k->q, k->folder, element, k->record);
}

bool db_query_record_added(db_query_t *q, db_ref_t record, bool folder, db_eval_scratch_t *s) {
    // Unsorted results (a cancelled sort) have no order to keep: the record waits for the next search.
    if (!q->sorted)
        return false;
    // count: sees the results so far: a new record past the limit stays out.
    s->found = q->head_results.count + q->folder_results.count + q->file_results.count;
    bool match = folder ? db_query_is_folder_match(q, record, s) : db_query_is_file_match(q, record, s);
    if (!match)
        return false;
    live_key_t key = {q, folder, record};
    q->db->sort_query = q;
    if (!mem_array_insert_sorted(folder ? &q->folder_results : &q->file_results, _live_compare, &key,
                                 record)) {
        debug_printf("live insert: record %u already in the results\n", record);
        return false;
    }
    if (q->total_result_valid && !folder) {
        uint64_t size = db_file_get(q->db, record, DB_FIELD_SIZE);
        q->total_result_size += size == DB_UNKNOWN ? 0 : size;
    }
    _db_results_changed(q);
    return true;
}

// Takes record out of a reference array: by the order when there is one, else by a walk.
static bool _take(db_query_t *q, mem_array_t *a, bool folder, db_ref_t record, bool ordered) {
    if (ordered) {
        live_key_t key = {q, folder, record};
        return mem_array_find_remove(a, _live_compare, &key) != 0;
    }
    int c = 0, p = -1;
    for (mem_ref_t r = mem_array_next(a, &c, &p); r; r = mem_array_next(a, &c, &p)) {
        if (r == record) {
            mem_array_remove_at(a, c, p);
            return true;
        }
    }
    return false;
}

// Takes the head entries of record out of a head array (entries of the given kind).
static bool _take_head(mem_array_t *a, int kind, db_ref_t record) {
    bool taken = false;
    int c = 0, p = -1;
    for (mem_ref_t e = mem_array_next(a, &c, &p); e;) {
        bool f;
        if (db_head_entry_record(kind, e, &f) == record) {
            mem_array_remove_at(a, c, p);
            taken = true;
            // The cursor now stands on the element that followed: step back to read it next.
            c = 0, p = -1;
        }
        e = mem_array_next(a, &c, &p);
    }
    return taken;
}

static int _ref_compare(mem_ref_t element, const void *key) {
    mem_ref_t k = *(const mem_ref_t *) key;
    return element < k ? -1 : element > k;
}

bool db_query_record_removed(db_query_t *q, db_ref_t record, bool folder) {
    q->db->sort_query = q;
    bool in_results = _take(q, folder ? &q->folder_results : &q->file_results, folder, record, q->sorted) ||
                      _take_head(&q->head_results, q->head_list_kind, record);
    bool in_selection =
        _take(q, folder ? &q->folder_selection : &q->file_selection, folder, record, q->sorted) ||
        _take_head(&q->head_selection, q->head_selection_kind, record);
    mem_array_find_remove(&q->ghosts, _ref_compare, &record);
    db_itemrefs_record_changed(q, record);
    if (in_selection)
        _db_update_selection_totals(q);
    if (in_results && q->total_result_valid && !folder) {
        uint64_t size = db_file_get(q->db, record, DB_FIELD_SIZE);
        q->total_result_size -= size == DB_UNKNOWN ? 0 : size;
    }
    if (in_results)
        _db_results_changed(q);
    return in_results;
}

void db_queries_record_added(db_t *db, db_ref_t record, bool folder) {
    db_eval_scratch_t s;
    db_eval_scratch_init(&s);
    for (db_query_t *q = db->queries_first; q; q = q->next)
        db_query_record_added(q, record, folder, &s);
    db_eval_scratch_kill(&s);
}

void db_queries_record_removed(db_t *db, db_ref_t record, bool folder) {
    for (db_query_t *q = db->queries_first; q; q = q->next)
        db_query_record_removed(q, record, folder);
}

// A record whose key is about to change (a value the sort reads, its path) or that a new record replaces
// leaves the query the same way as one that goes, but the query remembers whether it was selected, so
// that the record under its new key, or its replacement, comes back selected when it still matches.
uint32_t db_query_record_detach(db_query_t *q, db_ref_t record, bool folder) {
    mem_array_t *selection = folder ? &q->folder_selection : &q->file_selection;
    uint32_t before = selection->count + q->head_selection.count;
    bool in_results = db_query_record_removed(q, record, folder);
    uint32_t flags = in_results ? DB_LIVE_IN_RESULTS : 0;
    if (selection->count + q->head_selection.count < before)
        flags |= DB_LIVE_IN_SELECTION;
    return flags;
}

bool db_query_record_attach(db_query_t *q, db_ref_t record, bool folder, uint32_t flags,
                            db_eval_scratch_t *s) {
    if (!db_query_record_added(q, record, folder, s))
        return false;
    if (flags & DB_LIVE_IN_SELECTION) {
        live_key_t key = {q, folder, record};
        q->db->sort_query = q;
        if (mem_array_insert_sorted(folder ? &q->folder_selection : &q->file_selection, _live_compare, &key,
                                    record))
            _db_update_selection_totals(q);
    }
    return true;
}

void db_queries_record_replaced(db_t *db, db_ref_t old_record, db_ref_t new_record) {
    for (db_query_t *q = db->queries_first; q; q = q->next)
        db_itemrefs_record_replaced(q, old_record, new_record);
}
