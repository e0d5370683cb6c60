// The macro pass over a raw search line.
#include "db_query/expand.h"

#include <cstring>

#include "config/config.h"
#include "mem/mem.h"
#include "os/os.h"

#define EXPAND_MAX_DEPTH 64
// Macros that name each other more than once (or use a bookmark argument twice) grow exponentially with
// depth; past this size of output the pass stops expanding and copies what is left as it stands.
#define EXPAND_MAX_BYTES (1 << 20)

struct expand_t {
    const db_macro_t *filters;
    int filter_count;
    const db_macro_t *bookmarks;
    int bookmark_count;
};

static void _expand(const expand_t *e, str_t *out, const char *text, size_t len, int depth);

static bool _is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

static void _flags(str_t *out, uint32_t flags) {
    static const struct {
        uint32_t bit;
        const char *on, *off;
    } names[] = {{SEARCH_CASE, "filtercase:", "nofiltercase:"},
                 {SEARCH_PATH, "filterpath:", "nofilterpath:"},
                 {SEARCH_WHOLEWORD, "filterwholeword:", "nofilterwholeword:"},
                 {SEARCH_DIACRITICS, "filterdiacritics:", "nofilterdiacritics:"},
                 {SEARCH_REGEX, "filterregex:", "nofilterregex:"}};
    for (const auto &n : names) {
        str_cat_z(out, (flags & n.bit) ? n.on : n.off);
    }
}

// What a macro becomes: its flags and its own search (expanded one level deeper) in a group.
static void _write_macro(const expand_t *e, str_t *out, const db_macro_t *m, const char *search, size_t len,
                         int depth) {
    bool outer = len > 0;
    if (outer) {
        str_cat_char(out, '<');
    }
    if (m->use_flags) {
        _flags(out, m->flags);
    }
    str_cat_char(out, '<');
    if (depth + 1 < EXPAND_MAX_DEPTH && out->len < EXPAND_MAX_BYTES) {
        _expand(e, out, search, len, depth + 1);
    } else {
        str_cat(out, search, (int) len);
    }
    str_cat_z(out, " >");
    if (outer) {
        str_cat_char(out, '>');
    }
}

// A bookmark's argument: to the next white space or '|' outside quotes, or a whole <...> group whose
// outer brackets are dropped. Returns the bytes consumed and sets the argument's span.
static size_t _argument(const char *p, const char *end, const char **arg, size_t *arg_len) {
    const char *q = p;
    if (q < end && *q == '<') {
        int depth = 0;
        bool quoted = false;
        for (; q < end; q++) {
            if (*q == '"') {
                quoted = !quoted;
            } else if (!quoted && *q == '<') {
                depth++;
            } else if (!quoted && *q == '>' && --depth == 0) {
                break;
            }
        }
        *arg = p + 1;
        *arg_len = (size_t) (q - p - 1);
        return q < end ? (size_t) (q + 1 - p) : (size_t) (q - p);
    }
    bool quoted = false;
    for (; q < end; q++) {
        if (*q == '"') {
            quoted = !quoted;
        } else if (!quoted && (_is_space(*q) || *q == '|')) {
            break;
        }
    }
    *arg = p;
    *arg_len = (size_t) (q - p);
    return (size_t) (q - p);
}

// The bookmark's search with every "param:" replaced by the argument.
static void _substitute(str_t *out, const char *search, const char *param, size_t param_len, const char *arg,
                        size_t arg_len) {
    str_clear(out);
    // An argument that holds the macro again can double the text at each level: the substituted search
    // is cut at the pass's size bound.
    for (const char *p = search; *p && out->len < EXPAND_MAX_BYTES;) {
        if (param_len && strncmp(p, param, param_len) == 0 && p[param_len] == ':') {
            str_cat(out, arg, (int) arg_len);
            p += param_len + 1;
        } else {
            str_cat_char(out, *p++);
        }
    }
}

// Tries every macro at p. Returns the bytes of text it replaced, 0 when none stands here.
static size_t _macro_at(const expand_t *e, str_t *out, const char *p, const char *end, int depth) {
    size_t left = (size_t) (end - p);
    for (int i = 0; i < e->filter_count; i++) {
        const db_macro_t *m = &e->filters[i];
        size_t n = strlen(m->macro);
        if (n && n < left && memcmp(p, m->macro, n) == 0 && p[n] == ':') {
            _write_macro(e, out, m, m->search, strlen(m->search), depth);
            return n + 1;
        }
    }
    for (int i = 0; i < e->bookmark_count; i++) {
        const db_macro_t *m = &e->bookmarks[i];
        const char *lt = strchr(m->macro, '<');
        size_t n = lt ? (size_t) (lt - m->macro) : strlen(m->macro);
        if (!n || n >= left || memcmp(p, m->macro, n) != 0 || p[n] != ':') {
            continue;
        }
        if (!lt) {
            _write_macro(e, out, m, m->search, strlen(m->search), depth);
            return n + 1;
        }
        const char *gt = strchr(lt, '>');
        size_t param_len = gt ? (size_t) (gt - lt - 1) : strlen(lt + 1);
        const char *arg;
        size_t arg_len;
        size_t used = _argument(p + n + 1, end, &arg, &arg_len);
        str_t search;
        str_init(&search);
        _substitute(&search, m->search, lt + 1, param_len, arg, arg_len);
        _write_macro(e, out, m, search.ptr, (size_t) search.len, depth);
        str_kill(&search);
        return n + 1 + used;
    }
    return 0;
}

static void _expand(const expand_t *e, str_t *out, const char *text, size_t len, int depth) {
    const char *p = text, *end = text + len;
    bool quoted = false, word_start = true;
    int group = 0;
    while (p < end) {
        char c = *p;
        if (!quoted && word_start && out->len < EXPAND_MAX_BYTES) {
            size_t used = _macro_at(e, out, p, end, depth);
            if (used) {
                p += used;
                continue;
            }
        }
        str_cat_char(out, c);
        p++;
        if (c == '"') {
            quoted = !quoted;
            word_start = false;
            continue;
        }
        if (quoted) {
            continue;
        }
        if (c == '<') {
            group++;
        } else if (c == '>' && group > 0) {
            group--;
            word_start = true;
            continue;
        }
        word_start = c == ':' || c == '|' || c == '<' || _is_space(c) || (c == '!' && word_start);
    }
}

void db_expand_search(str_t *out, const char *text, const db_macro_t *filters, int filter_count,
                      const db_macro_t *bookmarks, int bookmark_count) {
    expand_t e = {filters, filter_count, bookmarks, bookmark_count};
    str_clear(out);
    _expand(&e, out, text, strlen(text), 0);
}

void db_expand_environment(str_t *text) {
    str_t out, value, name;
    str_init(&out);
    str_init(&value);
    str_init(&name);
    const char *p = text->ptr, *end = text->ptr + text->len;
    while (p < end) {
        const char *close = *p == '%' ? (const char *) memchr(p + 1, '%', (size_t) (end - p - 1)) : nullptr;
        if (close && close > p + 1) {
            str_set_n(&name, p + 1, (int) (close - p - 1));
            if (os_getenv(name.ptr, &value)) {
                str_cat(&out, value.ptr, value.len);
                p = close + 1;
                continue;
            }
        }
        str_cat_char(&out, *p++);
    }
    str_set_n(text, out.ptr, out.len);
    str_kill(&out);
    str_kill(&value);
    str_kill(&name);
}

void db_expand_all(str_t *out, const char *text, const db_macro_t *filters, int filter_count,
                   const db_macro_t *bookmarks, int bookmark_count) {
    db_expand_search(out, text, filters, filter_count, bookmarks, bookmark_count);
    if (expand_environment_variables) {
        db_expand_environment(out);
    }
}
