// The real program and a folder source across starts: a start with "-rescan-all -update -exit" applies
// what changed since the index was built and saves it; a later start loads that file and leaves a source
// that isn't due alone; and the saved index equals a fresh build of the folder.
#include "monitor_fixture.h"

#include "db/dbfile.h"
#include "main/program.h"

namespace {

class ProgramTest : public MonitorTest {
  protected:
    void SetUp() override {
        MonitorTest::SetUp();
        // The program's own structure, the default: what this process builds to compare must match it.
        index_folder_size = 0;
        index_attributes = 0;
    }
    void TearDown() override {
        db_file_set_command_line(nullptr, nullptr, false, false);
        MonitorTest::TearDown();
    }

    // Runs the program with a short temporary folder of its own (its hand-over socket lives there), and
    // returns its debug log.
    std::string run(std::vector<const char *> args) {
        std::string logs = program_scratch("fl");
        program_temp_folder_t temp(logs);
        args.push_back("-debug-log");
        EXPECT_EQ(program_run(args, 120000), 0);
        for (auto &e : fs::directory_iterator(logs)) {
            if (e.path().filename().string().find("Debug Log") != std::string::npos) {
                std::string text = program_read(e.path().string());
                std::error_code ec;
                fs::remove_all(logs, ec);
                return text;
            }
        }
        ADD_FAILURE() << "no log in " << logs;
        return "";
    }
};

TEST_F(ProgramTest, RescanAllIsSavedAndTheNextStartDoesntRescanWhatIsNotDue) {
    ASSERT_TRUE(os_file_exists(program_path().c_str())) << "build the sablewatch target first";
    file("tree/a.txt", "a");
    file("tree/sub/b.txt", "bb");
    fs::create_directories(at("dbdir"));
    // Every value the settings don't give is the default in this process and in the program alike: a
    // daily update at 03:00, whose time comes from the start rather than at once.
    std::string ini = at("settings.ini");
    program_write(ini, "[Sablewatch]\r\nfolders=" + at("tree") +
                           "\r\nfolder_monitor_changes=0\r\nfolder_update_rescan_asap=0\r\ndb_location=" +
                           at("dbdir") + "\r\n");
    std::string instance = "fl-" + std::to_string(os_tick_ms());
    const char *inst = instance.c_str();
    run({"-instance", inst, "-config", ini.c_str(), "-reindex", "-update", "-exit"});

    file("tree/c.txt", "ccc");
    fs::remove(at("tree/a.txt"));
    file("tree/sub/deep/d.txt", "d");
    std::string second = run({"-instance", inst, "-config", ini.c_str(), "-rescan-all", "-update", "-exit"});
    EXPECT_NE(second.find("update folder start " + at("tree")), std::string::npos);
    EXPECT_NE(second.find("RESCAN CREATE"), std::string::npos);
    EXPECT_NE(second.find("RESCAN DELETE"), std::string::npos);

    std::string third = run({"-instance", inst, "-config", ini.c_str(), "-update", "-exit"});
    EXPECT_NE(third.find("loaded "), std::string::npos);
    EXPECT_EQ(third.find("update folder start"), std::string::npos) << "not due: no rescan at start";

    // The file holds the tree as it is now.
    std::string saved;
    for (auto &e : fs::directory_iterator(at("dbdir"))) {
        if (e.path().extension() == ".db") {
            saved = e.path().string();
        }
    }
    ASSERT_FALSE(saved.empty());
    folder_source("tree", false);
    folder_update_rescan_asap = 0;
    snapshot_t want = fresh();
    db_file_set_command_line(saved.c_str(), nullptr, false, true);
    db_t *loaded = db_create(nullptr);
    db_load(loaded, 0);
    for (int i = 0; i < 20 && (db_job_running(loaded) || !loaded->is_loaded); i++) {
        db_wait(loaded, "test");
        event_dispatch();
    }
    EXPECT_EQ(snapshot(loaded), want) << diff(snapshot(loaded), want);
    db_folder_sources_kill(loaded);
    db_destroy(loaded);
    event_dispatch();
}

} // namespace
