// The request as bytes arrive: line assembly and its limits, the request line, Basic authorization, Range,
// the query string, and the route with its path rule.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http/http_internal.h"
#include "os/os.h"

namespace {

struct Session {
    http_session_t s;
    explicit Session(const char *user = "", const char *pass = "", uint32_t per_page = 32) {
        http_session_init(&s, user, pass, per_page, 1000);
    }
    ~Session() { http_session_kill(&s); }
    http_feed_t feed(const std::string &bytes) { return http_session_feed(&s, bytes.data(), bytes.size()); }
};

struct Str {
    str_t s;
    Str() { str_init(&s); }
    ~Str() { str_kill(&s); }
    std::string text() const { return std::string(s.ptr, (size_t) s.len); }
};

std::string b64(const std::string &in) {
    static const char *a = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        uint32_t v = (uint8_t) in[i] << 16 | (uint8_t) in[i + 1] << 8 | (uint8_t) in[i + 2];
        for (int k = 18; k >= 0; k -= 6) {
            out += a[(v >> k) & 63];
        }
    }
    if (i < in.size()) {
        uint32_t v = (uint8_t) in[i] << 16 | (i + 1 < in.size() ? (uint8_t) in[i + 1] << 8 : 0);
        out += a[(v >> 18) & 63];
        out += a[(v >> 12) & 63];
        out += i + 1 < in.size() ? a[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

TEST(HttpSession, LinesAcrossReadsAndTheBlankLineEndsTheRequest) {
    // The same request cut at every byte: a partial line waits, CR LF and bare LF both end lines, and
    // only the blank line ends the request.
    std::string request = "GeT /a%20b?x=1 HTTP/1.1\r\nHost: h\nRange: bytes=5-9\r\n\r\n";
    for (size_t cut = 0; cut <= request.size(); cut++) {
        Session s;
        http_feed_t first = s.feed(request.substr(0, cut));
        http_feed_t second = s.feed(request.substr(cut));
        EXPECT_EQ(cut == request.size() ? first : second, HTTP_FEED_REQUEST) << cut;
        ASSERT_NE(s.s.target, nullptr);
        EXPECT_STREQ(s.s.target, "/a%20b?x=1");
        EXPECT_TRUE(s.s.range);
        EXPECT_EQ(s.s.range_start, 5u);
        EXPECT_EQ(s.s.range_size, 5u);
    }
    // Without its blank line a request never ends, and after its end nothing more is read.
    Session open;
    EXPECT_EQ(open.feed("GET / HTTP/1.0\r\nHost: x\r\n"), HTTP_FEED_MORE);
    EXPECT_EQ(open.feed("\r\n"), HTTP_FEED_REQUEST);
    EXPECT_EQ(open.feed("\r\n"), HTTP_FEED_MORE);
}

TEST(HttpSession, RequestLineForms) {
    struct Case {
        const char *line;
        const char *target; // null: none stored
    } cases[] = {
        {"GET / HTTP/1.0", "/"},      {"get /x?s=a+b HTTP/1.1", "/x?s=a+b"},
        {"GET /only", "/only"},       {"GET\t/tab HTTP/1.0", "/tab"},
        {"POST / HTTP/1.0", nullptr}, {"GETS / HTTP/1.0", nullptr},
        {"HEAD / HTTP/1.0", nullptr}, {"GET", ""},
    };
    for (const Case &c : cases) {
        Session s;
        http_parse_request_line(&s.s, c.line);
        if (c.target) {
            ASSERT_NE(s.s.target, nullptr) << c.line;
            EXPECT_STREQ(s.s.target, c.target) << c.line;
        } else {
            EXPECT_EQ(s.s.target, nullptr) << c.line;
        }
    }
}

TEST(HttpSession, LimitsRefuseLongLinesAndHeads) {
    // A request line one byte over the limit is refused with 414 before its end arrives; one at the
    // limit is read.
    Session at;
    EXPECT_EQ(at.feed("GET /" + std::string(HTTP_MAX_REQUEST_LINE - 5, 'a') + "\r"), HTTP_FEED_MORE);
    EXPECT_EQ(at.feed("\n\r\n"), HTTP_FEED_REQUEST);
    Session over;
    EXPECT_EQ(over.feed("GET /" + std::string(HTTP_MAX_REQUEST_LINE, 'a')), HTTP_FEED_TOO_LONG);
    EXPECT_EQ(over.s.status, 414);
    EXPECT_EQ(over.feed("\r\n\r\n"), HTTP_FEED_MORE);

    // A long header line and many short ones are both 431.
    Session header;
    EXPECT_EQ(header.feed("GET / HTTP/1.0\r\nX: " + std::string(HTTP_MAX_REQUEST_LINE, 'b')),
              HTTP_FEED_TOO_LONG);
    EXPECT_EQ(header.s.status, 431);
    Session many;
    http_feed_t r = HTTP_FEED_MORE;
    for (int i = 0; i < 10000 && r == HTTP_FEED_MORE; i++) {
        r = many.feed("X-A: 1234567890\r\n");
    }
    EXPECT_EQ(r, HTTP_FEED_TOO_LONG);
    EXPECT_EQ(many.s.status, 431);
    EXPECT_LE(many.s.head_bytes, (uint32_t) HTTP_MAX_HEADER_BYTES + 1);
}

TEST(HttpSession, TimeOutCountsFromTheAccept) {
    Session s; // accepted at tick 1000
    s.feed("GET / HTTP/1.0\r\n");
    EXPECT_FALSE(http_session_timed_out(&s.s, 1000 + HTTP_REQUEST_TIMEOUT_MS - 1));
    EXPECT_TRUE(http_session_timed_out(&s.s, 1000 + HTTP_REQUEST_TIMEOUT_MS));
    // The tick counter wraps; the difference still counts.
    http_session_t w;
    http_session_init(&w, "", "", 32, 0xFFFFFF00u);
    EXPECT_FALSE(http_session_timed_out(&w, 0x100));
    EXPECT_TRUE(http_session_timed_out(&w, 0xFFFFFF00u + HTTP_REQUEST_TIMEOUT_MS));
    // A finished request is no longer timed.
    s.feed("\r\n");
    EXPECT_FALSE(http_session_timed_out(&s.s, 1000 + 10 * HTTP_REQUEST_TIMEOUT_MS));
    http_session_kill(&w);
}

TEST(HttpAuth, BasicDecodedAndComparedOnTheFly) {
    struct Case {
        const char *user, *pass;
        std::string value;
        bool ok;
    } cases[] = {
        {"alice", "s3cret", "Basic " + b64("alice:s3cret"), true},
        {"alice", "s3cret", "Basic " + b64("alice:s3cre"), false},   // password cut short
        {"alice", "s3cret", "Basic " + b64("alice:s3cretX"), false}, // longer password
        {"alice", "s3cret", "Basic " + b64("alicE:s3cret"), false},
        {"alice", "s3cret", "Basic " + b64("alice"), false}, // no ":"
        {"alice", "s3cret", "Basic " + b64("alic:s3cret"), false},
        {"alice", "s3cret", "basic " + b64("alice:s3cret"), false}, // "Basic " exactly
        {"alice", "s3cret", "Basic", false},
        {"alice", "s3cret", "Bearer " + b64("alice:s3cret"), false},
        {"alice", "s3cret", "Basic !!!!!!!!", false},  // garbage decodes to zero bytes
        {"", "pw", "Basic " + b64("anyone:pw"), true}, // no user name set: any name
        {"", "pw", "Basic " + b64(":pw"), true},
        {"", "pw", "Basic " + b64("anyone:px"), false},
        {"bob", "", "Basic " + b64("bob:"), true},
        {"bob", "", "Basic " + b64("bob:x"), false},
        {"bob", "p:w", "Basic " + b64("bob:p:w"), true}, // the password may hold ":"
    };
    for (const Case &c : cases) {
        EXPECT_EQ(http_auth_check(c.value.c_str(), c.user, c.pass), c.ok) << c.user << " " << c.value;
    }
    // Both base64 alphabets: bytes 0xFB 0xFF give "+/" in one and "-_" in the other.
    std::string pass = "\xfb\xff\xfe";
    std::string std_form = b64("u:" + pass);
    std::string url_form = std_form;
    for (char &ch : url_form) {
        ch = ch == '+' ? '-' : ch == '/' ? '_' : ch;
    }
    ASSERT_NE(std_form, url_form);
    EXPECT_TRUE(http_auth_check(("Basic " + std_form).c_str(), "u", pass.c_str()));
    EXPECT_TRUE(http_auth_check(("Basic " + url_form).c_str(), "u", pass.c_str()));

    // Through the header: the name is case-blind, the value's "Basic " is not; the last header counts.
    Session s("alice", "s3cret");
    s.feed("GET / HTTP/1.0\r\nAUTHORIZATION: Basic " + b64("alice:s3cret") + "\r\n");
    EXPECT_TRUE(s.s.authorized);
    s.feed("Authorization: Basic " + b64("alice:wrong") + "\r\n\r\n");
    EXPECT_FALSE(s.s.authorized);
}

TEST(HttpRange, Forms) {
    struct Case {
        const char *value;
        bool ok;
        uint64_t start, size;
    } cases[] = {
        {"bytes=100-", true, 100, 0},
        {"bytes=0-0", true, 0, 1},
        {"bytes=10-19", true, 10, 10},
        {"BYTES=10-19", true, 10, 10},
        {"bytes=19-10", false, 0, 0},
        {"bytes=-10", false, 0, 0},
        {"bytes=a-b", false, 0, 0},
        {"items=1-2", false, 0, 0},
        {"bytes=0-18446744073709551615", false, 0, 0}, // a size that doesn't fit
        {"bytes=99999999999999999999-", false, 0, 0},
    };
    for (const Case &c : cases) {
        Session s;
        EXPECT_EQ(http_parse_range(&s.s, c.value), c.ok) << c.value;
        EXPECT_EQ(s.s.range, c.ok) << c.value;
        EXPECT_EQ(s.s.range_start, c.start) << c.value;
        EXPECT_EQ(s.s.range_size, c.size) << c.value;
    }
}

TEST(HttpQuery, Parameters) {
    struct Case {
        const char *query;
        const char *search; // null: no search parameter
        uint32_t offset, count, sort;
        bool json, mcase, word, path, regex, diacritics, pcol, scol, dcol;
    } cases[] = {
        {"", nullptr, 0, 32, 0, false, false, false, false, false, false, false, false, false},
        {"search=a+b%2Fc", "a b/c", 0, 32, 0, false, false, false, false, false, false, false, false, false},
        {"s=x&q=y&search=z", "z", 0, 32, 0, false, false, false, false, false, false, false, false, false},
        {"s=", "", 0, 32, 0, false, false, false, false, false, false, false, false, false},
        {"o=64&c=10", nullptr, 64, 10, 0, false, false, false, false, false, false, false, false, false},
        {"offset=5&n=7", nullptr, 5, 7, 0, false, false, false, false, false, false, false, false, false},
        {"j=1", nullptr, 0, 0xFFFFFFFF, 0, true, false, false, false, false, false, false, false, false},
        {"json=1&count=10", nullptr, 0, 10, 0, true, false, false, false, false, false, false, false, false},
        {"i=1&w=1&p=1&r=1&m=1", nullptr, 0, 32, 0, false, true, true, true, true, true, false, false, false},
        {"case=1&wholeword=1&path=1&regex=1&diacritics=1&case=0", nullptr, 0, 32, 0, false, false, true, true,
         true, true, false, false, false},
        {"path_column=1&size_column=1&date_modified_column=1", nullptr, 0, 32, 0, false, false, false, false,
         false, false, true, true, true},
        {"sort=size", nullptr, 0, 32, 4, false, false, false, false, false, false, false, false, false},
        {"sort=date_modified&ascending=0", nullptr, 0, 32, 13, false, false, false, false, false, false,
         false, false, false},
        {"sort=path&sort=bogus", nullptr, 0, 32, 2, false, false, false, false, false, false, false, false,
         false},
        {"ascending=0", nullptr, 0, 32, 1, false, false, false, false, false, false, false, false, false},
        // A name runs to the next "=", so "a&s" is one name; a name without "=" ends the parsing.
        {"a&s=x", nullptr, 0, 32, 0, false, false, false, false, false, false, false, false, false},
        {"o=3&lonely&s=x", nullptr, 3, 32, 0, false, false, false, false, false, false, false, false, false},
        // Names compare exactly; numbers saturate rather than wrap.
        {"S=x&Offset=4&offset=99999999999", nullptr, 0xFFFFFFFF, 32, 0, false, false, false, false, false,
         false, false, false, false},
        {"s=%zz%4", "\0%4", 0, 32, 0, false, false, false, false, false, false, false, false, false},
    };
    for (const Case &c : cases) {
        Session s;
        std::string q = c.query;
        http_parse_query(&s.s, q.data());
        if (c.search) {
            ASSERT_NE(s.s.search, nullptr) << c.query;
            EXPECT_STREQ(s.s.search, c.search) << c.query;
        } else {
            EXPECT_EQ(s.s.search, nullptr) << c.query;
        }
        EXPECT_EQ(s.s.offset, c.offset) << c.query;
        EXPECT_EQ(s.s.count, c.count) << c.query;
        EXPECT_EQ(s.s.sort, c.sort) << c.query;
        EXPECT_EQ(s.s.json, c.json) << c.query;
        EXPECT_EQ(s.s.match_case, c.mcase) << c.query;
        EXPECT_EQ(s.s.match_whole_word, c.word) << c.query;
        EXPECT_EQ(s.s.match_path, c.path) << c.query;
        EXPECT_EQ(s.s.match_regex, c.regex) << c.query;
        EXPECT_EQ(s.s.match_diacritics, c.diacritics) << c.query;
        EXPECT_EQ(s.s.path_column, c.pcol) << c.query;
        EXPECT_EQ(s.s.size_column, c.scol) << c.query;
        EXPECT_EQ(s.s.date_modified_column, c.dcol) << c.query;
    }
}

TEST(HttpRoute, TargetsToAnswers) {
    const std::string S(OS_SEP_STR);
    struct Case {
        const char *target; // null: no GET line
        const char *user;
        bool authorized;
        http_route_t route;
        std::string path;
    } cases[] = {
        {nullptr, "", false, HTTP_ROUTE_BAD_REQUEST, ""},
        {"x/y", "", false, HTTP_ROUTE_BAD_REQUEST, ""},
        {"http://host/", "", false, HTTP_ROUTE_BAD_REQUEST, ""},
        {"/", "u", false, HTTP_ROUTE_UNAUTHORIZED, ""},
        {"/", "u", true, HTTP_ROUTE_PATH, ""},
        {"/?search=", "", false, HTTP_ROUTE_SEARCH, ""},
        {"/?s=x#frag", "", false, HTTP_ROUTE_SEARCH, ""},
        {"/#?s=x", "", false, HTTP_ROUTE_PATH, ""},
        {"/", "", false, HTTP_ROUTE_PATH, ""},
        // A non-empty path wins over a search.
        {"/C:/?search=x", "", false, HTTP_ROUTE_PATH, "C:"},
        {"/a/b/", "", false, HTTP_ROUTE_PATH, "a" + S + "b"},
        {"/a%20b/c%2Fd", "", false, HTTP_ROUTE_PATH, "a b" + S + "c" + S + "d"},
        // Every way of climbing out ends inside the root.
        {"/../x", "", false, HTTP_ROUTE_PATH, "x"},
        {"/%2e%2e/%2E%2E/x", "", false, HTTP_ROUTE_PATH, "x"},
        {"/a/..%2f..%2f..%2fetc/passwd", "", false, HTTP_ROUTE_PATH, "etc" + S + "passwd"},
        {"/a/b/../../../../c", "", false, HTTP_ROUTE_PATH, "c"},
        {"/./a/./b/.", "", false, HTTP_ROUTE_PATH, "a" + S + "b"},
        {"/a/%2e/b", "", false, HTTP_ROUTE_PATH, "a" + S + "b"},
        // Windows would drop the dots of "...": there it names nothing; on Linux it is a name.
        {"/a/...", "", false, OS_SEP == '\\' ? HTTP_ROUTE_NOT_FOUND : HTTP_ROUTE_PATH,
         OS_SEP == '\\' ? "" : "a" + S + "..."},
        {"/a+b", "", false, HTTP_ROUTE_PATH, "a+b"},
        // A NUL or bytes that aren't UTF-8 can name nothing.
        {"/a%00/../b", "", false, HTTP_ROUTE_NOT_FOUND, ""},
        {"/%c0%ae%c0%ae/x", "", false, HTTP_ROUTE_NOT_FOUND, ""},
        {"/%ff", "", false, HTTP_ROUTE_NOT_FOUND, ""},
        {"/caf%C3%A9", "", false, HTTP_ROUTE_PATH, "caf\xC3\xA9"},
    };
    for (const Case &c : cases) {
        Session s(c.user, "");
        if (c.target) {
            http_parse_request_line(&s.s, (std::string("GET ") + c.target).c_str());
        }
        s.s.authorized = c.authorized;
        Str path;
        EXPECT_EQ(http_route(&s.s, &path.s), c.route) << (c.target ? c.target : "(none)");
        EXPECT_EQ(path.text(), c.path) << (c.target ? c.target : "(none)");
    }
}

TEST(HttpPath, CanonicalFormsForBothSeparators) {
    struct Case {
        char sep;
        std::string in, out;
        bool ok;
    } cases[] = {
        {'/', "/usr/bin/../lib", "/usr/lib", true},
        {'/', "//usr///bin//", "/usr/bin", true},
        {'/', "/../../etc", "/etc", true},
        {'/', "a\\..\\b", "a\\..\\b", true}, // a backslash is part of a Linux name
        {'/', "..", "", true},
        {'\\', "C:\\x\\..\\..\\..\\y", "y", true},
        {'\\', "\\\\server\\share\\..\\..\\x", "\\\\x", true},
        {'\\', "C:/a\\b/../c", "C:\\a\\c", true},
        {'\\', "\\\\\\a", "\\\\a", true},
        // Windows drops trailing dots and blanks; a name of only those could climb there.
        {'\\', "a\\b. .\\c", "a\\b\\c", true},
        {'\\', "a\\.. \\..\\x", "", false},
        {'\\', "a\\...\\x", "", false},
        {'/', "a/.. /...", "a/.. /...", true}, // ordinary names on Linux
        {'/', std::string("a\0b", 3), "", false},
        {'/', "\xed\xa0\x80", "", false}, // a surrogate
        {'/', "\xf4\x90\x80\x80", "", false},
    };
    for (const Case &c : cases) {
        Str out;
        EXPECT_EQ(http_path_canonicalise(c.in.data(), c.in.size(), c.sep, &out.s), c.ok) << c.in;
        EXPECT_EQ(out.text(), c.out) << c.in;
    }
}

} // namespace
