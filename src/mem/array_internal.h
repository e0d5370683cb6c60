// What the two halves of the array code share; not for use outside src/mem.
#pragma once

#include "mem/array.h"

// A chunk from the array's free runs, or from a fresh arena block; its header is cleared (but for the
// block link) and its offset is the centre.
mem_array_chunk_t *mem_array_chunk_alloc(mem_array_t *a);
// Puts c at table index i, growing the table to the next power of two when it is full.
void mem_array_table_insert(mem_array_t *a, uint32_t i, mem_array_chunk_t *c);
// Recomputes the base of every chunk from table index from on, in one walk; the chunks in front of it
// must be right already.
void mem_array_rebase(mem_array_t *a, uint32_t from);
