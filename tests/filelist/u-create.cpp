// Lists of folder trees: a real tree on disk with awkward names, walked by std::filesystem as the oracle,
// and the written list read back through the list reader. Filters, relative paths, links and failures.
#include "filelist_test.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "config/config_vars.h"
#include "db_create/db_create.h"
#include "filelist/create.h"
#include "os/os.h"
#include "text/text.h"

namespace fs = std::filesystem;

static fs::path u8p(const std::string &s) {
    return fs::path(std::u8string(s.begin(), s.end()));
}

static std::string u8s(const fs::path &p) {
    std::u8string u = p.u8string();
    return std::string(u.begin(), u.end());
}

static void write_file(const std::string &path, const std::string &text) {
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID) << path;
    EXPECT_EQ(os_file_write(f, text.data(), text.size()), (int64_t) text.size());
    os_file_close(f);
}

static std::string read_file(const std::string &path) {
    std::string text;
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_READ);
    if (f == OS_FILE_INVALID) {
        return text;
    }
    char buf[4096];
    int64_t n;
    while ((n = os_file_read(f, buf, sizeof(buf))) > 0) {
        text.append(buf, (size_t) n);
    }
    os_file_close(f);
    return text;
}

struct listed_t {
    std::string path;
    bool folder;
    os_file_info_t fd;
};

// The list read back by the reader, in file order.
static std::vector<listed_t> read_back(const std::string &list_path) {
    filelist_t list;
    filelist_init(&list);
    filelist_options_t options = {};
    EXPECT_EQ(filelist_read(&list, list_path.c_str(), &options), FILELIST_OK);
    std::vector<listed_t> out;
    for (filelist_item_t *i = list.first; i; i = i->next) {
        out.push_back({std::string(i->path, i->path_len), (i->flags & FILELIST_ITEM_FOLDER) != 0, i->fd});
    }
    filelist_kill(&list);
    return out;
}

static std::set<std::string> paths_of(const std::vector<listed_t> &v) {
    std::set<std::string> s;
    for (const listed_t &l : v) {
        s.insert(l.path);
    }
    return s;
}

class CreateTest : public ::testing::Test {
  protected:
    std::string scratch; // holds the tree and the lists
    std::string top;     // the tree

    void SetUp() override {
        text_init_tables();
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
        scratch = std::string(tmp.ptr) + OS_SEP_STR + "sw-create-" + info->name() + "-" +
                  std::to_string(os_counter());
        str_kill(&tmp);
        top = scratch + OS_SEP_STR + "tree";
        fs::create_directories(u8p(top));
        file_list_relative_paths = 0;
    }
    void TearDown() override {
        file_list_relative_paths = 0;
        std::error_code ec;
        fs::remove_all(u8p(scratch), ec);
    }

    // A path below the tree, written with '/'.
    std::string at(const std::string &rel) {
        std::string p = top + OS_SEP_STR + rel;
        std::replace(p.begin(), p.end(), '/', OS_SEP);
        return p;
    }
    void file(const std::string &rel, const std::string &text = "") {
        fs::create_directories(u8p(at(rel)).parent_path());
        write_file(at(rel), text);
    }
    void folder(const std::string &rel) { fs::create_directories(u8p(at(rel))); }

    // Every path below the tree, as the oracle sees it.
    std::set<std::string> on_disk() {
        std::set<std::string> s;
        for (const auto &e : fs::recursive_directory_iterator(u8p(top))) {
            s.insert(u8s(e.path()));
        }
        return s;
    }
    std::set<std::string> on_disk_where(const std::function<bool(const std::string &)> &keep) {
        std::set<std::string> s;
        for (const std::string &p : on_disk()) {
            if (keep(p)) {
                s.insert(p);
            }
        }
        return s;
    }
    std::string list_path(const char *name = "out.swl") { return scratch + OS_SEP_STR + name; }

    std::vector<listed_t> create(const char *excl_files, const char *excl_folders, const char *include) {
        std::string lp = list_path();
        EXPECT_TRUE(filelist_create(lp.c_str(), top.c_str(), excl_files, excl_folders, include));
        return read_back(lp);
    }
};

// Appended rather than prefixed: GCC 12 at -O3 warns falsely on a literal + a temporary string.
static std::string in_quotes(const std::string &s) {
    std::string q = "\"";
    q += s;
    q += "\"";
    return q;
}

static std::string lower(std::string s) {
    for (char &c : s) {
        c = (char) ascii_lower[(uint8_t) c];
    }
    return s;
}

static std::string name_of(const std::string &path) {
    return path.substr(path.find_last_of(OS_SEP) + 1);
}

TEST_F(CreateTest, ListOfTheTreeReadsBackAsTheTree) {
    file("plain.txt", "12345");
    file("comma, and more.txt", "1");
    file("Ελληνικά/日本語.txt", "123");
    file("Ελληνικа/русский текст/עברית.doc", "1234567");
    file("deep/er/still/deeper/𝄞 clef.bin", std::string(70000, 'x'));
    file("deep/sibling.txt");
    folder("empty folder");
#ifndef _WIN32
    // Only Linux allows a quote in a name; the list must quote and double it.
    file("say \"hi\".txt", "22");
    file("sub/\"quoted\"/inner.txt", "4");
#endif
    std::vector<listed_t> got = create(nullptr, nullptr, nullptr);
    EXPECT_EQ(paths_of(got), on_disk());
    EXPECT_EQ(got.size(), on_disk().size()) << "no item may be listed twice";

    for (const listed_t &l : got) {
        os_file_info_t info;
        ASSERT_TRUE(os_get_file_info(l.path.c_str(), &info)) << l.path;
        EXPECT_EQ(l.folder, fs::is_directory(u8p(l.path))) << l.path;
        EXPECT_EQ(l.fd.date_modified, info.date_modified) << l.path;
        EXPECT_EQ(l.fd.attributes, info.attributes) << l.path;
        if (!l.folder) {
            EXPECT_EQ(l.fd.size, fs::file_size(u8p(l.path))) << l.path;
        }
    }

    // Depth first, in the order found: a folder comes before what it holds, and all it holds follows it
    // at once, as one run.
    std::map<std::string, size_t> index;
    for (size_t i = 0; i < got.size(); i++) {
        index[got[i].path] = i;
    }
    for (size_t i = 0; i < got.size(); i++) {
        std::string parent = got[i].path.substr(0, got[i].path.find_last_of(OS_SEP));
        if (parent != top) {
            ASSERT_TRUE(index.count(parent)) << got[i].path;
            EXPECT_LT(index[parent], i) << got[i].path;
        }
        if (got[i].folder) {
            std::string prefix = got[i].path + OS_SEP;
            size_t j = i + 1;
            while (j < got.size() && got[j].path.compare(0, prefix.size(), prefix) == 0) {
                j++;
            }
            for (size_t k = j; k < got.size(); k++) {
                EXPECT_NE(got[k].path.compare(0, prefix.size(), prefix), 0)
                    << got[k].path << " is apart from the rest of " << got[i].path;
            }
        }
    }
}

TEST_F(CreateTest, RowsHaveTheWrittenForm) {
    file("a,b.txt", "123");
    folder("f");
    std::string lp = list_path();
    ASSERT_TRUE(filelist_create(lp.c_str(), top.c_str(), nullptr, nullptr, nullptr));
    std::string text = read_file(lp);
    ASSERT_EQ(text.compare(0, strlen(FILELIST_HEADER), FILELIST_HEADER), 0) << text;
    os_file_info_t info;
    ASSERT_TRUE(os_get_file_info(at("a,b.txt").c_str(), &info));
    // The path quoted, the size, the date modified, the date created unless the platform has none, then
    // the attributes; CR LF.
    std::string row = in_quotes(at("a,b.txt"));
    row += ",3,";
    row += std::to_string(info.date_modified);
    row += ",";
    if (info.date_created != UINT64_MAX && info.date_created != 0) {
        row += std::to_string(info.date_created);
    }
    row += ",";
    row += std::to_string(info.attributes);
    row += "\r\n";
    EXPECT_NE(text.find(row), std::string::npos) << text;
    EXPECT_NE(text.find(in_quotes(at("f")) + ",0,"), std::string::npos) << text;
}

TEST_F(CreateTest, TrailingSeparatorNamesTheSameTree) {
    file("x/y.txt");
    file("z.txt");
    std::string lp = list_path();
    ASSERT_TRUE(filelist_create(lp.c_str(), (top + OS_SEP_STR).c_str(), nullptr, nullptr, nullptr));
    EXPECT_EQ(paths_of(read_back(lp)), on_disk());
}

TEST_F(CreateTest, Filters) {
    file("a.txt");
    file("B.TXT");
    file("keep.log");
    file("data.bin");
    file("sub/c.txt");
    file("sub/d.log");
    file("sub/deep/e.txt");
    file("Skip/f.txt");
    file("cache/g.tmp");
    std::string S(1, OS_SEP);
    // A separator inside a regular expression, escaped where the platform's separator needs it.
    std::string rsep = OS_SEP == '\\' ? "\\\\" : "/";
    auto ends = [](const std::string &p, const std::string &tail) {
        return p.size() >= tail.size() && p.compare(p.size() - tail.size(), tail.size(), tail) == 0;
    };
    auto is_dir = [](const std::string &p) { return fs::is_directory(u8p(p)); };
    auto under = [&](const std::string &p, const std::string &rel) {
        std::string f = at(rel);
        return p == f || p.compare(0, f.size() + 1, f + S) == 0;
    };
    struct {
        std::string files, folders, include;
        std::function<bool(const std::string &)> keep;
    } cases[] = {
        {"*.txt", "", "", [&](const std::string &p) { return is_dir(p) || !ends(lower(p), ".txt"); }},
        {"b.txt", "", "", [&](const std::string &p) { return name_of(p) != "B.TXT"; }},
        {"regex:^[a-c][.]txt$", "", "",
         [&](const std::string &p) {
             std::string n = lower(name_of(p)); // the expression is matched with case folded
             return is_dir(p) || !(n == "a.txt" || n == "b.txt" || n == "c.txt");
         }},
        {"*.log;*.tmp", "", "", [&](const std::string &p) { return !ends(p, ".log") && !ends(p, ".tmp"); }},
        {at("sub/c.txt"), "", "", [&](const std::string &p) { return p != at("sub/c.txt"); }},
        {at("sub") + S + "*.log", "", "", [&](const std::string &p) { return p != at("sub/d.log"); }},
        // A path among the file filters names that file alone: a folder's path keeps its files.
        {at("sub"), "", "", [&](const std::string &) { return true; }},
        {at("SUB/C.TXT"), "", "", [&](const std::string &p) { return p != at("sub/c.txt"); }},
        {"", "", at("sub/c.txt"), [&](const std::string &p) { return is_dir(p) || p == at("sub/c.txt"); }},
        {"regex:sub" + rsep + "deep" + rsep, "", "",
         [&](const std::string &p) { return p != at("sub/deep/e.txt"); }},
        {"", "skip", "", [&](const std::string &p) { return !under(p, "Skip"); }},
        {"", "c*", "", [&](const std::string &p) { return !under(p, "cache"); }},
        {"", at("sub/deep"), "", [&](const std::string &p) { return !under(p, "sub/deep"); }},
        {"", "regex:^s", "", [&](const std::string &p) { return !under(p, "sub") && !under(p, "Skip"); }},
        {"", "", "*.txt", [&](const std::string &p) { return is_dir(p) || ends(lower(p), ".txt"); }},
        {"a.txt", "", "*.txt",
         [&](const std::string &p) {
             return is_dir(p) || (ends(lower(p), ".txt") && name_of(p) != "a.txt");
         }},
        {"", "sub;cache", "*.log",
         [&](const std::string &p) {
             return !under(p, "sub") && !under(p, "cache") && (is_dir(p) || ends(p, ".log"));
         }},
    };
    for (auto &c : cases) {
        std::vector<listed_t> got = create(c.files.c_str(), c.folders.c_str(), c.include.c_str());
        EXPECT_EQ(paths_of(got), on_disk_where(c.keep))
            << "files " << c.files << " folders " << c.folders << " include " << c.include;
    }
}

TEST_F(CreateTest, FilterKindsOnNamesAndPaths) {
    text_init_tables();
    void *md = db_exclude_match_data_create();
    std::string S(1, OS_SEP);
    std::string dir = S + "data" + S + "Sub";
    struct {
        std::string filter;
        std::string path; // the name is its last component
        bool match;
    } cases[] = {
        {"readme", dir + S + "README", true},                   // a name, folded
        {"readme", dir + S + "readme.txt", false},              // the whole name
        {"re*me", dir + S + "ReadMe", true},                    // a wildcard on the name
        {"r?adme", dir + S + "readme", true},                   //
        {"*.TXT", dir + S + "a.txt", true},                     //
        {"sub", dir, true},                                     // a folder's name
        {dir, dir, true},                                       // a path, equal
        {S + "data" + S + "sub", dir, true},                    // folded
        {S + "data" + S + "su", dir, false},                    // not a prefix of a name
        {dir, dir + S + "readme", false},                       // the path of one item, not of all below
        {S + "DATA", dir, false},                               //
        {dir + S + "RÉSUMÉ.TXT", dir + S + "résumé.txt", true}, // folded beyond ASCII too
        {"ÉTÉ", dir + S + "été", true},                         // and so is a name
        {S + "data" + S + "*" + S + "x", dir + S + "x", true},  // a wildcard on the path
        {"*" + S + "x", dir + S + "y", false},                  //
        {"regex:^rea", dir + S + "Readme", true},               // a regular expression, folded
        {"regex:^data", dir + S + "datafile", true},            // on the name alone
        {"regex:^sub", dir + S + "file", false},                // the name, not the path
        {"regex:Sub" + std::string(OS_SEP == '\\' ? "\\\\" : "/") + "f", dir + S + "file", true},
        {"a;b;;readme", dir + S + "README", true}, // a list; empty items are nothing
        {"a;b", dir + S + "README", false},        //
        {"", dir + S + "README", false},           // no filter matches nothing
    };
    for (auto &c : cases) {
        filelist_filter_t f;
        filelist_filter_init(&f, c.filter.c_str());
        std::string name = name_of(c.path);
        EXPECT_EQ(filelist_filter_match(&f, md, name.data(), (uint32_t) name.size(), c.path.data(),
                                        (uint32_t) c.path.size()),
                  c.match)
            << c.filter << " on " << c.path;
        filelist_filter_kill(&f);
    }
    db_exclude_match_data_destroy(md);
}

TEST_F(CreateTest, RelativePathsWhenTheListLiesAboveEveryItem) {
    file("one/two.txt", "2");
    file("three.txt", "3");
    std::string inside = at("list.swl");
    // A sibling of the tree: the tree does not lie below its folder.
    fs::create_directories(u8p(scratch + OS_SEP_STR + "lists"));
    std::string outside = scratch + OS_SEP_STR + "lists" + OS_SEP_STR + "apart.swl";
    std::set<std::string> want = on_disk();

    file_list_relative_paths = 1;
    ASSERT_TRUE(filelist_create(outside.c_str(), top.c_str(), nullptr, nullptr, nullptr));
    ASSERT_TRUE(filelist_create(inside.c_str(), top.c_str(), nullptr, nullptr, nullptr));
    file_list_relative_paths = 0;

    std::string text = read_file(inside);
    EXPECT_EQ(text.find(in_quotes(top).substr(0, top.size() + 1)), std::string::npos)
        << "rows below the list are relative:\n"
        << text;
    EXPECT_NE(text.find("\"one" + std::string(1, OS_SEP) + "two.txt\""), std::string::npos) << text;
    EXPECT_EQ(paths_of(read_back(inside)), want); // written after the walk, it never lists itself

    // The tree isn't below the second list's folder: every row keeps its full path.
    std::string apart = read_file(outside);
    EXPECT_NE(apart.find(in_quotes(at("one/two.txt"))), std::string::npos) << apart;
    EXPECT_EQ(paths_of(read_back(outside)), want);

    // With the setting off, a list beside its items is written with full paths too.
    std::string off = at("off.swl");
    ASSERT_TRUE(filelist_create(off.c_str(), top.c_str(), nullptr, nullptr, nullptr));
    EXPECT_NE(read_file(off).find(in_quotes(at("three.txt"))), std::string::npos);
}

TEST_F(CreateTest, FailuresWriteNothing) {
    std::string lp = list_path();
    EXPECT_FALSE(filelist_create(lp.c_str(), at("missing").c_str(), nullptr, nullptr, nullptr));
    EXPECT_FALSE(os_file_exists(lp.c_str()));
    std::string nowhere = scratch + OS_SEP_STR + "no such folder" + OS_SEP_STR + "x.swl";
    EXPECT_FALSE(filelist_create(nowhere.c_str(), top.c_str(), nullptr, nullptr, nullptr));
    // An empty tree is a list of its header alone.
    ASSERT_TRUE(filelist_create(lp.c_str(), top.c_str(), nullptr, nullptr, nullptr));
    EXPECT_EQ(read_file(lp), FILELIST_HEADER);
}

#ifndef _WIN32
TEST_F(CreateTest, LinksAreListedNeverEntered) {
    file("real/inside.txt");
    // A link back up the tree would make a walk that follows links endless.
    fs::create_directory_symlink(u8p(top), u8p(at("loop")));
    fs::create_symlink(u8p(at("real/inside.txt")), u8p(at("file link")));
    std::vector<listed_t> got = create(nullptr, nullptr, nullptr);
    EXPECT_EQ(paths_of(got), on_disk());
    for (const listed_t &l : got) {
        if (l.path == at("loop") || l.path == at("file link")) {
            EXPECT_TRUE(l.fd.attributes & OS_ATTR_REPARSE_POINT) << l.path;
            EXPECT_FALSE(l.folder) << l.path;
        }
    }
}
#endif
