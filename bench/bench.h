// What the benchmarks share: where their data lives and how an index is pointed at one list.
#pragma once

#include <cstdlib>
#include <string>

#include "config/config.h"
#include "mem/mem.h"

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
// win over the defaults (a structure without some sorted arrays, say).
inline void bench_configure_list(const std::string &swl, const std::string &extra = "") {
    str_t item;
    str_init(&item);
    config_list_cat_item(&item, swl.c_str(), true, true);
    std::string text = "[Sablewatch]\nfilelists=" + std::string(item.ptr, (size_t) item.len) +
                       "\nfilelist_monitor_changes=0\n" + extra;
    str_kill(&item);
    ini_t *ini = ini_parse(text.c_str(), "Sablewatch");
    config_load_ini(ini, false, false);
    ini_free(ini);
}
