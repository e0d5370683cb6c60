// The process: identity, command line quoting, environment.
#include "os_test_util.h"

#include <gtest/gtest.h>
#include <thread>

TEST(OsProcess, Identity) {
    os_hooks_reset();
    // The standard library counts the same logical processors.
    EXPECT_EQ(os_processor_count(), (int) std::thread::hardware_concurrency());

    str_t s;
    str_init(&s);
    os_platform_name(&s);
#ifdef _WIN32
    EXPECT_EQ(os_test_text(&s).compare(0, 10, "Windows NT"), 0) << os_test_text(&s);
#else
    EXPECT_EQ(os_test_text(&s).compare(0, 6, "Linux "), 0) << os_test_text(&s);
    EXPECT_GT(s.len, 6);
#endif
    os_processor_name(&s);
    EXPECT_GT(s.len, 0);
    EXPECT_NE(s.ptr[0], ' ');
    EXPECT_NE(s.ptr[s.len - 1], ' ');

    os_command_line(&s);
    EXPECT_NE(os_test_text(&s).find("test_os"), std::string::npos) << os_test_text(&s);
    str_kill(&s);
}

TEST(OsProcess, Environment) {
    str_t s;
    str_init(&s);
    EXPECT_TRUE(os_getenv("PATH", &s));
    EXPECT_GT(s.len, 0);
    str_set(&s, "unchanged");
    EXPECT_FALSE(os_getenv("SABLEWATCH_SURELY_UNSET_VARIABLE", &s));
    EXPECT_EQ(os_test_text(&s), "unchanged");
    str_kill(&s);
}

TEST(OsProcess, ArgumentQuotingFollowsTheWindowsRules) {
    struct {
        const char *arg;
        const char *quoted;
    } cases[] = {
        {"plain", "plain"},
        {"", "\"\""},
        {"two words", "\"two words\""},
        {"tab\there", "\"tab\there\""},
        {"say \"hi\"", "\"say \\\"hi\\\"\""},
        {"a\"b", "\"a\\\"b\""},
        // Backslashes are literal unless a quote follows them.
        {"C:\\dir\\", "C:\\dir\\"},
        {"C:\\my dir\\", "\"C:\\my dir\\\\\""},
        {"a\\\"b", "\"a\\\\\\\"b\""},
        {"\\\\server\\share", "\\\\server\\share"},
    };
    str_t s;
    str_init(&s);
    for (const auto &c : cases) {
        str_set(&s, "x ");
        os_quote_arg(&s, c.arg);
        EXPECT_EQ(os_test_text(&s), std::string("x ") + c.quoted) << c.arg;
    }
    str_kill(&s);
}

#if GTEST_HAS_DEATH_TEST && !defined(_WIN32)
// The process ends at once with the code; the fatal text and uncoloured console lines reach standard
// error unchanged when it is not a terminal.
TEST(OsProcessDeathTest, ExitFatalTextAndConsole) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(os_exit(3), ::testing::ExitedWithCode(3), "");
    EXPECT_EXIT(
        {
            os_show_fatal("x.cpp(1): f(): Fatal error: boom");
            os_exit(1);
        },
        ::testing::ExitedWithCode(1), "^x.cpp\\(1\\): f\\(\\): Fatal error: boom\n$");
    EXPECT_EXIT(
        {
            os_console_open();
            os_console_write("red line\nplain\n", 15, 12);
            os_console_write("", 0, 12);
            os_exit(0);
        },
        ::testing::ExitedWithCode(0), "^red line\nplain\n$");
}
#endif
