// UTF-8 <-> UTF-16 at the Windows edge of the platform layer. Everything above src/os speaks UTF-8; each
// call that takes a path or a text converts it here, on the stack for the usual short text and on the
// heap beyond 260 units.
//
// Ownership: an os_wide_t belongs to one stack frame; os_wide_kill frees its heap block, if any.
#pragma once

#include "mem/mem.h"

#include <windows.h>

struct os_wide_t {
    wchar_t *ptr; // zero-terminated; inline_buf or a heap block
    int len;      // units without the terminator
    wchar_t inline_buf[260];
};

// Converts n bytes of UTF-8 (n -1: zero-terminated; null: empty). Bytes that do not decode become U+FFFD.
void os_wide_init(os_wide_t *w, const char *utf8, int n = -1);
void os_wide_kill(os_wide_t *w);

// Replaces out with the UTF-8 form of n units of UTF-16 (n -1: zero-terminated).
void os_utf8_from_wide(str_t *out, const wchar_t *wide, int n = -1);
