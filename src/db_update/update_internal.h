// What the files of the live update share among themselves.
#pragma once

#include "db_update/db_update.h"

// Fills a search key; the source number comes from the parent when there is one, else from fs.
void db_update_key(db_file_find_key_t *key, const db_fs_t *fs, db_ref_t parent, const char *name,
                   uint32_t len);
// The folder of fs with that FRN (high is 0 for NTFS) in the source's FRN array, with the position where
// it is or would go.
db_ref_t db_update_find_frn(db_t *db, const db_fs_t *fs, uint64_t low, uint64_t high, int *chunk, int *pos);
