// Whether the index still serves the settings, and what of a settings change applies in place.
#include <cstring>

#include "db_create/db_create.h"
#include "db_create/filelist_monitor.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os_dir.h"

static bool _same(const char *a, const char *b) {
    return strcmp(a ? a : "", b ? b : "") == 0;
}

static void _all_out_of_date(db_t *db) {
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next)
        fs->out_of_date = true;
}

// Tests 1 to 4: the structure word and the exclude rules.
static bool _settings_changed(db_t *db, const config_frozen_t *config) {
    db_structure_t wanted;
    db_structure_from_frozen(&wanted, config);
    const uint32_t fields = 0x1F;
    if (wanted.word & fields & ~db->structure.word) {
        debug_printf("rebuild: structure changed\n");
        _all_out_of_date(db);
        return true;
    }
    if (wanted.word != db->structure.word) {
        debug_printf("rebuild: flags changed\n");
        return true;
    }
    db_exclude_t e;
    db_exclude_build(&e, config);
    bool changed = true;
    if (db_exclude_looser(&db->exclude, &e)) {
        debug_printf("rebuild: excludes changed\n");
        _all_out_of_date(db);
    } else if (!db_exclude_list_equal(db->exclude.folders, e.folders) ||
               !db_exclude_list_equal(db->exclude.files, e.files) ||
               !db_exclude_list_equal(db->exclude.include_only_files, e.include_only_files)) {
        debug_printf("rebuild: excludes changed\n");
    } else {
        changed = false;
    }
    db_exclude_kill(&e);
    return changed;
}

struct _walk_t {
    db_t *db;
    db_fs_t *fs; // the next source to compare
    bool *recent;
    bool *monitor;
};

static bool _volumes(_walk_t *w, const config_vec_t<config_volume_t> *v, uint32_t type) {
    bool ntfs = type == DB_FS_NTFS;
    for (int i = 0; i < v->count; i++) {
        const config_volume_t *c = &v->items[i];
        if (!c->include)
            continue;
        db_fs_t *fs = w->fs;
        const char *why = nullptr;
        if (!fs)
            why = ntfs ? "rebuild: new ntfs volume" : "rebuild: new refs volume";
        else if (fs->type != type)
            why = ntfs ? "rebuild: ntfs index type changed" : "rebuild: refs index type changed";
        else if (!_same(fs->guid, c->guid))
            why = "rebuild: guid changed";
        else if (!_same(fs->path, c->path))
            why = "rebuild: path changed";
        else if (ntfs && !_same(fs->root, c->root))
            why = "rebuild: root changed";
        else if (!_same(fs->include_only, c->include_only))
            why = "rebuild: include only changed";
        if (why) {
            debug_printf("%s\n", why);
            return true;
        }
        if (fs->load_recent_changes != (c->load_recent_changes != 0) && w->recent)
            *w->recent = true;
        if (fs->monitor != (c->monitor != 0) && w->monitor)
            *w->monitor = true;
        fs->load_recent_changes = c->load_recent_changes != 0;
        fs->monitor = c->monitor != 0;
        w->fs = fs->next;
    }
    return false;
}

static bool _filelists(_walk_t *w, const config_vec_t<config_filelist_t> *v) {
    str_t path;
    str_init(&path);
    bool required = false;
    for (int i = 0; i < v->count && !required; i++) {
        db_build_resolve_path(&path, v->items[i].filename);
        db_fs_t *fs = w->fs;
        if (!fs)
            debug_printf("rebuild: new filelist volume\n");
        else if (fs->type != DB_FS_FILE_LIST)
            debug_printf("rebuild: filelist index type changed\n");
        else if (!_same(fs->filename, path.ptr))
            debug_printf("rebuild: filelist filename changed\n");
        else {
            fs->monitor = v->items[i].monitor != 0;
            w->fs = fs->next;
            continue;
        }
        required = true;
    }
    str_kill(&path);
    return required;
}

static bool _folders(_walk_t *w, const config_vec_t<config_folder_t> *v) {
    str_t path;
    str_init(&path);
    bool required = false;
    for (int i = 0; i < v->count && !required; i++) {
        const config_folder_t *c = &v->items[i];
        db_build_resolve_path(&path, c->path);
        db_fs_t *fs = w->fs;
        if (!fs)
            debug_printf("rebuild: new folder volume\n");
        else if (fs->type != DB_FS_FOLDER)
            debug_printf("rebuild: folder index type changed\n");
        else if (!_same(fs->path, path.ptr))
            debug_printf("rebuild: folder filename changed\n");
        else {
            uint32_t type, value;
            db_folder_schedule(c, &type, &value);
            fs->monitor = c->monitor != 0;
            fs->buffer_size = (uint32_t) c->buffer_size;
            fs->rescan_if_full = c->rescan_if_full != 0;
            if (type != fs->update_type || value != fs->update_value) {
                fs->update_type = type;
                fs->update_value = value;
                fs->next_update = db_folder_next_update(type, value, os_filetime_now());
            }
            w->fs = fs->next;
            continue;
        }
        required = true;
    }
    str_kill(&path);
    return required;
}

// Whether a rebuild could read the source now: the list opens, the folder lists. Existing is not enough:
// a source that exists but can't be read would be rebuilt again and again, failing each time.
static bool _can_read(const db_fs_t *fs, const char *path) {
    if (fs->type == DB_FS_FILE_LIST) {
        os_file_t f = os_file_open_sequential(path);
        os_file_close(f);
        return f != OS_FILE_INVALID;
    }
    os_dir_t *d = os_dir_open(path);
    os_dir_close(d);
    return d != nullptr;
}

// Tests 15 and 16: sources that can be read again, and file lists that changed on disk.
static bool _sources_stale(db_t *db) {
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        const char *name = fs->type == DB_FS_FILE_LIST ? fs->filename : fs->path;
        const char *scan = name && *name ? name : OS_SEP_STR;
        os_file_info_t info;
        bool readable = false;
        if (fs->type == DB_FS_FILE_LIST)
            readable = _can_read(fs, scan) && os_get_target_info(scan, &info);
        else if (fs->type == DB_FS_FOLDER)
            readable = fs->out_of_date && _can_read(fs, scan); // only an unread folder asks
        else {
            const db_volume_reader_t *r = fs->type == DB_FS_NTFS ? db_ntfs_reader : db_refs_reader;
            // Later: the volume reader's own test (it opens and gives its journal) goes here.
            readable = r != nullptr;
        }
        if (fs->out_of_date && readable)
            return true;
        if (fs->type == DB_FS_FILE_LIST && readable && info.date_modified != fs->last_write_time) {
            debug_printf("filelist out of date\n");
            fs->out_of_date = true;
            return true;
        }
    }
    return false;
}

bool db_is_rebuild_required(db_t *db, bool *recent_flag_changed, bool *monitor_flag_changed) {
    if (read_only)
        return false;
    config_frozen_t config;
    config_freeze(&config);
    _walk_t w = {db, db->fs_first, recent_flag_changed, monitor_flag_changed};
    bool required = _settings_changed(db, &config);
    if (!required && !db->remote_name)
        required =
            _volumes(&w, &config.ntfs_volumes, DB_FS_NTFS) || _volumes(&w, &config.refs_volumes, DB_FS_REFS);
    if (!required)
        required = _filelists(&w, &config.filelists) || _folders(&w, &config.folders);
    if (!required && w.fs) {
        debug_printf("rebuild: index removed\n");
        required = true;
    }
    if (!required)
        required = _sources_stale(db);
    config_frozen_kill(&config);
    return required;
}

void db_apply_settings(db_t *db, bool *queries_need_refresh) {
    db_wait(db, "db_apply_settings");
    bool recent = false, monitor = false;
    if (db_is_rebuild_required(db, &recent, &monitor)) {
        debug_printf("apply settings: rebuild required\n");
        db_rebuild(db, false);
        if (queries_need_refresh)
            *queries_need_refresh = true;
        return;
    }
    db->recent_change_enabled = index_recent_changes != 0;
    // Later: with monitor changes (and neither monitor_pause nor read_only), the journal monitors are
    // stopped and started again, then the folder monitors restart.
    (void) recent;
    (void) monitor;
    // A list's monitor flag may have changed without a rebuild; the start stops what runs and honours the
    // pause and read-only itself.
    db_filelists_monitor_start(db);
}
