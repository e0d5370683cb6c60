// Size literals, compare prefixes and integer ranges. Date literals are in date.cpp.
#include "db_query/literal.h"

#include "config/config.h"
#include "text/text.h"

int cmp_parse(const char **cursor) {
    const char *p = *cursor;
    int cmp = CMP_NONE;
    if (p[0] == '>' && p[1] == '=') {
        cmp = CMP_GE, p += 2;
    } else if (p[0] == '>') {
        cmp = CMP_GT, p += 1;
    } else if (p[0] == '<' && p[1] == '=') {
        cmp = CMP_LE, p += 2;
    } else if (p[0] == '<') {
        cmp = CMP_LT, p += 1;
    } else if (p[0] == '=') {
        cmp = CMP_EQ, p += p[1] == '=' ? 2 : 1;
    }
    *cursor = p;
    return cmp;
}

void cmp_apply64(int cmp, uint64_t *low, uint64_t *high, uint64_t open_high) {
    switch (cmp) {
    case CMP_GE:
        *high = open_high;
        break;
    case CMP_GT:
        if (*high >= open_high) {
            // Nothing lies above the top of the open range.
            *low = 1, *high = 0;
        } else {
            *low = *high + 1, *high = open_high;
        }
        break;
    case CMP_LE:
        *low = 0;
        break;
    case CMP_LT:
        if (*low == 0) {
            *low = 1, *high = 0;
        } else {
            *high = *low - 1, *low = 0;
        }
        break;
    default:
        break;
    }
}

void cmp_range_parse(const char **cursor, uint32_t *min, uint32_t *max) {
    const char *p = *cursor;
    if (!*p) {
        *min = 1, *max = INT_RANGE_HIGH;
        return;
    }
    int cmp = cmp_parse(&p);
    uint64_t low = (uint32_t) text_parse_u64_commas(&p);
    uint64_t high = low;
    if (text_skip_prefix(&p, "..") || text_skip_prefix(&p, "-")) {
        high = (uint32_t) text_parse_u64_commas(&p);
    }
    cmp_apply64(cmp, &low, &high, INT_RANGE_HIGH);
    *min = (uint32_t) low, *max = (uint32_t) high;
    *cursor = p;
}

// The size words, tried in this order as case-blind prefixes.
static bool _size_word(const char **cursor, db_range64_t *r) {
    uint64_t tiny = (uint32_t) size_tiny, small = (uint32_t) size_small, medium = (uint32_t) size_medium;
    uint64_t large = (uint32_t) size_large, huge = (uint32_t) size_huge;
    struct word_t {
        const char *word;
        uint64_t low, high;
    };
    const word_t words[] = {
        {"empty", 0, 0},
        {"tiny", 1, tiny},
        {"small", tiny + 1, small},
        {"medium", small + 1, medium},
        {"large", medium + 1, large},
        {"huge", large + 1, huge},
        {"gigantic", huge + 1, DB_OPEN_HIGH},
        {"unknown", DB_UNKNOWN_64, DB_UNKNOWN_64},
    };
    for (const word_t &w : words) {
        if (text_skip_prefix_nocase(cursor, w.word)) {
            r->low = w.low, r->high = w.high;
            return true;
        }
    }
    return false;
}

// A number with an optional fraction and unit. Units of a KB and more describe a size as shown in whole
// KB, so the range is the 1,024 values that round up to it.
static void _size_number(const char **cursor, db_range64_t *r) {
    const char *p = *cursor;
    uint64_t value = text_parse_u64_commas(&p);
    uint64_t fraction = 0, scale = 1;
    if (p[0] == '.' && p[1] != '.') {
        p++;
        while (*p >= '0' && *p <= '9') {
            // Digits beyond what 64 bits can scale add nothing measurable and are skipped.
            if (scale <= 100000000000000000ull) {
                fraction = fraction * 10 + (uint64_t) (*p - '0');
                scale *= 10;
            }
            p++;
        }
    }
    static const struct {
        const char *unit;
        uint64_t bytes;
    } units[] = {{"eb", 1ull << 60},
                 {"pb", 1ull << 50},
                 {"tb", 1ull << 40},
                 {"gb", 1ull << 30},
                 {"mb", 1ull << 20},
                 {"kb", 1ull << 10},
                 {"b", 1}};
    uint64_t unit = 1;
    for (const auto &u : units) {
        if (text_skip_prefix_nocase(&p, u.unit)) {
            unit = u.bytes;
            break;
        }
    }
    value = value * unit + fraction * unit / scale;
    if (unit >= 1024) {
        r->high = (value + 1023) & ~1023ull;
        r->low = r->high - 1023;
    } else {
        r->low = r->high = value;
    }
    *cursor = p;
}

static void _size_single(const char **cursor, db_range64_t *r) {
    if (!**cursor) {
        r->low = 0, r->high = DB_OPEN_HIGH;
        return;
    }
    if (!_size_word(cursor, r)) {
        _size_number(cursor, r);
    }
}

void size_literal_parse(const char **cursor, db_range64_t *range, bool allow_range) {
    _size_single(cursor, range);
    if (allow_range && (text_skip_prefix(cursor, "..") || text_skip_prefix(cursor, "-"))) {
        db_range64_t second;
        _size_single(cursor, &second);
        range->high = second.high;
    }
}
