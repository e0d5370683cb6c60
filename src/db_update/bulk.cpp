// Whole arrays in one pass, for subtrees too large to move one record at a time. Each insert or removal
// in an array walks the chunk table once to keep every chunk's base, so k records cost k walks over
// thousands of chunks; a pass that filters the subtree out of the array and merges its records back in
// under their new keys costs one copy of the array, which is cheaper once k is above the array's
// elements per chunk.
#include <cstring>

#include "db_create/db_create.h"
#include "db_update/update_internal.h"
#include "mem/mem.h"

int db_update_subtree_bulk = 0;

bool db_update_bulk_pays(const mem_array_t *a, uint32_t k) {
    if (db_update_subtree_bulk)
        return db_update_subtree_bulk == 1;
    return k && (uint64_t) k * a->chunk_count >= a->count;
}

struct _order_ctx_t {
    const db_t *db;
    db_order_t order;
    bool folder;
};

static int _compare(void *context, uint32_t a, uint32_t b) {
    const _order_ctx_t *c = (const _order_ctx_t *) context;
    return db_compare(c->db, c->order, c->folder, a, b);
}

// A first test of membership that fits the cache: one bit for each reference's low bits. A clear bit
// says "not a member" at once, which is the answer for nearly every element of a large array; a set bit
// asks the map.
struct _prefilter_t {
    uint64_t *bits;
    uint32_t mask;
};

static void _prefilter_init(_prefilter_t *f, const db_build_map_t *members) {
    uint32_t size = 1u << 20;
    f->bits = (uint64_t *) mem_alloc(size / 8);
    memset(f->bits, 0, size / 8);
    f->mask = size - 1;
    for (uint32_t i = 0; i <= members->mask; i++) {
        db_ref_t r = members->slots[i].key;
        if (!r)
            continue;
        uint32_t b = r & f->mask;
        f->bits[b >> 6] |= 1ull << (b & 63);
    }
}

static inline bool _maybe(const _prefilter_t *f, db_ref_t r) {
    uint32_t b = r & f->mask;
    return (f->bits[b >> 6] >> (b & 63)) & 1;
}

// The array without the members of the set, with add (k records, not members of the array now) merged in
// at their places. The elements that stay keep their order; add is sorted here, and each of its records
// finds its place among them by a binary search, so that the pass compares k log n times, not n.
static void _rebuild(db_t *db, mem_array_t *a, db_order_t order, bool folder, const db_build_map_t *members,
                     const _prefilter_t *filter, db_ref_t *add, uint32_t k) {
    uint32_t n = a->count;
    mem_ref_t *rest = (mem_ref_t *) mem_alloc(((size_t) n + 1) * sizeof(mem_ref_t));
    uint32_t m = 0;
    int c = 0, p = -1;
    for (mem_ref_t r = mem_array_next(a, &c, &p); r; r = mem_array_next(a, &c, &p))
        if (!_maybe(filter, r) || db_build_map_get(members, r) == UINT32_MAX)
            rest[m++] = r;
    _order_ctx_t ctx = {db, order, folder};
    os_merge_sort_ex(add, k, &ctx, _compare);
    mem_array_kill(a);
    memset(a, 0, sizeof *a);
    uint32_t total = m + k;
    if (total) {
        // The bulk layout leaves room in every chunk, so that the next live changes split nothing.
        mem_array_alloc_bulk(a, total);
        uint32_t i = 0, out = 0;
        for (uint32_t j = 0; j < k; j++) {
            uint32_t lo = i, hi = m;
            while (lo < hi) {
                uint32_t mid = lo + (hi - lo) / 2;
                if (db_compare(db, order, folder, rest[mid], add[j]) < 0)
                    lo = mid + 1;
                else
                    hi = mid;
            }
            for (; i < lo; i++)
                *mem_array_bulk_slot(a, out++) = rest[i];
            *mem_array_bulk_slot(a, out++) = add[j];
        }
        for (; i < m; i++)
            *mem_array_bulk_slot(a, out++) = rest[i];
    }
    mem_free(rest);
}

void db_update_bulk_arrays(db_t *db, bool folder, const db_build_map_t *members, const db_ref_t *add,
                           uint32_t k) {
    _prefilter_t filter;
    _prefilter_init(&filter, members);
    db_ref_t *sorted = (db_ref_t *) mem_alloc(((size_t) k + 1) * sizeof(db_ref_t));
    for (int o = DB_ORDER_NAME; o < DB_ORDER_FRN; o++) {
        mem_array_t *a = db_array(db, (db_order_t) o, folder);
        if (!a)
            continue;
        if (k)
            memcpy(sorted, add, (size_t) k * sizeof(db_ref_t));
        _rebuild(db, a, (db_order_t) o, folder, members, &filter, sorted, k);
    }
    mem_free(sorted);
    mem_free(filter.bits);
}
