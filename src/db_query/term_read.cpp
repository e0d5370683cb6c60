// Reading one term's text: quotes, keyword terms, comparison prefixes and the escapes. One routine
// serves both passes, so the measured size and the written bytes cannot disagree.
#include <cstring>

#include "db_query/query_internal.h"
#include "text/text.h"

// Function names that take no argument: the term is exactly the keyword, and what follows starts a new
// operand.
static const char *const keyword_terms[] = {
    "root:",         "empty:",      "dupe:",
    "sizedupe:",     "dupesize:",   "datecreateddupe:",
    "dcdupe:",       "dupedc:",     "datemodifieddupe:",
    "dmdupe:",       "dupedm:",     "dateaccesseddupe:",
    "dadupe:",       "dupeda:",     "attributesdupe:",
    "attribdupe:",   "dupeattrib:", "namepartdupe:",
    "dupenamepart:",
};

// Functions whose argument may begin with a comparison: "size:>" and "dm:<" keep their '<' and '>'.
static const char *const compare_names[] = {
    "bitdepth",
    "childcount",
    "childfilecount",
    "childfoldercount",
    "count",
    "dateaccessed",
    "datecreated",
    "datemodified",
    "daterun",
    "da",
    "dc",
    "dm",
    "dr",
    "frn",
    "fsi",
    "len",
    "depth",
    "parents",
    "rc",
    "recentchange",
    "runcount",
    "size",
    "wide",
    "width",
    "high",
    "height",
    "dimension",
    "dimensions",
    "track",
    "year",
};

static bool _starts(const char *p, const char *literal, size_t *n) {
    size_t len = strlen(literal);
    if (strncmp(p, literal, len) != 0) {
        return false;
    }
    *n = len;
    return true;
}

static void _put(char *out, size_t *n, char c) {
    if (out) {
        out[*n] = c;
    }
    (*n)++;
}

// "#n:" or "#xh:" at p: the UTF-16 unit's UTF-8 bytes into buf. Returns the bytes consumed, 0 when the
// form is not complete.
static size_t _numeric_escape(const char *p, char *buf, int *buf_len) {
    const char *q = p + 1;
    uint32_t value = 0;
    int digits = 0;
    if (*q == 'x' || *q == 'X') {
        q++;
        for (;; q++, digits++) {
            char c = *q;
            int v = text_hex_digit(c);
            if (v < 0) {
                break;
            }
            value = ((value << 4) | (uint32_t) v) & 0xFFFF;
        }
    } else {
        for (; *q >= '0' && *q <= '9'; q++, digits++) {
            value = (value * 10 + (uint32_t) (*q - '0')) & 0xFFFF;
        }
    }
    if (!digits || *q != ':') {
        return 0;
    }
    *buf_len = text_encode(value, buf);
    return (size_t) (q + 1 - p);
}

static const struct {
    const char *name;
    char value;
} named_escapes[] = {{"quot:", '"'}, {"apos:", '\''}, {"amp:", '&'}, {"lt:", '<'}, {"gt:", '>'}};

// The flag test on the raw text: lower-case letters and digits up to a ':' or the end of the text.
static uint32_t _maybe_function(const char *p) {
    while ((*p >= 'a' && *p <= 'z') || (*p >= '0' && *p <= '9')) {
        p++;
    }
    return *p == ':' || *p == 0 ? (uint32_t) TERM_MAYBE_FUNCTION : 0u;
}

size_t term_read(const char **cursor, char *out, int depth, bool round, uint32_t *maybe_function) {
    const char *p = *cursor;
    size_t n = 0, skip;
    *maybe_function = _maybe_function(p);
    for (const char *k : keyword_terms) {
        if (_starts(p, k, &skip)) {
            if (out) {
                memcpy(out, p, skip);
            }
            *cursor = p + skip;
            return skip;
        }
    }
    for (const char *name : compare_names) {
        if (_starts(p, name, &skip) && p[skip] == ':' && (p[skip + 1] == '<' || p[skip + 1] == '>')) {
            for (size_t i = 0; i < skip + 2; i++) {
                _put(out, &n, p[i]);
            }
            p += skip + 2;
            break;
        }
    }
    bool quoted = false;
    while (*p) {
        char c = *p;
        if (c == '"') {
            quoted = !quoted;
            p++;
            continue;
        }
        if (quoted) {
            _put(out, &n, c);
            p++;
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '|' || c == '<' ||
            (c == '>' && depth > 0) || (c == ')' && depth > 0 && round)) {
            break;
        }
        bool named = false;
        for (const auto &e : named_escapes) {
            if (_starts(p, e.name, &skip)) {
                _put(out, &n, e.value);
                p += skip;
                named = true;
                break;
            }
        }
        if (named) {
            continue;
        }
        if (c == '#') {
            char buf[4];
            int len = 0;
            size_t used = _numeric_escape(p, buf, &len);
            if (used) {
                for (int i = 0; i < len; i++) {
                    _put(out, &n, buf[i]);
                }
                p += used;
                continue;
            }
        }
        _put(out, &n, c);
        p++;
    }
    if (n == 0) {
        *maybe_function = TERM_MAYBE_FUNCTION;
    }
    *cursor = p;
    return n;
}
