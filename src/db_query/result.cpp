// Result access: a result index to its record and back, and the getters the list asks for rows. A list
// reads its rows in sequence, so the last position is remembered and the next row is one step of a chunk
// cursor; anything else is a binary search over the chunks.
#include <cstring>

#include "db_query/exec_internal.h"
#include "mem/mem.h"

bool db_query_index_ready(const db_t *db);

// The three arrays in result order: head, folders, files with folders_first; files, folders, head without.
static void _layout(db_query_t *q, mem_array_t *order[3], int kinds[3]) {
    if (q->folders_first) {
        order[0] = &q->head_results, order[1] = &q->folder_results, order[2] = &q->file_results;
        kinds[0] = 3, kinds[1] = 1, kinds[2] = 2;
    } else {
        order[0] = &q->file_results, order[1] = &q->folder_results, order[2] = &q->head_results;
        kinds[0] = 2, kinds[1] = 1, kinds[2] = 3;
    }
}

bool _db_result_at(db_query_t *q, int index, db_ref_t *record, bool *is_folder) {
    if (index < 0)
        return false;
    if (q->cache_kind && index == q->cache_index) {
        *record = q->cache_record;
        *is_folder = q->cache_kind == 1;
        return true;
    }
    mem_array_t *order[3];
    int kinds[3];
    _layout(q, order, kinds);
    int32_t first = 0;
    for (int k = 0; k < 3; k++) {
        mem_array_t *a = order[k];
        if (index >= first + (int32_t) a->count) {
            first += (int32_t) a->count;
            continue;
        }
        int chunk, pos;
        if (q->cache_kind == kinds[k] && index == q->cache_index + 1 && q->cache_first == first) {
            chunk = q->cache_chunk, pos = q->cache_pos;
            mem_array_next(a, &chunk, &pos);
        } else {
            mem_array_locate(a, (uint32_t) (index - first), &chunk, &pos);
        }
        mem_ref_t r = mem_array_chunk_items(a->table[chunk])[pos];
        q->cache_kind = kinds[k], q->cache_index = index, q->cache_record = r;
        q->cache_chunk = chunk, q->cache_pos = pos, q->cache_first = first;
        *record = r;
        // Head entries are not yet kept: the head list stays empty until run history exists.
        *is_folder = kinds[k] == 1;
        return true;
    }
    return false;
}

struct index_key_t {
    db_query_t *q;
    bool folder;
    db_ref_t record;
};

static int _index_key_compare(mem_ref_t element, const void *key) {
    const index_key_t *k = (const index_key_t *) key;
    return db_query_result_compare(k->q, k->folder, element, k->record);
}

int _db_result_index_of(db_query_t *q, db_ref_t record, bool is_folder) {
    mem_array_t *order[3];
    int kinds[3];
    _layout(q, order, kinds);
    int32_t first = 0;
    for (int k = 0; k < 3; k++) {
        if (kinds[k] != (is_folder ? 1 : 2)) {
            first += (int32_t) order[k]->count;
            continue;
        }
        const mem_array_t *a = order[k];
        if (q->sorted) {
            index_key_t key = {q, is_folder, record};
            int chunk, pos;
            if (!mem_array_find_pos(a, _index_key_compare, &key, &chunk, &pos))
                return -1;
            return first + (int32_t) (a->table[chunk]->base + (uint32_t) pos);
        }
        // A cancelled sort leaves no order that a compare could follow: walk.
        int32_t at = first;
        for (uint32_t c = 0; c < a->chunk_count; c++) {
            const mem_array_chunk_t *chunk = a->table[c];
            const mem_ref_t *items = mem_array_chunk_items(chunk);
            for (uint32_t i = 0; i < chunk->n; i++, at++)
                if (items[i] == record)
                    return at;
        }
        return -1;
    }
    return -1;
}

// Every getter: nothing from an index that isn't ready, and it waits for the query thread first.
static bool _usable(db_query_t *q, const char *who) {
    if (!db_query_index_ready(q->db))
        return false;
    db_wait(q->db, who);
    return true;
}

int db_get_result_count(db_query_t *q) {
    if (!_usable(q, "db_get_result_count"))
        return 0;
    return (int) (q->head_results.count + q->folder_results.count + q->file_results.count);
}

int db_get_folder_result_count(db_query_t *q) {
    if (!_usable(q, "db_get_folder_result_count"))
        return 0;
    return (int) q->folder_results.count;
}

int db_get_file_result_count(db_query_t *q) {
    if (!_usable(q, "db_get_file_result_count"))
        return 0;
    return (int) q->file_results.count;
}

static bool _row(db_query_t *q, int index, const char *who, str_t *out, db_ref_t *r, bool *folder) {
    if (out)
        str_set(out, "");
    return _usable(q, who) && _db_result_at(q, index, r, folder);
}

int db_get_result_name(db_query_t *q, int index, str_t *out) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, "db_get_result_name", out, &r, &folder))
        return 0;
    uint32_t len;
    const char *name = db_record_name(r, &len);
    str_set_n(out, name, (int) len);
    return 1;
}

int db_get_result_path(db_query_t *q, int index, str_t *out) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, "db_get_result_path", out, &r, &folder))
        return 0;
    db_ref_t parent = db_record_parent(r);
    if (parent)
        db_get_full_path(out, parent);
    return 1;
}

int db_get_result_full_path_name(db_query_t *q, int index, str_t *out) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, "db_get_result_full_path_name", out, &r, &folder))
        return 0;
    db_get_full_path(out, r);
    return 1;
}

int db_is_folder_result(db_query_t *q, int index) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, "db_is_folder_result", nullptr, &r, &folder))
        return 1;
    return folder ? 1 : 0;
}

int db_is_root_result(db_query_t *q, int index) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, "db_is_root_result", nullptr, &r, &folder))
        return 0;
    return db_record_parent(r) == 0;
}

uint32_t db_get_result_file_attributes(db_query_t *q, int index) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, "db_get_result_file_attributes", nullptr, &r, &folder))
        return 0;
    return (uint32_t) (folder ? db_folder_get(q->db, r, DB_FIELD_ATTRIBUTES)
                              : db_file_get(q->db, r, DB_FIELD_ATTRIBUTES));
}

uint64_t db_query_get_total_result_size(db_query_t *q) {
    if (!_usable(q, "db_query_get_total_result_size") || !q->total_result_valid)
        return UINT64_MAX;
    return q->total_result_size;
}
