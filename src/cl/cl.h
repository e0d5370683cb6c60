// The command line: one parser that turns a command line into a cl_t, driven by one table of switches.
// It serves the process's own start, a command line handed over by a second instance (parsed against
// that instance's folder), and the command lines the program builds for itself (tray, relaunch).
//
// Invariants:
// - cl_parse never fails. An unknown switch or a missing argument sets CL_FLAG_ERROR in flags and ends
//   the parse; everything parsed before it stays in the cl_t.
// - Every text field is null (not given) or a zero-terminated heap block owned by the cl_t; cl_free frees
//   them with the lists and the cl_t itself.
// - A bit is never set in both on and off: the later switch wins and clears the other word's bit.
// - Paths are made absolute when parsed, against the base folder given to cl_parse (or the current
//   folder), with the platform's separator (OS_SEP): the receiver of a handed-over command line resolves
//   the sender's relative paths against the sender's folder.
// - Switch names are matched case-blind; a '-' of a name may be left out, and '_' in the text counts as '-'.
//   A quoted token is always a positional argument, never a switch. The bare name of an install item or an
//   option (types 2 and 3) is accepted and does nothing: only its prefixes say which way to turn it.
// - Where '/' is the path separator, a token that begins with '/' and names no switch is a positional
//   path rather than an unknown switch.
#pragma once

#include <cstdint>

struct str_t;

// ---- flags ---------------------------------------------------------------------------------------------

enum : uint32_t {
    CL_FLAG_STARTUP = 0x2,            // -startup: no search window at start
    CL_FLAG_EXIT = 0x4,               // -exit, -quit
    CL_FLAG_CONSOLE = 0x8,            // -console, -debug
    CL_FLAG_NO_DB = 0x10,             // -no-db
    CL_FLAG_UPDATE = 0x40,            // -update: save the index
    CL_FLAG_CHOOSE_LANGUAGE = 0x100,  // -choose-language
    CL_FLAG_LOCAL = 0x400,            // -l, -local: no file list, the local index
    CL_FLAG_HELP = 0x800,             // -?, -h, -help: the usage box
    CL_FLAG_READ_ONLY = 0x1000,       // -read-only
    CL_FLAG_SVC = 0x2000,             // -svc
    CL_FLAG_ADMIN = 0x4000,           // -admin
    CL_FLAG_UNINSTALL_USER = 0x8000,  // -uninstall-user
    CL_FLAG_REINDEX = 0x10000,        // -reindex
    CL_FLAG_CLIENT_SVC = 0x20000,     // -client-svc
    CL_FLAG_IS_RUN_AS = 0x40000,      // -is-run-as: this process is the elevated relaunch
    CL_FLAG_DETAILS = 0x80000,        // -details
    CL_FLAG_THUMBNAILS = 0x100000,    // -thumbnails
    CL_FLAG_CLOSE = 0x200000,         // -close
    CL_FLAG_HOME = 0x400000,          // -home
    CL_FLAG_TOGGLE_WINDOW = 0x800000, // -toggle-window
    CL_FLAG_DEBUG_LOG = 0x1000000,    // -debug-log
    CL_FLAG_RESCAN_ALL = 0x8000000,   // -rescan-all
    CL_FLAG_ERROR = 0x4000800,        // unknown switch or missing argument: the usage box, no window
};

// Bits of on and off (switches of types 1, 2, 3 and 6, and the monitor pair).
enum : uint32_t {
    CL_ON_START_MENU_SHORTCUTS = 0x2, // also the all-users form
    CL_ON_QUICK_LAUNCH_SHORTCUT = 0x4,
    CL_ON_DESKTOP_SHORTCUT = 0x8, // also the all-users form
    CL_ON_FOLDER_CONTEXT_MENU = 0x10,
    CL_ON_URL_PROTOCOL = 0x20,
    CL_ON_RUN_ON_SYSTEM_STARTUP = 0x40,
    CL_ON_UPDATE_NOTIFICATION = 0x80,
    CL_ON_NEW_WINDOW = 0x100,
    CL_ON_MAXIMIZED = 0x200,
    CL_ON_MINIMIZED = 0x400,
    CL_ON_FULLSCREEN = 0x800,
    CL_ON_REGEX = 0x1000,
    CL_ON_CASE = 0x2000,
    CL_ON_WHOLE_WORD = 0x4000,
    CL_ON_MATCH_PATH = 0x8000,
    CL_ON_DIACRITICS = 0x10000,
    CL_ON_SWL_ASSOCIATION = 0x20000,
    CL_ON_VERBOSE = 0x40000,
    CL_ON_APP_DATA = 0x80000,
    CL_ON_CHOOSE_VOLUMES = 0x100000,
    CL_ON_ONTOP = 0x200000,
    CL_ON_RUN_AS_ADMIN = 0x400000,
    CL_ON_FIRST_INSTANCE = 0x800000,
    CL_ON_MONITOR_PAUSE = 0x4000000, // on: -monitor-pause, off: -monitor-resume
};

// ---- the switch table ----------------------------------------------------------------------------------

// What a switch does with its row's value; the numbers are those of the table's type column.
enum {
    CL_TYPE_FLAG = 0,            // value: bits of flags
    CL_TYPE_ON_OFF = 1,          // value: bit of on, or of off with the "no-" prefix
    CL_TYPE_INSTALL_ITEM = 2,    // value: bit; acts only as "install-<name>" (on), "uninstall-<name>" (off)
    CL_TYPE_OPTION = 3,          // value: bit; acts only as "enable-<name>" (on), "disable-<name>" (off)
    CL_TYPE_ACTION = 4,          // value: CL_ACTION_*; no argument, or the rest of the line
    CL_TYPE_ARGUMENT = 5,        // value: CL_ARG_*; one argument
    CL_TYPE_INSTALL_ON_OFF = 6,  // as type 1; a per-user install choice that the installer carries out
    CL_TYPE_SERVICE = 7,         // value: service_op
    CL_TYPE_LINK_TYPE = 8,       // value: link_type
    CL_TYPE_FILE_LIST = 9,       // -create-file-list <file> <folder>
    CL_TYPE_CLIENT_SERVICE = 10, // value: client_service_op
    CL_TYPE_SORT_ASCENDING = 11,
    CL_TYPE_SORT_DESCENDING = 12,
    CL_TYPE_USN_JOURNAL = 13, // -create-usn-journal <volume> <max-size> <allocation-delta>
};

enum {
    CL_ACTION_LOCAL = 1,
    CL_ACTION_DETAILS,
    CL_ACTION_THUMBNAILS,
    CL_ACTION_PATH_INSTANCE,
    CL_ACTION_VERSION_INSTANCE,
    CL_ACTION_FOCUS_LAST_RUN,
    CL_ACTION_FOCUS_MOST_RUN,
    CL_ACTION_FOCUS_TOP,
    CL_ACTION_FOCUS_BOTTOM,
    CL_ACTION_FOCUS_RESULTS,
    CL_ACTION_MONITOR_PAUSE,
    CL_ACTION_MONITOR_RESUME,
    CL_ACTION_RENAME,
    CL_ACTION_MOVETO,
    CL_ACTION_COPYTO,
};

enum {
    CL_ARG_BOOKMARK = 1,
    CL_ARG_CONFIG,
    CL_ARG_CONNECT,
    CL_ARG_CREATE_FILE_LIST_EXCLUDE_FILES,
    CL_ARG_CREATE_FILE_LIST_EXCLUDE_FOLDERS,
    CL_ARG_CREATE_FILE_LIST_INCLUDE_ONLY_FILES,
    CL_ARG_DB,
    CL_ARG_DELETE_USN_JOURNAL,
    CL_ARG_EDIT,
    CL_ARG_FILE_LIST,
    CL_ARG_FILENAME,
    CL_ARG_FILTER,
    CL_ARG_INSTALL,
    CL_ARG_INSTALL_CONFIG,
    CL_ARG_INSTALL_LANGUAGE,
    CL_ARG_INSTALL_OPTIONS,
    CL_ARG_INSTALL_SERVICE_PIPE_NAME,
    CL_ARG_INSTALL_SERVICE_SECURITY_DESCRIPTOR,
    CL_ARG_INSTANCE,
    CL_ARG_LANGUAGE,
    CL_ARG_LINK_TYPE,
    CL_ARG_LOAD_DELAY,
    CL_ARG_NAME_PART,
    CL_ARG_PATH,
    CL_ARG_PARENT,
    CL_ARG_PARENT_PATH,
    CL_ARG_SEARCH,
    CL_ARG_SAVE_INSTALL_OPTIONS,
    CL_ARG_SEARCH_FILE_LIST,
    CL_ARG_SELECT,
    CL_ARG_SERVICE_PIPE_NAME,
    CL_ARG_IGNORED_PORT, // -service-port, -svc-port, -install-service-port: read and dropped
    CL_ARG_SORT,
    CL_ARG_SVC_PIPE_NAME,
    CL_ARG_SVC_SECURITY_DESCRIPTOR,
    CL_ARG_THUMBNAIL_SIZE,
    CL_ARG_UNINSTALL,
    CL_ARG_URL,
};

struct cl_switch_t {
    uint8_t type;     // CL_TYPE_*
    const char *name; // without the leading '-': "run-as-admin"
    uint32_t value;   // meaning by type, see CL_TYPE_*
};

#define CL_SWITCH_COUNT 125

// The table, in its fixed order (the order of the usage listing).
extern const cl_switch_t cl_switches[CL_SWITCH_COUNT];

// True when text (leading '-'/'/' already removed, '_' already turned into '-') names the switch name:
// case-blind, each '-' of name may be missing from text, and text must end where name ends.
bool cl_name_matches(const char *name, const char *text, int text_len);

// How a token named its row: by the name alone, or through a prefix that turns the bit on ("install-",
// "enable-") or off ("no-", "uninstall-", "disable-").
enum { CL_FORM_BARE = 0, CL_FORM_ON = 1, CL_FORM_OFF = 2 };

// Finds what a switch token means. text is the token without its leading "-", "--" or "/", with '_' made
// '-'. The names are tried first, then the prefixes, each only with the types it serves ("no-" types 1
// and 6, "install-"/"uninstall-" type 2, "enable-"/"disable-" type 3). Returns the row and sets *form, or
// returns null for an unknown token.
const cl_switch_t *cl_switch_lookup(const char *text, int text_len, int *form);

// ---- the parsed command line ---------------------------------------------------------------------------

enum {
    CL_SEARCH_TEXT = 0,
    CL_SEARCH_PATH = 1,
    CL_SEARCH_PARENT = 2,
    CL_SEARCH_NAME_PART = 3,
    CL_SEARCH_FILE_LIST = 4
};

struct cl_search_part_t {
    cl_search_part_t *next;
    int32_t kind; // CL_SEARCH_*
    char *text;
};

enum { CL_JOURNAL_CREATE = 1, CL_JOURNAL_DELETE = 2 };

struct cl_journal_op_t {
    cl_journal_op_t *next;
    int32_t op; // CL_JOURNAL_*
    char *volume;
    uint64_t max_size;         // create only
    uint64_t allocation_delta; // create only
};

struct cl_path_t {
    cl_path_t *next;
    char *path;
};

enum { CL_FILE_OP_RENAME = 1, CL_FILE_OP_MOVETO = 2, CL_FILE_OP_COPYTO = 3 };
enum {
    CL_FOCUS_LAST_RUN = 1,
    CL_FOCUS_MOST_RUN = 2,
    CL_FOCUS_TOP = 3,
    CL_FOCUS_BOTTOM = 4,
    CL_FOCUS_RESULTS = 5
};
// service_op and client_service_op; CL_SERVICE_DONE is written by the start-up once it has acted.
enum {
    CL_SERVICE_INSTALL = 1,
    CL_SERVICE_UNINSTALL = 2,
    CL_SERVICE_START = 3,
    CL_SERVICE_STOP = 4,
    CL_SERVICE_DONE = 5
};

struct cl_t {
    uint32_t flags; // CL_FLAG_*
    uint32_t on;    // CL_ON_* asked on
    uint32_t off;   // CL_ON_* asked off
    char *instance;
    char *config;
    char *db;
    char *file_list;
    char *edit;
    char *bookmark;
    char *filter;
    char *install;
    char *install_options;
    char *uninstall;
    char *connect;
    char *install_config;
    char *service_pipe_name;
    char *svc_pipe_name;
    char *svc_security_descriptor;
    char *install_service_pipe_name;
    char *install_service_security_descriptor;
    char *select;
    int32_t language;         // -1 unset
    int32_t install_language; // -1 unset
    int32_t link_type;        // 1 unless given
    int32_t load_delay;       // milliseconds
    int32_t service_op;       // CL_SERVICE_*
    int32_t client_service_op;
    int32_t sort_dir; // 1 ascending, -1 descending, 0 unset
    int32_t sort;     // column index, -1 unset
    int32_t thumbnail_size;
    int32_t file_op; // CL_FILE_OP_*
    int32_t focus;   // CL_FOCUS_*
    bool save_install_options;
    int32_t install_options_value;
    cl_journal_op_t *journal_ops;   // in command-line order
    cl_search_part_t *search_parts; // in command-line order, at most one per kind
    char *create_file_list_filename;
    char *create_file_list_path;
    char *create_file_list_exclude_files;
    char *create_file_list_exclude_folders;
    char *create_file_list_include_only_files;
    cl_path_t *file_op_paths; // in command-line order
    int32_t file_op_path_count;
};

// Reads the next token from p into out. Blanks, tabs and line ends separate tokens outside double
// quotes; a double quote toggles quoting and is not copied; three in a row give one literal quote.
// *quoted tells whether the token held any double quote. Returns the position after the token, or null
// when only blanks were left (out is then empty).
const char *cl_next_token(const char *p, str_t *out, bool *quoted);

// Appends arg to out so that cl_next_token reads it back unchanged: as it stands when it is non-empty and
// holds no blank and no quote, else in double quotes with each quote written as three. Backslashes are
// never escaped: the tokeniser gives them no meaning. A quoted argument is positional when it stands alone.
void cl_quote_arg(str_t *out, const char *arg);

// Parses command_line (UTF-8, null counts as empty). Relative paths are made absolute against
// base_directory, or the current folder when it is null. With first_token_is_a_switch false the first
// token is the program's name and is skipped. Logs "cl: %s". Never fails; the caller frees the result
// with cl_free.
cl_t *cl_parse(const char *command_line, const char *base_directory, bool first_token_is_a_switch);

// Frees the cl_t and everything it owns. Null is ignored.
void cl_free(cl_t *cl);

// The search text of the cl_t's search parts, replacing out's text. Without regex_mode it is the
// program's search syntax; with it, one regular expression.
void cl_build_search(str_t *out, bool regex_mode, const cl_t *cl);

// ---- helpers, public for the callers that build the same texts and for tests -----------------------------

// Makes path absolute against base with the path rules of the separator sep ('\\': drive letters, UNC
// names and '/' read as '\\'; '/': POSIX). "." and ".." components are resolved and repeated separators
// collapsed; a trailing separator is kept. An empty path gives an empty result.
void cl_path_absolute(str_t *out, const char *path, const char *base, char sep);

// Decodes an -url argument into out: drops an "sw:" prefix (any case) with a following "//", and then one
// '/' that stands before the end, a '#' or a '?'; then decodes %hh sequences. Other text is kept.
void cl_url_decode(str_t *out, const char *url);

// The column named by text (case-blind; blanks, '-' and '_' are ignored), or 0 for an unknown name.
int cl_sort_column(const char *text, int len);

// Appends text to out with a backslash before each of $ ( ) * + . ? [ \ ^ { |.
void cl_regex_escape(str_t *out, const char *text);

// Called for -search-file-list to turn the named list into the text of the filelist: search function
// (the names joined with '|'). The file-list module installs it; without one the list's absolute path
// stands as the text. Returns false when the list can't be read, which leaves the path.
typedef bool (*cl_file_list_reader_t)(str_t *out, const char *path);
void cl_set_file_list_reader(cl_file_list_reader_t reader);
