// Result sort. Avoided where possible: the scan already walked the array of the requested column, a
// change of direction is an in-place reversal, and a column with an index array is sorted by one walk
// of that array that picks out the marked results without a single compare. Only the rest is compared,
// by the platform's stable multi-threaded merge sort.
#include <algorithm>
#include <cstring>

#include "db_query/exec_internal.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

// A parent reference that no record can have: the arena's last four bytes can't hold a record.
static const db_ref_t SENTINEL = 0xFFFFFFFFu;

int _db_flip_sort_type(int sort) {
    if (sort < 0 || sort > DB_SORT_MAX)
        debug_fatal(__FILE__, __LINE__, "_db_flip_sort_type", "bad flip sort %d", sort);
    return sort ^ 1;
}

mem_array_t *db_sort_array(db_t *db, int sort, bool folder) {
    uint32_t word = db->structure.word;
    switch (sort & ~1) {
    case DB_SORT_NAME:
        return folder ? &db->folders : &db->files;
    case DB_SORT_PATH:
        return (word & DB_STRUCTURE_FAST_PATH) ? db_array(db, DB_ORDER_PATH, folder) : nullptr;
    case DB_SORT_SIZE:
        if (!(word & DB_STRUCTURE_FAST_SIZE))
            return nullptr;
        // Without folder sizes every folder's size is unknown: name order is their size order.
        if (folder && !(word & DB_STRUCTURE_FOLDER_SIZE))
            return &db->folders;
        return db_array(db, DB_ORDER_SIZE, folder);
    case DB_SORT_EXTENSION:
        if (!(word & DB_STRUCTURE_FAST_EXTENSION))
            return nullptr;
        return folder ? &db->folders : &db->files_by_extension;
    case DB_SORT_DATE_CREATED:
        return (word & DB_STRUCTURE_FAST_DATE_CREATED) ? db_array(db, DB_ORDER_DATE_CREATED, folder)
                                                       : nullptr;
    case DB_SORT_DATE_MODIFIED:
        return (word & DB_STRUCTURE_FAST_DATE_MODIFIED) ? db_array(db, DB_ORDER_DATE_MODIFIED, folder)
                                                        : nullptr;
    case DB_SORT_DATE_ACCESSED:
        return (word & DB_STRUCTURE_FAST_DATE_ACCESSED) ? db_array(db, DB_ORDER_DATE_ACCESSED, folder)
                                                        : nullptr;
    case DB_SORT_ATTRIBUTES:
        return (word & DB_STRUCTURE_FAST_ATTRIBUTES) ? db_array(db, DB_ORDER_ATTRIBUTES, folder) : nullptr;
    default:
        return nullptr;
    }
}

// ---- comparators ---------------------------------------------------------------------------------------

struct sort_ctx_t {
    db_query_t *q;
    int sort; // ascending form
    bool folder;
};

static uint64_t _value(const sort_ctx_t *c, db_ref_t r, db_field_t field) {
    const db_structure_t *st = &c->q->db->structure;
    if ((c->folder ? st->folder_offset : st->file_offset)[field] >= 0)
        return c->folder ? db_folder_get(c->q->db, r, field) : db_file_get(c->q->db, r, field);
    static const db_query_value_t map[DB_FIELD_COUNT] = {DB_QV_SIZE, DB_QV_DATE_CREATED, DB_QV_DATE_MODIFIED,
                                                         DB_QV_DATE_ACCESSED, DB_QV_ATTRIBUTES};
    // A folder's size is never read from disk.
    if (c->folder && field == DB_FIELD_SIZE)
        return DB_UNKNOWN;
    return db_query_provider.value(c->q, r, c->folder, map[field]);
}

// Unknown first, then by value as unsigned 64 bits.
static int _unknown_first(uint64_t a, uint64_t b) {
    if (a == b)
        return 0;
    if (a == DB_UNKNOWN)
        return -1;
    if (b == DB_UNKNOWN)
        return 1;
    return a < b ? -1 : 1;
}

static void _list_name(const db_query_t *q, db_ref_t r, const char **name) {
    db_fs_t *fs = db_record_fs(q->db, r);
    *name = nullptr;
    if (!fs || fs->type != DB_FS_FILE_LIST || !fs->filename)
        return;
    *name = fs->filename;
    for (const char *p = fs->filename; *p; p++)
        if (*p == '\\' || *p == '/')
            *name = p + 1;
}

// The key of the ascending sort, 0 when only the tie to name order can decide.
static int _key_compare(const sort_ctx_t *c, db_ref_t a, db_ref_t b) {
    switch (c->sort) {
    case DB_SORT_SIZE:
        return _unknown_first(_value(c, a, DB_FIELD_SIZE), _value(c, b, DB_FIELD_SIZE));
    case DB_SORT_DATE_CREATED:
        return _unknown_first(_value(c, a, DB_FIELD_DATE_CREATED), _value(c, b, DB_FIELD_DATE_CREATED));
    case DB_SORT_DATE_MODIFIED:
        return _unknown_first(_value(c, a, DB_FIELD_DATE_MODIFIED), _value(c, b, DB_FIELD_DATE_MODIFIED));
    case DB_SORT_DATE_ACCESSED:
        return _unknown_first(_value(c, a, DB_FIELD_DATE_ACCESSED), _value(c, b, DB_FIELD_DATE_ACCESSED));
    case DB_SORT_ATTRIBUTES: {
        char la[16], lb[16];
        int na = db_attribute_letters((uint32_t) _value(c, a, DB_FIELD_ATTRIBUTES), la);
        int nb = db_attribute_letters((uint32_t) _value(c, b, DB_FIELD_ATTRIBUTES), lb);
        int d = memcmp(la, lb, (size_t) (na < nb ? na : nb));
        return d ? d : na - nb;
    }
    case DB_SORT_EXTENSION:
        return c->folder ? 0 : db_extension_level_compare(a, b);
    case DB_SORT_TYPE: {
        if (c->folder)
            return 0;
        str_t ta, tb;
        str_init(&ta), str_init(&tb);
        uint32_t la, lb;
        const char *na = db_record_name(a, &la), *nb = db_record_name(b, &lb);
        db_type_text_fixed(na, la, false, &ta);
        db_type_text_fixed(nb, lb, false, &tb);
        int d = utf8_strcmp_lower(ta.ptr, tb.ptr);
        str_kill(&ta), str_kill(&tb);
        return d;
    }
    case DB_SORT_FILE_LIST_FILENAME: {
        const char *x, *y;
        _list_name(c->q, a, &x);
        _list_name(c->q, b, &y);
        if (!x || !y)
            return (x != nullptr) - (y != nullptr);
        return utf8_strcmp_lower(x, y);
    }
    default:
        return 0;
    }
}

static int _ascending_compare(void *ctx, uint32_t a, uint32_t b) {
    const sort_ctx_t *c = (const sort_ctx_t *) ctx;
    switch (c->sort) {
    case DB_SORT_PATH:
        return db_path_name_compare(a, b);
    case DB_SORT_RUN_COUNT:
    case DB_SORT_DATE_RECENTLY_CHANGED:
    case DB_SORT_DATE_RUN:
        // Rows without a history entry: the ascending list walks them in descending name order.
        return db_name_compare(b, a);
    default: {
        int d = _key_compare(c, a, b);
        return d ? d : db_name_compare(a, b);
    }
    }
}

// ---- the steps ------------------------------------------------------------------------------------------

static void _flatten(const mem_array_t *a, mem_ref_t *out) {
    uint32_t at = 0;
    for (uint32_t c = 0; c < a->chunk_count; c++) {
        const mem_array_chunk_t *chunk = a->table[c];
        memcpy(out + at, mem_array_chunk_items(chunk), chunk->n * sizeof(mem_ref_t));
        at += chunk->n;
    }
}

static void _replace(mem_array_t *a, const mem_ref_t *items, uint32_t n) {
    mem_array_kill(a);
    memset(a, 0, sizeof *a);
    if (n)
        mem_array_from_flat(a, items, n);
}

// Folders lead an ascending list; but a history column's ascending list is its descending one reversed
// (the most recent or most run last), so there folders lead the descending form.
static bool _folders_first(int sort) {
    return db_head_kind_of_sort(sort) ? (sort & 1) != 0 : (sort & 1) == 0;
}

static void _finish(db_query_t *q, int sort) {
    q->current_sort = sort;
    q->folders_first = _folders_first(sort);
    q->sorted = true;
    q->cache_kind = 0;
}

// Ends a sort that built each kind's new order in flat: the orders replace the results, or on a cancel
// the arrays keep their content and their last order, and sorted 0 says it isn't the one asked for.
// Frees flat.
static void _publish(db_query_t *q, int sort, mem_ref_t *flat[2], bool canceled, uint32_t start) {
    mem_array_t *results[2] = {&q->folder_results, &q->file_results};
    if (canceled) {
        q->sorted = false;
    } else {
        for (int k = 0; k < 2; k++)
            _replace(results[k], flat[k], results[k]->count);
        debug_printf("SET SORT 4 %d\n", sort);
        _finish(q, sort);
    }
    mem_free(flat[0]), mem_free(flat[1]);
    debug_printf("finished sort, time taken %f seconds\n", (int) (debug_now_us() - start));
}

// Writes the results into out in the order of the index array a (walked backwards when descending): each
// result's parent is swapped for the sentinel, the array is walked picking out the records that hold
// it, and the parents come back.
static void _pick_marked_items(const mem_ref_t *items, uint32_t n, const mem_array_t *a, bool descending,
                               mem_ref_t *out) {
    mem_ref_t *parents = (mem_ref_t *) mem_alloc((n ? n : 1) * sizeof(mem_ref_t));
    for (uint32_t i = 0; i < n; i++) {
        uint32_t *field = (uint32_t *) db_ptr(items[i]);
        parents[i] = *field;
        *field = SENTINEL;
    }
    uint32_t at = 0;
    for (uint32_t c = 0; c < a->chunk_count; c++) {
        uint32_t cc = descending ? a->chunk_count - 1 - c : c;
        const mem_array_chunk_t *chunk = a->table[cc];
        const mem_ref_t *src = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            mem_ref_t r = src[descending ? chunk->n - 1 - i : i];
            if (db_record_parent(r) == SENTINEL)
                out[at++] = r;
        }
    }
    for (uint32_t i = 0; i < n; i++)
        *(uint32_t *) db_ptr(items[i]) = parents[i];
    if (at != n)
        debug_fatal(__FILE__, __LINE__, "_db_sort_by_index", "results not in the index: %d of %d", at, n);
    mem_free(parents);
}

static void _pick_marked(const mem_array_t *results, const mem_array_t *a, bool descending, mem_ref_t *out) {
    uint32_t n = results->count;
    mem_ref_t *items = (mem_ref_t *) mem_alloc((n ? n : 1) * sizeof(mem_ref_t));
    _flatten(results, items);
    _pick_marked_items(items, n, a, descending, out);
    mem_free(items);
}

// Sorts by one walk of the index's array: each result's parent is swapped for the sentinel, the array is
// walked in the sort's direction picking out the records that hold it, and the parents come back.
static bool _db_sort_by_index(db_query_t *q, int sort) {
    db_t *db = q->db;
    mem_array_t *arrays[2] = {db_sort_array(db, sort, true), db_sort_array(db, sort, false)};
    if (!arrays[0] || !arrays[1] || (sort & ~1) == DB_SORT_NAME)
        return false;
    bool descending = sort & 1;
    mem_array_t *results[2] = {&q->folder_results, &q->file_results};
    if (q->folder_results.count + q->file_results.count == db->folders.count + db->files.count) {
        debug_printf("sort all results\n");
        for (int k = 0; k < 2; k++) {
            mem_array_kill(results[k]);
            memset(results[k], 0, sizeof(mem_array_t));
            if (descending)
                mem_array_copy_reversed(results[k], arrays[k]);
            else
                mem_array_copy(results[k], arrays[k]);
        }
    } else {
        for (int k = 0; k < 2; k++) {
            uint32_t n = results[k]->count;
            if (!n)
                continue;
            mem_ref_t *out = (mem_ref_t *) mem_alloc(n * sizeof(mem_ref_t));
            _pick_marked(results[k], arrays[k], descending, out);
            _replace(results[k], out, n);
            mem_free(out);
        }
        debug_printf("SET SORT 2 %d\n", sort);
    }
    _finish(q, sort);
    return true;
}

// The comparison sort: each array flattened, sorted ascending and reversed for a descending sort (the
// descending order is the ascending one with the arguments swapped, a total order either way).
static void _db_sort_compare(db_query_t *q, int sort) {
    uint32_t start = debug_now_us();
    mem_array_t *results[2] = {&q->folder_results, &q->file_results};
    mem_ref_t *flat[2] = {};
    for (int k = 0; k < 2 && !q->cancel_sort; k++) {
        uint32_t n = results[k]->count;
        flat[k] = (mem_ref_t *) mem_alloc((n ? n : 1) * sizeof(mem_ref_t));
        _flatten(results[k], flat[k]);
        sort_ctx_t c = {q, sort & ~1, k == 0};
        os_qsort_ex(flat[k], n, &c, _ascending_compare);
        if (sort & 1)
            std::reverse(flat[k], flat[k] + n);
    }
    _publish(q, sort, flat, q->cancel_sort, start);
}

// ---- the keyed sort ----------------------------------------------------------------------------------
// Columns without an index array: each result gets one 64-bit key whose unsigned order is the column's
// order, read once, and the results, first put in name order by a walk of the name array, are sorted
// stably by the key alone. The comparator then touches only the keys, and equal keys keep name order.

// Distinct byte strings (extensions, attribute values), numbered in order of first appearance.
struct sort_distinct_t {
    uint32_t *slots; // id + 1, 0 empty
    uint32_t mask;
    const char **ptr;
    uint32_t *len;
    uint32_t count, cap;
};

static uint32_t _distinct_hash(const char *p, uint32_t n) {
    uint32_t h = 2166136261u;
    for (uint32_t i = 0; i < n; i++)
        h = (h ^ (uint8_t) p[i]) * 16777619u;
    return h;
}

static void _distinct_init(sort_distinct_t *d) {
    memset(d, 0, sizeof *d);
    d->mask = 1023;
    d->slots = (uint32_t *) mem_alloc((d->mask + 1) * sizeof(uint32_t));
    memset(d->slots, 0, (d->mask + 1) * sizeof(uint32_t));
}

static void _distinct_kill(sort_distinct_t *d) {
    mem_free(d->slots), mem_free(d->ptr), mem_free(d->len);
}

static void _distinct_grow(sort_distinct_t *d) {
    uint32_t mask = d->mask * 2 + 1;
    uint32_t *slots = (uint32_t *) mem_alloc((mask + 1) * sizeof(uint32_t));
    memset(slots, 0, (mask + 1) * sizeof(uint32_t));
    for (uint32_t id = 0; id < d->count; id++) {
        uint32_t h = _distinct_hash(d->ptr[id], d->len[id]) & mask;
        while (slots[h])
            h = (h + 1) & mask;
        slots[h] = id + 1;
    }
    mem_free(d->slots);
    d->slots = slots, d->mask = mask;
}

// The id of the bytes; the bytes must outlive the table (they are not copied).
static uint32_t _distinct_id(sort_distinct_t *d, const char *p, uint32_t n) {
    uint32_t h = _distinct_hash(p, n) & d->mask;
    for (; d->slots[h]; h = (h + 1) & d->mask) {
        uint32_t id = d->slots[h] - 1;
        if (d->len[id] == n && !memcmp(d->ptr[id], p, n))
            return id;
    }
    if (d->count == d->cap) {
        d->cap = d->cap ? d->cap * 2 : 256;
        d->ptr = (const char **) mem_realloc(d->ptr, d->cap * sizeof(char *));
        d->len = (uint32_t *) mem_realloc(d->len, d->cap * sizeof(uint32_t));
    }
    d->ptr[d->count] = p, d->len[d->count] = n;
    d->slots[h] = ++d->count;
    if (d->count * 2 > d->mask)
        _distinct_grow(d);
    return d->count - 1;
}

struct sort_rank_ctx_t {
    const sort_distinct_t *d;
    const str_t *texts; // type texts by id, or null
    int sort;
};

static int _distinct_compare(void *ctx, uint32_t a, uint32_t b) {
    const sort_rank_ctx_t *c = (const sort_rank_ctx_t *) ctx;
    const sort_distinct_t *d = c->d;
    switch (c->sort) {
    case DB_SORT_EXTENSION:
        return utf8_compare_lower_base(d->ptr[a], d->len[a], d->ptr[b], d->len[b]);
    case DB_SORT_TYPE:
        return utf8_strcmp_lower(c->texts[a].ptr, c->texts[b].ptr);
    default: {
        char la[16], lb[16];
        uint32_t va, vb;
        memcpy(&va, d->ptr[a], 4), memcpy(&vb, d->ptr[b], 4);
        int na = db_attribute_letters(va, la), nb = db_attribute_letters(vb, lb);
        int x = memcmp(la, lb, (size_t) (na < nb ? na : nb));
        return x ? x : na - nb;
    }
    }
}

// Replaces each key (a distinct id) by the rank of its string: ids that compare equal share a rank.
static void _distinct_rank(sort_distinct_t *d, int sort, const char *const *names, const uint32_t *name_lens,
                           uint64_t *keys, uint32_t n) {
    str_t *texts = nullptr;
    if (sort == DB_SORT_TYPE) {
        texts = (str_t *) mem_alloc((d->count ? d->count : 1) * sizeof(str_t));
        for (uint32_t id = 0; id < d->count; id++) {
            str_init(&texts[id]);
            // The type depends on the extension alone: any name that has it gives the text.
            db_type_text_fixed(names[id], name_lens[id], false, &texts[id]);
        }
    }
    uint32_t *order = (uint32_t *) mem_alloc((d->count ? d->count : 1) * sizeof(uint32_t));
    uint32_t *rank = (uint32_t *) mem_alloc((d->count ? d->count : 1) * sizeof(uint32_t));
    for (uint32_t id = 0; id < d->count; id++)
        order[id] = id;
    sort_rank_ctx_t c = {d, texts, sort};
    os_merge_sort_ex(order, d->count, &c, _distinct_compare);
    uint32_t r = 0;
    for (uint32_t i = 0; i < d->count; i++) {
        if (i && _distinct_compare(&c, order[i - 1], order[i]))
            r++;
        rank[order[i]] = r;
    }
    for (uint32_t i = 0; i < n; i++)
        keys[i] = rank[keys[i]];
    if (texts) {
        for (uint32_t id = 0; id < d->count; id++)
            str_kill(&texts[id]);
        mem_free(texts);
    }
    mem_free(order), mem_free(rank);
}

static bool _keyed_sort_applies(int sort) {
    switch (sort & ~1) {
    case DB_SORT_SIZE:
    case DB_SORT_DATE_CREATED:
    case DB_SORT_DATE_MODIFIED:
    case DB_SORT_DATE_ACCESSED:
    case DB_SORT_ATTRIBUTES:
    case DB_SORT_EXTENSION:
    case DB_SORT_TYPE:
        return true;
    default:
        return false;
    }
}

static db_field_t _sort_field(int sort) {
    switch (sort & ~1) {
    case DB_SORT_SIZE:
        return DB_FIELD_SIZE;
    case DB_SORT_DATE_CREATED:
        return DB_FIELD_DATE_CREATED;
    case DB_SORT_DATE_MODIFIED:
        return DB_FIELD_DATE_MODIFIED;
    case DB_SORT_DATE_ACCESSED:
        return DB_FIELD_DATE_ACCESSED;
    default:
        return DB_FIELD_ATTRIBUTES;
    }
}

// The results of one kind in name order, into out (count items).
static void _name_order(db_query_t *q, bool folder, mem_ref_t *out) {
    mem_array_t *results = folder ? &q->folder_results : &q->file_results;
    const mem_array_t *names = folder ? &q->db->folders : &q->db->files;
    if ((q->sorted && q->current_sort == DB_SORT_NAME) || results->count == names->count)
        return _flatten(results->count == names->count ? names : results, out);
    if (q->sorted && q->current_sort == DB_SORT_NAME + 1) {
        _flatten(results, out);
        std::reverse(out, out + results->count);
        return;
    }
    _pick_marked(results, names, false, out);
}

// ---- values read from disk
// ---------------------------------------------------------------------------------- A column that the index
// doesn't store is read through the provider, which stands for the disk: the records are read in path order,
// so that a disk is read folder by folder rather than in name order across the whole tree.

// True when field of the kind comes from the provider (a folder's size never does: it is unknown).
static bool _read_from_disk(const db_query_t *q, bool folder, db_field_t field) {
    const db_structure_t *st = &q->db->structure;
    if ((folder ? st->folder_offset : st->file_offset)[field] >= 0)
        return false;
    return !(folder && field == DB_FIELD_SIZE);
}

static int _path_compare(void *, uint32_t a, uint32_t b) {
    return db_path_name_compare(a, b);
}

static int _ref_order(void *ctx, uint32_t a, uint32_t b) {
    const mem_ref_t *refs = (const mem_ref_t *) ctx;
    return refs[a] < refs[b] ? -1 : refs[a] > refs[b];
}

// The keys (value + 1, so that unknown is lowest) of items, read in path order; false on a cancel,
// tested per record.
static bool _read_in_path_order(db_query_t *q, bool folder, db_field_t field, const mem_ref_t *items,
                                uint64_t *keys, uint32_t n) {
    debug_printf("find uncached items...\n");
    mem_ref_t *by_path = (mem_ref_t *) mem_alloc((n ? n : 1) * sizeof(mem_ref_t));
    uint64_t *values = (uint64_t *) mem_alloc((n ? n : 1) * sizeof(uint64_t));
    uint32_t *order = (uint32_t *) mem_alloc((n ? n : 1) * sizeof(uint32_t));
    debug_printf("sorting by path...\n");
    const mem_array_t *pa =
        (q->db->structure.word & DB_STRUCTURE_FAST_PATH) ? db_array(q->db, DB_ORDER_PATH, folder) : nullptr;
    if (pa) {
        _pick_marked_items(items, n, pa, false, by_path);
    } else {
        memcpy(by_path, items, n * sizeof(mem_ref_t));
        os_qsort_ex(by_path, n, nullptr, _path_compare);
    }
    debug_printf("caching...\n");
    sort_ctx_t c = {q, DB_SORT_SIZE, folder};
    bool done = true;
    for (uint32_t i = 0; i < n && done; i++) {
        done = !q->cancel_sort;
        // A record of a file list has nothing on disk to read.
        const db_fs_t *fs = done ? db_record_fs(q->db, by_path[i]) : nullptr;
        if (done)
            values[i] = fs && fs->type == DB_FS_FILE_LIST ? DB_UNKNOWN : _value(&c, by_path[i], field);
    }
    if (done) {
        // Back to the items' order: the path-ordered records sorted by reference, searched for each item.
        for (uint32_t i = 0; i < n; i++)
            order[i] = i;
        os_qsort_ex(order, n, by_path, _ref_order);
        for (uint32_t i = 0; i < n; i++) {
            uint32_t lo = 0, hi = n;
            while (lo + 1 < hi) {
                uint32_t mid = (lo + hi) / 2;
                if (by_path[order[mid]] <= items[i])
                    lo = mid;
                else
                    hi = mid;
            }
            keys[i] = values[order[lo]] + 1;
        }
    }
    mem_free(by_path), mem_free(values), mem_free(order);
    return done;
}

// Keys of one kind's results (in name order in items); false when cancelled. Distinct strings are ranked
// so that the key's unsigned order is the column's order.
static bool _fill_keys(db_query_t *q, int sort, bool folder, const mem_ref_t *items, uint64_t *keys,
                       uint32_t n) {
    int key = sort & ~1;
    if (key == DB_SORT_EXTENSION || key == DB_SORT_TYPE || key == DB_SORT_ATTRIBUTES) {
        sort_distinct_t d;
        _distinct_init(&d);
        const char **names = nullptr;
        uint32_t *name_lens = nullptr, cap = 0;
        uint32_t *attrs = key == DB_SORT_ATTRIBUTES ? (uint32_t *) mem_alloc((n ? n : 1) * 4) : nullptr;
        sort_ctx_t c = {q, DB_SORT_ATTRIBUTES, folder};
        // Attributes from disk are read in path order first; keys holds them until they are ranked.
        bool from_disk = attrs && _read_from_disk(q, folder, DB_FIELD_ATTRIBUTES);
        if (from_disk)
            _read_in_path_order(q, folder, DB_FIELD_ATTRIBUTES, items, keys, n);
        for (uint32_t i = 0; i < n; i++) {
            if (q->cancel_sort)
                break;
            if (attrs) {
                attrs[i] = from_disk ? (uint32_t) (keys[i] - 1)
                                     : (uint32_t) _value(&c, items[i], DB_FIELD_ATTRIBUTES);
                keys[i] = _distinct_id(&d, (const char *) &attrs[i], 4);
                continue;
            }
            uint32_t nl, len, before = d.count;
            const char *name = db_record_name(items[i], &nl);
            const char *ext = db_name_extension(name, nl, &len);
            keys[i] = _distinct_id(&d, ext, len);
            if (d.count == before)
                continue;
            // The first name with each extension, for its type text.
            if (d.count > cap) {
                cap = d.cap;
                names = (const char **) mem_realloc(names, cap * sizeof(char *));
                name_lens = (uint32_t *) mem_realloc(name_lens, cap * sizeof(uint32_t));
            }
            names[d.count - 1] = name, name_lens[d.count - 1] = nl;
        }
        bool done = !q->cancel_sort;
        if (done)
            _distinct_rank(&d, key, names, name_lens, keys, n);
        _distinct_kill(&d);
        mem_free(names), mem_free(name_lens), mem_free(attrs);
        return done;
    }
    sort_ctx_t c = {q, key, folder};
    db_field_t field = _sort_field(sort);
    if (_read_from_disk(q, folder, field))
        return _read_in_path_order(q, folder, field, items, keys, n);
    for (uint32_t i = 0; i < n; i++) {
        if (q->cancel_sort)
            return false;
        // Unknown (all ones) wraps to 0, below every known value; the rest keep their order.
        keys[i] = _value(&c, items[i], field) + 1;
    }
    return true;
}

static int _keys_compare(void *ctx, uint32_t a, uint32_t b) {
    const uint64_t *keys = (const uint64_t *) ctx;
    return keys[a] < keys[b] ? -1 : keys[a] > keys[b];
}

// Sorts one kind by its keys into out; false when cancelled.
static bool _keyed_sort_kind(db_query_t *q, int sort, bool folder, mem_ref_t *out) {
    uint32_t n = (folder ? q->folder_results : q->file_results).count;
    _name_order(q, folder, out);
    int key = sort & ~1;
    // Folders have no extension or type key, and no size unless the index holds one: name order is theirs.
    if (folder && (key == DB_SORT_EXTENSION || key == DB_SORT_TYPE))
        return true;
    if (folder && key == DB_SORT_SIZE && q->db->structure.folder_offset[DB_FIELD_SIZE] < 0)
        return true;
    uint64_t *keys = (uint64_t *) mem_alloc((n ? n : 1) * sizeof(uint64_t));
    uint32_t *order = (uint32_t *) mem_alloc((n ? n : 1) * sizeof(uint32_t));
    bool done = _fill_keys(q, sort, folder, out, keys, n);
    if (done) {
        for (uint32_t i = 0; i < n; i++)
            order[i] = i;
        debug_printf("sorting cache...\n");
        os_qsort_ex(order, n, keys, _keys_compare);
        // order holds positions into the name-ordered items: keys is free to take the sorted refs.
        uint32_t *sorted = (uint32_t *) keys;
        for (uint32_t i = 0; i < n; i++)
            sorted[i] = out[order[i]];
        memcpy(out, sorted, n * sizeof(mem_ref_t));
    }
    mem_free(keys), mem_free(order);
    return done;
}

static void _db_sort_keyed(db_query_t *q, int sort) {
    uint32_t start = debug_now_us();
    mem_array_t *results[2] = {&q->folder_results, &q->file_results};
    mem_ref_t *flat[2] = {};
    bool done = true;
    debug_printf("caching...\n");
    for (int k = 0; k < 2 && done; k++) {
        uint32_t n = results[k]->count;
        flat[k] = (mem_ref_t *) mem_alloc((n ? n : 1) * sizeof(mem_ref_t));
        done = _keyed_sort_kind(q, sort, k == 0, flat[k]);
        if (done && (sort & 1))
            std::reverse(flat[k], flat[k] + n);
    }
    bool canceled = !done || q->cancel_sort;
    if (canceled)
        debug_printf("cache canceled\n");
    _publish(q, sort, flat, canceled, start);
}

// ---- the head list
// ------------------------------------------------------------------------------------------

// Every head entry's record goes back to its kind's array (at the end: the sorts that follow don't read
// the order they start from), and the head list is empty.
static void _head_merge(db_query_t *q) {
    int c = 0, p = -1;
    for (mem_ref_t e = mem_array_next(&q->head_results, &c, &p); e;
         e = mem_array_next(&q->head_results, &c, &p)) {
        bool folder;
        db_ref_t r = db_head_record(q, e, &folder);
        mem_array_push(folder ? &q->folder_results : &q->file_results, r);
    }
    _replace(&q->head_results, nullptr, 0);
    q->head_list_kind = DB_HEAD_NONE;
    q->cache_kind = 0;
}

// Appends to out the records of a that hold the sentinel, in a's order.
static uint32_t _walk_marked(const mem_array_t *a, mem_ref_t *out) {
    uint32_t at = 0;
    int c = 0, p = -1;
    for (mem_ref_t r = mem_array_next(a, &c, &p); r; r = mem_array_next(a, &c, &p))
        if (db_record_parent(r) == SENTINEL)
            out[at++] = r;
    return at;
}

// A history column, always by walks and never by a compare. The descending form is built: the entries
// of the side list whose records are results, latest or most run first, then the other folders and files
// in name order; the ascending form is that reversed. A record whose entry is taken gets a null parent
// until the end, so that the walk of its kind's array passes it over.
static void _db_sort_history(db_query_t *q, int sort) {
    uint32_t start = debug_now_us();
    _head_merge(q);
    q->head_list_kind = db_head_kind_of_sort(sort);
    mem_array_t *results[2] = {&q->folder_results, &q->file_results};
    uint32_t n[2] = {results[0]->count, results[1]->count};
    mem_ref_t *items = (mem_ref_t *) mem_alloc((n[0] + n[1] + 1) * sizeof(mem_ref_t));
    mem_ref_t *parents = (mem_ref_t *) mem_alloc((n[0] + n[1] + 1) * sizeof(mem_ref_t));
    _flatten(results[0], items);
    _flatten(results[1], items + n[0]);
    for (uint32_t i = 0; i < n[0] + n[1]; i++) {
        uint32_t *field = (uint32_t *) db_ptr(items[i]);
        parents[i] = *field;
        *field = SENTINEL;
    }
    const mem_array_t *side = db_query_history.side_list(q->db, sort);
    uint32_t side_count = side ? side->count : 0;
    mem_ref_t *head = (mem_ref_t *) mem_alloc((side_count + 1) * sizeof(mem_ref_t));
    uint32_t h = 0;
    for (uint32_t i = side_count; i-- > 0;) {
        mem_ref_t e = mem_array_get(side, i);
        bool folder;
        db_ref_t r = db_head_record(q, e, &folder);
        if (db_record_parent(r) == SENTINEL) {
            *(uint32_t *) db_ptr(r) = 0;
            head[h++] = e;
        }
    }
    mem_ref_t *body[2];
    uint32_t got[2];
    for (int k = 0; k < 2; k++) {
        body[k] = (mem_ref_t *) mem_alloc((n[k] + 1) * sizeof(mem_ref_t));
        got[k] = _walk_marked(k == 0 ? &q->db->folders : &q->db->files, body[k]);
    }
    for (uint32_t i = 0; i < n[0] + n[1]; i++)
        *(uint32_t *) db_ptr(items[i]) = parents[i];
    if ((sort & 1) == 0) {
        std::reverse(head, head + h);
        std::reverse(body[0], body[0] + got[0]);
        std::reverse(body[1], body[1] + got[1]);
    }
    _replace(&q->head_results, head, h);
    _replace(results[0], body[0], got[0]);
    _replace(results[1], body[1], got[1]);
    mem_free(items), mem_free(parents), mem_free(head), mem_free(body[0]), mem_free(body[1]);
    debug_printf("SET SORT 2 %d\n", sort);
    _finish(q, sort);
    debug_printf("finished sort, time taken %f seconds\n", (int) (debug_now_us() - start));
}

void _db_set_sort(db_query_t *q, int sort) {
    debug_printf("set sort %d %d\n", sort, q->current_sort);
    if (q->sorted) {
        if (q->current_sort == sort) {
            debug_printf("already sorted\n");
            return;
        }
        if (q->current_sort == _db_flip_sort_type(sort)) {
            mem_array_reverse(&q->head_results);
            mem_array_reverse(&q->folder_results);
            mem_array_reverse(&q->file_results);
            debug_printf("SET SORT 3 %d\n", sort);
            _finish(q, sort);
            return;
        }
    }
    if (q->cancel_sort)
        return;
    if (db_head_kind_of_sort(sort))
        return _db_sort_history(q, sort);
    if (q->head_results.count) {
        _head_merge(q);
        q->sorted = false;
    }
    q->head_list_kind = DB_HEAD_NONE;
    if (_db_sort_by_index(q, sort))
        return;
    if (_keyed_sort_applies(sort))
        return _db_sort_keyed(q, sort);
    _db_sort_compare(q, sort);
}

// ---- selection after a change of results ----------------------------------------------------------------

// Every selected record, head entries by their record, is marked with the sentinel; then the result
// arrays are walked and each marked element joins the new selection of its array, in result order. So a
// record that moved between the head list and its kind's array stays selected, and one that left the
// results leaves the selection, without a single compare.
void _db_update_selection(db_query_t *q) {
    mem_array_t *sel[3] = {&q->head_selection, &q->folder_selection, &q->file_selection};
    mem_array_t *res[3] = {&q->head_results, &q->folder_results, &q->file_results};
    uint32_t n = sel[0]->count + sel[1]->count + sel[2]->count;
    if (!n)
        return;
    uint32_t start = debug_now_us();
    mem_ref_t *items = (mem_ref_t *) mem_alloc(n * sizeof(mem_ref_t));
    mem_ref_t *parents = (mem_ref_t *) mem_alloc(n * sizeof(mem_ref_t));
    uint32_t at = 0;
    for (int k = 0; k < 3; k++) {
        int c = 0, p = -1;
        for (mem_ref_t e = mem_array_next(sel[k], &c, &p); e; e = mem_array_next(sel[k], &c, &p)) {
            bool folder;
            items[at++] = k ? e : db_head_entry_record(q->head_selection_kind, e, &folder);
        }
    }
    // A record is marked once, however often it is listed, so that its saved parent is the real one.
    uint32_t marked = 0;
    for (uint32_t i = 0; i < n; i++) {
        uint32_t *field = (uint32_t *) db_ptr(items[i]);
        if (*field == SENTINEL)
            continue;
        items[marked] = items[i];
        parents[marked++] = *field;
        *field = SENTINEL;
    }
    for (int k = 0; k < 3; k++) {
        mem_ref_t *out = (mem_ref_t *) mem_alloc((res[k]->count + 1) * sizeof(mem_ref_t));
        uint32_t got = 0;
        int c = 0, p = -1;
        for (mem_ref_t e = mem_array_next(res[k], &c, &p); e; e = mem_array_next(res[k], &c, &p)) {
            bool folder;
            db_ref_t r = k ? e : db_head_record(q, e, &folder);
            if (db_record_parent(r) == SENTINEL)
                out[got++] = e;
        }
        _replace(sel[k], out, got);
        mem_free(out);
    }
    for (uint32_t i = 0; i < marked; i++)
        *(uint32_t *) db_ptr(items[i]) = parents[i];
    q->head_selection_kind = q->head_list_kind;
    mem_free(items), mem_free(parents);
    _db_update_selection_totals(q);
    debug_printf("update selection %f seconds\n", (int) (debug_now_us() - start));
}

// ---- db_sort
// ------------------------------------------------------------------------------------------------

static void _db_sort_thread_proc(db_t *, void *arg) {
    db_query_t *q = (db_query_t *) arg;
    _db_set_sort(q, q->requested_sort);
    _db_update_selection(q);
    event_remove(_db_query_results_event, q);
    event_post(_db_query_results_event, q);
}

bool db_query_index_ready(const db_t *db);

void db_sort(db_query_t *q, int sort, int keep_selection_hint, int track_hint) {
    if (!db_query_index_ready(q->db)) {
        q->pending_sort.active = true;
        q->pending_sort.sort = sort;
        q->pending_sort.keep_selection_hint = keep_selection_hint;
        q->pending_sort.track_hint = track_hint;
        return;
    }
    _db_flip_sort_type(sort);
    q->cancel_sort = true;
    db_wait(q->db, "db_sort");
    event_remove(_db_query_results_event, q);
    q->cancel_sort = false;
    db_itemrefs_reset(q, -2);
    q->requested_sort = sort;
    q->sort_hint_1 = keep_selection_hint;
    q->sort_hint_2 = track_hint;
    db_job_start(q->db, "db_sort", DB_JOB_SORT, q, _db_sort_thread_proc, q, OS_PRIORITY_NORMAL);
}

int db_get_sort(db_query_t *q) {
    return q->current_sort;
}

// ---- the order the results stand in
// ------------------------------------------------------------------------

int db_query_result_compare(db_query_t *q, bool folder, db_ref_t a, db_ref_t b) {
    sort_ctx_t c = {q, q->current_sort & ~1, folder};
    int d = c.sort == DB_SORT_NAME ? db_name_compare(a, b) : _ascending_compare(&c, a, b);
    return (q->current_sort & 1) ? -d : d;
}
