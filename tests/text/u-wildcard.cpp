// Wildcard matching in every form and folding, and the pattern helpers.
#include "text/oracle.h"

#include <gtest/gtest.h>

namespace {

struct wild_row_t {
    text_family_t family;
    text_folding_t folding;
    const char *name;
    const char *pattern; // as typed: normalised and folded here
    bool want;
};

bool run(text_family_t family, text_folding_t folding, const std::string &name, const std::string &typed) {
    std::string p = typed;
    text_wildcard_normalize(p.data());
    p.resize(strlen(p.c_str()));
    std::string pat = oracle::fold_term(folding, p);
    return text_matcher(family, folding)(name.data(), name.size(), pat.data(), pat.size());
}

TEST(TextWildcard, HandPicked) {
    const text_family_t W = TEXT_MATCH_WILDCARD_WHOLE, P = TEXT_MATCH_WILDCARD_PREFIX,
                        C = TEXT_MATCH_WILDCARD_CONTAINS, A = TEXT_MATCH_WILDCARD_WORD_ANCHORED,
                        WC = TEXT_MATCH_WILDCARD_WORD_CONTAINS;
    const text_folding_t L = TEXT_FOLD_LOWER, LB = TEXT_FOLD_LOWER_BASE, X = TEXT_FOLD_EXACT,
                         B = TEXT_FOLD_BASE, AS = TEXT_FOLD_ASCII;
    const wild_row_t rows[] = {
        {W, L, "anything at all", "*", true},
        {W, L, "", "*", true},
        {W, L, "", "", true},
        {W, L, "a", "", false},
        {W, L, "", "?", false},
        {W, L, "\xF0\x9F\x98\x80", "?", true}, // '?' takes a whole 4-byte code point
        {W, L, "\xF0\x9F\x98\x80", "??", false},
        {W, X, "\xC3\xA9", "?", true},
        {W, L,
         "a\xFF"
         "b",
         "a?b", true}, // a bad byte is one character
        {W, L, "aXXb", "a**b", true},
        {W, L, "ab", "a*b", true},
        {W, L, "abc", "a*b", false},
        {W, L, "Report.TXT", "*.txt", true},
        {W, X, "Report.TXT", "*.txt", false},
        {W, AS, "Report.TXT", "*.txt", true},
        {W, LB, "R\xC3\xA9sum\xC3\xA9.doc", "res*.doc", true},
        {W, L, "R\xC3\xA9sum\xC3\xA9.doc", "res*.doc", false},
        {W, B, "R\xC3\xA9sum\xC3\xA9.doc", "Res*", true},
        {W, B, "R\xC3\xA9sum\xC3\xA9.doc", "res*", false},
        {W, L, "abcabd", "*ab?", true}, // the star must give back what it took
        {W, L, "mississippi", "m*iss*ppi", true},
        {W, L, "mississippi", "m*iss*ppx", false},
        {P, L, "report.txt", "rep", true},
        {P, L, "report.txt", "", true},
        {P, L, "report.txt", "r?p*t", true},
        {P, L, "report.txt", "ep", false},
        {C, L, "my report.txt", "rep?rt", true},
        {C, L, "my report.txt", "rap", false},
        {C, L, "", "", true},
        {A, L, "abc def", "abc", true},
        {A, L, "abcdef", "abc", false},
        {A, L, "abc.def", "a?c", true},
        {A, L, "abcdef", "ab*", true},
        {A, L, "abc\xC3\xA9", "abc", false}, // é continues the word
        {WC, L, "x-abc.txt", "abc", true},
        {WC, L, "xabc", "abc", false},
        {WC, L, "xabc abc", "a?c", true},
        {WC, L, "a.txt.bak", ".txt", true},
        {WC, L, "2024-report", "r*t", true},
        {WC, LB, "Caf\xC3\xA9 Menu", "cafe", true},
        {WC, L, "b_abc", "abc", false},
    };
    for (const wild_row_t &r : rows) {
        EXPECT_EQ(run(r.family, r.folding, r.name, r.pattern), r.want)
            << r.family << " folding " << r.folding << ": '" << r.name << "' / '" << r.pattern << "'";
    }
}

// Patterns made from pieces of the name with wildcards put in, so that many match.
std::string random_pattern(std::mt19937 &rng, const std::string &name, text_folding_t folding) {
    std::string p;
    std::vector<oracle::ch_t> chars = oracle::chars_from(name, 0);
    size_t start = chars.empty() ? 0 : rng() % chars.size();
    for (size_t k = start; k < chars.size() && p.size() < 12; k++) {
        unsigned r = rng() % 8;
        if (r == 0) {
            p += '*';
            k += rng() % 3;
        } else if (r == 1) {
            p += '?';
        } else {
            p += name.substr(chars[k].off, chars[k].len);
        }
    }
    if (rng() % 4 == 0) {
        p = oracle::random_name(rng, 2) + (rng() % 2 ? "*" : "?") + oracle::random_name(rng, 2);
    }
    if (folding == TEXT_FOLD_ASCII) {
        std::string ascii;
        for (char c : p) {
            if ((uint8_t) c < 0x80) {
                ascii += c;
            }
        }
        p = ascii;
    }
    text_wildcard_normalize(p.data());
    p.resize(strlen(p.c_str()));
    return oracle::fold_term(folding, p);
}

TEST(TextWildcard, EveryFormAndFoldingMatchesTheModel) {
    std::mt19937 rng(99);
    const text_family_t families[] = {TEXT_MATCH_WILDCARD_WHOLE, TEXT_MATCH_WILDCARD_PREFIX,
                                      TEXT_MATCH_WILDCARD_CONTAINS, TEXT_MATCH_WILDCARD_WORD_ANCHORED,
                                      TEXT_MATCH_WILDCARD_WORD_CONTAINS};
    int hits = 0, total = 0;
    for (int round = 0; round < 4000; round++) {
        std::string name = oracle::random_name(rng, 8);
        for (int g = 0; g < TEXT_FOLD_COUNT; g++) {
            text_folding_t folding = (text_folding_t) g;
            std::string pat = random_pattern(rng, name, folding);
            for (text_family_t family : families) {
                bool want = oracle::wildcard(family, folding, name, pat);
                bool got = text_matcher(family, folding)(name.data(), name.size(), pat.data(), pat.size());
                ASSERT_EQ(got, want) << family << " folding " << g << ": '" << name << "' / '" << pat << "'";
                hits += want;
                total++;
            }
        }
    }
    EXPECT_GT(hits, total / 10);
    EXPECT_LT(hits, total - total / 10);
}

// Without wildcards the wildcard forms are the plain matchers.
TEST(TextWildcard, PlainPatternsAgreeWithPlainMatchers) {
    std::mt19937 rng(17);
    for (int round = 0; round < 3000; round++) {
        std::string name = oracle::random_name(rng, 6);
        std::string term = name.substr(0, rng() % (name.size() + 1));
        if (rng() % 2) {
            term = name.substr(rng() % (name.size() + 1));
        }
        if (term.find_first_of("*?") != std::string::npos) {
            continue;
        }
        std::string t = oracle::fold_term(TEXT_FOLD_LOWER, term);
        EXPECT_EQ(wildcard_whole_lower(name.data(), name.size(), t.data(), t.size()),
                  text_equal_lower(name.data(), name.size(), t.data(), t.size()));
    }
}

struct norm_row_t {
    const char *in;
    const char *out;
    int wildcards;
};

TEST(TextWildcard, Normalize) {
    const norm_row_t rows[] = {
        {"a**b", "a*b", 1},    {"***", "*", 1},          {"a?*?b", "a?*?b", 3},
        {"plain", "plain", 0}, {"**a**?**", "*a*?*", 4}, {"", "", 0},
    };
    for (const norm_row_t &r : rows) {
        std::string s = r.in;
        EXPECT_EQ(text_wildcard_normalize(s.data()), r.wildcards) << r.in;
        EXPECT_STREQ(s.c_str(), r.out) << r.in;
    }
}

TEST(TextWildcard, StripStars) {
    char a[] = "*abc*";
    EXPECT_TRUE(text_strip_star_both(a));
    EXPECT_STREQ(a, "abc");
    char b[] = "*";
    EXPECT_FALSE(text_strip_star_both(b));
    EXPECT_STREQ(b, "*");
    char c[] = "abc*";
    EXPECT_FALSE(text_strip_star_both(c));
    EXPECT_TRUE(text_strip_star_back(c));
    EXPECT_STREQ(c, "abc");
    EXPECT_FALSE(text_strip_star_back(c));
    char d[] = "*abc";
    EXPECT_FALSE(text_strip_star_both(d));
    EXPECT_TRUE(text_strip_star_front(d));
    EXPECT_STREQ(d, "abc");
    EXPECT_FALSE(text_strip_star_front(d));
    char e[] = "";
    EXPECT_FALSE(text_strip_star_back(e));
    EXPECT_FALSE(text_strip_star_front(e));
}

} // namespace
