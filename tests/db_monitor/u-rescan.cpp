// A rescan applied as differences, and the schedule that starts one: the index comes back to what a fresh
// build gives, the records that didn't change stay the same records, a folder that can't be read keeps
// its records, and of two sources due the earlier goes first and the other right after it.
#include "monitor_fixture.h"

namespace {

class RescanTest : public MonitorTest {};

TEST_F(RescanTest, AppliesOnlyTheDifferences) {
    file("t/keep.txt", "same");
    file("t/grow.txt", "a");
    file("t/gone.txt", "x");
    file("t/old/deep/a.txt", "1");
    file("t/old/deep/b.txt", "22");
    file("t/was-file", "f");
    file("t/sub/renamed-from.txt", "r");
    folder_source("t", false);
    rebuild();
    db_ref_t keep = db_file_find_by_path(db, at("t/keep.txt").c_str());
    db_ref_t sub = db_folder_find_by_path(db, at("t/sub").c_str());
    ASSERT_TRUE(keep && sub);

    file("t/grow.txt", "a longer text");
    fs::remove(at("t/gone.txt"));
    fs::remove_all(at("t/old"));
    file("t/new/one/x.txt", "xx");
    file("t/new/two.txt", "");
    fs::remove(at("t/was-file"));
    file("t/was-file/inside.txt", "i");
    fs::rename(at("t/sub/renamed-from.txt"), at("t/sub/renamed-to.txt"));

    rescan(source());
    snapshot_t want = fresh();
    snapshot_t got = snapshot(db);
    EXPECT_EQ(got, want) << diff(got, want);
    // Never a rebuild: what didn't change is the very same record.
    EXPECT_EQ(db_file_find_by_path(db, at("t/keep.txt").c_str()), keep);
    EXPECT_EQ(db_folder_find_by_path(db, at("t/sub").c_str()), sub);
    // Nothing left to do: a second rescan changes nothing.
    rescan(source());
    EXPECT_EQ(snapshot(db), want);
}

TEST_F(RescanTest, ExcludedNamesStayOutAsInABuild) {
    set_text(&exclude_files, "*.tmp");
    file("t/a.txt", "a");
    folder_source("t", false);
    rebuild();
    file("t/b.tmp", "b");
    file("t/c.txt", "c");
    rescan(source());
    snapshot_t want = fresh();
    EXPECT_EQ(snapshot(db), want) << diff(snapshot(db), want);
    EXPECT_FALSE(db_file_find_by_path(db, at("t/b.tmp").c_str()));
}

TEST_F(RescanTest, AFolderThatCantBeReadKeepsItsRecords) {
    file("t/a.txt", "a");
    folder_source("t", false);
    rebuild();
    snapshot_t before = snapshot(db);
    fs::rename(at("t"), at("moved"));
    rescan(source());
    EXPECT_EQ(snapshot(db), before);
}

// The check picks by update_now, then by the earliest time that has come, and each update's end checks
// again, so two due sources are updated one after the other.
TEST_F(RescanTest, CheckRunsTheEarliestDueSourceThenTheNext) {
    file("a/1.txt", "1");
    file("b/1.txt", "1");
    folder_source("a", false);
    folder_source("b", false);
    rebuild();
    db_fs_t *a = source(0), *b = source(1);
    ASSERT_TRUE(a && b);
    uint64_t now = os_filetime_now();
    a->next_update = now - 2000;
    b->next_update = now - 5000;
    file("a/2.txt", "2");
    file("b/2.txt", "2");
    db_folder_state_t *st = db_folder_state(db);

    db_folders_check_for_updates(db);
    EXPECT_EQ(st->scan_fs, b);
    EXPECT_GT(b->next_update, now) << "the next time is set as the update starts";
    // Busy with b: a waits.
    db_folders_check_for_updates(db);
    EXPECT_EQ(st->scan_fs, b);

    ASSERT_TRUE(pump_until([&] { return db_file_find_by_path(db, at("b/2.txt").c_str()) != 0; }));
    // Nothing here asks again: the end of b's update starts a's (which may be done already).
    EXPECT_TRUE(st->scan_fs == a || db_file_find_by_path(db, at("a/2.txt").c_str()));
    ASSERT_TRUE(pump_until([&] { return !db_folder_rescan_running(db); }));
    EXPECT_TRUE(db_file_find_by_path(db, at("a/2.txt").c_str()));
    EXPECT_GT(a->next_update, now);
}

TEST_F(RescanTest, CheckWaitsForAnIdleIndexAndUpdateNowWinsOverTime) {
    file("a/1.txt", "1");
    file("b/1.txt", "1");
    folder_source("a", false);
    folder_source("b", false);
    rebuild();
    db_fs_t *a = source(0), *b = source(1);
    a->next_update = 1; // long due
    b->next_update = os_filetime_now() + 36000000000ull;

    db->busy = 1;
    db_folders_check_for_updates(db);
    EXPECT_FALSE(db_folder_rescan_running(db));
    EXPECT_TRUE(db->folder_update_pending);
    db->busy = 0;

    EXPECT_EQ(db_folders_update_now(db, at("b").c_str()), 1);
    db_folder_state_t *st = db_folder_state(db);
    EXPECT_EQ(st->scan_fs, b);
    EXPECT_FALSE(b->update_now);
    ASSERT_TRUE(pump_until([&] { return st->scan_fs == a || !db_folder_rescan_running(db); }));
    ASSERT_TRUE(pump_until([&] { return !db_folder_rescan_running(db); }));
}

TEST_F(RescanTest, NoScheduleMeansNoUpdateUntilAsked) {
    file("a/1.txt", "1");
    folder_source("a", false);
    config_folders.items[0].update_interval_type = 2;
    config_folders.items[0].update_type = 1;
    rebuild();
    db_fs_t *a = source(0);
    EXPECT_EQ(a->update_type, (uint32_t) DB_UPDATE_NONE);
    db_folders_check_for_updates(db);
    EXPECT_FALSE(db_folder_rescan_running(db));
    EXPECT_EQ(db_folder_rescan_all(db), 1);
    EXPECT_TRUE(db_folder_rescan_running(db));
    ASSERT_TRUE(pump_until([&] { return !db_folder_rescan_running(db); }));
}

} // namespace

namespace {

std::string read_text(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// At the end of a session the update under way, and each one it leads to, is applied before the save.
TEST_F(RescanTest, FinishAppliesEveryUpdateAskedFor) {
    file("a/1.txt", "1");
    file("b/1.txt", "1");
    folder_source("a", false);
    folder_source("b", false);
    rebuild();
    file("a/2.txt", "2");
    file("b/2.txt", "2");
    EXPECT_EQ(db_folders_update_now(db, nullptr), 2);
    EXPECT_TRUE(db_folder_rescan_running(db));
    db_folders_update_finish(db);
    EXPECT_FALSE(db_folder_rescan_running(db));
    EXPECT_FALSE(source(0)->update_now || source(1)->update_now);
    snapshot_t want = fresh();
    EXPECT_EQ(snapshot(db), want) << diff(snapshot(db), want);
}

// -rescan-all at start meets an index that is still loading: its folder sources are rescanned once it is.
TEST_F(RescanTest, RescanAllWhileLoadingRunsOnceLoaded) {
    file("a/1.txt", "1");
    folder_source("a", false);
    rebuild();
    std::string log = at("log.txt");
    ASSERT_TRUE(debug_open_log_path(log.c_str()));
    db_rebuild(db, true);
    EXPECT_EQ(db_folder_rescan_all(db), 0) << "nothing to mark before the load ends";
    ASSERT_TRUE(settle());
    ASSERT_TRUE(pump_until([&] { return !db_folder_rescan_running(db); }));
    debug_close_log();
    std::string text = read_text(log);
    EXPECT_NE(text.find("update folder start " + at("a")), std::string::npos);
    EXPECT_NE(text.find("leave folder update"), std::string::npos);
}

} // namespace
