// The platform side of the main thread: its wake-up channel and message pump, the instance lock, the
// hand-over of a command line to a running instance, and child processes (for the program's own tests).
//
// Windows: a hidden top-level window of a named class; event wake-ups are window message 5121 posted to
// it; a command line arrives as WM_COPYDATA; the instance lock is a named mutex.
// Linux: the loop waits in poll on an eventfd and a listening Unix stream socket in the runtime folder
// ($XDG_RUNTIME_DIR, else the temporary folder) named after the window class; the instance lock is an
// advisory lock (flock) on a file in the same folder.
//
// Invariants:
// - One loop per process. os_main_loop_create, os_main_pump, os_main_wait and os_main_loop_destroy are
//   called on the main thread only; os_main_wake from any thread.
// - The procedures given to os_main_loop_create run on the main thread, from os_main_pump (or from a
//   nested message loop on Windows), never under a lock of this layer.
// - class_name is the window class; file_name is the same name made safe for a file name, which the Linux
//   side uses for its socket and lock files.
#pragma once

#include <cstddef>
#include <cstdint>

struct os_main_procs_t {
    // The wake-up: the event queue went from empty to non-empty.
    void (*wake)();
    // A command line handed over by another instance: the raw block as the sender built it. Returns true
    // when the block was taken.
    bool (*command_line)(const void *block, uint32_t size);
    // Windows: the session ends (WM_ENDSESSION); ending is false when the end was called off. The process
    // is ended from outside soon after this returns, without its loop ending first. Not called on Linux,
    // where the signals that ask a process to end end the loop instead (os_main_pump returns -1).
    void (*end_session)(bool ending);
};

// Creates the wake-up channel and the hand-over endpoint. A null file_name makes no hand-over socket on
// Linux: a process that only needs its own events leaves no file behind that others could see or index.
// False on failure, with nothing left behind.
bool os_main_loop_create(const char *class_name, const char *file_name, const os_main_procs_t *procs);
// Destroys both. Later wakes are dropped.
void os_main_loop_destroy();
// Any thread: makes the next os_main_wait return and the next os_main_pump call procs->wake. Does
// nothing without a loop.
void os_main_wake();
// Handles at most one pending message or endpoint event without waiting. Returns 1 when something was
// handled, 0 when nothing was pending, -1 when the platform asked the loop to end (WM_QUIT; on Linux
// SIGTERM, SIGINT or SIGHUP, caught while the loop exists).
int os_main_pump();
// Blocks until something is pending for os_main_pump. Never busy-waits.
void os_main_wait();

// ---- descriptors and timers on the loop -----------------------------------------------------------------

// Linux: more descriptors for the loop's poll. interest is OS_MAIN_IN and OS_MAIN_OUT; hang-up and error
// are always reported. proc(context, fd, ready) runs on the main thread from os_main_pump with the
// OS_MAIN_ bits that are ready. A watch for an fd already watched replaces it; os_main_fd_unwatch stops it,
// and no report for it comes after that. Windows returns false: its sockets report to their window
// (os_net.h).
enum { OS_MAIN_IN = 1, OS_MAIN_OUT = 2, OS_MAIN_HANGUP = 4 };
typedef void (*os_main_fd_proc_t)(void *context, intptr_t fd, uint32_t ready);
bool os_main_fd_watch(intptr_t fd, uint32_t interest, os_main_fd_proc_t proc, void *context);
void os_main_fd_unwatch(intptr_t fd);

// A main-thread timer: proc(context) runs from os_main_pump ms milliseconds after the start, then every
// ms milliseconds when periodic. A one-shot timer that has fired stays allocated and silent: the caller
// always ends a timer with os_main_timer_stop, which frees it; no call comes after that. Never null.
struct os_main_timer_t;
os_main_timer_t *os_main_timer_start(uint32_t ms, bool periodic, void (*proc)(void *), void *context);
void os_main_timer_stop(os_main_timer_t *timer);

// The instance lock. existed is set when another process holds it; the returned handle is then still
// valid and must be destroyed. Null on failure.
struct os_instance_lock_t;
os_instance_lock_t *os_instance_lock_create(const char *name, const char *file_name, bool *existed);
void os_instance_lock_destroy(os_instance_lock_t *lock);

// Finds the running instance's hand-over endpoint. Null when there is none (yet).
struct os_main_peer_t;
os_main_peer_t *os_main_peer_find(const char *class_name, const char *file_name);
// Sends a block to the peer and waits up to timeout_ms for it to be taken. True when it was.
bool os_main_peer_send(os_main_peer_t *peer, const void *block, uint32_t size, uint32_t timeout_ms);
void os_main_peer_close(os_main_peer_t *peer);

// The COM and OLE state of the main thread (OleInitialize), needed later by drag and drop and the shell.
// Returns the platform's result code (0 for success), which the start logs; 0 where there is no OLE.
uint32_t os_main_ole_init();
void os_main_ole_kill();

// Appends one argument to out by the program's own quoting rule, which its command-line tokeniser reads
// back unchanged: as it stands when it is non-empty and holds no blank and no quote, else in double quotes
// with each quote written as three. Backslashes mean nothing. Every command line that the program reads
// back itself is built this way: its own line on Linux (os_command_line), a child's (os_process_start).
struct str_t;
void os_main_quote_arg(str_t *out, const char *arg);

// A child process, for the tests that start the program itself. args are the arguments after the
// program, UTF-8; on Windows they are quoted by os_main_quote_arg, since the child reads its raw command
// line. Null when it could not be started.
struct os_process_t;
os_process_t *os_process_start(const char *exe, const char *const *args, int count);
// Waits up to timeout_ms. True with the exit code when the process has ended.
bool os_process_wait(os_process_t *p, uint32_t timeout_ms, int *exit_code);
// Asks the process to end as the end of a session does. Linux: SIGTERM, which the program answers with
// its normal shutdown. Windows: WM_QUERYENDSESSION and WM_ENDSESSION sent to each of its windows, which
// the program answers by saving; the process then still runs, and the caller ends it as the session
// would. False when the request could not be delivered.
bool os_process_request_end(os_process_t *p);
// Ends the process if it still runs, then frees the handle.
void os_process_destroy(os_process_t *p);
