// The listener's events and their queues, and the two rules the monitor thread applies before an event
// is made: the exclude test of a reported path and the shrinking of a refused buffer.
#include <cstring>

#include "db_create/db_create.h"
#include "db_monitor/db_monitor_internal.h"
#include "db_monitor/monitor_internal.h"
#include "mem/mem.h"

// ---- events and queues ---------------------------------------------------------------------------------

static char *_dup(const char *s) {
    return s ? mem_dup(s, strlen(s)) : nullptr;
}

rdc_event_t *rdc_event_new(db_fs_t *fs, rdc_monitor_t *monitor, uint32_t type, const char *path,
                           const char *old_path, bool is_folder) {
    rdc_event_t *e = (rdc_event_t *) mem_alloc(sizeof(rdc_event_t));
    memset(e, 0, sizeof(*e));
    e->fs = fs;
    e->monitor = monitor;
    e->type = type;
    e->path = _dup(path);
    e->old_path = _dup(old_path);
    e->is_folder = is_folder;
    os_file_info_t unknown = {DB_UNKNOWN, DB_UNKNOWN, DB_UNKNOWN, DB_UNKNOWN, 0};
    e->item = e->old_item = e->parent = e->old_parent = unknown;
    return e;
}

void rdc_event_free(rdc_event_t *e) {
    if (!e) {
        return;
    }
    mem_free(e->path);
    mem_free(e->old_path);
    mem_free(e->long_path);
    mem_free(e->old_long_path);
    if (e->scan) {
        scan_result_kill(e->scan);
        mem_free(e->scan);
    }
    mem_free(e);
}

void rdc_event_free_list(rdc_event_t *first) {
    while (first) {
        rdc_event_t *next = first->next;
        rdc_event_free(first);
        first = next;
    }
}

void rdc_queue_push(rdc_queue_t *q, rdc_event_t *e) {
    e->next = nullptr;
    if (q->last) {
        q->last->next = e;
    } else {
        q->first = e;
    }
    q->last = e;
}

void rdc_queue_append(rdc_queue_t *q, rdc_queue_t *from) {
    if (!from->first) {
        return;
    }
    if (q->last) {
        q->last->next = from->first;
    } else {
        q->first = from->first;
    }
    q->last = from->last;
    from->first = from->last = nullptr;
}

void rdc_queue_prepend(rdc_queue_t *q, rdc_queue_t *from) {
    if (!from->first) {
        return;
    }
    from->last->next = q->first;
    if (!q->last) {
        q->last = from->last;
    }
    q->first = from->first;
    from->first = from->last = nullptr;
}

static bool _same_modified(const rdc_event_t *a, const rdc_event_t *b) {
    return a->type == RDC_MODIFIED && b->type == RDC_MODIFIED && a->fs == b->fs && a->monitor == b->monitor &&
           strcmp(a->path, b->path) == 0;
}

int rdc_queue_merge_modified(rdc_queue_t *q) {
    int dropped = 0;
    rdc_event_t **link = &q->first;
    rdc_event_t *prev = nullptr;
    while (*link) {
        rdc_event_t *e = *link;
        if (e->next && _same_modified(e, e->next)) {
            *link = e->next;
            rdc_event_free(e);
            dropped++;
            continue;
        }
        prev = e;
        link = &e->next;
    }
    q->last = prev;
    return dropped;
}

// ---- exclude test --------------------------------------------------------------------------------------

bool rdc_path_excluded(const db_exclude_t *e, void *match_data, const char *path, uint32_t root_len,
                       uint32_t kind) {
    uint32_t len = (uint32_t) strlen(path);
    // Each folder between the root and the item: the watch reports below excluded folders too.
    uint32_t start = root_len + 1;
    for (uint32_t i = start; i < len; i++) {
        if (path[i] != OS_SEP) {
            continue;
        }
        if (db_exclude_folder(e, match_data, path + start, i - start, path, i)) {
            return true;
        }
        start = i + 1;
    }
    const char *name = path + start;
    uint32_t name_len = len > start ? len - start : 0;
    bool as_folder = db_exclude_folder(e, match_data, name, name_len, path, len);
    bool as_file = db_exclude_file(e, match_data, name, name_len, path, len);
    if (kind == OS_DIRWATCH_FOLDER) {
        return as_folder;
    }
    if (kind == OS_DIRWATCH_FILE) {
        return as_file;
    }
    // The platform doesn't say what it is: only a name that neither rule lets through is dropped here; the
    // apply step tests again once the details say.
    return as_folder && as_file;
}

// The new buffer size after a server refused one: down to 65,536, then to 4,096.
uint32_t rdc_buffer_shrink(uint32_t size) {
    if (size > 65536) {
        return 65536;
    }
    if (size > 4096) {
        return 4096;
    }
    return size;
}
