// The job of a rebuild and its list of sources: what the settings ask for, matched with the sources of
// the old index that may be re-used.
#include <cstring>

#include "db_create/db_create.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

void db_structure_from_frozen(db_structure_t *out, const config_frozen_t *c) {
    db_settings_t s;
    s.index_size = c->index_size;
    s.index_folder_size = c->index_folder_size;
    s.index_date_created = c->index_date_created;
    s.index_date_modified = c->index_date_modified;
    s.index_date_accessed = c->index_date_accessed;
    s.index_attributes = c->index_attributes;
    s.fast_size_sort = c->fast_size_sort;
    s.fast_date_created_sort = c->fast_date_created_sort;
    s.fast_date_modified_sort = c->fast_date_modified_sort;
    s.fast_date_accessed_sort = c->fast_date_accessed_sort;
    s.fast_attributes_sort = c->fast_attributes_sort;
    s.fast_path_sort = c->fast_path_sort;
    s.fast_extension_sort = c->fast_extension_sort;
    db_structure_from_settings(out, &s);
}

void db_build_resolve_path(str_t *out, const char *path) {
    config_resolve_path(path ? path : "", out);
    // A root record is named without the trailing separator; "C:\" becomes "C:" and "/" becomes "".
    while (out->len > 0 && (out->ptr[out->len - 1] == OS_SEP))
        out->ptr[--out->len] = 0;
}

static char *_dup(const char *s) {
    return s && *s ? mem_dup(s, strlen(s)) : nullptr;
}

static char *_dup_resolved(const char *s) {
    str_t r;
    str_init(&r);
    db_build_resolve_path(&r, s);
    char *out = mem_dup(r.len ? r.ptr : "", (size_t) r.len);
    str_kill(&r);
    return out;
}

static bool _same(const char *a, const char *b) {
    return strcmp(a ? a : "", b ? b : "") == 0;
}

db_job_t *db_job_create(db_t *db) {
    db_job_t *job = (db_job_t *) mem_alloc(sizeof(db_job_t));
    memset(job, 0, sizeof(*job));
    job->db = db;
    config_freeze(&job->config);
    db_exclude_build(&job->exclude, &job->config);
    db_structure_from_frozen(&job->structure, &job->config);
    job->run_history_enabled = job->config.run_history_enabled != 0;
    job->read_only = read_only;
    job->monitor_pause = monitor_pause != 0;
    job->verbose = debug_verbose;
    db_pool_init(&job->stack);
    return job;
}

static void _sources_free(db_build_source_t *s) {
    while (s) {
        db_build_source_t *next = s->next;
        mem_free(s->guid);
        mem_free(s->path);
        mem_free(s->root);
        mem_free(s->include_only);
        mem_free(s->filename);
        mem_free(s->folders);
        mem_free(s);
        s = next;
    }
}

void db_job_destroy(db_job_t *job) {
    if (!job)
        return;
    _sources_free(job->sources);
    mem_list_kill(&job->folder_list);
    mem_list_kill(&job->file_list);
    db_pool_kill(&job->stack);
    db_exclude_kill(&job->exclude);
    config_frozen_kill(&job->config);
    mem_free(job);
}

static db_build_source_t *_add(db_job_t *job, db_build_source_t ***tail, uint32_t type) {
    db_build_source_t *s = (db_build_source_t *) mem_alloc(sizeof(db_build_source_t));
    memset(s, 0, sizeof(*s));
    s->type = type;
    s->index = job->source_count++;
    **tail = s;
    *tail = &s->next;
    return s;
}

static const db_fs_t *_find_volume(const db_t *db, const db_build_source_t *s) {
    for (const db_fs_t *fs = db->fs_first; fs; fs = fs->next)
        if (fs->type == s->type && _same(fs->guid, s->guid) && _same(fs->path, s->path) &&
            _same(fs->root, s->root) && _same(fs->include_only, s->include_only))
            return fs;
    return nullptr;
}

static void _add_volumes(db_job_t *job, db_build_source_t ***tail, const config_vec_t<config_volume_t> *v,
                         uint32_t type) {
    for (int i = 0; i < v->count; i++) {
        const config_volume_t *c = &v->items[i];
        if (!c->include)
            continue;
        db_build_source_t *s = _add(job, tail, type);
        s->guid = _dup(c->guid);
        s->path = _dup(c->path);
        if (type == DB_FS_NTFS)
            s->root = _dup(c->root);
        s->include_only = _dup(c->include_only);
        s->monitor = c->monitor != 0;
        s->load_recent_changes = c->load_recent_changes != 0;
        s->existing = _find_volume(job->db, s);
    }
}

void db_build_sources(db_job_t *job) {
    debug_printf("build fs list\n");
    db_t *db = job->db;
    db_build_source_t **tail = &job->sources;
    if (!db->remote_name) {
        _add_volumes(job, &tail, &job->config.ntfs_volumes, DB_FS_NTFS);
        _add_volumes(job, &tail, &job->config.refs_volumes, DB_FS_REFS);
    }
    if (db->remote_name) {
        // A private index is its one list and nothing else: no volumes, no folders, never watched.
        db_build_source_t *s = _add(job, &tail, DB_FS_FILE_LIST);
        s->filename = _dup(db->remote_name);
        for (const db_fs_t *fs = db->fs_first; fs && !s->existing; fs = fs->next)
            if (fs->type == DB_FS_FILE_LIST && _same(fs->filename, s->filename))
                s->existing = fs;
        return;
    }
    for (int i = 0; i < job->config.filelists.count; i++) {
        db_build_source_t *s = _add(job, &tail, DB_FS_FILE_LIST);
        s->filename = _dup_resolved(job->config.filelists.items[i].filename);
        s->monitor = job->config.filelists.items[i].monitor != 0;
        for (const db_fs_t *fs = db->fs_first; fs && !s->existing; fs = fs->next)
            if (fs->type == DB_FS_FILE_LIST && _same(fs->filename, s->filename))
                s->existing = fs;
    }
    uint64_t now = os_filetime_now();
    for (int i = 0; i < job->config.folders.count; i++) {
        const config_folder_t *c = &job->config.folders.items[i];
        db_build_source_t *s = _add(job, &tail, DB_FS_FOLDER);
        s->path = _dup_resolved(c->path);
        s->monitor = c->monitor != 0;
        s->buffer_size = (uint32_t) c->buffer_size;
        s->rescan_if_full = c->rescan_if_full != 0;
        db_folder_schedule(c, &s->update_type, &s->update_value);
        s->next_update = job->config.folder_update_rescan_asap
                             ? 0
                             : db_folder_next_update(s->update_type, s->update_value, now);
        for (const db_fs_t *fs = db->fs_first; fs && !s->existing; fs = fs->next)
            if (fs->type == DB_FS_FOLDER && _same(fs->path, s->path) && fs->update_type == s->update_type &&
                fs->update_value == s->update_value)
                s->existing = fs;
        // Later: the folder's change watcher starts here, before the scan, unless monitor_pause is set.
    }
}
