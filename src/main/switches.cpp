// The few switches the start-up spine reads for itself, and the splitting of a command line into
// arguments. Both give way to the full command-line parser, whose cl_t then carries the same switches.
#include <cstring>

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

static bool _main_switch_is(const char *arg, const char *name) {
    size_t i = 0;
    for (; arg[i] && name[i]; i++) {
        char a = arg[i];
        if (a >= 'A' && a <= 'Z') {
            a = (char) (a - 'A' + 'a');
        }
        if (a != name[i]) {
            return false;
        }
    }
    return !arg[i] && !name[i];
}

void main_switches_parse(main_switches_t *sw, int argc, char **argv) {
    memset(sw, 0, sizeof(*sw));
    struct flag_t {
        const char *name;
        bool main_switches_t::*field;
    };
    static const flag_t flags[] = {
        {"help", &main_switches_t::help},
        {"h", &main_switches_t::help},
        {"?", &main_switches_t::help},
        {"first-instance", &main_switches_t::first_instance},
        {"no-first-instance", &main_switches_t::no_first_instance},
        {"exit", &main_switches_t::exit},
        {"quit", &main_switches_t::exit},
        {"debug", &main_switches_t::debug},
        {"debug-log", &main_switches_t::debug_log},
        {"verbose", &main_switches_t::verbose},
        {"no-verbose", &main_switches_t::no_verbose},
        {"read-only", &main_switches_t::read_only},
        {"no-db", &main_switches_t::no_db},
    };
    for (int i = 1; i < argc; i++) {
        const char *a = argv[i];
        if (a[0] != '-') {
            continue;
        }
        a += a[1] == '-' ? 2 : 1;
        if (_main_switch_is(a, "instance")) {
            if (i + 1 < argc) {
                mem_free(sw->instance);
                sw->instance = mem_dup(argv[i + 1], strlen(argv[i + 1]));
                i++;
            }
            continue;
        }
        for (const flag_t &f : flags) {
            if (_main_switch_is(a, f.name)) {
                sw->*f.field = true;
                break;
            }
        }
    }
}

void main_switches_kill(main_switches_t *sw) {
    mem_free(sw->instance);
    sw->instance = nullptr;
}
