// The file-list monitor against real lists and real change notifications: an index built from a list,
// the list rewritten, touched, removed and restored, and the main thread's queue pumped as the main loop
// would, until the check has run and the rebuild it asked for has read the list again.
#include "build_fixture.h"

#include <chrono>
#include <functional>

#include "db/dbfile.h"
#include "db_create/filelist_monitor.h"

class MonitorTest : public BuildTest {
  protected:
    std::string log_path;
    std::string list;  // the list file the index is built from
    std::string items; // the folder its rows name

    void SetUp() override {
        BuildTest::SetUp();
        log_path = at("log.txt");
        debug_open_log_path(log_path.c_str());
        fs::create_directories(at("lists"));
        list = at("lists/a.swl");
        items = at("items");
        fs::create_directories(items);
    }
    void TearDown() override {
        db_filelists_monitor_stop(db);
        read_only = false;
        monitor_pause = 0;
        debug_close_log();
        BuildTest::TearDown();
    }

    std::string logged() {
        std::ifstream in(log_path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    static size_t count_of(const std::string &text, const std::string &what) {
        size_t n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
            n++;
        }
        return n;
    }
    // The text of a list naming these files of the items folder.
    std::string list_text(const std::vector<std::string> &names) {
        std::string text = "Filename,Size\r\n";
        for (const std::string &n : names) {
            text += "\"";
            text += items + OS_SEP_STR + n;
            text += "\",1\r\n";
        }
        return text;
    }
    // Replaces the list in one step, as an editor that saves through a temporary file does, so that the
    // rebuild never reads it half-written. Its date moves by shift from what it was.
    void replace_list(const std::vector<std::string> &names, std::chrono::seconds shift) {
        auto before = fs::last_write_time(list);
        std::string tmp = at("list.tmp");
        std::ofstream(tmp, std::ios::binary) << list_text(names);
        fs::last_write_time(tmp, before + shift);
        fs::rename(tmp, list);
    }
    // Runs the main thread's events until cond holds; false after ten seconds.
    bool pump_until(const std::function<bool()> &cond) {
        for (int i = 0; i < 1000; i++) {
            event_dispatch();
            if (cond()) {
                return true;
            }
            os_sleep_ms(10);
        }
        return false;
    }
    // Lets a rebuild that a check asked for run to its end.
    void finish_rebuild() {
        for (int i = 0; i < 100 && !db->is_loaded; i++) {
            db_wait(db, "test");
            event_dispatch();
        }
        ASSERT_TRUE(db->is_loaded);
    }
    std::set<std::string> item_paths(const std::vector<std::string> &names) {
        std::set<std::string> s;
        for (const std::string &n : names) {
            s.insert(items + OS_SEP_STR + n);
        }
        return s;
    }
    db_fs_t *list_source() {
        for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
            if (fs->type == DB_FS_FILE_LIST) {
                return fs;
            }
        }
        return nullptr;
    }
    void build_from(const std::vector<std::string> &names, bool monitor = true) {
        std::ofstream(list, std::ios::binary) << list_text(names);
        add_filelist(list);
        config_filelists.items[config_filelists.count - 1].monitor = monitor;
        rebuild();
        ASSERT_EQ(file_set(), item_paths(names));
        // The index's ready step starts the monitor, with its check at once.
        ASSERT_EQ(db->filelist_monitor != nullptr, monitor);
        ASSERT_TRUE(db->filelist_check_made);
    }
};

TEST_F(MonitorTest, ListReplacedIsReadAgain) {
    build_from({"one.txt"});
    ASSERT_NE(db->filelist_monitor, nullptr);
    // The check at start finds nothing: the list is as it was read.
    EXPECT_TRUE(db->filelist_check_made);
    EXPECT_EQ(count_of(logged(), "check for file list changes\r\n"), 1u);
    EXPECT_EQ(count_of(logged(), "filelist out of date"), 0u);
    ASSERT_TRUE(pump_until([&] { return count_of(logged(), "wait for change notification 2\r\n") > 0; }));

    size_t before = logged().size();
    replace_list({"two.txt", "three.txt"}, std::chrono::seconds(10));
    ASSERT_TRUE(pump_until([&] { return count_of(logged(), "filelist out of date\r\n") == 1; })) << logged();
    // The check stopped the monitor before the rebuild replaced the sources it watches.
    EXPECT_EQ(db->filelist_monitor, nullptr);
    finish_rebuild();
    std::string after = logged().substr(before);
    EXPECT_EQ(count_of(after, "using existing filelist index"), 0u) << "a marked list is read again\n"
                                                                    << after;
    EXPECT_NE(after.find("checked for file list changes in "), std::string::npos);
    EXPECT_EQ(file_set(), item_paths({"two.txt", "three.txt"}));
}

TEST_F(MonitorTest, DateDecidesNotTheNotification) {
    build_from({"one.txt"});
    ASSERT_NE(db->filelist_monitor, nullptr);
    // Another file beside the list wakes the monitor, but the list's date is unchanged.
    std::ofstream(at("lists/other.txt")) << "x";
    ASSERT_TRUE(pump_until([&] { return count_of(logged(), "check for file list changes\r\n") >= 2; }));
    EXPECT_EQ(count_of(logged(), "filelist out of date"), 0u);
    EXPECT_NE(db->filelist_monitor, nullptr);
    EXPECT_TRUE(db->is_loaded);
    EXPECT_FALSE(list_source()->out_of_date);
}

TEST_F(MonitorTest, ChangesWhileOffAreFoundAtStart) {
    build_from({"one.txt"}, false);
    replace_list({"four.txt"}, std::chrono::seconds(5));
    db_filelists_monitor_start(db);
    // Not monitored: no thread, but the check at start runs all the same.
    EXPECT_EQ(db->filelist_monitor, nullptr);
    EXPECT_EQ(count_of(logged(), "filelist out of date\r\n"), 1u);
    finish_rebuild();
    EXPECT_EQ(file_set(), item_paths({"four.txt"}));
}

TEST_F(MonitorTest, VanishedListIsNoChangeAndAnOlderDateIs) {
    build_from({"one.txt", "two.txt"}, false);
    db_fs_t *src = list_source();
    ASSERT_NE(src, nullptr);
    EXPECT_FALSE(_db_filelists_is_change(db));

    std::string kept = at("kept.swl");
    fs::rename(list, kept);
    EXPECT_FALSE(_db_filelists_is_change(db)) << "a list that has gone keeps its records";
    EXPECT_FALSE(src->out_of_date);

    // Back, with a date before the one saved: any difference counts.
    fs::last_write_time(kept, fs::last_write_time(kept) - std::chrono::hours(24));
    fs::rename(kept, list);
    EXPECT_TRUE(_db_filelists_is_change(db));
    EXPECT_TRUE(src->out_of_date);
    // Marked once: the next check passes over it.
    EXPECT_FALSE(_db_filelists_is_change(db));
    EXPECT_EQ(count_of(logged(), "filelist out of date\r\n"), 1u);
}

TEST_F(MonitorTest, ListTouchedToAnOlderDateWakesTheMonitor) {
    build_from({"one.txt"});
    ASSERT_TRUE(pump_until([&] { return count_of(logged(), "wait for change notification 2\r\n") > 0; }));
    // Only the date changes, backwards, through the file's own handle.
    os_file_info_t info;
    ASSERT_TRUE(os_get_file_info(list.c_str(), &info));
    os_file_t f = os_file_open(list.c_str(), OS_OPEN_WRITE);
    ASSERT_NE(f, OS_FILE_INVALID);
    ASSERT_TRUE(os_file_set_times(f, UINT64_MAX, UINT64_MAX, info.date_modified - 3600ull * 10000000ull));
    os_file_close(f);
    ASSERT_TRUE(pump_until([&] { return count_of(logged(), "filelist out of date\r\n") == 1; })) << logged();
    finish_rebuild();
    EXPECT_EQ(file_set(), item_paths({"one.txt"}));
}

TEST_F(MonitorTest, StopRemovesAPendingCheck) {
    build_from({"one.txt"});
    ASSERT_TRUE(pump_until([&] { return count_of(logged(), "wait for change notification 2\r\n") > 0; }));
    std::ofstream(at("lists/other.txt")) << "x";
    // Wait for the monitor's post without running it.
    for (int i = 0; i < 1000 && event_pending_count() == 0; i++) {
        os_sleep_ms(10);
    }
    ASSERT_GT(event_pending_count(), 0);
    db_filelists_monitor_stop(db);
    EXPECT_EQ(event_pending_count(), 0);
    EXPECT_EQ(db->filelist_monitor, nullptr);
    EXPECT_EQ(list_source()->change_handle, nullptr);
}

TEST_F(MonitorTest, ReadOnlyStartsNothing) {
    build_from({"one.txt"});
    size_t checks = count_of(logged(), "check for file list changes\r\n");
    read_only = true;
    replace_list({"two.txt"}, std::chrono::seconds(5));
    db->filelist_check_made = false;
    // A start under -read-only only stops what runs.
    db_filelists_monitor_start(db);
    EXPECT_EQ(db->filelist_monitor, nullptr);
    EXPECT_FALSE(db->filelist_check_made);
    EXPECT_EQ(count_of(logged(), "check for file list changes\r\n"), checks);
    EXPECT_EQ(list_source()->change_handle, nullptr);
}

TEST_F(MonitorTest, OneWaitTakesAtMostSixtyFourHandles) {
    // 70 monitored lists: the stop object and 63 watches fill the wait; the rest wait for the time-out.
    std::ofstream(list, std::ios::binary) << list_text({"one.txt"});
    for (int i = 0; i < 70; i++) {
        std::string l = at("lists/l" + std::to_string(i) + ".swl");
        fs::copy_file(list, l);
        add_filelist(l);
    }
    rebuild();
    ASSERT_NE(db->filelist_monitor, nullptr);
    ASSERT_TRUE(pump_until([&] { return count_of(logged(), "wait for change notification ") > 0; }));
    EXPECT_EQ(count_of(logged(), "wait for change notification 64\r\n"), 1u) << logged();
    int handles = 0;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        handles += fs->change_handle != nullptr;
    }
    EXPECT_EQ(handles, 63);
}

// The list is edited while nothing watches it, then a rebuild that re-uses its records runs (a new
// sorted array); the edit must still be found afterwards, by the date saved at the list's last read.
TEST_F(MonitorTest, ListEditedWithItsMonitorOffSurvivesARebuildThatReusesIt) {
    build_from({"one.txt"}, false);
    replace_list({"two.txt"}, std::chrono::seconds(5));
    fast_extension_sort = 1;
    db_rebuild(db, false);
    ASSERT_TRUE(settle());
    EXPECT_EQ(file_set(), item_paths({"two.txt"})) << logged();
}

TEST_F(MonitorTest, ListEditedWhileMonitoringIsPausedSurvivesARebuildThatReusesIt) {
    monitor_pause = 1;
    std::ofstream(list, std::ios::binary) << list_text({"one.txt"});
    add_filelist(list);
    rebuild();
    ASSERT_EQ(file_set(), item_paths({"one.txt"}));
    replace_list({"two.txt"}, std::chrono::seconds(5));
    fast_extension_sort = 1;
    db_rebuild(db, false);
    ASSERT_TRUE(settle());
    EXPECT_EQ(file_set(), item_paths({"two.txt"})) << logged();
}

TEST_F(MonitorTest, LoadCompleteDoesNotRebuildASecondTimeAfterTheListCheck) {
    build_from({"one.txt"});
    std::string saved = at("index.db");
    db_file_set_command_line(saved.c_str(), nullptr, false, false);
    db_save(db, false);
    db_destroy(db);
    db = db_create(nullptr);
    replace_list({"two.txt"}, std::chrono::seconds(5));
    size_t before = logged().size();
    db_load(db, 0);
    ASSERT_TRUE(settle());
    db_file_set_command_line(nullptr, nullptr, false, false);
    std::string after = logged().substr(before);
    EXPECT_EQ(count_of(after, "create db 0\r\n"), 1u) << after;
    EXPECT_EQ(count_of(after, "load complete: rebuild required"), 0u) << after;
    EXPECT_EQ(file_set(), item_paths({"two.txt"}));
}
