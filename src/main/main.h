// Start-up, run modes, the main loop and the event queue: the spine of the process.
//
// Invariants:
// - The main thread is the one that called main_run (or main_loop_init in a test). Only it runs events,
//   window procedures and the public db_ functions.
// - event_post is the only way for another thread to reach the main thread. It may be called from any
//   thread at any time after event_init; it holds the event lock for a few lines and wakes the loop only
//   when the queue goes from empty to non-empty, so a burst of posts costs one wake-up.
// - Events run in the order posted. An event posted by a running callback runs in the same pass.
// - No lock is held while a callback runs.
#pragma once

#include <cstdint>

struct str_t;
struct os_instance_lock_t;
struct cl_t;
struct db_t;

// ---- process-wide state --------------------------------------------------------------------------------

// The process result: 0, or 1 when a relaunch failed or the instance rule refused this process.
extern int32_t exit_code;
// -read-only: nothing writes the index or its file.
extern bool read_only;
// -no-db: the index is never loaded from or saved to its file.
extern bool no_db;
// The show command the process was started with; handed to a running instance with a command line.
extern int32_t main_show_command;
// The one index, or null until something first needs it. Main thread.
extern db_t *db;

// ---- event queue ---------------------------------------------------------------------------------------

// Makes the event lock. Called once at start, before any thread that posts exists.
void event_init();
// Logs "event start %p" and "event %p %p" for each event still queued, frees them without running them,
// and deletes the event lock.
void event_kill();

// Queues callback(context) for the main thread. Only the two pointers are kept; the caller keeps context
// alive until the event has run or was removed.
void event_post(void (*callback)(void *), void *context);
// Removes every queued event with both this callback and this context. Main thread; every destructor of
// an object that posts calls it so that no event outlives its context.
void event_remove(void (*callback)(void *), void *context);
// Runs queued events until the queue is empty, including those posted meanwhile. Returns how many ran.
// Called on the loop's wake-up; a test may call it directly.
int event_dispatch();
// Runs, in queue order, only the queued events whose context is this one, including those posted
// meanwhile; every other event stays queued in its place. For the shutdown, which must finish an object's
// own work without running anything else. Returns how many ran. Main thread.
int event_dispatch_for(void *context);
// How many times event_post has woken the loop since start: one per empty-to-non-empty edge.
uint32_t event_wake_count();
// Events waiting now.
int event_pending_count();

// ---- main loop -----------------------------------------------------------------------------------------

// Creates the hidden window (Linux: the wake-up eventfd and the hand-over socket) for this instance (null
// or "" for none). False on failure, with nothing created.
bool main_loop_init(const char *instance);
// The same loop for a process that no other may hand a command line to (a command-line client): events
// only, no hand-over socket. False on failure, with nothing created.
bool main_loop_init_private(const char *instance);
// Destroys them. Queued events stay queued; event_kill reports them.
void main_loop_kill();
// Runs the loop until main_quit or the platform's quit message. Returns the code given to main_quit (0
// after a platform quit).
int main_loop_run();
// Asks the loop to end after the current message with this result. Main thread only: another thread
// posts an event that calls it.
void main_quit(int code);

// ---- instance names ------------------------------------------------------------------------------------

// The instance in force: the -instance switch when non-empty, else none (empty text). The instance_name
// setting joins once settings are loaded.
const char *main_instance();
// The instance made safe inside a file name: each of \ / : * ? " < > | becomes '%' and two upper-case
// hexadecimal digits; everything else is kept.
void main_instance_escape(str_t *out, const char *instance);
// "SABLEWATCH_MUTEX", or with an instance that with "_(<instance>)", every '\' of the result made '_'.
void main_mutex_name(str_t *out, const char *instance);
// "SABLEWATCH_TASKBAR_NOTIFICATION", or with an instance that with "_(<instance>)".
void main_window_class_name(str_t *out, const char *instance);
// A settings-folder file name: "<base><ext>", or "<base>-<escaped instance><ext>". ext has its dot.
void main_instance_file_name(str_t *out, const char *base, const char *ext, const char *instance);

// ---- instance lock and command-line hand-over ----------------------------------------------------------

// The switches the spine reads itself. Replaced by the parsed cl_t of the full command-line parser.
struct main_switches_t {
    bool help;
    bool first_instance;
    bool no_first_instance;
    bool exit; // -exit or -quit
    bool debug;
    bool debug_log;
    bool verbose;
    bool no_verbose;
    bool read_only;
    bool no_db;
    char *instance; // heap text, or null
    cl_t *cl;       // the whole parsed command line, owned
};

// Reads the switches of this process's own command line: the platform's whole line (GetCommandLineW,
// or on Linux the arguments quoted by the program's rule), first token the program, relative paths
// against the current folder. The caller kills sw.
void main_switches_parse_own(main_switches_t *sw);
// The same for a whole command line whose first token is the program, with relative paths made absolute
// against base_directory (null: the current folder). This is how a handed-over command line is read.
void main_switches_parse_line(main_switches_t *sw, const char *command_line, const char *base_directory);
void main_switches_kill(main_switches_t *sw);

// The hand-over block: 4 bytes show command (little-endian), the command line with its zero, the current
// folder with its zero. main_handover_build returns a heap block and its size; main_handover_parse checks
// a received block and points into it, false when it is malformed.
void *main_handover_build(int32_t show, const char *command_line, const char *folder, uint32_t *size);
bool main_handover_parse(const void *block, uint32_t size, int32_t *show, const char **command_line,
                         const char **folder);

// Takes the instance lock for the instance in force. True when this process is the first instance; it
// then holds *lock until main_run's shutdown. False when another instance runs (the command line was
// handed to it, or -first-instance set exit_code to 1), or when it could not be reached for 30 seconds.
bool main_instance_take(const main_switches_t *sw, os_instance_lock_t **lock);
// Hands this process's command line to the running instance. True when it took it.
bool main_send_command_line(const char *instance);
// Applies switches to the running process; running is true for a command line handed over by a later
// instance. -exit and -quit end the loop at the end.
void main_apply_command_line(const main_switches_t *sw, bool running);

// ---- the index ---------------------------------------------------------------------------------------

// Creates the index and starts its load (or, with -no-db or no file, its rebuild), once: later calls do
// nothing. The -db switch, the instance, -no-db and -read-only of this process's command line apply.
void main_db_load();
// The same with the database file named here instead of by this process's -db switch (null: the usual
// place): for a front-end that reads a command line of its own.
void main_db_load_file(const char *db_file);
// What a command line asks of the index: -reindex (loading first if need be), -rescan-all, -update (a forced
// save, left to the shutdown when the same line quits), and the load itself when the program will search its
// own index: at once, or after -load-delay milliseconds on the first call. running is false at start.
void main_db_apply_command_line(const cl_t *cl, bool running);
// Saves the index as it stands, after a job under way (db_save waits for it). For the end of the session,
// when the process is ended from outside without its shutdown.
void main_db_save();
// Shutdown: cancels a pending delayed load, saves the index unless nothing may be written, destroys it.
void main_db_kill();
// This process's own parsed command line, or null before it is parsed and after main_kill.
const cl_t *main_command_line();

// ---- the program ---------------------------------------------------------------------------------------

// The whole process: start-up, main loop, shutdown. The command line is the platform's own (see
// main_switches_parse_own); show_command is how the start asked the first window to be shown. Returns the
// process exit code.
int main_run(int show_command);
