// A list file as search text: tables read by their filename column with relative rows resolved, any
// other file read as lines with every line end, names joined with '|' and a '|' inside a name escaped.
#include "filelist_test.h"

#include <string>

#include "filelist/create.h"
#include "os/os.h"
#include "text/text.h"

class SearchTextTest : public ::testing::Test {
  protected:
    std::string dir;

    void SetUp() override {
        text_init_tables();
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = std::string(tmp.ptr) + OS_SEP_STR + "sw-search-" + info->name() + "-" +
              std::to_string(os_counter());
        str_kill(&tmp);
        ASSERT_TRUE(os_folder_create_path(dir.c_str()));
    }
    void TearDown() override {
        for (const std::string &f : made) {
            os_file_delete(f.c_str());
        }
        os_folder_delete(dir.c_str());
    }

    std::vector<std::string> made;

    // Writes the bytes to a file of this name in the scratch folder and returns the routine's answer.
    std::string search_of(const std::string &name, const std::string &bytes, bool *ok = nullptr) {
        std::string path = dir + OS_SEP_STR + name;
        os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
        EXPECT_NE(f, OS_FILE_INVALID);
        EXPECT_EQ(os_file_write(f, bytes.data(), bytes.size()), (int64_t) bytes.size());
        os_file_close(f);
        made.push_back(path);
        str_t out;
        str_init(&out);
        bool r = filelist_to_search(&out, path.c_str());
        if (ok) {
            *ok = r;
        }
        std::string s(out.ptr, (size_t) out.len);
        str_kill(&out);
        return s;
    }
    // A path in the scratch folder, written with '/'.
    std::string at(std::string rel) {
        for (char &c : rel) {
            if (c == '/') {
                c = OS_SEP;
            }
        }
        return dir + OS_SEP_STR + rel;
    }
};

TEST_F(SearchTextTest, LinesOfAnyOtherFile) {
    struct {
        const char *name;
        std::string bytes;
        std::string want;
    } cases[] = {
        {"a.txt", "one\r\ntwo\nthree\rfour", "one|two|three|four"},
        {"a.txt", "one\r\n", "one"},
        {"a.txt", "", ""},
        {"a.txt", "\r\n\n\r", ""},                      // empty lines name nothing
        {"a.txt", "a\r\rb", "a|b"},                     // CR CR is two ends
        {"a.txt", "a\n\rb", "a|b"},                     // LF CR too
        {"a.txt", "x|y\nz", "x\"#124:\"y|z"},           // '|' inside a name
        {"a.txt", "||", "\"#124:\"\"#124:\""},          //
        {"a.txt", "\xEF\xBB\xBFname", "name"},          // a byte order mark is no part of a name
        {"a.txt", "with space\n  \n", "with space|  "}, // blanks are a name
        {"no extension", "p\nq", "p|q"},                //
        {"list.swl.txt", "Filename\n\"C:\\x\"", "Filename|\"C:\\x\""}, // only the last extension counts
        {"a.sw", "Filename\nx", "Filename|x"},                         //
    };
    for (auto &c : cases) {
        EXPECT_EQ(search_of(c.name, c.bytes), c.want) << c.name << ": " << c.bytes;
    }
}

TEST_F(SearchTextTest, LineEndsAcrossTheReadBuffer) {
    // A CR at the very end of one read and its LF at the start of the next are one line end.
    std::string first(65535, 'a');
    std::string bytes = first + "\r\nb";
    EXPECT_EQ(search_of("big.txt", bytes), first + "|b");
    std::string lone = first + "\r" + "c";
    EXPECT_EQ(search_of("big.txt", lone), first + "|c");
}

TEST_F(SearchTextTest, TablesByTheirFilenameColumn) {
#ifdef _WIN32
    std::string abs1 = "C:\\data\\one.txt", abs2 = "\\\\srv\\share\\two";
#else
    std::string abs1 = "/data/one.txt", abs2 = "/srv/two";
#endif
    struct {
        const char *name;
        std::string bytes;
        std::string want;
    } cases[] = {
        {"l.swl", "Filename,Size\r\n\"" + abs1 + "\",1\r\n\"" + abs2 + "\",2\r\n", abs1 + "|" + abs2},
        {"l.CSV", "Size,filename\n1," + abs1 + "\n", abs1},                 // any case, any position
        {"l.Swl", "Size,FILENAME,Extra\n1,rel/x.txt,9\n", at("rel/x.txt")}, // relative to the list's folder
        {"l.swl", "Filename\nsub/../y.txt\n", at("y.txt")},                 //
        {"l.swl", "Filename\n\"a\"\"b,c\"\n", at("a\"b,c")},                // quotes and commas survive
        {"l.swl", "Filename\n\"p|q\"\n", at("p\"#124:\"q")},                //
        {"l.swl", "Filename,Size\n,5\n" + abs1 + "\n\n", abs1}, // empty and missing names are nothing
        {"l.swl", "Name,Size\n" + abs1 + ",1\n", ""},           // no filename column
        {"l.swl", "", ""},                                      //
        {"l.swl",
         "\xEF\xBB\xBF"
         "Filename\n" +
             abs1,
         abs1}, // a byte order mark before the header
    };
    for (auto &c : cases) {
        bool ok = false;
        EXPECT_EQ(search_of(c.name, c.bytes, &ok), c.want) << c.name << ": " << c.bytes;
        EXPECT_TRUE(ok);
    }
}

TEST_F(SearchTextTest, ListThatCantBeOpened) {
    str_t out;
    str_init(&out);
    str_set(&out, "left over");
    EXPECT_FALSE(filelist_to_search(&out, at("missing.swl").c_str()));
    EXPECT_EQ(out.len, 0);
    EXPECT_FALSE(filelist_to_search(&out, at("missing.txt").c_str()));
    EXPECT_EQ(out.len, 0);
    str_kill(&out);
}

TEST_F(SearchTextTest, ListWrittenByTheTreeWriterGivesEveryPath) {
    // The writer's rows come back as the same paths, in order.
    std::string list = at("w.swl");
    filelist_writer_t w;
    ASSERT_TRUE(filelist_writer_open(&w, list.c_str()));
    filelist_write_header(&w);
    std::vector<std::string> paths = {at("a, b"), at("sub/\"q\""), at("x|y")};
    os_file_info_t fd = {1, 2, 3, 4, 32};
    for (const std::string &p : paths) {
        filelist_write_row(&w, FILELIST_ROW_CREATE, p.data(), p.size(), &fd);
    }
    ASSERT_TRUE(filelist_writer_close(&w));
    made.push_back(list);
    str_t out;
    str_init(&out);
    ASSERT_TRUE(filelist_to_search(&out, list.c_str()));
    std::string want = paths[0] + "|" + paths[1] + "|" + at("x\"#124:\"y");
    EXPECT_EQ(std::string(out.ptr, (size_t) out.len), want);
    str_kill(&out);
}
