// A running instance asked to end from outside (Linux: SIGTERM; Windows: the end of the session) leaves
// an index file that loads and holds its last changes: here a rebuild handed over just before the end.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "db/db.h"
#include "db/dbfile.h"
#include "os/os.h"
#include "program.h"

namespace {

TEST(Shutdown, EndFromOutsideSavesTheIndexWithItsLastChanges) {
    ASSERT_TRUE(os_file_exists(program_path().c_str())) << "build the sablewatch target first";
    std::string S = OS_SEP_STR;
    std::string dir = program_scratch("shutdown");
    program_temp_folder_t temp(dir);
    std::string tree = dir + S + "tree";
    ASSERT_TRUE(os_folder_create(tree.c_str()));
    program_write(tree + S + "early.txt", "e");
    std::string ini = dir + S + "settings.ini";
    program_write(ini, "[Sablewatch]\r\nfolders=" + tree +
                           "\r\nfolder_monitor_changes=0\r\ndb_location=" + dir + "\r\n");
    std::string instance = "itest-shutdown-" + std::to_string(os_tick_ms());
    const char *inst = instance.c_str();

    os_process_t *first = program_start({"-instance", inst, "-config", ini.c_str(), "-debug-log"});
    ASSERT_NE(first, nullptr);
    ASSERT_TRUE(program_wait_reachable(instance));
    // Nothing watches the folder: only the rebuild handed over below can know of the late file.
    program_write(tree + S + "late.txt", "l");
    EXPECT_EQ(program_run({"-instance", inst, "-reindex"}), 0);

    ASSERT_TRUE(os_process_request_end(first));
#ifdef _WIN32
    // The session's end saved what must be kept; the session then ends the process.
    os_process_destroy(first);
#else
    int code = -1;
    EXPECT_TRUE(os_process_wait(first, 60000, &code)) << "SIGTERM did not end the instance";
    EXPECT_EQ(code, 0);
    os_process_destroy(first);
    // The normal shutdown let go of the instance: a new one may start.
    EXPECT_FALSE(program_reachable(instance));
#endif

    std::string db_file = dir + S + "Sablewatch-" + instance + ".db";
    ASSERT_TRUE(os_file_exists(db_file.c_str())) << program_log(dir);
    db_t *loaded = db_create(nullptr);
    ASSERT_TRUE(db_file_load(loaded, db_file.c_str(), false, nullptr));
    std::vector<std::string> got = program_index_paths(loaded);
    db_destroy(loaded);
    EXPECT_NE(std::find(got.begin(), got.end(), tree + S + "late.txt"), got.end()) << program_log(dir);
    EXPECT_NE(std::find(got.begin(), got.end(), tree + S + "early.txt"), got.end());
}

} // namespace
