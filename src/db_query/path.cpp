// Parse-time lookups of folders: path roots, infolder: and shell:. They read the index once, here, so
// that the scan compares a few references per record instead of building and comparing paths.
#include <cstring>

#include "config/config.h"
#include "db/db.h"
#include "db_query/query_internal.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os_shell.h"

static const bool is_windows = OS_SEP == '\\';

// A record's text (name or full path) equal to a folded text under the folding.
static bool _equal_folded(text_folding_t folding, const char *name, size_t len, const char *folded,
                          size_t flen) {
    switch (folding) {
    case TEXT_FOLD_LOWER:
        return text_compare_lower(name, len, folded, flen) == 0;
    case TEXT_FOLD_LOWER_BASE:
        return text_compare_lower_base(name, len, folded, flen) == 0;
    case TEXT_FOLD_BASE:
        return text_compare_base(name, len, folded, flen) == 0;
    default:
        return text_equal_exact(name, len, folded, flen) ||
               (folding == TEXT_FOLD_ASCII && text_equal_ascii(name, len, folded, flen));
    }
}

static void _fold(str_t *out, const char *text, size_t len, text_folding_t folding) {
    term_fold(out, text, len, folding == TEXT_FOLD_ASCII ? TEXT_FOLD_LOWER : folding);
}

static text_folding_t _path_folding(uint32_t flags) {
    return text_folding_for((flags & TERM_CASE) != 0, (flags & TERM_DIACRITICS) != 0);
}

static int _ref_compare(const void *a, const void *b) {
    mem_ref_t x = *(const mem_ref_t *) a, y = *(const mem_ref_t *) b;
    return x < y ? -1 : x > y;
}

// Sorts references (with their include bytes) by value: the scan's binary search needs that order.
static void _sort_entries(mem_ref_t *refs, uint8_t *include, uint32_t n) {
    for (uint32_t i = 1; i < n; i++) {
        mem_ref_t r = refs[i];
        uint8_t inc = include ? include[i] : 0;
        uint32_t j = i;
        while (j > 0 && _ref_compare(&refs[j - 1], &r) > 0) {
            refs[j] = refs[j - 1];
            if (include) {
                include[j] = include[j - 1];
            }
            j--;
        }
        refs[j] = r;
        if (include) {
            include[j] = inc;
        }
    }
}

// A growing list of entries found at parse time.
struct entries_t {
    mem_ref_t *refs;
    uint8_t *include;
    uint8_t *is_file;
    uint32_t count, cap;
};

static void _entries_add(entries_t *e, mem_ref_t ref, bool include, bool is_file) {
    if (e->count == e->cap) {
        e->cap = e->cap ? e->cap * 2 : 8;
        e->refs = (mem_ref_t *) mem_realloc(e->refs, e->cap * sizeof(mem_ref_t));
        e->include = (uint8_t *) mem_realloc(e->include, e->cap);
        e->is_file = (uint8_t *) mem_realloc(e->is_file, e->cap);
    }
    e->refs[e->count] = ref;
    e->include[e->count] = include;
    e->is_file[e->count] = is_file;
    e->count++;
}

typedef void (*array_visit_t)(mem_ref_t r, void *ctx);
static void _each(const mem_array_t *a, array_visit_t visit, void *ctx) {
    for (uint32_t c = 0; c < a->chunk_count; c++) {
        mem_array_chunk_t *chunk = a->table[c];
        const mem_ref_t *items = mem_array_chunk_items(chunk);
        for (uint32_t i = 0; i < chunk->n; i++) {
            visit(items[i], ctx);
        }
    }
}

// The op of a folder lookup in both chains: text and sorted references copied into each.
static void _folders_op(db_search_t *s, db_term_t *t, uint32_t opcode, const char *text, size_t len,
                        const entries_t *e, bool with_include) {
    for (int folder = 1; folder >= 0; folder--) {
        db_op_t *op = db_op_new(s, folder, t, opcode, DB_OPK_FOLDERS, sizeof(db_op_folders_t) + len + 1);
        db_op_folders_t *f = (db_op_folders_t *) db_op_payload(op);
        f->text = (char *) (f + 1);
        memcpy(f->text, text, len);
        f->len = (uint32_t) len;
        f->count = e->count;
        if (e->count) {
            f->folders = (mem_ref_t *) mem_alloc(e->count * sizeof(mem_ref_t));
            memcpy(f->folders, e->refs, e->count * sizeof(mem_ref_t));
            if (with_include) {
                f->include = (uint8_t *) mem_alloc(e->count);
                memcpy(f->include, e->include, e->count);
            }
            _sort_entries(f->folders, f->include, e->count);
        }
    }
}

static void _entries_kill(entries_t *e) {
    mem_free(e->refs);
    mem_free(e->include);
    mem_free(e->is_file);
}

// ---- path roots ----------------------------------------------------------------------------------------

struct root_scan_t {
    entries_t *entries;
    text_folding_t folding;
    const char *text; // folded
    size_t len;
    bool is_file;
    bool trailing_sep; // shape B: the text ends in a separator
    str_t *scratch;
};

// Roots: a root whose name starts with the text is an entry that counts itself; with a trailing separator a
// root equal to the text without it is an entry for its children only.
static void _root_visit(mem_ref_t r, void *ctx) {
    root_scan_t *rs = (root_scan_t *) ctx;
    if (db_record_parent(r)) {
        return;
    }
    uint32_t len;
    const char *name = db_record_name(r, &len);
    text_matcher_t starts = text_matcher(TEXT_MATCH_STARTWITH, rs->folding);
    if (starts(name, len, rs->text, rs->len)) {
        _entries_add(rs->entries, r, true, rs->is_file);
        debug_printf(rs->is_file ? "FILE ROOT %t STARTWITH %s \n" : "FOLDER ROOT %t STARTWITH %s\n", name,
                     (int) len, rs->text);
    } else if (rs->trailing_sep && !rs->is_file &&
               _equal_folded(rs->folding, name, len, rs->text, rs->len - 1)) {
        _entries_add(rs->entries, r, false, false);
    }
}

struct component_scan_t {
    entries_t *entries;
    text_folding_t folding;
    const char *name; // folded last component
    size_t name_len;
    const char *parent; // folded path of its parent
    size_t parent_len;
    str_t *scratch;
};

// A folder named like the text's last component whose parent's full path is the rest of the text.
static void _component_visit(mem_ref_t r, void *ctx) {
    component_scan_t *cs = (component_scan_t *) ctx;
    mem_ref_t parent = db_record_parent(r);
    uint32_t len;
    const char *name = db_record_name(r, &len);
    if (!parent || !_equal_folded(cs->folding, name, len, cs->name, cs->name_len)) {
        return;
    }
    db_get_full_path(cs->scratch, parent);
    if (_equal_folded(cs->folding, cs->scratch->ptr, (size_t) cs->scratch->len, cs->parent, cs->parent_len)) {
        _entries_add(cs->entries, r, false, false);
        debug_printf("FOLDER SEARCH %t\n", name, (int) len);
    }
}

// Shape A: a bare root ("C:", "\\host"; on Linux "/name" with no further separator). Shape B: an
// absolute path ending in a separator. 0 for any other text.
static int _root_shape(const char *text, size_t len) {
    if (!db_path_is_absolute_text(text) || !len) {
        return 0;
    }
    if (text[len - 1] == OS_SEP) {
        return 2;
    }
    // On Linux roots are named by whole paths ("/" is named ""), so "/name" is no bare root: it goes on
    // to the component form.
    if (!is_windows) {
        return 0;
    }
    return memchr(text + 2, OS_SEP, len - 2) ? 0 : 1;
}

bool db_query_path_term(db_search_t *s, db_term_t *t, char *text, int wild_count) {
    size_t len = strlen(text);
    if (wild_count == 1) {
        text[--len] = 0;
    }
    int shape = _root_shape(text, len);
    if (!shape) {
        if (wild_count == 1) {
            text[len++] = '*';
        }
        return false;
    }
    text_folding_t folding = _path_folding(t->flags);
    str_t folded, scratch;
    str_init(&folded);
    str_init(&scratch);
    _fold(&folded, text, len, folding);
    entries_t e = {};
    if (s->db) {
        root_scan_t rs = {&e, folding, folded.ptr, (size_t) folded.len, false, shape == 2, &scratch};
        _each(&s->db->folders, _root_visit, &rs);
        rs.is_file = true;
        _each(&s->db->files, _root_visit, &rs);
        if (shape == 2 && len > 1) {
            // The last component and the path in front of it ("/" stays whole on Linux).
            size_t end = (size_t) folded.len - 1, start = end;
            while (start > 0 && folded.ptr[start - 1] != OS_SEP) {
                start--;
            }
            size_t parent_len = start > 1 ? start - 1 : start;
            component_scan_t cs = {&e,         folding, folded.ptr + start, end - start, folded.ptr,
                                   parent_len, &scratch};
            if (end > start) {
                _each(&s->db->folders, _component_visit, &cs);
            }
        }
    }
    uint32_t n = (t->flags & TERM_NOT) ? 1 : 0;
    bool ascii = db_term_ascii(t->flags, text, len);
    uint32_t c = (t->flags & TERM_CASE) ? 1 : 0, d = (t->flags & TERM_DIACRITICS) ? 1 : 0;
    bool any_file = false, all_self = true, all_below = true;
    for (uint32_t i = 0; i < e.count; i++) {
        any_file |= e.is_file[i] != 0;
        all_self &= e.include[i] != 0;
        all_below &= e.include[i] == 0;
    }
    uint32_t family;
    if (!e.count) {
        family = FAMILY_ROOT_NONE;
    } else if (!any_file && (all_self || all_below)) {
        family = e.count == 1 ? (all_self ? FAMILY_ROOT_SELF : FAMILY_ROOT_BELOW)
                              : (all_self ? FAMILY_ROOTS_SELF : FAMILY_ROOTS_BELOW);
    } else {
        family = FAMILY_ROOT_MIXED;
    }
    uint32_t opcode = ascii ? family + 8 + n : family + c + 2 * d + 4 * n;
    _folders_op(s, t, opcode, folded.ptr, (size_t) folded.len, &e, family == FAMILY_ROOT_MIXED);
    _entries_kill(&e);
    str_kill(&folded);
    str_kill(&scratch);
    return true;
}

// ---- infolder: -----------------------------------------------------------------------------------------

struct infolder_scan_t {
    entries_t *entries;
    text_folding_t folding;
    const char *text;
    size_t len;
    str_t *scratch;
};

static void _infolder_visit(mem_ref_t r, void *ctx) {
    infolder_scan_t *is = (infolder_scan_t *) ctx;
    db_get_full_path(is->scratch, r);
    if (_equal_folded(is->folding, is->scratch->ptr, (size_t) is->scratch->len, is->text, is->len)) {
        _entries_add(is->entries, r, false, false);
    }
}

bool db_query_infolder(db_search_t *s, db_term_t *t) {
    static const char *const literals[] = {"infolder:", "parent:", "nosubfolders:"};
    const char *arg = nullptr;
    for (const char *l : literals) {
        if (strncmp(t->text, l, strlen(l)) == 0) {
            arg = t->text + strlen(l);
            break;
        }
    }
    if (!arg) {
        return false;
    }
    text_folding_t folding = _path_folding(t->flags);
    str_t folded, scratch;
    str_init(&folded);
    str_init(&scratch);
    _fold(&folded, arg, strlen(arg), folding);
    if (is_windows && convert_forward_slash_to_backslash) {
        for (int i = 0; i < folded.len; i++) {
            if (folded.ptr[i] == '/') {
                folded.ptr[i] = '\\';
            }
        }
    }
    // One trailing separator is dropped; the Linux top "/" keeps its only one.
    if (folded.len > 1 && folded.ptr[folded.len - 1] == OS_SEP) {
        folded.ptr[--folded.len] = 0;
    }
    uint32_t n = (t->flags & TERM_NOT) ? 1 : 0;
    entries_t e = {};
    uint32_t opcode;
    if (!folded.len) {
        // Records without a parent: the one "folder" is none.
        _entries_add(&e, 0, false, false);
        opcode = 282 + n;
    } else {
        if (s->db) {
            infolder_scan_t is = {&e, folding, folded.ptr, (size_t) folded.len, &scratch};
            _each(&s->db->folders, _infolder_visit, &is);
        }
        opcode = (e.count == 0 ? 280 : e.count == 1 ? 282 : 284) + n;
    }
    _folders_op(s, t, opcode, folded.ptr, (size_t) folded.len, &e, false);
    _entries_kill(&e);
    str_kill(&folded);
    str_kill(&scratch);
    return true;
}

// shell: names a known folder; the platform resolves it, and the folder's path is then searched as an
// absolute path ending in a separator: everything below that folder. A name the platform can't resolve,
// or a folder whose path isn't absolute, is a root search that found no root.
bool db_query_shell(db_search_t *s, db_term_t *t) {
    if (strncmp(t->text, "shell:", 6) != 0) {
        return false;
    }
    str_t folder;
    str_init(&folder);
    bool taken = false;
    if (os_known_folder(t->text + 6, &folder) && folder.len) {
        debug_printf("shell: %s is %s\n", t->text + 6, folder.ptr);
        if (folder.ptr[folder.len - 1] != OS_SEP) {
            str_cat_char(&folder, OS_SEP);
        }
        taken = db_query_path_term(s, t, folder.ptr, 0);
    }
    str_kill(&folder);
    if (taken) {
        return true;
    }
    entries_t e = {};
    uint32_t c = (t->flags & TERM_CASE) ? 1 : 0, d = (t->flags & TERM_DIACRITICS) ? 1 : 0;
    uint32_t opcode = FAMILY_ROOT_NONE + c + 2 * d + 4 * ((t->flags & TERM_NOT) ? 1 : 0);
    _folders_op(s, t, opcode, t->text + 6, t->len - 6, &e, false);
    return true;
}
