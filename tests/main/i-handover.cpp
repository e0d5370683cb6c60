// A command line handed to a running instance must mean there what it meant to the process that was
// started with it: a first instance runs, a second is started with arguments that are hard to quote, and
// the first one's log says what its parse gave the search window.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cl/cl.h"
#include "os/os.h"
#include "program.h"

namespace {

bool has_line(const std::string &log, const std::string &line) {
    size_t at = 0;
    while ((at = log.find(line, at)) != std::string::npos) {
        bool starts = at == 0 || log[at - 1] == '\n' || log[at - 1] == ' ';
        size_t end = at + line.size();
        bool ends = end == log.size() || log[end] == '\r' || log[end] == '\n';
        if (starts && ends) {
            return true;
        }
        at++;
    }
    return false;
}

TEST(Handover, HostileArgumentsArriveAsTheyWereGiven) {
    ASSERT_TRUE(os_file_exists(program_path().c_str())) << "build the sablewatch target first";
    std::string dir = program_scratch("handover");
    program_temp_folder_t temp(dir);
    std::string instance = "itest-handover-" + std::to_string(os_tick_ms());
    const char *inst = instance.c_str();

    // A folder with its trailing separator, quoted: on Windows the C runtime's split reads the closing
    // quote as escaped by the backslash. The program's own start must read its raw line.
    const char *own_filter = "C:\\Program Files\\";
    os_process_t *first = program_start({"-instance", inst, "-no-db", "-debug-log", "-filter", own_filter});
    ASSERT_NE(first, nullptr);
    ASSERT_TRUE(program_wait_reachable(instance)) << "the first instance never opened its endpoint";

    // Quotes inside and at the ends, backslashes before quotes and at the end (the "C:\" of a drive),
    // leading hyphens, blanks at the ends, non-ASCII text.
    const char *search = "say \"hi\" to C:\\ and \\\"x\\\\ -not-a-switch \"";
    const char *filter = "C:\\";
    const char *bookmark = " \xC3\xBC \xE6\x97\xA5\xE6\x9C\xAC \"\" \\ ";
    const char *list = "-looks like a switch\".swl";
    EXPECT_EQ(program_run({"-instance", inst, "-s", search, "-filter", filter, "-bookmark", bookmark, list}),
              0);

    // The folder the second process ran in makes the positional path absolute.
    str_t cwd, abs;
    str_init(&cwd);
    str_init(&abs);
    os_current_folder(&cwd);
    cl_path_absolute(&abs, list, cwd.ptr, OS_SEP);
    std::string expected_list(abs.ptr, (size_t) abs.len);
    str_kill(&abs);
    str_kill(&cwd);

    // The hand-over is answered from the loop, so the first instance's own start is logged by now.
    std::string log = program_log(dir);
    EXPECT_TRUE(has_line(log, std::string("search window: filter ") + own_filter)) << log;
    EXPECT_TRUE(has_line(log, std::string("search window: search ") + search)) << log;
    EXPECT_TRUE(has_line(log, std::string("search window: filter ") + filter)) << log;
    EXPECT_TRUE(has_line(log, std::string("search window: bookmark ") + bookmark)) << log;
    EXPECT_TRUE(has_line(log, "search window: file list " + expected_list)) << log;

    EXPECT_EQ(program_run({"-instance", inst, "-exit"}), 0);
    int code = -1;
    EXPECT_TRUE(os_process_wait(first, 60000, &code));
    EXPECT_EQ(code, 0);
    os_process_destroy(first);
}

} // namespace
