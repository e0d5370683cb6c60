// mem_stack_t: bump allocation out of 64-KiB blocks. Large requests get blocks of their own on a second
// chain so that one big item never wastes the tail of a small block.
#include <cstring>

#include "mem/mem.h"
#include "mem/stack.h"

// Each block begins with the link to the next; the header is rounded so that what follows stays aligned.
#define STACK_HEADER ((sizeof(void *) + MEM_STACK_ALIGN - 1) & ~(size_t) (MEM_STACK_ALIGN - 1))

void mem_stack_init(mem_stack_t *s) {
    memset(s, 0, sizeof(*s));
}

static void _free_chain(void *block) {
    while (block) {
        void *next;
        memcpy(&next, block, sizeof(next));
        mem_free(block);
        block = next;
    }
}

void mem_stack_kill(mem_stack_t *s) {
    _free_chain(s->blocks);
    _free_chain(s->large_blocks);
    memset(s, 0, sizeof(*s));
}

static char *_new_block(void **chain, size_t size) {
    char *block = (char *) mem_alloc(size);
    memcpy(block, chain, sizeof(void *));
    *chain = block;
    return block;
}

void *mem_stack_alloc(mem_stack_t *s, size_t size) {
    size_t need = (size + MEM_STACK_ALIGN - 1) & ~(size_t) (MEM_STACK_ALIGN - 1);
    if (size >= MEM_STACK_LARGE) {
        return _new_block(&s->large_blocks, STACK_HEADER + need) + STACK_HEADER;
    }
    if (!s->current || (size_t) (s->end - s->current) < need) {
        char *block = _new_block(&s->blocks, MEM_STACK_BLOCK);
        s->current = block + STACK_HEADER;
        s->end = block + MEM_STACK_BLOCK;
    }
    void *p = s->current;
    s->current += need;
    return p;
}

char *mem_stack_dup(mem_stack_t *s, const void *ptr, size_t n) {
    char *p = (char *) mem_stack_alloc(s, n + 1);
    if (n) {
        memcpy(p, ptr, n);
    }
    p[n] = 0;
    return p;
}
