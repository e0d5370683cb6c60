// The folder sources' state of one index, and what the index asks of it when a job ends and when the
// sources go.
#include <cstring>

#include "db_monitor/db_monitor.h"
#include "db_monitor/db_monitor_internal.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

db_folder_state_t *db_folder_state(db_t *db) {
    if (!db->folder_sources) {
        db_folder_state_t *st = (db_folder_state_t *) mem_alloc(sizeof(db_folder_state_t));
        memset(st, 0, sizeof(*st));
        st->db = db;
        db->folder_sources = st;
    }
    return (db_folder_state_t *) db->folder_sources;
}

db_folder_state_t *db_folder_state_peek(const db_t *db) {
    return (db_folder_state_t *) db->folder_sources;
}

// ---- the index's life ----------------------------------------------------------------------------------

void db_folder_sources_idle(db_t *db) {
    db_folder_state_t *st = db_folder_state_peek(db);
    if (st && st->apply_pending) {
        _db_folder_update_complete_proc(db);
    }
    if (db_job_running(db) || db->busy) {
        return;
    }
    if (st && st->ready.first) {
        db_monitor_folder_read_directory_changes_update(db);
    }
    if (db->folder_update_pending && !db_job_running(db) && !db->busy) {
        db_folders_check_for_updates(db);
    }
}

void db_folder_sources_kill(db_t *db) {
    db_folder_state_t *st = db_folder_state_peek(db);
    if (!st) {
        return;
    }
    db_folder_monitors_stop(db);
    if (st->scan_thread) {
        // A scan can't be cut short; its result is dropped with the sources it was made for.
        os_thread_destroy(st->scan_thread);
        st->scan_thread = nullptr;
    }
    event_remove(_db_folder_update_complete_proc, db);
    if (st->scan_result) {
        scan_result_kill(st->scan_result);
        mem_free(st->scan_result);
    }
    rdc_event_free_list(st->details.first);
    rdc_event_free_list(st->ready.first);
    rdc_event_free_list(st->held.first);
    event_remove(_db_folder_rdc_update_proc, db);
    mem_free(st);
    db->folder_sources = nullptr;
}
