// The index object, its job slot and the end of each job on the main thread.
//
// The index has no read-write lock. Instead it has one job slot: a job thread (load, rebuild, search,
// sort, application of journal records) owns records and arrays while it runs, and the main thread waits
// for it in db_wait before touching them. The two locks guard only the status text and the queues that
// monitor threads fill.
#include "db/db.h"
#include "db/dbfile.h"
#include "db_create/filelist_monitor.h"
#include "db_monitor/db_monitor.h"
#include "db_update/db_update.h"

#include <cstring>

#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os_shell.h"

// Tells the queries that the status text changed; posted by db_set_status.
static void _db_status_proc(void *ctx) {
    db_queries_status((db_t *) ctx);
}

db_t *db_create(const char *remote_name) {
    db_t *db = (db_t *) mem_alloc(sizeof(db_t));
    memset(db, 0, sizeof(*db));
    os_lock_init(&db->status_lock);
    os_lock_init(&db->monitor_lock);
    // Set while no job runs, so that a wait for the job's end never blocks on an idle index.
    db->job_done = os_event_create(true);
    db->job_priority = OS_PRIORITY_NORMAL;
    db_pool_init(&db->pool);
    if (remote_name)
        db->remote_name = mem_dup(remote_name, strlen(remote_name));
    str_t type;
    str_init(&type);
    if (os_shell_type_text("foo", true, &type))
        db->folder_type = mem_dup(type.ptr, (size_t) type.len);
    str_kill(&type);
    return db;
}

void db_arrays_kill(db_t *db) {
    mem_array_t *arrays[] = {&db->folders,
                             &db->files,
                             &db->folders_by_path,
                             &db->files_by_path,
                             &db->folders_by_size,
                             &db->files_by_size,
                             &db->folders_by_date_created,
                             &db->files_by_date_created,
                             &db->folders_by_date_modified,
                             &db->files_by_date_modified,
                             &db->folders_by_date_accessed,
                             &db->files_by_date_accessed,
                             &db->folders_by_attributes,
                             &db->files_by_attributes,
                             &db->files_by_extension,
                             &db->ntfs_folders,
                             &db->refs_folders,
                             &db->changed_records};
    for (mem_array_t *a : arrays)
        mem_array_kill(a);
}

void db_destroy(db_t *db) {
    if (!db)
        return;
    db_wait(db, "db_destroy");
    // Later: stop the journal monitors, the service client, the read-directory monitors, the device
    // notifications and the monitor-event thread here, once they exist.
    db_filelists_monitor_stop(db);
    db_folder_sources_kill(db);
    event_remove(_db_ready_proc, db);
    event_remove(_db_load_complete_proc, db);
    event_remove(_db_status_proc, db);
    event_remove(_db_changed_records_proc, db);
    db_arrays_kill(db);
    db_pool_kill(&db->pool);
    db_fs_kill_all(db);
    db_exclude_kill(&db->exclude);
    mem_free(db->status_text);
    mem_free(db->remote_name);
    mem_free(db->folder_type);
    os_lock_kill(&db->status_lock);
    os_lock_kill(&db->monitor_lock);
    os_event_destroy(db->job_done);
    mem_free(db);
}

void db_wait(db_t *db, const char *who) {
    if (!db->job_thread)
        return;
    uint32_t start = debug_now_us();
    // The caller now waits for the job, so it must not run behind other work of the machine.
    if (db->job_priority < OS_PRIORITY_NORMAL) {
        os_thread_set_priority(db->job_thread, OS_PRIORITY_NORMAL);
        db->job_priority = OS_PRIORITY_NORMAL;
    }
    debug_printf("DB_WAIT: %s waiting...\n", who);
    // Later: a job that serves a query made with show_cancel_dialog waits cancel_delay milliseconds
    // here and then offers the cancel dialog; neither queries nor the dialog exist yet.
    os_thread_destroy(db->job_thread);
    db->job_thread = nullptr;
    // Whoever shows a job's progress learns here that it is over, whichever call ended the wait.
    db_queries_job_ended(db);
    debug_printf("DB_WAIT: %s waited %f seconds\n", who, (int) (debug_now_us() - start));
}

static void _db_job_thread_proc(void *ctx) {
    db_t *db = (db_t *) ctx;
    db->job_proc(db, db->job_arg);
    os_event_set(db->job_done);
    // The job's last act: the main thread ends it and starts what waited.
    event_post(_db_ready_proc, db);
}

void db_job_start(db_t *db, const char *who, uint32_t kind, db_query_t *query, db_job_proc_t proc, void *arg,
                  int priority) {
    db_wait(db, who);
    db->busy++;
    db->job_query = query;
    db->job_kind = kind;
    db->job_proc = proc;
    db->job_arg = arg;
    os_event_reset(db->job_done);
    db->job_priority = priority;
    db->job_thread = os_thread_create(_db_job_thread_proc, db);
    if (priority != OS_PRIORITY_NORMAL)
        os_thread_set_priority(db->job_thread, priority);
}

void db_set_status(db_t *db, const char *format, ...) {
    char *text = nullptr;
    if (format) {
        str_t s;
        str_init(&s);
        va_list args;
        va_start(args, format);
        str_vprintf(&s, format, args);
        va_end(args);
        text = mem_dup(s.ptr, (size_t) s.len);
        str_kill(&s);
    }
    char *old;
    {
        os_lock_guard guard(&db->status_lock);
        old = db->status_text;
        db->status_text = text;
    }
    mem_free(old);
    // The text may change on a job thread, while the main thread may be changing the query list: the
    // queries are told from the main thread.
    event_post(_db_status_proc, db);
}

void db_get_status(db_t *db, str_t *out) {
    os_lock_guard guard(&db->status_lock);
    str_set(out, db->status_text ? db->status_text : "");
}

void _db_ready_proc(void *ctx) {
    db_t *db = (db_t *) ctx;
    if (db->busy)
        db->busy--;
    // Another job began before this one's end was handled: that job's own end does the rest.
    if (db->busy)
        return;
    db_wait(db, "_db_ready_proc");
    if (db->job_thread)
        return;
    // Queries first: a search stored while the index was loading runs now, and each query hears that
    // the job ended.
    db_queries_idle(db);
    if (db->job_thread)
        return;
    // Records whose values a job changed: their rows are drawn again now that nothing changes them.
    db_changed_records_dispatch(db);
    if (db->job_thread)
        return;
    // Folder sources: a scan result that waited, the changes heard meanwhile, a due update.
    db_folder_sources_idle(db);
    if (db->job_thread)
        return;
    // Later, in this order, each stopping when a new job begins: post each query its codes 8 and 6;
    // apply pending folder changes (always when not loaded); send pending file information changes;
    // call each query with pending new results with code 0; dispatch the changed records; start the
    // application of queued NTFS, then ReFS journal records; start a due folder update unless
    // monitor_pause is set. Their subjects (queries, file information, journals, folder sources) don't
    // exist yet.
    //
    // The deferred flags: their handlers (folder update, the out-of-date rebuild check) come with the
    // folder sources and the index build; the flags stay set until then so that nothing is lost.
}
