// Address space on Linux. A reservation is an inaccessible, unaccounted mapping; committing opens pages
// for reading and writing, and the kernel hands out zero pages on first touch. Decommitting maps fresh
// inaccessible pages over the range, which drops the old pages so that a later commit sees zeros again.
#include "os/os_internal.h"

#include <sys/mman.h>
#include <unistd.h>

static size_t _os_page_size() {
    static const long size = sysconf(_SC_PAGESIZE);
    return size > 0 ? (size_t) size : 4096;
}

// Widens [ptr, ptr + size) to whole pages.
static void _os_page_range(void *ptr, size_t size, char **start, size_t *len) {
    size_t page = _os_page_size();
    uintptr_t a = (uintptr_t) ptr & ~(uintptr_t) (page - 1);
    uintptr_t b = ((uintptr_t) ptr + size + page - 1) & ~(uintptr_t) (page - 1);
    *start = (char *) a;
    *len = (size_t) (b - a);
}

void *os_vm_reserve(size_t size) {
    void *p = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

#ifdef MADV_POPULATE_WRITE
#define OS_MADV_POPULATE_WRITE MADV_POPULATE_WRITE
#else
#define OS_MADV_POPULATE_WRITE 23 // the kernel's value; older C library headers lack the name
#endif

bool os_vm_commit(void *ptr, size_t size) {
    char *start;
    size_t len;
    _os_page_range(ptr, size, &start, &len);
    if (mprotect(start, len, PROT_READ | PROT_WRITE) != 0)
        return false;
    // Committed memory is written at once (the arena commits a block when it hands out its first bytes),
    // so the pages are made present in one call rather than by a fault per page: a large index build or
    // load spends a third of its time in page faults otherwise. Kernels before 5.14 refuse the advice,
    // and the pages then come by faults as before.
    madvise(start, len, OS_MADV_POPULATE_WRITE);
    return true;
}

void os_vm_decommit(void *ptr, size_t size) {
    char *start;
    size_t len;
    _os_page_range(ptr, size, &start, &len);
    mmap(start, len, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}

void os_vm_release(void *ptr, size_t size) {
    if (ptr) {
        munmap(ptr, size);
    }
}

void *os_vm_alloc(size_t size) {
    void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

void os_vm_free(void *ptr, size_t size) {
    if (ptr) {
        munmap(ptr, size);
    }
}
