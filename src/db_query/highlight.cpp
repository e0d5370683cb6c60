// Highlighting: which bytes of a row's name and path the search matched, so that the list can draw them
// bold. Each positive op of the row's chain that is true of the record (asked of the real evaluator, so
// that a highlight never claims a match the search didn't make) marks where it matched: every occurrence
// of a plain term, the span of an anchored one, the characters a wildcard pattern's literals took, each
// match of a regular expression, the extension that ext: accepted. The spans are found on the text folded
// the op's way, with a map from each folded byte back to the bytes of the code point it came from.
#include <cstring>
#include <pcre2.h>

#include "db_query/exec_internal.h"
#include "mem/mem.h"

bool db_query_index_ready(const db_t *db);

void db_highlight_init(db_highlight_t *h) {
    str_init(&h->text);
    str_init(&h->mask);
}

void db_highlight_kill(db_highlight_t *h) {
    str_kill(&h->text);
    str_kill(&h->mask);
}

// ---- folding with a way back ------------------------------------------------------------------------------

// A text folded the way an op folds names, and for each folded byte the original bytes of its code point.
struct folded_t {
    str_t text;
    uint32_t *from, *to; // per folded byte: [from, to) in the original
};

static uint32_t _fold_cp(uint32_t cp, text_folding_t f) {
    if (cp < 0x80)
        return (f == TEXT_FOLD_EXACT || f == TEXT_FOLD_BASE || cp < 'A' || cp > 'Z') ? cp : cp + 32;
    switch (f) {
    case TEXT_FOLD_LOWER:
        return text_fold_lower(cp);
    case TEXT_FOLD_LOWER_BASE:
        return text_fold_lower_base(cp);
    case TEXT_FOLD_BASE:
        return text_fold_base(cp);
    default:
        // The exact form compares bytes and the ASCII form leaves every other byte as it stands.
        return cp;
    }
}

static void _fold(folded_t *out, const char *text, size_t len, text_folding_t f) {
    str_init(&out->text);
    out->from = (uint32_t *) mem_alloc((len * 4 + 1) * sizeof(uint32_t));
    out->to = (uint32_t *) mem_alloc((len * 4 + 1) * sizeof(uint32_t));
    const uint8_t *p = (const uint8_t *) text;
    size_t i = 0;
    while (i < len) {
        int n = 1;
        char buf[4];
        int w;
        if (p[i] < 0x80 || f == TEXT_FOLD_EXACT || f == TEXT_FOLD_ASCII) {
            buf[0] = (char) _fold_cp(p[i], f);
            w = 1;
        } else {
            uint32_t cp = text_decode(p + i, len - i, &n);
            if (n < 1)
                n = 1;
            w = text_encode(_fold_cp(cp, f), buf);
        }
        for (int k = 0; k < w; k++) {
            out->from[out->text.len + k] = (uint32_t) i;
            out->to[out->text.len + k] = (uint32_t) (i + (size_t) n);
        }
        str_cat(&out->text, buf, w);
        i += (size_t) n;
    }
}

static void _fold_kill(folded_t *f) {
    str_kill(&f->text);
    mem_free(f->from);
    mem_free(f->to);
}

// Marks the original bytes behind folded bytes [a, b).
static void _mark(const folded_t *f, uint8_t *mask, size_t a, size_t b) {
    for (size_t k = a; k < b; k++)
        memset(mask + f->from[k], 1, f->to[k] - f->from[k]);
}

static bool _boundary(const char *t, size_t len, size_t at) {
    return at == 0 || at >= len || !text_is_word_byte((uint8_t) t[at - 1]) ||
           !text_is_word_byte((uint8_t) t[at]);
}

// ---- wildcards -------------------------------------------------------------------------------------------

struct wild_t {
    const char *s;
    size_t slen;
    const char *p;
    size_t plen;
    bool to_end;     // the pattern must take the text to its end
    bool word_end;   // the match must end on a word boundary
    uint8_t *taken;  // per folded byte: taken by a literal or a '?'
    uint32_t budget; // steps left: a pathological pattern gives up rather than run on
};

static size_t _cp_len(const char *s, size_t at, size_t len) {
    size_t n = 1;
    while (at + n < len && ((uint8_t) s[at + n] & 0xC0) == 0x80)
        n++;
    return n;
}

// The pattern from pi on against the text from si on; true with the taken bytes marked.
static bool _wild(wild_t *w, size_t pi, size_t si) {
    if (!w->budget--)
        return false;
    if (pi == w->plen) {
        if (w->to_end && si != w->slen)
            return false;
        return !w->word_end || _boundary(w->s, w->slen, si);
    }
    char c = w->p[pi];
    if (c == '*') {
        for (size_t k = w->slen;; k--) {
            // Longest first, so that the literals that follow take the last place they can.
            if ((k == si || k == w->slen || ((uint8_t) w->s[k] & 0xC0) != 0x80) && _wild(w, pi + 1, k))
                return true;
            if (k == si)
                return false;
        }
    }
    if (si >= w->slen)
        return false;
    size_t n = c == '?' ? _cp_len(w->s, si, w->slen) : 1;
    if (c != '?' && w->s[si] != c)
        return false;
    if (!_wild(w, pi + 1, si + n))
        return false;
    memset(w->taken + si, 1, n);
    return true;
}

static void _wild_spans(const folded_t *f, uint8_t *mask, const char *pat, size_t plen,
                        text_family_t family) {
    const char *s = f->text.ptr;
    size_t len = (size_t) f->text.len;
    uint8_t *taken = (uint8_t *) mem_alloc(len + 1);
    memset(taken, 0, len + 1);
    wild_t w = {s, len, pat, plen, family == TEXT_MATCH_WILDCARD_WHOLE, false, taken, 100000};
    w.word_end = family == TEXT_MATCH_WILDCARD_WORD_ANCHORED || family == TEXT_MATCH_WILDCARD_WORD_CONTAINS;
    bool anchored = family == TEXT_MATCH_WILDCARD_WHOLE || family == TEXT_MATCH_WILDCARD_PREFIX ||
                    family == TEXT_MATCH_WILDCARD_WORD_ANCHORED;
    for (size_t start = 0; start <= len; start += start < len ? _cp_len(s, start, len) : 1) {
        if (family == TEXT_MATCH_WILDCARD_WORD_CONTAINS && !_boundary(s, len, start))
            continue;
        if (_wild(&w, 0, start))
            break;
        if (anchored)
            break;
    }
    for (size_t k = 0; k < len; k++)
        if (taken[k])
            _mark(f, mask, k, k + 1);
    mem_free(taken);
}

// ---- one op
// ------------------------------------------------------------------------------------------------

// The spans of a plain text op in subject (the name, or the full path).
static void _text_spans(const db_text_op_t *t, const db_op_text_t *pt, const char *subject, size_t len,
                        uint8_t *mask) {
    if (pt->offset > len)
        return;
    folded_t f;
    _fold(&f, subject, len, t->folding);
    const char *s = f.text.ptr;
    size_t flen = (size_t) f.text.len, tl = pt->len;
    // The compare starts at the op's offset in the original, which the folding may have moved.
    size_t first = 0;
    while (first < flen && f.from[first] < pt->offset)
        first++;
    switch (t->family) {
    case TEXT_MATCH_CONTAINS:
    case TEXT_MATCH_WORD_CONTAINS:
        for (size_t at = first; tl && at + tl <= flen;) {
            bool hit = !memcmp(s + at, pt->text, tl);
            if (hit && t->family == TEXT_MATCH_WORD_CONTAINS)
                hit = _boundary(s, flen, at) && _boundary(s, flen, at + tl);
            if (hit) {
                _mark(&f, mask, at, at + tl);
                at += tl;
            } else {
                at++;
            }
        }
        break;
    case TEXT_MATCH_EQUAL:
        if (flen - first == tl && !memcmp(s + first, pt->text, tl))
            _mark(&f, mask, first, flen);
        break;
    case TEXT_MATCH_STARTWITH:
        if (flen - first >= tl && !memcmp(s + first, pt->text, tl))
            _mark(&f, mask, first, first + tl);
        break;
    case TEXT_MATCH_ENDWITH:
        if (flen - first >= tl && !memcmp(s + flen - tl, pt->text, tl))
            _mark(&f, mask, flen - tl, flen);
        break;
    default:
        _wild_spans(&f, mask, pt->text, tl, t->family);
        break;
    }
    _fold_kill(&f);
}

// Every match of a regular expression, one after the other.
static void _regex_spans(const void *code, const char *subject, size_t len, uint8_t *mask) {
    pcre2_match_data *md = pcre2_match_data_create(1, nullptr);
    size_t at = 0;
    while (at <= len &&
           pcre2_match((const pcre2_code *) code, (PCRE2_SPTR) subject, len, at, 0, md, nullptr) >= 0) {
        const PCRE2_SIZE *ov = pcre2_get_ovector_pointer(md);
        memset(mask + ov[0], 1, ov[1] - ov[0]);
        // An empty match steps one code point on, so that the walk ends.
        at = ov[1] > ov[0] ? ov[1] : ov[1] + (ov[1] < len ? _cp_len(subject, ov[1], len) : 1);
    }
    pcre2_match_data_free(md);
}

// The marks of one op on the full path (the name is its last name_len bytes).
static void _op_spans(const db_op_t *op, const char *full, size_t flen, size_t name_len, uint8_t *mask) {
    uint32_t code = op->op;
    db_text_op_t t;
    bool neg;
    const char *name = full + flen - name_len;
    uint8_t *name_mask = mask + flen - name_len;
    if (db_text_op(code, &t, &neg)) {
        if (!neg)
            _text_spans(&t, (const db_op_text_t *) db_op_payload(op), t.path ? full : name,
                        t.path ? flen : name_len, t.path ? mask : name_mask);
        return;
    }
    if (code >= 226 && code <= 227) {
        bool path = code & 1;
        _regex_spans(((const db_op_regex_t *) db_op_payload(op))->code, path ? full : name,
                     path ? flen : name_len, path ? mask : name_mask);
        return;
    }
    // ext: families: base + case + 2 diacritics + 4 NOT, and the ASCII pair (170, 382) + NOT.
    bool ext = (code >= 162 && code <= 171) || (code >= 374 && code <= 383);
    uint32_t base = code >= 374 ? 374 : 162;
    bool ext_neg = code >= base + 8 ? (code & 1) != 0 : ((code - base) & 4) != 0;
    if (ext && !ext_neg) {
        uint32_t ext_len;
        const char *e = db_name_extension(name, (uint32_t) name_len, &ext_len);
        memset(name_mask + (e - name), 1, ext_len);
    }
}

// True for the ops that mark text: plain text, regular expressions, ext:.
static bool _marks_text(const db_op_t *op) {
    db_text_op_t t;
    bool neg;
    uint32_t code = op->op;
    return db_text_op(code, &t, &neg) || (code >= 226 && code <= 227) || (code >= 162 && code <= 171) ||
           (code >= 374 && code <= 383);
}

// ---- the row ---------------------------------------------------------------------------------------------

static void _set(db_highlight_t *h, const char *text, size_t len, const uint8_t *mask) {
    str_set_n(&h->text, text, (int) len);
    str_set_n(&h->mask, (const char *) mask, (int) len);
}

bool _db_get_highlighted_result(db_query_t *q, int index, db_highlight_t *name_out, db_highlight_t *path_out,
                                int mode) {
    db_highlight_t *outs[2] = {name_out, path_out};
    for (db_highlight_t *h : outs)
        if (h)
            str_set(&h->text, ""), str_set(&h->mask, "");
    if (!db_query_index_ready(q->db))
        return false;
    db_wait(q->db, "_db_get_highlighted_result");
    db_ref_t r;
    bool folder;
    if (!_db_result_at(q, index, &r, &folder))
        return false;
    str_t full;
    str_init(&full);
    db_get_full_path(&full, r);
    uint32_t name_len;
    db_record_name(r, &name_len);
    size_t flen = (size_t) full.len;
    uint8_t *mask = (uint8_t *) mem_alloc(flen + 1);
    memset(mask, 0, flen + 1);
    db_eval_scratch_t s;
    db_eval_scratch_init(&s);
    // Only the ops that can mark anything are asked: the others (dupe:, child: ...) may walk the index.
    for (const db_op_t *op = folder ? q->search.folder_ops : q->search.file_ops; op; op = op->list_next)
        if (_marks_text(op) && _db_query_eval_op(q, op, folder, r, &s, -1))
            _op_spans(op, full.ptr, flen, name_len, mask);
    db_eval_scratch_kill(&s);
    // The path is the parent's full path: the full path less the separator and the name (a root has none).
    size_t path_len = db_record_parent(r) ? flen - name_len : 0;
    if (path_len && full.ptr[path_len - 1] == OS_SEP && !(path_len == 1 && OS_SEP == '/'))
        path_len--;
    if ((mode == 0 || mode == 2) && name_out)
        _set(name_out, full.ptr + flen - name_len, name_len, mask + flen - name_len);
    if ((mode == 1 || mode == 2) && path_out)
        _set(path_out, full.ptr, path_len, mask);
    mem_free(mask);
    str_kill(&full);
    return true;
}
