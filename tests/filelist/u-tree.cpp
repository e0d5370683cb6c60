// The tree step: implied folders, the separator-first order that keeps a folder's contents together,
// duplicates, server paths and both platforms' separators; then a generated list of 100,000 rows checked
// against a model of the folders and files it must give.
#include "filelist_test.h"

#include <algorithm>
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
