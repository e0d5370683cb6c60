// Child counts, and how many threads a subtree scan may use.
#include "db_update/db_update.h"

void db_children_inc(db_t *db, db_ref_t folder) {
    if (!folder)
        return;
    // Only folders of NTFS and ReFS sources carry a count; for the others this sets nothing.
    db_folder_set_child_count(db, folder, db_folder_child_count(db, folder) + 1);
}

void db_children_dec(db_t *db, db_ref_t folder) {
    if (!folder)
        return;
    uint32_t n = db_folder_child_count(db, folder);
    if (n)
        db_folder_set_child_count(db, folder, n - 1);
}

uint32_t db_update_thread_count(uint32_t chunk_count, int32_t max_threads, int32_t find_max_threads,
                                int processors) {
    uint32_t n = chunk_count;
    if (max_threads > 0 && (uint32_t) max_threads < n)
        n = (uint32_t) max_threads;
    if (find_max_threads > 0) {
        if ((uint32_t) find_max_threads < n)
            n = (uint32_t) find_max_threads;
    } else if (processors / 2 > 0 && (uint32_t) (processors / 2) < n) {
        // A subtree scan shares the machine with whatever the user is doing: half of it by default.
        n = (uint32_t) (processors / 2);
    }
    if (processors > 0 && n > (uint32_t) processors)
        n = (uint32_t) processors;
    return n ? n : 1;
}
