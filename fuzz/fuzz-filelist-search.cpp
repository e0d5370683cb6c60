// Feeds arbitrary bytes, written to a file, to the routine that turns a list into search text: once as a
// table (".swl") and once as plain lines (".txt"). The text must be a clean '|'-joined list: no empty
// alternative, and no line end from a plain-text file.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "filelist/create.h"
#include "mem/mem.h"
#include "os/os.h"
#include "text/text.h"

static std::string _scratch(const char *ext) {
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string p =
        std::string(tmp.ptr) + OS_SEP_STR + "sw-fuzz-search-" + std::to_string(os_thread_id()) + ext;
    str_kill(&tmp);
    return p;
}

static void _check(const str_t *out, bool lines) {
    const char *s = out->ptr;
    int n = out->len;
    if (n == 0) {
        return;
    }
    if (s[0] == '|' || s[n - 1] == '|') {
        __builtin_trap();
    }
    for (int i = 1; i < n; i++) {
        if (s[i] == '|' && s[i - 1] == '|') {
            __builtin_trap();
        }
    }
    if (lines && (memchr(s, '\r', (size_t) n) || memchr(s, '\n', (size_t) n))) {
        __builtin_trap();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool once = false;
    if (!once) {
        text_init_tables();
        once = true;
    }
    for (const char *ext : {".swl", ".txt"}) {
        std::string path = _scratch(ext);
        os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
        if (f == OS_FILE_INVALID) {
            return 0;
        }
        os_file_write(f, data, size);
        os_file_close(f);
        str_t out;
        str_init(&out);
        if (!filelist_to_search(&out, path.c_str())) {
            __builtin_trap();
        }
        _check(&out, ext[1] == 't');
        str_kill(&out);
        os_file_delete(path.c_str());
    }
    return 0;
}
