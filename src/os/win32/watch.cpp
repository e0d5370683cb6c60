// Folder watches on change notification handles: FindFirstChangeNotificationW on the folder alone, for
// names and last writes, re-armed with FindNextChangeNotification. The handle is signalled from the
// first change until it is re-armed, which is the contract of os_watch_poll. The stop object is a
// manual-reset event, first in every wait so that it wins over any watch.
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/os_watch.h"
#include "os/win32/wide.h"

struct os_watch_t {
    HANDLE handle;
};

struct os_watch_stop_t {
    HANDLE event;
};

os_watch_t *os_watch_create(const char *folder) {
    os_wide_t w;
    os_wide_init(&w, folder);
    HANDLE h = FindFirstChangeNotificationW(w.ptr, FALSE,
                                            FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_LAST_WRITE);
    os_wide_kill(&w);
    if (h == INVALID_HANDLE_VALUE || h == nullptr) {
        return nullptr;
    }
    os_watch_t *watch = (os_watch_t *) mem_alloc(sizeof(os_watch_t));
    watch->handle = h;
    return watch;
}

void os_watch_destroy(os_watch_t *w) {
    if (w) {
        FindCloseChangeNotification(w->handle);
        mem_free(w);
    }
}

int os_watch_poll(os_watch_t *w) {
    DWORD r = WaitForSingleObject(w->handle, 0);
    if (r == WAIT_TIMEOUT) {
        return OS_WATCH_QUIET;
    }
    if (r != WAIT_OBJECT_0) {
        return OS_WATCH_BROKEN;
    }
    return FindNextChangeNotification(w->handle) ? OS_WATCH_CHANGED : OS_WATCH_BROKEN;
}

os_watch_stop_t *os_watch_stop_create() {
    HANDLE h = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!h) {
        debug_fatal(__FILE__, __LINE__, "os_watch_stop_create", "CreateEvent failed %u",
                    (unsigned) GetLastError());
    }
    os_watch_stop_t *s = (os_watch_stop_t *) mem_alloc(sizeof(os_watch_stop_t));
    s->event = h;
    return s;
}

void os_watch_stop_destroy(os_watch_stop_t *s) {
    if (s) {
        CloseHandle(s->event);
        mem_free(s);
    }
}

void os_watch_stop_set(os_watch_stop_t *s) {
    SetEvent(s->event);
}

bool os_watch_stop_is_set(os_watch_stop_t *s) {
    return WaitForSingleObject(s->event, 0) == WAIT_OBJECT_0;
}

int os_win32_wait_events(os_watch_stop_t *stop, const void *const *items, int count,
                         uintptr_t (*event_of)(const void *item), uint32_t timeout_ms) {
    if (count < 0 || count > OS_WATCH_WAIT_MAX - 1) {
        return OS_WATCH_WAIT_FAILED;
    }
    HANDLE handles[OS_WATCH_WAIT_MAX];
    handles[0] = stop->event;
    for (int i = 0; i < count; i++) {
        handles[i + 1] = (HANDLE) event_of(items[i]);
    }
    // WaitForMultipleObjects reports the lowest signalled index, so the stop event at 0 wins.
    DWORD r = WaitForMultipleObjects((DWORD) count + 1, handles, FALSE, timeout_ms);
    if (r == WAIT_TIMEOUT) {
        return OS_WATCH_WAIT_TIMEOUT;
    }
    if (r == WAIT_OBJECT_0) {
        return OS_WATCH_WAIT_STOP;
    }
    if (r > WAIT_OBJECT_0 && r <= WAIT_OBJECT_0 + (DWORD) count) {
        return (int) (r - WAIT_OBJECT_0) - 1;
    }
    return OS_WATCH_WAIT_FAILED;
}

static uintptr_t _watch_event(const void *item) {
    return (uintptr_t) ((const os_watch_t *) item)->handle;
}

int os_watch_wait(os_watch_stop_t *stop, os_watch_t *const *watches, int count, uint32_t timeout_ms) {
    return os_win32_wait_events(stop, (const void *const *) watches, count, _watch_event, timeout_ms);
}
