// Fuzzes the walk of ReadDirectoryChangesW buffers, which may come from a network server.
//
// Any bytes must walk without a fault. The result is OK, MALFORMED or, for no bytes, OVERFLOW; a fault
// names one of the three checks and the bytes received; every delivered entry has a known action and a
// path as long as it says, of at most three bytes per UTF-16 unit, and no entry takes less than its fixed
// part of the buffer.
#include <cstdlib>
#include <cstring>

#include "os/os_dirwatch.h"

struct fuzz_state {
    size_t entries;
    size_t size;
};

static void _entry(void *ctx, const os_dirwatch_entry_t *e) {
    fuzz_state *s = (fuzz_state *) ctx;
    if (e->action < OS_DIRWATCH_ADDED || e->action > OS_DIRWATCH_RENAMED_NEW) {
        abort();
    }
    if (strlen(e->path) != e->path_len || e->path_len > s->size * 3 / 2) {
        abort();
    }
    s->entries++;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 0x100000) {
        return 0;
    }
    fuzz_state s = {0, size};
    os_dirwatch_fault_t fault;
    int r = os_dirwatch_walk_rdc(data, (uint32_t) size, _entry, &s, &fault);
    if (size == 0) {
        if (r != OS_DIRWATCH_OVERFLOW || s.entries) {
            abort();
        }
        return 0;
    }
    if (r == OS_DIRWATCH_OK) {
        if (fault.check != OS_DIRWATCH_FAULT_NONE) {
            abort();
        }
    } else if (r == OS_DIRWATCH_MALFORMED) {
        if (fault.check < OS_DIRWATCH_FAULT_NAME_ACCESS || fault.check > OS_DIRWATCH_FAULT_NAME_LENGTH ||
            fault.size != (int32_t) size) {
            abort();
        }
    } else {
        abort();
    }
    // Every entry takes at least its 12-byte fixed part.
    if (s.entries > size / 12) {
        abort();
    }
    return 0;
}
