// Writing lists: the three row forms, quoting that survives the reader, buffer edges, and the prefix that
// relative paths cut.
#include "filelist_test.h"

#include <string>

#include "os/os.h"

static std::string scratch_path(const char *name) {
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string p = std::string(tmp.ptr) + OS_SEP_STR + "sw-fl-write-" + std::to_string(os_counter()) + name;
    str_kill(&tmp);
    return p;
}

static std::string read_all(const std::string &path) {
    std::string text;
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_READ);
    char buf[65536];
    int64_t n;
    while ((n = os_file_read(f, buf, sizeof(buf))) > 0) {
        text.append(buf, (size_t) n);
    }
    os_file_close(f);
    return text;
}

TEST(FilelistWrite, RowForms) {
    std::string path = scratch_path(".swl");
    filelist_writer_t w;
    ASSERT_TRUE(filelist_writer_open(&w, path.c_str()));
    filelist_write_header(&w);
    os_file_info_t known = {12, 130000000000000000ull, 120000000000000000ull, 5, 32};
    os_file_info_t zero = {0, 0, 0, 0, 16};
    os_file_info_t unknown = {UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX, 0};
    for (filelist_row_t form : {FILELIST_ROW_CREATE, FILELIST_ROW_EDITOR, FILELIST_ROW_EXPORT}) {
        filelist_write_row(&w, form, "C:\\k", 4, &known);
        filelist_write_row(&w, form, "C:\\z", 4, &zero);
        filelist_write_row(&w, form, "C:\\u", 4, &unknown);
    }
    EXPECT_TRUE(filelist_writer_close(&w));
    EXPECT_EQ(read_all(path), "Filename,Size,Date Modified,Date Created,Attributes\r\n"
                              // A tree's list and the editor: unknown size and zero dates left out.
                              "\"C:\\k\",12,130000000000000000,120000000000000000,32\r\n"
                              "\"C:\\z\",0,,,16\r\n"
                              "\"C:\\u\",,18446744073709551615,18446744073709551615,0\r\n"
                              "\"C:\\k\",12,130000000000000000,120000000000000000,32\r\n"
                              "\"C:\\z\",0,,,16\r\n"
                              "\"C:\\u\",,18446744073709551615,18446744073709551615,0\r\n"
                              // The export: unknown values left out, a zero date written as 0.
                              "\"C:\\k\",12,130000000000000000,120000000000000000,32\r\n"
                              "\"C:\\z\",0,0,0,16\r\n"
                              "\"C:\\u\",,,,0\r\n");
    os_file_delete(path.c_str());
}

TEST(FilelistWrite, NamesWithCommasAndQuotesSurviveTheReader) {
    std::string path = scratch_path(".swl");
    const char *names[] = {"C:\\a,b", "C:\\say \"hi\"", "C:\\\"", "C:\\\"\"x\"\",", "C:\\plain"};
    // Enough rows to cross the 64 KiB buffer several times.
    const int rounds = 3000;
    filelist_writer_t w;
    ASSERT_TRUE(filelist_writer_open(&w, path.c_str()));
    filelist_write_header(&w);
    for (int i = 0; i < rounds; i++) {
        for (const char *n : names) {
            os_file_info_t fd = {(uint64_t) i, 1, 2, UINT64_MAX, 32};
            filelist_write_row(&w, FILELIST_ROW_CREATE, n, strlen(n), &fd);
        }
    }
    filelist_writer_printf(&w, "%s,%d,,,%u\r\n", "\"C:\\fmt\"", 5, 32u);
    EXPECT_TRUE(filelist_writer_close(&w));

    filelist_t list;
    filelist_init(&list, '\\');
    filelist_options_t options = {};
    ASSERT_EQ(filelist_read(&list, path.c_str(), &options), FILELIST_OK);
    ASSERT_EQ(list.count, (uint32_t) (rounds * 5 + 1));
    filelist_item_t *it = list.first;
    for (int i = 0; i < rounds; i++) {
        for (const char *n : names) {
            EXPECT_STREQ(it->path, n);
            EXPECT_EQ(it->fd.size, (uint64_t) i);
            EXPECT_EQ(it->fd.date_modified, 1u);
            EXPECT_EQ(it->fd.date_created, 2u);
            it = it->next;
        }
    }
    EXPECT_STREQ(it->path, "C:\\fmt");
    EXPECT_EQ(it->fd.size, 5u);
    filelist_kill(&list);
    os_file_delete(path.c_str());
}

TEST(FilelistWrite, WriterReportsAFileItCannotMake) {
    filelist_writer_t w;
    std::string path = scratch_path("-no-such-folder") + OS_SEP_STR + "x.swl";
    EXPECT_FALSE(filelist_writer_open(&w, path.c_str()));
    EXPECT_FALSE(filelist_writer_close(&w));
}

TEST(FilelistWrite, RelativePrefixOnlyWhenEveryPathSharesIt) {
    const char *inside[] = {"D:\\lists\\a.txt", "D:\\lists\\sub\\b.txt"};
    const char *mixed[] = {"D:\\lists\\a.txt", "D:\\listsX\\b.txt"};
    const char *outside[] = {"D:\\lists\\a.txt", "E:\\b.txt"};
    EXPECT_EQ(filelist_relative_prefix("D:\\lists\\l.swl", inside, 2, '\\'), 9u);
    EXPECT_EQ(filelist_relative_prefix("D:\\lists\\l.swl", mixed, 2, '\\'), 0u);
    EXPECT_EQ(filelist_relative_prefix("D:\\lists\\l.swl", outside, 2, '\\'), 0u);
    EXPECT_EQ(filelist_relative_prefix("D:\\lists\\l.swl", inside, 0, '\\'), 0u);
    const char *linux_paths[] = {"/home/u/x", "/home/u/d/y"};
    EXPECT_EQ(filelist_relative_prefix("/home/u/l.swl", linux_paths, 2, '/'), 8u);
    // Cut paths written next to the list resolve back to the same paths from a moved list.
    str_t s;
    str_init(&s);
    filelist_resolve_path(&s, "F:\\moved", inside[1] + 9, strlen(inside[1]) - 9, '\\');
    EXPECT_STREQ(s.ptr, "F:\\moved\\sub\\b.txt");
    str_kill(&s);
}
