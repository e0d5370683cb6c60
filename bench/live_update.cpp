// Live update benchmark: the index of bench_index_build's corpus in memory, then file changes applied one
// at a time as the monitors apply them (adds, renames across folders, removes) and a move of a folder with
// about 10,000 descendants, with the default structure and with every sorted array (0x7F3F). The peer of
// an incremental update is a full rebuild of plocate's database from the same path list: what each change
// would cost if it needed a rebuild. Prints one table; never fails on a time.
//
// Usage: bench_live_update [--corpus list.swl] [--paths list] [--changes n] [--smoke] [--no-peer]
//                          [--structure default|all]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench.h"
#include "db/db.h"
#include "db_create/db_create.h"
#include "db_update/db_update.h"

struct options_t {
    std::string corpus, paths;
    uint32_t changes = 100000;
    bool smoke = false;
    bool peer = true;
    std::string structure; // "default" or "all": only that one
};

// Every sorted array and every column: the structure word 0x7F3F.
static const char *const all_arrays =
    "index_folder_size=1\nindex_date_created=1\nindex_date_accessed=1\n"
    "index_attributes=1\nfast_date_created_sort=1\nfast_date_accessed_sort=1\n"
    "fast_attributes_sort=1\nfast_extension_sort=1\n";

static db_t *build_index(const std::string &corpus, const std::string &extra) {
    // Each structure starts from the defaults, not from what the one before it set.
    config_kill();
    config_defaults();
    bench_configure_list(corpus, extra);
    db_t *db = db_create(nullptr);
    auto t0 = std::chrono::steady_clock::now();
    db_rebuild(db, true);
    db_wait(db, "bench");
    event_dispatch();
    printf("index from %s: %u folders, %u files, built in %.1f s; structure %04x\n", corpus.c_str(),
           db->folders.count, db->files.count, bench_seconds_since(t0), db->structure.word);
    return db;
}

struct row_t {
    std::string structure, what;
    uint32_t changes;
    double seconds;
};

static std::vector<db_ref_t> all_folders(db_t *db) {
    std::vector<db_ref_t> v;
    int c = 0, p = -1;
    for (db_ref_t r; (r = mem_array_next(&db->folders, &c, &p));)
        v.push_back(r);
    return v;
}

// The folder whose subtree is nearest above `want` records, through a count of every record's ancestors.
static db_ref_t subtree_of_size(db_t *db, uint32_t want, uint32_t *got) {
    std::unordered_map<db_ref_t, uint32_t> below;
    for (mem_array_t *a : {&db->folders, &db->files}) {
        int c = 0, p = -1;
        for (db_ref_t r; (r = mem_array_next(a, &c, &p));)
            for (db_ref_t up = db_record_parent(r); up; up = db_record_parent(up))
                below[up]++;
    }
    db_ref_t best = 0;
    uint32_t best_n = UINT32_MAX;
    for (auto &[f, n] : below)
        if (n >= want && n < best_n && db_record_parent(f) && db_record_parent(db_record_parent(f)))
            best = f, best_n = n;
    *got = best_n;
    return best;
}

static void run_structure(const options_t &o, const char *label, const std::string &extra,
                          std::vector<row_t> *rows) {
    db_t *db = build_index(o.corpus, extra);
    if (!db->files.count) {
        db_destroy(db);
        return;
    }
    std::string structure = label;
    char word[16];
    snprintf(word, sizeof word, " (%04x)", db->structure.word);
    structure += word;
    std::vector<db_ref_t> folders = all_folders(db);
    std::mt19937 rng(7);
    uint32_t n = o.changes;
    std::vector<db_ref_t> at(n), to(n);
    for (uint32_t i = 0; i < n; i++) {
        at[i] = folders[rng() % folders.size()];
        to[i] = folders[rng() % folders.size()];
    }
    auto name = [](const char *stem, uint32_t i) { return std::string(stem) + std::to_string(i) + ".dat"; };
    db_fd_t fd = {4096, 133000000000000000ull, 133000000000000000ull, DB_UNKNOWN, 0x20};
    db_change_t change = {&fd, nullptr, nullptr, 0};

    auto t0 = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < n; i++) {
        std::string s = name("sw_live_", i);
        fd.size = 1000 + i;
        db_file_add_in(db, nullptr, at[i], s.data(), (uint32_t) s.size(), &change);
    }
    rows->push_back({structure, "add a file", n, bench_seconds_since(t0)});
    uint32_t files = db->files.count;

    t0 = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < n; i++) {
        std::string a = name("sw_live_", i), b = name("sw_moved_", i);
        db_file_rename_in(db, nullptr, at[i], a.data(), (uint32_t) a.size(), to[i], b.data(),
                          (uint32_t) b.size(), nullptr);
    }
    rows->push_back({structure, "rename a file to another folder", n, bench_seconds_since(t0)});
    // Every change must have been applied, or the figures measure lookups that failed.
    if (db->files.count != files)
        printf("renames lost files: %u before, %u after\n", files, db->files.count);

    t0 = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < n; i++) {
        std::string b = name("sw_moved_", i);
        db_file_remove_in(db, nullptr, to[i], b.data(), (uint32_t) b.size(), nullptr);
    }
    rows->push_back({structure, "remove a file", n, bench_seconds_since(t0)});
    if (db->files.count != files - n)
        printf("removes missed files: %u left of %u, %u expected\n", db->files.count, files, files - n);

    uint32_t size;
    db_ref_t folder = subtree_of_size(db, o.smoke ? 200 : 10000, &size);
    if (folder) {
        // Up one level and back, under the same name: the whole subtree moves twice in the path orders.
        db_ref_t from = db_record_parent(folder), dest = db_record_parent(from);
        uint32_t len;
        const char *n = db_record_name(folder, &len);
        std::string fname(n, len);
        t0 = std::chrono::steady_clock::now();
        db_ref_t moved =
            db_folder_rename_in(db, nullptr, from, fname.data(), len, dest, fname.data(), len, nullptr);
        double there = bench_seconds_since(t0);
        t0 = std::chrono::steady_clock::now();
        if (moved)
            db_folder_rename_in(db, nullptr, dest, fname.data(), len, from, fname.data(), len, nullptr);
        double back = bench_seconds_since(t0);
        rows->push_back(
            {structure, "move a folder of " + std::to_string(size) + " descendants", 2, there + back});
    }
    db_destroy(db);
    event_dispatch();
}

// plocate-build over the same paths without visibility checks: one full rebuild, the best of two.
static double peer_rebuild(const std::string &paths) {
    std::string out = "/tmp/bench_live_update_peer.db";
    std::string cmd = "plocate-build -l no -p '" + paths + "' '" + out + "' >/dev/null 2>&1";
    double best = -1;
    for (int i = 0; i < 2; i++) {
        auto t0 = std::chrono::steady_clock::now();
        if (system(cmd.c_str()) != 0)
            return -1;
        double s = bench_seconds_since(t0);
        best = best < 0 ? s : std::min(best, s);
    }
    remove(out.c_str());
    return best;
}

int main(int argc, char **argv) {
    options_t o;
    for (int i = 1; i < argc; i++) {
        if (!strcmp(argv[i], "--corpus") && i + 1 < argc)
            o.corpus = argv[++i];
        else if (!strcmp(argv[i], "--paths") && i + 1 < argc)
            o.paths = argv[++i];
        else if (!strcmp(argv[i], "--changes") && i + 1 < argc)
            o.changes = (uint32_t) atoi(argv[++i]);
        else if (!strcmp(argv[i], "--smoke"))
            o.smoke = true;
        else if (!strcmp(argv[i], "--no-peer"))
            o.peer = false;
        else if (!strcmp(argv[i], "--structure") && i + 1 < argc)
            o.structure = argv[++i];
    }
    bench_start_up("");
    if (o.smoke) {
        bench_smoke_lists("bench_live_update_smoke", &o.corpus, &o.paths);
        o.changes = 2000;
    }
    if (o.corpus.empty())
        o.corpus = bench_folder() + "/data/debian12.swl";
    if (o.paths.empty())
        o.paths = bench_folder() + "/data/debian12.paths";
    std::vector<row_t> rows;
    if (o.structure.empty() || o.structure == "default")
        run_structure(o, "default", "", &rows);
    if (o.structure.empty() || o.structure == "all")
        run_structure(o, "all arrays", all_arrays, &rows);
    if (rows.empty())
        return 1;
    double peer = o.peer ? peer_rebuild(o.paths) : -1;

    printf("\nchanges applied one at a time, no query open; peer: plocate-build -l no over the same paths, "
           "a full rebuild per change%s\n\n",
           peer < 0 ? " (not measured)" : "");
    printf("%-20s %-40s %9s %9s %12s %10s %12s %10s  %s\n", "structure", "change", "count", "seconds",
           "changes/s", "us/change", "peer s/chg", "ratio", "target");
    for (const row_t &r : rows) {
        double per = r.seconds / r.changes;
        bool file = r.what.find("file") != std::string::npos;
        std::string target = "-";
        if (file && r.structure.rfind("default", 0) == 0)
            target = r.changes / r.seconds >= 50000 ? ">= 50,000/s met" : ">= 50,000/s NOT MET";
        char peer_s[32] = "-", ratio[32] = "-";
        if (peer > 0) {
            snprintf(peer_s, sizeof peer_s, "%.2f", peer);
            snprintf(ratio, sizeof ratio, "%.2g", per / peer);
        }
        printf("%-20s %-40s %9u %9.3f %12.0f %10.2f %12s %10s  %s\n", r.structure.c_str(), r.what.c_str(),
               r.changes, r.seconds, r.changes / r.seconds, per * 1e6, peer_s, ratio, target.c_str());
    }
    return 0;
}
