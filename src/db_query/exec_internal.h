// Private to the search execution files: what the scan, the evaluator, the sort and the result code share.
#pragma once

#include "db_query/db_query.h"

// Runs a compiled string pattern with the thread's match data.
bool db_eval_pattern(db_eval_scratch_t *s, const db_text_match_t *m, const char *text, size_t len);

// Duplicates: true when another record of the kind has an equal key. With the pre-pass's set a binary
// search; outside a scan a walk of the kind's array.
bool db_prepass_dupe_test(db_query_t *q, const db_op_t *op, bool is_folder, db_ref_t record);
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
