// Exclude rules: patterns from the settings classified into kinds, so that the common forms (a plain
// name, "*.tmp", "cache*") cost one folded comparison, and matched against names and paths.
#include <cstring>
#include <pcre2.h>

#include "db_create/db_create.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "text/text.h"

static bool _has_wildcard(const char *p, uint32_t n) {
    return memchr(p, '*', n) || memchr(p, '?', n);
}

// A regular expression that has a separator in it looks at the full path. On Windows the separator
// appears doubled, as a regular expression escapes a backslash.
static bool _regex_has_separator(const char *p, uint32_t n) {
#ifdef _WIN32
    for (uint32_t i = 0; i + 1 < n; i++)
        if (p[i] == '\\' && p[i + 1] == '\\')
            return true;
    return false;
#else
    return memchr(p, '/', n) != nullptr;
#endif
}

static uint32_t _classify(const char *p, uint32_t n, uint32_t *start, uint32_t *end) {
    *start = 0;
    *end = n;
    if (n >= 6 && memcmp(p, "regex:", 6) == 0) {
        *start = 6;
        return _regex_has_separator(p + 6, n - 6) ? DB_EXCLUDE_PATH_REGEX : DB_EXCLUDE_REGEX;
    }
    bool sep = memchr(p, OS_SEP, n) != nullptr;
    if (!_has_wildcard(p, n))
        return sep ? DB_EXCLUDE_PATH : DB_EXCLUDE_NAME;
    if (sep)
        return DB_EXCLUDE_PATH_WILDCARD;
    if (n == 1 && p[0] == '*')
        return DB_EXCLUDE_ALL;
    bool front = p[0] == '*', back = n > 1 && p[n - 1] == '*';
    uint32_t a = front ? 1 : 0, b = back ? n - 1 : n;
    // The fast kinds need plain text between their stars.
    if (b > a && !_has_wildcard(p + a, b - a) && (front || back)) {
        *start = a;
        *end = b;
        return front && back ? DB_EXCLUDE_CONTAINS : front ? DB_EXCLUDE_ENDS : DB_EXCLUDE_BEGINS;
    }
    return DB_EXCLUDE_WILDCARD;
}

static void *_compile(const char *text, uint32_t len) {
    int code;
    PCRE2_SIZE offset;
    // Names on Linux need not be valid UTF-8: such a name must simply not match, not fail the match.
    pcre2_code *re = pcre2_compile((PCRE2_SPTR) text, len,
                                   PCRE2_CASELESS | PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF, &code,
                                   &offset, nullptr);
    if (re)
        pcre2_jit_compile(re, PCRE2_JIT_COMPLETE);
    return re;
}

// The matchers' form of a stored text: folded as a name is compared, and for the wildcard kinds with
// runs of stars collapsed, as the wildcard matcher expects.
static void _set_match(db_exclude_item_t *item) {
    str_t folded;
    str_init(&folded);
    term_fold(&folded, item->text, item->length, TEXT_FOLD_LOWER);
    if (item->kind == DB_EXCLUDE_WILDCARD || item->kind == DB_EXCLUDE_PATH_WILDCARD) {
        text_wildcard_normalize(folded.ptr);
        folded.len = (int32_t) strlen(folded.ptr);
    }
    item->match = mem_dup(folded.len ? folded.ptr : "", (size_t) folded.len);
    item->match_length = (uint32_t) folded.len;
    str_kill(&folded);
}

db_exclude_item_t **db_exclude_add_stored(db_exclude_item_t **tail, uint32_t kind, const char *text,
                                          uint32_t len) {
    db_exclude_item_t *item = (db_exclude_item_t *) mem_alloc(sizeof(db_exclude_item_t));
    memset(item, 0, sizeof(*item));
    item->kind = kind;
    item->text = mem_dup(len ? text : "", len);
    item->length = len;
    if (kind == DB_EXCLUDE_REGEX || kind == DB_EXCLUDE_PATH_REGEX)
        item->regex = _compile(item->text, item->length);
    else
        _set_match(item);
    *tail = item;
    return &item->next;
}

db_exclude_item_t **db_exclude_add(db_exclude_item_t **tail, const char *pattern, uint32_t len) {
    uint32_t start, end;
    uint32_t kind = _classify(pattern, len, &start, &end);
    // The settings' form and the file's form go through one constructor, so that an item loaded from
    // the file is the item the settings made.
    return db_exclude_add_stored(tail, kind, pattern + start, end - start);
}

// The items of a semicolon list, blanks at either end of an item dropped, empty items skipped.
static void _add_semicolon_list(db_exclude_item_t **list, const char *text) {
    db_exclude_item_t **tail = list;
    const char *p = text ? text : "";
    while (*p) {
        const char *e = strchr(p, ';');
        if (!e)
            e = p + strlen(p);
        const char *a = p, *b = e;
        while (a < b && (*a == ' ' || *a == '\t'))
            a++;
        while (b > a && (b[-1] == ' ' || b[-1] == '\t'))
            b--;
        if (b > a)
            tail = db_exclude_add(tail, a, (uint32_t) (b - a));
        p = *e ? e + 1 : e;
    }
}

static bool _needs_path(const db_exclude_item_t *list) {
    for (; list; list = list->next)
        if (list->kind == DB_EXCLUDE_PATH || list->kind == DB_EXCLUDE_PATH_WILDCARD ||
            list->kind == DB_EXCLUDE_PATH_REGEX)
            return true;
    return false;
}

void db_exclude_build(db_exclude_t *out, const config_frozen_t *config) {
    memset(out, 0, sizeof(*out));
    out->exclude_hidden = config->exclude_hidden_files_and_folders != 0;
    out->exclude_system = config->exclude_system_files_and_folders != 0;
    if (!config->exclude_list_enabled)
        return;
    db_exclude_item_t **tail = &out->folders;
    for (int i = 0; i < config->exclude_folders.count; i++) {
        const char *f = config->exclude_folders.items[i];
        uint32_t n = (uint32_t) strlen(f);
        // A folder given with a trailing separator means the same folder.
        while (n > 1 && f[n - 1] == OS_SEP)
            n--;
        if (n)
            tail = db_exclude_add(tail, f, n);
    }
    _add_semicolon_list(&out->files, config->exclude_files);
    _add_semicolon_list(&out->include_only_files, config->include_only_files);
    out->folder_needs_path = _needs_path(out->folders);
    out->file_needs_path = _needs_path(out->files) || _needs_path(out->include_only_files);
}

static bool _item_equal(const db_exclude_item_t *a, const db_exclude_item_t *b) {
    return a->kind == b->kind && a->length == b->length && memcmp(a->text, b->text, a->length) == 0;
}

bool db_exclude_list_equal(const db_exclude_item_t *a, const db_exclude_item_t *b) {
    for (; a && b; a = a->next, b = b->next)
        if (!_item_equal(a, b))
            return false;
    return !a && !b;
}

static bool _list_has(const db_exclude_item_t *list, const db_exclude_item_t *item) {
    for (; list; list = list->next)
        if (_item_equal(list, item))
            return true;
    return false;
}

static bool _lost_item(const db_exclude_item_t *old_list, const db_exclude_item_t *new_list) {
    for (; old_list; old_list = old_list->next)
        if (!_list_has(new_list, old_list))
            return true;
    return false;
}

bool db_exclude_looser(const db_exclude_t *o, const db_exclude_t *n) {
    return _lost_item(o->folders, n->folders) || _lost_item(o->files, n->files) ||
           _lost_item(o->include_only_files, n->include_only_files) ||
           o->exclude_hidden != n->exclude_hidden || o->exclude_system != n->exclude_system;
}

void *db_exclude_match_data_create() {
    pcre2_match_data *md = pcre2_match_data_create(1, nullptr);
    if (!md)
        DEBUG_FATAL("out of memory %p", (void *) nullptr);
    return md;
}

void db_exclude_match_data_destroy(void *match_data) {
    pcre2_match_data_free((pcre2_match_data *) match_data);
}

// The path equals the folded pattern, or one of its folders does.
static bool _path_at_or_below(const char *path, uint32_t plen, const char *text, uint32_t tlen) {
    for (uint32_t k = 1; k <= plen; k++) {
        if ((k == plen || path[k] == OS_SEP) && text_compare_lower(path, k, text, tlen) == 0)
            return true;
    }
    return false;
}

bool db_exclude_item_match(const db_exclude_item_t *item, void *match_data, const char *name, uint32_t len,
                           const char *path, uint32_t plen) {
    const char *t = item->match;
    uint32_t n = item->match_length;
    switch (item->kind) {
    case DB_EXCLUDE_PATH:
        return path && _path_at_or_below(path, plen, t, n);
    case DB_EXCLUDE_NAME:
        return text_compare_lower(name, len, t, n) == 0;
    case DB_EXCLUDE_WILDCARD:
        return wildcard_whole_lower(name, len, t, n);
    case DB_EXCLUDE_ALL:
        return true;
    case DB_EXCLUDE_ENDS:
        return text_endwith_lower(name, len, t, n);
    case DB_EXCLUDE_BEGINS:
        return text_startwith_lower(name, len, t, n);
    case DB_EXCLUDE_CONTAINS:
        return text_contains_lower(name, len, t, n);
    case DB_EXCLUDE_PATH_WILDCARD:
        return path && wildcard_whole_lower(path, plen, t, n);
    case DB_EXCLUDE_REGEX:
    case DB_EXCLUDE_PATH_REGEX: {
        if (!item->regex)
            return false;
        const char *s = item->kind == DB_EXCLUDE_REGEX ? name : path;
        size_t sn = item->kind == DB_EXCLUDE_REGEX ? len : plen;
        if (!s)
            return false;
        return pcre2_match((const pcre2_code *) item->regex, (PCRE2_SPTR) s, sn, 0, 0,
                           (pcre2_match_data *) match_data, nullptr) >= 0;
    }
    default:
        return false;
    }
}

bool db_exclude_list_match(const db_exclude_item_t *list, void *md, const char *name, uint32_t len,
                           const char *path, uint32_t plen) {
    for (; list; list = list->next)
        if (db_exclude_item_match(list, md, name, len, path, plen))
            return true;
    return false;
}

bool db_exclude_folder(const db_exclude_t *e, void *md, const char *name, uint32_t len, const char *path,
                       uint32_t plen) {
    return db_exclude_list_match(e->folders, md, name, len, path, plen);
}

bool db_exclude_file(const db_exclude_t *e, void *md, const char *name, uint32_t len, const char *path,
                     uint32_t plen) {
    if (db_exclude_list_match(e->files, md, name, len, path, plen))
        return true;
    return e->include_only_files && !db_exclude_list_match(e->include_only_files, md, name, len, path, plen);
}

bool db_exclude_attributes(const db_exclude_t *e, uint32_t attributes) {
    return (e->exclude_hidden && (attributes & OS_ATTR_HIDDEN)) ||
           (e->exclude_system && (attributes & OS_ATTR_SYSTEM));
}
