// Packed folder and file records: their sizes, creation, deletion and field access.
#include "db/db.h"

#include <cstring>

#include "mem/mem.h"

// Bytes of a folder's tail behind its data block: the FRN and the child count.
static uint32_t _folder_tail(uint32_t fs_type) {
    if (fs_type == DB_FS_NTFS)
        return 8 + 4;
    if (fs_type == DB_FS_REFS)
        return 16 + 4;
    return 0;
}

// Bytes in front of the parent field: the source index of a record without a parent, then the long
// name length.
static uint32_t _prefix(bool root, uint32_t name_len) {
    return (root ? 4 : 0) + (name_len >= DB_LONG_NAME ? 4 : 0);
}

uint32_t db_file_record_size(const db_structure_t *s, bool root, uint32_t name_len) {
    return _prefix(root, name_len) + 5 + name_len + s->file_data_size;
}

uint32_t db_folder_record_size(const db_structure_t *s, uint32_t fs_type, bool root, uint32_t name_len) {
    return _prefix(root, name_len) + 5 + name_len + s->folder_data_size + _folder_tail(fs_type);
}

static void _init_data(uint8_t *data, const int8_t *offsets, uint32_t data_size) {
    // Everything unknown: sizes and dates are all ones, attributes 0.
    memset(data, 0xFF, data_size);
    if (offsets[DB_FIELD_ATTRIBUTES] >= 0)
        memset(data + offsets[DB_FIELD_ATTRIBUTES], 0, 4);
}

static db_ref_t _record_new(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                            uint32_t total) {
    db_ref_t block = db_record_alloc(db, total);
    uint8_t *p = db_ptr(block);
    if (!parent) {
        uint32_t index = fs->index;
        memcpy(p, &index, 4);
        p += 4;
    }
    if (len >= DB_LONG_NAME) {
        memcpy(p, &len, 4);
        p += 4;
    }
    memcpy(p, &parent, 4);
    p[4] = (uint8_t) (len >= DB_LONG_NAME ? DB_LONG_NAME : len);
    memcpy(p + 5, name, len);
    return db_ref(p);
}

db_ref_t db_folder_new(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len) {
    const db_structure_t *s = &db->structure;
    uint32_t total = db_folder_record_size(s, fs->type, parent == 0, len);
    db_ref_t r = _record_new(db, fs, parent, name, len, total);
    uint8_t *data = db_record_data(r);
    _init_data(data, s->folder_offset, s->folder_data_size);
    memset(data + s->folder_data_size, 0, _folder_tail(fs->type));
    return r;
}

db_ref_t db_file_new(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len) {
    const db_structure_t *s = &db->structure;
    uint32_t total = db_file_record_size(s, parent == 0, len);
    db_ref_t r = _record_new(db, fs, parent, name, len, total);
    _init_data(db_record_data(r), s->file_offset, s->file_data_size);
    return r;
}

static void _record_delete(db_t *db, db_ref_t r, uint32_t total) {
    uint32_t len;
    db_record_name(r, &len);
    db_record_free(db, r - _prefix(db_record_parent(r) == 0, len) / 4, total);
}

void db_folder_delete(db_t *db, db_ref_t folder) {
    uint32_t len;
    db_record_name(folder, &len);
    const db_fs_t *fs = db_record_fs(db, folder);
    uint32_t total = db_folder_record_size(&db->structure, fs ? fs->type : (uint32_t) DB_FS_FOLDER,
                                           db_record_parent(folder) == 0, len);
    _record_delete(db, folder, total);
}

void db_file_delete(db_t *db, db_ref_t file) {
    uint32_t len;
    db_record_name(file, &len);
    _record_delete(db, file, db_file_record_size(&db->structure, db_record_parent(file) == 0, len));
}

db_ref_t db_record_root(db_ref_t r) {
    for (db_ref_t p = db_record_parent(r); p; p = db_record_parent(p))
        r = p;
    return r;
}

uint32_t db_record_depth(db_ref_t r) {
    uint32_t depth = 0;
    for (db_ref_t p = db_record_parent(r); p; p = db_record_parent(p))
        depth++;
    return depth;
}

uint32_t db_record_fs_index(db_ref_t r) {
    const uint8_t *p = db_ptr(db_record_root(r));
    // The source index stands in front of the long name length when there is one.
    return *(const uint32_t *) (p - (p[4] == DB_LONG_NAME ? 8 : 4));
}

db_fs_t *db_record_fs(const db_t *db, db_ref_t r) {
    return db_fs_get(db, db_record_fs_index(r));
}

static const int _field_width[DB_FIELD_COUNT] = {8, 8, 8, 8, 4};

static uint64_t _get(db_ref_t r, const int8_t *offsets, db_field_t field) {
    int at = offsets[field];
    if (at < 0)
        return field == DB_FIELD_ATTRIBUTES ? 0 : DB_UNKNOWN;
    const uint8_t *p = db_record_data(r) + at;
    if (field == DB_FIELD_ATTRIBUTES) {
        uint32_t v;
        memcpy(&v, p, 4);
        return v;
    }
    uint64_t v;
    memcpy(&v, p, 8);
    return v;
}

static void _set(db_ref_t r, const int8_t *offsets, db_field_t field, uint64_t value) {
    int at = offsets[field];
    if (at < 0)
        return;
    uint8_t *p = db_record_data(r) + at;
    if (_field_width[field] == 4) {
        uint32_t v = (uint32_t) value;
        memcpy(p, &v, 4);
    } else {
        memcpy(p, &value, 8);
    }
}

uint64_t db_file_get(const db_t *db, db_ref_t file, db_field_t field) {
    return _get(file, db->structure.file_offset, field);
}

uint64_t db_folder_get(const db_t *db, db_ref_t folder, db_field_t field) {
    return _get(folder, db->structure.folder_offset, field);
}

void db_file_set(const db_t *db, db_ref_t file, db_field_t field, uint64_t value) {
    _set(file, db->structure.file_offset, field, value);
}

void db_folder_set(const db_t *db, db_ref_t folder, db_field_t field, uint64_t value) {
    _set(folder, db->structure.folder_offset, field, value);
}

uint8_t *db_record_frn(const db_t *db, db_ref_t folder) {
    const db_fs_t *fs = db_record_fs(db, folder);
    if (!fs || (fs->type != DB_FS_NTFS && fs->type != DB_FS_REFS))
        return nullptr;
    return db_record_data(folder) + db->structure.folder_data_size;
}

static uint8_t *_child_count(const db_t *db, db_ref_t folder) {
    const db_fs_t *fs = db_record_fs(db, folder);
    if (!fs || (fs->type != DB_FS_NTFS && fs->type != DB_FS_REFS))
        return nullptr;
    return db_record_data(folder) + db->structure.folder_data_size + (fs->type == DB_FS_NTFS ? 8 : 16);
}

uint32_t db_folder_child_count(const db_t *db, db_ref_t folder) {
    const uint8_t *p = _child_count(db, folder);
    uint32_t n = 0;
    if (p)
        memcpy(&n, p, 4);
    return n;
}

void db_folder_set_child_count(const db_t *db, db_ref_t folder, uint32_t count) {
    uint8_t *p = _child_count(db, folder);
    if (p)
        memcpy(p, &count, 4);
}

void db_get_full_path(str_t *out, db_ref_t r) {
    // First walk: the length, so that the names can then be written from the end without moving.
    size_t total = 0;
    uint32_t len;
    for (db_ref_t p = r; p; p = db_record_parent(p)) {
        db_record_name(p, &len);
        total += len + (p != r ? 1 : 0);
    }
    if (total == 0) {
        // Only a root named "" gets here: the top of the Linux tree, shown as the separator.
        str_set(out, OS_SEP_STR);
        return;
    }
    str_reserve(out, (int) total + 1);
    char *end = out->ptr + total;
    for (db_ref_t p = r; p; p = db_record_parent(p)) {
        if (p != r)
            *--end = OS_SEP;
        const char *name = db_record_name(p, &len);
        end -= len;
        memcpy(end, name, len);
    }
    out->len = (int32_t) total;
    out->ptr[total] = 0;
}
