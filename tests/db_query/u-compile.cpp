// Search strings against their compiled form: the term graph (flags, next, notnext) and each term's folder
// and file op with its payload, in the stable dump form. Settings are varied where they change the result.
#include <gtest/gtest.h>

#include <string>

#include "clock.h"
#include "config/config.h"
#include "db_query/term.h"
#include "mem/mem.h"

static std::string compile_dump(const char *search, uint32_t bits = 0, const char *filter = nullptr,
                                uint32_t filter_bits = 0, db_search_t *keep = nullptr) {
    db_search_t s;
    db_search_init(&s, nullptr);
    db_term_t *terms = db_search_parse(search, bits, filter, filter_bits);
    db_search_compile_terms(&s, terms);
    str_t out;
    str_init(&out);
    db_terms_dump(terms, &out);
    std::string result(out.ptr, (size_t) out.len);
    str_kill(&out);
    db_search_link(&s, terms);
    if (keep) {
        *keep = s;
    } else {
        db_search_kill(&s);
    }
    return result;
}

struct CompileTest : ::testing::Test {
    void SetUp() override { test_clock::install(test_clock::utc(2024, 3, 13, 13, 30)); }
    void TearDown() override {
        os_hooks_reset();
        operator_precedence = 0;
        allow_literal_operators = 0;
        allow_round_bracket_parenthesis = 0;
        allow_exclamation_point_not = 1;
        match_whole_filename_when_using_wildcards = 1;
        fast_ascii_search = 1;
        match_path_when_search_contains_path_separator = 1;
        convert_forward_slash_to_backslash = 0;
    }
};

struct case_t {
    const char *search;
    const char *dump;
};

static void check(const case_t *cases, size_t n, uint32_t bits = 0) {
    for (size_t i = 0; i < n; i++) {
        EXPECT_EQ(compile_dump(cases[i].search, bits), cases[i].dump) << "search: " << cases[i].search;
    }
}
#define CHECK_TABLE(t, ...) check(t, sizeof(t) / sizeof((t)[0]), ##__VA_ARGS__)

TEST_F(CompileTest, Operators) {
    const case_t table[] = {
        {"", "#0 flags 03140 next - notnext - folder 0 file 0 text \"\"\n"},
        {"abc", "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"abc ", "#0 flags 01140 next #1 notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n#1 flags "
                 "03140 next - notnext - folder 0 file 0 text \"\"\n"},
        {"  abc", "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"a|b c", "#0 flags 01140 next #2 notnext #1 folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 01140 "
                  "next #2 notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n#2 flags 03140 next - notnext - "
                  "folder 2 \"c\" file 2 \"c\" text \"c\"\n"},
        {"a | b", "#0 flags 01140 next - notnext #1 folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 03140 "
                  "next - notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        {"a||b", "#0 flags 01140 next - notnext #1 folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 03140 "
                 "next - notnext #2 folder 0 file 0 text \"\"\n#2 flags 03140 next - notnext - folder 2 "
                 "\"b\" file 2 \"b\" text \"b\"\n"},
        {"!a !b", "#0 flags 19540 next #1 notnext - folder 18 \"a\" file 18 \"a\" text \"a\"\n#1 flags 1b540 "
                  "next - notnext - folder 18 \"b\" file 18 \"b\" text \"b\"\n"},
        {"!<a b>", "#0 flags 19540 next - notnext #1 folder 18 \"a\" file 18 \"a\" text \"a\"\n#1 flags "
                   "19540 next - notnext - folder 18 \"b\" file 18 \"b\" text \"b\"\n"},
        {"!<a|b>", "#0 flags 19540 next #1 notnext - folder 18 \"a\" file 18 \"a\" text \"a\"\n#1 flags "
                   "19540 next - notnext - folder 18 \"b\" file 18 \"b\" text \"b\"\n"},
        {"not:a", "#0 flags 1b540 next - notnext - folder 18 \"a\" file 18 \"a\" text \"a\"\n"},
        {"! a", "#0 flags 1b540 next #1 notnext - folder 1 file 1 text \"\"\n#1 flags 03140 next - notnext - "
                "folder 2 \"a\" file 2 \"a\" text \"a\"\n"},
        {"a<b", "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 03140 "
                "next - notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        {"<a>b", "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 03140 "
                 "next - notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        {"a<b|c>d",
         "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 01140 next #3 "
         "notnext #2 folder 2 \"b\" file 2 \"b\" text \"b\"\n#2 flags 01140 next #3 notnext - folder 2 \"c\" "
         "file 2 \"c\" text \"c\"\n#3 flags 03140 next - notnext - folder 2 \"d\" file 2 \"d\" text \"d\"\n"},
        {"<a <b", "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 03140 "
                  "next - notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        {"a>b", "#0 flags 01140 next - notnext - folder 2 \"a>b\" file 2 \"a>b\" text \"a>b\"\n"},
        {"<a b", "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 03140 "
                 "next - notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        {"NOT a", "#0 flags 01140 next #1 notnext - folder 2 \"not\" file 2 \"not\" text \"NOT\"\n#1 flags "
                  "03140 next - notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n"},
        {"a AND b", "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 01140 "
                    "next #2 notnext - folder 2 \"and\" file 2 \"and\" text \"AND\"\n#2 flags 03140 next - "
                    "notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        {"a OR b", "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n#1 flags 01140 "
                   "next #2 notnext - folder 2 \"or\" file 2 \"or\" text \"OR\"\n#2 flags 03140 next - "
                   "notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        {"(a b)", "#0 flags 01140 next #1 notnext - folder 2 \"(a\" file 2 \"(a\" text \"(a\"\n#1 flags "
                  "01140 next - notnext - folder 2 \"b)\" file 2 \"b)\" text \"b)\"\n"},
    };
    CHECK_TABLE(table);
}

TEST_F(CompileTest, Modifiers) {
    const case_t table[] = {
        {"case:", "#0 flags 03141 next - notnext - folder 0 file 0 text \"\"\n"},
        {"case:abc def", "#0 flags 01141 next #1 notnext - folder 4 \"abc\" file 4 \"abc\" text \"abc\"\n#1 "
                         "flags 03140 next - notnext - folder 2 \"def\" file 2 \"def\" text \"def\"\n"},
        {"case:<abc def>",
         "#0 flags 01141 next #1 notnext - folder 4 \"abc\" file 4 \"abc\" text \"abc\"\n#1 flags 01141 next "
         "- notnext - folder 4 \"def\" file 4 \"def\" text \"def\"\n"},
        {"nocase:case:ABC", "#0 flags 01140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"ABC\"\n"},
        {"exact:\"a b\"", "#0 flags 01340 next - notnext - folder 42 \"a b\" file 42 \"a b\" text \"a b\"\n"},
        {"wfn:abc", "#0 flags 03340 next - notnext - folder 42 \"abc\" file 42 \"abc\" text \"abc\"\n"},
        {"noexact:exact:abc",
         "#0 flags 02140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"nowfn:exact:a*", "#0 flags 00140 next - notnext - folder 2 \"a\" file 2 \"a\" text \"a*\"\n"},
        {"files:!abc", "#0 flags 03550 next - notnext - folder 1 file 18 \"abc\" text \"abc\"\n"},
        {"!files:abc", "#0 flags 1b550 next - notnext - folder 0 file 18 \"abc\" text \"abc\"\n"},
        {"file:abc", "#0 flags 03150 next - notnext - folder 1 file 2 \"abc\" text \"abc\"\n"},
        {"folders:abc", "#0 flags 03160 next - notnext - folder 2 \"abc\" file 1 text \"abc\"\n"},
        {"folder:!abc", "#0 flags 03560 next - notnext - folder 18 \"abc\" file 1 text \"abc\"\n"},
        {"nofileonly:files:abc",
         "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"nofolderonly:folders:abc",
         "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"path:abc", "#0 flags 03144 next - notnext - folder 10 \"abc\" file 10 \"abc\" text \"abc\"\n"},
        {"regex:^a.c$", "#0 flags 01940 next - notnext - folder 226 regex \"^a.c$\" file 226 regex \"^a.c$\" "
                        "text \"^a.c$\"\n"},
        {"noregex:regex:a.c",
         "#0 flags 01140 next - notnext - folder 2 \"a.c\" file 2 \"a.c\" text \"a.c\"\n"},
        {"diacritics:abc",
         "#0 flags 03148 next - notnext - folder 34 \"abc\" file 34 \"abc\" text \"abc\"\n"},
        {"nodiacritics:diacritics:abc",
         "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"ww:abc", "#0 flags 03142 next - notnext - folder 3 \"abc\" file 3 \"abc\" text \"abc\"\n"},
        {"noww:ww:abc", "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"utf8:abc", "#0 flags 03100 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"ascii:utf8:abc", "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"wildcards:a*", "#0 flags 05140 next - notnext - folder 122 \"a\" file 122 \"a\" text \"a*\"\n"},
        {"nowildcards:a*", "#0 flags 01040 next - notnext - folder 2 \"a*\" file 2 \"a*\" text \"a*\"\n"},
        {"filtercase:abc", "#0 flags 03141 next - notnext - folder 4 \"abc\" file 4 \"abc\" text \"abc\"\n"},
        {"nofiltercase:abc",
         "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"filterpath:abc",
         "#0 flags 03144 next - notnext - folder 10 \"abc\" file 10 \"abc\" text \"abc\"\n"},
        {"nofilterpath:path:abc",
         "#0 flags 03144 next - notnext - folder 10 \"abc\" file 10 \"abc\" text \"abc\"\n"},
        {"filterwholeword:abc",
         "#0 flags 03142 next - notnext - folder 3 \"abc\" file 3 \"abc\" text \"abc\"\n"},
        {"nofilterwholeword:abc",
         "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"filterdiacritics:abc",
         "#0 flags 03148 next - notnext - folder 34 \"abc\" file 34 \"abc\" text \"abc\"\n"},
        {"nofilterdiacritics:abc",
         "#0 flags 03140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"filterregex:a.c",
         "#0 flags 01940 next - notnext - folder 226 regex \"a.c\" file 226 regex \"a.c\" text \"a.c\"\n"},
        {"nofilterregex:a.c",
         "#0 flags 01140 next - notnext - folder 2 \"a.c\" file 2 \"a.c\" text \"a.c\"\n"},
        {"filtercase:<a b> c", "#0 flags 01141 next #1 notnext - folder 4 \"a\" file 4 \"a\" text \"a\"\n#1 "
                               "flags 01141 next #2 notnext - folder 4 \"b\" file 4 \"b\" text \"b\"\n#2 "
                               "flags 03140 next - notnext - folder 2 \"c\" file 2 \"c\" text \"c\"\n"},
    };
    CHECK_TABLE(table);
}

TEST_F(CompileTest, Escapes) {
    const case_t table[] = {
        {"\"a|b\"", "#0 flags 01140 next - notnext - folder 2 \"a|b\" file 2 \"a|b\" text \"a|b\"\n"},
        {"a\"b c\"d", "#0 flags 01140 next - notnext - folder 2 \"ab cd\" file 2 \"ab cd\" text \"ab cd\"\n"},
        {"a#124:b", "#0 flags 01140 next - notnext - folder 2 \"a|b\" file 2 \"a|b\" text \"a|b\"\n"},
        {"a#x7c:b", "#0 flags 01140 next - notnext - folder 2 \"a|b\" file 2 \"a|b\" text \"a|b\"\n"},
        {"#x41:#66:#1234567:", "#0 flags 01140 next - notnext - folder 2 \"ab\\xed\\x9a\\x87\" file 2 "
                               "\"ab\\xed\\x9a\\x87\" text \"AB\\xed\\x9a\\x87\"\n"},
        {"#12", "#0 flags 01140 next - notnext - folder 2 \"#12\" file 2 \"#12\" text \"#12\"\n"},
        {"#:", "#0 flags 01140 next - notnext - folder 2 \"#:\" file 2 \"#:\" text \"#:\"\n"},
        {"#x:", "#0 flags 01140 next - notnext - folder 2 \"#x:\" file 2 \"#x:\" text \"#x:\"\n"},
        {"quot:apos:amp:lt:gt:",
         "#0 flags 03140 next - notnext - folder 2 \"\\x22'&<>\" file 2 \"\\x22'&<>\" text \"\\x22'&<>\"\n"},
        {"aquot:b",
         "#0 flags 03140 next - notnext - folder 2 \"a\\x22b\" file 2 \"a\\x22b\" text \"a\\x22b\"\n"},
        {"\"quot:\"", "#0 flags 01140 next - notnext - folder 2 \"quot:\" file 2 \"quot:\" text \"quot:\"\n"},
        {"size:>1mb", "#0 flags 03140 next - notnext - folder 1 file 200 1048577..18446744073709551614 text "
                      "\"size:>1mb\"\n"},
        {"dm:<today", "#0 flags 03140 next - notnext - folder 202 0..133547579999999999 file 202 "
                      "0..133547579999999999 text \"dm:<today\"\n"},
        {"<dm:<today>", "#0 flags 03140 next - notnext - folder 202 0..133547579999999999 file 202 "
                        "0..133547579999999999 text \"dm:<today\"\n"},
        {"foo:>1", "#0 flags 03140 next - notnext - folder 2 \"foo:>1\" file 2 \"foo:>1\" text \"foo:>1\"\n"},
        {"dm:today", "#0 flags 03140 next - notnext - folder 202 133547580000000000..133548443999999999 file "
                     "202 133547580000000000..133548443999999999 text \"dm:today\"\n"},
        {"DM:today",
         "#0 flags 01140 next - notnext - folder 2 \"dm:today\" file 2 \"dm:today\" text \"DM:today\"\n"},
        {"root:abc", "#0 flags 03140 next #1 notnext - folder 172 file 172 text \"root:\"\n#1 flags 03140 "
                     "next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"dupe:abc", "#0 flags 03140 next #1 notnext - folder 174 file 174 text \"dupe:\"\n#1 flags 03140 "
                     "next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc\"\n"},
        {"Abc:x", "#0 flags 01140 next - notnext - folder 2 \"abc:x\" file 2 \"abc:x\" text \"Abc:x\"\n"},
        {"caf\xc3"
         "\xa9"
         "",
         "#0 flags 01140 next - notnext - folder 2 \"cafe\" file 2 \"cafe\" text \"caf\\xc3\\xa9\"\n"},
    };
    CHECK_TABLE(table);
}

TEST_F(CompileTest, Wildcards) {
    const case_t table[] = {
        {"*", "#0 flags 01140 next - notnext - folder 0 file 0 text \"*\"\n"},
        {"**", "#0 flags 01140 next - notnext - folder 0 file 0 text \"**\"\n"},
        {"*.txt", "#0 flags 01140 next - notnext - folder 142 \".txt\" file 142 \".txt\" text \"*.txt\"\n"},
        {"abc*", "#0 flags 01140 next - notnext - folder 122 \"abc\" file 122 \"abc\" text \"abc*\"\n"},
        {"a*b", "#0 flags 01140 next - notnext - folder 102 \"a*b\" file 102 \"a*b\" text \"a*b\"\n"},
        {"*abc*", "#0 flags 01140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"*abc*\"\n"},
        {"a?c", "#0 flags 01140 next - notnext - folder 102 \"a?c\" file 102 \"a?c\" text \"a?c\"\n"},
        {"?", "#0 flags 01140 next - notnext - folder 102 \"?\" file 102 \"?\" text \"?\"\n"},
        {"ww:abc*", "#0 flags 01142 next - notnext - folder 122 \"abc\" file 122 \"abc\" text \"abc*\"\n"},
        {"ww:a*b", "#0 flags 01142 next - notnext - folder 102 \"a*b\" file 102 \"a*b\" text \"a*b\"\n"},
        {"exact:*abc*", "#0 flags 01140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"*abc*\"\n"},
        {"*a*b*", "#0 flags 01140 next - notnext - folder 102 \"*a*b*\" file 102 \"*a*b*\" text \"*a*b*\"\n"},
    };
    CHECK_TABLE(table);
}

TEST_F(CompileTest, Regex) {
    const case_t table[] = {
        {"regex:abc", "#0 flags 03948 next - notnext - folder 34 \"abc\" file 34 \"abc\" text \"abc\"\n"},
        {"regex:", "#0 flags 03940 next - notnext - folder 0 file 0 text \"\"\n"},
        {"regex:(", "#0 flags 01940 next - notnext - folder 1 file 1 text \"(\"\n"},
        {"!regex:a.c",
         "#0 flags 19d40 next - notnext - folder 228 regex \"a.c\" file 228 regex \"a.c\" text \"a.c\"\n"},
        {"files:regex:", "#0 flags 03950 next - notnext - folder 1 file 0 text \"\"\n"},
    };
    CHECK_TABLE(table);
    // A pattern that names a path matches the full path (ASCII substring 36 rather than 34, regex 227
    // rather than 226), plain text or not; the setting turns that off.
    const bool windows = OS_SEP == '\\';
    const struct {
        const char *search;
        uint32_t path_op, name_op;
    } paths[] = {
        {windows ? "regex:c:foo" : "regex:usr/bin", 36, 34},
        {windows ? "regex:c:fo+" : "regex:usr/bi+", 227, 226},
    };
    for (int setting : {1, 0}) {
        match_path_when_search_contains_path_separator = setting;
        for (const auto &row : paths) {
            db_search_t s;
            db_search_init(&s, nullptr);
            db_search_compile(&s, row.search, 0, nullptr, 0, false);
            uint32_t want = setting ? row.path_op : row.name_op;
            EXPECT_EQ(s.folder_ops->op, want) << row.search << " setting " << setting;
            EXPECT_EQ(s.file_ops->op, want) << row.search << " setting " << setting;
            db_search_kill(&s);
        }
    }
}

TEST_F(CompileTest, Functions) {
    const case_t table[] = {
        {"root:", "#0 flags 03140 next - notnext - folder 172 file 172 text \"root:\"\n"},
        {"empty:", "#0 flags 03140 next - notnext - folder 194 file 1 text \"empty:\"\n"},
        {"dupe:", "#0 flags 03140 next - notnext - folder 174 file 174 text \"dupe:\"\n"},
        {"namepartdupe:", "#0 flags 03140 next - notnext - folder 176 file 176 text \"namepartdupe:\"\n"},
        {"sizedupe:", "#0 flags 03140 next - notnext - folder 1 file 178 text \"sizedupe:\"\n"},
        {"datecreateddupe:", "#0 flags 03140 next - notnext - folder 1 file 1 text \"datecreateddupe:\"\n"},
        {"datemodifieddupe:",
         "#0 flags 03140 next - notnext - folder 182 file 182 text \"datemodifieddupe:\"\n"},
        {"dateaccesseddupe:", "#0 flags 03140 next - notnext - folder 1 file 1 text \"dateaccesseddupe:\"\n"},
        {"attributesdupe:", "#0 flags 03140 next - notnext - folder 1 file 1 text \"attributesdupe:\"\n"},
        {"!dupe:", "#0 flags 1b540 next - notnext - folder 175 file 175 text \"dupe:\"\n"},
        {"ext:", "#0 flags 03140 next - notnext - folder 1 file 374 [] text \"ext:\"\n"},
        {"ext:;txt", "#0 flags 03140 next - notnext - folder 1 file 374 [;txt] text \"ext:;txt\"\n"},
        {"ext:txt;doc;",
         "#0 flags 03140 next - notnext - folder 1 file 162 [doc;txt] text \"ext:txt;doc;\"\n"},
        {"ext:a;;B", "#0 flags 03140 next - notnext - folder 1 file 374 [;a;b] text \"ext:a;;B\"\n"},
        {"!ext:txt", "#0 flags 1b540 next - notnext - folder 0 file 166 [txt] text \"ext:txt\"\n"},
        {"filelist:a.txt",
         "#0 flags 03140 next - notnext - folder 384 \"a.txt\" file 384 \"a.txt\" text \"filelist:a.txt\"\n"},
        {"fsi:1", "#0 flags 03140 next - notnext - folder 188 1..1 file 188 1..1 text \"fsi:1\"\n"},
        {"len:>=5", "#0 flags 03140 next - notnext - folder 190 5..2147483647 file 190 5..2147483647 text "
                    "\"len:>=5\"\n"},
        {"path:len:>=5", "#0 flags 03144 next - notnext - folder 191 5..2147483647 file 191 5..2147483647 "
                         "text \"len:>=5\"\n"},
        {"!len:3", "#0 flags 1b540 next - notnext - folder 192 3..3 file 192 3..3 text \"len:3\"\n"},
        {"parents:", "#0 flags 03140 next - notnext - folder 196 1..2147483647 file 196 1..2147483647 text "
                     "\"parents:\"\n"},
        {"depth:2..4", "#0 flags 03140 next - notnext - folder 196 2..4 file 196 2..4 text \"depth:2..4\"\n"},
        {"size:",
         "#0 flags 03140 next - notnext - folder 1 file 200 0..18446744073709551614 text \"size:\"\n"},
        {"size:>1mb", "#0 flags 03140 next - notnext - folder 1 file 200 1048577..18446744073709551614 text "
                      "\"size:>1mb\"\n"},
        {"size:<1kb", "#0 flags 03140 next - notnext - folder 1 file 200 0..0 text \"size:<1kb\"\n"},
        {"!size:tiny", "#0 flags 1b540 next - notnext - folder 0 file 201 1..10240 text \"size:tiny\"\n"},
        {"type:folder", "#0 flags 03140 next - notnext - folder 0 file 222 contains/lowerbase \"folder\" "
                        "text \"type:folder\"\n"},
        {"type:txt",
         "#0 flags 03140 next - notnext - folder 1 file 222 contains/lowerbase \"txt\" text \"type:txt\"\n"},
        {"!type:folder", "#0 flags 1b540 next - notnext - folder 1 file 223 contains/lowerbase \"folder\" "
                         "text \"type:folder\"\n"},
        // A name the platform doesn't know: a root search that found no root.
        {"shell:nosuchfolder",
         "#0 flags 03140 next - notnext - folder 286 \"nosuchfolder\" folders 0 file 286 "
         "\"nosuchfolder\" folders 0 text \"shell:nosuchfolder\"\n"},
        {"content:abc", "#0 flags 03140 next - notnext - folder 1 file 338 contains/lowerbase \"abc\" text "
                        "\"content:abc\"\n"},
        {"ansicontent:a", "#0 flags 03140 next - notnext - folder 1 file 344 contains/lowerbase \"a\" text "
                          "\"ansicontent:a\"\n"},
        {"utf16content:a", "#0 flags 03140 next - notnext - folder 1 file 340 contains/lowerbase \"a\" text "
                           "\"utf16content:a\"\n"},
        {"utf16becontent:a", "#0 flags 03140 next - notnext - folder 1 file 342 contains/lowerbase \"a\" "
                             "text \"utf16becontent:a\"\n"},
        {"utf8content:a", "#0 flags 03140 next - notnext - folder 1 file 346 contains/lowerbase \"a\" text "
                          "\"utf8content:a\"\n"},
        {"!content:abc", "#0 flags 1b540 next - notnext - folder 0 file 339 contains/lowerbase \"abc\" text "
                         "\"content:abc\"\n"},
        {"width:>100", "#0 flags 03140 next - notnext - folder 1 file 348 mode 3 101..2147483647 x "
                       "0..4294967295 text \"width:>100\"\n"},
        {"height:<10", "#0 flags 03140 next - notnext - folder 1 file 348 mode 3 0..4294967295 x 0..9 text "
                       "\"height:<10\"\n"},
        {"dimension:800x600", "#0 flags 03140 next - notnext - folder 1 file 348 mode 3 800..800 x 600..600 "
                              "text \"dimension:800x600\"\n"},
        {"dimensions:>800*600", "#0 flags 03140 next - notnext - folder 1 file 348 mode 2 800..800 x "
                                "600..600 text \"dimensions:>800*600\"\n"},
        {"dimension:<1x2..3x4", "#0 flags 03140 next - notnext - folder 1 file 348 mode 1 1..3 x 2..4 text "
                                "\"dimension:<1x2..3x4\"\n"},
        {"dimension:", "#0 flags 03140 next - notnext - folder 1 file 348 mode 3 0..4294967295 x "
                       "0..4294967295 text \"dimension:\"\n"},
        {"orientation:landscape", "#0 flags 03140 next - notnext - folder 1 file 348 mode 4 0..4294967295 x "
                                  "0..4294967295 text \"orientation:landscape\"\n"},
        {"orientation:portrait", "#0 flags 03140 next - notnext - folder 1 file 348 mode 5 0..4294967295 x "
                                 "0..4294967295 text \"orientation:portrait\"\n"},
        {"orientation:square",
         "#0 flags 03140 next - notnext - folder 1 file 1 text \"orientation:square\"\n"},
        {"bitdepth:24", "#0 flags 03140 next - notnext - folder 1 file 364 24..24 text \"bitdepth:24\"\n"},
        {"track:1..3", "#0 flags 03140 next - notnext - folder 1 file 350 1..3 text \"track:1..3\"\n"},
        {"year:2020", "#0 flags 03140 next - notnext - folder 1 file 352 2020..2020 text \"year:2020\"\n"},
        {"title:x",
         "#0 flags 03140 next - notnext - folder 1 file 354 contains/lowerbase \"x\" text \"title:x\"\n"},
        {"artist:x",
         "#0 flags 03140 next - notnext - folder 1 file 356 contains/lowerbase \"x\" text \"artist:x\"\n"},
        {"album:x",
         "#0 flags 03140 next - notnext - folder 1 file 358 contains/lowerbase \"x\" text \"album:x\"\n"},
        {"comment:x",
         "#0 flags 03140 next - notnext - folder 1 file 360 contains/lowerbase \"x\" text \"comment:x\"\n"},
        {"genre:x",
         "#0 flags 03140 next - notnext - folder 1 file 362 contains/lowerbase \"x\" text \"genre:x\"\n"},
        {"child:*.txt", "#0 flags 03140 next - notnext - folder 366 endwith/lowerbase \".txt\" file 1 text "
                        "\"child:*.txt\"\n"},
        {"childcount:>2",
         "#0 flags 03140 next - notnext - folder 368 3..2147483647 file 1 text \"childcount:>2\"\n"},
        {"childfilecount:0",
         "#0 flags 03140 next - notnext - folder 370 0..0 file 1 text \"childfilecount:0\"\n"},
        {"childfoldercount:<3",
         "#0 flags 03140 next - notnext - folder 372 0..2 file 1 text \"childfoldercount:<3\"\n"},
        {"datemodified:2020",
         "#0 flags 03140 next - notnext - folder 202 132223068000000000..132539291999999999 file 202 "
         "132223068000000000..132539291999999999 text \"datemodified:2020\"\n"},
        {"dm:", "#0 flags 03140 next - notnext - folder 202 0..18446744073709551614 file 202 "
                "0..18446744073709551614 text \"dm:\"\n"},
        {"dm:dc:", "#0 flags 03140 next - notnext - folder 214 file 214 text \"dm:dc:\"\n"},
        {"dm:=dc:", "#0 flags 03140 next - notnext - folder 214 file 214 text \"dm:=dc:\"\n"},
        {"dm:>=dc:", "#0 flags 03140 next - notnext - folder 216 file 216 text \"dm:>=dc:\"\n"},
        {"dm:<dc:", "#0 flags 03140 next - notnext - folder 217 file 217 text \"dm:<dc:\"\n"},
        {"dm:>dc:", "#0 flags 03140 next - notnext - folder 218 file 218 text \"dm:>dc:\"\n"},
        {"dm:<=dc:", "#0 flags 03140 next - notnext - folder 219 file 219 text \"dm:<=dc:\"\n"},
        {"dc:dm:", "#0 flags 03140 next - notnext - folder 214 file 214 text \"dc:dm:\"\n"},
        {"dc:<=dm:", "#0 flags 03140 next - notnext - folder 216 file 216 text \"dc:<=dm:\"\n"},
        {"dc:>dm:", "#0 flags 03140 next - notnext - folder 217 file 217 text \"dc:>dm:\"\n"},
        {"dc:<dm:", "#0 flags 03140 next - notnext - folder 218 file 218 text \"dc:<dm:\"\n"},
        {"dc:>=dm:", "#0 flags 03140 next - notnext - folder 219 file 219 text \"dc:>=dm:\"\n"},
        {"!dm:dc:", "#0 flags 1b540 next - notnext - folder 215 file 215 text \"dm:dc:\"\n"},
        {"!dm:<dc:", "#0 flags 1b540 next - notnext - folder 216 file 216 text \"dm:<dc:\"\n"},
        {"dateaccessed:2020",
         "#0 flags 03140 next - notnext - folder 332 132223068000000000..132539291999999999 file 332 "
         "132223068000000000..132539291999999999 text \"dateaccessed:2020\"\n"},
        {"da:>=2020", "#0 flags 03140 next - notnext - folder 332 132223068000000000..18446744073709551614 "
                      "file 332 132223068000000000..18446744073709551614 text \"da:>=2020\"\n"},
        {"recentchange:today",
         "#0 flags 03140 next - notnext - folder 326 133547580000000000..133548443999999999 file 326 "
         "133547580000000000..133548443999999999 text \"recentchange:today\"\n"},
        {"runcount:3", "#0 flags 03140 next - notnext - folder 328 3..3 file 328 3..3 text \"runcount:3\"\n"},
        {"daterun:2020", "#0 flags 03140 next - notnext - folder 330 132223068000000000..132539291999999999 "
                         "file 330 132223068000000000..132539291999999999 text \"daterun:2020\"\n"},
        {"dr:<2020", "#0 flags 03140 next - notnext - folder 330 0..132223067999999999 file 330 "
                     "0..132223067999999999 text \"dr:<2020\"\n"},
        {"count:5", "#0 flags 03140 next - notnext - folder 334 limit 5 file 334 limit 5 text \"count:5\"\n"},
        {"count:0", "#0 flags 03140 next - notnext - folder 334 limit 0 file 334 limit 0 text \"count:0\"\n"},
        {"frn:0x1F", "#0 flags 03140 next - notnext - folder 336 0:1f file 336 0:1f text \"frn:0x1F\"\n"},
        {"frn:123456789abcdef0123", "#0 flags 03140 next - notnext - folder 336 123:456789abcdef0123 file "
                                    "336 123:456789abcdef0123 text \"frn:123456789abcdef0123\"\n"},
        {"datecreated:2020",
         "#0 flags 03140 next - notnext - folder 220 132223068000000000..132539291999999999 file 220 "
         "132223068000000000..132539291999999999 text \"datecreated:2020\"\n"},
        {"dc:today", "#0 flags 03140 next - notnext - folder 220 133547580000000000..133548443999999999 file "
                     "220 133547580000000000..133548443999999999 text \"dc:today\"\n"},
        {"attributes:rh",
         "#0 flags 03140 next - notnext - folder 210 mask 3 file 210 mask 3 text \"attributes:rh\"\n"},
        {"attrib:hz",
         "#0 flags 03140 next - notnext - folder 210 mask 2 file 210 mask 2 text \"attrib:hz\"\n"},
        {"attrib:", "#0 flags 03140 next - notnext - folder 210 mask 0 file 210 mask 0 text \"attrib:\"\n"},
        {"startwith:a*b",
         "#0 flags 03140 next - notnext - folder 122 \"a*b\" file 122 \"a*b\" text \"startwith:a*b\"\n"},
        {"endwith:.TXT",
         "#0 flags 03140 next - notnext - folder 142 \".txt\" file 142 \".txt\" text \"endwith:.TXT\"\n"},
        {"filelistfilename:x", "#0 flags 03140 next - notnext - folder 224 contains/lowerbase \"x\" file 224 "
                               "contains/lowerbase \"x\" text \"filelistfilename:x\"\n"},
        {"infolder:", "#0 flags 03140 next - notnext - folder 282 \"\" folders 1 file 282 \"\" folders 1 "
                      "text \"infolder:\"\n"},
        {"parent:/x", "#0 flags 03140 next - notnext - folder 280 \"/x\" folders 0 file 280 \"/x\" folders 0 "
                      "text \"parent:/x\"\n"},
    };
    CHECK_TABLE(table);
}

// Every spelling of a modifier or function compiles exactly as its first one: same flags, links and ops.
// Only the term text differs, since a function term keeps its own literal.
TEST_F(CompileTest, SpellingsCompileAlike) {
    static const char *const groups[][5] = {
        {"exact:a", "wholefilename:a", "wfn:a"},
        {"noexact:exact:a", "nowholefilename:exact:a", "nowfn:exact:a"},
        {"files:a", "file:a", "nofolders:a"},
        {"folders:a", "folder:a", "nofiles:a"},
        {"ww:a", "wholeword:a", "wholewords:a"},
        {"noww:ww:a", "nowholeword:ww:a", "nowholewords:ww:a"},
        {"utf8:a", "noascii:a"},
        {"namepartdupe:", "dupenamepart:"},
        {"sizedupe:", "dupesize:"},
        {"datecreateddupe:", "dcdupe:", "dupedc:"},
        {"datemodifieddupe:", "dmdupe:", "dupedm:"},
        {"dateaccesseddupe:", "dadupe:", "dupeda:"},
        {"attributesdupe:", "attribdupe:", "dupeattrib:"},
        {"parents:2", "depth:2"},
        {"ansicontent:a", "contenta:a"},
        {"utf16content:a", "utf16lecontent:a", "wcharcontent:a", "unicodecontent:a", "contentw:a"},
        {"width:5", "wide:5"},
        {"height:7", "high:7"},
        {"dimension:1x2", "dimensions:1x2"},
        {"datemodified:2020", "dm:2020"},
        {"dateaccessed:2020", "da:2020"},
        {"datecreated:2020", "dc:2020"},
        {"recentchange:today", "rc:today", "drc:today"},
        {"daterun:today", "dr:today"},
        {"attributes:rh", "attribute:rh", "attrib:rh"},
        {"infolder:/x", "parent:/x", "nosubfolders:/x"},
    };
    auto ops = [](const char *search) {
        std::string dump = compile_dump(search);
        size_t at = dump.rfind(" text ");
        return dump.substr(0, at);
    };
    for (const auto &group : groups) {
        std::string first = ops(group[0]);
        for (int i = 1; i < 5 && group[i]; i++) {
            EXPECT_EQ(ops(group[i]), first) << group[i] << " against " << group[0];
        }
    }
}

// Path forms follow the platform: '/' and roots named by paths on Linux, '\', drives and servers on
// Windows. Without an index every root lookup finds nothing (family 286).
TEST_F(CompileTest, Paths) {
#ifdef _WIN32
    const case_t table[] = {
        {"C:\\usr\\", "#0 flags 01144 next - notnext - folder 286 \"c:\\x5cusr\\x5c\" folders 0 file 286 "
                      "\"c:\\x5cusr\\x5c\" folders 0 text \"C:\\x5cusr\\x5c\"\n"},
        {"c:", "#0 flags 03144 next - notnext - folder 286 \"c:\" folders 0 file 286 \"c:\" folders 0 text "
               "\"c:\"\n"},
        {"\\\\host", "#0 flags 01144 next - notnext - folder 286 \"\\x5c\\x5chost\" folders 0 file 286 "
                     "\"\\x5c\\x5chost\" folders 0 text \"\\x5c\\x5chost\"\n"},
        {"C:\\usr\\bin", "#0 flags 01144 next - notnext - folder 126 \"c:\\x5cusr\\x5cbin\" file 126 "
                         "\"c:\\x5cusr\\x5cbin\" text \"C:\\x5cusr\\x5cbin\"\n"},
        {"C:\\usr\\bin*", "#0 flags 01144 next - notnext - folder 126 \"c:\\x5cusr\\x5cbin\" file 126 "
                          "\"c:\\x5cusr\\x5cbin\" text \"C:\\x5cusr\\x5cbin*\"\n"},
        {"\\name", "#0 flags 01144 next - notnext - folder 296 \"\\x5cname\" file 296 \"\\x5cname\" text "
                   "\"\\x5cname\"\n"},
        {"name\\", "#0 flags 01144 next - notnext - folder 306 \"name\\x5c\" file 306 \"name\\x5c\" text "
                   "\"name\\x5c\"\n"},
        {"\\name\\",
         "#0 flags 01144 next - notnext - folder 316 \"\\x5cname\\x5c\" file 316 \"\\x5cname\\x5c\" "
         "text \"\\x5cname\\x5c\"\n"},
        {"*\\name*", "#0 flags 01144 next - notnext - folder 296 \"\\x5cname\" file 296 \"\\x5cname\" text "
                     "\"*\\x5cname*\"\n"},
        {"a\\b",
         "#0 flags 01144 next - notnext - folder 10 \"a\\x5cb\" file 10 \"a\\x5cb\" text \"a\\x5cb\"\n"},
        {"nopath:a\\b", "#0 flags 01144 next - notnext - folder 10 \"a\\x5cb\" file 10 \"a\\x5cb\" text "
                        "\"a\\x5cb\"\n"},
        {"exact:C:\\usr",
         "#0 flags 01344 next - notnext - folder 46 \"c:\\x5cusr\" file 46 \"c:\\x5cusr\" text "
         "\"C:\\x5cusr\"\n"},
        {"/usr/", "#0 flags 01140 next - notnext - folder 2 \"/usr/\" file 2 \"/usr/\" text \"/usr/\"\n"},
        {"regex:a\\\\b.c",
         "#0 flags 01944 next - notnext - folder 227 regex \"a\\x5c\\x5cb.c\" file 227 regex "
         "\"a\\x5c\\x5cb.c\" text \"a\\x5c\\x5cb.c\"\n"},
        {"regex:C:.*",
         "#0 flags 01944 next - notnext - folder 227 regex \"C:.*\" file 227 regex \"C:.*\" text "
         "\"C:.*\"\n"},
        {"regex:a\\b.c", "#0 flags 01940 next - notnext - folder 226 regex \"a\\x5cb.c\" file 226 regex "
                         "\"a\\x5cb.c\" text \"a\\x5cb.c\"\n"},
        {"filelist:\"a.txt|\\b\\c.txt\"",
         "#0 flags 03140 next - notnext - folder 385 \"a.txt|\\x5cb\\x5cc.txt\" "
         "file 385 \"a.txt|\\x5cb\\x5cc.txt\" text "
         "\"filelist:a.txt|\\x5cb\\x5cc.txt\"\n"},
        {"infolder:C:\\missing\\",
         "#0 flags 03140 next - notnext - folder 280 \"c:\\x5cmissing\" folders 0 file "
         "280 \"c:\\x5cmissing\" folders 0 text \"infolder:C:\\x5cmissing\\x5c\"\n"},
    };
    CHECK_TABLE(table);
    const case_t ascii[] = {
        {"\\name\\",
         "#0 flags 0114c next - notnext - folder 324 \"\\x5cname\\x5c\" file 324 \"\\x5cname\\x5c\" "
         "text \"\\x5cname\\x5c\"\n"},
        {"name\\", "#0 flags 0114c next - notnext - folder 314 \"name\\x5c\" file 314 \"name\\x5c\" text "
                   "\"name\\x5c\"\n"},
    };
    CHECK_TABLE(ascii, SEARCH_DIACRITICS);
    convert_forward_slash_to_backslash = 1;
    EXPECT_EQ(compile_dump("a/b"),
              "#0 flags 01144 next - notnext - folder 10 \"a\\x5cb\" file 10 \"a\\x5cb\" text "
              "\"a/b\"\n");
    convert_forward_slash_to_backslash = 0;
#else
    const case_t table[] = {
        // A path ending in a separator is a root lookup; "/name" is no root on Linux but a component.
        {"/usr/",
         "#0 flags 01144 next - notnext - folder 286 \"/usr/\" folders 0 file 286 \"/usr/\" folders 0 "
         "text \"/usr/\"\n"},
        {"/usr", "#0 flags 01144 next - notnext - folder 296 \"/usr\" file 296 \"/usr\" text \"/usr\"\n"},
        {"/usr/bin", "#0 flags 01144 next - notnext - folder 126 \"/usr/bin\" file 126 \"/usr/bin\" text "
                     "\"/usr/bin\"\n"},
        {"/usr/bin*", "#0 flags 01144 next - notnext - folder 126 \"/usr/bin\" file 126 \"/usr/bin\" text "
                      "\"/usr/bin*\"\n"},
        {"name/", "#0 flags 01144 next - notnext - folder 306 \"name/\" file 306 \"name/\" text \"name/\"\n"},
        {"*/name*",
         "#0 flags 01144 next - notnext - folder 296 \"/name\" file 296 \"/name\" text \"*/name*\"\n"},
        {"a/b", "#0 flags 01144 next - notnext - folder 10 \"a/b\" file 10 \"a/b\" text \"a/b\"\n"},
        {"nopath:a/b", "#0 flags 01144 next - notnext - folder 10 \"a/b\" file 10 \"a/b\" text \"a/b\"\n"},
        {"exact:/usr/bin", "#0 flags 01344 next - notnext - folder 46 \"/usr/bin\" file 46 \"/usr/bin\" text "
                           "\"/usr/bin\"\n"},
        {"ww:/usr/bin", "#0 flags 01146 next - notnext - folder 11 \"/usr/bin\" file 11 \"/usr/bin\" text "
                        "\"/usr/bin\"\n"},
        {"a\\b",
         "#0 flags 01140 next - notnext - folder 2 \"a\\x5cb\" file 2 \"a\\x5cb\" text \"a\\x5cb\"\n"},
        {"regex:a/b.c",
         "#0 flags 01944 next - notnext - folder 227 regex \"a/b.c\" file 227 regex \"a/b.c\" text "
         "\"a/b.c\"\n"},
        {"filelist:\"a.txt|/b/c.txt\"",
         "#0 flags 03140 next - notnext - folder 385 \"a.txt|/b/c.txt\" file 385 "
         "\"a.txt|/b/c.txt\" text \"filelist:a.txt|/b/c.txt\"\n"},
        {"infolder:/missing/", "#0 flags 03140 next - notnext - folder 280 \"/missing\" folders 0 file 280 "
                               "\"/missing\" folders 0 text \"infolder:/missing/\"\n"},
        {"!infolder:/missing", "#0 flags 1b540 next - notnext - folder 281 \"/missing\" folders 0 file 281 "
                               "\"/missing\" folders 0 text \"infolder:/missing\"\n"},
    };
    CHECK_TABLE(table);
    const case_t ascii[] = {
        {"/name/",
         "#0 flags 0114c next - notnext - folder 294 \"/name/\" folders 0 file 294 \"/name/\" folders 0 "
         "text \"/name/\"\n"},
        {"name/", "#0 flags 0114c next - notnext - folder 314 \"name/\" file 314 \"name/\" text \"name/\"\n"},
    };
    CHECK_TABLE(ascii, SEARCH_DIACRITICS);
#endif
}

// The same strings under other settings and caller flags.
TEST_F(CompileTest, OperatorPrecedence) {
    operator_precedence = 1;
    const case_t table[] = {
        {"a|b c", "#0 flags 01140 next - notnext #1 folder 2 \"a\" file 2 \"a\" text \"a\"\n"
                  "#1 flags 01140 next #2 notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"
                  "#2 flags 03140 next - notnext - folder 2 \"c\" file 2 \"c\" text \"c\"\n"},
        {"a b|c", "#0 flags 01140 next #1 notnext #2 folder 2 \"a\" file 2 \"a\" text \"a\"\n"
                  "#1 flags 01140 next - notnext #2 folder 2 \"b\" file 2 \"b\" text \"b\"\n"
                  "#2 flags 03140 next - notnext - folder 2 \"c\" file 2 \"c\" text \"c\"\n"},
    };
    CHECK_TABLE(table);
    // Any value but 1 keeps OR binding tighter.
    operator_precedence = 7;
    EXPECT_EQ(compile_dump("a|b c"), compile_dump("<a|b> c"));
}

TEST_F(CompileTest, LiteralOperatorsAndBrackets) {
    allow_literal_operators = 1;
    allow_round_bracket_parenthesis = 1;
    const case_t table[] = {
        {"NOT a", "#0 flags 1b540 next - notnext - folder 18 \"a\" file 18 \"a\" text \"a\"\n"},
        {"a OR b", "#0 flags 01140 next - notnext #1 folder 2 \"a\" file 2 \"a\" text \"a\"\n"
                   "#1 flags 03140 next - notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        {"a AND b", "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n"
                    "#1 flags 03140 next - notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
        // Word operators count only before white space or a bracket; otherwise they are text.
        {"NOTa ORb", "#0 flags 01140 next #1 notnext - folder 2 \"nota\" file 2 \"nota\" text \"NOTa\"\n"
                     "#1 flags 01140 next - notnext - folder 2 \"orb\" file 2 \"orb\" text \"ORb\"\n"},
        {"NOT(a b)", "#0 flags 19540 next - notnext #1 folder 18 \"a\" file 18 \"a\" text \"a\"\n"
                     "#1 flags 19540 next - notnext - folder 18 \"b\" file 18 \"b\" text \"b\"\n"},
        {"(a|b) c", "#0 flags 01140 next #2 notnext #1 folder 2 \"a\" file 2 \"a\" text \"a\"\n"
                    "#1 flags 01140 next #2 notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"
                    "#2 flags 03140 next - notnext - folder 2 \"c\" file 2 \"c\" text \"c\"\n"},
        // Operators are case-sensitive.
        {"a or b", "#0 flags 01140 next #1 notnext - folder 2 \"a\" file 2 \"a\" text \"a\"\n"
                   "#1 flags 01140 next #2 notnext - folder 2 \"or\" file 2 \"or\" text \"or\"\n"
                   "#2 flags 03140 next - notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"},
    };
    CHECK_TABLE(table);
    allow_exclamation_point_not = 0;
    EXPECT_EQ(compile_dump("!a"),
              "#0 flags 01140 next - notnext - folder 2 \"!a\" file 2 \"!a\" text \"!a\"\n");
}

TEST_F(CompileTest, WildcardAndAsciiSettings) {
    match_whole_filename_when_using_wildcards = 0;
    const case_t wild_anywhere[] = {
        {"a*b", "#0 flags 00140 next - notnext - folder 62 \"a*b\" file 62 \"a*b\" text \"a*b\"\n"},
        {"abc*", "#0 flags 00140 next - notnext - folder 2 \"abc\" file 2 \"abc\" text \"abc*\"\n"},
        {"*.txt", "#0 flags 00140 next - notnext - folder 2 \".txt\" file 2 \".txt\" text \"*.txt\"\n"},
        {"ww:a*b", "#0 flags 00142 next - notnext - folder 63 \"a*b\" file 63 \"a*b\" text \"a*b\"\n"},
        // exact: brings its own whole-name bit.
        {"exact:a*", "#0 flags 01340 next - notnext - folder 122 \"a\" file 122 \"a\" text \"a*\"\n"},
    };
    CHECK_TABLE(wild_anywhere);
    match_whole_filename_when_using_wildcards = 1;
    // The ASCII families need diacritics on, case off and pure ASCII text.
    const case_t diacritics[] = {
        {"abc", "#0 flags 03148 next - notnext - folder 34 \"abc\" file 34 \"abc\" text \"abc\"\n"},
        {"ABC", "#0 flags 01148 next - notnext - folder 34 \"abc\" file 34 \"abc\" text \"ABC\"\n"},
        {"caf\xc3\xa9",
         "#0 flags 01148 next - notnext - folder 6 \"caf\\xc3\\xa9\" file 6 \"caf\\xc3\\xa9\" text "
         "\"caf\\xc3\\xa9\"\n"},
        {"exact:abc", "#0 flags 03348 next - notnext - folder 58 \"abc\" file 58 \"abc\" text \"abc\"\n"},
        {"a*b", "#0 flags 01148 next - notnext - folder 118 \"a*b\" file 118 \"a*b\" text \"a*b\"\n"},
        {"abc*", "#0 flags 01148 next - notnext - folder 138 \"abc\" file 138 \"abc\" text \"abc*\"\n"},
        {"*.txt", "#0 flags 01148 next - notnext - folder 158 \".txt\" file 158 \".txt\" text \"*.txt\"\n"},
        {"ext:TXT;doc", "#0 flags 03148 next - notnext - folder 1 file 170 [doc;txt] text \"ext:TXT;doc\"\n"},
        {"ext:;TXT", "#0 flags 03148 next - notnext - folder 1 file 382 [;txt] text \"ext:;TXT\"\n"},
        {"ww:abc", "#0 flags 0314a next - notnext - folder 35 \"abc\" file 35 \"abc\" text \"abc\"\n"},
    };
    CHECK_TABLE(diacritics, SEARCH_DIACRITICS);
    // Case on keeps the text as typed and leaves the ASCII path.
    const case_t with_case[] = {
        {"ABC", "#0 flags 01149 next - notnext - folder 8 \"ABC\" file 8 \"ABC\" text \"ABC\"\n"},
        {"ext:TXT", "#0 flags 03149 next - notnext - folder 1 file 165 [TXT] text \"ext:TXT\"\n"},
    };
    CHECK_TABLE(with_case, SEARCH_CASE | SEARCH_DIACRITICS);
    fast_ascii_search = 0;
    EXPECT_EQ(compile_dump("abc", SEARCH_DIACRITICS),
              "#0 flags 03108 next - notnext - folder 6 \"abc\" file 6 \"abc\" text \"abc\"\n");
}

TEST_F(CompileTest, CallerFlags) {
    const case_t table[] = {
        {"abc", "#0 flags 03146 next - notnext - folder 11 \"abc\" file 11 \"abc\" text \"abc\"\n"},
    };
    CHECK_TABLE(table, SEARCH_WHOLEWORD | SEARCH_PATH);
    // With regex on the whole line is one term, white space and operators included.
    EXPECT_EQ(compile_dump(" a|b c", SEARCH_REGEX),
              "#0 flags 01940 next - notnext - folder 226 regex \" a|b c\" file 226 regex \" a|b c\" text "
              "\" a|b c\"\n");
    // Without the separator rule a path-like term stays a name search.
    match_path_when_search_contains_path_separator = 0;
    EXPECT_EQ(compile_dump("a/b"),
              "#0 flags 01140 next - notnext - folder 2 \"a/b\" file 2 \"a/b\" text \"a/b\"\n");
}

TEST_F(CompileTest, FilterJoinsBehindTheSearch) {
    // Both successful ends of "a|b" continue into the filter; the filter's own terms carry the filter bit.
    EXPECT_EQ(compile_dump("a|b", 0, "x y", SEARCH_CASE),
              "#0 flags 01140 next #2 notnext #1 folder 2 \"a\" file 2 \"a\" text \"a\"\n"
              "#1 flags 03140 next #2 notnext - folder 2 \"b\" file 2 \"b\" text \"b\"\n"
              "#2 flags 01141 next #3 notnext - folder 4 \"x\" file 4 \"x\" text \"x\"\n"
              "#3 flags 03141 next - notnext - folder 4 \"y\" file 4 \"y\" text \"y\"\n");
    db_search_t s;
    compile_dump("a", 0, "x", 0, &s);
    ASSERT_NE(s.folder_ops, nullptr);
    EXPECT_EQ(s.folder_ops->is_filter, 0);
    ASSERT_NE(s.folder_ops->list_next, nullptr);
    EXPECT_EQ(s.folder_ops->list_next->is_filter, 1);
    // The linked ops follow the terms: a's success leads to x, x's success ends the path.
    EXPECT_EQ(s.folder_ops->next, s.folder_ops->list_next);
    EXPECT_EQ(s.folder_ops->notnext, nullptr);
    EXPECT_EQ(s.file_ops->next, s.file_ops->list_next);
    EXPECT_EQ(s.file_ops->list_next->next, nullptr);
    db_search_kill(&s);
    EXPECT_EQ(s.folder_ops, nullptr);
}

TEST_F(CompileTest, HideEmptyAndIndexStructure) {
    db_search_t s;
    db_search_init(&s, nullptr);
    db_search_compile(&s, "", 0, "x", 0, true);
    ASSERT_NE(s.folder_ops, nullptr);
    EXPECT_EQ(s.folder_ops->op, DB_OP_FALSE);
    EXPECT_EQ(s.folder_ops->list_next, nullptr);
    EXPECT_EQ(s.file_ops->op, DB_OP_FALSE);
    db_search_kill(&s);
    db_search_compile(&s, "", 0, nullptr, 0, false);
    EXPECT_EQ(s.folder_ops->op, DB_OP_TRUE);
    db_search_kill(&s);

    // Every column and array indexed: the indexed ops and the dupe tests on both kinds.
    s.structure = 0x3F | 0x1F00;
    db_search_compile(&s, "size:1 dc:2020 da:2020 attrib:r sizedupe: dcdupe: dadupe: attribdupe:", 0, nullptr,
                      0, false);
    uint16_t folder_ops[8], file_ops[8];
    int i = 0;
    for (db_op_t *f = s.folder_ops, *g = s.file_ops; f && i < 8; f = f->list_next, g = g->list_next, i++) {
        folder_ops[i] = f->op, file_ops[i] = g->op;
    }
    ASSERT_EQ(i, 8);
    const uint16_t want[8] = {200, 204, 206, 208, 178, 180, 184, 186};
    for (int k = 0; k < 8; k++) {
        EXPECT_EQ(folder_ops[k], want[k]) << k;
        EXPECT_EQ(file_ops[k], want[k]) << k;
    }
    EXPECT_FALSE(s.needs_fileinfo);
    db_search_kill(&s);

    // Nothing indexed: sizes, dates and attributes are read on demand.
    s.structure = 0;
    db_search_compile(&s, "size:1 dm:2020 content:x count:3", 0, nullptr, 0, false);
    EXPECT_EQ(s.file_ops->op, 198);
    EXPECT_EQ(s.folder_ops->op, DB_OP_FALSE);
    EXPECT_EQ(s.file_ops->list_next->op, 212);
    EXPECT_TRUE(s.needs_fileinfo);
    EXPECT_EQ(s.fileinfo_mask & (DB_FILEINFO_SIZE | DB_FILEINFO_DATE_MODIFIED | DB_FILEINFO_CONTENT),
              (uint32_t) (DB_FILEINFO_SIZE | DB_FILEINFO_DATE_MODIFIED | DB_FILEINFO_CONTENT));
    EXPECT_TRUE(s.needs_single_thread);
    EXPECT_TRUE(s.flip_for_count);
    db_search_kill(&s);
}

TEST_F(CompileTest, PatternsMatchWhatTheyCompiledTo) {
    // type: decides folders now by the folder type text; its file pattern must agree with the matcher
    // it names, so run a few names through compiled patterns.
    struct {
        uint32_t flags;
        const char *pattern, *name;
        bool match;
    } rows[] = {
        {TERM_WILDCARDS | TERM_WILDCARD_WHOLE, "*.TXT", "a.txt", true},
        {TERM_WILDCARDS | TERM_WILDCARD_WHOLE, "*.txt", "a.txt.bak", false},
        {TERM_WILDCARDS, "a*c", "xxabbcxx", true},
        {TERM_WILDCARDS | TERM_WILDCARD_WHOLE, "a*c", "xxabbcxx", false},
        {0, "caf\xc3\xa9", "CAFE.doc", true},
        {TERM_DIACRITICS, "caf\xc3\xa9", "CAFE.doc", false},
        {TERM_CASE | TERM_DIACRITICS, "Abc", "abc", false},
        {TERM_WHOLEWORD, "abc", "x-abc.txt", true},
        {TERM_WHOLEWORD, "abc", "xabc", false},
        {TERM_EXACT, "abc", "abc", true},
        {TERM_EXACT, "abc", "abcd", false},
        {TERM_REGEX, "^a.c$", "ABC", true},
        {TERM_REGEX | TERM_CASE, "^a.c$", "ABC", false},
        {TERM_REGEX, "(", "(", false},
    };
    for (const auto &r : rows) {
        size_t len = strlen(r.pattern);
        char *storage = (char *) mem_alloc(db_text_match_size(r.flags, r.pattern, len));
        db_text_match_t m;
        term_pattern_compile(r.flags, r.pattern, len, &m, storage);
        EXPECT_EQ(db_text_match_run(&m, r.name, strlen(r.name)), r.match) << r.pattern << " on " << r.name;
        db_text_match_free(&m);
        mem_free(storage);
    }
}

TEST_F(CompileTest, ContentWildcardsOnlyWhenExplicit) {
    const case_t table[] = {
        {"content:*.txt",
         "#0 flags 03140 next - notnext - folder 1 file 338 contains/lowerbase \"*.txt\" text "
         "\"content:*.txt\"\n"},
        {"wildcards:content:*.txt",
         "#0 flags 07140 next - notnext - folder 1 file 338 endwith/lowerbase \".txt\" "
         "text \"content:*.txt\"\n"},
        {"title:a?c", "#0 flags 03140 next - notnext - folder 1 file 354 contains/lowerbase \"a?c\" text "
                      "\"title:a?c\"\n"},
        // Names keep their wildcards without it.
        {"child:a?c", "#0 flags 03140 next - notnext - folder 366 wild-whole/lowerbase \"a?c\" file 1 text "
                      "\"child:a?c\"\n"},
    };
    CHECK_TABLE(table);
}

// The fixed type texts, and type: patterns run on them the way the scan runs the file op's pattern.
TEST_F(CompileTest, FixedTypeTexts) {
    static const struct {
        const char *name;
        bool folder;
        const char *text;
    } rows[] = {
        {"report.txt", false, "TXT File"},
        {"archive.tar.gz", false, "GZ File"},
        {"README", false, "File"},
        {"trailing.", false, "File"},
        {".bashrc", false, "BASHRC File"},
        {"x.Mp3", false, "MP3 File"},
        {"caf\xC3\xA9.\xC3\xA9t\xC3\xA9", false, "\xC3\xA9T\xC3\xA9 File"},
        {"docs.d", true, "File folder"},
    };
    str_t out;
    str_init(&out);
    for (const auto &row : rows) {
        db_type_text_fixed(row.name, (uint32_t) strlen(row.name), row.folder, &out);
        EXPECT_EQ(std::string(out.ptr, (size_t) out.len), row.text) << row.name;
    }
    static const struct {
        const char *search;
        const char *name;
        bool match;
    } patterns[] = {
        {"type:\"txt file\"", "a.txt", true},
        {"type:txt", "a.txt.bak", false},
        {"type:bak", "a.txt.bak", true},
        {"type:\"file\"", "README", true},
        {"type:folder", "a.txt", false},
        {"exact:type:file", "a.txt", false},
        {"exact:type:file", "README", true},
        // A lone star matches every type whatever the modifiers say, as the term "*" matches every name.
        {"exact:type:*", "a.txt", true},
        {"ww:type:*", "README", true},
        {"exact:ww:type:*", "x.Mp3", true},
    };
    for (const auto &p : patterns) {
        db_search_t s;
        db_search_init(&s, nullptr);
        db_search_compile(&s, p.search, 0, nullptr, 0, false);
        ASSERT_EQ(s.file_ops->op, 222) << p.search;
        if (strstr(p.search, ":*")) {
            EXPECT_EQ(s.folder_ops->op, DB_OP_TRUE) << p.search;
        }
        db_type_text_fixed(p.name, (uint32_t) strlen(p.name), false, &out);
        const db_text_match_t *m = (const db_text_match_t *) db_op_payload(s.file_ops);
        EXPECT_EQ(db_text_match_run(m, out.ptr, (size_t) out.len), p.match) << p.search << " on " << p.name;
        db_search_kill(&s);
    }
    str_kill(&out);
}
