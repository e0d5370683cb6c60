// Names that make instances of the program independent, the instance lock and the hand-over of a command
// line to the instance that runs.
#include <cstring>

#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"

// How long a later start keeps trying to reach an instance that may be starting or ending.
#define MAIN_INSTANCE_WAIT_MS 30000
#define MAIN_HANDOVER_TIMEOUT 30000

static bool _main_is_file_reserved(char c) {
    return c == '\\' || c == '/' || c == ':' || c == '*' || c == '?' || c == '"' || c == '<' || c == '>' ||
           c == '|';
}

void main_instance_escape(str_t *out, const char *instance) {
    static const char hex[] = "0123456789ABCDEF";
    str_clear(out);
    for (const char *p = instance; *p; p++) {
        if (_main_is_file_reserved(*p)) {
            char esc[3] = {'%', hex[(unsigned char) *p >> 4], hex[*p & 15]};
            str_cat(out, esc, 3);
        } else {
            str_cat_char(out, *p);
        }
    }
}

static void _main_name_with_instance(str_t *out, const char *base, const char *instance) {
    if (instance && *instance) {
        str_printf(out, "%s_(%s)", base, instance);
    } else {
        str_set(out, base);
    }
}

void main_mutex_name(str_t *out, const char *instance) {
    _main_name_with_instance(out, "SABLEWATCH_MUTEX", instance);
    // A backslash would make the rest of the name a namespace path.
    for (int i = 0; i < out->len; i++) {
        if (out->ptr[i] == '\\') {
            out->ptr[i] = '_';
        }
    }
}

void main_window_class_name(str_t *out, const char *instance) {
    _main_name_with_instance(out, "SABLEWATCH_TASKBAR_NOTIFICATION", instance);
}

void main_instance_file_name(str_t *out, const char *base, const char *ext, const char *instance) {
    if (!instance || !*instance) {
        str_printf(out, "%s%s", base, ext);
        return;
    }
    str_t escaped;
    str_init(&escaped);
    main_instance_escape(&escaped, instance);
    str_printf(out, "%s-%s%s", base, escaped.ptr, ext);
    str_kill(&escaped);
}

void *main_handover_build(int32_t show, const char *command_line, const char *folder, uint32_t *size) {
    size_t n = strlen(command_line);
    size_t m = strlen(folder);
    uint32_t total = (uint32_t) (4 + n + 1 + m + 1);
    unsigned char *block = (unsigned char *) mem_alloc(total);
    uint32_t u = (uint32_t) show;
    for (int i = 0; i < 4; i++) {
        block[i] = (unsigned char) (u >> (8 * i));
    }
    memcpy(block + 4, command_line, n + 1);
    memcpy(block + 5 + n, folder, m + 1);
    *size = total;
    return block;
}

bool main_handover_parse(const void *block, uint32_t size, int32_t *show, const char **command_line,
                         const char **folder) {
    const unsigned char *b = (const unsigned char *) block;
    if (!b || size < 6) {
        return false;
    }
    // Both texts must end inside the block: it comes from another process.
    const unsigned char *end = b + size;
    const unsigned char *cl_end = (const unsigned char *) memchr(b + 4, 0, size - 4);
    if (!cl_end || cl_end + 1 >= end) {
        return false;
    }
    const unsigned char *dir_end = (const unsigned char *) memchr(cl_end + 1, 0, (size_t) (end - cl_end - 1));
    if (!dir_end) {
        return false;
    }
    *show =
        (int32_t) ((uint32_t) b[0] | (uint32_t) b[1] << 8 | (uint32_t) b[2] << 16 | (uint32_t) b[3] << 24);
    *command_line = (const char *) b + 4;
    *folder = (const char *) cl_end + 1;
    return true;
}

// Names of this instance's window class, its file-safe form, and the lock's two names.
struct main_names_t {
    str_t class_name, class_file, mutex_name, mutex_file;
};

static void _main_names_init(main_names_t *n, const char *instance) {
    str_init(&n->class_name);
    str_init(&n->class_file);
    str_init(&n->mutex_name);
    str_init(&n->mutex_file);
    main_window_class_name(&n->class_name, instance);
    main_instance_escape(&n->class_file, n->class_name.ptr);
    main_mutex_name(&n->mutex_name, instance);
    main_instance_escape(&n->mutex_file, n->mutex_name.ptr);
}

static void _main_names_kill(main_names_t *n) {
    str_kill(&n->class_name);
    str_kill(&n->class_file);
    str_kill(&n->mutex_name);
    str_kill(&n->mutex_file);
}

bool main_send_command_line(const char *instance) {
    main_names_t names;
    _main_names_init(&names, instance);
    os_main_peer_t *peer = os_main_peer_find(names.class_name.ptr, names.class_file.ptr);
    _main_names_kill(&names);
    if (!peer) {
        return false;
    }
    str_t cl, folder;
    str_init(&cl);
    str_init(&folder);
    os_command_line(&cl);
    os_current_folder(&folder);
    uint32_t size;
    void *block = main_handover_build(main_show_command, cl.ptr, folder.ptr, &size);
    str_kill(&cl);
    str_kill(&folder);
    debug_printf("send cl\n");
    bool ok = os_main_peer_send(peer, block, size, MAIN_HANDOVER_TIMEOUT);
    if (ok) {
        debug_printf("send message ok\n");
    }
    mem_free(block);
    os_main_peer_close(peer);
    return ok;
}

bool main_instance_take(const main_switches_t *sw, os_instance_lock_t **lock) {
    *lock = nullptr;
    const char *instance = main_instance();
    main_names_t names;
    _main_names_init(&names, instance);
    uint32_t start = os_tick_ms();
    bool first = false;
    for (;;) {
        bool existed = false;
        os_instance_lock_t *l = os_instance_lock_create(names.mutex_name.ptr, names.mutex_file.ptr, &existed);
        if (!l) {
            // Without a lock there is no way to tell; running is better than refusing to start.
            debug_color_printf((int32_t) 0xFFFF0000, "create mutex failed %u\n", os_last_error());
            first = !sw->no_first_instance;
            break;
        }
        if (!existed) {
            *lock = l;
            first = !sw->no_first_instance;
            break;
        }
        if (sw->first_instance) {
            exit_code = 1;
            os_instance_lock_destroy(l);
            break;
        }
        if (main_send_command_line(instance)) {
            os_instance_lock_destroy(l);
            break;
        }
        // The other instance is still starting (no window yet) or ending: try again shortly.
        os_sleep_ms(100);
        os_instance_lock_destroy(l);
        if (os_tick_ms() - start >= MAIN_INSTANCE_WAIT_MS) {
            break;
        }
    }
    _main_names_kill(&names);
    return first;
}
