// When the index no longer serves the settings: each test of the comparison, what it logs, which
// sources it marks, and the settings it takes over without a rebuild.
#include "build_fixture.h"

class RequiredTest : public BuildTest {
  protected:
    std::string log_path;
    void SetUp() override {
        BuildTest::SetUp();
        log_path = at("log.txt");
        debug_open_log_path(log_path.c_str());
    }
    void TearDown() override {
        debug_close_log();
        BuildTest::TearDown();
    }
    // Whether a rebuild is required, and the log text written while deciding.
    bool required(std::string *logged, bool *recent = nullptr, bool *monitor = nullptr) {
        size_t before = fs::file_size(log_path);
        bool r = db_is_rebuild_required(db, recent, monitor);
        std::ifstream in(log_path, std::ios::binary);
        std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        *logged = all.substr(before);
        return r;
    }
    void expect_required(const char *line, bool sources_out_of_date) {
        std::string logged;
        EXPECT_TRUE(required(&logged));
        if (line) {
            EXPECT_NE(logged.find(line), std::string::npos) << logged;
        }
        for (db_fs_t *fs = db->fs_first; fs; fs = fs->next)
            EXPECT_EQ(fs->out_of_date, sources_out_of_date) << line;
    }
    void expect_not_required() {
        std::string logged;
        EXPECT_FALSE(required(&logged)) << logged;
    }
};

TEST_F(RequiredTest, NothingChangedAfterARebuild) {
    file("t/a");
    add_folder_source(at("t"));
    rebuild();
    expect_not_required();
}

TEST_F(RequiredTest, StructureAndFlags) {
    add_folder_source(root);
    rebuild();
    fast_path_sort = 0;
    expect_required("rebuild: flags changed", false);
    rebuild();
    index_attributes = 1;
    expect_required("rebuild: structure changed", true);
    rebuild();
    // Dropping a field needs a new index too, but the records can be copied.
    index_attributes = 0;
    expect_required("rebuild: flags changed", false);
}

TEST_F(RequiredTest, Excludes) {
    add_folder_source(root);
    set_text(&exclude_files, "*.a;*.b");
    rebuild();
    set_text(&exclude_files, "*.a;*.b;*.c");
    expect_required("rebuild: excludes changed", false);
    set_text(&exclude_files, "*.b;*.a");
    expect_required("rebuild: excludes changed", false);
    set_text(&exclude_files, "*.a");
    expect_required("rebuild: excludes changed", true);
    rebuild();
    exclude_system_files_and_folders = 1;
    expect_required("rebuild: excludes changed", true);
    rebuild();
    exclude_list_enabled = 0;
    expect_required("rebuild: excludes changed", true);
}

TEST_F(RequiredTest, SourceListChanges) {
    std::string list = file("l.swl", "Filename\r\n/x/y\r\n");
    fs::create_directories(at("d1"));
    add_filelist(list);
    // Unwatched: the list is rewritten below to see the test itself notice it, not the monitor.
    config_filelists.items[0].monitor = 0;
    add_folder_source(at("d1"));
    rebuild();
    expect_not_required();

    add_folder_source(at("d2"));
    expect_required("rebuild: new folder volume", false);
    config_folders.count--;
    mem_free(config_folders.items[config_folders.count].path);

    mem_free(config_folders.items[0].path);
    config_folders.items[0].path = heap_text(at("other"));
    expect_required("rebuild: folder filename changed", false);
    mem_free(config_folders.items[0].path);
    config_folders.items[0].path = heap_text(at("d1"));

    mem_free(config_filelists.items[0].filename);
    config_filelists.items[0].filename = heap_text(at("m.swl"));
    expect_required("rebuild: filelist filename changed", false);
    mem_free(config_filelists.items[0].filename);
    config_filelists.items[0].filename = heap_text(list);

    add_volume("g", "C:");
    expect_required("rebuild: ntfs index type changed", false);
    config_ntfs_volumes.items[0].include = 0;
    expect_not_required();

    // A source that the settings no longer name.
    config_folders.count--;
    expect_required("rebuild: index removed", false);
    config_folders.count++;

    // The list file changed on disk since it was read.
    file("l.swl", "Filename\r\n/x/y\r\n/x/z\r\n");
    fs::last_write_time(list, fs::last_write_time(list) + std::chrono::seconds(5));
    std::string logged;
    EXPECT_TRUE(required(&logged));
    EXPECT_NE(logged.find("filelist out of date"), std::string::npos);
    EXPECT_TRUE(db->fs_first->out_of_date);
    rebuild();
    EXPECT_EQ(file_set(), (std::set<std::string>{sep("/x/y"), sep("/x/z")}));
    expect_not_required();
}

TEST_F(RequiredTest, SettingsTakenOverWithoutRebuild) {
    fs::create_directories(at("d"));
    add_folder_source(at("d"));
    rebuild();
    config_folders.items[0].monitor = 0;
    config_folders.items[0].update_type = 1; // every 6 hours
    expect_not_required();
    EXPECT_FALSE(db->fs_first->monitor);
    EXPECT_EQ(db->fs_first->update_type, (uint32_t) DB_UPDATE_INTERVAL);
    EXPECT_EQ(db->fs_first->update_value, 360u);
    EXPECT_GT(db->fs_first->next_update, os_filetime_now());
}

TEST_F(RequiredTest, OutOfDateSourceThatCanBeReadAgain) {
    add_folder_source(at("later"));
    rebuild();
    db->fs_first->out_of_date = true;
    expect_not_required(); // the folder doesn't exist yet
    fs::create_directories(at("later"));
    std::string logged;
    EXPECT_TRUE(required(&logged));
}

TEST_F(RequiredTest, ApplySettingsRebuildsOnlyWhenRequired) {
    file("s/a");
    add_folder_source(at("s"));
    rebuild();
    bool refresh = false;
    db_apply_settings(db, &refresh);
    EXPECT_FALSE(refresh);
    EXPECT_FALSE(db_job_running(db));
    fast_extension_sort = 1;
    db_apply_settings(db, &refresh);
    EXPECT_TRUE(refresh);
    db_wait(db, "test");
    event_dispatch();
    EXPECT_EQ(db->files_by_extension.count, 1u);
}

// ---- folder schedules ----------------------------------------------------------------------------------

// A zone one hour east of UTC without daylight saving, so that the expected times are the same on every
// machine and every day of the year.
static const uint64_t k_minute = 600000000ull, k_hour = 60 * k_minute;
static uint64_t utc(int year, int month, int day, int hour, int minute = 0) {
    os_systemtime_t st = {year, month, 0, day, hour, minute, 0, 0};
    uint64_t ft = 0;
    EXPECT_TRUE(os_system_to_filetime(&st, &ft));
    return ft;
}
static bool plus_one_to_local(uint64_t ft, os_systemtime_t *out) {
    return os_filetime_to_system(ft + k_hour, out);
}
static bool plus_one_from_local(const os_systemtime_t *local, uint64_t *ft) {
    if (!os_system_to_filetime(local, ft))
        return false;
    *ft -= k_hour;
    return true;
}

TEST(FolderSchedule, SettingsBecomeTypeAndValue) {
    struct row_t {
        int32_t type, day, at, interval, interval_type;
        uint32_t want_type, want_value;
    };
    const row_t rows[] = {
        {1, 0, 3, 6, 1, DB_UPDATE_INTERVAL, 360}, // hours
        {1, 0, 3, 45, 0, DB_UPDATE_INTERVAL, 45}, // minutes
        {1, 0, 3, 0, 1, DB_UPDATE_NONE, 0},       {1, 0, 3, -5, 0, DB_UPDATE_NONE, 0},
        {1, 0, 3, 6, 2, DB_UPDATE_NONE, 0}, // an unknown unit is no schedule, and no complaint
        {2, 0, 3, 6, 1, DB_UPDATE_DAILY, 3},      {2, 7, 23, 6, 1, DB_UPDATE_DAILY, 7 * 24 + 23},
        {2, 8, 3, 6, 1, DB_UPDATE_NONE, 0},       {2, -1, 3, 6, 1, DB_UPDATE_NONE, 0},
        {2, 0, 24, 6, 1, DB_UPDATE_NONE, 0},      {2, 0, -1, 6, 1, DB_UPDATE_NONE, 0},
        {0, 0, 3, 6, 1, DB_UPDATE_NONE, 0},       {3, 0, 3, 6, 1, DB_UPDATE_NONE, 0},
    };
    for (const row_t &r : rows) {
        config_folder_t f = {nullptr, 1, 65536, 0, r.type, r.day, r.at, r.interval, r.interval_type};
        uint32_t type = 99, value = 99;
        db_folder_schedule(&f, &type, &value);
        EXPECT_EQ(type, r.want_type) << r.type << " " << r.day << " " << r.at << " " << r.interval;
        EXPECT_EQ(value, r.want_value) << r.type << " " << r.day << " " << r.at << " " << r.interval;
    }
}

TEST(FolderSchedule, NextUpdateFromNowInAFixedZone) {
    os_hooks.filetime_to_local = plus_one_to_local;
    os_hooks.local_to_filetime = plus_one_from_local;
    // Wednesday 2024-03-27, 10:00 UTC, 11:00 local.
    const uint64_t now = utc(2024, 3, 27, 10);
    struct row_t {
        const char *what;
        uint32_t type, value;
        uint64_t want;
    };
    const row_t rows[] = {
        {"none", DB_UPDATE_NONE, 0, 0},
        {"every 45 minutes", DB_UPDATE_INTERVAL, 45, now + 45 * k_minute},
        {"daily, later today", DB_UPDATE_DAILY, 12, utc(2024, 3, 27, 11)},
        {"daily, this very hour", DB_UPDATE_DAILY, 11, utc(2024, 3, 28, 10)},
        {"daily, passed", DB_UPDATE_DAILY, 3, utc(2024, 3, 28, 2)},
        {"daily, midnight", DB_UPDATE_DAILY, 0, utc(2024, 3, 27, 23)},
        {"Sunday 3:00, passed this week", DB_UPDATE_DAILY, 1 * 24 + 3, utc(2024, 3, 31, 2)},
        {"Thursday 3:00", DB_UPDATE_DAILY, 5 * 24 + 3, utc(2024, 3, 28, 2)},
        {"Wednesday 12:00, later today", DB_UPDATE_DAILY, 4 * 24 + 12, utc(2024, 3, 27, 11)},
        {"Wednesday 11:00, this very hour", DB_UPDATE_DAILY, 4 * 24 + 11, utc(2024, 4, 3, 10)},
        {"Tuesday 23:00", DB_UPDATE_DAILY, 3 * 24 + 23, utc(2024, 4, 2, 22)},
        {"Saturday 0:00", DB_UPDATE_DAILY, 7 * 24, utc(2024, 3, 29, 23)},
    };
    for (const row_t &r : rows)
        EXPECT_EQ(db_folder_next_update(r.type, r.value, now), r.want) << r.what;
    os_hooks_reset();
}
