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

// Runs the program to its end. Returns its exit code, or -1 when it did not end in time.
int run(const std::vector<const char *> &args, uint32_t timeout_ms) {
    os_process_t *p = os_process_start(program_path().c_str(), args.data(), (int) args.size());
    if (!p) {
        ADD_FAILURE() << "could not start " << program_path();
        return -1;
    }
    int code = -1;
    if (!os_process_wait(p, timeout_ms, &code)) {
        code = -1;
    }
    os_process_destroy(p);
    return code;
}

bool instance_reachable(const std::string &instance) {
    str_t cls, file;
    str_init(&cls);
    str_init(&file);
    main_window_class_name(&cls, instance.c_str());
    main_instance_escape(&file, cls.ptr);
    os_main_peer_t *peer = os_main_peer_find(cls.ptr, file.ptr);
    os_main_peer_close(peer);
    str_kill(&cls);
    str_kill(&file);
    return peer != nullptr;
}

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
    EXPECT_EQ(run({"-help"}, 30000), 0);
}

TEST_F(Program, ExitWithNothingRunningLeavesNothing) {
    EXPECT_EQ(run({"-instance", instance.c_str(), "-exit"}, 60000), 0);
    EXPECT_FALSE(instance_reachable(instance));
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
        up = instance_reachable(instance);
        if (!up) {
            os_sleep_ms(100);
        }
    }
    EXPECT_TRUE(up) << "the first instance never opened its window";

    EXPECT_EQ(run({"-instance", inst, "-first-instance"}, 30000), 1);
    // A plain second start hands its command line over and leaves; the first keeps running.
    EXPECT_EQ(run({"-instance", inst, "-verbose"}, 60000), 0);
    int code = -1;
    EXPECT_FALSE(os_process_wait(first, 200, &code)) << "the first instance ended on a plain hand-over";

    // -exit handed over ends the first instance cleanly.
    EXPECT_EQ(run({"-instance", inst, "-exit"}, 60000), 0);
    EXPECT_TRUE(os_process_wait(first, 30000, &code));
    EXPECT_EQ(code, 0);
    os_process_destroy(first);
    EXPECT_FALSE(instance_reachable(instance));
}

} // namespace
