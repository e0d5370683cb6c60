// What the server and the connection stream of the socket machinery share.
#pragma once

#include <cstdint>

#include "net/net.h"

// Reads once from the socket into the receive chain and hands out the lines. The byte count, 0 when
// the peer ended (or a handler ended the connection), OS_NET_WOULD_BLOCK, or OS_NET_ERROR with *error.
int64_t _net_conn_receive(net_conn_t *c, int *error);
// Scans the bytes left unscanned when reading paused. False when a handler ended the connection.
bool _net_conn_resume_pending(net_conn_t *c);
// Sends from the queue. False when the connection must end (failure, or quit with the queue empty).
bool _net_conn_flush(net_conn_t *c);
// Selects the socket's events after a change of reading_paused's causes.
void _net_conn_update_reading(net_conn_t *c);
