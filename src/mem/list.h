// mem_list_t: an append-only list of 32-bit references for bulk passes (a rebuild collects records into
// one, then sorts or copies them out). No per-element allocation: entries fill 65,536-byte heap blocks of
// 16,384 each, and the table of blocks doubles from 1.
//
// Invariants:
// - A mem_list_t of all zero bits is a valid empty list; kill frees everything and leaves it so.
// - Every block but the last is full: entry i lives in block i >> 14 at index i & 0x3fff.
// - No lock; one writer at a time.
#pragma once

#include <cstdint>

#include "mem/arena.h"

#define MEM_LIST_BLOCK         65536
#define MEM_LIST_BLOCK_ENTRIES 16384
#define MEM_LIST_SHIFT         14
#define MEM_LIST_MASK          0x3fff

struct mem_list_t {
    mem_ref_t **table;    // the blocks in order
    uint32_t block_count; // blocks in use
    uint32_t table_cap;   // slots of table
    mem_ref_t *write;     // next free entry of the last block
    mem_ref_t *end;       // end of the last block
};

void mem_list_init(mem_list_t *l);
// Frees every block and the table.
void mem_list_kill(mem_list_t *l);
// Appends one entry; a new block when the last is full.
void mem_list_add(mem_list_t *l, mem_ref_t item);
// Entries in the list.
uint32_t mem_list_count(const mem_list_t *l);
// Entry i (i < count).
inline mem_ref_t mem_list_get(const mem_list_t *l, uint32_t i) {
    return l->table[i >> MEM_LIST_SHIFT][i & MEM_LIST_MASK];
}
// Copies every entry, in order, to dest, which holds at least mem_list_count entries.
void mem_list_copy_out(const mem_list_t *l, mem_ref_t *dest);
