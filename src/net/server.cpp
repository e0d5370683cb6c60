// A server's life: start and bindings, the window's events (accept, control connections), the idle
// time-out and the stop.
#include <cstring>

#include "debug/debug.h"
#include "mem/mem.h"
#include "net/net.h"
#include "net/net_internal.h"
#include "os/os.h"
#include "os/os_main.h"

void (*net_show_error)(void *parent, const char *text) = os_net_show_error;

// One event reads at most this many times, so that a peer that sends without pause can't hold the main
// thread; the rest comes with the next event, as the socket stays readable.
#define NET_READS_PER_EVENT 8
// Connections accepted per event, for the same reason.
#define NET_ACCEPTS_PER_EVENT 64

static const uint32_t control_events = OS_NET_READ | OS_NET_WRITE | OS_NET_CLOSE;

net_conn_t *net_conn_find(net_server_t *server, os_socket_t s) {
    for (net_conn_t *c = server->connections_head; c; c = c->next) {
        if (c->socket == s) {
            return c;
        }
    }
    return nullptr;
}

static void _net_conn_free(net_conn_t *c) {
    net_server_t *server = c->server;
    if (server->proto->close) {
        c->busy++;
        server->proto->close(c);
        c->busy--;
    }
    if (c->prev) {
        c->prev->next = c->next;
    } else {
        server->connections_head = c->next;
    }
    if (c->next) {
        c->next->prev = c->prev;
    } else {
        server->connections_tail = c->prev;
    }
    server->connection_count--;
    os_net_close(c->socket);
    net_conn_free_buffers(c);
    mem_free(c);
}

void net_conn_end(net_conn_t *c) {
    if (c->busy) {
        c->ending = true;
        return;
    }
    _net_conn_free(c);
}

// The end of a handler: frees the connection if it was ended meanwhile.
static void _net_conn_leave(net_conn_t *c) {
    c->busy--;
    if (c->busy == 0 && c->ending) {
        _net_conn_free(c);
    }
}

void net_conn_quit(net_conn_t *c) {
    c->quit = true;
    if (c->server->window && c->socket != OS_SOCKET_NONE) {
        os_net_post(c->server->window, NET_MSG_CONTROL, c->socket);
    }
}

void _net_conn_update_reading(net_conn_t *c) {
    bool paused = c->protocol_pause || !net_send_room(c);
    if (paused == c->reading_paused) {
        return;
    }
    c->reading_paused = paused;
    if (c->server->window && c->socket != OS_SOCKET_NONE) {
        os_net_select(c->server->window, c->socket, NET_MSG_CONTROL,
                      paused ? (OS_NET_WRITE | OS_NET_CLOSE) : control_events);
        if (!paused) {
            // Lines that were left in the chain when reading paused are handed out by the next event.
            os_net_post(c->server->window, NET_MSG_CONTROL, c->socket);
        }
    }
}

void net_conn_pause_reading(net_conn_t *c, bool pause) {
    c->protocol_pause = pause;
    _net_conn_update_reading(c);
}

// Reading, then sending, for a control connection's event (or the kick of its queue, event 0). False
// when the connection must end.
static bool _net_conn_serve(net_conn_t *c, uint32_t event, int error) {
    if ((event & OS_NET_CLOSE) && error) {
        net_log(c->server, c, "connection error %d\r\n", error);
        return false;
    }
    if (!c->reading_paused && c->pending && !_net_conn_resume_pending(c)) {
        return !c->ending && _net_conn_flush(c);
    }
    for (int i = 0; i < NET_READS_PER_EVENT && !c->reading_paused && !c->ending; i++) {
        int64_t r = _net_conn_receive(c, &error);
        if (r == OS_NET_WOULD_BLOCK) {
            break;
        }
        if (r == 0) {
            // The peer's end of stream, or a handler that ended or quit: what is queued still goes out
            // when quitting.
            if (c->quit && !c->ending) {
                break;
            }
            return false;
        }
        if (r < 0) {
            net_log(c->server, c, "recv failed %d\r\n", error);
            return false;
        }
        c->last_activity_ms = os_tick_ms();
    }
    if (c->ending) {
        return false;
    }
    if (!_net_conn_flush(c)) {
        return false;
    }
    // A peer that closed is gone, also one whose reading was paused.
    return !(event & OS_NET_CLOSE);
}

static void _net_accept_one(net_server_t *server, os_socket_t s, const os_net_addr_t *peer) {
    const net_proto_t *proto = server->proto;
    if (server->connection_count >= proto->max_connections) {
        str_t addr;
        str_init(&addr);
        os_net_addr_text(peer, &addr);
        net_log(server, nullptr, "%u: %s: Too many connections (%u), refused.\r\n", (unsigned) s, addr.ptr,
                proto->max_connections);
        str_kill(&addr);
        int error;
        os_net_send(s, proto->too_many_text, (uint32_t) strlen(proto->too_many_text), &error);
        os_net_close(s);
        return;
    }
    os_net_set_reuse(s);
    // The send queue already gathers what is ready into few writes; the rest must not wait for the
    // client's delayed acknowledgement.
    os_net_set_nodelay(s);
    net_conn_t *c = (net_conn_t *) mem_alloc(sizeof(net_conn_t));
    memset(c, 0, sizeof(*c));
    c->server = server;
    c->socket = s;
    c->peer = *peer;
    c->last_activity_ms = os_tick_ms();
    c->prev = server->connections_tail;
    if (server->connections_tail) {
        server->connections_tail->next = c;
    } else {
        server->connections_head = c;
    }
    server->connections_tail = c;
    server->connection_count++;
    int r = os_net_select(server->window, s, NET_MSG_CONTROL, control_events);
    if (r != 0) {
        net_log(server, c, "select failed %d\r\n", r);
        net_conn_end(c);
        return;
    }
    c->busy++;
    proto->open(c);
    _net_conn_leave(c);
}

// The message doesn't say which listener is ready, so every one is tried.
static void _net_accept(net_server_t *server) {
    for (net_listen_t *l = server->listen_sockets; l; l = l->next) {
        for (int i = 0; i < NET_ACCEPTS_PER_EVENT; i++) {
            os_net_addr_t peer;
            int error;
            os_socket_t s = os_net_accept(l->socket, &peer, &error);
            if (s == OS_SOCKET_NONE) {
                if (error) {
                    net_log(server, nullptr, "accept failed %d\r\n", error);
                }
                break;
            }
            _net_accept_one(server, s, &peer);
        }
    }
}

static void _net_window_proc(void *context, uint32_t message, os_socket_t s, uint32_t event, int error) {
    net_server_t *server = (net_server_t *) context;
    if (message == NET_MSG_ACCEPT) {
        _net_accept(server);
        return;
    }
    if (message != NET_MSG_CONTROL) {
        if (server->proto->message) {
            server->proto->message(server, message, s, event, error);
        }
        return;
    }
    net_conn_t *c = net_conn_find(server, s);
    if (!c) {
        return;
    }
    c->busy++;
    if (!_net_conn_serve(c, event, error)) {
        c->ending = true;
    }
    _net_conn_leave(c);
}

// Ends connections that neither sent nor took anything for the protocol's idle time. It also makes up for
// a notice the system dropped (a full message queue drops posts, the accept notice and kicks included):
// waiting connections are accepted and queues with bytes are flushed, so nothing waits for ever.
static void _net_idle_tick(void *context) {
    net_server_t *server = (net_server_t *) context;
    _net_accept(server);
    uint32_t now = os_tick_ms();
    net_conn_t *next;
    for (net_conn_t *c = server->connections_head; c; c = next) {
        next = c->next;
        if (!c->busy && c->send_head && now - c->last_activity_ms >= 1000) {
            _net_window_proc(server, NET_MSG_CONTROL, c->socket, 0, 0);
            continue;
        }
        if (c->busy || !server->proto->idle_ms || now - c->last_activity_ms < server->proto->idle_ms) {
            continue;
        }
        net_log(server, c, "Idle for %u ms, disconnected.\r\n", server->proto->idle_ms);
        int error;
        os_net_send(c->socket, server->proto->idle_text, (uint32_t) strlen(server->proto->idle_text), &error);
        net_conn_end(c);
    }
}

// ---- start and stop ------------------------------------------------------------------------------------

bool net_server_bind(net_server_t *server, str_t *error_text, const char *address) {
    char port[16];
    text_format_args(port, "%d", (int) server->port);
    os_net_resolved_t found[16];
    int skipped, error;
    int n = os_net_resolve(address, port, true, found, 16, &skipped, &error);
    if (n < 0) {
        str_printf(error_text, "getaddrinfo failed %d", error);
        return false;
    }
    if (n == 0) {
        return false;
    }
    for (int i = 0; i < n; i++) {
        net_log(server, nullptr, "bind to family %d, protocol %d, socktype %d\n", found[i].family,
                found[i].protocol, found[i].socktype);
        os_socket_t s = os_net_socket(found[i].family, &error);
        if (s == OS_SOCKET_NONE) {
            str_printf(error_text, "socket failed %d", error);
            return false;
        }
        if ((error = os_net_bind(s, &found[i].addr)) != 0) {
            str_printf(error_text, "bind failed %d", error);
            net_log(server, nullptr, "bind failed %d\n", error);
            os_net_close(s);
            return false;
        }
        if ((error = os_net_listen(s, 0x7FFFFFFF)) != 0) {
            str_printf(error_text, "listen failed %d", error);
            os_net_close(s);
            return false;
        }
        net_listen_t *l = (net_listen_t *) mem_alloc(sizeof(net_listen_t));
        l->socket = s;
        l->next = nullptr;
        net_listen_t **tail = &server->listen_sockets;
        while (*tail) {
            tail = &(*tail)->next;
        }
        *tail = l;
        os_net_select(server->window, s, NET_MSG_ACCEPT, OS_NET_ACCEPT | OS_NET_CLOSE);
    }
    return true;
}

int net_bindings_each(const char *bindings, void (*add)(void *context, const char *address), void *context) {
    int count = 0;
    const char *p = bindings ? bindings : "";
    str_t one;
    str_init(&one);
    while (*p) {
        const char *semi = strchr(p, ';');
        int len = semi ? (int) (semi - p) : (int) strlen(p);
        if (len > 0) {
            str_set_n(&one, p, len);
            add(context, one.ptr);
            count++;
        }
        p += len + (semi ? 1 : 0);
    }
    str_kill(&one);
    return count;
}

struct net_bind_walk_t {
    net_server_t *server;
    str_t *error_text;
    bool failed;
};

static void _net_bind_each(void *context, const char *address) {
    net_bind_walk_t *w = (net_bind_walk_t *) context;
    if (!w->failed && !net_server_bind(w->server, w->error_text, address)) {
        w->failed = true;
    }
}

static void _net_server_free(net_server_t *server) {
    while (server->listen_sockets) {
        net_listen_t *l = server->listen_sockets;
        server->listen_sockets = l->next;
        os_net_close(l->socket);
        mem_free(l);
    }
    while (server->connections_head) {
        net_conn_t *c = server->connections_head;
        c->busy = 0;
        _net_conn_free(c);
    }
    if (server->idle_timer) {
        os_main_timer_stop(server->idle_timer);
    }
    if (server->window) {
        os_net_window_destroy(server->window);
    }
    mem_free(server->bindings);
    mem_free(server);
}

net_server_t *net_server_start(const net_proto_t *proto, void *parent, int32_t port, const char *bindings) {
    net_server_t *server = (net_server_t *) mem_alloc(sizeof(net_server_t));
    memset(server, 0, sizeof(*server));
    server->proto = proto;
    server->port = port;
    server->bindings = mem_dup(bindings ? bindings : "", strlen(bindings ? bindings : ""));
    str_t error_text;
    str_init(&error_text);
    int low, high, error;
    int r = os_net_startup(&low, &high);
    bool started = r == 0;
    if (!started) {
        str_printf(&error_text, "WSAStartup failed %d", r);
    } else if (!(server->window =
                     os_net_window_create(proto->window_class, _net_window_proc, server, &error))) {
        str_printf(&error_text, "CreateWindow failed %d", error);
    } else if (low != 1 && high != 1) {
        str_printf(&error_text, "Unsupported WSADATA %d %d", low, high);
    } else if (server->bindings[0] == 0) {
        net_server_bind(server, &error_text, nullptr);
    } else {
        net_bind_walk_t walk = {server, &error_text, false};
        net_bindings_each(server->bindings, _net_bind_each, &walk);
    }
    if (server->listen_sockets) {
        if (error_text.len > 0 && proto->log_start_errors) {
            net_log(server, nullptr, "%s server started, but with errors: %s\n", proto->name, error_text.ptr);
        }
        net_log(server, nullptr, "%s server online.\r\n", proto->name);
        uint32_t period = proto->idle_ms ? proto->idle_ms / 4 : 1000;
        period = period < 50 ? 50 : period > 1000 ? 1000 : period;
        server->idle_timer = os_main_timer_start(period, true, _net_idle_tick, server);
        str_kill(&error_text);
        return server;
    }
    _net_server_free(server);
    if (started) {
        os_net_cleanup();
    }
    str_t box;
    str_init(&box);
    str_printf(&box, "Unable to start %s server: %s", proto->name, error_text.ptr ? error_text.ptr : "");
    net_show_error(parent, box.ptr);
    str_kill(&box);
    str_kill(&error_text);
    return nullptr;
}

void net_server_stop(net_server_t *server) {
    if (!server) {
        return;
    }
    const net_proto_t *proto = server->proto;
    // The log's settings live in the table, so the last line can be written after the record is gone.
    net_server_t last = {};
    last.proto = proto;
    _net_server_free(server);
    net_log(&last, nullptr, "%s server offline.\r\n", proto->name);
    os_net_cleanup();
}
