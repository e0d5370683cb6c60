// The debug log: one process-wide trail of time-stamped lines with two sinks, a log file in the temporary
// folder and a console, and the fatal path that every unrecoverable error takes.
//
// Invariants:
// - The log lock is the first lock the process makes (debug_init) and the last it drops (debug_kill). It
//   is held while one line is formatted and written to every open sink, so lines of different threads
//   never interleave, and no other lock is ever taken under it.
// - With both sinks closed a call costs one test of a flag and formats nothing.
// - The file gets "YYYY-MM-DD hh:mm:ss.mmm: " in local time before each line and is flushed after it, so
//   it is complete up to the last line at any crash. The logger never adds a line end of its own; a
//   trailing lone LF is written as CR LF.
// - debug_fatal never returns: it logs its line, shows it to the user and ends the process with code 1.
#pragma once

#include <cstdarg>
#include <cstdint>

// Verbose mode: callers test it before writing the chatty lines ("EVENT: %p %p" and the like).
extern bool debug_verbose;

// The version the banner names.
#define DEBUG_VERSION_MAJOR    1
#define DEBUG_VERSION_MINOR    4
#define DEBUG_VERSION_REVISION 1
#define DEBUG_VERSION_BUILD    1031

// Makes the log lock. Called first of all in main_run, before any other thread exists; tests that log
// call it too. A second call does nothing.
void debug_init();
// Closes both sinks. The lock stays, so a late line from another thread is dropped instead of touching a
// dead lock.
void debug_kill();

// Opens (true) or closes (false) the console sink. Returns false when the console could not be opened;
// the log then stays without it.
bool debug_set_console(bool on);
// Opens the log file "Sablewatch Debug Log.txt" (or "Sablewatch Service Debug Log.txt" for the service)
// in the temporary folder, replacing an older one. Only the first successful open counts: later calls
// return true and change nothing. False when the file can't be made.
bool debug_open_log(bool is_service);
// The same with a full path chosen by the caller (tests, and a run that wants its log elsewhere).
bool debug_open_log_path(const char *path);
// Closes the log file only.
void debug_close_log();
// True when either sink is open.
bool debug_is_active();

// Writes the banner: program, version, platform, processors, admin, app data, service, command line.
void debug_banner();
// Set by main_run: whether settings live in the per-user folder and whether this is the service; the
// banner reports both.
extern bool debug_banner_app_data;
extern bool debug_banner_service;

// One line in the console's normal colour. The text is used as given: no line end is added.
void debug_printf(const char *fmt, ...);
void debug_vprintf(const char *fmt, va_list args);
// One line with a colour mask for the console (the file ignores it). A mask above 0x00FFFFFF, read as
// unsigned, colours the line: byte 2 red, byte 1 green, byte 0 blue, as in 0xFFFFFF00 yellow,
// 0xFFFF0000 red, 0xFF00FF00 green.
void debug_color_printf(int32_t mask, const char *fmt, ...);
void debug_color_vprintf(int32_t mask, const char *fmt, va_list args);

// The console attribute for a colour mask (blue 1, green 2, red 4, intensity 8), or 0 for the normal
// colour when the mask does not colour the line.
uint32_t debug_color_attribute(int32_t mask);

// The fatal line "<file>(<line>): <function>(): Fatal error: <message>" as a heap text, which the caller
// frees with mem_free. Never fails short of running out of memory, in which case it returns null.
char *debug_fatal_line(const char *file, int line, const char *function, const char *fmt, va_list args);

// Logs the fatal line, shows it to the user (a message box on Windows, standard error on Linux) and ends
// the process with exit code 1.
[[noreturn]] void debug_fatal(const char *file, int line, const char *function, const char *fmt, ...);

// The high-resolution counter in microseconds, truncated to 32 bits. The difference of two values is what
// "%f seconds" prints; it is right across the wrap for intervals below about 71 minutes. Returns 1 when the
// platform has no counter.
uint32_t debug_now_us();

// The usual call site: DEBUG_FATAL("bad chunk %u", n).
#define DEBUG_FATAL(...) debug_fatal(__FILE__, __LINE__, __func__, __VA_ARGS__)
