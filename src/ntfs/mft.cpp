// The pass over $MFT: the run map of the table, one ordered read of its runs, and the scan of each
// record. Records that carry an attribute list may have names, dates and sizes in extension records
// anywhere later in the table, so they are held back (the pending table) and joined at the end.
#include <cstdlib>

#include "debug/debug.h"
#include "mem/mem.h"
#include "ntfs/ntfs_internal.h"

// ---- what the reader holds back ------------------------------------------------------------------------

struct _name_t {
    uint64_t parent_frn;
    _name_t *next;
    uint32_t length;
    uint16_t text[1]; // length units
};

// One base record with an attribute list; 64 bytes, 1,024 to a block.
struct ntfs_pending_record_t {
    uint64_t frn;
    uint64_t date_created, date_modified, date_accessed;
    uint64_t size;
    uint32_t attributes;
    uint8_t is_directory;
    uint8_t have_standard_information;
    _name_t *head, *tail;
};
static_assert(sizeof(ntfs_pending_record_t) == 64, "pending entries are 64 bytes");
#define PENDING_PER_BLOCK 1024u

// One extension record: the details it held and the base it belongs to.
struct ntfs_fragment_record_t {
    uint64_t base_frn;
    ntfs_pending_record_t d; // frn unused
    ntfs_fragment_record_t *next;
};

// Copies of extension records of $MFT itself, in arrival order.
struct _ext_mft_t {
    _ext_mft_t *next;
    uint8_t data[1];
};

// A bump allocator of 64 KiB blocks for small copies; blocks die with the reader.
struct _pool_block_t {
    _pool_block_t *next;
    uint32_t used;
    alignas(8) uint8_t data[65536 - 16];
};

// A name of the record in hand, still in the read buffer.
struct _name_ref_t {
    uint64_t parent_frn;
    const uint8_t *text;
    uint32_t length;
};

struct ntfs_mft_reader_t {
    uint32_t record_size;
    uint32_t flags;
    bool want_standard_information;
    bool want_size;
    uint64_t record_number;
    ntfs_callback_t callback;
    void *user;
    ntfs_pending_record_t **pending; // block table
    uint32_t pending_count, pending_blocks;
    ntfs_fragment_record_t *fragments, **fragment_tail;
    uint32_t fragment_count;
    _pool_block_t *pool;
    _name_t *large_names; // names too long for the pool, chained through next
    _ext_mft_t *extended_mft, **extended_tail;
    // The record in hand.
    _name_ref_t *names;
    uint32_t name_count, name_cap;
    uint16_t *aligned; // a copy for a name that lies at an odd address
    ntfs_pending_record_t cur;
    bool has_list;
    uint64_t recno;
};

static void *_pool_alloc(ntfs_mft_reader_t *r, uint32_t size) {
    size = (size + 7) & ~7u;
    if (!r->pool || r->pool->used + size > sizeof(r->pool->data)) {
        _pool_block_t *b = (_pool_block_t *) mem_alloc(sizeof(_pool_block_t));
        b->next = r->pool;
        b->used = 0;
        r->pool = b;
    }
    void *p = r->pool->data + r->pool->used;
    r->pool->used += size;
    return p;
}

static _name_t *_name_copy(ntfs_mft_reader_t *r, const _name_ref_t *n) {
    uint32_t size = (uint32_t) offsetof(_name_t, text) + 2 * n->length + 2;
    _name_t *c;
    if (size <= 256) {
        c = (_name_t *) _pool_alloc(r, size);
    } else {
        // Kept on a list of their own, so that the pool's blocks stay full of small entries.
        void **block = (void **) mem_alloc(size + sizeof(void *));
        *block = r->large_names;
        r->large_names = (_name_t *) block;
        c = (_name_t *) (block + 1);
    }
    c->parent_frn = n->parent_frn;
    c->next = nullptr;
    c->length = n->length;
    memcpy(c->text, n->text, 2 * (size_t) n->length);
    return c;
}

static void _chain_names(ntfs_mft_reader_t *r, ntfs_pending_record_t *e) {
    for (uint32_t i = 0; i < r->name_count; i++) {
        _name_t *c = _name_copy(r, &r->names[i]);
        if (e->tail)
            e->tail->next = c;
        else
            e->head = c;
        e->tail = c;
    }
}

static ntfs_pending_record_t *_pending_at(ntfs_mft_reader_t *r, uint32_t i) {
    return &r->pending[i / PENDING_PER_BLOCK][i % PENDING_PER_BLOCK];
}

static ntfs_pending_record_t *_pending_new(ntfs_mft_reader_t *r) {
    if (r->pending_count == r->pending_blocks * PENDING_PER_BLOCK) {
        r->pending =
            (ntfs_pending_record_t **) mem_realloc(r->pending, (r->pending_blocks + 1) * sizeof(void *));
        r->pending[r->pending_blocks++] =
            (ntfs_pending_record_t *) mem_alloc(PENDING_PER_BLOCK * sizeof(ntfs_pending_record_t));
    }
    return _pending_at(r, r->pending_count++);
}

// ---- delivery ------------------------------------------------------------------------------------------

static void _deliver(ntfs_mft_reader_t *r, uint64_t frn, const ntfs_pending_record_t *d, uint64_t parent,
                     const void *text, uint32_t length) {
    ntfs_file_record_t out;
    out.frn = frn;
    out.parent_frn = parent;
    out.size = d->size;
    out.date_modified = d->date_modified;
    out.date_created = d->date_created;
    out.date_accessed = d->date_accessed;
    out.attributes = d->is_directory ? d->attributes | OS_ATTR_DIRECTORY : d->attributes & ~OS_ATTR_DIRECTORY;
    out.name_length = length;
    if ((uintptr_t) text & 1) {
        memcpy(r->aligned, text, 2 * (size_t) length);
        out.name = r->aligned;
    } else {
        out.name = (const uint16_t *) text;
    }
    r->callback(r->user, &out);
}

static void _deliver_chain(ntfs_mft_reader_t *r, uint64_t frn, const ntfs_pending_record_t *d) {
    for (const _name_t *n = d->head; n; n = n->next)
        _deliver(r, frn, d, n->parent_frn, n->text, n->length);
}

// ---- one record ----------------------------------------------------------------------------------------

static bool _visit(void *ctx, const ntfs_attr_t *a) {
    ntfs_mft_reader_t *r = (ntfs_mft_reader_t *) ctx;
    // Only unnamed attributes count: alternate data streams change nothing.
    if (a->p[9] != 0)
        return true;
    bool resident = a->p[8] == 0;
    ntfs_pending_record_t *c = &r->cur;
    switch (a->type) {
    case NTFS_ATTR_STANDARD_INFORMATION: {
        if (!r->want_standard_information || c->have_standard_information)
            break;
        if (!resident) {
            debug_printf("nonresident standard information\n");
            break;
        }
        if (a->len < 22)
            break;
        uint32_t v = ntfs_u16(a->p + 20);
        if (v > a->len || a->len - v < 36)
            break;
        const uint8_t *s = a->p + v;
        c->date_created = ntfs_u64(s);
        c->date_modified = ntfs_u64(s + 8);
        c->date_accessed = ntfs_u64(s + 24);
        c->attributes = ntfs_u32(s + 32);
        c->have_standard_information = 1;
        break;
    }
    case NTFS_ATTR_ATTRIBUTE_LIST:
        r->has_list = true;
        break;
    case NTFS_ATTR_FILE_NAME: {
        if (!resident) {
            debug_printf("nonresident name attribute\n");
            break;
        }
        if (a->len < 22)
            break;
        uint32_t v = ntfs_u16(a->p + 20);
        if (v > a->len || a->len - v < 66)
            break;
        const uint8_t *s = a->p + v;
        uint32_t length = s[64], ns = s[65];
        if (a->len - v < 66 + 2 * length)
            break;
        if (ns == 2)
            break; // the DOS name: every file that has one has its long name too
        if (ns > 3) {
            debug_printf("bad name flag %02x\n", ns);
            break;
        }
        uint64_t parent = ntfs_u64(s);
        uint64_t p48 = parent & NTFS_FRN_MASK;
        if (p48 < 16 && p48 != 5) {
            if (debug_verbose)
                debug_printf("ignore name attr for internal ntfs folder %016I64x\n", parent);
            break;
        }
        if (r->name_count == r->name_cap) {
            r->name_cap = r->name_cap ? r->name_cap * 2 : 16;
            r->names = (_name_ref_t *) mem_realloc(r->names, r->name_cap * sizeof(_name_ref_t));
        }
        r->names[r->name_count++] = {parent, s + 66, length};
        break;
    }
    case NTFS_ATTR_DATA:
        if (!r->want_size)
            break;
        if (resident) {
            if (a->len >= 22)
                c->size = ntfs_u32(a->p + 16);
        } else if (a->len >= 72 && ntfs_u64(a->p + 16) == 0) {
            c->size = ntfs_u64(a->p + 48);
        }
        break;
    default:
        break;
    }
    return true;
}

static void _record(ntfs_mft_reader_t *r, uint8_t *rec) {
    uint64_t recno = r->record_number++;
    uint32_t size = r->record_size;
    uint32_t magic = ntfs_u32(rec);
    if (magic != NTFS_REC_MAGIC) {
        if (debug_verbose)
            debug_printf("bad file record type %08x\n", magic);
        return;
    }
    uint16_t flags = ntfs_u16(rec + 22);
    if (!(flags & NTFS_REC_IN_USE))
        return;
    uint64_t base = ntfs_u64(rec + 32);
    if (base && !(base & NTFS_FRN_MASK)) {
        debug_printf("found extended MFT file record %016I64x base %016I64x\n",
                     recno | (uint64_t) ntfs_u16(rec + 16) << 48, base);
        _ext_mft_t *e = (_ext_mft_t *) mem_alloc(offsetof(_ext_mft_t, data) + size);
        e->next = nullptr;
        memcpy(e->data, rec, size);
        *r->extended_tail = e;
        r->extended_tail = &e->next;
        return;
    }
    // The file system's own files are never indexed; the root folder is.
    if (recno < 16 && recno != 5)
        return;
    if (!ntfs_fixup(rec, size))
        return;
    ntfs_pending_record_t *c = &r->cur;
    memset(c, 0, sizeof(*c));
    c->is_directory = (flags & NTFS_REC_DIRECTORY) != 0;
    c->date_created = c->date_modified = c->date_accessed = UINT64_MAX;
    r->name_count = 0;
    r->has_list = false;
    if (!ntfs_walk_attributes(rec, size, recno, 16, _visit, r))
        return;
    uint64_t frn = recno | (uint64_t) ntfs_u16(rec + 16) << 48;
    if (!base && !r->has_list) {
        for (uint32_t i = 0; i < r->name_count; i++)
            _deliver(r, frn, c, r->names[i].parent_frn, r->names[i].text, r->names[i].length);
    } else if (!base) {
        ntfs_pending_record_t *e = _pending_new(r);
        *e = *c;
        e->frn = frn;
        _chain_names(r, e);
    } else {
        uint64_t b48 = base & NTFS_FRN_MASK;
        if (b48 < 16 && b48 != 5) {
            debug_printf("ignore internal extended fragmented file record %016I64x\n", base);
            return;
        }
        if (r->has_list)
            debug_printf("attribute list attribute with base frn\n");
        ntfs_fragment_record_t *f = (ntfs_fragment_record_t *) _pool_alloc(r, sizeof(ntfs_fragment_record_t));
        f->base_frn = base;
        f->d = *c;
        f->next = nullptr;
        _chain_names(r, &f->d);
        *r->fragment_tail = f;
        r->fragment_tail = &f->next;
        r->fragment_count++;
    }
}

// ---- the reader ----------------------------------------------------------------------------------------

ntfs_mft_reader_t *ntfs_reader_create(uint32_t record_size, uint32_t flags, void *user,
                                      ntfs_callback_t callback) {
    ntfs_mft_reader_t *r = (ntfs_mft_reader_t *) mem_alloc(sizeof(ntfs_mft_reader_t));
    memset(r, 0, sizeof(*r));
    r->record_size = record_size;
    r->flags = flags;
    r->want_size = (flags & NTFS_WANT_SIZE) != 0;
    r->want_standard_information = (flags & NTFS_WANT_STANDARD_INFORMATION) != 0;
    r->callback = callback;
    r->user = user;
    r->fragment_tail = &r->fragments;
    r->extended_tail = &r->extended_mft;
    r->aligned = (uint16_t *) mem_alloc(512);
    return r;
}

void ntfs_reader_records(ntfs_mft_reader_t *r, uint8_t *buf, uint32_t count) {
    for (uint32_t i = 0; i < count; i++)
        _record(r, buf + (size_t) i * r->record_size);
}

// Pops the first copy of an extension record of $MFT, or null.
static _ext_mft_t *_ext_pop(ntfs_mft_reader_t *r) {
    _ext_mft_t *e = r->extended_mft;
    if (e) {
        r->extended_mft = e->next;
        if (!r->extended_mft)
            r->extended_tail = &r->extended_mft;
    }
    return e;
}

static int _pending_find(ntfs_mft_reader_t *r, uint64_t recno) {
    uint32_t lo = 0, hi = r->pending_count;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2;
        if ((_pending_at(r, mid)->frn & NTFS_FRN_MASK) < recno)
            lo = mid + 1;
        else
            hi = mid;
    }
    return lo < r->pending_count && (_pending_at(r, lo)->frn & NTFS_FRN_MASK) == recno ? (int) lo : -1;
}

void ntfs_reader_finish(ntfs_mft_reader_t *r) {
    debug_printf("base_fragmented_record_count %u\n", r->pending_count);
    for (ntfs_fragment_record_t *f = r->fragments; f; f = f->next) {
        int i = _pending_find(r, f->base_frn & NTFS_FRN_MASK);
        if (i < 0) {
            debug_printf("extended fragmented file record missing base file record with attribute list "
                         "%016I64x\n",
                         f->base_frn);
            _deliver_chain(r, f->base_frn, &f->d);
            continue;
        }
        ntfs_pending_record_t *e = _pending_at(r, (uint32_t) i);
        if (e->frn != f->base_frn)
            continue; // the base was re-used since: this fragment is stale
        e->size += f->d.size;
        if (!e->have_standard_information) {
            e->attributes = f->d.attributes;
            e->date_created = f->d.date_created;
            e->date_modified = f->d.date_modified;
            e->date_accessed = f->d.date_accessed;
            e->have_standard_information = f->d.have_standard_information;
        }
        if (f->d.head) {
            if (e->tail)
                e->tail->next = f->d.head;
            else
                e->head = f->d.head;
            e->tail = f->d.tail;
        }
    }
    for (uint32_t i = 0; i < r->pending_count; i++) {
        ntfs_pending_record_t *e = _pending_at(r, i);
        _deliver_chain(r, e->frn, e);
    }
    for (_ext_mft_t *e; (e = _ext_pop(r));) {
        debug_printf("unprocessed extended MFT file record\n");
        mem_free(e);
    }
    for (uint32_t b = 0; b < r->pending_blocks; b++)
        mem_free(r->pending[b]);
    mem_free(r->pending);
    while (r->pool) {
        _pool_block_t *n = r->pool->next;
        mem_free(r->pool);
        r->pool = n;
    }
    for (void **b = (void **) r->large_names; b;) {
        void **n = (void **) *b;
        mem_free(b);
        b = n;
    }
    mem_free(r->names);
    mem_free(r->aligned);
    mem_free(r);
}

// ---- the map of $MFT and the pass ----------------------------------------------------------------------

struct _run_block_t {
    uint64_t lowest_vcn;
    uint32_t length;
    uint8_t *pairs;
};

struct _map_t {
    _run_block_t *blocks; // sorted by lowest_vcn, unique
    uint32_t count, cap;
    uint64_t record_total;
    bool have_total;
};

static void _map_add(_map_t *m, uint64_t vcn, const uint8_t *pairs, uint32_t length) {
    uint32_t i = 0;
    while (i < m->count && m->blocks[i].lowest_vcn < vcn)
        i++;
    if (i < m->count && m->blocks[i].lowest_vcn == vcn)
        return; // a second list for the same clusters: the first one holds
    if (m->count == m->cap) {
        m->cap = m->cap ? m->cap * 2 : 8;
        m->blocks = (_run_block_t *) mem_realloc(m->blocks, m->cap * sizeof(_run_block_t));
    }
    memmove(m->blocks + i + 1, m->blocks + i, (m->count - i) * sizeof(_run_block_t));
    m->blocks[i] = {vcn, length, (uint8_t *) mem_dup(pairs, length)};
    m->count++;
}

struct _load_t {
    _map_t *map;
    uint32_t record_size;
};

static bool _visit_mft(void *ctx, const ntfs_attr_t *a) {
    _load_t *l = (_load_t *) ctx;
    if (a->type != NTFS_ATTR_DATA || a->p[9] != 0)
        return true;
    if (a->p[8] == 0) {
        debug_printf("resident MFT data\n");
        return true;
    }
    if (a->len < 72) {
        debug_printf("bad MFT record length %d for nonresident\n", (int) a->len);
        return true;
    }
    uint64_t vcn = ntfs_u64(a->p + 16);
    // The first piece of the table's data says how long the table is; later pieces can't change it.
    if (vcn == 0 && !l->map->have_total) {
        l->map->record_total = ntfs_u64(a->p + 56) / l->record_size;
        l->map->have_total = true;
    }
    uint32_t off = ntfs_u16(a->p + 32);
    if (off < a->len)
        _map_add(l->map, vcn, a->p + off, a->len - off);
    return true;
}

// Adds the run lists of $MFT's own record (or one of its extensions) to the map.
static void _load_mft_record(_map_t *map, uint8_t *rec, uint32_t size) {
    if (!ntfs_fixup(rec, size))
        return;
    _load_t l = {map, size};
    ntfs_walk_attributes(rec, size, 0, 16, _visit_mft, &l);
}

static int _map_take(_map_t *m, uint64_t vcn, _run_block_t *out) {
    for (uint32_t i = 0; i < m->count; i++)
        if (m->blocks[i].lowest_vcn == vcn) {
            *out = m->blocks[i];
            memmove(m->blocks + i, m->blocks + i + 1, (m->count - i - 1) * sizeof(_run_block_t));
            m->count--;
            return 1;
        }
    return 0;
}

struct _pass_t {
    os_file_t volume;
    const ntfs_boot_info_t *info;
    ntfs_mft_reader_t *reader;
    uint8_t *buf;
    uint32_t read_size, fill;
    uint64_t remaining;
};

// Hands the whole records in the buffer to the reader, at most the remaining count, and keeps a partial
// record's bytes at the front: a run may end inside a record when clusters are smaller than records.
static void _hand(_pass_t *p) {
    uint32_t rs = p->info->bytes_per_file_record;
    uint64_t n = p->fill / rs;
    if (n > p->remaining) {
        debug_printf("more data than file record run %u > %I64u\n", (unsigned) n, p->remaining);
        n = p->remaining;
    }
    ntfs_reader_records(p->reader, p->buf, (uint32_t) n);
    p->remaining -= n;
    uint32_t used = (uint32_t) n * rs, rest = p->fill - used;
    if (rest >= rs)
        rest = 0; // cut by the remaining count: the rest lies past the table's end
    memmove(p->buf, p->buf + used, rest);
    p->fill = rest;
}

// Reads the runs of one block into the buffer. Returns false when the reading of the table ends.
static bool _read_block(_pass_t *p, const _run_block_t *b, uint64_t *clusters) {
    const uint8_t *pos = b->pairs, *end = b->pairs + b->length;
    int64_t lcn = 0;
    uint64_t bpc = p->info->bytes_per_cluster;
    for (;;) {
        ntfs_run_t run;
        int k = ntfs_mapping_pair_next(&pos, end, &lcn, &run);
        if (k < 0)
            return false;
        if (k == 0)
            return true;
        *clusters += run.count;
        if (run.sparse)
            continue;
        uint64_t start, bytes;
        if (run.lcn < 0 || __builtin_mul_overflow((uint64_t) run.lcn, bpc, &start) ||
            __builtin_mul_overflow(run.count, bpc, &bytes) || start + bytes < start) {
            debug_printf("failed to set file pointer\n");
            return false;
        }
        while (bytes) {
            uint32_t piece = p->read_size - p->fill;
            if (piece > bytes)
                piece = (uint32_t) bytes;
            int64_t got = os_file_read_at(p->volume, start, p->buf + p->fill, piece);
            if (got != (int64_t) piece) {
                debug_printf("read cluster failed\n");
                return false;
            }
            p->fill += piece;
            start += piece;
            bytes -= piece;
            if (p->fill == p->read_size) {
                _hand(p);
                if (!p->remaining)
                    return false;
            }
        }
    }
}

void ntfs_enum_mft(os_file_t volume, const ntfs_boot_info_t *info, uint32_t flags, void *user,
                   ntfs_callback_t callback) {
    uint32_t bps = info->bytes_per_sector, bpc = info->bytes_per_cluster, rs = info->bytes_per_file_record;
    if (!bps || !rs || !bpc || rs < 42 || rs > (1u << 20))
        return;
    uint32_t start = debug_now_us();
    uint32_t read_size = 65536;
    if (bpc > read_size)
        read_size = bpc;
    if (rs > read_size)
        read_size = rs;
    read_size -= read_size % rs;
    uint32_t rec_size = rs > bps ? rs : bps;
    uint8_t *buf = (uint8_t *) os_vm_alloc(read_size);
    uint8_t *rec = (uint8_t *) os_vm_alloc(rec_size);
    if (!rec)
        DEBUG_FATAL("Virtual alloc NTFS file record buffer");
    if (!buf)
        DEBUG_FATAL("Virtual alloc NTFS read buffer");
    ntfs_mft_reader_t *reader = ntfs_reader_create(rs, flags, user, callback);
    _map_t map = {};
    uint64_t first;
    int64_t got = -1;
    if (!__builtin_mul_overflow(info->mft_lcn, (uint64_t) bpc, &first))
        got = os_file_read_at(volume, first, rec, rec_size);
    if (got != (int64_t) rec_size) {
        if (got < 0)
            debug_printf("NRFR read error %d\n", (int) os_last_error());
        else
            debug_printf("NRFR read error %d != %d\n", (int) got, (int) rec_size);
        debug_printf("read error %I64x %d\n", info->mft_lcn * bpc, (int) rec_size);
        memset(rec, 0, rec_size);
    }
    _load_mft_record(&map, rec, rs);
    _pass_t p = {volume, info, reader, buf, read_size, 0, map.record_total};
    uint64_t next_vcn = 0;
    bool reading = true;
    while (reading) {
        _run_block_t b;
        if (_map_take(&map, next_vcn, &b)) {
            uint64_t clusters = 0;
            reading = p.remaining && _read_block(&p, &b, &clusters);
            next_vcn += clusters;
            mem_free(b.pairs);
            continue;
        }
        // No piece starts where the last ended: hand on what is in the buffer, and look for further
        // pieces in the extension records of $MFT that the scan has met so far.
        if (p.fill >= rs)
            debug_printf("left over count %u\n", p.fill / rs);
        _hand(&p);
        _ext_mft_t *e = _ext_pop(reader);
        if (!e)
            break;
        debug_printf("process extended MFT file record\n");
        memcpy(rec, e->data, rs);
        mem_free(e);
        uint64_t total = map.record_total;
        _load_mft_record(&map, rec, rs);
        map.record_total = total;
    }
    debug_printf("processed %I64u / %I64u file records\n", reader->record_number, map.record_total);
    ntfs_reader_finish(reader);
    if (map.count)
        debug_printf("%d unprocessed MFT data runs\n", (int) map.count);
    for (uint32_t i = 0; i < map.count; i++)
        mem_free(map.blocks[i].pairs);
    mem_free(map.blocks);
    os_vm_free(buf, read_size);
    os_vm_free(rec, rec_size);
    debug_printf("%f seconds\n", debug_now_us() - start);
}
