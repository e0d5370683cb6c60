// The allocator. Everything goes to the C heap: it is thread-safe on both targets and nothing in the
// program needs a heap of its own. The fatal texts keep the location that the support staff know from the
// log ("mem.c", lines 734 and 776), whatever file this code lives in now.
#include <cstdlib>
#include <cstring>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

void *mem_alloc(size_t size) {
    void *p = malloc(size ? size : 1);
    if (!p) {
        debug_fatal("mem.c", 734, "mem_alloc", "out of memory %p", size);
    }
    return p;
}

void *mem_try_alloc(size_t size) {
    return malloc(size ? size : 1);
}

void *mem_realloc(void *ptr, size_t size) {
    void *p = realloc(ptr, size ? size : 1);
    if (!p) {
        debug_fatal("mem.c", 734, "mem_alloc", "out of memory %p", size);
    }
    return p;
}

// The C heap has no failure to report here (a bad pointer is undefined, not an error code), so the
// "Failed to free" line of a Windows heap never arises.
void mem_free(void *ptr) {
    free(ptr);
}

void *mem_virtual_alloc(size_t size) {
    void *p = os_vm_alloc(size);
    if (!p) {
        debug_fatal("mem.c", 776, "mem_virtual_alloc", "out of memory, size: %p, error: %u", size,
                    os_last_error());
    }
    return p;
}

void mem_virtual_free(void *ptr, size_t size) {
    if (ptr) {
        os_vm_free(ptr, size);
    }
}

char *mem_dup(const void *ptr, size_t n) {
    char *p = (char *) mem_alloc(n + 1);
    if (n) {
        memcpy(p, ptr, n);
    }
    p[n] = 0;
    return p;
}
