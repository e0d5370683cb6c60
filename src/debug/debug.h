// The debug log: one process-wide log with two sinks, a console and a file in the temporary folder.
//
// Invariants:
// - Every line written by debug_printf goes to each open sink in one piece under the log lock, so that
//   lines from different threads never interleave.
// - The log lock is the first lock the process makes (debug_init) and is held only while a line is
//   formatted and written; no other lock is taken under it.
// - When neither sink is open the public functions return at once without formatting anything.
// - debug_fatal never returns: it writes its line to the log and to the user, then ends the process.
#pragma once

#include <stdarg.h>
#include <stdint.h>

// True when the log was asked for in verbose mode: callers test it before building a costly line.
extern bool debug_verbose;

// Makes the log lock and reads the counter frequency. Called first in main_run, before any thread exists.
// Safe to call twice.
void debug_init();

// Closes both sinks. The lock stays: late lines from other threads are then dropped, never a crash.
void debug_kill();

// Opens the console sink (standard error on Linux, a console window on Windows). Returns false when the
// console could not be opened; the log then stays without that sink.
bool debug_console_start();

// Opens (truncates) the log file "<temp folder><name>", for example "Sablewatch Debug Log.txt", and
// writes the banner. Returns false when the file could not be created.
bool debug_file_start(const char *name);

// Opens the log file at a full path the caller chose; used by tests. Same result as debug_file_start.
bool debug_file_start_path(const char *path);

// True when at least one sink is open.
bool debug_is_enabled();

// Writes one time-stamped line to every open sink. The text may contain LF; see debug.cpp for the line
// ending rules. Does nothing when no sink is open.
void debug_printf(const char *fmt, ...);
void debug_vprintf(const char *fmt, va_list args);

// Like debug_printf, with a colour for the console: mask bit 0 red, bit 1 green, bit 2 blue, bit 3
// bright. The file gets the same text without colour.
void debug_color_printf(int32_t mask, const char *fmt, ...);

// The console attribute for a colour mask: foreground bits in Windows console order (blue 1, green 2,
// red 4, intensity 8). Mask 0 gives the default light grey (7).
uint32_t debug_color_attribute(int32_t mask);

// Builds the fatal line "<file>(<line>): <function>(): Fatal error: <message>" into out (capacity
// size, always terminated). Returns the length written without the terminator.
int debug_fatal_format(char *out, int size, const char *file, int line, const char *function, const char *fmt,
                       ...);

// Logs the fatal line, shows it to the user (a message box on Windows, standard error on Linux) and
// ends the process with exit code 1.
[[noreturn]] void debug_fatal(const char *file, int line, const char *function, const char *fmt, ...);

// Microseconds from a fixed but arbitrary start, truncated to 32 bits: differences of two values are
// correct across the wrap for intervals below about 71 minutes.
uint32_t debug_now_us();

// The usual call: DEBUG_FATAL("bad chunk %u", n).
#define DEBUG_FATAL(...) debug_fatal(__FILE__, __LINE__, __func__, __VA_ARGS__)
