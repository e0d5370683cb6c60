// Text: the whole character layer. Decoding and encoding, the three folding maps, the comparisons that give
// the index its name order, the matchers the search workers call, wildcard matching, and the small cursor
// parsers the query language is made of. No locale and no platform collation: every order comes from the
// tables here, so an index written on one machine sorts the same on another.
//
// Invariants:
// - All text is UTF-8. Names are counted byte strings (pointer and byte count, no terminator needed);
//   terms, settings and paths in transit are zero-terminated where a function says so.
// - One decoding rule everywhere (text_decode): a byte below 0x80 is itself; a lead byte 110xxxxx with at
//   least 2 bytes left, 1110xxxx with 3 left or 11110xxx with 4 left starts a sequence whose continuation
//   bytes give their low six bits without any check of their own top bits; anything else (a stray
//   continuation byte, a sequence cut by the end, 0xF8..0xFF) decodes to code point 0 and consumes one
//   byte. Zero-terminated forms stop a sequence at a zero byte instead of at a count. Nothing here reports
//   invalid UTF-8: bad bytes just compare as 0.
// - ascii_lower and ascii_upper map 'A'..'Z' / 'a'..'z' and leave other ASCII alone; bytes 128..255 map to
//   255 in both, so a non-ASCII byte never equals an ASCII byte under the table.
// - The folding maps change only code points 0x80..0xFFFF; everything absent from a map, and everything
//   above 0xFFFF, maps to itself.
// - Every function is pure and thread-safe once text_init_tables has run (it runs before any thread
//   starts). Matchers and comparisons never allocate, never call a library and never measure a string.
// - Sizes: a counted length is a size_t of bytes. Comparisons return a negative, zero or positive int.
#pragma once

#include <cstddef>
#include <cstdint>

struct str_t;

// ---- tables --------------------------------------------------------------------------------------------

// The 256-byte case tables. Usable even before text_init_tables (they start out filled), so that static
// initialisers elsewhere can rely on them.
extern const uint8_t *ascii_lower;
extern const uint8_t *ascii_upper;

// Builds the case tables. Called once at start-up before any thread; calling it again changes nothing.
void text_init_tables();

// The three folding maps: sorted 16-bit key and value arrays, searched by binary search.
uint32_t text_fold_lower(uint32_t cp);
uint32_t text_fold_base(uint32_t cp);
uint32_t text_fold_lower_base(uint32_t cp);

enum text_map_t { TEXT_MAP_LOWER, TEXT_MAP_BASE, TEXT_MAP_LOWER_BASE };
// Read access to a map's rows for tests and diagnostics. The arrays are static and sorted by key.
struct text_fold_map_t {
    const uint16_t *keys;
    const uint16_t *values;
    int count;
};
text_fold_map_t text_fold_map(text_map_t which);

// ---- decoding and encoding -----------------------------------------------------------------------------

// Decodes one code point at p with left bytes remaining (left must be at least 1) and stores the number
// of bytes consumed (1..4) in *len.
inline uint32_t text_decode(const uint8_t *p, size_t left, int *len) {
    uint32_t c = p[0];
    if (c < 0x80) {
        *len = 1;
        return c;
    }
    if ((c & 0xE0) == 0xC0 && left >= 2) {
        *len = 2;
        return ((c & 0x1F) << 6) | (p[1] & 0x3F);
    }
    if ((c & 0xF0) == 0xE0 && left >= 3) {
        *len = 3;
        return ((c & 0x0F) << 12) | ((p[1] & 0x3F) << 6) | (p[2] & 0x3F);
    }
    if ((c & 0xF8) == 0xF0 && left >= 4) {
        *len = 4;
        return ((c & 0x07) << 18) | ((p[1] & 0x3F) << 12) | ((p[2] & 0x3F) << 6) | (p[3] & 0x3F);
    }
    *len = 1;
    return 0;
}

// The zero-terminated form: a sequence needs its following bytes to be non-zero.
uint32_t text_decode_z(const uint8_t *p, int *len);

// Decodes the code point that ends just before end, never looking before begin. It steps back over at
// most three continuation bytes (10xxxxxx) to a lead byte whose sequence length is exactly the distance
// to end; without such a lead the last byte stands alone and decodes to 0 (unless it is ASCII). Stores the
// bytes consumed in *len.
uint32_t text_decode_back(const uint8_t *begin, const uint8_t *end, int *len);

// Bytes of the shortest UTF-8 form of cp (1..4; code points above 0x10FFFF are written with 4 bytes of
// their low 21 bits).
int text_encoded_length(uint32_t cp);
// Writes the shortest UTF-8 form of cp at out and returns the byte count.
int text_encode(uint32_t cp, char *out);

// UTF-16 to UTF-8. Units are uint16_t (Windows passes its wchar_t text cast). A high surrogate followed
// by a low surrogate makes one 4-byte sequence; any other surrogate is encoded alone as 3 bytes. The
// writers put a zero after the text and return a pointer at that zero; the caller sized dest with the
// measuring twin plus one. The lengths exclude the terminator.
char *utf16_to_utf8(char *dest, const uint16_t *wide);
char *utf16_to_utf8_counted(char *dest, const uint16_t *wide, size_t units);
// A list of zero-terminated strings ending in an empty string: every string keeps its zero and one more
// zero ends the list. Returns a pointer at the final zero.
char *utf16_to_utf8_double_terminated(char *dest, const uint16_t *wide);
size_t utf16_utf8_length(const uint16_t *wide);
size_t utf16_utf8_length_counted(const uint16_t *wide, size_t units);
// Bytes of the converted list including every terminator and the final one.
size_t utf16_utf8_length_double_terminated(const uint16_t *wide);

// UTF-8 to UTF-16. The zero-terminated form writes at most capacity units including a terminating 0
// (capacity must be at least 1) and returns a pointer at the terminator; a code point of 0x10000 or above
// becomes a surrogate pair when room for two units is left, else only its low 16 bits are stored.
uint16_t *utf8_to_utf16(uint16_t *dest, size_t capacity, const char *text);
// The counted form writes no terminator and returns the unit count; dest must hold bytes units (never
// more are needed).
size_t utf8_to_utf16_counted(uint16_t *dest, const char *text, size_t bytes);
// The same, dropping every TAB byte (for text bound for a single-line control).
size_t utf8_to_utf16_counted_no_tabs(uint16_t *dest, const char *text, size_t bytes);
// Units the zero-terminated text needs, without the terminator.
size_t utf8_utf16_length(const char *text);
// Units the counted text needs.
size_t utf8_utf16_length_counted(const char *text, size_t bytes);

// ---- comparison ----------------------------------------------------------------------------------------
// Each returns the difference of the first pair of folded values that differ, else the difference of the
// remaining byte counts (a prefix sorts before its extensions).

// ASCII through ascii_lower, other code points through text_fold_lower_base / text_fold_lower.
int utf8_compare_lower_base(const char *a, size_t alen, const char *b, size_t blen);
int utf8_compare_lower(const char *a, size_t alen, const char *b, size_t blen);
// A name against a term folded beforehand: the fold applies to the name only, the term is decoded as it
// stands. In the base form ASCII name bytes are used as they are.
int text_compare_lower(const char *name, size_t len, const char *folded, size_t flen);
int text_compare_lower_base(const char *name, size_t len, const char *folded, size_t flen);
int text_compare_base(const char *name, size_t len, const char *folded, size_t flen);
// Zero-terminated utf8_compare_lower: extensions, file list names, settings lists and every name compared
// outside the index arrays.
int utf8_strcmp_lower(const char *a, const char *b);
// Zero-terminated: ascii_lower of each byte of a against b as it stands (b must already be lower case).
int ascii_stricmp(const char *a, const char *b);
// From the end backwards without folding: ASCII as bytes, sequences decoded from their tail
// (text_decode_back). a_end and b_end point one past the last byte. Used to sort the extension list for
// the fast suffix search.
int utf8_compare_tail(const char *a_end, size_t alen, const char *b_end, size_t blen);

// ---- foldings and term folding -------------------------------------------------------------------------

// How a name is folded before it is compared with a term. ASCII is the fast form for a pure-ASCII term
// with case off: ascii_lower on the name's bytes and no decoding at all, so a non-ASCII letter of the name
// never matches. It gives the lower folding's answers except for the two letters that lower to ASCII
// (U+0130, U+212A), and is not the lower base folding's answer wherever a name has diacritics.
enum text_folding_t {
    TEXT_FOLD_EXACT,      // case and diacritics count: byte compare
    TEXT_FOLD_ASCII,      // case off, term pure ASCII: ascii_lower of the name only
    TEXT_FOLD_LOWER,      // case off, diacritics count
    TEXT_FOLD_LOWER_BASE, // neither counts
    TEXT_FOLD_BASE,       // case counts, diacritics off
    TEXT_FOLD_COUNT
};

// The folding that a term's two flags ask for (never TEXT_FOLD_ASCII: the caller picks that when
// text_is_ascii says the folded term allows it).
text_folding_t text_folding_for(bool match_case, bool match_diacritics);
// True when every byte is below 0x80.
bool text_is_ascii(const char *text, size_t len);

// Folds a term once, at parse time: each code point through the folding's map (ASCII through ascii_lower
// in the lower forms, unchanged in the base and exact forms), re-encoded in its shortest UTF-8 form. The
// measuring pass returns the bytes the writing pass will write (no terminator in either).
size_t term_fold_length(const char *text, size_t len, text_folding_t folding);
size_t term_fold_write(char *dest, const char *text, size_t len, text_folding_t folding);
// Both passes into a str_t (replacing its text); out of memory is fatal as for every str_t.
void term_fold(str_t *out, const char *text, size_t len, text_folding_t folding);

// ---- matchers ------------------------------------------------------------------------------------------
// Name is a counted byte string, the term is counted and already folded with term_fold in the same
// folding (wildcard patterns also through text_wildcard_normalize). All are pure and never allocate.

// A word character is an ASCII letter or digit, '_' or any byte of 0x80 and above.
inline bool text_is_word_byte(uint8_t c) {
    return c >= 0x80 || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           c == '_';
}

typedef bool (*text_matcher_t)(const char *name, size_t len, const char *term, size_t tlen);

enum text_family_t {
    TEXT_MATCH_CONTAINS,               // term anywhere in name
    TEXT_MATCH_EQUAL,                  // name equals term
    TEXT_MATCH_STARTWITH,              // name begins with term
    TEXT_MATCH_ENDWITH,                // name ends with term, compared from the end
    TEXT_MATCH_WORD_CONTAINS,          // term with a word boundary on each side (no ASCII form)
    TEXT_MATCH_WILDCARD_WHOLE,         // whole name matches the pattern
    TEXT_MATCH_WILDCARD_PREFIX,        // a prefix of name matches the pattern
    TEXT_MATCH_WILDCARD_CONTAINS,      // pattern matches from some code-point start
    TEXT_MATCH_WILDCARD_WORD_ANCHORED, // pattern matches from the start and ends on a word boundary
    TEXT_MATCH_WILDCARD_WORD_CONTAINS, // pattern matches from a word start and ends on a word boundary
    TEXT_MATCH_COUNT
};

// The matcher of a family in a folding; null only for the word matcher in the ASCII form, which does not
// exist (callers use the lower form there).
text_matcher_t text_matcher(text_family_t family, text_folding_t folding);

#define TEXT_MATCHER_DECLARE(family)                                                                         \
    bool family##_exact(const char *name, size_t len, const char *term, size_t tlen);                        \
    bool family##_ascii(const char *name, size_t len, const char *term, size_t tlen);                        \
    bool family##_lower(const char *name, size_t len, const char *term, size_t tlen);                        \
    bool family##_lower_base(const char *name, size_t len, const char *term, size_t tlen);                   \
    bool family##_base(const char *name, size_t len, const char *term, size_t tlen);

TEXT_MATCHER_DECLARE(text_contains)
TEXT_MATCHER_DECLARE(text_equal)
TEXT_MATCHER_DECLARE(text_startwith)
TEXT_MATCHER_DECLARE(text_endwith)
TEXT_MATCHER_DECLARE(wildcard_whole)
TEXT_MATCHER_DECLARE(wildcard_prefix)
TEXT_MATCHER_DECLARE(wildcard_contains)
TEXT_MATCHER_DECLARE(wildcard_word_anchored)
TEXT_MATCHER_DECLARE(wildcard_word_contains)
#undef TEXT_MATCHER_DECLARE
bool text_word_contains_exact(const char *name, size_t len, const char *term, size_t tlen);
bool text_word_contains_lower(const char *name, size_t len, const char *term, size_t tlen);
bool text_word_contains_lower_base(const char *name, size_t len, const char *term, size_t tlen);
bool text_word_contains_base(const char *name, size_t len, const char *term, size_t tlen);

// ---- wildcard helpers ----------------------------------------------------------------------------------

// Collapses every run of '*' into one '*' in place and returns the number of wildcard characters left
// ('*' and '?').
int text_wildcard_normalize(char *pattern);
// If the pattern is '*', at least one byte, '*', removes both stars in place and returns true.
bool text_strip_star_both(char *pattern);
// Removes one leading (front) or trailing (back) '*' in place; true if there was one.
bool text_strip_star_front(char *pattern);
bool text_strip_star_back(char *pattern);

// ---- cursor parsers ------------------------------------------------------------------------------------
// A cursor points at a pointer into a zero-terminated text; a parser moves it only when it read something.

// Byte-exact; the _nocase form compares ascii_lower of the text with the literal written in lower case.
// Neither looks at what follows: "weeks" consumes the first five letters of "weeksago".
bool text_skip_prefix(const char **cursor, const char *literal);
bool text_skip_prefix_nocase(const char **cursor, const char *literal);
// Skips space, TAB, CR and LF.
const char *text_skip_space(const char *text);
// A decimal value in 64 bits (wrapping), stepping over every ',' that stands between digits. Nothing to
// read gives 0 and leaves the cursor.
uint64_t text_parse_u64_commas(const char **cursor);
// Up to max decimal digits; 0 and the cursor unmoved when there is no digit.
uint64_t text_parse_digits(const char **cursor, int max);
// The value of a hexadecimal digit of either case, or -1 for any other byte.
int text_hex_digit(char c);
// Optional '-', then "0x"/"0X" hexadecimal or decimal; wraps silently in 32 bits. Stops at the first byte
// that is not a digit.
int text_parse_int(const char *text);

// ---- names and paths -----------------------------------------------------------------------------------
// Both '\\' and '/' end a path component, on every platform.

// The part behind the last '.' of the last component, or the empty string at the terminator when there
// is no '.' there. Points into name.
const char *text_get_extension(const char *name);
// The counted form: the part behind the last '.', its byte count in *ext_len; null (and *ext_len 0) when
// the last component has no '.'.
const char *text_get_extension_counted(const char *name, size_t len, size_t *ext_len);
// Offset of the byte behind the last separator (0 without one), and a pointer there.
size_t text_filename_offset(const char *path, size_t len);
const char *text_filename(const char *path);
