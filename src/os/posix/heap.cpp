// The heap on Linux: the C library's, which is thread-safe and reports no failure when a block is freed.
#include "os/os_internal.h"

#include <errno.h>
#include <stdlib.h>

void *os_heap_alloc(size_t size) {
    return malloc(size ? size : 1);
}

void *os_heap_realloc(void *ptr, size_t size) {
    return realloc(ptr, size ? size : 1);
}

bool os_heap_free(void *ptr) {
    if (!ptr) {
        return true;
    }
    if (os_hooks.heap_free_fails && os_hooks.heap_free_fails(ptr)) {
        errno = EINVAL;
        return false;
    }
    free(ptr);
    return true;
}

uintptr_t os_heap_handle() {
    return 0;
}
