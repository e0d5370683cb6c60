// The STP server on the socket machinery: its protocol table, start and stop from the settings, and the
// log and send calls of a session.
#include <cstring>

#include "config/config.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "net/net.h"
#include "stp/stp.h"

net_server_t *stp_server = nullptr;

// The limits of a server that anyone on the network may reach. A line holds one command and one
// search, so 64 KiB is far beyond any real one; a queue of 1 MiB keeps a client that doesn't read from
// costing more; ten minutes without traffic ends a forgotten session.
static const net_proto_t stp_proto = {
    "STP",
    "SABLEWATCH_STP_SERVER",
    "STP_Server_Log",
    true,
    256 * 1024,
    512,
    1024 * 1024,
    10 * 60 * 1000,
    "421 Too many connections, try again later.\r\n",
    "500 Line too long.\r\n",
    "421 Idle time-out, closing control connection.\r\n",
    &stp_server_logging_enabled,
    &stp_server_log_file_name,
    &stp_server_log_max_size,
    &stp_server_log_delta_size,
    stp_session_open,
    stp_session_line,
    stp_session_writable,
    stp_session_close,
    stp_session_message,
};

void _stp_server_start(void *parent_window) {
    if (stp_server || !allow_stp_server) {
        return;
    }
    stp_server = net_server_start(&stp_proto, parent_window, stp_server_port, stp_server_bindings);
}

void _stp_server_stop() {
    net_server_t *s = stp_server;
    stp_server = nullptr;
    net_server_stop(s);
}

bool stp_server_apply_settings(void *parent_window) {
    if (!stp_server_enabled) {
        _stp_server_stop();
        return false;
    }
    if (stp_server && stp_server->port == stp_server_port &&
        strcmp(stp_server->bindings, stp_server_bindings) == 0) {
        return true;
    }
    _stp_server_stop();
    _stp_server_start(parent_window);
    return stp_server != nullptr;
}

bool _stp_server_bind(str_t *error_text, const char *address) {
    return stp_server && net_server_bind(stp_server, error_text, address);
}

void _stp_log(stp_session_t *session, const char *format, ...) {
    net_server_t *server = session ? session->conn->server : stp_server;
    if (!server) {
        return;
    }
    va_list args;
    va_start(args, format);
    net_log_v(server, session ? session->conn : nullptr, format, args);
    va_end(args);
}

void _stp_send(stp_session_t *session, const char *bytes, uint32_t length) {
    // Only final reply lines go to the log: "226 Transfer complete.", not "211-Features:".
    if (length >= 4 && bytes[3] == ' ' && bytes[0] != ' ') {
        _stp_log(session, "%t", bytes, (int) length);
    }
    net_send(session->conn, bytes, length);
}

void _stp_sendf(stp_session_t *session, const char *format, ...) {
    str_t text;
    str_init(&text);
    va_list args;
    va_start(args, format);
    str_vprintf(&text, format, args);
    va_end(args);
    _stp_send(session, text.ptr, (uint32_t) text.len);
    str_kill(&text);
}
