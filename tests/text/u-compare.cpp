// The comparisons: the folded name orders, a name against a folded term, the zero-terminated forms and
// the tail order, each against the model and for the properties a sort relies on.
#include "text/oracle.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

int sign(int v) {
    return (v > 0) - (v < 0);
}

// The model of every comparison: walk two character lists, the first differing pair of values decides,
// else the bytes left.
int model_compare(text_folding_t fa, const std::string &a, text_folding_t fb, const std::string &b) {
    std::vector<oracle::ch_t> ca = oracle::chars_from(a, 0), cb = oracle::chars_from(b, 0);
    size_t k = 0;
    for (; k < ca.size() && k < cb.size(); k++) {
        uint32_t va =
            fa == TEXT_FOLD_EXACT ? ca[k].cp : oracle::name_value(fa, (uint8_t) a[ca[k].off], ca[k].cp);
        uint32_t vb =
            fb == TEXT_FOLD_EXACT ? cb[k].cp : oracle::name_value(fb, (uint8_t) b[cb[k].off], cb[k].cp);
        if (va != vb) {
            return (int) va - (int) vb;
        }
    }
    size_t ra = k < ca.size() ? a.size() - ca[k].off : 0;
    size_t rb = k < cb.size() ? b.size() - cb[k].off : 0;
    return (int) ra - (int) rb;
}

int cmp_lb(const std::string &a, const std::string &b) {
    return utf8_compare_lower_base(a.data(), a.size(), b.data(), b.size());
}

int cmp_l(const std::string &a, const std::string &b) {
    return utf8_compare_lower(a.data(), a.size(), b.data(), b.size());
}

struct pair_row_t {
    const char *a;
    const char *b;
    int lower_base; // expected sign
    int lower;
};

TEST(TextCompare, EdgeCases) {
    const pair_row_t rows[] = {
        {"R\xC3\xA9sum\xC3\xA9", "RESUME", 0, 1},         // diacritics only count with lower
        {"\xC3\xA9", "E", 0, 1},                          // é equals E though no byte is alike
        {"\xC4\xB0", "i", 0, 0},                          // İ is plain i with case off
        {"\xF0\x9D\x90\x80", "\xF0\x9D\x90\x9A", -1, -1}, // 4-byte letters are never folded
        {"a\xFF", "a\x80", 0, 0},                         // both bad bytes are code point 0
        {"a\xFF", "a", 1, 1},                             // ... and the byte count still ends the walk
        {"abc", "abcd", -1, -1},                          // a prefix sorts first
        {"ABC", "abc", 0, 0},
        {"a_b", "a.b", 1, 1},
        {"\xC3\x9F", "ss", 1, 1},        // ß stands for itself
        {"\xC7\x84", "\xC7\xB3", 0, -1}, // Ǆ and ǳ share the lower base form only
        {"", "", 0, 0},
        {"", "\xFF", -1, -1},
    };
    for (const pair_row_t &r : rows) {
        EXPECT_EQ(sign(cmp_lb(r.a, r.b)), r.lower_base) << r.a << " / " << r.b;
        EXPECT_EQ(sign(cmp_l(r.a, r.b)), r.lower) << r.a << " / " << r.b;
        EXPECT_EQ(sign(cmp_lb(r.b, r.a)), -r.lower_base) << r.a << " / " << r.b;
    }
}

// Exact values against the model, on random names with invalid bytes and 4-byte code points, and the
// zero-terminated form against the counted one.
TEST(TextCompare, MatchesTheModel) {
    std::mt19937 rng(11);
    for (int round = 0; round < 20000; round++) {
        std::string a = oracle::random_name(rng, 6), b = oracle::random_name(rng, 6);
        if (round % 3 == 0) {
            b = a.substr(0, rng() % (a.size() + 1)) + oracle::random_name(rng, 2);
        }
        ASSERT_EQ(cmp_lb(a, b), model_compare(TEXT_FOLD_LOWER_BASE, a, TEXT_FOLD_LOWER_BASE, b))
            << a << "|" << b;
        ASSERT_EQ(cmp_l(a, b), model_compare(TEXT_FOLD_LOWER, a, TEXT_FOLD_LOWER, b)) << a << "|" << b;
        ASSERT_EQ(utf8_strcmp_lower(a.c_str(), b.c_str()), cmp_l(a, b)) << a << "|" << b;
        // A name against a term folded beforehand: only the name side is folded.
        const text_folding_t foldings[] = {TEXT_FOLD_LOWER, TEXT_FOLD_LOWER_BASE, TEXT_FOLD_BASE};
        for (text_folding_t f : foldings) {
            std::string t = oracle::fold_term(f, b);
            int got = f == TEXT_FOLD_LOWER ? text_compare_lower(a.data(), a.size(), t.data(), t.size())
                      : f == TEXT_FOLD_LOWER_BASE
                          ? text_compare_lower_base(a.data(), a.size(), t.data(), t.size())
                          : text_compare_base(a.data(), a.size(), t.data(), t.size());
            ASSERT_EQ(got, model_compare(f, a, TEXT_FOLD_EXACT, t)) << f << " " << a << "|" << b;
        }
    }
}

// What a sort needs: antisymmetry, and a sorted list whose every pair is in order (so no cycles).
TEST(TextCompare, OrdersAreConsistent) {
    std::mt19937 rng(5);
    std::vector<std::string> names;
    for (int i = 0; i < 400; i++) {
        names.push_back(oracle::random_name(rng, 4));
    }
    for (auto cmp : {cmp_lb, cmp_l}) {
        std::vector<std::string> v = names;
        std::sort(v.begin(), v.end(),
                  [&](const std::string &x, const std::string &y) { return cmp(x, y) < 0; });
        for (size_t i = 0; i < v.size(); i++) {
            for (size_t j = i; j < v.size(); j++) {
                ASSERT_LE(cmp(v[i], v[j]), 0) << v[i] << " before " << v[j];
                ASSERT_EQ(sign(cmp(v[i], v[j])), -sign(cmp(v[j], v[i])));
            }
        }
    }
}

TEST(TextCompare, AsciiStricmp) {
    EXPECT_EQ(ascii_stricmp("ReadMe.TXT", "readme.txt"), 0);
    EXPECT_LT(ascii_stricmp("abc", "abd"), 0);
    EXPECT_GT(ascii_stricmp("abcd", "abc"), 0);
    EXPECT_LT(ascii_stricmp("abc", "abcd"), 0);
    // The second text is taken as typed: upper case there never matches.
    EXPECT_NE(ascii_stricmp("abc", "ABC"), 0);
    // A non-ASCII byte maps to 255 and so sorts after every ASCII byte.
    EXPECT_GT(ascii_stricmp("\xC3\xA9", "z"), 0);
}

// The model of the tail order: character lists read backwards, raw values, then bytes left.
int model_tail(const std::string &a, const std::string &b) {
    std::vector<oracle::ch_t> ca = oracle::chars_backwards(a), cb = oracle::chars_backwards(b);
    size_t k = 0, ua = 0, ub = 0;
    for (; k < ca.size() && k < cb.size(); k++) {
        if (ca[k].cp != cb[k].cp) {
            return (int) ca[k].cp - (int) cb[k].cp;
        }
        ua += ca[k].len;
        ub += cb[k].len;
    }
    return (int) (a.size() - ua) - (int) (b.size() - ub);
}

TEST(TextCompare, TailOrder) {
    auto tail = [](const std::string &a, const std::string &b) {
        return utf8_compare_tail(a.data() + a.size(), a.size(), b.data() + b.size(), b.size());
    };
    EXPECT_LT(tail("xa", "ab"), 0);  // the last byte decides first
    EXPECT_LT(tail("gz", "tgz"), 0); // a suffix sorts before its extensions
    EXPECT_EQ(tail("txt", "txt"), 0);
    EXPECT_LT(tail("TXT", "TXt"), 0);             // no folding: 'T' sorts before 't'
    EXPECT_GT(tail("a\xC3\xA9", "a\xC3\x89"), 0); // é after É by value
    std::mt19937 rng(3);
    for (int round = 0; round < 20000; round++) {
        std::string a = oracle::random_name(rng, 5), b = oracle::random_name(rng, 5);
        if (round % 3 == 0) {
            b = oracle::random_name(rng, 2) + a.substr(rng() % (a.size() + 1));
        }
        ASSERT_EQ(tail(a, b), model_tail(a, b)) << a << "|" << b;
    }
}

} // namespace
