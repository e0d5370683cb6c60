// The table of switches and the rules that find a row for a token.
//
// The rows stand in the order of the usage listing. Lookup is a linear walk: a token may leave out any
// hyphen of a name, so a binary search would need a second, hyphen-free key, and 125 rows cost nothing
// next to the start of a process. No two names are equal once their hyphens are dropped (a test holds
// this), so the order of the walk never decides between two rows.
#include "cl/cl.h"
#include "cl/cl_internal.h"

static constexpr cl_switch_t _flag(const char *name, uint32_t bits) {
    return {CL_TYPE_FLAG, name, bits};
}
static constexpr cl_switch_t _on_off(const char *name, uint32_t bit) {
    return {CL_TYPE_ON_OFF, name, bit};
}
static constexpr cl_switch_t _item(const char *name, uint32_t bit) {
    return {CL_TYPE_INSTALL_ITEM, name, bit};
}
static constexpr cl_switch_t _option(const char *name, uint32_t bit) {
    return {CL_TYPE_OPTION, name, bit};
}
static constexpr cl_switch_t _action(const char *name, uint32_t action) {
    return {CL_TYPE_ACTION, name, action};
}
static constexpr cl_switch_t _arg(const char *name, uint32_t arg) {
    return {CL_TYPE_ARGUMENT, name, arg};
}

const cl_switch_t cl_switches[] = {
    _flag("?", CL_FLAG_HELP),
    _flag("admin", CL_FLAG_ADMIN),
    {CL_TYPE_LINK_TYPE, "admin-server-share-links", 2},
    _item("all-users-start-menu-shortcuts", CL_ON_START_MENU_SHORTCUTS),
    _item("all-users-desktop-shortcut", CL_ON_DESKTOP_SHORTCUT),
    {CL_TYPE_INSTALL_ON_OFF, "app-data", CL_ON_APP_DATA},
    _arg("bookmark", CL_ARG_BOOKMARK),
    _on_off("case", CL_ON_CASE),
    _flag("choose-language", CL_FLAG_CHOOSE_LANGUAGE),
    _on_off("choose-volumes", CL_ON_CHOOSE_VOLUMES),
    _flag("client-svc", CL_FLAG_CLIENT_SVC),
    _flag("close", CL_FLAG_CLOSE),
    _arg("config", CL_ARG_CONFIG),
    _arg("connect", CL_ARG_CONNECT),
    _flag("console", CL_FLAG_CONSOLE),
    _action("copyto", CL_ACTION_COPYTO),
    {CL_TYPE_FILE_LIST, "create-file-list", 0},
    _arg("create-file-list-exclude-files", CL_ARG_CREATE_FILE_LIST_EXCLUDE_FILES),
    _arg("create-file-list-exclude-folders", CL_ARG_CREATE_FILE_LIST_EXCLUDE_FOLDERS),
    _arg("create-file-list-include-only-files", CL_ARG_CREATE_FILE_LIST_INCLUDE_ONLY_FILES),
    {CL_TYPE_USN_JOURNAL, "create-usn-journal", 0},
    _arg("db", CL_ARG_DB),
    _flag("debug", CL_FLAG_CONSOLE),
    _flag("debug-log", CL_FLAG_DEBUG_LOG),
    _item("desktop-shortcut", CL_ON_DESKTOP_SHORTCUT),
    _arg("delete-usn-journal", CL_ARG_DELETE_USN_JOURNAL),
    _action("details", CL_ACTION_DETAILS),
    _on_off("diacritics", CL_ON_DIACRITICS),
    {CL_TYPE_LINK_TYPE, "drive-links", 0},
    _arg("edit", CL_ARG_EDIT),
    _item("swl-association", CL_ON_SWL_ASSOCIATION),
    _flag("exit", CL_FLAG_EXIT),
    _arg("f", CL_ARG_FILE_LIST),
    _arg("file-list", CL_ARG_FILE_LIST),
    _arg("filename", CL_ARG_FILENAME),
    _arg("filter", CL_ARG_FILTER),
    _on_off("first-instance", CL_ON_FIRST_INSTANCE),
    _action("focus-bottom-result", CL_ACTION_FOCUS_BOTTOM),
    _action("focus-last-run-result", CL_ACTION_FOCUS_LAST_RUN),
    _action("focus-most-run-result", CL_ACTION_FOCUS_MOST_RUN),
    _action("focus-results", CL_ACTION_FOCUS_RESULTS),
    _action("focus-top-result", CL_ACTION_FOCUS_TOP),
    _item("folder-context-menu", CL_ON_FOLDER_CONTEXT_MENU),
    {CL_TYPE_LINK_TYPE, "ftp-links", 3},
    _on_off("fullscreen", CL_ON_FULLSCREEN),
    _flag("h", CL_FLAG_HELP),
    _flag("help", CL_FLAG_HELP),
    _flag("home", CL_FLAG_HOME),
    _arg("install", CL_ARG_INSTALL),
    {CL_TYPE_CLIENT_SERVICE, "install-client-service", CL_SERVICE_INSTALL},
    _arg("install-config", CL_ARG_INSTALL_CONFIG),
    _arg("install-language", CL_ARG_INSTALL_LANGUAGE),
    _arg("install-options", CL_ARG_INSTALL_OPTIONS),
    {CL_TYPE_SERVICE, "install-service", CL_SERVICE_INSTALL},
    _arg("install-service-pipe-name", CL_ARG_INSTALL_SERVICE_PIPE_NAME),
    _arg("install-service-port", CL_ARG_IGNORED_PORT),
    _arg("install-service-security-descriptor", CL_ARG_INSTALL_SERVICE_SECURITY_DESCRIPTOR),
    _arg("instance", CL_ARG_INSTANCE),
    _flag("is-run-as", CL_FLAG_IS_RUN_AS),
    _action("l", CL_ACTION_LOCAL),
    _arg("language", CL_ARG_LANGUAGE),
    _arg("link-type", CL_ARG_LINK_TYPE),
    _arg("load-delay", CL_ARG_LOAD_DELAY),
    _action("local", CL_ACTION_LOCAL),
    _on_off("match-path", CL_ON_MATCH_PATH),
    _on_off("maximized", CL_ON_MAXIMIZED),
    _on_off("minimized", CL_ON_MINIMIZED),
    _action("monitor-pause", CL_ACTION_MONITOR_PAUSE),
    _action("monitor-resume", CL_ACTION_MONITOR_RESUME),
    _action("moveto", CL_ACTION_MOVETO),
    _on_off("n", CL_ON_NEW_WINDOW),
    _arg("name-part", CL_ARG_NAME_PART),
    _on_off("new-window", CL_ON_NEW_WINDOW),
    _flag("no-db", CL_FLAG_NO_DB),
    _on_off("ontop", CL_ON_ONTOP),
    _arg("p", CL_ARG_PATH),
    _arg("parent", CL_ARG_PARENT),
    _arg("parent-path", CL_ARG_PARENT_PATH),
    _arg("path", CL_ARG_PATH),
    _action("path-instance", CL_ACTION_PATH_INSTANCE),
    _item("quick-launch-shortcut", CL_ON_QUICK_LAUNCH_SHORTCUT),
    _flag("quit", CL_FLAG_EXIT),
    _flag("read-only", CL_FLAG_READ_ONLY),
    _on_off("regex", CL_ON_REGEX),
    _flag("reindex", CL_FLAG_REINDEX),
    _action("rename", CL_ACTION_RENAME),
    _flag("rescan-all", CL_FLAG_RESCAN_ALL),
    _option("run-as-admin", CL_ON_RUN_AS_ADMIN),
    _item("run-on-system-startup", CL_ON_RUN_ON_SYSTEM_STARTUP),
    _arg("s", CL_ARG_SEARCH),
    _arg("save-install-options", CL_ARG_SAVE_INSTALL_OPTIONS),
    _arg("search", CL_ARG_SEARCH),
    _arg("search-file-list", CL_ARG_SEARCH_FILE_LIST),
    _arg("select", CL_ARG_SELECT),
    {CL_TYPE_LINK_TYPE, "server-share-links", 1},
    _arg("service-pipe-name", CL_ARG_SERVICE_PIPE_NAME),
    _arg("service-port", CL_ARG_IGNORED_PORT),
    _arg("sort", CL_ARG_SORT),
    {CL_TYPE_SORT_ASCENDING, "sort-ascending", 0},
    {CL_TYPE_SORT_DESCENDING, "sort-descending", 0},
    {CL_TYPE_CLIENT_SERVICE, "start-client-service", CL_SERVICE_START},
    _item("start-menu-shortcuts", CL_ON_START_MENU_SHORTCUTS),
    {CL_TYPE_SERVICE, "start-service", CL_SERVICE_START},
    _flag("startup", CL_FLAG_STARTUP),
    {CL_TYPE_CLIENT_SERVICE, "stop-client-service", CL_SERVICE_STOP},
    {CL_TYPE_SERVICE, "stop-service", CL_SERVICE_STOP},
    _flag("svc", CL_FLAG_SVC),
    _arg("svc-pipe-name", CL_ARG_SVC_PIPE_NAME),
    _arg("svc-port", CL_ARG_IGNORED_PORT),
    _arg("svc-security-descriptor", CL_ARG_SVC_SECURITY_DESCRIPTOR),
    _arg("thumbnail-size", CL_ARG_THUMBNAIL_SIZE),
    _action("thumbnails", CL_ACTION_THUMBNAILS),
    _flag("toggle-window", CL_FLAG_TOGGLE_WINDOW),
    _arg("uninstall", CL_ARG_UNINSTALL),
    {CL_TYPE_CLIENT_SERVICE, "uninstall-client-service", CL_SERVICE_UNINSTALL},
    {CL_TYPE_SERVICE, "uninstall-service", CL_SERVICE_UNINSTALL},
    _flag("uninstall-user", CL_FLAG_UNINSTALL_USER),
    _flag("update", CL_FLAG_UPDATE),
    _option("update-notification", CL_ON_UPDATE_NOTIFICATION),
    _arg("url", CL_ARG_URL),
    _item("url-protocol", CL_ON_URL_PROTOCOL),
    _on_off("verbose", CL_ON_VERBOSE),
    _action("version-instance", CL_ACTION_VERSION_INSTANCE),
    _on_off("whole-word", CL_ON_WHOLE_WORD),
    _on_off("ww", CL_ON_WHOLE_WORD),
};

static_assert(sizeof(cl_switches) / sizeof(cl_switches[0]) == CL_SWITCH_COUNT, "a row is missing or extra");

bool cl_name_matches(const char *name, const char *text, int text_len) {
    int i = 0;
    for (; *name; name++) {
        if (i < text_len && cl_ascii_lower(text[i]) == *name) {
            i++;
            continue;
        }
        // Only a hyphen of the name may be missing from the text; the greedy walk is exact because names
        // never hold two hyphens in a row.
        if (*name != '-') {
            return false;
        }
    }
    return i == text_len;
}

static const cl_switch_t *_cl_find(const char *text, int text_len) {
    for (int i = 0; i < CL_SWITCH_COUNT; i++) {
        if (cl_name_matches(cl_switches[i].name, text, text_len)) {
            return &cl_switches[i];
        }
    }
    return nullptr;
}

// A prefix of the token that may itself lose its hyphen: "no-", "no", "install-", "install" ...
// Returns the length of the prefix in text, or 0.
static int _cl_skip_prefix(const char *prefix, const char *text, int text_len) {
    int i = 0;
    for (; *prefix; prefix++) {
        if (i < text_len && cl_ascii_lower(text[i]) == *prefix) {
            i++;
        } else if (*prefix != '-') {
            return 0;
        }
    }
    return i;
}

struct _cl_prefix_t {
    const char *prefix;
    uint8_t type;
    uint8_t type2; // a second type the prefix serves, or the same
    int form;
};

static const _cl_prefix_t _cl_prefixes[] = {
    {"no-", CL_TYPE_ON_OFF, CL_TYPE_INSTALL_ON_OFF, CL_FORM_OFF},
    {"install-", CL_TYPE_INSTALL_ITEM, CL_TYPE_INSTALL_ITEM, CL_FORM_ON},
    {"uninstall-", CL_TYPE_INSTALL_ITEM, CL_TYPE_INSTALL_ITEM, CL_FORM_OFF},
    {"enable-", CL_TYPE_OPTION, CL_TYPE_OPTION, CL_FORM_ON},
    {"disable-", CL_TYPE_OPTION, CL_TYPE_OPTION, CL_FORM_OFF},
};

const cl_switch_t *cl_switch_lookup(const char *text, int text_len, int *form) {
    *form = CL_FORM_BARE;
    const cl_switch_t *row = _cl_find(text, text_len);
    if (row) {
        return row;
    }
    for (const _cl_prefix_t &p : _cl_prefixes) {
        int n = _cl_skip_prefix(p.prefix, text, text_len);
        if (n == 0) {
            continue;
        }
        row = _cl_find(text + n, text_len - n);
        if (row && (row->type == p.type || row->type == p.type2)) {
            *form = p.form;
            return row;
        }
    }
    return nullptr;
}
