// The folder scan: one folder tree walked through a work list of folders, with the excludes applied as
// it goes, into a scan result. The scan knows nothing of the index: what it keeps is decided by the
// caller's exclude callback and the hidden and system switches, and the result is plain items.
//
// Invariants:
// - Every item of a result lives in the result's pool; scan_result_kill frees all of it at once. The scan
//   allocates nothing per item beyond that pool.
// - An item's parent is the folder item that holds it; the root item has none. A folder is in the result
//   before anything it holds, and each folder's contents are listed together.
// - Details follow the platform layer (os_dir.h): FILETIME dates, Windows attribute bits, folder size 0.
//   Symbolic links are items with attribute 0x400 and are never entered. A link that the platform marks
//   as a folder (a Windows junction, folder link or mounted folder, a Linux mount point) is a folder
//   item, for the excludes as in the result, with link set: listed, not entered. So a scan stays on the
//   file system it starts on.
// - An excluded folder is neither listed nor entered; an excluded file is not listed.
// - A scan touches no shared state: several may run on several threads with separate results.
// - The listing runs on several threads, but what a scan delivers, in what order, and every call of the
//   exclude test, happen on the calling thread and are the same whatever the number of threads: folders
//   breadth first, each folder's contents in the platform's order.
// - Memory: what a streaming scan holds is one small record per folder seen and the listings of the few
//   folders listed ahead of delivery; it never holds the tree's files.
#pragma once

#include <cstddef>
#include <cstdint>

#include "mem/stack.h"
#include "os/os.h"

struct str_t;

struct scan_item_t {
    scan_item_t *next;   // the next item of the same list (folders or files), in scan order
    scan_item_t *parent; // the folder holding this item; null for the root
    uintptr_t tag;       // zero from the scan; free for the caller (e.g. what the item became)
    bool link;           // a folder link or junction: a folder item whose contents aren't listed
    os_file_info_t fd;
    uint32_t name_len;
    char name[1]; // name_len bytes and a zero; the root's name is the scanned path
};

struct scan_result_t {
    mem_stack_t pool;
    scan_item_t *root; // null when the top folder could not be read
    scan_item_t *folders_first, *folders_last;
    scan_item_t *files_first, *files_last;
    uint32_t folder_count; // without the root
    uint32_t file_count;
};

// Decides whether an item is left out. path is the item's full path (path_len bytes, zero-terminated),
// name points at its last component inside path. True excludes it.
typedef bool (*scan_exclude_proc_t)(void *ctx, const char *path, size_t path_len, const char *name,
                                    size_t name_len, const os_file_info_t *fd, bool folder);

struct scan_options_t {
    bool exclude_hidden;         // leave out items with attribute 0x02
    bool exclude_system;         // leave out items with attribute 0x04
    scan_exclude_proc_t exclude; // may be null; called on the scanning thread only
    void *exclude_ctx;
    uint32_t threads; // threads that list folders, the caller's included; 0: the setting max_threads, or
                      // one per processor when that is 0
};

#define SCAN_MAX_THREADS 64

// Takes one item of a streaming scan: parent is what proc returned for the folder holding it, 0 for the
// top folder; folder says whether it is a folder item and link whether it is a folder link (listed, not
// entered). name and fd are the scan's until proc returns. The return value is the item's tag.
typedef uintptr_t (*scan_proc_t)(void *ctx, uintptr_t parent, bool folder, bool link, const char *name,
                                 uint32_t len, const os_file_info_t *fd);

void scan_result_init(scan_result_t *r);
void scan_result_kill(scan_result_t *r);

// Scans the tree at path into the empty result r. One trailing separator of path is dropped. Returns
// false, with an empty result (root null), when the top folder can't be read; a folder below it that
// can't be read is kept as an item with nothing in it. Logs "scanning %s...", "failed to open directory
// %d" and "scan completed in %f seconds".
bool folder_scan(const char *path, const scan_options_t *options, scan_result_t *r);

// The same scan streamed: each item passes through proc, on the calling thread, in the order in which
// folder_scan lists it (folders breadth first, each folder's contents together), and nothing of it is
// kept afterwards. top_info, when not null, gets the top folder's details (folder size 0) before the
// first item. Returns false, having delivered nothing, when the top folder can't be read. Logs as
// folder_scan.
bool folder_scan_each(const char *path, const scan_options_t *options, os_file_info_t *top_info,
                      scan_proc_t proc, void *ctx);

// The full path of an item: the root's name, then each name with the platform's separator.
void scan_item_path(const scan_item_t *item, str_t *out);
