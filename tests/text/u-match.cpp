// The plain matchers (contains, equal, starts with, ends with, whole word) in every folding: hand-picked
// cases that name the rules, then every family and folding against the model on random names.
#include "text/oracle.h"

#include <gtest/gtest.h>

namespace {

const char *const family_names[TEXT_MATCH_COUNT] = {"contains",
                                                    "equal",
                                                    "startwith",
                                                    "endwith",
                                                    "word_contains",
                                                    "wildcard_whole",
                                                    "wildcard_prefix",
                                                    "wildcard_contains",
                                                    "wildcard_word_anchored",
                                                    "wildcard_word_contains"};

struct match_row_t {
    text_family_t family;
    text_folding_t folding;
    const char *name;
    const char *term; // written as typed; folded here in the row's folding
    bool want;
};

bool run(text_family_t family, text_folding_t folding, const std::string &name, const std::string &typed) {
    std::string term = oracle::fold_term(folding, typed);
    text_matcher_t m = text_matcher(family, folding);
    EXPECT_NE(m, nullptr);
    return m && m(name.data(), name.size(), term.data(), term.size());
}

TEST(TextMatch, HandPicked) {
    const match_row_t rows[] = {
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_LOWER_BASE, "Caf\xC3\xA9 Menu.pdf", "cafe", true},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_LOWER, "Caf\xC3\xA9 Menu.pdf", "cafe", false},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_LOWER, "CAF\xC3\x89", "caf\xC3\xA9", true},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_BASE, "CAF\xC3\x89", "CAFE", true},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_BASE, "CAF\xC3\x89", "cafe", false},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_EXACT, "CAF\xC3\x89", "AF\xC3\x89", true},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_EXACT, "CAF\xC3\x89", "af", false},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_ASCII, "Report FINAL.docx", "final", true},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_ASCII, "x\xE2\x84\xAAy", "k", false}, // the ASCII form never decodes
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_LOWER, "x\xE2\x84\xAAy", "k", true},  // Kelvin sign is k
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_LOWER, "\xC4\xB0stanbul", "istan", true},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_BASE, "\xC3\xA9", "\xC3\x9F", false}, // lead bytes alike, letters not
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_LOWER, "", "", true},
        {TEXT_MATCH_CONTAINS, TEXT_FOLD_LOWER, "ab", "abc", false},
        {TEXT_MATCH_EQUAL, TEXT_FOLD_LOWER_BASE, "R\xC3\xA9SUM\xC3\xA9", "resume", true},
        {TEXT_MATCH_EQUAL, TEXT_FOLD_LOWER_BASE, "R\xC3\xA9SUM\xC3\xA9s", "resume", false},
        {TEXT_MATCH_EQUAL, TEXT_FOLD_ASCII, "README", "readme", true},
        {TEXT_MATCH_EQUAL, TEXT_FOLD_EXACT, "README", "readme", false},
        {TEXT_MATCH_STARTWITH, TEXT_FOLD_LOWER, "\xC3\x89t\xC3\xA9.txt", "\xC3\xA9t", true},
        {TEXT_MATCH_STARTWITH, TEXT_FOLD_LOWER, "x\xC3\x89t\xC3\xA9.txt", "\xC3\xA9t", false},
        {TEXT_MATCH_ENDWITH, TEXT_FOLD_LOWER_BASE, "Na\xC3\xAFve.TXT", "ve.txt", true},
        {TEXT_MATCH_ENDWITH, TEXT_FOLD_LOWER, "Na\xC3\xAFve.TXT", "ive.txt", false},
        {TEXT_MATCH_ENDWITH, TEXT_FOLD_LOWER, "Na\xC3\xAFve.TXT", "\xC3\xAFve.txt", true},
        {TEXT_MATCH_ENDWITH, TEXT_FOLD_LOWER, "\xC3\x89", "\xC3\xA9", true},
        {TEXT_MATCH_ENDWITH, TEXT_FOLD_LOWER_BASE, "\xC3\x89", "e", true},
        // A term longer in bytes than the name fails before any folding.
        {TEXT_MATCH_ENDWITH, TEXT_FOLD_LOWER, "\xC3\x89", "abc", false},
        {TEXT_MATCH_ENDWITH, TEXT_FOLD_LOWER, "\xE2\x84\xAA\xE2\x84\xAA", "kk", true},
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_LOWER, "x-abc.txt", "abc", true},
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_LOWER, "xabc", "abc", false},
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_LOWER, "abc\xC3\xA9", "abc", false}, // é is a word character
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_LOWER, "a.txt.bak", ".txt", true},   // no boundary needed
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_LOWER, "abc abcd", "abcd", true},    // a later match counts
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_LOWER, "abcd abc", "abc", true},
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_EXACT, "My_File", "File", false}, // '_' joins words
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_BASE, "Caf\xC3\xA9 Bar", "Cafe", true},
        {TEXT_MATCH_WORD_CONTAINS, TEXT_FOLD_LOWER_BASE, "2024 Caf\xC3\xA9", "cafe", true},
    };
    for (const match_row_t &r : rows) {
        EXPECT_EQ(run(r.family, r.folding, r.name, r.term), r.want)
            << family_names[r.family] << " folding " << r.folding << ": '" << r.name << "' / '" << r.term
            << "'";
    }
}

TEST(TextMatch, TableHasEveryMatcherButAsciiWords) {
    for (int f = 0; f < TEXT_MATCH_COUNT; f++) {
        for (int g = 0; g < TEXT_FOLD_COUNT; g++) {
            bool absent = f == TEXT_MATCH_WORD_CONTAINS && g == TEXT_FOLD_ASCII;
            EXPECT_EQ(text_matcher((text_family_t) f, (text_folding_t) g) == nullptr, absent)
                << f << " " << g;
        }
    }
}

// A term taken from inside the name (so that matches are common), or a random one.
std::string random_term(std::mt19937 &rng, const std::string &name, text_folding_t folding) {
    std::string t;
    if (!name.empty() && rng() % 3 != 0) {
        size_t a = rng() % name.size();
        size_t n = rng() % (name.size() - a + 1);
        t = name.substr(a, n);
    } else {
        t = oracle::random_name(rng, 3);
    }
    if (folding == TEXT_FOLD_ASCII) {
        std::string ascii;
        for (char c : t) {
            if ((uint8_t) c < 0x80) {
                ascii += (char) oracle::lower_ascii((uint8_t) c);
            }
        }
        return ascii;
    }
    // Half the terms are typed with another case, so that folding has something to do.
    if (rng() % 2) {
        for (char &c : t) {
            if ((uint8_t) c < 0x80 && isalpha((uint8_t) c)) {
                c = (char) (c ^ 0x20);
            }
        }
    }
    return oracle::fold_term(folding, t);
}

TEST(TextMatch, EveryFamilyAndFoldingMatchesTheModel) {
    std::mt19937 rng(1234);
    const text_family_t families[] = {TEXT_MATCH_CONTAINS, TEXT_MATCH_EQUAL, TEXT_MATCH_STARTWITH,
                                      TEXT_MATCH_ENDWITH, TEXT_MATCH_WORD_CONTAINS};
    int hits = 0, total = 0;
    for (int round = 0; round < 6000; round++) {
        std::string name = oracle::random_name(rng, 8);
        for (int g = 0; g < TEXT_FOLD_COUNT; g++) {
            text_folding_t folding = (text_folding_t) g;
            std::string term = random_term(rng, name, folding);
            if (round % 5 == 0) {
                term = oracle::fold_term(folding, name); // the equal family needs whole names
            }
            for (text_family_t family : families) {
                text_matcher_t m = text_matcher(family, folding);
                if (!m) {
                    continue;
                }
                bool want = oracle::match(family, folding, name, term);
                ASSERT_EQ(m(name.data(), name.size(), term.data(), term.size()), want)
                    << family_names[family] << " folding " << g << ": '" << name << "' / '" << term << "'";
                hits += want;
                total++;
            }
        }
    }
    // The random cases must exercise both answers, or the comparison above proves little.
    EXPECT_GT(hits, total / 10);
    EXPECT_LT(hits, total - total / 10);
}

} // namespace
