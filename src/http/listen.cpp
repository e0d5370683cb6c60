// The HTTP server on the socket layer: the protocol table, each connection's sink (send queue, a
// download's reader thread, log), the timer that cuts off requests that never end, and starting and stopping
// by the settings.
#include <cstring>

#include "config/config.h"
#include "config/config_vars.h"
#include "http/http.h"
#include "main/main.h"
#include "net/net.h"
#include "os/os_main.h"

// Queued bytes above which a connection stops producing until the peer has taken some: a table or a
// file goes out in steps of this size, whatever its length.
#define HTTP_SEND_QUEUE_CAP (256u * 1024u)
#define HTTP_FILE_BLOCK     65536u

static net_server_t *_net;
static http_server_t *_http;
static os_main_timer_t *_timer;

// A download's reader thread and what it shares with the main thread under lock: one buffer that the
// reader fills while it is empty, and the main thread empties into the send queue. The reader reads no
// more than the answer's length; end_state tells the main thread how it stopped.
struct _reader_t {
    os_file_t file;
    char *buffer;
    uint32_t bytes; // bytes in buffer; 0 while the reader may fill it
    uint64_t left;  // bytes of the answer not yet read
    int end_state;  // 0 running, 1 all read, 2 read error
    bool stop;
    os_lock_t lock;
    os_event_t *event;
    os_raw_thread_t *thread;
    os_net_window_t *window;
    os_socket_t socket; // the connection the reader's posts name
};

// What the socket layer keeps for each connection.
struct _conn_t {
    net_conn_t *net;
    http_connection_t *http;
    _reader_t *reader; // a download in progress, or null
};

static void _sink_send(void *context, const char *bytes, size_t n) {
    _conn_t *k = (_conn_t *) context;
    while (n > 0) {
        uint32_t part = n > HTTP_FILE_BLOCK ? HTTP_FILE_BLOCK : (uint32_t) n;
        net_send(k->net, bytes, part);
        bytes += part;
        n -= part;
    }
}

static void _reader_proc(void *arg) {
    _reader_t *r = (_reader_t *) arg;
    for (;;) {
        os_event_wait(r->event, OS_INFINITE);
        os_event_reset(r->event);
        os_lock_enter(&r->lock);
        bool stop = r->stop;
        bool want = r->bytes == 0 && r->end_state == 0;
        uint64_t left = r->left;
        os_lock_leave(&r->lock);
        if (stop) {
            return;
        }
        if (!want) {
            continue;
        }
        int64_t got = left == 0 ? 0
                                : os_file_read(r->file, r->buffer,
                                               left < HTTP_FILE_BLOCK ? (size_t) left : HTTP_FILE_BLOCK);
        os_lock_enter(&r->lock);
        if (got < 0 || (got == 0 && left > 0)) {
            r->end_state = 2; // an error, or a file that became shorter than its head said
        } else if (got == 0) {
            r->end_state = 1;
        } else {
            r->bytes = (uint32_t) got;
            r->left -= (uint64_t) got;
        }
        os_lock_leave(&r->lock);
        os_net_post(r->window, NET_MSG_DATA, r->socket);
    }
}

static void _file_done(_conn_t *k) {
    _reader_t *r = k->reader;
    if (!r) {
        return;
    }
    k->reader = nullptr;
    if (r->thread) {
        os_lock_enter(&r->lock);
        r->stop = true;
        os_lock_leave(&r->lock);
        os_event_set(r->event);
        os_raw_thread_join(r->thread);
    }
    os_event_destroy(r->event);
    os_lock_kill(&r->lock);
    os_file_close(r->file);
    mem_free(r->buffer);
    mem_free(r);
}

// The main thread's half: takes what the reader read into the send queue, and asks for more while the
// queue has room. The peer's pace sets the reading's. A read that fails cuts the answer short: the peer
// sees fewer bytes than Content-Length said.
static void _file_more(_conn_t *k) {
    _reader_t *r = k->reader;
    if (!r) {
        return;
    }
    os_lock_enter(&r->lock);
    uint32_t bytes = r->bytes;
    int end_state = r->end_state;
    os_lock_leave(&r->lock);
    if (bytes > 0) {
        net_send(k->net, r->buffer, bytes);
        os_lock_enter(&r->lock);
        r->bytes = 0;
        os_lock_leave(&r->lock);
    }
    if (end_state != 0) {
        if (end_state == 2) {
            net_log(k->net->server, k->net, "read error\r\n");
        }
        _file_done(k);
        net_conn_quit(k->net);
    } else if (net_send_room(k->net)) {
        os_event_set(r->event);
    }
}

static void _sink_send_file(void *context, os_file_t f, uint64_t start, uint64_t size) {
    _conn_t *k = (_conn_t *) context;
    _reader_t *r = (_reader_t *) mem_alloc(sizeof *r);
    memset(r, 0, sizeof *r);
    r->file = f;
    r->buffer = (char *) mem_alloc(HTTP_FILE_BLOCK);
    r->left = size;
    r->window = k->net->server->window;
    r->socket = k->net->socket;
    os_lock_init(&r->lock);
    r->event = os_event_create(false);
    k->reader = r;
    if (start && !os_file_seek(f, start)) {
        r->end_state = 2;
    } else {
        r->thread = os_raw_thread_start(_reader_proc, r);
        if (!r->thread) {
            r->end_state = 2;
        }
    }
    if (r->end_state) {
        _file_more(k);
    } else {
        os_event_set(r->event);
    }
}

static bool _sink_room(void *context) {
    return net_send_room(((_conn_t *) context)->net);
}

static void _sink_end(void *context) {
    net_conn_quit(((_conn_t *) context)->net);
}

static void _sink_log(void *context, const char *text) {
    _conn_t *k = (_conn_t *) context;
    net_log(k->net->server, k->net, "%s", text);
}

static void _server_log(void *context, const char *text) {
    if (_net) {
        net_log(_net, nullptr, "%s", text);
    }
}

static void _proto_open(net_conn_t *c) {
    _conn_t *k = (_conn_t *) mem_alloc(sizeof *k);
    memset(k, 0, sizeof *k);
    k->net = c;
    c->session = k;
    http_sink_t sink = {k, _sink_send, _sink_send_file, _sink_room, _sink_end, _sink_log};
    k->http = http_connection_open(_http, &sink, os_tick_ms());
}

static void _proto_line(net_conn_t *c, char *line, uint32_t len) {
    _conn_t *k = (_conn_t *) c->session;
    // The layer took the LF; the request's own line rules see it again.
    line[len] = '\n';
    http_connection_receive(k->http, line, len + 1);
    line[len] = 0;
}

static void _proto_writable(net_conn_t *c) {
    _conn_t *k = (_conn_t *) c->session;
    if (k->reader) {
        _file_more(k);
    } else {
        http_connection_writable(k->http);
    }
}

static void _proto_close(net_conn_t *c) {
    _conn_t *k = (_conn_t *) c->session;
    if (!k) {
        return;
    }
    _file_done(k);
    http_connection_close(k->http);
    mem_free(k);
    c->session = nullptr;
}

// The reader thread's post: its buffer is full or it has stopped.
static void _proto_message(net_server_t *server, uint32_t message, os_socket_t s, uint32_t, int) {
    net_conn_t *c = message == NET_MSG_DATA ? net_conn_find(server, s) : nullptr;
    if (c && c->session && !c->ending) {
        _file_more((_conn_t *) c->session);
    }
}

static const net_proto_t _proto = {
    "HTTP",
    "SABLEWATCH_HTTP_SERVER",
    "HTTP_Server_Log",
    false,
    HTTP_MAX_REQUEST_LINE + 1, // the CR before the LF
    4096,
    HTTP_SEND_QUEUE_CAP,
    120000,
    "HTTP/1.0 503 Service Unavailable\r\nContent-Type: text/html; charset=UTF-8\r\n\r\n503 Service "
    "Unavailable",
    "HTTP/1.0 414 Request-URI Too Long\r\nContent-Type: text/html; charset=UTF-8\r\n\r\n414 Request-URI Too "
    "Long",
    "HTTP/1.0 408 Request Timeout\r\nContent-Type: text/html; charset=UTF-8\r\n\r\n408 Request Timeout",
    &http_server_logging_enabled,
    &http_server_log_file_name,
    &http_server_log_max_size,
    &http_server_log_delta_size,
    _proto_open,
    _proto_line,
    _proto_writable,
    _proto_close,
    _proto_message,
};

// Cuts off requests that haven't ended in time, however slowly their bytes keep coming.
static void _timer_proc(void *) {
    if (!_net) {
        return;
    }
    // A flood of connections can fill the window's message queue, and a notice that a connection waits
    // is then lost for good (it comes again only after the next accept). Asking once a second costs a
    // failed accept and keeps the server reachable.
    os_net_post(_net->window, NET_MSG_ACCEPT, OS_SOCKET_NONE);
    uint32_t now = os_tick_ms();
    for (net_conn_t *c = _net->connections_head; c; c = c->next) {
        _conn_t *k = (_conn_t *) c->session;
        if (k && !c->ending) {
            http_connection_tick(k->http, now);
        }
    }
}

static void _stop() {
    if (!_net) {
        return;
    }
    os_main_timer_stop(_timer);
    _timer = nullptr;
    net_server_stop(_net);
    _net = nullptr;
    http_server_destroy(_http);
    _http = nullptr;
}

bool http_server_apply_settings(void *parent_window) {
    if (!http_server_enabled || !allow_http_server) {
        _stop();
        return false;
    }
    if (_net && _net->port == http_server_port && strcmp(_net->bindings, http_server_bindings) == 0) {
        return true;
    }
    _stop();
    if (!db) {
        main_db_load();
    }
    http_settings_t settings;
    http_settings_from_config(&settings);
    str_t strings;
    str_init(&strings);
    if (*http_server_strings) {
        config_resolve_path(http_server_strings, &strings);
    }
    _http = http_server_create(db, &settings, strings.ptr);
    str_kill(&strings);
    _http->log = _server_log;
    _net = net_server_start(&_proto, parent_window, http_server_port, http_server_bindings);
    if (!_net) {
        http_server_destroy(_http);
        _http = nullptr;
        return false;
    }
    _timer = os_main_timer_start(1000, true, _timer_proc, nullptr);
    return true;
}

void http_server_shutdown() {
    _stop();
}

net_server_t *http_server_net() {
    return _net;
}
