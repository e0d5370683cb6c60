// The main thread's loop on Windows: a hidden top-level window receives the event wake-up message and
// the command lines of later instances (WM_COPYDATA); the instance lock is a named mutex.
#include "os/os_main.h"

#include <windows.h>

#include <ole2.h>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

// The hidden window's message that tells it the event queue is no longer empty.
#define MAINLOOP_WM_EVENT 5121
// dwData of a WM_COPYDATA that carries a command line.
#define SABLEWATCH_IPC_COPYDATA_COMMAND_LINE_UTF8 0

static HWND hidden_window = nullptr;
static ATOM window_class = 0;
static wchar_t *class_name_w = nullptr;
static os_main_procs_t procs;

// UTF-8 to a new zero-terminated UTF-16 block, freed with mem_free.
static wchar_t *_mainloop_wide(const char *text) {
    wstr_t w;
    wstr_init(&w);
    wstr_set_utf8(&w, text, -1);
    wchar_t *out = (wchar_t *) mem_alloc(((size_t) w.len + 1) * sizeof(wchar_t));
    memcpy(out, w.ptr, (size_t) w.len * sizeof(wchar_t));
    out[w.len] = 0;
    wstr_kill(&w);
    return out;
}

static LRESULT CALLBACK _mainloop_window_proc(HWND hwnd, UINT msg, WPARAM wparam, LPARAM lparam) {
    if (msg == MAINLOOP_WM_EVENT) {
        if (procs.wake) {
            procs.wake();
        }
        return 0;
    }
    if (msg == WM_QUERYENDSESSION) {
        return TRUE;
    }
    if (msg == WM_ENDSESSION) {
        if (procs.end_session) {
            procs.end_session(wparam != 0);
        }
        return 0;
    }
    if (msg == WM_COPYDATA) {
        const COPYDATASTRUCT *cds = (const COPYDATASTRUCT *) lparam;
        if (cds && cds->dwData == SABLEWATCH_IPC_COPYDATA_COMMAND_LINE_UTF8 && procs.command_line) {
            return procs.command_line(cds->lpData, cds->cbData) ? TRUE : FALSE;
        }
        return FALSE;
    }
    return DefWindowProcW(hwnd, msg, wparam, lparam);
}

bool os_main_loop_create(const char *class_name, const char *file_name, const os_main_procs_t *p) {
    (void) file_name;
    procs = *p;
    class_name_w = _mainloop_wide(class_name);
    WNDCLASSEXW wc = {};
    wc.cbSize = sizeof(wc);
    wc.lpfnWndProc = _mainloop_window_proc;
    wc.hInstance = GetModuleHandleW(nullptr);
    wc.lpszClassName = class_name_w;
    window_class = RegisterClassExW(&wc);
    if (!window_class) {
        debug_printf("RegisterClassExW: %u\n", (unsigned) GetLastError());
        os_main_loop_destroy();
        return false;
    }
    // A top-level window without size or parent, never shown: later instances find it by its class.
    hidden_window =
        CreateWindowExW(0, class_name_w, L"", 0, 0, 0, 0, 0, nullptr, nullptr, wc.hInstance, nullptr);
    if (!hidden_window) {
        // A session without a desktop (no display driver under Wine, for one) refuses top-level windows
        // but may still have message-only ones; later instances look for those too.
        debug_printf("CreateWindowExW: %u, trying a message-only window\n", (unsigned) GetLastError());
        hidden_window = CreateWindowExW(0, class_name_w, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                        wc.hInstance, nullptr);
    }
    if (!hidden_window) {
        debug_printf("CreateWindowExW: %u\n", (unsigned) GetLastError());
        os_main_loop_destroy();
        return false;
    }
    return true;
}

void os_main_loop_destroy() {
    if (hidden_window) {
        HWND h = hidden_window;
        hidden_window = nullptr;
        DestroyWindow(h);
    }
    if (window_class) {
        UnregisterClassW(class_name_w, GetModuleHandleW(nullptr));
        window_class = 0;
    }
    mem_free(class_name_w);
    class_name_w = nullptr;
}

void os_main_wake() {
    HWND h = hidden_window;
    if (h) {
        PostMessageW(h, MAINLOOP_WM_EVENT, 0, 0);
    }
}

int os_main_pump() {
    MSG msg;
    if (!PeekMessageW(&msg, nullptr, 0, 0, PM_NOREMOVE)) {
        return 0;
    }
    if (debug_verbose) {
        debug_color_printf((int32_t) 0xFF00FF00, "MSG: %p %04x %p %p\n", (void *) msg.hwnd,
                           (unsigned) msg.message, (void *) msg.wParam, (void *) msg.lParam);
    }
    if (msg.message == WM_QUIT) {
        return -1;
    }
    BOOL r = GetMessageW(&msg, nullptr, 0, 0);
    if (r == 0 || r == -1) {
        return -1;
    }
    TranslateMessage(&msg);
    DispatchMessageW(&msg);
    return 1;
}

void os_main_wait() {
    WaitMessage();
}

// ---- descriptors and timers -----------------------------------------------------------------------------

bool os_main_fd_watch(intptr_t fd, uint32_t interest, os_main_fd_proc_t proc, void *context) {
    (void) fd;
    (void) interest;
    (void) proc;
    (void) context;
    return false;
}

void os_main_fd_unwatch(intptr_t fd) {
    (void) fd;
}

// Thread timers of the main thread: WM_TIMER reaches the timer procedure through DispatchMessageW in the
// pump, with the id SetTimer chose, which finds the record.
struct os_main_timer_t {
    os_main_timer_t *next;
    UINT_PTR id;
    void (*proc)(void *);
    void *context;
    bool periodic;
};
static os_main_timer_t *timers = nullptr;

static void CALLBACK _mainloop_timer_proc(HWND hwnd, UINT msg, UINT_PTR id, DWORD time) {
    (void) hwnd;
    (void) msg;
    (void) time;
    for (os_main_timer_t *t = timers; t; t = t->next) {
        if (t->id == id) {
            if (!t->periodic) {
                KillTimer(nullptr, t->id);
                t->id = 0;
            }
            t->proc(t->context);
            return;
        }
    }
}

os_main_timer_t *os_main_timer_start(uint32_t ms, bool periodic, void (*proc)(void *), void *context) {
    os_main_timer_t *t = (os_main_timer_t *) mem_alloc(sizeof(os_main_timer_t));
    t->proc = proc;
    t->context = context;
    t->periodic = periodic;
    t->id = SetTimer(nullptr, 0, ms ? ms : 1, _mainloop_timer_proc);
    if (!t->id) {
        debug_printf("SetTimer: %u\n", (unsigned) GetLastError());
    }
    t->next = timers;
    timers = t;
    return t;
}

void os_main_timer_stop(os_main_timer_t *timer) {
    for (os_main_timer_t **p = &timers; *p; p = &(*p)->next) {
        if (*p == timer) {
            *p = timer->next;
            if (timer->id) {
                KillTimer(nullptr, timer->id);
            }
            mem_free(timer);
            return;
        }
    }
}

// ---- instance lock -------------------------------------------------------------------------------------

struct os_instance_lock_t {
    HANDLE mutex;
};

os_instance_lock_t *os_instance_lock_create(const char *name, const char *file_name, bool *existed) {
    (void) file_name;
    wchar_t *w = _mainloop_wide(name);
    HANDLE h = CreateMutexW(nullptr, FALSE, w);
    DWORD error = GetLastError();
    mem_free(w);
    *existed = false;
    if (!h) {
        return nullptr;
    }
    *existed = error == ERROR_ALREADY_EXISTS;
    os_instance_lock_t *lock = (os_instance_lock_t *) mem_alloc(sizeof(os_instance_lock_t));
    lock->mutex = h;
    return lock;
}

void os_instance_lock_destroy(os_instance_lock_t *lock) {
    if (!lock) {
        return;
    }
    CloseHandle(lock->mutex);
    mem_free(lock);
}

// ---- hand-over, sending side ---------------------------------------------------------------------------

struct os_main_peer_t {
    HWND hwnd;
};

os_main_peer_t *os_main_peer_find(const char *class_name, const char *file_name) {
    (void) file_name;
    wchar_t *w = _mainloop_wide(class_name);
    HWND hwnd = FindWindowW(w, nullptr);
    if (!hwnd) {
        hwnd = FindWindowExW(HWND_MESSAGE, nullptr, w, nullptr);
    }
    mem_free(w);
    if (!hwnd) {
        return nullptr;
    }
    // The running instance may have to bring a search window to the front for this command line.
    DWORD pid = 0;
    GetWindowThreadProcessId(hwnd, &pid);
    if (pid) {
        AllowSetForegroundWindow(pid);
    }
    os_main_peer_t *peer = (os_main_peer_t *) mem_alloc(sizeof(os_main_peer_t));
    peer->hwnd = hwnd;
    return peer;
}

bool os_main_peer_send(os_main_peer_t *peer, const void *block, uint32_t size, uint32_t timeout_ms) {
    COPYDATASTRUCT cds;
    cds.dwData = SABLEWATCH_IPC_COPYDATA_COMMAND_LINE_UTF8;
    cds.cbData = size;
    cds.lpData = (void *) block;
    DWORD_PTR result = 0;
    LRESULT r = SendMessageTimeoutW(peer->hwnd, WM_COPYDATA, 0, (LPARAM) &cds,
                                    SMTO_BLOCK | SMTO_NOTIMEOUTIFNOTHUNG, timeout_ms, &result);
    return r != 0 && result != 0;
}

void os_main_peer_close(os_main_peer_t *peer) {
    mem_free(peer);
}

static bool ole_on = false;

uint32_t os_main_ole_init() {
    HRESULT r = OleInitialize(nullptr);
    ole_on = SUCCEEDED(r);
    return (uint32_t) r;
}

void os_main_ole_kill() {
    if (ole_on) {
        OleUninitialize();
        ole_on = false;
    }
}

// ---- child processes -----------------------------------------------------------------------------------

struct os_process_t {
    HANDLE process;
};

// The child is this program, which reads its raw command line with its own tokeniser: the arguments are
// quoted by that tokeniser's rule, so that a switch stays unquoted and a text comes back as it was.
static void _mainloop_quote(str_t *cl, const char *arg) {
    str_cat_char(cl, ' ');
    os_main_quote_arg(cl, arg);
}

os_process_t *os_process_start(const char *exe, const char *const *args, int count) {
    str_t cl;
    str_init(&cl);
    _mainloop_quote(&cl, exe);
    for (int i = 0; i < count; i++) {
        _mainloop_quote(&cl, args[i]);
    }
    wchar_t *wexe = _mainloop_wide(exe);
    wchar_t *wcl = _mainloop_wide(cl.ptr + 1);
    str_kill(&cl);
    STARTUPINFOW si = {};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi = {};
    BOOL ok = CreateProcessW(wexe, wcl, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi);
    mem_free(wexe);
    mem_free(wcl);
    if (!ok) {
        return nullptr;
    }
    CloseHandle(pi.hThread);
    os_process_t *p = (os_process_t *) mem_alloc(sizeof(os_process_t));
    p->process = pi.hProcess;
    return p;
}

bool os_process_wait(os_process_t *p, uint32_t timeout_ms, int *exit_code) {
    if (WaitForSingleObject(p->process, timeout_ms) != WAIT_OBJECT_0) {
        return false;
    }
    DWORD code = 0;
    GetExitCodeProcess(p->process, &code);
    *exit_code = (int) code;
    return true;
}

struct mainloop_end_t {
    DWORD pid;
    int sent;
};

static void _mainloop_end_window(HWND hwnd, mainloop_end_t *end) {
    DWORD pid = 0;
    GetWindowThreadProcessId(hwnd, &pid);
    if (pid != end->pid) {
        return;
    }
    DWORD_PTR result = 0;
    SendMessageTimeoutW(hwnd, WM_QUERYENDSESSION, 0, ENDSESSION_LOGOFF, SMTO_BLOCK, 30000, &result);
    if (SendMessageTimeoutW(hwnd, WM_ENDSESSION, TRUE, ENDSESSION_LOGOFF, SMTO_BLOCK, 30000, &result)) {
        end->sent++;
    }
}

static BOOL CALLBACK _mainloop_end_proc(HWND hwnd, LPARAM lparam) {
    _mainloop_end_window(hwnd, (mainloop_end_t *) lparam);
    return TRUE;
}

bool os_process_request_end(os_process_t *p) {
    mainloop_end_t end = {GetProcessId(p->process), 0};
    EnumWindows(_mainloop_end_proc, (LPARAM) &end);
    // A session without a desktop leaves the program a message-only window, which EnumWindows skips.
    for (HWND h = FindWindowExW(HWND_MESSAGE, nullptr, nullptr, nullptr); h;
         h = FindWindowExW(HWND_MESSAGE, h, nullptr, nullptr)) {
        _mainloop_end_window(h, &end);
    }
    return end.sent > 0;
}

void os_process_destroy(os_process_t *p) {
    if (!p) {
        return;
    }
    if (WaitForSingleObject(p->process, 0) != WAIT_OBJECT_0) {
        TerminateProcess(p->process, 1);
        WaitForSingleObject(p->process, 5000);
    }
    CloseHandle(p->process);
    mem_free(p);
}
