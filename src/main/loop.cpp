// The main loop: one thread, no busy waiting. Messages first; the deferred work only with an empty queue,
// so that no modal box ever runs inside a callback or a list's message; then wait.
#include <cstdint>

#include "config/config.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os_main.h"

static bool quit_requested = false;
static int quit_code = 0;
static bool loop_made = false;

static void _main_wake_proc() {
    event_dispatch();
}

static bool _main_command_line_proc(const void *block, uint32_t size) {
    int32_t show;
    const char *command_line;
    const char *folder;
    if (!main_handover_parse(block, size, &show, &command_line, &folder)) {
        debug_printf("bad command line block, %u bytes\n", size);
        return false;
    }
    debug_printf("received cl %s (%s)\n", command_line, folder);
    // Relative paths of the other instance mean its current folder, which came with the block.
    main_switches_t sw;
    main_switches_parse_line(&sw, command_line, folder);
    main_apply_command_line(&sw, true);
    main_switches_kill(&sw);
    return true;
}

// The session ends and the process is about to be ended from outside: only what must not be lost is
// saved, and nothing else runs.
static void _main_end_session_proc(bool ending) {
    debug_printf("endsession %p\n", (void *) (uintptr_t) ending);
    if (!ending) {
        return;
    }
    config_save(false);
    main_db_save();
}

static bool _main_loop_init(const char *instance, bool hand_over) {
    str_t class_name, file_name;
    str_init(&class_name);
    str_init(&file_name);
    main_window_class_name(&class_name, instance);
    main_instance_escape(&file_name, class_name.ptr);
    static const os_main_procs_t procs = {_main_wake_proc, _main_command_line_proc, _main_end_session_proc};
    loop_made = os_main_loop_create(class_name.ptr, hand_over ? file_name.ptr : nullptr, &procs);
    str_kill(&file_name);
    str_kill(&class_name);
    quit_requested = false;
    quit_code = 0;
    // Events posted before the loop existed found nobody to wake: they run in the first pass.
    if (loop_made && event_pending_count() > 0) {
        os_main_wake();
    }
    return loop_made;
}

bool main_loop_init(const char *instance) {
    return _main_loop_init(instance, true);
}

bool main_loop_init_private(const char *instance) {
    return _main_loop_init(instance, false);
}

void main_loop_kill() {
    if (loop_made) {
        os_main_loop_destroy();
        loop_made = false;
    }
}

void main_quit(int code) {
    quit_requested = true;
    quit_code = code;
}

// The deferred lists of windows to destroy, to prompt for elevation and to show an error box. They fill
// once search windows exist; until then there is nothing to drain.
static void _main_drain_deferred() {}

int main_loop_run() {
    while (!quit_requested) {
        int r = os_main_pump();
        if (r < 0) {
            return 0;
        }
        if (r > 0 || quit_requested) {
            continue;
        }
        _main_drain_deferred();
        if (!quit_requested) {
            os_main_wait();
        }
    }
    quit_requested = false;
    return quit_code;
}
