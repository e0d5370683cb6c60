// The walk of a ReadDirectoryChangesW buffer. The buffer comes from the kernel or, over a network share,
// from a server we don't trust, so every field is read through memcpy (nothing in it is assumed aligned)
// and every entry is checked against the bytes received before it is used.
#include "mem/mem.h"
#include "os/os_dirwatch.h"

#include <cstring>

// FILE_NOTIFY_INFORMATION: NextEntryOffset, Action, FileNameLength (bytes), then the UTF-16 name.
#define RDC_HEADER_BYTES 12u

static uint32_t rdc_u32(const uint8_t *p) {
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return v;
}

static int rdc_fail(os_dirwatch_fault_t *fault, uint32_t check, uint64_t reach, uint32_t size) {
    fault->check = check;
    // The log prints both as signed ints; a reach past that range is shown as its largest value.
    fault->reach = reach > 0x7FFFFFFFu ? 0x7FFFFFFF : (int32_t) reach;
    fault->size = size > 0x7FFFFFFFu ? 0x7FFFFFFF : (int32_t) size;
    return OS_DIRWATCH_MALFORMED;
}

// Delivers one entry whose name (name_bytes, even) lies inside the buffer, unless the name is impossible.
static void rdc_deliver(uint32_t action, const uint8_t *name, uint32_t name_bytes, uint16_t **units,
                        uint32_t *units_cap, str_t *path, os_dirwatch_callback_t callback, void *ctx) {
    uint32_t n = name_bytes / 2;
    if (n > *units_cap) {
        *units = (uint16_t *) mem_realloc(*units, (size_t) n * sizeof(uint16_t));
        *units_cap = n;
    }
    if (n) {
        memcpy(*units, name, (size_t) n * sizeof(uint16_t));
    }
    // No file is named with U+0000; a name holding one (from a server that lies) would be cut short by
    // every reader of the zero-terminated path, so the entry names nothing and is passed over.
    for (uint32_t i = 0; i < n; i++) {
        if ((*units)[i] == 0) {
            return;
        }
    }
    str_set_wide_n(path, *units, (int) n);
    os_dirwatch_entry_t e;
    e.action = action;
    e.path = path->ptr ? path->ptr : "";
    e.path_len = (uint32_t) path->len;
    e.kind = OS_DIRWATCH_KIND_UNKNOWN;
    callback(ctx, &e);
}

int os_dirwatch_walk_rdc(const void *bytes, uint32_t size, os_dirwatch_callback_t callback, void *ctx,
                         os_dirwatch_fault_t *fault) {
    fault->check = OS_DIRWATCH_FAULT_NONE;
    fault->reach = 0;
    fault->size = 0;
    if (size == 0) {
        return OS_DIRWATCH_OVERFLOW;
    }
    const uint8_t *buf = (const uint8_t *) bytes;
    uint16_t *units = nullptr;
    uint32_t units_cap = 0;
    str_t path;
    str_init(&path);
    int result = OS_DIRWATCH_OK;
    // 64-bit offsets: a NextEntryOffset near 4 GiB must not wrap around to a small one.
    uint64_t off = 0;
    for (;;) {
        if (off + RDC_HEADER_BYTES > size) {
            result = rdc_fail(fault, OS_DIRWATCH_FAULT_NAME_ACCESS, off + RDC_HEADER_BYTES, size);
            break;
        }
        const uint8_t *e = buf + off;
        uint32_t next = rdc_u32(e);
        uint32_t action = rdc_u32(e + 4);
        uint32_t name_bytes = rdc_u32(e + 8);
        // A next entry must lie past this one's fixed part and have its own fixed part inside the buffer.
        // Windows keeps entries 4-byte aligned but Wine packs them, so alignment is not required.
        if (next != 0 && (next < RDC_HEADER_BYTES || off + next + RDC_HEADER_BYTES > size)) {
            result = rdc_fail(fault, OS_DIRWATCH_FAULT_NEXT_OFFSET, off + next, size);
            break;
        }
        // The name must end inside the buffer, and inside this entry when another one follows.
        uint64_t name_end = off + RDC_HEADER_BYTES + name_bytes;
        if (name_end > size || (name_bytes & 1) || (next != 0 && RDC_HEADER_BYTES + name_bytes > next)) {
            result = rdc_fail(fault, OS_DIRWATCH_FAULT_NAME_LENGTH, name_end, size);
            break;
        }
        if (action >= OS_DIRWATCH_ADDED && action <= OS_DIRWATCH_RENAMED_NEW) {
            rdc_deliver(action, e + RDC_HEADER_BYTES, name_bytes, &units, &units_cap, &path, callback, ctx);
        }
        if (next == 0) {
            break;
        }
        off += next;
    }
    str_kill(&path);
    mem_free(units);
    return result;
}
