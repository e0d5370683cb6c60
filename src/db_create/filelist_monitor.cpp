// The file-list monitor: one thread that waits on the folders of the monitored lists and posts a check
// to the main thread, and the check that compares dates there. The watch only wakes us; a list changed
// when its date modified differs from the one saved at its last read, whatever the watch saw.
#include "db_create/filelist_monitor.h"

#include "config/config_vars.h"
#include "db/db.h"
#include "db_create/db_create.h"
#include "debug/debug.h"
#include "filelist/filelist.h"
#include "main/main.h"
#include "mem/mem.h"
#include "os/os_watch.h"

// Lists that could not be watched, or that did not fit into the wait, are checked this often.
#define FILELIST_RETRY_MS 60000

struct _monitor_t {
    db_t *db;
    os_thread_t *thread;
    os_watch_stop_t *stop;
};

static bool _watched(const db_fs_t *fs) {
    return fs->type == DB_FS_FILE_LIST && fs->monitor && !fs->out_of_date && fs->filename;
}

// The folder that holds a list, in a form the platform can watch: "/" for a list at the Linux top, and
// "X:\" rather than "X:", which would name the drive's current folder.
static void _list_folder(str_t *out, const char *filename) {
    filelist_base_dir(out, filename);
    if (out->len == 0 && filename[0] == OS_SEP) {
        str_cat_char(out, OS_SEP);
    } else if (out->len > 0 && out->ptr[out->len - 1] == ':') {
        str_cat_char(out, OS_SEP);
    }
}

static os_watch_t *_watch_list(const db_fs_t *fs) {
    str_t folder;
    str_init(&folder);
    _list_folder(&folder, fs->filename);
    os_watch_t *w = os_watch_create(folder.ptr);
    str_kill(&folder);
    return w;
}

static void _close_handles(db_t *db) {
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        os_watch_destroy((os_watch_t *) fs->change_handle);
        fs->change_handle = nullptr;
    }
}

// What one pass over the sources found.
struct _pass_t {
    os_watch_t *set[OS_WATCH_WAIT_MAX - 1];
    int count;
    bool change; // a watch was signalled: post a check
    bool retry;  // a list is not in the wait: wake on the time-out
};

// Builds the wait set: a watch for each monitored list that lacks one, and each existing watch tested
// and re-armed. A watch that can't be re-armed is closed and made again on the next pass.
static void _pass(db_t *db, _pass_t *p) {
    p->count = 0;
    p->change = false;
    p->retry = false;
    bool overflow = false;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        if (!_watched(fs)) {
            continue;
        }
        if (p->count == OS_WATCH_WAIT_MAX - 1) {
            overflow = true;
            continue;
        }
        os_watch_t *w = (os_watch_t *) fs->change_handle;
        if (!w) {
            w = _watch_list(fs);
            fs->change_handle = w;
            if (!w) {
                p->retry = true;
                continue;
            }
        } else {
            int state = os_watch_poll(w);
            if (state == OS_WATCH_CHANGED) {
                p->change = true;
            } else if (state == OS_WATCH_BROKEN) {
                os_watch_destroy(w);
                fs->change_handle = nullptr;
                p->change = true;
                p->retry = true;
                continue;
            }
        }
        p->set[p->count++] = w;
    }
    if (overflow) {
        p->retry = true;
    }
}

static void _monitor_proc(void *arg) {
    _monitor_t *m = (_monitor_t *) arg;
    _pass_t p;
    while (!os_watch_stop_is_set(m->stop)) {
        _pass(m->db, &p);
        if (p.change) {
            event_post(_db_filelists_check_proc, m->db);
        }
        debug_printf("wait for change notification %d\n", p.count + 1);
        int r = os_watch_wait(m->stop, p.set, p.count, p.retry ? FILELIST_RETRY_MS : OS_INFINITE);
        if (r == OS_WATCH_WAIT_TIMEOUT) {
            event_post(_db_filelists_check_proc, m->db);
        } else if (r == OS_WATCH_WAIT_FAILED) {
            // Nothing to wait on but time: check now and then rather than spin.
            debug_printf("filelist monitor wait failed %u\n", os_last_error());
            if (os_watch_wait(m->stop, nullptr, 0, FILELIST_RETRY_MS) == OS_WATCH_WAIT_TIMEOUT) {
                event_post(_db_filelists_check_proc, m->db);
            }
        }
    }
}

void db_filelists_monitor_stop(db_t *db) {
    _monitor_t *m = (_monitor_t *) db->filelist_monitor;
    if (m) {
        os_watch_stop_set(m->stop);
        os_thread_destroy(m->thread);
        os_watch_stop_destroy(m->stop);
        mem_free(m);
        db->filelist_monitor = nullptr;
    }
    _close_handles(db);
    // Only now: the thread can't post again once it has been joined.
    event_remove(_db_filelists_check_proc, db);
}

static bool _ready(const db_t *db) {
    return db->is_loaded && db->fs_first;
}

void db_filelists_monitor_start(db_t *db) {
    db_filelists_monitor_stop(db);
    // A private index over one list is read once, as its window asked; nothing watches it.
    if (read_only || monitor_pause || db->remote_name) {
        return;
    }
    int watched = 0;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        if (_watched(fs)) {
            // Made here rather than on the thread, so that a change right after the check below is seen.
            // Those that won't fit into the wait are left to the thread's time-out.
            if (!fs->change_handle && watched < OS_WATCH_WAIT_MAX - 1) {
                fs->change_handle = _watch_list(fs);
            }
            watched++;
        }
    }
    if (watched) {
        _monitor_t *m = (_monitor_t *) mem_alloc(sizeof(_monitor_t));
        m->db = db;
        m->stop = os_watch_stop_create();
        db->filelist_monitor = m;
        m->thread = os_thread_create(_monitor_proc, m);
    }
    if (_ready(db)) {
        _db_filelists_check_proc(db);
    }
}

bool _db_filelists_is_change(db_t *db) {
    debug_printf("check for file list changes\n");
    if (!db->is_loaded) {
        return false;
    }
    uint32_t start = debug_now_us();
    bool change = false;
    for (db_fs_t *fs = db->fs_first; fs; fs = fs->next) {
        if (fs->type != DB_FS_FILE_LIST || fs->out_of_date || !fs->filename) {
            continue;
        }
        os_file_info_t info;
        // A list that can't be read now (gone, or on a drive that went away) has no known date. One reached
        // through a link is dated by the list, as at its read.
        if (!os_get_target_info(fs->filename, &info) || info.date_modified == DB_UNKNOWN) {
            continue;
        }
        if (info.date_modified != fs->last_write_time) {
            debug_printf("filelist out of date\n");
            fs->out_of_date = true;
            change = true;
        }
    }
    debug_printf("checked for file list changes in %f seconds\n", (int) (debug_now_us() - start));
    return change;
}

void _db_filelists_check_proc(void *ctx) {
    db_t *db = (db_t *) ctx;
    if (!_ready(db)) {
        return;
    }
    db->filelist_check_made = true;
    if (_db_filelists_is_change(db)) {
        // The rebuild replaces every source, and with them the watches the thread is waiting on.
        db_filelists_monitor_stop(db);
        db_rebuild(db, false);
    }
}
