// What the two halves of the array code share; not for use outside src/mem.
#pragma once

#include "mem/array.h"

// A chunk from the array's free runs, or from a fresh arena block; its header is cleared (but for the
// block link) and its offset is the centre.
mem_array_chunk_t *mem_array_chunk_alloc(mem_array_t *a);
// Puts c at table index i, growing the table to the next power of two when it is full.
void mem_array_table_insert(mem_array_t *a, uint32_t i, mem_array_chunk_t *c);
// A table and its bases for cap chunks, in one heap block; null for 0. The caller frees table.
void mem_array_table_alloc(mem_array_t *a, uint32_t cap);
