// FILETIME arithmetic, the local zone, clocks, and the replaceable calls.
#include "os/os_internal.h"
#include "os_test_util.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>

namespace {

os_systemtime_t st(int y, int mo, int d, int h = 0, int mi = 0, int s = 0, int ms = 0) {
    os_systemtime_t t = {y, mo, 0, d, h, mi, s, ms};
    return t;
}

uint64_t ft_of(os_systemtime_t t) {
    uint64_t ft = 0;
    EXPECT_TRUE(os_system_to_filetime(&t, &ft));
    return ft;
}

} // namespace

TEST(OsTime, KnownFiletimes) {
    struct {
        os_systemtime_t t;
        uint64_t ft;
        int day_of_week;
    } cases[] = {
        {st(1601, 1, 1), 0ull, 1},
        {st(1970, 1, 1), 116444736000000000ull, 4},
        {st(1980, 1, 1), 119600064000000000ull, 2},
        {st(2000, 2, 29, 12, 34, 56, 789), 125963012967890000ull, 2},
        {st(2038, 1, 19, 3, 14, 8), 137919572480000000ull, 2},
        {st(30827, 12, 31, 23, 59, 59, 999), 0x7FFF35F4F06C58F0ull, 5},
    };
    for (const auto &c : cases) {
        uint64_t ft = 0;
        ASSERT_TRUE(os_system_to_filetime(&c.t, &ft)) << c.t.year;
        EXPECT_EQ(ft, c.ft) << c.t.year;
        os_systemtime_t back;
        ASSERT_TRUE(os_filetime_to_system(c.ft, &back));
        EXPECT_EQ(back.year, c.t.year);
        EXPECT_EQ(back.month, c.t.month);
        EXPECT_EQ(back.day, c.t.day);
        EXPECT_EQ(back.hour, c.t.hour);
        EXPECT_EQ(back.minute, c.t.minute);
        EXPECT_EQ(back.second, c.t.second);
        EXPECT_EQ(back.milliseconds, c.t.milliseconds);
        EXPECT_EQ(back.day_of_week, c.day_of_week) << c.t.year;
    }
    // Ticks below a millisecond are dropped, not rounded.
    os_systemtime_t t;
    ASSERT_TRUE(os_filetime_to_system(116444736000000000ull + 9999, &t));
    EXPECT_EQ(t.milliseconds, 0);
    EXPECT_FALSE(os_filetime_to_system(0x8000000000000000ull, &t));
    EXPECT_FALSE(os_filetime_to_system(UINT64_MAX, &t));
}

TEST(OsTime, InvalidFieldsAreRefusedNotNormalised) {
    os_systemtime_t bad[] = {
        st(1600, 12, 31),
        st(30828, 1, 1),
        st(1900, 2, 29),
        st(2023, 2, 29),
        st(2024, 2, 30),
        st(2024, 4, 31),
        st(2024, 0, 1),
        st(2024, 13, 1),
        st(2024, 1, 0),
        st(2024, 1, 1, 24),
        st(2024, 1, 1, 0, 60),
        st(2024, 1, 1, 0, 0, 60),
        st(2024, 1, 1, 0, 0, 0, 1000),
        st(2024, 1, 1, -1),
    };
    for (const auto &t : bad) {
        uint64_t ft = 12345;
        EXPECT_FALSE(os_system_to_filetime(&t, &ft))
            << t.year << "-" << t.month << "-" << t.day << " " << t.hour;
        EXPECT_FALSE(os_local_to_filetime(&t, &ft)) << t.year << "-" << t.month << "-" << t.day;
        EXPECT_EQ(ft, 12345u);
    }
    // The leap years that the century rules allow.
    os_systemtime_t good[] = {st(2000, 2, 29), st(2400, 2, 29), st(2024, 2, 29), st(1604, 2, 29)};
    for (const auto &t : good) {
        uint64_t ft;
        EXPECT_TRUE(os_system_to_filetime(&t, &ft)) << t.year;
    }
}

// Every day from 1601 to 2500 against the standard library's calendar.
TEST(OsTime, DayCountAgreesWithTheStandardCalendar) {
    using namespace std::chrono;
    const sys_days origin = sys_days(year(1601) / January / 1);
    for (sys_days d = origin; d < sys_days(year(2500) / January / 1); d += days(1)) {
        year_month_day ymd(d);
        int64_t expected = (d - origin).count();
        int y = (int) ymd.year(), m = (int) (unsigned) ymd.month(), dd = (int) (unsigned) ymd.day();
        ASSERT_EQ(os_days_from_civil(y, m, dd), expected) << y << "-" << m << "-" << dd;
        os_systemtime_t t;
        ASSERT_TRUE(os_filetime_to_system((uint64_t) expected * 864000000000ull + 1, &t));
        ASSERT_EQ(t.year, y);
        ASSERT_EQ(t.month, m);
        ASSERT_EQ(t.day, dd);
        ASSERT_EQ(t.day_of_week, (int) weekday(d).c_encoding());
    }
}

TEST(OsTime, UtcRoundTrips) {
    uint64_t x = 88172645463325252ull;
    for (int i = 0; i < 20000; i++) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        uint64_t ft = x % 0x7FFF35F4F06C58F0ull;
        os_systemtime_t t;
        ASSERT_TRUE(os_filetime_to_system(ft, &t));
        uint64_t back;
        ASSERT_TRUE(os_system_to_filetime(&t, &back));
        ASSERT_EQ(back, ft - ft % 10000) << ft;
    }
}

TEST(OsTime, NowFollowsTheSystemClock) {
    // Each reading lies between readings of a reference clock taken before and after it; the slack is
    // the clocks' granularity (Windows' coarser clocks tick every 15.6 ms), never an allowance for load.
    using namespace std::chrono;
    auto filetime_of = [](system_clock::time_point t) {
        return (uint64_t) (duration_cast<nanoseconds>(t.time_since_epoch()).count() / 100) +
               116444736000000000ull;
    };
    const uint64_t grain_100ns = 200000;
    uint64_t before = filetime_of(system_clock::now());
    uint64_t now = os_filetime_now();
    uint64_t after = filetime_of(system_clock::now());
    EXPECT_GE(now + grain_100ns, before);
    EXPECT_LE(now, after + grain_100ns);

    EXPECT_GT(os_counter_frequency(), 1000u);
    uint64_t c0 = os_counter();
    uint32_t t0 = os_tick_ms();
    os_sleep_ms(60);
    uint32_t t1 = os_tick_ms();
    uint64_t c1 = os_counter();
    double ms = (double) (c1 - c0) * 1000.0 / (double) os_counter_frequency();
    EXPECT_GE(ms, 50.0);
    EXPECT_GE(t1 - t0, 40u);
    EXPECT_LE((double) (t1 - t0), ms + 2 * 16) << "counter saw " << ms << " ms";
}

// The real zone: whatever it is, local time converts back to the same instant away from the hour that a
// daylight-saving change repeats.
TEST(OsTime, LocalRoundTripInTheRealZone) {
    os_hooks_reset();
    uint64_t starts[] = {ft_of(st(1999, 1, 15, 12)), ft_of(st(2021, 7, 1, 8, 30)),
                         ft_of(st(2024, 2, 29, 23, 59, 59, 5))};
    for (uint64_t ft : starts) {
        os_systemtime_t local;
        ASSERT_TRUE(os_filetime_to_local(ft, &local));
        uint64_t back;
        ASSERT_TRUE(os_local_to_filetime(&local, &back));
        EXPECT_EQ(back, ft);
        // No zone is more than a day away from UTC.
        os_systemtime_t utc;
        os_filetime_to_system(ft, &utc);
        int64_t diff =
            (int64_t) os_days_from_civil(local.year, local.month, local.day) * 1440 + local.hour * 60 +
            local.minute -
            ((int64_t) os_days_from_civil(utc.year, utc.month, utc.day) * 1440 + utc.hour * 60 + utc.minute);
        EXPECT_LE(diff < 0 ? -diff : diff, 1440);
    }
}

#ifndef _WIN32
// A zone with daylight saving, through the C library's rules. Skipped where the zone data is missing.
TEST(OsTime, BerlinZoneThroughTheCLibrary) {
    if (!os_file_exists("/usr/share/zoneinfo/Europe/Berlin")) {
        GTEST_SKIP() << "no zone data";
    }
    const char *old = getenv("TZ");
    std::string saved = old ? old : "";
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    os_hooks_reset();

    os_systemtime_t local;
    ASSERT_TRUE(os_filetime_to_local(ft_of(st(2021, 1, 15, 12, 0, 0, 250)), &local));
    EXPECT_EQ(local.hour, 13);
    EXPECT_EQ(local.milliseconds, 250);
    // The switch to summer time: 01:00 UTC is 03:00 local, the hour before it 01:59 local.
    ASSERT_TRUE(os_filetime_to_local(ft_of(st(2021, 3, 28, 1)), &local));
    EXPECT_EQ(local.hour, 3);
    ASSERT_TRUE(os_filetime_to_local(ft_of(st(2021, 3, 28, 0, 59)), &local));
    EXPECT_EQ(local.hour, 1);
    EXPECT_EQ(local.minute, 59);
    EXPECT_EQ(local.day_of_week, 0);

    uint64_t ft;
    os_systemtime_t summer = st(2021, 7, 1, 14, 0, 0, 5);
    ASSERT_TRUE(os_local_to_filetime(&summer, &ft));
    EXPECT_EQ(ft, ft_of(st(2021, 7, 1, 12, 0, 0, 5)));
    os_systemtime_t winter = st(2021, 12, 1, 14);
    ASSERT_TRUE(os_local_to_filetime(&winter, &ft));
    EXPECT_EQ(ft, ft_of(st(2021, 12, 1, 13)));

    if (old) {
        setenv("TZ", saved.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}
#endif

namespace {

uint64_t fixed_now() {
    return 132000000000000000ull;
}

// A zone two hours east of UTC, without daylight saving.
bool plus_two_to_local(uint64_t ft, os_systemtime_t *out) {
    return os_filetime_to_system(ft + 2 * 36000000000ull, out);
}

bool plus_two_from_local(const os_systemtime_t *local, uint64_t *ft) {
    uint64_t v;
    if (!os_system_to_filetime(local, &v)) {
        return false;
    }
    *ft = v - 2 * 36000000000ull;
    return true;
}

int three_processors() {
    return 3;
}
int no_processors() {
    return 0;
}

void german_locale(os_locale_id_t id, str_t *out) {
    str_set(out, id == OS_LOCALE_DECIMAL ? "," : id == OS_LOCALE_THOUSAND ? "." : "?");
}

} // namespace

TEST(OsHooks, ClockZoneLocaleAndProcessorsCanBeReplacedAndRestored) {
    os_hooks_reset();
    const os_hooks_t real = os_hooks;
    int real_count = os_processor_count();

    os_hooks.filetime_now = fixed_now;
    os_hooks.filetime_to_local = plus_two_to_local;
    os_hooks.local_to_filetime = plus_two_from_local;
    os_hooks.processor_count = three_processors;
    os_hooks.locale_get = german_locale;

    EXPECT_EQ(os_filetime_now(), 132000000000000000ull);
    os_systemtime_t local;
    ASSERT_TRUE(os_filetime_to_local(ft_of(st(2020, 12, 31, 23, 30)), &local));
    EXPECT_EQ(local.year, 2021);
    EXPECT_EQ(local.hour, 1);
    uint64_t ft;
    os_systemtime_t midnight = st(2021, 1, 1);
    ASSERT_TRUE(os_local_to_filetime(&midnight, &ft));
    EXPECT_EQ(ft, ft_of(st(2020, 12, 31, 22)));
    EXPECT_EQ(os_processor_count(), 3);
    str_t s;
    str_init(&s);
    os_locale_get(OS_LOCALE_DECIMAL, &s);
    EXPECT_EQ(os_test_text(&s), ",");

    // A hook that claims no processors still leaves callers one to work with.
    os_hooks.processor_count = no_processors;
    EXPECT_EQ(os_processor_count(), 1);

    os_hooks_reset();
    EXPECT_EQ(os_hooks.filetime_now, real.filetime_now);
    EXPECT_EQ(os_hooks.filetime_to_local, real.filetime_to_local);
    EXPECT_EQ(os_hooks.local_to_filetime, real.local_to_filetime);
    EXPECT_EQ(os_hooks.locale_get, real.locale_get);
    EXPECT_EQ(os_hooks.file_read, nullptr);
    EXPECT_EQ(os_processor_count(), real_count);
    EXPECT_NE(os_filetime_now(), 132000000000000000ull);
    os_locale_get(OS_LOCALE_DECIMAL, &s);
    EXPECT_GT(s.len, 0);
    str_kill(&s);
}

TEST(OsLocale, EveryValueIsUsable) {
    os_hooks_reset();
    str_t s;
    str_init(&s);
    for (int id = 0; id < OS_LOCALE_COUNT; id++) {
        // A 24-hour locale has no morning and afternoon marks, and a locale may give no date order.
        if (id == OS_LOCALE_AM || id == OS_LOCALE_PM || id == OS_LOCALE_DATE_ORDER)
            continue;
        os_locale_get((os_locale_id_t) id, &s);
        EXPECT_GT(s.len, 0) << id;
    }
    os_locale_get(OS_LOCALE_FIRST_DAY_OF_WEEK, &s);
    ASSERT_EQ(s.len, 1);
    EXPECT_TRUE(s.ptr[0] >= '0' && s.ptr[0] <= '6');
    os_locale_get(OS_LOCALE_DATE_ORDER, &s);
    ASSERT_LE(s.len, 1);
    EXPECT_TRUE(s.len == 0 || (s.ptr[0] >= '0' && s.ptr[0] <= '2'));
    str_kill(&s);
}
