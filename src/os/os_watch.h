// Change watches on single folders, and a wait over several of them with a stop object. Part of the
// platform layer: src/os/posix/watch.cpp (inotify) and src/os/win32/watch.cpp (change notification
// handles) implement it.
//
// Invariants:
// - A watch covers one folder, not its subfolders, and wakes when an entry of that folder is created,
//   deleted or renamed, or when a file in it is written. It says only that something changed; what
//   changed is for the caller to find out (the file-list monitor compares dates).
// - A watch stays signalled from the first change until os_watch_poll re-arms it: a change that happens
//   between two waits is never lost, and several changes may fold into one signal.
// - os_watch_wait never re-arms: after it reports a watch, the caller polls that watch (which re-arms
//   it) before waiting again, or the wait returns at once.
// - A stop object is manual-reset: once set it stays set, and every wait that includes it returns.
// - A watch or stop object may be waited on by one thread while another thread sets the stop object;
//   everything else about one object belongs to one thread at a time.
#pragma once

#include <cstdint>

struct os_watch_t;
struct os_watch_stop_t;

// The most objects one wait takes, the stop object included (the Windows wait limit).
#define OS_WATCH_WAIT_MAX 64

// Starts watching a folder. Null when the folder can't be watched (missing, unreadable, or the platform
// refused another watch), with os_last_error() telling why. The caller destroys it.
os_watch_t *os_watch_create(const char *folder);
// Null is ignored.
void os_watch_destroy(os_watch_t *w);

enum { OS_WATCH_QUIET = 0, OS_WATCH_CHANGED = 1, OS_WATCH_BROKEN = 2 };

// Tests the watch without waiting. OS_WATCH_QUIET: no change since the last poll. OS_WATCH_CHANGED: a
// change, and the watch is re-armed. OS_WATCH_BROKEN: a change may have happened and the watch can't go
// on (re-arming failed, or its folder went away); destroy it and make a new one later.
int os_watch_poll(os_watch_t *w);

// A stop object, clear. Creation failure is fatal (function "os_watch_stop_create").
os_watch_stop_t *os_watch_stop_create();
// Null is ignored.
void os_watch_stop_destroy(os_watch_stop_t *s);
void os_watch_stop_set(os_watch_stop_t *s);
bool os_watch_stop_is_set(os_watch_stop_t *s);

enum { OS_WATCH_WAIT_STOP = -1, OS_WATCH_WAIT_TIMEOUT = -2, OS_WATCH_WAIT_FAILED = -3 };

// Waits until the stop object is set or one of count watches (at most OS_WATCH_WAIT_MAX - 1) is
// signalled, or until timeout_ms pass (OS_INFINITE for no limit). Returns the index of a signalled watch,
// OS_WATCH_WAIT_STOP (the stop object wins over any watch), OS_WATCH_WAIT_TIMEOUT, or
// OS_WATCH_WAIT_FAILED when the platform's wait failed or count is out of range.
int os_watch_wait(os_watch_stop_t *stop, os_watch_t *const *watches, int count, uint32_t timeout_ms);
