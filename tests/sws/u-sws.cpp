// sws's parts that need no process: the argument table and the escapes that keep every output form whole.
#include <gtest/gtest.h>

#include <string>

#include "db_query/db_query.h"
#include "os/os.h"
#include "sws/sws.h"

namespace {

std::string escaped(void (*escape)(str_t *, const char *, uint32_t), const std::string &text) {
    str_t out;
    str_init(&out);
    escape(&out, text.data(), (uint32_t) text.size());
    std::string s(out.ptr ? out.ptr : "", (size_t) out.len);
    str_kill(&out);
    return s;
}

TEST(SwsEscape, PlainAndTsvKeepEveryNameOnOneLineAndOneCell) {
    // The escape byte is never the separator, so that a path's separators stay as they are.
    const std::string e = OS_SEP == '\\' ? "|" : "\\";
    struct {
        std::string in;
        std::string out;
    } cases[] = {
        {"plain name.txt", "plain name.txt"},
        {"line\nend", "line" + e + "nend"},
        {"cr\rlf\n", "cr" + e + "rlf" + e + "n"},
        {"tab\there", "tab" + e + "there"},
        {"", ""},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
        {std::string(OS_SEP_STR) + "tmp" + OS_SEP_STR + "x",
         std::string(OS_SEP_STR) + "tmp" + OS_SEP_STR + "x"},
        // The escape byte itself is doubled, so that a name holding it followed by 'n' reads back as written.
        {"a" + e + "nb", "a" + e + e + "nb"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(escaped(sws_escape_plain, c.in), c.out) << c.in;
}

TEST(SwsEscape, CsvQuotesOnlyWhatNeedsIt) {
    struct {
        const char *in;
        const char *out;
    } cases[] = {
        {"/a/b.txt", "/a/b.txt"},
        {"a,b", "\"a,b\""},
        {"say \"hi\"", "\"say \"\"hi\"\"\""},
        {"two\nlines", "\"two\nlines\""},
        {"cr\r", "\"cr\r\""},
        {"tab\tkept", "tab\tkept"},
        {"", ""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(escaped(sws_escape_csv, c.in), c.out) << c.in;
}

TEST(SwsEscape, JsonStringsAreValidForAnyBytes) {
    struct {
        std::string in;
        std::string out;
    } cases[] = {
        {"plain", "\"plain\""},
        {"q\"b\\s", "\"q\\\"b\\\\s\""},
        {"\n\r\t\b\f", "\"\\n\\r\\t\\b\\f\""},
        {std::string("nul\0x", 5), "\"nul\\u0000x\""},
        {"\x1f", "\"\\u001f\""},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
        // Not UTF-8: a stray continuation byte, a cut sequence, an overlong form, a surrogate, past U+10FFFF.
        {"a\x80z", "\"a\xef\xbf\xbdz\""},
        {"cut\xe2\x82", "\"cut\xef\xbf\xbd\xef\xbf\xbd\""},
        {"\xc0\xaf", "\"\xef\xbf\xbd\xef\xbf\xbd\""},
        {"\xed\xa0\x80", "\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\""},
        {"\xf4\x90\x80\x80", "\"\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\""},
    };
    for (const auto &c : cases)
        EXPECT_EQ(escaped(sws_escape_json, c.in), c.out) << c.in;
}

TEST(SwsIsoDate, FiletimesAsUtcWithTheirFraction) {
    struct {
        uint64_t filetime;
        const char *out; // null: no date
    } cases[] = {
        {0, "1601-01-01T00:00:00Z"},
        {116444736000000000ull, "1970-01-01T00:00:00Z"},
        {132670152000000000ull, "2021-06-01T10:00:00Z"},
        {132670152001234567ull, "2021-06-01T10:00:00.1234567Z"},
        {132670152000000001ull, "2021-06-01T10:00:00.0000001Z"},
        {131908718450000000ull, "2019-01-02T03:04:05Z"},
        {UINT64_MAX, nullptr},
    };
    for (const auto &c : cases) {
        str_t out;
        str_init(&out);
        bool ok = sws_iso_date(&out, c.filetime);
        EXPECT_EQ(ok, c.out != nullptr) << c.filetime;
        if (c.out)
            EXPECT_STREQ(out.ptr, c.out) << c.filetime;
        else
            EXPECT_EQ(out.len, 0);
        str_kill(&out);
    }
}

// ---- arguments
// -----------------------------------------------------------------------------------------------

struct parsed_t {
    bool ok;
    std::string error;
    sws_options_t o;
};

parsed_t parse(const char *line) {
    parsed_t p;
    str_t error;
    str_init(&error);
    p.ok = sws_parse(&p.o, line, OS_SEP == '/' ? "/work" : "C:\\work", &error);
    p.error.assign(error.ptr ? error.ptr : "", (size_t) error.len);
    str_kill(&error);
    return p;
}

TEST(SwsArgs, SearchWordsAndSwitches) {
    parsed_t p = parse("sws -case --ww -n 5 -o 10 foo \"bar baz\" -- -regex -x");
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_STREQ(p.o.search, "foo bar baz -regex -x");
    EXPECT_EQ(p.o.match_case, 1);
    EXPECT_EQ(p.o.match_whole_word, 1);
    EXPECT_EQ(p.o.match_regex, SWS_UNSET);
    EXPECT_EQ(p.o.max_results, 5u);
    EXPECT_EQ(p.o.offset, 10u);
    sws_options_kill(&p.o);

    // A quoted token is a word even when it looks like a switch; "no-" turns a match flag off.
    p = parse("sws \"-case\" -no-diacritics -match_path x");
    ASSERT_TRUE(p.ok) << p.error;
    EXPECT_STREQ(p.o.search, "-case x");
    EXPECT_EQ(p.o.match_case, SWS_UNSET);
    EXPECT_EQ(p.o.match_diacritics, 0);
    EXPECT_EQ(p.o.match_path, 1);
    sws_options_kill(&p.o);
}

TEST(SwsArgs, SortNamesAndDirections) {
    struct {
        const char *line;
        int sort;
        int dir;
    } cases[] = {
        {"sws -sort size", DB_SORT_SIZE, 0},
        {"sws -sort size-descending", DB_SORT_SIZE, -1},
        {"sws -sort \"Date Modified\" -sort-descending", DB_SORT_DATE_MODIFIED, -1},
        {"sws -sort datecreatedascending", DB_SORT_DATE_CREATED, 1},
        {"sws -sort date_accessed", DB_SORT_DATE_ACCESSED, 0},
        {"sws -sort-descending -sort NAME", DB_SORT_NAME, -1},
        {"sws -sort extension -sort-ascending", DB_SORT_EXTENSION, 1},
        {"sws -sort path", DB_SORT_PATH, 0},
        {"sws -sort attributes", DB_SORT_ATTRIBUTES, 0},
        {"sws -sort \"file list filename\"", DB_SORT_FILE_LIST_FILENAME, 0},
        {"sws", DB_SORT_NAME, 0},
    };
    for (const auto &c : cases) {
        parsed_t p = parse(c.line);
        ASSERT_TRUE(p.ok) << c.line << ": " << p.error;
        EXPECT_EQ(p.o.sort, c.sort) << c.line;
        EXPECT_EQ(p.o.sort_dir, c.dir) << c.line;
        sws_options_kill(&p.o);
    }
}

TEST(SwsArgs, SourcesAreKeptInOrderAndMadeAbsolute) {
    parsed_t p = parse("sws -folder sub -filelist \"list one.swl\" -ntfs vol.img -folder sub2 x");
    ASSERT_TRUE(p.ok) << p.error;
    std::string base = OS_SEP == '/' ? "/work/" : "C:\\work\\";
    const sws_source_t *s = p.o.sources;
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->kind, SWS_SOURCE_FOLDER);
    EXPECT_EQ(std::string(s->path), base + "sub");
    s = s->next;
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->kind, SWS_SOURCE_FILELIST);
    EXPECT_EQ(std::string(s->path), base + "list one.swl");
    s = s->next;
    ASSERT_NE(s, nullptr);
    // A volume keeps the system's name for it.
    EXPECT_EQ(s->kind, SWS_SOURCE_NTFS);
    EXPECT_STREQ(s->path, "vol.img");
    s = s->next;
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(std::string(s->path), base + "sub2");
    EXPECT_EQ(s->next, nullptr);
    sws_options_kill(&p.o);
}

TEST(SwsArgs, BadLinesSayWhatIsWrong) {
    struct {
        const char *line;
        const char *says;
    } cases[] = {
        {"sws -nope x", "-nope: unknown switch"},
        {"sws -no-sort x", "-no-sort: unknown switch"},
        {"sws -db", "-db: expects an argument"},
        {"sws -n", "-n: expects an argument"},
        {"sws -n 1e3", "-n 1e3: not a whole number"},
        {"sws -o 99999999999999999999", "not a whole number"},
        {"sws -sort bogus", "-sort bogus: no such column"},
        {"sws -sort names", "no such column"},
        {"sws -csv -tsv", "only one of"},
        {"sws -db a.db -filelist b.swl", "-db loads an index"},
        {"sws -swl -size", "column switches need"},
        {"sws -count -get-total-size", "-count and -get-total-size"},
    };
    for (const auto &c : cases) {
        parsed_t p = parse(c.line);
        EXPECT_FALSE(p.ok) << c.line;
        EXPECT_NE(p.error.find(c.says), std::string::npos) << c.line << ": " << p.error;
        sws_options_kill(&p.o);
    }
    // -help wins over what else is wrong with the combination.
    parsed_t p = parse("sws -help -count -get-total-size");
    EXPECT_TRUE(p.ok);
    EXPECT_TRUE(p.o.help);
    sws_options_kill(&p.o);
}

} // namespace
