// The end of an index whose arrays contradict themselves. Nothing can repair such an index in place, and
// saving it would carry the damage into the next start, so the file goes first and the process ends: the
// next start finds no file and rebuilds.
#include "db_update/db_update.h"
#include "db_update/update_internal.h"

#include "config/config.h"
#include "db/dbfile.h"
#include "debug/debug.h"
#include "mem/mem.h"

void db_corrupt(db_t *db, const char *message) {
    debug_color_printf(DB_UPDATE_ERROR_COLOUR, "%s\n", message);
    _db_corrupt(db);
}

void _db_corrupt(db_t *db) {
    debug_color_printf(DB_UPDATE_ERROR_COLOUR, "CORRUPT\n");
    // A private index over a named list writes no file, so it has none to delete.
    if (!db->remote_name) {
        str_t path;
        str_init(&path);
        db_file_name(&path, false, db_multi_user_filename != 0);
        os_file_delete(path.ptr);
        str_kill(&path);
    }
    debug_fatal("db", __LINE__, "_db_corrupt",
                "Sablewatch database is corrupt.\nPlease restart Sablewatch to rebuild the database.");
}
