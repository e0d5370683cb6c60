// Records whose displayed values changed: collected while a job applies changes, told to the queries
// that show them once the index is idle, so that a window redraws those rows and nothing else.
#include "db_query/db_query.h"
#include "db_update/update_internal.h"
#include "main/main.h"

db_update_history_t db_update_history = {nullptr, nullptr, nullptr, nullptr};

static int _address_compare(mem_ref_t element, const void *key) {
    mem_ref_t k = *(const mem_ref_t *) key;
    return element < k ? -1 : element > k;
}

void db_changed_records_add(db_t *db, db_ref_t record) {
    // An equal element is no error here: a record changed twice is told once.
    mem_array_insert_sorted(&db->changed_records, _address_compare, &record, record);
    if (!db->changed_event_pending) {
        db->changed_event_pending = true;
        event_post(_db_changed_records_proc, db);
    }
}

void db_changed_records_remove(db_t *db, db_ref_t record) {
    if (db->changed_records.count)
        mem_array_find_remove(&db->changed_records, _address_compare, &record);
}

// Whether the query shows the record among its folder or file results. The record's kind decides which
// comparator may read it, and name order, which reads no value, tells the kind.
static bool _shows(db_query_t *q, db_ref_t record, bool folder) {
    return _db_result_index_of(q, record, folder) >= 0;
}

static bool _is_folder(db_t *db, db_ref_t record) {
    db_key_t key = {db, record, (uint8_t) DB_ORDER_NAME, true, false};
    return mem_array_find(&db->folders, db_key_compare, &key) == record;
}

int db_changed_records_dispatch(db_t *db) {
    if (db_job_running(db) || !db->changed_records.count)
        return 0;
    uint32_t n = db->changed_records.count;
    mem_ref_t *records = (mem_ref_t *) mem_alloc(n * sizeof(mem_ref_t));
    bool *folder = (bool *) mem_alloc(n);
    int c = 0, p = -1;
    for (uint32_t i = 0; i < n; i++) {
        records[i] = mem_array_next(&db->changed_records, &c, &p);
        folder[i] = _is_folder(db, records[i]);
    }
    // The array is emptied before anyone hears of it: a callback may start work that changes more.
    mem_array_kill(&db->changed_records);
    db->changed_event_pending = false;
    int told = 0;
    for (db_query_t *q = db->queries_first; q; q = q->next) {
        uint32_t i = 0;
        while (i < n && !_shows(q, records[i], folder[i]))
            i++;
        if (i == n)
            continue;
        told++;
        if (q->callback)
            q->callback(q->callback_context, DB_QUERY_SELECTION, q);
    }
    mem_free(records);
    mem_free(folder);
    return told;
}

void _db_changed_records_proc(void *ctx) {
    db_t *db = (db_t *) ctx;
    // While a job runs the records may still change; the job's end dispatches them.
    if (db_job_running(db))
        return;
    if (!db_changed_records_dispatch(db))
        db->changed_event_pending = false;
}
