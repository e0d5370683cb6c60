// Where the database file lives: the -db switch, or a name made from the base name, the computer and
// user (for a file shared by several users), the instance and the folder settings.
#include <cstring>

#include "config/config.h"
#include "db/dbfile.h"
#include "mem/mem.h"

// The start-up's word on the database file; null texts when not given.
static char *_db_switch;
static char *_instance;
static bool _no_db;
static bool _read_only;

static void _replace(char **slot, const char *value) {
    mem_free(*slot);
    *slot = value && *value ? mem_dup(value, strlen(value)) : nullptr;
}

void db_file_set_command_line(const char *db_switch, const char *instance, bool no_db, bool read_only) {
    _replace(&_db_switch, db_switch);
    _replace(&_instance, instance);
    _no_db = no_db;
    _read_only = read_only;
}

bool db_file_no_db() {
    return _no_db;
}

bool db_file_read_only() {
    return _read_only;
}

// The first environment variable of the list that is set and non-empty, else empty. The system's
// computer and user names are reached this way because the platform layer has no call for them yet; an
// empty name is what the file name takes when the system gives none.
static void _env_first(str_t *out, const char *a, const char *b) {
    if (os_getenv(a, out) && out->len)
        return;
    if (os_getenv(b, out) && out->len)
        return;
    str_clear(out);
}

// The instance inside a file name: each of \ / : * ? " < > | becomes '%' and two upper-case hex digits.
static void _cat_instance(str_t *out, const char *instance) {
    str_cat_char(out, '-');
    for (const char *p = instance; *p; p++) {
        if (strchr("\\/:*?\"<>|", *p))
            str_cat_printf(out, "%%%02X", (unsigned) (unsigned char) *p);
        else
            str_cat_char(out, *p);
    }
}

// The folder that db_location is resolved against.
static void _base_folder(str_t *out) {
    if (!app_data) {
        config_exe_folder(out);
        return;
    }
    // The index is large and belongs to this machine, so it goes to the local application data folder
    // rather than the roaming one that the settings use; without a local one, the roaming one serves.
    str_t local;
    str_init(&local);
    if (os_getenv("LOCALAPPDATA", &local) && local.len) {
        str_path_cat(out, local.ptr, local.len, "Sablewatch", 10);
    } else {
        config_per_user_folder(out);
    }
    str_kill(&local);
}

// db_location against the base folder: absolute as it stands, empty as the base itself, rooted without a
// drive on the base folder's drive, relative below it.
static void _folder(str_t *out) {
    str_t base;
    str_init(&base);
    _base_folder(&base);
    const char *loc = db_location ? db_location : "";
    if (!*loc) {
        str_set(out, base.ptr);
    } else if (os_path_is_absolute(loc)) {
        str_set(out, loc);
    } else if (loc[0] == '\\' || loc[0] == '/') {
        str_clear(out);
        if (base.len >= 2 && base.ptr[1] == ':')
            str_cat(out, base.ptr, 2);
        str_cat_z(out, loc);
    } else {
        str_path_cat(out, base.ptr, base.len, loc, (int) strlen(loc));
    }
    str_kill(&base);
}

void db_file_name(str_t *out, bool temporary, bool multi_user) {
    if (_db_switch) {
        str_set(out, _db_switch);
        return;
    }
    str_t name, part;
    str_init(&name);
    str_init(&part);
    str_set(&name, "Sablewatch");
    if (multi_user) {
        _env_first(&part, "COMPUTERNAME", "HOSTNAME");
        str_cat_char(&name, '.');
        str_cat(&name, part.ptr, part.len);
        _env_first(&part, "USERNAME", "USER");
        str_cat_char(&name, '.');
        str_cat(&name, part.ptr, part.len);
    }
    const char *instance =
        _instance ? _instance : (instance_name && *instance_name ? instance_name : nullptr);
    if (instance)
        _cat_instance(&name, instance);
    str_cat_z(&name, temporary ? ".db.tmp" : ".db");
    _folder(&part);
    str_path_cat(out, part.ptr, part.len, name.ptr, name.len);
    str_kill(&name);
    str_kill(&part);
}
