// Whole command lines against every field of the parsed result: each switch of the table, each prefix
// form, quoting, the later-wins rules and bad input.
#include "describe.h"

#include "debug/debug.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace {

struct line_case {
    const char *line;
    const char *expected; // test_describe's form, with {B}, {/} and {E} placeholders
};

const line_case cases[] = {
    // Type 0: flag bits.
    {"-?", "flags=0x800"},
    {"-h -help", "flags=0x800"},
    {"-admin", "flags=0x4000"},
    {"-choose-language", "flags=0x100"},
    {"-client-svc", "flags=0x20000"},
    {"-close", "flags=0x200000"},
    {"-console -debug", "flags=0x8"},
    {"-debug-log", "flags=0x1000000"},
    {"-exit", "flags=0x4"},
    {"-quit -home", "flags=0x400004"},
    {"-is-run-as", "flags=0x40000"},
    {"-isrunas", "flags=0x40000"},
    {"-no-db", "flags=0x10"},
    {"-nodb", "flags=0x10"},
    {"-read-only -reindex", "flags=0x11000"},
    {"-rescan-all", "flags=0x8000000"},
    {"-startup -svc", "flags=0x2002"},
    {"-toggle-window", "flags=0x800000"},
    {"-uninstall-user", "flags=0x8000"},
    {"-update", "flags=0x40"},
    // Type 1 and 6: on and off, "no-" with or without its hyphen, the later switch winning.
    {"-app-data", "on=0x80000"},
    {"-no-app-data", "off=0x80000"},
    {"-case -diacritics -match-path -regex", "on=0x1b000"},
    {"-case -no-case", "off=0x2000"},
    {"-nocase -case", "on=0x2000"},
    {"-choose-volumes -first-instance", "on=0x900000"},
    {"-no-first-instance", "off=0x800000"},
    {"-fullscreen -maximized -minimized -ontop", "on=0x200e00"},
    {"-nofullscreen -nomaximized -nominimized -noontop", "off=0x200e00"},
    {"-n", "on=0x100"},
    {"-new-window -nonewwindow", "off=0x100"},
    {"-no-n", "off=0x100"},
    {"-verbose", "on=0x40000"},
    {"-no-verbose", "off=0x40000"},
    {"-noverbose", "off=0x40000"},
    {"-whole-word -noww", "off=0x4000"},
    {"-nowholeword -ww", "on=0x4000"},
    {"-matchpath", "on=0x8000"},
    // Type 2: install items, only through their prefixes.
    {"-install-all-users-start-menu-shortcuts -uninstall-all-users-desktop-shortcut", "on=0x2; off=0x8"},
    {"-install-desktop-shortcut -install-swl-association", "on=0x20008"},
    {"-uninstall-folder-context-menu -uninstall-quick-launch-shortcut", "off=0x14"},
    {"-installrunonsystemstartup -install-start-menu-shortcuts -install-url-protocol", "on=0x62"},
    {"-uninstall-url-protocol -install-url-protocol", "on=0x20"},
    {"-desktop-shortcut", ""},
    // Type 3: options, only through enable- and disable-.
    {"-enable-run-as-admin -disable-update-notification", "on=0x400000; off=0x80"},
    {"-enable_update_notification", "on=0x80"},
    {"-run-as-admin", ""},
    // The same name written in the ways a user may write it.
    {"-enable-runasadmin", "on=0x400000"},
    {"/enable_run_as_admin", "on=0x400000"},
    {"--enable-run-as-admin", "on=0x400000"},
    {"-ENABLE-Run-As-Admin", "on=0x400000"},
    // Type 4.
    {"-f list.swl -l", "flags=0x400"},
    {"-local", "flags=0x400"},
    {"-l x.swl", "flags=0x400; file_list={B}{/}x.swl"},
    {"-details", "flags=0x80000"},
    {"-thumbnails", "flags=0x100000"},
    {"-thumbnails -details", "flags=0x80000"},
    {"-details -thumbnails", "flags=0x100000"},
    {"-path-instance", "instance={E}"},
    {"-version-instance", "instance=1.4.1.1031"},
    {"-focus-last-run-result", "focus=1"},
    {"-focus-most-run-result", "focus=2"},
    {"-focus-top-result", "focus=3"},
    {"-focus-bottom-result", "focus=4"},
    {"-focus-results", "focus=5"},
    {"-monitor-pause", "on=0x4000000"},
    {"-monitor-pause -monitor-resume", "off=0x4000000"},
    {"-rename a -case \"b c\"", "file_op=1; path={B}{/}a; path={B}{/}-case; path={B}{/}b c"},
    {"-case -moveto sub/x", "on=0x2000; file_op=2; path={B}{/}sub{/}x"},
    {"-copyto", "file_op=3"},
    // Type 5: texts, paths made absolute, numbers.
    {"-bookmark \"my mark\"", "bookmark=my mark"},
    {"-config sub/x.ini", "config={B}{/}sub{/}x.ini"},
    {"-config sub/../x.ini", "config={B}{/}x.ini"},
    {"-connect user:pw@host:21", "connect=user:pw@host:21"},
    {"-create-file-list-exclude-files *.tmp;*.bak -create-file-list-exclude-folders .git "
     "-create-file-list-include-only-files *.c",
     "create_file_list_exclude_files=*.tmp;*.bak; create_file_list_exclude_folders=.git; "
     "create_file_list_include_only_files=*.c"},
    {"-db x.db", "db={B}{/}x.db"},
    {"-delete-usn-journal D:", "journal=2,D:,0,0"},
    {"-edit list.swl", "edit={B}{/}list.swl"},
    {"-f a.swl", "file_list={B}{/}a.swl"},
    {"-file-list a.swl -file-list b.swl", "file_list={B}{/}b.swl"},
    {"-filter Audio", "filter=Audio"},
    {"-install inst", "install={B}{/}inst"},
    {"-install-config extra.ini", "install_config={B}{/}extra.ini"},
    {"-install-language 1031", "install_language=1031"},
    {"-install-options \"-a -b\"", "install_options=-a -b"},
    {"-install-service-pipe-name p -install-service-port 99 -install-service-security-descriptor D:P",
     "install_service_pipe_name=p; install_service_security_descriptor=D:P"},
    {"-instance one -instance two", "instance=two"},
    {"/instance \"a b\"", "instance=a b"},
    {"-language 0x409", "language=1033"},
    {"-language -3", "language=-3"},
    {"-link-type 2", "link_type=2"},
    {"-load-delay 1500ms", "load_delay=1500"},
    {"-save-install-options 5", "install_options_value=5"},
    {"-select item.txt", "select={B}{/}item.txt"},
    {"-service-pipe-name pn -service-port 5", "service_pipe_name=pn"},
    {"-svc-pipe-name x -svc-port 80 -svc-security-descriptor sd",
     "svc_pipe_name=x; svc_security_descriptor=sd"},
    {"-svc-port 80", ""},
    {"-thumbnail-size 128", "thumbnail_size=128"},
    {"-uninstall dir", "uninstall={B}{/}dir"},
    {"-uninstall", "uninstall={E}"},
    // Search parts: one per kind, a later one of a kind taking the earlier one's place.
    {"-s foo", "part=0:foo"},
    {"-search \"a b\"", "part=0:a b"},
    {"-s -case", "part=0:-case"},
    {"-url sw://foo%20bar/", "part=0:foo bar"},
    {"-s a -p dir -s b", "part=0:b; part=1:{B}{/}dir{/}"},
    {"-path dir -parent up -name-part dir/file.txt -search-file-list names.txt",
     "part=1:{B}{/}dir{/}; part=2:{B}{/}up; part=3:file.txt; part=4:{B}{/}names.txt"},
    {"-parent-path dir/file.txt", "part=1:{B}{/}dir{/}"},
    {"-filename missing.txt", "part=1:{B}{/}missing.txt"},
    {"-p ::{20d04fe0-3aea-1069-a2d8-08002b30309d}", "part=1:"},
    // -sort with its direction words.
    {"-sort size", "sort=2"},
    {"-sort name-descending", "sort_dir=-1; sort=0"},
    {"-sort \"Date Modified\"ascending", "sort_dir=1; sort=5"},
    {"-sort run-count", "sort=10"},
    {"-sort nonsense", "sort=0"},
    {"-sort-descending -sort-ascending", "sort_dir=1"},
    {"-sort-descending", "sort_dir=-1"},
    // Types 7, 8, 10.
    {"-install-service", "service_op=1"},
    {"-uninstall-service", "service_op=2"},
    {"-start-service", "service_op=3"},
    {"-stop-service", "service_op=4"},
    {"-install-client-service", "client_service_op=1"},
    {"-uninstall-client-service", "client_service_op=2"},
    {"-start-client-service", "client_service_op=3"},
    {"-stop-client-service", "client_service_op=4"},
    {"-drive-links", "link_type=0"},
    {"-admin-server-share-links", "link_type=2"},
    {"-ftp-links", "link_type=3"},
    {"-ftp-links -server-share-links", ""},
    // Types 9 and 13.
    {"-create-file-list out.swl dir",
     "create_file_list_filename={B}{/}out.swl; create_file_list_path={B}{/}dir"},
    {"-create-usn-journal C: 33554432 0x800000", "journal=1,C:,33554432,8388608"},
    {"-create-usn-journal C: 8589934592 0 -delete-usn-journal E:",
     "journal=1,C:,8589934592,0; journal=2,E:,0,0"},
    // Positional arguments; a quoted token is never a switch.
    {"x.swl", "file_list={B}{/}x.swl"},
    {"\"-case\"", "file_list={B}{/}-case"},
    {"\"\"\"q\"\"\"", "file_list={B}{/}\"q\""},
    {"  -case\t\r\n-regex  ", "on=0x3000"},
    // Bad input: the error bits, and the parse stops where it went wrong.
    {"-bogus", "flags=0x4000800"},
    {"-case -bogus -regex", "flags=0x4000800; on=0x2000"},
    {"-no-install-service", "flags=0x4000800"},
    {"-no-exit", "flags=0x4000800"},
    {"-no-desktop-shortcut", "flags=0x4000800"},
    {"-install-case", "flags=0x4000800"},
    {"-enable-verbose", "flags=0x4000800"},
    {"-uninstall-run-as-admin", "flags=0x4000800"},
    {"-disable-desktop-shortcut", "flags=0x4000800"},
    {"-run--as-admin", "flags=0x4000800"},
    {"-verbosex", "flags=0x4000800"},
    {"-", "flags=0x4000800"},
    {"-s", "flags=0x4000800"},
    {"-case -config", "flags=0x4000800; on=0x2000"},
    {"-create-file-list only.swl", "flags=0x4000800; create_file_list_filename={B}{/}only.swl"},
    {"-create-file-list", "flags=0x4000800"},
    {"-create-usn-journal", "flags=0x4000800"},
    {"-create-usn-journal C:", "flags=0x4000800; journal=1,C:,0,0"},
    {"-create-usn-journal C: 100", "flags=0x4000800; journal=1,C:,100,0"},
    {"", ""},
};

TEST(CommandLine, EveryCaseOfTheTable) {
    for (const line_case &c : cases) {
        EXPECT_EQ(test_parse(c.line), test_expand(c.expected)) << "command line: " << c.line;
    }
}

// Guards the table above: each switch must stand in at least one of its lines.
TEST(CommandLine, TableCoversEverySwitch) {
    std::set<const cl_switch_t *> seen;
    str_t tok;
    str_init(&tok);
    for (const line_case &c : cases) {
        const char *p = c.line;
        bool quoted;
        while ((p = cl_next_token(p, &tok, &quoted)) != nullptr) {
            if (quoted || (tok.ptr[0] != '-' && tok.ptr[0] != '/')) {
                continue;
            }
            std::string name(tok.ptr + (tok.ptr[1] == '-' ? 2 : 1));
            for (char &ch : name) {
                ch = ch == '_' ? '-' : ch;
            }
            int form;
            const cl_switch_t *row = cl_switch_lookup(name.c_str(), (int) name.size(), &form);
            if (row) {
                seen.insert(row);
            }
        }
    }
    str_kill(&tok);
    for (const cl_switch_t &row : cl_switches) {
        EXPECT_TRUE(seen.count(&row)) << "no line uses -" << row.name;
    }
}

TEST(CommandLine, ProgramNameIsSkippedUnlessTheLineStartsWithASwitch) {
    cl_t *cl = cl_parse("\"C:\\Program Files\\Sablewatch\\Sablewatch.exe\" -case x.swl", test_base(), false);
    EXPECT_EQ(test_describe(cl), test_expand("on=0x2000; file_list={B}{/}x.swl"));
    cl_free(cl);
    // As a switch line the same first token is a quoted positional argument.
    cl = cl_parse("\"prog\" -case", test_base(), true);
    EXPECT_EQ(test_describe(cl), test_expand("on=0x2000; file_list={B}{/}prog"));
    cl_free(cl);
    cl = cl_parse(nullptr, test_base(), false);
    EXPECT_EQ(test_describe(cl), "");
    cl_free(cl);
}

TEST(CommandLine, WithoutABaseRelativePathsFollowTheCurrentFolder) {
    str_t cwd, expected;
    str_init(&cwd);
    str_init(&expected);
    os_current_folder(&cwd);
    cl_path_absolute(&expected, "x.ini", cwd.ptr, OS_SEP);
    cl_t *cl = cl_parse("-config x.ini", nullptr, true);
    ASSERT_NE(cl->config, nullptr);
    EXPECT_STREQ(cl->config, expected.ptr);
    cl_free(cl);
    str_kill(&expected);
    str_kill(&cwd);
}

// -filename asks the file system whether the path is a folder; the executable's folder surely is one.
TEST(CommandLine, FilenameEndsInASeparatorOnlyForAFolder) {
    std::string exe = test_exe_folder();
    std::string line = "-filename \"" + exe + "\"";
    cl_t *cl = cl_parse(line.c_str(), test_base(), true);
    ASSERT_NE(cl->search_parts, nullptr);
    EXPECT_EQ(std::string(cl->search_parts->text), exe + OS_SEP);
    cl_free(cl);

    line = "-filename \"" + exe + OS_SEP + "no such file.txt" + OS_SEP + "\"";
    cl = cl_parse(line.c_str(), test_base(), true);
    ASSERT_NE(cl->search_parts, nullptr);
    EXPECT_EQ(std::string(cl->search_parts->text), exe + OS_SEP + "no such file.txt");
    cl_free(cl);
}

// Where '/' is the separator an unknown token beginning with '/' is an absolute path; elsewhere it is an
// unknown switch. Underscores of such a path must survive.
TEST(CommandLine, SlashTokenThatNamesNoSwitch) {
    std::string r = test_parse("/data/my_lists/a.swl");
    if (OS_SEP == '/') {
        EXPECT_EQ(r, "file_list=/data/my_lists/a.swl");
    } else {
        EXPECT_EQ(r, "flags=0x4000800");
    }
    // A known name wins over a path reading on every platform.
    EXPECT_EQ(test_parse("/verbose"), "on=0x40000");
}

TEST(CommandLine, HandedOverLineResolvesAgainstTheSendersFolder) {
    const char *sender = OS_SEP == '\\' ? "D:\\work\\proj" : "/work/proj";
    cl_t *cl = cl_parse("Sablewatch.exe lists\\a.swl", sender, false);
    ASSERT_NE(cl->file_list, nullptr);
    if (OS_SEP == '\\') {
        EXPECT_STREQ(cl->file_list, "D:\\work\\proj\\lists\\a.swl");
    } else {
        // A backslash is a character of a Linux name.
        EXPECT_STREQ(cl->file_list, "/work/proj/lists\\a.swl");
    }
    cl_free(cl);
}

} // namespace

namespace {

// The log lines are what a user reads when a command line goes wrong, so their texts are checked.
TEST(CommandLine, LogLinesOfAParse) {
    str_t path;
    str_init(&path);
    os_temp_folder(&path);
    str_cat_printf(&path, "%ccl-log-%u.txt", OS_SEP, (unsigned) os_tick_ms());
    debug_init();
    ASSERT_TRUE(debug_open_log_path(path.ptr));
    cl_free(cl_parse("-case -bogus_switch", test_base(), true));
    cl_free(cl_parse("-s", test_base(), true));
    cl_free(cl_parse("-create-usn-journal", test_base(), true));
    cl_free(cl_parse("-create-usn-journal C:", test_base(), true));
    cl_free(cl_parse("-create-usn-journal C: 1", test_base(), true));
    debug_close_log();

    std::string log;
    FILE *f = fopen(path.ptr, "rb");
    ASSERT_NE(f, nullptr);
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        log.append(buf, n);
    }
    fclose(f);
    os_file_delete(path.ptr);
    str_kill(&path);

    const char *expected[] = {
        ": cl: -case -bogus_switch\r\n",
        ": unknown command line switch -bogus_switch\r\n",
        ": cl: -s\r\n",
        ": expected argument for switch\r\n",
        ": expected volume\r\n",
        ": expected max-size\r\n",
        ": expected allocation-delta\r\n",
    };
    size_t at = 0;
    for (const char *line : expected) {
        size_t found = log.find(line, at);
        EXPECT_NE(found, std::string::npos) << "missing or out of order: " << line << "\nlog:\n" << log;
        if (found != std::string::npos) {
            at = found;
        }
    }
}

} // namespace
