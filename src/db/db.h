// The index: one in-memory object (db_t) holding a list of sources (db_fs_t), a forest of packed folder
// and file records, and the sorted arrays of references to those records that search walks.
//
// Invariants:
// - A record is a packed byte run in the record arena, named by a 32-bit db_ref_t (the arena offset / 4,
//   0 is null). The reference points at the record's `parent` field; what lies in front of it depends on
//   the record, so that the ordinary record pays nothing:
//       [fs index, 4 bytes]        only when parent is 0 (a root folder, or a file directly under a source)
//       [long_name_len, 4 bytes]   only when the name has 255 bytes or more
//       parent                     4 bytes, db_ref_t of the owning folder, or 0      <- the reference
//       name_len                   1 byte; 255 means that long_name_len holds the length
//       name                       name_len bytes of UTF-8, no terminator
//       data block                 file or folder data size of the structure, fields unaligned
//       [frn]                      folders of NTFS (8 bytes) and ReFS (16 bytes, low half first) sources
//       [child_count, 4 bytes]     folders of NTFS and ReFS sources
//   A record is a folder or a file only by which array or parent link reached it: the bytes don't say.
// - The structure word is fixed for the life of an index; every record of the index has the layout that
//   it gives. Multi-byte fields are little-endian and unaligned; a size or date of all one bits is
//   unknown, attributes of 0 mean none known.
// - All records come from the index's pool, which takes 65,536-byte blocks from the arena. The pool has
//   no lock: only the main thread (with no job running) or the one job thread allocates.
// - The index has no read-write lock. It has one job slot: at most one job thread works on it at a time,
//   and the main thread touches records and arrays only after db_wait. Every public db_ function that
//   touches the index starts with db_wait(db, "its name").
// - Every order below is a strict total order over distinct records, so that mem_array_find finds
//   exactly one. Descending forms call the ascending one with the arguments swapped.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mem/arena.h"
#include "mem/array.h"
#include "os/os.h"

struct str_t;
struct db_t;
struct db_query_t; // the query object lives with the search code; the index keeps only the list

// ---- references ----------------------------------------------------------------------------------------

typedef mem_ref_t db_ref_t;

// A record reference to its bytes: an add and a shift. The reference must not be 0.
inline uint8_t *db_ptr(db_ref_t r) {
    return (uint8_t *) mem_arena_base + ((size_t) r << 2);
}
// A pointer into the arena, 4-byte aligned, to its reference; null gives 0.
inline db_ref_t db_ref(const void *p) {
    return mem_ref(p);
}

// ---- the structure word --------------------------------------------------------------------------------

enum {
    DB_STRUCTURE_SIZE = 0x0001,               // size of files stored
    DB_STRUCTURE_DATE_CREATED = 0x0002,       // date created stored
    DB_STRUCTURE_DATE_MODIFIED = 0x0004,      // date modified stored
    DB_STRUCTURE_DATE_ACCESSED = 0x0008,      // date accessed stored
    DB_STRUCTURE_ATTRIBUTES = 0x0010,         // attributes stored
    DB_STRUCTURE_FOLDER_SIZE = 0x0020,        // size of folders stored (only with 0x0001)
    DB_STRUCTURE_FAST_SIZE = 0x0100,          // arrays sorted by size
    DB_STRUCTURE_FAST_DATE_CREATED = 0x0200,  // arrays sorted by date created
    DB_STRUCTURE_FAST_DATE_MODIFIED = 0x0400, // arrays sorted by date modified
    DB_STRUCTURE_FAST_DATE_ACCESSED = 0x0800, // arrays sorted by date accessed
    DB_STRUCTURE_FAST_ATTRIBUTES = 0x1000,    // arrays sorted by attributes
    DB_STRUCTURE_FAST_PATH = 0x2000,          // arrays sorted by path
    DB_STRUCTURE_FAST_EXTENSION = 0x4000,     // file array sorted by extension
};
// What the default settings ask for: size, date modified, their sorted arrays, and path.
#define DB_STRUCTURE_DEFAULT 0x2505u

// The fields of a data block, in their fixed order.
enum db_field_t {
    DB_FIELD_SIZE,
    DB_FIELD_DATE_CREATED,
    DB_FIELD_DATE_MODIFIED,
    DB_FIELD_DATE_ACCESSED,
    DB_FIELD_ATTRIBUTES,
    DB_FIELD_COUNT
};

#define DB_UNKNOWN UINT64_MAX

// A file's details apart from its name, as readers and monitors deliver them: size, date modified, date
// created, date accessed (unknown: all ones), attributes (unknown: 0).
typedef os_file_info_t db_fd_t;

// The word and what db_structure_set derives from it. Offsets are bytes from the start of the data
// block, -1 for a field that is not stored. File and folder offsets are apart because the size may be in
// one and not in the other.
struct db_structure_t {
    uint32_t word;
    uint32_t file_data_size;
    uint32_t folder_data_size;
    int8_t file_offset[DB_FIELD_COUNT];
    int8_t folder_offset[DB_FIELD_COUNT];
};

// The index settings that decide the structure word, as one value, so that a word can be computed from
// the live settings, from a frozen copy of them or from a test's choice alike.
struct db_settings_t {
    bool index_size;
    bool index_folder_size;
    bool index_date_created;
    bool index_date_modified;
    bool index_date_accessed;
    bool index_attributes;
    bool fast_size_sort;
    bool fast_date_created_sort;
    bool fast_date_modified_sort;
    bool fast_date_accessed_sort;
    bool fast_attributes_sort;
    bool fast_path_sort;
    bool fast_extension_sort;
};

// The default settings (they give DB_STRUCTURE_DEFAULT).
void db_settings_default(db_settings_t *s);
// The settings as the process-wide setting variables hold them now.
void db_settings_from_config(db_settings_t *s);
// The word that the settings ask for, with its conditions (folder size only with size, each fast sort
// only with its field), set into out through db_structure_set.
void db_structure_from_settings(db_structure_t *out, const db_settings_t *settings);
// The same from the current setting variables.
void db_structure_from_config(db_structure_t *out);
// Sets the word and derives the two data sizes and every field's offset. Bits that break a condition
// are kept in the word but store nothing (folder size without size stores no size).
void db_structure_set(db_structure_t *s, uint32_t word);

// ---- sources -------------------------------------------------------------------------------------------

enum { DB_FS_NTFS = 0, DB_FS_FILE_LIST = 1, DB_FS_FOLDER = 2, DB_FS_REFS = 3, DB_FS_TYPE_COUNT = 4 };
enum { DB_UPDATE_NONE = 0, DB_UPDATE_INTERVAL = 1, DB_UPDATE_DAILY = 2 };

// One source. Texts are heap blocks owned by the source (mem_dup), null when empty; db_fs_set_text
// replaces one. Fields of the other types stay zero.
struct db_fs_t {
    db_fs_t *next;  // next source, in index order
    uint32_t index; // position in the list, from 0; what a root record's fs field holds
    uint32_t type;  // DB_FS_*
    db_t *db;
    uint8_t out_of_date; // contents can't be trusted: no monitor, read again at the next rebuild

    // NTFS and ReFS volumes. path is also the folder source's path.
    char *guid;         // the volume's GUID path
    char *path;         // what the volume is called; the name of its root folder
    char *root;         // a folder below the volume's top to which the source is limited, or null
    char *include_only; // list of folders to which the source is limited, or null
    bool monitor;       // watch the journal (volumes), the list file (file lists), the tree (folders)
    uint64_t journal_id;
    uint64_t next_usn; // first USN not yet applied
    bool load_recent_changes;

    // File lists.
    char *filename;
    uint64_t last_write_time;
    int32_t change_state; // starts at -1
    void *change_handle;  // the list folder's change watch, owned by the file-list monitor; null when none

    // Folders.
    uint32_t buffer_size;
    bool rescan_if_full;
    uint32_t update_type; // DB_UPDATE_*
    uint32_t update_value;
    uint64_t next_update; // FILETIME
    bool update_now;
    void *folder_monitor; // the running monitor, owned by the folder source code
};

// Appends a new zeroed source of the type (change_state -1) and returns it; the index owns it.
db_fs_t *db_fs_add(db_t *db, uint32_t type);
// The source with this index number, or null.
db_fs_t *db_fs_get(const db_t *db, uint32_t index);
// Replaces a text field of a source with a copy of text (null or "" leave it null).
void db_fs_set_text(char **field, const char *text);
// Frees every source of the index with its texts, and the table.
void db_fs_kill_all(db_t *db);

// ---- excludes ------------------------------------------------------------------------------------------

struct db_exclude_item_t {
    db_exclude_item_t *next;
    uint32_t length; // bytes of text
    uint32_t kind;
    void *regex; // compiled pattern (pcre2_code) or null; owned by the item
    // The pattern as the settings wrote it, less the stars of the ends-with, begins-with and contains
    // kinds and less "regex:": what the database file keeps and what a change of the settings is judged
    // by. Heap, zero-terminated.
    char *text;
    // What the matchers compare with: text folded to lower case, wildcard runs collapsed. Heap,
    // zero-terminated; null for the regular expression kinds, which match through regex.
    char *match;
    uint32_t match_length;
};

// Excluded folders, excluded files, included-only files; then whether a folder or file pattern needs
// the whole path, and the two copies of the hidden and system settings.
struct db_exclude_t {
    db_exclude_item_t *folders;
    db_exclude_item_t *files;
    db_exclude_item_t *include_only_files;
    bool folder_needs_path;
    bool file_needs_path;
    bool exclude_hidden;
    bool exclude_system;
};

// Frees all three lists and zeroes the whole object.
void db_exclude_kill(db_exclude_t *e);

// ---- the record pool -----------------------------------------------------------------------------------

#define DB_POOL_LARGE       256   // records of this size and more are large
#define DB_POOL_LARGE_STEP  64    // large records are kept in classes of this many bytes
#define DB_POOL_LARGE_MAX   65464 // the largest record: one arena block less its link and header
#define DB_POOL_LARGE_CLASS (MEM_ARENA_BLOCK / DB_POOL_LARGE_STEP)

// Small records are bumped from a chain of arena blocks (the first word of each block links the next)
// and come back on a free list for their exact rounded size. Large records carry two words in front
// (previous, next) that keep them in a doubly linked list; they are bumped from the same blocks and come
// back on a free list of their 64-byte class. Nothing goes back to the arena until the pool dies.
struct db_pool_t {
    db_ref_t block_first;
    db_ref_t block_last;
    uint8_t *current;     // next free byte of the last block
    uint8_t *end;         // end of the last block
    db_ref_t large_first; // reference of the first large record's header
    db_ref_t large_last;
    uint32_t block_count;
    uint32_t large_count;
    db_ref_t free_lists[DB_POOL_LARGE];       // by rounded size; entries whose size isn't a multiple of 4
                                              // stay 0
    db_ref_t large_free[DB_POOL_LARGE_CLASS]; // by size / 64 of the whole allocation, header included
};

void db_pool_init(db_pool_t *p);
// Gives every block back to the arena and leaves an empty pool: the free lists are cleared, the chain
// is dropped, every reference from the pool becomes invalid.
void db_pool_kill(db_pool_t *p);
// size bytes (rounded up to 4) from the pool; never 0. Sizes above DB_POOL_LARGE_MAX are fatal.
db_ref_t db_pool_alloc(db_pool_t *p, size_t size);
// Gives back a block of exactly the size it was allocated with.
void db_pool_free(db_pool_t *p, db_ref_t ref, size_t size);

// The index's pool: records and the other small fixed objects of the index.
db_ref_t db_record_alloc(db_t *db, size_t size);
void db_record_free(db_t *db, db_ref_t ref, size_t size);

// ---- records -------------------------------------------------------------------------------------------

#define DB_LONG_NAME 255 // names of this many bytes or more carry long_name_len
// The longest name a record can hold: the largest pool block less every other field a record (or a
// build's temporary record) may carry. No file system names a component anywhere near this long; only a
// damaged or hand-made list can, and such a name is left out with a log line rather than stored.
#define DB_NAME_MAX (DB_POOL_LARGE_MAX - 128)

inline uint32_t db_round4(uint32_t n) {
    return (n + 3) & ~3u;
}

// Exact byte counts of records (db_record_alloc rounds them up to 4). root: the record has no parent.
uint32_t db_file_record_size(const db_structure_t *s, bool root, uint32_t name_len);
uint32_t db_folder_record_size(const db_structure_t *s, uint32_t fs_type, bool root, uint32_t name_len);

// A new record in the index's pool, with the name copied, every size and date unknown, attributes 0 and,
// for folders of NTFS and ReFS sources, FRN and child count 0. parent 0 makes a root folder or a file
// directly under fs; otherwise fs must be the parent's source. Returns the record's reference.
db_ref_t db_folder_new(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len);
db_ref_t db_file_new(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len);
// Frees a record, its exact size computed from its own fields. It must be in no array any more.
void db_folder_delete(db_t *db, db_ref_t folder);
void db_file_delete(db_t *db, db_ref_t file);

inline db_ref_t db_record_parent(db_ref_t r) {
    return *(const uint32_t *) db_ptr(r);
}
// The name and its byte count.
inline const char *db_record_name(db_ref_t r, uint32_t *len) {
    const uint8_t *p = db_ptr(r);
    uint32_t n = p[4];
    if (n == DB_LONG_NAME)
        n = *(const uint32_t *) (p - 4);
    *len = n;
    return (const char *) p + 5;
}
// The data block: behind the name.
inline uint8_t *db_record_data(db_ref_t r) {
    uint32_t len;
    const char *name = db_record_name(r, &len);
    return (uint8_t *) name + len;
}
// The record without a parent at the top of r's chain (r itself for a root).
db_ref_t db_record_root(db_ref_t r);
// The index number of the record's source, read from the root's fs field.
uint32_t db_record_fs_index(db_ref_t r);
// The record's source, or null if the index has no source of that number.
db_fs_t *db_record_fs(const db_t *db, db_ref_t r);
// Levels above the record: 0 for a root.
uint32_t db_record_depth(db_ref_t r);

// A field of the data block as a 64-bit value: unknown (all ones) for a size or date that isn't stored,
// 0 for attributes that aren't. Setting a field that isn't stored does nothing.
uint64_t db_file_get(const db_t *db, db_ref_t file, db_field_t field);
uint64_t db_folder_get(const db_t *db, db_ref_t folder, db_field_t field);
void db_file_set(const db_t *db, db_ref_t file, db_field_t field, uint64_t value);
void db_folder_set(const db_t *db, db_ref_t folder, db_field_t field, uint64_t value);

// The FRN bytes of a folder of an NTFS (8 bytes) or ReFS (16 bytes, low half first) source, behind the
// data block; null for a folder of any other source.
uint8_t *db_record_frn(const db_t *db, db_ref_t folder);
// The child count of such a folder (0 for other folders; setting it there does nothing).
uint32_t db_folder_child_count(const db_t *db, db_ref_t folder);
void db_folder_set_child_count(const db_t *db, db_ref_t folder, uint32_t count);

// The full path: names from the root joined with OS_SEP, built from the end of a buffer sized by a
// first walk. A root named "" (the Linux source "/") gives "/" alone and "/usr/bin/ls" below it.
void db_get_full_path(str_t *out, db_ref_t r);

// ---- orders --------------------------------------------------------------------------------------------

// Name order: names by utf8_compare_lower_base; parents by db_path_compare_lower_base; names by
// utf8_compare_lower; parents by db_path_compare_lower; names bytewise, then by length; parents
// bytewise; the sources' index numbers. The first level that differs decides.
int db_name_compare(db_ref_t a, db_ref_t b);
int db_name_compare_desc(db_ref_t a, db_ref_t b);

// Parent chains (a and b are folders, or 0 for none) compared as the flat strings of their full paths,
// with OS_SEP between components, under one folding. Identical references are equal; 0 sorts before any
// chain (-depth against a chain, 1 the other way round); a path that is a prefix of the other sorts first.
// Chains up to 256 levels stand on the stack, deeper ones on the heap.
int db_path_compare_lower_base(db_ref_t a, db_ref_t b);
int db_path_compare_lower(db_ref_t a, db_ref_t b);
int db_path_compare_bytes(db_ref_t a, db_ref_t b);

// Path order (the same seven levels, each with the parents ahead of the names).
int db_path_name_compare(db_ref_t a, db_ref_t b);
int db_path_name_compare_desc(db_ref_t a, db_ref_t b);

// Size and date orders: unsigned, unknown below every known value, ties to name order. Attribute order:
// the letter forms bytewise, ties to name order. folder says which data offsets apply.
int db_value_compare(const db_t *db, bool folder, db_field_t field, db_ref_t a, db_ref_t b);
// The same without the tie to name order: 0 when the values alone don't decide. For sorts that start
// from name order and keep it stably.
int db_value_level_compare(const db_t *db, bool folder, db_field_t field, db_ref_t a, db_ref_t b);
// Extension order: the text behind the last '.' of the name (empty without one) by
// utf8_compare_lower_base, ties to name order.
int db_extension_compare(db_ref_t a, db_ref_t b);
// The extensions alone, without the tie to name order.
int db_extension_level_compare(db_ref_t a, db_ref_t b);
// FRN order of folders: NTFS 64-bit unsigned, ReFS 128-bit from the high half; then the source index.
int db_frn_compare(const db_t *db, db_ref_t a, db_ref_t b);

// The extension of a name as the extension order sees it: behind the last '.', or empty.
const char *db_name_extension(const char *name, uint32_t len, uint32_t *ext_len);
// The letter form of attributes in the fixed order R H S D A V N T P L C O I E; out must hold 15 bytes.
// Returns the letter count (no terminator is written).
int db_attribute_letters(uint32_t attributes, char *out);

// One comparator over every order, for code that picks an order at run time.
enum db_order_t {
    DB_ORDER_NAME,
    DB_ORDER_PATH,
    DB_ORDER_SIZE,
    DB_ORDER_DATE_CREATED,
    DB_ORDER_DATE_MODIFIED,
    DB_ORDER_DATE_ACCESSED,
    DB_ORDER_ATTRIBUTES,
    DB_ORDER_EXTENSION,
    DB_ORDER_FRN,
    DB_ORDER_COUNT
};
int db_compare(const db_t *db, db_order_t order, bool folder, db_ref_t a, db_ref_t b);
int db_compare_desc(const db_t *db, db_order_t order, bool folder, db_ref_t a, db_ref_t b);

// A search key for mem_array_find and its family: db_key_compare compares an array element with
// key->record under the key's order.
struct db_key_t {
    const db_t *db;
    db_ref_t record;
    uint8_t order; // db_order_t
    bool folder;
    bool descending;
};
int db_key_compare(mem_ref_t element, const void *key);

// The sorted array of an order and kind, or null when the structure doesn't keep it (folders have no
// extension array; FRN arrays are the NTFS and ReFS folder arrays, chosen by fs_type).
mem_array_t *db_array(db_t *db, db_order_t order, bool folder);
mem_array_t *db_frn_array(db_t *db, uint32_t fs_type);

// ---- the index -----------------------------------------------------------------------------------------

enum { DB_JOB_SEARCH = 0, DB_JOB_SORT = 1, DB_JOB_QUERY = 2, DB_JOB_OTHER = 3 };

typedef void (*db_job_proc_t)(db_t *db, void *arg);

struct db_t {
    // The job slot.
    os_thread_t *job_thread;
    db_query_t *job_query; // the query the job serves, or null
    uint32_t job_kind;     // DB_JOB_*
    db_query_t *sort_query;
    uint32_t busy;        // jobs begun and not ended
    int job_priority;     // the priority the job thread was given
    os_event_t *job_done; // manual-reset: set when the job's proc has returned
    db_job_proc_t job_proc;
    void *job_arg;

    // Sources, and a table of them by index number.
    db_fs_t *fs_first;
    db_fs_t *fs_last;
    uint32_t fs_count;
    db_fs_t **fs_table;
    uint32_t fs_table_cap;

    // Status text, guarded by status_lock.
    os_lock_t status_lock;
    char *status_text;
    int32_t status_arg;

    // The sorted arrays.
    mem_array_t folders;
    mem_array_t files;
    mem_array_t folders_by_path;
    mem_array_t files_by_path;
    mem_array_t folders_by_size;
    mem_array_t files_by_size;
    mem_array_t folders_by_date_created;
    mem_array_t files_by_date_created;
    mem_array_t folders_by_date_modified;
    mem_array_t files_by_date_modified;
    mem_array_t folders_by_date_accessed;
    mem_array_t files_by_date_accessed;
    mem_array_t folders_by_attributes;
    mem_array_t files_by_attributes;
    mem_array_t files_by_extension;

    // Records whose displayed data changed since the queries were last told, in address order.
    mem_array_t changed_records;
    bool changed_event_pending;

    // Recent changes and run history are kept by their own code; the index only holds the switches.
    bool recent_change_enabled;
    uint64_t recent_change_total;
    uint64_t run_history_total;

    db_pool_t pool;

    db_query_t *queries_first;
    db_query_t *queries_last;

    bool is_loaded;   // a load or rebuild has finished and its result is in place
    bool has_content; // there is something worth saving

    mem_array_t ntfs_folders;
    mem_array_t refs_folders;

    // Monitors. They queue what they read under monitor_lock; only a job applies it.
    void *service_client;
    bool service_connected;
    os_lock_t monitor_lock;
    void *ntfs_monitors;
    void *refs_monitors;
    // The folder sources' scan, listener and event queues (db_monitor), null until first needed.
    void *folder_sources;

    bool folder_update_pending; // deferred while a job runs
    bool out_of_date_pending;

    db_exclude_t exclude;
    db_structure_t structure;

    char *remote_name;       // a private index over one named file list, or null
    int32_t filelist_status; // of that private index's read: FILELIST_OK, _NO_FILENAME (1), _OPEN_FAILED (2)

    // The file-list change monitor: its thread and stop event, owned by the monitor code; null when none.
    void *filelist_monitor;
    bool filelist_check_made; // a check for changed lists has run since the index became ready

    bool load_run_history_pending;
    bool load_recent_pending;

    // The shell's type text of a folder, read when the index is made (heap, owned), or null where the
    // platform has none: every folder shows it, and type: decides folders by it.
    char *folder_type;
};

// A zeroed index with both locks and the job event. Its structure word stays 0 (records without data)
// until a load or rebuild sets it with db_structure_set. remote_name (may be null) is copied. Never null.
db_t *db_create(const char *remote_name);
// Waits for the job, removes the index's pending events, frees every array, the pool, the sources, the
// exclude lists and the locks.
void db_destroy(db_t *db);

// The one mutual exclusion of the index: returns when no job thread works on it. who names the caller
// for the log ("db_save", "db_rebuild", ...). Main thread only.
void db_wait(db_t *db, const char *who);

// Starts proc(db, arg) as the index's job on a pooled thread, after db_wait(db, who). When proc returns,
// the job thread sets job_done and posts _db_ready_proc. priority is OS_PRIORITY_*.
void db_job_start(db_t *db, const char *who, uint32_t kind, db_query_t *query, db_job_proc_t proc, void *arg,
                  int priority);
// True while a job thread is in the slot.
inline bool db_job_running(const db_t *db) {
    return db->job_thread != nullptr;
}

// Replaces the status text with the formatted text under the status lock, or clears it with a null
// format.
void db_set_status(db_t *db, const char *format, ...);
// A copy of the status text into out (empty when none), under the status lock.
void db_get_status(db_t *db, str_t *out);

// Ends a job on the main thread and starts what was deferred. Posted by every job's thread as its last
// act; ctx is the db_t.
void _db_ready_proc(void *ctx);

// Frees every array of the index and resets it to empty (the records stay in the pool).
void db_arrays_kill(db_t *db);

// Told by _db_ready_proc once no job runs (the search code keeps it): replays a search or sort that was
// stored while the index was not ready, and posts every query its job-ended and ready codes.
void db_queries_idle(db_t *db);
// Each query hears code 2 (status changed); posted by db_set_status, run on the main thread.
void db_queries_status(db_t *db);
// Each query hears code 8 (job ended); called by db_wait once the job's thread is given back.
void db_queries_job_ended(db_t *db);
