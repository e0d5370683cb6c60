// Result access: a result index to its record and back, and the getters the list asks for rows. A list
// reads its rows in sequence, so the last position is remembered and the next row is one step of a chunk
// cursor; anything else is a binary search over the chunks.
#include <cstring>

#include "db_query/exec_internal.h"
#include "mem/mem.h"
#include "text/text.h"

bool db_query_index_ready(const db_t *db);

// The three arrays in result order: head, folders, files with folders_first; files, folders, head without.
// Kinds as cache_kind has them: 1 folder, 2 file, 3 run history entry, 4 recent change entry.
static void _layout(db_query_t *q, mem_array_t *order[3], int kinds[3]) {
    int head = q->head_list_kind == DB_HEAD_RECENT_CHANGES ? 4 : 3;
    if (q->folders_first) {
        order[0] = &q->head_results, order[1] = &q->folder_results, order[2] = &q->file_results;
        kinds[0] = head, kinds[1] = 1, kinds[2] = 2;
    } else {
        order[0] = &q->file_results, order[1] = &q->folder_results, order[2] = &q->head_results;
        kinds[0] = 2, kinds[1] = 1, kinds[2] = head;
    }
}

// An array element of a kind to its record: head entries hold theirs.
static void _resolve(const db_query_t *q, int kind, mem_ref_t element, db_ref_t *record, bool *is_folder) {
    if (kind >= 3) {
        *record = db_head_record(q, element, is_folder);
        return;
    }
    *record = element;
    *is_folder = kind == 1;
}

bool _db_result_at(db_query_t *q, int index, db_ref_t *record, bool *is_folder) {
    if (index < 0)
        return false;
    if (q->cache_kind && index == q->cache_index) {
        _resolve(q, q->cache_kind, q->cache_record, record, is_folder);
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
        _resolve(q, kinds[k], r, record, is_folder);
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
    // A record with a history entry stands in the head list, which is short: walked.
    int32_t first = 0;
    for (int k = 0; k < 3; k++) {
        for (uint32_t i = 0; kinds[k] >= 3 && i < order[k]->count; i++) {
            bool f;
            if (db_head_record(q, mem_array_get(order[k], i), &f) == record && f == is_folder)
                return first + (int32_t) i;
        }
        first += (int32_t) order[k]->count;
    }
    first = 0;
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
            return first + (int32_t) (a->bases[chunk] + (uint32_t) pos);
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

// ---- more of a row ---------------------------------------------------------------------------------------

int db_get_result_extension(db_query_t *q, int index, str_t *out) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, "db_get_result_extension", out, &r, &folder))
        return 0;
    if (!folder) {
        uint32_t len, ext_len;
        const char *name = db_record_name(r, &len);
        const char *ext = db_name_extension(name, len, &ext_len);
        str_set_n(out, ext, (int) ext_len);
    }
    return 1;
}

int db_get_result_file_list_filename(db_query_t *q, int index, str_t *out) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, "db_get_result_file_list_filename", out, &r, &folder))
        return 0;
    const db_fs_t *fs = db_record_fs(q->db, r);
    if (fs && fs->type == DB_FS_FILE_LIST && fs->filename)
        str_set(out, fs->filename);
    return 1;
}

// A history value of a row through the provider: 0 when the row or its entry doesn't exist.
static uint64_t _history(db_query_t *q, int index, const char *who, db_query_value_t what) {
    db_ref_t r;
    bool folder;
    if (!_row(q, index, who, nullptr, &r, &folder))
        return 0;
    uint64_t v = db_query_provider.value(q, r, folder, what);
    return v == DB_UNKNOWN ? 0 : v;
}

uint32_t db_get_result_run_count(db_query_t *q, int index) {
    return (uint32_t) _history(q, index, "db_get_result_run_count", DB_QV_RUN_COUNT);
}

uint64_t db_get_result_date_run(db_query_t *q, int index) {
    return _history(q, index, "db_get_result_date_run", DB_QV_DATE_RUN);
}

uint64_t db_get_result_date_recently_changed(db_query_t *q, int index) {
    return _history(q, index, "db_get_result_date_recently_changed", DB_QV_DATE_RECENTLY_CHANGED);
}

// ---- a record by its path ---------------------------------------------------------------------------------

struct name_key_t {
    const char *name;
    size_t len;
};

// The first level of name order alone, never equal: the key goes in front of every name that folds as it
// does, so that a search lands on the first of them.
static int _name_first_level(mem_ref_t element, const void *key) {
    const name_key_t *k = (const name_key_t *) key;
    uint32_t len;
    const char *name = db_record_name(element, &len);
    int d = utf8_compare_lower_base(name, len, k->name, k->len);
    return d ? d : 1;
}

// The record of the kind whose full path is path: the names that fold like the last component stand
// together in name order, and each is checked by its whole path, exactly, else without regard to case.
static db_ref_t _record_by_path(const mem_array_t *a, const char *path, size_t plen) {
    size_t cut = plen;
    while (cut && path[cut - 1] != OS_SEP)
        cut--;
    name_key_t key = {path + cut, plen - cut};
    int chunk, pos;
    mem_array_find_near(a, &chunk, &pos, _name_first_level, &key);
    str_t full;
    str_init(&full);
    db_ref_t exact = 0, folded = 0;
    for (mem_ref_t r = a->count ? mem_array_next(a, &chunk, &pos) : 0; r && !exact;
         r = mem_array_next(a, &chunk, &pos)) {
        uint32_t len;
        const char *name = db_record_name(r, &len);
        if (utf8_compare_lower_base(name, len, key.name, key.len))
            break;
        db_get_full_path(&full, r);
        if ((size_t) full.len == plen && !memcmp(full.ptr, path, plen))
            exact = r;
        else if (!folded && !utf8_compare_lower(full.ptr, (size_t) full.len, path, plen))
            folded = r;
    }
    str_kill(&full);
    return exact ? exact : folded;
}

int db_get_result_index_from_filename(db_query_t *q, const char *full_path) {
    if (!full_path || !_usable(q, "db_get_result_index_from_filename"))
        return -1;
    size_t plen = strlen(full_path);
    for (int folder = 1; folder >= 0; folder--) {
        db_ref_t r = _record_by_path(folder ? &q->db->folders : &q->db->files, full_path, plen);
        if (!r)
            continue;
        int at = _db_result_index_of(q, r, folder);
        db_ref_t got;
        bool f;
        if (at >= 0 && _db_result_at(q, at, &got, &f) && got == r)
            return at;
    }
    return -1;
}

// ---- type-ahead -----------------------------------------------------------------------------------------

struct nearest_key_t {
    const char *text;
    size_t len;
};

static int _not_below(mem_ref_t element, const void *key) {
    const nearest_key_t *k = (const nearest_key_t *) key;
    uint32_t len;
    const char *name = db_record_name(element, &len);
    int d = utf8_compare_lower_base(name, len, k->text, k->len);
    return d ? d : 1;
}

// Name order ascending: in each array the first name not below text is one binary search away; a row
// at or after from in that array is the later of the two.
static int _nearest_sorted(db_query_t *q, const char *text, size_t len, int from, int to) {
    mem_array_t *order[3];
    int kinds[3];
    _layout(q, order, kinds);
    nearest_key_t key = {text, len};
    int first = 0;
    for (int k = 0; k < 3; k++) {
        const mem_array_t *a = order[k];
        int end = first + (int) a->count;
        if (kinds[k] < 3 && a->count && end > from && first < to) {
            int chunk, pos;
            mem_array_find_near(a, &chunk, &pos, _not_below, &key);
            int lb = (int) a->count;
            if (mem_array_next(a, &chunk, &pos))
                lb = (int) (a->bases[chunk] + (uint32_t) pos);
            int at = first + lb;
            if (at < from)
                at = from;
            if (at < end && at < to)
                return at;
        }
        first = end;
    }
    return -1;
}

// Any other order: the first row from from on whose name begins with text, without regard to case or
// marks.
static int _nearest_linear(db_query_t *q, const char *text, size_t len, int from, int to) {
    str_t folded;
    str_init(&folded);
    term_fold(&folded, text, len, TEXT_FOLD_LOWER_BASE);
    text_matcher_t starts = text_matcher(TEXT_MATCH_STARTWITH, TEXT_FOLD_LOWER_BASE);
    int found = -1;
    for (int i = from; i < to && found < 0; i++) {
        db_ref_t r;
        bool folder;
        if (!_db_result_at(q, i, &r, &folder))
            break;
        uint32_t nlen;
        const char *name = db_record_name(r, &nlen);
        if (starts(name, nlen, folded.ptr, (size_t) folded.len))
            found = i;
    }
    str_kill(&folded);
    return found;
}

int db_find_nearest_string_match_result(db_query_t *q, const char *text, int length, int start) {
    if (!text || length < 0 || !_usable(q, "db_find_nearest_string_match_result"))
        return -1;
    int count = (int) (q->head_results.count + q->folder_results.count + q->file_results.count);
    if (start < 0 || start >= count)
        start = 0;
    bool by_name = q->sorted && q->current_sort == DB_SORT_NAME;
    auto find = [&](int from, int to) {
        return by_name ? _nearest_sorted(q, text, (size_t) length, from, to)
                       : _nearest_linear(q, text, (size_t) length, from, to);
    };
    int at = find(start, count);
    // Past the last name: once more from the top.
    return at >= 0 ? at : find(0, start);
}
