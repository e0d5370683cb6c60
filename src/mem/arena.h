// The record arena: one range of address space, reserved once, in which every record of every index and
// every mem_array chunk lives, so that a 32-bit reference can name any of them in a 64-bit process.
//
// Invariants:
// - A reference (mem_ref_t) is the byte offset in the arena divided by 4; 0 is null. Records are therefore
//   4-byte aligned, and 16 GiB of arena is the most a 32-bit reference can address.
// - The arena is committed in blocks of MEM_ARENA_BLOCK (65,536) bytes. The first block is never handed
//   out, so no live object has offset 0 and reference 0 stays null.
// - Blocks come back through mem_arena_free_block and are reused before the arena grows. A reused block is
//   zeroed again, like a fresh one.
// - mem_arena_alloc_block and mem_arena_free_block take a lock and may be called from any thread; the
//   conversions mem_ptr and mem_ref are pure arithmetic.
#pragma once

#include <cstddef>
#include <cstdint>

typedef uint32_t mem_ref_t;

#define MEM_ARENA_BLOCK 65536u

// Base of the reservation; null until the arena is initialised.
extern char *mem_arena_base;

// Reserves the arena: 16 GiB, halving on refusal down to 1 GiB; below that it is fatal. Does nothing if
// the arena is already up. Called once at start; the first block allocation calls it if nobody did.
void mem_arena_init();
// Releases the whole reservation. Every reference becomes invalid. Only for the end of the process and
// for tests.
void mem_arena_kill();

// Bytes reserved (0 before init), and blocks handed out and not yet freed; for the log and for tests.
size_t mem_arena_reserved();
size_t mem_arena_blocks_in_use();

// A committed, zeroed block of 65,536 bytes, named by the reference of its first byte. Fatal when the
// arena is full or the platform refuses to commit.
mem_ref_t mem_arena_alloc_block();
// Gives a block from mem_arena_alloc_block back for reuse. 0 is ignored.
void mem_arena_free_block(mem_ref_t block);

// Reference to pointer: null for 0.
inline void *mem_ptr(mem_ref_t r) {
    return r ? mem_arena_base + ((size_t) r << 2) : nullptr;
}

// Pointer into the arena to reference: 0 for null. p must be 4-byte aligned and inside the arena.
inline mem_ref_t mem_ref(const void *p) {
    return p ? (mem_ref_t) ((size_t) ((const char *) p - mem_arena_base) >> 2) : 0;
}

// The order of references by value, the one sets of references are sorted in (fits os_qsort).
inline int mem_ref_compare(uint32_t a, uint32_t b) {
    return a < b ? -1 : a > b;
}

// The position of r in refs[0..n), sorted by mem_ref_compare; UINT32_MAX when r isn't there.
inline uint32_t mem_refs_find(const mem_ref_t *refs, uint32_t n, mem_ref_t r) {
    uint32_t lo = 0, hi = n;
    while (lo < hi) {
        uint32_t mid = (lo + hi) / 2;
        if (refs[mid] < r)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo < n && refs[lo] == r ? lo : UINT32_MAX;
}
