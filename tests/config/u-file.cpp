// Loading and saving the settings file: the round trip of every key, the stub and the per-user file, the
// read-only rule and every failure text.
#include <cstdarg>
#include <cstdio>
#include <set>
#include <vector>

#include "scratch.h"

namespace {

const char *const kColumns[] = {"name",
                                "path",
                                "size",
                                "extension",
                                "type",
                                "last_write_time",
                                "creation_time",
                                "date_accessed",
                                "attribute",
                                "date_recently_changed",
                                "run_count",
                                "date_run",
                                "file_list_filename"};
const char *const kFonts[] = {"result_list", "search_edit", "status_bar", "header"};
const char *const kElements[] = {"normal",
                                 "highlighted",
                                 "current_sort",
                                 "current_sort_highlighted",
                                 "selected",
                                 "selected_highlighted",
                                 "selected_inactive",
                                 "selected_inactive_highlighted",
                                 "drop_target",
                                 "drop_target_highlighted",
                                 "mouseover",
                                 "mouseover_highlighted",
                                 "mouseover_current_sort",
                                 "mouseover_current_sort_highlighted",
                                 "alternate_row",
                                 "alternate_row_highlighted",
                                 "current_sort_alternate_row",
                                 "current_sort_alternate_row_highlighted",
                                 "hot",
                                 "hot_highlighted",
                                 "selected_hot",
                                 "selected_hot_highlighted",
                                 "selected_inactive_hot",
                                 "selected_inactive_hot_highlighted",
                                 "thumbnail_mouseover",
                                 "thumbnail_mouseover_highlighted"};

std::string fmt(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char buf[512];
    vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    return buf;
}

// The value of a table row as text, for comparing the variables of two loads.
std::string key_value(const config_key_t *k) {
    switch (k->type) {
    case CONFIG_TYPE_INT:
        return std::to_string(*(const int32_t *) k->target);
    case CONFIG_TYPE_BYTE:
        return std::to_string(*(const uint8_t *) k->target);
    case CONFIG_TYPE_HEX:
        return std::to_string(*(const uint32_t *) k->target);
    default:
        return *(char *const *) k->target;
    }
}

// A settings file that gives every key, list, column, font and colour a value other than its default, in
// the order the writer uses. Lines the writer never writes go to `extra` in the file and not in `saved`.
struct FullFile {
    std::string file, saved;
    void both(const std::string &line) {
        file += line + "\r\n";
        saved += line + "\r\n";
    }
    void extra(const std::string &line) { file += line + "\r\n"; }
};

FullFile make_full_file() {
    FullFile f;
    f.both("; Please make sure Sablewatch is not running before modifying this file.");
    f.both("[Sablewatch]");
    f.both("run_as_admin=1");
    f.extra("allow_index_change=0");
    f.both("allow_http_server=0");
    f.both("allow_stp_server=0");
    f.extra("explore_command=the old key loses to the new one");
    f.extra("unknown_key=forgotten at the next save");
    for (int i = 0; i < CONFIG_KEY_COUNT; i++) {
        const config_key_t *k = &config_keys[i];
        switch (k->type) {
        case CONFIG_TYPE_INT:
            f.both(fmt("%s=%d", k->name, *(const int32_t *) k->target + 7));
            break;
        case CONFIG_TYPE_BYTE:
            f.both(fmt("%s=%d", k->name, *(const uint8_t *) k->target ^ 1));
            break;
        case CONFIG_TYPE_HEX:
            f.both(fmt("%s=0x%08x", k->name, *(const uint32_t *) k->target ^ 0x00A5A5A5u));
            break;
        default:
            f.both(fmt("%s= %d: =;#[x] \"q\" \\ end\r ", k->name, i));
            break;
        }
    }
    for (int i = 0; i < 13; i++) {
        if (i > 0) {
            f.both(fmt("%s_column_visible=%d", kColumns[i], config_columns[i].visible ^ 1));
        }
        f.both(fmt("%s_column_pos=%d", kColumns[i], 12 - i));
        f.both(fmt("%s_column_width=%d", kColumns[i], 300 + i));
    }
    f.both("translucent_selection_rectangle_background_color=#102030");
    f.both("translucent_selection_rectangle_border_color=#405060");
    f.both("thumbnail_mouseover_border_color=#708090");
    f.both("preview_background_color=#a0b0c0");
    f.both("ntfs_volume_guids=\\\\?\\Volume{aa},\\\\?\\Volume{bb}");
    f.both("ntfs_volume_paths=C:,\"D:\\\\mnt, two\"");
    f.both("ntfs_volume_roots=,\\sub");
    f.both("ntfs_volume_includes=0,0");
    f.both("ntfs_volume_load_recent_changes=1,1");
    f.both("ntfs_volume_include_onlys=\"C:\\\\a,C:\\\\b\",");
    f.both("ntfs_volume_monitors=0,0");
    f.both("refs_volume_guids=\\\\?\\Volume{cc}");
    f.both("refs_volume_paths=E:");
    f.both("refs_volume_roots=\"\"");
    f.both("refs_volume_includes=0");
    f.both("refs_volume_load_recent_changes=1");
    f.both("refs_volume_include_onlys=\" lead and tail \"");
    f.both("refs_volume_monitors=0");
    f.both("exclude_folders=/tmp,\"semi;colon\",\"tab\\there\"");
    f.both("filelists=a.swl,b.swl");
    f.both("filelist_monitor_changes=0,0");
    f.both("folders=/srv/a");
    f.both("folder_monitor_changes=0");
    f.both("folder_buffer_size_list=1024");
    f.both("folder_rescan_if_full_list=1");
    f.both("folder_update_types=1");
    f.both("folder_update_days=5");
    f.both("folder_update_ats=7");
    f.both("folder_update_intervals=9");
    f.both("folder_update_interval_types=0");
    f.both("connect_history_hosts=host1,host2");
    f.both("connect_history_ports=2121,22");
    f.both("connect_history_usernames=me,\"you, too\"");
    f.both("connect_history_link_types=0,3");
    f.both("stp_client_rewrite_patterns=\\\\server\\share");
    f.both("stp_client_rewrite_substitutions=/mnt/share");
    for (int i = 0; i < 4; i++) {
        f.both(fmt("%s_font=Face %d", kFonts[i], i));
        f.both(fmt("%s_font_size=%d", kFonts[i], 9 + i));
    }
    for (int i = 0; i < 26; i++) {
        f.both(fmt("%s_background_color=#%06x", kElements[i], 0x010203 * (i + 1)));
        f.both(fmt("%s_foreground_color=#%06x", kElements[i], 0xfefdfc - i));
        f.both(fmt("%s_bold=%d", kElements[i], config_colors[i].weight == CONFIG_WEIGHT_NORMAL ? 1 : 0));
    }
    f.both("edit_copy_keys=579,1069");
    f.both("file_close_keys=");
    f.both("view_zoom_reset_keys=560");
    f.extra("open_file_command=also an old key");
    return f;
}

using Config = ConfigTest;

TEST_F(Config, EveryKeyRoundTripsByteForByte) {
    std::vector<std::string> defaults;
    for (auto &k : config_keys) {
        defaults.push_back(key_value(&k));
    }
    FullFile f = make_full_file();
    std::string path = in_exe("Sablewatch.ini");
    scratch_write(path, f.file);
    ASSERT_TRUE(config_load(path.c_str(), true, true));

    // Every table variable moved off its default: otherwise the file would not test its key.
    std::vector<std::string> loaded;
    for (int i = 0; i < CONFIG_KEY_COUNT; i++) {
        loaded.push_back(key_value(&config_keys[i]));
        EXPECT_NE(loaded.back(), defaults[(size_t) i]) << config_keys[i].name;
    }
    EXPECT_EQ(allow_index_change, 0);
    EXPECT_STRNE(explore_command2, "the old key loses to the new one");
    EXPECT_STRNE(open_file_command2, "also an old key");

    str_t text;
    str_init(&text);
    config_write_text(&text, false);
    EXPECT_EQ(scratch_str(&text), f.saved);
    str_kill(&text);

    ASSERT_TRUE(config_save(false));
    EXPECT_EQ(scratch_read(path), f.saved);
    EXPECT_FALSE(fs::exists(fs::path(path + ".tmp")));

    // Loading the saved file again gives the same variables and the same file.
    config_defaults();
    ASSERT_TRUE(config_load(path.c_str(), true, true));
    for (int i = 0; i < CONFIG_KEY_COUNT; i++) {
        EXPECT_EQ(key_value(&config_keys[i]), loaded[(size_t) i]) << config_keys[i].name;
    }
    ASSERT_EQ(config_ntfs_volumes.count, 2);
    EXPECT_STREQ(config_ntfs_volumes.items[1].path, "D:\\mnt, two");
    EXPECT_STREQ(config_ntfs_volumes.items[0].include_only, "C:\\a,C:\\b");
    EXPECT_STREQ(config_refs_volumes.items[0].include_only, " lead and tail ");
    EXPECT_STREQ(config_exclude_folders.items[2], "tab\there");
    EXPECT_EQ(translucent_selection_rectangle_border_color, 0x405060u);
    EXPECT_EQ(config_colors[25].foreground, 0xfefdfcu - 25);
    ASSERT_NE(config_binding_find("edit_copy_keys"), nullptr);
    EXPECT_EQ(config_binding_find("edit_copy_keys")->count, 2);
    EXPECT_EQ(config_binding_find("file_close_keys")->count, 0);
    ASSERT_TRUE(config_save(false));
    EXPECT_EQ(scratch_read(path), f.saved);
}

TEST_F(Config, TableShape) {
    std::set<std::string> names;
    int texts = 0;
    for (auto &k : config_keys) {
        names.insert(k.name);
        texts += k.type == CONFIG_TYPE_TEXT;
        if (k.type == CONFIG_TYPE_TEXT) {
            // Every text setting holds a real heap text after the defaults, never the shared buffer.
            EXPECT_NE(*(char **) k.target, config_empty_text) << k.name;
            EXPECT_STREQ(*(char **) k.target, "") << k.name;
        }
    }
    EXPECT_EQ(names.size(), (size_t) CONFIG_KEY_COUNT);
    EXPECT_EQ(texts, 50);
    EXPECT_STREQ(config_keys[0].name, "window_x");
    EXPECT_STREQ(config_keys[CONFIG_KEY_COUNT - 1].name, "service_pipe_name");
    for (auto &k : config_keys) {
        if (std::string(k.name) == "reuse_threads") {
            EXPECT_EQ(k.target, (void *) &reuse_threads);
        }
        if (std::string(k.name) == "index") {
            EXPECT_EQ(k.target, (void *) &index_setting);
        }
    }
    // A few defaults that a wrong type would spoil: a negative int, a byte above 127, all-ones hex.
    EXPECT_EQ(min_zoom, -6);
    EXPECT_EQ(db_update_thread_priority, 241);
    EXPECT_EQ(usn_record_filter, 0xFFFFFFFFu);
    EXPECT_TRUE(reuse_threads);
}

TEST_F(Config, ByteKeysTruncateAndTheBoolRowStaysABool) {
    std::string path = in_exe("Sablewatch.ini");
    scratch_write(path, "[Sablewatch]\nmatch_case=258\nreuse_threads=256\nshow_copy_name=-1\nalpha=300\n");
    ASSERT_TRUE(config_load(path.c_str(), false, false));
    EXPECT_EQ(match_case, 2);
    EXPECT_FALSE(reuse_threads); // 256 truncates to 0
    EXPECT_EQ(show_copy_name, 255);
    EXPECT_EQ(alpha, 300); // a 32-bit key keeps it
    scratch_write(path, "[Sablewatch]\nreuse_threads=3\n");
    ASSERT_TRUE(config_load(path.c_str(), false, false));
    EXPECT_TRUE(reuse_threads);
    EXPECT_EQ(*(const uint8_t *) (const void *) &reuse_threads, 1);
}

TEST_F(Config, ValuesKeepTheirBlanksAndLineFeedsAreCutOnSaving) {
    std::string path = in_exe("Sablewatch.ini");
    scratch_write(path, "[sablewatch]\nsearch=  two blanks  \nSort=first\nsort=second\n");
    ASSERT_TRUE(config_load(path.c_str(), true, true));
    EXPECT_STREQ(search, "  two blanks  ");
    EXPECT_STREQ(sort, "second");

    mem_free(search);
    search = mem_dup("first line\nsecond line", 22);
    ASSERT_TRUE(config_save(false));
    std::string saved = scratch_read(path);
    EXPECT_NE(saved.find("\r\nsearch=first line\r\nshow_number_of_results_with_selection="),
              std::string::npos);
    EXPECT_EQ(saved.find("second line"), std::string::npos);
}

TEST_F(Config, MissingAndEmptyFiles) {
    std::string path = in_exe("missing.ini");
    EXPECT_FALSE(config_load(path.c_str(), true, true));
    EXPECT_NE(log_text().find("failed to load config " + path + " "), std::string::npos);

    std::string empty = in_exe("empty.ini");
    scratch_write(empty, "; nothing here\n[Sablewatch]\n# window_x=5\nwindow_x\n[Other]\nwindow_x=9\n");
    EXPECT_FALSE(config_load(empty.c_str(), true, true));
    EXPECT_NE(log_text().find("failed to load config empty ini"), std::string::npos);
    EXPECT_EQ(window_x, 0);
}

TEST_F(Config, OldCommandKeys) {
    std::string path = in_exe("Sablewatch.ini");
    scratch_write(path, "[Sablewatch]\nexplore_command=old explore\nopen_folder_path_command=old path\n"
                        "explore_path_command=\nopen_file_command=old file\nopen_file_command2=new file\n"
                        "open_folder_command=old folder\n");
    ASSERT_TRUE(config_load(path.c_str(), false, false));
    EXPECT_STREQ(explore_command2, "old explore");
    EXPECT_STREQ(open_path_command2, "old path");
    EXPECT_STREQ(explore_path_command2, "");
    EXPECT_STREQ(open_file_command2, "new file");
    EXPECT_STREQ(open_folder_command2, "old folder");
    ASSERT_TRUE(config_save(false));
    std::string saved = scratch_read(path);
    EXPECT_EQ(saved.find("explore_command="), std::string::npos);
    EXPECT_NE(saved.find("explore_command2=old explore\r\n"), std::string::npos);
}

TEST_F(Config, ColoursBoldAndBindings) {
    std::string path = in_exe("Sablewatch.ini");
    scratch_write(path, "[Sablewatch]\n"
                        "normal_background_color=#abc\nnormal_foreground_color=nonsense\n"
                        "highlighted_bold=\nnormal_bold=7\nselected_highlighted_bold=0\n"
                        "preview_background_color=123456\n"
                        "view_zoom_reset_keys=48,512, 0x230 ;0\nfile_close_keys=0\n");
    ASSERT_TRUE(config_load(path.c_str(), false, false));
    EXPECT_EQ(config_colors[0].background, 0xaabbccu);
    EXPECT_EQ(config_colors[0].foreground, CONFIG_COLOR_UNSET);
    EXPECT_EQ(config_colors[0].weight, CONFIG_WEIGHT_BOLD);
    EXPECT_EQ(config_colors[1].weight, CONFIG_WEIGHT_BOLD); // empty: the default stays
    EXPECT_EQ(config_colors[5].weight, CONFIG_WEIGHT_NORMAL);
    EXPECT_EQ(preview_background_color, 0x123456u);
    const config_binding_t *b = config_binding_find("view_zoom_reset_keys");
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(b->count, 2);
    EXPECT_EQ(b->values[0], 48u);
    EXPECT_EQ(b->values[1], 0x230u);
    ASSERT_TRUE(config_save(false));
    std::string saved = scratch_read(path);
    EXPECT_NE(
        saved.find("\r\nnormal_background_color=#aabbcc\r\nnormal_foreground_color=\r\nnormal_bold=1\r\n"),
        std::string::npos);
    EXPECT_NE(saved.find("\r\nfile_close_keys=\r\nview_zoom_reset_keys=48,560\r\n"), std::string::npos);
    const std::string last = "view_zoom_reset_keys=48,560\r\n";
    EXPECT_EQ(saved.substr(saved.size() - last.size()), last) << "the bindings come last";
}

TEST_F(Config, PerUserFileBehindAStub) {
    std::string stub = in_exe("Sablewatch.ini");
    scratch_write(stub,
                  "[Sablewatch]\napp_data=1\nrun_as_admin=1\nallow_http_server=0\nwindow_x=5\nwindow_y=6\n");
    fs::create_directories(fs::path(user_dir));
    scratch_write(in_user("Sablewatch.ini"),
                  "[Sablewatch]\napp_data=0\nrun_as_admin=0\nallow_http_server=1\nwindow_x=77\n");
    ASSERT_TRUE(config_load(stub.c_str(), true, true));
    EXPECT_EQ(app_data, 1);
    EXPECT_EQ(run_as_admin, 1);      // the user's file can't change it
    EXPECT_EQ(allow_http_server, 0); // nor this
    EXPECT_EQ(window_x, 77);
    EXPECT_EQ(window_y, 0); // the stub's other keys are not read

    str_t folder;
    str_init(&folder);
    config_settings_folder(&folder);
    EXPECT_EQ(scratch_str(&folder), user_dir);
    str_kill(&folder);

    ASSERT_TRUE(config_save(true));
    EXPECT_EQ(scratch_read(stub),
              "; Please make sure Sablewatch is not running before modifying this file.\r\n"
              "[Sablewatch]\r\n"
              "; settings stored in %APPDATA%\\Sablewatch\\Sablewatch.ini\r\n"
              "app_data=1\r\n"
              "run_as_admin=1\r\n"
              "allow_http_server=0\r\n"
              "allow_stp_server=1\r\n");
    ASSERT_TRUE(config_save(false));
    std::string user = scratch_read(in_user("Sablewatch.ini"));
    EXPECT_EQ(user.rfind("; Please make sure Sablewatch is not running before modifying this file.\r\n"
                         "[Sablewatch]\r\nwindow_x=77\r\n",
                         0),
              0u);
    EXPECT_EQ(user.find("run_as_admin"), std::string::npos);
    EXPECT_EQ(user.find("app_data"), std::string::npos);
}

TEST_F(Config, RedirectionNeedsItsFlagAndAPerUserFolder) {
    std::string stub = in_exe("Sablewatch.ini");
    scratch_write(stub, "[Sablewatch]\napp_data=1\nrun_as_admin=1\nwindow_x=5\n");
    ASSERT_TRUE(config_load(stub.c_str(), false, false));
    EXPECT_EQ(app_data, 0);
    EXPECT_EQ(run_as_admin, 0);
    EXPECT_EQ(window_x, 5);

    config_defaults();
    config_set_folders(exe_dir.c_str(), "");
    ASSERT_TRUE(config_load(stub.c_str(), true, false));
    EXPECT_EQ(app_data, 0);
    EXPECT_EQ(window_x, 5);

    // With the flag and a folder, but no file there yet: the load fails and the defaults stay.
    config_defaults();
    config_set_folders(exe_dir.c_str(), user_dir.c_str());
    EXPECT_FALSE(config_load(stub.c_str(), true, true));
    EXPECT_EQ(app_data, 1);
    EXPECT_EQ(run_as_admin, 1);
    EXPECT_EQ(window_x, 0);
    // The first save creates the per-user folder.
    ASSERT_TRUE(config_save(false));
    EXPECT_TRUE(fs::exists(fs::path(in_user("Sablewatch.ini"))));
}

TEST_F(Config, ReadOnlyTargetSavesSilently) {
    std::string path = in_exe("Sablewatch.ini");
    scratch_write(path, "[Sablewatch]\nwindow_x=1\n");
    fs::permissions(fs::path(path), fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    window_x = 2;
    EXPECT_TRUE(config_save(false));
    EXPECT_EQ(scratch_read(path), "[Sablewatch]\nwindow_x=1\n");
    EXPECT_FALSE(fs::exists(fs::path(path + ".tmp")));
    EXPECT_NE(log_text().find(path + " is readonly, abort config save\r\n"), std::string::npos);
}

TEST_F(Config, CommandLineFileIsWrittenDirectly) {
    std::string path = join(join(join(root, "deep"), "er"), "custom.ini");
    config_set_command_line(path.c_str(), nullptr);
    window_x = 12;
    ASSERT_TRUE(config_save(true)); // the stub has no meaning here: nothing is written
    EXPECT_FALSE(fs::exists(fs::path(path)));
    ASSERT_TRUE(config_save(false));
    EXPECT_NE(scratch_read(path).find("\r\nwindow_x=12\r\n"), std::string::npos);
    EXPECT_FALSE(fs::exists(fs::path(path + ".tmp")));
    EXPECT_FALSE(fs::exists(fs::path(in_exe("Sablewatch.ini"))));

    fs::permissions(fs::path(path), fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write,
                    fs::perm_options::remove);
    window_x = 13;
    EXPECT_TRUE(config_save(false));
    EXPECT_NE(scratch_read(path).find("\r\nwindow_x=12\r\n"), std::string::npos);
}

TEST_F(Config, SaveFailures) {
    // The target is a folder: the temporary file is written and the rename fails.
    std::string target = in_exe("Sablewatch.ini");
    fs::create_directories(fs::path(target));
    scratch_write(join(target, "inside"), "x");
    EXPECT_FALSE(config_save(false));
    EXPECT_NE(log_text().find("failed to rename config file " + target + ".tmp to " + target + " "),
              std::string::npos);
    EXPECT_FALSE(fs::exists(fs::path(target + ".tmp")));

    // The folder beside the executable is gone: the temporary file can't be made.
    config_set_folders(join(root, "gone").c_str(), user_dir.c_str());
    EXPECT_FALSE(config_save(true));
    EXPECT_NE(
        log_text().find("failed to create config file " + join(join(root, "gone"), "Sablewatch.ini.tmp")),
        std::string::npos);

    // Once saved on the way out, further saves do nothing and succeed.
    config_saved_on_exit = true;
    EXPECT_TRUE(config_save(true));
    EXPECT_FALSE(fs::exists(fs::path(join(root, "gone"))));
}

TEST_F(Config, InstanceNamesTheFile) {
    config_set_command_line(nullptr, "a:b*c\\d");
    str_t name;
    str_init(&name);
    config_file_name(&name);
    EXPECT_EQ(scratch_str(&name), "Sablewatch-a%3Ab%2Ac%5Cd.ini");
    str_kill(&name);
    ASSERT_TRUE(config_save(false));
    EXPECT_TRUE(fs::exists(fs::path(in_exe("Sablewatch-a%3Ab%2Ac%5Cd.ini"))));
}

TEST_F(Config, DefaultColumnWidthsFollowTheScreen) {
    config_defaults();
    int32_t at96 = config_columns[0].width;
    config_screen_ppi = 144;
    config_defaults();
    EXPECT_EQ(config_columns[0].width, at96 * 144 / 96);
    EXPECT_EQ(config_columns[2].width, 96 * 144 / 96);
    config_screen_ppi = 96;
}

} // namespace

namespace {

TEST_F(Config, PathsResolveAgainstTheSettingsFolder) {
    str_t out;
    str_init(&out);
    config_resolve_path("Sablewatch.db", &out);
    EXPECT_EQ(scratch_str(&out), join(exe_dir, "Sablewatch.db"));
    config_resolve_path("", &out);
    EXPECT_EQ(scratch_str(&out), exe_dir);
    config_resolve_path(user_dir.c_str(), &out); // already absolute
    EXPECT_EQ(scratch_str(&out), user_dir);
    app_data = 1;
    config_resolve_path("sub" OS_SEP_STR "x.db", &out);
    EXPECT_EQ(scratch_str(&out), join(join(user_dir, "sub"), "x.db"));
#ifdef _WIN32
    // A rooted path without a drive lies on the settings folder's drive.
    config_set_folders("D:\\apps\\sw", "E:\\profile");
    config_resolve_path("\\data\\x.db", &out);
    EXPECT_EQ(scratch_str(&out), "E:\\data\\x.db");
#endif
    str_kill(&out);
}

} // namespace
