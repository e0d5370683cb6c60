// The HTTP server under load: the program with its server on over the Debian corpus, 64 concurrent
// clients of ab for 30 s asking a JSON search, against lighttpd serving the same answer as a static file
// under the same load, for the cost of HTTP handling alone. Prints requests per second, the median and
// 99th percentile latency and the peak memory of each server.
//
// Usage: bench_http_load [--smoke] [--seconds N] [--clients N]
//   --smoke  a small generated tree, 8 clients for 2 s: that the whole path works, in seconds
//
// Linux only (ab, lighttpd and /proc); needs the sablewatch program beside this executable.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <netinet/in.h>

#include "bench.h"

namespace fs = std::filesystem;

namespace {

struct ab_result_t {
    bool ok = false;
    double rps = 0, median_ms = 0, p99_ms = 0;
    long failed = 0, complete = 0;
};

std::string run_output(const std::string &cmd) {
    std::string out;
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) {
        return out;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        out.append(buf, n);
    }
    pclose(p);
    return out;
}

// A command started in the background; its process id, or 0.
pid_t start_background(const std::string &cmd, const std::string &log) {
    std::string out = run_output("sh -c '" + cmd + " >" + log + " 2>&1 & echo $!'");
    return (pid_t) atol(out.c_str());
}

void stop(pid_t pid) {
    if (pid > 0) {
        kill(pid, SIGTERM);
        for (int i = 0; i < 100 && kill(pid, 0) == 0; i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        kill(pid, SIGKILL);
    }
}

double status_mib(pid_t pid, const char *key) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(f, line)) {
        if (line.rfind(std::string(key) + ":", 0) == 0) {
            return atof(line.c_str() + strlen(key) + 1) / 1024.0;
        }
    }
    return -1;
}

int free_port() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, (sockaddr *) &a, sizeof a);
    socklen_t len = sizeof a;
    getsockname(s, (sockaddr *) &a, &len);
    close(s);
    return ntohs(a.sin_port);
}

bool have(const char *tool) {
    return system(("command -v " + std::string(tool) + " >/dev/null 2>&1").c_str()) == 0;
}

// One URL's body with curl, or empty.
std::string fetch(const std::string &url) {
    return run_output("curl -s --max-time 10 '" + url + "'");
}

double field_after(const std::string &text, const std::string &label) {
    size_t at = text.find(label);
    return at == std::string::npos ? -1 : atof(text.c_str() + at + label.size());
}

ab_result_t ab(const std::string &url, int clients, int seconds) {
    ab_result_t r;
    std::string out = run_output("ab -q -c " + std::to_string(clients) + " -t " + std::to_string(seconds) +
                                 " -n 10000000 '" + url + "' 2>&1");
    r.rps = field_after(out, "Requests per second:");
    r.median_ms = field_after(out, "\n  50%");
    r.p99_ms = field_after(out, "\n  99%");
    r.failed = (long) field_after(out, "Failed requests:");
    r.complete = (long) field_after(out, "Complete requests:");
    r.ok = r.rps > 0 && r.complete > 0;
    if (!r.ok) {
        fprintf(stderr, "ab gave no figures:\n%s\n", out.c_str());
    }
    return r;
}

void row(const char *what, const ab_result_t &r, double peak_mib) {
    if (!r.ok) {
        printf("| %-34s | %12s | %10s | %10s | %10s | %8s |\n", what, "-", "-", "-", "-", "-");
        return;
    }
    printf("| %-34s | %12.0f | %10.1f | %10.1f | %10.1f | %8ld |\n", what, r.rps, r.median_ms, r.p99_ms,
           peak_mib, r.failed);
}

} // namespace

int main(int argc, char **argv) {
    bool smoke = false;
    int seconds = 30, clients = 64;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--smoke") == 0) {
            smoke = true;
        } else if (strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            seconds = atoi(argv[++i]);
        } else if (strcmp(argv[i], "--clients") == 0 && i + 1 < argc) {
            clients = atoi(argv[++i]);
        } else {
            fprintf(stderr, "usage: bench_http_load [--smoke] [--seconds N] [--clients N]\n");
            return 1;
        }
    }
    if (smoke) {
        seconds = 2;
        clients = 8;
    }
    fs::path exe = fs::canonical("/proc/self/exe").parent_path() / "sablewatch";
    if (!fs::exists(exe)) {
        fprintf(stderr, "bench_http_load: %s was not built\n", exe.c_str());
        return 1;
    }
    if (!have("ab") || !have("curl")) {
        fprintf(stderr, "bench_http_load: ab (apache2-utils) and curl are needed; not measured\n");
        return smoke ? 0 : 1;
    }
    fs::path work = fs::temp_directory_path() / ("sw-http-load-" + std::to_string(getpid()));
    fs::create_directories(work);

    // The source: the Debian corpus, or for the smoke run a few hundred generated names.
    std::string source;
    std::string search = smoke ? "report" : "libc";
    if (smoke) {
        fs::path tree = work / "tree";
        fs::create_directories(tree / "docs");
        for (int i = 0; i < 300; i++) {
            std::ofstream(tree / "docs" / ("report" + std::to_string(i) + ".txt")) << i;
        }
        source = "folders=" + tree.string() + "\n";
    } else {
        std::string swl = bench_folder() + "/data/debian12.swl";
        if (!fs::exists(swl)) {
            fprintf(stderr, "bench_http_load: %s is missing; run bench/corpus.sh\n", swl.c_str());
            return 1;
        }
        source = "filelists=\"" + fs::absolute(swl).string() + "\"\nfilelist_monitor_changes=0\n";
    }
    int port = free_port();
    fs::path ini = work / "s.ini";
    std::ofstream(ini) << "[Sablewatch]\n"
                       << source << "http_server_enabled=1\nhttp_server_port=" << port
                       << "\nhttp_server_bindings=127.0.0.1\nhttp_server_home=" << (work / "home").string()
                       << "\n";
    std::string base = "http://127.0.0.1:" + std::to_string(port);
    std::string url = base + "/?search=" + search + "&json=1&count=32&path_column=1&size_column=1";

    printf("HTTP load: %d clients for %d s, JSON search \"%s\" (32 results a page) %s\n", clients, seconds,
           search.c_str(), smoke ? "over 300 generated names" : "over the Debian corpus");
    auto t0 = std::chrono::steady_clock::now();
    pid_t server = start_background(exe.string() + " -instance http-load-" + std::to_string(port) +
                                        " -config " + ini.string() + " -db " + (work / "x.db").string(),
                                    (work / "server.log").string());
    std::string answer;
    for (int i = 0; i < 6000; i++) {
        answer = fetch(url);
        if (answer.find("\"totalResults\":") != std::string::npos &&
            answer.find("\"totalResults\":0,") == std::string::npos) {
            break;
        }
        answer.clear();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    double ready_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (answer.empty()) {
        fprintf(stderr, "bench_http_load: the server never answered the search\n");
        stop(server);
        fs::remove_all(work);
        return 1;
    }
    printf("index loaded and first answer after %.1f s; answer %zu bytes\n\n", ready_s, answer.size());
    ab_result_t ours = ab(url, clients, seconds);
    double ours_peak = status_mib(server, "VmHWM");
    stop(server);

    // The peer: lighttpd serving the very bytes of that answer as a file.
    ab_result_t peer;
    double peer_peak = -1;
    if (have("lighttpd")) {
        fs::path docs = work / "static";
        fs::create_directories(docs);
        std::ofstream(docs / "answer.json", std::ios::binary) << answer;
        int peer_port = free_port();
        fs::path conf = work / "lighttpd.conf";
        std::ofstream(conf) << "server.document-root = \"" << docs.string()
                            << "\"\nserver.port = " << peer_port
                            << "\nserver.bind = \"127.0.0.1\"\nserver.max-connections = 1024\n"
                            << "mimetype.assign = (\".json\" => \"application/json\")\n";
        pid_t lighttpd =
            start_background("lighttpd -D -f " + conf.string(), (work / "lighttpd.log").string());
        std::string peer_url = "http://127.0.0.1:" + std::to_string(peer_port) + "/answer.json";
        for (int i = 0; i < 100 && fetch(peer_url).empty(); i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        peer = ab(peer_url, clients, seconds);
        peer_peak = status_mib(lighttpd, "VmHWM");
        stop(lighttpd);
    } else {
        fprintf(stderr, "bench_http_load: lighttpd is not installed; the peer row is empty\n");
    }

    printf("| %-34s | %12s | %10s | %10s | %10s | %8s |\n", "server", "requests/s", "median ms", "p99 ms",
           "peak MiB", "failed");
    printf("|%s|%s|%s|%s|%s|%s|\n", std::string(36, '-').c_str(), std::string(14, '-').c_str(),
           std::string(12, '-').c_str(), std::string(12, '-').c_str(), std::string(12, '-').c_str(),
           std::string(10, '-').c_str());
    row("sablewatch: JSON search", ours, ours_peak);
    row("lighttpd: the same bytes, static", peer, peer_peak);
    if (ours.ok && peer.ok) {
        printf("\nours / peer: %.2f of its requests per second\n", ours.rps / peer.rps);
    }
    fs::remove_all(work);
    return ours.ok ? 0 : 1;
}
