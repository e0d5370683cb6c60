// Feeds arbitrary bytes to the list reader as a list file, under both separators, and runs the tree step
// over what it accepted. Every callback checks that names and parents are sound.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "filelist/filelist.h"

struct fuzz_tree_t {
    uintptr_t made;
};

static uintptr_t _fuzz_tree_proc(void *ctx, uintptr_t parent, filelist_kind_t kind, const char *name,
                                 uint32_t len, const os_file_info_t *fd) {
    fuzz_tree_t *t = (fuzz_tree_t *) ctx;
    if (parent > t->made || (len && !name) ||
        (kind != FILELIST_FILE && !(fd->attributes & OS_ATTR_DIRECTORY))) {
        __builtin_trap();
    }
    // Touch every byte of the name so the sanitizer sees any read past its end.
    volatile uint8_t sum = 0;
    for (uint32_t i = 0; i < len; i++) {
        sum = (uint8_t) (sum + (uint8_t) name[i]);
    }
    return ++t->made;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    for (char sep : {'/', '\\'}) {
        filelist_t list;
        filelist_init(&list, sep);
        csv_t *csv = csv_open_memory(data, size);
        filelist_options_t options = {size % 2 == 1, size % 3 == 1};
        filelist_read_csv(&list, csv, sep == '/' ? "/base/dir" : "D:\\base\\dir", &options);
        csv_close(csv);
        fuzz_tree_t t = {0};
        filelist_tree(&list, _fuzz_tree_proc, &t);
        filelist_kill(&list);
    }
    return 0;
}
