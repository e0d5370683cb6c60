// Folder sources kept fresh after their build: a schedule that rescans each source at its time, a rescan
// applied to the index as differences (never as a rebuild), and a listener that follows the platform's
// change notifications between rescans.
//
// Invariants:
// - Only the main thread changes the index, and only while no job holds it: the scan thread, the monitor
//   thread and the details thread read the disk and queue what they found; the main thread applies it.
// - The index's db_t::folder_sources holds this module's state (db_folder_state_t in db_monitor_internal.h):
//   null until something first needs it, freed by db_folder_sources_kill. Its queues are guarded by the
//   index's monitor_lock, which is held for a few lines and never across a platform call.
// - At most one scan runs per index. While its result is being applied, events of the same source are held
//   and applied after it, so that no change is lost and none is applied under a result that predates it.
// - Every function here is for the main thread unless it says otherwise.
#pragma once

#include <cstdint>

#include "config/config.h"
#include "db/db.h"

// ---- schedule ------------------------------------------------------------------------------------------

// A folder source's update type (DB_UPDATE_*) and value from its schedule settings. Settings that make no
// schedule (an unknown type, an interval unit other than minutes or hours, an hour or day out of range)
// give DB_UPDATE_NONE and 0, silently.
void db_folder_schedule(const config_folder_t *folder, uint32_t *update_type, uint32_t *update_value);
// The next update after now (UTC FILETIME) for a schedule; 0 for none. Interval: now plus the minutes.
// At an hour: that hour of local time today, or of the value's weekday (1 Sunday .. 7 Saturday) in this
// week from Sunday; a time at or before now moves on by a day or a week of the local calendar, so a day of
// 23 or 25 hours still gives the asked local hour. Reads the zone through os_filetime_to_local and
// os_local_to_filetime.
uint64_t db_folder_next_update(uint32_t update_type, uint32_t update_value, uint64_t now);
// Sets fs->next_update from now and logs "next update at %d/%02d %d:%02d" in local time.
void db_folder_schedule_next(db_fs_t *fs);

// Picks one folder source to update and starts its scan: update_now first, else the earliest
// next_update that has come. Does nothing while the index isn't loaded, is busy, runs a job or a scan,
// or monitoring is paused or the index is read-only. Called each minute by the tick, after every folder
// update, and when the index goes idle with a check pending.
void db_folders_check_for_updates(db_t *db);
// Sets update_now on the folder source whose path is path (any folder source when path is null) and runs
// the check. Returns how many sources were marked.
int db_folders_update_now(db_t *db, const char *path);
// For an index that is still loading: every folder source it ends up with is marked update_now when the
// load (or the rebuild it leads to) ends, and checked at the next idle moment.
void db_folders_update_now_at_load(db_t *db);

// The tick: a thread that posts the check to the main thread every db_folder_tick_ms while any folder
// source has a schedule. Logged "TRAY_TIMER_FOLDER_UPDATE create" when the first index of the process
// starts one. Starting again is harmless; stopping removes the posted check.
void db_folder_tick_start(db_t *db);
void db_folder_tick_stop(db_t *db);
extern uint32_t db_folder_tick_ms; // 60,000; tests make it short

// ---- rescan --------------------------------------------------------------------------------------------

// Starts a scan of one folder source on the scan thread; the result is applied on the main thread when
// the scan is done and the index idle. False when a scan already runs.
bool db_folder_rescan_start(db_t *db, db_fs_t *fs);
// Whether a scan runs or its result waits to be applied.
bool db_folder_rescan_running(const db_t *db);
// Waits for the running scan and applies it, and so on for each source that the check then starts (those
// marked update_now, and those due): for the end of the session, so that an update under way or asked for
// on the command line is in the index before it is saved. The index must be idle.
void db_folders_update_finish(db_t *db);

// ---- listening -----------------------------------------------------------------------------------------

// Starts the monitor and details threads over every folder source with its monitor flag that isn't out
// of date ("read_directory_changes start %s" per folder), unless the index is read-only, not loaded, or
// monitoring is paused. Starts the tick when any folder source has a schedule. Stops running ones first.
void db_folder_monitors_start(db_t *db);
// Stops both threads, frees the monitors and every queued event, with the log lines of each step. Also
// stops the tick. Nothing running is fine.
void db_folder_monitors_stop(db_t *db);
// Applies the ready events to the index: does nothing while the index isn't loaded, is busy, or is
// already in this step. Events of a source being rescanned are held.
void db_monitor_folder_read_directory_changes_update(db_t *db);
// Whether the source's tree met the user's watch limit: it is not watched, and is rescanned on its
// schedule (an hourly one when it had none).
bool db_folder_watch_limited(const db_t *db, const db_fs_t *fs);

// ---- the index's life ----------------------------------------------------------------------------------

// What the index does at the end of each job (from _db_ready_proc, no job running): applies a scan result
// that waited, then the ready events, then a pending update check.
void db_folder_sources_idle(db_t *db);
// Stops everything of this module for the index (scan joined and dropped, monitors and tick stopped,
// queues freed, events removed) and frees its state. For a rebuild, which replaces the sources, and for
// the index's destroyer.
void db_folder_sources_kill(db_t *db);
