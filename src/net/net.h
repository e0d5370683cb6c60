// The servers' shared socket machinery: listening on the bindings of the settings, accepting
// connections, assembling request lines from the stream, the send queue, the limits every server keeps,
// and the server log file. A protocol (STP, HTTP) plugs in through a table of functions and keeps its
// per-connection state in net_conn_t.session.
//
// Invariants:
// - Everything runs on the main thread, from the server window's events (os_net.h); no call blocks.
//   Only os_net_post may be used from another thread (a file reader kicking its transfer).
// - A connection is freed only when no handler of it is running: net_conn_end inside a handler marks
//   it, and the event that runs the handler frees it on its way out. The protocol's close runs once.
// - A line handed to the protocol ends in a NUL where its LF stood; it stays valid only during the call.
// - No peer can grow the server's memory without bound: a line longer than the protocol's max_line, more
//   than max_connections connections, or a send queue over the hard limit ends the connection with the
//   protocol's reply and a log line; a send queue over send_queue_cap stops reading from that peer until
//   it drains, so a client that never reads blocks only itself.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "os/os_net.h"

struct str_t;
struct os_main_timer_t;

// Window messages of a server (the event each carries: os_net.h).
enum {
    NET_MSG_ACCEPT = 1024,  // a listening socket has a connection waiting
    NET_MSG_CONTROL = 1025, // a connection is readable or writable; also the kick of an empty send queue
    NET_MSG_PASSIVE = 1026, // a passive data listener was reached
    NET_MSG_DATA = 1027,    // a data socket's event; also posted by file readers and listings
};

#define NET_RECV_CHUNK_BYTES 65532u

struct net_recv_chunk_t {
    net_recv_chunk_t *next;
    char bytes[NET_RECV_CHUNK_BYTES];
};

struct net_send_block_t {
    net_send_block_t *next;
    uint32_t len;
    char bytes[1]; // len bytes
};

struct net_server_t;
struct net_conn_t;

// What a protocol gives the machinery. The texts are sent as they are when a limit ends a connection.
struct net_proto_t {
    const char *name;         // "STP" or "HTTP", in the log's texts
    const char *window_class; // "SABLEWATCH_STP_SERVER"
    const char *log_base;     // "STP_Server_Log": the default log file's name without ".txt"
    bool log_start_errors;    // log "... server started, but with errors" when some binding failed
    uint32_t max_line;        // longest line in bytes, LF excluded
    uint32_t max_connections;
    uint32_t send_queue_cap; // reading pauses above this many queued bytes
    uint32_t idle_ms;        // a connection with no traffic for this long is ended; 0: never
    const char *too_many_text;
    const char *line_too_long_text;
    const char *idle_text;
    // The settings of this server's log, read at each entry.
    const uint8_t *logging_enabled;
    char *const *log_file_name;
    const int32_t *log_max_size;
    const int32_t *log_delta_size;

    // A connection was accepted: make c->session and greet. May end the connection.
    void (*open)(net_conn_t *c);
    // One line, NUL-terminated where its LF stood (a CR before it is still there).
    void (*line)(net_conn_t *c, char *line, uint32_t len);
    // The send queue fell back below send_queue_cap: a paused producer may go on. May be null.
    void (*writable)(net_conn_t *c);
    // The connection ends: free c->session. Runs once, before the socket closes.
    void (*close)(net_conn_t *c);
    // Messages other than accept and control (NET_MSG_PASSIVE, NET_MSG_DATA). May be null.
    void (*message)(net_server_t *server, uint32_t message, os_socket_t s, uint32_t event, int error);
};

struct net_listen_t {
    net_listen_t *next;
    os_socket_t socket;
};

struct net_conn_t {
    net_conn_t *next, *prev;
    net_server_t *server;
    os_socket_t socket;
    os_net_addr_t peer;
    void *session;

    // Receive chain: the partial line starts at line_start in head and the bytes end at write_pos in tail.
    net_recv_chunk_t *recv_head, *recv_tail;
    uint32_t line_start;
    uint32_t write_pos;
    uint32_t recv_count; // chunks in the chain
    uint64_t line_bytes; // bytes of the partial line so far
    uint32_t pending;    // bytes after write_pos not yet scanned (reading was paused inside a read)
    // Send queue: head_sent bytes of the head block are gone.
    net_send_block_t *send_head, *send_tail;
    uint32_t head_sent;
    uint64_t queued; // bytes not yet sent

    bool quit;           // end once the send queue is empty
    bool ending;         // ended inside a handler; freed when the handler returns
    bool reading_paused; // the send queue is over the cap, or the protocol asked
    bool protocol_pause; // net_conn_pause_reading's part of reading_paused
    uint32_t busy;       // handlers of this connection now running
    uint32_t last_activity_ms;
};

struct net_server_t {
    const net_proto_t *proto;
    net_listen_t *listen_sockets;
    net_conn_t *connections_head, *connections_tail;
    uint32_t connection_count;
    os_net_window_t *window;
    os_main_timer_t *idle_timer;
    int32_t port;
    char *bindings;
};

// Starts a server of this protocol on port and the bindings text (semicolon-separated addresses; empty:
// all interfaces). Logs what the start did. Returns the running server, or null when nothing listens:
// then the error is shown as "Unable to start <name> server: <text>" with parent as the owner.
net_server_t *net_server_start(const net_proto_t *proto, void *parent, int32_t port, const char *bindings);
// Closes the listeners and every connection (the protocol's close runs for each), logs "<name> server
// offline.", and frees the server. Null is ignored.
void net_server_stop(net_server_t *server);
// Binds one address (null: all interfaces), appending each listening socket. False with error_text
// filled (or left empty when the look-up gave nothing usable) on the first failure.
bool net_server_bind(net_server_t *server, str_t *error_text, const char *address);

// Calls add(context, address) for each non-empty entry of a semicolon-separated bindings text; the
// address is NUL-terminated and valid during the call. Returns the number of entries.
int net_bindings_each(const char *bindings, void (*add)(void *context, const char *address), void *context);

// Queues n bytes (copied) on the connection; the first block of an empty queue kicks the flush. A queue
// over the hard limit (eight times send_queue_cap) ends the connection instead.
void net_send(net_conn_t *c, const void *bytes, uint32_t n);
void net_send_text(net_conn_t *c, const char *text);
// Whether the queue is below the protocol's cap: producers of long output stop when this is false and go
// on from the protocol's writable callback.
bool net_send_room(const net_conn_t *c);
// Ends the connection: at once outside its handlers, else when they return.
void net_conn_end(net_conn_t *c);
// Marks the connection to end once its send queue is empty (and flushes what it can).
void net_conn_quit(net_conn_t *c);
// Stops (true) or resumes (false) reading lines from the peer, for a protocol that must not read on
// (a delayed reply). Resuming hands over the lines that waited.
void net_conn_pause_reading(net_conn_t *c, bool pause);
// Finds the connection of a control socket, or null.
net_conn_t *net_conn_find(net_server_t *server, os_socket_t s);

// Writes one entry to the server's log file when its logging is on: local date and time, for a
// connection its socket and peer, then the text. Also copied to the debug log.
void net_log(net_server_t *server, net_conn_t *c, const char *format, ...);
void net_log_v(net_server_t *server, net_conn_t *c, const char *format, va_list args);
// The log file in force: the setting resolved against the settings folder, or Logs/<log_base>.txt there.
void net_log_path(const net_proto_t *proto, str_t *out);
// Trims the file at path to about max_size - delta_size bytes, dropping whole lines at its head, when it
// has reached max_size. Does nothing unless 1 <= delta_size <= max_size. Returns true when it trimmed.
bool net_log_trim(const char *path, int64_t max_size, int64_t delta_size);

// The box that says a server could not start; tests replace it. Default: os_net_show_error.
extern void (*net_show_error)(void *parent, const char *text);

// The line assembly of a connection, apart from the socket: appends n bytes as if received and hands
// out every complete line. Used by the receive path and by tests. False when the connection was ended.
bool net_conn_feed(net_conn_t *c, const char *bytes, uint32_t n);
// Frees the receive chain and send queue of a connection that was never linked to a server (tests,
// fuzzers).
void net_conn_free_buffers(net_conn_t *c);
