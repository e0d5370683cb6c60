// What a command line asks of the running index's monitors and folder sources.
#include "config/config.h"
#include "db/db.h"
#include "db_create/db_create.h"
#include "db_create/filelist_monitor.h"
#include "debug/debug.h"

void db_monitor_set_pause(db_t *db, bool pause) {
    // The monitors read the source list, which a job may be rewriting: they change only between jobs.
    db_wait(db, "db_monitor_set_pause");
    monitor_pause = pause ? 1 : 0;
    debug_printf("monitor pause %d\n", pause ? 1 : 0);
    if (pause) {
        db_filelists_monitor_stop(db);
        db_folder_monitors_stop(db);
        return;
    }
    // Before the load has ended there is nothing to resume: the load's end starts them under the cleared
    // setting. The start itself checks -read-only and catches up with lists changed during the pause.
    if (db->is_loaded) {
        db_filelists_monitor_start(db);
        db_folder_monitors_start(db);
    }
}

int db_folder_rescan_all(db_t *db) {
    // Still loading: the sources are the load's to make, and are marked as it ends (without waiting here,
    // which would hold the start-up until the load is done).
    if (!db->is_loaded) {
        db_folders_update_now_at_load(db);
        debug_printf("rescan all: folders due once loaded\n");
        return 0;
    }
    db_wait(db, "db_folder_rescan_all");
    int marked = 0;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        if (fs->type != DB_FS_FOLDER) {
            continue;
        }
        fs->next_update = 0;
        fs->update_now = true;
        marked++;
    }
    debug_printf("rescan all: %d folders due\n", marked);
    // The check starts one due source now, or, while a job holds the index, when it ends; each update's end
    // checks again, so the others follow one after another.
    if (marked) {
        db_folders_check_for_updates(db);
    }
    return marked;
}
