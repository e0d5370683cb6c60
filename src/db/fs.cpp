// The sources of an index and its exclude lists.
#include "db/db.h"

#include <cstring>
#include <pcre2.h>

#include "mem/mem.h"

db_fs_t *db_fs_add(db_t *db, uint32_t type) {
    db_fs_t *fs = (db_fs_t *) mem_alloc(sizeof(db_fs_t));
    memset(fs, 0, sizeof(*fs));
    fs->index = db->fs_count;
    fs->type = type;
    fs->db = db;
    fs->change_state = -1;
    if (db->fs_last)
        db->fs_last->next = fs;
    else
        db->fs_first = fs;
    db->fs_last = fs;
    if (db->fs_count == db->fs_table_cap) {
        db->fs_table_cap = db->fs_table_cap ? db->fs_table_cap * 2 : 8;
        db->fs_table = (db_fs_t **) mem_realloc(db->fs_table, db->fs_table_cap * sizeof(db_fs_t *));
    }
    db->fs_table[db->fs_count++] = fs;
    return fs;
}

db_fs_t *db_fs_get(const db_t *db, uint32_t index) {
    return index < db->fs_count ? db->fs_table[index] : nullptr;
}

void db_fs_set_text(char **field, const char *text) {
    mem_free(*field);
    *field = text && *text ? mem_dup(text, strlen(text)) : nullptr;
}

static void _fs_free(db_fs_t *fs) {
    mem_free(fs->guid);
    mem_free(fs->path);
    mem_free(fs->root);
    mem_free(fs->include_only);
    mem_free(fs->filename);
    mem_free(fs);
}

void db_fs_kill_all(db_t *db) {
    db_fs_t *fs = db->fs_first;
    while (fs) {
        db_fs_t *next = fs->next;
        _fs_free(fs);
        fs = next;
    }
    mem_free(db->fs_table);
    db->fs_first = db->fs_last = nullptr;
    db->fs_table = nullptr;
    db->fs_count = db->fs_table_cap = 0;
}

static void _exclude_list_free(db_exclude_item_t *item) {
    while (item) {
        db_exclude_item_t *next = item->next;
        if (item->regex)
            pcre2_code_free((pcre2_code *) item->regex);
        mem_free(item->text);
        mem_free(item->match);
        mem_free(item);
        item = next;
    }
}

void db_exclude_kill(db_exclude_t *e) {
    _exclude_list_free(e->folders);
    _exclude_list_free(e->files);
    _exclude_list_free(e->include_only_files);
    memset(e, 0, sizeof(*e));
}
