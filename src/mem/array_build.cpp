// mem_array_t built whole: bulk layout for a rebuild or a load, arrays from a flat run, copies, reversal,
// and the invariant checker.
#include <cstring>

#include "debug/debug.h"
#include "mem/array.h"
#include "mem/array_internal.h"
#include "mem/mem.h"

static uint32_t _next_power_of_two(uint32_t n) {
    uint32_t p = 1;
    while (p < n) {
        p <<= 1;
    }
    return p;
}

// Appends chunk c holding n elements at byte offset to an array under construction: the table was sized
// beforehand, so this neither grows nor moves anything.
static void _append_chunk(mem_array_t *a, mem_array_chunk_t *c, uint32_t offset, uint32_t n) {
    c->offset = offset;
    c->n = n;
    a->bases[a->chunk_count] = a->count;
    a->table[a->chunk_count++] = c;
    a->count += n;
}

// A table of exactly cap slots for an empty array about to be built.
static void _prepare(mem_array_t *a, uint32_t cap) {
    if (a->chunk_count) {
        DEBUG_FATAL("array not empty: %u chunks", a->chunk_count);
    }
    if (a->table_cap) {
        mem_free(a->table);
    }
    mem_array_table_alloc(a, cap);
    a->chunk_count = 0;
    a->count = 0;
}

void mem_array_alloc_bulk(mem_array_t *a, uint32_t n) {
    uint32_t chunks = (n + MEM_ARRAY_BULK_FILL - 1) / MEM_ARRAY_BULK_FILL;
    _prepare(a, chunks ? _next_power_of_two(chunks) : 0);
    uint32_t full = n / MEM_ARRAY_BULK_FILL;
    uint32_t rest = n % MEM_ARRAY_BULK_FILL;
    for (uint32_t i = 0; i < full; i++) {
        _append_chunk(a, mem_array_chunk_alloc(a), MEM_ARRAY_BULK_OFFSET, MEM_ARRAY_BULK_FILL);
    }
    if (rest) {
        _append_chunk(a, mem_array_chunk_alloc(a), (514 - rest / 2) * 4, rest);
    }
}

// Builds an empty array of n elements in chunks of 1,020 (a partial last chunk centred or at offset 16)
// and a table of exactly the chunk count; element i comes from get(i).
template <typename Get>
static void _build_packed(mem_array_t *a, uint32_t n, bool centre_partial, Get get) {
    uint32_t chunks = (n + MEM_ARRAY_CHUNK_SLOTS - 1) / MEM_ARRAY_CHUNK_SLOTS;
    _prepare(a, chunks);
    uint32_t i = 0;
    while (i < n) {
        uint32_t take = n - i < MEM_ARRAY_CHUNK_SLOTS ? n - i : MEM_ARRAY_CHUNK_SLOTS;
        uint32_t offset = 16;
        if (take < MEM_ARRAY_CHUNK_SLOTS && centre_partial) {
            offset = (((MEM_ARRAY_CHUNK_SLOTS - take) >> 1) + 4) * 4;
        }
        mem_array_chunk_t *c = mem_array_chunk_alloc(a);
        _append_chunk(a, c, offset, take);
        mem_ref_t *items = mem_array_chunk_items(c);
        for (uint32_t k = 0; k < take; k++) {
            items[k] = get(i + k);
        }
        i += take;
    }
}

void mem_array_from_flat(mem_array_t *a, const mem_ref_t *items, uint32_t n) {
    _build_packed(a, n, true, [items](uint32_t i) { return items[i]; });
}

// Reads a source array in order with a cursor, which is cheaper than mem_array_get for every element.
struct array_reader_t {
    const mem_array_t *a;
    int chunk;
    int pos;
};

void mem_array_copy(mem_array_t *a, const mem_array_t *other) {
    array_reader_t r = {other, 0, -1};
    _build_packed(a, other->count, false, [&r](uint32_t) { return mem_array_next(r.a, &r.chunk, &r.pos); });
}

void mem_array_copy_reversed(mem_array_t *a, const mem_array_t *other) {
    // Same layout as a copy; reversing in place keeps every chunk's count, so the layout stays right.
    mem_array_copy(a, other);
    mem_array_reverse(a);
}

void mem_array_reverse(mem_array_t *a) {
    if (a->count < 2) {
        return;
    }
    int fc = 0;
    int fp = 0;
    int bc = (int) a->chunk_count - 1;
    int bp = (int) a->table[bc]->n - 1;
    for (uint32_t k = 0; k < a->count / 2; k++) {
        mem_ref_t *f = mem_array_chunk_items(a->table[fc]) + fp;
        mem_ref_t *b = mem_array_chunk_items(a->table[bc]) + bp;
        mem_ref_t t = *f;
        *f = *b;
        *b = t;
        if (++fp == (int) a->table[fc]->n) {
            fc++;
            fp = 0;
        }
        if (--bp < 0 && bc > 0) {
            bc--;
            bp = (int) a->table[bc]->n - 1;
        }
    }
}

bool mem_array_check(const mem_array_t *a) {
    if (a->table_cap && a->chunk_count > a->table_cap) {
        debug_printf("mem_array_check: %u chunks in a table of %u\n", a->chunk_count, a->table_cap);
        return false;
    }
    uint32_t base = 0;
    for (uint32_t i = 0; i < a->chunk_count; i++) {
        const mem_array_chunk_t *c = a->table[i];
        if (c->n == 0 || c->n > MEM_ARRAY_CHUNK_SLOTS || c->offset < 16 || c->offset % 4 ||
            c->offset + c->n * 4 > MEM_ARRAY_CHUNK_SIZE) {
            debug_printf("mem_array_check: chunk %u: offset %u, n %u\n", i, c->offset, c->n);
            return false;
        }
        if (a->bases[i] != base) {
            debug_printf("mem_array_check: chunk %u: base %u, expected %u\n", i, a->bases[i], base);
            return false;
        }
        base += c->n;
    }
    if (base != a->count) {
        debug_printf("mem_array_check: %u elements in chunks, count %u\n", base, a->count);
        return false;
    }
    return true;
}
