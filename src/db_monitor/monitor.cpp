// The listener: one monitor thread that waits on a tree watch per monitored folder source and turns what
// the watches report into events for the details thread, with the retry rule for watches that can't be
// made or break, the shrinking of a refused buffer, and a rescan when changes were lost.
#include <cstring>

#include "config/config_vars.h"
#include "db_create/db_create.h"
#include "db_monitor/db_monitor.h"
#include "db_monitor/db_monitor_internal.h"
#include "db_monitor/monitor_internal.h"
#include "debug/debug.h"
#include "main/main.h"
#include "mem/mem.h"

// ---- the monitor thread --------------------------------------------------------------------------------

static const char *_action_name(uint32_t action) {
    switch (action) {
    case OS_DIRWATCH_ADDED:
        return "ADDED";
    case OS_DIRWATCH_REMOVED:
        return "REMOVED";
    case OS_DIRWATCH_MODIFIED:
        return "MODIFIED";
    case OS_DIRWATCH_RENAMED_OLD:
        return "RENAMED_OLD_NAME";
    case OS_DIRWATCH_RENAMED_NEW:
        return "RENAMED_NEW_NAME";
    default:
        return "UNKNOWN";
    }
}

void rdc_listener_queue(rdc_listener_t *l, rdc_event_t *e) {
    {
        os_lock_guard guard(&l->db->monitor_lock);
        rdc_queue_push(&l->st->details, e);
    }
    os_event_set(l->details_wake);
}

static rdc_event_t *_event(bool kind_known, db_fs_t *fs, rdc_monitor_t *m, uint32_t type, const char *path,
                           const char *old_path, bool folder) {
    rdc_event_t *e = rdc_event_new(fs, m, type, path, old_path, folder);
    e->kind_known = kind_known;
    return e;
}

// One entry of a watch, on the monitor thread.
static void _entry_proc(void *ctx, const os_dirwatch_entry_t *entry) {
    rdc_monitor_t *m = (rdc_monitor_t *) ctx;
    rdc_listener_t *l = m->listener;
    str_t path;
    str_init(&path);
    str_set(&path, m->path);
    if (!(path.len == 1 && path.ptr[0] == OS_SEP)) {
        str_cat(&path, OS_SEP_STR, 1);
    }
    str_cat(&path, entry->path, (int) entry->path_len);
    debug_printf("RDC %s %s\n", _action_name(entry->action), path.ptr);
    uint32_t root_len = (uint32_t) strlen(m->path);
    if (root_len == 1 && m->path[0] == OS_SEP) {
        root_len = 0;
    }
    bool excluded = rdc_path_excluded(&l->db->exclude, l->match_data, path.ptr, root_len, entry->kind);
    bool folder = entry->kind == OS_DIRWATCH_FOLDER;
    bool kind_known = entry->kind != OS_DIRWATCH_KIND_UNKNOWN;
    switch (entry->action) {
    case OS_DIRWATCH_ADDED:
    case OS_DIRWATCH_REMOVED:
    case OS_DIRWATCH_MODIFIED:
        if (excluded) {
            debug_printf("exclude %s\n", path.ptr);
        } else {
            rdc_listener_queue(l, _event(kind_known, m->fs, m, entry->action, path.ptr, nullptr, folder));
        }
        break;
    case OS_DIRWATCH_RENAMED_OLD:
        mem_free(m->rename_old_name);
        m->rename_old_name = mem_dup(path.ptr, (size_t) path.len);
        break;
    case OS_DIRWATCH_RENAMED_NEW:
        if (excluded) {
            debug_printf("exclude %s\n", path.ptr);
            // What had a passing name leaves the index with the rename.
            if (m->rename_old_name) {
                rdc_listener_queue(
                    l, _event(kind_known, m->fs, m, RDC_REMOVED, m->rename_old_name, nullptr, folder));
            }
        } else if (m->rename_old_name) {
            rdc_listener_queue(
                l, _event(kind_known, m->fs, m, RDC_RENAMED_NEW, path.ptr, m->rename_old_name, folder));
        } else {
            rdc_listener_queue(l, _event(kind_known, m->fs, m, RDC_ADDED, path.ptr, nullptr, folder));
        }
        mem_free(m->rename_old_name);
        m->rename_old_name = nullptr;
        break;
    default:
        break;
    }
    str_kill(&path);
}

// The retry rule: the watch is closed and made again once monitor_retry_delay has passed.
static void _retry(rdc_monitor_t *m) {
    os_dirwatch_destroy(m->handle);
    m->handle = nullptr;
    m->delay = (uint32_t) (monitor_retry_delay > 0 ? monitor_retry_delay : 0);
    m->delay_start = os_tick_ms();
}

// Watching a part of the tree would miss changes silently: the source is rescanned instead.
static void _limit(rdc_monitor_t *m, uint32_t error) {
    debug_printf("folder watch limit reached %s %d: rescanned on its schedule\n", m->path, (int) error);
    {
        os_lock_guard guard(&m->listener->db->monitor_lock);
        m->limit = true;
    }
    event_post(_db_folder_watch_limit_proc, m->listener->db);
}

static void _open(rdc_monitor_t *m) {
    m->handle = os_dirwatch_create(m->path, m->buffer_size, m->listener->flags);
    if (m->handle) {
        debug_printf("read_directory_changes %s uses %s\n", m->path, os_dirwatch_mechanism(m->handle));
        return;
    }
    uint32_t error = os_last_error();
    if (os_dirwatch_error_is_limit(error)) {
        _limit(m, error);
        return;
    }
    debug_printf("os_create_file %s %d\n", m->path, (int) error);
    _retry(m);
}

static void _read(rdc_monitor_t *m) {
    int rc = os_dirwatch_read(m->handle, _entry_proc, m);
    switch (rc) {
    case OS_DIRWATCH_OVERFLOW:
        debug_printf("need to rescan %d %s\n", (int) m->rescan_if_full, m->path);
        if (m->rescan_if_full) {
            rdc_listener_queue(m->listener, rdc_event_new(m->fs, m, RDC_RESCAN, m->path, nullptr, true));
        }
        break;
    case OS_DIRWATCH_BUFFER_REFUSED:
        m->buffer_size = rdc_buffer_shrink(m->buffer_size);
        debug_printf("GetOverlappedResult %s %d\n", m->path, (int) os_last_error());
        _retry(m);
        break;
    case OS_DIRWATCH_BROKEN: {
        uint32_t error = os_last_error();
        debug_printf("ReadDirectoryChangesW %s %d\n", m->path, (int) error);
        if (os_dirwatch_error_is_limit(error)) {
            // A new folder took the tree past the user's limit: made again, the watch would be refused.
            os_dirwatch_destroy(m->handle);
            m->handle = nullptr;
            _limit(m, error);
        } else {
            _retry(m);
        }
        break;
    }
    case OS_DIRWATCH_MALFORMED: {
        const os_dirwatch_fault_t *f = os_dirwatch_fault(m->handle);
        const char *line = f->check == OS_DIRWATCH_FAULT_NAME_ACCESS ? "invalid rdc file name access %d %d\n"
                           : f->check == OS_DIRWATCH_FAULT_NEXT_OFFSET
                               ? "invalid rdc next entry offset %d %d\n"
                               : "invalid rdc file name length access %d %d\n";
        debug_printf(line, (int) f->reach, (int) f->size);
        break;
    }
    default:
        break;
    }
}

static void _monitor_thread_proc(void *arg) {
    rdc_listener_t *l = (rdc_listener_t *) arg;
    os_dirwatch_t *set[OS_WATCH_WAIT_MAX - 1];
    while (!os_watch_stop_is_set(l->stop)) {
        int count = 0;
        uint32_t timeout = OS_INFINITE;
        for (rdc_monitor_t *m = l->monitors; m; m = m->next) {
            if (m->limit) {
                continue;
            }
            if (m->delay) {
                uint32_t passed = os_tick_ms() - m->delay_start;
                if (passed < m->delay) {
                    uint32_t left = m->delay - passed;
                    timeout = left < timeout ? left : timeout;
                    continue;
                }
                m->delay = 0;
            }
            if (count == OS_WATCH_WAIT_MAX - 1) {
                // More than one wait takes: the rest are read on a short time-out.
                timeout = timeout < 1000 ? timeout : 1000;
                continue;
            }
            if (!m->handle) {
                _open(m);
                if (!m->handle) {
                    if (m->delay) {
                        timeout = m->delay < timeout ? m->delay : timeout;
                    }
                    continue;
                }
            }
            set[count++] = m->handle;
        }
        debug_printf("rdc wait %d %d\n", count, (int) timeout);
        int r = os_dirwatch_wait(l->stop, set, count, timeout);
        if (r == OS_WATCH_WAIT_STOP) {
            break;
        }
        if (r == OS_WATCH_WAIT_FAILED) {
            os_sleep_ms(1000);
        }
        if (rdc_read_gate) {
            os_event_wait(rdc_read_gate, OS_INFINITE);
        }
        // A read never blocks and a quiet watch gives nothing, so every open watch is read.
        for (rdc_monitor_t *m = l->monitors; m; m = m->next) {
            if (m->handle && !m->delay) {
                _read(m);
            }
        }
    }
}

// ---- start and stop ------------------------------------------------------------------------------------

static bool _listened(const db_fs_t *fs) {
    return fs->type == DB_FS_FOLDER && fs->monitor && !fs->out_of_date;
}

uint32_t rdc_dirwatch_flags = 0;
os_event_t *rdc_read_gate = nullptr;

void db_folder_monitors_start(db_t *db) {
    db_folder_monitors_stop(db);
    db_folder_state_t *pending = db_folder_state_peek(db);
    if (pending && pending->update_all_at_load && db->is_loaded) {
        // A rescan asked for while the index was loading: the sources are there now.
        pending->update_all_at_load = false;
        for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
            fs->update_now = fs->update_now || fs->type == DB_FS_FOLDER;
        }
        db->folder_update_pending = true;
    }
    if (read_only || monitor_pause || !db->is_loaded || db->remote_name) {
        return;
    }
    db_folder_tick_start(db);
    db_folder_state_t *st = db_folder_state(db);
    rdc_listener_t *l = nullptr;
    rdc_monitor_t **tail = nullptr;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        if (!_listened(fs)) {
            continue;
        }
        if (!l) {
            l = (rdc_listener_t *) mem_alloc(sizeof(rdc_listener_t));
            memset(l, 0, sizeof(*l));
            l->db = db;
            l->st = st;
            l->flags = rdc_dirwatch_flags;
            tail = &l->monitors;
        }
        rdc_monitor_t *m = (rdc_monitor_t *) mem_alloc(sizeof(rdc_monitor_t));
        memset(m, 0, sizeof(*m));
        const char *path = fs->path && *fs->path ? fs->path : OS_SEP_STR;
        m->path = mem_dup(path, strlen(path));
        m->fs = fs;
        m->listener = l;
        m->buffer_size = fs->buffer_size ? fs->buffer_size : 65536;
        m->rescan_if_full = fs->rescan_if_full;
        fs->folder_monitor = m;
        debug_printf("read_directory_changes start %s\n", m->path);
        // Made here rather than on the thread: a change right after the start is seen.
        _open(m);
        *tail = m;
        tail = &m->next;
    }
    if (!l) {
        return;
    }
    st->listener = l;
    l->stop = os_watch_stop_create();
    l->details_wake = os_event_create(false);
    l->match_data = db_exclude_match_data_create();
    l->details_match_data = db_exclude_match_data_create();
    l->monitor_thread = os_thread_create(_monitor_thread_proc, l);
    l->details_thread = os_thread_create(rdc_details_thread_proc, l);
    if (folder_update_thread_mode_background) {
        os_thread_set_priority(l->details_thread, 0x10000);
    }
}

void db_folder_listener_stop(db_t *db, db_folder_state_t *st) {
    rdc_listener_t *l = (rdc_listener_t *) st->listener;
    if (!l) {
        return;
    }
    debug_printf("read_directory_changes stop thread\n");
    os_watch_stop_set(l->stop);
    os_thread_destroy(l->monitor_thread);
    debug_printf("read_directory_changes stop get fd thread\n");
    {
        os_lock_guard guard(&db->monitor_lock);
        l->details_stop = true;
    }
    os_event_set(l->details_wake);
    os_thread_destroy(l->details_thread);
    rdc_queue_t details, ready;
    {
        os_lock_guard guard(&db->monitor_lock);
        details = st->details;
        ready = st->ready;
        st->details.first = st->details.last = nullptr;
        st->ready.first = st->ready.last = nullptr;
    }
    debug_printf("read_directory_changes remove events\n");
    event_remove(_db_folder_rdc_update_proc, db);
    event_remove(_db_folder_watch_limit_proc, db);
    debug_printf("read_directory_changes free events\n");
    rdc_event_free_list(details.first);
    debug_printf("read_directory_changes remove got fd events\n");
    debug_printf("read_directory_changes free got fd events\n");
    rdc_event_free_list(ready.first);
    debug_printf("read_directory_changes after update events\n");
    debug_printf("read_directory_changes free monitors\n");
    while (l->monitors) {
        rdc_monitor_t *m = l->monitors;
        l->monitors = m->next;
        os_dirwatch_destroy(m->handle);
        if (m->fs) {
            m->fs->folder_monitor = nullptr;
        }
        mem_free(m->rename_old_name);
        mem_free(m->path);
        mem_free(m);
    }
    os_watch_stop_destroy(l->stop);
    os_event_destroy(l->details_wake);
    db_exclude_match_data_destroy(l->match_data);
    db_exclude_match_data_destroy(l->details_match_data);
    mem_free(l);
    st->listener = nullptr;
}

void db_folder_monitors_stop(db_t *db) {
    db_folder_state_t *st = db_folder_state_peek(db);
    if (!st) {
        return;
    }
    db_folder_tick_stop(db);
    db_folder_listener_stop(db, st);
}

// The user's watch limit was met: a source that has no schedule gets one, so that it is still kept
// fresh, and the index's state says why.
void _db_folder_watch_limit_proc(void *ctx) {
    db_t *db = (db_t *) ctx;
    db_folder_state_t *st = db_folder_state_peek(db);
    rdc_listener_t *l = st ? (rdc_listener_t *) st->listener : nullptr;
    if (!l) {
        return;
    }
    for (rdc_monitor_t *m = l->monitors; m; m = m->next) {
        bool limit;
        {
            os_lock_guard guard(&db->monitor_lock);
            limit = m->limit && !m->limit_told;
            m->limit_told = m->limit_told || m->limit;
        }
        if (!limit) {
            continue;
        }
        db_set_status(db, "Too many folders to watch in %s: rescanned on a schedule", m->path);
        if (m->fs->update_type == DB_UPDATE_NONE) {
            m->fs->update_type = DB_UPDATE_INTERVAL;
            m->fs->update_value = RDC_LIMIT_INTERVAL_MINUTES;
            db_folder_schedule_next(m->fs);
        }
    }
    db_folder_tick_start(db);
}

bool db_folder_watch_limited(const db_t *db, const db_fs_t *fs) {
    rdc_monitor_t *m = (rdc_monitor_t *) fs->folder_monitor;
    if (!m) {
        return false;
    }
    os_lock_guard guard((os_lock_t *) &db->monitor_lock);
    return m->limit;
}
