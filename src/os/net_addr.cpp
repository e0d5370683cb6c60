// Socket addresses and name look-up, the same on both systems: both speak the BSD calls for them
// (getaddrinfo, inet_pton, inet_ntop) over the same sockaddr layouts. Only the headers differ.
#include "os/os_net.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#endif

#include <string.h>

#include "mem/mem.h"

int os_net_addr_family(const os_net_addr_t *a) {
    int f = ((const sockaddr *) a->data)->sa_family;
    return f == AF_INET ? OS_NET_INET : f == AF_INET6 ? OS_NET_INET6 : 0;
}

int os_net_resolve(const char *host, const char *port, bool passive, os_net_resolved_t *out, int max,
                   int *skipped, int *error) {
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_flags = passive ? AI_PASSIVE : 0;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo *list = nullptr;
    int r = getaddrinfo(host, port, &hints, &list);
    *skipped = 0;
    if (r != 0) {
#ifdef EAI_SYSTEM
        // The C library's "see errno": the system's own error says more.
        *error = r == EAI_SYSTEM ? errno : r;
#else
        *error = r;
#endif
        return -1;
    }
    int n = 0;
    for (addrinfo *ai = list; ai; ai = ai->ai_next) {
        if ((ai->ai_family != AF_INET && ai->ai_family != AF_INET6) ||
            ai->ai_addrlen > sizeof(out->addr.data)) {
            (*skipped)++;
            continue;
        }
        if (n == max) {
            break;
        }
        os_net_resolved_t *o = &out[n++];
        o->family = ai->ai_family == AF_INET ? OS_NET_INET : OS_NET_INET6;
        o->socktype = ai->ai_socktype;
        o->protocol = ai->ai_protocol;
        memset(&o->addr, 0, sizeof(o->addr));
        o->addr.len = (uint32_t) ai->ai_addrlen;
        memcpy(o->addr.data, ai->ai_addr, ai->ai_addrlen);
    }
    freeaddrinfo(list);
    *error = 0;
    return n;
}

// ---- addresses -----------------------------------------------------------------------------------------

void os_net_addr_text(const os_net_addr_t *a, str_t *out) {
    char buf[INET6_ADDRSTRLEN + 1] = "";
    const sockaddr *sa = (const sockaddr *) a->data;
    if (sa->sa_family == AF_INET) {
        inet_ntop(AF_INET, (void *) &((const sockaddr_in *) sa)->sin_addr, buf, sizeof(buf));
    } else if (sa->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, (void *) &((const sockaddr_in6 *) sa)->sin6_addr, buf, sizeof(buf));
    }
    str_set(out, buf);
}

uint16_t os_net_addr_port(const os_net_addr_t *a) {
    const sockaddr *sa = (const sockaddr *) a->data;
    if (sa->sa_family == AF_INET) {
        return ntohs(((const sockaddr_in *) sa)->sin_port);
    }
    if (sa->sa_family == AF_INET6) {
        return ntohs(((const sockaddr_in6 *) sa)->sin6_port);
    }
    return 0;
}

void os_net_addr_set_port(os_net_addr_t *a, uint16_t port) {
    sockaddr *sa = (sockaddr *) a->data;
    if (sa->sa_family == AF_INET) {
        ((sockaddr_in *) sa)->sin_port = htons(port);
    } else if (sa->sa_family == AF_INET6) {
        ((sockaddr_in6 *) sa)->sin6_port = htons(port);
    }
}

bool os_net_addr_ipv4(const os_net_addr_t *a, uint8_t out[4]) {
    const sockaddr *sa = (const sockaddr *) a->data;
    if (sa->sa_family == AF_INET) {
        memcpy(out, &((const sockaddr_in *) sa)->sin_addr, 4);
        return true;
    }
    if (sa->sa_family == AF_INET6) {
        const uint8_t *b = ((const sockaddr_in6 *) sa)->sin6_addr.s6_addr;
        static const uint8_t mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
        if (memcmp(b, mapped, 12) == 0) {
            memcpy(out, b + 12, 4);
            return true;
        }
    }
    return false;
}

bool os_net_addr_same_host(const os_net_addr_t *a, const os_net_addr_t *b) {
    uint8_t x[4], y[4];
    bool a4 = os_net_addr_ipv4(a, x), b4 = os_net_addr_ipv4(b, y);
    if (a4 || b4) {
        return a4 && b4 && memcmp(x, y, 4) == 0;
    }
    const sockaddr *sa = (const sockaddr *) a->data, *sb = (const sockaddr *) b->data;
    if (sa->sa_family != AF_INET6 || sb->sa_family != AF_INET6) {
        return false;
    }
    return memcmp(&((const sockaddr_in6 *) sa)->sin6_addr, &((const sockaddr_in6 *) sb)->sin6_addr, 16) == 0;
}

bool os_net_addr_parse(const char *text, int family, uint16_t port, os_net_addr_t *out) {
    memset(out, 0, sizeof(*out));
    if (family != OS_NET_INET6) {
        sockaddr_in *sin = (sockaddr_in *) out->data;
        if (inet_pton(AF_INET, text, &sin->sin_addr) == 1) {
            sin->sin_family = AF_INET;
            sin->sin_port = htons(port);
            out->len = sizeof(sockaddr_in);
            return true;
        }
    }
    if (family != OS_NET_INET) {
        sockaddr_in6 *sin6 = (sockaddr_in6 *) out->data;
        if (inet_pton(AF_INET6, text, &sin6->sin6_addr) == 1) {
            sin6->sin6_family = AF_INET6;
            sin6->sin6_port = htons(port);
            out->len = sizeof(sockaddr_in6);
            return true;
        }
    }
    return false;
}
