// Reading lists: the header, the columns, numbers and dates, hidden and system rows, and path resolution
// under both platforms' rules (the separator is a parameter, so Linux checks the Windows rules too).
#include "filelist_test.h"

#include <string>

#include "os/os.h"

static std::string resolve(const char *base, const char *path, char sep) {
    str_t out;
    str_init(&out);
    filelist_resolve_path(&out, base, path, strlen(path), sep);
    std::string s(out.ptr, (size_t) out.len);
    str_kill(&out);
    return s;
}

TEST(FilelistPath, WindowsRules) {
    struct {
        const char *base, *path, *want;
    } cases[] = {
        {"D:\\lists", "relative\\file.txt", "D:\\lists\\relative\\file.txt"},
        {"D:\\lists", "\\x.txt", "D:\\x.txt"},
        {"D:\\lists", "..\\x.txt", "D:\\x.txt"},
        {"D:\\lists", "..\\..\\..\\x.txt", "D:\\x.txt"}, // never above the drive
        {"D:\\lists", ".\\a\\.\\b/c", "D:\\lists\\a\\b\\c"},
        {"D:\\lists", "a\\\\b", "D:\\lists\\a\\b"},
        {"D:\\lists", "sub\\", "D:\\lists\\sub\\"},
        {"\\\\srv\\share\\lists", "\\x", "\\\\srv\\share\\x"},
        {"\\\\srv\\share\\lists", "..\\..\\x", "\\\\srv\\share\\x"}, // nor above the share
        // Absolute rows are kept byte for byte.
        {"D:\\lists", "C:\\a\\..\\b", "C:\\a\\..\\b"},
        {"D:\\lists", "\\\\srv\\s\\f", "\\\\srv\\s\\f"},
        {"D:\\lists", "http:x", "http:x"},
        // A Linux list on Windows: split at the slash, shown with backslashes.
        {"D:\\lists", "/usr/bin/ls", "\\usr\\bin\\ls"},
    };
    for (auto &c : cases) {
        EXPECT_EQ(resolve(c.base, c.path, '\\'), c.want) << c.base << " + " << c.path;
    }
}

TEST(FilelistPath, LinuxRules) {
    struct {
        const char *base, *path, *want;
    } cases[] = {
        {"/home/u/lists", "relative/file.txt", "/home/u/lists/relative/file.txt"},
        {"/home/u/lists", "../x.txt", "/home/u/x.txt"},
        {"/home/u/lists", "../../../../x", "/x"},
        {"/home/u/lists", "./a//b/./c/..", "/home/u/lists/a/b"},
        {"/home/u/lists", "a\\b", "/home/u/lists/a\\b"}, // a backslash is part of a Linux name
        {"/home/u/lists", "a:b", "/home/u/lists/a:b"},
        {"/", "x", "/x"},
        {"/home/u/lists", "/etc/../x", "/etc/../x"}, // absolute: kept
        // A Windows list on Linux: split at the backslash, shown with slashes.
        {"/home/u/lists", "C:\\a\\b.txt", "C:/a/b.txt"},
        {"/home/u/lists", "\\\\srv\\share\\f", "//srv/share/f"},
    };
    for (auto &c : cases) {
        EXPECT_EQ(resolve(c.base, c.path, '/'), c.want) << c.base << " + " << c.path;
    }
}

TEST(FilelistPath, BaseDirAndAbsoluteTest) {
    str_t s;
    str_init(&s);
    filelist_base_dir(&s, "D:\\lists\\a.swl", '\\');
    EXPECT_STREQ(s.ptr, "D:\\lists");
    filelist_base_dir(&s, "D:/lists/a.swl", '\\');
    EXPECT_STREQ(s.ptr, "D:/lists");
    filelist_base_dir(&s, "/home/u/a\\b.swl", '/');
    EXPECT_STREQ(s.ptr, "/home/u");
    filelist_base_dir(&s, "a.swl", '/');
    EXPECT_STREQ(s.ptr, "");
    str_kill(&s);
    EXPECT_TRUE(filelist_path_is_absolute("x:y\\z", 5, '\\'));
    EXPECT_FALSE(filelist_path_is_absolute("y\\x:z", 5, '\\'));
    EXPECT_FALSE(filelist_path_is_absolute("1:y", 3, '/'));
    EXPECT_TRUE(filelist_path_is_absolute("c:", 2, '/'));
}

// The items of a list as "path|size|modified|created|accessed|attributes|folder".
static std::vector<std::string> items_of(const std::string &text, filelist_options_t options = {},
                                         int *status = nullptr) {
    filelist_t list;
    filelist_init(&list, '\\');
    int st = read_list_text(&list, text, "D:\\lists", options);
    if (status) {
        *status = st;
    }
    std::vector<std::string> out;
    uint32_t n = 0;
    for (filelist_item_t *it = list.first; it; it = it->next, n++) {
        EXPECT_EQ(strlen(it->path), it->path_len);
        auto num = [](uint64_t v) { return v == UINT64_MAX ? std::string("?") : std::to_string(v); };
        out.push_back(std::string(it->path) + "|" + num(it->fd.size) + "|" + num(it->fd.date_modified) + "|" +
                      num(it->fd.date_created) + "|" + num(it->fd.date_accessed) + "|" +
                      std::to_string(it->fd.attributes) + "|" +
                      ((it->flags & FILELIST_ITEM_FOLDER) ? "D" : "F"));
    }
    EXPECT_EQ(n, list.count);
    filelist_kill(&list);
    return out;
}

using V = std::vector<std::string>;

TEST(FilelistRead, HeaderColumnsInAnyOrderAndCase) {
    // Columns by name in any order; unknown columns ignored; a repeated name: the last one wins.
    EXPECT_EQ(items_of("attributes,Other,SIZE,filename,Size\r\n"
                       "32,zz,1,C:\\a.txt,2\r\n"),
              (V{"C:\\a.txt|2|?|?|?|32|F"}));
    EXPECT_EQ(items_of("Date Accessed,Filename,Date Created,Date Modified\n"
                       "3,C:\\a,1,2\n"),
              (V{"C:\\a|?|2|1|3|0|F"}));
    EXPECT_EQ(items_of("FILENAME\nC:\\x\n"), (V{"C:\\x|?|?|?|?|0|F"}));
    int status;
    EXPECT_EQ(items_of("Name,Size\nC:\\x,1\n", {}, &status), V{});
    EXPECT_EQ(status, FILELIST_NO_FILENAME);
    EXPECT_EQ(items_of("", {}, &status), V{});
    EXPECT_EQ(status, FILELIST_NO_FILENAME);
    EXPECT_EQ(items_of("Filename", {}, &status), V{});
    EXPECT_EQ(status, FILELIST_OK);
}

TEST(FilelistRead, RowsShorterLongerOrNameless) {
    EXPECT_EQ(items_of("Filename,Size,Attributes\n"
                       "C:\\long,5,32,extra,\"more,stuff\"\n" // beyond the header: ignored
                       "C:\\short\n"                          // missing fields are empty
                       ",5,32\n"                              // no name: skipped
                       "\n"                                   // no fields: skipped
                       "\"\"\n"
                       "C:\\last,7"), // no line end
              (V{"C:\\long|5|?|?|?|32|F", "C:\\short|?|?|?|?|0|F", "C:\\last|7|?|?|?|0|F"}));
    // The filename column may sit beyond a short row's end.
    EXPECT_EQ(items_of("Size,Filename\n5\n6,C:\\x\n"), (V{"C:\\x|6|?|?|?|0|F"}));
}

TEST(FilelistRead, NumbersStopAtTheFirstOtherByteAndWrap) {
    EXPECT_EQ(items_of("Filename,Size,Attributes\n"
                       "C:\\a,12abc,16x\n" // a folder: its size is 0 whatever it says
                       "C:\\b,12abc,33x\n"
                       "C:\\c,abc,\n"                              // no digits: 0; an empty size: unknown
                       "C:\\d,18446744073709551617,4294967329\n"), // wraps at 64 and 32 bits
              (V{"C:\\a|0|?|?|?|16|D", "C:\\b|12|?|?|?|33|F", "C:\\c|0|?|?|?|0|F", "C:\\d|1|?|?|?|33|F"}));
}

TEST(FilelistRead, DatesAsFiletimeOrIso) {
    // 2021-06-01T10:00:00Z as a FILETIME.
    const uint64_t t = 132670152000000000ull;
    auto one = [](const std::string &field) {
        V v = items_of("Filename,Date Modified\nC:\\a," + field + "\n");
        EXPECT_EQ(v.size(), 1u);
        std::string s = v.empty() ? "" : v[0];
        s = s.substr(s.find('|') + 1);
        s = s.substr(s.find('|') + 1);
        return s.substr(0, s.find('|'));
    };
    EXPECT_EQ(one(std::to_string(t)), std::to_string(t));
    EXPECT_EQ(one("2021-06-01T10:00:00Z"), std::to_string(t));
    EXPECT_EQ(one("20210601T100000Z"), std::to_string(t));
    EXPECT_EQ(one("2021-06-01T12:00:00+02:00"), std::to_string(t));
    EXPECT_EQ(one("2021-06-01T10:00:00.5Z"), std::to_string(t + 5000000));
    EXPECT_EQ(one(""), "?");
    // A date without a zone is local time: whatever the zone, it lands within a day of the UTC value.
    uint64_t local = std::stoull(one("2021-06-01"));
    uint64_t midnight = t - 10ull * 3600 * 10000000;
    EXPECT_LE(local > midnight ? local - midnight : midnight - local, 24ull * 3600 * 10000000);
}

TEST(FilelistRead, HiddenAndSystemRowsLeftOutWhenAsked) {
    std::string text = "Filename,Attributes\nC:\\h,2\nC:\\s,4\nC:\\hs\\x,18\nC:\\n,32\n";
    EXPECT_EQ(items_of(text).size(), 4u);
    EXPECT_EQ(items_of(text, {true, false}), (V{"C:\\s|?|?|?|?|4|F", "C:\\n|?|?|?|?|32|F"}));
    EXPECT_EQ(items_of(text, {false, true}),
              (V{"C:\\h|?|?|?|?|2|F", "C:\\hs\\x|0|?|?|?|18|D", "C:\\n|?|?|?|?|32|F"}));
}

TEST(FilelistRead, FileOnDiskResolvesAgainstItsFolder) {
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string dir = std::string(tmp.ptr) + OS_SEP_STR + "sw-fl-read-" + std::to_string(os_counter());
    str_kill(&tmp);
    ASSERT_TRUE(os_folder_create(dir.c_str()));
    std::string path = dir + OS_SEP_STR + "a.swl";
    filelist_t list;
    filelist_init(&list);
    filelist_options_t options = {};
    EXPECT_EQ(filelist_read(&list, path.c_str(), &options), FILELIST_OPEN_FAILED);
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID);
    const char *text = "\xEF\xBB\xBF"
                       "Filename\r\nsub" OS_SEP_STR "x.txt\r\n";
    os_file_write(f, text, strlen(text));
    os_file_close(f);
    EXPECT_EQ(filelist_read(&list, path.c_str(), &options), FILELIST_OK);
    ASSERT_EQ(list.count, 1u);
    EXPECT_EQ(std::string(list.first->path), dir + OS_SEP_STR + "sub" + OS_SEP_STR + "x.txt");
    filelist_kill(&list);
    os_file_delete(path.c_str());
    os_folder_delete(dir.c_str());
}
