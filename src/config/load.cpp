// Reading the settings file, the defaults, and the frozen copy for the index build.
#include "config/config_internal.h"
#include "debug/debug.h"
#include "os/os.h"

uint8_t app_data = 0;
uint8_t run_as_admin = 0;
uint8_t allow_http_server = 1;
uint8_t allow_stp_server = 1;
uint8_t allow_index_change = 1;

uint32_t translucent_selection_rectangle_background_color = CONFIG_COLOR_UNSET;
uint32_t translucent_selection_rectangle_border_color = CONFIG_COLOR_UNSET;
uint32_t thumbnail_mouseover_border_color = CONFIG_COLOR_UNSET;
uint32_t preview_background_color = CONFIG_COLOR_UNSET;

// ---- texts ---------------------------------------------------------------------------------------------

void config_text_free(char **slot) {
    if (*slot != config_empty_text) {
        mem_free(*slot);
    }
    *slot = config_empty_text;
}

void config_text_set(char **slot, const char *value) {
    char *copy = config_dup(value);
    config_text_free(slot);
    *slot = copy;
}

// ---- the table -----------------------------------------------------------------------------------------

// The platform layer declares reuse_threads as bool, so the table's one 8-bit row that points at a bool is
// stored as 0 or 1: any other byte in a bool is not a valid value.
static void _key_store_number(const config_key_t *key, int32_t v) {
    switch (key->type) {
    case CONFIG_TYPE_INT:
        *(int32_t *) key->target = v;
        break;
    case CONFIG_TYPE_HEX:
        *(uint32_t *) key->target = (uint32_t) v;
        break;
    case CONFIG_TYPE_BYTE:
        if (key->target == (void *) &reuse_threads) {
            reuse_threads = (uint8_t) v != 0;
        } else {
            *(uint8_t *) key->target = (uint8_t) v;
        }
        break;
    }
}

static int32_t _key_number(const config_key_t *key) {
    switch (key->type) {
    case CONFIG_TYPE_INT:
        return *(const int32_t *) key->target;
    case CONFIG_TYPE_HEX:
        return (int32_t) * (const uint32_t *) key->target;
    case CONFIG_TYPE_BYTE:
        return *(const uint8_t *) key->target;
    }
    return 0;
}

// The start values of the numeric rows, taken before anything can have changed them, so that
// config_defaults can put them back (tests and a reset both need that).
static int32_t _start_values[CONFIG_KEY_COUNT];
static bool _start_taken;

void config_defaults() {
    if (!_start_taken) {
        for (int i = 0; i < CONFIG_KEY_COUNT; i++) {
            if (config_keys[i].type != CONFIG_TYPE_TEXT) {
                _start_values[i] = _key_number(&config_keys[i]);
            }
        }
        _start_taken = true;
    }
    for (int i = 0; i < CONFIG_KEY_COUNT; i++) {
        if (config_keys[i].type == CONFIG_TYPE_TEXT) {
            config_text_set((char **) config_keys[i].target, "");
        } else {
            _key_store_number(&config_keys[i], _start_values[i]);
        }
    }
    app_data = 0;
    run_as_admin = 0;
    allow_http_server = 1;
    allow_stp_server = 1;
    allow_index_change = 1;
    config_volumes_free(&config_ntfs_volumes);
    config_volumes_free(&config_refs_volumes);
    config_strings_free(&config_exclude_folders);
    config_filelists_free(&config_filelists);
    config_folders_free(&config_folders);
    config_connects_free(&config_connect_history);
    config_rewrites_free(&config_stp_client_rewrites);
    config_tables_defaults();
    config_saved_on_exit = false;
}

void config_kill() {
    for (int i = 0; i < CONFIG_KEY_COUNT; i++) {
        if (config_keys[i].type == CONFIG_TYPE_TEXT) {
            config_text_free((char **) config_keys[i].target);
        }
    }
    config_volumes_free(&config_ntfs_volumes);
    config_volumes_free(&config_refs_volumes);
    config_strings_free(&config_exclude_folders);
    config_filelists_free(&config_filelists);
    config_folders_free(&config_folders);
    config_connects_free(&config_connect_history);
    config_rewrites_free(&config_stp_client_rewrites);
    config_tables_free();
    config_set_command_line(nullptr, nullptr);
    config_set_folders(nullptr, nullptr);
}

// ---- loading -------------------------------------------------------------------------------------------

static void _byte_load(const ini_t *ini, const char *key, uint8_t *slot) {
    const char *v = ini_get(ini, key, nullptr);
    if (v) {
        *slot = (uint8_t) config_parse_number(v);
    }
}

// Older names of the command settings: read, never written, and read before the table so that the new
// key wins when a file has both.
static void _old_commands_load(const ini_t *ini) {
    static const struct {
        const char *old_key;
        char **slot;
    } old_keys[] = {
        {"explore_command", &explore_command2},           {"open_folder_path_command", &open_path_command2},
        {"explore_path_command", &explore_path_command2}, {"open_file_command", &open_file_command2},
        {"open_folder_command", &open_folder_command2},
    };
    for (const auto &o : old_keys) {
        const char *v = ini_get(ini, o.old_key, nullptr);
        if (v && *v) {
            config_text_set(o.slot, v);
        }
    }
}

static void _table_load(const ini_t *ini) {
    for (int i = 0; i < CONFIG_KEY_COUNT; i++) {
        const config_key_t *key = &config_keys[i];
        const char *v = ini_get(ini, key->name, nullptr);
        if (!v) {
            continue;
        }
        if (key->type == CONFIG_TYPE_TEXT) {
            config_text_set((char **) key->target, v);
        } else {
            _key_store_number(key, config_parse_number(v));
        }
    }
}

bool config_load_ini(const ini_t *ini, bool allow_redirect, bool take_admin_keys) {
    if (take_admin_keys) {
        _byte_load(ini, "run_as_admin", &run_as_admin);
        _byte_load(ini, "allow_http_server", &allow_http_server);
        _byte_load(ini, "allow_stp_server", &allow_stp_server);
        _byte_load(ini, "allow_index_change", &allow_index_change);
    }
    if (allow_redirect) {
        str_t folder;
        str_init(&folder);
        config_per_user_folder(&folder);
        bool has_per_user = folder.len > 0;
        str_kill(&folder);
        if (has_per_user) {
            _byte_load(ini, "app_data", &app_data);
            if (app_data) {
                // The file beside the executable is only a stub: the user's own file holds the rest, and
                // the administrator's keys above cannot be changed from it.
                app_data = 1;
                str_t path;
                str_init(&path);
                config_path(&path);
                bool ok = config_load(path.ptr, false, false);
                str_kill(&path);
                return ok;
            }
        }
    }
    _old_commands_load(ini);
    _table_load(ini);
    config_tables_load(ini);
    return true;
}

// Reads a whole file, zero-terminated, into a heap block. False when it can't be opened or read.
static bool _read_file(const char *path, char **out) {
    os_file_t f = os_file_open(path, OS_OPEN_READ | OS_OPEN_SHARE_READ);
    if (f == OS_FILE_INVALID) {
        return false;
    }
    uint64_t size = os_file_size(f);
    if (size == UINT64_MAX || size > 0x7FFFFFFF) {
        os_file_close(f);
        return false;
    }
    char *text = (char *) mem_alloc((size_t) size + 1);
    size_t done = 0;
    while (done < size) {
        int64_t n = os_file_read(f, text + done, (size_t) size - done);
        if (n <= 0) {
            break;
        }
        done += (size_t) n;
    }
    os_file_close(f);
    text[done] = 0;
    *out = text;
    return true;
}

bool config_load(const char *path, bool allow_redirect, bool take_admin_keys) {
    char *text;
    if (!_read_file(path, &text)) {
        debug_printf("failed to load config %s %d\n", path, (int) os_last_error());
        return false;
    }
    ini_t *ini = ini_parse(text, "Sablewatch");
    mem_free(text);
    if (ini->count == 0) {
        debug_printf("failed to load config empty ini\n");
        ini_free(ini);
        return false;
    }
    bool ok = config_load_ini(ini, allow_redirect, take_admin_keys);
    ini_free(ini);
    return ok;
}

// ---- the frozen copy -----------------------------------------------------------------------------------

void config_freeze(config_frozen_t *out) {
    memset((void *) out, 0, sizeof(*out));
    config_volumes_copy(&out->ntfs_volumes, &config_ntfs_volumes);
    config_volumes_copy(&out->refs_volumes, &config_refs_volumes);
    config_filelists_copy(&out->filelists, &config_filelists);
    config_folders_copy(&out->folders, &config_folders);
    config_strings_copy(&out->exclude_folders, &config_exclude_folders);
    out->include_only_files = config_dup(include_only_files);
    out->exclude_files = config_dup(exclude_files);
    out->exclude_list_enabled = exclude_list_enabled;
    out->exclude_hidden_files_and_folders = exclude_hidden_files_and_folders;
    out->exclude_system_files_and_folders = exclude_system_files_and_folders;
    out->run_history_enabled = run_history_enabled;
    out->index_recent_changes = index_recent_changes;
    out->folder_update_rescan_asap = folder_update_rescan_asap;
    out->max_threads = max_threads;
    out->index_size = index_size;
    out->fast_size_sort = fast_size_sort;
    out->index_date_created = index_date_created;
    out->fast_date_created_sort = fast_date_created_sort;
    out->index_date_modified = index_date_modified;
    out->fast_date_modified_sort = fast_date_modified_sort;
    out->index_date_accessed = index_date_accessed;
    out->fast_date_accessed_sort = fast_date_accessed_sort;
    out->index_attributes = index_attributes;
    out->fast_attributes_sort = fast_attributes_sort;
    out->index_folder_size = index_folder_size;
    out->fast_path_sort = fast_path_sort;
    out->fast_extension_sort = fast_extension_sort;
}

void config_frozen_kill(config_frozen_t *f) {
    config_volumes_free(&f->ntfs_volumes);
    config_volumes_free(&f->refs_volumes);
    config_filelists_free(&f->filelists);
    config_folders_free(&f->folders);
    config_strings_free(&f->exclude_folders);
    mem_free(f->include_only_files);
    mem_free(f->exclude_files);
    f->include_only_files = nullptr;
    f->exclude_files = nullptr;
}
