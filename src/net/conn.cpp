// A connection's stream: the receive chain that assembles lines, and the send queue.
#include <cstddef>
#include <cstring>

#include "mem/mem.h"
#include "net/net.h"
#include "net/net_internal.h"
#include "os/os.h"

// ---- receive -------------------------------------------------------------------------------------------

// The free space of the tail chunk, a new chunk when it is full.
static char *_net_recv_space(net_conn_t *c, uint32_t *room) {
    if (!c->recv_tail || c->write_pos == NET_RECV_CHUNK_BYTES) {
        net_recv_chunk_t *k = (net_recv_chunk_t *) mem_alloc(sizeof(net_recv_chunk_t));
        k->next = nullptr;
        if (c->recv_tail) {
            c->recv_tail->next = k;
        } else {
            c->recv_head = k;
            c->line_start = 0;
        }
        c->recv_tail = k;
        c->write_pos = 0;
        c->recv_count++;
    }
    *room = NET_RECV_CHUNK_BYTES - c->write_pos;
    return c->recv_tail->bytes + c->write_pos;
}

// Frees every chunk before the tail; the partial line then starts at the tail's start.
static void _net_recv_drop_head(net_conn_t *c) {
    while (c->recv_head != c->recv_tail) {
        net_recv_chunk_t *k = c->recv_head;
        c->recv_head = k->next;
        mem_free(k);
        c->recv_count--;
    }
    c->line_start = 0;
}

// A line whose LF is at end in the tail chunk, spanning chunks: copied whole into one buffer.
static char *_net_recv_join(net_conn_t *c, uint32_t end, uint32_t *len) {
    uint64_t total = c->line_bytes;
    char *line = (char *) mem_alloc((size_t) total + 1);
    uint64_t at = 0;
    for (net_recv_chunk_t *k = c->recv_head; k; k = k->next) {
        uint32_t from = k == c->recv_head ? c->line_start : 0;
        uint32_t to = k == c->recv_tail ? end : NET_RECV_CHUNK_BYTES;
        memcpy(line + at, k->bytes + from, to - from);
        at += to - from;
    }
    line[total] = 0;
    *len = (uint32_t) total;
    return line;
}

// Hands out the lines among the n new bytes at the tail's write position. False when a handler ended
// the connection (the rest is then left unread).
static bool _net_recv_scan(net_conn_t *c, uint32_t n) {
    net_server_t *server = c->server;
    const net_proto_t *proto = server->proto;
    char *bytes = c->recv_tail->bytes;
    uint32_t pos = c->write_pos;
    uint32_t end = pos + n;
    c->write_pos = end;
    while (pos < end) {
        char *lf = (char *) memchr(bytes + pos, '\n', end - pos);
        uint32_t stop = lf ? (uint32_t) (lf - bytes) : end;
        c->line_bytes += stop - pos;
        if (c->line_bytes > proto->max_line) {
            net_log(server, c, "Line too long (over %u bytes), disconnected.\r\n", proto->max_line);
            net_send_text(c, proto->line_too_long_text);
            net_conn_quit(c);
            return false;
        }
        if (!lf) {
            break;
        }
        *lf = 0;
        uint32_t len;
        if (c->recv_head == c->recv_tail) {
            proto->line(c, bytes + c->line_start, (uint32_t) c->line_bytes);
        } else {
            char *line = _net_recv_join(c, stop, &len);
            _net_recv_drop_head(c);
            proto->line(c, line, len);
            mem_free(line);
        }
        c->line_start = stop + 1;
        c->line_bytes = 0;
        pos = stop + 1;
        if (c->ending || c->quit) {
            return false;
        }
        if (c->reading_paused) {
            // The rest waits in the chunk: the scan starts again from here when reading resumes.
            c->write_pos = pos;
            c->pending = end - pos;
            return true;
        }
    }
    // The partial line moves to the front of its chunk, so that the chunk's space is used again.
    if (c->recv_head == c->recv_tail && c->line_start > 0) {
        uint32_t keep = c->write_pos - c->line_start;
        memmove(bytes, bytes + c->line_start, keep);
        c->write_pos = keep;
        c->line_start = 0;
    }
    return true;
}

bool net_conn_feed(net_conn_t *c, const char *bytes, uint32_t n) {
    while (n > 0) {
        if (c->ending || c->quit || c->reading_paused) {
            return false;
        }
        uint32_t room;
        char *space = _net_recv_space(c, &room);
        uint32_t take = n < room ? n : room;
        memcpy(space, bytes, take);
        if (!_net_recv_scan(c, take) || c->pending) {
            return false;
        }
        bytes += take;
        n -= take;
    }
    return !c->ending;
}

bool _net_conn_resume_pending(net_conn_t *c) {
    uint32_t n = c->pending;
    c->pending = 0;
    return n == 0 || _net_recv_scan(c, n);
}

int64_t _net_conn_receive(net_conn_t *c, int *error) {
    *error = 0;
    if (c->reading_paused || c->pending) {
        return OS_NET_WOULD_BLOCK;
    }
    uint32_t room;
    char *space = _net_recv_space(c, &room);
    int64_t r = os_net_recv(c->socket, space, room, false, error);
    if (r > 0 && !_net_recv_scan(c, (uint32_t) r)) {
        return 0;
    }
    return r;
}

// ---- send ----------------------------------------------------------------------------------------------

bool net_send_room(const net_conn_t *c) {
    return c->queued < c->server->proto->send_queue_cap;
}

void net_send(net_conn_t *c, const void *bytes, uint32_t n) {
    if (n == 0 || c->ending) {
        return;
    }
    if (c->queued + n > (uint64_t) c->server->proto->send_queue_cap * 8) {
        net_log(c->server, c, "Send queue over %u bytes, disconnected.\r\n",
                c->server->proto->send_queue_cap * 8);
        net_conn_end(c);
        return;
    }
    net_send_block_t *b = (net_send_block_t *) mem_alloc(offsetof(net_send_block_t, bytes) + n);
    b->next = nullptr;
    b->len = n;
    memcpy(b->bytes, bytes, n);
    bool was_empty = !c->send_head;
    if (c->send_tail) {
        c->send_tail->next = b;
    } else {
        c->send_head = b;
        c->head_sent = 0;
    }
    c->send_tail = b;
    c->queued += n;
    if (was_empty && c->server->window && c->socket != OS_SOCKET_NONE) {
        os_net_post(c->server->window, NET_MSG_CONTROL, c->socket);
    }
    if (!net_send_room(c) && !c->reading_paused) {
        _net_conn_update_reading(c);
    }
}

void net_send_text(net_conn_t *c, const char *text) {
    net_send(c, text, (uint32_t) strlen(text));
}

static void _net_send_pop(net_conn_t *c) {
    net_send_block_t *b = c->send_head;
    c->send_head = b->next;
    if (!c->send_head) {
        c->send_tail = nullptr;
    }
    c->head_sent = 0;
    mem_free(b);
}

// Sends from the queue until it is empty or the socket would block. False when the connection failed.
bool _net_conn_flush(net_conn_t *c) {
    bool was_full = !net_send_room(c);
    while (c->send_head) {
        net_send_block_t *b = c->send_head;
        int error;
        int64_t r = os_net_send(c->socket, b->bytes + c->head_sent, b->len - c->head_sent, &error);
        if (r == OS_NET_WOULD_BLOCK) {
            break;
        }
        if (r <= 0) {
            net_log(c->server, c, "send failed %d\r\n", error);
            return false;
        }
        c->last_activity_ms = os_tick_ms();
        c->head_sent += (uint32_t) r;
        c->queued -= (uint64_t) r;
        if (c->head_sent == b->len) {
            _net_send_pop(c);
        }
    }
    if (was_full && net_send_room(c)) {
        _net_conn_update_reading(c);
        if (c->server->proto->writable && !c->ending) {
            c->server->proto->writable(c);
        }
    }
    if (!c->send_head && c->quit) {
        os_net_shutdown_send(c->socket);
        return false;
    }
    return true;
}

void net_conn_free_buffers(net_conn_t *c) {
    while (c->recv_head) {
        net_recv_chunk_t *k = c->recv_head;
        c->recv_head = k->next;
        mem_free(k);
    }
    c->recv_tail = nullptr;
    c->recv_count = 0;
    while (c->send_head) {
        _net_send_pop(c);
    }
    c->queued = 0;
}
