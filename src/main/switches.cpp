// The few switches the start-up spine reads for itself, and the splitting of a command line into
// arguments. Both give way to the full command-line parser, whose cl_t then carries the same switches.
#include <cstring>

#include "cl/cl.h"
#include "main/main.h"
#include "mem/mem.h"

int main_split_command_line(const char *text, char ***argv) {
    // Arguments never outgrow the text, and there are at most half as many as its bytes plus one, so one
    // block holds both the pointers and the texts.
    size_t n = strlen(text);
    size_t max_args = n / 2 + 2;
    char **args = (char **) mem_alloc(max_args * sizeof(char *) + n + max_args);
    char *out = (char *) (args + max_args);
    int argc = 0;
    const char *p = text;
    for (;;) {
        while (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n') {
            p++;
        }
        if (!*p) {
            break;
        }
        args[argc++] = out;
        bool quoted = false;
        while (*p && (quoted || (*p != ' ' && *p != '\t' && *p != '\r' && *p != '\n'))) {
            if (*p == '\\') {
                size_t slashes = 0;
                while (*p == '\\') {
                    slashes++;
                    p++;
                }
                if (*p == '"') {
                    for (size_t k = 0; k < slashes / 2; k++) {
                        *out++ = '\\';
                    }
                    if (slashes & 1) {
                        *out++ = '"';
                        p++;
                    }
                } else {
                    for (size_t k = 0; k < slashes; k++) {
                        *out++ = '\\';
                    }
                }
            } else if (*p == '"') {
                quoted = !quoted;
                p++;
            } else {
                *out++ = *p++;
            }
        }
        *out++ = 0;
    }
    args[argc] = nullptr;
    *argv = args;
    return argc;
}

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

void main_switches_parse(main_switches_t *sw, int argc, char **argv) {
    // Each argument is quoted so that the command-line parser reads it back unchanged; on Windows this is
    // the same text GetCommandLineW gave, on Linux it is the only form there is.
    str_t line;
    str_init(&line);
    for (int i = 0; i < argc; i++) {
        if (i) {
            str_cat(&line, " ", 1);
        }
        cl_quote_arg(&line, argv[i]);
    }
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
