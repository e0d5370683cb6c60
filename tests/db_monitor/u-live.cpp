// A real folder changed by a script while the index follows it, by listening and by a rescan: once the
// monitor has settled, the index equals a fresh build of the folder (paths, sizes, dates, attributes) and
// an open query equals a fresh search. A burst of changes that the monitor can't keep up with overflows
// the watch and, with rescan_if_full, ends in a rescan that brings the index back all the same.
#include "monitor_fixture.h"

#include "db/dbfile.h"
#include "db_monitor/monitor_internal.h"
#include "db_query/db_query.h"

namespace {

void query_proc(void *, int, db_query_t *) {}

std::vector<std::string> results(db_query_t *q) {
    std::vector<std::string> out;
    str_t s;
    str_init(&s);
    for (int i = 0; i < db_get_result_count(q); i++) {
        db_get_result_full_path_name(q, i, &s);
        out.push_back(str_of(&s));
    }
    str_kill(&s);
    return out;
}

// A change as a user retries it: under Wine a folder that the listener is reading through at that moment
// refuses to be renamed or deleted for a moment.
template <typename F>
void retry(const char *what, const std::string &path, F change) {
    std::error_code ec;
    for (int i = 0; i < 100; i++) {
        ec.clear();
        change(ec);
        if (!ec) {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << "can't " << what << " " << path << ": " << ec.message();
}

void rename_retry(const std::string &from, const std::string &to) {
    retry("rename", from, [&](std::error_code &ec) { fs::rename(from, to, ec); });
}

void remove_all_retry(const std::string &path) {
    retry("remove", path, [&](std::error_code &ec) { fs::remove_all(path, ec); });
}

class LiveTest : public MonitorTest {
  protected:
    db_query_t *query = nullptr;
    os_event_t *gate = nullptr;

    void TearDown() override {
        if (gate) {
            os_event_set(gate);
        }
        if (query) {
            db_destroy_query(query);
        }
        db_folder_sources_kill(db);
        rdc_read_gate = nullptr;
        if (gate) {
            os_event_destroy(gate);
        }
        rdc_dirwatch_flags = 0;
        // Windows won't delete a read-only file: the scratch folder must go for the next test of this name.
        if (fs::exists(at("t/a/f4"))) {
            os_set_file_attributes(at("t/a/f4").c_str(), 0);
        }
        MonitorTest::TearDown();
    }

    void search(db_query_t *q) {
        db_query_search(q, false, false, false, false, false, false, false, "f", 0, "", 0, 0, 0, false);
        db_wait(db, "test");
        event_dispatch();
    }

    void make_tree() {
        for (int i = 0; i < 12; i++) {
            file("t/a/f" + std::to_string(i), std::string((size_t) i, 'x'));
        }
        file("t/b/g.txt", "g");
        file("t/old/x/y/f.txt", "old");
        file("t/old/f2", "old");
    }

    // Creates, writes, renames, moves across folders, deletes, changes attributes and times, makes and
    // removes whole subtrees.
    void change_tree() {
        for (int i = 0; i < 20; i++) {
            file("t/new/n" + std::to_string(i) + ".txt", std::to_string(i));
        }
        file("t/a/f0", "written again, longer");
        rename_retry(at("t/a/f1"), at("t/a/f1-renamed"));
        rename_retry(at("t/a/f2"), at("t/b/f2-moved"));
        fs::remove(at("t/a/f3"));
        os_set_file_attributes(at("t/a/f4").c_str(), OS_ATTR_READONLY);
        os_file_t h = os_file_open(at("t/a/f5").c_str(), OS_OPEN_WRITE);
        os_file_set_times(h, UINT64_MAX, UINT64_MAX, test_date);
        os_file_close(h);
        file("t/sub/x/y/z/deep.txt", "deep");
        file("t/sub/x/f.txt", "f");
        remove_all_retry(at("t/old"));
        rename_retry(at("t/b"), at("t/c"));
        rename_retry(at("t/c"), at("t/a/c"));
        fs::remove(at("t/new/n7.txt"));
        file("t/new/n7.txt", "again");
    }

    // Waits until the index holds want, running the main thread's events as the loop would; then the open
    // query must equal a fresh search on the same index.
    void expect_settled_on(const snapshot_t &want) {
        bool same = pump_until([&] { return !db_folder_rescan_running(db) && snapshot(db) == want; }, 60000);
        snapshot_t got = snapshot(db);
        EXPECT_TRUE(same) << diff(got, want);
        db_query_t *again = db_query_create(db, false, query_proc, nullptr);
        search(again);
        EXPECT_EQ(results(query), results(again));
        EXPECT_GT(results(again).size(), 10u);
        db_destroy_query(again);
    }

    const uint64_t test_date = 132000000000000000ull;
};

TEST_F(LiveTest, ListeningKeepsTheIndexEqualToTheFolder) {
    if (!watch_sees_existing_folders()) {
        GTEST_SKIP() << "this platform's tree watch misses changes in folders older than the watch";
    }
    make_tree();
    folder_source("t", true);
    rebuild();
    query = db_query_create(db, false, query_proc, nullptr);
    search(query);
    change_tree();
    expect_settled_on(fresh());
}

// The same script on a tree that is made while the listener runs: every folder is younger than the watch,
// which every platform's watch follows.
TEST_F(LiveTest, ListeningFollowsATreeMadeAfterTheStart) {
    fs::create_directories(at("t"));
    folder_source("t", true);
    rebuild();
    query = db_query_create(db, false, query_proc, nullptr);
    search(query);
    make_tree();
    // The tree is in before the script changes it: Wine's watch may report a file made just before its
    // folder is renamed under the folder's new name, so the two must not overlap there.
    expect_settled_on(fresh());
    change_tree();
    expect_settled_on(fresh());
}

TEST_F(LiveTest, RescanKeepsTheIndexEqualToTheFolder) {
    make_tree();
    folder_source("t", false);
    rebuild();
    query = db_query_create(db, false, query_proc, nullptr);
    search(query);
    change_tree();
    EXPECT_EQ(db_folders_update_now(db, nullptr), 1);
    expect_settled_on(fresh());
}

TEST_F(LiveTest, OverflowEndsInARescanWithRescanIfFull) {
    make_tree();
    folder_source("t", true, 1);
    // The smallest buffer a read takes: ReadDirectoryChangesW overflows as soon as more is waiting.
    config_folders.items[0].buffer_size = 4096;
    rebuild();
    query = db_query_create(db, false, query_proc, nullptr);
    search(query);
    // A folder younger than the watch, which every platform's watch reports entry by entry, and which the
    // index holds before the burst begins.
    fs::create_directories(at("t/burst"));
    ASSERT_TRUE(pump_until([&] { return db_folder_find_by_path(db, at("t/burst").c_str()) != 0; }));
    // The log tells whether the watch overflowed and the rescan ran.
    std::string log = at("log.txt");
    ASSERT_TRUE(debug_open_log_path(log.c_str()));
    gate = os_event_create(false);
    rdc_read_gate = gate;
    // Let the monitor thread come round to the gate; what happens now waits in the watch.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    change_tree();
#ifdef _WIN32
    const int burst = 3000;
#else
    const int burst = 20000; // more than the kernel queues by default
#endif
    for (int i = 0; i < burst; i++) {
        std::ofstream(at("t/burst/f" + std::to_string(i))) << "";
    }
    os_event_set(gate);
    expect_settled_on(fresh());
    debug_close_log();
    std::ifstream in(log);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("need to rescan 1 "), std::string::npos);
    EXPECT_NE(text.find("rescan update db"), std::string::npos);
}

// The index file saved at exit holds what changed since the build, and the next start loads it and leaves a
// source that isn't due alone.
TEST_F(LiveTest, SavedIndexHoldsTheChangesAndTheNextLoadDoesntRescan) {
    folder_update_rescan_asap = 0;
    std::string file_name = at("index.db");
    db_file_set_command_line(file_name.c_str(), nullptr, false, false);
    make_tree();
    folder_source("t", false);
    rebuild();
    query = db_query_create(db, false, query_proc, nullptr);
    search(query);
    change_tree();
    snapshot_t want = fresh();
    db_folders_update_now(db, nullptr);
    expect_settled_on(want);
    uint64_t next = source()->next_update;
    EXPECT_GT(next, os_filetime_now());
    db_save(db, false);

    db_t *again = db_create(nullptr);
    db_load(again, 0);
    for (int i = 0; i < 20 && (db_job_running(again) || !again->is_loaded); i++) {
        db_wait(again, "test");
        event_dispatch();
    }
    EXPECT_EQ(snapshot(again), want) << diff(snapshot(again), want);
    db_fs_t *fs = again->fs_first;
    while (fs && fs->type != DB_FS_FOLDER) {
        fs = fs->next;
    }
    ASSERT_TRUE(fs);
    EXPECT_EQ(fs->next_update, next);
    db_folders_check_for_updates(again);
    EXPECT_FALSE(db_folder_rescan_running(again)) << "not due: no rescan at start";
    db_folder_sources_kill(again);
    db_destroy(again);
    event_dispatch();
    db_file_set_command_line(nullptr, nullptr, false, false);
}

} // namespace
