// STP load benchmark: the index of the Debian corpus served by the STP server in this process, and 64
// clients on their own threads, each running SABLEWATCH searches over the loopback for 30 seconds: searches
// per second, median and 99th percentile latency, and the process's peak memory while it served. The peer
// in the same run: plocate answering the same searches, one process per search, from as many concurrent
// runners. Never fails on a time.
//
// Usage: bench_stp_load [--corpus list.swl] [--paths list] [--clients n] [--seconds s] [--page n] [--smoke]
//                       [--no-peer] [--peer-db plocate.db]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench.h"
#include "config/config.h"
#include "db/db.h"
#include "db_create/db_create.h"
#include "main/main.h"
#include "net/net.h"
#include "stp/stp.h"

namespace {

struct options_t {
    std::string corpus, paths, peer_db;
    int clients = 64;
    double seconds = 30;
    int page = 100;
    bool smoke = false;
    bool peer = true;
};

// Words a user of a package tree would look for: common and rare, short and long.
const char *const words[] = {"libc",
                             "python3",
                             "copyright",
                             "README",
                             ".so",
                             "zlib",
                             "gnome",
                             "icons",
                             "x86_64",
                             "locale",
                             "perl",
                             "doc",
                             "changelog.Debian.gz",
                             "systemd",
                             "firefox",
                             "kernel",
                             "fonts",
                             "tz",
                             "bash-completion",
                             "ssl",
                             "qt5",
                             "emacs",
                             "postgres",
                             "latex",
                             "man1"};
const int word_count = (int) (sizeof(words) / sizeof(words[0]));

struct figures_t {
    int searches = 0;
    double per_second = 0, median = 0, p99 = 0;
    int failures = 0;
};

figures_t summarise(std::vector<double> v, double seconds, int failures) {
    figures_t f;
    f.failures = failures;
    f.searches = (int) v.size();
    if (v.empty())
        return f;
    std::sort(v.begin(), v.end());
    f.per_second = v.size() / seconds;
    f.median = v[v.size() / 2];
    f.p99 = v[std::min(v.size() - 1, v.size() * 99 / 100)];
    return f;
}

double now_ms() {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A blocking client connection that reads until a final reply line it waits for.
struct client_t {
    int fd = -1;
    std::string buf;

    bool open(uint16_t port) {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        return connect(fd, (sockaddr *) &a, sizeof(a)) == 0 && until("220 ") && say("USER bench\r\n") &&
               until("230 ") && say("SABLEWATCH count " + std::to_string(page) + "\r\n") &&
               until("200 Count");
    }
    int page = 100;
    bool say(const std::string &s) {
        return send(fd, s.data(), s.size(), MSG_NOSIGNAL) == (ssize_t) s.size();
    }
    // Reads until a line that starts with prefix has arrived whole; drops what came before it.
    bool until(const char *prefix) {
        size_t at = 0;
        for (;;) {
            for (;;) {
                size_t end = buf.find("\r\n", at);
                if (end == std::string::npos)
                    break;
                if (buf.compare(at, strlen(prefix), prefix) == 0) {
                    buf.erase(0, end + 2);
                    return true;
                }
                at = end + 2;
            }
            char chunk[65536];
            ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
            if (n <= 0)
                return false;
            buf.append(chunk, (size_t) n);
        }
    }
    void close_it() {
        if (fd >= 0)
            close(fd);
    }
};

std::atomic<int> clients_left;

void quit_proc(void *) {
    main_quit(0);
}

// One client: searches in turn, each with the query command in the same write, timed to "200 End.".
void client_proc(uint16_t port, int index, double until_ms, int page, std::vector<double> *times,
                 int *failures) {
    client_t c;
    c.page = page;
    if (!c.open(port)) {
        (*failures)++;
    } else {
        for (int k = 0; now_ms() < until_ms; k++) {
            std::string w = words[(index + k) % word_count];
            double t0 = now_ms();
            if (!c.say("SABLEWATCH search " + w + "\r\nSABLEWATCH query\r\n") || !c.until("200 End.")) {
                (*failures)++;
                break;
            }
            times->push_back(now_ms() - t0);
        }
        c.say("QUIT\r\n");
        c.until("221 ");
    }
    c.close_it();
    if (--clients_left == 0)
        event_post(quit_proc, nullptr);
}

// The same searches as plocate processes, one per search, from as many runners for the same time.
figures_t peer_run(const std::string &db_path, int runners, double seconds) {
    std::vector<std::vector<double>> times((size_t) runners);
    std::atomic<int> failures{0};
    double until_ms = now_ms() + seconds * 1000;
    std::vector<std::thread> threads;
    for (int i = 0; i < runners; i++) {
        threads.emplace_back([&, i] {
            for (int k = 0; now_ms() < until_ms; k++) {
                std::string cmd = "plocate -c -d '" + db_path + "' '" + words[(i + k) % word_count] + "'";
                double t0 = now_ms();
                FILE *p = popen(cmd.c_str(), "r");
                int count;
                if (!p || fscanf(p, "%d", &count) != 1)
                    failures++;
                if (p)
                    pclose(p);
                times[(size_t) i].push_back(now_ms() - t0);
            }
        });
    }
    for (auto &t : threads)
        t.join();
    std::vector<double> all;
    for (auto &v : times)
        all.insert(all.end(), v.begin(), v.end());
    return summarise(all, seconds, failures);
}

// A generated list of 20,000 paths for a smoke run, with the same words in it.
void smoke_lists(std::string *swl, std::string *paths) {
    *swl = "/tmp/bench_stp_load_smoke.swl", *paths = "/tmp/bench_stp_load_smoke.paths";
    bench_write_lists(*swl, *paths, 20000, [](int i, char *line, size_t size) {
        snprintf(line, size, "/usr/%s/%s%d/%s%d", words[i % word_count], words[(i / 7) % word_count], i % 97,
                 words[(i / 3) % word_count], i);
    });
}

} // namespace

int main(int argc, char **argv) {
    options_t o;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--corpus" && i + 1 < argc)
            o.corpus = argv[++i];
        else if (a == "--paths" && i + 1 < argc)
            o.paths = argv[++i];
        else if (a == "--peer-db" && i + 1 < argc)
            o.peer_db = argv[++i];
        else if (a == "--clients" && i + 1 < argc)
            o.clients = atoi(argv[++i]);
        else if (a == "--seconds" && i + 1 < argc)
            o.seconds = atof(argv[++i]);
        else if (a == "--page" && i + 1 < argc)
            o.page = atoi(argv[++i]);
        else if (a == "--smoke")
            o.smoke = true;
        else if (a == "--no-peer")
            o.peer = false;
        else {
            fprintf(stderr,
                    "usage: bench_stp_load [--corpus list.swl] [--paths list] [--clients n] [--seconds s] "
                    "[--page n] [--smoke] [--no-peer]\n");
            return 1;
        }
    }
    bench_start_up("");
    if (o.smoke) {
        smoke_lists(&o.corpus, &o.paths);
        o.clients = 4;
        o.seconds = 1;
    }
    if (o.corpus.empty())
        o.corpus = bench_folder() + "/data/debian12.swl";
    if (o.paths.empty())
        o.paths = bench_folder() + "/data/debian12.paths";

    // The server's settings as a settings file gives them: the loopback address, any free port.
    bench_configure_list(o.corpus,
                         "stp_server_enabled=1\nstp_server_port=0\nstp_server_bindings=127.0.0.1\n");
    db = db_create(nullptr);
    double t0 = now_ms();
    db_rebuild(db, true);
    db_wait(db, "bench");
    event_dispatch();
    printf("index from %s: %u folders, %u files, built in %.1f s\n", o.corpus.c_str(), db->folders.count,
           db->files.count, (now_ms() - t0) / 1000);
    if (!main_loop_init_private("bench_stp_load")) {
        fprintf(stderr, "no main loop\n");
        return 1;
    }
    if (!stp_server_apply_settings(nullptr)) {
        fprintf(stderr, "the server did not start\n");
        return 1;
    }
    os_net_addr_t local;
    os_net_local_address(stp_server->listen_sockets->socket, &local);
    uint16_t port = os_net_addr_port(&local);
    double rss_before = bench_status_mib("VmRSS");
    bench_reset_peak();

    std::vector<std::vector<double>> times((size_t) o.clients);
    std::vector<int> failures((size_t) o.clients, 0);
    std::vector<std::thread> threads;
    clients_left = o.clients;
    double until_ms = now_ms() + o.seconds * 1000;
    for (int i = 0; i < o.clients; i++)
        threads.emplace_back(client_proc, port, i, until_ms, o.page, &times[(size_t) i],
                             &failures[(size_t) i]);
    double started = now_ms();
    main_loop_run();
    double elapsed = (now_ms() - started) / 1000;
    for (auto &t : threads)
        t.join();
    double peak = bench_status_mib("VmHWM");
    std::vector<double> all;
    int failed = 0;
    for (int i = 0; i < o.clients; i++) {
        all.insert(all.end(), times[(size_t) i].begin(), times[(size_t) i].end());
        failed += failures[(size_t) i];
    }
    figures_t ours = summarise(all, elapsed, failed);
    _stp_server_stop();
    main_loop_kill();

    printf("\n%d clients for %.0f s, SABLEWATCH search + query, pages of %d results, %d words in turn\n",
           o.clients, o.seconds, o.page, word_count);
    printf("%-34s %10s %12s %10s %10s %9s\n", "", "searches", "searches/s", "median ms", "p99 ms",
           "failures");
    printf("%-34s %10d %12.1f %10.2f %10.2f %9d\n", "STP server (this process)", ours.searches,
           ours.per_second, ours.median, ours.p99, ours.failures);
    std::string peer_db = o.peer_db;
    if (o.peer && (!peer_db.empty() || bench_peer_database(o.paths, &peer_db))) {
        figures_t p = peer_run(peer_db, o.clients, o.seconds);
        printf("%-34s %10d %12.1f %10.2f %10.2f %9d\n", "plocate -c, one process per search", p.searches,
               p.per_second, p.median, p.p99, p.failures);
        if (p.per_second > 0)
            printf("ratio searches/s ours / plocate: %.2f\n", ours.per_second / p.per_second);
    } else if (o.peer) {
        printf("plocate: no database for %s (plocate-build missing?)\n", o.paths.c_str());
    }
    printf("memory: %.1f MiB resident before the clients (index included), peak %.1f MiB while serving\n",
           rss_before, peak);
    return ours.failures ? 1 : 0;
}
