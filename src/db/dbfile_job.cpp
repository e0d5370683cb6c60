// The load as a job of the index, its end on the main thread, and the save at the program's chosen
// moments (shutdown, end of session, an IPC request, -update).
#include <cstring>

#include "config/config.h"
#include "db/dbfile.h"
#include "db_create/db_create.h"
#include "db_create/filelist_monitor.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

// What the load thread works from, copied on the main thread so that it reads no live setting.
struct db_load_job_t {
    char *path;
    bool compressed;
    bool read_only;
    bool monitor_pause;
    bool run_history_enabled;
    config_frozen_t config;
    db_load_settings_t settings;
};

// The one hand-over to the index build. A failed or skipped load leaves an empty index, and the build is
// what fills it again.
static void _db_rebuild_start_default(db_t *db) {
    db_rebuild(db, false);
}

// A loaded index is rebuilt when it left nothing or when the settings no longer describe it.
static bool _db_rebuild_required_default(db_t *db) {
    return !db->has_content || db_is_rebuild_required(db, nullptr, nullptr);
}

db_file_rebuild_ops_t db_file_rebuild_ops = {_db_rebuild_required_default, _db_rebuild_start_default};

static void _db_start_rebuild(db_t *db) {
    db_file_rebuild_ops.start(db);
}

static bool _db_rebuild_required(db_t *db) {
    return !db_file_read_only() && db_file_rebuild_ops.required(db);
}

static void _job_free(db_load_job_t *job) {
    config_frozen_kill(&job->config);
    mem_free(job->path);
    mem_free(job);
}

static void _log_sources(const db_t *db) {
    for (const db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        debug_printf("fs out of date %d\n", (int) fs->out_of_date);
        if (fs->out_of_date || (fs->type != DB_FS_NTFS && fs->type != DB_FS_REFS))
            continue;
        debug_printf("fs NTFS %s %d\n", fs->path ? fs->path : "", (int) fs->monitor);
        // Later: the journal monitor of this source starts here when fs->monitor is set.
    }
}

static void _db_load_job_proc(db_t *db, void *arg) {
    db_load_job_t *job = (db_load_job_t *) arg;
    uint32_t start = debug_now_us();
    // A load always starts from nothing, so that a failure leaves nothing behind either.
    db_file_clear(db);
    bool ok = db_file_load(db, job->path, job->compressed, &job->settings);
    if (ok) {
        db_set_status(db, "Updating database...");
        if (!job->read_only && !job->monitor_pause)
            _log_sources(db);
        // Later, with their subjects: start the recent changes unless read_only; load the run history
        // when run_history_enabled was on at the start of the load; unless read_only or monitor_pause,
        // flush each NTFS and ReFS monitor and apply what it queued.
        db->has_content = true;
    }
    event_post(_db_load_complete_proc, db);
    debug_printf("loaded %d folders, %d files, in %f seconds\n", (int) db->folders.count,
                 (int) db->files.count, (int) (debug_now_us() - start));
    _job_free(job);
}

void db_load(db_t *db, uint32_t flags) {
    (void) flags;
    // A private index over one list has no file of its own: reading the list is its load.
    if (db->remote_name) {
        _db_start_rebuild(db);
        return;
    }
    if (db_file_no_db()) {
        debug_printf("no db file\n");
        _db_start_rebuild(db);
        return;
    }
    debug_printf("db_load\n");
    db_set_status(db, "Loading database...");
    db_load_job_t *job = (db_load_job_t *) mem_alloc(sizeof(db_load_job_t));
    memset(job, 0, sizeof(*job));
    str_t path;
    str_init(&path);
    db_file_name(&path, false, db_multi_user_filename != 0);
    job->path = mem_dup(path.ptr, (size_t) path.len);
    str_kill(&path);
    job->compressed = db_compress != 0;
    job->read_only = db_file_read_only();
    job->monitor_pause = monitor_pause != 0;
    job->run_history_enabled = run_history_enabled != 0;
    config_freeze(&job->config);
    job->settings.config = &job->config;
    job->settings.read_only = job->read_only;
    db->recent_change_enabled = index_recent_changes != 0;
    db_job_start(db, "db_load", DB_JOB_OTHER, nullptr, _db_load_job_proc, job, OS_PRIORITY_NORMAL);
}

void _db_load_complete_proc(void *ctx) {
    db_t *db = (db_t *) ctx;
    db_wait(db, "_db_load_complete_proc");
    db->is_loaded = true;
    // Later: unless monitor_pause or read_only is set, the journal monitors and the folder watchers start
    // here; then the queries hear of pending recent changes and run history.
    db_filelists_monitor_start(db);
    db_folder_monitors_start(db);
    // The start's check found a changed list and started a rebuild: the index is that job's now, and its
    // own end runs this again.
    if (!db->is_loaded)
        return;
    db_set_status(db, nullptr);
    if (!db->remote_name && _db_rebuild_required(db)) {
        debug_printf("load complete: rebuild required\n");
        _db_start_rebuild(db);
    }
    // Later: each query's search that was stored while loading runs again here.
}

void db_save(db_t *db, bool force) {
    if (db_file_no_db() || db_file_read_only() || db->remote_name)
        return;
    db_wait(db, "db_save");
    if (force && !db->has_content) {
        // Clears the way for a new index; nothing is written now, as there is still no content.
        _db_start_rebuild(db);
    }
    db_set_status(db, "Saving to disk...");
    // Later: each NTFS and ReFS monitor is flushed and its queued records applied, and pending folder
    // changes are applied, so that the file holds everything known now.
    debug_printf("db_save_local %d folders, %d files\n", (int) db->folders.count, (int) db->files.count);
    uint32_t start = debug_now_us();
    if (db->has_content) {
        str_t final_name, temporary;
        str_init(&final_name);
        str_init(&temporary);
        db_file_name(&final_name, false, db_multi_user_filename != 0);
        db_file_name(&temporary, true, db_multi_user_filename != 0);
        db_file_save(db, final_name.ptr, temporary.ptr, db_compress != 0);
        str_kill(&final_name);
        str_kill(&temporary);
    }
    debug_printf("saved db: %f seconds\n", (int) (debug_now_us() - start));
    db_set_status(db, nullptr);
}
