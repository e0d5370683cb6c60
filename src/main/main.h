// Start-up, the main loop and the event queue.
//
// Invariants:
// - The main thread is the one that called main_run (or main_loop_init in tests). Only it runs events.
// - event_post may be called from any thread, at any time after main_loop_init; it never blocks for
//   longer than the event lock is held and wakes the loop only when the queue goes from empty to
//   non-empty, so a burst of posts costs one wake-up.
// - Events run in the order posted. An event posted by a callback runs in the same dispatch pass.
// - No lock is held while a callback runs.
#pragma once

#include <stdint.h>

// Queues callback(context) to run on the main thread. Copies nothing but the two pointers; the caller
// keeps context alive until the event has run or has been removed.
void event_post(void (*callback)(void *), void *context);

// Removes every queued event with this callback and context. An owner calls it from its destructor.
void event_remove(void (*callback)(void *), void *context);

// Runs every queued event, including those posted while running. Returns the number of events run.
// Called by the main loop on each wake-up; tests may call it directly.
int event_dispatch();

// Number of times the loop was woken by event_post (test hook for the empty-to-non-empty rule).
uint32_t event_wake_count();

// Creates the loop's wake-up channel (hidden window or eventfd). Returns false on failure.
bool main_loop_init();
// Destroys the wake-up channel and frees queued events without running them.
void main_loop_kill();
// Waits for and runs events (and window messages on Windows) until main_quit is called. Returns the exit
// code given to main_quit.
int main_loop_run();
// Asks the loop to return after the current pass with this exit code. Main thread only; another thread
// posts an event that calls it.
void main_quit(int exit_code);

// The whole program: start-up, main loop, shutdown. argv is UTF-8. Returns the process exit code.
int main_run(int argc, char **argv);
