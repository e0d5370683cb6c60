// mem_list_t: append-only, in 64-KiB heap blocks, so that collecting millions of references never copies
// what was already collected; only the small table of blocks is reallocated, doubling.
#include <cstring>

#include "mem/list.h"
#include "mem/mem.h"

void mem_list_init(mem_list_t *l) {
    memset(l, 0, sizeof(*l));
}

void mem_list_kill(mem_list_t *l) {
    for (uint32_t i = 0; i < l->block_count; i++) {
        mem_free(l->table[i]);
    }
    mem_free(l->table);
    memset(l, 0, sizeof(*l));
}

static void _new_block(mem_list_t *l) {
    if (l->block_count == l->table_cap) {
        l->table_cap = l->table_cap ? l->table_cap * 2 : 1;
        l->table = (mem_ref_t **) mem_realloc(l->table, l->table_cap * sizeof(*l->table));
    }
    mem_ref_t *block = (mem_ref_t *) mem_alloc(MEM_LIST_BLOCK);
    l->table[l->block_count++] = block;
    l->write = block;
    l->end = block + MEM_LIST_BLOCK_ENTRIES;
}

void mem_list_add(mem_list_t *l, mem_ref_t item) {
    if (l->write == l->end) {
        _new_block(l);
    }
    *l->write++ = item;
}

uint32_t mem_list_count(const mem_list_t *l) {
    if (!l->block_count) {
        return 0;
    }
    uint32_t last = (uint32_t) (l->write - l->table[l->block_count - 1]);
    return (l->block_count - 1) * MEM_LIST_BLOCK_ENTRIES + last;
}

void mem_list_copy_out(const mem_list_t *l, mem_ref_t *dest) {
    for (uint32_t i = 0; i < l->block_count; i++) {
        bool last = i + 1 == l->block_count;
        size_t n = last ? (size_t) (l->write - l->table[i]) : MEM_LIST_BLOCK_ENTRIES;
        memcpy(dest, l->table[i], n * sizeof(mem_ref_t));
        dest += n;
    }
}
