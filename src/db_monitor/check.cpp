// The check that picks one due folder source and starts its scan, and the tick that runs it each minute.
#include <cstring>

#include "config/config_vars.h"
#include "db_create/db_create.h"
#include "db_monitor/db_monitor.h"
#include "db_monitor/db_monitor_internal.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

uint32_t db_folder_tick_ms = 60000;

// ---- the check -----------------------------------------------------------------------------------------

bool db_folder_index_idle(const db_t *db) {
    return db->is_loaded && !db->busy && !db_job_running(db);
}

// The source to update: the first with update_now, else the one with a schedule that is due first.
static db_fs_t *_pick(db_t *db) {
    db_fs_t *pick = nullptr;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        if (fs->type != DB_FS_FOLDER || (!fs->update_type && !fs->update_now)) {
            continue;
        }
        if (fs->update_now) {
            if (!pick || !pick->update_now) {
                pick = fs;
            }
        } else if (!pick || (!pick->update_now && fs->next_update < pick->next_update)) {
            pick = fs;
        }
    }
    return pick;
}

void db_folders_check_for_updates(db_t *db) {
    if (read_only || monitor_pause || db->remote_name || !db->is_loaded) {
        return;
    }
    if (db->busy || db_job_running(db)) {
        // The end of the job runs the check again.
        db->folder_update_pending = true;
        return;
    }
    db->folder_update_pending = false;
    if (db_folder_rescan_running(db)) {
        return;
    }
    db_fs_t *fs = _pick(db);
    if (!fs || (!fs->update_now && fs->next_update > os_filetime_now())) {
        return;
    }
    fs->update_now = false;
    const char *path = fs->path ? fs->path : "";
    debug_printf("update folder start %s\n", path);
    if (!db_folder_rescan_start(db, fs)) {
        return;
    }
    db_set_status(db, "Scanning %s...", *path ? path : OS_SEP_STR);
    if (fs->update_type) {
        db_folder_schedule_next(fs);
    }
}

int db_folders_update_now(db_t *db, const char *path) {
    db_wait(db, "db_folders_update_now");
    str_t want;
    str_init(&want);
    if (path) {
        db_build_resolve_path(&want, path);
    }
    int marked = 0;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        if (fs->type != DB_FS_FOLDER) {
            continue;
        }
        if (path && strcmp(fs->path ? fs->path : "", want.len ? want.ptr : "") != 0) {
            continue;
        }
        fs->update_now = true;
        marked++;
    }
    str_kill(&want);
    if (marked) {
        db_folders_check_for_updates(db);
    }
    return marked;
}

void db_folders_update_now_at_load(db_t *db) {
    db_folder_state(db)->update_all_at_load = true;
}

// ---- the tick ------------------------------------------------------------------------------------------

// Indexes of the process with a running tick: the log says when the first one starts and the last ends,
// as the one timer of the main window would. Main thread only.
static int s_tick_users = 0;

static void _db_folder_tick_proc(void *ctx) {
    db_folders_check_for_updates((db_t *) ctx);
}

static void _tick_thread_proc(void *arg) {
    db_folder_state_t *st = (db_folder_state_t *) arg;
    while (!os_event_wait(st->tick_stop, db_folder_tick_ms)) {
        event_post(_db_folder_tick_proc, st->db);
    }
}

void db_folder_tick_start(db_t *db) {
    bool scheduled = false;
    for (db_fs_t *fs = db->fs_first; fs && !scheduled; fs = fs->next) {
        scheduled = fs->type == DB_FS_FOLDER && fs->update_type != DB_UPDATE_NONE;
    }
    if (!scheduled) {
        return;
    }
    db_folder_state_t *st = db_folder_state(db);
    if (st->tick_thread) {
        return;
    }
    if (s_tick_users++ == 0) {
        debug_printf("TRAY_TIMER_FOLDER_UPDATE create\n");
    }
    st->tick_stop = os_event_create(false);
    st->tick_thread = os_thread_create(_tick_thread_proc, st);
}

void db_folder_tick_stop(db_t *db) {
    db_folder_state_t *st = db_folder_state_peek(db);
    if (!st || !st->tick_thread) {
        return;
    }
    os_event_set(st->tick_stop);
    os_thread_destroy(st->tick_thread);
    os_event_destroy(st->tick_stop);
    st->tick_thread = nullptr;
    st->tick_stop = nullptr;
    // Only now: the thread can't post again once it has been joined.
    event_remove(_db_folder_tick_proc, db);
    if (--s_tick_users == 0) {
        debug_printf("TRAY_TIMER_FOLDER_UPDATE destroy\n");
    }
}
