// Small helpers shared by the files of the command-line module. Switch names, column names and the
// "sw:" scheme are ASCII, so these compare bytes with ASCII case folding and need no tables.
#pragma once

static inline char cl_ascii_lower(char c) {
    return (c >= 'A' && c <= 'Z') ? (char) (c + 32) : c;
}

// True when the n bytes of a equal the n bytes of b, ASCII case ignored.
static inline bool cl_ascii_equal_nocase(const char *a, const char *b, int n) {
    for (int i = 0; i < n; i++) {
        if (cl_ascii_lower(a[i]) != cl_ascii_lower(b[i])) {
            return false;
        }
    }
    return true;
}
