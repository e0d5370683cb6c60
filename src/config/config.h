// Settings: the one .ini file of key=value lines under the section [Sablewatch], and the plain
// process-wide variables that hold its values in memory.
//
// Invariants:
// - Every simple setting is a global variable named like its key (config_vars.h), reached by the whole
//   program without accessors. The key table binds each key to its variable and type; a variable's start
//   value is the key's default. The one exception to the naming is the key "index", whose variable is
//   index_setting (the C library already owns the name index).
// - Text settings are never null: each points at a heap text (or, before config_defaults, at one shared
//   empty buffer that is never freed). Replacing a text frees the old one.
// - Settings are written only on the main thread; other threads read them freely, and the index build
//   works from a frozen copy (config_freeze) so that a change during a rebuild cannot reach its thread.
// - Lists, columns, fonts, colours and key bindings live beside the table in the structures below; every
//   text in them is a heap text owned by the structure.
// - Failures are return values and log lines; only running out of memory ends the process.
#pragma once

#include <cstdint>

#include "config/config_vars.h"

struct str_t;

// The shared empty text that text settings point at before config_defaults. Never freed or written.
extern char config_empty_text[1];

// ---- the key table -------------------------------------------------------------------------------------

enum {
    CONFIG_TYPE_INT = 0,  // int32_t, written "%d", read as decimal
    CONFIG_TYPE_BYTE = 1, // uint8_t, written "%d", read as decimal truncated to 8 bits
    CONFIG_TYPE_TEXT = 2, // char * heap text, written up to its first line feed
    CONFIG_TYPE_HEX = 3,  // uint32_t, written "0x%08x", read with the same number parser
};

struct config_key_t {
    uint8_t type;
    const char *name;
    void *target;
};

#define CONFIG_KEY_COUNT 397
// All keys in file order.
extern const config_key_t config_keys[CONFIG_KEY_COUNT];

// The keys that only an administrator's copy of the file may set (read with take_admin_keys). Defaults:
// run_as_admin 0, allow_http_server 1, allow_stp_server 1, allow_index_change 1. app_data is read only
// from the file beside the executable and moves the settings to the per-user folder.
extern uint8_t app_data;
extern uint8_t run_as_admin;
extern uint8_t allow_http_server;
extern uint8_t allow_stp_server;
extern uint8_t allow_index_change;

// Colours are 0x00RRGGBB when set; an unset colour is this value.
#define CONFIG_COLOR_UNSET 0xFF000000u

// The four single colours written after the column keys. Unset by default.
extern uint32_t translucent_selection_rectangle_background_color;
extern uint32_t translucent_selection_rectangle_border_color;
extern uint32_t thumbnail_mouseover_border_color;
extern uint32_t preview_background_color;

// ---- lists ---------------------------------------------------------------------------------------------

// A remembered volume: one position of the seven parallel volume lists.
struct config_volume_t {
    char *guid;
    char *path;
    char *root;
    char *include_only;          // a comma list of folders, kept as one text
    int32_t include;             // missing value: 1
    int32_t load_recent_changes; // missing value: 0
    int32_t monitor;             // missing value: 1
};

struct config_filelist_t {
    char *filename;
    int32_t monitor; // missing value: 1
};

struct config_folder_t {
    char *path;
    int32_t monitor;              // missing value: 1
    int32_t buffer_size;          // 65536
    int32_t rescan_if_full;       // 0
    int32_t update_type;          // 2
    int32_t update_day;           // 0
    int32_t update_at;            // 3
    int32_t update_interval;      // 6
    int32_t update_interval_type; // 1
};

struct config_connect_t {
    char *host;
    int32_t port; // missing value: 21
    char *username;
    int32_t link_type; // missing value: 1
};

struct config_rewrite_t {
    char *pattern;
    char *substitution;
};

// A growable array of one entry type. items is null when count is 0.
template <typename T>
struct config_vec_t {
    T *items;
    int count;
    int cap;
};

extern config_vec_t<config_volume_t> config_ntfs_volumes;
extern config_vec_t<config_volume_t> config_refs_volumes;
extern config_vec_t<char *> config_exclude_folders;
extern config_vec_t<config_filelist_t> config_filelists;
extern config_vec_t<config_folder_t> config_folders;
extern config_vec_t<config_connect_t> config_connect_history;
extern config_vec_t<config_rewrite_t> config_stp_client_rewrites;

// Parses one list value into heap items appended to out (the caller frees them with config_strings_free).
// Items are separated by ',' or ';'. Inside double quotes the separators are plain and a backslash
// escapes the next character (C meanings for a b f n r t v 0). Blanks, tabs and line ends at either end of
// an unquoted item are dropped. An empty value has no items.
void config_list_parse(const char *value, config_vec_t<char *> *out);
// Appends one item to a comma list being written, quoting it where reading would otherwise change it.
// first says whether it is the list's first item; only says whether it is also its only item, so that a
// lone empty item is written as "" and does not read back as an empty list.
void config_list_cat_item(str_t *out, const char *item, bool first, bool only);
void config_strings_free(config_vec_t<char *> *v);

// ---- columns, fonts, colours ---------------------------------------------------------------------------

#define CONFIG_COLUMN_COUNT 13
struct config_column_t {
    const char *name; // key stem: "name", "path", ... "file_list_filename"
    int32_t visible;  // the first column (name) is always visible and its flag is not stored
    int32_t pos;
    int32_t width;
};
extern config_column_t config_columns[CONFIG_COLUMN_COUNT];

#define CONFIG_FONT_COUNT 4
struct config_font_t {
    const char *name; // key stem: "result_list", "search_edit", "status_bar", "header"
    char *face;       // heap text; empty: the system's font
    int32_t size;     // 0: the system's size
};
extern config_font_t config_fonts[CONFIG_FONT_COUNT];

#define CONFIG_COLOR_COUNT 26
enum { CONFIG_WEIGHT_NORMAL = 0, CONFIG_WEIGHT_BOLD = 2 };
struct config_color_t {
    const char *name; // key stem: "normal", "highlighted", ... "thumbnail_mouseover_highlighted"
    uint32_t background;
    uint32_t foreground;
    int32_t weight; // CONFIG_WEIGHT_NORMAL or CONFIG_WEIGHT_BOLD
};
extern config_color_t config_colors[CONFIG_COLOR_COUNT];

// Parses "#rrggbb", "rrggbb", "#rgb" or "rgb" (each digit of the short form doubled) into 0x00RRGGBB.
// Returns false and leaves *out alone for anything else.
bool config_parse_color(const char *value, uint32_t *out);

// ---- key bindings --------------------------------------------------------------------------------------

// One "<command>_keys" line: the command's whole list of bindings, each key | modifiers * 256. An empty
// list is kept: it means the command has no binding at all. Until the command table exists every such line
// that was read is kept, in key order, and written back as it was read.
struct config_binding_t {
    char *name;
    uint32_t *values;
    int count;
};
extern config_vec_t<config_binding_t> config_bindings;
// The binding line of a command name, or null.
const config_binding_t *config_binding_find(const char *name);

// ---- the parser ----------------------------------------------------------------------------------------

struct ini_pair_t {
    char *key; // ASCII case folded
    char *value;
};
struct ini_t {
    ini_pair_t *pairs; // sorted by key, one pair per key (the last line of a key wins)
    int count;
};

// Parses a zero-terminated text, keeping the key lines of the named section (compared without regard to
// ASCII case). Never fails; returns an ini_t with count 0 when the section has no key line. The caller
// frees it with ini_free.
ini_t *ini_parse(const char *text, const char *section);
// The value of a key (compared with ASCII case folded), or def when the key is absent. The pointer lives
// as long as the ini_t.
const char *ini_get(const ini_t *ini, const char *key, const char *def);
void ini_free(ini_t *ini);

// The one number parser of the settings: an optional sign, then decimal digits, or "0x" and hexadecimal
// digits; it stops at the first other character. The value wraps to 32 bits; no digits give 0.
int32_t config_parse_number(const char *text);

// ---- where the settings live ---------------------------------------------------------------------------

// Start-up tells the settings module about the command line before the first config_load; tests point the
// two folders at a scratch place. Texts are copied; null clears.
void config_set_command_line(const char *config_file, const char *instance);
void config_set_folders(const char *exe_folder, const char *app_data_folder);

// "Sablewatch.ini", or "Sablewatch-<instance>.ini" with the instance's file name escape (each of
// \ / : * ? " < > | becomes '%' and two upper-case hexadecimal digits).
void config_file_name(str_t *out);
// The folder of the executable, and the per-user folder (empty where the system has none).
void config_exe_folder(str_t *out);
void config_per_user_folder(str_t *out);
// The settings folder: the per-user folder with app_data on, else the folder of the executable.
void config_settings_folder(str_t *out);
// The settings file in the settings folder, and the one beside the executable (the stub with app_data).
void config_path(str_t *out);
void config_stub_path(str_t *out);
// A path from the settings made absolute against the settings folder; a leading separator takes the
// settings folder's drive.
void config_resolve_path(const char *path, str_t *out);

// Set by the close path once the settings are saved on the way out, so that later saves do nothing.
extern bool config_saved_on_exit;

// ---- load, save, defaults ------------------------------------------------------------------------------

// Sets every setting to its default: the table's start values, empty heap texts, no lists, and the
// column, font and colour tables; column widths are scaled by config_screen_ppi / 96. Called first thing
// at start.
void config_defaults();
// Pixels per inch of the screen, for the default column widths; start-up sets it before config_defaults.
extern int config_screen_ppi;
// Frees every heap text and list of the settings. The variables go back to the shared empty text.
void config_kill();

// Loads a settings file on top of what is set. With allow_redirect, app_data on in this file sends the
// load to the per-user file instead; with take_admin_keys the administrator's keys are read. Returns false
// on a missing or empty file ("failed to load config %s %d", "failed to load config empty ini").
bool config_load(const char *path, bool allow_redirect, bool take_admin_keys);
// Applies an already parsed file (the same steps as config_load after reading).
// Returns true, or with a redirection the result of loading the per-user file.
bool config_load_ini(const ini_t *ini, bool allow_redirect, bool take_admin_keys);

// Saves the settings: to the -config file directly, else through "<file>.tmp" renamed over the target,
// beside the executable with to_stub, else in the settings folder. Returns false on a failure to write or
// rename, true on success and when saving is disabled (already saved on exit, read-only target).
bool config_save(bool to_stub);
// The whole file text that config_save writes, for the given destination.
void config_write_text(str_t *out, bool to_stub);

// ---- the frozen copy -----------------------------------------------------------------------------------

// What the index build reads, copied on the main thread when a rebuild starts so that the build thread
// never reads a setting that the user may be changing.
struct config_frozen_t {
    config_vec_t<config_volume_t> ntfs_volumes;
    config_vec_t<config_volume_t> refs_volumes;
    config_vec_t<config_filelist_t> filelists;
    config_vec_t<config_folder_t> folders;
    config_vec_t<char *> exclude_folders;
    char *include_only_files;
    char *exclude_files;
    uint8_t exclude_list_enabled;
    uint8_t exclude_hidden_files_and_folders;
    uint8_t exclude_system_files_and_folders;
    uint8_t run_history_enabled;
    uint8_t index_recent_changes;
    uint8_t folder_update_rescan_asap;
    int32_t max_threads;
    // The structure settings, in the order the structure word is made from them.
    uint8_t index_size, fast_size_sort;
    uint8_t index_date_created, fast_date_created_sort;
    uint8_t index_date_modified, fast_date_modified_sort;
    uint8_t index_date_accessed, fast_date_accessed_sort;
    uint8_t index_attributes, fast_attributes_sort;
    uint8_t index_folder_size, fast_path_sort, fast_extension_sort;
};
// Fills out with deep copies; free with config_frozen_kill.
void config_freeze(config_frozen_t *out);
void config_frozen_kill(config_frozen_t *f);
