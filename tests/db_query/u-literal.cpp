// Size and date literals against hand-computed bounds, with the clock fixed on Wednesday 2024-03-13
// 14:30 local time in a Central European zone (winter time; summer time starts on 31 March).
#include <gtest/gtest.h>

#include "clock.h"
#include "config/config.h"
#include "db_query/literal.h"

using test_clock::utc;

static const uint64_t H = DATE_HOUR, D = DATE_DAY, OPEN = DB_OPEN_HIGH, UNK = DB_UNKNOWN_64;
static const uint64_t NOW = utc(2024, 3, 13, 13, 30);

struct LiteralTest : ::testing::Test {
    void SetUp() override { test_clock::install(NOW); }
    void TearDown() override { os_hooks_reset(); }
};

struct row_t {
    const char *text;
    uint64_t low, high;
    const char *rest; // what the parser leaves behind
};

static void check_dates(const row_t *rows, size_t n, bool allow_range) {
    for (size_t i = 0; i < n; i++) {
        const char *p = rows[i].text;
        db_range64_t r = {123, 456};
        date_literal_parse(&p, &r, allow_range);
        EXPECT_EQ(r.low, rows[i].low) << "'" << rows[i].text << "' low";
        EXPECT_EQ(r.high, rows[i].high) << "'" << rows[i].text << "' high";
        if (rows[i].rest) {
            EXPECT_STREQ(p, rows[i].rest) << "'" << rows[i].text << "' rest";
        }
    }
}

TEST_F(LiteralTest, SizeLiterals) {
    const row_t rows[] = {
        {"", 0, OPEN, ""},
        {"empty", 0, 0, ""},
        {"Tiny", 1, 10240, ""},
        {"small", 10241, 102400, ""},
        {"MEDIUM", 102401, 1048576, ""},
        {"large", 1048577, 16777216, ""},
        {"huge", 16777217, 134217728, ""},
        {"gigantic", 134217729, OPEN, ""},
        {"unknown", UNK, UNK, ""},
        {"emptyish", 0, 0, "ish"},
        {"0", 0, 0, ""},
        {"1,024", 1024, 1024, ""},
        {"10b", 10, 10, ""},
        {"1kb", 1, 1024, ""},
        {"1KB", 1, 1024, ""},
        {"1mb", 1047553, 1048576, ""},
        {"1.5mb", 1571841, 1572864, ""},
        {"1.5", 1, 1, ""},
        {"1000b", 1000, 1000, ""},
        {"1001kb", 1024001, 1025024, ""},
        {"2gb", (2ull << 30) - 1023, 2ull << 30, ""},
        {"1tb", (1ull << 40) - 1023, 1ull << 40, ""},
        {"1pb", (1ull << 50) - 1023, 1ull << 50, ""},
        {"1eb", (1ull << 60) - 1023, 1ull << 60, ""},
        {"0.5kb", 1, 1024, ""},
        {"10..20", 10, 20, ""},
        {"10-20", 10, 20, ""},
        {"10kb..20kb", 9217, 20480, ""},
        {"5..", 5, OPEN, ""},
        {"tiny..small", 1, 102400, ""},
        {"abc", 0, 0, "abc"},
        {"7,xyz", 7, 7, ",xyz"},
    };
    for (const row_t &row : rows) {
        const char *p = row.text;
        db_range64_t r = {123, 456};
        size_literal_parse(&p, &r, true);
        EXPECT_EQ(r.low, row.low) << row.text;
        EXPECT_EQ(r.high, row.high) << row.text;
        EXPECT_STREQ(p, row.rest) << row.text;
    }
    // Without a range the second half stays in the text.
    const char *p = "10..20";
    db_range64_t r;
    size_literal_parse(&p, &r, false);
    EXPECT_EQ(r.low, 10u);
    EXPECT_EQ(r.high, 10u);
    EXPECT_STREQ(p, "..20");
}

TEST_F(LiteralTest, SizeWordsFollowSettings) {
    int32_t saved = size_tiny;
    size_tiny = 500;
    const char *p = "tiny";
    db_range64_t r;
    size_literal_parse(&p, &r, false);
    EXPECT_EQ(r.low, 1u);
    EXPECT_EQ(r.high, 500u);
    p = "small";
    size_literal_parse(&p, &r, false);
    EXPECT_EQ(r.low, 501u);
    size_tiny = saved;
}

TEST_F(LiteralTest, ComparePrefixesAndIntRanges) {
    struct {
        const char *text;
        uint32_t min, max;
    } rows[] = {
        {"", 1, INT_RANGE_HIGH},
        {"5", 5, 5},
        {"=5", 5, 5},
        {"==5", 5, 5},
        {">=5", 5, INT_RANGE_HIGH},
        {">5", 6, INT_RANGE_HIGH},
        {"<=5", 0, 5},
        {"<5", 0, 4},
        {"<0", 1, 0},
        {">2147483647", 1, 0},
        {"3..7", 3, 7},
        {"3-7", 3, 7},
        {">3..7", 8, INT_RANGE_HIGH},
        {"<3..7", 0, 2},
        {"1,000", 1000, 1000},
        {"x", 0, 0},
    };
    for (const auto &row : rows) {
        const char *p = row.text;
        uint32_t lo = 99, hi = 99;
        cmp_range_parse(&p, &lo, &hi);
        EXPECT_EQ(lo, row.min) << row.text;
        EXPECT_EQ(hi, row.max) << row.text;
    }
    const char *p = "<>";
    EXPECT_EQ(cmp_parse(&p), CMP_LT);
    EXPECT_STREQ(p, ">");
    p = "abc";
    EXPECT_EQ(cmp_parse(&p), CMP_NONE);
    EXPECT_STREQ(p, "abc");
}

TEST_F(LiteralTest, DateWords) {
    const row_t rows[] = {
        {"", 0, OPEN, ""},
        {"today", utc(2024, 3, 12, 23), utc(2024, 3, 13, 23) - 1, ""},
        {"TODAY,xyz", utc(2024, 3, 12, 23), utc(2024, 3, 13, 23) - 1, ",xyz"},
        {"yesterday", utc(2024, 3, 11, 23), utc(2024, 3, 12, 23) - 1, ""},
        {"tomorrow", utc(2024, 3, 13, 23), utc(2024, 3, 14, 23) - 1, ""},
        {"unknown", UNK, UNK, ""},
        // Counts of units move by ticks from now; the past is open to the future.
        {"last 3 days", NOW - 3 * D, OPEN, ""},
        {"last3days", NOW - 3 * D, OPEN, ""},
        {"next 3 days", NOW, NOW + 3 * D, ""},
        {"past 2 hours", NOW - 2 * H, OPEN, ""},
        {"this 5 secs", NOW - 5 * DATE_SECOND, OPEN, ""},
        {"prev 10 minutes", NOW - 10 * DATE_MINUTE, OPEN, ""},
        {"coming 1 weeks", NOW, NOW + DATE_WEEK, ""},
        // (Months and years move by the calendar: see CalendarCountsClampToTheMonthsLastDay.) Beyond
        // either end of the calendar, calendar units end as tick units do.
        {"next 30000 years", NOW, OPEN, ""},
        {"next 99999999 weeks", NOW, OPEN, ""},
        {"last 3000 years", 0, OPEN, ""},
        {"last 999999 weeks", 0, OPEN, ""},
        // Singular units aren't units.
        {"last 1 day", 0, 0, nullptr},
        {"last", 0, 0, ""},
        {"last 3 fortnights", 0, 0, nullptr},
        // Weeks start on Monday by the locale here.
        {"this week", utc(2024, 3, 10, 23), utc(2024, 3, 17, 23) - 1, ""},
        {"last week", utc(2024, 3, 3, 23), utc(2024, 3, 10, 23) - 1, ""},
        {"next week", utc(2024, 3, 17, 23), utc(2024, 3, 24, 23) - 1, ""},
        // March holds the change to summer time.
        {"this month", utc(2024, 2, 29, 23), utc(2024, 3, 31, 22) - 1, ""},
        {"last month", utc(2024, 1, 31, 23), utc(2024, 2, 29, 23) - 1, ""},
        {"next year", utc(2024, 12, 31, 23), utc(2025, 12, 31, 23) - 1, ""},
        {"current year", utc(2023, 12, 31, 23), utc(2024, 12, 31, 23) - 1, ""},
        {"march", utc(2024, 2, 29, 23), utc(2024, 3, 31, 22) - 1, ""},
        {"Mar", utc(2024, 2, 29, 23), utc(2024, 3, 31, 22) - 1, ""},
        {"may", utc(2024, 4, 30, 22), utc(2024, 5, 31, 22) - 1, ""},
        {"next may", utc(2025, 4, 30, 22), utc(2025, 5, 31, 22) - 1, ""},
        {"last dec", utc(2023, 11, 30, 23), utc(2023, 12, 31, 23) - 1, ""},
        // Weekday names in the Sunday-based week: Saturday is still ahead.
        {"sat", utc(2024, 3, 15, 23), utc(2024, 3, 16, 23) - 1, ""},
        {"saturday", utc(2024, 3, 15, 23), utc(2024, 3, 16, 23) - 1, ""},
        {"sunday", utc(2024, 3, 9, 23), utc(2024, 3, 10, 23) - 1, ""},
        {"last sun", utc(2024, 3, 2, 23), utc(2024, 3, 3, 23) - 1, ""},
        {"next monday", utc(2024, 3, 17, 23), utc(2024, 3, 18, 23) - 1, ""},
        {"last 2 friday", utc(2024, 3, 7, 23), utc(2024, 3, 8, 23) - 1, ""},
    };
    check_dates(rows, sizeof rows / sizeof rows[0], true);
}

TEST_F(LiteralTest, WeekFollowsLocaleFirstDay) {
    // Sunday first: the week of Wednesday 13 March starts on Sunday 10 March.
    test_clock::first_day = "6";
    const row_t sunday[] = {{"this week", utc(2024, 3, 9, 23), utc(2024, 3, 16, 23) - 1, ""}};
    check_dates(sunday, 1, true);
    // A first day of Wednesday makes this week start today, and an unreadable value means Sunday.
    test_clock::first_day = "2";
    const row_t wednesday[] = {{"this week", utc(2024, 3, 12, 23), utc(2024, 3, 19, 23) - 1, ""}};
    check_dates(wednesday, 1, true);
    test_clock::first_day = "x";
    check_dates(sunday, 1, true);
}

TEST_F(LiteralTest, NumericDates) {
    const row_t rows[] = {
        {"2020", utc(2019, 12, 31, 23), utc(2020, 12, 31, 23) - 1, ""},
        {"2020-1-2", utc(2020, 1, 1, 23), utc(2020, 1, 2, 23) - 1, ""},
        {"2020-06", utc(2020, 5, 31, 22), utc(2020, 6, 30, 22) - 1, ""},
        {"2020-01-02T10:11", utc(2020, 1, 2, 9, 11), utc(2020, 1, 2, 9, 12) - 1, ""},
        {"2020-01-02t10", utc(2020, 1, 2, 9), utc(2020, 1, 2, 10) - 1, ""},
        {"2020-06-15t10:11:12.5", utc(2020, 6, 15, 8, 11, 12) + 5 * DATE_MILLI,
         utc(2020, 6, 15, 8, 11, 12) + 6 * DATE_MILLI - 1, ""},
        {"2020-06-15T101112", utc(2020, 6, 15, 8, 11, 12), utc(2020, 6, 15, 8, 11, 13) - 1, ""},
        {"20200102", utc(2020, 1, 1, 23), utc(2020, 1, 2, 23) - 1, ""},
        {"202001", utc(2019, 12, 31, 23), utc(2020, 1, 31, 23) - 1, ""},
        {"20200102T1230", utc(2020, 1, 2, 11, 30), utc(2020, 1, 2, 11, 31) - 1, ""},
        {"20200102 12", utc(2020, 1, 1, 23), utc(2020, 1, 2, 23) - 1, " 12"},
        // Day first by the locale here.
        {"1/2/2020", utc(2020, 1, 31, 23), utc(2020, 2, 1, 23) - 1, ""},
        {"1.2.2020", utc(2020, 1, 31, 23), utc(2020, 2, 1, 23) - 1, ""},
        {"2020/01/02", 0, 0, nullptr},
        {"20-1-2", utc(2002, 1, 19, 23), utc(2002, 1, 20, 23) - 1, ""},
        {"1/2", utc(2001, 12, 31, 23), utc(2002, 1, 31, 23) - 1, ""},
        {"01-02", utc(2000, 12, 31, 23), utc(2002, 12, 31, 23) - 1, ""},
        {"1/2/2020t8:05", utc(2020, 2, 1, 7, 5), utc(2020, 2, 1, 7, 6) - 1, ""},
        // Ranges: years, and ISO months behind '/'.
        {"2020..2021", utc(2019, 12, 31, 23), utc(2021, 12, 31, 23) - 1, ""},
        {"2020-2021", utc(2019, 12, 31, 23), utc(2021, 12, 31, 23) - 1, ""},
        {"2020-01/2020-03", utc(2019, 12, 31, 23), utc(2020, 3, 31, 22) - 1, ""},
        {"2020..", utc(2019, 12, 31, 23), OPEN, ""},
        {"1-2-2020-3-4-2020", utc(2020, 1, 31, 23), utc(2020, 4, 3, 22) - 1, ""},
        // Fields that don't exist are refused, not carried into the next month.
        {"2020-02-30", 0, 0, ""},
        {"2021-02-29", 0, 0, ""},
        {"2020-02-29", utc(2020, 2, 28, 23), utc(2020, 2, 29, 23) - 1, ""},
        {"2020-01-02T25", 0, 0, ""},
        {"13/13/2020", 0, 0, ""},
        // A written month outside 1..12 is no month: it never rolls into the next or previous year.
        {"202013", 0, 0, ""},
        {"202000", 0, 0, ""},
        {"20201300", 0, 0, ""},
        {"2020-0", 0, 0, ""},
        {"13/2020", 0, 0, ""},
        {"0/2020", 0, 0, ""},
        {"30828", 0, 0, ""},
        {"30827", utc(30826, 12, 31, 23), OPEN, ""},
        {"xyz", 0, 0, "xyz"},
        // Two-digit years take this century unless that passes the limit of 2049.
        {"49", utc(2048, 12, 31, 23), utc(2049, 12, 31, 23) - 1, ""},
        {"1/1/50", utc(1949, 12, 31, 23), utc(1950, 1, 1, 23) - 1, ""},
    };
    check_dates(rows, sizeof rows / sizeof rows[0], true);
    // Without a range allowed every dash is a date dash.
    const row_t single[] = {
        {"20-1-2", utc(2002, 1, 19, 23), utc(2002, 1, 20, 23) - 1, ""},
        {"2020..2021", utc(2019, 12, 31, 23), utc(2020, 12, 31, 23) - 1, "..2021"},
    };
    check_dates(single, 2, false);
}

TEST_F(LiteralTest, DateOrderFollowsLocale) {
    test_clock::date_order = "0";
    const row_t month_first[] = {
        {"1/2/2020", utc(2020, 1, 1, 23), utc(2020, 1, 2, 23) - 1, ""},
        {"1/2020", utc(2019, 12, 31, 23), utc(2020, 1, 31, 23) - 1, ""},
    };
    check_dates(month_first, 2, true);
    test_clock::date_order = "2";
    const row_t year_first[] = {
        {"2020/01/02", utc(2020, 1, 1, 23), utc(2020, 1, 2, 23) - 1, ""},
        {"2020/3", utc(2020, 2, 29, 23), utc(2020, 3, 31, 22) - 1, ""},
        {"2020/13", 0, 0, ""},
    };
    check_dates(year_first, 3, true);
    // A locale that gives no usable order: day first for three numbers, month first for two.
    for (const char *none : {"", "x", "3", "-1"}) {
        test_clock::date_order = none;
        const row_t no_order[] = {
            {"1/2/2020", utc(2020, 1, 31, 23), utc(2020, 2, 1, 23) - 1, ""},
            {"13/1/2020", utc(2020, 1, 12, 23), utc(2020, 1, 13, 23) - 1, ""},
            {"1/13/2020", 0, 0, ""},
            {"2/2020", utc(2020, 1, 31, 23), utc(2020, 2, 29, 23) - 1, ""},
        };
        check_dates(no_order, 4, true);
    }
}

TEST_F(LiteralTest, DaylightSavingEdges) {
    // The day of the change to summer time has 23 hours, the day back 25.
    const row_t days[] = {
        {"2024-03-31", utc(2024, 3, 30, 23), utc(2024, 3, 31, 22) - 1, ""},
        {"2024-10-27", utc(2024, 10, 26, 22), utc(2024, 10, 27, 23) - 1, ""},
        {"2024-03-31t03", utc(2024, 3, 31, 1), utc(2024, 3, 31, 2) - 1, ""},
    };
    check_dates(days, 3, true);
    // Today on the short day, and yesterday seen from the day after it: whole local days.
    test_clock::now_value = utc(2024, 3, 31, 12);
    const row_t on_change[] = {{"today", utc(2024, 3, 30, 23), utc(2024, 3, 31, 22) - 1, ""}};
    check_dates(on_change, 1, true);
    test_clock::now_value = utc(2024, 4, 1, 10);
    const row_t after[] = {
        {"yesterday", utc(2024, 3, 30, 23), utc(2024, 3, 31, 22) - 1, ""},
        {"today", utc(2024, 3, 31, 22), utc(2024, 4, 1, 22) - 1, ""},
        {"last week", utc(2024, 3, 24, 23), utc(2024, 3, 31, 22) - 1, ""},
    };
    check_dates(after, 3, true);
}

// Months and years counted from each day of a leap and a common year, at noon local time (never in a
// daylight saving gap): the same wall clock that many months away, in summer or winter time as that day
// has it, on the last day of the month where the month is shorter. The expected day is found from the
// first of the next month, not from a day table.
TEST_F(LiteralTest, CalendarCountsClampToTheMonthsLastDay) {
    auto local = [](int y, int m, int d) {
        os_systemtime_t st = {y, m, 0, d, 12, 0, 0, 0};
        uint64_t ft = 0;
        EXPECT_TRUE(test_clock::from_local(&st, &ft)) << y << "-" << m << "-" << d;
        return ft;
    };
    auto shifted = [&](int y, int m, int d, int months) {
        int index = y * 12 + (m - 1) + months;
        int ty = index / 12, tm = index % 12 + 1;
        uint64_t next_first = utc(tm == 12 ? ty + 1 : ty, tm == 12 ? 1 : tm + 1, 1);
        os_systemtime_t last;
        os_filetime_to_system(next_first - D, &last);
        return local(ty, tm, d < last.day ? d : last.day);
    };
    static const struct {
        const char *text;
        int months;
    } counts[] = {{"last 1 months", -1}, {"next 1 months", 1},    {"last 1 years", -12},
                  {"next 1 years", 12},  {"past 13 months", -13}, {"coming 2 years", 24}};
    // The time of day is kept to the tick, below the milliseconds that the calendar fields hold.
    const uint64_t odd = local(2024, 1, 31) + 12345;
    test_clock::now_value = odd;
    const row_t exact[] = {
        {"next 0 months", odd, odd, ""},
        {"last 0 years", odd, OPEN, ""},
        {"next 1 months", odd, local(2024, 2, 29) + 12345, ""},
    };
    check_dates(exact, 3, true);
    for (int year : {2024, 2023}) {
        for (uint64_t day = utc(year, 1, 1); day < utc(year + 1, 1, 1); day += D) {
            os_systemtime_t f;
            os_filetime_to_system(day, &f);
            uint64_t now = local(f.year, f.month, f.day);
            test_clock::now_value = now;
            for (const auto &c : counts) {
                uint64_t then = shifted(f.year, f.month, f.day, c.months);
                const char *p = c.text;
                db_range64_t r;
                date_literal_parse(&p, &r, true);
                uint64_t low = c.months < 0 ? then : now, high = c.months < 0 ? OPEN : then;
                EXPECT_EQ(r.low, low) << c.text << " on " << f.year << "-" << f.month << "-" << f.day;
                EXPECT_EQ(r.high, high) << c.text << " on " << f.year << "-" << f.month << "-" << f.day;
            }
        }
    }
}

TEST_F(LiteralTest, CalendarHelpers) {
    os_systemtime_t f = {2024, 1, 0, 15, 0, 0, 0, 0};
    date_add_months(&f, 0);
    EXPECT_EQ(f.year, 2023);
    EXPECT_EQ(f.month, 12);
    f.year = 2024;
    date_add_months(&f, -12);
    EXPECT_EQ(f.year, 2022);
    EXPECT_EQ(f.month, 12);
    f.year = 2024;
    date_add_months(&f, 25);
    EXPECT_EQ(f.year, 2026);
    EXPECT_EQ(f.month, 1);
    EXPECT_EQ(date_to_filetime(30828, 1, 1), 0u);
    EXPECT_EQ(date_to_filetime(2024, 2, 30), 0u);
    EXPECT_EQ(date_to_filetime(2024, 3, 13), utc(2024, 3, 12, 23));
    os_systemtime_t now;
    date_now_fields(&now);
    EXPECT_EQ(now.year, 2024);
    EXPECT_EQ(now.day, 13);
    EXPECT_EQ(now.day_of_week, 3);
    EXPECT_EQ(now.hour, 14);
}

// The limit comes from the locale: each two-digit year lands in this century unless that passes the
// limit, and a literal built on such a year follows it. The clock stands in 2024.
TEST_F(LiteralTest, TwoDigitYearsFollowTheLocaleLimit) {
    static const struct {
        const char *limit;
        int y29, y30, y49, y50, y99;
    } rows[] = {
        {"1999", 1929, 1930, 1949, 1950, 1999},
        {"2029", 2029, 1930, 1949, 1950, 1999},
        {"2049", 2029, 2030, 2049, 1950, 1999},
        // No usable answer: the platform default, 2049.
        {"", 2029, 2030, 2049, 1950, 1999},
        {"20x9", 2029, 2030, 2049, 1950, 1999},
        {"12", 2029, 2030, 2049, 1950, 1999},
    };
    for (const auto &row : rows) {
        test_clock::two_digit_year_max = row.limit;
        const int two[] = {29, 30, 49, 50, 99};
        const int want[] = {row.y29, row.y30, row.y49, row.y50, row.y99};
        for (int i = 0; i < 5; i++) {
            os_systemtime_t y = {two[i], 1, 0, 1, 0, 0, 0, 0};
            date_fix_two_digit_year(&y);
            EXPECT_EQ(y.year, want[i]) << "limit '" << row.limit << "' year " << two[i];
        }
        // A year of four digits, or of three, is never moved.
        os_systemtime_t y = {2090, 1, 0, 1, 0, 0, 0, 0};
        date_fix_two_digit_year(&y);
        EXPECT_EQ(y.year, 2090);
        // The numeric literal's year (day first here): 1 February of the year the limit gives.
        const char *p = "1/2/30";
        db_range64_t r;
        date_literal_parse(&p, &r, true);
        EXPECT_EQ(r.low, utc(row.y30, 1, 31, 23)) << row.limit;
        EXPECT_EQ(r.high, utc(row.y30, 2, 1, 23) - 1) << row.limit;
    }
}
