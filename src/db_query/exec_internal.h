// Private to the search execution files: what the scan, the evaluator, the sort and the result code share.
#pragma once

#include "db_query/db_query.h"
#include "db_query/scan.h"

// Runs a compiled string pattern with the thread's match data.
bool db_eval_pattern(db_eval_scratch_t *s, const db_text_match_t *m, const char *text, size_t len);

// Duplicates: true when another record of the kind has an equal key. With the pre-pass's marks a byte at
// index (the record's position in the scanned array), with its set a binary search; outside a scan
// (index -1) a walk of the kind's array.
bool db_prepass_dupe_test(db_query_t *q, const db_op_t *op, bool is_folder, db_ref_t record, int64_t index);
// Splits the file list's text into sorted name and path entries.
void db_prepass_filelist_build(db_prepass_t *p, const db_op_filelist_t *f);
// True when the name, or the full path (may be null when there are no path entries), is an entry.
bool db_prepass_filelist_test(const db_prepass_t *p, const char *name, size_t nlen, const char *path,
                              size_t plen);
// Frees what a pre-pass holds (not p itself).
void db_prepass_free(db_prepass_t *p);

// Posted to the main thread: the owner's code 0.
void _db_query_results_event(void *ctx);

// Runs the pre-passes that the chain's ops need over the array about to be scanned, on the query
// thread. Borrowed bytes are back in place when it returns.
void db_prepass_run(db_query_t *q, const db_op_t *chain, const mem_array_t *array, bool folder);

// The order the query's folder or file results stand in (current_sort): for selection, the record to index
// lookup and the live insert. Meaningful only while sorted is set.
int db_query_result_compare(db_query_t *q, bool folder, db_ref_t a, db_ref_t b);

// The sum of the known sizes of the files in the array. Stops early when *cancel turns true (cancel may
// be null); the caller then knows the sum is partial.
uint64_t db_query_files_size(const db_query_t *q, const mem_array_t *a, const volatile bool *cancel);

// What a plain text op (2..161) asks: the matcher family, the folding and whether it reads the path.
struct db_text_op_t {
    text_family_t family;
    text_folding_t folding;
    bool path;
};
// Decodes a plain text op into t and its NOT bit into neg; false for any other op.
bool db_text_op(uint32_t op, db_text_op_t *t, bool *neg);

// Families of ten that end in an ASCII pair (path roots, components, ext: lists): the folding and the NOT
// bit of op in the family that starts at base.
text_folding_t db_ten_family(uint32_t op, uint32_t base, bool *neg);

// ---- single-op loops ------------------------------------------------------------------------------------
// When a chain is one op of a hot family, the workers run that op's own loop instead of the evaluator:
// the op is decoded once, its term sits in the loop's fields, and what can be worked out once per folder
// (a folder's path, whether it lies below a root) is worked out once per folder instead of once per
// record. Every loop gives the evaluator's answers; names it can't decide with bytes alone go to
// _db_query_eval_op.

// A worker's results in array order; the worker owns items (heap).
struct db_scan_list_t {
    mem_ref_t *items;
    uint32_t n, cap;
};
void db_scan_list_push(db_scan_list_t *l, mem_ref_t r);

// What the loops learn once per folder, kept only for folders where it isn't 0: an open-addressed table
// of (folder, 16-bit value), read by every worker at once and never written while they run.
struct db_folder_states_t {
    mem_ref_t *keys; // 0: an empty slot (no record has reference 0)
    uint16_t *values;
    uint32_t mask; // slots - 1; slots is a power of two
    uint32_t count;
};
uint16_t db_folder_state(const db_folder_states_t *t, mem_ref_t folder);

enum db_scan_kind_t {
    DB_SCAN_LOOP_NONE,      // the evaluator serves the chain
    DB_SCAN_LOOP_NAME,      // a text op on the name
    DB_SCAN_LOOP_PATH,      // "contains" and "starts with" on the full path, pure-ASCII term
    DB_SCAN_LOOP_ROOT,      // path roots: below one folder or several
    DB_SCAN_LOOP_COMPONENT, // a component of the path starts with, ends with or equals the term
    DB_SCAN_LOOP_EXT,       // ext: lists
    DB_SCAN_LOOP_REGEX,     // a regular expression on the name
};

// One op's loop, set up on the query thread and then only read by the workers.
struct db_scan_loop_t {
    db_scan_kind_t kind;
    const db_op_t *op;
    bool folder, neg;
    text_family_t family;
    text_folding_t folding;
    text_matcher_t match;
    const char *text;
    uint32_t len;
    db_scan_term_t st;                        // the byte form of a pure-ASCII term
    bool ascii;                               // st is set
    uint64_t word_term, word_fold, word_keep; // a short start or end in one compare (word_keep 0: none)
    uint8_t *dfa; // full path: (len + 2) x 256 next states, len the hit (see the loops)
    db_folder_states_t states;
    bool borrowed;         // dfa and states belong to another loop
    db_text_match_t regex; // the regex op's code as a pattern
    int regex_byte;        // a byte every match holds, or -1
};

// Tests turn the loops off to hold them against the evaluator; the program never does.
extern bool db_scan_loops_enabled;

// Sets l up for the chain when it is one op that a loop serves, reading the index's folders for the
// per-folder families (cancellable; l then serves nothing). other (may be null) is a loop set up for the
// other kind in the same search: when it asks the same of each folder, l borrows its states, and other
// must then live as long as l. Returns false when the evaluator must run the chain; l needs
// db_scan_loop_free either way.
bool db_scan_loop_prepare(db_scan_loop_t *l, db_query_t *q, const db_op_t *chain, bool folder,
                          const db_scan_loop_t *other);
// The records items[0..n) (positions base.. of the scanned array) through the loop, hits appended to out
// in order. Stops early when the search is cancelled.
void db_scan_loop_chunk(const db_scan_loop_t *l, db_query_t *q, const mem_ref_t *items, uint32_t n,
                        uint32_t base, db_scan_list_t *out, db_eval_scratch_t *s);
void db_scan_loop_free(db_scan_loop_t *l);
