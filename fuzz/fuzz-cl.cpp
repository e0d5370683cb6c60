// Any bytes as a command line: the parse must always give a result and never fault. The first byte picks
// the variant (program name in front or not, regular expression or plain search text); the rest also
// goes through the path rules of both styles, split in two at a byte of the input, and must read back
// unchanged through the tokeniser once quoted.
#include "cl/cl.h"
#include "mem/mem.h"

#include <cstdint>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > 65536) {
        return 0;
    }
    uint8_t mode = data[0];
    char *text = mem_dup(data + 1, size - 1);

    cl_t *cl = cl_parse(text, (mode & 4) ? "C:\\fuzz\\base" : "/fuzz/base", (mode & 1) != 0);
    str_t out;
    str_init(&out);
    cl_build_search(&out, (mode & 2) != 0, cl);
    cl_free(cl);

    // A zero inside the text splits it into a path and a base for the pure helpers.
    size_t n = strlen(text);
    const char *base = n + 1 < size - 1 ? text + n + 1 : "";
    cl_path_absolute(&out, text, base, '\\');
    cl_path_absolute(&out, text, base, '/');
    cl_url_decode(&out, text);
    cl_sort_column(text, (int) n);
    str_clear(&out);
    cl_regex_escape(&out, text);

    // Quoting any argument and reading it back must give the argument.
    str_clear(&out);
    cl_quote_arg(&out, text);
    str_t tok;
    str_init(&tok);
    bool quoted;
    const char *next = cl_next_token(out.ptr, &tok, &quoted);
    if (n > 0 && (!next || (size_t) tok.len != n || memcmp(tok.ptr, text, n) != 0 ||
                  cl_next_token(next, &tok, &quoted))) {
        __builtin_trap();
    }
    str_kill(&tok);

    str_kill(&out);
    mem_free(text);
    return 0;
}
