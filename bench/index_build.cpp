// The index at full size: every file path of Debian 12 main (about 7.3 million, from bench/corpus.sh) read
// from a file list into an index through the configured-list rebuild, saved plain and compressed, and
// loaded back from each file. The table gives the times, the peak memory of each step, the index's memory
// and file size per record, the targets beside them, and the same paths built by plocate-build, timed in
// the same run.
//
// Usage: bench_index_build [--smoke] [--corpus <list.swl>] [--paths <list>] [--no-peer] [--log <file>]
//   --smoke    a generated list of about 20,000 paths instead of the corpus; what CI runs
//   --corpus   the list to build from (default bench/data/debian12.swl of this source tree)
//   --paths    the same paths one per line, for the peer (default: the corpus name with .paths)
//   --no-peer  don't run plocate-build
//   --log      write the program's debug log there (the rebuild logs the time of each of its passes)
//
// The index memory is what the index holds of the record arena once the build is done: records and every
// sorted array live there, so it is the honest count of what a record costs. Peak memory is the process's
// resident high-water mark: the build's in this process, each load's in a process of its own.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "bench.h"
#include "config/config.h"
#include "db/db.h"
#include "db/dbfile.h"
#include "db_create/db_create.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/arena.h"
#include "mem/mem.h"
#include "os/os.h"
#include "text/text.h"

namespace {

// The project's goals on the corpus, on the 2-core machine.
const double target_build_s = 10.0;
const double target_load_s = 2.0;
const double target_memory_per_record = 60.0;
const double target_file_per_record = 45.0;
const double target_compressed_per_record = 15.0;
// The build against the peer of the same run, and its peak memory against the index it makes: a rebuild
// must not need much more memory than the index it leaves.
const double target_build_vs_peer = 0.8;
const double target_peak_vs_index = 2.0;

struct options_t {
    bool smoke = false;
    bool peer = true;
    std::string corpus;
    std::string paths;
    std::string log;
    std::string keep;        // --keep: the plain database file is written here and kept
    bool build_only = false; // --build-only: the build and its check, no save, load or peer
};

// What one step cost. Negative values mean not measured.
struct step_t {
    double seconds = -1;
    double peak_mib = -1;
    double arena_bytes = -1; // arena held by the index after the step
    bool ok = false;
};

struct peer_t {
    bool ran = false;
    double seconds = -1;
    double peak_mib = -1;
    double file_bytes = -1;
    uint64_t paths = 0;
    std::string why; // when it didn't run
};

double peak_mib() {
    double kib = bench_status_kib("VmHWM");
    return kib < 0 ? -1 : kib / 1024.0;
}

double arena_bytes() {
    return (double) mem_arena_blocks_in_use() * MEM_ARENA_BLOCK;
}

uint64_t file_bytes(const std::string &path) {
    os_file_info_t info;
    return os_get_file_info(path.c_str(), &info) ? info.size : 0;
}

uint64_t line_count(const std::string &path) {
    FILE *f = fopen(path.c_str(), "rb");
    if (!f)
        return 0;
    std::vector<char> buf(1 << 20);
    uint64_t n = 0;
    size_t got;
    while ((got = fread(buf.data(), 1, buf.size(), f)) > 0) {
        for (size_t i = 0; i < got; i++)
            n += buf[i] == '\n';
    }
    fclose(f);
    return n;
}

// ---- the smoke list ------------------------------------------------------------------------------------

struct rng_t {
    uint64_t s = 0x2545F4914F6CDD1Dull;
    uint32_t next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return (uint32_t) (s >> 32);
    }
};

// A package-shaped tree: programs, libraries, documentation and data per package, with a few names that
// the list format must quote with care (blanks, commas, double quotes, non-ASCII). Unique by construction.
std::vector<std::string> smoke_paths(size_t want) {
    static const char *const kinds[] = {"lib", "utils", "data", "doc", "dev", "common", "tools", "perl"};
    static const char *const odd[] = {"read me.txt", "a,b.conf",   "say \"hi\".txt", "Übersicht.html",
                                      "東京.png",    "naïve café", "#notes#",        "x"};
    rng_t rng;
    std::vector<std::string> out;
    char pkg[64], buf[512];
    for (uint32_t p = 0; out.size() < want; p++) {
        snprintf(pkg, sizeof(pkg), "%s%u-%s", p % 3 ? "lib" : "", p, kinds[rng.next() % 8]);
        snprintf(buf, sizeof(buf), "/usr/share/doc/%s/copyright", pkg);
        out.push_back(buf);
        snprintf(buf, sizeof(buf), "/usr/share/doc/%s/changelog.Debian.gz", pkg);
        out.push_back(buf);
        if (rng.next() % 2) {
            snprintf(buf, sizeof(buf), "/usr/bin/%s", pkg);
            out.push_back(buf);
            snprintf(buf, sizeof(buf), "/usr/share/man/man1/%s.1.gz", pkg);
            out.push_back(buf);
        }
        uint32_t libs = rng.next() % 6;
        for (uint32_t i = 0; i < libs; i++) {
            snprintf(buf, sizeof(buf), "/usr/lib/x86_64-linux-gnu/%s/module%u.so.%u", pkg, i, rng.next() % 9);
            out.push_back(buf);
        }
        uint32_t depth = 1 + rng.next() % 4, files = rng.next() % 24;
        std::string dir = std::string("/usr/share/") + pkg;
        for (uint32_t d = 0; d < depth; d++) {
            snprintf(buf, sizeof(buf), "/level%u", d);
            dir += buf;
        }
        for (uint32_t i = 0; i < files; i++) {
            snprintf(buf, sizeof(buf), "%s/file%04u.dat", dir.c_str(), i);
            out.push_back(buf);
        }
        if (p % 50 == 0) {
            out.push_back(dir + "/" + odd[(p / 50) % 8]);
        }
    }
    return out;
}

// Writes the list in the corpus's form: the path quoted with quotes doubled, size, dates and attributes
// left empty (unknown, unknown, plain file), and the same paths one per line for the peer.
bool write_lists(const std::vector<std::string> &paths, const std::string &swl, const std::string &plain) {
    FILE *f = fopen(swl.c_str(), "wb");
    FILE *g = fopen(plain.c_str(), "wb");
    bool ok = f && g;
    if (ok) {
        fputs("Filename,Size,Date Modified,Date Created,Attributes\r\n", f);
        for (const std::string &p : paths) {
            fputc('"', f);
            for (char c : p) {
                if (c == '"')
                    fputc('"', f);
                fputc(c, f);
            }
            fputs("\",,,,\r\n", f);
            fputs(p.c_str(), g);
            fputc('\n', g);
        }
    }
    if (f)
        ok = fclose(f) == 0 && ok;
    if (g)
        ok = fclose(g) == 0 && ok;
    return ok;
}

// What the index must hold for a path list, counted apart from the program: one file per line, one
// folder per distinct proper prefix that ends before a '/', and the root (named "") above absolute paths.
// Neighbouring lines share most prefixes, so only the part beyond the previous line's is looked up.
bool expected_counts(const std::string &paths, uint64_t *folders, uint64_t *files) {
    FILE *f = fopen(paths.c_str(), "rb");
    if (!f)
        return false;
    std::unordered_set<std::string> seen;
    std::string line, prev;
    bool root = false;
    *files = 0;
    std::vector<char> buf(65536);
    while (fgets(buf.data(), (int) buf.size(), f)) {
        line.assign(buf.data());
        if (!line.empty() && line.back() == '\n')
            line.pop_back();
        if (line.empty())
            continue;
        ++*files;
        root |= line[0] == '/';
        size_t common = 0;
        while (common < line.size() && common < prev.size() && line[common] == prev[common])
            common++;
        for (size_t i = 1; i < line.size(); i++) {
            // A prefix that ends inside the part shared with the previous line was counted with it.
            if (line[i] == '/' && i >= common)
                seen.insert(line.substr(0, i));
        }
        prev.swap(line);
    }
    fclose(f);
    *folders = seen.size() + (root ? 1 : 0);
    return true;
}

// ---- the steps -----------------------------------------------------------------------------------------

uint64_t record_count(const db_t *db) {
    return (uint64_t) db->folders.count + db->files.count;
}

step_t build(db_t *db) {
    step_t st;
    double arena0 = arena_bytes();
    bench_reset_peak();
    auto t0 = std::chrono::steady_clock::now();
    db_rebuild(db, true);
    db_wait(db, "bench_index_build");
    st.seconds = bench_seconds_since(t0);
    // The job's end is posted to the main thread; here the benchmark is the main thread.
    event_dispatch();
    st.peak_mib = peak_mib();
    st.arena_bytes = arena_bytes() - arena0;
    st.ok = record_count(db) > 0;
    return st;
}

step_t save(db_t *db, const std::string &path, bool compressed) {
    step_t st;
    std::string tmp = path + ".tmp";
    bench_reset_peak();
    auto t0 = std::chrono::steady_clock::now();
    st.ok = db_file_save(db, path.c_str(), tmp.c_str(), compressed);
    st.seconds = bench_seconds_since(t0);
    st.peak_mib = peak_mib();
    return st;
}

// Loads into a fresh index and checks that it holds what the built one held.
step_t load(const std::string &path, bool compressed, uint64_t folders, uint64_t files) {
    step_t st;
    db_t *db = db_create(nullptr);
    db_load_settings_t settings = {nullptr, true};
    double arena0 = arena_bytes();
    bench_reset_peak();
    auto t0 = std::chrono::steady_clock::now();
    bool ok = db_file_load(db, path.c_str(), compressed, &settings);
    st.seconds = bench_seconds_since(t0);
    st.peak_mib = peak_mib();
    st.arena_bytes = arena_bytes() - arena0;
    st.ok = ok && db->folders.count == folders && db->files.count == files;
    if (!st.ok)
        fprintf(stderr, "load of %s: %s (%u folders, %u files; built %llu, %llu)\n", path.c_str(),
                ok ? "counts differ" : "failed", db->folders.count, db->files.count,
                (unsigned long long) folders, (unsigned long long) files);
    db_destroy(db);
    return st;
}

// A load in a process of its own, so that its peak memory is its own: the build's memory, which the
// process keeps for reuse, would otherwise stand under every later peak. The child is this program with
// --load-child and prints one line of figures.
step_t load_in_child(const char *self, const std::string &path, bool compressed, uint64_t folders,
                     uint64_t files) {
    step_t st;
    std::string out = path + ".load";
    char counts[64];
    snprintf(counts, sizeof(counts), " %llu %llu", (unsigned long long) folders, (unsigned long long) files);
    std::string cmd = std::string("'") + self + "' --load-child '" + path + "' " + (compressed ? "1" : "0") +
                      counts + " > '" + out + "'";
    int rc = std::system(cmd.c_str());
    FILE *f = fopen(out.c_str(), "r");
    if (f) {
        int ok = 0;
        if (fscanf(f, "load %d %lf %lf %lf", &ok, &st.seconds, &st.peak_mib, &st.arena_bytes) == 4)
            st.ok = ok == 1 && rc == 0;
        fclose(f);
    }
    os_file_delete(out.c_str());
    return st;
}

int load_child(int argc, char **argv) {
    if (argc != 6)
        return 2;
    step_t st =
        load(argv[2], argv[3][0] == '1', strtoull(argv[4], nullptr, 10), strtoull(argv[5], nullptr, 10));
    printf("load %d %.6f %.3f %.0f\n", st.ok ? 1 : 0, st.seconds, st.peak_mib, st.arena_bytes);
    return st.ok ? 0 : 1;
}

// plocate-build over the same paths, under /usr/bin/time for the wall time and the peak resident size.
peer_t run_peer(const std::string &paths, const std::string &out_db) {
    peer_t p;
    const char *tool =
        os_file_exists("/usr/sbin/plocate-build") ? "/usr/sbin/plocate-build" : "plocate-build";
    if (!os_file_exists("/usr/bin/time")) {
        p.why = "/usr/bin/time missing (apt-get install time)";
        return p;
    }
    std::string timing = out_db + ".time";
    std::string cmd = "/usr/bin/time -f '%e %M' -o '" + timing + "' " + tool + " -p '" + paths + "' '" +
                      out_db + "' 2>/dev/null";
    if (std::system(cmd.c_str()) != 0) {
        p.why = "plocate-build failed or missing (bench/corpus.sh installs it)";
        return p;
    }
    FILE *f = fopen(timing.c_str(), "r");
    double secs = -1, kib = -1;
    if (f) {
        if (fscanf(f, "%lf %lf", &secs, &kib) != 2)
            secs = kib = -1;
        fclose(f);
    }
    os_file_delete(timing.c_str());
    p.ran = secs >= 0;
    p.seconds = secs;
    p.peak_mib = kib < 0 ? -1 : kib / 1024.0;
    p.file_bytes = (double) file_bytes(out_db);
    p.paths = line_count(paths);
    if (!p.ran)
        p.why = "no timing from /usr/bin/time";
    return p;
}

// ---- the table -----------------------------------------------------------------------------------------

std::string num(double v, const char *fmt) {
    if (v < 0)
        return "-";
    char b[64];
    snprintf(b, sizeof(b), fmt, v);
    return b;
}

// A row: measure, ours, the target (with whether ours meets it), the peer.
void row(const char *what, double ours, const char *fmt, double target, const char *op, double peer) {
    std::string t = "";
    if (target >= 0 && ours >= 0) {
        bool met = ours <= target;
        t = std::string(op) + " " + num(target, "%g") + (met ? "  met" : "  MISSED");
    }
    printf("| %-30s | %12s | %-16s | %13s |\n", what, num(ours, fmt).c_str(), t.c_str(),
           num(peer, fmt).c_str());
}

double per(double bytes, uint64_t records) {
    return bytes < 0 || records == 0 ? -1 : bytes / (double) records;
}

double ratio(double a, double b) {
    return a < 0 || b <= 0 ? -1 : a / b;
}

double mib(double bytes) {
    return bytes < 0 ? -1 : bytes / (1024.0 * 1024.0);
}

bool parse_args(int argc, char **argv, options_t *o) {
    for (int i = 1; i < argc; i++) {
        const char *a = argv[i];
        bool has_value = i + 1 < argc;
        if (strcmp(a, "--smoke") == 0)
            o->smoke = true;
        else if (strcmp(a, "--no-peer") == 0)
            o->peer = false;
        else if (strcmp(a, "--corpus") == 0 && has_value)
            o->corpus = argv[++i];
        else if (strcmp(a, "--paths") == 0 && has_value)
            o->paths = argv[++i];
        else if (strcmp(a, "--log") == 0 && has_value)
            o->log = argv[++i];
        else if (strcmp(a, "--keep") == 0 && has_value)
            o->keep = argv[++i];
        else if (strcmp(a, "--build-only") == 0)
            o->build_only = true;
        else {
            fprintf(stderr,
                    "usage: %s [--smoke] [--corpus <list.swl>] [--paths <list>] [--no-peer] [--log <file>]\n"
                    "       [--keep <file.db>] [--build-only]\n",
                    argv[0]);
            return false;
        }
    }
    return true;
}

struct run_t {
    std::string swl, paths, out_dir;
    bool cleanup = false; // the lists and files are the benchmark's own, removed at the end
};

// Decides what to build from; false (and a message) when there is nothing to build.
bool choose_input(const options_t &o, run_t *r, std::vector<std::string> *made) {
    if (o.smoke) {
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        char name[96];
        snprintf(name, sizeof(name), "/sablewatch-bench-%llu",
                 (unsigned long long) std::chrono::steady_clock::now().time_since_epoch().count());
        r->out_dir = std::string(tmp.ptr, (size_t) tmp.len) + name;
        str_kill(&tmp);
        if (!os_folder_create_path(r->out_dir.c_str())) {
            printf("cannot make %s\n", r->out_dir.c_str());
            return false;
        }
        r->swl = r->out_dir + "/smoke.swl";
        r->paths = r->out_dir + "/smoke.paths";
        r->cleanup = true;
        if (!write_lists(smoke_paths(20000), r->swl, r->paths)) {
            printf("cannot write %s\n", r->swl.c_str());
            return false;
        }
        made->push_back(r->swl);
        made->push_back(r->paths);
        return true;
    }
    std::string data = bench_folder() + "/data";
    r->swl = o.corpus.empty() ? data + "/debian12.swl" : o.corpus;
    // The settings resolve a relative list against the settings folder, not against where the user
    // stands, so the list is named absolutely.
    if (!os_path_is_absolute(r->swl.c_str())) {
        str_t cwd;
        str_init(&cwd);
        os_current_folder(&cwd);
        r->swl = std::string(cwd.ptr, (size_t) cwd.len) + "/" + r->swl;
        str_kill(&cwd);
    }
    if (!o.paths.empty())
        r->paths = o.paths;
    else {
        size_t dot = r->swl.rfind(".swl");
        r->paths = (dot == std::string::npos ? r->swl : r->swl.substr(0, dot)) + ".paths";
    }
    size_t cut = r->swl.find_last_of('/');
    r->out_dir = cut == std::string::npos ? std::string(".") : r->swl.substr(0, cut);
    if (!os_file_exists(r->swl.c_str())) {
        printf("No corpus at %s.\n"
               "Make it with bench/corpus.sh (installs apt-file and plocate, downloads Debian 12's Contents\n"
               "indexes, about 80 MB, and writes bench/data/debian12.swl and .paths), or run with --smoke.\n",
               r->swl.c_str());
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv) {
    options_t o;
    if (argc > 1 && strcmp(argv[1], "--load-child") == 0) {
        bench_start_up(o.log);
        return load_child(argc, argv);
    }
    if (!parse_args(argc, argv, &o))
        return 2;
    bench_start_up(o.log);
    run_t r;
    std::vector<std::string> made;
    if (!choose_input(o, &r, &made))
        return 0;

    uint64_t rows = line_count(r.swl);
    rows = rows ? rows - 1 : 0;
    printf("index build from %s (%llu rows, %llu bytes)%s\n", r.swl.c_str(), (unsigned long long) rows,
           (unsigned long long) file_bytes(r.swl),
           o.smoke ? ", smoke run: no targets, they hold for the corpus" : "");
    fflush(stdout);
    bench_configure_list(r.swl);

    db_t *db = db_create(nullptr);
    step_t b = build(db);
    uint64_t folders = db->folders.count, files = db->files.count, records = folders + files;
    if (!b.ok) {
        printf("the build made no records (see --log for the rebuild's own lines)\n");
        db_destroy(db);
        return 1;
    }
    // The build must hold what the paths make; a benchmark of a wrong index measures nothing.
    bool counts_ok = true;
    uint64_t want_folders = 0, want_files = 0;
    if (expected_counts(r.paths, &want_folders, &want_files)) {
        counts_ok = want_folders == folders && want_files == files;
        printf("check: the paths make %llu folders and %llu files: %s\n", (unsigned long long) want_folders,
               (unsigned long long) want_files, counts_ok ? "the index agrees" : "THE INDEX DIFFERS");
    }
    if (o.build_only) {
        double peak_ratio = ratio(b.peak_mib, mib(b.arena_bytes));
        printf(
            "build s: %.2f, peak memory MiB: %.1f, index memory MiB: %.1f, peak / index: %.2f (target <= %g: "
            "%s), memory B/record: %.1f\n",
            b.seconds, b.peak_mib, mib(b.arena_bytes), peak_ratio, target_peak_vs_index,
            peak_ratio >= 0 && peak_ratio <= target_peak_vs_index ? "met" : "MISSED",
            per(b.arena_bytes, records));
        if (!o.keep.empty())
            printf("save to %s: %s\n", o.keep.c_str(), save(db, o.keep, false).ok ? "done" : "FAILED");
        db_destroy(db);
        for (const std::string &f : made)
            os_file_delete(f.c_str());
        if (r.cleanup)
            os_folder_delete(r.out_dir.c_str());
        config_kill();
        return counts_ok ? 0 : 1;
    }
    // With --keep the plain file is the one asked for, so that two builds can be compared byte for byte.
    std::string plain = o.keep.empty() ? r.out_dir + "/bench-plain.db" : o.keep;
    std::string packed = r.out_dir + "/bench-compressed.db";
    if (o.keep.empty())
        made.push_back(plain);
    made.push_back(packed);
    step_t sp = save(db, plain, false);
    step_t sc = save(db, packed, true);
    db_destroy(db);
    step_t lp = sp.ok ? load_in_child(argv[0], plain, false, folders, files) : step_t();
    step_t lc = sc.ok ? load_in_child(argv[0], packed, true, folders, files) : step_t();
    double plain_bytes = sp.ok ? (double) file_bytes(plain) : -1;
    double packed_bytes = sc.ok ? (double) file_bytes(packed) : -1;

    peer_t peer;
    if (!o.peer)
        peer.why = "--no-peer";
    else if (!os_file_exists(r.paths.c_str()))
        peer.why = "no path list at " + r.paths;
    else {
        std::string peer_db = r.out_dir + "/bench-peer.plocate.db";
        made.push_back(peer_db);
        peer = run_peer(r.paths, peer_db);
    }
    // The peer counts paths; its figures per record are per path.
    double peer_records = (double) peer.paths;

    printf("records: %llu (%llu folders, %llu files) from %llu rows; %d threads\n",
           (unsigned long long) records, (unsigned long long) folders, (unsigned long long) files,
           (unsigned long long) rows, os_processor_count());
    printf("| %-30s | %12s | %-16s | %13s |\n", "measure", "sablewatch", "target", "plocate-build");
    printf("|%s|%s|%s|%s|\n", std::string(32, '-').c_str(), std::string(14, '-').c_str(),
           std::string(18, '-').c_str(), std::string(15, '-').c_str());
    row("build s", b.seconds, "%.2f", o.smoke ? -1 : target_build_s, "<=", peer.seconds);
    row("build s / plocate-build s", ratio(b.seconds, peer.seconds), "%.2f",
        o.smoke ? -1 : target_build_vs_peer, "<=", -1);
    row("peak memory, build MiB", b.peak_mib, "%.1f", -1, "", peer.peak_mib);
    row("index memory, built MiB", mib(b.arena_bytes), "%.1f", -1, "", -1);
    row("peak build / index memory", ratio(b.peak_mib, mib(b.arena_bytes)), "%.2f",
        o.smoke ? -1 : target_peak_vs_index, "<=", -1);
    row("save plain s", sp.seconds, "%.2f", -1, "", -1);
    row("save compressed s", sc.seconds, "%.2f", -1, "", -1);
    row("load plain s", lp.seconds, "%.2f", o.smoke ? -1 : target_load_s, "<=", -1);
    row("load compressed s", lc.seconds, "%.2f", -1, "", -1);
    row("peak memory, load plain MiB", lp.peak_mib, "%.1f", -1, "", -1);
    row("peak memory, load compr. MiB", lc.peak_mib, "%.1f", -1, "", -1);
    row("memory B/record, built", per(b.arena_bytes, records), "%.1f",
        o.smoke ? -1 : target_memory_per_record, "<=", -1);
    row("memory B/record, loaded", per(lp.arena_bytes, records), "%.1f",
        o.smoke ? -1 : target_memory_per_record, "<=", -1);
    row("file B/record, plain", per(plain_bytes, records), "%.1f", o.smoke ? -1 : target_file_per_record,
        "<=", peer.file_bytes < 0 ? -1 : peer.file_bytes / peer_records);
    row("file B/record, compressed", per(packed_bytes, records), "%.1f",
        o.smoke ? -1 : target_compressed_per_record, "<=", -1);
    if (!peer.ran)
        printf("peer not run: %s\n", peer.why.c_str());
    else
        printf("peer: plocate-build -p over %llu paths; its file figure is bytes per path\n",
               (unsigned long long) peer.paths);

    bool ok = counts_ok && sp.ok && sc.ok && lp.ok && lc.ok;
    if (!(sp.ok && sc.ok && lp.ok && lc.ok))
        printf("a save or load failed, or a load gave other counts than the build: see above\n");
    for (const std::string &f : made)
        os_file_delete(f.c_str());
    if (r.cleanup)
        os_folder_delete(r.out_dir.c_str());
    config_kill();
    return ok ? 0 : 1;
}
