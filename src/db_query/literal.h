// Size and date literals: the tolerant parsers behind size:, dm:, dc:, da:, rc:, dr: and their kin, and the
// small compare-prefix and integer-range readers the search functions share.
//
// Invariants:
// - Every parser turns text at a cursor into a pair of inclusive bounds and never fails: what it does not
//   understand stays in the text and the bounds select little or nothing. The cursor is left behind what
//   was read; callers ignore what follows.
// - Dates are FILETIME values (100 ns ticks since 1601, UTC). A partial date is a range: "2020" covers the
//   whole year. Local time, "now", the first day of the week and the date order come through os_ (and so
//   through os_hooks in tests).
// - 0xFFFFFFFFFFFFFFFF is "unknown" for sizes and dates; an open range ends at 0xFFFFFFFFFFFFFFFE so that
//   unknown values never fall into it. A range whose low bound is above its high bound is empty.
// - Calendar fields that do not exist (30 February, hour 25) are refused, never normalised: the date
//   becomes 0 and the literal selects 0..0.
#pragma once

#include <cstdint>

#include "os/os.h"

#define DB_UNKNOWN_64  0xFFFFFFFFFFFFFFFFull
#define DB_OPEN_HIGH   0xFFFFFFFFFFFFFFFEull
#define DATE_SECOND    10000000ull
#define DATE_MINUTE    600000000ull
#define DATE_HOUR      36000000000ull
#define DATE_DAY       864000000000ull
#define DATE_WEEK      6048000000000ull
#define DATE_MILLI     10000ull
#define INT_RANGE_HIGH 0x7FFFFFFFu

// An inclusive 64-bit range.
struct db_range64_t {
    uint64_t low;
    uint64_t high;
};

// The two-digit-year limit of the user's calendar (os_locale_get with OS_LOCALE_TWO_DIGIT_YEAR_MAX): a
// two-digit year that would land above it loses a century. A missing or unusable answer gives Windows'
// default, 2049.
#define DATE_TWO_DIGIT_YEAR_DEFAULT 2049
int date_two_digit_year_max();

// Compare prefixes.
enum { CMP_NONE = 0, CMP_GE = 1, CMP_GT = 2, CMP_LE = 3, CMP_LT = 4, CMP_EQ = 5 };

// ">=" 1, ">" 2, "<=" 3, "<" 4, "=" or "==" 5; anything else 0 without moving the cursor.
int cmp_parse(const char **cursor);
// Applies a compare prefix to an inclusive range: ">=" keeps low and opens the top at open_high, ">"
// starts behind high, "<=" starts at 0, "<" ends before low (low 0 gives the empty range 1..0).
void cmp_apply64(int cmp, uint64_t *low, uint64_t *high, uint64_t open_high);
// The integer range of the count-like functions: empty text is 1..0x7FFFFFFF; otherwise a compare prefix,
// a number, optionally ".." or "-" and a second number, and the prefix applied with 0x7FFFFFFF as the top.
void cmp_range_parse(const char **cursor, uint32_t *min, uint32_t *max);

// A size literal: the words empty .. gigantic and unknown, or a number with an optional fraction and unit
// (kb and up are whole KB: "1kb" is 1..1024). The word classes are the settings size_tiny .. size_huge. With
// allow_range, ".." or "-" and a second literal give the high bound. Empty text is 0..0xFFFFFFFFFFFFFFFE.
void size_literal_parse(const char **cursor, db_range64_t *range, bool allow_range);
// A date literal: today/yesterday/tomorrow/unknown, direction words with a count and unit or with
// week/month/year, month and weekday names, ISO and compact numeric forms, the locale's numeric form, and
// with allow_range a second literal behind "..", "-" or (after an ISO form) "/".
void date_literal_parse(const char **cursor, db_range64_t *range, bool allow_range);

// Local year, month, day and day of week (0 Sunday) of now, with the time of day.
void date_now_fields(os_systemtime_t *out);
// FILETIME of local midnight of that date; 0 if the year is 30828 or later or the date does not exist.
uint64_t date_to_filetime(int year, int month, int day);
// Local broken-down time to FILETIME with the daylight saving rule of that date itself; 0 when a field is
// out of range (as SystemTimeToFileTime refuses it) or the year is above 30827.
uint64_t systemtime_to_filetime(const os_systemtime_t *st);
// Sets the month, carrying months outside 1..12 (including 0 and below) into the year. A day past the
// end of the new month becomes its last day, so that the fields stay a real date.
void date_add_months(os_systemtime_t *fields, int64_t month);
// A year below 100 gets the current century, less 100 when that passes date_two_digit_year_max().
void date_fix_two_digit_year(os_systemtime_t *fields);
