// Private to the Linux tree watches: what dirwatch.cpp (the entry points, the choice of mechanism and the
// wait) shares with its two mechanisms, dirwatch_inotify.cpp and dirwatch_fanotify.cpp.
//
// Every watch is one descriptor that poll() can wait on and that stays readable until its events are
// read. A mechanism may also hold something back for a short time (the first half of a rename, waiting
// for its second half); due_ms says when that must be delivered even if nothing new arrives.
#pragma once

#include "os/os_dirwatch.h"

struct os_dirwatch_ops_t {
    const char *mechanism;
    // os_dirwatch_read for this mechanism.
    int (*read)(os_dirwatch_t *w, os_dirwatch_callback_t callback, void *ctx);
    // Milliseconds until something held back must be delivered; OS_INFINITE when nothing is held.
    uint32_t (*due_ms)(os_dirwatch_t *w);
    // Frees everything, the watch itself included.
    void (*destroy)(os_dirwatch_t *w);
};

// The common head of every mechanism's watch, which each embeds as its first member.
struct os_dirwatch_t {
    const os_dirwatch_ops_t *ops;
    int fd; // what the wait polls; may change across a read (a rebuilt inotify instance)
    os_dirwatch_fault_t fault;
};

// Each returns null with errno set when it can't watch the folder. The fanotify one also fails, with
// EPERM, EINVAL or ENOTSUP, when the folder isn't a whole mount or the kernel or the process's rights
// refuse the mark: the caller then falls back to inotify. folder has no trailing separator (except "/").
os_dirwatch_t *os_dirwatch_inotify_create(const char *folder, uint32_t buffer_size);
os_dirwatch_t *os_dirwatch_fanotify_create(const char *folder, uint32_t buffer_size);
