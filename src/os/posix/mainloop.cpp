// The main thread's loop on Linux: poll on an eventfd (event wake-ups) and on a listening Unix stream
// socket that takes command lines handed over by later instances; the instance lock is flock on a file.
#include "os/os_main.h"

#include <errno.h>
#include <fcntl.h>
#include <initializer_list>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

extern char **environ;

// A hand-over block is small (a command line and a folder); anything bigger is not a peer of ours.
#define MAINLOOP_MAX_BLOCK       (1u << 20)
#define MAINLOOP_MAX_CONNECTIONS 16
#define MAINLOOP_CONNECTION_MS   30000

struct mainloop_conn_t {
    int fd;
    uint32_t started_ms;
    str_t data;
};

static int wake_fd = -1;
static int listen_fd = -1;
// SIGTERM, SIGINT and SIGHUP are this platform's request to end, as WM_QUIT is on Windows: the handler
// only counts on this eventfd, and the loop ends through its normal shutdown (index saved, lock released).
static int signal_fd = -1;
static volatile sig_atomic_t last_signal = 0;
static const int quit_signals[] = {SIGTERM, SIGINT, SIGHUP};
static struct sigaction old_actions[3];
static str_t socket_path;
static os_main_procs_t procs;
static mainloop_conn_t conns[MAINLOOP_MAX_CONNECTIONS];
static int conn_count = 0;

// Descriptors of other modules (sockets of the servers, eventfds of their windows), indexed by fd. serial
// tells a report gathered by one poll from a watch made after it on a reused fd.
struct mainloop_watch_t {
    os_main_fd_proc_t proc; // null: not watched
    void *context;
    uint32_t interest;
    uint32_t serial;
};
struct mainloop_ready_t {
    int fd;
    uint32_t serial;
    uint32_t ready;
};
static mainloop_watch_t *watches = nullptr;
static int watch_cap = 0;
static int watch_max_fd = -1;
static uint32_t watch_serial = 0;
// What the last poll found ready among the watches; handed out one per pump, so that one poll of many
// sockets serves them all before the next.
static mainloop_ready_t *ready_list = nullptr;
static int ready_cap = 0;
static int ready_count = 0;
static int ready_next = 0;

struct os_main_timer_t {
    os_main_timer_t *next;
    void (*proc)(void *);
    void *context;
    uint32_t period_ms; // 0: one-shot
    uint32_t due_ms;
    bool armed;
};
static os_main_timer_t *timers = nullptr;
static pollfd *poll_set = nullptr;
static int poll_cap = 0;

// The folder for per-user runtime files: $XDG_RUNTIME_DIR when set, else the temporary folder.
static void _mainloop_runtime_path(str_t *out, const char *file_name, const char *suffix) {
    str_t folder;
    str_init(&folder);
    if (!os_getenv("XDG_RUNTIME_DIR", &folder) || folder.len == 0) {
        os_temp_folder(&folder);
    }
    str_path_cat(out, folder.ptr, folder.len, file_name, (int) strlen(file_name));
    str_cat_z(out, suffix);
    str_kill(&folder);
}

static bool _mainloop_socket_address(const char *file_name, sockaddr_un *addr, str_t *path) {
    _mainloop_runtime_path(path, file_name, "");
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    if ((size_t) path->len >= sizeof(addr->sun_path)) {
        debug_printf("hand-over socket path too long: %s\n", path->ptr);
        return false;
    }
    memcpy(addr->sun_path, path->ptr, (size_t) path->len + 1);
    return true;
}

static void _mainloop_signal_handler(int sig) {
    // Only async-signal-safe calls here: the flag and a write to the eventfd.
    int saved = errno;
    last_signal = sig;
    uint64_t one = 1;
    ssize_t r = write(signal_fd, &one, sizeof(one));
    (void) r;
    errno = saved;
}

static void _mainloop_signals_catch() {
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = _mainloop_signal_handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    for (int i = 0; i < 3; i++) {
        sigaction(quit_signals[i], &sa, &old_actions[i]);
    }
}

static void _mainloop_signals_release() {
    for (int i = 0; i < 3; i++) {
        sigaction(quit_signals[i], &old_actions[i], nullptr);
    }
}

bool os_main_loop_create(const char *class_name, const char *file_name, const os_main_procs_t *p) {
    (void) class_name;
    wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    signal_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake_fd < 0 || signal_fd < 0) {
        debug_printf("eventfd: %d\n", errno);
        for (int *fd : {&wake_fd, &signal_fd}) {
            if (*fd >= 0) {
                close(*fd);
                *fd = -1;
            }
        }
        return false;
    }
    last_signal = 0;
    _mainloop_signals_catch();
    procs = *p;
    str_init(&socket_path);
    if (!file_name)
        return true;
    sockaddr_un addr;
    listen_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    bool ok = listen_fd >= 0 && _mainloop_socket_address(file_name, &addr, &socket_path);
    if (ok) {
        // Only the holder of the instance lock gets here, so a socket file left by a crashed instance
        // can be replaced without stealing a live one's.
        unlink(addr.sun_path);
        ok = bind(listen_fd, (sockaddr *) &addr, sizeof(addr)) == 0 && listen(listen_fd, 8) == 0;
    }
    if (!ok) {
        debug_printf("hand-over socket %s: %d\n", socket_path.ptr ? socket_path.ptr : "", errno);
        os_main_loop_destroy();
        return false;
    }
    return true;
}

static void _mainloop_conn_close(int i) {
    close(conns[i].fd);
    str_kill(&conns[i].data);
    conns[i] = conns[--conn_count];
}

void os_main_loop_destroy() {
    ready_count = ready_next = 0;
    while (conn_count > 0) {
        _mainloop_conn_close(conn_count - 1);
    }
    if (listen_fd >= 0) {
        close(listen_fd);
        listen_fd = -1;
        if (socket_path.len > 0) {
            unlink(socket_path.ptr);
        }
    }
    str_kill(&socket_path);
    mem_free(poll_set);
    poll_set = nullptr;
    poll_cap = 0;
    mem_free(ready_list);
    ready_list = nullptr;
    ready_cap = 0;
    if (signal_fd >= 0) {
        // The default actions again: a signal during the rest of the shutdown ends the process at once.
        _mainloop_signals_release();
        close(signal_fd);
        signal_fd = -1;
    }
    if (wake_fd >= 0) {
        int fd = wake_fd;
        wake_fd = -1;
        close(fd);
    }
}

void os_main_wake() {
    int fd = wake_fd;
    if (fd < 0) {
        return;
    }
    uint64_t one = 1;
    // EAGAIN means the counter is already far from zero: the loop will wake anyway.
    ssize_t r = write(fd, &one, sizeof(one));
    (void) r;
}

static void _mainloop_accept() {
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return;
    }
    if (conn_count == MAINLOOP_MAX_CONNECTIONS) {
        close(fd);
        return;
    }
    mainloop_conn_t *c = &conns[conn_count++];
    c->fd = fd;
    c->started_ms = os_tick_ms();
    str_init(&c->data);
}

// Reads what the peer sent. The sender shuts its side down after the block, so end of stream means the
// block is whole; it is then given to the program, and one byte tells the sender whether it was taken.
static void _mainloop_read(int i) {
    mainloop_conn_t *c = &conns[i];
    char buf[4096];
    ssize_t n = read(c->fd, buf, sizeof(buf));
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (n > 0) {
        if ((uint32_t) c->data.len + (uint32_t) n > MAINLOOP_MAX_BLOCK) {
            _mainloop_conn_close(i);
            return;
        }
        str_cat(&c->data, buf, (int) n);
        return;
    }
    if (n == 0) {
        bool taken = procs.command_line && procs.command_line(c->data.ptr, (uint32_t) c->data.len);
        char answer = taken ? 1 : 0;
        // A peer that only looked whether we run has gone already: no SIGPIPE for that.
        ssize_t w = send(c->fd, &answer, 1, MSG_NOSIGNAL);
        (void) w;
    }
    _mainloop_conn_close(i);
}

// ---- watched descriptors and timers --------------------------------------------------------------------

bool os_main_fd_watch(intptr_t fd, uint32_t interest, os_main_fd_proc_t proc, void *context) {
    if (fd < 0 || fd > 0x7FFFFFF || !proc) {
        return false;
    }
    if (fd >= watch_cap) {
        int cap = watch_cap ? watch_cap : 64;
        while (cap <= fd) {
            cap *= 2;
        }
        watches = (mainloop_watch_t *) mem_realloc(watches, sizeof(mainloop_watch_t) * (size_t) cap);
        memset(watches + watch_cap, 0, sizeof(mainloop_watch_t) * (size_t) (cap - watch_cap));
        watch_cap = cap;
    }
    mainloop_watch_t *w = &watches[fd];
    if (w->proc != proc || w->context != context) {
        w->serial = ++watch_serial;
    }
    w->proc = proc;
    w->context = context;
    w->interest = interest;
    if ((int) fd > watch_max_fd) {
        watch_max_fd = (int) fd;
    }
    return true;
}

void os_main_fd_unwatch(intptr_t fd) {
    if (fd < 0 || fd >= watch_cap) {
        return;
    }
    watches[fd].proc = nullptr;
    watches[fd].serial = ++watch_serial;
    while (watch_max_fd >= 0 && !watches[watch_max_fd].proc) {
        watch_max_fd--;
    }
    if (watch_max_fd < 0) {
        mem_free(watches);
        watches = nullptr;
        watch_cap = 0;
    }
}

os_main_timer_t *os_main_timer_start(uint32_t ms, bool periodic, void (*proc)(void *), void *context) {
    os_main_timer_t *t = (os_main_timer_t *) mem_alloc(sizeof(os_main_timer_t));
    t->proc = proc;
    t->context = context;
    t->period_ms = periodic ? (ms ? ms : 1) : 0;
    t->due_ms = os_tick_ms() + ms;
    t->armed = true;
    t->next = timers;
    timers = t;
    return t;
}

void os_main_timer_stop(os_main_timer_t *timer) {
    for (os_main_timer_t **p = &timers; *p; p = &(*p)->next) {
        if (*p == timer) {
            *p = timer->next;
            mem_free(timer);
            return;
        }
    }
}

// Milliseconds until the first armed timer is due (0 when one is due now), or -1 without any.
static int _mainloop_timer_wait_ms() {
    uint32_t now = os_tick_ms();
    int best = -1;
    for (os_main_timer_t *t = timers; t; t = t->next) {
        if (!t->armed) {
            continue;
        }
        int32_t left = (int32_t) (t->due_ms - now);
        int ms = left < 0 ? 0 : left;
        if (best < 0 || ms < best) {
            best = ms;
        }
    }
    return best;
}

// Runs one timer that is due. True when one ran.
static bool _mainloop_timer_fire() {
    uint32_t now = os_tick_ms();
    for (os_main_timer_t *t = timers; t; t = t->next) {
        if (!t->armed || (int32_t) (now - t->due_ms) < 0) {
            continue;
        }
        if (t->period_ms) {
            t->due_ms = now + t->period_ms;
        } else {
            t->armed = false;
        }
        t->proc(t->context);
        return true;
    }
    return false;
}

// The poll set: the wake-up eventfd, the signal eventfd, the listening socket, each connection, then the
// watched descriptors. Returns the count; *first_watch is where the watches begin.
static int _mainloop_fill(pollfd *fds, int *first_watch) {
    int n = 0;
    fds[n++] = pollfd{wake_fd, POLLIN, 0};
    fds[n++] = pollfd{signal_fd, POLLIN, 0};
    if (listen_fd >= 0) {
        fds[n++] = pollfd{listen_fd, POLLIN, 0};
    }
    for (int i = 0; i < conn_count; i++) {
        fds[n++] = pollfd{conns[i].fd, POLLIN, 0};
    }
    *first_watch = n;
    for (int fd = 0; fd <= watch_max_fd; fd++) {
        if (watches[fd].proc) {
            short events = (short) (((watches[fd].interest & OS_MAIN_IN) ? POLLIN : 0) |
                                    ((watches[fd].interest & OS_MAIN_OUT) ? POLLOUT : 0));
            fds[n++] = pollfd{fd, events, 0};
        }
    }
    return n;
}

static pollfd *_mainloop_poll_set() {
    int need = 3 + MAINLOOP_MAX_CONNECTIONS + watch_max_fd + 1;
    if (need > poll_cap) {
        poll_cap = need * 2;
        poll_set = (pollfd *) mem_realloc(poll_set, sizeof(pollfd) * (size_t) poll_cap);
    }
    return poll_set;
}

static void _mainloop_drop_stale() {
    uint32_t now = os_tick_ms();
    for (int i = conn_count - 1; i >= 0; i--) {
        if (now - conns[i].started_ms > MAINLOOP_CONNECTION_MS) {
            _mainloop_conn_close(i);
        }
    }
}

// Hands out the next report of the last poll whose watch still stands. True when one was delivered.
static bool _mainloop_ready_deliver() {
    while (ready_next < ready_count) {
        mainloop_ready_t r = ready_list[ready_next++];
        if (r.fd >= watch_cap || !watches[r.fd].proc || watches[r.fd].serial != r.serial) {
            continue;
        }
        watches[r.fd].proc(watches[r.fd].context, r.fd, r.ready);
        return true;
    }
    ready_count = ready_next = 0;
    return false;
}

static void _mainloop_ready_collect(const pollfd *fds, int first, int n) {
    ready_count = ready_next = 0;
    if (n - first > ready_cap) {
        ready_cap = (n - first) * 2;
        ready_list =
            (mainloop_ready_t *) mem_realloc(ready_list, sizeof(mainloop_ready_t) * (size_t) ready_cap);
    }
    for (int k = first; k < n; k++) {
        if (!fds[k].revents) {
            continue;
        }
        uint32_t ready = ((fds[k].revents & POLLIN) ? OS_MAIN_IN : 0) |
                         ((fds[k].revents & POLLOUT) ? OS_MAIN_OUT : 0) |
                         ((fds[k].revents & (POLLHUP | POLLERR | POLLNVAL)) ? OS_MAIN_HANGUP : 0);
        ready_list[ready_count++] = mainloop_ready_t{fds[k].fd, watches[fds[k].fd].serial, ready};
    }
}

int os_main_pump() {
    if (wake_fd < 0) {
        return 0;
    }
    if (_mainloop_ready_deliver()) {
        return 1;
    }
    pollfd *fds = _mainloop_poll_set();
    int first_watch;
    int n = _mainloop_fill(fds, &first_watch);
    if (poll(fds, (nfds_t) n, 0) <= 0) {
        _mainloop_drop_stale();
        return _mainloop_timer_fire() ? 1 : 0;
    }
    // A request to end comes before anything else that waits, as WM_QUIT ends the loop on Windows.
    if (fds[1].revents) {
        uint64_t value;
        ssize_t r = read(signal_fd, &value, sizeof(value));
        (void) r;
        debug_printf("signal %d\n", (int) last_signal);
        return -1;
    }
    if (fds[0].revents) {
        uint64_t value;
        ssize_t r = read(wake_fd, &value, sizeof(value));
        (void) r;
        if (procs.wake) {
            procs.wake();
        }
        return 1;
    }
    int first_conn = 2;
    if (listen_fd >= 0) {
        first_conn = 3;
        if (fds[2].revents) {
            _mainloop_accept();
            return 1;
        }
    }
    for (int k = first_watch - 1; k >= first_conn; k--) {
        if (fds[k].revents) {
            _mainloop_read(k - first_conn);
            return 1;
        }
    }
    _mainloop_ready_collect(fds, first_watch, n);
    if (_mainloop_ready_deliver()) {
        return 1;
    }
    return _mainloop_timer_fire() ? 1 : 0;
}

void os_main_wait() {
    if (wake_fd < 0) {
        return;
    }
    if (ready_next < ready_count) {
        return;
    }
    pollfd *fds = _mainloop_poll_set();
    int first_watch;
    int n = _mainloop_fill(fds, &first_watch);
    while (poll(fds, (nfds_t) n, _mainloop_timer_wait_ms()) < 0 && errno == EINTR) {
    }
}

// ---- instance lock -------------------------------------------------------------------------------------

struct os_instance_lock_t {
    int fd;
    str_t path;
};

// Opens and locks the file. Returns the descriptor, -2 when another process holds the lock, -1 on error.
static int _mainloop_lock_file(const char *path) {
    // The holder removes the file when it lets go, so a lock taken on a file that has just been removed
    // proves nothing: the lock counts only while the path still names the locked file.
    for (int attempt = 0; attempt < 100; attempt++) {
        int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            return -1;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            int e = errno;
            close(fd);
            return e == EWOULDBLOCK ? -2 : -1;
        }
        struct stat held, named;
        if (fstat(fd, &held) == 0 && stat(path, &named) == 0 && held.st_ino == named.st_ino &&
            held.st_dev == named.st_dev) {
            return fd;
        }
        close(fd);
    }
    return -1;
}

os_instance_lock_t *os_instance_lock_create(const char *name, const char *file_name, bool *existed) {
    (void) name;
    *existed = false;
    os_instance_lock_t *lock = (os_instance_lock_t *) mem_alloc(sizeof(os_instance_lock_t));
    str_init(&lock->path);
    _mainloop_runtime_path(&lock->path, file_name, ".lock");
    lock->fd = _mainloop_lock_file(lock->path.ptr);
    if (lock->fd == -1) {
        str_kill(&lock->path);
        mem_free(lock);
        return nullptr;
    }
    if (lock->fd == -2) {
        *existed = true;
        lock->fd = -1;
    }
    return lock;
}

void os_instance_lock_destroy(os_instance_lock_t *lock) {
    if (!lock) {
        return;
    }
    if (lock->fd >= 0) {
        // Removed while still locked, so that no other process can lock the old file after this one.
        unlink(lock->path.ptr);
        close(lock->fd);
    }
    str_kill(&lock->path);
    mem_free(lock);
}

// ---- hand-over, sending side ---------------------------------------------------------------------------

struct os_main_peer_t {
    int fd;
};

os_main_peer_t *os_main_peer_find(const char *class_name, const char *file_name) {
    (void) class_name;
    sockaddr_un addr;
    str_t path;
    str_init(&path);
    bool ok = _mainloop_socket_address(file_name, &addr, &path);
    str_kill(&path);
    if (!ok) {
        return nullptr;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return nullptr;
    }
    if (connect(fd, (sockaddr *) &addr, sizeof(addr)) != 0) {
        close(fd);
        return nullptr;
    }
    os_main_peer_t *peer = (os_main_peer_t *) mem_alloc(sizeof(os_main_peer_t));
    peer->fd = fd;
    return peer;
}

bool os_main_peer_send(os_main_peer_t *peer, const void *block, uint32_t size, uint32_t timeout_ms) {
    const char *p = (const char *) block;
    uint32_t done = 0;
    while (done < size) {
        ssize_t n = send(peer->fd, p + done, size - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += (uint32_t) n;
    }
    shutdown(peer->fd, SHUT_WR);
    pollfd fd = {peer->fd, POLLIN, 0};
    int r;
    while ((r = poll(&fd, 1, (int) timeout_ms)) < 0 && errno == EINTR) {
    }
    char answer = 0;
    return r == 1 && read(peer->fd, &answer, 1) == 1 && answer == 1;
}

void os_main_peer_close(os_main_peer_t *peer) {
    if (!peer) {
        return;
    }
    close(peer->fd);
    mem_free(peer);
}

uint32_t os_main_ole_init() {
    return 0;
}
void os_main_ole_kill() {}

// ---- child processes -----------------------------------------------------------------------------------

struct os_process_t {
    pid_t pid;
    bool ended;
    int exit_code;
};

os_process_t *os_process_start(const char *exe, const char *const *args, int count) {
    char **argv = (char **) mem_alloc(sizeof(char *) * (size_t) (count + 2));
    argv[0] = (char *) exe;
    for (int i = 0; i < count; i++) {
        argv[i + 1] = (char *) args[i];
    }
    argv[count + 1] = nullptr;
    pid_t pid;
    int r = posix_spawn(&pid, exe, nullptr, nullptr, argv, environ);
    mem_free(argv);
    if (r != 0) {
        return nullptr;
    }
    os_process_t *p = (os_process_t *) mem_alloc(sizeof(os_process_t));
    p->pid = pid;
    p->ended = false;
    p->exit_code = -1;
    return p;
}

bool os_process_wait(os_process_t *p, uint32_t timeout_ms, int *exit_code) {
    uint32_t start = os_tick_ms();
    while (!p->ended) {
        int status = 0;
        pid_t r = waitpid(p->pid, &status, WNOHANG);
        if (r == p->pid) {
            p->ended = true;
            p->exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
        if (r < 0 || os_tick_ms() - start >= timeout_ms) {
            return false;
        }
        os_sleep_ms(10);
    }
    *exit_code = p->exit_code;
    return true;
}

bool os_process_request_end(os_process_t *p) {
    return !p->ended && kill(p->pid, SIGTERM) == 0;
}

void os_process_destroy(os_process_t *p) {
    if (!p) {
        return;
    }
    if (!p->ended) {
        kill(p->pid, SIGKILL);
        int status;
        waitpid(p->pid, &status, 0);
    }
    mem_free(p);
}
