// The byte filter of the plain-word scan. The first and last bytes of the term are tested at sixteen
// starting positions at once; only positions where both agree are verified byte by byte. A name usually
// has no such position, so most names cost one or two vector compares instead of a loop per byte.
#include "db_query/scan.h"

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
// Both cases of an ASCII letter, or the byte twice: bytes that equal neither can't start a match.
static inline void _pair(const db_scan_term_t *t, uint8_t c, __m128i *a, __m128i *b) {
    *a = _mm_set1_epi8((char) c);
    *b = _mm_set1_epi8((char) (t->case_blind ? ascii_upper[c] : c));
}

static inline uint32_t _low_bits(uint32_t n) {
    return n >= 16 ? 0xFFFFu : (1u << n) - 1;
}

static db_scan_answer_t _scan_sse2(const db_scan_term_t *t, const uint8_t *name, uint32_t len) {
    uint32_t tlen = t->len;
    __m128i f0, f1, l0, l1;
    _pair(t, t->term[0], &f0, &f1);
    _pair(t, t->term[tlen - 1], &l0, &l1);
    // Starting positions 0..len-tlen; the block at i covers starts i..i+15 and name bytes i..i+15, so
    // walking the blocks over the whole name also sees every byte for the high-byte test.
    uint32_t starts = len >= tlen ? len - tlen + 1 : 0;
    bool hit = false;
    uint32_t high = 0;
    for (uint32_t i = 0; i < len; i += 16) {
        __m128i a = _mm_loadu_si128((const __m128i *) (name + i));
        high |= (uint32_t) _mm_movemask_epi8(a) & _low_bits(len - i);
        if (!hit && i < starts) {
            __m128i b = _mm_loadu_si128((const __m128i *) (name + i + tlen - 1));
            __m128i ef = _mm_or_si128(_mm_cmpeq_epi8(a, f0), _mm_cmpeq_epi8(a, f1));
            __m128i el = _mm_or_si128(_mm_cmpeq_epi8(b, l0), _mm_cmpeq_epi8(b, l1));
            uint32_t m = (uint32_t) _mm_movemask_epi8(_mm_and_si128(ef, el)) & _low_bits(starts - i);
            while (m) {
                if (_verify(name + i + (uint32_t) __builtin_ctz(m), t)) {
                    hit = true;
                    break;
                }
                m &= m - 1;
            }
        }
        if (hit && !t->check_high)
            return DB_SCAN_HIT;
    }
    if (t->check_high && high)
        return DB_SCAN_HIGH;
    return hit ? DB_SCAN_HIT : DB_SCAN_MISS;
}
#endif

db_scan_answer_t db_scan_contains(const db_scan_term_t *t, const uint8_t *name, uint32_t len, size_t avail) {
#if defined(__SSE2__)
    // The last load of either kind ends at most 15 bytes past the name.
    if (avail >= (size_t) len + 15)
        return _scan_sse2(t, name, len);
#else
    (void) avail;
#endif
    return _scan_bytes(t, name, len);
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
    size_t off = (size_t) ((const char *) p - mem_arena_base) & (MEM_ARENA_BLOCK - 1);
    return MEM_ARENA_BLOCK - off;
}
