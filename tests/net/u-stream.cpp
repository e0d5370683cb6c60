// Line assembly, the log trim and the bindings text, without sockets: a connection is fed bytes as if
// received and its lines are collected.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "config/config.h"
#include "mem/mem.h"
#include "net/net.h"
#include "os/os.h"
#include "os/os_test_util.h"

namespace {

std::vector<std::string> lines_seen;
uint32_t stop_after = 0; // the handler quits the connection at this line (1-based); 0: never

void line_proc(net_conn_t *c, char *line, uint32_t len) {
    // The line ends in a NUL where its LF stood, and its length says where.
    EXPECT_EQ(line[len], 0);
    lines_seen.emplace_back(line, len);
    if (stop_after && lines_seen.size() == stop_after) {
        c->quit = true;
    }
}
void open_proc(net_conn_t *) {}
void close_proc(net_conn_t *) {}

uint8_t logging_off = 0;
char empty_name[1] = "";
char *log_name = empty_name;
int32_t max_size = 0, delta_size = 0;

net_proto_t make_proto(uint32_t max_line) {
    net_proto_t p = {};
    p.name = "TEST";
    p.window_class = "SABLEWATCH_TEST_SERVER";
    p.log_base = "Test_Log";
    p.max_line = max_line;
    p.max_connections = 4;
    p.send_queue_cap = 1 << 20;
    p.too_many_text = p.line_too_long_text = p.idle_text = "bye\r\n";
    p.logging_enabled = &logging_off;
    p.log_file_name = &log_name;
    p.log_max_size = &max_size;
    p.log_delta_size = &delta_size;
    p.open = open_proc;
    p.line = line_proc;
    p.close = close_proc;
    return p;
}

struct fed_conn {
    net_proto_t proto;
    net_server_t server = {};
    net_conn_t conn = {};
    explicit fed_conn(uint32_t max_line = 1 << 20) : proto(make_proto(max_line)) {
        server.proto = &proto;
        conn.server = &server;
        conn.socket = OS_SOCKET_NONE;
        lines_seen.clear();
        stop_after = 0;
    }
    ~fed_conn() { net_conn_free_buffers(&conn); }
    bool feed(const std::string &s) { return net_conn_feed(&conn, s.data(), (uint32_t) s.size()); }
};

TEST(NetLines, EverySplitOfAStreamGivesTheSameLines) {
    // CR stays for the protocol to cut; an empty line is a line; the partial tail waits.
    const std::string stream = "USER a\r\n\nPASS b\nNOOP\r\nQUI";
    const std::vector<std::string> want = {"USER a\r", "", "PASS b", "NOOP\r"};
    for (size_t cut = 0; cut <= stream.size(); cut++) {
        for (size_t cut2 = cut; cut2 <= stream.size(); cut2 += 3) {
            fed_conn f;
            ASSERT_TRUE(f.feed(stream.substr(0, cut)));
            ASSERT_TRUE(f.feed(stream.substr(cut, cut2 - cut)));
            ASSERT_TRUE(f.feed(stream.substr(cut2)));
            EXPECT_EQ(lines_seen, want) << "cut at " << cut << " and " << cut2;
            ASSERT_TRUE(f.feed("T\n"));
            EXPECT_EQ(lines_seen.back(), "QUIT");
        }
    }
}

TEST(NetLines, LongLinesAcrossChunksArriveWhole) {
    struct {
        size_t len;
        size_t piece;
    } cases[] = {
        {NET_RECV_CHUNK_BYTES - 1, 4096}, // the LF is the chunk's last byte
        {NET_RECV_CHUNK_BYTES, 4096},     // the LF opens the second chunk
        {NET_RECV_CHUNK_BYTES + 1, 1000},
        {3 * NET_RECV_CHUNK_BYTES + 17, 65536}, // four chunks
        {200000, 7},
    };
    for (auto &k : cases) {
        fed_conn f;
        // A short line first, so that the long one starts inside a chunk rather than at its start.
        std::string stream = "A\n";
        std::string big(k.len, 'x');
        for (size_t i = 0; i < big.size(); i += 997) {
            big[i] = (char) ('a' + i % 26);
        }
        stream += big + "\nB\nC";
        for (size_t at = 0; at < stream.size(); at += k.piece) {
            ASSERT_TRUE(f.feed(stream.substr(at, k.piece)));
        }
        ASSERT_EQ(lines_seen.size(), 3u) << k.len;
        EXPECT_EQ(lines_seen[0], "A");
        EXPECT_TRUE(lines_seen[1] == big) << k.len;
        EXPECT_EQ(lines_seen[2], "B");
        // Only the partial line's chunk is left once the long line is handed out.
        EXPECT_EQ(f.conn.recv_count, 1u);
        EXPECT_EQ(f.conn.line_bytes, 1u);
    }
}

TEST(NetLines, QuitInsideAReadLeavesTheRestUnhandled) {
    fed_conn f;
    stop_after = 2;
    EXPECT_FALSE(f.feed("ONE\nQUIT\nTHREE\n"));
    EXPECT_EQ(lines_seen, (std::vector<std::string>{"ONE", "QUIT"}));
}

TEST(NetLines, OverlongLineEndsTheConnectionWithItsReply) {
    fed_conn f(100);
    EXPECT_TRUE(f.feed(std::string(100, 'y') + "\n"));
    EXPECT_EQ(lines_seen.size(), 1u);
    // Without any line end: the limit holds for a line still arriving.
    EXPECT_FALSE(f.feed(std::string(60, 'z')) && f.feed(std::string(60, 'z')));
    EXPECT_TRUE(f.conn.quit);
    ASSERT_NE(f.conn.send_head, nullptr);
    EXPECT_EQ(std::string(f.conn.send_head->bytes, f.conn.send_head->len), "bye\r\n");
    EXPECT_EQ(lines_seen.size(), 1u);
}

// ---- log trim --------------------------------------------------------------------------------------------

TEST(NetLog, TrimDropsWholeLinesAtTheHead) {
    os_test_folder dir;
    std::string path = dir.path + "/log.txt";
    dir.files[dir.file_count++] = path;
    // Ten lines of ten bytes each ("line N..\r\n").
    std::string ten;
    for (int i = 0; i < 10; i++) {
        ten += "line " + std::to_string(i) + "..\r\n";
    }
    ASSERT_EQ(ten.size(), 100u);
    struct {
        int64_t max, delta;
        bool trims;
        size_t left; // bytes left
    } cases[] = {
        {100, 30, true, 70},    // exactly at max: trimmed to max - delta
        {100, 35, true, 60},    // whole lines only: the cut falls on the next line end
        {101, 30, false, 100},  // below max
        {100, 100, true, 0},    // delta equal to max: everything goes
        {100, 101, false, 100}, // delta above max disables trimming
        {0, 10, false, 100},    {100, 0, false, 100},
    };
    for (auto &k : cases) {
        os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
        ASSERT_NE(f, OS_FILE_INVALID);
        ASSERT_EQ(os_file_write(f, ten.data(), ten.size()), 100);
        os_file_close(f);
        EXPECT_EQ(net_log_trim(path.c_str(), k.max, k.delta), k.trims) << k.max << " " << k.delta;
        os_file_info_t info;
        ASSERT_TRUE(os_get_file_info(path.c_str(), &info));
        EXPECT_EQ(info.size, k.left) << k.max << " " << k.delta;
        if (k.left > 0 && k.left < 100) {
            f = os_file_open(path.c_str(), OS_OPEN_READ);
            char buf[100];
            int64_t n = os_file_read(f, buf, sizeof(buf));
            os_file_close(f);
            EXPECT_EQ(std::string(buf, (size_t) n), ten.substr(100 - k.left));
        }
        EXPECT_FALSE(os_file_exists((path + ".tmp").c_str()));
    }
}

// ---- bindings --------------------------------------------------------------------------------------------

void collect(void *context, const char *address) {
    ((std::vector<std::string> *) context)->push_back(address);
}

TEST(NetBindings, EmptyEntriesAreSkipped) {
    struct {
        const char *text;
        std::vector<std::string> want;
    } cases[] = {
        {"", {}},
        {";;", {}},
        {"127.0.0.1;;::1", {"127.0.0.1", "::1"}},
        {";10.0.0.1;", {"10.0.0.1"}},
        {"host.example", {"host.example"}},
    };
    for (auto &k : cases) {
        std::vector<std::string> got;
        EXPECT_EQ(net_bindings_each(k.text, collect, &got), (int) k.want.size());
        EXPECT_EQ(got, k.want) << k.text;
    }
}

} // namespace
