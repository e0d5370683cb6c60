// The cursor parsers, the date form of file lists, the name helpers and the UTF-16 converters.
#include "os/os.h"
#include "text/oracle.h"

#include <gtest/gtest.h>

namespace {

TEST(TextParse, SkipPrefix) {
    const char *s = "weeksago";
    EXPECT_TRUE(text_skip_prefix(&s, "weeks"));
    EXPECT_STREQ(s, "ago"); // what follows is not looked at
    EXPECT_FALSE(text_skip_prefix(&s, "agox"));
    EXPECT_STREQ(s, "ago"); // a failure leaves the cursor
    const char *t = "SIZE:>1mb";
    EXPECT_FALSE(text_skip_prefix(&t, "size:"));
    EXPECT_TRUE(text_skip_prefix_nocase(&t, "size:"));
    EXPECT_STREQ(t, ">1mb");
    const char *u = "Ab";
    EXPECT_FALSE(text_skip_prefix_nocase(&u, "abc")); // the text ends first
    EXPECT_STREQ(u, "Ab");
    EXPECT_STREQ(text_skip_space(" \t\r\n x "), "x ");
    EXPECT_STREQ(text_skip_space(""), "");
}

struct u64_row_t {
    const char *in;
    uint64_t value;
    const char *rest;
};

TEST(TextParse, NumbersWithCommas) {
    const u64_row_t rows[] = {
        {"1,234,567 bytes", 1234567, " bytes"},
        {"12", 12, ""},
        {"1,,2", 1, ",,2"},
        {"3,", 3, ","},
        {",5", 0, ",5"},
        {"abc", 0, "abc"},
        {"18446744073709551615", UINT64_MAX, ""},
        {"18446744073709551616", 0, ""}, // wraps
    };
    for (const u64_row_t &r : rows) {
        const char *s = r.in;
        EXPECT_EQ(text_parse_u64_commas(&s), r.value) << r.in;
        EXPECT_STREQ(s, r.rest) << r.in;
    }
    const char *d = "2024-05";
    EXPECT_EQ(text_parse_digits(&d, 2), 20u);
    EXPECT_STREQ(d, "24-05");
    EXPECT_EQ(text_parse_digits(&d, 9), 24u);
    EXPECT_EQ(text_parse_digits(&d, 9), 0u);
    EXPECT_STREQ(d, "-05");
}

TEST(TextParse, Int) {
    EXPECT_EQ(text_parse_int("42"), 42);
    EXPECT_EQ(text_parse_int("-42x"), -42);
    EXPECT_EQ(text_parse_int("0x1F"), 31);
    EXPECT_EQ(text_parse_int("0XfF"), 255);
    EXPECT_EQ(text_parse_int("-0x10"), -16);
    EXPECT_EQ(text_parse_int("0xFFFFFFFF"), -1); // wraps silently
    EXPECT_EQ(text_parse_int("4294967297"), 1);
    EXPECT_EQ(text_parse_int(""), 0);
    EXPECT_EQ(text_parse_int("x1"), 0);
}

struct ext_row_t {
    const char *name;
    const char *ext;     // text_get_extension
    const char *counted; // text_get_extension_counted, null for none
};

TEST(TextParse, Extensions) {
    const ext_row_t rows[] = {
        {"report.txt", "txt", "txt"},
        {"archive.tar.gz", "gz", "gz"},
        {"noext", "", nullptr},
        {"trailing.", "", ""},
        {".bashrc", "bashrc", "bashrc"},
        {"dir.d\\file", "", nullptr}, // a separator behind the dot
        {"dir.d/file", "", nullptr},
        {"C:\\a.b\\c.TXT", "TXT", "TXT"},
        {"", "", nullptr},
    };
    for (const ext_row_t &r : rows) {
        EXPECT_STREQ(text_get_extension(r.name), r.ext) << r.name;
        size_t n = 99;
        const char *e = text_get_extension_counted(r.name, strlen(r.name), &n);
        if (!r.counted) {
            EXPECT_EQ(e, nullptr) << r.name;
            EXPECT_EQ(n, 0u);
        } else {
            ASSERT_NE(e, nullptr) << r.name;
            EXPECT_EQ(std::string(e, n), r.counted) << r.name;
        }
    }
    // The counted form stops at its count, with no terminator needed.
    size_t n;
    const char *e = text_get_extension_counted("a.bc.def", 4, &n);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e, n), "bc");
}

TEST(TextParse, Filenames) {
    EXPECT_STREQ(text_filename("C:\\Users\\me\\file.txt"), "file.txt");
    EXPECT_STREQ(text_filename("/usr/bin/ls"), "ls");
    EXPECT_STREQ(text_filename("mixed/a\\b"), "b");
    EXPECT_STREQ(text_filename("plain"), "plain");
    EXPECT_STREQ(text_filename("dir/"), "");
    EXPECT_EQ(text_filename_offset("/usr/bin/ls", 11), 9u);
    EXPECT_EQ(text_filename_offset("/usr/bin/ls", 8), 5u); // counted: "/usr/bin"
    EXPECT_EQ(text_filename_offset("x", 1), 0u);
}

std::u16string u16(const char16_t *s) {
    return std::u16string(s);
}

// UTF-16 to UTF-8: pairs join, lone surrogates keep their 3-byte form, lengths match what is written.
TEST(TextUtf16, ToUtf8) {
    struct row_t {
        std::u16string in;
        std::string out;
    };
    const row_t rows[] = {
        {u16(u"abc"), "abc"},
        {u16(u"R\u00e9sum\u00e9"), "R\xC3\xA9sum\xC3\xA9"},
        {u16(u"\U0001F600"), "\xF0\x9F\x98\x80"},
        {std::u16string(1, (char16_t) 0xD83D), "\xED\xA0\xBD"},     // lone high at the end
        {std::u16string{(char16_t) 0xD83D, u'x'}, "\xED\xA0\xBDx"}, // high without low
        {std::u16string{(char16_t) 0xDE00, (char16_t) 0xD83D}, "\xED\xB8\x80\xED\xA0\xBD"}, // reversed
        {u16(u"\uFFFF"), "\xEF\xBF\xBF"},
        {u16(u""), ""},
    };
    for (const row_t &r : rows) {
        const uint16_t *w = (const uint16_t *) r.in.c_str();
        ASSERT_EQ(utf16_utf8_length(w), r.out.size());
        ASSERT_EQ(utf16_utf8_length_counted(w, r.in.size()), r.out.size());
        std::string buf(r.out.size() + 1, '#');
        char *end = utf16_to_utf8(buf.data(), w);
        EXPECT_EQ(end, buf.data() + r.out.size());
        EXPECT_EQ(std::string(buf.data()), r.out);
        std::string buf2(r.out.size() + 1, '#');
        utf16_to_utf8_counted(buf2.data(), w, r.in.size());
        EXPECT_EQ(std::string(buf2.data()), r.out);
    }
    // A pair cut by the count is two lone surrogates' worth: only the high half is inside.
    const uint16_t pair[] = {0xD83D, 0xDE00, 0};
    EXPECT_EQ(utf16_utf8_length_counted(pair, 1), 3u);
    // A list of strings that ends in an empty one.
    const uint16_t list[] = {'a', 'b', 0, 0x00E9, 0, 0};
    ASSERT_EQ(utf16_utf8_length_double_terminated(list), 7u);
    char out[8];
    memset(out, '#', sizeof(out));
    char *end = utf16_to_utf8_double_terminated(out, list);
    EXPECT_EQ(end, out + 6);
    EXPECT_EQ(std::string(out, 7), std::string("ab\0\xC3\xA9\0\0", 7));
}

TEST(TextUtf16, FromUtf8) {
    uint16_t buf[16];
    uint16_t *end = utf8_to_utf16(buf, 16, "a\xC3\xA9\xF0\x9F\x98\x80z");
    ASSERT_EQ(end - buf, 5);
    const uint16_t want[] = {'a', 0xE9, 0xD83D, 0xDE00, 'z', 0};
    EXPECT_EQ(memcmp(buf, want, sizeof(want)), 0);
    EXPECT_EQ(utf8_utf16_length("a\xC3\xA9\xF0\x9F\x98\x80z"), 5u);
    // Room for one unit only: the low 16 bits of the code point are stored instead of a pair.
    end = utf8_to_utf16(buf, 2, "\xF0\x9F\x98\x80");
    EXPECT_EQ(end - buf, 1);
    EXPECT_EQ(buf[0], 0xF600);
    EXPECT_EQ(buf[1], 0);
    // The terminator always fits; the text is cut before it.
    end = utf8_to_utf16(buf, 3, "abcdef");
    EXPECT_EQ(end - buf, 2);
    EXPECT_EQ(buf[2], 0);
    // A bad byte is code point 0, one unit per byte.
    EXPECT_EQ(utf8_to_utf16_counted(buf,
                                    "a\xFF"
                                    "b",
                                    3),
              3u);
    EXPECT_EQ(buf[1], 0);
    EXPECT_EQ(utf8_to_utf16_counted_no_tabs(buf, "a\tb\t", 4), 2u);
    EXPECT_EQ(buf[0], 'a');
    EXPECT_EQ(buf[1], 'b');
}

// UTF-8 made from random code points survives the round trip through UTF-16.
TEST(TextUtf16, RoundTrip) {
    std::mt19937 rng(8);
    for (int round = 0; round < 2000; round++) {
        std::string s;
        for (int k = 0; k < 10; k++) {
            uint32_t cp = rng() % 4 == 0 ? 0x10000 + rng() % 0x100000 : 1 + rng() % 0xFFFF;
            if (cp >= 0xD800 && cp <= 0xDFFF) {
                cp = 'x';
            }
            char b[4];
            s.append(b, (size_t) text_encode(cp, b));
        }
        std::vector<uint16_t> w(s.size() + 1);
        size_t units = utf8_to_utf16_counted(w.data(), s.data(), s.size());
        ASSERT_EQ(units, utf8_utf16_length(s.c_str()));
        std::string back(utf16_utf8_length_counted(w.data(), units) + 1, '#');
        utf16_to_utf8_counted(back.data(), w.data(), units);
        back.pop_back();
        ASSERT_EQ(back, s);
    }
}

} // namespace
