// The recursive watch built from inotify: one watch per folder of the tree, in one inotify instance.
//
// Every folder is watched before it is listed, so that whatever appears in it while it is being listed is
// either in the listing or in an event. A folder that appears later (created, or moved in from outside)
// is watched and listed at once, and what it already holds is reported as added. The watched folders form
// a tree of nodes, each holding only its own name and its parent, so that a rename of a folder is one
// change to one node and every path below it follows. Events name a watch by its descriptor (wd); a small
// hash table finds the node.
//
// A rename gives two events joined by a cookie: the old name in one folder, the new name in another,
// queued one right after the other. An old name followed by any other event was a move out of the tree
// and counts as a removal at once; one that ends a read may have its new name in the next, so it is held
// until then, or for INOTIFY_HOLD_MS at most.
//
// Where the user's watch limit stops a watch, the whole watch is given up: watching part of a tree without
// saying so would leave the index wrong without anyone knowing. A queue overflow rebuilds every watch,
// because the lost events may have included folders that then never got theirs.
#include "mem/mem.h"
#include "os/os_internal.h"
#include "os/posix/dirwatch.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

// What makes an entry: names coming and going, and writes and attribute or time changes of what a folder
// holds. A file being written gives IN_MODIFY per write call; the kernel folds identical events that
// queue up unread and the read folds repeats, so a writer costs at most one entry per read.
#define INOTIFY_MASK                                                                                         \
    (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB |          \
     IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK)
// How long the first half of a rename waits for its second half.
#define INOTIFY_HOLD_MS 20
// Renames whose second half is awaited at one time; more are delivered as removals at once.
#define INOTIFY_HELD_MAX 64
// Buffers one read takes before returning, so that a busy tree can't keep a read going for ever.
#define INOTIFY_READS_MAX 64
// The smallest buffer that holds any single event.
#define INOTIFY_BUFFER_MIN (sizeof(struct inotify_event) + NAME_MAX + 1)

struct inotify_node_t {
    int wd;
    char *name; // the folder's name in its parent; empty for the root
    inotify_node_t *parent;
    inotify_node_t *first_child, *next_sibling, *prev_sibling;
    uint32_t listed; // the serial of the last end of a read that listed it
};

// A folder that appeared: its parent's watch and its name.
struct inotify_pending_t {
    int parent_wd;
    char *name;
};

// The first half of a rename, waiting for its second.
struct inotify_held_t {
    uint32_t cookie;
    uint32_t tick; // when it was read
    int wd;        // the moved folder's own watch, or -1 for a file or an unwatched folder
    bool is_dir;
    char *path; // the old path, relative to the root
};

struct inotify_watch_t {
    os_dirwatch_t base;
    char *root;
    uint64_t dev; // the root's file system; a folder on another one is a mount point, not entered
    inotify_node_t *top;
    // Open addressing on wd with linear probing; count below half of cap, cap a power of two.
    inotify_node_t **table;
    uint32_t cap, count;
    inotify_held_t held[INOTIFY_HELD_MAX];
    int held_count;
    // Folders that appeared during a read, watched and listed at its end (see _inotify_appeared).
    inotify_pending_t *pending;
    int pending_count, pending_cap;
    uint32_t serial; // counts the ends of reads, to list a folder once in each
    uint32_t buffer_size;
    char *buffer;
};

// What one read delivers through: the caller's callback, a path buffer, and the last entry, so that
// repeated modifications of one path fold into one.
struct inotify_out_t {
    os_dirwatch_callback_t callback;
    void *ctx;
    str_t path;
    str_t last_modified; // the path of the last entry when it was a modification, else empty
    bool last_was_modified;
};

// ---- the wd table ---------------------------------------------------------------------------------------

static uint32_t _inotify_slot(const inotify_watch_t *w, int wd) {
    return ((uint32_t) wd * 2654435761u) & (w->cap - 1);
}

static inotify_node_t *_inotify_find(const inotify_watch_t *w, int wd) {
    for (uint32_t i = _inotify_slot(w, wd);; i = (i + 1) & (w->cap - 1)) {
        if (!w->table[i] || w->table[i]->wd == wd) {
            return w->table[i];
        }
    }
}

static void _inotify_table_put(inotify_watch_t *w, inotify_node_t *node) {
    uint32_t i = _inotify_slot(w, node->wd);
    while (w->table[i]) {
        i = (i + 1) & (w->cap - 1);
    }
    w->table[i] = node;
    w->count++;
}

static void _inotify_table_grow(inotify_watch_t *w) {
    inotify_node_t **old = w->table;
    uint32_t old_cap = w->cap;
    w->cap = old_cap ? old_cap * 2 : 64;
    w->table = (inotify_node_t **) mem_alloc(w->cap * sizeof(inotify_node_t *));
    memset(w->table, 0, w->cap * sizeof(inotify_node_t *));
    w->count = 0;
    for (uint32_t i = 0; i < old_cap; i++) {
        if (old[i]) {
            _inotify_table_put(w, old[i]);
        }
    }
    mem_free(old);
}

// Removes by shifting back the entries that probed past the freed slot, so that no search stops early.
static void _inotify_table_remove(inotify_watch_t *w, int wd) {
    uint32_t mask = w->cap - 1;
    uint32_t i = _inotify_slot(w, wd);
    while (w->table[i] && w->table[i]->wd != wd) {
        i = (i + 1) & mask;
    }
    if (!w->table[i]) {
        return;
    }
    w->table[i] = nullptr;
    w->count--;
    for (uint32_t j = (i + 1) & mask; w->table[j]; j = (j + 1) & mask) {
        uint32_t home = _inotify_slot(w, w->table[j]->wd);
        // The entry at j may move to i when its home isn't cyclically inside (i, j].
        if (((j - home) & mask) >= ((j - i) & mask)) {
            w->table[i] = w->table[j];
            w->table[j] = nullptr;
            i = j;
        }
    }
}

// ---- the node tree --------------------------------------------------------------------------------------

static void _inotify_link(inotify_node_t *node, inotify_node_t *parent) {
    node->parent = parent;
    node->prev_sibling = nullptr;
    node->next_sibling = parent ? parent->first_child : nullptr;
    if (node->next_sibling) {
        node->next_sibling->prev_sibling = node;
    }
    if (parent) {
        parent->first_child = node;
    }
}

static void _inotify_unlink(inotify_node_t *node) {
    if (node->prev_sibling) {
        node->prev_sibling->next_sibling = node->next_sibling;
    } else if (node->parent) {
        node->parent->first_child = node->next_sibling;
    }
    if (node->next_sibling) {
        node->next_sibling->prev_sibling = node->prev_sibling;
    }
    node->parent = node->next_sibling = node->prev_sibling = nullptr;
}

static inotify_node_t *_inotify_child(const inotify_node_t *parent, const char *name) {
    for (inotify_node_t *c = parent->first_child; c; c = c->next_sibling) {
        if (strcmp(c->name, name) == 0) {
            return c;
        }
    }
    return nullptr;
}

// The node's path relative to the root (empty for the root), joined with name when name isn't null.
static void _inotify_rel_path(const inotify_node_t *node, const char *name, str_t *out) {
    str_clear(out);
    const inotify_node_t *chain[256];
    int depth = 0;
    for (const inotify_node_t *n = node; n && n->parent; n = n->parent) {
        if (depth == 256) {
            // Deeper than any chain array: build it the slow way, one prefix at a time.
            _inotify_rel_path(n, nullptr, out);
            break;
        }
        chain[depth++] = n;
    }
    while (depth > 0) {
        const inotify_node_t *n = chain[--depth];
        if (out->len) {
            str_cat_char(out, '/');
        }
        str_cat_z(out, n->name);
    }
    if (name) {
        if (out->len) {
            str_cat_char(out, '/');
        }
        str_cat_z(out, name);
    }
}

static void _inotify_full_path(const inotify_watch_t *w, const char *rel, str_t *out) {
    str_set(out, w->root);
    if (rel[0]) {
        if (out->len == 0 || out->ptr[out->len - 1] != '/') {
            str_cat_char(out, '/');
        }
        str_cat_z(out, rel);
    }
}

// Forgets a node and everything below it; with rm, also takes their watches off (a folder moved out of the
// tree keeps its watches in the kernel otherwise).
static void _inotify_drop(inotify_watch_t *w, inotify_node_t *node, bool rm) {
    _inotify_unlink(node);
    // Depth first without recursion: always take the first child of the deepest node reached.
    inotify_node_t *n = node;
    for (;;) {
        while (n->first_child) {
            n = n->first_child;
        }
        inotify_node_t *up = n == node ? nullptr : n->parent;
        if (up) {
            _inotify_unlink(n);
        }
        if (rm) {
            inotify_rm_watch(w->base.fd, n->wd);
        }
        _inotify_table_remove(w, n->wd);
        mem_free(n->name);
        mem_free(n);
        if (!up) {
            return;
        }
        n = up;
    }
}

// Watches the folder at full (relative path rel) as child name of parent, or as the root when parent is
// null. Returns the node, or null with errno set when the folder can't be watched. A folder already
// watched (reached again under a new name) keeps its watch and moves its node.
// Gives a node a new name and parent, unless that would put it below itself (a stale view of a tree
// changing fast; the events that follow correct it).
static void _inotify_move_node(inotify_node_t *node, inotify_node_t *parent, const char *name) {
    for (const inotify_node_t *p = parent; p; p = p->parent) {
        if (p == node) {
            return;
        }
    }
    _inotify_unlink(node);
    mem_free(node->name);
    node->name = mem_dup(name, strlen(name));
    _inotify_link(node, parent);
}

static inotify_node_t *_inotify_add(inotify_watch_t *w, const char *full, inotify_node_t *parent,
                                    const char *name) {
    uint32_t mask = INOTIFY_MASK;
    if (!parent) {
        // The root may be named through a link; only what is below it is never followed.
        mask &= ~(uint32_t) IN_DONT_FOLLOW;
    }
    int wd = inotify_add_watch(w->base.fd, full, mask);
    if (wd < 0) {
        return nullptr;
    }
    inotify_node_t *node = _inotify_find(w, wd);
    if (node) {
        // Back in the tree under a new name (moved out and in again as two unpaired halves): when the
        // move out is counted as a removal later, it must not take this folder's watches with it.
        for (int i = 0; i < w->held_count; i++) {
            if (w->held[i].wd == wd) {
                w->held[i].wd = -1;
            }
        }
        if (node != w->top && parent) {
            _inotify_move_node(node, parent, name);
        }
        return node;
    }
    if ((w->count + 1) * 2 > w->cap) {
        _inotify_table_grow(w);
    }
    node = (inotify_node_t *) mem_alloc(sizeof(inotify_node_t));
    memset(node, 0, sizeof(*node));
    node->wd = wd;
    node->name = mem_dup(name, strlen(name));
    _inotify_link(node, parent);
    _inotify_table_put(w, node);
    return node;
}

// ---- listing --------------------------------------------------------------------------------------------

static void _inotify_emit(inotify_out_t *out, uint32_t action, const str_t *path, uint32_t kind) {
    bool modified = action == OS_DIRWATCH_MODIFIED;
    if (modified && out->last_was_modified && out->last_modified.len == path->len &&
        memcmp(out->last_modified.ptr, path->ptr, (size_t) path->len) == 0) {
        return;
    }
    out->last_was_modified = modified;
    if (modified) {
        str_set_n(&out->last_modified, path->ptr, path->len);
    }
    os_dirwatch_entry_t e = {action, path->len ? path->ptr : "", (uint32_t) path->len, kind};
    out->callback(out->ctx, &e);
}

// True when name in the open folder dirfd is a folder on the tree's file system, one to watch and enter;
// *kind says what it is either way. DT_UNKNOWN (some file systems give no types) costs a stat.
static bool _inotify_entry_kind(const inotify_watch_t *w, int dirfd, const struct dirent *d, uint32_t *kind) {
    *kind = OS_DIRWATCH_FILE;
    if (d->d_type != DT_DIR && d->d_type != DT_UNKNOWN) {
        return false;
    }
    struct stat st;
    if (fstatat(dirfd, d->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(st.st_mode)) {
        return false;
    }
    *kind = OS_DIRWATCH_FOLDER;
    // A mount point is listed as a folder and not entered, as the folder scan does.
    return (uint64_t) st.st_dev == w->dev;
}

// Watches and lists the folder node (just watched) and everything below it, depth first; each folder is
// watched before it is listed. With out, every entry found is reported as added. False with errno set
// when a watch was refused for a reason that ends the whole watch (the user's limit, or no memory).
static bool _inotify_walk(inotify_watch_t *w, inotify_node_t *start, inotify_out_t *out) {
    str_t rel, full, child_full;
    str_init(&rel);
    str_init(&full);
    str_init(&child_full);
    // The stack holds watched folders waiting to be listed.
    int cap = 64, depth = 0;
    inotify_node_t **stack = (inotify_node_t **) mem_alloc((size_t) cap * sizeof(inotify_node_t *));
    stack[depth++] = start;
    bool ok = true;
    while (ok && depth > 0) {
        inotify_node_t *node = stack[--depth];
        node->listed = w->serial;
        _inotify_rel_path(node, nullptr, &rel);
        _inotify_full_path(w, rel.ptr ? rel.ptr : "", &full);
        // The root may be named through a link, as for its watch; nothing below it is followed.
        int fd = open(full.ptr, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (node == w->top ? 0 : O_NOFOLLOW));
        DIR *dir = fd >= 0 ? fdopendir(fd) : nullptr;
        if (!dir) {
            // Gone or unreadable since it was watched: its removal comes as an event of its own.
            if (fd >= 0) {
                close(fd);
            }
            continue;
        }
        while (const struct dirent *d = readdir(dir)) {
            if (strcmp(d->d_name, ".") == 0 || strcmp(d->d_name, "..") == 0) {
                continue;
            }
            uint32_t kind;
            bool enter = _inotify_entry_kind(w, dirfd(dir), d, &kind);
            if (out) {
                _inotify_rel_path(node, d->d_name, &out->path);
                _inotify_emit(out, OS_DIRWATCH_ADDED, &out->path, kind);
            }
            if (!enter) {
                continue;
            }
            str_set_n(&child_full, full.ptr, full.len);
            if (child_full.len && child_full.ptr[child_full.len - 1] != '/') {
                str_cat_char(&child_full, '/');
            }
            str_cat_z(&child_full, d->d_name);
            inotify_node_t *child = _inotify_add(w, child_full.ptr, node, d->d_name);
            if (!child) {
                // Gone, replaced or unreadable: its own events say what became of it.
                ok = errno != ENOSPC && errno != ENOMEM;
                if (!ok) {
                    break;
                }
                continue;
            }
            if (depth == cap) {
                cap *= 2;
                stack = (inotify_node_t **) mem_realloc(stack, (size_t) cap * sizeof(inotify_node_t *));
            }
            stack[depth++] = child;
        }
        int error = errno;
        closedir(dir);
        errno = error;
    }
    int error = errno;
    mem_free(stack);
    str_kill(&rel);
    str_kill(&full);
    str_kill(&child_full);
    errno = error;
    return ok;
}

// ---- building -------------------------------------------------------------------------------------------

static void _inotify_free_pending(inotify_watch_t *w) {
    for (int i = 0; i < w->pending_count; i++) {
        mem_free(w->pending[i].name);
    }
    w->pending_count = 0;
}

static void _inotify_free_held(inotify_watch_t *w) {
    for (int i = 0; i < w->held_count; i++) {
        mem_free(w->held[i].path);
    }
    w->held_count = 0;
}

// Drops every watch and node and the instance itself.
static void _inotify_clear(inotify_watch_t *w) {
    if (w->top) {
        _inotify_drop(w, w->top, false);
        w->top = nullptr;
    }
    if (w->base.fd >= 0) {
        close(w->base.fd);
        w->base.fd = -1;
    }
    _inotify_free_held(w);
    _inotify_free_pending(w);
}

// A new instance with a watch on every folder of the tree. False with errno set, nothing held.
static bool _inotify_build(inotify_watch_t *w) {
    w->base.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (w->base.fd < 0) {
        return false;
    }
    struct stat st;
    if (stat(w->root, &st) != 0) {
        int error = errno;
        _inotify_clear(w);
        errno = error;
        return false;
    }
    w->dev = (uint64_t) st.st_dev;
    w->top = _inotify_add(w, w->root, nullptr, "");
    if (!w->top || !_inotify_walk(w, w->top, nullptr)) {
        int error = errno;
        _inotify_clear(w);
        errno = error;
        return false;
    }
    return true;
}

static void _inotify_destroy(os_dirwatch_t *base) {
    inotify_watch_t *w = (inotify_watch_t *) base;
    _inotify_clear(w);
    mem_free(w->table);
    mem_free(w->pending);
    mem_free(w->buffer);
    mem_free(w->root);
    mem_free(w);
}

// ---- reading --------------------------------------------------------------------------------------------

// A folder that appeared as child name of parent is watched and listed at the end of the read, with
// what it holds reported as added. Not at once: the events are older than the tree, and until the end of
// the read the name may stand for another folder or lie under a folder that has been renamed since, so
// looked up now it could be missed or mistaken. Nothing is lost: what the folder holds by the end of the
// read is listed, and what happens in it after it is watched comes as events.
static void _inotify_appeared(inotify_watch_t *w, inotify_node_t *parent, const char *name) {
    if (w->pending_count == w->pending_cap) {
        w->pending_cap = w->pending_cap ? w->pending_cap * 2 : 16;
        w->pending = (inotify_pending_t *) mem_realloc(w->pending,
                                                       (size_t) w->pending_cap * sizeof(inotify_pending_t));
    }
    w->pending[w->pending_count++] = {parent->wd, mem_dup(name, strlen(name))};
}

// Watches and lists the folders that appeared during the read, under their parents as they are now (a
// parent gone by now takes them along). False with errno set when the watch must end.
static bool _inotify_list_pending(inotify_watch_t *w, inotify_out_t *out) {
    w->serial++;
    str_t rel, full;
    str_init(&rel);
    str_init(&full);
    bool ok = true;
    for (int i = 0; ok && i < w->pending_count; i++) {
        inotify_node_t *parent = _inotify_find(w, w->pending[i].parent_wd);
        if (!parent) {
            continue;
        }
        const char *name = w->pending[i].name;
        _inotify_rel_path(parent, name, &rel);
        _inotify_full_path(w, rel.ptr, &full);
        struct stat st;
        // Gone, no folder, or a mount point (reported, not entered): nothing to watch.
        if (lstat(full.ptr, &st) != 0 || !S_ISDIR(st.st_mode) || (uint64_t) st.st_dev != w->dev) {
            continue;
        }
        inotify_node_t *node = _inotify_add(w, full.ptr, parent, name);
        if (!node) {
            ok = errno != ENOSPC && errno != ENOMEM;
        } else if (node->listed != w->serial) {
            ok = _inotify_walk(w, node, out);
        }
    }
    int error = errno;
    str_kill(&rel);
    str_kill(&full);
    _inotify_free_pending(w);
    errno = error;
    return ok;
}

// Takes held entry i out, keeping the others in the order they came.
static void _inotify_unhold(inotify_watch_t *w, int i) {
    w->held_count--;
    memmove(&w->held[i], &w->held[i + 1], (size_t) (w->held_count - i) * sizeof(inotify_held_t));
}

// Delivers the held first half i as a removal (its second half never came: moved out of the tree).
static void _inotify_release(inotify_watch_t *w, int i, inotify_out_t *out) {
    inotify_held_t *h = &w->held[i];
    str_set(&out->path, h->path);
    _inotify_emit(out, OS_DIRWATCH_REMOVED, &out->path, h->is_dir ? OS_DIRWATCH_FOLDER : OS_DIRWATCH_FILE);
    inotify_node_t *node = h->wd >= 0 ? _inotify_find(w, h->wd) : nullptr;
    if (node && node != w->top) {
        _inotify_drop(w, node, true);
    }
    mem_free(h->path);
    _inotify_unhold(w, i);
}

static void _inotify_moved_from(inotify_watch_t *w, inotify_node_t *parent, const struct inotify_event *e,
                                inotify_out_t *out) {
    if (w->held_count == INOTIFY_HELD_MAX) {
        _inotify_release(w, 0, out);
    }
    inotify_held_t *h = &w->held[w->held_count++];
    h->cookie = e->cookie;
    h->tick = os_tick_ms();
    h->is_dir = (e->mask & IN_ISDIR) != 0;
    inotify_node_t *node = h->is_dir ? _inotify_child(parent, e->name) : nullptr;
    h->wd = node ? node->wd : -1;
    _inotify_rel_path(parent, e->name, &out->path);
    h->path = mem_dup(out->path.ptr, (size_t) out->path.len);
}

// The second half of a rename: paired with its first half, or, alone, something moved in from outside.
static bool _inotify_moved_to(inotify_watch_t *w, inotify_node_t *parent, const struct inotify_event *e,
                              inotify_out_t *out) {
    bool is_dir = (e->mask & IN_ISDIR) != 0;
    uint32_t kind = is_dir ? OS_DIRWATCH_FOLDER : OS_DIRWATCH_FILE;
    for (int i = 0; i < w->held_count; i++) {
        inotify_held_t *h = &w->held[i];
        if (h->cookie != e->cookie) {
            continue;
        }
        str_set(&out->path, h->path);
        _inotify_emit(out, OS_DIRWATCH_RENAMED_OLD, &out->path, kind);
        _inotify_rel_path(parent, e->name, &out->path);
        _inotify_emit(out, OS_DIRWATCH_RENAMED_NEW, &out->path, kind);
        inotify_node_t *node = h->wd >= 0 ? _inotify_find(w, h->wd) : nullptr;
        mem_free(h->path);
        _inotify_unhold(w, i);
        if (!is_dir) {
            return true;
        }
        if (node && node != w->top) {
            _inotify_move_node(node, parent, e->name);
        } else if (!node) {
            // Renamed before it was ever watched (made and renamed between two reads).
            _inotify_appeared(w, parent, e->name);
        }
        return true;
    }
    _inotify_rel_path(parent, e->name, &out->path);
    _inotify_emit(out, OS_DIRWATCH_ADDED, &out->path, kind);
    if (is_dir) {
        _inotify_appeared(w, parent, e->name);
    }
    return true;
}

enum { INOTIFY_GO_ON, INOTIFY_OVERFLOW, INOTIFY_BROKEN };

// One event. The root's own end (deleted, moved, unmounted) breaks the watch.
static int _inotify_event(inotify_watch_t *w, const struct inotify_event *e, inotify_out_t *out) {
    if (e->mask & IN_Q_OVERFLOW) {
        return INOTIFY_OVERFLOW;
    }
    inotify_node_t *node = _inotify_find(w, e->wd);
    if (!node) {
        // A watch already dropped (its folder moved out or deleted): what is left of it is stale.
        return INOTIFY_GO_ON;
    }
    if (e->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
        if (node == w->top) {
            return INOTIFY_BROKEN;
        }
        // The parent's event reports the change; the kernel has dropped (IN_IGNORED) or will drop this
        // watch. A move keeps it, and the parent's move events carry the node along.
        if (e->mask & IN_IGNORED) {
            _inotify_drop(w, node, false);
        }
        return INOTIFY_GO_ON;
    }
    if (!e->len) {
        // Changes to a watched folder itself are reported by its parent's watch, which names it.
        return INOTIFY_GO_ON;
    }
    uint32_t kind = (e->mask & IN_ISDIR) ? OS_DIRWATCH_FOLDER : OS_DIRWATCH_FILE;
    if (e->mask & IN_MOVED_FROM) {
        _inotify_moved_from(w, node, e, out);
    } else if (e->mask & IN_MOVED_TO) {
        if (!_inotify_moved_to(w, node, e, out)) {
            return INOTIFY_BROKEN;
        }
    } else if (e->mask & IN_CREATE) {
        _inotify_rel_path(node, e->name, &out->path);
        _inotify_emit(out, OS_DIRWATCH_ADDED, &out->path, kind);
        if (e->mask & IN_ISDIR) {
            _inotify_appeared(w, node, e->name);
        }
    } else if (e->mask & IN_DELETE) {
        inotify_node_t *child = (e->mask & IN_ISDIR) ? _inotify_child(node, e->name) : nullptr;
        if (child) {
            _inotify_drop(w, child, true);
        }
        _inotify_rel_path(node, e->name, &out->path);
        _inotify_emit(out, OS_DIRWATCH_REMOVED, &out->path, kind);
    } else if (e->mask & (IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB)) {
        _inotify_rel_path(node, e->name, &out->path);
        _inotify_emit(out, OS_DIRWATCH_MODIFIED, &out->path, kind);
    }
    return INOTIFY_GO_ON;
}

// Walks n bytes of events.
// True when e is the second half of a held first half.
static bool _inotify_completes(const inotify_watch_t *w, const struct inotify_event *e) {
    for (int i = 0; (e->mask & IN_MOVED_TO) && i < w->held_count; i++) {
        if (w->held[i].cookie == e->cookie) {
            return true;
        }
    }
    return false;
}

static int _inotify_events(inotify_watch_t *w, ssize_t n, inotify_out_t *out) {
    for (ssize_t off = 0; off + (ssize_t) sizeof(struct inotify_event) <= n;) {
        const struct inotify_event *e = (const struct inotify_event *) (w->buffer + off);
        // The kernel queues the two halves of a rename one right after the other, so a first half
        // followed by anything else was a move out of the tree. It is delivered before that event, in
        // its place: held on, its old path could be stale by the time it goes out (its folder renamed
        // meanwhile), and it would come after changes that happened after it.
        while (w->held_count > 0 && !_inotify_completes(w, e)) {
            _inotify_release(w, 0, out);
        }
        int r = _inotify_event(w, e, out);
        if (r != INOTIFY_GO_ON) {
            return r;
        }
        off += (ssize_t) sizeof(struct inotify_event) + e->len;
    }
    return INOTIFY_GO_ON;
}

// Delivers as removals the first halves that have waited long enough.
static void _inotify_release_due(inotify_watch_t *w, inotify_out_t *out) {
    uint32_t now = os_tick_ms();
    for (int i = 0; i < w->held_count;) {
        if (now - w->held[i].tick >= INOTIFY_HOLD_MS) {
            _inotify_release(w, i, out);
        } else {
            i++;
        }
    }
}

static int _inotify_read(os_dirwatch_t *base, os_dirwatch_callback_t callback, void *ctx) {
    inotify_watch_t *w = (inotify_watch_t *) base;
    inotify_out_t out = {callback, ctx};
    str_init(&out.path);
    str_init(&out.last_modified);
    int r = INOTIFY_GO_ON;
    for (int reads = 0; r == INOTIFY_GO_ON && reads < INOTIFY_READS_MAX; reads++) {
        ssize_t n = read(w->base.fd, w->buffer, w->buffer_size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        }
        r = n <= 0 ? INOTIFY_BROKEN : _inotify_events(w, n, &out);
    }
    int result = OS_DIRWATCH_OK;
    int error = errno;
    if (r == INOTIFY_GO_ON) {
        // The two halves of a rename are queued together, so a first half whose second hasn't come
        // within the hold time was a move out of the tree.
        _inotify_release_due(w, &out);
        if (!_inotify_list_pending(w, &out)) {
            error = errno;
            result = OS_DIRWATCH_BROKEN;
        }
    } else if (r == INOTIFY_OVERFLOW) {
        // Lost events may have made folders that now have no watch: start again from the tree as it is.
        // The caller rescans after this, so whatever changes while we rebuild is seen by the scan.
        _inotify_clear(w);
        if (_inotify_build(w)) {
            result = OS_DIRWATCH_OVERFLOW;
        } else {
            error = errno;
            result = OS_DIRWATCH_BROKEN;
        }
    } else {
        result = OS_DIRWATCH_BROKEN;
    }
    str_kill(&out.path);
    str_kill(&out.last_modified);
    errno = error;
    return result;
}

static uint32_t _inotify_due_ms(os_dirwatch_t *base) {
    inotify_watch_t *w = (inotify_watch_t *) base;
    uint32_t due = OS_INFINITE;
    uint32_t now = os_tick_ms();
    for (int i = 0; i < w->held_count; i++) {
        uint32_t waited = now - w->held[i].tick;
        uint32_t left = waited >= INOTIFY_HOLD_MS ? 0 : INOTIFY_HOLD_MS - waited;
        if (left < due) {
            due = left;
        }
    }
    return due;
}

static const os_dirwatch_ops_t _inotify_ops = {"inotify", _inotify_read, _inotify_due_ms, _inotify_destroy};

os_dirwatch_t *os_dirwatch_inotify_create(const char *folder, uint32_t buffer_size) {
    inotify_watch_t *w = (inotify_watch_t *) mem_alloc(sizeof(inotify_watch_t));
    memset(w, 0, sizeof(*w));
    w->base.ops = &_inotify_ops;
    w->base.fd = -1;
    w->root = mem_dup(folder, strlen(folder));
    w->buffer_size = buffer_size < INOTIFY_BUFFER_MIN ? (uint32_t) INOTIFY_BUFFER_MIN : buffer_size;
    w->buffer = (char *) mem_alloc(w->buffer_size);
    _inotify_table_grow(w);
    if (!_inotify_build(w)) {
        int error = errno;
        os_dirwatch_destroy(&w->base);
        errno = error;
        return nullptr;
    }
    return &w->base;
}
