// The structure word: which fields the records of an index carry and which sorted arrays it keeps.
#include "db/db.h"

#include <cstring>

#include "config/config.h"

void db_settings_default(db_settings_t *s) {
    memset(s, 0, sizeof(*s));
    s->index_size = true;
    s->index_date_modified = true;
    s->fast_size_sort = true;
    s->fast_date_modified_sort = true;
    s->fast_path_sort = true;
}

void db_settings_from_config(db_settings_t *s) {
    s->index_size = index_size != 0;
    s->index_folder_size = index_folder_size != 0;
    s->index_date_created = index_date_created != 0;
    s->index_date_modified = index_date_modified != 0;
    s->index_date_accessed = index_date_accessed != 0;
    s->index_attributes = index_attributes != 0;
    s->fast_size_sort = fast_size_sort != 0;
    s->fast_date_created_sort = fast_date_created_sort != 0;
    s->fast_date_modified_sort = fast_date_modified_sort != 0;
    s->fast_date_accessed_sort = fast_date_accessed_sort != 0;
    s->fast_attributes_sort = fast_attributes_sort != 0;
    s->fast_path_sort = fast_path_sort != 0;
    s->fast_extension_sort = fast_extension_sort != 0;
}

void db_structure_from_config(db_structure_t *out) {
    db_settings_t s;
    db_settings_from_config(&s);
    db_structure_from_settings(out, &s);
}

void db_structure_from_settings(db_structure_t *out, const db_settings_t *st) {
    uint32_t w = 0;
    if (st->index_size) {
        w |= DB_STRUCTURE_SIZE;
        // A folder's size is the sum of its files' sizes, so it can't be kept without them.
        if (st->index_folder_size)
            w |= DB_STRUCTURE_FOLDER_SIZE;
        if (st->fast_size_sort)
            w |= DB_STRUCTURE_FAST_SIZE;
    }
    if (st->index_date_created) {
        w |= DB_STRUCTURE_DATE_CREATED;
        if (st->fast_date_created_sort)
            w |= DB_STRUCTURE_FAST_DATE_CREATED;
    }
    if (st->index_date_modified) {
        w |= DB_STRUCTURE_DATE_MODIFIED;
        if (st->fast_date_modified_sort)
            w |= DB_STRUCTURE_FAST_DATE_MODIFIED;
    }
    if (st->index_date_accessed) {
        w |= DB_STRUCTURE_DATE_ACCESSED;
        if (st->fast_date_accessed_sort)
            w |= DB_STRUCTURE_FAST_DATE_ACCESSED;
    }
    if (st->index_attributes) {
        w |= DB_STRUCTURE_ATTRIBUTES;
        if (st->fast_attributes_sort)
            w |= DB_STRUCTURE_FAST_ATTRIBUTES;
    }
    if (st->fast_path_sort)
        w |= DB_STRUCTURE_FAST_PATH;
    if (st->fast_extension_sort)
        w |= DB_STRUCTURE_FAST_EXTENSION;
    db_structure_set(out, w);
}

void db_structure_set(db_structure_t *s, uint32_t word) {
    static const uint32_t field_bit[DB_FIELD_COUNT] = {DB_STRUCTURE_SIZE, DB_STRUCTURE_DATE_CREATED,
                                                       DB_STRUCTURE_DATE_MODIFIED, DB_STRUCTURE_DATE_ACCESSED,
                                                       DB_STRUCTURE_ATTRIBUTES};
    static const int field_width[DB_FIELD_COUNT] = {8, 8, 8, 8, 4};
    s->word = word;
    int file_at = 0, folder_at = 0;
    for (int f = 0; f < DB_FIELD_COUNT; f++) {
        bool in_files = (word & field_bit[f]) != 0;
        bool in_folders = in_files;
        // Folders carry a size only when both bits ask for it: a folder size without file sizes can't
        // be computed.
        if (f == DB_FIELD_SIZE)
            in_folders = in_files && (word & DB_STRUCTURE_FOLDER_SIZE);
        s->file_offset[f] = in_files ? (int8_t) file_at : (int8_t) -1;
        s->folder_offset[f] = in_folders ? (int8_t) folder_at : (int8_t) -1;
        if (in_files)
            file_at += field_width[f];
        if (in_folders)
            folder_at += field_width[f];
    }
    s->file_data_size = (uint32_t) file_at;
    s->folder_data_size = (uint32_t) folder_at;
}
