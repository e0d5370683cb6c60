// Change notification for a whole folder tree, entry by entry: what was added, removed, modified or
// renamed below a folder, for the folder monitor. Part of the platform layer: src/os/win32/dirwatch.cpp
// (ReadDirectoryChangesW), src/os/posix/dirwatch_inotify.cpp (one inotify watch per folder, built up into
// a recursive watch) and src/os/posix/dirwatch_fanotify.cpp (a file-system mark, for a folder that is a
// whole mount, where the process may use it) implement it; src/os/dirwatch_walk.cpp holds the walk of a
// ReadDirectoryChangesW buffer, which is plain byte arithmetic and runs (and is tested) on both platforms.
//
// Invariants:
// - A watch covers its folder and everything below it on the same file system. Symbolic links are never
//   followed; a folder on which another file system is mounted is a folder link, as in the folder scan,
//   and what is below it isn't watched.
// - Entries carry the Windows FILE_ACTION_* values as actions, and a path relative to the watched folder
//   with the platform's separator, in UTF-8. A rename comes as an old-name entry directly followed by its
//   new-name entry; a rename whose other half isn't below the folder comes as a removal or an addition.
// - An addition of something already added, and a modification of something just added, are possible
//   (a folder created and filled before its watch is in place is listed, and what it holds is reported as
//   added): the caller treats an add of a known item as an update.
// - A folder removed with what it held may come as the removal of the folder alone (a file-system mark
//   can't name entries of a folder that is gone when the event is read): the caller removes what is
//   below a removed folder.
// - Applied in order as the folder monitor applies them (an addition under a folder already known, a
//   removal taking what is below, a rename moving what is below, a rename whose old name is unknown as
//   an addition), the entries keep the caller's tree equal to the folder's. One gap: a file-system mark
//   names folders as they are when read; renames read in the same read are undone on the entries before
//   them, but a folder renamed while the read runs may show its new name one read early.
// - Nothing is lost silently: when changes can't be delivered one by one, a read says OVERFLOW and the
//   caller rescans. A watch that can't cover the whole tree (the user's inotify watch limit) isn't made.
// - A watch stays signalled for os_dirwatch_wait from the first change until a read has taken it, and a
//   read never blocks.
// - A watch belongs to one thread at a time; the stop object of os_watch.h may be set from any thread.
#pragma once

#include <cstdint>

#include "os/os_watch.h"

struct os_dirwatch_t;

// Actions: the values of FILE_ACTION_ADDED and its neighbours.
enum {
    OS_DIRWATCH_ADDED = 1,
    OS_DIRWATCH_REMOVED = 2,
    OS_DIRWATCH_MODIFIED = 3,
    OS_DIRWATCH_RENAMED_OLD = 4,
    OS_DIRWATCH_RENAMED_NEW = 5,
};

// Whether an entry names a folder, where the platform says (ReadDirectoryChangesW doesn't).
enum { OS_DIRWATCH_FILE = 0, OS_DIRWATCH_FOLDER = 1, OS_DIRWATCH_KIND_UNKNOWN = 2 };

struct os_dirwatch_entry_t {
    uint32_t action;   // OS_DIRWATCH_ADDED ...
    const char *path;  // relative to the watched folder, UTF-8, zero-terminated; valid during the call only
    uint32_t path_len; // bytes
    uint32_t kind;     // OS_DIRWATCH_FILE, OS_DIRWATCH_FOLDER or OS_DIRWATCH_KIND_UNKNOWN
};

// Called once per entry, in the order of the changes, on the thread that reads.
typedef void (*os_dirwatch_callback_t)(void *ctx, const os_dirwatch_entry_t *entry);

// Flags for os_dirwatch_create.
enum {
    // Never use a file-system mark, even for a whole mount (tests of the per-folder watch use it).
    OS_DIRWATCH_NO_FANOTIFY = 1,
};

// Starts watching the tree under folder. buffer_size is the bytes one read may take (the Windows read
// buffer: the caller shrinks it when a server refuses it; on Linux a floor applies). Null on failure,
// with os_last_error() telling why; os_dirwatch_error_is_limit says whether that was the user's watch
// limit, in which case no part of the tree is watched. The caller destroys the watch.
os_dirwatch_t *os_dirwatch_create(const char *folder, uint32_t buffer_size, uint32_t flags);
// Null is ignored. Frees everything the watch holds.
void os_dirwatch_destroy(os_dirwatch_t *w);

// True when error (from os_last_error() after os_dirwatch_create failed) means the user's limit on
// watches or watch instances was reached: the caller says so once and falls back to scheduled rescans.
// Always false on Windows.
bool os_dirwatch_error_is_limit(uint32_t error);

// The mechanism a watch uses, for the log: "ReadDirectoryChangesW", "inotify" or "fanotify". Static text.
const char *os_dirwatch_mechanism(const os_dirwatch_t *w);

// Waits until the stop object is set or one of count watches (at most OS_WATCH_WAIT_MAX - 1) has
// something to read, or until timeout_ms pass (OS_INFINITE for no limit). Returns the index of a ready
// watch, or OS_WATCH_WAIT_STOP (which wins over any watch), OS_WATCH_WAIT_TIMEOUT, OS_WATCH_WAIT_FAILED
// as os_watch_wait does. A watch that was reported stays ready until os_dirwatch_read takes what it has.
int os_dirwatch_wait(os_watch_stop_t *stop, os_dirwatch_t *const *watches, int count, uint32_t timeout_ms);

// Results of a read and of the buffer walk.
enum {
    OS_DIRWATCH_OK = 0,
    // Changes were lost (a 0-byte completed read on Windows, a queue overflow on Linux): rescan, or wait
    // for the schedule. The watch goes on.
    OS_DIRWATCH_OVERFLOW = 1,
    // The server refused the buffer size (ERROR_INVALID_PARAMETER): shrink it, destroy and re-create.
    OS_DIRWATCH_BUFFER_REFUSED = 2,
    // The watch can't go on (its folder went away, a read or re-arm failed, os_last_error() says why):
    // destroy it and re-create it after a delay. When a new folder would pass the user's watch limit the
    // read says BROKEN too, with os_dirwatch_error_is_limit(os_last_error()) true: entries up to then were
    // delivered, and re-creating will report the limit.
    OS_DIRWATCH_BROKEN = 3,
    // An entry didn't fit the bytes received; the entries before it were delivered and the rest of the
    // buffer dropped. os_dirwatch_fault tells which check failed. The watch goes on.
    OS_DIRWATCH_MALFORMED = 4,
};

// Which check of a ReadDirectoryChangesW buffer failed, with the two numbers the log line gives: the
// offset the entry needed to reach and the bytes received.
enum {
    OS_DIRWATCH_FAULT_NONE = 0,
    OS_DIRWATCH_FAULT_NAME_ACCESS = 1, // "invalid rdc file name access %d %d": the fixed part overruns
    OS_DIRWATCH_FAULT_NEXT_OFFSET = 2, // "invalid rdc next entry offset %d %d"
    OS_DIRWATCH_FAULT_NAME_LENGTH = 3, // "invalid rdc file name length access %d %d": the name overruns
};

struct os_dirwatch_fault_t {
    uint32_t check; // OS_DIRWATCH_FAULT_*
    int32_t reach;  // the offset the entry needed
    int32_t size;   // the bytes received
};

// Takes what has arrived, without blocking, calling back once per entry. Returns OS_DIRWATCH_OK (also
// when nothing had arrived), OVERFLOW, BUFFER_REFUSED, BROKEN or MALFORMED.
int os_dirwatch_read(os_dirwatch_t *w, os_dirwatch_callback_t callback, void *ctx);
// The failed check of the last read that returned OS_DIRWATCH_MALFORMED. Owned by the watch.
const os_dirwatch_fault_t *os_dirwatch_fault(const os_dirwatch_t *w);

// Walks size bytes of FILE_NOTIFY_INFORMATION entries as ReadDirectoryChangesW leaves them, checking every
// entry against size, and calls back once per entry with its name in UTF-8 ('\\' stays as it is).
// Entries with an action outside 1..5, or a name holding U+0000, are passed over. Returns OS_DIRWATCH_OK, or OS_DIRWATCH_MALFORMED
// with *fault filled (entries before the bad one are delivered). size 0 is OS_DIRWATCH_OVERFLOW, which
// is what a completed read of nothing means. Needs no alignment of bytes.
int os_dirwatch_walk_rdc(const void *bytes, uint32_t size, os_dirwatch_callback_t callback, void *ctx,
                         os_dirwatch_fault_t *fault);
