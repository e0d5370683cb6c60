// Sockets on Windows: Winsock with WSAAsyncSelect to the server's hidden window, whose procedure turns
// each socket message into a call of the server's handler.
#include "os/os_net.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <windows.h>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/win32/wide.h"

struct os_net_window_t {
    os_net_window_t *next; // every live window, for the purge of a closed socket's messages
    HWND hwnd;
    os_net_window_proc_t proc;
    void *context;
    wchar_t *class_name;
    ATOM atom;
};

static os_net_window_t *windows = nullptr;
// A window's own message: close the socket in wParam now that nothing queued names it.
#define NET_CLOSE_MARKER (WM_USER + 15)

int os_net_startup(int *version_low, int *version_high) {
    WSADATA data;
    int r = WSAStartup(257, &data);
    if (r != 0) {
        *version_low = *version_high = 0;
        return r;
    }
    *version_low = LOBYTE(data.wVersion);
    *version_high = HIBYTE(data.wVersion);
    return 0;
}

void os_net_cleanup() {
    WSACleanup();
}

// ---- server windows ------------------------------------------------------------------------------------

// Socket messages are WM_USER and the few after it; the window record sits in the window's user data.
static LRESULT CALLBACK _net_window_proc(HWND hwnd, UINT msg, WPARAM wparam, LPARAM lparam) {
    if (msg == NET_CLOSE_MARKER) {
        closesocket((SOCKET) wparam);
        return 0;
    }
    if (msg >= WM_USER && msg < NET_CLOSE_MARKER) {
        os_net_window_t *w = (os_net_window_t *) GetWindowLongPtrW(hwnd, GWLP_USERDATA);
        if (w) {
            w->proc(w->context, msg, (os_socket_t) wparam, WSAGETSELECTEVENT(lparam),
                    WSAGETSELECTERROR(lparam));
        }
        return 0;
    }
    return DefWindowProcW(hwnd, msg, wparam, lparam);
}

os_net_window_t *os_net_window_create(const char *class_name, os_net_window_proc_t proc, void *context,
                                      int *error) {
    os_net_window_t *w = (os_net_window_t *) mem_alloc(sizeof(os_net_window_t));
    memset(w, 0, sizeof(*w));
    w->proc = proc;
    w->context = context;
    os_wide_t name;
    os_wide_init(&name, class_name);
    w->class_name = (wchar_t *) mem_dup(name.ptr, ((size_t) name.len + 1) * sizeof(wchar_t));
    os_wide_kill(&name);
    WNDCLASSEXW wc = {};
    wc.cbSize = sizeof(wc);
    wc.lpfnWndProc = _net_window_proc;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.lpszClassName = w->class_name;
    w->atom = RegisterClassExW(&wc);
    // A class left registered by an earlier start of the same server is still ours.
    if (!w->atom && GetLastError() != ERROR_CLASS_ALREADY_EXISTS) {
        *error = (int) GetLastError();
        mem_free(w->class_name);
        mem_free(w);
        return nullptr;
    }
    w->hwnd = CreateWindowExW(0, w->class_name, w->class_name, 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                              wc.hInstance, nullptr);
    if (!w->hwnd) {
        *error = (int) GetLastError();
        if (w->atom) {
            UnregisterClassW(w->class_name, wc.hInstance);
        }
        mem_free(w->class_name);
        mem_free(w);
        return nullptr;
    }
    SetWindowLongPtrW(w->hwnd, GWLP_USERDATA, (LONG_PTR) w);
    w->next = windows;
    windows = w;
    *error = 0;
    return w;
}

void os_net_window_destroy(os_net_window_t *w) {
    if (!w) {
        return;
    }
    for (os_net_window_t **p = &windows; *p; p = &(*p)->next) {
        if (*p == w) {
            *p = w->next;
            break;
        }
    }
    SetWindowLongPtrW(w->hwnd, GWLP_USERDATA, 0);
    // Sockets whose close waited in this window's queue are closed now; other queued messages go.
    MSG m;
    while (PeekMessageW(&m, w->hwnd, WM_USER, NET_CLOSE_MARKER, PM_REMOVE)) {
        if (m.message == NET_CLOSE_MARKER) {
            closesocket((SOCKET) m.wParam);
        }
    }
    DestroyWindow(w->hwnd);
    if (w->atom) {
        UnregisterClassW(w->class_name, GetModuleHandleW(nullptr));
    }
    mem_free(w->class_name);
    mem_free(w);
}

int os_net_select(os_net_window_t *w, os_socket_t s, uint32_t message, uint32_t events) {
    if (WSAAsyncSelect((SOCKET) s, w->hwnd, message, (long) events) != 0) {
        return WSAGetLastError();
    }
    return 0;
}

bool os_net_post(os_net_window_t *w, uint32_t message, os_socket_t s) {
    return w && PostMessageW(w->hwnd, message, (WPARAM) s, 0) != 0;
}

// ---- sockets -------------------------------------------------------------------------------------------

int os_net_addr_family(const os_net_addr_t *a) {
    int f = ((const sockaddr *) a->data)->sa_family;
    return f == AF_INET ? OS_NET_INET : f == AF_INET6 ? OS_NET_INET6 : 0;
}

int os_net_resolve(const char *host, const char *port, bool passive, os_net_resolved_t *out, int max,
                   int *skipped, int *error) {
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_flags = passive ? AI_PASSIVE : 0;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo *list = nullptr;
    int r = getaddrinfo(host, port, &hints, &list);
    *skipped = 0;
    if (r != 0) {
        *error = r;
        return -1;
    }
    int n = 0;
    for (addrinfo *ai = list; ai; ai = ai->ai_next) {
        if ((ai->ai_family != AF_INET && ai->ai_family != AF_INET6) ||
            ai->ai_addrlen > sizeof(out->addr.data)) {
            (*skipped)++;
            continue;
        }
        if (n == max) {
            break;
        }
        os_net_resolved_t *o = &out[n++];
        o->family = ai->ai_family == AF_INET ? OS_NET_INET : OS_NET_INET6;
        o->socktype = ai->ai_socktype;
        o->protocol = ai->ai_protocol;
        memset(&o->addr, 0, sizeof(o->addr));
        o->addr.len = (uint32_t) ai->ai_addrlen;
        memcpy(o->addr.data, ai->ai_addr, ai->ai_addrlen);
    }
    freeaddrinfo(list);
    *error = 0;
    return n;
}

static void _net_nonblocking(SOCKET s) {
    u_long one = 1;
    ioctlsocket(s, FIONBIO, &one);
}

os_socket_t os_net_socket(int family, int *error) {
    SOCKET s = socket(family == OS_NET_INET6 ? AF_INET6 : AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET) {
        *error = WSAGetLastError();
        return OS_SOCKET_NONE;
    }
    // Not inherited by child processes, as on Linux.
    SetHandleInformation((HANDLE) s, HANDLE_FLAG_INHERIT, 0);
    _net_nonblocking(s);
    if (family == OS_NET_INET6) {
        DWORD one = 1;
        setsockopt(s, IPPROTO_IPV6, IPV6_V6ONLY, (const char *) &one, sizeof(one));
    }
    *error = 0;
    return (os_socket_t) s;
}

void os_net_set_reuse(os_socket_t s) {
    BOOL one = TRUE;
    setsockopt((SOCKET) s, SOL_SOCKET, SO_REUSEADDR, (const char *) &one, sizeof(one));
}

void os_net_set_nodelay(os_socket_t s) {
    BOOL one = TRUE;
    setsockopt((SOCKET) s, IPPROTO_TCP, TCP_NODELAY, (const char *) &one, sizeof(one));
}

int os_net_bind(os_socket_t s, const os_net_addr_t *addr) {
    return bind((SOCKET) s, (const sockaddr *) addr->data, (int) addr->len) == 0 ? 0 : WSAGetLastError();
}

int os_net_listen(os_socket_t s, int backlog) {
    return listen((SOCKET) s, backlog) == 0 ? 0 : WSAGetLastError();
}

os_socket_t os_net_accept(os_socket_t listener, os_net_addr_t *peer, int *error) {
    sockaddr_storage ss;
    int len = sizeof(ss);
    SOCKET s = accept((SOCKET) listener, (sockaddr *) &ss, &len);
    if (s == INVALID_SOCKET) {
        int e = WSAGetLastError();
        *error = e == WSAEWOULDBLOCK ? 0 : e;
        return OS_SOCKET_NONE;
    }
    SetHandleInformation((HANDLE) s, HANDLE_FLAG_INHERIT, 0);
    // An accepted socket inherits the listener's selection; the caller selects its own events.
    WSAAsyncSelect(s, nullptr, 0, 0);
    _net_nonblocking(s);
    memset(peer, 0, sizeof(*peer));
    peer->len = (uint32_t) len;
    memcpy(peer->data, &ss, (size_t) len);
    *error = 0;
    return (os_socket_t) s;
}

int os_net_connect(os_socket_t s, const os_net_addr_t *addr, int *error) {
    if (connect((SOCKET) s, (const sockaddr *) addr->data, (int) addr->len) == 0) {
        *error = 0;
        return 0;
    }
    int e = WSAGetLastError();
    if (e == WSAEWOULDBLOCK || e == WSAEINPROGRESS) {
        *error = 0;
        return OS_NET_WOULD_BLOCK;
    }
    *error = e;
    return OS_NET_ERROR;
}

int64_t os_net_recv(os_socket_t s, void *buf, uint32_t n, bool peek, int *error) {
    int r = recv((SOCKET) s, (char *) buf, (int) n, peek ? MSG_PEEK : 0);
    if (r >= 0) {
        *error = 0;
        return r;
    }
    int e = WSAGetLastError();
    if (e == WSAEWOULDBLOCK) {
        *error = 0;
        return OS_NET_WOULD_BLOCK;
    }
    *error = e;
    return OS_NET_ERROR;
}

int64_t os_net_send(os_socket_t s, const void *buf, uint32_t n, int *error) {
    int r = send((SOCKET) s, (const char *) buf, (int) n, 0);
    if (r >= 0) {
        *error = 0;
        return r;
    }
    int e = WSAGetLastError();
    if (e == WSAEWOULDBLOCK) {
        *error = 0;
        return OS_NET_WOULD_BLOCK;
    }
    *error = e;
    return OS_NET_ERROR;
}

int os_net_shutdown_send(os_socket_t s) {
    return shutdown((SOCKET) s, SD_SEND) == 0 ? 0 : WSAGetLastError();
}

// Socket handles are used again at once, so a message still queued for a closed socket would reach the
// next socket with the same value (an old FD_CLOSE ending a new connection). So a socket's notices are
// stopped and the socket is closed only when a marker posted behind its last queued message comes back:
// the thread's posted messages come in order, and until then the value can't be given out again.
void os_net_close(os_socket_t s) {
    if (s == OS_SOCKET_NONE) {
        return;
    }
    for (os_net_window_t *w = windows; w; w = w->next) {
        WSAAsyncSelect((SOCKET) s, w->hwnd, 0, 0);
    }
    if (!windows || !PostMessageW(windows->hwnd, NET_CLOSE_MARKER, (WPARAM) s, 0)) {
        closesocket((SOCKET) s);
    }
}

int os_net_local_address(os_socket_t s, os_net_addr_t *out) {
    int len = sizeof(out->data);
    memset(out, 0, sizeof(*out));
    if (getsockname((SOCKET) s, (sockaddr *) out->data, &len) != 0) {
        return WSAGetLastError();
    }
    out->len = (uint32_t) len;
    return 0;
}

int os_net_peer_address(os_socket_t s, os_net_addr_t *out) {
    int len = sizeof(out->data);
    memset(out, 0, sizeof(*out));
    if (getpeername((SOCKET) s, (sockaddr *) out->data, &len) != 0) {
        return WSAGetLastError();
    }
    out->len = (uint32_t) len;
    return 0;
}

// ---- addresses -----------------------------------------------------------------------------------------

void os_net_addr_text(const os_net_addr_t *a, str_t *out) {
    char buf[INET6_ADDRSTRLEN + 1] = "";
    const sockaddr *sa = (const sockaddr *) a->data;
    if (sa->sa_family == AF_INET) {
        inet_ntop(AF_INET, (void *) &((const sockaddr_in *) sa)->sin_addr, buf, sizeof(buf));
    } else if (sa->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, (void *) &((const sockaddr_in6 *) sa)->sin6_addr, buf, sizeof(buf));
    }
    str_set(out, buf);
}

uint16_t os_net_addr_port(const os_net_addr_t *a) {
    const sockaddr *sa = (const sockaddr *) a->data;
    if (sa->sa_family == AF_INET) {
        return ntohs(((const sockaddr_in *) sa)->sin_port);
    }
    if (sa->sa_family == AF_INET6) {
        return ntohs(((const sockaddr_in6 *) sa)->sin6_port);
    }
    return 0;
}

void os_net_addr_set_port(os_net_addr_t *a, uint16_t port) {
    sockaddr *sa = (sockaddr *) a->data;
    if (sa->sa_family == AF_INET) {
        ((sockaddr_in *) sa)->sin_port = htons(port);
    } else if (sa->sa_family == AF_INET6) {
        ((sockaddr_in6 *) sa)->sin6_port = htons(port);
    }
}

bool os_net_addr_ipv4(const os_net_addr_t *a, uint8_t out[4]) {
    const sockaddr *sa = (const sockaddr *) a->data;
    if (sa->sa_family == AF_INET) {
        memcpy(out, &((const sockaddr_in *) sa)->sin_addr, 4);
        return true;
    }
    if (sa->sa_family == AF_INET6) {
        const uint8_t *b = ((const sockaddr_in6 *) sa)->sin6_addr.s6_addr;
        static const uint8_t mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
        if (memcmp(b, mapped, 12) == 0) {
            memcpy(out, b + 12, 4);
            return true;
        }
    }
    return false;
}

bool os_net_addr_same_host(const os_net_addr_t *a, const os_net_addr_t *b) {
    uint8_t x[4], y[4];
    bool a4 = os_net_addr_ipv4(a, x), b4 = os_net_addr_ipv4(b, y);
    if (a4 || b4) {
        return a4 && b4 && memcmp(x, y, 4) == 0;
    }
    const sockaddr *sa = (const sockaddr *) a->data, *sb = (const sockaddr *) b->data;
    if (sa->sa_family != AF_INET6 || sb->sa_family != AF_INET6) {
        return false;
    }
    return memcmp(&((const sockaddr_in6 *) sa)->sin6_addr, &((const sockaddr_in6 *) sb)->sin6_addr, 16) == 0;
}

bool os_net_addr_parse(const char *text, int family, uint16_t port, os_net_addr_t *out) {
    memset(out, 0, sizeof(*out));
    if (family != OS_NET_INET6) {
        sockaddr_in *sin = (sockaddr_in *) out->data;
        if (inet_pton(AF_INET, text, &sin->sin_addr) == 1) {
            sin->sin_family = AF_INET;
            sin->sin_port = htons(port);
            out->len = sizeof(sockaddr_in);
            return true;
        }
    }
    if (family != OS_NET_INET) {
        sockaddr_in6 *sin6 = (sockaddr_in6 *) out->data;
        if (inet_pton(AF_INET6, text, &sin6->sin6_addr) == 1) {
            sin6->sin6_family = AF_INET6;
            sin6->sin6_port = htons(port);
            out->len = sizeof(sockaddr_in6);
            return true;
        }
    }
    return false;
}

void os_net_show_error(void *parent, const char *text) {
    debug_printf("%s\n", text);
    os_wide_t w;
    os_wide_init(&w, text);
    MessageBoxW((HWND) parent, w.ptr, L"Sablewatch", MB_OK | MB_ICONERROR);
    os_wide_kill(&w);
}
