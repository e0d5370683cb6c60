// The details thread: what the notifications don't say (an item's size, dates and attributes, its
// parent's, what a new folder holds) read from the disk one event at a time, so that neither the monitor
// thread nor the main thread waits for the disk.
#include <cstring>

#include "db_monitor/db_monitor_internal.h"
#include "db_monitor/monitor_internal.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

// The folder holding path: everything before the last separator, "/" for an item at the Linux top.
static void _parent_path(const char *path, str_t *out) {
    const char *sep = strrchr(path, OS_SEP);
    if (!sep) {
        str_set(out, "");
        return;
    }
    size_t n = (size_t) (sep - path);
    str_set(out, "");
    str_cat(out, path, (int) (n ? n : 1));
}

static void _details(const char *path, os_file_info_t *item, os_file_info_t *parent) {
    if (item) {
        // A vanished item keeps unknown values and is still applied: its removal follows.
        os_get_file_info(path, item);
    }
    if (parent) {
        str_t p;
        str_init(&p);
        _parent_path(path, &p);
        os_get_file_info(p.ptr, parent);
        str_kill(&p);
    }
}

static bool _is_folder(rdc_event_t *e) {
    if (e->item.attributes) {
        e->kind_known = true;
        return (e->item.attributes & OS_ATTR_DIRECTORY) != 0;
    }
    return e->is_folder;
}

void rdc_event_fetch(const db_t *db, rdc_event_t *e) {
    switch (e->type) {
    case RDC_RESCAN:
        e->scan = (scan_result_t *) mem_alloc(sizeof(scan_result_t));
        scan_result_init(e->scan);
        db_folder_rescan_scan(db, e->fs, e->scan);
        break;
    case RDC_ADDED:
    case RDC_MODIFIED:
        _details(e->path, &e->item, &e->parent);
        e->is_folder = _is_folder(e);
        // A folder that appears may come with contents that no notification names (a folder moved in from
        // outside the tree, or filled before its watch was in place): its subtree is read now.
        if (e->type == RDC_ADDED && e->is_folder) {
            e->scan = (scan_result_t *) mem_alloc(sizeof(scan_result_t));
            scan_result_init(e->scan);
            db_folder_rescan_scan_path(db, e->path, e->scan);
        }
        break;
    case RDC_REMOVED:
        _details(e->path, nullptr, &e->parent);
        break;
    case RDC_RENAMED_NEW:
        _details(e->path, &e->item, &e->parent);
        _details(e->old_path, nullptr, &e->old_parent);
        e->is_folder = _is_folder(e);
        break;
    default:
        break;
    }
    e->got_details = true;
}

static bool _same_modified(const rdc_event_t *a, const rdc_event_t *b) {
    return a->type == RDC_MODIFIED && b->type == RDC_MODIFIED && a->monitor == b->monitor && a->fs == b->fs &&
           strcmp(a->path, b->path) == 0;
}

// The next event to fetch, under the lock. A modified event that another one of the same path follows
// is dropped: a file being written gives a stream of them, and the last fetch tells all.
static rdc_event_t *_take(db_t *db, rdc_listener_t *l, bool *stop) {
    db_folder_state_t *st = l->st;
    os_lock_guard guard(&db->monitor_lock);
    *stop = l->details_stop;
    if (*stop) {
        return nullptr;
    }
    rdc_event_t *e;
    while ((e = st->details.first) && e->next && _same_modified(e, e->next)) {
        st->details.first = e->next;
        rdc_event_free(e);
    }
    if (e) {
        st->details.first = e->next;
        if (!e->next) {
            st->details.last = nullptr;
        }
        e->next = nullptr;
    }
    return e;
}

void rdc_details_thread_proc(void *arg) {
    rdc_listener_t *l = (rdc_listener_t *) arg;
    db_t *db = l->db;
    bool post = false;
    for (;;) {
        // Cleared before the queue is looked at, so that a wake between the look and the wait isn't lost.
        os_event_reset(l->details_wake);
        bool stop;
        rdc_event_t *e = _take(db, l, &stop);
        if (!e) {
            if (post) {
                event_post(_db_folder_rdc_update_proc, db);
                post = false;
            }
            if (stop) {
                return;
            }
            os_event_wait(l->details_wake, OS_INFINITE);
            continue;
        }
        debug_printf("READ DIRECTORY CHANGE GET FD %d %s\n", (int) e->type, e->path);
        rdc_event_fetch(db, e);
        {
            os_lock_guard guard(&db->monitor_lock);
            rdc_queue_push(&l->st->ready, e);
        }
        post = true;
    }
}
