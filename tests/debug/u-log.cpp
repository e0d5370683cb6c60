// The log: colour attributes, the file's exact bytes, a disabled log, many threads, the fatal line.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

namespace {

std::string temp_path(const char *tag) {
    static std::atomic<int> serial{0};
    str_t folder, path, name;
    str_init(&folder);
    str_init(&path);
    str_init(&name);
    os_temp_folder(&folder);
    str_printf(&name, "sw-log-test-%u-%u-%d-%s.txt", os_thread_id(), os_tick_ms(), serial.fetch_add(1), tag);
    str_path_cat(&path, folder.ptr, folder.len, name.ptr, name.len);
    std::string out(path.ptr, (size_t) path.len);
    str_kill(&folder);
    str_kill(&path);
    str_kill(&name);
    return out;
}

std::string read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// A clock stopped at a leap day, with every field small enough to need its zero padding.
bool fixed_local(uint64_t, os_systemtime_t *out) {
    *out = os_systemtime_t{2024, 2, 4, 29, 3, 5, 9, 7};
    return true;
}
const char stamp[] = "2024-02-29 03:05:09.007: ";

class Log : public ::testing::Test {
  protected:
    std::string path;
    void SetUp() override {
        debug_init();
        debug_kill();
        os_hooks.filetime_to_local = fixed_local;
        path = temp_path("log");
    }
    void TearDown() override {
        debug_kill();
        os_hooks_reset();
        os_file_delete(path.c_str());
    }
};

TEST(LogColour, MaskToConsoleAttribute) {
    struct row_t {
        uint32_t mask;
        uint32_t attribute;
    };
    const row_t rows[] = {
        {0, 0},           // ordinary lines keep the console's colour
        {0x00FFFFFF, 0},  // not above the threshold: still plain
        {0x01000000, 8},  // coloured, but no colour byte: grey
        {0xFFFFFF00, 14}, // yellow: start-up steps
        {0xFFFF0000, 12}, // red: failures
        {0xFFFF00FF, 13}, // magenta: index decisions
        {0xFF00FFFF, 11}, // cyan: IPC and threads
        {0xFF0000FF, 9},  // blue: timings
        {0xFF00FF00, 10}, // green: messages and events
        {0xFFFFFFFF, 15}, // all three bytes: bright white
        {0x80010101, 15}, // any non-zero byte counts, not only 0xFF
    };
    for (const row_t &r : rows) {
        EXPECT_EQ(debug_color_attribute((int32_t) r.mask), r.attribute) << std::hex << r.mask;
    }
}

TEST_F(Log, FileLinesAreStampedAndOnlyALoneTrailingLfBecomesCrLf) {
    ASSERT_TRUE(debug_open_log_path(path.c_str()));
    EXPECT_TRUE(debug_is_active());
    debug_printf("alpha %d\n", 1);
    debug_printf("no line end");
    debug_color_printf((int32_t) 0xFFFF0000, "already %s\r\n", "crlf");
    debug_printf("inner\nlf kept\n");
    debug_printf("\n");
    debug_close_log();
    EXPECT_FALSE(debug_is_active());
    std::string expected = std::string(stamp) + "alpha 1\r\n" + stamp + "no line end" + stamp +
                           "already crlf\r\n" + stamp + "inner\nlf kept\r\n" + stamp + "\r\n";
    EXPECT_EQ(read_file(path), expected);
}

TEST_F(Log, LongMessageIsWrittenWhole) {
    ASSERT_TRUE(debug_open_log_path(path.c_str()));
    std::string big(5000, 'q');
    big[0] = 'A';
    big[4999] = 'Z';
    debug_printf("%s|%d|%s\n", big.c_str(), 260, big.c_str());
    debug_close_log();
    EXPECT_EQ(read_file(path), std::string(stamp) + big + "|260|" + big + "\r\n");
}

TEST_F(Log, ClosedLogFormatsNothing) {
    EXPECT_FALSE(debug_is_active());
    // Formatting this would read through a wild pointer: a closed log must not even format.
    const char *wild = (const char *) (uintptr_t) 8;
    debug_printf("%s\n", wild);
    debug_color_printf(-256, "%s\n", wild);

    ASSERT_TRUE(debug_open_log_path(path.c_str()));
    debug_printf("kept\n");
    debug_close_log();
    debug_printf("%s\n", wild);
    EXPECT_EQ(read_file(path), std::string(stamp) + "kept\r\n");
}

TEST_F(Log, OnlyTheFirstOpenCounts) {
    std::string other = temp_path("other");
    ASSERT_TRUE(debug_open_log_path(path.c_str()));
    EXPECT_TRUE(debug_open_log_path(other.c_str()));
    debug_printf("one\n");
    debug_close_log();
    EXPECT_FALSE(os_file_exists(other.c_str()));
    EXPECT_EQ(read_file(path), std::string(stamp) + "one\r\n");
}

TEST_F(Log, LinesOfManyThreadsNeverInterleave) {
    ASSERT_TRUE(debug_open_log_path(path.c_str()));
    const int threads = 8, lines = 100;
    // Longer than the inline buffer, so that every line goes through a heap block.
    std::string payload(400, '.');
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; t++) {
        pool.emplace_back([&, t] {
            for (int i = 0; i < lines; i++) {
                debug_printf("T%d L%d %s end\n", t, i, payload.c_str());
            }
        });
    }
    for (auto &th : pool) {
        th.join();
    }
    debug_close_log();
    std::string text = read_file(path);
    std::vector<int> next(threads, 0);
    size_t pos = 0;
    int count = 0;
    while (pos < text.size()) {
        size_t end = text.find("\r\n", pos);
        ASSERT_NE(end, std::string::npos);
        std::string line = text.substr(pos, end - pos);
        ASSERT_EQ(line.compare(0, sizeof(stamp) - 1, stamp), 0) << line;
        int t = -1, i = -1;
        ASSERT_EQ(sscanf(line.c_str() + sizeof(stamp) - 1, "T%d L%d", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < threads);
        EXPECT_EQ(i, next[t]) << "lines of one thread out of order";
        next[t] = i + 1;
        std::string tail = " " + payload + " end";
        EXPECT_EQ(line.substr(line.size() - tail.size()), tail);
        pos = end + 2;
        count++;
    }
    EXPECT_EQ(count, threads * lines);
}

TEST_F(Log, BannerNamesVersionAndPlatform) {
    ASSERT_TRUE(debug_open_log_path(path.c_str()));
    debug_banner();
    debug_close_log();
    std::string text = read_file(path);
    str_t platform;
    str_init(&platform);
    os_platform_name(&platform);
    std::string s(stamp);
    EXPECT_EQ(text.find(s + "Sablewatch\r\n"), 0u);
    EXPECT_NE(text.find(s + "Version 1.4.1.1031"), std::string::npos);
    EXPECT_NE(text.find(s + platform.ptr + "\r\n"), std::string::npos);
    EXPECT_NE(text.find(s + "Processors " + std::to_string(os_processor_count()) + "\r\n"),
              std::string::npos);
    EXPECT_NE(text.find(s + "cmdline "), std::string::npos);
    str_kill(&platform);
}

char *fatal_line(const char *file, int line, const char *function, const char *fmt, ...) {
    va_list args;
    va_start(args, fmt);
    char *out = debug_fatal_line(file, line, function, fmt, args);
    va_end(args);
    return out;
}

TEST(LogFatal, LineShape) {
    char *s = fatal_line("src/db/db.cpp", 734, "db_load", "bad chunk %u of %s", 7u, "idx");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "src/db/db.cpp(734): db_load(): Fatal error: bad chunk 7 of idx");
    mem_free(s);

    std::string big(1000, 'x');
    s = fatal_line("f.cpp", 1, "g", "%s!", big.c_str());
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(std::string(s), "f.cpp(1): g(): Fatal error: " + big + "!");
    mem_free(s);
}

#if GTEST_HAS_DEATH_TEST && !defined(_WIN32)
TEST_F(Log, FatalWritesTheLineAndExitsWithOne) {
    ASSERT_TRUE(debug_open_log_path(path.c_str()));
    EXPECT_EXIT(DEBUG_FATAL("out of memory %p", (void *) (uintptr_t) 0x1234), ::testing::ExitedWithCode(1),
                "u-log\\.cpp\\([0-9]+\\): TestBody\\(\\): Fatal error: out of memory 00001234");
    debug_close_log();
    std::string text = read_file(path);
    EXPECT_NE(text.find("): TestBody(): Fatal error: out of memory 00001234\r\n"), std::string::npos) << text;
}
#endif

TEST(LogClock, MicrosecondsFollowTheCounter) {
    // The microsecond readings lie inside two counter readings: they can't span less than the sleep
    // between them, nor more than the counter saw around them, whatever the load.
    uint64_t c0 = os_counter();
    uint32_t t0 = debug_now_us();
    os_sleep_ms(60);
    uint32_t t1 = debug_now_us();
    uint64_t c1 = os_counter();
    // Unsigned difference: right across the 32-bit wrap.
    uint32_t elapsed = t1 - t0;
    uint64_t around = (c1 - c0) * 1000000u / os_counter_frequency();
    EXPECT_GE(elapsed, 50000u);
    EXPECT_LE(elapsed, around + 1) << "counter saw " << around << " us";
}

} // namespace
