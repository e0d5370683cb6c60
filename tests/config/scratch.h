// Test helpers for the settings tests: a scratch folder per test, whole-file reads and writes, and a
// captured debug log so that tests can check the failure texts.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "config/config.h"
#include "debug/debug.h"
#include "mem/mem.h"
#include "os/os.h"

namespace fs = std::filesystem;

// Scratch paths are plain ASCII, so std::filesystem's narrow form is safe on both platforms.
inline std::string join(const std::string &a, const std::string &b) {
    return a + OS_SEP_STR + b;
}

inline std::string scratch_read(const std::string &path) {
    std::ifstream f(fs::path(path), std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

inline void scratch_write(const std::string &path, const std::string &text) {
    std::ofstream f(fs::path(path), std::ios::binary | std::ios::trunc);
    f << text;
}

inline std::string scratch_str(const str_t *s) {
    return std::string(s->ptr, (size_t) s->len);
}

// Every test starts from the defaults with two folders of its own, one standing for the executable's
// folder and one for the per-user folder, and a log file that it can read back.
class ConfigTest : public ::testing::Test {
  protected:
    std::string root, exe_dir, user_dir, log_path;

    void SetUp() override {
        debug_init();
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        const ::testing::TestInfo *info = ::testing::UnitTest::GetInstance()->current_test_info();
        root =
            join(scratch_str(&tmp), std::string("sw-config-") + info->test_suite_name() + "-" + info->name());
        str_kill(&tmp);
        fs::remove_all(fs::path(root));
        exe_dir = join(root, "exe");
        user_dir = join(root, "user");
        fs::create_directories(fs::path(exe_dir));
        log_path = join(root, "log.txt");
        debug_open_log_path(log_path.c_str());
        config_defaults();
        config_set_folders(exe_dir.c_str(), user_dir.c_str());
    }

    void TearDown() override {
        debug_close_log();
        config_kill();
        std::error_code ec;
        fs::permissions(fs::path(root), fs::perms::owner_all, fs::perm_options::add, ec);
        for (auto &e : fs::recursive_directory_iterator(fs::path(root), ec)) {
            fs::permissions(e.path(), fs::perms::owner_all, fs::perm_options::add, ec);
        }
        fs::remove_all(fs::path(root), ec);
    }

    std::string log_text() { return scratch_read(log_path); }
    std::string in_exe(const char *name) { return join(exe_dir, name); }
    std::string in_user(const char *name) { return join(user_dir, name); }
};
