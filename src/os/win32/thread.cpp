// Locks, manual-reset events and raw threads on Windows. An event pointer is the event handle itself.
#include "os/os_internal.h"
#include "os/win32/wide.h"

#include <objbase.h>

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(os_lock_t), "os_lock_t too small for a critical section");

static CRITICAL_SECTION *_os_cs(os_lock_t *lock) {
    return (CRITICAL_SECTION *) lock->opaque;
}

void os_lock_init(os_lock_t *lock) {
    InitializeCriticalSection(_os_cs(lock));
}

void os_lock_kill(os_lock_t *lock) {
    DeleteCriticalSection(_os_cs(lock));
}

void os_lock_enter(os_lock_t *lock) {
    EnterCriticalSection(_os_cs(lock));
}

void os_lock_leave(os_lock_t *lock) {
    LeaveCriticalSection(_os_cs(lock));
}

os_event_t *os_event_create(bool initially_set) {
    HANDLE h = CreateEventW(nullptr, TRUE, initially_set ? TRUE : FALSE, nullptr);
    if (!h) {
        debug_fatal(__FILE__, __LINE__, "os_event_create", "CreateEvent failed %u", GetLastError());
    }
    return (os_event_t *) h;
}

void os_event_destroy(os_event_t *e) {
    if (e) {
        CloseHandle((HANDLE) e);
    }
}

void os_event_set(os_event_t *e) {
    SetEvent((HANDLE) e);
}

void os_event_reset(os_event_t *e) {
    ResetEvent((HANDLE) e);
}

bool os_event_wait(os_event_t *e, uint32_t timeout_ms) {
    return WaitForSingleObject((HANDLE) e, timeout_ms) == WAIT_OBJECT_0;
}

struct os_raw_thread_t {
    HANDLE handle;
    os_thread_proc_t proc;
    void *arg;
};

static DWORD WINAPI _os_raw_thread_proc(void *arg) {
    os_raw_thread_t *t = (os_raw_thread_t *) arg;
    t->proc(t->arg);
    return 0;
}

os_raw_thread_t *os_raw_thread_start(os_thread_proc_t proc, void *arg) {
    os_raw_thread_t *t = (os_raw_thread_t *) mem_alloc(sizeof(os_raw_thread_t));
    t->proc = proc;
    t->arg = arg;
    t->handle = CreateThread(nullptr, 0, _os_raw_thread_proc, t, 0, nullptr);
    if (!t->handle) {
        DWORD error = GetLastError();
        mem_free(t);
        SetLastError(error);
        return nullptr;
    }
    return t;
}

void os_raw_thread_join(os_raw_thread_t *t) {
    if (!t) {
        return;
    }
    WaitForSingleObject(t->handle, INFINITE);
    CloseHandle(t->handle);
    mem_free(t);
}

void os_raw_thread_set_priority(os_raw_thread_t *t, int priority) {
    if (t) {
        SetThreadPriority(t->handle, priority);
    }
}

void os_sleep_ms(uint32_t ms) {
    Sleep(ms);
}

uint32_t os_thread_id() {
    return GetCurrentThreadId();
}

// Pooled threads run shell calls (icons, context menus, file operations), which need COM on the thread.
int os_thread_enter() {
    HRESULT hr = CoInitializeEx(nullptr, 2);
    if (FAILED(hr)) {
        debug_printf("CoInitializeEx failed %08x\n", (unsigned) hr);
        return 0;
    }
    return 1;
}

void os_thread_leave(int token) {
    if (token) {
        CoUninitialize();
    }
}
