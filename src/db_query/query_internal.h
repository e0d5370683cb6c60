// Private to src/db_query: what the parser, the compiler and the functions share.
#pragma once

#include "db_query/term.h"

// Reads one term's text at the cursor: run with out null it measures, with out sized by that run it
// writes; both runs read the same bytes and leave the cursor at the same place. depth is the group depth
// ('>' ends a term only inside a group); round says whether ')' does too. Returns the byte count and
// sets *maybe_function to TERM_MAYBE_FUNCTION or 0.
size_t term_read(const char **cursor, char *out, int depth, bool round, uint32_t *maybe_function);

// Op construction, in db_search_t's two chains. A new op is zeroed, carries the term's filter bit and
// has payload bytes of size behind its head.
db_op_t *db_op_new(db_search_t *s, bool folder, const db_term_t *t, uint32_t opcode, uint8_t kind,
                   size_t size);
// The constant op of a term for a kind the test does not apply to: false, or true under NOT.
db_op_t *db_op_constant(db_search_t *s, bool folder, const db_term_t *t);
// A text op of a family with the term's folding (T folded here).
db_op_t *db_op_text(db_search_t *s, bool folder, const db_term_t *t, uint32_t opcode, const char *text,
                    size_t len, uint32_t offset);
// Frees what an op's payload owns (not the op).
void db_op_release(db_op_t *op);

// The text families of the plain matchers (base opcodes of their non-ASCII forms).
enum {
    FAMILY_CONTAINS = 2,
    FAMILY_EQUAL = 42,
    FAMILY_WILDCARD = 62,
    FAMILY_WILDCARD_WHOLE = 102,
    FAMILY_STARTWITH = 122,
    FAMILY_ENDWITH = 142,
    FAMILY_ROOT_MIXED = 230,
    FAMILY_ROOTS_BELOW = 240,
    FAMILY_ROOTS_SELF = 250,
    FAMILY_ROOT_BELOW = 260,
    FAMILY_ROOT_SELF = 270,
    FAMILY_ROOT_NONE = 286,
    FAMILY_COMPONENT_START = 296,
    FAMILY_COMPONENT_END = 306,
    FAMILY_COMPONENT_EQUAL = 316,
};
// The opcode of a text family for a term's flags and folded text, with the ASCII fast path where the
// flags and the text allow it.
uint32_t db_family_opcode(uint32_t family, uint32_t flags, const char *folded, size_t len);
// The folding of a term's flags for its folded text (ASCII when the fast path applies).
text_folding_t db_term_folding(uint32_t flags, const char *text, size_t len);
// True when the fast path rule allows the ASCII form for this text.
bool db_term_ascii(uint32_t flags, const char *text, size_t len);

// The wildcard reductions of a term's text, in place, when flags carry TERM_WILDCARDS: a lone "*" becomes
// empty, one star at an end of a pattern that needn't match whole goes, "*x*" becomes x; the first and
// the last also clear TERM_EXACT and TERM_WHOLEWORD in *flags, since what is left matches anywhere.
// Returns the wildcards left in text.
int db_term_wildcards(uint32_t *flags, char *text);

// The function recognisers, in their order. True when one of them took the term.
bool db_query_functions(db_search_t *s, db_term_t *t);
// Path root search (absolute path prefixes). True when it took the term.
bool db_query_path_term(db_search_t *s, db_term_t *t, char *text, int wild_count);

// A PCRE2 code (UTF, UCP, caseless unless match_case; JIT-compiled where the platform allows), or null
// when the pattern is refused. The caller owns it (pcre2_code_free).
void *db_regex_compile(const char *text, size_t len, bool match_case);

// Platform path rules: '\\' and drive letters on Windows, '/' on Linux.
bool db_path_is_absolute_text(const char *text);
