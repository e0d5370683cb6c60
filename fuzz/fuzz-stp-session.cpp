// Any bytes as a client's control stream: the line assembly and the session's state machine run on a
// connection without a socket, whose send queue is the sink. Every reply must be whole lines, and the
// session's folder must stay a clean path inside the tree, whatever came in.
#include <cstdint>
#include <cstring>

#include "config/config.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "net/net.h"
#include "os/os.h"
#include "stp/stp.h"
#include "stp/stp_internal.h"

static uint8_t logging_off = 0;
static char no_name[1] = "";
static char *log_name = no_name;
static int32_t zero = 0;
static char user[] = "u";
static char password[] = "p";

static void check_replies(net_conn_t *c) {
    // Each block is one reply or one result line, so each ends a line.
    for (net_send_block_t *b = c->send_head; b; b = b->next) {
        if (b->len < 2 || b->bytes[b->len - 2] != '\r' || b->bytes[b->len - 1] != '\n') {
            __builtin_trap();
        }
    }
    while (c->send_head) {
        net_send_block_t *b = c->send_head;
        c->send_head = b->next;
        mem_free(b);
    }
    c->send_tail = nullptr;
    c->head_sent = 0;
    c->queued = 0;
}

static void check_cwd(const stp_session_t *s) {
    const char *p = s->cwd.ptr;
    if (p[0] == OS_SEP || (s->cwd.len > 0 && p[s->cwd.len - 1] == OS_SEP)) {
        __builtin_trap();
    }
    for (const char *q = p; *q;) {
        const char *end = strchr(q, OS_SEP);
        size_t len = end ? (size_t) (end - q) : strlen(q);
        if (len == 0 || (len == 1 && q[0] == '.') || (len == 2 && q[0] == '.' && q[1] == '.')) {
            __builtin_trap();
        }
        q += len + (end ? 1 : 0);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1 << 18) {
        return 0;
    }
    static bool once = false;
    if (!once) {
        debug_init();
        once = true;
    }
    stp_server_username = user;
    stp_server_password = password;
    stp_login_delay_ms = 0;
    net_proto_t proto = {};
    proto.name = "STP";
    proto.max_line = 4096;
    proto.send_queue_cap = 1 << 20;
    proto.logging_enabled = &logging_off;
    proto.log_file_name = &log_name;
    proto.log_max_size = &zero;
    proto.log_delta_size = &zero;
    proto.line = stp_session_line;
    net_server_t server = {};
    server.proto = &proto;
    net_conn_t conn = {};
    conn.server = &server;
    conn.socket = OS_SOCKET_NONE;
    os_net_addr_parse(size > 0 && (data[0] & 1) ? "::1" : "127.0.0.1", 0, 40000, &conn.peer);
    stp_session_open(&conn);
    check_replies(&conn);
    // The input arrives in reads of the sizes its own bytes choose, so that lines split everywhere.
    size_t at = 0;
    while (at < size && !conn.quit && !conn.ending) {
        size_t n = 1 + data[at] % 64;
        at++;
        if (n > size - at) {
            n = size - at;
        }
        net_conn_feed(&conn, (const char *) data + at, (uint32_t) n);
        at += n;
        check_replies(&conn);
        check_cwd((stp_session_t *) conn.session);
    }
    stp_session_close(&conn);
    net_conn_free_buffers(&conn);
    return 0;
}
