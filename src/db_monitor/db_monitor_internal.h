// The state of the folder sources of one index, shared by the schedule, the rescan, the listener and the
// apply step. Not for other modules.
//
// Invariants:
// - The event queues (details, ready, held) are guarded by db->monitor_lock and handed over whole: a thread
//   takes a queue by swapping its head for null under the lock and works on it outside the lock.
// - scan_thread, scan_fs, scan_result and scan_done belong to the main thread; the scan thread only fills
//   the result it was given and posts _db_folder_update_complete_proc.
// - An event owns its texts and its scan result; rdc_event_free frees all of it.
#pragma once

#include <cstdint>

#include "db/db.h"
#include "folder/folder.h"
#include "os/os.h"

struct rdc_monitor_t;

// Event types: the platform's FILE_ACTION_* values, and 0 for a rescan of the whole source.
enum {
    RDC_RESCAN = 0,
    RDC_ADDED = 1,
    RDC_REMOVED = 2,
    RDC_MODIFIED = 3,
    RDC_RENAMED_OLD = 4,
    RDC_RENAMED_NEW = 5,
};

struct rdc_event_t {
    rdc_event_t *next;
    rdc_monitor_t *monitor; // null for an event made without a listener (a test, a queued rescan)
    db_fs_t *fs;            // the source
    char *path;             // full path as the notification named it (heap)
    char *old_path;         // type 5: the old full path (heap), else null
    char *long_path;        // path in its long form once the details thread has looked; null until then
    char *old_long_path;
    uint32_t type;
    bool is_folder;   // what the notification or the details say the item is
    bool kind_known;  // the notification said whether it is a folder (ReadDirectoryChangesW doesn't)
    bool got_details; // the details thread has been over it
    os_file_info_t item, old_item, parent, old_parent;
    scan_result_t *scan; // type 0, once scanned
};

// Makes an event with copies of the paths (old_path may be null) and every detail unknown.
rdc_event_t *rdc_event_new(db_fs_t *fs, rdc_monitor_t *monitor, uint32_t type, const char *path,
                           const char *old_path, bool is_folder);
void rdc_event_free(rdc_event_t *e);
void rdc_event_free_list(rdc_event_t *first);

// A queue: first and last.
struct rdc_queue_t {
    rdc_event_t *first;
    rdc_event_t *last;
};
void rdc_queue_push(rdc_queue_t *q, rdc_event_t *e);
// Appends all of from to q and empties from.
void rdc_queue_append(rdc_queue_t *q, rdc_queue_t *from);
// Puts from in front of q and empties from.
void rdc_queue_prepend(rdc_queue_t *q, rdc_queue_t *from);
// Drops every modified event that another modified event of the same source and path follows directly in
// the queue, keeping the last of each run. Returns how many were dropped (and freed).
int rdc_queue_merge_modified(rdc_queue_t *q);

struct db_folder_state_t {
    db_t *db;

    // The one scan of a scheduled or requested update.
    os_thread_t *scan_thread;
    db_fs_t *scan_fs;
    scan_result_t *scan_result;
    bool scan_done;     // the scan thread has posted its end; the result waits for an idle index
    bool apply_pending; // the result found the index busy; apply it when the index is idle

    // The tick.
    os_thread_t *tick_thread;
    os_event_t *tick_stop;

    // The listener, when it runs (monitor.cpp).
    void *listener;

    // The queues, under db->monitor_lock.
    rdc_queue_t details;     // waiting for the details thread
    rdc_queue_t ready;       // waiting for the apply step
    rdc_queue_t held;        // of a source whose rescan is being applied
    bool applying;           // the apply step runs (main thread only)
    bool update_all_at_load; // mark every folder source due when the load ends
};

// The state of the index, made on first use.
db_folder_state_t *db_folder_state(db_t *db);
// The state, or null when none was made.
db_folder_state_t *db_folder_state_peek(const db_t *db);

// Posted by the scan thread when its scan is done; ctx is the db_t.
void _db_folder_update_complete_proc(void *ctx);
// The apply step as the event queue runs it; ctx is the db_t.
void _db_folder_rdc_update_proc(void *ctx);
// Scans a folder source into r with the index's excludes, as a rebuild would. Any thread; reads only
// db->exclude, which the main thread doesn't change while a scan runs. False when the top can't be read.
bool db_folder_rescan_scan(const db_t *db, const db_fs_t *fs, scan_result_t *r);
// The same scan of any folder of a source (a subtree that appeared), its root item being that folder.
bool db_folder_rescan_scan_path(const db_t *db, const char *path, scan_result_t *r);
// Adds what a scan of a subtree found below top (the record of the scan's root) and updates what is there
// already; removes nothing. Main thread, index idle.
void db_folder_rescan_merge(db_t *db, db_fs_t *fs, scan_result_t *r, db_ref_t top);
// Applies a scan result of fs to the index as differences. Main thread, index idle.
void db_folder_rescan_apply(db_t *db, db_fs_t *fs, scan_result_t *r);
// Whether the index is idle enough for the main thread to change it.
bool db_folder_index_idle(const db_t *db);

// Applies one event to the index (the apply step's work on it). Main thread, index idle.
void rdc_event_apply(db_t *db, rdc_event_t *e);

// Stops the listener's threads and frees the monitors (monitor.cpp). Nothing running is fine.
void db_folder_listener_stop(db_t *db, db_folder_state_t *st);
