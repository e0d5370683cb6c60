// Selection: three arrays of selected records, each in the order of its result array, so that a range,
// select all and invert are one merge walk of the two without a compare, and the update after a new
// result set is the sentinel walk of the sort file.
#include <cstring>

#include "db_query/exec_internal.h"
#include "mem/mem.h"

bool db_query_index_ready(const db_t *db);

struct select_key_t {
    db_query_t *q;
    bool folder;
    db_ref_t record;
};

static int _key_compare(mem_ref_t element, const void *key) {
    const select_key_t *k = (const select_key_t *) key;
    return db_query_result_compare(k->q, k->folder, element, k->record);
}

static bool _usable(db_query_t *q, const char *who) {
    if (!db_query_index_ready(q->db))
        return false;
    db_wait(q->db, who);
    return true;
}

static mem_array_t *_selection(db_query_t *q, bool folder) {
    return folder ? &q->folder_selection : &q->file_selection;
}

void _db_update_selection_totals(db_query_t *q) {
    uint64_t total = db_query_files_size(q, &q->file_selection, nullptr);
    int c = 0, p = -1;
    for (mem_ref_t e = mem_array_next(&q->head_selection, &c, &p); e;
         e = mem_array_next(&q->head_selection, &c, &p)) {
        bool folder;
        db_ref_t r = db_head_entry_record(q->head_selection_kind, e, &folder);
        uint64_t size = folder ? DB_UNKNOWN : db_file_get(q->db, r, DB_FIELD_SIZE);
        total += size == DB_UNKNOWN ? 0 : size;
    }
    q->total_selection_size = total;
    q->total_selection_valid = (q->db->structure.word & DB_STRUCTURE_SIZE) != 0;
    q->selection_anchor = 0;
}

// One record in or out of the selection: its known size moves the total, with no walk of the rest.
static void _step_total(db_query_t *q, bool folder, db_ref_t r, bool in) {
    if (!q->total_selection_valid)
        return _db_update_selection_totals(q);
    uint64_t size = folder ? DB_UNKNOWN : db_file_get(q->db, r, DB_FIELD_SIZE);
    if (size != DB_UNKNOWN)
        q->total_selection_size += in ? size : (uint64_t) 0 - size;
    q->selection_anchor = 0;
}

// Looks for the record in its selection: by the result order when the results stand sorted, else by a
// walk (a cancelled sort leaves no order a compare could follow).
static mem_ref_t _find(db_query_t *q, bool folder, db_ref_t r, int *chunk, int *pos) {
    mem_array_t *sel = _selection(q, folder);
    if (q->sorted) {
        select_key_t key = {q, folder, r};
        return mem_array_find_near(sel, chunk, pos, _key_compare, &key);
    }
    int c = 0, p = -1;
    for (mem_ref_t x = mem_array_next(sel, &c, &p); x; x = mem_array_next(sel, &c, &p)) {
        if (x == r) {
            *chunk = c, *pos = p;
            return x;
        }
    }
    *chunk = -1;
    return 0;
}

int db_get_selection_count(db_query_t *q) {
    if (!_usable(q, "db_get_selection_count"))
        return 0;
    return (int) (q->head_selection.count + q->folder_selection.count + q->file_selection.count);
}

// The nth selected record in result order: the selection arrays laid out as the results are.
static bool _selected_at(db_query_t *q, int n, db_ref_t *r, bool *folder) {
    if (n < 0)
        return false;
    mem_array_t *order[3] = {&q->head_selection, &q->folder_selection, &q->file_selection};
    if (!q->folders_first)
        order[0] = &q->file_selection, order[2] = &q->head_selection;
    for (mem_array_t *a : order) {
        if ((uint32_t) n >= a->count) {
            n -= (int) a->count;
            continue;
        }
        mem_ref_t e = mem_array_get(a, (uint32_t) n);
        if (a == &q->head_selection)
            *r = db_head_entry_record(q->head_selection_kind, e, folder);
        else
            *r = e, *folder = a == &q->folder_selection;
        return true;
    }
    return false;
}

// The result index where the head list starts, and whether index is in it (with its entry).
static bool _head_row(db_query_t *q, int index, mem_ref_t *entry) {
    int32_t first = q->folders_first ? 0 : (int32_t) (q->file_results.count + q->folder_results.count);
    if (index < first || index >= first + (int32_t) q->head_results.count)
        return false;
    *entry = mem_array_get(&q->head_results, (uint32_t) (index - first));
    return true;
}

static bool _head_selected(db_query_t *q, mem_ref_t entry) {
    int c = 0, p = -1;
    for (mem_ref_t e = mem_array_next(&q->head_selection, &c, &p); e;
         e = mem_array_next(&q->head_selection, &c, &p))
        if (e == entry)
            return true;
    return false;
}

static void _head_set(db_query_t *q, int index, bool on);

int db_get_selection_result_index(db_query_t *q, int n) {
    db_ref_t r;
    bool folder;
    if (!_usable(q, "db_get_selection_result_index") || !_selected_at(q, n, &r, &folder))
        return -1;
    return _db_result_index_of(q, r, folder);
}

int db_is_folder_selection(db_query_t *q, int n) {
    db_ref_t r;
    bool folder;
    if (!_usable(q, "db_is_folder_selection") || !_selected_at(q, n, &r, &folder))
        return 1;
    return folder;
}

int db_get_selection_full_path_name(db_query_t *q, int n, str_t *out) {
    str_set(out, "");
    db_ref_t r;
    bool folder;
    if (!_usable(q, "db_get_selection_full_path_name") || !_selected_at(q, n, &r, &folder))
        return 0;
    db_get_full_path(out, r);
    return 1;
}

int db_is_result_selected(db_query_t *q, int index) {
    db_ref_t r;
    bool folder;
    int chunk, pos;
    mem_ref_t entry;
    if (!_usable(q, "db_is_result_selected") || !_db_result_at(q, index, &r, &folder))
        return 0;
    if (_head_row(q, index, &entry))
        return _head_selected(q, entry);
    return _find(q, folder, r, &chunk, &pos) != 0;
}

int db_select_result(db_query_t *q, int index) {
    db_ref_t r;
    bool folder;
    int chunk, pos;
    mem_ref_t entry;
    if (!_usable(q, "db_select_result") || !_db_result_at(q, index, &r, &folder) || !q->sorted)
        return 0;
    if (_head_row(q, index, &entry)) {
        if (_head_selected(q, entry))
            return 0;
        _head_set(q, index, true);
        return 1;
    }
    if (_find(q, folder, r, &chunk, &pos))
        return 0;
    mem_array_insert_at(_selection(q, folder), chunk, pos, r);
    _step_total(q, folder, r, true);
    return 1;
}

int db_deselect_result(db_query_t *q, int index) {
    db_ref_t r;
    bool folder;
    int chunk, pos;
    mem_ref_t entry;
    if (!_usable(q, "db_deselect_result") || !_db_result_at(q, index, &r, &folder))
        return 0;
    if (_head_row(q, index, &entry)) {
        if (!_head_selected(q, entry))
            return 0;
        _head_set(q, index, false);
        return 1;
    }
    if (!_find(q, folder, r, &chunk, &pos))
        return 0;
    mem_array_remove_at(_selection(q, folder), chunk, pos);
    _step_total(q, folder, r, false);
    return 1;
}

int db_invert_result_selection(db_query_t *q, int index) {
    if (db_deselect_result(q, index))
        return 1;
    return db_select_result(q, index);
}

// One merge walk over a result array and its selection: keep decides for each result whether it is
// selected afterwards, from whether it is now and its result index.
template <typename F>
static void _rebuild(const mem_array_t *res, mem_array_t *sel, int32_t first_index, F keep) {
    mem_ref_t *out = (mem_ref_t *) mem_alloc((res->count ? res->count : 1) * sizeof(mem_ref_t));
    uint32_t n = 0;
    int sc = 0, sp = -1;
    mem_ref_t next_selected = mem_array_next(sel, &sc, &sp);
    int32_t index = first_index;
    for (uint32_t c = 0; c < res->chunk_count; c++) {
        const mem_array_chunk_t *chunk = res->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++, index++) {
            bool selected = items[i] == next_selected;
            if (selected)
                next_selected = mem_array_next(sel, &sc, &sp);
            if (keep(selected, index))
                out[n++] = items[i];
        }
    }
    mem_array_kill(sel);
    memset(sel, 0, sizeof *sel);
    if (n)
        mem_array_from_flat(sel, out, n);
    mem_free(out);
}

// The result index where the head list (k 0), the folders (1) or the files (2) start.
static int32_t _start(db_query_t *q, int k) {
    int32_t head = (int32_t) q->head_results.count, folders = (int32_t) q->folder_results.count;
    int32_t files = (int32_t) q->file_results.count;
    if (q->folders_first)
        return k == 0 ? 0 : k == 1 ? head : head + folders;
    return k == 0 ? files + folders : k == 1 ? files : 0;
}

static void _range(db_query_t *q, int first, int count, int how) {
    int64_t last = (int64_t) first + count;
    mem_array_t *res[3] = {&q->head_results, &q->folder_results, &q->file_results};
    mem_array_t *sel[3] = {&q->head_selection, &q->folder_selection, &q->file_selection};
    // The head selection is rebuilt from the head list: its entries are of the list's kind from now on.
    if (q->head_selection_kind != q->head_list_kind) {
        mem_array_kill(sel[0]);
        memset(sel[0], 0, sizeof *sel[0]);
        q->head_selection_kind = q->head_list_kind;
    }
    for (int k = 0; k < 3; k++) {
        _rebuild(res[k], sel[k], _start(q, k), [&](bool selected, int32_t index) {
            bool in = index >= first && index < last;
            return how == 0 ? (selected || in) : how == 1 ? (selected && !in) : (selected != in);
        });
    }
    _db_update_selection_totals(q);
}

// One head row in or out of the head selection, by the same merge walk (head lists are short).
static void _head_set(db_query_t *q, int index, bool on) {
    if (on)
        _range(q, index, 1, 0);
    else
        _range(q, index, 1, 1);
}

void db_select_result_range(db_query_t *q, int first, int count) {
    if (_usable(q, "db_select_result_range") && count > 0)
        _range(q, first, count, 0);
}

void db_select_all(db_query_t *q) {
    if (_usable(q, "db_select_all"))
        _range(q, 0, INT32_MAX, 0);
}

void db_deselect_all(db_query_t *q) {
    if (_usable(q, "db_deselect_all"))
        _range(q, 0, INT32_MAX, 1);
}

void db_invert_all_selection(db_query_t *q) {
    if (_usable(q, "db_invert_all_selection"))
        _range(q, 0, INT32_MAX, 2);
}

uint64_t db_query_get_total_selection_size(db_query_t *q) {
    if (!_usable(q, "db_query_get_total_selection_size") || !q->total_selection_valid)
        return UINT64_MAX;
    return q->total_selection_size;
}

int db_is_root_selection(db_query_t *q, int n) {
    db_ref_t r;
    bool folder;
    if (!_usable(q, "db_is_root_selection") || !_selected_at(q, n, &r, &folder))
        return 0;
    return db_record_parent(r) == 0;
}

// ---- ghosts
// ------------------------------------------------------------------------------------------------

static int _ref_compare(mem_ref_t element, const void *key) {
    mem_ref_t k = *(const mem_ref_t *) key;
    return element < k ? -1 : element > k;
}

void db_ghost_selection(db_query_t *q) {
    if (!_usable(q, "db_ghost_selection"))
        return;
    uint32_t n = q->folder_selection.count + q->file_selection.count;
    mem_ref_t *items = (mem_ref_t *) mem_alloc((n ? n : 1) * sizeof(mem_ref_t));
    uint32_t at = 0;
    const mem_array_t *both[2] = {&q->folder_selection, &q->file_selection};
    for (const mem_array_t *sel : both) {
        int c = 0, p = -1;
        for (mem_ref_t r = mem_array_next(sel, &c, &p); r; r = mem_array_next(sel, &c, &p))
            items[at++] = r;
    }
    os_qsort(items, n, [](uint32_t a, uint32_t b) { return a < b ? -1 : (int) (a > b); });
    mem_array_kill(&q->ghosts);
    memset(&q->ghosts, 0, sizeof q->ghosts);
    if (n)
        mem_array_from_flat(&q->ghosts, items, n);
    mem_free(items);
}

int db_is_ghost_result(db_query_t *q, int index) {
    db_ref_t r;
    bool folder;
    if (!_usable(q, "db_is_ghost_result") || !q->ghosts.count || !_db_result_at(q, index, &r, &folder))
        return 0;
    return mem_array_find(&q->ghosts, _ref_compare, &r) != 0;
}

void db_clear_ghosts(db_query_t *q) {
    if (!_usable(q, "db_clear_ghosts"))
        return;
    mem_array_kill(&q->ghosts);
    memset(&q->ghosts, 0, sizeof q->ghosts);
}
