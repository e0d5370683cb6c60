// The folder scan against an outside oracle: a tree made here, with names in several scripts, hidden
// files, empty folders, symbolic links and 50,000 files, must list exactly what find lists (paths,
// types, sizes, modification times to the tick). Under Wine, where there is no find, the oracle is the
// tree as the test made it. Then the excludes: what they drop, they drop with everything below.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "folder/folder.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_dir.h"
#include "os/os_main.h"

namespace fs = std::filesystem;

struct entry_t {
    char type; // 'f', 'd' or 'l'
    uint64_t size;
    uint64_t mtime; // FILETIME; 0 when the oracle doesn't say
    uint32_t attributes;
};

static std::string join(const std::string &a, const std::string &b) {
    return a + OS_SEP_STR + b;
}

// prefix followed by the number (built by appending: mingw's optimiser misreads "x" + std::string).
static std::string numbered(const char *prefix, int i) {
    std::string s = prefix;
    s += std::to_string(i);
    return s;
}

static void write_file(const std::string &path, size_t size) {
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID) << path;
    std::string bytes(size, 'x');
    os_file_write(f, bytes.data(), bytes.size());
    os_file_close(f);
}

class FolderScan : public ::testing::Test {
  protected:
    std::string root;
    std::map<std::string, entry_t> made; // relative path -> what the test made
    int file_total = 0;

    void SetUp() override {
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        root = join(tmp.ptr, "sw-scan-" + std::to_string(os_counter()));
        str_kill(&tmp);
        ASSERT_TRUE(os_folder_create(root.c_str()));
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(fs::path(root), ec);
    }

    void folder(const std::string &rel) {
        ASSERT_TRUE(os_folder_create(join(root, rel).c_str())) << rel;
        made[rel] = {'d', 0, 0, 0};
    }
    void file(const std::string &rel, size_t size) {
        write_file(join(root, rel), size);
        made[rel] = {'f', size, 0, 0};
        file_total++;
    }

    // Names in several scripts, hidden names, empty folders, then many files in a few folders.
    void make_tree(int many) {
        const char *names[] = {
            "plain",      "\xC3\xA4rger", "\xE6\x97\xA5\xE6\x9C\xAC", "\xD0\xBF\xD1\x80\xD0\xB8",
            "with space", "x.tar.gz"};
        for (const char *n : names) {
            folder(n);
            file(join(n, std::string("f-") + n), strlen(n));
            folder(join(n, "empty"));
        }
        folder("deep");
        std::string d = "deep";
        for (int i = 0; i < 30; i++) {
            d = join(d, numbered("l", i));
            folder(d);
        }
        file(join(d, "bottom"), 3);
        folder("skipme");
        file(join("skipme", "inside"), 1);
        file(".hidden-file", 7);
        folder(".hidden-dir");
        file(join(".hidden-dir", "visible-name"), 2);
        int per = 500;
        for (int b = 0; b * per < many; b++) {
            std::string dir = numbered("bulk", b);
            folder(dir);
            for (int i = 0; i < per && b * per + i < many; i++) {
                file(join(dir, numbered("n", i)), (size_t) (i % 97));
            }
        }
    }

    // The result as it lies: each list in order, an item as its path, link flag and details.
    std::string dump(const scan_options_t &options) {
        scan_result_t r;
        scan_result_init(&r);
        EXPECT_TRUE(folder_scan(root.c_str(), &options, &r));
        std::string out;
        str_t p;
        str_init(&p);
        for (int list = 0; list < 2; list++) {
            for (scan_item_t *it = list ? r.files_first : r.folders_first; it; it = it->next) {
                scan_item_path(it, &p);
                // Not the access date: listing a folder is an access, so the first scan changes it.
                char d[160];
                snprintf(d, sizeof(d), " %d %llu %llu %llu %x\n", it->link ? 1 : 0,
                         (unsigned long long) it->fd.size, (unsigned long long) it->fd.date_modified,
                         (unsigned long long) it->fd.date_created, it->fd.attributes);
                out += std::string(p.ptr, (size_t) p.len) + d;
            }
            out += "--\n";
        }
        str_kill(&p);
        scan_result_kill(&r);
        return out;
    }

    // The scan as relative path -> entry.
    std::map<std::string, entry_t> scan(const scan_options_t &options, bool *ok = nullptr) {
        scan_result_t r;
        scan_result_init(&r);
        bool done = folder_scan((root + OS_SEP_STR).c_str(), &options, &r);
        if (ok) {
            *ok = done;
        }
        std::map<std::string, entry_t> out;
        str_t p;
        str_init(&p);
        uint32_t folders = 0, files = 0;
        for (int list = 0; list < 2; list++) {
            for (scan_item_t *it = list ? r.files_first : r.folders_first; it; it = it->next) {
                scan_item_path(it, &p);
                std::string full(p.ptr, (size_t) p.len);
                EXPECT_EQ(full.compare(0, root.size() + 1, root + OS_SEP_STR), 0) << full;
                std::string rel = full.substr(root.size() + 1);
                uint32_t a = it->fd.attributes;
                char type = (a & OS_ATTR_REPARSE_POINT) ? 'l' : (a & OS_ATTR_DIRECTORY) ? 'd' : 'f';
                EXPECT_EQ(list == 0, (a & OS_ATTR_DIRECTORY) != 0) << rel;
                EXPECT_TRUE(out.emplace(rel, entry_t{type, it->fd.size, it->fd.date_modified, a}).second)
                    << rel;
                (list ? files : folders)++;
            }
        }
        EXPECT_EQ(folders, r.folder_count);
        EXPECT_EQ(files, r.file_count);
        str_kill(&p);
        scan_result_kill(&r);
        return out;
    }
};

#ifndef _WIN32
// find's view: "-printf '%y %s %T@ %P\0'" through a shell that writes it to a file.
static std::map<std::string, entry_t> find_oracle(const std::string &root) {
    std::string out = root + ".find";
    std::string cmd = "find '" + root + "' -mindepth 1 -printf '%y %s %T@ %P\\0' > '" + out + "'";
    const char *args[] = {"-c", cmd.c_str()};
    os_process_t *p = os_process_start("/bin/sh", args, 2);
    EXPECT_NE(p, nullptr);
    int code = -1;
    EXPECT_TRUE(p && os_process_wait(p, 120000, &code));
    EXPECT_EQ(code, 0);
    os_process_destroy(p);
    std::string text;
    os_file_t f = os_file_open(out.c_str(), OS_OPEN_READ);
    char buf[65536];
    int64_t n;
    while ((n = os_file_read(f, buf, sizeof(buf))) > 0) {
        text.append(buf, (size_t) n);
    }
    os_file_close(f);
    os_file_delete(out.c_str());
    std::map<std::string, entry_t> m;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\0', pos);
        std::string rec = text.substr(pos, end - pos);
        pos = end + 1;
        char type = rec[0];
        size_t s1 = rec.find(' ', 2);
        size_t s2 = rec.find(' ', s1 + 1);
        uint64_t size = std::stoull(rec.substr(2, s1 - 2));
        std::string t = rec.substr(s1 + 1, s2 - s1 - 1);
        size_t dot = t.find('.');
        uint64_t sec = std::stoull(t.substr(0, dot));
        std::string frac = dot == std::string::npos ? "" : t.substr(dot + 1);
        frac = (frac + "0000000").substr(0, 7);
        uint64_t ft = (sec + 11644473600ull) * 10000000ull + std::stoull(frac);
        m[rec.substr(s2 + 1)] = {type, type == 'd' ? 0 : size, ft, 0};
    }
    return m;
}
#endif

TEST_F(FolderScan, ListsWhatTheOracleLists) {
#ifdef _WIN32
    const int many = 5000; // every file made under Wine costs several system calls
#else
    const int many = 50000;
#endif
    uint64_t before = os_filetime_now() - 20000000; // file systems round times to up to two seconds
    make_tree(many);
    uint64_t after = os_filetime_now() + 20000000;
#ifdef _WIN32
    ASSERT_TRUE(os_set_file_attributes(join(root, ".hidden-file").c_str(), OS_ATTR_HIDDEN));
    std::map<std::string, entry_t> want = made;
#else
    // Links are listed as what they are and never followed, dangling or not.
    fs::create_symlink("plain", fs::path(join(root, "link-to-dir")));
    fs::create_symlink("nowhere", fs::path(join(root, "dangling")));
    fs::create_symlink(join(root, "deep"), fs::path(join(root, join("plain", "loop"))));
    std::map<std::string, entry_t> want = find_oracle(root);
    EXPECT_EQ(want.size(), made.size() + 3);
#endif
    // Listed by more threads than the machine has processors, so that listings really overtake each other.
    scan_options_t options = {};
    options.threads = 8;
    bool ok = false;
    std::map<std::string, entry_t> got = scan(options, &ok);
    EXPECT_TRUE(ok);
    ASSERT_EQ(got.size(), want.size());
    for (auto &w : want) {
        auto g = got.find(w.first);
        ASSERT_NE(g, got.end()) << "missing " << w.first;
        EXPECT_EQ(g->second.type, w.second.type) << w.first;
        EXPECT_EQ(g->second.size, w.second.size) << w.first;
        if (w.second.mtime) {
            EXPECT_EQ(g->second.mtime, w.second.mtime) << w.first;
        } else if (w.second.type == 'f') {
            // Without an oracle for times: the file was written during this test.
            EXPECT_GE(g->second.mtime, before) << w.first;
            EXPECT_LE(g->second.mtime, after) << w.first;
        }
    }
    // Attribute mapping: folders, hidden names, links.
    EXPECT_EQ(got["plain"].attributes & (OS_ATTR_DIRECTORY | OS_ATTR_HIDDEN), (uint32_t) OS_ATTR_DIRECTORY);
    EXPECT_TRUE(got[".hidden-file"].attributes & OS_ATTR_HIDDEN);
    EXPECT_FALSE(got[".hidden-file"].attributes & OS_ATTR_DIRECTORY);
#ifndef _WIN32
    EXPECT_EQ(got["link-to-dir"].attributes, (uint32_t) OS_ATTR_REPARSE_POINT);
    EXPECT_TRUE(got[".hidden-dir"].attributes & OS_ATTR_HIDDEN);
    EXPECT_EQ(got["plain"].attributes & OS_ATTR_ARCHIVE, 0u);
    EXPECT_TRUE(got[join("plain", "f-plain")].attributes & OS_ATTR_ARCHIVE);
#endif
}

static bool exclude_skipme(void *ctx, const char *path, size_t path_len, const char *name, size_t name_len,
                           const os_file_info_t *, bool folder) {
    int *calls = (int *) ctx;
    (*calls)++;
    // The name is the tail of the path it is given with.
    EXPECT_EQ(name + name_len, path + path_len);
    EXPECT_EQ(strlen(path), path_len);
    return (folder && name_len == 6 && memcmp(name, "skipme", 6) == 0) ||
           (!folder && name_len == 5 && memcmp(name, "n1", 2) == 0);
}

TEST_F(FolderScan, ExcludesDropWholeSubtrees) {
    make_tree(600);
#ifdef _WIN32
    ASSERT_TRUE(
        os_set_file_attributes(join(root, ".hidden-dir").c_str(), OS_ATTR_HIDDEN | OS_ATTR_DIRECTORY));
    ASSERT_TRUE(os_set_file_attributes(join(root, ".hidden-file").c_str(), OS_ATTR_HIDDEN));
#endif
    int calls = 0;
    scan_options_t options = {true, false, exclude_skipme, &calls, 4};
    std::map<std::string, entry_t> got = scan(options);
    EXPECT_GT(calls, 600);
    size_t expected = 0;
    for (auto &m : made) {
        const std::string &rel = m.first;
        bool gone = rel.compare(0, 6, "skipme") == 0 || rel.compare(0, 7, ".hidden") == 0 ||
                    (m.second.type == 'f' && rel.size() > 5 && rel.compare(rel.size() - 5, 3, "n1") == 0 &&
                     rel[rel.size() - 6] == OS_SEP);
        EXPECT_EQ(got.count(rel), gone ? 0u : 1u) << rel;
        expected += gone ? 0 : 1;
    }
    EXPECT_EQ(got.size(), expected);
}

TEST_F(FolderScan, FolderLinksAreFoldersToTheExcludesAndAreNeverEntered) {
    folder("target");
    file(join("target", "inside"), 1);
    std::error_code ec;
    fs::create_directory_symlink(join(root, "target"), join(root, "skipme"), ec);
    if (!ec)
        fs::create_directory_symlink(join(root, "target"), join(root, "kept"), ec);
    if (ec)
        GTEST_SKIP() << "no folder links here: " << ec.message();
    // What the platform says of a folder link decides what the scan must make of it: a junction or
    // folder link on Windows carries the folder bit, a Linux link is a link and nothing else.
    bool folder_bit = false;
    os_dir_t *d = os_dir_open(root.c_str());
    ASSERT_NE(d, nullptr);
    os_dir_entry_t e;
    while (os_dir_next(d, &e))
        if (std::string(e.name) == "kept") {
            EXPECT_TRUE(e.is_link);
            folder_bit = (e.info.attributes & OS_ATTR_DIRECTORY) != 0;
        }
    os_dir_close(d);
    int calls = 0;
    scan_options_t options = {false, false, exclude_skipme, &calls};
    std::map<std::string, entry_t> got = scan(options);
    EXPECT_EQ(got.count(join("target", "inside")), 1u);
    EXPECT_EQ(got.count(join("kept", "inside")), 0u) << "a link was entered";
    EXPECT_EQ(got.count(join("skipme", "inside")), 0u) << "a link was entered";
    ASSERT_EQ(got.count("kept"), 1u);
    EXPECT_EQ((got["kept"].attributes & OS_ATTR_DIRECTORY) != 0, folder_bit);
    // Excluded as a folder when it is one; a plain link is no folder to the folder excludes.
    EXPECT_EQ(got.count("skipme"), folder_bit ? 0u : 1u);
}

TEST_F(FolderScan, UnreadableTopGivesEmptyResult) {
    scan_result_t r;
    scan_result_init(&r);
    scan_options_t options = {};
    EXPECT_FALSE(folder_scan(join(root, "missing").c_str(), &options, &r));
    EXPECT_EQ(r.root, nullptr);
    EXPECT_EQ(r.files_first, nullptr);
    scan_result_kill(&r);
    // An empty folder scans to its root alone.
    scan_result_init(&r);
    EXPECT_TRUE(folder_scan(root.c_str(), &options, &r));
    ASSERT_NE(r.root, nullptr);
    EXPECT_EQ(std::string(r.root->name), root);
    EXPECT_EQ(r.folder_count + r.file_count, 0u);
    scan_result_kill(&r);
}

// Whatever the number of threads, the same items in the same order with the same details, and the exclude
// test asked the same questions: the index built from a scan must not depend on the machine it runs on.
// Many small folders, so that the workers and the delivering thread pass each other often.
TEST_F(FolderScan, ResultIsTheSameWhateverTheThreadCount) {
    make_tree(3000);
    for (int i = 0; i < 200; i++) {
        std::string d = numbered("spread", i % 20);
        if (i < 20)
            folder(d);
        folder(join(d, numbered("s", i)));
        file(join(join(d, numbered("s", i)), "leaf"), (size_t) i);
    }
    std::string one;
    int one_calls = 0;
    for (uint32_t threads : {1u, 2u, 8u, 1u}) {
        int calls = 0;
        scan_options_t options = {true, false, exclude_skipme, &calls, threads};
        std::string got = dump(options);
        if (one.empty()) {
            one = got;
            one_calls = calls;
            // Everything made, less what the excludes drop, plus the two list ends.
            EXPECT_GT(std::count(one.begin(), one.end(), '\n'), 3000);
            continue;
        }
        EXPECT_TRUE(got == one) << threads << " threads";
        EXPECT_EQ(calls, one_calls) << threads << " threads";
    }
}

// The streamed scan delivers each item after the folder that holds it, with that folder's tag, and the
// items of one folder together, on the calling thread.
struct stream_check_t {
    std::map<uintptr_t, std::string> folders; // tag -> path
    std::string last_parent_path;
    std::set<uintptr_t> finished; // folders whose items have all been delivered
    uintptr_t current = 0;
    uintptr_t next_tag = 1;
    uint32_t thread = 0;
    size_t items = 0;
    bool ok = true;
};

static uintptr_t stream_proc(void *ctx, uintptr_t parent, bool folder, bool link, const char *name,
                             uint32_t len, const os_file_info_t *) {
    stream_check_t *c = (stream_check_t *) ctx;
    c->items++;
    if (os_thread_id() != c->thread || (parent && !c->folders.count(parent)) || c->finished.count(parent) ||
        strlen(name) != len || (link && !folder))
        c->ok = false;
    if (parent != c->current) {
        c->finished.insert(c->current);
        c->current = parent;
    }
    if (!folder)
        return 0;
    uintptr_t tag = c->next_tag++;
    c->folders[tag] = (parent ? c->folders[parent] : std::string()) + "/" + name;
    return tag;
}

TEST_F(FolderScan, StreamDeliversParentsFirstAndEachFolderTogether) {
    make_tree(2000);
    stream_check_t c;
    c.thread = os_thread_id();
    scan_options_t options = {};
    options.threads = 8;
    os_file_info_t top;
    ASSERT_TRUE(folder_scan_each(root.c_str(), &options, &top, stream_proc, &c));
    EXPECT_TRUE(c.ok);
    EXPECT_EQ(c.items, made.size());
    EXPECT_TRUE(top.attributes & OS_ATTR_DIRECTORY);
    EXPECT_EQ(top.size, 0u);
    EXPECT_FALSE(folder_scan_each(join(root, "missing").c_str(), &options, &top, stream_proc, &c));
}
