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
