// Folder watches on inotify: one inotify instance per watch, so that each watch is one descriptor that
// poll() can wait on, and a watch stays readable until its events are drained, which is what makes it
// stay signalled until polled. The stop object is an eventfd that is written once and never read.
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/os_watch.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

struct os_watch_t {
    int fd; // the inotify instance, non-blocking
    int wd; // its one watch
};

struct os_watch_stop_t {
    int fd; // eventfd; readable once set
};

// Entries created, deleted, renamed in or out, and files written or touched. The folder's own deletion
// or move ends the watch (it would go on watching a folder under another name, or nothing).
#define OS_WATCH_MASK                                                                                        \
    (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_MODIFY | IN_ATTRIB |          \
     IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR)

os_watch_t *os_watch_create(const char *folder) {
    int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    int wd = inotify_add_watch(fd, folder, OS_WATCH_MASK);
    if (wd < 0) {
        int error = errno;
        close(fd);
        errno = error;
        return nullptr;
    }
    os_watch_t *w = (os_watch_t *) mem_alloc(sizeof(os_watch_t));
    w->fd = fd;
    w->wd = wd;
    return w;
}

void os_watch_destroy(os_watch_t *w) {
    if (w) {
        // Closing the instance drops its watch with it.
        close(w->fd);
        mem_free(w);
    }
}

int os_watch_poll(os_watch_t *w) {
    alignas(struct inotify_event) char buf[4096];
    int result = OS_WATCH_QUIET;
    for (;;) {
        ssize_t n = read(w->fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return result;
        }
        if (n <= 0) {
            return OS_WATCH_BROKEN;
        }
        if (result == OS_WATCH_QUIET) {
            result = OS_WATCH_CHANGED;
        }
        for (ssize_t off = 0; off + (ssize_t) sizeof(struct inotify_event) <= n;) {
            const struct inotify_event *e = (const struct inotify_event *) (buf + off);
            if (e->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
                result = OS_WATCH_BROKEN;
            }
            off += (ssize_t) sizeof(struct inotify_event) + e->len;
        }
    }
}

os_watch_stop_t *os_watch_stop_create() {
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        debug_fatal(__FILE__, __LINE__, "os_watch_stop_create", "eventfd failed %u", (unsigned) errno);
    }
    os_watch_stop_t *s = (os_watch_stop_t *) mem_alloc(sizeof(os_watch_stop_t));
    s->fd = fd;
    return s;
}

void os_watch_stop_destroy(os_watch_stop_t *s) {
    if (s) {
        close(s->fd);
        mem_free(s);
    }
}

void os_watch_stop_set(os_watch_stop_t *s) {
    uint64_t one = 1;
    // The counter only grows; a full counter (never reached) would still leave it readable.
    while (write(s->fd, &one, sizeof(one)) < 0 && errno == EINTR) {
    }
}

uintptr_t os_watch_stop_native(os_watch_stop_t *s) {
    return (uintptr_t) s->fd;
}

bool os_watch_stop_is_set(os_watch_stop_t *s) {
    struct pollfd p = {s->fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
}

int os_watch_wait(os_watch_stop_t *stop, os_watch_t *const *watches, int count, uint32_t timeout_ms) {
    if (count < 0 || count > OS_WATCH_WAIT_MAX - 1) {
        return OS_WATCH_WAIT_FAILED;
    }
    struct pollfd p[OS_WATCH_WAIT_MAX];
    p[0] = {stop->fd, POLLIN, 0};
    for (int i = 0; i < count; i++) {
        p[i + 1] = {watches[i]->fd, POLLIN, 0};
    }
    // Elapsed time by unsigned subtraction of the tick, which stays right across its wrap.
    uint32_t start = os_tick_ms();
    for (;;) {
        int wait = -1;
        if (timeout_ms != OS_INFINITE) {
            uint32_t spent = os_tick_ms() - start;
            wait = spent < timeout_ms ? (int) (timeout_ms - spent) : 0;
        }
        int n = poll(p, (nfds_t) count + 1, wait);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return OS_WATCH_WAIT_FAILED;
        }
        if (n == 0) {
            return OS_WATCH_WAIT_TIMEOUT;
        }
        if (p[0].revents) {
            return OS_WATCH_WAIT_STOP;
        }
        for (int i = 0; i < count; i++) {
            if (p[i + 1].revents) {
                return i;
            }
        }
    }
}
