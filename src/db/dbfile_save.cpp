// Writing the index to its file: references become indexes, names are delta-coded, the sorted arrays are
// written as they stand.
//
// The save never searches for a record's index. It borrows every folder's `parent` field to hold the
// folder's own index, keeping the real parents in a backup array, so that any parent's index is one read
// away. Files get the same treatment, with their own backup, only while the file arrays are written.
#include <cstring>

#include "db/dbfile.h"
#include "debug/debug.h"
#include "mem/mem.h"

int db_file_arrays(db_t *db, bool folder, mem_array_t **out) {
    uint32_t w = db->structure.word;
    int n = 0;
    if (folder) {
        if (w & DB_STRUCTURE_FAST_PATH)
            out[n++] = &db->folders_by_path;
        if ((w & (DB_STRUCTURE_FAST_SIZE | DB_STRUCTURE_FOLDER_SIZE)) ==
            (DB_STRUCTURE_FAST_SIZE | DB_STRUCTURE_FOLDER_SIZE))
            out[n++] = &db->folders_by_size;
        if (w & DB_STRUCTURE_FAST_DATE_CREATED)
            out[n++] = &db->folders_by_date_created;
        if (w & DB_STRUCTURE_FAST_DATE_MODIFIED)
            out[n++] = &db->folders_by_date_modified;
        if (w & DB_STRUCTURE_FAST_DATE_ACCESSED)
            out[n++] = &db->folders_by_date_accessed;
        if (w & DB_STRUCTURE_FAST_ATTRIBUTES)
            out[n++] = &db->folders_by_attributes;
        return n;
    }
    if (w & DB_STRUCTURE_FAST_PATH)
        out[n++] = &db->files_by_path;
    if (w & DB_STRUCTURE_FAST_SIZE)
        out[n++] = &db->files_by_size;
    if (w & DB_STRUCTURE_FAST_DATE_CREATED)
        out[n++] = &db->files_by_date_created;
    if (w & DB_STRUCTURE_FAST_DATE_MODIFIED)
        out[n++] = &db->files_by_date_modified;
    if (w & DB_STRUCTURE_FAST_DATE_ACCESSED)
        out[n++] = &db->files_by_date_accessed;
    if (w & DB_STRUCTURE_FAST_ATTRIBUTES)
        out[n++] = &db->files_by_attributes;
    if (w & DB_STRUCTURE_FAST_EXTENSION)
        out[n++] = &db->files_by_extension;
    return n;
}

// The source index stored in front of a record that has no parent. Read directly because the parent
// fields of folders don't hold references while the save runs.
static uint32_t _own_fs_index(db_ref_t r) {
    const uint8_t *p = db_ptr(r);
    uint32_t index;
    memcpy(&index, p - (p[4] == DB_LONG_NAME ? 8 : 4), 4);
    return index;
}

static void _write_sources(db_t *db, os_file_stream_t *s) {
    os_stream_write_len(s, db->fs_count);
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        os_stream_write_len(s, fs->type);
        os_stream_write_u8(s, fs->out_of_date);
        const char *texts[4] = {fs->guid, fs->path, fs->root, fs->include_only};
        switch (fs->type) {
        case DB_FS_NTFS:
        case DB_FS_REFS:
            for (const char *t : texts)
                os_stream_write_string(s, t, t ? (uint32_t) strlen(t) : 0);
            os_stream_write_u64(s, fs->journal_id);
            os_stream_write_u64(s, fs->next_usn);
            break;
        case DB_FS_FILE_LIST:
            os_stream_write_string(s, fs->filename, fs->filename ? (uint32_t) strlen(fs->filename) : 0);
            os_stream_write_u64(s, fs->last_write_time);
            break;
        case DB_FS_FOLDER:
            os_stream_write_string(s, fs->path, fs->path ? (uint32_t) strlen(fs->path) : 0);
            os_stream_write_u64(s, fs->next_update);
            break;
        default:
            break;
        }
    }
}

static void _write_patterns(os_file_stream_t *s, const db_exclude_item_t *list) {
    uint32_t n = 0;
    for (const db_exclude_item_t *i = list; i; i = i->next)
        n++;
    os_stream_write_len(s, n);
    for (const db_exclude_item_t *i = list; i; i = i->next) {
        os_stream_write_u8(s, (uint8_t) i->kind);
        os_stream_write_string(s, i->text, i->length);
    }
}

// The delta code of a name against the one before it: `add`, `cut` when add isn't 0, the new bytes.
static void _write_name(os_file_stream_t *s, const char **prev, uint32_t *prev_len, db_ref_t r) {
    uint32_t len;
    const char *name = db_record_name(r, &len);
    uint32_t common = 0, limit = len < *prev_len ? len : *prev_len;
    while (common < limit && name[common] == (*prev)[common])
        common++;
    // A name that is a strict prefix of the one before can't be coded with add 0 (that means "the same
    // name"). Name order never puts one there, but sharing one byte less keeps any order writable.
    if (common == len && len < *prev_len) {
        if (common == 0) {
            // An empty name behind a non-empty one has no code at all; name order puts "" first.
            debug_printf("db_file_write: empty name out of order\n");
            s->error = true;
            return;
        }
        common--;
    }
    uint32_t add = len - common, cut = *prev_len - common;
    os_stream_write_len(s, add);
    if (add) {
        os_stream_write_len(s, cut);
        os_write(s, name + common, add);
    }
    *prev = name;
    *prev_len = len;
}

// Every array must hold exactly its kind's records, or the indexes written would not read back.
static bool _arrays_agree(db_t *db) {
    uint32_t F = db->folders.count, N = db->files.count;
    mem_array_t *arrays[8];
    int n = db_file_arrays(db, true, arrays);
    for (int i = 0; i < n; i++)
        if (arrays[i]->count != F)
            return false;
    n = db_file_arrays(db, false, arrays);
    for (int i = 0; i < n; i++)
        if (arrays[i]->count != N)
            return false;
    return db->ntfs_folders.count <= F && db->refs_folders.count <= F;
}

// Writes each element of the array as the index that its parent field now holds.
static void _write_index_array(os_file_stream_t *s, const mem_array_t *a) {
    int chunk = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(a, &chunk, &pos));)
        os_stream_write_u32(s, db_record_parent(r));
}

// Overwrites each record's parent with its index in a, keeping the old values in backup.
static void _borrow_parents(const mem_array_t *a, db_ref_t *backup) {
    int chunk = 0, pos = -1;
    uint32_t i = 0;
    for (db_ref_t r; (r = mem_array_next(a, &chunk, &pos)); i++) {
        uint32_t *parent = (uint32_t *) db_ptr(r);
        backup[i] = *parent;
        *parent = i;
    }
}

static void _restore_parents(const mem_array_t *a, const db_ref_t *backup) {
    int chunk = 0, pos = -1;
    uint32_t i = 0;
    for (db_ref_t r; (r = mem_array_next(a, &chunk, &pos)); i++)
        *(uint32_t *) db_ptr(r) = backup[i];
}

// A folder's source while parents hold indexes: up through the backup to the root, then its own field.
static const db_fs_t *_folder_fs(const db_t *db, const db_ref_t *backup, db_ref_t r) {
    for (db_ref_t up; (up = backup[db_record_parent(r)]);)
        r = up;
    return db_fs_get(db, _own_fs_index(r));
}

static void _write_folders(db_t *db, os_file_stream_t *s, const db_ref_t *backup) {
    uint32_t F = db->folders.count;
    int chunk = 0, pos = -1;
    uint32_t i = 0;
    for (db_ref_t r; (r = mem_array_next(&db->folders, &chunk, &pos)); i++)
        os_stream_write_u32(s, backup[i] ? db_record_parent(backup[i]) : F + _own_fs_index(r));
    const char *prev = "";
    uint32_t prev_len = 0;
    uint32_t data_size = db->structure.folder_data_size;
    chunk = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(&db->folders, &chunk, &pos));) {
        _write_name(s, &prev, &prev_len, r);
        const uint8_t *data = db_record_data(r);
        os_write(s, data, data_size);
        const db_fs_t *fs = _folder_fs(db, backup, r);
        if (fs && fs->type == DB_FS_NTFS)
            os_write(s, data + data_size, 8);
        else if (fs && fs->type == DB_FS_REFS)
            os_write(s, data + data_size, 16);
    }
}

static void _write_files(db_t *db, os_file_stream_t *s) {
    uint32_t F = db->folders.count;
    const char *prev = "";
    uint32_t prev_len = 0;
    uint32_t data_size = db->structure.file_data_size;
    int chunk = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(&db->files, &chunk, &pos));) {
        db_ref_t parent = db_record_parent(r);
        // The parent folder's field holds its index now; a file without a parent names its source.
        os_stream_write_u32(s, parent ? db_record_parent(parent) : F + _own_fs_index(r));
        _write_name(s, &prev, &prev_len, r);
        os_write(s, db_record_data(r), data_size);
    }
}

static void _write_file_arrays(db_t *db, os_file_stream_t *s) {
    mem_array_t *arrays[8];
    int n = db_file_arrays(db, false, arrays);
    if (n == 0)
        return;
    db_ref_t *backup = (db_ref_t *) mem_alloc((size_t) db->files.count * 4 + 4);
    _borrow_parents(&db->files, backup);
    for (int i = 0; i < n; i++)
        _write_index_array(s, arrays[i]);
    _restore_parents(&db->files, backup);
    mem_free(backup);
}

bool db_file_write(db_t *db, os_file_stream_t *s) {
    if (!_arrays_agree(db)) {
        debug_printf("db_file_write: the sorted arrays don't match the record counts\n");
        return false;
    }
    uint32_t F = db->folders.count, N = db->files.count;
    os_stream_write_u32(s, DB_FILE_MAGIC);
    os_stream_write_u32(s, DB_FILE_VERSION);
    os_stream_write_u32(s, db->structure.word);
    os_stream_write_u32(s, F);
    os_stream_write_u32(s, N);
    _write_sources(db, s);
    os_stream_write_u8(
        s, (uint8_t) ((db->exclude.exclude_hidden ? 1 : 0) | (db->exclude.exclude_system ? 2 : 0)));
    _write_patterns(s, db->exclude.folders);
    _write_patterns(s, db->exclude.files);
    _write_patterns(s, db->exclude.include_only_files);

    // From here until the restore, every folder's parent field holds the folder's own index.
    db_ref_t *backup = (db_ref_t *) mem_alloc((size_t) F * 4 + 4);
    _borrow_parents(&db->folders, backup);
    _write_folders(db, s, backup);
    _write_files(db, s);
    os_stream_write_u32(s, db->ntfs_folders.count);
    _write_index_array(s, &db->ntfs_folders);
    os_stream_write_u32(s, db->refs_folders.count);
    _write_index_array(s, &db->refs_folders);
    mem_array_t *arrays[8];
    int n = db_file_arrays(db, true, arrays);
    for (int i = 0; i < n; i++)
        _write_index_array(s, arrays[i]);
    _write_file_arrays(db, s);
    _restore_parents(&db->folders, backup);
    mem_free(backup);
    return !s->error;
}

// The folder part of a path, without the separator; empty when there is none.
static void _folder_of(str_t *out, const char *path) {
    const char *cut = nullptr;
    for (const char *p = path; *p; p++)
        if (*p == OS_SEP || *p == '/')
            cut = p;
    str_set_n(out, path, cut ? (int) (cut - path) : 0);
}

static bool _write_temporary(db_t *db, const char *temporary, bool compressed) {
    str_t folder;
    str_init(&folder);
    _folder_of(&folder, temporary);
    bool ok = !folder.len || os_folder_create_path(folder.ptr);
    str_kill(&folder);
    if (!ok)
        return false;
    os_file_t f =
        os_file_open(temporary, OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE | OS_OPEN_SHARE_READ);
    if (f == OS_FILE_INVALID)
        return false;
    os_file_stream_t s;
    os_stream_init_write(&s, f, compressed);
    ok = !s.error && db_file_write(db, &s);
    ok = os_stream_flush(&s) && ok;
    os_stream_kill(&s);
    os_file_close(f);
    return ok;
}

bool db_file_save(db_t *db, const char *final_name, const char *temporary, bool compressed) {
    bool ok = _write_temporary(db, temporary, compressed);
    if (ok && strcmp(temporary, final_name) != 0) {
        ok = os_file_rename_over(temporary, final_name);
        if (!ok)
            debug_printf("MoveFileExW(): GetLastError(): %d: Failed to move file from %s to %s\n",
                         (int) os_last_error(), temporary, final_name);
    }
    if (!ok) {
        uint32_t error = os_last_error();
        debug_printf("failed to save %s %d\n", temporary, (int) error);
        // The incomplete temporary file is of no use; the old file stays as it was.
        if (strcmp(temporary, final_name) != 0)
            os_file_delete(temporary);
    }
    return ok;
}
