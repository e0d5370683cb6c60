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

// What recv or send gave: the byte count, OS_NET_WOULD_BLOCK, or OS_NET_ERROR with the error in *error.
static int64_t _net_io_result(int r, int *error) {
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

int64_t os_net_recv(os_socket_t s, void *buf, uint32_t n, bool peek, int *error) {
    return _net_io_result(recv((SOCKET) s, (char *) buf, (int) n, peek ? MSG_PEEK : 0), error);
}

int64_t os_net_send(os_socket_t s, const void *buf, uint32_t n, int *error) {
    return _net_io_result(send((SOCKET) s, (const char *) buf, (int) n, 0), error);
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

void os_net_show_error(void *parent, const char *text) {
    debug_printf("%s\n", text);
    os_wide_t w;
    os_wide_init(&w, text);
    MessageBoxW((HWND) parent, w.ptr, L"Sablewatch", MB_OK | MB_ICONERROR);
    os_wide_kill(&w);
}
