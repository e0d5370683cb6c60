// Any bytes as the block a running instance receives from a later one: the block check must refuse what
// is malformed without reading past the end, and a block it accepts must parse against the folder it
// carries, and build back into a block that reads the same.
#include "cl/cl.h"
#include "main/main.h"
#include "mem/mem.h"

#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 65536) {
        return 0;
    }
    // A copy of exactly the received size, so that a read past it is caught.
    void *block = mem_alloc(size ? size : 1);
    memcpy(block, data, size);
    int32_t show;
    const char *command_line;
    const char *folder;
    if (main_handover_parse(block, (uint32_t) size, &show, &command_line, &folder)) {
        main_switches_t sw;
        main_switches_parse_line(&sw, command_line, folder);
        str_t search;
        str_init(&search);
        cl_build_search(&search, (sw.cl->on & CL_ON_REGEX) != 0, sw.cl);
        str_kill(&search);
        main_switches_kill(&sw);

        uint32_t size2;
        void *again = main_handover_build(show, command_line, folder, &size2);
        int32_t show2;
        const char *cl2;
        const char *folder2;
        if (!main_handover_parse(again, size2, &show2, &cl2, &folder2) || show2 != show ||
            strcmp(cl2, command_line) != 0 || strcmp(folder2, folder) != 0) {
            __builtin_trap();
        }
        mem_free(again);
    }
    mem_free(block);
    return 0;
}
