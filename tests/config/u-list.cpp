// List values, colours and the entry arrays made from parallel lists.
#include <random>
#include <vector>

#include "scratch.h"

namespace {

std::vector<std::string> parse(const char *value) {
    config_vec_t<char *> v = {};
    config_list_parse(value, &v);
    std::vector<std::string> out;
    for (int i = 0; i < v.count; i++) {
        out.push_back(v.items[i]);
    }
    config_strings_free(&v);
    return out;
}

using L = std::vector<std::string>;

TEST(List, Parse) {
    EXPECT_EQ(parse(""), L{});
    EXPECT_EQ(parse("a"), L{"a"});
    EXPECT_EQ(parse("a,b;c"), (L{"a", "b", "c"}));
    EXPECT_EQ(parse("  a \t, b\r\n ;c "), (L{"a", "b", "c"}));
    EXPECT_EQ(parse("a,"), (L{"a", ""}));
    EXPECT_EQ(parse(",;"), (L{"", "", ""}));
    EXPECT_EQ(parse("\"\""), L{""});
    EXPECT_EQ(parse("C:\\Program Files\\x"), L{"C:\\Program Files\\x"}); // a bare backslash is plain
    EXPECT_EQ(parse("\"a,b;c\",d"), (L{"a,b;c", "d"}));
    EXPECT_EQ(parse(" \"  padded  \" ,x"), (L{"  padded  ", "x"}));
    EXPECT_EQ(parse("\"\\a\\b\\f\\n\\r\\t\\v\\\\\\\"\\q\""), L{"\a\b\f\n\r\t\v\\\"q"});
    EXPECT_EQ(parse("\"ab\\0cd\""), L{"ab"}); // \0 ends the text there
    EXPECT_EQ(parse("\"open"), L{"open"});
    EXPECT_EQ(parse("\"trailing\\"), L{"trailing"});
    EXPECT_EQ(parse("pre\"mid,dle\"post"), L{"premid,dlepost"});
    EXPECT_EQ(parse("x \" \""), L{"x  "}); // a quoted blank at the end survives the trimming
}

// Whatever the writer makes of a list, the reader must give back the same items. Random items mix every
// character that has a meaning to the reader.
TEST(List, WriteThenReadGivesTheItems) {
    std::mt19937 rng(99);
    const char alphabet[] = "ab ,;\"\\\t\r\n\a\v#=x";
    for (int round = 0; round < 2000; round++) {
        int n = (int) (rng() % 5);
        L items;
        for (int i = 0; i < n; i++) {
            std::string item;
            int len = (int) (rng() % 6);
            for (int j = 0; j < len; j++) {
                item += alphabet[rng() % (sizeof(alphabet) - 1)];
            }
            items.push_back(item);
        }
        str_t out;
        str_init(&out);
        for (int i = 0; i < n; i++) {
            config_list_cat_item(&out, items[(size_t) i].c_str(), i == 0, n == 1);
        }
        std::string written = scratch_str(&out);
        str_kill(&out);
        EXPECT_EQ(written.find('\n'), std::string::npos) << "a written list must stay on one line";
        EXPECT_EQ(parse(written.c_str()), items) << written;
    }
}

TEST(List, PlainItemsAreWrittenPlainly) {
    str_t out;
    str_init(&out);
    config_list_cat_item(&out, "C:\\Users\\me", true, false);
    config_list_cat_item(&out, "", false, false);
    config_list_cat_item(&out, "d e", false, false);
    EXPECT_EQ(scratch_str(&out), "C:\\Users\\me,,d e");
    str_kill(&out);
}

TEST(Color, Parse) {
    struct {
        const char *text;
        bool ok;
        uint32_t value;
    } cases[] = {
        {"#123456", true, 0x123456},
        {"abcdef", true, 0xabcdef},
        {"#ABCDEF", true, 0xabcdef},
        {"#f80", true, 0xff8800},
        {"0a1", true, 0x00aa11},
        {"", false, 0},
        {"#", false, 0},
        {"#12345", false, 0},
        {"#1234567", false, 0},
        {"#12345g", false, 0},
        {"##123456", false, 0},
        {" #123456", false, 0},
    };
    for (auto &c : cases) {
        uint32_t v = 0xDEADBEEF;
        EXPECT_EQ(config_parse_color(c.text, &v), c.ok) << c.text;
        EXPECT_EQ(v, c.ok ? c.value : 0xDEADBEEF) << c.text;
    }
}

class Lists : public ConfigTest {
  protected:
    void load(const std::string &body) {
        ini_t *ini = ini_parse(("[Sablewatch]\n" + body).c_str(), "Sablewatch");
        config_load_ini(ini, false, false);
        ini_free(ini);
    }
};

TEST_F(Lists, ShortCompanionListsTakeTheirDefaults) {
    load("ntfs_volume_guids=\\\\?\\Volume{1},\\\\?\\Volume{2},\\\\?\\Volume{3}\n"
         "ntfs_volume_paths=C:,D:\n"
         "ntfs_volume_includes=0\n"
         "ntfs_volume_load_recent_changes=1,0\n"
         "ntfs_volume_monitors=0\n"
         "ntfs_volume_include_onlys=\"C:\\\\a,C:\\\\b\"\n"
         "filelists=a.swl,b.swl,c.swl\n"
         "filelist_monitor_changes=0\n"
         "folders=/srv/one,/srv/two\n"
         "folder_monitor_changes=0\n"
         "folder_update_types=1\n"
         "connect_history_hosts=h1,h2\n"
         "connect_history_ports=2121\n"
         "stp_client_rewrite_patterns=p1,p2\n"
         "stp_client_rewrite_substitutions=s1\n");
    ASSERT_EQ(config_ntfs_volumes.count, 3);
    const config_volume_t *v = config_ntfs_volumes.items;
    EXPECT_STREQ(v[0].path, "C:");
    EXPECT_STREQ(v[2].path, "");
    EXPECT_STREQ(v[2].guid, "\\\\?\\Volume{3}");
    EXPECT_EQ(v[0].include, 0);
    EXPECT_EQ(v[1].include, 1);
    EXPECT_EQ(v[2].include, 1);
    EXPECT_EQ(v[0].load_recent_changes, 1);
    EXPECT_EQ(v[2].load_recent_changes, 0);
    EXPECT_EQ(v[0].monitor, 0);
    EXPECT_EQ(v[1].monitor, 1);
    EXPECT_STREQ(v[0].include_only, "C:\\a,C:\\b");
    EXPECT_STREQ(v[1].include_only, "");
    EXPECT_EQ(config_refs_volumes.count, 0);

    ASSERT_EQ(config_filelists.count, 3);
    EXPECT_EQ(config_filelists.items[0].monitor, 0);
    EXPECT_EQ(config_filelists.items[1].monitor, 1);
    EXPECT_EQ(config_filelists.items[2].monitor, 1);

    ASSERT_EQ(config_folders.count, 2);
    const config_folder_t *f = &config_folders.items[1];
    EXPECT_STREQ(f->path, "/srv/two");
    EXPECT_EQ(config_folders.items[0].monitor, 0);
    EXPECT_EQ(config_folders.items[0].update_type, 1);
    EXPECT_EQ(f->monitor, 1);
    EXPECT_EQ(f->buffer_size, 65536);
    EXPECT_EQ(f->rescan_if_full, 0);
    EXPECT_EQ(f->update_type, 2);
    EXPECT_EQ(f->update_day, 0);
    EXPECT_EQ(f->update_at, 3);
    EXPECT_EQ(f->update_interval, 6);
    EXPECT_EQ(f->update_interval_type, 1);

    ASSERT_EQ(config_connect_history.count, 2);
    EXPECT_EQ(config_connect_history.items[0].port, 2121);
    EXPECT_EQ(config_connect_history.items[1].port, 21);
    EXPECT_EQ(config_connect_history.items[1].link_type, 1);
    ASSERT_EQ(config_stp_client_rewrites.count, 2);
    EXPECT_STREQ(config_stp_client_rewrites.items[1].substitution, "");
}

TEST_F(Lists, VolumesWithoutGuidAreKept) {
    load("refs_volume_paths=E:,F:\n");
    ASSERT_EQ(config_refs_volumes.count, 2);
    EXPECT_STREQ(config_refs_volumes.items[1].guid, "");
    EXPECT_STREQ(config_refs_volumes.items[1].path, "F:");
}

TEST_F(Lists, FileOnTopReplacesOnlyTheGroupsItNamesAndAddsExcludes) {
    load("folders=/a\nfilelists=x.swl\nexclude_folders=/tmp,/proc\n");
    load("folders=/b,/c\nexclude_folders=/proc;/sys\n");
    ASSERT_EQ(config_folders.count, 2);
    EXPECT_STREQ(config_folders.items[0].path, "/b");
    ASSERT_EQ(config_filelists.count, 1);
    ASSERT_EQ(config_exclude_folders.count, 3);
    EXPECT_STREQ(config_exclude_folders.items[0], "/tmp");
    EXPECT_STREQ(config_exclude_folders.items[1], "/proc");
    EXPECT_STREQ(config_exclude_folders.items[2], "/sys");
    // An empty leading list empties its group.
    load("folders=\n");
    EXPECT_EQ(config_folders.count, 0);
}

TEST_F(Lists, FrozenCopyDoesNotFollowLaterChanges) {
    load("folders=/data\nexclude_folders=/tmp\nexclude_files=*.bak\nindex_folder_size=1\nmax_threads=3\n");
    config_frozen_t frozen;
    config_freeze(&frozen);
    load("folders=/other\nexclude_folders=/var\nexclude_files=*.old\nindex_folder_size=0\nmax_threads=5\n");
    config_defaults();
    ASSERT_EQ(frozen.folders.count, 1);
    EXPECT_STREQ(frozen.folders.items[0].path, "/data");
    ASSERT_EQ(frozen.exclude_folders.count, 1);
    EXPECT_STREQ(frozen.exclude_folders.items[0], "/tmp");
    EXPECT_STREQ(frozen.exclude_files, "*.bak");
    EXPECT_EQ(frozen.index_folder_size, 1);
    EXPECT_EQ(frozen.max_threads, 3);
    EXPECT_EQ(frozen.index_size, 1); // the default, copied as it stood
    config_frozen_kill(&frozen);
}

} // namespace
