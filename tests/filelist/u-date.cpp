// The date columns of a list: every form a field may take, read in a fixed time zone (two hours ahead of
// UTC, through os_hooks) so that the local-time cases give the same answer on every machine.
#include <gtest/gtest.h>

#include <string>

#include "filelist/date.h"
#include "filelist_test.h"
#include "os/os.h"

namespace {

const uint64_t SECOND = 10000000;
const uint64_t HOUR = 3600 * SECOND;
// 2021-06-01 10:00:00 UTC.
const uint64_t T = 132670152000000000ull;
// 2021-06-01 at midnight, and at 10:00, in the test's zone.
const uint64_t LOCAL_MIDNIGHT = T - 10 * HOUR - 2 * HOUR;
const uint64_t LOCAL_TEN = T - 2 * HOUR;

bool two_hours_east(const os_systemtime_t *local, uint64_t *ft) {
    uint64_t utc;
    if (!os_system_to_filetime(local, &utc)) {
        return false;
    }
    *ft = utc - 2 * HOUR;
    return true;
}

class ListDate : public ::testing::Test {
  protected:
    void SetUp() override { os_hooks.local_to_filetime = two_hours_east; }
    void TearDown() override { os_hooks_reset(); }
};

struct date_row_t {
    const char *field;
    uint64_t want;
};

TEST_F(ListDate, EveryForm) {
    const date_row_t rows[] = {
        // Digits that end anywhere but at '-', 't' or 'T' are the FILETIME itself.
        {"132670152000000000", T},
        {"0", 0},
        {"12abc", 12},
        {"abc", 0},
        {"20210601", 20210601},      // a compact date needs its time of day to be read as one
        {"18446744073709551617", 1}, // wraps at 64 bits
        {"", UINT64_MAX},            // unknown
        // UTC, with and without separators, in either letter case.
        {"2021-06-01T10:00:00Z", T},
        {"20210601T100000Z", T},
        {"2021-06-01t10:00:00z", T},
        {"2021-0601T1000:00Z", T},
        // An offset: the time is that far ahead of UTC (or behind it).
        {"2021-06-01T12:00:00+02:00", T},
        {"2021-06-01T12:00:00+0200", T},
        {"2021-06-01T12:00:00+02", T},
        {"2021-06-01T08:30:00-01:30", T},
        {"2021-06-01T10:00:00.5+00:00", T + 5000000},
        // The fraction: the first digit is 1,000,000 ticks, from the eighth on digits add nothing.
        {"2021-06-01T10:00:00.5Z", T + 5000000},
        {"2021-06-01T10:00:00.1234567Z", T + 1234567},
        {"2021-06-01T10:00:00.123456789Z", T + 1234567},
        {"2021-06-01T10:00:00.Z", T},
        // No zone mark: local time, with the fraction.
        {"2021-06-01T10:00:00", LOCAL_TEN},
        {"2021-06-01T10:00:00.25", LOCAL_TEN + 2500000},
        {"2021-06-01T10:00:00,5Z", LOCAL_TEN}, // only '.' opens a fraction: the rest is no zone
        // No time of day: local time, and a zone after the date is not read.
        {"2021-06-01", LOCAL_MIDNIGHT},
        {"2021-06-01Z", LOCAL_MIDNIGHT},
        {"2021-06-01+05:00", LOCAL_MIDNIGHT},
        // A component of the time that isn't there stops the reading: it and the later ones are zero,
        // and what was read is local time whatever follows.
        {"2021-06-01T", LOCAL_MIDNIGHT},
        {"2021-06-01T1", LOCAL_MIDNIGHT},
        {"2021-06-01T10Z", LOCAL_TEN},
        {"2021-06-01T10:0Z", LOCAL_TEN},
        {"2021-06-01T1000Z", LOCAL_TEN},
        {"2021-06-01T10:00:0Z", LOCAL_TEN},
        {"2021-06-01T10:30", LOCAL_TEN + 30 * 60 * SECOND},
        // A date cut short leaves a month or day of zero, which no conversion takes: 0.
        {"2021-06", 0},
        {"2021-6-1", 0},
        {"21-06-01", 0},
        {"12T", 0},
        {"-5", 0},
        // Fields no calendar has: 0, in UTC and in local time alike.
        {"2023-02-29T00:00:00Z", 0},
        {"2021-06-01T24:00:00Z", 0},
        {"2021-06-01T10:60:00Z", 0},
        {"2021-13-01", 0},
        {"2021-06-31T10:00:00", 0},
        {"1600-12-31T23:00:00Z", 0},
        // The edges of the range.
        {"1601-01-01T00:00:00Z", 0},
        {"1601-01-01T00:00:01Z", SECOND},
        {"2024-02-29T00:00:00Z", 133536384000000000ull},
    };
    for (const date_row_t &r : rows) {
        EXPECT_EQ(filelist_parse_date(r.field), r.want) << r.field;
    }
    EXPECT_EQ(filelist_parse_date(nullptr), UINT64_MAX);
}

// The three date columns of a list go through the same reading, in the same zone.
TEST_F(ListDate, ColumnsOfARow) {
    filelist_t list;
    filelist_init(&list, '\\');
    ASSERT_EQ(read_list_text(&list,
                             "Filename,Date Created,Date Modified,Date Accessed\n"
                             "C:\\a,2021-06-01T10Z,2021-06,\n",
                             "C:\\"),
              FILELIST_OK);
    ASSERT_NE(list.first, nullptr);
    EXPECT_EQ(list.first->fd.date_created, LOCAL_TEN);
    EXPECT_EQ(list.first->fd.date_modified, 0u);
    EXPECT_EQ(list.first->fd.date_accessed, UINT64_MAX);
    filelist_kill(&list);
}

} // namespace
