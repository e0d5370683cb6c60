// The scan: the query thread picks the array whose order the requested sort wants, runs the pre-passes,
// splits the array's chunks among workers and joins their lists in worker order, so that the results are
// those of one thread walking the array from start to end.
#include <cstring>

#include "db_query/exec_internal.h"
#include "db_query/scan.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "text/text.h"

struct db_search_worker_t {
    os_thread_t *thread;
    db_query_t *query;
    const mem_array_t *array;
    const db_scan_loop_t *loop; // the chain's own loop, or null for the evaluator
    uint32_t first_chunk;
    uint32_t chunk_count;
    bool folder;
    db_scan_list_t out;
};

// A chain that one loop serves: each chunk goes through it, with the yield after each chunk.
static void _loop_run(db_search_worker_t *w, db_eval_scratch_t *s) {
    db_query_t *q = w->query;
    for (uint32_t c = w->first_chunk; c < w->first_chunk + w->chunk_count; c++) {
        const mem_array_chunk_t *chunk = w->array->table[c];
        db_scan_loop_chunk(w->loop, q, mem_array_chunk_items(chunk), chunk->n, w->array->bases[c], &w->out,
                           s);
        if (q->cancel_search)
            return;
        os_sleep_ms(0);
    }
}

// One worker over its chunk range: each record through the chain, the cancel flag tested per record, a
// yield after each chunk so that a scan on every processor leaves the main thread its turn.
static void _worker_run(db_search_worker_t *w) {
    db_query_t *q = w->query;
    const db_op_t *chain = w->folder ? q->search.folder_ops : q->search.file_ops;
    db_eval_scratch_t s;
    db_eval_scratch_init(&s);
    if (w->loop) {
        _loop_run(w, &s);
        db_eval_scratch_kill(&s);
        return;
    }
    // A leading count: whose failure fails the record: once the limit is reached nothing more can pass
    // (the count only grows), so the scan ends there.
    uint32_t stop_at = UINT32_MAX;
    if (chain->op == 334 && !chain->notnext)
        stop_at = ((const db_op_count_t *) db_op_payload(chain))->limit;
    for (uint32_t c = w->first_chunk; c < w->first_chunk + w->chunk_count; c++) {
        const mem_array_chunk_t *chunk = w->array->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            if (q->cancel_search)
                goto done;
            s.found = q->count_base + w->out.n;
            if (s.found >= stop_at)
                goto done;
            if (db_query_eval_chain(q, chain, w->folder, items[i], &s, (int64_t) w->array->bases[c] + i))
                db_scan_list_push(&w->out, items[i]);
        }
        os_sleep_ms(0);
    }
done:
    db_eval_scratch_kill(&s);
}

static void _worker_proc(void *arg) {
    _worker_run((db_search_worker_t *) arg);
}

// The number of workers for a scan of chunk_count chunks: one per 16 chunks, capped by max_threads and the
// processors; one when the chain must see results in order.
static uint32_t _thread_count(const db_query_t *q, uint32_t chunk_count) {
    uint32_t t = (chunk_count + 15) / 16;
    if (max_threads > 0 && t > (uint32_t) max_threads)
        t = (uint32_t) max_threads;
    uint32_t cpus = (uint32_t) os_processor_count();
    if (t > cpus)
        t = cpus;
    if (q->search.needs_single_thread || t < 2)
        t = 1;
    return t;
}

// Scans one array. loop is the caller's: set up here (borrowing what the other pass's loop, other, already
// worked out) and left for the caller to free, so that the second pass of a search can borrow from it.
static void _find(db_query_t *q, const mem_array_t *array, bool folder, db_scan_loop_t *loop,
                  const db_scan_loop_t *other) {
    uint32_t start = debug_now_us();
    memset(loop, 0, sizeof *loop);
    mem_array_t *results = folder ? &q->folder_results : &q->file_results;
    mem_array_kill(results);
    memset(results, 0, sizeof *results);
    const db_op_t *chain = folder ? q->search.folder_ops : q->search.file_ops;
    if (!chain || (chain->op == DB_OP_FALSE && !chain->next && !chain->notnext)) {
        // Nothing can pass: no record is touched.
    } else if (chain->op == DB_OP_TRUE && !chain->next && !chain->notnext) {
        mem_array_copy(results, array);
    } else {
        db_prepass_run(q, chain, array, folder);
        // A chain of one hot op runs that op's own loop; its set-up, if any, happens here, before any
        // worker starts, and is only read by them.
        bool fast = db_scan_loop_prepare(loop, q, chain, folder, other);
        uint32_t t = _thread_count(q, array->chunk_count);
        if (t > q->workers_used)
            q->workers_used = t;
        db_search_worker_t *workers = (db_search_worker_t *) mem_alloc(t * sizeof(db_search_worker_t));
        memset(workers, 0, t * sizeof(db_search_worker_t));
        for (uint32_t i = 0; i < t; i++) {
            db_search_worker_t *w = &workers[i];
            w->query = q, w->array = array, w->folder = folder, w->loop = fast ? loop : nullptr;
            w->first_chunk = (uint32_t) ((uint64_t) array->chunk_count * i / t);
            w->chunk_count = (uint32_t) ((uint64_t) array->chunk_count * (i + 1) / t) - w->first_chunk;
            if (i + 1 < t)
                w->thread = os_thread_create(_worker_proc, w);
        }
        // The query thread takes the last range itself rather than wait idle beside its workers.
        _worker_run(&workers[t - 1]);
        uint32_t total = 0;
        for (uint32_t i = 0; i < t; i++) {
            if (workers[i].thread)
                os_thread_destroy(workers[i].thread);
            total += workers[i].out.n;
        }
        // Joined in worker order: the array's order, whatever the thread count.
        mem_ref_t *flat = (mem_ref_t *) mem_alloc((total ? total : 1) * sizeof(mem_ref_t));
        uint32_t at = 0;
        for (uint32_t i = 0; i < t; i++) {
            if (workers[i].out.n)
                memcpy(flat + at, workers[i].out.items, workers[i].out.n * sizeof(mem_ref_t));
            at += workers[i].out.n;
            mem_free(workers[i].out.items);
        }
        mem_free(workers);
        if (total)
            mem_array_from_flat(results, flat, total);
        mem_free(flat);
        db_prepass_free_all(q);
    }
    debug_printf(folder ? "found %d folders, size %d, db search time taken: %f seconds\n"
                        : "found %d files, size %d, db search time taken: %f seconds\n",
                 (int) results->count, (int) (results->chunk_count * MEM_ARRAY_CHUNK_SIZE),
                 (int) (debug_now_us() - start));
}

void _db_find_folders(db_query_t *q, mem_array_t *array) {
    db_scan_loop_t loop;
    _find(q, array, true, &loop, nullptr);
    db_scan_loop_free(&loop);
}

void _db_find_files(db_query_t *q, mem_array_t *array) {
    db_scan_loop_t loop;
    _find(q, array, false, &loop, nullptr);
    db_scan_loop_free(&loop);
}

// ---- the query thread ----------------------------------------------------------------------------------

void _db_query_results_event(void *ctx) {
    db_query_t *q = (db_query_t *) ctx;
    if (q->callback)
        q->callback(q->callback_context, DB_QUERY_RESULTS, q);
}

uint64_t db_query_files_size(const db_query_t *q, const mem_array_t *a, const volatile bool *cancel) {
    uint64_t total = 0;
    for (uint32_t c = 0; c < a->chunk_count && !(cancel && *cancel); c++) {
        const mem_array_chunk_t *chunk = a->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            uint64_t size = db_file_get(q->db, items[i], DB_FIELD_SIZE);
            if (size != DB_UNKNOWN)
                total += size;
        }
    }
    return total;
}

static void _total_size(db_query_t *q) {
    uint32_t start = debug_now_us();
    uint64_t total = db_query_files_size(q, &q->file_results, &q->cancel_search);
    q->total_result_size = total;
    q->total_result_valid = !q->cancel_search;
    debug_printf("total size %I64u, calculated in %f seconds\n", total, (int) (debug_now_us() - start));
}

void _db_query_thread_proc(db_t *db, void *arg) {
    db_query_t *q = (db_query_t *) arg;
    int requested = q->requested_sort;
    int ascending = requested & ~1;
    // The array of the requested column gives sorted output for free; without one, name order.
    mem_array_t *folders = db_sort_array(db, ascending, true);
    mem_array_t *files = db_sort_array(db, ascending, false);
    int current = ascending;
    if (!folders || !files) {
        folders = &db->folders, files = &db->files;
        current = DB_SORT_NAME;
    }
    // count: takes the first n of the requested order, so a descending request walks reversed copies,
    // files first, as a descending list shows them.
    mem_array_t rev_folders = {}, rev_files = {};
    bool reversed = q->search.flip_for_count && requested == _db_flip_sort_type(current);
    if (reversed) {
        mem_array_copy_reversed(&rev_folders, folders);
        mem_array_copy_reversed(&rev_files, files);
        folders = &rev_folders, files = &rev_files;
        current = requested;
    }
    debug_printf("SET SORT %d\n", current);
    q->count_base = 0;
    q->workers_used = 0;
    // The two passes of a path search work out the same per-folder states: the second borrows the first's.
    db_scan_loop_t loops[2];
    memset(loops, 0, sizeof loops);
    if (reversed) {
        _find(q, files, false, &loops[0], nullptr);
        q->count_base = q->file_results.count;
        if (!q->cancel_search)
            _find(q, folders, true, &loops[1], &loops[0]);
    } else {
        _find(q, folders, true, &loops[0], nullptr);
        q->count_base = q->folder_results.count;
        if (!q->cancel_search)
            _find(q, files, false, &loops[1], &loops[0]);
    }
    db_scan_loop_free(&loops[1]);
    db_scan_loop_free(&loops[0]);
    mem_array_kill(&rev_folders);
    mem_array_kill(&rev_files);
    q->current_sort = current;
    q->folders_first = (current & 1) == 0;
    q->cache_kind = 0;
    q->results_published = true;
    event_post(_db_query_results_event, q);
    if (q->want_total_size && !q->cancel_search)
        _total_size(q);
    if (!q->cancel_search) {
        q->sorted = true;
        _db_set_sort(q, requested);
        _db_update_selection(q);
    }
    db_set_status(db, nullptr);
}
