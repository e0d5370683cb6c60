// Compiling terms into ops: text forms, wildcards, regular expressions, path forms and the choice of
// family, with the ASCII fast path decided once here so that no record ever pays for it.
#include <cstring>

#include "config/config.h"
#include "db/db.h"
#include "db_query/query_internal.h"
#include "debug/debug.h"
#include "mem/mem.h"

#include <pcre2.h>

static const bool is_windows = OS_SEP == '\\';

void db_search_init(db_search_t *s, db_t *db) {
    memset(s, 0, sizeof *s);
    s->db = db;
    s->structure = db ? db->structure.word : DB_STRUCTURE_DEFAULT;
}

void db_search_kill(db_search_t *s) {
    db_op_t *lists[2] = {s->folder_ops, s->file_ops};
    for (db_op_t *op : lists) {
        while (op) {
            db_op_t *next = op->list_next;
            db_op_release(op);
            mem_free(op);
            op = next;
        }
    }
    db_t *db = s->db;
    db_search_init(s, db);
}

db_op_t *db_op_new(db_search_t *s, bool folder, const db_term_t *t, uint32_t opcode, uint8_t kind,
                   size_t size) {
    db_op_t *op = (db_op_t *) mem_alloc(sizeof(db_op_t) + size);
    memset(op, 0, sizeof(db_op_t) + size);
    op->op = (uint16_t) opcode;
    op->kind = kind;
    op->size = (uint32_t) size;
    op->is_filter = t ? t->is_filter : 0;
    db_op_t **first = folder ? &s->folder_ops : &s->file_ops;
    db_op_t **last = folder ? &s->folder_last : &s->file_last;
    if (*last) {
        (*last)->list_next = op;
    } else {
        *first = op;
    }
    *last = op;
    if (t) {
        db_term_t *term = (db_term_t *) t;
        if (folder) {
            term->folderop = op;
        } else {
            term->fileop = op;
        }
    }
    return op;
}

db_op_t *db_op_constant(db_search_t *s, bool folder, const db_term_t *t) {
    return db_op_new(s, folder, t, (t->flags & TERM_NOT) ? DB_OP_TRUE : DB_OP_FALSE, DB_OPK_NONE, 0);
}

void db_op_release(db_op_t *op) {
    void *payload = db_op_payload(op);
    switch (op->kind) {
    case DB_OPK_PATTERN:
        db_text_match_free((db_text_match_t *) payload);
        break;
    case DB_OPK_REGEX:
        pcre2_code_free((pcre2_code *) ((db_op_regex_t *) payload)->code);
        break;
    case DB_OPK_FOLDERS:
        mem_free(((db_op_folders_t *) payload)->folders);
        mem_free(((db_op_folders_t *) payload)->include);
        break;
    case DB_OPK_FILELIST:
        mem_array_kill(&((db_op_filelist_t *) payload)->sorted);
        break;
    case DB_OPK_FRN:
        mem_free(((db_op_frn_t *) payload)->records);
        break;
    default:
        break;
    }
    op->kind = DB_OPK_NONE;
}

bool db_term_ascii(uint32_t flags, const char *text, size_t len) {
    return (flags & TERM_ASCII) && (flags & TERM_DIACRITICS) && !(flags & TERM_CASE) &&
           text_is_ascii(text, len);
}

text_folding_t db_term_folding(uint32_t flags, const char *text, size_t len) {
    if (db_term_ascii(flags, text, len)) {
        return TEXT_FOLD_ASCII;
    }
    return text_folding_for((flags & TERM_CASE) != 0, (flags & TERM_DIACRITICS) != 0);
}

uint32_t db_family_opcode(uint32_t family, uint32_t flags, const char *text, size_t len) {
    uint32_t ww = (flags & TERM_WHOLEWORD) ? 1 : 0, c = (flags & TERM_CASE) ? 1 : 0;
    uint32_t d = (flags & TERM_DIACRITICS) ? 1 : 0, p = (flags & TERM_PATH) ? 1 : 0;
    uint32_t n = (flags & TERM_NOT) ? 1 : 0;
    bool ascii = db_term_ascii(flags, text, len);
    switch (family) {
    case FAMILY_CONTAINS:
        return ascii ? 34 + ww + 2 * p + 4 * n : 2 + ww + 2 * c + 4 * d + 8 * p + 16 * n;
    case FAMILY_WILDCARD:
        return ascii ? 94 + ww + 2 * p + 4 * n : 62 + ww + 2 * c + 4 * d + 8 * p + 16 * n;
    case FAMILY_EQUAL:
        return ascii ? 58 + p + 2 * n : 42 + c + 2 * d + 4 * p + 8 * n;
    case FAMILY_WILDCARD_WHOLE:
        return ascii ? 118 + p + 2 * n : 102 + c + 2 * d + 4 * p + 8 * n;
    case FAMILY_STARTWITH:
        return ascii ? 138 + p + 2 * n : 122 + c + 2 * d + 4 * p + 8 * n;
    case FAMILY_ENDWITH:
        return ascii ? 158 + p + 2 * n : 142 + c + 2 * d + 4 * p + 8 * n;
    default:
        // Path roots and components: no whole-word or path bit, the ASCII pair eight above.
        return ascii ? family + 8 + n : family + c + 2 * d + 4 * n;
    }
}

db_op_t *db_op_text(db_search_t *s, bool folder, const db_term_t *t, uint32_t opcode, const char *text,
                    size_t len, uint32_t offset) {
    text_folding_t folding = db_term_folding(t->flags, text, len);
    size_t folded = term_fold_length(text, len, folding);
    db_op_t *op = db_op_new(s, folder, t, opcode, DB_OPK_TEXT, sizeof(db_op_text_t) + folded + 1);
    db_op_text_t *pt = (db_op_text_t *) db_op_payload(op);
    pt->text = (char *) (pt + 1);
    pt->len = (uint32_t) term_fold_write(pt->text, text, len, folding);
    pt->text[pt->len] = 0;
    pt->offset = offset;
    return op;
}

// Both chains get the same text op.
static void _text_both(db_search_t *s, db_term_t *t, uint32_t family, const char *text, size_t len,
                       uint32_t offset) {
    uint32_t opcode = db_family_opcode(family, t->flags, text, len);
    db_op_text(s, true, t, opcode, text, len, offset);
    db_op_text(s, false, t, opcode, text, len, offset);
}

// ---- paths ---------------------------------------------------------------------------------------------

static bool _ascii_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool db_path_is_absolute_text(const char *text) {
    if (is_windows) {
        return (text[0] == '\\' && text[1] == '\\') || (_ascii_letter(text[0]) && text[1] == ':');
    }
    return text[0] == '/';
}

// Whether a term names a path: a separator anywhere, or (on Windows) a drive or server prefix.
static bool _looks_like_path(const char *text) {
    return db_path_is_absolute_text(text) || strchr(text, OS_SEP) != nullptr;
}

// \name, name\ and \name\ with no other separator: a component that starts with, ends with or is name.
static bool _component_form(db_search_t *s, db_term_t *t, const char *text, size_t len) {
    if (len < 2) {
        return false;
    }
    int seps = 0;
    for (size_t i = 0; i < len; i++) {
        seps += text[i] == OS_SEP;
    }
    bool front = text[0] == OS_SEP, back = text[len - 1] == OS_SEP;
    uint32_t family;
    if (front && back && seps == 2 && len > 2) {
        family = FAMILY_COMPONENT_EQUAL;
    } else if (front && !back && seps == 1) {
        family = FAMILY_COMPONENT_START;
    } else if (back && !front && seps == 1) {
        family = FAMILY_COMPONENT_END;
    } else {
        return false;
    }
    _text_both(s, t, family, text, len, 0);
    return true;
}

// ---- regular expressions -------------------------------------------------------------------------------

void *db_regex_compile(const char *text, size_t len, bool match_case) {
    int error;
    PCRE2_SIZE offset;
    // Names on Linux need not be valid UTF-8; the engine must not trip over them at match time.
    uint32_t options = PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF | (match_case ? 0 : PCRE2_CASELESS);
    pcre2_code *code = pcre2_compile((PCRE2_SPTR) text, len, options, &error, &offset, nullptr);
    if (code) {
        pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
    }
    return code;
}

static bool _regex_special(const char *text, size_t len) {
    for (size_t i = 0; i < len; i++) {
        if (strchr(".[^$*{?+|()\\", text[i]) && text[i]) {
            return true;
        }
    }
    return false;
}

static bool _regex_names_path(const char *text) {
    if (is_windows) {
        return (_ascii_letter(text[0]) && text[1] == ':') || strstr(text, "\\\\") != nullptr;
    }
    return strchr(text, '/') != nullptr;
}

static void _regex_term(db_search_t *s, db_term_t *t) {
    if (t->len == 0) {
        db_op_new(s, true, t, (t->flags & TERM_NOT) ? DB_OP_FALSE : DB_OP_TRUE, DB_OPK_NONE, 0);
        db_op_new(s, false, t, (t->flags & TERM_NOT) ? DB_OP_FALSE : DB_OP_TRUE, DB_OPK_NONE, 0);
        return;
    }
    // A pattern that names a path matches full paths, whether it is a real expression or plain text.
    if (match_path_when_search_contains_path_separator && !(t->flags & TERM_PATH) &&
        _regex_names_path(t->text)) {
        t->flags |= TERM_PATH;
    }
    if (!_regex_special(t->text, t->len)) {
        // Nothing special: a plain substring, where diacritics always count.
        uint32_t saved = t->flags;
        t->flags = (t->flags | TERM_DIACRITICS) & ~(TERM_WHOLEWORD | TERM_EXACT);
        _text_both(s, t, FAMILY_CONTAINS, t->text, t->len, 0);
        t->flags = saved | TERM_DIACRITICS;
        return;
    }
    for (int folder = 1; folder >= 0; folder--) {
        void *code = db_regex_compile(t->text, t->len, (t->flags & TERM_CASE) != 0);
        if (!code) {
            db_op_new(s, folder, t, (t->flags & TERM_NOT) ? DB_OP_TRUE : DB_OP_FALSE, DB_OPK_NONE, 0);
            continue;
        }
        uint32_t opcode = 226 + ((t->flags & TERM_PATH) ? 1 : 0) + ((t->flags & TERM_NOT) ? 2 : 0);
        db_op_t *op = db_op_new(s, folder, t, opcode, DB_OPK_REGEX, sizeof(db_op_regex_t) + t->len + 1);
        db_op_regex_t *r = (db_op_regex_t *) db_op_payload(op);
        r->code = code;
        r->len = t->len;
        r->text = (char *) (r + 1);
        memcpy(r->text, t->text, t->len);
    }
}

// ---- one term ------------------------------------------------------------------------------------------

int db_term_wildcards(uint32_t *flags, char *text) {
    if (!(*flags & TERM_WILDCARDS)) {
        return 0;
    }
    int wild = text_wildcard_normalize(text);
    if (wild == 1) {
        if (strcmp(text, "*") == 0) {
            text[0] = 0;
            *flags &= ~(TERM_EXACT | TERM_WHOLEWORD);
            return 0;
        }
        if (*flags & (TERM_WILDCARD_WHOLE | TERM_WHOLEWORD)) {
            return 1;
        }
        if (text_strip_star_front(text) || text_strip_star_back(text)) {
            return 0;
        }
    } else if (wild == 2 && text_strip_star_both(text)) {
        *flags &= ~(TERM_EXACT | TERM_WHOLEWORD);
        return 0;
    }
    return wild;
}

static void _plain_term(db_search_t *s, db_term_t *t, char *text, int wild) {
    size_t len = strlen(text);
    if (wild == 1 && (t->flags & TERM_WILDCARD_WHOLE) && len > 1) {
        // One star at an end of a whole-name pattern is a prefix or suffix test.
        if (text[0] == '*') {
            _text_both(s, t, FAMILY_ENDWITH, text + 1, len - 1, 0);
            return;
        }
        if (text[len - 1] == '*') {
            _text_both(s, t, FAMILY_STARTWITH, text, len - 1, 0);
            return;
        }
    }
    if (!len && !wild && !(t->flags & TERM_EXACT)) {
        // An empty term (an empty line, a lone "*") holds for every record.
        db_op_new(s, true, t, (t->flags & TERM_NOT) ? DB_OP_FALSE : DB_OP_TRUE, DB_OPK_NONE, 0);
        db_op_new(s, false, t, (t->flags & TERM_NOT) ? DB_OP_FALSE : DB_OP_TRUE, DB_OPK_NONE, 0);
        return;
    }
    uint32_t family;
    if (wild) {
        family = (t->flags & TERM_WILDCARD_WHOLE) ? FAMILY_WILDCARD_WHOLE : FAMILY_WILDCARD;
    } else {
        family = (t->flags & TERM_EXACT) ? FAMILY_EQUAL : FAMILY_CONTAINS;
    }
    _text_both(s, t, family, text, len, 0);
}

static void _text_term(db_search_t *s, db_term_t *t) {
    // The term text can hold a zero from "#0:"; the text forms end there.
    char *text = mem_dup(t->text, t->len);
    int wild = db_term_wildcards(&t->flags, text);
    if (is_windows && convert_forward_slash_to_backslash) {
        for (char *p = text; *p; p++) {
            if (*p == '/') {
                *p = '\\';
            }
        }
    }
    if (match_path_when_search_contains_path_separator && !(t->flags & TERM_PATH) && _looks_like_path(text)) {
        t->flags |= TERM_PATH;
    }
    bool plain_path = (t->flags & TERM_PATH) && !(t->flags & (TERM_EXACT | TERM_WHOLEWORD));
    size_t len = strlen(text);
    if (plain_path && (wild == 0 || (wild == 1 && len && text[len - 1] == '*'))) {
        if (db_query_path_term(s, t, text, wild)) {
            mem_free(text);
            return;
        }
    }
    if (plain_path && wild == 0 && _component_form(s, t, text, len)) {
        mem_free(text);
        return;
    }
    if (wild == 0 && !(t->flags & (TERM_EXACT | TERM_WHOLEWORD)) && db_path_is_absolute_text(text)) {
        // An absolute path: a prefix of the full path.
        t->flags |= TERM_PATH;
        _text_both(s, t, FAMILY_STARTWITH, text, len, 0);
        mem_free(text);
        return;
    }
    _plain_term(s, t, text, wild);
    mem_free(text);
}

// A kind-only term: the other kind's op becomes the constant its NOT bit says.
static void _kind_only(db_search_t *s, db_term_t *t) {
    db_op_t *op = nullptr;
    uint32_t value = 0;
    if (t->flags & TERM_FILEONLY) {
        op = t->folderop, value = (t->flags & TERM_NOT_FILE) ? DB_OP_TRUE : DB_OP_FALSE;
    } else if (t->flags & TERM_FOLDERONLY) {
        op = t->fileop, value = (t->flags & TERM_NOT_FOLDER) ? DB_OP_TRUE : DB_OP_FALSE;
    }
    if (op) {
        db_op_release(op);
        op->op = (uint16_t) value;
    }
}

void db_search_compile_term(db_search_t *s, db_term_t *t) {
    if ((t->flags & TERM_MAYBE_FUNCTION) && db_query_functions(s, t)) {
    } else if (t->flags & TERM_REGEX) {
        _regex_term(s, t);
    } else {
        _text_term(s, t);
    }
    _kind_only(s, t);
}

void db_search_compile_terms(db_search_t *s, db_term_t *first) {
    for (db_term_t *t = first; t; t = t->list_next) {
        db_search_compile_term(s, t);
    }
}

void db_search_link(db_search_t *s, db_term_t *first) {
    if (debug_is_active()) {
        for (db_term_t *t = first; t; t = t->list_next) {
            debug_printf("term %p, flags: %04x, next: %p, notnext: %p\nfolderop: %d, fileop: %d, term: %s\n",
                         t, t->flags, t->next, t->notnext, t->folderop->op, t->fileop->op, t->text);
        }
    }
    for (db_term_t *t = first; t; t = t->list_next) {
        t->folderop->next = t->next ? t->next->folderop : nullptr;
        t->folderop->notnext = t->notnext ? t->notnext->folderop : nullptr;
        t->fileop->next = t->next ? t->next->fileop : nullptr;
        t->fileop->notnext = t->notnext ? t->notnext->fileop : nullptr;
    }
    db_terms_free(first);
}

void db_search_compile(db_search_t *s, const char *search, uint32_t search_bits, const char *filter,
                       uint32_t filter_bits, bool hide_empty) {
    if (hide_empty && (!search || !*search)) {
        db_op_new(s, true, nullptr, DB_OP_FALSE, DB_OPK_NONE, 0);
        db_op_new(s, false, nullptr, DB_OP_FALSE, DB_OPK_NONE, 0);
        return;
    }
    db_term_t *terms = db_search_parse(search, search_bits, filter, filter_bits);
    db_search_compile_terms(s, terms);
    db_search_link(s, terms);
}
