// The folding maps, the case tables, the decoding rule and the folding of terms.
#include "mem/mem.h"
#include "text/oracle.h"

#include <gtest/gtest.h>

namespace {

std::string utf8(uint32_t cp) {
    char buf[4];
    return std::string(buf, (size_t) text_encode(cp, buf));
}

struct map_shape_t {
    text_map_t which;
    uint32_t first_key;
    uint32_t last_key;
};

TEST(TextFold, MapsAreSortedWithoutIdentityRowsAndHaveTheirBounds) {
    const map_shape_t shapes[] = {
        {TEXT_MAP_LOWER, 0x00C0, 0xFF3A},
        {TEXT_MAP_BASE, 0x00A0, 0xFFEE},
        {TEXT_MAP_LOWER_BASE, 0x00A0, 0xFFEE},
    };
    for (const map_shape_t &s : shapes) {
        text_fold_map_t m = text_fold_map(s.which);
        ASSERT_GT(m.count, 0);
        EXPECT_EQ(m.keys[0], s.first_key) << s.which;
        EXPECT_EQ(m.keys[m.count - 1], s.last_key) << s.which;
        for (int i = 0; i < m.count; i++) {
            EXPECT_NE(m.keys[i], m.values[i]) << std::hex << m.keys[i];
            if (i > 0) {
                ASSERT_LT(m.keys[i - 1], m.keys[i]) << "map " << s.which << " row " << i;
            }
        }
    }
    // The lower map is the simple lower-case mapping of the Unicode 6.1 repertoire, exactly.
    EXPECT_EQ(text_fold_map(TEXT_MAP_LOWER).count, 977);
}

// The binary search must find every row and leave every other code point alone, above 0xFFFF too.
TEST(TextFold, LookupAgreesWithTheRowsForEveryCodePoint) {
    for (uint32_t cp = 0; cp <= 0x110010; cp++) {
        ASSERT_EQ(text_fold_lower(cp), oracle::map_fold(TEXT_MAP_LOWER, cp)) << std::hex << cp;
        ASSERT_EQ(text_fold_base(cp), oracle::map_fold(TEXT_MAP_BASE, cp)) << std::hex << cp;
        ASSERT_EQ(text_fold_lower_base(cp), oracle::map_fold(TEXT_MAP_LOWER_BASE, cp)) << std::hex << cp;
    }
    EXPECT_EQ(text_fold_lower(0x1FFFFF), 0x1FFFFFu);
    EXPECT_EQ(text_fold_lower(0x1D400), 0x1D400u); // a 4-byte capital is never folded
}

// A fold of a fold changes nothing, so that a folded term matches the name it came from.
TEST(TextFold, FoldsAreIdempotent) {
    for (text_map_t which : {TEXT_MAP_LOWER, TEXT_MAP_BASE, TEXT_MAP_LOWER_BASE}) {
        text_fold_map_t m = text_fold_map(which);
        for (int i = 0; i < m.count; i++) {
            EXPECT_EQ(oracle::map_fold(which, m.values[i]), m.values[i])
                << "map " << which << " key " << std::hex << m.keys[i];
        }
    }
}

struct fold_row_t {
    uint32_t key;
    uint32_t lower;
    uint32_t base;
    uint32_t lower_base;
};

// The decomposition rule, the named look-alike exceptions and the code points that stand for themselves.
TEST(TextFold, NamedRows) {
    const fold_row_t rows[] = {
        {0x00C9, 0x00E9, 'E', 'e'},       // É
        {0x0130, 'i', 'I', 'i'},          // İ: plain i on purpose
        {0x00D8, 0x00F8, 'O', 'o'},       // Ø
        {0x00C6, 0x00E6, 'A', 'a'},       // Æ
        {0x0131, 0x0131, 'i', 'i'},       // ı
        {0x0141, 0x0142, 'L', 'l'},       // Ł
        {0x0192, 0x0192, 'f', 'f'},       // ƒ
        {0x01E2, 0x01E3, 'A', 'a'},       // Ǣ
        {0x01FE, 0x01FF, 'O', 'o'},       // Ǿ lands where Ø lands
        {0x0261, 0x0261, 'g', 'g'},       // ɡ
        {0x00A0, 0x00A0, ' ', ' '},       // no-break space
        {0x00A5, 0x00A5, 'Y', 'y'},       // ¥
        {0x00A9, 0x00A9, 'C', 'c'},       // ©
        {0x00AD, 0x00AD, '-', '-'},       // soft hyphen
        {0x00B4, 0x00B4, ' ', ' '},       // acute accent
        {0x02BC, 0x02BC, '\'', '\''},     // modifier apostrophe
        {0x0302, 0x0302, '^', '^'},       // combining circumflex
        {0x0332, 0x0332, '_', '_'},       // combining low line
        {0x01C4, 0x01C6, 0x01F1, 0x01F3}, // Ǆ
        {0x01C5, 0x01C6, 0x01F2, 0x01F3}, // ǅ
        {0x01F1, 0x01F3, 0x01F1, 0x01F3}, // Ǳ
        {0x01C7, 0x01C9, 0x01C7, 0x01C9}, // Ǉ
        {0x0132, 0x0133, 0x0132, 0x0133}, // Ĳ
        {0x2161, 0x2171, 0x2161, 0x2171}, // Ⅱ
        {0x2160, 0x2170, 'I', 'i'},       // Ⅰ is one letter
        {0x0CC7, 0x0CC7, 0x0CD5, 0x0CD5}, // Kannada vowel
        {0x0E33, 0x0E33, 0x0E32, 0x0E32}, // Thai sara am
        {0x0F43, 0x0F43, 0x0F42, 0x0F42}, // Tibetan stack
        {0xAC00, 0xAC00, 0x326E, 0x326E}, // 가 to its circled form
        {0xB098, 0xB098, 0x326F, 0x326F}, // 나
        {0xAC01, 0xAC01, 0xAC01, 0xAC01}, // 각 has no circled form
        {0xFFA1, 0xFFA1, 0x1100, 0x1100}, // halfwidth kiyeok
        {0xFFE0, 0xFFE0, 'c', 'c'},       // fullwidth cent
        {0xFFE4, 0xFFE4, '|', '|'},       // fullwidth broken bar
        {0xFFEE, 0xFFEE, 0x25CB, 0x25CB}, // fullwidth circle
        {0xFF21, 0xFF41, 'A', 'a'},       // fullwidth A
        {0x212A, 'k', 'K', 'k'},          // Kelvin sign
        {0xFB01, 0xFB01, 'f', 'f'},       // fi ligature
        {0x00DF, 0x00DF, 0x00DF, 0x00DF}, // ß, ð and þ stand for themselves
        {0x00F0, 0x00F0, 0x00F0, 0x00F0}, {0x00FE, 0x00FE, 0x00FE, 0x00FE},
        {0x1E9E, 0x00DF, 0x1E9E, 0x00DF}, // capital sharp s
        {0x03A3, 0x03C3, 0x03A3, 0x03C3}, // Σ
        {0x13A0, 0x13A0, 0x13A0, 0x13A0}, // Cherokee had no small letters in 6.1
        {0xA7AA, 0x0266, 0xA7AA, 0x0266}, // the last letter of the repertoire
    };
    for (const fold_row_t &r : rows) {
        EXPECT_EQ(text_fold_lower(r.key), r.lower) << std::hex << r.key;
        EXPECT_EQ(text_fold_base(r.key), r.base) << std::hex << r.key;
        EXPECT_EQ(text_fold_lower_base(r.key), r.lower_base) << std::hex << r.key;
    }
}

TEST(TextFold, CaseTables) {
    text_init_tables();
    for (int c = 0; c < 256; c++) {
        int lo = c >= 128 ? 255 : (c >= 'A' && c <= 'Z') ? c + 32 : c;
        int up = c >= 128 ? 255 : (c >= 'a' && c <= 'z') ? c - 32 : c;
        EXPECT_EQ(ascii_lower[c], lo) << c;
        EXPECT_EQ(ascii_upper[c], up) << c;
    }
}

struct decode_row_t {
    const char *bytes;
    size_t n;
    uint32_t cp;
    int len;
};

TEST(TextFold, DecodingRule) {
    const decode_row_t rows[] = {
        {"A", 1, 'A', 1},
        {"\xC3\xA9", 2, 0xE9, 2},
        {"\xC3", 1, 0, 1},     // cut by the end
        {"\xE2\x84", 2, 0, 1}, // cut by the end
        {"\x80", 1, 0, 1},     // stray continuation
        {"\xFF", 1, 0, 1},
        {"\xF8\x88\x80\x80\x80", 5, 0, 1}, // no 5-byte sequences
        {"\xC3\x28", 2, 0xE8, 2},          // continuation bits are not checked
        {"\xC1\x81", 2, 0x41, 2},          // overlong forms decode to their value
        {"\xF0\x9F\x98\x80", 4, 0x1F600, 4},
        {"\xF7\xBF\xBF\xBF", 4, 0x1FFFFF, 4},
    };
    for (const decode_row_t &r : rows) {
        int len;
        EXPECT_EQ(text_decode((const uint8_t *) r.bytes, r.n, &len), r.cp) << r.bytes;
        EXPECT_EQ(len, r.len) << r.bytes;
    }
    // The zero-terminated form ends a sequence at a zero instead of a count.
    int len;
    EXPECT_EQ(text_decode_z((const uint8_t *) "\xC3", &len), 0u);
    EXPECT_EQ(len, 1);
    EXPECT_EQ(text_decode_z((const uint8_t *) "\xE2\x84\xAA", &len), 0x212Au);
    EXPECT_EQ(len, 3);
    EXPECT_EQ(text_decode_z((const uint8_t *) "\xF0\x9F\x98", &len), 0u);
    EXPECT_EQ(len, 1);
}

TEST(TextFold, EncodeRoundTripsEveryCodePoint) {
    for (uint32_t cp = 0; cp < 0x110000; cp++) {
        char buf[4];
        int n = text_encode(cp, buf);
        ASSERT_EQ(n, text_encoded_length(cp));
        int len;
        ASSERT_EQ(text_decode((const uint8_t *) buf, (size_t) n, &len), cp);
        ASSERT_EQ(len, n);
        int back;
        ASSERT_EQ(text_decode_back((const uint8_t *) buf, (const uint8_t *) buf + n, &back), cp);
        ASSERT_EQ(back, n);
    }
}

TEST(TextFold, DecodeBackwardsNeedsALeadThatFits) {
    const decode_row_t rows[] = {
        {"a\xA9", 2, 0, 1},        // lone continuation
        {"\xC3\xA9\xA9", 3, 0, 1}, // the lead announces two bytes, not three
        {"\xE2\x41\xA9", 3, 0, 1}, // an ASCII byte breaks the walk back
        {"x\xC3", 2, 0, 1},        // a lead at the very end
        {"\x80\x80\x80\x80", 4, 0, 1},
        {"\xE2\x84\xAA", 3, 0x212A, 3},
    };
    for (const decode_row_t &r : rows) {
        int len;
        const uint8_t *b = (const uint8_t *) r.bytes;
        EXPECT_EQ(text_decode_back(b, b + r.n, &len), r.cp) << r.bytes;
        EXPECT_EQ(len, r.len) << r.bytes;
    }
}

struct term_row_t {
    text_folding_t folding;
    const char *in;
    const char *out;
};

TEST(TextFold, TermFoldExamples) {
    const term_row_t rows[] = {
        {TEXT_FOLD_EXACT, "R\xC3\xA9sum\xC3\xA9", "R\xC3\xA9sum\xC3\xA9"},
        {TEXT_FOLD_LOWER, "R\xC3\xA9sum\xC3\xA9", "r\xC3\xA9sum\xC3\xA9"},
        {TEXT_FOLD_LOWER_BASE, "R\xC3\xA9sum\xC3\xA9", "resume"},
        {TEXT_FOLD_BASE, "R\xC3\xA9sum\xC3\xA9", "Resume"},
        {TEXT_FOLD_LOWER, "\xC4\xB0X", "ix"},                   // two bytes become one
        {TEXT_FOLD_LOWER, "\xE2\x84\xAA", "k"},                 // three bytes become one
        {TEXT_FOLD_BASE, "\xC7\x84", "\xC7\xB1"},               // Ǆ keeps its case form
        {TEXT_FOLD_LOWER_BASE, "\xEA\xB0\x80", "\xE3\x89\xAE"}, // two bytes grow to three
        {TEXT_FOLD_LOWER, "\xF0\x9D\x90\x80", "\xF0\x9D\x90\x80"},
    };
    for (const term_row_t &r : rows) {
        std::string in = r.in;
        std::string want = r.out;
        size_t n = term_fold_length(in.data(), in.size(), r.folding);
        ASSERT_EQ(n, want.size()) << r.in;
        std::string got(n, '#');
        EXPECT_EQ(term_fold_write(got.data(), in.data(), in.size(), r.folding), n);
        EXPECT_EQ(got, want) << r.in;
    }
    // An undecodable byte folds to code point 0, written as one zero byte.
    char out[4];
    ASSERT_EQ(term_fold_write(out, "A\xFF", 2, TEXT_FOLD_LOWER), 2u);
    EXPECT_EQ(std::string(out, 2), std::string("a\0", 2));
}

// Every folding of random text, including invalid bytes and 4-byte code points, against the model; the
// str_t form too, with texts long enough to leave the inline buffer.
TEST(TextFold, TermFoldMatchesTheModel) {
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; round++) {
        std::string in = oracle::random_name(rng, round % 100 == 0 ? 200 : 12);
        for (int f = 0; f < TEXT_FOLD_COUNT; f++) {
            text_folding_t folding = (text_folding_t) f;
            std::string want = oracle::fold_term(folding, in);
            size_t n = term_fold_length(in.data(), in.size(), folding);
            ASSERT_EQ(n, want.size());
            str_t s;
            str_init(&s);
            term_fold(&s, in.data(), in.size(), folding);
            ASSERT_EQ(std::string(s.ptr, (size_t) s.len), want) << "folding " << f;
            str_kill(&s);
        }
    }
}

TEST(TextFold, FoldingForFlags) {
    EXPECT_EQ(text_folding_for(true, true), TEXT_FOLD_EXACT);
    EXPECT_EQ(text_folding_for(true, false), TEXT_FOLD_BASE);
    EXPECT_EQ(text_folding_for(false, true), TEXT_FOLD_LOWER);
    EXPECT_EQ(text_folding_for(false, false), TEXT_FOLD_LOWER_BASE);
    EXPECT_TRUE(text_is_ascii("abc~", 4));
    EXPECT_FALSE(text_is_ascii("ab\xC3\xA9", 4));
    EXPECT_EQ(utf8(0xE9), "\xC3\xA9");
}

} // namespace
