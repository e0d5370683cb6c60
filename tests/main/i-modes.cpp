// Switches that choose a run mode other than the search application. The modes not built yet must end
// the process with a non-zero code at their own step: never take the instance (so a running instance
// hears nothing), never start as the application, never load or write an index.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "os/os.h"
#include "program.h"

namespace {

struct mode_row_t {
    std::vector<const char *> args;
    bool skip_when_admin; // an elevated -admin goes on as the application, as it should
};

const std::vector<mode_row_t> &mode_rows() {
    static const std::vector<mode_row_t> rows = {
        {{"-svc"}, false},
        {{"-client-svc"}, false},
        {{"-admin"}, true},
        {{"-install", "inst-folder"}, false},
        {{"-uninstall"}, false},
        {{"-uninstall-user"}, false},
        {{"-install-desktop-shortcut"}, false},
        {{"-uninstall-url-protocol"}, false},
        {{"-enable-run-as-admin"}, false},
        {{"-disable-update-notification"}, false},
        {{"-app-data"}, false},
        {{"-install-service"}, false},
        {{"-uninstall-client-service"}, false},
        {{"-start-service"}, false},
        {{"-stop-service"}, false},
        {{"-start-client-service"}, false},
        {{"-create-usn-journal", "C:", "1048576", "65536"}, false},
        {{"-delete-usn-journal", "C:"}, false},
        {{"-rename", "a.txt", "b.txt"}, false},
        {{"-copyto", "a.txt"}, false},
        {{"-moveto", "a.txt"}, false},
    };
    return rows;
}

std::string describe(const mode_row_t &row) {
    std::string s;
    for (const char *a : row.args) {
        s += std::string(s.empty() ? "" : " ") + a;
    }
    return s;
}

// -instance and -db go first: the file operations take every token behind them as a path.
std::vector<const char *> with_instance(const mode_row_t &row, const char *inst, const char *db) {
    std::vector<const char *> args = {"-instance", inst, "-db", db};
    args.insert(args.end(), row.args.begin(), row.args.end());
    return args;
}

TEST(RunModes, UnbuiltModesEndAtTheirStepWithoutTheInstanceOrTheIndex) {
    ASSERT_TRUE(os_file_exists(program_path().c_str())) << "build the sablewatch target first";
    std::string dir = program_scratch("modes");
    program_temp_folder_t temp(dir);
    std::string instance = "itest-modes-" + std::to_string(os_tick_ms());
    const char *inst = instance.c_str();
    std::string db = dir + OS_SEP_STR + "index.db";

    // Alone: a process that ran as the application would never end by itself.
    for (const mode_row_t &row : mode_rows()) {
        if (row.skip_when_admin && os_is_admin()) {
            continue;
        }
        EXPECT_EQ(program_run(with_instance(row, inst, db.c_str()), 30000), 1) << describe(row);
        EXPECT_FALSE(program_reachable(instance)) << describe(row);
        EXPECT_FALSE(os_file_exists(db.c_str())) << describe(row);
    }

    // Beside a running instance: one that took the instance would hand its line over and end with 0.
    os_process_t *first = program_start({"-instance", inst, "-no-db", "-debug-log"});
    ASSERT_NE(first, nullptr);
    ASSERT_TRUE(program_wait_reachable(instance));
    for (const mode_row_t &row : mode_rows()) {
        if (row.skip_when_admin && os_is_admin()) {
            continue;
        }
        EXPECT_EQ(program_run(with_instance(row, inst, db.c_str()), 30000), 1) << describe(row);
    }
    EXPECT_EQ(program_log(dir).find("received cl"), std::string::npos) << program_log(dir);
    EXPECT_EQ(program_run({"-instance", inst, "-exit"}), 0);
    int code = -1;
    EXPECT_TRUE(os_process_wait(first, 60000, &code));
    os_process_destroy(first);
}

} // namespace
