// The heap on Windows: the process heap, which serialises its callers itself. HeapFree reports a block
// it refuses (one that isn't its own, or a damaged heap) instead of ending the process.
#include "os/os_internal.h"

#include <windows.h>

void *os_heap_alloc(size_t size) {
    return HeapAlloc(GetProcessHeap(), 0, size ? size : 1);
}

void *os_heap_realloc(void *ptr, size_t size) {
    if (!ptr) {
        return os_heap_alloc(size);
    }
    return HeapReAlloc(GetProcessHeap(), 0, ptr, size ? size : 1);
}

bool os_heap_free(void *ptr) {
    if (!ptr) {
        return true;
    }
    if (os_hooks.heap_free_fails && os_hooks.heap_free_fails(ptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    return HeapFree(GetProcessHeap(), 0, ptr) != 0;
}

uintptr_t os_heap_handle() {
    return (uintptr_t) GetProcessHeap();
}
