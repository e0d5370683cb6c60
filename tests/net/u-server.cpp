// A server on the loopback address with a small test protocol, driven by the main loop's pump, and
// clients on non-blocking sockets in the same thread.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "debug/debug.h"
#include "mem/mem.h"
#include "net/loopback.h"
#include "net/net.h"
#include "os/os.h"
#include "os/os_main.h"

namespace {

// The protocol: on open it sends "hi\r\n"; the line "FLOOD n" makes it produce n bytes of numbered
// lines, pausing whenever the send queue is full; other lines are echoed back.
struct flood_t {
    uint64_t left;
    uint64_t serial;
};
int writable_calls = 0;
int closes = 0;
int boxes = 0;
uint64_t peak_queued = 0;

void produce(net_conn_t *c) {
    flood_t *f = (flood_t *) c->session;
    while (f->left > 0 && net_send_room(c)) {
        char line[64];
        int n = text_format_args(line, "%016I64u\r\n", f->serial++);
        uint32_t take = f->left < (uint64_t) n ? (uint32_t) f->left : (uint32_t) n;
        net_send(c, line, take);
        f->left -= take;
        if (c->queued > peak_queued) {
            peak_queued = c->queued;
        }
    }
}

void t_open(net_conn_t *c) {
    c->session = mem_alloc(sizeof(flood_t));
    memset(c->session, 0, sizeof(flood_t));
    net_send_text(c, "hi\r\n");
}
void t_line(net_conn_t *c, char *line, uint32_t len) {
    if (strncmp(line, "FLOOD ", 6) == 0) {
        ((flood_t *) c->session)->left = strtoull(line + 6, nullptr, 10);
        produce(c);
        return;
    }
    if (strcmp(line, "QUIT") == 0) {
        net_send_text(c, "bye\r\n");
        net_conn_quit(c);
        return;
    }
    net_send(c, line, len);
    net_send_text(c, "\n");
}
void t_writable(net_conn_t *c) {
    writable_calls++;
    produce(c);
}
void t_close(net_conn_t *c) {
    closes++;
    mem_free(c->session);
}
void t_box(void *, const char *) {
    boxes++;
}

uint8_t logging_off = 0;
char empty_name[1] = "";
char *log_name = empty_name;
int32_t max_size = 0, delta_size = 0;

net_proto_t make_proto() {
    net_proto_t p = {};
    p.name = "TEST";
    p.window_class = "SABLEWATCH_TEST_SERVER";
    p.log_base = "Test_Log";
    p.max_line = 1000;
    p.max_connections = 3;
    p.send_queue_cap = 64 * 1024;
    p.idle_ms = 0;
    p.too_many_text = "busy\r\n";
    p.line_too_long_text = "long\r\n";
    p.idle_text = "idle\r\n";
    p.logging_enabled = &logging_off;
    p.log_file_name = &log_name;
    p.log_max_size = &max_size;
    p.log_delta_size = &delta_size;
    p.open = t_open;
    p.line = t_line;
    p.writable = t_writable;
    p.close = t_close;
    return p;
}

struct loop_fixture : ::testing::Test {
    net_proto_t proto = make_proto();
    void SetUp() override {
        debug_init();
        static const os_main_procs_t procs = {nullptr, nullptr, nullptr};
        ASSERT_TRUE(os_main_loop_create("SABLEWATCH_NET_TEST", nullptr, &procs));
        writable_calls = closes = boxes = 0;
        peak_queued = 0;
        net_show_error = t_box;
    }
    void TearDown() override {
        net_show_error = os_net_show_error;
        os_main_loop_destroy();
    }
};

TEST_F(loop_fixture, BindingsGiveOneListenerEachAndAFailedOneOnlyLogs) {
    net_server_t *s = net_server_start(&proto, nullptr, 0, "127.0.0.1;;::1");
    ASSERT_NE(s, nullptr);
    int n = 0;
    for (net_listen_t *l = s->listen_sockets; l; l = l->next) {
        n++;
    }
    EXPECT_EQ(n, 2);
    net_server_stop(s);
    // The second binding can't be bound: the first stays up, and no box is shown.
    s = net_server_start(&proto, nullptr, 0, "127.0.0.1;203.0.113.1");
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(boxes, 0);
    EXPECT_NE(s->listen_sockets, nullptr);
    net_server_stop(s);
    // Nothing listens: the box says so.
    s = net_server_start(&proto, nullptr, 0, "203.0.113.1");
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(boxes, 1);
}

TEST_F(loop_fixture, LinesEchoAndQuitFlushesBeforeClosing) {
    net_server_t *s = net_server_start(&proto, nullptr, 0, "127.0.0.1");
    ASSERT_NE(s, nullptr);
    os_socket_t c = loop_connect(loop_port_of(s));
    std::string got;
    ASSERT_TRUE(loop_pump_until([&] { return loop_drain(c, &got) && got == "hi\r\n"; }));
    loop_send_all(c, "one\r\ntwo\nQU");
    ASSERT_TRUE(loop_pump_until([&] { return loop_drain(c, &got) && got == "hi\r\none\r\ntwo\n"; })) << got;
    loop_send_all(c, "IT\n");
    bool open = true;
    ASSERT_TRUE(loop_pump_until([&] { return !(open = loop_drain(c, &got)); }));
    EXPECT_EQ(got, "hi\r\none\r\ntwo\nbye\r\n");
    ASSERT_TRUE(loop_pump_until([&] { return closes == 1; }));
    EXPECT_EQ(s->connection_count, 0u);
    os_net_close(c);
    net_server_stop(s);
}

TEST_F(loop_fixture, AClientThatStopsReadingHoldsOnlyItsCapOfQueue) {
    net_server_t *s = net_server_start(&proto, nullptr, 0, "127.0.0.1");
    ASSERT_NE(s, nullptr);
    uint16_t port = loop_port_of(s);
    os_socket_t slow = loop_connect(port);
    os_socket_t other = loop_connect(port);
    ASSERT_TRUE(loop_pump_until([&] { return s->connection_count == 2; }));
    const uint64_t total = 4u << 20;
    loop_send_all(slow, "FLOOD " + std::to_string(total) + "\n");
    net_conn_t *c = s->connections_head;
    ASSERT_TRUE(loop_pump_until([&] { return c->reading_paused; }));
    // The slow client reads nothing: the queue stays at its cap while the other is served.
    // (How much the socket itself takes before that differs by platform, so only the cap is checked.)
    for (int i = 0; i < 200; i++) {
        os_main_pump();
    }
    EXPECT_LT(c->queued, (uint64_t) proto.send_queue_cap + 64);
    std::string got;
    loop_send_all(other, "ping\n");
    ASSERT_TRUE(loop_pump_until([&] { return loop_drain(other, &got) && got == "hi\r\nping\n"; }));
    // Now it reads everything: all bytes arrive, in order, and the producer was resumed.
    std::string flood;
    ASSERT_TRUE(loop_pump_until([&] { return loop_drain(slow, &flood) && flood.size() == total + 4; }));
    EXPECT_GT(writable_calls, 0);
    EXPECT_LT(peak_queued, (uint64_t) proto.send_queue_cap + 64);
    EXPECT_EQ(flood.substr(4, 18), "0000000000000000\r\n");
    EXPECT_EQ(flood.substr(4 + 18 * 1000, 18), "0000000000001000\r\n");
    EXPECT_FALSE(c->reading_paused);
    os_net_close(slow);
    os_net_close(other);
    ASSERT_TRUE(loop_pump_until([&] { return s->connection_count == 0; }));
    net_server_stop(s);
}

TEST_F(loop_fixture, ConnectionsOverTheLimitAreRefusedWithTheText) {
    net_server_t *s = net_server_start(&proto, nullptr, 0, "127.0.0.1");
    ASSERT_NE(s, nullptr);
    uint16_t port = loop_port_of(s);
    os_socket_t c[4];
    for (int i = 0; i < 3; i++) {
        c[i] = loop_connect(port);
    }
    ASSERT_TRUE(loop_pump_until([&] { return s->connection_count == 3; }));
    c[3] = loop_connect(port);
    std::string got;
    ASSERT_TRUE(loop_pump_until([&] { return !loop_drain(c[3], &got); }));
    EXPECT_EQ(got, "busy\r\n");
    EXPECT_EQ(s->connection_count, 3u);
    for (os_socket_t x : c) {
        os_net_close(x);
    }
    ASSERT_TRUE(loop_pump_until([&] { return s->connection_count == 0; }));
    EXPECT_EQ(closes, 3);
    net_server_stop(s);
}

TEST_F(loop_fixture, AnIdleConnectionIsEndedWithItsReplyAndABusyOneIsNot) {
    proto.idle_ms = 300;
    net_server_t *s = net_server_start(&proto, nullptr, 0, "127.0.0.1");
    ASSERT_NE(s, nullptr);
    uint16_t port = loop_port_of(s);
    os_socket_t quiet = loop_connect(port);
    os_socket_t busy = loop_connect(port);
    std::string got, echoed;
    // The busy client keeps talking well past the idle time; the quiet one says nothing.
    uint32_t start = os_tick_ms();
    bool quiet_open = true;
    ASSERT_TRUE(loop_pump_until([&] {
        if (os_tick_ms() - start < 1500 && (os_tick_ms() - start) % 50 == 0) {
            loop_send_all(busy, "x\n");
            os_sleep_ms(1);
        }
        if (quiet_open) {
            quiet_open = loop_drain(quiet, &got);
        }
        loop_drain(busy, &echoed);
        return !quiet_open && os_tick_ms() - start >= 1500;
    }));
    EXPECT_EQ(got, "hi\r\nidle\r\n");
    EXPECT_EQ(s->connection_count, 1u);
    loop_send_all(busy, "still\n");
    ASSERT_TRUE(loop_pump_until(
        [&] { return loop_drain(busy, &echoed) && echoed.find("still\n") != std::string::npos; }));
    os_net_close(quiet);
    os_net_close(busy);
    ASSERT_TRUE(loop_pump_until([&] { return s->connection_count == 0; }));
    net_server_stop(s);
}

TEST_F(loop_fixture, TimersFireOnceOrPeriodically) {
    int once = 0, every = 0;
    os_main_timer_t *a = os_main_timer_start(
        5, false, [](void *p) { ++*(int *) p; }, &once);
    os_main_timer_t *b = os_main_timer_start(
        5, true, [](void *p) { ++*(int *) p; }, &every);
    ASSERT_TRUE(loop_pump_until([&] { return every >= 3; }));
    EXPECT_EQ(once, 1);
    os_main_timer_stop(a);
    os_main_timer_stop(b);
    int seen = every;
    for (int i = 0; i < 20; i++) {
        os_main_pump();
        os_sleep_ms(2);
    }
    EXPECT_EQ(every, seen);
}

} // namespace
