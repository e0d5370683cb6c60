// What a command line does to a running index: monitor pause and resume, rescan of folder sources.
#include <gtest/gtest.h>

#include <string>

#include "config/config.h"
#include "db/db.h"
#include "db_create/db_create.h"
#include "db_monitor/db_monitor.h"
#include "main/main.h"
#include "os/os.h"
#include "program.h"

namespace {

// An index as a load leaves it: one monitored file list (a real file, so that its folder can be
// watched) and two folder sources on a schedule.
class ControlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        dir = program_scratch("control");
        list = dir + OS_SEP_STR + "a.swl";
        program_write(list, "Filename\r\n");
        db = db_create(nullptr);
        db_fs_t *fs = db_fs_add(db, DB_FS_FILE_LIST);
        db_fs_set_text(&fs->filename, list.c_str());
        fs->monitor = true;
        // As read: the check that runs when the monitor starts finds no change.
        os_file_info_t info;
        ASSERT_TRUE(os_get_file_info(list.c_str(), &info));
        fs->last_write_time = info.date_modified;
        for (int i = 0; i < 2; i++) {
            db_fs_t *folder = db_fs_add(db, DB_FS_FOLDER);
            db_fs_set_text(&folder->path, dir.c_str());
            folder->next_update = 0x01D0000000000000ull;
        }
        db->is_loaded = true;
        monitor_pause = 0;
        read_only = false;
    }
    void TearDown() override {
        db_destroy(db);
        db = nullptr;
        monitor_pause = 0;
        read_only = false;
    }
    // The command line as a later instance hands it over.
    void hand_over(const char *line) {
        main_switches_t sw;
        main_switches_parse_line(&sw, line, dir.c_str());
        main_apply_command_line(&sw, true);
        main_switches_kill(&sw);
    }
    std::string dir, list;
};

TEST_F(ControlTest, MonitorPauseAndResumeReachTheRunningMonitors) {
    db_monitor_set_pause(db, false);
    ASSERT_NE(db->filelist_monitor, nullptr) << "a monitored list starts its monitor";

    hand_over("sw -monitor-pause");
    EXPECT_EQ(monitor_pause, 1);
    EXPECT_EQ(db->filelist_monitor, nullptr);

    hand_over("sw -monitor-resume");
    EXPECT_EQ(monitor_pause, 0);
    EXPECT_NE(db->filelist_monitor, nullptr);

    // Read-only: resuming clears the setting, but nothing may start.
    hand_over("sw -monitor-pause");
    read_only = true;
    hand_over("sw -monitor-resume");
    EXPECT_EQ(monitor_pause, 0);
    EXPECT_EQ(db->filelist_monitor, nullptr);
}

TEST_F(ControlTest, MonitorPauseAtTheStartOnlySetsTheSetting) {
    db_monitor_set_pause(db, false);
    ASSERT_NE(db->filelist_monitor, nullptr);
    main_switches_t sw;
    // -exit keeps the first call from loading an index of its own.
    main_switches_parse_line(&sw, "sw -monitor-pause -exit", dir.c_str());
    main_apply_command_line(&sw, false);
    main_switches_kill(&sw);
    EXPECT_EQ(monitor_pause, 1);
    EXPECT_NE(db->filelist_monitor, nullptr) << "monitors start later, under the setting";
    // The -exit asked the loop to end: let it, so that no later test's loop ends at once.
    main_loop_run();
}

TEST_F(ControlTest, RescanAllMarksEveryFolderSourceDueAndStartsOne) {
    hand_over("sw -rescan-all");
    int folders = 0, started = 0;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        if (fs->type == DB_FS_FOLDER) {
            folders++;
            EXPECT_EQ(fs->next_update, 0u);
            started += fs->update_now ? 0 : 1;
        } else {
            EXPECT_FALSE(fs->update_now);
        }
    }
    EXPECT_EQ(folders, 2);
    // The check runs at once: one scan starts, the other source stays due for when it ends.
    EXPECT_EQ(started, 1);
    EXPECT_TRUE(db_folder_rescan_running(db));
}

} // namespace
