// main_run: the fixed start order, the main loop, and the shutdown in reverse order. Steps whose
// subsystems are not part of this program yet are single calls here, so that each joins in one place.
#include <cstdio>

#include "cl/cl.h"
#include "config/config.h"
#include "db_create/db_create.h"
#include "debug/debug.h"
#include "filelist/create.h"
#include "http/http.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"
#include "stp/stp.h"

int32_t exit_code = 0;
bool read_only = false;
bool no_db = false;
int32_t main_show_command = 1;

// Start-up steps and "shutdown" are yellow in the console.
#define MAIN_STEP_COLOR ((int32_t) 0xFFFFFF00)

// The switches of this process's own command line, from the start until main_kill.
static main_switches_t switches;
static os_instance_lock_t *instance_lock = nullptr;
// The result of the OLE start, logged at once and again once the log file is open.
static uint32_t ole_result = 0;

const cl_t *main_command_line() {
    return switches.cl;
}

const char *main_instance() {
    if (switches.instance) {
        return switches.instance;
    }
    return instance_name && instance_name[0] ? instance_name : "";
}

static const char main_usage[] =
    "Usage: sablewatch [switches]\n"
    "  -instance <name>      run as, or talk to, the named instance\n"
    "  -first-instance       exit with code 1 when an instance is already running\n"
    "  -no-first-instance    never become the running instance\n"
    "  -exit, -quit          end the running instance\n"
    "  -debug                show the debug log on the console\n"
    "  -debug-log            write the debug log to the temporary folder\n"
    "  -verbose              log every event and message\n"
    "  -read-only            never write the index or its file\n"
    "  -no-db                neither load nor save the index file\n"
    "  -config <file>        the settings file\n"
    "  -db <file>            the index file\n"
    "  -reindex              build the index again from its sources\n"
    "  -update               save the index to its file\n"
    "  -load-delay <ms>      wait this long before loading the index\n"
    "  -create-file-list <list> <folder>\n"
    "                        write a file list of the folder's tree and end; filters:\n"
    "                        -create-file-list-exclude-files <a;b>, -create-file-list-exclude-folders "
    "<a;b>,\n"
    "                        -create-file-list-include-only-files <a;b>\n"
    "  -help                 show this text\n";

// Step 1: what every later step relies on. The log lock comes first of all.
static void _main_init_base() {
    debug_init();
    os_init();
    event_init();
    config_defaults();
    // A failing OLE start costs drag and drop, not the program: it is logged and the start goes on.
    ole_result = os_main_ole_init();
    debug_color_printf(MAIN_STEP_COLOR, "ole initialize: %08x\n", ole_result);
}

// Step 2: the command line, through the full parser; no default base folder, the program first.
static void _main_parse_command_line() {
    // -search-file-list turns a list into search text while the line is parsed.
    cl_set_file_list_reader(filelist_to_search);
    main_switches_parse_own(&switches);
}

// Step 7: the settings. -config names the file and is read as it stands; otherwise the default file beside
// the executable, which may redirect to the per-user folder. -install-config is loaded on top.
static void _main_load_settings() {
    const cl_t *cl = switches.cl;
    config_set_command_line(cl ? cl->config : nullptr, switches.instance);
    if (cl && cl->config) {
        config_load(cl->config, false, true);
    } else {
        str_t path;
        str_init(&path);
        config_path(&path);
        config_load(path.ptr, true, true);
        str_kill(&path);
    }
    if (cl && cl->install_config) {
        config_load(cl->install_config, false, true);
    }
}

// Step 10: logging as the settings and the switches ask, then the banner.
static void _main_start_log() {
    if (verbose) {
        debug_verbose = true;
    }
    if (debug_log || switches.debug_log) {
        debug_open_log(false);
    }
    if (debug) {
        debug_set_console(true);
    }
    debug_banner();
}

// Step 11: the language table joins here.
static void _main_load_language() {
    debug_color_printf(MAIN_STEP_COLOR, "load localization\n");
}

// Step 12: the switches that override the settings' logging.
static void _main_apply_log_switches() {
    if (switches.debug) {
        debug_set_console(true);
    }
    if (switches.verbose) {
        debug_verbose = true;
    }
    if (switches.no_verbose) {
        debug_verbose = false;
    }
    debug_color_printf(MAIN_STEP_COLOR, "ole initialize: %08x\n", ole_result);
}

// The texts a search window is given from the command line. Search windows join later; until then the
// log tells what a window would show, which is also how a handed-over line can be checked from outside.
static void _main_log_window_texts(const cl_t *cl) {
    if (cl->search_parts) {
        str_t search;
        str_init(&search);
        cl_build_search(&search, (cl->on & CL_ON_REGEX) != 0, cl);
        debug_printf("search window: search %s\n", search.ptr ? search.ptr : "");
        str_kill(&search);
    }
    if (cl->filter) {
        debug_printf("search window: filter %s\n", cl->filter);
    }
    if (cl->bookmark) {
        debug_printf("search window: bookmark %s\n", cl->bookmark);
    }
    if (cl->file_list) {
        debug_printf("search window: file list %s\n", cl->file_list);
    }
}

// -monitor-pause and -monitor-resume. At the start they only set the setting, which every monitor reads
// before it starts; later the running monitors are stopped or started again through the index.
static void _main_apply_monitor_pause(const cl_t *cl, bool running) {
    if (!((cl->on | cl->off) & CL_ON_MONITOR_PAUSE)) {
        return;
    }
    bool pause = (cl->on & CL_ON_MONITOR_PAUSE) != 0;
    if (running && db) {
        db_monitor_set_pause(db, pause);
    } else {
        monitor_pause = pause ? 1 : 0;
    }
}

void main_apply_command_line(const main_switches_t *sw, bool running) {
    if (sw->debug && !debug_is_active()) {
        if (debug_set_console(true)) {
            debug_banner();
        }
    } else if (sw->debug) {
        debug_set_console(true);
    }
    if (sw->verbose) {
        debug_verbose = true;
    }
    if (sw->no_verbose) {
        debug_verbose = false;
    }
    if (running && sw->cl && sw->cl->install_config) {
        config_load(sw->cl->install_config, false, true);
    }
    if (sw->no_db) {
        no_db = true;
    }
    if (sw->cl) {
        _main_apply_monitor_pause(sw->cl, running);
    }
    main_db_apply_command_line(sw->cl, running);
    if (sw->cl) {
        _main_log_window_texts(sw->cl);
    }
    if (sw->exit) {
        main_quit(0);
    }
}

static bool _main_has_work_before_exit(const cl_t *cl) {
    if (!cl)
        return false;
    return (cl->flags & (CL_FLAG_UPDATE | CL_FLAG_REINDEX | CL_FLAG_RESCAN_ALL)) ||
           ((cl->on | cl->off) & CL_ON_MONITOR_PAUSE) || cl->service_pipe_name;
}

// A run mode whose body is not part of this program yet: said in one line on the standard error and in
// the log, and the process ends with exit code 1 instead of starting as the search application.
static bool _main_mode_unavailable(const char *what) {
    debug_color_printf((int32_t) 0xFFFF0000, "%s: not available in this build\n", what);
    fprintf(stderr, "sablewatch: %s: not available in this build\n", what);
    fflush(stderr);
    exit_code = 1;
    return true;
}

// Steps 3 and 4: the service and the client service. True when the process has done its job.
static bool _main_run_service_modes() {
    const cl_t *cl = switches.cl;
    if (cl->flags & CL_FLAG_SVC) {
        // The service logs to a file of its own and reads none of the application's settings: its log
        // and console come from its switches alone.
        debug_banner_service = true;
        debug_verbose = switches.verbose;
        if (switches.debug_log) {
            debug_open_log(true);
        }
        if (switches.debug) {
            debug_set_console(true);
        }
        debug_banner();
        return _main_mode_unavailable("-svc (the service)");
    }
    if (cl->flags & CL_FLAG_CLIENT_SVC) {
        return _main_mode_unavailable("-client-svc (the client service)");
    }
    return false;
}

// Step 5: -admin relaunches a process that isn't elevated; an elevated one goes on. The relaunch is
// treated as failed until it exists, which sets exit_code to 1 as a failed relaunch does.
static bool _main_relaunch_admin() {
    if (!(switches.cl->flags & CL_FLAG_ADMIN) || os_is_admin()) {
        return false;
    }
    return _main_mode_unavailable("-admin (relaunch as administrator)");
}

// Step 14: -stop-service from a process that isn't elevated asks the service itself to stop, through its
// pipe.
static bool _main_stop_service() {
    if (switches.cl->service_op != CL_SERVICE_STOP || os_is_admin()) {
        return false;
    }
    return _main_mode_unavailable("-stop-service (the service client)");
}

// The on and off bits that install or uninstall something: the install items, the two options, and the
// per-user data folder.
#define MAIN_INSTALL_BITS                                                                                    \
    (CL_ON_START_MENU_SHORTCUTS | CL_ON_QUICK_LAUNCH_SHORTCUT | CL_ON_DESKTOP_SHORTCUT |                     \
     CL_ON_FOLDER_CONTEXT_MENU | CL_ON_URL_PROTOCOL | CL_ON_RUN_ON_SYSTEM_STARTUP |                          \
     CL_ON_UPDATE_NOTIFICATION | CL_ON_SWL_ASSOCIATION | CL_ON_APP_DATA | CL_ON_RUN_AS_ADMIN)

// Whether the line asks the installer for anything besides -create-file-list.
static bool _main_has_installer_switches(const cl_t *cl) {
    return cl->install || cl->uninstall || ((cl->on | cl->off) & MAIN_INSTALL_BITS) || cl->service_op ||
           cl->client_service_op || cl->journal_ops || (cl->flags & CL_FLAG_UNINSTALL_USER);
}

// Step 15: the switches that do one job and end the process. True when this process has done its job.
// Of the installer's switches only -create-file-list exists; the others end the process as unavailable.
static bool _main_do_command_line_installs() {
    const cl_t *cl = switches.cl;
    bool done = false;
    if (cl->create_file_list_filename) {
        if (!filelist_create(cl->create_file_list_filename, cl->create_file_list_path,
                             cl->create_file_list_exclude_files, cl->create_file_list_exclude_folders,
                             cl->create_file_list_include_only_files))
            exit_code = 1;
        done = true;
    }
    if (_main_has_installer_switches(cl)) {
        done = _main_mode_unavailable("install switches (the installer)");
    }
    return done;
}

// Step 16: -rename, -copyto and -moveto each run one dialog, without the mutex.
static bool _main_run_file_operation() {
    if (!switches.cl->file_op) {
        return false;
    }
    return _main_mode_unavailable("-rename, -copyto, -moveto (the file operation dialogs)");
}

// Steps 17 and 18. False when this process has nothing more to do.
static bool _main_take_instance() {
    debug_color_printf(MAIN_STEP_COLOR, "create mutex\n");
    if (!allow_multiple_instances && !main_instance_take(&switches, &instance_lock)) {
        debug_color_printf(MAIN_STEP_COLOR, "mutex exists\n");
        return false;
    }
    // -exit with nothing running: there is nothing to end, and nothing is created, unless the same line
    // asks for work that an instance does before it ends.
    return !switches.exit || _main_has_work_before_exit(switches.cl);
}

// Step 23: the hidden window, and the command line applied for the first time.
static bool _main_create_window() {
    debug_color_printf(MAIN_STEP_COLOR, "create tray\n");
    if (!main_loop_init(main_instance())) {
        debug_color_printf((int32_t) 0xFFFF0000, "create hidden window failed\n");
        exit_code = 1;
        return false;
    }
    main_apply_command_line(&switches, false);
    return true;
}

// Step 11 of the shutdown.
static void _main_kill() {
    debug_color_printf(MAIN_STEP_COLOR, "kill\n");
    main_switches_kill(&switches);
    os_main_ole_kill();
    // The queue goes before the settings: what is still queued is only logged, but the settings must
    // outlive every part of the program that could still look at them.
    event_kill();
    config_kill();
    os_kill();
    debug_kill();
}

static void _main_shutdown() {
    debug_color_printf(MAIN_STEP_COLOR, "shutdown\n");
    // The servers' sessions own queries of the index, so they end before it.
    _stp_server_stop();
    http_server_shutdown();
    main_db_kill();
    main_loop_kill();
    os_instance_lock_destroy(instance_lock);
    instance_lock = nullptr;
    _main_kill();
}

int main_run(int show_command) {
    main_show_command = show_command;
    _main_init_base();
    _main_parse_command_line();
    if (switches.help) {
        fputs(main_usage, stdout);
        fflush(stdout);
        _main_kill();
        return 0;
    }
    if (_main_run_service_modes() || _main_relaunch_admin()) {
        _main_shutdown();
        return exit_code;
    }
    _main_load_settings();
    _main_start_log();
    _main_load_language();
    _main_apply_log_switches();
    read_only = switches.read_only;
    if (!_main_stop_service() && !_main_do_command_line_installs() && !_main_run_file_operation() &&
        _main_take_instance() && _main_create_window()) {
        stp_server_apply_settings(nullptr);
        http_server_apply_settings(nullptr);
        debug_color_printf(MAIN_STEP_COLOR, "enter main loop\n");
        main_loop_run();
    }
    _main_shutdown();
    return exit_code;
}
