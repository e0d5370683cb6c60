// Address space on Windows: reserve, commit and decommit are VirtualAlloc's own three states.
#include "os/os_internal.h"

#include <windows.h>

void *os_vm_reserve(size_t size) {
    return VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_NOACCESS);
}

bool os_vm_commit(void *ptr, size_t size) {
    return VirtualAlloc(ptr, size, MEM_COMMIT, PAGE_READWRITE) != nullptr;
}

void os_vm_decommit(void *ptr, size_t size) {
    VirtualFree(ptr, size, MEM_DECOMMIT);
}

void os_vm_release(void *ptr, size_t size) {
    if (ptr) {
        VirtualFree(ptr, 0, MEM_RELEASE);
    }
}

void *os_vm_alloc(size_t size) {
    return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void os_vm_free(void *ptr, size_t size) {
    if (ptr) {
        VirtualFree(ptr, 0, MEM_RELEASE);
    }
}
