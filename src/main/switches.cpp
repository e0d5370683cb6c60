// The few switches the start-up spine reads for itself, taken from the full command-line parser's cl_t.
#include <cstring>

#include "cl/cl.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"

// The spine's view of a parsed command line; the whole cl_t stays with it for the later steps.
static void _main_switches_from_cl(main_switches_t *sw, cl_t *cl) {
    memset(sw, 0, sizeof(*sw));
    sw->cl = cl;
    // An unknown switch sets the usage bit too, so a bad command line shows the usage and does nothing.
    sw->help = (cl->flags & CL_FLAG_HELP) != 0;
    sw->first_instance = (cl->on & CL_ON_FIRST_INSTANCE) != 0;
    sw->no_first_instance = (cl->off & CL_ON_FIRST_INSTANCE) != 0;
    sw->exit = (cl->flags & CL_FLAG_EXIT) != 0;
    sw->debug = (cl->flags & CL_FLAG_CONSOLE) != 0;
    sw->debug_log = (cl->flags & CL_FLAG_DEBUG_LOG) != 0;
    sw->verbose = (cl->on & CL_ON_VERBOSE) != 0;
    sw->no_verbose = (cl->off & CL_ON_VERBOSE) != 0;
    sw->read_only = (cl->flags & CL_FLAG_READ_ONLY) != 0;
    sw->no_db = (cl->flags & CL_FLAG_NO_DB) != 0;
    if (cl->instance && cl->instance[0]) {
        sw->instance = mem_dup(cl->instance, strlen(cl->instance));
    }
}

void main_switches_parse_line(main_switches_t *sw, const char *command_line, const char *base_directory) {
    _main_switches_from_cl(sw, cl_parse(command_line, base_directory, false));
}

void main_switches_parse_own(main_switches_t *sw) {
    // The raw line, not the C runtime's split of it: a split and re-joined line loses what the runtime's
    // backslash rules ate ("C:\" quoted) and would read differently from the same line handed over.
    str_t line;
    str_init(&line);
    os_command_line(&line);
    main_switches_parse_line(sw, line.ptr ? line.ptr : "", nullptr);
    str_kill(&line);
}

void main_switches_kill(main_switches_t *sw) {
    mem_free(sw->instance);
    sw->instance = nullptr;
    if (sw->cl) {
        cl_free(sw->cl);
        sw->cl = nullptr;
    }
}
