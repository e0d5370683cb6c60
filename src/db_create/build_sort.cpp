// The sorts of the merge without most of their full comparisons. The index's orders compare folded
// names and then whole parent chains; on millions of records that walk dominates the build. Each sort
// here reaches the very array that a stable sort with the full comparator gives, by three means:
// - a key of the first eight folded characters beside each reference, so that most comparisons are one
//   integer comparison, and a full one happens only where the keys tie;
// - the rank of each folder's folded path, computed once, standing for a parent-chain comparison;
// - orders derived from the name order instead of sorted from scratch: a stable sort by the first key
//   alone keeps name order among the ties, which is exactly where every value order falls back to it.
#include <cstring>

#include "db_create/db_create.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"
#include "text/text.h"

// Below this many elements one thread sorts faster than two can start.
#define BUILD_SORT_PARALLEL_MIN 65536
#define BUILD_SORT_INSERTION    12

// ---- a stable merge sort over any element --------------------------------------------------------------

// Sorts a[0..n) with tmp holding at least n / 2 + 1 elements. Ties keep their input order: insertion moves
// an element only past strictly greater ones, and a merge takes the left run's element on a tie.
// Merges the sorted runs a[0, half) and a[half, n) in place through tmp (half elements), stably: on a tie
// the left run's element comes first. Runs already in order cost one compare.
template <class T, class C>
static void _merge_halves(T *a, T *tmp, size_t half, size_t n, const C &cmp) {
    if (cmp(a[half - 1], a[half]) <= 0)
        return;
    memcpy((void *) tmp, (const void *) a, half * sizeof(T));
    size_t i = 0, j = half, k = 0;
    while (i < half && j < n)
        a[k++] = cmp(a[j], tmp[i]) < 0 ? a[j++] : tmp[i++];
    while (i < half)
        a[k++] = tmp[i++];
}

template <class T, class C>
static void _merge_sort(T *a, T *tmp, size_t n, const C &cmp) {
    if (n <= BUILD_SORT_INSERTION) {
        for (size_t i = 1; i < n; i++) {
            T v = a[i];
            size_t j = i;
            for (; j > 0 && cmp(a[j - 1], v) > 0; j--)
                a[j] = a[j - 1];
            a[j] = v;
        }
        return;
    }
    size_t half = n / 2;
    _merge_sort(a, tmp, half, cmp);
    _merge_sort(a + half, tmp, n - half, cmp);
    _merge_halves(a, tmp, half, n, cmp);
}

template <class T, class C>
struct _half_t {
    T *a;
    T *tmp;
    size_t n;
    const C *cmp;
};

template <class T, class C>
static void _half_proc(void *arg) {
    _half_t<T, C> *h = (_half_t<T, C> *) arg;
    _merge_sort(h->a, h->tmp, h->n, *h->cmp);
}

// The two halves on two threads, then one merge: the same result as one thread's sort, since the final
// merge keeps the left half's element first on a tie just as every inner merge does.
template <class T, class C>
static void _stable_sort(T *a, size_t n, const C &cmp) {
    if (n < 2)
        return;
    T *tmp = (T *) mem_alloc((n / 2 + 2) * sizeof(T));
    bool two = n >= BUILD_SORT_PARALLEL_MIN && os_processor_count() >= 2 && max_threads != 1;
    if (!two) {
        _merge_sort(a, tmp, n, cmp);
        mem_free(tmp);
        return;
    }
    size_t half = n / 2;
    _half_t<T, C> left = {a, tmp, half, &cmp};
    _half_t<T, C> right = {a + half, tmp + half / 2 + 1, n - half, &cmp};
    os_thread_t *t = os_thread_create(_half_proc<T, C>, &right);
    _half_proc<T, C>(&left);
    os_thread_destroy(t);
    _merge_halves(a, tmp, half, n, cmp);
    mem_free(tmp);
}

// ---- the reference map ---------------------------------------------------------------------------------

static uint32_t _hash(db_ref_t r, uint32_t mask) {
    return (uint32_t) (((uint64_t) r * 0x9E3779B97F4A7C15ull) >> 32) & mask;
}

void db_build_map_init(db_build_map_t *m, uint32_t capacity) {
    uint32_t slots = 16;
    while (slots < 2 * (uint64_t) capacity)
        slots *= 2;
    m->mask = slots - 1;
    m->slots = (db_build_map_slot_t *) mem_alloc(slots * sizeof(db_build_map_slot_t));
    memset(m->slots, 0, slots * sizeof(db_build_map_slot_t));
}

void db_build_map_kill(db_build_map_t *m) {
    mem_free(m->slots);
    memset(m, 0, sizeof(*m));
}

void db_build_map_put(db_build_map_t *m, db_ref_t key, uint32_t value) {
    uint32_t h = _hash(key, m->mask);
    while (m->slots[h].key && m->slots[h].key != key)
        h = (h + 1) & m->mask;
    m->slots[h].key = key;
    m->slots[h].value = value;
}

uint32_t db_build_map_get(const db_build_map_t *m, db_ref_t key) {
    for (uint32_t h = _hash(key, m->mask);; h = (h + 1) & m->mask) {
        if (m->slots[h].key == key)
            return m->slots[h].value;
        if (!m->slots[h].key)
            return UINT32_MAX;
    }
}

// ---- folder ranks --------------------------------------------------------------------------------------

uint32_t db_build_rank(const db_build_ranks_t *r, db_ref_t folder) {
    return folder ? db_build_map_get(&r->map, folder) : 0;
}

static int _path_lower_base(uint32_t a, uint32_t b) {
    return db_path_compare_lower_base(a, b);
}

void db_build_ranks_init(db_build_ranks_t *r, const db_ref_t *folders, uint32_t n,
                         const uint32_t *given_ranks, const uint32_t *class_sizes, uint32_t rank_count) {
    db_build_map_init(&r->map, n);
    if (given_ranks) {
        r->rank_count = rank_count;
        r->class_size = (uint32_t *) mem_alloc(((size_t) rank_count + 1) * sizeof(uint32_t));
        memcpy(r->class_size, class_sizes, ((size_t) rank_count + 1) * sizeof(uint32_t));
        for (uint32_t i = 0; i < n; i++)
            db_build_map_put(&r->map, folders[i], given_ranks[i]);
        return;
    }
    db_ref_t *sorted = (db_ref_t *) mem_alloc(((size_t) n + 1) * sizeof(db_ref_t));
    memcpy(sorted, folders, (size_t) n * sizeof(db_ref_t));
    os_qsort(sorted, n, _path_lower_base);
    r->class_size = (uint32_t *) mem_alloc(((size_t) n + 1) * sizeof(uint32_t));
    r->class_size[0] = 0;
    uint32_t rank = 0;
    for (uint32_t i = 0; i < n; i++) {
        if (i == 0 || db_path_compare_lower_base(sorted[i - 1], sorted[i]) != 0)
            r->class_size[++rank] = 0;
        r->class_size[rank]++;
        db_build_map_put(&r->map, sorted[i], rank);
    }
    r->rank_count = rank;
    mem_free(sorted);
}

void db_build_ranks_kill(db_build_ranks_t *r) {
    db_build_map_kill(&r->map);
    mem_free(r->class_size);
    memset(r, 0, sizeof(*r));
}

// ---- name order ----------------------------------------------------------------------------------------

// The first sixteen characters of a name under the lower-base folding, one byte each, big-endian over the
// two words: an ASCII value v as v + 1, the end of the name as 0. A folded value beyond ASCII becomes 0xFF
// and ends the key, since one byte can't keep such values apart. Where two keys differ, the first
// difference is either two ASCII values, or an end against anything, or ASCII against a larger value:
// each of them orders the names as utf8_compare_lower_base does. Equal keys decide nothing, unless both
// hold their whole names: the folded names are then equal.
struct _fold_key_t {
    uint64_t hi, lo;
    bool whole; // the name ended inside the key, all of it ASCII
};

static _fold_key_t _fold_key(const char *name, uint32_t len) {
    const uint8_t *p = (const uint8_t *) name, *e = p + len;
    uint8_t slot[16] = {};
    int slots = 0;
    bool ascii = true;
    while (slots < 16 && p < e) {
        uint32_t v;
        if (*p < 0x80) {
            v = ascii_lower[*p++];
        } else {
            int n;
            v = text_fold_lower_base(text_decode(p, (size_t) (e - p), &n));
            p += n;
        }
        if (v >= 0x80) {
            slot[slots++] = 0xFF;
            ascii = false;
            break;
        }
        slot[slots++] = (uint8_t) (v + 1);
    }
    _fold_key_t k = {0, 0, ascii && p == e && slots < 16};
    for (int i = 0; i < 8; i++) {
        k.hi = k.hi << 8 | slot[i];
        k.lo = k.lo << 8 | slot[i + 8];
    }
    return k;
}

// The top bit of the rank word says that the key holds the whole folded name; ranks stay below it.
#define NAME_WHOLE 0x80000000u

struct _name_el_t {
    uint64_t hi, lo;
    uint32_t parent_rank; // and NAME_WHOLE
    db_ref_t ref;
};

// db_name_compare begins with the folded names and then the folded parent paths, whose order the ranks
// give; only where both tie does the full comparison run. The parent reference breaks its ties, so that
// records with one parent and one name stand side by side; full ties keep the order in which the sources
// delivered them, which makes the choice of the surviving duplicate the same at every rebuild.
struct _name_cmp_t {
    int operator()(const _name_el_t &a, const _name_el_t &b) const {
        if (a.hi != b.hi)
            return a.hi < b.hi ? -1 : 1;
        if (a.lo != b.lo)
            return a.lo < b.lo ? -1 : 1;
        int c;
        if (!(a.parent_rank & b.parent_rank & NAME_WHOLE)) {
            uint32_t la, lb;
            const char *na = db_record_name(a.ref, &la);
            const char *nb = db_record_name(b.ref, &lb);
            if ((c = utf8_compare_lower_base(na, la, nb, lb)))
                return c;
        }
        uint32_t ra = a.parent_rank & ~NAME_WHOLE, rb = b.parent_rank & ~NAME_WHOLE;
        if (ra != rb)
            return ra < rb ? -1 : 1;
        if ((c = db_name_compare(a.ref, b.ref)))
            return c;
        db_ref_t pa = db_record_parent(a.ref), pb = db_record_parent(b.ref);
        return pa < pb ? -1 : pa > pb;
    }
};

void db_build_sort_names(db_ref_t *items, uint32_t n, const db_build_ranks_t *ranks) {
    _name_el_t *el = (_name_el_t *) mem_alloc(((size_t) n + 1) * sizeof(_name_el_t));
    bool ranked = ranks != nullptr && ranks->rank_count < NAME_WHOLE;
    db_ref_t last_parent = 0;
    uint32_t last_rank = 0;
    for (uint32_t i = 0; i < n; i++) {
        uint32_t len;
        const char *name = db_record_name(items[i], &len);
        _fold_key_t k = _fold_key(name, len);
        el[i].hi = k.hi;
        el[i].lo = k.lo;
        el[i].ref = items[i];
        el[i].parent_rank = k.whole ? NAME_WHOLE : 0;
        if (!ranked)
            continue;
        // Records come in runs of one parent: one lookup serves the run.
        db_ref_t p = db_record_parent(items[i]);
        if (p != last_parent || i == 0) {
            last_parent = p;
            last_rank = db_build_rank(ranks, p);
        }
        // A parent without a rank can't be placed; the full comparison then decides every tie.
        if (last_rank == UINT32_MAX)
            ranked = false;
        el[i].parent_rank |= last_rank;
    }
    if (!ranked)
        for (uint32_t i = 0; i < n; i++)
            el[i].parent_rank &= NAME_WHOLE;
    _stable_sort(el, n, _name_cmp_t{});
    for (uint32_t i = 0; i < n; i++)
        items[i] = el[i].ref;
    mem_free(el);
}

// ---- path order ----------------------------------------------------------------------------------------

static int _path_name(uint32_t a, uint32_t b) {
    return db_path_name_compare(a, b);
}

// db_path_name_compare begins with the parents' folded paths: a stable distribution by parent rank puts
// every record in its place but for the order inside a rank. Inside it name order already is path order
// when the rank holds one folder (or no folder at all: records without a parent), since both orders
// then compare the names alone at each level, in the same sequence. A rank of several folders that fold
// alike (names differing in case or accents) is sorted again with the full comparison.
void db_build_path_order(const db_ref_t *by_name, uint32_t n, const db_build_ranks_t *ranks, db_ref_t *out) {
    uint32_t *rank = (uint32_t *) mem_alloc(((size_t) n + 1) * sizeof(uint32_t));
    for (uint32_t i = 0; i < n; i++) {
        rank[i] = db_build_rank(ranks, db_record_parent(by_name[i]));
        if (rank[i] == UINT32_MAX) {
            mem_free(rank);
            memcpy(out, by_name, (size_t) n * sizeof(db_ref_t));
            os_qsort(out, n, _path_name);
            return;
        }
    }
    uint32_t count = ranks->rank_count + 1;
    uint32_t *start = (uint32_t *) mem_alloc(((size_t) count + 1) * sizeof(uint32_t));
    memset(start, 0, ((size_t) count + 1) * sizeof(uint32_t));
    for (uint32_t i = 0; i < n; i++)
        start[rank[i] + 1]++;
    for (uint32_t r = 0; r < count; r++)
        start[r + 1] += start[r];
    uint32_t *next = (uint32_t *) mem_alloc(((size_t) count + 1) * sizeof(uint32_t));
    memcpy(next, start, ((size_t) count + 1) * sizeof(uint32_t));
    for (uint32_t i = 0; i < n; i++)
        out[next[rank[i]]++] = by_name[i];
    for (uint32_t r = 1; r < count; r++)
        if (ranks->class_size[r] > 1 && start[r + 1] - start[r] > 1)
            os_merge_sort(out + start[r], start[r + 1] - start[r], _path_name);
    mem_free(next);
    mem_free(start);
    mem_free(rank);
}

// ---- value and extension orders ------------------------------------------------------------------------

struct _value_ctx_t {
    const db_t *db;
    bool folder;
    db_field_t field;
};

// The value level of db_value_compare, and of db_extension_compare: the input is in name order already,
// and a stable sort keeps it within every tie.
static int _value_only(void *context, uint32_t a, uint32_t b) {
    const _value_ctx_t *c = (const _value_ctx_t *) context;
    return db_value_level_compare(c->db, c->folder, c->field, a, b);
}

static int _extension_only(void *context, uint32_t a, uint32_t b) {
    (void) context;
    return db_extension_level_compare(a, b);
}

struct _full_ctx_t {
    const db_t *db;
    db_order_t order;
    bool folder;
};

static int _full(void *context, uint32_t a, uint32_t b) {
    const _full_ctx_t *c = (const _full_ctx_t *) context;
    return db_compare(c->db, c->order, c->folder, a, b);
}

static bool _field_of(db_order_t order, db_field_t *field) {
    switch (order) {
    case DB_ORDER_SIZE:
        *field = DB_FIELD_SIZE;
        return true;
    case DB_ORDER_DATE_CREATED:
        *field = DB_FIELD_DATE_CREATED;
        return true;
    case DB_ORDER_DATE_MODIFIED:
        *field = DB_FIELD_DATE_MODIFIED;
        return true;
    case DB_ORDER_DATE_ACCESSED:
        *field = DB_FIELD_DATE_ACCESSED;
        return true;
    case DB_ORDER_ATTRIBUTES:
        *field = DB_FIELD_ATTRIBUTES;
        return true;
    default:
        return false;
    }
}

void db_build_value_order(const db_t *db, db_order_t order, bool folder, const db_ref_t *by_name, uint32_t n,
                          db_ref_t *out) {
    // An empty source may hand over no buffers at all.
    if (!n)
        return;
    memcpy(out, by_name, (size_t) n * sizeof(db_ref_t));
    db_field_t field;
    if (order == DB_ORDER_NAME || (order == DB_ORDER_EXTENSION && folder))
        return;
    if (order == DB_ORDER_EXTENSION) {
        os_qsort_ex(out, n, nullptr, _extension_only);
        return;
    }
    if (!_field_of(order, &field)) {
        _full_ctx_t c = {db, order, folder};
        os_qsort_ex(out, n, &c, _full);
        return;
    }
    _value_ctx_t c = {db, folder, field};
    // Unknown sizes and dates are all one value: then the order is the name order as it stands.
    uint32_t i = 1;
    while (i < n && _value_only(&c, by_name[0], by_name[i]) == 0)
        i++;
    if (i < n)
        os_qsort_ex(out, n, &c, _value_only);
}
