// What the benchmarks share: where their data lives and how an index is pointed at one list.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <chrono>

#include "config/config.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/arena.h"
#include "mem/mem.h"
#include "os/os.h"
#include "text/text.h"

// This folder, where corpus.sh puts its data; SW_SOURCE_DIR wins when set (ctest sets it).
inline std::string bench_folder() {
    const char *root = getenv("SW_SOURCE_DIR");
    if (root && *root)
        return std::string(root) + "/bench";
    std::string here = __FILE__;
    size_t cut = here.find_last_of("/\\");
    return cut == std::string::npos ? std::string("bench") : here.substr(0, cut);
}

// Points the settings at one list, as a user's settings file would, and nothing else: no volumes, no
// folders, the default structure, no list monitor. extra: more settings lines ("name=value\n"), which
// win over the defaults (a structure without some sorted arrays, say). A relative path is made absolute
// first: the settings take lists by full path, and a relative one would give an empty index, not an error.
inline void bench_configure_list(const std::string &swl, const std::string &extra = "") {
    std::string full = std::filesystem::absolute(swl).lexically_normal().string();
    // A list that isn't there would build an empty index, and every figure would then measure nothing.
    if (!std::filesystem::is_regular_file(full)) {
        fprintf(stderr, "no file list at %s (see bench/README.md for making the corpus)\n", full.c_str());
        exit(2);
    }
    str_t item;
    str_init(&item);
    config_list_cat_item(&item, full.c_str(), true, true);
    std::string text = "[Sablewatch]\nfilelists=" + std::string(item.ptr, (size_t) item.len) +
                       "\nfilelist_monitor_changes=0\n" + extra;
    str_kill(&item);
    ini_t *ini = ini_parse(text.c_str(), "Sablewatch");
    config_load_ini(ini, false, false);
    ini_free(ini);
}

// A field of /proc/self/status ("VmHWM", "VmRSS") in KiB, or -1 where the system has no such file: the
// figure then shows as not measured rather than as zero.
inline double bench_status_kib(const char *key) {
    FILE *f = fopen("/proc/self/status", "r");
    if (!f)
        return -1;
    char line[256];
    size_t klen = strlen(key);
    double value = -1;
    while (fgets(line, sizeof(line), f)) {
        if (strncmp(line, key, klen) == 0 && line[klen] == ':') {
            value = strtod(line + klen + 1, nullptr);
            break;
        }
    }
    fclose(f);
    return value;
}

inline double bench_status_mib(const char *key) {
    double kib = bench_status_kib(key);
    return kib < 0 ? -1 : kib / 1024.0;
}

// The program's own start-up as far as a benchmark needs it: log, platform layer, events, text tables,
// the record arena and the default settings. log: a debug log path, or empty for none.
inline void bench_start_up(const std::string &log) {
    debug_init();
    os_init();
    event_init();
    text_init_tables();
    mem_arena_init();
    config_defaults();
    if (!log.empty() && !debug_open_log_path(log.c_str()))
        fprintf(stderr, "could not open the log %s\n", log.c_str());
}

inline double bench_seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Resets the resident high-water mark so that each step reports its own peak. Writing 5 to clear_refs
// does exactly that on Linux; elsewhere the peak stays the process's.
inline void bench_reset_peak() {
    FILE *f = fopen("/proc/self/clear_refs", "w");
    if (f) {
        fputs("5", f);
        fclose(f);
    }
}

// Writes n generated paths twice: as a file list of paths alone (the index's input) and one per line (the
// input of plocate-build, the peer). path_of(i, buffer, size) writes path i into buffer.
template <typename PathOf>
inline void bench_write_lists(const std::string &swl, const std::string &paths, int n, PathOf path_of) {
    FILE *a = fopen(swl.c_str(), "wb"), *b = fopen(paths.c_str(), "wb");
    fprintf(a, "Filename,Size,Date Modified,Date Created,Attributes\n");
    for (int i = 0; i < n; i++) {
        char line[256];
        path_of(i, line, sizeof line);
        fprintf(a, "\"%s\",,,,\n", line);
        fprintf(b, "%s\n", line);
    }
    fclose(a), fclose(b);
}

// The lists of a smoke run: 20,000 paths in a few hundred folders under /tmp/<name>.swl and .paths.
inline void bench_smoke_lists(const char *name, std::string *swl, std::string *paths) {
    *swl = std::string("/tmp/") + name + ".swl", *paths = std::string("/tmp/") + name + ".paths";
    static const char *parts[] = {"usr", "share", "doc", "lib", "copyright", "libc.so", "liba.a", "README"};
    bench_write_lists(*swl, *paths, 20000, [](int i, char *line, size_t size) {
        snprintf(line, size, "/%s/%s/%s%d/%s%d", parts[i % 3], parts[(i / 3) % 4], parts[(i / 7) % 8], i % 97,
                 parts[3 + i % 5], i);
    });
}

// plocate's database of the same paths, in the benchmarks' data folder, made again only when the list is
// newer. Built with visibility checks off: plocate would otherwise report only the paths that exist on
// this machine, and answer a smaller question than the index does.
inline bool bench_peer_database(const std::string &paths, std::string *db_path) {
    size_t cut = paths.find_last_of('/');
    std::string base = paths.substr(cut == std::string::npos ? 0 : cut + 1);
    size_t dot = base.find_last_of('.');
    std::string dir = bench_folder() + "/data";
    *db_path = dir + "/" + (dot == std::string::npos ? base : base.substr(0, dot)) + ".peer.plocate.db";
    std::string cmd = "mkdir -p '" + dir + "' && { test '" + *db_path + "' -nt '" + paths +
                      "' || plocate-build -l no -p '" + paths + "' '" + *db_path + "' 2>/dev/null; }";
    return system(cmd.c_str()) == 0;
}
