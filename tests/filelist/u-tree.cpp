// The tree step: implied folders, the separator-first order that keeps a folder's contents together,
// duplicates, server paths and both platforms' separators; then a generated list of 100,000 rows checked
// against a model of the folders and files it must give.
#include "filelist_test.h"

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>

using V = std::vector<std::string>;

TEST(FilelistTree, ImpliedFoldersOfOneRow) {
    auto nodes = tree_of_text("Filename,Size\nC:\\a\\b\\c.txt,5\n", "D:\\l", '\\');
    EXPECT_EQ(tree_lines(nodes), (V{"I C:", "I C:\\a", "I C:\\a\\b", "F C:\\a\\b\\c.txt"}));
    for (const tree_node &n : nodes) {
        if (n.kind == FILELIST_IMPLIED_FOLDER) {
            EXPECT_EQ(n.fd.attributes, 16u);
            EXPECT_EQ(n.fd.size, 0u);
            EXPECT_EQ(n.fd.date_modified, UINT64_MAX);
            EXPECT_EQ(n.fd.date_created, UINT64_MAX);
            EXPECT_EQ(n.fd.date_accessed, UINT64_MAX);
        }
    }
    EXPECT_EQ(nodes[3].fd.size, 5u);
    EXPECT_EQ(nodes[3].parent, 3u);
}

TEST(FilelistTree, TrailingSeparatorMakesOnlyItsFolders) {
    // The row's own values are lost: the leaf after the last separator is empty.
    auto nodes = tree_of_text("Filename,Attributes,Date Modified\nC:\\a\\,16,77\n", "D:\\l", '\\');
    EXPECT_EQ(tree_lines(nodes), (V{"I C:", "I C:\\a"}));
    EXPECT_EQ(nodes[1].fd.date_modified, UINT64_MAX);
}

TEST(FilelistTree, SeparatorSortsFirstSoContentsStayTogether) {
    // Byte order alone would put "a b" and "a!x" (both below '\') between a and its contents.
    auto nodes = tree_of_text("Filename,Attributes\n"
                              "C:\\a\\z,32\nC:\\a!x,32\nC:\\a b,16\nC:\\a\\b,32\nC:\\a,16\nC:\\a b\\c,32\n",
                              "D:\\l", '\\');
    EXPECT_EQ(tree_lines(nodes),
              (V{"I C:", "D C:\\a", "F C:\\a\\b", "F C:\\a\\z", "D C:\\a b", "F C:\\a b\\c", "F C:\\a!x"}));
    EXPECT_LT(filelist_path_compare("a\\b", 3, "a b", 3, '\\'), 0);
    EXPECT_LT(filelist_path_compare("a/b", 3, "a b", 3, '/'), 0);
    EXPECT_LT(filelist_path_compare("a", 1, "a\\", 2, '\\'), 0);
    EXPECT_GT(filelist_path_compare("a\xC3", 2, "a~", 2, '\\'), 0); // bytes unsigned
    EXPECT_EQ(filelist_path_compare("ab", 2, "ab", 2, '\\'), 0);
}

TEST(FilelistTree, DuplicatesCaseAndFileFolderClashesAreKept) {
    auto nodes = tree_of_text("Filename,Attributes\n"
                              "C:\\x,32\nC:\\x,32\n"           // same path twice: two records
                              "C:\\Dir\\f,32\nC:\\dir\\f,32\n" // case differs: two folders
                              "C:\\k,32\nC:\\k\\in,32\n",      // a file and a folder of one name
                              "D:\\l", '\\');
    auto lines = tree_lines(nodes);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (V{"F C:\\Dir\\f", "F C:\\dir\\f", "F C:\\k", "F C:\\k\\in", "F C:\\x", "F C:\\x",
                        "I C:", "I C:\\Dir", "I C:\\dir", "I C:\\k"}));
}

TEST(FilelistTree, ServerPathsAndLinuxRoots) {
    EXPECT_EQ(tree_lines(tree_of_text("Filename\n\\\\srv\\share\\f\n", "D:\\l", '\\')),
              (V{"I srv", "I srv\\share", "F srv\\share\\f"}));
    // The Linux root is a folder with an empty name, so full paths come out as "/usr/bin/ls".
    EXPECT_EQ(tree_lines(tree_of_text("Filename\n/usr/bin/ls\n/ls\n", "/home", '/')),
              (V{"I ", "F /ls", "I /usr", "I /usr/bin", "F /usr/bin/ls"}));
    // A Windows list read on Linux, and a Linux list read on Windows.
    EXPECT_EQ(tree_lines(tree_of_text("Filename\nC:\\a\\b.txt\n", "/home", '/')),
              (V{"I C:", "I C:/a", "F C:/a/b.txt"}));
    EXPECT_EQ(tree_lines(tree_of_text("Filename\n/etc/x\n", "D:\\l", '\\')),
              (V{"I ", "I \\etc", "F \\etc\\x"}));
}

TEST(FilelistTree, HiddenRowsMakeNoImpliedFolders) {
    std::string text = "Filename,Attributes\nC:\\h\\secret,2\nC:\\v\\shown,32\nC:\\v\\hid,2\n";
    EXPECT_EQ(tree_lines(tree_of_text(text, "D:\\l", '\\', {true, false})),
              (V{"I C:", "I C:\\v", "F C:\\v\\shown"}));
    EXPECT_EQ(tree_of_text(text, "D:\\l", '\\').size(), 6u);
}

// ---- the generated list --------------------------------------------------------------------------------

// Names are drawn from a small set so that paths share long prefixes, with bytes below and above the
// separator, case variants and multi-byte text.
static const char *const kNames[] = {"a",        "a b",          "a!",  "A", "a.b", "ab",  "b",
                                     "\xC3\xA4", "\xE6\x97\xA5", "z-1", "z", "a~",  "[x]", "Z"};

struct model_row {
    std::string path; // resolved, with the list's separator
    bool folder;
    bool hidden;
    os_file_info_t fd;
};

static void check_generated_list(char sep, int rows_wanted, uint32_t seed) {
    std::mt19937 rng(seed);
    const std::string top = sep == '\\' ? "C:" : "";
    const std::string base = top + sep + "lists";
    // Folders first, as a growing tree; then files placed in random folders.
    std::vector<std::string> folders = {top + sep + "lists"};
    std::set<std::string> taken(folders.begin(), folders.end());
    std::vector<model_row> rows;
    auto new_child = [&](const std::string &parent) {
        for (int attempt = 0;; attempt++) {
            std::string name = kNames[rng() % (sizeof(kNames) / sizeof(kNames[0]))];
            // Mostly a few shared names; a folder that has run out of them takes fresh numbers.
            name += std::to_string(attempt < 4 ? rng() % 50 : 50 + rng() % 1000000);
            std::string p = parent + sep + name;
            if (taken.insert(p).second) {
                return p;
            }
        }
    };
    while ((int) rows.size() < rows_wanted) {
        bool make_folder = rng() % 5 == 0 || folders.size() < 20;
        const std::string &parent = rng() % 8 == 0 ? folders[0] : folders[rng() % folders.size()];
        model_row r;
        r.path = new_child(parent.size() > 400 ? folders[0] : parent);
        r.folder = make_folder;
        r.hidden = rng() % 10 == 0;
        r.fd.size = r.folder ? 0 : rng() % 100000;
        r.fd.date_modified = 130000000000000000ull + rng();
        r.fd.date_created = rng() % 3 ? 120000000000000000ull + rng() : UINT64_MAX;
        r.fd.date_accessed = UINT64_MAX;
        r.fd.attributes = (r.folder ? 16u : 32u) | (r.hidden ? 2u : 0u);
        if (make_folder) {
            folders.push_back(r.path);
        }
        // A folder may also be named only through its contents: leave some folders out of the list.
        if (!make_folder || rng() % 3) {
            rows.push_back(r);
        }
    }
    std::shuffle(rows.begin(), rows.end(), rng);

    std::string text = "Size,Filename,Date Modified,Date Created,Attributes\r\n";
    for (const model_row &r : rows) {
        std::string written = r.path;
        // Some rows under the list's folder are written relative to it.
        if (written.compare(0, base.size() + 1, base + sep) == 0 && rng() % 2) {
            written = written.substr(base.size() + 1);
        }
        text += (r.folder ? std::to_string(rng() % 999) : std::to_string(r.fd.size)) + ",\"" + written +
                "\"," + std::to_string(r.fd.date_modified) + "," +
                (r.fd.date_created == UINT64_MAX ? "" : std::to_string(r.fd.date_created)) + "," +
                std::to_string(r.fd.attributes) + "\r\n";
    }

    // The model: every accepted row, and every folder above one, exactly once.
    std::map<std::string, const model_row *> files, named;
    std::set<std::string> all_folders;
    for (const model_row &r : rows) {
        if (r.hidden) {
            continue;
        }
        (r.folder ? named : files)[r.path] = &r;
        if (r.folder) {
            all_folders.insert(r.path);
        }
        for (size_t k = r.path.find(sep, 0); k != std::string::npos; k = r.path.find(sep, k + 1)) {
            all_folders.insert(r.path.substr(0, k));
        }
    }

    filelist_t list;
    filelist_init(&list, sep);
    ASSERT_EQ(read_list_text(&list, text, base.c_str(), {true, false}), FILELIST_OK);
    tree_record rec;
    rec.sep = sep;
    filelist_tree(&list, tree_record_proc, &rec);
    filelist_kill(&list);

    std::set<std::string> seen_folders, seen_files;
    for (const tree_node &n : rec.nodes) {
        std::string dir = n.parent ? rec.nodes[n.parent - 1].path : std::string();
        // A parent is always made before what it holds, and is a folder.
        ASSERT_TRUE(n.parent == 0 || rec.nodes[n.parent - 1].kind != FILELIST_FILE) << n.path;
        if (n.kind == FILELIST_FILE) {
            ASSERT_TRUE(seen_files.insert(n.path).second) << "file twice: " << n.path;
            auto it = files.find(n.path);
            ASSERT_NE(it, files.end()) << "unexpected file " << n.path;
            EXPECT_EQ(n.fd.size, it->second->fd.size);
            EXPECT_EQ(n.fd.date_modified, it->second->fd.date_modified);
            EXPECT_EQ(n.fd.date_created, it->second->fd.date_created);
            EXPECT_EQ(n.fd.attributes, it->second->fd.attributes);
        } else {
            ASSERT_TRUE(seen_folders.insert(n.path).second) << "folder twice: " << n.path;
            ASSERT_TRUE(all_folders.count(n.path)) << "unexpected folder " << n.path;
            auto it = named.find(n.path);
            EXPECT_EQ(n.kind == FILELIST_FOLDER, it != named.end()) << n.path;
            if (it != named.end()) {
                EXPECT_EQ(n.fd.size, 0u);
                EXPECT_EQ(n.fd.date_modified, it->second->fd.date_modified);
                EXPECT_EQ(n.fd.attributes, it->second->fd.attributes);
            }
        }
    }
    EXPECT_EQ(seen_files.size(), files.size());
    EXPECT_EQ(seen_folders, all_folders);
}

TEST(FilelistTree, GeneratedListMatchesModel) {
    check_generated_list(OS_SEP, 100000, 7);
    // The other platform's separator on a smaller list.
    check_generated_list(OS_SEP == '/' ? '\\' : '/', 20000, 11);
}

// ---- the tree while reading ----------------------------------------------------------------------------

namespace {

// Records what the streaming tree reports, applying the renames and moves as the index build does.
struct stream_record {
    std::vector<tree_node> nodes;
};

uintptr_t stream_proc(void *ctx, uintptr_t parent, filelist_kind_t kind, const char *name, uint32_t len,
                      const os_file_info_t *fd) {
    stream_record *r = (stream_record *) ctx;
    r->nodes.push_back({parent, kind, std::string(name, len), "", *fd});
    return r->nodes.size();
}

void stream_name(void *ctx, uintptr_t folder, const os_file_info_t *fd) {
    tree_node &n = ((stream_record *) ctx)->nodes[folder - 1];
    ASSERT_EQ(n.kind, FILELIST_IMPLIED_FOLDER);
    n.kind = FILELIST_FOLDER;
    n.fd = *fd;
}

void stream_move(void *ctx, uintptr_t from, uintptr_t to) {
    for (tree_node &n : ((stream_record *) ctx)->nodes)
        if (n.parent == from)
            n.parent = to;
}

std::vector<tree_node> stream_of_text(const std::string &text, const char *base, char sep,
                                      filelist_options_t options = {}) {
    stream_record r;
    filelist_sink_t sink = {stream_proc, stream_name, stream_move, &r};
    csv_t *csv = csv_open_memory(text.data(), text.size());
    filelist_read_tree_csv(csv, base, &options, &sink, sep);
    csv_close(csv);
    return r.nodes;
}

// What the index keeps of a tree: each record as its path, where every component carries its rank among
// the siblings of its kind with the same name in the order they came (the merge keeps the first of such
// twins and drops the others with all they hold), its kind (named or implied alike) and its details.
std::vector<std::string> canonical(const std::vector<tree_node> &nodes) {
    std::vector<int> twin(nodes.size());
    std::map<std::tuple<size_t, bool, std::string>, int> seen;
    for (size_t i = 0; i < nodes.size(); i++)
        twin[i] = seen[{nodes[i].parent, nodes[i].kind != FILELIST_FILE, nodes[i].name}]++;
    // A record may have moved under a folder made after it, so keys are made parent first.
    std::vector<std::string> key(nodes.size());
    std::function<const std::string &(size_t)> key_of = [&](size_t i) -> const std::string & {
        if (key[i].empty()) {
            const tree_node &n = nodes[i];
            key[i] = (n.parent ? key_of(n.parent - 1) + "|" : "") + n.name + "#" + std::to_string(twin[i]);
        }
        return key[i];
    };
    for (size_t i = 0; i < nodes.size(); i++)
        key_of(i);
    std::vector<std::string> out;
    for (size_t i = 0; i < nodes.size(); i++) {
        const tree_node &n = nodes[i];
        char details[160];
        snprintf(details, sizeof(details), " %llu %llu %llu %llu %u", (unsigned long long) n.fd.size,
                 (unsigned long long) n.fd.date_created, (unsigned long long) n.fd.date_modified,
                 (unsigned long long) n.fd.date_accessed, n.fd.attributes);
        out.push_back((n.kind == FILELIST_FILE ? "F " : "D ") + key[i] + details);
    }
    std::sort(out.begin(), out.end());
    return out;
}

// A list of paths over few names, so that rows repeat and part and rejoin: folders named twice, named
// after their contents, implied and named later, files and folders of one path, trailing separators,
// server paths, and names with bytes on both sides of the separator.
std::string clashing_list(std::mt19937 &rng, char sep, int rows, bool sorted) {
    static const char *const names[] = {"a", "a b", "a-b", "a.b", "A", "b", "\xC3\xA4", "a0"};
    std::vector<std::string> lines;
    for (int i = 0; i < rows; i++) {
        std::string p = rng() % 8 == 0 ? std::string(2, sep) + "srv" : (sep == '\\' ? "C:" : "");
        int depth = 1 + (int) (rng() % 4);
        for (int d = 0; d < depth; d++)
            p += sep + std::string(names[rng() % 8]);
        if (rng() % 16 == 0)
            p += sep;
        unsigned attributes = rng() % 3 == 0 ? 16 : 32;
        if (rng() % 20 == 0)
            attributes |= 2;
        // Distinct details, so that the test sees which row a record took them from.
        lines.push_back("\"" + p + "\"," + std::to_string(i) + "," + std::to_string(1000 + i) + "," +
                        std::to_string(attributes));
    }
    if (sorted)
        std::sort(lines.begin(), lines.end());
    std::string text = "Filename,Size,Date Modified,Attributes\n";
    for (const std::string &l : lines)
        text += l + "\n";
    return text;
}

} // namespace

TEST(FilelistStream, GivesTheTreeOfTheSortedWalk) {
    for (char sep : {'/', '\\'}) {
        const char *base = sep == '/' ? "/lists" : "D:\\lists";
        for (uint32_t seed = 1; seed <= 60; seed++) {
            std::mt19937 rng(seed);
            std::string text = clashing_list(rng, sep, 20 + (int) (seed * 7), seed % 2 == 0);
            filelist_options_t options = {seed % 3 == 0, false};
            std::vector<std::string> got = canonical(stream_of_text(text, base, sep, options));
            std::vector<std::string> want = canonical(tree_of_text(text, base, sep, options));
            std::vector<std::string> extra, missing;
            std::set_difference(got.begin(), got.end(), want.begin(), want.end(), std::back_inserter(extra));
            std::set_difference(want.begin(), want.end(), got.begin(), got.end(),
                                std::back_inserter(missing));
            ASSERT_TRUE(extra.empty() && missing.empty())
                << "separator " << sep << " seed " << seed << "\nonly streamed:\n"
                << ::testing::PrintToString(extra) << "\nonly walked:\n"
                << ::testing::PrintToString(missing) << "\n"
                << text;
        }
    }
}

TEST(FilelistStream, NamedTwiceMovesWhatTheFolderHoldsToTheLastName) {
    // The folder is implied by the first row, named by the second (same record, its details), named
    // again by the third (a record of its own, which takes over everything below the path).
    auto nodes = stream_of_text(
        "Filename,Size,Attributes\n/d/x,1,32\n/d,0,16\n/d/y,2,32\n/d,0,16\n/d/e/z,3,32\n", "/l", '/');
    ASSERT_EQ(nodes.size(), 7u);
    EXPECT_EQ(nodes[1].name, "d");
    EXPECT_EQ(nodes[1].kind, FILELIST_FOLDER);
    EXPECT_EQ(nodes[4].name, "d");
    for (const tree_node &n : nodes) {
        if (n.name == "x" || n.name == "y" || n.name == "e") {
            EXPECT_EQ(n.parent, 5u) << n.name;
        }
    }
}

TEST(FilelistStream, OpenFailureAndMissingFilenameReachNoSink) {
    stream_record r;
    filelist_sink_t sink = {stream_proc, stream_name, stream_move, &r};
    filelist_options_t options = {};
    EXPECT_EQ(filelist_read_tree("/nonexistent/sw-list.swl", &options, &sink), FILELIST_OPEN_FAILED);
    std::string text = "Name,Size\n/a/b,1\n";
    csv_t *csv = csv_open_memory(text.data(), text.size());
    EXPECT_EQ(filelist_read_tree_csv(csv, "/l", &options, &sink, '/'), FILELIST_NO_FILENAME);
    csv_close(csv);
    EXPECT_TRUE(r.nodes.empty());
}
