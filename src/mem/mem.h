// Memory: the allocator with its one failure rule, the small-string buffers str_t and wstr_t, and the
// program's own formatter text_format. The containers (mem_array_t, mem_list_t, mem_stack_t) and the
// record arena live in array.h, list.h, stack.h and arena.h beside this file.
//
// Invariants:
// - Out of memory is fatal: mem_alloc, mem_realloc, mem_virtual_alloc and every str_ and wstr_ function
//   end the process through debug_fatal rather than return null. Only mem_try_alloc returns null.
// - A str_t belongs to one stack frame and is never shared between threads. Its ptr is inline_buf exactly
//   when cap is 260 or less; cap 0 means no storage at all (a str_t of all zero bits is valid and empty).
//   When cap is above 0, ptr[len] is 0.
// - Text in a str_t is UTF-8; a wstr_t holds UTF-16 units (uint16_t, so that both the 16-bit wchar_t of
//   Windows and the code of Linux can use it) under the same rules, counting units instead of bytes.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// ---- allocation ----------------------------------------------------------------------------------------

// A block of at least size bytes, aligned for any type. Never returns null: failure is fatal with
// "out of memory %p". The caller owns the block and gives it back with mem_free.
void *mem_alloc(size_t size);
// The same, but returns null on failure instead of ending the process.
void *mem_try_alloc(size_t size);
// Resizes a block from mem_alloc (null acts as mem_alloc), keeping its content. Failure is fatal.
void *mem_realloc(void *ptr, size_t size);
// Frees a block from mem_alloc, mem_try_alloc, mem_realloc or mem_dup. Null is ignored. A block the heap
// refuses is only logged, "HeapFree(<heap>,0,<block>): <error>: Failed to free.", and left alone.
void mem_free(void *ptr);
// Fresh, committed, zeroed pages outside the heap, for large short-lived blocks. Failure is fatal with
// "out of memory, size: %p, error: %u". Give them back with mem_virtual_free and the same size.
void *mem_virtual_alloc(size_t size);
void mem_virtual_free(void *ptr, size_t size);
// A new heap block of n + 1 bytes: the n bytes of ptr followed by a zero. The caller frees it.
char *mem_dup(const void *ptr, size_t n);

// ---- str_t, wstr_t -------------------------------------------------------------------------------------

#define STR_INLINE 260

struct str_t {
    int32_t len; // bytes in use, without the terminator
    int32_t cap; // bytes available with the terminator; 260 when inline; 0 when there is no storage
    char *ptr;
    char inline_buf[STR_INLINE];
};

struct wstr_t {
    int32_t len; // units in use, without the terminator
    int32_t cap; // units available with the terminator
    uint16_t *ptr;
    uint16_t inline_buf[STR_INLINE];
};

// Empty text in the inline buffer.
void str_init(str_t *s);
// Frees a heap block if there is one and leaves s without storage (cap 0). Safe to call twice.
void str_kill(str_t *s);
// Replaces the text. Growing frees the old heap block without copying; the new size is
// (len + 0x10000) & ~0xffff, or the inline buffer for 260 bytes and below. text may point into s.
void str_set(str_t *s, const char *text);
// The same with a counted text of n bytes (which may contain zeros).
void str_set_n(str_t *s, const char *text, int n);
// Replaces the text with the UTF-8 form of a zero-terminated UTF-16 text. A high surrogate followed by a
// low one is one 4-byte sequence; any other surrogate passes through as its 3-byte form.
void str_set_wide(str_t *s, const uint16_t *wide);
// The same with a counted text of n units.
void str_set_wide_n(str_t *s, const uint16_t *wide, int n);
// Appends n bytes, keeping the text. Growing takes the next power of two at or above the need (inline at
// 260 bytes and below). n of 0 does nothing at all. bytes may point into s.
void str_cat(str_t *s, const char *bytes, int n);
// Appends a zero-terminated text.
void str_cat_z(str_t *s, const char *text);
// Appends one byte.
void str_cat_char(str_t *s, char c);
// Makes room for at least cap bytes with the terminator, keeping the text (growth as str_cat). For code
// that writes into ptr directly and then sets len and the terminator itself.
void str_reserve(str_t *s, int cap);
// Replaces the text with the formatted text (text_format's directives). Measures first, then writes.
// The arguments must not point into s.
void str_printf(str_t *s, const char *format, ...);
void str_vprintf(str_t *s, const char *format, va_list args);
// Appends the formatted text (growth as str_cat). The arguments must not point into s.
void str_cat_printf(str_t *s, const char *format, ...);
void str_cat_vprintf(str_t *s, const char *format, va_list args);
// Replaces the text with a, then the platform separator (OS_SEP) unless a is empty or already ends in
// '\\' or '/', then b. a may be s's own text (the usual way to add a component); b must not point into s.
void str_path_cat(str_t *s, const char *a, int n, const char *b, int m);
// Empties the text; without storage (cap below 1) it first goes back to the inline buffer.
void str_clear(str_t *s);

void wstr_init(wstr_t *s);
void wstr_kill(wstr_t *s);
// Zero-terminated UTF-16, with str_set's growth rule.
void wstr_set(wstr_t *s, const uint16_t *text);
void wstr_set_n(wstr_t *s, const uint16_t *text, int n);
// From n bytes of UTF-8 (n -1: zero-terminated). Code points of 0x10000 and above become surrogate pairs;
// bytes that do not decode become 0 units, one per byte.
void wstr_set_utf8(wstr_t *s, const char *text, int n);
// Appends n units with str_cat's growth rule.
void wstr_cat(wstr_t *s, const uint16_t *units, int n);
void wstr_clear(wstr_t *s);

// ---- the formatter -------------------------------------------------------------------------------------

// Formats into dest and returns the byte count written, without a terminator (one is written after it
// when dest is not null). With dest null it only returns the length, so callers measure, size, then
// write, each pass with its own copy of the argument list.
//
// Directives (argument types as passed through "..."):
//   %%                 a percent sign
//   %d %u %x %X        int / unsigned: signed decimal, unsigned decimal, hex in that letter case
//   %I64d %I64u %I64x %I64X   int64_t / uint64_t, the same forms
//   %p %P              a pointer-sized value (void * or size_t): always 8 hex digits in that letter
//                      case, zero filled: the low 32 bits of the value
//   %f                 uint32_t (or int, read as unsigned) count of microseconds as seconds:
//                      value / 1000000, '.', value % 1000000 in exactly six digits
//   %s                 zero-terminated UTF-8 (null prints "(null)")
//   %S                 zero-terminated UTF-16 (const uint16_t *), converted to UTF-8 (null prints nothing)
//   %t                 const char * then int byte count: counted UTF-8, no terminator needed
//   %T                 const uint16_t * then int unit count: counted UTF-16
//   %c                 int: its low byte
//   anything else      the letter itself, taking no argument
// Width: '%', an optional '0' (fill with zeros instead of blanks), decimal digits. It applies to the
// integer directives and to the integer part of %f. A negative zero-filled number writes '-' and then the
// zeros; with blanks the blanks come first.
int text_format(char *dest, const char *format, va_list args);
// The same with "..." for callers that have no va_list.
int text_format_args(char *dest, const char *format, ...);
