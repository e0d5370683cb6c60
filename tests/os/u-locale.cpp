// Locale values: the hook that tests pin them with, the user default's values being usable, and the values
// of named locales, the C locale and German, against what those locales are known to say.
#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <string>

#include "os_test_util.h"

namespace {

std::string named(const char *locale, os_locale_id_t id) {
    str_t s;
    str_init(&s);
    EXPECT_TRUE(os_locale_get_named(locale, id, &s)) << locale;
    std::string v = os_test_text(&s);
    str_kill(&s);
    return v;
}

std::string user(os_locale_id_t id) {
    str_t s;
    str_init(&s);
    os_locale_get(id, &s);
    std::string v = os_test_text(&s);
    str_kill(&s);
    return v;
}

os_locale_id_t month(int m) {
    return (os_locale_id_t) (OS_LOCALE_MONTH_NAME + m - 1);
}
// Monday 1 .. Sunday 7.
os_locale_id_t day(int d) {
    return (os_locale_id_t) (OS_LOCALE_DAY_NAME + d - 1);
}
os_locale_id_t day_abbrev(int d) {
    return (os_locale_id_t) (OS_LOCALE_DAY_ABBREV + d - 1);
}

void pinned(os_locale_id_t id, str_t *out) {
    str_set(out, id == OS_LOCALE_TWO_DIGIT_YEAR_MAX ? "1999" : "pinned");
}

struct expect_t {
    os_locale_id_t id;
    const char *value;
};

void check(const char *locale, const expect_t *rows, size_t n) {
    for (size_t i = 0; i < n; i++) {
        EXPECT_EQ(named(locale, rows[i].id), rows[i].value) << locale << " id " << (int) rows[i].id;
    }
}

#ifndef _WIN32
// The test's own locales: the system's, or ones compiled into a private folder that LOCPATH points at
// while the test runs. has() tells which could be had.
struct locales_t {
    std::string folder, saved_locpath;
    bool had_locpath = false;
    std::string made[4];
    int count = 0;

    explicit locales_t(std::initializer_list<const char *> names) {
        str_t s;
        str_init(&s);
        std::string missing[4];
        int missing_count = 0;
        for (const char *name : names) {
            std::string full = std::string(name) + ".UTF-8";
            if (os_locale_get_named(full.c_str(), OS_LOCALE_DECIMAL, &s)) {
                made[count++] = full;
            } else {
                missing[missing_count++] = name;
            }
        }
        if (missing_count > 0) {
            const char *old = getenv("LOCPATH");
            had_locpath = old != nullptr;
            saved_locpath = old ? old : "";
            os_temp_folder(&s);
            folder = os_test_text(&s) + "/sw-locale-test-" + std::to_string(os_thread_id());
            os_folder_create_path(folder.c_str());
            // Every locale is compiled before LOCPATH names the folder: glibc remembers a locale it
            // failed to find under a path, so a probe made before localedef wrote it would fail for ever.
            for (int i = 0; i < missing_count; i++) {
                std::string cmd = "localedef -i " + missing[i] + " -f UTF-8 '" + folder + "/" + missing[i] +
                                  ".UTF-8' >/dev/null 2>&1";
                // localedef warns with exit code 1 and still writes the locale: the probe decides.
                (void) std::system(cmd.c_str());
            }
            setenv("LOCPATH", folder.c_str(), 1);
            for (int i = 0; i < missing_count; i++) {
                std::string full = missing[i] + ".UTF-8";
                if (os_locale_get_named(full.c_str(), OS_LOCALE_DECIMAL, &s)) {
                    made[count++] = full;
                }
            }
        }
        str_kill(&s);
    }
    bool has(const char *full) const {
        for (int i = 0; i < count; i++) {
            if (made[i] == full) {
                return true;
            }
        }
        return false;
    }
    ~locales_t() {
        if (!folder.empty()) {
            if (had_locpath) {
                setenv("LOCPATH", saved_locpath.c_str(), 1);
            } else {
                unsetenv("LOCPATH");
            }
            std::string cmd = "rm -rf '" + folder + "'";
            EXPECT_EQ(std::system(cmd.c_str()), 0);
        }
    }
};
#endif

} // namespace

TEST(OsLocaleHook, PinsEveryValueAndResets) {
    os_hooks.locale_get = pinned;
    EXPECT_EQ(user(OS_LOCALE_DATE_ORDER), "pinned");
    EXPECT_EQ(user(OS_LOCALE_TWO_DIGIT_YEAR_MAX), "1999");
    EXPECT_EQ(user(day(7)), "pinned");
    os_hooks_reset();
    // The platform's own answers are usable: the flags are digits in their ranges, the limit a year.
    std::string first = user(OS_LOCALE_FIRST_DAY_OF_WEEK), order = user(OS_LOCALE_DATE_ORDER);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_TRUE(first[0] >= '0' && first[0] <= '6');
    // A locale may give no date order; one it gives is a digit in range.
    ASSERT_LE(order.size(), 1u);
    EXPECT_TRUE(order.empty() || (order[0] >= '0' && order[0] <= '2'));
    int limit = atoi(user(OS_LOCALE_TWO_DIGIT_YEAR_MAX).c_str());
    EXPECT_GE(limit, 99);
    EXPECT_LE(limit, 9999);
    for (int m = 1; m <= 12; m++) {
        EXPECT_FALSE(user(month(m)).empty()) << m;
    }
    for (int d = 1; d <= 7; d++) {
        EXPECT_FALSE(user(day(d)).empty()) << d;
    }
    EXPECT_EQ(user((os_locale_id_t) OS_LOCALE_COUNT), "");
    EXPECT_EQ(user((os_locale_id_t) -1), "");
}

TEST(OsLocaleNamed, UnknownLocaleGivesNothing) {
    str_t s;
    str_init(&s);
    str_set(&s, "old");
    EXPECT_FALSE(os_locale_get_named("xx_QQ.nonsense", OS_LOCALE_DECIMAL, &s));
    EXPECT_EQ(s.len, 0);
    str_kill(&s);
}

#ifndef _WIN32
TEST(OsLocaleNamed, TheCLocale) {
    // The C locale is the United States' order with a 24-hour clock; it has no thousands separator, so the
    // Windows default stands in, and its week starts on Sunday.
    const expect_t rows[] = {
        {OS_LOCALE_DATE_SEPARATOR, "/"},
        {OS_LOCALE_TIME_SEPARATOR, ":"},
        {OS_LOCALE_SHORT_DATE, "MM/dd/yy"},
        {OS_LOCALE_TIME_FORMAT, "HH:mm:ss"},
        {OS_LOCALE_DECIMAL, "."},
        {OS_LOCALE_THOUSAND, ","},
        {OS_LOCALE_FIRST_DAY_OF_WEEK, "6"},
        {OS_LOCALE_DATE_ORDER, "0"},
        {OS_LOCALE_AM, "AM"},
        {OS_LOCALE_PM, "PM"},
        {OS_LOCALE_TWO_DIGIT_YEAR_MAX, "2049"},
        {month(1), "January"},
        {month(12), "December"},
        {(os_locale_id_t) (OS_LOCALE_MONTH_ABBREV + 4), "May"},
        {day(1), "Monday"},
        {day(7), "Sunday"},
        {day_abbrev(3), "Wed"},
    };
    check("C", rows, sizeof rows / sizeof rows[0]);
}

TEST(OsLocaleNamed, TheEnvironmentsLocaleIsTheUserDefault) {
    os_hooks_reset();
    for (int id = 0; id < OS_LOCALE_COUNT; id++) {
        EXPECT_EQ(user((os_locale_id_t) id), named("", (os_locale_id_t) id)) << id;
    }
}

// A locale whose date picture holds the day alone has no date order: the answer is empty, so that the
// date parser's own rule for that case applies, not an order made up here.
TEST(OsLocaleNamed, NoDateOrderIsEmpty) {
    str_t s;
    str_init(&s);
    os_temp_folder(&s);
    std::string folder = os_test_text(&s) + "/sw-locale-order-" + std::to_string(os_thread_id());
    str_kill(&s);
    os_folder_create_path(folder.c_str());
    std::string cmd = "sed 's|^d_fmt .*|d_fmt \"%d\"|' /usr/share/i18n/locales/C >'" + folder +
                      "/src' 2>/dev/null && localedef -c -i '" + folder + "/src' -f UTF-8 '" + folder +
                      "/xx_NO.UTF-8' >/dev/null 2>&1";
    (void) std::system(cmd.c_str());
    const char *old = getenv("LOCPATH");
    std::string saved = old ? old : "";
    setenv("LOCPATH", folder.c_str(), 1);
    str_init(&s);
    bool made = os_locale_get_named("xx_NO.UTF-8", OS_LOCALE_DATE_ORDER, &s);
    std::string order = os_test_text(&s);
    str_kill(&s);
    if (old) {
        setenv("LOCPATH", saved.c_str(), 1);
    } else {
        unsetenv("LOCPATH");
    }
    EXPECT_EQ(std::system(("rm -rf '" + folder + "'").c_str()), 0);
    if (!made) {
        GTEST_SKIP() << "localedef could not build a locale from /usr/share/i18n/locales/C (is the package "
                        "locales installed?)";
    }
    EXPECT_EQ(order, "");
}
#endif

// German, Norwegian and Albanian: on Linux from the system or compiled once for the suite (localedef takes a
// while per locale). A locale that can't be had skips its test with the reason rather than passing.
class OsLocaleNamedOther : public ::testing::Test {
  protected:
#ifndef _WIN32
    static locales_t *locales;
    static void SetUpTestSuite() {
        locales = new locales_t({"de_DE", "nb_NO", "sq_AL"});
    }
    static void TearDownTestSuite() {
        delete locales;
        locales = nullptr;
    }
#endif
    static bool usable(const char *full) {
#ifdef _WIN32
        (void) full;
        return true;
#else
        return locales->has(full);
#endif
    }
};
#ifndef _WIN32
locales_t *OsLocaleNamedOther::locales = nullptr;
#endif

#define SKIP_UNLESS_USABLE(full)                                                                             \
    if (!usable(full)) {                                                                                     \
        GTEST_SKIP() << "no " full " locale: the system has none and localedef could not make one (is the "  \
                        "package locales installed?)";                                                       \
    }

TEST_F(OsLocaleNamedOther, German) {
#ifdef _WIN32
    const char *name = "de-DE";
#else
    SKIP_UNLESS_USABLE("de_DE.UTF-8");
    const char *name = "de_DE.UTF-8";
    // glibc knows the German week and a 24-hour clock without AM and PM.
    const expect_t glibc_rows[] = {{OS_LOCALE_AM, ""},
                                   {OS_LOCALE_PM, ""},
                                   {OS_LOCALE_TWO_DIGIT_YEAR_MAX, "2049"},
                                   {OS_LOCALE_SHORT_DATE, "dd.MM.yyyy"},
                                   {day_abbrev(7), "So"}};
    check(name, glibc_rows, sizeof glibc_rows / sizeof glibc_rows[0]);
#endif
    const expect_t rows[] = {
        {OS_LOCALE_DATE_SEPARATOR, "."},
        {OS_LOCALE_TIME_SEPARATOR, ":"},
        {OS_LOCALE_TIME_FORMAT, "HH:mm:ss"},
        {OS_LOCALE_DECIMAL, ","},
        {OS_LOCALE_THOUSAND, "."},
        {OS_LOCALE_FIRST_DAY_OF_WEEK, "0"},
        {OS_LOCALE_DATE_ORDER, "1"},
        {month(1), "Januar"},
        {month(3), "M\xC3\xA4rz"},
        {day(1), "Montag"},
        {day(7), "Sonntag"},
    };
    check(name, rows, sizeof rows / sizeof rows[0]);
    // Windows versions differ in leading zeros ("dd.MM.yyyy", "d.M.yyyy") and in the short day names'
    // full stop: the picture is day, month, year with dots, and Sunday's short name begins "So".
    std::string picture = named(name, OS_LOCALE_SHORT_DATE);
    EXPECT_EQ(picture.find('d'), 0u) << picture;
    EXPECT_NE(picture.find(".M"), std::string::npos) << picture;
    ASSERT_GE(picture.size(), 5u);
    EXPECT_EQ(picture.substr(picture.size() - 5), ".yyyy") << picture;
    EXPECT_EQ(named(name, day_abbrev(7)).substr(0, 2), "So");
}

#ifndef _WIN32
// glibc's pictures with quoted letters and dropped fields: the letters of the text are quoted as one run,
// a dropped zone leaves no blank, and the "-" flag drops the leading zero.
TEST_F(OsLocaleNamedOther, NorwegianQuotesLettersAndDropsTheZone) {
    SKIP_UNLESS_USABLE("nb_NO.UTF-8");
    EXPECT_EQ(named("nb_NO.UTF-8", OS_LOCALE_TIME_FORMAT), "'kl'. HH.mm");
    EXPECT_EQ(named("nb_NO.UTF-8", OS_LOCALE_TIME_SEPARATOR), ".");
}

TEST_F(OsLocaleNamedOther, AlbanianDropsLeadingZeros) {
    SKIP_UNLESS_USABLE("sq_AL.UTF-8");
    EXPECT_EQ(named("sq_AL.UTF-8", OS_LOCALE_SHORT_DATE), "d.M.yy");
    EXPECT_EQ(named("sq_AL.UTF-8", OS_LOCALE_DATE_ORDER), "1");
}
#endif

namespace {

// Code pages: the same table on both systems, since both name the Windows code pages. A character the
// page lacks and a byte that isn't UTF-8 each become one '?'.
TEST(OsCodePage, ConversionsFromUtf8) {
    struct Case {
        uint32_t code_page;
        std::string utf8, want;
    } cases[] = {
        {1252, "", ""},
        {1252, "plain name.txt", "plain name.txt"},
        {1252, "r\xC3\xA9sum\xC3\xA9", "r\xE9sum\xE9"},
        {1252, "\xE2\x82\xAC 5", "\x80 5"},
        {1252, "\xE6\x9D\xB1\xE4\xBA\xAC.txt", "??.txt"},
        {1252, "\xF0\x9F\x98\x80", "?"},
        {1252,
         "a\xFF"
         "b",
         "a?b"},
        {1252, "a\xC3", "a?"},
        {437, "\xC3\xA9", "\x82"},
        {437, "\xE2\x82\xAC", "?"},
        {932, "\xE6\x9D\xB1", "\x93\x8C"},
        {932, "a\xE6\x9D\xB1z", "a\x93\x8Cz"},
    };
    for (const Case &c : cases) {
        str_t out;
        str_init(&out);
        ASSERT_TRUE(os_text_to_code_page(&out, c.utf8.data(), c.utf8.size(), c.code_page)) << c.code_page;
        EXPECT_EQ(os_test_text(&out), c.want) << c.code_page << " " << c.utf8;
        str_kill(&out);
    }
    // A long text with a missing character every so often: the output grows past the first guess.
    std::string longer, want;
    for (int i = 0; i < 5000; i++) {
        longer += i % 7 ? "\xC3\xA9" : "\xE6\x9D\xB1";
        want += i % 7 ? "\xE9" : "?";
    }
    str_t out;
    str_init(&out);
    ASSERT_TRUE(os_text_to_code_page(&out, longer.data(), longer.size(), 1252));
    EXPECT_EQ(os_test_text(&out), want);
    EXPECT_FALSE(os_text_to_code_page(&out, "x", 1, 99999));
    EXPECT_EQ(out.len, 0);
    str_kill(&out);
}

// And back: the same pages decode to the same UTF-8 on both systems, and a text that the page holds makes
// the round trip whole.
TEST(OsCodePage, ConversionsToUtf8) {
    struct Case {
        uint32_t code_page;
        std::string text, want;
    } cases[] = {
        {1252, "", ""},
        {1252, "plain.txt", "plain.txt"},
        {1252, "r\xE9sum\xE9", "r\xC3\xA9sum\xC3\xA9"},
        {1252, "\x80 5", "\xE2\x82\xAC 5"},
        {437, "\x82", "\xC3\xA9"},
        {932, "a\x93\x8Cz", "a\xE6\x9D\xB1z"},
    };
    str_t out, back;
    str_init(&out);
    str_init(&back);
    for (const Case &c : cases) {
        ASSERT_TRUE(os_text_from_code_page(&out, c.text.data(), c.text.size(), c.code_page)) << c.code_page;
        EXPECT_EQ(os_test_text(&out), c.want) << c.code_page << " " << c.text;
        ASSERT_TRUE(os_text_to_code_page(&back, out.ptr, (size_t) out.len, c.code_page));
        EXPECT_EQ(os_test_text(&back), c.text);
    }
#ifndef _WIN32
    // Bytes that the C library's 932 leaves undefined each give one '?', even where they look like UTF-8's
    // continuation bytes. (Windows gives them private-use characters of its own.)
    ASSERT_TRUE(os_text_from_code_page(&out, "a\xFD\xA0\xA0z", 5, 932));
    EXPECT_EQ(os_test_text(&out), "a???z");
#endif
    EXPECT_FALSE(os_text_from_code_page(&out, "x", 1, 99999));
    str_kill(&back);
    str_kill(&out);
}

// The system's own page keeps ASCII as it is, whatever page that is.
TEST(OsCodePage, AnsiKeepsAscii) {
    str_t out;
    str_init(&out);
    os_text_to_ansi(&out, "Program Files/a b.txt", 21);
    EXPECT_EQ(os_test_text(&out), "Program Files/a b.txt");
    os_text_from_ansi(&out, "Program Files/a b.txt", 21);
    EXPECT_EQ(os_test_text(&out), "Program Files/a b.txt");
    str_kill(&out);
}

} // namespace
