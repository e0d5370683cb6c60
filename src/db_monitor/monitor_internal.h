// The listener's own objects: one monitor per watched folder source and the two threads that serve them.
// Not for other modules.
//
// Invariants:
// - A monitor's handle, delay, buffer size and rename_old_name belong to the monitor thread once it runs;
//   limit and limit_told are guarded by the index's monitor_lock, since the main thread reads them.
// - The details thread takes events one at a time from the details queue and hands them on to the ready
//   queue, both under the monitor lock; it posts the apply step when it has run out of work.
// - The exclude rules the threads test are the index's: no rebuild changes them while the listener runs,
//   since a rebuild stops it first. Each thread has its own match data.
#pragma once

#include <cstdint>

#include "db_monitor/db_monitor_internal.h"
#include "os/os_dirwatch.h"

struct rdc_listener_t;

// A source without a schedule whose tree can't be watched in full is rescanned this often.
#define RDC_LIMIT_INTERVAL_MINUTES 60

struct rdc_monitor_t {
    rdc_monitor_t *next;
    rdc_listener_t *listener;
    char *path;            // the folder as it is watched ("/" for the Linux top)
    db_fs_t *fs;           // the source
    os_dirwatch_t *handle; // null when closed
    char *rename_old_name; // full path of the last old-name entry, until its new name comes
    uint32_t delay;        // ms before the watch is made again; 0 when none runs
    uint32_t delay_start;  // os_tick_ms when the delay began
    uint32_t buffer_size;
    bool rescan_if_full;
    bool limit;      // the user's watch limit was met: this source is left to its schedule
    bool limit_told; // the main thread has said so
};

struct rdc_listener_t {
    db_t *db;
    db_folder_state_t *st;
    rdc_monitor_t *monitors;
    uint32_t flags; // for os_dirwatch_create
    os_thread_t *monitor_thread;
    os_thread_t *details_thread;
    os_watch_stop_t *stop;
    os_event_t *details_wake;
    bool details_stop;        // under the monitor lock
    void *match_data;         // the monitor thread's
    void *details_match_data; // the details thread's
};

// While set, the monitor thread waits on it before each read, as a thread that can't keep up would: tests
// close it to make changes pile up until the watch overflows. Null (the default) never waits.
extern os_event_t *rdc_read_gate;
// Flags every new watch is made with (tests force the per-folder watch with OS_DIRWATCH_NO_FANOTIFY).
extern uint32_t rdc_dirwatch_flags;

// Whether the item at path (zero-terminated, below a root of root_len bytes) is left out by the index's
// excludes: any folder between the root and it, then its own name as a folder or a file by kind
// (OS_DIRWATCH_FOLDER, _FILE, or _KIND_UNKNOWN: left out only when both rules leave it out).
bool rdc_path_excluded(const db_exclude_t *e, void *match_data, const char *path, uint32_t root_len,
                       uint32_t kind);
// The buffer size after a server refused size.
uint32_t rdc_buffer_shrink(uint32_t size);
// Queues an event for the details thread and wakes it. Any thread.
void rdc_listener_queue(rdc_listener_t *l, rdc_event_t *e);
// Fetches what an event needs from the disk (details, a long path, a scan): the details thread's work on
// one event. Any thread but the main one; touches no index memory.
void rdc_event_fetch(const db_t *db, rdc_event_t *e);
void rdc_details_thread_proc(void *arg);
// Posted by the monitor thread when a watch met the user's limit; ctx is the db_t.
void _db_folder_watch_limit_proc(void *ctx);
