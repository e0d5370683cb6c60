// A query: one search as the rest of the program sees it. It owns the compiled search, the three result
// arrays (head, folders, files), the sort they stand in and the selection, and it talks to its owner
// through a callback on the main thread.
//
// Invariants:
// - A result is a 4-byte reference into the index; no name is ever copied. The result index runs across
//   the arrays: with folders_first the head list, then folders, then files; without it files, then
//   folders, then the head list.
// - Only the main thread calls the public db_ functions here, and each starts with db_wait, so that it
//   never sees the arrays while the query thread or a sort thread builds them. The query thread and its
//   workers read the index without a lock: the job slot keeps every writer out.
// - The scan's only mutation of the index is the borrowing of name-length bytes and parent references
//   by the pre-passes, made on the query thread before any worker starts and restored before any worker
//   starts, on every path, cancellation included.
// - Results never depend on the thread count: workers scan contiguous chunk ranges and their lists are
//   joined in worker order.
// - Values that the index does not hold (file information read on demand, run history, recent changes,
//   content, tags, image headers) come from db_query_provider, which answers "unknown" until the code
//   that reads them replaces it. Unknown sizes and dates are all ones, unknown attributes 0.
#pragma once

#include <cstdint>

#include "db/db.h"
#include "db_query/term.h"
#include "mem/array.h"
#include "mem/mem.h"

struct db_query_t;

// The owner's callback, on the main thread. Codes: 0 new results, 1 the search must run again, 2 status
// changed, 3 and 4 file information changed, 5 selection information changed, 6 ready, 7 rows changed,
// 8 results complete (the job ended).
enum {
    DB_QUERY_RESULTS = 0,
    DB_QUERY_RESEARCH = 1,
    DB_QUERY_STATUS = 2,
    DB_QUERY_FILEINFO = 3,
    DB_QUERY_FILEINFO_2 = 4,
    DB_QUERY_SELECTION = 5,
    DB_QUERY_READY = 6,
    DB_QUERY_ROWS = 7,
    DB_QUERY_JOB_ENDED = 8,
};
typedef void (*db_query_proc_t)(void *user, int code, db_query_t *query);

// Sort numbers: even ascending, odd descending; the flip of n is n ^ 1.
enum {
    DB_SORT_NAME = 0,
    DB_SORT_PATH = 2,
    DB_SORT_SIZE = 4,
    DB_SORT_EXTENSION = 6,
    DB_SORT_TYPE = 8,
    DB_SORT_DATE_CREATED = 10,
    DB_SORT_DATE_MODIFIED = 12,
    DB_SORT_ATTRIBUTES = 14,
    DB_SORT_FILE_LIST_FILENAME = 16,
    DB_SORT_RUN_COUNT = 18,
    DB_SORT_DATE_RECENTLY_CHANGED = 20,
    DB_SORT_DATE_ACCESSED = 22,
    DB_SORT_DATE_RUN = 24,
    DB_SORT_MAX = 25,
};

// What a pre-pass left for the workers, one per op that needed one, freed when the scan ends.
struct db_prepass_t {
    db_prepass_t *next;
    const db_op_t *op;
    uint8_t *marks;     // empty: and child:, one byte per position of the scanned array
    uint32_t *counts;   // child counts, one per position of the scanned array
    mem_ref_t *set;     // duplicates: the records that have an equal key, sorted by reference
    uint32_t set_count; //
    // filelist: entries folded the term's way (folding), each zero-terminated in text; names and paths
    // are offsets of the name and the path entries, each sorted bytewise for a binary search.
    uint8_t folding;
    char *text;
    uint32_t *names;
    uint32_t name_count;
    uint32_t *paths;
    uint32_t path_count;
};

// The search arguments kept for a replay when the index was not ready.
struct db_query_pending_t {
    bool active;
    bool match_case, match_whole_word, match_path, match_diacritics, match_regex;
    bool hide_empty_results, clear_selection;
    char *search;
    uint32_t filter_flags;
    char *filter;
    int sort_type;
    int sort_ascending_hint;
    int track_selection;
    bool want_total_size;
};

struct db_query_pending_sort_t {
    bool active;
    int sort;
    int keep_selection_hint;
    int track_hint;
};

// A remembered row that survives a new search or sort: index is the result index, -1 when the record
// has left the results, -2 when it must be looked up again. The caller owns it and zeroes it before its
// first db_itemref_set; while set it is linked on its query's list (next, prev) and in the query's tree
// ordered by record (tree_left, tree_right), through which a change of one record finds its refs.
struct db_itemref_t {
    db_itemref_t *next, *prev;
    db_itemref_t *tree_left, *tree_right;
    db_ref_t record;
    int32_t index;
};

typedef int (*db_result_compare_t)(mem_ref_t element, const void *key);

struct db_query_t {
    db_t *db;
    mem_array_t head_results, folder_results, file_results;
    mem_array_t head_selection, folder_selection, file_selection;

    // The compiled search: op chains and what the scan must provide.
    db_search_t search;

    // The last resolved result: kind 0 none, 1 folder, 2 file, 3 and 4 head entries.
    int cache_kind;
    int32_t cache_index;
    db_ref_t cache_record;
    int cache_chunk;
    int cache_pos;
    int32_t cache_first; // result index of the cached chunk's array start

    int32_t selection_anchor;
    db_query_t *next, *prev;
    db_query_proc_t callback;
    void *callback_context;
    bool allow_cancel_dialog;
    db_itemref_t *itemrefs_head, *itemrefs_tail;

    int current_sort;
    bool folders_first;
    bool sorted;
    bool results_published;
    int head_list_kind;
    int requested_sort;
    int sort_hint_1, sort_hint_2;

    db_query_pending_t pending;
    db_query_pending_sort_t pending_sort;

    bool want_total_size;
    volatile bool cancel_search, cancel_sort, cancel_all;
    bool busy;

    uint64_t total_selection_size;
    bool total_selection_valid;
    uint64_t total_result_size;
    bool total_result_valid;

    // Scan state: pre-pass data and what count: sees.
    db_prepass_t *prepasses;
    uint32_t count_base; // results of the pass that ran before the one in progress
    bool files_first_for_count;
    uint32_t workers_used; // the most workers one pass of the last search ran, for the log and tests

    // The remembered items by (record, address): the root of their tree.
    db_itemref_t *itemrefs_root;
    // Records shown as cut to the clipboard, sorted by reference.
    mem_array_t ghosts;
    // The head list kind of the entries in head_selection (the head list may have changed kind since).
    int head_selection_kind;
};

// ---- lifecycle ---------------------------------------------------------------------------------------

// A new query on db with name order, linked on the index's list; the owner is told through proc(user).
// Never null. The caller destroys it with db_destroy_query.
db_query_t *db_query_create(db_t *db, bool show_cancel_dialog, db_query_proc_t proc, void *user);
// Stops its job, frees its search and arrays, removes its pending events and unlinks it. Remembered items
// are the caller's and are not freed.
void db_destroy_query(db_query_t *query);
// Stops the job that serves this query, if one runs: a search's partial results are discarded, a sort's
// arrays stay complete with sorted 0. Returns 1 if something was cancelled, else 0.
int db_cancel_query(db_query_t *query);

// Starts a search (search and filter are copied). When the index is not ready the arguments are kept and
// replayed by the index's ready event. Returns 1 when a search job started, 0 when it was deferred.
int db_query_search(db_query_t *query, bool match_case, bool match_whole_word, bool match_path,
                    bool match_diacritics, bool match_regex, bool hide_empty_results, bool clear_selection,
                    const char *search, uint32_t filter_flags, const char *filter, int sort_type,
                    int sort_ascending_hint, int track_selection, bool want_total_size);
// Sorts the results again. Deferred like a search when the index is not ready.
void db_sort(db_query_t *query, int sort, int keep_selection_hint, int track_hint);
int db_get_sort(db_query_t *query);

// Called by the index's ready event on the main thread once no job runs: replays a pending search or
// sort (stopping when one started a job) and posts each query its job-ended and ready codes.
void db_queries_idle(db_t *db);

// ---- results -----------------------------------------------------------------------------------------

int db_get_result_count(db_query_t *query);
int db_get_folder_result_count(db_query_t *query);
int db_get_file_result_count(db_query_t *query);
// Text of a row into out; an index out of range gives the empty text. Returns 1 when the row exists.
int db_get_result_name(db_query_t *query, int index, str_t *out);
int db_get_result_path(db_query_t *query, int index, str_t *out);
int db_get_result_full_path_name(db_query_t *query, int index, str_t *out);
// 1 for a folder, and 1 for an index out of range.
int db_is_folder_result(db_query_t *query, int index);
int db_is_root_result(db_query_t *query, int index);
uint32_t db_get_result_file_attributes(db_query_t *query, int index);
// Total size of the file results when the search asked for it, else -1 (as all ones).
uint64_t db_query_get_total_result_size(db_query_t *query);

// The record of a result index and whether it is a folder; false for an index out of range. Sequential
// access walks the remembered position; any other is a binary search.
bool _db_result_at(db_query_t *query, int index, db_ref_t *record, bool *is_folder);
// The result index of a record, or -1.
int _db_result_index_of(db_query_t *query, db_ref_t record, bool is_folder);
// Drops the remembered position and the item refs' indexes and posts a results event unless one is
// pending. Called whenever the arrays change outside a search.
void _db_results_changed(db_query_t *query);

// ---- evaluation of one record -------------------------------------------------------------------------

// What one thread needs to evaluate records: a path buffer, regex match data, the count so far.
struct db_eval_scratch_t {
    str_t path;
    db_ref_t path_record; // the record whose full path path holds, or 0
    void *match_data;     // pcre2_match_data, made on first use
    uint32_t found;       // results so far, for count:
};
void db_eval_scratch_init(db_eval_scratch_t *s);
void db_eval_scratch_kill(db_eval_scratch_t *s);

// One op on one record. index is the record's position in the scanned array, or -1 outside a scan: the
// ops that a pre-pass serves then look at the index directly.
bool _db_query_eval_op(db_query_t *query, const db_op_t *op, bool is_folder, db_ref_t record,
                       db_eval_scratch_t *scratch, int64_t index);
// The whole chain on one record (the live update's test).
bool db_query_is_folder_match(db_query_t *query, db_ref_t folder, db_eval_scratch_t *scratch);
bool db_query_is_file_match(db_query_t *query, db_ref_t file, db_eval_scratch_t *scratch);
// The chain from op on; the scan's general path.
bool db_query_eval_chain(db_query_t *query, const db_op_t *op, bool is_folder, db_ref_t record,
                         db_eval_scratch_t *scratch, int64_t index);

// ---- values the index does not hold ------------------------------------------------------------------

enum db_query_value_t {
    DB_QV_SIZE,
    DB_QV_DATE_MODIFIED,
    DB_QV_DATE_CREATED,
    DB_QV_DATE_ACCESSED,
    DB_QV_ATTRIBUTES,
    DB_QV_RUN_COUNT,
    DB_QV_DATE_RUN,
    DB_QV_DATE_RECENTLY_CHANGED,
    DB_QV_TRACK,
    DB_QV_YEAR,
    DB_QV_BIT_DEPTH,
    DB_QV_WIDTH,
    DB_QV_HEIGHT,
};
enum db_query_text_t {
    DB_QT_CONTENT,
    DB_QT_TITLE,
    DB_QT_ARTIST,
    DB_QT_ALBUM,
    DB_QT_COMMENT,
    DB_QT_GENRE,
};
// value: a 64-bit value, all ones when unknown (attributes: 0). text: the text into out and true, or
// false when unknown. Both may be called from scan workers at once and must not touch the index.
struct db_query_provider_t {
    uint64_t (*value)(db_query_t *query, db_ref_t record, bool is_folder, db_query_value_t what);
    bool (*text)(db_query_t *query, db_ref_t record, db_query_text_t what, str_t *out);
};
extern db_query_provider_t db_query_provider;
// Puts the provider back to the one that knows nothing.
void db_query_provider_reset();

// ---- the scan and the sort (the query thread's parts) --------------------------------------------------

void _db_query_thread_proc(db_t *db, void *arg);
// Scans array into the query's folder or file results.
void _db_find_folders(db_query_t *query, mem_array_t *array);
void _db_find_files(db_query_t *query, mem_array_t *array);
// Frees what the pre-passes left.
void db_prepass_free_all(db_query_t *query);

int _db_flip_sort_type(int sort);
// The index's array whose order gives sort's ascending form for folders or files, or null.
mem_array_t *db_sort_array(db_t *db, int sort, bool folder);
// Brings the result arrays into sort's order (see the sort file). Query or sort thread.
void _db_set_sort(db_query_t *query, int sort);
// Reads the selection anew after the results changed (query or sort thread).
void _db_update_selection(db_query_t *query);

// ---- selection
// --------------------------------------------------------------------------------------------- The selection
// is three arrays in result order; a result index argument out of range changes nothing.

int db_get_selection_count(db_query_t *query);
// The result index of the nth selected row, or -1.
int db_get_selection_result_index(db_query_t *query, int n);
int db_is_folder_selection(db_query_t *query, int n);
int db_get_selection_full_path_name(db_query_t *query, int n, str_t *out);
// Each returns 1 when the selection changed.
int db_select_result(db_query_t *query, int index);
int db_deselect_result(db_query_t *query, int index);
int db_invert_result_selection(db_query_t *query, int index);
int db_is_result_selected(db_query_t *query, int index);
// Rows first .. first + count - 1 join the selection.
void db_select_result_range(db_query_t *query, int first, int count);
void db_select_all(db_query_t *query);
void db_deselect_all(db_query_t *query);
void db_invert_all_selection(db_query_t *query);
// Sum of the known sizes of the selected files, or all ones when not known.
uint64_t db_query_get_total_selection_size(db_query_t *query);
// Sums the selection's total size again (and resets the anchor): after any change of the whole
// selection. A single row in or out only moves the total by its own size.
void _db_update_selection_totals(db_query_t *query);

// Records shown as "ghosts" (cut to the clipboard): the selected records replace the set.
void db_ghost_selection(db_query_t *query);
int db_is_ghost_result(db_query_t *query, int index);
void db_clear_ghosts(db_query_t *query);
int db_is_root_selection(db_query_t *query, int n);

// ---- more of a row -------------------------------------------------------------------------------------

// The text behind the last '.' of a file's name into out; empty for a folder or a name without one.
// Returns 1 when the row exists.
int db_get_result_extension(db_query_t *query, int index, str_t *out);
// The name of the file list that holds the row's record into out; empty when it is on no file list.
int db_get_result_file_list_filename(db_query_t *query, int index, str_t *out);
// The run history and recent change values of a row, 0 when it has no entry.
uint32_t db_get_result_run_count(db_query_t *query, int index);
uint64_t db_get_result_date_run(db_query_t *query, int index);
uint64_t db_get_result_date_recently_changed(db_query_t *query, int index);
// The row of the record at full_path (folders first, then files), or -1.
int db_get_result_index_from_filename(db_query_t *query, const char *full_path);
// Type-ahead: from row start, the first row whose name is not below text (name order: a binary search;
// other sorts: the first whose name begins with text), wrapping to the top once. -1 when none.
int db_find_nearest_string_match_result(db_query_t *query, const char *text, int length, int start);

// ---- remembered items ------------------------------------------------------------------------------------

// Remembers the row index (its record and index); links ref on the query when it isn't yet.
void db_itemref_set(db_query_t *query, db_itemref_t *ref, int index);
// The ref's row now, looked up again when the results changed; -1 when its record left the results.
int db_itemref_get(db_query_t *query, db_itemref_t *ref);
// Unlinks ref (the caller frees it).
void db_itemref_destroy(db_query_t *query, db_itemref_t *ref);
// Every ref's cached index becomes index (-1 gone, -2 look up again).
void db_itemrefs_reset(db_query_t *query, int32_t index);
// The live update removed record: its refs must look it up again (and will find it gone).
void db_itemrefs_record_changed(db_query_t *query, db_ref_t record);
// A rename replaced the record by a new one: its refs follow it and look their row up again.
void db_itemrefs_record_replaced(db_query_t *query, db_ref_t old_record, db_ref_t new_record);

// ---- highlighting
// ------------------------------------------------------------------------------------------

// A row's text and, for each of its bytes, 1 where the search matched it (every byte of a code point
// alike), for the list to draw bold.
struct db_highlight_t {
    str_t text;
    str_t mask; // text.len bytes of 0 or 1
};
void db_highlight_init(db_highlight_t *h);
void db_highlight_kill(db_highlight_t *h);
// The highlighted name (mode 0), path, that is the folder that holds the row (mode 1), or both (mode 2)
// of a row; an output not asked for (or null) is left alone. Negated terms mark nothing; a term marks only
// when the record satisfies it. Returns false, with the asked outputs empty, for a row out of range.
bool _db_get_highlighted_result(db_query_t *query, int index, db_highlight_t *name_out,
                                db_highlight_t *path_out, int mode);

// ---- the head list
// ----------------------------------------------------------------------------------------- In a sort by run
// count (18, 19), date run (24, 25) or date recently changed (20, 21) the results that have a run history or
// recent change entry are shown as those entries, in the head list: in the order of the entries' side list,
// ahead of the other results in a descending sort and behind them in an ascending one (the ascending list is
// the descending one reversed). The entries belong to the code that keeps that history; it lends them through
// db_query_history.

// Head list kinds (head_list_kind): none, run history entries, recent change entries.
enum { DB_HEAD_NONE = 0, DB_HEAD_RUN_HISTORY = 1, DB_HEAD_RECENT_CHANGES = 2 };

struct db_query_history_t {
    // The side list that orders sort's column: references to entries in the index's pool, in ascending
    // order of the column. Null when there is none (no history kept yet): the head list stays empty.
    const mem_array_t *(*side_list)(db_t *db, int sort);
    // Where an entry of each head list kind (index kind - 1) holds its record (4 bytes) and its is-folder
    // byte, from the entry's start.
    uint32_t record_offset[2];
    uint32_t folder_offset[2];
};
extern db_query_history_t db_query_history;
// Puts back the history that has no entries.
void db_query_history_reset();
// The head list kind that sort shows (DB_HEAD_*).
int db_head_kind_of_sort(int sort);
// The record of a head entry of the query's kind, and whether it is a folder.
db_ref_t db_head_record(const db_query_t *query, mem_ref_t entry, bool *is_folder);
// The same for an entry of the given head list kind.
db_ref_t db_head_entry_record(int kind, mem_ref_t entry, bool *is_folder);

// ---- live results
// -------------------------------------------------------------------------------------------- Called by the
// index's update code while it holds the index (no job of a query runs).

// The record was just put in the index: when the query's chain takes it (count: sees the results so far)
// and the results are sorted, it goes to its place in the current order. True when it was inserted.
bool db_query_record_added(db_query_t *query, db_ref_t record, bool is_folder, db_eval_scratch_t *scratch);
// The record is about to leave the index (or to change a name or column, after which it is added
// again): it leaves the results, the selection and the ghosts; its remembered items look their row up
// again. True when it was a result.
bool db_query_record_removed(db_query_t *query, db_ref_t record, bool is_folder);
// The same for every query of the index.
void db_queries_record_added(db_t *db, db_ref_t record, bool is_folder);
void db_queries_record_removed(db_t *db, db_ref_t record, bool is_folder);
// A record about to change its key in place (a sorted value, its path) or to be replaced by a new record
// (a rename): it leaves the results, the selection and the ghosts like a removed record. Returns
// DB_LIVE_* flags saying where it was, for db_query_record_attach.
enum { DB_LIVE_IN_RESULTS = 1, DB_LIVE_IN_SELECTION = 2 };
uint32_t db_query_record_detach(db_query_t *query, db_ref_t record, bool is_folder);
// The record (the same under its new key, or its replacement) comes back: into the results when the
// query's chain takes it, and into the selection too when flags say the old one was selected. True when
// it went into the results.
bool db_query_record_attach(db_query_t *query, db_ref_t record, bool is_folder, uint32_t flags,
                            db_eval_scratch_t *scratch);
// Every query's remembered items of old_record now remember new_record, its replacement by a rename.
void db_queries_record_replaced(db_t *db, db_ref_t old_record, db_ref_t new_record);
