// Network sockets for the servers: non-blocking TCP sockets whose readiness comes to the main thread as
// messages of a hidden server window, so that all protocol work runs there without threads or blocking
// calls.
//
// Windows: the window is a real hidden window of the server's class; os_net_select is WSAAsyncSelect and
// os_net_post is PostMessageW. Linux: the window is an object of the main loop, which polls the selected
// sockets and delivers the same events in the same form; posts go through an eventfd.
//
// Invariants:
// - Every socket made here is non-blocking from the start. Results never block: a call that would
//   block returns OS_NET_WOULD_BLOCK and the window's FD_WRITE (or FD_READ, FD_ACCEPT) event follows
//   when it can go on.
// - Events are delivered on the main thread only, from the main loop's pump. os_net_post may be called
//   from any thread; everything else here is main-thread only (except the pure address helpers).
// - No event for a socket that was closed is delivered to a socket that later gets the same number: on
//   Linux reports carry the watch's serial; on Windows the handle is closed only once every message
//   queued for it has passed. A message may still name a socket whose connection is gone, so handlers
//   look their socket up and ignore unknown ones.
// - Event masks and family numbers have the Windows values on both platforms, so that logs and protocol
//   code read the same everywhere.
// - Error codes are the platform's own (WSAGetLastError or errno); they are only logged and reported.
#pragma once

#include <cstdint>

struct str_t;

typedef intptr_t os_socket_t;
#define OS_SOCKET_NONE ((os_socket_t) -1)

// Event bits of a server window message (FD_READ ...).
enum {
    OS_NET_READ = 1,
    OS_NET_WRITE = 2,
    OS_NET_ACCEPT = 8,
    OS_NET_CONNECT = 16,
    OS_NET_CLOSE = 32,
};

// Address families as the servers log them.
enum {
    OS_NET_INET = 2,
    OS_NET_INET6 = 23,
};

// Results of recv, send and connect besides a byte count.
enum {
    OS_NET_WOULD_BLOCK = -1,
    OS_NET_ERROR = -2,
};

// A socket address of any family (a sockaddr_storage), len bytes of it in use.
struct os_net_addr_t {
    uint32_t len;
    alignas(8) uint8_t data[128];
};

// One usable result of a name look-up.
struct os_net_resolved_t {
    int family;   // OS_NET_INET or OS_NET_INET6
    int socktype; // 1 stream
    int protocol; // 6 TCP
    os_net_addr_t addr;
};

// ---- process-wide start --------------------------------------------------------------------------------

// Starts the socket library (WSAStartup 1.1). Returns 0 or the error code; version gets the low and
// high byte of the version the library agreed to (1 and 1 on Linux).
int os_net_startup(int *version_low, int *version_high);
void os_net_cleanup();

// ---- server windows ------------------------------------------------------------------------------------

// The handler of a server window: message is what os_net_select or os_net_post named (1024 and up),
// event the OS_NET_ bits that happened (0 for a post), error the code that came with them.
typedef void (*os_net_window_proc_t)(void *context, uint32_t message, os_socket_t s, uint32_t event,
                                     int error);
struct os_net_window_t;
// Makes the hidden window of this class (title the same). Null on failure, with *error set.
os_net_window_t *os_net_window_create(const char *class_name, os_net_window_proc_t proc, void *context,
                                      int *error);
// Destroys it; posts not yet delivered are dropped. Sockets still selected to it must be closed first.
void os_net_window_destroy(os_net_window_t *w);
// Asks for these events of s as message. A new call replaces the mask; 0 stops all events. As with
// WSAAsyncSelect, FD_WRITE comes once when the socket is writable after the call, then only after a send
// that would have blocked; FD_READ comes again while unread data stays. Returns 0 or the error code.
int os_net_select(os_net_window_t *w, os_socket_t s, uint32_t message, uint32_t events);
// Any thread: delivers message for s with event 0 on the main thread later. Returns false when the
// window is gone or the post was refused.
bool os_net_post(os_net_window_t *w, uint32_t message, os_socket_t s);

// ---- sockets -------------------------------------------------------------------------------------------

// getaddrinfo for TCP stream sockets: host null for all interfaces, port a decimal text, passive for a
// local address to bind. Fills up to max results of families 2 and 23, skipping others, and returns their
// count, or -1 with *error set when the look-up failed. skipped counts the other families.
int os_net_resolve(const char *host, const char *port, bool passive, os_net_resolved_t *out, int max,
                   int *skipped, int *error);
// A new non-blocking TCP socket of the family; an IPv6 one takes IPv6 only, so that an IPv4 socket may
// bind the same port. OS_SOCKET_NONE with *error set on failure.
os_socket_t os_net_socket(int family, int *error);
// Socket option 4 (address reuse) on, as the servers set it on every socket they accept.
void os_net_set_reuse(os_socket_t s);
// Sends small writes at once instead of waiting for the peer's acknowledgement of the last (TCP_NODELAY):
// a request-reply protocol whose replies come in several writes would otherwise wait out the peer's
// delayed acknowledgement on each.
void os_net_set_nodelay(os_socket_t s);
// Binds a local address. On Linux a port whose old connections linger may be bound again at once.
// Returns 0 or the error code.
int os_net_bind(os_socket_t s, const os_net_addr_t *addr);
// Listens; the platform caps the backlog. Returns 0 or the error code.
int os_net_listen(os_socket_t s, int backlog);
// Takes a waiting connection: the new non-blocking socket and its peer, or OS_SOCKET_NONE when none was
// waiting (*error 0) or the accept failed (*error set).
os_socket_t os_net_accept(os_socket_t listener, os_net_addr_t *peer, int *error);
// Starts a connection. 0 when it is made at once, OS_NET_WOULD_BLOCK when FD_CONNECT will tell,
// OS_NET_ERROR with *error set.
int os_net_connect(os_socket_t s, const os_net_addr_t *addr, int *error);
// Reads up to n bytes (peek: leaves them queued). Byte count, 0 at the peer's end of stream,
// OS_NET_WOULD_BLOCK, or OS_NET_ERROR with *error set.
int64_t os_net_recv(os_socket_t s, void *buf, uint32_t n, bool peek, int *error);
// Sends up to n bytes, never raising a signal. Byte count, OS_NET_WOULD_BLOCK (FD_WRITE follows), or
// OS_NET_ERROR with *error set.
int64_t os_net_send(os_socket_t s, const void *buf, uint32_t n, int *error);
// Ends the sending side. Returns 0 or the error code.
int os_net_shutdown_send(os_socket_t s);
// Closes the socket and stops its events. OS_SOCKET_NONE is ignored.
void os_net_close(os_socket_t s);
// The socket's local and remote addresses. 0 or the error code.
int os_net_local_address(os_socket_t s, os_net_addr_t *out);
int os_net_peer_address(os_socket_t s, os_net_addr_t *out);

// ---- addresses (any thread) ----------------------------------------------------------------------------

// OS_NET_INET, OS_NET_INET6, or 0 for anything else.
int os_net_addr_family(const os_net_addr_t *a);
// The host part as text: "127.0.0.1", "::1"; empty for an unknown family.
void os_net_addr_text(const os_net_addr_t *a, str_t *out);
uint16_t os_net_addr_port(const os_net_addr_t *a);
void os_net_addr_set_port(os_net_addr_t *a, uint16_t port);
// The four bytes of an IPv4 address, also of an IPv4 address mapped into IPv6. False for others.
bool os_net_addr_ipv4(const os_net_addr_t *a, uint8_t out[4]);
// Whether two addresses name the same host (ports aside; an IPv4 address equals its IPv6 mapping).
bool os_net_addr_same_host(const os_net_addr_t *a, const os_net_addr_t *b);
// A numeric address of the family (or of either family with family 0) and port. False when the text is
// not one.
bool os_net_addr_parse(const char *text, int family, uint16_t port, os_net_addr_t *out);

// ---- the user --------------------------------------------------------------------------------------------

// A server's start failure for the user: a message box owned by parent (null: none) on Windows; the
// debug log and standard error on Linux.
void os_net_show_error(void *parent, const char *text);
