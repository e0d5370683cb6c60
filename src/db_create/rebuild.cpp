// The rebuild as a job of the index: what the main thread clears and copies before the thread starts,
// and the thread itself from gathering to the events that end it.
#include <cstring>

#include "db/dbfile.h"
#include "db_create/db_create.h"
#include "db_create/filelist_monitor.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

const db_volume_reader_t *db_ntfs_reader = &db_ntfs_volume_reader;
const db_volume_reader_t *db_refs_reader = nullptr;

void _db_rebuild_thread_proc(db_t *db, void *arg) {
    db_job_t *job = (db_job_t *) arg;
    debug_printf("rebuild thread started\n");
    db_build_sources(job);
    db_build_gather(job);
    db_build_merge(job);
    debug_printf("add monitors\n");
    if (!job->read_only) {
        for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
            if (fs->out_of_date || !fs->monitor)
                continue;
            // Later: the journal monitors start here, once the volume modules exist.
            if (fs->type == DB_FS_NTFS)
                debug_printf("create ntfs monitor %s\n", fs->path ? fs->path : "");
            else if (fs->type == DB_FS_REFS)
                debug_printf("create refs monitor %s\n", fs->path ? fs->path : "");
        }
    }
    // Later: unless remote_name is set, the recent changes start here, and the run history is loaded
    // when job->run_history_enabled says so.
    debug_printf("success \n");
    event_post(_db_load_complete_proc, db);
    db->has_content = true;
    db_set_status(db, nullptr);
    db_job_destroy(job);
    // The job slot posts _db_ready_proc when this returns.
}

void db_rebuild(db_t *db, bool mark_out_of_date) {
    db_wait(db, "db_rebuild");
    if (read_only)
        return;
    debug_printf("create db %d\n", (int) mark_out_of_date);
    // The run history refers to records that are about to go.
    debug_printf("save run history\n");
    if (mark_out_of_date) {
        debug_printf("set ood\n");
        for (db_fs_t *fs = db->fs_first; fs; fs = fs->next)
            fs->out_of_date = true;
    }
    // Later: each query drops its results, events, selection and cached data here, keeping its sort.
    debug_printf("clear queries\n");
    debug_printf("clear folder updates\n");
    // The ready events of the jobs before this one are removed below, so their counts would never come
    // off: the rebuild's own end must find busy at 0, or every later job's end would stop at its first
    // step and the work deferred to it would never run.
    db->busy = 0;
    mem_array_kill(&db->changed_records);
    debug_printf("clear monitors\n");
    debug_printf("destroy service\n");
    db->service_connected = false;
    debug_printf("clear read dir changes\n");
    // The folder sources' scan, listener and queued changes belong to the sources about to be replaced.
    db_folder_sources_kill(db);
    debug_printf("clear filelist monitor\n");
    db_filelists_monitor_stop(db);
    db->filelist_check_made = false;
    mem_array_kill(&db->ntfs_folders);
    mem_array_kill(&db->refs_folders);
    db->is_loaded = false;
    db->has_content = false;
    db->recent_change_enabled = index_recent_changes != 0;
    db_set_status(db, "Rebuilding database...");
    debug_printf("remove events\n");
    event_remove(_db_ready_proc, db);
    event_remove(_db_load_complete_proc, db);
    debug_printf("create volume list\n");
    debug_printf("copy config\n");
    db_job_t *job = db_job_create(db);
    // Later: each query hears "results changed" and "index being rebuilt" here.
    debug_printf("fire create events\n");
    debug_printf("start rebuild thread\n");
    db_job_start(db, "db_rebuild", DB_JOB_OTHER, nullptr, _db_rebuild_thread_proc, job, OS_PRIORITY_NORMAL);
}
