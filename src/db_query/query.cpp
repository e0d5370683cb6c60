// The query object: its life on the index's list, the entry of a search, cancellation, and the events
// through which it tells its owner, always on the main thread.
#include <cstring>

#include "db_query/exec_internal.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

// A search can run when a load or rebuild has put an index in place and none is running now.
bool db_query_index_ready(const db_t *db) {
    if (!db->is_loaded)
        return false;
    return !(db->job_thread && db->job_kind == DB_JOB_OTHER && !db->job_query);
}

static void _set_cancel(db_query_t *q, bool on) {
    q->cancel_search = on;
    q->cancel_sort = on;
    q->cancel_all = on;
}

static void _idle_event(void *ctx) {
    db_query_t *q = (db_query_t *) ctx;
    if (q->callback) {
        q->callback(q->callback_context, DB_QUERY_JOB_ENDED, q);
        q->callback(q->callback_context, DB_QUERY_READY, q);
    }
}

// Run history arrived (or is on its way) while the owner may already show rows: they are drawn again.
static void _rows_event(void *ctx) {
    db_query_t *q = (db_query_t *) ctx;
    if (q->callback)
        q->callback(q->callback_context, DB_QUERY_ROWS, q);
}

static void _status_event(void *ctx) {
    db_query_t *q = (db_query_t *) ctx;
    if (q->callback)
        q->callback(q->callback_context, DB_QUERY_STATUS, q);
}

db_query_t *db_query_create(db_t *db, bool show_cancel_dialog, db_query_proc_t proc, void *user) {
    db_query_t *q = (db_query_t *) mem_alloc(sizeof *q);
    memset(q, 0, sizeof *q);
    q->db = db;
    q->allow_cancel_dialog = show_cancel_dialog;
    q->callback = proc;
    q->callback_context = user;
    q->current_sort = q->requested_sort = DB_SORT_NAME;
    q->folders_first = true;
    db_search_init(&q->search, db);
    {
        os_lock_guard guard(&db->status_lock);
        if (db->status_text)
            event_post(_status_event, q);
    }
    if (db->is_loaded)
        db_wait(db, "db_query_create");
    q->prev = db->queries_last;
    if (db->queries_last)
        db->queries_last->next = q;
    else
        db->queries_first = q;
    db->queries_last = q;
    if (db->load_run_history_pending)
        event_post(_rows_event, q);
    return q;
}

static void _free_results(db_query_t *q) {
    mem_array_t *arrays[3] = {&q->head_results, &q->folder_results, &q->file_results};
    for (mem_array_t *a : arrays) {
        mem_array_kill(a);
        memset(a, 0, sizeof *a);
    }
    q->cache_kind = 0;
    q->total_result_valid = false;
}

static void _free_selection(db_query_t *q) {
    mem_array_t *arrays[3] = {&q->head_selection, &q->folder_selection, &q->file_selection};
    for (mem_array_t *a : arrays) {
        mem_array_kill(a);
        memset(a, 0, sizeof *a);
    }
    q->selection_anchor = 0;
    q->total_selection_valid = false;
}

static void _pending_free(db_query_t *q) {
    mem_free(q->pending.search);
    mem_free(q->pending.filter);
    memset(&q->pending, 0, sizeof q->pending);
}

void db_destroy_query(db_query_t *q) {
    if (!q)
        return;
    db_t *db = q->db;
    _set_cancel(q, true);
    db_wait(db, "db_destroy_query");
    event_remove(_db_query_results_event, q);
    event_remove(_idle_event, q);
    event_remove(_status_event, q);
    event_remove(_rows_event, q);
    db_prepass_free_all(q);
    db_search_kill(&q->search);
    _free_results(q);
    _free_selection(q);
    _pending_free(q);
    mem_array_kill(&q->ghosts);
    if (q->prev)
        q->prev->next = q->next;
    else
        db->queries_first = q->next;
    if (q->next)
        q->next->prev = q->prev;
    else
        db->queries_last = q->prev;
    mem_free(q);
}

int db_cancel_query(db_query_t *q) {
    db_t *db = q->db;
    if (!db->job_thread || db->job_query != q)
        return 0;
    uint32_t kind = db->job_kind;
    _set_cancel(q, true);
    os_event_wait(db->job_done, UINT32_MAX);
    db_wait(db, "db_cancel_query");
    if (kind == DB_JOB_SEARCH) {
        // A cancelled scan leaves a part of the answer: nobody may take it for the whole.
        _free_results(q);
        q->sorted = false;
    }
    _db_update_selection(q);
    event_remove(_db_query_results_event, q);
    _db_results_changed(q);
    return 1;
}

static uint32_t _bits(bool c, bool w, bool p, bool d, bool r) {
    uint32_t bits = 0;
    bits |= c ? (uint32_t) SEARCH_CASE : 0u;
    bits |= w ? (uint32_t) SEARCH_WHOLEWORD : 0u;
    bits |= p ? (uint32_t) SEARCH_PATH : 0u;
    bits |= d ? (uint32_t) SEARCH_DIACRITICS : 0u;
    bits |= r ? (uint32_t) SEARCH_REGEX : 0u;
    return bits;
}

int db_query_search(db_query_t *q, bool match_case, bool match_whole_word, bool match_path,
                    bool match_diacritics, bool match_regex, bool hide_empty_results, bool clear_selection,
                    const char *search, uint32_t filter_flags, const char *filter, int sort_type,
                    int sort_ascending_hint, int track_selection, bool want_total_size) {
    db_t *db = q->db;
    if (!search)
        search = "";
    if (!filter)
        filter = "";
    _db_flip_sort_type(sort_type);
    if (!db_query_index_ready(db)) {
        // Kept whole and replayed by the index's ready event.
        _pending_free(q);
        db_query_pending_t *p = &q->pending;
        p->active = true;
        p->match_case = match_case, p->match_whole_word = match_whole_word, p->match_path = match_path;
        p->match_diacritics = match_diacritics, p->match_regex = match_regex;
        p->hide_empty_results = hide_empty_results, p->clear_selection = clear_selection;
        p->search = mem_dup(search, strlen(search));
        p->filter_flags = filter_flags;
        p->filter = mem_dup(filter, strlen(filter));
        p->sort_type = sort_type, p->sort_ascending_hint = sort_ascending_hint;
        p->track_selection = track_selection, p->want_total_size = want_total_size;
        q->pending_sort.active = false;
        return 0;
    }
    // A running scan for this query stops within one record.
    _set_cancel(q, true);
    q->busy = true;
    debug_printf("search '%s' filter '%s' sort %d\n", search, filter, sort_type);
    db_wait(db, "db_query_search");
    event_remove(_db_query_results_event, q);
    // Remembered rows follow their records into the new results, unless the caller starts afresh.
    if (clear_selection)
        _free_selection(q);
    db_itemrefs_reset(q, clear_selection ? -1 : -2);
    db_prepass_free_all(q);
    db_search_kill(&q->search);
    db_search_init(&q->search, db);
    _free_results(q);
    q->requested_sort = sort_type;
    q->sort_hint_1 = sort_ascending_hint;
    q->sort_hint_2 = track_selection;
    _set_cancel(q, false);
    q->sorted = false;
    q->want_total_size = want_total_size && (db->structure.word & DB_STRUCTURE_SIZE);
    q->total_result_valid = false;
    db_search_compile(&q->search, search,
                      _bits(match_case, match_whole_word, match_path, match_diacritics, match_regex), filter,
                      filter_flags, hide_empty_results);
    db_job_start(db, "db_query_search", DB_JOB_SEARCH, q, _db_query_thread_proc, q, OS_PRIORITY_NORMAL);
    return 1;
}

void db_queries_idle(db_t *db) {
    for (db_query_t *q = db->queries_first; q; q = q->next) {
        if (db->job_thread || !db_query_index_ready(db))
            return;
        if (q->pending.active) {
            db_query_pending_t p = q->pending;
            memset(&q->pending, 0, sizeof q->pending);
            db_query_search(q, p.match_case, p.match_whole_word, p.match_path, p.match_diacritics,
                            p.match_regex, p.hide_empty_results, p.clear_selection, p.search, p.filter_flags,
                            p.filter, p.sort_type, p.sort_ascending_hint, p.track_selection,
                            p.want_total_size);
            mem_free(p.search);
            mem_free(p.filter);
            return;
        }
        if (q->pending_sort.active) {
            q->pending_sort.active = false;
            db_sort(q, q->pending_sort.sort, q->pending_sort.keep_selection_hint, q->pending_sort.track_hint);
            return;
        }
    }
    for (db_query_t *q = db->queries_first; q; q = q->next) {
        q->busy = false;
        event_post(_idle_event, q);
    }
}

void _db_results_changed(db_query_t *q) {
    event_remove(_db_query_results_event, q);
    event_post(_db_query_results_event, q);
    q->results_published = true;
    q->cache_kind = 0;
    // The rows moved but the records may still be there: each ref looks its record up on its next read.
    db_itemrefs_reset(q, -2);
}

// Each callback may destroy its own query: the next one is taken first.
static void _tell_all(db_t *db, int code) {
    for (db_query_t *q = db->queries_first, *next; q; q = next) {
        next = q->next;
        if (q->callback)
            q->callback(q->callback_context, code, q);
    }
}

void db_queries_status(db_t *db) {
    _tell_all(db, DB_QUERY_STATUS);
}

void db_queries_job_ended(db_t *db) {
    _tell_all(db, DB_QUERY_JOB_ENDED);
}
