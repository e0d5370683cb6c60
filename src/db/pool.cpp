// The record pool: every record of an index, and the index's other small fixed objects, come from here.
// Records are packed and die one by one during live updates, so the pool keeps a free list for each
// exact size instead of a general heap; the whole pool dies at once when the index is rebuilt or goes.
#include "db/db.h"

#include <cstring>

#include "debug/debug.h"

// Bytes in front of a large record: the previous and next large record's header references.
#define LARGE_HEADER 8
// Each block's first word links the next block of the chain.
#define BLOCK_LINK 4

static inline uint32_t *_word(db_ref_t r) {
    return (uint32_t *) db_ptr(r);
}

static void _push_small(db_pool_t *p, uint8_t *at, uint32_t size) {
    db_ref_t r = db_ref(at);
    *(uint32_t *) at = p->free_lists[size];
    p->free_lists[size] = r;
}

static void _push_large(db_pool_t *p, uint8_t *at, uint32_t total) {
    db_ref_t r = db_ref(at);
    *(uint32_t *) at = p->large_free[total / DB_POOL_LARGE_STEP];
    p->large_free[total / DB_POOL_LARGE_STEP] = r;
}

// Files the unused rest of a block on the free lists, so that a block switch loses nothing.
static void _give_rest(db_pool_t *p, uint8_t *at, uint32_t rest) {
    if (rest >= DB_POOL_LARGE) {
        uint32_t whole = rest & ~(uint32_t) (DB_POOL_LARGE_STEP - 1);
        _push_large(p, at, whole);
        at += whole;
        rest -= whole;
    }
    if (rest >= 4)
        _push_small(p, at, rest);
}

static void _new_block(db_pool_t *p) {
    db_ref_t b = mem_arena_alloc_block();
    uint8_t *bp = db_ptr(b);
    *(uint32_t *) bp = 0;
    if (p->block_last)
        *_word(p->block_last) = b;
    else
        p->block_first = b;
    p->block_last = b;
    p->block_count++;
    p->current = bp + BLOCK_LINK;
    p->end = bp + MEM_ARENA_BLOCK;
}

static uint8_t *_bump(db_pool_t *p, uint32_t size) {
    if (!p->current || (size_t) (p->end - p->current) < size) {
        if (p->current)
            _give_rest(p, p->current, (uint32_t) (p->end - p->current));
        _new_block(p);
    }
    uint8_t *at = p->current;
    p->current += size;
    return at;
}

static uint32_t _large_total(size_t size) {
    return (uint32_t) ((size + LARGE_HEADER + DB_POOL_LARGE_STEP - 1) & ~(size_t) (DB_POOL_LARGE_STEP - 1));
}

static db_ref_t _alloc_large(db_pool_t *p, size_t size) {
    if (size > DB_POOL_LARGE_MAX)
        DEBUG_FATAL("record too large %p", size);
    uint32_t total = _large_total(size);
    db_ref_t h = p->large_free[total / DB_POOL_LARGE_STEP];
    if (h)
        p->large_free[total / DB_POOL_LARGE_STEP] = *_word(h);
    else
        h = db_ref(_bump(p, total));
    uint32_t *hw = _word(h);
    hw[0] = p->large_last;
    hw[1] = 0;
    if (p->large_last)
        _word(p->large_last)[1] = h;
    else
        p->large_first = h;
    p->large_last = h;
    p->large_count++;
    return h + LARGE_HEADER / 4;
}

static void _free_large(db_pool_t *p, db_ref_t ref, size_t size) {
    db_ref_t h = ref - LARGE_HEADER / 4;
    uint32_t *hw = _word(h);
    db_ref_t prev = hw[0], next = hw[1];
    if (prev)
        _word(prev)[1] = next;
    else
        p->large_first = next;
    if (next)
        _word(next)[0] = prev;
    else
        p->large_last = prev;
    p->large_count--;
    _push_large(p, (uint8_t *) hw, _large_total(size));
}

void db_pool_init(db_pool_t *p) {
    memset(p, 0, sizeof(*p));
}

void db_pool_kill(db_pool_t *p) {
    db_ref_t b = p->block_first;
    while (b) {
        db_ref_t next = *_word(b);
        mem_arena_free_block(b);
        b = next;
    }
    memset(p, 0, sizeof(*p));
}

db_ref_t db_pool_alloc(db_pool_t *p, size_t size) {
    if (size >= DB_POOL_LARGE)
        return _alloc_large(p, size);
    uint32_t n = size ? db_round4((uint32_t) size) : 4;
    if (n >= DB_POOL_LARGE)
        return _alloc_large(p, n);
    db_ref_t r = p->free_lists[n];
    if (r) {
        p->free_lists[n] = *_word(r);
        return r;
    }
    return db_ref(_bump(p, n));
}

void db_pool_free(db_pool_t *p, db_ref_t ref, size_t size) {
    if (!ref)
        return;
    uint32_t n = size ? db_round4((uint32_t) size) : 4;
    if (size >= DB_POOL_LARGE || n >= DB_POOL_LARGE)
        _free_large(p, ref, size >= DB_POOL_LARGE ? size : n);
    else
        _push_small(p, db_ptr(ref), n);
}

db_ref_t db_record_alloc(db_t *db, size_t size) {
    return db_pool_alloc(&db->pool, size);
}

void db_record_free(db_t *db, db_ref_t ref, size_t size) {
    db_pool_free(&db->pool, ref, size);
}
