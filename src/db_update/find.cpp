// Finding records that the monitors name by parent and name, by FRN or by path.
#include <cstring>

#include "db_update/db_update.h"
#include "db_update/update_internal.h"
#include "mem/mem.h"
#include "text/text.h"

static int _bytes_compare(const char *a, uint32_t alen, const char *b, uint32_t blen) {
    int c = memcmp(a, b, alen < blen ? alen : blen);
    if (c)
        return c;
    return (int) alen - (int) blen;
}

// Name order with the key standing in for the second record: the same levels as db_name_compare, the
// element's parent chain against the key's parent, then the source numbers.
int db_file_find_key_compare(mem_ref_t element, const void *key) {
    const db_file_find_key_t *k = (const db_file_find_key_t *) key;
    uint32_t len;
    const char *name = db_record_name(element, &len);
    int c = utf8_compare_lower_base(name, len, k->name, k->len);
    if (c)
        return c;
    db_ref_t parent = db_record_parent(element);
    if ((c = db_path_compare_lower_base(parent, k->parent)))
        return c;
    if ((c = utf8_compare_lower(name, len, k->name, k->len)))
        return c;
    if ((c = db_path_compare_lower(parent, k->parent)))
        return c;
    if ((c = _bytes_compare(name, len, k->name, k->len)))
        return c;
    if ((c = db_path_compare_bytes(parent, k->parent)))
        return c;
    uint32_t fs = db_record_fs_index(element);
    return (fs > k->fs_index) - (fs < k->fs_index);
}

void db_update_key(db_file_find_key_t *key, const db_fs_t *fs, db_ref_t parent, const char *name,
                   uint32_t len) {
    key->fs_index = parent ? db_record_fs_index(parent) : fs ? fs->index : 0;
    key->parent = parent;
    key->name = name;
    key->len = len;
}

db_ref_t db_file_find(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len) {
    db_file_find_key_t key;
    db_update_key(&key, fs, parent, name, len);
    return mem_array_find(&db->files, db_file_find_key_compare, &key);
}

db_ref_t db_folder_find(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len) {
    db_file_find_key_t key;
    db_update_key(&key, fs, parent, name, len);
    return mem_array_find(&db->folders, db_file_find_key_compare, &key);
}

// ---- by FRN ----------------------------------------------------------------------------------------------

struct _frn_key_t {
    const db_t *db;
    uint64_t low, high;
    uint32_t fs_index;
    bool refs;
};

static int _frn_key_compare(mem_ref_t element, const void *key) {
    const _frn_key_t *k = (const _frn_key_t *) key;
    const uint8_t *p = db_record_frn(k->db, element);
    uint64_t low, high = 0;
    memcpy(&low, p, 8);
    if (k->refs) {
        memcpy(&high, p + 8, 8);
        if (high != k->high)
            return high < k->high ? -1 : 1;
    }
    if (low != k->low)
        return low < k->low ? -1 : 1;
    uint32_t fs = db_record_fs_index(element);
    return (fs > k->fs_index) - (fs < k->fs_index);
}

static db_ref_t _find_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high, bool refs, int *chunk,
                          int *pos) {
    _frn_key_t key = {db, low, high, fs->index, refs};
    return mem_array_find_near(refs ? &db->refs_folders : &db->ntfs_folders, chunk, pos, _frn_key_compare,
                               &key);
}

db_ref_t db_update_find_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high, int *chunk, int *pos) {
    return _find_frn(db, fs, low, high, fs->type == DB_FS_REFS, chunk, pos);
}

db_ref_t db_find_folder_by_frn(db_t *db, const db_fs_t *fs, uint64_t frn) {
    int chunk, pos;
    return _find_frn(db, fs, frn, 0, false, &chunk, &pos);
}

db_ref_t db_find_folder_by_frn_refs(db_t *db, const db_fs_t *fs, db_frn128_t frn) {
    int chunk, pos;
    return _find_frn(db, fs, frn.low, frn.high, true, &chunk, &pos);
}

// ---- by path ---------------------------------------------------------------------------------------------

// Whether the record's full path is exactly path[0 .. len): its names from the end, each behind a
// separator, and the root's name the whole rest.
static bool _path_is(db_ref_t r, const char *path, uint32_t len) {
    for (;;) {
        uint32_t n;
        const char *name = db_record_name(r, &n);
        db_ref_t parent = db_record_parent(r);
        if (!parent)
            return n == len && memcmp(name, path, n) == 0;
        if (n + 1 > len || memcmp(path + len - n, name, n) != 0 || path[len - n - 1] != OS_SEP)
            return false;
        len -= n + 1;
        r = parent;
    }
}

// Lands in front of every element whose name folds equal to the key's name: the first level of name
// order alone, with ties sorting behind the key.
static int _first_of_name(mem_ref_t element, const void *key) {
    const db_file_find_key_t *k = (const db_file_find_key_t *) key;
    uint32_t len;
    const char *name = db_record_name(element, &len);
    int c = utf8_compare_lower_base(name, len, k->name, k->len);
    return c ? c : 1;
}

static db_ref_t _find_by_path(mem_array_t *a, const char *path, uint32_t len) {
    uint32_t cut = len;
    while (cut > 0 && path[cut - 1] != OS_SEP)
        cut--;
    db_file_find_key_t key = {0, 0, path + cut, len - cut};
    // Every record of that name under any folding lies in one run of the array: the run of names that
    // compare equal at the first level. Full paths tell them apart exactly.
    int chunk, pos;
    mem_array_find_near(a, &chunk, &pos, _first_of_name, &key);
    for (mem_ref_t r = mem_array_next(a, &chunk, &pos); r; r = mem_array_next(a, &chunk, &pos)) {
        uint32_t n;
        const char *name = db_record_name(r, &n);
        if (utf8_compare_lower_base(name, n, key.name, key.len) != 0)
            break;
        if (_path_is(r, path, len))
            return r;
    }
    return 0;
}

db_ref_t db_file_find_by_path(db_t *db, const char *path) {
    return _find_by_path(&db->files, path, (uint32_t) strlen(path));
}

db_ref_t db_folder_find_by_path(db_t *db, const char *path) {
    uint32_t len = (uint32_t) strlen(path);
    db_ref_t r = _find_by_path(&db->folders, path, len);
    if (r)
        return r;
    // A root folder's name is its source's whole path, separators and all: the last component alone
    // doesn't find it.
    for (const db_fs_t *fs = db->fs_first; fs; fs = fs->next)
        if ((r = db_folder_find(db, fs, 0, path, len)))
            return r;
    // The root of the Linux source "/" is named "" and shown as "/".
    if (len == 1 && path[0] == OS_SEP)
        for (const db_fs_t *fs = db->fs_first; fs; fs = fs->next)
            if ((r = db_folder_find(db, fs, 0, "", 0)))
                return r;
    return 0;
}
