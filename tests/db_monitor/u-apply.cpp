// The apply step's rules, one event at a time on a real folder: each type brings the index to the disk, a
// rename from an excluded name is an add, and a change heard during a rescan of its source waits for the
// rescan, then applies on top of it.
#include "monitor_fixture.h"

#include "db_monitor/monitor_internal.h"

namespace {

class ApplyTest : public MonitorTest {
  protected:
    // An event as the listener makes it, fetched as the details thread would, applied as the main thread
    // does.
    void apply(uint32_t type, const std::string &path, const std::string &old_path = "") {
        rdc_event_t *e = rdc_event_new(source(), nullptr, type, path.c_str(),
                                       old_path.empty() ? nullptr : old_path.c_str(), false);
        rdc_event_fetch(db, e);
        rdc_event_apply(db, e);
        rdc_event_free(e);
    }
    void queue_ready(uint32_t type, const std::string &path) {
        rdc_event_t *e = rdc_event_new(source(), nullptr, type, path.c_str(), nullptr, false);
        rdc_event_fetch(db, e);
        db_folder_state_t *st = db_folder_state(db);
        os_lock_guard guard(&db->monitor_lock);
        rdc_queue_push(&st->ready, e);
    }
};

TEST_F(ApplyTest, EachEventTypeBringsTheIndexToTheDisk) {
    file("t/a.txt", "a");
    file("t/d/b.txt", "b");
    folder_source("t", false);
    rebuild();

    file("t/new.txt", "new");
    apply(RDC_ADDED, at("t/new.txt"));
    file("t/a.txt", "grown");
    apply(RDC_MODIFIED, at("t/a.txt"));
    fs::remove(at("t/d/b.txt"));
    apply(RDC_REMOVED, at("t/d/b.txt"));
    // A folder that arrives full: what it holds comes with it.
    file("elsewhere/m/n/o.txt", "o");
    fs::rename(at("elsewhere/m"), at("t/m"));
    apply(RDC_ADDED, at("t/m"));
    fs::rename(at("t/d"), at("t/m/d2"));
    apply(RDC_RENAMED_NEW, at("t/m/d2"), at("t/d"));
    // An unknown path that is modified is added.
    file("t/unheard.txt", "u");
    apply(RDC_MODIFIED, at("t/unheard.txt"));

    snapshot_t want = fresh();
    EXPECT_EQ(snapshot(db), want) << diff(snapshot(db), want);
}

TEST_F(ApplyTest, RenameFromAnExcludedNameIsAnAdd) {
    set_text(&exclude_files, "*.tmp");
    file("t/download.tmp", "payload");
    folder_source("t", false);
    rebuild();
    ASSERT_FALSE(db_file_find_by_path(db, at("t/download.tmp").c_str()));
    fs::rename(at("t/download.tmp"), at("t/download.zip"));
    apply(RDC_RENAMED_NEW, at("t/download.zip"), at("t/download.tmp"));
    db_ref_t r = db_file_find_by_path(db, at("t/download.zip").c_str());
    ASSERT_TRUE(r);
    EXPECT_EQ(db_file_get(db, r, DB_FIELD_SIZE), 7u);
    snapshot_t want = fresh();
    EXPECT_EQ(snapshot(db), want) << diff(snapshot(db), want);
}

TEST_F(ApplyTest, ChangeHeardDuringARescanIsHeldThenAppliedOnTop) {
    file("t/a.txt", "a");
    folder_source("t", false);
    rebuild();
    db_folder_state_t *st = db_folder_state(db);
    event_dispatch();
    ASSERT_TRUE(db_folder_rescan_start(db, source()));
    // The scan is done (its end is posted, not yet run) before the change happens: it can't have seen it.
    for (int i = 0; i < 4000 && !event_pending_count(); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(event_pending_count() > 0);
    ASSERT_TRUE(st->scan_result);
    file("t/late.txt", "late");
    queue_ready(RDC_ADDED, at("t/late.txt"));
    db_monitor_folder_read_directory_changes_update(db);
    EXPECT_TRUE(st->held.first) << "held while its source's rescan is pending";
    EXPECT_FALSE(db_file_find_by_path(db, at("t/late.txt").c_str()));

    ASSERT_TRUE(pump_until([&] { return !db_folder_rescan_running(db); }));
    EXPECT_FALSE(st->held.first);
    EXPECT_TRUE(db_file_find_by_path(db, at("t/late.txt").c_str()));
    snapshot_t want = fresh();
    EXPECT_EQ(snapshot(db), want) << diff(snapshot(db), want);
}

} // namespace
