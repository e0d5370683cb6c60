// Private to src/ntfs: little-endian field reads and the attribute walk that the pass and ntfs_get_fd
// share.
#pragma once

#include <cstring>

#include "ntfs/ntfs.h"

inline uint16_t ntfs_u16(const uint8_t *p) {
    uint16_t v;
    memcpy(&v, p, 2);
    return v;
}
inline uint32_t ntfs_u32(const uint8_t *p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}
inline uint64_t ntfs_u64(const uint8_t *p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return v;
}

#define NTFS_FRN_MASK 0xFFFFFFFFFFFFull

enum {
    NTFS_ATTR_STANDARD_INFORMATION = 0x10,
    NTFS_ATTR_ATTRIBUTE_LIST = 0x20,
    NTFS_ATTR_FILE_NAME = 0x30,
    NTFS_ATTR_DATA = 0x80,
    NTFS_ATTR_END = 0xFFFFFFFF,
};

// The record header's fields.
enum {
    NTFS_REC_MAGIC = 0x454C4946, // "FILE"
    NTFS_REC_IN_USE = 1,
    NTFS_REC_DIRECTORY = 2,
};

// One attribute of a record: where it starts and how long it is, inside the record.
struct ntfs_attr_t {
    const uint8_t *p;
    uint32_t len;
    uint32_t type;
};

// Walks the attributes of a record of size bytes from the offset at 20: each must lie inside the record
// with its length (0 not allowed, at least min_len) fitting in what is left. Calls visit(ctx, attr) for
// each until the end marker; stops when visit returns false. Returns false (logged with recno) when the
// bounds broke before the end marker.
bool ntfs_walk_attributes(const uint8_t *rec, uint32_t size, uint64_t recno, uint32_t min_len,
                          bool (*visit)(void *ctx, const ntfs_attr_t *a), void *ctx);
