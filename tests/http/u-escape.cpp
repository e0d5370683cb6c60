// The escapes of names on their way into HTML, JSON and links, and percent-decoding on the way back.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "http/http_internal.h"

namespace {

using Cat = void (*)(str_t *, const char *, size_t);

std::string cat(Cat f, const std::string &in) {
    str_t s;
    str_init(&s);
    f(&s, in.data(), in.size());
    std::string out(s.ptr, (size_t) s.len);
    str_kill(&s);
    return out;
}

std::string url(const std::string &in, bool encode_slash, bool plus_blank) {
    str_t s;
    str_init(&s);
    http_cat_url(&s, in.data(), in.size(), encode_slash, plus_blank);
    std::string out(s.ptr, (size_t) s.len);
    str_kill(&s);
    return out;
}

const std::string FFFD = "\xEF\xBF\xBD";

TEST(HttpEscape, Html) {
    struct Case {
        std::string in, out;
    } cases[] = {
        {"plain name.txt", "plain name.txt"},
        {"a&b<c>d\"e'f", "a&amp;b&lt;c&gt;d&quot;e'f"},
        {"<script>", "&lt;script&gt;"},
        {"caf\xC3\xA9 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xF0\x9F\x98\x80"},
        {"bad\xFFtail", "bad" + FFFD + "tail"},
        {"cut\xC3", "cut" + FFFD},
        {"\xC0\xAF", FFFD + FFFD}, // overlong "/"
        {std::string("nul\0x", 5), std::string("nul\0x", 5)},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(cat(http_cat_html, c.in), c.out) << c.in;
    }
}

TEST(HttpEscape, Json) {
    struct Case {
        std::string in, out;
    } cases[] = {
        {"say \"hi\"", "say \\\"hi\\\""},
        {"C:\\dir", "C:\\\\dir"},
        {"line\nfeed\r\ttab\x01\x1f", "line\\u000Afeed\\u000D\\u0009tab\\u0001\\u001F"},
        {"<&>/", "<&>/"},
        {"\x7f", "\x7f"},
        {"\xE2\x82\xAC \xED\xA0\x80", "\xE2\x82\xAC " + FFFD + FFFD + FFFD}, // a surrogate is three bad bytes
        {"\xF4\x90\x80\x80", FFFD + FFFD + FFFD + FFFD},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(cat(http_cat_json, c.in), c.out) << c.in;
    }
}

// Whatever bytes a name holds, its JSON form is valid UTF-8 with no raw control character and no
// unescaped quote, and its HTML form has no raw markup character.
TEST(HttpEscape, AnyBytesComeOutValid) {
    std::mt19937 rng(7);
    for (int round = 0; round < 2000; round++) {
        std::string in(rng() % 24, 0);
        for (char &c : in) {
            c = (char) (rng() % 4 == 0 ? "\"\\<>&\n\x80\xC3\xED\xF0"[rng() % 10] : rng() % 256);
        }
        std::string json = cat(http_cat_json, in);
        ASSERT_TRUE(http_utf8_valid(json.data(), json.size()));
        for (size_t i = 0; i < json.size(); i++) {
            ASSERT_GE((uint8_t) json[i], 0x20);
            if (json[i] == '\\') {
                i++; // the escaped byte
                ASSERT_LT(i, json.size());
                ASSERT_TRUE(json[i] == '\\' || json[i] == '"' || json[i] == 'u');
            } else {
                ASSERT_NE(json[i], '"');
            }
        }
        std::string html = cat(http_cat_html, in);
        ASSERT_TRUE(http_utf8_valid(html.data(), html.size()));
        ASSERT_EQ(html.find_first_of("<>\""), std::string::npos);
        std::string link = url(in, true, true);
        // A link's part can't end the attribute, the query pair or the path, and is plain text.
        ASSERT_EQ(link.find_first_of(std::string(" \"<>&#?/\\=\0", 11)), std::string::npos);
        ASSERT_TRUE(http_utf8_valid(link.data(), link.size()));
    }
}

TEST(HttpEscape, UrlAndItsDecodingRoundTrip) {
    EXPECT_EQ(url("a b/c", false, false), "a%20b/c");
    EXPECT_EQ(url("a b/c", true, true), "a+b%2Fc");
    EXPECT_EQ(url("-._~!'()*", true, true), "-._~!'()*");
    EXPECT_EQ(url("&=?#%+\\", false, true), "%26%3D%3F%23%25%2B%5C");
    EXPECT_EQ(url("\xC3\xA9", true, true), "\xC3\xA9");
    EXPECT_EQ(url("\xFF", true, true), FFFD);
    EXPECT_EQ(url(std::string("\0", 1), true, true), "%00");

    // Every valid name survives the link and its decoding, blanks as "+" included.
    std::mt19937 rng(11);
    for (int round = 0; round < 2000; round++) {
        std::string in;
        for (size_t n = rng() % 20; n > 0; n--) {
            in += rng() % 8 == 0 ? "\xC3\xA9" : std::string(1, (char) (1 + rng() % 127));
        }
        std::string link = url(in, round % 2 == 0, true);
        ASSERT_EQ(http_percent_decode(link.data(), true), in.size());
        ASSERT_EQ(std::string(link.c_str()), in);
    }
}

TEST(HttpEscape, PercentDecoding) {
    struct Case {
        std::string in;
        bool plus;
        std::string out;
    } cases[] = {
        {"%41%62", false, "Ab"},  {"%4", false, "%4"},
        {"%", false, "%"},        {"%zz", false, std::string(1, '\0')}, // non-hex digits count 0
        {"%g1", false, "\x01"},   {"a+b", false, "a+b"},
        {"a+b%2B", true, "a b+"}, {"%2e%2E", false, ".."},
    };
    for (const Case &c : cases) {
        std::string buf = c.in;
        size_t n = http_percent_decode(buf.data(), c.plus);
        EXPECT_EQ(std::string(buf.data(), n), c.out) << c.in;
    }
}

} // namespace
