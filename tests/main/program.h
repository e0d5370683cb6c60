// The real program beside the test executable, for tests that start it as a process of its own, and
// what those tests share: a scratch folder, files read and written whole, and the instance's hand-over
// endpoint.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "db/db.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os.h"
#include "os/os_main.h"

// The program's path: "sablewatch" (".exe" on Windows) in the test executable's folder.
inline std::string program_path() {
    str_t folder;
    str_init(&folder);
    os_exe_folder(&folder);
    std::string path = std::string(folder.ptr, (size_t) folder.len) + OS_SEP_STR + "sablewatch";
#ifdef _WIN32
    path += ".exe";
#endif
    str_kill(&folder);
    return path;
}

// Starts the program; null (with a failure recorded) when it could not be started.
inline os_process_t *program_start(const std::vector<const char *> &args) {
    os_process_t *p = os_process_start(program_path().c_str(), args.data(), (int) args.size());
    if (!p) {
        ADD_FAILURE() << "could not start " << program_path();
    }
    return p;
}

// Runs the program to its end and returns its exit code, or -1 when it had not ended after timeout_ms (a
// guard against a hang, never a measure).
inline int program_run(const std::vector<const char *> &args, uint32_t timeout_ms = 60000) {
    os_process_t *p = program_start(args);
    if (!p) {
        return -100;
    }
    int code = -1;
    if (!os_process_wait(p, timeout_ms, &code)) {
        code = -1;
    }
    os_process_destroy(p);
    return code;
}

// A new empty folder below the temporary folder, named after tag, the thread and the tick.
inline std::string program_scratch(const char *tag) {
    str_t tmp;
    str_init(&tmp);
    os_temp_folder(&tmp);
    std::string dir = std::string(tmp.ptr, (size_t) tmp.len) + OS_SEP_STR + "sw-" + tag + "-" +
                      std::to_string(os_thread_id()) + "-" + std::to_string(os_tick_ms());
    str_kill(&tmp);
    EXPECT_TRUE(os_folder_create_path(dir.c_str())) << dir;
    return dir;
}

inline void program_write(const std::string &path, const std::string &text) {
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    ASSERT_NE(f, OS_FILE_INVALID) << path;
    ASSERT_EQ(os_file_write(f, text.data(), text.size()), (int64_t) text.size());
    os_file_close(f);
}

inline std::string program_read(const std::string &path) {
    std::string out;
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) {
        return out;
    }
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        out.append(buf, n);
    }
    fclose(f);
    return out;
}

// Whether a running instance's hand-over endpoint answers.
inline bool program_reachable(const std::string &instance) {
    str_t cls, file;
    str_init(&cls);
    str_init(&file);
    main_window_class_name(&cls, instance.c_str());
    main_instance_escape(&file, cls.ptr);
    os_main_peer_t *peer = os_main_peer_find(cls.ptr, file.ptr);
    os_main_peer_close(peer);
    str_kill(&cls);
    str_kill(&file);
    return peer != nullptr;
}

// Waits up to 30 seconds for an instance to open its endpoint.
inline bool program_wait_reachable(const std::string &instance) {
    for (int i = 0; i < 300; i++) {
        if (program_reachable(instance)) {
            return true;
        }
        os_sleep_ms(100);
    }
    return false;
}

// Points the temporary folder of the programs started from now on at dir, so that a "-debug-log" log
// is this test's own. Restores the old value when it goes.
struct program_temp_folder_t {
#ifdef _WIN32
    static constexpr const char *names[2] = {"TMP", "TEMP"};
#else
    static constexpr const char *names[1] = {"TMPDIR"};
#endif
    std::vector<std::string> old;
    explicit program_temp_folder_t(const std::string &dir) {
        for (const char *name : names) {
            const char *v = getenv(name);
            old.push_back(v ? v : "");
            _set(name, dir.c_str());
        }
    }
    ~program_temp_folder_t() {
        size_t i = 0;
        for (const char *name : names) {
            _set(name, old[i++].c_str());
        }
    }
    static void _set(const char *name, const char *value) {
#ifdef _WIN32
        _putenv_s(name, value);
#else
        if (*value) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
#endif
    }
};

// The log a program started with "-debug-log" writes into the temporary folder dir.
inline std::string program_log(const std::string &dir) {
    return program_read(dir + OS_SEP_STR + "Sablewatch Debug Log.txt");
}

// Every record's full path in an index, sorted: what a saved index holds, to compare with the disk.
inline std::vector<std::string> program_index_paths(db_t *d) {
    std::vector<std::string> out;
    str_t s;
    str_init(&s);
    for (mem_array_t *a : {&d->folders, &d->files}) {
        for (uint32_t i = 0; i < a->count; i++) {
            db_get_full_path(&s, mem_array_get(a, i));
            out.emplace_back(s.ptr, (size_t) s.len);
        }
    }
    str_kill(&s);
    std::sort(out.begin(), out.end());
    return out;
}
