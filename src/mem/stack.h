// mem_stack_t: a bump allocator for data that all dies together (a rebuild's temporary names, a parse's
// nodes). Small requests come from a chain of blocks of at least 65,536 bytes; a request of 256 bytes or
// more gets a block of its own on a second chain. Nothing is freed singly; mem_stack_kill frees it all.
//
// Invariants:
// - A mem_stack_t of all zero bits is a valid empty stack; kill leaves it so.
// - Every block starts with one pointer-sized link to the next block of its chain.
// - Every returned pointer is aligned to MEM_STACK_ALIGN (8) bytes.
// - No lock; one thread at a time.
#pragma once

#include <cstddef>

#define MEM_STACK_BLOCK 65536
#define MEM_STACK_LARGE 256
#define MEM_STACK_ALIGN 8

struct mem_stack_t {
    void *blocks;       // chain of small-request blocks, newest first
    char *current;      // next free byte of the newest small block
    char *end;          // end of the newest small block
    void *large_blocks; // chain of single large blocks, newest first
};

void mem_stack_init(mem_stack_t *s);
// Frees every block of both chains.
void mem_stack_kill(mem_stack_t *s);
// size bytes, uninitialised, living until mem_stack_kill. Never null (out of memory is fatal).
void *mem_stack_alloc(mem_stack_t *s, size_t size);
// A copy of n bytes followed by a zero.
char *mem_stack_dup(mem_stack_t *s, const void *ptr, size_t n);
