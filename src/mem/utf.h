// Conversions between UTF-16 and UTF-8 in the shape the string buffers and the formatter need. Private to
// the mem module; they are the text module's converters, which everyone else calls directly.
#pragma once

#include <cstdint>

// Writes the UTF-8 form of n units (n -1: up to the zero unit) to dest, or only measures when dest is
// null. A high surrogate followed by a low one makes one 4-byte sequence; any other surrogate is written
// alone as 3 bytes. Returns the byte count, without a terminator.
int mem_utf16_to_utf8(char *dest, const uint16_t *w, int n);

// Writes the UTF-16 form of n bytes (n -1: up to the zero byte) to dest, or only measures when dest is
// null. Bytes that do not decode give one 0 unit each; code points of 0x10000 and above give a surrogate
// pair. Returns the unit count, without a terminator.
int mem_utf8_to_utf16(uint16_t *dest, const char *s, int n);
