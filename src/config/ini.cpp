// The .ini parser and the settings' number parser.
//
// A parsed file is one heap block: the pair array followed by the folded keys and the values, so that
// ini_free is one call and a lookup touches nothing but that block.
#include <cstring>

#include "config/config.h"
#include "mem/mem.h"
#include "text/text.h"

static inline char _ini_fold(char c) {
    return (c >= 'A' && c <= 'Z') ? (char) (c + 32) : c;
}

// Compares a folded key with a key that may still hold upper case.
static int _ini_compare_folded(const char *folded, const char *key) {
    for (;;) {
        unsigned char a = (unsigned char) *folded++;
        unsigned char b = (unsigned char) _ini_fold(*key++);
        if (a != b) {
            return a < b ? -1 : 1;
        }
        if (!a) {
            return 0;
        }
    }
}

int32_t config_parse_number(const char *text) {
    const char *p = text;
    bool negative = false;
    if (*p == '-' || *p == '+') {
        negative = *p == '-';
        p++;
    }
    uint32_t value = 0;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        p += 2;
        for (;; p++) {
            int digit = text_hex_digit(*p);
            if (digit < 0) {
                break;
            }
            value = value * 16 + (uint32_t) digit;
        }
    } else {
        for (; *p >= '0' && *p <= '9'; p++) {
            value = value * 10 + (uint32_t) (*p - '0');
        }
    }
    if (negative) {
        value = 0u - value;
    }
    return (int32_t) value;
}

// One key line as the scanner finds it, before sorting: spans into the source text.
struct _ini_line_t {
    const char *key;
    int key_len;
    const char *value;
    int value_len;
};

// Stable merge sort by folded key. Lines arrive in file order, so a stable sort keeps a key's lines in
// line order and the last of each run is the line that wins.
static int _ini_line_compare(const _ini_line_t *a, const _ini_line_t *b) {
    int n = a->key_len < b->key_len ? a->key_len : b->key_len;
    for (int i = 0; i < n; i++) {
        unsigned char x = (unsigned char) _ini_fold(a->key[i]);
        unsigned char y = (unsigned char) _ini_fold(b->key[i]);
        if (x != y) {
            return x < y ? -1 : 1;
        }
    }
    return a->key_len < b->key_len ? -1 : (a->key_len > b->key_len ? 1 : 0);
}

static void _ini_merge_sort(_ini_line_t *lines, _ini_line_t *scratch, int n) {
    if (n < 2) {
        return;
    }
    int half = n / 2;
    _ini_merge_sort(lines, scratch, half);
    _ini_merge_sort(lines + half, scratch, n - half);
    int i = 0, j = half, k = 0;
    while (i < half && j < n) {
        // Take from the right only when strictly smaller: that is what keeps the sort stable.
        if (_ini_line_compare(&lines[j], &lines[i]) < 0) {
            scratch[k++] = lines[j++];
        } else {
            scratch[k++] = lines[i++];
        }
    }
    while (i < half) {
        scratch[k++] = lines[i++];
    }
    while (j < n) {
        scratch[k++] = lines[j++];
    }
    memcpy(lines, scratch, sizeof(_ini_line_t) * (size_t) n);
}

// Is the line "[<section>]" (the name compared without regard to case)? The text behind ']' is ignored.
static bool _ini_section_matches(const char *line, int len, const char *section) {
    int end = 1;
    while (end < len && line[end] != ']') {
        end++;
    }
    int name_len = end - 1;
    if ((int) strlen(section) != name_len) {
        return false;
    }
    for (int i = 0; i < name_len; i++) {
        if (_ini_fold(line[1 + i]) != _ini_fold(section[i])) {
            return false;
        }
    }
    return true;
}

// Scans the text, calling back for each key line inside the wanted section. Returns the count.
static int _ini_scan(const char *text, const char *section, _ini_line_t *out) {
    const char *p = text;
    if ((unsigned char) p[0] == 0xEF && (unsigned char) p[1] == 0xBB && (unsigned char) p[2] == 0xBF) {
        p += 3;
    }
    bool inside = false;
    int count = 0;
    while (*p) {
        const char *line = p;
        while (*p && *p != '\n') {
            p++;
        }
        int len = (int) (p - line);
        if (*p == '\n') {
            p++;
            // A line ends at LF or CR LF; a lone CR elsewhere is part of the text.
            if (len > 0 && line[len - 1] == '\r') {
                len--;
            }
        }
        if (len == 0 || line[0] == '#' || line[0] == ';') {
            continue;
        }
        if (line[0] == '[') {
            inside = _ini_section_matches(line, len, section);
            continue;
        }
        if (!inside) {
            continue;
        }
        const char *eq = (const char *) memchr(line, '=', (size_t) len);
        if (!eq) {
            continue;
        }
        if (out) {
            out[count].key = line;
            out[count].key_len = (int) (eq - line);
            out[count].value = eq + 1;
            out[count].value_len = (int) (line + len - (eq + 1));
        }
        count++;
    }
    return count;
}

ini_t *ini_parse(const char *text, const char *section) {
    int n = _ini_scan(text, section, nullptr);
    _ini_line_t *lines = (_ini_line_t *) mem_alloc(sizeof(_ini_line_t) * (size_t) (n ? n * 2 : 1));
    _ini_scan(text, section, lines);
    _ini_merge_sort(lines, lines + n, n);

    // Keep the last line of each run of equal keys.
    int kept = 0;
    size_t bytes = 0;
    for (int i = 0; i < n; i++) {
        if (i + 1 < n && _ini_line_compare(&lines[i], &lines[i + 1]) == 0) {
            continue;
        }
        lines[kept++] = lines[i];
        bytes += (size_t) lines[i].key_len + 1 + (size_t) lines[i].value_len + 1;
    }

    size_t head = sizeof(ini_t) + sizeof(ini_pair_t) * (size_t) kept;
    char *block = (char *) mem_alloc(head + bytes);
    ini_t *ini = (ini_t *) block;
    ini->pairs = (ini_pair_t *) (block + sizeof(ini_t));
    ini->count = kept;
    char *w = block + head;
    for (int i = 0; i < kept; i++) {
        ini->pairs[i].key = w;
        for (int j = 0; j < lines[i].key_len; j++) {
            *w++ = _ini_fold(lines[i].key[j]);
        }
        *w++ = 0;
        ini->pairs[i].value = w;
        memcpy(w, lines[i].value, (size_t) lines[i].value_len);
        w += lines[i].value_len;
        *w++ = 0;
    }
    mem_free(lines);
    return ini;
}

const char *ini_get(const ini_t *ini, const char *key, const char *def) {
    int lo = 0, hi = ini->count;
    while (lo < hi) {
        int mid = lo + (hi - lo) / 2;
        int c = _ini_compare_folded(ini->pairs[mid].key, key);
        if (c == 0) {
            return ini->pairs[mid].value;
        }
        if (c < 0) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return def;
}

void ini_free(ini_t *ini) {
    mem_free(ini);
}
