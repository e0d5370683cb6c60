// Sockets on Linux, with the server window's events made from the main loop's poll: each selected socket
// is a watched descriptor whose poll interest follows the event mask, and FD_WRITE is armed the way
// WSAAsyncSelect arms it (once after the select, then after a send that would have blocked), so that a
// writable socket does not wake the loop for ever.
#include "os/os_net.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"

struct net_posted_t {
    uint32_t message;
    os_socket_t socket;
};

struct os_net_window_t {
    os_net_window_proc_t proc;
    void *context;
    int event_fd;
    pthread_mutex_t lock;
    net_posted_t *posted; // under lock
    uint32_t posted_count, posted_cap;
    bool alive; // under lock; false once destroy began
};

// What a socket asked for, indexed by descriptor. Main thread only.
struct net_selected_t {
    os_net_window_t *window;
    uint32_t message;
    uint32_t events;
    bool write_armed; // FD_WRITE is due when the socket is writable
    bool connecting;  // FD_CONNECT is due when the connection is made or failed
    bool closed;      // FD_CLOSE was delivered; the socket leaves the poll set
};
static net_selected_t *selected = nullptr;
static int selected_cap = 0;

static net_selected_t *_net_entry(os_socket_t s, bool make) {
    if (s < 0) {
        return nullptr;
    }
    if (s >= selected_cap) {
        if (!make) {
            return nullptr;
        }
        int cap = selected_cap ? selected_cap : 64;
        while (cap <= s) {
            cap *= 2;
        }
        selected = (net_selected_t *) mem_realloc(selected, sizeof(net_selected_t) * (size_t) cap);
        memset(selected + selected_cap, 0, sizeof(net_selected_t) * (size_t) (cap - selected_cap));
        selected_cap = cap;
    }
    return &selected[s];
}

int os_net_startup(int *version_low, int *version_high) {
    *version_low = 1;
    *version_high = 1;
    return 0;
}

void os_net_cleanup() {}

// ---- events --------------------------------------------------------------------------------------------

static void _net_socket_ready(void *context, intptr_t fd, uint32_t ready);

// Makes the poll interest follow the mask and the armed events.
static void _net_rewatch(os_socket_t s, net_selected_t *e) {
    uint32_t interest = 0;
    if (e->events & (OS_NET_READ | OS_NET_ACCEPT)) {
        interest |= OS_MAIN_IN;
    }
    if ((e->connecting && (e->events & OS_NET_CONNECT)) || (e->write_armed && (e->events & OS_NET_WRITE))) {
        interest |= OS_MAIN_OUT;
    }
    if (!e->window || !e->events || e->closed) {
        os_main_fd_unwatch(s);
        return;
    }
    os_main_fd_watch(s, interest, _net_socket_ready, e->window);
}

static int _net_socket_error(os_socket_t s) {
    int err = 0;
    socklen_t len = sizeof(err);
    if (getsockopt((int) s, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
        err = errno;
    }
    return err;
}

// One poll report becomes at most one event per call; a handler may close the socket, so the entry is
// looked at again after each.
static void _net_socket_ready(void *context, intptr_t fd, uint32_t ready) {
    (void) context;
    net_selected_t *e = _net_entry(fd, false);
    if (!e || !e->window) {
        return;
    }
    os_net_window_t *w = e->window;
    uint32_t message = e->message;
    if (e->connecting && (ready & (OS_MAIN_OUT | OS_MAIN_HANGUP))) {
        e->connecting = false;
        int error = _net_socket_error(fd);
        // Windows follows a made connection with FD_WRITE.
        e->write_armed = error == 0;
        _net_rewatch(fd, e);
        if (e->events & OS_NET_CONNECT) {
            w->proc(w->context, message, fd, OS_NET_CONNECT, error);
        }
        return;
    }
    if ((ready & OS_MAIN_IN) && (e->events & (OS_NET_READ | OS_NET_ACCEPT))) {
        w->proc(w->context, message, fd, e->events & (OS_NET_READ | OS_NET_ACCEPT), 0);
        e = _net_entry(fd, false);
        if (!e || e->window != w) {
            return;
        }
    }
    if ((ready & OS_MAIN_OUT) && e->write_armed && (e->events & OS_NET_WRITE)) {
        e->write_armed = false;
        _net_rewatch(fd, e);
        w->proc(w->context, message, fd, OS_NET_WRITE, 0);
        e = _net_entry(fd, false);
        if (!e || e->window != w) {
            return;
        }
    }
    // A hang-up without readable data (or with reading paused) is reported once; after that the socket
    // leaves the poll set until it is closed, or it would wake the loop for ever.
    if ((ready & OS_MAIN_HANGUP) && !((ready & OS_MAIN_IN) && (e->events & OS_NET_READ))) {
        e->closed = true;
        _net_rewatch(fd, e);
        if (e->events & OS_NET_CLOSE) {
            w->proc(w->context, message, fd, OS_NET_CLOSE, _net_socket_error(fd));
        }
    }
}

int os_net_select(os_net_window_t *w, os_socket_t s, uint32_t message, uint32_t events) {
    net_selected_t *e = _net_entry(s, true);
    if (!e) {
        return EBADF;
    }
    bool had_write = e->window && (e->events & OS_NET_WRITE);
    e->window = w;
    e->message = message;
    e->events = events;
    if ((events & OS_NET_WRITE) && !had_write && !e->connecting) {
        e->write_armed = true;
    }
    _net_rewatch(s, e);
    return 0;
}

// The posts of other threads (and of the main thread itself) wait in the window's list; the eventfd
// wakes the loop, which delivers them all in order.
static void _net_window_ready(void *context, intptr_t fd, uint32_t ready) {
    (void) ready;
    os_net_window_t *w = (os_net_window_t *) context;
    uint64_t value;
    ssize_t r = read((int) fd, &value, sizeof(value));
    (void) r;
    for (;;) {
        pthread_mutex_lock(&w->lock);
        if (w->posted_count == 0) {
            pthread_mutex_unlock(&w->lock);
            return;
        }
        net_posted_t p = w->posted[0];
        w->posted_count--;
        memmove(w->posted, w->posted + 1, sizeof(net_posted_t) * w->posted_count);
        pthread_mutex_unlock(&w->lock);
        w->proc(w->context, p.message, p.socket, 0, 0);
    }
}

os_net_window_t *os_net_window_create(const char *class_name, os_net_window_proc_t proc, void *context,
                                      int *error) {
    (void) class_name;
    int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        *error = errno;
        return nullptr;
    }
    os_net_window_t *w = (os_net_window_t *) mem_alloc(sizeof(os_net_window_t));
    memset(w, 0, sizeof(*w));
    w->proc = proc;
    w->context = context;
    w->event_fd = fd;
    w->alive = true;
    pthread_mutex_init(&w->lock, nullptr);
    os_main_fd_watch(fd, OS_MAIN_IN, _net_window_ready, w);
    *error = 0;
    return w;
}

void os_net_window_destroy(os_net_window_t *w) {
    if (!w) {
        return;
    }
    os_main_fd_unwatch(w->event_fd);
    pthread_mutex_lock(&w->lock);
    w->alive = false;
    pthread_mutex_unlock(&w->lock);
    for (int s = 0; s < selected_cap; s++) {
        if (selected[s].window == w) {
            selected[s].window = nullptr;
            os_main_fd_unwatch(s);
        }
    }
    close(w->event_fd);
    pthread_mutex_destroy(&w->lock);
    mem_free(w->posted);
    mem_free(w);
}

bool os_net_post(os_net_window_t *w, uint32_t message, os_socket_t s) {
    if (!w) {
        return false;
    }
    pthread_mutex_lock(&w->lock);
    if (!w->alive) {
        pthread_mutex_unlock(&w->lock);
        return false;
    }
    if (w->posted_count == w->posted_cap) {
        w->posted_cap = w->posted_cap ? w->posted_cap * 2 : 16;
        w->posted = (net_posted_t *) mem_realloc(w->posted, sizeof(net_posted_t) * w->posted_cap);
    }
    w->posted[w->posted_count++] = net_posted_t{message, s};
    uint64_t one = 1;
    ssize_t r = write(w->event_fd, &one, sizeof(one));
    (void) r;
    pthread_mutex_unlock(&w->lock);
    return true;
}

// ---- sockets -------------------------------------------------------------------------------------------

static int _net_family_native(int family) {
    return family == OS_NET_INET6 ? AF_INET6 : AF_INET;
}

static void _net_track(os_socket_t s) {
    net_selected_t *e = _net_entry(s, true);
    memset(e, 0, sizeof(*e));
}

os_socket_t os_net_socket(int family, int *error) {
    int fd = socket(_net_family_native(family), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        *error = errno;
        return OS_SOCKET_NONE;
    }
    if (family == OS_NET_INET6) {
        int one = 1;
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
    }
    _net_track(fd);
    *error = 0;
    return fd;
}

void os_net_set_reuse(os_socket_t s) {
    int one = 1;
    setsockopt((int) s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
}

void os_net_set_nodelay(os_socket_t s) {
    int one = 1;
    setsockopt((int) s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

int os_net_bind(os_socket_t s, const os_net_addr_t *addr) {
    // Here address reuse only lets a restarted server take its port while old connections linger; it
    // never lets two listeners share a port, as it would on Windows.
    os_net_set_reuse(s);
    return bind((int) s, (const sockaddr *) addr->data, addr->len) == 0 ? 0 : errno;
}

int os_net_listen(os_socket_t s, int backlog) {
    return listen((int) s, backlog) == 0 ? 0 : errno;
}

os_socket_t os_net_accept(os_socket_t listener, os_net_addr_t *peer, int *error) {
    sockaddr_storage ss;
    socklen_t len = sizeof(ss);
    int fd;
    do {
        fd = accept4((int) listener, (sockaddr *) &ss, &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        *error = (errno == EAGAIN || errno == EWOULDBLOCK) ? 0 : errno;
        return OS_SOCKET_NONE;
    }
    memset(peer, 0, sizeof(*peer));
    peer->len = len;
    memcpy(peer->data, &ss, len);
    _net_track(fd);
    *error = 0;
    return fd;
}

int os_net_connect(os_socket_t s, const os_net_addr_t *addr, int *error) {
    if (connect((int) s, (const sockaddr *) addr->data, addr->len) == 0) {
        *error = 0;
        return 0;
    }
    if (errno == EINPROGRESS || errno == EAGAIN) {
        net_selected_t *e = _net_entry(s, true);
        e->connecting = true;
        e->write_armed = false;
        if (e->window) {
            _net_rewatch(s, e);
        }
        *error = 0;
        return OS_NET_WOULD_BLOCK;
    }
    *error = errno;
    return OS_NET_ERROR;
}

int64_t os_net_recv(os_socket_t s, void *buf, uint32_t n, bool peek, int *error) {
    ssize_t r;
    do {
        r = recv((int) s, buf, n, peek ? MSG_PEEK : 0);
    } while (r < 0 && errno == EINTR);
    if (r >= 0) {
        *error = 0;
        return r;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        *error = 0;
        return OS_NET_WOULD_BLOCK;
    }
    *error = errno;
    return OS_NET_ERROR;
}

int64_t os_net_send(os_socket_t s, const void *buf, uint32_t n, int *error) {
    ssize_t r;
    do {
        r = send((int) s, buf, n, MSG_NOSIGNAL);
    } while (r < 0 && errno == EINTR);
    if (r >= 0) {
        *error = 0;
        return r;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
        net_selected_t *e = _net_entry(s, false);
        if (e && !e->write_armed) {
            e->write_armed = true;
            if (e->window) {
                _net_rewatch(s, e);
            }
        }
        *error = 0;
        return OS_NET_WOULD_BLOCK;
    }
    *error = errno;
    return OS_NET_ERROR;
}

int os_net_shutdown_send(os_socket_t s) {
    return shutdown((int) s, SHUT_WR) == 0 ? 0 : errno;
}

void os_net_close(os_socket_t s) {
    if (s == OS_SOCKET_NONE) {
        return;
    }
    net_selected_t *e = _net_entry(s, false);
    if (e) {
        memset(e, 0, sizeof(*e));
    }
    os_main_fd_unwatch(s);
    close((int) s);
}

int os_net_local_address(os_socket_t s, os_net_addr_t *out) {
    socklen_t len = sizeof(out->data);
    memset(out, 0, sizeof(*out));
    if (getsockname((int) s, (sockaddr *) out->data, &len) != 0) {
        return errno;
    }
    out->len = len;
    return 0;
}

int os_net_peer_address(os_socket_t s, os_net_addr_t *out) {
    socklen_t len = sizeof(out->data);
    memset(out, 0, sizeof(*out));
    if (getpeername((int) s, (sockaddr *) out->data, &len) != 0) {
        return errno;
    }
    out->len = len;
    return 0;
}

void os_net_show_error(void *parent, const char *text) {
    (void) parent;
    debug_printf("%s\n", text);
    os_std_write(2, text, strlen(text));
    os_std_write(2, "\n", 1);
}
