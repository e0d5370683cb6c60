// Helpers shared by the platform layer's tests: a scratch folder per test and small str_t conveniences.
#pragma once

#include "mem/mem.h"
#include "os/os.h"

#include <cstdio>
#include <string>

// The text of a str_t as a std::string, for assertions.
inline std::string os_test_text(const str_t *s) {
    return std::string(s->ptr ? s->ptr : "", (size_t) s->len);
}

// A fresh folder under the temporary folder, unique to this process and test; removed (with the files
// the test registered) by the destructor.
struct os_test_folder {
    std::string path;
    std::string files[16];
    int file_count = 0;

    os_test_folder() {
        str_t tmp;
        str_init(&tmp);
        os_temp_folder(&tmp);
        static int serial = 0;
        char name[96];
        snprintf(name, sizeof(name), "%csw-os-test-%u-%llu-%d", OS_SEP, os_thread_id(),
                 (unsigned long long) os_counter(), ++serial);
        path = os_test_text(&tmp) + name;
        str_kill(&tmp);
        os_folder_create_path(path.c_str());
    }
    ~os_test_folder() {
        for (int i = file_count - 1; i >= 0; i--) {
            os_set_file_attributes(files[i].c_str(), OS_ATTR_NORMAL);
            if (!os_file_delete(files[i].c_str())) {
                os_folder_delete(files[i].c_str());
            }
        }
        os_folder_delete(path.c_str());
    }
    // The full path of name inside the folder, remembered for cleaning up.
    std::string file(const char *name) {
        std::string p = path + OS_SEP_STR + name;
        if (file_count < 16) {
            files[file_count++] = p;
        }
        return p;
    }
};

// Writes the bytes to a new file; true on success.
inline bool os_test_write_file(const std::string &path, const std::string &bytes) {
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_WRITE | OS_OPEN_CREATE | OS_OPEN_TRUNCATE);
    if (f == OS_FILE_INVALID) {
        return false;
    }
    bool ok = os_file_write(f, bytes.data(), bytes.size()) == (int64_t) bytes.size();
    os_file_close(f);
    return ok;
}

// The whole content of a file, or "<missing>".
inline std::string os_test_read_file(const std::string &path) {
    os_file_t f = os_file_open(path.c_str(), OS_OPEN_READ | OS_OPEN_SHARE_READ);
    if (f == OS_FILE_INVALID) {
        return "<missing>";
    }
    std::string out;
    char buf[4096];
    for (;;) {
        int64_t n = os_file_read(f, buf, sizeof(buf));
        if (n <= 0) {
            break;
        }
        out.append(buf, (size_t) n);
    }
    os_file_close(f);
    return out;
}
