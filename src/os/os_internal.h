// Private to src/os: what the neutral files and the two platform folders share.
//
// The public entry points behind os_hooks (os_filetime_now, os_processor_count, ...) live in hooks.cpp and
// call through the table; the os_real_ functions below are the platform's own answers that
// os_hooks_reset puts back. Calendar arithmetic (FILETIME <-> broken-down UTC) is plain integer code
// shared by both platforms, so that Linux and Windows agree to the last tick on every value.
#pragma once

#include "debug/debug.h"
#include "os/os.h"
#include "os/os_watch.h"

// FILETIME of 1970-01-01 00:00:00 UTC, and the ticks in a second.
#define OS_FILETIME_UNIX_EPOCH 116444736000000000ull
#define OS_FILETIME_SECOND     10000000ull
// Seconds from 1601-01-01 to 1970-01-01.
#define OS_UNIX_EPOCH_SECONDS 11644473600ll

// The platform's own clock, zone, processor count and locale (posix/ or win32/).
uint64_t os_real_filetime_now();
bool os_real_filetime_to_local(uint64_t ft, os_systemtime_t *out);
bool os_real_local_to_filetime(const os_systemtime_t *local, uint64_t *ft);
int os_real_processor_count();
void os_real_locale_get(os_locale_id_t id, str_t *out);

// True when every field of st is one that SystemTimeToFileTime accepts: year 1601..30827, month 1..12,
// a day that exists in that month, hour below 24, minute and second below 60, milliseconds below 1000.
// day_of_week is not checked (it is ignored on input).
bool os_systemtime_valid(const os_systemtime_t *st);
// Days since 1601-01-01 of a valid date, and back.
int64_t os_days_from_civil(int year, int month, int day);
void os_civil_from_days(int64_t days, int *year, int *month, int *day);

// Called on every pooled thread before its first proc and after its last: Windows initialises COM there
// (the thread may run shell calls). The returned token goes back to os_thread_leave.
int os_thread_enter();
void os_thread_leave(int token);

#ifndef _WIN32
// Linux: the eventfd behind a stop object, for the other waits of src/os that include one.
uintptr_t os_watch_stop_native(os_watch_stop_t *s);
#else
// Windows: waits for the stop event or the event HANDLE that event_of gives for one of count items (at most
// OS_WATCH_WAIT_MAX - 1; the items are not read when there are more) and answers as os_watch_wait does: the
// index of the signalled one, or OS_WATCH_WAIT_STOP, _TIMEOUT, _FAILED. The folder watches and the tree
// watches both wait this way.
int os_win32_wait_events(os_watch_stop_t *stop, const void *const *items, int count,
                         uintptr_t (*event_of)(const void *item), uint32_t timeout_ms);
#endif

#ifndef _WIN32
// Details of name in the folder dirfd (AT_FDCWD: name is a path), never following a final link, with the
// attribute word built from the mode and the name; *mode gets the raw mode and *dev, when dev is not null,
// the device that holds the entry. False when it can't be read.
bool os_posix_stat_at(int dirfd, const char *name, os_file_info_t *info, uint32_t *mode, uint64_t *dev);
#endif
