// Fuzzes the database file loader with arbitrary bytes, plain or through bzip2 (the first byte's low bit
// chooses). A load must either fail and leave an empty index, or succeed with an index whose arrays are
// sound and whose every record reaches a real source through its parents. Random bytes almost never get
// past the magic, let alone through the decompressor, so the seeds in fuzz/corpus/fuzz-dbload are valid
// indexes of each structure mix, plain and compressed; the file tests make them (SW_WRITE_FUZZ_CORPUS)
// and check that the tree's copies are still what the writer produces.
#include <cstdint>
#include <cstdlib>

#include "db/dbfile.h"
#include "debug/debug.h"
#include "mem/mem.h"

static void _check_loaded(db_t *db) {
    const mem_array_t *arrays[] = {&db->folders, &db->files, &db->ntfs_folders, &db->refs_folders};
    for (const mem_array_t *a : arrays)
        if (a->count && !mem_array_check(a))
            abort();
    for (int k = 0; k < 2; k++) {
        const mem_array_t *a = arrays[k];
        int chunk = 0, pos = -1;
        for (db_ref_t r; (r = mem_array_next(a, &chunk, &pos));) {
            if (db_record_fs_index(r) >= db->fs_count)
                abort();
            uint32_t len;
            db_record_name(r, &len);
            if (len > DB_POOL_LARGE_MAX)
                abort();
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1)
        return 0;
    debug_init();
    db_t *db = db_create(nullptr);
    bool compressed = data[0] & 1;
    if (db_file_load_memory(db, data + 1, size - 1, compressed, nullptr)) {
        _check_loaded(db);
    } else if (db->fs_count || db->folders.count || db->files.count || db->exclude.folders) {
        abort();
    }
    db_destroy(db);
    return 0;
}
