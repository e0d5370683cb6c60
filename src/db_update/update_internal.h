// What the files of the live update share among themselves.
#pragma once

#include "db_update/db_update.h"

struct db_eval_scratch_t;

// Fills a search key; the source number comes from the parent when there is one, else from fs.
void db_update_key(db_file_find_key_t *key, const db_fs_t *fs, db_ref_t parent, const char *name,
                   uint32_t len);
// The folder of fs with that FRN (high is 0 for NTFS) in the source's FRN array, with the position where
// it is or would go.
db_ref_t db_update_find_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high, int *chunk, int *pos);
// Whether the folder's source keeps FRNs (NTFS, ReFS): then it is in an FRN array and has a child count.
bool db_update_has_frn(const db_t *db, db_ref_t folder);

// ---- the sorted arrays -----------------------------------------------------------------------------------

// The sorted arrays of a kind beyond name order, in the order the index fills them: files path,
// extension, size, date created, date modified, date accessed, attributes; folders the same without
// extension. Arrays that the structure doesn't keep are skipped.
enum { DB_UPDATE_ALL = 0xFF };
// Bits of which value arrays a change touches, by db_order_t.
#define DB_UPDATE_BIT(order) (1u << (order))

// Inserts the record into its kind's sorted arrays whose bit is in orders (name order excluded); an
// equal element there is fatal with the array's message. values: the update's messages ("corrupt file
// size array") rather than those of an add ("corrupt file size sorted array").
void db_update_arrays_insert(db_t *db, db_ref_t r, bool folder, uint32_t orders, bool values);
// Takes it out of them; a miss is fatal likewise.
void db_update_arrays_remove(db_t *db, db_ref_t r, bool folder, uint32_t orders, bool values);
// The name array: out, or in at its place; a miss or an equal element is fatal.
void db_update_name_remove(db_t *db, db_ref_t r, bool folder);
void db_update_name_insert(db_t *db, db_ref_t r, bool folder);
// The FRN array of the folder's source: out, or in at its place (folders of other sources: nothing).
void db_update_frn_remove(db_t *db, db_ref_t folder);
void db_update_frn_insert(db_t *db, db_ref_t folder);
// The orders whose arrays a change of field moves.
uint32_t db_update_orders_of_field(db_field_t field);

// The colour mask of the lines that tell of a fact that could not be applied, or of a broken array.
#define DB_UPDATE_ERROR_COLOUR -65536

// What a change carries, each null or 0 when the caller gave no change.
inline const db_fd_t *db_change_fd(const db_change_t *c) {
    return c ? c->fd : nullptr;
}
inline const db_fd_t *db_change_parent_fd(const db_change_t *c) {
    return c ? c->parent_fd : nullptr;
}
inline uint64_t db_change_timestamp(const db_change_t *c) {
    return c ? c->timestamp : 0;
}

// ---- the queries -----------------------------------------------------------------------------------------

// Every open query hears about one record, when the index is loaded. flags holds one byte per query
// (db_update_query_count of them) for a record whose key changes or whose replacement follows; null
// when the record just goes.
uint32_t db_update_query_count(const db_t *db);
void db_update_queries_detach(db_t *db, db_ref_t r, bool folder, uint8_t *flags);
void db_update_queries_attach(db_t *db, db_ref_t r, bool folder, const uint8_t *flags, db_eval_scratch_t *s);
void db_update_queries_added(db_t *db, db_ref_t r, bool folder);
// A renamed record's successor r (0 when none was made: the new name is excluded or its parent is gone)
// takes old's place in the history lists and, with the flags that old's detach filled, in every open
// query; without a successor old only leaves the history lists.
// Writes new values into r: it leaves every open query's views and every array whose order depends on
// the fields in orders while its keys are the old ones, and goes back under the new ones; then it joins
// changed_records.
void db_update_rewrite(db_t *db, db_ref_t r, bool folder, uint32_t orders, const db_fd_t *fd);
void db_update_announce_replaced(db_t *db, db_ref_t old, db_ref_t r, bool folder, const uint8_t *flags,
                                 uint64_t timestamp);

// ---- records -------------------------------------------------------------------------------------------

// Writes the known values of fd into the record (sizes and dates that are all ones and attributes of 0
// are unknown and leave the old value). Folder sizes are the index's own and never come from fd.
void db_update_write_fd(db_t *db, db_ref_t r, bool folder, const db_fd_t *fd);
// The orders whose arrays the new values of fd move: known values that differ from the stored ones.
uint32_t db_update_changed_orders(const db_t *db, db_ref_t r, bool folder, const db_fd_t *fd);
// The known values of news replace those of fd.
void db_update_overlay_fd(db_fd_t *fd, const db_fd_t *news);
// The record's values as a db_fd_t.
void db_update_read_fd(const db_t *db, db_ref_t r, bool folder, db_fd_t *out);
// Whether the excludes refuse a new file or folder of that name under parent.
bool db_update_excluded(db_t *db, db_ref_t parent, bool folder, const char *name, uint32_t len);
// The record leaves the changed records and the history lists; it is about to be freed.
void db_update_forget(db_t *db, db_ref_t r, bool folder);
// The parent of a change takes the details that came with it, when there are any.
void db_update_parent_fd(db_t *db, db_ref_t parent, const db_fd_t *fd, uint64_t timestamp);

// A new file under parent (steps common to an add and a rename): unless excluded or there already, it is
// made with fd's values and put into every file array. *made tells whether it is new. Returns the record
// or 0.
db_ref_t db_update_file_make(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                             const db_fd_t *fd, bool *made);
// A new folder likewise; has_frn: the FRN (low, high) is given and the folder goes into the FRN array.
db_ref_t db_update_folder_make(db_t *db, const db_fs_t *fs, db_ref_t parent, const char *name, uint32_t len,
                               const db_fd_t *fd, bool has_frn, uint64_t frn_low, uint64_t frn_high,
                               bool *made);

// The parent path of path (without its last component) and the component.
void db_update_split_path(const char *path, uint32_t *parent_len, const char **name, uint32_t *name_len);
// The folder at the first len bytes of path.
db_ref_t db_update_folder_at(db_t *db, const char *path, uint32_t len);

// The subtree scans: the descendants of folder, folders and files, each list in array order.
struct db_subtree_t {
    mem_ref_t *folders;
    uint32_t folder_count;
    mem_ref_t *files;
    uint32_t file_count;
};
void db_update_subtree_find(db_t *db, db_ref_t folder, db_subtree_t *out);
void db_update_subtree_kill(db_subtree_t *s);

// ---- whole arrays ------------------------------------------------------------------------------------

struct db_build_map_t;
// Whether moving k records of array a in one pass over it beats k single changes (or what
// db_update_subtree_bulk forces).
bool db_update_bulk_pays(const mem_array_t *a, uint32_t k);
// Every sorted array of the kind (FRN arrays aside) without the records that members holds, and with the
// k records of add merged in at their places under their present keys. add is not changed.
void db_update_bulk_arrays(db_t *db, bool folder, const db_build_map_t *members, const db_ref_t *add,
                           uint32_t k);
