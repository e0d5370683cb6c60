// Folder enumeration and the sequential file open that the folder scan and the list readers need. Part of
// the platform layer: src/os/posix/dir.cpp and src/os/win32/dir.cpp implement it.
//
// Invariants:
// - Entries come in the order the platform gives them; "." and ".." are never delivered.
// - An entry's details use the Windows forms on both platforms: FILETIME dates, the attribute word of
//   os.h. On Linux: a directory 0x10; a name beginning with '.' hidden 0x02; no owner write bit read-only
//   0x01; a symbolic link the reparse point 0x400 and nothing else of its type; every other file archive
//   0x20; a folder on which another file system is mounted 0x10 with 0x400, like a Windows mounted
//   folder. A birth time the file system does not keep is all ones.
// - Symbolic links are described, never followed: is_link is set for them (on Windows also for folder
//   junctions, folder links and mounted folders, on Linux for mount points), and a scan must not enter
//   such an entry. So a scan stays on the file system it starts on.
// - A folder's size is 0. The entry's name stays valid until the next os_dir_next or os_dir_close.
// - One thread uses an os_dir_t at a time; separate ones may run on separate threads.
#pragma once

#include <cstdint>

#include "os/os.h"

struct os_dir_t;

struct os_dir_entry_t {
    const char *name;  // UTF-8, zero-terminated
    uint32_t name_len; // bytes
    bool is_folder;    // a folder to enter (never a link)
    bool is_link;      // a symbolic link or a folder junction: listed, not entered
    os_file_info_t info;
};

// Opens a folder for enumeration. Null when it can't be read, with os_last_error() telling why. The
// caller closes it with os_dir_close.
os_dir_t *os_dir_open(const char *path);
// The next entry; false at the end (or on an error, which ends the enumeration). An entry that vanishes
// between being listed and being examined is passed over.
bool os_dir_next(os_dir_t *dir, os_dir_entry_t *entry);
// Null is ignored.
void os_dir_close(os_dir_t *dir);

// Opens an existing file for reading from start to end: shared with readers, writers and deleters,
// with the platform told that the access is sequential. OS_FILE_INVALID on failure; close it with
// os_file_close.
os_file_t os_file_open_sequential(const char *path);
