// Data connections (PORT, EPRT, PASV, EPSV), listings of the indexed tree, and file downloads with a
// reader thread per transfer.
#include <cstring>

#include "config/config.h"
#include "db/db.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "net/net.h"
#include "os/os.h"
#include "stp/stp_internal.h"

#define STP_FILE_BUFFER 65536u

// What one transfer holds: a listing's text, or a file with its reader. The reader and the main thread
// share bytes, offset, stop and end_state under lock.
struct stp_transfer_t {
    str_t listing;
    uint64_t listing_sent;

    os_file_t file;
    char *buffer;
    uint32_t offset, bytes;
    os_raw_thread_t *reader;
    os_event_t *event;
    os_lock_t lock;
    bool stop;
    int end_state; // 0 running, 1 end of file, 2 read error
    os_net_window_t *window;
    os_socket_t socket; // the data socket the reader's posts name
};

static void _stp_text(stp_session_t *s, const char *text) {
    _stp_send(s, text, (uint32_t) strlen(text));
}

static stp_transfer_t *_stp_xfer(stp_session_t *s) {
    if (!s->xfer) {
        s->xfer = (stp_transfer_t *) mem_alloc(sizeof(stp_transfer_t));
        memset(s->xfer, 0, sizeof(stp_transfer_t));
        str_init(&s->xfer->listing);
        s->xfer->file = OS_FILE_INVALID;
        s->xfer->socket = OS_SOCKET_NONE;
    }
    return s->xfer;
}

void stp_data_close(stp_session_t *s) {
    // The reader stops first: it posts with the data socket's value, which must not outlive the socket.
    stp_transfer_t *x = s->xfer;
    if (x) {
        if (x->reader) {
            os_lock_enter(&x->lock);
            x->stop = true;
            os_lock_leave(&x->lock);
            os_event_set(x->event);
            os_raw_thread_join(x->reader);
        }
        if (x->event) {
            os_event_destroy(x->event);
            os_lock_kill(&x->lock);
        }
        if (x->file != OS_FILE_INVALID) {
            os_file_close(x->file);
        }
        mem_free(x->buffer);
        str_kill(&x->listing);
        mem_free(x);
        s->xfer = nullptr;
    }
    os_net_close(s->data_socket);
    s->data_socket = OS_SOCKET_NONE;
    if (s->data_mode == STP_DATA_PASSIVE) {
        os_net_close(s->passive_listener);
    }
    s->passive_listener = OS_SOCKET_NONE;
    s->transfer = STP_TRANSFER_NONE;
    s->data_mode = STP_DATA_NONE;
    s->data_connected = false;
    s->transfer_done = false;
}

// ---- modes ---------------------------------------------------------------------------------------------

// Parses a decimal field up to a delimiter; false when it isn't one or exceeds max.
static bool _stp_number(const char **p, char delimiter, uint32_t max, uint32_t *out) {
    uint32_t v = 0;
    const char *q = *p;
    if (*q < '0' || *q > '9') {
        return false;
    }
    while (*q >= '0' && *q <= '9') {
        v = v * 10 + (uint32_t) (*q++ - '0');
        if (v > max) {
            return false;
        }
    }
    if (*q != delimiter) {
        return false;
    }
    *p = *q ? q + 1 : q;
    *out = v;
    return true;
}

static bool _stp_address_allowed(stp_session_t *s, const os_net_addr_t *a) {
    return !ftp_check_data_connection_ip || os_net_addr_same_host(a, &s->conn->peer);
}

void stp_port(stp_session_t *s, const char *arg) {
    if (!ftp_allow_port) {
        _stp_text(s, "501 Invalid option.\r\n");
        return;
    }
    uint32_t v[6];
    const char *p = arg;
    for (int i = 0; i < 6; i++) {
        if (!_stp_number(&p, i < 5 ? ',' : 0, 255, &v[i])) {
            _stp_text(s, "501 Syntax error in parameters or arguments.\r\n");
            return;
        }
    }
    stp_data_close(s);
    char text[32];
    text_format_args(text, "%u.%u.%u.%u", v[0], v[1], v[2], v[3]);
    os_net_addr_t a;
    os_net_addr_parse(text, OS_NET_INET, (uint16_t) (v[4] * 256 + v[5]), &a);
    if (!_stp_address_allowed(s, &a)) {
        _stp_text(s, "500 Failed to connect to IP.\r\n");
        return;
    }
    s->port_address = a;
    s->data_mode = STP_DATA_PORT;
    _stp_text(s, "200 Port command successful.\r\n");
}

void stp_eprt(stp_session_t *s, const char *arg) {
    if (!ftp_allow_port) {
        _stp_text(s, "501 Invalid option.\r\n");
        return;
    }
    // |proto|address|port| with any delimiter the client chose.
    char d = arg[0];
    const char *p = d ? arg + 1 : arg;
    uint32_t proto = 0, port = 0;
    const char *addr = nullptr, *addr_end = nullptr;
    bool ok = d && _stp_number(&p, d, 9, &proto);
    if (ok && proto != 1 && proto != 2) {
        _stp_text(s, "522 Extended Port Failure - unknown network protocol. Supported protocols: (1,2)\r\n");
        return;
    }
    if (ok) {
        addr = p;
        addr_end = strchr(p, d);
        ok = addr_end && addr_end - addr < 64;
    }
    if (ok) {
        p = addr_end + 1;
        ok = _stp_number(&p, d, 65535, &port);
    }
    os_net_addr_t a;
    if (ok) {
        char text[64];
        memcpy(text, addr, (size_t) (addr_end - addr));
        text[addr_end - addr] = 0;
        ok = os_net_addr_parse(text, proto == 1 ? OS_NET_INET : OS_NET_INET6, (uint16_t) port, &a);
    }
    if (!ok) {
        _stp_text(s, "501 Syntax error in parameters or arguments.\r\n");
        return;
    }
    stp_data_close(s);
    if (!_stp_address_allowed(s, &a)) {
        _stp_text(s, "500 Failed to connect to IP.\r\n");
        return;
    }
    s->port_address = a;
    s->data_mode = STP_DATA_EPRT;
    _stp_text(s, "200 Port command successful.\r\n");
}

// A passive listener of the family on an ephemeral port, selected for the passive message. Fills the
// port; returns the failing step (1 socket, 2 bind, 3 listen, 4 getsockname, 5 family) with its error.
static int _stp_passive_listen(stp_session_t *s, int family, uint16_t *port, int *error) {
    os_socket_t l = os_net_socket(family, error);
    if (l == OS_SOCKET_NONE) {
        return 1;
    }
    s->passive_listener = l;
    s->data_mode = STP_DATA_PASSIVE;
    os_net_set_reuse(l);
    os_net_addr_t any;
    os_net_addr_parse(family == OS_NET_INET6 ? "::" : "0.0.0.0", family, 0, &any);
    if ((*error = os_net_bind(l, &any)) != 0) {
        return 2;
    }
    if ((*error = os_net_listen(l, 1)) != 0) {
        return 3;
    }
    if (s->conn->server->window) {
        os_net_select(s->conn->server->window, l, NET_MSG_PASSIVE, OS_NET_ACCEPT | OS_NET_CLOSE);
    }
    os_net_addr_t local;
    if ((*error = os_net_local_address(l, &local)) != 0) {
        return 4;
    }
    *port = os_net_addr_port(&local);
    *error = os_net_addr_family(&local);
    if (*port == 0 || *error != family) {
        return 5;
    }
    return 0;
}

void stp_pasv(stp_session_t *s, const char *arg) {
    if (s->ipv6) {
        _stp_text(s, "500 PASV is not available when using IPv6, please use IPv4 or EPSV.\r\n");
        return;
    }
    stp_data_close(s);
    uint16_t port = 0;
    int error = 0;
    static const char *const failures[] = {"",
                                           "500 Failed to enter passive mode, socket error %d.\r\n",
                                           "500 Failed to enter passive mode, bind error %d\r\n",
                                           "500 Failed to enter passive mode, listen error %d\r\n",
                                           "500 Failed to enter passive mode, pasv getsockname error %d\r\n",
                                           "500 Failed to enter passive mode, invalid pasv family %d\r\n"};
    int step = _stp_passive_listen(s, OS_NET_INET, &port, &error);
    os_net_addr_t control;
    uint8_t ip[4];
    if (step == 0) {
        if ((error = os_net_local_address(s->conn->socket, &control)) != 0) {
            stp_data_close(s);
            _stp_sendf(s, "500 Failed to enter passive mode, control getsockname error %d\r\n", error);
            return;
        }
        if (!os_net_addr_ipv4(&control, ip)) {
            stp_data_close(s);
            _stp_sendf(s, "500 Failed to enter passive mode, invalid control family %d\r\n",
                       os_net_addr_family(&control));
            return;
        }
        _stp_sendf(s, "227 Entering Passive Mode. (%d,%d,%d,%d,%d,%d)\r\n", ip[0], ip[1], ip[2], ip[3],
                   port >> 8, port & 255);
        return;
    }
    stp_data_close(s);
    _stp_sendf(s, failures[step], error);
}

void stp_epsv(stp_session_t *s, const char *arg) {
    stp_data_close(s);
    uint16_t port = 0;
    int error = 0;
    static const char *const failures[] = {"",
                                           "500 Failed to enter passive mode, socket failed %d\r\n",
                                           "500 Failed to enter passive mode, bind failed %d\r\n",
                                           "500 Failed to enter passive mode, socket listen %d\r\n",
                                           "500 Failed to enter passive mode, getsockname failed %d\r\n",
                                           "500 Failed to enter passive mode, invalid family %d\r\n"};
    int step = _stp_passive_listen(s, s->ipv6 ? OS_NET_INET6 : OS_NET_INET, &port, &error);
    if (step == 0) {
        _stp_sendf(s, "229 Entering Extended Passive Mode (|||%d|)\r\n", port);
        return;
    }
    stp_data_close(s);
    _stp_sendf(s, failures[step], error);
}

// ---- transfers -----------------------------------------------------------------------------------------

// The data socket is usable: the transfer's data starts to flow.
static void _stp_transfer_go(stp_session_t *s) {
    s->data_connected = true;
    _stp_text(s, "150 Data connection accepted; transfer starting.\r\n");
    stp_transfer_t *x = s->xfer;
    if (s->transfer == STP_TRANSFER_RETR) {
        x->socket = s->data_socket;
        os_event_set(x->event);
    } else if (s->conn->server->window) {
        os_net_post(s->conn->server->window, NET_MSG_DATA, s->data_socket);
    }
}

// Begins the transfer of the accepted command, its data already prepared in s->xfer.
static void _stp_transfer_begin(stp_session_t *s, int kind) {
    if (s->data_socket != OS_SOCKET_NONE) {
        s->transfer = kind;
        _stp_transfer_go(s);
        return;
    }
    if (s->data_mode == STP_DATA_PASSIVE) {
        s->transfer = kind;
        return;
    }
    if (s->data_mode != STP_DATA_PORT && s->data_mode != STP_DATA_EPRT) {
        stp_data_close(s);
        _stp_text(s, "503 Invalid sequence of commands.\r\n");
        return;
    }
    int error;
    os_socket_t d = os_net_socket(os_net_addr_family(&s->port_address), &error);
    if (d == OS_SOCKET_NONE) {
        stp_data_close(s);
        _stp_sendf(s, "500 Failed to create port socket %d.\r\n", error);
        return;
    }
    os_net_set_reuse(d);
    if (s->conn->server->window) {
        os_net_select(s->conn->server->window, d, NET_MSG_DATA,
                      OS_NET_READ | OS_NET_WRITE | OS_NET_CLOSE | OS_NET_CONNECT);
    }
    s->data_socket = d;
    s->transfer = kind;
    int r = os_net_connect(d, &s->port_address, &error);
    if (r == 0) {
        _stp_transfer_go(s);
    } else if (r == OS_NET_ERROR) {
        stp_data_close(s);
        _stp_sendf(s, "500 Failed to connect to port %d.\r\n", error);
    }
}

// Sends what the transfer has ready. Returns false when it failed (the reply is sent and the state
// closed).
static bool _stp_transfer_pump(stp_session_t *s) {
    stp_transfer_t *x = s->xfer;
    int error = 0;
    if (s->transfer != STP_TRANSFER_RETR) {
        while (x->listing_sent < (uint64_t) x->listing.len) {
            uint64_t left = (uint64_t) x->listing.len - x->listing_sent;
            int64_t r = os_net_send(s->data_socket, x->listing.ptr + x->listing_sent,
                                    (uint32_t) (left < 65528 ? left : 65528), &error);
            if (r == OS_NET_WOULD_BLOCK) {
                return true;
            }
            if (r <= 0) {
                stp_data_close(s);
                if (r == 0) {
                    _stp_text(s, "426 Connection closed; transfer aborted.\r\n");
                } else {
                    _stp_sendf(s, "500 send failed %d.\r\n", error);
                }
                return false;
            }
            x->listing_sent += (uint64_t) r;
        }
        s->transfer_done = true;
        return true;
    }
    os_lock_enter(&x->lock);
    uint32_t offset = x->offset, bytes = x->bytes;
    int end_state = x->end_state;
    os_lock_leave(&x->lock);
    while (offset < bytes) {
        int64_t r = os_net_send(s->data_socket, x->buffer + offset, bytes - offset, &error);
        if (r == OS_NET_WOULD_BLOCK) {
            break;
        }
        if (r <= 0) {
            stp_data_close(s);
            if (r == 0) {
                _stp_text(s, "426 Connection closed; transfer aborted.\r\n");
            } else {
                _stp_sendf(s, "426 send failed %d\r\n", error);
            }
            return false;
        }
        offset += (uint32_t) r;
    }
    os_lock_enter(&x->lock);
    x->offset = offset;
    bool emptied = offset == bytes;
    if (emptied) {
        x->offset = x->bytes = 0;
    }
    os_lock_leave(&x->lock);
    if (!emptied) {
        return true;
    }
    if (end_state == 2) {
        stp_data_close(s);
        _stp_text(s, "451 Transfer aborted: read error.\r\n");
        return false;
    }
    if (end_state == 1) {
        s->transfer_done = true;
    } else {
        os_event_set(x->event);
    }
    return true;
}

static void _stp_transfer_finish(stp_session_t *s) {
    os_net_shutdown_send(s->data_socket);
    stp_data_close(s);
    _stp_text(s, "226 Transfer complete.\r\n");
}

static void _stp_data_event(stp_session_t *s, uint32_t event, int error) {
    if (event & OS_NET_CONNECT) {
        if (error) {
            stp_data_close(s);
            _stp_sendf(s, "426 Unable to connect to port %d\r\n", error);
            return;
        }
        _stp_transfer_go(s);
        return;
    }
    if (!s->data_connected || s->transfer == STP_TRANSFER_NONE) {
        return;
    }
    if (event & OS_NET_READ) {
        // Nothing is expected from the client on a download; what it sends is dropped, so that a close
        // doesn't meet unread data.
        char sink[4096];
        int e;
        while (os_net_recv(s->data_socket, sink, sizeof(sink), false, &e) > 0) {
        }
    }
    if (!_stp_transfer_pump(s)) {
        return;
    }
    if (s->transfer_done) {
        _stp_transfer_finish(s);
    } else if (event & OS_NET_CLOSE) {
        stp_data_close(s);
        _stp_text(s, "426 Connection closed; transfer aborted.\r\n");
    }
}

static void _stp_passive_event(stp_session_t *s) {
    os_net_addr_t peer;
    int error;
    os_socket_t d = os_net_accept(s->passive_listener, &peer, &error);
    if (d == OS_SOCKET_NONE) {
        return;
    }
    if (!_stp_address_allowed(s, &peer)) {
        os_net_close(d);
        stp_data_close(s);
        _stp_text(s, "500 Failed to connect to IP.\r\n");
        return;
    }
    _stp_log(s, "pasv connected.\n");
    os_net_select(s->conn->server->window, d, NET_MSG_DATA, OS_NET_READ | OS_NET_WRITE | OS_NET_CLOSE);
    os_net_close(s->passive_listener);
    s->passive_listener = OS_SOCKET_NONE;
    s->data_socket = d;
    if (s->transfer != STP_TRANSFER_NONE) {
        _stp_transfer_go(s);
    }
}

void stp_session_message(net_server_t *server, uint32_t message, os_socket_t sock, uint32_t event,
                         int error) {
    for (net_conn_t *c = server->connections_head; c; c = c->next) {
        stp_session_t *s = (stp_session_t *) c->session;
        if (!s) {
            continue;
        }
        if (message == NET_MSG_PASSIVE && s->data_mode == STP_DATA_PASSIVE && s->passive_listener == sock &&
            s->data_socket == OS_SOCKET_NONE) {
            _stp_passive_event(s);
            return;
        }
        if (message == NET_MSG_DATA && s->data_socket == sock) {
            _stp_data_event(s, event, error);
            return;
        }
    }
}

// ---- listings ------------------------------------------------------------------------------------------

void stp_list_argument(const char *arg, str_t *out) {
    str_clear(out);
    bool quoted = false;
    for (const char *p = arg; *p; p++) {
        if (*p == '"') {
            quoted = !quoted;
        } else if (*p == '-') {
            // An option (and, as it falls, anything after a '-' in a word) reaches to the next blank.
            while (p[1] && p[1] != ' ' && p[1] != '\t') {
                p++;
            }
        } else if ((*p == ' ' || *p == '\t') && !quoted) {
        } else {
            str_cat_char(out, *p);
        }
    }
}

static const char *const stp_months[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                           "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// A name that would break a line of the listing (possible on Linux) is left out.
static bool _stp_listable(const char *name, uint32_t len) {
    return len > 0 && !memchr(name, '\n', len) && !memchr(name, '\r', len);
}

struct stp_listing_t {
    stp_session_t *s;
    str_t *out;
    bool mlsd;
};

static void _stp_listing_each(void *context, const char *name, uint32_t len, bool folder, uint32_t record) {
    stp_listing_t *l = (stp_listing_t *) context;
    if (!_stp_listable(name, len)) {
        return;
    }
    stp_node_t node = {record ? (folder ? 2 : 3) : 1, record};
    uint64_t size = stp_tree_size(db, &node);
    uint64_t ft = stp_tree_date_modified(db, &node);
    os_systemtime_t t;
    if (l->mlsd) {
        str_cat_printf(l->out, "type=%s;", folder ? "dir" : "file");
        if (ft != DB_UNKNOWN && os_filetime_to_system(ft, &t)) {
            str_cat_printf(l->out, "modify=%04d%02d%02d%02d%02d%02d;", t.year, t.month, t.day, t.hour,
                           t.minute, t.second);
        }
        if (size != DB_UNKNOWN) {
            str_cat_printf(l->out, "size=%I64u;", size);
        }
        str_cat_printf(l->out, " %t\r\n", name, (int) len);
        return;
    }
    if (ft == DB_UNKNOWN || !os_filetime_to_local(ft, &t)) {
        memset(&t, 0, sizeof(t));
    }
    int year = t.year < 1900 ? 1900 : t.year;
    int month = t.month >= 1 && t.month <= 12 ? t.month : 1;
    char year_text[16];
    text_format_args(year_text, "%5d", year);
    // A client that switched UTF-8 off reads LIST's names in the system's ANSI code page.
    str_t ansi;
    str_init(&ansi);
    if (!l->s->utf8) {
        os_text_to_ansi(&ansi, name, len);
        name = ansi.ptr;
        len = (uint32_t) ansi.len;
    }
    str_cat_printf(l->out, "%cr--r--r-- 1 ftp ftp %13I64u %s %02d %s %t\r\n", folder ? 'd' : '-',
                   size == DB_UNKNOWN ? (uint64_t) 0 : size, stp_months[month - 1], t.day, year_text, name,
                   (int) len);
    str_kill(&ansi);
}

static void _stp_listing(stp_session_t *s, const char *arg, bool mlsd) {
    str_t path;
    str_init(&path);
    stp_node_t node;
    stp_path_resolve(s->cwd.ptr, arg, &path);
    bool found = stp_tree_lookup(db, path.ptr, &node) && node.kind != 3;
    if (!found && path.len == 0 && db && db->is_loaded) {
        found = true;
    }
    if (!found) {
        _stp_text(s, "550 Directory not found.\r\n");
        str_kill(&path);
        return;
    }
    stp_transfer_t *x = _stp_xfer(s);
    str_clear(&x->listing);
    x->listing_sent = 0;
    stp_listing_t l = {s, &x->listing, mlsd};
    stp_tree_list(db, path.ptr, &node, _stp_listing_each, &l);
    str_kill(&path);
    _stp_transfer_begin(s, mlsd ? STP_TRANSFER_MLSD : STP_TRANSFER_LIST);
}

void stp_list(stp_session_t *s, const char *arg) {
    str_t clean;
    str_init(&clean);
    stp_list_argument(arg, &clean);
    _stp_listing(s, clean.ptr, false);
    str_kill(&clean);
}

void stp_mlsd(stp_session_t *s, const char *arg) {
    _stp_listing(s, arg, true);
}

void stp_mlst(stp_session_t *s, const char *arg) {
    if (!arg[0]) {
        _stp_text(s, "250-Listing /\r\n type=dir; /\r\n250 End.\r\n");
        return;
    }
    str_t path, shown, facts;
    str_init(&path);
    str_init(&shown);
    str_init(&facts);
    stp_node_t node;
    if (!stp_resolve_node(s, arg, &path, &node)) {
        _stp_text(s, "550 File or Directory not found.\r\n");
    } else {
        stp_path_display(path.ptr, &shown);
        stp_listing_t l = {s, &facts, true};
        const char *name = strrchr(shown.ptr, '/') + 1;
        _stp_listing_each(&l, name, (uint32_t) strlen(name), node.kind != 3, node.record);
        _stp_sendf(s, "250-Listing %s\r\n %s250 End.\r\n", shown.ptr, facts.ptr);
    }
    str_kill(&facts);
    str_kill(&shown);
    str_kill(&path);
}

// ---- downloads -----------------------------------------------------------------------------------------

static void _stp_reader(void *arg) {
    stp_transfer_t *x = (stp_transfer_t *) arg;
    for (;;) {
        os_event_wait(x->event, OS_INFINITE);
        os_event_reset(x->event);
        os_lock_enter(&x->lock);
        bool stop = x->stop;
        bool want = x->bytes == 0 && x->end_state == 0;
        os_lock_leave(&x->lock);
        if (stop) {
            return;
        }
        if (!want) {
            continue;
        }
        int64_t r = os_file_read(x->file, x->buffer, STP_FILE_BUFFER);
        os_lock_enter(&x->lock);
        if (r < 0) {
            x->end_state = 2;
        } else if (r == 0) {
            x->end_state = 1;
        } else {
            x->offset = 0;
            x->bytes = (uint32_t) r;
        }
        os_socket_t sock = x->socket;
        os_lock_leave(&x->lock);
        os_net_post(x->window, NET_MSG_DATA, sock);
    }
}

void stp_retr(stp_session_t *s, const char *arg) {
    // REST is taken and answered, but a download always starts at its first byte.
    s->restart_offset = 0;
    if (!stp_server_allow_file_download) {
        stp_data_close(s);
        _stp_text(s, "550 File not found.\r\n");
        return;
    }
    str_t path, real;
    str_init(&path);
    str_init(&real);
    stp_node_t node;
    os_file_t f = OS_FILE_INVALID;
    if (stp_resolve_node(s, arg, &path, &node) && node.kind == 3) {
        db_get_full_path(&real, node.record);
        f = os_file_open(real.ptr, OS_OPEN_READ | OS_OPEN_SHARE_ALL | OS_OPEN_SEQUENTIAL);
    }
    str_kill(&real);
    str_kill(&path);
    if (f == OS_FILE_INVALID) {
        _stp_text(s, "550 File not found.\r\n");
        return;
    }
    stp_transfer_t *x = _stp_xfer(s);
    x->file = f;
    x->buffer = (char *) mem_alloc(STP_FILE_BUFFER);
    x->window = s->conn->server->window;
    os_lock_init(&x->lock);
    x->event = os_event_create(false);
    x->reader = os_raw_thread_start(_stp_reader, x);
    if (!x->reader) {
        stp_data_close(s);
        _stp_text(s, "451 Transfer aborted: read error.\r\n");
        return;
    }
    _stp_transfer_begin(s, STP_TRANSFER_RETR);
}
