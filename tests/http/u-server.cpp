// The server's core without sockets: connections fed requests through a sink that keeps what they are
// sent, over a generated index. The waiting queue, the one query shared by them, answers written as the
// peer takes them, and the page bar and title that every page carries.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "config/config.h"
#include "config/config_vars.h"
#include "db_query/exec_table.h"
#include "debug/debug.h"
#include "http/http.h"
#include "http/page.h"
#include "http/serve.h"
#include "main/main.h"
#include "net/served_index.h"
#include "os/os_main.h"

namespace {

struct Peer {
    std::string sent;
    std::vector<std::string> log;
    bool ended = false;
    bool room = true;
    http_connection_t *c = nullptr;
};

void peer_send(void *ctx, const char *bytes, size_t n) {
    ((Peer *) ctx)->sent.append(bytes, n);
}
void peer_send_file(void *ctx, os_file_t f, uint64_t, uint64_t) {
    os_file_close(f);
    ((Peer *) ctx)->ended = true;
}
bool peer_room(void *ctx) {
    return ((Peer *) ctx)->room;
}
void peer_end(void *ctx) {
    ((Peer *) ctx)->ended = true;
}
void peer_log(void *ctx, const char *text) {
    ((Peer *) ctx)->log.push_back(text);
}

// The names of a JSON answer's results, in order.
std::vector<std::string> json_names(const std::string &body) {
    std::vector<std::string> out;
    const std::string key = "\"name\":\"";
    for (size_t at = body.find(key); at != std::string::npos; at = body.find(key, at + 1)) {
        size_t start = at + key.size(), end = start;
        while (body[end] != '"' || body[end - 1] == '\\') {
            end++;
        }
        out.push_back(body.substr(start, end - start));
    }
    return out;
}

std::string json_escaped(const std::string &name) {
    str_t s;
    str_init(&s);
    http_cat_json(&s, name.data(), name.size());
    std::string out(s.ptr, (size_t) s.len);
    str_kill(&s);
    return out;
}

struct ServerTest : ::testing::Test {
    static ref_index_t idx;
    static void SetUpTestSuite() {
        event_init();
        idx.build(3000, 17);
    }
    static void TearDownTestSuite() { idx.destroy(); }

    http_server_t *server = nullptr;
    std::vector<Peer *> peers;

    void SetUp() override {
        http_settings_t s = {};
        s.username = mem_dup("", 0);
        s.password = mem_dup("", 0);
        s.home = mem_dup("/nonexistent-home", 17);
        s.default_page = mem_dup("", 0);
        s.header = mem_dup("", 0);
        s.title_format = mem_dup("", 0);
        s.allow_download = true;
        s.items_per_page = 32;
        server = http_server_create(idx.db, &s, nullptr);
    }
    void TearDown() override {
        http_server_destroy(server);
        for (Peer *p : peers) {
            delete p;
        }
    }
    Peer *request(const std::string &target, bool room = true) {
        Peer *p = new Peer;
        p->room = room;
        peers.push_back(p);
        http_sink_t sink = {p, peer_send, peer_send_file, peer_room, peer_end, peer_log};
        p->c = http_connection_open(server, &sink, 0);
        std::string req = "GET " + target + " HTTP/1.0\r\n\r\n";
        http_connection_receive(p->c, req.data(), req.size());
        return p;
    }
    void settle() {
        for (int i = 0; i < 20; i++) {
            db_wait(idx.db, "test");
            event_dispatch();
        }
    }
    // The names the query gives for a search and sort, escaped as the JSON writes them.
    std::vector<std::string> expected(const char *search, int sort) {
        db_query_t *q = db_query_create(idx.db, false, nullptr, nullptr);
        exec_run(q, search, sort);
        std::vector<std::string> out;
        for (db_ref_t r : exec_results(q)) {
            uint32_t len;
            const char *name = db_record_name(r, &len);
            out.push_back(json_escaped(std::string(name, len)));
        }
        db_destroy_query(q);
        return out;
    }
    static bool logged(const Peer *p, const std::string &line) {
        for (const std::string &l : p->log) {
            if (l == line) {
                return true;
            }
        }
        return false;
    }
};
ref_index_t ServerTest::idx;

TEST_F(ServerTest, QueuedSearchesShareTheQueryAndEachGetsItsOwnOrder) {
    Peer *a = request("/?search=readme&json=1");
    Peer *b = request("/?search=readme&json=1&sort=size&ascending=0");
    Peer *c = request("/?search=readme&json=1&offset=5&count=7");
    Peer *d = request("/?search=abc&json=1&sort=path");
    // One search runs; the others wait for it.
    EXPECT_EQ(server->running, a->c);
    EXPECT_FALSE(a->ended || b->ended || c->ended || d->ended);
    settle();
    for (Peer *p : {a, b, c, d}) {
        EXPECT_TRUE(p->ended);
        EXPECT_EQ(p->sent.find("HTTP/1.0 200 OK\r\n"), 0u);
    }
    std::vector<std::string> by_name = expected("readme", DB_SORT_NAME);
    ASSERT_GT(by_name.size(), 20u);
    EXPECT_EQ(json_names(a->sent), by_name);
    EXPECT_EQ(json_names(b->sent), expected("readme", DB_SORT_SIZE + 1));
    EXPECT_EQ(json_names(c->sent), std::vector<std::string>(by_name.begin() + 5, by_name.begin() + 12));
    EXPECT_EQ(json_names(d->sent), expected("abc", DB_SORT_PATH));
    EXPECT_NE(a->sent.find("\"totalResults\":" + std::to_string(by_name.size()) + ","), std::string::npos);
    EXPECT_TRUE(logged(b, "same query, different sort\n"));
    EXPECT_TRUE(logged(c, "same query, different sort\n"));
    // Only a page of the same search and order costs nothing: it is written at once.
    Peer *e = request("/?search=abc&json=1&sort=path&offset=3");
    EXPECT_TRUE(e->ended);
    EXPECT_TRUE(logged(e, "same query\n"));
    for (Peer *p : {a, b, c, d, e}) {
        http_connection_close(p->c);
    }
}

TEST_F(ServerTest, AConnectionThatGoesAwayLeavesTheQueue) {
    Peer *a = request("/?search=readme&json=1");
    Peer *b = request("/?search=resume&json=1");
    Peer *c = request("/?search=abc&json=1");
    // b leaves while waiting, a while its search runs: c is answered all the same, and right.
    http_connection_close(b->c);
    http_connection_close(a->c);
    EXPECT_EQ(server->running, c->c);
    settle();
    EXPECT_TRUE(c->ended);
    EXPECT_EQ(json_names(c->sent), expected("abc", DB_SORT_NAME));
    EXPECT_TRUE(a->sent.find("\"results\"") == std::string::npos);
    http_connection_close(c->c);
    // The cut search was forgotten: asking it again runs it again.
    Peer *again = request("/?search=readme&json=1");
    settle();
    EXPECT_FALSE(logged(again, "same query\n"));
    EXPECT_EQ(json_names(again->sent), expected("readme", DB_SORT_NAME));
    http_connection_close(again->c);
}

TEST_F(ServerTest, LongAnswersWaitForThePeerAndHoldTheQuery) {
    Peer *whole = request("/?search=&json=1&path_column=1");
    settle();
    ASSERT_TRUE(whole->ended);
    ASSERT_GT(whole->sent.size(), 3u * 65536);

    // The same search again is written at once, as far as the peer takes it.
    Peer *slow = request("/?search=&json=1&path_column=1", false);
    settle();
    EXPECT_FALSE(slow->ended);
    size_t first = slow->sent.size();
    EXPECT_LT(first, whole->sent.size());
    // A search behind it waits until the last row is out.
    Peer *next = request("/?search=abc&json=1");
    settle();
    EXPECT_FALSE(next->ended);
    while (!slow->ended) {
        http_connection_writable(slow->c);
        ASSERT_GT(slow->sent.size(), first);
        first = slow->sent.size();
    }
    // Apart from the Date line the answers are the same.
    auto body = [](const std::string &s) { return s.substr(s.find("\r\n\r\n")); };
    EXPECT_EQ(body(slow->sent), body(whole->sent));
    settle();
    EXPECT_TRUE(next->ended);
    for (Peer *p : {whole, slow, next}) {
        http_connection_close(p->c);
    }
}

TEST_F(ServerTest, APeerThatStopsReadingGivesUpTheQueryToOthers) {
    Peer *whole = request("/?search=&json=1&path_column=1");
    settle();
    Peer *stuck = request("/?search=&json=1&path_column=1", false);
    Peer *next = request("/?search=abc&json=1");
    settle();
    ASSERT_FALSE(stuck->ended);
    size_t sent = stuck->sent.size();
    // The clock moves, the peer takes nothing: after the time-out the waiting search is served.
    http_connection_tick(stuck->c, 5000);
    http_connection_tick(stuck->c, 5000 + HTTP_REQUEST_TIMEOUT_MS - 1);
    EXPECT_FALSE(next->ended);
    http_connection_tick(stuck->c, 5000 + HTTP_REQUEST_TIMEOUT_MS);
    EXPECT_TRUE(stuck->ended);
    EXPECT_EQ(stuck->sent.size(), sent);
    settle();
    EXPECT_TRUE(next->ended);
    EXPECT_EQ(json_names(next->sent), expected("abc", DB_SORT_NAME));
    // A peer that keeps taking rows is never cut, however long its answer runs.
    Peer *reading = request("/?search=&json=1&path_column=1", false);
    Peer *behind = request("/?search=abc&json=1");
    settle();
    ASSERT_EQ(reading->c->streaming, HTTP_STREAM_SEARCH);
    for (uint32_t t = 1; !reading->ended; t += HTTP_REQUEST_TIMEOUT_MS) {
        http_connection_tick(reading->c, t);
        ASSERT_FALSE(behind->ended);
        http_connection_writable(reading->c);
    }
    EXPECT_EQ(reading->sent.substr(reading->sent.find("\r\n\r\n")),
              whole->sent.substr(whole->sent.find("\r\n\r\n")));
    settle();
    EXPECT_TRUE(behind->ended);
    for (Peer *p : {whole, stuck, next, reading, behind}) {
        http_connection_close(p->c);
    }
}

TEST_F(ServerTest, HtmlPagesCountAndLinkTheirPages) {
    std::vector<std::string> all = expected("readme", DB_SORT_NAME);
    ASSERT_GT(all.size(), 12u);
    Peer *p = request("/?search=readme&count=5&offset=5");
    settle();
    std::string total = std::to_string(all.size());
    EXPECT_NE(p->sent.find("6 to 10 of " + total + " results"), std::string::npos);
    EXPECT_NE(p->sent.find("?search=readme&amp;count=5\">&lt; Previous"), std::string::npos);
    EXPECT_NE(p->sent.find("?search=readme&amp;offset=10&amp;count=5\">Next &gt;"), std::string::npos);
    EXPECT_NE(p->sent.find("<title>readme - Sablewatch</title>"), std::string::npos);
    // The current column's link flips its direction; another starts where a reader expects.
    EXPECT_NE(p->sent.find("?search=readme&amp;sort=name&amp;ascending=0&amp;count=5\""), std::string::npos);
    EXPECT_NE(p->sent.find("?search=readme&amp;sort=size&amp;ascending=0&amp;count=5\""), std::string::npos);
    http_connection_close(p->c);
}

TEST(HttpPageBar, PagesListed) {
    struct Case {
        uint32_t total, count, offset;
        std::vector<uint32_t> pages;
    } cases[] = {
        {75, 32, 0, {0, 1, 2}},
        {320, 32, 0, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {77, 7, 35, {0, 4, 5, 6, 10}}, // eleven pages, the sixth shown: 1 ... 5 6 7 ... 11
        {77, 7, 0, {0, 1, 10}},
        {77, 7, 70, {0, 9, 10}},
        {77, 7, 7, {0, 1, 2, 10}},
        {77, 7, 3, {0, 1, 2, 10}}, // an offset between pages counts as the page it reaches into
        {0, 32, 0, {}},
        {0xFFFFFFFF, 1, 0xFFFFFFFE, {0, 0xFFFFFFFD, 0xFFFFFFFE}},
    };
    for (const Case &c : cases) {
        uint32_t pages[10];
        uint32_t n = http_page_bar_pages(c.total, c.count, c.offset, pages);
        EXPECT_EQ(std::vector<uint32_t>(pages, pages + n), c.pages)
            << c.total << " " << c.count << " " << c.offset;
    }
}

// With labels asked for, a root of the list shows as its volume's label and its name in brackets; a root
// whose volume has no label, or labels not asked for, show the name alone. The link stays the path.
TEST_F(ServerTest, RootListShowsVolumeLabelsWhenAsked) {
    static const auto labelled = [](const char *, str_t *out) {
        str_set(out, "Data <1>");
        return true;
    };
    static const auto unlabelled = [](const char *, str_t *out) {
        str_set(out, "");
        return false;
    };
    str_t root;
    str_init(&root);
    db_get_full_path(&root, idx.recs[0].ref);
    std::string plain = root.ptr, shown = std::string("Data <1> (") + root.ptr + ")";
    str_kill(&root);
    struct Case {
        bool show;
        bool (*label)(const char *, str_t *);
        std::string name;
    } cases[] = {
        {true, labelled, shown},
        {true, unlabelled, plain},
        {false, labelled, plain},
    };
    for (const Case &c : cases) {
        server->settings.show_drive_labels = c.show;
        server->settings.volume_label = c.label;
        Peer *json = request("/?j=1");
        settle();
        ASSERT_TRUE(json->ended);
        EXPECT_EQ(json_names(json->sent), std::vector<std::string>{json_escaped(c.name)});
        http_connection_close(json->c);
        Peer *html = request("/");
        settle();
        std::string escaped = c.name == shown ? "Data &lt;1&gt; (" + plain + ")" : plain;
        EXPECT_NE(html->sent.find(">" + escaped + "<"), std::string::npos) << html->sent.substr(0, 2000);
        http_connection_close(html->c);
    }
}

TEST(HttpFile, ContentTypesBySystemThenTableThenBytes) {
    struct Case {
        const char *name, *type;
    } cases[] = {
        {"notes.txt", "text/plain"},
        {"C:\\photos\\IMG_1.JPG", "image/jpeg"},
        {"/srv/www/index.html", "text/html"},
        {"archive.no-such-type", "application/octet-stream"},
        {"README", "application/octet-stream"},
        {"dot.", "application/octet-stream"},
    };
    str_t out;
    str_init(&out);
    for (const Case &c : cases) {
        http_content_type(c.name, &out);
        EXPECT_STREQ(out.ptr, c.type) << c.name;
    }
    str_kill(&out);
}

TEST(HttpPage, TitleFormats) {
    struct Case {
        const char *format, *subject, *title;
    } cases[] = {
        {"", "report", "report - Sablewatch"}, {"", "", "Sablewatch"},
        {"$t: $s", "x", "Sablewatch: x"},      {"$s?{[$s]} $$", "", " $"},
        {"$s?{[$s]} $$", "a", "[a] $"},        {"?{x}", "a", "?{x}"},
        {"$s?{unclosed", "a", "unclosed"},
    };
    for (const Case &c : cases) {
        str_t out;
        str_init(&out);
        http_page_title(&out, c.format, c.subject);
        EXPECT_STREQ(out.ptr, c.title) << c.format;
        str_kill(&out);
    }
}

// ---- the JSON answers against the in-process search ------------------------------------------------------

// A strict reader of the answers' JSON: any text that isn't one whole JSON value fails the read. Strings
// come back decoded (escapes and surrogate pairs to UTF-8), so that names compare with the index's bytes.
struct json_reader_t {
    const std::string &s;
    size_t at = 0;
    bool ok = true;

    void space() {
        while (at < s.size() && (s[at] == ' ' || s[at] == '\t' || s[at] == '\r' || s[at] == '\n')) {
            at++;
        }
    }
    bool take(char c) {
        space();
        if (at < s.size() && s[at] == c) {
            at++;
            return true;
        }
        return false;
    }
    uint32_t hex4() {
        uint32_t v = 0;
        for (int i = 0; i < 4; i++, at++) {
            int d = at < s.size() ? text_hex_digit(s[at]) : -1;
            ok = ok && d >= 0;
            v = v * 16 + (uint32_t) (d < 0 ? 0 : d);
        }
        return v;
    }
    std::string string() {
        std::string out;
        ok = ok && take('"');
        while (ok && at < s.size() && s[at] != '"') {
            unsigned char c = (unsigned char) s[at++];
            ok = c >= 0x20;
            if (c != '\\') {
                out += (char) c;
                continue;
            }
            char e = at < s.size() ? s[at++] : 0;
            static const char plain[] = "\"\\/bfnrt", meant[] = "\"\\/\b\f\n\r\t";
            const char *k = e ? strchr(plain, e) : nullptr;
            if (k) {
                out += meant[k - plain];
            } else if (e == 'u') {
                uint32_t cp = hex4();
                if (cp >= 0xD800 && cp < 0xDC00 && s.compare(at, 2, "\\u") == 0) {
                    at += 2;
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (hex4() - 0xDC00);
                }
                char buf[4];
                out.append(buf, (size_t) text_encode(cp, buf));
            } else {
                ok = false;
            }
        }
        ok = ok && at < s.size();
        at++;
        return out;
    }
    uint64_t number() {
        space();
        size_t start = at;
        uint64_t v = 0;
        while (at < s.size() && s[at] >= '0' && s[at] <= '9') {
            v = v * 10 + (uint64_t) (s[at++] - '0');
        }
        ok = ok && at > start;
        return v;
    }
};

struct json_row_t {
    std::string type, name, path;
};

// The answer's body read as {"totalResults":N,"results":[{"type":..,"name":..,"path":..},...]}; false when
// it is anything else.
bool json_answer(const std::string &body, uint64_t *total, std::vector<json_row_t> *rows) {
    json_reader_t r{body};
    r.ok = r.take('{') && r.string() == "totalResults" && r.take(':');
    *total = r.number();
    r.ok = r.ok && r.take(',') && r.string() == "results" && r.take(':') && r.take('[');
    rows->clear();
    if (r.ok && !r.take(']')) {
        do {
            json_row_t row;
            r.ok = r.ok && r.take('{');
            while (r.ok) {
                std::string key = r.string();
                r.ok = r.ok && r.take(':');
                std::string value = r.string();
                (key == "type"   ? row.type
                 : key == "name" ? row.name
                 : key == "path" ? row.path
                                 : key) = value;
                if (!r.take(',')) {
                    break;
                }
            }
            r.ok = r.ok && r.take('}');
            rows->push_back(row);
        } while (r.ok && r.take(','));
        r.ok = r.ok && r.take(']');
    }
    r.ok = r.ok && r.take('}');
    r.space();
    return r.ok && r.at == body.size();
}

std::string percent_encoded(const std::string &text) {
    std::string out;
    for (unsigned char c : text) {
        if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
            out += (char) c;
        } else if (c == ' ') {
            out += '+';
        } else {
            char buf[4];
            snprintf(buf, sizeof buf, "%%%02X", c);
            out += buf;
        }
    }
    return out;
}

// The server as the program runs it: started from the settings on the loopback address, over the
// reference index, with a client in the test on a socket of its own for each request.
struct HttpAgreeTest : served_index_test {
    char *saved_bindings = nullptr;
    int32_t saved_port = 0;
    uint8_t saved_enabled = 0, saved_allow = 0;
    uint16_t port = 0;

    void SetUp() override {
        serve_begin("SABLEWATCH_HTTP_TEST");
        saved_bindings = http_server_bindings, saved_port = http_server_port;
        saved_enabled = http_server_enabled, saved_allow = allow_http_server;
        http_server_bindings = bindings, http_server_port = 0, http_server_enabled = 1, allow_http_server = 1;
        ASSERT_TRUE(http_server_apply_settings(nullptr));
        port = loop_port_of(http_server_net());
    }
    void TearDown() override {
        http_server_shutdown();
        http_server_bindings = saved_bindings, http_server_port = saved_port;
        http_server_enabled = saved_enabled, allow_http_server = saved_allow;
        serve_end();
    }

    // The whole answer to one request, read until the server closes the connection.
    std::string get(const std::string &target) {
        os_socket_t c = loop_connect(port);
        loop_send_all(c, "GET " + target + " HTTP/1.0\r\n\r\n");
        std::string answer;
        EXPECT_TRUE(loop_pump_until([&] { return !loop_drain(c, &answer); })) << answer.substr(0, 400);
        os_net_close(c);
        return answer;
    }
};
// With SW_HTTP_AGREE_DIR set, each answer's body goes to <n>.json and the records it must hold to <n>.want
// ("total" first, then "type name path" with the texts in hexadecimal), so that the integration test can
// read every answer with Python's own json module as well.
void write_agreement(size_t n, const std::string &body, size_t total, const std::vector<db_ref_t> &window) {
    str_t dir;
    str_init(&dir);
    bool wanted = os_getenv("SW_HTTP_AGREE_DIR", &dir) && dir.len > 0;
    std::string base = wanted ? std::string(dir.ptr) + OS_SEP_STR + std::to_string(n) : "";
    str_kill(&dir);
    if (!wanted) {
        return;
    }
    auto hex = [](const std::string &text) {
        std::string out;
        char buf[3];
        for (unsigned char ch : text) {
            snprintf(buf, sizeof buf, "%02x", ch);
            out += buf;
        }
        return out;
    };
    std::string want = std::to_string(total) + "\n";
    for (db_ref_t r : window) {
        const ref_record_t &x = served_index_test::record(r);
        want += std::string(x.folder ? "folder " : "file ") + hex(x.name) + " " +
                hex(served_index_test::folder_path(r)) + "\n";
    }
    for (const auto &[suffix, text] :
         {std::pair<const char *, const std::string &>{".json", body}, {".want", want}}) {
        FILE *f = fopen((base + suffix).c_str(), "wb");
        ASSERT_NE(f, nullptr) << base;
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
    }
}

// Every row of the execution table through the JSON form: in name order and in a column order that turns
// with the row, whole and as a page, and once more with one more flag on. Each answer must be valid JSON
// whose count, kinds, names and paths are the in-process search's, record by record.
TEST_F(HttpAgreeTest, EveryRowOfTheTableAgreesAsJson) {
    static const struct {
        const char *column;
        int ascending, sort;
    } sorts[] = {{"name", 1, DB_SORT_NAME},
                 {"name", 0, DB_SORT_NAME + 1},
                 {"path", 1, DB_SORT_PATH},
                 {"path", 0, DB_SORT_PATH + 1},
                 {"size", 1, DB_SORT_SIZE},
                 {"size", 0, DB_SORT_SIZE + 1},
                 {"date_modified", 1, DB_SORT_DATE_MODIFIED},
                 {"date_modified", 0, DB_SORT_DATE_MODIFIED + 1}};
    static const struct {
        uint32_t bit;
        const char *name;
    } flags[] = {{SEARCH_CASE, "case"},
                 {SEARCH_WHOLEWORD, "wholeword"},
                 {SEARCH_PATH, "path"},
                 {SEARCH_DIACRITICS, "diacritics"},
                 {SEARCH_REGEX, "regex"}};
    const size_t n_sorts = sizeof sorts / sizeof *sorts;
    std::vector<exec_case_t> table = exec_table();
    size_t nonempty = 0, written = 0;
    for (size_t i = 0; i < table.size(); i++) {
        const exec_case_t &c = table[i];
        const auto &turn = sorts[i % n_sorts], &other = sorts[(i * 3 + 5) % n_sorts];
        struct {
            uint32_t bits;
            const decltype(sorts[0]) &sort;
            uint32_t offset, count;
        } runs[] = {
            {c.bits, sorts[0], 0, UINT32_MAX},
            {c.bits, turn, 0, UINT32_MAX},
            {c.bits, turn, (uint32_t) (i % 11), 7},
            {c.bits | flags[i % 5].bit, other, 0, UINT32_MAX},
        };
        for (auto &r : runs) {
            std::string target = "/?json=1&path_column=1&s=" + percent_encoded(c.search) +
                                 "&sort=" + r.sort.column + "&ascending=" + std::to_string(r.sort.ascending);
            for (auto &f : flags) {
                target += std::string("&") + f.name + ((r.bits & f.bit) ? "=1" : "=0");
            }
            if (r.count != UINT32_MAX) {
                target += "&offset=" + std::to_string(r.offset) + "&count=" + std::to_string(r.count);
            }
            SCOPED_TRACE(c.search + " : " + target);
            std::string reply = get(target);
            size_t head = reply.find("\r\n\r\n");
            ASSERT_EQ(reply.rfind("HTTP/1.0 200 OK\r\n", 0), 0u) << reply.substr(0, 400);
            ASSERT_NE(reply.find("Content-Type: application/json\r\n"), std::string::npos);
            ASSERT_LT(head, reply.find("\r\n\r\n", head + 4));
            uint64_t total;
            std::vector<json_row_t> rows;
            ASSERT_TRUE(json_answer(reply.substr(head + 4), &total, &rows)) << reply.substr(0, 400);

            size_t all;
            std::vector<db_ref_t> window = answer(c.search, r.sort.sort, r.bits, r.offset, r.count, &all);
            write_agreement(written++, reply.substr(head + 4), all, window);
            ASSERT_EQ(total, all);
            ASSERT_EQ(rows.size(), window.size());
            for (size_t k = 0; k < rows.size(); k++) {
                const ref_record_t &x = record(window[k]);
                ASSERT_EQ(rows[k].type, x.folder ? "folder" : "file") << k;
                ASSERT_EQ(rows[k].name, x.name) << k;
                ASSERT_EQ(rows[k].path, folder_path(window[k])) << k;
            }
            nonempty += !rows.empty();
        }
    }
    EXPECT_GT(nonempty, table.size() * 2);
}

TEST(HttpJson, ReaderRefusesWhatIsNotTheAnswer) {
    struct Case {
        const char *body;
        bool ok;
        size_t rows;
    } cases[] = {
        {"{\"totalResults\":0,\"results\":[]}", true, 0},
        {"{\r\n\t\"totalResults\":2,\r\n\t\"results\":[{\"type\":\"file\",\"name\":"
         "\"a\\u00e9\\ud83d\\ude00\"},"
         "{\"name\":\"\\\"<&\\n\"}]\r\n}\r\n",
         true, 2},
        {"{\"totalResults\":1,\"results\":[{\"name\":\"a\"},]}", false, 0},
        {"{\"totalResults\":1,\"results\":[{\"name\":\"a\tb\"}]}", false, 0},
        {"{\"totalResults\":1,\"results\":[{\"name\":\"\\x41\"}]}", false, 0},
        {"{\"totalResults\":1,\"results\":[{\"name\":\"a\"}]} x", false, 0},
        {"{\"totalResults\":,\"results\":[]}", false, 0},
        {"{\"totalResults\":1,\"results\":[{\"name\":\"a", false, 0},
    };
    for (const Case &c : cases) {
        uint64_t total = 0;
        std::vector<json_row_t> rows;
        EXPECT_EQ(json_answer(c.body, &total, &rows), c.ok) << c.body;
        if (c.ok) {
            EXPECT_EQ(rows.size(), c.rows);
        }
    }
    uint64_t total;
    std::vector<json_row_t> rows;
    ASSERT_TRUE(json_answer("{\"totalResults\":1,\"results\":[{\"name\":\"\\u00e9\\ud83d\\ude00\\/\"}]}",
                            &total, &rows));
    EXPECT_EQ(rows[0].name, "\xC3\xA9\xF0\x9F\x98\x80/");
}

} // namespace

namespace {

TEST(HttpFragments, UserFileReplacesNamedOnes) {
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string path = std::string(tmp.ptr) + OS_SEP_STR + "sw-http-strings.ini";
    str_kill(&tmp);
    {
        FILE *f = fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        fputs("[Other]\nTE_END=wrong section\n[HTTP_SERVER_STRINGS]\nte_end=</table><!-- mine -->\n"
              "HEAD_BEGIN=<html><title>\nNOT_A_FRAGMENT=x\n",
              f);
        fclose(f);
    }
    char *fragments[HTTP_FRAGMENT_COUNT];
    http_fragments_load(fragments, path.c_str());
    EXPECT_STREQ(fragments[HTTP_F_TE_END], "</table><!-- mine -->");
    EXPECT_STREQ(fragments[HTTP_F_HEAD_BEGIN], "<html><title>");
    EXPECT_STREQ(fragments[HTTP_F_THS_LINE], "<tr><td colspan=\"");
    http_fragments_free(fragments);
    remove(path.c_str());

    // No file, or one that can't be read: the defaults, each named in the file's order.
    http_fragments_load(fragments, "/no/such/file.ini");
    EXPECT_EQ(std::string(fragments[HTTP_F_HEAD_BEGIN]).rfind("<!DOCTYPE HTML PUBLIC", 0), 0u);
    http_fragments_free(fragments);
    EXPECT_STREQ(http_fragment_name(0), "HEAD_BEGIN");
    EXPECT_STREQ(http_fragment_name(HTTP_F_QUERY_NUMRESULTS), "QUERY_NUMRESULTS");
    EXPECT_STREQ(http_fragment_name(HTTP_FRAGMENT_COUNT - 1), "TE_END");
    EXPECT_EQ(HTTP_FRAGMENT_COUNT, 68);
}

} // namespace

namespace {

TEST(HttpSettings, ExtraHeaderLinesEndInCrLf) {
    struct Case {
        const char *text, *header;
    } cases[] = {
        {"", ""},
        {"X-A: 1", "X-A: 1\r\n"},
        {"X-A: 1\nX-B: 2", "X-A: 1\r\nX-B: 2\r\n"},
        {"X-A: 1\r\nX-B: 2\r\n", "X-A: 1\r\nX-B: 2\r\n"},
    };
    char *saved = http_server_header;
    for (const Case &c : cases) {
        std::string text = c.text;
        http_server_header = text.data();
        http_settings_t s;
        http_settings_from_config(&s);
        EXPECT_STREQ(s.header, c.header) << c.text;
        http_settings_kill(&s);
    }
    http_server_header = saved;
}

} // namespace
