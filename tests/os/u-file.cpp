// Files and folders against the real file system of a scratch folder.
#include "os_test_util.h"

#include <cstring>
#include <gtest/gtest.h>

#include "os/os_dir.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

TEST(OsFile, PositionalAndSequentialAccess) {
    os_test_folder dir;
    std::string p = dir.file("data.bin");
    os_file_t f = os_file_open(p.c_str(), OS_OPEN_READ | OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID);
    EXPECT_EQ(os_file_write(f, "hello world", 11), 11);
    // A write past the end leaves a hole of zeros.
    EXPECT_EQ(os_file_write_at(f, 100, "xyz", 3), 3);
    EXPECT_EQ(os_file_size(f), 103u);

    char buf[128] = {};
    EXPECT_EQ(os_file_read_at(f, 6, buf, 5), 5);
    EXPECT_EQ(std::string(buf, 5), "world");
    EXPECT_EQ(os_file_read_at(f, 11, buf, 89), 89);
    for (int i = 0; i < 89; i++) {
        ASSERT_EQ(buf[i], 0) << "hole byte " << i;
    }
    // A read that crosses the end returns what there is; one beyond it returns nothing.
    EXPECT_EQ(os_file_read_at(f, 101, buf, 10), 2);
    EXPECT_EQ(std::string(buf, 2), "yz");
    EXPECT_EQ(os_file_read_at(f, 500, buf, 10), 0);

    ASSERT_TRUE(os_file_seek(f, 4));
    EXPECT_EQ(os_file_read(f, buf, 3), 3);
    EXPECT_EQ(std::string(buf, 3), "o w");
    EXPECT_EQ(os_file_read(f, buf, 2), 2);
    EXPECT_EQ(std::string(buf, 2), "or");

    EXPECT_TRUE(os_file_flush(f));
    EXPECT_TRUE(os_file_truncate(f, 5));
    EXPECT_EQ(os_file_size(f), 5u);
    os_file_close(f);
    EXPECT_EQ(os_test_read_file(p), "hello");
}

TEST(OsFile, LargeBufferRoundTrip) {
    os_test_folder dir;
    std::string p = dir.file("big.bin");
    const size_t n = 3 * 1024 * 1024 + 17;
    std::string data(n, 0);
    for (size_t i = 0; i < n; i++) {
        data[i] = (char) (i * 2654435761u >> 13);
    }
    ASSERT_TRUE(os_test_write_file(p, data));
    os_file_t f = os_file_open(p.c_str(), OS_OPEN_READ);
    ASSERT_NE(f, OS_FILE_INVALID);
    std::string back(n + 100, 0);
    EXPECT_EQ(os_file_read(f, &back[0], n + 100), (int64_t) n);
    back.resize(n);
    EXPECT_TRUE(back == data);
    os_file_close(f);
}

TEST(OsFile, OpenModes) {
    os_test_folder dir;
    std::string p = dir.file("modes.txt");

    // Without CREATE a missing file is an error with a reason.
    EXPECT_EQ(os_file_open(p.c_str(), OS_OPEN_READ), OS_FILE_INVALID);
    EXPECT_NE(os_last_error(), 0u);
    str_t text;
    str_init(&text);
    os_error_text(os_last_error(), &text);
    EXPECT_GT(text.len, 0);
    str_kill(&text);

    ASSERT_TRUE(os_test_write_file(p, "0123456789"));
    // CREATE alone keeps what is there.
    os_file_t f = os_file_open(p.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE);
    ASSERT_NE(f, OS_FILE_INVALID);
    EXPECT_EQ(os_file_write(f, "ab", 2), 2);
    os_file_close(f);
    EXPECT_EQ(os_test_read_file(p), "ab23456789");

    // APPEND writes at the end even after a seek to the start.
    f = os_file_open(p.c_str(), OS_OPEN_WRITE | OS_OPEN_APPEND);
    ASSERT_NE(f, OS_FILE_INVALID);
    os_file_seek(f, 0);
    EXPECT_EQ(os_file_write(f, "XY", 2), 2);
    os_file_close(f);
    EXPECT_EQ(os_test_read_file(p), "ab23456789XY");

    // TRUNCATE empties an existing file.
    f = os_file_open(p.c_str(), OS_OPEN_WRITE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID);
    EXPECT_EQ(os_file_size(f), 0u);
    os_file_close(f);

    // A read-only handle refuses writes.
    f = os_file_open(p.c_str(), OS_OPEN_READ);
    ASSERT_NE(f, OS_FILE_INVALID);
    EXPECT_EQ(os_file_write(f, "z", 1), -1);
    os_file_close(f);

    // A folder is not a file.
    EXPECT_EQ(os_file_open(dir.path.c_str(), OS_OPEN_READ), OS_FILE_INVALID);
}

// A reader that shares everything stands in nobody's way: a writer that holds the file keeps writing, and
// the file can be renamed and deleted under the open reader.
TEST(OsFile, ShareAllLetsOthersWriteRenameAndDelete) {
    os_test_folder dir;
    std::string p = dir.file("shared.log"), moved = dir.file("moved.log");
    os_file_t writer = os_file_open(p.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_SHARE_READ);
    ASSERT_NE(writer, OS_FILE_INVALID);
    os_file_t reader = os_file_open(p.c_str(), OS_OPEN_READ | OS_OPEN_SHARE_ALL | OS_OPEN_SEQUENTIAL);
    ASSERT_NE(reader, OS_FILE_INVALID);
    EXPECT_EQ(os_file_write(writer, "line\n", 5), 5);
    char buf[16] = {};
    EXPECT_EQ(os_file_read(reader, buf, sizeof buf), 5);
    EXPECT_STREQ(buf, "line\n");
    os_file_close(writer);
    EXPECT_TRUE(os_file_rename(p.c_str(), moved.c_str()));
    EXPECT_TRUE(os_file_delete(moved.c_str()));
    os_file_close(reader);
    EXPECT_FALSE(os_file_exists(moved.c_str()));
}

TEST(OsFile, RenameAndDelete) {
    os_test_folder dir;
    std::string a = dir.file("a.txt"), b = dir.file("b.txt"), c = dir.file("c.txt");
    ASSERT_TRUE(os_test_write_file(a, "first"));
    ASSERT_TRUE(os_test_write_file(b, "second"));

    // The plain rename refuses to replace and leaves both files alone.
    EXPECT_FALSE(os_file_rename(a.c_str(), b.c_str()));
    EXPECT_EQ(os_test_read_file(a), "first");
    EXPECT_EQ(os_test_read_file(b), "second");

    EXPECT_TRUE(os_file_rename_over(a.c_str(), b.c_str()));
    EXPECT_FALSE(os_file_exists(a.c_str()));
    EXPECT_EQ(os_test_read_file(b), "first");

    EXPECT_TRUE(os_file_rename(b.c_str(), c.c_str()));
    EXPECT_FALSE(os_file_exists(b.c_str()));
    EXPECT_EQ(os_test_read_file(c), "first");

    EXPECT_TRUE(os_file_delete(c.c_str()));
    EXPECT_FALSE(os_file_exists(c.c_str()));
    EXPECT_FALSE(os_file_delete(c.c_str()));
}

TEST(OsFile, FolderPaths) {
    os_test_folder dir;
    std::string top = dir.file("x");
    std::string mid = dir.file("x" OS_SEP_STR "y");
    std::string deep = dir.file("x" OS_SEP_STR "y" OS_SEP_STR "z");
    EXPECT_FALSE(os_folder_exists(top.c_str()));
    EXPECT_TRUE(os_folder_create_path((deep + OS_SEP_STR).c_str()));
    EXPECT_TRUE(os_folder_exists(top.c_str()));
    EXPECT_TRUE(os_folder_exists(mid.c_str()));
    EXPECT_TRUE(os_folder_exists(deep.c_str()));
    EXPECT_FALSE(os_file_exists(deep.c_str()));
    // Creating what exists is success; the single-folder call reports it as a failure.
    EXPECT_TRUE(os_folder_create_path(deep.c_str()));
    EXPECT_FALSE(os_folder_create(deep.c_str()));
    // A folder that is not empty stays.
    EXPECT_FALSE(os_folder_delete(top.c_str()));

    // A file in the way makes the path impossible.
    std::string blocker = dir.file("file");
    ASSERT_TRUE(os_test_write_file(blocker, "x"));
    EXPECT_FALSE(os_folder_create_path((blocker + OS_SEP_STR "sub").c_str()));
    EXPECT_FALSE(os_folder_create_path(""));
}

TEST(OsFile, InfoOfFileMatchesWhatWasSet) {
    os_test_folder dir;
    std::string p = dir.file("info.dat");
    ASSERT_TRUE(os_test_write_file(p, std::string(1234, 'q')));

    os_systemtime_t st = {2001, 2, 0, 3, 4, 5, 6, 789};
    uint64_t modified = 0, accessed = 0, created = 0;
    ASSERT_TRUE(os_system_to_filetime(&st, &modified));
    st.year = 2010;
    ASSERT_TRUE(os_system_to_filetime(&st, &accessed));
    st.year = 1999;
    ASSERT_TRUE(os_system_to_filetime(&st, &created));
    // Odd ticks below a millisecond must survive too.
    modified += 1234;
    os_file_t f = os_file_open(p.c_str(), OS_OPEN_WRITE);
    ASSERT_NE(f, OS_FILE_INVALID);
    ASSERT_TRUE(os_file_set_times(f, created, accessed, modified));
    os_file_close(f);

    os_file_info_t info;
    ASSERT_TRUE(os_get_file_info(p.c_str(), &info));
    EXPECT_EQ(info.size, 1234u);
    EXPECT_EQ(info.date_modified, modified);
    EXPECT_EQ(info.date_accessed, accessed);
#ifdef _WIN32
    // Wine keeps no creation time of its own on a Unix file system and reports the modification time.
    EXPECT_TRUE(info.date_created == created || info.date_created == modified) << info.date_created;
#else
    // Linux keeps the birth time when the file system does, and it can't be set.
    uint64_t now = os_filetime_now();
    if (info.date_created != UINT64_MAX) {
        EXPECT_LE(info.date_created, now + 10000000);
        EXPECT_GE(info.date_created, now - 600000000);
    }
#endif
    EXPECT_EQ(info.attributes & (OS_ATTR_DIRECTORY | OS_ATTR_REPARSE_POINT | OS_ATTR_READONLY), 0u);
    EXPECT_TRUE(info.attributes & OS_ATTR_ARCHIVE);

    ASSERT_TRUE(os_set_file_attributes(p.c_str(), OS_ATTR_READONLY | OS_ATTR_ARCHIVE));
    ASSERT_TRUE(os_get_file_info(p.c_str(), &info));
    EXPECT_TRUE(info.attributes & OS_ATTR_READONLY);
    ASSERT_TRUE(os_set_file_attributes(p.c_str(), OS_ATTR_ARCHIVE));
    ASSERT_TRUE(os_get_file_info(p.c_str(), &info));
    EXPECT_FALSE(info.attributes & OS_ATTR_READONLY);
}

TEST(OsFile, InfoOfFolderHiddenAndMissing) {
    os_test_folder dir;
    os_file_info_t info;
    ASSERT_TRUE(os_get_file_info(dir.path.c_str(), &info));
    EXPECT_TRUE(info.attributes & OS_ATTR_DIRECTORY);
    EXPECT_EQ(info.size, UINT64_MAX);
    EXPECT_NE(info.date_modified, UINT64_MAX);
    uint64_t now = os_filetime_now();
    EXPECT_LE(info.date_modified, now + 10000000);
    EXPECT_GE(info.date_modified, now - 600000000);

    std::string hidden = dir.file(".secret");
    ASSERT_TRUE(os_test_write_file(hidden, ""));
#ifdef _WIN32
    ASSERT_TRUE(os_set_file_attributes(hidden.c_str(), OS_ATTR_HIDDEN));
#endif
    ASSERT_TRUE(os_get_file_info(hidden.c_str(), &info));
    EXPECT_TRUE(info.attributes & OS_ATTR_HIDDEN);
    EXPECT_EQ(info.size, 0u);

    // A volume root has no directory entry of its own but is still described.
#ifdef _WIN32
    const char *root = "C:\\";
#else
    const char *root = "/";
#endif
    ASSERT_TRUE(os_get_file_info(root, &info));
    EXPECT_TRUE(info.attributes & OS_ATTR_DIRECTORY);
    // A wildcard must not turn the lookup into a search that describes some other file.
    EXPECT_FALSE(os_get_file_info((dir.path + OS_SEP_STR ".secre?").c_str(), &info));

    std::string missing = dir.path + OS_SEP_STR "missing";
    memset(&info, 0, sizeof(info));
    EXPECT_FALSE(os_get_file_info(missing.c_str(), &info));
    EXPECT_EQ(info.size, UINT64_MAX);
    EXPECT_EQ(info.date_modified, UINT64_MAX);
    EXPECT_EQ(info.date_created, UINT64_MAX);
    EXPECT_EQ(info.date_accessed, UINT64_MAX);
    EXPECT_EQ(info.attributes, 0u);
    EXPECT_FALSE(os_file_exists(missing.c_str()));
    EXPECT_FALSE(os_folder_exists(missing.c_str()));
}

#ifndef _WIN32
// A symbolic link is described as itself, never as what it points at, and never counts as a folder.
TEST(OsFile, SymbolicLinkIsNotFollowed) {
    os_test_folder dir;
    std::string link = dir.file("link");
    ASSERT_EQ(symlink(dir.path.c_str(), link.c_str()), 0);
    os_file_info_t info;
    ASSERT_TRUE(os_get_file_info(link.c_str(), &info));
    EXPECT_EQ(info.attributes & (OS_ATTR_REPARSE_POINT | OS_ATTR_DIRECTORY),
              (uint32_t) OS_ATTR_REPARSE_POINT);
    EXPECT_EQ(info.size, dir.path.size());

    std::string dangling = dir.file("dangling");
    ASSERT_EQ(symlink("/nonexistent/sablewatch", dangling.c_str()), 0);
    EXPECT_TRUE(os_get_file_info(dangling.c_str(), &info));
    EXPECT_TRUE(os_file_exists(dangling.c_str()));
}
// Each folder in "/" that lies on another device than "/" itself (/proc, /sys, /dev on most systems) is
// a mount point: listed as a folder link, so that no scan enters it; those on the same device are folders.
TEST(OsDir, MountPointsAreFolderLinks) {
    struct stat top;
    ASSERT_EQ(stat("/", &top), 0);
    os_dir_t *d = os_dir_open("/");
    ASSERT_NE(d, nullptr);
    int mounts = 0, folders = 0;
    os_dir_entry_t e;
    while (os_dir_next(d, &e)) {
        struct stat st;
        std::string path = std::string("/") + e.name;
        if (lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            continue;
        bool mount = st.st_dev != top.st_dev;
        (mount ? mounts : folders)++;
        EXPECT_EQ(e.is_folder, !mount) << path;
        EXPECT_EQ(e.is_link, mount) << path;
        EXPECT_EQ(e.info.attributes & (OS_ATTR_DIRECTORY | OS_ATTR_REPARSE_POINT),
                  (uint32_t) (mount ? OS_ATTR_DIRECTORY | OS_ATTR_REPARSE_POINT : OS_ATTR_DIRECTORY))
            << path;
        EXPECT_EQ(e.info.size, 0u) << path;
    }
    os_dir_close(d);
    EXPECT_GT(folders, 0);
    if (mounts == 0)
        GTEST_SKIP() << "no file system is mounted on a folder of /";
}
#endif

TEST(OsFile, ReadFaultsCanBeInjected) {
    os_test_folder dir;
    std::string p = dir.file("fault.bin");
    ASSERT_TRUE(os_test_write_file(p, "abcdef"));
    os_file_t f = os_file_open(p.c_str(), OS_OPEN_READ);
    ASSERT_NE(f, OS_FILE_INVALID);
    static uint64_t seen_offset;
    os_hooks.file_read = [](os_file_t, void *, size_t) -> int64_t { return -1; };
    os_hooks.file_read_at = [](os_file_t, uint64_t offset, void *buf, size_t n) -> int64_t {
        seen_offset = offset;
        memset(buf, 'Z', n);
        return (int64_t) n;
    };
    char buf[4];
    EXPECT_EQ(os_file_read(f, buf, 4), -1);
    EXPECT_EQ(os_file_read_at(f, 77, buf, 4), 4);
    EXPECT_EQ(seen_offset, 77u);
    EXPECT_EQ(buf[0], 'Z');
    os_hooks_reset();
    EXPECT_EQ(os_file_read(f, buf, 4), 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    os_file_close(f);
}

TEST(OsPath, WellKnownFolders) {
    str_t s;
    str_init(&s);

    os_exe_path(&s);
    std::string exe = os_test_text(&s);
    EXPECT_TRUE(os_file_exists(exe.c_str())) << exe;
    EXPECT_TRUE(os_path_is_absolute(exe.c_str()));
    EXPECT_NE(exe.find("test_os"), std::string::npos);

    os_exe_folder(&s);
    std::string folder = os_test_text(&s);
    EXPECT_TRUE(os_folder_exists(folder.c_str()));
    EXPECT_EQ(exe.compare(0, folder.size(), folder), 0);
    EXPECT_EQ(exe[folder.size()], OS_SEP);

    os_temp_folder(&s);
    std::string tmp = os_test_text(&s);
    EXPECT_TRUE(os_folder_exists(tmp.c_str())) << tmp;
    EXPECT_NE(tmp.back(), OS_SEP);

    os_current_folder(&s);
    EXPECT_TRUE(os_path_is_absolute(s.ptr));
    EXPECT_TRUE(os_folder_exists(s.ptr));

    os_app_data_folder(&s);
    std::string app = os_test_text(&s);
    EXPECT_TRUE(os_path_is_absolute(app.c_str())) << app;
    EXPECT_EQ(app.substr(app.size() - 11), std::string(OS_SEP_STR) + "Sablewatch");

    str_kill(&s);
}

TEST(OsPath, AbsolutePaths) {
    struct {
        const char *path;
        bool absolute;
    } cases[] = {
#ifdef _WIN32
        {"C:\\Windows", true}, {"c:/x", true},  {"\\\\server\\share", true},
        {"\\\\?\\C:\\", true}, {"C:", false},   {"C:x", false},
        {"\\x", false},        {"x\\y", false}, {"", false},
        {"/x", false},
#else
        {"/", true}, {"/usr/bin", true}, {"usr", false}, {"./x", false}, {"", false}, {"C:\\x", false},
#endif
    };
    for (const auto &c : cases) {
        EXPECT_EQ(os_path_is_absolute(c.path), c.absolute) << c.path;
    }
}

// A folder that is not the root of a volume, and a path that doesn't exist, have no label; the root of
// the system volume answers either way without failing (a label is the machine's business).
TEST(OsVolume, LabelOnlyForTheRootOfAVolume) {
    os_test_folder dir;
    str_t label;
    str_init(&label);
    str_set(&label, "stale");
    EXPECT_FALSE(os_volume_label(dir.path.c_str(), &label));
    EXPECT_EQ(label.len, 0);
    EXPECT_FALSE(os_volume_label(dir.file("missing").c_str(), &label));
    bool has = os_volume_label(OS_SEP == '/' ? "/" : "C:", &label);
    EXPECT_EQ(has, label.len > 0);
    str_kill(&label);
}
