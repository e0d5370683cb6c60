// Instance names, the spine's switches, the hand-over block, the instance lock and a
// hand-over through the real loop.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"
#include "program.h"

namespace {

std::string s_of(void (*fn)(str_t *, const char *), const char *arg) {
    str_t s;
    str_init(&s);
    fn(&s, arg);
    std::string out(s.ptr, (size_t) s.len);
    str_kill(&s);
    return out;
}

TEST(InstanceNames, EscapeForFileNames) {
    struct row_t {
        const char *in, *out;
    };
    const row_t rows[] = {
        {"", ""},
        {"plain name", "plain name"},
        {"a\\b", "a%5Cb"},
        {"c:/d", "c%3A%2Fd"},
        {"*?\"<>|", "%2A%3F%22%3C%3E%7C"},
        {"100%", "100%"},
        {"\xC3\xA9t\xC3\xA9", "\xC3\xA9t\xC3\xA9"},
    };
    for (const row_t &r : rows) {
        EXPECT_EQ(s_of(main_instance_escape, r.in), r.out) << r.in;
    }
}

TEST(InstanceNames, MutexClassAndFiles) {
    EXPECT_EQ(s_of(main_mutex_name, ""), "SABLEWATCH_MUTEX");
    EXPECT_EQ(s_of(main_mutex_name, nullptr), "SABLEWATCH_MUTEX");
    EXPECT_EQ(s_of(main_mutex_name, "a\\b\\"), "SABLEWATCH_MUTEX_(a_b_)");
    EXPECT_EQ(s_of(main_mutex_name, "x:*"), "SABLEWATCH_MUTEX_(x:*)");
    EXPECT_EQ(s_of(main_window_class_name, ""), "SABLEWATCH_TASKBAR_NOTIFICATION");
    EXPECT_EQ(s_of(main_window_class_name, "a\\b"), "SABLEWATCH_TASKBAR_NOTIFICATION_(a\\b)");

    struct row_t {
        const char *base, *ext, *instance, *out;
    };
    const row_t rows[] = {
        {"Sablewatch", ".ini", nullptr, "Sablewatch.ini"},
        {"Sablewatch", ".ini", "", "Sablewatch.ini"},
        {"Sablewatch", ".ini", "work", "Sablewatch-work.ini"},
        {"Bookmarks", ".csv", "x:y", "Bookmarks-x%3Ay.csv"},
        {"Run History", ".csv", "a*b", "Run History-a%2Ab.csv"},
        {"Sablewatch", ".db", "c\\d", "Sablewatch-c%5Cd.db"},
    };
    for (const row_t &r : rows) {
        str_t s;
        str_init(&s);
        main_instance_file_name(&s, r.base, r.ext, r.instance);
        EXPECT_STREQ(s.ptr, r.out);
        str_kill(&s);
    }
}

TEST(CommandLine, SpineSwitches) {
    main_switches_t sw;
    main_switches_parse_line(
        &sw, "prog -Instance \"my inst\" --first-instance -QUIT -no-db -read-only -debug-log x -verbose",
        nullptr);
    ASSERT_NE(sw.instance, nullptr);
    EXPECT_STREQ(sw.instance, "my inst");
    EXPECT_TRUE(sw.first_instance);
    EXPECT_TRUE(sw.exit);
    EXPECT_TRUE(sw.no_db);
    EXPECT_TRUE(sw.read_only);
    EXPECT_TRUE(sw.debug_log);
    EXPECT_TRUE(sw.verbose);
    EXPECT_FALSE(sw.debug);
    EXPECT_FALSE(sw.help);
    EXPECT_FALSE(sw.no_first_instance);
    main_switches_kill(&sw);

    // An unknown switch stops the line and asks for the usage text, so nothing behind it acts.
    main_switches_parse_line(&sw, "prog -verbose -no-such-switch -exit", nullptr);
    EXPECT_TRUE(sw.help);
    EXPECT_TRUE(sw.verbose);
    EXPECT_FALSE(sw.exit);
    main_switches_kill(&sw);

    // The program's own name is never a switch, and -instance without a value is ignored.
    main_switches_parse_line(&sw, "-exit -instance", nullptr);
    EXPECT_FALSE(sw.exit);
    EXPECT_EQ(sw.instance, nullptr);
    main_switches_kill(&sw);
}

TEST(Handover, BlockRoundTripAndMalformedBlocks) {
    uint32_t size;
    unsigned char *b = (unsigned char *) main_handover_build(-2, "prog -exit", "/home/u", &size);
    ASSERT_EQ(size, 4u + 11u + 8u);
    EXPECT_EQ(b[0], 0xFE); // little-endian
    EXPECT_EQ(b[3], 0xFF);
    int32_t show;
    const char *cl, *folder;
    ASSERT_TRUE(main_handover_parse(b, size, &show, &cl, &folder));
    EXPECT_EQ(show, -2);
    EXPECT_STREQ(cl, "prog -exit");
    EXPECT_STREQ(folder, "/home/u");

    EXPECT_FALSE(main_handover_parse(b, size - 1, &show, &cl, &folder)); // folder not terminated
    EXPECT_FALSE(main_handover_parse(b, 4 + 11, &show, &cl, &folder));   // no folder at all
    EXPECT_FALSE(main_handover_parse(b, 10, &show, &cl, &folder));       // command line not terminated
    EXPECT_FALSE(main_handover_parse(b, 3, &show, &cl, &folder));
    EXPECT_FALSE(main_handover_parse(nullptr, 0, &show, &cl, &folder));
    mem_free(b);

    b = (unsigned char *) main_handover_build(1, "", "", &size);
    ASSERT_TRUE(main_handover_parse(b, size, &show, &cl, &folder));
    EXPECT_STREQ(cl, "");
    EXPECT_STREQ(folder, "");
    mem_free(b);
}

std::string unique(const char *tag) {
    str_t s;
    str_init(&s);
    str_printf(&s, "SW_TEST_%s_%u_%u", tag, os_thread_id(), os_tick_ms());
    std::string out(s.ptr, (size_t) s.len);
    str_kill(&s);
    return out;
}

TEST(InstanceLock, SecondHolderSeesItUntilTheFirstLetsGo) {
    std::string name = unique("lock");
    bool existed = true;
    os_instance_lock_t *first = os_instance_lock_create(name.c_str(), name.c_str(), &existed);
    ASSERT_NE(first, nullptr);
    EXPECT_FALSE(existed);
    os_instance_lock_t *second = os_instance_lock_create(name.c_str(), name.c_str(), &existed);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(existed);
    os_instance_lock_destroy(second);
    os_instance_lock_destroy(first);
    os_instance_lock_t *third = os_instance_lock_create(name.c_str(), name.c_str(), &existed);
    ASSERT_NE(third, nullptr);
    EXPECT_FALSE(existed);
    os_instance_lock_destroy(third);
}

// Sends a block to the loop of the given instance from another thread, as a later instance would.
bool send_block(const std::string &instance, const void *block, uint32_t size) {
    str_t cls, file;
    str_init(&cls);
    str_init(&file);
    main_window_class_name(&cls, instance.c_str());
    main_instance_escape(&file, cls.ptr);
    os_main_peer_t *peer = os_main_peer_find(cls.ptr, file.ptr);
    str_kill(&cls);
    str_kill(&file);
    if (!peer) {
        return false;
    }
    bool ok = os_main_peer_send(peer, block, size, 10000);
    os_main_peer_close(peer);
    return ok;
}

void quit_proc(void *) {
    main_quit(3);
}

TEST(Handover, RunningLoopTakesACommandLineAndRefusesGarbage) {
    std::string instance = unique("handover");
    EXPECT_FALSE(send_block(instance, "x", 1)); // nobody runs yet
    ASSERT_TRUE(main_loop_init(instance.c_str()));
    bool garbage_taken = true, exit_taken = false;
    std::thread sender([&] {
        garbage_taken = send_block(instance, "\1\0\0\0no terminators", 19);
        uint32_t size;
        void *b = main_handover_build(1, "prog -exit", "/", &size);
        exit_taken = send_block(instance, b, size);
        mem_free(b);
    });
    int code = main_loop_run();
    sender.join();
    main_loop_kill();
    EXPECT_FALSE(garbage_taken);
    EXPECT_TRUE(exit_taken);
    EXPECT_EQ(code, 0);                         // -exit handed over ends the loop with 0
    EXPECT_FALSE(send_block(instance, "x", 1)); // gone with the loop

    // The loop can be made again and still runs events.
    ASSERT_TRUE(main_loop_init(instance.c_str()));
    event_post(quit_proc, nullptr);
    EXPECT_EQ(main_loop_run(), 3);
    main_loop_kill();
}

TEST(Handover, PrivateLoopRunsEventsAndOffersNoEndpoint) {
    std::string instance = unique("private");
    ASSERT_TRUE(main_loop_init_private(instance.c_str()));
#ifndef _WIN32
    // No socket file: nothing to hand a command line to, and nothing left where a folder scan would see it.
    EXPECT_FALSE(program_reachable(instance));
#endif
    event_post(quit_proc, nullptr);
    EXPECT_EQ(main_loop_run(), 3);
    main_loop_kill();
}

} // namespace
