// The byte filter of the plain-word scan. The first and last bytes of the term are tested at sixteen
// starting positions at once; only positions where both agree are verified byte by byte. A name usually
// has no such position, so most names cost one or two vector compares instead of a loop per byte.
#include "db_query/scan.h"

#include "db/db.h"
#include "mem/arena.h"
#include "text/text.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// The inner bytes of a candidate: the first and last have been tested already.
static inline bool _verify(const uint8_t *at, const db_scan_term_t *t) {
    const uint8_t *term = t->term;
    if (t->case_blind) {
        for (uint32_t k = 1; k + 1 < t->len; k++)
            if (ascii_lower[at[k]] != term[k])
                return false;
        return true;
    }
    for (uint32_t k = 1; k + 1 < t->len; k++)
        if (at[k] != term[k])
            return false;
    return true;
}

static inline bool _byte_eq(const db_scan_term_t *t, uint8_t name, uint8_t term) {
    return t->case_blind ? ascii_lower[name] == term : name == term;
}

// The portable form, and the one for names too near the end of their block for a 16-byte load.
static db_scan_answer_t _scan_bytes(const db_scan_term_t *t, const uint8_t *name, uint32_t len) {
    if (t->check_high) {
        uint8_t any = 0;
        for (uint32_t i = 0; i < len; i++)
            any |= name[i];
        if (any >= 0x80)
            return DB_SCAN_HIGH;
    }
    uint32_t tlen = t->len;
    uint8_t first = t->term[0], last = t->term[tlen - 1];
    for (uint32_t i = 0; i + tlen <= len; i++)
        if (_byte_eq(t, name[i], first) && _byte_eq(t, name[i + tlen - 1], last) && _verify(name + i, t))
            return DB_SCAN_HIT;
    return DB_SCAN_MISS;
}

#if defined(__SSE2__)
// The term's first and last bytes in both cases (or twice), broadcast once per run of records.
struct _vec_term_t {
    __m128i f0, f1, l0, l1;
};

static inline _vec_term_t _vec_term(const db_scan_term_t *t) {
    uint8_t f = t->term[0], l = t->term[t->len - 1];
    _vec_term_t v;
    v.f0 = _mm_set1_epi8((char) f);
    v.f1 = _mm_set1_epi8((char) (t->case_blind ? ascii_upper[f] : f));
    v.l0 = _mm_set1_epi8((char) l);
    v.l1 = _mm_set1_epi8((char) (t->case_blind ? ascii_upper[l] : l));
    return v;
}

// Candidates of the block at i, in_range masking the starts that lie past the last: verified in order.
static inline bool _candidates(const db_scan_term_t *t, const _vec_term_t *v, const uint8_t *name, uint32_t i,
                               __m128i a, uint32_t in_range) {
    __m128i b = _mm_loadu_si128((const __m128i *) (name + i + t->len - 1));
    __m128i ef = _mm_or_si128(_mm_cmpeq_epi8(a, v->f0), _mm_cmpeq_epi8(a, v->f1));
    __m128i el = _mm_or_si128(_mm_cmpeq_epi8(b, v->l0), _mm_cmpeq_epi8(b, v->l1));
    uint32_t m = (uint32_t) _mm_movemask_epi8(_mm_and_si128(ef, el)) & in_range;
    for (; m; m &= m - 1)
        if (_verify(name + i + (uint32_t) __builtin_ctz(m), t))
            return true;
    return false;
}

// Starting positions are 0..len-tlen; the block at i holds starts i..i+15 and name bytes i..i+15, so the
// blocks that cover the name also see every byte for the high-byte test. Whole blocks first, then the
// tail block, whose bytes past the name are masked out.
static inline __attribute__((always_inline)) db_scan_answer_t
_scan_sse2(const db_scan_term_t *t, const _vec_term_t *v, const uint8_t *name, uint32_t len) {
    uint32_t starts = len >= t->len ? len - t->len + 1 : 0;
    bool hit = false;
    uint32_t high = 0, i = 0;
    for (; i + 16 <= len; i += 16) {
        __m128i a = _mm_loadu_si128((const __m128i *) (name + i));
        high |= (uint32_t) _mm_movemask_epi8(a);
        if (!hit && i < starts) {
            uint32_t left = starts - i;
            hit = _candidates(t, v, name, i, a, left >= 16 ? 0xFFFFu : (1u << left) - 1);
            if (hit && !t->check_high)
                return DB_SCAN_HIT;
        }
    }
    if (i < len) {
        __m128i a = _mm_loadu_si128((const __m128i *) (name + i));
        high |= (uint32_t) _mm_movemask_epi8(a) & ((1u << (len - i)) - 1);
        if (!hit && i < starts)
            hit = _candidates(t, v, name, i, a, (1u << (starts - i)) - 1);
    }
    if (t->check_high && high)
        return DB_SCAN_HIGH;
    return hit ? DB_SCAN_HIT : DB_SCAN_MISS;
}
#endif

db_scan_answer_t db_scan_contains(const db_scan_term_t *t, const uint8_t *name, uint32_t len, size_t avail) {
#if defined(__SSE2__)
    // The last load of either kind ends at most 15 bytes past the name.
    if (avail >= (size_t) len + 15) {
        _vec_term_t v = _vec_term(t);
        return _scan_sse2(t, &v, name, len);
    }
#else
    (void) avail;
#endif
    return _scan_bytes(t, name, len);
}

// How far ahead of the record being tested the loop asks for a record's bytes: the arrays are in name
// order, not memory order, so nearly every record is a cache miss that the prefetch overlaps with tests.
#define SCAN_PREFETCH_AHEAD 8

uint32_t db_scan_records(const db_scan_term_t *term, const uint32_t *items, uint32_t n,
                         const volatile bool *cancel, uint32_t *marks, uint32_t *mark_count) {
    // A private copy: the stores to marks could otherwise alias the term's fields and force a reload of
    // them for every record.
    const db_scan_term_t copy = *term, *t = &copy;
#if defined(__SSE2__)
    _vec_term_t v = _vec_term(t);
#endif
    uint32_t m = 0, i = 0;
    for (; i < n; i++) {
        if (*cancel)
            break;
        if (i + SCAN_PREFETCH_AHEAD < n)
            __builtin_prefetch(db_ptr(items[i + SCAN_PREFETCH_AHEAD]));
        const uint8_t *p = db_ptr(items[i]);
        uint32_t len = p[4];
        if (len == DB_LONG_NAME)
            len = *(const uint32_t *) (p - 4);
        // The matchers fail a name shorter than the term before they read it, whatever its bytes.
        if (len < t->len)
            continue;
        const uint8_t *name = p + 5;
        db_scan_answer_t a;
#if defined(__SSE2__)
        if (db_scan_block_avail(name) >= (size_t) len + 15)
            a = _scan_sse2(t, &v, name, len);
        else
#endif
            a = _scan_bytes(t, name, len);
        if (a != DB_SCAN_MISS)
            marks[m++] = i | (a == DB_SCAN_HIGH ? DB_SCAN_MARK_HIGH : 0);
    }
    *mark_count = m;
    return i;
}

bool db_scan_term_init(db_scan_term_t *t, const char *text, uint32_t len, text_folding_t folding) {
    if (len == 0 || !text_is_ascii(text, len))
        return false;
    t->term = (const uint8_t *) text;
    t->len = len;
    t->case_blind =
        folding == TEXT_FOLD_ASCII || folding == TEXT_FOLD_LOWER || folding == TEXT_FOLD_LOWER_BASE;
    t->check_high = folding != TEXT_FOLD_ASCII && folding != TEXT_FOLD_EXACT;
    return true;
}

size_t db_scan_block_avail(const void *p) {
    // Blocks lie at multiples of their size from the arena's base.
    size_t off = (size_t) ((const char *) p - mem_arena_base) & (MEM_ARENA_BLOCK - 1);
    return MEM_ARENA_BLOCK - off;
}
