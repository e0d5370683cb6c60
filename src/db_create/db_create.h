// The index build: deciding when the index no longer serves the settings, and building a new one from
// every configured source on one job thread, re-using source by source what the old index still holds.
//
// Invariants:
// - The rebuild thread reads no live setting: everything it needs is copied on the main thread into a
//   db_job_t (a frozen copy of the settings, the exclude rules, the wanted structure) before it starts.
// - Sources deliver temporary records. They have the final record layout of the wanted structure (the
//   source index in front of a record without a parent, the long name length, parent, name length, name,
//   data block) so that the index's own orders sort them, followed by the FRN fields of volume sources:
//       folders of NTFS sources: frn (8 bytes); of ReFS sources: frn (16 bytes, low half first)
//       every record of an NTFS source: parent_frn_high (4 bytes); of a ReFS source: parent_frn (16)
//   They live in an arena pool of their own, so that every pass can hold them as 32-bit references, and
//   they die together when the build ends.
// - A temporary record of a volume source holds in `parent` the low word of its parent's FRN until the
//   conversion; afterwards every `parent` is a temporary record, 0 (an orphan or an excluded record), or
//   one of the two markers below. No marker ever reaches a final record.
// - The old index stays readable until the "clear old db" step of the merge: re-used sources copy their
//   old records into temporary ones before it.
// - Exclude matching never allocates: each thread that matches holds its own match-data block.
#pragma once

#include <cstdint>

#include "config/config.h"
#include "db/db.h"
#include "mem/list.h"

struct str_t;

// Markers in a temporary record's parent field. Neither can be a record reference: a record is at least
// six bytes long and the arena ends 4 and 8 bytes behind their offsets.
#define DB_BUILD_TOP  0xFFFFFFFFu // a top record of its source (a root folder or a file directly under it)
#define DB_BUILD_DUPE 0xFFFFFFFEu // a duplicate, dropped with all it holds

// ---- excludes ------------------------------------------------------------------------------------------

enum {
    DB_EXCLUDE_PATH = 0,          // a path: the full path equals it or lies below it
    DB_EXCLUDE_NAME = 1,          // a name, compared with case folded
    DB_EXCLUDE_WILDCARD = 2,      // wildcards against the name
    DB_EXCLUDE_ALL = 4,           // "*"
    DB_EXCLUDE_ENDS = 5,          // "*text"
    DB_EXCLUDE_BEGINS = 6,        // "text*"
    DB_EXCLUDE_CONTAINS = 7,      // "*text*"
    DB_EXCLUDE_PATH_WILDCARD = 8, // wildcards and a separator: against the full path
    DB_EXCLUDE_REGEX = 9,         // "regex:" against the name
    DB_EXCLUDE_PATH_REGEX = 10,   // "regex:" against the full path
};

// Classifies one pattern and appends it to a list. The text is kept as written, case and all, less the
// stars of the ends-with, begins-with and contains kinds and less "regex:"; the matchers get a folded copy.
// A regular expression is compiled with JIT, or kept as a text that matches nothing when it doesn't
// compile. On Linux a separator in a regular expression is '/', on Windows a doubled backslash. Returns
// the new tail link.
db_exclude_item_t **db_exclude_add(db_exclude_item_t **tail, const char *pattern, uint32_t len);
// Appends an item already classified, its text as db_exclude_add keeps it (as the database file keeps
// it), with the same folded copy or compiled expression that db_exclude_add makes. Returns the new tail.
db_exclude_item_t **db_exclude_add_stored(db_exclude_item_t **tail, uint32_t kind, const char *text,
                                          uint32_t len);
// Builds the three lists and the flags from the frozen settings (the lists stay empty with the exclude
// list switched off; the hidden and system flags apply still). out is overwritten; kill it with
// db_exclude_kill.
void db_exclude_build(db_exclude_t *out, const config_frozen_t *config);
// True when the two lists have the same items in the same order (kind and text).
bool db_exclude_list_equal(const db_exclude_item_t *a, const db_exclude_item_t *b);
// True when old has an item that new lacks, or the hidden and system flags differ: the new rules let
// through something that the index left out.
bool db_exclude_looser(const db_exclude_t *old_rules, const db_exclude_t *new_rules);

// A match-data block for one thread (a pcre2_match_data). Never null; free with the destroy call.
void *db_exclude_match_data_create();
void db_exclude_match_data_destroy(void *match_data);
// Whether one item matches a name, or the full path where its kind needs it (path may be null when no
// item of the list needs it; the path kinds then match nothing).
bool db_exclude_item_match(const db_exclude_item_t *item, void *match_data, const char *name, uint32_t len,
                           const char *path, uint32_t plen);
// Whether any item of a list matches (path may be null as for db_exclude_item_match).
bool db_exclude_list_match(const db_exclude_item_t *list, void *match_data, const char *name, uint32_t len,
                           const char *path, uint32_t plen);
// A folder is excluded when any excluded-folder item matches.
bool db_exclude_folder(const db_exclude_t *e, void *match_data, const char *name, uint32_t len,
                       const char *path, uint32_t plen);
// A file is excluded when an excluded-file item matches, or when there are included-only items and none
// matches.
bool db_exclude_file(const db_exclude_t *e, void *match_data, const char *name, uint32_t len,
                     const char *path, uint32_t plen);
// Whether the hidden and system flags leave out an item with these attributes.
bool db_exclude_attributes(const db_exclude_t *e, uint32_t attributes);

// ---- the job and its sources ---------------------------------------------------------------------------

struct db_build_source_t {
    db_build_source_t *next;
    uint32_t type;  // DB_FS_*
    uint32_t index; // position in the new index's source list
    bool out_of_date;
    db_fs_t *fs; // the new source once made
    char *guid;  // heap texts owned by the build source, null when empty
    char *path;
    char *root;
    char *include_only;
    char *filename;
    bool monitor;
    uint64_t journal_id;
    uint64_t next_usn;
    db_ref_t *folders; // this source's folders as a flat array (volume sources, during the conversion)
    uint32_t folder_count;
    uint32_t file_count;
    bool load_recent_changes;
    const db_fs_t *existing;  // the old source that may be re-used, or null
    uint64_t last_write_time; // file lists
    // Folder sources.
    uint32_t buffer_size;
    bool rescan_if_full;
    uint32_t update_type;
    uint32_t update_value;
    uint64_t next_update;
    // The slices of the job's folder and file lists that this source filled.
    uint32_t folder_first;
    uint32_t file_first;
};

// What a rebuild thread gets, built on the main thread.
struct db_job_t {
    db_t *db;
    config_frozen_t config; // volume lists, file lists, folders, exclude settings as they stood
    db_exclude_t exclude;   // built fresh from config
    bool run_history_enabled;
    bool read_only;
    bool monitor_pause;
    bool verbose;
    db_structure_t structure; // the wanted structure
    // Build state of the thread.
    db_pool_t stack; // the temporary records
    mem_list_t folder_list;
    mem_list_t file_list;
    db_build_source_t *sources;
    uint32_t source_count;
};

// What a source reader gets for one source.
struct db_build_ctx_t {
    db_job_t *job;
    db_pool_t *stack;
    mem_list_t *folder_list;
    mem_list_t *file_list;
    db_build_source_t *source;
    uint32_t folder_count;
    uint32_t file_count;
};

// A new temporary record with the name and the details of fd stored in the wanted structure's data block
// (a folder's size starts as 0), listed and counted. parent is a temporary record, or DB_BUILD_TOP for a
// top record of the source (it then carries the source index in front). Returns the record. A name longer
// than DB_NAME_MAX is logged and makes no record: a file gives 0, a folder an unnamed orphan that the
// merge drops with all it holds.
db_ref_t db_build_folder_new(db_build_ctx_t *ctx, db_ref_t parent, const char *name, uint32_t len,
                             const os_file_info_t *fd);
db_ref_t db_build_file_new(db_build_ctx_t *ctx, db_ref_t parent, const char *name, uint32_t len,
                           const os_file_info_t *fd);

// One entry of a volume's file table as a volume reader delivers it. FRNs are 128 bits (low, high); an
// NTFS volume uses only the low half.
struct db_volume_entry_t {
    uint64_t frn_low, frn_high;
    uint64_t parent_frn_low, parent_frn_high;
    const char *name;
    uint32_t name_len;
    os_file_info_t fd;
};
// The volume's root folder on NTFS.
#define DB_NTFS_ROOT_FRN 0x0005000000000005ull

// Called by a volume reader for each entry: applies the reader rules (the root entry becomes the top
// record named by the source's path; an entry under FRN 0 is skipped; hidden and system entries are
// skipped as the excludes say) and makes the temporary record.
void db_build_volume_entry(db_build_ctx_t *ctx, const db_volume_entry_t *entry);

// A volume reader, plugged in by the volume modules (null where there is none: the source then can't be
// read and keeps its old records, if it has any).
struct db_volume_reader_t {
    // Opens the source's volume; null when it can't be opened (the reader logs why).
    void *(*open)(const db_build_source_t *source);
    // The journal's identifier and next USN; false when there is no journal to follow.
    bool (*query_journal)(void *volume, uint64_t *journal_id, uint64_t *next_usn);
    // Reads every entry through db_build_volume_entry. False when the read failed.
    bool (*read)(void *volume, db_build_ctx_t *ctx);
    void (*close)(void *volume);
};
extern const db_volume_reader_t *db_ntfs_reader;
// The NTFS reader of the build (src/db_create/ntfs.cpp): opens the source's guid (or path when there is
// none) as a volume, reads its boot sector, and reads its file table through db_build_volume_entry. The
// default db_ntfs_reader.
extern const db_volume_reader_t db_ntfs_volume_reader;
// Adds a volume to the settings' NTFS list, as the user would: volume is what is opened (a volume device,
// and on Linux a block device or an image file), name the root folder's name in the index ("C:", or ""
// for "/"). Included, not monitored, no root, no include-only. The next rebuild reads it.
void db_ntfs_source_add(const char *volume, const char *name);
extern const db_volume_reader_t *db_refs_reader;

// The folder scan the rebuild reads folder sources with: for each item below path, proc(ctx, parent,
// folder, name, len, fd), where parent is what proc returned for the containing folder, or 0 for the top.
// The scan applies the folder excludes (folders that match are neither delivered nor entered) and the
// hidden and system flags; file excludes are left to the rebuild. Returns false, having delivered nothing,
// when path can't be listed.
typedef uintptr_t (*db_scan_proc_t)(void *ctx, uintptr_t parent, bool folder, const char *name, uint32_t len,
                                    const os_file_info_t *fd);
typedef bool (*db_folder_scan_t)(const char *path, const db_exclude_t *exclude, db_scan_proc_t proc,
                                 void *ctx);
// The scan in use; the built-in one walks the tree with os_dir. The folder module may replace it.
extern db_folder_scan_t db_folder_scan;
bool db_folder_scan_default(const char *path, const db_exclude_t *exclude, db_scan_proc_t proc, void *ctx);

// ---- the public operations -----------------------------------------------------------------------------

// True if the settings can't be served by the index as it is; logs the first difference. Marks sources
// out of date where the difference means that they can't be re-used, and takes over the source settings
// that need no rebuild (monitor flags, folder schedules), reporting a change of load_recent_changes or of
// a volume's monitor through the two outputs (either may be null). Main thread.
bool db_is_rebuild_required(db_t *db, bool *recent_flag_changed, bool *monitor_flag_changed);
// Starts a rebuild job. With mark_out_of_date every source is read again. Main thread.
void db_rebuild(db_t *db, bool mark_out_of_date);
// After a change of the settings: a rebuild if one is required, else the settings that apply in place.
// queries_need_refresh (may be null) is set when the index changed under the queries.
void db_apply_settings(db_t *db, bool *queries_need_refresh);

// The wanted structure from frozen settings.
void db_structure_from_frozen(db_structure_t *out, const config_frozen_t *config);

// The resolved form of a configured path, as the sources store it: resolved against the settings folder,
// without a trailing separator (the Linux "/" becomes "").
void db_build_resolve_path(str_t *out, const char *path);
// A folder source's update type and value, and its next update time: db_folder_schedule and
// db_folder_next_update of the folder sources' own module.
#include "db_monitor/db_monitor.h"

// ---- parts of the build, for the rebuild thread and its tests ------------------------------------------

// Makes the job on the main thread from the current settings.
db_job_t *db_job_create(db_t *db);
void db_job_destroy(db_job_t *job);
// The whole rebuild thread: gathering, merging, and the events at its end.
void _db_rebuild_thread_proc(db_t *db, void *arg);

// The path of a temporary record: names joined with the separator, walking up to a marker or 0. Gives up
// (returns false) on a chain deeper than any real path, as a cycle makes.
bool db_build_path(str_t *out, db_ref_t r);
// The FRN fields of a temporary record of a volume source.
uint8_t *db_build_frn(const db_job_t *job, uint32_t type, db_ref_t folder);
uint8_t *db_build_parent_frn(const db_job_t *job, uint32_t type, bool folder, db_ref_t r);

// Gathering: the source list, then each source read or re-used.
void db_build_sources(db_job_t *job);
void db_build_gather(db_job_t *job);
// The FRN conversion of one volume source, with its root and include-only limits.
void db_build_convert_volume(db_job_t *job, db_build_source_t *source);
// Merging: from the temporary records to the final index.
void db_build_merge(db_job_t *job);

// ---- the fast sorts of the merge -----------------------------------------------------------------------
// Each gives exactly the array that a stable sort of the same input with the index's own comparator
// gives; they only spend fewer full comparisons getting there.

// A map from record references to 32-bit values: open addressing over a power of two of slots, at most
// half full. Reference 0 can't be a key.
struct db_build_map_slot_t {
    db_ref_t key; // 0 marks an empty slot
    uint32_t value;
};

struct db_build_map_t {
    db_build_map_slot_t *slots; // key and value side by side: a lookup touches one cache line
    uint32_t mask;              // slot count - 1
};

// Room for capacity keys. Owns its memory until db_build_map_kill.
void db_build_map_init(db_build_map_t *m, uint32_t capacity);
void db_build_map_kill(db_build_map_t *m);
// Adds or replaces; key must not be 0 and at most capacity keys may be put.
void db_build_map_put(db_build_map_t *m, db_ref_t key, uint32_t value);
// The value of key, UINT32_MAX when it was never put.
uint32_t db_build_map_get(const db_build_map_t *m, db_ref_t key);

// The folded-path class of every folder: folders sorted by db_path_compare_lower_base, equal paths sharing
// one rank (1 and up; 0 stands for "no folder").
struct db_build_ranks_t {
    db_build_map_t map;   // folder -> rank
    uint32_t *class_size; // folders per rank, rank_count + 1 entries
    uint32_t rank_count;
};

// Ranks the n folders (distinct records whose parent chains end at 0). With given_ranks null they are
// sorted here; otherwise given_ranks[i] is folders[i]'s rank and class_sizes (rank_count + 1 entries) is
// copied. Owns its memory until db_build_ranks_kill.
void db_build_ranks_init(db_build_ranks_t *r, const db_ref_t *folders, uint32_t n,
                         const uint32_t *given_ranks, const uint32_t *class_sizes, uint32_t rank_count);
void db_build_ranks_kill(db_build_ranks_t *r);
// The rank of a folder; 0 for the null reference; UINT32_MAX for a folder that was not ranked.
uint32_t db_build_rank(const db_build_ranks_t *r, db_ref_t folder);

// Sorts items in place in the build's name order: db_name_compare, then the parent reference, stable.
// ranks (may be null) must rank every parent of the items.
void db_build_sort_names(db_ref_t *items, uint32_t n, const db_build_ranks_t *ranks);
// out gets the path order (db_path_name_compare) of the n records of by_name, which is in name order
// (db_name_compare) with no two records equal under it; ranks ranks every parent. out must not be by_name.
void db_build_path_order(const db_ref_t *by_name, uint32_t n, const db_build_ranks_t *ranks, db_ref_t *out);
// out gets the order of db_compare for order and folder from by_name, which is in name order: a value
// order or the extension order.
void db_build_value_order(const db_t *db, db_order_t order, bool folder, const db_ref_t *by_name, uint32_t n,
                          db_ref_t *out);

// ---- control from the command line -----------------------------------------------------------------------

// Pauses (true) or resumes (false) the index's monitors: sets the monitor_pause setting, and stops the
// monitors that run or starts again those the index calls for (the file-list monitor, with its check for
// lists changed meanwhile). Nothing starts under -read-only or before the index is loaded: the load's
// end starts them. Main thread.
void db_monitor_set_pause(db_t *db, bool pause);
// Marks every folder source as due for its update now and runs the folder update check, which starts one
// at once or when the job that holds the index ends. Returns the number of folder sources marked; an index
// that is still loading has them marked as its load ends, and 0 is returned. Main thread.
int db_folder_rescan_all(db_t *db);
