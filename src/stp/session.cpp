// A control connection: the welcome, line handling and the verbs that answer on the control connection
// alone. Data connections and listings are in data.cpp, the SABLEWATCH verb in query.cpp.
#include <cstring>

#include "config/config.h"
#include "db/db.h"
#include "db_query/db_query.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "net/net.h"
#include "os/os.h"
#include "os/os_main.h"
#include "stp/stp_internal.h"

uint32_t stp_login_delay_ms = 1000;

// ---- welcome -------------------------------------------------------------------------------------------

void stp_welcome_text(const char *setting, str_t *out) {
    const char *text = setting && setting[0] ? setting : "Welcome to Sablewatch STP/FTP";
    str_t expanded;
    str_init(&expanded);
    for (const char *p = text; *p; p++) {
        if (*p == '\r' || *p == '\n') {
            continue;
        }
        if (*p == '%' && p[1] == 'n') {
            str_cat_char(&expanded, '\n');
            p++;
        } else if (*p == '%' && p[1] == 'v') {
            str_cat_printf(&expanded, "%d.%d.%d.%d%s (%s)%s", DEBUG_VERSION_MAJOR, DEBUG_VERSION_MINOR,
                           DEBUG_VERSION_REVISION, DEBUG_VERSION_BUILD, "", "ARM", "");
            p++;
        } else if (*p == '%' && p[1] == '%') {
            str_cat_char(&expanded, '%');
            p++;
        } else {
            str_cat_char(&expanded, *p);
        }
    }
    str_clear(out);
    const char *line = expanded.ptr;
    for (;;) {
        const char *nl = strchr(line, '\n');
        if (!nl) {
            str_cat_printf(out, "220 %s\r\n", line);
            break;
        }
        str_cat_printf(out, "220-%t\r\n", line, (int) (nl - line));
        line = nl + 1;
    }
    str_kill(&expanded);
}

void stp_session_open(net_conn_t *c) {
    stp_session_t *s = (stp_session_t *) mem_alloc(sizeof(stp_session_t));
    memset(s, 0, sizeof(*s));
    c->session = s;
    s->conn = c;
    str_init(&s->cwd);
    str_init(&s->search);
    str_init(&s->filter_search);
    str_init(&s->last_search);
    str_init(&s->last_filter_search);
    s->utf8 = true;
    s->count = 0xFFFFFFFF;
    s->ipv6 = os_net_addr_family(&c->peer) == OS_NET_INET6;
    s->passive_listener = OS_SOCKET_NONE;
    s->data_socket = OS_SOCKET_NONE;
    _stp_log(s, "Connected.\r\n");
    str_t welcome;
    str_init(&welcome);
    stp_welcome_text(stp_server_welcome_message, &welcome);
    _stp_send(s, welcome.ptr, (uint32_t) welcome.len);
    str_kill(&welcome);
}

void stp_session_close(net_conn_t *c) {
    stp_session_t *s = (stp_session_t *) c->session;
    if (!s) {
        return;
    }
    _stp_log(s, "Disconnected.\r\n");
    stp_data_close(s);
    if (s->login_delay) {
        os_main_timer_stop(s->login_delay);
    }
    if (s->query) {
        db_destroy_query(s->query);
    }
    str_kill(&s->cwd);
    str_kill(&s->search);
    str_kill(&s->filter_search);
    str_kill(&s->last_search);
    str_kill(&s->last_filter_search);
    mem_free(s);
    c->session = nullptr;
}

void stp_session_writable(net_conn_t *c) {
    stp_session_t *s = (stp_session_t *) c->session;
    if (s && s->streaming) {
        stp_query_stream(s);
    }
}

// ---- paths ---------------------------------------------------------------------------------------------

static bool _stp_path_sep(char c) {
    return c == '/' || c == OS_SEP;
}

void stp_path_resolve(const char *cwd, const char *arg, str_t *out) {
    str_t joined;
    str_init(&joined);
    if (arg[0] == '/') {
        str_set(&joined, arg + 1);
    } else if (!cwd[0]) {
        str_set(&joined, arg);
    } else if (!arg[0]) {
        str_set(&joined, cwd);
    } else {
        str_printf(&joined, "%s" OS_SEP_STR "%s", cwd, arg);
    }
    // Components one by one: "." and empty ones go, ".." takes back the one before it; at the top it
    // has nothing to take, so nothing can climb above the indexed tree.
    str_clear(out);
    const char *p = joined.ptr;
    while (*p) {
        const char *end = p;
        while (*end && !_stp_path_sep(*end)) {
            end++;
        }
        int len = (int) (end - p);
        if (len == 2 && p[0] == '.' && p[1] == '.') {
            int cut = out->len;
            while (cut > 0 && out->ptr[cut - 1] != OS_SEP) {
                cut--;
            }
            out->len = cut > 0 ? cut - 1 : 0;
            out->ptr[out->len] = 0;
        } else if (len > 0 && !(len == 1 && p[0] == '.')) {
            if (out->len > 0) {
                str_cat_char(out, OS_SEP);
            }
            str_cat(out, p, len);
        }
        p = *end ? end + 1 : end;
    }
    str_kill(&joined);
}

void stp_path_display(const char *path, str_t *out) {
    str_set(out, "/");
    while (*path == OS_SEP) {
        path++;
    }
    for (const char *p = path; *p; p++) {
        str_cat_char(out, *p == OS_SEP ? '/' : *p);
    }
}

// ---- the verbs -----------------------------------------------------------------------------------------

static void _stp_send_text(stp_session_t *s, const char *text) {
    _stp_send(s, text, (uint32_t) strlen(text));
}

static bool _stp_eq(const char *a, const char *b) {
    for (; *a && *b; a++, b++) {
        char x = *a >= 'a' && *a <= 'z' ? (char) (*a - 32) : *a;
        char y = *b >= 'a' && *b <= 'z' ? (char) (*b - 32) : *b;
        if (x != y) {
            return false;
        }
    }
    return *a == *b;
}

// The session's folder as the client reads it: in the ANSI code page when it switched UTF-8 off.
static void _stp_cwd_shown(stp_session_t *s, str_t *out) {
    stp_path_display(s->cwd.ptr, out);
    if (!s->utf8) {
        str_t utf8;
        str_init(&utf8);
        str_set_n(&utf8, out->ptr, out->len);
        os_text_to_ansi(out, utf8.ptr, (size_t) utf8.len);
        str_kill(&utf8);
    }
}

static void _stp_cwd_set(stp_session_t *s, const char *path, const char *verb) {
    str_set(&s->cwd, path);
    str_t shown;
    str_init(&shown);
    _stp_cwd_shown(s, &shown);
    _stp_sendf(s, "250 %s successful. \"%s\" is current directory.\r\n", verb, shown.ptr);
    str_kill(&shown);
}

static void _stp_cdup(stp_session_t *s, const char *arg) {
    str_t path;
    str_init(&path);
    stp_path_resolve(s->cwd.ptr, "..", &path);
    _stp_cwd_set(s, path.ptr, "CDUP");
    str_kill(&path);
}

static void _stp_cwd(stp_session_t *s, const char *arg) {
    str_t path;
    str_init(&path);
    stp_path_resolve(s->cwd.ptr, arg, &path);
    stp_node_t node;
    if (path.len > 0 && (!stp_tree_lookup(db, path.ptr, &node) || node.kind == 3)) {
        _stp_send_text(s, "550 Directory not found.\r\n");
    } else {
        _stp_cwd_set(s, path.ptr, "CWD");
    }
    str_kill(&path);
}

static void _stp_pwd(stp_session_t *s, const char *arg) {
    str_t shown;
    str_init(&shown);
    _stp_cwd_shown(s, &shown);
    _stp_sendf(s, "257 \"%s\" is current directory.\r\n", shown.ptr);
    str_kill(&shown);
}

static void _stp_rest(stp_session_t *s, const char *arg) {
    uint64_t v = 0;
    for (const char *p = arg; *p >= '0' && *p <= '9'; p++) {
        v = v * 10 + (uint64_t) (*p - '0');
    }
    s->restart_offset = v;
    _stp_sendf(s, "350 Restarting at %I64u.\r\n", v);
}

static void _stp_opts(stp_session_t *s, const char *arg) {
    if (_stp_eq(arg, "UTF8 ON")) {
        s->utf8 = true;
        _stp_send_text(s, "200 UTF8 mode enabled.\r\n");
    } else if (_stp_eq(arg, "UTF8 OFF")) {
        s->utf8 = false;
        _stp_send_text(s, "200 UTF8 mode disabled.\r\n");
    } else {
        _stp_send_text(s, "501 Invalid option.\r\n");
    }
}

static void _stp_quit(stp_session_t *s, const char *arg) {
    _stp_send_text(s, "221 Goodbye.\r\n");
    s->quit = true;
    net_conn_quit(s->conn);
}

static void _stp_mode(stp_session_t *s, const char *arg) {
    if (_stp_eq(arg, "S") || _stp_eq(arg, "B") || _stp_eq(arg, "C")) {
        _stp_sendf(s, "504 Mode %s not implemented.\r\n", arg);
    } else {
        _stp_sendf(s, "501 Invalid mode %s.\r\n", arg);
    }
}

static void _stp_stru(stp_session_t *s, const char *arg) {
    if (_stp_eq(arg, "F") || _stp_eq(arg, "R") || _stp_eq(arg, "P")) {
        _stp_sendf(s, "504 File structure %s not implemented.\r\n", arg);
    } else {
        _stp_sendf(s, "501 Invalid file structure %s.\r\n", arg);
    }
}

static void _stp_type(stp_session_t *s, const char *arg) {
    if (_stp_eq(arg, "A")) {
        _stp_send_text(s, "200 Type set to ASCII (A).\r\n");
    } else if (_stp_eq(arg, "I")) {
        _stp_send_text(s, "200 Type set to Image (I).\r\n");
    } else if (_stp_eq(arg, "E")) {
        _stp_send_text(s, "504 Type E not implemented.\r\n");
    } else {
        _stp_sendf(s, "500 Type %s not supported.\r\n", arg);
    }
}

static void _stp_noop(stp_session_t *s, const char *arg) {
    _stp_send_text(s, "200 OK.\r\n");
}

static void _stp_feat(stp_session_t *s, const char *arg) {
    _stp_send_text(
        s, "211-Features:\r\n MDTM\r\n REST STREAM\r\n SIZE\r\n MLST type*;size*;modify*;\r\n MLSD\r\n "
           "UTF8\r\n SABLEWATCH\r\n211 End\r\n");
}

static void _stp_syst(stp_session_t *s, const char *arg) {
    _stp_send_text(s, "215 UNIX emulated by Sablewatch\r\n");
}

// The node of a path argument; false when the index doesn't hold it.
bool stp_resolve_node(stp_session_t *s, const char *arg, str_t *path, stp_node_t *node) {
    stp_path_resolve(s->cwd.ptr, arg, path);
    return stp_tree_lookup(db, path->ptr, node);
}

static void _stp_size(stp_session_t *s, const char *arg) {
    str_t path;
    str_init(&path);
    stp_node_t node;
    uint64_t size = stp_resolve_node(s, arg, &path, &node) ? stp_tree_size(db, &node) : DB_UNKNOWN;
    if (size == DB_UNKNOWN) {
        _stp_send_text(s, "550 File not found.\r\n");
    } else {
        _stp_sendf(s, "200 %I64u\r\n", size);
    }
    str_kill(&path);
}

static void _stp_mdtm(stp_session_t *s, const char *arg) {
    str_t path;
    str_init(&path);
    stp_node_t node;
    uint64_t ft = stp_resolve_node(s, arg, &path, &node) ? stp_tree_date_modified(db, &node) : DB_UNKNOWN;
    os_systemtime_t t;
    if (ft == DB_UNKNOWN || !os_filetime_to_system(ft, &t)) {
        _stp_send_text(s, "550 File not found.\r\n");
    } else {
        _stp_sendf(s, "213 %04d%02d%02d%02d%02d%02d.%03d\r\n", t.year, t.month, t.day, t.hour, t.minute,
                   t.second, t.milliseconds);
    }
    str_kill(&path);
}

static void _stp_login_delay_done(void *context) {
    stp_session_t *s = (stp_session_t *) context;
    _stp_send_text(s, "530 Login or password incorrect!\r\n");
    net_conn_pause_reading(s->conn, false);
}

static void _stp_user(stp_session_t *s, const char *arg) {
    if (stp_server_username[0] && strcmp(arg, stp_server_username) != 0) {
        _stp_sendf(s, "331 Password required for %s\r\n", arg);
        s->login_state = STP_LOGIN_BAD_USER;
    } else if (!stp_server_password[0]) {
        _stp_send_text(s, "230 Logged on.\r\n");
        s->login_state = STP_LOGIN_DONE;
    } else {
        _stp_sendf(s, "331 Password required for %s\r\n", arg);
        s->login_state = STP_LOGIN_GOOD_USER;
    }
}

static void _stp_pass(stp_session_t *s, const char *arg) {
    if (s->login_state == STP_LOGIN_GOOD_USER && strcmp(arg, stp_server_password) == 0) {
        s->login_state = STP_LOGIN_DONE;
        _stp_send_text(s, "230 Logged on.\r\n");
    } else if (s->login_state == STP_LOGIN_GOOD_USER || s->login_state == STP_LOGIN_BAD_USER) {
        // Guessing costs time: the reply waits, and so does every later line of this client.
        _stp_log(s, "Login failed, reply delayed %u ms.\r\n", stp_login_delay_ms);
        if (stp_login_delay_ms == 0 || !s->conn->server->window) {
            _stp_send_text(s, "530 Login or password incorrect!\r\n");
            return;
        }
        net_conn_pause_reading(s->conn, true);
        if (s->login_delay) {
            os_main_timer_stop(s->login_delay);
        }
        s->login_delay = os_main_timer_start(stp_login_delay_ms, false, _stp_login_delay_done, s);
    } else if (s->login_state == STP_LOGIN_DONE) {
        _stp_send_text(s, "503 Invalid sequence of commands.\r\n");
    } else {
        _stp_send_text(s, "530 Not logged on.\r\n");
    }
}

struct stp_verb_t {
    const char *verb;
    bool needs_login;
    void (*run)(stp_session_t *s, const char *arg);
    bool path; // the argument is a path: in the ANSI code page when the client switched UTF-8 off
};

static const stp_verb_t stp_verbs[] = {
    {"FEAT", true, _stp_feat},
    {"SYST", true, _stp_syst},
    {"CDUP", true, _stp_cdup},
    {"REST", true, _stp_rest},
    {"OPTS", true, _stp_opts},
    {"PORT", true, stp_port},
    {"QUIT", false, _stp_quit},
    {"MODE", true, _stp_mode},
    {"STRU", true, _stp_stru},
    {"NOOP", false, _stp_noop},
    {"SIZE", true, _stp_size, true},
    {"MDTM", true, _stp_mdtm, true},
    {"RETR", true, stp_retr, true},
    {"LIST", true, stp_list, true},
    {"MLSD", true, stp_mlsd, true},
    {"MLST", true, stp_mlst, true},
    {"PASV", true, stp_pasv},
    {"EPSV", true, stp_epsv},
    {"EPRT", true, stp_eprt},
    {"TYPE", true, _stp_type},
    {"CWD", true, _stp_cwd, true},
    {"PWD", true, _stp_pwd},
    {"SABLEWATCH", true, stp_query_verb},
    {"USER", false, _stp_user},
    {"PASS", false, _stp_pass},
};

static bool _stp_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

void stp_session_line(net_conn_t *c, char *line, uint32_t len) {
    stp_session_t *s = (stp_session_t *) c->session;
    if (len > 0 && line[len - 1] == '\r') {
        line[--len] = 0;
    }
    char *arg = line;
    while (*arg && !_stp_blank(*arg)) {
        arg++;
    }
    if (*arg) {
        *arg++ = 0;
        while (_stp_blank(*arg)) {
            arg++;
        }
    }
    _stp_log(s, "%s %s\r\n", line, arg);
    if (debug_verbose) {
        debug_printf("%s %s\n", line, arg);
    }
    if (s->query_pending) {
        _stp_send_text(s, "426 Query aborted.\r\n");
        s->query_pending = false;
        // The stored values describe a search that never finished: the same query again must search,
        // not stream what the cut one left behind.
        s->last_valid = false;
        if (s->query) {
            db_cancel_query(s->query);
        }
    }
    if (s->transfer != STP_TRANSFER_NONE) {
        _stp_send_text(s, "503 Invalid sequence of commands.\r\n");
        return;
    }
    for (const stp_verb_t &v : stp_verbs) {
        if (_stp_eq(line, v.verb)) {
            if (v.needs_login && s->login_state != STP_LOGIN_DONE) {
                _stp_send_text(s, "530 Not logged on.\r\n");
            } else if (v.path && !s->utf8) {
                str_t utf8;
                str_init(&utf8);
                os_text_from_ansi(&utf8, arg, strlen(arg));
                v.run(s, utf8.ptr);
                str_kill(&utf8);
            } else {
                v.run(s, arg);
            }
            return;
        }
    }
    _stp_send_text(s, "500 Syntax error, command unrecognized.\r\n");
}
