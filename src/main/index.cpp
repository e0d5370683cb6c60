// The process's one index: created and loaded when the program will search, rebuilt or saved on request
// from the command line, saved and destroyed at shutdown.
#include "cl/cl.h"
#include "config/config.h"
#include "db/db.h"
#include "db/dbfile.h"
#include "db_create/db_create.h"
#include "debug/debug.h"
#include "main/main.h"
#include "os/os.h"

db_t *db = nullptr;

// The load delay of -load-delay: a pooled thread that waits out the delay on an event and posts the load
// to the main thread, unless the shutdown sets the event first.
static os_thread_t *load_timer_thread = nullptr;
static os_event_t *load_timer_cancel = nullptr;
static uint32_t load_timer_ms = 0;

void main_db_load() {
    const cl_t *cl = main_command_line();
    main_db_load_file(cl ? cl->db : nullptr);
}

void main_db_load_file(const char *db_file) {
    if (db)
        return;
    db_file_set_command_line(db_file, main_instance(), no_db, read_only);
    db = db_create(nullptr);
    db_load(db, 0);
}

static void _main_load_timer_proc(void *ctx) {
    main_db_load();
}

static void _main_load_timer_thread(void *arg) {
    if (!os_event_wait(load_timer_cancel, load_timer_ms))
        event_post(_main_load_timer_proc, nullptr);
}

static void _main_load_timer_kill() {
    if (!load_timer_thread)
        return;
    os_event_set(load_timer_cancel);
    os_thread_destroy(load_timer_thread);
    os_event_destroy(load_timer_cancel);
    load_timer_thread = nullptr;
    load_timer_cancel = nullptr;
    event_remove(_main_load_timer_proc, nullptr);
}

// Whether this command line makes the program search its own index: not when it opens a file list as
// its index, connects to a server, or the setting index names another index than the local one.
static bool _main_searches_local_index(const cl_t *cl) {
    if (cl && (cl->flags & CL_FLAG_LOCAL))
        return true;
    if (cl && (cl->file_list || cl->connect))
        return false;
    return index_setting == 0;
}

void main_db_apply_command_line(const cl_t *cl, bool running) {
    if (cl && (cl->flags & CL_FLAG_REINDEX)) {
        main_db_load();
        db_rebuild(db, true);
    }
    if (cl && (cl->flags & CL_FLAG_UPDATE)) {
        main_db_load();
        // A command line that also quits saves through the shutdown.
        if (!(cl->flags & CL_FLAG_EXIT))
            db_save(db, true);
    }
    // The index's own folder sources; before the index exists, once the load below has made it.
    if (cl && (cl->flags & CL_FLAG_RESCAN_ALL) && db) {
        db_folder_rescan_all(db);
    }
    // A line that only ends the program opens no window, so it has nothing to search.
    if (db || (cl && (cl->flags & CL_FLAG_EXIT)) || !_main_searches_local_index(cl))
        return;
    if (!running && cl && cl->load_delay > 0 && !load_timer_thread) {
        load_timer_ms = (uint32_t) cl->load_delay;
        load_timer_cancel = os_event_create(false);
        load_timer_thread = os_thread_create(_main_load_timer_thread, nullptr);
        return;
    }
    if (!load_timer_thread) {
        main_db_load();
        if (cl && (cl->flags & CL_FLAG_RESCAN_ALL))
            db_folder_rescan_all(db);
    }
}

void main_db_save() {
    if (db) {
        db_save(db, false);
    }
}

void main_db_kill() {
    _main_load_timer_kill();
    if (!db)
        return;
    // A load or rebuild still under way ends first, and the steps it queued for this thread (the load's
    // completion, the rebuild a load asks for, the ready step) run here, since the loop has ended: a
    // command line such as "-reindex -update -exit" then saves the finished index. Only the index's own
    // events run: anything else queued belongs to parts that are already gone, and stays for the log.
    while (db->busy) {
        db_wait(db, "shutdown");
        if (!event_dispatch_for(db) && !db->job_thread)
            break;
    }
    // A folder update under way, or asked for by this command line, ends in the index that is saved.
    db_folders_update_finish(db);
    db_save(db, false);
    db_destroy(db);
    db = nullptr;
}
