// The real program, started as separate processes: usage, -exit with nothing running, the first
// instance, -first-instance against it, a command line handed over, and -exit handed over.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"
#include "program.h"

namespace {

class Program : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(os_file_exists(program_path().c_str()))
            << program_path() << " is missing: build the sablewatch target before this test";
        str_t s;
        str_init(&s);
        str_printf(&s, "itest-%u-%u", os_thread_id(), os_tick_ms());
        instance.assign(s.ptr, (size_t) s.len);
        str_kill(&s);
    }
    std::string instance;
};

TEST_F(Program, HelpExitsWithZero) {
    EXPECT_EQ(program_run({"-help"}, 30000), 0);
}

TEST_F(Program, ExitWithNothingRunningLeavesNothing) {
    EXPECT_EQ(program_run({"-instance", instance.c_str(), "-exit"}, 60000), 0);
    EXPECT_FALSE(program_reachable(instance));
}

TEST_F(Program, SecondStartsMeetTheFirstInstance) {
    const char *inst = instance.c_str();
    os_process_t *first =
        // -no-db: the instance under test builds its (empty) index in memory and leaves no file behind.
        os_process_start(program_path().c_str(),
                         std::vector<const char *>{"-instance", inst, "-no-db"}.data(), 3);
    ASSERT_NE(first, nullptr);
    bool up = false;
    for (int i = 0; i < 300 && !up; i++) {
        up = program_reachable(instance);
        if (!up) {
            os_sleep_ms(100);
        }
    }
    EXPECT_TRUE(up) << "the first instance never opened its window";

    EXPECT_EQ(program_run({"-instance", inst, "-first-instance"}, 30000), 1);
    // A plain second start hands its command line over and leaves; the first keeps running.
    EXPECT_EQ(program_run({"-instance", inst, "-verbose"}, 60000), 0);
    int code = -1;
    EXPECT_FALSE(os_process_wait(first, 200, &code)) << "the first instance ended on a plain hand-over";

    // -exit handed over ends the first instance cleanly.
    EXPECT_EQ(program_run({"-instance", inst, "-exit"}, 60000), 0);
    EXPECT_TRUE(os_process_wait(first, 30000, &code));
    EXPECT_EQ(code, 0);
    os_process_destroy(first);
    EXPECT_FALSE(program_reachable(instance));
}

} // namespace
