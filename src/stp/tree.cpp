// The indexed tree as the server shows it: one tree whose top holds the sources' paths. A source's root
// record is named by its whole path ("C:" on Windows, "/home/me/tree" on Linux), so the folders above a
// root that is deeper than one component ("home", "home/me") exist only as parts of that name.
//
// Children are found in the path-ordered arrays, where the records of one folder stand together (their
// parents' paths compare equal); without those arrays the name-ordered ones are walked whole.
#include <cstring>

#include "db/db.h"
#include "mem/array.h"
#include "mem/mem.h"
#include "stp/stp.h"

// A root's name in index form: without the leading separator of a Linux path.
static const char *_stp_root_name(db_ref_t root, uint32_t *len) {
    const char *name = db_record_name(root, len);
    while (*len > 0 && name[0] == OS_SEP) {
        name++;
        (*len)--;
    }
    return name;
}

static bool _stp_is_sep(char c) {
    return c == OS_SEP;
}

// Calls each(context, record) for every record of the kind whose parent is folder (0: the roots).
static void _stp_children_of(db_t *db, db_ref_t folder, bool folders,
                             void (*each)(void *context, db_ref_t record), void *context) {
    mem_array_t *by_path = db_array(db, DB_ORDER_PATH, folders);
    if (!by_path || by_path->count == 0) {
        mem_array_t *all = folders ? &db->folders : &db->files;
        int chunk = 0, pos = -1;
        for (db_ref_t r; (r = mem_array_next(all, &chunk, &pos)) != 0;) {
            if (db_record_parent(r) == folder) {
                each(context, r);
            }
        }
        return;
    }
    // The first element whose parent's path is not below the folder's.
    uint32_t lo = 0, hi = by_path->count;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        if (db_path_compare_lower_base(db_record_parent(mem_array_get(by_path, mid)), folder) < 0) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    if (lo == by_path->count) {
        return;
    }
    int chunk, pos;
    mem_array_locate(by_path, lo, &chunk, &pos);
    pos--;
    for (db_ref_t r; (r = mem_array_next(by_path, &chunk, &pos)) != 0;) {
        db_ref_t parent = db_record_parent(r);
        if (parent != folder && db_path_compare_lower_base(parent, folder) != 0) {
            break;
        }
        if (parent == folder) {
            each(context, r);
        }
    }
}

struct stp_find_t {
    const char *name;
    uint32_t len;
    db_ref_t found;
};

static void _stp_find_each(void *context, db_ref_t r) {
    stp_find_t *f = (stp_find_t *) context;
    uint32_t len;
    const char *name = db_record_name(r, &len);
    if (!f->found && len == f->len && memcmp(name, f->name, len) == 0) {
        f->found = r;
    }
}

// The child of folder named so (folders first, then files when files is set).
static db_ref_t _stp_child(db_t *db, db_ref_t folder, const char *name, uint32_t len, bool files,
                           bool *is_folder) {
    stp_find_t f = {name, len, 0};
    _stp_children_of(db, folder, true, _stp_find_each, &f);
    *is_folder = true;
    if (!f.found && files) {
        _stp_children_of(db, folder, false, _stp_find_each, &f);
        *is_folder = false;
    }
    return f.found;
}

struct stp_roots_t {
    db_ref_t *items;
    uint32_t count, cap;
};

static void _stp_root_each(void *context, db_ref_t r) {
    stp_roots_t *roots = (stp_roots_t *) context;
    if (roots->count == roots->cap) {
        roots->cap = roots->cap ? roots->cap * 2 : 8;
        roots->items = (db_ref_t *) mem_realloc(roots->items, sizeof(db_ref_t) * roots->cap);
    }
    roots->items[roots->count++] = r;
}

// Walks the components of rest (after a root) down from folder. The node, or kind 0.
static void _stp_walk(db_t *db, db_ref_t folder, const char *rest, stp_node_t *out) {
    out->kind = 2;
    out->record = folder;
    while (*rest) {
        const char *end = rest;
        while (*end && !_stp_is_sep(*end)) {
            end++;
        }
        if (out->kind != 2) {
            out->kind = 0;
            return;
        }
        bool is_folder;
        db_ref_t r = _stp_child(db, out->record, rest, (uint32_t) (end - rest), true, &is_folder);
        if (!r) {
            out->kind = 0;
            return;
        }
        out->kind = is_folder ? 2 : 3;
        out->record = r;
        rest = *end ? end + 1 : end;
    }
}

bool stp_tree_lookup(db_t *db, const char *path, stp_node_t *out) {
    out->kind = 0;
    out->record = 0;
    if (!db || !db->is_loaded) {
        return false;
    }
    if (!path[0]) {
        out->kind = 1;
        return true;
    }
    size_t plen = strlen(path);
    stp_roots_t roots = {};
    _stp_children_of(db, 0, true, _stp_root_each, &roots);
    for (uint32_t i = 0; i < roots.count && out->kind == 0; i++) {
        uint32_t len;
        const char *name = _stp_root_name(roots.items[i], &len);
        if (len == plen && memcmp(name, path, len) == 0) {
            out->kind = 2;
            out->record = roots.items[i];
        } else if (len > plen && memcmp(name, path, plen) == 0 && _stp_is_sep(name[plen])) {
            out->kind = 1;
        } else if (len == 0 || (len < plen && memcmp(name, path, len) == 0 && _stp_is_sep(path[len]))) {
            _stp_walk(db, roots.items[i], path + (len ? len + 1 : 0), out);
        }
    }
    mem_free(roots.items);
    return out->kind != 0;
}

struct stp_list_t {
    db_t *db;
    void (*each)(void *context, const char *name, uint32_t len, bool folder, uint32_t record);
    void *context;
    bool folders;
};

static void _stp_list_each(void *context, db_ref_t r) {
    stp_list_t *l = (stp_list_t *) context;
    uint32_t len;
    const char *name = db_record_name(r, &len);
    l->each(l->context, name, len, l->folders, r);
}

void stp_tree_list(db_t *db, const char *path, const stp_node_t *node,
                   void (*each)(void *context, const char *name, uint32_t len, bool folder, uint32_t record),
                   void *context) {
    stp_list_t l = {db, each, context, true};
    if (node->kind == 2) {
        _stp_children_of(db, node->record, true, _stp_list_each, &l);
        l.folders = false;
        _stp_children_of(db, node->record, false, _stp_list_each, &l);
    }
    // The sources below this place: the next component of each name, once; a root named "" is the top
    // itself, and its children are the top's.
    size_t plen = strlen(path);
    stp_roots_t roots = {};
    _stp_children_of(db, 0, true, _stp_root_each, &roots);
    str_t seen;
    str_init(&seen);
    for (uint32_t i = 0; i < roots.count; i++) {
        uint32_t len;
        const char *name = _stp_root_name(roots.items[i], &len);
        if (len == 0 && plen == 0 && node->kind == 1) {
            stp_node_t top = {2, roots.items[i]};
            stp_tree_list(db, path, &top, each, context);
            continue;
        }
        const char *next;
        if (plen == 0) {
            next = name;
        } else if (len > plen && memcmp(name, path, plen) == 0 && _stp_is_sep(name[plen])) {
            next = name + plen + 1;
        } else {
            continue;
        }
        const char *end = next;
        while (end < name + len && !_stp_is_sep(*end)) {
            end++;
        }
        if (end == next) {
            continue;
        }
        // Each name once: seen holds the names given so far, each followed by a NUL.
        str_t one;
        str_init(&one);
        str_set_n(&one, next, (int) (end - next));
        bool dup = false;
        for (int at = 0; at < seen.len; at += (int) strlen(seen.ptr + at) + 1) {
            dup |= strcmp(seen.ptr + at, one.ptr) == 0;
        }
        if (!dup && node->kind == 2) {
            bool is_folder;
            dup = _stp_child(db, node->record, one.ptr, (uint32_t) one.len, false, &is_folder) != 0;
        }
        if (!dup) {
            str_cat(&seen, one.ptr, one.len + 1);
            each(context, one.ptr, (uint32_t) one.len, true, 0);
        }
        str_kill(&one);
    }
    str_kill(&seen);
    mem_free(roots.items);
}

static uint64_t _stp_node_field(db_t *db, const stp_node_t *node, db_field_t field) {
    if (node->kind == 2) {
        return db_folder_get(db, node->record, field);
    }
    if (node->kind == 3) {
        return db_file_get(db, node->record, field);
    }
    return DB_UNKNOWN;
}

uint64_t stp_tree_size(db_t *db, const stp_node_t *node) {
    return _stp_node_field(db, node, DB_FIELD_SIZE);
}

uint64_t stp_tree_date_modified(db_t *db, const stp_node_t *node) {
    return _stp_node_field(db, node, DB_FIELD_DATE_MODIFIED);
}
