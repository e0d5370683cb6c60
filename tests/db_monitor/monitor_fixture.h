// Shared helpers of the folder source tests: a folder source in the settings, the index read back as a
// map of paths to their values, and the same map from a fresh build of the same settings, which is what
// every change applied live must come back to.
#pragma once

#include <chrono>
#include <map>
#include <thread>
#include <tuple>

#include "db_create/build_fixture.h"
#include "db_monitor/db_monitor.h"
#include "db_monitor/db_monitor_internal.h"
#include "db_update/db_update.h"
#include "os/os_dirwatch.h"

// folder?, size, date modified, attributes: what a rescan or a change brings into a record.
typedef std::tuple<bool, uint64_t, uint64_t, uint64_t> values_t;
typedef std::map<std::string, values_t> snapshot_t;

inline snapshot_t snapshot(db_t *db) {
    snapshot_t out;
    for (int pass = 0; pass < 2; pass++) {
        bool folder = pass == 0;
        const mem_array_t *a = folder ? &db->folders : &db->files;
        int c = 0, pos = -1;
        for (db_ref_t r; (r = mem_array_next(a, &c, &pos));) {
            auto get = folder ? db_folder_get : db_file_get;
            out[path_of(r)] = values_t(folder, get(db, r, DB_FIELD_SIZE), get(db, r, DB_FIELD_DATE_MODIFIED),
                                       get(db, r, DB_FIELD_ATTRIBUTES));
        }
    }
    return out;
}

// Readable differences for a failure message.
inline std::string diff(const snapshot_t &a, const snapshot_t &b) {
    std::string out;
    for (auto &[k, v] : a) {
        auto it = b.find(k);
        if (it == b.end()) {
            out += "  only in index: " + k + "\n";
        } else if (it->second != v) {
            out += "  values differ: " + k + " size " + std::to_string(std::get<1>(v)) + "/" +
                   std::to_string(std::get<1>(it->second)) + " date " + std::to_string(std::get<2>(v)) + "/" +
                   std::to_string(std::get<2>(it->second)) + "\n";
        }
    }
    for (auto &[k, v] : b) {
        if (!a.count(k)) {
            out += "  only in fresh build: " + k + "\n";
        }
    }
    return out;
}

class MonitorTest : public BuildTest {
  protected:
    void SetUp() override {
        BuildTest::SetUp();
        if (getenv("SW_TEST_LOG")) {
            debug_open_log_path(getenv("SW_TEST_LOG"));
        }
        // The schedule is driven by the tests; folder sizes and every value the rescan compares are kept.
        index_folder_size = 1;
        index_attributes = 1;
        index_date_created = 0;
        // No scheduled rescan may mend what a test expects the listener to do.
        saved_tick_ms = db_folder_tick_ms;
        db_folder_tick_ms = 3600000;
    }
    void TearDown() override {
        db_folder_sources_kill(db);
        db_folder_tick_ms = saved_tick_ms;
        BuildTest::TearDown();
    }
    uint32_t saved_tick_ms = 0;

    // Whether the platform's tree watch reports a change in a folder that existed before the watch was
    // made. Windows does; Wine 8's ReadDirectoryChangesW reports only the top folder and folders made
    // after the watch, so that a tree that already has folders can't be followed by listening there.
    bool watch_sees_existing_folders() {
        file("probe/a/f", "x");
        os_dirwatch_t *w = os_dirwatch_create(at("probe").c_str(), 65536, 0);
        if (!w) {
            return false;
        }
        file("probe/a/f", "written");
        bool seen = false;
        for (int i = 0; i < 40 && !seen; i++) {
            os_dirwatch_read(
                w, [](void *ctx, const os_dirwatch_entry_t *) { *(bool *) ctx = true; }, &seen);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        os_dirwatch_destroy(w);
        fs::remove_all(at("probe"));
        return seen;
    }

    void folder_source(const std::string &rel, bool monitor, int rescan_if_full = 0) {
        add_folder_source(at(rel));
        config_folder_t *f = &config_folders.items[config_folders.count - 1];
        f->monitor = monitor ? 1 : 0;
        f->rescan_if_full = rescan_if_full;
    }

    // What a new index of the same settings holds now.
    snapshot_t fresh() {
        db_t *other = db_create(nullptr);
        db_rebuild(other, true);
        db_wait(other, "test");
        event_dispatch();
        snapshot_t s = snapshot(other);
        db_folder_sources_kill(other);
        db_destroy(other);
        event_dispatch();
        return s;
    }

    db_fs_t *source(int i = 0) {
        db_fs_t *fs = db->fs_first;
        for (; fs && (fs->type != DB_FS_FOLDER || i-- > 0); fs = fs->next) {
        }
        return fs;
    }

    void rescan(db_fs_t *fs) {
        scan_result_t r;
        scan_result_init(&r);
        db_folder_rescan_scan(db, fs, &r);
        db_folder_rescan_apply(db, fs, &r);
        scan_result_kill(&r);
    }

    // Runs the main thread's events until done() holds; false after about 20 seconds.
    template <typename F>
    bool pump_until(F done, int ms = 20000) {
        for (int i = 0; i < ms / 5; i++) {
            event_dispatch();
            if (done()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }
};
