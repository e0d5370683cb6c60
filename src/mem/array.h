// mem_array_t: the chunked array of 32-bit references in which every sorted index and every result set
// lives. Elements sit in chunks of exactly 4,096 bytes (a 16-byte header and 1,020 slots); the chunks come
// 16 at a time from 65,536-byte blocks of the record arena, and a table on the heap lists them in order.
//
// Invariants:
// - A mem_array_t of all zero bits is a valid empty array; a reset is mem_array_kill and then zeroing.
// - The used slots of a chunk are one contiguous run starting at byte `offset` of the chunk (16 up to
//   4,096); free slots on both sides let an insertion shift whichever side is shorter.
// - Every chunk in the table holds at least one element, and bases[i] is the index in the whole array of
//   the first element of chunk i. The bases sit beside the table, in the same heap block, rather than in
//   the chunk headers: a change in the middle of a large array moves every later base, and a walk over a
//   packed run of numbers costs a fraction of one that visits a header on a page of its own per chunk.
//   An insertion or removal inside a chunk shifts the later bases by one; only a change of the table
//   itself (a chunk made or emptied) recomputes them from the chunks' counts.
// - Chunks leave the array only when it dies: an emptied chunk goes to the array's free list and is
//   reused by later insertions of the same array.
// - Elements are opaque: 0 is never stored (it means "none" in every result), and the array never looks
//   at what a reference points to; only the caller's comparator does.
// - No lock: many threads may read while the owner guarantees that no writer runs.
//
// Positions: (chunk, pos) is a table index and an index into that chunk's used run (0 .. n - 1). A pos of
// -1 means "in front of the chunk's first element".
#pragma once

#include <cstdint>

#include "mem/arena.h"

#define MEM_ARRAY_CHUNK_SIZE  4096
#define MEM_ARRAY_CHUNK_SLOTS 1020
// Elements in each full chunk made by mem_array_alloc_bulk, and the byte offset of their first.
#define MEM_ARRAY_BULK_FILL   1004
#define MEM_ARRAY_BULK_OFFSET 48

struct mem_array_chunk_t {
    // Free chunk: the next free run. Unused while the chunk is in a table (mem_array_t.bases says where it
    // starts).
    uint32_t link;
    // In the first chunk of each arena block: the next block of the array's chain.
    mem_ref_t block_link;
    // Used chunk: byte offset of the first element from the start of the chunk (16 .. 4,096).
    // Free chunk: number of contiguous free chunks starting here.
    uint32_t offset;
    // Elements in this chunk.
    uint32_t n;
    mem_ref_t slots[MEM_ARRAY_CHUNK_SLOTS];
};
static_assert(sizeof(mem_array_chunk_t) == MEM_ARRAY_CHUNK_SIZE, "a chunk is exactly 4,096 bytes");

struct mem_array_t {
    mem_array_chunk_t **table; // chunks in sequence order
    uint32_t *bases;           // index of each chunk's first element; table_cap slots behind table's
    uint32_t table_cap;        // slots of table and of bases; 0 when the table is not owned
    mem_ref_t blocks;          // chain of the arena blocks the chunks live in
    mem_ref_t free_chunks;     // head of the free chunk runs
    uint32_t count;            // elements in all chunks
    uint32_t chunk_count;      // chunks in table
};

// Compares an element with a key: negative, zero or positive as the element sorts before, with or after
// the key.
typedef int (*mem_array_compare_t)(mem_ref_t element, const void *key);

// The first used slot of a chunk.
inline mem_ref_t *mem_array_chunk_items(mem_array_chunk_t *c) {
    return (mem_ref_t *) ((char *) c + c->offset);
}
inline const mem_ref_t *mem_array_chunk_items(const mem_array_chunk_t *c) {
    return (const mem_ref_t *) ((const char *) c + c->offset);
}

void mem_array_init(mem_array_t *a);
// Frees the table if the array owns it, then gives every block of the chain back to the arena. Elements
// are not touched. Leaves a valid empty array.
void mem_array_kill(mem_array_t *a);

// Lays out chunks for n elements of an empty array: 1,004 in each full chunk at offset 48 (8 free slots on
// each side), the rest centred in the last chunk. table_cap is the next power of two of the chunk count.
// count, n and base are set; the caller fills the slots in order, through mem_array_bulk_slot.
void mem_array_alloc_bulk(mem_array_t *a, uint32_t n);
// Slot of element i of an array that mem_array_alloc_bulk just laid out (chunk i / 1004, slot i % 1004).
// Not valid after any live change.
inline mem_ref_t *mem_array_bulk_slot(mem_array_t *a, uint32_t i) {
    return mem_array_chunk_items(a->table[i / MEM_ARRAY_BULK_FILL]) + i % MEM_ARRAY_BULK_FILL;
}
// Builds an empty array from n references: 1,020 in each full chunk, a partial chunk centred; table_cap is
// the chunk count.
void mem_array_from_flat(mem_array_t *a, const mem_ref_t *items, uint32_t n);
// Makes the empty array a a copy of other, in chunks of 1,020 at offset 16 (the last one partial).
void mem_array_copy(mem_array_t *a, const mem_array_t *other);
// The same with the element order reversed.
void mem_array_copy_reversed(mem_array_t *a, const mem_array_t *other);
// Reverses the order in place.
void mem_array_reverse(mem_array_t *a);

// Element i of the whole array (i < count), through a binary search of the chunks' bases.
mem_ref_t mem_array_get(const mem_array_t *a, uint32_t i);
// The same with its position.
void mem_array_locate(const mem_array_t *a, uint32_t i, int *chunk, int *pos);

// The element that compares equal to key, or 0.
mem_ref_t mem_array_find(const mem_array_t *a, mem_array_compare_t compare, const void *key);
// The same with its position; chunk and pos are untouched when nothing is found.
mem_ref_t mem_array_find_pos(const mem_array_t *a, mem_array_compare_t compare, const void *key, int *chunk,
                             int *pos);
// The element that compares equal, with its position; or 0, with chunk and pos saying behind which element
// the key belongs (pos -1: in front of that chunk's first; chunk 0 and pos -1 for an empty array or a key
// before all others). mem_array_insert_at with that position keeps the order.
mem_ref_t mem_array_find_near(const mem_array_t *a, int *chunk, int *pos, mem_array_compare_t compare,
                              const void *key);
// Removes the element that compares equal and returns it, or returns 0.
mem_ref_t mem_array_find_remove(mem_array_t *a, mem_array_compare_t compare, const void *key);
// Inserts item at its sorted place; false (and nothing inserted) if an element compares equal.
bool mem_array_insert_sorted(mem_array_t *a, mem_array_compare_t compare, const void *key, mem_ref_t item);
// Inserts item behind pos of chunk (pos -1: in front of its first; any position on an empty array).
void mem_array_insert_at(mem_array_t *a, int chunk, int pos, mem_ref_t item);
// Removes the element at the position.
void mem_array_remove_at(mem_array_t *a, int chunk, int pos);
// Steps the cursor to the following element and returns it; 0 at the end, where the cursor stays. Start
// from chunk 0, pos -1 for the first element.
mem_ref_t mem_array_next(const mem_array_t *a, int *chunk, int *pos);
// Adds item behind the last element.
void mem_array_push(mem_array_t *a, mem_ref_t item);

// Checks every invariant (bases, offsets, counts, table size); false with a log line on the first breach.
// For tests and for the index's self-check.
bool mem_array_check(const mem_array_t *a);
