// The live update of the index: the small facts that the monitors read (this file appeared, that folder
// moved, these values changed) applied to a db_t one record at a time, so that every sorted array, the
// folder sizes, the child counts, the changed records and the open queries stay exactly what a new build
// and a new search would give.
//
// Invariants:
// - Every function here runs on the index's job thread, or on the main thread with no job running (after
//   db_wait): the job slot is the only lock. Only the two subtree functions start workers, and those read
//   `parent` fields while the calling thread writes none.
// - A record leaves each sorted array while its key is still the old one and goes back once the key is
//   new, so that no array is ever out of order, not even for the time of one operation.
// - A record reference is stable only while its name and parent stay: a rename or a move makes a new
//   record and frees the old one. Whatever holds references across time (query results, selection,
//   remembered items, recent changes, run history) hears of the replacement here.
// - A fact that can't be applied because its parent or record is missing is logged and dropped: the
//   next rebuild brings the index back. An add of a record that exists leaves it. Only an array that
//   contradicts itself (an insert that meets an equal element, a remove that misses) is fatal: the index
//   file is deleted and the process ends (_db_corrupt).
// - Forms. Each operation has up to three forms with the same steps behind them, differing in how they
//   find the parent: the NTFS form by a 64-bit FRN and the source, the ReFS form (suffix _refs) by a
//   128-bit FRN and the source, the folder form by the parent record (suffix _in) or by a full path
//   (suffix _path). Names are UTF-8 with a byte count and need no terminator; paths are zero-terminated
//   full paths with the platform's separator, as db_get_full_path builds them. The caller keeps every
//   name, path and db_fd_t it passes: nothing here holds on to them.
#pragma once

#include <cstdint>

#include "db/db.h"
#include "mem/array.h"

// ---- what a change carries -----------------------------------------------------------------------------

// A ReFS file reference: 128 bits, low half first, ordered from the high half.
struct db_frn128_t {
    uint64_t low;
    uint64_t high;
};

// What a monitor knows beside the name of the thing that changed. Every pointer may be null: an item
// without details gets unknown values (sizes and dates all ones, attributes 0); a parent without details
// is left as it is. The caller owns all of it.
struct db_change_t {
    const db_fd_t *fd;            // the item's details
    const db_fd_t *parent_fd;     // the (new) parent's details as they stood after the change
    const db_fd_t *old_parent_fd; // renames and moves: the old parent's details
    uint64_t timestamp;           // FILETIME of the change, the recent change date; 0 for none
};

// ---- finding -------------------------------------------------------------------------------------------

// The search key of a file or folder that has not been found yet: its source, parent folder (0 for a
// record directly under the source) and name. db_file_find_key_compare compares an element of `files` or
// `folders` with the key in name order, with the key's fields in place of a second record; it differs
// from db_name_compare only in that the record addresses are no level of it.
struct db_file_find_key_t {
    uint32_t fs_index; // the source's index number
    db_ref_t parent;
    const char *name;
    uint32_t len;
};
int db_file_find_key_compare(mem_ref_t element, const void *key);

// The file or folder of that name directly in parent (parent 0: directly under fs), or 0. fs may be
// null when parent is not 0.
db_ref_t db_file_find(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len);
db_ref_t db_folder_find(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len);

// The folder of the source with that FRN, through the NTFS or ReFS folder array; 0 when none has it.
db_ref_t db_find_folder_by_frn(db_t *db, const db_fs_t *fs, uint64_t frn);
db_ref_t db_find_folder_by_frn_refs(db_t *db, const db_fs_t *fs, db_frn128_t frn);

// The file at a full path, or 0: the last component is searched in `files` by name, first as given, then
// case-folded, and each candidate whose name folds equal is compared by its full path. Comparing full
// paths is exact (bytewise), so two files that differ only in case are told apart.
db_ref_t db_file_find_by_path(db_t *db, const char *path);
// The same for a folder, through `folders`; a source's root folder is found by its own name (the
// source's path).
db_ref_t db_folder_find_by_path(db_t *db, const char *path);

// ---- files -----------------------------------------------------------------------------------------------

// Adds a file under its parent: unless the parent is missing ("unable to add ntfs file: %t: parent
// %016I64x not found", the change is lost), the file excludes refuse the name, or the file exists (it
// stays as it is). Puts it into every file array, tells the queries, grows the parent's size and child
// count and writes change->parent_fd into the parent. Returns the file (the existing one when there was
// one), or 0 when none was added.
db_ref_t db_file_add(db_t *db, const db_fs_t *fs, uint64_t parent_frn, const char *name, uint32_t len,
                     const db_change_t *change);
db_ref_t db_file_add_refs(db_t *db, const db_fs_t *fs, db_frn128_t parent_frn, const char *name, uint32_t len,
                          const db_change_t *change);
db_ref_t db_file_add_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                        const db_change_t *change);
db_ref_t db_file_add_path(db_t *db, const db_fs_t *fs, const char *path, const db_change_t *change);

// Removes a file: from every array, the changed records, the history lists and the queries, and its size
// from the parent's; frees the record. False, with "unable to remove file: %t: file not found", when there
// is no such file. change may be null; its parent_fd is written into the parent.
bool db_file_remove(db_t *db, const db_fs_t *fs, uint64_t parent_frn, const char *name, uint32_t len,
                    const db_change_t *change);
bool db_file_remove_refs(db_t *db, const db_fs_t *fs, db_frn128_t parent_frn, const char *name, uint32_t len,
                         const db_change_t *change);
bool db_file_remove_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                       const db_change_t *change);
bool db_file_remove_path(db_t *db, const char *path, const db_change_t *change);
// Removes the file record itself (it must be in `files`). adjust_size: take its size out of the parent's
// (a removal of a whole subtree does not).
void db_file_remove_record(db_t *db, db_ref_t file, bool adjust_size);

// Renames or moves a file: the old record leaves, a new one under the new name and parent takes its
// values and its place in each query's results and selection (or is dropped from them when it no longer
// matches). When the old parent or the old file is missing the whole becomes an add. change->fd, when
// given, replaces the values; parent_fd and old_parent_fd go to the two parents. Returns the new record,
// or 0 when none was made (new parent missing, new name excluded).
db_ref_t db_file_rename(db_t *db, const db_fs_t *fs, uint64_t old_parent_frn, const char *old_name,
                        uint32_t old_len, uint64_t new_parent_frn, const char *new_name, uint32_t new_len,
                        const db_change_t *change);
db_ref_t db_file_rename_refs(db_t *db, const db_fs_t *fs, db_frn128_t old_parent_frn, const char *old_name,
                             uint32_t old_len, db_frn128_t new_parent_frn, const char *new_name,
                             uint32_t new_len, const db_change_t *change);
db_ref_t db_file_rename_in(db_t *db, const db_fs_t *fs, db_ref_t old_parent, const char *old_name,
                           uint32_t old_len, db_ref_t new_parent, const char *new_name, uint32_t new_len,
                           const db_change_t *change);
db_ref_t db_file_rename_path(db_t *db, const db_fs_t *fs, const char *old_path, const char *new_path,
                             const db_change_t *change);

// Writes new values into a file: only the arrays and query views whose key changes move; an unknown new
// value keeps the old one. The record joins the changed records. False, with "unable to update file: %t:
// file not found", when there is no such file. change->parent_fd goes to the parent.
bool db_file_update(db_t *db, const db_fs_t *fs, uint64_t parent_frn, const char *name, uint32_t len,
                    const db_change_t *change);
bool db_file_update_refs(db_t *db, const db_fs_t *fs, db_frn128_t parent_frn, const char *name, uint32_t len,
                         const db_change_t *change);
bool db_file_update_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                       const db_change_t *change);
bool db_file_update_path(db_t *db, const char *path, const db_change_t *change);
// The same on the record itself; fd may be null (nothing changes). timestamp as in db_change_t.
void db_file_update_record(db_t *db, db_ref_t file, const db_fd_t *fd, uint64_t timestamp);

// ---- folders ---------------------------------------------------------------------------------------------

// Adds a folder. The NTFS and ReFS forms stop when a folder of the source has the FRN already; when one
// of that name and parent is there under another FRN ("folder name %t found, yet FRN 0x%016I64x does not
// exists") it takes the new FRN and no record is made. The folder excludes may refuse it. A new folder has
// size 0, child count 0, values from change->fd; the parent's child count grows and it takes
// change->parent_fd. Returns the folder (the existing one when there was one), or 0 when none is there.
db_ref_t db_folder_add(db_t *db, const db_fs_t *fs, uint64_t frn, uint64_t parent_frn, const char *name,
                       uint32_t len, const db_change_t *change);
db_ref_t db_folder_add_refs(db_t *db, const db_fs_t *fs, db_frn128_t frn, db_frn128_t parent_frn,
                            const char *name, uint32_t len, const db_change_t *change);
db_ref_t db_folder_add_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                          const db_change_t *change);
db_ref_t db_folder_add_path(db_t *db, const db_fs_t *fs, const char *path, const db_change_t *change);

// Removes a folder with everything below it; its size leaves the parent's, the parent's child count
// drops. False, with "unable to remove ntfs folder: %016I64x: file not found", when there is none.
bool db_folder_remove(db_t *db, const db_fs_t *fs, uint64_t frn, const db_change_t *change);
bool db_folder_remove_refs(db_t *db, const db_fs_t *fs, db_frn128_t frn, const db_change_t *change);
bool db_folder_remove_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                         const db_change_t *change);
bool db_folder_remove_path(db_t *db, const char *path, const db_change_t *change);
// Removes the folder record itself (it must be in `folders`), with its subtree.
void db_folder_remove_record(db_t *db, db_ref_t folder);

// Renames or moves a folder (the NTFS and ReFS forms: the folder by its FRN, to a new name under the new
// parent's FRN). A new record takes the old one's values and FRN; every descendant moves to its new
// place in the path-ordered arrays, and descendants that the folder excludes now refuse leave the index.
// A missing new parent or a move into the folder's own subtree removes the folder ("unable to rename ntfs
// folder: %016I64x: new parent not found", "...: move into child"); a missing folder is added as new
// ("...: not found"). Returns the folder under its new name, or 0 when there is none (removed, excluded).
db_ref_t db_folder_rename(db_t *db, const db_fs_t *fs, uint64_t frn, uint64_t new_parent_frn,
                          const char *new_name, uint32_t new_len, const db_change_t *change);
db_ref_t db_folder_rename_refs(db_t *db, const db_fs_t *fs, db_frn128_t frn, db_frn128_t new_parent_frn,
                               const char *new_name, uint32_t new_len, const db_change_t *change);
db_ref_t db_folder_rename_in(db_t *db, const db_fs_t *fs, db_ref_t old_parent, const char *old_name,
                             uint32_t old_len, db_ref_t new_parent, const char *new_name, uint32_t new_len,
                             const db_change_t *change);
db_ref_t db_folder_rename_path(db_t *db, const db_fs_t *fs, const char *old_path, const char *new_path,
                               const db_change_t *change);

// Writes new values into a folder (its size is the index's own sum and is never taken from fd). False,
// with "unable to update ntfs folder: %t: folder not found", when there is none.
bool db_folder_update(db_t *db, const db_fs_t *fs, uint64_t parent_frn, const char *name, uint32_t len,
                      const db_change_t *change);
bool db_folder_update_refs(db_t *db, const db_fs_t *fs, db_frn128_t parent_frn, const char *name,
                           uint32_t len, const db_change_t *change);
bool db_folder_update_in(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                         const db_change_t *change);
bool db_folder_update_path(db_t *db, const char *path, const db_change_t *change);
// The same on the record itself; fd may be null (nothing changes).
void db_folder_update_record(db_t *db, db_ref_t folder, const db_fd_t *fd, uint64_t timestamp);

// ---- support ---------------------------------------------------------------------------------------------

// Moves the size of parent_folder and each of its ancestors by new_size - old_size (unknown values count
// as 0), each out of and back into `folders_by_size` and the size-aware query views, and into the
// changed records. Does nothing without folder sizes (0x0020), for folder 0, or when the sizes are equal.
void db_folder_size_adjust(db_t *db, db_ref_t parent_folder, uint64_t old_size, uint64_t new_size);

// Removes every descendant of folder (files without size adjustment, then folders) from the index and
// frees them; folder itself stays. The subtree is found by parallel scans of `folders` and `files`.
void db_folder_children_remove(db_t *db, const db_fs_t *fs, db_ref_t folder);
// The descendants of old_folder become those of new_folder: each leaves and re-enters the sorted arrays
// under its new path, those the excludes now refuse are removed, folder sizes are summed again from the
// files. A null new_folder is db_folder_children_remove(old_folder).
void db_folder_children_rename(db_t *db, const db_fs_t *fs, db_ref_t old_folder, db_ref_t new_folder);
// Threads for a subtree scan over chunk_count chunks: at most the chunks, max_threads when non-zero,
// find_max_threads when non-zero or else half the processors when that is non-zero and smaller, and never
// more than the processors; at least 1.
uint32_t db_update_thread_count(uint32_t chunk_count, int32_t max_threads, int32_t find_max_threads,
                                int processors);

// How a subtree moves through the sorted arrays: 0 by cost (record by record for a few, one pass over
// each array for many), 1 always in one pass, 2 always record by record. For tests and measurements.
extern int db_update_subtree_bulk;

// The child count of an NTFS or ReFS folder, one up or down (down stops at 0). Folder 0 and folders of
// other sources have none: nothing happens.
void db_children_inc(db_t *db, db_ref_t folder);
void db_children_dec(db_t *db, db_ref_t folder);

// ---- changed records -------------------------------------------------------------------------------------

// The record's displayed values changed: it joins `changed_records` (address order; once) and, unless one
// is pending, a changed-records event is posted to the main thread.
void db_changed_records_add(db_t *db, db_ref_t record);
// The record leaves `changed_records` (it is about to be freed).
void db_changed_records_remove(db_t *db, db_ref_t record);
// The dispatch, on the main thread with no job running: each query that shows one of the changed
// records hears code 5, and the array is emptied. While a job runs it does nothing; the job's end runs
// it. Returns the number of queries told.
int db_changed_records_dispatch(db_t *db);
// The event proc that db_changed_records_add posts; ctx is the db_t.
void _db_changed_records_proc(void *ctx);

// ---- recent changes and run history ----------------------------------------------------------------------

// The lists of recently changed and run records are kept by their own code, which plugs in here; each
// member may be null (nothing is kept). All are called under the job slot's rule.
struct db_update_history_t {
    // A record came into the index by a change at timestamp (FILETIME, 0 unknown).
    void (*added)(db_t *db, db_ref_t record, bool is_folder, uint64_t timestamp);
    // A record is about to be freed: its entries go.
    void (*removed)(db_t *db, db_ref_t record, bool is_folder);
    // A rename or move: the entries of old_record now belong to new_record.
    void (*replaced)(db_t *db, db_ref_t old_record, db_ref_t new_record, bool is_folder, uint64_t timestamp);
    // A record's values changed at timestamp.
    void (*updated)(db_t *db, db_ref_t record, bool is_folder, uint64_t timestamp);
};
extern db_update_history_t db_update_history;

// ---- corruption ------------------------------------------------------------------------------------------

// An array contradicted itself: logs message ("corrupt file name array" and its kin) in the error colour,
// then _db_corrupt. Never returns.
[[noreturn]] void db_corrupt(db_t *db, const char *message);
// Logs "CORRUPT", deletes the index file so that the next start rebuilds, and ends the process with
// "Sablewatch database is corrupt.\nPlease restart Sablewatch to rebuild the database.".
[[noreturn]] void _db_corrupt(db_t *db);
