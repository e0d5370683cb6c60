// Clients on the loopback address for tests of the servers: non-blocking sockets in the test's own
// thread, with the main loop pumped while the test waits, so that the server runs as it does in the
// program and the test needs no thread of its own.
//
// Invariants: the main loop exists (os_main_loop_create) before any call here, and every call runs on
// the thread that made it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "net/net.h"
#include "os/os.h"
#include "os/os_main.h"

// Pumps the loop until done() or ten seconds pass; false on the time-out.
inline bool loop_pump_until(const std::function<bool()> &done) {
    uint32_t start = os_tick_ms();
    while (!done()) {
        if (os_tick_ms() - start > 10000) {
            return false;
        }
        if (os_main_pump() == 0) {
            os_sleep_ms(1);
        }
    }
    return true;
}

// The port of the server's first listener.
inline uint16_t loop_port_of(net_server_t *s) {
    os_net_addr_t a;
    EXPECT_EQ(os_net_local_address(s->listen_sockets->socket, &a), 0);
    return os_net_addr_port(&a);
}

// A socket connecting to 127.0.0.1:port; the connection completes while the loop is pumped.
inline os_socket_t loop_connect(uint16_t port) {
    os_net_addr_t a;
    EXPECT_TRUE(os_net_addr_parse("127.0.0.1", OS_NET_INET, port, &a));
    int error;
    os_socket_t s = os_net_socket(OS_NET_INET, &error);
    EXPECT_NE(s, OS_SOCKET_NONE);
    int r = os_net_connect(s, &a, &error);
    EXPECT_NE(r, OS_NET_ERROR) << error;
    return s;
}

// Appends what can be read now; false at the end of the stream or on an error.
inline bool loop_drain(os_socket_t s, std::string *into) {
    char buf[65536];
    for (;;) {
        int error;
        int64_t r = os_net_recv(s, buf, sizeof(buf), false, &error);
        if (r == OS_NET_WOULD_BLOCK) {
            return true;
        }
        if (r <= 0) {
            return false;
        }
        into->append(buf, (size_t) r);
    }
}

// Sends the whole text; a loopback socket takes far more than a test's request at once.
inline void loop_send_all(os_socket_t s, const std::string &text) {
    int error;
    EXPECT_EQ(os_net_send(s, text.data(), (uint32_t) text.size(), &error), (int64_t) text.size());
}
