// Tree watches on ReadDirectoryChangesW: the folder opened for listing, one overlapped read always
// pending on it, subtree on. The read's event is manual-reset: the completed read leaves it set, so the
// watch stays ready for a wait until os_dirwatch_read takes the entries and issues the next read, which
// resets it. The stop object's event is first in every wait, so it wins over any watch.
#include "mem/mem.h"
#include "os/os_dirwatch.h"
#include "os/os_internal.h"
#include "os/win32/wide.h"

// File name, folder name, attributes, size, last write and creation: FILE_NOTIFY_CHANGE_* 0x5F.
#define RDC_FILTER                                                                                           \
    (FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_DIR_NAME | FILE_NOTIFY_CHANGE_ATTRIBUTES |            \
     FILE_NOTIFY_CHANGE_SIZE | FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_CREATION)

struct os_dirwatch_t {
    HANDLE dir;
    OVERLAPPED overlapped; // its hEvent is the manual-reset event the wait uses
    void *buffer;          // buffer_size bytes, DWORD-aligned as the call requires
    uint32_t buffer_size;
    bool pending; // a read is issued and not yet taken
    bool refused; // the server refused the buffer size: every read says so until re-created
    os_dirwatch_fault_t fault;
};

// Issues the next read. False with GetLastError() set when it can't be; a refused buffer size is
// remembered and the event set, so that the wait wakes and the read says so.
static bool _rdc_issue(os_dirwatch_t *w) {
    if (ReadDirectoryChangesW(w->dir, w->buffer, w->buffer_size, TRUE, RDC_FILTER, nullptr, &w->overlapped,
                              nullptr)) {
        w->pending = true;
        return true;
    }
    DWORD error = GetLastError();
    if (error == ERROR_INVALID_PARAMETER) {
        w->refused = true;
        SetEvent(w->overlapped.hEvent);
    }
    SetLastError(error);
    return false;
}

os_dirwatch_t *os_dirwatch_create(const char *folder, uint32_t buffer_size, uint32_t flags) {
    os_wide_t path;
    os_wide_init(&path, folder);
    HANDLE dir =
        CreateFileW(path.ptr, FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OVERLAPPED, nullptr);
    os_wide_kill(&path);
    if (dir == INVALID_HANDLE_VALUE) {
        return nullptr;
    }
    HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!event) {
        DWORD error = GetLastError();
        CloseHandle(dir);
        SetLastError(error);
        return nullptr;
    }
    os_dirwatch_t *w = (os_dirwatch_t *) mem_alloc(sizeof(os_dirwatch_t));
    memset(w, 0, sizeof(*w));
    w->dir = dir;
    w->overlapped.hEvent = event;
    w->buffer_size = buffer_size;
    w->buffer = mem_alloc(buffer_size ? buffer_size : 1);
    // A refused size is not a failure to create: the first read reports it, the one place the caller
    // handles it.
    if (!_rdc_issue(w) && !w->refused) {
        DWORD error = GetLastError();
        os_dirwatch_destroy(w);
        SetLastError(error);
        return nullptr;
    }
    return w;
}

void os_dirwatch_destroy(os_dirwatch_t *w) {
    if (!w) {
        return;
    }
    if (w->pending) {
        // The kernel writes into the buffer until the read is over: cancel it and wait for it to end.
        DWORD n;
        CancelIoEx(w->dir, &w->overlapped);
        GetOverlappedResult(w->dir, &w->overlapped, &n, TRUE);
    }
    CloseHandle(w->dir);
    CloseHandle(w->overlapped.hEvent);
    mem_free(w->buffer);
    mem_free(w);
}

bool os_dirwatch_error_is_limit(uint32_t error) {
    return false;
}

const char *os_dirwatch_mechanism(const os_dirwatch_t *w) {
    return "ReadDirectoryChangesW";
}

const os_dirwatch_fault_t *os_dirwatch_fault(const os_dirwatch_t *w) {
    return &w->fault;
}

int os_dirwatch_read(os_dirwatch_t *w, os_dirwatch_callback_t callback, void *ctx) {
    w->fault = {OS_DIRWATCH_FAULT_NONE, 0, 0};
    if (w->refused) {
        return OS_DIRWATCH_BUFFER_REFUSED;
    }
    if (!w->pending) {
        // The last read's re-issue failed; the watch was reported broken then.
        return OS_DIRWATCH_BROKEN;
    }
    DWORD got = 0;
    int result = OS_DIRWATCH_OK;
    if (!GetOverlappedResult(w->dir, &w->overlapped, &got, FALSE)) {
        DWORD error = GetLastError();
        if (error == ERROR_IO_INCOMPLETE) {
            return OS_DIRWATCH_OK;
        }
        w->pending = false;
        if (error == ERROR_INVALID_PARAMETER) {
            w->refused = true;
            return OS_DIRWATCH_BUFFER_REFUSED;
        }
        // The system's own word for a buffer that overflowed; anything else ends the watch.
        if (error != ERROR_NOTIFY_ENUM_DIR) {
            SetLastError(error);
            return OS_DIRWATCH_BROKEN;
        }
        result = OS_DIRWATCH_OVERFLOW;
    } else {
        w->pending = false;
        // Walked before the next read is issued into the same buffer. 0 bytes is the overflow.
        result = os_dirwatch_walk_rdc(w->buffer, got, callback, ctx, &w->fault);
    }
    if (!_rdc_issue(w)) {
        return w->refused ? OS_DIRWATCH_BUFFER_REFUSED : OS_DIRWATCH_BROKEN;
    }
    return result;
}

static uintptr_t _dirwatch_event(const void *item) {
    return (uintptr_t) ((const os_dirwatch_t *) item)->overlapped.hEvent;
}

int os_dirwatch_wait(os_watch_stop_t *stop, os_dirwatch_t *const *watches, int count, uint32_t timeout_ms) {
    return os_win32_wait_events(stop, (const void *const *) watches, count, _dirwatch_event, timeout_ms);
}
