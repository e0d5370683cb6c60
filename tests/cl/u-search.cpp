// The search text of a command line in both modes, the -url form and the column names of -sort.
#include "cl/cl.h"
#include "mem/mem.h"
#include "os/os.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// Builds a cl_t holding just these search parts, in this order.
struct parts_t {
    cl_t cl;
    cl_search_part_t items[8];
    parts_t(std::initializer_list<std::pair<int, const char *>> list) {
        memset(&cl, 0, sizeof cl);
        int n = 0;
        cl_search_part_t **link = &cl.search_parts;
        for (const auto &p : list) {
            items[n].next = nullptr;
            items[n].kind = p.first;
            items[n].text = (char *) p.second;
            *link = &items[n];
            link = &items[n].next;
            n++;
        }
    }
};

std::string build(const parts_t &p, bool regex) {
    str_t out;
    str_init(&out);
    str_set(&out, "left over");
    cl_build_search(&out, regex, &p.cl);
    std::string r(out.ptr, (size_t) out.len);
    str_kill(&out);
    return r;
}

// The platform's separator as it stands in a pattern.
std::string sep_pattern() {
    return OS_SEP == '\\' ? "\\\\" : "/";
}

TEST(Search, PlainModeJoinsPartsInListOrder) {
    EXPECT_EQ(build(parts_t{}, false), "");
    EXPECT_EQ(build(parts_t{{0, "abc"}}, false), "abc");
    EXPECT_EQ(build(parts_t{{1, "C:\\a\\"}}, false), "\"C:\\a\\\" ");
    EXPECT_EQ(build(parts_t{{2, "C:\\a"}}, false), "parent:\"C:\\a\" ");
    EXPECT_EQ(build(parts_t{{3, "x.txt"}}, false), "nopath:wfn:\"x.txt\" ");
    EXPECT_EQ(build(parts_t{{4, "a|b"}}, false), "filelist:\"a|b\" ");
    // A blank goes in only where the text doesn't already end in one.
    EXPECT_EQ(build(parts_t({{0, "foo"}, {1, "C:\\a\\"}, {0, "bar"}}), false), "foo \"C:\\a\\\" bar");
    EXPECT_EQ(build(parts_t({{0, "foo "}, {3, "n"}}), false), "foo nopath:wfn:\"n\" ");
    EXPECT_EQ(build(parts_t({{2, "p"}, {3, "n"}, {4, "l"}}), false),
              "parent:\"p\" nopath:wfn:\"n\" filelist:\"l\" ");
}

TEST(Search, RegexModeEscapesAndWrapsSeveralParts) {
    const std::string s = sep_pattern();
    // One part stands alone; the text kind is already a pattern and isn't escaped.
    EXPECT_EQ(build(parts_t{{0, "a.*b"}}, true), "a.*b");
    EXPECT_EQ(build(parts_t{{1, "C:\\x.y\\"}}, true), "^C:\\\\x\\.y\\\\");
    EXPECT_EQ(build(parts_t{{2, "/p(1)"}}, true), "^/p\\(1\\)" + s + "[^" + s + "]*$");
    EXPECT_EQ(build(parts_t{{3, "a+b"}}, true), "^.*" + s + "a\\+b$");
    // A file list has no pattern form: it neither writes nor counts.
    EXPECT_EQ(build(parts_t{{4, "a|b"}}, true), "");
    EXPECT_EQ(build(parts_t({{0, "x"}, {4, "l"}}), true), "x");
    EXPECT_EQ(build(parts_t({{0, "x"}, {3, "y"}}), true), "(?=.*x)(?=.*^.*" + s + "y$)");
}

TEST(Search, EscapeSetIsExact) {
    str_t out;
    str_init(&out);
    // Every printable ASCII character: only the twelve specials get a backslash.
    std::string all, expected;
    for (int c = 32; c < 127; c++) {
        all += (char) c;
        if (strchr("$()*+.?[\\^{|", c)) {
            expected += '\\';
        }
        expected += (char) c;
    }
    cl_regex_escape(&out, all.c_str());
    EXPECT_EQ(std::string(out.ptr, (size_t) out.len), expected);
    // It appends.
    str_set(&out, "pre");
    cl_regex_escape(&out, "]}");
    EXPECT_STREQ(out.ptr, "pre]}");
    str_kill(&out);
}

TEST(Search, UrlDecoding) {
    const struct {
        const char *url;
        const char *expected;
    } cases[] = {
        {"sw:foo", "foo"},
        {"SW://foo", "foo"},
        {"Sw://foo/", "foo"},
        {"sw://foo%20bar/", "foo bar"},
        {"sw://a/b/", "a/b"},
        {"sw://a//", "a/"},
        {"sw://foo/?x", "foo?x"},
        {"sw://foo/#frag", "foo#frag"},
        {"sw://a/b/?c/", "a/b?c/"},
        {"sw:/x", "/x"},
        {"sw:", ""},
        {"sw://", ""},
        {"sw:///", ""},
        {"sw://%2F", "/"},
        {"sw://%2f/", "/"},
        {"sw://%C3%A9", "\xC3\xA9"},
        {"sw://100%", "100%"},
        {"sw://%zz%4", "%zz%4"},
        {"sw://%%41", "%A"},
        {"plain/", "plain/"},
        {"a%20b", "a b"},
        {"s", "s"},
        {"", ""},
    };
    str_t out;
    str_init(&out);
    for (const auto &c : cases) {
        cl_url_decode(&out, c.url);
        EXPECT_EQ(std::string(out.ptr, (size_t) out.len), c.expected) << c.url;
    }
    str_kill(&out);
}

TEST(Search, SortColumns) {
    const struct {
        const char *name;
        int column;
    } cases[] = {
        {"name", 0},
        {"PATH", 1},
        {"size", 2},
        {"extension", 3},
        {"type", 4},
        {"date-modified", 5},
        {"DateCreated", 6},
        {"date_accessed", 7},
        {"attributes", 8},
        {"date recently changed", 9},
        {"run-count", 10},
        {"date-run", 11},
        {"file-list-filename", 12},
        {"", 0},
        {"size2", 0},
        {"siz", 0},
        {"unknown", 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(cl_sort_column(c.name, (int) strlen(c.name)), c.column) << c.name;
    }
    // Counted: what follows the length is not read.
    EXPECT_EQ(cl_sort_column("sizeXYZ", 4), 2);
}

TEST(Search, FileListReaderReplacesThePath) {
    cl_set_file_list_reader([](str_t *out, const char *path) {
        if (strstr(path, "missing")) {
            return false;
        }
        str_set(out, "a.txt|b.txt");
        return true;
    });
    cl_t *cl = cl_parse("-search-file-list names.txt", OS_SEP == '\\' ? "C:\\b" : "/b", true);
    ASSERT_NE(cl->search_parts, nullptr);
    EXPECT_STREQ(cl->search_parts->text, "a.txt|b.txt");
    cl_free(cl);
    cl = cl_parse("-search-file-list missing.txt", OS_SEP == '\\' ? "C:\\b" : "/b", true);
    ASSERT_NE(cl->search_parts, nullptr);
    EXPECT_STREQ(cl->search_parts->text, OS_SEP == '\\' ? "C:\\b\\missing.txt" : "/b/missing.txt");
    cl_free(cl);
    cl_set_file_list_reader(nullptr);
}

// From a command line to the text a window would search.
TEST(Search, CommandLineToSearchText) {
    cl_t *cl = cl_parse("-s \"*.txt\" -parent dir -name-part x.y", OS_SEP == '\\' ? "C:\\b" : "/b", true);
    str_t out;
    str_init(&out);
    cl_build_search(&out, false, cl);
    if (OS_SEP == '\\') {
        EXPECT_STREQ(out.ptr, "*.txt parent:\"C:\\b\\dir\" nopath:wfn:\"x.y\" ");
    } else {
        EXPECT_STREQ(out.ptr, "*.txt parent:\"/b/dir\" nopath:wfn:\"x.y\" ");
    }
    cl_build_search(&out, true, cl);
    if (OS_SEP == '\\') {
        EXPECT_STREQ(out.ptr, "(?=.**.txt)(?=.*^C:\\\\b\\\\dir\\\\[^\\\\]*$)(?=.*^.*\\\\x\\.y$)");
    } else {
        EXPECT_STREQ(out.ptr, "(?=.**.txt)(?=.*^/b/dir/[^/]*$)(?=.*^.*/x\\.y$)");
    }
    str_kill(&out);
    cl_free(cl);
}

} // namespace
