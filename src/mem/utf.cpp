// The string buffers' and the formatter's conversions, in the counting style they use: the text
// module's converters do the work, so that the whole program decodes and encodes by one rule.
#include "mem/utf.h"

#include <cstring>

#include "text/text.h"

int mem_utf16_to_utf8(char *dest, const uint16_t *w, int n) {
    if (!dest)
        return (int) (n < 0 ? utf16_utf8_length(w) : utf16_utf8_length_counted(w, (size_t) n));
    // The writers put a zero behind the text; every caller's buffer holds one more byte for its own.
    char *end = n < 0 ? utf16_to_utf8(dest, w) : utf16_to_utf8_counted(dest, w, (size_t) n);
    return (int) (end - dest);
}

int mem_utf8_to_utf16(uint16_t *dest, const char *text, int n) {
    size_t bytes = n < 0 ? strlen(text) : (size_t) n;
    if (!dest)
        return (int) utf8_utf16_length_counted(text, bytes);
    return (int) utf8_to_utf16_counted(dest, text, bytes);
}
