// Case tables, the folding lookups and the single-code-point encoders and decoders every other file of
// the text layer builds on.
#include "text/fold_tables.h"
#include "text/text.h"

namespace {

struct case_tables_t {
    uint8_t lower[256];
    uint8_t upper[256];
};

// Built at compile time so that the pointers are valid before text_init_tables runs (static
// initialisers of other modules may compare names); text_init_tables only confirms them.
constexpr case_tables_t _text_make_case_tables() {
    case_tables_t t{};
    for (int c = 0; c < 256; c++) {
        uint8_t lo = (uint8_t) c, up = (uint8_t) c;
        if (c >= 128) {
            lo = up = 255;
        } else if (c >= 'A' && c <= 'Z') {
            lo = (uint8_t) (c + 32);
        } else if (c >= 'a' && c <= 'z') {
            up = (uint8_t) (c - 32);
        }
        t.lower[c] = lo;
        t.upper[c] = up;
    }
    return t;
}

constexpr case_tables_t _text_case_tables = _text_make_case_tables();

// Binary search with the midpoint low + (high - low) / 2; at most 12 probes for the largest map.
inline uint32_t _text_fold(const uint16_t *keys, const uint16_t *values, int count, uint32_t cp) {
    if (cp > 0xFFFF || count == 0 || cp < keys[0]) {
        return cp;
    }
    int low = 0, high = count - 1;
    while (low <= high) {
        int mid = low + (high - low) / 2;
        uint32_t k = keys[mid];
        if (k == cp) {
            return values[mid];
        }
        if (k < cp) {
            low = mid + 1;
        } else {
            high = mid - 1;
        }
    }
    return cp;
}

} // namespace

const uint8_t *ascii_lower = _text_case_tables.lower;
const uint8_t *ascii_upper = _text_case_tables.upper;

void text_init_tables() {
    ascii_lower = _text_case_tables.lower;
    ascii_upper = _text_case_tables.upper;
}

uint32_t text_fold_lower(uint32_t cp) {
    return _text_fold(text_fold_lower_keys, text_fold_lower_values, text_fold_lower_count, cp);
}

uint32_t text_fold_base(uint32_t cp) {
    return _text_fold(text_fold_base_keys, text_fold_base_values, text_fold_base_count, cp);
}

uint32_t text_fold_lower_base(uint32_t cp) {
    return _text_fold(text_fold_lower_base_keys, text_fold_lower_base_values, text_fold_lower_base_count, cp);
}

text_fold_map_t text_fold_map(text_map_t which) {
    switch (which) {
    case TEXT_MAP_LOWER:
        return {text_fold_lower_keys, text_fold_lower_values, text_fold_lower_count};
    case TEXT_MAP_BASE:
        return {text_fold_base_keys, text_fold_base_values, text_fold_base_count};
    case TEXT_MAP_LOWER_BASE:
        break;
    }
    return {text_fold_lower_base_keys, text_fold_lower_base_values, text_fold_lower_base_count};
}

uint32_t text_decode_z(const uint8_t *p, int *len) {
    uint32_t c = p[0];
    if (c < 0x80) {
        *len = 1;
        return c;
    }
    if ((c & 0xE0) == 0xC0 && p[1]) {
        *len = 2;
        return ((c & 0x1F) << 6) | (p[1] & 0x3F);
    }
    if ((c & 0xF0) == 0xE0 && p[1] && p[2]) {
        *len = 3;
        return ((c & 0x0F) << 12) | ((p[1] & 0x3F) << 6) | (p[2] & 0x3F);
    }
    if ((c & 0xF8) == 0xF0 && p[1] && p[2] && p[3]) {
        *len = 4;
        return ((c & 0x07) << 18) | ((p[1] & 0x3F) << 12) | ((p[2] & 0x3F) << 6) | (p[3] & 0x3F);
    }
    *len = 1;
    return 0;
}

uint32_t text_decode_back(const uint8_t *begin, const uint8_t *end, int *len) {
    uint8_t last = end[-1];
    *len = 1;
    if (last < 0x80) {
        return last;
    }
    const uint8_t *p = end - 1;
    int n = 1;
    while ((*p & 0xC0) == 0x80 && n < 4 && p > begin) {
        p--;
        n++;
    }
    // The lead must announce exactly the bytes we walked over; otherwise the last byte stands alone.
    bool fits =
        (n == 2 && (*p & 0xE0) == 0xC0) || (n == 3 && (*p & 0xF0) == 0xE0) || (n == 4 && (*p & 0xF8) == 0xF0);
    if (!fits) {
        return 0;
    }
    int consumed;
    uint32_t cp = text_decode(p, (size_t) n, &consumed);
    *len = n;
    return cp;
}

int text_encoded_length(uint32_t cp) {
    if (cp < 0x80) {
        return 1;
    }
    if (cp < 0x800) {
        return 2;
    }
    if (cp < 0x10000) {
        return 3;
    }
    return 4;
}

int text_encode(uint32_t cp, char *out) {
    if (cp < 0x80) {
        out[0] = (char) cp;
        return 1;
    }
    if (cp < 0x800) {
        out[0] = (char) (0xC0 | (cp >> 6));
        out[1] = (char) (0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = (char) (0xE0 | (cp >> 12));
        out[1] = (char) (0x80 | ((cp >> 6) & 0x3F));
        out[2] = (char) (0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = (char) (0xF0 | ((cp >> 18) & 0x07));
    out[1] = (char) (0x80 | ((cp >> 12) & 0x3F));
    out[2] = (char) (0x80 | ((cp >> 6) & 0x3F));
    out[3] = (char) (0x80 | (cp & 0x3F));
    return 4;
}

bool text_is_ascii(const char *text, size_t len) {
    for (size_t i = 0; i < len; i++) {
        if ((uint8_t) text[i] >= 0x80) {
            return false;
        }
    }
    return true;
}
