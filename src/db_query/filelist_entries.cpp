// filelist: entries. The list is folded once, the term's way (case and diacritics count only when the
// term says so), and each half (names, full paths) is sorted bytewise, which is the code point order of
// the folded text: a record's name or path is then found by a binary search that folds only the record's
// side, as the plain matchers do.
#include <cstring>

#include "db_query/exec_internal.h"
#include "mem/mem.h"
#include "text/text.h"

static int _entry_compare(void *ctx, uint32_t a, uint32_t b) {
    const char *text = (const char *) ctx;
    return strcmp(text + a, text + b);
}

void db_prepass_filelist_build(db_prepass_t *p, const db_op_filelist_t *f) {
    p->folding = f->folding;
    uint32_t count = 1;
    for (uint32_t i = 0; i < f->len; i++)
        count += f->text[i] == '|';
    p->names = (uint32_t *) mem_alloc(count * sizeof(uint32_t));
    p->paths = (uint32_t *) mem_alloc(count * sizeof(uint32_t));
    str_t all, one;
    str_init(&all), str_init(&one);
    uint32_t start = 0;
    for (uint32_t i = 0; i <= f->len; i++) {
        if (i < f->len && f->text[i] != '|')
            continue;
        uint32_t at = (uint32_t) all.len;
        term_fold(&one, f->text + start, i - start, (text_folding_t) f->folding);
        str_cat(&all, one.ptr, one.len);
        str_cat_char(&all, 0);
        if (memchr(f->text + start, OS_SEP, i - start))
            p->paths[p->path_count++] = at;
        else
            p->names[p->name_count++] = at;
        start = i + 1;
    }
    p->text = (char *) mem_dup(all.ptr, (size_t) all.len);
    str_kill(&all), str_kill(&one);
    os_qsort_ex(p->names, p->name_count, p->text, _entry_compare);
    os_qsort_ex(p->paths, p->path_count, p->text, _entry_compare);
}

// A record's text against a folded entry, in the entries' order.
static int _compare(text_folding_t f, const char *s, size_t len, const char *e, size_t elen) {
    switch (f) {
    case TEXT_FOLD_EXACT: {
        int d = memcmp(s, e, len < elen ? len : elen);
        return d ? d : (len > elen) - (len < elen);
    }
    case TEXT_FOLD_LOWER:
        return text_compare_lower(s, len, e, elen);
    case TEXT_FOLD_BASE:
        return text_compare_base(s, len, e, elen);
    default:
        return text_compare_lower_base(s, len, e, elen);
    }
}

static bool _entry_find(const db_prepass_t *p, const uint32_t *entries, uint32_t n, const char *s,
                        size_t len) {
    uint32_t lo = 0, hi = n;
    while (lo < hi) {
        uint32_t mid = (lo + hi) / 2;
        const char *e = p->text + entries[mid];
        int c = _compare((text_folding_t) p->folding, s, len, e, strlen(e));
        if (c == 0)
            return true;
        if (c > 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    return false;
}

bool db_prepass_filelist_test(const db_prepass_t *p, const char *name, size_t nlen, const char *path,
                              size_t plen) {
    if (_entry_find(p, p->names, p->name_count, name, nlen))
        return true;
    return path && _entry_find(p, p->paths, p->path_count, path, plen);
}
