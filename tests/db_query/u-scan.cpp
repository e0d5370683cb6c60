// The byte filter of the plain-word scan against the folding matchers it stands in for: every answer,
// after a high-byte name went on to the matcher as the scan sends it, must be the matcher's. Names of
// every length around the 16-byte load, terms shorter and longer than one load, matches at both ends,
// near misses that pass the first/last byte test, mixed case and non-ASCII letters that fold to ASCII.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "db_query/scan.h"
#include "mem/arena.h"
#include "text/text.h"

namespace {

const text_folding_t FOLDINGS[] = {TEXT_FOLD_EXACT, TEXT_FOLD_ASCII, TEXT_FOLD_LOWER, TEXT_FOLD_LOWER_BASE,
                                   TEXT_FOLD_BASE};

// The scan's answer for one name: the filter, then the matcher for the names it hands on.
bool scan_answer(const db_scan_term_t *t, text_matcher_t match, const std::string &folded,
                 const uint8_t *name, uint32_t len, size_t avail) {
    db_scan_answer_t a = db_scan_contains(t, name, len, avail);
    if (a == DB_SCAN_HIGH)
        return match((const char *) name, len, folded.data(), folded.size());
    return a == DB_SCAN_HIT;
}

std::string fold(const std::string &term, text_folding_t f) {
    std::string out(term_fold_length(term.data(), term.size(), f), '\0');
    term_fold_write(&out[0], term.data(), term.size(), f);
    return out;
}

// Names built from the term's own bytes in both cases, so that first/last-byte candidates are common and
// most of them fail in the middle; some carry é (0xC3 0xA9) or the Kelvin sign, which lowers to 'k'.
std::vector<std::string> names_for(const std::string &term) {
    std::vector<std::string> names;
    uint32_t seed = 12345;
    auto next = [&seed]() { return seed = seed * 1103515245u + 12345u, (seed >> 16) & 0x7FFF; };
    for (uint32_t len = 0; len <= 40; len++) {
        for (int variant = 0; variant < 8; variant++) {
            std::string n;
            while (n.size() < len) {
                uint32_t r = next() % 16;
                if (r < 9 && !term.empty()) {
                    char c = term[next() % term.size()];
                    n += (char) (r & 1 ? ascii_upper[(uint8_t) c] : c);
                } else if (r < 12) {
                    n += "x.-"[r - 9];
                } else if (r == 12 && variant >= 6) {
                    n += "\xC3\xA9";
                } else if (r == 13 && variant >= 6) {
                    n += "\xE2\x84\xAA";
                } else {
                    n += 'k';
                }
            }
            n.resize(len);
            // Whole matches at the start, the end and in between, once exactly and once upper case.
            if (variant >= 2 && variant < 6 && len >= term.size()) {
                size_t at = variant == 2   ? 0
                            : variant == 3 ? len - term.size()
                                           : next() % (len - term.size() + 1);
                std::string put = term;
                if (variant == 5)
                    for (char &c : put)
                        c = (char) ascii_upper[(uint8_t) c];
                n.replace(at, term.size(), put);
            }
            names.push_back(n);
        }
    }
    return names;
}

struct ScanCase {
    const char *term;
};

const ScanCase TERMS[] = {
    {"k"},
    {"K"},
    {"."},
    {"ab"},
    {"kk"},
    {"a.B"},
    {"kkk"},
    {"copyright-notice"},
    {"copyright-notices"},
    {"aaaaaaaaaaaaaaaa"},
    {"AbCdEfGhIjKlMnOpQ"},
};

} // namespace

// Each name three ways: at the end of a buffer of its own length (the byte loop; an over-read there is an
// address error under the sanitizer), followed by slack of term bytes that a wrong mask would count as a
// match (the vector form), and again at the very end of an arena block, where the next block may not be
// mapped at all.
TEST(Scan, AgreesWithTheFoldingMatchers) {
    uint8_t *block = (uint8_t *) mem_ptr(mem_arena_alloc_block());
    for (const ScanCase &c : TERMS) {
        for (text_folding_t f : FOLDINGS) {
            std::string folded = fold(c.term, f);
            db_scan_term_t t;
            ASSERT_TRUE(db_scan_term_init(&t, folded.data(), (uint32_t) folded.size(), f));
            text_matcher_t match = text_matcher(TEXT_MATCH_CONTAINS, f);
            int hits = 0;
            for (const std::string &n : names_for(c.term)) {
                uint32_t len = (uint32_t) n.size();
                bool want = match(n.data(), len, folded.data(), folded.size());
                hits += want;
                std::vector<uint8_t> tight(n.begin(), n.end());
                std::string padded = n + std::string(16, c.term[0]) + c.term;
                uint8_t *at_end = block + MEM_ARENA_BLOCK - len;
                memcpy(at_end, n.data(), len);
                SCOPED_TRACE("term '" + std::string(c.term) + "' folding " + std::to_string((int) f) +
                             " name '" + n + "'");
                EXPECT_EQ(scan_answer(&t, match, folded, tight.data(), len, len), want);
                EXPECT_EQ(scan_answer(&t, match, folded, (const uint8_t *) padded.data(), len, padded.size()),
                          want);
                EXPECT_EQ(scan_answer(&t, match, folded, at_end, len, db_scan_block_avail(at_end)), want);
            }
            EXPECT_GT(hits, 0) << c.term; // the names do exercise the hit side
        }
    }
    mem_arena_free_block(mem_ref(block));
}

// The filter only serves what it can decide: a term with a non-ASCII byte, or none at all, stays with the
// matcher; the exact and ASCII foldings never hand a name on, the decoding foldings hand on every name
// with a high byte, hit or not.
TEST(Scan, HighBytesGoToTheMatcher) {
    db_scan_term_t t;
    EXPECT_FALSE(db_scan_term_init(&t, "", 0, TEXT_FOLD_LOWER));
    EXPECT_FALSE(db_scan_term_init(&t, "r\xC3\xA9", 3, TEXT_FOLD_LOWER));
    struct row_t {
        text_folding_t folding;
        const char *name;
        db_scan_answer_t want;
    } rows[] = {
        {TEXT_FOLD_EXACT, "caf\xC3\xA9 abc", DB_SCAN_HIT},
        {TEXT_FOLD_EXACT, "caf\xC3\xA9 ABC", DB_SCAN_MISS},
        {TEXT_FOLD_ASCII, "caf\xC3\xA9 ABC", DB_SCAN_HIT},
        {TEXT_FOLD_ASCII, "caf\xC3\xA9", DB_SCAN_MISS},
        {TEXT_FOLD_LOWER, "abc caf\xC3\xA9", DB_SCAN_HIGH},
        {TEXT_FOLD_LOWER, "0123456789abcdefghijklmnopqrstuvwxyz\xC3\xA9", DB_SCAN_HIGH},
        {TEXT_FOLD_LOWER_BASE, "abc", DB_SCAN_HIT},
        {TEXT_FOLD_BASE, "ABC", DB_SCAN_MISS},
        {TEXT_FOLD_BASE, "\xC3\xA9", DB_SCAN_HIGH},
    };
    for (const row_t &r : rows) {
        ASSERT_TRUE(db_scan_term_init(&t, "abc", 3, r.folding));
        std::string padded = std::string(r.name) + std::string(16, 'a');
        uint32_t len = (uint32_t) strlen(r.name);
        EXPECT_EQ(db_scan_contains(&t, (const uint8_t *) r.name, len, len), r.want) << r.name;
        EXPECT_EQ(db_scan_contains(&t, (const uint8_t *) padded.data(), len, padded.size()), r.want)
            << r.name;
    }
}
