// The allocator. Everything goes to the platform's heap (the process heap on Windows, the C heap on
// Linux): it is thread-safe on both targets and nothing in the program needs a heap of its own. The fatal
// texts keep the location that the support staff know from the log ("mem.c", lines 734 and 776), whatever
// file this code lives in now.
#include <cstring>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

void *mem_alloc(size_t size) {
    void *p = os_heap_alloc(size);
    if (!p) {
        debug_fatal("mem.c", 734, "mem_alloc", "out of memory %p", size);
    }
    return p;
}

void *mem_try_alloc(size_t size) {
    return os_heap_alloc(size);
}

void *mem_realloc(void *ptr, size_t size) {
    void *p = os_heap_realloc(ptr, size);
    if (!p) {
        debug_fatal("mem.c", 734, "mem_alloc", "out of memory %p", size);
    }
    return p;
}

// A block the heap refuses is logged and given up: the caller has no use for it any more, and ending the
// program over memory it was done with would lose more than the block.
void mem_free(void *ptr) {
    if (!os_heap_free(ptr)) {
        uint32_t error = os_last_error();
        debug_printf("HeapFree(0x%08x,0,0x%08x): %d: Failed to free.\n", (uint32_t) os_heap_handle(),
                     (uint32_t) (uintptr_t) ptr, (int) error);
    }
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
