// When a folder source is due: the local hour of a daily or weekly schedule across the days of 23 and 25
// hours of a zone with daylight saving, and the minute at which "this week" becomes "next week".
#include <gtest/gtest.h>

#include "db/db.h"
#include "db_monitor/db_monitor.h"
#include "db_query/clock.h"

namespace {

const uint64_t k_minute = 600000000ull;

// A local wall time of the test zone (Central European) as UTC.
uint64_t local(int y, int mo, int d, int h, int mi = 0, int s = 0) {
    os_systemtime_t st = {y, mo, 0, d, h, mi, s, 0};
    uint64_t ft = 0;
    EXPECT_TRUE(test_clock::from_local(&st, &ft));
    return ft;
}

struct ScheduleTest : ::testing::Test {
    void SetUp() override { test_clock::install(0); }
    void TearDown() override { os_hooks_reset(); }
};

TEST_F(ScheduleTest, NextUpdateKeepsTheLocalHourAcrossDaylightSaving) {
    struct row_t {
        const char *what;
        uint32_t type, value;
        uint64_t now, want;
    };
    const uint32_t sunday_3 = 1 * 24 + 3, monday_3 = 2 * 24 + 3, saturday_23 = 7 * 24 + 23;
    const row_t rows[] = {
        // The night of 2024-03-31 has 23 hours, that of 2024-10-27 has 25.
        {"daily 3:00, passed the day before spring", DB_UPDATE_DAILY, 3, local(2024, 3, 30, 4),
         local(2024, 3, 31, 3)},
        {"daily 3:00, passed the day before autumn", DB_UPDATE_DAILY, 3, local(2024, 10, 26, 4),
         local(2024, 10, 27, 3)},
        {"daily 23:00 on the short day itself", DB_UPDATE_DAILY, 23, local(2024, 3, 31, 12),
         local(2024, 3, 31, 23)},
        {"daily 0:00 from the long day", DB_UPDATE_DAILY, 0, local(2024, 10, 27, 12), local(2024, 10, 28, 0)},
        {"Monday 3:00, passed, next week is in winter", DB_UPDATE_DAILY, monday_3, local(2024, 10, 26, 12),
         local(2024, 10, 28, 3)},
        {"Monday 3:00, later this week across spring", DB_UPDATE_DAILY, monday_3, local(2024, 3, 30, 12),
         local(2024, 4, 1, 3)},
        {"Saturday 23:00 from the Sunday of spring", DB_UPDATE_DAILY, saturday_23, local(2024, 3, 31, 12),
         local(2024, 4, 6, 23)},
        // Sunday 03:00: asked before, at, and after that minute.
        {"Sunday 3:00, a minute before", DB_UPDATE_DAILY, sunday_3, local(2024, 3, 24, 2, 59),
         local(2024, 3, 24, 3)},
        {"Sunday 3:00, at that minute", DB_UPDATE_DAILY, sunday_3, local(2024, 3, 24, 3),
         local(2024, 3, 31, 3)},
        {"Sunday 3:00, within that minute", DB_UPDATE_DAILY, sunday_3, local(2024, 3, 24, 3, 0, 30),
         local(2024, 3, 31, 3)},
        {"Sunday 3:00, at it on the Sunday of autumn", DB_UPDATE_DAILY, sunday_3, local(2024, 10, 27, 3),
         local(2024, 11, 3, 3)},
        {"every 90 minutes, across the hour that repeats", DB_UPDATE_INTERVAL, 90, local(2024, 10, 27, 1, 45),
         local(2024, 10, 27, 1, 45) + 90 * k_minute},
        {"no schedule", DB_UPDATE_NONE, 0, local(2024, 10, 27, 1), 0},
    };
    for (const row_t &r : rows) {
        os_systemtime_t got, want;
        uint64_t next = db_folder_next_update(r.type, r.value, r.now);
        EXPECT_EQ(next, r.want) << r.what;
        if (r.want) {
            test_clock::to_local(next, &got);
            test_clock::to_local(r.want, &want);
            EXPECT_EQ(got.day * 100 + got.hour, want.day * 100 + want.hour) << r.what;
        }
    }
}

TEST_F(ScheduleTest, ScheduleNextSetsTheSourceFromTheClock) {
    test_clock::now_value = local(2024, 3, 30, 4);
    db_fs_t fs = {};
    fs.type = DB_FS_FOLDER;
    fs.update_type = DB_UPDATE_DAILY;
    fs.update_value = 3;
    db_folder_schedule_next(&fs);
    EXPECT_EQ(fs.next_update, local(2024, 3, 31, 3));
}

} // namespace
