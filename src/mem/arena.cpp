// The record arena. One reservation made at start, committed block by block as the index grows; freed
// blocks wait on a free list linked through their first word and are handed out again before the arena
// grows. Query threads allocate result arrays while the main thread may build, hence the lock.
#include <cstring>

#include "debug/debug.h"
#include "mem/arena.h"
#include "os/os.h"

char *mem_arena_base = nullptr;

struct arena_state_t {
    size_t reserved;  // bytes of address space
    size_t committed; // bytes from the base that are committed, a whole number of blocks
    mem_ref_t free;   // first free block; each links the next through its first word
    size_t in_use;    // blocks handed out and not given back
};

static arena_state_t arena;

// The lock must exist before the first allocation, which may come from any thread and before any
// explicit start-up; a function-local static is made exactly once, thread-safely.
static os_lock_t *_arena_lock() {
    static os_lock_t lock;
    static bool made = (os_lock_init(&lock), true);
    (void) made;
    return &lock;
}

static const size_t ARENA_MAX = (size_t) 16 << 30;
static const size_t ARENA_MIN = (size_t) 1 << 30;

static void _arena_init_locked() {
    if (mem_arena_base) {
        return;
    }
    for (size_t size = ARENA_MAX; size >= ARENA_MIN; size >>= 1) {
        void *p = os_vm_reserve(size);
        if (p) {
            mem_arena_base = (char *) p;
            arena.reserved = size;
            // The first block stays unused so that no object has offset 0, which is the null reference.
            arena.committed = MEM_ARENA_BLOCK;
            arena.free = 0;
            arena.in_use = 0;
            return;
        }
    }
    debug_fatal("mem.c", 776, "mem_arena_init", "out of memory, size: %p, error: %u", ARENA_MIN,
                os_last_error());
}

void mem_arena_init() {
    os_lock_guard guard(_arena_lock());
    _arena_init_locked();
}

void mem_arena_kill() {
    os_lock_guard guard(_arena_lock());
    if (mem_arena_base) {
        os_vm_release(mem_arena_base, arena.reserved);
    }
    mem_arena_base = nullptr;
    arena = arena_state_t{};
}

size_t mem_arena_reserved() {
    os_lock_guard guard(_arena_lock());
    return arena.reserved;
}

size_t mem_arena_blocks_in_use() {
    os_lock_guard guard(_arena_lock());
    return arena.in_use;
}

mem_ref_t mem_arena_alloc_block() {
    os_lock_guard guard(_arena_lock());
    _arena_init_locked();
    if (arena.free) {
        mem_ref_t r = arena.free;
        char *p = (char *) mem_ptr(r);
        memcpy(&arena.free, p, sizeof(mem_ref_t));
        memset(p, 0, MEM_ARENA_BLOCK);
        arena.in_use++;
        return r;
    }
    if (arena.committed + MEM_ARENA_BLOCK > arena.reserved) {
        debug_fatal("mem.c", 776, "mem_arena_alloc_block", "out of memory, size: %p, error: %u",
                    arena.reserved, 0u);
    }
    char *p = mem_arena_base + arena.committed;
    if (!os_vm_commit(p, MEM_ARENA_BLOCK)) {
        debug_fatal("mem.c", 776, "mem_arena_alloc_block", "out of memory, size: %p, error: %u",
                    (size_t) MEM_ARENA_BLOCK, os_last_error());
    }
    arena.committed += MEM_ARENA_BLOCK;
    arena.in_use++;
    return mem_ref(p);
}

void mem_arena_free_block(mem_ref_t block) {
    if (!block) {
        return;
    }
    os_lock_guard guard(_arena_lock());
    memcpy(mem_ptr(block), &arena.free, sizeof(mem_ref_t));
    arena.free = block;
    arena.in_use--;
}
