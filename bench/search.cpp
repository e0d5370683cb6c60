// Search benchmark: the index of bench_index_build's corpus in memory, then searches and sorts through
// db_query_search and db_sort at 1 and 2 threads, median and 90th percentile of repeated runs, and plocate
// over the same paths for the questions it can answer. Prints a table; never fails on a time.
//
// Usage: bench_search [--corpus list.swl] [--paths list] [--runs n] [--smoke] [--no-peer]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench.h"
#include "config/config.h"
#include "db/db.h"
#include "db_create/db_create.h"
#include "db_query/db_query.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"
#include "text/text.h"

struct options_t {
    std::string corpus, paths;
    int runs = 20;
    bool smoke = false;
    bool peer = true;
};

static double now_ms() {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct figures_t {
    double median, p90;
    int count;
};

static figures_t summarise(std::vector<double> v, int count) {
    std::sort(v.begin(), v.end());
    figures_t f;
    f.median = v[v.size() / 2];
    f.p90 = v[std::min(v.size() - 1, (size_t) (v.size() * 9 / 10))];
    f.count = count;
    return f;
}

// Runs are cut to three when one takes over a second: the table wants the figure, not the wait.
static int runs_for(double first_ms, int runs) {
    return first_ms > 1000 ? 3 : runs;
}

static figures_t time_search(db_query_t *q, const char *search, uint32_t bits, int sort, int runs) {
    std::vector<double> times;
    int n = runs;
    for (int i = 0; i < n; i++) {
        double t0 = now_ms();
        db_query_search(q, bits & SEARCH_CASE, false, false, bits & SEARCH_DIACRITICS, false, false, false,
                        search, 0, "", sort, 0, 0, false);
        db_wait(q->db, "bench");
        times.push_back(now_ms() - t0);
        event_dispatch();
        if (i == 0)
            n = runs_for(times[0], runs);
    }
    return summarise(times, db_get_result_count(q));
}

// A sort job on the results in place: from start_sort to sort, each run starting again from start_sort.
static figures_t time_sort(db_query_t *q, int start_sort, int sort, int runs) {
    std::vector<double> times;
    int n = runs;
    for (int i = 0; i < n; i++) {
        db_sort(q, start_sort, 0, 0);
        db_wait(q->db, "bench");
        event_dispatch();
        double t0 = now_ms();
        db_sort(q, sort, 0, 0);
        db_wait(q->db, "bench");
        times.push_back(now_ms() - t0);
        event_dispatch();
        if (i == 0)
            n = runs_for(times[0], runs);
    }
    return summarise(times, db_get_result_count(q));
}

// plocate over the same paths: its own process per run, so a start-up of a few milliseconds is in it.
static bool peer_time(const std::string &db_path, const std::string &args, int runs, figures_t *out) {
    std::vector<double> times;
    int count = 0;
    std::string cmd = "plocate -d '" + db_path + "' " + args + " | wc -l";
    for (int i = 0; i < runs; i++) {
        double t0 = now_ms();
        FILE *p = popen(cmd.c_str(), "r");
        if (!p)
            return false;
        if (fscanf(p, "%d", &count) != 1)
            count = -1;
        pclose(p);
        times.push_back(now_ms() - t0);
    }
    *out = summarise(times, count);
    return true;
}

// A generated list of 20,000 paths for a smoke run.
static void smoke_lists(std::string *swl, std::string *paths) {
    *swl = "/tmp/bench_search_smoke.swl", *paths = "/tmp/bench_search_smoke.paths";
    FILE *a = fopen(swl->c_str(), "wb"), *b = fopen(paths->c_str(), "wb");
    fprintf(a, "Filename,Size,Date Modified,Date Created,Attributes\n");
    static const char *parts[] = {"usr", "share", "doc", "lib", "copyright", "libc.so", "liba.a", "README"};
    for (int i = 0; i < 20000; i++) {
        char line[256];
        snprintf(line, sizeof line, "/%s/%s/%s%d/%s", parts[i % 3], parts[(i / 3) % 4], parts[(i / 7) % 8],
                 i % 97, parts[3 + i % 5]);
        fprintf(a, "\"%s%d\",,,,\n", line, i);
        fprintf(b, "%s%d\n", line, i);
    }
    fclose(a), fclose(b);
}

int main(int argc, char **argv) {
    options_t o;
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "--corpus") && i + 1 < argc)
            o.corpus = argv[++i];
        else if (!strcmp(argv[i], "--paths") && i + 1 < argc)
            o.paths = argv[++i];
        else if (!strcmp(argv[i], "--runs") && i + 1 < argc)
            o.runs = atoi(argv[++i]);
        else if (!strcmp(argv[i], "--smoke"))
            o.smoke = true;
        else if (!strcmp(argv[i], "--no-peer"))
            o.peer = false;
    }
    debug_init();
    os_init();
    event_init();
    text_init_tables();
    mem_arena_init();
    config_defaults();
    if (o.smoke) {
        smoke_lists(&o.corpus, &o.paths);
        o.runs = 3;
    }
    if (o.corpus.empty())
        o.corpus = bench_folder() + "/data/debian12.swl";
    if (o.paths.empty())
        o.paths = bench_folder() + "/data/debian12.paths";
    bench_configure_list(o.corpus);
    db_t *db = db_create(nullptr);
    double t0 = now_ms();
    db_rebuild(db, true);
    db_wait(db, "bench");
    event_dispatch();
    printf("index from %s: %u folders, %u files, built in %.1f s; structure %04x; %d processors\n",
           o.corpus.c_str(), db->folders.count, db->files.count, (now_ms() - t0) / 1000, db->structure.word,
           os_processor_count());
    if (!db->files.count)
        return 1;

    // One name per process: two runs at once must not share the peer's database.
    std::string peer_db = "/tmp/bench_search_peer_" + std::to_string(os_thread_id()) + ".db";
    bool peer = o.peer;
    if (peer) {
        std::string cmd = "plocate-build -p '" + o.paths + "' '" + peer_db + "' 2>/dev/null";
        peer = system(cmd.c_str()) == 0;
    }

    struct row_t {
        const char *label, *search;
        uint32_t bits;
        const char *peer_args; // null: plocate can't ask this
    } rows[] = {
        {"plain word", "copyright", 0, "-i copyright"},
        {"rare word", "xyzzyplugh", 0, "-i xyzzyplugh"},
        {"*.so", "*.so", 0, "-i '*.so'"},
        {"ext:so;a", "ext:so;a", 0, "-i -r '\\.(so|a)$'"},
        {"diacritics:", "diacritics:copyright", 0, "copyright"},
        {"case:", "case:README", 0, "README"},
        {"path:share/doc", "path:share/doc", 0, "-i share/doc"},
        {"prefix /usr/share/doc/", "/usr/share/doc/", 0, "-i /usr/share/doc/"},
        {"regex", "regex:^lib.*\\.so\\.[0-9]+$", 0, "-i -b -r '^lib.*\\.so\\.[0-9]+$'"},
        {"! word", "!copyright", 0, nullptr},
        {"dupe:", "dupe:", 0, nullptr},
        {"count:100 lib", "count:100 lib", 0, "-i -l 100 lib"},
        {"empty search", "", 0, nullptr},
    };
    printf("\n%-24s %8s | %10s %10s | %10s %10s | %7s | %10s %10s\n", "search", "results", "1t med ms",
           "1t p90 ms", "2t med ms", "2t p90 ms", "speedup", "peer med", "peer count");
    for (const row_t &r : rows) {
        figures_t f[2];
        for (int t = 1; t <= 2; t++) {
            max_threads = t;
            db_query_t *q = db_query_create(db, false, nullptr, nullptr);
            f[t - 1] = time_search(q, r.search, r.bits, 0, o.runs);
            db_destroy_query(q);
        }
        max_threads = 0;
        figures_t p = {0, 0, -1};
        bool have_peer = peer && r.peer_args && peer_time(peer_db, r.peer_args, o.smoke ? 3 : 10, &p);
        printf("%-24s %8d | %10.2f %10.2f | %10.2f %10.2f | %7.2f | ", r.label, f[1].count, f[0].median,
               f[0].p90, f[1].median, f[1].p90, f[0].median / std::max(f[1].median, 0.001));
        if (have_peer)
            printf("%10.2f %10d\n", p.median, p.count);
        else
            printf("%10s %10s\n", "-", "-");
        fflush(stdout);
    }

    printf("\n%-40s %10s %10s\n", "sort of the empty search (2 threads)", "med ms", "p90 ms");
    max_threads = 2;
    db_query_t *q = db_query_create(db, false, nullptr, nullptr);
    time_search(q, "", 0, 0, 1);
    static const struct {
        int sort;
        const char *label;
    } sorts[] = {{2, "path"},          {4, "size"},           {6, "extension"},   {8, "type"},
                 {10, "date created"}, {12, "date modified"}, {14, "attributes"}, {22, "date accessed"}};
    for (const auto &s : sorts) {
        bool has = db_sort_array(db, s.sort, false) != nullptr;
        figures_t f = time_sort(q, 0, s.sort, o.runs);
        printf("%-40s %10.2f %10.2f\n",
               (std::string(s.label) + (has ? " (ready array)" : " (no array: compared)")).c_str(), f.median,
               f.p90);
        fflush(stdout);
    }
    figures_t f = time_sort(q, 0, 1, o.runs);
    printf("%-40s %10.2f %10.2f\n", "change of direction (name)", f.median, f.p90);
    f = time_sort(q, 10, 11, o.runs);
    printf("%-40s %10.2f %10.2f\n", "change of direction (date created)", f.median, f.p90);
    db_destroy_query(q);
    db_destroy(db);
    remove(peer_db.c_str());
    return 0;
}
