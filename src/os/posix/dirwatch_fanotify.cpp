// The tree watch of a whole file system: one fanotify mark on its superblock, with events that name the
// folder (by file handle) and the entry's name. It costs no watch per folder and can't miss a folder made
// in a hurry, so "/" and other mounts are followed at no set-up cost. It needs CAP_SYS_ADMIN and a file
// system that gives file handles; where either is missing, creation fails and the caller uses inotify.
//
// Only a folder that is the root of its file system qualifies: the mark covers the whole file system,
// and a bind mount of a part of it would be told about the rest. Folder handles are turned into paths by
// opening them against a descriptor of the root and reading the link /proc/self/fd gives.
//
// The kernel folds events on one name that queue up unread into one event with several bits, wherever
// the first one stands in the queue, so one event may say both created and deleted, or stand before
// changes that came between. After each read, what exists decides the last word on every name mentioned
// more than once (see _fan_settle_names). Renames come as one event with both names
// (FAN_RENAME); a kernel without it gets inotify.
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/posix/dirwatch.h"

#include <algorithm>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#define FAN_ENTRY_MASK (FAN_CREATE | FAN_DELETE | FAN_ATTRIB | FAN_MODIFY | FAN_CLOSE_WRITE | FAN_ONDIR)
#define FAN_READS_MAX  64
#define FAN_BUFFER_MIN 8192

struct fanotify_watch_t {
    os_dirwatch_t base;
    int mount_fd; // the root folder, against which handles are opened
    char *root;   // without a trailing separator, "" for "/"
    size_t root_len;
    uint32_t buffer_size;
    char *buffer;
};

// One name in an event: the folder's path relative to the root, joined with the entry's name.
struct fanotify_name_t {
    bool inside; // the folder could be found and lies below the root
    str_t path;
};

// ---- the mount check ------------------------------------------------------------------------------------

// Undoes the octal escapes (\040 for a space, \011, \012, \134) of a mountinfo field, in place.
static void _fan_unescape(char *s) {
    char *out = s;
    for (char *p = s; *p; p++) {
        if (p[0] == '\\' && p[1] >= '0' && p[1] <= '3' && p[2] >= '0' && p[2] <= '7' && p[3] >= '0' &&
            p[3] <= '7') {
            *out++ = (char) ((p[1] - '0') * 64 + (p[2] - '0') * 8 + (p[3] - '0'));
            p += 3;
        } else {
            *out++ = *p;
        }
    }
    *out = 0;
}

// True when folder is a mount point whose mount shows its file system from the top, not a part of it.
// The last mount at a point is the one that is seen.
static bool _fan_is_fs_root(const char *folder) {
    FILE *f = fopen("/proc/self/mountinfo", "re");
    if (!f) {
        return false;
    }
    bool whole = false;
    char *line = nullptr;
    size_t cap = 0;
    while (getline(&line, &cap, f) > 0) {
        // Fields: id, parent id, major:minor, root, mount point, ...
        char *fields[5];
        int n = 0;
        for (char *save = nullptr, *t = strtok_r(line, " ", &save); t && n < 5;
             t = strtok_r(nullptr, " ", &save)) {
            fields[n++] = t;
        }
        if (n < 5) {
            continue;
        }
        _fan_unescape(fields[4]);
        if (strcmp(fields[4], folder) == 0) {
            _fan_unescape(fields[3]);
            whole = strcmp(fields[3], "/") == 0;
        }
    }
    free(line);
    fclose(f);
    return whole;
}

// ---- creating -------------------------------------------------------------------------------------------

static int _fan_mark(int fd, const char *folder, uint64_t mask) {
    return fanotify_mark(fd, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD, folder);
}

static void _fan_destroy(os_dirwatch_t *base) {
    fanotify_watch_t *w = (fanotify_watch_t *) base;
    if (w->base.fd >= 0) {
        close(w->base.fd);
    }
    if (w->mount_fd >= 0) {
        close(w->mount_fd);
    }
    mem_free(w->root);
    mem_free(w->buffer);
    mem_free(w);
}

// ---- reading --------------------------------------------------------------------------------------------

// The path of a folder handle record's folder, relative to the root, with the record's name joined on.
static void _fan_resolve(fanotify_watch_t *w, const char *record, const char *end, fanotify_name_t *out) {
    out->inside = false;
    str_clear(&out->path);
    // The handle's fields are copied out: the buffer gives no alignment for them.
    const char *raw = record + offsetof(struct fanotify_event_info_fid, handle);
    struct {
        struct file_handle h;
        unsigned char bytes[MAX_HANDLE_SZ];
    } handle;
    if (raw + sizeof(struct file_handle) > end) {
        return;
    }
    memcpy(&handle.h, raw, sizeof(struct file_handle));
    if (handle.h.handle_bytes > MAX_HANDLE_SZ ||
        raw + sizeof(struct file_handle) + handle.h.handle_bytes >= end) {
        return;
    }
    memcpy(handle.h.f_handle, raw + sizeof(struct file_handle), handle.h.handle_bytes);
    const char *name = raw + sizeof(struct file_handle) + handle.h.handle_bytes;
    if (!memchr(name, 0, (size_t) (end - name))) {
        return;
    }
    int fd = open_by_handle_at(w->mount_fd, &handle.h, O_PATH | O_CLOEXEC);
    if (fd < 0) {
        // The folder is gone already; whatever happened in it is told by the event that removed it.
        return;
    }
    char link[64], path[PATH_MAX];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, path, sizeof(path) - 1);
    close(fd);
    static const char deleted[] = " (deleted)";
    if (n <= 0 || (size_t) n >= sizeof(path) - 1 ||
        ((size_t) n >= sizeof(deleted) - 1 &&
         memcmp(path + n - (sizeof(deleted) - 1), deleted, sizeof(deleted) - 1) == 0)) {
        return;
    }
    path[n] = 0;
    if (strncmp(path, w->root, w->root_len) != 0 || (path[w->root_len] != 0 && path[w->root_len] != '/')) {
        return;
    }
    const char *rel = path + w->root_len + (path[w->root_len] == '/' ? 1 : 0);
    str_set(&out->path, rel);
    if (name[0] && !(name[0] == '.' && name[1] == 0)) {
        if (out->path.len) {
            str_cat_char(&out->path, '/');
        }
        str_cat_z(&out->path, name);
    }
    out->inside = true;
}

// An entry of one read, held until the read is over (see _fan_deliver).
struct fanotify_entry_t {
    uint32_t action, kind;
    bool folded; // from an event that the kernel folded from several
    char *path;  // relative, as resolved when read; owned
    size_t len;
};

struct fanotify_read_t {
    os_dirwatch_callback_t callback;
    void *ctx;
    fanotify_name_t a, b;
    fanotify_entry_t *entries;
    int count, cap;
    bool folded; // the event being turned into entries had several changes of a name folded into it
};

static void _fan_emit(fanotify_read_t *r, uint32_t action, const str_t *path, uint32_t kind) {
    if (r->count == r->cap) {
        r->cap = r->cap ? r->cap * 2 : 64;
        r->entries = (fanotify_entry_t *) mem_realloc(r->entries, (size_t) r->cap * sizeof(fanotify_entry_t));
    }
    fanotify_entry_t *e = &r->entries[r->count++];
    e->action = action;
    e->kind = kind;
    e->folded = r->folded;
    e->len = (size_t) path->len;
    e->path = mem_dup(path->len ? path->ptr : "", e->len);
}

// Rewrites a path under a renamed folder's new name to its old name. True when it did.
static bool _fan_undo_rename(fanotify_entry_t *e, const fanotify_entry_t *old_name,
                             const fanotify_entry_t *new_name) {
    size_t n = new_name->len;
    if (e->len < n || memcmp(e->path, new_name->path, n) != 0 || (e->len > n && e->path[n] != '/')) {
        return false;
    }
    size_t len = old_name->len + (e->len - n);
    char *path = (char *) mem_alloc(len + 1);
    memcpy(path, old_name->path, old_name->len);
    memcpy(path + old_name->len, e->path + n, e->len - n + 1);
    mem_free(e->path);
    e->path = path;
    e->len = len;
    return true;
}

// Inserts entry e (path copied) at position at, moving the later ones up.
static void _fan_insert(fanotify_read_t *r, int at, uint32_t action, const fanotify_entry_t *like,
                        uint32_t kind) {
    str_t path;
    str_init(&path);
    str_set_n(&path, like->path, (int) like->len);
    _fan_emit(r, action, &path, kind);
    str_kill(&path);
    fanotify_entry_t added = r->entries[r->count - 1];
    memmove(&r->entries[at + 1], &r->entries[at], (size_t) (r->count - 1 - at) * sizeof(fanotify_entry_t));
    r->entries[at] = added;
}

// The kernel folds an event into an earlier one on the same folder and name still queued, wherever it
// stands, so an entry may stand for several changes, the later of which happened after entries that
// come after it (a name made again after it was renamed away comes out before the rename). For each name
// that several entries of the read (or one folded event) mention, what is there now decides what the
// last word on it must be: a name that exists but was last renamed away or removed is added again just
// after that; a name that is gone but was last added is removed at the end.
static void _fan_settle_names(fanotify_watch_t *w, fanotify_read_t *r) {
    int n = r->count;
    int *order = (int *) mem_alloc(((size_t) n + 1) * sizeof(int));
    for (int i = 0; i < n; i++) {
        order[i] = i;
    }
    const fanotify_entry_t *e = r->entries;
    std::sort(order, order + n, [e](int a, int b) {
        int c = strcmp(e[a].path, e[b].path);
        return c < 0 || (c == 0 && a < b);
    });
    // Positions are decided on the entries as they are; insertions are made afterwards, last first.
    struct fix_t {
        int at;
        uint32_t action, kind;
        int like;
    };
    fix_t *fixes = (fix_t *) mem_alloc(((size_t) n + 1) * sizeof(fix_t));
    int fix_count = 0;
    for (int g = 0; g < n;) {
        int end = g + 1;
        bool folded = e[order[g]].folded;
        while (end < n && strcmp(e[order[end]].path, e[order[g]].path) == 0) {
            folded |= e[order[end]].folded;
            end++;
        }
        int last = order[end - 1];
        if (end - g > 1 || folded) {
            struct stat st;
            bool exists =
                fstatat(w->mount_fd, e[last].len ? e[last].path : ".", &st, AT_SYMLINK_NOFOLLOW) == 0;
            uint32_t a = e[last].action;
            if (exists && (a == OS_DIRWATCH_REMOVED || a == OS_DIRWATCH_RENAMED_OLD)) {
                int at = last + (a == OS_DIRWATCH_RENAMED_OLD ? 2 : 1);
                fixes[fix_count++] = {
                    at, OS_DIRWATCH_ADDED,
                    S_ISDIR(st.st_mode) ? (uint32_t) OS_DIRWATCH_FOLDER : (uint32_t) OS_DIRWATCH_FILE, last};
            } else if (!exists && a != OS_DIRWATCH_REMOVED && a != OS_DIRWATCH_RENAMED_OLD) {
                fixes[fix_count++] = {n, OS_DIRWATCH_REMOVED, e[last].kind, last};
            }
        }
        g = end;
    }
    mem_free(order);
    std::sort(fixes, fixes + fix_count, [](const fix_t &a, const fix_t &b) { return a.at > b.at; });
    for (int i = 0; i < fix_count; i++) {
        fanotify_entry_t like = r->entries[fixes[i].like];
        like.path = mem_dup(like.path, like.len);
        _fan_insert(r, fixes[i].at > r->count ? r->count : fixes[i].at, fixes[i].action, &like,
                    fixes[i].kind);
        mem_free(like.path);
    }
    mem_free(fixes);
}

// Delivers the read's entries. Folders are named by handle and resolved when read, so an entry from
// before a folder was renamed comes out under the new name; the renames of the same read are undone,
// latest first, on every entry that precedes them, so that each names its path as it was at its time.
static void _fan_deliver(fanotify_watch_t *w, fanotify_read_t *r) {
    // Names are settled on the paths as read, which are those of now, before the renames are undone.
    _fan_settle_names(w, r);
    // Indexes of the new-name entries of folder renames met so far, walking back: latest first.
    int *renames = (int *) mem_alloc(((size_t) r->count + 1) * sizeof(int));
    int rename_count = 0;
    for (int i = r->count - 1; i >= 0; i--) {
        bool pair = r->entries[i].action == OS_DIRWATCH_RENAMED_NEW && i > 0 &&
                    r->entries[i - 1].action == OS_DIRWATCH_RENAMED_OLD;
        for (int k = 0; k < rename_count; k++) {
            const fanotify_entry_t *to = &r->entries[renames[k]];
            _fan_undo_rename(&r->entries[i], to - 1, to);
            if (pair) {
                _fan_undo_rename(&r->entries[i - 1], to - 1, to);
            }
        }
        if (pair) {
            if (r->entries[i].kind == OS_DIRWATCH_FOLDER) {
                renames[rename_count++] = i;
            }
            i--;
        }
    }
    mem_free(renames);
    for (int i = 0; i < r->count; i++) {
        fanotify_entry_t *e = &r->entries[i];
        os_dirwatch_entry_t out = {e->action, e->path, (uint32_t) e->len, e->kind};
        r->callback(r->ctx, &out);
        mem_free(e->path);
    }
    r->count = 0;
}

// A rename from a to b, either of which may lie outside the root (or be unknown: inside false).
static void _fan_rename(fanotify_read_t *r, bool a_inside, const str_t *a, bool b_inside, const str_t *b,
                        uint32_t kind) {
    if (a_inside && b_inside) {
        _fan_emit(r, OS_DIRWATCH_RENAMED_OLD, a, kind);
        _fan_emit(r, OS_DIRWATCH_RENAMED_NEW, b, kind);
    } else if (a_inside) {
        _fan_emit(r, OS_DIRWATCH_REMOVED, a, kind);
    } else if (b_inside) {
        _fan_emit(r, OS_DIRWATCH_ADDED, b, kind);
    }
}

// One event: m is its metadata (copied out, aligned), raw its bytes in the buffer.
static void _fan_event(fanotify_watch_t *w, const struct fanotify_event_metadata *m, const char *raw,
                       fanotify_read_t *r) {
    const char *p = raw + m->metadata_len;
    const char *end = raw + m->event_len;
    bool have_a = false, have_b = false;
    while (p + sizeof(struct fanotify_event_info_header) <= end) {
        struct fanotify_event_info_header h;
        memcpy(&h, p, sizeof(h));
        if (h.len < sizeof(h) || p + h.len > end) {
            break;
        }
        if (h.info_type == FAN_EVENT_INFO_TYPE_DFID_NAME ||
            h.info_type == FAN_EVENT_INFO_TYPE_OLD_DFID_NAME) {
            _fan_resolve(w, p, p + h.len, &r->a);
            have_a = true;
        } else if (h.info_type == FAN_EVENT_INFO_TYPE_NEW_DFID_NAME) {
            _fan_resolve(w, p, p + h.len, &r->b);
            have_b = true;
        }
        p += h.len;
    }
    uint32_t kind = (m->mask & FAN_ONDIR) ? OS_DIRWATCH_FOLDER : OS_DIRWATCH_FILE;
    r->folded = (m->mask & FAN_CREATE) && (m->mask & FAN_DELETE);
    if ((m->mask & FAN_RENAME) && have_a && have_b) {
        _fan_rename(r, r->a.inside, &r->a.path, r->b.inside, &r->b.path, kind);
        return;
    }
    // Changes to the root folder itself are no entry of the tree.
    if (!have_a || !r->a.inside || r->a.path.len == 0) {
        return;
    }
    if ((m->mask & FAN_CREATE) && (m->mask & FAN_DELETE)) {
        // Folded: made and removed (or the reverse). An addition here (an update if the name was known);
        // the settling of names at the end of the read removes it if it is gone.
        _fan_emit(r, OS_DIRWATCH_ADDED, &r->a.path, kind);
    } else if (m->mask & (FAN_CREATE | FAN_DELETE)) {
        _fan_emit(r, (m->mask & FAN_CREATE) ? OS_DIRWATCH_ADDED : OS_DIRWATCH_REMOVED, &r->a.path, kind);
    } else if (m->mask & (FAN_MODIFY | FAN_CLOSE_WRITE | FAN_ATTRIB)) {
        _fan_emit(r, OS_DIRWATCH_MODIFIED, &r->a.path, kind);
    }
}

static int _fan_read(os_dirwatch_t *base, os_dirwatch_callback_t callback, void *ctx) {
    fanotify_watch_t *w = (fanotify_watch_t *) base;
    fanotify_read_t r = {callback, ctx};
    str_init(&r.a.path);
    str_init(&r.b.path);
    int result = OS_DIRWATCH_OK;
    int error = 0;
    for (int reads = 0; result == OS_DIRWATCH_OK && reads < FAN_READS_MAX; reads++) {
        ssize_t n = read(w->base.fd, w->buffer, w->buffer_size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        if (n <= 0) {
            error = n < 0 ? errno : EIO;
            result = OS_DIRWATCH_BROKEN;
            break;
        }
        // Events follow each other at event_len, which keeps no alignment: each header is copied out.
        for (ssize_t off = 0; off + (ssize_t) FAN_EVENT_METADATA_LEN <= n;) {
            struct fanotify_event_metadata m;
            memcpy(&m, w->buffer + off, sizeof(m));
            if (m.vers != FANOTIFY_METADATA_VERSION || m.event_len < FAN_EVENT_METADATA_LEN ||
                off + (ssize_t) m.event_len > n) {
                error = EPROTO;
                result = OS_DIRWATCH_BROKEN;
                break;
            }
            if (m.fd >= 0) {
                close(m.fd);
            }
            if (m.mask & FAN_Q_OVERFLOW) {
                // The rest of this buffer is still true; the caller rescans for what was lost.
                result = OS_DIRWATCH_OVERFLOW;
            } else {
                _fan_event(w, &m, w->buffer + off, &r);
            }
            off += m.event_len;
        }
    }
    _fan_deliver(w, &r);
    mem_free(r.entries);
    str_kill(&r.a.path);
    str_kill(&r.b.path);
    errno = error;
    return result;
}

static uint32_t _fan_due_ms(os_dirwatch_t *base) {
    return OS_INFINITE;
}

static const os_dirwatch_ops_t _fan_ops = {"fanotify", _fan_read, _fan_due_ms, _fan_destroy};

os_dirwatch_t *os_dirwatch_fanotify_create(const char *folder, uint32_t buffer_size) {
    if (!_fan_is_fs_root(folder)) {
        errno = EINVAL;
        return nullptr;
    }
    int fd = fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK | FAN_REPORT_DFID_NAME,
                           O_RDONLY | O_LARGEFILE);
    if (fd < 0) {
        return nullptr;
    }
    fanotify_watch_t *w = (fanotify_watch_t *) mem_alloc(sizeof(fanotify_watch_t));
    memset(w, 0, sizeof(*w));
    w->base.ops = &_fan_ops;
    w->base.fd = fd;
    w->mount_fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    size_t n = strlen(folder);
    w->root_len = n == 1 && folder[0] == '/' ? 0 : n;
    w->root = mem_dup(folder, w->root_len);
    w->buffer_size = buffer_size < FAN_BUFFER_MIN ? FAN_BUFFER_MIN : buffer_size;
    w->buffer = (char *) mem_alloc(w->buffer_size);
    // FAN_RENAME (Linux 5.17) gives both names of a rename in one event. Without it the two halves come
    // with nothing to join them, and the kernel's folding of events on one name can put a half out of
    // its place, so that no pairing can be trusted: older kernels refuse the bit, and get inotify.
    int marked = w->mount_fd < 0 ? -1 : _fan_mark(fd, folder, FAN_ENTRY_MASK | FAN_RENAME);
    if (marked != 0) {
        int error = errno;
        _fan_destroy(&w->base);
        errno = error;
        return nullptr;
    }
    return &w->base;
}
