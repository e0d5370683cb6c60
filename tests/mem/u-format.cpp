// The formatter: every directive, the width rules, and agreement between the measuring and writing
// passes. Integer directives are checked against the C library's printf, which follows the same width
// rules for the forms both know.
#include <gtest/gtest.h>

#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "mem/mem.h"

// Formats through both passes and checks that they agree and that nothing is written past the end.
static std::string fmt(const char *format, ...) {
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    int measured = text_format(nullptr, format, args);
    std::string buf((size_t) measured + 16, '\x7f');
    int written = text_format(&buf[0], format, again);
    va_end(again);
    va_end(args);
    EXPECT_EQ(measured, written) << format;
    EXPECT_EQ(buf[(size_t) written], '\0') << format;
    for (size_t i = (size_t) written + 1; i < buf.size(); i++) {
        EXPECT_EQ(buf[i], '\x7f') << "write past the end for " << format;
    }
    buf.resize((size_t) written);
    return buf;
}

TEST(Format, PlainTextAndPercent) {
    EXPECT_EQ(fmt(""), "");
    EXPECT_EQ(fmt("plain text"), "plain text");
    EXPECT_EQ(fmt("100%%"), "100%");
    EXPECT_EQ(fmt("%%%%"), "%%");
    // A lone percent at the end prints nothing and reads nothing.
    EXPECT_EQ(fmt("end%"), "end");
}

TEST(Format, UnknownLetterPrintsItselfAndTakesNoArgument) {
    EXPECT_EQ(fmt("%q%d", 5), "q5");
    EXPECT_EQ(fmt("%-5d", 7), "-5d");
    EXPECT_EQ(fmt("%I32d|%d", 9), "I32d|9");
    EXPECT_EQ(fmt("%I64q|%d", 9), "I64q|9");
}

TEST(Format, IntegersMatchPrintf) {
    std::mt19937 rng(1234);
    const char *forms[] = {"%d", "%u", "%x", "%X", "%5d", "%05d", "%012u", "%3x", "%08X", "%1d", "%0d"};
    int32_t edge[] = {0, 1, -1, 9, 10, -10, INT32_MAX, INT32_MIN, 0x7fff, -65536};
    for (const char *f : forms) {
        for (int k = 0; k < 300; k++) {
            int32_t v = k < 10 ? edge[k] : (int32_t) rng();
            char want[64];
            snprintf(want, sizeof want, f, v);
            EXPECT_EQ(fmt(f, v), want) << f << " " << v;
        }
    }
}

TEST(Format, SixtyFourBitIntegersMatchPrintf) {
    std::mt19937_64 rng(99);
    struct {
        const char *ours, *theirs;
    } forms[] = {{"%I64d", "%" PRId64},      {"%I64u", "%" PRIu64},       {"%I64x", "%" PRIx64},
                 {"%I64X", "%" PRIX64},      {"%020I64d", "%020" PRId64}, {"%25I64d", "%25" PRId64},
                 {"%010I64x", "%010" PRIx64}};
    int64_t edge[] = {0, -1, INT64_MIN, INT64_MAX, (int64_t) 1 << 32, -((int64_t) 1 << 40)};
    for (auto &f : forms) {
        for (int k = 0; k < 300; k++) {
            int64_t v = k < 6 ? edge[k] : (int64_t) rng() >> (k % 50);
            char want[64];
            snprintf(want, sizeof want, f.theirs, v);
            EXPECT_EQ(fmt(f.ours, v), want) << f.ours << " " << v;
        }
    }
    EXPECT_EQ(fmt("%I64d", INT64_MIN), "-9223372036854775808");
}

TEST(Format, NegativeWidthRules) {
    EXPECT_EQ(fmt("%06d", -42), "-00042");
    EXPECT_EQ(fmt("%6d", -42), "   -42");
    EXPECT_EQ(fmt("%02d", -42), "-42");
}

TEST(Format, MicrosecondsAsSeconds) {
    EXPECT_EQ(fmt("%f", 1500000), "1.500000");
    EXPECT_EQ(fmt("%f", 7), "0.000007");
    EXPECT_EQ(fmt("%f", 0), "0.000000");
    EXPECT_EQ(fmt("%f", 123456789), "123.456789");
    // The count is unsigned 32 bits: intervals from 35 minutes 47 seconds up to 71 minutes 34 seconds
    // print as they are, not as negative times.
    EXPECT_EQ(fmt("%f", 2147483647u), "2147.483647");
    EXPECT_EQ(fmt("%f", 2147483648u), "2147.483648");
    EXPECT_EQ(fmt("%f", 37u * 60 * 1000000), "2220.000000");
    EXPECT_EQ(fmt("%f", UINT32_MAX), "4294.967295");
    // A difference of two readings of the clock, passed as int as the log lines do.
    uint32_t start = 4000000000u, end = start + 2500000000u;
    EXPECT_EQ(fmt("%f", (int) (end - start)), "2500.000000");
    // Width applies to the integer part only.
    EXPECT_EQ(fmt("%4f", 1500000), "   1.500000");
    EXPECT_EQ(fmt("%04f", 1500000), "0001.500000");
    EXPECT_EQ(fmt("%06f", 3000000000u), "003000.000000");
}

TEST(Format, Pointers) {
    EXPECT_EQ(fmt("%p", (void *) 0), "00000000");
    EXPECT_EQ(fmt("%p", (void *) (uintptr_t) 0xabc), "00000abc");
    EXPECT_EQ(fmt("%P", (void *) (uintptr_t) 0xabcdef12), "ABCDEF12");
    // A size passed where a pointer is expected, as the fatal messages do.
    EXPECT_EQ(fmt("%p", (size_t) 65536), "00010000");
    // Always eight digits: a value above 32 bits prints its low 32 bits.
    if (sizeof(uintptr_t) == 8) {
        EXPECT_EQ(fmt("%p", (void *) (uintptr_t) 0x123456789aULL), "3456789a");
        EXPECT_EQ(fmt("%P|%d", (size_t) 0xffffffff0000abcdULL, 5), "0000ABCD|5");
    }
    // Width has no effect on pointers.
    EXPECT_EQ(fmt("%12p", (void *) (uintptr_t) 1), "00000001");
}

TEST(Format, Texts) {
    EXPECT_EQ(fmt("[%s]", "abc"), "[abc]");
    EXPECT_EQ(fmt("[%s]", ""), "[]");
    EXPECT_EQ(fmt("[%s]", (const char *) nullptr), "[(null)]");
    EXPECT_EQ(fmt("[%5s]", "ab"), "[ab]");
    // Counted text needs no terminator: only the count is read.
    char unterminated[4] = {'w', 'x', 'y', 'z'};
    EXPECT_EQ(fmt("[%t]", unterminated, 3), "[wxy]");
    EXPECT_EQ(fmt("[%t]", unterminated, 0), "[]");
    EXPECT_EQ(fmt("%c%c%c", 'a', 0x142, -0xbe), "aBB");
}

TEST(Format, Utf16) {
    const uint16_t plain[] = {'h', 0xe9, 0x20ac, 0};
    EXPECT_EQ(fmt("%S", plain), "h\xc3\xa9\xe2\x82\xac");
    // A pair makes one four-byte sequence (U+1F600).
    const uint16_t pair[] = {0xd83d, 0xde00, 0};
    EXPECT_EQ(fmt("%S", pair), "\xf0\x9f\x98\x80");
    // Unpaired surrogates pass through as three bytes each: a high one at the end, a low one alone, and
    // two highs in a row.
    const uint16_t lone[] = {'a', 0xdc00, 0xd800, 0xd801, 0xde00, 0xd800, 0};
    EXPECT_EQ(fmt("%S", lone), "a\xed\xb0\x80\xed\xa0\x80\xf0\x90\x98\x80\xed\xa0\x80");
    // Counted: the pair split by the count is two lone surrogates' worth of text.
    EXPECT_EQ(fmt("%T|", pair, 1), "\xed\xa0\xbd|");
    EXPECT_EQ(fmt("%T|", pair, 2), "\xf0\x9f\x98\x80|");
    EXPECT_EQ(fmt("%T|", pair, 0), "|");
}

// Every directive in one line, so that a directive that takes the wrong number or size of arguments
// shifts everything after it.
TEST(Format, MixedArgumentsStayInStep) {
    const uint16_t w[] = {'W', 0};
    std::string got = fmt("%d %I64d %s %t %c %f %u %S %T %p %x|", -1, (int64_t) 1 << 40, "s", "tt", 2, 'c',
                          2500000, 7u, w, w, 1, (void *) 0x10, 255);
    EXPECT_EQ(got, "-1 1099511627776 s tt c 2.500000 7 W W 00000010 ff|");
}

TEST(Format, StrPrintfSizesAndAppends) {
    str_t s;
    str_init(&s);
    str_printf(&s, "%s-%d", "x", 5);
    EXPECT_EQ(std::string(s.ptr, (size_t) s.len), "x-5");
    EXPECT_EQ(s.cap, 260);
    str_cat_printf(&s, "+%05u", 42u);
    EXPECT_EQ(std::string(s.ptr), "x-5+00042");
    EXPECT_EQ(s.len, 9);
    // A result of exactly 259 bytes stays inline; 260 moves to a 65,536-byte block.
    std::string big(259, 'a');
    str_printf(&s, "%s", big.c_str());
    EXPECT_EQ(s.cap, 260);
    EXPECT_EQ(s.ptr, s.inline_buf);
    str_printf(&s, "%s!", big.c_str());
    EXPECT_EQ(s.cap, 65536);
    EXPECT_EQ(s.len, 260);
    EXPECT_EQ(std::string(s.ptr), big + "!");
    // Appending past a block grows to the next power of two and keeps the text.
    std::string huge(70000, 'b');
    str_cat_printf(&s, "%s", huge.c_str());
    EXPECT_EQ(s.len, 70260);
    EXPECT_EQ(s.cap, 131072);
    EXPECT_EQ(std::string(s.ptr, 260), big + "!");
    EXPECT_EQ(s.ptr[s.len], 0);
    str_cat_printf(&s, "%s", "");
    EXPECT_EQ(s.len, 70260);
    str_kill(&s);
}
