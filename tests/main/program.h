// The real program beside the test executable, for tests that start it as a process of its own.
#pragma once

#include <string>

#include "mem/mem.h"
#include "os/os.h"

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
