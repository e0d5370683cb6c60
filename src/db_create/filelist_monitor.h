// Noticing that a list file behind a source of the index has changed, so that the index is rebuilt from
// it. A monitor thread watches the folders of the monitored lists and, when one of them changes, asks the
// main thread to check; the check compares each list's date modified with the date saved when the list
// was read, and inequality alone decides. A list that has vanished is not a change: its source keeps its
// records.
//
// Invariants:
// - The monitor thread reads the source list and writes only the sources' change_handle fields, under no
//   lock: the main thread stops the monitor before any source is rebuilt or destroyed. It reaches the
//   main thread only through event_post.
// - change_handle of a list source is an os_watch_t on the list's folder, owned by the monitor; stopping
//   the monitor closes every one of them, so that a stopped monitor leaves no handle behind.
// - The check runs on the main thread, from the event queue or from the start itself, never on the
//   monitor thread.
// - One wait takes at most OS_WATCH_WAIT_MAX objects, the stop object first. Lists beyond that, and lists
//   whose folder can't be watched now, are checked on a 60-second time-out instead.
#pragma once

struct db_t;

// Stops any running monitor, then starts one when a list source that isn't out of date has its monitor
// flag, and, if the index is ready and has sources, checks at once, so that edits made while the program
// was off are found. Does nothing more than stop under -read-only or with monitoring paused. Main thread.
void db_filelists_monitor_start(db_t *db);
// Sets the stop object, joins the thread, closes every list source's watch and removes a pending check
// from the main thread's queue. Nothing running is fine. Main thread; the index's destroyer calls it
// before the sources go.
void db_filelists_monitor_stop(db_t *db);
// Whether a list of a source that isn't out of date has a known date modified other than the saved one;
// each such source is marked out of date. Logs "check for file list changes", "filelist out of date" per
// changed list and "checked for file list changes in %f seconds". False when the index isn't ready.
// Main thread.
bool _db_filelists_is_change(db_t *db);
// The check as the event queue runs it (ctx is the db_t): when the index is ready and has sources, marks
// a check as made and, on a change, stops the monitor and requests a rebuild, which re-reads the marked
// sources.
void _db_filelists_check_proc(void *ctx);
