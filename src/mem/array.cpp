// mem_array_t: chunk allocation, the table, the two-level search, insertion with spilling, removal. Bulk
// building, copies and the checker are in array_build.cpp.
#include <cstring>

#include "debug/debug.h"
#include "mem/array.h"
#include "mem/array_internal.h"
#include "mem/mem.h"

// Byte offset of the first slot, and of the end of the last one.
#define CHUNK_FIRST 16
#define CHUNK_END   4096
// Where the first element of an array goes: the centre of the chunk.
#define CHUNK_CENTRE 2056
// Where a chunk made to take a spilled element starts, before that element is put in.
#define CHUNK_SPLIT 2064

static mem_array_chunk_t *_chunk_at(mem_ref_t r) {
    return (mem_array_chunk_t *) mem_ptr(r);
}

mem_array_chunk_t *mem_array_chunk_alloc(mem_array_t *a) {
    mem_array_chunk_t *c;
    if (a->free_chunks) {
        c = _chunk_at(a->free_chunks);
        if (c->offset > 1) {
            // The rest of the run starts at the chunk right behind this one in the same block.
            mem_array_chunk_t *next = c + 1;
            next->link = c->link;
            next->offset = c->offset - 1;
            a->free_chunks = mem_ref(next);
        } else {
            a->free_chunks = c->link;
        }
    } else {
        mem_ref_t block = mem_arena_alloc_block();
        c = _chunk_at(block);
        c->block_link = a->blocks;
        a->blocks = block;
        mem_array_chunk_t *rest = c + 1;
        rest->link = 0;
        rest->offset = MEM_ARENA_BLOCK / MEM_ARRAY_CHUNK_SIZE - 1;
        a->free_chunks = mem_ref(rest);
    }
    // Word 1 stays: in the first chunk of a block it is the link of the block chain.
    c->link = 0;
    c->offset = CHUNK_CENTRE;
    c->n = 0;
    return c;
}

static void _chunk_release(mem_array_t *a, mem_array_chunk_t *c) {
    c->link = a->free_chunks;
    c->offset = 1;
    c->n = 0;
    a->free_chunks = mem_ref(c);
}

void mem_array_table_alloc(mem_array_t *a, uint32_t cap) {
    if (!cap) {
        a->table = nullptr;
        a->bases = nullptr;
    } else {
        a->table = (mem_array_chunk_t **) mem_alloc(cap * (sizeof(*a->table) + sizeof(*a->bases)));
        a->bases = (uint32_t *) (a->table + cap);
    }
    a->table_cap = cap;
}

// The bases of the chunks in front of i are kept; those from i on are for the caller to set.
void mem_array_table_insert(mem_array_t *a, uint32_t i, mem_array_chunk_t *c) {
    if (a->chunk_count + 1 > a->table_cap) {
        uint32_t cap = 1;
        while (cap < a->chunk_count + 1) {
            cap <<= 1;
        }
        mem_array_t old = *a;
        mem_array_table_alloc(a, cap);
        if (i) {
            memcpy(a->table, old.table, i * sizeof(*a->table));
            memcpy(a->bases, old.bases, i * sizeof(*a->bases));
        }
        if (a->chunk_count > i) {
            memcpy(a->table + i + 1, old.table + i, (a->chunk_count - i) * sizeof(*a->table));
            memcpy(a->bases + i + 1, old.bases + i, (a->chunk_count - i) * sizeof(*a->bases));
        }
        if (old.table_cap) {
            mem_free(old.table);
        }
    } else {
        memmove(a->table + i + 1, a->table + i, (a->chunk_count - i) * sizeof(*a->table));
        memmove(a->bases + i + 1, a->bases + i, (a->chunk_count - i) * sizeof(*a->bases));
    }
    a->table[i] = c;
    a->chunk_count++;
}

static void _table_remove(mem_array_t *a, uint32_t i) {
    memmove(a->table + i, a->table + i + 1, (a->chunk_count - i - 1) * sizeof(*a->table));
    memmove(a->bases + i, a->bases + i + 1, (a->chunk_count - i - 1) * sizeof(*a->bases));
    a->chunk_count--;
}

// Every chunk from table index from on starts delta elements later (or earlier): the element count in front
// of them changed, and nothing else did.
static void _bases_shift(mem_array_t *a, uint32_t from, uint32_t delta) {
    uint32_t *b = a->bases;
    for (uint32_t i = from; i < a->chunk_count; i++) {
        b[i] += delta;
    }
}

void mem_array_init(mem_array_t *a) {
    memset(a, 0, sizeof(*a));
}

void mem_array_kill(mem_array_t *a) {
    if (a->table_cap) {
        mem_free(a->table);
    }
    mem_ref_t block = a->blocks;
    while (block) {
        mem_ref_t next = _chunk_at(block)->block_link;
        mem_arena_free_block(block);
        block = next;
    }
    memset(a, 0, sizeof(*a));
}

// ---- search ------------------------------------------------------------------------------------------

// The two-level binary search. Returns the equal element with its position, or 0 with the position of
// the last element known to compare lower (chunk 0, pos -1 when there is none).
static mem_ref_t _search(const mem_array_t *a, mem_array_compare_t compare, const void *key, int *chunk,
                         int *pos) {
    int low = 0;
    int high = (int) a->chunk_count - 1;
    int candidate = -1;
    while (low <= high) {
        int mid = low + (high - low) / 2;
        mem_ref_t first = mem_array_chunk_items(a->table[mid])[0];
        int r = compare(first, key);
        if (r == 0) {
            *chunk = mid;
            *pos = 0;
            return first;
        }
        if (r < 0) {
            candidate = mid;
            low = mid + 1;
        } else {
            high = mid - 1;
        }
    }
    if (candidate < 0) {
        *chunk = 0;
        *pos = -1;
        return 0;
    }
    const mem_array_chunk_t *c = a->table[candidate];
    const mem_ref_t *items = mem_array_chunk_items(c);
    int below = 0;
    low = 1;
    high = (int) c->n - 1;
    while (low <= high) {
        int mid = low + (high - low) / 2;
        int r = compare(items[mid], key);
        if (r == 0) {
            *chunk = candidate;
            *pos = mid;
            return items[mid];
        }
        if (r < 0) {
            below = mid;
            low = mid + 1;
        } else {
            high = mid - 1;
        }
    }
    *chunk = candidate;
    *pos = below;
    return 0;
}

mem_ref_t mem_array_find(const mem_array_t *a, mem_array_compare_t compare, const void *key) {
    int chunk, pos;
    return _search(a, compare, key, &chunk, &pos);
}

mem_ref_t mem_array_find_pos(const mem_array_t *a, mem_array_compare_t compare, const void *key, int *chunk,
                             int *pos) {
    int c, p;
    mem_ref_t r = _search(a, compare, key, &c, &p);
    if (r) {
        *chunk = c;
        *pos = p;
    }
    return r;
}

mem_ref_t mem_array_find_near(const mem_array_t *a, int *chunk, int *pos, mem_array_compare_t compare,
                              const void *key) {
    return _search(a, compare, key, chunk, pos);
}

mem_ref_t mem_array_find_remove(mem_array_t *a, mem_array_compare_t compare, const void *key) {
    int chunk, pos;
    mem_ref_t r = _search(a, compare, key, &chunk, &pos);
    if (r) {
        mem_array_remove_at(a, chunk, pos);
    }
    return r;
}

bool mem_array_insert_sorted(mem_array_t *a, mem_array_compare_t compare, const void *key, mem_ref_t item) {
    int chunk, pos;
    if (_search(a, compare, key, &chunk, &pos)) {
        return false;
    }
    mem_array_insert_at(a, chunk, pos, item);
    return true;
}

// ---- insertion ---------------------------------------------------------------------------------------

// Inserts into a chunk that has room, behind pos: the tail moves up when the insertion point lies in the
// back half or there is no room in front, provided there is room behind; otherwise the head moves down.
static void _chunk_insert(mem_array_chunk_t *c, int pos, mem_ref_t item) {
    int n = (int) c->n;
    bool room_behind = c->offset + c->n * 4 != CHUNK_END;
    if ((pos >= n / 2 || c->offset == CHUNK_FIRST) && room_behind) {
        mem_ref_t *items = mem_array_chunk_items(c);
        memmove(items + pos + 2, items + pos + 1, (size_t) (n - pos - 1) * sizeof(mem_ref_t));
        items[pos + 1] = item;
    } else {
        c->offset -= 4;
        mem_ref_t *items = mem_array_chunk_items(c);
        memmove(items, items + 1, (size_t) (pos + 1) * sizeof(mem_ref_t));
        items[pos + 1] = item;
    }
    c->n++;
}

// The cost of moving an element out of a full chunk to the left or right neighbour, or -1 when that
// neighbour does not exist or is full. A neighbour with no room on the near side must shift all it holds.
static int _spill_cost_left(const mem_array_t *a, int ci, int pos) {
    if (ci == 0) {
        return -1;
    }
    const mem_array_chunk_t *prev = a->table[ci - 1];
    if (prev->n == MEM_ARRAY_CHUNK_SLOTS) {
        return -1;
    }
    int cost = pos + 1;
    if (prev->offset + prev->n * 4 == CHUNK_END) {
        cost += (int) prev->n;
    }
    return cost;
}

static int _spill_cost_right(const mem_array_t *a, int ci, int pos) {
    if (ci + 1 >= (int) a->chunk_count) {
        return -1;
    }
    const mem_array_chunk_t *next = a->table[ci + 1];
    if (next->n == MEM_ARRAY_CHUNK_SLOTS) {
        return -1;
    }
    int cost = MEM_ARRAY_CHUNK_SLOTS - 1 - pos;
    if (next->offset == CHUNK_FIRST) {
        cost += (int) next->n;
    }
    return cost;
}

// The chunk's first element moves behind the last element of the previous chunk; the head up to pos
// moves down, and the new element takes index pos. At pos -1 the new element itself moves.
static void _spill_left(mem_array_chunk_t *c, mem_array_chunk_t *prev, int pos, mem_ref_t item) {
    mem_ref_t *items = mem_array_chunk_items(c);
    mem_ref_t out = item;
    if (pos >= 0) {
        out = items[0];
        memmove(items, items + 1, (size_t) pos * sizeof(mem_ref_t));
        items[pos] = item;
    }
    _chunk_insert(prev, (int) prev->n - 1, out);
}

// The chunk's last element moves in front of the first element of the next chunk; the elements behind
// pos move up, and the new element takes index pos + 1. At pos 1,019 the new element itself moves.
static void _spill_right(mem_array_chunk_t *c, mem_array_chunk_t *next, int pos, mem_ref_t item) {
    mem_ref_t *items = mem_array_chunk_items(c);
    mem_ref_t out = item;
    int last = MEM_ARRAY_CHUNK_SLOTS - 1;
    if (pos < last) {
        out = items[last];
        memmove(items + pos + 2, items + pos + 1, (size_t) (last - pos - 1) * sizeof(mem_ref_t));
        items[pos + 1] = item;
    }
    _chunk_insert(next, -1, out);
}

// Returns the table index of the chunk that ends up with one element more; fresh is set when that chunk
// is new, so that its base is not yet known.
static int _insert_full(mem_array_t *a, int ci, int pos, mem_ref_t item, bool *fresh) {
    int left = _spill_cost_left(a, ci, pos);
    int right = _spill_cost_right(a, ci, pos);
    bool go_right;
    *fresh = left < 0 && right < 0;
    if (*fresh) {
        // Neither neighbour can take an element: a fresh chunk on the side nearer to pos takes it.
        mem_array_chunk_t *c = mem_array_chunk_alloc(a);
        c->offset = CHUNK_SPLIT;
        go_right = pos >= MEM_ARRAY_CHUNK_SLOTS / 2;
        if (go_right) {
            mem_array_table_insert(a, (uint32_t) ci + 1, c);
        } else {
            mem_array_table_insert(a, (uint32_t) ci, c);
            ci++;
        }
    } else if (left < 0) {
        go_right = true;
    } else if (right < 0) {
        go_right = false;
    } else {
        go_right = right <= left;
    }
    mem_array_chunk_t *c = a->table[ci];
    if (go_right) {
        _spill_right(c, a->table[ci + 1], pos, item);
        return ci + 1;
    }
    _spill_left(c, a->table[ci - 1], pos, item);
    return ci - 1;
}

void mem_array_insert_at(mem_array_t *a, int chunk, int pos, mem_ref_t item) {
    // grown: the one chunk that holds an element more than before. Every chunk behind it starts one later.
    int grown = chunk;
    bool fresh = false;
    if (a->chunk_count == 0) {
        mem_array_chunk_t *c = mem_array_chunk_alloc(a);
        c->offset = CHUNK_CENTRE;
        mem_array_chunk_items(c)[0] = item;
        mem_array_table_insert(a, 0, c);
        c->n = 1;
        grown = 0;
        fresh = true;
    } else if (a->table[chunk]->n < MEM_ARRAY_CHUNK_SLOTS) {
        _chunk_insert(a->table[chunk], pos, item);
    } else {
        grown = _insert_full(a, chunk, pos, item, &fresh);
    }
    if (fresh) {
        // The chunk in front of a new one is unchanged, so its base and count place the new one.
        a->bases[grown] = grown ? a->bases[grown - 1] + a->table[grown - 1]->n : 0;
    }
    _bases_shift(a, (uint32_t) grown + 1, 1);
    a->count++;
}

void mem_array_push(mem_array_t *a, mem_ref_t item) {
    if (a->chunk_count == 0) {
        mem_array_insert_at(a, 0, -1, item);
        return;
    }
    int last = (int) a->chunk_count - 1;
    mem_array_insert_at(a, last, (int) a->table[last]->n - 1, item);
}

// ---- removal and access ------------------------------------------------------------------------------

void mem_array_remove_at(mem_array_t *a, int chunk, int pos) {
    mem_array_chunk_t *c = a->table[chunk];
    mem_ref_t *items = mem_array_chunk_items(c);
    int n = (int) c->n;
    if (pos >= n / 2) {
        memmove(items + pos, items + pos + 1, (size_t) (n - pos - 1) * sizeof(mem_ref_t));
    } else {
        memmove(items + 1, items, (size_t) pos * sizeof(mem_ref_t));
        c->offset += 4;
    }
    c->n--;
    if (c->n == 0) {
        _table_remove(a, (uint32_t) chunk);
        _chunk_release(a, c);
        _bases_shift(a, (uint32_t) chunk, (uint32_t) -1);
    } else {
        _bases_shift(a, (uint32_t) chunk + 1, (uint32_t) -1);
    }
    a->count--;
}

mem_ref_t mem_array_next(const mem_array_t *a, int *chunk, int *pos) {
    int ci = *chunk;
    if (ci < 0 || ci >= (int) a->chunk_count) {
        return 0;
    }
    int p = *pos + 1;
    if (p >= (int) a->table[ci]->n) {
        if (ci + 1 >= (int) a->chunk_count) {
            return 0;
        }
        ci++;
        p = 0;
    }
    *chunk = ci;
    *pos = p;
    return mem_array_chunk_items(a->table[ci])[p];
}

void mem_array_locate(const mem_array_t *a, uint32_t i, int *chunk, int *pos) {
    int low = 0;
    int high = (int) a->chunk_count - 1;
    int found = 0;
    while (low <= high) {
        int mid = low + (high - low) / 2;
        if (a->bases[mid] <= i) {
            found = mid;
            low = mid + 1;
        } else {
            high = mid - 1;
        }
    }
    *chunk = found;
    *pos = (int) (i - a->bases[found]);
}

mem_ref_t mem_array_get(const mem_array_t *a, uint32_t i) {
    int chunk, pos;
    mem_array_locate(a, i, &chunk, &pos);
    return mem_array_chunk_items(a->table[chunk])[pos];
}
