// Shared helpers of the build tests: settings reset to the defaults with a scratch folder, sources added
// to the settings as the user would, a rebuild run to its end, and the index read back as paths.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "config/config.h"
#include "db/db.h"
#include "db_create/db_create.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"
#include "text/text.h"

namespace fs = std::filesystem;

inline std::string str_of(const str_t *s) {
    return std::string(s->ptr ? s->ptr : "", (size_t) s->len);
}

inline std::string path_of(db_ref_t r) {
    str_t s;
    str_init(&s);
    db_get_full_path(&s, r);
    std::string out = str_of(&s);
    str_kill(&s);
    return out;
}

inline std::vector<std::string> array_paths(const mem_array_t *a) {
    std::vector<std::string> out;
    int c = 0, pos = -1;
    for (db_ref_t r; (r = mem_array_next(a, &c, &pos));)
        out.push_back(path_of(r));
    return out;
}

template <typename T>
inline T *vec_push(config_vec_t<T> *v) {
    if (v->count == v->cap) {
        v->cap = v->cap ? v->cap * 2 : 4;
        v->items = (T *) mem_realloc(v->items, (size_t) v->cap * sizeof(T));
    }
    T *item = &v->items[v->count++];
    memset(item, 0, sizeof(T));
    return item;
}

// A path written with '/' in the platform's separator.
inline std::string sep(std::string s) {
    for (char &c : s)
        if (c == '/')
            c = OS_SEP;
    return s;
}

inline char *heap_text(const std::string &s) {
    return mem_dup(s.data(), s.size());
}

inline void set_text(char **setting, const std::string &s) {
    if (*setting != config_empty_text)
        mem_free(*setting);
    *setting = heap_text(s);
}

class BuildTest : public ::testing::Test {
  protected:
    std::string root;
    db_t *db = nullptr;

    void SetUp() override {
        static bool once = false;
        if (!once) {
            debug_init();
            text_init_tables();
            event_init();
            once = true;
        }
        os_hooks_reset();
        max_threads = 0;
        const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
        root = (fs::temp_directory_path() / (std::string("sw-build-") + info->test_suite_name() + "-" +
                                             info->name() + "-" + std::to_string(os_thread_id())))
                   .string();
        fs::remove_all(root);
        fs::create_directories(root);
        config_defaults();
        config_set_folders(root.c_str(), root.c_str());
        db = db_create(nullptr);
    }

    void TearDown() override {
        db_destroy(db);
        event_dispatch();
        config_kill();
        os_hooks_reset();
        max_threads = 0;
        db_ntfs_reader = nullptr;
        db_folder_scan = db_folder_scan_default;
        std::error_code ec;
        fs::remove_all(root, ec);
    }

    // A path below the scratch folder, written with '/' and given in the platform's separator.
    std::string at(const std::string &rel) { return sep(root + "/" + rel); }

    std::string file(const std::string &rel, const std::string &text = "") {
        fs::path p = fs::path(root) / rel;
        fs::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << text;
        return p.string();
    }

    void add_folder_source(const std::string &path) {
        config_folder_t *f = vec_push(&config_folders);
        f->path = heap_text(path);
        f->monitor = 1;
        f->buffer_size = 65536;
        f->update_type = 2;
        f->update_at = 3;
        f->update_interval = 6;
        f->update_interval_type = 1;
    }

    void add_filelist(const std::string &path) {
        config_filelist_t *f = vec_push(&config_filelists);
        f->filename = heap_text(path);
        f->monitor = 1;
    }

    void add_volume(const std::string &guid, const std::string &path, const std::string &root_setting = "",
                    const std::string &include_only = "") {
        config_volume_t *v = vec_push(&config_ntfs_volumes);
        v->guid = heap_text(guid);
        v->path = heap_text(path);
        v->root = heap_text(root_setting);
        v->include_only = heap_text(include_only);
        v->include = 1;
        v->monitor = 0;
    }

    // Runs a rebuild to its end, with the events that close it.
    void rebuild(bool mark_out_of_date = false) {
        db_rebuild(db, mark_out_of_date);
        db_wait(db, "test");
        event_dispatch();
        ASSERT_TRUE(db->is_loaded);
    }

    // Runs jobs and their end events as the main loop would, until the index is loaded with no job left.
    // False when it hasn't settled after that many rounds: a rebuild that starts another as it ends.
    bool settle(int rounds = 20) {
        for (int i = 0; i < rounds && (db_job_running(db) || !db->is_loaded); i++) {
            db_wait(db, "test");
            event_dispatch();
        }
        return db->is_loaded && !db_job_running(db);
    }

    std::set<std::string> folder_set() {
        auto v = array_paths(&db->folders);
        return std::set<std::string>(v.begin(), v.end());
    }
    std::set<std::string> file_set() {
        auto v = array_paths(&db->files);
        return std::set<std::string>(v.begin(), v.end());
    }
};
