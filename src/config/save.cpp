// Where the settings file lives, the writer's text, and saving through a temporary file.
#include "config/config_internal.h"
#include "debug/debug.h"
#include "os/os.h"

bool config_saved_on_exit;

// The command line's -config file and instance, and folder overrides for tests; null when not given.
static char *_command_line_file;
static char *_instance;
static char *_exe_folder;
static char *_per_user_folder;

static void _replace(char **slot, const char *value) {
    mem_free(*slot);
    *slot = value ? config_dup(value) : nullptr;
}

void config_set_command_line(const char *config_file, const char *instance) {
    _replace(&_command_line_file, config_file && *config_file ? config_file : nullptr);
    _replace(&_instance, instance && *instance ? instance : nullptr);
}

void config_set_folders(const char *exe_folder, const char *app_data_folder) {
    _replace(&_exe_folder, exe_folder);
    _replace(&_per_user_folder, app_data_folder);
}

// ---- paths ---------------------------------------------------------------------------------------------

void config_file_name(str_t *out) {
    str_set(out, "Sablewatch");
    if (_instance) {
        str_cat_char(out, '-');
        for (const char *p = _instance; *p; p++) {
            if (strchr("\\/:*?\"<>|", *p)) {
                str_cat_printf(out, "%%%02X", (unsigned) (unsigned char) *p);
            } else {
                str_cat_char(out, *p);
            }
        }
    }
    str_cat_z(out, ".ini");
}

void config_exe_folder(str_t *out) {
    if (_exe_folder) {
        str_set(out, _exe_folder);
    } else {
        os_exe_folder(out);
    }
}

void config_per_user_folder(str_t *out) {
    if (_per_user_folder) {
        str_set(out, _per_user_folder);
    } else {
        os_app_data_folder(out);
    }
}

void config_settings_folder(str_t *out) {
    if (app_data) {
        config_per_user_folder(out);
    } else {
        config_exe_folder(out);
    }
}

static void _path_in(str_t *out, void (*folder)(str_t *)) {
    str_t dir, name;
    str_init(&dir);
    str_init(&name);
    folder(&dir);
    config_file_name(&name);
    str_path_cat(out, dir.ptr, dir.len, name.ptr, name.len);
    str_kill(&dir);
    str_kill(&name);
}

void config_path(str_t *out) {
    _path_in(out, config_settings_folder);
}
void config_stub_path(str_t *out) {
    _path_in(out, config_exe_folder);
}

void config_resolve_path(const char *path, str_t *out) {
    str_t dir;
    str_init(&dir);
    config_settings_folder(&dir);
    if (os_path_is_absolute(path)) {
        str_set(out, path);
    } else if (!*path) {
        str_set(out, dir.ptr);
    } else if (path[0] == '\\' || path[0] == '/') {
        // A rooted path without a drive lies on the settings folder's drive.
        str_clear(out);
        if (dir.len >= 2 && dir.ptr[1] == ':') {
            str_cat(out, dir.ptr, 2);
        }
        str_cat_z(out, path);
    } else {
        str_path_cat(out, dir.ptr, dir.len, path, (int) strlen(path));
    }
    str_kill(&dir);
}

// ---- the writer ----------------------------------------------------------------------------------------

static void _table_write(str_t *out) {
    for (int i = 0; i < CONFIG_KEY_COUNT; i++) {
        const config_key_t *key = &config_keys[i];
        switch (key->type) {
        case CONFIG_TYPE_INT:
            str_cat_printf(out, "%s=%d\r\n", key->name, *(const int32_t *) key->target);
            break;
        case CONFIG_TYPE_BYTE:
            str_cat_printf(out, "%s=%d\r\n", key->name, (int) *(const uint8_t *) key->target);
            break;
        case CONFIG_TYPE_HEX:
            str_cat_printf(out, "%s=0x%08x\r\n", key->name, *(const uint32_t *) key->target);
            break;
        case CONFIG_TYPE_TEXT: {
            // The value ends at its first line feed, which would otherwise end the line.
            const char *text = *(char *const *) key->target;
            const char *lf = strchr(text, '\n');
            str_cat_printf(out, "%s=", key->name);
            str_cat(out, text, lf ? (int) (lf - text) : (int) strlen(text));
            str_cat(out, "\r\n", 2);
            break;
        }
        }
    }
}

static void _admin_write(str_t *out) {
    str_cat_printf(out, "run_as_admin=%d\r\n", (int) run_as_admin);
    str_cat_printf(out, "allow_http_server=%d\r\n", (int) allow_http_server);
    str_cat_printf(out, "allow_stp_server=%d\r\n", (int) allow_stp_server);
}

void config_write_text(str_t *out, bool to_stub) {
    str_clear(out);
    str_cat_z(out, "; Please make sure Sablewatch is not running before modifying this file.\r\n");
    str_cat_z(out, "[Sablewatch]\r\n");
    if (!app_data) {
        _admin_write(out);
    } else if (to_stub) {
        // The stub beside the executable only points at the per-user file and holds the keys that the
        // user must not be able to change from there.
        str_cat_z(out, "; settings stored in %APPDATA%\\Sablewatch\\Sablewatch.ini\r\n");
        str_cat_printf(out, "app_data=%d\r\n", (int) app_data);
        _admin_write(out);
        return;
    }
    _table_write(out);
    config_columns_write(out);
    config_lists_write(out);
    config_fonts_colors_write(out);
    config_bindings_write(out);
}

// ---- saving --------------------------------------------------------------------------------------------

static bool _is_read_only(const char *path) {
    os_file_info_t info;
    return os_get_file_info(path, &info) && (info.attributes & OS_ATTR_READONLY);
}

// Writes the text through a 65,536-byte buffer's worth at a time. Logs and returns false on a failure.
static bool _write_file(const char *path, const str_t *text) {
    os_file_t f = os_file_open(path, OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    if (f == OS_FILE_INVALID) {
        debug_printf("failed to create config file %s\n", path);
        return false;
    }
    bool ok = true;
    for (int done = 0; done < text->len && ok;) {
        int n = text->len - done < 65536 ? text->len - done : 65536;
        ok = os_file_write(f, text->ptr + done, (size_t) n) == n;
        done += n;
    }
    ok = ok && os_file_flush(f);
    os_file_close(f);
    if (!ok) {
        debug_printf("failed to write to config file %s\n", path);
    }
    return ok;
}

// The parent folder of a file path, found at its last separator.
static void _parent_folder(const char *path, str_t *out) {
    const char *end = path + strlen(path);
    while (end > path && end[-1] != '\\' && end[-1] != '/') {
        end--;
    }
    str_set_n(out, path, end > path ? (int) (end - path - 1) : 0);
}

static bool _save_direct(const char *path) {
    if (_is_read_only(path)) {
        return true;
    }
    str_t text;
    str_init(&text);
    _parent_folder(path, &text);
    if (text.len) {
        os_folder_create_path(text.ptr);
    }
    config_write_text(&text, false);
    bool ok = _write_file(path, &text);
    str_kill(&text);
    return ok;
}

bool config_save(bool to_stub) {
    if (config_saved_on_exit) {
        return true;
    }
    if (_command_line_file) {
        return to_stub ? true : _save_direct(_command_line_file);
    }
    str_t target, temp, text;
    str_init(&target);
    str_init(&temp);
    str_init(&text);
    if (to_stub) {
        config_stub_path(&target);
    } else {
        config_path(&target);
        // The per-user folder may not exist yet on the first save after the settings moved there.
        config_settings_folder(&temp);
        if (temp.len) {
            os_folder_create_path(temp.ptr);
        }
    }
    str_printf(&temp, "%s.tmp", target.ptr);
    bool ok = true;
    if (_is_read_only(target.ptr)) {
        debug_printf("%s is readonly, abort config save\n", target.ptr);
    } else {
        config_write_text(&text, to_stub);
        ok = _write_file(temp.ptr, &text);
        if (ok && !os_file_rename_over(temp.ptr, target.ptr)) {
            debug_printf("failed to rename config file %s to %s %d\n", temp.ptr, target.ptr,
                         (int) os_last_error());
            ok = false;
        }
        if (!ok) {
            os_file_delete(temp.ptr);
        }
    }
    str_kill(&target);
    str_kill(&temp);
    str_kill(&text);
    return ok;
}
