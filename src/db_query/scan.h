// The byte filter of the plain-word scan: a pure-ASCII term "contains" test over a name, sixteen name
// bytes at a time where the processor has SSE2 (every x86-64 target), a byte loop elsewhere.
//
// Invariants:
// - The answers are those of the folding matchers for a pure-ASCII term: a hit is a byte run of the name
//   equal to the term (compared through ascii_lower when case is off, as it stands otherwise). Names with
//   a byte of 0x80 and above are reported as such when the caller asks, because only the folding matcher
//   can decide them (a non-ASCII letter may fold to ASCII).
// - Nothing is read outside [name, name + avail). The vector form needs avail >= len + 15 (a load may run
//   up to 15 bytes past the name's end); with less the byte loop answers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "text/text.h"

enum db_scan_answer_t {
    DB_SCAN_MISS = 0,
    DB_SCAN_HIT = 1,
    DB_SCAN_HIGH = 2, // the name holds a byte of 0x80 and above: only when the caller asked for the test
};

struct db_scan_term_t {
    const uint8_t *term; // pure ASCII; lower case already when case_blind
    uint32_t len;        // at least 1
    bool case_blind;     // compare through ascii_lower
    bool check_high;     // answer DB_SCAN_HIGH for any name with a byte of 0x80 and above
};

// Sets t up for a term folded by term_fold in folding. The exact and ASCII foldings compare a name's high
// bytes as they stand, so only the decoding foldings ask for the high-byte test. Returns false (t unset)
// when the filter can't answer for this term: empty or not pure ASCII. t points into text.
bool db_scan_term_init(db_scan_term_t *t, const char *text, uint32_t len, text_folding_t folding);

// One name against the term. avail is how many bytes from name on may be read (at least len).
db_scan_answer_t db_scan_contains(const db_scan_term_t *t, const uint8_t *name, uint32_t len, size_t avail);

// What db_scan_records reports for one record: its position in the run, with DB_SCAN_MARK_HIGH set when
// the name has high bytes and the folding matcher must decide it.
#define DB_SCAN_MARK_HIGH 0x80000000u

// The records items[0..n) (index records in the arena, n at most MEM_ARRAY_CHUNK_SLOTS) against the term,
// in order: the position of every hit and of every name the matcher must decide goes to marks (the
// caller's, room for n), how many in *mark_count. A name shorter than the term is a miss, high bytes or
// not, as it is for the matchers. *cancel is tested before each record. Returns the
// records examined: n, or fewer when *cancel was set.
uint32_t db_scan_records(const db_scan_term_t *t, const uint32_t *items, uint32_t n,
                         const volatile bool *cancel, uint32_t *marks, uint32_t *mark_count);

// The bytes readable from p on within the arena block that holds p: a record never crosses a block, and a
// block is committed whole, so a read that stays inside it touches only mapped memory of the index.
size_t db_scan_block_avail(const void *p);
