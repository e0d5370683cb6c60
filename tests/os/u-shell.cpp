// Known folders: every name of the table resolves to an absolute folder, aliases agree, the "shell:"
// prefix, case and trailing separators don't matter, unknown names fail. On Linux the XDG rules are
// checked against a private HOME with its own user-dirs.dirs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "os/os_shell.h"
#include "os_test_util.h"

namespace {

// The folder of a name, or "<none>".
std::string known(const char *name) {
    str_t s;
    str_init(&s);
    str_set(&s, "stale");
    bool ok = os_known_folder(name, &s);
    std::string v = ok ? os_test_text(&s) : "<none>";
    if (!ok) {
        EXPECT_EQ(s.len, 0) << name;
    }
    str_kill(&s);
    return v;
}

std::string lower(std::string s) {
    for (char &c : s) {
        c = (c >= 'A' && c <= 'Z') ? (char) (c + 32) : c;
    }
    return s;
}

// A folder as the prefix of what lies below it ("/" stays "/").
std::string below(const std::string &folder) {
    return !folder.empty() && folder.back() == OS_SEP ? folder : folder + OS_SEP;
}

#ifndef _WIN32
// Sets environment variables for one test and puts the old values back.
struct env_guard {
    static const int count = 5;
    const char *names[count] = {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "TMPDIR"};
    std::string saved[count];
    bool had[count] = {};

    env_guard() {
        for (int i = 0; i < count; i++) {
            const char *v = getenv(names[i]);
            had[i] = v != nullptr;
            saved[i] = v ? v : "";
        }
    }
    ~env_guard() {
        for (int i = 0; i < count; i++) {
            if (had[i]) {
                setenv(names[i], saved[i].c_str(), 1);
            } else {
                unsetenv(names[i]);
            }
        }
    }
};
#endif

} // namespace

TEST(OsShell, NamesResolveToAbsoluteFoldersAndAliasesAgree) {
#ifndef _WIN32
    // The machine's own HOME may be "/" or unset, and its user-dirs file may put Downloads anywhere: the
    // names are resolved for a private home that has none.
    env_guard env;
    os_test_folder dir;
    std::string home = dir.file("home");
    os_folder_create_path(home.c_str());
    setenv("HOME", home.c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_DATA_HOME");
    unsetenv("XDG_CACHE_HOME");
#endif
    static const char *const names[] = {"Desktop",  "Personal",      "Downloads", "My Music", "My Pictures",
                                        "My Video", "Templates",     "Public",    "Profile",  "UserProfiles",
                                        "AppData",  "Local AppData", "Programs",  "Startup",  "Temp"};
    for (const char *name : names) {
        std::string v = known(name);
        ASSERT_NE(v, "<none>") << name;
        EXPECT_TRUE(os_path_is_absolute(v.c_str())) << name << " " << v;
        // No trailing separator, except at a drive's top.
        if (v.size() > 3) {
            EXPECT_NE(v.back(), OS_SEP) << name << " " << v;
        }
    }
    static const char *const aliases[][4] = {
        {"Personal", "Documents", "My Documents", "documents"},
        {"My Music", "Music", "MUSIC", "shell:my music"},
        {"My Video", "Videos", "Video", "shell:Videos"},
        {"Downloads", "shell:downloads", "Downloads\\", "Downloads/"},
        {"Profile", "UsersFilesFolder", "profile", "SHELL:Profile"},
        {"Local AppData", "LocalAppData", "local appdata", "localappdata"},
    };
    for (const auto &row : aliases) {
        for (int i = 1; i < 4; i++) {
            EXPECT_EQ(known(row[i]), known(row[0])) << row[i];
        }
    }
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    EXPECT_EQ(known("Temp"), os_test_text(&tmp));
    str_kill(&tmp);
    // The user's own folders lie below the profile, and the profile among the profiles (compared
    // without case: Windows keeps "C:\Users" and "C:\users" apart in spelling only).
    std::string profile = lower(known("Profile")), profiles = lower(known("UserProfiles"));
    std::string downloads = lower(known("Downloads"));
    EXPECT_EQ(downloads.compare(0, below(profile).size(), below(profile)), 0) << downloads;
    EXPECT_EQ(profile.compare(0, below(profiles).size(), below(profiles)), 0) << profile << " " << profiles;
    static const char *const unknown[] = {"", "shell:", "No Such Folder", "Desktop2", "Desk", nullptr};
    for (const char *bad : unknown) {
        EXPECT_EQ(known(bad), "<none>") << (bad ? bad : "(null)");
    }
}

#ifndef _WIN32
TEST(OsShellXdg, UserDirsFileWithDefaultsForWhatItLeavesOut) {
    env_guard env;
    os_test_folder dir;
    std::string home = dir.file("home");
    std::string config = dir.file("home/.config");
    os_folder_create_path(config.c_str());
    ASSERT_TRUE(os_test_write_file(dir.file("home/.config/user-dirs.dirs"),
                                   "# written by xdg-user-dirs-update\n"
                                   "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
                                   "  XDG_DOWNLOAD_DIR=\"$HOME/My \\\"Files\\\"/dl/\"\n"
                                   "XDG_MUSIC_DIR=\"/srv/music\"\r\n"
                                   "XDG_PICTURES_DIR=\"relative/pics\"\n"
                                   "#XDG_VIDEOS_DIR=\"$HOME/commented\"\n"
                                   "XDG_TEMPLATES_DIR=\"$HOME\"\n"
                                   "XDG_PUBLICSHARE_DIR=\"$HOME/a\"\n"
                                   "XDG_PUBLICSHARE_DIR=\"$HOME/b\"\n"
                                   "XDG_DOCUMENTS_DIRX=\"$HOME/no\"\n"
                                   "XDG_DOCUMENTS_DIR=$HOME/Dokumente\n"
                                   "XDG_VIDEOS_DIR=\"$HOMEWORK/v\""));
    // A trailing separator on HOME is not carried into the paths.
    setenv("HOME", (home + "/").c_str(), 1);
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_DATA_HOME");
    unsetenv("XDG_CACHE_HOME");
    setenv("TMPDIR", "/var/tmp/", 1);
    static const struct {
        const char *name;
        const char *below_home; // null: absolute
        const char *path;
    } rows[] = {
        {"Desktop", "/Schreibtisch", nullptr},
        {"Downloads", "/My \"Files\"/dl", nullptr},
        {"My Music", nullptr, "/srv/music"},
        {"My Pictures", "/Pictures", nullptr}, // a relative value is no value
        {"Screenshots", "/Pictures/Screenshots", nullptr},
        {"My Video", "/Videos", nullptr},    // commented out, and $HOMEWORK is not $HOME
        {"Templates", "", nullptr},          // "$HOME" alone
        {"Public", "/b", nullptr},           // the last line wins
        {"Personal", "/Dokumente", nullptr}, // unquoted
        {"Profile", "", nullptr},
        {"AppData", "/.config", nullptr},
        {"Startup", "/.config/autostart", nullptr},
        {"Local AppData", "/.local/share", nullptr},
        {"Programs", "/.local/share/applications", nullptr},
        {"Trash", "/.local/share/Trash/files", nullptr},
        {"Cache", "/.cache", nullptr},
        {"UserProfiles", nullptr, dir.path.c_str()},
        {"Common Programs", nullptr, "/usr/share/applications"},
        {"Fonts", nullptr, "/usr/share/fonts"},
        {"Temp", nullptr, "/var/tmp"},
    };
    for (const auto &row : rows) {
        std::string want = row.below_home ? home + row.below_home : row.path;
        EXPECT_EQ(known(row.name), want) << row.name;
    }

    // The base folders from their variables; a relative one doesn't count. The user-dirs file is looked
    // for in the configuration folder, which now has none: every user folder takes its default.
    setenv("XDG_CONFIG_HOME", "/etc/nowhere/", 1);
    setenv("XDG_DATA_HOME", "/data", 1);
    setenv("XDG_CACHE_HOME", "cache", 1);
    EXPECT_EQ(known("AppData"), "/etc/nowhere");
    EXPECT_EQ(known("Startup"), "/etc/nowhere/autostart");
    EXPECT_EQ(known("LocalAppData"), "/data");
    EXPECT_EQ(known("RecycleBinFolder"), "/data/Trash/files");
    EXPECT_EQ(known("Cache"), home + "/.cache");
    EXPECT_EQ(known("Desktop"), home + "/Desktop");
    EXPECT_EQ(known("Downloads"), home + "/Downloads");
    EXPECT_EQ(known("Public"), home + "/Public");
    // The file is found through XDG_CONFIG_HOME too.
    setenv("XDG_CONFIG_HOME", config.c_str(), 1);
    EXPECT_EQ(known("Desktop"), home + "/Schreibtisch");
}
#endif

TEST(OsShell, FileByReferenceRefusesWhatItCantFind) {
    str_t name;
    str_init(&name);
    str_set(&name, "stale");
    uint64_t parent_low = 1, parent_high = 1;
    // No such volume: it can't be opened.
    EXPECT_EQ(os_volume_file_by_id(OS_SEP == '/' ? "/no/such/volume" : "Q:\\no\\such\\volume", 5, 0,
                                   &parent_low, &parent_high, &name),
              -1);
    EXPECT_EQ(name.len, 0);
    EXPECT_EQ(parent_low, 0u);
    EXPECT_EQ(os_volume_file_by_id(nullptr, 5, 0, &parent_low, &parent_high, &name), -1);
    // A volume that exists has no file with an absurd reference (or, on Linux, is never asked).
    str_t top;
    str_init(&top);
    os_temp_folder(&top);
    if (OS_SEP == '\\') {
        top.ptr[2] = 0, top.len = 2; // the drive: "C:"
    }
    int r = os_volume_file_by_id(top.ptr, 0x0000FFFFFFFFFFF0ull, 0, &parent_low, &parent_high, &name);
    EXPECT_LE(r, 0);
    EXPECT_EQ(name.len, 0);
    if (OS_SEP == '/') {
        EXPECT_EQ(r, -1);
    }
    str_kill(&top);
    str_kill(&name);
}

// The system's registry of media types: the common extensions in any case, and nothing for an empty or
// unknown one.
TEST(OsShell, ContentTypesOfCommonExtensions) {
    struct Case {
        const char *ext, *want;
    } cases[] = {
        {"txt", "text/plain"}, {"TXT", "text/plain"}, {"htm", "text/html"}, {"png", "image/png"},
        {"", nullptr},         {"no-such-extension-here", nullptr},
    };
    str_t out;
    str_init(&out);
    for (const Case &c : cases) {
        EXPECT_EQ(os_shell_content_type(c.ext, &out), c.want != nullptr) << c.ext;
        EXPECT_EQ(os_test_text(&out), c.want ? c.want : "") << c.ext;
    }
    str_kill(&out);
}
