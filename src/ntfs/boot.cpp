// The boot sector: sizes, where $MFT begins, and the checks that turn away a volume that isn't NTFS; the
// fix-up and the mapping pairs, which every record and run list passes through.
#include "debug/debug.h"
#include "ntfs/ntfs_internal.h"

bool ntfs_read_boot_sector(os_file_t volume, ntfs_boot_info_t *info) {
    uint32_t sector = os_volume_sector_size(volume);
    if (!sector)
        return false;
    // The fields read lie below offset 80; a smaller sector couldn't hold them.
    if (sector < 80 || sector > (1u << 20)) {
        debug_printf("bad sector size %u\n", sector);
        return false;
    }
    uint8_t *buf = (uint8_t *) os_vm_alloc(sector);
    if (!buf) {
        debug_printf("failed to alloc sector buf\n");
        return false;
    }
    bool ok = false;
    int64_t got = os_file_read_at(volume, 0, buf, sector);
    if (got < 0)
        debug_printf("failed to read NTFS boot sector: %u\n", os_last_error());
    else if ((uint64_t) got != sector)
        debug_printf("unable to read all of NTFS boot sector: %u\n", (unsigned) got);
    else if (memcmp(buf + 3, "NTFS    ", 8) != 0)
        debug_printf("bad NTFS signature: %t\n", (const char *) buf + 3, 8);
    else {
        uint32_t bps = ntfs_u16(buf + 11);
        uint32_t spc = buf[13];
        // Above 128 the byte is a negated power of two (0xF8: 1 << 8), which large clusters need.
        if (spc > 128)
            spc = 256 - spc < 32 ? 1u << (256 - spc) : 0;
        uint64_t bpc = (uint64_t) spc * bps;
        int8_t per_record = (int8_t) buf[64];
        uint64_t bpr = per_record > 0     ? (uint64_t) per_record * bpc
                       : -per_record < 32 ? 1ull << -per_record
                                          : 0;
        if (bpc == 0 || bpc > 0xFFFFFFFFull)
            debug_printf("invalid bytes_per_cluster %u\n", (unsigned) bpc);
        else if (bps == 0)
            debug_printf("invalid bytes_per_sector %u\n", bps);
        else if (bpr == 0 || bpr > 0xFFFFFFFFull)
            debug_printf("invalid bytes_per_file_record %u\n", (unsigned) bpr);
        else {
            info->bytes_per_sector = bps;
            info->bytes_per_cluster = (uint32_t) bpc;
            info->bytes_per_file_record = (uint32_t) bpr;
            info->mft_lcn = ntfs_u64(buf + 48);
            info->serial_number = ntfs_u64(buf + 72);
            debug_printf("mft_lcn %I64u\n", info->mft_lcn);
            debug_printf("serial_number %I64u\n", info->serial_number);
            debug_printf("bytes_per_cluster %u\n", info->bytes_per_cluster);
            debug_printf("bytes_per_file_record %u\n", info->bytes_per_file_record);
            ok = true;
        }
    }
    os_vm_free(buf, sector);
    return ok;
}

bool ntfs_fixup(uint8_t *rec, uint32_t size) {
    if (size < 8)
        return false;
    uint32_t off = ntfs_u16(rec + 4), count = ntfs_u16(rec + 6);
    if (count <= 1)
        return true;
    if (off > size || count * 2 > size - off || (uint64_t) (count - 1) * 512 > size) {
        debug_printf("invalid file record access at offset %u len %u\n", off, count * 2);
        return false;
    }
    uint16_t check = ntfs_u16(rec + off);
    for (uint32_t i = 1; i < count; i++) {
        uint8_t *last = rec + i * 512 - 2;
        uint16_t v = ntfs_u16(last);
        if (v != check) {
            if (debug_verbose)
                debug_printf("bad US %x != %x\n", v, check);
            return false;
        }
        memcpy(last, rec + off + i * 2, 2);
    }
    return true;
}

int ntfs_mapping_pair_next(const uint8_t **pos, const uint8_t *end, int64_t *lcn, ntfs_run_t *run) {
    const uint8_t *p = *pos;
    if (p >= end) {
        debug_printf("bad mapping pair addr %p > end %p\n", (uintptr_t) p, (uintptr_t) end);
        return -1;
    }
    uint8_t header = *p++;
    if (header == 0)
        return 0;
    uint32_t len_size = header & 15, off_size = header >> 4;
    if (len_size > 8) {
        debug_printf("unsupported mapping pair len size %d\n", (int) len_size);
        return -1;
    }
    if (off_size > 8) {
        debug_printf("unsupported mapping offset size %d\n", (int) off_size);
        return -1;
    }
    if ((size_t) (end - p) < len_size) {
        debug_printf("bad mapping pair cluster count addr %p > end %p\n", (uintptr_t) (p + len_size),
                     (uintptr_t) end);
        return -1;
    }
    uint64_t count = 0;
    for (uint32_t i = 0; i < len_size; i++)
        count |= (uint64_t) p[i] << (8 * i);
    p += len_size;
    if ((size_t) (end - p) < off_size) {
        debug_printf("bad mapping pair offset size addr %p > end %p\n", (uintptr_t) (p + off_size),
                     (uintptr_t) end);
        return -1;
    }
    run->count = count;
    run->sparse = off_size == 0;
    if (off_size) {
        uint64_t delta = 0;
        for (uint32_t i = 0; i < off_size; i++)
            delta |= (uint64_t) p[i] << (8 * i);
        // Sign-extend from the top byte read.
        if (off_size < 8 && (p[off_size - 1] & 0x80))
            delta |= ~0ull << (8 * off_size);
        // Wrapping arithmetic: a damaged list may run the position anywhere, and the reads refuse it.
        *lcn = (int64_t) ((uint64_t) *lcn + delta);
        p += off_size;
    }
    run->lcn = *lcn;
    *pos = p;
    return 1;
}

bool ntfs_walk_attributes(const uint8_t *rec, uint32_t size, uint64_t recno, uint32_t min_len,
                          bool (*visit)(void *ctx, const ntfs_attr_t *a), void *ctx) {
    if (size < 22)
        return false;
    uint32_t off = ntfs_u16(rec + 20);
    for (;;) {
        if (off > size || size - off < 4) {
            debug_printf("invalid file record access at offset %u len %u\n", off, 4u);
            return false;
        }
        uint32_t type = ntfs_u32(rec + off);
        if (type == NTFS_ATTR_END)
            return true;
        uint32_t left = size - off;
        if (left < 8) {
            debug_printf("invalid file record access at offset %u len %u\n", off, 8u);
            return false;
        }
        uint32_t len = ntfs_u32(rec + off + 4);
        if (len > left) {
            debug_printf("invalid file record access at offset %u len %u\n", off, len);
            return false;
        }
        if (len < min_len) {
            debug_printf("\t%I64u: BAD record length %d < %d\n", recno, (int) len, (int) min_len);
            return false;
        }
        ntfs_attr_t a = {rec + off, len, type};
        if (!visit(ctx, &a))
            return true;
        off += len;
    }
}
