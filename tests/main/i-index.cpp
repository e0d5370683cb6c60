// The real program and its index file: a settings file names a file list and a folder, the program is
// started with "-reindex -update -exit" and must leave a database file that holds exactly what the two
// sources hold; a second start with -update only loads that file and saves it again unchanged.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "db/db.h"
#include "db/dbfile.h"
#include "filelist/filelist.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"
#include "program.h"

namespace {

int run_program(const std::vector<const char *> &args) {
    os_process_t *p = os_process_start(program_path().c_str(), args.data(), (int) args.size());
    if (!p)
        return -100;
    int code = -1;
    if (!os_process_wait(p, 120000, &code))
        code = -1;
    os_process_destroy(p);
    return code;
}

void write_text(const std::string &path, const std::string &text) {
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID) << path;
    ASSERT_EQ(os_file_write(f, text.data(), text.size()), (int64_t) text.size());
    os_file_close(f);
}

std::vector<char> read_all(const std::string &path) {
    std::vector<char> out;
    FILE *f = fopen(path.c_str(), "rb");
    if (!f)
        return out;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out.insert(out.end(), buf, buf + n);
    fclose(f);
    return out;
}

TEST(ProgramIndex, ReindexUpdateExitLeavesTheIndexFileAndALaterStartKeepsIt) {
    ASSERT_TRUE(os_file_exists(program_path().c_str())) << "build the sablewatch target first";
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string dir = std::string(tmp.ptr, (size_t) tmp.len) + OS_SEP_STR + "sw-index-" +
                      std::to_string(os_thread_id()) + "-" + std::to_string(os_tick_ms());
    str_kill(&tmp);
    ASSERT_TRUE(os_folder_create(dir.c_str()));
    std::string S = OS_SEP_STR;
    std::string tree = dir + S + "tree";
    ASSERT_TRUE(os_folder_create(tree.c_str()));
    ASSERT_TRUE(os_folder_create((tree + S + "sub").c_str()));
    write_text(tree + S + "sub" + S + "deep.txt", "x");
    write_text(tree + S + "top.bin", "yy");

    // List rows are relative to the list's folder, so the same list serves both platforms.
    std::string list = dir + S + "items.swl";
    write_text(list, "Filename,Size,Attributes\r\n\"listed" + S + "a.txt\",5,0\r\n\"listed" + S +
                         "b, c.txt\",7,0\r\n\"listed" + S + "empty\",,16\r\n");
    std::string ini = dir + S + "settings.ini";
    write_text(ini, "[Sablewatch]\r\nfilelists=" + list + "\r\nfilelist_monitor_changes=0\r\nfolders=" +
                        tree + "\r\nfolder_monitor_changes=0\r\ndb_location=" + dir + "\r\n");
    std::string instance = "itest-index-" + std::to_string(os_tick_ms());
    const char *inst = instance.c_str();

    ASSERT_EQ(run_program({"-instance", inst, "-config", ini.c_str(), "-reindex", "-update", "-exit"}), 0);

    // The file's name carries the instance; find it rather than restate the naming rule.
    std::string db_file;
    for (const char *suffix : {".db"}) {
        std::string candidate = dir + S + "Sablewatch-" + instance + suffix;
        if (os_file_exists(candidate.c_str()))
            db_file = candidate;
    }
    ASSERT_FALSE(db_file.empty()) << "no index file in " << dir;

    db_t *loaded = db_create(nullptr);
    ASSERT_TRUE(db_file_load(loaded, db_file.c_str(), false, nullptr));
    std::string L = dir + S + "listed";
    std::vector<std::string> want = {L,
                                     L + S + "a.txt",
                                     L + S + "b, c.txt",
                                     L + S + "empty",
                                     tree,
                                     tree + S + "sub",
                                     tree + S + "sub" + S + "deep.txt",
                                     tree + S + "top.bin"};
    std::vector<std::string> got = program_index_paths(loaded);
    // The list's implied folders above "listed" are records too; keep only what lies below the test folder.
    got.erase(std::remove_if(got.begin(), got.end(),
                             [&](const std::string &p) {
                                 return p.size() <= dir.size() || p.compare(0, dir.size(), dir) != 0;
                             }),
              got.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(got, want);
    db_destroy(loaded);

    // A second start loads the file; its -update save writes the same bytes back.
    std::vector<char> before = read_all(db_file);
    ASSERT_FALSE(before.empty());
    ASSERT_EQ(run_program({"-instance", inst, "-config", ini.c_str(), "-update", "-exit"}), 0);
    EXPECT_EQ(read_all(db_file), before);
}

// -create-file-list does its one job without taking the instance: a running instance doesn't stop it,
// and the list it leaves reads back as the tree minus what its filters exclude.
TEST(ProgramIndex, CreateFileListWritesTheFilteredTree) {
    ASSERT_TRUE(os_file_exists(program_path().c_str())) << "build the sablewatch target first";
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string S = OS_SEP_STR;
    std::string dir = std::string(tmp.ptr, (size_t) tmp.len) + S + "sw-cfl-" +
                      std::to_string(os_thread_id()) + "-" + std::to_string(os_tick_ms());
    str_kill(&tmp);
    std::string tree = dir + S + "tree";
    ASSERT_TRUE(os_folder_create_path((tree + S + "keep").c_str()));
    ASSERT_TRUE(os_folder_create_path((tree + S + "skip").c_str()));
    write_text(tree + S + "keep" + S + "a.txt", "a");
    write_text(tree + S + "keep" + S + "b.log", "b");
    write_text(tree + S + "skip" + S + "c.txt", "c");
    std::string list = dir + S + "out.swl";
    ASSERT_EQ(run_program({"-create-file-list", list.c_str(), tree.c_str(), "-create-file-list-exclude-files",
                           "*.log", "-create-file-list-exclude-folders", "skip"}),
              0);

    filelist_t fl;
    filelist_init(&fl);
    filelist_options_t options = {false, false};
    ASSERT_EQ(filelist_read(&fl, list.c_str(), &options), FILELIST_OK);
    std::vector<std::string> got;
    for (const filelist_item_t *it = fl.first; it; it = it->next)
        got.emplace_back(it->path, it->path_len);
    filelist_kill(&fl);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::string>{tree + S + "keep", tree + S + "keep" + S + "a.txt"}));

    // A folder that can't be listed is a failed run, and no list is left behind.
    std::string missing = dir + S + "none.swl";
    EXPECT_EQ(run_program({"-create-file-list", missing.c_str(), (dir + S + "no-such-folder").c_str()}), 1);
    EXPECT_FALSE(os_file_exists(missing.c_str()));
}

} // namespace
