// Tree watches on Linux: the choice of mechanism and the wait. A folder that is a whole mount is watched
// with one fanotify file-system mark where the process may make one, so that "/" costs no watch per
// folder; anything else, or where fanotify is refused, gets the recursive inotify watch.
#include "os/posix/dirwatch.h"
#include "mem/mem.h"
#include "os/os_internal.h"

#include <errno.h>
#include <poll.h>
#include <string.h>

os_dirwatch_t *os_dirwatch_create(const char *folder, uint32_t buffer_size, uint32_t flags) {
    // Without a trailing separator, so that paths built below it have exactly one ("/" stays itself).
    size_t n = strlen(folder);
    while (n > 1 && folder[n - 1] == '/') {
        n--;
    }
    char *root = mem_dup(folder, n);
    os_dirwatch_t *w = nullptr;
    if (!(flags & OS_DIRWATCH_NO_FANOTIFY)) {
        w = os_dirwatch_fanotify_create(root, buffer_size);
    }
    // Refused (no right to it, not a whole mount, no file handles on this file system): inotify does it.
    if (!w) {
        w = os_dirwatch_inotify_create(root, buffer_size);
    }
    int error = errno;
    mem_free(root);
    errno = error;
    return w;
}

void os_dirwatch_destroy(os_dirwatch_t *w) {
    if (w) {
        w->ops->destroy(w);
    }
}

bool os_dirwatch_error_is_limit(uint32_t error) {
    // ENOSPC from inotify_add_watch: max_user_watches; EMFILE from inotify_init1: max_user_instances.
    return error == ENOSPC || error == EMFILE;
}

const char *os_dirwatch_mechanism(const os_dirwatch_t *w) {
    return w->ops->mechanism;
}

int os_dirwatch_read(os_dirwatch_t *w, os_dirwatch_callback_t callback, void *ctx) {
    w->fault = {OS_DIRWATCH_FAULT_NONE, 0, 0};
    return w->ops->read(w, callback, ctx);
}

const os_dirwatch_fault_t *os_dirwatch_fault(const os_dirwatch_t *w) {
    return &w->fault;
}

// The first watch whose held-back entries are due, or -1; *wait_ms gets the time until the earliest one.
static int _os_dirwatch_due(os_dirwatch_t *const *watches, int count, uint32_t *wait_ms) {
    *wait_ms = OS_INFINITE;
    for (int i = 0; i < count; i++) {
        uint32_t due = watches[i]->ops->due_ms(watches[i]);
        if (due == 0) {
            return i;
        }
        if (due < *wait_ms) {
            *wait_ms = due;
        }
    }
    return -1;
}

int os_dirwatch_wait(os_watch_stop_t *stop, os_dirwatch_t *const *watches, int count, uint32_t timeout_ms) {
    if (count < 0 || count > OS_WATCH_WAIT_MAX - 1) {
        return OS_WATCH_WAIT_FAILED;
    }
    struct pollfd p[OS_WATCH_WAIT_MAX];
    p[0] = {(int) os_watch_stop_native(stop), POLLIN, 0};
    for (int i = 0; i < count; i++) {
        p[i + 1] = {watches[i]->fd, POLLIN, 0};
    }
    // Elapsed time by unsigned subtraction of the tick, which stays right across its wrap.
    uint32_t start = os_tick_ms();
    for (;;) {
        uint32_t held_ms;
        int due = _os_dirwatch_due(watches, count, &held_ms);
        int wait = -1;
        if (timeout_ms != OS_INFINITE) {
            uint32_t spent = os_tick_ms() - start;
            wait = spent < timeout_ms ? (int) (timeout_ms - spent) : 0;
        }
        if (due >= 0 || (held_ms != OS_INFINITE && (wait < 0 || held_ms < (uint32_t) wait))) {
            wait = due >= 0 ? 0 : (int) held_ms;
        }
        int n = poll(p, (nfds_t) count + 1, wait);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return OS_WATCH_WAIT_FAILED;
        }
        if (n > 0 && p[0].revents) {
            return OS_WATCH_WAIT_STOP;
        }
        for (int i = 0; n > 0 && i < count; i++) {
            if (p[i + 1].revents) {
                return i;
            }
        }
        if (due >= 0) {
            return due;
        }
        if (timeout_ms != OS_INFINITE && os_tick_ms() - start >= timeout_ms) {
            return OS_WATCH_WAIT_TIMEOUT;
        }
    }
}
