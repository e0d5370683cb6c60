// One file's details by its reference: the record asked of the file system, or, where the volume is an
// image or the platform can't answer, read from the volume through the run map of $MFT.
#include "debug/debug.h"
#include "mem/mem.h"
#include "ntfs/ntfs_internal.h"

// Reads record recno through $MFT's own run list (its first record only: enough for any record that the
// first piece of the table holds, which is every record of a table without an attribute list).
static bool _read_record(os_file_t volume, uint64_t recno, uint8_t *out, uint32_t *size) {
    ntfs_boot_info_t info;
    if (!ntfs_read_boot_sector(volume, &info) || info.bytes_per_file_record < 42 ||
        info.bytes_per_file_record > (1u << 20))
        return false;
    uint32_t rs = info.bytes_per_file_record, bpc = info.bytes_per_cluster;
    uint8_t *rec = (uint8_t *) mem_alloc(rs);
    uint64_t off;
    bool ok = !__builtin_mul_overflow(info.mft_lcn, (uint64_t) bpc, &off) &&
              os_file_read_at(volume, off, rec, rs) == (int64_t) rs && ntfs_fixup(rec, rs);
    // Find the $DATA attribute with lowest VCN 0 and walk its runs to the byte that holds the record.
    uint64_t want = recno * rs, vcn_byte = 0;
    bool found = false;
    if (ok && rec[20] < rs) {
        uint32_t a = ntfs_u16(rec + 20);
        while (!found && a + 16 <= rs && ntfs_u32(rec + a) != NTFS_ATTR_END) {
            uint32_t len = ntfs_u32(rec + a + 4);
            if (len < 16 || len > rs - a)
                break;
            const uint8_t *at = rec + a;
            if (ntfs_u32(at) == NTFS_ATTR_DATA && at[8] && !at[9] && len >= 72 && ntfs_u64(at + 16) == 0 &&
                ntfs_u16(at + 32) < len) {
                const uint8_t *pos = at + ntfs_u16(at + 32), *end = at + len;
                int64_t lcn = 0;
                ntfs_run_t run;
                while (!found && ntfs_mapping_pair_next(&pos, end, &lcn, &run) == 1) {
                    uint64_t bytes = run.count * bpc;
                    if (want < vcn_byte + bytes && want + rs <= vcn_byte + bytes && !run.sparse &&
                        run.lcn >= 0) {
                        off = (uint64_t) run.lcn * bpc + (want - vcn_byte);
                        found = true;
                    }
                    vcn_byte += bytes;
                }
            }
            a += len;
        }
    }
    mem_free(rec);
    if (!found || *size < rs || os_file_read_at(volume, off, out, rs) != (int64_t) rs)
        return false;
    *size = rs;
    return true;
}

// The record of frn into buf (size bytes at most; *size becomes the record's size). False when it can't
// be had, or the record returned is another one.
static bool _fetch(os_file_t volume, uint64_t frn, uint8_t *buf, uint32_t *size) {
    uint64_t got = 0;
    if (os_volume_ntfs_file_record(volume, frn, buf, size, &got)) {
        if ((got & NTFS_FRN_MASK) != (frn & NTFS_FRN_MASK)) {
            if (debug_verbose)
                debug_printf("FRN not in use %I64x\n", frn);
            return false;
        }
        return true;
    }
    return _read_record(volume, frn & NTFS_FRN_MASK, buf, size);
}

struct _fd_walk_t {
    os_file_info_t *out;
    bool is_dir;
    bool got_standard, got_data;
    uint64_t here;     // the record in hand
    uint64_t data_frn; // where the attribute list says the data lives, 0 when here
    os_file_t volume;
    uint32_t record_size;
    bool list_followed;
};

static void _scan_list(_fd_walk_t *w, const uint8_t *p, uint32_t len) {
    uint32_t off = 0;
    while (len - off >= 26) {
        uint32_t type = ntfs_u32(p + off);
        if (type == NTFS_ATTR_END)
            break;
        uint32_t elen = ntfs_u16(p + off + 4);
        if (elen < 26 || elen > len - off) {
            debug_printf("bad al len %u\n", elen);
            break;
        }
        if (type == NTFS_ATTR_DATA && ntfs_u64(p + off + 8) == 0) {
            uint64_t ref = ntfs_u64(p + off + 16);
            if ((ref & NTFS_FRN_MASK) != (w->here & NTFS_FRN_MASK)) {
                debug_printf("_NTFS_ATTRIBUTE_TYPE_DATA in %016I64x\n", ref);
                w->data_frn = ref;
            }
            break;
        }
        off += elen;
    }
}

static bool _fd_visit(void *ctx, const ntfs_attr_t *a) {
    _fd_walk_t *w = (_fd_walk_t *) ctx;
    if (a->p[9] != 0)
        return true;
    bool resident = a->p[8] == 0;
    if (a->type == NTFS_ATTR_STANDARD_INFORMATION && resident && a->len >= 22) {
        uint32_t v = ntfs_u16(a->p + 20);
        if (v <= a->len && a->len - v >= 36) {
            const uint8_t *s = a->p + v;
            w->out->date_created = ntfs_u64(s);
            w->out->date_modified = ntfs_u64(s + 8);
            w->out->date_accessed = ntfs_u64(s + 24);
            w->out->attributes = ntfs_u32(s + 32);
            w->got_standard = true;
            if (w->is_dir) {
                w->out->attributes |= OS_ATTR_DIRECTORY;
                return false;
            }
        }
    } else if (a->type == NTFS_ATTR_DATA && !w->is_dir) {
        if (resident && a->len >= 22) {
            w->out->size = ntfs_u32(a->p + 16);
            w->got_data = true;
        } else if (!resident && a->len >= 72 && ntfs_u64(a->p + 16) == 0) {
            w->out->size = ntfs_u64(a->p + 48);
            w->got_data = true;
        }
    } else if (a->type == NTFS_ATTR_ATTRIBUTE_LIST && !w->is_dir && !w->list_followed) {
        w->list_followed = true;
        debug_printf("attribute list %02x\n", a->type);
        if (resident && a->len >= 22) {
            uint32_t v = ntfs_u16(a->p + 20), vl = ntfs_u32(a->p + 16);
            if (v <= a->len && vl <= a->len - v)
                _scan_list(w, a->p + v, vl);
        } else if (!resident && a->len >= 72 && !(ntfs_u16(a->p + 12) & 0xC001) && ntfs_u64(a->p + 16) == 0 &&
                   ntfs_u16(a->p + 32) < a->len) {
            const uint8_t *pos = a->p + ntfs_u16(a->p + 32);
            int64_t lcn = 0;
            ntfs_run_t run;
            ntfs_boot_info_t info;
            if (ntfs_mapping_pair_next(&pos, a->p + a->len, &lcn, &run) == 1 && !run.sparse && run.lcn >= 0 &&
                ntfs_read_boot_sector(w->volume, &info)) {
                debug_printf("mapping pair cluster offset: %I64d, cluster count: %I64u\n", run.lcn,
                             run.count);
                uint64_t size = ntfs_u64(a->p + 48);
                uint32_t n = size < w->record_size ? (uint32_t) size : w->record_size;
                uint64_t pos_bytes = (uint64_t) run.lcn * info.bytes_per_cluster;
                uint8_t *buf = (uint8_t *) mem_alloc(n + 1);
                debug_printf("read size %d\n", (int) n);
                if (os_file_read_at(w->volume, pos_bytes, buf, n) == (int64_t) n)
                    _scan_list(w, buf, n);
                else
                    debug_printf("bad file pos %I64u\n", pos_bytes);
                mem_free(buf);
            }
        }
    }
    return !(w->got_standard && w->got_data);
}

bool ntfs_get_fd(os_file_t volume, uint64_t frn_low, uint64_t frn_high, os_file_info_t *out) {
    (void) frn_high;
    out->size = out->date_modified = out->date_created = out->date_accessed = UINT64_MAX;
    out->attributes = 0;
    const uint32_t cap = 1u << 16;
    uint8_t *buf = (uint8_t *) mem_alloc(cap + 15);
    _fd_walk_t w = {};
    w.out = out;
    w.volume = volume;
    uint64_t frn = frn_low;
    bool retried_base = false, retried_data = false, first = true, base_known = false;
    uint64_t base = 0;
    for (;;) {
        uint32_t size = cap;
        if (!_fetch(volume, frn, buf, &size))
            break;
        if (ntfs_u32(buf) != NTFS_REC_MAGIC) {
            debug_printf("get fd: not a file record\n");
            break;
        }
        if (!(ntfs_u16(buf + 22) & NTFS_REC_IN_USE)) {
            debug_printf("get fd: not inuse\n");
            break;
        }
        if (first) {
            base = ntfs_u64(buf + 32);
            base_known = base != 0;
            first = false;
        }
        if (!ntfs_fixup(buf, size))
            break;
        w.is_dir = (ntfs_u16(buf + 22) & NTFS_REC_DIRECTORY) != 0;
        w.here = frn;
        w.record_size = size;
        ntfs_walk_attributes(buf, size, frn & NTFS_FRN_MASK, 16, _fd_visit, &w);
        if (w.got_standard && (w.got_data || w.is_dir))
            break;
        if (base_known && !retried_base) {
            debug_printf("retry with base %016I64x for %016I64x\n", base, frn);
            retried_base = true;
            frn = base;
            continue;
        }
        if (w.data_frn && !retried_data) {
            debug_printf("retry with type_data %016I64x for %016I64x\n", w.data_frn, frn);
            retried_data = true;
            frn = w.data_frn;
            continue;
        }
        debug_printf("couldnt get fd from %016I64x %x\n", frn_low,
                     (unsigned) (w.got_standard | w.got_data << 1));
        break;
    }
    if (debug_verbose)
        debug_printf("got ntfs file record %I64x %I64u %d\n", frn_low, out->size, (int) out->attributes);
    mem_free(buf);
    return w.got_standard && (w.got_data || w.is_dir);
}
